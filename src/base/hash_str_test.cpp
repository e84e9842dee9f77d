#include "base/hash_str.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(HashStr, EnterLookupFreeOnFixedAndDynamicTables) {
  for (bool dynamic : {false, true}) {
    SCOPED_TRACE(dynamic ? "dynamic" : "fixed");
    hash_str_table* t = hash_str_create(100, 4, 0);
    ASSERT_NE(t, nullptr);
    if (dynamic) {
      ASSERT_EQ(hash_set_dynamic(t, 100), 0);
      EXPECT_EQ(hash_str_buckets(t), 0u) << "an empty dynamic table owns no buckets";
    }
    int a = 1, b = 2;
    EXPECT_EQ(hash_str_enter(t, "a", &a), 0);
    EXPECT_EQ(hash_str_enter(t, "a", &b), 1067) << "a present key keeps its mapping";
    EXPECT_EQ(hash_str_lookup(t, "a"), &a);
    EXPECT_EQ(hash_str_lookup(t, "b"), nullptr);
    EXPECT_EQ(hash_str_lookup(t, ""), nullptr);
    EXPECT_EQ(hash_str_enter(t, "", &b), 0) << "the empty text is a key like any other";
    EXPECT_EQ(hash_str_lookup(t, ""), &b);
    void* out = nullptr;
    EXPECT_EQ(hash_str_free(t, "a", &out), 0);
    EXPECT_EQ(out, &a);
    EXPECT_EQ(hash_str_free(t, "a"), 1002);
    EXPECT_EQ(hash_str_lookup(t, "a"), nullptr);
    EXPECT_EQ(hash_str_count(t), 1u);
    EXPECT_EQ(hash_str_enter(t, "a", &b), 0) << "a freed key can be entered again";
    EXPECT_EQ(hash_str_lookup(t, "a"), &b);
    EXPECT_EQ(hash_str_enter(t, nullptr, &b), 1072);
    hash_str_delete(t);
  }
  EXPECT_EQ(hash_str_create(10, 1, 1), nullptr) << "unknown flags are refused";
}

TEST(HashStr, DynamicTableGrowsWithItsCountAndKeepsEveryKey) {
  hash_str_table* t = hash_str_create(100, 4, 0);
  ASSERT_EQ(hash_set_dynamic(t, 100), 0);
  std::vector<std::string> keys;
  for (int i = 0; i < 20000; i++) keys.push_back("name-" + std::to_string(i));
  for (size_t i = 0; i < keys.size(); i++) ASSERT_EQ(hash_str_enter(t, keys[i].c_str(), &keys[i]), 0);
  EXPECT_EQ(hash_str_count(t), 20000u);
  EXPECT_GE(hash_str_buckets(t), 20000u / 4) << "grown to keep the average chain at the load";
  EXPECT_LE(hash_str_max_chain(t), 20u);
  for (size_t i = 0; i < keys.size(); i++) ASSERT_EQ(hash_str_lookup(t, keys[i].c_str()), &keys[i]);
  // Lookups compare texts, not pointers.
  std::string copy = keys[777];
  EXPECT_EQ(hash_str_lookup(t, copy.c_str()), &keys[777]);
  for (size_t i = 0; i < keys.size(); i += 2) ASSERT_EQ(hash_str_free(t, keys[i].c_str()), 0);
  for (size_t i = 0; i < keys.size(); i++)
    ASSERT_EQ(hash_str_lookup(t, keys[i].c_str()), i % 2 ? &keys[i] : nullptr) << i;
  EXPECT_EQ(hash_set_dynamic(t, 100), 1072) << "only an empty table changes mode";
  hash_str_clear(t);
  EXPECT_EQ(hash_str_count(t), 0u);
  EXPECT_EQ(hash_str_buckets(t), 0u) << "a cleared dynamic table gives its buckets back";
  EXPECT_EQ(hash_str_lookup(t, keys[1].c_str()), nullptr);
  hash_str_delete(t);
  hash_str_delete(nullptr);
}

}  // namespace
