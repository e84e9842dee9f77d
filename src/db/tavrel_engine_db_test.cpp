// Sessions, transactions and the state file of the view database.
#include "db/tavrel_engine_db.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <thread>

#include "base/fileutl.h"
#include "base/tbs.h"
#include "db/db_test_util.h"
#include "db/rec/dt.h"

namespace {

using dbtest::DbTest;
using dbtest::Messages;
using dbtest::Storage;

int write_txn() {
  return tvr_db_in_trans(1, [] {
    vns_db_elem e{};
    e.silo_dba = 1;
    static uint32_t next = 1;
    e.dbid = next++;
    return dt_fillnew(VNS_DB_ELEM, &e, view_db_task, -1) == 0 ? 0 : TBS_ST_INTERNAL;
  });
}

// Every row of the start-up table: the letter found in the state file (and the marker) decides between
// creating, opening, repairing and refusing; a transaction afterwards shows what became of the database.
TEST(DbStartup, EachStateLetter) {
  struct Row {
    const char* name;
    const char* state;  // content of tavrel_db.state; null: no file
    bool marker;        // .new_db present
    bool make_db;       // a database made (and closed cleanly) beforehand
    bool created;
    bool open;
    char letter;        // letter afterwards
    int read_st, write_st;
    const char* message;
  } rows[] = {
      {"no file: a new database", nullptr, false, false, true, true, 'm', 0, 0, "Db initialized"},
      {"empty, no marker: stays closed", "", false, false, false, false, '\0', 1008, 1008, nullptr},
      {"empty with marker: created", "", true, false, true, true, 'm', 0, 0, "Db initialized"},
      {"n: created", "n\n", false, false, true, true, 'm', 0, 0, "Db initialized"},
      {"i: opened", nullptr, false, true, false, true, 'i', 0, 0, "Db initialized"},
      {"i without newline", "i", false, true, false, true, 'i', 0, 0, "Db initialized"},
      {"d: waits for a load", "d\n", false, true, false, false, 'd', 1023, 1023, nullptr},
      // The product's dumper is not installed in this test's product directory: the repair fails and the
      // database stays closed rather than trusted as it stands.
      {"m: repair fails without dumper", "m\n", false, true, false, false, 'r', 1008, 1008, "Recovery failed for DB"},
      {"r: repair fails without dumper", "r\n", false, true, false, false, 'r', 1008, 1008, "Recovery needed for DB"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    Storage s;
    if (r.make_db) {
      int c = 0;
      ASSERT_EQ(tavrel_db_init(&c), 0);
      ASSERT_EQ(write_txn(), 0);
      ASSERT_EQ(tvr_db_close_db(), 0);
      ASSERT_EQ(s.read("tavrel_db.state"), "i\n") << "a clean close leaves the database idle";
    }
    if (r.state) s.write("tavrel_db.state", r.state);
    if (r.marker) s.write(".new_db", "");
    // A product directory without the dumper.
    ASSERT_EQ(mkdir("product", 0700), 0);
    for (const char* f : {"tavrel_db.dbd", "tavrel_db_schema_version"})
      ASSERT_EQ(fileutl_cp(std::string(TAVREL_PRODUCT_DIR) + "/" + f, std::string("product/") + f), 0);
    setenv("TAVREL_PRODUCT_DIR", (s.path() + "/product").c_str(), 1);
    Messages m;
    int created = 0;
    ASSERT_EQ(tavrel_db_init(&created), 0) << m.all();
    EXPECT_EQ(created == 1, r.created);
    EXPECT_EQ(tvr_db_is_open(), r.open);
    EXPECT_EQ(tvr_db_state(), r.letter);
    EXPECT_EQ(tvr_db_in_trans(0, [] { return 0; }), r.read_st);
    EXPECT_EQ(write_txn(), r.write_st);
    if (r.message) {
      EXPECT_TRUE(m.contains(r.message)) << m.all();
    }
    EXPECT_FALSE(fileutl_exists(".new_db"));
  }
}

TEST(DbStartup, UnexpectedLetterAndWrongSchemaVersion) {
  {
    Storage s;
    s.write("tavrel_db.state", "x\n");
    Messages m;
    int created = 0;
    EXPECT_EQ(tavrel_db_init(&created), 1008);
    EXPECT_TRUE(m.contains("Unexpected DB state 'x'"));
  }
  {
    Storage s;
    int c = 0;
    ASSERT_EQ(tavrel_db_init(&c), 0);
    ASSERT_EQ(tvr_db_close_db(), 0);
    s.write("db/tavrel_db_schema_version", "2\n");
    Messages m;
    EXPECT_EQ(tvr_db_open_db(0, 512), 1023);
    EXPECT_TRUE(m.contains("Wrong DB schema version 2, should be 1"));
    m.clear();
    EXPECT_EQ(tvr_db_open_db(1, 512), 1023);
    EXPECT_FALSE(m.contains("Wrong DB schema version")) << "quiet";
    // A start finds the old schema and reformats: the product's dumper writes the database out and the
    // loader rebuilds it in the current schema.
    EXPECT_EQ(tavrel_db_init(&c), 0) << m.all();
    EXPECT_TRUE(m.contains("Reformatting view DB")) << m.all();
    EXPECT_EQ(s.read("db/tavrel_db_schema_version"), "1\n");
    EXPECT_EQ(tvr_db_state(), 'i');
  }
}

// Which transactions each letter grants on an open database.
TEST_F(DbTest, LetterDecidesTheTransaction) {
  struct Row {
    char letter;
    int read_st, write_st;
    char after_write;
  } rows[] = {
      {'i', 0, 0, 'm'}, {'m', 0, 0, 'm'}, {'\0', 0, 1022, '\0'}, {'d', 0, 1022, 'd'},
      {'r', 0, 1022, 'r'}, {'n', 1008, 1008, 'n'}, {'z', 1008, 1008, 'z'},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string("letter ") + (r.letter ? r.letter : '0'));
    ASSERT_EQ(tvr_db_state_change(r.letter), 0);
    EXPECT_EQ(tvr_db_in_trans(0, [] { return 0; }), r.read_st);
    EXPECT_EQ(write_txn(), r.write_st);
    EXPECT_EQ(tvr_db_state(), r.after_write);
  }
  // The loader's form looks at no letter.
  ASSERT_EQ(tvr_db_state_change('d'), 0);
  ASSERT_EQ(tvr_db_trans_start_int(1, 0), 0);
  EXPECT_EQ(tvr_db_trans_end(1), 0);
}

TEST_F(DbTest, StateFileIsWrittenAtEveryChange) {
  EXPECT_EQ(storage_->read("tavrel_db.state"), "m\n");
  ASSERT_EQ(tvr_db_state_purify(), 0);
  EXPECT_EQ(storage_->read("tavrel_db.state"), "i\n");
  ASSERT_EQ(write_txn(), 0);
  EXPECT_EQ(storage_->read("tavrel_db.state"), "m\n") << "the first write announces itself before it runs";
  // A NUL letter changes the memory only.
  ASSERT_EQ(tvr_db_state_change('\0'), 0);
  EXPECT_EQ(storage_->read("tavrel_db.state"), "m\n");
}

// The idle callback purifies only after a quiet period: a write since the last call keeps 'm'.
TEST_F(DbTest, IdleCallbackPurifiesAfterQuietPeriod) {
  ASSERT_EQ(tvr_db_state(), 'm');
  EXPECT_TRUE(tvr_db_state_callback_pending());
  ASSERT_EQ(write_txn(), 0);
  tvr_db_state_idle_callback();
  EXPECT_EQ(tvr_db_state(), 'm') << "written since the last call";
  EXPECT_TRUE(tvr_db_state_callback_pending());
  tvr_db_state_idle_callback();
  EXPECT_EQ(tvr_db_state(), 'i');
  EXPECT_FALSE(tvr_db_state_callback_pending());
  // An engine busy in a transaction on another thread: the callback does not wait for it (a wait
  // would hang this test), leaves the letter, and tries again later.
  ASSERT_EQ(write_txn(), 0);
  std::atomic<bool> in{false}, release{false};
  std::thread t([&] {
    tvr_db_in_trans(0, [&] {
      in = true;
      while (!release) std::this_thread::yield();
      return 0;
    });
  });
  while (!in) std::this_thread::yield();
  tvr_db_state_idle_callback();
  release = true;
  t.join();
  EXPECT_EQ(tvr_db_state(), 'm');
}

TEST(DbOpen, CacheSizeFromEnvironmentAndMemoryRetry) {
  struct Row {
    const char* env;
    int pages;
    uint32_t frames;
  } rows[] = {{"10", 512, 64}, {"40000", 512, 32766}, {"x", 512, 512}, {"300", 512, 300}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.env);
    Storage s;
    int c = 0;
    ASSERT_EQ(tavrel_db_init(&c), 0);
    ASSERT_EQ(tvr_db_close_db(), 0);
    setenv("ORLEN_VIEW_CACHE_SIZE_EV", r.env, 1);
    ASSERT_EQ(tvr_db_open_db(0, r.pages), 0);
    unsetenv("ORLEN_VIEW_CACHE_SIZE_EV");
    dt_stats_s st{};
    ASSERT_EQ(dt_stats(&st, view_db_task), 0);
    EXPECT_EQ(st.frames, r.frames);
  }
  // No memory for 100 pages: the retry at 50 is below the floor of 64, so the open fails.
  Storage s;
  int c = 0;
  ASSERT_EQ(tavrel_db_init(&c), 0);
  ASSERT_EQ(tvr_db_close_db(), 0);
  d_set_cache_alloc_cap(1);
  Messages m;
  EXPECT_EQ(tvr_db_open_db(0, 100), 1008);
  d_set_cache_alloc_cap(0);
  EXPECT_TRUE(m.contains("'D_OPEN'")) << m.all();
  EXPECT_EQ(tvr_db_in_trans(0, [] { return 0; }), 1008);
  // Two opens in a row: the second only checks the side file.
  ASSERT_EQ(tvr_db_open_db(0, 512), 0);
  ASSERT_EQ(tvr_db_open_db(0, 512), 0);
  EXPECT_GE(tvr_db_cr_file_fd(), 0);
  struct stat sb;
  ASSERT_EQ(stat(".s/tavrel_db.crs_file", &sb), 0);
  EXPECT_EQ(sb.st_mode & 0777 & ~0077, 0700u & ~0077u);
}

// The children that die make their storage inside this test's, which is removed at its end.
class DbDeathTest : public DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    setenv("TAVREL_TEST_STORAGE_UNDER", storage_->path().c_str(), 1);
  }
  void TearDown() override {
    unsetenv("TAVREL_TEST_STORAGE_UNDER");
    DbTest::TearDown();
  }
};

TEST_F(DbDeathTest, RecordCallsOutsideTheirTransaction) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(tvr_db_trans_read_check(), "tls->tls_db_trans_state != DB_TRANS_NULL");
  EXPECT_DEATH(
      {
        tvr_db_trans_start(0);
        tvr_db_trans_write_check();
      },
      "tls->tls_db_trans_state == DB_TRANS_WRITE");
  EXPECT_DEATH(
      {
        tvr_db_trans_start(0);
        tvr_db_trans_start(0);
      },
      "tls->tls_db_trans_state == DB_TRANS_NULL");
  // A transaction ended by a thread that did not begin it.
  EXPECT_DEATH(
      {
        tvr_db_trans_start(1);
        std::thread([] { tvr_db_trans_end(1); }).join();
      },
      "tls->tls_db_trans_state == DB_TRANS_WRITE");
}

}  // namespace
