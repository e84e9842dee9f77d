// The subcommands of `tavrel` for SILO mounts and for the module daemon:
//   mount TAG, umount TAG   MountSilo with mount-state "true" / "false"
//   mounts                  GetMountedSiloList, one tag per line
//   silo TAG                IsSiloMounted, then IsSiloPublic and IsProjectSilo when it is mounted
//   kfsmd start|stop|status the module daemon (tavrel_kfsmd), which needs no view storage
//
// Daemon settings: the socket from --socket, else $TAVREL_KFSM_SOCKET, else /run/tavrel/kfsm.sock; the
// view root from --root, else $TAVREL_VIEW_ROOT, else /view; the program from --kfsmd, else
// $TAVREL_KFSMD, else tavrel_kfsmd beside tavrel, else on PATH. The pid file (--pid-file) defaults to
// kfsmd.pid and the daemon's log (--log) to kfsmd.log, both beside the socket.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "apps/tavrel/cli.h"
#include "base/fileutl.h"

namespace tavrel::cli {

namespace {

constexpr const char* kDefaultSocket = "/run/tavrel/kfsm.sock";
constexpr const char* kDefaultRoot = "/view";

// The one TAG argument of a command, or a usage error.
bool one_tag(const Options& opts, const char* command, std::string* tag, int* rc) {
  if (opts.positional.size() != 1 || opts.positional[0].empty()) {
    *rc = fail(kUsage, std::string(command) + " takes one SILO tag");
    return false;
  }
  *tag = opts.positional[0];
  return true;
}

client::XmlNode mount_request(Options& opts, const std::string& tag, bool mounted) {
  client::XmlNode req = request_root(opts, "MountSilo");
  client::XmlNode t("silo-tag", tag);
  t.attr("mount-state", mounted ? "true" : "false");
  req.child(t);
  return req;
}

int cmd_mount(Options& opts) {
  std::string tag;
  int rc;
  if (!one_tag(opts, "mount", &tag, &rc)) return rc;
  return call_and_print(opts, mount_request(opts, tag, true));
}

int cmd_umount(Options& opts) {
  std::string tag;
  int rc;
  if (!one_tag(opts, "umount", &tag, &rc)) return rc;
  return call_and_print(opts, mount_request(opts, tag, false));
}

int cmd_mounts(Options& opts) {
  if (!opts.positional.empty()) return fail(kUsage, "mounts takes no arguments");
  client::Response reply;
  std::string raw;
  int rc = call(opts, request_root(opts, "GetMountedSiloList").to_document(), &reply, &raw);
  if (rc != kOk) return rc;
  const client::XmlNode* list = reply.status == 0 ? reply.root.find("mounted-silo-list") : nullptr;
  if (!list || opts.output == Output::kXml) return print_reply(opts, reply, raw);
  if (!reply.message.empty()) fprintf(stderr, "tavrel: note: %s\n", reply.message.c_str());
  if (opts.output == Output::kJson) {
    std::string out = "{\"mounted_silos\":[";
    for (size_t i = 0; i < list->children.size(); i++) out += (i ? "," : "") + client::json_quote(list->children[i].text);
    printf("%s]}\n", out.c_str());
  } else if (!opts.quiet) {
    for (const auto& item : list->children) printf("%s\n", item.text.c_str());
  }
  return kOk;
}

// One boolean query about `tag`: 0 and *value, or the exit code (the reply already printed).
int ask_silo(Options& opts, const char* op, const char* answer, const std::string& tag, bool* value) {
  client::XmlNode req = request_root(opts, op);
  req.child(client::XmlNode("silo-tag", tag));
  client::Response reply;
  std::string raw;
  int rc = call(opts, req.to_document(), &reply, &raw);
  if (rc != kOk) return rc;
  const client::XmlNode* n = reply.status == 0 ? reply.root.find(answer) : nullptr;
  if (!n) {
    rc = print_reply(opts, reply, raw);
    return rc == kOk ? fail(kProtocol, std::string(op) + " answered without " + answer) : rc;
  }
  *value = n->text == "true";
  return kOk;
}

int cmd_silo(Options& opts) {
  std::string tag;
  int rc;
  if (!one_tag(opts, "silo", &tag, &rc)) return rc;
  bool mounted = false, is_public = false, is_project = false;
  if ((rc = ask_silo(opts, "IsSiloMounted", "mount-state", tag, &mounted)) != kOk) return rc;
  // Whether a SILO is public or a project SILO is known only for a mounted one.
  if (mounted) {
    if ((rc = ask_silo(opts, "IsSiloPublic", "is-public", tag, &is_public)) != kOk) return rc;
    if ((rc = ask_silo(opts, "IsProjectSilo", "is-project-silo", tag, &is_project)) != kOk) return rc;
  }
  auto b = [](bool v) { return v ? "true" : "false"; };
  if (opts.output == Output::kJson) {
    printf("{\"silo\":%s,\"mounted\":%s", client::json_quote(tag).c_str(), b(mounted));
    if (mounted) printf(",\"public\":%s,\"project\":%s", b(is_public), b(is_project));
    printf("}\n");
  } else if (!opts.quiet) {
    printf("silo: %s\nmounted: %s\n", tag.c_str(), b(mounted));
    if (mounted) printf("public: %s\nproject: %s\n", b(is_public), b(is_project));
  }
  return kOk;
}

// ---- The module daemon ------------------------------------------------------------------------------

struct Daemon {
  std::string program, socket, root, pid_file, log;
};

std::string from_env(const char* name, const std::string& fallback) {
  const char* v = getenv(name);
  return v && *v ? v : fallback;
}

Daemon daemon_settings(const Options& opts) {
  Daemon d;
  d.socket = opts.get("--socket", from_env("TAVREL_KFSM_SOCKET", kDefaultSocket));
  d.root = opts.get("--root", from_env("TAVREL_VIEW_ROOT", kDefaultRoot));
  std::string dir = fileutl_strip_leaf(d.socket);
  if (dir.empty()) dir = "/";
  d.pid_file = opts.get("--pid-file", dir + "/kfsmd.pid");
  d.log = opts.get("--log", dir + "/kfsmd.log");
  d.program = opts.get("--kfsmd", from_env("TAVREL_KFSMD", ""));
  if (d.program.empty()) {
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n > 0) {
      self[n] = 0;
      std::string beside = fileutl_strip_leaf(self) + "/tavrel_kfsmd";
      if (access(beside.c_str(), X_OK) == 0) d.program = beside;
    }
    if (d.program.empty()) d.program = "tavrel_kfsmd";
  }
  return d;
}

// Whether a daemon accepts connections on the socket.
bool daemon_answers(const std::string& path) {
  sockaddr_un a{};
  if (path.size() >= sizeof a.sun_path) return false;
  a.sun_family = AF_UNIX;
  memcpy(a.sun_path, path.c_str(), path.size() + 1);
  int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  close(fd);
  return ok;
}

// The daemon's pid from the pid file when that process is alive and is the daemon; else 0. A pid file
// left by a daemon that died may name an unrelated process by now, which must never be signalled.
pid_t daemon_pid(const Daemon& d) {
  std::string text;
  if (fileutl_read_file(d.pid_file, &text, 64) != 0) return 0;
  char* end = nullptr;
  long pid = strtol(text.c_str(), &end, 10);
  if (pid <= 1 || (end && *end && *end != '\n')) return 0;
  std::string cmdline;
  if (fileutl_read_file("/proc/" + std::to_string(pid) + "/cmdline", &cmdline, 1 << 16) != 0) return 0;
  std::string argv0 = cmdline.substr(0, cmdline.find('\0'));
  size_t slash = argv0.rfind('/');
  if ((slash == std::string::npos ? argv0 : argv0.substr(slash + 1)) != "tavrel_kfsmd") return 0;
  return static_cast<pid_t>(pid);
}

bool wait_for(int timeout_ms, const std::function<bool()>& pred) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!pred()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

int kfsmd_start(const Options& opts, const Daemon& d) {
  if (daemon_answers(d.socket)) {
    if (!opts.quiet) printf("tavrel_kfsmd is already running on %s\n", d.socket.c_str());
    return kOk;
  }
  std::vector<std::string> args = {d.program, "--daemon", "--socket", d.socket, "--root", d.root, "--pid-file", d.pid_file};
  if (opts.has("--lpc-wait")) {
    args.push_back("--lpc-wait");
    args.push_back(opts.get("--lpc-wait"));
  }
  fileutl_mkpath(fileutl_strip_leaf(d.log), 0755);
  pid_t pid = fork();
  if (pid < 0) return fail(kStartFailed, std::string("cannot fork: ") + strerror(errno));
  if (pid == 0) {
    // The daemon keeps standard error for its messages: they go to the log.
    int fd = open(d.log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
    if (fd >= 0) dup2(fd, 2);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    fprintf(stderr, "tavrel: cannot run %s: %s\n", argv[0], strerror(errno));
    _exit(127);
  }
  // With --daemon the first process ends once the socket is ready (0), or when it could not start.
  int st = 0;
  while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(st) || WEXITSTATUS(st) != 0) {
    std::string tail;
    fileutl_read_file(d.log, &tail, 1 << 20);
    if (tail.size() > 2000) tail = tail.substr(tail.size() - 2000);
    return fail(kStartFailed, "tavrel_kfsmd did not start (see " + d.log + ")" + (tail.empty() ? "" : ":\n" + tail));
  }
  if (!opts.quiet) printf("tavrel_kfsmd listening on %s, views under %s\n", d.socket.c_str(), d.root.c_str());
  return kOk;
}

int kfsmd_stop(const Options& opts, const Daemon& d) {
  pid_t pid = daemon_pid(d);
  if (pid <= 0) {
    if (daemon_answers(d.socket))
      return fail(kNoAgent, "a daemon answers on " + d.socket + " but " + d.pid_file + " does not name it");
    return fail(kNoAgent, "tavrel_kfsmd is not running (no live process in " + d.pid_file + ")");
  }
  // The daemon lets every view go and detaches their mounts on SIGTERM.
  if (kill(pid, SIGTERM) != 0) return fail(kNoAgent, std::string("cannot signal tavrel_kfsmd: ") + strerror(errno));
  if (!wait_for(opts.timeout_s * 1000, [pid] { return kill(pid, 0) != 0 && errno == ESRCH; }))
    return fail(kTimeout, "tavrel_kfsmd did not end within " + std::to_string(opts.timeout_s) + " s");
  if (!opts.quiet) printf("tavrel_kfsmd stopped\n");
  return kOk;
}

int kfsmd_status(const Options& opts, const Daemon& d) {
  bool answers = daemon_answers(d.socket);
  pid_t pid = daemon_pid(d);
  if (opts.output == Output::kJson) {
    printf("{\"socket\":%s,\"running\":%s,\"pid\":%d}\n", client::json_quote(d.socket).c_str(), answers ? "true" : "false",
           static_cast<int>(pid));
  } else {
    printf("socket: %s\nrunning: %s\n", d.socket.c_str(), answers ? "true" : "false");
    if (pid > 0) printf("pid: %d\n", static_cast<int>(pid));
  }
  return answers ? kOk : kNoAgent;
}

int cmd_kfsmd(Options& opts) {
  if (opts.positional.size() != 1) return fail(kUsage, "kfsmd takes one of start, stop, status");
  const Daemon d = daemon_settings(opts);
  if (d.socket.empty() || d.socket[0] != '/' || d.root.empty() || d.root[0] != '/')
    return fail(kUsage, "the socket and the view root must be absolute paths");
  const std::string& what = opts.positional[0];
  if (what == "start") return kfsmd_start(opts, d);
  if (what == "stop") return kfsmd_stop(opts, d);
  if (what == "status") return kfsmd_status(opts, d);
  return fail(kUsage, "kfsmd takes one of start, stop, status, not '" + what + "'");
}

}  // namespace

std::vector<Command> mount_commands() {
  Command kfsmd = {"kfsmd", "start, stop or ask the module daemon (start|stop|status; no view needed)",
                   "  --socket PATH               module socket (TAVREL_KFSM_SOCKET, default /run/tavrel/kfsm.sock)\n"
                   "  --root DIR                  where views appear (TAVREL_VIEW_ROOT, default /view)\n"
                   "  --kfsmd PATH                the daemon program (TAVREL_KFSMD; default beside tavrel)\n"
                   "  --pid-file PATH             default kfsmd.pid beside the socket\n"
                   "  --log FILE                  the daemon's messages; default kfsmd.log beside the socket\n"
                   "  --lpc-wait SECONDS          how long file requests wait for the agent's threads\n",
                   {"--socket", "--root", "--kfsmd", "--pid-file", "--log", "--lpc-wait"}, {}, cmd_kfsmd};
  kfsmd.needs_storage = false;
  return {
      {"mount", "mount a SILO in the view: mount TAG", "", {}, {}, cmd_mount},
      {"umount", "unmount a SILO from the view: umount TAG", "", {}, {}, cmd_umount},
      {"mounts", "list the SILOs mounted in the view", "", {}, {}, cmd_mounts},
      {"silo", "whether a SILO is mounted, and if so whether it is public or a project SILO: silo TAG", "", {}, {},
       cmd_silo},
      kfsmd,
  };
}

}  // namespace tavrel::cli
