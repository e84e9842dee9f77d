#include "core/tavrel_view.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <set>
#include <vector>

#include "base/credutl.h"
#include "base/fileutl.h"
#include "base/imsg.h"
#include "base/server.h"
#include "base/strutl.h"
#include "core/tavrel_config.h"
#include "core/tavrel_log.h"
#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_msg_table.h"
#include "core/tavrel_view_storage.h"
#include "core/tavrel_view_text_mode.h"
#include "proto/view_metadata.h"
#include "proto/view_storage_names.h"

Tavrel_Mutex Tavrel_View::g_update_lock{Tavrel_Lock_Rank::UPDATE_GATE, "Tavrel_View::g_update_lock"};
std::condition_variable_any Tavrel_View::g_gn_cond;
std::atomic<unsigned> Tavrel_View::g_view_gn{0};
Tavrel_Update* Tavrel_View::g_active_update = nullptr;
bool Tavrel_View::g_update_running = false;
bool Tavrel_View::g_stop_update = false;
Tavrel_Mutex Tavrel_View::g_server_tag_lock{Tavrel_Lock_Rank::LEAF, "Tavrel_View::g_server_tag_lock"};
std::string* Tavrel_View::g_server_tag = nullptr;

namespace {

Tavrel_View_Hooks g_hooks;

// POSIX record locks belong to the process: a second view object of this process would "take" a lock
// the process already holds, and its unlock (a close) would drop the first one's. Lock files held by
// this process are therefore registered here, by absolute path.
Tavrel_Mutex g_held_locks_mutex{Tavrel_Lock_Rank::LEAF, "view lock registry"};
std::set<std::string> g_held_locks;

// Files of the storage that are rewritten atomically; their temporaries are removed at start.
const std::vector<std::string>& atomic_files() {
  static const std::vector<std::string> names = {VIEW_STG_METADATA, VIEW_STG_HOSTNAME, VIEW_STG_MOUNTED_SILOS};
  return names;
}

std::string host_name() {
  char buf[HOST_NAME_MAX + 1] = {};
  if (gethostname(buf, sizeof buf - 1) != 0) return "";
  return buf;
}

bool has_line_end(const std::string& s) { return s.find_first_of("\r\n") != std::string::npos; }

}  // namespace

// ----------------------------------------------------------------------------------------------------
// Construction

Tavrel_View::Tavrel_View(const std::string& location) : m_storage_path(location) { init(); }

Tavrel_View::Tavrel_View(const std::string& uuid, const std::string& server_tag, const std::string& text_mode,
                         const std::string& view_type, const std::string& cache_dir, const std::string& location,
                         int preserve_time)
    : m_storage_path(location),
      m_cltxt_cache_dir(cache_dir),
      m_server_tag(server_tag),
      m_text_mode(text_mode),
      m_view_type(view_type),
      m_preserve_time(preserve_time) {
  init();
  if (!uuid.empty()) set_view_uuid(uuid);
  m_status_message.clear();  // a bad uuid is reported by is_valid() when the view is created
  if (m_view_uuid_str.empty()) m_view_uuid_str = uuid;
}

Tavrel_View::~Tavrel_View() {
  if (m_db) {
    if (g_hooks.close_db) g_hooks.close_db(m_db);
    m_db = nullptr;
  }
  conditional_unlock();
}

void Tavrel_View::init() {
  m_lock_path = m_storage_path + "/" + VIEW_STG_LOCK;
  m_metadata_path = m_storage_path + "/" + VIEW_STG_METADATA;
  m_ipc_path = m_storage_path + "/" + VIEW_STG_RIPC_DIR;
}

Tavrel_View* Tavrel_View::get_view_from_stg(const std::string& location) { return new Tavrel_View(location); }

Tavrel_View* Tavrel_View::get_view_from_list(const std::string& uuid, const std::string& server_tag,
                                             const std::string& text_mode, const std::string& view_type,
                                             const std::string& cache_dir, const std::string& location,
                                             int preserve_time) {
  return new Tavrel_View(uuid, server_tag, text_mode, view_type, cache_dir, location, preserve_time);
}

void Tavrel_View::install_hooks(const Tavrel_View_Hooks& hooks) { g_hooks = hooks; }

const Tavrel_View_Hooks& Tavrel_View::get_hooks() { return g_hooks; }

int Tavrel_View::tbs_to_tavrel_status(int status) {
  if (status == 0) return 0;
  if (status == TBS_ST_NOT_FOUND || status == TBS_ST_NO_SUCH_NAME) return TAVREL_ST_NOT_FOUND;
  return TAVREL_ST_FAILURE;
}

void Tavrel_View::append_message(int number, ...) {
  va_list ap;
  va_start(ap, number);
  m_status_message += imsg_vformat(&_tvr_lib_lib_msg_table, number, ap);
  va_end(ap);
}

void Tavrel_View::assign_message(int number, ...) {
  va_list ap;
  va_start(ap, number);
  m_status_message = imsg_vformat(&_tvr_lib_lib_msg_table, number, ap);
  va_end(ap);
}

// ----------------------------------------------------------------------------------------------------
// Creation and start

int Tavrel_View::create() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "create");
  // The identity is not checked here: MkView checked what it requires, and a view made offline without
  // a URL (or with a text mode no start accepts) is made all the same; its start reports what is missing.
  int status = create_view_storage();
  if (status != 0) return status;
  // The lock is taken as soon as the directory exists, so that a concurrent creation of the same
  // storage, or a later take-over of a half-made one, can tell a live creation from a dead one.
  if (!lock()) return TAVREL_ST_VIEW_LOCKED;
  status = validate_create_cache_dir();
  if (status != 0) return status;
  status = create_hostname_file();
  if (status != 0) return status;
  status = create_metadata_file();
  if (status != 0) return status;

  status = start_store();
  if (status != 0) return status;

  tbs_uuid_s uuid;
  if (tbs_str_to_uuid(m_view_uuid_str, &uuid) != 0 || !g_hooks.db_create_vns_view ||
      g_hooks.db_create_vns_view(uuid, 0) != 0) {
    trace.writeTrace(TRACE_LEVEL_1, "Failed to create vns entry for view.");
    return TAVREL_ST_FAILURE;
  }
  set_current_gn(0, false);
  return register_kfsm();
}

int Tavrel_View::start_store() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "start_store");
  if (!g_hooks.cache_init) {
    trace.writeTrace(TRACE_LEVEL_1, "No name-service cache to start");
    return TAVREL_ST_CACHE_START;
  }
  // A view whose metadata names no size takes tavrel.conf's tavrelCacheSize (bytes; 32 MiB unless set),
  // enough for the names and attributes of a working set of some 50,000 objects, so walking a large tree
  // does not evict attributes and move the SILO's LVUT at every step. The metadata keeps naming no size,
  // so a later change of tavrel.conf applies to the view too.
  if (m_cache_size.load() == 0 && g_hooks.cache_set_size) {
    long conf = Tavrel_Config::get_instance()->get_int_param(CONF_CACHE_SIZE, DEFAULT_CACHE_SIZE);
    unsigned size = conf > 0 && conf <= 0x7fffffffL ? static_cast<unsigned>(conf) : DEFAULT_CACHE_SIZE;
    if (g_hooks.cache_set_size(size, true) != 0) trace.writeTrace(TRACE_LEVEL_2, "default cache size %u refused", size);
  }
  if (g_hooks.cache_init() != 0) return TAVREL_ST_CACHE_START;

  int db_status = g_hooks.start_db ? g_hooks.start_db(m_storage_path, m_view_uuid_str, &m_db) : TBS_ST_FAILURE;
  if (db_status != 0) {
    trace.writeTrace(TRACE_LEVEL_1, "start_db failed: %d", db_status);
    append_message(TVR_LIB_DB_INIT, db_status);
    return TAVREL_ST_CACHE_START;
  }
  return TAVREL_ST_OK;
}

int Tavrel_View::start() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "start");
  int status = check_storage();
  if (status != 0) return status;
  status = read_metadata_file(1);
  if (status != 0) return status;
  status = validate_hostname_file();
  if (status != 0) return status;
  if (!lock()) return TAVREL_ST_VIEW_LOCKED;  // a second agent on this storage stops here
  // With the lock held nobody else rewrites the storage's files: temporaries are leftovers of a crash.
  Tavrel_View_Storage::remove_stale_temporaries(m_storage_path, atomic_files());
  status = create_metadata_file();
  if (status != 0) return status;

  status = start_store();
  if (status != 0) return status;

  unsigned gn = 0;
  if (!g_hooks.db_get_vns_view_gn || g_hooks.db_get_vns_view_gn(&gn) != 0) {
    gn = 0;
    tbs_uuid_s uuid;
    if (tbs_str_to_uuid(m_view_uuid_str, &uuid) != 0 || !g_hooks.db_create_vns_view ||
        g_hooks.db_create_vns_view(uuid, 0) != 0) {
      trace.writeTrace(TRACE_LEVEL_1, "Failed to create vns entry for view.");
      return TAVREL_ST_FAILURE;
    }
  }
  set_current_gn(gn, false);
  return register_kfsm();
}

int Tavrel_View::check_storage() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "check_storage");
  struct stat st;
  if (lstat(m_storage_path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    trace.writeTrace(TRACE_LEVEL_1, "%s is not a directory", m_storage_path.c_str());
    append_message(TVR_LIB_STORAGE_NOT_DIR, m_storage_path.c_str());
    return TAVREL_ST_NO_STORAGE;
  }
  if (st.st_uid != geteuid()) {
    trace.writeTrace(TRACE_LEVEL_1, "%s belongs to uid %d", m_storage_path.c_str(), static_cast<int>(st.st_uid));
    append_message(TVR_LIB_STORAGE_OWNER, m_storage_path.c_str(), static_cast<int>(st.st_uid),
                   static_cast<int>(geteuid()));
    return TAVREL_ST_NO_STORAGE;
  }
  if ((st.st_mode & 077) != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Mode %o of %s narrowed to 0700", static_cast<unsigned>(st.st_mode & 07777),
                     m_storage_path.c_str());
    if (chmod(m_storage_path.c_str(), st.st_mode & 07700) != 0) {
      trace.writeTrace(TRACE_LEVEL_1, "chmod %s failed: %s", m_storage_path.c_str(), strerror(errno));
      append_message(TVR_LIB_STORAGE_OWNER, m_storage_path.c_str(), static_cast<int>(st.st_uid),
                     static_cast<int>(geteuid()));
      return TAVREL_ST_NO_STORAGE;
    }
  }
  return 0;
}

namespace {
// Whether the storage holds nothing but what a creation makes before its metadata: the lock file, the
// host name file, the log directory and temporaries of interrupted rewrites; and no metadata file.
bool holds_only_early_creation_files(const std::string& location) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "holds_only_early_creation_files");
  if (fileutl_exists(location + "/" + VIEW_STG_METADATA)) return false;
  DIR* d = opendir(location.c_str());
  if (!d) return false;
  bool only_early = true;
  while (struct dirent* e = readdir(d)) {
    std::string n = e->d_name;
    if (n == "." || n == ".." || n == VIEW_STG_LOCK || n == VIEW_STG_HOSTNAME || n == VIEW_STG_LOG_DIR)
      continue;
    if (Tavrel_View_Storage::is_temporary_of(n, atomic_files())) continue;
    trace.writeTrace(TRACE_LEVEL_4, "%s holds %s: not a half-made view", location.c_str(), n.c_str());
    only_early = false;
    break;
  }
  closedir(d);
  return only_early;
}

bool lock_held_here(const std::string& lock_path) {
  std::lock_guard<Tavrel_Mutex> g(g_held_locks_mutex);
  return g_held_locks.count(fileutl_abspn(lock_path)) != 0;
}
}  // namespace

bool Tavrel_View::is_abandoned_creation(const std::string& location) {
  struct stat st;
  if (lstat(location.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid()) return false;
  const std::string lock_path = location + "/" + VIEW_STG_LOCK;
  // Asking who holds the lock opens and closes the lock file, which would drop a lock this process
  // holds: a storage locked here is in use anyway.
  if (lock_held_here(lock_path)) return false;
  if (server_lock_holder(lock_path) != 0) return false;  // a live creation, or an unreadable lock
  return holds_only_early_creation_files(location);
}

int Tavrel_View::create_view_storage() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "create_view_storage");
  if (m_storage_path.empty() || m_storage_path[0] != '/') {
    append_message(TVR_LIB_CREATE_STORAGE, EINVAL, m_storage_path.c_str());
    return TAVREL_ST_MKPATH;
  }
  std::string parent = fileutl_strip_leaf(m_storage_path);
  if (!parent.empty() && parent != "/" && fileutl_mkpath(parent, 0700) != 0) {
    int e = errno;
    trace.writeTrace(TRACE_LEVEL_1, "mkpath %s failed: %s", parent.c_str(), strerror(e));
    assign_message(TVR_LIB_CREATE_STORAGE, e, m_storage_path.c_str());
    return TAVREL_ST_MKPATH;
  }
  // The last component is made exclusively: of two creations of one storage only one gets here.
  if (mkdir(m_storage_path.c_str(), 0700) == 0) {
    m_created_storage = true;
    chmod(m_storage_path.c_str(), 0700);  // whatever the umask left
    return 0;
  }
  int e = errno;
  if (e != EEXIST) {
    trace.writeTrace(TRACE_LEVEL_1, "mkdir %s failed: %s", m_storage_path.c_str(), strerror(e));
    assign_message(TVR_LIB_CREATE_STORAGE, e, m_storage_path.c_str());
    return TAVREL_ST_MKPATH;
  }
  // It exists. Only a storage whose creation died before writing the metadata is taken over, and only
  // with its lock held, so that a creation still running is never disturbed.
  if (is_abandoned_creation(m_storage_path) && lock()) {
    if (holds_only_early_creation_files(m_storage_path)) {
      trace.writeTrace(TRACE_LEVEL_2, "Taking over %s, left half-made by an interrupted creation",
                       m_storage_path.c_str());
      Tavrel_View_Storage::remove_tree(m_storage_path + "/" + VIEW_STG_HOSTNAME);
      Tavrel_View_Storage::remove_tree(m_storage_path + "/" + VIEW_STG_LOG_DIR);
      Tavrel_View_Storage::remove_stale_temporaries(m_storage_path, atomic_files());
      chmod(m_storage_path.c_str(), 0700);
      m_created_storage = true;
      return 0;
    }
    unlock();
  }
  m_status_message.clear();  // a failed take-over attempt says nothing; the storage simply exists
  trace.writeTrace(TRACE_LEVEL_1, "View storage %s exists", m_storage_path.c_str());
  assign_message(TVR_LIB_VIEW_EXISTS, m_storage_path.c_str());
  return TAVREL_ST_STORAGE_EXISTS;
}

int Tavrel_View::validate_create_cache_dir() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "validate_create_cache_dir");
  std::string dir = m_cltxt_cache_dir;
  Tavrel_View_Storage::globalize_path(dir);
  // Cache file paths are handed to the kernel module and used after the agent changed directory.
  if (dir.empty() || dir[0] != '/') {
    trace.writeTrace(TRACE_LEVEL_1, "Cache directory %s is not absolute", dir.c_str());
    assign_message(TVR_LIB_CACHE_RELATIVE, dir.c_str());
    return TAVREL_ST_MALFORMED;
  }
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  const std::string hidden = (dir == "/" ? "" : dir) + "/" + CLTXT_CACHE_MARKER;

  struct stat st;
  bool dir_exists = stat(dir.c_str(), &st) == 0;
  // A cache directory belongs to the agent's user: another user could otherwise change what the view
  // shows by replacing cached files.
  if (dir_exists && S_ISDIR(st.st_mode) && st.st_uid != geteuid()) {
    trace.writeTrace(TRACE_LEVEL_1, "Cache directory %s belongs to uid %d", dir.c_str(), static_cast<int>(st.st_uid));
    assign_message(TVR_LIB_CACHE_OWNER, dir.c_str(), static_cast<int>(st.st_uid), static_cast<int>(geteuid()));
    return TAVREL_ST_CACHE_NOT_EMPTY;
  }
  if (fileutl_exists(hidden)) {
    trace.writeTrace(TRACE_LEVEL_4, "Cache directory %s validated", dir.c_str());
    return 0;
  }
  if (Tavrel_View_Storage::find_in_ancestors(dir, CLTXT_CACHE_MARKER)) {
    trace.writeTrace(TRACE_LEVEL_1, "Cache directory %s child of another valid cache location", dir.c_str());
    assign_message(TVR_LIB_CACHE_NESTED, dir.c_str());
    return TAVREL_ST_CACHE_NESTED;
  }
  if (dir_exists || fileutl_exists(dir)) {
    int status = 0;
    bool empty = Tavrel_View_Storage::is_dir_empty(dir, &status);
    if (status != 0) {
      trace.writeTrace(TRACE_LEVEL_1, "Error checking if %s is empty", dir.c_str());
      assign_message(TVR_LIB_CACHE_INVALID, dir.c_str());
      return status;
    }
    if (!empty) {
      trace.writeTrace(TRACE_LEVEL_1, "Cache directory %s is not empty", dir.c_str());
      assign_message(TVR_LIB_CACHE_INVALID, dir.c_str());
      return TAVREL_ST_CACHE_NOT_EMPTY;
    }
  }
  if (fileutl_mkpath(dir, 0700) != 0) {
    int e = errno;
    trace.writeTrace(TRACE_LEVEL_1, "Error creating parent directory for %s: %s", hidden.c_str(), strerror(e));
    assign_message(TVR_LIB_CREATE_CACHE_DIR, strerror(e), dir.c_str());
    return TAVREL_ST_MKPATH;
  }
  m_created_cache_dir = !dir_exists;
  int fd = open(hidden.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0 && errno != EEXIST) {
    int e = errno;
    trace.writeTrace(TRACE_LEVEL_1, "Error Creating %s", hidden.c_str());
    assign_message(TVR_LIB_CREATE_CACHE_DIR, strerror(e), dir.c_str());
    return TAVREL_ST_MKPATH;
  }
  if (fd >= 0) {
    m_created_cache_marker = true;
    close(fd);
  }
  return 0;
}

int Tavrel_View::create_hostname_file() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "create_hostname_file");
  // The file belongs to the credentials the agent acts with, inside the 0700 storage.
  credutl_creds_t creds;
  if (credutl_get_sid_credentials(&creds) != 0) {
    int e = errno;
    trace.writeTrace(TRACE_LEVEL_1, "can't get my creds");
    m_status_message +=
        imsg_format(&_tvr_base_msg_table, TVR_BASE_MSG_CALL_FAILED, "credutl_get_sid_credentials", strerror(e));
    return 2;
  }
  char buf[HOST_NAME_MAX + 1] = {};
  if (gethostname(buf, sizeof buf - 1) != 0) {
    int e = errno;
    trace.writeTrace(TRACE_LEVEL_1, "can't get hostname: %s", strerror(e));
    m_status_message += imsg_format(&_tvr_base_msg_table, TVR_BASE_MSG_CALL_FAILED, "gethostname", strerror(e));
    return 2;
  }
  if (server_create_hostname_file(m_storage_path, buf, creds) != 0) {
    int e = errno;
    trace.writeTrace(TRACE_LEVEL_1, "can't create hostname file: %s", strerror(e));
    m_status_message +=
        imsg_format(&_tvr_base_msg_table, TVR_BASE_MSG_CALL_FAILED, "server_create_hostname_file", strerror(e));
    return 2;
  }
  return 0;
}

int Tavrel_View::validate_hostname_file() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "validate_hostname_file");
  const std::string host = host_name();
  const std::string file = m_storage_path + "/" + VIEW_STG_HOSTNAME;
  std::string recorded;
  int result = -1;
  struct stat st;
  // Only a regular file is read: a FIFO in its place must not block the start.
  if (lstat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode))
    result = server_validate_hostname(m_storage_path, host, &recorded);
  if (result < 1) {
    trace.writeTrace(TRACE_LEVEL_1, "wrong hostname: %s", host.c_str());
    append_message(TVR_LIB_WRONG_HOST, result < 0 ? "(unknown)" : recorded.c_str());
    return TAVREL_ST_WRONG_HOST;
  }
  return 0;
}

// ----------------------------------------------------------------------------------------------------
// Metadata

int Tavrel_View::create_metadata_file() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "create_metadata_file");
  const std::string url = g_hooks.server_url ? g_hooks.server_url() : std::string();
  const std::pair<const char*, std::string> fields[] = {
      {VIEW_MD_VERSION_ID, VIEW_MD_VERSION_ID_VALUE},
      {VIEW_MD_VIEW_UUID, m_view_uuid_str},
      {VIEW_MD_SERVER_TAG, m_server_tag},
      {VIEW_MD_TEXT_MODE, m_text_mode},
      {VIEW_MD_VIEW_TYPE, m_view_type},
      {VIEW_MD_PRESERVE_TIME, m_preserve_time ? "true" : "false"},
      {VIEW_MD_SERVER_URL, url},
      {VIEW_MD_CLTXT_CACHE_DIR, m_cltxt_cache_dir},
      {VIEW_MD_CACHE_SIZE, std::to_string(m_cache_size.load())},
  };
  std::string text;
  for (const auto& f : fields) {
    // A line end inside a value would split it into lines that read back as other keys.
    if (has_line_end(f.second)) {
      trace.writeTrace(TRACE_LEVEL_1, "Value of %s holds a line end", f.first);
      append_message(TVR_LIB_WRITE_FILE, m_metadata_path.c_str(), "a value holds a line end");
      return TAVREL_ST_WRITE_FILE;
    }
    text += std::string(f.first) + VIEW_MD_SEP + f.second + "\n";
  }
  if (text.size() > VIEW_METADATA_MAX_FILE) {
    append_message(TVR_LIB_WRITE_FILE, m_metadata_path.c_str(), "too long");
    return TAVREL_ST_WRITE_FILE;
  }
  if (fileutl_write_atomic(m_metadata_path, text, 0600) != 0) {
    int e = errno;
    trace.writeTrace(TRACE_LEVEL_1, "Writing %s failed: %s", m_metadata_path.c_str(), strerror(e));
    append_message(TVR_LIB_WRITE_FILE, m_metadata_path.c_str(), strerror(e));
    return TAVREL_ST_WRITE_FILE;
  }
  return 0;
}

int Tavrel_View::get_view_info() { return read_metadata_file(0); }

int Tavrel_View::read_metadata_file(int full) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "read_metadata_file");
  std::string text;
  if (Tavrel_View_Storage::read_regular_file(m_metadata_path, &text, VIEW_METADATA_MAX_FILE) != 0) {
    int e = errno;
    trace.writeTrace(TRACE_LEVEL_1, "%s open failed. errno: %d", m_metadata_path.c_str(), e);
    if (e == EFBIG) {
      assign_message(TVR_LIB_PARSE_ERROR, m_metadata_path.c_str());
      return TAVREL_ST_METADATA_FILE;
    }
    return TAVREL_ST_NO_VIEW_INFO;
  }
  trace.writeTrace(TRACE_LEVEL_4, "%s is open", m_metadata_path.c_str());
  int status = 0;
  unsigned long cache_size = m_cache_size.load();
  size_t too_long = 0;
  std::vector<View_Metadata_Field> fields;
  view_metadata_parse(text, &fields, &too_long);  // the read above kept the text within the bound
  for (const View_Metadata_Field& field : fields) {
    const std::string& key = field.key;
    const std::string& value = field.value;
    trace.writeTrace(TRACE_LEVEL_5, "Read line [%s=%s]", key.c_str(), value.c_str());
    if (key == VIEW_MD_VIEW_UUID) {
      status = set_view_uuid(value);
      if (status != 0) break;
    } else if (key == VIEW_MD_SERVER_TAG) {
      m_server_tag = value;
      trace.writeTrace(TRACE_LEVEL_4, "this=%lx server tag=%s", reinterpret_cast<unsigned long>(this), value.c_str());
      std::lock_guard<Tavrel_Mutex> g(g_server_tag_lock);
      delete g_server_tag;
      g_server_tag = new std::string(value);
    } else if (key == VIEW_MD_TEXT_MODE) {
      m_text_mode = value;
    } else if (key == VIEW_MD_VIEW_TYPE) {
      m_view_type = value;
    } else if (key == VIEW_MD_CLTXT_CACHE_DIR) {
      m_cltxt_cache_dir = value;
    } else if (key == VIEW_MD_PRESERVE_TIME) {
      m_preserve_time = value == "true" ? 1 : 0;
    } else if (key == VIEW_MD_CACHE_SIZE) {
      unsigned long v = 0;
      if (!strutl_strtoul(value, &v) || v > UINT_MAX) {
        assign_message(TVR_LIB_PARSE_ERROR, m_metadata_path.c_str());
        imsg_print(IMSG_ERR, "%s", m_status_message.c_str());
        status = TAVREL_ST_METADATA_FILE;
        break;
      }
      cache_size = v;
    }
  }
  if (too_long) trace.writeTrace(TRACE_LEVEL_2, "%zu overlong lines skipped", too_long);
  trace.writeTrace(TRACE_LEVEL_4, "Status from reading metadata file = %d", status);
  if (status == 0) m_cache_size = static_cast<unsigned>(cache_size);
  if (status == 0 && full != 0) {
    if (!is_valid()) return TAVREL_ST_VIEW_IDENTITY;
    status = set_cache_size(static_cast<unsigned>(cache_size), m_status_message, false);
  }
  return status;
}

int Tavrel_View::set_view_uuid(const std::string& uuid) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "set_view_uuid");
  tbs_uuid_s u;
  if (tbs_str_to_uuid(uuid, &u) != 0) {
    trace.writeTrace(TRACE_LEVEL_1, "Invalid view UUID %s", uuid.c_str());
    return TAVREL_ST_VIEW_IDENTITY;
  }
  m_view_uuid = u;
  m_view_uuid_str = tbs_uuid_to_str(u);
  return 0;
}

bool Tavrel_View::is_valid() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "is_valid");
  const std::string url = g_hooks.server_url ? g_hooks.server_url() : std::string();
  auto shown = [](const std::string& s) { return s.empty() ? "EMPTY" : s.c_str(); };
  trace.writeTrace(TRACE_LEVEL_4, "server tag = %s, text mode = %s, uuid = %s, type = %s, server url = %s",
                   shown(m_server_tag), shown(m_text_mode), shown(m_view_uuid_str), shown(m_view_type), shown(url));
  // In this order; the messages of the server tag, the text mode and the view type replace what the
  // status message holds, the others are appended to it.
  const char* path = m_storage_path.c_str();
  bool ok = true;
  auto fail = [&](bool assign, int number, auto... args) {
    ok = false;
    if (assign)
      assign_message(number, args...);
    else
      append_message(number, args...);
  };
  if (m_server_tag.empty()) fail(true, TVR_LIB_NO_SERVER_TAG, path);
  if (get_view_textmode().empty()) fail(true, TVR_LIB_NO_TEXT_MODE, path);
  tbs_uuid_s u;
  if (m_view_uuid_str.empty())
    fail(false, TVR_LIB_NO_VIEW_UUID, path);
  else if (tbs_str_to_uuid(m_view_uuid_str, &u) != 0 || tbs_uuid_is_null(u))
    fail(false, TVR_LIB_BAD_VIEW_UUID, m_view_uuid_str.c_str(), path);
  if (url.empty()) fail(false, TVR_LIB_BAD_SERVER_INFO, path);
  if (m_view_type.empty()) fail(true, TVR_LIB_NO_VIEW_TYPE, path);
  return ok;
}

std::string Tavrel_View::get_view_textmode() const {
  tbs_text_mode_t mode;
  if (tbs_str_to_text_mode(m_text_mode, &mode) != 0) return "";
  return tbs_text_mode_to_str(mode);
}

int Tavrel_View::set_cache_size(unsigned size, std::string& message, bool save) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "set_cache_size");
  if (!g_hooks.cache_set_size) {
    trace.writeTrace(TRACE_LEVEL_1, "No name-service cache to size");
    message += imsg_format(&_tvr_lib_lib_msg_table, TVR_LIB_CACHE_SIZE, size, tbs_status_text(TBS_ST_FAILURE).c_str());
    return TAVREL_ST_FAILURE;
  }
  int st = g_hooks.cache_set_size(size, !save);
  if (st == 0) {
    m_cache_size = size;
    if (!save) return 0;
    int rc = create_metadata_file();
    if (rc != 0) message += imsg_format(&_tvr_lib_lib_msg_table, TVR_LIB_CACHE_SAVE);
    return rc;
  }
  trace.writeTrace(TRACE_LEVEL_1, "ns_cache_set_size(%u) failed: %d", size, st);
  if (st == TBS_ST_BAD_ARG)
    message += imsg_format(&_tvr_lib_lib_msg_table, TVR_LIB_CACHE_MINIMUM, size, MIN_CACHE_SIZE);
  else
    message += imsg_format(&_tvr_lib_lib_msg_table, TVR_LIB_CACHE_SIZE, size, tbs_status_text(st).c_str());
  return tbs_to_tavrel_status(st);
}

// ----------------------------------------------------------------------------------------------------
// Kernel module and view root

int Tavrel_View::register_kfsm() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "register_kfsm");
  int st = g_hooks.register_view ? g_hooks.register_view(this) : TBS_ST_FAILURE;
  trace.writeTrace(TRACE_LEVEL_2, "Status from register_view = %d (%s)", st, tbs_status_text(st).c_str());
  return tbs_to_tavrel_status(st);
}

int Tavrel_View::cleanup() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "cleanup");
  {
    std::lock_guard<Tavrel_Mutex> g(g_server_tag_lock);
    if (g_server_tag) m_server_tag = *g_server_tag;
  }
  if (m_server_tag.empty()) {
    trace.writeTrace(TRACE_LEVEL_4, "No view tag found to unregister");
    return TBS_ST_FAILURE;
  }
  if (!g_hooks.unregister_view) {
    trace.writeTrace(TRACE_LEVEL_4, "No kernel module interface to unregister view tag: %s", m_server_tag.c_str());
    return TBS_ST_FAILURE;
  }
  trace.writeTrace(TRACE_LEVEL_4, "Calling unregister_view for server tag: %s", m_server_tag.c_str());
  int st = g_hooks.unregister_view(this);
  trace.writeTrace(TRACE_LEVEL_4, "Status from unregister_view = %d", st);
  return st;
}

void Tavrel_View::cleanup_storage() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "cleanup_storage");
  if (chdir("/") != 0) trace.writeTrace(TRACE_LEVEL_2, "chdir / failed: %s", strerror(errno));
  if (m_db) {
    if (g_hooks.close_db) g_hooks.close_db(m_db);
    m_db = nullptr;
  }
  // Only a storage this object made, and whose lock it holds, is removed: a storage that existed
  // before, or that a concurrent creation owns, is never touched.
  if (!m_storage_path.empty() && m_created_storage && holds_lock()) {
    trace.writeTrace(TRACE_LEVEL_3, "Removing %s", m_storage_path.c_str());
    if (Tavrel_View_Storage::remove_tree(m_storage_path) != 0)
      trace.writeTrace(TRACE_LEVEL_1, "Removing %s failed: %s", m_storage_path.c_str(), strerror(errno));
    m_created_storage = false;
  }
  if (m_created_cache_marker) {
    std::string dir = m_cltxt_cache_dir;
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    fileutl_rm(dir + "/" + CLTXT_CACHE_MARKER);
    if (m_created_cache_dir) rmdir(dir.c_str());  // only when nothing else has arrived in it
    m_created_cache_marker = m_created_cache_dir = false;
  }
  conditional_unlock();
}

std::string Tavrel_View::get_view_root() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "get_view_root");
  std::lock_guard<Tavrel_Mutex> g(m_view_root_mutex);
  if (m_view_root.empty()) {
    std::string root;
    int st = g_hooks.get_kfsm_root ? g_hooks.get_kfsm_root(&root) : TBS_ST_FAILURE;
    if (st != 0 || root.empty() || m_server_tag.empty()) {
      trace.writeTrace(TRACE_LEVEL_2, "View root unknown: get_kfsm_root = %d", st);
      return "";
    }
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    m_view_root = (root == "/" ? "" : root) + "/" + m_server_tag;
  }
  return m_view_root;
}

std::string Tavrel_View::strip_view_root(const std::string& path) {
  const std::string root = get_view_root();
  if (root.empty() || !fileutl_pname_equal_or_parent(root, path)) return path;
  return path.substr(root.size());
}

bool Tavrel_View::is_view_root(std::string path) {
  const std::string root = get_view_root();
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return !root.empty() && path == root;
}

// ----------------------------------------------------------------------------------------------------
// View lock

bool Tavrel_View::lock() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "lock");
  if (m_lock_cookie != NO_LOCK) return true;
  const std::string key = fileutl_abspn(m_lock_path);
  std::lock_guard<Tavrel_Mutex> g(g_held_locks_mutex);
  if (g_held_locks.count(key)) {
    m_lock_holder = getpid();
    trace.writeTrace(TRACE_LEVEL_1, "PID %d owns view lock %s", static_cast<int>(m_lock_holder), m_lock_path.c_str());
    append_message(TVR_LIB_VIEW_IN_USE, m_storage_path.c_str(), static_cast<int>(m_lock_holder));
    return false;
  }
  struct stat st;
  if (lstat(m_lock_path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
    trace.writeTrace(TRACE_LEVEL_1, "system error trying to get view lock %s", m_lock_path.c_str());
    append_message(TVR_LIB_LOCK_ERROR, "not a regular file", m_lock_path.c_str());
    return false;
  }
  pid_t owner = 0;
  int r = server_lock_set(m_lock_path, &owner);
  if (r == -2) {
    m_lock_holder = owner;
    trace.writeTrace(TRACE_LEVEL_1, "PID %d owns view lock %s", static_cast<int>(owner), m_lock_path.c_str());
    append_message(TVR_LIB_VIEW_IN_USE, m_storage_path.c_str(), static_cast<int>(owner));
    return false;
  }
  if (r < 0) {
    int e = errno;
    trace.writeTrace(TRACE_LEVEL_1, "system error trying to get view lock %s", m_lock_path.c_str());
    append_message(TVR_LIB_LOCK_ERROR, strerror(e), m_lock_path.c_str());
    return false;
  }
  m_lock_cookie = r;
  g_held_locks.insert(key);
  trace.writeTrace(TRACE_LEVEL_4, "lock cookie %d for lock file %s", r, m_lock_path.c_str());
  return true;
}

void Tavrel_View::unlock() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "unlock");
  if (m_lock_cookie == NO_LOCK) return;
  server_lock_clear(m_lock_path, m_lock_cookie);
  m_lock_cookie = NO_LOCK;
  std::lock_guard<Tavrel_Mutex> g(g_held_locks_mutex);
  g_held_locks.erase(fileutl_abspn(m_lock_path));
}

void Tavrel_View::conditional_unlock() {
  if (m_lock_cookie != NO_LOCK) unlock();
}

// ----------------------------------------------------------------------------------------------------
// Generation number and the update gate

unsigned Tavrel_View::get_current_gn() { return g_view_gn.load(); }

void Tavrel_View::set_current_gn(unsigned gn, bool running) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "set_current_gn");
  std::lock_guard<Tavrel_Mutex> g(g_update_lock);
  g_view_gn = gn;
  g_update_running = running;
  trace.writeTrace(TRACE_LEVEL_4, "new GN %u", gn);
  g_gn_cond.notify_all();
}

bool Tavrel_View::update_start(Tavrel_Update* update, unsigned& gn, bool wait) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "update_start");
  std::unique_lock<Tavrel_Mutex> g(g_update_lock);
  trace.writeTrace(TRACE_LEVEL_4, "current GN %u", g_view_gn.load());
  if (g_active_update && !wait) return false;
  g_gn_cond.wait(g, [] { return g_active_update == nullptr; });
  g_active_update = update;
  g_update_running = false;
  gn = g_view_gn;
  return true;
}

void Tavrel_View::update_end(Tavrel_Update* update) {
  std::lock_guard<Tavrel_Mutex> g(g_update_lock);
  if (g_active_update == update) g_active_update = nullptr;
  g_gn_cond.notify_all();
}

bool Tavrel_View::update_in_progress() {
  std::lock_guard<Tavrel_Mutex> g(g_update_lock);
  return g_active_update != nullptr;
}

Tavrel_Update* Tavrel_View::get_update() {
  std::lock_guard<Tavrel_Mutex> g(g_update_lock);
  return g_active_update;
}

void Tavrel_View::abort_update() {
  std::lock_guard<Tavrel_Mutex> g(g_update_lock);
  g_stop_update = true;
  g_gn_cond.notify_all();
}

bool Tavrel_View::should_stop_update() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View", "should_stop_update");
  if (Tavrel_Thread_Manager_Base::get_instance()->should_exit()) {
    trace.writeTrace(TRACE_LEVEL_3, "thread manager tells us to exit");
    return true;
  }
  std::lock_guard<Tavrel_Mutex> g(g_update_lock);
  if (g_stop_update) {
    trace.writeTrace(TRACE_LEVEL_3, "endview tells us to exit");
    return true;
  }
  return false;
}

void Tavrel_View::wait_for_running_update() {
  std::unique_lock<Tavrel_Mutex> g(g_update_lock);
  g_gn_cond.wait(g, [] { return g_update_running || g_active_update == nullptr; });
}

void Tavrel_View::wait_for_finished_update() {
  std::unique_lock<Tavrel_Mutex> g(g_update_lock);
  g_gn_cond.wait(g, [] { return g_active_update == nullptr; });
}

void Tavrel_View::reset_for_test() {
  {
    std::lock_guard<Tavrel_Mutex> g(g_update_lock);
    g_view_gn = 0;
    g_active_update = nullptr;
    g_update_running = false;
    g_stop_update = false;
    g_gn_cond.notify_all();
  }
  std::lock_guard<Tavrel_Mutex> g(g_server_tag_lock);
  delete g_server_tag;
  g_server_tag = nullptr;
}
