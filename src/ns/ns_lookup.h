// ns_lookup: name lookup in the view and the lookup cache.
//
// A lookup answers what a name in a directory resolves to in this view. It merges the view side (the
// view database's records of view-private names, white-outs, hijacks and checkouts) with the SILO side
// (the directory as the configuration selects it: from the listing cache, the view database, or the
// server through the metadata resolver). The merged answer is cached as a name_entry from the directory
// object to the target object, with a name state (VIEW_NAME_STATE_* bits below) that tells the kernel
// module how the name was resolved.
//
// Cache. name_entry records live in name_hash_table (4093 buckets, bucket
// hash32(directory dbid, name) % 4093), in their directory's name_list and in their target's
// parent_list. An entry holds a reference on its directory; each reference taken on an entry holds one
// on its target, so an unused entry does not keep its target: when the object cache evicts the target,
// the names to it go with it. A name without
// an object hangs on the SILO's not-found anchor (the dbid-1 object) with VIEW_NAME_STATE_NOT_FOUND:
// that is the cache of ENOENT answers, which lookup_invalidate_not_found drops at once. An entry is
// charged strlen(name) + 41 bytes against the budget name_max (ns_cache.h); when an addition finds the
// cache at or over budget, a clock over the buckets (second chance by flag NAME_FLAG_TOUCHED, up to 3
// revolutions, hand kept between sweeps) disposes of unreferenced entries; with every entry
// referenced the cache grows past its budget rather than refuse the entry. At most one entry exists per
// (directory, name, target, state, rule). A failed server lookup caches nothing, so the next lookup
// asks again. ".." of a SILO root is the root.
//
// Invariants, true whenever tavrel_cache_mutex is free:
//   name_cache_stats.size == sum over entries of (strlen(name) + 41), name_cache_stats.count == entries;
//   every entry is in exactly one bucket chain, in its dir's name_list and in its ver's parent_list;
//   no entry has a reference (references are taken and dropped inside one call under the mutex).
//
// The lookup cache installs its flusher in the object cache (NS_HANG_NAMES): flushing an object
// disposes of the names to it and in it and of its listing.
//
// Locks: tavrel_cache_mutex guards everything here; every function takes it (recursive). It is held
// across the database transactions and the server round trips a lookup needs, with one exception:
// ns_lookup_flags releases it to read the checkout version of the result, and holds no object reference
// while released (it keeps ids and looks the objects up again).
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/tbs.h"
#include "ns/ns_cache.h"
#include "proto/view_records.h"

// Name state bits (name_entry::state and view_name_state_t).
constexpr uint32_t VIEW_NAME_STATE_VIEW = 0x1;              // the view side decided this name
constexpr uint32_t VIEW_NAME_STATE_ECLIPSED_BY = 0x2;       // not visible: lost to a same-named entry of the other side
constexpr uint32_t VIEW_NAME_STATE_NO_OBJ = 0x4;            // no object of this name
constexpr uint32_t VIEW_NAME_STATE_ERROR = 0x8;             // the object could not be located
constexpr uint32_t VIEW_NAME_STATE_CHECKEDOUT = 0x20;       // the target is checked out
constexpr uint32_t VIEW_NAME_STATE_NOT_FOUND = 0x100;       // the name resolves to nothing (a cached ENOENT)
constexpr uint32_t VIEW_NAME_STATE_CARRIED = 0x200;         // carried over from a cached answer during duplicate evaluation
constexpr uint32_t VIEW_NAME_STATE_WHITE_OUT = 0x400;       // the name is removed in this view
constexpr uint32_t VIEW_NAME_STATE_HIJACK_REC = 0x800;      // the view-side record is part of a hijack
constexpr uint32_t VIEW_NAME_STATE_VIEW_REC = 0x1000;       // a view-side record exists for the name
constexpr uint32_t VIEW_NAME_STATE_SILO_REC = 0x2000;       // a SILO-side entry exists for the name
constexpr uint32_t VIEW_NAME_STATE_HM = 0x4000;             // history-mode name
constexpr uint32_t VIEW_NAME_STATE_LISTED = 0x8000;         // visible in the evaluated listing
constexpr uint32_t VIEW_NAME_STATE_HIDDEN = 0x100000;       // not visible for another reason
constexpr uint32_t VIEW_NAME_STATE_HIJACKED = 0x200000;     // hijacked
constexpr uint32_t VIEW_NAME_STATE_NOT_VISIBLE = 0x10010e;
constexpr uint32_t VIEW_NAME_STATE_VIEW_BITS = 0x201c20;  // the bits the view side contributes
constexpr uint32_t VIEW_NAME_STATE_KERNEL_MASK = 0x1f03ff;  // what ns_lookup passes to the kernel module
// A name is eclipsed when it exists on both sides and the view side wins without checkout or hijack.
inline bool view_name_state_eclipsed(uint32_t state) { return (state & 0x203020) == 0x3000; }

// name_entry::flags.
enum : uint16_t {
  NAME_FLAG_TOUCHED = 1,    // touched since the last sweep
  NAME_FLAG_CACHEABLE = 2,  // the answer may stay in the kernel module's name cache
};

constexpr uint32_t NS_NAME_BUCKETS = 4093;
constexpr uint32_t NS_NAME_CHARGE = 41;  // bytes charged per entry on top of the name's length
constexpr uint32_t NS_NAME_SESSION_NONE = 0xffffffffu;

struct name_entry {
  name_entry* next;      // next in the bucket of name_hash_table
  name_entry* dir_next;  // next in dir->name_list
  obj_entry* dir;        // directory; holds a reference
  name_entry* ver_next;  // next in ver->parent_list
  obj_entry* ver;        // target, or the SILO's not-found anchor; each reference on the entry holds one
  uint32_t session[2];   // build sessions, NS_NAME_SESSION_NONE each unless set
  uint32_t state;        // VIEW_NAME_STATE_* bits
  uint32_t rule;         // rule number; 0 unless carried over by lookup_view_add / lookup_view_rm
  uint16_t ref_cnt;
  uint16_t flags;        // NAME_FLAG_*
  char name[1];          // leaf name with its NUL (allocated to length)
};

// ---- view-protocol entries (take the mutex) -----------------------------------------------------------

// Resolves `name` in the directory `dir`, then as many leaves of `residual` as resolve (a walk stops at
// a non-directory, at a leaf longer than 255 bytes, at a failing leaf, or at ".." when dot_dot is given,
// which is then set and the ".." counted). On success *fh_out is the last object's handle, *parent_out
// that of the directory it was found in, *vstat its attributes, *consumed the residual's bytes used,
// *cacheable whether the kernel may keep the answer, *name_state the state of the first component,
// *lvut its SILO's LVUT. The last five outputs may be null. A nonzero warp gives 1072. A name the view
// does not know gives 1052 (never 1002) with cacheable 0. Only a failure of the first component fails
// the call: a leaf of the residual that does not resolve ends the walk, and *consumed tells how far it
// went (separators skipped before a leaf count; the ".." handed back counts, separators behind it not).
int ns_lookup_flags(const view_fhandle_t* dir, const char* name, view_hm_warp_opt warp, const char* residual,
                    view_fhandle_t* fh_out, view_fhandle_t* parent_out, view_vstat_t* vstat, uint32_t* consumed,
                    int* cacheable, view_name_state_t* name_state, struct timeval* lvut, int* checked_out,
                    bool* eclipsed, bool* hijacked, tbs_oid_s* co_ver_oid, bool* dot_dot);
// ns_lookup_flags without the last five outputs; the name state keeps only VIEW_NAME_STATE_KERNEL_MASK.
int ns_lookup(const view_fhandle_t* dir, const char* name, view_hm_warp_opt warp, const char* residual,
              view_fhandle_t* fh_out, view_fhandle_t* parent_out, view_vstat_t* vstat, uint32_t* consumed,
              int* cacheable, view_name_state_t* name_state, struct timeval* lvut);
// 0 with *hijacked (may be null) when `name` in the directory `fh` is whited out, else 1067 (or the
// failure of validating the handle).
int ns_lookup_white_out(const view_fhandle_t* fh, const char* name, bool* hijacked);

// ---- component lookup ---------------------------------------------------------------------------------

// The object `name` resolves to in `dir`, with a reference; *state and *cacheable report the entry. Null
// with *status: 1072 for "", "." and "..", 1008 for a directory of a wrong kind, 1052 or 1014 for a name
// that stands for no object, 1002 for a name nobody could resolve (nothing cached).
obj_entry* lookup_name(obj_entry* dir, const char* name, uint32_t* state, int* cacheable, int* status);
// The same for a history-mode name (only cached entries answer; 1008 otherwise).
obj_entry* lookup_hm_name(obj_entry* dir, const char* name, uint32_t* state, int* cacheable, int* status);
// The entry of `name` in `dir`, with a reference, made when not cached. Null with *status.
name_entry* lookup_cm_name(obj_entry* dir, void* unused, const char* name, int* status);
// Merges a SILO-side answer (silo_dbid, with VIEW_NAME_STATE_SILO_REC in state) and a view-side one
// (view_dbid, view bits in state) into a new entry, with a reference. Null with *status.
name_entry* cm_name(obj_entry* dir, void* unused, const char* name, uint32_t silo_dbid, uint32_t view_dbid,
                    uint32_t state, int* status);
// Adds an entry (target null: the not-found anchor and, unless not visible, VIEW_NAME_STATE_NOT_FOUND);
// an equal entry already cached is returned instead. Consumes the caller's reference on `ver`. Returns
// the entry with a reference, null when memory is out.
name_entry* lookup_add_nep(obj_entry* dir, const char* name, obj_entry* ver, uint32_t state, uint32_t rule,
                           int cacheable);
// Drops a reference on the entry (and marks it touched). Null does nothing.
void lookup_nep_free(name_entry* nep);

// ---- roots, parents and paths -------------------------------------------------------------------------

// warp 1: the SILO's root object (bound on first use); warp 0 or 2: the root element's name entry's
// target. Other warps give 1072. With a reference, null with *status.
obj_entry* lookup_root_ext(view_silo* silo, view_hm_warp_opt warp, int* cacheable, uint32_t* state, int* status);
// The entry of the root under the empty name in the not-found anchor, made when needed; with a reference.
name_entry* lookup_cm_root_ext(view_silo* silo, int* status);
// The parent directory of `obj` in the view (the root is its own parent), with a reference.
obj_entry* lookup_dot_dot(obj_entry* obj, int hm, int* cacheable, int* status);
// An entry by which `obj` is reached in the view, with a reference; path receives its path from the SILO
// root ("a/b/c", "" for the root's own entry). 1013 when no parent can be found or a cycle is met, 1084
// when the path does not fit.
name_entry* lookup_parent(obj_entry* obj, char* path, size_t path_size, int hm, int* status);
// The object a directory handle stands for now: for a directory element or version the version that the
// view selects under its name (possibly another one than obj), else obj. With a reference.
obj_entry* lookup_revalidate(obj_entry* obj, int* status);
// The path of `obj` from its SILO root into path ("/a/b"); ext_path receives the same path built from
// its end. 1072 for a zero size, 1008 in history mode, 1002 for mtype 9, 1084 when a buffer is short.
int lookup_gpath(obj_entry* obj, int hm, size_t path_max, char* path, size_t ext_path_max, char* ext_path);

// ---- invalidation -------------------------------------------------------------------------------------

// Drops every entry of `name` in `dir` and the listing's knowledge of it.
void lookup_invalidate(obj_entry* dir, const char* name);
// lookup_invalidate on the object of `oid` (each version of an element).
void lookup_invalidate_oid(view_silo* silo, const tbs_oid_s* oid, const char* name);
// Flushes the SILO's root object.
void lookup_invalidate_root(view_silo* silo);
// Drops the root's entry (the empty name in the not-found anchor).
void lookup_invalidate_root_nsdir(view_silo* silo);
// Drops the entries to `obj` and in it (only_hm: only history-mode ones), and, unless only_hm, its listing.
void lookup_flush_names2obj(obj_entry* obj, int only_hm);
// Drops every cached ENOENT of the SILO.
void lookup_invalidate_not_found(view_silo* silo);
// Forgets build session `session` in every entry; an entry left with no session and not cacheable goes.
void lookup_flush_build_session(uint32_t session);
// Drops the names in and to the cached object `dbid` of the SILO and the attributes of its entries'
// targets.
void lookup_event_flush_dir(view_silo* silo, uint32_t dbid, int only_hm);

// ---- changes made by the view -------------------------------------------------------------------------

// The view linked `target` (null for none) under `name` in `dir` with view-side `state`: the old entries
// go, a cached negative answer's rule and state carry over, and the listing learns the name. 0 or the
// listing's failure.
int lookup_view_add(obj_entry* dir, const char* name, obj_entry* target, uint32_t state, uint32_t cookie,
                    uint32_t dbid);
// The view removed `name` from `dir`: the entries go, the listing forgets it, and a name the view had
// decided becomes a cached ENOENT at once. 0.
int lookup_view_rm(obj_entry* dir, const char* name, uint32_t state);

// ---- maintenance --------------------------------------------------------------------------------------

// Installs the lookup cache's flusher in the object cache (at load and at every new entry; repeating
// is free).
void ns_lookup_install();
// Disposes of every entry (cache_flush). Entries must be unreferenced.
void lookup_flush_all();
// Walks the table and checks the invariants above. "" when they hold, else what broke.
std::string lookup_cache_check();
// The dump of the cache, one line per entry, through imsg (kind OK).
void print_lookup_cache();
// The bucket of (directory dbid, name).
uint32_t lookup_name_bucket(uint32_t dir_dbid, const char* name);
