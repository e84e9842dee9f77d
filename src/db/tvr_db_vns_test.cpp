// The namespace records: scope operations, the creation check, removal and the trust of name lookups,
// each scenario checked against the expected tree and by the invariant checker after every step.
#include "db/tvr_db_vns.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <random>

#include "db/db_test_util.h"
#include "db/rec/dt.h"
#include "db/rec/test_util.h"
#include "db/tavrel_db_vns.h"
#include "db/tavrel_engine_utls.h"
#include "db/tvr_db_silo.h"
#include "db/vns_check.h"
#include "proto/wan_names.h"

namespace {

tbs_oid_s oid(uint32_t n) {
  tbs_oid_s o{};
  o.bytes[0] = 0x7a;
  std::memcpy(o.bytes + 12, &n, 4);
  return o;
}

const tbs_fstat_db_t kFstat{};
const struct timeval kTime{};

class VnsTest : public dbtest::DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    ASSERT_EQ(write([&] {
                int st = tvr_db_silo_create(tbs_uuid_create(), "host:/silo", &silo_);
                return st != 0 ? st : tvr_db_create_def_scope();
              }),
              0);
    ASSERT_EQ(tvr_db_dbid_to_dba(silo_, &silo_dba_), 0);
  }

  static int write(const std::function<int()>& f) { return tvr_db_in_trans(1, f); }
  static int read(const std::function<int()>& f) { return tvr_db_in_trans(0, f); }

  // The invariant checker after a step.
  void check(const char* step) {
    std::string report;
    EXPECT_EQ(read([&] { return vns_check(&report); }), 0) << step << ":\n" << report;
  }

  int root(uint32_t elem, uint32_t ver, const tbs_oid_s* scope = nullptr, uint32_t gn = 1, int load_state = 0) {
    uint32_t dbid = 0;
    return write([&] {
      int st = tvr_db_create_vns_elem(silo_, oid(elem), SILO_MTYPE_DIR_ELEM, kTime, kFstat, 0, nullptr, &dbid);
      return st != 0 ? st : tvr_db_create_root_dir(silo_, oid(ver), oid(elem), kTime, kFstat, scope, gn, load_state, &dbid);
    }) == 0 ? static_cast<int>(dbid) : -1;
  }

  // A version `ver` of element `elem` (a directory when `dir`) under `name` in `parent`; its dbid or -status.
  int add(uint32_t parent, const char* name, uint32_t elem, uint32_t ver, bool dir, const tbs_oid_s* scope = nullptr,
          uint32_t gn = 1, int load_state = 0, tbs_oid_s* out_oid = nullptr) {
    uint32_t dbid = 0;
    int st = write([&] {
      int s = tvr_db_create_vns_elem(silo_, oid(elem), dir ? SILO_MTYPE_DIR_ELEM : SILO_MTYPE_FILE_ELEM, kTime, kFstat,
                                     0, nullptr, &dbid);
      if (s != 0) return s;
      return tvr_db_create_vns_ver(silo_, parent, oid(ver), oid(elem), dir ? SILO_MTYPE_DIR_VER : SILO_MTYPE_FILE_VER,
                                   kTime, name, kFstat, scope, gn, load_state, &dbid, nullptr, out_oid);
    });
    return st == 0 ? static_cast<int>(dbid) : -st;
  }

  int lookup(uint32_t dir, const char* name, uint32_t* dbid = nullptr) {
    uint32_t d = 0;
    int st = read([&] { return tvr_db_vns_ver_lookup_name(silo_, dir, name, &d, nullptr, nullptr, nullptr); });
    if (dbid != nullptr) *dbid = d;
    return st;
  }

  struct Dir {
    int done = -1, saved = -1;
  };
  Dir dir_state(uint32_t dbid) {
    Dir d;
    read([&] {
      int found = 0;
      DB_ADDR dba = 0;
      vns_db_dir_ver row{};
      int st = tvr_db_dir_ver_lookup(silo_dba_, dbid, &found, &dba);
      if (st == 0 && found && dt_crset(&dba, view_db_task, -1) == 0 && dt_recread(&row, view_db_task, -1) == 0) {
        d.done = row.rddir_done;
        d.saved = row.saved_rddir_state;
      }
      return st;
    });
    return d;
  }

  // The visible tree below `dir`: "path=version-oid-number" lines, depth first.
  std::map<std::string, uint32_t> tree(uint32_t dir, const std::string& prefix = "") {
    std::map<std::string, uint32_t> out;
    std::vector<tvr_db_dirent> names;
    EXPECT_EQ(read([&] { return tvr_db_ver_get_sub_vers(silo_, dir, names); }), 0);
    for (const auto& n : names) {
      vns_db_obj obj{};
      EXPECT_EQ(read([&] { return tvr_db_get_obj_info(silo_, n.dbid, &obj); }), 0);
      uint32_t num = 0;
      std::memcpy(&num, obj.vns_obj_oid.bytes + 12, 4);
      out[prefix + n.name] = num;
      if (n.mtype == SILO_MTYPE_DIR_VER) out.merge(tree(n.dbid, prefix + n.name + "/"));
    }
    return out;
  }

  uint32_t silo_ = 0;
  DB_ADDR silo_dba_ = 0;
  const tbs_oid_s scope1_ = oid(9001), scope2_ = oid(9002);
};

// A load of a non-default scope parks a fully listed directory's readiness in saved state 3, so no reader
// trusts it before the load ends; the end of the load makes it done and stamps every name with the gn.
TEST_F(VnsTest, ScopeLoadParksReadinessUntilTheEnd) {
  ASSERT_EQ(write([&] { return tvr_db_create_lr_scope(scope1_, 1, "/silo/src"); }), 0);
  tavrel_scope s{};
  ASSERT_EQ(read([&] { return tvr_db_get_scope_by_name("/silo/src", &s); }), 0);
  EXPECT_EQ(s.oid, scope1_);
  EXPECT_EQ(s.gn, 1u);
  ASSERT_EQ(tavrel_db_begin_lr_scope_load(scope1_, 2), 0);
  int r = root(1, 2);
  ASSERT_GT(r, 0);
  int src = add(r, "src", 3, 4, true, &scope1_, 2, 1);
  ASSERT_GT(src, 0);
  ASSERT_GT(add(src, "a.c", 5, 6, false, &scope1_, 2, 0), 0);
  EXPECT_EQ(dir_state(src).done, 0);
  EXPECT_EQ(dir_state(src).saved, 3);
  bool removed = false;
  ASSERT_EQ(write([&] { return tvr_db_ver_set_readdir_done(silo_, src, 1, removed); }), 0);
  EXPECT_EQ(dir_state(src).done, 0) << "a running load owns the directory's readiness";
  check("during load");
  int empty = -1;
  ASSERT_EQ(tavrel_db_is_lr_scope_empty(scope1_, &empty), 0);
  EXPECT_EQ(empty, 0);
  ASSERT_EQ(tavrel_db_end_lr_scope_load(scope1_, 2), 0);
  EXPECT_EQ(dir_state(src).done, 1);
  EXPECT_EQ(dir_state(src).saved, 0);
  uint32_t gn = 0;
  tbs_oid_s scope{};
  ASSERT_EQ(read([&] { return tvr_db_vns_ver_lookup_name(silo_, src, "a.c", nullptr, nullptr, &scope, &gn); }), 0);
  EXPECT_EQ(scope, scope1_);
  EXPECT_EQ(gn, 2u);
  std::vector<tavrel_scope> removed_scopes;
  ASSERT_EQ(tavrel_db_get_removed_lr_scopes(removed_scopes), 0);
  EXPECT_TRUE(removed_scopes.empty());
  check("after load");
}

// An update that selects a new version of a directory keeps its children as rows of the new version,
// unvalidated, until the end of the update validates them (the old version was done).
TEST_F(VnsTest, UpdateReplacingADirectoryKeepsItsChildren) {
  int r = root(1, 2);
  int d1 = add(r, "lib", 3, 4, true);
  ASSERT_GT(add(d1, "x.h", 5, 6, false), 0);
  ASSERT_GT(add(d1, "sub", 7, 8, true), 0);
  ASSERT_EQ(write([&] { return tvr_db_ver_set_load_done(silo_, d1, 1); }), 0);
  ASSERT_EQ(tavrel_db_begin_def_scope(5), 0);
  tbs_oid_s was{};
  int d2 = add(r, "lib", 3, 40, true, nullptr, 5, 2, &was);
  ASSERT_GT(d2, d1);
  EXPECT_EQ(was, oid(4));
  EXPECT_EQ(tree(r), (std::map<std::string, uint32_t>{{"lib", 40}, {"lib/sub", 8}, {"lib/x.h", 6}}));
  EXPECT_EQ(lookup(d2, "x.h"), TBS_ST_REVALIDATE);
  EXPECT_EQ(dir_state(d2).saved, 2);
  int found = 1;
  ASSERT_EQ(read([&] { return tvr_db_obj_lookup(silo_dba_, d1, &found, nullptr); }), 0);
  EXPECT_EQ(found, 0) << "the old version is gone";
  check("during update");
  ASSERT_EQ(tavrel_db_end_def_scope(5), 0);
  EXPECT_EQ(lookup(d2, "x.h"), 0);
  EXPECT_EQ(dir_state(d2).done, 1);
  check("after update");
}

// A name that now shows another element (an evil twin) loses the old subtree completely before the new
// object enters under a fresh dbid.
TEST_F(VnsTest, EvilTwinTakesTheOldSubtreeAway) {
  int r = root(1, 2);
  int old_dir = add(r, "src", 3, 4, true);
  const std::string long_name(200, 'x');  // a name with a byte chain
  int old_file = add(old_dir, long_name.c_str(), 5, 6, false);
  ASSERT_GT(old_file, 0);
  int link_dbid = 0;
  ASSERT_EQ(write([&] {
              uint32_t d = 0;
              int st = tvr_db_create_vns_slink(silo_, old_dir, oid(7), kTime, "ln", std::string(100, 't').c_str(),
                                               nullptr, 1, &d);
              link_dbid = static_cast<int>(d);
              return st;
            }),
            0);
  tbs_oid_s was{};
  int fresh = add(r, "src", 30, 40, false, nullptr, 1, 0, &was);
  ASSERT_GT(fresh, link_dbid);
  EXPECT_EQ(was, oid(4));
  EXPECT_EQ(tree(r), (std::map<std::string, uint32_t>{{"src", 40}}));
  for (int gone : {old_dir, old_file, link_dbid}) {
    int found = 1;
    ASSERT_EQ(read([&] { return tvr_db_obj_lookup(silo_dba_, gone, &found, nullptr); }), 0);
    EXPECT_EQ(found, 0) << gone;
  }
  check("after evil twin");
  ASSERT_EQ(write([] { return tvr_db_cleanup_unused_elem(); }), 0);
  uint32_t elem = 0;
  EXPECT_EQ(read([&] { return tvr_db_vns_elem_lookup(silo_dba_, oid(3), &elem); }), TBS_ST_NOT_FOUND);
  check("after cleanup of unused elements");
}

// One version under two names in two scopes: deleting one scope removes its name only, the other name
// keeps the version; the per-scope lists name it once each.
TEST_F(VnsTest, HardLinkAcrossScopesSurvivesOneScope) {
  ASSERT_EQ(write([&] {
              int st = tvr_db_create_lr_scope(scope1_, 1, "/silo/a");
              return st != 0 ? st : tvr_db_create_lr_scope(scope2_, 1, "/silo/b");
            }),
            0);
  int r = root(1, 2);
  int a = add(r, "a", 3, 4, true, &scope1_);
  int b = add(r, "b", 5, 6, true, &scope2_);
  int v1 = add(a, "f", 7, 8, false, &scope1_);
  int v2 = add(b, "g", 7, 8, false, &scope2_);
  ASSERT_GT(v1, 0);
  EXPECT_EQ(v1, v2) << "the second name is a name of the existing version";
  std::vector<tavrel_scope_vers> vers;
  ASSERT_EQ(read([&] { return tvr_db_scope_get_versions(scope2_, vers); }), 0);
  EXPECT_EQ(vers.size(), 2u);
  check("two names");
  ASSERT_EQ(tavrel_db_delete_lr_scope(scope1_), 0);
  EXPECT_EQ(tree(r), (std::map<std::string, uint32_t>{{"b", 6}, {"b/g", 8}}));
  view_vstat_t vs{};
  ASSERT_EQ(read([&] { return tvr_db_get_ver_vstat(silo_, v1, &vs); }), 0);
  EXPECT_EQ(vs.fstat.nlink, 1u);
  EXPECT_EQ(vs.elem_oid, oid(7));
  DB_ADDR dba = 0;
  EXPECT_EQ(read([&] { return tvr_db_lookup_lr_scope_oid(scope1_, &dba); }), TBS_ST_NOT_FOUND);
  check("after deleting one scope");
}

// Names marked for removal go at the end of the update, files first, then directories children first;
// names not marked take the new generation.
TEST_F(VnsTest, RemoveMarksTakeEffectAtTheEndOfTheUpdate) {
  tbs_uuid_s replica{};
  ASSERT_EQ(read([&] { return tvr_db_silo_get_uuid(silo_, &replica); }), 0);
  int r = root(1, 2);
  int top = add(r, "top", 3, 4, true);
  int mid = add(top, "mid", 5, 6, true);
  ASSERT_GT(add(mid, "leaf", 7, 8, false), 0);
  ASSERT_GT(add(top, "keep", 9, 10, false), 0);
  ASSERT_EQ(tavrel_db_begin_def_scope(3), 0);
  EXPECT_EQ(tavrel_db_ver_mark_remove(replica, oid(5), oid(8), "leaf"), 0);
  EXPECT_EQ(tavrel_db_ver_mark_remove(replica, oid(3), oid(6), "mid"), 0);
  EXPECT_EQ(tavrel_db_ver_mark_remove(replica, oid(3), oid(99), "nothing"), 0) << "an unknown name has nothing to mark";
  EXPECT_EQ(tree(r).size(), 4u) << "marks alone remove nothing";
  ASSERT_EQ(tavrel_db_end_def_scope(3), 0);
  EXPECT_EQ(tree(r), (std::map<std::string, uint32_t>{{"top", 4}, {"top/keep", 10}}));
  uint32_t gn = 0;
  ASSERT_EQ(read([&] { return tvr_db_vns_ver_lookup_name(silo_, top, "keep", nullptr, nullptr, nullptr, &gn); }), 0);
  EXPECT_EQ(gn, 3u);
  ASSERT_EQ(read([&] { return tvr_db_get_def_scope_gn(&gn); }), 0);
  EXPECT_EQ(gn, 3u);
  check("after update");
}

// The end of the default scope visits the names this process saw marked or replaced, so what an update
// left before the database was opened again (a mark, a replaced directory's waiting state) must still be
// found; an end whose transaction is aborted leaves its work to the next one; names the end did not
// visit read its generation.
TEST_F(VnsTest, DefaultScopeEndFindsWhatAnEarlierOpenLeft) {
  tbs_uuid_s replica{};
  ASSERT_EQ(read([&] { return tvr_db_silo_get_uuid(silo_, &replica); }), 0);
  int r = root(1, 2);
  int top = add(r, "top", 3, 4, true);
  ASSERT_GT(add(top, "a", 5, 6, false), 0);
  ASSERT_GT(add(top, "b", 7, 8, false), 0);
  int lib = add(r, "lib", 9, 10, true);
  ASSERT_GT(add(lib, "x.h", 11, 12, false), 0);
  ASSERT_EQ(write([&] { return tvr_db_ver_set_load_done(silo_, lib, 1); }), 0);
  ASSERT_EQ(tavrel_db_begin_def_scope(2), 0);
  ASSERT_EQ(tavrel_db_end_def_scope(2), 0);  // from here on this process has seen every mark it made
  ASSERT_EQ(tvr_db_close_db(), 0);
  pid_t pid = fork();
  if (pid == 0) {  // another agent: it marks a name and replaces a directory, and stops before the end
    int created = 0;
    bool ok = tavrel_db_init(&created) == 0 && tavrel_db_begin_def_scope(3) == 0 &&
              tavrel_db_ver_mark_remove(replica, oid(3), oid(6), "a") == 0 &&
              add(r, "lib", 9, 100, true, nullptr, 3, 2) > 0 && tvr_db_close_db() == 0;
    _exit(ok ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  int created = 0;
  ASSERT_EQ(tavrel_db_init(&created), 0);
  uint32_t lib2 = 0;
  ASSERT_EQ(lookup(r, "lib", &lib2), 0);
  ASSERT_EQ(dir_state(lib2).saved, 2);
  ASSERT_EQ(tavrel_db_begin_def_scope(3), 0);
  ASSERT_EQ(tavrel_db_end_def_scope(3), 0);
  EXPECT_EQ(tree(r), (std::map<std::string, uint32_t>{{"top", 4}, {"top/b", 8}, {"lib", 100}, {"lib/x.h", 12}}));
  EXPECT_EQ(dir_state(lib2).done, 1);
  EXPECT_EQ(lookup(lib2, "x.h"), 0);
  ASSERT_EQ(tavrel_db_begin_def_scope(4), 0);
  ASSERT_EQ(tavrel_db_ver_mark_remove(replica, oid(3), oid(8), "b"), 0);
  EXPECT_EQ(write([&] {
              int st = tvr_db_end_def_scope(4);
              return st != 0 ? st : TBS_ST_INTERNAL;  // aborted after the work
            }),
            TBS_ST_INTERNAL);
  EXPECT_EQ(tree(top), (std::map<std::string, uint32_t>{{"b", 8}}));
  ASSERT_EQ(tavrel_db_end_def_scope(4), 0);
  EXPECT_EQ(tree(top), (std::map<std::string, uint32_t>{}));
  uint32_t gn = 0;
  ASSERT_EQ(read([&] { return tvr_db_vns_ver_lookup_name(silo_, lib2, "x.h", nullptr, nullptr, nullptr, &gn); }), 0);
  EXPECT_EQ(gn, 4u);
  ASSERT_EQ(read([&] { return tvr_db_get_ver_scope_oid(silo_, top, nullptr, &gn); }), 0);
  EXPECT_EQ(gn, 4u);
  check("after the updates");
}

// A load that never reached its end leaves the scope at state 1, which after a restart lists it as
// removed (to be cleaned out) and keeps it out of the working list.
TEST_F(VnsTest, InterruptedLoadIsListedAsRemovedAfterReopen) {
  ASSERT_EQ(tavrel_db_create_lr_scope(scope1_, 1, "/silo/half"), 0);
  ASSERT_EQ(tavrel_db_begin_lr_scope_load(scope1_, 4), 0);
  ASSERT_EQ(tvr_db_close_db(), 0);
  int created = 0;
  ASSERT_EQ(tavrel_db_init(&created), 0);
  std::vector<tavrel_scope> scopes;
  ASSERT_EQ(tavrel_db_get_removed_lr_scopes(scopes), 0);
  ASSERT_EQ(scopes.size(), 1u);
  EXPECT_EQ(scopes[0].oid, scope1_);
  EXPECT_STREQ(scopes[0].name, "/silo/half");
  ASSERT_EQ(tavrel_db_get_lr_scopes(0, scopes), 0);
  ASSERT_EQ(scopes.size(), 1u);
  EXPECT_STREQ(scopes[0].name, TVR_DB_DEF_SCOPE_NAME);
}

// How far a name lookup may be trusted: absent, unconfirmed, stale version, confirmed.
TEST_F(VnsTest, LookupTrustTable) {
  int r = root(1, 2);
  int f = add(r, "f", 3, 4, false);
  ASSERT_GT(f, 0);
  ASSERT_EQ(write([&] {
              uint32_t d = 0;
              return tvr_db_create_vns_slink(silo_, r, oid(5), kTime, "l", "target", nullptr, 1, &d);
            }),
            0);
  struct Row {
    const char* what;
    std::function<int()> step;
    const char* name;
    int want;
  } rows[] = {
      {"absent", [] { return 0; }, "nope", TBS_ST_NOT_FOUND},
      {"confirmed", [] { return 0; }, "f", 0},
      {"unconfirmed", [&] { return tvr_db_obj_set_validated(silo_, f, 0); }, "f", TBS_ST_REVALIDATE},
      {"confirmed again, stale", [&] {
         int st = tvr_db_ver_set_validated(silo_, f, 1);
         return st != 0 ? st : tvr_db_ver_set_stale(silo_, f, 1);
       }, "f", TBS_ST_REVALIDATE},
      {"fresh", [&] { return tvr_db_ver_set_stale(silo_, f, 0); }, "f", 0},
      {"a link is never stale", [] { return 0; }, "l", 0},
  };
  for (const auto& row : rows) {
    ASSERT_EQ(write(row.step), 0) << row.what;
    uint32_t dbid = 0;
    EXPECT_EQ(lookup(r, row.name, &dbid), row.want) << row.what;
    if (row.want != TBS_ST_NOT_FOUND) {
      EXPECT_NE(dbid, 0u) << row.what << ": results come before trust";
    }
  }
  uint32_t dbid = 0;
  ASSERT_EQ(write([&] { return tvr_db_ver_set_stale(silo_, f, 1); }), 0);
  EXPECT_EQ(read([&] { return tvr_db_vns_ver_lookup(silo_dba_, oid(4), &dbid, nullptr); }), TBS_ST_REVALIDATE);
  EXPECT_EQ(dbid, static_cast<uint32_t>(f));
}

// Creating the same objects again changes nothing: the database dumps identically.
TEST_F(VnsTest, CreateTwiceIsIdentical) {
  auto build = [&] {
    int r = root(1, 2);
    int d = add(r, std::string(150, 'd').c_str(), 3, 4, true);
    add(d, "f", 5, 6, false);
    add(d, "hard", 5, 6, false);
    write([&] {
      uint32_t x = 0;
      return tvr_db_create_vns_slink(silo_, d, oid(7), kTime, "ln", std::string(80, 't').c_str(), nullptr, 1, &x);
    });
  };
  build();
  check("first run");
  std::string first, second;
  read([&] { first = rectest::dump(view_db_task); return 0; });
  build();
  read([&] { second = rectest::dump(view_db_task); return 0; });
  EXPECT_EQ(first, second);
}

// The view row: created once, later creates and sets move only the current generation.
TEST_F(VnsTest, ViewRowKeepsItsInitialGeneration) {
  unsigned gn = 0;
  EXPECT_EQ(tavrel_db_get_vns_view_gn(&gn), TBS_ST_NOT_FOUND);
  tbs_uuid_s view = tbs_uuid_create();
  ASSERT_EQ(tavrel_db_create_vns_view(view, 7), 0);
  ASSERT_EQ(tavrel_db_set_vns_view_gn(9), 0);
  ASSERT_EQ(tavrel_db_create_vns_view(tbs_uuid_create(), 11), 0);
  tbs_uuid_s u{};
  uint32_t initial = 0, cur = 0;
  ASSERT_EQ(read([&] { return tvr_db_get_vns_view(&u, &cur, &initial); }), 0);
  EXPECT_EQ(u, view);
  EXPECT_EQ(cur, 11u);
  EXPECT_EQ(initial, 7u);
}

// Bad handles and lengths: each answers its own status and changes nothing.
TEST_F(VnsTest, HandlesAndLengthLimits) {
  int r = root(1, 2);
  const std::string n255(255, 'a'), n256(256, 'a');
  uint32_t stale_silo = 0;
  ASSERT_EQ(write([&] { return tvr_db_silo_create(tbs_uuid_create(), "h:/gone", &stale_silo); }), 0);
  ASSERT_EQ(write([&] { return tvr_db_silo_delete(stale_silo); }), 0);
  struct Row {
    const char* what;
    uint32_t silo;
    const std::string* name;
    int want;
  } rows[] = {
      {"no silo", 0, &n255, TBS_ST_NOT_FOUND},
      {"silo without the dbid flag", silo_dba_, &n255, TBS_ST_INTERNAL},
      {"deleted silo", stale_silo, &n255, TBS_ST_STALE},
      {"name of 256 bytes", silo_, &n256, TBS_ST_TOO_LONG},
      {"name of 255 bytes", silo_, &n255, 0},
  };
  for (const auto& row : rows) {
    uint32_t dbid = 0;
    int st = write([&] {
      int s = tvr_db_create_vns_elem(silo_, oid(3), SILO_MTYPE_FILE_ELEM, kTime, kFstat, 0, nullptr, &dbid);
      return s != 0 ? s : tvr_db_create_vns_ver(row.silo, r, oid(4), oid(3), SILO_MTYPE_FILE_VER, kTime,
                                                row.name->c_str(), kFstat, nullptr, 1, 0, &dbid, nullptr, nullptr);
    });
    EXPECT_EQ(st, row.want) << row.what;
  }
  EXPECT_EQ(lookup(r, n255.c_str()), 0);
  // Scope names: 54 bytes inline, the rest chained; a buffer must hold the name and its NUL.
  const std::string scope_name(1023, 's');
  EXPECT_EQ(tavrel_db_create_lr_scope(scope1_, 1, (scope_name + "x").c_str()), TBS_ST_TOO_LONG);
  ASSERT_EQ(tavrel_db_create_lr_scope(scope1_, 1, scope_name.c_str()), 0);
  char small[55];
  DB_ADDR dba = 0;
  ASSERT_EQ(read([&] { return tvr_db_lookup_lr_scope_name(scope_name.c_str(), &dba); }), 0);
  EXPECT_EQ(read([&] { return tvr_db_get_lr_scope_name(dba, sizeof small, small); }), TBS_ST_TOO_LONG);
  // Creating it again at generation 1 idles it and keeps its name.
  ASSERT_EQ(tavrel_db_begin_lr_scope_update(scope1_, 6), 0);
  ASSERT_EQ(tavrel_db_create_lr_scope(scope1_, 1, "other"), 0);
  tavrel_scope s{};
  ASSERT_EQ(read([&] { return tvr_db_get_scope_by_name(scope_name.c_str(), &s); }), 0);
  EXPECT_EQ(s.gn, 1u);
  std::vector<tavrel_scope> all;
  ASSERT_EQ(tavrel_db_get_lr_scopes(0, all), 0);
  EXPECT_EQ(all.size(), 2u) << "idle again, so listed";
  check("after limits");
}

// Check-out marks follow the element, given by the element or a version; moving a scope's names to the
// default scope keeps the objects; cleaning removes every namespace row but the elements.
TEST_F(VnsTest, CheckoutsRehomingAndCleanup) {
  ASSERT_EQ(tavrel_db_create_lr_scope(scope1_, 1, "/silo/d"), 0);
  int r = root(1, 2);
  int d = add(r, "d", 3, 4, true, &scope1_);
  int f = add(d, "f", 5, 6, false, &scope1_);
  bool any = true;
  ASSERT_EQ(read([&] { return tvr_db_has_checkouts(&any); }), 0);
  EXPECT_FALSE(any);
  tbs_oid_s co = oid(77);
  ASSERT_EQ(write([&] { return tvr_db_elem_set_checkedout(silo_, f, &co, 1); }), 0);
  ASSERT_EQ(write([&] { return tvr_db_elem_set_checkedout(silo_, r, nullptr, 1); }), 0);
  std::vector<tavrel_hijack_co_info> cos;
  ASSERT_EQ(read([&] { return tvr_db_find_checkouts(cos); }), 0);
  ASSERT_EQ(cos.size(), 2u);
  std::map<std::string, tbs_oid_s> by_name;
  for (const auto& c : cos) by_name[c.name] = c.parent_oid;
  EXPECT_EQ(by_name.at("f"), oid(3)) << "the parent is named by its element";
  EXPECT_EQ(by_name.at(TVR_DB_ROOT_DIR_NAME), TBS_OID_NULL);
  int flag = 0;
  tbs_oid_s ver{};
  ASSERT_EQ(write([&] { return tvr_db_elem_set_checkedout(silo_, f, nullptr, 0); }), 0);
  ASSERT_EQ(read([&] { return tvr_db_elem_get_checkedout(silo_, f, &flag, &ver); }), 0);
  EXPECT_EQ(flag, 0);
  EXPECT_EQ(ver, co) << "a null OID leaves the former one";
  ASSERT_EQ(tavrel_db_remove_lr_scope(scope1_, 1, nullptr), 0);
  EXPECT_EQ(tree(r), (std::map<std::string, uint32_t>{{"d", 4}, {"d/f", 6}}));
  tbs_oid_s scope{};
  ASSERT_EQ(read([&] { return tvr_db_get_ver_scope_oid(silo_, f, &scope, nullptr); }), 0);
  EXPECT_EQ(scope, AUTOMATIC_LOAD_SCOPE_OID);
  int empty = 0;
  ASSERT_EQ(tavrel_db_is_def_scope_silo_empty(tbs_uuid_create(), &empty), 0);
  EXPECT_EQ(empty, 1);
  tbs_uuid_s replica{};
  ASSERT_EQ(read([&] { return tvr_db_silo_get_uuid(silo_, &replica); }), 0);
  ASSERT_EQ(tavrel_db_is_def_scope_silo_empty(replica, &empty), 0);
  EXPECT_EQ(empty, 0);
  check("rehomed");
  ASSERT_EQ(write([] { return tvr_db_cleanup_vns_recs(0); }), 0);
  int has = 1;
  ASSERT_EQ(read([&] { return tvr_db_silo_has_root_dir(silo_, &has); }), 0);
  EXPECT_EQ(has, 0);
  uint32_t elem = 0;
  EXPECT_EQ(read([&] { return tvr_db_vns_elem_lookup(silo_dba_, oid(5), &elem); }), 0) << "elements stay";
  EXPECT_EQ(read([&] { return tvr_db_vns_ver_lookup(silo_dba_, oid(6), &elem, nullptr); }), TBS_ST_NOT_FOUND);
  check("cleaned");
  ASSERT_EQ(write([] { return tvr_db_cleanup_vns_recs(1); }), 0);
  EXPECT_EQ(root(1, 2), 3) << "a full clean restarts the dbids: element 2, root version 3";
  check("cleaned all");
}

// A seeded random workload of creates, version changes, evil twins, marked removals and validation
// changes, against a model of the visible tree, with the checker after every step.
TEST_F(VnsTest, RandomWorkloadKeepsTheInvariants) {
  std::mt19937 rng(20240611);
  struct Node {
    uint32_t elem, ver;
    bool dir;
  };
  std::map<std::string, Node> model;  // path -> node
  std::map<std::string, int> dbids;   // path -> dbid of its version (directories only)
  uint32_t next = 100;
  int r = root(1, 2);
  ASSERT_GT(r, 0);
  dbids[""] = r;
  tbs_uuid_s replica{};
  ASSERT_EQ(read([&] { return tvr_db_silo_get_uuid(silo_, &replica); }), 0);
  auto pick_dir = [&] {
    std::vector<std::string> dirs{""};
    for (auto& [p, n] : model)
      if (n.dir) dirs.push_back(p);
    return dirs[rng() % dirs.size()];
  };
  auto drop = [&](const std::string& p) {
    for (auto it = model.begin(); it != model.end();) {
      bool below = it->first == p || it->first.rfind(p + "/", 0) == 0;
      if (below) dbids.erase(it->first);
      it = below ? model.erase(it) : std::next(it);
    }
  };
  auto parent_of = [](const std::string& p) {
    size_t slash = p.rfind('/');
    return slash == std::string::npos ? std::string() : p.substr(0, slash);
  };
  uint32_t gn = 1;
  for (int step = 0; step < 300; ++step) {
    std::string dir = pick_dir();
    std::string name = "n" + std::to_string(rng() % 6);
    std::string path = dir.empty() ? name : dir + "/" + name;
    int op = static_cast<int>(rng() % 10);
    if (op < 5 || !model.count(path)) {  // create, or a new element under a used name
      bool is_dir = rng() % 3 == 0;
      Node n{next++, next++, is_dir};
      int d = add(dbids[dir], name.c_str(), n.elem, n.ver, is_dir);
      ASSERT_GT(d, 0) << "step " << step;
      drop(path);
      model[path] = n;
      if (is_dir) dbids[path] = d;
    } else if (op < 7) {  // a new version of the same element
      Node& n = model[path];
      n.ver = next++;
      int d = add(dbids[dir], name.c_str(), n.elem, n.ver, n.dir, nullptr, gn, 2);
      ASSERT_GT(d, 0) << "step " << step;
      if (n.dir) dbids[path] = d;
    } else if (op < 9) {  // removal through a mark and the end of an update
      ASSERT_EQ(tavrel_db_begin_def_scope(++gn), 0);
      std::string pdir = parent_of(path);
      uint32_t parent_elem = pdir.empty() ? 1 : model[pdir].elem;
      ASSERT_EQ(tavrel_db_ver_mark_remove(replica, oid(parent_elem), oid(model[path].ver), name.c_str()), 0);
      ASSERT_EQ(tavrel_db_end_def_scope(gn), 0) << "step " << step;
      drop(path);
    } else {  // unconfirm and confirm again
      uint32_t d = 0;
      int st = lookup(dbids[dir], name.c_str(), &d);
      ASSERT_TRUE(st == 0 || st == TBS_ST_REVALIDATE) << st;
      ASSERT_EQ(write([&] { return tvr_db_obj_set_validated(silo_, d, 0); }), 0);
      EXPECT_EQ(lookup(dbids[dir], name.c_str()), TBS_ST_REVALIDATE);
      Node& n = model[path];
      ASSERT_GT(add(dbids[dir], name.c_str(), n.elem, n.ver, n.dir), 0);
      EXPECT_EQ(lookup(dbids[dir], name.c_str()), 0);
    }
    std::map<std::string, uint32_t> want;
    for (auto& [p, n] : model) want[p] = n.ver;
    ASSERT_EQ(tree(r), want) << "step " << step;
    std::string report;
    ASSERT_EQ(read([&] { return vns_check(&report); }), 0) << "step " << step << ":\n" << report;
  }
}

}  // namespace
