#include "db/rec/journal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <algorithm>
#include <map>

#include "db/rec/io.h"

namespace tavrel::rec {
namespace {

void put16(uint8_t* p, uint16_t v) { std::memcpy(p, &v, 2); }
void put32(uint8_t* p, uint32_t v) { std::memcpy(p, &v, 4); }
uint16_t get16(const uint8_t* p) {
  uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}
uint32_t get32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

std::string fmt(const char* f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char* f, ...) {
  char b[1024];
  va_list ap;
  va_start(ap, f);
  vsnprintf(b, sizeof b, f, ap);
  va_end(ap);
  return b;
}

std::string now_text() {
  time_t t = time(nullptr);
  char b[64];
  ctime_r(&t, b);
  return b;
}

}  // namespace

uint16_t tjf_data_checksum(const uint8_t* payload, size_t n) {
  // Eight bytes at a time: the bytes are summed in four 16-bit lanes, which are folded before any can
  // carry into the next (64 words add at most 64 * 510 to a lane).
  constexpr uint64_t kEven = 0x00ff00ff00ff00ffull;
  uint32_t s = 0x1eaf;
  size_t i = 0;
  while (n - i >= 8) {
    uint64_t lanes = 0;
    for (size_t k = 0; k < 64 && n - i >= 8; k++, i += 8) {
      uint64_t v;
      std::memcpy(&v, payload + i, 8);
      lanes += (v & kEven) + ((v >> 8) & kEven);
    }
    s += (uint32_t)((lanes & 0xffff) + ((lanes >> 16) & 0xffff) + ((lanes >> 32) & 0xffff) + (lanes >> 48));
  }
  for (; i < n; i++) s += payload[i];
  return (uint16_t)s;
}

uint16_t tjf_header_checksum(uint16_t len, uint16_t type, uint32_t tx, uint16_t dcs) {
  return (uint16_t)(len + type + tx + dcs + 0x1eaf);
}

SyncPoint::~SyncPoint() {
  if (fd_ >= 0) ::close(fd_);
}

int SyncPoint::sync() {
  std::lock_guard<std::mutex> g(mutex_);
  uint64_t target = written_.load();
  if (synced_.load() >= target) return 0;
  int st = io_sync(fd_);
  if (st == 0) synced_.store(target);
  return st;
}

Journal::~Journal() { close(); }

int Journal::open(const std::string& path, const MsgFn& msg) {
  close();
  path_ = path;
  fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);
  if (fd_ < 0) return S_NOFILE;
  if (::lockf(fd_, F_TLOCK, 0) != 0) {
    msg(2, fmt("Journal \"%s\" is locked by another process\n", path.c_str()));
    ::close(fd_);
    fd_ = -1;
    return S_SYSERR;
  }
  int dup_fd = ::fcntl(fd_, F_DUPFD_CLOEXEC, 0);
  if (dup_fd < 0) {
    ::close(fd_);
    fd_ = -1;
    return S_SYSERR;
  }
  sync_point_ = std::make_shared<SyncPoint>(dup_fd);
  uint64_t size = io_size(fd_);
  if (size < kTjfHeader) {
    // A missing or never-completed journal holds nothing committed: start a fresh one.
    len_ = kTjfHeader;
    tx_ = 0;
    alloc_ = kTjfHeader;
    int st = io_truncate(fd_, 0);
    if (st == 0) st = write_header();
    if (st == 0) st = io_sync(fd_);
    return st;
  }
  uint8_t h[kTjfHeader];
  int st = io_read(fd_, h, sizeof h, 0);
  if (st != 0) {
    msg(2, "Unable to read the tjf header");
    return S_TAFSYNC;
  }
  if (get32(h) != kTjfMagic || get32(h + 4) != 2 || get32(h + 8) < kTjfHeader) {
    msg(2, "Invalid TJF file hdr");
    return S_TAFSYNC;
  }
  len_ = get32(h + 8);
  tx_ = get32(h + 16);
  uint32_t tx2 = get32(h + 20);
  if ((int32_t)(tx2 - tx_) > 0) tx_ = tx2;
  alloc_ = size;
  return 0;
}

void Journal::close() {
  settle();
  sync_point_.reset();
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  active_ = false;
  in_file_ = false;
  buf_.clear();
}

int Journal::write_header() {
  uint8_t h[kTjfHeader] = {};
  put32(h, kTjfMagic);
  put32(h + 4, 2);
  put32(h + 8, (uint32_t)len_);
  put32(h + 16, tx_);
  put32(h + 20, tx_);
  return io_write(fd_, h, sizeof h, 0);
}

void Journal::put_entry(uint16_t type, const uint8_t* payload, size_t n) {
  size_t at = buf_.size();
  uint16_t len = (uint16_t)(12 + n);
  buf_.resize(at + len + (len & 1));
  uint8_t* e = buf_.data() + at;
  uint16_t dcs = tjf_data_checksum(payload, n);
  put32(e, cur_);
  put16(e + 4, len);
  put16(e + 6, type);
  put16(e + 8, dcs);
  put16(e + 10, tjf_header_checksum(len, type, cur_, dcs));
  if (n) std::memcpy(e + 12, payload, n);
  if (len & 1) e[len] = 0;
}

void Journal::begin() {
  tx_ = tx_ + 1 == 0 ? 1 : tx_ + 1;
  cur_ = tx_;
  active_ = true;
  in_file_ = false;
  uint8_t p[4];
  put32(p, (uint32_t)time(nullptr));
  put_entry(TJF_START, p, 4);
}

int Journal::change(uint16_t slot, uint64_t off, const uint8_t* data, size_t n) {
  while (n > 0) {
    size_t k = n < kMaxChangeData ? n : kMaxChangeData;
    size_t at = buf_.size();
    uint16_t len = (uint16_t)(20 + k);
    buf_.resize(at + len + (len & 1));
    uint8_t* e = buf_.data() + at;
    put32(e + 12, (uint32_t)off);
    put16(e + 16, slot);
    put16(e + 18, (uint16_t)(off >> 32));
    std::memcpy(e + 20, data, k);
    uint16_t dcs = tjf_data_checksum(e + 12, 8 + k);
    put32(e, cur_);
    put16(e + 4, len);
    put16(e + 6, TJF_ENTRY_CHANGE);
    put16(e + 8, dcs);
    put16(e + 10, tjf_header_checksum(len, TJF_ENTRY_CHANGE, cur_, dcs));
    if (len & 1) e[len] = 0;
    off += k;
    data += k;
    n -= k;
  }
  if (buf_.size() >= (1u << 20)) return flush();
  return 0;
}

// Keep zeroed, synced space ahead of the end of the journal, so that a commit's data sync overwrites
// blocks that already exist and has no file-size or allocation change to make durable. With deferred
// durability the commits' syncs run on the flusher, not on the committing thread, and the journal is
// only appended to: zeroing ahead would add a MiB of writes and a sync to the committer every few
// dozen commits, to spare the flusher's syncs a change of size.
int Journal::reserve(uint64_t end) {
  if (deferred_ || end <= alloc_) return 0;
  uint64_t target = (end + kReserve) / kReserve * kReserve;
  static const std::vector<uint8_t> zeros(64 * 1024, 0);
  for (uint64_t at = alloc_; at < target; at += zeros.size()) {
    int st = io_write(fd_, zeros.data(), std::min<uint64_t>(zeros.size(), target - at), at);
    if (st != 0) return st;
  }
  int st = io_sync(fd_);
  if (st != 0) return st;
  alloc_ = target;
  return 0;
}

int Journal::flush() {
  if (buf_.empty()) return 0;
  int rs = reserve(len_ + buf_.size());
  if (rs != 0) return rs;
  failpoint("tjf.flush");
  if (failpoint_torn("tjf.torn")) {
    io_write(fd_, buf_.data(), buf_.size() / 2, len_);
    failpoint("tjf.torn");
  }
  int st = io_write(fd_, buf_.data(), buf_.size(), len_);
  if (st != 0) return st;
  len_ += buf_.size();
  buf_.clear();
  in_file_ = true;
  return write_header();
}

int Journal::commit() {
  put_entry(TJF_ENTRY_COMMIT, nullptr, 0);
  int st = flush();
  failpoint("commit.before_sync");
  if (st == 0 && deferred_) {
    sync_point_->note_written();
  } else if (st == 0) {
    st = io_sync(fd_);
  }
  active_ = false;
  failpoint("commit.after_sync");
  return st;
}

int Journal::abort() {
  // The ABORT entry is appended and written out, without a sync, whether or not anything of the
  // transaction reached the file before.
  put_entry(TJF_ENTRY_ABORT, nullptr, 0);
  int st = flush();
  active_ = false;
  in_file_ = false;
  return st;
}

int Journal::read(uint64_t off, uint8_t* buf, size_t n) { return io_read(fd_, buf, n, off); }

int Journal::truncate() {
  // The checkpoint synced the data files, so no entry is needed any more; commits written but not yet
  // synced become durable through those files.
  len_ = kTjfHeader;
  int st = write_header();
  failpoint("checkpoint.after_header");
  if (st == 0) st = io_truncate(fd_, kTjfHeader);
  if (st == 0) st = io_sync(fd_);
  if (st == 0 && sync_point_) sync_point_->mark_synced();
  alloc_ = kTjfHeader;
  return st;
}

int Journal::sync() {
  int st = io_sync(fd_);
  if (st == 0 && sync_point_) sync_point_->mark_synced();
  return st;
}

int Journal::reload(const MsgFn& msg) {
  uint8_t h[kTjfHeader];
  if (io_read(fd_, h, sizeof h, 0) != 0) {
    msg(2, "Unable to read the tjf header");
    return S_TAFSYNC;
  }
  if (get32(h) != kTjfMagic || get32(h + 4) != 2 || get32(h + 8) < kTjfHeader) {
    msg(2, "Invalid TJF file hdr");
    return S_TAFSYNC;
  }
  len_ = get32(h + 8);
  tx_ = get32(h + 16);
  alloc_ = io_size(fd_);
  return 0;
}

int Journal::set_tx(uint32_t tx) {
  if (len_ != kTjfHeader || active_) return S_TAFSYNC;
  tx_ = tx;
  int st = write_header();
  return st ? st : io_sync(fd_);
}

// ---- TCF --------------------------------------------------------------------------------------------------

int tcf_write(const std::string& path, const std::vector<std::string>& names, const MsgFn& msg) {
  std::vector<uint8_t> img(12);
  for (size_t slot = 0; slot < names.size(); slot++) {
    const std::string& n = names[slot];
    uint16_t len = (uint16_t)(8 + n.size());
    size_t at = img.size();
    img.resize(at + len + (len & 1));
    uint8_t* e = img.data() + at;
    uint32_t cs = 0x1eac + (uint32_t)slot + (uint32_t)n.size();
    for (unsigned char c : n) cs += c;
    put16(e, len);
    put16(e + 2, (uint16_t)slot);
    put16(e + 4, (uint16_t)cs);
    put16(e + 6, (uint16_t)n.size());
    std::memcpy(e + 8, n.data(), n.size());
  }
  put32(img.data(), kTcfMagic);
  put32(img.data() + 4, 1);
  put32(img.data() + 8, (uint32_t)img.size());
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);
  if (fd < 0) {
    msg(2, fmt("Unable to write TCF file \"%s\": %s", path.c_str(), strerror(errno)));
    return S_NOFILE;
  }
  int st = io_write(fd, img.data(), img.size(), 0);
  if (st == 0) st = io_truncate(fd, img.size());
  if (st == 0) st = io_sync(fd);
  ::close(fd);
  if (st != 0) msg(2, fmt("Unable to write TCF file \"%s\": status %d", path.c_str(), st));
  return st;
}

int tcf_read(const std::string& path, std::vector<std::string>* names, const MsgFn& msg) {
  names->clear();
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat sb;
  if (fd >= 0 && (fstat(fd, &sb) != 0 || !S_ISREG(sb.st_mode))) {
    ::close(fd);
    fd = -1;
    errno = EISDIR;
  }
  if (fd < 0) {
    // A missing file names no database file: the journal can never be applied. One that is there but
    // cannot be opened now is no format problem: the journal is kept for the next open.
    const bool missing = errno == ENOENT;
    msg(2, "Invalid TCF file hdr");
    return missing ? S_TAFSYNC : S_NOFILE;
  }
  uint64_t size = io_size(fd);
  std::vector<uint8_t> img(size);
  int st = size ? io_read(fd, img.data(), size, 0) : 0;
  ::close(fd);
  if (st != 0 || size < 12 || get32(img.data()) != kTcfMagic || get32(img.data() + 4) != 1 ||
      get32(img.data() + 8) > size || get32(img.data() + 8) < 12) {
    msg(2, "Invalid TCF file hdr");
    return S_TAFSYNC;
  }
  size_t end = get32(img.data() + 8);
  size_t off = 12;
  while (off < end) {
    if (end - off < 8) {
      msg(2, fmt("TCF entry (0x%08lX), premature EOF", (unsigned long)off));
      return S_TAFSYNC;
    }
    const uint8_t* e = img.data() + off;
    uint16_t len = get16(e), slot = get16(e + 2), cs = get16(e + 4), nlen = get16(e + 6);
    if (len < 8 || off + len > end || nlen != len - 8) {
      msg(2, fmt("TCF entry (0x%08lX), premature EOF", (unsigned long)off));
      return S_TAFSYNC;
    }
    uint32_t sum = 0x1eac + slot + nlen;
    for (int i = 0; i < nlen; i++) sum += e[8 + i];
    if ((uint16_t)sum != cs || slot != names->size()) {
      msg(2, fmt("TCF entry (0x%08lX) checksum", (unsigned long)off));
      return S_TAFSYNC;
    }
    names->emplace_back(reinterpret_cast<const char*>(e + 8), nlen);
    off += len + (len & 1);
  }
  return 0;
}

// ---- roll-forward -----------------------------------------------------------------------------------------

namespace {

struct Change {
  uint64_t pos;  // of the entry in the TJF
  uint16_t len;
  uint32_t tx;
};

std::string aside_name(const std::string& path, uint32_t tx) {
  std::string base = fmt("%s.%x", path.c_str(), tx);
  if (access(base.c_str(), F_OK) != 0) return base;
  for (int i = 1;; i++) {
    std::string n = fmt("%s.%x.%d", path.c_str(), tx, i);
    if (access(n.c_str(), F_OK) != 0) return n;
  }
}

}  // namespace

int tjf_roll_forward(int fd, const std::string& tjf_path, const std::string& tcf_path,
                     const std::function<int(int slot, const std::string& name)>& open_slot, const MsgFn& msg) {
  msg(0, fmt("Rollforward recovery using \"%s\" started %s", tjf_path.c_str(), now_text().c_str()));
  uint32_t hdr_tx = 0;
  auto fail = [&](int st, bool rename_aside) {
    msg(2, fmt("Rollforward recovery using \"%s\" failed %s: status %d", tjf_path.c_str(), now_text().c_str(), st));
    if (rename_aside) {
      std::string to = aside_name(tjf_path, hdr_tx);
      if (::rename(tjf_path.c_str(), to.c_str()) == 0)
        msg(1, fmt("Journal kept as \"%s\"\n", to.c_str()));
    }
    return st;
  };
  uint8_t h[kTjfHeader];
  if (io_read(fd, h, sizeof h, 0) != 0) {
    msg(2, "Unable to read the tjf header");
    return fail(S_TAFSYNC, false);
  }
  if (get32(h) != kTjfMagic || get32(h + 4) != 2 || get32(h + 8) < kTjfHeader) {
    msg(2, "Invalid TJF file hdr");
    return fail(S_TAFSYNC, true);
  }
  hdr_tx = get32(h + 16);
  std::vector<std::string> names;
  int st = tcf_read(tcf_path, &names, msg);
  if (st != 0) return fail(st, st == S_TAFSYNC);
  std::vector<int> fds(names.size(), -1);
  for (size_t i = 0; i < names.size(); i++) {
    fds[i] = open_slot((int)i, names[i]);
    if (fds[i] < 0) {
      msg(2, fmt("tjf files tcf_slot %d out of range (0x%08X)", (int)i, 0u));
      return fail(S_TAFSYNC, true);
    }
  }

  // Pass 1: find the committed transactions and the change entries.
  uint64_t end = std::min<uint64_t>(get32(h + 8), io_size(fd));
  std::vector<Change> changes;
  std::map<uint32_t, int> state;  // tx -> 1 started, 2 committed, 3 aborted
  uint32_t cur = 0, last_start = 0;
  bool have_start = false, files_seen = false;
  uint64_t off = kTjfHeader;
  std::vector<uint8_t> payload;
  bool torn = false;
  while (off < end) {
    uint8_t e[12];
    if (end - off < 12 || io_read(fd, e, 12, off) != 0) {
      torn = true;
      break;
    }
    uint32_t tx = get32(e);
    uint16_t len = get16(e + 4), type = get16(e + 6), dcs = get16(e + 8), hcs = get16(e + 10);
    if (len < 12 || off + len > end) {
      torn = true;
      break;
    }
    if (tjf_header_checksum(len, type, tx, dcs) != hcs) {
      msg(1, fmt("tjf hdr checksum error (0x%08lX)\n", (unsigned long)off));
      torn = true;
      break;
    }
    payload.resize(len - 12);
    if (len > 12 && io_read(fd, payload.data(), len - 12, off + 12) != 0) {
      torn = true;
      break;
    }
    if (tjf_data_checksum(payload.data(), payload.size()) != dcs) {
      msg(1, fmt("tjf entry checksum error (0x%08lX)\n", (unsigned long)off));
      torn = true;
      break;
    }
    bool stop = false;
    switch (type) {
      case TJF_START:
        if (len != 16 || tx == 0) {
          msg(1, fmt("Suspicious tjf entry looking for changes (0x%08lX)", (unsigned long)off));
          stop = true;
        } else if (state.count(tx)) {
          msg(1, fmt("Duplicate TJF_START found (0x%08X) for 0x%08X", (unsigned)off, tx));
          stop = true;
        } else if (have_start && (int32_t)(tx - last_start) <= 0) {
          msg(1, fmt("Suspicious tjf entry looking for changes (0x%08lX)", (unsigned long)off));
          stop = true;
        } else {
          state[tx] = 1;
          cur = tx;
          last_start = tx;
          have_start = true;
          files_seen = false;
        }
        break;
      case TJF_ENTRY_CHANGE: {
        if (cur == 0 || tx != cur) {
          msg(1, fmt("TJF_START missing for TJF_ENTRY_CHANGE (0x%08X)", (unsigned)off));
          stop = true;
          break;
        }
        if (len < 20) {
          msg(1, fmt("Suspicious tjf entry looking for changes (0x%08lX)", (unsigned long)off));
          stop = true;
          break;
        }
        uint16_t slot = get16(payload.data() + 4);
        if (slot >= fds.size()) {
          msg(2, fmt("Invalid file_no in tjf change entry (0x%08X)", (unsigned)off));
          return fail(S_TAFSYNC, true);
        }
        changes.push_back({off, len, tx});
        break;
      }
      case TJF_ENTRY_FILES: {
        if (cur == 0 || tx != cur) {
          msg(1, fmt("TJF_START missing for TJF_ENTRY_FILES (0x%08X)\n", (unsigned)off));
          stop = true;
          break;
        }
        if (files_seen) {
          msg(1, fmt("Duplicate TJF_ENTRY_FILES found (0x%08X) for 0x%08X", (unsigned)off, tx));
          stop = true;
          break;
        }
        files_seen = true;
        uint16_t count = payload.size() >= 2 ? get16(payload.data()) : 0xffff;
        if (payload.size() < 2 || count > fds.size() || payload.size() != 2u + 2u * count) {
          msg(2, fmt("Too many files in TJF_ENTRY_FILES found (0x%08X)", (unsigned)off));
          return fail(S_TAFSYNC, true);
        }
        for (int i = 0; i < count; i++) {
          uint16_t s = get16(payload.data() + 2 + 2 * i);
          if (s >= fds.size()) {
            msg(2, fmt("tjf files tcf_slot %d out of range (0x%08X)", s, (unsigned)off));
            return fail(S_TAFSYNC, true);
          }
        }
        break;
      }
      case TJF_ENTRY_COMMIT:
      case TJF_ENTRY_ABORT:
        if (cur == 0 || tx != cur || len != 12) {
          msg(1, fmt("TJF_START missing for TJF_ENTRY_COMMIT/ABORT (0x%08X)", (unsigned)off));
          stop = true;
          break;
        }
        state[tx] = type == TJF_ENTRY_COMMIT ? 2 : 3;
        cur = 0;
        break;
      default:
        msg(1, fmt("Unknown tjf entry type (0x%08X)\n", (unsigned)off));
        stop = true;
    }
    if (stop) {
      torn = true;
      break;
    }
    off += len + (len & 1);
  }
  if (torn)
    msg(1, fmt("Ignoring remaining bytes (0x%08lX) of TJF\n", (unsigned long)off));

  // Pass 2: apply the changes of committed transactions, in journal order.
  std::vector<bool> written(fds.size(), false);
  std::vector<uint8_t> data;
  for (const Change& c : changes) {
    if (state[c.tx] != 2) continue;
    data.resize(c.len - 12);
    st = io_read(fd, data.data(), data.size(), c.pos + 12);
    if (st != 0) return fail(st, false);
    uint16_t slot = get16(data.data() + 4);
    uint64_t foff = (uint64_t)get32(data.data()) | ((uint64_t)get16(data.data() + 6) << 32);
    st = io_write(fds[slot], data.data() + 8, data.size() - 8, foff);
    if (st != 0) return fail(st, false);
    written[slot] = true;
    failpoint("recover.apply");
  }
  for (size_t i = 0; i < fds.size(); i++)
    if (written[i] && (st = io_sync(fds[i])) != 0) return fail(st, false);

  // Empty the journal, keeping the transaction counter.
  uint32_t tx_keep = hdr_tx;
  if (have_start && (int32_t)(last_start - tx_keep) > 0) tx_keep = last_start;
  uint8_t nh[kTjfHeader] = {};
  put32(nh, kTjfMagic);
  put32(nh + 4, 2);
  put32(nh + 8, kTjfHeader);
  put32(nh + 16, tx_keep);
  put32(nh + 20, tx_keep);
  st = io_write(fd, nh, sizeof nh, 0);
  if (st == 0) st = io_truncate(fd, kTjfHeader);
  if (st == 0) st = io_sync(fd);
  if (st != 0) return fail(st, false);
  msg(0, fmt("Rollforward recovery using \"%s\" finished %s", tjf_path.c_str(), now_text().c_str()));
  return 0;
}

}  // namespace tavrel::rec
