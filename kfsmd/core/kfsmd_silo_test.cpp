// A SILO's node table (numbers, lookup counts, generations, stale handles), the entries it gives the
// kernel, what each invalidation plans, and path resolution for the stat command.
#include "kfsmd/core/kfsmd_silo.h"

#include <fcntl.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "kfsmd/core/kfsmd_test_util.h"

namespace {

using namespace kfsmd_test;
using Agent = Kfsmd_Scripted_Agent;
using A = Kfsmd_Action;

class Silo : public Daemon_Test {
 protected:
  void SetUp() override {
    Daemon_Test::SetUp();
    // /d (2) holding g (4); /f (3); /l -> d; /abs -> /etc; /loop -> loop.
    agent.add(1, "d", 2, 2);
    agent.add(1, "f", 3, 1, 30);
    agent.add(2, "g", 4, 1, 40);
    agent.add(1, "l", 5, 5, 0, "d");
    agent.add(1, "abs", 6, 5, 0, "/etc");
    agent.add(1, "loop", 7, 5, 0, "loop");
    silo = view_with_silo("v");
    ASSERT_NE(silo, nullptr);
    agent.start("v", 2);
  }
  void TearDown() override {
    agent.stop();
    Daemon_Test::TearDown();
  }
  uint64_t look(uint64_t dir, const std::string& name, Kfsmd_Silo* s = nullptr) {
    Rec_Reply r;
    (s ? s : silo.get())->lookup(dir, name, r);
    EXPECT_EQ(r.error, 0) << name;
    return r.ent.ino;
  }
  int getattr(uint64_t ino) {
    Rec_Reply r;
    silo->getattr(ino, r);
    return r.error;
  }
  Agent agent;
  std::shared_ptr<Kfsmd_Silo> silo;
};

TEST_F(Silo, NodeNumbersFollowLookupCountsAndNeverComeBack) {
  const uint64_t f = look(1, "f");
  EXPECT_EQ(look(1, "f"), f);
  const uint64_t d = look(1, "d"), g = look(d, "g");
  EXPECT_EQ(silo->node_count(), 4u);
  silo->forget(f, 1);
  EXPECT_EQ(getattr(f), 0);  // looked up twice, forgotten once
  silo->forget(f, 1);
  EXPECT_EQ(getattr(f), ESTALE);
  silo->forget(g, 5);   // more than it had
  silo->forget(1, 9);   // the root stays
  EXPECT_EQ(silo->node_count(), 2u);
  EXPECT_EQ(getattr(1), 0);
  // The same object comes back under a new number; a new generation is a new node too.
  const uint64_t f2 = look(1, "f");
  EXPECT_GT(f2, g);
  agent.set_gen(3, 7);
  Rec_Reply r;
  silo->lookup(1, "f", r);
  EXPECT_GT(r.ent.ino, f2);
  EXPECT_EQ(r.ent.generation, 7u);
  EXPECT_EQ(r.ent.attr.st_ino, 3u);
  EXPECT_EQ(r.ent.attr.st_size, 30);
  // The old generation's handle is stale: a file is not revalidated, a directory is and is retried.
  EXPECT_EQ(getattr(f2), ESTALE);
  EXPECT_EQ(agent.count(VIEW_RPC_REVALIDATE), 0);
  agent.set_gen(2, 3);
  EXPECT_EQ(getattr(d), 0);
  EXPECT_EQ(agent.count(VIEW_RPC_REVALIDATE), 1);
  EXPECT_NE(look(d, "g"), 0u);  // with the directory's new handle
}

TEST_F(Silo, EntryTimeoutsAndALookupRacingAnInvalidation) {
  struct {
    bool cacheable;
    uint32_t miss_state;
    const char* name;
    int err;
    bool positive;
    double entry_timeout;
  } rows[] = {
      {true, 0, "f", 0, true, 30},     {false, 0, "f", 0, true, 0},
      {true, 0x100, "no", 0, false, 5}, {true, 0, "no", ENOENT, false, 0},  // only the agent's cached miss
  };
  for (auto& row : rows) {
    SCOPED_TRACE(row.name);
    agent.set_lookup(row.cacheable, row.miss_state);
    Rec_Reply r;
    silo->lookup(1, row.name, r);
    EXPECT_EQ(r.error, row.err);
    EXPECT_EQ(r.ent.ino != 0, row.positive);
    EXPECT_EQ(r.ent.entry_timeout, row.entry_timeout);
  }
  // An invalidation that comes while the lookup is with the agent: the answer is not cached.
  agent.set_lookup(true, 0);
  agent.script(Agent::HOLD);
  Rec_Reply r;
  std::thread t([&] { silo->lookup(1, "f", r); });
  ASSERT_TRUE(agent.wait_held(1));
  EXPECT_EQ(cmd_inval(view_root("v"), KFSM_INVAL_OBJ, TBS_UUID_NULL, Agent::oid(99)), 0);
  agent.release();
  t.join();
  ASSERT_EQ(r.error, 0);
  EXPECT_EQ(r.ent.entry_timeout, 0);
  EXPECT_EQ(r.ent.attr_timeout, 0);
}

TEST_F(Silo, EachInvalidationPlansItsActions) {
  ASSERT_EQ(cmd_mount("v", "/other", uuid_n(6)), 0);
  auto other = registry->find_silo("v", "/other");
  const std::string pmp = registry->find_silo("v", "/proj")->info().mount_point, omp = other->info().mount_point;
  agent.set_lookup(true, 0x100);
  const uint64_t d = look(1, "d"), f = look(1, "f"), g = look(d, "g");
  auto populate = [&] {
    EXPECT_EQ(look(1, "d"), d);
    EXPECT_EQ(look(1, "f"), f);
    EXPECT_EQ(look(d, "g"), g);
    EXPECT_EQ(look(1, "nope"), 0u);  // a negative entry
    look(1, "f", other.get());
    std::lock_guard<std::mutex> lk(rec.mu);
    rec.actions.clear();
  };
  const A::Kind E = A::ENTRY, I = A::INODE_DATA;  // a change the agent reports drops attributes and contents
  struct {
    const char* what;
    uint32_t kind;
    tbs_uuid_s silo;
    tbs_oid_s oid;
    const char* name;
    std::vector<A> proj;
    size_t other;
  } rows[] = {
      {"a name", KFSM_INVAL_NAME, uuid_n(5), Agent::oid(1), "f", {{E, 1, "f"}, {I, 1, ""}}, 0},
      {"a missing name", KFSM_INVAL_NAME, uuid_n(5), Agent::oid(1), "nope", {{E, 1, "nope"}, {I, 1, ""}}, 0},
      {"a name in a file", KFSM_INVAL_NAME, uuid_n(5), Agent::oid(3), "x", {}, 0},
      {"a file", KFSM_INVAL_OBJ, uuid_n(5), Agent::oid(4), nullptr, {{I, g, ""}, {E, d, "g"}}, 0},
      {"a moved file by element", KFSM_INVAL_OBJ_MOVE, uuid_n(5), Agent::elem_oid(4), nullptr, {{I, g, ""}, {E, d, "g"}}, 0},
      {"a directory", KFSM_INVAL_OBJ, uuid_n(5), Agent::oid(2), nullptr, {{I, d, ""}, {E, 1, "d"}, {E, d, "g"}}, 0},
      {"every SILO", KFSM_INVAL_OBJ, TBS_UUID_NULL, Agent::oid(3), nullptr, {{I, f, ""}, {E, 1, "f"}}, 2},
      {"another SILO", KFSM_INVAL_OBJ, uuid_n(6), Agent::oid(3), nullptr, {}, 2},
      {"an unknown object", KFSM_INVAL_OBJ, TBS_UUID_NULL, Agent::oid(99), nullptr, {}, 0},
      {"the view", KFSM_INVAL_VIEW, uuid_n(5), TBS_OID_NULL, nullptr,
       {{E, 1, "d"}, {E, 1, "f"}, {E, 1, "nope"}, {E, d, "g"}, {I, 1, ""}, {I, d, ""}, {I, f, ""}, {I, g, ""}}, 3},
  };
  auto key = [](const A& a) { return std::make_tuple(a.kind, a.parent_or_ino, a.name); };
  auto by_key = [&](const A& x, const A& y) { return key(x) < key(y); };
  for (auto& row : rows) {
    SCOPED_TRACE(row.what);
    populate();
    ASSERT_EQ(cmd_inval(view_root("v"), row.kind, row.silo, row.oid, row.name), 0);
    std::lock_guard<std::mutex> lk(rec.mu);
    std::vector<A> got = rec.actions[pmp];
    std::sort(got.begin(), got.end(), by_key);
    std::sort(row.proj.begin(), row.proj.end(), by_key);
    EXPECT_EQ(got, row.proj);
    EXPECT_EQ(rec.actions[omp].size(), row.other);
  }
  // What a plan dropped is not planned again; the whole view unbound the root, which binds again.
  const int roots = agent.count(VIEW_RPC_ROOT);
  rec.actions.clear();
  ASSERT_EQ(cmd_inval(view_root("v"), KFSM_INVAL_OBJ, uuid_n(5), Agent::oid(4)), 0);
  EXPECT_EQ(rec.actions[pmp], (std::vector<A>{{I, g, ""}}));
  EXPECT_EQ(getattr(1), 0);
  EXPECT_EQ(agent.count(VIEW_RPC_ROOT), roots + 1);
  // Refused records.
  EXPECT_EQ(cmd_inval(view_root("v"), KFSM_INVAL_OBJ, TBS_UUID_NULL, TBS_OID_NULL, nullptr, 4), TBS_ST_BAD_ARG);
  EXPECT_EQ(cmd_inval(view_root("v"), 4, TBS_UUID_NULL, TBS_OID_NULL), TBS_ST_BAD_ARG);
  EXPECT_EQ(cmd_inval(view_root("v"), KFSM_INVAL_NAME, TBS_UUID_NULL, Agent::oid(1), ""), TBS_ST_BAD_ARG);
  EXPECT_EQ(cmd_inval(view_root("v") + "/proj", KFSM_INVAL_VIEW, TBS_UUID_NULL, TBS_OID_NULL), TBS_ST_NO_VIEW);
}

// A directory read in slices of two entries, each slice continuing from the last offset the kernel
// took: name -> inode number, each name once.
std::map<std::string, uint64_t> list(Kfsmd_Silo& silo, uint64_t dir) {
  std::map<std::string, uint64_t> out;
  uint64_t off = 0;
  for (int calls = 0; calls < 100; ++calls) {
    Rec_Reply r;
    r.room = 2;
    silo.readdir(dir, off, 4096, r);
    EXPECT_EQ(r.error, 0);
    if (r.dir.empty()) return out;
    for (size_t i = 0; i < r.dir.size(); ++i)
      EXPECT_TRUE(out.emplace(r.dir[i].first, r.dir_ino[i]).second) << r.dir[i].first;
    off = r.dir.back().second;
  }
  ADD_FAILURE() << "the listing never ended";
  return out;
}

TEST_F(Silo, ListingsNumberEveryEntryAsStatDoes) {
  // The agent numbers "." and ".." from its own inode records; the kernel must see stat's numbers.
  const uint64_t d = look(1, "d");
  struct stat mounted_in;
  const std::string& mp = silo->info().mount_point;
  ASSERT_EQ(lstat(mp.substr(0, mp.rfind('/')).c_str(), &mounted_in), 0);
  auto ino_of = [&](uint64_t node) {
    Rec_Reply r;
    silo->getattr(node, r);
    EXPECT_EQ(r.error, 0);
    return uint64_t(r.st.st_ino);
  };
  const std::map<std::string, uint64_t> root_want = {
      {".", ino_of(1)}, {"..", mounted_in.st_ino}, {"d", 2}, {"f", 3}, {"l", 5}, {"abs", 6}, {"loop", 7}};
  EXPECT_EQ(list(*silo, 1), root_want);
  EXPECT_EQ(list(*silo, d), (std::map<std::string, uint64_t>{{".", ino_of(d)}, {"..", ino_of(1)}, {"g", 4}}));
  EXPECT_EQ(ino_of(d), 2u);
  // An answer that names the root object is node 1, never a second node for it.
  EXPECT_EQ(look(1, "."), Kfsmd_Silo::ROOT_INO);
}

TEST_F(Silo, NamesGivenWithoutCachingAreNotKept) {
  const uint64_t f = look(1, "f");
  EXPECT_EQ(silo->name_count(), 1u);
  agent.set_lookup(false, 0);
  EXPECT_EQ(look(1, "f"), f);
  EXPECT_NE(look(1, "d"), 0u);
  EXPECT_EQ(silo->name_count(), 0u);  // the kept name went too: the kernel was told not to cache it
  // An invalidation of the file reaches its attributes but plans no name.
  ASSERT_EQ(cmd_inval(view_root("v"), KFSM_INVAL_OBJ, uuid_n(5), Agent::oid(3)), 0);
  std::lock_guard<std::mutex> lk(rec.mu);
  EXPECT_EQ(rec.actions[silo->info().mount_point], (std::vector<A>{{A::INODE_DATA, f, ""}}));
}

TEST_F(Silo, AMovedLvutInvalidatesTheAttributesTheKernelHoldsOncePerTimeout) {
  const std::string mp = silo->info().mount_point;
  auto actions = [&] {
    std::lock_guard<std::mutex> lk(rec.mu);
    std::vector<A> got = rec.actions[mp];
    rec.actions.clear();
    std::sort(got.begin(), got.end(), [](const A& x, const A& y) { return x.parent_or_ino < y.parent_or_ino; });
    return got;
  };
  agent.set_lvut(100);
  const uint64_t d = look(1, "d"), f = look(1, "f");
  EXPECT_TRUE(actions().empty());  // the first time seen dates nothing
  agent.set_lvut(90);
  EXPECT_EQ(getattr(f), 0);
  EXPECT_TRUE(actions().empty());  // an older time moves nothing
  agent.set_lvut(200);
  EXPECT_EQ(getattr(f), 0);
  EXPECT_EQ(actions(), (std::vector<A>{{A::INODE, 1, ""}, {A::INODE, d, ""}, {A::INODE, f, ""}}));
  agent.set_lvut(300);  // within the attribute timeout of the last invalidation
  EXPECT_EQ(look(1, "d"), d);
  EXPECT_TRUE(actions().empty());
}

TEST_F(Silo, StatResolvesPathsThroughTheAgent) {
  const std::string v = view_root("v");
  struct {
    std::string path;
    bool follow;
    int32_t status;
    uint32_t type;
  } rows[] = {
      {v + "/proj/d/g", true, 0, 1},         {v + "/proj/l/g", true, 0, 1},  // a link on the way
      {v + "/proj/l", false, 0, 5},          {v + "/proj/l", true, 0, 2},
      {v + "/proj", true, 0, 2},             {v + "/proj/abs", true, TBS_ST_BAD_ARG, 0},
      {v + "/proj/loop", true, TBS_ST_LOOP, 0},     {v + "/proj/nothing", true, TBS_ST_NO_SUCH_NAME, 0},
      {v + "/projx/f", true, TBS_ST_NO_SUCH_NAME, 0}, {opt.root + "/w/proj/f", true, TBS_ST_BAD_ARG, 0},
  };
  for (auto& row : rows) {
    SCOPED_TRACE(row.path + (row.follow ? "" : " (no follow)"));
    view_vstat_t vs;
    memset(&vs, 0, sizeof vs);
    kfsm_xstat_info x;
    ASSERT_EQ(cmd_xstat(row.path, row.follow, &vs, &x), row.status);
    EXPECT_EQ(vs.fstat.type, row.status == 0 ? row.type : 0u);
  }
  view_vstat_t vs;
  kfsm_xstat_info x;
  ASSERT_EQ(cmd_xstat(v + "/proj/l/g", true, &vs, &x), 0);
  EXPECT_EQ(vs.fstat.size, 40u);
  EXPECT_EQ(x.oid, Agent::oid(4));
  EXPECT_EQ(x.uuid, uuid_n(5));
  EXPECT_EQ(x.uuid2, uuid_n(1));
}

}  // namespace

namespace {

// The kernel keeps the pages of a SILO file between opens only while the file is what it was at the
// last open: same attributes and backing file, and not opened for direct I/O meanwhile.
TEST_F(Silo, TheKernelKeepsPagesOfAnUnchangedFileBetweenOpens) {
  const std::string backing = base + "/f.cltxt";
  std::ofstream(backing) << std::string(30, 'f');
  agent.set_cleartext(backing, false);
  const uint64_t f = look(1, "f");
  struct Step {
    const char* what;
    std::function<void()> change;
    bool keep, direct;
  } steps[] = {
      {"first open", [] {}, false, false},
      {"second open", [] {}, true, false},
      {"size changed", [&] { agent.add(1, "f", 3, 1, 31); }, false, true},
      {"size back", [&] { agent.add(1, "f", 3, 1, 30); }, false, false},
      {"unchanged again", [] {}, true, false},
      {"other backing file", [&] {
         std::ofstream(backing + ".new") << std::string(30, 'g');
         std::filesystem::rename(backing + ".new", backing);
       }, false, false},
  };
  for (const Step& s : steps) {
    SCOPED_TRACE(s.what);
    s.change();
    ASSERT_EQ(getattr(f), 0);
    Rec_Reply r;
    silo->open(f, O_RDONLY, r);
    ASSERT_EQ(r.error, 0);
    EXPECT_EQ(r.keep_cache, s.keep);
    EXPECT_EQ(r.direct_io, s.direct);
  }
  EXPECT_EQ(agent.count(VIEW_RPC_GETCLEARTEXT), 6);  // one call to the agent per open
}

}  // namespace
