// tvr_db_inode: DB_INODE rows, one per view-private object or cover of a silo object.
//
// A row holds its silo's DBA (0 once stranded), the object identity (unique with the silo: key 3028),
// the attributes (tbs_fstat_db.h), the mtype, the generation (the silo's SILO_GEN_NUM after +1 at
// creation) and a text (symbolic link text or container name; 74 bytes inline, the rest chained). The
// inode owns INODE_OID_SET: its directory body (DB_DIR, at most one) and every name (DB_DIR_ENT) that
// points at it. Each inode counts once in its silo's SILO_REF_CNT.
//
// Configuration records follow the identity: creating an inode adds a reference to a configuration
// record that describes the same OID, deleting it or changing its OID drops that reference (held by the
// build session `session` when non-zero), and each of these finds no record (1002) quietly.
//
// Runs in the caller's transaction (tvr_db_store.h); handles that name no inode give 1087.
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "db/rec/tavrel_db_schema.h"
#include "db/tbs_fstat_db.h"

// New inode in silo `silo` (a silo dbid). 1067 when the silo already has an inode of this OID.
// Identities longer than 34 bytes fail an assertion.
int tvr_db_inode_create(uint32_t silo, const tbs_oid_s& oid, const tbs_fstat_db_s& fstat, silo_mtype_t mtype,
                        uint32_t* dbid, uint32_t* gen);
// Any output may be null. `fstat->ino` receives `dbid`; *silo the silo's dbid, 0 when stranded.
int tvr_db_inode_read(uint32_t dbid, uint32_t* gen, tbs_oid_s* oid, tbs_fstat_db_s* fstat, silo_mtype_t* mtype,
                      uint32_t* silo);
// Replaces the attributes whole (identity tails included).
int tvr_db_inode_rewrite(uint32_t dbid, const tbs_fstat_db_s& fstat);
// Sets the mtype and ctime (view time) and, when `oid` is non-null, the identity; a changed identity
// moves the configuration-record reference from the old OID to the new one.
int tvr_db_inode_set_oid(uint32_t dbid, const tbs_oid_s* oid, silo_mtype_t mtype, uint32_t session);
// Deletes the inode: its directory body with every name in it, its chains, its configuration-record
// reference and its silo reference. Names elsewhere that point at it stay as rows without an inode
// (lookups then report them with dbid 0 and the white-out bit).
int tvr_db_inode_delete(uint32_t dbid, uint32_t session);
// The text, NUL-terminated; 1084 unless its length is below `size`.
int tvr_db_inode_read_text(uint32_t dbid, char* buffer, size_t size);
// Replaces the text (1084 over 65535 bytes).
int tvr_db_inode_write_text(uint32_t dbid, const char* text);
// The inode of (silo, oid); `silo` 0 looks among stranded inodes. 1002 (no message) when none.
int tvr_db_inode_lookup(uint32_t silo, const tbs_oid_s& oid, uint32_t* dbid);
// Up to `max` inode dbids in key order (silo, OID), starting after (silo, start) — at (silo, start) when
// `start` is the null OID. Stops at the end of silo `silo` unless `all_silos`. *count < max means the
// walk reached its end.
int tvr_db_inode_inventory(uint32_t silo, const tbs_oid_s& start, uint32_t* dbids, size_t max, size_t* count,
                           int all_silos);
// The path of the name row `dba` (a DB_DIR_ENT) from the highest directory that has no name of its own,
// components joined with "/"; *parent_oid (may be null) receives the OID of the name's own directory.
int tvr_db_inode_get_dir_name(DB_ADDR dba, std::string* name, tbs_oid_s* parent_oid);
// Marks the inode stranded: its container could not be removed. The silo reference goes,
// INODE_SILO_DBA becomes 0 and `expiry` (seconds) is kept in the first word of the extra pair.
int tvr_db_mark_inode_stranded(uint32_t dbid, uint32_t expiry);
