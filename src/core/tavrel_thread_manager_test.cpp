// The thread manager: pool-size rules, promotion, cancellation at shutdown, the shutdown pipe.
#include "core/tavrel_thread_manager_base.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include <gtest/gtest.h>

#include "core/tavrel_config.h"
#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_unix.h"

namespace {

using namespace std::chrono_literals;

// What the test requests did, under one lock.
struct Board {
  std::mutex mu;
  std::condition_variable cv;
  bool open = false;  // requests block until the gate opens
  int running[2] = {0, 0};
  int max_running[2] = {0, 0};
  int done[2] = {0, 0};
  int cancelled = 0;
  std::vector<int> ran_ids;

  template <typename P>
  bool wait_for(P pred, std::chrono::milliseconds limit = 10s) {
    std::unique_lock<std::mutex> g(mu);
    return cv.wait_for(g, limit, pred);
  }
  void open_gate() {
    std::lock_guard<std::mutex> g(mu);
    open = true;
    cv.notify_all();
  }
};

class TestRequest : public Tavrel_Request {
 public:
  TestRequest(Board* b, int kind, int id, int wants = -1) : Tavrel_Request(kind), m_b(b), m_id(id), m_wants(wants) {}
  int handle_request() override {
    int k = kind == FOREGROUND ? 1 : 0;
    std::unique_lock<std::mutex> g(m_b->mu);
    m_b->running[k]++;
    m_b->max_running[k] = std::max(m_b->max_running[k], m_b->running[k]);
    m_b->ran_ids.push_back(m_id);
    m_b->cv.notify_all();
    m_b->cv.wait(g, [this] { return m_b->open; });
    m_b->running[k]--;
    m_b->done[k]++;
    m_b->cv.notify_all();
    return 0;
  }
  void cancel_request() override {
    std::lock_guard<std::mutex> g(m_b->mu);
    m_b->cancelled++;
    m_b->cv.notify_all();
  }
  bool is_equivalent(const Tavrel_Request* other) const override {
    auto* o = dynamic_cast<const TestRequest*>(other);
    return o && o->m_id == m_wants;
  }
  std::string toString() const override { return "test " + std::to_string(m_id); }

 private:
  Board* m_b;
  int m_id;
  int m_wants;
};

class ThreadManagerTest : public ::testing::Test {
 protected:
  Tavrel_Thread_Manager_Base* start(int pool) { return start(std::to_string(pool)); }
  Tavrel_Thread_Manager_Base* start(const std::string& pool) {
    setenv("HOME", "/nonexistent-tavrel-home", 1);
    Tavrel_Config::reset_for_test();
    Tavrel_Config::get_instance()->load_text("tavrelNumCmapi=" + pool + "\n");
    mgr = Tavrel_Thread_Manager_Base::get_instance();
    EXPECT_EQ(mgr->initialize(), 0);
    EXPECT_EQ(mgr->initialize(), 0);  // a second call is harmless
    return mgr;
  }
  void stop() {
    if (!mgr) return;
    board.open_gate();
    mgr->set_should_exit();
    mgr->drain_incomplete();
    mgr->terminate();
    Tavrel_Thread_Manager_Base::destroy_instance();
    mgr = nullptr;
  }
  void TearDown() override { stop(); }
  void submit(int kind, int id, int count = 1) {
    for (int i = 0; i < count; i++) mgr->process_request(new TestRequest(&board, kind, id + i));
  }

  Board board;
  Tavrel_Thread_Manager_Base* mgr = nullptr;
};

// A pool of N runs at most N-1 foreground requests at once (the agent end-to-end test shows that with
// real clients); here the low-priority side: while the foreground fills its share, one thread, and
// never every thread.
TEST_F(ThreadManagerTest, LowPriorityGetsOneThreadTheForegroundLeaves) {
  start(std::string("3 pool threads"));  // read as strtol reads it
  submit(Tavrel_Request::FOREGROUND, 100, 4);
  submit(Tavrel_Request::LOW_PRIORITY, 200, 4);
  ASSERT_TRUE(board.wait_for([&] { return board.running[1] == 2 && board.running[0] == 1; }))
      << "fg " << board.running[1] << " bg " << board.running[0];
  board.open_gate();
  ASSERT_TRUE(board.wait_for([&] { return board.done[1] == 4 && board.done[0] == 4; }));
  EXPECT_EQ(board.max_running[1], 2);
  EXPECT_LE(board.max_running[0], 2);
  EXPECT_EQ(board.cancelled, 0);
}

TEST_F(ThreadManagerTest, PoolOfOneRunsForegroundAndStarvesLowPriority) {
  start(1);
  submit(Tavrel_Request::LOW_PRIORITY, 200, 2);
  submit(Tavrel_Request::FOREGROUND, 100, 3);
  board.open_gate();
  ASSERT_TRUE(board.wait_for([&] { return board.done[1] == 3; }));
  EXPECT_EQ(board.max_running[1], 1);
  EXPECT_EQ(board.done[0], 0);
  EXPECT_EQ(mgr->counters().bg_queued, 2u);
}

TEST_F(ThreadManagerTest, PoolOfZeroNeverRuns) {
  start(0);
  submit(Tavrel_Request::FOREGROUND, 1);
  EXPECT_EQ(mgr->counters().fg_queued, 1u);
  mgr->set_should_exit();
  mgr->drain_incomplete();
  EXPECT_EQ(board.cancelled, 1);
  EXPECT_TRUE(board.ran_ids.empty());
}

TEST_F(ThreadManagerTest, PromotionPullsTheEquivalentRequestForward) {
  start(1);  // low priority would never run here on its own
  submit(Tavrel_Request::LOW_PRIORITY, 7);
  submit(Tavrel_Request::LOW_PRIORITY, 8);
  TestRequest nobody(&board, Tavrel_Request::FOREGROUND, 1, 42);
  mgr->promote_dependency(&nobody);  // nothing equivalent: nothing moves
  EXPECT_EQ(mgr->counters().bg_queued, 2u);
  TestRequest wants8(&board, Tavrel_Request::FOREGROUND, 2, 8);
  board.open_gate();
  mgr->promote_dependency(&wants8);
  ASSERT_TRUE(board.wait_for([&] { return board.done[0] == 1; }));
  EXPECT_EQ(board.ran_ids, std::vector<int>{8});
  EXPECT_EQ(mgr->counters().bg_queued, 1u);
}

TEST_F(ThreadManagerTest, RequestsAfterShutdownAreCancelledAndRunningOnesFinish) {
  start(3);
  submit(Tavrel_Request::FOREGROUND, 1);
  ASSERT_TRUE(board.wait_for([&] { return board.running[1] == 1; }));
  mgr->set_should_exit();
  submit(Tavrel_Request::FOREGROUND, 2);  // arrives after shutdown: cancelled at once
  EXPECT_EQ(board.cancelled, 1);
  board.open_gate();
  ASSERT_TRUE(board.wait_for([&] { return board.done[1] == 1; }));
  mgr->drain_incomplete();
  mgr->terminate();
  auto c = mgr->counters();
  EXPECT_EQ(c.live + c.pending, 0);
  EXPECT_EQ(mgr->shutdown_read_fd(), -1);  // the pipe is closed once everything is reaped
}

TEST_F(ThreadManagerTest, ShutdownPipeWakesWaitersForGood) {
  start(2);
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  ASSERT_EQ(write(p[1], "x", 1), 1);
  EXPECT_EQ(Tavrel_Thread_Manager_Unix::wait_for_input(p[0]), 0);
  int shut = mgr->shutdown_read_fd();
  mgr->set_should_exit();
  mgr->set_should_exit();  // a second notice: one more byte, nothing else
  EXPECT_EQ(Tavrel_Thread_Manager_Unix::wait_for_input(p[0]), TAVREL_ST_EXIT_REQUESTED);
  EXPECT_EQ(Tavrel_Thread_Manager_Unix::wait_for_input(p[0]), TAVREL_ST_EXIT_REQUESTED);
  fcntl(shut, F_SETFL, O_NONBLOCK);
  char buf[8];
  EXPECT_EQ(read(shut, buf, sizeof buf), 2);
  close(p[0]);
  close(p[1]);
}

TEST_F(ThreadManagerTest, TerminateBeforeInitializeReturnsAtOnce) {
  mgr = Tavrel_Thread_Manager_Base::get_instance();
  EXPECT_FALSE(mgr->is_initialized());
  mgr->terminate();  // would wait for ever if it tried to reap
  mgr->wait_for_terminate();
  Tavrel_Thread_Manager_Base::destroy_instance();
  mgr = nullptr;
}

}  // namespace

// A failed assertion names the agent program as its source and reports the text it is known by.
TEST(ThreadManagerDeathTest, AssertionsNameTheAgent) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const struct {
    void (*fn)();
    const char* text;
  } cases[] = {
      {[] { Tavrel_Thread_Manager_Unix::wait_for_input(0); }, "g_instance != NULL"},
      {[] {
         Tavrel_Thread_Manager_Base* m = Tavrel_Thread_Manager_Base::get_instance();
         m->initialize();
         m->terminate();  // without set_should_exit
       },
       "m_should_exit"},
  };
  for (const auto& c : cases)
    EXPECT_DEATH(c.fn(), std::string("Assertion failed: ") + c.text + ", file tavrel_agent, line") << c.text;
}
