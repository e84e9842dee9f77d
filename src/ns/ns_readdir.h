// ns_readdir: directory listings of the view and their cache.
//
// A listing merges the two sides of a directory: the SILO side (the names its directory version holds,
// from Tavrel_Metadata::readdir_obj) and the view side (view-private names, white-outs, hijack and
// checkout records, from the view database). It is kept as one readdir_root on the directory's object
// (obj_entry::readdir_list), so reads that continue with a cursor and name lookups answered from the
// listing cost no database or WAN traffic.
//
// Cookies. A SILO entry's cookie is at most READDIR_SILO_COOKIE_MAX, a view entry's above it, so the
// entries of a listing, kept in one list in strictly ascending cookie order, hold the SILO run first and
// the view run behind it. A reload merges a fresh sorted run over the present entries (add_next_entry):
// unchanged entries stay where they are, vanished ones are freed, so nothing is sorted and unchanged
// names are not allocated again. Cookies 0 and 1 are "." and "..": a listing read from cursor 2 starts
// behind "..".
//
// Visibility. A name present on both sides is shown once: duplicate_name_eval asks cm_name which side
// wins; the winner gets READDIR_VISIBLE (0x8000) and the loser READDIR_HIDDEN (0x2). Entries without
// READDIR_VISIBLE and entries without an object (dbid 0: white-outs) are never listed. In history mode
// only the SILO side is listed and visibility is not evaluated.
//
// flags of a listing: READDIR_SILO_LOADED (1), READDIR_VIEW_LOADED (2), READDIR_DUPS_EVALUATED (4).
// Invalidation only clears bits; the next read reloads the missing side over the present entries.
//
// Budget. A listing is charged 32 bytes and each entry its name's length plus 17 in
// readdir_cache_stats.size (count is the number of listings). A listing is on readdir_lru exactly
// while no reader is using it (asserted both ways); at the end of each readdir_get the oldest idle
// listings are disposed of (counted as ejects) while the size exceeds the budget's readdir_max.
//
// Continuation. A listing remembers the last entry a read emitted; a read whose cursor is at or past
// that entry's cookie starts there instead of at the head, so a whole directory read in many small
// replies costs linear time. The hint is dropped when its entry is freed; callers never see it.
//
// Locks: everything here runs under tavrel_cache_mutex (each ns_* entry takes it; the other functions
// expect it held and take it again, which is free). Loading a side calls the resolver and the view
// database with the mutex held, which is the lock order.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/llist_d.h"
#include "ns/ns_cache.h"
#include "proto/view_records.h"

struct hash_str_table;

constexpr uint32_t READDIR_SILO_COOKIE_MAX = 0x3fffffff;

enum : uint32_t {
  READDIR_SILO_LOADED = 1,
  READDIR_VIEW_LOADED = 2,
  READDIR_DUPS_EVALUATED = 4,
};

// Visibility bits of an entry's state, besides the name-state bits of the lookup cache.
enum : uint32_t { READDIR_HIDDEN = 0x2, READDIR_VISIBLE = 0x8000 };

// ns_readdir_ext flags: nonzero asks for the identifiers of each entry; READDIR_EXT_PARENT_STATE also
// for the name state and rule of "." as its parent names it.
enum : uint32_t { READDIR_EXT_PARENT_STATE = 2 };

struct readdir_entry {
  readdir_entry* next;  // next in ascending cookie order
  uint32_t dbid;        // the entry's object; 0 for a name without an object
  uint32_t cookie;
  uint32_t state;       // name state plus READDIR_HIDDEN / READDIR_VISIBLE
  char name[1];         // NUL-terminated, allocated to its length
};

struct readdir_root {
  obj_entry* obj;              // the directory; holds a reference; obj->readdir_list points back
  llist_d_t lru_thread;        // link in readdir_lru while idle
  hash_str_table* view_hash;   // name -> entry, view-side entries
  hash_str_table* silo_hash;   // name -> entry, SILO-side entries
  readdir_entry* entries;      // ascending cookie order
  uint32_t flags;              // READDIR_*_LOADED, READDIR_DUPS_EVALUATED
  // Not part of the contract: the continuation hint and a count of entries freed, by which a walk
  // that called out knows whether its entry pointer still holds.
  readdir_entry* hint;
  uint32_t frees;
};

// ---- the view protocol ----------------------------------------------------------------------------------

// Lists the directory `fh` from `cursor` into `buffer` (max_size bytes) as view_dirent records
// (proto/view_records.h: ino u32, off u32, reclen u16, namlen u16, name + NUL at byte 12, reclen
// (namlen + 16) & ~3). "." (off 1) and ".." (off 2) come first; then each visible entry with ino its
// dbid and off its cookie. *cursor_out is the last off emitted (the cursor when nothing was), *used the
// bytes filled, *eof 1 once the last entry is in. 1072 when not even one record fits.
int ns_readdir(const view_fhandle_t* fh, uint32_t cursor, uint32_t max_size, uint32_t* cursor_out,
               uint32_t* used, int* eof, char* buffer);
// The same as view_dirent_ext records (name + NUL at byte 58, reclen (namlen + 62) & ~3; "." 60 bytes,
// ".." 64) after a read-permission check on the directory. A nonempty `name` selects that one entry (and
// "." or ".." only when it is one of them). Nonzero `flags` add each entry's element and version
// identifiers, rule and name state from the lookup cache; READDIR_EXT_PARENT_STATE also the state of
// "." as its parent names it. Because those lookups may change the listing, the read is repeated (at
// most three times) until the listing is complete and evaluated.
int ns_readdir_ext(const view_fhandle_t* fh, uint32_t cursor, const char* name, uint32_t flags,
                   uint32_t max_size, uint32_t* cursor_out, uint32_t* used, int* eof, char* buffer);
// The name of `child` in `dir` into `buffer` (size bytes): from the listing when it holds the SILO side,
// else from the view database (a view-private dir) or the resolver. 1002 when dir does not name child,
// 1084 when the name does not fit, 1001 when the SILO side cannot be read.
int ns_readdir_get_parent_name(obj_entry* dir, obj_entry* child, size_t size, char* buffer);

// ---- the listing cache ----------------------------------------------------------------------------------

// The listing of `obj` with both sides loaded, taken off readdir_lru (the caller gives it back with
// readdir_put). Null with *status on failure: 1008 for an object that has no listing by kind; 1001
// when a side cannot be loaded (the listing is disposed of, so the next read starts afresh); 0 when
// memory runs out.
readdir_root* readdir_get(obj_entry* obj, int* status);
// Gives a listing taken with readdir_get back to readdir_lru.
void readdir_put(readdir_root* rrp);
// Decides which entries are listed (see Visibility). 0, or the failure of a pair's evaluation (the
// listing stays unevaluated). 1008 for a directory kind without a view side.
int readdir_visibility_eval(readdir_root* rrp);
// Evaluates one name present on both sides with cm_name and marks winner and loser. 0 or its failure.
int duplicate_name_eval(obj_entry* dir, readdir_entry* silo_ent, readdir_entry* view_ent);

// What the listing of `dir` knows of `name`: *silo_dbid the SILO entry's dbid (0 without one),
// *view_dbid the view entry's (0 without one or for a white-out), *state the view entry's view-side
// bits (0x201c20) plus 0x2000 when the SILO side holds the name. Returns the listing's flags (bit 1:
// the SILO side is complete, bit 2: the view side is), 0 and nothing stored without a listing.
uint32_t readdir_lookup_name(obj_entry* dir, const char* name, uint32_t* silo_dbid, uint32_t* view_dbid,
                             uint32_t* state);
// Marks the listing of `dir` for reload: mask 2 forgets the SILO side, 1 the view side, 3 both; the
// evaluation is always forgotten. Entries of `name` (every entry for a null or empty name) lose their
// visibility bits. A flush is counted. Nothing without a listing.
void readdir_invalidate_name(obj_entry* dir, const char* name, uint32_t mask);
// A view-side name was added: merged into the listing of `dir` at its cookie (nothing without a
// listing), and evaluated at once against a SILO entry of the same name. 0, or 1001 when memory runs out.
int readdir_view_add(obj_entry* dir, uint32_t dbid, const char* name, uint32_t cookie, uint32_t state);
// A view-side name was removed: its entry is freed when nothing of it stays on the view side (no bit
// of 0x201c20 in `state`) and the SILO side does not hold the name; otherwise the view side is reloaded
// on the next read.
void readdir_view_rm(obj_entry* dir, const char* name, uint32_t state);

// Places a new entry behind `previous` (null: at the head) in a merge of a sorted run over the present
// entries: entries before `cookie`, or at it with another dbid or name, are freed; an equal entry is
// kept (taking the new state). Null when memory runs out.
readdir_entry* add_next_entry(readdir_entry* previous, readdir_root* rrp, const char* name, uint32_t dbid,
                              uint32_t cookie, uint32_t state);
void readdir_entry_free(readdir_root* rrp, readdir_entry* ent);
// Off readdir_lru, unlinked from its object (dropping the reference), tables and entries freed.
void readdir_dispose(readdir_root* rrp);
// Disposes of every listing (each must be idle).
void readdir_cache_flush();
// One line per listing and entry through imsg (kind OK).
void print_dir_cache();
// Installs the listing cache's flushers in the object cache. Called whenever a listing is made (so a
// flusher reset by someone else is put back before it is needed); idempotent.
void readdir_cache_init();
