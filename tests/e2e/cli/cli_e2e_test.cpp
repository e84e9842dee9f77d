// The `tavrel` program against a running agent (the test build of the agent, whose operations are
// small test operations): usage, exit codes, output forms, secrets, start and end of a view.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "base/fileutl.h"
#include "proto/view_storage_names.h"

namespace {

std::string bin(const char* name) {
  const char* dir = getenv("TAVREL_BIN_DIR");
  return std::string(dir ? dir : ".") + "/" + name;
}

struct CliRun {
  int code;
  std::string out;
  std::string err;
};

class Cli : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/tavrel-cli-XXXXXX";
    dir = mkdtemp(tmpl);
    storage = dir + "/v\"ie\\w";  // JSON output must escape both
    home = dir + "/home";
    fileutl_mkpath(home, 0700);
  }
  void TearDown() override {
    run({"endview", "--kill"});
    std::string cmd = "rm -rf '" + dir + "'";
    if (system(cmd.c_str()) != 0) ADD_FAILURE();
  }
  // Runs tavrel with the fixture agent; `env` is prepended to the command line.
  CliRun run(const std::vector<std::string>& args, const std::string& env = "", const std::string& input = "") {
    std::string cmd = "cd '" + dir + "' && " + env + " HOME='" + home + "' TAVREL_AGENT='" + bin("tavrel_agent_fixture") +
                      "' '" + bin("tavrel") + "' -s '" + storage + "'";
    for (auto& a : args) cmd += " '" + a + "'";
    std::string out_path = dir + "/out", err_path = dir + "/err", in_path = dir + "/in";
    std::ofstream(in_path) << input;
    cmd += " <'" + in_path + "' >'" + out_path + "' 2>'" + err_path + "'";
    int st = system(cmd.c_str());
    CliRun r;
    r.code = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    fileutl_read_file(out_path, &r.out, 1 << 20);
    fileutl_read_file(err_path, &r.err, 1 << 20);
    return r;
  }
  std::string dir, storage, home;
};

TEST_F(Cli, UsageAndHelp) {
  CliRun r = run({"--help"});
  EXPECT_EQ(r.code, 0);
  // A command is listed only once the agent serves its request.
  EXPECT_EQ(r.out.find("getcs"), std::string::npos) << r.out;
  for (const char* c : {"mkview", "startview", "endview", "status", "connect", "disconnect", "raw"}) {
    EXPECT_NE(r.out.find(c), std::string::npos) << c;
    CliRun h = run({c, "--help"});
    EXPECT_EQ(h.code, 0) << c;
    EXPECT_NE(h.out.find(std::string("tavrel [global options] ") + c), std::string::npos) << h.out;
  }
  struct {
    std::vector<std::string> args;
    const char* says;
  } bad[] = {
      {{}, "usage: tavrel"},
      {{"frobnicate"}, "unknown command 'frobnicate'"},
      {{"getcs"}, "unknown command 'getcs'"},
      {{"startview", "--password", "pw"}, "passwords never go on the command line"},
      {{"raw", "--bogus"}, "unknown option '--bogus' for raw"},
      {{"--timeout", "0", "status"}, "--timeout takes seconds"},
      {{"mkview"}, "mkview needs --tag"},
  };
  // The server program: help for each command on standard output, a usage error is 2.
  for (std::string sub : {"", "serve ", "import "}) {
    std::string out;
    int st = system(("'" + bin("tavrel_server") + "' " + sub + "--help >'" + dir + "/out' 2>/dev/null").c_str());
    EXPECT_EQ(WIFEXITED(st) ? WEXITSTATUS(st) : -1, 0) << sub;
    fileutl_read_file(dir + "/out", &out, 1 << 20);
    EXPECT_NE(out.find("usage: tavrel_server " + (sub.empty() ? std::string("serve") : sub)), std::string::npos) << out;
  }
  EXPECT_EQ(WEXITSTATUS(system(("'" + bin("tavrel_server") + "' import --bogus 2>/dev/null").c_str())), 2);
  for (auto& b : bad) {
    CliRun u = run(b.args);
    EXPECT_EQ(u.code, 2) << testing::PrintToString(b.args);
    EXPECT_NE(u.err.find(b.says), std::string::npos) << u.err;
    EXPECT_EQ(std::count(u.err.begin(), u.err.end(), '\n') >= 1, true);
  }
}

TEST_F(Cli, ViewLifeAndRequests) {
  CliRun r = run({"status"});
  EXPECT_EQ(r.code, 3);  // no storage: no agent
  ASSERT_EQ(mkdir(storage.c_str(), 0700), 0);
  r = run({"status"});
  EXPECT_EQ(r.code, 3);
  EXPECT_NE(r.out.find("running: false"), std::string::npos);

  std::ofstream(dir + "/pw") << "from-a-file\n";
  r = run({"startview", "--server-url", "http://127.0.0.1:1/", "--user", "u", "--password-file", dir + "/pw"},
          "TAVREL_PASSWORD=env-secret-77");
  ASSERT_EQ(r.code, 0) << r.err;
  // A password in the caller's environment never reaches the agent or its watchdog.
  std::string pid_text, environ_text, stat_text;
  ASSERT_EQ(fileutl_read_file(storage + "/" + VIEW_STG_LOCK, &pid_text, 64), 0);
  const std::string agent = std::to_string(std::atoi(pid_text.c_str()));
  ASSERT_EQ(fileutl_read_file("/proc/" + agent + "/stat", &stat_text, 4096), 0);
  const std::string watchdog = stat_text.substr(stat_text.rfind(')') + 4, stat_text.find(' ', stat_text.rfind(')') + 4) -
                                                                              stat_text.rfind(')') - 4);
  for (const std::string& pid : {agent, watchdog}) {
    ASSERT_EQ(fileutl_read_file("/proc/" + pid + "/environ", &environ_text, 1 << 20), 0) << pid;
    EXPECT_EQ(environ_text.find("env-secret-77"), std::string::npos) << pid;
  }
  std::string first;
  ASSERT_EQ(fileutl_read_file(storage + "/.first-request", &first, 1 << 20), 0);
  EXPECT_NE(first.find("<password>from-a-file</password>"), std::string::npos) << first;
  EXPECT_NE(first.find("<username>u</username>"), std::string::npos);

  r = run({"status", "--json"});
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out.rfind("{\"storage\":\"" + dir + "/v\\\"ie\\\\w\",\"view_tag\":", 0), 0u) << r.out;
  EXPECT_NE(r.out.find("\"running\":true"), std::string::npos) << r.out;
  r = run({"startview"});
  EXPECT_EQ(r.code, 0);
  EXPECT_NE(r.out.find("already running"), std::string::npos);

  r = run({"raw", "--add-txid", "--tx-id", "t-9"}, "", "<Echo version=\"1\"/>\n");
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out, "size: 31\n");
  r = run({"--json", "raw", "--add-txid", "--tx-id", "t-9"}, "", "<Echo version=\"1\"/>");
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out, "{\"op\":\"Echo\",\"tx_id\":\"t-9\",\"status\":0,\"status_name\":\"OK\",\"message\":\"\",\"result\":{\"size\":31}}\n");
  r = run({"--xml", "raw"}, "", "<Nonsense version=\"1\" tx-id=\"z\"/>");
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.out.find("<XMLError"), std::string::npos);
  // A request the agent does not know is named in the error.
  r = run({"raw"}, "", "<?xml version=\"1.0\"?><GetConfigSpec version=\"1\" tx-id=\"z\"/>");
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.err.rfind("tavrel: the agent does not know the request \"GetConfigSpec\" (UNRECOGNIZED_REQUEST, 20020)\n", 0),
            0u) << r.err;

  r = run({"endview", "--signal"});
  EXPECT_EQ(r.code, 0) << r.err;
  r = run({"status"});
  EXPECT_EQ(r.code, 3);
  r = run({"-t", "1", "raw"}, "", "<Echo version=\"1\" tx-id=\"x\"/>");
  EXPECT_EQ(r.code, 3);  // nobody listens any more
  // An agent that cannot be run at all.
  r = run({"--agent", "/nonexistent/agent", "startview", "--offline"});
  EXPECT_EQ(r.code, 7);
  EXPECT_NE(r.err.find("the agent did not answer"), std::string::npos) << r.err;
}

}  // namespace
