// Names, attributes and listings of a mounted view, end to end: the reference server with a SILO imported
// from a real tree (copied from /usr/include), the module daemon with FUSE, and the agent, all real
// programs driven by the `tavrel` command line. Stock tools walk the mount: `find` lists exactly the
// source's paths, lstat gives the same types, sizes and permission bits, readlink the same targets, and a
// second walk costs the server nothing. Offline the walked tree stays listed and an unknown name fails at
// once; with the server stalled an unknown name fails within the WAN time limit and the view stays usable;
// replies cut short fail the call and leave the view database whole.
//
// Skipped, with the reason, where FUSE cannot be mounted (a failure with TAVREL_REQUIRE_FUSE=1).
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>

#include "tests/e2e/e2e_fuse.h"
#include "tests/e2e/e2e_process.h"

namespace {

using namespace e2e;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// What lstat and readlink say of one path, as text that two trees can be compared by.
std::string describe(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return std::string("error ") + strerror(errno);
  char kind = S_ISDIR(st.st_mode) ? 'd' : S_ISLNK(st.st_mode) ? 'l' : S_ISREG(st.st_mode) ? 'f' : '?';
  std::string d = std::string(1, kind) + " " + std::to_string(st.st_mode & 07777);
  if (kind == 'f') d += " " + std::to_string(st.st_size);
  if (kind == 'l') {
    char target[4096];
    ssize_t n = readlink(path.c_str(), target, sizeof target);
    d += " -> " + (n < 0 ? std::string("error ") + strerror(errno) : std::string(target, size_t(n)));
  }
  return d;
}

// Every path below `root` (relative, without the root itself) with its description, by a walk that
// uses only readdir and lstat, as `find` does.
std::map<std::string, std::string> walk(const std::string& root) {
  std::map<std::string, std::string> out;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(root, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec)) {
    std::string rel = it->path().lexically_relative(root).string();
    out[rel] = describe(it->path().string());
  }
  if (ec) out["<walk error>"] = ec.message();
  return out;
}

class NamesE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    TAVREL_E2E_NEED_FUSE();
    // A real tree of a few thousand files with symbolic links: four folders of the system's headers and
    // the top-level links that point into them.
    fileutl_mkpath(r.at("tree"), 0755);
    Outcome cp = r.sh("cd /usr/include && cp -a linux asm-generic x86_64-linux-gnu c++ " + q(r.at("tree")) +
                      " && for l in $(find . -maxdepth 1 -type l); do cp -a \"$l\" " + q(r.at("tree")) + "/; done");
    ASSERT_EQ(cp.code, 0) << cp.err;
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
  size_t requests() { return r.rpcs().size(); }
  // Milliseconds that lstat of `path` took, and its errno (0 on success).
  std::pair<long, int> timed_lstat(const std::string& path) {
    struct stat st;
    auto t0 = Clock::now();
    int rc = lstat(path.c_str(), &st);
    int err = rc == 0 ? 0 : errno;
    return {long(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count()), err};
  }

  Rig r{"tavrel-names-e2e"};
  const std::string view = r.at("root/v1/inc");
};

TEST_F(NamesE2E, WalkMatchesTheSourceAndASecondWalkCostsTheServerNothing) {
  const auto source = walk(r.at("tree"));
  ASSERT_GT(source.size(), 2000u);
  const auto first = walk(view);
  EXPECT_EQ(first.size(), source.size());
  int shown = 0;
  for (const auto& [path, d] : source) {
    auto it = first.find(path);
    std::string got = it == first.end() ? "missing" : it->second;
    if (got != d && shown++ < 20) ADD_FAILURE() << path << ": source \"" << d << "\", view \"" << got << "\"";
  }
  for (const auto& [path, d] : first)
    if (!source.count(path) && shown++ < 20) ADD_FAILURE() << "extra in the view: " << path;

  // `find` itself, the way a user runs it, lists the same paths.
  Outcome fv = r.sh("cd " + q(view) + " && find . | sort"), fs_ = r.sh("cd " + q(r.at("tree")) + " && find . | sort");
  EXPECT_EQ(fv.code, 0) << fv.err;
  EXPECT_EQ(fv.out, fs_.out);

  const size_t before = requests();
  EXPECT_EQ(walk(view), first);
  EXPECT_EQ(requests(), before) << "the second walk went to the server: " << r.trail(before);
}

TEST_F(NamesE2E, OfflineTheWalkedTreeStaysAndAnUnknownNameFailsAtOnce) {
  const auto online = walk(view + "/linux");
  ASSERT_GT(online.size(), 500u);
  Outcome dis = r.tavrel({"disconnect"});
  ASSERT_EQ(dis.code, 0) << dis.out << dis.err;
  EXPECT_EQ(walk(view + "/linux"), online);
  const size_t before = requests();
  auto [ms, err] = timed_lstat(view + "/linux/no-such-header.h");
  EXPECT_EQ(err, ENOENT);
  EXPECT_LT(ms, 1000);
  EXPECT_EQ(requests(), before);

  // Back online, a name the server knows but the view never looked at resolves again.
  Outcome con = r.tavrel({"connect"}, r.creds());
  ASSERT_EQ(con.code, 0) << con.out << con.err;
  EXPECT_EQ(describe(view + "/x86_64-linux-gnu"), describe(r.at("tree/x86_64-linux-gnu")));
}

TEST_F(NamesE2E, AStalledServerFailsWithinTheTimeLimitAndTheViewStaysUsable) {
  ASSERT_EQ(describe(view + "/linux/types.h"), describe(r.at("tree/linux/types.h")));
  ASSERT_EQ(admin("fault.set Kind=delay_before Value=20000 Count=0").code, 0);
  auto [ms, err] = timed_lstat(view + "/asm-generic/errno.h");
  EXPECT_NE(err, 0) << "a stalled server cannot answer";
  EXPECT_LT(ms, 15000) << "the WAN time limit (2 s here) ends the wait";
  // The view goes on: what it knows answers, and once the server answers again so does the new name.
  EXPECT_EQ(describe(view + "/linux/types.h"), describe(r.at("tree/linux/types.h")));
  ASSERT_EQ(admin("fault.clear").code, 0);
  EXPECT_EQ(describe(view + "/asm-generic/errno.h"), describe(r.at("tree/asm-generic/errno.h")));
}

TEST_F(NamesE2E, RepliesCutShortFailTheCallAndLeaveTheDatabaseWhole) {
  // A listing cut after its first parts, and a lookup reply cut after a few bytes: each fails that
  // call, nothing half-stored is shown, and the same names come out whole once the server behaves.
  ASSERT_EQ(admin("fault.set Kind=cut_parts Value=3 Match=Tavrel_Orlen::get_directory_contents_rpc Count=0").code, 0);
  ASSERT_EQ(admin("fault.set Kind=cut_after Value=40 Match=Tavrel_Orlen::lookup_rpc Count=0").code, 0);
  Outcome ls = r.sh("ls " + q(view + "/x86_64-linux-gnu"));
  EXPECT_NE(ls.code, 0) << ls.out;
  EXPECT_NE(timed_lstat(view + "/linux/kernel.h").second, 0);
  ASSERT_EQ(admin("fault.clear").code, 0);
  EXPECT_EQ(walk(view + "/x86_64-linux-gnu"), walk(r.at("tree/x86_64-linux-gnu")));
  EXPECT_EQ(describe(view + "/linux/kernel.h"), describe(r.at("tree/linux/kernel.h")));

  // The database the agent wrote through all of it passes the dumper's check.
  Outcome end = r.tavrel({"endview"});
  ASSERT_EQ(end.code, 0) << end.out << end.err;
  Outcome check = r.sh(q(bin("../product/tavrel_dumper_1")) + " -check " + q(r.storage));
  EXPECT_EQ(check.code, 0) << check.out << check.err;
}

}  // namespace
