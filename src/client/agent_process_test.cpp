// Starting an agent and reading its first answer, with shell scripts in the agent's place.
#include "client/agent_process.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>

using namespace tavrel::client;

TEST(AgentProcess, FirstAnswerOrWhyThereIsNone) {
  char tmpl[] = "/tmp/client_agent.XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  const std::string script = std::string(tmpl) + "/agent.sh";
  struct {
    const char* what;
    const char* program;
    const char* body;  // the script; its first argument is the storage, here the script itself
    int error;
    const char* response;
    int exit_code;  // -1: killed after the test
  } rows[] = {
      {"echoes its request", "/bin/sh", "IFS= read -r n; IFS= read -r d; printf '%s\\n%s0\\n' ${#d} \"$d\"", 0,
       "<a> <b/></a>", 0},
      {"ends without a word", "/bin/sh", "exit 3", EPIPE, "", 3},
      {"answers garbage", "/bin/sh", "echo garbage", EPROTO, "", 0},
      {"never answers", "/bin/sh", "exec sleep 60", ETIMEDOUT, "", -1},
      {"cannot be run", "/nonexistent/agent", "", EPIPE, "", 127},
  };
  for (auto& row : rows) {
    SCOPED_TRACE(row.what);
    std::ofstream(script) << row.body << "\n";
    AgentStart how;
    how.program = row.program;
    how.storage = script;
    how.first_request = "<a>\n<b/></a>";  // sent on one line
    how.timeout_ms = row.error == ETIMEDOUT ? 100 : 10000;
    AgentStarted s = start_agent(how);
    EXPECT_EQ(s.error, row.error) << s.message;
    EXPECT_EQ(s.response, row.response);
    ASSERT_GT(s.watchdog_pid, 0);
    if (row.exit_code < 0) kill(s.watchdog_pid, SIGKILL);
    int st = 0;
    ASSERT_TRUE(wait_for_exit(s.watchdog_pid, 10000, &st));
    EXPECT_EQ(WIFEXITED(st) ? WEXITSTATUS(st) : -1, row.exit_code);
  }
  EXPECT_EQ(system(("rm -rf " + std::string(tmpl)).c_str()), 0);
}
