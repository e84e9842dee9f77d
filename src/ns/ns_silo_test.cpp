#include "ns/ns_silo.h"

#include <gtest/gtest.h>

#include "db/db_test_util.h"
#include "db/tvr_db_silo.h"

namespace {

class NsSilo : public dbtest::DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    ASSERT_EQ(cache_init(), 0);
  }
  void TearDown() override {
    silo_tab_dispose_all();
    DbTest::TearDown();
  }
  // A SILO row with the stored text `text`; its uuid.
  tbs_uuid_s add_row(const std::string& text, uint32_t* dbid = nullptr) {
    tbs_uuid_s uuid = tbs_uuid_create();
    uint32_t d = 0;
    EXPECT_EQ(tvr_db_in_trans(1, [&] { return tvr_db_silo_create(uuid, text, &d); }), 0);
    if (dbid != nullptr) *dbid = d;
    return uuid;
  }
};

TEST_F(NsSilo, FindKnowsOnlyReplicasOfTheDatabase) {
  int st = -1;
  tbs_uuid_s unknown = tbs_uuid_create();
  EXPECT_EQ(silo_find(unknown, &st), nullptr);
  EXPECT_EQ(st, TBS_ST_UNKNOWN_SILO);
  EXPECT_EQ(silo_find_cached(unknown), nullptr);

  // silo_create keeps a replica the database has not met yet, without its row.
  view_silo* fresh = silo_create(unknown, &st);
  ASSERT_NE(fresh, nullptr);
  EXPECT_EQ(st, 0);
  EXPECT_EQ(fresh->db_dbid, 0u);
  EXPECT_EQ(fresh->gen, -1);
  EXPECT_EQ(silo_tab_head(), fresh);

  uint32_t dbid = 0;
  tbs_uuid_s known = add_row("build-host:/silos/proj.silo", &dbid);
  view_silo* s = silo_find(known, &st);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(st, 0);
  EXPECT_EQ(s->db_dbid, dbid);
  EXPECT_EQ(s->host, "build-host");
  EXPECT_EQ(s->path, "/silos/proj.silo");
  EXPECT_NE(s->lvut.tv_sec, 0);
  EXPECT_EQ(silo_tab_head(), s);  // new records go to the front
  EXPECT_EQ(silo_create(known, &st), s);
}

TEST_F(NsSilo, CreateReadsTheRowAndRefusesDamagedOnes) {
  struct Row {
    std::string text;
    int st;
    std::string host, path;
  } rows[] = {
      {"h:/a:b", 0, "h", "/a:b"},  // split at the first colon
      {":/p", 0, "", "/p"},
      {"no-colon", TBS_ST_UNKNOWN_SILO, "", ""},
      {"h:" + std::string(1024, 'p'), TBS_ST_UNKNOWN_SILO, "", ""},  // a path that cannot fit its buffer
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.text.substr(0, 20));
    tbs_uuid_s uuid = add_row(r.text);
    int st = -1;
    dbtest::Messages quiet;
    view_silo* s = silo_create(uuid, &st);
    EXPECT_EQ(st, r.st);
    EXPECT_EQ(s != nullptr, r.st == 0);
    EXPECT_EQ(silo_find_cached(uuid) != nullptr, r.st == 0);  // a record that cannot be read goes
    if (s == nullptr) continue;
    EXPECT_EQ(s->host, r.host);
    EXPECT_EQ(s->path, r.path);
    char host[8], path[1024];
    EXPECT_EQ(tavrel_silo_get_path(uuid, host, sizeof host, path, sizeof path), 0);
    EXPECT_EQ(std::string(path), r.path);
    EXPECT_EQ(tavrel_silo_get_path(uuid, host, sizeof host, path, r.path.size()), TBS_ST_TOO_LONG);
  }
}

TEST_F(NsSilo, FlushForgetsRowsAndObjectsButKeepsRecords) {
  uint32_t dbid = 0;
  tbs_uuid_s uuid = add_row("h:/p", &dbid);
  int st = -1;
  view_silo* s = silo_create(uuid, &st);
  ASSERT_NE(s, nullptr);
  tbs_oid_s oid = tbs_oid_create();
  s->root = obj_alloc(s, 2, oid, 2, 1);  // the record's reference
  obj_free(obj_alloc(s, 3, tbs_oid_create(), 3, 1));
  EXPECT_EQ(s->obj_count, 2);

  silo_cache_flush();
  EXPECT_EQ(silo_find_cached(uuid), s);
  EXPECT_EQ(s->db_dbid, 0u);
  EXPECT_FALSE(s->db_read);
  EXPECT_EQ(s->root, nullptr);
  EXPECT_EQ(s->obj_count, 0);
  EXPECT_EQ(obj_get_by_oid(s, &oid, 0), nullptr);
  EXPECT_EQ(ns_cache_check(), "");
  // The next find reads the row again.
  EXPECT_EQ(silo_find(uuid, &st), s);
  EXPECT_EQ(s->db_dbid, dbid);
  EXPECT_TRUE(s->db_read);

  // With the database closed a forgotten row cannot be read: 1016, the record stays.
  silo_cache_flush();
  tvr_db_close_db();
  dbtest::Messages quiet;
  EXPECT_EQ(silo_find(uuid, &st), nullptr);
  EXPECT_EQ(st, TBS_ST_UNKNOWN_SILO);
  EXPECT_EQ(silo_find_cached(uuid), s);
}

TEST_F(NsSilo, PrintErrorReportsAndMapsStatuses) {
  int st = -1;
  view_silo* s = silo_create(add_row("srv:/store/p"), &st);
  ASSERT_NE(s, nullptr);
  s->tag = "/proj";
  struct Row {
    const char *op, *name;
    int status, result;
    std::string text;  // "" for none
  } rows[] = {
      {"lookup", nullptr, 1019, 1019, ""},
      {"lookup", "a.c", 1078, 1078, ""},
      {"lookup", nullptr, 1001, 1009, "Unexpected error in SILO \"/proj\" op lookup:Input/output error\nSee /store/p on host srv\n"},
      {"lookup", "a.c", 1002, 1002, "Unexpected error in SILO \"/proj\" op lookup (a.c):No such file or directory\n"},
      {"silo_ver_construct_cltxt", "f.c", 1008, 1008, "Unable to construct cleartext for \"f.c\": "},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.status);
    dbtest::Messages m;
    EXPECT_EQ(silo_print_error(s, r.op, r.name, r.status), r.result);
    EXPECT_EQ(m.all().empty(), r.text.empty());
    EXPECT_TRUE(m.contains(r.text)) << m.all();
  }
  dbtest::Messages m;
  silo_print_error_dbid(s, "getattr", 0x1f, 1008);
  silo_print_error_dirname(s, "lookup", 0x20, "b", 1008);
  EXPECT_TRUE(m.contains("op getattr (0x1F):") && m.contains("op lookup (0x20->b):")) << m.all();
}

}  // namespace
