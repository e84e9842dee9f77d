// rec_bench: the record engine against SQLite on the same machine, in the same run, with the same
// durability (one data sync of a log per commit: the engine's journal, SQLite's WAL with synchronous=FULL)
// and the same cache memory. The rows are namespace name rows (VNS_DB_DIR_VER_ENT, 200 bytes) with their
// two keys and their directory set; in SQLite, a table with the row bytes and the key columns, an index
// per key and one on the directory (the set).
//
// Prints, for each workload, operations per second for both and the engine/SQLite ratio (> 1: the
// engine is faster), plus the engine's journal bytes and syncs per commit.
//
// usage: rec_bench [scratch directory] [scale]   (scale 1 = 100k rows; default directory $TMPDIR or /tmp)
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "db/rec/dt.h"

namespace {

using Clock = std::chrono::steady_clock;
double secs(Clock::time_point a) { return std::chrono::duration<double>(Clock::now() - a).count(); }

void die(const char* what) {
  fprintf(stderr, "rec_bench: %s\n", what);
  exit(1);
}

void rm_rf(const std::string& dir) {
  std::string cmd = "rm -rf '" + dir + "'";
  if (system(cmd.c_str()) != 0) die("rm");
}

vns_db_dir_ver_ent make_row(uint32_t i, uint32_t dirs) {
  vns_db_dir_ver_ent e{};
  e.silo_dba = 1;
  e.obj_dbid = i + 1;
  e.dir_dbid = i % dirs + 1;
  e.hash = i * 2654435761u;
  e.validated = 1;
  e.name_len = 12;
  snprintf(e.name, sizeof e.name, "name%08u", i);
  return e;
}

// ---- engine ----------------------------------------------------------------------------------------------

struct Engine {
  DB_TASK* t = nullptr;
  std::vector<DB_ADDR> dirs;
  void open(const std::string& dir, int pages) {
    mkdir(dir.c_str(), 0777);
    if (dt_write_dictionary((dir + "/tavrel_db.dbd").c_str()) != 0) die("dictionary");
    dt_opentask(&t);
    d_setpages(pages, 4);
    dt_dbwdir(dir.c_str(), t);
    if (dt_open("tavrel_db", "o", t) != 0) die("dt_open");
  }
  void make_dirs(uint32_t n) {
    dt_trbegin("b", t);
    for (uint32_t d = 0; d < n; d++) {
      vns_db_dir_ver v{};
      v.silo_dba = 1;
      v.dbid = d + 1;
      v.type = 3;
      if (dt_fillnew(VNS_DB_DIR_VER, &v, t, -1) != 0) die("fillnew dir");
      DB_ADDR a;
      dt_crget(&a, t, -1);
      dirs.push_back(a);
    }
    if (dt_trend(t) != 0) die("trend");
  }
  void insert(uint32_t i, uint32_t ndirs) {
    vns_db_dir_ver_ent e = make_row(i, ndirs);
    if (dt_crset(&dirs[e.dir_dbid - 1], t, -1) != 0) die("crset");
    dt_setor(VNS_DIR_ENT_SET, t, -1);
    if (dt_fillnew(VNS_DB_DIR_VER_ENT, &e, t, -1) != 0) die("fillnew");
    if (dt_connect(VNS_DIR_ENT_SET, t, -1) != 0) die("connect");
  }
  void close() { dt_closetask(t); }
};

// ---- SQLite ----------------------------------------------------------------------------------------------

struct Lite {
  sqlite3* db = nullptr;
  sqlite3_stmt *ins = nullptr, *look = nullptr, *walk = nullptr;
  void exec(const char* sql) {
    char* err = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &err) != SQLITE_OK) {
      fprintf(stderr, "sqlite: %s: %s\n", sql, err);
      exit(1);
    }
  }
  void open(const std::string& dir, int pages) {
    mkdir(dir.c_str(), 0777);
    if (sqlite3_open((dir + "/bench.db").c_str(), &db) != SQLITE_OK) die("sqlite3_open");
    exec("PRAGMA journal_mode=WAL");
    exec("PRAGMA synchronous=FULL");
    std::string cache = "PRAGMA cache_size=-" + std::to_string(pages * 4);  // KiB
    exec(cache.c_str());
    exec("CREATE TABLE IF NOT EXISTS dve(id INTEGER PRIMARY KEY, silo INT, obj INT, dir INT, hash INT, data BLOB)");
    exec("CREATE INDEX IF NOT EXISTS dve_obj ON dve(silo, obj)");
    exec("CREATE INDEX IF NOT EXISTS dve_name ON dve(silo, dir, hash)");
    exec("CREATE INDEX IF NOT EXISTS dve_set ON dve(dir)");
    sqlite3_prepare_v2(db, "INSERT INTO dve(silo, obj, dir, hash, data) VALUES(?,?,?,?,?)", -1, &ins, nullptr);
    sqlite3_prepare_v2(db, "SELECT data FROM dve WHERE silo=? AND obj=?", -1, &look, nullptr);
    sqlite3_prepare_v2(db, "SELECT data FROM dve WHERE dir=? ORDER BY id", -1, &walk, nullptr);
  }
  void insert(uint32_t i, uint32_t ndirs) {
    vns_db_dir_ver_ent e = make_row(i, ndirs);
    sqlite3_bind_int64(ins, 1, e.silo_dba);
    sqlite3_bind_int64(ins, 2, e.obj_dbid);
    sqlite3_bind_int64(ins, 3, e.dir_dbid);
    sqlite3_bind_int64(ins, 4, e.hash);
    sqlite3_bind_blob(ins, 5, &e, sizeof e, SQLITE_STATIC);
    if (sqlite3_step(ins) != SQLITE_DONE) die("insert");
    sqlite3_reset(ins);
  }
  void close() {
    sqlite3_finalize(ins);
    sqlite3_finalize(look);
    sqlite3_finalize(walk);
    sqlite3_close(db);
  }
};

struct Result {
  const char* name;
  const char* unit;
  double engine, sqlite;
};

}  // namespace

int main(int argc, char** argv) {
  const char* tmp = getenv("TMPDIR");
  std::string base = argc > 1 ? argv[1] : std::string(tmp && *tmp ? tmp : "/tmp");
  double scale = argc > 2 ? atof(argv[2]) : 1.0;
  base += "/rec_bench." + std::to_string(getpid());
  mkdir(base.c_str(), 0777);
  const uint32_t rows = (uint32_t)(100000 * scale), ndirs = rows / 100, small_txns = (uint32_t)(1500 * scale);
  const int lookups = (int)(300000 * scale);
  const int pages = 2048;  // 8 MiB of cache for both
  std::vector<Result> results;

  // 1. Small transactions of 1 and of 10 rows (each row: two keys and a set connection), one durable
  //    commit each. The two sides run in alternating rounds, so that changes in the disk's sync latency
  //    during the run hit both alike.
  for (uint32_t per : {1u, 10u}) {
    Engine en;
    en.open(base + "/e1_" + std::to_string(per), pages);
    en.make_dirs(100);
    Lite li;
    li.open(base + "/s1_" + std::to_string(per), pages);
    dt_stats_s s0{}, s1{};
    dt_stats(&s0, en.t);
    double te = 0, tq = 0;
    const uint32_t round = 25, txns = per == 1 ? small_txns : small_txns / 2;
    uint32_t n = 0, row = 0;
    for (uint32_t done = 0; done < txns; done += round) {
      auto t0 = Clock::now();
      for (uint32_t i = 0; i < round; i++) {
        dt_trbegin("s", en.t);
        for (uint32_t r = 0; r < per; r++) en.insert(row + i * per + r, 100);
        if (dt_trend(en.t) != 0) die("trend");
      }
      te += secs(t0);
      t0 = Clock::now();
      for (uint32_t i = 0; i < round; i++) {
        li.exec("BEGIN");
        for (uint32_t r = 0; r < per; r++) li.insert(row + i * per + r, 100);
        li.exec("COMMIT");
      }
      tq += secs(t0);
      row += round * per;
      n += round;
    }
    dt_stats(&s1, en.t);
    printf("engine journal per commit of %u row(s): %.0f bytes, %.2f syncs\n", per,
           double(s1.journal_bytes - s0.journal_bytes) / n, double(s1.journal_syncs - s0.journal_syncs) / n);
    en.close();
    li.close();
    results.push_back({per == 1 ? "insert, 1 row per transaction" : "insert, 10 rows per transaction", "rows/s",
                       n * per / te, n * per / tq});
  }

  // 2. One large transaction; this database then serves the lookups and walks.
  Engine en;
  en.open(base + "/e2", pages);
  en.make_dirs(ndirs);
  Lite li;
  li.open(base + "/s2", pages);
  {
    auto t0 = Clock::now();
    dt_trbegin("l", en.t);
    for (uint32_t i = 0; i < rows; i++) en.insert(i, ndirs);
    if (dt_trend(en.t) != 0) die("trend");
    double e = rows / secs(t0);
    t0 = Clock::now();
    li.exec("BEGIN");
    for (uint32_t i = 0; i < rows; i++) li.insert(i, ndirs);
    li.exec("COMMIT");
    double q = rows / secs(t0);
    results.push_back({"insert, one large transaction", "rows/s", e, q});
  }

  // 3. Key lookups: random object dbids, the row read whole.
  {
    std::mt19937 rng(1);
    std::vector<uint32_t> keys(lookups);
    for (auto& k : keys) k = rng() % rows + 1;
    vns_db_dir_ver_ent buf;
    uint64_t check = 0;
    auto t0 = Clock::now();
    for (uint32_t k : keys) {
      key_silo_dbid key{1, k};
      if (dt_keyfind(DIR_VER_ENT_LOOKUP, &key, en.t, -1) != 0) die("keyfind");
      dt_recread(&buf, en.t, -1);
      check += buf.hash;
    }
    double e = lookups / secs(t0);
    uint64_t check2 = 0;
    t0 = Clock::now();
    for (uint32_t k : keys) {
      sqlite3_bind_int64(li.look, 1, 1);
      sqlite3_bind_int64(li.look, 2, k);
      if (sqlite3_step(li.look) != SQLITE_ROW) die("lookup");
      memcpy(&buf, sqlite3_column_blob(li.look, 0), sizeof buf);
      check2 += buf.hash;
      sqlite3_reset(li.look);
    }
    double q = lookups / secs(t0);
    if (check != check2) die("lookup results differ");
    results.push_back({"key lookup + row read", "lookups/s", e, q});
  }

  // 4. Set walks: every member of random directories, each row read whole.
  {
    std::mt19937 rng(2);
    int walks = (int)(3000 * scale);
    std::vector<uint32_t> ds(walks);
    for (auto& d : ds) d = rng() % ndirs + 1;
    vns_db_dir_ver_ent buf;
    uint64_t n1 = 0, n2 = 0;
    auto t0 = Clock::now();
    for (uint32_t d : ds) {
      dt_crset(&en.dirs[d - 1], en.t, -1);
      dt_setor(VNS_DIR_ENT_SET, en.t, -1);
      for (int st = dt_findfm(VNS_DIR_ENT_SET, en.t, -1); st == 0; st = dt_findnm(VNS_DIR_ENT_SET, en.t, -1)) {
        dt_recread(&buf, en.t, -1);
        n1++;
      }
    }
    double e = n1 / secs(t0);
    t0 = Clock::now();
    for (uint32_t d : ds) {
      sqlite3_bind_int64(li.walk, 1, d);
      while (sqlite3_step(li.walk) == SQLITE_ROW) {
        memcpy(&buf, sqlite3_column_blob(li.walk, 0), sizeof buf);
        n2++;
      }
      sqlite3_reset(li.walk);
    }
    double q = n2 / secs(t0);
    if (n1 != n2) die("walk counts differ");
    results.push_back({"set walk (members of a directory)", "rows/s", e, q});
  }
  en.close();
  li.close();
  rm_rf(base);

  printf("\n%-36s %14s %14s %8s\n", "workload", "engine", "SQLite", "ratio");
  for (const Result& r : results)
    printf("%-36s %10.0f %-3s %10.0f %-3s %7.2fx\n", r.name, r.engine, "", r.sqlite, "", r.engine / r.sqlite);
  printf("(units: rows/s for inserts and walks, lookups/s for lookups; ratio = engine / SQLite)\n");
  return 0;
}
