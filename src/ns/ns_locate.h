// ns_locate: turns file handles, dbids and oids into objects of the object cache, activating them from
// the view database when they are not cached; serves the kernel's invalidations; checks access.
//
// A SILO object is activated from what Tavrel_Metadata::get_metadata reads from the view database (never
// from the WAN server): an element (mtype 2, 5) stands alone and carries OBJ_FLAG_CHECKEDOUT when
// checked out; a version (3, 6, 8) or mtype 11 is linked at the head of its element's versions, the
// element being located first; a link (7, 9) stands alone. Every activated object carries
// OBJ_FLAG_ACTIVATED. A SILO object of mtype 2, 3, 5 to 9 is paired with its cover (the view's local
// inode of it) when the view database has one. A view-private object is activated from its inode.
//
// A cover dbid never comes back as itself: locating it gives its SILO partner, activated by oid. When
// the view database no longer knows the oid, the SILO object is gone: the cover is deleted, and the
// answer is 1087 (a stale handle). A SILO object the view database no longer knows is stale (1087) too.
//
// Handles: a handle's gen must equal its object's, except 0 and -1, which are wild (the caller's handle
// then takes the object's gen). Any other gen gives "Returning ESTALE for object %s\n" and 1087.
//
// Locks: everything runs under tavrel_cache_mutex, which every function takes (recursive). Reads of the
// view database open their own transactions under it. Objects are returned with a reference (obj_free).
#pragma once

#include <cstdint>

#include "base/tbs.h"
#include "ns/ns_cache.h"
#include "ns/ns_fstat.h"
#include "ns/ns_silo.h"
#include "proto/view_records.h"

// The object of dbid in the SILO. activate: store the attributes read while activating in the attribute
// cache (0 leaves them to be read when asked for). Null with *status: 1001 when the object cannot be
// read or its element not found, 1087 when it is gone, the view database's status for a view-private
// dbid it cannot read.
obj_entry* locate_dbid(view_silo* silo, uint32_t dbid, int activate, int* status);
// The object of a SILO oid (a cover's oid gives its SILO partner). hm is taken for the caller's
// handle; the object is the same. Statuses as locate_dbid, 1002 for an oid the view database does not
// know.
obj_entry* locate_oid(view_silo* silo, const tbs_oid_s* oid, int hm, int* status);
// The object of a handle, with *hm set from the handle's flags bit 0. A wild gen (0, -1) is accepted.
// 1016 for an unknown replica, 1087 for a gen that differs or an object that is gone.
obj_entry* locate_validate_fhandle(const view_fhandle_t* fh, int* hm, int* status);
// As locate_validate_fhandle; on 1087 for a handle outside history mode whose elem_dbid is neither 0
// nor its ver_dbid, the element is located instead. Outside history mode the answer is what the element
// selects now (lookup_revalidate).
obj_entry* locate_revalidate_fhandle(const view_fhandle_t* fh, int* status);

// The kernel's invalidation, under the mutex. type 1: the whole view ("view_invalidate view\n"); 2: one
// SILO ("view_invalidate silo '%s'\n"); 3: one object (with db, the resolver forgets it in the view
// database first; in a cached SILO every object of the oid is flushed and every cached ENOENT of the
// SILO dropped); 4: one name (with db, the resolver forgets it first; the lookup cache drops it).
// 0, 1072 for another type, or the resolver's failure.
int locate_invalidate(int type, const tbs_uuid_s* silo_uuid, const tbs_oid_s* obj_oid, const char* name, int db);
// Every object of oid in the SILO (the SILO object and its cover): flush 1 flushes them from the cache;
// flush 0 drops only their attributes.
void locate_invalidate_oid(view_silo* silo, const tbs_oid_s* oid, int flush);
// New attributes for a cached object (fstat_cache_update_obj); kept for callers that have the record.
void locate_cache_update(obj_entry* obj, const tbs_fstat_db_s* fstat);

// Access check on obj's attributes (vstat filled as fstat_vstat, when given; *state_out 0 when given).
// need_dir: a non-directory gives 1070. mode 1 and 4 ask for search (0x40), 2, 5 and 6 for write (0x80),
// 3 for read (0x100), each by the owner bit; the bit is checked only for objects that are not regular
// files (type other than 1), and missing it gives 1063. Another mode gives 1072.
int acl_check_ext(obj_entry* obj, int hm, view_vstat_t* vstat, uint32_t* state_out, int mode, int need_dir);
int acl_check(obj_entry* obj, int hm, int mode, int need_dir);

// "oid:%s@replicauuid:%s" of an object, for messages.
std::string locate_obj_name(const obj_entry* obj);
