#include "proto/kfsm_wire.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "proto/kfsm_records.h"

std::string kfsm_socket_path() {
  const char* env = getenv(KFSM_SOCKET_ENV);
  return env && *env ? env : KFSM_SOCKET_DEFAULT;
}

int kfsm_listen(const std::string& path, unsigned mode, int backlog, int* fd) {
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof addr.sun_path) return ENAMETOOLONG;
  memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  unlink(path.c_str());
  int s = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (s < 0) return errno;
  // Bound with no permission bits taken away, then set exactly: the name never exists with more.
  mode_t old = umask(0777);
  int rc = bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  umask(old);
  if (rc != 0 || chmod(path.c_str(), static_cast<mode_t>(mode)) != 0 || listen(s, backlog) != 0) {
    int e = errno;
    close(s);
    return e;
  }
  *fd = s;
  return 0;
}

namespace {

void put_header(uint8_t* hdr, uint16_t type, uint32_t seq, size_t body_len) {
  kfsm_put_u32(hdr, KFSM_WIRE_MAGIC);
  kfsm_put_u16(hdr + 4, KFSM_WIRE_VERSION);
  kfsm_put_u16(hdr + 6, type);
  kfsm_put_u32(hdr + 8, static_cast<uint32_t>(body_len));
  kfsm_put_u32(hdr + 12, seq);
}

}  // namespace

int kfsm_frame_send(int fd, uint16_t type, uint32_t seq, const std::string& body) {
  if (body.size() > KFSM_FRAME_MAX_BODY) return EMSGSIZE;
  uint8_t hdr[KFSM_FRAME_HDR];
  put_header(hdr, type, seq, body.size());
  struct iovec iov[2] = {{hdr, sizeof hdr}, {const_cast<char*>(body.data()), body.size()}};
  struct msghdr msg;
  memset(&msg, 0, sizeof msg);
  msg.msg_iov = iov;
  msg.msg_iovlen = body.empty() ? 1 : 2;
  for (;;) {
    ssize_t n = sendmsg(fd, &msg, MSG_NOSIGNAL);
    if (n >= 0) return size_t(n) == sizeof hdr + body.size() ? 0 : EIO;
    if (errno != EINTR) return errno;
  }
}

int kfsm_frame_image(uint16_t type, uint32_t seq, const std::string& body, std::string* out) {
  if (body.size() > KFSM_FRAME_MAX_BODY) return EMSGSIZE;
  uint8_t hdr[KFSM_FRAME_HDR];
  put_header(hdr, type, seq, body.size());
  out->assign(reinterpret_cast<const char*>(hdr), sizeof hdr);
  out->append(body);
  return 0;
}

int kfsm_frames_send(int fd, const std::vector<std::string>& packets) {
  std::vector<struct iovec> iov(packets.size());
  std::vector<struct mmsghdr> msgs(packets.size());
  for (size_t i = 0; i < packets.size(); ++i) {
    iov[i] = {const_cast<char*>(packets[i].data()), packets[i].size()};
    memset(&msgs[i], 0, sizeof msgs[i]);
    msgs[i].msg_hdr.msg_iov = &iov[i];
    msgs[i].msg_hdr.msg_iovlen = 1;
  }
  size_t done = 0;
  while (done < packets.size()) {
    int n = sendmmsg(fd, msgs.data() + done, static_cast<unsigned>(packets.size() - done), MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    for (int i = 0; i < n; ++i)
      if (msgs[done + i].msg_len != packets[done + i].size()) return EIO;
    done += static_cast<size_t>(n);
  }
  return 0;
}

namespace {

// Receive buffers are one byte larger than the largest frame, so that truncation shows.
constexpr size_t kPacketBuffer = KFSM_FRAME_HDR + KFSM_FRAME_MAX_BODY + 1;

// The frame in a received packet of `n` bytes. 0, or EPROTO as kfsm_frame_recv.
int frame_of_packet(const char* buf, size_t n, int msg_flags, kfsm_frame* out) {
  if ((msg_flags & (MSG_TRUNC | MSG_CTRUNC)) || n < KFSM_FRAME_HDR) return EPROTO;
  const uint8_t* p = reinterpret_cast<const uint8_t*>(buf);
  uint32_t len = kfsm_get_u32(p + 8);
  if (kfsm_get_u32(p) != KFSM_WIRE_MAGIC || kfsm_get_u16(p + 4) != KFSM_WIRE_VERSION || len > KFSM_FRAME_MAX_BODY ||
      n != KFSM_FRAME_HDR + len)
    return EPROTO;
  out->type = kfsm_get_u16(p + 6);
  out->seq = kfsm_get_u32(p + 12);
  out->body.assign(buf + KFSM_FRAME_HDR, len);
  return 0;
}

}  // namespace

int kfsm_frame_recv(int fd, kfsm_frame* out, bool dontwait) {
  thread_local std::vector<char> buf(kPacketBuffer);
  ssize_t n;
  struct iovec iov = {buf.data(), buf.size()};
  struct msghdr msg;
  memset(&msg, 0, sizeof msg);
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  do {
    n = recvmsg(fd, &msg, MSG_CMSG_CLOEXEC | (dontwait ? MSG_DONTWAIT : 0));
  } while (n < 0 && errno == EINTR);
  if (n < 0) return errno == EWOULDBLOCK ? EAGAIN : errno;
  if (n == 0) return ECONNRESET;
  return frame_of_packet(buf.data(), size_t(n), msg.msg_flags, out);
}

int kfsm_frames_recv(int fd, std::deque<kfsm_frame>* out, size_t max) {
  // The buffers are large, but left uninitialised: only the bytes a packet brings are ever touched, so
  // only those pages take memory.
  thread_local std::unique_ptr<char[]> buf;
  max = std::min(max, KFSM_FRAMES_RECV_MAX);
  if (max == 0) return EAGAIN;
  if (!buf) buf.reset(new char[KFSM_FRAMES_RECV_MAX * kPacketBuffer]);
  struct iovec iov[KFSM_FRAMES_RECV_MAX];
  struct mmsghdr msgs[KFSM_FRAMES_RECV_MAX];
  memset(msgs, 0, sizeof msgs);
  for (size_t i = 0; i < max; ++i) {
    iov[i] = {buf.get() + i * kPacketBuffer, kPacketBuffer};
    msgs[i].msg_hdr.msg_iov = &iov[i];
    msgs[i].msg_hdr.msg_iovlen = 1;
  }
  int n;
  do {
    n = recvmmsg(fd, msgs, static_cast<unsigned>(max), MSG_CMSG_CLOEXEC | MSG_DONTWAIT, nullptr);
  } while (n < 0 && errno == EINTR);
  if (n < 0) return errno == EWOULDBLOCK ? EAGAIN : errno;
  for (int i = 0; i < n; ++i) {
    // An empty packet is the end of the stream (the peer's shutdown); what came before it is kept.
    if (msgs[i].msg_len == 0) return i == 0 ? ECONNRESET : 0;
    kfsm_frame f;
    int e = frame_of_packet(buf.get() + size_t(i) * kPacketBuffer, msgs[i].msg_len, msgs[i].msg_hdr.msg_flags, &f);
    if (e != 0) return e;
    out->push_back(std::move(f));
  }
  return n == 0 ? EAGAIN : 0;
}

std::string kfsm_hello_body(uint32_t type, uint32_t pid) {
  std::string b(8, '\0');
  kfsm_put_u32(reinterpret_cast<uint8_t*>(b.data()), type);
  kfsm_put_u32(reinterpret_cast<uint8_t*>(b.data()) + 4, pid);
  return b;
}

bool kfsm_parse_hello(const std::string& body, uint32_t* type, uint32_t* pid) {
  if (body.size() != 8) return false;
  *type = kfsm_get_u32(reinterpret_cast<const uint8_t*>(body.data()));
  *pid = kfsm_get_u32(reinterpret_cast<const uint8_t*>(body.data()) + 4);
  return true;
}

std::string kfsm_status_body(int32_t status) {
  std::string b(4, '\0');
  kfsm_put_u32(reinterpret_cast<uint8_t*>(b.data()), static_cast<uint32_t>(status));
  return b;
}

bool kfsm_parse_status(const std::string& body, int32_t* status) {
  if (body.size() != 4) return false;
  *status = static_cast<int32_t>(kfsm_get_u32(reinterpret_cast<const uint8_t*>(body.data())));
  return true;
}

std::string kfsm_lpc_call_body(uint32_t flags, const std::string& tag, const uint8_t* header, const uint8_t* payload,
                               size_t payload_len) {
  std::string b(8, '\0');
  kfsm_put_u32(reinterpret_cast<uint8_t*>(b.data()), flags);
  kfsm_put_u32(reinterpret_cast<uint8_t*>(b.data()) + 4, static_cast<uint32_t>(tag.size()));
  b += tag;
  if (flags & 1) {
    b.append(reinterpret_cast<const char*>(header), KFSM_LPC_HDR);
    if (payload_len) b.append(reinterpret_cast<const char*>(payload), payload_len);
  }
  return b;
}

bool kfsm_parse_lpc_call(const std::string& body, kfsm_lpc_call* out) {
  const uint8_t* p = reinterpret_cast<const uint8_t*>(body.data());
  if (body.size() < 8) return false;
  out->flags = kfsm_get_u32(p);
  uint32_t taglen = kfsm_get_u32(p + 4);
  if ((out->flags & ~1u) != 0 || taglen > KFSM_TAG_MAX || body.size() - 8 < taglen) return false;
  out->tag.assign(body, 8, taglen);
  if (out->tag.find('\0') != std::string::npos) return false;
  size_t rest = body.size() - 8 - taglen;
  out->header.clear();
  out->payload.clear();
  if (!(out->flags & 1)) return rest == 0;
  if (rest < KFSM_LPC_HDR) return false;
  out->header.assign(body, 8 + taglen, KFSM_LPC_HDR);
  uint64_t size = kfsm_get_u64(reinterpret_cast<const uint8_t*>(out->header.data()) + 4);
  if (size > VIEW_LPC_PAYLOAD || rest - KFSM_LPC_HDR != size) return false;
  out->payload.assign(body, 8 + taglen + KFSM_LPC_HDR, size);
  return true;
}

std::string kfsm_lpc_deliver_body(int32_t status, const uint8_t* header, const uint8_t* payload, size_t payload_len) {
  std::string b = kfsm_status_body(status);
  if (status == 0) {
    b.append(reinterpret_cast<const char*>(header), KFSM_LPC_HDR);
    if (payload_len) b.append(reinterpret_cast<const char*>(payload), payload_len);
  }
  return b;
}

bool kfsm_parse_lpc_deliver(const std::string& body, kfsm_lpc_deliver* out) {
  if (body.size() < 4) return false;
  out->status = static_cast<int32_t>(kfsm_get_u32(reinterpret_cast<const uint8_t*>(body.data())));
  out->header.clear();
  out->payload.clear();
  if (out->status != 0) return body.size() == 4;
  if (body.size() < 4 + KFSM_LPC_HDR) return false;
  out->header.assign(body, 4, KFSM_LPC_HDR);
  uint64_t size = kfsm_get_u64(reinterpret_cast<const uint8_t*>(out->header.data()) + 8);
  if (size > VIEW_LPC_PAYLOAD || body.size() - 4 - KFSM_LPC_HDR != size) return false;
  out->payload.assign(body, 4 + KFSM_LPC_HDR, size);
  return true;
}
