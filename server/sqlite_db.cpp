#include "server/sqlite_db.h"

#include <cstring>

#include "server/path_order.h"

namespace tavrel_server {

namespace {
[[noreturn]] void sql_fail(sqlite3* db, const char* what) {
  fail(TBS_ST_INTERNAL, std::string("store: ") + what + ": " + (db ? sqlite3_errmsg(db) : "no connection"));
}
}  // namespace

Stmt& Stmt::bind(int i, int64_t v) {
  if (sqlite3_bind_int64(s_, i, v) != SQLITE_OK) sql_fail(db_, "bind");
  return *this;
}
Stmt& Stmt::bind(int i, const std::string& v) {
  if (sqlite3_bind_text(s_, i, v.data(), int(v.size()), SQLITE_TRANSIENT) != SQLITE_OK) sql_fail(db_, "bind");
  return *this;
}
Stmt& Stmt::bind_blob(int i, const void* p, size_t n) {
  if (sqlite3_bind_blob64(s_, i, p, n, SQLITE_TRANSIENT) != SQLITE_OK) sql_fail(db_, "bind");
  return *this;
}
Stmt& Stmt::bind_null(int i) {
  if (sqlite3_bind_null(s_, i) != SQLITE_OK) sql_fail(db_, "bind");
  return *this;
}

bool Stmt::step() {
  int rc = sqlite3_step(s_);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  if (rc == SQLITE_CONSTRAINT) fail(TBS_ST_EXISTS, std::string("store: ") + sqlite3_errmsg(db_));
  sql_fail(db_, "step");
}

void Stmt::run() {
  while (step()) {
  }
}

std::string Stmt::text(int col) const {
  const unsigned char* p = sqlite3_column_text(s_, col);
  int n = sqlite3_column_bytes(s_, col);
  return p ? std::string(reinterpret_cast<const char*>(p), size_t(n)) : std::string();
}

std::string Stmt::blob(int col) const {
  const void* p = sqlite3_column_blob(s_, col);
  int n = sqlite3_column_bytes(s_, col);
  return p ? std::string(static_cast<const char*>(p), size_t(n)) : std::string();
}

bool Stmt::blob16(int col, uint8_t out[16]) const {
  const void* p = sqlite3_column_blob(s_, col);
  if (p == nullptr || sqlite3_column_bytes(s_, col) != 16) {
    std::memset(out, 0, 16);
    return false;
  }
  std::memcpy(out, p, 16);
  return true;
}

SqliteDb::SqliteDb(const std::string& path, bool create) {
  int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | (create ? SQLITE_OPEN_CREATE : 0);
  if (sqlite3_open_v2(path.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
    std::string msg = db_ ? sqlite3_errmsg(db_) : "out of memory";
    sqlite3_close(db_);
    db_ = nullptr;
    fail(TBS_ST_INTERNAL, "cannot open store " + path + ": " + msg);
  }
  sqlite3_busy_timeout(db_, 10000);
  if (!register_path_collation(db_)) sql_fail(db_, "collation");
  sqlite3_extended_result_codes(db_, 0);
  exec("PRAGMA journal_mode=WAL");
  exec("PRAGMA synchronous=NORMAL");
  exec("PRAGMA foreign_keys=ON");
  exec("PRAGMA cache_size=-16000");
  exec("PRAGMA temp_store=MEMORY");  // statement journals and sorts of a commit stay off the disk
  exec("PRAGMA mmap_size=1073741824");  // large contents are read through the map, not page by page
}

SqliteDb::~SqliteDb() {
  for (auto& [sql, s] : cache_) sqlite3_finalize(s);
  sqlite3_close(db_);
}

Stmt SqliteDb::stmt(const char* sql) {
  auto it = cache_.find(sql);
  sqlite3_stmt* s = nullptr;
  if (it == cache_.end()) {
    if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &s, nullptr) != SQLITE_OK)
      sql_fail(db_, "prepare");
    cache_.emplace(sql, s);
  } else {
    s = it->second;
    sqlite3_reset(s);
    sqlite3_clear_bindings(s);
  }
  return Stmt(s, db_);
}

void SqliteDb::reset_used() {
  for (auto& [sql, s] : cache_)
    if (sqlite3_stmt_busy(s)) sqlite3_reset(s);
}

void SqliteDb::exec(const char* sql) {
  char* err = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &err) != SQLITE_OK) {
    std::string msg = err ? err : "unknown";
    sqlite3_free(err);
    fail(TBS_ST_INTERNAL, std::string("store: ") + msg);
  }
}

Txn::Txn(SqliteDb& db, bool write) : db_(db) { db_.exec(write ? "BEGIN IMMEDIATE" : "BEGIN"); }

Txn::~Txn() {
  db_.reset_used();
  if (!done_) {
    char* err = nullptr;
    sqlite3_exec(db_.raw(), "ROLLBACK", nullptr, nullptr, &err);
    sqlite3_free(err);
  }
}

void Txn::commit() {
  db_.reset_used();
  db_.exec("COMMIT");
  done_ = true;
}

}  // namespace tavrel_server
