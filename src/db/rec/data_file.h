// data_file.h: one data file per record type, of fixed-size slots addressed by DBA.
//
// DBA = record index << 26 | slot, slot >= 1, so 0 is never a valid DBA and the top bit stays free for the
// dbid flag of the layers above. Slot s lies on page 1 + (s-1)/slots_per_page at ((s-1)%slots_per_page) *
// slot_size; a DBA is therefore pure arithmetic and stays the same for the life of its row.
//
// Page 0 is the header (u32 words): magic "TVRD", version 1, record index, page size, slot size, slots per
// page, high-water slot, free-list head, live rows, schema hash. The slot layout is described in schema.h.
//
// Slots freed by a transaction are only linked into the free list when it commits (release_pending), so a
// DBA is never reused while the transaction that deleted its row could still hold a reference to it.
// The in-memory copies of the header words are reloaded after an abort.
#pragma once

#include <cstdint>
#include <vector>

#include "db/rec/page_cache.h"
#include "db/rec/schema.h"

namespace tavrel::rec {

constexpr uint32_t kDataMagic = 0x44525654;  // "TVRD"
constexpr int kSlotShift = 26;
constexpr uint32_t kSlotMask = (1u << kSlotShift) - 1;

enum : uint8_t { SLOT_UNUSED = 0, SLOT_LIVE = 1, SLOT_FREE = 2 };

class DataFile {
 public:
  DataFile(PageCache* cache, int file, const RecDesc* rec) : cache_(cache), file_(file), rec_(rec) {}
  // Write a fresh header (file must be empty).
  int create(uint32_t hash);
  // Read and check the header: -21 on a schema or geometry mismatch.
  int load(uint32_t hash);
  int reload() { return load(hash_); }

  const RecDesc* rec() const { return rec_; }
  uint32_t high_water() const { return hw_; }
  uint32_t live() const { return live_; }
  uint32_t free_head() const { return free_; }
  uint32_t slots_per_page() const { return spp_; }

  // Pin the page of `slot` and point *p at the slot. The slot must be 1..high_water.
  int slot(uint32_t slot, PageRef* pg, uint8_t** p);
  // Take a slot for a new row (free list first, then the high-water mark). The slot is zeroed, live.
  int alloc(uint32_t* slot, PageRef* pg, uint8_t** p);
  // Mark a slot free; it joins the free list at commit.
  int release(uint32_t slot);
  // Link the slots released by the current transaction into the free list (at commit).
  int release_pending();
  void drop_pending() { pending_.clear(); }

 private:
  int write_header();
  PageCache* cache_;
  int file_;
  const RecDesc* rec_;
  uint32_t hash_ = 0;
  uint32_t spp_ = 0;
  uint32_t hw_ = 0, free_ = 0, live_ = 0;
  std::vector<uint32_t> pending_;
};

}  // namespace tavrel::rec
