// tavrel_db_utls: the view database as the name service uses it, in terms of cached objects.
//
// Every call below opens a transaction of its own (a read transaction when it only reads), aborts it
// with tvr_db_trans_abort on any failure (so a failed call leaves the records as they were), and only
// after a successful commit brings the caches of the name service in step with what changed
// (lookup_view_add / lookup_view_rm / lookup_invalidate for names, fstat_cache_update_obj and
// locate_cache_update for attributes). A cache is never told of a change that did not commit.
//
// Failures are printed through imsg with the operation's message ("View_db_<op> of <name> in <dir>:
// <reason>"), except 1022 (the database is not writable now), 1080 (not allowed on a SILO object), 1085
// (directory not empty), and 1002 of a look-up, which are ordinary answers that callers handle.
//
// Directories. A view-private directory (negative dbid) keeps its names in its own inode. A SILO
// directory keeps the view's names (view-private files, white-outs, hijack marks) in the cover inode of
// its element; calls that add a name make that cover on first use and pair it with the element in the
// object cache; calls that only read answer as for an empty directory when there is no cover.
//
// Name states: a caller's state word travels in and out as the name service knows it (0x20, 0x800 and
// 0x200000 are stored with the name; 0x1000 "the view has a record" and 0x400 "the record names no
// object" are reported by look-ups). Cookies handed out are a name's position + 0x40000000.
//
// Locks: the calls that change names or cached attributes run only under tavrel_cache_mutex (they
// assert it): they are entered from ns_* calls, which hold it, and the engine mutex is taken under it,
// which is the lock order. The SILO-row, configuration-record and inventory calls touch no cache and
// need no lock of the caller.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/tbs.h"
#include "db/tvr_db_cr.h"
#include "db/tvr_db_dir.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_vns.h"
#include "ns/ns_cache.h"
#include "ns/ns_silo.h"
#include "proto/view_records.h"
#include "proto/xdr_prim.h"

// The build session an operation works for: derived objects it makes are held by `session` until the
// session ends. session 0: no build. Bit 0 of `flags`: the objects it makes are shareable.
struct view_build_rec {
  uint32_t session = 0;
  uint32_t flags = 0;
};

// Name-state bits the database keeps for a name, and the bits a caller may store with state_set.
constexpr uint32_t TAVREL_DB_STATE_MASK = 0x201c20;
// Mask bits of view_set_attr_t beyond those of proto/view_records.h.
enum : uint32_t {
  VIEW_SATTR_MODE = 0x2,
  VIEW_SATTR_SIZE = 0x80,
  VIEW_SATTR_ATIME = 0x100,
  VIEW_SATTR_MTIME = 0x200,
  VIEW_SATTR_CTIME_BITS = 0x68e,  // any of these also sets ctime to the view time
  VIEW_SATTR_MODE_TOP = 0x80000000u,
};

// ---- names -----------------------------------------------------------------------------------------------
// The view's record of `name` in `dir`: *dbid the inode it names (0 for a white-out or hijack mark) and
// *state its state (0x1000 always, 0x400 without an inode). 1002 (no message) when there is none.
int tavrel_db_lookup(obj_entry* dir, const char* name, uint32_t* dbid, uint32_t* state);
// The view's names of `dir` after `cookie` (0 or 2 from the start), packed as view_db_readdir_entry
// records (src/db/tvr_db_dir.h) into `buffer`; *used bytes, *eof 1 with the last. A directory
// without a view side gives nothing and eof. 1084 when not one entry fits.
int tavrel_db_readdir(obj_entry* dir, uint32_t cookie, char* buffer, size_t size, size_t* used, int* eof);

// Makes a view-private object (mtype 19) named `name` in `dir` and returns it with a reference:
// `ftype` 1 a file (with an empty container in the pool), 2 a directory (link count 2, size 89),
// 5 a symbolic link to `text`. Owner and group are the process's unless `sattr` sets them; the mode is
// the low 12 bits of `sattr->mode`. With (state & 0x1400) == 0x1000 an existing record of the name is
// removed first (it is replaced); otherwise an existing name gives 1067. *fstat and *dir_fstat (may be
// null) receive the new attributes. Null with *status on failure.
obj_entry* tavrel_db_create(const view_build_rec* build, obj_entry* dir, const char* name, uint32_t ftype,
                            const view_set_attr_t* sattr, const char* text, uint32_t state, tbs_fstat_db_s* fstat,
                            tbs_fstat_db_s* dir_fstat, int* status);
// Adds name `name` in `dir` for `target` (null: a record without an object, a white-out or hijack mark;
// a SILO object: its element's cover) with name state `state`; the replacement rule of tavrel_db_create.
// Names of 1 to 255 bytes (1084 over, 1072 empty).
int tavrel_db_link(obj_entry* dir, const char* name, obj_entry* target, uint32_t state);
// Removes the record of `name` in `dir`; with (state & 0x820) the row stays as a white-out with that
// state. The object named loses a link; its last name gone, it goes with its container (a directory,
// which must be empty, also loses its parent's link).
int tavrel_db_unlink(obj_entry* dir, const char* name, uint32_t state);
// The same for a build session; with `commit` 0 it works inside the caller's write transaction (which
// the caller ends or aborts) and, since the outcome is not known yet, only invalidates the caches.
int tavrel_db_unlink_trans(const view_build_rec* build, obj_entry* dir, const char* name, uint32_t state,
                           int commit);
// Stores (state & 0x201c20) as the state of the existing record of `name`; the lookup cache forgets it.
int tavrel_db_state_set(obj_entry* dir, const char* name, uint32_t state);
// The directory that names view-private object `obj` first, and that name (1084 if `size` is too small).
// 1002 when no directory names it.
int tavrel_db_find_parent(obj_entry* obj, uint32_t* parent_dbid, char* name, size_t size);
// The element of the directory holding SILO object `obj` (a version or link) under its first name, and
// that name. *parent_elem_dbid 0 for a root. 1002 when the view database does not hold the object.
int tavrel_db_get_parent_elem(obj_entry* obj, uint32_t* parent_elem_dbid, char* name, size_t size);

// ---- objects ----------------------------------------------------------------------------------------------
// The inode `dbid` of `silo`: OID, attributes, mtype and generation (any output may be null). 1087 when
// `dbid` names no inode of this SILO (it was deleted since the caller learned it), without a message.
int tavrel_db_dbid2oid(view_silo* silo, uint32_t dbid, tbs_oid_s* oid, tbs_fstat_db_s* fstat, silo_mtype_t* mtype,
                       uint32_t* gen);
// The inode of `oid` in `silo`; 1002 (no message) when none.
int tavrel_db_oid2dbid(view_silo* silo, const tbs_oid_s* oid, uint32_t* dbid);
// Deletes the inode of view object `obj` (a cover or a view-private object): a directory with the names
// in it, a file with its container. The cached attributes go; the object stays for its holders.
int tavrel_db_delete(obj_entry* obj);
// Applies the attributes `sattr` selects to view-private object `obj` (1080 for a SILO object);
// *fstat (may be null) receives the result, which the attribute cache also takes.
int tavrel_db_setattr(obj_entry* obj, const view_set_attr_t* sattr, tbs_fstat_db_s* fstat);
// Moves a view-private object between its kinds: from 19, 21, 22, 23, 26 to 19, 21, 22, 23 or 26;
// other pairs are internal errors (1008).
int tavrel_db_set_mtype(obj_entry* obj, silo_mtype_t mtype);
// The target of view-private symbolic link `obj` (1072 for another type); *len its length; 1084 when
// `size` cannot hold it with its NUL.
int tavrel_db_readlink(obj_entry* obj, char* buffer, size_t size, size_t* len);
// The container name of view-private object `obj`, relative to the pool ("" when it has none).
int tavrel_db_cltxt_name(obj_entry* obj, char* buffer, size_t size);
// Gives view-private object `obj` the identity `oid`: kind 19 when `oid` is null or there is no build
// session, else 21 (shareable, flags bit 0) or 23. An object without a container gets a new name with
// the suffix "cow" (1015 when no name can be made). The cached object keeps its old identity: the caller
// flushes it and locates the object again.
int tavrel_db_choid(const view_build_rec* build, obj_entry* obj, const tbs_oid_s* oid);
// Marks the inodes `dbids` (count of them) of `silo` unshareable (kind 26).
int tavrel_db_dos_to_unshareable(view_silo* silo, const uint32_t* dbids, size_t count);
// The objects of replica `old_uuid` now belong to replica `new_uuid` (a SILO moved to another replica):
// its row, its derived objects and their references. 1002 when the view has nothing of `old_uuid`.
int tavrel_db_recover_object(const tbs_uuid_s& old_uuid, const tbs_uuid_s& new_uuid);
// Ends build session `session` (0: every session): what it held is released.
int tavrel_db_rm_build_session(uint32_t session);

// ---- SILO rows --------------------------------------------------------------------------------------------
// The row of replica `uuid`: its number, and the stored "host:path" split at the first ':' (1084 when a
// buffer is too small for its part with the NUL, 1008 for a text without ':'). 1002 when there is none.
int tavrel_db_silo_read(const tbs_uuid_s& uuid, uint32_t* db_dbid, char* host, size_t host_size, char* path,
                        size_t path_size);
// A new row storing "host:path" (1067 when the replica has one).
int tavrel_db_silo_create(const tbs_uuid_s& uuid, const char* host, const char* path, uint32_t* db_dbid);
int tavrel_db_silo_update(const tbs_uuid_s& uuid, const char* host, const char* path);
// 1085 while objects of the view still refer to the replica.
int tavrel_db_silo_delete(const tbs_uuid_s& uuid);
// The replica's one flag bit (hard links and set-work share it); a missing row is made first.
int tavrel_db_silo_set_hlink(const tbs_uuid_s& uuid, int on);
int tavrel_db_silo_set_setwork(const tbs_uuid_s& uuid, int on);
// Every SILO row (with `flags` non-zero, only those with the flag bit).
int tavrel_inventory_silos(std::vector<tvr_db_silo_info>* out, int flags);

// ---- configuration records ---------------------------------------------------------------------------------
// Stores the record `data` of the derived objects `do_oids` (count) with their sub-objects, synced to disk,
// held by the build session; *cr_dbid (may be null) receives its handle.
int tavrel_cr_save(const view_build_rec* build, const tbs_uuid_s& replica, const tbs_oid_s* do_oids, int count,
                   const tbs_oid_s* sub_oids, int sub_count, const tvr_db_cr_data& data, uint32_t* cr_dbid);
// The record describing derived object `oid` (1002 when none) and its stored form.
int tavrel_cr_get(const tbs_oid_s& oid, uint32_t* cr_dbid, tvr_db_cr_data* data);
int tavrel_cr_free(uint32_t cr_dbid);
int tavrel_cr_add_silo_ref(uint32_t cr_dbid, const tbs_uuid_s& replica);
int tavrel_cr_rm_silo_ref(uint32_t cr_dbid, const tbs_uuid_s& replica);

// ---- inventories ------------------------------------------------------------------------------------------
int tavrel_db_has_checkouts(bool* any);
int tavrel_db_has_hijacks(bool* any);
int tavrel_db_find_checkouts(std::vector<tavrel_hijack_co_info>* out);
// Of SILO `silo` only when it is non-null.
int tavrel_db_find_hijacks(const tbs_uuid_s* silo, std::vector<tvr_db_hijack_info>* out);
int tavrel_db_find_privates(const tbs_uuid_s* silo, std::vector<tvr_db_private_info>* out, int dir_pass);

// ---- names for messages -----------------------------------------------------------------------------------
// "dbid:0x%x@replicauuid:%s", "oid:%s@replicauuid:%s", and the latter for a cached object.
std::string tavrel_dbid2str(const view_silo* silo, uint32_t dbid);
std::string tavrel_oid2str(const view_silo* silo, const tbs_oid_s& oid);
std::string obj_2str(const obj_entry* obj);
