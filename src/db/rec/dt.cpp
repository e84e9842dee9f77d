// dt.cpp: the dt_ calling form over tavrel::rec::Database: task checks, db_status, messages.
#include "db/rec/dt.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>

#include "db/rec/engine.h"
#include "db/rec/io.h"

int db_status = 0;

using tavrel::rec::Currency;
using tavrel::rec::Database;

struct DB_TASK {
  std::unique_ptr<Database> db;
  std::string wdir;
  std::string env_wdir, dbdpath, dbfpath, dbtaf, dblog, dbuserid;
  int options = DT_OPT_TXJOURNAL | DT_OPT_COMMIT_PATH;
  bool init_mode = false;  // between dt_initialize and dt_close
};

namespace {

int g_data_pages = 512;
int g_ovfl_pages = 4;
int g_page_size = 4096;
int g_open_count = 0;
dt_msg_sink_fn g_sink = nullptr;
void* g_sink_ctx = nullptr;

const uint32_t kCurrMagic = 0x43525654;  // "TVRC"

struct CurrBlock {
  uint32_t magic;
  uint32_t size;
  Currency cur;
};

inline int ret(int st) {
  db_status = st;
  return st;
}

std::string env(const char* name) {
  const char* v = getenv(name);
  return v ? v : "";
}

void emit(DB_TASK* t, int level, const std::string& text) {
  if (g_sink) {
    g_sink(level, text.c_str(), g_sink_ctx);
    return;
  }
  if (t && !t->dblog.empty()) {
    std::ofstream out(t->dblog, std::ios::app);
    if (out) {
      out << text;
      return;
    }
  }
  fputs(text.c_str(), stderr);
}

// Common entry checks: a task, the current database, and an open database.
inline int check(DB_TASK* t, int dbn) {
  if (!t) return S_INVDB;
  if (dbn != -1 && dbn != 0) return S_INVDB;
  if (!t->db) return S_DBOPEN;
  return 0;
}

// A write: outside a transaction only in initialize mode, where it commits on its own.
template <class F>
int write_op(DB_TASK* t, int dbn, F f) {
  int st = check(t, dbn);
  if (st != 0) return ret(st);
  Database& db = *t->db;
  if (db.in_tx() || !t->init_mode) return ret(f(db));
  st = db.trbegin(true);
  if (st != 0) return ret(st);
  st = f(db);
  if (st < 0) {
    db.trabort();
    return ret(st);
  }
  int st2 = db.trend((t->options & DT_OPT_SYNC_FILES) != 0);
  return ret(st2 ? st2 : st);
}

template <class F>
int read_op(DB_TASK* t, int dbn, F f) {
  int st = check(t, dbn);
  if (st != 0) return ret(st);
  return ret(f(*t->db));
}

}  // namespace

// ---- session ----------------------------------------------------------------------------------------------

int dt_opentask(DB_TASK** task) {
  if (!task) return ret(S_INVDB);
  auto* t = new DB_TASK;
  t->env_wdir = env("DBWDIR");
  t->dbdpath = env("DBDPATH");
  t->dbfpath = env("DBFPATH");
  t->dbtaf = env("DBTAF");
  t->dblog = env("DBLOG");
  t->dbuserid = env("DBUSERID");
  *task = t;
  return ret(0);
}

int dt_closetask(DB_TASK* task) {
  if (!task) return ret(S_INVDB);
  int st = 0;
  if (task->db) st = dt_close(task);
  delete task;
  return ret(st);
}

int dt_dbwdir(const char* dir, DB_TASK* task) {
  if (!task || !dir) return ret(S_INVDB);
  if (strlen(dir) >= 4096) return ret(S_NAMELEN);
  task->wdir = dir;
  return ret(0);
}

int d_setpages(int data_pages, int overflow_pages) {
  if (g_open_count > 0 || data_pages < 0 || overflow_pages < 0 || data_pages + overflow_pages < 8)
    return ret(S_SETPAGES);
  g_data_pages = data_pages;
  g_ovfl_pages = overflow_pages;
  return ret(0);
}

int d_setpagesize(int bytes) {
  if (g_open_count > 0 || bytes < 512 || bytes > 32768 || (bytes & (bytes - 1))) return ret(S_SETPAGES);
  g_page_size = bytes;
  return ret(0);
}

int dt_open(const char* name, const char* mode, DB_TASK* task) {
  if (!task || !name || !mode) return ret(S_INVDB);
  if (task->db) return ret(S_INVDB);
  if (strcmp(mode, "o") != 0) return ret(S_INVDB);
  size_t n = strlen(name);
  if (n == 0 || strchr(name, '/')) return ret(S_INVDB);
  if (n > 200) return ret(S_NAMELEN);
  tavrel::rec::OpenParams p;
  p.name = name;
  std::string dir = !task->wdir.empty() ? task->wdir : !task->env_wdir.empty() ? task->env_wdir : ".";
  p.dbd_dir = task->dbdpath.empty() ? dir : task->dbdpath;
  p.file_dir = task->dbfpath.empty() ? dir : task->dbfpath;
  p.taf_dir = task->dbtaf.empty() ? dir : task->dbtaf;
  if (p.dbd_dir.size() + n > 4000 || p.file_dir.size() + n > 4000 || p.taf_dir.size() + n > 4000)
    return ret(S_NAMELEN);
  p.page_size = (uint32_t)g_page_size;
  p.frames = (size_t)g_data_pages + (size_t)g_ovfl_pages;
  p.options = task->options;
  auto db = std::make_unique<Database>();
  int st = db->open(p, [task](int level, const std::string& text) { emit(task, level, text); });
  if (st != 0) return ret(st);
  task->db = std::move(db);
  task->init_mode = false;
  g_open_count++;
  return ret(0);
}

int dt_close(DB_TASK* task) {
  int st = check(task, -1);
  if (st != 0) return ret(st);
  st = task->db->close();
  task->db.reset();
  task->init_mode = false;
  g_open_count--;
  return ret(st);
}

int dt_crash(DB_TASK* task) {
  int st = check(task, -1);
  if (st != 0) return ret(st);
  task->db->abandon();
  task->db.reset();
  task->init_mode = false;
  g_open_count--;
  return ret(0);
}

int dt_initialize(DB_TASK* task, int dbn) {
  int st = check(task, dbn);
  if (st != 0) return ret(st);
  st = task->db->initialize();
  if (st == 0) task->init_mode = true;
  return ret(st);
}

int dt_on_opt(int bits, DB_TASK* task) {
  if (!task) return ret(S_INVDB);
  task->options |= bits;
  return ret(0);
}

int dt_off_opt(int bits, DB_TASK* task) {
  if (!task) return ret(S_INVDB);
  task->options &= ~bits;
  return ret(0);
}

int dt_trbegin(const char* tid, DB_TASK* task) {
  int st = check(task, -1);
  if (st != 0) return ret(st);
  if (!tid) return ret(S_TRX_ID);
  return ret(task->db->trbegin((task->options & DT_OPT_TXJOURNAL) != 0));
}

int dt_trend(DB_TASK* task) {
  return read_op(task, -1, [&](Database& db) {
    db.set_deferred_sync((task->options & DT_OPT_DEFER_SYNC) != 0);
    return db.trend((task->options & DT_OPT_SYNC_FILES) != 0);
  });
}

std::shared_ptr<tavrel::rec::SyncPoint> dt_journal_sync_point(DB_TASK* task) {
  if (!task || !task->db) return nullptr;
  return task->db->sync_point();
}

int dt_trabort(DB_TASK* task) {
  return read_op(task, -1, [](Database& db) { return db.trabort(); });
}

int dt_syncfiles(DB_TASK* task) {
  return read_op(task, -1, [](Database& db) { return db.syncfiles(); });
}

int dt_rdcurr(DB_ADDR** buffer, int* size, DB_TASK* task) {
  int st = check(task, -1);
  if (st != 0) return ret(st);
  if (!buffer || !size) return ret(S_INVDB);
  auto* b = static_cast<CurrBlock*>(malloc(sizeof(CurrBlock)));
  if (!b) return ret(S_NOMEMORY);
  b->magic = kCurrMagic;
  b->size = sizeof(CurrBlock);
  std::memcpy(static_cast<void*>(&b->cur), &task->db->currency(), sizeof(Currency));
  *buffer = reinterpret_cast<DB_ADDR*>(b);
  *size = (int)sizeof(CurrBlock);
  return ret(0);
}

int dt_wrcurr(DB_ADDR* buffer, DB_TASK* task) {
  int st = check(task, -1);
  if (st != 0) return ret(st);
  auto* b = reinterpret_cast<CurrBlock*>(buffer);
  if (!b || b->magic != kCurrMagic || b->size != sizeof(CurrBlock)) return ret(S_INVDB);
  std::memcpy(static_cast<void*>(&task->db->currency()), &b->cur, sizeof(Currency));
  b->magic = 0;
  free(b);
  return ret(0);
}

// ---- rows -------------------------------------------------------------------------------------------------

int dt_fillnew(int rec, const void* values, DB_TASK* task, int dbn) {
  return write_op(task, dbn, [&](Database& db) { return db.fillnew(rec, values); });
}
int dt_recread(void* buffer, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return db.recread(buffer); });
}
int dt_recwrite(const void* buffer, DB_TASK* task, int dbn) {
  return write_op(task, dbn, [&](Database& db) { return db.recwrite(buffer); });
}
int dt_crread(long field, void* buffer, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return db.crread(field, buffer); });
}
int dt_crwrite(long field, const void* value, DB_TASK* task, int dbn) {
  return write_op(task, dbn, [&](Database& db) { return db.crwrite(field, value); });
}
int dt_crget(DB_ADDR* dba, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return dba ? db.crget(dba) : S_INVADDR; });
}
int dt_crset(const DB_ADDR* dba, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return dba ? db.crset(*dba) : S_INVADDR; });
}
int dt_crtype(int* rec, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return rec ? db.crtype(rec) : S_INVREC; });
}
int dt_disdel(DB_TASK* task, int dbn) {
  return write_op(task, dbn, [&](Database& db) { return db.disdel(); });
}
int dt_delete(DB_TASK* task, int dbn) {
  return write_op(task, dbn, [&](Database& db) { return db.del(); });
}
int dt_recfrst(int rec, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return db.recfrst(rec); });
}
int dt_recnext(DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return db.recnext(); });
}
int dt_recset(int rec, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return db.recset(rec); });
}

// ---- sets -------------------------------------------------------------------------------------------------

int dt_setor(int set, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return db.setor(set); });
}
int dt_setro(int set, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return db.setro(set); });
}
int dt_setmr(int set, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return db.setmr(set); });
}
int dt_setmo(int seta, int setb, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return db.setmo(seta, setb); });
}
int dt_setoo(int seta, int setb, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return db.setoo(seta, setb); });
}
int dt_csoget(int set, DB_ADDR* dba, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return dba ? db.csoget(set, dba) : S_INVADDR; });
}
int dt_csoset(int set, const DB_ADDR* dba, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return dba ? db.csoset(set, *dba) : S_INVADDR; });
}
int dt_csoread(int set, long field, void* buffer, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return db.csoread(set, field, buffer); });
}
int dt_csowrite(int set, long field, const void* value, DB_TASK* task, int dbn) {
  return write_op(task, dbn, [&](Database& db) { return db.csowrite(set, field, value); });
}
int dt_connect(int set, DB_TASK* task, int dbn) {
  return write_op(task, dbn, [&](Database& db) { return db.connect(set); });
}
int dt_discon(int set, DB_TASK* task, int dbn) {
  return write_op(task, dbn, [&](Database& db) { return db.discon(set); });
}
int dt_ismember(int set, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return db.ismember(set); });
}
int dt_findfm(int set, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return db.findfm(set); });
}
int dt_findnm(int set, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return db.findnm(set); });
}
int dt_findlm(int set, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return db.findlm(set); });
}
int dt_members(int set, long* count, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return count ? db.members(set, count) : S_INVSET; });
}

// ---- keys -------------------------------------------------------------------------------------------------

int dt_keyfind(long field, const void* value, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return db.keyfind(field, value); });
}
int dt_keynext(long field, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return db.keynext(field); });
}
int dt_keyprev(long field, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return db.keyprev(field); });
}
int dt_keylast(long field, DB_TASK* task, int dbn) {
  return read_op(task, dbn, [&](Database& db) { return db.keylast(field); });
}
int dt_keystore(long field, DB_TASK* task, int dbn) {
  return write_op(task, dbn, [&](Database& db) { return db.keystore(field); });
}
int dt_keydel(long field, DB_TASK* task, int dbn) {
  return write_op(task, dbn, [&](Database& db) { return db.keydel(field); });
}
int dt_keyread(void* buffer, DB_TASK* task) {
  return read_op(task, -1, [&](Database& db) { return buffer ? db.keyread(buffer) : S_KEYREQD; });
}

// ---- messages ---------------------------------------------------------------------------------------------

const char* dt_errtext(int status) {
  switch (status) {
    case -1: return "database not opened";
    case -2: return "invalid set";
    case -3: return "invalid record";
    case -4: return "invalid database";
    case -5: return "invalid field name";
    case -6: return "invalid db_address";
    case -7: return "no current record";
    case -8: return "set has no current owner";
    case -9: return "set has no current member";
    case -10: return "key value required";
    case -12: return "record is owner of non-empty set(s)";
    case -13: return "record is member of set(s)";
    case -14: return "member already owned";
    case -15: return "field is a compound key";
    case -16: return "record not connected to set";
    case -17: return "field is not a valid key";
    case -18: return "record not legal owner of set";
    case -19: return "record not legal member of set";
    case -20: return "error in d_setpages (database open or bad param)";
    case -21: return "incompatible dictionary file";
    case -25: return "transaction id not supplied";
    case -26: return "transaction already active";
    case -27: return "transaction not active";
    case -30: return "too many changed database pages";
    case -31: return "cannot update database outside a transaction";
    case -35: return "database, path or file name too long";
    case -37: return "field is not an optional key field";
    case -38: return "field is not defined in current record type";
    case -39: return "record/field has/in a compound key";
    case -40: return "invalid record or set number";
    case -46: return "no current record type";
    case -900: return "no more space on file";
    case -901: return "system error";
    case -902: return "page fault";
    case -904: return "unable to allocate sufficient memory";
    case -905: return "error opening file";
    case -910: return "key file inconsistency";
    case -912: return "error seeking in database file";
    case -914: return "error reading from a database/overflow file";
    case -918: return "auto-recovery in process";
    case -919: return "error writing to a database/overflow file";
    case -925: return "error in Transaction Journaling File";
    default: return "";
  }
}

std::string dberr_code(int status) {
  char b[256];
  snprintf(b, sizeof b, "%s%04d%c *** view database engine error %d - %s", "TVRDB", status < 0 ? -status : status,
           'E', status, dt_errtext(status));
  return b;
}

void dt_set_msg_sink(dt_msg_sink_fn fn, void* ctx) {
  g_sink = fn;
  g_sink_ctx = ctx;
}

// ---- extensions -------------------------------------------------------------------------------------------

int dt_check(std::string* report, DB_TASK* task) {
  return read_op(task, -1, [&](Database& db) {
    std::string r;
    int st = db.check(&r);
    if (report) *report = r;
    return st;
  });
}

int dt_stats(dt_stats_s* out, DB_TASK* task) {
  return read_op(task, -1, [&](Database& db) {
    const auto& s = db.stats();
    *out = {s.hits, s.misses, s.spills, s.commits, s.journal_bytes, s.syncs, (uint32_t)db.frames(), db.page_size()};
    return 0;
  });
}

int dt_write_dictionary(const char* path) {
  std::string img = tavrel::rec::schema().serialize();
  FILE* f = fopen(path, "wb");
  if (!f) return ret(S_NOFILE);
  bool ok = fwrite(img.data(), 1, img.size(), f) == img.size();
  ok = (fclose(f) == 0) && ok;
  return ret(ok ? 0 : S_BADWRITE);
}

void d_set_cache_alloc_cap(size_t bytes) { tavrel::rec::PageCache::set_alloc_cap(bytes); }

int dt_set_txnum(uint32_t tx, DB_TASK* task) {
  return read_op(task, -1, [&](Database& db) { return db.journal().set_tx(tx); });
}
