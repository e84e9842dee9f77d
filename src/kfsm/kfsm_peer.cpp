#include "kfsm/kfsm_peer.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "proto/kfsm_status.h"

Kfsm_Peer::Kfsm_Peer(const std::string& socket_path, const std::string& root) : m_path(socket_path), m_root(root) {}

Kfsm_Peer::~Kfsm_Peer() { stop(); }

int Kfsm_Peer::start() {
  if (int e = kfsm_listen(m_path, 0600, 64, &m_listen)) {
    m_listen = -1;
    return e;
  }
  m_accept = std::thread([this] { accept_loop(); });
  return 0;
}

void Kfsm_Peer::stop() {
  {
    std::lock_guard<std::mutex> g(m_mutex);
    if (m_stopping) return;
    m_stopping = true;
    for (auto& c : m_conns)
      if (c->fd >= 0) shutdown(c->fd, SHUT_RDWR);
    m_cv.notify_all();
  }
  if (m_listen >= 0) shutdown(m_listen, SHUT_RDWR);
  if (m_accept.joinable()) m_accept.join();
  if (m_listen >= 0) close(m_listen);
  m_listen = -1;
  std::vector<std::unique_ptr<Conn>> conns;
  {
    std::lock_guard<std::mutex> g(m_mutex);
    conns.swap(m_conns);
  }
  for (auto& c : conns) {
    if (c->thread.joinable()) c->thread.join();
    if (c->fd >= 0) close(c->fd);
  }
  unlink(m_path.c_str());
}

void Kfsm_Peer::accept_loop() {
  for (;;) {
    int fd = accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      return;
    }
    std::lock_guard<std::mutex> g(m_mutex);
    if (m_stopping) {
      close(fd);
      return;
    }
    auto c = std::make_unique<Conn>();
    c->fd = fd;
    Conn* raw = c.get();
    m_conns.push_back(std::move(c));
    raw->thread = std::thread([this, raw] { serve(raw); });
  }
}

int Kfsm_Peer::send_locked(Conn* c, uint16_t type, uint32_t seq, const std::string& body) {
  return kfsm_frame_send(c->fd, type, seq, body);
}

void Kfsm_Peer::serve(Conn* c) {
  for (;;) {
    kfsm_frame f;
    if (kfsm_frame_recv(c->fd, &f) != 0) break;
    if (f.type == KFSM_FRAME_HELLO) {
      uint32_t type = 0, pid = 0;
      std::lock_guard<std::mutex> g(m_mutex);
      const int32_t st = kfsm_parse_hello(f.body, &type, &pid) ? 0 : TBS_ST_BAD_ARG;
      send_locked(c, KFSM_FRAME_HELLO_OK, f.seq, kfsm_status_body(st));
    } else if (f.type == KFSM_FRAME_MCB || f.type == KFSM_FRAME_CMD) {
      handle_command(c, f);
    } else if (f.type == KFSM_FRAME_LPC_CALL) {
      handle_lpc(c, f);
    } else {
      break;
    }
  }
  std::lock_guard<std::mutex> g(m_mutex);
  c->closed = true;
  c->waiting = false;
  m_cv.notify_all();
}

void Kfsm_Peer::handle_command(Conn* c, const kfsm_frame& f) {
  kfsm_command cmd;
  int e = kfsm_command_decode(reinterpret_cast<const uint8_t*>(f.body.data()), f.body.size(), &cmd);
  std::unique_lock<std::mutex> g(m_mutex);
  if (e != 0) {
    shutdown(c->fd, SHUT_RDWR);
    return;
  }
  m_commands.push_back(cmd);
  kfsm_result_outputs out;
  int32_t status = 0;
  auto q = m_statuses.find(cmd.cmd);
  auto h = m_handlers.find(cmd.cmd);
  if (q != m_statuses.end() && !q->second.empty()) {
    status = q->second.front();
    q->second.pop_front();
  } else if (h != m_handlers.end()) {
    Handler fn = h->second;
    g.unlock();
    status = fn(cmd, &out);
    g.lock();
  } else if (cmd.cmd == KFSM_CMD_ROOT) {
    out.text = m_root;
  }
  if (cmd.cmd == KFSM_CMD_RMTAG && status == 0) {
    m_ended = true;
    for (auto& other : m_conns)
      if (other->waiting && !other->closed) {
        other->waiting = false;
        send_locked(other.get(), KFSM_FRAME_LPC_DELIVER, other->waiting_seq,
                    kfsm_lpc_deliver_body(TBS_ST_VIEW_GONE, nullptr, nullptr, 0));
      }
  }
  send_locked(c, f.type + 1, f.seq, kfsm_result_encode(0, cmd, status, out));
  m_cv.notify_all();
}

void Kfsm_Peer::handle_lpc(Conn* c, const kfsm_frame& f) {
  kfsm_lpc_call call;
  std::lock_guard<std::mutex> g(m_mutex);
  if (!kfsm_parse_lpc_call(f.body, &call)) {
    shutdown(c->fd, SHUT_RDWR);
    return;
  }
  Lpc_Event ev{call.flags, call.tag, 0};
  if (call.flags & 1) {
    kfsm_lpc_reply_hdr r = kfsm_lpc_get_reply(reinterpret_cast<const uint8_t*>(call.header.data()));
    ev.cookie = r.cookie;
    if (c->expect_cookie != 0 && r.cookie == c->expect_cookie) {
      c->reply = Lpc_Reply{r.rpc_status, r.size, r.cookie, r.marker, call.payload};
      c->reply_ready = true;
      c->expect_cookie = 0;
    }
  }
  m_lpc_events.push_back(ev);
  bool first = c->first_call;
  c->first_call = false;
  if (m_ended) {
    send_locked(c, KFSM_FRAME_LPC_DELIVER, f.seq, kfsm_lpc_deliver_body(TBS_ST_VIEW_GONE, nullptr, nullptr, 0));
  } else if (first && m_first_status != 0) {
    send_locked(c, KFSM_FRAME_LPC_DELIVER, f.seq, kfsm_lpc_deliver_body(m_first_status, nullptr, nullptr, 0));
  } else {
    c->waiting = true;
    c->waiting_seq = f.seq;
  }
  m_cv.notify_all();
}

void Kfsm_Peer::push_status(uint32_t cmd, int32_t status) {
  std::lock_guard<std::mutex> g(m_mutex);
  m_statuses[cmd].push_back(status);
}

void Kfsm_Peer::set_handler(uint32_t cmd, Handler h) {
  std::lock_guard<std::mutex> g(m_mutex);
  m_handlers[cmd] = std::move(h);
}

void Kfsm_Peer::set_first_call_status(int32_t status) {
  std::lock_guard<std::mutex> g(m_mutex);
  m_first_status = status;
}

std::vector<kfsm_command> Kfsm_Peer::commands() {
  std::lock_guard<std::mutex> g(m_mutex);
  return m_commands;
}

bool Kfsm_Peer::wait_commands(size_t n, std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> g(m_mutex);
  return m_cv.wait_for(g, limit, [&] { return m_commands.size() >= n; });
}

std::vector<Kfsm_Peer::Lpc_Event> Kfsm_Peer::lpc_events() {
  std::lock_guard<std::mutex> g(m_mutex);
  return m_lpc_events;
}

int Kfsm_Peer::lpc_waiting() {
  std::lock_guard<std::mutex> g(m_mutex);
  int n = 0;
  for (auto& c : m_conns) n += c->waiting && !c->closed;
  return n;
}

bool Kfsm_Peer::wait_lpc_waiting(int n, std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> g(m_mutex);
  return m_cv.wait_for(g, limit, [&] {
    int k = 0;
    for (auto& c : m_conns) k += c->waiting && !c->closed;
    return k >= n;
  });
}

int Kfsm_Peer::closed_connections() {
  std::lock_guard<std::mutex> g(m_mutex);
  int n = 0;
  for (auto& c : m_conns) n += c->closed;
  return n;
}

int Kfsm_Peer::accepted_connections() {
  std::lock_guard<std::mutex> g(m_mutex);
  return static_cast<int>(m_conns.size());
}

bool Kfsm_Peer::wait_closed(int n, std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> g(m_mutex);
  return m_cv.wait_for(g, limit, [&] {
    int k = 0;
    for (auto& c : m_conns) k += c->closed;
    return k >= n;
  });
}

bool Kfsm_Peer::lpc_request(uint64_t op, const std::string& payload, Lpc_Reply* out, uint64_t capacity,
                            std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> g(m_mutex);
  Conn* c = nullptr;
  if (!m_cv.wait_for(g, limit, [&] {
        for (auto& x : m_conns)
          if (x->waiting && !x->closed) {
            c = x.get();
            return true;
          }
        return false;
      }))
    return false;
  uint32_t cookie = m_next_cookie++;
  if (m_next_cookie == 0) m_next_cookie = 1;
  uint8_t hdr[KFSM_LPC_HDR] = {};
  kfsm_lpc_put_request(hdr, kfsm_lpc_request_hdr{op, payload.size(), capacity, cookie});
  c->waiting = false;
  c->expect_cookie = cookie;
  c->reply_ready = false;
  if (send_locked(c, KFSM_FRAME_LPC_DELIVER, c->waiting_seq,
                  kfsm_lpc_deliver_body(0, hdr, reinterpret_cast<const uint8_t*>(payload.data()), payload.size())) != 0)
    return false;
  if (!m_cv.wait_for(g, limit, [&] { return c->reply_ready || c->closed; }) || !c->reply_ready) return false;
  *out = c->reply;
  c->reply_ready = false;
  return true;
}

bool Kfsm_Peer::lpc_status_one(int32_t status) {
  std::lock_guard<std::mutex> g(m_mutex);
  for (auto& c : m_conns)
    if (c->waiting && !c->closed) {
      c->waiting = false;
      send_locked(c.get(), KFSM_FRAME_LPC_DELIVER, c->waiting_seq, kfsm_lpc_deliver_body(status, nullptr, nullptr, 0));
      return true;
    }
  return false;
}

void Kfsm_Peer::end_lpc() {
  std::lock_guard<std::mutex> g(m_mutex);
  m_ended = true;
  for (auto& c : m_conns)
    if (c->waiting && !c->closed) {
      c->waiting = false;
      send_locked(c.get(), KFSM_FRAME_LPC_DELIVER, c->waiting_seq,
                  kfsm_lpc_deliver_body(TBS_ST_VIEW_GONE, nullptr, nullptr, 0));
    }
  m_cv.notify_all();
}
