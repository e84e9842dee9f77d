// The agent's view update command (View_Update) against the real tavrel_server program: a first full
// load of an imported tree, then the changes an administrator made to the SILO (a new file, a removed
// file, a rename, a directory replaced by a file) as exactly those events, and the same changes again
// when the stream was not acknowledged.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

#include "proto/wan_names.h"
#include "tests/e2e/e2e_process.h"
#include "wan/set_configspec.h"
#include "wan/view_update.h"
#include "wan/wan_test_fixture.h"

using namespace e2e;
namespace fs = std::filesystem;

namespace {

// Keeps what the agent's listener would apply: the events as text, and each loaded path's element
// and version. It checks, while the events come, what an agent relies on: an object's parent is
// known (loaded earlier in the stream or in an earlier one) and named by its element; a changed
// object's previous version is the one the agent holds; an unload names the loaded object and comes
// in the SILO's group before any scope group; updates come inside the load rule's group.
struct Recorder : RClient_Update_Listener {
  struct Held {
    tbs_oid_s elem;
    std::string version;
  };
  std::vector<std::string> events;  // "update <path> new|changed dir|file", "unload <path>"
  std::vector<std::string> frame;   // the other events, in order
  std::map<std::string, Held> known;  // path -> what the agent holds, across streams
  unsigned int gn = 0;
  std::string scope;  // the open scope group
  bool in_silo = false, scope_seen = false;
  std::vector<std::string> faults;

  static std::string parent_of(const std::string& p) { return p.substr(0, p.rfind('/')); }
  bool parent_is(const std::string& path, const tbs_oid_s& parent) {
    auto it = known.find(parent_of(path));
    return it != known.end() && it->second.elem == parent;
  }
  bool begin_operation(unsigned int g) override { return gn = g, frame.push_back("begin_operation"), true; }
  bool begin_silo(const tbs_uuid_s&, const tbs_oid_s&) override {
    in_silo = true, scope_seen = false;
    return frame.push_back("begin_silo"), true;
  }
  bool begin_scope(const tavrel_scope& s) override {
    if (s.gn != gn) faults.push_back(std::string("scope GN of ") + s.name);
    scope = s.name, scope_seen = true;
    return frame.push_back("begin_scope " + scope), true;
  }
  bool update_object(const tbs_uuid_s&, const tbs_oid_s& parent, const std::string& path, const std::string& prev,
                     const std::string& curr, const tavrel_vstat& obj, const tavrel_vstat&) override {
    if (curr.empty()) faults.push_back("empty version for " + path);
    if (scope != "/demo") faults.push_back(path + " outside the load rule's group");
    if (path == "/demo" ? !tbs_oid_is_null(parent) : !parent_is(path, parent))
      faults.push_back("parent of " + path + " not known first");
    auto it = known.find(path);
    if (!prev.empty() && (it == known.end() || it->second.version != prev)) faults.push_back("prev of " + path);
    known[path] = {obj.vstat.elem_oid, curr};
    const char* kind = obj.vstat.fstat.type == TBS_FTYPE_DIR ? " dir" : " file";
    events.push_back("update " + path + (prev.empty() ? " new" : " changed") + kind);
    return true;
  }
  bool unload_object(const tbs_uuid_s&, const tbs_oid_s& parent, const std::string& path,
                     const tbs_oid_s& oid) override {
    auto it = known.find(path);
    if (it == known.end() || !(it->second.elem == oid) || !parent_is(path, parent))
      faults.push_back("unload of " + path + " names another object");
    if (!in_silo || scope_seen) faults.push_back("unload of " + path + " not before the scope groups");
    events.push_back("unload " + path);
    return true;
  }
  bool end_scope() override { return scope.clear(), frame.push_back("end_scope"), true; }
  bool end_silo() override { return in_silo = false, frame.push_back("end_silo"), true; }
  bool end_operation() override { return frame.push_back("end_operation"), true; }
  void clear() { events.clear(), frame.clear(), faults.clear(); }
};

class UpdateE2E : public wan_test::WanTest {
 protected:
  // The tree: a few dozen headers at the top and in three folders.
  void SetUp() override {
    WanTest::SetUp();
    fileutl_mkpath(r.at("tree"), 0755);
    ASSERT_EQ(r.sh("cd /usr/include && cp a*.h c*.h e*.h " + q(r.at("tree")) + " && cp -r arpa net netinet " +
                   q(r.at("tree")))
                  .code,
              0);
    Outcome imp = r.import("/demo", "tree");
    ASSERT_EQ(imp.code, 0) << imp.err;
    ASSERT_TRUE(r.start_server()) << slurp(r.at("server.log"));
    ASSERT_EQ(login(r.url() + "tavrel", "alice", "s3cret"), 0);
    view = tbs_uuid_create();
    Set_ConfigSpec cs(view, {"select * latest"}, {"load /demo"}, true);
    ASSERT_EQ(cs.run(), 0);
    ASSERT_EQ(cs.get_status_code(), 0);
  }
  void TearDown() override {
    session()->flush_curl_handles();
    stop(r.server);
    WanTest::TearDown();
  }
  // A scope update as the agent sends it: the automatic scope and the load rule, with the scope GNs
  // the agent holds. The command's outcome as "<run> <status>".
  std::string update(unsigned int view_gn, unsigned int scope_gn) {
    std::vector<tavrel_scope> scopes(2);
    scopes[0] = {AUTOMATIC_LOAD_SCOPE_OID, {}, scope_gn, {}};
    snprintf(scopes[0].name, sizeof scopes[0].name, "Automatic");
    scopes[1] = {tavrel_load_scope_oid("/demo"), {}, scope_gn, {}};
    snprintf(scopes[1].name, sizeof scopes[1].name, "/demo");
    rec.clear();
    View_Update cmd(view, view_gn, 0, 1, 0, scopes, &rec);
    int rc = cmd.run();
    return std::to_string(rc) + " " + std::to_string(cmd.get_status_code());
  }
  Outcome admin(const std::string& args, const std::string& data = "") {
    return r.sh(q(bin("tavrel_server")) + " admin --url " + q(r.url() + "tavrel") + " --token-file " +
                q(r.at("token")) + " " + args + (data.empty() ? "" : " --data " + q(r.at(data))));
  }

  Rig r{"tavrel-update-e2e"};
  tbs_uuid_s view;
  Recorder rec;
};

TEST_F(UpdateE2E, FirstLoadThenExactlyTheChangesUntilCommitted) {
  // First load: every path of the imported tree once, as new, parents first (checked by the
  // recorder), in one scope group of the load rule.
  ASSERT_EQ(update(0, 0), "0 0");
  EXPECT_EQ(rec.faults, std::vector<std::string>{});
  std::set<std::string> want = {"update /demo new dir"}, got;
  for (const auto& e : fs::recursive_directory_iterator(r.at("tree")))
    want.insert("update /demo/" + fs::relative(e.path(), r.at("tree")).string() + " new" +
                (e.is_directory() ? " dir" : " file"));
  for (const auto& e : rec.events) EXPECT_TRUE(got.insert(e).second) << "twice: " << e;
  EXPECT_GT(want.size(), 40u);
  EXPECT_EQ(got, want);
  const unsigned int first = rec.gn;
  EXPECT_GT(first, 0u);
  EXPECT_EQ(rec.frame.back(), "end_operation");
  EXPECT_EQ(std::count(rec.frame.begin(), rec.frame.end(), "begin_scope /demo"), 1);

  // The administrator's changes, all in the top folder.
  r.put("new.h", "#define NEW 1\n");
  for (const std::string op : {"elem.mkfile Path=/demo/zz_new.h", "elem.rmname Path=/demo/ctype.h",
                                "elem.move From=/demo/errno.h To=/demo/errno_renamed.h",
                                "elem.mkfile Path=/demo/net Replace=1"}) {
    Outcome o = admin(op, op.find("mkfile") != std::string::npos ? "new.h" : "");
    ASSERT_EQ(o.code, 0) << op << "\n" << o.out << o.err;
  }
  std::vector<std::string> changes = {"unload /demo/ctype.h", "unload /demo/errno.h"};
  std::vector<std::string> net_files;
  for (const auto& e : fs::directory_iterator(r.at("tree/net"))) net_files.push_back(e.path().filename().string());
  std::sort(net_files.begin(), net_files.end());
  for (const auto& n : net_files) changes.push_back("unload /demo/net/" + n);
  for (const char* u : {"update /demo changed dir", "update /demo/errno_renamed.h new file",
                        "update /demo/net changed file", "update /demo/zz_new.h new file"})
    changes.push_back(u);
  auto sorted_unloads_first = [](std::vector<std::string> v) {
    // The order the stream owes: every unload before the scope's updates; within each kind, path
    // order is checked by the recorder's parent rule, so compare as sorted lists here.
    auto mid = std::stable_partition(v.begin(), v.end(), [](const std::string& e) { return e.rfind("unload", 0) == 0; });
    std::sort(v.begin(), mid);
    std::sort(mid, v.end());
    return v;
  };
  auto is_ordered = [](const std::vector<std::string>& v) {
    return std::is_partitioned(v.begin(), v.end(), [](const std::string& e) { return e.rfind("unload", 0) == 0; });
  };

  // The first stream's GN commits it: the next stream holds exactly the changes.
  const std::map<std::string, Recorder::Held> loaded = rec.known;
  ASSERT_EQ(update(first, first), "0 0");
  EXPECT_EQ(rec.faults, std::vector<std::string>{});
  EXPECT_TRUE(is_ordered(rec.events));
  EXPECT_EQ(sorted_unloads_first(rec.events), changes);
  const unsigned int second = rec.gn;
  EXPECT_GT(second, first);
  const std::vector<std::string> frame = rec.frame, events = rec.events;

  // Not acknowledged (an agent that lost that stream sends the same old GN again): the same changes
  // are sent again, in the same order, under a new GN.
  rec.known = loaded;
  ASSERT_EQ(update(first, first), "0 0");
  EXPECT_EQ(rec.faults, std::vector<std::string>{});
  EXPECT_EQ(rec.events, events);
  EXPECT_GT(rec.gn, second);
  EXPECT_EQ(rec.frame, frame);
  // Nothing was served on demand, so the automatic scope's group stands outside the SILO's.
  EXPECT_EQ(frame, (std::vector<std::string>{"begin_operation", "begin_silo", "begin_scope /demo", "end_scope",
                                             "end_silo", "begin_scope Automatic", "end_scope", "end_operation"}));

  // Acknowledged now: nothing has changed since.
  ASSERT_EQ(update(rec.gn, rec.gn), "0 0");
  EXPECT_EQ(rec.events, std::vector<std::string>{});
  EXPECT_EQ(rec.faults, std::vector<std::string>{});
}

}  // namespace
