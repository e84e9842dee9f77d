// ns_obj_index: a chained hash index over cached objects whose bucket count grows with them.
//
// The object cache finds objects by (SILO, dbid) and (SILO, oid). Its 511 dbid chains stay what the
// clock sweeps and the dump walks (the sweep's granularity is a chain), but with tens of thousands of
// objects they run a hundred long, so lookups go through these indexes instead.
//
// Guarantees:
//   - Each indexed object is in exactly one chain, linked through its own field `Next`: indexing
//     allocates nothing per object.
//   - The bucket count is a power of two from 1024, doubled when the objects outnumber the buckets,
//     never shrunk; so a chain holds about one object. When the larger table cannot be allocated the
//     index keeps the one it has (longer chains, same answers).
//   - A chain lists the newest object first and a doubling keeps the order of objects in the same
//     chain, so of two objects with the same key a lookup meets the newer one first.
//   - `Hash` must give the same value for an object for as long as it is indexed.
//
// Not thread-safe: the object cache's mutex (tavrel_cache_mutex) guards every index it owns.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <vector>

#include "base/pfm.h"

struct obj_entry;

template <obj_entry* obj_entry::*Next, uint32_t (*Hash)(const obj_entry*)>
class Ns_Obj_Index {
 public:
  static constexpr size_t MIN_BUCKETS = 1024;

  Ns_Obj_Index() : m_buckets(MIN_BUCKETS, nullptr) {}

  // The first object of the chain where objects of hash `hash` are; follow `Next` from it.
  obj_entry* head(uint32_t hash) const { return m_buckets[slot(hash)]; }

  void insert(obj_entry* obj) {
    if (m_count >= m_buckets.size()) grow();
    obj_entry*& b = m_buckets[slot(Hash(obj))];
    obj->*Next = b;
    b = obj;
    m_count++;
  }

  // The object must be indexed.
  void remove(obj_entry* obj) {
    for (obj_entry** p = &m_buckets[slot(Hash(obj))]; *p != nullptr; p = &((*p)->*Next)) {
      if (*p == obj) {
        *p = obj->*Next;
        obj->*Next = nullptr;
        m_count--;
        return;
      }
    }
    pfm_assert_fail("object in its index chain", __FILE__, __LINE__, nullptr);
  }

  size_t count() const { return m_count; }
  size_t buckets() const { return m_buckets.size(); }

 private:
  // Fibonacci hashing: the top bits of hash * 2^32/phi, so hashes that differ only in high bits (or
  // sequential dbids) still spread over every bucket.
  size_t slot(uint32_t hash) const { return (uint32_t)(hash * 2654435769u) >> m_shift; }

  void grow() {
    std::vector<obj_entry*> bigger, tails;  // tails: the last object of each new chain, while filling
    try {
      bigger.assign(m_buckets.size() * 2, nullptr);
      tails.assign(bigger.size(), nullptr);
    } catch (const std::bad_alloc&) {
      return;
    }
    m_shift--;
    for (obj_entry* obj : m_buckets) {
      while (obj != nullptr) {
        obj_entry* next = obj->*Next;
        size_t s = slot(Hash(obj));
        obj->*Next = nullptr;
        if (tails[s] != nullptr) {
          tails[s]->*Next = obj;
        } else {
          bigger[s] = obj;
        }
        tails[s] = obj;
        obj = next;
      }
    }
    m_buckets.swap(bigger);
  }

  std::vector<obj_entry*> m_buckets;
  unsigned m_shift = 32 - 10;  // 32 - log2(bucket count)
  size_t m_count = 0;
};
