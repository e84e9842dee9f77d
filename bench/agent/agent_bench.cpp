// Request throughput of the agent's pipe transport and worker pool.
//
// Measured: small requests (an Echo operation of the test build of the agent) answered per second,
// one client in lock-step and four clients at once. Baseline measured in the same run: the same frames
// bounced between two threads over a pair of plain pipes, i.e. the cost of the system calls alone.
// Figures are printed as ratios to the baseline.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "base/fileutl.h"
#include "client/agent_process.h"
#include "client/connection.h"
#include "proto/pipe_frame.h"
#include "proto/view_storage_names.h"

using Clock = std::chrono::steady_clock;
using tavrel::client::Connection;

namespace {

double seconds_since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

// Two threads, two pipes: the client writes a request frame and reads a response frame; the server
// reads the length byte by byte and the body in one read, as the agent does.
double pipe_baseline(int n, const std::string& req) {
  int a[2], b[2];
  if (pipe(a) || pipe(b)) return 0;
  std::string resp =
      pipe_frame_encode(Pipe_Frame_Kind::RESPONSE, "<?xml version=\"1.0\"?><Echo tx-id=\"1\" status-code=\"0\"/>");
  std::thread server([&] {
    for (int i = 0; i < n; i++) {
      char c;
      Pipe_Frame_Decoder length(Pipe_Frame_Kind::REQUEST, PIPE_FRAME_MAX_REQUEST);
      while (length.state() == Pipe_Frame_Decoder::State::LENGTH && read(a[0], &c, 1) == 1) length.feed(&c, 1);
      std::vector<char> body(length.body_missing());
      if (read(a[0], body.data(), body.size()) < 0) return;
      if (write(b[1], resp.data(), resp.size()) < 0) return;
    }
  });
  std::string frame = pipe_frame_encode(Pipe_Frame_Kind::REQUEST, req);
  Pipe_Frame_Reader reader(Pipe_Frame_Kind::RESPONSE, PIPE_FRAME_MAX_RESPONSE);
  auto t0 = Clock::now();
  for (int i = 0; i < n; i++) {
    if (write(a[1], frame.data(), frame.size()) < 0) break;
    std::string doc;
    while (reader.next(&doc) != Pipe_Frame_Reader::Result::kFrame) {
      char buf[4096];
      ssize_t got = read(b[0], buf, sizeof buf);
      if (got <= 0) break;
      reader.feed(buf, got);
    }
  }
  double s = seconds_since(t0);
  server.join();
  for (int fd : {a[0], a[1], b[0], b[1]}) close(fd);
  return n / s;
}

double agent_rate(const std::string& storage, int clients, int per_client, const std::string& req) {
  std::vector<std::thread> threads;
  std::vector<int> ok(clients, 0);
  auto t0 = Clock::now();
  for (int c = 0; c < clients; c++) {
    threads.emplace_back([&, c] {
      Connection conn;
      if (conn.connect(storage, 10000) != Connection::kOk) return;
      std::string reply;
      for (int i = 0; i < per_client; i++)
        if (conn.request(req, &reply, 10000) == Connection::kOk) ok[c]++;
    });
  }
  for (auto& t : threads) t.join();
  double s = seconds_since(t0);
  int total = 0;
  for (int v : ok) total += v;
  if (total != clients * per_client) fprintf(stderr, "warning: %d of %d requests answered\n", total, clients * per_client);
  return total / s;
}

}  // namespace

int main(int argc, char** argv) {
  int n = argc > 1 ? atoi(argv[1]) : 20000;
  const char* bindir = getenv("TAVREL_BIN_DIR");
  std::string fixture = std::string(bindir ? bindir : ".") + "/tavrel_agent_fixture";
  char tmpl[] = "/tmp/tavrel-bench-XXXXXX";
  std::string dir = mkdtemp(tmpl);
  fileutl_mkpath(dir + "/home", 0700);
  std::ofstream(dir + "/home/tavrel.conf") << "tavrelNumCmapi=7\n";
  setenv("HOME", (dir + "/home").c_str(), 1);

  tavrel::client::AgentStart how;
  how.program = fixture;
  how.storage = dir + "/view";
  how.first_request = "<StartView version=\"1\"/>";
  tavrel::client::AgentStarted s = tavrel::client::start_agent(how);
  if (s.error) {
    fprintf(stderr, "cannot start %s: %s\n", fixture.c_str(), s.message.c_str());
    return 1;
  }
  for (int i = 0; i < 500 && !fileutl_exists(how.storage + "/" + VIEW_STG_IPC_DIR + "/" + VIEW_STG_LISTENER); i++) usleep(10000);

  const std::string req = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><Echo version=\"1\" tx-id=\"1\"/>";
  double base = pipe_baseline(n, req);
  double one = agent_rate(how.storage, 1, n, req);
  double four = agent_rate(how.storage, 4, n / 4, req);
  printf("requests: %d per measurement\n", n);
  printf("baseline (plain pipe ping-pong, same frames): %.0f round trips/s\n", base);
  printf("agent, 1 client in lock-step:  %.0f requests/s = %.3f x baseline\n", one, one / base);
  printf("agent, 4 clients at once:      %.0f requests/s = %.3f x baseline\n", four, four / base);

  std::string children = "/proc/" + std::to_string(s.watchdog_pid) + "/task/" + std::to_string(s.watchdog_pid) + "/children";
  std::ifstream cf(children);
  int agent = 0;
  cf >> agent;
  if (agent > 0) kill(agent, SIGTERM);
  int st;
  tavrel::client::wait_for_exit(s.watchdog_pid, 20000, &st);
  std::string cmd = "rm -rf '" + dir + "'";
  return system(cmd.c_str()) == 0 ? 0 : 1;
}
