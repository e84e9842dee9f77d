// Tavrel_Log_Base / Tavrel_Log: the agent log of a view, "<storage>/log/tvr.log".
//
// Line format: "<INFO|WARN|ERROR|UNKNOWN>::<%b %d,%Y %H:%M:%S.mmm>::<pid>::<message>". No line end is
// added: messages bring their own. Nothing is written until Tavrel_Log::g_enabled is set. The file is
// opened and closed for every line; the log directory is made (0700) when missing, but a storage
// directory that no longer exists is never re-created. There is no rotation.
//
// Thread safety: a mutex per log object serialises lines, so parallel writers never interleave.
#pragma once

#include <atomic>
#include <mutex>
#include <string>

#include "base/imsg.h"

enum TAVREL_LOG_TYPE { TAVREL_LOG_INFO = 0, TAVREL_LOG_WARN = 1, TAVREL_LOG_ERROR = 2 };

class Tavrel_Log_Base {
 public:
  static constexpr const char* TAVREL_LOG_DIR = "log";

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
  std::mutex m_mutex;  // guards the file during one append
};

class Tavrel_Log : public Tavrel_Log_Base {
 public:
  static constexpr const char* LOG_FILE = "tvr.log";
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

 private:
  explicit Tavrel_Log(const std::string& location);
  void write_text(TAVREL_LOG_TYPE type, const std::string& text);
};
