// The `tavrel` command line: global options, subcommands, output and exit codes.
//
// Exit codes: 0 success; 1 the agent answered with a non-zero status; 2 usage error; 3 no agent
// (storage missing, view not running, pipes never appeared); 4 time-out waiting for a reply;
// 5 protocol error (bad frame or XML, unexpected root, tx-id mismatch); 6 the view ended while the
// request was in flight (end of file, or status 20026); 7 the agent could not be started.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "client/response.h"
#include "client/xml_node.h"

namespace tavrel::cli {

enum Exit { kOk = 0, kStatus = 1, kUsage = 2, kNoAgent = 3, kTimeout = 4, kProtocol = 5, kEnded = 6, kStartFailed = 7 };

enum class Output { kHuman, kJson, kXml };

struct Options {
  std::string storage;      // absolute
  std::string agent;        // program path
  int timeout_s = 60;
  bool timeout_given = false;  // -t or TAVREL_TIMEOUT named a time limit
  Output output = Output::kHuman;
  std::string txid;
  bool quiet = false;
  std::string trace;        // N[:SUBS]
  std::string agent_log;    // where the agent's standard error goes
  std::string sent_op;      // root element of the last request sent to the view, set by call()
  // Subcommand arguments: flags and values by name, positionals in order.
  std::map<std::string, std::vector<std::string>> values;
  std::vector<std::string> positional;

  bool has(const std::string& name) const { return values.count(name) > 0; }
  std::string get(const std::string& name, const std::string& fallback = "") const {
    auto it = values.find(name);
    return it == values.end() || it->second.empty() ? fallback : it->second.back();
  }
};

struct Command {
  const char* name;
  const char* summary;
  const char* usage;                      // options of the subcommand, one per line
  std::vector<std::string> value_options; // options that take a value
  std::vector<std::string> flag_options;  // options without a value
  int (*run)(Options& opts);
  bool needs_storage = true;              // false: runs without a view storage (e.g. the module daemon)
};

const std::vector<Command>& commands();
// The rows of the mount commands (mount, umount, mounts, silo) and of the module daemon (kfsmd).
std::vector<Command> mount_commands();
// The row of `update`.
std::vector<Command> update_commands();
int main(int argc, char** argv);

// Shared by the commands.
std::string next_txid(const Options& opts);
client::XmlNode request_root(const Options& opts, const std::string& op, bool with_txid = true);
// Sends one request to the running view and prints the reply; returns the exit code.
int call_and_print(Options& opts, const client::XmlNode& request);
int call(Options& opts, const std::string& document, client::Response* reply, std::string* raw);
// Human form of a failure: "<Op> failed: <NAME> (<code>)", or for a request the agent does not know
// (20020) the request that was sent, from opts.sent_op.
int print_reply(const Options& opts, const client::Response& reply, const std::string& raw);
int fail(int code, const std::string& message);
// The `server` block from the server options; an error text when a secret could not be read.
bool server_block(const Options& opts, bool online_default, client::XmlNode* out, std::string* error);

}  // namespace tavrel::cli
