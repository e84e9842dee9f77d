// The module library against a scripted module: handles, commands, answers, time limits, and the LPC
// call with its reply-once rule and its wake-up.
#include "kfsm/libkfsm.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "kfsm/kfsm_test_util.h"
#include "proto/kfsm_status.h"

namespace {

using namespace std::chrono_literals;
using kfsm_test::Peer_Test;
using kfsm_test::Temp_Socket;

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

TEST(LibKfsmNoModule, OpenFailsWithAStatusAndNothingHangs) {
  Temp_Socket sock;  // nothing listens at its path
  int err = 0;
  EXPECT_EQ(kfsm_view_root_open_sil_type(1, &err, 1), 0);
  EXPECT_EQ(err, 1001);
  char buf[KFSM_VIEW_ROOT_MAX];
  EXPECT_EQ(tbs_view_root_type(1, buf, "v"), 1001);

  // A socket file whose listener is gone: connection refused.
  int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
  struct sockaddr_un a;
  memset(&a, 0, sizeof a);
  a.sun_family = AF_UNIX;
  strcpy(a.sun_path, sock.path.c_str());
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  close(fd);
  EXPECT_EQ(kfsm_view_root_open_sil_type(1, &err, 1), 0);
  EXPECT_EQ(err, 1001);

  kfsm_umount_info u;
  kfsmcmd_block b = umount_block(&u);
  kfsm_mcb_cmd(12345, &b, &err);
  EXPECT_EQ(err, EBADF);
}

class LibKfsm : public Peer_Test {};

TEST_F(LibKfsm, CommandsReachTheModuleAndStatusesComeBack) {
  int err = -1;
  int h = kfsm_view_root_open_type(1, &err);
  ASSERT_NE(h, 0);
  EXPECT_EQ(err, 0);
  peer->push_status(KFSM_CMD_UMOUNT, 1072);
  kfsm_umount_info u;
  kfsmcmd_block b = umount_block(&u);
  kfsm_mcb_cmd(h, &b, &err);
  EXPECT_EQ(err, 0);
  EXPECT_EQ(b.status, 1072);
  auto cmds = peer->commands();
  ASSERT_EQ(cmds.size(), 1u);
  kfsm_umount_args a;
  ASSERT_TRUE(kfsm_parse_umount(cmds[0], &a));
  EXPECT_EQ(a.mount_point, "/proj");
  EXPECT_EQ(a.replica.bytes[0], 7);
  EXPECT_EQ(cmds[0].pn.text, "vtag");

  // A block the library cannot send faithfully never leaves the process.
  b.infolen = 27;
  kfsm_mcb_cmd(h, &b, &err);
  EXPECT_EQ(err, EINVAL);
  // Commands 11, 20 and 65 belong to kfsm_cmd.
  b.cmd = KFSM_CMD_ROOT;
  kfsm_mcb_cmd(h, &b, &err);
  EXPECT_EQ(err, EINVAL);
  EXPECT_EQ(peer->commands().size(), 1u);
  kfsm_view_root_close_type(1, h);
  kfsm_mcb_cmd(h, &b, &err);
  EXPECT_EQ(err, EBADF);
}

TEST_F(LibKfsm, RootPathAndViewRoot) {
  int err = 0, st = -1;
  int h = kfsm_view_root_open_sil_type(1, &err, 1);
  ASSERT_NE(h, 0);
  char out[KFSM_ROOT_BUF];
  kfsm_strbuf info[2] = {{out, 0, KFSM_ROOT_BUF}, {nullptr, 0, 0}};
  kfsm_strbuf zero{nullptr, 0, 0};
  kfsm_cmd(h, &err, &st, KFSM_CMD_ROOT, 0, &zero, &zero, info, KFSM_ROOT_INFO_IMAGE);
  EXPECT_EQ(err, 0);
  EXPECT_EQ(st, 0);
  EXPECT_STREQ(out, "/view");
  EXPECT_EQ(info[0].l, 5u);
  kfsm_view_root_close_type(1, h);

  char buf[KFSM_VIEW_ROOT_MAX];
  ASSERT_EQ(tbs_view_root_type(1, buf, "vt"), 0);
  EXPECT_STREQ(buf, "/view/vt");
  peer->set_handler(KFSM_CMD_ROOT, [](const kfsm_command&, kfsm_result_outputs* o) {
    o->text = "/";
    return 0;
  });
  ASSERT_EQ(tbs_view_root_type(1, buf, "vt"), 0);
  EXPECT_STREQ(buf, "/vt");
  peer->set_handler(KFSM_CMD_ROOT, [](const kfsm_command&, kfsm_result_outputs*) { return 1011; });
  EXPECT_EQ(tbs_view_root_type(1, buf, "vt"), 1011);
}

TEST_F(LibKfsm, SilentModuleTimesOutAndTheHandleStaysBroken) {
  kfsm_set_timeouts(200, 200);
  peer->set_handler(KFSM_CMD_UMOUNT, [](const kfsm_command&, kfsm_result_outputs*) {
    std::this_thread::sleep_for(600ms);
    return 0;
  });
  int err = 0;
  int h = kfsm_view_root_open_type(1, &err);
  ASSERT_NE(h, 0);
  kfsm_umount_info u;
  kfsmcmd_block b = umount_block(&u);
  kfsm_mcb_cmd(h, &b, &err);
  EXPECT_EQ(err, ETIMEDOUT);
  // The late answer must not be taken for the answer of a later command.
  std::this_thread::sleep_for(700ms);
  kfsm_mcb_cmd(h, &b, &err);
  EXPECT_EQ(err, ECONNRESET);
  kfsm_view_root_close_type(1, h);
}

// One agent thread's LPC calls, driven by hand: request in, reply out once, a status in between.
TEST_F(LibKfsm, LpcCallSendsEachReplyOnce) {
  alignas(8) static uint8_t buf[KFSM_LPC_BUF];
  memset(buf, 0, sizeof buf);
  int err = 0;
  int h = kfsm_view_root_open_type(1, &err);
  ASSERT_NE(h, 0);
  kfsm_strbuf tag = kfsm_strbuf_of("vtag");
  struct Result {
    int err = -1, status = -1;
  } r1, r2, r3, r4;
  std::thread agent([&] {
    kfsm_cmd(h, &r1.err, &r1.status, KFSM_CMD_LPC_MESSAGE, 0, &tag, &tag, buf, KFSM_LPC_BUF);
    // Serve it: reply "xyz" with rpc_status 0 and the request's cookie.
    kfsm_lpc_request_hdr q = kfsm_lpc_get_request(buf);
    EXPECT_EQ(q.op, 107u);
    EXPECT_EQ(q.req_size, 3u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buf) + 32, 3), "abc");
    EXPECT_EQ(kfsm_get_u32(buf + 28), 0u);  // the marker is the agent's own business
    memcpy(buf + 32, "xyz", 3);
    kfsm_lpc_put_reply(buf, 0, 3, q.cookie);
    kfsm_cmd(h, &r2.err, &r2.status, KFSM_CMD_LPC_MESSAGE, 0, &tag, &tag, buf, KFSM_LPC_BUF);
    // A status: the buffer still holds the reply; the next call must not send it again.
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buf) + 32, 3), "xyz");
    kfsm_cmd(h, &r3.err, &r3.status, KFSM_CMD_LPC_MESSAGE, 0, &tag, &tag, buf, KFSM_LPC_BUF);
    kfsm_cmd(h, &r4.err, &r4.status, KFSM_CMD_LPC_MESSAGE, 0, &tag, &tag, buf, KFSM_LPC_BUF);
  });
  Kfsm_Peer::Lpc_Reply reply;
  ASSERT_TRUE(peer->lpc_request(VIEW_RPC_LOOKUP, "abc", &reply));
  EXPECT_EQ(reply.rpc_status, 0u);
  EXPECT_EQ(reply.size, 3u);
  EXPECT_EQ(reply.payload, "xyz");
  EXPECT_EQ(reply.marker, 1u);
  ASSERT_TRUE(peer->wait_lpc_waiting(1));
  ASSERT_TRUE(peer->lpc_status_one(1001));
  ASSERT_TRUE(peer->wait_lpc_waiting(1));
  peer->end_lpc();
  agent.join();
  EXPECT_EQ(r1.err, 0);
  EXPECT_EQ(r1.status, 0);
  EXPECT_EQ(r2.status, 1001);
  EXPECT_EQ(r3.status, 1046);
  EXPECT_EQ(r4.status, 1046);  // and every later call
  auto ev = peer->lpc_events();
  ASSERT_EQ(ev.size(), 4u);
  EXPECT_EQ(ev[0].flags, 0u);
  EXPECT_EQ(ev[1].flags, 1u);
  EXPECT_EQ(ev[1].cookie, reply.cookie);
  EXPECT_EQ(ev[2].flags, 0u);  // not sent twice
  EXPECT_EQ(ev[1].tag, "vtag");
  kfsm_view_root_close_type(1, h);
}

TEST_F(LibKfsm, WakeupDescriptorEndsABlockedLpcCall) {
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  kfsm_set_wakeup_fd(p[0]);
  int err = 0, st = 0;
  int h = kfsm_view_root_open_type(1, &err);
  ASSERT_NE(h, 0);
  alignas(8) static uint8_t buf[KFSM_LPC_BUF];
  memset(buf, 0, sizeof buf);
  kfsm_strbuf tag = kfsm_strbuf_of("vtag");
  std::thread agent([&] { kfsm_cmd(h, &err, &st, KFSM_CMD_LPC_MESSAGE, 0, &tag, &tag, buf, KFSM_LPC_BUF); });
  ASSERT_TRUE(peer->wait_lpc_waiting(1));
  ASSERT_EQ(write(p[1], "x", 1), 1);
  agent.join();
  EXPECT_EQ(err, ESHUTDOWN);
  kfsm_set_wakeup_fd(-1);
  kfsm_view_root_close_type(1, h);
  close(p[0]);
  close(p[1]);
  // Wrong buffer sizes are refused before anything is sent.
  h = kfsm_view_root_open_type(1, &err);
  kfsm_cmd(h, &err, &st, KFSM_CMD_LPC_MESSAGE, 0, &tag, &tag, buf, 100);
  EXPECT_EQ(err, EINVAL);
  kfsm_view_root_close_type(1, h);
}

}  // namespace
