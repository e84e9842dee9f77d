#include "ns/ns_cache.h"

#include <gtest/gtest.h>

#include <set>

#include "db/db_test_util.h"
#include "ns/ns_lvut.h"
#include "ns/ns_silo.h"

namespace {

TEST(NsCache, SizesAndBudgets) {
  struct Row {
    uint32_t size;
    bool enforce;
    int st;
    uint32_t taken, readdir, obj;
  } rows[] = {
      {0x1000000, false, 0, 0x1000000, 6710886, 200 * ((0x1000000 - 6710886) / 392)},
      {0x3fffff, false, 1072, 0x1000000, 6710886, 200 * ((0x1000000 - 6710886) / 392)},  // refused: unchanged
      {1, true, 0, 0x400000, 1677721, 200 * ((0x400000 - 1677721) / 392)},
      {0, false, 0, 0, 0, 0},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.size);
    EXPECT_EQ(ns_cache_set_size(r.size, r.enforce), r.st);
    ns_cache_budget b = ns_cache_get_budget();
    EXPECT_EQ(b.view_cache_size, r.taken);
    EXPECT_EQ(b.readdir_max, r.readdir);
    EXPECT_EQ(b.obj_cache_max, r.obj);
  }
  // Start raises a size under the minimum.
  ASSERT_EQ(cache_init(), 0);
  EXPECT_EQ(ns_cache_get_budget().view_cache_size, NS_CACHE_MIN_SIZE);
  EXPECT_EQ(ns_cache_get_budget().fstat_max + 0, 144 * ((NS_CACHE_MIN_SIZE - 1677721) / 392));
}

tbs_oid_s oid_of(uint32_t n) {
  tbs_oid_s o{};
  std::memcpy(o.bytes, &n, sizeof n);
  return o;
}

constexpr uint32_t kPrivate = 0x80000000u;  // the top bit marks a view-private dbid

// A started cache with a SILO record of its own (not in silo_tab), every maximum at 0: each allocation
// sweeps while an unreferenced object exists. TearDown checks the invariants once more.
class ObjCache : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(cache_init(), 0);
    ASSERT_EQ(ns_cache_set_size(0, false), 0);
    silo_.uuid.bytes[0] = 7;
  }
  void TearDown() override {
    for (int k = 0; k < NS_HANG_KINDS; k++) ns_cache_set_flusher(static_cast<ns_hanging_kind>(k), {});
    cache_flush_silo(&silo_);
    EXPECT_EQ(obj_cache_stats.count, 0);
    EXPECT_EQ(ns_cache_check(), "");
  }
  obj_entry* alloc(uint32_t dbid, silo_mtype_t mtype) {
    obj_entry* o = obj_alloc(&silo_, dbid, oid_of(dbid), mtype, 1);
    EXPECT_NE(o, nullptr);
    return o;
  }
  bool cached(uint32_t dbid) {
    obj_entry* o = obj_get(&silo_, dbid);
    obj_free(o);
    return o != nullptr;
  }
  view_silo silo_;
};

TEST_F(ObjCache, KindsFollowMtypeAndOwner) {
  struct Row {
    uint32_t dbid;
    silo_mtype_t mtype;
    uint32_t otype;
  } rows[] = {
      {10, 2, CACHE_ELEM_OBJ},           {11, 5, CACHE_ELEM_OBJ},           {12, 1, CACHE_VER_OBJ},
      {13, 3, CACHE_VER_OBJ},            {14, 7, CACHE_VER_OBJ},            {15, 9, CACHE_VER_OBJ},
      {16, 11, CACHE_OTHER_OBJ},         {kPrivate | 1, 19, CACHE_VER_OBJ}, {kPrivate | 2, 26, CACHE_VER_OBJ},
      {kPrivate | 3, 2, CACHE_COVER_OBJ}, {kPrivate | 4, 6, CACHE_COVER_OBJ},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.mtype);
    obj_entry* o = alloc(r.dbid, r.mtype);
    EXPECT_EQ(o->otype, r.otype);
    EXPECT_EQ(o->event_time.tv_sec != 0, (r.dbid & kPrivate) == 0);  // a SILO object's creation time
    obj_free(o);
  }
  EXPECT_EQ(ns_cache_check(), "");
  // Kinds the cache never holds end the process.
  for (uint32_t bad : {0u, 4u, 10u, 19u}) {
    EXPECT_DEATH(obj_alloc(&silo_, bad == 19 ? 20 : 30, oid_of(1), bad, 0), "not cached") << bad;
  }
}

TEST_F(ObjCache, FreedObjectStaysFindableAndCountsReclaim) {
  obj_entry* o = alloc(40, 6);
  obj_free(o);
  EXPECT_EQ(obj_zero_ref_size, 100);
  long reclaims = obj_cache_stats.reclaims, hits = obj_cache_stats.hits;
  obj_entry* again = obj_get_by_oid(&silo_, obj_2oid(o), 0);
  ASSERT_EQ(again, o);
  EXPECT_EQ(obj_cache_stats.reclaims, reclaims + 1);
  EXPECT_EQ(obj_cache_stats.hits, hits + 1);
  EXPECT_EQ(obj_zero_ref_size, 0);
  EXPECT_EQ(obj_get_by_oid(&silo_, obj_2oid(o), 1), nullptr);  // not a cover
  obj_inc_ref(o);  // a reference on a referenced object is no reclaim
  EXPECT_EQ(obj_cache_stats.reclaims, reclaims + 1);
  obj_free(o);
  obj_free(o);
  obj_free(nullptr);
  EXPECT_EQ(ns_cache_check(), "");
  EXPECT_DEATH(obj_free(o), "obj->ref_cnt != 0");
}

TEST_F(ObjCache, SweepTakesOnlyUnreferencedUntouchedObjectsClockwise) {
  // With every maximum at 0 each allocation sweeps until no unreferenced object is left.
  obj_entry* held = alloc(7, 6);
  obj_free(alloc(5, 6));
  obj_free(alloc(7 + 511, 6));  // shares the bucket of the referenced 7
  obj_entry* a = alloc(20, 6);
  EXPECT_EQ(obj_cache_stats.ejects, 2u);
  EXPECT_TRUE(cached(7));
  EXPECT_FALSE(cached(5) || cached(7 + 511));
  EXPECT_EQ(ns_cache_check(), "");
  obj_free(held);
  obj_free(a);
  cache_flush_silo(&silo_);

  // At the smallest budget: fill it with referenced objects and three unreferenced ones, one past it.
  ASSERT_EQ(cache_init(), 0);
  const long room = ns_cache_get_budget().obj_cache_max / 100;
  for (uint32_t d : {5u, 10u, 12u}) obj_free(alloc(d, 6));
  std::vector<obj_entry*> refs;
  for (long i = 0; i < room - 2; i++) refs.push_back(alloc(1000 + i, 6));
  EXPECT_EQ(obj_cache_stats.ejects, 0u);
  // Over budget: the first revolution only takes back second chances, the second takes 5 and stops at
  // the end of its chain, the cache being back at its budget.
  refs.push_back(alloc(20, 6));
  EXPECT_EQ(obj_cache_stats.ejects, 1u);
  EXPECT_FALSE(cached(5));
  // The hand stands after bucket 5. 10 is touched again and keeps its place; 12 goes.
  obj_free(obj_get(&silo_, 10));
  refs.push_back(alloc(30, 6));
  EXPECT_EQ(obj_cache_stats.ejects, 2u);
  EXPECT_FALSE(cached(12));
  EXPECT_TRUE(cached(10));
  EXPECT_EQ(ns_cache_check(), "");
  // Everything referenced: no sweep, the cache grows past its budget.
  refs.push_back(obj_get(&silo_, 10));
  for (uint32_t d = 100; d < 110; d++) refs.push_back(alloc(d, 6));
  EXPECT_EQ(obj_cache_stats.ejects, 2u);
  EXPECT_EQ(obj_cache_stats.count, room + 11);
  EXPECT_EQ(ns_cache_check(), "");
  for (obj_entry* o : refs) obj_free(o);
}

TEST_F(ObjCache, FlushingAnElementTakesItsVersionsAndWhatHangsOnThem) {
  static std::set<obj_entry*> seen;
  seen.clear();
  ns_cache_set_flusher(NS_HANG_FSTAT, {[](obj_entry* o) { seen.insert(o), o->fep = nullptr; }, nullptr});
  obj_entry* elem = alloc(100, 5);
  obj_entry* v1 = alloc(101, 6);
  obj_entry* v2 = alloc(102, 6);
  obj_link_version(elem, v1);
  obj_link_version(elem, v2);
  EXPECT_EQ(elem->ref_cnt, 3);
  EXPECT_EQ(obj_2elem(v1), elem);
  v1->fep = reinterpret_cast<fstat_entry*>(v1);  // an attribute entry the flusher must drop
  obj_free(v1);
  obj_free(v2);
  obj_inc_ref(elem);  // the SILO's root reference
  silo_.root = elem;
  ASSERT_EQ(ns_cache_check(), "");
  unsigned flushes = obj_cache_stats.flushes;
  obj_flush(elem);  // with the caller's reference
  EXPECT_EQ(obj_cache_stats.flushes, flushes + 3);
  EXPECT_EQ(seen, (std::set<obj_entry*>{elem, v1, v2}));
  EXPECT_EQ(silo_.root, nullptr);
  EXPECT_FALSE(cached(100) || cached(101) || cached(102));
  EXPECT_EQ(silo_.obj_count, 0);
}

TEST_F(ObjCache, CoverPairs) {
  // Flushing the cover takes the SILO object with it.
  obj_entry* ver = alloc(200, 6);
  obj_entry* cover = alloc(kPrivate | 200, 6);
  obj_set_cover(ver, cover);
  EXPECT_EQ(obj_2view_obj(ver), cover);
  EXPECT_EQ(obj_2view_obj(cover), cover);
  obj_free(ver);
  ASSERT_EQ(ns_cache_check(), "");
  obj_flush(cover);
  EXPECT_FALSE(cached(200) || cached(kPrivate | 200));
  EXPECT_EQ(obj_zero_ref_size, 0);
  ASSERT_EQ(ns_cache_check(), "");

  // Flushing the SILO object (as a SILO flush does, holding no reference: its cover's is the one left)
  // only lets go of its cover.
  obj_entry* elem = alloc(300, 2);
  cover = alloc(kPrivate | 300, 2);
  obj_set_cover(elem, cover);
  obj_free(cover);
  obj_free(elem);
  obj_flush(elem);
  EXPECT_TRUE(cached(kPrivate | 300));
  EXPECT_EQ(cover->cover_obj, nullptr);
  EXPECT_EQ(cover->ref_cnt, 0);
}

TEST_F(ObjCache, FlushSiloTakesOnlyItsObjectsAndMovesTheLvut) {
  view_silo other;
  other.uuid.bytes[0] = 8;
  obj_entry* mine = alloc(50, 5);
  obj_entry* v = alloc(51, 6);
  obj_link_version(mine, v);
  obj_free(v);
  obj_free(mine);
  obj_entry* theirs = obj_alloc(&other, 50, oid_of(50), 5, 1);  // same dbid, same bucket
  unsigned flushed_before = lvut_stats[3];
  cache_flush_silo(&silo_);
  EXPECT_EQ(lvut_stats[3], flushed_before + 1);
  EXPECT_NE(silo_.lvut.tv_sec, 0);
  EXPECT_EQ(obj_get(&other, 50), theirs);
  EXPECT_EQ(obj_cache_stats.count, 1);
  EXPECT_EQ(ns_cache_check(), "");
  obj_free(theirs);
  obj_free(theirs);
  cache_flush_silo(&other);
}

TEST_F(ObjCache, ManyObjectsStayFindableAndTheNewerOfTwoEqualKeysIsFound) {
  // Enough objects to double the indexes several times, with a duplicate dbid made before the growth.
  obj_entry* older = alloc(42, 6);
  obj_entry* newer = obj_alloc(&silo_, 42, oid_of(4242), 6, 1);
  std::vector<obj_entry*> held;
  for (uint32_t d = 1000; d < 6000; d++) held.push_back(alloc(d, 6));
  EXPECT_EQ(ns_cache_check(), "");
  obj_entry* got = obj_get(&silo_, 42);
  EXPECT_EQ(got, newer);
  obj_free(got);
  for (uint32_t d = 1000; d < 6000; d += 7) {
    obj_entry* by_dbid = obj_get(&silo_, d);
    obj_entry* by_oid = obj_get_by_oid(&silo_, &held[d - 1000]->oid, 0);
    EXPECT_TRUE(by_dbid == held[d - 1000] && by_oid == by_dbid) << d;
    obj_free(by_dbid);
    obj_free(by_oid);
  }
  // Flushes from the middle of chains, then the other copy of 42 is what is left.
  for (size_t i = 0; i < held.size(); i += 2) obj_flush(held[i]);
  obj_flush(newer);
  EXPECT_EQ(ns_cache_check(), "");
  got = obj_get(&silo_, 42);
  EXPECT_EQ(got, older);
  obj_free(got);
  EXPECT_EQ(obj_get(&silo_, 1000), nullptr);
  obj_entry* odd = obj_get(&silo_, 1001);
  EXPECT_EQ(odd, held[1]);
  obj_free(odd);
}

TEST_F(ObjCache, StatisticsSnapshotHasDeltas) {
  obj_entry* o = alloc(60, 6);
  obj_free(o);
  obj_free(obj_get(&silo_, 60));  // hit and reclaim
  obj_get(&silo_, 61);            // miss
  std::vector<ns_statistic> first, second;
  ASSERT_EQ(ns_cache_get_stats(first), 0);
  ASSERT_EQ(first.size(), 41u);
  for (uint32_t i = 0; i < 41; i++) EXPECT_EQ(first[i].id, i);
  EXPECT_EQ(first[24].value, 100u);  // object bytes
  EXPECT_EQ(first[26].value, 2u);    // requests since the last snapshot
  EXPECT_EQ(first[27].value, 1u);
  EXPECT_EQ(first[30].value, 1u);  // reclaims
  EXPECT_EQ(first[40].value, 0u);  // the size of this fixture
  obj_free(obj_get(&silo_, 60));
  ASSERT_EQ(ns_cache_get_stats(second), 0);
  EXPECT_EQ(second[26].value, 1u);
  EXPECT_EQ(second[28].value, 3u);  // total
  EXPECT_EQ(second[31].value, 2u);
  // Code 1 of the settings prints the statistics; the dump names its columns.
  dbtest::Messages m;
  uint32_t print[2] = {1, 0};
  EXPECT_EQ(cache_set_values(1, print), 0);
  print_cache();
  EXPECT_TRUE(m.contains("    Object cache    1 ( 0.1K)   0%,    3 reqs,  67% hits,  67% reclaims\n\t0 flushes, 0 ejects\n") &&
              m.contains(" silo was flushed\n") && m.contains("silo name"))
      << m.all();
}

}  // namespace
