// The metadata file's reader: trimming, the split at the first "=", odd lines and the bounds.
#include "proto/view_metadata.h"

#include <gtest/gtest.h>

namespace {

// The fields as "key=value" joined with "|".
std::string shown(const std::vector<View_Metadata_Field>& fields) {
  std::string out;
  for (const auto& f : fields) out += (out.empty() ? "" : "|") + f.key + "=" + f.value;
  return out;
}

TEST(ViewMetadata, LinesTrimsAndBounds) {
  const std::string longest(VIEW_METADATA_MAX_LINE - 2, 'v'), over(VIEW_METADATA_MAX_LINE + 1, 'v');
  struct {
    const char* what;
    std::string text, fields;
    size_t too_long;
  } cases[] = {
      {"empty", "", "", 0},
      {"plain, last line unended", "versionid=1.0\nview-uuid=u", "versionid=1.0|view-uuid=u", 0},
      {"white space around key and value", " \tserver-tag \v= v1 \f\r\n", "server-tag=v1", 0},
      {"split at the first =", "server-url=http://h/?a=b\n", "server-url=http://h/?a=b", 0},
      {"inner spaces kept", "cltxt-cache-dir = /a b/c \n", "cltxt-cache-dir=/a b/c", 0},
      {"empty key and empty value", "=x\nk=\n", "=x|k=", 0},
      {"lines without = and blank lines", "garbage\n\n  \r\nk=v\n", "k=v", 0},
      {"repeated key kept in order", "k=1\nk=2\n", "k=1|k=2", 0},
      {"a line at the limit", "k=" + longest + "\n", "k=" + longest, 0},
      {"an overlong line skipped", "a=1\nk=" + over + "\nb=2", "a=1|b=2", 1},
      {"NUL inside a value", std::string("k=a\0b\n", 6), std::string("k=a\0b", 5), 0},
  };
  for (const auto& c : cases) {
    std::vector<View_Metadata_Field> fields;
    size_t too_long = 99;
    ASSERT_TRUE(view_metadata_parse(c.text, &fields, &too_long)) << c.what;
    EXPECT_EQ(shown(fields), c.fields) << c.what;
    EXPECT_EQ(too_long, c.too_long) << c.what;
  }

  std::vector<View_Metadata_Field> fields{{"left", "over"}};
  EXPECT_TRUE(view_metadata_parse(std::string(VIEW_METADATA_MAX_FILE, '\n'), &fields));
  EXPECT_TRUE(fields.empty());
  fields = {{"left", "over"}};
  EXPECT_FALSE(view_metadata_parse("k=v\n" + std::string(VIEW_METADATA_MAX_FILE, '\n'), &fields));
  EXPECT_TRUE(fields.empty());

  // The last of a repeated key wins; an absent key leaves the value alone.
  ASSERT_TRUE(view_metadata_parse("k=1\nother=x\nk=2\n", &fields));
  std::string value = "unchanged";
  EXPECT_TRUE(view_metadata_find(fields, "k", &value));
  EXPECT_EQ(value, "2");
  value = "unchanged";
  EXPECT_FALSE(view_metadata_find(fields, "K", &value));
  EXPECT_EQ(value, "unchanged");
}

}  // namespace
