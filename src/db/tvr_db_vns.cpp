// Namespace objects: creation (identity, element, version, directory and name rows), the creation check,
// moving names between versions and scopes, and the validated / stale / rddir_done marks.
#include "db/tvr_db_vns.h"

#include <algorithm>
#include <cstring>

#include "base/imsg.h"
#include "core/tavrel_trace.h"
#include "db/rec/dt.h"
#include "db/tavrel_engine_db.h"
#include "db/tavrel_engine_utls.h"
#include "db/tvr_db_bytes.h"
#include "db/tvr_db_vns_int.h"

using namespace tvr_vns;

namespace {

bool non_default(const tbs_oid_s* scope) { return !tvr_db_is_def_scope(scope_oid_of(scope)); }

// The name set that a name row of `mtype` belongs to, and the record that owns it.
int name_set_of(uint32_t mtype, int* set, long* key) {
  if (mtype == SILO_MTYPE_SYMLINK) {
    *set = VNS_SLINK_NAME_SET;
    *key = VNS_SLINK_KEY;
    return 0;
  }
  if (is_version_type(mtype)) {
    *set = VNS_VER_NAME_SET;
    *key = VNS_VER_KEY;
    return 0;
  }
  return TBS_ST_INTERNAL;
}

int dir_row(DB_ADDR silo_dba, uint32_t dbid, vns_db_dir_ver* dir, DB_ADDR* dba, const char* label) {
  bool found = false;
  int st = read_by_dbid(VNS_DIR_VER_KEY, silo_dba, dbid, dir, &found, dba, label);
  if (st != 0) return st;
  return found ? 0 : TBS_ST_NOT_FOUND;
}

int ver_row(DB_ADDR silo_dba, uint32_t dbid, vns_db_ver* ver, DB_ADDR* dba, const char* label) {
  bool found = false;
  int st = read_by_dbid(VNS_VER_KEY, silo_dba, dbid, ver, &found, dba, label);
  if (st != 0) return st;
  return found ? 0 : TBS_ST_NOT_FOUND;
}

// Every name row of a version or link.
int names_of(DB_ADDR silo_dba, uint32_t dbid, uint32_t mtype, std::vector<DB_ADDR>* rows, const char* label) {
  int set = 0;
  long key = 0;
  if (name_set_of(mtype, &set, &key) != 0) return TBS_ST_INTERNAL;
  key_silo_dbid k{silo_dba, dbid};
  bool found = false;
  DB_ADDR owner = 0;
  int st = find(key, &k, &found, &owner, label);
  if (st != 0) return st;
  if (!found) return TBS_ST_NOT_FOUND;
  return members(set, owner, rows, label);
}

int set_row_validated(DB_ADDR at, int validated, const char* label) {
  vns_db_dir_ver_ent row{};
  int st = read(at, &row, label);
  if (st != 0 || row.validated == static_cast<uint32_t>(validated)) return st;
  row.validated = static_cast<uint32_t>(validated);
  return write(at, &row, label);
}

int obj_row_checked(DB_ADDR silo_dba, uint32_t dbid, vns_db_obj* obj, const char* label) {
  bool found = false;
  int st = obj_by_dbid(silo_dba, dbid, obj, &found);
  if (st != 0) return st;
  if (!found) return TBS_ST_NOT_FOUND;
  if (!mtype_valid(obj->vns_obj_mtype)) {
    (void)label;
    return TBS_ST_INTERNAL;
  }
  return 0;
}

void fill_obj_attrs(const tbs_fstat_db_t& f, vns_db_obj* obj) {
  obj->vns_obj_ftype = f.type;
  obj->vns_obj_mode = f.mode;
  obj->atime_sec = static_cast<uint32_t>(f.atime.tv_sec);
  obj->atime_usec = static_cast<uint32_t>(f.atime.tv_usec);
  obj->mtime_sec = static_cast<uint32_t>(f.mtime.tv_sec);
  obj->mtime_usec = static_cast<uint32_t>(f.mtime.tv_usec);
  obj->ctime_sec = static_cast<uint32_t>(f.ctime.tv_sec);
  obj->ctime_usec = static_cast<uint32_t>(f.ctime.tv_usec);
  obj->extra[0] = static_cast<uint32_t>(f.fourth_time.tv_sec);
  obj->extra[1] = static_cast<uint32_t>(f.fourth_time.tv_usec);
}

int check_name(const char* name) {
  if (name != nullptr && std::strlen(name) > TVR_DB_MAX_NAME) return TBS_ST_TOO_LONG;
  return 0;
}

}  // namespace

// ---- rows --------------------------------------------------------------------------------------------------------
int tvr_db_create_vns_obj(DB_ADDR silo_dba, const tbs_oid_s& oid, silo_mtype_t mtype, const tbs_fstat_db_t& fstat,
                          uint32_t* dbid) {
  tvr_db_trans_write_check();
  if (!mtype_valid(static_cast<uint32_t>(mtype))) return TBS_ST_INTERNAL;
  db_silo silo{};
  int st = read(silo_dba, &silo, "VNS_DB_OBJ");
  if (st != 0) return st;
  silo.silo_next_dbid++;
  vns_db_obj obj{};
  obj.vns_obj_silo_dba = silo_dba;
  obj.vns_obj_oid = oid;
  obj.vns_obj_mtype = static_cast<uint32_t>(mtype);
  obj.vns_obj_dbid = silo.silo_next_dbid;
  obj.vns_obj_nodeid = (mtype == 2 || mtype == 5 || mtype == 7) ? silo.silo_next_dbid : 0;
  fill_obj_attrs(fstat, &obj);
  DB_ADDR dba = 0;
  if ((st = store(VNS_DB_OBJ, &obj, &dba, "VNS_DB_OBJ")) != 0) return st;
  if ((st = write(silo_dba, &silo, "VNS_DB_OBJ2")) != 0) return st;
  *dbid = silo.silo_next_dbid;
  return 0;
}

int tvr_db_create_vns_elem(uint32_t silo, const tbs_oid_s& oid, silo_mtype_t mtype, const struct timeval& event_time,
                           const tbs_fstat_db_t& fstat, int checked_out, const tbs_oid_s* co_ver, uint32_t* dbid,
                           int* changed) {
  if (changed != nullptr) *changed = 1;
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_enter_write(silo, &silo_dba);
  if (st != 0) return st;
  if (!is_elem_type(static_cast<uint32_t>(mtype))) return TBS_ST_INTERNAL;
  vns_db_obj obj{};
  bool found = false;
  if ((st = obj_by_oid(silo_dba, oid, &obj, &found)) != 0) return st;
  if (found) {
    if (!is_elem_type(obj.vns_obj_mtype)) return TBS_ST_INTERNAL;
    *dbid = obj.vns_obj_dbid;
    return tvr_db_elem_set_checkedout(silo, obj.vns_obj_dbid, co_ver, checked_out, changed);
  }
  if ((st = tvr_db_create_vns_obj(silo_dba, oid, mtype, fstat, dbid)) != 0) return st;
  vns_db_elem elem{};
  elem.silo_dba = silo_dba;
  elem.dbid = *dbid;
  elem.co_ver = co_ver != nullptr ? *co_ver : TBS_OID_NULL;
  elem.event_sec = static_cast<uint32_t>(event_time.tv_sec);
  elem.event_usec = static_cast<uint32_t>(event_time.tv_usec);
  elem.checked_out = checked_out ? 1 : 0;
  DB_ADDR dba = 0;
  if ((st = store(VNS_DB_ELEM, &elem, &dba, "VNS_DB_ELEM")) != 0) return st;
  if (checked_out && (st = dt_keystore(VNS_ELEM_CHECKEDOUT, view_db_task, -1)) != S_OKAY)
    return tvr_engine_err("D_KEYSTORE", "SET_CHECKOUT", st);
  return 0;
}

// The version row of a new version identity, connected to its element.
static int create_ver_rec(DB_ADDR silo_dba, uint32_t dbid, const tbs_oid_s& elem_oid, silo_mtype_t mtype,
                          const struct timeval& event_time, const tbs_fstat_db_t& fstat) {
  vns_db_obj elem_obj{};
  bool found = false;
  DB_ADDR elem_obj_dba = 0;
  int st = obj_by_oid(silo_dba, elem_oid, &elem_obj, &found, &elem_obj_dba);
  if (st != 0) return st;
  if (!found || !is_elem_type(elem_obj.vns_obj_mtype)) return TBS_ST_NOT_FOUND;
  vns_db_ver ver{};
  ver.silo_dba = silo_dba;
  ver.dbid = dbid;
  ver.event_sec = static_cast<uint32_t>(event_time.tv_sec);
  ver.event_usec = static_cast<uint32_t>(event_time.tv_usec);
  ver.size[0] = static_cast<uint32_t>(fstat.size & 0xffffffffu);
  ver.size[1] = static_cast<uint32_t>(fstat.size >> 32);
  ver.usage = fstat.spare;
  ver.mtype = static_cast<uint32_t>(mtype);
  ver.stale = 0;
  DB_ADDR ver_dba = 0;
  if ((st = store(VNS_DB_VER, &ver, &ver_dba, "VNS_DB_VER")) != 0) return st;
  vns_db_elem elem{};
  DB_ADDR elem_dba = 0;
  if ((st = read_by_dbid(VNS_ELEM_KEY, silo_dba, elem_obj.vns_obj_dbid, &elem, &found, &elem_dba, "ELEM_LOOKUP")) != 0)
    return st;
  if (!found) return tvr_engine_err("D_KEYFIND", "ELEM_LOOKUP", S_NOTFOUND);
  if ((st = connect(VNS_ELEM_VER_SET, elem_dba, ver_dba, "ELEM_VER_SET")) != 0) return st;
  DB_ADDR owner = 0;
  if ((st = owner_of(VNS_ELEM_VER_SET, ver_dba, &owner, "ELEM_VER_SET")) != 0) return st;
  if (owner != elem_dba) {
    imsg_print(IMSG_ERR, "*** not in VNS_ELEM_VER_SET set.\n");
    return 0;
  }
  DB_ADDR obj_dba = 0;
  vns_db_obj obj{};
  if ((st = obj_by_dbid(silo_dba, dbid, &obj, &found, &obj_dba)) != 0) return st;
  if (!found) return tvr_engine_err("D_KEYFIND", "OBJ_NODEID", S_NOTFOUND);
  obj.vns_obj_nodeid = elem_obj.vns_obj_dbid;
  return write(obj_dba, &obj, "OBJ_NODEID");
}

// The directory row of a directory version.
static int create_dir_ver_rec(DB_ADDR silo_dba, uint32_t dbid, uint32_t parent, int load_state, bool non_def,
                              int* created) {
  *created = 0;
  vns_db_dir_ver dir{};
  DB_ADDR dba = 0;
  int st = dir_row(silo_dba, dbid, &dir, &dba, "CREATE_DIR_VER");
  if (st == 0) {
    if (non_def && load_state == 1 && dir.saved_rddir_state != 3) {
      dir.saved_rddir_state = 3;
      dir.rddir_done = 0;
      return write(dba, &dir, "CREATE_DIR_VER");
    }
    return 0;
  }
  if (st != TBS_ST_NOT_FOUND) return st;
  dir = vns_db_dir_ver{};
  dir.silo_dba = silo_dba;
  dir.dbid = dbid;
  dir.parent_dbid = parent;
  dir.type = SILO_MTYPE_DIR_VER;
  dir.rddir_done = 0;
  dir.saved_rddir_state = (non_def && (load_state == 1 || load_state == 2)) ? 3 : 0;
  if ((st = store(VNS_DB_DIR_VER, &dir, &dba, "CREATE_DIR_VER")) != 0) return st;
  *created = 1;
  return 0;
}

// A name row for object `dbid` in `dir` (0: a root, with no name).
static int create_dir_ver_ent_rec(DB_ADDR silo_dba, uint32_t dbid, uint32_t dir, silo_mtype_t mtype,
                                  const tbs_oid_s* scope, uint32_t gn, const char* name, DB_ADDR* entry,
                                  tbs_oid_s* hardlink_oid) {
  DB_ADDR scope_dba = 0;
  int st = scope_dba_of(scope, &scope_dba, "DIR_VER_ENT");
  if (st == TBS_ST_NOT_FOUND) return TBS_ST_INTERNAL;
  if (st != 0) return st;
  if (scope == nullptr || tbs_oid_is_null(*scope)) {
    vns_db_lr_scope def{};
    if ((st = read(scope_dba, &def, "DIR_VER_ENT")) != 0) return st;
    gn = def.gn;
  }
  size_t len = name != nullptr ? std::strlen(name) : 0;
  vns_db_dir_ver_ent row{};
  row.silo_dba = silo_dba;
  row.obj_dbid = dbid;
  row.dir_dbid = dir;
  row.scope = scope_oid_of(scope);
  row.hash = name != nullptr ? tvr_db_hash_name(name, len) : 0;
  row.mtype = static_cast<uint32_t>(mtype);
  row.validated = 1;
  row.scope_gn = gn;
  row.name_len = static_cast<uint16_t>(len);
  if (len > 0) std::memcpy(row.name, name, std::min<size_t>(len, VNS_NAME_INLINE));
  DB_ADDR dba = 0;
  if ((st = store(VNS_DB_DIR_VER_ENT, &row, &dba, "DIR_VER_ENT")) != 0) return st;
  if (len > VNS_NAME_INLINE) {
    if ((st = store_tail(dba, name, len, VNS_NAME_INLINE, &row.name_bytes_dba)) != 0) return st;
    if ((st = write(dba, &row, "DIR_VER_ENT")) != 0) return st;
  }
  if (dir != 0) {
    vns_db_dir_ver d{};
    DB_ADDR dir_dba = 0;
    if ((st = dir_row(silo_dba, dir, &d, &dir_dba, "DIR_VER_ENT_2")) == TBS_ST_NOT_FOUND)
      return tvr_engine_err("D_KEYFIND", "DIR_VER_ENT_2", S_NOTFOUND);
    if (st != 0) return st;
    if ((st = connect(VNS_DIR_ENT_SET, dir_dba, dba, "DIR_VER_ENT_2")) != 0) return st;
  }
  int set = 0;
  long key = 0;
  if (name_set_of(static_cast<uint32_t>(mtype), &set, &key) != 0) return TBS_ST_INTERNAL;
  key_silo_dbid k{silo_dba, dbid};
  bool found = false;
  DB_ADDR owner = 0;
  if ((st = find(key, &k, &found, &owner, "DIR_VER_ENT_3")) != 0) return st;
  if (!found) return tvr_engine_err("D_KEYFIND", "DIR_VER_ENT_3", S_NOTFOUND);
  if ((st = connect(set, owner, dba, "DIR_VER_ENT_3")) != 0) return st;
  if ((st = connect(VNS_SCOPE_ENT_SET, scope_dba, dba, "DIR_VER_ENT_3")) != 0) return st;
  if (entry != nullptr) *entry = dba;
  if (mtype == SILO_MTYPE_DIR_VER && hardlink_oid != nullptr) {
    int count = 0;
    std::vector<tbs_oid_s> unused;
    return tvr_db_ver_has_hardlink(dba, &count, hardlink_oid, unused);
  }
  return 0;
}

// ---- creation check ------------------------------------------------------------------------------------------------
int tvr_db_obj_creation_check(DB_ADDR silo_dba, const tbs_oid_s& oid, const tbs_oid_s& elem_oid, uint32_t parent,
                              silo_mtype_t mtype, const char* name, tvr_db_creation_check_t* r) {
  tvr_db_trans_read_check();
  *r = tvr_db_creation_check_t{};
  uint32_t m = static_cast<uint32_t>(mtype);
  if (!is_version_type(m) && m != SILO_MTYPE_SYMLINK) return TBS_ST_INTERNAL;
  int found = 0;
  DB_ADDR entry = 0;
  int st = 0;
  if (parent != 0 || name != nullptr) {
    if ((st = tvr_db_dir_ver_ent_lookup_name(silo_dba, parent, name, &found, &entry)) != 0) return st;
  } else {
    // A root has no name to look up: its name row is the one of the silo's current root.
    db_silo silo{};
    if ((st = read(silo_dba, &silo, "EVIL_TWINS_CHECK")) != 0) return st;
    if (silo.silo_root_dbid != 0) {
      key_silo_dbid k{silo_dba, silo.silo_root_dbid};
      bool f = false;
      if ((st = find(DIR_VER_ENT_LOOKUP, &k, &f, &entry, "EVIL_TWINS_CHECK")) != 0) return st;
      found = f ? 1 : 0;
    }
  }
  if (found) {
    r->entry = entry;
    r->by_name = true;
    vns_db_dir_ver_ent row{};
    if ((st = read(entry, &row, "EVIL_TWINS_CHECK")) != 0) return st;
    if (mtype_norm(row.mtype) != mtype_norm(m)) {
      r->evil_twin = true;
      return 0;
    }
    vns_db_obj obj{};
    if ((st = obj_row_checked(silo_dba, row.obj_dbid, &obj, "EVIL_TWINS_CHECK")) == TBS_ST_NOT_FOUND)
      return tvr_engine_err("D_KEYFIND", "EVIL_TWINS_CHECK", S_NOTFOUND);
    if (st != 0) return st;
    if (m == SILO_MTYPE_SYMLINK) {
      r->same_elem = r->same_ver = obj.vns_obj_oid == oid;
      r->changed_ver = !r->same_ver;
      return 0;
    }
    vns_db_obj elem{};
    if ((st = obj_row_checked(silo_dba, obj.vns_obj_nodeid, &elem, "EVIL_TWINS_CHECK")) == TBS_ST_NOT_FOUND)
      return tvr_engine_err("D_KEYFIND", "VNS_VER_ELEM", S_NOTFOUND);
    if (st != 0) return st;
    if (elem.vns_obj_oid != elem_oid) {
      r->evil_twin = true;
      return 0;
    }
    r->same_elem = true;
    r->same_ver = obj.vns_obj_oid == oid;
    r->changed_ver = !r->same_ver;
    return 0;
  }
  // No row under that name.
  vns_db_obj obj{};
  bool known = false;
  if ((st = obj_by_oid(silo_dba, oid, &obj, &known)) != 0) return st;
  if (known) {
    if (mtype_norm(obj.vns_obj_mtype) != mtype_norm(m)) return TBS_ST_INTERNAL;
    r->existing = true;
    r->existing_dbid = obj.vns_obj_dbid;
    bool f = false;
    key_silo_dbid k{silo_dba, obj.vns_obj_dbid};
    return find(DIR_VER_ENT_LOOKUP, &k, &f, &r->entry, "EVIL_TWINS_CHECK");
  }
  if (m == SILO_MTYPE_SYMLINK) return 0;
  vns_db_obj elem{};
  bool elem_known = false;
  DB_ADDR elem_obj_dba = 0;
  if ((st = obj_by_oid(silo_dba, elem_oid, &elem, &elem_known, &elem_obj_dba)) != 0) return st;
  if (!elem_known || !is_elem_type(elem.vns_obj_mtype)) return 0;
  vns_db_elem elem_row{};
  DB_ADDR elem_dba = 0;
  bool f = false;
  if ((st = read_by_dbid(VNS_ELEM_KEY, silo_dba, elem.vns_obj_dbid, &elem_row, &f, &elem_dba, "ELEM_LOOKUP")) != 0)
    return st;
  if (!f) return tvr_engine_err("D_KEYFIND", "ELEM_LOOKUP", S_NOTFOUND);
  DB_ADDR first_ver = 0;
  if ((st = first_member(VNS_ELEM_VER_SET, elem_dba, &first_ver, "ELEM_GET_VER")) != 0 || first_ver == 0) return st;
  // The element holds another version: that version's first name is the one to repoint.
  vns_db_ver ver{};
  if ((st = read(first_ver, &ver, "ELEM_GET_VER")) != 0) return st;
  key_silo_dbid k{silo_dba, ver.dbid};
  if ((st = find(DIR_VER_ENT_LOOKUP, &k, &f, &r->entry, "EVIL_TWINS_CHECK")) != 0) return st;
  r->same_elem = true;
  r->changed_ver = f;
  if (!f) r->entry = 0;
  return 0;
}

int tvr_db_handle_evil_twins(uint32_t parent, DB_ADDR entry) {
  tvr_db_trans_write_check();
  Tavrel_Trace trace(TAVREL_DB, "", "tvr_db_handle_evil_twins");
  vns_db_dir_ver_ent row{};
  int st = read(entry, &row, "HANDLE_EVIL_TWINS");
  if (st != 0) return st;
  trace.writeTrace(TRACE_LEVEL_2, "evil twin dbid %d in parent dbid %d", row.obj_dbid, parent);
  bool went_stale = false;
  return tvr_db_remove_version(row.silo_dba, row.obj_dbid, static_cast<silo_mtype_t>(row.mtype), parent, entry,
                               went_stale);
}

// ---- creating versions -------------------------------------------------------------------------------------------
namespace {

struct create_args {
  DB_ADDR silo_dba;
  uint32_t parent;
  const tbs_oid_s* oid;
  const tbs_oid_s* elem_oid;
  silo_mtype_t mtype;
  const struct timeval* event_time;
  const char* name;
  const tbs_fstat_db_t* fstat;
  const char* text;  // links only
  const tbs_oid_s* scope;
  uint32_t gn;
  int load_state;
};

int create_slink_rec(DB_ADDR silo_dba, uint32_t dbid, const struct timeval& event_time, const char* text) {
  size_t len = std::strlen(text);
  vns_db_slink link{};
  link.silo_dba = silo_dba;
  link.dbid = dbid;
  link.event_sec = static_cast<uint32_t>(event_time.tv_sec);
  link.event_usec = static_cast<uint32_t>(event_time.tv_usec);
  link.text_len = static_cast<uint16_t>(len);
  std::memcpy(link.text, text, std::min<size_t>(len, SLINK_TEXT_INLINE));
  DB_ADDR dba = 0;
  int st = store(VNS_DB_SLINK, &link, &dba, "CREATE_SLINK");
  if (st != 0 || len <= SLINK_TEXT_INLINE) return st;
  if ((st = store_tail(dba, text, len, SLINK_TEXT_INLINE, &link.text_bytes_dba)) != 0) return st;
  return write(dba, &link, "CREATE_SLINK_2");
}

// The common plan of versions, roots and links. *dbid receives the object's dbid.
int create_object(const create_args& a, uint32_t* dbid, tbs_oid_s* hardlink_oid, tbs_oid_s* out_oid, int* same) {
  Tavrel_Trace trace(TAVREL_DB, "", "tvr_db_create_vns_ver");
  if (same != nullptr) *same = 0;
  if (hardlink_oid != nullptr) *hardlink_oid = TBS_OID_NULL;
  if (out_oid != nullptr) *out_oid = TBS_OID_NULL;
  const bool is_dir = a.mtype == SILO_MTYPE_DIR_VER;
  const bool non_def = non_default(a.scope);
  tvr_db_creation_check_t check;
  int st = 0;
  for (;;) {
    if ((st = tvr_db_obj_creation_check(a.silo_dba, *a.oid, *a.elem_oid, a.parent, a.mtype, a.name, &check)) != 0)
      return st;
    if (!check.evil_twin) break;
    vns_db_dir_ver_ent twin{};
    if ((st = read(check.entry, &twin, "HANDLE_EVIL_TWINS")) != 0) return st;
    if (out_oid != nullptr && tvr_db_lookup_obj_oid(a.silo_dba, twin.obj_dbid, out_oid, nullptr) != 0)
      *out_oid = TBS_OID_NULL;
    if ((st = tvr_db_handle_evil_twins(a.parent, check.entry)) != 0) return st;
  }
  if (check.same_ver) {
    if (same != nullptr) *same = 1;
    vns_db_dir_ver_ent row{};
    if ((st = read(check.entry, &row, "VNS_CREATE_VER")) != 0) return st;
    *dbid = row.obj_dbid;
    int changed = 0, to_default = 0;
    if ((st = tvr_db_dir_ver_ent_update_scope(check.entry, a.scope, a.gn, hardlink_oid, &changed, &to_default)) != 0)
      return st;
    if ((st = set_row_validated(check.entry, 1, "VNS_CREATE_VER")) != 0) return st;
    if (a.mtype == SILO_MTYPE_SYMLINK) return 0;
    vns_db_ver ver{};
    DB_ADDR ver_dba = 0;
    if ((st = ver_row(a.silo_dba, *dbid, &ver, &ver_dba, "SET_VER_STALE")) != 0) return st;
    if (ver.stale != 0) {
      ver.stale = 0;
      if ((st = write(ver_dba, &ver, "SET_VER_STALE")) != 0) return st;
    }
    if (!is_dir) return 0;
    if (changed || (non_def && a.load_state == 1)) {
      if ((st = tvr_db_mark_saved_readdir_done(a.silo_dba, *dbid, a.scope, a.load_state)) != 0) return st;
    } else if ((st = tvr_db_ver_set_readdir_done_only(a.silo_dba, *dbid, 0)) != 0) {
      return st;
    }
    if (to_default) return tvr_db_dir_ver_reconn_sub_ver_scope(a.silo_dba, *dbid, a.scope);
    return 0;
  }
  if (check.existing) {
    *dbid = check.existing_dbid;
    return create_dir_ver_ent_rec(a.silo_dba, *dbid, a.parent, a.mtype, a.scope, a.gn, a.name, nullptr, hardlink_oid);
  }
  // A new object.
  if ((st = tvr_db_create_vns_obj(a.silo_dba, *a.oid, a.mtype, *a.fstat, dbid)) != 0) return st;
  if (a.mtype == SILO_MTYPE_SYMLINK) {
    if ((st = create_slink_rec(a.silo_dba, *dbid, *a.event_time, a.text)) != 0) return st;
  } else {
    if ((st = create_ver_rec(a.silo_dba, *dbid, *a.elem_oid, a.mtype, *a.event_time, *a.fstat)) != 0) return st;
    if (is_dir) {
      int created = 0;
      if ((st = create_dir_ver_rec(a.silo_dba, *dbid, a.parent, a.load_state, non_def, &created)) != 0) return st;
    }
  }
  if (!check.changed_ver) {
    return create_dir_ver_ent_rec(a.silo_dba, *dbid, a.parent, a.mtype, a.scope, a.gn, a.name, nullptr, hardlink_oid);
  }
  // Another version of the element stood here: its name now shows the new version.
  vns_db_dir_ver_ent moved{};
  if ((st = read(check.entry, &moved, "DIR_VER_ENT_MOVE")) != 0) return st;
  if (out_oid != nullptr && tvr_db_lookup_obj_oid(a.silo_dba, moved.obj_dbid, out_oid, nullptr) != 0)
    *out_oid = TBS_OID_NULL;
  int to_default = 0;
  uint32_t old_dbid = 0;
  if ((st = tvr_db_dir_ver_ent_move(a.silo_dba, *dbid, check.entry, a.scope, a.gn, &to_default, &old_dbid)) != 0)
    return st;
  trace.writeTrace(TRACE_LEVEL_2, "dbid %d replaces dbid %d", *dbid, old_dbid);
  if (is_dir) {
    if ((st = tvr_db_dir_ver_update_dbid(a.silo_dba, old_dbid, *dbid, a.load_state == 2)) != 0) return st;
    if (a.load_state == 2) note_scope_end_visit(check.entry);  // its saved state waits for the scope's end
    if (to_default && (st = tvr_db_dir_ver_reconn_sub_ver_scope(a.silo_dba, *dbid, a.scope)) != 0) return st;
  }
  if (a.mtype == SILO_MTYPE_SYMLINK) {
    if ((st = tvr_db_remove_one_slink(a.silo_dba, old_dbid, 0, 0)) != 0) return st;
  } else if ((st = tvr_db_remove_one_ver(a.silo_dba, old_dbid, 0, 0)) != 0) {
    return st;
  }
  // The old version was named elsewhere (a move together with a new version): the name asked for is
  // made as well, so the caller finds what it created.
  if (!check.by_name) {
    return create_dir_ver_ent_rec(a.silo_dba, *dbid, a.parent, a.mtype, a.scope, a.gn, a.name, nullptr, hardlink_oid);
  }
  return 0;
}

}  // namespace

int tvr_db_create_vns_ver(uint32_t silo, uint32_t parent, const tbs_oid_s& oid, const tbs_oid_s& elem_oid,
                          silo_mtype_t mtype, const struct timeval& event_time, const char* name,
                          const tbs_fstat_db_t& fstat, const tbs_oid_s* scope, uint32_t gn, int load_state,
                          uint32_t* dbid, tbs_oid_s* hardlink_oid, tbs_oid_s* out_oid, int* same) {
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_enter_write(silo, &silo_dba);
  if (st != 0) return st;
  if (!is_version_type(static_cast<uint32_t>(mtype))) return TBS_ST_INTERNAL;
  if ((st = check_name(name)) != 0) return st;
  if (parent != 0 && name == nullptr) return TBS_ST_BAD_ARG;
  create_args a{silo_dba, parent, &oid, &elem_oid, mtype, &event_time, name, &fstat, nullptr, scope, gn, load_state};
  return create_object(a, dbid, hardlink_oid, out_oid, same);
}

int tvr_db_create_root_dir(uint32_t silo, const tbs_oid_s& oid, const tbs_oid_s& elem_oid,
                           const struct timeval& event_time, const tbs_fstat_db_t& fstat, const tbs_oid_s* scope,
                           uint32_t gn, int load_state, uint32_t* dbid) {
  tvr_db_trans_write_check();
  Tavrel_Trace trace(TAVREL_DB, "", "tvr_db_create_root_dir");
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_silo_dba(silo, &silo_dba);
  if (st != 0) return st;
  create_args a{silo_dba, 0, &oid, &elem_oid, SILO_MTYPE_DIR_VER, &event_time, nullptr, &fstat, nullptr,
                scope, gn, load_state};
  if ((st = create_object(a, dbid, nullptr, nullptr, nullptr)) != 0) return st;
  db_silo row{};
  if ((st = read(silo_dba, &row, "VNS_CREATE_ROOT_DIR")) != 0) return st;
  if (row.silo_root_dbid != *dbid) {
    row.silo_root_dbid = *dbid;
    if ((st = write(silo_dba, &row, "VNS_CREATE_ROOT_DIR")) != 0) return st;
  }
  int valid = 0;
  tvr_db_ver_get_validated(silo, *dbid, &valid);
  trace.writeTrace(TRACE_LEVEL_2, "setting root dir_ver_ent dbid %d valid=%d", *dbid, valid);
  return 0;
}

int tvr_db_create_vns_slink(uint32_t silo, uint32_t parent, const tbs_oid_s& oid, const struct timeval& event_time,
                            const char* name, const char* text, const tbs_oid_s* scope, uint32_t gn,
                            uint32_t* dbid, int* same) {
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_enter_write(silo, &silo_dba);
  if (st != 0) return st;
  if ((st = check_name(name)) != 0) return st;
  if (name == nullptr || text == nullptr) return TBS_ST_BAD_ARG;
  if (std::strlen(text) > TBS_PNAME_MAX) return TBS_ST_TOO_LONG;
  tbs_fstat_db_t fstat{};
  fstat.type = TBS_FTYPE_LINK;
  fstat.mode = 0777;
  fstat.nlink = 1;
  fstat.spare = 0;
  create_args a{silo_dba, parent, &oid, &oid, SILO_MTYPE_SYMLINK, &event_time, name, &fstat, text, scope, gn, 0};
  return create_object(a, dbid, nullptr, nullptr, same);
}

// ---- moving names ------------------------------------------------------------------------------------------------
int tvr_db_dir_ver_ent_reconn_scope(DB_ADDR entry, DB_ADDR scope_dba) {
  tvr_db_trans_write_check();
  int st = discon(VNS_SCOPE_ENT_SET, entry, "RECONN_SCOPE");
  if (st != 0) return st;
  if ((st = connect(VNS_SCOPE_ENT_SET, scope_dba, entry, "RECONN_SCOPE")) != 0) return st;
  // A name that changes scope may bring a mark or a waiting directory state to the default scope's end.
  vns_db_dir_ver_ent row{};
  if ((st = read(entry, &row, "RECONN_SCOPE")) != 0) return st;
  if (row.remove_mark != 0 || row.mtype == SILO_MTYPE_DIR_VER) note_scope_end_visit(entry);
  return 0;
}

int tvr_db_dir_ver_ent_move(DB_ADDR silo_dba, uint32_t new_dbid, DB_ADDR entry, const tbs_oid_s* scope, uint32_t gn,
                            int* scope_changed, uint32_t* old_dbid) {
  tvr_db_trans_write_check();
  *scope_changed = 0;
  vns_db_dir_ver_ent row{};
  int st = read(entry, &row, "DIR_VER_ENT_MOVE");
  if (st != 0) return st;
  int set = 0;
  long key = 0;
  if (name_set_of(row.mtype, &set, &key) != 0) return TBS_ST_INTERNAL;
  *old_dbid = row.obj_dbid;
  row.obj_dbid = new_dbid;
  row.validated = 1;
  row.scope_gn = gn;
  const tbs_oid_s& new_scope = scope_oid_of(scope);
  if (row.scope != new_scope) {
    DB_ADDR scope_dba = 0;
    if ((st = scope_dba_of(scope, &scope_dba, "DIR_VER_ENT_MOVE")) == TBS_ST_NOT_FOUND) return TBS_ST_INTERNAL;
    if (st != 0) return st;
    if ((st = tvr_db_dir_ver_ent_reconn_scope(entry, scope_dba)) != 0) return st;
    row.scope = new_scope;
    *scope_changed = tvr_db_is_def_scope(new_scope) ? 1 : 0;
  }
  if ((st = write(entry, &row, "DIR_VER_ENT_MOVE")) != 0) return st;
  if ((st = discon(set, entry, "DIR_VER_ENT_MOVE")) != 0) return st;
  key_silo_dbid k{silo_dba, new_dbid};
  bool found = false;
  DB_ADDR owner = 0;
  if ((st = find(key, &k, &found, &owner, "DIR_VER_ENT_MOVE")) != 0) return st;
  if (!found) return tvr_engine_err("D_KEYFIND", "DIR_VER_ENT_MOVE", S_NOTFOUND);
  return connect(set, owner, entry, "DIR_VER_ENT_MOVE");
}

int tvr_db_dir_ver_ent_update_scope(DB_ADDR entry, const tbs_oid_s* scope, uint32_t gn, tbs_oid_s* hardlink_oid,
                                    int* changed, int* to_default) {
  tvr_db_trans_write_check();
  *changed = 0;
  *to_default = 0;
  vns_db_dir_ver_ent row{};
  int st = read(entry, &row, "DIR_VER_ENT_UPDATE_SCOPE");
  if (st != 0) return st;
  const tbs_oid_s& new_scope = scope_oid_of(scope);
  if (row.scope != new_scope) {
    *changed = 1;
    *to_default = tvr_db_is_def_scope(new_scope) ? 1 : 0;
    DB_ADDR scope_dba = 0;
    if ((st = scope_dba_of(scope, &scope_dba, "UPDATE_VER_SCOPE")) == TBS_ST_NOT_FOUND) return TBS_ST_INTERNAL;
    if (st != 0) return st;
    if ((st = tvr_db_dir_ver_ent_reconn_scope(entry, scope_dba)) != 0) return st;
    row.scope = new_scope;
  }
  if (!*changed) {
    uint32_t now = 0;
    if ((st = name_gn(row, &now, "DIR_VER_ENT_UPDATE_SCOPE")) != 0) return st;
    if (now == gn) return 0;
  }
  row.scope_gn = gn;
  if ((st = write(entry, &row, "DIR_VER_ENT_UPDATE_SCOPE")) != 0) return st;
  if (*changed && row.mtype == SILO_MTYPE_DIR_VER && hardlink_oid != nullptr) {
    int count = 0;
    std::vector<tbs_oid_s> unused;
    return tvr_db_ver_has_hardlink(entry, &count, hardlink_oid, unused);
  }
  return 0;
}

int tvr_db_dir_ver_reconn_sub_ver_scope(DB_ADDR silo_dba, uint32_t dbid, const tbs_oid_s* scope) {
  tvr_db_trans_write_check();
  Tavrel_Trace trace(TAVREL_DB, "", "tvr_db_dir_ver_reconn_sub_ver_scope");
  const tbs_oid_s& oid = scope_oid_of(scope);
  DB_ADDR scope_dba = 0;
  int st = scope_dba_of(scope, &scope_dba, "SUB_DIR_ENT");
  if (st == TBS_ST_NOT_FOUND) return TBS_ST_INTERNAL;
  if (st != 0) return st;
  std::vector<uint32_t> subdirs{dbid};
  while (!subdirs.empty()) {
    uint32_t dir = subdirs.back();
    subdirs.pop_back();
    vns_db_dir_ver d{};
    DB_ADDR dir_dba = 0;
    if ((st = dir_row(silo_dba, dir, &d, &dir_dba, "SUB_DIR_ENT")) == TBS_ST_NOT_FOUND) continue;
    if (st != 0) return st;
    std::vector<DB_ADDR> rows;
    if ((st = members(VNS_DIR_ENT_SET, dir_dba, &rows, "SUB_DIR_ENT")) != 0) return st;
    for (DB_ADDR at : rows) {
      vns_db_dir_ver_ent row{};
      if ((st = read(at, &row, "SUB_DIR_ENT_1")) != 0) return st;
      if (row.mtype == SILO_MTYPE_DIR_VER) subdirs.push_back(row.obj_dbid);
      if (row.scope == oid) continue;
      if ((st = tvr_db_dir_ver_ent_reconn_scope(at, scope_dba)) != 0) return st;
      row.scope = oid;
      if ((st = write(at, &row, "SUB_DIR_ENT_1")) != 0) return st;
      trace.writeTrace(TRACE_LEVEL_4, "Reconn sub ver: dbid %d name '%.*s' parent dbid %d", row.obj_dbid,
                       static_cast<int>(std::min<uint16_t>(row.name_len, VNS_NAME_INLINE)), row.name, dir);
    }
  }
  return 0;
}

int tvr_db_dir_ver_update_dbid(DB_ADDR silo_dba, uint32_t old_dbid, uint32_t new_dbid, int keep) {
  tvr_db_trans_write_check();
  Tavrel_Trace trace(TAVREL_DB, "", "tvr_db_dir_ver_update_dbid");
  vns_db_dir_ver old_dir{}, new_dir{};
  DB_ADDR old_dba = 0, new_dba = 0;
  int st = dir_row(silo_dba, old_dbid, &old_dir, &old_dba, "DIR_VER_UPDATE_OLD");
  if (st == TBS_ST_NOT_FOUND) return tvr_engine_err("D_KEYFIND", "DIR_VER_UPDATE_OLD", S_NOTFOUND);
  if (st != 0) return st;
  if ((st = dir_row(silo_dba, new_dbid, &new_dir, &new_dba, "DIR_VER_UPDATE_NEW")) == TBS_ST_NOT_FOUND)
    return tvr_engine_err("D_KEYFIND", "DIR_VER_UPDATE_NEW", S_NOTFOUND);
  if (st != 0) return st;
  std::vector<DB_ADDR> rows;
  if ((st = members(VNS_DIR_ENT_SET, old_dba, &rows, "DIR_VER_UPDATE")) != 0) return st;
  for (DB_ADDR at : rows) {
    vns_db_dir_ver_ent row{};
    if ((st = read(at, &row, "DIR_VER_UPDATE")) != 0) return st;
    if (!mtype_valid(row.mtype) || is_elem_type(row.mtype)) {
      imsg_print(IMSG_ERR, "**Wrong type in dir_ver_ent set.\n");
      return TBS_ST_INTERNAL;
    }
    if ((st = discon(VNS_DIR_ENT_SET, at, "DIR_VER_UPDATE")) != 0) return st;
    row.dir_dbid = new_dbid;
    row.validated = 0;
    trace.writeTrace(TRACE_LEVEL_4, "setting dir_ver_ent dbid %d name '%.*s' valid=%d", row.obj_dbid,
                     static_cast<int>(std::min<uint16_t>(row.name_len, VNS_NAME_INLINE)), row.name, row.validated);
    if ((st = write(at, &row, "DIR_VER_UPDATE_2")) != 0) return st;
    if ((st = connect(VNS_DIR_ENT_SET, new_dba, at, "DIR_VER_UPDATE_2")) != 0) return st;
  }
  if (keep) {
    if ((st = read(new_dba, &new_dir, "DIR_VER_UPDATE_NEW")) != 0) return st;
    new_dir.saved_rddir_state = old_dir.rddir_done ? 2 : 1;
    new_dir.rddir_done = 0;
    if ((st = write(new_dba, &new_dir, "DIR_VER_UPDATE_NEW")) != 0) return st;
  }
  return 0;
}

int tvr_db_ver_has_hardlink(DB_ADDR entry, int* count, tbs_oid_s* oid, std::vector<tbs_oid_s>& scopes) {
  tvr_db_trans_read_check();
  *count = 0;
  if (oid != nullptr) *oid = TBS_OID_NULL;
  scopes.clear();
  vns_db_dir_ver_ent row{};
  int st = read(entry, &row, "VER_HAS_HARDLINK");
  if (st != 0) return st;
  std::vector<DB_ADDR> rows;
  if ((st = names_of(row.silo_dba, row.obj_dbid, row.mtype, &rows, "VER_HAS_HARDLINK")) != 0)
    return st == TBS_ST_NOT_FOUND ? tvr_engine_err("D_KEYFIND", "VER_HAS_HARDLINK", S_NOTFOUND) : st;
  *count = static_cast<int>(rows.size());
  if (rows.size() < 2) return 0;
  for (DB_ADDR at : rows) {
    if (at == entry) continue;
    vns_db_dir_ver_ent other{};
    if ((st = read(at, &other, "VER_HAS_HARDLINK")) != 0) return st;
    if (oid != nullptr) {
      if (other.scope != row.scope) {
        *oid = other.scope;
        return 0;
      }
    } else {
      scopes.push_back(other.scope);
    }
  }
  return 0;
}

// ---- marks ---------------------------------------------------------------------------------------------------------
int tvr_db_ver_get_stale(uint32_t silo, uint32_t dbid, int* stale) {
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_enter_read(silo, &silo_dba);
  if (st != 0) return st;
  vns_db_ver ver{};
  DB_ADDR dba = 0;
  if ((st = ver_row(silo_dba, dbid, &ver, &dba, "GET_VER_STALE")) != 0) return st;
  *stale = ver.stale ? 1 : 0;
  return 0;
}

int tvr_db_ver_set_stale(uint32_t silo, uint32_t dbid, int stale) {
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_enter_write(silo, &silo_dba);
  if (st != 0) return st;
  vns_db_ver ver{};
  DB_ADDR dba = 0;
  if ((st = ver_row(silo_dba, dbid, &ver, &dba, "SET_VER_STALE")) != 0) return st;
  if (ver.stale == static_cast<uint32_t>(stale ? 1 : 0)) return 0;
  ver.stale = stale ? 1 : 0;
  return write(dba, &ver, "SET_VER_STALE");
}

int tvr_db_mark_sub_ver_stale(DB_ADDR silo_dba, uint32_t dbid, int stale) {
  tvr_db_trans_write_check();
  vns_db_dir_ver dir{};
  DB_ADDR dba = 0;
  int st = dir_row(silo_dba, dbid, &dir, &dba, "MARK_VER_SATLE");
  if (st != 0) return st;
  std::vector<DB_ADDR> rows;
  if ((st = members(VNS_DIR_ENT_SET, dba, &rows, "MARK_VER_SATLE")) != 0) return st;
  for (DB_ADDR at : rows) {
    if ((st = set_row_validated(at, stale ? 0 : 1, "MARK_VER_SATLE")) != 0) return st;
  }
  if (stale && dir.rddir_done != 0) {
    if ((st = read(dba, &dir, "MARK_VER_SATLE")) != 0) return st;
    dir.rddir_done = 0;
    return write(dba, &dir, "MARK_VER_SATLE");
  }
  return 0;
}

int tvr_db_ver_set_validated(uint32_t silo, uint32_t dbid, int validated) {
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_enter_write(silo, &silo_dba);
  if (st != 0) return st;
  vns_db_obj obj{};
  if ((st = obj_row_checked(silo_dba, dbid, &obj, "SET_VALIDATED")) != 0) return st;
  std::vector<DB_ADDR> rows;
  if ((st = names_of(silo_dba, dbid, obj.vns_obj_mtype, &rows, "SET_VALIDATED")) != 0) return st;
  for (DB_ADDR at : rows) {
    if ((st = set_row_validated(at, validated ? 1 : 0, "SET_VALIDATED")) != 0) return st;
  }
  return 0;
}

int tvr_db_ver_get_validated(uint32_t silo, uint32_t dbid, int* validated) {
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_enter_read(silo, &silo_dba);
  if (st != 0) return st;
  int found = 0;
  DB_ADDR at = 0;
  if ((st = tvr_db_dir_ver_ent_lookup(silo_dba, dbid, &found, &at)) != 0) return st;
  if (!found) return TBS_ST_NOT_FOUND;
  vns_db_dir_ver_ent row{};
  if ((st = read(at, &row, "GET_VALIDATED")) != 0) return st;
  *validated = row.validated ? 1 : 0;
  return 0;
}

int tvr_db_obj_set_validated(uint32_t silo, uint32_t dbid, int validated) {
  tvr_db_trans_write_check();
  Tavrel_Trace trace(TAVREL_DB, "", "tvr_db_obj_set_validated");
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_silo_dba(silo, &silo_dba);
  if (st != 0) return st;
  vns_db_obj obj{};
  if ((st = obj_row_checked(silo_dba, dbid, &obj, "OBJ_SET_VALIDATE")) != 0) return st;
  std::vector<std::pair<uint32_t, uint32_t>> objects;  // (dbid, mtype)
  if (is_elem_type(obj.vns_obj_mtype)) {
    vns_db_elem elem{};
    DB_ADDR elem_dba = 0;
    bool found = false;
    if ((st = read_by_dbid(VNS_ELEM_KEY, silo_dba, dbid, &elem, &found, &elem_dba, "OBJ_SET_VALIDATE")) != 0) return st;
    if (!found) return tvr_engine_err("D_KEYFIND", "OBJ_SET_VALIDATE", S_NOTFOUND);
    std::vector<DB_ADDR> vers;
    if ((st = members(VNS_ELEM_VER_SET, elem_dba, &vers, "OBJ_SET_VALIDATE")) != 0) return st;
    for (DB_ADDR at : vers) {
      vns_db_ver ver{};
      if ((st = read(at, &ver, "OBJ_SET_VALIDATE_2")) != 0) return st;
      if (!validated && !ver.stale) {
        trace.writeTrace(TRACE_LEVEL_4, "setting ver dbid %d stale", ver.dbid);
        ver.stale = 1;
        if ((st = write(at, &ver, "OBJ_SET_VALIDATE_2")) != 0) return st;
      }
      objects.push_back({ver.dbid, ver.mtype});
    }
  } else {
    objects.push_back({dbid, obj.vns_obj_mtype});
  }
  for (auto [d, m] : objects) {
    std::vector<DB_ADDR> rows;
    if ((st = names_of(silo_dba, d, m, &rows, "OBJ_SET_VALIDATE_2")) != 0) return st;
    for (DB_ADDR at : rows) {
      if ((st = set_row_validated(at, validated ? 1 : 0, "OBJ_SET_VALIDATE_2")) != 0) return st;
    }
    if (!validated && m == SILO_MTYPE_DIR_VER && (st = tvr_db_mark_sub_ver_stale(silo_dba, d, 1)) != 0) return st;
  }
  return 0;
}

int tvr_db_obj_get_validated(uint32_t silo, uint32_t dbid, int* validated) {
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_enter_read(silo, &silo_dba);
  if (st != 0) return st;
  vns_db_obj obj{};
  if ((st = obj_row_checked(silo_dba, dbid, &obj, "OBJ_GET_VALIDATE")) != 0) return st;
  uint32_t target = dbid;
  if (is_elem_type(obj.vns_obj_mtype)) {
    if ((st = tvr_db_elem_get_ver(silo, dbid, &target)) != 0) return st;
  }
  return tvr_db_ver_get_validated(silo, target, validated);
}

int tvr_db_ver_get_readdir_done(uint32_t silo, uint32_t dbid, int* done) {
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_enter_read(silo, &silo_dba);
  if (st != 0) return st;
  vns_db_dir_ver dir{};
  DB_ADDR dba = 0;
  if ((st = dir_row(silo_dba, dbid, &dir, &dba, "DIR_VER")) != 0) return st;
  *done = dir.rddir_done ? 1 : 0;
  return 0;
}

int tvr_db_ver_set_readdir_done_only(DB_ADDR silo_dba, uint32_t dbid, int done) {
  tvr_db_trans_write_check();
  vns_db_dir_ver dir{};
  DB_ADDR dba = 0;
  int st = dir_row(silo_dba, dbid, &dir, &dba, "DIR_VER");
  if (st == TBS_ST_NOT_FOUND) return 0;  // the directory went with its subtree
  if (st != 0) return st;
  // A running scope operation owns the directory's readiness (saved state 2 or 3).
  uint16_t value = (done && dir.saved_rddir_state != 2 && dir.saved_rddir_state != 3) ? 1 : 0;
  if (dir.rddir_done == value) return 0;
  dir.rddir_done = value;
  return write(dba, &dir, "DIR_VER");
}

int tvr_db_ver_set_readdir_done(uint32_t silo, uint32_t dbid, int done, bool& removed) {
  tvr_db_trans_write_check();
  removed = false;
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_silo_dba(silo, &silo_dba);
  if (st != 0) return st;
  vns_db_dir_ver dir{};
  DB_ADDR dba = 0;
  if ((st = dir_row(silo_dba, dbid, &dir, &dba, "DIR_VER")) != 0) return st;
  if ((st = tvr_db_ver_set_readdir_done_only(silo_dba, dbid, done)) != 0 || !done) return st;
  std::vector<DB_ADDR> rows;
  if ((st = members(VNS_DIR_ENT_SET, dba, &rows, "SUB_DIR_ENT")) != 0) return st;
  std::vector<DB_ADDR> unconfirmed;
  for (DB_ADDR at : rows) {
    vns_db_dir_ver_ent row{};
    if ((st = read(at, &row, "SUB_DIR_ENT")) != 0) return st;
    if (!row.validated) unconfirmed.push_back(at);
  }
  for (DB_ADDR at : unconfirmed) {
    vns_db_dir_ver_ent row{};
    bool gone = false;
    if ((st = read(at, &row, "SUB_DIR_ENT", &gone)) != 0) return st;
    if (gone) continue;
    bool went_stale = false;
    st = tvr_db_remove_version(silo_dba, row.obj_dbid, static_cast<silo_mtype_t>(row.mtype), dbid, at, went_stale);
    if (st != 0) return st;
    removed = removed || went_stale;
  }
  return 0;
}

int tvr_db_ver_set_load_done(uint32_t silo, uint32_t dbid, int load_done) {
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_enter_write(silo, &silo_dba);
  if (st != 0) return st;
  if (load_done && (st = tvr_db_mark_sub_ver_stale(silo_dba, dbid, 0)) != 0) return st;
  vns_db_dir_ver dir{};
  DB_ADDR dba = 0;
  if ((st = dir_row(silo_dba, dbid, &dir, &dba, "DIR_VER")) != 0) return st;
  if (dir.rddir_done == 1) return 0;
  dir.rddir_done = 1;
  return write(dba, &dir, "DIR_VER");
}

int tvr_db_mark_saved_readdir_done(DB_ADDR silo_dba, uint32_t dbid, const tbs_oid_s* scope, int load_state) {
  tvr_db_trans_write_check();
  vns_db_dir_ver dir{};
  DB_ADDR dba = 0;
  int st = dir_row(silo_dba, dbid, &dir, &dba, "MARK_SAVED_READDIR");
  if (st != 0) return st;
  vns_db_dir_ver next = dir;
  next.rddir_done = 0;
  if (non_default(scope) && load_state == 1) next.saved_rddir_state = 3;
  if (std::memcmp(&next, &dir, sizeof dir) == 0) return 0;
  return write(dba, &next, "MARK_SAVED_READDIR");
}

int tvr_db_mark_dir_ent_remove(uint32_t silo, uint32_t dir, uint32_t obj, const char* name) {
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_enter_write(silo, &silo_dba);
  if (st != 0) return st;
  int found = 0;
  DB_ADDR at = 0;
  if ((st = tvr_db_dir_ver_ent_lookup_name(silo_dba, dir, name, &found, &at)) != 0) return st;
  if (!found) return TBS_ST_NOT_FOUND;
  vns_db_dir_ver_ent row{};
  if ((st = read(at, &row, "MARK_REMOVE")) != 0) return st;
  if (obj != 0 && row.obj_dbid != obj) return TBS_ST_NOT_FOUND;
  if (row.remove_mark) return 0;
  row.remove_mark = 1;
  if ((st = write(at, &row, "MARK_REMOVE")) != 0) return st;
  note_scope_end_visit(at);
  return 0;
}

// ---- name lookup ---------------------------------------------------------------------------------------------------
int tvr_db_vns_ver_lookup_name(uint32_t silo, uint32_t dir, const char* name, uint32_t* dbid, silo_mtype_t* mtype,
                               tbs_oid_s* scope_oid, uint32_t* gn) {
  tvr_db_trans_read_check();
  Tavrel_Trace trace(TAVREL_DB, "", "tvr_db_vns_ver_lookup_name");
  DB_ADDR silo_dba = 0;
  int st = tvr_db_vns_silo_dba(silo, &silo_dba);
  if (st != 0) return st;
  int found = 0;
  DB_ADDR at = 0;
  if ((st = tvr_db_dir_ver_ent_lookup_name(silo_dba, dir, name, &found, &at)) != 0) return st;
  if (!found) return TBS_ST_NOT_FOUND;
  vns_db_dir_ver_ent row{};
  if ((st = read(at, &row, "DIR_VER_ENT_NAME_LOOKUP")) != 0) return st;
  if (!mtype_valid(row.mtype)) return TBS_ST_INTERNAL;
  if (dbid != nullptr) *dbid = row.obj_dbid;
  if (mtype != nullptr) *mtype = static_cast<silo_mtype_t>(row.mtype);
  if (scope_oid != nullptr) *scope_oid = row.scope;
  if (gn != nullptr && (st = name_gn(row, gn, "DIR_VER_ENT_NAME_LOOKUP")) != 0) return st;
  if (!row.validated) {
    trace.writeTrace(TRACE_LEVEL_4, "found dir_ver_ent dbid %d not valid", row.obj_dbid);
    return TBS_ST_REVALIDATE;
  }
  if (is_version_type(row.mtype)) {
    vns_db_ver ver{};
    DB_ADDR ver_dba = 0;
    if ((st = ver_row(silo_dba, row.obj_dbid, &ver, &ver_dba, "VER_LOOKUP")) == TBS_ST_NOT_FOUND)
      return tvr_engine_err("D_KEYFIND", "VER_LOOKUP", S_NOTFOUND);
    if (st != 0) return st;
    if (ver.stale) {
      trace.writeTrace(TRACE_LEVEL_4, "found ver dbid %d stale", row.obj_dbid);
      return TBS_ST_REVALIDATE;
    }
  }
  return 0;
}
