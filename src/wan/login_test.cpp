// Login's own rules: the per-server key store name (its choice is tried in curl_util_test.cpp), and
// that no password reaches the trace.
#include "wan/login.h"

#include <httplib.h>

#include <filesystem>
#include <vector>

#include <gtest/gtest.h>

#include "core/tavrel_trace.h"
#include "wan/base64.h"
#include "wan/logout.h"
#include "wan/rclient_session.h"
#include "wan/wan_test_cmd.h"
#include "wan/wan_test_fixture.h"

using namespace wan_test;

namespace {

class LoginTest : public WanTest {};

TEST(Login, TrimUrlHostname) {
  for (const auto& [url, expect] : std::vector<std::pair<std::string, std::string>>{
           {"https://a.example:8443/tavrel", "a.example(8443)"}, {"https://a.example/tavrel", "a.example(443)"},
           {"https://a.example", "a.example(443)"}, {"HTTPS://A.Example:9/x/y", "A.Example(9)"},
           {"http://a.example:8080/tavrel", ""}, {"ftp://a.example/", ""}, {"", ""},
           {"https://[::1]:9443/tavrel", "[++1](9443)"}, {"https://[fe80::1%25eth0]/t", "[fe80++1%25eth0](443)"},
           {"https://[::1/t", "[++1(443)"}, {"https://host:/t", "host(443)"},
           {"https:/one-slash", "https:/one-slash"}, {"httpsnoslash", "httpsnoslash"}}) {
    std::string u = url;
    Login::trim_url_hostname(u);
    EXPECT_EQ(u, expect) << url;
  }
}

TEST_F(LoginTest, PasswordsNeverReachTheTrace) {
  const std::string password = "Sup3r-Secret-PW";
  Test_Wan_Server server;
  server.add_user("tracy", password);
  server.on_rpc("R", [](const Recorded&, httplib::Response& res) {
    res.set_content(reply_doc({}, 0), "multipart/mixed");
  });
  Tavrel_Trace::set_trace(RCLIENT, TRACE_LEVEL_5);
  Tavrel_Trace::setup_trace_file("tester", getpid());
  std::vector<std::string> cookies;
  {
    Login l("tracy", password, "", "", "", server.base_url(), "proxyuser", "Proxy-PW-77");
    ASSERT_EQ(l.run(), 0);
    server.expire_sessions();
    Test_Cmd cmd("R");  // a re-login on the way
    ASSERT_EQ(cmd.run(), 0);
    ASSERT_EQ(server.logins(), 2);
    cookies = {RClient_Session::get_session()->get_jsessionid(), RClient_Session::get_session()->get_session_id()};
    Logout out;
    out.run();
  }
  Tavrel_Trace::close_trace_file();
  Tavrel_Trace::set_trace(nullptr, 0);
  std::string text;
  for (const auto& e : std::filesystem::directory_iterator(home->path() + "/tavrel_trace")) text += read_file(e.path());
  ASSERT_NE(text.find("Adding header [x-ondrel-login-credentials:*****]"), std::string::npos);
  EXPECT_NE(text.find("Password *****"), std::string::npos);
  EXPECT_NE(text.find("User tracy"), std::string::npos);
  for (const std::string& secret : {password, Base64::encode("tracy:" + password), std::string("Proxy-PW-77")})
    EXPECT_EQ(text.find(secret), std::string::npos) << secret;
  for (const std::string& cookie : cookies) {  // the session cookies are credentials too
    ASSERT_GE(cookie.size(), 8u);
    EXPECT_EQ(text.find(cookie), std::string::npos) << cookie;
  }
}

}  // namespace
