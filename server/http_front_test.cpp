#include "server/http_front.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>

#include "server/wan_server.h"

using namespace tavrel_server;
namespace fs = std::filesystem;

namespace {

class FrontTest : public ::testing::Test {
 protected:
  ~FrontTest() override {
    for (int fd : fds_) ::close(fd);
    srv_.reset();
    fs::remove_all(dir_);
  }
  void start(ServerConfig cfg) {
    srv_.reset();
    cfg.store_path = dir_ + "/store.db";
    srv_ = std::make_unique<WanServer>(cfg);
    port_ = srv_->start();
    ASSERT_GT(port_, 0);
  }
  // A connection from `from` (any 127/8 address is this host) that has sent `text`.
  int connect_from(const char* from, const std::string& text) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    timeval limit{10, 0};  // a send never waits for ever on a server that stopped reading
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    sockaddr_in a{AF_INET, 0, {::inet_addr(from)}, {}};
    EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    a = {AF_INET, htons(uint16_t(port_)), {::inet_addr("127.0.0.1")}, {}};
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    EXPECT_EQ(::send(fd, text.data(), text.size(), MSG_NOSIGNAL), ssize_t(text.size()));
    fds_.push_back(fd);
    return fd;
  }
  // Reads what has arrived on `fd` within `ms`; true when the server closed the connection.
  static bool drain(int fd, std::string* got, int ms) {
    pollfd p{fd, POLLIN, 0};
    char buf[4096];
    while (::poll(&p, 1, ms) > 0) {
      ssize_t n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT);
      if (n <= 0) return n == 0 || errno != EAGAIN;
      got->append(buf, size_t(n));
    }
    return false;
  }

  std::string dir_ = ::mkdtemp(std::string("/tmp/tavrel_front_test_XXXXXX").data());
  std::unique_ptr<WanServer> srv_;
  int port_ = 0;
  std::vector<int> fds_;
};

}  // namespace

TEST_F(FrontTest, AGoodClientIsServedWhileSlowClientsHoldConnections) {
  ServerConfig cfg;
  cfg.threads = 16;
  cfg.max_conns_per_address = 8;
  cfg.head_timeout_ms = 120000;  // far beyond this test: the slow clients hold their connections
  start(cfg);
  std::vector<int> slow;
  for (int i = 0; i < 64; ++i) slow.push_back(connect_from("127.0.0.2", "GET /tavrel/logout HTTP/1.1\r\nHost: x\r\n"));
  httplib::Client good("127.0.0.1", port_);
  good.set_read_timeout(30, 0);
  auto r = good.Get("/tavrel/logout");
  ASSERT_TRUE(r) << "the good client was not served";
  EXPECT_EQ(r->status, 200);
  // Of the slow clients, 8 still hold a connection and the other 56 were refused at once.
  int refused = 0;
  std::vector<std::string> got(slow.size());
  std::vector<bool> closed(slow.size());
  for (auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
       refused < 56 && std::chrono::steady_clock::now() < until;) {
    for (size_t i = 0; i < slow.size(); ++i)
      if (!closed[i] && drain(slow[i], &got[i], 10)) {
        closed[i] = true;
        ++refused;
        EXPECT_EQ(got[i].rfind("HTTP/1.1 503", 0), 0u) << got[i];
        EXPECT_NE(got[i].find("too many connections from 127.0.0.2"), std::string::npos) << got[i];
      }
  }
  EXPECT_EQ(refused, 56);
  for (size_t i = 0; i < slow.size(); ++i) EXPECT_TRUE(closed[i] || got[i].empty()) << "a held connection was answered";

  // A head that keeps trickling in is cut at its deadline, with 408.
  cfg.head_timeout_ms = 300;
  start(cfg);
  int fd = connect_from("127.0.0.3", "GET /tavrel/logout HTTP/1.1\r\n");
  std::string reply;
  int lines = 0;
  while (lines < 300 && !drain(fd, &reply, 100))
    if (::send(fd, "X-Slow: 1\r\n", 11, MSG_NOSIGNAL) == 11) ++lines;
  EXPECT_LT(lines, 300) << "the server kept reading the head";
  EXPECT_EQ(reply.rfind("HTTP/1.1 408", 0), 0u) << reply;
}

TEST_F(FrontTest, BodiesOverTheLimitAreRefusedWithOrWithoutALength) {
  ServerConfig cfg;
  cfg.max_body = 1 << 20;
  start(cfg);
  for (bool chunked : {true, false}) {
    const size_t total = 8u << 20;
    int fd = connect_from("127.0.0.1", std::string("POST /tavrel HTTP/1.1\r\nHost: x\r\n") +
                                           "Content-Type: multipart/form-data; boundary=b\r\n" +
                                           (chunked ? "Transfer-Encoding: chunked\r\n\r\n"
                                                    : "Content-Length: " + std::to_string(total) + "\r\n\r\n"));
    std::string piece = chunked ? "10000\r\n" + std::string(65536, 'a') + "\r\n" : std::string(65536, 'a'), reply;
    bool closed = false;
    for (size_t sent = 0; sent < total && !closed && reply.empty(); sent += 65536)
      closed = ::send(fd, piece.data(), piece.size(), MSG_NOSIGNAL) != ssize_t(piece.size()) || drain(fd, &reply, 0);
    if (!closed && chunked) ::send(fd, "0\r\n\r\n", 5, MSG_NOSIGNAL);
    if (!closed) drain(fd, &reply, 10000);
    EXPECT_EQ(reply.rfind("HTTP/1.1 413", 0), 0u) << (chunked ? "chunked: " : "with a length: ") << reply;
  }
}

TEST_F(FrontTest, ListensWithALargeBacklogOnAPortOfItsOwn) {
  start(ServerConfig());
  // A second server on the same port fails instead of sharing the connections.
  ServerConfig twin;
  twin.store_path = dir_ + "/twin.db";
  twin.port = port_;
  EXPECT_EQ(WanServer(twin).start(), -1);
  // The kernel shows a listening socket's backlog as its Send-Q.
  FILE* ss = ::popen(("ss -Hltn 'sport = :" + std::to_string(port_) + "' 2>/dev/null").c_str(), "r");
  char line[512] = "";
  unsigned recv_q = 0, backlog = 0;
  bool listed = ss && std::fgets(line, sizeof line, ss) && std::sscanf(line, "%*s %u %u", &recv_q, &backlog) == 2;
  if (ss) ::pclose(ss);
  if (!listed) GTEST_SKIP() << "no ss program to read the backlog";
  EXPECT_GE(backlog, 128u);
}
