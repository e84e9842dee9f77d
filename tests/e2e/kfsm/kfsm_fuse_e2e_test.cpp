// The module daemon with FUSE, end to end: a real tavrel_kfsmd process, and this process as the
// agent with the agent's own kernel channel (Tavrel_KFSM_Ioctl, the LPC threads). The view protocol
// operations are not part of this program, so the agent's threads serve requests with either no
// handler at all (every request gets rpc_status 5) or a small scripted tree (one directory, one file).
//
// Skipped, with the reason, where a FUSE file system cannot be mounted; with TAVREL_REQUIRE_FUSE=1 the
// skip is a failure. Every mount is made under a temporary directory and removed in the teardown.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "core/tavrel_config.h"
#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_view.h"
#include "kfsm/libkfsm.h"
#include "kfsm/tavrel_kfsm_ioctl.h"
#include "kfsm/tavrel_kfsm_request_handler.h"
#include "kfsm/tavrel_kfsm_thread_unix.h"
#include "kfsmd/fuse/kfsmd_fuse_mount.h"
#include "tests/e2e/e2e_fuse.h"
#include "proto/view_records.h"

namespace {

using namespace std::chrono_literals;

constexpr const char* kViewTag = "e2eview";
constexpr const char* kViewUuid = "0badc0de-1234-4567-89ab-0123456789ab";
constexpr const char* kContent = "hello world\n";

tbs_oid_s oid_n(uint8_t seed) {
  tbs_oid_s o;
  for (int i = 0; i < 16; ++i) o.bytes[i] = uint8_t(seed + i);
  return o;
}

// ---- the agent's side of the view protocol, scripted ----

std::atomic<int> g_calls[256];
tbs_oid_s g_dir_oid = oid_n(10), g_file_oid = oid_n(20);

int calls(int op) { return g_calls[op].load(); }

bool no_handler(int rpc, XDR*, XDR*, int*) {
  if (rpc >= 0 && rpc < 256) g_calls[rpc]++;
  return false;
}

view_vstat_t vstat_of(uint32_t dbid) {
  view_vstat_t v;
  memset(&v, 0, sizeof v);
  if (dbid == 1) {
    v.fstat.type = 2;
    v.fstat.mode = 0755;
    v.fstat.nlink = 2;
    v.mtype = SILO_MTYPE_DIR_VER;
    v.obj_oid = g_dir_oid;
  } else {
    v.fstat.type = 1;
    v.fstat.mode = 0444;
    v.fstat.nlink = 1;
    v.fstat.size = strlen(kContent);
    v.mtype = SILO_MTYPE_FILE_VER;
    v.obj_oid = g_file_oid;
  }
  v.fstat.owner = CREDUTL_SID_DONTCARE;
  v.fstat.group = CREDUTL_SID_DONTCARE;
  v.fstat.mtime = {1700000000, 0};
  return v;
}

view_fhandle_t fh_of(const tbs_uuid_s& silo, uint32_t dbid) {
  return view_fhandle_t{silo, dbid, dbid, 1, 0, 0};
}

template <typename Q>
bool decode(XDR* in, bool_t (*f)(XDR*, Q*), Q* q) {
  memset(q, 0, sizeof *q);
  return f(in, q);
}

template <typename Q>
void release(bool_t (*f)(XDR*, Q*), Q* q) {
  XDR x;
  xdrmem_create(&x, nullptr, 0, XDR_FREE);
  f(&x, q);
}

// One directory (dbid 1) holding one file "hello" (dbid 2) whose cleartext is "c/hello" in the cache.
bool scripted_tree(int rpc, XDR* in, XDR* out, int* rpc_status) {
  if (rpc >= 0 && rpc < 256) g_calls[rpc]++;
  *rpc_status = KFSM_RPC_DONE;
  bool ok = false;
  switch (rpc) {
    case 105: {
      view_replica_root_req_t q;
      if (!decode(in, &xdr_view_replica_root_req_t, &q)) return *rpc_status = KFSM_RPC_DECODE, true;
      view_getattr_reply_t r;
      memset(&r, 0, sizeof r);
      r.hdr.xid = q.hdr.xid;
      r.vstat = vstat_of(1);
      r.fh = fh_of(q.replica_uuid, 1);
      release(&xdr_view_replica_root_req_t, &q);
      ok = xdr_view_getattr_reply_t(out, &r);
      break;
    }
    case 108: {
      view_getattr_req_t q;
      if (!decode(in, &xdr_view_getattr_req_t, &q)) return *rpc_status = KFSM_RPC_DECODE, true;
      view_getattr_reply_t r;
      memset(&r, 0, sizeof r);
      r.hdr.xid = q.hdr.xid;
      r.vstat = vstat_of(q.fh.ver_dbid);
      r.fh = q.fh;
      ok = xdr_view_getattr_reply_t(out, &r);
      break;
    }
    case 107: {
      view_lookup_req_t q;
      if (!decode(in, &xdr_view_lookup_req_t, &q)) return *rpc_status = KFSM_RPC_DECODE, true;
      view_lookup_reply_t r;
      memset(&r, 0, sizeof r);
      r.hdr.xid = q.hdr.xid;
      // A name, or "." with the rest of a path to walk (only "hello" exists).
      std::string residual = q.residual ? q.residual : "";
      std::string want = strcmp(q.name, ".") == 0 ? residual : std::string(q.name);
      if (q.dir.ver_dbid == 1 && (want == "hello" || want.empty())) {
        uint32_t dbid = want.empty() ? 1 : 2;
        r.fh = fh_of(q.dir.silo, dbid);
        r.vstat = vstat_of(dbid);
        r.cacheable = 1;
        r.consumed = residual.size();
      } else {
        r.hdr.status = 1052;
      }
      release(&xdr_view_lookup_req_t, &q);
      ok = xdr_view_lookup_reply_t(out, &r);
      break;
    }
    case 10: {
      view_readdir_req_t q;
      if (!decode(in, &xdr_view_readdir_req_t, &q)) return *rpc_status = KFSM_RPC_DECODE, true;
      view_readdir_reply_t r;
      memset(&r, 0, sizeof r);
      r.hdr.xid = q.hdr.xid;
      char buf[512];
      r.buffer = buf;
      r.capacity = sizeof buf;
      const struct {
        const char* name;
        uint32_t ino, off;
      } entries[] = {{".", 1, 1}, {"..", 1, 2}, {"hello", 2, 3}};
      for (auto& e : entries)
        if (e.off > q.cursor) view_dirent_append(&r, e.ino, e.off, e.name);
      r.eof = 1;
      ok = xdr_view_readdir_reply_t(out, &r);
      break;
    }
    case 12: {
      view_readlink_req_t q;
      if (!decode(in, &xdr_view_readlink_req_t, &q)) return *rpc_status = KFSM_RPC_DECODE, true;
      view_cltxt_reply_t r;
      memset(&r, 0, sizeof r);
      r.hdr.xid = q.hdr.xid;
      char path[] = "c/hello";
      r.path = path;
      r.len = strlen(path);
      r.rel_to_cache = 1;
      ok = xdr_view_cltxt_reply_t(out, &r);
      break;
    }
    default:
      *rpc_status = KFSM_RPC_UNKNOWN;
      return true;
  }
  if (!ok) *rpc_status = KFSM_RPC_ENCODE;
  return true;
}

// ---- mounts ----

std::vector<std::string> mounts_under(const std::string& base) {
  std::vector<std::string> out;
  std::ifstream f("/proc/mounts");
  std::string line;
  while (std::getline(f, line)) {
    std::istringstream ls(line);
    std::string dev, mp;
    ls >> dev >> mp;
    if (mp.compare(0, base.size(), base) == 0) out.push_back(mp);
  }
  return out;
}

std::string mount_line(const std::string& mp) {
  std::ifstream f("/proc/mounts");
  std::string line;
  while (std::getline(f, line)) {
    std::istringstream ls(line);
    std::string dev, p;
    ls >> dev >> p;
    if (p == mp) return line;
  }
  return "";
}

class KfsmFuse : public ::testing::Test {
 protected:
  void SetUp() override {
    TAVREL_E2E_NEED_FUSE();
    for (auto& c : g_calls) c = 0;
    char tmpl[] = "/tmp/kfsm_e2e.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    base = tmpl;
    root = base + "/view";
    sock = base + "/kfsm.sock";
    storage = base + "/stg";
    cache = base + "/cache";
    ASSERT_EQ(mkdir(storage.c_str(), 0700), 0);
    ASSERT_EQ(mkdir(cache.c_str(), 0700), 0);
    ASSERT_EQ(mkdir((cache + "/c").c_str(), 0700), 0);
    std::ofstream(cache + "/c/hello") << kContent;
    std::ofstream(storage + "/.tavrel") << "versionid=1.0\nview-uuid=" << kViewUuid << "\ncltxt-cache-dir=" << cache << "\n";
    setenv("TAVREL_KFSM_SOCKET", sock.c_str(), 1);
    setenv("TAVREL_VIEW_ROOT", root.c_str(), 1);
    start_daemon();
    view = std::make_unique<Tavrel_View>(kViewUuid, kViewTag, "unix", "", cache, storage, 0);
    mp = root + "/" + kViewTag + "/proj";
  }

  void start_daemon() {
    const char* bin = getenv("TAVREL_BIN_DIR");
    std::string prog = std::string(bin ? bin : ".") + "/tavrel_kfsmd";
    daemon = fork();
    ASSERT_GE(daemon, 0);
    if (daemon == 0) {
      execl(prog.c_str(), prog.c_str(), "--socket", sock.c_str(), "--root", root.c_str(), "--lpc-wait", "5",
            static_cast<char*>(nullptr));
      _exit(127);
    }
    // Ready when the socket answers.
    for (int i = 0; i < 500; ++i) {
      int err = 0;
      int h = kfsm_view_root_open_sil_type(1, &err, 1);
      if (h) {
        kfsm_view_root_close_type(1, h);
        return;
      }
      int status;
      ASSERT_EQ(waitpid(daemon, &status, WNOHANG), 0) << "tavrel_kfsmd ended at start";
      std::this_thread::sleep_for(20ms);
    }
    FAIL() << "tavrel_kfsmd did not come up";
  }

  void start_agent(Tavrel_KFSM_Dispatch dispatch, int threads = 3) {
    Tavrel_KFSM_Thread_Unix::set_dispatcher(dispatch);
    setenv("HOME", "/nonexistent-tavrel-home", 1);
    Tavrel_Config::reset_for_test();
    Tavrel_Config::get_instance()->load_text("tavrelNumCmapi=2\ntavrelNumKfsm=" + std::to_string(threads) + "\n");
    mgr = Tavrel_Thread_Manager_Base::get_instance();
    ASSERT_EQ(mgr->initialize(), 0);
    ASSERT_EQ(io().register_view(), 0);
    ASSERT_EQ(Tavrel_KFSM_Request_Handler::get_instance()->start_listening(), 0);
  }

  Tavrel_KFSM_Ioctl io() { return Tavrel_KFSM_Ioctl(view.get()); }

  void TearDown() override {
    if (base.empty()) return;
    if (view) io().unregister_view();
    for (const std::string& m : mounts_under(base))
      if (umount2(m.c_str(), 0) != 0) umount2(m.c_str(), MNT_DETACH);
    if (daemon > 0) {
      kill(daemon, SIGTERM);
      int status;
      waitpid(daemon, &status, 0);
    }
    if (mgr) {
      mgr->set_should_exit();
      mgr->drain_incomplete();
      mgr->terminate();
      Tavrel_Thread_Manager_Base::destroy_instance();
    }
    kfsm_set_wakeup_fd(-1);
    Tavrel_KFSM_Request_Handler::destroy_instance();
    Tavrel_KFSM_Thread_Unix::set_dispatcher(nullptr);
    Tavrel_Config::reset_for_test();
    view.reset();
    EXPECT_TRUE(mounts_under(base).empty()) << "a mount survived the test";
    std::string cmd = "rm -rf '" + base + "'";
    if (mounts_under(base).empty()) {
      EXPECT_EQ(system(cmd.c_str()), 0);
    }
  }

  std::string base, root, sock, storage, cache, mp;
  pid_t daemon = -1;
  std::unique_ptr<Tavrel_View> view;
  Tavrel_Thread_Manager_Base* mgr = nullptr;
};

TEST_F(KfsmFuse, MountAppearsALookupReachesTheAgentAndUnmountRemovesIt) {
  start_agent(&no_handler);
  ASSERT_EQ(io().mount_silo("/proj", "/silos/proj", oid_n(1), oid_n(2)), 0);
  std::string line = mount_line(mp);
  ASSERT_FALSE(line.empty()) << "no mount at " << mp;
  EXPECT_NE(line.find("tavrel:e2eview:proj"), std::string::npos) << line;
  EXPECT_NE(line.find("fuse.tavrel"), std::string::npos) << line;
  EXPECT_EQ(io().mount_silo("/proj", "/silos/proj", oid_n(1), oid_n(2)), TAVREL_ST_ALREADY_MOUNTED);

  // The first use binds the SILO root with a Root RPC, which the agent's threads receive and answer
  // with "no handler": the caller sees EIO.
  struct stat st;
  errno = 0;
  EXPECT_EQ(stat((mp + "/x").c_str(), &st), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_GE(calls(105), 1);

  int raw = -1;
  ASSERT_EQ(io().umount_silo("/proj", oid_n(1), &raw), 0);
  EXPECT_EQ(raw, 0);
  EXPECT_TRUE(mount_line(mp).empty());
  EXPECT_NE(access(mp.c_str(), F_OK), 0);  // the mount point is gone too
  EXPECT_EQ(io().umount_silo("/proj", oid_n(1), &raw), TAVREL_ST_NOT_MOUNTED);
  EXPECT_EQ(raw, 1072);
}

TEST_F(KfsmFuse, FilesListAndReadThroughTheMountAndInvalidationReachesTheKernel) {
  start_agent(&scripted_tree);
  ASSERT_EQ(io().mount_silo("/proj", "/silos/proj", oid_n(1), oid_n(2)), 0);

  std::vector<std::string> names;
  DIR* d = opendir(mp.c_str());
  ASSERT_NE(d, nullptr) << strerror(errno);
  while (struct dirent* e = readdir(d)) names.push_back(e->d_name);
  closedir(d);
  EXPECT_EQ(names, (std::vector<std::string>{".", "..", "hello"}));

  std::ifstream f(mp + "/hello");
  std::stringstream ss;
  ss << f.rdbuf();
  EXPECT_EQ(ss.str(), kContent);
  struct stat st;
  ASSERT_EQ(stat((mp + "/hello").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, off_t(strlen(kContent)));
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(st.st_mode & 07777, 0444u);
  EXPECT_EQ(st.st_ino, 2u);
  errno = 0;
  EXPECT_EQ(open((mp + "/hello").c_str(), O_WRONLY), -1);
  EXPECT_EQ(errno, EROFS);
  errno = 0;
  EXPECT_EQ(stat((mp + "/missing").c_str(), &st), -1);
  EXPECT_EQ(errno, ENOENT);

  // The name stays in the kernel (cacheable, 30 s) until the agent says otherwise.
  const int lookups = calls(107);
  ASSERT_EQ(stat((mp + "/hello").c_str(), &st), 0);
  EXPECT_EQ(calls(107), lookups);
  tbs_uuid_s replica;
  memcpy(replica.bytes, oid_n(1).bytes, 16);
  ASSERT_EQ(io().view_inval_name(&replica, &g_dir_oid, "hello"), 0);
  bool asked_again = false;
  for (int i = 0; i < 250 && !asked_again; ++i) {
    ASSERT_EQ(stat((mp + "/hello").c_str(), &st), 0);
    asked_again = calls(107) > lookups;
    if (!asked_again) std::this_thread::sleep_for(20ms);
  }
  EXPECT_TRUE(asked_again) << "the invalidation did not reach the kernel";

  // xstat through the daemon: the same object, resolved by the agent.
  view_vstat vs;
  memset(&vs, 0, sizeof vs);
  tbs_oid_s oid;
  tbs_uuid_s uuid, uuid2;
  ASSERT_EQ(io().view_get_xstat(mp + "/hello", &vs, &oid, &uuid, nullptr, &uuid2), 0);
  EXPECT_EQ(vs.fstat.size, strlen(kContent));
  EXPECT_EQ(oid, g_file_oid);
  EXPECT_EQ(uuid, replica);
  EXPECT_EQ(tbs_uuid_to_str(uuid2), kViewUuid);
  EXPECT_EQ(io().view_get_xstat(mp + "/nothing", &vs, nullptr, nullptr, nullptr, nullptr), 1052);
  EXPECT_EQ(io().view_get_xstat(root + "/" + kViewTag + "/elsewhere", &vs, nullptr, nullptr, nullptr, nullptr), 1052);
}

TEST_F(KfsmFuse, BusyMountIsRefusedAndStaysMounted) {
  start_agent(&scripted_tree);
  ASSERT_EQ(io().mount_silo("/proj", "/silos/proj", oid_n(1), oid_n(2)), 0);
  int go[2], ready[2];
  ASSERT_EQ(pipe(go), 0);
  ASSERT_EQ(pipe(ready), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    char c = chdir(mp.c_str()) == 0 ? 'y' : 'n';
    if (write(ready[1], &c, 1) != 1) _exit(2);
    if (read(go[0], &c, 1) < 0) _exit(3);
    _exit(0);
  }
  char c = 0;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  ASSERT_EQ(c, 'y') << "the child could not enter the mount";
  int raw = -1;
  EXPECT_EQ(io().umount_silo("/proj", oid_n(1), &raw), TAVREL_ST_FAILURE);
  EXPECT_EQ(raw, 1088);
  EXPECT_FALSE(mount_line(mp).empty()) << "a busy mount was taken away";
  ASSERT_EQ(write(go[1], "x", 1), 1);
  int status;
  waitpid(child, &status, 0);
  for (int f : {go[0], go[1], ready[0], ready[1]}) close(f);
  EXPECT_EQ(io().umount_silo("/proj", oid_n(1), &raw), 0);
  EXPECT_TRUE(mount_line(mp).empty());
}

TEST_F(KfsmFuse, EndOfViewLetsTheThreadsGoDetachesTheMountsAndAStartAgainWorks) {
  start_agent(&scripted_tree);
  ASSERT_EQ(io().mount_silo("/proj", "/silos/proj", oid_n(1), oid_n(2)), 0);
  ASSERT_EQ(io().mount_silo("/other", "/silos/other", oid_n(3), oid_n(4)), 0);
  // The agent starts again with the same view: the mounts stay.
  ASSERT_EQ(io().register_view(), 0);
  EXPECT_FALSE(mount_line(mp).empty());
  EXPECT_EQ(io().mount_silo("/proj", "/silos/proj", oid_n(1), oid_n(2)), TAVREL_ST_ALREADY_MOUNTED);
  struct stat st;
  ASSERT_EQ(stat((mp + "/hello").c_str(), &st), 0);

  ASSERT_EQ(io().unregister_view(), 0);
  // The LPC threads were given 1046 and end without any other wake-up: only the cleanup thread and
  // the pool of two stay.
  bool ended = false;
  for (int i = 0; i < 500 && !ended; ++i) {
    ended = mgr->counters().live == 3;
    if (!ended) std::this_thread::sleep_for(20ms);
  }
  EXPECT_TRUE(ended) << "LPC threads still live: " << mgr->counters().live - 3;
  EXPECT_TRUE(mounts_under(base).empty());
  EXPECT_NE(access((root + "/" + kViewTag).c_str(), F_OK), 0);
  mgr->set_should_exit();
  mgr->drain_incomplete();
  mgr->terminate();
  Tavrel_Thread_Manager_Base::destroy_instance();
  mgr = nullptr;
  Tavrel_KFSM_Request_Handler::destroy_instance();
  kfsm_set_wakeup_fd(-1);

  // And the view comes back: registered again, its SILO mounted again, served again.
  start_agent(&scripted_tree);
  ASSERT_EQ(io().mount_silo("/proj", "/silos/proj", oid_n(1), oid_n(2)), 0);
  ASSERT_EQ(stat((mp + "/hello").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, off_t(strlen(kContent)));
}

}  // namespace
