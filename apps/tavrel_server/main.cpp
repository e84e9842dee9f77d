// tavrel_server: the reference WAN server.
//
//   tavrel_server serve  [--store FILE] [--host ADDR] [--port N] [--base PATH] [--cert FILE --key FILE]
//                        [--users FILE | --open-login] [--admin-token-file FILE] [--request-log FILE]
//                        [--threads N] [--max-body BYTES] [--session-idle SECONDS] [--port-file FILE]
//                        [--header-timeout SECONDS] [--max-conns-per-addr N]
//   tavrel_server import [--store FILE] --silo /TAG DIR [--public] [--project] [--max-file-size BYTES]
//   tavrel_server admin  [--url URL] [--token-file FILE] [--store FILE] [--data FILE] [--cacert FILE]
//                        OP [Name=value ...]
//
// "admin" sends one admin operation to a running server (server/admin_client.h): the URL comes from
// --url or $TAVREL_SERVER_URL, the token from --token-file, $TAVREL_ADMIN_TOKEN or <store>.admin-token.
// It prints the result and exits 0, or prints why and exits 1.
// The store defaults to $TAVREL_SERVER_STORE, else ./tavrel_server.db. "serve" prints one line
// "listening on <url>" on standard output when it is ready and runs until SIGINT or SIGTERM.
// Passwords and the admin token are read from files (or $TAVREL_ADMIN_TOKEN), never from arguments.
// Without a token the server makes one and writes it to <store>.admin-token (mode 0600).
// --help (or -h) prints the usage of the command it follows (of both alone) on standard output and
// exits 0; a usage error prints the reason and the usage on standard error and exits 2.
#include <signal.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

#include "server/admin_client.h"
#include "server/importer.h"
#include "server/sessions.h"
#include "server/wan_server.h"

using namespace tavrel_server;

namespace {

const char* const kServeUsage =
    "usage: tavrel_server serve [--store FILE] [--host ADDR] [--port N] [--base PATH]\n"
    "                           [--cert FILE --key FILE] [--users FILE | --open-login]\n"
    "                           [--admin-token-file FILE] [--request-log FILE] [--threads N]\n"
    "                           [--max-body BYTES] [--session-idle SECONDS] [--port-file FILE]\n"
    "                           [--header-timeout SECONDS] [--max-conns-per-addr N]\n"
    "  --threads N              connections served at once (default 64)\n"
    "  --max-body BYTES         largest request body, with a length or chunked (default 64 MiB)\n"
    "  --session-idle SECONDS   sessions idle longer end and are swept (default 1800)\n"
    "  --header-timeout SECONDS time for the whole head of a request (default 5)\n"
    "  --max-conns-per-addr N   open connections per client address (default 32)\n";
const char* const kImportUsage =
    "usage: tavrel_server import [--store FILE] --silo /TAG DIR [--public] [--project] [--max-file-size BYTES]\n"
    "  --max-file-size BYTES    larger files are skipped and named (default 512 MiB, at most 10^9; the\n"
    "                           store holds a file of up to 10^9 bytes less a few hundred)\n";
const char* const kAdminUsage =
    "usage: tavrel_server admin [--url URL] [--token-file FILE] [--store FILE] [--data FILE] [--cacert FILE]\n"
    "                           OP [Name=value ...]\n"
    "  OP                       an admin operation: elem.mkfile, elem.mkdir, elem.mklink, elem.checkin,\n"
    "                           elem.rmname, elem.move, label.apply, branch.make, view.set_rules, ...\n"
    "  --url URL                the server's base URL (default $TAVREL_SERVER_URL)\n"
    "  --token-file FILE        the admin token (default $TAVREL_ADMIN_TOKEN, else <store>.admin-token)\n"
    "  --data FILE              file bytes for the operation (\"-\": standard input)\n"
    "  example: tavrel_server admin elem.checkin Path=/proj/a.c --data a.c\n";

// A usage error: the reason and the usage of `command` (of both commands when null) on standard error.
int usage(const char* why, const char* command = nullptr) {
  if (why) std::cerr << "tavrel_server: " << why << "\n";
  if (!command || std::string(command) == "serve") std::cerr << kServeUsage;
  if (!command || std::string(command) == "import") std::cerr << kImportUsage;
  if (!command || std::string(command) == "admin") std::cerr << kAdminUsage;
  return 2;
}

bool is_help(const std::string& a) { return a == "--help" || a == "-h"; }

bool read_first_line(const std::string& path, std::string* out) {
  std::ifstream in(path);
  if (!in) return false;
  std::getline(in, *out);
  while (!out->empty() && (out->back() == '\r' || out->back() == ' ')) out->pop_back();
  return true;
}

bool load_users(const std::string& path, std::map<std::string, std::string>* users) {
  std::ifstream in(path);
  if (!in) return false;
  struct stat st;
  if (::stat(path.c_str(), &st) == 0 && (st.st_mode & 077))
    std::cerr << "tavrel_server: warning: " << path << " is readable by others\n";
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty() || line[0] == '#') continue;
    size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0) {
      std::cerr << "tavrel_server: ignoring a malformed line of " << path << "\n";
      continue;
    }
    (*users)[line.substr(0, colon)] = line.substr(colon + 1);
  }
  return true;
}

bool parse_int(const char* s, long long lo, long long hi, long long* out) {
  char* end = nullptr;
  errno = 0;
  long long v = std::strtoll(s, &end, 10);
  if (errno || end == s || *end || v < lo || v > hi) return false;
  *out = v;
  return true;
}

std::string default_store() {
  const char* e = std::getenv("TAVREL_SERVER_STORE");
  return e && *e ? e : "tavrel_server.db";
}

int run_import(int argc, char** argv) {
  std::string store = default_store(), tag, dir;
  ImportOptions opt;
  long long n = 0;
  for (int i = 2; i < argc; ++i) {
    std::string a = argv[i];
    if (is_help(a)) return std::cout << kImportUsage, 0;
    if (a == "--store" && i + 1 < argc) store = argv[++i];
    else if (a == "--silo" && i + 1 < argc) tag = argv[++i];
    else if (a == "--public") opt.is_public = true;
    else if (a == "--project") opt.is_project = true;
    else if (a == "--max-file-size" && i + 1 < argc && parse_int(argv[i + 1], 0, 1000000000, &n))
      opt.max_file_size = uint64_t(n), ++i;
    else if (!a.empty() && a[0] != '-' && dir.empty()) dir = a;
    else return usage(("unexpected argument " + a).c_str(), "import");
  }
  if (tag.empty() || dir.empty()) return usage("import needs --silo /TAG and a directory", "import");
  try {
    Store s(store);
    ImportStats st = import_tree(s, tag, dir, opt);
    for (const auto& sk : st.skipped) std::cerr << "tavrel_server: skipped " << sk << "\n";
    std::cout << "imported " << tag << ": " << st.files << " files, " << st.dirs << " directories, " << st.links
              << " links, " << st.bytes << " bytes, " << st.skipped.size() << " skipped; replica "
              << tbs_uuid_to_str(st.silo.replica) << "\n";
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "tavrel_server: import failed: " << e.what() << "\n";
    return 1;
  }
}

int run_admin(int argc, char** argv) {
  AdminCall call;
  const char* env_url = std::getenv("TAVREL_SERVER_URL");
  call.url = env_url ? env_url : "";
  std::string store = default_store(), token_file;
  for (int i = 2; i < argc; ++i) {
    std::string a = argv[i];
    if (is_help(a)) return std::cout << kAdminUsage, 0;
    bool has_value = i + 1 < argc;
    if (a == "--url" && has_value) call.url = argv[++i];
    else if (a == "--token-file" && has_value) token_file = argv[++i];
    else if (a == "--store" && has_value) store = argv[++i];
    else if (a == "--data" && has_value) call.data_file = argv[++i];
    else if (a == "--cacert" && has_value) call.ca_file = argv[++i];
    else if (!a.empty() && a[0] == '-' && a != "-") return usage(("unexpected argument " + a).c_str(), "admin");
    else if (call.op.empty()) call.op = a;
    else call.args.push_back(a);
  }
  if (call.op.empty()) return usage("admin needs an operation", "admin");
  if (call.url.empty()) return usage("give --url or set TAVREL_SERVER_URL", "admin");
  if (!token_file.empty()) {
    if (!read_first_line(token_file, &call.token)) return usage("cannot read --token-file", "admin");
  } else if (const char* t = std::getenv("TAVREL_ADMIN_TOKEN"); t && *t) {
    call.token = t;
  } else if (!read_first_line(store + ".admin-token", &call.token)) {
    return usage("no admin token: give --token-file, set TAVREL_ADMIN_TOKEN, or run next to the store", "admin");
  }
  return run_admin_call(call, std::cout, std::cerr);
}

int run_serve(int argc, char** argv) {
  ServerConfig cfg;
  cfg.store_path = default_store();
  std::string users_file, token_file, port_file;
  for (int i = 2; i < argc; ++i) {
    std::string a = argv[i];
    auto next = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
    long long n = 0;
    const char* v = nullptr;
    if (is_help(a)) return std::cout << kServeUsage, 0;
    if (a == "--open-login") { cfg.open_login = true; continue; }
    if (!(v = next())) return usage(("missing value for " + a).c_str(), "serve");
    if (a == "--store") cfg.store_path = v;
    else if (a == "--host") cfg.host = v;
    else if (a == "--port" && parse_int(v, 0, 65535, &n)) cfg.port = int(n);
    else if (a == "--base") cfg.base_path = v;
    else if (a == "--cert") cfg.cert_file = v;
    else if (a == "--key") cfg.key_file = v;
    else if (a == "--users") users_file = v;
    else if (a == "--admin-token-file") token_file = v;
    else if (a == "--request-log") cfg.request_log_file = v;
    else if (a == "--port-file") port_file = v;
    else if (a == "--threads" && parse_int(v, 1, 1024, &n)) cfg.threads = int(n);
    else if (a == "--max-body" && parse_int(v, 1024, 1ll << 31, &n)) cfg.max_body = size_t(n);
    else if (a == "--session-idle" && parse_int(v, 1, (1ll << 31) - 1, &n)) cfg.session_idle_seconds = int(n);
    else if (a == "--header-timeout" && parse_int(v, 1, 3600, &n)) cfg.head_timeout_ms = int(n * 1000);
    else if (a == "--max-conns-per-addr" && parse_int(v, 1, 100000, &n)) cfg.max_conns_per_address = int(n);
    else return usage(("bad argument " + a + " " + v).c_str(), "serve");
  }
  if (cfg.base_path.empty() || cfg.base_path[0] != '/' || cfg.base_path.back() == '/')
    return usage("--base must start with / and not end with /", "serve");
  if (cfg.cert_file.empty() != cfg.key_file.empty()) return usage("--cert and --key go together", "serve");
  if (!users_file.empty() && !load_users(users_file, &cfg.users)) return usage("cannot read --users file", "serve");
  if (users_file.empty() && !cfg.open_login) return usage("give --users FILE (or --open-login for any login)", "serve");
  if (!token_file.empty()) {
    if (!read_first_line(token_file, &cfg.admin_token) || cfg.admin_token.empty())
      return usage("cannot read --admin-token-file", "serve");
  } else if (const char* t = std::getenv("TAVREL_ADMIN_TOKEN"); t && *t) {
    cfg.admin_token = t;
  } else {
    cfg.admin_token = Sessions::random_token();
    std::string path = cfg.store_path + ".admin-token";
    mode_t old = ::umask(077);
    std::ofstream(path, std::ios::trunc) << cfg.admin_token << "\n";
    ::umask(old);
    std::cerr << "tavrel_server: admin token written to " << path << "\n";
  }

  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signal(SIGPIPE, SIG_IGN);
  try {
    WanServer srv(cfg);
    int port = srv.start();
    if (port < 0) {
      std::cerr << "tavrel_server: cannot listen on " << cfg.host << ":" << cfg.port
                << (srv.tls() ? " (or the certificate/key cannot be loaded)" : "") << "\n";
      return 1;
    }
    if (!port_file.empty()) std::ofstream(port_file, std::ios::trunc) << port << "\n";
    std::string host = cfg.host.find(':') != std::string::npos ? "[" + cfg.host + "]" : cfg.host;
    std::cout << "listening on " << (srv.tls() ? "https" : "http") << "://" << host << ":" << port << cfg.base_path
              << std::endl;
    int sig = 0;
    sigwait(&set, &sig);
    std::cerr << "tavrel_server: stopping on signal " << sig << "\n";
    srv.stop();
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "tavrel_server: " << e.what() << "\n";
    return 1;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage(nullptr);
  std::string cmd = argv[1];
  if (cmd == "serve") return run_serve(argc, argv);
  if (cmd == "import") return run_import(argc, argv);
  if (cmd == "admin") return run_admin(argc, argv);
  if (is_help(cmd) || cmd == "help") return std::cout << kServeUsage << kImportUsage << kAdminUsage, 0;
  return usage(("unknown command " + cmd).c_str());
}
