// A view's life against the real programs: the reference server (a SILO imported from a tree), the
// scripted module (kfsm_peer) on its own socket, and the agent driven by the `tavrel` command line.
// Covered: making a view, ending and starting it again, starting with the server down and going
// online with `connect`, wrong credentials and a server that fails the login, a second start of a
// running view, and a start after the agent was killed with SIGKILL in the middle of a request.
#include <gtest/gtest.h>

#include "base/server.h"
#include "proto/tavrel_status.h"
#include "proto/view_storage_names.h"
#include "server/test_client.h"
#include "tests/e2e/e2e_process.h"

namespace {

using namespace e2e;
constexpr auto npos = std::string::npos;

class ViewLife : public ::testing::Test {
 protected:
  void SetUp() override {
    r.put("tree/README", "a small project\n");
    r.put("tree/src/main.c", "int main(void) { return 0; }\n");
    Outcome imp = r.import("/proj", "tree");
    ASSERT_EQ(imp.code, 0) << imp.err;
    peer = spawn({bin("kfsm_peer"), "--socket", r.at("run/kfsm.sock"), "--root", r.dir}, r.at("peer.log"));
    ASSERT_TRUE(wait_for(10000, [&] { return fileutl_exists(r.at("run/kfsm.sock")); })) << slurp(r.at("peer.log"));
    ASSERT_TRUE(r.start_server()) << slurp(r.at("server.log"));
  }
  void TearDown() override {
    r.tavrel({"endview", "--kill"});
    stop(peer);
  }

  Outcome connect(const std::string& pw) {
    return r.tavrel({"connect", "--user", "alice", "--password-file", r.at(pw)});
  }
  pid_t agent_pid() { return server_lock_holder(r.storage + "/" + VIEW_STG_LOCK); }
  std::string listener() { return r.storage + "/" + VIEW_STG_IPC_DIR + "/" + VIEW_STG_LISTENER; }
  std::string log() { return slurp(r.storage + "/" + VIEW_STG_LOG_DIR + "/" + VIEW_STG_LOG_FILE); }
  // Arms a fault of the server ("Kind=..\nValue=..\n", applied once); the admin request's status.
  int arm(const std::string& fault) {
    tavrel_test::WanClient c("127.0.0.1", r.port);
    return c.post("/admin", "fault.set", fault, {{"x-tavrel-admin-token", "tok-e2e"}}).reply.status;
  }

  Rig r{"tavrel-view-e2e"};
  pid_t peer = -1;
};

TEST_F(ViewLife, MakeRefuseASecondStartEndAndStartAgain) {
  Outcome mk = r.tavrel({"mkview", "--tag", "v1"}, r.creds());
  ASSERT_EQ(mk.code, 0) << mk.out << mk.err;
  pid_t first = agent_pid();
  EXPECT_GT(first, 0);
  // The view logged in, fetched its config spec and keeps it, with its tag and server.
  EXPECT_EQ(r.trail(2), "login getconfigspec");
  EXPECT_FALSE(slurp(r.storage + "/" + VIEW_STG_CONFIG_SPEC).empty());
  std::string meta = slurp(r.storage + "/" + VIEW_STG_METADATA);
  EXPECT_NE(meta.find("server-tag=v1\n"), npos) << meta;
  EXPECT_NE(meta.find("server-url=" + r.url() + "tavrel\n"), npos) << meta;
  Outcome status = r.tavrel({"--json", "status"});
  EXPECT_NE(status.out.find("\"running\":true"), npos) << status.out;

  // A second agent on the same storage, started directly, is refused (status 3, exit 2) and leaves
  // the running one alone; so are a start and a make through the command line.
  std::string req = "<StartView version=\"1\"><server online=\"false\"><server-url>" + r.url() +
                    "</server-url></server></StartView>";
  Outcome second = r.sh("printf '%s\\n%s' " + std::to_string(req.size()) + " " + q(req) + " | " + r.env() +
                        q(bin("tavrel_agent")) + " " + q(r.storage));
  EXPECT_EQ(second.code, 2);
  EXPECT_NE(second.out.find("status-code=\"3\""), npos) << second.out;
  EXPECT_NE(second.out.find("in use by process " + std::to_string(first)), npos) << second.out;
  EXPECT_TRUE(fileutl_exists(listener())) << "the refused agent leaves the running one's listener";
  Outcome again = r.tavrel({"startview"}, r.creds());
  EXPECT_EQ(again.code, 0);
  EXPECT_NE(again.out.find("already running"), npos) << again.out;
  EXPECT_EQ(r.tavrel({"mkview", "--tag", "v4"}, r.creds()).code, 1);
  EXPECT_TRUE(fileutl_exists(r.storage + "/" + VIEW_STG_METADATA));
  EXPECT_EQ(agent_pid(), first);

  // Ended by request: nothing mounted, so nothing to report; the log says it ended, not on a signal.
  Outcome end = r.tavrel({"endview"});
  ASSERT_EQ(end.code, 0) << end.err;
  EXPECT_EQ(end.out, "view ended\n");
  EXPECT_LE(agent_pid(), 0);
  EXPECT_FALSE(fileutl_exists(listener()));
  EXPECT_NE(log().find("Using view \"" + r.storage + "\""), npos) << log();
  EXPECT_NE(log().find("Exiting, status = 0."), npos) << log();
  EXPECT_EQ(log().find("Interrupted"), npos) << log();

  Outcome start = r.tavrel({"startview"}, r.creds());
  ASSERT_EQ(start.code, 0) << start.out << start.err;
  EXPECT_EQ(start.err.find("note"), npos) << "an online start has nothing to report: " << start.err;
  ASSERT_EQ(r.tavrel({"endview"}).code, 0);
  EXPECT_EQ(r.trail(5), "login getconfigspec logout login logout");
}

TEST_F(ViewLife, StartOfflineWhileTheServerIsDownThenConnect) {
  ASSERT_EQ(r.tavrel({"mkview", "--tag", "v2"}, r.creds()).code, 0);
  ASSERT_EQ(r.tavrel({"endview"}).code, 0);
  EXPECT_EQ(r.trail(3), "login getconfigspec logout");
  stop(r.server);

  Outcome start = r.tavrel({"startview"}, r.creds());
  ASSERT_EQ(start.code, 0) << start.out << start.err;
  // The answer says nothing of the failed login; the command shows the warning from the view's log.
  EXPECT_NE(start.err.find("tavrel: warning: Unable to connect to server"), npos) << start.err;
  EXPECT_NE(log().find("WARN"), npos);
  EXPECT_GT(agent_pid(), 0);

  // Connect fails while the server is down, and with a wrong password once it is up; the view goes
  // on offline.
  Outcome early = connect("pw");
  EXPECT_EQ(early.code, 1) << early.out << early.err;
  EXPECT_NE(early.err.find(std::to_string(TAVREL_ST_CANNOT_CONNECT)), npos) << early.err;
  ASSERT_TRUE(r.start_server()) << slurp(r.at("server.log"));
  Outcome bad = connect("badpw");
  EXPECT_EQ(bad.code, 1);
  EXPECT_NE(bad.err.find(std::to_string(TAVREL_ST_CANNOT_CONNECT)), npos) << bad.err;
  EXPECT_EQ(connect("pw").code, 0);
  // Online, connect changes nothing whatever the credentials; disconnect logs out, a second one is a
  // no-op; and connect brings the view back.
  EXPECT_EQ(connect("badpw").code, 0);
  EXPECT_EQ(r.tavrel({"disconnect"}).code, 0);
  EXPECT_EQ(r.tavrel({"disconnect"}).code, 0);
  EXPECT_EQ(connect("pw").code, 0);
  EXPECT_EQ(r.trail(7), "login getconfigspec logout login login logout login");
}

TEST_F(ViewLife, WrongCredentialsAndLoginFailures) {
  // MkView with a wrong password, a login the server refuses, or no user (the server information is
  // incomplete) fails and makes nothing.
  struct {
    std::vector<std::string> args;
    const char* fault;
    int status;
  } refused[] = {
      {r.creds("badpw"), "", TAVREL_ST_CANNOT_CONNECT},
      {r.creds(), "Kind=refuse_login\n", TAVREL_ST_CANNOT_CONNECT},
      {{"--server-url", r.url(), "--password-file", r.at("pw")}, "", TAVREL_ST_SERVER_INFO},
  };
  for (auto& c : refused) {
    if (*c.fault) {
      ASSERT_EQ(arm(c.fault), 0);
    }
    Outcome mk = r.tavrel({"mkview", "--tag", "v3"}, c.args);
    EXPECT_EQ(mk.code, 1) << c.status << mk.out << mk.err;
    EXPECT_NE(mk.err.find(std::to_string(c.status)), npos) << mk.err;
    EXPECT_FALSE(fileutl_exists(r.storage));
  }
  // Offline creation needs no server at all.
  Outcome off = r.tavrel({"mkview", "--tag", "v3", "--offline", "--server-url", r.url()});
  ASSERT_EQ(off.code, 0) << off.out << off.err;
  // A start that cannot log in runs offline and says so (how each transport fault ends a request:
  // src/wan tests).
  struct {
    const char *pw, *fault;
  } offline[] = {
      {"badpw", ""},
      {"pw", "Kind=refuse_login\n"},
  };
  for (auto& c : offline) {
    ASSERT_EQ(r.tavrel({"endview"}).code, 0);
    if (*c.fault) {
      ASSERT_EQ(arm(c.fault), 0);
    }
    Outcome start = r.tavrel({"startview"}, r.creds(c.pw));
    EXPECT_EQ(start.code, 0) << c.fault << start.err;
    EXPECT_NE(start.err.find("Unable to connect"), npos) << c.pw << " " << c.fault << start.err;
  }
  // Each fault served once: the view goes online now.
  EXPECT_EQ(connect("pw").code, 0);
}

TEST_F(ViewLife, KilledInTheMiddleOfARequestTheViewStartsCleanly) {
  ASSERT_EQ(r.tavrel({"--trace", "4:TAVREL", "mkview", "--tag", "v5"}, r.creds()).code, 0);
  ASSERT_EQ(r.tavrel({"disconnect"}).code, 0);
  pid_t pid = agent_pid();
  ASSERT_GT(pid, 0);
  // The server holds the next login for a minute; the agent is killed while it waits for it.
  ASSERT_EQ(arm("Kind=delay_before\nValue=60000\nMatch=Tavrel_Orlen::login_rpc\n"), 0);
  auto logins = [&] { return count_of(r.sh("cat " + q(r.home) + "/tavrel_trace/*").out, "::Login with url "); };
  int before = logins();
  pid_t client = spawn({"/bin/sh", "-c", r.env() + q(bin("tavrel")) + " -s " + q(r.storage) +
                                             " connect --user alice --password-file " + q(r.at("pw"))},
                       r.at("connect.log"));
  ASSERT_TRUE(wait_for(10000, [&] { return logins() > before; }));
  ASSERT_EQ(kill(pid, SIGKILL), 0);
  int code = exit_code(client);
  if (code < 0) stop(client);
  EXPECT_GT(code, 0) << "the client sees the agent go: " << slurp(r.at("connect.log"));
  ASSERT_TRUE(wait_for(10000, [&] { return agent_pid() <= 0 && !fileutl_exists(listener()); }));

  // A server without the fault (killed: its stop would wait for the held request).
  kill(r.server, SIGKILL);
  waitpid(r.server, nullptr, 0);
  ASSERT_TRUE(r.start_server()) << slurp(r.at("server.log"));
  Outcome start = r.tavrel({"startview"}, r.creds());
  ASSERT_EQ(start.code, 0) << start.out << start.err;
  EXPECT_GT(agent_pid(), 0);
  EXPECT_NE(agent_pid(), pid);
  EXPECT_EQ(r.tavrel({"--json", "status"}).code, 0);
}

}  // namespace
