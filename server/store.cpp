#include "server/store.h"

#include <openssl/sha.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstring>

namespace tavrel_server {

namespace {

const char* kSchema = R"SQL(
CREATE TABLE IF NOT EXISTS meta(key TEXT PRIMARY KEY, value TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS silo(
  id INTEGER PRIMARY KEY, tag TEXT NOT NULL UNIQUE, family BLOB NOT NULL, replica BLOB NOT NULL UNIQUE,
  storage TEXT NOT NULL, is_public INTEGER NOT NULL, is_project INTEGER NOT NULL, root_elem INTEGER);
CREATE TABLE IF NOT EXISTS element(
  id INTEGER PRIMARY KEY, silo INTEGER NOT NULL REFERENCES silo(id), oid BLOB NOT NULL UNIQUE,
  kind INTEGER NOT NULL, mode INTEGER NOT NULL, created_s INTEGER NOT NULL, created_us INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS branch(
  id INTEGER PRIMARY KEY, elem INTEGER NOT NULL REFERENCES element(id), name TEXT NOT NULL, path TEXT NOT NULL,
  sprout_version INTEGER, next_num INTEGER NOT NULL, UNIQUE(elem, name));
CREATE TABLE IF NOT EXISTS content(id INTEGER PRIMARY KEY, hash BLOB NOT NULL UNIQUE, size INTEGER NOT NULL,
  data BLOB NOT NULL);
CREATE TABLE IF NOT EXISTS version(
  id INTEGER PRIMARY KEY, elem INTEGER NOT NULL REFERENCES element(id), oid BLOB NOT NULL UNIQUE,
  branch INTEGER NOT NULL REFERENCES branch(id), num INTEGER, vstr TEXT NOT NULL,
  created_s INTEGER NOT NULL, created_us INTEGER NOT NULL, content INTEGER REFERENCES content(id),
  size INTEGER NOT NULL, mode INTEGER NOT NULL, co_view INTEGER);
CREATE INDEX IF NOT EXISTS version_by_branch ON version(branch, num);
CREATE INDEX IF NOT EXISTS version_by_elem ON version(elem, vstr);
CREATE TABLE IF NOT EXISTS symlink(
  id INTEGER PRIMARY KEY, silo INTEGER NOT NULL REFERENCES silo(id), oid BLOB NOT NULL UNIQUE,
  target TEXT NOT NULL, created_s INTEGER NOT NULL, created_us INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS dir_entry(
  dirver INTEGER NOT NULL, name TEXT NOT NULL, elem INTEGER, link INTEGER,
  PRIMARY KEY(dirver, name)) WITHOUT ROWID;
CREATE INDEX IF NOT EXISTS dir_entry_by_elem ON dir_entry(elem) WHERE elem IS NOT NULL;
CREATE INDEX IF NOT EXISTS dir_entry_by_link ON dir_entry(link) WHERE link IS NOT NULL;
CREATE TABLE IF NOT EXISTS label(elem INTEGER NOT NULL, name TEXT NOT NULL, version INTEGER NOT NULL,
  PRIMARY KEY(elem, name)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS view(
  id INTEGER PRIMARY KEY, uuid BLOB NOT NULL UNIQUE, type TEXT NOT NULL, elem_rules TEXT NOT NULL,
  tkm_rules TEXT NOT NULL, load_rules TEXT NOT NULL, gn_counter INTEGER NOT NULL, committed_gn INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS checkout(view INTEGER NOT NULL, elem INTEGER NOT NULL, co_version INTEGER NOT NULL,
  base_version INTEGER NOT NULL, PRIMARY KEY(view, elem)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS served(
  view INTEGER NOT NULL, path TEXT NOT NULL, silo INTEGER NOT NULL, elem_oid BLOB, ver_oid BLOB, vstr TEXT,
  parent_oid BLOB, checked_out INTEGER NOT NULL, scope_oid BLOB, gn INTEGER NOT NULL,
  PRIMARY KEY(view, path)) WITHOUT ROWID;
DROP INDEX IF EXISTS served_by_version;
CREATE INDEX IF NOT EXISTS served_in_order ON served(view, silo, scope_oid, path COLLATE tavrel_path);
CREATE TABLE IF NOT EXISTS snapshot(
  view INTEGER NOT NULL, gn INTEGER NOT NULL, scope_oid BLOB NOT NULL, path TEXT NOT NULL COLLATE tavrel_path,
  silo INTEGER NOT NULL, elem_oid BLOB, ver_oid BLOB, vstr TEXT NOT NULL, prev_vstr TEXT NOT NULL,
  checked_out INTEGER NOT NULL, parent_oid BLOB, is_link INTEGER NOT NULL, elem INTEGER NOT NULL,
  obj INTEGER NOT NULL, action INTEGER NOT NULL,
  PRIMARY KEY(view, gn, scope_oid, path)) WITHOUT ROWID;
CREATE INDEX IF NOT EXISTS snapshot_auto_tombstones ON snapshot(view, scope_oid, path) WHERE gn > 0 AND action >= 2;
CREATE TABLE IF NOT EXISTS pending_update(view INTEGER NOT NULL, gn INTEGER NOT NULL, scope_oid BLOB NOT NULL,
  replace INTEGER NOT NULL, PRIMARY KEY(view, gn, scope_oid)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS pending_seq(view INTEGER NOT NULL, gn INTEGER NOT NULL, seq INTEGER NOT NULL,
  PRIMARY KEY(view, gn)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS scope_seq(view INTEGER NOT NULL, scope_oid BLOB NOT NULL, seq INTEGER NOT NULL,
  PRIMARY KEY(view, scope_oid)) WITHOUT ROWID;
CREATE INDEX IF NOT EXISTS served_by_element ON served(view, elem_oid);
CREATE INDEX IF NOT EXISTS snapshot_committed_by_element ON snapshot(view, scope_oid, elem) WHERE gn = 0;
CREATE TABLE IF NOT EXISTS change_log(seq INTEGER PRIMARY KEY AUTOINCREMENT, elem INTEGER NOT NULL UNIQUE);
CREATE TABLE IF NOT EXISTS session(token TEXT PRIMARY KEY, jsession TEXT NOT NULL, user TEXT NOT NULL,
  created INTEGER NOT NULL, last_used INTEGER NOT NULL);
INSERT OR IGNORE INTO meta(key, value) VALUES('schema_version', '1');
)SQL";

// The change log's triggers (store.h): each change to what a view can select logs the element it
// concerns, unless the writing transaction paused the log (Repo::pause_change_log).
std::string change_log_triggers() {
  struct Logged {
    const char* table;
    const char* events;  // "IUD": insert, update, delete
    const char* elem;    // the element logged, "$" standing for NEW or OLD
  };
  const Logged logged[] = {
      {"version", "IUD", "$.elem"},
      {"branch", "IUD", "$.elem"},
      {"label", "IUD", "$.elem"},
      {"checkout", "IUD", "$.elem"},
      {"dir_entry", "IUD", "coalesce((SELECT elem FROM version WHERE id=$.dirver), 0)"},
      {"silo", "IUD", "0"},
      {"element", "UD", "$.id"},
      {"symlink", "UD", "0"},
  };
  auto log = [](const std::string& elem) {
    return "DELETE FROM change_log WHERE elem=" + elem + "; INSERT INTO change_log(elem) VALUES(" + elem + "); END;\n";
  };
  std::string sql;
  for (const Logged& l : logged) {
    for (const char* e = l.events; *e; ++e) {
      const char* event = *e == 'I' ? "insert" : *e == 'U' ? "update" : "delete";
      std::string elem = l.elem;
      for (size_t at; (at = elem.find('$')) != std::string::npos;) elem.replace(at, 1, *e == 'D' ? "OLD" : "NEW");
      std::string upper = event;
      for (char& c : upper) c = char(std::toupper(static_cast<unsigned char>(c)));
      sql += std::string("CREATE TRIGGER IF NOT EXISTS log_") + l.table + "_" + event + " AFTER " + upper + " ON " +
             l.table + " WHEN NOT EXISTS(SELECT 1 FROM meta WHERE key='change_log_paused') BEGIN " + log(elem);
    }
  }
  sql += "CREATE TRIGGER IF NOT EXISTS log_moved_rows AFTER UPDATE OF elem ON version WHEN OLD.elem IS NOT NEW.elem "
         "BEGIN " + log("OLD.elem");
  sql += "CREATE TRIGGER IF NOT EXISTS log_view_rules AFTER UPDATE ON view WHEN OLD.type IS NOT NEW.type OR "
         "OLD.elem_rules IS NOT NEW.elem_rules OR OLD.tkm_rules IS NOT NEW.tkm_rules OR "
         "OLD.load_rules IS NOT NEW.load_rules BEGIN " + log("-NEW.id");
  return sql;
}

tbs_uuid_s col_uuid(const Stmt& s, int col) {
  tbs_uuid_s u;
  s.blob16(col, u.bytes);
  return u;
}

#define SILO_COLS "id, tag, family, replica, storage, is_public, is_project, root_elem"
Silo silo_row(const Stmt& s) {
  Silo r;
  r.id = s.i64(0);
  r.tag = s.text(1);
  r.family = col_uuid(s, 2);
  r.replica = col_uuid(s, 3);
  r.storage = s.text(4);
  r.is_public = s.i64(5) != 0;
  r.is_project = s.i64(6) != 0;
  r.root_elem = s.i64(7);
  return r;
}

#define ELEM_COLS "id, silo, oid, kind, mode, created_s, created_us"
Element elem_row(const Stmt& s) {
  Element e;
  e.id = s.i64(0);
  e.silo = s.i64(1);
  e.oid = col_oid(s, 2);
  e.kind = int(s.i64(3));
  e.mode = uint32_t(s.i64(4));
  e.created = {time_t(s.i64(5)), suseconds_t(s.i64(6))};
  return e;
}

#define VER_COLS "id, elem, oid, branch, num, vstr, created_s, created_us, content, size, mode, co_view"
Version ver_row(const Stmt& s) {
  Version v;
  v.id = s.i64(0);
  v.elem = s.i64(1);
  v.oid = col_oid(s, 2);
  v.branch = s.i64(3);
  v.num = s.is_null(4) ? -1 : s.i64(4);
  v.vstr = s.text(5);
  v.created = {time_t(s.i64(6)), suseconds_t(s.i64(7))};
  v.content = s.is_null(8) ? 0 : s.i64(8);
  v.size = uint64_t(s.i64(9));
  v.mode = uint32_t(s.i64(10));
  v.co_view = s.is_null(11) ? 0 : s.i64(11);
  return v;
}

#define LINK_COLS "id, silo, oid, target, created_s, created_us"
Link link_row(const Stmt& s) {
  Link l;
  l.id = s.i64(0);
  l.silo = s.i64(1);
  l.oid = col_oid(s, 2);
  l.target = s.text(3);
  l.created = {time_t(s.i64(4)), suseconds_t(s.i64(5))};
  return l;
}

#define VIEW_COLS "id, uuid, type, elem_rules, tkm_rules, load_rules, gn_counter, committed_gn"
ViewRow view_row(const Stmt& s) {
  ViewRow v;
  v.id = s.i64(0);
  v.uuid = col_uuid(s, 1);
  v.type = s.text(2);
  v.elem_rules = s.text(3);
  v.tkm_rules = s.text(4);
  v.load_rules = s.text(5);
  v.gn_counter = s.i64(6);
  v.committed_gn = s.i64(7);
  return v;
}

}  // namespace

tbs_oid_s col_oid(const Stmt& s, int col) {
  tbs_oid_s o;
  s.blob16(col, o.bytes);
  return o;
}

ServedRow served_row(const Stmt& s) {
  ServedRow r;
  r.path = s.text(0);
  r.silo = s.i64(1);
  r.elem_oid = col_oid(s, 2);
  r.ver_oid = col_oid(s, 3);
  r.vstr = s.text(4);
  r.parent_oid = col_oid(s, 5);
  r.checked_out = s.i64(6) != 0;
  r.scope_oid = col_oid(s, 7);
  r.gn = s.i64(8);
  return r;
}

timeval now_timeval() {
  timeval tv;
  gettimeofday(&tv, nullptr);
  return tv;
}

// ---- SILOs ----

std::optional<Silo> Repo::silo_by_tag(const std::string& tag) {
  auto s = db_.stmt("SELECT " SILO_COLS " FROM silo WHERE tag=?");
  s.bind(1, tag);
  if (!s.step()) return std::nullopt;
  return silo_row(s);
}

std::optional<Silo> Repo::silo_by_replica(const tbs_uuid_s& replica) {
  auto s = db_.stmt("SELECT " SILO_COLS " FROM silo WHERE replica=?");
  s.bind_blob(1, replica.bytes, 16);
  if (!s.step()) return std::nullopt;
  return silo_row(s);
}

std::optional<Silo> Repo::silo_by_id(int64_t id) {
  auto s = db_.stmt("SELECT " SILO_COLS " FROM silo WHERE id=?");
  s.bind(1, id);
  if (!s.step()) return std::nullopt;
  return silo_row(s);
}

std::vector<Silo> Repo::silos() {
  std::vector<Silo> out;
  auto s = db_.stmt("SELECT " SILO_COLS " FROM silo ORDER BY tag");
  while (s.step()) out.push_back(silo_row(s));
  return out;
}

Silo Repo::create_silo(const std::string& tag, bool is_public, bool is_project, const std::string& storage,
                       timeval now) {
  if (silo_by_tag(tag)) fail(TBS_ST_EXISTS, "SILO " + tag + " exists");
  Silo r;
  r.tag = tag;
  r.family = tbs_uuid_create();
  r.replica = tbs_uuid_create();
  r.storage = storage;
  r.is_public = is_public;
  r.is_project = is_project;
  db_.stmt("INSERT INTO silo(tag, family, replica, storage, is_public, is_project) VALUES(?,?,?,?,?,?)")
      .bind(1, tag)
      .bind_blob(2, r.family.bytes, 16)
      .bind_blob(3, r.replica.bytes, 16)
      .bind(4, storage)
      .bind(5, is_public ? 1 : 0)
      .bind(6, is_project ? 1 : 0)
      .run();
  r.id = db_.last_rowid();
  Element root = new_element(r.id, KIND_DIR, 0555, now);
  Branch main = *branch_by_name(root.id, "main");
  new_version(root, main, 0, 0, 0555, now);
  db_.stmt("UPDATE silo SET root_elem=? WHERE id=?").bind(1, root.id).bind(2, r.id).run();
  r.root_elem = root.id;
  return r;
}

// ---- elements, versions, branches ----

std::optional<Element> Repo::element_by_oid(const tbs_oid_s& oid) {
  auto s = db_.stmt("SELECT " ELEM_COLS " FROM element WHERE oid=?");
  s.bind_blob(1, oid.bytes, 16);
  if (!s.step()) return std::nullopt;
  return elem_row(s);
}

Element Repo::element_by_id(int64_t id) {
  auto s = db_.stmt("SELECT " ELEM_COLS " FROM element WHERE id=?");
  s.bind(1, id);
  if (!s.step()) fail(TBS_ST_INTERNAL, "store: element row " + std::to_string(id) + " missing");
  return elem_row(s);
}

Element Repo::new_element(int64_t silo, int kind, uint32_t mode, timeval now) {
  Element e;
  e.silo = silo;
  e.oid = tbs_oid_create();
  e.kind = kind;
  e.mode = mode;
  e.created = now;
  db_.stmt("INSERT INTO element(silo, oid, kind, mode, created_s, created_us) VALUES(?,?,?,?,?,?)")
      .bind(1, silo)
      .bind_blob(2, e.oid.bytes, 16)
      .bind(3, kind)
      .bind(4, mode)
      .bind(5, int64_t(now.tv_sec))
      .bind(6, int64_t(now.tv_usec))
      .run();
  e.id = db_.last_rowid();
  db_.stmt("INSERT INTO branch(elem, name, path, sprout_version, next_num) VALUES(?, 'main', 'main', NULL, 1)")
      .bind(1, e.id)
      .run();
  return e;
}

std::optional<Version> Repo::version_by_oid(const tbs_oid_s& oid) {
  auto s = db_.stmt("SELECT " VER_COLS " FROM version WHERE oid=?");
  s.bind_blob(1, oid.bytes, 16);
  if (!s.step()) return std::nullopt;
  return ver_row(s);
}

Version Repo::version_by_id(int64_t id) {
  auto s = db_.stmt("SELECT " VER_COLS " FROM version WHERE id=?");
  s.bind(1, id);
  if (!s.step()) fail(TBS_ST_INTERNAL, "store: version row " + std::to_string(id) + " missing");
  return ver_row(s);
}

std::optional<Branch> Repo::branch_by_name(int64_t elem, const std::string& name) {
  auto s = db_.stmt("SELECT id, elem, name, path, next_num FROM branch WHERE elem=? AND name=?");
  s.bind(1, elem).bind(2, name);
  if (!s.step()) return std::nullopt;
  return Branch{s.i64(0), s.i64(1), s.text(2), s.text(3), s.i64(4)};
}

Branch Repo::branch_by_id(int64_t id) {
  auto s = db_.stmt("SELECT id, elem, name, path, next_num FROM branch WHERE id=?");
  s.bind(1, id);
  if (!s.step()) fail(TBS_ST_INTERNAL, "store: branch row missing");
  return Branch{s.i64(0), s.i64(1), s.text(2), s.text(3), s.i64(4)};
}

Branch Repo::make_branch(int64_t elem, const std::string& name, const Version& sprout) {
  if (branch_by_name(elem, name)) fail(TBS_ST_EXISTS, "branch " + name + " exists");
  Branch parent = branch_by_id(sprout.branch);
  Branch b;
  b.elem = elem;
  b.name = name;
  b.path = parent.path + "/" + name;
  b.next_num = 0;
  db_.stmt("INSERT INTO branch(elem, name, path, sprout_version, next_num) VALUES(?,?,?,?,0)")
      .bind(1, elem)
      .bind(2, name)
      .bind(3, b.path)
      .bind(4, sprout.id)
      .run();
  b.id = db_.last_rowid();
  return b;
}

std::optional<Version> Repo::latest(int64_t elem, const std::string& branch) {
  auto s = db_.stmt(
      "SELECT v.id, v.elem, v.oid, v.branch, v.num, v.vstr, v.created_s, v.created_us, v.content, v.size, v.mode, "
      "v.co_view FROM branch b JOIN version v ON v.branch=b.id WHERE b.elem=? AND b.name=? AND v.num IS NOT NULL "
      "ORDER BY v.num DESC LIMIT 1");
  s.bind(1, elem).bind(2, branch);
  if (!s.step()) return std::nullopt;
  return ver_row(s);
}

std::optional<Version> Repo::version_by_label(int64_t elem, const std::string& label) {
  auto s = db_.stmt("SELECT version FROM label WHERE elem=? AND name=?");
  s.bind(1, elem).bind(2, label);
  if (!s.step()) return std::nullopt;
  return version_by_id(s.i64(0));
}

std::optional<Version> Repo::version_by_vstr(int64_t elem, const std::string& vstr) {
  auto s = db_.stmt("SELECT " VER_COLS " FROM version WHERE elem=? AND vstr=? AND num IS NOT NULL");
  s.bind(1, elem).bind(2, vstr);
  if (!s.step()) return std::nullopt;
  return ver_row(s);
}

Version Repo::new_version(const Element& e, const Branch& branch, int64_t content, uint64_t size, uint32_t mode,
                          timeval now) {
  // Read the counter afresh: the caller's copy may be stale after an earlier version in this transaction.
  Branch b = branch_by_id(branch.id);
  Version v;
  v.elem = e.id;
  v.oid = tbs_oid_create();
  v.branch = b.id;
  v.num = b.next_num;
  v.vstr = b.path + "/" + std::to_string(b.next_num);
  v.created = now;
  v.content = content;
  v.size = size;
  v.mode = mode;
  auto s = db_.stmt(
      "INSERT INTO version(elem, oid, branch, num, vstr, created_s, created_us, content, size, mode, co_view) "
      "VALUES(?,?,?,?,?,?,?,?,?,?,NULL)");
  s.bind(1, e.id).bind_blob(2, v.oid.bytes, 16).bind(3, b.id).bind(4, v.num).bind(5, v.vstr);
  s.bind(6, int64_t(now.tv_sec)).bind(7, int64_t(now.tv_usec));
  if (content) s.bind(8, content);
  else s.bind_null(8);
  s.bind(9, int64_t(size)).bind(10, mode).run();
  v.id = db_.last_rowid();
  db_.stmt("UPDATE branch SET next_num=next_num+1 WHERE id=?").bind(1, b.id).run();
  return v;
}

Version Repo::new_checkout_version(const Element& e, const Version& base, int64_t view, timeval now) {
  Branch b = branch_by_id(base.branch);
  Version v = base;
  v.oid = tbs_oid_create();
  v.num = -1;
  v.vstr = b.path + "/checkout";
  v.created = now;
  v.co_view = view;
  auto s = db_.stmt(
      "INSERT INTO version(elem, oid, branch, num, vstr, created_s, created_us, content, size, mode, co_view) "
      "VALUES(?,?,?,NULL,?,?,?,?,?,?,?)");
  s.bind(1, e.id).bind_blob(2, v.oid.bytes, 16).bind(3, b.id).bind(4, v.vstr);
  s.bind(5, int64_t(now.tv_sec)).bind(6, int64_t(now.tv_usec));
  if (base.content) s.bind(7, base.content);
  else s.bind_null(7);
  s.bind(8, int64_t(base.size)).bind(9, base.mode).bind(10, view).run();
  v.id = db_.last_rowid();
  if (e.kind == KIND_DIR) copy_entries(base.id, v.id);
  return v;
}

void Repo::delete_checkout_version(const Version& v) {
  if (v.co_view == 0) fail(TBS_ST_INTERNAL, "store: only checkout versions are ever deleted");
  db_.stmt("DELETE FROM dir_entry WHERE dirver=?").bind(1, v.id).run();
  db_.stmt("DELETE FROM version WHERE id=?").bind(1, v.id).run();
}

// ---- content ----

int64_t Repo::put_content(const std::string& bytes) {
  unsigned char h[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), h);
  auto f = db_.stmt("SELECT id FROM content WHERE hash=?");
  f.bind_blob(1, h, sizeof h);
  if (f.step()) return f.i64(0);
  db_.stmt("INSERT INTO content(hash, size, data) VALUES(?,?,?)")
      .bind_blob(1, h, sizeof h)
      .bind(2, int64_t(bytes.size()))
      .bind_blob(3, bytes.data(), bytes.size())
      .run();
  return db_.last_rowid();
}

std::string Repo::content_bytes(int64_t content) {
  if (content == 0) return std::string();
  auto s = db_.stmt("SELECT data FROM content WHERE id=?");
  s.bind(1, content);
  if (!s.step()) fail(TBS_ST_INTERNAL, "store: content row missing");
  return s.blob(0);
}

// ---- links ----

std::optional<Link> Repo::link_by_oid(const tbs_oid_s& oid) {
  auto s = db_.stmt("SELECT " LINK_COLS " FROM symlink WHERE oid=?");
  s.bind_blob(1, oid.bytes, 16);
  if (!s.step()) return std::nullopt;
  return link_row(s);
}

Link Repo::link_by_id(int64_t id) {
  auto s = db_.stmt("SELECT " LINK_COLS " FROM symlink WHERE id=?");
  s.bind(1, id);
  if (!s.step()) fail(TBS_ST_INTERNAL, "store: link row missing");
  return link_row(s);
}

Link Repo::new_link(int64_t silo, const std::string& target, timeval now) {
  Link l;
  l.silo = silo;
  l.oid = tbs_oid_create();
  l.target = target;
  l.created = now;
  db_.stmt("INSERT INTO symlink(silo, oid, target, created_s, created_us) VALUES(?,?,?,?,?)")
      .bind(1, silo)
      .bind_blob(2, l.oid.bytes, 16)
      .bind(3, target)
      .bind(4, int64_t(now.tv_sec))
      .bind(5, int64_t(now.tv_usec))
      .run();
  l.id = db_.last_rowid();
  return l;
}

// ---- directory versions ----

std::optional<Entry> Repo::entry(int64_t dirver, const std::string& name) {
  auto s = db_.stmt("SELECT elem, link FROM dir_entry WHERE dirver=? AND name=?");
  s.bind(1, dirver).bind(2, name);
  if (!s.step()) return std::nullopt;
  return Entry{name, s.is_null(0) ? 0 : s.i64(0), s.is_null(1) ? 0 : s.i64(1)};
}

std::vector<Entry> Repo::entries(int64_t dirver) {
  std::vector<Entry> out;
  auto s = db_.stmt("SELECT name, elem, link FROM dir_entry WHERE dirver=? ORDER BY name");
  s.bind(1, dirver);
  while (s.step()) out.push_back(Entry{s.text(0), s.is_null(1) ? 0 : s.i64(1), s.is_null(2) ? 0 : s.i64(2)});
  return out;
}

void Repo::add_entry(int64_t dirver, const Entry& e) {
  auto s = db_.stmt("INSERT INTO dir_entry(dirver, name, elem, link) VALUES(?,?,?,?)");
  s.bind(1, dirver).bind(2, e.name);
  if (e.elem) s.bind(3, e.elem);
  else s.bind_null(3);
  if (e.link) s.bind(4, e.link);
  else s.bind_null(4);
  s.run();
}

bool Repo::remove_entry(int64_t dirver, const std::string& name) {
  db_.stmt("DELETE FROM dir_entry WHERE dirver=? AND name=?").bind(1, dirver).bind(2, name).run();
  return db_.changes() > 0;
}

void Repo::copy_entries(int64_t from, int64_t to) {
  db_.stmt("INSERT INTO dir_entry(dirver, name, elem, link) SELECT ?, name, elem, link FROM dir_entry WHERE dirver=?")
      .bind(1, to)
      .bind(2, from)
      .run();
}

std::vector<std::pair<int64_t, std::string>> Repo::parents_of_element(int64_t elem) {
  std::vector<std::pair<int64_t, std::string>> out;
  // Newest directory versions first: the one a view selects is usually among them.
  auto s = db_.stmt("SELECT dirver, name FROM dir_entry WHERE elem=? ORDER BY dirver DESC");
  s.bind(1, elem);
  while (s.step()) out.emplace_back(s.i64(0), s.text(1));
  return out;
}

std::vector<std::pair<int64_t, std::string>> Repo::parents_of_link(int64_t link) {
  std::vector<std::pair<int64_t, std::string>> out;
  auto s = db_.stmt("SELECT dirver, name FROM dir_entry WHERE link=?");
  s.bind(1, link);
  while (s.step()) out.emplace_back(s.i64(0), s.text(1));
  return out;
}

// ---- labels ----

void Repo::pause_change_log(bool paused) {
  if (paused) {
    db_.stmt("INSERT OR REPLACE INTO meta(key, value) VALUES('change_log_paused', '1')").run();
    return;
  }
  db_.stmt("DELETE FROM meta WHERE key='change_log_paused'").run();
  db_.stmt("DELETE FROM change_log WHERE elem=0").run();
  db_.stmt("INSERT INTO change_log(elem) VALUES(0)").run();
}

void Repo::apply_label(int64_t elem, const std::string& name, int64_t version) {
  db_.stmt("INSERT OR REPLACE INTO label(elem, name, version) VALUES(?,?,?)")
      .bind(1, elem)
      .bind(2, name)
      .bind(3, version)
      .run();
}

// ---- views ----

std::optional<ViewRow> Repo::view_by_uuid(const tbs_uuid_s& uuid) {
  auto s = db_.stmt("SELECT " VIEW_COLS " FROM view WHERE uuid=?");
  s.bind_blob(1, uuid.bytes, 16);
  if (!s.step()) return std::nullopt;
  return view_row(s);
}

ViewRow Repo::create_view(const tbs_uuid_s& uuid, const std::string& type) {
  db_.stmt("INSERT INTO view(uuid, type, elem_rules, tkm_rules, load_rules, gn_counter, committed_gn) "
           "VALUES(?,?,?,'','',0,0)")
      .bind_blob(1, uuid.bytes, 16)
      .bind(2, type)
      .bind(3, std::string(DEFAULT_ELEM_RULES))
      .run();
  return *view_by_uuid(uuid);
}

ViewRow Repo::view_get_or_create(const tbs_uuid_s& uuid) {
  if (auto v = view_by_uuid(uuid)) return *v;
  return create_view(uuid, "");
}

void Repo::set_view_rules(int64_t view, const std::string& elem_rules, const std::string& load_rules) {
  db_.stmt("UPDATE view SET elem_rules=?, load_rules=? WHERE id=?")
      .bind(1, elem_rules)
      .bind(2, load_rules)
      .bind(3, view)
      .run();
}

void Repo::set_view_type(int64_t view, const std::string& type, const std::string& tkm_rules) {
  db_.stmt("UPDATE view SET type=?, tkm_rules=? WHERE id=?").bind(1, type).bind(2, tkm_rules).bind(3, view).run();
}

int64_t Repo::bump_gn(int64_t view) {
  db_.stmt("UPDATE view SET gn_counter=gn_counter+1 WHERE id=? AND gn_counter < 2147483647").bind(1, view).run();
  if (db_.changes() != 1) fail(TBS_ST_INTERNAL, "view generation counter exhausted");
  auto s = db_.stmt("SELECT gn_counter FROM view WHERE id=?");
  s.bind(1, view);
  s.step();
  return s.i64(0);
}

std::vector<ViewRow> Repo::views() {
  std::vector<ViewRow> out;
  auto s = db_.stmt("SELECT " VIEW_COLS " FROM view ORDER BY id");
  while (s.step()) out.push_back(view_row(s));
  return out;
}

// ---- checkouts ----

std::optional<Checkout> Repo::checkout_of(int64_t view, int64_t elem) {
  auto s = db_.stmt("SELECT co_version, base_version FROM checkout WHERE view=? AND elem=?");
  s.bind(1, view).bind(2, elem);
  if (!s.step()) return std::nullopt;
  return Checkout{view, elem, s.i64(0), s.i64(1)};
}

void Repo::add_checkout(const Checkout& c) {
  db_.stmt("INSERT INTO checkout(view, elem, co_version, base_version) VALUES(?,?,?,?)")
      .bind(1, c.view)
      .bind(2, c.elem)
      .bind(3, c.co_version)
      .bind(4, c.base_version)
      .run();
}

void Repo::remove_checkout(int64_t view, int64_t elem) {
  db_.stmt("DELETE FROM checkout WHERE view=? AND elem=?").bind(1, view).bind(2, elem).run();
}

void Repo::set_checkout_version(int64_t view, int64_t elem, int64_t co_version) {
  db_.stmt("UPDATE checkout SET co_version=? WHERE view=? AND elem=?").bind(1, co_version).bind(2, view).bind(3, elem).run();
}

std::vector<Checkout> Repo::checkouts(int64_t view) {
  std::vector<Checkout> out;
  auto s = db_.stmt("SELECT elem, co_version, base_version FROM checkout WHERE view=?");
  s.bind(1, view);
  while (s.step()) out.push_back(Checkout{view, s.i64(0), s.i64(1), s.i64(2)});
  return out;
}

// ---- served set ----

void Repo::record_served(int64_t view, const ServedRow& r) {
  db_.stmt("INSERT OR REPLACE INTO served(view, path, silo, elem_oid, ver_oid, vstr, parent_oid, checked_out, "
           "scope_oid, gn) VALUES(?,?,?,?,?,?,?,?,?,?)")
      .bind(1, view)
      .bind(2, r.path)
      .bind(3, r.silo)
      .bind_blob(4, r.elem_oid.bytes, 16)
      .bind_blob(5, r.ver_oid.bytes, 16)
      .bind(6, r.vstr)
      .bind_blob(7, r.parent_oid.bytes, 16)
      .bind(8, r.checked_out ? 1 : 0)
      .bind_blob(9, r.scope_oid.bytes, 16)
      .bind(10, r.gn)
      .run();
}

bool Repo::served_unchanged(int64_t view, const ServedRow& r) {
  auto s = db_.stmt("SELECT silo, elem_oid, ver_oid, vstr, parent_oid, checked_out, scope_oid FROM served "
                    "WHERE view=? AND path=?");
  s.bind(1, view).bind(2, r.path);
  if (!s.step()) return false;
  return s.i64(0) == r.silo && col_oid(s, 1) == r.elem_oid && col_oid(s, 2) == r.ver_oid && s.text(3) == r.vstr &&
         col_oid(s, 4) == r.parent_oid && (s.i64(5) != 0) == r.checked_out && col_oid(s, 6) == r.scope_oid;
}

std::optional<std::string> Repo::served_path_of_version(int64_t view, const tbs_oid_s& elem_oid,
                                                         const tbs_oid_s& ver_oid) {
  auto s = db_.stmt("SELECT path FROM served INDEXED BY served_by_element WHERE view=? AND elem_oid=? AND ver_oid=? "
                    "LIMIT 1");
  s.bind(1, view).bind_blob(2, elem_oid.bytes, 16).bind_blob(3, ver_oid.bytes, 16);
  if (!s.step()) return std::nullopt;
  return s.text(0);
}

std::vector<ServedRow> Repo::served(int64_t view) {
  std::vector<ServedRow> out;
  auto s = db_.stmt("SELECT " TAVREL_SERVED_COLUMNS " FROM served WHERE view=? ORDER BY path");
  s.bind(1, view);
  while (s.step()) out.push_back(served_row(s));
  return out;
}

// ---- sessions ----

void Repo::put_session(const SessionRow& r) {
  db_.stmt("INSERT OR REPLACE INTO session(token, jsession, user, created, last_used) VALUES(?,?,?,?,?)")
      .bind(1, r.token)
      .bind(2, r.jsession)
      .bind(3, r.user)
      .bind(4, r.created)
      .bind(5, r.last_used)
      .run();
}

void Repo::delete_session(const std::string& token) {
  db_.stmt("DELETE FROM session WHERE token=?").bind(1, token).run();
}

void Repo::delete_all_sessions() { db_.stmt("DELETE FROM session").run(); }

void Repo::touch_session(const std::string& token, int64_t when) {
  db_.stmt("UPDATE session SET last_used=? WHERE token=?").bind(1, when).bind(2, token).run();
}

std::vector<SessionRow> Repo::sessions() {
  std::vector<SessionRow> out;
  auto s = db_.stmt("SELECT token, jsession, user, created, last_used FROM session");
  while (s.step()) out.push_back(SessionRow{s.text(0), s.text(1), s.text(2), s.i64(3), s.i64(4)});
  return out;
}

// ---- the store ----

Store::Store(const std::string& path, size_t pool_size) : path_(path), pool_size_(pool_size ? pool_size : 1) {
  bool existed = ::access(path.c_str(), F_OK) == 0;
  auto db = std::make_unique<SqliteDb>(path, true);
  // The store holds session tokens: a new store is owner-only (its journal files take the same mode).
  if (!existed) ::chmod(path.c_str(), 0600);
  // Stores made before updates were served hold an unused snapshot table of another shape.
  {
    auto t = db->stmt("SELECT count(*) FROM pragma_table_info('snapshot') WHERE name='action'");
    auto u = db->stmt("SELECT count(*) FROM sqlite_master WHERE name='snapshot'");
    t.step();
    u.step();
    bool old_shape = u.i64(0) != 0 && t.i64(0) == 0;
    db->reset_used();
    if (old_shape) db->exec("DROP TABLE snapshot");
  }
  db->exec(kSchema);
  db->exec(change_log_triggers().c_str());
  auto s = db->stmt("SELECT value FROM meta WHERE key='schema_version'");
  if (!s.step() || s.text(0) != "1") fail(TBS_ST_INTERNAL, "store " + path + " has an unknown schema version");
  pool_.push_back(std::move(db));
}

Store::~Store() = default;

Store::Lease::~Lease() {
  if (db_) store_->give_back(std::move(db_));
}

Store::Lease Store::lease() {
  {
    std::lock_guard<std::mutex> g(pool_mu_);
    if (!pool_.empty()) {
      auto db = std::move(pool_.back());
      pool_.pop_back();
      return Lease(this, std::move(db));
    }
  }
  return Lease(this, std::make_unique<SqliteDb>(path_, false));
}

void Store::give_back(std::unique_ptr<SqliteDb> db) {
  if (db->in_transaction()) return;  // never pool a connection left inside a transaction
  std::lock_guard<std::mutex> g(pool_mu_);
  if (pool_.size() < pool_size_) pool_.push_back(std::move(db));
}

}  // namespace tavrel_server
