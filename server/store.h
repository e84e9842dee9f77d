// The server's store: one SQLite file that holds every SILO, element, version, directory version,
// symbolic link, label, view (rules, GN, served set, snapshots), checkout and session.
//
// Schema (version 1; see store.cpp for the DDL):
//   silo(id, tag, family, replica, storage, is_public, is_project, root_elem)
//   element(id, silo, oid, kind 2 directory / 5 file, mode, created_s, created_us)
//   branch(id, elem, name, path, sprout_version, next_num)          -- "main" exists for every element
//   version(id, elem, oid, branch, num, vstr, created_s, created_us, content, size, mode, co_view)
//       content: a content row for files (NULL for directories); co_view: the view of a checkout
//       version (NULL for ordinary versions; a checkout version has num NULL and vstr "<branch>/checkout")
//   content(id, hash, size, data)                                   -- file bytes, deduplicated by SHA-256
//   dir_entry(dirver, name, elem, link)                              -- the names of a directory version
//   symlink(id, silo, oid, target, created_s, created_us)
//   label(elem, name, version)                                       -- at most one version per element
//   view(id, uuid, type, elem_rules, tkm_rules, load_rules, gn_counter, committed_gn)
//   checkout(view, elem, co_version, base_version)
//   served(view, path, silo, elem_oid, ver_oid, vstr, parent_oid, checked_out, scope_oid, gn)
//   snapshot(view, gn, scope_oid, path, silo, elem_oid, ver_oid, vstr, prev_vstr, checked_out, parent_oid,
//            is_link, elem, obj, action)       -- update states, see update_ledger.h (path in "tavrel_path" order)
//       snapshot_auto_tombstones: the unloads (action >= 2) of streams not yet committed, by (view, scope,
//       path); every listing and metadata reply asks for them, so they must not cost a scan of the
//       whole last stream
//   pending_update(view, gn, scope_oid, replace)-- the scopes of each update stream not yet committed
//   pending_seq(view, gn, seq), scope_seq(view, scope_oid, seq)
//                       -- the change-log position each pending stream, and each committed scope, was worked out at
//   change_log(seq, elem) -- what a view can select changed: triggers log the element whose versions,
//       branches, labels, checkouts or directory entries changed (0: a SILO or a link changed, -view id:
//       that view's rules changed). One row per element, moved to a new seq at each change; seq only
//       grows (AUTOINCREMENT). See update_ledger.h for who reads and prunes it.
//   served_by_element, snapshot_committed_by_element: the names a view holds of a given element
//   session(token, jsession, user, created, last_used)
//
// Invariants: version contents and OIDs never change once written (a checkout version's bytes are
// its base's); every OID is unique in the store; a name occurs once per directory version.
//
// Concurrency: the store keeps a pool of connections; a Lease holds one for a request. Reads run in a
// deferred transaction (a consistent snapshot); writes take the store's write mutex and then BEGIN
// IMMEDIATE, so the process's writers queue on the mutex instead of spinning on SQLite's lock. Readers
// never wait for writers (WAL).
#pragma once

#include <sys/time.h>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/tbs.h"
#include "server/sqlite_db.h"

namespace tavrel_server {

struct Silo {
  int64_t id = 0;
  std::string tag;
  tbs_uuid_s family{}, replica{};
  std::string storage;
  bool is_public = false, is_project = false;
  int64_t root_elem = 0;
};

enum : int { KIND_DIR = 2, KIND_FILE = 5 };

struct Element {
  int64_t id = 0, silo = 0;
  tbs_oid_s oid{};
  int kind = 0;
  uint32_t mode = 0;
  timeval created{};
};

struct Version {
  int64_t id = 0, elem = 0;
  tbs_oid_s oid{};
  int64_t branch = 0;
  int64_t num = -1;  // -1 for a checkout version
  std::string vstr;
  timeval created{};
  int64_t content = 0;  // 0 for directories
  uint64_t size = 0;
  uint32_t mode = 0;
  int64_t co_view = 0;  // view of a checkout version, else 0
};

struct Link {
  int64_t id = 0, silo = 0;
  tbs_oid_s oid{};
  std::string target;
  timeval created{};
};

struct Entry {
  std::string name;
  int64_t elem = 0;  // child element, or
  int64_t link = 0;  // symbolic link
};

struct Branch {
  int64_t id = 0, elem = 0;
  std::string name, path;
  int64_t next_num = 0;
};

struct ViewRow {
  int64_t id = 0;
  tbs_uuid_s uuid{};
  std::string type;
  std::string elem_rules, tkm_rules, load_rules;
  int64_t gn_counter = 0, committed_gn = 0;
};

struct Checkout {
  int64_t view = 0, elem = 0, co_version = 0, base_version = 0;
};

struct ServedRow {
  std::string path;
  int64_t silo = 0;
  tbs_oid_s elem_oid{}, ver_oid{}, parent_oid{}, scope_oid{};
  std::string vstr;
  bool checked_out = false;
  int64_t gn = 0;
};

// Columns of the served table, in the order served_row reads them.
#define TAVREL_SERVED_COLUMNS "path, silo, elem_oid, ver_oid, vstr, parent_oid, checked_out, scope_oid, gn"
ServedRow served_row(const Stmt& s);
// A 16-byte blob column as an OID.
tbs_oid_s col_oid(const Stmt& s, int col);

struct SessionRow {
  std::string token, jsession, user;
  int64_t created = 0, last_used = 0;
};

constexpr const char* DEFAULT_ELEM_RULES = "select * latest\n";

timeval now_timeval();

// Operations on the store through one connection; the caller holds the transaction.
class Repo {
 public:
  explicit Repo(SqliteDb& db) : db_(db) {}
  SqliteDb& db() { return db_; }

  // SILOs.
  std::optional<Silo> silo_by_tag(const std::string& tag);
  std::optional<Silo> silo_by_replica(const tbs_uuid_s& replica);
  std::optional<Silo> silo_by_id(int64_t id);
  std::vector<Silo> silos();
  // A new SILO with an empty root directory (version main/1). Fails with 1067 if the tag exists.
  Silo create_silo(const std::string& tag, bool is_public, bool is_project, const std::string& storage,
                   timeval now);

  // Elements, versions, branches.
  std::optional<Element> element_by_oid(const tbs_oid_s& oid);
  Element element_by_id(int64_t id);
  Element new_element(int64_t silo, int kind, uint32_t mode, timeval now);
  std::optional<Version> version_by_oid(const tbs_oid_s& oid);
  Version version_by_id(int64_t id);
  std::optional<Branch> branch_by_name(int64_t elem, const std::string& name);
  Branch branch_by_id(int64_t id);
  Branch make_branch(int64_t elem, const std::string& name, const Version& sprout);
  // The newest ordinary version of the branch named `branch` of `elem`.
  std::optional<Version> latest(int64_t elem, const std::string& branch);
  std::optional<Version> version_by_label(int64_t elem, const std::string& label);
  std::optional<Version> version_by_vstr(int64_t elem, const std::string& vstr);
  // A new ordinary version on `branch` (numbered next), or a checkout version for `co_view`.
  Version new_version(const Element& e, const Branch& branch, int64_t content, uint64_t size, uint32_t mode,
                      timeval now);
  Version new_checkout_version(const Element& e, const Version& base, int64_t view, timeval now);
  void delete_checkout_version(const Version& v);

  // Content.
  int64_t put_content(const std::string& bytes);
  std::string content_bytes(int64_t content);

  // Symbolic links.
  std::optional<Link> link_by_oid(const tbs_oid_s& oid);
  Link link_by_id(int64_t id);
  Link new_link(int64_t silo, const std::string& target, timeval now);

  // Directory versions.
  std::optional<Entry> entry(int64_t dirver, const std::string& name);
  std::vector<Entry> entries(int64_t dirver);
  void add_entry(int64_t dirver, const Entry& e);
  bool remove_entry(int64_t dirver, const std::string& name);
  void copy_entries(int64_t from, int64_t to);
  // Directory versions (ordinary or checkout) that name `elem` (newest first), and those that name
  // link `link`.
  std::vector<std::pair<int64_t, std::string>> parents_of_element(int64_t elem);
  std::vector<std::pair<int64_t, std::string>> parents_of_link(int64_t link);

  // Labels.
  // A transaction that writes a whole new SILO pauses the change log for its length, and the resume
  // logs a change to every name instead; both must happen in the same write transaction, so that no
  // other writer ever finds the log paused.
  void pause_change_log(bool paused);
  void apply_label(int64_t elem, const std::string& name, int64_t version);

  // Views.
  std::optional<ViewRow> view_by_uuid(const tbs_uuid_s& uuid);
  ViewRow create_view(const tbs_uuid_s& uuid, const std::string& type);
  ViewRow view_get_or_create(const tbs_uuid_s& uuid);
  void set_view_rules(int64_t view, const std::string& elem_rules, const std::string& load_rules);
  void set_view_type(int64_t view, const std::string& type, const std::string& tkm_rules);
  int64_t bump_gn(int64_t view);
  std::vector<ViewRow> views();

  // Checkouts.
  std::optional<Checkout> checkout_of(int64_t view, int64_t elem);
  void add_checkout(const Checkout& c);
  void remove_checkout(int64_t view, int64_t elem);
  void set_checkout_version(int64_t view, int64_t elem, int64_t co_version);
  std::vector<Checkout> checkouts(int64_t view);

  // Served set.
  void record_served(int64_t view, const ServedRow& r);
  // Whether the served set already holds `r` as it is (its GN aside), so that recording it again
  // would change nothing.
  bool served_unchanged(int64_t view, const ServedRow& r);
  // A path the view was served `ver_oid` (a version of element `elem_oid`) under. Found through the
  // element: a version's OID changes at every check-in, so an index on it would be rewritten by every
  // update that serves a new version.
  std::optional<std::string> served_path_of_version(int64_t view, const tbs_oid_s& elem_oid, const tbs_oid_s& ver_oid);
  std::vector<ServedRow> served(int64_t view);

  // Sessions.
  void put_session(const SessionRow& s);
  void delete_session(const std::string& token);
  void delete_all_sessions();
  void touch_session(const std::string& token, int64_t when);
  std::vector<SessionRow> sessions();

 private:
  SqliteDb& db_;
};

class Store {
 public:
  // Opens the store file, creating it and its schema when it does not exist.
  explicit Store(const std::string& path, size_t pool_size = 8);
  ~Store();
  const std::string& path() const { return path_; }

  // A connection borrowed from the pool for the lifetime of the lease.
  class Lease {
   public:
    Lease(Store* s, std::unique_ptr<SqliteDb> db) : store_(s), db_(std::move(db)) {}
    Lease(Lease&&) = default;
    ~Lease();
    SqliteDb& db() { return *db_; }

   private:
    Store* store_;
    std::unique_ptr<SqliteDb> db_;
  };
  Lease lease();

  // Runs `fn` in a read transaction.
  template <class F>
  auto read(F&& fn) {
    Lease l = lease();
    Txn t(l.db(), false);
    Repo r(l.db());
    return fn(r);
  }
  // Runs `fn` in a write transaction under the write mutex and commits when it returns.
  template <class F>
  auto write(F&& fn) {
    Lease l = lease();
    std::lock_guard<std::mutex> g(write_mu_);
    Txn t(l.db(), true);
    Repo r(l.db());
    if constexpr (std::is_void_v<decltype(fn(r))>) {
      fn(r);
      t.commit();
    } else {
      auto result = fn(r);
      t.commit();
      return result;
    }
  }
  std::mutex& write_mutex() { return write_mu_; }

 private:
  friend class Lease;
  void give_back(std::unique_ptr<SqliteDb> db);
  std::string path_;
  size_t pool_size_;
  std::mutex pool_mu_;
  std::vector<std::unique_ptr<SqliteDb>> pool_;
  std::mutex write_mu_;
};

}  // namespace tavrel_server
