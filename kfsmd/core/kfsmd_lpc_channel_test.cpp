// The LPC channel between the daemon and a view's agent threads: replies matched to requests by
// cookie, stale replies and lost threads (a request runs again only when that is safe), the waits for
// an agent that is not there, and the end of a view with requests pending.
#include "kfsmd/core/kfsmd_lpc_channel.h"

#include <thread>

#include "kfsmd/core/kfsmd_test_util.h"

namespace {

using namespace kfsmd_test;
using Agent = Kfsmd_Scripted_Agent;

class Lpc : public Daemon_Test {
 protected:
  // One RPC on the view's channel: its errno.
  int call(const std::string& tag, uint64_t op) {
    uint32_t rs = 0;
    std::string reply;
    return registry->find_view(tag)->channel().call(op, "", &rs, &reply);
  }
};

TEST_F(Lpc, ManyRequestsOnTwoThreadsEachGetTheirOwnAnswer) {
  Agent agent;
  for (uint32_t i = 0; i < 8; ++i) agent.add(1, "n" + std::to_string(i), 10 + i, 1, 100 + i);
  auto silo = view_with_silo("v");
  agent.start("v", 2);
  Rec_Reply root;
  silo->getattr(1, root);  // binds the SILO root first
  ASSERT_EQ(root.error, 0);
  // Both threads hold a request; the other six wait in the daemon's queue until they come back.
  agent.script(Agent::HOLD, 2);
  Rec_Reply r[8];
  std::vector<std::thread> ts;
  for (int i = 0; i < 8; ++i) ts.emplace_back([&, i] { silo->lookup(1, "n" + std::to_string(i), r[i]); });
  ASSERT_TRUE(agent.wait_held(2));
  EXPECT_TRUE(eventually([&] { return silo->view().channel().queued() == 6; }));
  agent.release();
  for (auto& t : ts) t.join();
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(r[i].error, 0) << i;
    EXPECT_EQ(r[i].ent.attr.st_ino, 10u + i);
    EXPECT_EQ(r[i].ent.attr.st_size, 100 + i);
  }
  EXPECT_EQ(agent.count(VIEW_RPC_LOOKUP), 8);
}

TEST_F(Lpc, StaleRepliesAndLostThreadsRunARequestAgainOnlyWhenSafe) {
  const auto B = Agent::BAD_COOKIE, D = Agent::DROP;
  constexpr uint64_t NUL = VIEW_RPC_NULL, REMOVE = VIEW_RPC_REMOVE;  // may run twice / may not
  struct {
    const char* what;
    std::vector<Agent::Fault> faults;
    int threads;
    uint64_t op;
    int err;
    int seen;
  } rows[] = {
      {"stale cookie, then the answer", {B}, 1, NUL, 0, 2},
      {"stale cookie twice", {B, B}, 1, NUL, EIO, 2},
      {"stale cookie on a change", {B}, 1, REMOVE, EIO, 1},
      {"thread lost, another answers", {D}, 2, NUL, 0, 2},
      {"two threads lost", {D, D}, 2, NUL, EIO, 2},
      {"thread lost on a change", {D}, 2, REMOVE, EIO, 1},
      {"the last thread lost", {D}, 1, NUL, EIO, 1},
  };
  int n = 0;
  for (auto& row : rows) {
    SCOPED_TRACE(row.what);
    const std::string tag = "v" + std::to_string(n++);
    Agent agent;
    ASSERT_EQ(cmd_mkview(tag, uuid_n(1), base), 0);
    agent.start(tag, row.threads);
    ASSERT_TRUE(eventually([&] { return registry->find_view(tag)->channel().connections() == row.threads; }));
    for (auto f : row.faults) agent.script(f);
    EXPECT_EQ(call(tag, row.op), row.err);
    EXPECT_EQ(agent.count(row.op), row.seen);
    // The threads left are let go with 1046 when the view is removed.
    EXPECT_EQ(cmd_rmtag(tag), 0);
    EXPECT_TRUE(agent.join());
  }
}

class LpcNoAgent : public Lpc {
 protected:
  LpcNoAgent() { lpc_wait_ms = 100; }
};

TEST_F(LpcNoAgent, RequestsWaitForAThreadThenFail) {
  ASSERT_EQ(cmd_mkview("v", uuid_n(1), base), 0);
  EXPECT_EQ(call("v", VIEW_RPC_NULL), EIO);
  EXPECT_EQ(registry->find_view("v")->channel().queued(), 0u);
}

TEST_F(Lpc, ARequestQueuedBeforeTheFirstThreadIsServedByIt) {
  ASSERT_EQ(cmd_mkview("v", uuid_n(1), base), 0);
  int err = -1;
  std::thread t([&] { err = call("v", VIEW_RPC_NULL); });
  EXPECT_TRUE(eventually([&] { return registry->find_view("v")->channel().queued() == 1; }));
  Agent agent;
  agent.start("v", 1);
  t.join();
  EXPECT_EQ(err, 0);
  EXPECT_EQ(agent.count(VIEW_RPC_NULL), 1);
}

TEST_F(Lpc, EndOfViewFailsPendingRequestsDetachesMountsAndLetsThreadsGo) {
  Agent agent;
  agent.add(1, "f", 2, 1);
  auto silo = view_with_silo("v");
  const std::string mp = silo->info().mount_point;
  agent.start("v", 1);
  agent.script(Agent::HOLD);
  Rec_Reply held, queued;
  std::thread t1([&] { silo->getattr(1, held); });
  ASSERT_TRUE(agent.wait_held(1));
  std::thread t2([&] { silo->lookup(1, "f", queued); });
  EXPECT_TRUE(eventually([&] { return silo->view().channel().queued() == 1; }));
  ASSERT_EQ(cmd_rmtag("v"), 0);
  t1.join();
  t2.join();
  EXPECT_EQ(held.error, ENOTCONN);
  EXPECT_EQ(queued.error, ENOTCONN);
  {
    std::lock_guard<std::mutex> g(rec.mu);
    EXPECT_EQ(rec.unmounts, (std::vector<std::pair<std::string, bool>>{{mp, true}}));
  }
  EXPECT_NE(access(mp.c_str(), F_OK), 0);
  EXPECT_NE(access(view_root("v").c_str(), F_OK), 0);
  // The held answer comes too late and is dropped; the thread is told 1046 and ends.
  agent.release();
  ASSERT_TRUE(agent.join());
  EXPECT_EQ(agent.statuses(), std::vector<int>{TBS_ST_VIEW_GONE});
  // Later requests fail at once, and a new thread for the tag is told 1046 on its first call.
  Rec_Reply late;
  silo->getattr(1, late);
  EXPECT_EQ(late.error, ENOTCONN);
  agent.start("v", 1);
  ASSERT_TRUE(agent.join());
  EXPECT_EQ(agent.statuses(), (std::vector<int>{TBS_ST_VIEW_GONE, TBS_ST_VIEW_GONE}));
  EXPECT_EQ(cmd_rmtag("v"), TBS_ST_NOT_FOUND);
}

}  // namespace
