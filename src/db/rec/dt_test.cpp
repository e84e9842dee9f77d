// The dt_ interface: what the differential test cannot reach (no database, durability, open modes, file
// placement, cache sizing) and a few fixed currency walks that pin the model's own semantics.
#include "db/rec/dt.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "db/rec/io.h"
#include "db/rec/test_util.h"

namespace {

class Dt : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(dt_opentask(&t), 0);
    ASSERT_EQ(rectest::open_db(t, dir.path()), 0);
  }
  void TearDown() override {
    std::string why;
    int st = dt_check(&why, t);
    if (st != S_DBOPEN) {
      EXPECT_EQ(st, 0) << why;
    }
    dt_closetask(t);
  }
  DB_ADDR cr() {
    DB_ADDR d = 0;
    EXPECT_EQ(dt_crget(&d, t, -1), 0);
    return d;
  }
  DB_ADDR new_elem(uint32_t silo, uint32_t dbid) {
    vns_db_elem e{};
    e.silo_dba = silo;
    e.dbid = dbid;
    EXPECT_EQ(dt_fillnew(VNS_DB_ELEM, &e, t, -1), 0);
    return cr();
  }
  DB_ADDR new_ver(uint32_t silo, uint32_t dbid) {
    vns_db_ver v{};
    v.silo_dba = silo;
    v.dbid = dbid;
    EXPECT_EQ(dt_fillnew(VNS_DB_VER, &v, t, -1), 0);
    return cr();
  }
  rectest::TempDir dir;
  DB_TASK* t = nullptr;
};

TEST_F(Dt, NoDatabaseAndNoTransaction) {
  DB_TASK* other;
  ASSERT_EQ(dt_opentask(&other), 0);
  EXPECT_EQ(dt_recfrst(VNS_DB_ELEM, other, -1), S_DBOPEN);
  EXPECT_EQ(db_status, S_DBOPEN);
  dt_closetask(other);
  vns_db_elem e{};
  EXPECT_EQ(dt_fillnew(VNS_DB_ELEM, &e, t, -1), S_TRFREE);
  EXPECT_EQ(dt_trend(t), S_TRNOTACT);
  EXPECT_EQ(dt_trabort(t), S_TRNOTACT);
  EXPECT_EQ(dt_trbegin(nullptr, t), S_TRX_ID);
  ASSERT_EQ(dt_trbegin("tid", t), 0);
  EXPECT_EQ(dt_trbegin("tid", t), S_TRACTIVE);
  EXPECT_EQ(dt_fillnew(12345, &e, t, -1), S_INVREC);
  EXPECT_EQ(dt_recfrst(VNS_DB_ELEM, t, 7), S_INVDB);
  EXPECT_EQ(d_setpages(100, 4), S_SETPAGES) << "only before open";
  EXPECT_EQ(dt_trend(t), 0);
}

TEST_F(Dt, RecwriteMovesTheKeyAndDuplicatesComeInDbaOrder) {
  ASSERT_EQ(dt_trbegin("t", t), 0);
  vns_db_dir_ver_ent e{};
  e.silo_dba = 1;
  e.dir_dbid = 5;
  e.hash = 99;
  DB_ADDR d[3];
  for (int i = 0; i < 3; i++) {
    e.obj_dbid = 10 + i;
    ASSERT_EQ(dt_fillnew(VNS_DB_DIR_VER_ENT, &e, t, -1), 0);
    d[i] = cr();
  }
  key_silo_dir_hash k{1, 5, 99};
  ASSERT_EQ(dt_keyfind(DIR_VER_ENT_NAME_LOOKUP, &k, t, -1), 0);
  EXPECT_EQ(cr(), d[0]);
  ASSERT_EQ(dt_keynext(DIR_VER_ENT_NAME_LOOKUP, t, -1), 0);
  EXPECT_EQ(cr(), d[1]);
  // Move the middle row to another directory: the walk goes on to the third row.
  uint32_t dir6 = 6;
  ASSERT_EQ(dt_crwrite(VNS_DIR_VER_ENT_DIR_DBID, &dir6, t, -1), 0);
  ASSERT_EQ(dt_keynext(DIR_VER_ENT_NAME_LOOKUP, t, -1), 0);
  EXPECT_EQ(cr(), d[2]);
  key_silo_dir_hash k6{1, 6, 99};
  ASSERT_EQ(dt_keyfind(DIR_VER_ENT_NAME_LOOKUP, &k6, t, -1), 0);
  EXPECT_EQ(cr(), d[1]);
  ASSERT_EQ(dt_trend(t), 0);
}

TEST_F(Dt, SetsFindAndDisconnect) {
  ASSERT_EQ(dt_trbegin("t", t), 0);
  DB_ADDR el = new_elem(1, 1);
  ASSERT_EQ(dt_setor(VNS_ELEM_VER_SET, t, -1), 0);
  // findfm on an empty set: 1 and nothing moves.
  EXPECT_EQ(dt_findfm(VNS_ELEM_VER_SET, t, -1), S_EOS);
  EXPECT_EQ(cr(), el);
  DB_ADDR v[3];
  for (int i = 0; i < 3; i++) {
    v[i] = new_ver(1, 100 + i);
    ASSERT_EQ(dt_connect(VNS_ELEM_VER_SET, t, -1), 0);
  }
  EXPECT_EQ(dt_connect(VNS_ELEM_VER_SET, t, -1), S_ISOWNED);
  long n;
  ASSERT_EQ(dt_members(VNS_ELEM_VER_SET, &n, t, -1), 0);
  EXPECT_EQ(n, 3);
  ASSERT_EQ(dt_findfm(VNS_ELEM_VER_SET, t, -1), 0);
  EXPECT_EQ(cr(), v[0]);
  ASSERT_EQ(dt_findnm(VNS_ELEM_VER_SET, t, -1), 0);
  EXPECT_EQ(cr(), v[1]);
  ASSERT_EQ(dt_discon(VNS_ELEM_VER_SET, t, -1), 0);
  EXPECT_EQ(dt_discon(VNS_ELEM_VER_SET, t, -1), S_EOS) << "no current member any more";
  EXPECT_EQ(dt_ismember(VNS_ELEM_VER_SET, t, -1), S_EOS);
  EXPECT_EQ(dt_setmr(VNS_ELEM_VER_SET, t, -1), S_NOTCON);
  ASSERT_EQ(dt_findlm(VNS_ELEM_VER_SET, t, -1), 0);
  EXPECT_EQ(cr(), v[2]);
  EXPECT_EQ(dt_findnm(VNS_ELEM_VER_SET, t, -1), S_EOS);
  EXPECT_EQ(cr(), v[2]);
  // The owner of a non-empty set cannot go; a member cannot be plainly deleted.
  ASSERT_EQ(dt_setro(VNS_ELEM_VER_SET, t, -1), 0);
  EXPECT_EQ(cr(), el);
  EXPECT_EQ(dt_disdel(t, -1), S_HASMEM);
  EXPECT_EQ(dt_crset(&v[0], t, -1), 0);
  EXPECT_EQ(dt_delete(t, -1), S_ISMEM);
  EXPECT_EQ(dt_setor(VNS_ELEM_VER_SET, t, -1), S_INVOWN);
  ASSERT_EQ(dt_trend(t), 0);
}

TEST_F(Dt, ErrorTexts) {
  EXPECT_EQ(dberr_code(-904), "TVRDB0904E *** view database engine error -904 - unable to allocate sufficient memory");
}

TEST(DurableCommit, OneJournalSyncPerCommitAndNoneForReadOnly) {
  tavrel::rec::io_set_nosync(false);
  rectest::TempDir dir;
  DB_TASK* t;
  ASSERT_EQ(dt_opentask(&t), 0);
  ASSERT_EQ(rectest::open_db(t, dir.path()), 0);
  dt_stats_s a{}, b{};
  ASSERT_EQ(dt_stats(&a, t), 0);
  for (int i = 0; i < 3; i++) {
    ASSERT_EQ(dt_trbegin("t", t), 0);
    vns_db_elem e{};
    e.dbid = (uint32_t)i;
    ASSERT_EQ(dt_fillnew(VNS_DB_ELEM, &e, t, -1), 0);
    ASSERT_EQ(dt_trend(t), 0);
  }
  ASSERT_EQ(dt_trbegin("t", t), 0);
  key_silo_dbid k{0, 1};
  ASSERT_EQ(dt_keyfind(VNS_ELEM_KEY, &k, t, -1), 0);
  ASSERT_EQ(dt_trend(t), 0);
  ASSERT_EQ(dt_stats(&b, t), 0);
  EXPECT_EQ(b.journal_syncs - a.journal_syncs, 3u);
  EXPECT_EQ(b.commits - a.commits, 3u);
  EXPECT_GT(b.journal_bytes, a.journal_bytes);
  EXPECT_LT((b.journal_bytes - a.journal_bytes) / 3, 600u) << "small transactions journal changed ranges only";
  dt_closetask(t);
  tavrel::rec::io_set_nosync(true);
}

TEST(DtOpen, InitializeModeAllowsWritesOutsideATransaction) {
  rectest::TempDir dir;
  DB_TASK* t;
  ASSERT_EQ(dt_opentask(&t), 0);
  ASSERT_EQ(rectest::open_db(t, dir.path()), 0);
  db_cr_free f{0xffffffffu, 0};
  EXPECT_EQ(dt_fillnew(DB_CR_FREE, &f, t, -1), S_TRFREE);
  ASSERT_EQ(dt_initialize(t, -1), 0);
  ASSERT_EQ(dt_fillnew(DB_CR_FREE, &f, t, -1), 0) << "committed on its own";
  ASSERT_EQ(dt_close(t), 0);
  ASSERT_EQ(rectest::open_db(t, dir.path()), 0);
  EXPECT_EQ(dt_fillnew(DB_CR_FREE, &f, t, -1), S_TRFREE) << "initialize mode ends with the close";
  ASSERT_EQ(dt_recfrst(DB_CR_FREE, t, -1), 0);
  db_cr_free got{};
  ASSERT_EQ(dt_recread(&got, t, -1), 0);
  EXPECT_EQ(got.cr_free_len, 0xffffffffu);
  // dt_initialize empties what was there.
  ASSERT_EQ(dt_initialize(t, -1), 0);
  EXPECT_EQ(dt_recfrst(DB_CR_FREE, t, -1), S_NOTFOUND);
  dt_closetask(t);
}

TEST(DtOpen, WithoutTheJournalChangesGoStraightToTheFiles) {
  rectest::TempDir dir;
  DB_TASK* t;
  ASSERT_EQ(dt_opentask(&t), 0);
  ASSERT_EQ(rectest::open_db(t, dir.path()), 0);
  ASSERT_EQ(dt_off_opt(DT_OPT_TXJOURNAL, t), 0);
  ASSERT_EQ(dt_trbegin("load", t), 0);
  for (uint32_t i = 0; i < 500; i++) {  // far more pages than the 8-frame cache
    vns_db_ver v{};
    v.silo_dba = 1;
    v.dbid = i;
    ASSERT_EQ(dt_fillnew(VNS_DB_VER, &v, t, -1), 0);
  }
  ASSERT_EQ(dt_trend(t), 0);
  std::string j = rectest::read_file(dir.file("tavrel_db.tjf"));
  ASSERT_GE(j.size(), 28u);
  uint32_t len;
  memcpy(&len, j.data() + 8, 4);
  EXPECT_EQ(len, 28u) << "nothing was journaled";
  std::string why;
  EXPECT_EQ(dt_check(&why, t), 0) << why;
  ASSERT_EQ(dt_trbegin("load", t), 0);
  vns_db_ver v{};
  v.dbid = 9999;
  ASSERT_EQ(dt_fillnew(VNS_DB_VER, &v, t, -1), 0);
  EXPECT_EQ(dt_trabort(t), S_TAFSYNC) << "cannot be undone without the journal";
  ASSERT_EQ(dt_on_opt(DT_OPT_TXJOURNAL, t), 0);
  ASSERT_EQ(dt_close(t), 0);
  ASSERT_EQ(rectest::open_db(t, dir.path()), 0);
  int rows = 0;
  for (int st = dt_recfrst(VNS_DB_VER, t, -1); st == 0; st = dt_recnext(t, -1)) rows++;
  EXPECT_EQ(rows, 501);
  EXPECT_EQ(dt_check(&why, t), 0) << why;
  dt_closetask(t);
}

TEST(DtOpen, EngineSettingsPlaceTheFiles) {
  rectest::TempDir db, files, taf;
  setenv("DBFPATH", files.path().c_str(), 1);
  setenv("DBTAF", taf.path().c_str(), 1);
  DB_TASK* t;
  ASSERT_EQ(dt_opentask(&t), 0);
  unsetenv("DBFPATH");
  unsetenv("DBTAF");
  ASSERT_EQ(rectest::open_db(t, db.path()), 0);
  EXPECT_FALSE(rectest::read_file(files.file("tavrel_db.d00")).empty());
  EXPECT_FALSE(rectest::read_file(files.file("tavrel_db.k14014")).empty());
  EXPECT_EQ(rectest::read_file(taf.file("tavrel_db.tjf")).size(), 28u);
  EXPECT_FALSE(rectest::read_file(taf.file("tavrel_db.tcf")).empty());
  EXPECT_TRUE(rectest::read_file(db.file("tavrel_db.d00")).empty());
  dt_closetask(t);
  // A second process cannot open a database that is open.
  DB_TASK* a;
  ASSERT_EQ(dt_opentask(&a), 0);
  ASSERT_EQ(rectest::open_db(a, db.path()), 0);
  pid_t pid = fork();
  if (pid == 0) {
    DB_TASK* b;
    dt_opentask(&b);
    rectest::Capture quiet;
    _exit(rectest::open_db(b, db.path()) == S_SYSERR ? 0 : 1);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "second open must be refused";
  dt_closetask(a);
}

TEST(DtOpen, CacheAllocationFailureIsReported) {
  rectest::TempDir dir;
  DB_TASK* t;
  ASSERT_EQ(dt_opentask(&t), 0);
  d_set_cache_alloc_cap(64 * 4096);
  dt_write_dictionary(dir.file("tavrel_db.dbd").c_str());
  d_setpagesize(4096);
  dt_dbwdir(dir.path().c_str(), t);
  // The caller halves its page count until the open succeeds.
  int pages = 512, st;
  while (true) {
    ASSERT_EQ(d_setpages(pages - 4, 4), 0);
    st = dt_open("tavrel_db", "o", t);
    if (st != S_NOMEMORY || pages < 64) break;
    pages /= 2;
  }
  EXPECT_EQ(st, 0);
  EXPECT_EQ(pages, 64);
  d_set_cache_alloc_cap(0);
  dt_closetask(t);
}

}  // namespace
