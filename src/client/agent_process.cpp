#include "client/agent_process.h"
#include "client/secret.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "proto/pipe_frame.h"

namespace tavrel::client {

namespace {
std::string absolute(const std::string& path) {
  if (!path.empty() && path[0] == '/') return path;
  char cwd[PATH_MAX];
  if (!getcwd(cwd, sizeof cwd)) return path;
  return std::string(cwd) + "/" + path;
}
}  // namespace

AgentStarted start_agent(const AgentStart& how) {
  AgentStarted out;
  int in_pipe[2], out_pipe[2];
  if (pipe2(in_pipe, O_CLOEXEC) != 0) {
    out.error = errno;
    out.message = "pipe failed";
    return out;
  }
  if (pipe2(out_pipe, O_CLOEXEC) != 0) {
    out.error = errno;
    close(in_pipe[0]);
    close(in_pipe[1]);
    out.message = "pipe failed";
    return out;
  }
  std::vector<std::string> args = {how.program, absolute(how.storage)};
  args.insert(args.end(), how.extra_args.begin(), how.extra_args.end());
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);

  pid_t pid = fork();
  if (pid < 0) {
    out.error = errno;
    out.message = "fork failed";
    for (int fd : {in_pipe[0], in_pipe[1], out_pipe[0], out_pipe[1]}) close(fd);
    return out;
  }
  if (pid == 0) {
    dup2(in_pipe[0], 0);
    dup2(out_pipe[1], 1);
    // The agent lives on after the starter: it must not keep descriptors of the starter's caller open
    // (a pipe of a shell's command substitution, say, would then never see its end).
    close_range(3, ~0U, 0);
    // A UTF-8 locale lets the agent convert non-ASCII names. The passwords reach the agent in its first
    // request only, never in its environment, which would keep them for the view's life.
    setenv("LC_ALL", "C.UTF-8", 1);
    unsetenv(PASSWORD_ENV);
    unsetenv(PROXY_PASSWORD_ENV);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(in_pipe[0]);
  close(out_pipe[1]);
  out.watchdog_pid = pid;

  std::string doc = how.first_request;
  if (!how.raw_first_request)
    for (char& c : doc)
      if (c == '\n' || c == '\r') c = ' ';
  std::string frame = pipe_frame_encode(Pipe_Frame_Kind::REQUEST, doc) + "\n";
  signal(SIGPIPE, SIG_IGN);
  size_t done = 0;
  while (done < frame.size()) {
    ssize_t n = write(in_pipe[1], frame.data() + done, frame.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  close(in_pipe[1]);

  Pipe_Frame_Reader reader(Pipe_Frame_Kind::RESPONSE, PIPE_FRAME_MAX_RESPONSE);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(how.timeout_ms);
  for (;;) {
    std::string document;
    Pipe_Frame_Reader::Result r = reader.next(&document);
    if (r == Pipe_Frame_Reader::Result::kFrame) {
      out.response = document;
      break;
    }
    if (r == Pipe_Frame_Reader::Result::kError) {
      out.error = EPROTO;
      out.message = reader.error();
      break;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      out.error = ETIMEDOUT;
      out.message = "no answer from the agent in time";
      break;
    }
    struct pollfd p = {out_pipe[0], POLLIN, 0};
    int n = poll(&p, 1, static_cast<int>(left.count()));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) continue;
    char buf[65536];
    ssize_t got = read(out_pipe[0], buf, sizeof buf);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      out.error = EPIPE;
      out.message = "the agent ended without an answer";
      break;
    }
    reader.feed(buf, static_cast<size_t>(got));
  }
  close(out_pipe[0]);
  return out;
}

bool wait_for_exit(pid_t pid, int timeout_ms, int* status) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    pid_t r = waitpid(pid, status, WNOHANG);
    if (r == pid) return true;
    if (r < 0 && errno != EINTR) return false;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

}  // namespace tavrel::client
