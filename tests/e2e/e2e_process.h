// Helpers of the end-to-end tests that start the real programs: where the programs are, running them
// in the background or through the shell, waiting for an event with a deadline, a scratch tree that
// goes away with the test, and the reference server the view and mount tests talk to.
#pragma once

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "base/fileutl.h"

namespace e2e {

// A program of the build ($TAVREL_BIN_DIR, set by ctest).
inline std::string bin(const std::string& name) {
  const char* dir = getenv("TAVREL_BIN_DIR");
  return std::string(dir ? dir : ".") + "/" + name;
}

// A file's text (at most 16 MiB); empty when it cannot be read.
inline std::string slurp(const std::string& path) {
  std::string text;
  fileutl_read_file(path, &text, 16 << 20);
  return text;
}

// A word for the shell (the tests' paths and arguments hold no single quote).
inline std::string q(const std::string& s) { return "'" + s + "'"; }

inline int count_of(const std::string& hay, const std::string& needle) {
  int n = 0;
  for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + 1)) n++;
  return n;
}

// What a command run through the shell left: exit code and its two outputs.
struct Outcome {
  int code = -1;
  std::string out, err;
};

// Polls `pred` every 10 ms for at most `ms`; whether it became true.
inline bool wait_for(int ms, const std::function<bool()>& pred) {
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (!pred()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

// Starts argv[0] with standard output and error appended to `log`.
inline pid_t spawn(const std::vector<std::string>& argv, const std::string& log) {
  pid_t pid = fork();
  if (pid == 0) {
    if (!freopen(log.c_str(), "a", stderr) || !freopen(log.c_str(), "a", stdout)) _exit(126);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  return pid;
}

// Reaps a child: its exit code (128 + signal when a signal ended it), or -1 when it has not ended
// within `ms`.
inline int exit_code(pid_t pid, int ms = 20000) {
  int st = 0;
  if (!wait_for(ms, [&] { return waitpid(pid, &st, WNOHANG) == pid; })) return -1;
  return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

// SIGTERM, then SIGKILL after 10 s; reaps the process and forgets its pid.
inline void stop(pid_t& pid) {
  if (pid <= 0) return;
  kill(pid, SIGTERM);
  if (exit_code(pid, 10000) < 0) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  pid = -1;
}

// A directory /tmp/<name>-XXXXXX for one test, removed with all it holds at the end.
struct Scratch {
  std::string dir;
  explicit Scratch(const std::string& name) {
    std::string tmpl = "/tmp/" + name + "-XXXXXX";
    dir = mkdtemp(tmpl.data()) ? tmpl : "/nonexistent-scratch";
  }
  ~Scratch() {
    if (system(("rm -rf " + q(dir)).c_str()) != 0) fprintf(stderr, "cannot remove %s\n", dir.c_str());
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  std::string at(const std::string& rel) const { return dir + "/" + rel; }
  // Writes a file of the tree, making its folders.
  void put(const std::string& rel, const std::string& text, mode_t mode = 0644) const {
    fileutl_mkpath(at(rel).substr(0, at(rel).rfind('/')), 0755);
    std::ofstream(at(rel)) << text;
    chmod(at(rel).c_str(), mode);
  }
  // A shell command with standard input from /dev/null and its outputs caught.
  Outcome sh(const std::string& cmd) const {
    int st = system(("( " + cmd + " ) >" + q(at(".out")) + " 2>" + q(at(".err")) + " </dev/null").c_str());
    return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, slurp(at(".out")), slurp(at(".err"))};
  }
};

// The view tests' world: a home, a view storage, the users file (alice, password in "pw", a wrong one
// in "badpw"), the admin token "tok-e2e" in "token", a server store, and the reference server on a
// loopback port that the first start picks and later starts keep (a view keeps its server's URL).
// The server writes every request it answered to "requests.log", agents started by `tavrel` their
// standard error to "agent.log". The destructor stops the server.
struct Rig : Scratch {
  std::string home = at("home"), storage = at("view"), store = at("store.db");
  int port = 0;
  pid_t server = -1;

  explicit Rig(const std::string& name) : Scratch(name) {
    fileutl_mkpath(home, 0700);
    fileutl_mkpath(at("run"), 0700);
    put("users", "alice:s3cret\n", 0600);
    put("pw", "s3cret\n");
    put("badpw", "wrong\n");
    put("token", "tok-e2e\n");
  }
  ~Rig() {
    stop(server);
    // A failed test shows the end of the agent's standard error: an agent that ended shows up in the
    // test only as calls that fail.
    std::string log = slurp(at("agent.log"));
    if (::testing::Test::HasFailure() && !log.empty())
      fprintf(stderr, "---- the agent's standard error (end) ----\n%s\n", log.substr(log.size() > 4000 ? log.size() - 4000 : 0).c_str());
  }

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port) + "/"; }
  std::vector<std::string> creds(const std::string& pw = "pw") const {
    return {"--server-url", url(), "--user", "alice", "--password-file", at(pw)};
  }
  // Imports the folder `tree` of the scratch tree as SILO `tag`; `flags` such as "--public".
  Outcome import(const std::string& tag, const std::string& tree, const std::string& flags = "") const {
    return sh(q(bin("tavrel_server")) + " import --store " + q(store) + " --silo " + tag + " " + flags + " " +
              q(at(tree)));
  }
  // Starts the server with `extra` arguments; whether it listens within 10 s (then `port` is set).
  bool start_server(const std::vector<std::string>& extra = {}) {
    unlink(at("port").c_str());
    std::vector<std::string> argv = {bin("tavrel_server"), "serve", "--store", store, "--users", at("users"),
                                     "--port", std::to_string(port), "--port-file", at("port"),
                                     "--admin-token-file", at("token"), "--request-log", at("requests.log")};
    argv.insert(argv.end(), extra.begin(), extra.end());
    server = spawn(argv, at("server.log"));
    return wait_for(10000, [&] { return (port = atoi(slurp(at("port")).c_str())) > 0; });
  }
  // The environment of `tavrel` here: this home, the test's programs, the module socket run/kfsm.sock
  // and the view root "root".
  std::string env() const {
    return "HOME=" + q(home) + " TAVREL_KFSM_SOCKET=" + q(at("run/kfsm.sock")) + " TAVREL_VIEW_ROOT=" + q(at("root")) +
           " TAVREL_AGENT=" + q(bin("tavrel_agent")) + " TAVREL_KFSMD=" + q(bin("tavrel_kfsmd")) + " ";
  }
  // `tavrel -s <view> -t 30 args... more...` (the rig's view unless another storage is named).
  Outcome tavrel(std::vector<std::string> args, const std::vector<std::string>& more = {},
                 const std::string& view = "") const {
    args.insert(args.end(), more.begin(), more.end());
    std::string cmd = env() + q(bin("tavrel")) + " -s " + q(view.empty() ? storage : view) + " -t 30 --agent-log " +
                      q(at("agent.log"));
    for (const auto& a : args) cmd += " " + q(a);
    return sh(cmd);
  }
  // The requests the server answered, oldest first, by short name: "login", "getconfigspec",
  // "logout" ... (the RPC without its class and "_rpc", or the first path step after the base).
  std::vector<std::string> rpcs() const {
    std::vector<std::string> names;
    std::istringstream in(slurp(at("requests.log")));
    for (std::string line; std::getline(in, line);) {
      std::vector<std::string> f;
      std::istringstream ls(line);
      for (std::string x; std::getline(ls, x, '\t');) f.push_back(x);
      if (f.size() < 4) continue;
      std::string n = f[3].empty() || f[3] == "-" ? f[2].substr(f[2].find('/', 1) + 1) : f[3];
      n = n.substr(n.rfind(':') + 1);
      names.push_back(n.size() > 4 && n.compare(n.size() - 4, 4, "_rpc") == 0 ? n.substr(0, n.size() - 4)
                                                                              : n.substr(0, n.find('/')));
    }
    return names;
  }
  // rpcs() joined by blanks once there are at least `n` (waiting up to 10 s): the server writes an
  // entry just after its reply has gone out.
  std::string trail(size_t n) const {
    std::vector<std::string> r;
    wait_for(10000, [&] { return (r = rpcs()).size() >= n; });
    std::string s;
    for (size_t i = 0; i < r.size(); i++) s += (i ? " " : "") + r[i];
    return s;
  }
};

}  // namespace e2e
