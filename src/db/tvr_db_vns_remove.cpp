// Removing namespace names and objects, cleaning the namespace records, and check-out marks.
#include <deque>

#include "base/imsg.h"
#include "core/tavrel_trace.h"
#include "db/rec/dt.h"
#include "db/tavrel_engine_db.h"
#include "db/tavrel_engine_utls.h"
#include "db/tvr_db_bytes.h"
#include "db/tvr_db_vns.h"
#include "db/tvr_db_vns_int.h"
#include "proto/wan_names.h"

using namespace tvr_vns;

int tvr_db_remove_one_dir_ver_ent(DB_ADDR entry) {
  tvr_db_trans_write_check();
  vns_db_dir_ver_ent row{};
  int st = read(entry, &row, "DIR_ENT_ONE_DEL");
  if (st != 0) return st;
  if ((st = tvr_db_bytes_delete(row.name_bytes_dba)) != 0) return st;
  return disdel(entry, "DIR_ENT_ONE_DEL");
}

// The name row of object `dbid` whose directory is `parent`, 0 when there is none.
static int name_in_parent(DB_ADDR silo_dba, uint32_t dbid, uint32_t parent, DB_ADDR* entry, const char* label) {
  *entry = 0;
  key_silo_dbid k{silo_dba, dbid};
  int st = dt_keyfind(DIR_VER_ENT_LOOKUP, &k, view_db_task, -1);
  while (st == S_OKAY) {
    key_silo_dbid at{};
    if ((st = dt_keyread(&at, view_db_task)) != S_OKAY) return tvr_engine_err("D_KEYREAD", label, st);
    if (at.silo_dba != silo_dba || at.dbid != dbid) break;
    uint32_t dir = 0;
    if ((st = dt_crread(VNS_DIR_VER_ENT_DIR_DBID, &dir, view_db_task, -1)) != S_OKAY)
      return tvr_engine_err("D_CRREAD", label, st);
    if (dir == parent) {
      if ((st = dt_crget(entry, view_db_task, -1)) != S_OKAY) return tvr_engine_err("D_CRGET", label, st);
      return 0;
    }
    st = dt_keynext(DIR_VER_ENT_LOOKUP, view_db_task, -1);
  }
  if (st != S_OKAY && st != S_NOTFOUND) return tvr_engine_err("D_KEYNEXT", label, st);
  return 0;
}

int tvr_db_remove_one_ver(DB_ADDR silo_dba, uint32_t dbid, uint32_t parent, DB_ADDR entry) {
  tvr_db_trans_write_check();
  vns_db_ver ver{};
  DB_ADDR ver_dba = 0;
  bool found = false;
  int st = read_by_dbid(VNS_VER_KEY, silo_dba, dbid, &ver, &found, &ver_dba, "VER_ONE_DEL");
  if (st != 0) return st;
  if (!found) return tvr_engine_err("D_KEYFIND", "VER_ONE_DEL", S_NOTFOUND);
  if (entry == 0 && parent != 0 && (st = name_in_parent(silo_dba, dbid, parent, &entry, "VER_ONE_DEL")) != 0) return st;
  if (entry != 0 && (st = tvr_db_remove_one_dir_ver_ent(entry)) != 0) return st;
  long names = 0;
  if ((st = member_count(VNS_VER_NAME_SET, ver_dba, &names, "VER_ONE_DEL_2")) != 0 || names > 0) return st;
  vns_db_dir_ver dir{};
  DB_ADDR dir_dba = 0;
  bool is_dir = false;
  if ((st = read_by_dbid(VNS_DIR_VER_KEY, silo_dba, dbid, &dir, &is_dir, &dir_dba, "DIR_ONE_DEL")) != 0) return st;
  if (is_dir) {
    long rows = 0;
    if ((st = member_count(VNS_DIR_ENT_SET, dir_dba, &rows, "DIR_ONE_DEL")) != 0) return st;
    if (rows > 0) return TBS_ST_INTERNAL;
  }
  if ((st = disdel(ver_dba, "VER_ONE_DEL_2")) != 0) return st;
  if (is_dir && (st = disdel(dir_dba, "DIR_ONE_DEL")) != 0) return st;
  DB_ADDR obj_dba = 0;
  vns_db_obj obj{};
  if ((st = obj_by_dbid(silo_dba, dbid, &obj, &found, &obj_dba)) != 0) return st;
  if (!found) return tvr_engine_err("D_KEYFIND", "VER_ONE_DEL_2", S_NOTFOUND);
  return disdel(obj_dba, "VER_ONE_DEL_2");
}

int tvr_db_remove_one_slink(DB_ADDR silo_dba, uint32_t dbid, uint32_t parent, DB_ADDR entry) {
  tvr_db_trans_write_check();
  vns_db_slink link{};
  DB_ADDR link_dba = 0;
  bool found = false;
  int st = read_by_dbid(VNS_SLINK_KEY, silo_dba, dbid, &link, &found, &link_dba, "SLINK_ONE_DEL");
  if (st != 0) return st;
  if (!found) return tvr_engine_err("D_KEYFIND", "SLINK_ONE_DEL", S_NOTFOUND);
  if (entry == 0 && parent != 0 && (st = name_in_parent(silo_dba, dbid, parent, &entry, "SLINK_ONE_DEL")) != 0)
    return st;
  if (entry != 0 && (st = tvr_db_remove_one_dir_ver_ent(entry)) != 0) return st;
  long names = 0;
  if ((st = member_count(VNS_SLINK_NAME_SET, link_dba, &names, "SLINK_ONE_DEL_2")) != 0 || names > 0) return st;
  if ((st = tvr_db_bytes_delete(link.text_bytes_dba)) != 0) return st;
  if ((st = disdel(link_dba, "SLINK_ONE_DEL_2")) != 0) return st;
  DB_ADDR obj_dba = 0;
  vns_db_obj obj{};
  if ((st = obj_by_dbid(silo_dba, dbid, &obj, &found, &obj_dba)) != 0) return st;
  if (!found) return tvr_engine_err("D_KEYFIND", "SLINK_ONE_DEL_3", S_NOTFOUND);
  return disdel(obj_dba, "SLINK_ONE_DEL_3");
}

// A directory that lost its selected path but stays as the default scope's object: it and everything
// below it go stale, and no directory on the way is trusted to be complete.
static int make_subtree_stale(DB_ADDR silo_dba, uint32_t dbid, uint32_t parent) {
  uint32_t silo = tvr_db_dba_to_dbid(silo_dba);
  int st = tvr_db_ver_set_stale(silo, dbid, 1);
  if (st != 0) return st;
  if (parent != 0 && (st = tvr_db_ver_set_readdir_done_only(silo_dba, parent, 0)) != 0) return st;
  if ((st = tvr_db_ver_set_readdir_done_only(silo_dba, dbid, 0)) != 0) return st;
  if ((st = tvr_db_mark_sub_ver_stale(silo_dba, dbid, 1)) != 0) return st;
  std::deque<uint32_t> queue{dbid};
  while (!queue.empty()) {
    uint32_t dir = queue.front();
    queue.pop_front();
    std::vector<tvr_db_sub_vers> subs;
    if ((st = tvr_db_ver_get_sub_vers_dbid(silo_dba, dir, subs)) != 0) return st;
    for (const auto& s : subs) {
      if (s.mtype == SILO_MTYPE_SYMLINK) continue;
      if ((st = tvr_db_ver_set_stale(silo, s.dbid, 1)) != 0) return st;
      if (s.mtype == SILO_MTYPE_DIR_VER) {
        if ((st = tvr_db_ver_set_readdir_done_only(silo_dba, s.dbid, 0)) != 0) return st;
        queue.push_back(s.dbid);
      }
    }
  }
  return 0;
}

int tvr_db_remove_version(DB_ADDR silo_dba, uint32_t dbid, silo_mtype_t mtype, uint32_t parent, DB_ADDR entry,
                          bool& went_stale) {
  tvr_db_trans_write_check();
  if (mtype == SILO_MTYPE_FILE_VER || mtype == SILO_MTYPE_VER3) return tvr_db_remove_one_ver(silo_dba, dbid, parent, entry);
  if (mtype == SILO_MTYPE_SYMLINK) return tvr_db_remove_one_slink(silo_dba, dbid, parent, entry);
  if (mtype != SILO_MTYPE_DIR_VER) return TBS_ST_INTERNAL;
  int st = 0;
  if (entry == 0 && (st = name_in_parent(silo_dba, dbid, parent, &entry, "REMOVE_DIR_ENT")) != 0) return st;
  if (entry == 0) return TBS_ST_NOT_FOUND;
  int count = 0;
  std::vector<tbs_oid_s> others;
  if ((st = tvr_db_ver_has_hardlink(entry, &count, nullptr, others)) != 0) return st;
  if (count > 1) {
    if ((st = tvr_db_remove_one_dir_ver_ent(entry)) != 0) return st;
    for (const auto& scope : others) {
      if (!tvr_db_is_def_scope(scope)) return 0;
    }
    went_stale = true;
    return make_subtree_stale(silo_dba, dbid, parent);
  }
  // The last name: the subtree goes with it.
  std::vector<tvr_db_sub_vers> subs;
  if ((st = tvr_db_ver_get_sub_vers_dbid(silo_dba, dbid, subs)) != 0) return st;
  for (const auto& s : subs) {
    bool sub_stale = false;
    if ((st = tvr_db_remove_version(silo_dba, s.dbid, s.mtype, dbid, s.entry_dba, sub_stale)) != 0) return st;
    went_stale = went_stale || sub_stale;
  }
  // A sub-directory that stayed (it has other names) was only unlinked from here.
  if ((st = tvr_db_remove_one_ver(silo_dba, dbid, parent, entry)) != 0) return st;
  if (parent != 0) return 0;
  db_silo silo{};
  if ((st = read(silo_dba, &silo, "REMOVE_DIR_ENT_2")) != 0) return st;
  if (silo.silo_root_dbid != dbid) return 0;
  silo.silo_root_dbid = 0;
  return write(silo_dba, &silo, "REMOVE_DIR_ENT_2");
}

int tvr_db_delete_vns_ver(uint32_t silo, uint32_t dbid) {
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_enter_write(silo, &silo_dba);
  if (st != 0) return st;
  silo_mtype_t mtype = 0;
  if ((st = tvr_db_lookup_obj_oid(silo_dba, dbid, nullptr, &mtype)) != 0) return st;
  if (mtype == SILO_MTYPE_DIR_ELEM || mtype == SILO_MTYPE_FILE_ELEM) return TBS_ST_NOT_FOUND;
  uint32_t parent = 0;
  if ((st = tvr_db_ver_get_parent(silo, dbid, &parent)) != 0) return st;
  bool went_stale = false;
  return tvr_db_remove_version(silo_dba, dbid, mtype, parent, 0, went_stale);
}

// ---- cleaning ---------------------------------------------------------------------------------------------------------
namespace {

// Walks every row of `rec`, calling `body` on each DBA; a failure is reported under `label` and the walk
// goes on. Returns 1008 when any row failed.
template <typename F>
int each_row(int rec, const char* label, F&& body) {
  std::vector<DB_ADDR> rows;
  int st = dt_recfrst(rec, view_db_task, -1);
  for (; st == S_OKAY; st = dt_recnext(view_db_task, -1)) {
    DB_ADDR at = 0;
    if ((st = dt_crget(&at, view_db_task, -1)) != S_OKAY) break;
    rows.push_back(at);
  }
  int result = 0;
  if (st != S_NOTFOUND) result = tvr_engine_err("D_RECNEXT", label, st);
  for (DB_ADDR at : rows) {
    st = body(at);
    if (st != 0) {
      if (st != TBS_ST_INTERNAL) tvr_engine_err("D_DISDEL", label, st);
      result = TBS_ST_INTERNAL;
    }
  }
  return result;
}

}  // namespace

int tvr_db_cleanup_vns_recs(int all) {
  tvr_db_trans_write_check();
  int result = 0;
  auto keep = [&](int st) {
    if (st != 0) result = TBS_ST_INTERNAL;
  };
  keep(each_row(VNS_DB_DIR_VER_ENT, "CLNUP-DIR-VER-ENT", [](DB_ADDR at) { return tvr_db_remove_one_dir_ver_ent(at); }));
  keep(each_row(VNS_DB_DIR_VER, "CLNUP-DIR-VER", [](DB_ADDR at) { return disdel(at, "CLNUP-DIR-VER"); }));
  keep(each_row(VNS_DB_VER, "CLNUP-VERSION", [](DB_ADDR at) { return disdel(at, "CLNUP-VERSION"); }));
  keep(each_row(VNS_DB_SLINK, "CLNUP-SLINK", [](DB_ADDR at) {
    vns_db_slink link{};
    int st = read(at, &link, "CLNUP-SLINK");
    if (st == 0) st = tvr_db_bytes_delete(link.text_bytes_dba);
    return st != 0 ? st : disdel(at, "CLNUP-SLINK");
  }));
  keep(each_row(VNS_DB_OBJ, "CLNUP-OBJECT", [all](DB_ADDR at) {
    vns_db_obj obj{};
    int st = read(at, &obj, "CLNUP-OBJECT");
    if (st != 0) return st;
    if (!all && is_elem_type(obj.vns_obj_mtype)) return 0;
    return disdel(at, "CLNUP-OBJECT");
  }));
  if (all) keep(each_row(VNS_DB_ELEM, "CLNUP-ELEMENT", [](DB_ADDR at) { return disdel(at, "CLNUP-ELEMENT"); }));
  keep(each_row(VNS_DB_LR_SCOPE, "CLNUP-LR-SCOPE", [](DB_ADDR at) {
    vns_db_lr_scope row{};
    int st = read(at, &row, "CLNUP-LR-SCOPE");
    if (st != 0 || tvr_db_is_def_scope(row.scope_oid)) return st;
    if ((st = tvr_db_bytes_delete(row.name_bytes_dba)) != 0) return st;
    return disdel(at, "CLNUP-LR-SCOPE");
  }));
  keep(tvr_db_create_def_scope());
  keep(each_row(DB_SILO, "CLNUP-SILO", [all](DB_ADDR at) {
    db_silo silo{};
    int st = read(at, &silo, "CLNUP-SILO");
    if (st != 0) return st;
    silo.silo_root_dbid = 0;
    // Elements keep their dbids unless they went too; a restarted counter hands out 2 first again.
    if (all) silo.silo_next_dbid = 1;
    return write(at, &silo, "CLNUP-SILO");
  }));
  return result;
}

int tvr_db_cleanup_unused_elem() {
  tvr_db_trans_write_check();
  return each_row(VNS_DB_ELEM, "DEL_ELEM", [](DB_ADDR at) {
    vns_db_elem elem{};
    int st = read(at, &elem, "DEL_ELEM");
    if (st != 0) return st;
    long count = 0;
    if ((st = member_count(VNS_ELEM_VER_SET, at, &count, "DEL_ELEM")) != 0 || count > 0) return st;
    DB_ADDR obj_dba = 0;
    vns_db_obj obj{};
    bool found = false;
    if ((st = obj_by_dbid(elem.silo_dba, elem.dbid, &obj, &found, &obj_dba)) != 0) return st;
    st = dt_crset(&at, view_db_task, -1);
    if (st == S_OKAY) st = dt_delete(view_db_task, -1);
    if (st != S_OKAY) return tvr_engine_err("D_DELETE", "DEL_ELEM", st);
    if (!found) return 0;
    st = dt_crset(&obj_dba, view_db_task, -1);
    if (st == S_OKAY) st = dt_delete(view_db_task, -1);
    if (st != S_OKAY) return tvr_engine_err("D_DELETE", "DEL_ELEM_2", st);
    return 0;
  });
}

// ---- check-out marks ------------------------------------------------------------------------------------------------
// The element row of an element or of one of its versions.
static int elem_of(uint32_t silo, uint32_t dbid, DB_ADDR* silo_dba, DB_ADDR* elem_dba, vns_db_elem* elem,
                   const char* label) {
  int st = tvr_db_vns_silo_dba(silo, silo_dba);
  if (st != 0) return st;
  vns_db_obj obj{};
  bool found = false;
  if ((st = obj_by_dbid(*silo_dba, dbid, &obj, &found)) != 0) return st;
  if (!found) return TBS_ST_NOT_FOUND;
  uint32_t elem_dbid = 0;
  if (is_elem_type(obj.vns_obj_mtype)) {
    elem_dbid = dbid;
  } else if (is_version_type(obj.vns_obj_mtype)) {
    elem_dbid = obj.vns_obj_nodeid;
  } else {
    return TBS_ST_INTERNAL;
  }
  if ((st = read_by_dbid(VNS_ELEM_KEY, *silo_dba, elem_dbid, elem, &found, elem_dba, label)) != 0) return st;
  return found ? 0 : TBS_ST_NOT_FOUND;
}

int tvr_db_elem_set_checkedout(uint32_t silo, uint32_t dbid, const tbs_oid_s* ver_oid, int checked_out,
                               int* changed) {
  tvr_db_trans_write_check();
  if (changed != nullptr) *changed = 0;
  DB_ADDR silo_dba = 0, elem_dba = 0;
  vns_db_elem elem{};
  int st = elem_of(silo, dbid, &silo_dba, &elem_dba, &elem, "SET_CHECKOUT");
  if (st != 0) return st;
  if (elem.checked_out == (checked_out ? 1 : 0) && (ver_oid == nullptr || elem.co_ver == *ver_oid)) return 0;
  if (changed != nullptr) *changed = 1;
  elem.checked_out = checked_out ? 1 : 0;
  if (ver_oid != nullptr) elem.co_ver = *ver_oid;
  if ((st = write(elem_dba, &elem, "SET_CHECKOUT")) != 0) return st;
  st = checked_out ? dt_keystore(VNS_ELEM_CHECKEDOUT, view_db_task, -1) : dt_keydel(VNS_ELEM_CHECKEDOUT, view_db_task, -1);
  if (st != S_OKAY) return tvr_engine_err(checked_out ? "D_KEYSTORE" : "D_KEYDEL", "SET_CHECKOUT", st);
  return 0;
}

int tvr_db_elem_get_checkedout(uint32_t silo, uint32_t dbid, int* checked_out, tbs_oid_s* ver_oid) {
  tvr_db_trans_read_check();
  DB_ADDR silo_dba = 0, elem_dba = 0;
  vns_db_elem elem{};
  int st = elem_of(silo, dbid, &silo_dba, &elem_dba, &elem, "GET_CHECKOUT");
  if (st != 0) return st;
  if (checked_out != nullptr) *checked_out = elem.checked_out;
  if (ver_oid != nullptr) *ver_oid = elem.co_ver;
  return 0;
}

int tvr_db_has_checkouts(bool* any) {
  tvr_db_trans_read_check();
  int32_t one = 1;
  int st = dt_keyfind(VNS_ELEM_CHECKEDOUT, &one, view_db_task, -1);
  *any = st == S_OKAY;
  if (st != S_OKAY && st != S_NOTFOUND) return tvr_engine_err("D_KEYFIND", "GET_CHECKOUT", st);
  return 0;
}

int tvr_db_find_checkouts(std::vector<tavrel_hijack_co_info>& out) {
  tvr_db_trans_read_check();
  out.clear();
  int32_t one = 1;
  std::vector<DB_ADDR> elems;
  int st = dt_keyfind(VNS_ELEM_CHECKEDOUT, &one, view_db_task, -1);
  while (st == S_OKAY) {
    int32_t value = 0;
    if ((st = dt_keyread(&value, view_db_task)) != S_OKAY) return tvr_engine_err("D_KEYREAD", "GET_CHECKOUT", st);
    if (value != 1) break;
    DB_ADDR at = 0;
    if ((st = dt_crget(&at, view_db_task, -1)) != S_OKAY) return tvr_engine_err("D_CRGET", "GET_CHECKOUT", st);
    elems.push_back(at);
    st = dt_keynext(VNS_ELEM_CHECKEDOUT, view_db_task, -1);
  }
  if (st != S_OKAY && st != S_NOTFOUND) return tvr_engine_err("D_KEYNEXT", "GET_CHECKOUT", st);
  for (DB_ADDR at : elems) {
    vns_db_elem elem{};
    if ((st = read(at, &elem, "GET_CHECKOUT")) != 0) return st;
    DB_ADDR ver_dba = 0;
    if ((st = first_member(VNS_ELEM_VER_SET, at, &ver_dba, "ELEM_GET_VER")) != 0) return st;
    if (ver_dba == 0) continue;  // no version of it is loaded: nothing to name it by
    vns_db_ver ver{};
    if ((st = read(ver_dba, &ver, "ELEM_GET_VER")) != 0) return st;
    tavrel_hijack_co_info info{};
    db_silo silo{};
    if ((st = read(elem.silo_dba, &silo, "GET_CHECKOUT")) != 0) return st;
    info.silo_uuid = silo.replica_uuid;
    if ((st = tvr_db_lookup_obj_oid(elem.silo_dba, elem.dbid, &info.elem_oid, nullptr)) != 0) return st;
    int found = 0;
    DB_ADDR entry = 0;
    if ((st = tvr_db_dir_ver_ent_lookup(elem.silo_dba, ver.dbid, &found, &entry)) != 0) return st;
    if (!found) continue;
    vns_db_dir_ver_ent row{};
    if ((st = read(entry, &row, "GET_CHECKOUT")) != 0) return st;
    if (row.dir_dbid == 0) {
      info.parent_oid = TBS_OID_NULL;
      info.name = TVR_DB_ROOT_DIR_NAME;
    } else {
      vns_db_obj dir_obj{};
      bool f = false;
      if ((st = obj_by_dbid(elem.silo_dba, row.dir_dbid, &dir_obj, &f)) != 0) return st;
      if (!f) return tvr_engine_err("D_KEYFIND", "GET_CHECKOUT", S_NOTFOUND);
      if ((st = tvr_db_lookup_obj_oid(elem.silo_dba, dir_obj.vns_obj_nodeid, &info.parent_oid, nullptr)) != 0) return st;
      if ((st = entry_name(entry, row, &info.name)) != 0) return st;
    }
    out.push_back(info);
  }
  return 0;
}
