// tavrel_db_adopt: the database operations that move objects between being view-private and being covers
// of silo objects: cover inodes, adoption of a private directory by a new element, the hijack records,
// and the unique rename of a name.
//
// A cover inode is the view's local inode of a silo object (an element or version): it lives in the
// object's silo row (made on demand with an empty path) under the object's OID, with owner and group
// CREDUTL_SID_DONTCARE, mode all ones, every other attribute 0, and a directory body when the object is a
// directory. Names made in a silo directory (view-private files, white-outs, hijack marks) are names of
// the cover of the directory's element.
//
// A hijack mark stands on the name in the cover of the parent directory's element: state bits 0x200000
// (hijacked) and 0x800, the name's hijack bit 0x20, and the OIDs of the version hijacked and its element.
//
// Objects are given by record: replica UUID, OID and mtype (tavrel_db_obj_ref). The name service's object
// cache keeps its own view of covers and looked-up names and is told of changes by its own callers.
//
// Each function runs in transactions of its own (never inside a caller's) and aborts on failure, so a
// failed call leaves the records as they were; failures other than 1022 (not writable now) are printed
// with the message of the operation.
#pragma once

#include <cstdint>
#include <string>

#include "base/tbs.h"
#include "proto/xdr_prim.h"

struct tavrel_db_obj_ref {
  tbs_uuid_s replica{};
  tbs_oid_s oid{};
  silo_mtype_t mtype = 0;
};

// The cover inode of `obj` (its dbid), made on first use in one write transaction (silo row, inode and,
// for a directory, its body). 0 on failure with *status: 1008 for an mtype that has no cover (only 2-9
// have one).
uint32_t create_cover_inode(const tavrel_db_obj_ref& obj, int* status);
// The cover of `obj` if it has one: 1002 when not. Inside the caller's transaction.
int tavrel_db_cover_lookup(const tavrel_db_obj_ref& obj, uint32_t* dbid);

// The view-private directory `name` in directory `dir` (an inode dbid) becomes the cover of the new
// element `obj` (a silo directory: mtype 2 or 3, else 1001): every name in it moves to the cover (keeping
// its inode's link count), and the private directory loses its name and goes, all in one write
// transaction. 1008 when `name` is not a private directory (mtype 19, file type 2).
int tavrel_db_adopt(uint32_t session, uint32_t dir, const tavrel_db_obj_ref& obj, const char* name);

// Records the hijack of `name` in directory element `dir_elem`: the version and element OIDs, and the
// name's hijack bit. The name must exist in the cover (1002).
int tavrel_db_hijack_set(const tavrel_db_obj_ref& dir_elem, const char* name, const tbs_oid_s& ver,
                         const tbs_oid_s& elem);
// The recorded OIDs; 1002 without a cover or name, 1072 for a name without a hijack record.
int tavrel_db_hijack_get(const tavrel_db_obj_ref& dir_elem, const char* name, tbs_oid_s* ver, tbs_oid_s* elem);
// Clears the hijack of `name` (1002 unless it is hijacked: state bit 0x200000); the name and its file stay.
int tavrel_db_unhijack(const tavrel_db_obj_ref& dir_elem, const char* name);
// Clears the hijack and removes the name, with its inode and container when that was its last name.
int tavrel_db_remove_hijack(uint32_t session, const tavrel_db_obj_ref& dir_elem, const char* name);

// Renames `name` in directory `dir` (an inode dbid) to the first free "<name><suffix>.<n>" (n = 1, 2, ...)
// and returns it in *out. The new name keeps the old one's state without bit 0x800, and its hijack OIDs.
// 1002 when `name` is not there, 1084 when the new name would be over 256 bytes.
int tavrel_db_rename_unique(uint32_t dir, const char* name, const char* suffix, std::string* out);
