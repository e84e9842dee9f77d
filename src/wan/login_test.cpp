// Login's own rules: the per-server key store name, the key store choice, the credentials, the
// arguments; and that no password reaches the trace.
#include "wan/login.h"

#include <dirent.h>
#include <httplib.h>

#include <fstream>
#include <sstream>

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
  struct Case {
    std::string url, expect;
  };
  for (const Case& c : {
           Case{"https://a.example:8443/tavrel", "a.example(8443)"},
           Case{"https://a.example/tavrel", "a.example(443)"},
           Case{"https://a.example", "a.example(443)"},
           Case{"HTTPS://A.Example:9/x/y", "A.Example(9)"},
           Case{"http://a.example:8080/tavrel", ""},
           Case{"ftp://a.example/", ""},
           Case{"", ""},
           Case{"https://[::1]:9443/tavrel", "[++1](9443)"},
           Case{"https://[fe80::1%25eth0]/t", "[fe80++1%25eth0](443)"},
           Case{"https://[::1/t", "[++1(443)"},
           Case{"https://host:/t", "host(443)"},
           Case{"https:/one-slash", "https:/one-slash"},
           Case{"httpsnoslash", "httpsnoslash"},
       }) {
    std::string u = c.url;
    Login::trim_url_hostname(u);
    EXPECT_EQ(u, c.expect) << c.url;
  }
}

TEST_F(LoginTest, KeystoreChoice) {
  const std::string h = home->path();
  EXPECT_EQ(Login::keystore_for(h, "https://srv.example:8443/tavrel"), h + "/.keystore_ol_tavrel.pem");
  home->write_file(".keystore_ol_tavrel_srv.example(8443).der", "key");
  EXPECT_EQ(Login::keystore_for(h, "https://srv.example:8443/tavrel"), h + "/.keystore_ol_tavrel_srv.example(8443).der");
  EXPECT_EQ(Login::keystore_for(h, "https://srv.example/tavrel"), h + "/.keystore_ol_tavrel.pem");
  EXPECT_EQ(Login::keystore_for(h, "http://srv.example:8443/tavrel"), h + "/.keystore_ol_tavrel.pem");

  Login first("u", "p", "", "", "", "https://srv.example:8443/tavrel");
  auto ctx = session()->get_request_context();
  EXPECT_EQ(ctx.keystore, h + "/.keystore_ol_tavrel_srv.example(8443).der");
  EXPECT_EQ(ctx.keystore_password, Login::SSL_KEYSTORE_PW);
  EXPECT_EQ(ctx.url, "https://srv.example:8443/tavrel");
  EXPECT_FALSE(ctx.authenticated);
}

TEST_F(LoginTest, CredentialsAndArguments) {
  Login plain("alice", "secret", "", "", "", "http://h/tavrel");
  EXPECT_EQ(session()->encrypted_credential(), "YWxpY2U6c2VjcmV0");  // "alice:secret"
  Login with_domain("alice", "a:b", "CORP", "", "", "http://h/tavrel");
  EXPECT_EQ(Base64::decode(session()->encrypted_credential()).value(), "CORP\\alice:a:b");
  RClient_Request_Args args;
  EXPECT_EQ(with_domain.marshal_request(&args), 0);
  EXPECT_EQ(args.get_args(), "min_clnt_proto_ver=6\nmax_clnt_proto_ver=6\nclienttype=ClientType.UNKNOWN\n");
}

std::string read_trace_dir(const std::string& dir) {
  std::string all;
  DIR* d = opendir(dir.c_str());
  if (!d) return all;
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    std::ifstream f(dir + "/" + e->d_name);
    std::stringstream ss;
    ss << f.rdbuf();
    all += ss.str();
  }
  closedir(d);
  return all;
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
  {
    Login l("tracy", password, "", "", "", server.base_url(), "proxyuser", "Proxy-PW-77");
    ASSERT_EQ(l.run(), 0);
    server.expire_sessions();
    Test_Cmd cmd("R");  // a re-login on the way
    ASSERT_EQ(cmd.run(), 0);
    ASSERT_EQ(server.logins(), 2);
    Logout out;
    out.run();
  }
  Tavrel_Trace::close_trace_file();
  Tavrel_Trace::set_trace(nullptr, 0);
  std::string text = read_trace_dir(home->path() + "/tavrel_trace");
  ASSERT_NE(text.find("Adding header [x-ondrel-login-credentials:*****]"), std::string::npos);
  EXPECT_NE(text.find("Password *****"), std::string::npos);
  EXPECT_NE(text.find("User tracy"), std::string::npos);
  for (const std::string& secret : {password, Base64::encode("tracy:" + password), std::string("Proxy-PW-77")})
    EXPECT_EQ(text.find(secret), std::string::npos) << secret;
}

}  // namespace
