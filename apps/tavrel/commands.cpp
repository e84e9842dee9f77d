// The subcommands of `tavrel`.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include "apps/tavrel/cli.h"
#include "base/fileutl.h"
#include "base/server.h"
#include "base/tbs.h"
#include "client/agent_process.h"
#include "client/connection.h"
#include "proto/view_metadata.h"
#include "proto/view_storage_names.h"

namespace tavrel::cli {

namespace {

const char* const kServerUsage =
    "  --server-url URL            the WAN server\n"
    "  --user NAME, --domain D     credentials; the password comes from --password-file F,\n"
    "  --password-file F           --password-fd N, TAVREL_PASSWORD or a prompt\n"
    "  --password-fd N\n"
    "  --proxy-host H --proxy-port P --proxy-user U --proxy-password-file F\n"
    "  --primary-group G --groups G1,G2\n";

const std::vector<std::string> kServerValues = {"--server-url", "--user", "--domain", "--password-file", "--password-fd",
                                                "--proxy-host", "--proxy-port", "--proxy-user",
                                                "--proxy-password-file", "--primary-group", "--groups"};

std::vector<std::string> with_server(std::vector<std::string> v) {
  v.insert(v.end(), kServerValues.begin(), kServerValues.end());
  return v;
}

bool wait_until(int timeout_ms, const std::function<bool()>& pred) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!pred()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

std::string listener(const Options& o) { return o.storage + "/" + VIEW_STG_IPC_DIR + "/" + VIEW_STG_LISTENER; }
pid_t view_pid(const Options& o) { return server_lock_holder(o.storage + "/" + VIEW_STG_LOCK); }

// Value of a key of the view's metadata file, or empty.
std::string metadata(const Options& o, const std::string& key) {
  std::string text, value;
  std::vector<View_Metadata_Field> fields;
  if (fileutl_read_file(o.storage + "/" + VIEW_STG_METADATA, &text, VIEW_METADATA_MAX_FILE) != 0 ||
      !view_metadata_parse(text, &fields) || !view_metadata_find(fields, key, &value))
    return "";
  return value;
}

std::vector<std::string> trace_args(const Options& o) {
  if (o.trace.empty()) return {};
  size_t colon = o.trace.find(':');
  std::string level = o.trace.substr(0, colon);
  std::string subs = colon == std::string::npos ? "TAVREL:TAVREL_DB:TAVREL_KFSM:RCLIENT" : o.trace.substr(colon + 1);
  return {"-trace_level", level, "-trace_subsystem", subs};
}

std::string view_log(const Options& o) { return o.storage + "/" + VIEW_STG_LOG_DIR + "/" + VIEW_STG_LOG_FILE; }

off_t file_size(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_size : 0;
}

// Shows the warnings and errors the agent wrote to the view's log since `from` (a byte offset): a
// start that succeeds may still have something to say, such as a failed login (the view then runs
// offline) or SILOs that could not be mounted again, and the answer itself does not carry it. Log
// lines read "<TYPE>::<time>::<pid>::<message>", one entry per line.
void show_start_warnings(const Options& o, off_t from) {
  std::ifstream in(view_log(o), std::ios::binary);
  if (!in || !in.seekg(from)) return;
  for (std::string line; std::getline(in, line);) {
    const bool warn = line.rfind("WARN::", 0) == 0, error = line.rfind("ERROR::", 0) == 0;
    if (!warn && !error) continue;
    size_t at = 0;
    for (int i = 0; i < 3 && at != std::string::npos; i++) {
      at = line.find("::", at);
      if (at != std::string::npos) at += 2;
    }
    if (at == std::string::npos) continue;
    fprintf(stderr, "tavrel: %s: %s\n", warn ? "warning" : "error", line.c_str() + at);
  }
}

// Starts the agent with a first request and reports as the start flow says.
int start_with(Options& opts, const client::XmlNode& request) {
  const off_t log_before = file_size(view_log(opts));
  client::AgentStart how;
  how.program = opts.agent;
  how.storage = opts.storage;
  how.extra_args = trace_args(opts);
  how.first_request = request.to_document();
  how.timeout_ms = 120000;
  // The agent's standard error goes to --agent-log, or nowhere.
  int saved = dup(2);
  int errfd = open(opts.agent_log.empty() ? "/dev/null" : opts.agent_log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (errfd >= 0) dup2(errfd, 2);
  client::AgentStarted s = client::start_agent(how);
  if (saved >= 0) {
    dup2(saved, 2);
    close(saved);
  }
  if (errfd >= 0) close(errfd);
  if (s.error) {
    int st = 0;
    std::string code;
    if (s.watchdog_pid > 0 && client::wait_for_exit(s.watchdog_pid, 5000, &st) && WIFEXITED(st))
      code = " (agent exit code " + std::to_string(WEXITSTATUS(st)) + ")";
    return fail(kStartFailed, "the agent did not answer: " + s.message + code);
  }
  client::Response reply;
  std::string err;
  if (!client::Response::parse(s.response, &reply, &err)) return fail(kProtocol, err);
  if (reply.status != 0) {
    int st = 0;
    print_reply(opts, reply, s.response);
    if (client::wait_for_exit(s.watchdog_pid, 10000, &st) && WIFEXITED(st))
      fprintf(stderr, "tavrel: the agent ended with exit code %d\n", WEXITSTATUS(st));
    return kStatus;
  }
  // The view serves once its listener is a FIFO in a real ".ipc"; an agent that refuses to serve ends.
  int st = 0;
  bool ended = false;
  auto listening = [&] {
    struct stat ipc, lis;
    return lstat((opts.storage + "/" + VIEW_STG_IPC_DIR).c_str(), &ipc) == 0 && S_ISDIR(ipc.st_mode) &&
           lstat(listener(opts).c_str(), &lis) == 0 && S_ISFIFO(lis.st_mode);
  };
  auto served = [&] { return (ended = client::wait_for_exit(s.watchdog_pid, 0, &st)) || listening(); };
  if (!wait_until(opts.timeout_s * 1000, served))
    return fail(kNoAgent, "the view answered but never began to listen for clients");
  if (ended)
    return fail(kStartFailed, "the agent ended without serving clients (exit code " +
                                  std::to_string(WIFEXITED(st) ? WEXITSTATUS(st) : -1) + "); see the view's log");
  show_start_warnings(opts, log_before);
  return print_reply(opts, reply, s.response);
}

int cmd_mkview(Options& opts) {
  if (fileutl_exists(opts.storage)) return fail(kStatus, "the view storage " + opts.storage + " exists already");
  if (!opts.has("--tag")) return fail(kUsage, "mkview needs --tag TAG");
  client::XmlNode req = request_root(opts, "MkView");
  std::string uuid = opts.get("--uuid", tbs_uuid_to_str(tbs_uuid_create()));
  req.child(client::XmlNode("view-uuid", uuid));
  req.child(client::XmlNode("view-type", opts.get("--type", "automatic")));
  req.child(client::XmlNode("cltxt-cache-dir", fileutl_abspn(opts.get("--cache-dir", opts.storage + "/cache"))));
  req.child(client::XmlNode("server-tag", opts.get("--tag")));
  req.child(client::XmlNode("text-mode", opts.get("--text-mode", "unix")));
  req.child(client::XmlNode("preserve-silo-modified-time", opts.has("--preserve-times") ? "true" : "false"));
  client::XmlNode server;
  std::string err;
  if (!server_block(opts, true, &server, &err)) return fail(kUsage, err);
  req.child(server);
  return start_with(opts, req);
}

int cmd_startview(Options& opts) {
  if (!fileutl_exists(opts.storage)) return fail(kNoAgent, "no view storage at " + opts.storage);
  pid_t pid = view_pid(opts);
  if (pid > 0) {
    if (!opts.quiet) printf("the view is already running (pid %d)\n", static_cast<int>(pid));
    return kOk;
  }
  Options o = opts;
  if (!o.has("--server-url")) {
    // The view keeps the URL with "tavrel" appended; give the server the user's form back.
    std::string url = metadata(o, VIEW_MD_SERVER_URL);
    if (url.size() >= 6 && url.compare(url.size() - 6, 6, "tavrel") == 0) url.erase(url.size() - 6);
    if (!url.empty()) o.values["--server-url"].push_back(url);
  }
  client::XmlNode req = request_root(o, "StartView");
  client::XmlNode server;
  std::string err;
  if (!server_block(o, true, &server, &err)) return fail(kUsage, err);
  req.child(server);
  return start_with(o, req);
}

int cmd_endview(Options& opts) {
  pid_t pid = view_pid(opts);
  if (pid <= 0) return fail(kNoAgent, "the view is not running");
  if (opts.has("--signal") || opts.has("--kill")) {
    // The forced end (SIGTERM: the same steps as EndView, but a busy SILO does not keep the view
    // up), or SIGKILL as the last resort.
    if (kill(pid, opts.has("--kill") ? SIGKILL : SIGTERM) != 0) return fail(kNoAgent, "cannot signal the agent");
  } else {
    client::Response reply;
    std::string raw;
    int rc = call(opts, request_root(opts, "EndView").to_document(), &reply, &raw);
    if (rc == kEnded) rc = kOk;  // the view went away while answering
    if (rc != kOk) return rc;
    if (reply.status != 0) return print_reply(opts, reply, raw);  // e.g. a busy SILO: the view stays up
    if (!opts.quiet && opts.output == Output::kHuman && !reply.message.empty()) fputs(reply.message.c_str(), stdout);
  }
  int limit = opts.timeout_s * 1000;
  if (!wait_until(limit, [&] { return view_pid(opts) <= 0 && !fileutl_exists(listener(opts)); }))
    return fail(kTimeout, "the view did not end within " + std::to_string(opts.timeout_s) + " s");
  if (!opts.quiet && opts.output == Output::kHuman) printf("view ended\n");
  return kOk;
}

// Asks the running view `op` and returns its reply's root when the status is 0 (null otherwise, also
// for an agent that does not know the operation); a transport failure sets *rc.
bool ask(Options& opts, const char* op, client::Response* reply, int* rc) {
  std::string raw;
  *rc = call(opts, request_root(opts, op).to_document(), reply, &raw);
  return *rc == kOk && reply->status == 0;
}

int cmd_status(Options& opts) {
  if (!fileutl_exists(opts.storage)) return fail(kNoAgent, "no view storage at " + opts.storage);
  pid_t pid = view_pid(opts);
  std::string tag = metadata(opts, VIEW_MD_SERVER_TAG);
  // A running view is asked whether an update runs (which also shows that it answers) and what is
  // mounted.
  std::string updating;
  std::vector<std::string> mounts;
  bool mounts_known = false;
  if (pid > 0) {
    client::Response reply;
    int rc = kOk;
    if (ask(opts, "IsUpdateInProgress", &reply, &rc)) {
      const client::XmlNode* n = reply.root.find("is-update-in-progress");
      if (n) updating = n->text;
    }
    if (rc != kOk) return rc;
    if (ask(opts, "GetMountedSiloList", &reply, &rc)) {
      mounts_known = true;
      if (const client::XmlNode* list = reply.root.find("mounted-silo-list"))
        for (const client::XmlNode& c : list->children)
          if (c.tag == "silo-tag") mounts.push_back(c.text);
    }
    if (rc != kOk) return rc;
  }
  if (opts.output == Output::kJson) {
    printf("{\"storage\":%s,\"view_tag\":%s,\"running\":%s,\"pid\":%d", client::json_quote(opts.storage).c_str(),
           client::json_quote(tag).c_str(), pid > 0 ? "true" : "false", pid > 0 ? static_cast<int>(pid) : 0);
    if (!updating.empty()) printf(",\"update_in_progress\":%s", updating == "true" ? "true" : "false");
    if (mounts_known) {
      printf(",\"mounts\":[");
      for (size_t i = 0; i < mounts.size(); i++) printf("%s%s", i ? "," : "", client::json_quote(mounts[i]).c_str());
      printf("]");
    }
    printf("}\n");
  } else {
    printf("storage: %s\nview-tag: %s\nrunning: %s\n", opts.storage.c_str(), tag.c_str(), pid > 0 ? "true" : "false");
    if (pid > 0) printf("pid: %d\n", static_cast<int>(pid));
    if (!updating.empty()) printf("update-in-progress: %s\n", updating.c_str());
    for (const std::string& m : mounts) printf("mounted: %s\n", m.c_str());
  }
  return pid > 0 ? kOk : kNoAgent;
}

int cmd_connect(Options& opts) {
  client::XmlNode req = request_root(opts, "Connect");
  client::XmlNode server;
  std::string err;
  if (!server_block(opts, true, &server, &err)) return fail(kUsage, err);
  req.child(server);
  return call_and_print(opts, req);
}

int cmd_disconnect(Options& opts) { return call_and_print(opts, request_root(opts, "Disconnect")); }

int cmd_raw(Options& opts) {
  std::string source = opts.positional.empty() ? "-" : opts.positional[0];
  std::string doc;
  if (source == "-") {
    std::stringstream ss;
    ss << std::cin.rdbuf();
    doc = ss.str();
  } else if (fileutl_read_file(source, &doc, 64u << 20) != 0) {
    return fail(kUsage, "cannot read " + source);
  }
  while (!doc.empty() && (doc.back() == '\n' || doc.back() == '\r')) doc.pop_back();
  if (opts.has("--add-txid")) {
    size_t start = doc.find('<', doc.find("?>") == std::string::npos ? 0 : doc.find("?>") + 2);
    size_t end = start == std::string::npos ? start : doc.find_first_of(" />", start + 1);
    if (end == std::string::npos) return fail(kUsage, "no root element to add a tx-id to");
    doc.insert(end, " tx-id=\"" + next_txid(opts) + "\"");
  }
  client::Response reply;
  std::string raw;
  int rc = call(opts, doc, &reply, &raw);
  if (rc != kOk) return rc;
  return print_reply(opts, reply, raw);
}

}  // namespace

// Only commands whose requests the agent serves are listed: a command appears here together with its
// operation in the agent's table.
const std::vector<Command>& commands() {
  static const std::vector<Command> table = {
      {"mkview", "make a new view storage and start its agent",
       "  --tag TAG                   the view's tag (required)\n"
       "  --uuid UUID                 the view's identity (default: a new one)\n"
       "  --type TYPE                 view type (default automatic; \"tkm\" for a task-stream view)\n"
       "  --text-mode MODE            text mode (default unix)\n"
       "  --cache-dir DIR             cleartext cache (default <storage>/cache)\n"
       "  --preserve-times            keep the repository's modification times\n"
       "  --offline                   do not contact the server\n",
       with_server({"--tag", "--uuid", "--type", "--text-mode", "--cache-dir"}), {"--preserve-times", "--offline"},
       cmd_mkview},
      {"startview", "start the agent of an existing view", "  --offline                   start without contacting the server\n",
       with_server({}), {"--offline"}, cmd_startview},
      {"endview", "end a running view",
       "  (default)                   ask the agent with an EndView request; a busy SILO keeps the view up\n"
       "  --signal                    the forced end with SIGTERM\n"
       "  --kill                      SIGKILL, the last resort\n",
       {}, {"--signal", "--kill"}, cmd_endview},
      {"status", "whether the view runs, and its process", "", {}, {}, cmd_status},
      {"connect", "bring the view online, with new credentials", "", with_server({}), {}, cmd_connect},
      {"disconnect", "take the view offline", "", {}, {}, cmd_disconnect},
      {"raw", "send an XML request from FILE or standard input and print the reply",
       "  --add-txid                  add a tx-id attribute to the root\n", {}, {"--add-txid"}, cmd_raw},
  };
  static const std::vector<Command> all = [] {
    std::vector<Command> rows = table;
    for (const Command& c : mount_commands()) rows.push_back(c);
    for (const Command& c : update_commands()) rows.push_back(c);
    return rows;
  }();
  return all;
}

}  // namespace tavrel::cli
