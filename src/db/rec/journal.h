// journal.h: the transaction journal file (TJF), the transaction control file (TCF) and roll-forward.
//
// TJF format (little-endian):
//   header, 28 bytes at offset 0: u32 magic 0xc0c01eaf, u32 version 2, u32 file length (the end of the valid
//   entries; 28 when empty), u32 0, u32 last issued transaction number, u32 the same number again, u32 0.
//   entries from offset 28, each starting on an even offset, with a 12-byte header:
//     u32 transaction number (0 never used; the counter wraps from 0xffffffff to 1)
//     u16 entry length, header included (a pad byte to the next even offset is not counted)
//     u16 type: 1 START, 2 CHANGE, 3 FILES, 4 COMMIT, 5 ABORT
//     u16 data checksum: 0x1eaf + sum of the payload bytes, cut to 16 bits
//     u16 header checksum: length + type + transaction number + data checksum + 0x1eaf, cut to 16 bits
//   START   payload u32 time()                                  (length 16)
//   CHANGE  payload u32 file offset (low 32 bits), u16 file slot, u16 slot-local number (the high 16 bits
//           of the file offset), then the bytes as they stand after the change   (length 20 + bytes)
//   FILES   payload u16 count, then count u16 file slots (never written by this engine; checked on read)
//   COMMIT, ABORT: no payload (length 12)
// A transaction's entries are contiguous: START, CHANGEs, then COMMIT or ABORT. Transaction numbers rise
// strictly along the journal (in 32-bit serial arithmetic), which roll-forward checks, so entries of an
// earlier cycle can never be taken for new ones.
//
// TCF format: header of 12 bytes: u32 magic 0xc0c01eac, u32 version 1, u32 file length; then one entry per
// database file: u16 entry length, u16 file slot, u16 checksum (0x1eac + slot + name length + sum of name
// bytes, cut to 16 bits), u16 name length, the file's base name, a pad byte to an even length.
//
// Space beyond the header length is kept zeroed ahead of use (in 1 MiB steps, synced once), so a
// commit's sync rewrites existing blocks only; with deferred durability (below) the journal is appended
// to instead. Readers stop at the header length.
//
// Protocol: commit appends COMMIT and makes the journal durable with one data sync; only then are the data
// and key files written (through the OS, without a sync). A checkpoint syncs every file written since the
// last one, then empties the journal (header length 28, truncate, sync). Roll-forward at open reapplies
// every CHANGE of every transaction that has a COMMIT, in journal order, which is idempotent.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tavrel::rec {

constexpr uint32_t kTjfMagic = 0xc0c01eaf;
constexpr uint32_t kTcfMagic = 0xc0c01eac;
constexpr uint32_t kTjfHeader = 28;
constexpr uint64_t kTjfCheckpointLimit = 0x10000000;
enum : uint16_t { TJF_START = 1, TJF_ENTRY_CHANGE = 2, TJF_ENTRY_FILES = 3, TJF_ENTRY_COMMIT = 4, TJF_ENTRY_ABORT = 5 };
constexpr size_t kMaxChangeData = 65535 - 20;

// Where messages go: level 0 information, 1 warning, 2 error.
using MsgFn = std::function<void(int level, const std::string& text)>;

// Deferred durability. With deferral on, a commit writes its entries and COMMIT but does not sync the
// journal; the commit counts as written. Its data sync comes later, from whichever is first:
//   - SyncPoint::sync() from any thread (the database layer's flusher, within its delay);
//   - settle(), which the page cache calls before committed pages are written to their files (a data
//     file never holds a change whose COMMIT is not durable), and every checkpoint and close.
// A killed process loses nothing (the entries are in the file); a power loss can take the commits not
// yet synced, whole, never part of one.
class SyncPoint {
 public:
  explicit SyncPoint(int fd) : fd_(fd) {}
  ~SyncPoint();
  SyncPoint(const SyncPoint&) = delete;
  SyncPoint& operator=(const SyncPoint&) = delete;
  // Makes every commit written so far durable. Safe from any thread, without the engine's caller lock;
  // it syncs its own descriptor of the journal, so it stays valid after the journal is closed.
  int sync();
  bool pending() const { return synced_.load() < written_.load(); }
  void note_written() { written_.fetch_add(1); }
  // Commits are numbered from 1 in the order they were written; every commit up to synced() is durable.
  uint64_t written() const { return written_.load(); }
  uint64_t synced() const { return synced_.load(); }
  // Everything written so far is durable by other means (a sync of the journal, or a checkpoint).
  void mark_synced() {
    std::lock_guard<std::mutex> g(mutex_);
    synced_.store(written_.load());
  }

 private:
  int fd_;
  std::mutex mutex_;  // one data sync at a time; guards nothing else
  std::atomic<uint64_t> written_{0}, synced_{0};
};

class Journal {
 public:
  ~Journal();
  // Open (creating an empty journal when the file is missing or shorter than a header) and lock it
  // against other processes. *valid_len is the header's length word, *tx the last issued number.
  int open(const std::string& path, const MsgFn& msg);
  void close();
  const std::string& path() const { return path_; }
  uint64_t length() const { return len_; }
  bool needs_recovery() const { return len_ > kTjfHeader; }
  uint32_t last_tx() const { return tx_; }

  // Transactions. begin() issues the next number and buffers START.
  void begin();
  bool active() const { return active_; }
  uint32_t current_tx() const { return cur_; }
  // Buffer CHANGE entries for `n` bytes at `off` of the file in `slot` (split when longer than one entry).
  int change(uint16_t slot, uint64_t off, const uint8_t* data, size_t n);
  // Where the next entry will start in the file.
  uint64_t end() const { return len_ + buf_.size(); }
  // Write the buffer at the end of the file and advance the header (no sync).
  int flush();
  // COMMIT, write out, one data sync.
  int commit();
  // ABORT, written out with whatever of the transaction is still buffered; no sync.
  int abort();
  // Read bytes back from the journal (spilled page images).
  int read(uint64_t off, uint8_t* buf, size_t n);
  // Empty the journal: header length 28, truncate to 28, sync.
  int truncate();
  int sync();
  int fd() const { return fd_; }
  // Deferred durability (see SyncPoint). settle() syncs when a written commit is not yet durable.
  void set_deferred(bool on) { deferred_ = on; }
  int settle() { return unsettled() ? sync_point_->sync() : 0; }
  bool unsettled() const { return sync_point_ && sync_point_->pending(); }
  // The number of the last commit written, and the last one known durable (see SyncPoint); without
  // deferral both stay 0, every commit being durable when it returns.
  uint64_t commits_written() const { return sync_point_ ? sync_point_->written() : 0; }
  uint64_t commits_durable() const { return sync_point_ ? sync_point_->synced() : 0; }
  std::shared_ptr<SyncPoint> sync_point() const { return sync_point_; }
  // Re-read the header after roll-forward changed the file.
  int reload(const MsgFn& msg);

  // Testing: set the last issued transaction number in the header (journal must be empty).
  int set_tx(uint32_t tx);

 private:
  int write_header();
  int reserve(uint64_t end);
  void put_entry(uint16_t type, const uint8_t* payload, size_t n);
  int fd_ = -1;
  std::string path_;
  uint64_t len_ = kTjfHeader;
  uint64_t alloc_ = kTjfHeader;  // file length: zeroed, synced space beyond len_
  static constexpr uint64_t kReserve = 1 << 20;
  uint32_t tx_ = 0;
  uint32_t cur_ = 0;
  bool active_ = false;
  bool in_file_ = false;  // part of the current transaction has been written to the file
  bool deferred_ = false;
  std::shared_ptr<SyncPoint> sync_point_;  // made at open over a duplicate of fd_
  std::vector<uint8_t> buf_;
};

// Rewrite the TCF: header plus one entry for each (slot, base name). A file that cannot be written is
// reported ("Unable to write TCF file ...") and answers -905 or the write's status.
int tcf_write(const std::string& path, const std::vector<std::string>& names, const MsgFn& msg);
// Read the TCF; messages and -925 on a bad header or entry, or when the file is missing. A TCF that is
// there but cannot be opened (or is no regular file) gives "Invalid TCF file hdr" and -905, and
// roll-forward then keeps the journal where it is for the next open.
int tcf_read(const std::string& path, std::vector<std::string>* names, const MsgFn& msg);

// Roll forward the journal at `tjf_path`. `open_slot` returns a writable fd for a file slot (or -1 when
// the slot is unknown); the caller owns the fds. Reports the started/finished/failed messages. On a format
// error (-925) the journal is renamed aside ("%s.%x", or "%s.%x.%d" when that name exists). On success the
// journal is emptied.
// `tjf_fd` is the journal's open (and locked) descriptor; it stays open.
int tjf_roll_forward(int tjf_fd, const std::string& tjf_path, const std::string& tcf_path,
                     const std::function<int(int slot, const std::string& name)>& open_slot, const MsgFn& msg);

// Checksums as the format defines them.
uint16_t tjf_data_checksum(const uint8_t* payload, size_t n);
uint16_t tjf_header_checksum(uint16_t len, uint16_t type, uint32_t tx, uint16_t dcs);

}  // namespace tavrel::rec
