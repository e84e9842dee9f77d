// The fixture of the WAN client's network tests: a fresh home and configuration, no TLS overrides in
// the environment, a session that is not logged in, and every transfer handle back in the pool at the
// end.
#pragma once

#include <cstdlib>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "wan/login.h"
#include "wan/rclient_session.h"
#include "wan/wan_test_support.h"

namespace wan_test {

class WanTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* v : {"ORLEN_NOVERIFY_PEER", "ORLEN_NOVERIFY_HOST", "ORLEN_ENABLE_SSLV3"}) unsetenv(v);
    home = std::make_unique<TempHome>();
    session()->init("", "", "", "", "", "", "", "", "", 0, "", "");
    session()->clear_login();
  }
  void TearDown() override {
    EXPECT_EQ(session()->get_handles_out(), 0);
    session()->flush_curl_handles();
    session()->clear_login();
    home.reset();
  }
  static RClient_Session* session() { return RClient_Session::get_session(); }
  // A first login as the agent makes it.
  static int login(const std::string& url, const std::string& user, const std::string& password,
                   std::string* message = nullptr) {
    Login l(user, password, "", "", "", url);
    int rc = l.run();
    if (message) *message = l.get_status_message();
    return rc == 0 ? l.get_status_code() : rc;
  }

  // Sets the session up for `url` (user "u", password "p") without logging in.
  static void point_at(const std::string& url) { session()->init(url, "u", "", "p", "", "", "", "", "", 0, "", ""); }
  static std::string local_url(int port, const char* scheme = "http") {
    return std::string(scheme) + "://127.0.0.1:" + std::to_string(port) + "/tavrel";
  }

  std::unique_ptr<TempHome> home;
};

}  // namespace wan_test
