#include "base/rt.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <map>
#include <mutex>
#include <vector>

#include "base/tavrel_mutex.h"

namespace {

using Clock = std::chrono::steady_clock;

struct FdEntry {
  rt_fd_cb_t cb;
  void* arg;
};
struct Timer {
  Clock::time_point due;
  rt_timer_cb_t cb;
  void* arg;
};

// Guards everything below. A leaf: callbacks run outside it.
Tavrel_Mutex g_mutex{Tavrel_Lock_Rank::LEAF, "event loop tables"};
std::map<int, FdEntry> g_fds;
std::map<long, Timer> g_timers;
long g_next_timer = 1;
bool g_shutdown = false;
int g_wake[2] = {-1, -1};

// Caller holds g_mutex.
bool ensure_wake_pipe() {
  if (g_wake[0] >= 0) return true;
  if (pipe2(g_wake, O_CLOEXEC | O_NONBLOCK) != 0) {
    g_wake[0] = g_wake[1] = -1;
    return false;
  }
  return true;
}

void wake() {
  if (g_wake[1] >= 0) {
    char b = 0;
    ssize_t ignored = write(g_wake[1], &b, 1);
    (void)ignored;
  }
}

}  // namespace

int rt_handle_fd(int fd, rt_fd_cb_t cb, void* arg) {
  std::lock_guard<Tavrel_Mutex> g(g_mutex);
  if (fd < 0 || g_fds.count(fd) || !ensure_wake_pipe()) return -1;
  g_fds[fd] = {cb, arg};
  wake();
  return 0;
}

int rt_unhandle_fd(int fd) {
  std::lock_guard<Tavrel_Mutex> g(g_mutex);
  if (!g_fds.erase(fd)) return -1;
  wake();
  return 0;
}

long rt_sched(long delay_ms, rt_timer_cb_t cb, void* arg) {
  std::lock_guard<Tavrel_Mutex> g(g_mutex);
  if (!ensure_wake_pipe()) return -1;
  long id = g_next_timer++;
  g_timers[id] = {Clock::now() + std::chrono::milliseconds(delay_ms < 0 ? 0 : delay_ms), cb, arg};
  wake();
  return id;
}

int rt_unsched(long id) {
  std::lock_guard<Tavrel_Mutex> g(g_mutex);
  return g_timers.erase(id) ? 0 : -1;
}

void rt_shutdown() {
  std::lock_guard<Tavrel_Mutex> g(g_mutex);
  g_shutdown = true;
  wake();
}

bool rt_is_shutdown() {
  std::lock_guard<Tavrel_Mutex> g(g_mutex);
  return g_shutdown;
}

void rt_run() {
  std::vector<pollfd> pfds;
  std::vector<FdEntry> entries;
  for (;;) {
    int timeout = -1;
    {
      std::lock_guard<Tavrel_Mutex> g(g_mutex);
      if (g_shutdown) return;
      if (!ensure_wake_pipe()) return;
      // Fire due timers first (outside the lock).
      auto now = Clock::now();
      std::vector<Timer> due;
      for (auto it = g_timers.begin(); it != g_timers.end();) {
        if (it->second.due <= now) {
          due.push_back(it->second);
          it = g_timers.erase(it);
        } else {
          ++it;
        }
      }
      if (!due.empty()) {
        g_mutex.unlock();
        for (auto& t : due) t.cb(t.arg);
        g_mutex.lock();
        continue;
      }
      for (auto& [id, t] : g_timers) {
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(t.due - now).count() + 1;
        if (timeout < 0 || ms < timeout) timeout = static_cast<int>(ms);
      }
      pfds.assign(1, pollfd{g_wake[0], POLLIN, 0});
      entries.clear();
      for (auto& [fd, e] : g_fds) {
        pfds.push_back(pollfd{fd, POLLIN, 0});
        entries.push_back(e);
      }
    }
    int n = poll(pfds.data(), pfds.size(), timeout);
    if (n < 0 && errno != EINTR) return;
    if (n <= 0) continue;
    if (pfds[0].revents) {
      char buf[64];
      while (read(pfds[0].fd, buf, sizeof buf) > 0) {
      }
    }
    bool called = false;
    for (size_t i = 1; i < pfds.size(); i++) {
      if (!pfds[i].revents) continue;
      {
        std::lock_guard<Tavrel_Mutex> g(g_mutex);
        if (g_shutdown) return;
        if (!g_fds.count(pfds[i].fd)) continue;  // unregistered meanwhile
      }
      entries[i - 1].cb(entries[i - 1].arg, pfds[i].fd);
      called = true;
    }
    if (called) {
      // A callback that leaves its descriptor readable would make the loop spin; give other
      // threads a moment. The agent's only such descriptor is the shutdown pipe, after which
      // rt_shutdown has already been called.
      std::lock_guard<Tavrel_Mutex> g(g_mutex);
      if (g_shutdown) return;
    }
  }
}
