// Frames of the module socket: what a receiver accepts, and every malformed packet it refuses.
#include "proto/kfsm_wire.h"

#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "proto/kfsm_records.h"

namespace {

struct Pair {
  int fd[2] = {-1, -1};
  Pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fd), 0); }
  ~Pair() {
    for (int f : fd)
      if (f >= 0) close(f);
  }
};

std::string header(uint32_t magic, uint16_t version, uint16_t type, uint32_t len, uint32_t seq) {
  std::string h(KFSM_FRAME_HDR, '\0');
  uint8_t* p = reinterpret_cast<uint8_t*>(h.data());
  kfsm_put_u32(p, magic);
  kfsm_put_u16(p + 4, version);
  kfsm_put_u16(p + 6, type);
  kfsm_put_u32(p + 8, len);
  kfsm_put_u32(p + 12, seq);
  return h;
}

TEST(KfsmWire, FrameRoundTripAndHeaderBytes) {
  Pair p;
  std::string body = "hello body";
  ASSERT_EQ(kfsm_frame_send(p.fd[0], KFSM_FRAME_MCB, 77, body), 0);
  char raw[64];
  ssize_t n = recv(p.fd[1], raw, sizeof raw, MSG_PEEK);
  ASSERT_EQ(n, ssize_t(KFSM_FRAME_HDR + body.size()));
  EXPECT_EQ(std::string(raw, KFSM_FRAME_HDR), header(0x4B425654, 1, 3, uint32_t(body.size()), 77));
  kfsm_frame f;
  ASSERT_EQ(kfsm_frame_recv(p.fd[1], &f), 0);
  EXPECT_EQ(f.type, KFSM_FRAME_MCB);
  EXPECT_EQ(f.seq, 77u);
  EXPECT_EQ(f.body, body);
  ASSERT_EQ(kfsm_frame_send(p.fd[0], KFSM_FRAME_HELLO_OK, 1, ""), 0);  // an empty body is a frame too
  ASSERT_EQ(kfsm_frame_recv(p.fd[1], &f), 0);
  EXPECT_TRUE(f.body.empty());
  EXPECT_EQ(kfsm_frame_send(p.fd[0], 1, 1, std::string(KFSM_FRAME_MAX_BODY + 1, 'x')), EMSGSIZE);
}

TEST(KfsmWire, MalformedPacketsAreProtocolErrors) {
  struct Case {
    const char* what;
    std::string packet;
  } cases[] = {
      {"shorter than a header", std::string(10, 'x')},
      {"wrong magic", header(0x12345678, 1, 3, 0, 1)},
      {"wrong version", header(KFSM_WIRE_MAGIC, 2, 3, 0, 1)},
      {"length beyond the packet", header(KFSM_WIRE_MAGIC, 1, 3, 5, 1) + "abc"},
      {"length short of the packet", header(KFSM_WIRE_MAGIC, 1, 3, 1, 1) + "abc"},
      {"length beyond the limit", header(KFSM_WIRE_MAGIC, 1, 3, 0xFFFFFFFFu, 1)},
      {"packet beyond the limit", header(KFSM_WIRE_MAGIC, 1, 3, KFSM_FRAME_MAX_BODY + 8, 1) +
                                      std::string(KFSM_FRAME_MAX_BODY + 8, 'y')},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Pair p;
    int sz = 1 << 20;
    setsockopt(p.fd[0], SOL_SOCKET, SO_SNDBUF, &sz, sizeof sz);
    ASSERT_EQ(send(p.fd[0], c.packet.data(), c.packet.size(), 0), ssize_t(c.packet.size()));
    kfsm_frame f;
    EXPECT_EQ(kfsm_frame_recv(p.fd[1], &f), EPROTO);
    // Received in a batch behind a good frame: the good one is kept.
    ASSERT_EQ(kfsm_frame_send(p.fd[0], KFSM_FRAME_MCB, 5, "ok"), 0);
    ASSERT_EQ(send(p.fd[0], c.packet.data(), c.packet.size(), 0), ssize_t(c.packet.size()));
    std::deque<kfsm_frame> got;
    EXPECT_EQ(kfsm_frames_recv(p.fd[1], &got, 8), EPROTO);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].seq, 5u);
  }
  Pair p;
  close(p.fd[0]);
  p.fd[0] = -1;
  kfsm_frame f;
  EXPECT_EQ(kfsm_frame_recv(p.fd[1], &f), ECONNRESET);
  std::deque<kfsm_frame> got;
  EXPECT_EQ(kfsm_frames_recv(p.fd[1], &got, 8), ECONNRESET);
}

// A batch takes what is queued, in order, never more than asked or than its limit, and never waits.
TEST(KfsmWire, BatchesTakeWhatIsQueuedInOrder) {
  Pair p;
  std::deque<kfsm_frame> got;
  EXPECT_EQ(kfsm_frames_recv(p.fd[1], &got, 8), EAGAIN);
  for (uint32_t i = 1; i <= 20; i++) ASSERT_EQ(kfsm_frame_send(p.fd[0], KFSM_FRAME_MCB, i, std::to_string(i)), 0);
  for (size_t ask : {size_t(32), size_t(3), size_t(0), size_t(8)}) {
    const size_t had = got.size();
    EXPECT_EQ(kfsm_frames_recv(p.fd[1], &got, ask), ask == 0 ? EAGAIN : 0);
    EXPECT_EQ(got.size() - had, std::min({ask, KFSM_FRAMES_RECV_MAX, 20 - had})) << ask;
  }
  ASSERT_EQ(got.size(), 20u);
  for (uint32_t i = 0; i < 20; i++) EXPECT_EQ(got[i].seq, i + 1);
  EXPECT_EQ(got[19].body, "20");
  // Frames before the end of the stream come first; the end shows at the next call.
  got.clear();
  ASSERT_EQ(kfsm_frame_send(p.fd[0], KFSM_FRAME_MCB, 21, ""), 0);
  close(p.fd[0]);
  p.fd[0] = -1;
  EXPECT_EQ(kfsm_frames_recv(p.fd[1], &got, 8), 0);
  EXPECT_EQ(got.size(), 1u);
  EXPECT_EQ(kfsm_frames_recv(p.fd[1], &got, 8), ECONNRESET);
}

TEST(KfsmWire, LpcBodiesCheckTheirSizes) {
  const std::string payload(100, 'p');
  const uint8_t* pay = reinterpret_cast<const uint8_t*>(payload.data());
  uint8_t hdr[KFSM_LPC_HDR] = {}, big[KFSM_LPC_HDR] = {}, rq[KFSM_LPC_HDR] = {};
  kfsm_lpc_put_reply(hdr, 0, payload.size(), 9);
  kfsm_lpc_put_reply(big, 0, VIEW_LPC_PAYLOAD + 1, 9);
  kfsm_lpc_call call;
  const std::string body = kfsm_lpc_call_body(1, "vtag", hdr, pay, payload.size());
  ASSERT_TRUE(kfsm_parse_lpc_call(body, &call));
  EXPECT_EQ(call.tag, "vtag");
  EXPECT_EQ(call.payload, payload);
  ASSERT_TRUE(kfsm_parse_lpc_call(kfsm_lpc_call_body(0, "v", nullptr, nullptr, 0), &call));
  EXPECT_EQ(call.flags, 0u);
  std::string flags3 = body, tag_past = kfsm_lpc_call_body(0, "abc", nullptr, nullptr, 0);
  kfsm_put_u32(reinterpret_cast<uint8_t*>(flags3.data()), 3);
  kfsm_put_u32(reinterpret_cast<uint8_t*>(tag_past.data()) + 4, 200);
  for (const std::string& bad : {body.substr(0, body.size() - 1), body + "x", flags3, tag_past,
                                 kfsm_lpc_call_body(0, std::string(256, 't'), nullptr, nullptr, 0),
                                 kfsm_lpc_call_body(1, "v", big, nullptr, 0)})
    EXPECT_FALSE(kfsm_parse_lpc_call(bad, &call)) << bad.size();

  kfsm_lpc_put_request(rq, kfsm_lpc_request_hdr{VIEW_RPC_LOOKUP, payload.size(), VIEW_LPC_PAYLOAD, 4});
  kfsm_lpc_deliver d;
  const std::string dbody = kfsm_lpc_deliver_body(0, rq, pay, payload.size());
  ASSERT_TRUE(kfsm_parse_lpc_deliver(dbody, &d));
  EXPECT_EQ(d.payload, payload);
  const std::string status_only = kfsm_lpc_deliver_body(TBS_ST_VIEW_GONE, nullptr, nullptr, 0);
  ASSERT_TRUE(kfsm_parse_lpc_deliver(status_only, &d));
  EXPECT_EQ(d.status, TBS_ST_VIEW_GONE);
  for (const std::string& bad : {dbody.substr(0, 20), dbody + "zz", status_only + "x"})
    EXPECT_FALSE(kfsm_parse_lpc_deliver(bad, &d)) << bad.size();
}

}  // namespace
