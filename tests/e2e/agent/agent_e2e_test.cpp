// End-to-end tests of the agent process: start with the first request, the FIFO transport and its
// faults, the pool sizes, and shutdown or SIGKILL with work in flight. They run the real program
// (built with test operations in place of the view's, see fixture_agent.cpp) in temporary directories.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

#include <random>
#include <regex>

#include <gtest/gtest.h>

#include "client/agent_process.h"
#include "client/connection.h"
#include "proto/pipe_frame.h"
#include "proto/tavrel_status.h"
#include "proto/view_storage_names.h"
#include "tests/e2e/e2e_process.h"

using tavrel::client::AgentStarted;
using tavrel::client::Connection;
using namespace e2e;

namespace {

const std::vector<std::string> kTrace4 = {"-trace_level", "4", "-trace_subsystem", "TAVREL"};

std::string find(const std::string& text, const std::string& re) {
  std::smatch m;
  return std::regex_search(text, m, std::regex(re)) ? std::string(m[1]) : "";
}
// A reply as "<root> <status-code>[ <tx-id>][ <size>]" (size: what an Echo got).
std::string summary(const std::string& reply) {
  std::string root = find(reply, "(<[A-Za-z][^>]*>)"), tx = find(root, "tx-id=\"([^\"]+)\""),
              size = find(reply, "<size>(\\d+)</size>");
  return find(root, "<([A-Za-z]+)") + " " + find(root, "status-code=\"(\\d+)\"") + (tx.empty() ? "" : " " + tx) +
         (size.empty() ? "" : " " + size);
}
int max_running(const std::string& reply) { return atoi(find(reply, "<max-running>(\\d+)<").c_str()); }
std::string echo(const std::string& tx, const std::string& pad = "") {
  return "<Echo version=\"1\" tx-id=\"" + tx + "\"" + (pad.empty() ? "" : " pad=\"" + pad + "\"") + "/>";
}
std::string sleep_req(const std::string& tx, int ms) {
  return "<Sleep version=\"1\" tx-id=\"" + tx + "\" ms=\"" + std::to_string(ms) + "\"/>";
}
// Every answer until the connection stops giving one, then how it stopped ("EOF" at end of file).
std::string answers(Connection& c) {
  std::string all, reply;
  Connection::Status st;
  while ((st = c.receive(&reply, 10000)) == Connection::kOk) all += summary(reply) + "; ";
  return all + (st == Connection::kClosed ? "EOF" : "status " + std::to_string(st) + " " + c.error());
}
std::string frame(const std::string& doc) { return pipe_frame_encode(Pipe_Frame_Kind::REQUEST, doc); }
// What echo(tx) is answered with.
std::string echoed(const std::string& tx) { return "Echo 0 " + tx + " " + std::to_string(echo(tx).size()); }
// One request and the summary of its answer (or why there is none).
std::string ask(Connection& c, const std::string& doc) {
  std::string reply;
  return c.request(doc, &reply, 10000) == Connection::kOk ? summary(reply) : "no answer: " + c.error();
}

// Writes "<id>\n" to a listener by hand (retrying while the agent reopens it).
bool announce(const std::string& listener, const std::string& id) {
  int fd = -1;
  if (!wait_for(10000, [&] { return (fd = open(listener.c_str(), O_WRONLY | O_NONBLOCK)) >= 0; })) return false;
  bool ok = write(fd, (id + "\n").data(), id.size() + 1) == static_cast<ssize_t>(id.size() + 1);
  close(fd);
  return ok;
}

#define CONNECT(c, agent) \
  Connection c;           \
  ASSERT_EQ(c.connect((agent).storage, 10000), Connection::kOk) << c.error()

// A view storage and its home (tavrel.conf: the pool size, then `conf`), with the test build of the
// agent started on it. The destructor kills what is left of the agent.
struct Agent : Scratch {
  std::string home = at("home"), storage = at("view");
  pid_t watchdog = -1;

  explicit Agent(int pool = 7, const std::string& conf = "") : Scratch("tavrel-agent-e2e") {
    put("home/tavrel.conf", "tavrelNumCmapi=" + std::to_string(pool) + "\n" + conf);
    setenv("HOME", home.c_str(), 1);
  }
  ~Agent() {
    if (pid_t a = watchdog > 0 ? agent_pid() : 0; a > 0) kill(a, SIGKILL);
    if (watchdog > 0) exit_code(watchdog);
  }
  AgentStarted start(const std::string& first = "<StartView version=\"1\"/>", std::vector<std::string> args = {}) {
    tavrel::client::AgentStart how;
    how.program = bin("tavrel_agent_fixture");
    how.storage = storage;
    how.extra_args = std::move(args);
    how.first_request = first;
    AgentStarted s = tavrel::client::start_agent(how);
    watchdog = s.watchdog_pid;
    return s;
  }
  // Starts with a plain StartView; whether the answer was good and the listener came.
  bool run(std::vector<std::string> args = {}) {
    AgentStarted s = start("<StartView version=\"1\"/>", std::move(args));
    return s.error == 0 && summary(s.response) == "StartView 0" &&
           wait_for(10000, [&] { return fileutl_exists(listener()); });
  }
  // The agent is the watchdog's only child.
  pid_t agent_pid() const {
    std::string w = std::to_string(watchdog);
    return atoi(slurp("/proc/" + w + "/task/" + w + "/children").c_str());
  }
  // The watchdog's exit code (which is the agent's), -1 on a time-out.
  int wait_exit() {
    int code = exit_code(watchdog);
    if (code >= 0) watchdog = -1;
    return code;
  }
  int end() {
    pid_t a = agent_pid();
    return a > 0 && kill(a, SIGTERM) == 0 ? wait_exit() : -1;
  }
  std::string listener() const { return storage + "/" + VIEW_STG_IPC_DIR + "/" + VIEW_STG_LISTENER; }
  // Everything the agent traced (all trace files of this home).
  std::string traces() const { return sh("cat " + q(home) + "/tavrel_trace/*").out; }
  std::string log() const { return slurp(storage + "/" + VIEW_STG_LOG_DIR + "/" + VIEW_STG_LOG_FILE); }
};

TEST(AgentProcess, StartsServesAndEndsOnSignalKeepingNothingOfItsStarter) {
  Agent a;
  // A descriptor the starter holds open must not live on in the agent, which outlasts it: a pipe held
  // that way would never see its end.
  int held = open(a.at("held").c_str(), O_WRONLY | O_CREAT, 0600);
  ASSERT_GE(held, 0);
  AgentStarted s = a.start();
  close(held);
  ASSERT_EQ(s.error, 0) << s.message;
  EXPECT_EQ(summary(s.response), "StartView 0") << s.response;
  ASSERT_TRUE(wait_for(10000, [&] { return fileutl_exists(a.listener()); }));
  for (pid_t p : {a.watchdog, a.agent_pid()}) {
    std::string fds = a.sh("ls -l /proc/" + std::to_string(p) + "/fd").out;
    EXPECT_NE(fds, "") << p;
    EXPECT_EQ(fds.find(a.at("held")), std::string::npos) << fds;
  }
  CONNECT(c, a);
  EXPECT_EQ(ask(c, echo("t1")), echoed("t1"));
  std::string reply;
  ASSERT_EQ(kill(a.agent_pid(), SIGTERM), 0);
  EXPECT_EQ(c.receive(&reply, 10000), Connection::kClosed);  // EOF: the view has ended
  EXPECT_EQ(a.wait_exit(), 0);
  EXPECT_FALSE(fileutl_exists(a.listener()));
  std::string log = a.log();
  EXPECT_NE(log.find("Using view \"" + a.storage + "\""), std::string::npos) << log;
  EXPECT_NE(log.find("WARN::"), std::string::npos) << log;
  EXPECT_NE(log.find("Interrupted...exiting."), std::string::npos) << log;
  EXPECT_EQ(count_of(log, "Exiting, status = 0."), 2) << log;
}

TEST(AgentProcess, KillNineMidRequestThenACleanStart) {
  Agent a;
  ASSERT_TRUE(a.run());
  {
    CONNECT(c, a);
    ASSERT_EQ(c.send(sleep_req("held", 60000)), Connection::kOk);
    ASSERT_TRUE(wait_for(10000, [&] { return fileutl_exists(a.storage + "/.started-held"); }));
    ASSERT_EQ(kill(a.agent_pid(), SIGKILL), 0);
    EXPECT_EQ(answers(c), "EOF");
  }
  EXPECT_EQ(a.wait_exit(), 2);
  EXPECT_FALSE(fileutl_exists(a.listener()));
  // The killed agent's lock went with it: the view starts again and serves.
  ASSERT_TRUE(a.run());
  CONNECT(c, a);
  EXPECT_EQ(ask(c, echo("again")), echoed("again"));
  EXPECT_EQ(a.end(), 0);
}

TEST(AgentProcess, FirstRequestFailures) {
  const std::string no_storage = std::to_string(TAVREL_ST_NO_STORAGE);
  const std::string unrecognized = std::to_string(TAVREL_ST_UNRECOGNIZED);
  struct {
    std::string request, answer;
  } cases[] = {
      {"<StartView version=\"1\" status=\"" + no_storage + "\"/>", "StartView " + no_storage},
      // Only MkView and StartView may come first: another operation is refused as a request.
      {"<Echo version=\"1\" tx-id=\"x\"/>", "Unknown " + unrecognized},
      // What is no request at all gets the framework's answer, which keeps the tx-id it found.
      {"<Bogus version=\"1\" tx-id=\"b\"/>", "XMLError " + unrecognized + " b"},
      {"not xml at all", "XMLError " + unrecognized},
  };
  for (auto& c : cases) {
    Agent a;
    AgentStarted s = a.start(c.request);
    ASSERT_EQ(s.error, 0) << s.message;
    EXPECT_EQ(summary(s.response), c.answer) << c.request << " -> " << s.response;
    EXPECT_EQ(a.wait_exit(), 2) << c.request;
    EXPECT_FALSE(fileutl_exists(a.listener()));
  }
}

TEST(AgentProcess, CommandLine) {
  struct {
    const char* args;
    int code;
    const char* out;
  } cases[] = {
      {"", 1, ""},
      {"-VerAll extra args", 0, "tavrel_agent"},
      {"-version", 0, "tavrel_agent"},
      {"-trace_level 3 /tmp/x", 1, ""},
      {"/tmp/tavrel-never -trace_level", 1, ""},
      {"/tmp/tavrel-never -trace_level abc -trace_level 99 -help", 0, "<view_storage_location>"},  // numbers as read
      {"/tmp/tavrel-never -trace_subsystem", 1, ""},
      {"/tmp/tavrel-never -bogus", 1, ""},
      {"/tmp/tavrel-never -help", 0, "<view_storage_location>"},
  };
  Scratch s("tavrel-agent-cli");
  for (auto& c : cases) {
    Outcome o = s.sh(q(bin("tavrel_agent")) + " " + c.args);
    EXPECT_EQ(o.code, c.code) << c.args;
    EXPECT_NE(o.out.find(c.out), std::string::npos) << c.args << " -> " << o.out;
  }
}

TEST(AgentProcess, StandardStreamsReleasedAfterFirstAnswer) {
  // A starter that reads the agent's output to end of file must not hang while the view runs.
  Agent a;
  int in[2], out[2];
  ASSERT_EQ(pipe2(in, O_CLOEXEC) | pipe2(out, O_CLOEXEC), 0);
  if ((a.watchdog = fork()) == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    execl(bin("tavrel_agent_fixture").c_str(), "tavrel_agent_fixture", a.storage.c_str(), nullptr);
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  std::string req = "24\n<StartView version=\"1\"/>\n", all;
  ASSERT_EQ(write(in[1], req.data(), req.size()), static_cast<ssize_t>(req.size()));
  close(in[1]);
  char buf[4096];
  ssize_t n = 1;
  for (struct pollfd p = {out[0], POLLIN, 0}; n > 0 && poll(&p, 1, 10000) > 0;)
    if ((n = read(out[0], buf, sizeof buf)) > 0) all.append(buf, n);
  close(out[0]);
  EXPECT_EQ(n, 0) << "standard output still held after the first answer";
  EXPECT_EQ(summary(all), "StartView 0") << all;
  EXPECT_EQ(a.end(), 0);
}

TEST(AgentProcess, TransportFaults) {
  Agent a(3);
  ASSERT_TRUE(a.run(kTrace4));
  auto still_serves = [&](const std::string& why) {
    CONNECT(c, a);
    EXPECT_EQ(ask(c, echo("alive")), echoed("alive")) << why;
  };

  {  // A declared length far beyond the limit: dropped without an answer; the connection goes on.
    CONNECT(c, a);
    ASSERT_EQ(c.send_raw("99999999999999999999\n<Echo/>"), Connection::kOk);  // does not fit 64 bits
    ASSERT_TRUE(wait_for(10000, [&] { return a.traces().find("Request failed [") != std::string::npos; }));
    ASSERT_EQ(c.send(echo("after")), Connection::kOk);
    c.close_request();
    EXPECT_EQ(answers(c), echoed("after") + "; EOF");
  }
  // One frame, then the request end closed: the answers that come before the end of file.
  std::string nul = echo("nul");
  nul.insert(nul.size() - 2, std::string("\0xyz", 4));
  struct {
    const char* what;
    std::string frame, answers;
  } cases[] = {
      {"length not a number", "12a\n<Echo/>", "EOF"},
      {"empty body (not a known request)", "0\n", "XMLError " + std::to_string(TAVREL_ST_UNRECOGNIZED) + "; EOF"},
      {"short body", "10\n<abc", "EOF"},
      {"a NUL byte ends the request", frame(nul), "Echo 0 nul " + std::to_string(echo("nul").size() - 2) + "; EOF"},
      {"closed right after a request", frame(sleep_req("last", 300)), "Sleep 0 last; EOF"},
      {"an operation that throws", frame("<Throw version=\"1\" tx-id=\"t\"/>"),
       "Throw " + std::to_string(TAVREL_ST_INTERNAL) + " t; EOF"},
  };
  for (auto& t : cases) {
    CONNECT(c, a);
    ASSERT_EQ(c.send_raw(t.frame), Connection::kOk);
    c.close_request();
    EXPECT_EQ(answers(c), t.answers) << t.what;
  }
  still_serves("after the bad frames");
  {  // FIFO names exist until the first frame and are gone after it.
    CONNECT(c, a);
    const std::string ipc = a.storage + "/" + VIEW_STG_IPC_DIR + "/";
    const std::string req = ipc + VIEW_STG_REQUEST_PIPE + VIEW_STG_PIPE_SEP + c.id(),
                      resp = ipc + VIEW_STG_RESPONSE_PIPE + VIEW_STG_PIPE_SEP + c.id();
    EXPECT_TRUE(fileutl_exists(req) && fileutl_exists(resp));
    EXPECT_EQ(ask(c, echo("n")), echoed("n"));
    EXPECT_FALSE(fileutl_exists(req) || fileutl_exists(resp));
  }
  {  // Large frames: what fits the enlarged pipe arrives whole; what cannot fit is refused by the client.
    CONNECT(c, a);
    ASSERT_GE(c.pipe_capacity(), 600 * 1024);
    std::string big = echo("big", std::string(600 * 1024, 'p'));
    EXPECT_EQ(ask(c, big), "Echo 0 big " + std::to_string(big.size()));
    EXPECT_EQ(c.send(echo("huge", std::string(c.pipe_capacity(), 'h'))), Connection::kTooLarge);
    // Written as it is, a frame of several pipefuls is read to its declared length.
    std::string whole = echo("whole", std::string(4 * c.pipe_capacity(), 'w')), reply;
    ASSERT_EQ(c.send_raw(frame(whole)), Connection::kOk);
    ASSERT_EQ(c.receive(&reply, 10000), Connection::kOk) << c.error();
    EXPECT_EQ(summary(reply), "Echo 0 whole " + std::to_string(whole.size()));
  }
  {  // A client that reads no replies costs only itself: the others are answered meanwhile, and once it is
     // more than the outbox bound behind, its connection is closed.
    CONNECT(slow, a);
    for (int i = 0; i < 12; i++)
      ASSERT_EQ(slow.send("<Echo version=\"1\" tx-id=\"s" + std::to_string(i) + "\" reply=\"1048576\"/>"),
                Connection::kOk);
    still_serves("beside a client that does not read");
    ASSERT_TRUE(wait_for(10000, [&] { return a.traces().find("too far behind") != std::string::npos; }));
    EXPECT_EQ(answers(slow), "EOF");
  }
  // Ids written to the listener by hand: one that would leave .ipc, one whose request FIFO is taken by
  // a regular file. Neither gets a handler or makes anything; the clients after them are served (the
  // listener takes one client at a time, so the bad one was read by then).
  a.put("view/.ipc/request_fixed", "not a fifo");
  for (std::string id : {"../escaped", "fixed"}) {
    ASSERT_TRUE(announce(a.listener(), id));
    still_serves(id);
  }
  EXPECT_FALSE(fileutl_exists(a.storage + "/request_..") || fileutl_exists(a.storage + "/escaped"));
  EXPECT_FALSE(fileutl_exists(a.storage + "/.ipc/request_../escaped"));
  EXPECT_EQ(slurp(a.storage + "/.ipc/request_fixed"), "not a fifo");

  // Random bytes, lengths and bodies never stop the service.
  std::mt19937 rng(12345);
  for (int round = 0; round < 20; round++) {
    CONNECT(c, a);
    std::string junk;
    for (int i = 0; i < 20; i++) {
      std::string body(rng() % 300, '\0');
      for (char& ch : body) ch = static_cast<char>(rng() % 256);
      switch (rng() % 4) {
        case 0: junk += frame(body); break;                                     // right length, garbage
        case 1: junk += std::to_string(body.size() + 50) + "\n" + body; break;  // short body
        case 2: junk += body + "\n"; break;                                     // no length at all
        default: junk += std::to_string(rng()) + "\n";                          // lengths only
      }
    }
    ASSERT_EQ(c.send_raw(junk), Connection::kOk);
    c.close_request();
    std::string got = answers(c);
    EXPECT_EQ(got.substr(got.rfind(' ') + 1), "EOF") << "round " << round << ": " << got;
  }
  still_serves("after the random frames");
  EXPECT_EQ(a.end(), 0);
}

TEST(AgentProcess, ClientDeadlinesAndCap) {
  Agent a(3, "tavrelMaxClients=2\ntavrelFirstRequestTimeout=1\ntavrelRequestTimeout=1\ntavrelResponseTimeout=1\n");
  ASSERT_TRUE(a.run(kTrace4));
  CONNECT(c1, a);
  EXPECT_EQ(ask(c1, echo("c1")), echoed("c1"));
  CONNECT(c2, a);
  EXPECT_EQ(ask(c2, echo("c2")), echoed("c2"));
  Connection refused;  // a third is dropped: no pipes are made for it
  EXPECT_NE(refused.connect(a.storage, 2000), Connection::kOk);
  EXPECT_NE(a.log().find("clients are connected already"), std::string::npos) << a.log();
  ASSERT_EQ(c1.send_raw("100\n<Echo"), Connection::kOk);  // and nothing more: closed after the deadline
  EXPECT_EQ(answers(c1), "EOF");
  // An announcement whose pipes are never opened: its FIFOs go after the deadline, and its place with them.
  const std::string ghost = a.storage + "/" + VIEW_STG_IPC_DIR + "/" + VIEW_STG_REQUEST_PIPE + "_ghost";
  ASSERT_TRUE(announce(a.listener(), "ghost"));
  ASSERT_TRUE(wait_for(10000, [&] { return fileutl_exists(ghost); }));
  ASSERT_TRUE(wait_for(10000, [&] { return !fileutl_exists(ghost); }));
  CONNECT(c3, a);
  EXPECT_EQ(ask(c3, echo("c3")), echoed("c3"));
  EXPECT_EQ(ask(c2, echo("c2")), echoed("c2"));
  // One that takes no byte of a reply for the response deadline is cut off.
  ASSERT_EQ(c3.send("<Echo version=\"1\" tx-id=\"big\" reply=\"1048576\"/>"), Connection::kOk);
  ASSERT_TRUE(wait_for(10000, [&] { return a.traces().find("took no reply in time") != std::string::npos; }));
  EXPECT_EQ(answers(c3), "EOF");
  EXPECT_EQ(a.end(), 0);
}

TEST(AgentProcess, IpcDirectory) {
  const std::string dead = std::string(VIEW_STG_PIPE_SEP) + "dead";
  {  // FIFOs of an earlier agent's clients go before serving; a later swap of .ipc for a link is not followed.
    Agent a;
    const std::string ipc = a.storage + "/" + VIEW_STG_IPC_DIR, real = ipc + "-real", away = a.at("away");
    ASSERT_EQ(fileutl_mkpath(ipc, 0700), 0);
    for (const char* kind : {VIEW_STG_REQUEST_PIPE, VIEW_STG_RESPONSE_PIPE})
      ASSERT_EQ(mkfifo((ipc + "/" + kind + dead).c_str(), 0600), 0);
    ASSERT_TRUE(a.run());
    EXPECT_FALSE(fileutl_exists(ipc + "/" + VIEW_STG_REQUEST_PIPE + dead) ||
                 fileutl_exists(ipc + "/" + VIEW_STG_RESPONSE_PIPE + dead));
    ASSERT_EQ(rename(ipc.c_str(), real.c_str()) | mkdir(away.c_str(), 0700) | symlink(away.c_str(), ipc.c_str()), 0);
    ASSERT_TRUE(announce(real + "/" + VIEW_STG_LISTENER, "moved"));
    EXPECT_TRUE(wait_for(10000, [&] { return fileutl_exists(real + "/" + VIEW_STG_REQUEST_PIPE + "_moved"); }));
    EXPECT_FALSE(fileutl_exists(away + "/" + VIEW_STG_REQUEST_PIPE + "_moved"));
    EXPECT_EQ(a.end(), 0);
  }
  // A link at the start: the agent logs its refusal and ends with an error, and startview says so.
  Agent a;
  ASSERT_EQ(fileutl_mkpath(a.at("away"), 0700) | fileutl_mkpath(a.storage, 0700), 0);
  ASSERT_EQ(symlink(a.at("away").c_str(), (a.storage + "/" + VIEW_STG_IPC_DIR).c_str()), 0);
  Outcome o = a.sh("TAVREL_AGENT=" + q(bin("tavrel_agent_fixture")) + " " + q(bin("tavrel")) + " -s " + q(a.storage) +
                   " startview --offline");
  EXPECT_EQ(o.code, 7) << o.out << o.err;
  EXPECT_NE(o.err.find("ended without serving clients (exit code 4)"), std::string::npos) << o.err;
  EXPECT_NE(a.log().find("refusing to serve clients"), std::string::npos) << a.log();
  EXPECT_FALSE(fileutl_exists(a.at("away") + "/" + VIEW_STG_LISTENER));
}

TEST(AgentProcess, PoolSizesAndASignalWithWorkQueued) {
  // Six clients send a Sleep each, held until as many run as the pool lets and the rest are queued:
  // a pool of N runs N-1 at once (one thread is kept for other work), a pool of one runs one. With the
  // pool of one a signal then refuses the queued ones at once; the running one still answers when
  // released, and the end of file follows.
  const std::string ending = std::to_string(TAVREL_ST_VIEW_ENDING);
  for (auto [pool, want] : std::vector<std::pair<int, int>>{{1, 1}, {2, 1}, {7, 6}}) {
    const int want_running = want;
    Agent a(pool);
    ASSERT_TRUE(a.run(kTrace4));
    std::vector<std::unique_ptr<Connection>> conns;
    for (int i = 0; i < 6; i++) {
      conns.push_back(std::make_unique<Connection>());
      ASSERT_EQ(conns.back()->connect(a.storage, 10000), Connection::kOk) << conns.back()->error();
      ASSERT_EQ(conns.back()->send(sleep_req("s" + std::to_string(i), 60000)), Connection::kOk);
    }
    auto ran = [&](int i) { return fileutl_exists(a.storage + "/.started-s" + std::to_string(i)); };
    ASSERT_TRUE(wait_for(20000, [&] {
      int n = 0;
      for (int i = 0; i < 6; i++) n += ran(i);
      return n >= want_running && count_of(a.traces(), "Request queued") == 6;
    })) << "pool " << pool;
    std::string reply;
    if (pool == 1) {
      ASSERT_EQ(kill(a.agent_pid(), SIGTERM), 0);
    }
    for (int i = 0; i < 6 && pool == 1; i++) {
      if (ran(i)) continue;
      ASSERT_EQ(conns[i]->receive(&reply, 15000), Connection::kOk) << conns[i]->error();
      EXPECT_EQ(summary(reply), "Sleep " + ending) << "a cancelled request's answer carries no tx-id";
      EXPECT_NE(reply.find("tavrel_agent is shutting down; no new requests can be processed."), std::string::npos);
    }
    a.put("view/.release", "");
    int seen = 0;
    for (int i = 0; i < 6; i++) {
      if (pool == 1 && !ran(i)) continue;
      ASSERT_EQ(conns[i]->receive(&reply, 30000), Connection::kOk) << "pool " << pool << ": " << conns[i]->error();
      EXPECT_EQ(summary(reply), "Sleep 0 s" + std::to_string(i));
      seen = std::max(seen, max_running(reply));
    }
    EXPECT_EQ(seen, want) << "pool " << pool;
    if (pool > 1) {
      EXPECT_EQ(a.end(), 0) << "pool " << pool;
      continue;
    }
    for (auto& c : conns) EXPECT_EQ(answers(*c), "EOF");
    EXPECT_EQ(a.wait_exit(), 0);
    EXPECT_FALSE(fileutl_exists(a.listener()));
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
      {"tavrelTraceLevel=4\ntavrelTraceSubsystem=TAVREL\n", {"-trace_level", "1", "-trace_subsystem", "RCLIENT"},
       false},
      {"", kTrace4, true},
      {"", {"-trace_level", "5"}, false},  // a level without subsystems traces nothing
  };
  for (auto& c : cases) {
    Agent a(3, c.conf);
    AgentStarted s = a.start("<StartView version=\"1\"><password>s3cret-pw</password></StartView>", c.args);
    ASSERT_EQ(s.error, 0) << s.message;
    ASSERT_TRUE(wait_for(10000, [&] { return fileutl_exists(a.listener()); }));
    EXPECT_EQ(a.end(), 0);
    std::string t = a.traces();
    EXPECT_EQ(t.find("::TRACE::TAVREL::tavrel_agent::main::") != std::string::npos &&
                  t.find("Creating view handler for location") != std::string::npos,
              c.want_tavrel_steps)
        << c.conf << " " << testing::PrintToString(c.args);
    EXPECT_EQ(t.find("s3cret-pw"), std::string::npos);  // passwords never reach the trace
    EXPECT_EQ(t.find("<password>*****</password>") != std::string::npos, c.want_tavrel_steps);
  }
}

}  // namespace
