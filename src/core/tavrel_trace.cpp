#include "core/tavrel_trace.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <mutex>

#include "base/date.h"
#include "base/imsg.h"
#include "base/strutl.h"
#include "base/sysutl.h"
#include "base/tavrel_mutex.h"

namespace {
// Guards every field below and each write. The innermost lock of ours: any thread traces under any
// lock, and only the trace filter of imsg is taken under this one.
Tavrel_Mutex g_trace_lock{Tavrel_Lock_Rank::TRACE, "trace file"};
int tracing_on = 0;
char trace_subsys[1024];
int trace_level = 0;
char trace_file[1024];
int trace_fd = -1;

constexpr size_t kMessageMax = 2048;

std::string time_stamp() {
  struct timeval tv;
  date_get_timeval(&tv);
  return date_strftime_local("%Y-%m-%dT%H:%M:%S", tv.tv_sec) + strutl_format(".%.6d", static_cast<int>(tv.tv_usec));
}

// Whether `dir` is a directory of this user that only this user can write; a group- or world-writable
// one of ours is made 0700. A symbolic link, another user's directory or anything else is refused.
bool trace_dir_safe(const std::string& dir) {
  struct stat st;
  if (lstat(dir.c_str(), &st) != 0) {
    if (errno != ENOENT || mkdir(dir.c_str(), 0700) != 0) return false;
    if (lstat(dir.c_str(), &st) != 0) return false;
  }
  if (!S_ISDIR(st.st_mode) || st.st_uid != geteuid()) return false;
  if ((st.st_mode & 077) != 0 && chmod(dir.c_str(), 0700) != 0) return false;
  return true;
}

// Caller holds g_trace_lock. A file that cannot be opened is tried again at the next line.
void open_locked() {
  if (trace_fd >= 0 || !trace_file[0]) return;
  std::string dir = trace_file;
  dir = dir.substr(0, dir.find_last_of('/'));
  if (!trace_dir_safe(dir)) return;
  int fd = open(trace_file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
  if (fd < 0) return;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid()) {
    close(fd);
    return;
  }
  if ((st.st_mode & 077) != 0) fchmod(fd, 0600);
  trace_fd = fd;
}
}  // namespace

Tavrel_Trace::Tavrel_Trace(const char* subsystem, const char* class_name, const char* function)
    : m_subsystem(subsystem), m_class(class_name), m_function(function) {
  if (shouldTraceEntryExit()) writeTrace("Entering");
}

Tavrel_Trace::~Tavrel_Trace() {
  if (shouldTraceEntryExit()) writeTrace("Exiting");
}

bool Tavrel_Trace::shouldTrace(int level) const {
  int current = imsg_get_desired_verbosity();
  if (current == TRACE_LEVEL_DEMO) return level == TRACE_LEVEL_DEMO;
  if (current < level) return false;
  return imsg_should_trace(m_subsystem, level);
}

void Tavrel_Trace::emit(const char* function, const char* format, va_list ap) const {
  char msg[kMessageMax];
  strutl_vsnprintf(msg, sizeof msg, format, ap);
  std::string line;
  if (imsg_get_desired_verbosity() == TRACE_LEVEL_DEMO) {
    line = time_stamp() + "::" + msg + "\n";
  } else {
    line = strutl_format("%s::%s::%s::%s::%s::%d::%lx::%s\n", time_stamp().c_str(), "TRACE", m_subsystem, m_class,
                         function, static_cast<int>(getpid()), static_cast<unsigned long>(pthread_self()), msg);
  }
  write_to_trace_file(line.c_str());
}

void Tavrel_Trace::writeTrace(int level, const char* format, ...) const {
  if (!shouldTrace(level)) return;
  va_list ap;
  va_start(ap, format);
  emit(m_function, format, ap);
  va_end(ap);
}

void Tavrel_Trace::writeTrace(const char* format, ...) const {
  va_list ap;
  va_start(ap, format);
  emit(m_function, format, ap);
  va_end(ap);
}

void Tavrel_Trace::writeTrace_m(const char* function, const char* format, ...) const {
  va_list ap;
  va_start(ap, format);
  emit(function, format, ap);
  va_end(ap);
}

int Tavrel_Trace::tracing_enabled() {
  std::lock_guard<Tavrel_Mutex> g(g_trace_lock);
  return tracing_on;
}

int Tavrel_Trace::get_trace_level() {
  std::lock_guard<Tavrel_Mutex> g(g_trace_lock);
  return trace_level;
}

void Tavrel_Trace::set_trace(const char* subsystems, int level) {
  std::lock_guard<Tavrel_Mutex> g(g_trace_lock);
  trace_level = level;
  if (subsystems)
    strutl_cpy_buf(trace_subsys, sizeof trace_subsys, subsystems);
  else
    trace_subsys[0] = '\0';
  tracing_on = (level >= 1 && trace_subsys[0]) ? 1 : 0;
  imsg_set_trace_subsys(trace_subsys);
  // With no subsystem nothing may pass, whatever the level.
  imsg_set_trace_verbosity(tracing_on ? level : 0);
}

void Tavrel_Trace::setup_trace_file(const char* user, int pid) {
  std::string home = sysutl_get_homedir();
  std::lock_guard<Tavrel_Mutex> g(g_trace_lock);
  if (trace_fd >= 0) {
    close(trace_fd);
    trace_fd = -1;
  }
  if (home.empty()) {
    trace_file[0] = '\0';
    return;
  }
  std::string name = home + "/tavrel_trace/tavrel_";
  if (user && *user) name += std::string(user) + "_";
  name += date_strftime_local("d%Y%m%d_t%H%M%S", time(nullptr)) + "_" + strutl_format("p%d", pid) + ".log";
  strutl_cpy_buf(trace_file, sizeof trace_file, name.c_str());
}

std::string Tavrel_Trace::get_trace_file() {
  std::lock_guard<Tavrel_Mutex> g(g_trace_lock);
  return trace_file;
}

void Tavrel_Trace::write_to_trace_file(const char* line) {
  std::lock_guard<Tavrel_Mutex> g(g_trace_lock);
  open_locked();
  if (trace_fd < 0) return;
  ssize_t ignored = write(trace_fd, line, strlen(line));
  (void)ignored;
}

void Tavrel_Trace::open_trace_file() {
  std::lock_guard<Tavrel_Mutex> g(g_trace_lock);
  open_locked();
}

void Tavrel_Trace::close_trace_file() {
  std::lock_guard<Tavrel_Mutex> g(g_trace_lock);
  if (trace_fd >= 0) close(trace_fd);
  trace_fd = -1;
}

std::string Tavrel_Trace::redact(const std::string& text) {
  std::string out = text;
  for (const char* tag : {"password", "proxy-password"}) {
    std::string open = std::string("<") + tag;
    std::string close = std::string("</") + tag + ">";
    size_t pos = 0;
    while ((pos = out.find(open, pos)) != std::string::npos) {
      size_t after = pos + open.size();
      // The tag name must end here ("<password>" or "<password ..."), not be a prefix of another.
      if (after >= out.size() || (out[after] != '>' && out[after] != ' ' && out[after] != '/')) {
        pos = after;
        continue;
      }
      size_t gt = out.find('>', after);
      if (gt == std::string::npos) break;
      if (out[gt - 1] == '/') {  // empty element
        pos = gt;
        continue;
      }
      size_t end = out.find(close, gt + 1);
      if (end == std::string::npos) end = out.size();
      out.replace(gt + 1, end - gt - 1, "*****");
      pos = gt + 6;
    }
  }
  return out;
}
