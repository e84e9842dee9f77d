// Tavrel_View: the one object that stands for the view in the process. It owns the layout of the view
// storage directory, creates and validates its contents, holds the view lock, and guards the update
// gate and the view's generation number (GN).
//
// The names of the storage directory are in proto/view_storage_names.h. This class makes and checks
// the metadata file (format in proto/view_metadata.h), the view lock ".pid" (server_lock_set; the
// kernel drops it when the holder dies, so a lock left by a killed agent is simply taken over), the
// host name file ".hostname" (a start on another host is refused) and the cache marker
// ".cltxt_cache"; the other files belong to their own classes. The metadata file is written whole,
// atomically (temporary file, fsync, rename); versionid and server-url are never read back.
//
// Creation order: storage directory (made exclusively), view lock, cache directory, host name file,
// metadata, name-service cache, database, the view's namespace record, GN 0, kernel registration.
// Start order: storage checks, metadata (full), host name, view lock, removal of temporaries left by
// interrupted rewrites, metadata rewritten, cache, database, GN, kernel registration.
//
// Subsystems above this library (name-service cache, database, kernel module, server parameters) are
// reached through Tavrel_View_Hooks, installed once at process start. A hook that is not installed
// makes the step that needs it fail with a status; nothing is pretended.
//
// Thread safety: the update state (g_view_gn, g_active_update, g_update_running, g_stop_update) is
// guarded by g_update_lock with g_gn_cond; g_view_gn is also an atomic, so get_current_gn reads it
// without the lock (the name service asks for it under its own locks, which rank below the gate); the view root by its own mutex; the process-wide copy of the
// server tag by its own mutex. Everything else is set before the pool starts and read without a lock,
// except the cache size, which set_cache_size writes from a pool thread (SetCache).
#pragma once

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>

#include "base/tavrel_mutex.h"
#include "base/tbs.h"

class Tavrel_Update;
class Tavrel_View_db;
class Tavrel_View;

// The seams to the subsystems above this library. Statuses are of the 1000 range (0 success) unless
// said otherwise. Every member may be null: the step that needs it then fails (see each).
struct Tavrel_View_Hooks {
  // Starts the name-service cache (cache_init). Null: creation and start fail with 20007.
  int (*cache_init)() = nullptr;
  // ns_cache_set_size(size, enforce_minimum): 0; 1072 when below the minimum and not enforced.
  // Null: set_cache_size fails with message 116 and 20001.
  int (*cache_set_size)(unsigned size, bool enforce_minimum) = nullptr;
  // Makes the view's database object for the storage and the view uuid text and starts it
  // (start_db). *db receives the object, also on failure when one was made. Null: 20007, message 42.
  int (*start_db)(const std::string& storage, const std::string& uuid_text, Tavrel_View_db** db) = nullptr;
  // Closes and deletes a database object made by start_db.
  void (*close_db)(Tavrel_View_db* db) = nullptr;
  // tavrel_db_get_vns_view_gn and tavrel_db_create_vns_view. Null: 20001.
  int (*db_get_vns_view_gn)(unsigned* gn) = nullptr;
  int (*db_create_vns_view)(const tbs_uuid_s& uuid, unsigned gn) = nullptr;
  // Kernel module: register_view / unregister_view of the view's kernel channel, and the module's
  // root directory (get_kfsm_root). Null: register fails with 1001 (mapped to 20001), unregister is
  // not attempted (cleanup returns 1001), and the view root stays unknown (empty).
  int (*register_view)(Tavrel_View* view) = nullptr;
  int (*unregister_view)(Tavrel_View* view) = nullptr;
  int (*get_kfsm_root)(std::string* root) = nullptr;
  // The server URL of the process, as customised from the request's server element. Null: empty.
  std::string (*server_url)() = nullptr;
};

class Tavrel_View {
 public:
  static constexpr const char* TKM_VIEW_TYPE = "tkm";
  static constexpr unsigned MIN_CACHE_SIZE = 0x400000;
  static constexpr int NO_LOCK = -2;

  // A view on an existing storage; nothing is read until start() or get_view_info().
  explicit Tavrel_View(const std::string& location);
  // A view to be created (MkView). The uuid text is parsed at once; one that does not convert fails
  // create() at the view's namespace record (20001).
  Tavrel_View(const std::string& uuid, const std::string& server_tag, const std::string& text_mode,
              const std::string& view_type, const std::string& cache_dir, const std::string& location,
              int preserve_time);
  // Closes the database object and releases the view lock when held.
  virtual ~Tavrel_View();
  Tavrel_View(const Tavrel_View&) = delete;
  Tavrel_View& operator=(const Tavrel_View&) = delete;

  static Tavrel_View* get_view_from_stg(const std::string& location);
  static Tavrel_View* get_view_from_list(const std::string& uuid, const std::string& server_tag,
                                         const std::string& text_mode, const std::string& view_type,
                                         const std::string& cache_dir, const std::string& location,
                                         int preserve_time);

  // Installs the seams (copied). Call before any view is started; not synchronised with running views.
  static void install_hooks(const Tavrel_View_Hooks& hooks);
  static const Tavrel_View_Hooks& get_hooks();

  // --- Life of the storage -------------------------------------------------------------------------
  // Makes the storage of a new view. 0, or the status of the first failing step: 20018 exists, 20005
  // path, 3 view lock, 20021/20050/20051/20052 cache directory, 2 host name file, 20008 metadata, 20007
  // cache or database, 20001 namespace record (also for a uuid that does not convert) or registration.
  // The identity is not checked (is_valid): the first start of such a view reports what is missing.
  virtual int create();
  // Opens the storage of an existing view. 0, or: 20023 storage missing, not a directory or another
  // user's; 20019/20006/20009 metadata; 20059 wrong host; 3 view lock; 20008; 20007; 20001.
  virtual int start();
  // Unregisters the view from the kernel module; the module's status, or 1001 without a server tag
  // (or without a kernel module interface).
  virtual int cleanup();
  // Undoes a failed creation: closes the database, and removes the storage tree (and a cache marker
  // made by this creation) only when this object made the storage and holds its lock; then unlocks.
  virtual void cleanup_storage();

  // Whether `location` is a storage left half-made by a creation that died before writing its
  // metadata: a directory without ".tavrel", whose lock nobody holds, holding nothing but ".pid",
  // ".hostname", "log" and temporaries of interrupted rewrites. create() takes such a storage over.
  static bool is_abandoned_creation(const std::string& location);

  // Checks the storage directory for start: it must be a directory (not a symbolic link) owned by the
  // agent's user; group and other permission bits are removed. 0 or 20023 with a message.
  int check_storage();
  int create_view_storage();
  int validate_create_cache_dir();
  int create_hostname_file();
  int validate_hostname_file();

  // --- Metadata ------------------------------------------------------------------------------------
  // All identity fields present, checked in this order: server tag (message 5, assigned), text mode
  // (11, assigned), uuid text (1) or a uuid that is null or does not convert (21), server URL (4), view
  // type (2, assigned); "assigned" replaces the status message, the others are appended.
  bool is_valid();
  // read_metadata_file(0).
  virtual int get_view_info();
  // Reads ".tavrel" into the fields. With `full`, also is_valid() (20009) and set_cache_size. A file
  // that cannot be opened gives 20019 and a uuid that does not convert 20009, neither with a message.
  int read_metadata_file(int full);
  // Rewrites ".tavrel" atomically. 0 or 20008.
  int create_metadata_file();
  // 20009 (traced only) when the text is not a uuid.
  int set_view_uuid(const std::string& uuid);
  // The text mode in its canonical spelling; empty when it is not a known mode.
  std::string get_view_textmode() const;
  // Sets the name-service cache size; with `save` also rewrites the metadata. Messages go to `message`.
  int set_cache_size(unsigned size, std::string& message, bool save);

  // --- Kernel module and view root ----------------------------------------------------------------
  int register_kfsm();
  // The kernel module's root, "/", the server tag. Cached once known; empty while unknown.
  std::string get_view_root();
  // The path without the view root in front; a path that does not start with the root is returned
  // as it is, so view-relative paths pass through.
  std::string strip_view_root(const std::string& path);
  bool is_view_root(std::string path);

  // --- View lock -----------------------------------------------------------------------------------
  // Takes the view lock. False when another process (or another view object of this process) holds
  // it, with message 127 and get_lock_holder() giving its pid, or on a system error (message 128).
  bool lock();
  void unlock();
  void conditional_unlock();
  bool holds_lock() const { return m_lock_cookie != NO_LOCK; }
  pid_t get_lock_holder() const { return m_lock_holder; }

  // --- Generation number and the update gate (class-wide) -------------------------------------------
  static unsigned get_current_gn();
  static void set_current_gn(unsigned gn, bool running);
  // Takes the gate for `update`, giving the current GN in `gn`. Without `wait`, false when another
  // update holds it (nothing changes); with `wait`, sleeps until the gate is free.
  static bool update_start(Tavrel_Update* update, unsigned& gn, bool wait);
  static void update_end(Tavrel_Update* update);
  static bool update_in_progress();
  static Tavrel_Update* get_update();
  static void abort_update();
  static bool should_stop_update();
  static void wait_for_running_update();
  static void wait_for_finished_update();
  // Clears the class-wide state: update gate, GN, stop flag, server tag (tests only).
  static void reset_for_test();

  // --- Fields ----------------------------------------------------------------------------------------
  const std::string& get_storage_path() const { return m_storage_path; }
  const std::string& get_metadata_path() const { return m_metadata_path; }
  const std::string& get_lock_path() const { return m_lock_path; }
  const std::string& get_ipc_path() const { return m_ipc_path; }
  const std::string& get_cltxt_cache_dir() const { return m_cltxt_cache_dir; }
  const std::string& get_server_tag() const { return m_server_tag; }
  const std::string& get_text_mode() const { return m_text_mode; }
  const std::string& get_view_uuid_str() const { return m_view_uuid_str; }
  const tbs_uuid_s& get_view_uuid() const { return m_view_uuid; }
  const std::string& get_view_type() const { return m_view_type; }
  bool is_tkm() const { return m_view_type == TKM_VIEW_TYPE; }
  int get_preserve_time() const { return m_preserve_time; }
  unsigned get_cache_size() const { return m_cache_size.load(); }
  // The cache size a view starts with when its metadata names none.
  static constexpr const char* CONF_CACHE_SIZE = "tavrelCacheSize";
  static constexpr unsigned DEFAULT_CACHE_SIZE = 32u << 20;
  Tavrel_View_db* get_db() const { return m_db; }
  const std::string& get_status_message() const { return m_status_message; }
  void clear_status_message() { m_status_message.clear(); }

  // Statuses of the 1000 range in agent terms: 0 stays 0, 1002 and 1052 give 20002, others 20001.
  static int tbs_to_tavrel_status(int status);

 protected:
  void init();
  // Starts the name-service cache and opens the database. 0 or 20007.
  int start_store();
  void append_message(int number, ...);
  void assign_message(int number, ...);

  std::string m_lock_path;
  std::string m_storage_path;
  std::string m_cltxt_cache_dir;
  std::string m_metadata_path;
  std::string m_ipc_path;
  std::string m_server_tag;
  std::string m_text_mode;
  std::string m_view_uuid_str;
  tbs_uuid_s m_view_uuid = TBS_UUID_NULL;
  std::string m_view_type;
  std::string m_view_root;
  // Guards m_view_root; held across the module's root query (a command, never an upcall).
  Tavrel_Mutex m_view_root_mutex{Tavrel_Lock_Rank::VIEW_ROOT, "Tavrel_View::m_view_root_mutex"};
  std::string m_status_message;
  int m_lock_cookie = NO_LOCK;
  Tavrel_View_db* m_db = nullptr;
  int m_preserve_time = 0;
  std::atomic<unsigned> m_cache_size{0};

  pid_t m_lock_holder = 0;          // pid of the process that held the lock at the last refusal
  bool m_created_storage = false;   // this object made (or took over) the storage directory
  bool m_created_cache_dir = false; // this object made the cache directory itself
  bool m_created_cache_marker = false;

  static Tavrel_Mutex g_update_lock;
  static std::condition_variable_any g_gn_cond;
  static std::atomic<unsigned> g_view_gn;  // written under g_update_lock, read without it
  static Tavrel_Update* g_active_update;
  static bool g_update_running;
  static bool g_stop_update;

  static Tavrel_Mutex g_server_tag_lock;
  static std::string* g_server_tag;  // heap copy of the last server tag read; cleanup() uses it
};
