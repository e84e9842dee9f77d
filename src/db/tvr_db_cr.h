// tvr_db_cr: stored configuration records (DB_CR and its family) and their side file.
//
// The bytes of a configuration record lie in the side file ".s/tavrel_db.crs_file" (descriptor
// tvr_db_cr_file_fd()); a DB_CR row keeps where (offset, length), the CRC-32 of the bytes
// (fileutl_crc_buffer), the record's header word, and the reference count. It owns:
//   DO_OID_SET         one DB_DO per derived object it describes (replica UUID, OID: unique key 5001,
//                      DO_SESSION_HOLD: the build session that holds a reference, optional key 5002)
//   SUB_DO_SET         DB_SUB_DO rows of 14 OID slots (null = unused) naming sub-objects, in order
//   UNELEVATED_CR_SET  one DB_UNELEVATED_REF per replica that still refers to the record
//
// Reference count (CR_PARENT_REF_CNT): one per derived object that has an inode (counted at creation,
// then kept by inode create/delete/set-OID through tvr_db_cr_add_ref / tvr_db_cr_rm_ref) plus one per
// derived object held by a build session. Dropping a reference with a session transfers it into a hold
// of that session; the hold is dropped when the session ends (tvr_db_cr_rm_build_session). At 0 or
// below the record goes (tvr_db_cr_discon): its rows, a reference on each sub-object, and its extent.
//
// Side-file space: DB_CR_FREE rows describe free extents (length: key 8000, duplicates; offset: unique
// key 8001). A fresh database has one extent of 0xffffffff bytes at 0. Allocation takes the best fit
// (the smallest extent at least as long) and splits it from the front; a released extent merges with
// the free extents right after and right before it, so free extents never overlap or touch. The bytes
// are written with pwrite (and fsync when asked) outside the engine's transaction: an abort leaves
// them in space that is free again, which is harmless.
//
// Runs in the caller's transaction (tvr_db_store.h). Record handles are DB_CR dbids.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/tbs.h"
#include "db/rec/tavrel_db_schema.h"

// A configuration record as stored: the header word of its compressed form and its bytes.
struct tvr_db_cr_data {
  uint32_t header = 0;
  std::vector<uint8_t> bytes;
};

struct tvr_db_do_info {
  tbs_uuid_s replica{};
  tbs_oid_s oid{};
  uint32_t session_hold = 0;
};

// Stores a record describing `count` (>= 1) derived objects of replica `replica`, with `sub_count`
// sub-objects. 1072 for a count below 1 (or a negative sub count, or sub-objects without a list);
// 1067 "Duplicate DB_DO for %s" when one of the OIDs has a record already; 1062 when the side file has
// no room. With `session` non-zero every derived object is held by that session. `sync` fsyncs the side
// file. *cr_dbid (may be null) receives the record's handle.
int tvr_db_cr_create(const tbs_oid_s* do_oids, const tbs_uuid_s& replica, int count, const tbs_oid_s* sub_oids,
                     int sub_count, const tvr_db_cr_data& data, int sync, uint32_t session, uint32_t* cr_dbid);
// The record that describes derived object `oid`; 1002 (no message) when none.
int tvr_db_cr_get(const tbs_oid_s& oid, uint32_t* cr_dbid);
// The record's stored form; 1008 with "db_cr_get of dba ... CRC error ..." when the bytes do not match.
int tvr_db_cr_read(uint32_t cr_dbid, tvr_db_cr_data* data);
// Deletes the record whatever its reference count (as tvr_db_cr_discon).
int tvr_db_cr_free(uint32_t cr_dbid);
// One more reference on the record of `oid`; with `replica`, that replica also refers to it.
// 1002 when `oid` has no record.
int tvr_db_cr_add_ref(const tbs_oid_s& oid, const tbs_uuid_s* replica);
// One reference fewer on the record of `oid`, now (session 0) or when session `session` ends.
// 1002 when `oid` has no record. Keeps the caller's engine positions.
int tvr_db_cr_rm_ref(const tbs_oid_s& oid, uint32_t session);
// Deletes record `cr_dba` with its rows and gives its extent back. Keeps the caller's engine positions.
int tvr_db_cr_discon(DB_ADDR cr_dba);
// Replica `replica` refers to the record (idempotent) / no longer does (1002 when it did not).
int tvr_db_cr_add_silo_ref(uint32_t cr_dbid, const tbs_uuid_s& replica);
int tvr_db_cr_rm_silo_ref(uint32_t cr_dbid, const tbs_uuid_s& replica);
// Ends session `session` (0: every session): each held derived object loses its hold and its reference.
int tvr_db_cr_rm_build_session(uint32_t session);
// Deletes every record with no reference left or no referring replica.
int tvr_db_fsck_crs();
// The derived objects of a record, in order.
int tvr_db_get_dos(uint32_t cr_dbid, std::vector<tvr_db_do_info>* out);
// *found = 1 when `oid` is a derived object of some record, else 0.
int tvr_db_dos_found(const tbs_oid_s& oid, int* found);

// Side-file geometry for tests and checks: the free extents (offset, length) in offset order.
struct tvr_db_cr_extent {
  uint32_t offset;
  uint32_t length;
};
int tvr_db_cr_free_extents(std::vector<tvr_db_cr_extent>* out);
