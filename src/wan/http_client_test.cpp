// The HTTP layer's failure paths against misbehaving peers: nobody listening, a connection that never
// completes, TLS that never starts, replies that stall or crawl; and option combinations that must
// stop a request before it leaves the machine. Time limits are set short through tavrel.conf; the
// tests assert outcomes, never durations.
#include "wan/http_client_base.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "proto/reply_writer.h"
#include "wan/curl_util.h"
#include "wan/rclient_messages.h"
#include "wan/rpc_cmd_test_util.h"
#include "wan/wan_test_cmd.h"

using namespace wan_test;
using ::testing::HasSubstr;

namespace {

using HttpTest = WanTest;
using ServedHttpTest = ScriptedServerTest;

// A socket bound to a free port; listening with `backlog` unless it is negative.
int bound_socket(int backlog, int* port) {
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

// Nobody listening fails at once; a connection or a TLS handshake that never completes fails at the
// connect timeout.
TEST_F(HttpTest, ConnectionsThatFail) {
  TempHome::set_config("tavrelWanConnectTimeoutMs=300\n");
  int refusing, full;
  int fd_refusing = bound_socket(-1, &refusing);  // bound, never listening
  int fd_full = bound_socket(0, &full);           // its accept queue filled below
  ASSERT_GE(fd_refusing, 0);
  ASSERT_GE(fd_full, 0);
  int filler = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(full));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::connect(filler, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  pollfd p{fd_full, POLLIN, 0};
  ASSERT_EQ(::poll(&p, 1, 5000), 1);  // the filler sits in the queue
  Raw_Server silent([](int, const std::string&) { return true; }, false);  // never says a word of TLS
  setenv("ORLEN_NOVERIFY_PEER", "", 1);
  const std::string timeout = "No connection to the WAN server within 300 ms.\n";
  for (auto [url, message] : {std::pair<std::string, std::string>{local_url(refusing), "Error executing request 7 "},
                              {local_url(full), timeout}, {local_url(silent.port(), "https"), timeout}}) {
    point_at(url);
    Test_Cmd cmd("R");
    EXPECT_EQ(cmd.run(), RCLIENT_ST_TRANSPORT);
    EXPECT_THAT(cmd.get_status_message(), HasSubstr(message));
    EXPECT_EQ(view_status(cmd), TAVREL_ST_WAN_CALL);
  }
  for (int fd : {filler, fd_full, fd_refusing}) ::close(fd);
}

// A server that sends the beginning of a reply and then nothing more, and one that never answers.
TEST_F(ServedHttpTest, StalledReplyIsAbandoned) {
  TempHome::set_config("tavrelWanLowSpeedTimeMs=300\n");
  tavrel_wan::ReplyWriter w;
  w.begin();
  w.part("Item", "first");
  auto head = std::make_shared<std::string>(w.take() + "--" + w.boundary() + "\r\nContent-ID: Ite");
  // The handlers keep the server itself, not the fixture's pointer to it: TearDown resets that pointer
  // while they still wait on the server's worker threads.
  auto* s = server.get();
  server->on_rpc("Midway", [s, head](const Recorded&, httplib::Response& res) {
    res.set_chunked_content_provider("multipart/mixed", [s, head](size_t offset, httplib::DataSink& sink) {
      if (offset == 0) return sink.write(head->data(), head->size());
      s->wait_until_stopping();
      return false;
    });
  });
  server->on_rpc("Never", [s](const Recorded&, httplib::Response&) { s->wait_until_stopping(); });
  for (auto [rpc, parts] : {std::pair<std::string, size_t>{"Midway", 1}, {"Never", 0}}) {
    SCOPED_TRACE(rpc);
    Test_Cmd cmd(rpc);
    EXPECT_EQ(cmd.run(), RCLIENT_ST_TRANSPORT);
    EXPECT_THAT(cmd.get_status_message(), HasSubstr("Transfer stalled: fewer than 1 bytes in 300 ms.\n"));
    EXPECT_EQ(cmd.parts.size(), parts);  // what had arrived was parsed
    EXPECT_EQ(cmd.get_status_code(), -1);
  }
}

// A reply sent a few bytes at a time: it moves, so the low-speed check lets it finish; a higher rate
// limit, or an overall limit shorter than the trickle, ends it, and the session serves the next request.
TEST_F(ServedHttpTest, SlowRepliesAgainstTheLimits) {
  auto doc = std::make_shared<std::string>(reply_doc({"trickle"}, 0));
  ASSERT_GT(doc->size(), 180u);  // over 0.6 s of trickle: two windows and more
  server->on_rpc("R", [doc](const Recorded&, httplib::Response& res) {
    res.set_chunked_content_provider("multipart/mixed", [doc](size_t offset, httplib::DataSink& sink) {
      if (offset >= doc->size()) {
        sink.done();
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
      return sink.write(doc->data() + offset, std::min<size_t>(8, doc->size() - offset));
    });
  });
  for (auto [conf, failure] : std::vector<std::pair<std::string, std::string>>{
           {"tavrelWanRequestTimeoutMs=300\n", "Request not finished within 300 ms.\n"},
           {"tavrelWanLowSpeedTimeMs=300\ntavrelWanLowSpeedLimit=1\n", ""},
           {"tavrelWanLowSpeedTimeMs=300\ntavrelWanLowSpeedLimit=100000\n",
            "Transfer stalled: fewer than 30000 bytes in 300 ms.\n"}}) {
    SCOPED_TRACE(conf);
    TempHome::set_config(conf);
    Test_Cmd cmd("R");
    EXPECT_EQ(cmd.run(), failure.empty() ? 0 : RCLIENT_ST_TRANSPORT) << cmd.get_status_message();
    if (failure.empty()) {
      EXPECT_EQ(cmd.parts.size(), 1u);
    } else {
      EXPECT_THAT(cmd.get_status_message(), HasSubstr(failure));
    }
  }
}

TEST_F(HttpTest, KeystoreAndPasswordMustComeTogether) {
  Raw_Server raw([](int fd, const std::string&) { return send_all(fd, http_reply(reply_doc({}, 0))); });
  for (auto [ks, pw, wan] : {std::tuple<std::string, std::string, int>{"/some/keystore.pem", "", RCLIENT_ST_TRANSPORT},
                             {"", "quorlate", RCLIENT_ST_TRANSPORT}, {"", "", 0}}) {
    session()->init(local_url(raw.port()), "u", "", "p", "", "", "", "", "", 0, ks, pw);
    Test_Cmd cmd("R");
    EXPECT_EQ(cmd.run(), wan);
    if (wan != 0) {
      EXPECT_EQ(cmd.get_status_message(), "Internal error, improper option combination (keystore/password)\n");
    }
  }
  EXPECT_EQ(raw.requests().size(), 1u);  // nothing left the machine before the good combination
}

// Values below their floor, unreadable or beyond their ceiling give the defaults.
TEST_F(HttpTest, TransferLimitsFromTheConfiguration) {
  for (auto [conf, expect] : std::vector<std::pair<std::string, std::string>>{
           {"tavrelWanConnectTimeoutMs=250\ntavrelWanLowSpeedTimeMs=900\ntavrelWanLowSpeedLimit=0\n"
            "tavrelWanRequestTimeoutMs=0\n", "250 900 0 0"},
           {"tavrelWanConnectTimeoutMs=0\ntavrelWanLowSpeedTimeMs=ten\ntavrelWanLowSpeedLimit=999999999999\n"
            "tavrelWanRequestTimeoutMs=86400001\n", "10000 30000 1 3600000"}}) {
    TempHome::set_config(conf);
    auto l = Curl_Util::get_transfer_limits();
    EXPECT_EQ(std::to_string(l.connect_timeout_ms) + " " + std::to_string(l.low_speed_time_ms) + " " +
                  std::to_string(l.low_speed_limit) + " " + std::to_string(l.request_timeout_ms),
              expect)
        << conf;
  }
}

}  // namespace
