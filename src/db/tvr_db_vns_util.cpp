// Engine helpers of the namespace records and the plain lookups by dbid and OID.
#include <cstring>

#include "db/rec/dt.h"
#include "db/tavrel_engine_db.h"
#include "db/tavrel_engine_utls.h"
#include "db/tvr_db_bytes.h"
#include "db/tvr_db_vns.h"
#include "db/tvr_db_vns_int.h"
#include "proto/wan_names.h"

namespace tvr_vns {

bool mtype_valid(uint32_t m) { return m == 2 || m == 3 || m == 5 || m == 6 || m == 7 || m == 8; }
bool is_version_type(uint32_t m) { return m == 3 || m == 6 || m == 8; }
bool is_elem_type(uint32_t m) { return m == 2 || m == 5; }

int find(long key, const void* value, bool* found, DB_ADDR* dba, const char* label) {
  *found = false;
  int st = dt_keyfind(key, value, view_db_task, -1);
  if (st == S_NOTFOUND) return 0;
  if (st != S_OKAY) return tvr_engine_err("D_KEYFIND", label, st);
  if (dba != nullptr && (st = dt_crget(dba, view_db_task, -1)) != S_OKAY) return tvr_engine_err("D_CRGET", label, st);
  *found = true;
  return 0;
}

int read(DB_ADDR dba, void* row, const char* label, bool* gone) {
  if (gone != nullptr) *gone = false;
  int st = dt_crset(&dba, view_db_task, -1);
  if (st == S_DELETED && gone != nullptr) {
    *gone = true;
    return 0;
  }
  if (st != S_OKAY) return tvr_engine_err("D_CRSET", label, st);
  if ((st = dt_recread(row, view_db_task, -1)) != S_OKAY) return tvr_engine_err("D_RECREAD", label, st);
  return 0;
}

int write(DB_ADDR dba, const void* row, const char* label) {
  int st = dt_crset(&dba, view_db_task, -1);
  if (st != S_OKAY) return tvr_engine_err("D_CRSET", label, st);
  if ((st = dt_recwrite(row, view_db_task, -1)) != S_OKAY) return tvr_engine_err("D_RECWRITE", label, st);
  return 0;
}

int read_by_dbid(long key, DB_ADDR silo_dba, uint32_t dbid, void* row, bool* found, DB_ADDR* dba,
                 const char* label) {
  key_silo_dbid k{silo_dba, dbid};
  DB_ADDR at = 0;
  int st = find(key, &k, found, &at, label);
  if (st != 0 || !*found) return st;
  if (dba != nullptr) *dba = at;
  if ((st = dt_recread(row, view_db_task, -1)) != S_OKAY) return tvr_engine_err("D_RECREAD", label, st);
  return 0;
}

int store(int rec, const void* row, DB_ADDR* dba, const char* label) {
  int st = dt_fillnew(rec, row, view_db_task, -1);
  if (st == S_DUPLICATE) return TBS_ST_EXISTS;
  if (st != S_OKAY) return tvr_engine_err("D_FILLNEW", label, st);
  if ((st = dt_crget(dba, view_db_task, -1)) != S_OKAY) return tvr_engine_err("D_CRGET", label, st);
  return 0;
}

int connect(int set, DB_ADDR owner, DB_ADDR member, const char* label) {
  int st = dt_crset(&owner, view_db_task, -1);
  if (st == S_OKAY) st = dt_setor(set, view_db_task, -1);
  if (st != S_OKAY) return tvr_engine_err("D_SETOR", label, st);
  st = dt_crset(&member, view_db_task, -1);
  if (st == S_OKAY) st = dt_connect(set, view_db_task, -1);
  if (st != S_OKAY) return tvr_engine_err("D_CONNECT", label, st);
  return 0;
}

int discon(int set, DB_ADDR member, const char* label) {
  int st = dt_crset(&member, view_db_task, -1);
  if (st != S_OKAY) return tvr_engine_err("D_CRSET", label, st);
  st = dt_setmr(set, view_db_task, -1);
  if (st == S_NOTCON) return 0;  // in no such set: nothing to undo
  if (st != S_OKAY) return tvr_engine_err("D_SETMR", label, st);
  st = dt_discon(set, view_db_task, -1);
  if (st != S_OKAY && st != S_EOS) return tvr_engine_err("D_DISCON", label, st);
  return 0;
}

int owner_of(int set, DB_ADDR member, DB_ADDR* owner, const char* label) {
  *owner = 0;
  int st = dt_crset(&member, view_db_task, -1);
  if (st != S_OKAY) return tvr_engine_err("D_CRSET", label, st);
  st = dt_setmr(set, view_db_task, -1);
  if (st == S_NOTCON) return 0;
  if (st != S_OKAY) return tvr_engine_err("D_SETMR", label, st);
  if ((st = dt_csoget(set, owner, view_db_task, -1)) != S_OKAY) return tvr_engine_err("D_CSOGET", label, st);
  return 0;
}

int members(int set, DB_ADDR owner, std::vector<DB_ADDR>* out, const char* label) {
  out->clear();
  int st = dt_crset(&owner, view_db_task, -1);
  if (st == S_OKAY) st = dt_setor(set, view_db_task, -1);
  if (st != S_OKAY) return tvr_engine_err("D_SETOR", label, st);
  for (st = dt_findfm(set, view_db_task, -1); st == S_OKAY; st = dt_findnm(set, view_db_task, -1)) {
    DB_ADDR m = 0;
    if ((st = dt_crget(&m, view_db_task, -1)) != S_OKAY) return tvr_engine_err("D_CRGET", label, st);
    out->push_back(m);
  }
  if (st != S_EOS) return tvr_engine_err("D_FINDNM", label, st);
  return 0;
}

int member_count(int set, DB_ADDR owner, long* count, const char* label) {
  int st = dt_crset(&owner, view_db_task, -1);
  if (st == S_OKAY) st = dt_setor(set, view_db_task, -1);
  if (st != S_OKAY) return tvr_engine_err("D_SETOR", label, st);
  if ((st = dt_members(set, count, view_db_task, -1)) != S_OKAY) return tvr_engine_err("D_MEMBERS", label, st);
  return 0;
}

int first_member(int set, DB_ADDR owner, DB_ADDR* first, const char* label) {
  *first = 0;
  int st = dt_crset(&owner, view_db_task, -1);
  if (st == S_OKAY) st = dt_setor(set, view_db_task, -1);
  if (st != S_OKAY) return tvr_engine_err("D_SETOR", label, st);
  st = dt_findfm(set, view_db_task, -1);
  if (st == S_EOS) return 0;
  if (st != S_OKAY) return tvr_engine_err("D_FINDFM", label, st);
  if ((st = dt_crget(first, view_db_task, -1)) != S_OKAY) return tvr_engine_err("D_CRGET", label, st);
  return 0;
}

int disdel(DB_ADDR dba, const char* label) {
  int st = dt_crset(&dba, view_db_task, -1);
  if (st == S_OKAY) st = dt_disdel(view_db_task, -1);
  if (st != S_OKAY) return tvr_engine_err("D_DISDEL", label, st);
  return 0;
}

int entry_name(DB_ADDR dba, const vns_db_dir_ver_ent& row, std::string* name) {
  name->assign(row.name, row.name_len < VNS_NAME_INLINE ? row.name_len : VNS_NAME_INLINE);
  if (row.name_len <= VNS_NAME_INLINE) return 0;
  std::string tail(row.name_len - VNS_NAME_INLINE, '\0');
  int st = tvr_db_bytes_read(dba, row.name_bytes_dba, tail.data(), tail.size());
  if (st != 0) return st;
  name->append(tail);
  return 0;
}

int store_tail(DB_ADDR owner, const char* text, size_t len, size_t inline_len, DB_ADDR* head) {
  *head = 0;
  if (len <= inline_len) return 0;
  return tvr_db_bytes_create(owner, text + inline_len, len - inline_len, head);
}

int def_scope_dba(DB_ADDR* dba, const char* label) {
  bool found = false;
  int st = find(VNS_LR_SCOPE_OID, &AUTOMATIC_LOAD_SCOPE_OID, &found, dba, label);
  if (st != 0) return st;
  if (!found) return tvr_engine_err("D_KEYFIND", label, S_NOTFOUND);
  return 0;
}

const tbs_oid_s& scope_oid_of(const tbs_oid_s* scope) {
  return scope != nullptr && !tbs_oid_is_null(*scope) ? *scope : AUTOMATIC_LOAD_SCOPE_OID;
}

int scope_dba_of(const tbs_oid_s* scope, DB_ADDR* dba, const char* label) {
  bool found = false;
  int st = find(VNS_LR_SCOPE_OID, &scope_oid_of(scope), &found, dba, label);
  if (st != 0) return st;
  return found ? 0 : TBS_ST_NOT_FOUND;
}

int obj_by_dbid(DB_ADDR silo_dba, uint32_t dbid, vns_db_obj* obj, bool* found, DB_ADDR* dba) {
  return read_by_dbid(VNS_OBJ_KEY, silo_dba, dbid, obj, found, dba, "OBJ_LOOKUP");
}

int obj_by_oid(DB_ADDR silo_dba, const tbs_oid_s& oid, vns_db_obj* obj, bool* found, DB_ADDR* dba) {
  key_silo_oid k{silo_dba, oid};
  DB_ADDR at = 0;
  int st = find(VNS_OBJ_OID_KEY, &k, found, &at, "OBJ_LOOKUP");
  if (st != 0 || !*found) return st;
  if (dba != nullptr) *dba = at;
  if ((st = dt_recread(obj, view_db_task, -1)) != S_OKAY) return tvr_engine_err("D_RECREAD", "OBJ_LOOKUP", st);
  return 0;
}

}  // namespace tvr_vns

using namespace tvr_vns;

int tvr_db_vns_silo_dba(uint32_t silo, DB_ADDR* silo_dba) {
  int st = tvr_db_dbid_to_dba(silo, silo_dba);
  if (st != 0) return st;
  st = dt_crset(silo_dba, view_db_task, -1);
  if (st == S_DELETED || st == S_INVADDR) return TBS_ST_STALE;
  if (st != S_OKAY) return tvr_engine_err("D_CRSET", "DB_SILO", st);
  int rec = 0;
  if ((st = dt_crtype(&rec, view_db_task, -1)) != S_OKAY) return tvr_engine_err("D_CRTYPE", "DB_SILO", st);
  return rec == DB_SILO ? 0 : TBS_ST_STALE;
}

// ---- lookups by (silo DBA, dbid) ------------------------------------------------------------------------------
static int lookup_key(long key, const char* label, DB_ADDR silo_dba, uint32_t dbid, int* found, DB_ADDR* dba) {
  tvr_db_trans_read_check();
  key_silo_dbid k{silo_dba, dbid};
  bool f = false;
  DB_ADDR at = 0;
  int st = find(key, &k, &f, &at, label);
  *found = f ? 1 : 0;
  if (dba != nullptr) *dba = f ? at : 0;
  return st;
}

int tvr_db_obj_lookup(DB_ADDR silo_dba, uint32_t dbid, int* found, DB_ADDR* dba) {
  return lookup_key(VNS_OBJ_KEY, "OBJ_LOOKUP", silo_dba, dbid, found, dba);
}
int tvr_db_ver_lookup(DB_ADDR silo_dba, uint32_t dbid, int* found, DB_ADDR* dba) {
  return lookup_key(VNS_VER_KEY, "VER_LOOKUP", silo_dba, dbid, found, dba);
}
int tvr_db_elem_lookup(DB_ADDR silo_dba, uint32_t dbid, int* found, DB_ADDR* dba) {
  return lookup_key(VNS_ELEM_KEY, "ELEM_LOOKUP", silo_dba, dbid, found, dba);
}
int tvr_db_slink_lookup(DB_ADDR silo_dba, uint32_t dbid, int* found, DB_ADDR* dba) {
  return lookup_key(VNS_SLINK_KEY, "SLINK_LOOKUP", silo_dba, dbid, found, dba);
}
int tvr_db_dir_ver_lookup(DB_ADDR silo_dba, uint32_t dbid, int* found, DB_ADDR* dba) {
  return lookup_key(VNS_DIR_VER_KEY, "DIR_VER_LOOKUP", silo_dba, dbid, found, dba);
}
int tvr_db_dir_ver_ent_lookup(DB_ADDR silo_dba, uint32_t dbid, int* found, DB_ADDR* dba) {
  return lookup_key(DIR_VER_ENT_LOOKUP, "DIR_VER_ENT_LOOKUP", silo_dba, dbid, found, dba);
}

int tvr_db_dir_ver_ent_lookup_name(DB_ADDR silo_dba, uint32_t dir, const char* name, int* found, DB_ADDR* dba) {
  tvr_db_trans_read_check();
  *found = 0;
  *dba = 0;
  size_t len = name != nullptr ? std::strlen(name) : 0;
  if (len > TVR_DB_MAX_NAME) return TBS_ST_TOO_LONG;
  key_silo_dir_hash k{silo_dba, dir, name != nullptr ? tvr_db_hash_name(name, len) : 0};
  int st = dt_keyfind(DIR_VER_ENT_NAME_LOOKUP, &k, view_db_task, -1);
  while (st == S_OKAY) {
    key_silo_dir_hash at{};
    if ((st = dt_keyread(&at, view_db_task)) != S_OKAY) return tvr_engine_err("D_KEYREAD", "DIR_VER_ENT_NAME_LOOKUP", st);
    if (at.silo_dba != k.silo_dba || at.dir_dbid != k.dir_dbid || at.hash != k.hash) break;
    DB_ADDR row_dba = 0;
    vns_db_dir_ver_ent row{};
    if ((st = dt_crget(&row_dba, view_db_task, -1)) != S_OKAY) return tvr_engine_err("D_CRGET", "DIR_VER_ENT_NAME_LOOKUP", st);
    if ((st = dt_recread(&row, view_db_task, -1)) != S_OKAY) return tvr_engine_err("D_RECREAD", "DIR_VER_ENT_NAME_LOOKUP", st);
    bool match = row.name_len == len &&
                 std::memcmp(row.name, name != nullptr ? name : "", len < VNS_NAME_INLINE ? len : VNS_NAME_INLINE) == 0;
    if (match && len > VNS_NAME_INLINE) {
      int differ = 0;
      st = tvr_db_bytes_cmp(row_dba, row.name_bytes_dba, name + VNS_NAME_INLINE, len - VNS_NAME_INLINE, &differ);
      if (st != 0) return st;
      match = differ == 0;
    }
    if (match) {
      *found = 1;
      *dba = row_dba;
      return 0;
    }
    // Position the key cursor again: the chain compare may have moved the current record.
    if ((st = dt_crset(&row_dba, view_db_task, -1)) != S_OKAY) return tvr_engine_err("D_CRSET", "DIR_VER_ENT_NAME_LOOKUP", st);
    st = dt_keynext(DIR_VER_ENT_NAME_LOOKUP, view_db_task, -1);
  }
  if (st != S_OKAY && st != S_NOTFOUND) return tvr_engine_err("D_KEYNEXT", "DIR_VER_ENT_NAME_LOOKUP", st);
  return 0;
}

// ---- lookups by OID --------------------------------------------------------------------------------------------
int tvr_db_vns_obj_lookup(DB_ADDR silo_dba, const tbs_oid_s& oid, uint32_t* dbid, silo_mtype_t* mtype) {
  tvr_db_trans_read_check();
  vns_db_obj obj{};
  bool found = false;
  int st = obj_by_oid(silo_dba, oid, &obj, &found);
  if (st != 0) return st;
  if (!found) return TBS_ST_NOT_FOUND;
  if (!mtype_valid(obj.vns_obj_mtype)) return TBS_ST_INTERNAL;
  if (dbid != nullptr) *dbid = obj.vns_obj_dbid;
  if (mtype != nullptr) *mtype = static_cast<silo_mtype_t>(obj.vns_obj_mtype);
  return 0;
}

int tvr_db_lookup_obj_oid(DB_ADDR silo_dba, uint32_t dbid, tbs_oid_s* oid, silo_mtype_t* mtype) {
  tvr_db_trans_read_check();
  vns_db_obj obj{};
  bool found = false;
  int st = obj_by_dbid(silo_dba, dbid, &obj, &found);
  if (st != 0) return st;
  if (!found) return TBS_ST_NOT_FOUND;
  if (!mtype_valid(obj.vns_obj_mtype)) return TBS_ST_INTERNAL;
  if (oid != nullptr) *oid = obj.vns_obj_oid;
  if (mtype != nullptr) *mtype = static_cast<silo_mtype_t>(obj.vns_obj_mtype);
  return 0;
}

int tvr_db_vns_elem_lookup(DB_ADDR silo_dba, const tbs_oid_s& oid, uint32_t* dbid) {
  silo_mtype_t m = 0;
  int st = tvr_db_vns_obj_lookup(silo_dba, oid, dbid, &m);
  if (st != 0) return st;
  return is_elem_type(m) ? 0 : TBS_ST_NOT_FOUND;
}

int tvr_db_vns_slink_lookup(DB_ADDR silo_dba, const tbs_oid_s& oid, uint32_t* dbid) {
  silo_mtype_t m = 0;
  int st = tvr_db_vns_obj_lookup(silo_dba, oid, dbid, &m);
  if (st != 0) return st;
  return m == SILO_MTYPE_SYMLINK ? 0 : TBS_ST_NOT_FOUND;
}

int tvr_db_vns_ver_lookup(DB_ADDR silo_dba, const tbs_oid_s& oid, uint32_t* dbid, silo_mtype_t* mtype) {
  silo_mtype_t m = 0;
  uint32_t d = 0;
  int st = tvr_db_vns_obj_lookup(silo_dba, oid, &d, &m);
  if (st != 0) return st;
  if (!is_version_type(m)) return TBS_ST_NOT_FOUND;
  if (dbid != nullptr) *dbid = d;
  if (mtype != nullptr) *mtype = m;
  vns_db_ver ver{};
  bool found = false;
  if ((st = read_by_dbid(VNS_VER_KEY, silo_dba, d, &ver, &found, nullptr, "VER_LOOKUP")) != 0) return st;
  if (!found) return tvr_engine_err("D_KEYFIND", "VER_LOOKUP", S_NOTFOUND);
  return ver.stale != 0 ? TBS_ST_REVALIDATE : 0;
}
