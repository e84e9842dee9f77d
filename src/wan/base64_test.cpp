#include "wan/base64.h"

#include <gtest/gtest.h>

namespace {

TEST(Base64, KnownVectors) {
  struct Case {
    std::string plain, coded;
  };
  for (const Case& c : {Case{"", ""}, Case{"f", "Zg=="}, Case{"fo", "Zm8="}, Case{"foo", "Zm9v"}, Case{"foob", "Zm9vYg=="},
                        Case{"fooba", "Zm9vYmE="}, Case{"foobar", "Zm9vYmFy"},
                        Case{std::string("\0\xff\xfe", 3), "AP/+"}, Case{"\xfb\xff", "+/8="}}) {
    EXPECT_EQ(Base64::encode(c.plain), c.coded);
    EXPECT_EQ(Base64::decode(c.coded), c.plain);
  }
}

TEST(Base64, ForgivingDecode) {
  EXPECT_EQ(Base64::decode("Zm9v\r\nYmFy"), "foobar");   // line ends and other strangers are skipped
  EXPECT_EQ(Base64::decode("Zm9v*YmFy!"), "foobar");
  EXPECT_EQ(Base64::decode(" /8="), Base64::decode("+/8="));  // a blank is a "+" that went through a form
  EXPECT_EQ(Base64::decode("Zm9vYg==Zm9v"), "foob");      // "=" ends the data
  EXPECT_EQ(Base64::decode("Zg"), "f");                   // padding may be missing
  EXPECT_EQ(Base64::decode("Z"), std::nullopt);           // six bits make no byte
  EXPECT_EQ(Base64::decode("Zm9vY"), std::nullopt);
  EXPECT_EQ(Base64::decode("Zm9vY="), std::nullopt);
}

}  // namespace
