// SILO mounts end to end with FUSE: the reference server (two SILOs imported from small trees), the
// module daemon started and stopped with `tavrel kfsmd`, and the agent driven by the `tavrel` command
// line. Checked in the kernel's own table (/proc/mounts): `mount` makes the SILO's mount point
// appear, `umount` removes it, a busy mount point is refused and stays, the mounts come back when the
// view is started again, and stopping the daemon detaches them.
//
// Skipped, with the reason, where a FUSE file system cannot be mounted; with TAVREL_REQUIRE_FUSE=1 the
// skip is a failure. Mounts a failing test leaves are detached in the teardown.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>

#include "base/server.h"
#include "proto/tavrel_status.h"
#include "proto/view_storage_names.h"
#include "tests/e2e/e2e_fuse.h"
#include "tests/e2e/e2e_process.h"

namespace {

using namespace e2e;
using Strings = std::vector<std::string>;
constexpr auto npos = std::string::npos;

// "<mount point> <type>" of the kernel's table for mount points under `prefix` (octal escapes as the
// kernel writes them; the paths here hold none).
Strings mounts_under(const std::string& prefix) {
  Strings out;
  std::istringstream in(slurp("/proc/self/mounts"));
  for (std::string dev, point, type, rest; in >> dev >> point >> type && std::getline(in, rest);)
    if (point.compare(0, prefix.size(), prefix) == 0) out.push_back(point + " " + type);
  return out;
}

class SiloMounts : public ::testing::Test {
 protected:
  void SetUp() override {
    TAVREL_E2E_NEED_FUSE();
    r.put("tree_proj/src/main.c", "int proj;\n");
    r.put("tree_lib/src/main.c", "int lib;\n");
    ASSERT_EQ(r.import("/proj", "tree_proj").code, 0);
    ASSERT_EQ(r.import("/lib", "tree_lib", "--public --project").code, 0);
    ASSERT_TRUE(r.start_server()) << slurp(r.at("server.log"));
    Outcome d = kfsmd("start");
    ASSERT_EQ(d.code, 0) << d.out << d.err;
    Outcome mk = r.tavrel({"mkview", "--tag", "v1"}, r.creds());
    ASSERT_EQ(mk.code, 0) << mk.out << mk.err;
  }
  void TearDown() override {
    if (IsSkipped()) return;
    r.tavrel({"endview", "--kill"});
    kfsmd("stop");
    EXPECT_EQ(mounts_under(r.dir + "/"), Strings{}) << "the daemon detaches what it mounted";
    for (const auto& m : mounts_under(r.dir + "/")) umount2(m.substr(0, m.find(' ')).c_str(), MNT_DETACH);
  }

  Outcome kfsmd(const std::string& what) { return r.sh(r.env() + q(bin("tavrel")) + " kfsmd " + what); }
  Strings mounts() { return mounts_under(r.at("root/")); }
  bool mounted(const std::string& mp) { return mounts_under(mp) == Strings{mp + " fuse.tavrel"}; }
  pid_t agent_pid() { return server_lock_holder(r.storage + "/" + VIEW_STG_LOCK); }

  Rig r{"tavrel-mount-e2e"};
  const std::string proj = r.at("root/v1/proj"), lib = r.at("root/v1/lib");
};

TEST_F(SiloMounts, MountQueryUnmountAndABusyMountPoint) {
  for (const char* tag : {"/proj", "/lib"}) {
    Outcome m = r.tavrel({"mount", tag});
    ASSERT_EQ(m.code, 0) << m.out << m.err;
  }
  const Strings both = {proj + " fuse.tavrel", lib + " fuse.tavrel"};
  EXPECT_EQ(mounts(), both);
  EXPECT_EQ(r.tavrel({"mounts"}).out, "/lib\n/proj\n");
  EXPECT_EQ(r.tavrel({"silo", "/lib"}).out, "silo: /lib\nmounted: true\npublic: true\nproject: true\n");
  EXPECT_EQ(r.tavrel({"--json", "silo", "/proj"}).out,
            "{\"silo\":\"/proj\",\"mounted\":true,\"public\":false,\"project\":false}\n");
  EXPECT_EQ(r.tavrel({"silo", "/nowhere"}).out, "silo: /nowhere\nmounted: false\n");

  // Refused, changing nothing: mounting again, unmounting while a descriptor keeps the mount point
  // busy, and a tag the server does not know.
  int held = open(proj.c_str(), O_PATH | O_CLOEXEC);
  ASSERT_GE(held, 0) << strerror(errno);
  struct {
    Strings args;
    int status;
    const char* message;
  } refused[] = {
      {{"mount", "/proj"}, TAVREL_ST_MOUNT_CONFLICT, "/proj is already mounted."},
      {{"umount", "/proj"}, TAVREL_ST_KERNEL_MOUNT, "Unable to unmount SILO /proj: Device or resource busy"},
      {{"mount", "/nosuch"}, TAVREL_ST_SILO_INFO, ""},
  };
  for (auto& c : refused) {
    Outcome o = r.tavrel(c.args);
    EXPECT_EQ(o.code, 1) << c.status;
    EXPECT_NE(o.err.find(std::to_string(c.status)), npos) << o.err;
    EXPECT_NE(o.err.find(c.message), npos) << o.err;
    EXPECT_EQ(mounts(), both) << c.status;
  }
  close(held);

  Outcome u = r.tavrel({"umount", "/proj"});
  ASSERT_EQ(u.code, 0) << u.out << u.err;
  EXPECT_EQ(mounts(), Strings{lib + " fuse.tavrel"});
  EXPECT_EQ(r.tavrel({"mounts"}).out, "/lib\n");
  EXPECT_NE(r.tavrel({"--json", "status"}).out.find("\"mounts\":[\"/lib\"]"), npos);
  Outcome again = r.tavrel({"umount", "/proj"});
  EXPECT_EQ(again.code, 1);
  EXPECT_NE(again.err.find("/proj is not currently mounted."), npos) << again.err;
}

TEST_F(SiloMounts, MountsComeBackWhenTheViewStartsAgain) {
  ASSERT_EQ(r.tavrel({"mount", "/proj"}).code, 0);
  ASSERT_EQ(r.tavrel({"mount", "/lib"}).code, 0);
  ASSERT_EQ(r.tavrel({"umount", "/lib"}).code, 0);

  // Ending the view takes its SILOs out of the kernel; the table file stays for the next start, which
  // mounts again what was mounted at the end.
  Outcome end = r.tavrel({"endview"});
  ASSERT_EQ(end.code, 0) << end.out << end.err;
  EXPECT_EQ(mounts(), Strings{});
  EXPECT_NE(slurp(r.storage + "/" + VIEW_STG_MOUNTED_SILOS).find("/proj="), npos);
  Outcome start = r.tavrel({"--trace", "4", "startview"}, r.creds());
  ASSERT_EQ(start.code, 0) << start.out << start.err;
  EXPECT_EQ(start.err.find("note"), npos) << start.err;
  EXPECT_EQ(mounts(), Strings{proj + " fuse.tavrel"}) << slurp("/proc/self/mounts");
  EXPECT_EQ(slurp(r.storage + "/" + VIEW_STG_LOG_DIR + "/" + VIEW_STG_LOG_FILE).find("SILO remount failed"), npos);

  // EndView while the mount point is busy: the SILO is tried twice, the view stays up and says why.
  pid_t agent = agent_pid();
  ASSERT_GT(agent, 0);
  int held = open(proj.c_str(), O_PATH | O_CLOEXEC);
  ASSERT_GE(held, 0) << strerror(errno);
  Outcome busy = r.tavrel({"endview"});
  EXPECT_EQ(busy.code, 1) << busy.out << busy.err;
  EXPECT_NE(busy.err.find("Unable to unmount SILO /proj"), npos) << busy.err;
  EXPECT_NE(busy.err.find("Not every SILO could be unmounted"), npos) << busy.err;
  EXPECT_TRUE(mounted(proj));
  EXPECT_EQ(agent_pid(), agent);
  EXPECT_EQ(r.tavrel({"mounts"}).out, "/proj\n");

  // The forced end (a signal) with the mount point still busy: tried twice, then the view is
  // unregistered anyway, so the daemon detaches the mount; the agent itself goes on.
  ASSERT_EQ(kill(agent, SIGTERM), 0);
  EXPECT_TRUE(wait_for(20000, [&] { return !mounted(proj); })) << slurp("/proc/self/mounts");
  close(held);
  std::string trace;
  EXPECT_TRUE(wait_for(10000, [&] {
    trace = r.sh("cat " + q(r.home) + "/tavrel_trace/*_p" + std::to_string(agent) + ".log").out;
    return trace.find("Forced end:") != npos;
  })) << "no end of the forced end in the trace of agent " << agent;
  size_t busy_at = trace.rfind("EBUSY, sleeping"), failed = trace.rfind("Unmount failed for /proj"),
         unregistered = trace.rfind("Status from cleanup");
  EXPECT_TRUE(busy_at < failed && failed < unregistered && unregistered != npos) << trace;
  EXPECT_EQ(agent_pid(), agent) << "a forced end that could not unmount keeps running";
  // EndView then ends it: the module no longer knows the view, so nothing of it is mounted.
  Outcome end2 = r.tavrel({"endview"});
  ASSERT_EQ(end2.code, 0) << end2.out << end2.err;
  EXPECT_LE(agent_pid(), 0);

  // Offline too: the start needs no server to mount what the file lists.
  Outcome offline = r.tavrel({"startview", "--offline", "--server-url", r.url()});
  ASSERT_EQ(offline.code, 0) << offline.out << offline.err;
  EXPECT_TRUE(mounted(proj));
}

TEST_F(SiloMounts, AFailedMkViewLeavesNoRegistrationBehind) {
  // A creation that fails after registering (here at the login) takes its registration back, so the
  // same view tag can be made again at once.
  const std::string second = r.at("view2");
  auto mk = [&](const char* pw) { return r.tavrel({"mkview", "--tag", "v2"}, r.creds(pw), second); };
  Outcome bad = mk("badpw");
  EXPECT_EQ(bad.code, 1) << bad.out << bad.err;
  EXPECT_NE(bad.err.find(std::to_string(TAVREL_ST_CANNOT_CONNECT)), npos) << bad.err;
  EXPECT_FALSE(fileutl_exists(second));
  Outcome good = mk("pw");
  ASSERT_EQ(good.code, 0) << good.out << good.err;
  ASSERT_EQ(r.tavrel({"mount", "/proj"}, {}, second).code, 0);
  EXPECT_TRUE(mounted(r.at("root/v2/proj")));
  EXPECT_EQ(r.tavrel({"endview"}, {}, second).code, 0);
  EXPECT_FALSE(mounted(r.at("root/v2/proj")));
}

TEST_F(SiloMounts, StoppingTheDaemonDetachesTheMounts) {
  ASSERT_EQ(r.tavrel({"mount", "/proj"}).code, 0);
  ASSERT_TRUE(mounted(proj));
  Outcome stop = kfsmd("stop");
  ASSERT_EQ(stop.code, 0) << stop.out << stop.err;
  EXPECT_EQ(mounts(), Strings{});
  Outcome status = kfsmd("status");
  EXPECT_EQ(status.code, 3);
  EXPECT_NE(status.out.find("running: false"), npos) << status.out;
  EXPECT_EQ(kfsmd("stop").code, 3) << "nothing left to stop";
  // A pid file left behind may name an unrelated process by now: it is never signalled.
  pid_t other = spawn({"/bin/sleep", "60"}, r.at("sleep.log"));
  ASSERT_GT(other, 0);
  r.put("run/kfsmd.pid", std::to_string(other) + "\n");
  EXPECT_EQ(kfsmd("stop").code, 3);
  EXPECT_EQ(waitpid(other, nullptr, WNOHANG), 0) << "the unrelated process must still run";
  kill(other, SIGKILL);
  waitpid(other, nullptr, 0);
}

}  // namespace
