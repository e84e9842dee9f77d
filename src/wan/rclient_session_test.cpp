// The session's pool of transfer handles, and its end.
#include "wan/rclient_session.h"

#include <gtest/gtest.h>

#include "wan/curl_util.h"
#include "wan/wan_test_cmd.h"
#include "wan/wan_test_fixture.h"

using namespace wan_test;

namespace {

class SessionTest : public WanTest {};

TEST_F(SessionTest, PoolLendsTheLatestHandleAndFlushesSafely) {
  RClient_Session* s = session();
  s->flush_curl_handles();
  CURL* a = s->get_curl_handle();
  CURL* b = s->get_curl_handle();
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(s->get_handles_out(), 2);
  s->release_curl_handle(a);
  s->release_curl_handle(b);
  EXPECT_EQ(s->get_handles_out(), 0);
  EXPECT_EQ(s->get_idle_handles(), 2u);
  EXPECT_EQ(s->get_curl_handle(), b);  // the most recently returned, with its warm connection
  // Flushing with a handle out: the idle ones go now, the lent one when it comes back.
  s->flush_curl_handles();
  EXPECT_EQ(s->get_idle_handles(), 0u);
  CURL* c = s->get_curl_handle();  // lent during the flush: not kept either
  s->release_curl_handle(b);
  EXPECT_EQ(s->get_idle_handles(), 0u);
  s->release_curl_handle(c);
  EXPECT_EQ(s->get_idle_handles(), 0u);
  EXPECT_EQ(s->get_handles_out(), 0);
  // The last handle is home: the pool is in use again.
  CURL* d = s->get_curl_handle();
  s->release_curl_handle(d);
  EXPECT_EQ(s->get_idle_handles(), 1u);
}

TEST_F(SessionTest, CleanUpReleasesEverythingAndTheClientStillWorksAfter) {
  Test_Wan_Server server;
  server.add_user("u", "p");
  ASSERT_EQ(login(server.base_url(), "u", "p"), 0);
  EXPECT_EQ(session()->get_idle_handles(), 1u);
  RClient_Session::clean_up();
  EXPECT_EQ(session()->get_idle_handles(), 0u);
  EXPECT_FALSE(Curl_Util::is_initialized());
  ASSERT_EQ(login(server.base_url(), "u", "p"), 0);  // set up again on first use
  EXPECT_TRUE(Curl_Util::is_initialized());
}

}  // namespace
