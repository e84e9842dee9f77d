// tvr_db_vns_int: engine helpers shared by the namespace record files (tvr_db_vns*.cpp). Not for use
// outside them.
//
// Each helper reports an engine failure through tvr_engine_err with the caller's label and returns 1008,
// so a caller passes the status straight up. Helpers move the engine's current record freely: callers
// keep DBAs, never positions, across calls, and walk sets by first collecting the members' DBAs.
#pragma once

#include <string>
#include <vector>

#include "db/rec/tavrel_db_schema.h"
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_vns.h"
#include "proto/xdr_prim.h"

// The first steps of a record function that takes a silo dbid: the transaction check, then the silo's DBA.
inline int tvr_db_vns_enter_read(uint32_t silo, DB_ADDR* silo_dba) {
  tvr_db_trans_read_check();
  return tvr_db_vns_silo_dba(silo, silo_dba);
}
inline int tvr_db_vns_enter_write(uint32_t silo, DB_ADDR* silo_dba) {
  tvr_db_trans_write_check();
  return tvr_db_vns_silo_dba(silo, silo_dba);
}

namespace tvr_vns {

// True for the types a namespace record may hold (2, 3, 5, 6, 7, 8).
bool mtype_valid(uint32_t mtype);
bool is_version_type(uint32_t mtype);  // 3, 6, 8
bool is_elem_type(uint32_t mtype);     // 2, 5
// 8 behaves as 6 in every comparison.
inline uint32_t mtype_norm(uint32_t mtype) { return mtype == 8 ? 6 : mtype; }

// Find by key: *found and *dba (the row is then current). A miss is found = false, status 0.
int find(long key, const void* value, bool* found, DB_ADDR* dba, const char* label);
// Read / overwrite the row at `dba` (it becomes current). A row that is gone gives 1008 unless
// `gone` is given, which then receives true with status 0.
int read(DB_ADDR dba, void* row, const char* label, bool* gone = nullptr);
int write(DB_ADDR dba, const void* row, const char* label);
// Read by (silo, dbid) key; *found false when absent.
int read_by_dbid(long key, DB_ADDR silo_dba, uint32_t dbid, void* row, bool* found, DB_ADDR* dba, const char* label);
// Store a new row; a duplicate unique key gives 1067.
int store(int rec, const void* row, DB_ADDR* dba, const char* label);
// Set membership.
int connect(int set, DB_ADDR owner, DB_ADDR member, const char* label);
// Disconnects `member` from `set`; not being a member is no error.
int discon(int set, DB_ADDR member, const char* label);
// Owner of `member` in `set`, 0 when it is in none.
int owner_of(int set, DB_ADDR member, DB_ADDR* owner, const char* label);
int members(int set, DB_ADDR owner, std::vector<DB_ADDR>* out, const char* label);
int member_count(int set, DB_ADDR owner, long* count, const char* label);
int first_member(int set, DB_ADDR owner, DB_ADDR* first, const char* label);  // 0 when empty
// Disconnects from every set and deletes.
int disdel(DB_ADDR dba, const char* label);

// The whole name of a name row (inline head and chain).
int entry_name(DB_ADDR dba, const vns_db_dir_ver_ent& row, std::string* name);
// Stores the tail of a text beyond `inline_len` as the owner's chain; *head is 0 when it fits.
int store_tail(DB_ADDR owner, const char* text, size_t len, size_t inline_len, DB_ADDR* head);

// The default scope's row (1008 when it is missing: the database was made without it).
int def_scope_dba(DB_ADDR* dba, const char* label);
// The row of `scope` (null = default): 1002 when absent.
int scope_dba_of(const tbs_oid_s* scope, DB_ADDR* dba, const char* label);
const tbs_oid_s& scope_oid_of(const tbs_oid_s* scope);
// The generation a name row reads as (see vns_db_dir_ver_ent::scope_gn): its own, or for a name of the
// default scope the scope's finished generation when that is later.
int name_gn(const vns_db_dir_ver_ent& row, uint32_t* gn, const char* label);
// Tells the end of the default scope to visit the name row at `entry`: it was just given the remove mark,
// its directory was just given a saved state, or it just changed scope. Call in the write transaction that
// does it.
void note_scope_end_visit(DB_ADDR entry);

// Identity row by (silo, dbid) / (silo, oid).
int obj_by_dbid(DB_ADDR silo_dba, uint32_t dbid, vns_db_obj* obj, bool* found, DB_ADDR* dba = nullptr);
int obj_by_oid(DB_ADDR silo_dba, const tbs_oid_s& oid, vns_db_obj* obj, bool* found, DB_ADDR* dba = nullptr);

}  // namespace tvr_vns
