// ns_fstat: the attribute cache of the name service, and the file handles made from objects.
//
// One fstat_entry per object at most (obj_entry::fep points at it, fstat_entry::obj back), holding the
// object's tbs_fstat_db_s as the view database or the metadata resolver last gave it. Entries are kept in
// fstat_lru, most recently used first, and each is charged 144 bytes against fstat_max (the attribute
// share of the cache budget, ns_cache.h). The budget is strict: a new entry first evicts from the tail
// while the size exceeds fstat_max; when the size is then still at or over it, the tail entry is taken
// over for the new object instead of allocating.
//
// Attributes are read from the view database only (never from the WAN server): a view-private object
// (negative dbid) through tavrel_db_dbid2oid, a SILO object of mtype 2, 3, 5, 6, 7, 8, 9 or 11 through
// Tavrel_Metadata::get_metadata.
//
// LVUT. Every loss or change of the cached attributes of a SILO object moves its SILO's LVUT
// (fstat_update_lvut, ns_lvut.h): an eviction or a flush counts reason 0, an update of an entry that
// existed reason 1 (not for directory elements and versions, mtype 2 and 3, whose attributes the kernel
// revalidates by listing). View-private objects never move it.
//
// Locks: tavrel_cache_mutex guards the entries, fstat_lru and fstat_cache_stats; every function here
// takes it (recursive). Reading attributes opens a read transaction of the view database under it,
// which is the lock order.
#pragma once

#include <cstdint>

#include "base/llist_d.h"
#include "base/tbs.h"
#include "ns/ns_cache.h"
#include "proto/view_records.h"

constexpr uint32_t NS_FSTAT_CHARGE = 144;  // bytes charged per attribute entry

struct fstat_entry {
  obj_entry* obj;         // the object whose attributes these are (its fep points here)
  tbs_fstat_db_s fstat;
  llist_d_t lru;          // link in fstat_lru, most recent first
};

// Installs the attribute cache's flushers in the object cache (ns_cache_set_flusher, NS_HANG_FSTAT).
// Idempotent; every function below calls it, so an object cache that has never seen an attribute
// entry needs no call.
void fstat_cache_init();

// The attributes of `obj` as view_vstat_t:
//  - the object's cached or read attributes;
//  - without hm, an element's cover (obj_2view_obj of a SILO object) is merged in: its mode unless it
//    is all ones, its owner and group unless they are CREDUTL_SID_DONTCARE, its nlink and size added,
//    and the later of each of the four times;
//  - mtype, elem_oid (null when the object is its own element), obj_oid, event_time, rmap_oid from the
//    object, reserved_time zero;
//  - with hm, an element (mtype 2, 5, 11) shows as a directory whose read bits grant search too, and a
//    version (3, 6, 8) has its dbid as inode number.
// 0; 1001 when a SILO object's attributes cannot be read; 1002 or 1087 from the view database for a
// view-private object that is gone; 1008 and "Unexpected mtype(%ld) for object %s\n" for a kind that
// has no attributes.
int fstat_vstat(obj_entry* obj, int hm, view_vstat_t* vstat);
// The object's attributes (cached, else read and cached), copied out. Statuses as fstat_vstat.
int fstat_get_db(obj_entry* obj, tbs_fstat_db_s* out);
// Forgets the object's attributes; for a SILO object the LVUT moves (reason 0). Nothing cached: no-op.
void fstat_flush(obj_entry* obj);
// Stores new attributes for the object (making the entry when there is none) and puts it first in the
// LRU. When an entry existed and the mtype is not 2 or 3, the LVUT moves (reason 1).
void fstat_cache_update_obj(obj_entry* obj, const tbs_fstat_db_s* fstat);
// Forgets the attributes of the SILO object `oid` of replica `uuid` (no object is flushed). 0, or 1016
// when the replica is not in the repository table.
int ns_fstat_flush(const tbs_uuid_s& uuid, const tbs_oid_s& oid);
// Drops every entry (the cache flush); each SILO object's loss moves its LVUT.
void fstat_flush_all();

// The handle the kernel module holds for `obj`:
//   silo      the replica's uuid;   ver_dbid  the object's dbid;   gen  the object's gen;
//   elem_dbid the object's own dbid for mtype 1, 7, 9 and the view-private kinds (19, 21, 22, 23, 26);
//             the same with flags bit 0 for elements (2, 5); the element's dbid for versions (3, 6, 8);
//             the element's dbid with flags bit 0 for 11;
//   flags     also bit 0 (VIEW_FH_HISTORY) with hm, bit 1 (VIEW_FH_PRIVATE) for a negative dbid;
//   spare     0.
// Any other kind is reported and gives a handle that never validates: gen inverted, elem_dbid all ones.
void makehandle(obj_entry* obj, int hm, view_fhandle_t* fh);
