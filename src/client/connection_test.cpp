// A connection against an agent's end that misbehaves: it closes early, stops inside a frame, sends a
// length that is too long, or says nothing.
#include "client/connection.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "proto/view_storage_names.h"

using tavrel::client::Connection;

namespace {

// Serves one connection on <storage>/.ipc as the agent does: takes the announced id, makes the two
// pipes, reads the request "4\n<q/>" into *request, writes `answer`, then closes its ends at once
// (`hang_up`) or when the client closes its own.
std::thread agent_end(const std::string& storage, std::string answer, bool hang_up, std::string* request) {
  const std::string ipc = storage + "/" + VIEW_STG_IPC_DIR + "/";
  EXPECT_EQ(mkdir(ipc.c_str(), 0700), 0);
  EXPECT_EQ(mkfifo((ipc + VIEW_STG_LISTENER).c_str(), 0600), 0);
  return std::thread([=] {
    int l = open((ipc + VIEW_STG_LISTENER).c_str(), O_RDWR);
    std::string id;
    char c;
    while (read(l, &c, 1) == 1 && c != '\n') id += c;
    const std::string req = ipc + VIEW_STG_REQUEST_PIPE + VIEW_STG_PIPE_SEP + id,
                      resp = ipc + VIEW_STG_RESPONSE_PIPE + VIEW_STG_PIPE_SEP + id;
    mkfifo(req.c_str(), 0600);
    mkfifo(resp.c_str(), 0600);
    int in = open(req.c_str(), O_RDONLY | O_NONBLOCK), out = open(resp.c_str(), O_WRONLY);
    auto more = [&] {  // false at end of file, once the client has closed
      char buf[256];
      struct pollfd p = {in, POLLIN, 0};
      poll(&p, 1, -1);
      ssize_t n = read(in, buf, sizeof buf);
      if (n > 0) request->append(buf, size_t(n));
      return n != 0;
    };
    while (request->size() < 6 && more()) {
    }
    EXPECT_EQ(write(out, answer.data(), answer.size()), ssize_t(answer.size()));
    while (!hang_up && more()) {
    }
    for (int fd : {l, in, out}) close(fd);
  });
}

TEST(Connection, AnswersAndMisbehavingAgents) {
  struct {
    const char* what;
    std::string answer;
    bool hang_up;
    Connection::Status status;
  } rows[] = {
      {"answers", "4\n<a/>0\n", false, Connection::kOk},
      {"closes at once", "", true, Connection::kClosed},
      {"closes inside a frame", "10\n<abc", true, Connection::kClosed},
      {"a length too long", "123456789012345678901234\n", false, Connection::kProtocol},
      {"says nothing", "", false, Connection::kTimeout},
  };
  for (auto& row : rows) {
    SCOPED_TRACE(row.what);
    char tmpl[] = "/tmp/client_conn.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    std::string request;
    std::thread agent = agent_end(tmpl, row.answer, row.hang_up, &request);
    Connection c;
    ASSERT_EQ(c.connect(tmpl, 10000), Connection::kOk) << c.error();
    EXPECT_EQ(c.send(std::string(size_t(c.pipe_capacity()), 'x')), Connection::kTooLarge);
    ASSERT_EQ(c.send("<q/>"), Connection::kOk);
    std::string doc;
    EXPECT_EQ(c.receive(&doc, row.status == Connection::kTimeout ? 50 : 10000), row.status) << c.error();
    EXPECT_EQ(doc, row.status == Connection::kOk ? "<a/>" : "");
    c.close();
    agent.join();
    EXPECT_EQ(request, "4\n<q/>");
    EXPECT_EQ(system(("rm -rf " + std::string(tmpl)).c_str()), 0);
  }
  Connection nobody;
  EXPECT_EQ(nobody.connect("/nonexistent-storage", 20), Connection::kTimeout);
}

}  // namespace
