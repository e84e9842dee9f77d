// tvr_db_silo: DB_SILO rows, one per repository replica the view knows.
//
// A row holds the replica's UUID (unique key 0), the count of inodes that point at it (SILO_REF_CNT; the
// row can be deleted only at 0), the namespace dbid counter (SILO_NEXT_DBID, 1 in a new row), the inode
// generation counter (SILO_GEN_NUM, the view time in seconds when made, +1 per inode), the dbid of the
// root directory version, one flag bit, and the path: SILO_PATH_LEN bytes, the first 208 inline, the
// rest in a DB_BYTES chain at SILO_BYTES_DBA.
//
// Flags: the hard-link flag and the set-work flag are the same bit (bit 0); setting either sets both,
// clearing either clears both. Inventories filter on that bit.
//
// Runs in the caller's transaction (tvr_db_store.h), except tvr_db_reparent_replica_uuid and
// tvr_db_change_silo_oid, which run in a write transaction of their own.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/tbs.h"
#include "db/rec/tavrel_db_schema.h"

struct tvr_db_silo_info {
  uint32_t dbid = 0;
  tbs_uuid_s uuid{};
  std::string path;
  uint32_t ref_cnt = 0;
  uint32_t next_dbid = 0;
  uint32_t gen_num = 0;
  uint32_t root_dbid = 0;
  uint16_t flags = 0;
};

constexpr uint16_t TVR_DB_SILO_FLAG = 0x1;  // hard-link and set-work flag (one bit)

// New row; 1067 when the UUID is known, 1084 for a path over 65535 bytes.
int tvr_db_silo_create(const tbs_uuid_s& uuid, const std::string& path, uint32_t* dbid);
// The row of a replica; 1002 (no message) when there is none.
int tvr_db_silo_lookup(const tbs_uuid_s& uuid, uint32_t* dbid);
int tvr_db_silo_read(uint32_t dbid, tvr_db_silo_info* info);
// Replaces the path (the old tail chain goes).
int tvr_db_silo_update(uint32_t dbid, const std::string& path);
// Deletes the row and its path chain; 1085 while inodes refer to it.
int tvr_db_silo_delete(uint32_t dbid);
// One inode fewer refers to the silo at `silo_dba` (the count does not go below 0).
int tvr_db_silo_rm_ref(DB_ADDR silo_dba);
int tvr_db_silo_set_hlink_flag(uint32_t dbid, int on);
int tvr_db_silo_set_setwork_flag(uint32_t dbid, int on);
// Every row in record order; with a non-zero `flags`, only rows with the flag bit set.
int tvr_db_inventory_silos(std::vector<tvr_db_silo_info>* out, int flags);
// Replaces replica `old_uuid` by `new_uuid` in the silo row, in every derived-object row and in every
// replica reference of configuration records. 1002 when nothing named `old_uuid`; 1067 when a silo of
// `new_uuid` exists already. Own write transaction.
int tvr_db_reparent_replica_uuid(const tbs_uuid_s& old_uuid, const tbs_uuid_s& new_uuid);
// The same, for a replica known by the 16 bytes of an object identity.
int tvr_db_change_silo_oid(const tbs_oid_s& oid, const tbs_uuid_s& uuid);
