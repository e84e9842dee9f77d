// RClient_CB: what the HTTP client's write callback reaches: the command that parses the reply.
#pragma once

#include <cstddef>

class RClient_Abstract_Cmd;

class RClient_CB {
 public:
  explicit RClient_CB(RClient_Abstract_Cmd* cmd) : m_cmd(cmd) {}
  // Hands a block of the reply body to the command's process_response; returns its result (0 goes on,
  // anything else stops the transfer).
  static int response_cb(char* data, size_t length, void* cb);

 private:
  RClient_Abstract_Cmd* m_cmd;  // not owned
};
