// db_bench: the view database as the update and the name lookups use it, against the raw record engine
// and against SQLite doing the same rows, in the same run on the same disk.
//
// Workload "elements": N file elements, each written in a transaction of its own as the update writes
// them: the element (identity row + element row) and its version with its name in a directory of 1000
// names (identity row + version row + name row), with their keys and set links.
//   view db  tvr_db_create_vns_elem + tvr_db_create_vns_ver (the creation check included)
//   engine   the same five rows written with dt_* directly (no lookups, no check)
//   sqlite   five tables with the same keys as indexes, WAL; "deferred" = synchronous NORMAL (the WAL is
//            not synced at commit), "commit" = synchronous FULL
// each in both durability modes. Then "lookups": random names through tvr_db_vns_ver_lookup_name, one
// read transaction each, warm.
//
// Workload "repair" (mode argument "repair" only): N elements written as above, then the repair a start
// in state 'm' runs: the dumper (a separate program), the load of the dump into a new database, and the
// check after the load; seconds for each, to see whether they grow linearly with N.
//
// usage: db_bench [scratch directory] [elements] [deferred|commit|repair]   (default $TMPDIR or /tmp,
//        100000, deferred and commit)
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include "base/fileutl.h"
#include "base/tbs.h"
#include "db/rec/dt.h"
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_vns.h"

namespace {

using Clock = std::chrono::steady_clock;
double secs(Clock::time_point a) { return std::chrono::duration<double>(Clock::now() - a).count(); }

void die(const char* what, int st = 0) {
  fprintf(stderr, "db_bench: %s (%d)\n", what, st);
  exit(1);
}

constexpr uint32_t kPerDir = 1000;

tbs_oid_s oid_of(uint32_t kind, uint32_t i) {
  tbs_oid_s o{};
  memcpy(o.bytes, &kind, 4);
  memcpy(o.bytes + 4, &i, 4);
  o.bytes[15] = 1;
  return o;
}

std::string name_of(uint32_t i) { return "file_" + std::to_string(i) + ".c"; }

struct ViewDb {
  uint32_t silo = 0;
  std::vector<uint32_t> dirs;
  std::string home;

  void open(const std::string& dir, tvr_db_sync_mode_t mode) {
    home = dir;
    fileutl_rm_tree(dir);
    if (fileutl_mkpath(dir, 0700) != 0 || chdir(dir.c_str()) != 0) die("scratch directory");
    tvr_db_set_sync_mode(mode);
    int created = 0;
    int st = tavrel_db_init(&created);
    if (st != 0 || !tvr_db_is_open()) die("tavrel_db_init", st);
    st = tvr_db_in_trans(1, [&] {
      int s = tvr_db_silo_create(tbs_uuid_create(), "host:/silo", &silo);
      if (s == 0) s = tvr_db_create_def_scope();
      return s;
    });
    if (st != 0) die("silo", st);
  }
  void close() {
    tvr_db_close_db();
    if (chdir("/") != 0) die("chdir");
    fileutl_rm_tree(home);
  }

  // Directory d (made on first use; the root holds the directories).
  uint32_t dir(uint32_t d) {
    while (dirs.size() <= d) {
      uint32_t k = (uint32_t)dirs.size(), dbid = 0;
      tbs_fstat_db_t fs{};
      fs.type = 2;
      fs.mode = 0755;
      struct timeval tv{1700000000, 0};
      int st = tvr_db_in_trans(1, [&] {
        uint32_t elem = 0;
        int s = tvr_db_create_vns_elem(silo, oid_of(3, k), (silo_mtype_t)2, tv, fs, 0, nullptr, &elem);
        if (s != 0) return s;
        if (k == 0)
          return tvr_db_create_root_dir(silo, oid_of(4, k), oid_of(3, k), tv, fs, nullptr, 1, 0, &dbid);
        std::string n = "dir" + std::to_string(k);
        return tvr_db_create_vns_ver(silo, dirs[0], oid_of(4, k), oid_of(3, k), (silo_mtype_t)3, tv, n.c_str(), fs,
                                     nullptr, 1, 0, &dbid, nullptr, nullptr);
      });
      if (st != 0) die("directory", st);
      dirs.push_back(dbid);
    }
    return dirs[d];
  }

  void element(uint32_t i) {
    uint32_t parent = dir(1 + i / kPerDir);
    tbs_fstat_db_t fs{};
    fs.type = 1;
    fs.mode = 0644;
    fs.size = i;
    struct timeval tv{1700000000, (long)(i % 1000000)};
    std::string n = name_of(i);
    int st = tvr_db_in_trans(1, [&] {
      uint32_t elem = 0, ver = 0;
      int s = tvr_db_create_vns_elem(silo, oid_of(1, i), (silo_mtype_t)5, tv, fs, 0, nullptr, &elem);
      if (s != 0) return s;
      return tvr_db_create_vns_ver(silo, parent, oid_of(2, i), oid_of(1, i), (silo_mtype_t)6, tv, n.c_str(), fs,
                                   nullptr, 1, 0, &ver, nullptr, nullptr);
    });
    if (st != 0) die("element", st);
  }
};

// The same five rows through the engine itself.
struct RawEngine {
  DB_TASK* t = nullptr;
  std::string dir;
  void open(const std::string& d, bool deferred) {
    dir = d;
    fileutl_rm_tree(dir);
    fileutl_mkpath(dir, 0700);
    if (dt_write_dictionary((dir + "/tavrel_db.dbd").c_str()) != 0) die("dictionary");
    dt_opentask(&t);
    dt_dbwdir(dir.c_str(), t);
    d_setpages(508, 4);
    if (dt_open("tavrel_db", "o", t) != 0) die("dt_open");
    if (deferred) dt_on_opt(DT_OPT_DEFER_SYNC, t);
  }
  void close() {
    dt_close(t);
    dt_closetask(t);
    fileutl_rm_tree(dir);
  }
  void element(uint32_t i) {
    if (dt_trbegin("t", t) != 0) die("trbegin");
    vns_db_obj eo{};
    eo.vns_obj_silo_dba = 1;
    eo.vns_obj_oid = oid_of(1, i);
    eo.vns_obj_mtype = 5;
    eo.vns_obj_dbid = 2 * i + 2;
    vns_db_elem el{};
    el.silo_dba = 1;
    el.dbid = eo.vns_obj_dbid;
    vns_db_obj vo = eo;
    vo.vns_obj_oid = oid_of(2, i);
    vo.vns_obj_mtype = 6;
    vo.vns_obj_dbid = eo.vns_obj_dbid + 1;
    vns_db_ver v{};
    v.silo_dba = 1;
    v.dbid = vo.vns_obj_dbid;
    vns_db_dir_ver_ent e{};
    e.silo_dba = 1;
    e.obj_dbid = vo.vns_obj_dbid;
    e.dir_dbid = 1 + i / kPerDir;
    std::string n = name_of(i);
    e.name_len = (uint16_t)n.size();
    memcpy(e.name, n.data(), n.size());
    e.validated = 1;
    if (dt_fillnew(VNS_DB_OBJ, &eo, t, -1) || dt_fillnew(VNS_DB_ELEM, &el, t, -1) || dt_setor(VNS_ELEM_VER_SET, t, -1) ||
        dt_fillnew(VNS_DB_OBJ, &vo, t, -1) || dt_fillnew(VNS_DB_VER, &v, t, -1) || dt_connect(VNS_ELEM_VER_SET, t, -1) ||
        dt_setor(VNS_VER_NAME_SET, t, -1) || dt_fillnew(VNS_DB_DIR_VER_ENT, &e, t, -1) ||
        dt_connect(VNS_VER_NAME_SET, t, -1))
      die("raw rows");
    if (dt_trend(t) != 0) die("trend");
  }
};

struct Sqlite {
  sqlite3* db = nullptr;
  sqlite3_stmt *ins_obj = nullptr, *ins_elem = nullptr, *ins_ver = nullptr, *ins_name = nullptr;
  std::string dir;
  void exec(const char* sql) {
    char* err = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &err) != SQLITE_OK) {
      fprintf(stderr, "%s\n", err);
      die("sqlite");
    }
  }
  void open(const std::string& d, bool deferred) {
    dir = d;
    fileutl_rm_tree(dir);
    fileutl_mkpath(dir, 0700);
    if (sqlite3_open((dir + "/view.sqlite").c_str(), &db) != SQLITE_OK) die("sqlite open");
    exec("PRAGMA journal_mode=WAL");
    exec(deferred ? "PRAGMA synchronous=NORMAL" : "PRAGMA synchronous=FULL");
    exec("PRAGMA cache_size=-2048");
    exec("CREATE TABLE obj(silo INT, oid BLOB, mtype INT, dbid INT, body BLOB, PRIMARY KEY(silo, dbid)) WITHOUT ROWID;"
         "CREATE UNIQUE INDEX obj_oid ON obj(silo, oid);"
         "CREATE TABLE elem(silo INT, dbid INT, body BLOB, PRIMARY KEY(silo, dbid)) WITHOUT ROWID;"
         "CREATE TABLE ver(silo INT, dbid INT, elem INT, body BLOB, PRIMARY KEY(silo, dbid)) WITHOUT ROWID;"
         "CREATE INDEX ver_elem ON ver(silo, elem);"
         "CREATE TABLE name(silo INT, dir INT, hash INT, obj INT, name BLOB, body BLOB);"
         "CREATE INDEX name_dir ON name(silo, dir, hash); CREATE INDEX name_obj ON name(silo, obj);");
    sqlite3_prepare_v2(db, "INSERT INTO obj VALUES(1, ?, ?, ?, zeroblob(52))", -1, &ins_obj, nullptr);
    sqlite3_prepare_v2(db, "INSERT INTO elem VALUES(1, ?, zeroblob(32))", -1, &ins_elem, nullptr);
    sqlite3_prepare_v2(db, "INSERT INTO ver VALUES(1, ?, ?, zeroblob(28))", -1, &ins_ver, nullptr);
    sqlite3_prepare_v2(db, "INSERT INTO name VALUES(1, ?, ?, ?, ?, zeroblob(40))", -1, &ins_name, nullptr);
  }
  void close() {
    for (sqlite3_stmt* s : {ins_obj, ins_elem, ins_ver, ins_name}) sqlite3_finalize(s);
    sqlite3_close(db);
    fileutl_rm_tree(dir);
  }
  void run(sqlite3_stmt* s) {
    if (sqlite3_step(s) != SQLITE_DONE) die("sqlite insert");
    sqlite3_reset(s);
  }
  void element(uint32_t i) {
    exec("BEGIN");
    tbs_oid_s eo = oid_of(1, i), vo = oid_of(2, i);
    int64_t ed = 2 * i + 2, vd = ed + 1;
    sqlite3_bind_blob(ins_obj, 1, eo.bytes, 16, SQLITE_STATIC);
    sqlite3_bind_int(ins_obj, 2, 5);
    sqlite3_bind_int64(ins_obj, 3, ed);
    run(ins_obj);
    sqlite3_bind_int64(ins_elem, 1, ed);
    run(ins_elem);
    sqlite3_bind_blob(ins_obj, 1, vo.bytes, 16, SQLITE_STATIC);
    sqlite3_bind_int(ins_obj, 2, 6);
    sqlite3_bind_int64(ins_obj, 3, vd);
    run(ins_obj);
    sqlite3_bind_int64(ins_ver, 1, vd);
    sqlite3_bind_int64(ins_ver, 2, ed);
    run(ins_ver);
    std::string n = name_of(i);
    sqlite3_bind_int64(ins_name, 1, 1 + i / kPerDir);
    sqlite3_bind_int64(ins_name, 2, (int64_t)std::hash<std::string>()(n) & 0xffffffff);
    sqlite3_bind_int64(ins_name, 3, vd);
    sqlite3_bind_blob(ins_name, 4, n.data(), (int)n.size(), SQLITE_TRANSIENT);
    run(ins_name);
    exec("COMMIT");
  }
};

template <class F>
double rate(uint32_t n, F&& f) {
  auto t0 = Clock::now();
  for (uint32_t i = 0; i < n; i++) f(i);
  return n / secs(t0);
}

}  // namespace

int main(int argc, char** argv) {
  const char* tmp = getenv("TMPDIR");
  std::string base = std::string(argc > 1 ? argv[1] : (tmp ? tmp : "/tmp")) + "/db_bench." + std::to_string(getpid());
  uint32_t n = argc > 2 ? (uint32_t)strtoul(argv[2], nullptr, 10) : 100000;
  if (!getenv("TAVREL_PRODUCT_DIR")) setenv("TAVREL_PRODUCT_DIR", TAVREL_PRODUCT_DIR, 1);
  const char* only = argc > 3 ? argv[3] : nullptr;
  if (only && strcmp(only, "repair") == 0) {
    ViewDb v;
    v.open(base + "/view", TVR_DB_SYNC_DEFERRED);
    v.dir(1 + (n - 1) / kPerDir);
    auto t0 = Clock::now();
    for (uint32_t i = 0; i < n; i++) v.element(i);
    double write_s = secs(t0);
    std::string dumped;
    t0 = Clock::now();
    if (int st = tvr_db_dump_db(&dumped)) die("dump", st);
    double dump_s = secs(t0);
    if (tvr_db_state_change('m') != 0 || fileutl_rm_tree(dumped) != 0) die("after dump");
    t0 = Clock::now();
    if (int st = tvr_db_load_db()) die("load", st);
    double load_s = secs(t0);
    t0 = Clock::now();
    if (int st = tvr_db_fsck_db()) die("check", st);
    double check_s = secs(t0);
    printf("repair of %u elements: write %.1f s, dump %.1f s, load %.1f s, check %.1f s; dump+load+check %.1f s "
           "(%.1f us per element)\n",
           n, write_s, dump_s, load_s, check_s, dump_s + load_s + check_s, (dump_s + load_s + check_s) * 1e6 / n);
    v.close();
    fileutl_rm_tree(base);
    return 0;
  }
  printf("db_bench: %u elements, one transaction each (elements/s)\n", n);
  printf("%-9s %12s %12s %12s %14s %14s\n", "mode", "view db", "engine", "sqlite", "view/engine", "view/sqlite");
  for (bool deferred : {true, false}) {
    if (only && strcmp(only, deferred ? "deferred" : "commit") != 0) continue;
    uint32_t m = deferred ? n : std::min<uint32_t>(n, 20000);  // synced commits are disk-bound: fewer suffice
    ViewDb v;
    v.open(base + "/view", deferred ? TVR_DB_SYNC_DEFERRED : TVR_DB_SYNC_COMMIT);
    v.dir(1 + (m - 1) / kPerDir);
    double rv = rate(m, [&](uint32_t i) { v.element(i); });
    if (deferred) {
      // Warm name lookups on the database just written.
      std::mt19937 rng(7);
      uint32_t lookups = 300000, hits = 0;
      auto t0 = Clock::now();
      for (uint32_t k = 0; k < lookups; k++) {
        uint32_t i = rng() % m;
        std::string nm = name_of(i);
        uint32_t dbid = 0;
        silo_mtype_t mt;
        tvr_db_in_trans(0, [&] {
          if (tvr_db_vns_ver_lookup_name(v.silo, v.dirs[1 + i / kPerDir], nm.c_str(), &dbid, &mt, nullptr, nullptr) == 0)
            hits++;
          return 0;
        });
      }
      double lr = lookups / secs(t0);
      if (hits != lookups) die("lookups missed", (int)(lookups - hits));
      printf("lookups: %.0f/s (tvr_db_vns_ver_lookup_name, one read transaction each, warm)\n", lr);
    }
    v.close();
    RawEngine e;
    e.open(base + "/raw", deferred);
    double re = rate(m, [&](uint32_t i) { e.element(i); });
    e.close();
    Sqlite s;
    s.open(base + "/sqlite", deferred);
    double rs = rate(m, [&](uint32_t i) { s.element(i); });
    s.close();
    printf("%-9s %12.0f %12.0f %12.0f %14.2f %14.2f\n", deferred ? "deferred" : "commit", rv, re, rs, rv / re, rv / rs);
  }
  fileutl_rm_tree(base);
  return 0;
}
