#include "core/tavrel_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "base/date.h"
#include "base/fileutl.h"
#include "base/strutl.h"
#include "base/sysutl.h"
#include "core/tavrel_trace.h"
#include "proto/view_storage_names.h"

std::atomic<int> Tavrel_Log::g_enabled{0};

namespace {
Tavrel_Mutex g_instance_mutex{Tavrel_Lock_Rank::LOG_INSTANCE, "Tavrel_Log instance"};
Tavrel_Log* g_instance = nullptr;
constexpr size_t kLogMessageMax = 16384;
}  // namespace

Tavrel_Log_Base::Tavrel_Log_Base(const std::string& view_dir, const std::string& file_name)
    : m_view_dir(view_dir), m_log_dir(view_dir + "/" + VIEW_STG_LOG_DIR), m_log_path(m_log_dir + "/" + file_name) {}

bool Tavrel_Log_Base::append_line(const std::string& line) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Log_Base", "open_log_file");
  trace.writeTrace(TRACE_LEVEL_5, "View dir = %s, log dir = %s, log path = %s", m_view_dir.c_str(), m_log_dir.c_str(),
                   m_log_path.c_str());
  std::lock_guard<Tavrel_Mutex> g(m_mutex);
  // Owner-only, and never through a symbolic link planted at the log's name. The log directory is made
  // when it is missing, but only inside a view directory that still exists.
  auto open_log = [&] {
    return open(m_log_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  };
  int fd = open_log();
  if (fd < 0 && errno == ENOENT) {
    struct stat st;
    if (stat(m_view_dir.c_str(), &st) != 0 || fileutl_mkpath(m_log_dir, 0700) != 0) return false;
    fd = open_log();
  }
  if (fd < 0) return false;
  trace.writeTrace(TRACE_LEVEL_5, "Writing %s to log", line.c_str());
  const bool ok = sysutl_write_all(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  close(fd);
  return ok;
}

Tavrel_Log::Tavrel_Log(const std::string& location) : Tavrel_Log_Base(location, VIEW_STG_LOG_FILE) {}

Tavrel_Log* Tavrel_Log::get_instance(const std::string& location) {
  std::lock_guard<Tavrel_Mutex> g(g_instance_mutex);
  if (!g_instance) g_instance = new Tavrel_Log(location);
  return g_instance;
}

Tavrel_Log* Tavrel_Log::peek_instance() {
  std::lock_guard<Tavrel_Mutex> g(g_instance_mutex);
  return g_instance;
}

void Tavrel_Log::reset_for_test() {
  std::lock_guard<Tavrel_Mutex> g(g_instance_mutex);
  delete g_instance;
  g_instance = nullptr;
}

const char* Tavrel_Log::type_text(int type) {
  switch (type) {
    case TAVREL_LOG_INFO:
      return "INFO";
    case TAVREL_LOG_WARN:
      return "WARN";
    case TAVREL_LOG_ERROR:
      return "ERROR";
    default:
      return "UNKNOWN";
  }
}

void Tavrel_Log::write_text(TAVREL_LOG_TYPE type, const std::string& text) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Log", "write_log");
  if (!should_log(type)) {
    trace.writeTrace(TRACE_LEVEL_5, "Not logging %s,", type_text(type));
    return;
  }
  struct timeval tv;
  date_get_timeval(&tv);
  std::string date = date_strftime_local("%b %d,%Y %H:%M:%S", tv.tv_sec) +
                     strutl_format(".%.3d", static_cast<int>(tv.tv_usec / 1000));
  append_line(strutl_format("%s::%s::%d::%s", type_text(type), date.c_str(), static_cast<int>(getpid()),
                            one_line(text).c_str()));
}

std::string Tavrel_Log::one_line(const std::string& text) {
  size_t end = text.size();
  while (end > 0 && (text[end - 1] == '\n' || text[end - 1] == '\r')) end--;
  std::string out;
  out.reserve(end + 1);
  for (size_t i = 0; i < end; i++) {
    switch (text[i]) {
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\\':
        out += "\\\\";
        break;
      default:
        out += text[i];
    }
  }
  out += '\n';
  return out;
}

void Tavrel_Log::write_log(TAVREL_LOG_TYPE type, const char* format, ...) {
  char buf[kLogMessageMax];
  va_list ap;
  va_start(ap, format);
  strutl_vsnprintf(buf, sizeof buf, format, ap);
  va_end(ap);
  write_text(type, buf);
}

void Tavrel_Log::write_log(TAVREL_LOG_TYPE type, const _imsg_message_table_t* table, int number, ...) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Log", "write_log");
  trace.writeTrace(TRACE_LEVEL_5, "log_type = %d", static_cast<int>(type));
  char buf[kLogMessageMax];
  va_list ap;
  va_start(ap, number);
  imsg_vsnprintf(buf, sizeof buf, table, number, ap);
  va_end(ap);
  write_text(type, buf);
}
