#include "db/rec/page_cache.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "db/rec/io.h"

namespace tavrel::rec {
namespace {
size_t g_alloc_cap = 0;

// The commit's page diff compares whole words; a call to memcmp per word cost more than the compare.
inline uint64_t word(const uint8_t* p) {
  uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}
inline bool same_line(const uint8_t* a, const uint8_t* b) {
  uint64_t x = 0;
  for (int k = 0; k < 64; k += 8) x |= word(a + k) ^ word(b + k);
  return x == 0;
}
}  // namespace

void PageCache::set_alloc_cap(size_t bytes) { g_alloc_cap = bytes; }

void FrameMap::reserve(size_t n) {
  size_t cap = 16;
  while (cap < 2 * n) cap <<= 1;
  if (cap <= keys_.size()) return;
  std::vector<uint64_t> ok = std::move(keys_);
  std::vector<int> ov = std::move(vals_);
  keys_.assign(cap, kEmpty);
  vals_.assign(cap, -1);
  mask_ = cap - 1;
  size_ = 0;
  for (size_t i = 0; i < ok.size(); i++)
    if (ok[i] != kEmpty) insert(ok[i], ov[i]);
}

void FrameMap::insert(uint64_t key, int val) {
  if (2 * (size_ + 1) > keys_.size()) reserve(size_ + 1);
  size_t i = hash(key);
  while (keys_[i] != kEmpty && keys_[i] != key) i = (i + 1) & mask_;
  if (keys_[i] == kEmpty) size_++;
  keys_[i] = key;
  vals_[i] = val;
}

void FrameMap::erase(uint64_t key) {
  size_t i = hash(key);
  while (keys_[i] != key) {
    if (keys_[i] == kEmpty) return;
    i = (i + 1) & mask_;
  }
  // Backward-shift the following run so that every key stays reachable from its home slot.
  size_t j = i;
  while (true) {
    j = (j + 1) & mask_;
    if (keys_[j] == kEmpty) break;
    size_t home = hash(keys_[j]);
    if (((j - home) & mask_) >= ((j - i) & mask_)) {
      keys_[i] = keys_[j];
      vals_[i] = vals_[j];
      i = j;
    }
  }
  keys_[i] = kEmpty;
  vals_[i] = -1;
  size_--;
}

void FrameMap::clear() {
  std::fill(keys_.begin(), keys_.end(), kEmpty);
  std::fill(vals_.begin(), vals_.end(), -1);
  size_ = 0;
}

PageRef& PageRef::operator=(PageRef&& o) noexcept {
  if (this != &o) {
    release();
    c_ = o.c_;
    frame_ = o.frame_;
    p_ = o.p_;
    o.c_ = nullptr;
  }
  return *this;
}

void PageRef::release() {
  if (c_) c_->frames_[frame_].pins--;
  c_ = nullptr;
}

int PageRef::dirty() { return c_->mark_dirty(frame_); }

PageCache::~PageCache() {
  for (uint8_t* b : blocks_) std::free(b);
  for (Frame& f : frames_) std::free(f.before);
  for (uint8_t* b : spare_befores_) std::free(b);
}

int PageCache::allocate(size_t n) {
  if (n == 0) return S_NOMEMORY;
  if (g_alloc_cap && n * ps_ > g_alloc_cap) return S_NOMEMORY;
  auto* block = static_cast<uint8_t*>(std::malloc(n * ps_));
  if (!block) return S_NOMEMORY;
  blocks_.push_back(block);
  size_t base = frames_.size();
  frames_.resize(base + n);
  for (size_t i = 0; i < n; i++) frames_[base + i].data = block + i * ps_;
  map_.reserve(frames_.size());
  return 0;
}

int PageCache::add_frame() {
  auto* block = static_cast<uint8_t*>(std::malloc(ps_));
  if (!block) return S_NOMEMORY;
  blocks_.push_back(block);
  frames_.emplace_back();
  frames_.back().data = block;
  return 0;
}

uint8_t* PageCache::new_before() {
  if (!spare_befores_.empty()) {
    uint8_t* b = spare_befores_.back();
    spare_befores_.pop_back();
    return b;
  }
  return static_cast<uint8_t*>(std::malloc(ps_));
}

void PageCache::free_before(Frame& fr) {
  if (fr.before) {
    if (spare_befores_.size() < 256)
      spare_befores_.push_back(fr.before);
    else
      std::free(fr.before);
  }
  fr.before = nullptr;
}

int PageCache::write_frame(int f) {
  Frame& fr = frames_[f];
  int file = (int)(fr.key >> 32);
  uint32_t page = (uint32_t)fr.key;
  CacheFile& cf = (*files_)[file];
  int st = io_write(cf.fd, fr.data, ps_, (uint64_t)page * ps_);
  if (st != 0) return st;
  cf.unsynced = true;
  if (page + 1ull > cf.pages) cf.pages = page + 1ull;
  return 0;
}

// Make frame f free for reuse: write back committed content that is not yet in the file, unmap it.
// (Txn-dirty frames are never chosen here; release_batch turns them into clean ones first.)
int PageCache::evict(int f) {
  Frame& fr = frames_[f];
  if (fr.key == ~0ull) return 0;
  if (commit_pending(fr)) {
    // A commit whose sync was deferred: sync once and write back every committed page, so that the
    // evictions that follow find clean frames instead of each costing a sync.
    int st = write_back();
    if (st != 0) return st;
  }
  if (fr.cdirty) {
    int st = write_frame(f);
    if (st != 0) return st;
    stats_.writebacks++;
  }
  map_.erase(fr.key);
  fr.key = ~0ull;
  fr.from_spill = false;
  fr.cdirty = false;
  return 0;
}

// The cache is (nearly) full of pages changed by the open transaction: release a batch of them. Journaled,
// their images are appended to the journal ("spill") and a later read of such a page comes back from there;
// without the journal they are written to their files. The frames stay mapped, clean, and first in line
// for reuse.
int PageCache::release_batch() {
  size_t n = frames_.size(), want = std::max<size_t>(1, n / 16), done = 0;
  for (size_t step = 0; step < n && done < want; step++) {
    size_t i = (hand_ + step) % n;
    Frame& fr = frames_[i];
    if (fr.pins > 0 || !fr.dirty) continue;
    int file = (int)(fr.key >> 32);
    uint32_t page = (uint32_t)fr.key;
    int st;
    if (journaled_) {
      // The committed content under the change may not be in the file yet: put it there first.
      if (fr.cdirty) {
        CacheFile& cf = (*files_)[file];
        st = journal_->settle();
        if (st == 0) st = io_write(cf.fd, fr.before, ps_, (uint64_t)page * ps_);
        if (st != 0) return st;
        cf.unsynced = true;
        if (page + 1ull > cf.pages) cf.pages = page + 1ull;
        fr.cdirty = false;
      }
      uint64_t at = journal_->end() + 20;
      st = journal_->change((uint16_t)file, (uint64_t)page * ps_, fr.data, ps_);
      if (st != 0) return st;
      spill_[fr.key] = at;
      fr.from_spill = true;
      stats_.spills++;
    } else {
      st = write_frame((int)i);
      if (st != 0) return st;
      stats_.writebacks++;
    }
    fr.dirty = false;
    fr.ref = false;
    ndirty_--;
    free_before(fr);
    done++;
  }
  if (journaled_ && done) {
    int st = journal_->flush();
    if (st != 0) return st;
    failpoint("spill.after_write");
  }
  return 0;
}

int PageCache::victim(int* out) {
  // Clock over unpinned frames that the open transaction has not changed. A page of a deferred commit
  // that is not yet durable may not reach its file, so such frames are passed over as long as others
  // can be had; once the flusher's sync has made their commits durable they are fair game again. When
  // no frame can be had, one sync and a write-back of every committed page make them all clean at
  // once (one sync for many evictions, not one per commit).
  auto scan = [&](bool avoid_committed) {
    const size_t n = frames_.size();
    const uint64_t durable = avoid_committed ? journal_->commits_durable() : ~0ull;
    for (size_t step = 0; step < 2 * n; step++) {
      size_t i = hand_;
      if (++hand_ == n) hand_ = 0;
      Frame& fr = frames_[i];
      if (fr.pins > 0 || fr.dirty || (fr.cdirty && fr.commit > durable)) continue;
      if (fr.key == ~0ull || !fr.ref) {
        *out = (int)i;
        return true;
      }
      fr.ref = false;
    }
    return false;
  };
  for (int round = 0; round < 2; round++) {
    size_t n = frames_.size();
    // Unless nearly all frames hold changes of the open transaction.
    if (ndirty_ * 8 < n * 7 || round > 0) {
      bool unsettled = journal_ && journal_->unsettled();
      if (scan(unsettled)) return 0;
      if (unsettled) {
        int st = write_back();
        if (st != 0) return st;
        if (scan(false)) return 0;
      }
    }
    if (round == 0 && ndirty_ > 0) {
      int st = release_batch();
      if (st != 0) return st;
    }
  }
  int st = add_frame();
  if (st != 0) return st;
  *out = (int)frames_.size() - 1;
  return 0;
}

int PageCache::get(int file, uint32_t page, PageRef* out) {
  uint64_t key = mk(file, page);
  int hit = map_.find(key);
  if (hit >= 0) {
    Frame& fr = frames_[hit];
    fr.pins++;
    fr.ref = true;
    stats_.hits++;
    *out = PageRef(this, hit, fr.data);
    return 0;
  }
  stats_.misses++;
  int f;
  int st = victim(&f);
  if (st == 0) st = evict(f);
  if (st != 0) return st;
  Frame& fr = frames_[f];
  auto sp = in_tx_ ? spill_.find(key) : spill_.end();
  if (sp != spill_.end()) {
    st = journal_->read(sp->second, fr.data, ps_);
    fr.from_spill = true;
  } else {
    CacheFile& cf = (*files_)[file];
    if (page < cf.pages)
      st = io_read(cf.fd, fr.data, ps_, (uint64_t)page * ps_);
    else
      std::memset(fr.data, 0, ps_);
  }
  if (st != 0) return st;
  fr.key = key;
  fr.pins = 1;
  fr.ref = true;
  map_.insert(key, f);
  *out = PageRef(this, f, fr.data);
  return 0;
}

int PageCache::mark_dirty(int f) {
  Frame& fr = frames_[f];
  if (fr.dirty) return 0;
  if (!in_tx_) return -31;
  if (journaled_) {
    if (!journal_->active()) journal_->begin();
    fr.before = new_before();
    if (!fr.before) return S_NOMEMORY;
    std::memcpy(fr.before, fr.data, ps_);
  }
  fr.dirty = true;
  ndirty_++;
  tx_changed_ = true;
  if (!fr.listed) {
    fr.listed = true;
    dirty_list_.push_back(f);
  }
  return 0;
}

void PageCache::tx_begin(bool journaled) {
  in_tx_ = true;
  journaled_ = journaled;
  tx_changed_ = false;
}

int PageCache::tx_commit(bool sync_files_now, bool* applying) {
  *applying = false;
  if (!tx_changed_) {
    in_tx_ = false;
    return 0;
  }
  std::sort(dirty_list_.begin(), dirty_list_.end(),
            [&](int a, int b) { return frames_[a].key < frames_[b].key; });
  int st = 0;
  if (journaled_) {
    // Journal the changed byte ranges of every dirty page, merging ranges closer than an entry header.
    uint64_t before_len = journal_->length();
    for (int f : dirty_list_) {
      Frame& fr = frames_[f];
      if (!fr.dirty) continue;
      int file = (int)(fr.key >> 32);
      uint64_t base = (uint64_t)(uint32_t)fr.key * ps_;
      const uint8_t *now = fr.data, *was = fr.before;
      uint32_t i = 0;
      while (i < ps_ && st == 0) {
        // Skip the unchanged bytes a cache line at a time, then a word, then a byte at a time.
        while (i + 64 <= ps_ && same_line(now + i, was + i)) i += 64;
        while (i + 8 <= ps_ && word(now + i) == word(was + i)) i += 8;
        while (i < ps_ && now[i] == was[i]) i++;
        if (i >= ps_) break;
        // A changed range runs in 8-byte words until more than 24 unchanged bytes follow its last change
        // (a gap that small costs less than another entry header); its end may take a few unchanged
        // bytes of its last word along.
        uint32_t start = i, end = i + 1, clean = 0;
        while (i < ps_) {
          uint32_t w = std::min<uint32_t>(8, ps_ - i);
          if (w == 8 ? word(now + i) != word(was + i) : std::memcmp(now + i, was + i, w) != 0) {
            end = i + w;
            clean = 0;
          } else if ((clean += w) > 24) {
            break;
          }
          i += w;
        }
        i = end;
        st = journal_->change((uint16_t)file, base + start, fr.data + start, end - start);
      }
      if (st != 0) return st;
    }
    st = journal_->commit();
    if (st != 0) return st;
    stats_.syncs++;
    stats_.journal_bytes += journal_->length() - before_len;
    *applying = true;
    failpoint("commit.before_apply");
    // Pages that were spilled and are not dirty in the cache now: copy their image to the file, once the
    // commit is durable.
    if (!spill_.empty() && (st = journal_->settle()) != 0) return st;
    std::vector<uint8_t> tmp(ps_);
    for (auto& [key, at] : spill_) {
      int hit = map_.find(key);
      const uint8_t* img = nullptr;
      if (hit >= 0) {
        if (frames_[hit].dirty) continue;
        img = frames_[hit].data;
      } else {
        st = journal_->read(at, tmp.data(), ps_);
        if (st != 0) return st;
        img = tmp.data();
      }
      int file = (int)(key >> 32);
      uint32_t page = (uint32_t)key;
      CacheFile& cf = (*files_)[file];
      st = io_write(cf.fd, img, ps_, (uint64_t)page * ps_);
      if (st != 0) return st;
      cf.unsynced = true;
      if (page + 1ull > cf.pages) cf.pages = page + 1ull;
    }
  } else {
    *applying = true;
  }
  int n = 0;
  for (int f : dirty_list_) {
    Frame& fr = frames_[f];
    fr.listed = false;
    if (!fr.dirty) continue;
    if (journaled_) {
      // The journal holds the change; the page reaches its file when evicted or at the next checkpoint.
      fr.cdirty = true;
      fr.commit = journal_->commits_written();
    } else {
      st = write_frame(f);
      if (st != 0) return st;
      fr.cdirty = false;
    }
    if (++n == 3) failpoint("commit.mid_apply");
    fr.dirty = false;
    free_before(fr);
  }
  dirty_list_.clear();
  if (!spill_.empty())
    for (Frame& fr : frames_) fr.from_spill = false;
  spill_.clear();
  ndirty_ = 0;
  if (sync_files_now) {
    st = write_back();
    if (st == 0) st = sync_files();
    if (st != 0) return st;
  }
  in_tx_ = false;
  tx_changed_ = false;
  stats_.commits++;
  return 0;
}

int PageCache::tx_abort() {
  int st = 0;
  if (journaled_ && journal_->active()) st = journal_->abort();
  for (Frame& fr : frames_) {
    if (fr.from_spill) {
      // Loaded from the journal: uncommitted content. The committed page is in the file.
      if (fr.key != ~0ull) map_.erase(fr.key);
      fr.key = ~0ull;
      fr.dirty = fr.from_spill = fr.cdirty = false;
      free_before(fr);
    } else if (fr.dirty) {
      // Back to the committed content, which may still be waiting to be written back.
      if (fr.before) std::memcpy(fr.data, fr.before, ps_);
      fr.dirty = false;
      free_before(fr);
    }
    fr.listed = false;
  }
  dirty_list_.clear();
  spill_.clear();
  ndirty_ = 0;
  in_tx_ = false;
  tx_changed_ = false;
  return st;
}

int PageCache::write_back() {
  // Committed pages reach their files only after their commits are durable.
  if (journal_) {
    int st = journal_->settle();
    if (st != 0) return st;
  }
  for (size_t f = 0; f < frames_.size(); f++) {
    Frame& fr = frames_[f];
    if (!fr.cdirty || fr.key == ~0ull) continue;
    // Only committed content goes to a file: under a change of the open transaction, the before-image.
    int file = (int)(fr.key >> 32);
    uint32_t page = (uint32_t)fr.key;
    CacheFile& cf = (*files_)[file];
    int st = io_write(cf.fd, fr.dirty ? fr.before : fr.data, ps_, (uint64_t)page * ps_);
    if (st != 0) return st;
    cf.unsynced = true;
    if (page + 1ull > cf.pages) cf.pages = page + 1ull;
    fr.cdirty = false;
    stats_.writebacks++;
  }
  return 0;
}

int PageCache::sync_files() {
  for (CacheFile& cf : *files_) {
    if (!cf.unsynced) continue;
    int st = io_sync(cf.fd);
    if (st != 0) return st;
    cf.unsynced = false;
  }
  return 0;
}

void PageCache::drop_all() {
  for (Frame& fr : frames_) {
    fr.key = ~0ull;
    fr.dirty = false;
    fr.cdirty = false;
    fr.from_spill = false;
    fr.listed = false;
    free_before(fr);
  }
  map_.clear();
  spill_.clear();
  dirty_list_.clear();
  ndirty_ = 0;
}

}  // namespace tavrel::rec
