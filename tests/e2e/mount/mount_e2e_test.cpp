// SILO mounts end to end with FUSE: the reference server (two SILOs imported from small trees), the
// module daemon started and stopped with `tavrel kfsmd`, and the agent driven by the `tavrel` command
// line. Checked in the kernel's own table (/proc/mounts): `mount` makes the SILO's mount point
// appear, `umount` removes it, a busy mount point is refused and stays, and the mounts come back when
// the view is ended and started again.
//
// Skipped, with the reason, where a FUSE file system cannot be mounted; with TAVREL_REQUIRE_FUSE=1 the
// skip is a failure. Everything is made under a temporary directory; mounts left there by a failing
// test are detached in the teardown.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/fileutl.h"
#include "base/server.h"
#include "tests/e2e/e2e_process.h"
#include "kfsmd/fuse/kfsmd_fuse_mount.h"
#include "tests/e2e/e2e_fuse.h"

namespace {

using namespace e2e;

// Mount points of the kernel's table that lie under `prefix` (octal escapes as the kernel writes them;
// the paths here hold none).
std::vector<std::string> mounts_under(const std::string& prefix) {
  std::vector<std::string> out;
  std::istringstream in(slurp("/proc/self/mounts"));
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream ls(line);
    std::string dev, point, type;
    ls >> dev >> point >> type;
    if (point.compare(0, prefix.size(), prefix) == 0) out.push_back(point + " " + type);
  }
  return out;
}

class SiloMounts : public ::testing::Test {
 protected:
  void SetUp() override {
    TAVREL_E2E_NEED_FUSE();
    char tmpl[] = "/tmp/tavrel-mount-e2e-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
    home = dir + "/home";
    storage = dir + "/view";
    root = dir + "/root";
    socket_path = dir + "/run/kfsm.sock";
    fileutl_mkpath(home, 0700);
    for (const char* t : {"proj", "lib"}) {
      fileutl_mkpath(dir + "/tree_" + t + "/src", 0755);
      std::ofstream(dir + "/tree_" + t + "/src/main.c") << "int " << t << ";\n";
    }
    std::ofstream(dir + "/users") << "alice:s3cret\n";
    chmod((dir + "/users").c_str(), 0600);
    std::ofstream(dir + "/pw") << "s3cret\n";
    store = dir + "/store.db";
    Outcome imp = sh("'" + bin("tavrel_server") + "' import --store '" + store + "' --silo /proj '" + dir + "/tree_proj'");
    ASSERT_EQ(imp.code, 0) << imp.err;
    imp = sh("'" + bin("tavrel_server") + "' import --store '" + store + "' --silo /lib --public --project '" + dir +
             "/tree_lib'");
    ASSERT_EQ(imp.code, 0) << imp.err;

    port = free_port();
    ASSERT_GT(port, 0);
    std::string port_file = dir + "/port";
    server = spawn({bin("tavrel_server"), "serve", "--store", store, "--users", dir + "/users", "--port",
                    std::to_string(port), "--port-file", port_file},
                   dir + "/server.log");
    ASSERT_TRUE(wait_for(10000, [&] { return !slurp(port_file).empty(); })) << slurp(dir + "/server.log");

    Outcome d = kfsmd("start");
    ASSERT_EQ(d.code, 0) << d.out << d.err;
    ASSERT_EQ(kfsmd("status").code, 0);

    Outcome mk = tavrel({"mkview", "--tag", "v1", "--server-url", url(), "--user", "alice", "--password-file",
                         dir + "/pw"});
    ASSERT_EQ(mk.code, 0) << mk.out << mk.err;
    proj_mp = root + "/v1/proj";
    lib_mp = root + "/v1/lib";
  }

  void TearDown() override {
    if (dir.empty()) return;
    tavrel({"endview", "--kill"});
    Outcome d = kfsmd("stop");
    EXPECT_EQ(mounts_under(dir + "/"), std::vector<std::string>{}) << "the daemon detaches what it mounted";
    stop(server);
    // Whatever a failed test left mounted is detached before the tree is removed.
    for (const auto& m : mounts_under(dir + "/")) umount2(m.substr(0, m.find(' ')).c_str(), MNT_DETACH);
    std::string cmd = "rm -rf '" + dir + "'";
    if (system(cmd.c_str()) != 0) ADD_FAILURE() << cmd;
  }

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port) + "/"; }

  Outcome sh(const std::string& cmd) {
    std::string out = dir + "/out", err = dir + "/err";
    int st = system(("( " + cmd + " ) >'" + out + "' 2>'" + err + "' </dev/null").c_str());
    Outcome r;
    r.code = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    r.out = slurp(out);
    r.err = slurp(err);
    return r;
  }
  std::string env() const {
    return "HOME='" + home + "' TAVREL_KFSM_SOCKET='" + socket_path + "' TAVREL_VIEW_ROOT='" + root +
           "' TAVREL_AGENT='" + bin("tavrel_agent") + "' TAVREL_KFSMD='" + bin("tavrel_kfsmd") + "' ";
  }
  Outcome tavrel(const std::vector<std::string>& args) {
    std::string cmd = env() + "'" + bin("tavrel") + "' -s '" + storage + "' -t 30";
    for (const auto& a : args) cmd += " '" + a + "'";
    return sh(cmd);
  }
  Outcome kfsmd(const std::string& what) { return sh(env() + "'" + bin("tavrel") + "' kfsmd " + what); }
  bool mounted(const std::string& mp) {
    for (const auto& m : mounts_under(mp))
      if (m == mp + " fuse.tavrel") return true;
    return false;
  }

  std::string dir, home, storage, root, socket_path, store, proj_mp, lib_mp;
  pid_t server = -1;
  int port = -1;
};

TEST_F(SiloMounts, MountQueryUnmountAndABusyMountPoint) {
  EXPECT_FALSE(mounted(proj_mp));
  Outcome m = tavrel({"mount", "/proj"});
  ASSERT_EQ(m.code, 0) << m.out << m.err;
  EXPECT_TRUE(mounted(proj_mp)) << slurp("/proc/self/mounts");
  ASSERT_EQ(tavrel({"mount", "/lib"}).code, 0);
  EXPECT_TRUE(mounted(lib_mp));

  Outcome list = tavrel({"mounts"});
  EXPECT_EQ(list.code, 0);
  EXPECT_EQ(list.out, "/lib\n/proj\n");
  Outcome lib = tavrel({"silo", "/lib"});
  EXPECT_EQ(lib.code, 0);
  EXPECT_EQ(lib.out, "silo: /lib\nmounted: true\npublic: true\nproject: true\n");
  Outcome proj = tavrel({"--json", "silo", "/proj"});
  EXPECT_EQ(proj.out, "{\"silo\":\"/proj\",\"mounted\":true,\"public\":false,\"project\":false}\n");
  EXPECT_EQ(tavrel({"silo", "/nowhere"}).out, "silo: /nowhere\nmounted: false\n");

  // Mounting again is refused and changes nothing.
  Outcome again = tavrel({"mount", "/proj"});
  EXPECT_EQ(again.code, 1);
  EXPECT_NE(again.err.find("20032"), std::string::npos) << again.err;
  EXPECT_NE(again.err.find("/proj is already mounted."), std::string::npos) << again.err;
  EXPECT_EQ(mounts_under(root + "/").size(), 2u);

  // A file held open on the mount point keeps it busy: the unmount is refused, the SILO stays.
  int held = open(proj_mp.c_str(), O_PATH | O_CLOEXEC);
  ASSERT_GE(held, 0) << strerror(errno);
  Outcome busy = tavrel({"umount", "/proj"});
  EXPECT_EQ(busy.code, 1);
  EXPECT_NE(busy.err.find("20037"), std::string::npos) << busy.err;
  EXPECT_NE(busy.err.find("Unable to unmount SILO /proj: Device or resource busy"), std::string::npos) << busy.err;
  EXPECT_TRUE(mounted(proj_mp));
  EXPECT_EQ(tavrel({"mounts"}).out, "/lib\n/proj\n");
  close(held);

  Outcome u = tavrel({"umount", "/proj"});
  ASSERT_EQ(u.code, 0) << u.out << u.err;
  EXPECT_FALSE(mounted(proj_mp));
  EXPECT_TRUE(mounted(lib_mp));
  EXPECT_EQ(tavrel({"mounts"}).out, "/lib\n");
  Outcome st = tavrel({"--json", "status"});
  EXPECT_NE(st.out.find("\"mounts\":[\"/lib\"]"), std::string::npos) << st.out;
  Outcome u2 = tavrel({"umount", "/proj"});
  EXPECT_EQ(u2.code, 1);
  EXPECT_NE(u2.err.find("/proj is not currently mounted."), std::string::npos) << u2.err;

  // A tag the server does not know.
  Outcome unknown = tavrel({"mount", "/nosuch"});
  EXPECT_EQ(unknown.code, 1);
  EXPECT_NE(unknown.err.find("20035"), std::string::npos) << unknown.err;
  EXPECT_EQ(mounts_under(root + "/"), std::vector<std::string>{lib_mp + " fuse.tavrel"});
}

TEST_F(SiloMounts, MountsComeBackWhenTheViewStartsAgain) {
  ASSERT_EQ(tavrel({"mount", "/proj"}).code, 0);
  ASSERT_EQ(tavrel({"mount", "/lib"}).code, 0);
  ASSERT_EQ(tavrel({"umount", "/lib"}).code, 0);
  ASSERT_TRUE(mounted(proj_mp));

  // Ending the view takes its SILOs out of the kernel; the table file stays for the next start.
  Outcome end = tavrel({"endview"});
  ASSERT_EQ(end.code, 0) << end.out << end.err;
  EXPECT_EQ(mounts_under(root + "/"), std::vector<std::string>{});
  EXPECT_NE(slurp(storage + "/" + VIEW_STG_MOUNTED_SILOS).find("/proj="), std::string::npos);

  Outcome start = tavrel({"--trace", "4", "startview", "--server-url", url(), "--user", "alice", "--password-file",
                          dir + "/pw"});
  ASSERT_EQ(start.code, 0) << start.out << start.err;
  EXPECT_EQ(start.err.find("note"), std::string::npos) << start.err;
  EXPECT_TRUE(mounted(proj_mp)) << slurp("/proc/self/mounts");
  EXPECT_FALSE(mounted(lib_mp)) << "unmounted before the end, so not mounted again";
  EXPECT_EQ(tavrel({"mounts"}).out, "/proj\n");
  EXPECT_EQ(slurp(storage + "/" + VIEW_STG_LOG_DIR + "/" + VIEW_STG_LOG_FILE).find("SILO remount failed"), std::string::npos);

  // EndView while the mount point is busy: the SILO is tried twice, the view stays up and says why.
  pid_t agent = server_lock_holder(storage + "/" + VIEW_STG_LOCK);
  ASSERT_GT(agent, 0);
  int held = open(proj_mp.c_str(), O_PATH | O_CLOEXEC);
  ASSERT_GE(held, 0) << strerror(errno);
  Outcome busy = tavrel({"endview"});
  EXPECT_EQ(busy.code, 1) << busy.out << busy.err;
  EXPECT_NE(busy.err.find("Unable to unmount SILO /proj"), std::string::npos) << busy.err;
  EXPECT_NE(busy.err.find("Not every SILO could be unmounted"), std::string::npos) << busy.err;
  EXPECT_TRUE(mounted(proj_mp));
  EXPECT_EQ(server_lock_holder(storage + "/" + VIEW_STG_LOCK), agent);
  EXPECT_EQ(tavrel({"mounts"}).out, "/proj\n");

  // The forced end (a signal) with the mount point still busy: tried twice, then the view is
  // unregistered anyway, so the daemon detaches the mount; the agent itself goes on.
  ASSERT_EQ(kill(agent, SIGTERM), 0);
  EXPECT_TRUE(wait_for(20000, [&] { return !mounted(proj_mp); })) << slurp("/proc/self/mounts");
  close(held);
  std::string trace;
  EXPECT_TRUE(wait_for(10000, [&] {
    if (DIR* d = opendir((home + "/tavrel_trace").c_str())) {
      while (dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name.find("_p" + std::to_string(agent) + ".log") != std::string::npos)
          trace = slurp(home + "/tavrel_trace/" + name);
      }
      closedir(d);
    }
    return trace.find("Forced end:") != std::string::npos;
  })) << "no end of the forced end in the trace of agent " << agent;
  size_t busy_at = trace.rfind("EBUSY, sleeping"), failed = trace.rfind("Unmount failed for /proj"),
         unregistered = trace.rfind("Status from cleanup");
  EXPECT_NE(busy_at, std::string::npos);
  EXPECT_NE(failed, std::string::npos);
  EXPECT_NE(unregistered, std::string::npos);
  EXPECT_LT(busy_at, failed);
  EXPECT_LT(failed, unregistered);
  EXPECT_EQ(server_lock_holder(storage + "/" + VIEW_STG_LOCK), agent) << "a forced end that could not unmount keeps running";
  // EndView then ends it: the module no longer knows the view, so nothing of it is mounted.
  Outcome end2 = tavrel({"endview"});
  ASSERT_EQ(end2.code, 0) << end2.out << end2.err;
  EXPECT_LE(server_lock_holder(storage + "/" + VIEW_STG_LOCK), 0);

  // Offline too: the start needs no server to mount what the file lists.
  ASSERT_EQ(tavrel({"startview", "--offline", "--server-url", url()}).code, 0);
  EXPECT_TRUE(mounted(proj_mp));
}

TEST_F(SiloMounts, AFailedMkViewLeavesNoRegistrationBehind) {
  // A creation that fails after registering (here at the login) takes its registration back, so the
  // same view tag can be made again at once.
  std::ofstream(dir + "/badpw") << "wrong\n";
  const std::string second = dir + "/view2";
  auto on_second = [&](const std::string& args) {
    return sh(env() + "'" + bin("tavrel") + "' -s '" + second + "' -t 30 " + args);
  };
  const std::string make = "mkview --tag v2 --server-url " + url() + " --user alice --password-file ";
  Outcome bad = on_second(make + "'" + dir + "/badpw'");
  EXPECT_EQ(bad.code, 1) << bad.out << bad.err;
  EXPECT_NE(bad.err.find("20034"), std::string::npos) << bad.err;
  EXPECT_FALSE(fileutl_exists(second));
  Outcome good = on_second(make + "'" + dir + "/pw'");
  ASSERT_EQ(good.code, 0) << good.out << good.err;
  ASSERT_EQ(on_second("mount /proj").code, 0);
  EXPECT_TRUE(mounted(root + "/v2/proj"));
  Outcome end = on_second("endview");
  EXPECT_EQ(end.code, 0) << end.err;
  EXPECT_FALSE(mounted(root + "/v2/proj"));
}

TEST_F(SiloMounts, StoppingTheDaemonDetachesTheMounts) {
  ASSERT_EQ(tavrel({"mount", "/proj"}).code, 0);
  ASSERT_TRUE(mounted(proj_mp));
  Outcome stop = kfsmd("stop");
  ASSERT_EQ(stop.code, 0) << stop.out << stop.err;
  EXPECT_EQ(mounts_under(root + "/"), std::vector<std::string>{});
  Outcome status = kfsmd("status");
  EXPECT_EQ(status.code, 3);
  EXPECT_NE(status.out.find("running: false"), std::string::npos) << status.out;
  EXPECT_EQ(kfsmd("stop").code, 3) << "nothing left to stop";
  // A pid file left behind may name an unrelated process by now: it is never signalled.
  pid_t other = spawn({"/bin/sleep", "60"}, dir + "/sleep.log");
  ASSERT_GT(other, 0);
  std::ofstream(dir + "/run/kfsmd.pid") << other << "\n";
  EXPECT_EQ(kfsmd("stop").code, 3);
  EXPECT_EQ(waitpid(other, nullptr, WNOHANG), 0) << "the unrelated process must still run";
  kill(other, SIGKILL);
  waitpid(other, nullptr, 0);
}

}  // namespace
