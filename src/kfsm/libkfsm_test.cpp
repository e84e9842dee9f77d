// The module library against a scripted module: commands and their statuses, time limits, and the LPC
// call with its reply-once rule and its wake-up. (No module at all: tavrel_kfsm_ioctl_test.cpp.)
#include "kfsm/libkfsm.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <future>
#include <thread>

#include "kfsm/kfsm_test_util.h"
#include "proto/kfsm_status.h"
#include "proto/view_rpc.h"

namespace {

using kfsm_test::Peer_Test;

kfsmcmd_block umount_block(kfsm_umount_info* u) {
  memset(u, 0, sizeof *u);
  u->mount_point = kfsm_strbuf_of("/proj");
  u->replica.bytes[0] = 7;
  kfsmcmd_block b;
  memset(&b, 0, sizeof b);
  b.cmd = KFSM_CMD_UMOUNT;
  b.pn = b.pn2 = kfsm_strbuf_of("vtag");
  b.infolen = KFSM_UMOUNT_IMAGE;
  b.infop = u;
  return b;
}

class LibKfsm : public Peer_Test {
 protected:
  int open() {
    int err = -1;
    int h = kfsm_view_root_open_type(1, &err);
    EXPECT_EQ(err, 0);
    return h;
  }
  // One LPC call on `h` with the buffer `buf`; *err and *status as kfsm_cmd leaves them.
  void lpc(int h, uint8_t* buf, int* err, int* status, uint32_t len = KFSM_LPC_BUF) {
    kfsm_strbuf tag = kfsm_strbuf_of("vtag");
    kfsm_cmd(h, err, status, KFSM_CMD_LPC_MESSAGE, 0, &tag, &tag, buf, len);
  }
};

TEST_F(LibKfsm, CommandsReachTheModuleAndStatusesComeBack) {
  int h = open();
  ASSERT_NE(h, 0);
  peer->push_status(KFSM_CMD_UMOUNT, TBS_ST_BAD_ARG);
  kfsm_umount_info u;
  kfsmcmd_block b = umount_block(&u);
  int err = -1;
  kfsm_mcb_cmd(h, &b, &err);
  EXPECT_EQ(err, 0);
  EXPECT_EQ(b.status, TBS_ST_BAD_ARG);
  ASSERT_EQ(peer->commands().size(), 1u);  // its image: kfsm_records_test.cpp

  // A block the library cannot send faithfully never leaves the process; 11, 20 and 65 belong to kfsm_cmd.
  b.infolen = 27;
  kfsm_mcb_cmd(h, &b, &err);
  EXPECT_EQ(err, EINVAL);
  b.cmd = KFSM_CMD_ROOT;
  kfsm_mcb_cmd(h, &b, &err);
  EXPECT_EQ(err, EINVAL);
  EXPECT_EQ(peer->commands().size(), 1u);
  kfsm_view_root_close_type(1, h);
  kfsm_mcb_cmd(h, &b, &err);
  EXPECT_EQ(err, EBADF);
}

// The view root is the module's root (command 11), "/" and the tag.
TEST_F(LibKfsm, ViewRootFromTheModulesRoot) {
  char buf[KFSM_VIEW_ROOT_MAX];
  ASSERT_EQ(tbs_view_root_type(1, buf, "vt"), 0);
  EXPECT_STREQ(buf, "/view/vt");
  peer->set_handler(KFSM_CMD_ROOT, [](const kfsm_command&, kfsm_result_outputs* o) {
    o->text = "/";
    return 0;
  });
  ASSERT_EQ(tbs_view_root_type(1, buf, "vt"), 0);
  EXPECT_STREQ(buf, "/vt");
  peer->set_handler(KFSM_CMD_ROOT, [](const kfsm_command&, kfsm_result_outputs*) { return TBS_ST_NO_VIEW; });
  EXPECT_EQ(tbs_view_root_type(1, buf, "vt"), TBS_ST_NO_VIEW);
}

TEST_F(LibKfsm, SilentModuleTimesOutAndTheHandleStaysBroken) {
  kfsm_set_timeouts(200, 200);
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  peer->set_handler(KFSM_CMD_UMOUNT, [released](const kfsm_command&, kfsm_result_outputs*) {
    released.wait();
    return 0;
  });
  int h = open();
  ASSERT_NE(h, 0);
  kfsm_umount_info u;
  kfsmcmd_block b = umount_block(&u);
  int err = 0;
  kfsm_mcb_cmd(h, &b, &err);
  release.set_value();
  EXPECT_EQ(err, ETIMEDOUT);
  // The late answer comes before any later one on this connection; it must not be taken for the answer
  // of the next command: the handle is broken instead.
  kfsm_mcb_cmd(h, &b, &err);
  EXPECT_EQ(err, ECONNRESET);
  kfsm_view_root_close_type(1, h);
}

// One agent thread's LPC calls, driven by hand: request in, reply out once, a status in between.
TEST_F(LibKfsm, LpcCallSendsEachReplyOnce) {
  alignas(8) static uint8_t buf[KFSM_LPC_BUF];
  memset(buf, 0, sizeof buf);
  int h = open();
  ASSERT_NE(h, 0);
  int err[4] = {-1, -1, -1, -1}, st[4] = {-1, -1, -1, -1};
  std::thread agent([&] {
    lpc(h, buf, &err[0], &st[0]);
    kfsm_lpc_request_hdr q = kfsm_lpc_get_request(buf);
    EXPECT_EQ(q.op, VIEW_RPC_LOOKUP);
    EXPECT_EQ(q.req_size, 3u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buf) + KFSM_LPC_HDR, 3), "abc");
    EXPECT_EQ(kfsm_get_u32(buf + KFSM_LPC_MARKER_OFF), 0u);  // the marker is the agent's own business
    memcpy(buf + KFSM_LPC_HDR, "xyz", 3);
    kfsm_lpc_put_reply(buf, KFSM_RPC_DONE, 3, q.cookie);
    lpc(h, buf, &err[1], &st[1]);
    // A status: the buffer still holds the reply; the next call must not send it again.
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buf) + KFSM_LPC_HDR, 3), "xyz");
    lpc(h, buf, &err[2], &st[2]);
    lpc(h, buf, &err[3], &st[3]);
  });
  Kfsm_Peer::Lpc_Reply reply;
  ASSERT_TRUE(peer->lpc_request(VIEW_RPC_LOOKUP, "abc", &reply));
  EXPECT_EQ(reply.rpc_status, KFSM_RPC_DONE);
  EXPECT_EQ(reply.payload, "xyz");
  EXPECT_EQ(reply.marker, 1u);
  ASSERT_TRUE(peer->wait_lpc_waiting(1));
  ASSERT_TRUE(peer->lpc_status_one(TBS_ST_FAILURE));
  ASSERT_TRUE(peer->wait_lpc_waiting(1));
  peer->end_lpc();
  agent.join();
  for (int e : err) EXPECT_EQ(e, 0);
  EXPECT_EQ(st[0], 0);
  EXPECT_EQ(st[1], TBS_ST_FAILURE);
  EXPECT_EQ(st[2], TBS_ST_VIEW_GONE);
  EXPECT_EQ(st[3], TBS_ST_VIEW_GONE);  // and every later call
  auto ev = peer->lpc_events();
  ASSERT_EQ(ev.size(), 4u);
  EXPECT_EQ(ev[0].flags, 0u);
  EXPECT_EQ(ev[1].flags, 1u);
  EXPECT_EQ(ev[1].cookie, reply.cookie);
  EXPECT_EQ(ev[1].tag, "vtag");
  EXPECT_EQ(ev[2].flags, 0u);  // not sent twice
  kfsm_view_root_close_type(1, h);
}

TEST_F(LibKfsm, WakeupDescriptorEndsABlockedLpcCall) {
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  kfsm_set_wakeup_fd(p[0]);
  int h = open();
  ASSERT_NE(h, 0);
  alignas(8) static uint8_t buf[KFSM_LPC_BUF];
  memset(buf, 0, sizeof buf);
  int err = 0, st = 0;
  std::thread agent([&] { lpc(h, buf, &err, &st); });
  ASSERT_TRUE(peer->wait_lpc_waiting(1));
  ASSERT_EQ(write(p[1], "x", 1), 1);
  agent.join();
  EXPECT_EQ(err, ESHUTDOWN);
  kfsm_set_wakeup_fd(-1);
  close(p[0]);
  close(p[1]);
  // The handle stays broken; a wrong buffer size is refused before anything is sent.
  lpc(h, buf, &err, &st);
  EXPECT_EQ(err, ECONNRESET);
  kfsm_view_root_close_type(1, h);
  h = open();
  lpc(h, buf, &err, &st, 100);
  EXPECT_EQ(err, EINVAL);
  kfsm_view_root_close_type(1, h);
}

}  // namespace
