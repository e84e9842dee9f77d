// Crash tests: a child process runs a seeded workload of transactions (small ones, aborted ones, and ones
// far larger than its 8-frame cache) and reports each commit on a pipe; it is killed with SIGKILL at a
// random moment or ends itself at a fail point inside a commit, a spill, a checkpoint or a recovery. After
// every death the database is reopened (running roll-forward) and must equal, row for row, key for key and
// set for set, a reference database that ran the same workload up to the last reported commit or the one
// after it (a transaction killed inside dt_trend may have become durable). The next child then continues
// the workload on the recovered database. Both durability modes run: a commit synced at once, and a
// commit whose journal sync is deferred (a killed process must lose nothing in either).
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <random>
#include <thread>

#include "db/rec/dt.h"
#include "db/rec/io.h"
#include "db/rec/test_util.h"

namespace {

// Transaction i of the workload. Deterministic given (seed, i) and the database content.
void workload_txn(DB_TASK* t, uint64_t seed, int i) {
  std::mt19937_64 rng(seed * 1000003 + (uint64_t)i);
  auto pick = [&](uint32_t n) { return (uint32_t)(rng() % n); };
  if (dt_trbegin("w", t) != 0) abort();
  int kind = (int)pick(10);
  if (kind == 0) {
    // Large: one element with a few hundred versions.
    vns_db_elem e{};
    e.silo_dba = 2;
    e.dbid = 100000 + (uint32_t)i;
    if (dt_fillnew(VNS_DB_ELEM, &e, t, -1) != 0) abort();
    dt_setor(VNS_ELEM_VER_SET, t, -1);
    int n = 150 + (int)pick(150);
    for (int r = 0; r < n; r++) {
      vns_db_ver v{};
      v.silo_dba = 2;
      v.dbid = (uint32_t)(i * 1000 + r);
      v.size[0] = (uint32_t)rng();
      if (dt_fillnew(VNS_DB_VER, &v, t, -1) == 0) dt_connect(VNS_ELEM_VER_SET, t, -1);
    }
  } else {
    int ops = 5 + (int)pick(15);
    for (int o = 0; o < ops; o++) {
      uint32_t dbid = pick(60);
      switch (pick(5)) {
        case 0: {  // a new element (3 on a duplicate is part of the workload)
          vns_db_elem e{};
          e.silo_dba = 1;
          e.dbid = dbid;
          e.event_sec = (uint32_t)i;
          dt_fillnew(VNS_DB_ELEM, &e, t, -1);
          break;
        }
        case 1: {  // a version under an existing element
          key_silo_dbid k{1, dbid};
          if (dt_keyfind(VNS_ELEM_KEY, &k, t, -1) != 0) break;
          dt_setor(VNS_ELEM_VER_SET, t, -1);
          vns_db_ver v{};
          v.silo_dba = 1;
          v.dbid = (uint32_t)(i * 1000 + o);
          if (dt_fillnew(VNS_DB_VER, &v, t, -1) == 0) dt_connect(VNS_ELEM_VER_SET, t, -1);
          break;
        }
        case 2: {  // remove an element with all its versions
          key_silo_dbid k{1, dbid};
          if (dt_keyfind(VNS_ELEM_KEY, &k, t, -1) != 0) break;
          DB_ADDR el;
          dt_crget(&el, t, -1);
          dt_setor(VNS_ELEM_VER_SET, t, -1);
          while (dt_findfm(VNS_ELEM_VER_SET, t, -1) == 0) dt_disdel(t, -1);
          dt_crset(&el, t, -1);
          dt_disdel(t, -1);
          break;
        }
        case 3: {  // rewrite fields and optional keys
          key_silo_dbid k{1, dbid};
          if (dt_keyfind(VNS_ELEM_KEY, &k, t, -1) != 0) break;
          int32_t co = (int32_t)pick(3) - 1;
          dt_crwrite(VNS_ELEM_CHECKEDOUT, &co, t, -1);
          if (co > 0)
            dt_keystore(VNS_ELEM_CHECKEDOUT, t, -1);
          else
            dt_keydel(VNS_ELEM_CHECKEDOUT, t, -1);
          break;
        }
        default: {  // delete some versions in key order
          key_silo_dbid k{1, dbid * 97};
          dt_keyfind(VNS_VER_KEY, &k, t, -1);
          for (int n = 0; n < 3 && dt_keynext(VNS_VER_KEY, t, -1) == 0; n++) dt_disdel(t, -1);
          break;
        }
      }
    }
  }
  if (kind == 1) {
    dt_trabort(t);
    return;
  }
  if (dt_trend(t) != 0) abort();
  if (i % 5 == 4) dt_syncfiles(t);
}

const char* kFailPoints[] = {"tjf.flush",         "tjf.torn",           "commit.before_sync",
                             "commit.after_sync", "commit.before_apply", "commit.mid_apply",
                             "spill.after_write", "checkpoint.before_sync", "checkpoint.after_data_sync",
                             "checkpoint.after_header", "checkpoint.after_truncate"};

class Reference {
 public:
  Reference(uint64_t seed) : seed_(seed) {
    dt_opentask(&t_);
    rectest::open_db(t_, dir_.path());
    states_.push_back(rectest::dump(t_));  // before transaction 0
  }
  ~Reference() { dt_closetask(t_); }
  // Content after transactions 0..i.
  const std::string& after(int i) {
    while ((int)states_.size() <= i + 1) {
      workload_txn(t_, seed_, (int)states_.size() - 1);
      states_.push_back(rectest::dump(t_));
    }
    return states_[i + 1];
  }

 private:
  uint64_t seed_;
  rectest::TempDir dir_;
  DB_TASK* t_ = nullptr;
  std::vector<std::string> states_;
};

// Run transactions first..first+count-1 in a child; returns the last transaction the child reported.
int run_child(const std::string& dir, uint64_t seed, int first, int count, const char* failpoint, int fp_count,
              int kill_after_us, bool deferred) {
  int fds[2];
  if (pipe(fds) != 0) abort();
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    if (failpoint) tavrel::rec::failpoint_arm(failpoint, fp_count);
    DB_TASK* t;
    dt_opentask(&t);
    if (rectest::open_db(t, dir) != 0) _exit(3);
    if (deferred) dt_on_opt(DT_OPT_DEFER_SYNC, t);
    for (int i = first; i < first + count; i++) {
      workload_txn(t, seed, i);
      if (write(fds[1], &i, sizeof i) != sizeof i) _exit(4);
    }
    dt_close(t);
    _exit(0);
  }
  close(fds[1]);
  if (kill_after_us >= 0) {
    std::this_thread::sleep_for(std::chrono::microseconds(kill_after_us));
    kill(pid, SIGKILL);
  }
  int last = first - 1, v;
  while (read(fds[0], &v, sizeof v) == sizeof v) last = v;
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) != 0 && WEXITSTATUS(status) != 137) {
    ADD_FAILURE() << "child exited with " << WEXITSTATUS(status);
  }
  return last;
}

class Crash : public ::testing::TestWithParam<bool> {};

TEST_P(Crash, KilledAtRandomMomentsAndFailPoints) {
  const char* s = getenv("TAVREL_REC_SEED");
  uint64_t seed = s ? strtoull(s, nullptr, 10) : 4242;
  bool deferred = GetParam();
  rectest::TempDir dir;
  Reference ref(seed);
  std::mt19937 rng((uint32_t)seed);
  int next = 0, recovered_twice = 0;
  for (int iter = 0; iter < 36; iter++) {
    const char* fp = nullptr;
    int fp_count = 1, kill_us = -1;
    if (iter % 3 == 0) {
      kill_us = (int)(rng() % 40000);
    } else {
      fp = kFailPoints[rng() % (sizeof kFailPoints / sizeof kFailPoints[0])];
      fp_count = 1 + (int)(rng() % 4);
    }
    int last = run_child(dir.path(), seed, next, 12, fp, fp_count, kill_us, deferred);
    // Sometimes die again in the middle of the recovery itself.
    if (iter % 4 == 1) {
      pid_t pid = fork();
      if (pid == 0) {
        tavrel::rec::failpoint_arm("recover.apply", 1 + (int)(rng() % 20));
        DB_TASK* t;
        dt_opentask(&t);
        rectest::Capture quiet;
        rectest::open_db(t, dir.path());
        _exit(0);
      }
      int status;
      waitpid(pid, &status, 0);
      if (WIFEXITED(status) && WEXITSTATUS(status) == 137) recovered_twice++;
    }
    DB_TASK* t;
    ASSERT_EQ(dt_opentask(&t), 0);
    rectest::Capture quiet;
    ASSERT_EQ(rectest::open_db(t, dir.path()), 0) << "seed " << seed << " iteration " << iter;
    std::string why;
    ASSERT_EQ(dt_check(&why, t), 0) << "seed " << seed << " iteration " << iter << ": " << why;
    std::string got = rectest::dump(t);
    ASSERT_EQ(dt_closetask(t), 0);
    if (got == ref.after(last)) {
      next = last + 1;
    } else if (got == ref.after(last + 1)) {
      next = last + 2;
    } else {
      FAIL() << "seed " << seed << " iteration " << iter << " (fail point " << (fp ? fp : "none")
             << "): recovered content matches neither transaction " << last << " nor " << last + 1;
    }
  }
  EXPECT_GT(next, 36) << "the workload made progress";
  EXPECT_GT(recovered_twice, 0) << "a recovery was itself interrupted";
}

INSTANTIATE_TEST_SUITE_P(SyncModes, Crash, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& i) { return i.param ? "Deferred" : "AtCommit"; });

// Deferred commits stay pending until a sync from another thread or a checkpoint makes them durable.
TEST(DeferredSync, PendingUntilSyncedOrCheckpointed) {
  rectest::TempDir dir;
  DB_TASK* t;
  ASSERT_EQ(dt_opentask(&t), 0);
  ASSERT_EQ(rectest::open_db(t, dir.path()), 0);
  auto sp = dt_journal_sync_point(t);
  ASSERT_TRUE(sp);
  auto commit_one = [&](uint32_t dbid) {
    vns_db_elem e{};
    e.silo_dba = 1;
    e.dbid = dbid;
    ASSERT_EQ(dt_trbegin("w", t), 0);
    ASSERT_EQ(dt_fillnew(VNS_DB_ELEM, &e, t, -1), 0);
    ASSERT_EQ(dt_trend(t), 0);
  };
  commit_one(1);
  EXPECT_FALSE(sp->pending()) << "without the option a commit is synced at once";
  dt_on_opt(DT_OPT_DEFER_SYNC, t);
  commit_one(2);
  EXPECT_TRUE(sp->pending());
  std::thread([&] { EXPECT_EQ(sp->sync(), 0); }).join();
  EXPECT_FALSE(sp->pending());
  commit_one(3);
  ASSERT_TRUE(sp->pending());
  ASSERT_EQ(dt_syncfiles(t), 0);
  EXPECT_FALSE(sp->pending()) << "a checkpoint makes the written commits durable";
  commit_one(4);
  ASSERT_EQ(dt_closetask(t), 0);
  EXPECT_EQ(sp->sync(), 0) << "the sync point outlives the database";
}

}  // namespace
