#include "base/olthread.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

#include "base/pfm.h"

namespace {
std::atomic<int> g_failing_creates{0};
}  // namespace

int olthread_create(olthread_t* id, const pthread_attr_t* attr, void* (*fn)(void*), void* arg) {
  for (int n = g_failing_creates.load(); n > 0;)
    if (g_failing_creates.compare_exchange_weak(n, n - 1)) return EAGAIN;
  return pthread_create(id, attr, fn, arg);
}

void olthread_fail_next_creates_for_test(int n) { g_failing_creates = n; }

int olthread_join(olthread_t id, int* status) {
  void* ret = nullptr;
  int rc = pthread_join(id, &ret);
  if (rc == 0 && status) *status = static_cast<int>(reinterpret_cast<intptr_t>(ret));
  return rc;
}

void olthread_exit(int status) { pthread_exit(reinterpret_cast<void*>(static_cast<intptr_t>(status))); }

olthread_t olthread_self() { return pthread_self(); }

pid_t olthread_tid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

bool olthread_is_main_thread() { return olthread_tid() == getpid(); }

pid_t olthread_fork(int /*nwait*/) {
  pfm_before_fork();
  pid_t pid = fork();
  if (pid == 0)
    pfm_after_fork_child();
  else
    pfm_after_fork_parent();
  return pid;
}
