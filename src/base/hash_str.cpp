#include "base/hash_str.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "base/tbs.h"

struct hash_str_node {
  hash_str_node* next;
  const char* key;
  void* value;
  uint32_t hash;
};

struct hash_str_table {
  hash_str_node** buckets;  // null until the first entry of a dynamic table
  uint32_t nbuckets;        // buckets allocated, or the size the first allocation takes
  uint32_t count;
  uint32_t load;            // entries per bucket on average before a dynamic table grows
  uint32_t growth;          // percent; 0 for a table of fixed size
};

namespace {

hash_str_node** find_slot(const hash_str_table* t, const char* key, uint32_t h) {
  hash_str_node** p = &t->buckets[h % t->nbuckets];
  for (; *p != nullptr; p = &(*p)->next)
    if ((*p)->hash == h && std::strcmp((*p)->key, key) == 0) break;
  return p;
}

bool alloc_buckets(hash_str_table* t) {
  t->buckets = static_cast<hash_str_node**>(std::calloc(t->nbuckets, sizeof(hash_str_node*)));
  return t->buckets != nullptr;
}

// Rehashes into a larger bucket array. On a memory failure the table stays as it is: correct, only
// with longer chains.
void grow(hash_str_table* t) {
  uint64_t want = uint64_t(t->nbuckets) + uint64_t(t->nbuckets) * t->growth / 100;
  if (want <= t->nbuckets) want = uint64_t(t->nbuckets) + 1;
  if (want > 0x10000000u) return;
  uint32_t n = uint32_t(want);
  hash_str_node** nb = static_cast<hash_str_node**>(std::calloc(n, sizeof(hash_str_node*)));
  if (nb == nullptr) return;
  for (uint32_t i = 0; i < t->nbuckets; i++) {
    for (hash_str_node* node = t->buckets[i]; node != nullptr;) {
      hash_str_node* next = node->next;
      hash_str_node** slot = &nb[node->hash % n];
      node->next = *slot;
      *slot = node;
      node = next;
    }
  }
  std::free(t->buckets);
  t->buckets = nb;
  t->nbuckets = n;
}

}  // namespace

uint32_t hash_str_hash32(const char* key) {
  uint32_t h = 2166136261u;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(key); *p != 0; p++) {
    h ^= *p;
    h *= 16777619u;
  }
  return h;
}

hash_str_table* hash_str_create(uint32_t size, uint32_t load, uint32_t flags) {
  if (flags != 0) return nullptr;
  hash_str_table* t = new (std::nothrow) hash_str_table{};
  if (t == nullptr) return nullptr;
  t->nbuckets = size == 0 ? 1 : size;
  t->load = load == 0 ? 1 : load;
  if (!alloc_buckets(t)) {
    delete t;
    return nullptr;
  }
  return t;
}

int hash_str_set_dynamic(hash_str_table* t, uint32_t growth) {
  if (t == nullptr || t->count != 0) return TBS_ST_BAD_ARG;
  std::free(t->buckets);
  t->buckets = nullptr;
  t->nbuckets = HASH_STR_MIN_BUCKETS;
  t->growth = growth == 0 ? 1 : growth;
  return 0;
}

void hash_str_clear(hash_str_table* t) {
  if (t == nullptr) return;
  if (t->buckets != nullptr) {
    for (uint32_t i = 0; i < t->nbuckets; i++) {
      for (hash_str_node* node = t->buckets[i]; node != nullptr;) {
        hash_str_node* next = node->next;
        delete node;
        node = next;
      }
    }
  }
  t->count = 0;
  if (t->growth != 0) {
    std::free(t->buckets);
    t->buckets = nullptr;
    t->nbuckets = HASH_STR_MIN_BUCKETS;
  } else if (t->buckets != nullptr) {
    std::memset(t->buckets, 0, sizeof(hash_str_node*) * t->nbuckets);
  }
}

void hash_str_delete(hash_str_table* t) {
  if (t == nullptr) return;
  hash_str_clear(t);
  std::free(t->buckets);
  delete t;
}

int hash_str_enter(hash_str_table* t, const char* key, void* value) {
  if (t == nullptr || key == nullptr) return TBS_ST_BAD_ARG;
  if (t->buckets == nullptr && !alloc_buckets(t)) return TBS_ST_NO_ROOM;
  const uint32_t h = hash_str_hash32(key);
  if (*find_slot(t, key, h) != nullptr) return TBS_ST_EXISTS;
  hash_str_node* node = new (std::nothrow) hash_str_node{nullptr, key, value, h};
  if (node == nullptr) return TBS_ST_NO_ROOM;
  if (t->growth != 0 && uint64_t(t->count) + 1 > uint64_t(t->nbuckets) * t->load) grow(t);
  hash_str_node** slot = &t->buckets[h % t->nbuckets];
  node->next = *slot;
  *slot = node;
  t->count++;
  return 0;
}

void* hash_str_lookup(const hash_str_table* t, const char* key) {
  if (t == nullptr || key == nullptr || t->buckets == nullptr) return nullptr;
  hash_str_node* node = *find_slot(t, key, hash_str_hash32(key));
  return node == nullptr ? nullptr : node->value;
}

int hash_str_free(hash_str_table* t, const char* key, void** value) {
  if (t == nullptr || key == nullptr) return TBS_ST_BAD_ARG;
  if (t->buckets == nullptr) return TBS_ST_NOT_FOUND;
  hash_str_node** slot = find_slot(t, key, hash_str_hash32(key));
  hash_str_node* node = *slot;
  if (node == nullptr) return TBS_ST_NOT_FOUND;
  if (value != nullptr) *value = node->value;
  *slot = node->next;
  delete node;
  t->count--;
  return 0;
}

uint32_t hash_str_count(const hash_str_table* t) { return t == nullptr ? 0 : t->count; }

uint32_t hash_str_buckets(const hash_str_table* t) {
  return t == nullptr || t->buckets == nullptr ? 0 : t->nbuckets;
}

uint32_t hash_str_max_chain(const hash_str_table* t) {
  uint32_t best = 0;
  if (t == nullptr || t->buckets == nullptr) return 0;
  for (uint32_t i = 0; i < t->nbuckets; i++) {
    uint32_t n = 0;
    for (hash_str_node* node = t->buckets[i]; node != nullptr; node = node->next) n++;
    if (n > best) best = n;
  }
  return best;
}
