// Reading namespace objects: identity, element, version and link rows, parents, sub-versions and roots.
#include <cstring>

#include "db/rec/dt.h"
#include "db/tavrel_engine_db.h"
#include "db/tavrel_engine_utls.h"
#include "db/tvr_db_bytes.h"
#include "db/tvr_db_vns.h"
#include "db/tvr_db_vns_int.h"

using namespace tvr_vns;

namespace {

int obj_of(uint32_t silo, uint32_t dbid, DB_ADDR* silo_dba, vns_db_obj* obj) {
  int st = tvr_db_vns_silo_dba(silo, silo_dba);
  if (st != 0) return st;
  bool found = false;
  if ((st = obj_by_dbid(*silo_dba, dbid, obj, &found)) != 0) return st;
  if (!found) return TBS_ST_NOT_FOUND;
  return mtype_valid(obj->vns_obj_mtype) ? 0 : TBS_ST_INTERNAL;
}

// The first name row of an object.
int first_name(DB_ADDR silo_dba, uint32_t dbid, vns_db_dir_ver_ent* row, DB_ADDR* dba) {
  key_silo_dbid k{silo_dba, dbid};
  bool found = false;
  int st = find(DIR_VER_ENT_LOOKUP, &k, &found, dba, "VER_TO_DIR_ENT");
  if (st != 0) return st;
  if (!found) return TBS_ST_NOT_FOUND;
  return read(*dba, row, "VER_TO_DIR_ENT");
}

}  // namespace

int tvr_db_get_obj_info(uint32_t silo, uint32_t dbid, vns_db_obj* obj) {
  tvr_db_trans_read_check();
  DB_ADDR silo_dba = 0;
  return obj_of(silo, dbid, &silo_dba, obj);
}

int tvr_db_obj_get_mtype(uint32_t silo, uint32_t dbid, silo_mtype_t* mtype) {
  vns_db_obj obj{};
  int st = tvr_db_get_obj_info(silo, dbid, &obj);
  if (st == 0) *mtype = static_cast<silo_mtype_t>(obj.vns_obj_mtype);
  return st;
}

int tvr_db_get_vns_elem_info(uint32_t silo, uint32_t dbid, vns_db_obj* obj, vns_db_elem* elem) {
  tvr_db_trans_read_check();
  DB_ADDR silo_dba = 0;
  int st = obj_of(silo, dbid, &silo_dba, obj);
  if (st != 0) return st;
  if (!is_elem_type(obj->vns_obj_mtype)) return TBS_ST_NOT_FOUND;
  bool found = false;
  if ((st = read_by_dbid(VNS_ELEM_KEY, silo_dba, dbid, elem, &found, nullptr, "VNS_DB_ELEM")) != 0) return st;
  return found ? 0 : tvr_engine_err("D_KEYFIND", "VNS_DB_ELEM", S_NOTFOUND);
}

int tvr_db_get_ver_info(uint32_t silo, uint32_t dbid, vns_db_obj* obj, vns_db_ver* ver) {
  tvr_db_trans_read_check();
  DB_ADDR silo_dba = 0;
  int st = obj_of(silo, dbid, &silo_dba, obj);
  if (st != 0) return st;
  if (!is_version_type(obj->vns_obj_mtype)) return TBS_ST_NOT_FOUND;
  bool found = false;
  if ((st = read_by_dbid(VNS_VER_KEY, silo_dba, dbid, ver, &found, nullptr, "VNS_DB_VER")) != 0) return st;
  return found ? 0 : tvr_engine_err("D_KEYFIND", "VNS_DB_VER_2", S_NOTFOUND);
}

int tvr_db_get_ver_elem_info(uint32_t silo, uint32_t dbid, vns_db_obj* elem_obj) {
  uint32_t elem = 0;
  int st = tvr_db_ver_get_elem(silo, dbid, &elem);
  if (st != 0) return st;
  return tvr_db_get_obj_info(silo, elem, elem_obj);
}

int tvr_db_get_slink_info(uint32_t silo, uint32_t dbid, vns_db_obj* obj, std::string* text) {
  tvr_db_trans_read_check();
  DB_ADDR silo_dba = 0;
  int st = obj_of(silo, dbid, &silo_dba, obj);
  if (st != 0) return st;
  if (obj->vns_obj_mtype != SILO_MTYPE_SYMLINK) return TBS_ST_NOT_FOUND;
  vns_db_slink link{};
  DB_ADDR dba = 0;
  bool found = false;
  if ((st = read_by_dbid(VNS_SLINK_KEY, silo_dba, dbid, &link, &found, &dba, "VNS_SLINK")) != 0) return st;
  if (!found) return tvr_engine_err("D_KEYFIND", "VNS_SLINK_2", S_NOTFOUND);
  text->assign(link.text, link.text_len < SLINK_TEXT_INLINE ? link.text_len : SLINK_TEXT_INLINE);
  if (link.text_len > SLINK_TEXT_INLINE) {
    std::string tail(link.text_len - SLINK_TEXT_INLINE, '\0');
    if ((st = tvr_db_bytes_read(dba, link.text_bytes_dba, tail.data(), tail.size())) != 0) return st;
    text->append(tail);
  }
  return 0;
}

int tvr_db_get_silo_root_dir(uint32_t silo, uint32_t* root_dbid) {
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_enter_read(silo, &silo_dba);
  if (st != 0) return st;
  db_silo row{};
  if ((st = read(silo_dba, &row, "DB_SILO")) != 0) return st;
  if (row.silo_root_dbid == 0) return TBS_ST_NOT_FOUND;
  *root_dbid = row.silo_root_dbid;
  return 0;
}

int tvr_db_silo_has_root_dir(uint32_t silo, int* has) {
  uint32_t root = 0;
  int st = tvr_db_get_silo_root_dir(silo, &root);
  *has = st == 0 ? 1 : 0;
  return st == TBS_ST_NOT_FOUND ? 0 : st;
}

int tvr_db_get_root_dir_info(uint32_t silo, vns_db_obj* obj) {
  uint32_t root = 0;
  int st = tvr_db_get_silo_root_dir(silo, &root);
  if (st != 0) return st;
  return tvr_db_get_obj_info(silo, root, obj);
}

int tvr_db_silo_get_uuid(uint32_t silo, tbs_uuid_s* uuid) {
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_enter_read(silo, &silo_dba);
  if (st != 0) return st;
  db_silo row{};
  if ((st = read(silo_dba, &row, "DB_SILO")) != 0) return st;
  *uuid = row.replica_uuid;
  return 0;
}

int tvr_db_get_ver_vstat(uint32_t silo, uint32_t dbid, view_vstat_t* vstat) {
  tvr_db_trans_read_check();
  DB_ADDR silo_dba = 0;
  vns_db_obj obj{};
  int st = obj_of(silo, dbid, &silo_dba, &obj);
  if (st != 0) return st;
  *vstat = view_vstat_t{};
  tbs_fstat_db_t& f = vstat->fstat;
  f.type = obj.vns_obj_ftype;
  f.mode = obj.vns_obj_mode;
  f.owner = CREDUTL_SID_NOBODY;
  f.group = CREDUTL_SID_NOBODY;
  f.ino = dbid;
  f.atime = {static_cast<time_t>(obj.atime_sec), static_cast<suseconds_t>(obj.atime_usec)};
  f.mtime = {static_cast<time_t>(obj.mtime_sec), static_cast<suseconds_t>(obj.mtime_usec)};
  f.ctime = {static_cast<time_t>(obj.ctime_sec), static_cast<suseconds_t>(obj.ctime_usec)};
  f.fourth_time = {static_cast<time_t>(obj.extra[0]), static_cast<suseconds_t>(obj.extra[1])};
  vstat->mtype = static_cast<silo_mtype_t>(obj.vns_obj_mtype);
  vstat->obj_oid = obj.vns_obj_oid;
  long names = 0;
  if (is_version_type(obj.vns_obj_mtype)) {
    vns_db_ver ver{};
    DB_ADDR dba = 0;
    bool found = false;
    if ((st = read_by_dbid(VNS_VER_KEY, silo_dba, dbid, &ver, &found, &dba, "VNS_DB_VER")) != 0) return st;
    if (!found) return tvr_engine_err("D_KEYFIND", "VNS_DB_VER_2", S_NOTFOUND);
    f.size = (static_cast<uint64_t>(ver.size[1]) << 32) | ver.size[0];
    f.spare = ver.usage;
    vstat->event_time = {static_cast<time_t>(ver.event_sec), static_cast<suseconds_t>(ver.event_usec)};
    if ((st = member_count(VNS_VER_NAME_SET, dba, &names, "VNS_DB_VER")) != 0) return st;
    vns_db_obj elem{};
    if ((st = obj_by_dbid(silo_dba, obj.vns_obj_nodeid, &elem, &found)) != 0) return st;
    if (found) vstat->elem_oid = elem.vns_obj_oid;
  } else if (obj.vns_obj_mtype == SILO_MTYPE_SYMLINK) {
    vns_db_slink link{};
    DB_ADDR dba = 0;
    bool found = false;
    if ((st = read_by_dbid(VNS_SLINK_KEY, silo_dba, dbid, &link, &found, &dba, "VNS_SLINK")) != 0) return st;
    if (!found) return tvr_engine_err("D_KEYFIND", "VNS_SLINK_2", S_NOTFOUND);
    f.size = link.text_len;
    vstat->event_time = {static_cast<time_t>(link.event_sec), static_cast<suseconds_t>(link.event_usec)};
    if ((st = member_count(VNS_SLINK_NAME_SET, dba, &names, "VNS_SLINK")) != 0) return st;
    vstat->elem_oid = obj.vns_obj_oid;
  } else {
    vns_db_elem elem{};
    bool found = false;
    if ((st = read_by_dbid(VNS_ELEM_KEY, silo_dba, dbid, &elem, &found, nullptr, "VNS_DB_ELEM")) != 0) return st;
    if (!found) return tvr_engine_err("D_KEYFIND", "VNS_DB_ELEM", S_NOTFOUND);
    vstat->event_time = {static_cast<time_t>(elem.event_sec), static_cast<suseconds_t>(elem.event_usec)};
    vstat->elem_oid = obj.vns_obj_oid;
    names = 1;
  }
  f.nlink = static_cast<uint32_t>(names);
  return 0;
}

int tvr_db_get_ver_scope(uint32_t silo, uint32_t dbid, DB_ADDR* scope_dba) {
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_enter_read(silo, &silo_dba);
  if (st != 0) return st;
  vns_db_dir_ver_ent row{};
  DB_ADDR at = 0;
  if ((st = first_name(silo_dba, dbid, &row, &at)) != 0) return st;
  if ((st = owner_of(VNS_SCOPE_ENT_SET, at, scope_dba, "VER_SCOPE_GET")) != 0) return st;
  return *scope_dba != 0 ? 0 : tvr_engine_err("D_SETMR", "VER_SCOPE_GET", S_NOTCON);
}

int tvr_db_get_ver_scope_oid(uint32_t silo, uint32_t dbid, tbs_oid_s* scope_oid, uint32_t* gn) {
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_enter_read(silo, &silo_dba);
  if (st != 0) return st;
  vns_db_dir_ver_ent row{};
  DB_ADDR at = 0;
  if ((st = first_name(silo_dba, dbid, &row, &at)) != 0) return st;
  if (scope_oid != nullptr) *scope_oid = row.scope;
  return gn != nullptr ? name_gn(row, gn, "VER_SCOPE_GET") : 0;
}

int tvr_db_ver_get_parent(uint32_t silo, uint32_t dbid, uint32_t* parent) {
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_enter_read(silo, &silo_dba);
  if (st != 0) return st;
  vns_db_dir_ver_ent row{};
  DB_ADDR at = 0;
  if ((st = first_name(silo_dba, dbid, &row, &at)) != 0) return st;
  *parent = row.dir_dbid;
  return 0;
}

int tvr_db_ver_path(uint32_t silo, uint32_t dbid, std::string* path) {
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_enter_read(silo, &silo_dba);
  if (st != 0) return st;
  path->clear();
  for (int depth = 0;; depth++) {
    if (depth > 4096) return TBS_ST_INTERNAL;
    vns_db_dir_ver_ent row{};
    DB_ADDR at = 0;
    if ((st = first_name(silo_dba, dbid, &row, &at)) != 0) return st;
    if (row.dir_dbid == 0) return 0;  // the root's row
    std::string name;
    if ((st = entry_name(at, row, &name)) != 0) return st;
    *path = "/" + name + *path;
    dbid = row.dir_dbid;
  }
}

int tvr_db_ver_get_elem(uint32_t silo, uint32_t dbid, uint32_t* elem_dbid) {
  vns_db_obj obj{};
  int st = tvr_db_get_obj_info(silo, dbid, &obj);
  if (st != 0) return st;
  if (is_elem_type(obj.vns_obj_mtype)) return TBS_ST_NOT_FOUND;
  *elem_dbid = obj.vns_obj_nodeid;
  return 0;
}

int tvr_db_elem_get_ver(uint32_t silo, uint32_t elem_dbid, uint32_t* ver_dbid) {
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_enter_read(silo, &silo_dba);
  if (st != 0) return st;
  vns_db_elem elem{};
  DB_ADDR elem_dba = 0;
  bool found = false;
  if ((st = read_by_dbid(VNS_ELEM_KEY, silo_dba, elem_dbid, &elem, &found, &elem_dba, "ELEM_GET_VER")) != 0) return st;
  if (!found) {
    // A link is its own element.
    vns_db_obj obj{};
    if ((st = obj_by_dbid(silo_dba, elem_dbid, &obj, &found)) != 0) return st;
    if (found && obj.vns_obj_mtype == SILO_MTYPE_SYMLINK) {
      *ver_dbid = elem_dbid;
      return 0;
    }
    return TBS_ST_NOT_FOUND;
  }
  DB_ADDR first = 0;
  if ((st = first_member(VNS_ELEM_VER_SET, elem_dba, &first, "ELEM_GET_VER")) != 0) return st;
  if (first == 0) return TBS_ST_NOT_FOUND;
  vns_db_ver ver{};
  if ((st = read(first, &ver, "ELEM_GET_VER")) != 0) return st;
  *ver_dbid = ver.dbid;
  return 0;
}

int tvr_db_obj_get_parent_elem(uint32_t silo, uint32_t dbid, uint32_t* parent_elem) {
  uint32_t parent = 0;
  int st = tvr_db_ver_get_parent(silo, dbid, &parent);
  if (st != 0) return st;
  if (parent == 0) {
    *parent_elem = 0;
    return 0;
  }
  return tvr_db_ver_get_elem(silo, parent, parent_elem);
}

int tvr_db_ver_get_sub_vers_dbid(DB_ADDR silo_dba, uint32_t dbid, std::vector<tvr_db_sub_vers>& subs) {
  tvr_db_trans_read_check();
  subs.clear();
  vns_db_dir_ver dir{};
  DB_ADDR dba = 0;
  bool found = false;
  int st = read_by_dbid(VNS_DIR_VER_KEY, silo_dba, dbid, &dir, &found, &dba, "SUB_VER_DBID");
  if (st != 0) return st;
  if (!found) return TBS_ST_NOT_FOUND;
  std::vector<DB_ADDR> rows;
  if ((st = members(VNS_DIR_ENT_SET, dba, &rows, "SUB_VER_DBID")) != 0) return st;
  for (DB_ADDR at : rows) {
    vns_db_dir_ver_ent row{};
    if ((st = read(at, &row, "SUB_VER_DBID")) != 0) return st;
    if (!mtype_valid(row.mtype)) return TBS_ST_INTERNAL;
    subs.push_back({row.obj_dbid, static_cast<silo_mtype_t>(row.mtype), at});
  }
  return 0;
}

int tvr_db_ver_get_sub_vers(uint32_t silo, uint32_t dbid, std::vector<tvr_db_dirent>& names) {
  tvr_db_trans_read_check();
  names.clear();
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_silo_dba(silo, &silo_dba);
  if (st != 0) return st;
  std::vector<tvr_db_sub_vers> subs;
  if ((st = tvr_db_ver_get_sub_vers_dbid(silo_dba, dbid, subs)) != 0) return st;
  for (const auto& s : subs) {
    vns_db_dir_ver_ent row{};
    if ((st = read(s.entry_dba, &row, "SUB_VER_DBID")) != 0) return st;
    tvr_db_dirent d;
    if ((st = entry_name(s.entry_dba, row, &d.name)) != 0) return st;
    d.dbid = s.dbid;
    d.mtype = s.mtype;
    names.push_back(std::move(d));
  }
  return 0;
}
