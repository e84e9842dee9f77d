// Tavrel_Util: message expansion and its bounds, and the text and path helpers other code calls.
// (Status mapping is checked where statuses come back from the module and the view's seams.)
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core/tavrel_msg_table.h"
#include "core/tavrel_status.h"
#include "core/tavrel_util.h"

namespace {

using U = Tavrel_Util;

TEST(TavrelUtil, FormatExpandsAndBounds) {
  const _imsg_message_table_t* t = &_tvr_lib_lib_msg_table;
  std::string out = "old";
  EXPECT_EQ(U::format(out, t, TVR_LIB_CACHE_MINIMUM, 5u, 4194304u), imsg_format(t, TVR_LIB_CACHE_MINIMUM, 5u, 4194304u));
  // Numbers outside the catalogue, and no catalogue at all.
  EXPECT_EQ(U::format(out, t, TVR_LIB_MSG_COUNT), "Internal error: could not load message " + std::to_string(TVR_LIB_MSG_COUNT));
  EXPECT_EQ(U::format(out, t, -1), "Internal error: could not load message -1");
  EXPECT_EQ(U::format(out, nullptr, 7, "x"), "Internal error: could not load message 7");
  // The expansion bound: one byte less than the buffer passes whole, one more is refused.
  const std::string fixed = imsg_format(t, TVR_LIB_NOT_IN_REQUEST, "");
  const std::string fits(U::FORMAT_BUFFER_SIZE - 1 - fixed.size(), 'p');
  U::format(out, t, TVR_LIB_NOT_IN_REQUEST, fits.c_str());
  EXPECT_EQ(out, imsg_format(t, TVR_LIB_NOT_IN_REQUEST, fits.c_str()));
  EXPECT_EQ(out.size(), U::FORMAT_BUFFER_SIZE - 1);
  EXPECT_EQ(U::format(out, t, TVR_LIB_NOT_IN_REQUEST, (fits + "p").c_str()),
            "Internal error: message " + std::to_string(TVR_LIB_NOT_IN_REQUEST) + " is too long");
}

TEST(TavrelUtil, TrimAndPathComparison) {
  for (auto [in, out] : std::vector<std::pair<std::string, std::string>>{{" \t a b \r\n", "a b"}, {" \t\r\n", ""}})
    EXPECT_EQ(U::trim(in), out) << in;
  EXPECT_TRUE(U::contains_pname_separator("a/b"));
  EXPECT_FALSE(U::contains_pname_separator("a\\b"));
  EXPECT_TRUE(U::paths_equal("/a/b", "/a/b"));
  EXPECT_FALSE(U::paths_equal("/a/b", "/a/b/"));
  EXPECT_FALSE(U::paths_equal("/a/B", "/a/b"));
  EXPECT_FALSE(U::paths_equal(std::string("/a\0x", 4), "/a"));
}

}  // namespace
