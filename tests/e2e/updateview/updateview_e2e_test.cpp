// A mounted view following its SILO through `tavrel update`, end to end: the reference server with a
// SILO imported from a real tree (copied from /usr/include), the module daemon with FUSE, the agent and
// the command line, all real programs. An administrator changes the SILO on the server (files checked
// in anew, added, removed, renamed, a directory replaced by a file) and after one update the mounted
// view equals the edited source under `diff -r`, files read before the update included. An agent
// killed with SIGKILL in the middle of a 20,000-element update leaves a log without its end; started
// again, `tavrel update --resume` completes the view and its log ends "Succeeded".
//
// Skipped, with the reason, where FUSE cannot be mounted (a failure with TAVREL_REQUIRE_FUSE=1).
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <future>
#include <signal.h>

#include "base/server.h"
#include "client/update_log.h"
#include "proto/view_storage_names.h"
#include "tests/e2e/e2e_fuse.h"
#include "tests/e2e/e2e_process.h"

namespace {

using namespace e2e;
namespace fs = std::filesystem;

// The values of every line of `log` whose key is `key`, the first value of each (unquoted).
std::vector<std::string> first_values(const std::string& log, const std::string& key) {
  std::vector<std::string> out;
  std::istringstream in(log);
  for (std::string line; std::getline(in, line);) {
    if (line.compare(0, key.size() + 1, key + " ") != 0) continue;
    size_t at = line.find_first_not_of(' ', key.size());
    if (at == std::string::npos) continue;
    std::string v = line.substr(at);
    if (v[0] == '"') {
      v = v.substr(1, v.find('"', 1) - 1);
    } else {
      v = v.substr(0, v.find(' '));
    }
    out.push_back(v);
  }
  return out;
}

bool has(const std::vector<std::string>& v, const std::string& x) { return std::find(v.begin(), v.end(), x) != v.end(); }

// Sorted regular files and directories directly in `dir`.
std::vector<std::string> entries(const std::string& dir, bool dirs) {
  std::vector<std::string> out;
  for (const auto& e : fs::directory_iterator(dir))
    if (dirs ? e.is_directory() && !e.is_symlink() : e.is_regular_file() && !e.is_symlink())
      out.push_back(e.path().filename().string());
  std::sort(out.begin(), out.end());
  return out;
}

class UpdateViewE2E : public ::testing::Test {
 protected:
  void SetUp() override { TAVREL_E2E_NEED_FUSE(); }
  void TearDown() override {
    if (IsSkipped()) return;
    admin("fault.clear");
    r.tavrel({"endview", "--kill"});
    r.sh(r.env() + q(bin("tavrel")) + " kfsmd stop");
    umount2(view.c_str(), MNT_DETACH);
  }
  // Imports tree/ as /inc, starts the server and the module daemon, makes the view and mounts /inc.
  void start_view() {
    ASSERT_EQ(r.import("/inc", "tree").code, 0);
    ASSERT_TRUE(r.start_server()) << slurp(r.at("server.log"));
    Outcome d = r.sh(r.env() + q(bin("tavrel")) + " kfsmd start");
    ASSERT_EQ(d.code, 0) << d.out << d.err;
    Outcome mk = r.tavrel({"mkview", "--tag", "v1"}, r.creds());
    ASSERT_EQ(mk.code, 0) << mk.out << mk.err;
    Outcome m = r.tavrel({"mount", "/inc"});
    ASSERT_EQ(m.code, 0) << m.out << m.err;
  }
  Outcome admin(const std::string& args, const std::string& data = "") {
    return r.sh(q(bin("tavrel_server")) + " admin --url " + q(r.url() + "tavrel") + " --token-file " +
                q(r.at("token")) + " " + args + (data.empty() ? "" : " --data " + q(data)));
  }
  // The update logs of the view, oldest first, as full paths.
  std::vector<std::string> update_logs() {
    std::vector<std::string> out;
    for (const auto& n : tavrel::client::update_log_names(r.storage + "/" + VIEW_STG_LOG_DIR))
      out.push_back(r.storage + "/" + VIEW_STG_LOG_DIR + "/" + n);
    return out;
  }
  Outcome diff(const std::string& source) { return r.sh("diff -r " + q(source) + " " + q(view)); }

  Rig r{"tavrel-updateview-e2e"};
  const std::string view = r.at("root/v1/inc");
};

TEST_F(UpdateViewE2E, ServerChangesShowInTheViewAfterOneUpdate) {
  // A few thousand real headers: four folders and the top-level files of /usr/include.
  fileutl_mkpath(r.at("tree"), 0755);
  Outcome cp = r.sh("cd /usr/include && cp -a linux asm-generic x86_64-linux-gnu c++ " + q(r.at("tree")) +
                    " && cp -L *.h " + q(r.at("tree")));
  ASSERT_EQ(cp.code, 0) << cp.err;
  start_view();
  if (HasFatalFailure()) return;

  // Everything read once through the view (names and contents), then a first update takes the view's
  // state to the server.
  Outcome first_diff = diff(r.at("tree"));
  ASSERT_EQ(first_diff.code, 0) << first_diff.out.substr(0, 2000) << first_diff.err.substr(0, 2000);
  Outcome u1 = r.tavrel({"update"});
  ASSERT_EQ(u1.code, 0) << u1.out << u1.err;
  EXPECT_NE(u1.out.find("update succeeded:"), std::string::npos) << u1.out;

  // The administrator's changes, made alike in a copy of the source.
  ASSERT_EQ(r.sh("cp -a " + q(r.at("tree")) + " " + q(r.at("edited"))).code, 0);
  const std::vector<std::string> files = entries(r.at("tree/linux"), false);
  ASSERT_GT(files.size(), 20u);
  std::vector<std::string> changed, added, removed;
  auto run = [&](const std::string& op, const std::string& data = "") {
    Outcome o = admin(op, data);
    ASSERT_EQ(o.code, 0) << op << "\n" << o.out << o.err;
  };
  for (size_t i = 0; i < 10; ++i) {  // a new version: the old text with another real header behind it
    const std::string rel = "linux/" + files[i];
    ASSERT_EQ(r.sh("cat /usr/include/stdio.h >> " + q(r.at("edited/" + rel))).code, 0);
    run("elem.checkin Path=/inc/" + rel, r.at("edited/" + rel));
    changed.push_back(rel);
  }
  const char* sources[] = {"stdlib.h", "string.h", "errno.h", "fcntl.h", "signal.h"};
  for (int i = 0; i < 5; ++i) {
    const std::string rel = "linux/zz_added_" + std::to_string(i) + ".h";
    ASSERT_EQ(r.sh("cp /usr/include/" + std::string(sources[i]) + " " + q(r.at("edited/" + rel))).code, 0);
    run("elem.mkfile Path=/inc/" + rel, r.at("edited/" + rel));
    added.push_back(rel);
  }
  for (size_t i = 10; i < 13; ++i) {
    const std::string rel = "linux/" + files[i];
    ASSERT_EQ(unlink(r.at("edited/" + rel).c_str()), 0);
    run("elem.rmname Path=/inc/" + rel);
    removed.push_back(rel);
  }
  const std::string from = "linux/" + files[13], to = "linux/" + files[13] + ".renamed";
  ASSERT_EQ(rename(r.at("edited/" + from).c_str(), r.at("edited/" + to).c_str()), 0);
  run("elem.move From=/inc/" + from + " To=/inc/" + to);
  // The smallest folder of linux/ becomes a file.
  std::string small;
  size_t fewest = SIZE_MAX;
  for (const auto& d : entries(r.at("tree/linux"), true)) {
    size_t n = std::distance(fs::recursive_directory_iterator(r.at("tree/linux/" + d)), {});
    if (n > 0 && n < fewest) fewest = n, small = "linux/" + d;
  }
  ASSERT_FALSE(small.empty());
  ASSERT_EQ(r.sh("rm -r " + q(r.at("edited/" + small)) + " && cp /usr/include/stdint.h " + q(r.at("edited/" + small))).code,
            0);
  run("elem.mkfile Path=/inc/" + small + " Replace=1", r.at("edited/" + small));

  // Before the update the view still shows what it read.
  EXPECT_EQ(slurp(view + "/" + changed[0]), slurp(r.at("tree/" + changed[0])));

  const size_t logs_before = update_logs().size();
  Outcome u2 = r.tavrel({"update"});
  ASSERT_EQ(u2.code, 0) << u2.out << u2.err;
  EXPECT_NE(u2.out.find("update succeeded:"), std::string::npos) << u2.out;
  const std::vector<std::string> logs = update_logs();
  ASSERT_EQ(logs.size(), logs_before + 1);
  EXPECT_NE(u2.out.find("log: " + logs.back()), std::string::npos) << u2.out;

  // The view is the edited source, and the files read before show their new text.
  Outcome d2 = diff(r.at("edited"));
  EXPECT_EQ(d2.code, 0) << d2.out.substr(0, 3000) << d2.err.substr(0, 3000);
  for (const auto& rel : changed) EXPECT_EQ(slurp(view + "/" + rel), slurp(r.at("edited/" + rel))) << rel;

  // The log tells each change to what the view held. Names it never saw (the added files, the rename's
  // new name) are not among them: they come with the changed folder's listing.
  const std::string text = slurp(logs.back());
  const auto updated = first_values(text, "Updated:"), unloaded = first_values(text, "UnloadDeleted:");
  for (const auto& rel : changed) EXPECT_TRUE(has(updated, "/inc/" + rel)) << rel << "\n" << text;
  for (const auto& rel : removed) EXPECT_TRUE(has(unloaded, "/inc/" + rel)) << rel << "\n" << text;
  EXPECT_TRUE(has(unloaded, "/inc/" + from)) << text;
  EXPECT_TRUE(has(updated, "/inc/linux")) << text;
  EXPECT_TRUE(has(updated, "/inc/" + small)) << text;
  for (const auto& rel : added) EXPECT_EQ(slurp(view + "/" + rel), slurp(r.at("edited/" + rel))) << rel;
  EXPECT_EQ(first_values(text, "Status:"), std::vector<std::string>{"Succeeded"});
}

// An agent with one pool thread runs background work only when the view ends: its update fetches
// nothing ahead, ends, and the files still read through the view.
TEST_F(UpdateViewE2E, WithOnePoolThreadTheUpdateEndsWithoutPrefetch) {
  ASSERT_EQ(r.sh("mkdir -p " + q(r.at("tree")) + " && cp -a /usr/include/asm-generic " + q(r.at("tree"))).code, 0);
  r.put("home/tavrel.conf", "tavrelNumCmapi=1\n");
  start_view();
  if (HasFatalFailure()) return;
  ASSERT_EQ(r.sh("cd " + q(view) + " && find . >/dev/null").code, 0);
  const size_t fetched = r.rpcs().size();
  // Bounded: an update that waits for background work that never runs would hang here.
  Outcome u = r.sh(r.env() + "timeout 60 " + q(bin("tavrel")) + " -s " + q(r.storage) + " update");
  ASSERT_EQ(u.code, 0) << u.out << u.err;
  EXPECT_NE(u.out.find("update succeeded:"), std::string::npos) << u.out;
  const std::vector<std::string> rpcs = r.rpcs();
  EXPECT_EQ(std::count(rpcs.begin() + fetched, rpcs.end(), "cltxt"), 0);
  Outcome d = diff(r.at("tree"));
  EXPECT_EQ(d.code, 0) << d.out.substr(0, 2000) << d.err.substr(0, 2000);
}

TEST_F(UpdateViewE2E, AnAgentKilledMidUpdateIsCompletedByResume) {
  // More than 20,000 real files: four copies of the headers of /usr/include under 7 KiB (most of its
  // files, a seventh of its bytes: what this test is about is the number of elements), links resolved.
  for (const char* copy : {"a", "b", "c", "d"}) {
    const std::string to = r.at(std::string("tree/") + copy);
    fileutl_mkpath(to, 0755);
    ASSERT_EQ(r.sh("cd /usr/include && find -L . -type f -size -8k -print0 | tar --null -chf - -T - | tar -xf - -C " +
                   q(to))
                  .code,
              0);
  }
  Outcome count = r.sh("find " + q(r.at("tree")) + " -type f | wc -l");
  ASSERT_GE(atoi(count.out.c_str()), 20000) << count.out;
  start_view();
  if (HasFatalFailure()) return;

  // The view learns every name (no contents); its first update then carries all of them.
  Outcome walk = r.sh("cd " + q(view) + " && find . | wc -l"), src = r.sh("cd " + q(r.at("tree")) + " && find . | wc -l");
  ASSERT_EQ(walk.out, src.out) << walk.err;

  // The server sends the first half of the update stream, then holds the rest back for a minute: the
  // agent is killed while it waits, once the log shows elements applied.
  ASSERT_EQ(admin("fault.set Kind=delay_inside Value=60000 Match=Tavrel_Orlen::syncfetch_rpc Count=1").code, 0);
  const std::string cli = r.env() + q(bin("tavrel")) + " -s " + q(r.storage) + " -t 300 update";
  auto killed_run = std::async(std::launch::async, [&] {
    int st = system((cli + " >" + q(r.at("u1.out")) + " 2>" + q(r.at("u1.err")) + " </dev/null").c_str());
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  });
  std::string log;
  tavrel::client::UpdateLog reader;
  auto cli_ended = [&] { return killed_run.wait_for(std::chrono::seconds(0)) == std::future_status::ready; };
  wait_for(120000, [&] {
    if (log.empty() && !update_logs().empty()) reader = tavrel::client::UpdateLog(log = update_logs().back());
    reader.poll();
    return reader.state().counts.applied() >= 100 || cli_ended();
  });
  ASSERT_GE(reader.state().counts.applied(), 100) << "no progress in the update log: " << slurp(log) << "\n"
                                                  << slurp(r.at("u1.out")) << slurp(r.at("u1.err"));
  ASSERT_FALSE(cli_ended()) << slurp(r.at("u1.out")) << slurp(r.at("u1.err"));
  const pid_t agent = server_lock_holder(r.storage + "/" + VIEW_STG_LOCK);
  ASSERT_GT(agent, 0);
  ASSERT_EQ(kill(agent, SIGKILL), 0);
  ASSERT_EQ(killed_run.wait_for(std::chrono::seconds(60)), std::future_status::ready);
  EXPECT_EQ(killed_run.get(), 6) << slurp(r.at("u1.out")) << slurp(r.at("u1.err"));
  EXPECT_NE(slurp(r.at("u1.err")).find("--resume"), std::string::npos) << slurp(r.at("u1.err"));
  ASSERT_EQ(admin("fault.clear").code, 0);

  // The killed update's log has no end.
  reader.poll();
  EXPECT_FALSE(reader.state().finished);
  EXPECT_EQ(first_values(slurp(log), "Status:"), std::vector<std::string>{});
  const long applied_before_kill = reader.state().counts.applied();
  EXPECT_GT(applied_before_kill, 0);

  // Started again, the view is resumed to the end.
  Outcome start = r.tavrel({"startview"}, {"--user", "alice", "--password-file", r.at("pw")});
  ASSERT_EQ(start.code, 0) << start.out << start.err;
  Outcome resumed = r.tavrel({"update", "--resume"});
  ASSERT_EQ(resumed.code, 0) << resumed.out << resumed.err;
  const std::vector<std::string> logs = update_logs();
  ASSERT_EQ(logs.size(), 2u);
  ASSERT_EQ(logs.front(), log);
  const std::string text = slurp(logs.back());
  EXPECT_EQ(first_values(text, "Resume:"), std::vector<std::string>{"TRUE"});
  EXPECT_EQ(first_values(text, "Status:"), std::vector<std::string>{"Succeeded"});
  EXPECT_EQ(first_values(slurp(log), "Status:"), std::vector<std::string>{}) << "the killed log was written on";

  Outcome d = diff(r.at("tree"));
  EXPECT_EQ(d.code, 0) << d.out.substr(0, 3000) << d.err.substr(0, 3000);

  // The database the killed agent left, and the resumed one completed, passes the dumper's check.
  Outcome end = r.tavrel({"endview"});
  ASSERT_EQ(end.code, 0) << end.out << end.err;
  Outcome check = r.sh(q(bin("../product/tavrel_dumper_1")) + " -check " + q(r.storage));
  EXPECT_EQ(check.code, 0) << check.out << check.err;
}

}  // namespace
