// The module daemon with FUSE, end to end: a real tavrel_kfsmd process, and this process as the
// agent with the agent's own kernel channel (Tavrel_KFSM_Ioctl, the LPC threads). The view protocol
// operations are not part of this program: the agent's threads hand requests to the scripted agent
// (one directory holding one file "hello"), which may also make no handler (rpc_status 5).
//
// Skipped, with the reason, where a FUSE file system cannot be mounted; with TAVREL_REQUIRE_FUSE=1 the
// skip is a failure. Every mount is made under a temporary directory and removed in the teardown.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
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
#include "kfsmd/core/kfsmd_rpc.h"
#include "kfsmd/core/kfsmd_scripted_agent.h"
#include "tests/e2e/e2e_fuse.h"
#include "proto/view_records.h"
#include "proto/view_storage_names.h"

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

// The mounts of the kernel's table whose mount point starts with `prefix`: (mount point, line).
std::vector<std::pair<std::string, std::string>> mounts(const std::string& prefix) {
  std::vector<std::pair<std::string, std::string>> out;
  std::ifstream f("/proc/mounts");
  std::string line;
  while (std::getline(f, line)) {
    std::istringstream ls(line);
    std::string dev, mp;
    ls >> dev >> mp;
    if (mp.compare(0, prefix.size(), prefix) == 0) out.emplace_back(mp, line);
  }
  return out;
}

std::string mount_line(const std::string& mp) {
  for (auto& m : mounts(mp))
    if (m.first == mp) return m.second;
  return "";
}

class KfsmFuse : public ::testing::Test {
 protected:
  void SetUp() override {
    TAVREL_E2E_NEED_FUSE();
    agent.add(1, "hello", 2, 1, strlen(kContent));
    agent.set_cleartext("c/hello", true);
    Kfsmd_Scripted_Agent::install(&agent);
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
    std::ofstream(storage + "/" + VIEW_STG_METADATA) << "versionid=1.0\nview-uuid=" << kViewUuid << "\ncltxt-cache-dir=" << cache << "\n";
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

  void start_agent(bool handlers = true, int threads = 3) {
    agent.set_no_handler(!handlers);
    Tavrel_KFSM_Thread_Unix::set_dispatcher(&Kfsmd_Scripted_Agent::dispatch);
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
    for (auto& m : mounts(base))
      if (umount2(m.first.c_str(), 0) != 0) umount2(m.first.c_str(), MNT_DETACH);
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
    EXPECT_TRUE(mounts(base).empty()) << "a mount survived the test";
    std::string cmd = "rm -rf '" + base + "'";
    if (mounts(base).empty()) {
      EXPECT_EQ(system(cmd.c_str()), 0);
    }
  }

  std::string base, root, sock, storage, cache, mp;
  pid_t daemon = -1;
  std::unique_ptr<Tavrel_View> view;
  Tavrel_Thread_Manager_Base* mgr = nullptr;
  Kfsmd_Scripted_Agent agent;
};

TEST_F(KfsmFuse, MountAppearsALookupReachesTheAgentAndUnmountRemovesIt) {
  start_agent(false);
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
  EXPECT_GE(agent.count(VIEW_RPC_ROOT), 1);

  int raw = -1;
  ASSERT_EQ(io().umount_silo("/proj", oid_n(1), &raw), 0);
  EXPECT_EQ(raw, 0);
  EXPECT_TRUE(mount_line(mp).empty());
  EXPECT_NE(access(mp.c_str(), F_OK), 0);  // the mount point is gone too
  EXPECT_EQ(io().umount_silo("/proj", oid_n(1), &raw), TAVREL_ST_NOT_MOUNTED);
  EXPECT_EQ(raw, TBS_ST_BAD_ARG);
}

TEST_F(KfsmFuse, FilesListAndReadThroughTheMountAndInvalidationReachesTheKernel) {
  start_agent();
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
  const int lookups = agent.count(VIEW_RPC_LOOKUP);
  ASSERT_EQ(stat((mp + "/hello").c_str(), &st), 0);
  EXPECT_EQ(agent.count(VIEW_RPC_LOOKUP), lookups);
  tbs_uuid_s replica;
  memcpy(replica.bytes, oid_n(1).bytes, 16);
  tbs_oid_s dir_oid = Kfsmd_Scripted_Agent::oid(1);
  ASSERT_EQ(io().view_inval_name(&replica, &dir_oid, "hello"), 0);
  bool asked_again = false;
  for (int i = 0; i < 250 && !asked_again; ++i) {
    ASSERT_EQ(stat((mp + "/hello").c_str(), &st), 0);
    asked_again = agent.count(VIEW_RPC_LOOKUP) > lookups;
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
  EXPECT_EQ(oid, Kfsmd_Scripted_Agent::oid(2));
  EXPECT_EQ(uuid, replica);
  EXPECT_EQ(tbs_uuid_to_str(uuid2), kViewUuid);
  EXPECT_EQ(io().view_get_xstat(mp + "/nothing", &vs, nullptr, nullptr, nullptr, nullptr), TBS_ST_NO_SUCH_NAME);
  EXPECT_EQ(io().view_get_xstat(root + "/" + kViewTag + "/elsewhere", &vs, nullptr, nullptr, nullptr, nullptr), TBS_ST_NO_SUCH_NAME);
}

TEST_F(KfsmFuse, EndOfViewLetsTheThreadsGoDetachesTheMountsAndAStartAgainWorks) {
  start_agent();
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
  EXPECT_TRUE(mounts(base).empty());
  EXPECT_NE(access((root + "/" + kViewTag).c_str(), F_OK), 0);
  mgr->set_should_exit();
  mgr->drain_incomplete();
  mgr->terminate();
  Tavrel_Thread_Manager_Base::destroy_instance();
  mgr = nullptr;
  Tavrel_KFSM_Request_Handler::destroy_instance();
  kfsm_set_wakeup_fd(-1);

  // And the view comes back: registered again, its SILO mounted again, served again.
  start_agent();
  ASSERT_EQ(io().mount_silo("/proj", "/silos/proj", oid_n(1), oid_n(2)), 0);
  ASSERT_EQ(stat((mp + "/hello").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, off_t(strlen(kContent)));
}

}  // namespace
