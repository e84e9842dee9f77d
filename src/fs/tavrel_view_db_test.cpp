#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/tavrel_status.h"
#include "core/tavrel_view.h"
#include "db/db_test_util.h"
#include "db/rec/dt.h"
#include "db/tavrel_engine_db.h"
#include "db/tavrel_db_vns.h"
#include "db/tavrel_engine_utls.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_vns.h"
#include "fs/tavrel_view_db.h"
#include "fs/tavrel_view_db_element.h"
#include "fs/tavrel_view_db_root_dir.h"
#include "fs/tavrel_view_db_silo.h"
#include "fs/tavrel_view_db_symlink.h"
#include "fs/tavrel_view_db_version.h"

namespace {

tbs_oid_s oid(uint32_t n) {
  tbs_oid_s o{};
  std::memcpy(o.bytes + 12, &n, 4);
  o.bytes[0] = 0x5a;
  return o;
}

tavrel_vstat vstat(silo_mtype_t mtype, const tbs_oid_s& obj, const tbs_oid_s& elem, const char* path = "") {
  tavrel_vstat v{};
  v.vstat.mtype = mtype;
  v.vstat.obj_oid = obj;
  v.vstat.elem_oid = elem;
  v.vstat.fstat.type = mtype == SILO_MTYPE_DIR_VER || mtype == SILO_MTYPE_DIR_ELEM ? TBS_FTYPE_DIR : TBS_FTYPE_FILE;
  v.vstat.fstat.mode = 0755;
  v.vstat.event_time = {1700000000, 0};
  std::strncpy(v.path, path, sizeof(v.path) - 1);
  return v;
}

class ViewDbObjects : public dbtest::DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    replica_ = tbs_uuid_create();
    unsigned silo = 0;
    ASSERT_EQ(Tavrel_View_db_silo(replica_).create_silo("host:/silos/p", silo), 0);
    Tavrel_View_db_root_dir root(replica_);
    ASSERT_EQ(root.create(TBS_OID_NULL, 1, 0, vstat(3, oid(1), oid(2)), vstat(2, oid(2), oid(2)), &root_, &root_elem_),
              0);
  }
  void TearDown() override {
    Tavrel_View::set_current_gn(0, false);
    DbTest::TearDown();
  }
  // Stores `name` of kind `mtype` (object oid n, element oid n + 1) in `dir`.
  int add(const char* name, silo_mtype_t mtype, uint32_t n, uint32_t dir, uint32_t* ver, uint32_t* elem = nullptr,
          const tbs_oid_s& scope = TBS_OID_NULL, uint32_t gn = 1) {
    silo_mtype_t ek = mtype == 3 ? 2 : mtype == 7 ? 7 : 5;
    uint32_t e = 0;
    return Tavrel_View_db::add_db_entry(replica_, mtype, name, dir, scope, gn, 3, 0,
                                        vstat(mtype, oid(n), mtype == 7 ? oid(n) : oid(n + 1), "../target"),
                                        vstat(ek, mtype == 7 ? oid(n) : oid(n + 1), oid(0)), ver,
                                        elem != nullptr ? elem : &e, 0);
  }
  std::vector<std::string> names(uint32_t dir) {
    Tavrel_View_db_version v(replica_, dir);
    std::vector<tavrel_dirent> out;
    EXPECT_EQ(v.readdir(out), 0);
    std::vector<std::string> r;
    for (const auto& d : out) r.emplace_back(d.name, d.namlen);
    return r;
  }

  tbs_uuid_s replica_{};
  uint32_t root_ = 0, root_elem_ = 0;
};

TEST_F(ViewDbObjects, RootDirCreateHasGet) {
  EXPECT_FALSE(Tavrel_View_db_root_dir(tbs_uuid_create()).has_root_dir());  // an unknown SILO has none
  Tavrel_View_db_root_dir root(replica_);
  EXPECT_TRUE(root.has_root_dir());
  uint32_t got = 0;
  ASSERT_EQ(root.get_root_dir(got), 0);
  EXPECT_EQ(got, root_);
  tavrel_vstat o{}, e{};
  uint32_t v = 0, el = 0;
  ASSERT_EQ(root.get_info(o, e, v, el), 0);
  EXPECT_EQ(std::make_pair(v, el), std::make_pair(root_, root_elem_));
  EXPECT_TRUE(o.vstat.obj_oid == oid(1) && o.vstat.elem_oid == oid(2) && e.vstat.obj_oid == oid(2));

  // Again with the same data: the same rows. A root of another kind is refused and changes nothing.
  uint32_t v2 = 0, el2 = 0;
  EXPECT_EQ(root.create(TBS_OID_NULL, 1, 0, vstat(3, oid(1), oid(2)), vstat(2, oid(2), oid(2)), &v2, &el2), 0);
  EXPECT_EQ(std::make_pair(v2, el2), std::make_pair(root_, root_elem_));
  EXPECT_EQ(root.create(TBS_OID_NULL, 1, 0, vstat(6, oid(7), oid(2)), vstat(2, oid(2), oid(2)), &v2, &el2),
            TAVREL_ST_FAILURE);
  EXPECT_EQ(root.create(TBS_OID_NULL, 1, 0, vstat(3, oid(7), oid(8)), vstat(2, oid(2), oid(2)), &v2, &el2),
            TAVREL_ST_FAILURE);  // element OIDs that disagree
  ASSERT_EQ(root.get_root_dir(got), 0);
  EXPECT_EQ(got, root_);
}

TEST_F(ViewDbObjects, AddDbEntryIsIdempotentAndTranslatesIds) {
  const struct {
    const char* name;
    silo_mtype_t mtype;
    uint32_t n;
  } rows[] = {{"dir", 3, 10}, {"file.c", 6, 20}, {"link", 7, 30}};
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    uint32_t v1 = 0, e1 = 0, v2 = 0, e2 = 0;
    ASSERT_EQ(add(r.name, r.mtype, r.n, root_, &v1, &e1), 0);
    ASSERT_EQ(add(r.name, r.mtype, r.n, root_, &v2, &e2), 0);
    EXPECT_EQ(std::make_pair(v1, e1), std::make_pair(v2, e2));
    EXPECT_NE(v1, 0u);
    EXPECT_EQ(e1 == v1, r.mtype == 7);  // a link is its own element

    tbs_oid_s back{}, eo = r.mtype == 7 ? oid(r.n) : oid(r.n + 1);
    uint32_t d = 0, ed = 0;
    silo_mtype_t mt = 0;
    EXPECT_TRUE(Tavrel_View_db::obj_dbid_to_oid(replica_, v1, &back) && back == oid(r.n));
    EXPECT_TRUE(Tavrel_View_db::obj_oid_to_dbid_mtype(replica_, oid(r.n), &d, &mt) && d == v1 && mt == r.mtype);
    EXPECT_TRUE(Tavrel_View_db::elem_oid_to_dbid(replica_, eo, &ed) && ed == e1);
    EXPECT_TRUE(Tavrel_View_db::elem_dbid_to_oid(replica_, e1, &back) && back == eo);
  }
  EXPECT_EQ(names(root_), (std::vector<std::string>{"dir", "file.c", "link"}));
  // A version is no element, and an unknown replica knows nothing.
  uint32_t v = 0, d = 0;
  ASSERT_TRUE(Tavrel_View_db::obj_oid_to_dbid(replica_, oid(20), &v));
  tbs_oid_s back{};
  EXPECT_FALSE(Tavrel_View_db::elem_dbid_to_oid(replica_, v, &back));
  EXPECT_FALSE(Tavrel_View_db::elem_oid_to_dbid(replica_, oid(20), &d));
  EXPECT_FALSE(Tavrel_View_db::obj_oid_to_dbid(tbs_uuid_create(), oid(20), &d));

  // Version 25 of element 21 under the same name replaces version 20 and keeps the element.
  uint32_t v2 = 0, e1 = 0, e2 = 0;
  ASSERT_TRUE(Tavrel_View_db::elem_oid_to_dbid(replica_, oid(21), &e1));
  ASSERT_EQ(Tavrel_View_db::add_db_entry(replica_, 6, "file.c", root_, TBS_OID_NULL, 1, 3, 0, vstat(6, oid(25), oid(21)),
                                         vstat(5, oid(21), oid(0)), &v2, &e2, 0),
            0);
  EXPECT_TRUE(v2 != v && e2 == e1);
  EXPECT_FALSE(Tavrel_View_db::obj_oid_to_dbid(replica_, oid(20), &d));
  silo_mtype_t mt = 0;
  EXPECT_TRUE(Tavrel_View_db_version(replica_, root_).lookup("file.c", d, mt) == 0 && d == v2);
  EXPECT_EQ(names(root_), (std::vector<std::string>{"dir", "file.c", "link"}));
}

TEST_F(ViewDbObjects, AddDbEntryRefusesBadEntriesWholly) {
  uint32_t file = 0, dir = 0;
  ASSERT_EQ(add("f", 6, 20, root_, &file), 0);
  const tavrel_vstat good = vstat(6, oid(40), oid(41)), elem = vstat(5, oid(41), oid(0));
  const struct {
    const char* what;
    silo_mtype_t mtype;
    const char* name;
    uint32_t dir;
    tavrel_vstat obj, elem;
    int want;
  } rows[] = {
      {"kind 9", 9, "x", root_, vstat(9, oid(40), oid(41)), elem, TAVREL_ST_FAILURE},
      {"kind 2 as a name", 2, "x", root_, vstat(2, oid(40), oid(41)), elem, TAVREL_ST_FAILURE},
      {"kind disagrees", 3, "x", root_, good, elem, TAVREL_ST_FAILURE},
      {"dot-dot", 6, "..", root_, good, elem, TAVREL_ST_FAILURE},
      {"empty name", 6, "", root_, good, elem, TAVREL_ST_FAILURE},
      {"slash", 6, "a/b", root_, good, elem, TAVREL_ST_FAILURE},
      {"long name", 6, nullptr, root_, good, elem, TAVREL_ST_FAILURE},
      {"element disagrees", 6, "x", root_, good, vstat(5, oid(99), oid(0)), TAVREL_ST_FAILURE},
      {"element kind", 6, "x", root_, good, vstat(2, oid(41), oid(0)), TAVREL_ST_FAILURE},
      {"unknown dir", 6, "x", 999, good, elem, TAVREL_ST_NOT_FOUND},
      {"file as dir", 6, "x", file, good, elem, TAVREL_ST_NOT_FOUND},
  };
  std::string long_name(256, 'n');
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    uint32_t v = 7, e = 7;
    EXPECT_EQ(Tavrel_View_db::add_db_entry(replica_, r.mtype, r.name ? r.name : long_name.c_str(), r.dir,
                                           TBS_OID_NULL, 1, 3, 1, r.obj, r.elem, &v, &e, 0),
              r.want);
    EXPECT_EQ(v, 7u);  // outputs untouched on failure
    EXPECT_FALSE(Tavrel_View_db::obj_oid_to_dbid(replica_, oid(40), &dir));
    EXPECT_FALSE(Tavrel_View_db::obj_oid_to_dbid(replica_, oid(41), &dir));  // nor the element alone
  }
  uint32_t v = 0, e = 0;
  EXPECT_EQ(Tavrel_View_db::add_db_entry(tbs_uuid_create(), 6, "x", root_, TBS_OID_NULL, 1, 3, 1, good, elem, &v, &e,
                                         0),
            TAVREL_ST_NOT_FOUND);
  EXPECT_EQ(names(root_), std::vector<std::string>{"f"});
}

TEST_F(ViewDbObjects, GetObjectMakesTheClassOfTheKind) {
  uint32_t dir = 0, dir_elem = 0, file = 0, file_elem = 0, link = 0;
  ASSERT_EQ(add("d", 3, 10, root_, &dir, &dir_elem), 0);
  ASSERT_EQ(add("f", 6, 20, root_, &file, &file_elem), 0);
  ASSERT_EQ(add("l", 7, 30, root_, &link), 0);
  // An identity row whose kind was overwritten with 9, a kind the view never stores as an object.
  uint32_t odd = 0;
  ASSERT_EQ(tvr_db_in_trans(1, [&] {
              uint32_t silo = 0;
              DB_ADDR dba = 0, at = 0;
              int found = 0;
              int st = tvr_db_silo_lookup(replica_, &silo);
              if (st == 0) st = tvr_db_dbid_to_dba(silo, &dba);
              if (st == 0) st = tvr_db_create_vns_obj(dba, oid(90), 6, tbs_fstat_db_t{}, &odd);
              if (st == 0) st = tvr_db_obj_lookup(dba, odd, &found, &at);
              vns_db_obj row{};
              if (st == 0 && found) st = dt_crset(&at, view_db_task, -1);
              if (st == 0) st = dt_recread(&row, view_db_task, -1);
              row.vns_obj_mtype = 9;
              return st != 0 ? st : dt_recwrite(&row, view_db_task, -1);
            }),
            0);
  const struct {
    uint32_t dbid;
    tbs_oid_s oid;
    silo_mtype_t mtype;
    const char* cls;  // null: no object
  } rows[] = {
      {dir, oid(10), 3, "version"},   {dir_elem, oid(11), 2, "element"}, {file, oid(20), 6, "version"},
      {file_elem, oid(21), 5, "element"}, {link, oid(30), 7, "symlink"}, {odd, oid(90), 9, nullptr},
      {4242, oid(4242), 0, nullptr},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.dbid);
    for (int by_oid = 0; by_oid < 2; ++by_oid) {
      silo_mtype_t mt = 0;
      auto o = by_oid ? Tavrel_View_db_object::get_object(replica_, r.oid, &mt)
                      : Tavrel_View_db_object::get_object(replica_, r.dbid, &mt);
      ASSERT_EQ(o != nullptr, r.cls != nullptr);
      if (!o) continue;
      EXPECT_EQ(mt, r.mtype);
      std::string cls = dynamic_cast<Tavrel_View_db_version*>(o.get())   ? "version"
                        : dynamic_cast<Tavrel_View_db_element*>(o.get()) ? "element"
                        : dynamic_cast<Tavrel_View_db_symlink*>(o.get()) ? "symlink"
                                                                          : "?";
      EXPECT_EQ(cls, r.cls);
      tavrel_vstat v{};
      ASSERT_EQ(o->get_rvstat(v), 0);  // handed out loaded
      EXPECT_TRUE(v.vstat.obj_oid == r.oid);
      EXPECT_STREQ(v.path, r.mtype == 7 ? "../target" : "");
    }
  }
  EXPECT_EQ(Tavrel_View_db_object::get_object(tbs_uuid_create(), dir, nullptr), nullptr);

  // Every kind without a class of its own gives no object.
  for (silo_mtype_t k = -1; k <= 12; ++k) {
    bool has = k == 2 || k == 3 || k == 5 || k == 6 || k == 7 || k == 8;
    EXPECT_EQ(Tavrel_View_db_object::for_kind(replica_, 2, k, "test") != nullptr, has) << "kind " << k;
  }
}

TEST_F(ViewDbObjects, LookupAnswersFoundUnknownAndToConfirm) {
  uint32_t file = 0;
  ASSERT_EQ(add("f", 6, 20, root_, &file), 0);
  Tavrel_View_db_version dir(replica_, root_);
  Tavrel_View_db_version ver(replica_, file);
  ASSERT_EQ(ver.load_data(), 0);
  const struct {
    const char* step;
    int (*act)(Tavrel_View_db_version& dir, Tavrel_View_db_version& ver);
    const char* name;
    int want;
  } rows[] = {
      {"stored", [](auto&, auto&) { return 0; }, "f", 0},
      {"unknown", [](auto&, auto&) { return 0; }, "g", TBS_ST_NOT_FOUND},
      {"name invalidated", [](auto& d, auto&) { return d.invalidate_name("f"); }, "f", TBS_ST_REVALIDATE},
      {"confirmed again", [](auto& d, auto&) { return d.set_load_done(true); }, "f", 0},
      {"version stale", [](auto&, auto& v) { return v.set_stale(true); }, "f", TBS_ST_REVALIDATE},
      {"fresh again", [](auto&, auto& v) { return v.set_stale(false); }, "f", 0},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.step);
    ASSERT_EQ(dir.load_data(), 0);
    ASSERT_EQ(r.act(dir, ver), 0);
    uint32_t d = 0;
    silo_mtype_t mt = 0;
    EXPECT_EQ(dir.lookup(r.name, d, mt), r.want);
    EXPECT_EQ(d, r.want == TBS_ST_NOT_FOUND ? 0u : file);
    EXPECT_EQ(ver.is_stale(), std::string(r.step) == "version stale");
  }
  EXPECT_EQ(dir.invalidate_name("nope"), TAVREL_ST_NOT_FOUND);
}

TEST_F(ViewDbObjects, ReaddirDoneFollowsTheViewGeneration) {
  const tbs_oid_s scope = oid(500);
  ASSERT_EQ(Tavrel_View_db::add_lr_scope(scope, 5, "/p/src"), 0);
  uint32_t dir = 0;
  ASSERT_EQ(add("src", 3, 10, root_, &dir, nullptr, scope, 5), 0);
  Tavrel_View_db_version v(replica_, dir);
  EXPECT_FALSE(v.is_readdir_done());  // never listed
  bool removed = true;
  ASSERT_EQ(v.set_readdir_done(true, removed), 0);
  EXPECT_FALSE(removed);
  const struct {
    unsigned view_gn;
    bool done;
  } rows[] = {{0, true}, {4, true}, {5, true}, {6, false}, {100, false}};
  for (const auto& r : rows) {
    Tavrel_View::set_current_gn(r.view_gn, false);
    EXPECT_EQ(v.is_readdir_done(), r.done) << "view gn " << r.view_gn;
  }
  tbs_oid_s s{};
  unsigned gn = 0;
  EXPECT_TRUE(v.get_scope(s, gn) == 0 && s == scope && gn == 5);
  // The stored mark is untouched by the generation: clearing it is what makes a current view false.
  Tavrel_View::set_current_gn(5, false);
  ASSERT_EQ(v.set_readdir_done(false, removed), 0);
  EXPECT_FALSE(v.is_readdir_done());
}

TEST_F(ViewDbObjects, ReaddirListsTheDirectoryVersionsEntries) {
  uint32_t dir = 0, a = 0, b = 0, c = 0;
  ASSERT_EQ(add("d", 3, 10, root_, &dir), 0);
  ASSERT_EQ(add("a.c", 6, 20, dir, &a), 0);
  ASSERT_EQ(add("sub", 3, 30, dir, &b), 0);
  ASSERT_EQ(add("ln", 7, 40, dir, &c), 0);
  ASSERT_EQ(add("elsewhere", 6, 50, root_, nullptr), 0);
  Tavrel_View_db_version v(replica_, dir);
  std::vector<tavrel_dirent> out;
  ASSERT_EQ(v.readdir(out), 0);
  std::vector<std::string> got;  // name dbid kind element-kind position
  for (const auto& d : out)
    got.push_back(std::string(d.name, d.namlen) + " " + std::to_string(d.dbid) + " " + std::to_string(d.ver_type) +
                  " " + std::to_string(d.elem_type) + " " + std::to_string(d.off));
  auto row = [](const char* n, uint32_t dbid, const char* rest) { return n + (" " + std::to_string(dbid)) + rest; };
  EXPECT_EQ(got, (std::vector<std::string>{row("a.c", a, " 6 5 1"), row("sub", b, " 3 2 2"), row("ln", c, " 7 7 3")}));
  std::vector<tavrel_dirent> empty;
  ASSERT_EQ(Tavrel_View_db_version(replica_, b).readdir(empty), 0);
  EXPECT_TRUE(empty.empty());
  EXPECT_EQ(Tavrel_View_db_version(replica_, 4242).readdir(empty), TAVREL_ST_FAILURE);  // no such version
}

TEST_F(ViewDbObjects, ElementCheckoutMarkAndScopes) {
  uint32_t file = 0, elem = 0;
  ASSERT_EQ(add("f", 6, 20, root_, &file, &elem), 0);
  Tavrel_View_db_element e;
  uint32_t d = 0, any = 0;
  int st = -1;
  ASSERT_TRUE(e.get_info(replica_, oid(21), &d, &st) && d == elem);
  EXPECT_FALSE(Tavrel_View_db_element().get_info(replica_, oid(20), &d, &st));  // a version's OID
  EXPECT_EQ(st, TAVREL_ST_NOT_FOUND);
  ASSERT_EQ(e.get_any_version(any), 0);
  EXPECT_EQ(any, file);
  tbs_oid_s co{};
  ASSERT_EQ(e.set_co_ver_oid(oid(20)), 0);
  EXPECT_TRUE(e.get_co_ver_oid(co) == 0 && co == oid(20));
  tavrel_vstat v{};
  ASSERT_EQ(Tavrel_View_db_version(replica_, file).get_rvstat(v), TAVREL_ST_FAILURE);  // not loaded
  auto o = Tavrel_View_db_object::get_object(replica_, file, nullptr);
  ASSERT_EQ(o->get_rvstat(v), 0);
  EXPECT_EQ(v.checked_out, 1);
  ASSERT_EQ(e.set_co_ver_oid(TBS_OID_NULL), 0);
  EXPECT_TRUE(e.get_co_ver_oid(co) == 0 && tbs_oid_is_null(co));

  ASSERT_EQ(Tavrel_View_db::add_lr_scope(oid(600), 3, "/p/a"), 0);
  ASSERT_EQ(Tavrel_View_db::add_lr_scope(oid(601), 3, "/p/b"), 0);
  ASSERT_EQ(tavrel_db_mark_lr_scope_removed(oid(601)), 0);
  const struct {
    Tavrel_View_db::ScopeListType type;
    std::vector<std::string> want;
  } rows[] = {{Tavrel_View_db::ALL_SCOPES, {"Automatic", "/p/a", "/p/b"}},
              {Tavrel_View_db::ACTIVE_SCOPES, {"Automatic", "/p/a"}},
              {Tavrel_View_db::REMOVED_SCOPES, {"/p/b"}}};
  for (const auto& r : rows) {
    std::vector<tavrel_scope> scopes;
    ASSERT_EQ(Tavrel_View_db::get_scopes(r.type, scopes), 0);
    std::vector<std::string> got;
    for (const auto& s : scopes) got.emplace_back(s.name);
    EXPECT_EQ(got, r.want) << "list " << r.type;
  }
  std::vector<tavrel_scope> scopes;
  EXPECT_EQ(Tavrel_View_db::get_scopes(static_cast<Tavrel_View_db::ScopeListType>(7), scopes), TBS_ST_BAD_ARG);
  ASSERT_EQ(Tavrel_View_db::delete_lr_scope(oid(600)), 0);
  EXPECT_TRUE(Tavrel_View_db::get_scopes(Tavrel_View_db::ALL_SCOPES, scopes) == 0 && scopes.size() == 2);
}

}  // namespace
