#include "db/tavrel_engine_db.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "base/fileutl.h"
#include "base/imsg.h"
#include "base/pfm.h"
#include "base/rt.h"
#include "base/tbs.h"
#include "db/rec/dt.h"
#include "db/rec/tavrel_db_schema.h"
#include "db/tavrel_db_flusher.h"
#include "db/tvr_db_vns.h"

DB_TASK* view_db_task = nullptr;

namespace {

constexpr const char* STATE_FILE = "tavrel_db.state";
constexpr const char* NEW_DB_MARKER = ".new_db";
constexpr const char* DB_DIRECTORY = "db";
constexpr const char* DB_NAME = "tavrel_db";
constexpr const char* SCHEMA_FILE = "tavrel_db_schema_version";
constexpr const char* DICTIONARY_FILE = "tavrel_db.dbd";
constexpr const char* CR_FILE = ".s/tavrel_db.crs_file";
constexpr long IDLE_DELAY_MS = 10000;

// All of the following under tavrel_engine_mutex().
char g_db_state = '\0';
FILE* g_state_file = nullptr;
long g_callback_pending = 0;
bool g_modified_flag = false;
int g_trans_state = DB_TRANS_NULL;
bool g_db_open = false;
int g_open_fail_st = 0;
bool g_force_write = false;
int g_cr_fd = -1;
tvr_db_sync_mode_t g_sync_mode = TVR_DB_SYNC_DEFERRED;
Tavrel_Db_Flusher g_flusher;

// The transaction this thread began.
thread_local int tls_db_trans_state = DB_TRANS_NULL;

void assert_true(bool cond, const char* text) {
  if (!cond) pfm_assert_fail(text, __FILE__, __LINE__, nullptr);
}

void idle_callback(void*) { tvr_db_state_idle_callback(); }

// The engine's own reports (roll-forward, journal and dictionary problems) join the process's messages.
void engine_message(int level, const char* text, void*) {
  imsg_print(level >= 2 ? IMSG_ERR : level == 1 ? IMSG_WARN : IMSG_OK, "%s", text);
}

void schedule_idle(long delay_ms) {
  if (g_callback_pending != 0) return;
  long id = rt_sched(delay_ms, idle_callback, nullptr);
  g_callback_pending = id > 0 ? id : 0;
}

// Options and the flusher of a freshly opened engine.
void after_engine_open() {
  tvr_db_forget_scope_end_visits();
  if (g_force_write) dt_on_opt(DT_OPT_SYNC_FILES, view_db_task);
  if (getenv("ORLENTA_ZFS_OPTIMIZATION")) {
    dt_off_opt(DT_OPT_COMMIT_PATH, view_db_task);
    dt_on_opt(DT_OPT_SYNC_FILES, view_db_task);
  }
  if (g_sync_mode == TVR_DB_SYNC_DEFERRED) {
    dt_on_opt(DT_OPT_DEFER_SYNC, view_db_task);
    g_flusher.start(dt_journal_sync_point(view_db_task));
  } else {
    dt_off_opt(DT_OPT_DEFER_SYNC, view_db_task);
  }
}

int file_error(const char* what, const char* path) {
  imsg_print(IMSG_ERR, "Unable to %s \"%s\": %s\n", what, path, strerror(errno));
  return TBS_ST_INTERNAL;
}

}  // namespace

Tavrel_Recursive_Mutex& tavrel_engine_mutex() {
  static Tavrel_Recursive_Mutex m(Tavrel_Lock_Rank::DB_ENGINE, "tavrel_engine_mutex");
  return m;
}

std::string tvr_db_storage_name() {
  char buf[4096];
  return getcwd(buf, sizeof buf) ? std::string(buf) : std::string(".");
}

int tvr_engine_err(const char* op, const char* object, int status) {
  int e = errno;
  if (e == ENOENT) {
    if (strcmp(object, DB_NAME) == 0)
      imsg_print(IMSG_ERR, "could not locate view database component (op '%s')\n", op);
    else
      imsg_print(IMSG_ERR, "could not locate view database component '%s' (op '%s')\n", object, op);
  } else {
    imsg_print(IMSG_ERR, "Internal VIEW DB error, operation '%s' on object '%s' failed: %d (errno=%s)\n", op,
               object, status, strerror(e));
  }
  return TBS_ST_INTERNAL;
}

// ---- state file -----------------------------------------------------------------------------------------

char tvr_db_state() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_engine_mutex());
  return g_db_state;
}

bool tvr_db_state_callback_pending() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_engine_mutex());
  return g_callback_pending != 0;
}

int tvr_db_state_change(char letter) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_engine_mutex());
  if (letter != '\0') {
    // The letter announces what the files hold: commits written before it must be durable first.
    if (g_flusher.sync_now() != 0) return file_error("sync the journal before writing", STATE_FILE);
    char text[3] = {letter, '\n', '\0'};
    if (!g_state_file || fseek(g_state_file, 0, SEEK_SET) != 0 || fputs(text, g_state_file) == EOF ||
        fflush(g_state_file) != 0 || fsync(fileno(g_state_file)) != 0)
      return file_error("write", STATE_FILE);
  }
  g_db_state = letter;
  if (letter == 'm') schedule_idle(IDLE_DELAY_MS);
  return 0;
}

int tvr_db_state_file_open() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_engine_mutex());
  if (!g_state_file) {
    g_state_file = fopen(STATE_FILE, "r+e");
    if (!g_state_file) {
      if (errno != ENOENT) return file_error("open", STATE_FILE);
      g_state_file = fopen(STATE_FILE, "w+e");
      if (!g_state_file) return file_error("create", STATE_FILE);
      return tvr_db_state_change('n');
    }
  }
  char buf[3] = {};
  errno = 0;
  if (fseek(g_state_file, 0, SEEK_SET) != 0 || !fgets(buf, sizeof buf, g_state_file)) {
    if (ferror(g_state_file)) imsg_print(IMSG_ERR, "Unable to read \"%s\": %s\n", STATE_FILE, strerror(errno));
    clearerr(g_state_file);
    buf[0] = '\0';
  }
  g_db_state = buf[0] == '\n' ? '\0' : buf[0];
  if (g_db_state == 'm') schedule_idle(0);
  return 0;
}

int tvr_db_state_file_close() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_engine_mutex());
  if (g_callback_pending != 0) {
    rt_unsched(g_callback_pending);
    g_callback_pending = 0;
  }
  int st = 0;
  if (g_state_file && fclose(g_state_file) != 0) st = file_error("close", STATE_FILE);
  g_state_file = nullptr;
  return st;
}

int tvr_db_state_purify() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_engine_mutex());
  if (g_db_state != 'm' || !g_db_open) return 0;
  int st = dt_syncfiles(view_db_task);
  if (st != 0) return tvr_engine_err("D_SYNCFILES", DB_NAME, st);
  return tvr_db_state_change('i');
}

void tvr_db_state_idle_callback() {
  // The event loop must not wait behind a long transaction: when the engine is busy, try again later.
  std::unique_lock<Tavrel_Recursive_Mutex> lk(tavrel_engine_mutex(), std::try_to_lock);
  if (!lk.owns_lock()) {
    long id = rt_sched(IDLE_DELAY_MS, idle_callback, nullptr);
    (void)id;
    return;
  }
  g_callback_pending = 0;
  if (!g_modified_flag && tvr_db_state_purify() == 0 && g_db_state != 'm') return;
  if (!g_state_file) return;  // closed meanwhile: the close purified
  g_modified_flag = false;
  schedule_idle(IDLE_DELAY_MS);
}

// ---- open and close ---------------------------------------------------------------------------------------

void tvr_db_set_force_write(bool on) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_engine_mutex());
  g_force_write = on;
}

void tvr_db_set_sync_mode(tvr_db_sync_mode_t mode) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_engine_mutex());
  g_sync_mode = mode;
}

tvr_db_sync_mode_t tvr_db_get_sync_mode() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_engine_mutex());
  return g_sync_mode;
}

bool tvr_db_parse_sync_mode(const std::string& text, tvr_db_sync_mode_t* mode) {
  if (text == "deferred") {
    *mode = TVR_DB_SYNC_DEFERRED;
  } else if (text == "commit") {
    *mode = TVR_DB_SYNC_COMMIT;
  } else {
    return false;
  }
  return true;
}

bool tvr_db_is_open() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_engine_mutex());
  return g_db_open;
}

int tvr_db_cr_file_fd() { return g_cr_fd; }

int tvr_db_read_schema(int* version) {
  std::string path = std::string(DB_DIRECTORY) + "/" + SCHEMA_FILE;
  FILE* f = fopen(path.c_str(), "re");
  if (!f) return file_error("open", path.c_str());
  int v = 0;
  int n = fscanf(f, "%d", &v);
  fclose(f);
  if (n != 1) {
    imsg_print(IMSG_ERR, "Unable to read the schema version from \"%s\"\n", path.c_str());
    return TBS_ST_INTERNAL;
  }
  *version = v;
  return 0;
}

int tvr_db_init_schema() {
  if (access(DB_DIRECTORY, F_OK) != 0) {
    if (errno != ENOENT) return file_error("access", DB_DIRECTORY);
    if (mkdir(DB_DIRECTORY, 0777) != 0 && errno != EEXIST) return file_error("create", DB_DIRECTORY);
  }
  std::string product = tbs_product_server_dir();
  for (const char* name : {SCHEMA_FILE, DICTIONARY_FILE}) {
    std::string from = product + "/" + name, to = std::string(DB_DIRECTORY) + "/" + name;
    if (fileutl_cp(from, to) != 0) {
      imsg_print(IMSG_ERR, "Unable to copy \"%s\" to \"%s\": %s\n", from.c_str(), to.c_str(), strerror(errno));
      return TBS_ST_INTERNAL;
    }
  }
  std::string dbd = std::string(DB_DIRECTORY) + "/" + DICTIONARY_FILE;
  struct stat st;
  if (stat(dbd.c_str(), &st) != 0) return file_error("stat", dbd.c_str());
  if (chmod(dbd.c_str(), 0640) != 0) return file_error("chmod", dbd.c_str());
  return 0;
}

int tvr_db_init_db() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_engine_mutex());
  int st = dt_initialize(view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_INITIALIZE", DB_NAME, st);
  db_cr_free row{0xffffffffu, 0};
  st = dt_fillnew(DB_CR_FREE, &row, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_FILLNEW", "DB_CR_FREE", st);
  g_flusher.stop();
  st = dt_close(view_db_task);
  if (st != 0) return tvr_engine_err("D_CLOSE", DB_NAME, st);
  g_db_open = false;
  dt_dbwdir(DB_DIRECTORY, view_db_task);
  st = dt_open(DB_NAME, "o", view_db_task);
  if (st != 0) return tvr_engine_err("D_OPEN", DB_NAME, st);
  g_db_open = true;
  after_engine_open();
  if (g_cr_fd >= 0 && ftruncate(g_cr_fd, 0) != 0) return file_error("truncate", CR_FILE);
  return 0;
}

int tvr_db_open_db(int quiet, int pages) {
  if (const char* env = getenv("ORLEN_VIEW_CACHE_SIZE_EV")) {
    int v;
    if (sscanf(env, "%d", &v) == 1) pages = v < 64 ? 64 : v > 32766 ? 32766 : v;
  }
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_engine_mutex());
  int st = 0;
  if (!g_db_open) {
    int version = 0;
    st = tvr_db_read_schema(&version);
    if (st == 0 && version != TAVREL_DB_SCHEMA_VERSION) {
      if (!quiet) imsg_print(IMSG_ERR, "Wrong DB schema version %d, should be %d\n", version, TAVREL_DB_SCHEMA_VERSION);
      st = TBS_ST_DB_RELOAD_NEEDED;
    }
    if (st == 0) {
      if (!view_db_task && (st = dt_opentask(&view_db_task)) != 0) st = tvr_engine_err("D_OPENTASK", DB_NAME, st);
    }
    if (st == 0) {
      dt_set_msg_sink(engine_message, nullptr);
      dt_dbwdir(DB_DIRECTORY, view_db_task);
      int est;
      for (;;) {
        d_setpages(pages - 4, 4);
        est = dt_open(DB_NAME, "o", view_db_task);
        if (est != S_NOMEMORY) break;
        pages /= 2;
        if (pages < 64) break;
      }
      if (est == S_INCOMPAT) {
        // The dictionary does not match this build: the database must be rebuilt.
        if (!quiet) imsg_print(IMSG_ERR, "View DB %s does not match this release's schema\n", tvr_db_storage_name().c_str());
        st = TBS_ST_DB_RELOAD_NEEDED;
      } else if (est != 0) {
        st = tvr_engine_err("D_OPEN", DB_NAME, est);
      }
      if (st != 0) {
        dt_closetask(view_db_task);
        view_db_task = nullptr;
      } else {
        g_db_open = true;
        after_engine_open();
      }
    }
  }
  if (st == 0 && g_cr_fd < 0) {
    if (mkdir(".s", 0777) != 0 && errno != EEXIST) st = file_error("create", ".s");
    if (st == 0) {
      g_cr_fd = open(CR_FILE, O_RDWR | O_CREAT | O_CLOEXEC, 0700);
      if (g_cr_fd < 0) st = file_error("open", CR_FILE);
    }
  }
  g_open_fail_st = st;
  return st;
}

int tvr_db_close_db() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_engine_mutex());
  int result = 0;
  auto note = [&](int st) {
    if (result == 0) result = st;
  };
  if (g_db_open) {
    note(tvr_db_state_purify());
    g_flusher.stop();
    int st = dt_close(view_db_task);
    if (st != 0) note(tvr_engine_err("D_CLOSE", DB_NAME, st));
    dt_closetask(view_db_task);
    view_db_task = nullptr;
    g_db_open = false;
  }
  note(tvr_db_state_file_close());
  if (g_cr_fd >= 0) {
    if (close(g_cr_fd) != 0) note(file_error("close", CR_FILE));
    g_cr_fd = -1;
  }
  g_open_fail_st = 0;
  return result;
}

// ---- transactions -----------------------------------------------------------------------------------------

int tvr_db_trans_start(int write) { return tvr_db_trans_start_int(write, 1); }

int tvr_db_trans_start_int(int write, int check_state) {
  // A thread that already holds a transaction gets in again (the mutex is recursive) and fails here.
  assert_true(tls_db_trans_state == DB_TRANS_NULL, "tls->tls_db_trans_state == DB_TRANS_NULL");
  tavrel_engine_mutex().lock();
  assert_true(g_trans_state == DB_TRANS_NULL, "tvr_engine_db_trans_state == DB_TRANS_NULL");
  if (!g_db_open) {
    int st = (g_open_fail_st == TBS_ST_DB_RELOAD_NEEDED ||
              ((g_open_fail_st == 0 || g_open_fail_st == TBS_ST_NOT_FOUND) && g_db_state == 'd'))
                 ? TBS_ST_DB_RELOAD_NEEDED
                 : TBS_ST_INTERNAL;
    tavrel_engine_mutex().unlock();
    return st;
  }
  pfm_inhibit();
  int st = 0;
  if (check_state) {
    switch (g_db_state) {
      case 'i':
        if (write) st = tvr_db_state_change('m');
        break;
      case 'm':
        break;
      case '\0':
      case 'd':
      case 'r':
        if (write) st = TBS_ST_DB_NOT_WRITABLE;
        break;
      default:
        st = TBS_ST_INTERNAL;
        break;
    }
  }
  if (st == 0 && !write) {
    g_trans_state = tls_db_trans_state = DB_TRANS_READ;
    return 0;
  }
  if (st == 0) {
    g_modified_flag = true;
    int est = dt_trbegin("tid", view_db_task);
    if (est != 0) st = tvr_engine_err("D_TRBEGIN", DB_NAME, est);
  }
  if (st != 0) {
    pfm_enable();
    tavrel_engine_mutex().unlock();
    return st;
  }
  g_trans_state = tls_db_trans_state = DB_TRANS_WRITE;
  return 0;
}

int tvr_db_trans_end(int write) {
  int want = write ? DB_TRANS_WRITE : DB_TRANS_READ;
  assert_true(tls_db_trans_state == want,
              write ? "tls->tls_db_trans_state == DB_TRANS_WRITE" : "tls->tls_db_trans_state == DB_TRANS_READ");
  assert_true(g_trans_state == want,
              write ? "tvr_engine_db_trans_state == DB_TRANS_WRITE" : "tvr_engine_db_trans_state == DB_TRANS_READ");
  int st = 0;
  if (write) {
    int est = dt_trend(view_db_task);
    if (est != 0) {
      st = tvr_engine_err("D_TREND", DB_NAME, est);
      dt_trabort(view_db_task);
    } else if (g_sync_mode == TVR_DB_SYNC_DEFERRED) {
      g_flusher.note_commit();
    }
  }
  g_trans_state = tls_db_trans_state = DB_TRANS_NULL;
  tavrel_engine_mutex().unlock();
  pfm_enable();
  return st;
}

int tvr_db_trans_abort(int write) {
  int want = write ? DB_TRANS_WRITE : DB_TRANS_READ;
  assert_true(tls_db_trans_state == want,
              write ? "tls->tls_db_trans_state == DB_TRANS_WRITE" : "tls->tls_db_trans_state == DB_TRANS_READ");
  if (write) {
    int st = dt_trabort(view_db_task);
    if (st != 0) tvr_engine_err("D_TRABORT", DB_NAME, st);
    st = dt_syncfiles(view_db_task);
    if (st != 0) tvr_engine_err("D_SYNCFILES", DB_NAME, st);
  }
  g_trans_state = tls_db_trans_state = DB_TRANS_NULL;
  tavrel_engine_mutex().unlock();
  pfm_enable();
  return 0;
}

void tvr_db_trans_read_check() {
  assert_true(tls_db_trans_state != DB_TRANS_NULL, "tls->tls_db_trans_state != DB_TRANS_NULL");
}

void tvr_db_trans_write_check() {
  assert_true(tls_db_trans_state == DB_TRANS_WRITE, "tls->tls_db_trans_state == DB_TRANS_WRITE");
}

// ---- start-up and repair ----------------------------------------------------------------------------------

namespace {

// The 'i' row of the start-up table; `may_repair` is false right after a repair.
int open_idle(bool may_repair) {
  int st = tvr_db_open_db(0, 512);
  if (st == TBS_ST_DB_RELOAD_NEEDED && may_repair) {
    std::string name = tvr_db_storage_name();
    imsg_print(IMSG_OK, "Reformatting view DB %s to current version\n", name.c_str());
    if (tavrel_db_recover_db(1) != 0) {
      imsg_print(IMSG_ERR, "Reformat failed for view DB %s\n", name.c_str());
      return TBS_ST_DB_RELOAD_NEEDED;
    }
    st = tvr_db_open_db(0, 512);
  }
  if (st != 0) return st;
  st = tvr_db_start_cleanup();
  if (st != 0) return st;
  imsg_print(IMSG_OK, "Db initialized\n");
  return 0;
}

int create_new(int* created) {
  int st = tvr_db_init_schema();
  if (st == 0) st = tvr_db_open_db(0, 512);
  if (st == 0) st = tvr_db_init_db();
  if (st != 0) return st;
  if (created) *created = 1;
  st = tvr_db_state_change('m');
  if (st != 0) return st;
  // Every name the view loads on demand belongs to the default scope: a new database has it from the start.
  st = tvr_db_in_trans(1, [] { return tvr_db_create_def_scope(); });
  if (st != 0) return st;
  imsg_print(IMSG_OK, "Db initialized\n");
  return 0;
}

int recover_then_open() {
  std::string name = tvr_db_storage_name();
  imsg_print(IMSG_WARN, "Recovery needed for DB %s, auto recovery in progress\n", name.c_str());
  if (tavrel_db_recover_db(0) != 0) {
    imsg_print(IMSG_ERR, "Recovery failed for DB %s\n", name.c_str());
    return 0;
  }
  imsg_print(IMSG_OK, "Recovery succeeded for DB %s\n", name.c_str());
  return open_idle(false);
}

// A load that was cut short left its marker: the dump it read from is still whole and must not be
// overwritten by a dump of the half-loaded database.
bool load_was_interrupted() { return fileutl_exists(TVR_DB_LOADING_MARKER) && fileutl_exists("tavrel_db.dump_file"); }

int dump_and_load() {
  if (!load_was_interrupted()) {
    std::string dumped;
    int st = tvr_db_dump_db(&dumped);
    if (st != 0) return st;
    st = tvr_db_state_change('m');
    if (st != 0) return st;
    if (!dumped.empty() && fileutl_rm_tree(dumped) != 0) return file_error("remove", dumped.c_str());
  } else {
    imsg_print(IMSG_WARN, "Resuming the interrupted load of DB %s\n", tvr_db_storage_name().c_str());
    tvr_db_close_db();
    int st = tvr_db_state_file_open();
    if (st != 0) return st;
  }
  int st = tvr_db_load_db();
  if (st == 0) st = tvr_db_fsck_db();
  return st;
}

}  // namespace

int tavrel_db_init_int(int* created) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_engine_mutex());
  int st = tvr_db_state_file_open();
  if (st != 0) return st;
  switch (g_db_state) {
    case 'd':
      return 0;
    case '\0':
      if (!fileutl_exists(NEW_DB_MARKER)) return 0;
      if (unlink(NEW_DB_MARKER) != 0) return file_error("remove", NEW_DB_MARKER);
      st = tvr_db_state_change('n');
      if (st != 0) return st;
      return create_new(created);
    case 'n':
      return create_new(created);
    case 'm':
      st = tvr_db_state_change('r');
      if (st != 0) return st;
      return recover_then_open();
    case 'r':
      return recover_then_open();
    case 'i':
      return open_idle(true);
    default:
      imsg_print(IMSG_ERR, "Unexpected DB state '%c'\n", g_db_state);
      return TBS_ST_INTERNAL;
  }
}

int tavrel_db_init(int* created) {
  static std::once_flag exit_once;
  int st = tavrel_db_init_int(created);
  if (st != 0) return st;
  if (tvr_db_is_open()) {
    st = tvr_db_in_trans(0, [] { return tvr_db_start_scrubber(); });
    if (st != 0) return st;
  }
  std::call_once(exit_once, [] { pfm_on_exit([](int, void*) { tavrel_db_on_exit(); }, nullptr); });
  return 0;
}

void tavrel_db_on_exit() { tvr_db_close_db(); }

int tavrel_db_reset() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_engine_mutex());
  tvr_db_close_db();
  int created = 0;
  return tavrel_db_init_int(&created);
}

int tavrel_db_recover_db(int force) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_engine_mutex());
  switch (g_db_state) {
    case 'm': {
      int st = tvr_db_state_purify();
      if (st != 0) return st;
      if (!force) return TBS_ST_REFUSED;
      return dump_and_load();
    }
    case 'i':
    case 'n':
      if (!force) return TBS_ST_REFUSED;
      return dump_and_load();
    case 'r':
    case '\0':
      return dump_and_load();
    case 'd': {
      int st = tvr_db_load_db();
      return st != 0 ? st : tvr_db_fsck_db();
    }
    default:
      imsg_print(IMSG_ERR, "Unexpected DB state '%c'\n", g_db_state);
      return TBS_ST_INTERNAL;
  }
}

int tavrel_db_recover(int force) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_engine_mutex());
  int st = tvr_db_state_file_open();
  if (st != 0) return st;
  return tavrel_db_recover_db(force);
}

int tavrel_db_load(int force) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_engine_mutex());
  int st = tvr_db_state_file_open();
  if (st != 0) return st;
  if (!force && g_db_state != 'd') return TBS_ST_NO_SUCH_NAME;
  st = tvr_db_load_db();
  if (st == 0) st = tvr_db_fsck_db();
  if (st == 0) imsg_print(IMSG_OK, "Load succeeded for DB %s\n", tvr_db_storage_name().c_str());
  return st;
}
