#include "apps/tavrel/cli.h"

#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <langinfo.h>

#include "base/fileutl.h"
#include "client/connection.h"
#include "client/secret.h"
#include "proto/tavrel_status.h"

namespace tavrel::cli {

namespace {

const char* const kGlobalUsage =
    "usage: tavrel [global options] <command> [command options]\n"
    "\n"
    "global options:\n"
    "  -s, --storage PATH   view storage directory (or TAVREL_STORAGE)\n"
    "  --agent PATH         tavrel_agent program (or TAVREL_AGENT; default: beside tavrel, then PATH)\n"
    "  -t, --timeout SEC    wait for each reply at most SEC seconds (default 60, or TAVREL_TIMEOUT)\n"
    "  --json | --xml       print replies as JSON, or as the XML received\n"
    "  --tx-id ID           transaction id to send (default <pid>-<n>)\n"
    "  -q, --quiet          print nothing on success\n"
    "  -h, --help           this text; `tavrel <command> --help` for a command\n"
    "\n"
    "Passwords are never taken from the command line: use --password-file, --password-fd,\n"
    "TAVREL_PASSWORD, or answer the prompt.\n"
    "\n"
    "commands:\n";

int g_tx_counter = 0;

bool take_value(int argc, char** argv, int* i, std::string* out) {
  std::string a = argv[*i];
  size_t eq = a.find('=');
  if (a.rfind("--", 0) == 0 && eq != std::string::npos) {
    *out = a.substr(eq + 1);
    return true;
  }
  if (*i + 1 >= argc) return false;
  *out = argv[++*i];
  return true;
}

std::string option_name(const std::string& a) {
  size_t eq = a.find('=');
  return a.rfind("--", 0) == 0 && eq != std::string::npos ? a.substr(0, eq) : a;
}

bool in(const std::vector<std::string>& v, const std::string& s) {
  for (auto& x : v)
    if (x == s) return true;
  return false;
}

void print_command_help(const Command& c) {
  printf("usage: tavrel [global options] %s [options]\n\n%s\n", c.name, c.summary);
  if (c.usage && *c.usage) printf("\noptions:\n%s", c.usage);
}

std::string default_agent(const char* argv0) {
  if (const char* env = getenv("TAVREL_AGENT")) return env;
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n > 0) {
    self[n] = 0;
    std::string beside = fileutl_strip_leaf(self) + "/tavrel_agent";
    if (access(beside.c_str(), X_OK) == 0) return beside;
  }
  (void)argv0;
  return "tavrel_agent";
}

// The XML layer converts to the locale's character set; make sure it is UTF-8.
void ensure_utf8_locale() {
  setlocale(LC_ALL, "");
  const char* cs = nl_langinfo(CODESET);
  if (!cs || strcmp(cs, "UTF-8") != 0) setlocale(LC_ALL, "C.UTF-8");
}

// The root element's name of an XML document, after any declaration, comment or doctype.
std::string root_name(const std::string& doc) {
  size_t at = doc.find('<');
  while (at != std::string::npos && at + 1 < doc.size() && (doc[at + 1] == '?' || doc[at + 1] == '!'))
    at = doc.find('<', at + 1);
  if (at == std::string::npos) return "";
  size_t end = doc.find_first_of(" \t\r\n/>", at + 1);
  return doc.substr(at + 1, end == std::string::npos ? std::string::npos : end - at - 1);
}

}  // namespace

int fail(int code, const std::string& message) {
  fprintf(stderr, "tavrel: %s\n", message.c_str());
  return code;
}

std::string next_txid(const Options& opts) {
  if (!opts.txid.empty()) return opts.txid;
  return std::to_string(getpid()) + "-" + std::to_string(++g_tx_counter);
}

client::XmlNode request_root(const Options& opts, const std::string& op, bool with_txid) {
  client::XmlNode root(op);
  root.attr("version", "1");
  if (with_txid) root.attr("tx-id", next_txid(opts));
  return root;
}

int call(Options& opts, const std::string& document, client::Response* reply, std::string* raw) {
  if (!fileutl_exists(opts.storage)) return fail(kNoAgent, "no view storage at " + opts.storage);
  client::Connection conn;
  int ms = opts.timeout_s * 1000;
  client::Connection::Status st = conn.connect(opts.storage, ms);
  if (st == client::Connection::kTimeout) return fail(kNoAgent, "the view is not running: " + conn.error());
  if (st != client::Connection::kOk) return fail(kNoAgent, conn.error());
  opts.sent_op = root_name(document);
  st = conn.request(document, raw, ms);
  if (st == client::Connection::kTimeout) return fail(kTimeout, "no reply within " + std::to_string(opts.timeout_s) + " s");
  if (st == client::Connection::kClosed) return fail(kEnded, "the view ended while the request was in flight");
  if (st == client::Connection::kTooLarge) return fail(kUsage, conn.error());
  if (st != client::Connection::kOk) return fail(kProtocol, conn.error());
  std::string err;
  if (!client::Response::parse(*raw, reply, &err)) return fail(kProtocol, err);
  return kOk;
}

int print_reply(const Options& opts, const client::Response& r, const std::string& raw) {
  if (opts.output == Output::kXml) {
    printf("%s\n", raw.c_str());
  } else if (opts.output == Output::kJson) {
    printf("%s\n", client::to_json(r).c_str());
  } else if (r.status != 0) {
    // An XMLError 20020 says the agent did not recognise the request: name the one that was sent (the
    // agent's own words, such as a parse error, follow indented).
    if (r.status == TAVREL_ST_UNRECOGNIZED && r.root.tag == "XMLError" && !opts.sent_op.empty())
      fprintf(stderr, "tavrel: the agent does not know the request \"%s\" (%s, %d)\n", opts.sent_op.c_str(),
              client::status_name(r.status), r.status);
    else
      fprintf(stderr, "tavrel: %s failed: %s (%d)\n", r.root.tag.c_str(), client::status_name(r.status), r.status);
    size_t pos = 0;
    while (pos < r.message.size()) {
      size_t nl = r.message.find('\n', pos);
      if (nl == std::string::npos) nl = r.message.size();
      fprintf(stderr, "    %s\n", r.message.substr(pos, nl - pos).c_str());
      pos = nl + 1;
    }
  } else {
    if (!r.message.empty()) fprintf(stderr, "tavrel: note: %s%s", r.message.c_str(), r.message.back() == '\n' ? "" : "\n");
    if (!opts.quiet) {
      for (const auto& c : r.root.children) {
        if (c.children.empty()) {
          printf("%s: %s\n", c.tag.c_str(), c.text.c_str());
        } else {
          printf("%s:\n", c.tag.c_str());
          for (const auto& item : c.children) printf("  %s\n", item.text.c_str());
        }
      }
    }
  }
  if (r.status == TAVREL_ST_VIEW_ENDING) return kEnded;
  return r.status == 0 ? kOk : kStatus;
}

int call_and_print(Options& opts, const client::XmlNode& request) {
  client::Response reply;
  std::string raw;
  int rc = call(opts, request.to_document(), &reply, &raw);
  if (rc != kOk) return rc;
  if (reply.root.tag != request.tag && reply.root.tag != "XMLError" && reply.root.tag != "ShutdownInProgress")
    return fail(kProtocol, "unexpected reply " + reply.root.tag + " to " + request.tag);
  std::string sent = request.get_attr("tx-id");
  if (reply.txid && !sent.empty() && *reply.txid != sent)
    return fail(kProtocol, "reply for tx-id " + *reply.txid + " to request " + sent);
  return print_reply(opts, reply, raw);
}

bool server_block(const Options& opts, bool online_default, client::XmlNode* out, std::string* error) {
  client::SecretSource pw;
  pw.file = opts.get("--password-file");
  pw.fd = opts.has("--password-fd") ? atoi(opts.get("--password-fd").c_str()) : -1;
  pw.env_var = client::PASSWORD_ENV;
  bool online = opts.has("--offline") ? false : online_default;
  pw.prompt = online && opts.has("--user") ? "Password for " + opts.get("--user") + ": " : "";
  std::string password, proxy_password;
  if (client::read_secret(pw, &password, error) != 0) return false;
  client::SecretSource ppw;
  ppw.file = opts.get("--proxy-password-file");
  ppw.env_var = client::PROXY_PASSWORD_ENV;
  if (client::read_secret(ppw, &proxy_password, error) != 0) return false;

  client::XmlNode s("server");
  s.attr("online", online ? "true" : "false");
  s.child(client::XmlNode("server-url", opts.get("--server-url")));
  s.child(client::XmlNode("username", opts.get("--user")));
  s.child(client::XmlNode("domain", opts.get("--domain")));
  s.child(client::XmlNode("password", password));
  s.child(client::XmlNode("proxy-username", opts.get("--proxy-user")));
  s.child(client::XmlNode("proxy-password", proxy_password));
  s.child(client::XmlNode("f-proxy-host", opts.get("--proxy-host")));
  s.child(client::XmlNode("f-proxy-port", opts.get("--proxy-port")));
  s.child(client::XmlNode("ol-primary-group", opts.get("--primary-group")));
  s.child(client::XmlNode("ol-groups", opts.get("--groups")));
  *out = s;
  return true;
}

int main(int argc, char** argv) {
  ensure_utf8_locale();
  Options opts;
  opts.agent = default_agent(argv[0]);
  if (const char* s = getenv("TAVREL_STORAGE")) opts.storage = s;
  if (const char* t = getenv("TAVREL_TIMEOUT")) opts.timeout_s = atoi(t), opts.timeout_given = true;
  const Command* cmd = nullptr;
  bool help = false;
  for (int i = 1; i < argc; i++) {
    std::string a = argv[i];
    std::string name = option_name(a);
    std::string v;
    if (name == "-h" || name == "--help") {
      help = true;
    } else if (name == "-s" || name == "--storage") {
      if (!take_value(argc, argv, &i, &opts.storage)) return fail(kUsage, a + " needs a value");
    } else if (name == "--agent") {
      if (!take_value(argc, argv, &i, &opts.agent)) return fail(kUsage, a + " needs a value");
    } else if (name == "-t" || name == "--timeout") {
      if (!take_value(argc, argv, &i, &v)) return fail(kUsage, a + " needs a value");
      char* end = nullptr;
      long t = strtol(v.c_str(), &end, 10);
      if (v.empty() || *end || t <= 0 || t > 86400) return fail(kUsage, "--timeout takes seconds from 1 to 86400");
      opts.timeout_s = static_cast<int>(t);
      opts.timeout_given = true;
    } else if (name == "--json") {
      opts.output = Output::kJson;
    } else if (name == "--xml") {
      opts.output = Output::kXml;
    } else if (name == "--tx-id") {
      if (!take_value(argc, argv, &i, &opts.txid)) return fail(kUsage, a + " needs a value");
    } else if (name == "-q" || name == "--quiet") {
      opts.quiet = true;
    } else if (name == "--trace" || name == "--agent-log") {
      if (!take_value(argc, argv, &i, &v)) return fail(kUsage, a + " needs a value");
      (name == "--trace" ? opts.trace : opts.agent_log) = v;
    } else if (name == "--password" || name == "--proxy-password") {
      return fail(kUsage, name + " is not accepted: passwords never go on the command line (use " + name +
                              "-file, --password-fd or the environment)");
    } else if (!cmd && a[0] != '-') {
      for (const auto& c : commands())
        if (a == c.name) cmd = &c;
      if (!cmd) return fail(kUsage, "unknown command '" + a + "'; see tavrel --help");
    } else if (cmd && in(cmd->value_options, name)) {
      if (!take_value(argc, argv, &i, &v)) return fail(kUsage, a + " needs a value");
      opts.values[name].push_back(v);
    } else if (cmd && in(cmd->flag_options, name)) {
      opts.values[name];
    } else if (cmd && (a[0] != '-' || a == "-")) {
      opts.positional.push_back(a);
    } else {
      return fail(kUsage, "unknown option '" + a + "'" + (cmd ? std::string(" for ") + cmd->name : ""));
    }
  }
  if (help || !cmd) {
    if (cmd) {
      print_command_help(*cmd);
    } else {
      fputs(kGlobalUsage, help ? stdout : stderr);
      for (const auto& c : commands()) fprintf(help ? stdout : stderr, "  %-12s %s\n", c.name, c.summary);
    }
    return help ? kOk : kUsage;
  }
  if (opts.storage.empty() && cmd->needs_storage)
    return fail(kUsage, "no view storage: give --storage PATH or set TAVREL_STORAGE");
  if (!opts.storage.empty()) opts.storage = fileutl_abspn(opts.storage);
  return cmd->run(opts);
}

}  // namespace tavrel::cli
