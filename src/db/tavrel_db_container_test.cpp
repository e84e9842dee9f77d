// The container pool, stranded inodes and their scrubber, lost+found, adoption, hijack records and the
// unique rename; each scenario ends with the engine's invariant check.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>

#include "base/fileutl.h"
#include "base/stg.h"
#include "db/db_test_util.h"
#include "db/rec/dt.h"
#include "db/tavrel_db_adopt.h"
#include "db/tavrel_db_container.h"
#include "db/tvr_db_dir.h"
#include "db/tvr_db_inode.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_store.h"

namespace {

time_t g_clock = 1700000000;
time_t fake_clock() { return g_clock; }

tbs_oid_s oid_of(int n) {
  tbs_oid_s o{};
  std::memcpy(o.bytes, &n, sizeof n);
  o.bytes[15] = 0x77;
  return o;
}

// Makes the removal of names in `dir` fail with an access error: read-only for a user, immutable for root.
class DenyRemoval {
 public:
  explicit DenyRemoval(const std::string& dir) : dir_(dir) { ok_ = set(true); }
  ~DenyRemoval() { lift(); }
  void lift() {
    if (ok_) set(false);
    ok_ = false;
  }
  bool ok() const { return ok_; }

 private:
  bool set(bool on) {
    if (geteuid() != 0) return chmod(dir_.c_str(), on ? 0555 : 0777) == 0;
    int fd = open(dir_.c_str(), O_RDONLY | O_DIRECTORY);
    int flags = 0;
    bool done = fd >= 0 && ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 &&
                ioctl(fd, FS_IOC_SETFLAGS, &(flags = on ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL)) == 0;
    if (fd >= 0) close(fd);
    return done;
  }
  std::string dir_;
  bool ok_ = false;
};

class Containers : public dbtest::DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    ASSERT_EQ(tavrel_storage_init(), 0);
    g_clock = 1700000000;
    tavrel_db_set_scrub_clock(&fake_clock);
    silo_uuid = tbs_uuid_create();
    ASSERT_EQ(tvr_db_in_trans(1, [&] { return tvr_db_silo_create(silo_uuid, "host:/silo", &silo); }), 0);
  }
  void TearDown() override {
    tavrel_db_scrubber_cancel();
    tavrel_db_set_scrub_clock(nullptr);
    std::string why;
    EXPECT_EQ(dt_check(&why, view_db_task), 0) << why;
    DbTest::TearDown();
  }
  // A view-private object in the caller's transaction; a file gets a container of its own.
  uint32_t make_private(uint32_t type, int n, std::string* container = nullptr) {
    tbs_fstat_db_s f{};
    f.type = type;
    f.mode = 0644;
    f.nlink = type == TBS_FTYPE_DIR ? 2 : 0;
    uint32_t dbid = 0, gen = 0;
    EXPECT_EQ(tvr_db_inode_create(silo, oid_of(n), f, 19, &dbid, &gen), 0);
    if (type == TBS_FTYPE_DIR) {
      EXPECT_EQ(tvr_db_dir_create(dbid), 0);
    }
    if (container != nullptr) {
      char name[64];
      EXPECT_EQ(tavrel_storage_create(oid_of(n), TBS_OID_NULL, "", 1, name, sizeof name), 0);
      EXPECT_EQ(tavrel_storage_create_container(name, 0, 1, credutl_creds_t{}, 0644, nullptr), 0);
      EXPECT_EQ(tvr_db_inode_write_text(dbid, name), 0);
      *container = name;
    }
    return dbid;
  }
  static int read_inode(uint32_t dbid, tbs_fstat_db_s* f = nullptr, uint32_t* silo_out = nullptr) {
    return tvr_db_in_trans(0, [&] { return tvr_db_inode_read(dbid, nullptr, nullptr, f, nullptr, silo_out); });
  }
  // Makes a stranded inode: its container cannot be removed while the inode is deleted.
  uint32_t strand(int n, std::string* container) {
    uint32_t dbid = 0;
    EXPECT_EQ(tvr_db_in_trans(1, [&] {
                dbid = make_private(TBS_FTYPE_FILE, n, container);
                return 0;
              }), 0);
    DenyRemoval deny(bucket_dir(*container));
    if (!deny.ok()) return 0;
    EXPECT_EQ(tvr_db_in_trans(1, [&] { return tavrel_db_inode_delete(0, dbid, TBS_FTYPE_FILE, nullptr); }), 0);
    return dbid;
  }
  static std::string bucket_dir(const std::string& name) {
    return tavrel_storage_path(name.substr(0, name.find('/')));
  }
  tbs_uuid_s silo_uuid{};
  uint32_t silo = 0;
};

TEST_F(Containers, PoolAndNames) {
  for (int i = 0; i < TAVREL_STORAGE_BUCKETS; i++) {
    char bucket[16];
    snprintf(bucket, sizeof bucket, "%05d", i);
    EXPECT_TRUE(fileutl_exists(tavrel_storage_path(bucket))) << bucket;
  }
  EXPECT_EQ(tavrel_storage_max_leaf_len(), static_cast<size_t>(pathconf(".s", _PC_NAME_MAX)) + 7);
  EXPECT_EQ(tavrel_storage_init_at(".", "."), TBS_ST_BAD_ARG) << "a pool that is the view directory";

  char a[64], b[64], dot[64], tiny[21];
  ASSERT_EQ(tavrel_storage_create(oid_of(1), TBS_OID_NULL, "cow", 0xabc, a, sizeof a), 0);
  ASSERT_EQ(tavrel_storage_create(oid_of(1), TBS_OID_NULL, "cow", 0xabc, b, sizeof b), 0);
  ASSERT_EQ(tavrel_storage_create(oid_of(1), TBS_OID_NULL, "x.", 7, dot, sizeof dot), 0);
  unsigned bucket = 0, seq_a = 0, seq_b = 0;
  char sep = 0, suffix[8] = {};
  ASSERT_EQ(sscanf(a, "%5u%c00000abc%8x%7s", &bucket, &sep, &seq_a, suffix), 4) << a;
  EXPECT_LT(bucket, 57u);
  EXPECT_EQ(sep, '/');
  EXPECT_STREQ(suffix, "cow");
  ASSERT_EQ(sscanf(b, "%*5u/%*8x%8x", &seq_b), 1);
  EXPECT_EQ(seq_b, seq_a + 1) << "one OID in the same second: the sequence tells them apart";
  EXPECT_EQ(strlen(dot), 24u);
  EXPECT_EQ(dot[23], '!') << dot;
  errno = 0;
  EXPECT_EQ(tavrel_storage_create(oid_of(1), TBS_OID_NULL, "", 1, tiny, 20), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
  // The next name is known: make it exist first.
  char next[64];
  snprintf(next, sizeof next, "%05u/00000abc%08xcow", bucket, seq_b + 2);
  ASSERT_EQ(tavrel_storage_create_container(next, 0, 1, credutl_creds_t{}, 0600, nullptr), 0);
  errno = 0;
  EXPECT_EQ(tavrel_storage_create(oid_of(1), TBS_OID_NULL, "cow", 0xabc, a, sizeof a), -1);
  EXPECT_EQ(errno, EEXIST);
}

TEST_F(Containers, CreateRenameReplaceRemove) {
  char* made = nullptr;
  ASSERT_EQ(tavrel_storage_create_container("00001/f", 1, 1, credutl_creds_t{}, 04755, &made), 0);
  EXPECT_STREQ(made, "00001/f");
  stg_free(made);
  struct stat st;
  ASSERT_EQ(tavrel_storage_fstat_container("00001/f", &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0755u) << "bit 8 drops the set-id bits";
  ASSERT_EQ(tavrel_storage_create_container("00001/f", 1, 1, credutl_creds_t{}, 0644, &made), 0);
  EXPECT_STREQ(made, "00001/f.1");
  stg_free(made);
  EXPECT_EQ(tavrel_storage_create_container("00001/f", 0, 1, credutl_creds_t{}, 0644, nullptr), TBS_ST_EXISTS);
  {
    dbtest::Messages m;
    EXPECT_EQ(tavrel_storage_create_container("00001/g", 0, 3, credutl_creds_t{}, 0644, nullptr), TBS_ST_BAD_ARG);
    EXPECT_TRUE(m.contains("Unexpected file type(3) on 00001/g\n")) << m.all();
  }
  ASSERT_EQ(tavrel_storage_create_container("00002/d", 0, 2, credutl_creds_t{}, 0755, nullptr), 0);
  for (const char* bad : {"/abs", "../x", "00001/../x", ".."}) EXPECT_EQ(tavrel_storage_rename_container("00001/f", bad), TBS_ST_NO_PERMISSION) << bad;
  EXPECT_EQ(tavrel_storage_rename_container("00001/f", "00001/f.1"), TBS_ST_EXISTS);
  EXPECT_EQ(tavrel_storage_rename_container("00001/f", "00003/f"), 0);
  EXPECT_EQ(tavrel_storage_replace_container("00003/f", "00002/d"), TBS_ST_BAD_ARG) << "file over directory";
  EXPECT_EQ(tavrel_storage_replace_container("00003/f", "00001/f.1"), 0);
  EXPECT_FALSE(fileutl_exists(tavrel_storage_path("00003/f")));
  EXPECT_EQ(tavrel_storage_remove_container("00002/d"), 0);
  EXPECT_EQ(tavrel_storage_remove("00001/f.1"), 0);
  EXPECT_EQ(tavrel_storage_remove("00001/f.1"), 0) << "a missing file counts as removed";
}

TEST_F(Containers, LostAndFoundTakesAUuidWhenTheLeafIsTaken) {
  for (const char* p : {"00001/same", "00002/same"})
    ASSERT_EQ(tavrel_storage_create_container(p, 0, 1, credutl_creds_t{}, 0644, nullptr), 0);
  char out[512];
  ASSERT_EQ(move_to_lost_and_found("00001/same", out, sizeof out), 0);
  EXPECT_EQ(std::string(out), tavrel_storage_pool() + "/lost+found/same");
  char small[8];
  EXPECT_EQ(move_to_lost_and_found("00002/same", small, sizeof small), TBS_ST_TOO_LONG);
  EXPECT_STREQ(small, "");
  EXPECT_TRUE(fileutl_exists(tavrel_storage_path("00002/same"))) << "refused before the move";
  ASSERT_EQ(move_to_lost_and_found("00002/same", out, sizeof out), 0);
  std::string leaf = std::string(out).substr(std::string(out).rfind('/') + 1);
  tbs_uuid_s u;
  EXPECT_EQ(tbs_str_to_uuid(leaf, &u), 0) << out;
  EXPECT_EQ(move_to_lost_and_found("00003/none", out, sizeof out), TBS_ST_NO_SUCH_NAME);
  EXPECT_STREQ(out, "");
}

TEST_F(Containers, StrandedInodeStaysUntilRemovableOrExpired) {
  std::string c1, c2;
  uint32_t kept = strand(1, &c1);
  if (kept == 0) GTEST_SKIP() << "this file system cannot deny a removal";
  tbs_fstat_db_s f;
  uint32_t in_silo = 1;
  ASSERT_EQ(read_inode(kept, &f, &in_silo), 0) << "the inode stays while its file does";
  EXPECT_EQ(in_silo, 0u);
  EXPECT_EQ(f.fourth_time.tv_sec, g_clock + 86400);
  EXPECT_TRUE(tavrel_db_scrubber_pending());
  bool again = false;
  {
    DenyRemoval deny(bucket_dir(c1));
    g_clock += 600;
    ASSERT_EQ(tavrel_db_scrub_stranded(&again), 0);
    EXPECT_TRUE(again) << "kept before its expiry";
    EXPECT_EQ(read_inode(kept), 0);
  }
  ASSERT_EQ(tavrel_db_scrub_stranded(&again), 0);
  EXPECT_FALSE(again);
  EXPECT_EQ(read_inode(kept), TBS_ST_STALE);
  EXPECT_FALSE(fileutl_exists(tavrel_storage_path(c1)));

  uint32_t expired = strand(2, &c2);
  {
    DenyRemoval deny(bucket_dir(c2));
    g_clock += 86401;
    dbtest::Messages m;
    ASSERT_EQ(tavrel_db_scrub_stranded(&again), 0);
    EXPECT_TRUE(m.contains("of stranded inode")) << m.all();
  }
  EXPECT_FALSE(again);
  EXPECT_EQ(read_inode(expired), TBS_ST_STALE) << "given up after its expiry";
  EXPECT_TRUE(fileutl_exists(tavrel_storage_path(c2)));
}

TEST_F(Containers, ScrubRemovesVanishedFilesInBatches) {
  // More stranded inodes than one run takes; their files are gone already.
  ASSERT_EQ(tvr_db_in_trans(1, [&] {
              for (int n = 0; n < 1001; n++) {
                uint32_t dbid = make_private(TBS_FTYPE_FILE, 100 + n);
                int st = tvr_db_inode_write_text(dbid, "00001/gone");
                if (st == 0) st = tvr_db_mark_inode_stranded(dbid, static_cast<uint32_t>(g_clock + 86400));
                if (st != 0) return st;
              }
              return 0;
            }), 0);
  bool again = false;
  ASSERT_EQ(tavrel_db_scrub_stranded(&again), 0);
  EXPECT_TRUE(again) << "a full batch asks for another run";
  ASSERT_EQ(tavrel_db_scrub_stranded(&again), 0);
  EXPECT_FALSE(again);
  size_t count = 1;
  uint32_t d = 0;
  ASSERT_EQ(tvr_db_in_trans(0, [&] { return tvr_db_inode_inventory(0, TBS_OID_NULL, &d, 1, &count, 0); }), 0);
  EXPECT_EQ(count, 0u);
}

TEST_F(Containers, AdoptionMovesEveryNameInOneTransaction) {
  const tavrel_db_obj_ref elem{silo_uuid, oid_of(9000), 2};
  uint32_t parent = 0, priv = 0;
  std::vector<std::pair<std::string, uint32_t>> names;
  ASSERT_EQ(tvr_db_in_trans(1, [&] {
              parent = make_private(TBS_FTYPE_DIR, 1);
              priv = make_private(TBS_FTYPE_DIR, 2);
              int st = tvr_db_link(parent, "p", 1, priv, 0, nullptr, nullptr, 0, nullptr, nullptr);
              for (int n = 0; st == 0 && n < 120; n++) {
                std::string name = "entry-with-a-longish-name-" + std::to_string(n);
                uint32_t obj = make_private(n % 10 == 0 ? TBS_FTYPE_DIR : TBS_FTYPE_FILE, 10 + n);
                names.emplace_back(name, obj);
                st = tvr_db_link(priv, name.data(), name.size(), obj, 0, nullptr, nullptr, 0, nullptr, nullptr);
              }
              return st;
            }), 0);
  // A name the cover has already makes the last move fail: nothing of the adoption stays.
  int st = 0;
  uint32_t cover = create_cover_inode(elem, &st);
  ASSERT_EQ(st, 0);
  const std::string& last = names.back().first;
  uint32_t other = 0;
  ASSERT_EQ(tvr_db_in_trans(1, [&] {
              other = make_private(TBS_FTYPE_FILE, 9999);
              return tvr_db_link(cover, last.data(), last.size(), other, 0, nullptr, nullptr, 0, nullptr, nullptr);
            }), 0);
  {
    dbtest::Messages m;
    EXPECT_EQ(tavrel_db_adopt(0, parent, elem, "p"), TBS_ST_EXISTS);
  }
  ASSERT_EQ(tvr_db_trans_start(0), 0);
  EXPECT_EQ(tvr_db_dir_entry_lookup(priv, names[0].first.data(), names[0].first.size(), nullptr, nullptr), 0);
  EXPECT_EQ(tvr_db_dir_entry_lookup(cover, names[0].first.data(), names[0].first.size(), nullptr, nullptr), TBS_ST_NOT_FOUND);
  tvr_db_trans_end(0);
  ASSERT_EQ(tvr_db_in_trans(1, [&] {
              int st = tvr_db_unlink(cover, last.data(), last.size(), 0, nullptr, nullptr, nullptr);
              return st == 0 ? tvr_db_inode_delete(other, 0) : st;
            }), 0);

  ASSERT_EQ(tavrel_db_adopt(0, parent, elem, "p"), 0);
  ASSERT_EQ(tvr_db_trans_start(0), 0);
  for (const auto& [name, obj] : names) {
    uint32_t dbid = 0;
    tbs_fstat_db_s f;
    EXPECT_EQ(tvr_db_dir_entry_lookup(cover, name.data(), name.size(), &dbid, nullptr), 0) << name;
    EXPECT_EQ(dbid, obj);
    EXPECT_EQ(tvr_db_inode_read(obj, nullptr, nullptr, &f, nullptr, nullptr), 0);
    EXPECT_EQ(f.nlink, f.type == TBS_FTYPE_DIR ? 3u : 1u) << "a moved name keeps its object's link count";
  }
  tbs_fstat_db_s cf, pf;
  EXPECT_EQ(tvr_db_inode_read(cover, nullptr, nullptr, &cf, nullptr, nullptr), 0);
  EXPECT_EQ(cf.nlink, 12u) << "one link per subdirectory";
  EXPECT_EQ(tvr_db_dir_entry_lookup(parent, "p", 1, nullptr, nullptr), TBS_ST_NOT_FOUND);
  EXPECT_EQ(tvr_db_inode_read(priv, nullptr, nullptr, nullptr, nullptr, nullptr), TBS_ST_STALE);
  EXPECT_EQ(tvr_db_inode_read(parent, nullptr, nullptr, &pf, nullptr, nullptr), 0);
  EXPECT_EQ(pf.nlink, 2u) << "the adopted directory's link was taken back";
  tvr_db_trans_end(0);
  EXPECT_EQ(tavrel_db_adopt(0, parent, tavrel_db_obj_ref{silo_uuid, oid_of(9001), 19}, "p"), TBS_ST_FAILURE);
}

TEST_F(Containers, HijackRoundTripAndRemoval) {
  const tavrel_db_obj_ref dir_elem{silo_uuid, oid_of(7000), 2};
  const tbs_oid_s ver = oid_of(7001), elem = oid_of(7002);
  int st = 0;
  uint32_t cover = create_cover_inode(dir_elem, &st);
  ASSERT_EQ(st, 0);
  EXPECT_EQ(create_cover_inode(dir_elem, &st), cover) << "made once";
  std::string container;
  uint32_t file = 0;
  const uint32_t hijacked = TVR_DB_NS_HIJACKED | TVR_DB_NS_HIJACK_PART;
  auto hijack_file = [&] {
    return tvr_db_in_trans(1, [&] {
      file = make_private(TBS_FTYPE_FILE, 7003, &container);
      return tvr_db_link(cover, "h", 1, file, hijacked, nullptr, nullptr, 0, nullptr, nullptr);
    });
  };
  ASSERT_EQ(hijack_file(), 0);
  EXPECT_EQ(tavrel_db_hijack_set(dir_elem, "h", ver, elem), 0);
  tbs_oid_s v{}, e{};
  ASSERT_EQ(tavrel_db_hijack_get(dir_elem, "h", &v, &e), 0);
  EXPECT_TRUE(v == ver && e == elem);
  std::vector<tvr_db_hijack_info> all;
  ASSERT_EQ(tvr_db_in_trans(0, [&] { return tvr_db_find_hijacks(nullptr, &all); }), 0);
  ASSERT_EQ(all.size(), 1u);
  EXPECT_TRUE(all[0].ver == ver && all[0].parent == dir_elem.oid);

  ASSERT_EQ(tavrel_db_unhijack(dir_elem, "h"), 0);
  EXPECT_EQ(tavrel_db_hijack_get(dir_elem, "h", &v, &e), TBS_ST_BAD_ARG);
  {
    dbtest::Messages m;
    EXPECT_EQ(tavrel_db_unhijack(dir_elem, "h"), TBS_ST_NOT_FOUND);
    EXPECT_TRUE(m.contains("View_db_unhijack of h in ")) << m.all();
  }
  uint32_t state = 0;
  ASSERT_EQ(tvr_db_in_trans(0, [&] { return tvr_db_dir_entry_lookup(cover, "h", 1, nullptr, &state); }), 0);
  EXPECT_EQ(state & (hijacked | TVR_DB_NS_HIJACK_OIDS), 0u) << "the file stays, unmarked";

  ASSERT_EQ(tvr_db_in_trans(1, [&] { return tvr_db_dir_entry_state_set(cover, "h", 1, hijacked); }), 0);
  ASSERT_EQ(tavrel_db_hijack_set(dir_elem, "h", ver, elem), 0);
  ASSERT_EQ(tavrel_db_remove_hijack(0, dir_elem, "h"), 0);
  EXPECT_EQ(read_inode(file), TBS_ST_STALE);
  EXPECT_FALSE(fileutl_exists(tavrel_storage_path(container)));
  ASSERT_EQ(tvr_db_in_trans(0, [&] { return tvr_db_dir_entry_lookup(cover, "h", 1, nullptr, nullptr); }),
            TBS_ST_NOT_FOUND);
}

TEST_F(Containers, RenameUniqueCountsUp) {
  uint32_t dir = 0, a1 = 0;
  auto make_a = [&](int n) {
    return tvr_db_in_trans(1, [&] {
      a1 = make_private(TBS_FTYPE_FILE, n);
      return tvr_db_link(dir, "a", 1, a1, TVR_DB_NS_HIJACK_PART, nullptr, nullptr, 0, nullptr, nullptr);
    });
  };
  ASSERT_EQ(tvr_db_in_trans(1, [&] {
              dir = make_private(TBS_FTYPE_DIR, 1);
              return 0;
            }), 0);
  std::string out;
  for (const char* expect : {"a.keep.1", "a.keep.2"}) {
    ASSERT_EQ(make_a(expect[7]), 0);
    ASSERT_EQ(tavrel_db_rename_unique(dir, "a", ".keep", &out), 0);
    EXPECT_EQ(out, expect);
    uint32_t dbid = 0, state = 0;
    tbs_fstat_db_s f;
    ASSERT_EQ(tvr_db_in_trans(0, [&] { return tvr_db_dir_entry_lookup(dir, out.data(), out.size(), &dbid, &state); }), 0);
    EXPECT_EQ(dbid, a1);
    EXPECT_EQ(state & TVR_DB_NS_HIJACK_PART, 0u);
    ASSERT_EQ(read_inode(a1, &f), 0);
    EXPECT_EQ(f.nlink, 1u);
  }
  tbs_fstat_db_s df;
  ASSERT_EQ(read_inode(dir, &df), 0);
  EXPECT_EQ(df.size, 2 * (8 + TVR_DB_DIR_NAME_OVERHEAD));
  dbtest::Messages m;
  EXPECT_EQ(tavrel_db_rename_unique(dir, "a", ".keep", &out), TBS_ST_NOT_FOUND);
  EXPECT_TRUE(m.contains("View_db_unhijack of a in ")) << m.all();
  const std::string long_name(250, 'n');
  ASSERT_EQ(tvr_db_in_trans(1, [&] { return tvr_db_link(dir, long_name.data(), 250, 0, 0, nullptr, nullptr, 0, nullptr, nullptr); }), 0);
  EXPECT_EQ(tavrel_db_rename_unique(dir, long_name.c_str(), ".keep", &out), TBS_ST_TOO_LONG);
  EXPECT_EQ(out, "");
}

}  // namespace
