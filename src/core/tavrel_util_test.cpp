// Tavrel_Util: status mapping, message expansion and its bounds, and the path and text helpers.
#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "base/sysutl.h"
#include "core/tavrel_msg_table.h"
#include "core/tavrel_status.h"
#include "core/tavrel_util.h"

namespace {

class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/tavrel-util-XXXXXX";
    path = mkdtemp(tmpl);
  }
  ~TempDir() { EXPECT_EQ(std::system(("rm -rf '" + path + "'").c_str()), 0); }
  std::string path;
};

TEST(TavrelUtil, StatusMapping) {
  struct {
    int in, out;
  } cases[] = {{0, 0},
               {TBS_ST_NOT_FOUND, TAVREL_ST_NOT_FOUND},
               {TBS_ST_NO_SUCH_NAME, TAVREL_ST_NOT_FOUND},
               {TBS_ST_INTERNAL, TAVREL_ST_FAILURE},
               {TBS_ST_REVALIDATE, TAVREL_ST_FAILURE},
               {TBS_ST_STALE, TAVREL_ST_FAILURE},
               {-1, TAVREL_ST_FAILURE}};
  for (auto& c : cases) EXPECT_EQ(Tavrel_Util::tbs_to_tavrel_status(c.in), c.out) << c.in;
}

TEST(TavrelUtil, FormatExpandsAndBounds) {
  std::string out = "old";
  EXPECT_EQ(Tavrel_Util::format(out, &_tvr_lib_lib_msg_table, TVR_LIB_PARSE_ERROR, "/v"), "Parse error in \"/v\".\n");
  EXPECT_EQ(Tavrel_Util::format(out, &_tvr_lib_lib_msg_table, TVR_LIB_NO_VIEW_INFO), "View information not found.");
  EXPECT_EQ(Tavrel_Util::format(out, &_tvr_lib_lib_msg_table, TVR_LIB_CACHE_MINIMUM, 5u, 4194304u),
            "Unable to set cache size to 5: minimum size is 4194304\n");
  // Numbers outside the catalogue, and no catalogue at all.
  EXPECT_EQ(Tavrel_Util::format(out, &_tvr_lib_lib_msg_table, TVR_LIB_MSG_COUNT), "Internal error: could not load message 132");
  EXPECT_EQ(Tavrel_Util::format(out, &_tvr_lib_lib_msg_table, -1), "Internal error: could not load message -1");
  EXPECT_EQ(Tavrel_Util::format(out, nullptr, 7, "x"), "Internal error: could not load message 7");
  // The expansion bound: 153599 bytes pass whole, one more is refused.
  const std::string fixed = "\"\" not found in XML request.\n";
  const std::string fits(Tavrel_Util::FORMAT_BUFFER_SIZE - 1 - fixed.size(), 'p');
  Tavrel_Util::format(out, &_tvr_lib_lib_msg_table, TVR_LIB_NOT_IN_REQUEST, fits.c_str());
  EXPECT_EQ(out.size(), Tavrel_Util::FORMAT_BUFFER_SIZE - 1);
  EXPECT_EQ(out, "\"" + fits + fixed.substr(1));
  const std::string over = fits + "p";
  EXPECT_EQ(Tavrel_Util::format(out, &_tvr_lib_lib_msg_table, TVR_LIB_NOT_IN_REQUEST, over.c_str()),
            "Internal error: message 27 is too long");
  EXPECT_EQ(Tavrel_Util::snprintf("%s-%d", "a", 7), "a-7");
  EXPECT_EQ(Tavrel_Util::snprintf("%s", std::string(200000, 'x').c_str()), "Internal error: message -1 is too long");
  EXPECT_EQ(Tavrel_Util::snprintf("%s", std::string(600, 'y').c_str()), std::string(600, 'y'));
}

TEST(TavrelUtil, TextHelpers) {
  EXPECT_TRUE(Tavrel_Util::is_number("0"));
  EXPECT_TRUE(Tavrel_Util::is_number("4194304"));
  for (const char* no : {"", " 1", "1 ", "-1", "+1", "1a", "0x10", "\xd9\xa1"}) EXPECT_FALSE(Tavrel_Util::is_number(no)) << no;

  EXPECT_EQ(Tavrel_Util::trim(" \t a b \r\n"), "a b");
  EXPECT_EQ(Tavrel_Util::trim(" \t\r\n"), "");
  std::string t = "\n x \f";
  Tavrel_Util::trim_in_place(t);
  EXPECT_EQ(t, "x");
  t = "   ";
  Tavrel_Util::trim_in_place(t);
  EXPECT_EQ(t, "");
  t = "line\r\n\n";
  Tavrel_Util::strip_crlf(t);
  EXPECT_EQ(t, "line");
  t = "\r\nmid\r\n x";
  Tavrel_Util::strip_crlf(t);
  EXPECT_EQ(t, "\r\nmid\r\n x");

  EXPECT_EQ(Tavrel_Util::compare_no_case("Abc", "aBC"), 0);
  EXPECT_LT(Tavrel_Util::compare_no_case("ab", "ABC"), 0);
  EXPECT_GT(Tavrel_Util::compare_no_case("b", "A"), 0);

  struct {
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
    EXPECT_EQ(Tavrel_Util::replace_all(s, r.from, r.to), r.count) << r.text;
    EXPECT_EQ(s, r.out) << r.text;
  }
  EXPECT_EQ(Tavrel_Util::quote_if_whitespace("plain"), "plain");
  EXPECT_EQ(Tavrel_Util::quote_if_whitespace("two words"), "\"two words\"");
  EXPECT_EQ(Tavrel_Util::quote_if_whitespace("tab\there"), "\"tab\there\"");
  EXPECT_EQ(Tavrel_Util::quote_if_whitespace(nullptr), "");

  struct {
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
    Tavrel_Util::tokenize(c.text, out, c.sep);
    EXPECT_EQ(out, c.pieces) << c.text;
  }
}

TEST(TavrelUtil, PathHelpers) {
  struct {
    std::string in, out;
  } sanitize[] = {
      {"//a//./b/", "/a/b"}, {"/a/./b/./", "/a/b"}, {"./a", "a"},        {"a/.", "a"},
      {"/", "/"},            {"", ""},                {"/./", "/"},       {"a/../b", "a/../b"},
      {".hidden/x", ".hidden/x"}, {"a/.../b", "a/.../b"}, {"///", "/"}, {"a//b", "a/b"},
  };
  for (auto& c : sanitize) EXPECT_EQ(Tavrel_Util::sanitize_path(c.in), c.out) << c.in;

  struct {
    std::string in, parent;
  } parents[] = {{"/a/b", "/a"}, {"/a", ""}, {"a", ""}, {"a/b/", "a/b"}, {"", ""}};
  for (auto& c : parents) EXPECT_EQ(Tavrel_Util::parent(c.in), c.parent) << c.in;

  std::string p = "///a/b";
  Tavrel_Util::strip_leading_separators(p);
  EXPECT_EQ(p, "a/b");
  p = "///";
  Tavrel_Util::strip_leading_separators(p);
  EXPECT_EQ(p, "");
  p = "/a/b///";
  Tavrel_Util::strip_trailing_pathname_separator(p);
  EXPECT_EQ(p, "/a/b");
  p = "///";
  Tavrel_Util::strip_trailing_pathname_separator(p);
  EXPECT_EQ(p, "/");

  EXPECT_TRUE(Tavrel_Util::contains_pname_separator("a/b"));
  EXPECT_FALSE(Tavrel_Util::contains_pname_separator("a\\b"));
  EXPECT_TRUE(Tavrel_Util::is_absolute_view_rel_path("/a"));
  EXPECT_FALSE(Tavrel_Util::is_absolute_view_rel_path("a/b"));
  EXPECT_FALSE(Tavrel_Util::is_absolute_view_rel_path(""));
  EXPECT_TRUE(Tavrel_Util::paths_equal("/a/b", "/a/b"));
  EXPECT_FALSE(Tavrel_Util::paths_equal("/a/b", "/a/b/"));
  EXPECT_FALSE(Tavrel_Util::paths_equal("/a/B", "/a/b"));
  EXPECT_FALSE(Tavrel_Util::paths_equal(std::string("/a\0x", 4), "/a"));

  struct {
    std::string url, server;
  } urls[] = {
      {"https://host:8443/x/tavrel", "host:8443/x"},
      {"https://host/tavrel", "host"},
      {"https://host/", "host"},
      {"https://host", "host"},
      {"host", "host"},
      {"a/", ""},
      {"", ""},
  };
  for (auto& c : urls) EXPECT_EQ(Tavrel_Util::server_from_url(c.url), c.server) << c.url;
}

TEST(TavrelUtil, Directories) {
  TempDir d;
  int empty = -1;
  EXPECT_EQ(Tavrel_Util::is_dir_empty(d.path, empty), 0);
  EXPECT_EQ(empty, 1);
  std::ofstream(d.path + "/.x") << "x";
  EXPECT_EQ(Tavrel_Util::is_dir_empty(d.path, empty), 0);
  EXPECT_EQ(empty, 0);
  empty = -1;
  EXPECT_EQ(Tavrel_Util::is_dir_empty(d.path + "/missing", empty), TAVREL_ST_LIST_DIR);
  EXPECT_EQ(Tavrel_Util::is_dir_empty(d.path + "/.x", empty), TAVREL_ST_LIST_DIR);  // not a directory
  EXPECT_EQ(empty, -1);

  // A marker in an ancestor is found; one in the path itself or below it is not.
  const std::string marker = ".tavrel-util-marker-" + std::to_string(getpid());
  ASSERT_EQ(mkdir((d.path + "/a").c_str(), 0700), 0);
  ASSERT_EQ(mkdir((d.path + "/a/b").c_str(), 0700), 0);
  ASSERT_EQ(mkdir((d.path + "/a/b/c").c_str(), 0700), 0);
  EXPECT_FALSE(Tavrel_Util::find_in_ancestors(d.path + "/a/b/c", marker));
  std::ofstream(d.path + "/a/b/c/" + marker) << "";
  EXPECT_FALSE(Tavrel_Util::find_in_ancestors(d.path + "/a/b/c", marker));
  std::ofstream(d.path + "/a/" + marker) << "";
  EXPECT_TRUE(Tavrel_Util::find_in_ancestors(d.path + "/a/b/c", marker));
  EXPECT_TRUE(Tavrel_Util::find_in_ancestors(d.path + "/a/b/c/", marker));
  EXPECT_FALSE(Tavrel_Util::find_in_ancestors(d.path + "/a", marker));
  EXPECT_FALSE(Tavrel_Util::find_in_ancestors("/", marker));
}

TEST(TavrelUtil, IdentitiesAndSmallParsers) {
  tbs_uuid_s u;
  tbs_oid_s o;
  ASSERT_EQ(tbs_str_to_uuid("01234567-89ab-cdef-0123-456789abcdef", &u), 0);
  ASSERT_EQ(tbs_str_to_oid("fedcba98-7654-3210-fedc-ba9876543210", &o), 0);
  EXPECT_EQ(Tavrel_Util::uuid_to_location(u), "replicauuid:01234567-89ab-cdef-0123-456789abcdef");
  EXPECT_EQ(Tavrel_Util::uuid_oid_to_location(u, o),
            "oid:fedcba98-7654-3210-fedc-ba9876543210@replicauuid:01234567-89ab-cdef-0123-456789abcdef");
  EXPECT_EQ(Tavrel_Util::uuid_dbid_to_location(u, -2147483600L),
            "-2147483600@replicauuid:01234567-89ab-cdef-0123-456789abcdef");

  HijackTreatment h = HIJACK_TREATMENT_RENAME;
  EXPECT_TRUE(Tavrel_Util::parse_hijack_treatment("keep", h));
  EXPECT_EQ(h, HIJACK_TREATMENT_KEEP);
  EXPECT_TRUE(Tavrel_Util::parse_hijack_treatment("overwrite", h));
  EXPECT_EQ(h, HIJACK_TREATMENT_OVERWRITE);
  EXPECT_TRUE(Tavrel_Util::parse_hijack_treatment("rename", h));
  EXPECT_EQ(h, HIJACK_TREATMENT_RENAME);
  for (const char* bad : {"", "Keep", "keep ", "delete"}) {
    EXPECT_FALSE(Tavrel_Util::parse_hijack_treatment(bad, h)) << bad;
    EXPECT_EQ(h, HIJACK_TREATMENT_RENAME);
  }

  struct in_addr a;
  EXPECT_EQ(Tavrel_Util::set_socket_addr("127.0.0.1", &a), 0);
  EXPECT_EQ(ntohl(a.s_addr), 0x7f000001u);
  for (const char* bad : {"", "localhost", "1.2.3", "256.1.1.1", "1.2.3.4 "})
    EXPECT_EQ(Tavrel_Util::set_socket_addr(bad, &a), TBS_ST_BAD_ARG) << bad;
  EXPECT_EQ(Tavrel_Util::set_socket_addr(nullptr, &a), TBS_ST_BAD_ARG);
  EXPECT_TRUE(Tavrel_Util::kfsm_is_case_sensitive());

  EXPECT_FALSE(Tavrel_Util::process_user().empty());
  EXPECT_EQ(Tavrel_Util::process_qualified_user(), Tavrel_Util::process_user());
  EXPECT_EQ(Tavrel_Util::get_user_home(), sysutl_get_homedir());
}

TEST(TavrelUtil, ViewTimeIsStrictlyIncreasing) {
  // Many threads asking at once never get the same time twice, and each sees its own times rise.
  constexpr int kThreads = 4;
  constexpr int kEach = 5000;
  std::vector<std::vector<long long>> seen(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([&seen, t] {
      for (int i = 0; i < kEach; i++) {
        struct timeval tv = Tavrel_Util::get_view_time();
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
