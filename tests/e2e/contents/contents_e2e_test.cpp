// File contents of a mounted view, end to end: the reference server with a SILO imported from a real
// tree (folders copied from /usr/include, with their symbolic links and an empty header, plus real files
// copied under names with spaces and non-ASCII bytes and a 100 MB file made of the machine's libraries),
// the module daemon with FUSE, and the agent, all real programs driven by the `tavrel` command line.
// Stock tools read the mount: `diff -r` finds nothing, `tar c` archives the same entries with the same
// bytes, every version is fetched once and a second `diff -r` costs the server nothing. Offline the files
// read before still read and an unread one fails at once; a stalled or cut fetch fails the open, leaves
// nothing in the cache, and the next open reads the file whole.
//
// Skipped, with the reason, where FUSE cannot be mounted (a failure with TAVREL_REQUIRE_FUSE=1).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <set>

#include "tests/e2e/e2e_fuse.h"
#include "tests/e2e/e2e_process.h"

namespace {

using namespace e2e;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr off_t kBigSize = 100 << 20;
// Real files copied under odd names: a blank, UTF-8 letters, and a Latin-1 byte that is no UTF-8.
const char* const kOddNames[][2] = {
    {"/usr/include/stdio.h", "odd names/with space.h"},
    {"/usr/include/stdlib.h", "odd names/na\xc3\xafve fa\xc3\xa7" "ade.h"},
    {"/usr/include/string.h", "odd names/lat\xe9-1.h"},
};

// What reading a whole file gave: milliseconds taken, errno of the first failing call (0 when none),
// and the bytes read.
struct Read {
  long ms = 0;
  int err = 0;
  std::string bytes;
};

Read read_whole(const std::string& path) {
  Read r;
  auto t0 = Clock::now();
  int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) {
    r.err = errno;
  } else {
    char buf[1 << 16];
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) != 0;) {
      if (n < 0) {
        r.err = errno;
        break;
      }
      r.bytes.append(buf, size_t(n));
    }
    close(fd);
  }
  r.ms = long(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count());
  return r;
}

// Regular files, symbolic links and empty regular files below `root`.
struct Census {
  size_t files = 0, links = 0, empty = 0;
};
Census census(const std::string& root) {
  Census c;
  for (const auto& e : fs::recursive_directory_iterator(root)) {
    if (e.is_symlink()) c.links++;
    else if (e.is_regular_file()) (e.file_size() == 0 ? c.empty : c.files)++;
  }
  c.files += c.empty;
  return c;
}

// The lines of `a` missing from `b` ("-") and those of `b` missing from `a` ("+"), at most 20: empty
// when the two texts hold the same lines.
std::string line_diff(const std::string& a, const std::string& b) {
  auto lines = [](const std::string& t) {
    std::multiset<std::string> out;
    std::istringstream in(t);
    for (std::string l; std::getline(in, l);) out.insert(l);
    return out;
  };
  auto la = lines(a), lb = lines(b);
  std::vector<std::string> only_a, only_b;
  std::set_difference(la.begin(), la.end(), lb.begin(), lb.end(), std::back_inserter(only_a));
  std::set_difference(lb.begin(), lb.end(), la.begin(), la.end(), std::back_inserter(only_b));
  std::string d;
  int shown = 0;
  for (const auto& l : only_a) if (shown++ < 20) d += "- " + l + "\n";
  for (const auto& l : only_b) if (shown++ < 20) d += "+ " + l + "\n";
  return d;
}

class ContentsE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    TAVREL_E2E_NEED_FUSE();
    // A real tree of a few thousand headers: whole folders, the top level's own files and links (which
    // point into the copied folders), python's empty graminit.h among them.
    fileutl_mkpath(r.at("tree/odd names"), 0755);
    Outcome cp = r.sh("cd /usr/include && cp -a linux asm-generic x86_64-linux-gnu c++ python3.11 ncursesw libpng16 "
                      "tcl8.6 $(find . -maxdepth 1 ! -type d) " + q(r.at("tree")));
    ASSERT_EQ(cp.code, 0) << cp.err;
    for (const auto& [from, to] : kOddNames) ASSERT_TRUE(fs::copy_file(from, r.at("tree/") + to)) << to;
    // 100 MB of the machine's shared libraries, one after the other.
    Outcome big = r.sh("cat /usr/lib/x86_64-linux-gnu/*.so* 2>/dev/null | head -c " + std::to_string(kBigSize) +
                       " > " + q(r.at("tree/odd names/big libraries.bin")));
    ASSERT_EQ(big.code, 0) << big.err;
    ASSERT_EQ(fs::file_size(r.at("tree/odd names/big libraries.bin")), uintmax_t(kBigSize));
    source = census(r.at("tree"));
    ASSERT_GT(source.files, 2000u);
    ASSERT_GT(source.links, 5u);
    ASSERT_GT(source.empty, 0u);

    ASSERT_EQ(r.import("/inc", "tree").code, 0);
    // Short WAN time limits, so a stalled server is given up within seconds.
    r.put("home/tavrel.conf", "tavrelWanLowSpeedTimeMs=2000\ntavrelWanConnectTimeoutMs=2000\n");
    ASSERT_TRUE(r.start_server()) << slurp(r.at("server.log"));
    Outcome d = r.sh(r.env() + q(bin("tavrel")) + " kfsmd start");
    ASSERT_EQ(d.code, 0) << d.out << d.err;
    Outcome mk = r.tavrel({"mkview", "--tag", "v1"}, r.creds());
    ASSERT_EQ(mk.code, 0) << mk.out << mk.err;
    Outcome m = r.tavrel({"mount", "/inc"});
    ASSERT_EQ(m.code, 0) << m.out << m.err;
  }
  void TearDown() override {
    if (IsSkipped()) return;
    admin("fault.clear");
    r.tavrel({"endview", "--kill"});
    r.sh(r.env() + q(bin("tavrel")) + " kfsmd stop");
    umount2(view.c_str(), MNT_DETACH);
  }
  Outcome admin(const std::string& args) {
    return r.sh(q(bin("tavrel_server")) + " admin --url " + q(r.url() + "tavrel") + " --token-file " +
                q(r.at("token")) + " " + args);
  }
  // Cleartext requests the server answered since entry `from` of its log. An admin request sent now
  // marks the end: the log is read once that request's entry is there, so every request made before
  // this call has had its entry written.
  int cleartexts_since(size_t from) {
    size_t n = r.rpcs().size();
    EXPECT_EQ(admin("silo.list").code, 0);
    r.trail(n + 1);
    auto all = r.rpcs();
    int c = 0;
    for (size_t i = from; i < all.size(); i++) c += all[i] == "cltxt";
    return c;
  }
  Outcome diff(const std::string& a, const std::string& b, const std::string& flags = "") {
    return r.sh("diff -r " + flags + " " + q(a) + " " + q(b));
  }
  // Files in the view's cleartext cache, temporary ones included.
  size_t cache_files() {
    size_t n = 0;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(r.at("view/cache"), ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec))
      n += it->is_regular_file();
    return n;
  }

  Rig r{"tavrel-contents-e2e"};
  const std::string view = r.at("root/v1/inc");
  Census source;
};

TEST_F(ContentsE2E, DiffAndTarSeeTheSourceAndASecondDiffCostsTheServerNothing) {
  // Every file, through its link too, has the source's bytes; links keep their texts.
  Outcome d = diff(r.at("tree"), view);
  EXPECT_EQ(d.code, 0) << d.out.substr(0, 4000) << d.err.substr(0, 2000);
  Outcome dl = diff(r.at("tree"), view, "--no-dereference");
  EXPECT_EQ(dl.code, 0) << dl.out.substr(0, 4000) << dl.err.substr(0, 2000);

  // The odd ones by name, so a missing one is named.
  Read big = read_whole(view + "/odd names/big libraries.bin");
  EXPECT_EQ(big.err, 0) << strerror(big.err);
  EXPECT_EQ(big.bytes.size(), size_t(kBigSize));
  EXPECT_TRUE(big.bytes == read_whole(r.at("tree/odd names/big libraries.bin")).bytes);
  for (const auto& [from, to] : kOddNames) EXPECT_EQ(read_whole(view + "/" + to).bytes, slurp(from)) << to;
  Read empty = read_whole(view + "/python3.11/graminit.h");
  EXPECT_EQ(empty.err, 0);
  EXPECT_EQ(empty.bytes, "");
  char target[256];
  ssize_t n = readlink((view + "/png.h").c_str(), target, sizeof target);
  EXPECT_EQ(std::string(target, n > 0 ? size_t(n) : 0), "libpng16/png.h");

  // tar archives the same entries (type, permissions, owner, size, name, link target; not times) ...
  const std::string list = " && tar cf - . | tar tvf - | awk '{$4 = $5 = \"\"; print}'";
  Outcome ts = r.sh("cd " + q(r.at("tree")) + list), tv = r.sh("cd " + q(view) + list);
  ASSERT_EQ(tv.code, 0) << tv.err;
  EXPECT_GT(count_of(ts.out, "\n"), 2000);
  EXPECT_EQ(line_diff(ts.out, tv.out), "") << "(- source only, + view only)";
  // ... with the same bytes.
  fileutl_mkpath(r.at("untar"), 0755);
  Outcome x = r.sh("cd " + q(view) + " && tar cf - . | tar xf - -C " + q(r.at("untar")));
  ASSERT_EQ(x.code, 0) << x.err;
  Outcome du = diff(r.at("tree"), r.at("untar"), "--no-dereference");
  EXPECT_EQ(du.code, 0) << du.out.substr(0, 4000);

  // Each version was fetched once for all of that; a second diff fetches nothing.
  EXPECT_EQ(cleartexts_since(0), int(source.files));
  const size_t before = r.rpcs().size();
  Outcome again = diff(r.at("tree"), view);
  EXPECT_EQ(again.code, 0) << again.out.substr(0, 4000);
  EXPECT_EQ(cleartexts_since(before), 0) << r.trail(before);
}

TEST_F(ContentsE2E, OfflineReadFilesStillReadAndAnUnreadOneFailsAtOnce) {
  // All names are known (a walk), the contents of linux/ only (a diff).
  ASSERT_EQ(r.sh("find " + q(view) + " > /dev/null").code, 0);
  ASSERT_EQ(diff(r.at("tree/linux"), view + "/linux").code, 0);
  Outcome dis = r.tavrel({"disconnect"});
  ASSERT_EQ(dis.code, 0) << dis.out << dis.err;

  const size_t before = r.rpcs().size();
  Outcome d = diff(r.at("tree/linux"), view + "/linux");
  EXPECT_EQ(d.code, 0) << d.out.substr(0, 4000) << d.err;
  Read unread = read_whole(view + "/asm-generic/errno.h");
  EXPECT_NE(unread.err, 0) << "an unread file offline has no contents to give";
  EXPECT_EQ(unread.bytes, "");
  EXPECT_LT(unread.ms, 1000) << "offline, an uncached version fails at once";
  EXPECT_EQ(cleartexts_since(before), 0);

  // Back online the same file reads whole.
  Outcome con = r.tavrel({"connect"}, r.creds());
  ASSERT_EQ(con.code, 0) << con.out << con.err;
  EXPECT_EQ(read_whole(view + "/asm-generic/errno.h").bytes, slurp(r.at("tree/asm-generic/errno.h")));
}

TEST_F(ContentsE2E, AStalledOrCutFetchFailsTheOpenAndLeavesNothingInTheCache) {
  ASSERT_EQ(read_whole(view + "/linux/types.h").bytes, slurp(r.at("tree/linux/types.h")));
  const size_t cached = cache_files();
  ASSERT_GT(cached, 0u);

  // A server that stalls: the open fails within the WAN time limit (2 s of no progress here), and a
  // file read before still reads meanwhile.
  ASSERT_EQ(admin("fault.set Kind=delay_before Value=20000 Match=cltxt Count=0").code, 0);
  Read stalled = read_whole(view + "/linux/kernel.h");
  EXPECT_NE(stalled.err, 0);
  EXPECT_LT(stalled.ms, 15000);
  EXPECT_EQ(read_whole(view + "/linux/types.h").bytes, slurp(r.at("tree/linux/types.h")));

  // A reply cut short, inside a file of 100 MB and inside a small one: the open fails.
  ASSERT_EQ(admin("fault.clear").code, 0);
  ASSERT_EQ(admin("fault.set Kind=cut_after Value=300000 Match=cltxt Count=0").code, 0);
  EXPECT_NE(read_whole(view + "/odd names/big libraries.bin").err, 0);
  ASSERT_EQ(admin("fault.clear").code, 0);
  ASSERT_EQ(admin("fault.set Kind=cut_after Value=200 Match=cltxt Count=0").code, 0);
  EXPECT_NE(read_whole(view + "/linux/kernel.h").err, 0);
  // Nothing of those fetches stays in the cache, not even a temporary file.
  EXPECT_EQ(cache_files(), cached);

  // Once the server behaves, each reads whole.
  ASSERT_EQ(admin("fault.clear").code, 0);
  EXPECT_EQ(read_whole(view + "/linux/kernel.h").bytes, slurp(r.at("tree/linux/kernel.h")));
  Read big = read_whole(view + "/odd names/big libraries.bin");
  EXPECT_EQ(big.bytes.size(), size_t(kBigSize));
  EXPECT_TRUE(big.bytes == read_whole(r.at("tree/odd names/big libraries.bin")).bytes);
  EXPECT_EQ(cache_files(), cached + 2);
}

}  // namespace
