// The scoreboard with real threads: equal foreground fetches merge onto one worker, a background
// duplicate is refused, a foreground fetch waits for a running background one, equal hashes of
// different keys are not merged, a failure and a cancel reach the waiters, and nothing is left
// after 10,000 merged fetches. Threads wait for events, never for time.
#include "fs/tavrel_scoreboard.h"

#include <atomic>
#include <barrier>
#include <latch>
#include <thread>

#include <gtest/gtest.h>

namespace {

// Blocks the work until opened; tells when the work has started.
struct Gate {
  std::latch entered{1}, open{1};
  void enter_and_wait() {
    entered.count_down();
    open.wait();
  }
};

// A fetch of (uuid, dbid); its hash is uuid + dbid, so (1,2) and (2,1) collide. Counts live requests.
struct Req : Tavrel_Scoreboard_Request {
  inline static std::atomic<int> live{0};
  uint32_t uuid, dbid;
  std::atomic<int>* calls;
  Gate* gate;
  bool fail;
  int status = 0;
  std::string message;
  uint32_t data = 0;
  Req(uint32_t u, uint32_t d, std::atomic<int>* c, Gate* g = nullptr, bool f = false)
      : uuid(u), dbid(d), calls(c), gate(g), fail(f) { ++live; }
  ~Req() override { --live; }
  int execute(int& st, std::string& msg) override {
    ++*calls;
    if (gate) gate->enter_and_wait();
    data = uuid * 1000 + dbid;
    status = st = fail ? TBS_ST_INTERNAL : 0;
    if (fail) msg += message = "read failed\n";
    return fail ? TAVREL_SB_FAILED : TAVREL_SB_DONE;
  }
  uint32_t hash() const override { return uuid + dbid; }
  int get_status() const override { return status; }
  std::string get_message() const override { return message; }
  bool equivalent(const Tavrel_Scoreboard_Request* o) const override {
    auto* r = static_cast<const Req*>(o);
    return r->uuid == uuid && r->dbid == dbid;
  }
};
using SB = Tavrel_Scoreboard<Req>;

struct Outcome {
  int state, status;
  std::string message;
  uint32_t data;
};
Outcome run(SB* sb) {
  Outcome o{0, -1, "", 0};
  o.state = sb->execute(o.status, o.message);
  o.data = sb->get_req()->data;
  return o;
}

TEST(Scoreboard, EdgeCasesOfMerging) {
  // A worker first (foreground or background, failing or not), then a second comer.
  struct Case {
    const char* name;
    bool worker_bg, fail, second_bg;
    uint32_t second_uuid, second_dbid;
    int calls, state;
  } cases[] = {
      {"two foreground reads: one fetch, one result", false, false, false, 1, 2, 1, TAVREL_SB_DONE},
      {"foreground behind background: waits for it", true, false, false, 1, 2, 1, TAVREL_SB_DONE},
      {"a failure reaches the waiter", false, true, false, 1, 2, 1, TAVREL_SB_FAILED},
      {"background while one runs: skipped", false, false, true, 1, 2, 1, -1},
      {"same hash, other uuid: not merged", false, false, false, 2, 1, 2, TAVREL_SB_DONE},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::atomic<int> calls{0};
    Gate gate;
    SB* worker = new SB(new Req(1, 2, &calls, &gate, c.fail));
    ASSERT_TRUE(worker->check_duplicate(c.worker_bg));
    Outcome w;
    std::thread tw([&] { w = run(worker); });
    gate.entered.wait();  // the work runs and holds the worker's mutex
    SB* second = new SB(new Req(c.second_uuid, c.second_dbid, &calls, nullptr, c.fail));
    if (!second->check_duplicate(c.second_bg)) {
      EXPECT_EQ(c.state, -1);
      second->release();
      gate.open.count_down();
      tw.join();
    } else {
      EXPECT_EQ(second->is_linked(), c.second_uuid == 1);
      Outcome s;
      std::thread ts([&] { s = run(second); });
      gate.open.count_down();
      tw.join();
      ts.join();
      EXPECT_EQ(s.state, c.state);
      EXPECT_EQ(s.status, c.fail ? TBS_ST_INTERNAL : 0);
      EXPECT_EQ(s.message, c.fail ? "read failed\n" : "");
      EXPECT_EQ(s.data, c.second_uuid * 1000 + c.second_dbid);
      second->release();
    }
    EXPECT_EQ(w.state, c.fail ? TAVREL_SB_FAILED : TAVREL_SB_DONE);
    EXPECT_EQ(calls.load(), c.calls);
    worker->release();
    EXPECT_EQ(Req::live.load(), 0);
    EXPECT_EQ(SB::stats().registered, 0u);
  }
}

TEST(Scoreboard, CancelGivesStateTwoToWaitersAndTheWorkNeverRuns) {
  std::atomic<int> calls{0};
  SB* queued = new SB(new Req(3, 3, &calls));  // a background read still in the queue
  ASSERT_TRUE(queued->check_duplicate(true));
  SB* waiter = new SB(new Req(3, 3, &calls));
  ASSERT_TRUE(waiter->check_duplicate(false));
  Outcome o;
  std::thread t([&] { o = run(waiter); });
  while (queued->get_waits() == 0) std::this_thread::yield();  // the waiter sleeps on the condition
  queued->cancel();
  t.join();
  EXPECT_EQ(o.state, TAVREL_SB_CANCELLED);
  EXPECT_EQ(o.status, TAVREL_ST_VIEW_ENDING);  // never a success with no data
  EXPECT_EQ(queued->get_state(), TAVREL_SB_CANCELLED);
  int status = 0;
  std::string message;
  EXPECT_EQ(queued->execute(status, message), TAVREL_SB_CANCELLED);
  EXPECT_EQ(calls.load(), 0);
  waiter->release();
  EXPECT_EQ(Req::live.load(), 1);  // the original lives on for its own holder
  queued->release();
  EXPECT_EQ(Req::live.load(), 0);
  EXPECT_EQ(SB::stats().registered, 0u);
}

TEST(Scoreboard, NoLeakAfterTenThousandMergedFetches) {
  constexpr int kThreads = 5, kRounds = 2500;  // per round one worker and four merged fetches
  std::atomic<int> calls{0}, wrong{0};
  std::atomic<SB*> worker{nullptr};
  std::barrier registered(kThreads), finished(kThreads);
  auto body = [&](int me) {
    for (uint32_t round = 0; round < kRounds; ++round) {
      if (me == 0) {
        SB* w = new SB(new Req(7, round, &calls));
        if (!w->check_duplicate(false) || w->is_linked()) ++wrong;
        worker = w;
      }
      registered.arrive_and_wait();
      SB* sb = me == 0 ? worker.load() : new SB(new Req(7, round, &calls));
      if (me != 0) {
        SB* bg = new SB(new Req(7, round, &calls));
        if (bg->check_duplicate(true)) ++wrong;  // somebody is on it already
        bg->release();
        if (!sb->check_duplicate(false) || !sb->linked_to(worker.load())) ++wrong;
      }
      Outcome o = run(sb);
      if (o.state != TAVREL_SB_DONE || o.data != 7000 + round) ++wrong;
      finished.arrive_and_wait();  // nobody releases before every waiter has linked
      sb->release();
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) threads.emplace_back(body, i);
  for (auto& t : threads) t.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(calls.load(), kRounds);  // 10,000 merged fetches reached no work
  EXPECT_EQ(Req::live.load(), 0);
  EXPECT_EQ(SB::stats().registered, 0u);
  EXPECT_EQ(SB::stats().max_refcnt, uint32_t(kThreads));
}

}  // namespace
