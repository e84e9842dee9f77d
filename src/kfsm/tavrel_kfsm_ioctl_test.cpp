// The agent's downcalls against a scripted module: what each command carries, and how the module's
// statuses come back to the agent.
#include "kfsm/tavrel_kfsm_ioctl.h"

#include <cerrno>
#include <cstring>

#include "base/sysutl.h"
#include "core/tavrel_status.h"
#include "core/tavrel_view.h"
#include "kfsm/kfsm_agent_ioctl.h"
#include "kfsm/kfsm_test_util.h"
#include "kfsm/kfsm_view_hooks.h"
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
  auto cmds = peer->commands();
  ASSERT_EQ(cmds.size(), 1u);
  EXPECT_EQ(cmds[0].cmd, KFSM_CMD_MKVIEW);
  EXPECT_EQ(cmds[0].flags, 2u);
  EXPECT_FALSE(cmds[0].pn.present);
  EXPECT_FALSE(cmds[0].pn2.present);
  kfsm_mkview_args a;
  ASSERT_TRUE(kfsm_parse_mkview(cmds[0], &a));
  EXPECT_EQ(a.tag, "vtag");
  EXPECT_EQ(a.spath_u, "/stg/views/v1");
  EXPECT_EQ(a.spath_k, "/stg/views/v1");
  EXPECT_EQ(a.rpath, "/stg/views/v1");
  EXPECT_EQ(a.host, sysutl_myhostname());
  EXPECT_EQ(tbs_uuid_to_str(a.uuid), kUuid);
  EXPECT_EQ(a.flags, 0u);
  EXPECT_EQ(Tavrel_KFSM_Request_Handler::get_instance()->get_view_tag(), "vtag");

  peer->push_status(KFSM_CMD_MKVIEW, 1067);
  EXPECT_EQ(io.register_view(), 1067);
  ASSERT_EQ(io.unregister_view(), 0);
  cmds = peer->commands();
  ASSERT_EQ(cmds.size(), 3u);
  EXPECT_EQ(cmds[2].cmd, KFSM_CMD_RMTAG);
  EXPECT_EQ(cmds[2].flags, 2u);
  std::string tag;
  ASSERT_TRUE(kfsm_parse_rmtag(cmds[2], &tag));
  EXPECT_EQ(tag, "vtag");
}

TEST_F(KfsmIoctl, MountCarriesTheFullRecord) {
  std::string storage(1100, 's');
  storage[0] = '/';
  ASSERT_EQ(io.mount_silo("/proj", storage, oid_n(1), oid_n(50)), 0);
  auto cmds = peer->commands();
  ASSERT_EQ(cmds.size(), 1u);
  EXPECT_EQ(cmds[0].pn.text, "vtag");
  EXPECT_EQ(cmds[0].pn2.text, "vtag");
  EXPECT_EQ(cmds[0].flags, 0u);
  kfsm_mount_args m;
  ASSERT_TRUE(kfsm_parse_mount(cmds[0], &m));
  EXPECT_EQ(m.version, 12);
  EXPECT_EQ(m.size, 248);
  EXPECT_EQ(m.word4, 1u);
  EXPECT_EQ(m.word32, 0u);
  EXPECT_EQ(m.word88, 3000u);
  EXPECT_EQ(m.word92, 1u);
  EXPECT_EQ(m.mount_point, "/proj");
  EXPECT_EQ(m.host, sysutl_myhostname());
  EXPECT_EQ(m.view_string1, "/stg/views/v1");
  EXPECT_EQ(m.view_string2, "/stg/views/v1");
  EXPECT_EQ(m.storage, storage.substr(0, 1024));  // a private copy of at most 1024 characters
  EXPECT_EQ(m.family, oid_n(50));
  EXPECT_EQ(0, memcmp(m.replica.bytes, oid_n(1).bytes, 16));

  int raw = -1;
  ASSERT_EQ(io.umount_silo("/proj", oid_n(1), &raw), 0);
  EXPECT_EQ(raw, 0);
  kfsm_umount_args u;
  ASSERT_TRUE(kfsm_parse_umount(peer->commands()[1], &u));
  EXPECT_EQ(u.mount_point, "/proj");
  EXPECT_EQ(0, memcmp(u.replica.bytes, oid_n(1).bytes, 16));
}

TEST_F(KfsmIoctl, ModuleStatusesBecomeAgentStatuses) {
  struct Case {
    bool mount;
    int32_t module;
    int agent;
  } cases[] = {
      {true, 0, 0},           {true, 1067, TAVREL_ST_ALREADY_MOUNTED}, {true, 1002, TAVREL_ST_NOT_FOUND},
      {true, 1001, TAVREL_ST_FAILURE}, {false, 1072, TAVREL_ST_NOT_MOUNTED}, {false, 1088, TAVREL_ST_FAILURE},
      {false, 1052, TAVREL_ST_NOT_FOUND},
  };
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

TEST_F(KfsmIoctl, InvalidationsCarryKindRootAndNames) {
  tbs_uuid_s silo;
  memset(silo.bytes, 0x5A, 16);
  tbs_oid_s obj = oid_n(9);
  ASSERT_EQ(io.view_inval_view(), 0);
  ASSERT_EQ(io.view_inval_name(&silo, &obj, "leaf.c"), 0);
  struct {
    silo_op_t op;
    uint32_t kind;
  } ops[] = {{13, 2}, {10, 2}, {14, 5}, {17, 5}, {27, 5}, {32, 5}, {66, 5}, {126, 6}, {131, 6}, {124, 7}, {130, 7}, {0, 2}};
  for (auto& o : ops) ASSERT_EQ(io.view_inval_obj(&silo, &obj, o.op), 0);
  std::vector<kfsm_command> inval;
  for (auto& c : peer->commands())
    if (c.cmd == KFSM_CMD_INVAL) inval.push_back(c);
  ASSERT_EQ(inval.size(), 2u + std::size(ops));
  for (auto& c : inval) {
    EXPECT_EQ(c.pn.text, "/view/vtag");
    EXPECT_TRUE(c.pn2.present);
    EXPECT_EQ(c.pn2.text, "");
    EXPECT_EQ(c.pn2.m, 1u);
    EXPECT_EQ(c.flags, 2u);
  }
  kfsm_inval_args a;
  ASSERT_TRUE(kfsm_parse_inval(inval[0], &a));
  EXPECT_EQ(a.version, 5u);
  EXPECT_EQ(a.kind, 3u);
  EXPECT_TRUE(tbs_uuid_is_null(a.silo));
  EXPECT_TRUE(tbs_oid_is_null(a.obj));
  ASSERT_TRUE(kfsm_parse_inval(inval[1], &a));
  EXPECT_EQ(a.kind, 1u);
  EXPECT_EQ(a.silo, silo);
  EXPECT_EQ(a.obj, obj);
  EXPECT_EQ(a.name, "leaf.c");
  for (size_t i = 0; i < std::size(ops); ++i) {
    ASSERT_TRUE(kfsm_parse_inval(inval[2 + i], &a));
    EXPECT_EQ(a.kind, ops[i].kind) << "op " << ops[i].op;
    EXPECT_EQ(a.name, "");
  }

  // Without a root from the module the view root is unknown: 1011, nothing sent.
  peer->set_handler(KFSM_CMD_ROOT, [](const kfsm_command&, kfsm_result_outputs*) { return 1001; });
  size_t before = peer->commands().size();
  EXPECT_EQ(io.view_inval_view(), 1011);
  for (size_t i = before; i < peer->commands().size(); ++i) EXPECT_NE(peer->commands()[i].cmd, KFSM_CMD_INVAL);
}

TEST_F(KfsmIoctl, XstatFollowsOrNotAndCopiesTheModulesAnswer) {
  peer->set_handler(KFSM_CMD_XSTAT, [](const kfsm_command& c, kfsm_result_outputs* o) {
    if (c.pn.text == "/view/vtag/proj/missing") return 1052;
    o->has_vstat = true;
    o->vstat.fstat.type = (c.flags & KFSM_FLAG_NOFOLLOW) ? 5 : 1;
    o->vstat.fstat.size = 1234;
    o->vstat.obj_oid = oid_n(3);
    o->oid = oid_n(3);
    memset(o->uuid.bytes, 4, 16);
    o->flag = 0;
    memset(o->uuid2.bytes, 6, 16);
    return 0;
  });
  view_vstat vs;
  tbs_oid_s oid;
  tbs_uuid_s uuid, uuid2;
  int flag = -1;
  ASSERT_EQ(io.view_get_xstat("/view/vtag/proj/a.c", &vs, &oid, &uuid, &flag, &uuid2), 0);
  EXPECT_EQ(vs.fstat.type, 1u);
  EXPECT_EQ(vs.fstat.size, 1234u);
  EXPECT_EQ(oid, oid_n(3));
  EXPECT_EQ(uuid.bytes[0], 4);
  EXPECT_EQ(uuid2.bytes[15], 6);
  EXPECT_EQ(flag, 0);
  ASSERT_EQ(io.view_lget_xstat("/view/vtag/proj/a.c", &vs, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(vs.fstat.type, 5u);
  memset(&vs, 0x11, sizeof vs);
  EXPECT_EQ(io.view_get_xstat("/view/vtag/proj/missing", &vs, nullptr, nullptr, nullptr, nullptr), 1052);
  EXPECT_EQ(vs.fstat.type, 0x11111111u);  // nothing copied on failure
  auto cmds = peer->commands();
  ASSERT_EQ(cmds.size(), 3u);
  EXPECT_EQ(cmds[0].flags, 2u);
  EXPECT_EQ(cmds[1].flags, 3u);
  EXPECT_EQ(cmds[0].pn.text, cmds[0].pn2.text);
}

TEST_F(KfsmIoctl, AgentQuestionsAndViewSeams) {
  std::string root = "unchanged";
  EXPECT_EQ(KFSM_Agent_Ioctl::get_kfsm_root(1, root), 0);
  EXPECT_EQ(root, "/view");
  std::string suffix = "x";
  EXPECT_EQ(KFSM_Agent_Ioctl::get_extended_naming_suffix(1, suffix), 0);
  EXPECT_EQ(suffix, "");
  peer->set_handler(KFSM_CMD_ROOT, [](const kfsm_command&, kfsm_result_outputs*) { return 1011; });
  root = "unchanged";
  EXPECT_EQ(KFSM_Agent_Ioctl::get_kfsm_root(1, root), 1011);
  EXPECT_EQ(root, "unchanged");

  Tavrel_View_Hooks hooks;
  tavrel_kfsm_fill_view_hooks(&hooks);
  ASSERT_NE(hooks.register_view, nullptr);
  EXPECT_EQ(hooks.register_view(&view), 0);
  EXPECT_EQ(hooks.unregister_view(&view), 0);
  EXPECT_EQ(hooks.get_kfsm_root(&root), 1011);
}

TEST(KfsmIoctlNoModule, RegisterFailsWithAStatusInsteadOfHanging) {
  Temp_Socket sock;
  Tavrel_View view{kUuid, "vtag", "unix", "", "/cache", "/stg/v", 0};
  Tavrel_KFSM_Ioctl io(&view);
  int st = io.register_view();
  EXPECT_NE(st, 0);
  EXPECT_NE(Tavrel_View::tbs_to_tavrel_status(st), 0);
  EXPECT_EQ(st, 1001);  // service not available
  EXPECT_EQ(io.mount_silo("/p", "/s", oid_n(1), oid_n(2)), TAVREL_ST_FAILURE);
  std::string root = "r";
  EXPECT_EQ(KFSM_Agent_Ioctl::get_kfsm_root(1, root), 1001);
  EXPECT_EQ(root, "r");
}

}  // namespace
