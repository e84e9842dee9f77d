#include "ns/tavrel_db_utls.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <mutex>
#include <set>

#include "db/db_test_util.h"
#include "db/tavrel_db_container.h"
#include "db/tvr_db_inode.h"
#include "ns/ns_lookup.h"

namespace {

constexpr uint32_t kViewSide = 0x1000, kWhiteOut = 0x400;

class DbUtls : public dbtest::DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    lock_ = std::unique_lock<Tavrel_Recursive_Mutex>(tavrel_cache_mutex());
    ASSERT_EQ(tavrel_storage_init(), 0);
    ASSERT_EQ(cache_init(), 0);
    uuid_ = tbs_uuid_create();
    ASSERT_EQ(tavrel_db_silo_create(uuid_, "host", "/silo", &row_), 0);
    int st = -1;
    silo_ = silo_create(uuid_, &st);
    ASSERT_NE(silo_, nullptr);
    // A view-private directory to work in.
    tbs_fstat_db_s f{};
    f.type = TBS_FTYPE_DIR;
    f.nlink = 2;
    f.size = TVR_DB_DIR_EMPTY_SIZE;
    uint32_t dbid = 0, gen = 0;
    tbs_oid_s oid = tbs_oid_create();
    ASSERT_EQ(tvr_db_in_trans(1, [&] {
                int s = tvr_db_inode_create(row_, oid, f, 19, &dbid, &gen);
                return s != 0 ? s : tvr_db_dir_create(dbid);
              }),
              0);
    dir_ = obj_alloc(silo_, dbid, oid, 19, gen);
  }
  void TearDown() override {
    obj_free(dir_);
    silo_tab_dispose_all();
    lock_.unlock();
    DbTest::TearDown();
  }
  uint64_t dir_size(obj_entry* dir) {
    tbs_fstat_db_s f{};
    EXPECT_EQ(tavrel_db_dbid2oid(silo_, dir->dbid, nullptr, &f, nullptr, nullptr), 0);
    return f.size;
  }
  obj_entry* create(const std::string& name, uint32_t ftype = TBS_FTYPE_FILE, uint32_t state = 0, int* status = nullptr) {
    int st = -1;
    obj_entry* obj = tavrel_db_create(nullptr, dir_, name.c_str(), ftype, nullptr, "target", state, nullptr, nullptr, &st);
    if (status != nullptr) *status = st;
    return obj;
  }
  std::unique_lock<Tavrel_Recursive_Mutex> lock_;
  tbs_uuid_s uuid_{};
  uint32_t row_ = 0;
  view_silo* silo_ = nullptr;
  obj_entry* dir_ = nullptr;
};

TEST_F(DbUtls, LinkAndUnlinkGiveTheDirectoryItsSizeBack) {
  struct Case {
    size_t len;
    uint32_t ftype;
    int st;
  } cases[] = {{1, TBS_FTYPE_FILE, 0}, {255, TBS_FTYPE_FILE, 0}, {256, TBS_FTYPE_FILE, TBS_ST_TOO_LONG},
               {7, TBS_FTYPE_DIR, 0},  {9, TBS_FTYPE_LINK, 0},     {0, TBS_FTYPE_FILE, TBS_ST_BAD_ARG}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.len);
    const std::string name(c.len, 'n');
    const uint64_t before = dir_size(dir_);
    dbtest::Messages m;
    int st = -1;
    obj_entry* obj = create(name, c.ftype, 0, &st);
    ASSERT_EQ(st, c.st);
    if (c.st != 0) {
      EXPECT_EQ(obj, nullptr);
      EXPECT_EQ(dir_size(dir_), before);
      EXPECT_TRUE(m.contains("View_db_create of")) << m.all();
      continue;
    }
    ASSERT_NE(obj, nullptr);
    EXPECT_EQ(dir_size(dir_), before + c.len + TVR_DB_DIR_NAME_OVERHEAD);
    tbs_fstat_db_s f{};
    ASSERT_EQ(tavrel_db_dbid2oid(silo_, obj->dbid, nullptr, &f, nullptr, nullptr), 0);
    EXPECT_EQ(f.nlink, c.ftype == TBS_FTYPE_DIR ? 2u : 1u);
    char text[300] = "";
    ASSERT_EQ(tavrel_db_cltxt_name(obj, text, sizeof text), 0);
    const std::string container = text;
    struct stat sb;
    if (c.ftype == TBS_FTYPE_FILE) {
      EXPECT_EQ(stat(tavrel_storage_path(container).c_str(), &sb), 0) << container;
    }

    ASSERT_EQ(tavrel_db_unlink(dir_, name.c_str(), kViewSide), 0);
    EXPECT_EQ(dir_size(dir_), before);
    uint32_t dbid = 0, state = 0;
    EXPECT_EQ(tavrel_db_lookup(dir_, name.c_str(), &dbid, &state), TBS_ST_NOT_FOUND);
    // The last name gone, the object and its container go too.
    EXPECT_EQ(tavrel_db_dbid2oid(silo_, obj->dbid, nullptr, nullptr, nullptr, nullptr), TBS_ST_STALE);
    if (c.ftype == TBS_FTYPE_FILE) {
      EXPECT_NE(stat(tavrel_storage_path(container).c_str(), &sb), 0);
    }
    EXPECT_EQ(m.all(), "");  // a look-up that finds nothing is no failure
    obj_free(obj);
  }
}

TEST_F(DbUtls, WhiteOutKeepsTheRowAndStateSetMasks) {
  obj_entry* obj = create("w");
  ASSERT_NE(obj, nullptr);
  const uint64_t with_name = dir_size(dir_);
  ASSERT_EQ(tavrel_db_unlink(dir_, "w", kViewSide | 0x800), 0);
  EXPECT_EQ(dir_size(dir_), with_name);  // the row stays
  uint32_t dbid = 1, state = 0;
  ASSERT_EQ(tavrel_db_lookup(dir_, "w", &dbid, &state), 0);
  EXPECT_EQ(dbid, 0u);
  EXPECT_EQ(state, kViewSide | kWhiteOut | 0x800);
  EXPECT_EQ(tavrel_db_dbid2oid(silo_, obj->dbid, nullptr, nullptr, nullptr, nullptr), TBS_ST_STALE);
  obj_free(obj);

  struct Case {
    uint32_t in, out;
  } cases[] = {{0xffffffffu, 0x200820}, {0x800, 0x800}, {0x20 | 0x1, 0x20}, {0, 0}};
  for (const Case& c : cases) {
    ASSERT_EQ(tavrel_db_state_set(dir_, "w", c.in), 0);
    ASSERT_EQ(tavrel_db_lookup(dir_, "w", &dbid, &state), 0);
    EXPECT_EQ(state, c.out | kViewSide | kWhiteOut) << std::hex << c.in;
  }
  dbtest::Messages m;
  EXPECT_EQ(tavrel_db_state_set(dir_, "absent", 0x20), TBS_ST_NOT_FOUND);
  EXPECT_TRUE(m.contains("View_db_state_set of absent in")) << m.all();
}

TEST_F(DbUtls, CreateReplacesARecordTheCallerKnows) {
  // What the lookup cache answers for "r" in the directory.
  auto cached = [&] {
    int st = -1;
    name_entry* nep = lookup_cm_name(dir_, nullptr, "r", &st);
    EXPECT_NE(nep, nullptr) << st;
    obj_entry* ver = nep != nullptr ? nep->ver : nullptr;
    lookup_nep_free(nep);
    return ver;
  };
  obj_entry* first = create("r");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(cached(), first);
  const uint64_t size = dir_size(dir_);
  int st = -1;
  EXPECT_EQ(create("r", TBS_FTYPE_FILE, 0, &st), nullptr);
  EXPECT_EQ(st, TBS_ST_EXISTS);
  EXPECT_EQ(cached(), first);  // a failed call leaves the caches alone
  obj_entry* second = create("r", TBS_FTYPE_DIR, kViewSide, &st);
  ASSERT_NE(second, nullptr) << st;
  EXPECT_NE(second->dbid, first->dbid);
  uint32_t dbid = 0, state = 0;
  ASSERT_EQ(tavrel_db_lookup(dir_, "r", &dbid, &state), 0);
  EXPECT_EQ(dbid, second->dbid);
  EXPECT_EQ(dir_size(dir_), size);
  EXPECT_EQ(tavrel_db_dbid2oid(silo_, first->dbid, nullptr, nullptr, nullptr, nullptr), TBS_ST_STALE);
  EXPECT_EQ(cached(), second);
  obj_free(first);
  obj_free(second);
}

TEST_F(DbUtls, IdentityAndAttributesOfViewObjects) {
  obj_entry* obj = create("f");
  ASSERT_NE(obj, nullptr);
  tbs_oid_s oid{};
  silo_mtype_t mtype = 0;
  uint32_t gen = 0, dbid = 0;
  ASSERT_EQ(tavrel_db_dbid2oid(silo_, obj->dbid, &oid, nullptr, &mtype, &gen), 0);
  EXPECT_EQ(oid, obj->oid);
  EXPECT_EQ(mtype, 19);
  EXPECT_EQ(gen, obj->gen);
  ASSERT_EQ(tavrel_db_oid2dbid(silo_, &oid, &dbid), 0);
  EXPECT_EQ(dbid, obj->dbid);
  tbs_oid_s unknown = tbs_oid_create();
  EXPECT_EQ(tavrel_db_oid2dbid(silo_, &unknown, &dbid), TBS_ST_NOT_FOUND);
  // A dbid of another SILO is stale for this one.
  tbs_uuid_s other_uuid = tbs_uuid_create();
  ASSERT_EQ(tavrel_db_silo_create(other_uuid, "h", "/o", nullptr), 0);
  int st = -1;
  view_silo* other = silo_create(other_uuid, &st);
  EXPECT_EQ(tavrel_db_dbid2oid(other, obj->dbid, nullptr, nullptr, nullptr, nullptr), TBS_ST_STALE);

  view_set_attr_t sa{};
  sa.mask = VIEW_SATTR_MODE | VIEW_SATTR_SIZE;
  sa.mode = 0x8755;  // only the low 12 bits count
  sa.size = 12345;
  sa.mtime = {7, 8};  // not in the mask
  tbs_fstat_db_s f{};
  ASSERT_EQ(tavrel_db_setattr(obj, &sa, &f), 0);
  EXPECT_EQ(f.mode, 0x755u);
  EXPECT_EQ(f.size, 12345u);
  EXPECT_NE(f.mtime.tv_sec, 7);
  EXPECT_EQ(tavrel_db_set_mtype(obj, 23), 0);
  EXPECT_EQ(tavrel_db_set_mtype(obj, 3), TBS_ST_INTERNAL);
  ASSERT_EQ(tavrel_db_dbid2oid(silo_, obj->dbid, nullptr, &f, &mtype, nullptr), 0);
  EXPECT_EQ(mtype, 23);
  EXPECT_EQ(f.mode, 0x755u);

  obj_entry* link = create("l", TBS_FTYPE_LINK);
  char buf[8];
  size_t len = 0;
  ASSERT_EQ(tavrel_db_readlink(link, buf, sizeof buf, &len), 0);
  EXPECT_STREQ(buf, "target");
  EXPECT_EQ(len, 6u);
  EXPECT_EQ(tavrel_db_readlink(link, buf, 6, &len), TBS_ST_TOO_LONG);
  EXPECT_EQ(tavrel_db_readlink(obj, buf, sizeof buf, &len), TBS_ST_BAD_ARG);
  uint32_t parent = 0;
  ASSERT_EQ(tavrel_db_find_parent(link, &parent, buf, sizeof buf), 0);
  EXPECT_EQ(parent, dir_->dbid);
  EXPECT_STREQ(buf, "l");
  obj_free(link);
  obj_free(obj);
}

TEST_F(DbUtls, ReaddirCookiesContinueAfterTheLastEntry) {
  std::set<std::string> made;
  for (int i = 0; i < 40; i++) {
    std::string name = "entry" + std::to_string(i);
    obj_free(create(name));
    made.insert(name);
  }
  std::multiset<std::string> seen;
  uint32_t cookie = 0;
  char buf[100];  // a few entries per call
  for (int eof = 0, calls = 0; !eof; calls++) {
    ASSERT_LT(calls, 100);
    size_t used = 0;
    ASSERT_EQ(tavrel_db_readdir(dir_, cookie, buf, sizeof buf, &used, &eof), 0);
    for (size_t at = 0; at < used;) {
      view_db_readdir_entry e;
      memcpy(&e, buf + at, VIEW_DB_READDIR_ENTRY_NAME_OFFSET);
      EXPECT_GT(e.offset, 0x3fffffffu);
      EXPECT_GT(e.offset, cookie);
      seen.insert(std::string(buf + at + VIEW_DB_READDIR_ENTRY_NAME_OFFSET, e.name_len));
      cookie = e.offset;
      at += VIEW_DB_READDIR_ENTRY_SIZE(e.name_len);
    }
  }
  EXPECT_EQ(seen, std::multiset<std::string>(made.begin(), made.end()));
  size_t used = 0;
  int eof = 0;
  EXPECT_EQ(tavrel_db_readdir(dir_, 0, buf, 20, &used, &eof), TBS_ST_TOO_LONG);

  // A SILO directory without a cover has no view names; a link makes the cover and pairs it.
  obj_entry* elem = obj_alloc(silo_, 5, tbs_oid_create(), 2, 0);
  obj_entry* ver = obj_alloc(silo_, 6, tbs_oid_create(), 3, 0);
  obj_link_version(elem, ver);
  ASSERT_EQ(tavrel_db_readdir(ver, 0, buf, sizeof buf, &used, &eof), 0);
  EXPECT_EQ(used, 0u);
  EXPECT_EQ(eof, 1);
  ASSERT_EQ(tavrel_db_link(ver, "hijacked", nullptr, 0x200820), 0);
  ASSERT_NE(elem->cover_obj, nullptr);
  uint32_t dbid = 1, state = 0;
  ASSERT_EQ(tavrel_db_lookup(ver, "hijacked", &dbid, &state), 0);
  EXPECT_EQ(state, 0x200820 | kViewSide | kWhiteOut);
  obj_free(ver);
  obj_free(elem);
}

TEST_F(DbUtls, SiloRowsSplitAtTheFirstColon) {
  char host[8], path[16];
  uint32_t dbid = 0;
  ASSERT_EQ(tavrel_db_silo_read(uuid_, &dbid, host, sizeof host, path, sizeof path), 0);
  EXPECT_EQ(dbid, row_);
  EXPECT_STREQ(host, "host");
  EXPECT_STREQ(path, "/silo");
  struct Case {
    std::string host, path;
    size_t host_size;
    int st;
  } cases[] = {{"h", "/a:b", 8, 0}, {"longhost", "/p", 8, TBS_ST_TOO_LONG}, {"", "/p", 8, 0}};
  for (const Case& c : cases) {
    tbs_uuid_s u = tbs_uuid_create();
    ASSERT_EQ(tavrel_db_silo_create(u, c.host.c_str(), c.path.c_str(), nullptr), 0);
    dbtest::Messages m;
    EXPECT_EQ(tavrel_db_silo_read(u, nullptr, host, c.host_size, path, sizeof path), c.st);
    if (c.st == 0) {
      EXPECT_EQ(std::string(host) + ":" + path, c.host + ":" + c.path);
    }
    ASSERT_EQ(tavrel_db_silo_update(u, "x", "/y"), 0);
    ASSERT_EQ(tavrel_db_silo_read(u, nullptr, host, sizeof host, path, sizeof path), 0);
    EXPECT_STREQ(path, "/y");
    ASSERT_EQ(tavrel_db_silo_delete(u), 0);
    EXPECT_EQ(tavrel_db_silo_read(u, nullptr, host, sizeof host, path, sizeof path), TBS_ST_NOT_FOUND);
  }
  tbs_uuid_s bare = tbs_uuid_create();
  uint32_t bare_row = 0;
  ASSERT_EQ(tvr_db_in_trans(1, [&] { return tvr_db_silo_create(bare, "no-colon", &bare_row); }), 0);
  EXPECT_EQ(tavrel_db_silo_read(bare, nullptr, host, sizeof host, path, sizeof path), TBS_ST_INTERNAL);
  EXPECT_EQ(tavrel_db_silo_create(uuid_, "h", "/p", nullptr), TBS_ST_EXISTS);
  dbtest::Messages m;
  EXPECT_EQ(tavrel_db_silo_delete(uuid_), TBS_ST_NOT_EMPTY);  // the directory's inode refers to it
  EXPECT_EQ(m.all(), "");
}

}  // namespace
