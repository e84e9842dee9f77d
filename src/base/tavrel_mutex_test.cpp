// The lock-order checks: a lock against the order ends the process naming both mutexes; in order,
// re-entry of a recursive mutex and waits on a condition keep the per-thread bookkeeping right.
#include "base/tavrel_mutex.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

namespace {

#if defined(TAVREL_LOCK_ORDER_CHECKS)

class Lock_Order : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  Tavrel_Mutex outer{Tavrel_Lock_Rank::CONFIG, "outer"};
  Tavrel_Recursive_Mutex cache{Tavrel_Lock_Rank::NS_CACHE, "cache"};
  Tavrel_Recursive_Mutex engine{Tavrel_Lock_Rank::DB_ENGINE, "engine"};
  Tavrel_Mutex queue{Tavrel_Lock_Rank::THREAD_QUEUE, "queue"};
  Tavrel_Mutex leaf{Tavrel_Lock_Rank::LEAF, "leaf"};
  Tavrel_Mutex leaf2{Tavrel_Lock_Rank::LEAF, "leaf2"};
};

TEST_F(Lock_Order, InOrderAndRecursiveReentryPass) {
  {
    std::lock_guard<Tavrel_Mutex> a(outer);
    std::lock_guard<Tavrel_Recursive_Mutex> b(cache);
    std::lock_guard<Tavrel_Recursive_Mutex> c(engine);
    // Re-entry of the cache mutex below the engine mutex: it is ours already, so it cannot wait.
    std::lock_guard<Tavrel_Recursive_Mutex> d(cache);
    std::unique_lock<Tavrel_Mutex> e(leaf);
    EXPECT_EQ(tavrel_lock_order::held_count(), 5);
    EXPECT_TRUE(cache.held_by_me());
    TAVREL_ASSERT_HELD(cache);
    e.unlock();
    // Released out of order: the bookkeeping follows.
    EXPECT_EQ(tavrel_lock_order::held_count(), 4);
    // Re-entries as deep as a walk up a deep tree makes them take no room of their own.
    for (int i = 0; i < 4 * tavrel_lock_order::MAX_HELD; i++) cache.lock();
    EXPECT_EQ(tavrel_lock_order::held_count(), 4 + 4 * tavrel_lock_order::MAX_HELD);
    for (int i = 0; i < 4 * tavrel_lock_order::MAX_HELD; i++) cache.unlock();
    EXPECT_TRUE(cache.held_by_me());
  }
  EXPECT_EQ(tavrel_lock_order::held_count(), 0);
  EXPECT_FALSE(cache.held_by_me());
  // Each thread has its own stack: another thread may take the outer lock while this one holds a leaf.
  std::lock_guard<Tavrel_Mutex> g(leaf);
  std::thread([this] {
    std::lock_guard<Tavrel_Mutex> a(outer);
    EXPECT_EQ(tavrel_lock_order::held_count(), 1);
  }).join();
}

TEST_F(Lock_Order, AgainstTheOrderAborts) {
  struct {
    const char* what;
    std::function<void()> run;
    const char* message;
  } cases[] = {
      {"inner then outer", [this] { std::lock_guard<Tavrel_Mutex> q(queue); std::lock_guard<Tavrel_Mutex> o(outer); },
       "taking \"outer\" \\(CONFIG\\) while holding \"queue\" \\(THREAD_QUEUE\\)"},
      {"engine then first cache lock",
       [this] { std::lock_guard<Tavrel_Recursive_Mutex> e(engine); std::lock_guard<Tavrel_Recursive_Mutex> c(cache); },
       "taking \"cache\" \\(NS_CACHE\\) while holding \"engine\" \\(DB_ENGINE\\)"},
      {"two leaves", [this] { std::lock_guard<Tavrel_Mutex> a(leaf); std::lock_guard<Tavrel_Mutex> b(leaf2); },
       "taking \"leaf2\" \\(LEAF\\) while holding \"leaf\" \\(LEAF\\)"},
      {"plain mutex twice", [this] { leaf.lock(); leaf.lock(); }, "\"leaf\" \\(LEAF\\) locked again"},
      {"unlock of a mutex not held", [this] { leaf.unlock(); }, "\"leaf\" released by a thread that does not hold it"},
      {"held assertion", [this] { TAVREL_ASSERT_HELD(cache); }, "\"cache\" must be held here"},
  };
  for (auto& c : cases) EXPECT_DEATH(c.run(), c.message) << c.what;
}

TEST_F(Lock_Order, ConditionWaitKeepsTheBookkeeping) {
  std::condition_variable_any cv;
  bool ready = false;
  std::thread signaller;
  {
    std::lock_guard<Tavrel_Mutex> o(outer);
    std::unique_lock<Tavrel_Mutex> q(queue);
    signaller = std::thread([&] {
      std::lock_guard<Tavrel_Mutex> g(queue);  // taken while the waiter sleeps, so the wait released it
      ready = true;
      cv.notify_all();
    });
    cv.wait(q, [&] { return ready; });
    EXPECT_EQ(tavrel_lock_order::held_count(), 2);
    EXPECT_TRUE(queue.held_by_me());
    std::lock_guard<Tavrel_Mutex> l(leaf);  // still in order after the wait
  }
  signaller.join();
  EXPECT_EQ(tavrel_lock_order::held_count(), 0);

  // A wait that gives back an outer mutex and takes it again under an inner one is the hazard itself.
  EXPECT_DEATH(
      {
        std::condition_variable_any c2;
        std::unique_lock<Tavrel_Mutex> o(outer);
        std::lock_guard<Tavrel_Mutex> q(queue);
        c2.wait_for(o, std::chrono::milliseconds(1));
      },
      "taking \"outer\" \\(CONFIG\\) while holding \"queue\" \\(THREAD_QUEUE\\)");
}

#else

TEST(Lock_Order, PlainMutexesWithoutChecks) {
  // Release builds: the classes are plain mutexes; they still work with the standard lock types.
  Tavrel_Mutex m{Tavrel_Lock_Rank::LEAF, "m"};
  Tavrel_Recursive_Mutex r{Tavrel_Lock_Rank::NS_CACHE, "r"};
  std::condition_variable_any cv;
  bool ready = false;
  std::thread t([&] {
    std::lock_guard<Tavrel_Mutex> g(m);
    ready = true;
    cv.notify_all();
  });
  {
    std::unique_lock<Tavrel_Mutex> g(m);
    cv.wait(g, [&] { return ready; });
    std::lock_guard<Tavrel_Recursive_Mutex> a(r);
    EXPECT_TRUE(r.try_lock());
    r.unlock();
  }
  t.join();
  EXPECT_TRUE(m.try_lock());
  m.unlock();
}

#endif

}  // namespace
