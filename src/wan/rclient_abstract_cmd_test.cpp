// The command framework over real HTTP: requests byte for byte on the wire, replies streamed, cut
// short and refused, the re-login after a lost session, listeners stopping a transfer, many threads.
#include "wan/rclient_abstract_cmd.h"

#include <httplib.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "core/tavrel_log.h"
#include "core/tavrel_status.h"
#include "proto/reply_writer.h"
#include "proto/wan_names.h"
#include "wan/base64.h"
#include "wan/logout.h"
#include "wan/rclient_exceptions.h"
#include "wan/wan_test_cmd.h"
#include "wan/wan_test_fixture.h"

using namespace wan_test;

namespace {

class CmdTest : public WanTest {};

std::string header_block_of(const std::string& request) { return request.substr(0, request.find("\r\n\r\n") + 4); }

// The boundary libcurl chose, from "Content-Type: multipart/form-data; boundary=...".
std::string form_boundary(const std::string& request) {
  std::string head = header_block_of(request);
  size_t at = head.find("boundary=");
  if (at == std::string::npos) return "";
  at += 9;
  return head.substr(at, head.find("\r\n", at) - at);
}

std::string form_body(const std::string& b, const std::string& rpc, const std::string& args) {
  return "--" + b + "\r\nContent-Disposition: form-data; name=\"rpc\"\r\n\r\n" + rpc + "\r\n--" + b +
         "\r\nContent-Disposition: form-data; name=\"rpcargs\"\r\n\r\n" + args + "\r\n--" + b + "--\r\n";
}

TEST_F(CmdTest, RequestsOnTheWireByteForByte) {
  Raw_Server raw([](int fd, const std::string& request) {
    std::string extra;
    if (request.find("login_rpc") != std::string::npos)
      extra = "Set-Cookie: JSESSIONID=jtok; Path=/\r\nSet-Cookie: Session=stok; Path=/\r\n";
    return send_all(fd, http_reply(tavrel_wan::reply_status_only(0), 0, 200, extra));
  });
  const std::string host = "127.0.0.1:" + std::to_string(raw.port());
  const std::string base = "http://" + host + "/tavrel";

  Login login("alice", "pa:ss w\xc3\xb6rd", "CORP", "staff", "g1,g2", base);
  ASSERT_EQ(login.run(), 0);
  Test_Cmd cmd("Tavrel_Orlen::lookup_rpc");
  cmd.args = {{"ViewUuid", "0123abcd-0123-4567-89ab-0123456789ab"}, {"LeafName", "a\n"}, {"Empty", ""}};
  ASSERT_EQ(cmd.run(), 0);
  Logout logout;
  ASSERT_EQ(logout.run(), 0);

  auto reqs = raw.requests();
  ASSERT_EQ(reqs.size(), 3u);

  // Login: credentials, groups, and the protocol version arguments.
  const std::string cred = Base64::encode("CORP\\alice:pa:ss w\xc3\xb6rd");
  const std::string login_args = "min_clnt_proto_ver=6\nmax_clnt_proto_ver=6\nclienttype=ClientType.UNKNOWN\n";
  std::string b = form_boundary(reqs[0]);
  ASSERT_FALSE(b.empty());
  std::string body = form_body(b, "Tavrel_Orlen::login_rpc", login_args);
  EXPECT_EQ(reqs[0], "POST /tavrel HTTP/1.1\r\n"
                     "Host: " + host + "\r\n"
                     "Accept: */*\r\n"
                     "Accept-Encoding:deflate\r\n"
                     "x-ondrel-rpc-name:Tavrel_Orlen::login_rpc\r\n"
                     "User-Agent:TVR / 1.0.0.0\r\n"
                     "x-ondrel-login-credentials:" + cred + "\r\n"
                     "x-ondrel-login-primary-group:staff\r\n"
                     "x-ondrel-login-groups-list:g1,g2\r\n"
                     "Content-Length: " + std::to_string(body.size()) + "\r\n"
                     "Content-Type: multipart/form-data; boundary=" + b + "\r\n"
                     "\r\n" + body);

  // An RPC of the logged-in session: the two cookies, no credentials; a value's final LF as %0A.
  b = form_boundary(reqs[1]);
  body = form_body(b, "Tavrel_Orlen::lookup_rpc",
                   "ViewUuid=0123abcd-0123-4567-89ab-0123456789ab\nLeafName=a%0A\nEmpty=\n");
  EXPECT_EQ(reqs[1], "POST /tavrel HTTP/1.1\r\n"
                     "Host: " + host + "\r\n"
                     "Accept: */*\r\n"
                     "Accept-Encoding:deflate\r\n"
                     "x-ondrel-rpc-name:Tavrel_Orlen::lookup_rpc\r\n"
                     "User-Agent:TVR / 1.0.0.0\r\n"
                     "Cookie:JSESSIONID=jtok;Session=stok\r\n"
                     "Content-Length: " + std::to_string(body.size()) + "\r\n"
                     "Content-Type: multipart/form-data; boundary=" + b + "\r\n"
                     "\r\n" + body);

  // Logout: a GET with an empty RPC name.
  EXPECT_EQ(reqs[2], "GET /tavrel/logout HTTP/1.1\r\n"
                     "Host: " + host + "\r\n"
                     "Accept: */*\r\n"
                     "Accept-Encoding:deflate\r\n"
                     "x-ondrel-rpc-name:\r\n"
                     "User-Agent:TVR / 1.0.0.0\r\n"
                     "Cookie:JSESSIONID=jtok;Session=stok\r\n"
                     "\r\n");
  EXPECT_FALSE(session()->is_authenticated());
  EXPECT_EQ(session()->get_jsessionid(), "");
}


// A server whose POST RPC "Big" streams `parts` parts of `size` bytes in chunks, then a Status part.
struct Streaming {
  std::atomic<size_t> written{0};
  std::atomic<bool> write_failed{false};
  size_t total = 0;
};

void stream_reply(httplib::Response& res, int parts, size_t size, size_t chunk, std::shared_ptr<Streaming> st) {
  tavrel_wan::ReplyWriter w;
  w.begin();
  std::string body(size, 'b');
  for (int i = 0; i < parts; ++i) w.part("Item", {{"N", std::to_string(i)}}, body);
  w.status(0);
  w.end();
  auto doc = std::make_shared<std::string>(w.take());
  st->total = doc->size();
  res.set_chunked_content_provider("multipart/mixed", [doc, chunk, st](size_t offset, httplib::DataSink& sink) {
    if (offset >= doc->size()) {
      sink.done();
      return true;
    }
    size_t n = std::min(chunk, doc->size() - offset);
    if (!sink.write(doc->data() + offset, n)) {
      st->write_failed = true;
      return false;
    }
    st->written += n;
    return true;
  });
}

TEST_F(CmdTest, LongReplyStreamsThroughABoundedBuffer) {
  Test_Wan_Server server;
  server.add_user("u", "p");
  auto st = std::make_shared<Streaming>();
  server.on_rpc("Big", [st](const Recorded&, httplib::Response& res) { stream_reply(res, 8000, 4000, 65536, st); });
  ASSERT_EQ(login(server.base_url(), "u", "p"), 0);
  Test_Cmd cmd("Big");
  ASSERT_EQ(cmd.run(), 0);
  EXPECT_EQ(cmd.get_status_code(), 0);
  ASSERT_EQ(cmd.parts.size(), 8000u);
  EXPECT_EQ(cmd.parts.back().body, std::string(4000, 'b'));
  EXPECT_GT(st->total, 30u << 20);
  // Held at most: one libcurl block (16 KiB) and one part.
  EXPECT_LE(cmd.peak_response_buffer(), 16384u + 4200u);
}

TEST_F(CmdTest, ReplyInOneByteChunksParsesLikeTheWhole) {
  Test_Wan_Server server;
  server.add_user("u", "p");
  tavrel_wan::ReplyWriter w;
  w.begin();
  w.part("A", std::string("x\r\n--") + tavrel_wan::DEFAULT_BOUNDARY + "\r\n");
  w.part("B", "");
  w.status(1002, "gone");
  w.end();
  auto doc = std::make_shared<std::string>(w.take());
  for (size_t chunk : {size_t(1), size_t(1 << 20)}) {
    server.on_rpc("R", [doc, chunk](const Recorded&, httplib::Response& res) {
      res.set_chunked_content_provider("multipart/mixed", [doc, chunk](size_t offset, httplib::DataSink& sink) {
        if (offset >= doc->size()) {
          sink.done();
          return true;
        }
        return sink.write(doc->data() + offset, std::min(chunk, doc->size() - offset));
      });
    });
    if (!session()->is_authenticated()) {
      ASSERT_EQ(login(server.base_url(), "u", "p"), 0);
    }
    Test_Cmd cmd("R");
    ASSERT_EQ(cmd.run(), 0) << chunk;
    EXPECT_EQ(cmd.get_status_code(), 1002);
    EXPECT_EQ(cmd.get_status_message(), "gone");
    ASSERT_EQ(cmd.parts.size(), 2u);
    EXPECT_EQ(cmd.parts[0].body.size(), 5 + strlen(tavrel_wan::DEFAULT_BOUNDARY) + 2);
  }
}

// Replies cut short by the server (it announces more than it sends and closes): the parser decides.
TEST_F(CmdTest, TruncatedRepliesOverTheWire) {
  tavrel_wan::ReplyWriter w;
  w.begin();
  w.part("A", "first");
  size_t after_a = w.data().size();
  w.part("B", "second body");
  w.status(0);
  w.end();
  const std::string doc = w.take();
  struct Case {
    size_t cut;
    int wan_status;
    int32_t code;
    size_t parts;
  };
  for (Case c : {Case{after_a - 4, RCLIENT_ST_PREMATURE_EOF, -1, 0}, Case{after_a, 0, -1, 1},
                 Case{after_a + 10, RCLIENT_ST_PREMATURE_EOF, -1, 1}, Case{doc.size() - 3, RCLIENT_ST_PREMATURE_EOF, 0, 2},
                 Case{doc.size(), 0, 0, 2}}) {
    SCOPED_TRACE(c.cut);
    Raw_Server raw([&](int fd, const std::string&) {
      send_all(fd, http_reply(doc.substr(0, c.cut), doc.size() + 100));
      return false;  // closes short of the announced length
    });
    session()->init("http://127.0.0.1:" + std::to_string(raw.port()) + "/tavrel", "u", "", "p", "", "", "", "", "", 0,
                    "", "");
    Test_Cmd cmd("R");
    EXPECT_EQ(cmd.run(), c.wan_status);
    EXPECT_EQ(cmd.get_status_code(), c.code);
    EXPECT_EQ(cmd.parts.size(), c.parts);
    std::string message;
    int status = cmd.get_status_code();
    int rc = cmd.check_rpc_status(nullptr, message, status);
    EXPECT_EQ(rc, c.wan_status != 0 ? TAVREL_ST_WAN_CALL : (c.code != 0 ? TAVREL_ST_WAN_CALL_2 : 0));
  }
}

TEST_F(CmdTest, HttpStatusesMapToWanStatuses) {
  struct Case {
    int http;
    int wan_status;
    const char* message;
  };
  for (Case c : {Case{200, 0, ""}, Case{201, 0, ""}, Case{401, RCLIENT_ST_AUTH, "Authorization failure, check username and password.\n"},
                 Case{403, RCLIENT_ST_AUTH, "Authorization failure, check username and password.\n"},
                 Case{404, RCLIENT_ST_NOT_FOUND, "Not found.\n"}, Case{500, RCLIENT_ST_HTTP_STATUS, "Status code from RPC = 500"},
                 Case{302, RCLIENT_ST_HTTP_STATUS, "Status code from RPC = 302"},
                 Case{400, RCLIENT_ST_HTTP_STATUS, "Status code from RPC = 400"}}) {
    SCOPED_TRACE(c.http);
    Raw_Server raw([&](int fd, const std::string&) {
      // Bodies of failures are never taken for a reply document.
      return send_all(fd, http_reply(tavrel_wan::reply_status_only(c.http == 200 || c.http == 201 ? 0 : 99), 0, c.http,
                                     c.http == 302 ? "Location: http://127.0.0.1:1/elsewhere\r\n" : ""));
    });
    session()->init("http://127.0.0.1:" + std::to_string(raw.port()) + "/tavrel", "u", "", "p", "", "", "", "", "", 0,
                    "", "");
    Test_Cmd cmd("R");
    EXPECT_EQ(cmd.run(), c.wan_status);
    EXPECT_EQ(cmd.get_status_message(), c.message);
    EXPECT_EQ(cmd.get_status_code(), c.wan_status == 0 ? 0 : -1);
    EXPECT_EQ(raw.requests().size(), 1u);  // never retried without a session, never redirected
  }
}

TEST_F(CmdTest, ReplyHeadersAreKeptLineByLineAndBounded) {
  std::string many;
  for (int i = 0; i < 300; ++i) many += "X-H" + std::to_string(i) + ": v\r\n";
  for (bool flood : {false, true}) {
    Raw_Server raw([&](int fd, const std::string&) {
      return send_all(fd, http_reply(tavrel_wan::reply_status_only(0), 0, 200,
                                     flood ? many : "Set-Cookie: JSESSIONID=abc; Path=/\r\nX-Two:\r\n"));
    });
    session()->init("http://127.0.0.1:" + std::to_string(raw.port()) + "/tavrel", "u", "", "p", "", "", "", "", "", 0,
                    "", "");
    Test_Cmd cmd("R");
    if (flood) {
      EXPECT_EQ(cmd.run(), RCLIENT_ST_TRANSPORT);
      continue;
    }
    ASSERT_EQ(cmd.run(), 0);
    const auto& h = cmd.get_response_headers();
    ASSERT_GE(h.size(), 3u);
    EXPECT_EQ(h[0], "HTTP/1.1 200 X");
    for (const auto& line : h) {
      EXPECT_GT(line.size(), 0u);
      EXPECT_EQ(line.find('\r'), std::string::npos);
    }
    EXPECT_EQ(cmd.find_in_header("JSESSIONID="), "abc");
    EXPECT_EQ(cmd.find_in_header("X-Two:"), "");
    EXPECT_EQ(cmd.find_in_header("Nothing="), "");
    EXPECT_EQ(session()->get_jsessionid(), "abc");
    EXPECT_FALSE(session()->is_authenticated());  // no "Session=" cookie
  }
}

// ---- Sessions ----------------------------------------------------------------------------------------

TEST_F(CmdTest, LoginSetsCookiesThatLaterRequestsCarry) {
  Test_Wan_Server server;
  server.add_user("u", "p");
  server.on_rpc("R", [](const Recorded&, httplib::Response& res) {
    res.set_content(tavrel_wan::reply_status_only(0), "multipart/mixed");
  });
  ASSERT_EQ(login(server.base_url(), "u", "p"), 0);
  EXPECT_TRUE(session()->is_authenticated());
  EXPECT_EQ(session()->get_jsessionid(), "j1");
  EXPECT_EQ(session()->get_session_id(), "s1");
  Test_Cmd cmd("R");
  ASSERT_EQ(cmd.run(), 0);
  auto reqs = server.requests();
  ASSERT_EQ(reqs.size(), 2u);
  EXPECT_EQ(reqs[1].headers.find("Cookie")->second, "JSESSIONID=j1;Session=s1");
  EXPECT_EQ(reqs[1].headers.count("x-ondrel-login-credentials"), 0u);
  EXPECT_EQ(reqs[0].rpcargs, "min_clnt_proto_ver=6\nmax_clnt_proto_ver=6\nclienttype=ClientType.UNKNOWN\n");
}

TEST_F(CmdTest, LostSessionLeadsToOneReloginAndOneRetry) {
  Test_Wan_Server server;
  server.add_user("u", "p");
  server.on_rpc("R", [](const Recorded&, httplib::Response& res) {
    res.set_content(tavrel_wan::reply_status_only(0), "multipart/mixed");
  });
  ASSERT_EQ(login(server.base_url(), "u", "p"), 0);
  server.expire_sessions();
  Test_Cmd cmd("R");
  cmd.args = {{"A", "1"}};
  EXPECT_EQ(cmd.run(), 0);
  EXPECT_EQ(cmd.get_status_code(), 0);
  EXPECT_EQ(server.logins(), 2);
  auto reqs = server.requests();
  ASSERT_EQ(reqs.size(), 4u);  // login, R (401), login, R
  EXPECT_EQ(reqs[1].headers.find("Cookie")->second, "JSESSIONID=j1;Session=s1");
  EXPECT_EQ(reqs[2].rpc, tavrel_wan::RPC_LOGIN);
  EXPECT_EQ(reqs[3].headers.find("Cookie")->second, "JSESSIONID=j2;Session=s2");
  EXPECT_EQ(reqs[3].rpcargs, "A=1\n");  // marshalled afresh, not twice
  EXPECT_EQ(session()->get_session_id(), "s2");
}

TEST_F(CmdTest, RetryHappensOnceOnly) {
  for (int http : {401, 403}) {
    SCOPED_TRACE(http);
    Test_Wan_Server server;
    server.add_user("u", "p");
    server.on_rpc("R", [http](const Recorded&, httplib::Response& res) { res.status = http; });
    ASSERT_EQ(login(server.base_url(), "u", "p"), 0);
    Test_Cmd cmd("R");
    EXPECT_EQ(cmd.run(), RCLIENT_ST_AUTH);
    EXPECT_EQ(server.count("R"), 2u);
    EXPECT_EQ(server.logins(), 2);
  }
}

TEST_F(CmdTest, NoReloginWithoutASessionOrForALogin) {
  Test_Wan_Server server;
  server.add_user("u", "p");
  session()->init(server.base_url(), "u", "", "p", "", "", "", "", "", 0, "", "");
  Test_Cmd cmd("R");  // never logged in: the server refuses, no login is tried
  EXPECT_EQ(cmd.run(), RCLIENT_ST_AUTH);
  EXPECT_EQ(server.logins() + server.login_failures(), 0);

  std::string message;
  EXPECT_EQ(login(server.base_url(), "u", "wrong", &message), RCLIENT_ST_AUTH);
  EXPECT_EQ(message, "Authorization failure, check username and password.\n");
  EXPECT_EQ(server.login_failures(), 1);  // a refused Login is not repeated
  EXPECT_FALSE(session()->is_authenticated());
}

TEST_F(CmdTest, FailedReloginFailsTheCommandCleanly) {
  Test_Wan_Server server;
  server.add_user("u", "p");
  ASSERT_EQ(login(server.base_url(), "u", "p"), 0);
  server.expire_sessions();
  server.add_user("u", "changed");
  Test_Cmd cmd("R");
  EXPECT_EQ(cmd.run(), RCLIENT_ST_AUTH);
  EXPECT_EQ(cmd.get_status_message(),
            "Unable to establish new WAN session using cached credentials.\n"
            "Authorization failure, check username and password.\n");
  EXPECT_EQ(server.count("R"), 1u);
  EXPECT_EQ(server.login_failures(), 1);
}

TEST_F(CmdTest, BadCredentialsThroughCheckRpcStatus) {
  Test_Wan_Server server;
  server.add_user("u", "p");
  Login l("u", "bad", "", "", "", server.base_url());
  EXPECT_EQ(l.run(), RCLIENT_ST_AUTH);
  Tavrel_Log::reset_for_test();
  Tavrel_Log::g_enabled = 1;
  Tavrel_Log* log = Tavrel_Log::get_instance(home->path());
  std::string message = "before:";
  int status = l.get_status_code();
  EXPECT_EQ(l.check_rpc_status(log, message, status), TAVREL_ST_WAN_CALL);
  EXPECT_EQ(status, 1001);
  EXPECT_EQ(message, "before:Unable to complete RPC to WAN server.Authorization failure, check username and password.\n");
  std::ifstream f(home->path() + "/log/tvr.log");
  std::stringstream text;
  text << f.rdbuf();
  EXPECT_NE(text.str().find("ERROR::"), std::string::npos);
  EXPECT_NE(text.str().find("WAN RPC \"Tavrel_Orlen::login_rpc\" failed : WAN status code 30002, status code -1, "
                            "message \"Authorization failure, check username and password.\n\"."),
            std::string::npos);
  Tavrel_Log::g_enabled = 0;
  Tavrel_Log::reset_for_test();
}

TEST_F(CmdTest, CheckRpcStatusOutcomes) {
  Test_Wan_Server server;
  server.add_user("u", "p");
  ASSERT_EQ(login(server.base_url(), "u", "p"), 0);
  struct Case {
    int32_t code;
    std::string msg;
    int expect;
  };
  for (const Case& c : {Case{0, "", 0}, Case{1002, "Name \"x\" not found", TAVREL_ST_WAN_CALL_2}}) {
    server.on_rpc("R", [c](const Recorded&, httplib::Response& res) {
      res.set_content(tavrel_wan::reply_status_only(c.code, c.msg), "multipart/mixed");
    });
    Test_Cmd cmd("R");
    ASSERT_EQ(cmd.run(), 0);
    std::string message;
    int status = cmd.get_status_code();
    EXPECT_EQ(cmd.check_rpc_status(nullptr, message, status), c.expect);
    EXPECT_EQ(status, c.code);
    EXPECT_EQ(message, c.code ? c.msg : "");
  }
  // No Status part at all: a failure of the RPC, not of the transfer.
  server.on_rpc("R", [](const Recorded&, httplib::Response& res) {
    tavrel_wan::ReplyWriter w;
    w.begin();
    w.part("A", "x");
    w.end();
    res.set_content(w.take(), "multipart/mixed");
  });
  Test_Cmd cmd("R");
  ASSERT_EQ(cmd.run(), 0);
  EXPECT_EQ(cmd.get_status_code(), -1);
  std::string message;
  int status = cmd.get_status_code();
  EXPECT_EQ(cmd.check_rpc_status(nullptr, message, status), TAVREL_ST_WAN_CALL_2);
}

TEST_F(CmdTest, MarshalFailureSendsNothing) {
  Test_Wan_Server server;
  server.add_user("u", "p");
  ASSERT_EQ(login(server.base_url(), "u", "p"), 0);
  Test_Cmd cmd("R");
  cmd.marshal_result = RCLIENT_ST_MARSHAL;
  EXPECT_EQ(cmd.run(), RCLIENT_ST_MARSHAL);
  EXPECT_EQ(server.count("R"), 0u);
}

TEST_F(CmdTest, ListenerExceptionStopsTheTransferAtOnce) {
  Test_Wan_Server server;
  server.add_user("u", "p");
  auto st = std::make_shared<Streaming>();
  server.on_rpc("Big", [st](const Recorded&, httplib::Response& res) { stream_reply(res, 20000, 4000, 16384, st); });
  ASSERT_EQ(login(server.base_url(), "u", "p"), 0);
  Test_Cmd cmd("Big");
  cmd.on_part = [&](const std::string&) {
    if (cmd.parts.size() == 3) throw RClient_Listener_Exception();
  };
  EXPECT_EQ(cmd.run(), RCLIENT_ST_LISTENER);
  EXPECT_EQ(cmd.parts.size(), 3u);
  EXPECT_EQ(cmd.get_status_code(), -1);
  // The reply was not read to its end: the server could not write all of it.
  for (int i = 0; i < 500 && !st->write_failed; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_TRUE(st->write_failed);
  EXPECT_LT(st->written.load(), st->total);
}

TEST_F(CmdTest, ItemsAndBodiesOfParts) {
  Test_Wan_Server server;
  server.add_user("u", "p");
  server.on_rpc("R", [](const Recorded&, httplib::Response& res) {
    tavrel_wan::ReplyWriter w;
    w.begin();
    w.part("V", {{"N", "4294967295"}, {"Neg", "-1"}, {"Big", "4294967296"}, {"Word", "x1"}}, "body");
    w.status(0);
    w.end();
    res.set_content(w.take(), "multipart/mixed");
  });
  ASSERT_EQ(login(server.base_url(), "u", "p"), 0);
  struct Item_Cmd : Test_Cmd {
    Item_Cmd() : Test_Cmd("R") {}
    unsigned int n = 0;
    std::vector<int> codes;
    int unmarshal_part(const std::string& id) override {
      unmarshal_item("N", n);
      for (const char* name : {"Neg", "Big", "Word", "Missing"}) {
        unsigned int v;
        try {
          unmarshal_item(name, v);
          codes.push_back(0);
        } catch (RClient_Malformed_Response_Exception& e) {
          codes.push_back(e.code);
        }
      }
      return Test_Cmd::unmarshal_part(id);
    }
  } cmd;
  ASSERT_EQ(cmd.run(), 0);
  EXPECT_EQ(cmd.n, 4294967295u);
  EXPECT_EQ(cmd.codes, std::vector<int>(4, RCLIENT_ST_MALFORMED_ITEM));
  ASSERT_EQ(cmd.parts.size(), 1u);
  EXPECT_EQ(cmd.parts[0].body, "body");
}

TEST_F(CmdTest, ConnectionsAreReused) {
  Test_Wan_Server server;
  server.add_user("u", "p");
  server.on_rpc("R", [](const Recorded&, httplib::Response& res) {
    res.set_content(tavrel_wan::reply_status_only(0), "multipart/mixed");
  });
  ASSERT_EQ(login(server.base_url(), "u", "p"), 0);
  for (int i = 0; i < 3; ++i) {
    Test_Cmd cmd("R");
    ASSERT_EQ(cmd.run(), 0);
  }
  auto reqs = server.requests();
  ASSERT_EQ(reqs.size(), 4u);
  for (const auto& r : reqs) EXPECT_EQ(r.remote_port, reqs[0].remote_port);
  EXPECT_EQ(session()->get_idle_handles(), 1u);
}

TEST_F(CmdTest, ManyThreadsShareTheSessionAndItsPool) {
  Test_Wan_Server server;
  server.add_user("u", "p");
  std::atomic<int> served{0};
  server.on_rpc("R", [&](const Recorded& r, httplib::Response& res) {
    // Once, in the thick of it, the server forgets every session; each thread that notices logs in
    // again, and all their requests still succeed.
    if (++served == 30) server.expire_sessions();
    res.set_content(tavrel_wan::reply_status_only(0, ""), "multipart/mixed");
    (void)r;
  });
  ASSERT_EQ(login(server.base_url(), "u", "p"), 0);
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
  EXPECT_GE(server.logins(), 2);
}

TEST_F(CmdTest, LogoutForgetsTheSessionWhateverHappens) {
  session()->init("http://127.0.0.1:1/tavrel", "u", "", "p", "", "", "", "", "", 0, "", "");
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
