// Get_Metadata, Lookup and Get_Directory_Contents against the project's reference server in the same
// process: the SILO root, a name found and not found, a listing that agrees with the lookups, a path.
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>

#include <gtest/gtest.h>

#include "proto/proto_test_util.h"
#include "server/importer.h"
#include "server/wan_server.h"
#include "wan/get_directory_contents.h"
#include "wan/get_metadata.h"
#include "wan/lookup.h"
#include "wan/rpc_cmd_test_util.h"

using namespace wan_test;

namespace {

struct Collect : Get_Directory_Contents_Listener {
  std::map<std::string, tavrel_extended_dirent> entries;
  bool process_dirent(tavrel_extended_dirent* e) override { return entries.emplace(e->dirent.name, *e).second; }
};

class MetadataReferenceTest : public WanTest {
 protected:
  void SetUp() override {
    WanTest::SetUp();
    const std::string dir = home->path() + "/srv";
    std::filesystem::create_directories(dir + "/src/docs");
    std::ofstream(dir + "/src/a.c") << "int a;\n";
    std::ofstream(dir + "/src/docs/readme.txt") << "read me\n";
    ASSERT_EQ(::symlink("a.c", (dir + "/src/ln").c_str()), 0);
    {
      tavrel_server::Store store(dir + "/store.db");
      silo = tavrel_server::import_tree(store, "/proj", dir + "/src", {}).silo;
    }
    tavrel_server::ServerConfig cfg;
    cfg.store_path = dir + "/store.db";
    cfg.users = {{"alice", "secret"}};
    server = std::make_unique<tavrel_server::WanServer>(cfg);
    ASSERT_GT(server->start(), 0);
    ASSERT_EQ(login("http://127.0.0.1:" + std::to_string(server->port()) + "/tavrel", "alice", "secret"), 0);
  }
  void TearDown() override {
    session()->flush_curl_handles();
    server.reset();
    WanTest::TearDown();
  }
  tavrel_server::Silo silo;
  std::unique_ptr<tavrel_server::WanServer> server;
  const tbs_uuid_s view = proto_test::uuid_n(13);
};

TEST_F(MetadataReferenceTest, RootLookupsAndListingAgree) {
  Get_Metadata root(view, silo.replica, TBS_OID_NULL, TBS_OID_NULL);
  ASSERT_EQ(root.run(), 0) << root.get_status_message();
  tavrel_vstat dir, elem;
  tbs_oid_s scope;
  unsigned gn = 0;
  ASSERT_EQ(root.get_obj_tavrel_vstat(dir), 0);
  ASSERT_EQ(root.get_elem_tavrel_vstat(elem), 0);
  ASSERT_EQ(root.get_obj_scope_info(scope, gn), 0);
  EXPECT_EQ(dir.vstat.mtype, SILO_MTYPE_DIR_VER);
  EXPECT_EQ(elem.vstat.mtype, SILO_MTYPE_DIR_ELEM);
  EXPECT_FALSE(tbs_oid_is_null(scope));

  Collect listing;
  Get_Directory_Contents gdc(view, silo.replica, dir.vstat.obj_oid, TBS_OID_NULL, &listing);
  ASSERT_EQ(gdc.run(), 0) << gdc.get_status_message();
  EXPECT_EQ(gdc.get_status_code(), 0);
  std::string kinds;
  for (const auto& [name, e] : listing.entries)
    kinds += name + ":" + std::to_string(e.obj.vstat.mtype) + "/" + std::to_string(e.elem.vstat.mtype) + " ";
  EXPECT_EQ(kinds, "a.c:6/5 docs:3/2 ln:7/7 ");

  for (const auto& [name, e] : listing.entries) {
    SCOPED_TRACE(name);
    Lookup lookup(view, silo.replica, dir.vstat.obj_oid, TBS_OID_NULL, name);
    ASSERT_EQ(lookup.run(), 0);
    tavrel_vstat obj;
    ASSERT_EQ(lookup.get_obj_tavrel_vstat(obj), 0);
    EXPECT_EQ(tbs_oid_to_str(obj.vstat.obj_oid), tbs_oid_to_str(e.obj.vstat.obj_oid));
    EXPECT_EQ(obj.vstat.fstat.size, e.obj.vstat.fstat.size);
    EXPECT_EQ(std::string(obj.path), std::string(e.obj.path));
  }
  EXPECT_EQ(std::string(listing.entries.at("ln").obj.path), "a.c");

  Lookup missing(view, silo.replica, dir.vstat.obj_oid, TBS_OID_NULL, "missing.c");
  EXPECT_EQ(missing.run(), 0);
  EXPECT_EQ(missing.get_status_code(), TBS_ST_NOT_FOUND);
  EXPECT_EQ(view_status(missing), TAVREL_ST_WAN_CALL_2);

  Get_Metadata by_path(view, "/proj/docs/readme.txt");
  ASSERT_EQ(by_path.run(), 0) << by_path.get_status_message();
  tavrel_vstat file;
  ASSERT_EQ(by_path.get_obj_tavrel_vstat(file), 0);
  EXPECT_EQ(file.vstat.mtype, SILO_MTYPE_FILE_VER);
  EXPECT_EQ(file.vstat.fstat.size, 8u);
}

}  // namespace
