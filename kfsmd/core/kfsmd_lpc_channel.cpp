#include "kfsmd/core/kfsmd_lpc_channel.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "proto/kfsm_records.h"
#include "proto/kfsm_status.h"
#include "proto/view_rpc.h"

struct Kfsmd_Lpc_Channel::Conn {
  int fd = -1;
  bool idle = false;
  bool broken = false;
  uint32_t waiting_seq = 0;
  Call* current = nullptr;
};

Kfsmd_Lpc_Channel::Kfsmd_Lpc_Channel(int lpc_wait_ms, int lpc_orphan_ms)
    : m_lpc_wait_ms(lpc_wait_ms), m_lpc_orphan_ms(lpc_orphan_ms), m_no_conn_since(std::chrono::steady_clock::now()) {}

Kfsmd_Lpc_Channel::~Kfsmd_Lpc_Channel() {
  end();
  // Connections are owned by their threads, which detach them before the view goes.
}

bool Kfsmd_Lpc_Channel::idempotent(uint64_t op) {
  switch (op) {
    case VIEW_RPC_NULL:
    case VIEW_RPC_READDIR:
    case VIEW_RPC_GETCLEARTEXT:
    case VIEW_RPC_READDIR_EXT:
    case VIEW_RPC_GPATH:
    case VIEW_RPC_READLINK:
    case VIEW_RPC_ROOT:
    case VIEW_RPC_REVALIDATE:
    case VIEW_RPC_LOOKUP:
    case VIEW_RPC_GETATTR:
      return true;
    default:
      return false;
  }
}

uint32_t Kfsmd_Lpc_Channel::next_xid() {
  std::lock_guard<std::mutex> g(m_mutex);
  uint32_t x = m_next_xid++;
  if (m_next_xid == 0) m_next_xid = 1;
  return x;
}

bool Kfsmd_Lpc_Channel::deliver(Conn* c, Call* call) {
  uint8_t hdr[KFSM_LPC_HDR] = {};
  kfsm_lpc_put_request(hdr, kfsm_lpc_request_hdr{call->op, call->request->size(), VIEW_LPC_PAYLOAD, call->cookie});
  std::string body = kfsm_lpc_deliver_body(0, hdr, reinterpret_cast<const uint8_t*>(call->request->data()),
                                           call->request->size());
  if (kfsm_frame_send(c->fd, KFSM_FRAME_LPC_DELIVER, c->waiting_seq, body) != 0) {
    c->broken = true;
    c->idle = false;
    shutdown(c->fd, SHUT_RDWR);  // its thread sees the end and detaches it
    return false;
  }
  c->idle = false;
  c->current = call;
  call->conn = c;
  return true;
}

void Kfsmd_Lpc_Channel::finish(Call* call, int err) {
  call->done = true;
  call->err = err;
  call->conn = nullptr;
  m_cv.notify_all();
}

// Hands queued requests to `c` while it is idle.
void Kfsmd_Lpc_Channel::feed(Conn* c) {
  while (c->idle && !c->broken && !m_queue.empty()) {
    Call* call = m_queue.front();
    m_queue.pop_front();
    if (!deliver(c, call)) m_queue.push_front(call);
  }
}

int Kfsmd_Lpc_Channel::call(uint64_t op, const std::string& request, uint32_t* rpc_status, std::string* reply) {
  if (request.size() > VIEW_LPC_PAYLOAD) return EMSGSIZE;
  std::unique_lock<std::mutex> g(m_mutex);
  if (m_ended) return ENOTCONN;
  Call call;
  call.op = op;
  call.request = &request;
  call.cookie = m_next_cookie++;
  if (m_next_cookie == 0) m_next_cookie = 1;
  call.queued_at = std::chrono::steady_clock::now();
  bool handed = false;
  for (Conn* c : m_conns)
    if (c->idle && !c->broken && deliver(c, &call)) {
      handed = true;
      break;
    }
  if (!handed) m_queue.push_back(&call);
  while (!call.done) {
    bool waiting_in_queue = !call.conn && std::find(m_queue.begin(), m_queue.end(), &call) != m_queue.end();
    if (waiting_in_queue && m_conns.empty()) {
      auto since = std::max(call.queued_at, m_no_conn_since);
      auto deadline = since + std::chrono::milliseconds(m_ever_connected ? m_lpc_orphan_ms : m_lpc_wait_ms);
      if (m_cv.wait_until(g, deadline) == std::cv_status::timeout && !call.done && m_conns.empty()) {
        auto it = std::find(m_queue.begin(), m_queue.end(), &call);
        if (it != m_queue.end()) {
          m_queue.erase(it);
          finish(&call, EIO);
        }
      }
    } else {
      m_cv.wait(g);
    }
  }
  if (call.err == 0) {
    *rpc_status = call.rpc_status;
    reply->swap(call.reply);
  }
  return call.err;
}

Kfsmd_Lpc_Channel::Conn* Kfsmd_Lpc_Channel::attach(int fd) {
  auto* c = new Conn();
  c->fd = fd;
  std::lock_guard<std::mutex> g(m_mutex);
  m_conns.push_back(c);
  m_ever_connected = true;
  m_cv.notify_all();
  return c;
}

bool Kfsmd_Lpc_Channel::on_call(Conn* c, uint32_t seq, const kfsm_lpc_call& in) {
  std::lock_guard<std::mutex> g(m_mutex);
  if (in.flags & 1) {
    kfsm_lpc_reply_hdr r = kfsm_lpc_get_reply(reinterpret_cast<const uint8_t*>(in.header.data()));
    if (c->current && r.cookie == c->current->cookie) {
      Call* call = c->current;
      c->current = nullptr;
      call->rpc_status = r.rpc_status;
      call->reply = in.payload;
      finish(call, 0);
    }
    // A reply whose request is no longer awaited is dropped.
  }
  if (c->current) {
    // The thread came back without answering what it was given: it will not answer it any more.
    Call* call = c->current;
    c->current = nullptr;
    if (idempotent(call->op) && call->resent++ < 1 && !m_ended) {
      call->conn = nullptr;
      m_queue.push_front(call);
    } else {
      finish(call, EIO);
    }
  }
  c->waiting_seq = seq;
  if (m_ended) {
    kfsm_frame_send(c->fd, KFSM_FRAME_LPC_DELIVER, seq, kfsm_lpc_deliver_body(TBS_ST_VIEW_GONE, nullptr, nullptr, 0));
    return true;
  }
  c->idle = true;
  feed(c);
  return !c->broken;
}

void Kfsmd_Lpc_Channel::detach(Conn* c) {
  std::lock_guard<std::mutex> g(m_mutex);
  m_conns.remove(c);
  if (Call* call = c->current) {
    if (idempotent(call->op) && call->resent++ < 1 && !m_ended) {
      call->conn = nullptr;
      m_queue.push_front(call);
      for (Conn* other : m_conns) feed(other);
    } else {
      finish(call, EIO);
    }
  }
  if (m_conns.empty()) m_no_conn_since = std::chrono::steady_clock::now();
  delete c;
  m_cv.notify_all();
}

void Kfsmd_Lpc_Channel::end() {
  std::lock_guard<std::mutex> g(m_mutex);
  if (m_ended) return;
  m_ended = true;
  for (Conn* c : m_conns) {
    if (c->idle && !c->broken) {
      c->idle = false;
      kfsm_frame_send(c->fd, KFSM_FRAME_LPC_DELIVER, c->waiting_seq,
                      kfsm_lpc_deliver_body(TBS_ST_VIEW_GONE, nullptr, nullptr, 0));
    }
    if (c->current) {
      Call* call = c->current;
      c->current = nullptr;
      finish(call, ENOTCONN);
    }
  }
  while (!m_queue.empty()) {
    Call* call = m_queue.front();
    m_queue.pop_front();
    finish(call, ENOTCONN);
  }
  m_cv.notify_all();
}

bool Kfsmd_Lpc_Channel::ended() {
  std::lock_guard<std::mutex> g(m_mutex);
  return m_ended;
}

int Kfsmd_Lpc_Channel::connections() {
  std::lock_guard<std::mutex> g(m_mutex);
  return static_cast<int>(m_conns.size());
}

size_t Kfsmd_Lpc_Channel::queued() {
  std::lock_guard<std::mutex> g(m_mutex);
  return m_queue.size();
}
