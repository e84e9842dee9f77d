#include "db/tavrel_db_vns.h"

#include "db/tavrel_engine_db.h"
#include "db/tavrel_engine_utls.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_vns_int.h"

int tavrel_db_create_vns_view(const tbs_uuid_s& uuid, unsigned gn) {
  return tvr_db_in_trans(1, [&] { return tvr_db_create_vns_view(uuid, gn); });
}
int tavrel_db_get_vns_view_gn(unsigned* gn) {
  return tvr_db_in_trans(0, [&] { return tvr_db_get_vns_view_gn(gn); });
}
int tavrel_db_set_vns_view_gn(unsigned gn) {
  return tvr_db_in_trans(1, [&] { return tvr_db_set_vns_view_gn(gn); });
}

int tavrel_db_create_def_scope() {
  return tvr_db_in_trans(1, [] { return tvr_db_create_def_scope(); });
}
int tavrel_db_create_lr_scope(const tbs_oid_s& oid, unsigned gn, const char* name) {
  return tvr_db_in_trans(1, [&] { return tvr_db_create_lr_scope(oid, gn, name); });
}
int tavrel_db_get_lr_scope_gn(const tbs_oid_s& oid, unsigned* gn) {
  return tvr_db_in_trans(0, [&] { return tvr_db_get_lr_scope_gn(oid, gn); });
}
int tavrel_db_is_lr_scope_empty(const tbs_oid_s& oid, int* empty) {
  return tvr_db_in_trans(0, [&] { return tvr_db_is_lr_scope_empty(oid, empty); });
}
int tavrel_db_get_lr_scopes(int all, std::vector<tavrel_scope>& scopes) {
  return tvr_db_in_trans(0, [&] { return tvr_db_get_lr_scopes(all, scopes); });
}
int tavrel_db_get_removed_lr_scopes(std::vector<tavrel_scope>& scopes) {
  return tvr_db_in_trans(0, [&] { return tvr_db_get_removed_lr_scopes(scopes); });
}
int tavrel_db_mark_lr_scope_removed(const tbs_oid_s& oid) {
  return tvr_db_in_trans(1, [&] { return tvr_db_mark_lr_scope_removed(oid); });
}
int tavrel_db_delete_lr_scope(const tbs_oid_s& oid) {
  return tvr_db_in_trans(1, [&] { return tvr_db_delete_lr_scope(oid); });
}
int tavrel_db_remove_lr_scope(const tbs_oid_s& oid, int delete_row, const tbs_oid_s* target) {
  return tvr_db_in_trans(1, [&] { return tvr_db_remove_lr_scope(oid, delete_row, target); });
}
int tavrel_db_is_def_scope_silo_empty(const tbs_uuid_s& replica, int* empty) {
  return tvr_db_in_trans(0, [&] { return tvr_db_is_def_scope_silo_empty(replica, empty); });
}
// The per-silo brackets of the default scope carry no database work of their own.
int tavrel_db_begin_def_scope_silo_load(const tbs_uuid_s& replica, unsigned gn) {
  return tvr_db_begin_def_scope_silo_load(replica, gn);
}
int tavrel_db_end_def_scope_silo_load(const tbs_uuid_s& replica, unsigned gn) {
  return tvr_db_end_def_scope_silo_load(replica, gn);
}
int tavrel_db_begin_def_scope_silo_update(const tbs_uuid_s& replica, unsigned gn) {
  return tvr_db_begin_def_scope_silo_update(replica, gn);
}
int tavrel_db_end_def_scope_silo_update(const tbs_uuid_s& replica, unsigned gn) {
  return tvr_db_end_def_scope_silo_update(replica, gn);
}
int tavrel_db_begin_def_scope(unsigned gn) {
  return tvr_db_in_trans(1, [&] { return tvr_db_begin_def_scope(gn); });
}
int tavrel_db_end_def_scope(unsigned gn) {
  return tvr_db_in_trans(1, [&] { return tvr_db_end_def_scope(gn); });
}
int tavrel_db_begin_lr_scope_load(const tbs_oid_s& oid, unsigned gn) {
  return tvr_db_in_trans(1, [&] { return tvr_db_begin_lr_scope_load(oid, gn); });
}
int tavrel_db_begin_lr_scope_update(const tbs_oid_s& oid, unsigned gn) {
  return tvr_db_in_trans(1, [&] { return tvr_db_begin_lr_scope_update(oid, gn); });
}
int tavrel_db_end_lr_scope_load(const tbs_oid_s& oid, unsigned gn) {
  return tvr_db_in_trans(1, [&] { return tvr_db_end_lr_scope_load(oid, gn, 1, 1); });
}
int tavrel_db_end_lr_scope_update(const tbs_oid_s& oid, unsigned gn) {
  return tvr_db_in_trans(1, [&] { return tvr_db_end_lr_scope_update(oid, gn); });
}

// The name row to mark: among the names of the object, the one called `leaf` in a version of the parent
// element. Every version of the parent that the view holds is tried, so a directory replaced earlier in the
// same update is found under its new version.
static int mark_remove(const tbs_uuid_s& replica, const tbs_oid_s& parent_elem_oid, const tbs_oid_s& obj_oid,
                       const char* leaf) {
  uint32_t silo = 0;
  int st = tvr_db_silo_lookup(replica, &silo);
  if (st != 0) return st;
  DB_ADDR silo_dba = 0;
  if ((st = tvr_db_dbid_to_dba(silo, &silo_dba)) != 0) return st;
  uint32_t obj = 0;
  silo_mtype_t mtype = 0;
  if ((st = tvr_db_vns_obj_lookup(silo_dba, obj_oid, &obj, &mtype)) != 0) return st;
  uint32_t parent_elem = 0;
  if ((st = tvr_db_vns_elem_lookup(silo_dba, parent_elem_oid, &parent_elem)) != 0) return st;
  int found = 0;
  DB_ADDR elem_dba = 0;
  if ((st = tvr_db_elem_lookup(silo_dba, parent_elem, &found, &elem_dba)) != 0) return st;
  if (!found) return TBS_ST_NOT_FOUND;
  std::vector<DB_ADDR> vers;
  if ((st = tvr_vns::members(VNS_ELEM_VER_SET, elem_dba, &vers, "MARK_REMOVE")) != 0) return st;
  for (DB_ADDR at : vers) {
    vns_db_ver ver{};
    if ((st = tvr_vns::read(at, &ver, "MARK_REMOVE")) != 0) return st;
    st = tvr_db_mark_dir_ent_remove(silo, ver.dbid, obj, leaf);
    if (st != TBS_ST_NOT_FOUND) return st;
  }
  return TBS_ST_NOT_FOUND;
}

int tavrel_db_ver_mark_remove(const tbs_uuid_s& replica, const tbs_oid_s& parent_elem_oid, const tbs_oid_s& obj_oid,
                              const char* leaf) {
  int st = tvr_db_in_trans(1, [&] { return mark_remove(replica, parent_elem_oid, obj_oid, leaf); });
  return st == TBS_ST_NOT_FOUND ? 0 : st;
}
