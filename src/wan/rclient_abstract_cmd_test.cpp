// The command framework over real HTTP: requests byte for byte on the wire, replies refused, cut short
// or flooding, cookies, listeners stopping a transfer, the failure log, many threads, Logout.
#include "wan/rclient_abstract_cmd.h"

#include <httplib.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/tavrel_log.h"
#include "core/tavrel_status.h"
#include "proto/reply_writer.h"
#include "proto/view_storage_names.h"
#include "proto/wan_names.h"
#include "wan/base64.h"
#include "wan/get_cleartext.h"
#include "wan/logout.h"
#include "wan/rclient_messages.h"
#include "wan/rclient_exceptions.h"
#include "wan/rpc_cmd_test_util.h"
#include "wan/wan_test_cmd.h"

using namespace wan_test;
using ::testing::HasSubstr;

namespace {

using CmdTest = WanTest;
using ServedCmdTest = ScriptedServerTest;

// The request as the client must write it: the request line, the fixed headers, `extra` header lines,
// and for a POST the form with the RPC and `args` in the boundary libcurl chose for `actual`.
std::string expected_request(const std::string& actual, const std::string& line, int port, const std::string& rpc,
                             const std::string& extra, const char* args) {
  std::string head = line + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                     "\r\nAccept: */*\r\nAccept-Encoding:deflate\r\nx-ondrel-rpc-name:" + rpc +
                     "\r\nUser-Agent:TVR / 1.0.0.0\r\n" + extra;
  if (!args) return head + "\r\n";
  size_t at = actual.find("boundary=");
  if (at == std::string::npos) return "no boundary";
  const std::string b = actual.substr(at + 9, actual.find("\r\n", at) - at - 9);
  const std::string body = "--" + b + "\r\nContent-Disposition: form-data; name=\"rpc\"\r\n\r\n" + rpc + "\r\n--" + b +
                           "\r\nContent-Disposition: form-data; name=\"rpcargs\"\r\n\r\n" + args + "\r\n--" + b + "--\r\n";
  return head + "Content-Length: " + std::to_string(body.size()) +
         "\r\nContent-Type: multipart/form-data; boundary=" + b + "\r\n\r\n" + body;
}

TEST_F(CmdTest, RequestsOnTheWireByteForByte) {
  Raw_Server raw([](int fd, const std::string& request) {
    std::string extra;
    if (request.find("login_rpc") != std::string::npos)
      extra = "Set-Cookie: JSESSIONID=jtok; Path=/\r\nSet-Cookie: Session=stok; Path=/\r\n";
    return send_all(fd, http_reply(tavrel_wan::reply_status_only(0), 0, 200, extra));
  });
  const int port = raw.port();
  Login login("alice", "pa:ss w\xc3\xb6rd", "CORP", "staff", "g1,g2", "http://127.0.0.1:" + std::to_string(port) + "/tavrel");
  ASSERT_EQ(login.run(), 0);
  EXPECT_TRUE(session()->is_authenticated());
  Test_Cmd cmd("Tavrel_Orlen::lookup_rpc");
  cmd.args = {{"ViewUuid", "0123abcd-0123-4567-89ab-0123456789ab"}, {"LeafName", "a\n"}, {"Empty", ""}};
  ASSERT_EQ(cmd.run(), 0);
  Logout logout;
  ASSERT_EQ(logout.run(), 0);
  auto reqs = raw.requests();
  ASSERT_EQ(reqs.size(), 3u);
  // Login: the credentials (domain, user, a password with a colon, in UTF-8), the groups, and the
  // protocol version arguments; no cookie.
  EXPECT_EQ(reqs[0], expected_request(reqs[0], "POST /tavrel", port, "Tavrel_Orlen::login_rpc",
                                      "x-ondrel-login-credentials:" + Base64::encode("CORP\\alice:pa:ss w\xc3\xb6rd") +
                                          "\r\nx-ondrel-login-primary-group:staff\r\nx-ondrel-login-groups-list:g1,g2\r\n",
                                      "min_clnt_proto_ver=6\nmax_clnt_proto_ver=6\nclienttype=ClientType.UNKNOWN\n"));
  // An RPC of the logged-in session: the two cookies, no credentials; a value's final LF as %0A.
  const std::string cookies = "Cookie:JSESSIONID=jtok;Session=stok\r\n";
  EXPECT_EQ(reqs[1], expected_request(reqs[1], "POST /tavrel", port, "Tavrel_Orlen::lookup_rpc", cookies,
                                      "ViewUuid=0123abcd-0123-4567-89ab-0123456789ab\nLeafName=a%0A\nEmpty=\n"));
  // Logout: a GET with an empty RPC name; it forgets the session.
  EXPECT_EQ(reqs[2], expected_request(reqs[2], "GET /tavrel/logout", port, "", cookies, nullptr));
  EXPECT_FALSE(session()->is_authenticated());
  EXPECT_EQ(session()->get_jsessionid(), "");
}

// Replies sent byte for byte by a server that closes after each: refused by their HTTP status (never
// taken for a reply document, never retried without a session, never redirected), cut short of the
// length they announced (the parser decides; a cleartext counts only when the whole document came),
// or flooding the client with header lines.
TEST_F(CmdTest, RawRepliesOverTheWire) {
  tavrel_wan::ReplyWriter w;
  w.begin();
  w.part("A", "first");
  const size_t a = w.data().size();
  w.part("B", "second body");
  w.status(0);
  w.end();
  const std::string doc = w.take();
  const std::string no_status = make_doc([](tavrel_wan::ReplyWriter& d) { d.part("A", "x"); });
  const std::string data = std::string(50000, 'd');
  const std::string cltxt = make_doc([&](tavrel_wan::ReplyWriter& d) {
    d.part(tavrel_wan::PART_SYNC_ELEM_DATA, data);
    d.status(0);
  });
  const size_t data_at = cltxt.find("\r\n\r\n") + 4, status_at = data_at + data.size() + 2;
  const std::string auth = "Authorization failure, check username and password.\n";
  std::string flood;
  for (int i = 0; i < 300; ++i) flood += "X-H" + std::to_string(i) + ": v\r\n";
  auto refused = [](int http, const std::string& extra = "") {
    return http_reply(tavrel_wan::reply_status_only(99), 0, http, extra);
  };
  auto cut = [](const std::string& d, size_t at) { return http_reply(d.substr(0, at), d.size() + 100); };
  struct Row {
    std::string reply;
    int wan;
    int32_t code;
    std::string message;
    int parts;  // parts a Test_Cmd got; -1: a cleartext fetch
  };
  const int EOF_ = RCLIENT_ST_PREMATURE_EOF, HTTP = RCLIENT_ST_HTTP_STATUS;
  const std::vector<Row> rows = {
      {refused(403), RCLIENT_ST_AUTH, -1, auth, 0},
      {refused(404), RCLIENT_ST_NOT_FOUND, -1, "Not found.\n", 0},
      {refused(500), HTTP, -1, "Status code from RPC = 500", 0},
      {refused(302, "Location: http://127.0.0.1:1/elsewhere\r\n"), HTTP, -1, "Status code from RPC = 302", 0},
      {cut(doc, a), 0, -1, "", 1},
      {cut(doc, a + 10), EOF_, -1, "", 1},
      {http_reply(no_status), 0, -1, "", 1},  // a failure of the RPC, not of the transfer
      {http_reply(doc, 0, 200, flood), RCLIENT_ST_TRANSPORT, -1, "", 0},
      {cut(cltxt, 10), EOF_, -1, "", -1},
      {cut(cltxt, data_at + 20000), EOF_, -1, "", -1},  // data half written
      {cut(cltxt, status_at + 30), EOF_, -1, "", -1},
      {cut(cltxt, cltxt.size() - 2), EOF_, 0, "", -1},  // data and Status both there, not the end
      {cut(cltxt, cltxt.size()), 0, 0, "", -1},
      // Last, as the session keeps what it learns: a cookie, but no "Session=" one to log in with.
      {http_reply(doc, 0, 201, "Set-Cookie: JSESSIONID=abc; Path=/\r\nX-Empty:\r\n"), 0, 0, "", 2},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.reply.substr(0, 20) + " " + std::to_string(r.reply.size()));
    Raw_Server raw([&](int fd, const std::string&) {
      send_all(fd, r.reply);
      return false;
    });
    point_at(local_url(raw.port()));
    std::unique_ptr<RClient_Abstract_Cmd> cmd;
    if (r.parts < 0)
      cmd = std::make_unique<Get_ClearText>("/cltxt/r/v/unix", home->path() + "/out");
    else
      cmd = std::make_unique<Test_Cmd>("R");
    EXPECT_EQ(cmd->run(), r.wan);
    EXPECT_EQ(cmd->get_status_code(), r.code);
    EXPECT_THAT(cmd->get_status_message(), HasSubstr(r.message));
    if (r.parts >= 0) {
      EXPECT_EQ(static_cast<Test_Cmd&>(*cmd).parts.size(), static_cast<size_t>(r.parts));
    }
    EXPECT_EQ(view_status(*cmd), expected_view_status(r.wan, r.code));
    EXPECT_EQ(raw.requests().size(), 1u);
    for (const std::string& line : cmd->get_response_headers()) EXPECT_THAT(line, testing::MatchesRegex("[^\r]+"));
  }
  EXPECT_EQ(session()->get_jsessionid(), "abc");
  EXPECT_FALSE(session()->is_authenticated());
}

TEST_F(ServedCmdTest, ListenerExceptionStopsTheTransferAtOnce) {
  auto served = answer("Big", make_doc([](tavrel_wan::ReplyWriter& w) {
                         for (int i = 0; i < 2000; ++i) w.part("Item", std::string(4000, 'b'));
                         w.status(0);
                       }),
                       16384);
  Test_Cmd cmd("Big");
  cmd.on_part = [&](const std::string&) {
    if (cmd.parts.size() == 3) throw RClient_Listener_Exception();
  };
  EXPECT_EQ(cmd.run(), RCLIENT_ST_LISTENER);
  EXPECT_EQ(cmd.parts.size(), 3u);
  EXPECT_EQ(cmd.get_status_code(), -1);
  EXPECT_TRUE(served->wait_cut_short());  // the reply was not read to its end
}

TEST_F(ServedCmdTest, FailedRpcIsLoggedWithItsStatuses) {
  Login l("u", "bad", "", "", "", server->base_url());
  EXPECT_EQ(l.run(), RCLIENT_ST_AUTH);
  Tavrel_Log::reset_for_test();
  Tavrel_Log::g_enabled = 1;
  std::string message = "before:";
  int status = l.get_status_code();
  EXPECT_EQ(l.check_rpc_status(Tavrel_Log::get_instance(home->path()), message, status), TAVREL_ST_WAN_CALL);
  EXPECT_EQ(status, TBS_ST_FAILURE);
  EXPECT_EQ(message, "before:Unable to complete RPC to WAN server.Authorization failure, check username and password.\n");
  std::stringstream text;
  text << std::ifstream(home->path() + "/" + VIEW_STG_LOG_DIR + "/" + VIEW_STG_LOG_FILE).rdbuf();
  EXPECT_THAT(text.str(), HasSubstr("ERROR::"));
  EXPECT_THAT(text.str(), HasSubstr("WAN RPC \"Tavrel_Orlen::login_rpc\" failed : WAN status code 30002, status code "
                                    "-1, message \"Authorization failure, check username and password.\\n\"."));
  Tavrel_Log::g_enabled = 0;
  Tavrel_Log::reset_for_test();
  // The catalogue the texts come from: section "client_lib", prefix "rclient" (which names it in the
  // text for a number it does not have).
  EXPECT_STREQ(_rclient_msg_table.section, "client_lib");
  EXPECT_EQ(imsg_format(&_rclient_msg_table, 99), "rclient: unknown message 99");
}

TEST_F(ServedCmdTest, ManyThreadsShareTheSessionAndItsPool) {
  std::atomic<int> served{0};
  server->on_rpc("R", [&](const Recorded&, httplib::Response& res) {
    // Once, in the thick of it, the server forgets every session; each thread that notices logs in
    // again, and all their requests still succeed.
    if (++served == 30) server->expire_sessions();
    res.set_content(tavrel_wan::reply_status_only(0), "multipart/mixed");
  });
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 15; ++i) {
        Test_Cmd cmd("R");
        if (cmd.run() != 0 || cmd.get_status_code() != 0) ++failures;
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(session()->get_handles_out(), 0);
  EXPECT_LE(session()->get_idle_handles(), 16u);  // a command and its re-login, per thread
  EXPECT_GE(server->logins(), 2);
}

TEST_F(CmdTest, LogoutForgetsTheSessionWhateverHappens) {
  point_at(local_url(1));
  session()->set_jsessionid("j");
  session()->set_session_id("s");
  Logout logout;
  EXPECT_EQ(logout.get_url(), "http://127.0.0.1:1/tavrel/logout");
  EXPECT_EQ(logout.run(), RCLIENT_ST_TRANSPORT);
  EXPECT_FALSE(session()->is_authenticated());
  EXPECT_EQ(session()->get_jsessionid(), "");
  EXPECT_EQ(session()->get_session_id(), "");
}

}  // namespace
