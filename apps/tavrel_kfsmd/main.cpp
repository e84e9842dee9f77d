// tavrel_kfsmd: the kernel module's side of the view, in user space. One per machine, run as root.
// It listens on the module socket, keeps the registered views, and shows every mounted SILO of a view
// as a FUSE file system at <root>/<view tag>/<silo tag>.
//
//   tavrel_kfsmd [--socket PATH] [--root DIR] [--lpc-wait SECONDS] [--hello-timeout SECONDS]
//                [--max-conns N] [--max-conns-per-user N] [--daemon] [--pid-file PATH]
//
// A new connection must say hello within --hello-timeout seconds (5). Users other than root may hold
// --max-conns-per-user connections each (512) and --max-conns all together (2048); the per-user cap must
// be below the total. A connection over a cap is refused with "too many connections"; root's are never.
// The limit of open files is raised to its hard limit, as every connection holds a descriptor.
//
// Defaults: the socket $TAVREL_KFSM_SOCKET or /run/tavrel/kfsm.sock, the root $TAVREL_VIEW_ROOT or
// /view. With --daemon the program detaches and its first process exits 0 once the socket is ready
// (1 when it could not start). SIGTERM, SIGINT and SIGHUP end it: every view's LPC threads are let go
// (1046) and its mounts detached.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kfsmd/core/kfsmd_registry.h"
#include "kfsmd/core/kfsmd_server.h"
#include "kfsmd/fuse/kfsmd_fuse_mount.h"
#include "proto/kfsm_wire.h"

namespace {

void usage() {
  fprintf(stderr,
          "usage: tavrel_kfsmd [--socket PATH] [--root DIR] [--lpc-wait SECONDS] [--hello-timeout SECONDS]\n"
          "                    [--max-conns N] [--max-conns-per-user N] [--daemon] [--pid-file PATH]\n"
          "  --hello-timeout  seconds a new connection may stay silent before it is closed (5)\n"
          "  --max-conns      connections open at once, all users but root together (2048)\n"
          "  --max-conns-per-user  connections open at once of one user other than root (512), below --max-conns\n");
}

// mkdir -p with mode 0755 for the missing parts.
bool make_path(const std::string& path) {
  std::string cur;
  size_t pos = 0;
  while (pos <= path.size()) {
    size_t end = path.find('/', pos);
    if (end == std::string::npos) end = path.size();
    cur = path.substr(0, end);
    if (!cur.empty() && mkdir(cur.c_str(), 0755) != 0 && errno != EEXIST) return false;
    pos = end + 1;
  }
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string parent_of(const std::string& p) {
  size_t slash = p.rfind('/');
  return slash == std::string::npos || slash == 0 ? "/" : p.substr(0, slash);
}

}  // namespace

int main(int argc, char** argv) {
  Kfsmd_Options opt;
  opt.socket_path = kfsm_socket_path();
  if (const char* r = getenv("TAVREL_VIEW_ROOT"); r && *r) opt.root = r;
  bool daemon_mode = false;
  std::string pid_file;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&](std::string* out) {
      if (i + 1 >= argc) return false;
      *out = argv[++i];
      return true;
    };
    std::string v;
    // A whole number in [lo, hi] from the next argument.
    auto number = [&](long lo, long hi, long* out) {
      if (!value(&v)) return false;
      char* end = nullptr;
      errno = 0;
      *out = strtol(v.c_str(), &end, 10);
      return end && !*end && !v.empty() && errno == 0 && *out >= lo && *out <= hi;
    };
    long n = 0;
    if (a == "--hello-timeout" || a == "--max-conns" || a == "--max-conns-per-user") {
      const bool secs = a == "--hello-timeout";
      if (!number(1, secs ? 3600 : 1000000, &n)) {
        usage();
        return 1;
      }
      if (secs) opt.hello_timeout_ms = static_cast<int>(n * 1000);
      else if (a == "--max-conns") opt.max_connections = static_cast<size_t>(n);
      else opt.max_connections_per_user = static_cast<size_t>(n);
    } else if (a == "--socket" && value(&v)) {
      opt.socket_path = v;
    } else if (a == "--root" && value(&v)) {
      opt.root = v;
    } else if (a == "--lpc-wait" && value(&v)) {
      char* end = nullptr;
      long s = strtol(v.c_str(), &end, 10);
      if (!end || *end || s < 0 || s > 3600) {
        usage();
        return 1;
      }
      opt.lpc_wait_ms = static_cast<int>(s * 1000);
    } else if (a == "--daemon") {
      daemon_mode = true;
    } else if (a == "--pid-file" && value(&v)) {
      pid_file = v;
    } else if (a == "--help" || a == "-h") {
      usage();
      return 0;
    } else {
      usage();
      return 1;
    }
  }
  while (opt.root.size() > 1 && opt.root.back() == '/') opt.root.pop_back();
  if (opt.root.empty() || opt.root[0] != '/' || opt.socket_path.empty() || opt.socket_path[0] != '/') {
    fprintf(stderr, "tavrel_kfsmd: the root and the socket must be absolute paths\n");
    return 1;
  }
  if (opt.max_connections_per_user >= opt.max_connections) {
    fprintf(stderr, "tavrel_kfsmd: --max-conns-per-user must be below --max-conns\n");
    return 1;
  }
  struct rlimit files;
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
  }
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur != RLIM_INFINITY &&
      files.rlim_cur < opt.max_connections + 256)
    fprintf(stderr, "tavrel_kfsmd: only %llu open files allowed; --max-conns %zu may not be reached\n",
            static_cast<unsigned long long>(files.rlim_cur), opt.max_connections);

  int ready[2] = {-1, -1};
  if (daemon_mode) {
    if (pipe2(ready, O_CLOEXEC) != 0) return 1;
    pid_t pid = fork();
    if (pid < 0) return 1;
    if (pid > 0) {
      close(ready[1]);
      char c = 1;
      ssize_t n = read(ready[0], &c, 1);
      return n == 1 && c == 0 ? 0 : 1;
    }
    close(ready[0]);
    setsid();
    int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null >= 0) {
      dup2(null, 0);
      dup2(null, 1);
    }
  }

  // Signals are taken by sigwait on the main thread; every other thread inherits the mask.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);
  signal(SIGPIPE, SIG_IGN);
  umask(022);

  if (!make_path(opt.root) || !make_path(parent_of(opt.socket_path))) {
    fprintf(stderr, "tavrel_kfsmd: cannot make %s or the socket's directory: %s\n", opt.root.c_str(), strerror(errno));
    return 1;
  }
  Kfsmd_Fuse_Mounter mounter;
  Kfsmd_Registry registry(opt, &mounter);
  Kfsmd_Server server(opt, registry);
  int e = server.start();
  if (e != 0) {
    fprintf(stderr, "tavrel_kfsmd: cannot listen on %s: %s\n", opt.socket_path.c_str(), strerror(e));
    return 1;
  }
  if (!pid_file.empty()) {
    FILE* f = fopen(pid_file.c_str(), "w");
    if (f) {
      fprintf(f, "%d\n", static_cast<int>(getpid()));
      fclose(f);
    }
  }
  fprintf(stderr, "tavrel_kfsmd: listening on %s, views under %s\n", opt.socket_path.c_str(), opt.root.c_str());
  if (daemon_mode) {
    char ok = 0;
    if (write(ready[1], &ok, 1) != 1) return 1;
    close(ready[1]);
  }
  int sig = 0;
  sigwait(&stop, &sig);
  fprintf(stderr, "tavrel_kfsmd: signal %d, ending every view\n", sig);
  server.stop();
  registry.shutdown();
  if (!pid_file.empty()) unlink(pid_file.c_str());
  return 0;
}
