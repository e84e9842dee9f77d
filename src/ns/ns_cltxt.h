// ns_get_cltxt: where the kernel module finds the contents of an object it opens.
//
//   - A SILO version (kinds 3, 6, 8): its cleartext, found in the view's cleartext cache or fetched
//     into it; the path is relative to the cache directory (*rel_to_cache 1).
//   - A view-private object: its container, relative to the view's container pool (*rel_to_cache 0).
//     A container-less object of kind 22 stands for a SILO version (its oid is the version's): that
//     version's cleartext as above; when the version is gone the object is deleted and the handle is
//     stale (1087).
//   - Anything else: 1015.
// A fetch that fails (offline and not cached, server unreachable, local failure) is logged with the
// object's location and answered 1015. A path longer than `max_len` gives 1084. *flag is 1 on success.
//
// Locks: tavrel_cache_mutex is held to find and check the object, and released for a fetch: the fetch
// needs only the replica, the version's dbid and oid and the cache directory, copied out first, and no
// object reference is held while the mutex is free. A cold fetch of a large version therefore never
// stalls lookups elsewhere in the view. The caller must not hold tavrel_cache_mutex (if it does, the
// fetch runs under it).
#pragma once

#include <cstddef>

#include "proto/view_records.h"

int ns_get_cltxt(const view_fhandle_t* fh, size_t max_len, size_t* len, char* path, tbs_boolean_t* rel_to_cache,
                 int* flag);
