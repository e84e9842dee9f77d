// The transaction journal: its exact format, roll-forward of committed transactions, torn and corrupted
// tails, stale entries, malformed files, an abort after a spill and transaction-number wrap. (A spilled
// transaction that commits and is rolled forward: crash_test.cpp.)
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "db/rec/dt.h"
#include "db/rec/io.h"
#include "db/rec/journal.h"
#include "db/rec/page_cache.h"
#include "db/rec/schema.h"
#include "db/rec/test_util.h"

using tavrel::rec::tjf_data_checksum;
using tavrel::rec::tjf_header_checksum;

namespace {

uint32_t u32(const std::string& s, size_t off) {
  uint32_t v;
  memcpy(&v, s.data() + off, 4);
  return v;
}
uint16_t u16(const std::string& s, size_t off) {
  uint16_t v;
  memcpy(&v, s.data() + off, 2);
  return v;
}

struct Entry {
  size_t off;
  uint16_t len, type;
  uint32_t tx;
};

// Parse a well-formed journal image, checking both checksums of every entry.
std::vector<Entry> parse(const std::string& j) {
  std::vector<Entry> out;
  size_t end = u32(j, 8), off = 28;
  while (off < end) {
    Entry e{off, u16(j, off + 4), u16(j, off + 6), u32(j, off)};
    uint16_t dcs = tjf_data_checksum(reinterpret_cast<const uint8_t*>(j.data()) + off + 12, e.len - 12);
    EXPECT_EQ(u16(j, off + 8), dcs) << "data checksum at " << off;
    EXPECT_EQ(u16(j, off + 10), tjf_header_checksum(e.len, e.type, e.tx, dcs)) << "header checksum at " << off;
    out.push_back(e);
    off += e.len + (e.len & 1);
  }
  return out;
}

class Journal : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(dt_opentask(&t), 0);
    ASSERT_EQ(rectest::open_db(t, dir.path()), 0);
  }
  void TearDown() override { dt_closetask(t); }

  // Transaction i: a few rows with keys and set links, and a change to an earlier row.
  void txn(int i, int rows = 3) {
    ASSERT_EQ(dt_trbegin("t", t), 0);
    vns_db_elem e{};
    e.silo_dba = 1;
    e.dbid = 1000 + i;
    ASSERT_EQ(dt_fillnew(VNS_DB_ELEM, &e, t, -1), 0);
    ASSERT_EQ(dt_setor(VNS_ELEM_VER_SET, t, -1), 0);
    for (int r = 0; r < rows; r++) {
      vns_db_ver v{};
      v.silo_dba = 1;
      v.dbid = (uint32_t)(i * 100 + r);
      v.event_sec = (uint32_t)i;
      ASSERT_EQ(dt_fillnew(VNS_DB_VER, &v, t, -1), 0);
      ASSERT_EQ(dt_connect(VNS_ELEM_VER_SET, t, -1), 0);
    }
    if (i > 0) {
      key_silo_dbid k{1, (uint32_t)(1000 + i - 1)};
      ASSERT_EQ(dt_keyfind(VNS_ELEM_KEY, &k, t, -1), 0);
      int32_t co = i;
      ASSERT_EQ(dt_crwrite(VNS_ELEM_CHECKEDOUT, &co, t, -1), 0);
      ASSERT_EQ(dt_keystore(VNS_ELEM_CHECKEDOUT, t, -1), 0);
    }
    ASSERT_EQ(dt_trend(t), 0);
  }

  // Snapshot of the whole directory after a checkpoint (journal empty, files synced).
  std::string snapshot() {
    EXPECT_EQ(dt_syncfiles(t), 0);
    rectest::TempDir* s = new rectest::TempDir;
    snaps.emplace_back(s);
    rectest::copy_dir(dir.path(), s->path());
    return s->path();
  }

  // Reopen after putting back the snapshot's copy of every file the journal `j` changes and writing
  // `journal` (j or a damaged copy of it) as the TJF.
  std::string reopen_with(const std::string& snap, const std::string& journal, const std::string* j = nullptr) {
    if (!j) j = &journal;
    std::set<int> slots;
    for (const Entry& e : parse(*j))
      if (e.type == 2) slots.insert(u16(*j, e.off + 16));
    for (int s : slots) {
      std::string name = file_of_slot(s);
      auto it = snap_cache.find(snap + name);
      if (it == snap_cache.end()) it = snap_cache.emplace(snap + name, rectest::read_file(snap + "/" + name)).first;
      rectest::write_file(dir.file(name), it->second);
    }
    rectest::write_file(dir.file("tavrel_db.tjf"), journal);
    int st = rectest::open_db(t, dir.path(), 512, 64);
    EXPECT_EQ(st, 0);
    std::string why;
    EXPECT_EQ(dt_check(&why, t), 0) << why;
    std::string d = rectest::dump(t);
    dt_crash(t);
    return d;
  }

  static std::string file_of_slot(int s) {
    char b[64];
    if (s < 20)
      snprintf(b, sizeof b, "tavrel_db.d%02d", s);
    else
      snprintf(b, sizeof b, "tavrel_db.k%05ld", tavrel::rec::schema().keys[s - 20].field);
    return b;
  }

  std::map<std::string, std::string> snap_cache;
  // The journal up to its header length (the file keeps zeroed space beyond it).
  std::string journal_image() {
    std::string j = rectest::read_file(dir.file("tavrel_db.tjf"));
    if (j.size() < 28) return j;
    for (size_t i = u32(j, 8); i < j.size(); i++)
      if (j[i] != 0) ADD_FAILURE() << "non-zero byte beyond the journal's end at " << i;
    return j.substr(0, u32(j, 8));
  }

  rectest::TempDir dir;
  DB_TASK* t = nullptr;
  std::vector<std::unique_ptr<rectest::TempDir>> snaps;
};

// The data checksum is 0x1eaf plus the byte sum, cut to 16 bits, at every length and alignment; a run of
// 0xff bytes is the worst case for the word-at-a-time sum.
TEST(JournalChecksum, ByteSumAtEveryLengthAndAlignment) {
  std::vector<uint8_t> buf(9000);
  uint32_t x = 12345;
  for (auto& b : buf) b = (uint8_t)((x = x * 1103515245 + 12345) >> 16);
  auto reference = [](const uint8_t* p, size_t n) {
    uint32_t s = 0x1eaf;
    for (size_t i = 0; i < n; i++) s += p[i];
    return (uint16_t)s;
  };
  for (size_t align = 0; align < 8; align++)
    for (size_t n : {0, 1, 7, 8, 9, 63, 64, 511, 512, 513, 520, 4095, 4096, 8191})
      EXPECT_EQ(tjf_data_checksum(buf.data() + align, n), reference(buf.data() + align, n)) << align << " " << n;
  std::fill(buf.begin(), buf.end(), 0xff);
  EXPECT_EQ(tjf_data_checksum(buf.data(), 8192), (uint16_t)(0x1eaf + 8192 * 255));
}

TEST_F(Journal, FormatOfACommittedTransaction) {
  txn(0);
  txn(1);
  std::string j = journal_image();
  ASSERT_GE(j.size(), 28u);
  EXPECT_EQ(u32(j, 0), 0xc0c01eafu);
  EXPECT_EQ(u32(j, 4), 2u);
  EXPECT_EQ(u32(j, 8), j.size()) << "the header length is the journal's end";
  EXPECT_EQ(rectest::read_file(dir.file("tavrel_db.tjf")).size() % (1 << 20), 0u) << "space is reserved ahead";
  EXPECT_EQ(u32(j, 12), 0u);
  EXPECT_EQ(u32(j, 16), u32(j, 20));
  EXPECT_EQ(u32(j, 24), 0u);
  auto es = parse(j);
  ASSERT_GE(es.size(), 6u);
  // START (16 bytes), CHANGEs, COMMIT per transaction; transaction numbers rise by one.
  uint32_t tx = es[0].tx;
  EXPECT_NE(tx, 0u);
  size_t i = 0;
  for (int n = 0; n < 2; n++, tx++) {
    ASSERT_EQ(es[i].type, 1) << i;
    EXPECT_EQ(es[i].len, 16);
    EXPECT_EQ(es[i].tx, tx);
    i++;
    int changes = 0;
    while (i < es.size() && es[i].type == 2) {
      EXPECT_EQ(es[i].tx, tx);
      EXPECT_GT(es[i].len, 20);
      uint16_t slot = u16(j, es[i].off + 16);
      EXPECT_LT(slot, 39) << "file slot names a database file";
      changes++, i++;
    }
    EXPECT_GT(changes, 0);
    ASSERT_LT(i, es.size());
    EXPECT_EQ(es[i].type, 4);
    EXPECT_EQ(es[i].len, 12);
    EXPECT_EQ(u16(j, es[i].off + 8), 0x1eaf);
    EXPECT_EQ(u16(j, es[i].off + 10), (uint16_t)(tx + 15726)) << "commit header checksum";
    i++;
  }
  EXPECT_EQ(u32(j, 16), tx - 1) << "header holds the last issued number";
  // A checkpoint empties the journal and keeps the counter.
  ASSERT_EQ(dt_syncfiles(t), 0);
  j = rectest::read_file(dir.file("tavrel_db.tjf"));
  EXPECT_EQ(j.size(), 28u) << "a checkpoint truncates the journal";
  EXPECT_EQ(u32(j, 8), 28u);
  EXPECT_EQ(u32(j, 16), tx - 1);
  // The control file names every database file by slot.
  std::string c = rectest::read_file(dir.file("tavrel_db.tcf"));
  EXPECT_EQ(u32(c, 0), 0xc0c01eacu);
  EXPECT_EQ(u32(c, 4), 1u);
  EXPECT_EQ(u32(c, 8), c.size());
  EXPECT_NE(c.find("tavrel_db.d00"), std::string::npos);
  EXPECT_NE(c.find("tavrel_db.k14014"), std::string::npos);
}

TEST_F(Journal, RollForwardAppliesCommittedTransactionsToStaleFiles) {
  txn(0);
  std::string snap = snapshot();
  txn(1);
  txn(2);
  std::string want = rectest::dump(t);
  std::string j = journal_image();
  dt_crash(t);
  rectest::Capture cap;
  EXPECT_EQ(reopen_with(snap, j), want);
  EXPECT_TRUE(cap.contains("Rollforward recovery using \"" + dir.file("tavrel_db.tjf") + "\" started "));
  EXPECT_TRUE(cap.contains("Rollforward recovery using \"" + dir.file("tavrel_db.tjf") + "\" finished "));
  EXPECT_EQ(rectest::read_file(dir.file("tavrel_db.tjf")).size(), 28u) << "journal emptied after recovery";
  // A second open finds nothing to do.
  cap.lines.clear();
  ASSERT_EQ(rectest::open_db(t, dir.path()), 0);
  EXPECT_EQ(rectest::dump(t), want);
  EXPECT_FALSE(cap.contains("Rollforward"));
}

TEST_F(Journal, CutAtEveryByteOfTheLastTransactions) {
  txn(0);
  std::string snap = snapshot();
  std::vector<std::string> want{rectest::dump(t)};
  for (int i = 1; i <= 3; i++) {
    txn(i, 1);
    want.push_back(rectest::dump(t));
  }
  std::string j = journal_image();
  dt_crash(t);
  auto es = parse(j);
  rectest::Capture quiet;
  for (size_t cut = 28; cut <= j.size(); cut++) {
    // Committed = transactions whose COMMIT entry lies wholly before the cut.
    size_t committed = 0;
    for (const Entry& e : es)
      if (e.type == 4 && e.off + e.len <= cut) committed++;
    ASSERT_EQ(reopen_with(snap, j.substr(0, cut), &j), want[committed]) << "cut at " << cut;
  }
}

TEST_F(Journal, FlippedBytesNeverApplyABrokenTransaction) {
  txn(0);
  std::string snap = snapshot();
  std::vector<std::string> want{rectest::dump(t)};
  for (int i = 1; i <= 3; i++) {
    txn(i, 1);
    want.push_back(rectest::dump(t));
  }
  std::string j = journal_image();
  dt_crash(t);
  auto es = parse(j);
  std::mt19937 rng(7);
  for (int trial = 0; trial < 150; trial++) {
    size_t pos = 28 + rng() % (j.size() - 28);
    std::string bad = j;
    bad[pos] = (char)(bad[pos] ^ (1 + rng() % 255));
    // The transaction holding the flipped byte and all after it are dropped; a pad byte changes nothing.
    size_t txi = 0;
    bool in_pad = true;
    for (const Entry& e : es) {
      if (pos >= e.off && pos < e.off + e.len) {
        in_pad = false;
        break;
      }
      if (e.type == 4) txi++;
    }
    ASSERT_EQ(reopen_with(snap, bad, &j), want[in_pad ? 3 : txi]) << "flip at " << pos;
  }
}

TEST_F(Journal, StaleEntriesOfAnEarlierCycleAreNeverApplied) {
  txn(0);
  txn(1);
  std::string old = journal_image();
  std::string snap = snapshot();
  txn(2);
  std::string want = rectest::dump(t);
  std::string j = journal_image();
  dt_crash(t);
  // Old entries after the new ones, covered by the header length: their numbers do not rise.
  std::string planted = j + old.substr(28);
  uint32_t len = (uint32_t)planted.size();
  memcpy(&planted[8], &len, 4);
  rectest::Capture cap;
  EXPECT_EQ(reopen_with(snap, planted, &j), want);
  EXPECT_TRUE(cap.contains("Ignoring remaining bytes"));
  // Old entries beyond the header length are not even read.
  EXPECT_EQ(reopen_with(snap, j + old.substr(28), &j), want);
}

TEST_F(Journal, MalformedJournalOrControlFileFailsTheOpen) {
  txn(0);
  txn(1);
  std::string j = journal_image();
  uint32_t tx = u32(j, 16);
  dt_crash(t);
  rectest::Capture cap;
  std::string bad = j;
  bad[0] ^= 1;
  rectest::write_file(dir.file("tavrel_db.tjf"), bad);
  EXPECT_EQ(rectest::open_db(t, dir.path()), S_TAFSYNC);
  EXPECT_TRUE(cap.contains("Invalid TJF file hdr"));
  // A broken control file: the journal is kept aside under its transaction number.
  rectest::write_file(dir.file("tavrel_db.tjf"), j);
  std::string tcf = rectest::read_file(dir.file("tavrel_db.tcf"));
  tcf[14] ^= 0x40;
  rectest::write_file(dir.file("tavrel_db.tcf"), tcf);
  cap.lines.clear();
  EXPECT_EQ(rectest::open_db(t, dir.path()), S_TAFSYNC);
  EXPECT_TRUE(cap.contains("TCF entry (0x0000000C) checksum")) << (cap.lines.empty() ? "" : cap.lines[0]);
  char aside[64];
  snprintf(aside, sizeof aside, "tavrel_db.tjf.%x", tx);
  EXPECT_EQ(rectest::read_file(dir.file(aside)).substr(0, j.size()), j);
  unlink(dir.file(aside).c_str());
}

TEST_F(Journal, AControlFileThatCannotBeOpenedLosesNothing) {
  txn(0);
  std::string want_before = rectest::dump(t);
  txn(1);
  std::string want = rectest::dump(t);
  std::string j = journal_image();
  dt_crash(t);
  std::string tcf = rectest::read_file(dir.file("tavrel_db.tcf"));
  // In the way of the control file: reported, the open fails, and the journal stays where it is.
  unlink(dir.file("tavrel_db.tcf").c_str());
  ASSERT_EQ(mkdir(dir.file("tavrel_db.tcf").c_str(), 0700), 0);
  rectest::Capture cap;
  EXPECT_EQ(rectest::open_db(t, dir.path()), S_NOFILE);
  EXPECT_TRUE(cap.contains("Invalid TCF file hdr"));
  EXPECT_EQ(rectest::read_file(dir.file("tavrel_db.tjf")).substr(0, j.size()), j) << "the journal is kept";
  // Once it can be read again, the next open replays the journal.
  rmdir(dir.file("tavrel_db.tcf").c_str());
  rectest::write_file(dir.file("tavrel_db.tcf"), tcf);
  ASSERT_EQ(rectest::open_db(t, dir.path()), 0);
  EXPECT_EQ(rectest::dump(t), want);
  EXPECT_NE(want, want_before);
  // With nothing to replay the control file is rewritten at the open; a failure to write it is said.
  ASSERT_EQ(dt_close(t), 0);
  unlink(dir.file("tavrel_db.tcf").c_str());
  ASSERT_EQ(mkdir(dir.file("tavrel_db.tcf").c_str(), 0700), 0);
  cap.lines.clear();
  EXPECT_NE(rectest::open_db(t, dir.path()), 0);
  EXPECT_TRUE(cap.contains("Unable to write TCF file \"" + dir.file("tavrel_db.tcf") + "\"")) << (cap.lines.empty() ? "" : cap.lines[0]);
  rmdir(dir.file("tavrel_db.tcf").c_str());
}

TEST_F(Journal, AbortLeavesNoTraceWhetherOrNotItsPagesSpilled) {
  // An abort entry ends the transaction in the journal, written out (no sync), also when nothing of
  // the transaction had reached the file (only its start entry then precedes it).
  int round = 0;
  for (int rows : {400, 2}) {
    SCOPED_TRACE(rows);
    txn(round++);
    ASSERT_EQ(dt_syncfiles(t), 0);
    std::string before = rectest::dump(t);
    ASSERT_EQ(dt_trbegin("t", t), 0);
    for (int r = 0; r < rows; r++) {
      vns_db_ver v{};
      v.silo_dba = 9;
      v.dbid = (uint32_t)r;
      ASSERT_EQ(dt_fillnew(VNS_DB_VER, &v, t, -1), 0);
    }
    ASSERT_EQ(dt_trabort(t), 0);
    EXPECT_EQ(rectest::dump(t), before);
    std::string j = journal_image();
    auto es = parse(j);
    ASSERT_GE(es.size(), 2u);
    EXPECT_EQ(es.front().type, 1);
    EXPECT_EQ(es.back().type, 5);
    EXPECT_EQ(es.back().tx, es.front().tx);
    EXPECT_EQ(u16(j, es.back().off + 10), (uint16_t)(es.back().tx + 15727));
    if (rows == 2) {
      EXPECT_EQ(es.size(), 2u) << "nothing but the start and the abort";
    }
    // Crash now: recovery must not apply the aborted pages.
    dt_crash(t);
    ASSERT_EQ(rectest::open_db(t, dir.path()), 0);
    EXPECT_EQ(rectest::dump(t), before);
    std::string why;
    EXPECT_EQ(dt_check(&why, t), 0) << why;
  }
}

TEST_F(Journal, TransactionNumberWraps) {
  txn(0);
  ASSERT_EQ(dt_syncfiles(t), 0);
  ASSERT_EQ(dt_set_txnum(0xfffffffeu, t), 0);
  std::string snap = snapshot();
  for (int i = 1; i <= 3; i++) txn(i);
  std::string want = rectest::dump(t);
  std::string j = journal_image();
  dt_crash(t);
  auto es = parse(j);
  std::vector<uint32_t> starts;
  for (const Entry& e : es)
    if (e.type == 1) starts.push_back(e.tx);
  EXPECT_EQ(starts, (std::vector<uint32_t>{0xffffffffu, 1u, 2u})) << "0 is skipped";
  EXPECT_EQ(reopen_with(snap, j), want);
}

// Deferred commits: a page reaches its file only once its commit is durable. While it is not, the
// cache evicts other pages around it; once the journal's sync point has synced that commit, the page
// is evicted like any other, even while a later commit waits for its sync.
TEST(PageCacheDeferred, APageReachesItsFileOnlyAfterItsCommitIsDurable) {
  using namespace tavrel::rec;
  rectest::TempDir dir;
  constexpr uint32_t kPs = 512;
  std::vector<CacheFile> files(1);
  files[0].path = dir.file("data");
  files[0].fd = ::open(files[0].path.c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_GE(files[0].fd, 0);
  tavrel::rec::Journal j;
  ASSERT_EQ(j.open(dir.file("tjf"), [](int, const std::string&) {}), 0);
  j.set_deferred(true);
  PageCache cache(kPs);
  ASSERT_EQ(cache.allocate(8), 0);
  cache.attach(&files, &j);
  auto page0_in_file = [&] {
    uint8_t b[kPs] = {};
    size_t got = 0;
    EXPECT_EQ(io_read(files[0].fd, b, kPs, 0, &got), 0);
    return got == kPs && b[0] == 'A';
  };
  auto touch_others = [&](uint32_t from) {
    for (uint32_t p = from; p < from + 32; p++) {
      PageRef r;
      ASSERT_EQ(cache.get(0, p, &r), 0);
    }
  };

  cache.tx_begin(true);
  {
    PageRef r;
    ASSERT_EQ(cache.get(0, 0, &r), 0);
    ASSERT_EQ(r.dirty(), 0);
    r.data()[0] = 'A';
  }
  bool applying = false;
  ASSERT_EQ(cache.tx_commit(false, &applying), 0);
  ASSERT_TRUE(j.unsettled());
  EXPECT_EQ(rectest::read_file(dir.file("tjf")).size(), j.length()) << "deferred commits append, with no space ahead";
  touch_others(1);  // four times the cache: every other frame is reused
  EXPECT_FALSE(page0_in_file());
  EXPECT_TRUE(j.unsettled()) << "other frames were free: no sync was needed";

  // The flusher syncs; a later commit (of page 1) is pending again, yet page 0 may now go.
  ASSERT_EQ(j.sync_point()->sync(), 0);
  cache.tx_begin(true);
  {
    PageRef r;
    ASSERT_EQ(cache.get(0, 1, &r), 0);
    ASSERT_EQ(r.dirty(), 0);
    r.data()[0] = 'B';
  }
  ASSERT_EQ(cache.tx_commit(false, &applying), 0);
  touch_others(100);
  EXPECT_TRUE(page0_in_file());
  EXPECT_TRUE(j.unsettled()) << "page 1's commit is still not durable, and nothing synced it";
  ::close(files[0].fd);
}

}  // namespace
