// page_cache.h: the engine's page cache over the data and key files.
//
// A fixed array of frames (d_setpages: data + overflow pages), a hash map (file, page) -> frame, and clock
// eviction. A page is pinned while a PageRef holds it; a pinned frame is never evicted, and if every frame
// is pinned the cache grows by one frame rather than fail (only a single call's working set can do that).
//
// Transactions (one at a time):
// - No-steal: a page changed by the open transaction ("txn-dirty") never reaches its data or key file before
//   the transaction commits, so the files always hold the last committed state.
// - When the frame of a txn-dirty page must be reused, its whole image is appended to the journal ("spill")
//   and a later read of that page comes back from the journal. Transactions may therefore be far larger
//   than the cache.
// - Commit journals the changed byte ranges of every txn-dirty page (against a before-image taken when the
//   page was first changed) and makes the journal durable with one sync. The pages then stay in the cache as
//   committed-dirty: they reach their files when their frame is reused or at the next checkpoint
//   (write_back), never later than the journal is emptied. Spilled pages are copied to their files at commit.
// - Abort puts every txn-dirty frame back to its before-image (the committed content, which may itself be
//   waiting to be written back), drops frames read back from the journal, and forgets the spill map. Before a
//   txn-dirty page whose committed content is not yet in its file is spilled, that content is written there.
// - With the journal off (a bulk load), dirty pages are written back when evicted and at commit, and abort
//   is refused (-925).
// Single-threaded: the engine's caller serialises all calls.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "db/rec/journal.h"

namespace tavrel::rec {

struct CacheFile {
  int fd = -1;
  std::string name;  // base name
  std::string path;
  uint64_t pages = 0;      // pages present in the file
  bool unsynced = false;   // written since the last checkpoint
};

class PageCache;

// Open-addressing map (file, page) key -> frame index, linear probing with backward-shift deletion.
// Sized to stay at most half full.
class FrameMap {
 public:
  static constexpr uint64_t kEmpty = ~0ull;
  void reserve(size_t n);
  int find(uint64_t key) const {
    for (size_t i = hash(key);; i = (i + 1) & mask_) {
      if (keys_[i] == key) return vals_[i];
      if (keys_[i] == kEmpty) return -1;
    }
  }
  void insert(uint64_t key, int val);
  void erase(uint64_t key);
  void clear();
  size_t size() const { return size_; }

 private:
  size_t hash(uint64_t k) const { return (size_t)((k * 0x9e3779b97f4a7c15ull) >> 32) & mask_; }
  std::vector<uint64_t> keys_{std::vector<uint64_t>(16, kEmpty)};
  std::vector<int> vals_{std::vector<int>(16, -1)};
  size_t mask_ = 15, size_ = 0;
};

// A pinned page. Movable, not copyable.
class PageRef {
 public:
  PageRef() = default;
  PageRef(PageCache* c, int frame, uint8_t* p) : c_(c), frame_(frame), p_(p) {}
  PageRef(PageRef&& o) noexcept : c_(o.c_), frame_(o.frame_), p_(o.p_) { o.c_ = nullptr; }
  PageRef& operator=(PageRef&& o) noexcept;
  PageRef(const PageRef&) = delete;
  PageRef& operator=(const PageRef&) = delete;
  ~PageRef() { release(); }
  void release();
  uint8_t* data() const { return p_; }
  int frame() const { return frame_; }
  explicit operator bool() const { return c_ != nullptr; }
  // Mark the page changed by the current transaction; call before writing to data().
  int dirty();

 private:
  PageCache* c_ = nullptr;
  int frame_ = -1;
  uint8_t* p_ = nullptr;
};

struct CacheStats {
  uint64_t hits = 0, misses = 0, spills = 0, writebacks = 0, commits = 0, journal_bytes = 0, syncs = 0;
};

class PageCache {
 public:
  explicit PageCache(uint32_t page_size) : ps_(page_size) {}
  ~PageCache();
  // Allocate `frames` frames; -904 if the memory cannot be had (or exceeds the test cap).
  int allocate(size_t frames);
  void attach(std::vector<CacheFile>* files, Journal* journal) {
    files_ = files;
    journal_ = journal;
  }
  uint32_t page_size() const { return ps_; }

  // Pin page `page` of file `file` into *out. Pages beyond the end of the file read as zeros.
  int get(int file, uint32_t page, PageRef* out);

  // Transactions.
  void tx_begin(bool journaled);
  bool in_tx() const { return in_tx_; }
  bool journaled() const { return journaled_; }
  bool tx_changed() const { return tx_changed_; }
  // Journal, sync, apply. An error before the journal sync leaves the transaction open (the caller aborts);
  // *applying is set once the journal is durable, after which errors are fatal to the process.
  int tx_commit(bool sync_files, bool* applying);
  int tx_abort();
  // Write every committed page that is still only in the cache to its file (no sync).
  int write_back();
  // Sync every file written since the last checkpoint.
  int sync_files();
  // Forget every cached page (after the files were changed underneath, e.g. by dt_initialize).
  void drop_all();

  const CacheStats& stats() const { return stats_; }
  size_t frames() const { return frames_.size(); }

  // Test hook: refuse allocations of more than `bytes` (0 = no cap).
  static void set_alloc_cap(size_t bytes);

 private:
  friend class PageRef;
  struct Frame {
    uint8_t* data = nullptr;
    uint8_t* before = nullptr;  // before-image while txn-dirty (journaled mode)
    uint64_t key = ~0ull;       // file << 32 | page; ~0 when the frame holds nothing
    int pins = 0;
    bool ref = false;
    bool dirty = false;
    bool cdirty = false;      // holds committed changes not yet written to the file
    uint64_t commit = 0;      // with cdirty: the journal's number of the last commit that changed it
    bool from_spill = false;  // content came from the journal (uncommitted)
    bool listed = false;      // in dirty_list_
  };
  static uint64_t mk(int file, uint32_t page) { return (uint64_t)file << 32 | page; }
  int victim(int* out);
  // Whether the commit that last changed frame `fr` may be behind its journal's last sync.
  bool commit_pending(const Frame& fr) const { return fr.cdirty && journal_ && fr.commit > journal_->commits_durable(); }
  int evict(int f);
  int release_batch();
  int write_frame(int f);
  int mark_dirty(int f);
  void free_before(Frame& fr);
  uint8_t* new_before();
  int add_frame();

  uint32_t ps_;
  std::vector<Frame> frames_;
  std::vector<uint8_t*> blocks_;  // allocations backing frames
  std::vector<uint8_t*> spare_befores_;
  FrameMap map_;
  std::unordered_map<uint64_t, uint64_t> spill_;  // page key -> offset of its image in the journal
  std::vector<int> dirty_list_;
  std::vector<CacheFile>* files_ = nullptr;
  Journal* journal_ = nullptr;
  size_t hand_ = 0;
  size_t ndirty_ = 0;  // frames changed by the open transaction
  bool in_tx_ = false;
  bool journaled_ = true;
  bool tx_changed_ = false;
  CacheStats stats_;
};

}  // namespace tavrel::rec
