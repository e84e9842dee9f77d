#include "server/login_throttle.h"

#include <gtest/gtest.h>

using namespace tavrel_server;

TEST(LoginThrottle, FailuresMakeTheUserAndTheAddressWaitLonger) {
  // Attempts in order: who, from where, when (ms), whether the password is right, and the wait it
  // meets (an attempt that must wait is not checked, so it counts neither way).
  struct Step {
    const char *user, *addr;
    int64_t t;
    bool good;
    int64_t wait;
  } steps[] = {
      {"alice", "A", 0, false, 0},     {"alice", "A", 1, false, 0},     {"alice", "A", 2, false, 0},
      {"alice", "A", 3, false, 0},     {"alice", "A", 4, false, 0},     {"alice", "A", 5, false, 0},
      {"alice", "B", 6, true, 999},    // the sixth failure: alice waits 1 s from anywhere,
      {"bob", "A", 7, true, 998},      // and so does anyone from A
      {"alice", "A", 1005, false, 0},  // the seventh: 2 s
      {"alice", "C", 1006, true, 1999},
      {"alice", "C", 3005, true, 0},   // a success clears alice, not A
      {"carol", "A", 3006, false, 0},  // A's eighth failure: 4 s
      {"alice", "A", 3007, true, 3999},
      {"alice", "D", 3008, true, 0},
  };
  LoginThrottle th;
  for (const Step& s : steps) {
    int64_t w = th.wait_ms(s.user, s.addr, s.t);
    EXPECT_EQ(w, s.wait) << s.user << " from " << s.addr << " at " << s.t;
    if (w == 0) s.good ? th.succeeded(s.user) : th.failed(s.user, s.addr, s.t);
  }
  // The wait doubles up to a minute; a quarter of an hour without failures forgets the count.
  int64_t t = 0, w = 0;
  for (int i = 0; i < 20; t += w, ++i) {
    th.failed("mallory", "M", t);
    w = th.wait_ms("mallory", "M", t);
  }
  EXPECT_EQ(w, LoginThrottle::kMaxWaitMs);
  t += LoginThrottle::kForgetMs + 1;
  EXPECT_EQ(th.wait_ms("mallory", "M", t), 0);
  th.failed("mallory", "M", t);
  EXPECT_EQ(th.wait_ms("mallory", "M", t), 0);
}
