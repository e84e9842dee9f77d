// Load scopes (VNS_DB_LR_SCOPE) and their operations, and the view row (VNS_DB_VIEW).
#include <algorithm>
#include <cstring>
#include <set>
#include <utility>

#include "core/tavrel_trace.h"
#include "db/rec/dt.h"
#include "db/tavrel_engine_db.h"
#include "db/tavrel_engine_utls.h"
#include "db/tvr_db_bytes.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_vns.h"
#include "db/tvr_db_vns_int.h"
#include "proto/wan_names.h"

using namespace tvr_vns;

namespace {

constexpr size_t SCOPE_NAME_MAX = sizeof(tavrel_scope::name) - 1;

int scope_row(const tbs_oid_s& oid, vns_db_lr_scope* row, DB_ADDR* dba, const char* label) {
  bool found = false;
  int st = find(VNS_LR_SCOPE_OID, &oid, &found, dba, label);
  if (st != 0) return st;
  if (!found) return TBS_ST_NOT_FOUND;
  return read(*dba, row, label);
}

int fill_scope(DB_ADDR dba, const vns_db_lr_scope& row, tavrel_scope* out) {
  out->oid = row.scope_oid;
  out->oid2 = TBS_OID_NULL;
  out->gn = row.gn;
  return tvr_db_get_lr_scope_name(dba, sizeof(out->name), out->name);
}

// Sets generation, finished generation and (state >= 0) the operation state.
int begin_op(const tbs_oid_s& oid, uint32_t gn, int state) {
  tvr_db_trans_write_check();
  vns_db_lr_scope row{};
  DB_ADDR dba = 0;
  int st = scope_row(oid, &row, &dba, "SET_LR_SCOPE");
  if (st != 0) return st;
  row.gn = gn;
  row.finished_gn = gn - 1;
  if (state >= 0) row.op_state = static_cast<uint16_t>(state);
  return write(dba, &row, "SET_LR_SCOPE");
}

int finish_op(DB_ADDR dba, uint32_t gn, bool keep_state, const char* label) {
  vns_db_lr_scope row{};
  int st = read(dba, &row, label);
  if (st != 0) return st;
  row.finished_gn = gn;
  if (!keep_state) row.op_state = 0;
  return write(dba, &row, label);
}

// Applies a directory's saved rddir state at the end of a scope operation. `load`: the end of a load (only
// state 3 moves); otherwise the end of an update (every state moves).
int move_saved_state(DB_ADDR silo_dba, uint32_t dbid, bool load, const char* label, bool* moved = nullptr) {
  Tavrel_Trace trace(TAVREL_DB, "", "move_saved_state");
  vns_db_dir_ver dir{};
  bool found = false;
  DB_ADDR dba = 0;
  int st = read_by_dbid(VNS_DIR_VER_KEY, silo_dba, dbid, &dir, &found, &dba, label);
  if (st != 0 || !found) return st;
  if (dir.saved_rddir_state == 0 || (load && dir.saved_rddir_state != 3)) return 0;
  if (moved != nullptr) *moved = true;
  trace.writeTrace(TRACE_LEVEL_4, "nsdir ver dbid %d old done=%d old save=%d", dbid, dir.rddir_done,
                   dir.saved_rddir_state);
  bool done = dir.saved_rddir_state == 2 || dir.saved_rddir_state == 3;
  dir.rddir_done = done ? 1 : 0;
  dir.saved_rddir_state = 0;
  trace.writeTrace(TRACE_LEVEL_4, "nsdir ver dbid %d new done=%d new save=%d", dbid, dir.rddir_done,
                   dir.saved_rddir_state);
  if ((st = write(dba, &dir, label)) != 0) return st;
  if (done && !load) return tvr_db_mark_sub_ver_stale(silo_dba, dbid, 0);
  return 0;
}

// Removes gathered name rows: versions and links now, directories afterwards from the back of the list,
// so that children (connected after their parents) go first. Rows already gone with a subtree are skipped.
// With `clear_parent` each removal first clears the parent directory's rddir_done.
int remove_rows(const std::vector<DB_ADDR>& rows, bool clear_parent, const char* label) {
  std::vector<DB_ADDR> dirs;
  auto remove_one = [&](DB_ADDR at) -> int {
    vns_db_dir_ver_ent row{};
    bool gone = false;
    int st = read(at, &row, label, &gone);
    if (st != 0 || gone) return st;
    if (clear_parent && row.dir_dbid != 0) {
      if ((st = tvr_db_ver_set_readdir_done_only(row.silo_dba, row.dir_dbid, 0)) != 0) return st;
    }
    bool went_stale = false;
    return tvr_db_remove_version(row.silo_dba, row.obj_dbid, static_cast<silo_mtype_t>(row.mtype), row.dir_dbid, at,
                                 went_stale);
  };
  for (DB_ADDR at : rows) {
    vns_db_dir_ver_ent row{};
    bool gone = false;
    int st = read(at, &row, "SCOPE_REMOVE_VER", &gone);
    if (st != 0) return st;
    if (gone) continue;
    if (row.mtype == SILO_MTYPE_DIR_VER) {
      dirs.push_back(at);
      continue;
    }
    if ((st = remove_one(at)) != 0) return st;
  }
  for (auto it = dirs.rbegin(); it != dirs.rend(); ++it) {
    int st = remove_one(*it);
    if (st != 0) return st;
  }
  return 0;
}

}  // namespace

// ---- view row ----------------------------------------------------------------------------------------------------
static int view_row(vns_db_view* row, DB_ADDR* dba, bool* found, const char* label) {
  *found = false;
  int st = dt_recfrst(VNS_DB_VIEW, view_db_task, -1);
  if (st == S_NOTFOUND) return 0;
  if (st != S_OKAY) return tvr_engine_err("D_RECFRST", label, st);
  if ((st = dt_crget(dba, view_db_task, -1)) != S_OKAY) return tvr_engine_err("D_CRGET", label, st);
  if ((st = dt_recread(row, view_db_task, -1)) != S_OKAY) return tvr_engine_err("D_RECREAD", label, st);
  *found = true;
  return 0;
}

int tvr_db_create_vns_view(const tbs_uuid_s& uuid, uint32_t gn) {
  tvr_db_trans_write_check();
  vns_db_view row{};
  DB_ADDR dba = 0;
  bool found = false;
  int st = view_row(&row, &dba, &found, "CREATE_VNS_VIEW");
  if (st != 0) return st;
  if (found) {
    row.view_gn = gn;
    return write(dba, &row, "CREATE_VNS_VIEW");
  }
  row.view_uuid = uuid;
  row.view_gn = gn;
  row.initial_gn = gn;
  return store(VNS_DB_VIEW, &row, &dba, "CREATE_VNS_VIEW");
}

int tvr_db_get_vns_view(tbs_uuid_s* uuid, uint32_t* gn, uint32_t* initial_gn) {
  tvr_db_trans_read_check();
  vns_db_view row{};
  DB_ADDR dba = 0;
  bool found = false;
  int st = view_row(&row, &dba, &found, "GET_VIEW_GN");
  if (st != 0) return st;
  if (!found) return TBS_ST_NOT_FOUND;
  if (uuid != nullptr) *uuid = row.view_uuid;
  if (gn != nullptr) *gn = row.view_gn;
  if (initial_gn != nullptr) *initial_gn = row.initial_gn;
  return 0;
}

int tvr_db_get_vns_view_gn(uint32_t* gn) { return tvr_db_get_vns_view(nullptr, gn, nullptr); }

int tvr_db_set_vns_view_gn(uint32_t gn) {
  tvr_db_trans_write_check();
  vns_db_view row{};
  DB_ADDR dba = 0;
  bool found = false;
  int st = view_row(&row, &dba, &found, "SET_VIEW_GN");
  if (st != 0) return st;
  if (!found) return TBS_ST_NOT_FOUND;
  st = dt_crset(&dba, view_db_task, -1);
  if (st == S_OKAY) st = dt_crwrite(VNS_VIEW_GN, &gn, view_db_task, -1);
  if (st != S_OKAY) return tvr_engine_err("D_CRWRITE", "SET_VIEW_GN", st);
  return 0;
}

// ---- scope rows --------------------------------------------------------------------------------------------------
bool tvr_db_is_def_scope(const tbs_oid_s& oid) { return oid == AUTOMATIC_LOAD_SCOPE_OID; }

int tvr_db_create_def_scope() {
  tvr_db_trans_write_check();
  DB_ADDR dba = 0;
  bool found = false;
  int st = find(VNS_LR_SCOPE_OID, &AUTOMATIC_LOAD_SCOPE_OID, &found, &dba, "DEF_SCOPE_OID");
  if (st != 0 || found) return st;
  return tvr_db_create_lr_scope(AUTOMATIC_LOAD_SCOPE_OID, 1, TVR_DB_DEF_SCOPE_NAME);
}

int tvr_db_create_lr_scope(const tbs_oid_s& oid, uint32_t gn, const char* name) {
  tvr_db_trans_write_check();
  size_t len = name != nullptr ? std::strlen(name) : 0;
  if (len > SCOPE_NAME_MAX) return TBS_ST_TOO_LONG;
  vns_db_lr_scope row{};
  DB_ADDR dba = 0;
  int st = scope_row(oid, &row, &dba, "CREATE-LR-SCOPE");
  if (st == 0) {
    row.gn = gn;
    row.finished_gn = gn - 1;
    row.op_state = 0;
    return write(dba, &row, "CREATE-LR-SCOPE");
  }
  if (st != TBS_ST_NOT_FOUND) return st;
  row = vns_db_lr_scope{};
  row.scope_oid = oid;
  row.name_hash = tvr_db_hash_name(name != nullptr ? name : "", len);
  row.gn = gn;
  row.finished_gn = gn - 1;
  row.name_len = static_cast<uint32_t>(len);
  std::memcpy(row.name, name != nullptr ? name : "", std::min<size_t>(len, LR_SCOPE_NAME_INLINE));
  if ((st = store(VNS_DB_LR_SCOPE, &row, &dba, "CREATE-LR-SCOPE")) != 0) return st;
  if (len > LR_SCOPE_NAME_INLINE) {
    if ((st = store_tail(dba, name, len, LR_SCOPE_NAME_INLINE, &row.name_bytes_dba)) != 0) return st;
    return write(dba, &row, "CREATE-LR-SCOPE");
  }
  return 0;
}

int tvr_db_lookup_lr_scope_oid(const tbs_oid_s& oid, DB_ADDR* dba) {
  tvr_db_trans_read_check();
  bool found = false;
  int st = find(VNS_LR_SCOPE_OID, &oid, &found, dba, "LOOKUP_SCOPE");
  if (st != 0) return st;
  return found ? 0 : TBS_ST_NOT_FOUND;
}

int tvr_db_lookup_lr_scope_name(const char* name, DB_ADDR* dba) {
  tvr_db_trans_read_check();
  size_t len = std::strlen(name);
  if (len > SCOPE_NAME_MAX) return TBS_ST_TOO_LONG;
  uint32_t hash = tvr_db_hash_name(name, len);
  int st = dt_keyfind(VNS_LR_SCOPE_NAME_HASH, &hash, view_db_task, -1);
  std::vector<DB_ADDR> candidates;
  while (st == S_OKAY) {
    uint32_t at_hash = 0;
    if ((st = dt_keyread(&at_hash, view_db_task)) != S_OKAY) return tvr_engine_err("D_KEYREAD", "LOOKUP_SCOPE_NAME", st);
    if (at_hash != hash) break;
    DB_ADDR at = 0;
    if ((st = dt_crget(&at, view_db_task, -1)) != S_OKAY) return tvr_engine_err("D_CRGET", "LOOKUP_SCOPE_NAME", st);
    candidates.push_back(at);
    st = dt_keynext(VNS_LR_SCOPE_NAME_HASH, view_db_task, -1);
  }
  if (st != S_OKAY && st != S_NOTFOUND) return tvr_engine_err("D_KEYNEXT", "LOOKUP_SCOPE_NAME", st);
  for (DB_ADDR at : candidates) {
    char buf[SCOPE_NAME_MAX + 1];
    if ((st = tvr_db_get_lr_scope_name(at, sizeof(buf), buf)) != 0) return st;
    if (std::strcmp(buf, name) == 0) {
      *dba = at;
      return 0;
    }
  }
  return TBS_ST_NOT_FOUND;
}

int tvr_db_get_lr_scope_name(DB_ADDR scope_dba, size_t size, char* buffer) {
  tvr_db_trans_read_check();
  vns_db_lr_scope row{};
  int st = read(scope_dba, &row, "LOOKUP_SCOPE_NAME");
  if (st != 0) return st;
  if (static_cast<size_t>(row.name_len) + 1 > size) return TBS_ST_TOO_LONG;
  size_t head = std::min<size_t>(row.name_len, LR_SCOPE_NAME_INLINE);
  std::memcpy(buffer, row.name, head);
  if (row.name_len > LR_SCOPE_NAME_INLINE) {
    st = tvr_db_bytes_read(scope_dba, row.name_bytes_dba, buffer + head, row.name_len - head);
    if (st != 0) return st;
  }
  buffer[row.name_len] = '\0';
  return 0;
}

int tvr_db_get_scope_by_name(const char* name, tavrel_scope* scope) {
  DB_ADDR dba = 0;
  int st = tvr_db_lookup_lr_scope_name(name, &dba);
  if (st != 0) return st;
  vns_db_lr_scope row{};
  if ((st = read(dba, &row, "GET_SCOPE_BY_NAME")) != 0) return st;
  return fill_scope(dba, row, scope);
}

int tvr_db_get_lr_scope_gn(const tbs_oid_s& oid, uint32_t* gn) {
  tvr_db_trans_read_check();
  vns_db_lr_scope row{};
  DB_ADDR dba = 0;
  int st = scope_row(oid, &row, &dba, "GET_SCOPE_GN");
  if (st == 0) *gn = row.gn;
  return st;
}

int tvr_db_get_lr_scope_gn_name(const char* name, uint32_t* gn) {
  tavrel_scope scope{};
  int st = tvr_db_get_scope_by_name(name, &scope);
  if (st == 0) *gn = scope.gn;
  return st;
}

int tvr_db_get_def_scope_gn(uint32_t* gn) { return tvr_db_get_lr_scope_gn(AUTOMATIC_LOAD_SCOPE_OID, gn); }

static int list_scopes(bool only_removed, bool all, std::vector<tavrel_scope>& scopes, const char* label) {
  tvr_db_trans_read_check();
  scopes.clear();
  std::vector<DB_ADDR> rows;
  int st = dt_recfrst(VNS_DB_LR_SCOPE, view_db_task, -1);
  for (; st == S_OKAY; st = dt_recnext(view_db_task, -1)) {
    DB_ADDR at = 0;
    if ((st = dt_crget(&at, view_db_task, -1)) != S_OKAY) return tvr_engine_err("D_CRGET", label, st);
    rows.push_back(at);
  }
  if (st != S_NOTFOUND) return tvr_engine_err("D_RECNEXT", label, st);
  for (DB_ADDR at : rows) {
    vns_db_lr_scope row{};
    if ((st = read(at, &row, label)) != 0) return st;
    if (only_removed ? row.op_state != 1 : (!all && row.op_state == 1)) continue;
    tavrel_scope s{};
    if ((st = fill_scope(at, row, &s)) != 0) return st;
    scopes.push_back(s);
  }
  return 0;
}

int tvr_db_get_lr_scopes(int all, std::vector<tavrel_scope>& scopes) {
  return list_scopes(false, all != 0, scopes, "GET_LR_SCOPES");
}

int tvr_db_get_removed_lr_scopes(std::vector<tavrel_scope>& scopes) {
  return list_scopes(true, true, scopes, "GET_REMOVED_LR_SCOPES");
}

int tvr_db_get_lr_scope_removed_flag(const tbs_oid_s& oid, int* removed) {
  tvr_db_trans_read_check();
  vns_db_lr_scope row{};
  DB_ADDR dba = 0;
  int st = scope_row(oid, &row, &dba, "LR_SCOPE_GET_REMOVED_FLAG");
  if (st == 0) *removed = row.op_state == 1 ? 1 : 0;
  return st;
}

int tvr_db_mark_lr_scope_removed(const tbs_oid_s& oid) {
  tvr_db_trans_write_check();
  vns_db_lr_scope row{};
  DB_ADDR dba = 0;
  int st = scope_row(oid, &row, &dba, "LR_SCOPE_MARK_REMOVED");
  if (st != 0) return st;
  row.op_state = 1;
  return write(dba, &row, "LR_SCOPE_MARK_REMOVED");
}

int tvr_db_is_lr_scope_empty(const tbs_oid_s& oid, int* empty) {
  tvr_db_trans_read_check();
  DB_ADDR dba = 0;
  vns_db_lr_scope row{};
  int st = scope_row(oid, &row, &dba, "IS_LR_SCOPE_EMPTY");
  if (st != 0) return st;
  long count = 0;
  if ((st = member_count(VNS_SCOPE_ENT_SET, dba, &count, "IS_LR_SCOPE_EMPTY")) != 0) return st;
  *empty = count == 0 ? 1 : 0;
  return 0;
}

int tvr_db_is_def_scope_silo_empty(const tbs_uuid_s& uuid, int* empty) {
  tvr_db_trans_read_check();
  *empty = 1;
  uint32_t silo = 0;
  int st = tvr_db_silo_lookup(uuid, &silo);
  if (st == TBS_ST_NOT_FOUND) return 0;
  if (st != 0) return st;
  DB_ADDR silo_dba = 0;
  if ((st = tvr_db_dbid_to_dba(silo, &silo_dba)) != 0) return st;
  // Names of the silo in object-dbid order; the root (the lowest dbids) normally answers at once.
  key_silo_dbid k{silo_dba, 0};
  st = dt_keyfind(DIR_VER_ENT_LOOKUP, &k, view_db_task, -1);
  if (st == S_NOTFOUND) st = dt_keynext(DIR_VER_ENT_LOOKUP, view_db_task, -1);
  while (st == S_OKAY) {
    key_silo_dbid at{};
    if ((st = dt_keyread(&at, view_db_task)) != S_OKAY) return tvr_engine_err("D_KEYREAD", "IS_LR_SCOPE_EMPTY", st);
    if (at.silo_dba != silo_dba) break;
    tbs_oid_s scope{};
    if ((st = dt_crread(VNS_DIR_VER_ENT_SCOPE, &scope, view_db_task, -1)) != S_OKAY)
      return tvr_engine_err("D_CRREAD", "IS_LR_SCOPE_EMPTY", st);
    if (tvr_db_is_def_scope(scope)) {
      *empty = 0;
      return 0;
    }
    st = dt_keynext(DIR_VER_ENT_LOOKUP, view_db_task, -1);
  }
  if (st != S_OKAY && st != S_NOTFOUND) return tvr_engine_err("D_KEYNEXT", "IS_LR_SCOPE_EMPTY", st);
  return 0;
}

// The scope's name rows, in set order.
static int scope_rows(const tbs_oid_s& oid, DB_ADDR* scope_dba, std::vector<DB_ADDR>* rows, const char* label) {
  vns_db_lr_scope row{};
  int st = scope_row(oid, &row, scope_dba, label);
  if (st != 0) return st;
  return members(VNS_SCOPE_ENT_SET, *scope_dba, rows, label);
}

int tvr_db_scope_get_versions(const tbs_oid_s& oid, std::vector<tavrel_scope_vers>& vers) {
  tvr_db_trans_read_check();
  vers.clear();
  DB_ADDR scope_dba = 0;
  std::vector<DB_ADDR> rows;
  int st = scope_rows(oid, &scope_dba, &rows, "SCOPE_GET_VERS");
  if (st != 0) return st;
  std::set<std::pair<DB_ADDR, uint32_t>> seen;
  for (DB_ADDR at : rows) {
    vns_db_dir_ver_ent row{};
    if ((st = read(at, &row, "SCOPE_GET_VERS")) != 0) return st;
    if (seen.insert({row.silo_dba, row.obj_dbid}).second) vers.push_back({tvr_db_dba_to_dbid(row.silo_dba), row.obj_dbid});
  }
  return 0;
}

int tvr_db_scope_get_elements(const tbs_oid_s& oid, std::vector<tavrel_scope_elem>& elems) {
  tvr_db_trans_read_check();
  elems.clear();
  DB_ADDR scope_dba = 0;
  std::vector<DB_ADDR> rows;
  int st = scope_rows(oid, &scope_dba, &rows, "SCOPE_GET_VERS");
  if (st != 0) return st;
  std::set<std::pair<DB_ADDR, uint32_t>> seen;
  for (DB_ADDR at : rows) {
    vns_db_dir_ver_ent row{};
    if ((st = read(at, &row, "SCOPE_GET_VERS")) != 0) return st;
    vns_db_obj obj{};
    bool found = false;
    if ((st = obj_by_dbid(row.silo_dba, row.obj_dbid, &obj, &found)) != 0) return st;
    if (!found) return tvr_engine_err("D_KEYFIND", "SCOPE_GET_VERS", S_NOTFOUND);
    uint32_t elem_dbid = obj.vns_obj_nodeid;
    if (!seen.insert({row.silo_dba, elem_dbid}).second) continue;
    vns_db_obj elem{};
    if ((st = obj_by_dbid(row.silo_dba, elem_dbid, &elem, &found)) != 0) return st;
    if (!found) return tvr_engine_err("D_KEYFIND", "VNS_VER_ELEM", S_NOTFOUND);
    db_silo silo{};
    if ((st = read(row.silo_dba, &silo, "SCOPE_GET_VERS")) != 0) return st;
    elems.push_back({silo.replica_uuid, elem.vns_obj_oid, elem_dbid});
  }
  return 0;
}

// ---- scope operations --------------------------------------------------------------------------------------------
int tvr_db_begin_lr_scope_load(const tbs_oid_s& oid, uint32_t gn) { return begin_op(oid, gn, 1); }
int tvr_db_begin_lr_scope_update(const tbs_oid_s& oid, uint32_t gn) { return begin_op(oid, gn, 2); }
int tvr_db_begin_def_scope(uint32_t gn) { return begin_op(AUTOMATIC_LOAD_SCOPE_OID, gn, -1); }

int tvr_db_begin_def_scope_silo_load(const tbs_uuid_s&, uint32_t) { return 0; }
int tvr_db_end_def_scope_silo_load(const tbs_uuid_s&, uint32_t) { return 0; }
int tvr_db_begin_def_scope_silo_update(const tbs_uuid_s&, uint32_t) { return 0; }
int tvr_db_end_def_scope_silo_update(const tbs_uuid_s&, uint32_t) { return 0; }

int tvr_db_end_lr_scope_load(const tbs_oid_s& oid, uint32_t gn, int set_gn, int use_saved) {
  tvr_db_trans_write_check();
  DB_ADDR scope_dba = 0;
  std::vector<DB_ADDR> rows;
  int st = scope_rows(oid, &scope_dba, &rows, "END_LR_SCOPE_LOAD");
  if (st != 0) return st;
  for (DB_ADDR at : rows) {
    vns_db_dir_ver_ent row{};
    if ((st = read(at, &row, "END_LR_SCOPE_LOAD")) != 0) return st;
    if (set_gn && row.scope_gn != gn) {
      row.scope_gn = gn;
      if ((st = write(at, &row, "END_LR_SCOPE_LOAD")) != 0) return st;
    }
    if (use_saved && row.mtype == SILO_MTYPE_DIR_VER) {
      if ((st = move_saved_state(row.silo_dba, row.obj_dbid, true, "LOAD_SAVED_READDIR")) != 0) return st;
    }
  }
  if (!set_gn) return 0;
  return finish_op(scope_dba, gn, false, "END_LR_SCOPE_LOAD");
}

namespace {

// The name rows the end of the default scope must visit, as this process saw them: names given the remove
// mark, directories given a saved state by an update, names that changed scope. `g_visits_complete` says
// that the list covers every such name of the default scope; it is false after an open, when an update
// that never ended may have left marks behind, and the next end walks the scope instead. Both are touched
// inside write transactions, which the engine runs one at a time, and at an open, under the engine's mutex.
//
// An entry may be stale (its transaction was aborted, its row is gone or holds another name now): each is
// read before it is trusted. The end keeps the entries it had work for, so if its transaction is aborted
// the next end finds them again; the end after that drops them, their work done.
std::vector<DB_ADDR> g_visits;
bool g_visits_complete = false;

// Visits the listed names of the default scope: a directory's saved state takes effect, and marked names
// are gathered into `doomed`, in the order they were marked. Names of an update are marked in the
// stream's path order, parents before children, which is what the removal of directories from the back
// of the list needs.
int visit_default_names(std::vector<DB_ADDR>* doomed) {
  std::vector<DB_ADDR> keep;
  std::set<DB_ADDR> seen;
  for (DB_ADDR at : g_visits) {
    if (!seen.insert(at).second) continue;
    vns_db_dir_ver_ent row{};
    bool gone = false;
    int st = read(at, &row, "END_LR_SCOPE_UPDATE", &gone);
    if (st != 0) return st;
    if (gone || !tvr_db_is_def_scope(row.scope)) continue;
    if (row.remove_mark != 0) {
      doomed->push_back(at);
      keep.push_back(at);
    } else if (row.mtype == SILO_MTYPE_DIR_VER) {
      bool moved = false;
      if ((st = move_saved_state(row.silo_dba, row.obj_dbid, false, "MOVE_SAVED_READDIR", &moved)) != 0) return st;
      if (moved) keep.push_back(at);
    }
  }
  g_visits.swap(keep);
  return 0;
}

}  // namespace

void tvr_vns::note_scope_end_visit(DB_ADDR entry) { g_visits.push_back(entry); }

void tvr_db_forget_scope_end_visits() {
  g_visits.clear();
  g_visits_complete = false;
}

int tvr_vns::name_gn(const vns_db_dir_ver_ent& row, uint32_t* gn, const char* label) {
  *gn = row.scope_gn;
  if (!tvr_db_is_def_scope(row.scope)) return 0;
  vns_db_lr_scope scope{};
  DB_ADDR dba = 0;
  int st = scope_row(AUTOMATIC_LOAD_SCOPE_OID, &scope, &dba, label);
  if (st == TBS_ST_NOT_FOUND) return tvr_engine_err("D_KEYFIND", label, S_NOTFOUND);
  if (st != 0) return st;
  *gn = tvr_db_name_gn(row, scope.finished_gn);
  return 0;
}

int tvr_db_end_lr_scope_update(const tbs_oid_s& oid, uint32_t gn) {
  tvr_db_trans_write_check();
  DB_ADDR scope_dba = 0;
  std::vector<DB_ADDR> doomed;
  if (tvr_db_is_def_scope(oid)) {
    // The names take gn through the scope's finished generation; only the marked ones need a visit.
    int st = def_scope_dba(&scope_dba, "END_LR_SCOPE_UPDATE");
    if (st != 0) return st;
    if (!g_visits_complete) {
      std::vector<DB_ADDR> rows;
      if ((st = members(VNS_SCOPE_ENT_SET, scope_dba, &rows, "END_LR_SCOPE_UPDATE")) != 0) return st;
      for (DB_ADDR at : rows) {
        vns_db_dir_ver_ent row{};
        if ((st = read(at, &row, "END_LR_SCOPE_UPDATE")) != 0) return st;
        if (row.remove_mark != 0 || row.mtype == SILO_MTYPE_DIR_VER) g_visits.push_back(at);
      }
      g_visits_complete = true;
    }
    if ((st = visit_default_names(&doomed)) != 0) return st;
    if ((st = remove_rows(doomed, false, "SCOPE_REMOVE_VER")) != 0) return st;
    return finish_op(scope_dba, gn, true, "END_LR_SCOPE_UPDATE");
  }
  std::vector<DB_ADDR> rows;
  int st = scope_rows(oid, &scope_dba, &rows, "END_LR_SCOPE_UPDATE");
  if (st != 0) return st;
  for (DB_ADDR at : rows) {
    vns_db_dir_ver_ent row{};
    if ((st = read(at, &row, "END_LR_SCOPE_UPDATE")) != 0) return st;
    if (row.remove_mark != 0) {
      doomed.push_back(at);
      continue;
    }
    if (row.scope_gn != gn) {
      row.scope_gn = gn;
      if ((st = write(at, &row, "END_LR_SCOPE_UPDATE")) != 0) return st;
    }
    if (row.mtype == SILO_MTYPE_DIR_VER) {
      if ((st = move_saved_state(row.silo_dba, row.obj_dbid, false, "MOVE_SAVED_READDIR")) != 0) return st;
    }
  }
  if ((st = remove_rows(doomed, false, "SCOPE_REMOVE_VER")) != 0) return st;
  return finish_op(scope_dba, gn, false, "END_LR_SCOPE_UPDATE");
}

int tvr_db_end_def_scope(uint32_t gn) { return tvr_db_end_lr_scope_update(AUTOMATIC_LOAD_SCOPE_OID, gn); }

int tvr_db_delete_lr_scope(const tbs_oid_s& oid) {
  tvr_db_trans_write_check();
  DB_ADDR scope_dba = 0;
  std::vector<DB_ADDR> rows;
  int st = scope_rows(oid, &scope_dba, &rows, "DELETE_LR_SCOPE");
  if (st != 0) return st;
  if ((st = remove_rows(rows, true, "DELETE_LR_SCOPE")) != 0) return st;
  if (tvr_db_is_def_scope(oid)) return 0;
  vns_db_lr_scope row{};
  if ((st = read(scope_dba, &row, "DELETE_LR_SCOPE")) != 0) return st;
  if ((st = tvr_db_bytes_delete(row.name_bytes_dba)) != 0) return st;
  return disdel(scope_dba, "DELETE_LR_SCOPE");
}

int tvr_db_remove_lr_scope(const tbs_oid_s& oid, int delete_row, const tbs_oid_s* target) {
  tvr_db_trans_write_check();
  DB_ADDR scope_dba = 0;
  std::vector<DB_ADDR> rows;
  int st = scope_rows(oid, &scope_dba, &rows, "REMOVE_LR_SCOPE");
  if (st != 0) return st;
  const tbs_oid_s& target_oid = scope_oid_of(target);
  vns_db_lr_scope target_row{};
  DB_ADDR target_dba = 0;
  if ((st = scope_row(target_oid, &target_row, &target_dba, "REMOVE_LR_SCOPE")) != 0) return st;
  if (target_dba != scope_dba) {
    for (DB_ADDR at : rows) {
      if ((st = tvr_db_dir_ver_ent_reconn_scope(at, target_dba)) != 0) return st;
      vns_db_dir_ver_ent row{};
      if ((st = read(at, &row, "REMOVE_LR_SCOPE")) != 0) return st;
      row.scope = target_oid;
      row.scope_gn = target_row.gn;
      if ((st = write(at, &row, "REMOVE_LR_SCOPE")) != 0) return st;
    }
  }
  if (!delete_row || tvr_db_is_def_scope(oid) || target_dba == scope_dba) return 0;
  vns_db_lr_scope row{};
  if ((st = read(scope_dba, &row, "REMOVE_LR_SCOPE")) != 0) return st;
  if ((st = tvr_db_bytes_delete(row.name_bytes_dba)) != 0) return st;
  return disdel(scope_dba, "REMOVE_LR_SCOPE");
}
