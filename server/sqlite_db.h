// A thin layer over one SQLite connection: prepared statements cached by their SQL text, typed binds
// and columns, and transactions as scoped objects.
//
// A SqliteDb is used by one thread at a time (the store's pool hands it out). Every failure of SQLite
// throws ServerError with status 1008 and the library's message, so a caller never continues on a
// half-done statement; an open transaction is rolled back when its scope object dies without commit.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "server/server_error.h"

namespace tavrel_server {

class SqliteDb;

// A prepared statement, reset on construction of each use (see SqliteDb::stmt).
class Stmt {
 public:
  explicit Stmt(sqlite3_stmt* s, sqlite3* db) : s_(s), db_(db) {}
  Stmt& bind(int i, int64_t v);
  Stmt& bind(int i, const std::string& v);
  Stmt& bind_blob(int i, const void* p, size_t n);
  Stmt& bind_null(int i);
  // true while a row is available.
  bool step();
  // Runs a statement that returns no rows.
  void run();
  int64_t i64(int col) const { return sqlite3_column_int64(s_, col); }
  bool is_null(int col) const { return sqlite3_column_type(s_, col) == SQLITE_NULL; }
  std::string text(int col) const;
  std::string blob(int col) const;
  bool blob16(int col, uint8_t out[16]) const;

 private:
  sqlite3_stmt* s_;
  sqlite3* db_;
};

class SqliteDb {
 public:
  // Opens (creating if asked) the file, in WAL mode with foreign keys on.
  SqliteDb(const std::string& path, bool create);
  ~SqliteDb();
  SqliteDb(const SqliteDb&) = delete;
  SqliteDb& operator=(const SqliteDb&) = delete;

  // The cached statement for `sql`, reset and with bindings cleared.
  Stmt stmt(const char* sql);
  void exec(const char* sql);
  int64_t last_rowid() const { return sqlite3_last_insert_rowid(db_); }
  int changes() const { return sqlite3_changes(db_); }
  sqlite3* raw() { return db_; }
  bool in_transaction() const { return !sqlite3_get_autocommit(db_); }
  // Resets every statement still in progress, so none keeps an old read snapshot open past the end
  // of its transaction.
  void reset_used();

 private:
  sqlite3* db_ = nullptr;
  std::unordered_map<std::string, sqlite3_stmt*> cache_;

};

// BEGIN (deferred: a consistent read snapshot) or BEGIN IMMEDIATE (write). Rolls back unless
// commit() was called.
class Txn {
 public:
  Txn(SqliteDb& db, bool write);
  ~Txn();
  void commit();

 private:
  SqliteDb& db_;
  bool done_ = false;
};

}  // namespace tavrel_server
