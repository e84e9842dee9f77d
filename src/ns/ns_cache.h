// ns_cache: the name service's object cache and the one budget shared by the four caches of the
// name service.
//
// Budget. The view's cache size (tavrel.conf / SetCacheSize, bytes) is split: 40% for directory
// listings (readdir_max); the rest is cut in units of 392 bytes, of which objects take 200
// (obj_cache_max), attributes 144 (fstat_max) and names 48 (name_max). Integer arithmetic throughout.
// Sizes below 4 MiB are raised to 4 MiB at start (cache_init) and by ns_cache_set_size with
// enforce_minimum; a size from 1 to 4 MiB - 1 given without it is refused (1072), and 0 is taken as it
// is (every maximum 0: each allocation then sweeps first).
//
// Objects. One obj_entry per element, version, symbolic link or view-private object somebody touched
// recently. Every object is chained in dbid_hash_tab, 511 buckets (bucket dbid % 511, dbid unsigned),
// which the sweep and the dump walk, and is findable by (SILO, dbid) and by (SILO, oid) through two
// indexes whose bucket count grows with the objects (ns_obj_index.h), so a lookup or a flush costs
// the same at 100 objects as at 200,000. Every object is charged 100 bytes. Invariants, true whenever
// tavrel_cache_mutex is free:
//   obj_cache_stats.size == 100 * obj_cache_stats.count;
//   obj_zero_ref_size == 100 * (objects whose ref_cnt is 0);
//   cover partners point at each other and each holds a reference on the other;
//   a version linked to its element (ver) holds a reference on the element;
//   a SILO holds a reference on its root and on its not-found anchor.
// An object whose last reference goes stays in the tables and stays findable; taking a reference
// again counts a reclaim. Eviction happens only inside obj_alloc_rmap, and only while the objects are
// over budget and some object has no reference: a clock over dbid_hash_tab whose hand persists,
// where flag 2 (set by obj_free) gives an object a second chance. It stops at the end of the first
// chain that lost something and gives up after two revolutions, so with every object referenced the
// cache grows past its budget rather than fail.
//
// A reference protects an object from the sweep only, not from obj_flush: obj_flush frees the object
// it is given, which must hold at most the caller's own reference once the entries hanging on it are
// gone. Names, attributes and listings hang on objects; the caches that own them install their
// flushers with ns_cache_set_flusher, and obj_flush / cache_flush call them.
//
// Locks: tavrel_cache_mutex (recursive, rank NS_CACHE) guards everything here and in the other caches
// of the name service; every function below takes it (re-entry is free), and no obj_entry pointer may
// be used by a thread that does not hold it.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <string>
#include <vector>

#include "base/credutl.h"
#include "base/tavrel_mutex.h"
#include "base/tbs.h"
#include "proto/xdr_prim.h"  // silo_mtype_t

struct view_silo;
struct name_entry;
struct readdir_root;
struct fstat_entry;

Tavrel_Recursive_Mutex& tavrel_cache_mutex();

// ---- budget -------------------------------------------------------------------------------------------

struct ns_cache_budget {
  uint32_t view_cache_size;
  uint32_t readdir_max, obj_cache_max, fstat_max, name_max;
};

constexpr uint32_t NS_CACHE_MIN_SIZE = 0x400000;

// Empties the cache (as cache_flush when objects exist), zeroes the counters and computes the budgets
// from the present size raised to the minimum. 0.
int cache_init();
// Sets the size: 0, or 1072 for a size from 1 to NS_CACHE_MIN_SIZE - 1 without enforce_minimum.
int ns_cache_set_size(uint32_t size, bool enforce_minimum);
// Pairs of (code, value): code 0 sets the size as ns_cache_set_size without the minimum; code 1 prints
// the statistics (cache_print_stats); other codes are skipped. 0 or the first failure.
int cache_set_values(int count, const uint32_t* pairs);
ns_cache_budget ns_cache_get_budget();

// ---- objects ------------------------------------------------------------------------------------------

// Cache kinds (obj_entry::otype), fixed at allocation from the mtype and whether the object is a
// view-private one (negative dbid):
//   CACHE_ELEM_OBJ  SILO mtype 2, 5
//   CACHE_VER_OBJ   SILO mtype 1, 3, 6, 7, 8, 9; view-private 19, 21, 22, 23, 26
//   CACHE_OTHER_OBJ SILO mtype 11
//   CACHE_COVER_OBJ view-private 2, 3, 5, 6, 7, 8, 9 (a local inode covering a SILO object)
// Any other kind (0, 4 and 10 in particular) ends the process with pfm_panic.
enum : uint32_t { CACHE_ELEM_OBJ = 1, CACHE_VER_OBJ = 2, CACHE_OTHER_OBJ = 3, CACHE_COVER_OBJ = 4 };

enum : uint16_t {
  OBJ_FLAG_LOOKUP_PARENT = 1,  // lookup_parent is working on this object (cycle guard)
  OBJ_FLAG_TOUCHED = 2,        // touched since the last sweep (second chance)
  OBJ_FLAG_CHECKEDOUT = 4,
  OBJ_FLAG_ACTIVATED = 8,      // activated from the database or the server
};

constexpr uint32_t NS_OBJ_CHARGE = 100;  // bytes charged per object, whatever its real size
constexpr uint32_t NS_OBJ_BUCKETS = 511;

struct obj_entry {
  obj_entry* oid_next;       // chain of the oid index
  tbs_oid_s oid;
  obj_entry* dbid_next;      // chain of dbid_hash_tab
  obj_entry** dbid_pprev;    // the link that points at this object in that chain (unchained in O(1))
  obj_entry* dbid_idx_next;  // chain of the dbid index
  uint32_t dbid;             // read as signed: negative marks a view-private object
  tbs_oid_s rmap;            // replica-map oid given at creation; TBS_OID_NULL for a view-private object
  view_silo* silo;           // owning SILO; null once flushed
  fstat_entry* fep;          // attribute entry or null
  obj_entry* cover_obj;      // partner between a SILO object and its view-private cover
  struct timeval event_time; // view time at creation of a SILO object; zero for a view-private one
  name_entry* parent_list;   // names that resolve to this object (through name_entry::ver_next)
  name_entry* name_list;     // names cached inside this directory (through name_entry::dir_next)
  readdir_root* readdir_list;  // listing of this directory or null
  uint32_t gen;              // generation that file handles carry
  silo_mtype_t mtype;
  uint32_t ref_cnt;          // 32 bits: every name cached in a directory holds one on it
  uint16_t flags;            // OBJ_FLAG_*
  obj_entry* ver_next;       // next version or link of the same element
  uint32_t otype;            // CACHE_*_OBJ
  obj_entry* ver;            // version: its element; element: the head of its versions
};

// Counters of one cache. For the object cache `reclaims` counts references taken on objects that had
// none; for the lookup cache `bh_miss` counts its "bh miss" events. size is in bytes.
struct ns_cache_counters {
  long requests, hits, reclaims, bh_miss, size, count;
  unsigned flushes, ejects;
};

// The counters of the four caches (the attribute, listing and lookup caches keep theirs up), and the
// bytes of objects without a reference. Under tavrel_cache_mutex.
extern ns_cache_counters obj_cache_stats, fstat_cache_stats, readdir_cache_stats, name_cache_stats;
extern long obj_zero_ref_size;

// Look up and return with a reference, or null. Each call counts a request, and a hit when found.
// obj_get_by_oid with want_cover 0 finds any kind but a cover, with 1 only a cover.
obj_entry* obj_get(view_silo* silo, uint32_t dbid);
obj_entry* obj_get_by_oid(view_silo* silo, const tbs_oid_s* oid, int want_cover);
// A new object with one reference, at the head of its chains and counted in its SILO. Null
// after "Unable to malloc storage.\n" when memory is out.
obj_entry* obj_alloc(view_silo* silo, uint32_t dbid, const tbs_oid_s& oid, silo_mtype_t mtype, uint32_t gen);
obj_entry* obj_alloc_rmap(view_silo* silo, uint32_t dbid, const tbs_oid_s& oid, const tbs_oid_s& rmap,
                          silo_mtype_t mtype, uint32_t gen);
void obj_inc_ref(obj_entry* obj);
// Drops a reference and marks the object touched. Null does nothing; a reference count already at 0
// fails the assertion "obj->ref_cnt != 0".
void obj_free(obj_entry* obj);
// Removes the object with everything that hangs on it: its attributes, the names to it and in it and
// its listing, then by kind its versions (an element), its link to its element (a version), or its
// partner (a cover takes the SILO object with it; a SILO object only lets go of its cover). Frees it.
void obj_flush(obj_entry* obj);

// Links a version (or link, CACHE_VER_OBJ / CACHE_OTHER_OBJ) at the head of its element's versions; the
// version takes a reference on the element. A version already linked is left as it is.
void obj_link_version(obj_entry* elem, obj_entry* ver);
// Pairs a SILO object with its view-private cover (CACHE_COVER_OBJ); each takes a reference on the other.
// Both must be free of partners.
void obj_set_cover(obj_entry* silo_obj, obj_entry* cover);

// Flushes every object of one SILO, then moves its LVUT (reason 3).
void cache_flush_silo(view_silo* silo);
// Flushes every SILO (marking each flushed and forgetting its database number), then the attribute,
// listing and lookup caches, and asserts that nothing is left.
void cache_flush();

// The caches whose entries hang on objects install these. obj_flush calls FSTAT's flush_obj (which
// must leave obj->fep null) and then NAMES' (which must leave parent_list, name_list and readdir_list
// null: the lookup cache drops the listing through the listing cache). cache_flush calls flush_all of
// FSTAT, READDIR and NAMES, in that order. Null functions are skipped; an entry left hanging then fails
// the assertion that follows.
enum ns_hanging_kind { NS_HANG_FSTAT = 0, NS_HANG_READDIR = 1, NS_HANG_NAMES = 2, NS_HANG_KINDS = 3 };
struct ns_hanging_flusher {
  void (*flush_obj)(obj_entry* obj);
  void (*flush_all)();
};
void ns_cache_set_flusher(ns_hanging_kind kind, const ns_hanging_flusher& flusher);

// Walks the objects and checks the invariants above (charges, unreferenced bytes, the chains and both
// indexes holding the same objects, partners, version links, each SILO's count). "" when they hold,
// else what broke.
std::string ns_cache_check();

// ---- accessors ----------------------------------------------------------------------------------------

inline const tbs_oid_s* obj_2oid(const obj_entry* obj) { return &obj->oid; }
inline silo_mtype_t obj_2mtype(const obj_entry* obj) { return obj->mtype; }
inline uint32_t obj_2dbid(const obj_entry* obj) { return obj->dbid; }
inline view_silo* obj_2silo(const obj_entry* obj) { return obj->silo; }
inline bool obj_isa_view_obj(const obj_entry* obj) { return static_cast<int32_t>(obj->dbid) < 0; }
inline bool obj_is_checkedout(const obj_entry* obj) { return (obj->flags & OBJ_FLAG_CHECKEDOUT) != 0; }
// An element is itself; a version or other object its element when linked, else itself; a cover panics.
obj_entry* obj_2elem(obj_entry* obj);
// A view-private object is its own view object; any other gives the cover of its element (or null).
obj_entry* obj_2view_obj(obj_entry* obj);

// ---- statistics ---------------------------------------------------------------------------------------

struct ns_statistic {
  uint32_t id;
  uint64_t value;
};
constexpr int NS_CACHE_STAT_COUNT = 41;

// Appends the 41 (id, value) pairs of the snapshot (ids 0-40 in order); the "delta" values count since
// the previous snapshot, which this call then becomes.
void cache_get_stats(std::vector<ns_statistic>& out);
// Zeroes the counters of the four caches and the previous snapshot (cache_init).
void cache_reset_stats();
// The same under the mutex, for GetCache. 0.
int ns_cache_get_stats(std::vector<ns_statistic>& out);
// Writes the four cache lines and the LVUT reasons through imsg (kind OK).
void cache_print_stats();
// Writes one line per cached object (the object dump) through imsg (kind OK).
void print_cache();

// The process's credentials, read once; a failure to read them ends the process.
const credutl_creds_t* tavrel_my_creds();
