// Tavrel_Log_Base / Tavrel_Log: the agent log of a view, "<storage>/log/tvr.log".
//
// Line format: "<INFO|WARN|ERROR|UNKNOWN>::<%b %d,%Y %H:%M:%S.mmm>::<pid>::<message>\n". Every entry is
// exactly one line: the message's own trailing line ends are dropped, and line ends and backslashes
// inside it are written as "\n", "\r" and "\\", so a reader can split the file at line ends. Nothing is
// written until Tavrel_Log::g_enabled is set. The file is opened and closed for every line, created
// owner-only (0600) and never through a symbolic link; the log directory is made (0700) when missing,
// but a storage directory that no longer exists is never re-created. There is no rotation.
//
// Thread safety: a mutex per log object serialises lines, so parallel writers never interleave.
#pragma once

#include <atomic>
#include <mutex>
#include <string>

#include "base/tavrel_mutex.h"

#include "base/imsg.h"

// A fixed underlying type: whatever number a caller passes is a value of the type, so checking its range
// is well-defined.
enum TAVREL_LOG_TYPE : int { TAVREL_LOG_INFO = 0, TAVREL_LOG_WARN = 1, TAVREL_LOG_ERROR = 2 };

class Tavrel_Log_Base {
 public:
  // The log lives in <view_dir>/VIEW_STG_LOG_DIR/<file_name>.
  explicit Tavrel_Log_Base(const std::string& view_dir, const std::string& file_name);
  virtual ~Tavrel_Log_Base() = default;
  virtual void write_log(TAVREL_LOG_TYPE type, const char* format, ...) __attribute__((format(printf, 3, 4))) = 0;

  const std::string& get_log_path() const { return m_log_path; }
  const std::string& get_log_dir() const { return m_log_dir; }

 protected:
  // Appends one line; false when the file could not be opened.
  bool append_line(const std::string& line);

  std::string m_view_dir;
  std::string m_log_dir;
  std::string m_log_path;
  // Guards the file during one append; only the trace is taken under it.
  Tavrel_Mutex m_mutex{Tavrel_Lock_Rank::LOG_FILE, "Tavrel_Log_Base::m_mutex"};
};

class Tavrel_Log : public Tavrel_Log_Base {
 public:
  static std::atomic<int> g_enabled;

  // The singleton for the storage. A later call with another location returns the first one.
  static Tavrel_Log* get_instance(const std::string& location);
  // The singleton if it has been made, else null.
  static Tavrel_Log* peek_instance();
  // Drops the singleton (tests only: no other thread may be logging).
  static void reset_for_test();

  void write_log(TAVREL_LOG_TYPE type, const char* format, ...) override __attribute__((format(printf, 3, 4)));
  void write_log(TAVREL_LOG_TYPE type, const _imsg_message_table_t* table, int number, ...);
  bool should_log(TAVREL_LOG_TYPE) const { return g_enabled.load() != 0; }

  static const char* type_text(int type);
  // The message as one log line: trailing line ends dropped, inner ones and backslashes escaped, one
  // line end added.
  static std::string one_line(const std::string& text);

 private:
  explicit Tavrel_Log(const std::string& location);
  void write_text(TAVREL_LOG_TYPE type, const std::string& text);
};
