// End-to-end tests of the agent process: start with the first request, the FIFO transport and its
// faults, the pool sizes, and shutdown with work in flight. They run the real program (built with test
// operations in place of the view's, see fixture_agent.cpp) in temporary directories.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "base/fileutl.h"
#include "client/agent_process.h"
#include "client/connection.h"

using tavrel::client::AgentStart;
using tavrel::client::AgentStarted;
using tavrel::client::Connection;

namespace {

std::string bin(const char* name) {
  const char* dir = getenv("TAVREL_BIN_DIR");
  return std::string(dir ? dir : ".") + "/" + name;
}

// An attribute of the root element of a reply.
std::string attr(const std::string& text, const std::string& name) {
  size_t open = text.find('<', text.find("?>") == std::string::npos ? 0 : text.find("?>"));
  size_t close = text.find('>', open);
  std::string tag = open == std::string::npos ? "" : text.substr(open, close - open);
  std::smatch m;
  if (std::regex_search(tag, m, std::regex("\\s" + name + "=\"([^\"]*)\""))) return m[1];
  return "";
}
int status_of(const std::string& reply) { return atoi(attr(reply, "status-code").c_str()); }
std::string root_of(const std::string& reply) {
  std::smatch m;
  if (std::regex_search(reply, m, std::regex("\\?>\\s*<([A-Za-z]+)"))) return m[1];
  return "";
}
int max_running(const std::string& reply) {
  std::smatch m;
  if (std::regex_search(reply, m, std::regex("<max-running>(\\d+)</max-running>"))) return std::stoi(m[1]);
  return -1;
}
std::string read_text(const std::string& path) {
  std::ifstream f(path);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}
int count_of(const std::string& hay, const std::string& needle) {
  int n = 0;
  for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + 1)) n++;
  return n;
}
bool exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

class Agent {
 public:
  explicit Agent(int pool = 7, const std::string& extra_conf = "") {
    char tmpl[] = "/tmp/tavrel-e2e-XXXXXX";
    m_dir = mkdtemp(tmpl);
    m_home = m_dir + "/home";
    m_storage = m_dir + "/view";
    fileutl_mkpath(m_home, 0700);
    std::ofstream(m_home + "/tavrel.conf") << "tavrelNumCmapi=" << pool << "\n" << extra_conf;
    setenv("HOME", m_home.c_str(), 1);
  }
  ~Agent() {
    if (m_watchdog > 0) {
      pid_t a = agent_pid();
      if (a > 0) kill(a, SIGKILL);
      int st;
      tavrel::client::wait_for_exit(m_watchdog, 10000, &st);
    }
    std::string cmd = "rm -rf '" + m_dir + "'";
    if (system(cmd.c_str()) != 0) ADD_FAILURE() << "cleanup failed";
  }

  AgentStarted start(const std::string& first = "<StartView version=\"1\"/>", std::vector<std::string> args = {},
                     const char* program = "tavrel_agent_fixture", bool raw = false) {
    AgentStart how;
    how.raw_first_request = raw;
    how.program = bin(program);
    how.storage = m_storage;
    how.extra_args = std::move(args);
    how.first_request = first;
    AgentStarted s = tavrel::client::start_agent(how);
    m_watchdog = s.watchdog_pid;
    return s;
  }

  // The agent is the watchdog's only child.
  pid_t agent_pid() const {
    std::string children = read_text("/proc/" + std::to_string(m_watchdog) + "/task/" + std::to_string(m_watchdog) +
                                     "/children");
    return atoi(children.c_str());
  }

  bool wait_listening(int ms = 10000) {
    for (int i = 0; i < ms / 10; i++) {
      if (exists(listener())) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  // Waits for the watchdog; returns the exit code, or -1 on a time-out.
  int wait_exit(int ms = 20000) {
    int st = 0;
    if (!tavrel::client::wait_for_exit(m_watchdog, ms, &st)) return -1;
    m_watchdog = -1;
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  }

  std::string listener() const { return m_storage + "/" + VIEW_STG_IPC_DIR + "/" + VIEW_STG_LISTENER; }
  // Everything the agent traced (all trace files of this home).
  std::string traces() const {
    std::string all;
    DIR* d = opendir((m_home + "/tavrel_trace").c_str());
    if (!d) return all;
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') all += read_text(m_home + "/tavrel_trace/" + e->d_name);
    closedir(d);
    return all;
  }
  const std::string& storage() const { return m_storage; }
  std::string log() const { return read_text(m_storage + "/" + VIEW_STG_LOG_DIR + "/" + VIEW_STG_LOG_FILE); }

 private:
  std::string m_dir, m_home, m_storage;
  pid_t m_watchdog = -1;
};

std::string echo(const std::string& tx, const std::string& pad = "") {
  return "<Echo version=\"1\" tx-id=\"" + tx + "\"" + (pad.empty() ? "" : " pad=\"" + pad + "\"") + "/>";
}
std::string sleep_req(const std::string& tx, int ms) {
  return "<Sleep version=\"1\" tx-id=\"" + tx + "\" ms=\"" + std::to_string(ms) + "\"/>";
}

TEST(AgentProcess, StartsServesAndEndsOnSignal) {
  Agent agent;
  AgentStarted s = agent.start();
  ASSERT_EQ(s.error, 0) << s.message;
  EXPECT_EQ(status_of(s.response), 0) << s.response;
  ASSERT_TRUE(agent.wait_listening());
  Connection c;
  ASSERT_EQ(c.connect(agent.storage(), 10000), Connection::kOk) << c.error();
  std::string reply;
  ASSERT_EQ(c.request(echo("t1"), &reply, 10000), Connection::kOk) << c.error();
  EXPECT_EQ(root_of(reply), "Echo");
  EXPECT_EQ(attr(reply, "tx-id"), "t1");
  EXPECT_EQ(status_of(reply), 0);

  pid_t pid = agent.agent_pid();
  ASSERT_GT(pid, 0);
  ASSERT_EQ(kill(pid, SIGTERM), 0);
  EXPECT_EQ(c.receive(&reply, 10000), Connection::kClosed);  // EOF: the view has ended
  EXPECT_EQ(agent.wait_exit(), 0);
  EXPECT_FALSE(exists(agent.listener()));
  std::string log = agent.log();
  EXPECT_NE(log.find("Using view \"" + agent.storage() + "\""), std::string::npos) << log;
  EXPECT_NE(log.find("WARN::"), std::string::npos) << log;
  EXPECT_NE(log.find("Interrupted...exiting."), std::string::npos) << log;
  EXPECT_EQ(count_of(log, "Exiting, status = 0."), 2) << log;
}

TEST(AgentProcess, SignalWithWorkInFlight) {
  // One pool thread: it is busy with the slow request, so nothing else can pick up the queued ones
  // between the signal and the cancellation of the queue.
  Agent agent(1);
  ASSERT_EQ(agent.start().error, 0);
  ASSERT_TRUE(agent.wait_listening());
  Connection c;
  ASSERT_EQ(c.connect(agent.storage(), 10000), Connection::kOk) << c.error();
  ASSERT_EQ(c.send(sleep_req("slow", 1500)), Connection::kOk);
  for (int i = 0; i < 200 && !exists(agent.storage() + "/.sleep-started"); i++)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_TRUE(exists(agent.storage() + "/.sleep-started"));
  // The one pool thread is busy; these wait in the queue.
  for (int i = 0; i < 3; i++) ASSERT_EQ(c.send(echo("q" + std::to_string(i))), Connection::kOk);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  ASSERT_EQ(kill(agent.agent_pid(), SIGTERM), 0);

  std::map<std::string, std::string> replies;
  std::string reply;
  while (c.receive(&reply, 15000) == Connection::kOk) replies[attr(reply, "tx-id")] = reply;
  EXPECT_EQ(c.receive(&reply, 100), Connection::kClosed) << c.error();
  ASSERT_EQ(replies.size(), 4u);
  EXPECT_EQ(status_of(replies["slow"]), 0) << replies["slow"];
  EXPECT_EQ(max_running(replies["slow"]), 1);
  for (int i = 0; i < 3; i++) {
    const std::string& r = replies["q" + std::to_string(i)];
    EXPECT_EQ(status_of(r), 20026) << r;
    EXPECT_EQ(root_of(r), "Echo");
    EXPECT_NE(r.find("tavrel_agent is shutting down; no new requests can be processed."), std::string::npos);
  }
  EXPECT_EQ(agent.wait_exit(), 0);
  EXPECT_FALSE(exists(agent.listener()));
}

TEST(AgentProcess, FirstRequestFailures) {
  struct {
    const char* request;
    int status;
    const char* root;
  } cases[] = {
      {"<StartView version=\"1\" status=\"20023\"/>", 20023, "StartView"},
      {"<Echo version=\"1\" tx-id=\"x\"/>", 20020, "Unknown"},  // only MkView and StartView may come first
      {"not xml at all", 20020, "Unknown"},
      // The first request is read line by line and joined without separators: a document on
      // several lines is damaged ("<StartViewversion=...").
      {"<StartView\nversion=\"1\"/>", 20020, "Unknown"},
  };
  for (auto& c : cases) {
    Agent agent;
    AgentStarted s = agent.start(c.request, {}, "tavrel_agent_fixture", true);
    ASSERT_EQ(s.error, 0) << s.message;
    EXPECT_EQ(status_of(s.response), c.status) << c.request << " -> " << s.response;
    EXPECT_EQ(root_of(s.response), c.root) << s.response;
    EXPECT_EQ(attr(s.response, "tx-id"), "") << s.response;
    EXPECT_EQ(agent.wait_exit(), 2) << c.request;
    EXPECT_FALSE(exists(agent.listener()));
  }
}

TEST(AgentProcess, CommandLine) {
  struct {
    std::vector<std::string> args;
    int code;
    const char* out;
  } cases[] = {
      {{}, 1, ""},
      {{"-VerAll", "extra", "args"}, 0, "tavrel_agent"},
      {{"-version"}, 0, "tavrel_agent"},
      {{"-trace_level", "3", "/tmp/x"}, 1, ""},
      {{"/tmp/tavrel-never", "-trace_level"}, 1, ""},
      {{"/tmp/tavrel-never", "-trace_subsystem"}, 1, ""},
      {{"/tmp/tavrel-never", "-bogus"}, 1, ""},
      {{"/tmp/tavrel-never", "-help"}, 0, "<view_storage_location>"},
  };
  for (auto& c : cases) {
    std::string cmd = bin("tavrel_agent");
    for (auto& a : c.args) cmd += " '" + a + "'";
    cmd += " 2>/dev/null </dev/null";
    FILE* p = popen(cmd.c_str(), "r");
    ASSERT_NE(p, nullptr);
    char buf[4096];
    size_t n = fread(buf, 1, sizeof buf - 1, p);
    buf[n] = 0;
    int st = pclose(p);
    EXPECT_EQ(WEXITSTATUS(st), c.code) << cmd;
    EXPECT_NE(std::string(buf).find(c.out), std::string::npos) << cmd << " -> " << buf;
  }
}

TEST(AgentProcess, StandardStreamsReleasedAfterFirstAnswer) {
  // A starter that reads the agent's output to end of file must not hang while the view runs.
  Agent agent;
  int in[2], out[2];
  ASSERT_EQ(pipe(in), 0);
  ASSERT_EQ(pipe(out), 0);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    close(in[0]);
    close(in[1]);
    close(out[0]);
    close(out[1]);
    execl(bin("tavrel_agent_fixture").c_str(), "tavrel_agent_fixture", agent.storage().c_str(), nullptr);
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  std::string req = "24\n<StartView version=\"1\"/>\n";
  ASSERT_EQ(write(in[1], req.data(), req.size()), static_cast<ssize_t>(req.size()));
  close(in[1]);
  std::string all;
  bool eof = false;
  for (int i = 0; i < 100 && !eof; i++) {
    struct pollfd p = {out[0], POLLIN, 0};
    if (poll(&p, 1, 100) <= 0) continue;
    char buf[4096];
    ssize_t n = read(out[0], buf, sizeof buf);
    if (n <= 0)
      eof = true;
    else
      all.append(buf, n);
  }
  close(out[0]);
  EXPECT_TRUE(eof) << "standard output still held after the first answer";
  EXPECT_EQ(status_of(all), 0) << all;
  std::string children = read_text("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children");
  pid_t child = atoi(children.c_str());
  ASSERT_GT(child, 0);
  kill(child, SIGTERM);
  int st = 0;
  ASSERT_TRUE(tavrel::client::wait_for_exit(pid, 20000, &st));
  EXPECT_EQ(WEXITSTATUS(st), 0);
}

TEST(AgentProcess, TransportFaults) {
  Agent agent(3);
  ASSERT_EQ(agent.start().error, 0);
  ASSERT_TRUE(agent.wait_listening());
  std::string reply;
  auto still_serves = [&](const std::string& why) {
    Connection c;
    ASSERT_EQ(c.connect(agent.storage(), 10000), Connection::kOk) << why << ": " << c.error();
    ASSERT_EQ(c.request(echo("alive"), &reply, 10000), Connection::kOk) << why << ": " << c.error();
    EXPECT_EQ(attr(reply, "tx-id"), "alive") << why;
  };

  {  // A length that is not a number: no reply at all.
    Connection c;
    ASSERT_EQ(c.connect(agent.storage(), 10000), Connection::kOk);
    ASSERT_EQ(c.send_raw("12a\n<Echo/>"), Connection::kOk);
    EXPECT_EQ(c.receive(&reply, 300), Connection::kTimeout);
    still_serves("bad length");
  }
  {  // A declared length far beyond the limit: dropped, no reply.
    Connection c;
    ASSERT_EQ(c.connect(agent.storage(), 10000), Connection::kOk);
    ASSERT_EQ(c.send_raw("99999999999999999999\n<Echo/>"), Connection::kOk);  // does not fit 64 bits
    EXPECT_EQ(c.receive(&reply, 300), Connection::kTimeout);
    ASSERT_EQ(c.request(echo("after-oversize"), &reply, 10000), Connection::kOk) << c.error();
    EXPECT_EQ(attr(reply, "tx-id"), "after-oversize");
  }
  {  // Empty body: the empty document is not a known request.
    Connection c;
    ASSERT_EQ(c.connect(agent.storage(), 10000), Connection::kOk);
    ASSERT_EQ(c.send_raw("0\n"), Connection::kOk);
    ASSERT_EQ(c.receive(&reply, 10000), Connection::kOk) << c.error();
    EXPECT_EQ(root_of(reply), "XMLError");
    EXPECT_EQ(status_of(reply), 20020);
  }
  {  // FIFO names exist until the first frame and are gone after it.
    Connection c;
    ASSERT_EQ(c.connect(agent.storage(), 10000), Connection::kOk);
    std::string req = agent.storage() + "/.ipc/request_" + c.id();
    std::string resp = agent.storage() + "/.ipc/response_" + c.id();
    EXPECT_TRUE(exists(req));
    EXPECT_TRUE(exists(resp));
    ASSERT_EQ(c.request(echo("n"), &reply, 10000), Connection::kOk);
    EXPECT_FALSE(exists(req));
    EXPECT_FALSE(exists(resp));
  }
  {  // A short body and then end of file: no reply, the handler ends, the client sees EOF.
    Connection c;
    ASSERT_EQ(c.connect(agent.storage(), 10000), Connection::kOk);
    ASSERT_EQ(c.send_raw("10\n<abc"), Connection::kOk);
    c.close_request();
    EXPECT_EQ(c.receive(&reply, 10000), Connection::kClosed) << c.error();
  }
  {  // Closing after a request: its answer still comes, then end of file.
    Connection c;
    ASSERT_EQ(c.connect(agent.storage(), 10000), Connection::kOk);
    ASSERT_EQ(c.send(sleep_req("last", 300)), Connection::kOk);
    c.close_request();
    ASSERT_EQ(c.receive(&reply, 10000), Connection::kOk) << c.error();
    EXPECT_EQ(attr(reply, "tx-id"), "last");
    EXPECT_EQ(c.receive(&reply, 10000), Connection::kClosed) << c.error();
  }
  {  // A NUL byte ends the request there.
    Connection c;
    ASSERT_EQ(c.connect(agent.storage(), 10000), Connection::kOk);
    std::string body = echo("nul");
    std::string cut = body;
    body.insert(body.size() - 2, std::string("\0xyz", 4));
    ASSERT_EQ(c.send_raw(std::to_string(body.size()) + "\n" + body), Connection::kOk);
    ASSERT_EQ(c.receive(&reply, 10000), Connection::kOk);
    EXPECT_EQ(std::to_string(cut.size() - 2), reply.substr(reply.find("<size>") + 6, reply.find("</size>") - reply.find("<size>") - 6));
  }
  {  // Large frames: what fits the enlarged pipe arrives whole; what cannot fit is refused by the client.
    Connection c;
    ASSERT_EQ(c.connect(agent.storage(), 10000), Connection::kOk);
    ASSERT_GE(c.pipe_capacity(), 600 * 1024);
    std::string pad(600 * 1024, 'p');
    ASSERT_EQ(c.request(echo("big", pad), &reply, 10000), Connection::kOk) << c.error();
    EXPECT_NE(reply.find("<size>" + std::to_string(echo("big", pad).size()) + "</size>"), std::string::npos);
    EXPECT_EQ(c.send(echo("huge", std::string(c.pipe_capacity(), 'h'))), Connection::kTooLarge);
  }
  {  // A regular file where a client FIFO would be: that client gets no handler.
    std::ofstream(agent.storage() + "/.ipc/request_fixed") << "not a fifo";
    Connection c;
    EXPECT_EQ(c.connect(agent.storage(), 1500, "fixed"), Connection::kTimeout);
    still_serves("regular file in the way");
  }
  {  // An id that would leave .ipc is refused, and nothing is made outside it.
    int fd = open(agent.listener().c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    std::string line = "../escaped\n";
    ASSERT_EQ(write(fd, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    close(fd);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(exists(agent.storage() + "/request_..")) ;
    EXPECT_FALSE(exists(agent.storage() + "/escaped"));
    EXPECT_FALSE(exists(agent.storage() + "/.ipc/request_../escaped"));
    still_serves("hostile id");
  }
  ASSERT_EQ(kill(agent.agent_pid(), SIGTERM), 0);
  EXPECT_EQ(agent.wait_exit(), 0);
}

TEST(AgentProcess, PoolSizes) {
  struct {
    int pool;
    int want_max;
  } cases[] = {{1, 1}, {2, 1}, {7, 6}};
  for (auto& pc : cases) {
    Agent agent(pc.pool);
    ASSERT_EQ(agent.start().error, 0);
    ASSERT_TRUE(agent.wait_listening());
    const int clients = 6;
    std::vector<std::unique_ptr<Connection>> conns;
    for (int i = 0; i < clients; i++) {
      conns.push_back(std::make_unique<Connection>());
      ASSERT_EQ(conns.back()->connect(agent.storage(), 10000), Connection::kOk) << conns.back()->error();
    }
    for (int i = 0; i < clients; i++) ASSERT_EQ(conns[i]->send(sleep_req("s" + std::to_string(i), 500)), Connection::kOk);
    int seen = 0;
    for (int i = 0; i < clients; i++) {
      std::string reply;
      ASSERT_EQ(conns[i]->receive(&reply, 30000), Connection::kOk) << "pool " << pc.pool << ": " << conns[i]->error();
      EXPECT_EQ(status_of(reply), 0);
      seen = std::max(seen, max_running(reply));
    }
    EXPECT_EQ(seen, pc.want_max) << "pool " << pc.pool;
    ASSERT_EQ(kill(agent.agent_pid(), SIGTERM), 0);
    EXPECT_EQ(agent.wait_exit(), 0) << "pool " << pc.pool;
  }
}

TEST(AgentProcess, TraceSettingsFromFileAndCommandLine) {
  struct {
    const char* conf;
    std::vector<std::string> args;
    bool want_tavrel_steps;
  } cases[] = {
      {"tavrelTraceLevel=4\ntavrelTraceSubsystem=TAVREL\n", {}, true},
      // The command line wins over the file.
      {"tavrelTraceLevel=4\ntavrelTraceSubsystem=TAVREL\n", {"-trace_level", "1", "-trace_subsystem", "RCLIENT"}, false},
      {"", {"-trace_level", "4", "-trace_subsystem", "TAVREL"}, true},
      {"", {"-trace_level", "5"}, false},  // a level without subsystems traces nothing
  };
  for (auto& c : cases) {
    Agent agent(3, c.conf);
    AgentStarted s = agent.start("<StartView version=\"1\"><password>s3cret-pw</password></StartView>", c.args);
    ASSERT_EQ(s.error, 0) << s.message;
    ASSERT_TRUE(agent.wait_listening());
    ASSERT_EQ(kill(agent.agent_pid(), SIGTERM), 0);
    EXPECT_EQ(agent.wait_exit(), 0);
    std::string t = agent.traces();
    EXPECT_EQ(t.find("::TRACE::TAVREL::tavrel_agent::main::") != std::string::npos &&
                  t.find("Creating view handler for location") != std::string::npos,
              c.want_tavrel_steps)
        << c.conf << " " << testing::PrintToString(c.args);
    EXPECT_EQ(t.find("s3cret-pw"), std::string::npos);  // passwords never reach the trace
    if (c.want_tavrel_steps) {
      EXPECT_NE(t.find("<password>*****</password>"), std::string::npos);
    }
  }
}

TEST(AgentProcess, KillNineLeavesNoListener) {
  Agent agent;
  ASSERT_EQ(agent.start().error, 0);
  ASSERT_TRUE(agent.wait_listening());
  ASSERT_EQ(kill(agent.agent_pid(), SIGKILL), 0);
  EXPECT_EQ(agent.wait_exit(), 2);
  EXPECT_FALSE(exists(agent.listener()));
}

TEST(AgentProcess, HostileFramesNeverStopService) {
  Agent agent(3);
  ASSERT_EQ(agent.start().error, 0);
  ASSERT_TRUE(agent.wait_listening());
  std::mt19937 rng(12345);
  for (int round = 0; round < 20; round++) {
    Connection c;
    ASSERT_EQ(c.connect(agent.storage(), 10000), Connection::kOk) << c.error();
    std::string junk;
    for (int i = 0; i < 20; i++) {
      int kind = rng() % 4;
      std::string body(rng() % 300, '\0');
      for (char& ch : body) ch = static_cast<char>(rng() % 256);
      if (kind == 0) junk += std::to_string(body.size()) + "\n" + body;           // right length, garbage
      else if (kind == 1) junk += std::to_string(body.size() + 50) + "\n" + body;  // short body
      else if (kind == 2) junk += body + "\n";                                    // no length at all
      else junk += std::to_string(rng()) + "\n";                                  // lengths only
    }
    ASSERT_EQ(c.send_raw(junk), Connection::kOk);
    c.close_request();
    std::string reply;
    while (c.receive(&reply, 10000) == Connection::kOk) {
    }
    EXPECT_EQ(c.receive(&reply, 100), Connection::kClosed) << "round " << round << ": " << c.error();
  }
  Connection c;
  ASSERT_EQ(c.connect(agent.storage(), 10000), Connection::kOk);
  std::string reply;
  ASSERT_EQ(c.request(echo("survivor"), &reply, 10000), Connection::kOk);
  EXPECT_EQ(attr(reply, "tx-id"), "survivor");
  ASSERT_EQ(kill(agent.agent_pid(), SIGTERM), 0);
  EXPECT_EQ(agent.wait_exit(), 0);
}

}  // namespace
