// Tavrel_Config: the user's settings from "tavrel.conf" in the home directory.
//
// File format, line by line: white space trimmed at both ends; empty lines, lines starting with "#" and
// lines without "=" are skipped; key and value are what stands before and after the first "=", each
// trimmed, and a pair is kept only when both are non-empty. A later line wins. Lines longer than
// MAX_LINE bytes are skipped whole, and a file larger than MAX_FILE bytes is not read (defaults apply).
//
// Thread safety: the singleton is made under g_config_lock; settings are read-only after load and are
// read without a lock.
#pragma once

#include <map>
#include <mutex>
#include <string>

class Tavrel_Config {
 public:
  static constexpr const char* CONFIG_FILE = "tavrel.conf";
  static constexpr const char* TAVREL_LOG_LEVEL = "tavrelLogLevel";
  static constexpr const char* TAVREL_TRACE_LEVEL = "tavrelTraceLevel";
  static constexpr const char* TAVREL_TRACE_SUBSYSTEM = "tavrelTraceSubsystem";
  static constexpr const char* NUM_CMAPI_THREADS = "tavrelNumCmapi";
  static constexpr const char* NUM_KFSM_THREADS = "tavrelNumKfsm";
  static constexpr const char* NUM_GET_THREADS = "tavrelNumGet";
  static constexpr size_t MAX_LINE = 64 * 1024;
  static constexpr size_t MAX_FILE = 16 * 1024 * 1024;

  static Tavrel_Config* get_instance();
  // Drops the singleton so that the next get_instance reads the file again (tests only).
  static void reset_for_test();

  std::string find(const std::string& key) const;
  bool get_boolean_param(const std::string& key) const;
  // A setting read as a base-10 integer; `fallback` when absent or not a number.
  long get_int_param(const std::string& key, long fallback) const;
  std::string get_config_file() const;
  // Reads a configuration file over the present settings. Returns false when it cannot be read.
  bool load(const std::string& path);
  // Parses configuration text over the present settings.
  void load_text(const std::string& text);

  static std::mutex g_config_lock;

 private:
  Tavrel_Config();
  std::map<std::string, std::string> m_settings;
};
