// A view's life against the real programs: the reference server (a SILO imported from a tree), the
// scripted module (kfsm_peer) on its own socket, and the agent driven by the `tavrel` command line.
// Covered: making a view (login, config spec cached), ending and starting it again, starting with
// the server down and going online with `connect`, wrong credentials, a second start of a running
// view, and a start after the agent was killed with SIGKILL.
#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/fileutl.h"
#include "base/server.h"
#include "tests/e2e/e2e_process.h"

namespace {

using namespace e2e;

class ViewLife : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/tavrel-view-e2e-XXXXXX";
    dir = mkdtemp(tmpl);
    home = dir + "/home";
    storage = dir + "/view";
    fileutl_mkpath(home, 0700);
    fileutl_mkpath(dir + "/tree/src", 0755);
    std::ofstream(dir + "/tree/README") << "a small project\n";
    std::ofstream(dir + "/tree/src/main.c") << "int main(void) { return 0; }\n";
    std::ofstream(dir + "/users") << "alice:s3cret\n";
    chmod((dir + "/users").c_str(), 0600);
    std::ofstream(dir + "/pw") << "s3cret\n";
    std::ofstream(dir + "/badpw") << "wrong\n";
    store = dir + "/store.db";
    Outcome imp = sh("'" + bin("tavrel_server") + "' import --store '" + store + "' --silo /proj '" + dir + "/tree'");
    ASSERT_EQ(imp.code, 0) << imp.err;

    socket_path = dir + "/kfsm.sock";
    peer = spawn({bin("kfsm_peer"), "--socket", socket_path, "--root", dir}, dir + "/peer.log");
    ASSERT_TRUE(wait_for(10000, [&] { return fileutl_exists(socket_path); })) << slurp(dir + "/peer.log");
    port = free_port();
    ASSERT_GT(port, 0);
  }

  void TearDown() override {
    sh_tavrel({"endview", "--kill"});
    stop(server);
    stop(peer);
    std::string cmd = "rm -rf '" + dir + "'";
    if (system(cmd.c_str()) != 0) ADD_FAILURE() << cmd;
  }

  void start_server() {
    std::string port_file = dir + "/port";
    unlink(port_file.c_str());
    server = spawn({bin("tavrel_server"), "serve", "--store", store, "--users", dir + "/users", "--port",
                    std::to_string(port), "--port-file", port_file, "--request-log", dir + "/requests.log"},
                   dir + "/server.log");
    ASSERT_TRUE(wait_for(10000, [&] { return !slurp(port_file).empty(); })) << slurp(dir + "/server.log");
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

  Outcome sh_tavrel(const std::vector<std::string>& args) {
    std::string cmd = "HOME='" + home + "' TAVREL_KFSM_SOCKET='" + socket_path + "' TAVREL_AGENT='" +
                      bin("tavrel_agent") + "' '" + bin("tavrel") + "' -s '" + storage + "' -t 30";
    for (const auto& a : args) cmd += " '" + a + "'";
    return sh(cmd);
  }

  std::vector<std::string> creds(const std::string& pw = "pw") {
    return {"--server-url", url(), "--user", "alice", "--password-file", dir + "/" + pw};
  }
  Outcome tavrel(std::vector<std::string> args, const std::vector<std::string>& extra = {}) {
    args.insert(args.end(), extra.begin(), extra.end());
    return sh_tavrel(args);
  }

  // RPC names (or paths) the server answered. The server writes an entry just after its reply has
  // gone out, so the log is read again until it has stopped growing for 100 ms.
  std::vector<std::string> rpcs() {
    std::vector<std::string> last = read_rpcs();
    for (int i = 0; i < 100; i++) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      std::vector<std::string> now = read_rpcs();
      if (now.size() == last.size()) return now;
      last = now;
    }
    return last;
  }
  std::vector<std::string> read_rpcs() {
    std::vector<std::string> names;
    std::istringstream in(slurp(dir + "/requests.log"));
    std::string line;
    while (std::getline(in, line)) {
      std::vector<std::string> f;
      std::stringstream ls(line);
      std::string x;
      while (std::getline(ls, x, '\t')) f.push_back(x);
      if (f.size() > 3) names.push_back(f[3].empty() || f[3] == "-" ? f[2] : f[3]);
    }
    return names;
  }
  static bool has(const std::vector<std::string>& v, const std::string& what) {
    for (const auto& s : v)
      if (s.find(what) != std::string::npos) return true;
    return false;
  }

  pid_t agent_pid() { return server_lock_holder(storage + "/" + VIEW_STG_LOCK); }

  std::string dir, home, storage, store, socket_path;
  pid_t peer = -1, server = -1;
  int port = -1;
};

TEST_F(ViewLife, MakeEndAndStartAgainAgainstTheServer) {
  start_server();
  Outcome mk = tavrel({"mkview", "--tag", "v1"}, creds());
  ASSERT_EQ(mk.code, 0) << mk.out << mk.err;
  EXPECT_GT(agent_pid(), 0);
  // The view logged in and fetched its config spec, whose element rules it keeps.
  std::vector<std::string> seen = rpcs();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_TRUE(has(seen, "login"));
  EXPECT_TRUE(has(seen, "getconfigspec"));
  EXPECT_FALSE(slurp(storage + "/" + VIEW_STG_CONFIG_SPEC).empty());
  std::string meta = slurp(storage + "/" + VIEW_STG_METADATA);
  EXPECT_NE(meta.find("server-tag=v1\n"), std::string::npos) << meta;
  EXPECT_NE(meta.find("server-url=" + url() + "tavrel\n"), std::string::npos) << meta;

  Outcome status = tavrel({"--json", "status"});
  EXPECT_EQ(status.code, 0);
  EXPECT_NE(status.out.find("\"running\":true"), std::string::npos) << status.out;
  EXPECT_NE(status.out.find("\"update_in_progress\":false"), std::string::npos) << status.out;
  Outcome upd = sh("echo '<IsUpdateInProgress version=\"1\"/>' | HOME='" + home + "' '" + bin("tavrel") + "' -s '" +
               storage + "' --json raw --add-txid");
  EXPECT_EQ(upd.code, 0) << upd.err;
  EXPECT_NE(upd.out.find("\"status\":0"), std::string::npos) << upd.out;
  EXPECT_NE(upd.out.find("false"), std::string::npos) << upd.out;

  // EndView (the default of `tavrel endview`): nothing mounted, so nothing to report; it logs out.
  Outcome end = tavrel({"endview"});
  ASSERT_EQ(end.code, 0) << end.err;
  EXPECT_EQ(end.out, "view ended\n");
  EXPECT_LE(agent_pid(), 0);
  EXPECT_FALSE(fileutl_exists(storage + "/" + VIEW_STG_IPC_DIR + "/" + VIEW_STG_LISTENER));
  EXPECT_TRUE(has(rpcs(), "logout"));

  size_t before = rpcs().size();
  Outcome start = tavrel({"startview"}, creds());
  ASSERT_EQ(start.code, 0) << start.out << start.err;
  EXPECT_EQ(start.err.find("note"), std::string::npos) << "an online start has nothing to report: " << start.err;
  seen = rpcs();
  ASSERT_EQ(seen.size(), before + 1);
  EXPECT_NE(seen[before].find("login"), std::string::npos) << seen[before];

  // The process records its start and end in the view's log.
  ASSERT_EQ(tavrel({"endview"}).code, 0);
  std::string log = slurp(storage + "/" + VIEW_STG_LOG_DIR + "/" + VIEW_STG_LOG_FILE);
  EXPECT_NE(log.find("Using view \"" + storage + "\""), std::string::npos) << log;
  EXPECT_NE(log.find("Exiting, status = 0."), std::string::npos) << log;
  EXPECT_EQ(log.find("Interrupted"), std::string::npos) << "ended by request, not by signal: " << log;
  // The forced end by signal says so in the log.
  ASSERT_EQ(tavrel({"startview"}, creds()).code, 0);
  ASSERT_EQ(tavrel({"endview", "--signal"}).code, 0);
  EXPECT_NE(slurp(storage + "/" + VIEW_STG_LOG_DIR + "/" + VIEW_STG_LOG_FILE).find("Interrupted...exiting."), std::string::npos);
}

TEST_F(ViewLife, StartOfflineWhileTheServerIsDownThenConnect) {
  start_server();
  ASSERT_EQ(tavrel({"mkview", "--tag", "v2"}, creds()).code, 0);
  ASSERT_EQ(tavrel({"endview"}).code, 0);
  stop(server);

  Outcome start = tavrel({"startview"}, creds());
  ASSERT_EQ(start.code, 0) << start.out << start.err;
  EXPECT_NE(start.err.find("Unable to connect to server"), std::string::npos) << start.err;
  EXPECT_NE(slurp(storage + "/" + VIEW_STG_LOG_DIR + "/" + VIEW_STG_LOG_FILE).find("WARN"), std::string::npos);
  EXPECT_GT(agent_pid(), 0);

  // Connect while the server is still down fails and leaves the view running offline.
  Outcome early = tavrel({"connect", "--user", "alice", "--password-file", dir + "/pw"});
  EXPECT_EQ(early.code, 1) << early.out << early.err;
  EXPECT_NE(early.err.find("20034"), std::string::npos) << early.err;

  start_server();
  Outcome bad = tavrel({"connect", "--user", "alice", "--password-file", dir + "/badpw"});
  EXPECT_EQ(bad.code, 1);
  EXPECT_NE(bad.err.find("20034"), std::string::npos) << bad.err;
  Outcome con = tavrel({"connect", "--user", "alice", "--password-file", dir + "/pw"});
  ASSERT_EQ(con.code, 0) << con.out << con.err;
  EXPECT_TRUE(has(rpcs(), "login"));

  // Online now: a second connect changes nothing, with whatever credentials.
  size_t before = rpcs().size();
  EXPECT_EQ(tavrel({"connect", "--user", "alice", "--password-file", dir + "/badpw"}).code, 0);
  EXPECT_EQ(rpcs().size(), before) << "no login while online";

  // Disconnect logs out; a second disconnect is a no-op.
  ASSERT_EQ(tavrel({"disconnect"}).code, 0);
  EXPECT_TRUE(has(rpcs(), "logout"));
  before = rpcs().size();
  EXPECT_EQ(tavrel({"disconnect"}).code, 0);
  EXPECT_EQ(rpcs().size(), before);
  // And Connect brings it back with the good password.
  EXPECT_EQ(tavrel({"connect", "--user", "alice", "--password-file", dir + "/pw"}).code, 0);
}

TEST_F(ViewLife, WrongCredentialsAndIncompleteServerInformation) {
  start_server();
  // MkView with a wrong password fails and leaves no storage behind.
  Outcome mk = tavrel({"mkview", "--tag", "v3"}, creds("badpw"));
  EXPECT_EQ(mk.code, 1) << mk.out << mk.err;
  EXPECT_NE(mk.err.find("20034"), std::string::npos) << mk.err;
  EXPECT_FALSE(fileutl_exists(storage));
  // Without a user the server information is incomplete: nothing is made either.
  Outcome nouser = tavrel({"mkview", "--tag", "v3", "--server-url", url(), "--password-file", dir + "/pw"});
  EXPECT_EQ(nouser.code, 1);
  EXPECT_NE(nouser.err.find("20022"), std::string::npos) << nouser.err;
  EXPECT_FALSE(fileutl_exists(storage));
  // Offline creation needs no server at all.
  Outcome off = tavrel({"mkview", "--tag", "v3", "--offline", "--server-url", url()});
  ASSERT_EQ(off.code, 0) << off.out << off.err;
  ASSERT_EQ(tavrel({"endview"}).code, 0);
  // A start with the wrong password runs offline and says so.
  Outcome start = tavrel({"startview"}, creds("badpw"));
  EXPECT_EQ(start.code, 0) << start.err;
  EXPECT_NE(start.err.find("Unable to connect"), std::string::npos) << start.err;
}

TEST_F(ViewLife, SecondStartOfARunningViewIsRefusedAndTheFirstGoesOn) {
  start_server();
  ASSERT_EQ(tavrel({"mkview", "--tag", "v4"}, creds()).code, 0);
  pid_t first = agent_pid();
  ASSERT_GT(first, 0);
  // A second agent on the same storage, started directly: status 3, exit 2.
  std::string req = "<StartView version=\"1\"><server online=\"false\"><server-url>" + url() + "</server-url></server></StartView>";
  Outcome second = sh("printf '%s\\n%s' " + std::to_string(req.size()) + " '" + req + "' | HOME='" + home +
                  "' TAVREL_KFSM_SOCKET='" + socket_path + "' '" + bin("tavrel_agent") + "' '" + storage + "'");
  EXPECT_EQ(second.code, 2);
  EXPECT_NE(second.out.find("status-code=\"3\""), std::string::npos) << second.out;
  EXPECT_NE(second.out.find("in use by process " + std::to_string(first)), std::string::npos) << second.out;
  EXPECT_EQ(agent_pid(), first);
  EXPECT_TRUE(fileutl_exists(storage + "/" + VIEW_STG_IPC_DIR + "/" + VIEW_STG_LISTENER)) << "the refused agent leaves the running one's listener";
  EXPECT_EQ(tavrel({"--json", "status"}).code, 0);
  Outcome again = tavrel({"startview"}, creds());
  EXPECT_EQ(again.code, 0);
  EXPECT_NE(again.out.find("already running"), std::string::npos) << again.out;
  // MkView over it: the storage exists.
  Outcome mk = tavrel({"mkview", "--tag", "v4"}, creds());
  EXPECT_EQ(mk.code, 1);
  EXPECT_TRUE(fileutl_exists(storage + "/" + VIEW_STG_METADATA));
  EXPECT_EQ(agent_pid(), first);
}

TEST_F(ViewLife, KilledAgentLeavesAViewThatStartsCleanly) {
  start_server();
  ASSERT_EQ(tavrel({"mkview", "--tag", "v5"}, creds()).code, 0);
  pid_t pid = agent_pid();
  ASSERT_GT(pid, 0);
  ASSERT_EQ(kill(pid, SIGKILL), 0);
  ASSERT_TRUE(wait_for(10000, [&] { return agent_pid() <= 0 && !fileutl_exists(storage + "/" + VIEW_STG_IPC_DIR + "/" + VIEW_STG_LISTENER); }));
  Outcome start = tavrel({"startview"}, creds());
  ASSERT_EQ(start.code, 0) << start.out << start.err;
  EXPECT_GT(agent_pid(), 0);
  EXPECT_NE(agent_pid(), pid);
  Outcome cs = tavrel({"--json", "status"});
  EXPECT_EQ(cs.code, 0) << cs.out;
}

TEST_F(ViewLife, TheAgentKeepsNoDescriptorOfWhoStartedIt) {
  start_server();
  // A descriptor the caller of `tavrel` holds open (here fd 7 on a file) must not live on in the
  // agent, which outlasts the command: a pipe held that way would never see its end.
  std::string held = dir + "/held-by-the-caller";
  std::string cmd = "exec 7>'" + held + "'; HOME='" + home + "' TAVREL_KFSM_SOCKET='" + socket_path +
                    "' TAVREL_AGENT='" + bin("tavrel_agent") + "' '" + bin("tavrel") + "' -s '" + storage +
                    "' mkview --tag v6 --server-url " + url() + " --user alice --password-file '" + dir + "/pw'";
  Outcome mk = sh(cmd);
  ASSERT_EQ(mk.code, 0) << mk.err;
  pid_t pid = agent_pid();
  ASSERT_GT(pid, 0);
  std::string fd_dir = "/proc/" + std::to_string(pid) + "/fd";
  DIR* d = opendir(fd_dir.c_str());
  ASSERT_NE(d, nullptr);
  int checked = 0;
  while (dirent* e = readdir(d)) {
    char target[4096] = {};
    if (readlink((fd_dir + "/" + e->d_name).c_str(), target, sizeof target - 1) > 0) {
      checked++;
      EXPECT_NE(std::string(target), held) << "fd " << e->d_name;
    }
  }
  closedir(d);
  EXPECT_GT(checked, 3);
}

}  // namespace
