// hash_str: a small table from NUL-terminated text keys to caller-owned pointers, with chaining and, once
// made dynamic, growth with its count.
//
// Keys are not copied: a key stays entered by its pointer, so the caller keeps the text alive and
// unchanged while it is entered (the listing cache enters the name stored in each entry). Each node keeps
// the key's 32-bit hash, so a lookup compares texts only on equal hashes.
//
// Size. hash_str_create(size, load, flags) makes a table of `size` buckets. hash_set_dynamic(table,
// growth) turns it into a growing one: its buckets are given back and it starts over at
// HASH_STR_MIN_BUCKETS, allocated on the first entry, so an empty dynamic table owns no buckets at all;
// when an entry would take the count above `load` per bucket on average, the bucket count grows by
// `growth` percent (at least doubling for growth 100) and the nodes are rehashed. Tables never shrink
// except to nothing when emptied with hash_str_clear. A table that cannot grow (memory) stays correct
// with longer chains.
//
// Results are tbs statuses: 0; 1067 when the key is already entered (hash_str_enter leaves the old
// mapping); 1002 for a key that is not entered; 1062 when memory runs out; 1072 for a null table or key.
//
// Not thread-safe: the owner's lock guards a table (the listing cache: tavrel_cache_mutex).
#pragma once

#include <cstddef>
#include <cstdint>

struct hash_str_table;

constexpr uint32_t HASH_STR_MIN_BUCKETS = 4;

// A table of `size` buckets (at least 1) that a dynamic table grows at `load` entries per bucket (at least
// 1). `flags` must be 0 (no option is defined). Null when memory runs out.
hash_str_table* hash_str_create(uint32_t size, uint32_t load, uint32_t flags);
// Makes the table grow with its count by `growth` percent (at least 1) at a time; it must be empty.
// 0, or 1072 for a table that holds entries.
int hash_str_set_dynamic(hash_str_table* table, uint32_t growth);
inline int hash_set_dynamic(hash_str_table* table, uint32_t growth) { return hash_str_set_dynamic(table, growth); }
// Destroys the table (null is allowed); the values are the caller's.
void hash_str_delete(hash_str_table* table);

// Enters `key` -> `value`. 1067 when the key is present (nothing changes).
int hash_str_enter(hash_str_table* table, const char* key, void* value);
// The value entered under `key`, or null.
void* hash_str_lookup(const hash_str_table* table, const char* key);
// Removes the mapping of `key`; *value (may be null) receives what it mapped to. 0 or 1002.
int hash_str_free(hash_str_table* table, const char* key, void** value = nullptr);
// Removes every mapping and gives the buckets back.
void hash_str_clear(hash_str_table* table);

uint32_t hash_str_count(const hash_str_table* table);
// Buckets in use now (0 for a dynamic table that never held an entry).
uint32_t hash_str_buckets(const hash_str_table* table);
// Longest chain, for tests and statistics.
uint32_t hash_str_max_chain(const hash_str_table* table);

// The 32-bit hash of a text (FNV-1a), the one the tables use.
uint32_t hash_str_hash32(const char* key);
