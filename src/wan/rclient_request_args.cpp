#include "wan/rclient_request_args.h"

#include "proto/rpcargs.h"
#include "proto/wan_names.h"

const std::string RClient_Request_Args::RPC = tavrel_wan::FIELD_RPC;
const std::string RClient_Request_Args::RPC_ARGS = tavrel_wan::FIELD_RPC_ARGS;

bool RClient_Request_Args::check_arg_name(const std::string& name) {
  return !name.empty() && name.find('=') == std::string::npos;
}

void RClient_Request_Args::add_arg(const std::string& name, long value) {
  if (check_arg_name(name)) tavrel_wan::rpcargs_add_arg(&m_args, name, std::to_string(value));
}

void RClient_Request_Args::add_arg(const std::string& name, int value) {
  if (check_arg_name(name)) tavrel_wan::rpcargs_add_arg(&m_args, name, std::to_string(value));
}

void RClient_Request_Args::add_arg(const std::string& name, bool value) {
  if (check_arg_name(name)) tavrel_wan::rpcargs_add_arg(&m_args, name, value ? "1" : "0");
}

void RClient_Request_Args::add_arg(const std::string& name) {
  if (check_arg_name(name)) tavrel_wan::rpcargs_add_flag(&m_args, name);
}

void RClient_Request_Args::add_arg(const std::string& name, const std::string& value) {
  if (check_arg_name(name)) tavrel_wan::rpcargs_add_arg(&m_args, name, value);
}
