// Helpers of the end-to-end tests that start the real programs: where the programs are, running them
// in the background with their output in a log, waiting, and a free loopback port.
#pragma once

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

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

// What a command run through the shell left: exit code and its two outputs.
struct Outcome {
  int code = -1;
  std::string out, err;
};

// A port on loopback where nobody listens (bound once, then released); -1 on failure.
inline int free_port() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
    close(fd);
    return -1;
  }
  close(fd);
  return ntohs(a.sin_port);
}

// Polls `pred` every 20 ms for at most `ms`; whether it became true.
inline bool wait_for(int ms, const std::function<bool()>& pred) {
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (!pred()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
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

// SIGTERM, then SIGKILL after 10 s; reaps the process and forgets its pid.
inline void stop(pid_t& pid) {
  if (pid <= 0) return;
  kill(pid, SIGTERM);
  int st;
  if (!wait_for(10000, [&] { return waitpid(pid, &st, WNOHANG) == pid; })) {
    kill(pid, SIGKILL);
    waitpid(pid, &st, 0);
  }
  pid = -1;
}

}  // namespace e2e
