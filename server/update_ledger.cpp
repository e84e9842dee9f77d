#include "server/update_ledger.h"

#include "proto/wan_names.h"

namespace tavrel_server {

namespace {

#define SNAP_COLS \
  "path, silo, elem_oid, ver_oid, vstr, prev_vstr, checked_out, parent_oid, is_link, elem, obj, action"

SnapRow snap_row(const Stmt& s) {
  SnapRow r;
  r.path = s.text(0);
  r.silo = s.i64(1);
  r.elem_oid = col_oid(s, 2);
  r.ver_oid = col_oid(s, 3);
  r.vstr = s.text(4);
  r.prev_vstr = s.text(5);
  r.checked_out = s.i64(6) != 0;
  r.parent_oid = col_oid(s, 7);
  r.is_link = s.i64(8) != 0;
  r.elem = s.i64(9);
  r.obj = s.i64(10);
  r.action = int(s.i64(11));
  return r;
}

void bind_snap(Stmt& s, int first, const SnapRow& r) {
  s.bind(first, r.path)
      .bind(first + 1, r.silo)
      .bind_blob(first + 2, r.elem_oid.bytes, 16)
      .bind_blob(first + 3, r.ver_oid.bytes, 16)
      .bind(first + 4, r.vstr)
      .bind(first + 5, r.prev_vstr)
      .bind(first + 6, r.checked_out ? 1 : 0)
      .bind_blob(first + 7, r.parent_oid.bytes, 16)
      .bind(first + 8, r.is_link ? 1 : 0)
      .bind(first + 9, r.elem)
      .bind(first + 10, r.obj)
      .bind(first + 11, r.action);
}

}  // namespace

void UpdateLedger::begin_pending(int64_t view, int64_t gn, const tbs_oid_s& scope, bool replace) {
  db_.stmt("INSERT OR REPLACE INTO pending_update(view, gn, scope_oid, replace) VALUES(?,?,?,?)")
      .bind(1, view)
      .bind(2, gn)
      .bind_blob(3, scope.bytes, 16)
      .bind(4, replace ? 1 : 0)
      .run();
}

void UpdateLedger::put(int64_t view, int64_t gn, const tbs_oid_s& scope, const std::vector<SnapRow>& rows) {
  for (const SnapRow& r : rows) {
    auto s = db_.stmt("INSERT OR IGNORE INTO snapshot(view, gn, scope_oid, " SNAP_COLS
                      ") VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)");
    s.bind(1, view).bind(2, gn).bind_blob(3, scope.bytes, 16);
    bind_snap(s, 4, r);
    s.run();
  }
}

void UpdateLedger::put_committed(int64_t view, const tbs_oid_s& scope, const SnapRow& row) {
  auto s = db_.stmt("INSERT OR REPLACE INTO snapshot(view, gn, scope_oid, " SNAP_COLS
                    ") VALUES(?,0,?,?,?,?,?,?,?,?,?,?,?,?,?)");
  s.bind(1, view).bind_blob(2, scope.bytes, 16);
  SnapRow r = row;
  r.action = SNAP_KEEP;
  bind_snap(s, 3, r);
  s.run();
}

std::vector<SnapRow> UpdateLedger::rows(int64_t view, int64_t gn, const tbs_oid_s& scope, int64_t silo,
                                        const std::string* after, int lo, int hi, size_t limit) {
  std::vector<SnapRow> out;
  auto s = after ? db_.stmt("SELECT " SNAP_COLS " FROM snapshot WHERE view=? AND gn=? AND scope_oid=? AND "
                            "path > ? AND action BETWEEN ? AND ? AND (?=0 OR silo=?) ORDER BY path LIMIT ?")
                 : db_.stmt("SELECT " SNAP_COLS " FROM snapshot WHERE view=? AND gn=? AND scope_oid=? AND "
                            "action BETWEEN ? AND ? AND (?=0 OR silo=?) ORDER BY path LIMIT ?");
  s.bind(1, view).bind(2, gn).bind_blob(3, scope.bytes, 16);
  int k = 4;
  if (after) s.bind(k++, *after);
  s.bind(k, lo).bind(k + 1, hi).bind(k + 2, silo).bind(k + 3, silo).bind(k + 4, int64_t(limit));
  while (s.step()) out.push_back(snap_row(s));
  return out;
}

std::string UpdateLedger::known_vstr(int64_t view, const std::string& path) {
  auto s = db_.stmt("SELECT vstr FROM served WHERE view=? AND path=?");
  s.bind(1, view).bind(2, path);
  if (s.step()) return s.text(0);
  auto t = db_.stmt("SELECT vstr FROM snapshot WHERE view=? AND gn=0 AND path=? LIMIT 1");
  t.bind(1, view).bind(2, path);
  return t.step() ? t.text(0) : std::string();
}

std::vector<ServedRow> UpdateLedger::auto_served(int64_t view, int64_t silo, const std::string* after, size_t limit) {
  std::vector<ServedRow> out;
  auto s = after ? db_.stmt("SELECT " TAVREL_SERVED_COLUMNS " FROM served WHERE view=? AND silo=? AND scope_oid=? AND "
                            "path > ? COLLATE tavrel_path ORDER BY path COLLATE tavrel_path LIMIT ?")
                 : db_.stmt("SELECT " TAVREL_SERVED_COLUMNS " FROM served WHERE view=? AND silo=? AND scope_oid=? "
                            "ORDER BY path COLLATE tavrel_path LIMIT ?");
  s.bind(1, view).bind(2, silo).bind_blob(3, AUTOMATIC_LOAD_SCOPE_OID.bytes, 16);
  if (after) s.bind(4, *after).bind(5, int64_t(limit));
  else s.bind(4, int64_t(limit));
  while (s.step()) out.push_back(served_row(s));
  return out;
}

std::vector<ServedRow> UpdateLedger::auto_unrecorded(int64_t view, int64_t gn, int64_t silo, const std::string& after,
                                                     size_t limit) {
  std::vector<ServedRow> out;
  auto s = db_.stmt("SELECT " TAVREL_SERVED_COLUMNS " FROM served s WHERE view=? AND silo=? AND scope_oid=? AND "
                    "path > ? COLLATE tavrel_path AND NOT EXISTS(SELECT 1 FROM snapshot n WHERE n.view=s.view AND "
                    "n.gn=? AND n.scope_oid=s.scope_oid AND n.path=s.path) ORDER BY path COLLATE tavrel_path LIMIT ?");
  s.bind(1, view).bind(2, silo).bind_blob(3, AUTOMATIC_LOAD_SCOPE_OID.bytes, 16).bind(4, after).bind(5, gn);
  s.bind(6, int64_t(limit));
  while (s.step()) out.push_back(served_row(s));
  return out;
}

std::vector<int64_t> UpdateLedger::auto_silos(int64_t view) {
  std::vector<int64_t> out;
  // One probe of the served set's (view, silo, scope) index per SILO, not a scan of the view's names.
  auto s = db_.stmt("SELECT id FROM silo s WHERE EXISTS(SELECT 1 FROM served WHERE view=? AND silo=s.id AND "
                    "scope_oid=?) ORDER BY id");
  s.bind(1, view).bind_blob(2, AUTOMATIC_LOAD_SCOPE_OID.bytes, 16);
  while (s.step()) out.push_back(s.i64(0));
  return out;
}

int64_t UpdateLedger::change_seq() {
  auto s = db_.stmt("SELECT seq FROM sqlite_sequence WHERE name='change_log'");
  return s.step() ? s.i64(0) : 0;
}

void UpdateLedger::note_stream_seq(int64_t view, int64_t gn, int64_t seq) {
  db_.stmt("INSERT OR REPLACE INTO pending_seq(view, gn, seq) VALUES(?,?,?)").bind(1, view).bind(2, gn).bind(3, seq).run();
}

std::optional<int64_t> UpdateLedger::committed_seq(int64_t view, const tbs_oid_s& scope) {
  auto s = db_.stmt("SELECT seq FROM scope_seq WHERE view=? AND scope_oid=?");
  s.bind(1, view).bind_blob(2, scope.bytes, 16);
  if (s.step()) return s.i64(0);
  return std::nullopt;
}

std::optional<std::vector<int64_t>> UpdateLedger::changed_elements(int64_t view, int64_t since, size_t limit) {
  std::vector<int64_t> out;
  auto s = db_.stmt("SELECT elem FROM change_log WHERE seq > ? LIMIT ?");
  s.bind(1, since).bind(2, int64_t(limit) + 1);
  while (s.step()) {
    int64_t e = s.i64(0);
    if (e == 0 || e == -view) return std::nullopt;
    if (e > 0) out.push_back(e);
  }
  if (out.size() > limit) return std::nullopt;
  return out;
}

SnapRow snap_of_served(const ServedRow& r) {
  SnapRow s;
  s.path = r.path;
  s.silo = r.silo;
  s.elem_oid = r.elem_oid;
  s.ver_oid = r.ver_oid;
  s.vstr = s.prev_vstr = r.vstr;
  s.parent_oid = r.parent_oid;
  s.checked_out = r.checked_out;
  return s;
}

std::vector<std::string> UpdateLedger::committed_paths_of(int64_t view, const tbs_oid_s& scope, int64_t silo,
                                                          int64_t elem) {
  std::vector<std::string> out;
  auto s = scope == AUTOMATIC_LOAD_SCOPE_OID
               ? db_.stmt("SELECT path FROM served INDEXED BY served_by_element WHERE view=? AND scope_oid=? AND "
                          "silo=? AND elem_oid=(SELECT oid FROM element WHERE id=?)")
               : db_.stmt("SELECT path FROM snapshot INDEXED BY snapshot_committed_by_element WHERE view=? AND "
                          "scope_oid=? AND gn = 0 AND silo=? AND elem=?");
  s.bind(1, view).bind_blob(2, scope.bytes, 16).bind(3, silo).bind(4, elem);
  while (s.step()) out.push_back(s.text(0));
  return out;
}

std::optional<SnapRow> UpdateLedger::committed_at(int64_t view, const tbs_oid_s& scope, int64_t silo,
                                                  const std::string& path) {
  if (scope == AUTOMATIC_LOAD_SCOPE_OID) {
    auto s = db_.stmt("SELECT " TAVREL_SERVED_COLUMNS " FROM served WHERE view=? AND path=? AND scope_oid=? AND silo=?");
    s.bind(1, view).bind(2, path).bind_blob(3, scope.bytes, 16).bind(4, silo);
    if (s.step()) return snap_of_served(served_row(s));
    return std::nullopt;
  }
  auto s = db_.stmt("SELECT " SNAP_COLS " FROM snapshot WHERE view=? AND gn=0 AND scope_oid=? AND path=? AND silo=?");
  s.bind(1, view).bind_blob(2, scope.bytes, 16).bind(3, path).bind(4, silo);
  if (s.step()) return snap_row(s);
  return std::nullopt;
}

std::vector<SnapRow> UpdateLedger::committed_after(int64_t view, const tbs_oid_s& scope, int64_t silo,
                                                   const std::string& after, size_t limit) {
  if (scope != AUTOMATIC_LOAD_SCOPE_OID) return rows(view, 0, scope, silo, &after, SNAP_KEEP, SNAP_FORGET, limit);
  std::vector<SnapRow> out;
  for (const ServedRow& r : auto_served(view, silo, &after, limit)) out.push_back(snap_of_served(r));
  return out;
}

bool UpdateLedger::is_pending(int64_t view, int64_t gn) {
  auto s = db_.stmt("SELECT 1 FROM pending_update WHERE view=? AND gn=? LIMIT 1");
  s.bind(1, view).bind(2, gn);
  return s.step();
}

bool UpdateLedger::commit(int64_t view, int64_t gn) {
  if (!is_pending(view, gn)) return false;
  std::vector<std::pair<tbs_oid_s, bool>> scopes;
  {
    auto s = db_.stmt("SELECT scope_oid, replace FROM pending_update WHERE view=? AND gn=?");
    s.bind(1, view).bind(2, gn);
    while (s.step()) scopes.push_back({col_oid(s, 0), s.i64(1) != 0});
  }
  for (const auto& [scope, replace] : scopes) {
    // Names the stream removed leave the served set, whatever scope served them.
    db_.stmt("DELETE FROM served WHERE view=? AND path IN (SELECT path FROM snapshot WHERE view=? AND gn=? AND "
             "scope_oid=? AND action>=?)")
        .bind(1, view)
        .bind(2, view)
        .bind(3, gn)
        .bind_blob(4, scope.bytes, 16)
        .bind(5, SNAP_UNLOAD)
        .run();
    if (scope == AUTOMATIC_LOAD_SCOPE_OID) {
      // Names the view held already change in place: a new version leaves the path, SILO, scope and
      // element as they are, and the statement assigns none of them, so no index is written again. The
      // rest (a new name, or another element under the name) go in whole.
      db_.stmt("UPDATE served SET ver_oid=n.ver_oid, vstr=n.vstr, parent_oid=n.parent_oid, "
               "checked_out=n.checked_out, gn=n.gn FROM (SELECT path, silo, elem_oid, ver_oid, vstr, parent_oid, "
               "checked_out, gn FROM snapshot WHERE view=?1 AND gn=?2 AND scope_oid=?3 AND action<?4) n WHERE "
               "served.view=?1 AND served.path=n.path AND served.silo=n.silo AND served.scope_oid IS ?3 AND "
               "served.elem_oid IS n.elem_oid AND NOT (served.ver_oid IS n.ver_oid AND served.vstr IS n.vstr AND "
               "served.parent_oid IS n.parent_oid AND served.checked_out=n.checked_out)")
          .bind(1, view)
          .bind(2, gn)
          .bind_blob(3, scope.bytes, 16)
          .bind(4, SNAP_UNLOAD)
          .run();
      db_.stmt("INSERT OR REPLACE INTO served(view, path, silo, elem_oid, ver_oid, vstr, parent_oid, checked_out, "
               "scope_oid, gn) SELECT view, path, silo, elem_oid, ver_oid, vstr, parent_oid, checked_out, scope_oid, "
               "gn FROM snapshot n WHERE view=?1 AND gn=?2 AND scope_oid=?3 AND action<?4 AND NOT EXISTS(SELECT 1 "
               "FROM served s WHERE s.view=n.view AND s.path=n.path AND s.silo=n.silo AND s.scope_oid IS n.scope_oid AND "
               "s.elem_oid IS n.elem_oid)")
          .bind(1, view)
          .bind(2, gn)
          .bind_blob(3, scope.bytes, 16)
          .bind(4, SNAP_UNLOAD)
          .run();
      continue;
    }
    if (replace)
      db_.stmt("DELETE FROM snapshot WHERE view=? AND gn=0 AND scope_oid=?").bind(1, view).bind_blob(2, scope.bytes, 16).run();
    db_.stmt("DELETE FROM snapshot WHERE view=? AND gn=0 AND scope_oid=? AND path IN (SELECT path FROM snapshot "
             "WHERE view=? AND gn=? AND scope_oid=? AND action>=?)")
        .bind(1, view)
        .bind_blob(2, scope.bytes, 16)
        .bind(3, view)
        .bind(4, gn)
        .bind_blob(5, scope.bytes, 16)
        .bind(6, SNAP_UNLOAD)
        .run();
    db_.stmt("INSERT OR REPLACE INTO snapshot(view, gn, scope_oid, " SNAP_COLS ") SELECT view, 0, scope_oid, path, silo, "
             "elem_oid, ver_oid, vstr, vstr, checked_out, parent_oid, is_link, elem, obj, 0 FROM snapshot "
             "WHERE view=? AND gn=? AND scope_oid=? AND action<?")
        .bind(1, view)
        .bind(2, gn)
        .bind_blob(3, scope.bytes, 16)
        .bind(4, SNAP_UNLOAD)
        .run();
  }
  {
    auto s = db_.stmt("SELECT seq FROM pending_seq WHERE view=? AND gn=?");
    s.bind(1, view).bind(2, gn);
    std::optional<int64_t> seq;
    if (s.step()) seq = s.i64(0);
    for (const auto& scope : scopes) {
      if (seq)
        db_.stmt("INSERT OR REPLACE INTO scope_seq(view, scope_oid, seq) VALUES(?,?,?)")
            .bind(1, view)
            .bind_blob(2, scope.first.bytes, 16)
            .bind(3, *seq)
            .run();
      else
        db_.stmt("DELETE FROM scope_seq WHERE view=? AND scope_oid=?").bind(1, view).bind_blob(2, scope.first.bytes, 16).run();
    }
  }
  db_.stmt("DELETE FROM snapshot WHERE view=? AND gn>0 AND gn<=?").bind(1, view).bind(2, gn).run();
  db_.stmt("DELETE FROM pending_update WHERE view=? AND gn<=?").bind(1, view).bind(2, gn).run();
  db_.stmt("DELETE FROM pending_seq WHERE view=? AND gn<=?").bind(1, view).bind(2, gn).run();
  // The log up to the oldest position still needed goes.
  db_.stmt("DELETE FROM change_log WHERE seq <= coalesce((SELECT min(seq) FROM (SELECT seq FROM scope_seq UNION ALL "
           "SELECT seq FROM pending_seq)), seq)")
      .run();
  db_.stmt("UPDATE view SET committed_gn=? WHERE id=?").bind(1, gn).bind(2, view).run();
  return true;
}

void UpdateLedger::prune(int64_t view, size_t keep) {
  auto s = db_.stmt("SELECT DISTINCT gn FROM pending_update WHERE view=? ORDER BY gn DESC");
  s.bind(1, view);
  std::vector<int64_t> gns;
  while (s.step()) gns.push_back(s.i64(0));
  for (size_t i = keep; i < gns.size(); ++i) {
    db_.stmt("DELETE FROM snapshot WHERE view=? AND gn=?").bind(1, view).bind(2, gns[i]).run();
    db_.stmt("DELETE FROM pending_update WHERE view=? AND gn=?").bind(1, view).bind(2, gns[i]).run();
    db_.stmt("DELETE FROM pending_seq WHERE view=? AND gn=?").bind(1, view).bind(2, gns[i]).run();
  }
}

// The two queries below run for every listing and metadata reply while a stream waits for its commit,
// that is after every update until the next. They go through the partial index of pending unloads
// (store.cpp); its condition "gn > 0 AND action >= 2" must appear in them word for word, and INDEXED BY
// makes a statement that cannot use it fail to prepare instead of scanning the whole stream.
static_assert(SNAP_UNLOAD == 2 && SNAP_FORGET > SNAP_UNLOAD, "the tombstone index holds actions >= 2");

bool UpdateLedger::has_auto_tombstones(int64_t view) {
  auto s = db_.stmt("SELECT 1 FROM snapshot s INDEXED BY snapshot_auto_tombstones WHERE s.view=? AND "
                    "s.scope_oid=? AND s.gn > 0 AND s.action >= 2 AND EXISTS(SELECT 1 FROM pending_update p "
                    "WHERE p.view=s.view AND p.gn=s.gn AND p.scope_oid=s.scope_oid) LIMIT 1");
  s.bind(1, view).bind_blob(2, AUTOMATIC_LOAD_SCOPE_OID.bytes, 16);
  return s.step();
}

void UpdateLedger::clear_auto_tombstone(int64_t view, const std::string& path) {
  db_.stmt("DELETE FROM snapshot INDEXED BY snapshot_auto_tombstones WHERE view=? AND gn > 0 AND scope_oid=? AND "
           "path=? AND action >= 2")
      .bind(1, view)
      .bind_blob(2, AUTOMATIC_LOAD_SCOPE_OID.bytes, 16)
      .bind(3, path)
      .run();
}

}  // namespace tavrel_server
