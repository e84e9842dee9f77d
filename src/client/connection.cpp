#include "client/connection.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "proto/view_storage_names.h"

namespace tavrel::client {

namespace {
using Clock = std::chrono::steady_clock;

int ms_left(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left < 0 ? 0 : static_cast<int>(left);
}

bool is_our_fifo(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISFIFO(st.st_mode) && st.st_uid == geteuid();
}

// The waits of one step of a connect: the agent makes a connection's pipes and opens them within a fraction of
// a millisecond when it is idle, so the first looks come soon; later ones back off to 5 ms apart.
class Backoff {
 public:
  void pause() {
    std::this_thread::sleep_for(std::chrono::microseconds(us_));
    us_ = std::min(us_ * 2, 5000);
  }

 private:
  int us_ = 50;
};

constexpr int kWantedPipeSize = 1 << 20;
}  // namespace

Connection::~Connection() { close(); }

std::string Connection::random_id() {
  unsigned char b[6];
  if (getrandom(b, sizeof b, 0) != sizeof b) memset(b, 0, sizeof b);
  char hex[13];
  for (int i = 0; i < 6; i++) snprintf(hex + 2 * i, 3, "%02x", b[i]);
  return "c" + std::to_string(getpid()) + "-" + hex;
}

Connection::Status Connection::fail(Status s, const std::string& message) {
  m_error = message;
  return s;
}

Connection::Status Connection::connect(const std::string& storage, int timeout_ms, const std::string& id) {
  close();
  signal(SIGPIPE, SIG_IGN);
  m_id = id.empty() ? random_id() : id;
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  std::string ipc = storage + "/" + VIEW_STG_IPC_DIR + "/";
  std::string listener = ipc + VIEW_STG_LISTENER;
  std::string req = ipc + VIEW_STG_REQUEST_PIPE + VIEW_STG_PIPE_SEP + m_id;
  std::string resp = ipc + VIEW_STG_RESPONSE_PIPE + VIEW_STG_PIPE_SEP + m_id;

  int lfd = -1;
  std::string line = m_id + "\n";
  Backoff wait;  // for the listener, then a fresh one for each of the pipes
  for (;;) {
    lfd = open(listener.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (lfd < 0) {
      if (errno != ENOENT && errno != ENXIO) return fail(kSystem, "cannot open " + listener + ": " + strerror(errno));
      if (ms_left(deadline) == 0) return fail(kTimeout, "the agent is not listening on " + listener);
      wait.pause();
      continue;
    }
    if (write(lfd, line.data(), line.size()) == static_cast<ssize_t>(line.size())) break;
    // EPIPE: the agent closed the listener between our open and our write (it reopens it for the
    // next connection). Announce again.
    int e = errno;
    ::close(lfd);
    lfd = -1;
    if (e != EPIPE && e != EAGAIN) return fail(kSystem, std::string("cannot announce the connection: ") + strerror(e));
    if (ms_left(deadline) == 0) return fail(kTimeout, "the agent is not listening on " + listener);
    wait.pause();
  }
  wait = Backoff();
  while (!(is_our_fifo(req) && is_our_fifo(resp))) {
    if (ms_left(deadline) == 0) {
      ::close(lfd);
      return fail(kTimeout, "the agent made no pipes for this connection");
    }
    wait.pause();
  }
  m_response_fd = open(resp.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
  if (m_response_fd < 0) {
    int e = errno;
    ::close(lfd);
    return fail(kSystem, "cannot open " + resp + ": " + strerror(e));
  }
  wait = Backoff();
  while (m_request_fd < 0) {
    m_request_fd = open(req.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
    if (m_request_fd >= 0) break;
    if (errno != ENXIO || ms_left(deadline) == 0) {
      int e = errno;
      ::close(lfd);
      close();
      return fail(e == ENXIO ? kTimeout : kSystem, "cannot open " + req + ": " + strerror(e));
    }
    wait.pause();
  }
  ::close(lfd);
  int flags = fcntl(m_request_fd, F_GETFL);
  fcntl(m_request_fd, F_SETFL, flags & ~O_NONBLOCK);
  int size = fcntl(m_request_fd, F_SETPIPE_SZ, kWantedPipeSize);
  m_pipe_size = size > 0 ? size : fcntl(m_request_fd, F_GETPIPE_SZ);
  return kOk;
}

Connection::Status Connection::send(const std::string& document) {
  std::string frame = pipe_frame_encode(Pipe_Frame_Kind::REQUEST, document);
  // The agent takes the body with a single read, so the whole frame must fit the pipe at once.
  if (m_pipe_size > 0 && frame.size() > static_cast<size_t>(m_pipe_size))
    return fail(kTooLarge, "request of " + std::to_string(frame.size()) + " bytes does not fit the pipe (" +
                               std::to_string(m_pipe_size) + ")");
  return send_raw(frame);
}

Connection::Status Connection::send_raw(const std::string& bytes) {
  if (m_request_fd < 0) return fail(kClosed, "not connected");
  ssize_t n;
  do {
    n = write(m_request_fd, bytes.data(), bytes.size());
  } while (n < 0 && errno == EINTR);
  if (n != static_cast<ssize_t>(bytes.size())) return fail(kSystem, std::string("write failed: ") + strerror(errno));
  return kOk;
}

Connection::Status Connection::receive(std::string* document, int timeout_ms) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    Pipe_Frame_Reader::Result r = m_reader.next(document);
    if (r == Pipe_Frame_Reader::Result::kFrame) return kOk;
    if (r == Pipe_Frame_Reader::Result::kError) return fail(kProtocol, m_reader.error());
    if (m_response_fd < 0) return fail(kClosed, "not connected");
    struct pollfd p = {m_response_fd, POLLIN, 0};
    int n = poll(&p, 1, ms_left(deadline));
    if (n < 0 && errno == EINTR) continue;
    if (n == 0) return fail(kTimeout, "no response in time");
    char buf[65536];
    ssize_t got = read(m_response_fd, buf, sizeof buf);
    if (got > 0) {
      m_reader.feed(buf, static_cast<size_t>(got));
      continue;
    }
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    return fail(kClosed, "the view has ended (end of file on the response pipe)");
  }
}

Connection::Status Connection::request(const std::string& document, std::string* response, int timeout_ms) {
  Status s = send(document);
  if (s != kOk) return s;
  return receive(response, timeout_ms);
}

void Connection::close_request() {
  if (m_request_fd >= 0) ::close(m_request_fd);
  m_request_fd = -1;
}

void Connection::close() {
  close_request();
  if (m_response_fd >= 0) ::close(m_response_fd);
  m_response_fd = -1;
}

}  // namespace tavrel::client
