// imsg: numbered message catalogues, redirection of the base library's messages, and the trace
// filter (verbosity and subsystem list) that tracing consults.
//
// A catalogue is a section name, a prefix and an array of printf formats addressed by number from 0.
// Messages of the base library are sent with imsg_print(kind, text); a process routes them with
// imsg_set_redirect_procs to eleven procedures (0-3 OK, 4-5 warning, 6-7 error, 8-9 trace,
// 10 suppressed appends). Without a redirect, errors and warnings go to standard error.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>

struct _imsg_message_table_t {
  const char* section;
  const char* prefix;
  int count;
  const char* const* texts;
};

typedef void (*imsg_redirect_proc_t)(void* context, const char* text);

enum imsg_kind_t { IMSG_OK = 0, IMSG_WARN = 4, IMSG_ERR = 6, IMSG_TRACE = 8, IMSG_SUPPRESS = 10 };

void imsg_set_redirect_procs(const imsg_redirect_proc_t* procs, int count, void* context);
void imsg_print(imsg_kind_t kind, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void imsg_append_proc_suppress(void* context, const char* text);

// Expands message `number` of `table` with the arguments. An unknown number gives
// "<prefix>: unknown message <number>". Result is cut to size-1 bytes; returns bytes written.
size_t imsg_vsnprintf(char* buf, size_t size, const _imsg_message_table_t* table, int number, va_list ap);
std::string imsg_vformat(const _imsg_message_table_t* table, int number, va_list ap);
std::string imsg_format(const _imsg_message_table_t* table, int number, ...);

// Trace filter: a ":"-separated list of subsystem names and a verbosity level.
void imsg_set_trace_subsys(const char* list);
void imsg_set_trace_verbosity(int level);
int imsg_get_desired_verbosity();
// True when `subsystem` is on the list and `level` does not exceed the verbosity.
bool imsg_should_trace(const char* subsystem, int level);
