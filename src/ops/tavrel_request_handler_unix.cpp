#include "ops/tavrel_request_handler_unix.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

#include "core/tavrel_config.h"
#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_unix.h"
#include "core/tavrel_trace.h"
#include "ops/tavrel_client.h"
#include "ops/tavrel_conn_handler_unix.h"
#include "proto/pipe_frame.h"

Tavrel_Request_Handler_Unix::Tavrel_Request_Handler_Unix(Tavrel_Client* client, Tavrel_View* view)
    : Tavrel_Request_Handler_Base(client, view) {
  long s = Tavrel_Config::get_instance()->get_int_param("tavrelResponseTimeout", RESPONSE_TIMEOUT_S);
  if (s < 1) s = RESPONSE_TIMEOUT_S;
  if (s > 3600) s = 3600;
  m_response_timeout_ms = static_cast<int>(s * 1000);
}

Tavrel_Request_Handler_Unix::~Tavrel_Request_Handler_Unix() { close_pipes(); }

void Tavrel_Request_Handler_Unix::close_pipes() {
  if (m_client->m_request_fd >= 0) close(m_client->m_request_fd);
  if (m_client->m_response_fd >= 0) close(m_client->m_response_fd);
  m_client->m_request_fd = m_client->m_response_fd = -1;
  m_request_opened = m_response_opened = 0;
}

int Tavrel_Request_Handler_Unix::open_request_pipe() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Request_Handler_Unix", "open_request_pipe");
  int fd = open(m_client->m_request_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0 || Tavrel_Conn_Handler_Unix::set_blocking(fd) != 0) {
    if (fd >= 0) close(fd);
    trace.writeTrace(TRACE_LEVEL_1, "can't open the request pipe");
    return TAVREL_ST_REQ_PIPE;
  }
  m_client->m_request_fd = fd;
  m_request_opened = 1;
  trace.writeTrace(TRACE_LEVEL_4, "Successfully opened request pipe %s ", m_client->m_request_path.c_str());
  return 0;
}

int Tavrel_Request_Handler_Unix::open_response_pipe() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Request_Handler_Unix", "open_response_pipe");
  // Read-write: the open does not wait for the client, and writes never raise SIGPIPE. The
  // descriptor stays non-blocking so that a client that stops reading cannot hold a pool thread.
  int fd = open(m_client->m_response_path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) {
    trace.writeTrace(TRACE_LEVEL_1, "can't open the response pipe: %s", strerror(errno));
    return TAVREL_ST_REQ_PIPE;
  }
  m_client->m_response_fd = fd;
  m_response_opened = 1;
  trace.writeTrace(TRACE_LEVEL_4, "Successfully opened response pipe %s ", m_client->m_response_path.c_str());
  return 0;
}

int Tavrel_Request_Handler_Unix::read_request(std::string& out) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Request_Handler_Unix", "read_request");
  out.clear();
  std::lock_guard<Tavrel_Mutex> g(m_request_mutex);
  int status;
  if (!m_request_opened && (status = open_request_pipe()) != 0) {
    trace.writeTrace(TRACE_LEVEL_1, "open_request_pipe failed!! ");
    return status;
  }
  {
    std::lock_guard<Tavrel_Mutex> r(m_response_mutex);
    if (!m_response_opened && (status = open_response_pipe()) != 0) {
      trace.writeTrace(TRACE_LEVEL_1, "open_response_pipe failed!! ");
      return status;
    }
  }
  int fd = m_client->m_request_fd;
  status = Tavrel_Thread_Manager_Unix::wait_for_input(fd);
  if (status != 0) return status;
  remove(m_client->m_request_path.c_str());
  remove(m_client->m_response_path.c_str());

  // The length line a byte at a time, so that nothing of the next frame is taken from the pipe.
  Pipe_Frame_Decoder frame(Pipe_Frame_Kind::REQUEST, PIPE_FRAME_MAX_REQUEST);
  while (frame.state() == Pipe_Frame_Decoder::State::LENGTH) {
    char c;
    ssize_t n = read(fd, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    trace.writeTrace(TRACE_LEVEL_5, "num_bytes_read is %d", static_cast<int>(n));
    if (n <= 0) {
      trace.writeTrace(TRACE_LEVEL_4, "Error reading request. num_bytes_read is %d", static_cast<int>(n));
      return TAVREL_ST_REQ_PIPE;
    }
    frame.feed(&c, 1);
  }
  if (frame.error() == Pipe_Frame_Decoder::Error::TOO_LARGE) {
    // Drop what of the oversized body is already here, so the next frame is not taken for its tail.
    const unsigned long long want = frame.declared_length();
    trace.writeTrace(TRACE_LEVEL_1, "Request of %llu bytes is over the limit of %zu; dropped", want,
                     PIPE_FRAME_MAX_REQUEST);
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    char sink[65536];
    unsigned long long left = want;
    while (left > 0) {
      ssize_t n = read(fd, sink, left < sizeof sink ? static_cast<size_t>(left) : sizeof sink);
      if (n <= 0) break;
      left -= static_cast<unsigned long long>(n);
    }
    Tavrel_Conn_Handler_Unix::set_blocking(fd);
    return TAVREL_ST_MALFORMED;
  }
  if (frame.failed()) {
    trace.writeTrace(TRACE_LEVEL_1, "Error! Expected an integer as length (%s)", frame.error_text().c_str());
    return TAVREL_ST_MALFORMED;
  }
  const size_t want = frame.body_missing();
  trace.writeTrace(TRACE_LEVEL_5, "end reading request length. Length is %zu ", want);
  // The body with one read: a client writes a whole frame at once.
  std::vector<char> buf(want + 1);
  ssize_t got;
  do {
    got = read(fd, buf.data(), want);
  } while (got < 0 && errno == EINTR);
  if (got < 0 || static_cast<size_t>(got) != want) {
    trace.writeTrace(TRACE_LEVEL_1, "Error!! Expected length = %d , got num_bytes_read = %d", static_cast<int>(want),
                     static_cast<int>(got));
    return TAVREL_ST_MALFORMED;
  }
  frame.feed(buf.data(), want);
  out.assign(frame.body().c_str());  // up to the first NUL byte
  if (trace.shouldTrace(TRACE_LEVEL_4))
    trace.writeTrace(TRACE_LEVEL_4, "Request string from Client %s \n", Tavrel_Trace::redact(out).c_str());
  return 0;
}

int Tavrel_Request_Handler_Unix::send_response(const std::string& text) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Request_Handler_Unix", "send_response");
  std::string frame = pipe_frame_encode(Pipe_Frame_Kind::RESPONSE, text);
  std::lock_guard<Tavrel_Mutex> g(m_response_mutex);
  int status;
  if (!m_response_opened && (status = open_response_pipe()) != 0) {
    trace.writeTrace(TRACE_LEVEL_1, "open_response_pipe failed!! ");
    return status;
  }
  if (m_response_broken) {
    trace.writeTrace(TRACE_LEVEL_2, "Write error!! response channel of %s is broken", m_client->m_client_id.c_str());
    return TAVREL_ST_RESP_WRITE;
  }
  int fd = m_client->m_response_fd;
  if (trace.shouldTrace(TRACE_LEVEL_5))
    trace.writeTrace(TRACE_LEVEL_5, "Calling write for: %s (%ld)", Tavrel_Trace::redact(frame).c_str(),
                     static_cast<long>(frame.size()));
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(m_response_timeout_ms);
  size_t done = 0;
  while (done < frame.size()) {
    ssize_t n = write(fd, frame.data() + done, frame.size() - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno != EAGAIN && errno != EINTR) break;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    struct pollfd p = {fd, POLLOUT, 0};
    poll(&p, 1, static_cast<int>(left.count()));
  }
  trace.writeTrace(TRACE_LEVEL_5, "Now Calling fsync ");
  (void)fsync(fd);
  trace.writeTrace(TRACE_LEVEL_5, "fsync called! ");
  if (done != frame.size()) {
    trace.writeTrace(TRACE_LEVEL_1, "Write error!! %zu of %zu bytes written; the client is not reading", done,
                     frame.size());
    m_response_broken = true;
    return TAVREL_ST_RESP_WRITE;
  }
  trace.writeTrace(TRACE_LEVEL_5, "Bytes written %d to fd=%d", static_cast<int>(done), fd);
  return 0;
}
