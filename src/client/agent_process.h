// Starting an agent and reading its first answer.
//
// The agent is started with the absolute storage path as its first argument and pipes on its
// standard input and output. The first request goes on standard input as one frame whose document
// is on one line (the agent joins lines without separators), and standard input is closed. The
// answer is read as exactly one response frame (never to end of file). The agent then goes on in
// the background: the pid returned is its watchdog, whose exit status is the agent's.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tavrel::client {

struct AgentStart {
  std::string program;                 // path of tavrel_agent
  std::string storage;                 // made absolute before use
  std::vector<std::string> extra_args; // e.g. -trace_level 5 -trace_subsystem TAVREL
  std::string first_request;           // the XML document (MkView or StartView)
  int timeout_ms = 30000;              // for the first answer
  bool raw_first_request = false;      // send the document as it is (tests); otherwise on one line
};

struct AgentStarted {
  int error = 0;            // 0, or an errno-style reason the start or the read failed
  std::string message;      // what went wrong, for people
  pid_t watchdog_pid = -1;  // the process started; waitpid on it gives the agent's exit code
  std::string response;     // the first answer's document
};

AgentStarted start_agent(const AgentStart& how);

// Waits for a process with a time limit. Returns true when it ended; *status is the waitpid status.
bool wait_for_exit(pid_t pid, int timeout_ms, int* status);

}  // namespace tavrel::client
