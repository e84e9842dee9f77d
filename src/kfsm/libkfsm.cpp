#include "kfsm/libkfsm.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/imsg.h"
#include "base/tavrel_mutex.h"
#include "proto/kfsm_status.h"
#include "proto/kfsm_wire.h"

namespace {

struct Handle {
  int fd = -1;
  uint32_t seq = 0;
  bool broken = false;
  bool cookie_sent = false;
  uint32_t last_cookie = 0;
  // Commands sent by kfsm_mcb_post whose answers were not taken yet, oldest first.
  struct Posted {
    uint32_t seq;
    uint32_t cmd;
    uint32_t infolen;
  };
  std::deque<Posted> posted;
  // Packets of posted commands not sent yet (see flush_posts).
  std::vector<std::string> corked;
  // Answers to posted commands received but not taken yet, oldest first (see take_answer).
  std::deque<kfsm_frame> received;
};

constexpr size_t kMaxHandles = 4096;

// Guards g_handles; never held across a call on the socket.
Tavrel_Mutex g_handles_mutex{Tavrel_Lock_Rank::KFSM_HANDLES, "module library handle table"};
std::vector<std::unique_ptr<Handle>> g_handles;   // index + 1 is the handle
std::atomic<int> g_wakeup_fd{-1};
std::atomic<int> g_command_ms{60 * 1000};
std::atomic<int> g_xstat_ms{600 * 1000};

Handle* find(int handle) {
  std::lock_guard<Tavrel_Mutex> g(g_handles_mutex);
  if (handle <= 0 || size_t(handle) > g_handles.size()) return nullptr;
  return g_handles[handle - 1].get();
}

long long now_ms() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits until `fd` is readable. 0; ETIMEDOUT after `timeout_ms` (negative: no limit); ESHUTDOWN when
// `wake` (if >= 0) becomes readable first.
int wait_readable(int fd, int timeout_ms, int wake) {
  long long deadline = timeout_ms < 0 ? 0 : now_ms() + timeout_ms;
  for (;;) {
    struct pollfd p[2] = {{fd, POLLIN, 0}, {wake, POLLIN, 0}};
    int left = -1;
    if (timeout_ms >= 0) {
      long long rest = deadline - now_ms();
      if (rest < 0) rest = 0;
      left = static_cast<int>(rest);
    }
    int n = poll(p, wake >= 0 ? 2 : 1, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (n == 0) return ETIMEDOUT;
    if (wake >= 0 && p[1].revents) return ESHUTDOWN;
    if (p[0].revents) return 0;
  }
}

// A failure of the transport breaks the handle; a closed peer reads as a reset connection.
int broke(Handle* h, int e) {
  h->broken = true;
  return e == EPIPE ? ECONNRESET : e;
}

// The two halves of an exchange. send_request sends a request frame under the next sequence number
// (in *seq); receive_answer waits for the frame that answers request `seq`. 0 or an errno; any
// failure but a wait that `timeout_ms` ended breaks the handle.
int send_request(Handle* h, uint16_t type, const std::string& body, uint32_t* seq) {
  if (h->broken) return ECONNRESET;
  *seq = ++h->seq;
  int e = kfsm_frame_send(h->fd, type, *seq, body);
  return e == 0 ? 0 : broke(h, e);
}

// Sends the posted commands gathered so far, in one call. 0 or an errno; a failure breaks the handle.
int flush_posts(Handle* h) {
  if (h->corked.empty()) return 0;
  int e = h->broken ? ECONNRESET : kfsm_frames_send(h->fd, h->corked);
  h->corked.clear();
  return e == 0 ? 0 : broke(h, e);
}

int receive_answer(Handle* h, uint32_t seq, uint16_t want, int timeout_ms, int wake, kfsm_frame* answer) {
  int e = wait_readable(h->fd, timeout_ms, wake);
  if (e == 0) e = kfsm_frame_recv(h->fd, answer);
  if (e == 0 && (answer->type != want || answer->seq != seq)) e = EPROTO;
  return e == 0 ? 0 : broke(h, e);
}

// The answer to posted request `seq` when it is already queued. Answers are taken off the socket as
// many as have come at once (one recvmmsg for up to KFSM_FRAMES_RECV_MAX, never more than are
// outstanding, so a frame that answers no posted command stays on the socket). Otherwise EAGAIN
// without `wait`, which leaves the handle as it is, and with it the wait of receive_answer.
int take_answer(Handle* h, uint32_t seq, uint16_t want, bool wait, kfsm_frame* answer) {
  if (h->received.empty()) {
    int e = kfsm_frames_recv(h->fd, &h->received, h->posted.size());
    if (e == EAGAIN) return wait ? receive_answer(h, seq, want, g_command_ms.load(), -1, answer) : EAGAIN;
    if (e != 0) {
      // A malformed packet was taken off the socket with the good ones before it: the handle breaks
      // now, not later at an answer whose sequence number no longer matches.
      h->received.clear();
      return broke(h, e);
    }
  }
  *answer = std::move(h->received.front());
  h->received.pop_front();
  return answer->type == want && answer->seq == seq ? 0 : broke(h, EPROTO);
}

// Sends a request frame and receives the frame that answers it. 0 or an errno; any failure breaks
// the handle.
int exchange(Handle* h, uint16_t type, const std::string& body, uint16_t want, int timeout_ms, int wake,
             kfsm_frame* answer) {
  if (!h->posted.empty()) return EBUSY;
  uint32_t seq = 0;
  int e = send_request(h, type, body, &seq);
  return e != 0 ? e : receive_answer(h, seq, want, timeout_ms, wake, answer);
}

int open_handle(int type, int* err, bool quiet) {
  const std::string path = kfsm_socket_path();
  auto h = std::make_unique<Handle>();
  int e = 0;
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) {
    e = ENAMETOOLONG;
  } else {
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    h->fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (h->fd < 0) e = errno;
  }
  if (e == 0) {
    int rc;
    do {
      rc = connect(h->fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) e = errno;
  }
  tbs_status_t st = 0;
  if (e == 0) {
    kfsm_frame answer;
    e = exchange(h.get(), KFSM_FRAME_HELLO, kfsm_hello_body(static_cast<uint32_t>(type), static_cast<uint32_t>(getpid())),
                 KFSM_FRAME_HELLO_OK, g_command_ms.load(), -1, &answer);
    // A daemon that refuses the connection (a cap reached) answers before it reads the hello and closes:
    // the hello or the wait for its answer then finds the connection reset, and the answer still queued.
    if (e == ECONNRESET && wait_readable(h->fd, 0, -1) == 0 && kfsm_frame_recv(h->fd, &answer) == 0 &&
        answer.type == KFSM_FRAME_HELLO_OK)
      e = 0;
    int32_t s = 0;
    if (e == 0 && !kfsm_parse_status(answer.body, &s)) e = EPROTO;
    if (e == 0) st = s;
  }
  // A module that is not there, or does not answer, is "service not available" (TBS_ST_FAILURE); a path too long
  // for a socket and a socket the caller may not use keep their own statuses.
  if (e != 0) st = e == ENAMETOOLONG ? TBS_ST_TOO_LONG : e == EACCES ? TBS_ST_NO_PERMISSION : TBS_ST_FAILURE;
  if (st != 0) {
    if (!quiet)
      imsg_print(IMSG_WARN, "Cannot open the module socket %s: %s (status %d)\n", path.c_str(),
                 e ? strerror(e) : tbs_strerror(st), st);
    if (h->fd >= 0) close(h->fd);
    *err = st;
    return 0;
  }
  std::lock_guard<Tavrel_Mutex> g(g_handles_mutex);
  for (size_t i = 0; i < g_handles.size(); ++i) {
    if (!g_handles[i]) {
      g_handles[i] = std::move(h);
      *err = 0;
      return static_cast<int>(i + 1);
    }
  }
  if (g_handles.size() >= kMaxHandles) {
    close(h->fd);
    *err = TBS_ST_NO_ROOM;
    return 0;
  }
  g_handles.push_back(std::move(h));
  *err = 0;
  return static_cast<int>(g_handles.size());
}

void run_command(Handle* h, uint16_t type, kfsmcmd_block* b, int* err) {
  std::string image;
  int e = kfsm_command_encode(*b, &image);
  if (e != 0) {
    *err = e;
    return;
  }
  kfsm_frame answer;
  int timeout = b->cmd == KFSM_CMD_XSTAT ? g_xstat_ms.load() : g_command_ms.load();
  e = exchange(h, type, image, type + 1, timeout, -1, &answer);
  if (e == 0) {
    int remote = 0;
    e = kfsm_result_apply(reinterpret_cast<const uint8_t*>(answer.body.data()), answer.body.size(), b, &remote);
    if (e != 0) h->broken = true;
    else e = remote;
  }
  *err = e;
}

void lpc_call(Handle* h, int* err, int* status, const kfsm_strbuf* pn, void* info, uint32_t infolen) {
  if (!info || infolen != KFSM_LPC_BUF || !pn || (pn->l && !pn->s) || pn->l > KFSM_TAG_MAX) {
    *err = EINVAL;
    return;
  }
  uint8_t* buf = static_cast<uint8_t*>(info);
  std::string tag(pn->l ? pn->s : "", pn->l);
  uint32_t marker = kfsm_get_u32(buf + KFSM_LPC_MARKER_OFF);
  uint32_t cookie = kfsm_get_u32(buf + 24);
  std::string body;
  if (marker == 1 && !(h->cookie_sent && cookie == h->last_cookie)) {
    uint8_t hdr[KFSM_LPC_HDR];
    memcpy(hdr, buf, KFSM_LPC_HDR);
    uint64_t size = kfsm_get_u64(hdr + 4);
    if (size > VIEW_LPC_PAYLOAD) size = VIEW_LPC_PAYLOAD;
    kfsm_put_u64(hdr + 4, size);
    body = kfsm_lpc_call_body(1, tag, hdr, buf + KFSM_LPC_HDR, size);
    h->cookie_sent = true;
    h->last_cookie = cookie;
  } else {
    body = kfsm_lpc_call_body(0, tag, nullptr, nullptr, 0);
  }
  kfsm_frame answer;
  int e = exchange(h, KFSM_FRAME_LPC_CALL, body, KFSM_FRAME_LPC_DELIVER, -1, g_wakeup_fd.load(), &answer);
  kfsm_lpc_deliver d;
  if (e == 0 && !kfsm_parse_lpc_deliver(answer.body, &d)) {
    h->broken = true;
    e = EPROTO;
  }
  if (e != 0) {
    *err = e;
    return;
  }
  *err = 0;
  *status = d.status;
  if (d.status != 0) return;
  memcpy(buf, d.header.data(), KFSM_LPC_MARKER_OFF);
  if (!d.payload.empty()) memcpy(buf + KFSM_LPC_HDR, d.payload.data(), d.payload.size());
}

}  // namespace

int kfsm_view_root_open_type(int type, int* err) { return open_handle(type, err, false); }

int kfsm_view_root_open_sil_type(kfsm_viewroot_type type, int* err, int) { return open_handle(type, err, true); }

void kfsm_view_root_close_type(int, int handle) {
  std::unique_ptr<Handle> h;
  {
    std::lock_guard<Tavrel_Mutex> g(g_handles_mutex);
    if (handle <= 0 || size_t(handle) > g_handles.size()) return;
    h = std::move(g_handles[handle - 1]);
  }
  if (h && h->fd >= 0) {
    flush_posts(h.get());  // the module daemon still carries out what was posted
    close(h->fd);
  }
}

void kfsm_mcb_cmd(int handle, kfsmcmd_block* block, int* err) {
  Handle* h = find(handle);
  if (!h || !block) {
    *err = h ? EINVAL : EBADF;
    return;
  }
  if (block->cmd == KFSM_CMD_ROOT || block->cmd == KFSM_CMD_SUFFIX || block->cmd == KFSM_CMD_LPC_MESSAGE) {
    *err = EINVAL;
    return;
  }
  run_command(h, KFSM_FRAME_MCB, block, err);
}

void kfsm_mcb_post(int handle, kfsmcmd_block* block, int* err) {
  Handle* h = find(handle);
  if (!h || !block) {
    *err = h ? EINVAL : EBADF;
    return;
  }
  if (block->cmd == KFSM_CMD_XSTAT || block->cmd == KFSM_CMD_ROOT || block->cmd == KFSM_CMD_SUFFIX ||
      block->cmd == KFSM_CMD_LPC_MESSAGE) {
    *err = EINVAL;
    return;
  }
  if (h->posted.size() >= size_t(KFSM_MAX_POSTED)) {
    *err = EAGAIN;
    return;
  }
  // A daemon that has gone shows at the first post of a batch, while the caller can still send that
  // command on a new handle; the look costs no wake-up of the daemon, which a send would.
  struct pollfd p = {h->fd, POLLOUT, 0};
  if (!h->broken && h->corked.empty() && poll(&p, 1, 0) > 0 && (p.revents & (POLLHUP | POLLERR)))
    broke(h, ECONNRESET);
  std::string image, packet;
  int e = h->broken ? ECONNRESET : kfsm_command_encode(*block, &image);
  const uint32_t seq = h->seq + 1;
  if (e == 0) e = kfsm_frame_image(KFSM_FRAME_MCB, seq, image, &packet);
  if (e == 0) {
    h->seq = seq;
    h->corked.push_back(std::move(packet));
    h->posted.push_back({seq, block->cmd, block->infolen});
    if (h->corked.size() >= size_t(KFSM_POST_BATCH)) e = flush_posts(h);
  }
  *err = e;
}

int kfsm_mcb_collect(int handle, bool wait, int* status) {
  Handle* h = find(handle);
  if (!h) return EBADF;
  if (h->posted.empty()) return EAGAIN;
  if (h->broken) return ECONNRESET;
  if (int e = flush_posts(h)) return e;
  const Handle::Posted p = h->posted.front();
  kfsm_frame answer;
  int e = take_answer(h, p.seq, KFSM_FRAME_MCB + 1, wait, &answer);
  if (e != 0) return e;
  // Posted commands have no outputs: the block receives only the status.
  kfsmcmd_block b;
  memset(&b, 0, sizeof b);
  b.cmd = p.cmd;
  b.infolen = p.infolen;
  int remote = 0;
  e = kfsm_result_apply(reinterpret_cast<const uint8_t*>(answer.body.data()), answer.body.size(), &b, &remote);
  if (e != 0) return broke(h, e);
  h->posted.pop_front();
  *status = b.status;
  return remote;
}

int kfsm_mcb_outstanding(int handle) {
  Handle* h = find(handle);
  return h ? static_cast<int>(h->posted.size()) : 0;
}

void kfsm_cmd(int handle, int* err, int* status, uint32_t cmd, uint32_t flags, kfsm_strbuf* pn, kfsm_strbuf* pn2,
              void* info, uint32_t infolen) {
  Handle* h = find(handle);
  if (!h) {
    *err = EBADF;
    return;
  }
  if (cmd == KFSM_CMD_LPC_MESSAGE) {
    lpc_call(h, err, status, pn, info, infolen);
    return;
  }
  if (cmd != KFSM_CMD_ROOT && cmd != KFSM_CMD_SUFFIX) {
    *err = EINVAL;
    return;
  }
  kfsmcmd_block b;
  memset(&b, 0, sizeof b);
  b.cmd = cmd;
  b.flags = flags;
  if (pn) b.pn = *pn;
  if (pn2) b.pn2 = *pn2;
  b.infolen = infolen;
  b.infop = info;
  run_command(h, KFSM_FRAME_CMD, &b, err);
  *status = b.status;
}

int tbs_view_root_type(int type, char* buf, const char* tag) {
  int st = 0;
  int h = kfsm_view_root_open_sil_type(type, &st, 1);
  if (!h) return TBS_ST_FAILURE;
  char root[KFSM_ROOT_BUF] = {};
  kfsm_strbuf info[2] = {{root, 0, KFSM_ROOT_BUF}, {nullptr, 0, 0}};
  kfsm_strbuf zero{nullptr, 0, 0};
  int err = 0;
  kfsm_cmd(h, &err, &st, KFSM_CMD_ROOT, 0, &zero, &zero, info, KFSM_ROOT_INFO_IMAGE);
  kfsm_view_root_close_type(1, h);
  if (err != 0) return tbs_errno2status(err);
  if (st != 0) return st;
  std::string path(root);
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  if (path == "/") path.clear();
  path += "/";
  path += tag ? tag : "";
  if (path.size() >= KFSM_VIEW_ROOT_MAX) return TBS_ST_TOO_LONG;
  memcpy(buf, path.c_str(), path.size() + 1);
  return 0;
}

void kfsm_set_wakeup_fd(int fd) { g_wakeup_fd.store(fd); }

void kfsm_set_timeouts(int command_ms, int xstat_ms) {
  g_command_ms.store(command_ms);
  g_xstat_ms.store(xstat_ms);
}
