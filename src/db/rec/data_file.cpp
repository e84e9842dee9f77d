#include "db/rec/data_file.h"

#include <cstring>

#include "db/rec/io.h"

namespace tavrel::rec {
namespace {
inline uint32_t rd32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}
inline void wr32(uint8_t* p, uint32_t v) { std::memcpy(p, &v, 4); }
}  // namespace

int DataFile::create(uint32_t hash) {
  hash_ = hash;
  spp_ = cache_->page_size() / rec_->slot_size;
  hw_ = free_ = live_ = 0;
  return write_header();
}

int DataFile::write_header() {
  PageRef pg;
  int st = cache_->get(file_, 0, &pg);
  if (st == 0) st = pg.dirty();
  if (st != 0) return st;
  uint8_t* h = pg.data();
  wr32(h, kDataMagic);
  wr32(h + 4, 1);
  wr32(h + 8, (uint32_t)(rec_->number - 10000));
  wr32(h + 12, cache_->page_size());
  wr32(h + 16, rec_->slot_size);
  wr32(h + 20, spp_);
  wr32(h + 24, hw_);
  wr32(h + 28, free_);
  wr32(h + 32, live_);
  wr32(h + 36, hash_);
  return 0;
}

int DataFile::load(uint32_t hash) {
  hash_ = hash;
  PageRef pg;
  int st = cache_->get(file_, 0, &pg);
  if (st != 0) return st;
  const uint8_t* h = pg.data();
  if (rd32(h) != kDataMagic || rd32(h + 4) != 1 || rd32(h + 8) != (uint32_t)(rec_->number - 10000) ||
      rd32(h + 12) != cache_->page_size() || rd32(h + 16) != rec_->slot_size || rd32(h + 36) != hash)
    return -21;
  spp_ = rd32(h + 20);
  hw_ = rd32(h + 24);
  free_ = rd32(h + 28);
  live_ = rd32(h + 32);
  if (spp_ != cache_->page_size() / rec_->slot_size || hw_ > kSlotMask || free_ > hw_) return -21;
  return 0;
}

int DataFile::slot(uint32_t s, PageRef* pg, uint8_t** p) {
  if (s == 0 || s > hw_) return -6;
  uint32_t page = 1 + (s - 1) / spp_;
  int st = cache_->get(file_, page, pg);
  if (st != 0) return st;
  *p = pg->data() + ((s - 1) % spp_) * rec_->slot_size;
  return 0;
}

int DataFile::alloc(uint32_t* out, PageRef* pg, uint8_t** p) {
  uint32_t s;
  int st;
  if (free_ != 0) {
    s = free_;
    st = slot(s, pg, p);
    if (st != 0) return st;
    if ((*p)[0] != SLOT_FREE) return -910;
    free_ = rd32(*p + 4);
  } else {
    if (hw_ >= kSlotMask) return -900;
    s = hw_ + 1;
    hw_ = s;
    st = slot(s, pg, p);
    if (st != 0) {
      hw_--;
      return st;
    }
  }
  st = pg->dirty();
  if (st != 0) return st;
  std::memset(*p, 0, rec_->slot_size);
  (*p)[0] = SLOT_LIVE;
  live_++;
  *out = s;
  return write_header();
}

int DataFile::release(uint32_t s) {
  PageRef pg;
  uint8_t* p;
  int st = slot(s, &pg, &p);
  if (st == 0) st = pg.dirty();
  if (st != 0) return st;
  std::memset(p, 0, rec_->slot_size);
  p[0] = SLOT_FREE;
  live_--;
  pending_.push_back(s);
  return write_header();
}

int DataFile::release_pending() {
  if (pending_.empty()) return 0;
  for (uint32_t s : pending_) {
    PageRef pg;
    uint8_t* p;
    int st = slot(s, &pg, &p);
    if (st == 0) st = pg.dirty();
    if (st != 0) return st;
    wr32(p + 4, free_);
    free_ = s;
  }
  pending_.clear();
  return write_header();
}

}  // namespace tavrel::rec
