// Tavrel_Util: status mapping, message expansion and its bounds, and the path and text helpers.
#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "core/tavrel_msg_table.h"
#include "core/tavrel_status.h"
#include "core/tavrel_util.h"

namespace {

using U = Tavrel_Util;

TEST(TavrelUtil, StatusMapping) {
  const struct {
    int in, out;
  } cases[] = {{0, 0}, {TBS_ST_NOT_FOUND, TAVREL_ST_NOT_FOUND}, {TBS_ST_NO_SUCH_NAME, TAVREL_ST_NOT_FOUND},
               {TBS_ST_INTERNAL, TAVREL_ST_FAILURE}};
  for (auto& c : cases) EXPECT_EQ(U::tbs_to_tavrel_status(c.in), c.out) << c.in;
}

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
  EXPECT_EQ(U::snprintf("%s-%d", "a", 7), "a-7");
  EXPECT_EQ(U::snprintf("%s", std::string(200000, 'x').c_str()), "Internal error: message -1 is too long");
  EXPECT_EQ(U::snprintf("%s", std::string(600, 'y').c_str()), std::string(600, 'y'));
}

// In-place helpers as functions, so that every text helper fits one table.
std::string in_place(void (*fn)(std::string&), std::string s) {
  fn(s);
  return s;
}

TEST(TavrelUtil, TextAndPathHelpers) {
  using Fn = std::function<std::string(const std::string&)>;
  const Fn trim = [](const std::string& s) { return U::trim(s); };
  const Fn trim_in_place = [](const std::string& s) { return in_place(U::trim_in_place, s); };
  const Fn strip_crlf = [](const std::string& s) { return in_place(U::strip_crlf, s); };
  const Fn sanitize = [](const std::string& s) { return U::sanitize_path(s); };
  const Fn parent = [](const std::string& s) { return U::parent(s); };
  const Fn lead = [](const std::string& s) { return in_place(U::strip_leading_separators, s); };
  const Fn trail = [](const std::string& s) { return in_place(U::strip_trailing_pathname_separator, s); };
  const Fn server = [](const std::string& s) { return U::server_from_url(s); };
  const Fn quote = [](const std::string& s) { return U::quote_if_whitespace(s.c_str()); };
  const struct {
    const Fn& fn;
    std::string in, out;
  } cases[] = {
      {trim, " \t a b \r\n", "a b"}, {trim, " \t\r\n", ""}, {trim_in_place, "\n x \f", "x"}, {trim_in_place, "   ", ""},
      {strip_crlf, "line\r\n\n", "line"}, {strip_crlf, "\r\nmid\r\n x", "\r\nmid\r\n x"},
      {sanitize, "//a//./b/", "/a/b"}, {sanitize, "./a", "a"}, {sanitize, "a/.", "a"}, {sanitize, "/./", "/"},
      {sanitize, "", ""}, {sanitize, "a/../b", "a/../b"}, {sanitize, ".hidden/x", ".hidden/x"},
      {parent, "/a/b", "/a"}, {parent, "/a", ""}, {parent, "a", ""}, {parent, "a/b/", "a/b"}, {parent, "", ""},
      {lead, "///a/b", "a/b"}, {lead, "///", ""}, {trail, "/a/b///", "/a/b"}, {trail, "///", "/"},
      {server, "https://host:8443/x/tavrel", "host:8443/x"}, {server, "https://host", "host"},
      {server, "host", "host"}, {server, "a/", ""},
      {quote, "plain", "plain"}, {quote, "two words", "\"two words\""}, {quote, "tab\there", "\"tab\there\""},
  };
  for (auto& c : cases) EXPECT_EQ(c.fn(c.in), c.out) << c.in;
  EXPECT_EQ(U::quote_if_whitespace(nullptr), "");

  for (const char* yes : {"0", "4194304"}) EXPECT_TRUE(U::is_number(yes)) << yes;
  for (const char* no : {"", " 1", "1 ", "-1", "+1", "1a", "0x10", "\xd9\xa1"}) EXPECT_FALSE(U::is_number(no)) << no;
  EXPECT_TRUE(U::contains_pname_separator("a/b"));
  EXPECT_FALSE(U::contains_pname_separator("a\\b"));
  EXPECT_TRUE(U::is_absolute_view_rel_path("/a"));
  EXPECT_FALSE(U::is_absolute_view_rel_path("a/b"));
  EXPECT_FALSE(U::is_absolute_view_rel_path(""));
  EXPECT_TRUE(U::paths_equal("/a/b", "/a/b"));
  EXPECT_FALSE(U::paths_equal("/a/b", "/a/b/"));
  EXPECT_FALSE(U::paths_equal("/a/B", "/a/b"));
  EXPECT_FALSE(U::paths_equal(std::string("/a\0x", 4), "/a"));
  EXPECT_EQ(U::compare_no_case("Abc", "aBC"), 0);
  EXPECT_LT(U::compare_no_case("ab", "ABC"), 0);
  EXPECT_GT(U::compare_no_case("b", "A"), 0);

  const struct {
    std::string text, from, to, out;
    int count;
  } reps[] = {
      {"a.b.c", ".", "/", "a/b/c", 2},
      {"aaa", "aa", "b", "ba", 1},
      {"aa", "a", "aa", "aaaa", 2},  // the replacement is not searched again
      {"abc", "", "x", "abc", 0},
      {"", "a", "b", "", 0},
  };
  for (auto& r : reps) {
    std::string s = r.text;
    EXPECT_EQ(U::replace_all(s, r.from, r.to), r.count) << r.text;
    EXPECT_EQ(s, r.out) << r.text;
  }
  const struct {
    std::string text, sep;
    std::vector<std::string> pieces;
  } toks[] = {
      {"abc", ",", {"abc"}},  // separator absent: one piece
      {"a,,b,", ",", {"a", "", "b"}},
      {",a", ",", {"", "a"}},
      {"a::b:c", "::", {"a", "b:c"}},
      {"", ",", {}},
      {"a,b", "", {"a,b"}},
  };
  for (auto& c : toks) {
    std::vector<std::string> out;
    U::tokenize(c.text, out, c.sep);
    EXPECT_EQ(out, c.pieces) << c.text;
  }
}

TEST(TavrelUtil, Directories) {
  char tmpl[] = "/tmp/tavrel-util-XXXXXX";
  const std::string d = mkdtemp(tmpl);
  int empty = -1;
  EXPECT_EQ(U::is_dir_empty(d, empty), 0);
  EXPECT_EQ(empty, 1);
  std::ofstream(d + "/.x") << "x";
  EXPECT_EQ(U::is_dir_empty(d, empty), 0);
  EXPECT_EQ(empty, 0);
  empty = -1;
  EXPECT_EQ(U::is_dir_empty(d + "/missing", empty), TAVREL_ST_LIST_DIR);
  EXPECT_EQ(U::is_dir_empty(d + "/.x", empty), TAVREL_ST_LIST_DIR);  // not a directory
  EXPECT_EQ(empty, -1);

  // A marker in an ancestor is found; one in the path itself or below it is not.
  const std::string marker = ".tavrel-util-marker-" + std::to_string(getpid());
  ASSERT_EQ(system(("mkdir -p " + d + "/a/b/c").c_str()), 0);
  EXPECT_FALSE(U::find_in_ancestors(d + "/a/b/c", marker));
  std::ofstream(d + "/a/b/c/" + marker) << "";
  EXPECT_FALSE(U::find_in_ancestors(d + "/a/b/c", marker));
  std::ofstream(d + "/a/" + marker) << "";
  EXPECT_TRUE(U::find_in_ancestors(d + "/a/b/c", marker));
  EXPECT_TRUE(U::find_in_ancestors(d + "/a/b/c/", marker));
  EXPECT_FALSE(U::find_in_ancestors(d + "/a", marker));
  EXPECT_FALSE(U::find_in_ancestors("/", marker));
  EXPECT_EQ(system(("rm -rf '" + d + "'").c_str()), 0);
}

TEST(TavrelUtil, IdentitiesAndSmallParsers) {
  tbs_uuid_s u;
  tbs_oid_s o;
  ASSERT_EQ(tbs_str_to_uuid("01234567-89ab-cdef-0123-456789abcdef", &u), 0);
  ASSERT_EQ(tbs_str_to_oid("fedcba98-7654-3210-fedc-ba9876543210", &o), 0);
  const std::string at = "@replicauuid:01234567-89ab-cdef-0123-456789abcdef";
  EXPECT_EQ(U::uuid_to_location(u), at.substr(1));
  EXPECT_EQ(U::uuid_oid_to_location(u, o), "oid:fedcba98-7654-3210-fedc-ba9876543210" + at);
  EXPECT_EQ(U::uuid_dbid_to_location(u, -2147483600L), "-2147483600" + at);

  const std::pair<const char*, HijackTreatment> treatments[] = {
      {"keep", HIJACK_TREATMENT_KEEP}, {"overwrite", HIJACK_TREATMENT_OVERWRITE}, {"rename", HIJACK_TREATMENT_RENAME}};
  for (auto [text, want] : treatments) {
    HijackTreatment h = want == HIJACK_TREATMENT_RENAME ? HIJACK_TREATMENT_KEEP : HIJACK_TREATMENT_RENAME;
    EXPECT_TRUE(U::parse_hijack_treatment(text, h)) << text;
    EXPECT_EQ(h, want) << text;
  }
  for (const char* bad : {"", "Keep", "keep ", "delete"}) {
    HijackTreatment h = HIJACK_TREATMENT_RENAME;
    EXPECT_FALSE(U::parse_hijack_treatment(bad, h)) << bad;
    EXPECT_EQ(h, HIJACK_TREATMENT_RENAME);
  }

  struct in_addr a;
  EXPECT_EQ(U::set_socket_addr("127.0.0.1", &a), 0);
  EXPECT_EQ(ntohl(a.s_addr), 0x7f000001u);
  for (const char* bad : {"", "localhost", "1.2.3", "256.1.1.1", "1.2.3.4 "})
    EXPECT_EQ(U::set_socket_addr(bad, &a), TBS_ST_BAD_ARG) << bad;
  EXPECT_EQ(U::set_socket_addr(nullptr, &a), TBS_ST_BAD_ARG);
}

TEST(TavrelUtil, ViewTimeIsStrictlyIncreasing) {
  // Many threads asking at once never get the same time twice, and each sees its own times rise.
  constexpr int kThreads = 4, kEach = 5000;
  std::vector<std::vector<long long>> seen(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([&seen, t] {
      for (int i = 0; i < kEach; i++) {
        struct timeval tv = U::get_view_time();
        seen[t].push_back(tv.tv_sec * 1000000LL + tv.tv_usec);
      }
    });
  }
  for (auto& th : threads) th.join();
  std::set<long long> all;
  for (auto& v : seen) {
    for (size_t i = 1; i < v.size(); i++) EXPECT_LT(v[i - 1], v[i]);
    all.insert(v.begin(), v.end());
  }
  EXPECT_EQ(all.size(), static_cast<size_t>(kThreads * kEach));
}

}  // namespace
