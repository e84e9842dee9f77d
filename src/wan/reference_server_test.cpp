// The client against the project's reference WAN server, in the same process: login with a domain
// and a password holding colons, an RPC with items, a lost session recovered, logout.
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "proto/wan_names.h"
#include "server/importer.h"
#include "server/wan_server.h"
#include "wan/logout.h"
#include "wan/rclient_messages.h"
#include "wan/wan_test_cmd.h"
#include "wan/wan_test_fixture.h"

using namespace wan_test;
namespace fs = std::filesystem;

namespace {

class Silo_Info_Cmd : public Test_Cmd {
 public:
  explicit Silo_Info_Cmd(const std::string& tag) : Test_Cmd(tavrel_wan::RPC_GET_SILO_INFO) {
    args = {{tavrel_wan::ARG_SILO_TAG, tag}};
  }
  std::string replica, family;
  int unmarshal_part(const std::string& id) override {
    if (id == tavrel_wan::PART_SILO_INFO) {
      replica = doc->get_part_item(tavrel_wan::ITEM_SILO_REPLICA_UUID);
      family = doc->get_part_item(tavrel_wan::ITEM_SILO_FAMILY_UUID);
    }
    return 0;
  }
};

class ReferenceServerTest : public WanTest {
 protected:
  void SetUp() override {
    WanTest::SetUp();
    dir = home->path() + "/srv";
    fs::create_directories(dir + "/src/docs");
    std::ofstream(dir + "/src/a.c") << "int a;\n";
    std::ofstream(dir + "/src/docs/readme.txt") << "read me\n";
    {
      tavrel_server::Store store(dir + "/store.db");
      tavrel_server::import_tree(store, "/proj", dir + "/src", {});
    }
    tavrel_server::ServerConfig cfg;
    cfg.store_path = dir + "/store.db";
    cfg.users = {{"alice", "secret"}, {"CORP\\bob", "pw:with:colons"}};
    cfg.threads = 8;
    server = std::make_unique<tavrel_server::WanServer>(cfg);
    port = server->start();
    ASSERT_GT(port, 0);
    base = "http://127.0.0.1:" + std::to_string(port) + "/tavrel";
  }
  void TearDown() override {
    session()->flush_curl_handles();
    server.reset();
    WanTest::TearDown();
  }
  std::string dir, base;
  int port = 0;
  std::unique_ptr<tavrel_server::WanServer> server;
};

TEST_F(ReferenceServerTest, LoginRpcReloginLogout) {
  Login bad("alice", "wrong", "", "", "", base);
  EXPECT_EQ(bad.run(), RCLIENT_ST_AUTH);

  Login login("bob", "pw:with:colons", "CORP", "", "", base);
  ASSERT_EQ(login.run(), 0);
  ASSERT_EQ(login.get_status_code(), 0);
  EXPECT_TRUE(session()->is_authenticated());

  Silo_Info_Cmd info("/proj");
  ASSERT_EQ(info.run(), 0);
  EXPECT_EQ(info.get_status_code(), 0);
  tbs_uuid_s replica;
  EXPECT_EQ(tbs_str_to_uuid(info.replica, &replica), 0) << info.replica;
  EXPECT_FALSE(info.family.empty());

  Silo_Info_Cmd missing("/nope");
  ASSERT_EQ(missing.run(), 0);
  EXPECT_EQ(missing.get_status_code(), TBS_ST_NOT_FOUND);
  EXPECT_FALSE(missing.get_status_message().empty());

  server->sessions().expire_all();
  Silo_Info_Cmd again("/proj");
  ASSERT_EQ(again.run(), 0);  // logged in again on the way
  EXPECT_EQ(again.get_status_code(), 0);
  EXPECT_EQ(again.replica, info.replica);

  Logout logout;
  ASSERT_EQ(logout.run(), 0);
  EXPECT_EQ(logout.get_status_code(), 0);
  EXPECT_FALSE(session()->is_authenticated());
}

}  // namespace
