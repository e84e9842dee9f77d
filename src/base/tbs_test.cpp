#include "base/tbs.h"

#include <gtest/gtest.h>

TEST(Tbs, TextRoundTripAndCase) {
  tbs_uuid_s u = tbs_uuid_create();
  std::string s = tbs_uuid_to_str(u);
  ASSERT_EQ(s.size(), 36u);
  EXPECT_EQ(s[8], '-');
  EXPECT_EQ(s[23], '-');
  tbs_uuid_s back{};
  ASSERT_EQ(tbs_str_to_uuid(s, &back), TBS_ST_OK);
  EXPECT_EQ(back, u);
  std::string upper = s;
  for (char& c : upper) c = static_cast<char>(toupper(c));
  tbs_uuid_s back2{};
  ASSERT_EQ(tbs_str_to_uuid(upper, &back2), TBS_ST_OK);
  EXPECT_EQ(back2, u);
}

TEST(Tbs, KnownImage) {
  tbs_oid_s o;
  for (int i = 0; i < 16; i++) o.bytes[i] = static_cast<uint8_t>(i * 17);
  EXPECT_EQ(tbs_oid_to_str(o), "00112233-4455-6677-8899-aabbccddeeff");
  EXPECT_EQ(tbs_oid_to_str(TBS_OID_NULL), "00000000-0000-0000-0000-000000000000");
  EXPECT_TRUE(tbs_oid_is_null(TBS_OID_NULL));
  EXPECT_FALSE(tbs_oid_is_null(o));
}

TEST(Tbs, RejectsMalformedText) {
  const char* bad[] = {
      "",
      "00112233-4455-6677-8899-aabbccddeef",    // short
      "00112233-4455-6677-8899-aabbccddeeff0",  // long
      "0011223304455-6677-8899-aabbccddeeff",   // dash missing
      "00112233-4455-6677-8899-aabbccddeefg",   // non-hex
      "00112233-4455-6677-8899+aabbccddeeff",
      "0011223-34455-6677-8899-aabbccddeeff",   // dash misplaced
  };
  for (const char* b : bad) {
    tbs_oid_s o = tbs_oid_create();
    tbs_oid_s before = o;
    EXPECT_EQ(tbs_str_to_oid(b, &o), TBS_ST_BAD_ARG) << b;
    EXPECT_EQ(o, before) << b;
  }
}
