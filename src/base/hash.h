// hash_str_: a table from text keys to caller-owned pointers. Not thread-safe: the owner's lock
// guards it.
#pragma once

#include <string>
#include <unordered_map>

struct hash_str_t {
  std::unordered_map<std::string, void*> map;
};

inline hash_str_t* hash_str_create() { return new hash_str_t; }
inline void hash_str_free(hash_str_t* h) { delete h; }
// Enters or replaces; returns the previous value or null.
inline void* hash_str_enter(hash_str_t* h, const std::string& key, void* value) {
  auto [it, inserted] = h->map.try_emplace(key, value);
  if (inserted) return nullptr;
  void* old = it->second;
  it->second = value;
  return old;
}
inline void* hash_str_lookup(const hash_str_t* h, const std::string& key) {
  auto it = h->map.find(key);
  return it == h->map.end() ? nullptr : it->second;
}
inline void* hash_str_remove(hash_str_t* h, const std::string& key) {
  auto it = h->map.find(key);
  if (it == h->map.end()) return nullptr;
  void* v = it->second;
  h->map.erase(it);
  return v;
}
inline size_t hash_str_count(const hash_str_t* h) { return h->map.size(); }
