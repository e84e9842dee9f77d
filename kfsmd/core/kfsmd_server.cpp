#include "kfsmd/core/kfsmd_server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "proto/kfsm_status.h"
#include "proto/kfsm_wire.h"

namespace {

constexpr time_t kRefusalNoteSeconds = 60;

// True when `fd` has something to read (a frame, the end, an error) within `ms` milliseconds.
bool first_frame_within(int fd, int ms) {
  struct timespec start, now;
  clock_gettime(CLOCK_MONOTONIC, &start);
  for (;;) {
    clock_gettime(CLOCK_MONOTONIC, &now);
    long long left = ms - ((now.tv_sec - start.tv_sec) * 1000LL + (now.tv_nsec - start.tv_nsec) / 1000000);
    if (left <= 0) return false;
    struct pollfd p = {fd, POLLIN, 0};
    int n = poll(&p, 1, static_cast<int>(left));
    if (n > 0) return true;
    if (n < 0 && errno != EINTR) return false;
  }
}

}  // namespace

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
    std::unique_lock<std::mutex> g(m_mutex);
    if (m_stopping) {
      close(fd);
      return;
    }
    reap_locked();
    if (const char* why = over_cap_locked(cred.uid)) {
      Refusals& r = m_refusals[cred.uid];
      ++r.unnoted;
      size_t count = 0;
      const time_t now = time(nullptr);
      if (r.noted == 0 || now - r.noted >= kRefusalNoteSeconds) {
        count = r.unnoted;
        r.noted = now;
        r.unnoted = 0;
      }
      g.unlock();
      // A new connection's send queue is empty, so this small frame never waits; the library reads it
      // even when its hello finds the connection already closed.
      fcntl(fd, F_SETFL, O_NONBLOCK);
      kfsm_frame_send(fd, KFSM_FRAME_HELLO_OK, 1, kfsm_status_body(KFSM_ST_TOO_MANY_CONNECTIONS));
      close(fd);
      if (count)
        fprintf(stderr, "tavrel_kfsmd: refused connections of uid %u: %s (%zu since the last note)\n",
                static_cast<unsigned>(cred.uid), why, count);
      continue;
    }
    if (cred.uid != 0) {
      ++m_open_by_user[cred.uid];
      ++m_open_non_root;
    }
    auto c = std::make_unique<Conn>();
    c->fd = fd;
    c->who = Kfsmd_Caller{cred.uid, cred.gid, cred.pid};
    Conn* raw = c.get();
    m_conns.push_back(std::move(c));
    raw->thread = std::thread([this, raw] { serve(raw); });
  }
}

const char* Kfsmd_Server::over_cap_locked(uid_t uid) {
  if (uid == 0) return nullptr;
  auto it = m_open_by_user.find(uid);
  if (it != m_open_by_user.end() && it->second >= m_opt.max_connections_per_user)
    return "too many connections of this user";
  if (m_open_non_root >= m_opt.max_connections) return "too many connections of all users";
  return nullptr;
}

void Kfsmd_Server::serve(Conn* c) {
  kfsm_frame f;
  uint32_t type = 0, pid = 0;
  const bool hello = first_frame_within(c->fd, m_opt.hello_timeout_ms) && kfsm_frame_recv(c->fd, &f) == 0 &&
                     f.type == KFSM_FRAME_HELLO && kfsm_parse_hello(f.body, &type, &pid);
  if (hello) kfsm_frame_send(c->fd, KFSM_FRAME_HELLO_OK, f.seq, kfsm_status_body(0));
  std::shared_ptr<Kfsmd_View> view;
  Kfsmd_Lpc_Channel::Conn* lpc = nullptr;
  while (hello && kfsm_frame_recv(c->fd, &f) == 0) {
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
  std::lock_guard<std::mutex> g(m_mutex);
  close(c->fd);
  c->fd = -1;
  c->done = true;
  if (c->who.uid != 0) {
    --m_open_non_root;
    auto it = m_open_by_user.find(c->who.uid);
    if (--it->second == 0) m_open_by_user.erase(it);
  }
}
