#include "ops/tavrel_request_handler_unix.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "core/tavrel_config.h"
#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_trace.h"
#include "ops/tavrel_client.h"

namespace {
int setting_ms(const char* key, long fallback) {
  long s = Tavrel_Config::get_instance()->get_int_param(key, fallback);
  if (s < 1) s = fallback;
  if (s > 3600) s = 3600;
  return static_cast<int>(s * 1000);
}
}  // namespace

Tavrel_Request_Handler_Unix::Tavrel_Request_Handler_Unix(Tavrel_Client* client, Tavrel_View* view)
    : Tavrel_Request_Handler_Base(client, view),
      m_response_timeout_ms(setting_ms("tavrelResponseTimeout", RESPONSE_TIMEOUT_S)),
      m_request_timeout_ms(setting_ms("tavrelRequestTimeout", REQUEST_TIMEOUT_S)),
      m_first_timeout_ms(setting_ms("tavrelFirstRequestTimeout", FIRST_REQUEST_TIMEOUT_S)),
      m_start(Clock::now()) {}

Tavrel_Request_Handler_Unix::~Tavrel_Request_Handler_Unix() { close_pipes(); }

void Tavrel_Request_Handler_Unix::close_pipes() {
  for (int* fd : {&m_client->m_request_fd, &m_client->m_response_fd, &m_wake_fd}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
}

int Tavrel_Request_Handler_Unix::open_pipes() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Request_Handler_Unix", "open_pipes");
  int dir = m_client->m_dir_fd;
  m_client->m_request_fd =
      openat(dir, m_client->m_request_name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
  // Read-write: the open does not wait for the client, and writes never raise SIGPIPE.
  m_client->m_response_fd =
      openat(dir, m_client->m_response_name.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
  m_wake_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (m_client->m_request_fd < 0 || m_client->m_response_fd < 0 || m_wake_fd < 0) {
    trace.writeTrace(TRACE_LEVEL_1, "can't open the pipes of %s: %s", m_client->m_client_id.c_str(), strerror(errno));
    return TAVREL_ST_REQ_PIPE;
  }
  return 0;
}

void Tavrel_Request_Handler_Unix::wake() {
  uint64_t one = 1;
  if (m_wake_fd >= 0) (void)!write(m_wake_fd, &one, sizeof one);
}

Tavrel_Request_Handler_Unix::Clock::time_point Tavrel_Request_Handler_Unix::next_deadline(bool pending_out) const {
  Clock::time_point d = Clock::time_point::max();
  if (!m_got_input) d = std::min(d, m_start + std::chrono::milliseconds(m_first_timeout_ms));
  if (m_in_frame) d = std::min(d, m_frame_start + std::chrono::milliseconds(m_request_timeout_ms));
  if (pending_out) d = std::min(d, m_last_progress + std::chrono::milliseconds(m_response_timeout_ms));
  return d;
}

static int ms_until(std::chrono::steady_clock::time_point d) {
  if (d == std::chrono::steady_clock::time_point::max()) return -1;
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(d - std::chrono::steady_clock::now()).count();
  return ms <= 0 ? 0 : static_cast<int>(std::min<long long>(ms + 1, 3600000));
}

int Tavrel_Request_Handler_Unix::execute() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Request_Handler_Unix", "execute");
  const int shut = Tavrel_Thread_Manager_Base::get_instance()->shutdown_read_fd();
  int status = open_pipes();
  while (status == 0) {
    bool pending_out;
    {
      std::lock_guard<Tavrel_Mutex> g(m_response_mutex);
      if (m_broken) break;
      pending_out = !m_outbox.empty();
    }
    struct pollfd p[4] = {{m_client->m_request_fd, POLLIN, 0},
                          {m_wake_fd, POLLIN, 0},
                          {shut, POLLIN, 0},
                          {m_client->m_response_fd, static_cast<short>(pending_out ? POLLOUT : 0), 0}};
    int n = poll(p, 4, ms_until(next_deadline(pending_out)));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      status = TAVREL_ST_SELECT;
      break;
    }
    if (p[2].revents) {
      trace.writeTrace(TRACE_LEVEL_4, "exit requested");
      status = TAVREL_ST_EXIT_REQUESTED;
      break;
    }
    if (p[1].revents) {
      uint64_t v;
      (void)!read(m_wake_fd, &v, sizeof v);
    }
    if (p[3].revents) {
      std::lock_guard<Tavrel_Mutex> g(m_response_mutex);
      write_outbox_locked();
    }
    if (p[0].revents) status = read_input();
    const Clock::time_point now = Clock::now();
    if (status == 0 && !m_got_input && now >= m_start + std::chrono::milliseconds(m_first_timeout_ms)) {
      trace.writeTrace(TRACE_LEVEL_2, "Client %s sent nothing in time; closing", m_client->m_client_id.c_str());
      status = TAVREL_ST_TIMED_OUT;
    }
    if (status == 0 && m_in_frame && now >= m_frame_start + std::chrono::milliseconds(m_request_timeout_ms)) {
      trace.writeTrace(TRACE_LEVEL_2, "Client %s left a request unfinished; closing", m_client->m_client_id.c_str());
      status = TAVREL_ST_TIMED_OUT;
    }
    std::lock_guard<Tavrel_Mutex> g(m_response_mutex);
    if (!m_outbox.empty() && now >= m_last_progress + std::chrono::milliseconds(m_response_timeout_ms))
      break_channel_locked("the client took no reply in time");
  }
  trace.writeTrace(TRACE_LEVEL_4, "Request pipe not usable [%d]; serving what is outstanding", status);
  // No more requests: a writer gets EPIPE from now on.
  if (m_client->m_request_fd >= 0) close(m_client->m_request_fd);
  m_client->m_request_fd = -1;
  for (;;) {
    drain();
    std::unique_lock<Tavrel_Mutex> o(m_outstanding_mutex);
    m_outstanding_cv.wait(o, [&] { return m_outstanding == 0 || m_outbox_ready; });
    const bool more = m_outbox_ready;
    m_outbox_ready = false;
    if (m_outstanding == 0 && !more) break;
  }
  m_client->release();
  {
    std::lock_guard<Tavrel_Mutex> g(m_response_mutex);
    close_pipes();
  }
  m_client->remove_names();
  return 0;
}

void Tavrel_Request_Handler_Unix::drain() {
  std::unique_lock<Tavrel_Mutex> g(m_response_mutex);
  while (!m_broken && !m_outbox.empty()) {
    const Clock::time_point until = m_last_progress + std::chrono::milliseconds(m_response_timeout_ms);
    if (Clock::now() >= until) {
      break_channel_locked("the client took no reply in time");
      break;
    }
    g.unlock();
    struct pollfd p = {m_client->m_response_fd, POLLOUT, 0};
    (void)poll(&p, 1, ms_until(until));
    g.lock();
    write_outbox_locked();
  }
}

int Tavrel_Request_Handler_Unix::read_input() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Request_Handler_Unix", "read_input");
  const int fd = m_client->m_request_fd;
  char buf[65536];
  ssize_t n = read(fd, buf, sizeof buf);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return 0;
  if (n <= 0) {
    trace.writeTrace(TRACE_LEVEL_4, "End of the request pipe (%d)", static_cast<int>(n));
    return TAVREL_ST_REQ_PIPE;
  }
  if (!m_got_input) {
    m_got_input = true;
    m_client->remove_names();
  }
  size_t pos = 0, len = static_cast<size_t>(n);
  while (pos < len) {
    if (!m_in_frame) {
      m_in_frame = true;
      m_frame_start = Clock::now();
    }
    pos += m_frame.feed(buf + pos, len - pos);
    if (m_frame.done()) {
      std::string text = m_frame.body().c_str();  // up to the first NUL byte
      if (trace.shouldTrace(TRACE_LEVEL_4))
        trace.writeTrace(TRACE_LEVEL_4, "Request string from Client %s", Tavrel_Trace::redact(text).c_str());
      end_frame();
      queue_request(text);
    } else if (m_frame.failed()) {
      trace.writeTrace(TRACE_LEVEL_1, "Bad request frame: %s", m_frame.error_text().c_str());
      if (m_frame.error() == Pipe_Frame_Decoder::Error::TOO_LARGE) {
        // Drop what of the oversized body is already here, so the next frame is not taken for its tail.
        unsigned long long left = m_frame.declared_length();
        size_t here = static_cast<size_t>(std::min<unsigned long long>(left, len - pos));
        pos += here;
        left -= here;
        while (left > 0 && pos == len) {
          ssize_t r = read(fd, buf, static_cast<size_t>(std::min<unsigned long long>(left, sizeof buf)));
          if (r <= 0) break;
          left -= static_cast<unsigned long long>(r);
        }
      }
      trace.writeTrace(TRACE_LEVEL_2, "Request failed [%d], continuing", TAVREL_ST_MALFORMED);
      end_frame();
    }
  }
  return 0;
}

void Tavrel_Request_Handler_Unix::end_frame() {
  m_frame.reset();
  m_in_frame = false;
}

int Tavrel_Request_Handler_Unix::send_response(const std::string& text) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Request_Handler_Unix", "send_response");
  std::string frame = pipe_frame_encode(Pipe_Frame_Kind::RESPONSE, text);
  std::lock_guard<Tavrel_Mutex> g(m_response_mutex);
  if (m_broken || m_client->m_response_fd < 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Write error!! response channel of %s is broken", m_client->m_client_id.c_str());
    return TAVREL_ST_RESP_WRITE;
  }
  size_t done = 0;
  if (m_outbox.empty()) {
    ssize_t n;
    do {
      n = write(m_client->m_response_fd, frame.data(), frame.size());
    } while (n < 0 && errno == EINTR);
    if (n < 0 && errno != EAGAIN) {
      break_channel_locked(strerror(errno));
      return TAVREL_ST_RESP_WRITE;
    }
    done = n > 0 ? static_cast<size_t>(n) : 0;
    if (done == frame.size()) return 0;
    m_last_progress = Clock::now();
  } else if (m_outbox.size() + frame.size() > OUTBOX_LIMIT) {
    break_channel_locked("the client is too far behind");
    return TAVREL_ST_RESP_WRITE;
  }
  trace.writeTrace(TRACE_LEVEL_5, "%zu of %zu bytes written; the rest waits in the outbox", done, frame.size());
  m_outbox.append(frame, done, std::string::npos);
  {
    std::lock_guard<Tavrel_Mutex> o(m_outstanding_mutex);
    m_outbox_ready = true;
  }
  m_outstanding_cv.notify_all();
  wake();
  return 0;
}

void Tavrel_Request_Handler_Unix::write_outbox_locked() {
  while (!m_broken && !m_outbox.empty()) {
    ssize_t n = write(m_client->m_response_fd, m_outbox.data(), m_outbox.size());
    if (n > 0) {
      m_outbox.erase(0, static_cast<size_t>(n));
      m_last_progress = Clock::now();
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno != EAGAIN) break_channel_locked(strerror(errno));
    return;
  }
}

void Tavrel_Request_Handler_Unix::break_channel_locked(const char* why) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Request_Handler_Unix", "break_channel");
  trace.writeTrace(TRACE_LEVEL_1, "Response channel of %s broken (%s); %zu bytes of replies dropped",
                   m_client->m_client_id.c_str(), why, m_outbox.size());
  m_broken = true;
  std::string().swap(m_outbox);
  wake();
}
