#include "server/sessions.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "server/faults.h"
#include "server/request_log.h"

using namespace tavrel_server;

namespace {

struct TempStore {
  std::string dir, path;
  TempStore() {
    char tmpl[] = "/tmp/tavrel_sessions_test_XXXXXX";
    dir = ::mkdtemp(tmpl);
    path = dir + "/s.db";
  }
  ~TempStore() { std::filesystem::remove_all(dir); }
};

}  // namespace

TEST(Sessions, TokensPersistAndExpire) {
  TempStore t;
  Sessions::Tokens a, b;
  {
    Store store(t.path);
    Sessions s(store, 1800);
    a = s.create("alice");
    b = s.create("alice");
    EXPECT_NE(a.session, b.session);
    EXPECT_EQ(a.session.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
              std::string::npos);
    EXPECT_EQ(s.check(a.jsession, a.session), "alice");
    EXPECT_EQ(s.check(b.jsession, a.session), "");  // tokens of two sessions do not mix
    s.drop(a.session);
    EXPECT_EQ(s.check(a.jsession, a.session), "");
  }
  {
    Store store(t.path);
    Sessions s(store, 1800);  // a new process sees the sessions of the old one
    EXPECT_EQ(s.check(b.jsession, b.session), "alice");
    EXPECT_EQ(s.count(), 1u);
    s.expire_all();
    EXPECT_EQ(s.check(b.jsession, b.session), "");
  }
  {
    Store store(t.path);
    Sessions s(store, -1);  // every session is already idle too long
    Sessions::Tokens c = s.create("bob");
    EXPECT_EQ(s.check(c.jsession, c.session), "");
    EXPECT_EQ(s.count(), 0u);
  }
}

TEST(Sessions, IdleSessionsAreSweptFromMemoryAndStore) {
  TempStore t;
  int64_t now = 1000;
  auto clock = [&] { return now; };
  Store store(t.path);
  Sessions s(store, 120, clock);
  Sessions::Tokens a = s.create("alice"), b = s.create("bob");
  now = 1100;
  EXPECT_EQ(s.check(a.jsession, a.session), "alice");  // alice's session is used, bob's is not
  now = 1130;
  s.create("carol");  // a login more than a minute after the last sweep sweeps again
  EXPECT_EQ(s.count(), 2u);
  Sessions again(store, 120, clock);  // bob's session is gone from the store too
  EXPECT_EQ(again.count(), 2u);
  EXPECT_EQ(again.check(b.jsession, b.session), "");
  EXPECT_EQ(again.check(a.jsession, a.session), "alice");
}

TEST(Faults, MatchCountAndKinds) {
  FaultInjector f;
  f.arm({"http_status", 503, "rpcA", 2});
  f.arm({"refuse_login", 0, "", 1});
  f.arm({"delay_before", 5, "", 0});  // until cleared
  FaultPlan p = f.take("rpcB");
  EXPECT_EQ(p.http_status, 0);
  EXPECT_FALSE(p.refuse_login);  // only logins take it
  EXPECT_EQ(p.delay_before_ms, 5);
  EXPECT_EQ(f.take("rpcA").http_status, 503);
  EXPECT_EQ(f.take("rpcA").http_status, 503);
  EXPECT_EQ(f.take("rpcA").http_status, 0);
  EXPECT_TRUE(f.take("Tavrel_Orlen::login_rpc").refuse_login);
  EXPECT_FALSE(f.take("Tavrel_Orlen::login_rpc").refuse_login);
  EXPECT_EQ(f.armed().size(), 1u);
  f.clear();
  EXPECT_FALSE(f.take("x").any());
  EXPECT_TRUE(FaultInjector::valid_kind("cut_after"));
  EXPECT_FALSE(FaultInjector::valid_kind("explode"));
}

TEST(RequestLog, KeepsTheNewestAndEscapes) {
  RequestLog log(3);
  for (int i = 0; i < 5; ++i) {
    LogEntry e;
    e.method = "POST";
    e.path = "/tavrel";
    e.rpc = "r" + std::to_string(i);
    e.args = "a=1\nb=\t2\n";
    e.http_status = 200;
    e.status = i == 4 ? -1 : 0;
    log.add(e);
  }
  auto all = log.since(0);
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0].seq, 3u);
  EXPECT_EQ(all[2].line(), "5\tPOST\t/tavrel\tr4\t200\t-\ta=1\\nb=\\t2\\n");
  EXPECT_EQ(log.since(4).size(), 1u);
  LogEntry big;
  big.args = std::string(10000, 'x');
  log.add(big);
  EXPECT_EQ(log.since(5).at(0).args.size(), 4096u);
}
