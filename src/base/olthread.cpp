#include "base/olthread.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>

#include "base/pfm.h"

int olthread_create(olthread_t* id, const pthread_attr_t* attr, void* (*fn)(void*), void* arg) {
  return pthread_create(id, attr, fn, arg);
}

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
