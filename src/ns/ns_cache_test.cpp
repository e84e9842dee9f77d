#include "ns/ns_cache.h"

#include <gtest/gtest.h>

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

}  // namespace
