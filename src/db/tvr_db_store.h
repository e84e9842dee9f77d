// tvr_db_store: what the record functions of the private family (records 0 to 11) share: the view clock,
// handle checks, the name-state encoding and the directory modification-time rule.
//
// Every tvr_db_* function of this family runs inside a caller's transaction (tavrel_engine_db.h) and
// calls tvr_db_trans_read_check() or tvr_db_trans_write_check() first; none of them locks. Engine
// failures go through tvr_engine_err and give 1008.
//
// Handles: an inode, directory or silo handle is a dbid (DBA with the top bit, tavrel_engine_utls.h).
// A handle of 0 gives 1002, one without the top bit 1008, one that names a row of another type or a
// deleted row 1087 (the object went away after the caller learned the handle).
//
// Name state (a DB_DIR_ENT row keeps three bits of it in DIR_ENT_NAME_STATE):
//   stored bit 0  <->  TVR_DB_NS_HIJACK_PART (0x800)
//   stored bit 1  <->  TVR_DB_NS_HIJACK_OIDS (0x20): the row may carry hijack OIDs (tvr_db_hijack)
//   stored bit 2  <->  TVR_DB_NS_HIJACKED    (0x200000)
// Callers always see TVR_DB_NS_VIEW_SIDE (0x1000) in addition, and TVR_DB_NS_WHITE_OUT (0x400) when the
// name has no inode.
#pragma once

#include <sys/time.h>

#include <cstdint>

#include "db/rec/tavrel_db_schema.h"

enum : uint32_t {
  TVR_DB_NS_HIJACK_OIDS = 0x20,
  TVR_DB_NS_WHITE_OUT = 0x400,
  TVR_DB_NS_HIJACK_PART = 0x800,
  TVR_DB_NS_VIEW_SIDE = 0x1000,
  TVR_DB_NS_HIJACKED = 0x200000,
};

// The three stored bits of a caller's name state, and the caller's view of the stored bits.
uint16_t tvr_db_name_state_to_bits(uint32_t state);
uint32_t tvr_db_name_state_from_bits(uint16_t bits);

// ---- view clock ------------------------------------------------------------------------------------------
// The view time stamps inodes, directories and silo generation counters. It comes from the layer above
// (the view's own clock); until one is installed it is the system's time of day. Tests install a fixed
// clock. Not synchronised: install it before the database is used.
using tvr_db_view_time_fn = void (*)(struct timeval* now);
void tvr_db_set_view_time_fn(tvr_db_view_time_fn fn);  // nullptr restores the time of day
void tvr_db_view_time(struct timeval* now);

// The modification time to give a directory that changes now: the view time, or, when `floor` (the
// time of an object from a repository) lies after it, `floor` plus one microsecond, so that a directory
// never looks older than what it holds ("fixing up mtime due to futuristic SILO" is traced then).
// `floor` may be null.
void tvr_db_fix_dir_modtime(const struct timeval* floor, struct timeval* out);

// ---- handles ---------------------------------------------------------------------------------------------
// The DBA of a handle that must name a row of type `rec`, made the engine's current record. 1002 for 0,
// 1008 without the top bit, 1087 for a deleted row or a row of another type.
int tvr_db_handle_row(uint32_t dbid, int rec, DB_ADDR* dba);
// Makes the row at `dba` current and reads it whole into `buf`; the engine op name and record label go
// to the diagnostic on failure.
int tvr_db_read_row(DB_ADDR dba, void* buf, const char* label);
