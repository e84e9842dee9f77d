#include "ns/ns_fstat.h"

#include <gtest/gtest.h>

#include <cstring>

#include "db/db_test_util.h"
#include "db/tvr_db_silo.h"
#include "ns/ns_locate.h"
#include "ns/ns_lookup.h"
#include "ns/ns_lvut.h"

namespace {

constexpr uint32_t kPrivate = 0x80000000u;

credutl_sid_t sid(uint8_t b) { return credutl_sid_t{1, {b}}; }

tbs_fstat_db_s attrs(uint32_t type, uint32_t mode, uint32_t nlink = 1, uint64_t size = 0, long mtime = 0) {
  tbs_fstat_db_s f{};
  f.type = type, f.mode = mode, f.nlink = nlink, f.size = size, f.mtime.tv_sec = mtime;
  f.owner = sid(1), f.group = sid(2);
  return f;
}

// A SILO of the view database; objects are made in the cache with their attributes given, so nothing
// here reads the database for them.
class NsFstat : public dbtest::DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    ASSERT_EQ(cache_init(), 0);
    tbs_uuid_s uuid = tbs_uuid_create();
    uint32_t d = 0;
    int st = tvr_db_in_trans(1, [&] { return tvr_db_silo_create(uuid, "host:/silo", &d); });
    ASSERT_NE(silo_ = silo_find(uuid, &st), nullptr);
  }
  void TearDown() override {
    silo_tab_dispose_all();
    EXPECT_EQ(fstat_cache_stats.size, 0);
    EXPECT_EQ(ns_cache_check(), "");
    DbTest::TearDown();
  }
  obj_entry* obj(uint32_t dbid, silo_mtype_t mtype, const tbs_fstat_db_s* f = nullptr) {
    tbs_oid_s oid{};
    std::memcpy(oid.bytes, &dbid, sizeof dbid);
    obj_entry* o = obj_alloc(silo_, dbid, oid, mtype, 7);
    if (f != nullptr) fstat_cache_update_obj(o, f);
    return o;
  }
  view_silo* silo_ = nullptr;
};

TEST_F(NsFstat, LvutMovesOnEveryLossOrChangeOfSiloAttributes) {
  enum Action { EVICT, FLUSH, UPDATE_EXISTING, UPDATE_NEW };
  struct Row {
    uint32_t dbid;
    silo_mtype_t mtype;
    Action action;
    int reason;  // -1: the LVUT stays
  } rows[] = {{60, 6, EVICT, 0},           {61, 6, FLUSH, 0},           {62, 6, UPDATE_EXISTING, 1},
              {63, 6, UPDATE_NEW, -1},     {64, 3, UPDATE_EXISTING, -1}, {65, 2, UPDATE_EXISTING, -1},
              {66, 3, EVICT, 0},           {67, 7, UPDATE_EXISTING, 1},  {kPrivate | 68, 19, EVICT, -1},
              {kPrivate | 69, 23, FLUSH, -1}, {kPrivate | 70, 26, UPDATE_EXISTING, -1}};
  const tbs_fstat_db_s f = attrs(1, 0644);
  for (const Row& r : rows) {
    SCOPED_TRACE(r.dbid & 0xff);
    ASSERT_EQ(ns_cache_set_size(NS_CACHE_MIN_SIZE, false), 0);
    obj_entry* o = obj(r.dbid, r.mtype, r.action == UPDATE_NEW ? nullptr : &f);
    obj_entry* other = nullptr;
    unsigned before[NS_LVUT_REASONS];
    std::memcpy(before, lvut_stats, sizeof before);
    const struct timeval lvut = silo_->lvut;
    if (r.action == EVICT) {  // no room: a view-private object's new entry pushes the older one out
      ASSERT_EQ(ns_cache_set_size(0, false), 0);
      other = obj(kPrivate | 999, 19, &f);
      EXPECT_EQ(o->fep, nullptr);
      EXPECT_EQ(fstat_cache_stats.count, 1);
    } else if (r.action == FLUSH) {
      fstat_flush(o);
    } else {
      fstat_cache_update_obj(o, &f);
    }
    for (int k = 0; k < NS_LVUT_REASONS; k++) EXPECT_EQ(lvut_stats[k], before[k] + (k == r.reason)) << k;
    EXPECT_EQ(lvut.tv_sec != silo_->lvut.tv_sec || lvut.tv_usec != silo_->lvut.tv_usec, r.reason >= 0);
    if (other != nullptr) obj_flush(other);
    obj_flush(o);
  }
}

TEST_F(NsFstat, CoverMergesOutsideHistoryMode) {
  tbs_fstat_db_s vf = attrs(1, 0444, 1, 200, 60), cf = attrs(1, 0640, 2, 5, 70);
  vf.atime.tv_sec = 90;
  cf.owner = sid(9), cf.group = CREDUTL_SID_DONTCARE;
  obj_entry* elem = obj(10, 5, &vf);
  obj_entry* ver = obj(11, 6, &vf);
  obj_link_version(elem, ver);
  obj_entry* cover = obj(kPrivate | 10, 5, &cf);
  obj_set_cover(elem, cover);
  view_vstat_t v;
  ASSERT_EQ(fstat_vstat(ver, 0, &v), 0);
  EXPECT_EQ(v.fstat.mode, 0640u);
  EXPECT_EQ(v.fstat.owner.bytes[0], 9);
  EXPECT_EQ(v.fstat.group.bytes[0], 2);  // don't-care keeps the object's
  EXPECT_EQ(v.fstat.nlink, 3u);
  EXPECT_EQ(v.fstat.size, 205u);
  EXPECT_EQ(v.fstat.mtime.tv_sec, 70);  // the later of each time
  EXPECT_EQ(v.fstat.atime.tv_sec, 90);
  EXPECT_TRUE(v.elem_oid == elem->oid && v.obj_oid == ver->oid && v.mtype == 6);
  // History mode: the object alone; a version's inode number is its dbid, an element a directory.
  ASSERT_EQ(fstat_vstat(ver, 1, &v), 0);
  EXPECT_TRUE(v.fstat.size == 200 && v.fstat.ino == 11 && v.fstat.mode == 0444);
  ASSERT_EQ(fstat_vstat(elem, 1, &v), 0);
  EXPECT_TRUE(v.fstat.type == 2 && v.fstat.mode == 0555 && v.elem_oid == TBS_OID_NULL);
  for (obj_entry* o : {ver, elem, cover}) obj_free(o);
}

TEST_F(NsFstat, AccessModes) {
  struct Row {
    uint32_t type, mode;
    int acl_mode, need_dir, want;
  } rows[] = {{2, 0755, 4, 1, 0},    {2, 0755, 1, 0, 0},    {2, 0555, 5, 1, 1063}, {2, 0555, 6, 1, 1063},
              {2, 0355, 3, 0, 1063}, {2, 0755, 2, 0, 0},    {1, 0, 3, 0, 0},       {1, 0644, 4, 1, 1070},
              {5, 0, 3, 0, 1063},    {5, 0777, 3, 0, 0},    {2, 0777, 7, 0, 1072}, {2, 0677, 1, 0, 1063}};
  uint32_t n = 100;
  for (const Row& r : rows) {
    SCOPED_TRACE(n);
    tbs_fstat_db_s f = attrs(r.type, r.mode);
    obj_entry* o = obj(kPrivate | n++, 19, &f);
    view_vstat_t v{};
    EXPECT_EQ(acl_check_ext(o, 0, &v, nullptr, r.acl_mode, r.need_dir), r.want);
    EXPECT_EQ(v.fstat.mode, r.mode);
    obj_flush(o);
  }
}

TEST_F(NsFstat, InvalidatingAnObjectDropsItsObjectsAndTheSilosNotFoundNames) {
  const tbs_fstat_db_s f = attrs(2, 0755);
  obj_entry* elem = obj(30, 2, &f);
  obj_entry* dir = obj(31, 3, &f);
  obj_link_version(elem, dir);
  obj_entry* cover = obj(kPrivate | 30, 2, &f);
  obj_set_cover(elem, cover);
  obj_entry* other_dir = obj(34, 3, &f);
  obj_entry* file = obj(33, 6, &f);
  // In a directory that stays: a name of a real object survives, the cached ENOENT goes.
  obj_inc_ref(file);
  lookup_nep_free(lookup_add_nep(other_dir, "here", file, 0, 0, 1));
  lookup_nep_free(lookup_add_nep(other_dir, "missing", nullptr, 0, 0, 1));
  for (obj_entry* o : {elem, dir, cover, file, other_dir}) obj_free(o);
  ASSERT_EQ(name_cache_stats.count, 2);

  EXPECT_EQ(locate_invalidate(9, &silo_->uuid, &file->oid, nullptr, 0), TBS_ST_BAD_ARG);
  EXPECT_EQ(locate_invalidate(VIEW_INVALIDATE_OBJ, &silo_->uuid, &elem->oid, nullptr, 0), 0);
  for (uint32_t gone : {30u, kPrivate | 30u, 31u}) EXPECT_EQ(obj_get(silo_, gone), nullptr) << gone;
  EXPECT_EQ(name_cache_stats.count, 1);
  obj_entry* still = obj_get(silo_, 33);
  EXPECT_EQ(still, file);
  obj_free(still);
  const unsigned flushed = lvut_stats[3];
  EXPECT_EQ(locate_invalidate(VIEW_INVALIDATE_SILO, &silo_->uuid, nullptr, nullptr, 0), 0);
  EXPECT_TRUE(obj_get(silo_, 33) == nullptr && name_cache_stats.count == 0 && lvut_stats[3] == flushed + 1);
}

}  // namespace
