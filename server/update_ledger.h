// What the server remembers of a view's update streams, so that the next stream sends only what the
// agent lacks, and a stream the agent did not finish is sent again.
//
// Per view, in the store (tables snapshot and pending_update, see store.h):
//   - the committed state of each load-rule scope: snapshot rows with gn 0, one per path the agent
//     holds in that scope (element, version, version string, checked-out state, parent element);
//   - the committed state of the automatic scope: the served set (store.h), which on-demand replies
//     also write;
//   - per stream not yet committed, its GN G: one pending_update row per scope it carried, and snapshot
//     rows with gn G holding what the stream changes in the scope. Each row carries an action: SEND
//     (sent as an object), UNLOAD (sent as an unload), FORGET (gone, not sent because the agent no
//     longer has it) or KEEP (held by the agent, written by an on-demand reply). Unchanged names
//     have no row. A scope marked "replace" was loaded from nothing: its committed rows all go.
//     A stream that sends every name (a first load, Force) sends the unchanged names of the automatic
//     scope straight from the served set (auto_unrecorded), so it records only what differs there too:
//     a first load of a view that has met every name on demand writes next to nothing, and its commit
//     has next to nothing to apply.
//
// Commit: the agent stores a stream's GN only after applying all of it, and names it as ViewGn in its
// next update request; commit(view, G) then applies G's rows to the committed state (removing
// unloaded and forgotten paths, setting the others) and drops every state with GN <= G. A stream never named is never committed, so the next diff starts again from the last
// committed state and resends whatever the unfinished stream carried.
//
// An on-demand reply tells the agent about a name at once. clear_auto_tombstone() keeps a pending
// unload of that name in the automatic scope from deleting it from the served set at commit.
//
// Change-log positions: a stream notes the position of the store's change log (store.h) it was worked
// out at; commit makes that the position of each scope it carried. Every committed row was then true
// of the store at or after its scope's position, so a later stream needs to look again only at the
// names whose elements the log names since (scope_delta.h). The log is pruned up to the oldest
// position any view's pending stream or committed scope still needs.
//
// Rows are read in path order (path_order.h) by keyset paging, so no caller holds a whole scope.
// A ledger works through one connection inside the caller's transaction.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/tbs.h"
#include "server/sqlite_db.h"
#include "server/store.h"

namespace tavrel_server {

enum SnapAction : int { SNAP_KEEP = 0, SNAP_SEND = 1, SNAP_UNLOAD = 2, SNAP_FORGET = 3 };

struct SnapRow {
  std::string path;
  int64_t silo = 0;
  tbs_oid_s elem_oid{}, ver_oid{}, parent_oid{};
  std::string vstr, prev_vstr;
  bool checked_out = false, is_link = false;
  int64_t elem = 0, obj = 0;  // element and version ids, or 0 and the link id; 0 when not known
  int action = SNAP_KEEP;
};

// A served row as a ledger row (element id and object unknown: 0).
SnapRow snap_of_served(const ServedRow& r);

class UpdateLedger {
 public:
  explicit UpdateLedger(SqliteDb& db) : db_(db) {}

  // Notes that stream `gn` of `view` carries `scope`; `replace`: the scope's rows were all sent anew.
  void begin_pending(int64_t view, int64_t gn, const tbs_oid_s& scope, bool replace);
  // Adds rows to the state (view, gn, scope); a row already there for a path is kept (an on-demand
  // reply written meanwhile is newer than the stream's reading).
  void put(int64_t view, int64_t gn, const tbs_oid_s& scope, const std::vector<SnapRow>& rows);
  // Sets one row of the committed state of load-rule scope `scope`.
  void put_committed(int64_t view, const tbs_oid_s& scope, const SnapRow& row);

  // Rows of (view, gn, scope) in SILO `silo` (any when 0) after `after` (from the start when null) in
  // path order whose action lies in [lo, hi]; at most `limit`.
  std::vector<SnapRow> rows(int64_t view, int64_t gn, const tbs_oid_s& scope, int64_t silo, const std::string* after,
                            int lo, int hi, size_t limit);
  // The version string the agent holds at `path` as far as the committed state knows, else "".
  std::string known_vstr(int64_t view, const std::string& path);
  // Served rows of `silo` in the automatic scope, after `after` in path order; at most `limit`.
  std::vector<ServedRow> auto_served(int64_t view, int64_t silo, const std::string* after, size_t limit);
  // Served rows of `silo` in the automatic scope after `after` in path order ("" sorts first) for which
  // stream `gn` holds no row; at most `limit`.
  std::vector<ServedRow> auto_unrecorded(int64_t view, int64_t gn, int64_t silo, const std::string& after,
                                         size_t limit);
  // SILOs of which the view holds names in the automatic scope.
  std::vector<int64_t> auto_silos(int64_t view);

  // The change log's last position (0 when nothing was logged).
  int64_t change_seq();
  // Notes that stream `gn` of `view` was worked out from the store as it stood at least at `seq`.
  void note_stream_seq(int64_t view, int64_t gn, int64_t seq);
  // The position the committed state of `scope` is up to date with; nullopt when not known.
  std::optional<int64_t> committed_seq(int64_t view, const tbs_oid_s& scope);
  // Element ids the log names after `since`; nullopt when a change there concerns every name of
  // `view` (a SILO, a link or the view's rules) or more than `limit` elements changed.
  std::optional<std::vector<int64_t>> changed_elements(int64_t view, int64_t since, size_t limit);

  // The committed state of a scope in SILO `silo`, read by path: for the automatic scope the served
  // set, otherwise the snapshot rows of gn 0. Paths holding element `elem`; the row at `path`; at most
  // `limit` rows after `after` in path order.
  std::vector<std::string> committed_paths_of(int64_t view, const tbs_oid_s& scope, int64_t silo, int64_t elem);
  std::optional<SnapRow> committed_at(int64_t view, const tbs_oid_s& scope, int64_t silo, const std::string& path);
  std::vector<SnapRow> committed_after(int64_t view, const tbs_oid_s& scope, int64_t silo, const std::string& after,
                                       size_t limit);

  bool is_pending(int64_t view, int64_t gn);
  // Makes stream `gn` committed (see above) and the view's committed GN; false when it is not pending.
  bool commit(int64_t view, int64_t gn);
  // Drops all but the `keep` newest pending streams of the view.
  void prune(int64_t view, size_t keep);

  // Whether any pending stream of the view unloads a name of the automatic scope.
  bool has_auto_tombstones(int64_t view);
  // The agent holds `path` again: no pending stream may forget it.
  void clear_auto_tombstone(int64_t view, const std::string& path);

 private:
  SqliteDb& db_;
};

}  // namespace tavrel_server
