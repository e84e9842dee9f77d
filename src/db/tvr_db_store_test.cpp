// The private record family: byte chains, inodes, names, readdir, hijack marks, silos and configuration
// records, each scenario followed by the engine's invariant check.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>

#include "db/db_test_util.h"
#include "db/rec/dt.h"
#include "db/tavrel_engine_utls.h"
#include "db/tvr_db_bytes.h"
#include "db/tvr_db_cr.h"
#include "db/tvr_db_dir.h"
#include "db/tvr_db_inode.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_store.h"

namespace {

struct timeval g_now = {1700000000, 500};
void fixed_clock(struct timeval* now) { *now = g_now; }

tbs_oid_s oid_of(int n) {
  tbs_oid_s o{};
  std::memcpy(o.bytes, &n, sizeof n);
  o.bytes[15] = 0x5a;
  return o;
}

class Store : public dbtest::DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    g_now = {1700000000, 500};
    tvr_db_set_view_time_fn(&fixed_clock);
    ASSERT_EQ(tvr_db_trans_start(1), 0);
    ASSERT_EQ(tvr_db_silo_create(tbs_uuid_create(), "host:/silo", &silo), 0);
  }
  void TearDown() override {
    EXPECT_EQ(tvr_db_trans_end(1), 0);
    std::string why;
    EXPECT_EQ(dt_check(&why, view_db_task), 0) << why;
    tvr_db_set_view_time_fn(nullptr);
    DbTest::TearDown();
  }
  static tbs_fstat_db_s fstat(uint32_t type, size_t usid_len = 4) {
    tbs_fstat_db_s f{};
    f.type = type;
    f.mode = 0644;
    f.nlink = type == TBS_FTYPE_DIR ? 2 : 0;
    f.size = type == TBS_FTYPE_DIR ? TVR_DB_DIR_EMPTY_SIZE : 0;
    f.owner.len = static_cast<uint32_t>(usid_len);
    for (size_t i = 0; i < usid_len; i++) f.owner.bytes[i] = static_cast<uint8_t>('A' + i);
    f.group.len = 2;
    f.fourth_time = {77, 88};
    return f;
  }
  uint32_t inode(uint32_t type, int n) {
    uint32_t dbid = 0, gen = 0;
    EXPECT_EQ(tvr_db_inode_create(silo, oid_of(n), fstat(type), 19, &dbid, &gen), 0);
    if (type == TBS_FTYPE_DIR) {
      EXPECT_EQ(tvr_db_dir_create(dbid), 0);
    }
    return dbid;
  }
  static tbs_fstat_db_s attrs(uint32_t dbid) {
    tbs_fstat_db_s f{};
    EXPECT_EQ(tvr_db_inode_read(dbid, nullptr, nullptr, &f, nullptr, nullptr), 0);
    return f;
  }
  static long rows(int rec) {
    long n = 0;
    for (int st = dt_recfrst(rec, view_db_task, -1); st == 0; st = dt_recnext(view_db_task, -1)) n++;
    return n;
  }
  static long chain_rows() { return rows(DB_BYTES) + rows(DB_BYTES_SMALL) + rows(DB_BYTES_MED); }
  uint32_t silo = 0;
};

// ---- byte chains -------------------------------------------------------------------------------------------

TEST_F(Store, ByteChainsCutReadCompareAndDelete) {
  struct Row {
    size_t len;
    long small, med;
  } table[] = {{1, 0, 0}, {90, 0, 0}, {91, 1, 0}, {322, 0, 1}, {323, 1, 1}, {600, 1, 2}};
  DB_ADDR owner = 0;
  ASSERT_EQ(tvr_db_dbid_to_dba(silo, &owner), 0);
  for (const Row& r : table) {
    SCOPED_TRACE(r.len);
    std::string data(r.len, 'x');
    for (size_t i = 0; i < r.len; i++) data[i] = static_cast<char>('a' + i % 26);
    DB_ADDR head = 0;
    ASSERT_EQ(tvr_db_bytes_create(owner, data.data(), r.len, &head), 0);
    DB_ADDR cur = 0;
    ASSERT_EQ(dt_crget(&cur, view_db_task, -1), 0);
    EXPECT_EQ(cur, owner) << "the owner is current again";
    EXPECT_EQ(rows(DB_BYTES_SMALL), r.small);
    EXPECT_EQ(rows(DB_BYTES_MED), r.med);
    std::string back(r.len, '\0');
    ASSERT_EQ(tvr_db_bytes_read(owner, head, back.data(), r.len), 0);
    EXPECT_EQ(back, data);
    int differ = 1;
    ASSERT_EQ(tvr_db_bytes_cmp(owner, head, data.data(), r.len, &differ), 0);
    EXPECT_EQ(differ, 0);
    std::string other = data;
    other.back() ^= 1;
    ASSERT_EQ(tvr_db_bytes_cmp(owner, head, other.data(), r.len, &differ), 0);
    EXPECT_NE(differ, 0);
    {
      dbtest::Messages m;
      EXPECT_EQ(tvr_db_bytes_read(owner + 1, head, back.data(), r.len), TBS_ST_INTERNAL);
      EXPECT_TRUE(m.contains("db_bytes_inconsistent_owner")) << m.all();
      m.clear();
      // The owner keeps the length, so only a length that needs another row can be caught.
      std::string longer(r.len + DB_BYTES_MED_LEN, '\0');
      EXPECT_EQ(tvr_db_bytes_read(owner, head, longer.data(), longer.size()), TBS_ST_INTERNAL);
      EXPECT_TRUE(m.contains("db_bytes came up short for dba")) << m.all();
      if (r.small + r.med > 0) {
        m.clear();
        size_t last = 0;  // the last row's share: a read without it finds a row too many
        for (size_t rest = r.len - 90; rest > 0; rest -= last) last = rest > 90 ? std::min<size_t>(rest, 232) : rest;
        const size_t shorter = r.len - last;
        EXPECT_EQ(tvr_db_bytes_read(owner, head, back.data(), shorter), TBS_ST_INTERNAL);
        EXPECT_TRUE(m.contains("db_bytes came up with extra for dba")) << m.all();
      }
    }
    ASSERT_EQ(dt_crset(&owner, view_db_task, -1), 0);
    ASSERT_EQ(tvr_db_bytes_delete(head), 0);
    ASSERT_EQ(dt_crget(&cur, view_db_task, -1), 0);
    EXPECT_EQ(cur, owner) << "delete keeps the caller's positions";
    EXPECT_EQ(chain_rows(), 0);
  }
  EXPECT_EQ(tvr_db_bytes_delete(0), 0);
}

// ---- inline widths -----------------------------------------------------------------------------------------

TEST_F(Store, EveryInlineWidthChainsOnlyBeyondItself) {
  const uint32_t dir = inode(TBS_FTYPE_DIR, 1);
  struct Row {
    const char* what;
    size_t width;
  } table[] = {{"name", 25}, {"identity", 30}, {"text", 74}, {"path", 208}};
  for (const Row& r : table) {
    for (size_t len : {r.width, r.width + 1}) {
      SCOPED_TRACE(std::string(r.what) + " " + std::to_string(len));
      const long before = chain_rows();
      std::string s(len, 'q');
      s.back() = 'Z';
      const std::string what = r.what;
      if (what == "name") {
        ASSERT_EQ(tvr_db_link(dir, s.data(), len, 0, 0, nullptr, nullptr, 1, nullptr, nullptr), 0);
        uint32_t dbid = 1, state = 0;
        ASSERT_EQ(tvr_db_dir_entry_lookup(dir, s.data(), len, &dbid, &state), 0);
        EXPECT_EQ(dbid, 0u);
        EXPECT_EQ(state, TVR_DB_NS_VIEW_SIDE | TVR_DB_NS_WHITE_OUT);
      } else if (what == "identity") {
        uint32_t dbid = 0;
        ASSERT_EQ(tvr_db_inode_create(silo, oid_of(1000 + static_cast<int>(len)), fstat(TBS_FTYPE_FILE, len), 19,
                                      &dbid, nullptr), 0);
        tbs_fstat_db_s f = attrs(dbid);
        EXPECT_EQ(f.owner.len, len);
        for (size_t i = 0; i < len; i++) EXPECT_EQ(f.owner.bytes[i], 'A' + i);
        EXPECT_EQ(f.ino, dbid);
        EXPECT_EQ(f.fourth_time.tv_sec, 77);
      } else if (what == "text") {
        ASSERT_EQ(tvr_db_inode_write_text(dir, s.c_str()), 0);
        std::string back(len + 1, '\0');
        EXPECT_EQ(tvr_db_inode_read_text(dir, back.data(), len), TBS_ST_TOO_LONG);
        ASSERT_EQ(tvr_db_inode_read_text(dir, back.data(), len + 1), 0);
        EXPECT_STREQ(back.c_str(), s.c_str());
      } else {
        uint32_t s2 = 0;
        tvr_db_silo_info info;
        ASSERT_EQ(tvr_db_silo_create(tbs_uuid_create(), s, &s2), 0);
        ASSERT_EQ(tvr_db_silo_read(s2, &info), 0);
        EXPECT_EQ(info.path, s);
      }
      EXPECT_EQ(chain_rows() - before, len > r.width ? 1 : 0);
    }
  }
  std::string n255(255, 'n'), n256(256, 'n');
  EXPECT_EQ(tvr_db_link(dir, n255.data(), 255, 0, 0, nullptr, nullptr, 1, nullptr, nullptr), 0);
  EXPECT_EQ(tvr_db_link(dir, n256.data(), 256, 0, 0, nullptr, nullptr, 1, nullptr, nullptr), TBS_ST_TOO_LONG);
  EXPECT_EQ(tvr_db_link(dir, "", 0, 0, 0, nullptr, nullptr, 1, nullptr, nullptr), TBS_ST_BAD_ARG);
  EXPECT_EQ(tvr_db_link(dir, n255.data(), 255, 0, 0, nullptr, nullptr, 1, nullptr, nullptr), TBS_ST_EXISTS);
}

// ---- link and unlink ---------------------------------------------------------------------------------------

TEST_F(Store, LinkAndUnlinkRestoreSizeAndLinks) {
  const uint32_t dir = inode(TBS_FTYPE_DIR, 1);
  const uint32_t sub = inode(TBS_FTYPE_DIR, 2);
  const uint32_t file = inode(TBS_FTYPE_FILE, 3);
  const std::string long_name(200, 'L');
  tbs_fstat_db_s df, f;
  ASSERT_EQ(tvr_db_link(dir, "sub", 3, sub, 0, &df, &f, 0, nullptr, nullptr), 0);
  EXPECT_EQ(df.nlink, 3u);
  EXPECT_EQ(f.nlink, 3u);
  ASSERT_EQ(tvr_db_link(dir, long_name.data(), 200, file, 0, &df, &f, 0, nullptr, nullptr), 0);
  EXPECT_EQ(f.nlink, 1u);
  EXPECT_EQ(df.size, 89u + (3 + 43) + (200 + 43));
  EXPECT_EQ(attrs(dir).size, df.size);
  EXPECT_EQ(df.mtime.tv_sec, g_now.tv_sec);
  EXPECT_EQ(df.ctime.tv_usec, df.mtime.tv_usec);
  // A directory from a repository whose clock runs ahead: the parent never looks older.
  const struct timeval future = {g_now.tv_sec + 5, 999999};
  ASSERT_EQ(tvr_db_link(dir, "x", 1, 0, 0, &df, nullptr, 0, &future, nullptr), 0);
  EXPECT_EQ(df.mtime.tv_sec, g_now.tv_sec + 6);
  EXPECT_EQ(df.mtime.tv_usec, 0);

  uint32_t target = 0, nlink = 9;
  ASSERT_EQ(tvr_db_link(sub, "inner", 5, 0, 0, nullptr, nullptr, 1, nullptr, nullptr), 0);
  EXPECT_EQ(tvr_db_unlink(dir, "sub", 3, 0, &df, &target, &nlink), TBS_ST_NOT_EMPTY);
  ASSERT_EQ(tvr_db_unlink(sub, "inner", 5, 0, nullptr, &target, &nlink), 0);
  EXPECT_EQ(target, 0u);
  ASSERT_EQ(tvr_db_unlink(dir, "sub", 3, 0, &df, &target, &nlink), 0);
  EXPECT_EQ(target, sub);
  EXPECT_EQ(nlink, 2u);
  EXPECT_EQ(df.nlink, 2u);
  ASSERT_EQ(tvr_db_unlink(dir, "x", 1, 0, &df, &target, &nlink), 0);
  // A white-out keeps its row and its share of the size; the inode loses the link.
  ASSERT_EQ(tvr_db_unlink(dir, long_name.data(), 200, TVR_DB_NS_HIJACK_PART, &df, &target, &nlink), 0);
  EXPECT_EQ(target, file);
  EXPECT_EQ(nlink, 0u);
  EXPECT_EQ(df.size, 89u + 200 + 43);
  uint32_t dbid = 1, state = 0;
  ASSERT_EQ(tvr_db_dir_entry_lookup(dir, long_name.data(), 200, &dbid, &state), 0);
  EXPECT_EQ(dbid, 0u);
  EXPECT_EQ(state, TVR_DB_NS_VIEW_SIDE | TVR_DB_NS_HIJACK_PART | TVR_DB_NS_WHITE_OUT);
  // Linking over the kept row takes it over and does not count it twice.
  ASSERT_EQ(tvr_db_link(dir, long_name.data(), 200, file, 0, &df, nullptr, 1, nullptr, nullptr), 0);
  EXPECT_EQ(df.size, 89u + 200 + 43);
  EXPECT_EQ(tvr_db_link(dir, long_name.data(), 200, file, 0, &df, nullptr, 1, nullptr, nullptr), TBS_ST_EXISTS);
  ASSERT_EQ(tvr_db_unlink(dir, long_name.data(), 200, 0, &df, &target, &nlink), 0);
  EXPECT_EQ(df.size, 89u);
  std::string path;
  uint32_t parent = 0;
  EXPECT_EQ(tvr_db_find_parent(file, &parent, &path), TBS_ST_NOT_FOUND);
}

// ---- readdir -----------------------------------------------------------------------------------------------

TEST_F(Store, ReaddirPacksWholeEntriesAndResumesAtTheCookie) {
  const uint32_t dir = inode(TBS_FTYPE_DIR, 1);
  const uint32_t file = inode(TBS_FTYPE_FILE, 2);
  const std::vector<std::string> names = {"a", "bbbb", std::string(40, 'c')};
  size_t total = 0;
  for (const auto& n : names) {
    ASSERT_EQ(tvr_db_link(dir, n.data(), n.size(), n == "a" ? file : 0, 0, nullptr, nullptr, 1, nullptr, nullptr),
              0);
    total += VIEW_DB_READDIR_ENTRY_SIZE(n.size());
  }
  EXPECT_EQ(VIEW_DB_READDIR_ENTRY_SIZE(1), 20u);
  std::vector<char> buf(total);
  size_t used = 0;
  int eof = 0;
  ASSERT_EQ(tvr_db_readdir(dir, 0, buf.data(), total, &used, &eof), 0);
  EXPECT_EQ(used, total);
  EXPECT_EQ(eof, 1);
  size_t at = 0;
  for (size_t i = 0; i < names.size(); i++) {
    uint32_t head[4];
    uint16_t len;
    std::memcpy(head, buf.data() + at, sizeof head);
    std::memcpy(&len, buf.data() + at + 16, 2);
    EXPECT_EQ(head[0], i == 0 ? file : 0u);
    EXPECT_EQ(head[1], i == 0 ? 19u : 0u);
    EXPECT_EQ(head[2], TVR_DB_COOKIE_BASE + 2 + i);
    EXPECT_EQ(std::string(buf.data() + at + VIEW_DB_READDIR_ENTRY_NAME_OFFSET), names[i]);
    EXPECT_EQ(len, names[i].size());
    at += VIEW_DB_READDIR_ENTRY_SIZE(len);
  }
  ASSERT_EQ(tvr_db_readdir(dir, 0, buf.data(), total - 1, &used, &eof), 0);
  EXPECT_EQ(used, total - VIEW_DB_READDIR_ENTRY_SIZE(40));
  EXPECT_EQ(eof, 0);
  for (uint32_t cookie : {TVR_DB_COOKIE_BASE + 3, 3u}) {
    ASSERT_EQ(tvr_db_readdir(dir, cookie, buf.data(), total, &used, &eof), 0);
    EXPECT_EQ(used, VIEW_DB_READDIR_ENTRY_SIZE(40));
    EXPECT_EQ(eof, 1);
  }
  EXPECT_EQ(tvr_db_readdir(dir, 0, buf.data(), 19, &used, &eof), TBS_ST_TOO_LONG);
  ASSERT_EQ(tvr_db_readdir(dir, TVR_DB_COOKIE_BASE + 4, buf.data(), 19, &used, &eof), 0);
  EXPECT_EQ(used, 0u);
  EXPECT_EQ(eof, 1);
  // A new name takes the position after the last name's.
  uint32_t offset = 0;
  ASSERT_EQ(tvr_db_dir_entry_delete(dir, names[2].data(), names[2].size(), 0, nullptr), 0);
  ASSERT_EQ(tvr_db_dir_entry_create(dir, "d", 1, 0, 0, &offset), 0);
  EXPECT_EQ(offset, 4u);
}

// ---- hijack marks ------------------------------------------------------------------------------------------

TEST_F(Store, HijackMarksSetClearAndList) {
  const uint32_t dir = inode(TBS_FTYPE_DIR, 1);
  const uint32_t sub = inode(TBS_FTYPE_DIR, 2);
  ASSERT_EQ(tvr_db_link(dir, "sub", 3, sub, 0, nullptr, nullptr, 1, nullptr, nullptr), 0);
  ASSERT_EQ(tvr_db_link(sub, "f", 1, 0, 0, nullptr, nullptr, 1, nullptr, nullptr), 0);
  const tbs_oid_s ver = oid_of(50), elem = oid_of(51);
  tbs_oid_s v, e;
  int has = 1;
  EXPECT_EQ(tvr_db_hijack(sub, "f", 1, nullptr, nullptr), TBS_ST_BAD_ARG);
  EXPECT_EQ(tvr_db_hijack(sub, "f", 1, &ver, nullptr), TBS_ST_BAD_ARG);
  EXPECT_EQ(tvr_db_hijack_get(sub, "f", 1, &v, &e), TBS_ST_BAD_ARG);
  ASSERT_EQ(tvr_db_has_hijacks(&has), 0);
  EXPECT_EQ(has, 0);
  ASSERT_EQ(tvr_db_dir_entry_state_set(sub, "f", 1, TVR_DB_NS_HIJACK_OIDS | TVR_DB_NS_HIJACKED), 0);
  ASSERT_EQ(tvr_db_hijack(sub, "f", 1, &ver, &elem), 0);
  ASSERT_EQ(tvr_db_has_hijacks(&has), 0);
  EXPECT_EQ(has, 1);
  ASSERT_EQ(tvr_db_hijack_get(sub, "f", 1, &v, &e), 0);
  EXPECT_TRUE(v == ver && e == elem);
  std::vector<tvr_db_hijack_info> list;
  ASSERT_EQ(tvr_db_find_hijacks(nullptr, &list), 0);
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0].name, "sub/f");
  EXPECT_EQ(list[0].parent, oid_of(2));
  const tbs_uuid_s stranger = tbs_uuid_create();
  ASSERT_EQ(tvr_db_find_hijacks(&stranger, &list), 0);
  EXPECT_TRUE(list.empty());
  ASSERT_EQ(tvr_db_hijack(sub, "f", 1, nullptr, nullptr), 0);
  ASSERT_EQ(tvr_db_has_hijacks(&has), 0);
  EXPECT_EQ(has, 0);
}

// ---- inodes ------------------------------------------------------------------------------------------------

TEST_F(Store, InodeDeleteTakesItsNamesAndLeavesStaleHandles) {
  const uint32_t dir = inode(TBS_FTYPE_DIR, 1);
  const uint32_t sub = inode(TBS_FTYPE_DIR, 2);
  const uint32_t file = inode(TBS_FTYPE_FILE, 3);
  const std::string long_name(100, 'z');
  ASSERT_EQ(tvr_db_link(dir, "sub", 3, sub, 0, nullptr, nullptr, 1, nullptr, nullptr), 0);
  ASSERT_EQ(tvr_db_link(sub, long_name.data(), 100, file, 0, nullptr, nullptr, 1, nullptr, nullptr), 0);
  ASSERT_EQ(tvr_db_inode_write_text(sub, std::string(80, 't').c_str()), 0);
  std::vector<tvr_db_private_info> privates;
  ASSERT_EQ(tvr_db_find_privates(nullptr, &privates, 1), 0);
  ASSERT_EQ(privates.size(), 2u);
  EXPECT_TRUE(privates[0].is_dir && privates[0].name == "sub");
  EXPECT_EQ(privates[1].name, "sub/" + long_name);
  std::vector<tvr_db_name_info> names;
  uint32_t cursor = 0;
  int eof = 0;
  ASSERT_EQ(tvr_db_inventory(&cursor, 1, &names, &eof), 0);
  EXPECT_TRUE(names.size() == 1 && names[0].name == "sub" && names[0].inode == sub && eof == 0);
  ASSERT_EQ(tvr_db_inventory(&cursor, 1 << 13, &names, &eof), 0);
  EXPECT_TRUE(names.size() == 1 && names[0].oid == oid_of(3) && eof == 1);

  tvr_db_silo_info info;
  ASSERT_EQ(tvr_db_silo_read(silo, &info), 0);
  EXPECT_EQ(info.ref_cnt, 3u);
  ASSERT_EQ(tvr_db_inode_delete(sub, 0), 0);
  EXPECT_EQ(tvr_db_inode_read(sub, nullptr, nullptr, nullptr, nullptr, nullptr), TBS_ST_STALE);
  EXPECT_EQ(tvr_db_inode_read(silo, nullptr, nullptr, nullptr, nullptr, nullptr), TBS_ST_STALE);
  EXPECT_EQ(tvr_db_inode_read(sub & ~TVR_DB_DBID_FLAG, nullptr, nullptr, nullptr, nullptr, nullptr), TBS_ST_INTERNAL);
  EXPECT_EQ(tvr_db_inode_read(0, nullptr, nullptr, nullptr, nullptr, nullptr), TBS_ST_NOT_FOUND);
  uint32_t dbid = 1, state = 0, parent = 0;
  ASSERT_EQ(tvr_db_dir_entry_lookup(dir, "sub", 3, &dbid, &state), 0);
  EXPECT_EQ(dbid, 0u) << "the name stays, without an inode";
  EXPECT_EQ(tvr_db_find_parent(file, &parent, nullptr), TBS_ST_NOT_FOUND);
  EXPECT_EQ(chain_rows(), 0) << "name and text chains went";
  ASSERT_EQ(tvr_db_silo_read(silo, &info), 0);
  EXPECT_EQ(info.ref_cnt, 2u);

  // Stranding moves the inode out of its silo; inventories find it among the stranded.
  ASSERT_EQ(tvr_db_mark_inode_stranded(file, 12345), 0);
  uint32_t found[4];
  size_t count = 0;
  ASSERT_EQ(tvr_db_inode_inventory(0, TBS_OID_NULL, found, 4, &count, 0), 0);
  ASSERT_EQ(count, 1u);
  EXPECT_EQ(found[0], file);
  EXPECT_EQ(attrs(file).fourth_time.tv_sec, 12345);
  ASSERT_EQ(tvr_db_inode_inventory(silo, TBS_OID_NULL, found, 4, &count, 0), 0);
  EXPECT_EQ(count, 1u);
  ASSERT_EQ(tvr_db_inode_inventory(silo, oid_of(1), found, 4, &count, 1), 0);
  EXPECT_EQ(count, 0u) << "nothing after the last key";
  const tbs_oid_s renamed = oid_of(9);
  ASSERT_EQ(tvr_db_inode_set_oid(dir, &renamed, 21, 0), 0);
  silo_mtype_t mtype = 0;
  tbs_fstat_db_s f;
  ASSERT_EQ(tvr_db_inode_read(dir, nullptr, nullptr, &f, &mtype, nullptr), 0);
  EXPECT_EQ(mtype, 21);
  EXPECT_EQ(f.ctime.tv_sec, g_now.tv_sec);
  uint32_t lookup = 0;
  EXPECT_EQ(tvr_db_inode_lookup(silo, oid_of(9), &lookup), 0);
  EXPECT_EQ(lookup, dir);
  EXPECT_EQ(tvr_db_inode_create(silo, oid_of(9), fstat(1), 19, &lookup, nullptr), TBS_ST_EXISTS);
}

// ---- silos -------------------------------------------------------------------------------------------------

TEST_F(Store, SiloFlagsReferencesAndReplicaChange) {
  tvr_db_silo_info info;
  ASSERT_EQ(tvr_db_silo_read(silo, &info), 0);
  EXPECT_EQ(info.next_dbid, 1u);
  EXPECT_EQ(info.gen_num, static_cast<uint32_t>(g_now.tv_sec));
  uint32_t dup = 0;
  EXPECT_EQ(tvr_db_silo_create(info.uuid, "", &dup), TBS_ST_EXISTS);
  ASSERT_EQ(tvr_db_silo_set_hlink_flag(silo, 1), 0);
  std::vector<tvr_db_silo_info> list;
  ASSERT_EQ(tvr_db_inventory_silos(&list, 1), 0);
  EXPECT_EQ(list.size(), 1u);
  ASSERT_EQ(tvr_db_silo_set_setwork_flag(silo, 0), 0);
  ASSERT_EQ(tvr_db_inventory_silos(&list, 1), 0);
  EXPECT_TRUE(list.empty()) << "one bit serves both flags";
  uint32_t gen = 0, dbid = 0;
  ASSERT_EQ(tvr_db_inode_create(silo, oid_of(1), fstat(1), 19, &dbid, &gen), 0);
  EXPECT_EQ(gen, info.gen_num + 1);
  EXPECT_EQ(tvr_db_silo_delete(silo), TBS_ST_NOT_EMPTY);
  const tbs_uuid_s fresh = tbs_uuid_create();
  ASSERT_EQ(tvr_db_trans_end(1), 0);
  ASSERT_EQ(tvr_db_reparent_replica_uuid(info.uuid, fresh), 0);
  EXPECT_EQ(tvr_db_reparent_replica_uuid(info.uuid, fresh), TBS_ST_NOT_FOUND);
  ASSERT_EQ(tvr_db_trans_start(1), 0);
  uint32_t again = 0;
  ASSERT_EQ(tvr_db_silo_lookup(fresh, &again), 0);
  EXPECT_EQ(again, silo);
  ASSERT_EQ(tvr_db_inode_delete(dbid, 0), 0);
  ASSERT_EQ(tvr_db_silo_delete(silo), 0);
  EXPECT_EQ(tvr_db_silo_lookup(fresh, &again), TBS_ST_NOT_FOUND);
}

// ---- configuration records ---------------------------------------------------------------------------------

// Free extents as a plain map, with the allocation and merging rules written out.
struct ExtentModel {
  std::map<uint32_t, uint32_t> free = {{0, 0xffffffffu}};  // offset -> length
  uint32_t alloc(uint32_t len) {
    auto best = free.end();
    for (auto it = free.begin(); it != free.end(); ++it)
      if (it->second >= len && (best == free.end() || it->second < best->second)) best = it;
    const uint32_t off = best->first, rest = best->second - len;
    free.erase(best);
    if (rest > 0) free[off + len] = rest;
    return off;
  }
  void release(uint32_t off, uint32_t len) {
    auto next = free.find(off + len);
    if (next != free.end()) len += next->second, free.erase(next);
    auto prev = free.lower_bound(off);
    if (prev != free.begin() && (--prev, prev->first + prev->second == off)) {
      prev->second += len;
      return;
    }
    free[off] = len;
  }
};

TEST_F(Store, SideFileExtentsFollowTheModel) {
  ExtentModel model;
  std::mt19937 rng(7);
  struct Live {
    uint32_t dbid, off, len;
    tvr_db_cr_data data;
  };
  std::vector<Live> live;
  int next_oid = 100;
  for (int step = 0; step < 120; step++) {
    SCOPED_TRACE(step);
    if (live.empty() || rng() % 3 != 0) {
      Live l;
      l.len = 1 + rng() % 300;
      l.data.header = rng();
      l.data.bytes.resize(l.len);
      for (auto& b : l.data.bytes) b = static_cast<uint8_t>(rng());
      const tbs_oid_s o = oid_of(next_oid++);
      ASSERT_EQ(tvr_db_cr_create(&o, tbs_uuid_create(), 1, nullptr, 0, l.data, 0, 0, &l.dbid), 0);
      l.off = model.alloc(l.len);
      live.push_back(l);
    } else {
      const size_t i = rng() % live.size();
      ASSERT_EQ(tvr_db_cr_free(live[i].dbid), 0);
      model.release(live[i].off, live[i].len);
      live.erase(live.begin() + static_cast<long>(i));
    }
    std::vector<tvr_db_cr_extent> ext;
    ASSERT_EQ(tvr_db_cr_free_extents(&ext), 0);
    ASSERT_EQ(ext.size(), model.free.size());
    size_t k = 0;
    for (const auto& [off, len] : model.free) {
      EXPECT_EQ(ext[k].offset, off);
      EXPECT_EQ(ext[k].length, len);
      k++;
    }
  }
  for (const Live& l : live) {
    tvr_db_cr_data back;
    ASSERT_EQ(tvr_db_cr_read(l.dbid, &back), 0);
    EXPECT_EQ(back.header, l.data.header);
    EXPECT_EQ(back.bytes, l.data.bytes);
  }
  // A damaged side file is caught by the CRC.
  const uint8_t junk = static_cast<uint8_t>(~live[0].data.bytes[0]);
  ASSERT_EQ(pwrite(tvr_db_cr_file_fd(), &junk, 1, live[0].off), 1);
  dbtest::Messages m;
  tvr_db_cr_data back;
  EXPECT_EQ(tvr_db_cr_read(live[0].dbid, &back), TBS_ST_INTERNAL);
  EXPECT_TRUE(m.contains("failed: CRC error")) << m.all();
  for (const Live& l : live) ASSERT_EQ(tvr_db_cr_free(l.dbid), 0);
  std::vector<tvr_db_cr_extent> ext;
  ASSERT_EQ(tvr_db_cr_free_extents(&ext), 0);
  ASSERT_EQ(ext.size(), 1u);
  EXPECT_EQ(ext[0].length, 0xffffffffu) << "everything merged back into one extent";
}

TEST_F(Store, ConfigurationRecordsFollowTheirReferences) {
  const tvr_db_cr_data data{1, {1, 2, 3}};
  tvr_db_silo_info info;
  ASSERT_EQ(tvr_db_silo_read(silo, &info), 0);
  const uint32_t file = inode(TBS_FTYPE_FILE, 1);  // derived object 1 has an inode, 2 has none
  const tbs_oid_s dos[2] = {oid_of(1), oid_of(2)};
  uint32_t cr = 0, other = 0;
  EXPECT_EQ(tvr_db_cr_create(dos, info.uuid, 0, nullptr, 0, data, 0, 0, &cr), TBS_ST_BAD_ARG);
  ASSERT_EQ(tvr_db_cr_create(dos, info.uuid, 2, nullptr, 0, data, 1, 0, &cr), 0);
  {
    dbtest::Messages m;
    EXPECT_EQ(tvr_db_cr_create(&dos[1], info.uuid, 1, nullptr, 0, data, 0, 0, &other), TBS_ST_EXISTS);
    EXPECT_TRUE(m.contains("Duplicate DB_DO for")) << m.all();
  }
  std::vector<tvr_db_do_info> listed;
  ASSERT_EQ(tvr_db_get_dos(cr, &listed), 0);
  EXPECT_EQ(listed.size(), 2u);
  // A record naming the first as a sub-object holds a reference on it; a session holds its own.
  const tbs_oid_s held = oid_of(3);
  ASSERT_EQ(tvr_db_cr_create(&held, info.uuid, 1, dos, 1, data, 0, 9, &other), 0);
  ASSERT_EQ(tvr_db_cr_add_silo_ref(cr, info.uuid), 0);
  ASSERT_EQ(tvr_db_cr_add_silo_ref(other, info.uuid), 0);
  ASSERT_EQ(tvr_db_inode_delete(file, 0), 0);
  uint32_t got = 0;
  ASSERT_EQ(tvr_db_cr_get(dos[0], &got), 0) << "the sub-object reference keeps it";
  ASSERT_EQ(tvr_db_fsck_crs(), 0);
  EXPECT_EQ(tvr_db_cr_get(held, &got), 0);
  ASSERT_EQ(tvr_db_cr_rm_build_session(9), 0);
  int found = 1;
  ASSERT_EQ(tvr_db_dos_found(held, &found), 0);
  EXPECT_EQ(found, 0) << "the session's end drops the last reference";
  EXPECT_EQ(tvr_db_cr_get(dos[0], &got), TBS_ST_NOT_FOUND) << "and the sub-object's record follows";
  EXPECT_EQ(rows(DB_CR) + rows(DB_DO) + rows(DB_SUB_DO) + rows(DB_UNELEVATED_REF), 0);
  EXPECT_EQ(tvr_db_cr_rm_ref(dos[0], 0), TBS_ST_NOT_FOUND);
}

}  // namespace
