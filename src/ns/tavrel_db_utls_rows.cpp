// The view database's SILO rows, configuration records and inventories for the name service, and the
// names of objects in messages (see tavrel_db_utls.h).
#include <cstdio>

#include "core/tavrel_trace.h"
#include "db/tavrel_engine_db.h"
#include "ns/tavrel_db_utls.h"
#include "ns/tavrel_db_utls_int.h"

using namespace tavrel_db_utls;

// ---- SILO rows ------------------------------------------------------------------------------------------------

int tavrel_db_silo_read(const tbs_uuid_s& uuid, uint32_t* db_dbid, char* host, size_t host_size, char* path,
                        size_t path_size) {
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_silo_read");
  tvr_db_silo_info info;
  int st = tvr_db_in_trans(0, [&] {
    int s = tvr_db_silo_lookup(uuid, &info.dbid);
    return s != 0 ? s : tvr_db_silo_read(info.dbid, &info);
  });
  if (st == 0) {
    // The row keeps "host:path"; the host never holds a colon, the path may.
    size_t colon = info.path.find(':');
    if (colon == std::string::npos) st = TBS_ST_INTERNAL;
    else st = copy_out(info.path.substr(0, colon), host, host_size);
    if (st == 0) st = copy_out(info.path.substr(colon + 1), path, path_size);
  }
  report(st, "silo_read", tbs_uuid_to_str(uuid), true);
  if (st == 0 && db_dbid != nullptr) *db_dbid = info.dbid;
  return st;
}

int tavrel_db_silo_create(const tbs_uuid_s& uuid, const char* host, const char* path, uint32_t* db_dbid) {
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_silo_create");
  uint32_t dbid = 0;
  int st = tvr_db_in_trans(1, [&] { return tvr_db_silo_create(uuid, std::string(host) + ":" + path, &dbid); });
  report(st, "silo_create", tbs_uuid_to_str(uuid), false);
  if (st == 0 && db_dbid != nullptr) *db_dbid = dbid;
  return st;
}

int tavrel_db_silo_update(const tbs_uuid_s& uuid, const char* host, const char* path) {
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_silo_update");
  int st = tvr_db_in_trans(1, [&] {
    uint32_t dbid = 0;
    int s = tvr_db_silo_lookup(uuid, &dbid);
    return s != 0 ? s : tvr_db_silo_update(dbid, std::string(host) + ":" + path);
  });
  report(st, "silo_update", tbs_uuid_to_str(uuid), false);
  return st;
}

int tavrel_db_silo_delete(const tbs_uuid_s& uuid) {
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_silo_delete");
  int st = tvr_db_in_trans(1, [&] {
    uint32_t dbid = 0;
    int s = tvr_db_silo_lookup(uuid, &dbid);
    return s != 0 ? s : tvr_db_silo_delete(dbid);
  });
  report(st, "silo_delete", tbs_uuid_to_str(uuid), false);
  return st;
}

namespace {

// Sets the flag bit of the replica's row, making the row (with an empty path) when there is none.
int silo_set_flag(const tbs_uuid_s& uuid, int on, int (*set)(uint32_t, int), const char* op) {
  int st = tvr_db_in_trans(1, [&] {
    uint32_t dbid = 0;
    int s = tvr_db_silo_lookup(uuid, &dbid);
    if (s == TBS_ST_NOT_FOUND) s = tvr_db_silo_create(uuid, "", &dbid);
    return s != 0 ? s : set(dbid, on);
  });
  report(st, op, tbs_uuid_to_str(uuid), false);
  return st;
}

}  // namespace

int tavrel_db_silo_set_hlink(const tbs_uuid_s& uuid, int on) {
  return silo_set_flag(uuid, on, tvr_db_silo_set_hlink_flag, "silo_set_hlink");
}

int tavrel_db_silo_set_setwork(const tbs_uuid_s& uuid, int on) {
  return silo_set_flag(uuid, on, tvr_db_silo_set_setwork_flag, "silo_set_setwork");
}

int tavrel_inventory_silos(std::vector<tvr_db_silo_info>* out, int flags) {
  int st = tvr_db_in_trans(0, [&] { return tvr_db_inventory_silos(out, flags); });
  report(st, "inventory_silos", "the view", false);
  return st;
}

// ---- configuration records ------------------------------------------------------------------------------------

int tavrel_cr_save(const view_build_rec* build, const tbs_uuid_s& replica, const tbs_oid_s* do_oids, int count,
                   const tbs_oid_s* sub_oids, int sub_count, const tvr_db_cr_data& data, uint32_t* cr_dbid) {
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_cr_save");
  const uint32_t session = build != nullptr ? build->session : 0;
  int st = tvr_db_in_trans(1, [&] {
    return tvr_db_cr_create(do_oids, replica, count, sub_oids, sub_count, data, 1, session, cr_dbid);
  });
  report(st, "cr_save", count > 0 && do_oids != nullptr ? tbs_oid_to_str(do_oids[0]) : "", false);
  return st;
}

int tavrel_cr_get(const tbs_oid_s& oid, uint32_t* cr_dbid, tvr_db_cr_data* data) {
  int st = tvr_db_in_trans(0, [&] {
    int s = tvr_db_cr_get(oid, cr_dbid);
    return s != 0 || data == nullptr ? s : tvr_db_cr_read(*cr_dbid, data);
  });
  report(st, "cr_get", tbs_oid_to_str(oid), true);
  return st;
}

namespace {

int cr_write(const char* op, uint32_t cr_dbid, int (*fn)(uint32_t, const tbs_uuid_s&), const tbs_uuid_s* replica) {
  int st = tvr_db_in_trans(1, [&] { return replica != nullptr ? fn(cr_dbid, *replica) : tvr_db_cr_free(cr_dbid); });
  char what[16];
  snprintf(what, sizeof what, "0x%x", cr_dbid);
  report(st, op, what, false);
  return st;
}

}  // namespace

int tavrel_cr_free(uint32_t cr_dbid) { return cr_write("cr_free", cr_dbid, nullptr, nullptr); }
int tavrel_cr_add_silo_ref(uint32_t cr_dbid, const tbs_uuid_s& replica) {
  return cr_write("cr_add_silo_ref", cr_dbid, tvr_db_cr_add_silo_ref, &replica);
}
int tavrel_cr_rm_silo_ref(uint32_t cr_dbid, const tbs_uuid_s& replica) {
  return cr_write("cr_rm_silo_ref", cr_dbid, tvr_db_cr_rm_silo_ref, &replica);
}

// ---- inventories ------------------------------------------------------------------------------------------------

int tavrel_db_has_checkouts(bool* any) {
  int st = tvr_db_in_trans(0, [&] { return tvr_db_has_checkouts(any); });
  report(st, "has_checkouts", "the view", false);
  return st;
}

int tavrel_db_has_hijacks(bool* any) {
  int has = 0;
  int st = tvr_db_in_trans(0, [&] { return tvr_db_has_hijacks(&has); });
  report(st, "has_hijacks", "the view", false);
  *any = st == 0 && has != 0;
  return st;
}

int tavrel_db_find_checkouts(std::vector<tavrel_hijack_co_info>* out) {
  int st = tvr_db_in_trans(0, [&] { return tvr_db_find_checkouts(*out); });
  report(st, "find_checkouts", "the view", false);
  return st;
}

int tavrel_db_find_hijacks(const tbs_uuid_s* silo, std::vector<tvr_db_hijack_info>* out) {
  int st = tvr_db_in_trans(0, [&] { return tvr_db_find_hijacks(silo, out); });
  report(st, "find_hijacks", silo != nullptr ? tbs_uuid_to_str(*silo) : "the view", false);
  return st;
}

int tavrel_db_find_privates(const tbs_uuid_s* silo, std::vector<tvr_db_private_info>* out, int dir_pass) {
  int st = tvr_db_in_trans(0, [&] { return tvr_db_find_privates(silo, out, dir_pass); });
  report(st, "find_privates", silo != nullptr ? tbs_uuid_to_str(*silo) : "the view", false);
  return st;
}

// ---- names for messages ---------------------------------------------------------------------------------------

std::string tavrel_dbid2str(const view_silo* silo, uint32_t dbid) {
  char buf[128];
  snprintf(buf, sizeof buf, "dbid:0x%x@replicauuid:%s", dbid, silo != nullptr ? tbs_uuid_to_str(silo->uuid).c_str() : "?");
  return buf;
}

std::string tavrel_oid2str(const view_silo* silo, const tbs_oid_s& oid) {
  return "oid:" + tbs_oid_to_str(oid) + "@replicauuid:" + (silo != nullptr ? tbs_uuid_to_str(silo->uuid) : "?");
}

std::string obj_2str(const obj_entry* obj) { return obj == nullptr ? "(null)" : tavrel_oid2str(obj->silo, obj->oid); }
