#include "kfsmd/core/kfsmd_server.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "proto/kfsm_status.h"
#include "proto/kfsm_wire.h"

Kfsmd_Server::Kfsmd_Server(const Kfsmd_Options& opt, Kfsmd_Registry& registry) : m_opt(opt), m_registry(registry) {}

Kfsmd_Server::~Kfsmd_Server() { stop(); }

int Kfsmd_Server::start() {
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  const std::string& path = m_opt.socket_path;
  if (path.empty() || path.size() >= sizeof addr.sun_path) return ENAMETOOLONG;
  memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  struct stat st;
  if (lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) return EEXIST;
    int probe = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    bool live = probe >= 0 && connect(probe, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    if (probe >= 0) close(probe);
    if (live) return EADDRINUSE;
  }
  if (int e = kfsm_listen(path, 0666, 128, &m_listen)) {
    m_listen = -1;
    return e;
  }
  m_accept = std::thread([this] { accept_loop(); });
  return 0;
}

void Kfsmd_Server::stop() {
  {
    std::lock_guard<std::mutex> g(m_mutex);
    if (m_stopping) return;
    m_stopping = true;
    for (auto& c : m_conns)
      if (c->fd >= 0) shutdown(c->fd, SHUT_RDWR);
  }
  if (m_listen >= 0) shutdown(m_listen, SHUT_RDWR);
  if (m_accept.joinable()) m_accept.join();
  if (m_listen >= 0) {
    close(m_listen);
    unlink(m_opt.socket_path.c_str());
  }
  m_listen = -1;
  std::list<std::unique_ptr<Conn>> conns;
  {
    std::lock_guard<std::mutex> g(m_mutex);
    conns.swap(m_conns);
  }
  for (auto& c : conns)
    if (c->thread.joinable()) c->thread.join();
}

int Kfsmd_Server::connection_count() {
  std::lock_guard<std::mutex> g(m_mutex);
  int n = 0;
  for (auto& c : m_conns) n += !c->done;
  return n;
}

void Kfsmd_Server::reap_locked() {
  for (auto it = m_conns.begin(); it != m_conns.end();) {
    if ((*it)->done) {
      if ((*it)->thread.joinable()) (*it)->thread.join();
      it = m_conns.erase(it);
    } else {
      ++it;
    }
  }
}

void Kfsmd_Server::accept_loop() {
  for (;;) {
    int fd = accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED || errno == EMFILE || errno == ENFILE) {
        if (errno == EMFILE || errno == ENFILE) usleep(100 * 1000);
        std::lock_guard<std::mutex> g(m_mutex);
        if (m_stopping) return;
        continue;
      }
      return;
    }
    struct ucred cred;
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
      close(fd);
      continue;
    }
    std::lock_guard<std::mutex> g(m_mutex);
    if (m_stopping) {
      close(fd);
      return;
    }
    reap_locked();
    auto c = std::make_unique<Conn>();
    c->fd = fd;
    c->who = Kfsmd_Caller{cred.uid, cred.gid, cred.pid};
    Conn* raw = c.get();
    m_conns.push_back(std::move(c));
    raw->thread = std::thread([this, raw] { serve(raw); });
  }
}

void Kfsmd_Server::serve(Conn* c) {
  kfsm_frame f;
  bool over_limit;
  {
    std::lock_guard<std::mutex> g(m_mutex);
    size_t open = 0;
    for (auto& x : m_conns) open += !x->done;
    over_limit = open > m_opt.max_connections;
  }
  uint32_t type = 0, pid = 0;
  if (kfsm_frame_recv(c->fd, &f) == 0 && f.type == KFSM_FRAME_HELLO && kfsm_parse_hello(f.body, &type, &pid)) {
    kfsm_frame_send(c->fd, KFSM_FRAME_HELLO_OK, f.seq, kfsm_status_body(over_limit ? TBS_ST_NO_ROOM : 0));
    if (!over_limit) {
      std::shared_ptr<Kfsmd_View> view;
      Kfsmd_Lpc_Channel::Conn* lpc = nullptr;
      while (kfsm_frame_recv(c->fd, &f) == 0) {
        if (f.type == KFSM_FRAME_MCB || f.type == KFSM_FRAME_CMD) {
          if (view) break;
          kfsm_command cmd;
          if (kfsm_command_decode(reinterpret_cast<const uint8_t*>(f.body.data()), f.body.size(), &cmd) != 0) break;
          const bool via_cmd = cmd.cmd == KFSM_CMD_ROOT || cmd.cmd == KFSM_CMD_SUFFIX;
          if (via_cmd != (f.type == KFSM_FRAME_CMD)) break;
          kfsm_result_outputs out;
          int32_t status = m_registry.command(c->who, cmd, &out);
          if (kfsm_frame_send(c->fd, f.type + 1, f.seq, kfsm_result_encode(0, cmd, status, out)) != 0) break;
        } else if (f.type == KFSM_FRAME_LPC_CALL) {
          kfsm_lpc_call call;
          if (!kfsm_parse_lpc_call(f.body, &call)) break;
          if (!view) {
            int32_t st = m_registry.bind_lpc(c->who, call.tag, &view);
            if (st != 0) {
              kfsm_frame_send(c->fd, KFSM_FRAME_LPC_DELIVER, f.seq, kfsm_lpc_deliver_body(st, nullptr, nullptr, 0));
              if (st != TBS_ST_VIEW_GONE) break;
              continue;
            }
            lpc = view->channel().attach(c->fd);
          } else if (call.tag != view->tag()) {
            break;
          }
          if (!view->channel().on_call(lpc, f.seq, call)) break;
        } else {
          break;
        }
      }
      if (lpc) view->channel().detach(lpc);
    }
  }
  std::lock_guard<std::mutex> g(m_mutex);
  close(c->fd);
  c->fd = -1;
  c->done = true;
}
