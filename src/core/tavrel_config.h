// Tavrel_Config: the user's settings from "tavrel.conf" in the home directory, and the table of SILOs
// mounted in this view together with the file ".mounted_silos" that keeps it over restarts.
//
// Settings file format, line by line: white space trimmed at both ends; empty lines, lines starting
// with "#" and lines without "=" are skipped; key and value are what stands before and after the
// first "=", each trimmed, and a pair is kept only when both are non-empty. A later line wins. Lines
// longer than MAX_LINE bytes are skipped whole, and a file larger than MAX_FILE bytes (or one that is
// not a regular file) is not read: the defaults apply.
//
// Mounted-SILO file ".mounted_silos" in the view storage, one line per mounted SILO, in tag order:
//   tag=replica=family=storage=is_public=is_project
// replica and family in the UUID text form, the flags "true" or "false". Tags hold no "=" and no line
// end; the storage path holds no line end (such entries are refused). On reading, tag, replica and
// family are the first three fields and the flags the last two, so a storage path holding "=" still
// reads back whole. The file is rewritten whole on every change, atomically (temporary file, fsync,
// rename): a crash leaves the old table or the new one, never a mixture. Lines longer than
// MAX_MOUNT_LINE and undecodable lines are skipped; the file is at most MAX_MOUNT_FILE bytes.
//
// Thread safety: the singleton is made once under a lock of its own and found without one afterwards;
// settings are read-only after load and are read without a lock, so any thread may read them under
// any lock. g_config_lock guards both mount tables and the file; it is an outer lock (rank CONFIG of
// base/tavrel_mutex.h): never taken under a lock of the name service or the thread manager, and
// never held while a SILO is being mounted (the mount hook calls set_mount_state itself).
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "base/tavrel_mutex.h"
#include "base/tbs.h"

class Tavrel_View;

// One mounted SILO. Copies are values; the tables hold copies.
class SILO_mount_info {
 public:
  SILO_mount_info() = default;
  SILO_mount_info(const SILO_mount_info&) = default;
  SILO_mount_info& operator=(const SILO_mount_info&) = default;
  virtual ~SILO_mount_info() = default;

  // The line of ".mounted_silos" for this entry, without the line end.
  std::string to_line() const;

  std::string silo_tag;                      // key of the table, e.g. "/proj"
  tbs_uuid_s replica_uuid = TBS_UUID_NULL;
  tbs_uuid_s family_uuid = TBS_UUID_NULL;
  int mount_state = 0;                       // 1 mounted, 0 not
  bool is_public = false;
  bool is_project_silo = false;
  std::string storage;                       // global storage path of the SILO
};

struct map_uuid_compare {
  bool operator()(const tbs_uuid_s& a, const tbs_uuid_s& b) const { return a < b; }
};

class Tavrel_Config {
 public:
  static constexpr const char* CONFIG_FILE = "tavrel.conf";
  static constexpr const char* KEY_VALUE_SEP = "=";
  static constexpr const char* TAVREL_LOG_LEVEL = "tavrelLogLevel";
  static constexpr const char* TAVREL_TRACE_LEVEL = "tavrelTraceLevel";
  static constexpr const char* TAVREL_TRACE_SUBSYSTEM = "tavrelTraceSubsystem";
  static constexpr const char* NUM_CMAPI_THREADS = "tavrelNumCmapi";
  static constexpr const char* NUM_KFSM_THREADS = "tavrelNumKfsm";
  static constexpr const char* NUM_GET_THREADS = "tavrelNumGet";
  static constexpr size_t MAX_LINE = 64 * 1024;
  static constexpr size_t MAX_FILE = 16 * 1024 * 1024;
  static constexpr size_t MAX_MOUNT_LINE = 8 * 1024;
  static constexpr size_t MAX_MOUNT_FILE = 4 * 1024 * 1024;

  // Mounts one SILO of the file (the mount operation's do_mount); it updates the tables itself through
  // set_mount_state. Returns 0 or a status.
  typedef int (*Mount_Hook)(SILO_mount_info& entry);
  // The view of the process, or null when there is none yet.
  typedef Tavrel_View* (*View_Lookup)();

  static Tavrel_Config* get_instance();
  // Drops the singleton so that the next get_instance reads the file again (tests only). The mount
  // tables are class-wide and stay; see clear_mount_tables_for_test.
  static void reset_for_test();
  static void clear_mount_tables_for_test();

  // Installs the mount operation and the view lookup. Without a view lookup get_mounted_file is empty;
  // without a mount hook every remount fails (20045).
  static void set_mount_hook(Mount_Hook hook);
  static void set_view_lookup(View_Lookup lookup);
  static bool has_mount_hook();
  static bool has_view_lookup();

  std::string find(const std::string& key) const;
  bool get_boolean_param(const std::string& key) const;
  // A setting read as a base-10 integer; `fallback` when absent or not a number.
  long get_int_param(const std::string& key, long fallback) const;
  std::string get_config_file() const;
  // Reads a configuration file over the present settings. Returns false when it cannot be read.
  bool load(const std::string& path);
  // Parses configuration text over the present settings.
  void load_text(const std::string& text);

  // --- Mount table ---------------------------------------------------------------------------------
  // "<storage>/.mounted_silos" of the process's view; empty without a view.
  std::string get_mounted_file() const;
  bool get_mount_state(std::string tag);
  // A copy of the entry, or an entry with an empty tag and mount state 0.
  SILO_mount_info get_mount_info(std::string tag);
  SILO_mount_info get_mount_info(const tbs_uuid_s& family);
  // Every entry, in tag order (a copy).
  std::vector<SILO_mount_info> get_mounted_silos();
  // Puts the entry in both tables (mount state 1) or takes its tag and family out of them (0), then
  // rewrites the file. 0; 20031 no file name (or an entry the file cannot hold, nothing changed);
  // 20043 the file could not be written (the tables have changed all the same).
  int set_mount_state(const SILO_mount_info& info);
  // A new entry from a line of the file, or null. The caller deletes it.
  SILO_mount_info* decode_mount_info(const std::string& line);
  // Mounts what the file lists (StartView). 0; 20044 the table is not empty; 20031 no file name;
  // 20043 the file cannot be read; 20045 a mount failed (the others are still tried).
  int remount_silos();
  // Finds the SILO of a path: on success `path` becomes what follows the tag ("" for the SILO root) and
  // `info` the entry. 0 or 20047.
  int get_silo_info_and_path(std::string& path, SILO_mount_info& info);

  static Tavrel_Mutex g_config_lock;
  static std::map<std::string, SILO_mount_info> g_mounted_silos;                        // by tag
  static std::map<tbs_uuid_s, SILO_mount_info, map_uuid_compare> g_mounted_silos_uuid;  // by family

 private:
  Tavrel_Config();
  // Writes the file from g_mounted_silos; the caller holds g_config_lock.
  int write_mounted_file_locked(const std::string& file);

  std::map<std::string, std::string> m_settings;
};
