// RClient_Request_Args: the argument text of one WAN request (form field "rpcargs"): one line
// "name=value" per argument, each ended by LF, in the order added. The line format and its coding of
// line feeds are the shared codec's (proto/rpcargs.h); a name that is empty or holds "=" is dropped
// silently by every add_arg.
#pragma once

#include <string>

class RClient_Request_Args {
 public:
  static const std::string RPC;       // "rpc"
  static const std::string RPC_ARGS;  // "rpcargs"

  virtual ~RClient_Request_Args() = default;

  void add_arg(const std::string& name, long value);
  void add_arg(const std::string& name, int value);
  void add_arg(const std::string& name, bool value);
  // A bare "name" line (a flag).
  void add_arg(const std::string& name);
  // "name=value"; each LF of the value is coded "%0A" (see proto/rpcargs.h for the exact text).
  void add_arg(const std::string& name, const std::string& value);
  void add_arg(const std::string& name, const char* value) { add_arg(name, std::string(value ? value : "")); }

  static bool check_arg_name(const std::string& name);
  const std::string& get_args() const { return m_args; }

 private:
  std::string m_args;
};
