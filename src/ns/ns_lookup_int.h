// ns_lookup_int: what the source files of the lookup cache share and nobody else uses. Everything here
// runs under tavrel_cache_mutex, which the callers hold.
#pragma once

#include <string>

#include "base/pfm.h"
#include "ns/ns_lookup.h"

// Assertions of the lookup cache report their own text and this source.
#define NS_LOOKUP_ASSERT(cond, text) \
  ((cond) ? static_cast<void>(0) : pfm_assert_fail(text, __FILE__, __LINE__, nullptr))

// An entry whose answer rests on the view side alone because the server could not be asked: nobody
// finds it by name (the next lookup asks again), the sweep or the next lookup of the name drops it.
constexpr uint16_t NAME_FLAG_PROVISIONAL = 4;

// The object's name for messages: "oid:%s@replicauuid:%s".
std::string lookup_obj_text(const obj_entry* obj);
// Logs "Unexpected mtype(%ld) for object %s\n" and gives 1008.
int lookup_unexpected_mtype(const obj_entry* obj);
// Directories whose names the lookup cache holds: mtype 3, 6, 8, 19, 21, 22, 23, 26.
bool lookup_is_dir_kind(silo_mtype_t mtype);

// The cached entry of (dir, name), history-mode or not, that lookups may use (no reference taken).
name_entry* lookup_find_nep(obj_entry* dir, const char* name, bool hm);
// Unchains an unreferenced entry from its bucket and disposes of it.
void lookup_remove_nep(name_entry* nep);
// Removes every entry of `name` in `dir` (with only_flags, those with one of these flags); the number
// removed.
int lookup_remove_name(obj_entry* dir, const char* name, uint16_t only_flags = 0);

// The SILO's not-found anchor (the dbid-1 object, which the SILO holds), made on first use. Null when
// no object can be made.
obj_entry* lookup_ensure_anchor(view_silo* silo);
// The SILO's root element (which the SILO holds), bound through the resolver on first use. Null with
// *status.
obj_entry* lookup_ensure_root(view_silo* silo, int* status);
