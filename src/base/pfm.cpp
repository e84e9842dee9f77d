#include "base/pfm.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <new>
#include <vector>

#include "base/imsg.h"
#include "base/tavrel_mutex.h"

namespace {

// Guards the handler table and the dispatcher's start; handlers run outside it.
Tavrel_Mutex g_sig_mutex{Tavrel_Lock_Rank::LEAF, "signal handler table"};
pfm_sig_handler_t g_handlers[NSIG];
std::atomic<int> g_sig_write_fd{-1};
int g_sig_read_fd = -1;
bool g_dispatcher_running = false;
pthread_t g_dispatcher;  // the dispatcher thread while g_dispatcher_running

// Guards the on-exit list and the inhibit count (taken inside a database transaction: a leaf).
Tavrel_Mutex g_exit_mutex{Tavrel_Lock_Rank::LEAF, "exit handlers and inhibit count"};
std::condition_variable_any g_exit_cv;
int g_inhibit = 0;
struct OnExit {
  void (*fn)(int, void*);
  void* arg;
};
std::vector<OnExit> g_on_exit;

void raw_handler(int sig) {
  int saved = errno;
  int fd = g_sig_write_fd.load(std::memory_order_relaxed);
  if (fd >= 0) {
    unsigned char b = static_cast<unsigned char>(sig);
    ssize_t ignored = write(fd, &b, 1);
    (void)ignored;
  }
  errno = saved;
}

void* dispatcher(void* arg) {
  int rfd = static_cast<int>(reinterpret_cast<intptr_t>(arg));
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  for (;;) {
    unsigned char b;
    ssize_t n = read(rfd, &b, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return nullptr;
    if (b == 0) return nullptr;  // no signal has the number 0: the stop asked for by pfm_before_fork
    pfm_sig_handler_t h;
    {
      std::lock_guard<Tavrel_Mutex> g(g_sig_mutex);
      h = g_handlers[b];
    }
    if (h && h != PFM_SIG_IGNORE) h(b);
  }
}

// Caller holds g_sig_mutex. Starts the dispatcher (joinable, for pfm_before_fork) on the pipe, which
// is made first when there is none.
bool start_dispatcher_locked() {
  if (g_dispatcher_running) return true;
  if (g_sig_read_fd < 0) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return false;
    g_sig_read_fd = fds[0];
    g_sig_write_fd.store(fds[1]);
  }
  void* arg = reinterpret_cast<void*>(static_cast<intptr_t>(g_sig_read_fd));
  int rc = pthread_create(&g_dispatcher, nullptr, dispatcher, arg);
  if (rc != 0) return false;
  g_dispatcher_running = true;
  return true;
}

}  // namespace

int pfm_signal(int sig, pfm_sig_handler_t handler) {
  if (sig <= 0 || sig >= NSIG) return -1;
  struct sigaction sa = {};
  sigemptyset(&sa.sa_mask);
  if (handler == PFM_SIG_IGNORE) {
    sa.sa_handler = SIG_IGN;
  } else if (handler == nullptr) {
    sa.sa_handler = SIG_DFL;
  } else {
    std::lock_guard<Tavrel_Mutex> g(g_sig_mutex);
    if (!start_dispatcher_locked()) return -1;
    sa.sa_handler = raw_handler;
    sa.sa_flags = SA_RESTART;
  }
  {
    std::lock_guard<Tavrel_Mutex> g(g_sig_mutex);
    g_handlers[sig] = handler;
  }
  return sigaction(sig, &sa, nullptr) == 0 ? 0 : -1;
}

void pfm_before_fork() {
  pthread_t t;
  {
    std::lock_guard<Tavrel_Mutex> g(g_sig_mutex);
    if (!g_dispatcher_running) return;
    g_dispatcher_running = false;
    t = g_dispatcher;
  }
  // Signals caught from here on wait in the pipe for the dispatcher started after the fork. The join
  // also waits for a handler that is running.
  unsigned char stop = 0;
  while (write(g_sig_write_fd.load(), &stop, 1) < 0 && errno == EINTR) {
  }
  pthread_join(t, nullptr);
}

void pfm_after_fork_parent() {
  std::lock_guard<Tavrel_Mutex> g(g_sig_mutex);
  if (g_sig_read_fd >= 0) start_dispatcher_locked();
}

void pfm_after_fork_child() {
  // Only the forking thread exists here, and the dispatcher was stopped before the fork, so no
  // inherited mutex of this file can be held; it is made afresh all the same.
  new (&g_sig_mutex) Tavrel_Mutex(Tavrel_Lock_Rank::LEAF, "signal handler table");
  if (g_sig_read_fd < 0) return;
  // The parent's pipe is shared with it; a private one keeps each process's signals its own.
  close(g_sig_read_fd);
  g_sig_read_fd = -1;
  int old_w = g_sig_write_fd.exchange(-1);
  close(old_w);
  g_dispatcher_running = false;
  std::lock_guard<Tavrel_Mutex> g(g_sig_mutex);
  start_dispatcher_locked();
}

void pfm_on_exit(void (*fn)(int, void*), void* arg) {
  std::lock_guard<Tavrel_Mutex> g(g_exit_mutex);
  g_on_exit.push_back({fn, arg});
}

void pfm_exit(int status) {
  std::vector<OnExit> handlers;
  {
    std::unique_lock<Tavrel_Mutex> g(g_exit_mutex);
    g_exit_cv.wait(g, [] { return g_inhibit == 0; });
    handlers.swap(g_on_exit);
  }
  for (auto it = handlers.rbegin(); it != handlers.rend(); ++it) it->fn(status, it->arg);
  fflush(nullptr);
  _exit(status);
}

void pfm_assert_fail(const char* text, const char* file, int line, const char* extra) {
  fprintf(stderr, "Assertion failed: %s, file %s, line %d%s%s\n", text, file, line, extra ? ": " : "",
          extra ? extra : "");
  imsg_print(IMSG_ERR, "Assertion failed: %s, file %s, line %d\n", text, file, line);
  fflush(nullptr);
  abort();
}

void pfm_panic(const char* text) {
  fprintf(stderr, "panic: %s\n", text);
  imsg_print(IMSG_ERR, "panic: %s\n", text);
  fflush(nullptr);
  abort();
}

void pfm_inhibit() {
  std::lock_guard<Tavrel_Mutex> g(g_exit_mutex);
  g_inhibit++;
}

void pfm_enable() {
  std::lock_guard<Tavrel_Mutex> g(g_exit_mutex);
  if (g_inhibit > 0 && --g_inhibit == 0) g_exit_cv.notify_all();
}
