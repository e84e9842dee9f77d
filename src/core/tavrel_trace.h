// Tavrel_Trace: the developer's trace, one line per event, in a per-process file under
// ~/tavrel_trace. Off unless a level >= 1 and a non-empty subsystem list are set.
//
// A Tavrel_Trace object on the stack opens a scope named by subsystem, class and function; at level 3
// and above the scope writes "Entering" and "Exiting". Line format:
//   <%Y-%m-%dT%H:%M:%S.uuuuuu>::TRACE::<subsystem>::<class>::<function>::<pid>::<tid %lx>::<message>\n
// and at level 10 (demo mode) only "<time stamp>::<message>\n", for messages of level 10 only.
// A message is cut at 2047 bytes. The file is named tavrel_<user>_d%Y%m%d_t%H%M%S_p<pid>.log (the
// "<user>_" part is left out without a user), made 0600 in a 0700 directory, and opened on the first
// line, so a run that never traces makes no file. The directory must be this user's own (a group- or
// world-writable one is made 0700; a symbolic link or another user's directory is refused) and the file
// is never opened through a symbolic link. A file that cannot be opened drops the line silently, and
// the open is tried again at the next line.
//
// Thread safety: the class-wide state is guarded by g_trace_lock; every line is one write(2).
#pragma once

#include <string>

#define TAVREL "TAVREL"
#define TAVREL_DB "TAVREL_DB"
#define TAVREL_KFSM "TAVREL_KFSM"
#define RCLIENT "RCLIENT"

enum {
  TRACE_LEVEL_0 = 0,
  TRACE_LEVEL_1 = 1,
  TRACE_LEVEL_2 = 2,
  TRACE_LEVEL_3 = 3,
  TRACE_LEVEL_4 = 4,
  TRACE_LEVEL_5 = 5,
  TRACE_LEVEL_DEMO = 10,
};

class Tavrel_Trace {
 public:
  Tavrel_Trace(const char* subsystem, const char* class_name, const char* function);
  ~Tavrel_Trace();
  Tavrel_Trace(const Tavrel_Trace&) = delete;
  Tavrel_Trace& operator=(const Tavrel_Trace&) = delete;

  void writeTrace(int level, const char* format, ...) const __attribute__((format(printf, 3, 4)));
  void writeTrace(const char* format, ...) const __attribute__((format(printf, 2, 3)));
  void writeTrace_m(const char* function, const char* format, ...) const __attribute__((format(printf, 3, 4)));
  bool shouldTrace(int level) const;
  bool shouldTraceEntryExit() const { return shouldTrace(TRACE_LEVEL_3); }

  static int tracing_enabled();
  static int get_trace_level();
  static void set_trace(const char* subsystems, int level);
  static void setup_trace_file(const char* user, int pid);
  static std::string get_trace_file();
  static void write_to_trace_file(const char* line);
  static void open_trace_file();
  static void close_trace_file();

  // Replaces the contents of password elements (<password>, <proxy-password>) with "*****", so
  // a request can be traced whole without its secrets.
  static std::string redact(const std::string& text);

 private:
  void emit(const char* function, const char* format, va_list ap) const;

  const char* m_subsystem;
  const char* m_class;
  const char* m_function;
};
