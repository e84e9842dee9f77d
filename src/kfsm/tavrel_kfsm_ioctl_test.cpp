// The agent's downcalls against a scripted module: what each command carries, and how the module's
// statuses come back to the agent; and what the library and the agent do when no module listens.
#include "kfsm/tavrel_kfsm_ioctl.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <tuple>

#include "base/sysutl.h"
#include "core/tavrel_status.h"
#include "core/tavrel_view.h"
#include "kfsm/kfsm_agent_ioctl.h"
#include "kfsm/kfsm_test_util.h"
#include "kfsm/tavrel_kfsm_request_handler.h"

namespace {

using kfsm_test::Peer_Test;
using kfsm_test::Temp_Socket;

constexpr const char* kUuid = "01234567-89ab-cdef-0123-456789abcdef";

tbs_oid_s oid_n(uint8_t seed) {
  tbs_oid_s o;
  for (int i = 0; i < 16; ++i) o.bytes[i] = uint8_t(seed + i);
  return o;
}

class KfsmIoctl : public Peer_Test {
 protected:
  Tavrel_View view{kUuid, "vtag", "unix", "", "/cache", "/stg/views/v1", 0};
  Tavrel_KFSM_Ioctl io{&view};
};

TEST_F(KfsmIoctl, RegisterSendsTheViewAndRecordsTheTag) {
  ASSERT_EQ(io.register_view(), 0);
  peer->push_status(KFSM_CMD_MKVIEW, TBS_ST_EXISTS);
  EXPECT_EQ(io.register_view(), TBS_ST_EXISTS);
  ASSERT_EQ(io.unregister_view(), 0);
  auto cmds = peer->commands();
  ASSERT_EQ(cmds.size(), 3u);
  EXPECT_EQ(cmds[0].cmd, KFSM_CMD_MKVIEW);
  EXPECT_EQ(cmds[0].flags, KFSM_FLAG_CASE_SENSITIVE);
  EXPECT_FALSE(cmds[0].pn.present || cmds[0].pn2.present);
  kfsm_mkview_args a;
  ASSERT_TRUE(kfsm_parse_mkview(cmds[0], &a));
  EXPECT_EQ(a.tag, "vtag");
  for (const std::string& p : {a.spath_u, a.spath_k, a.rpath}) EXPECT_EQ(p, "/stg/views/v1");
  EXPECT_EQ(a.host, sysutl_myhostname());
  EXPECT_EQ(tbs_uuid_to_str(a.uuid), kUuid);
  EXPECT_EQ(a.flags, 0u);
  EXPECT_EQ(Tavrel_KFSM_Request_Handler::get_instance()->get_view_tag(), "vtag");
  EXPECT_EQ(cmds[2].cmd, KFSM_CMD_RMTAG);
  std::string tag;
  ASSERT_TRUE(kfsm_parse_rmtag(cmds[2], &tag));
  EXPECT_EQ(tag, "vtag");
}

TEST_F(KfsmIoctl, MountCarriesTheFullRecord) {
  std::string storage(1100, 's');
  storage[0] = '/';
  ASSERT_EQ(io.mount_silo("/proj", storage, oid_n(1), oid_n(50)), 0);
  int raw = -1;
  ASSERT_EQ(io.umount_silo("/proj", oid_n(1), &raw), 0);
  EXPECT_EQ(raw, 0);
  auto cmds = peer->commands();
  ASSERT_EQ(cmds.size(), 2u);
  EXPECT_EQ(std::make_tuple(cmds[0].pn.text, cmds[0].pn2.text, cmds[0].flags), std::make_tuple("vtag", "vtag", 0u));
  kfsm_mount_args m;
  ASSERT_TRUE(kfsm_parse_mount(cmds[0], &m));
  EXPECT_EQ(std::make_tuple(m.version, m.size), std::make_tuple(KFSM_MOUNT_VERSION, uint16_t(KFSM_MOUNT_IMAGE)));
  EXPECT_EQ(std::make_tuple(m.word4, m.word32, m.word88, m.word92), std::make_tuple(1u, 0u, 3000u, 1u));
  EXPECT_EQ(std::make_tuple(m.mount_point, m.host, m.view_string1, m.view_string2),
            std::make_tuple("/proj", sysutl_myhostname(), "/stg/views/v1", "/stg/views/v1"));
  EXPECT_EQ(m.storage, storage.substr(0, 1024));  // a private copy of at most 1024 characters
  EXPECT_EQ(m.family, oid_n(50));
  EXPECT_EQ(0, memcmp(m.replica.bytes, oid_n(1).bytes, 16));
  kfsm_umount_args u;
  ASSERT_TRUE(kfsm_parse_umount(cmds[1], &u));
  EXPECT_EQ(u.mount_point, "/proj");
  EXPECT_EQ(0, memcmp(u.replica.bytes, oid_n(1).bytes, 16));
}

TEST_F(KfsmIoctl, ModuleStatusesBecomeAgentStatuses) {
  struct Case {
    bool mount;
    int32_t module;
    int agent;
  } cases[] = {  // each call's own status, and one through the common table
      {true, TBS_ST_EXISTS, TAVREL_ST_ALREADY_MOUNTED}, {true, TBS_ST_NOT_FOUND, TAVREL_ST_NOT_FOUND},
      {false, TBS_ST_BAD_ARG, TAVREL_ST_NOT_MOUNTED}, {false, TBS_ST_BUSY, TAVREL_ST_FAILURE}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.mount ? "mount " : "umount ") + std::to_string(c.module));
    peer->push_status(c.mount ? KFSM_CMD_MOUNT : KFSM_CMD_UMOUNT, c.module);
    int raw = -1;
    int st = c.mount ? io.mount_silo("/p", "/s", oid_n(1), oid_n(2)) : io.umount_silo("/p", oid_n(1), &raw);
    EXPECT_EQ(st, c.agent);
    if (!c.mount) {
      EXPECT_EQ(raw, c.module);  // the raw status for the caller's message
    }
  }
}

// A name's invalidation reaching the kernel: tests/e2e/kfsm.
TEST_F(KfsmIoctl, InvalidationsCarryKindAndRoot) {
  tbs_uuid_s silo;
  memset(silo.bytes, 0x5A, 16);
  tbs_oid_s obj = oid_n(9);
  ASSERT_EQ(io.view_inval_view(), 0);
  // Operation -> kind of invalidation.
  const std::pair<silo_op_t, uint32_t> ops[] = {
      {13, KFSM_INVAL_OBJ}, {14, KFSM_INVAL_OBJ_TREE}, {126, KFSM_INVAL_OBJ_MOVE}, {124, KFSM_INVAL_OBJ_ATTR}};
  for (auto& o : ops) ASSERT_EQ(io.view_inval_obj(&silo, &obj, o.first), 0);
  std::vector<kfsm_command> inval;
  for (auto& c : peer->commands())
    if (c.cmd == KFSM_CMD_INVAL) inval.push_back(c);
  ASSERT_EQ(inval.size(), 1u + std::size(ops));
  for (auto& c : inval) {  // the view root, and an empty (not a null) second name
    EXPECT_EQ(std::make_tuple(c.pn.text, c.pn2.present, c.pn2.text, c.pn2.m, c.flags),
              std::make_tuple("/view/vtag", true, "", 1u, uint32_t(KFSM_FLAG_CASE_SENSITIVE)));
  }
  kfsm_inval_args a;
  ASSERT_TRUE(kfsm_parse_inval(inval[0], &a));
  EXPECT_EQ(a.version, KFSM_INVAL_VERSION);
  EXPECT_EQ(a.kind, KFSM_INVAL_VIEW);
  EXPECT_TRUE(tbs_uuid_is_null(a.silo) && tbs_oid_is_null(a.obj));
  for (size_t i = 0; i < std::size(ops); ++i) {
    ASSERT_TRUE(kfsm_parse_inval(inval[1 + i], &a));
    EXPECT_EQ(a.kind, ops[i].second) << "op " << ops[i].first;
    EXPECT_EQ(a.name, "");
  }
  // Without a root from the module the view root is unknown: 1011, nothing sent.
  peer->set_handler(KFSM_CMD_ROOT, [](const kfsm_command&, kfsm_result_outputs*) { return TBS_ST_FAILURE; });
  size_t before = peer->commands().size();
  EXPECT_EQ(io.view_inval_view(), TBS_ST_NO_VIEW);
  for (size_t i = before; i < peer->commands().size(); ++i) EXPECT_NE(peer->commands()[i].cmd, KFSM_CMD_INVAL);
}

// An update's stream of invalidations goes over one connection, and finds a daemon that started again;
// the same when a sender thread of the object's own posts them.
TEST_F(KfsmIoctl, AKeptObjectSendsItsCommandsOverOneConnection) {
  tbs_uuid_s silo;
  memset(silo.bytes, 0x5A, 16);
  for (bool own_thread : {false, true}) {
    SCOPED_TRACE(own_thread ? "sent by its own thread" : "sent by the caller");
    {
      Tavrel_KFSM_Ioctl kept{&view};
      if (own_thread) kept.send_from_own_thread();
      else kept.keep_open();
      const int before = peer->accepted_connections();
      const size_t first = peer->commands().size();
      // Posted, not awaited: a failure the module answers later is counted, in order.
      for (int i = 0; i < 3; i++) peer->push_status(KFSM_CMD_INVAL, i == 2 ? TBS_ST_FAILURE : 0);
      // More than the sender's queue holds.
      constexpr int kPosts = 5000;
      for (int i = 0; i < kPosts; i++) {
        tbs_oid_s obj = oid_n(0);
        obj.bytes[0] = uint8_t(i);
        obj.bytes[1] = uint8_t(i >> 8);
        ASSERT_EQ(kept.view_inval_obj(&silo, &obj, 13), 0);
      }
      kept.drain();
      EXPECT_EQ(kept.posted_failures(), 1);
      auto cmds = peer->commands();
      std::vector<int> seen;  // the number each object carries: the order they were sent in
      for (size_t i = first; i < cmds.size(); ++i) {
        kfsm_inval_args a;
        if (cmds[i].cmd == KFSM_CMD_INVAL && kfsm_parse_inval(cmds[i], &a))
          seen.push_back(a.obj.bytes[0] | a.obj.bytes[1] << 8);
      }
      ASSERT_EQ(seen.size(), size_t(kPosts));
      for (int i = 0; i < kPosts; i++) ASSERT_EQ(seen[i], i);
      // One connection asked the root, one carried all the commands.
      EXPECT_EQ(peer->accepted_connections() - before, 2);
      // A command with outputs waits for the posted ones, then runs on the same handle.
      EXPECT_EQ(kept.view_inval_view(), 0);
      EXPECT_EQ(kept.view_get_xstat("/view/vtag/a", nullptr, nullptr, nullptr, nullptr, nullptr), 0);
      EXPECT_EQ(peer->accepted_connections() - before, 2);
      cmds = peer->commands();
      ASSERT_GE(cmds.size(), 2u);
      EXPECT_EQ(cmds[cmds.size() - 2].cmd, uint32_t(KFSM_CMD_INVAL));
      EXPECT_NE(cmds.back().cmd, uint32_t(KFSM_CMD_INVAL));
      peer->stop();
      peer = std::make_unique<Kfsm_Peer>(sock.path, "/view");
      ASSERT_EQ(peer->start(), 0);
      tbs_oid_s obj = oid_n(3);
      EXPECT_EQ(kept.view_inval_name(&silo, &obj, "a"), 0);
      kept.drain();
      ASSERT_EQ(peer->commands().size(), 1u);
      kfsm_inval_args a;
      ASSERT_TRUE(kfsm_parse_inval(peer->commands()[0], &a));
      EXPECT_EQ(a.name, "a");
      EXPECT_EQ(kept.posted_failures(), 1);
    }
    // Deleting the object closes its handle.
    EXPECT_TRUE(peer->wait_closed(1));
  }
}

// A sender thread sends a few invalidations soon without being asked, and an object deleted with
// invalidations still queued sends them all first.
TEST_F(KfsmIoctl, ASenderThreadSendsWhatWaitsWithoutBeingAsked) {
  tbs_uuid_s silo;
  memset(silo.bytes, 0x5A, 16);
  const size_t first = peer->commands().size();
  {
    Tavrel_KFSM_Ioctl kept{&view};
    kept.send_from_own_thread();
    for (int i = 0; i < 3; i++) {
      tbs_oid_s obj = oid_n(uint8_t(i));
      ASSERT_EQ(kept.view_inval_obj(&silo, &obj, 13), 0);
    }
    // Fewer than a batch, and no drain: they leave once the sender has waited for more. The root is
    // asked first.
    ASSERT_TRUE(peer->wait_commands(first + 4));
    for (int i = 3; i < 300; i++) {
      tbs_oid_s obj = oid_n(uint8_t(i));
      ASSERT_EQ(kept.view_inval_obj(&silo, &obj, 13), 0);
    }
  }
  std::vector<int> seen;
  for (const kfsm_command& c : peer->commands()) {
    kfsm_inval_args a;
    if (c.cmd == KFSM_CMD_INVAL && kfsm_parse_inval(c, &a)) seen.push_back(a.obj.bytes[0]);
  }
  ASSERT_EQ(seen.size(), 300u);
  for (int i = 0; i < 300; i++) ASSERT_EQ(seen[i], uint8_t(i));
}

// What the answer carries reaches the caller through the real daemon (tests/e2e/kfsm); here the
// no-follow flag, and a failure that leaves the caller's memory alone.
TEST_F(KfsmIoctl, XstatFollowsOrNotAndCopiesNothingOnFailure) {
  peer->set_handler(KFSM_CMD_XSTAT, [](const kfsm_command& c, kfsm_result_outputs* o) -> int32_t {
    if (c.pn.text == "/view/vtag/proj/missing") return TBS_ST_NO_SUCH_NAME;
    o->has_vstat = true;
    o->vstat.fstat.type = (c.flags & KFSM_FLAG_NOFOLLOW) ? 5 : 1;
    o->flag = 3;
    return 0;
  });
  view_vstat vs;
  int flag = -1;
  ASSERT_EQ(io.view_get_xstat("/view/vtag/proj/a.c", &vs, nullptr, nullptr, &flag, nullptr), 0);
  EXPECT_EQ(std::make_tuple(vs.fstat.type, flag), std::make_tuple(1u, 3));
  ASSERT_EQ(io.view_lget_xstat("/view/vtag/proj/a.c", &vs, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(vs.fstat.type, 5u);
  memset(&vs, 0x11, sizeof vs);
  EXPECT_EQ(io.view_get_xstat("/view/vtag/proj/missing", &vs, nullptr, nullptr, nullptr, nullptr), TBS_ST_NO_SUCH_NAME);
  EXPECT_EQ(vs.fstat.type, 0x11111111u);
}

TEST_F(KfsmIoctl, AgentQuestions) {
  std::string root = "unchanged", suffix = "x";
  EXPECT_EQ(KFSM_Agent_Ioctl::get_kfsm_root(1, root), 0);
  EXPECT_EQ(root, "/view");
  EXPECT_EQ(KFSM_Agent_Ioctl::get_extended_naming_suffix(1, suffix), 0);
  EXPECT_EQ(suffix, "");
  peer->set_handler(KFSM_CMD_ROOT, [](const kfsm_command&, kfsm_result_outputs*) { return TBS_ST_NO_VIEW; });
  root = "unchanged";
  EXPECT_EQ(KFSM_Agent_Ioctl::get_kfsm_root(1, root), TBS_ST_NO_VIEW);
  EXPECT_EQ(root, "unchanged");
}

// Nothing listens, or a socket file is left whose listener is gone: every call fails at once with
// "service not available" (1001), and the agent's calls with a status, instead of hanging.
TEST(KfsmNoModule, EveryCallFailsWithAStatus) {
  Temp_Socket sock;
  for (bool stale_socket : {false, true}) {
    SCOPED_TRACE(stale_socket ? "stale socket" : "no socket");
    if (stale_socket) {
      int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
      struct sockaddr_un a;
      memset(&a, 0, sizeof a);
      a.sun_family = AF_UNIX;
      strcpy(a.sun_path, sock.path.c_str());
      ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
      close(fd);
    }
    int err = 0;
    EXPECT_EQ(kfsm_view_root_open_sil_type(1, &err, 1), 0);
    EXPECT_EQ(err, TBS_ST_FAILURE);
    Tavrel_View view{kUuid, "vtag", "unix", "", "/cache", "/stg/v", 0};
    Tavrel_KFSM_Ioctl io(&view);
    EXPECT_EQ(io.register_view(), TBS_ST_FAILURE);
    EXPECT_EQ(io.mount_silo("/p", "/s", oid_n(1), oid_n(2)), TAVREL_ST_FAILURE);
    std::string root = "r";
    EXPECT_EQ(KFSM_Agent_Ioctl::get_kfsm_root(1, root), TBS_ST_FAILURE);
    EXPECT_EQ(root, "r");
  }
  kfsmcmd_block b{};
  int err = 0;
  kfsm_mcb_cmd(12345, &b, &err);
  EXPECT_EQ(err, EBADF);
}

}  // namespace
