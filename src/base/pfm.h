// pfm: process exit, assertions and signals.
//
// Signals: pfm_signal installs a handler that does NOT run in signal context. The real signal handler
// only writes the signal number to a pipe; a dispatcher thread reads it and calls the handler there, so
// a handler may take mutexes and signal conditions. Handler value PFM_SIG_IGNORE (1) ignores the signal.
//
// Exit: pfm_exit(status) waits until no pfm_inhibit section is open, runs the functions registered
// with pfm_on_exit (last registered first) with the status, flushes stdio and ends the process with
// _exit(status). Static destructors do not run (other threads may still be using those objects).
#pragma once

typedef void (*pfm_sig_handler_t)(int);
#define PFM_SIG_IGNORE (reinterpret_cast<pfm_sig_handler_t>(1))

int pfm_signal(int sig, pfm_sig_handler_t handler);
void pfm_on_exit(void (*fn)(int status, void* arg), void* arg);
[[noreturn]] void pfm_exit(int status);
[[noreturn]] void pfm_assert_fail(const char* text, const char* file, int line, const char* extra);
[[noreturn]] void pfm_panic(const char* text);

// Defer process exit while a section that must not be cut runs. Nesting counts.
void pfm_inhibit();
void pfm_enable();

// Called by olthread_fork around fork(): the dispatcher thread is stopped (and joined) before it, so a
// process that has no other thread forks single-threaded; it starts again in the parent on the same
// pipe (signals caught meanwhile wait there) and in the child on a pipe of its own.
void pfm_before_fork();
void pfm_after_fork_parent();
void pfm_after_fork_child();

#define PFM_ASSERT(cond) \
  ((cond) ? static_cast<void>(0) : pfm_assert_fail(#cond, __FILE__, __LINE__, nullptr))
