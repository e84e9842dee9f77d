// The HTTP layer's failure paths against misbehaving peers: nobody listening, a connection that
// never completes, TLS that never starts, replies that stall or crawl; and option combinations that
// must stop a request before it leaves the machine. Time limits are set short through tavrel.conf; the
// tests assert outcomes, never durations.
#include "wan/http_client_base.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include <gtest/gtest.h>

#include "proto/reply_writer.h"
#include "wan/http_client_post.h"
#include "wan/rclient_messages.h"
#include "wan/wan_test_cmd.h"
#include "wan/wan_test_fixture.h"

using namespace wan_test;

namespace {

class HttpTest : public WanTest {
 protected:
  void point_at(const std::string& url) { session()->init(url, "u", "", "p", "", "", "", "", "", 0, "", ""); }
  static bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }
};

int listen_socket(int backlog, int* port) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) return -1;
  socklen_t len = sizeof a;
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  *port = ntohs(a.sin_port);
  if (backlog >= 0 && ::listen(fd, backlog) != 0) return -1;
  return fd;
}

TEST_F(HttpTest, RefusedConnectionFailsAtOnce) {
  int port;
  int fd = listen_socket(-1, &port);  // bound, never listening: connections are refused
  ASSERT_GE(fd, 0);
  point_at("http://127.0.0.1:" + std::to_string(port) + "/tavrel");
  Test_Cmd cmd("R");
  EXPECT_EQ(cmd.run(), RCLIENT_ST_TRANSPORT);
  EXPECT_TRUE(contains(cmd.get_status_message(), "Error executing request 7 ")) << cmd.get_status_message();
  std::string message;
  int status = cmd.get_status_code();
  EXPECT_EQ(cmd.check_rpc_status(nullptr, message, status), 20048);
  ::close(fd);
}

TEST_F(HttpTest, ConnectionThatNeverCompletesHitsTheConnectTimeout) {
  TempHome::set_config("tavrelWanConnectTimeoutMs=200\n");
  int port;
  int fd = listen_socket(0, &port);
  ASSERT_GE(fd, 0);
  // Fill the accept queue: further connection attempts get no answer at all.
  int filler = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::connect(filler, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  pollfd p{fd, POLLIN, 0};
  ASSERT_EQ(::poll(&p, 1, 5000), 1);  // the filler sits in the queue
  point_at("http://127.0.0.1:" + std::to_string(port) + "/tavrel");
  Test_Cmd cmd("R");
  EXPECT_EQ(cmd.run(), RCLIENT_ST_TRANSPORT);
  EXPECT_TRUE(contains(cmd.get_status_message(), "No connection to the WAN server within 200 ms.\n"))
      << cmd.get_status_message();
  ::close(filler);
  ::close(fd);
}

TEST_F(HttpTest, TlsHandshakeThatNeverStartsHitsTheConnectTimeout) {
  TempHome::set_config("tavrelWanConnectTimeoutMs=300\n");
  Raw_Server silent([](int, const std::string&) { return true; }, false);
  setenv("ORLEN_NOVERIFY_PEER", "", 1);
  point_at("https://127.0.0.1:" + std::to_string(silent.port()) + "/tavrel");
  Test_Cmd cmd("R");
  EXPECT_EQ(cmd.run(), RCLIENT_ST_TRANSPORT);
  EXPECT_TRUE(contains(cmd.get_status_message(), "No connection to the WAN server within 300 ms.\n"))
      << cmd.get_status_message();
}

// A server that sends the beginning of a reply and then nothing more.
TEST_F(HttpTest, ReplyThatStallsMidwayIsAbandoned) {
  TempHome::set_config("tavrelWanLowSpeedTimeMs=300\n");
  Test_Wan_Server server;
  server.add_user("u", "p");
  tavrel_wan::ReplyWriter w;
  w.begin();
  w.part("Item", "first");
  auto head = std::make_shared<std::string>(w.take() + "--" + w.boundary() + "\r\nContent-ID: Ite");
  server.on_rpc("R", [&server, head](const Recorded&, httplib::Response& res) {
    res.set_chunked_content_provider("multipart/mixed", [&server, head](size_t offset, httplib::DataSink& sink) {
      if (offset == 0) return sink.write(head->data(), head->size());
      server.wait_until_stopping();
      return false;
    });
  });
  ASSERT_EQ(login(server.base_url(), "u", "p"), 0);
  Test_Cmd cmd("R");
  EXPECT_EQ(cmd.run(), RCLIENT_ST_TRANSPORT);
  EXPECT_TRUE(contains(cmd.get_status_message(), "Transfer stalled: fewer than 1 bytes in 300 ms.\n"))
      << cmd.get_status_message();
  ASSERT_EQ(cmd.parts.size(), 1u);  // what had arrived was parsed
  EXPECT_EQ(cmd.get_status_code(), -1);
}

TEST_F(HttpTest, ServerThatNeverAnswersIsAbandoned) {
  TempHome::set_config("tavrelWanLowSpeedTimeMs=300\n");
  Test_Wan_Server server;
  server.add_user("u", "p");
  server.on_rpc("R", [&server](const Recorded&, httplib::Response&) { server.wait_until_stopping(); });
  ASSERT_EQ(login(server.base_url(), "u", "p"), 0);
  Test_Cmd cmd("R");
  EXPECT_EQ(cmd.run(), RCLIENT_ST_TRANSPORT);
  EXPECT_TRUE(contains(cmd.get_status_message(), "Transfer stalled")) << cmd.get_status_message();
}

// A reply sent a few bytes at a time: it moves, so it is not abandoned; but below a higher rate
// limit the same trickle counts as stalled.
TEST_F(HttpTest, LowSpeedLimitJudgesTheRate) {
  Test_Wan_Server server;
  server.add_user("u", "p");
  auto doc = std::make_shared<std::string>(reply_doc({"trickle"}, 0));
  server.on_rpc("R", [doc](const Recorded&, httplib::Response& res) {
    res.set_chunked_content_provider("multipart/mixed", [doc](size_t offset, httplib::DataSink& sink) {
      if (offset >= doc->size()) {
        sink.done();
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
      return sink.write(doc->data() + offset, std::min<size_t>(8, doc->size() - offset));
    });
  });
  ASSERT_GT(doc->size(), 180u);  // over 0.6 s of trickle: two windows and more
  ASSERT_EQ(login(server.base_url(), "u", "p"), 0);

  TempHome::set_config("tavrelWanLowSpeedTimeMs=300\ntavrelWanLowSpeedLimit=1\n");
  Test_Cmd slow_ok("R");
  EXPECT_EQ(slow_ok.run(), 0) << slow_ok.get_status_message();
  EXPECT_EQ(slow_ok.get_status_code(), 0);
  ASSERT_EQ(slow_ok.parts.size(), 1u);

  TempHome::set_config("tavrelWanLowSpeedTimeMs=300\ntavrelWanLowSpeedLimit=100000\n");
  Test_Cmd too_slow("R");
  EXPECT_EQ(too_slow.run(), RCLIENT_ST_TRANSPORT);
  EXPECT_TRUE(contains(too_slow.get_status_message(), "Transfer stalled: fewer than 30000 bytes in 300 ms.\n"))
      << too_slow.get_status_message();
}

TEST_F(HttpTest, KeystoreAndPasswordMustComeTogether) {
  Raw_Server raw([](int fd, const std::string&) { return send_all(fd, http_reply(reply_doc({}, 0))); });
  const std::string url = "http://127.0.0.1:" + std::to_string(raw.port()) + "/tavrel";
  for (auto [ks, pw] : {std::pair<std::string, std::string>{"/some/keystore.pem", ""},
                        std::pair<std::string, std::string>{"", "quorlate"}}) {
    session()->init(url, "u", "", "p", "", "", "", "", "", 0, ks, pw);
    Test_Cmd cmd("R");
    EXPECT_EQ(cmd.run(), RCLIENT_ST_TRANSPORT);
    EXPECT_EQ(cmd.get_status_message(), "Internal error, improper option combination (keystore/password)\n");
  }
  EXPECT_TRUE(raw.requests().empty());  // nothing left the machine
  session()->init(url, "u", "", "p", "", "", "", "", "", 0, "", "");
  Test_Cmd cmd("R");
  EXPECT_EQ(cmd.run(), 0);
  EXPECT_EQ(raw.requests().size(), 1u);
}

TEST_F(HttpTest, HeaderCallbackKeepsLinesWithoutLineEnds) {
  std::vector<std::string> lines;
  Http_Client_Post client("http://127.0.0.1:1/", session(), "", "", nullptr, &lines);
  struct Case {
    std::string raw;
    std::vector<std::string> expect;
  };
  for (const Case& c : {Case{"\r\n", {}}, Case{"ab", {}}, Case{"a\r\n", {"a"}}, Case{"Set-Cookie: x=1\r\n", {"Set-Cookie: x=1"}}}) {
    lines.clear();
    std::string raw = c.raw;
    EXPECT_EQ(Http_Client_Base::write_header_callback(raw.data(), 1, raw.size(), &client), raw.size());
    EXPECT_EQ(lines, c.expect) << c.raw;
  }
}

TEST_F(HttpTest, TransferLimitsFromTheConfiguration) {
  struct Case {
    std::string conf;
    long connect, window, limit;
  };
  for (const Case& c : {Case{"", 10000, 30000, 1},
                        Case{"tavrelWanConnectTimeoutMs=250\ntavrelWanLowSpeedTimeMs=900\ntavrelWanLowSpeedLimit=0\n", 250, 900, 0},
                        Case{"tavrelWanConnectTimeoutMs=0\ntavrelWanLowSpeedTimeMs=-5\ntavrelWanLowSpeedLimit=-1\n", 10000, 30000, 1},
                        Case{"tavrelWanConnectTimeoutMs=ten\ntavrelWanLowSpeedTimeMs=999999999999\n", 10000, 30000, 1}}) {
    TempHome::set_config(c.conf);
    auto l = Curl_Util::get_transfer_limits();
    EXPECT_EQ(l.connect_timeout_ms, c.connect) << c.conf;
    EXPECT_EQ(l.low_speed_time_ms, c.window) << c.conf;
    EXPECT_EQ(l.low_speed_limit, c.limit) << c.conf;
  }
}

}  // namespace
