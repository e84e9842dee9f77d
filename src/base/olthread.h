// olthread: the base library's thread calls over POSIX threads.
//
// olthread_fork forks with the library in a sane state: the signal dispatcher of pfm (if one runs) is
// stopped across the fork, so a process with no other thread forks single-threaded, and it is started
// again on both sides so that handlers installed with pfm_signal keep working in parent and child.
#pragma once

#include <pthread.h>
#include <sys/types.h>

typedef pthread_t olthread_t;

int olthread_create(olthread_t* id, const pthread_attr_t* attr, void* (*fn)(void*), void* arg);
// Tests only: the next `n` calls of olthread_create fail with EAGAIN, as when the system is out of threads.
void olthread_fail_next_creates_for_test(int n);
// Joins; *status receives the value given to olthread_exit (or returned by the thread's function).
int olthread_join(olthread_t id, int* status);
[[noreturn]] void olthread_exit(int status);
olthread_t olthread_self();
// Kernel thread id of the caller.
pid_t olthread_tid();
bool olthread_is_main_thread();
#define OLTHREAD_IS_MAIN_THREAD() olthread_is_main_thread()

// fork(2); `nwait` is accepted for compatibility. Returns what fork returns.
pid_t olthread_fork(int nwait);
