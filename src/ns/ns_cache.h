// ns_cache: the name service's object cache: its size and the budgets derived from it.
//
// The view's cache size (tavrel.conf / SetCacheSize, bytes) is split: 40% for directory listings
// (readdir_max); the rest is cut in units of 392 bytes, of which objects take 200 (obj_cache_max),
// attributes 144 (fstat_max) and names 48 (name_max). Integer arithmetic throughout. The sizes below
// 4 MiB are raised to 4 MiB at start (cache_init) and by ns_cache_set_size with enforce_minimum; a size
// from 1 to 4 MiB - 1 given without it is refused (1072), and 0 is taken as it is.
//
// Locks: tavrel_cache_mutex (recursive, rank NS_CACHE) guards everything here; every ns_* entry takes
// it. The tables of cached objects, names and attributes join this module with the name service.
#pragma once

#include <cstdint>

#include "base/tavrel_mutex.h"

Tavrel_Recursive_Mutex& tavrel_cache_mutex();

struct ns_cache_budget {
  uint32_t view_cache_size;
  uint32_t readdir_max, obj_cache_max, fstat_max, name_max;
};

constexpr uint32_t NS_CACHE_MIN_SIZE = 0x400000;

// Empties the cache and computes the budgets from the present size (raised to the minimum). 0 or 1008.
int cache_init();
// Sets the size: 0, or 1072 for a size from 1 to NS_CACHE_MIN_SIZE - 1 without enforce_minimum.
int ns_cache_set_size(uint32_t size, bool enforce_minimum);
// Pairs of (code, value): code 0 sets the size as ns_cache_set_size without the minimum; code 1 prints the
// statistics (none are kept yet); other codes are skipped. 0 or the first failure.
int cache_set_values(int count, const uint32_t* pairs);
ns_cache_budget ns_cache_get_budget();
