// btree.h: one B+tree file per key.
//
// An entry is the normalised key value followed by the row's DBA, big-endian, so that a plain memcmp
// orders entries by key value and then by DBA (duplicates in DBA order) and every entry is unique.
// Normalisation: u32 and u16 parts big-endian, i32 parts big-endian with the sign bit flipped, byte parts
// as they are.
//
// Page 0 (header, u32 words): magic "TVRK", version 1, key field number, page size, entry width, root page,
// height (1 = the root is a leaf), entry count, free-page list head, pages in use, schema hash.
// Leaf page:     u8 1, u8 0, u16 n, u32 prev leaf, u32 next leaf, then n entries.
// Internal page: u8 2, u8 0, u16 n separators, u32 child 0, u32 0, then n x (separator entry, u32 child).
//   Child i holds the entries e with sep[i-1] <= e < sep[i].
// Free page:     u8 0, u8 0, u16 0, u32 next free page.
// Leaves other than the root are never empty: a leaf that empties is unlinked and freed, and an internal
// page left without children goes the same way; there is no merging below that (a reload rebuilds compactly).
//
// Positions handed out (Hint) are only valid while the tree's version is unchanged; every insert and erase
// takes a new version from a process-wide counter.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "db/rec/page_cache.h"

namespace tavrel::rec {

constexpr uint32_t kKeyMagic = 0x4b525654;  // "TVRK"

struct Hint {
  uint32_t page = 0;
  uint32_t idx = 0;
  uint64_t version = 0;  // 0: no hint
};

class BTree {
 public:
  BTree(PageCache* cache, int file, long field, uint32_t width)
      : cache_(cache), file_(file), field_(field), w_(width) {}
  int create(uint32_t hash);
  int load(uint32_t hash);
  int reload() { return load(hash_); }

  uint32_t width() const { return w_; }
  uint32_t count() const { return count_; }
  uint32_t height() const { return height_; }
  uint32_t pages_in_use() const { return hw_; }
  uint32_t root() const { return root_; }
  uint64_t version() const { return version_; }

  // Insert a new entry (-910 if it is already there).
  int insert(const uint8_t* e);
  // Remove an entry; 2 when it is not there.
  int erase(const uint8_t* e);

  // Searches: write the entry found to `out` and set *found; fill *h with its position.
  int seek_ge(const uint8_t* probe, uint8_t* out, bool* found, Hint* h);  // first entry >= probe
  int seek_gt(const uint8_t* probe, uint8_t* out, bool* found, Hint* h);  // first entry > probe
  int seek_lt(const uint8_t* probe, uint8_t* out, bool* found, Hint* h);  // last entry < probe
  int first(uint8_t* out, bool* found, Hint* h);
  int last(uint8_t* out, bool* found, Hint* h);
  // Step from a valid hint (false in *used when the hint is stale; nothing is done then).
  int step(int dir, Hint* h, uint8_t* out, bool* found, bool* used);

  // Walk every entry in order (for the checker). fn returns false to stop.
  template <class Fn>
  int scan(Fn fn);
  // Check the page structure: separators bound their subtrees, leaf chain is consistent, count matches.
  int check(std::string* why);

 private:
  struct Path {
    uint32_t page;
    int idx;  // child index taken
  };
  int write_header();
  int alloc_page(uint32_t* page, PageRef* pg);
  int free_page(uint32_t page);
  int descend(const uint8_t* probe, bool strict, std::vector<Path>* path, PageRef* leaf, uint32_t* leaf_page);
  int remove_child(std::vector<Path>& path, int level);
  int leaf_at(uint32_t page, int idx, int dir, uint8_t* out, bool* found, Hint* h);
  int check_node(uint32_t page, uint32_t level, const uint8_t* lo, const uint8_t* hi, uint64_t* n,
                 std::vector<uint32_t>* leaves, std::string* why);
  uint32_t leaf_cap() const { return (cache_->page_size() - 12) / w_; }
  uint32_t node_cap() const { return (cache_->page_size() - 12) / (w_ + 4); }

  PageCache* cache_;
  int file_;
  long field_;
  uint32_t w_;
  uint32_t hash_ = 0;
  uint32_t root_ = 0, height_ = 0, count_ = 0, free_ = 0, hw_ = 0;
  uint64_t version_ = 0;
};

uint64_t btree_next_version();

template <class Fn>
int BTree::scan(Fn fn) {
  bool found;
  Hint h;
  std::vector<uint8_t> e(w_);
  int st = first(e.data(), &found, &h);
  while (st == 0 && found) {
    if (!fn(e.data())) return 0;
    bool used;
    st = step(1, &h, e.data(), &found, &used);
    if (st == 0 && !used) st = seek_gt(std::vector<uint8_t>(e).data(), e.data(), &found, &h);
  }
  return st;
}

}  // namespace tavrel::rec
