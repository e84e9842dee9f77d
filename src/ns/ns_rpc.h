// ns_rpc: the namespace calls that the view-protocol operations make. Each takes tavrel_cache_mutex for
// its whole run, validates its handle and works with objects of the object cache; none keeps an object
// reference past its return. The calls here only read: attributes, the SILO root, link targets and
// paths.
//
// Statuses are of the 1000 range as the view protocol carries them. An object whose attributes the view
// database no longer has (1002, or 1087 for an inode deleted meanwhile) has vanished: it is reported
// ("Silo stale %s: Flushing\n"), flushed from the cache, and the answer is 1087, so the kernel forgets
// its handle and looks the name up again.
#pragma once

#include <sys/time.h>

#include <cstddef>

#include "base/tbs.h"
#include "proto/view_records.h"

// The root of the SILO replica: its handle, attributes, name state and cacheable flag (*flag), the
// SILO's LVUT. silo_oid is the SILO family's oid, which the replica's uuid already determines. A
// non-empty pathname gives 1072. When checked_out is given it receives whether the root element is
// checked out, and co_ver_oid (when given) the checked-out version's oid; failing to read that is 1008.
int ns_root(const tbs_oid_s* silo_oid, const tbs_uuid_s* replica_uuid, const char* pathname, view_hm_warp_opt warp,
            view_fhandle_t* fh, view_vstat_t* vstat, view_name_state_t* name_state, tbs_boolean_t* flag,
            struct timeval* lvut, int* checked_out, tbs_oid_s* co_ver_oid);
// The attributes of the handle's object, the handle as it stands now (a wild gen filled in), and the
// SILO's LVUT (when lvut is given).
int ns_getattr(const view_fhandle_t* fh, view_fhandle_t* fh_out, view_vstat_t* vstat, struct timeval* lvut);
// As ns_getattr for the object the handle's element selects now (a version replaced by an update gives
// the new one); history-mode handles are validated as they are.
int ns_revalidate(const view_fhandle_t* fh, view_fhandle_t* fh_out, view_vstat_t* vstat);
// The target of a symbolic link, cut to max_len bytes (no NUL added; *len bytes are valid). Needs read
// permission on the link. A SILO object that is not a link is reported ("dbid not an slink") and gives
// the reporting's status.
int ns_readlink(const view_fhandle_t* fh, size_t max_len, size_t* len, char* buffer);
// The path of the handle's object from its SILO root (lookup_gpath). path_max and ext_path_max are the
// lengths the buffers can hold without their NUL.
int ns_gpath(const view_fhandle_t* fh, int hm, size_t path_max, char* path, size_t ext_path_max, char* ext_path);
