// tbs_fstat_db: the attribute record of an object as the view database keeps it.
//
// The value type is `tbs_fstat_db_s` of the shared vocabulary (proto/xdr_prim.h), the same record that
// travels on the wire; the database does not define a second one. Its members, in order: type (1 file,
// 2 directory, 5 link), mode, nlink, the fourth word (`spare`), owner and group identities (a length and
// up to 34 bytes each), the 64-bit size, `ino` (the object's dbid, top bit set), the times, and
// `fourth_time`, the extra pair of words that the database keeps unchanged.
//
// Stored form: field INODE_FSTAT of DB_INODE (struct db_fstat, tavrel_db_schema.h), written whole:
//   type, mode, nlink, spare          -> ftype, mode, nlink, usage
//   size                              -> size[0] low word, size[1] high word
//   atime, mtime, ctime               -> seconds and microseconds as u32 each
//   fourth_time (sec, usec)           -> extra[0], extra[1]
//   owner, group                      -> usid/gsid: length, 30-byte head, the rest in a DB_BYTES chain
//                                        whose head DBA is usid_bytes_dba / gsid_bytes_dba
//   ino                               -> not stored; it is the row's own DBA (with the top bit)
//
// A directory's size starts at TVR_DB_DIR_EMPTY_SIZE and follows its names: each name adds its length
// plus TVR_DB_DIR_NAME_OVERHEAD, and removing it takes that off again.
#pragma once

#include <cstddef>
#include <cstdint>

#include "db/rec/tavrel_db_schema.h"
#include "proto/xdr_prim.h"

constexpr uint64_t TVR_DB_DIR_EMPTY_SIZE = 89;
constexpr uint64_t TVR_DB_DIR_NAME_OVERHEAD = 43;

// The stored form without the identity tails (their chain DBAs are left as they are in *row).
void tvr_db_fstat_to_row(const tbs_fstat_db_s& f, db_fstat* row);
// The value form of a stored row; the identities carry only their heads (callers fill the tails),
// and `ino` is left 0.
void tvr_db_fstat_from_row(const db_fstat& row, tbs_fstat_db_s* f);
