#include "ns/ns_rpc.h"

#include <gtest/gtest.h>

#include <cstring>

#include "db/db_test_util.h"
#include "db/tavrel_db_adopt.h"
#include "db/tvr_db_inode.h"
#include "db/tvr_db_silo.h"
#include "fs/tavrel_view_db.h"
#include "fs/tavrel_view_db_root_dir.h"
#include "ns/ns_locate.h"

namespace {

// Handles as the kernel module holds them, on objects of a real view database.
class NsRpc : public dbtest::DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    ASSERT_EQ(cache_init(), 0);
    ASSERT_EQ(tvr_db_in_trans(1, [&] { return tvr_db_silo_create(uuid_, "host:/silo", &silo_dbid_); }), 0);
  }
  void TearDown() override {
    silo_tab_dispose_all();
    EXPECT_EQ(ns_cache_check(), "");
    DbTest::TearDown();
  }
  // A view-private inode (mtype 19) of the given file type and mode, with a text for a link.
  uint32_t inode(uint32_t type, uint32_t mode, uint32_t* gen, const std::string& text = "") {
    tbs_fstat_db_s f{};
    f.type = type, f.mode = mode, f.nlink = 1, f.owner = f.group = CREDUTL_SID_NOBODY;
    uint32_t dbid = 0;
    EXPECT_EQ(tvr_db_in_trans(1, [&] {
                int st = tvr_db_inode_create(silo_dbid_, tbs_oid_create(), f, 19, &dbid, gen);
                return st == 0 && !text.empty() ? tvr_db_inode_write_text(dbid, text.c_str()) : st;
              }), 0);
    return dbid;
  }
  view_fhandle_t handle(uint32_t dbid, uint32_t gen) { return view_fhandle_t{uuid_, dbid, dbid, gen, 2, 0}; }
  bool cached(uint32_t dbid) {
    obj_entry* o = obj_get(silo_find_cached(uuid_), dbid);
    obj_free(o);
    return o != nullptr;
  }
  tbs_uuid_s uuid_ = tbs_uuid_create();
  uint32_t silo_dbid_ = 0;
  view_fhandle_t out_{};
  view_vstat_t v_{};
};

TEST_F(NsRpc, HandleGenerationsAndVanishedObjects) {
  uint32_t gen = 0;
  const uint32_t dbid = inode(1, 0644, &gen);
  struct Row {
    uint32_t gen;
    int want;
  } rows[] = {{gen, 0}, {0, 0}, {0xffffffffu, 0}, {gen + 1, 1087}, {gen + 2, 1087}};
  for (bool warm : {false, true}) {
    for (const Row& r : rows) {
      SCOPED_TRACE(testing::Message() << "gen " << r.gen << (warm ? " warm" : " cold"));
      if (!warm) cache_init();
      view_fhandle_t fh = handle(dbid, r.gen);
      struct timeval lvut = {0, 0};
      ASSERT_EQ(ns_getattr(&fh, &out_, &v_, &lvut), r.want);
      if (r.want != 0) continue;
      EXPECT_TRUE(out_.gen == gen && out_.ver_dbid == dbid && out_.flags == VIEW_FH_PRIVATE);  // wild gen filled in
      EXPECT_TRUE(v_.fstat.mode == 0644 && v_.mtype == 19 && lvut.tv_sec != 0);
    }
  }
  // The inode goes behind the cache's back and the cached attributes are lost: stale, and flushed.
  view_fhandle_t fh = handle(dbid, gen);
  ASSERT_EQ(tvr_db_in_trans(1, [&] { return tvr_db_inode_delete(dbid, 0); }), 0);
  fstat_flush_all();
  dbtest::Messages msgs;
  EXPECT_EQ(ns_getattr(&fh, &out_, &v_, nullptr), TBS_ST_STALE);
  EXPECT_TRUE(msgs.contains("Silo stale")) << msgs.all();
  EXPECT_FALSE(cached(dbid));
  EXPECT_EQ(ns_revalidate(&fh, &out_, &v_), TBS_ST_STALE);
}

TEST_F(NsRpc, ReadlinkOfViewPrivateLinks) {
  const std::string target = "../lib/libexample.so.1", long_target(5000, 'x');
  struct Row {
    uint32_t type, mode;
    std::string stored;
    size_t max_len;
    int want;
    std::string text;
  } rows[] = {{5, 0777, target, 1024, 0, target},
              {5, 0777, target, 6, 0, "../lib"},                             // cut to the caller's length
              {5, 0777, long_target, 1024, 0, long_target.substr(0, 1024)},  // longer than a path
              {5, 0333, target, 1024, 1063, ""},                             // no read permission
              {1, 0644, target, 1024, 1072, ""}};                            // not a link
  for (const Row& r : rows) {
    SCOPED_TRACE(r.text.substr(0, 20));
    uint32_t gen = 0;
    view_fhandle_t fh = handle(inode(r.type, r.mode, &gen, r.stored), gen);
    char buf[1100];
    std::memset(buf, '#', sizeof buf);
    size_t len = 99;
    ASSERT_EQ(ns_readlink(&fh, r.max_len, &len, buf), r.want);
    if (r.want == 0) {
      EXPECT_TRUE(std::string(buf, len) == r.text && buf[len] == '#');
    }
  }
}

tavrel_vstat silo_vstat(silo_mtype_t mtype, const tbs_oid_s& obj, const tbs_oid_s& elem, uint32_t mode,
                        const char* path = "") {
  tavrel_vstat v{};
  v.vstat.mtype = mtype, v.vstat.obj_oid = obj, v.vstat.elem_oid = elem;
  v.vstat.fstat.type = mtype == 2 || mtype == 3 ? 2 : mtype == 7 ? 5 : 1;
  v.vstat.fstat.mode = mode, v.vstat.fstat.nlink = 1;
  strncpy(v.path, path, sizeof v.path - 1);
  return v;
}

// SILO objects stored as the resolver stores what the server sends, activated from the view database.
TEST_F(NsRpc, SiloObjectsActivateFromTheViewDatabase) {
  const tbs_oid_s root_ver = tbs_oid_create(), root_elem = tbs_oid_create();
  const tbs_oid_s f_ver = tbs_oid_create(), f_elem = tbs_oid_create(), l_obj = tbs_oid_create();
  uint32_t root = 0, root_e = 0, fv = 0, fe = 0, lv = 0, le = 0;
  ASSERT_EQ(Tavrel_View_db_root_dir(uuid_).create(TBS_OID_NULL, 1, 0, silo_vstat(3, root_ver, root_elem, 0755),
                                                  silo_vstat(2, root_elem, root_elem, 0755), &root, &root_e), 0);
  ASSERT_EQ(Tavrel_View_db::add_db_entry(uuid_, 6, "f", root, TBS_OID_NULL, 1, 3, 0, silo_vstat(6, f_ver, f_elem, 0640),
                                         silo_vstat(5, f_elem, TBS_OID_NULL, 0640), &fv, &fe, 0), 0);
  ASSERT_EQ(Tavrel_View_db::add_db_entry(uuid_, 7, "l", root, TBS_OID_NULL, 1, 3, 0,
                                         silo_vstat(7, l_obj, l_obj, 0777, "../f"),
                                         silo_vstat(7, l_obj, TBS_OID_NULL, 0777), &lv, &le, 0), 0);
  int st = -1;
  view_silo* silo = silo_find(uuid_, &st);
  ASSERT_NE(silo, nullptr);

  // A version comes with its element and its attributes.
  obj_entry* ver = locate_dbid(silo, fv, 1, &st);
  ASSERT_NE(ver, nullptr) << st;
  ASSERT_NE(ver->ver, nullptr);
  EXPECT_TRUE(ver->ver->dbid == fe && (ver->flags & OBJ_FLAG_ACTIVATED) && ver->fep != nullptr);
  view_fhandle_t fh;
  makehandle(ver, 0, &fh);
  EXPECT_EQ(fh.elem_dbid, fe);
  obj_free(ver);
  ASSERT_EQ(ns_getattr(&fh, &out_, &v_, nullptr), 0);
  EXPECT_TRUE(v_.fstat.mode == 0640 && v_.mtype == 6 && v_.elem_oid == f_elem && v_.obj_oid == f_ver);
  obj_entry* elem = locate_oid(silo, &f_elem, 0, &st);  // no cover: the SILO object itself
  ASSERT_NE(elem, nullptr) << st;
  EXPECT_EQ(elem->dbid, fe);
  obj_free(elem);

  // The element's cover, located by its own dbid, gives the element paired with it; its don't-care
  // attributes leave the mode.
  tavrel_db_obj_ref ref{uuid_, f_elem, 5};
  const uint32_t cover = create_cover_inode(ref, &st);
  ASSERT_NE(elem = locate_dbid(silo, cover, 1, &st), nullptr) << st;
  EXPECT_TRUE(elem->dbid == fe && elem->cover_obj != nullptr && elem->cover_obj->dbid == cover);
  obj_free(elem);
  ASSERT_EQ(ns_getattr(&fh, &out_, &v_, nullptr), 0);
  EXPECT_EQ(v_.fstat.mode, 0640u);

  // The root, the path of a name, and revalidation of a version that is still selected.
  view_fhandle_t rfh;
  view_name_state_t state = 0;
  tbs_boolean_t cacheable = 0;
  EXPECT_EQ(ns_root(nullptr, &uuid_, "a", 0, &rfh, &v_, &state, &cacheable, nullptr, nullptr, nullptr), 1072);
  ASSERT_EQ(ns_root(nullptr, &uuid_, "", 0, &rfh, &v_, &state, &cacheable, nullptr, nullptr, nullptr), 0);
  EXPECT_TRUE(rfh.ver_dbid == root && v_.fstat.type == 2 && v_.mtype == 3);
  char path[64], ext[64];
  ASSERT_EQ(ns_gpath(&fh, 0, sizeof path - 1, path, sizeof ext - 1, ext), 0);
  EXPECT_STREQ(path, "/f");
  ASSERT_EQ(ns_revalidate(&fh, &out_, &v_), 0);
  EXPECT_EQ(out_.ver_dbid, fv);

  // A link's target comes from the view database; a file is no link.
  obj_entry* link = locate_dbid(silo, lv, 1, &st);
  ASSERT_NE(link, nullptr) << st;
  view_fhandle_t lfh;
  makehandle(link, 0, &lfh);
  obj_free(link);
  char buf[64];
  size_t len = 0;
  ASSERT_EQ(ns_readlink(&lfh, sizeof buf, &len, buf), 0);
  EXPECT_EQ(std::string(buf, len), "../f");
  dbtest::Messages msgs;
  EXPECT_EQ(ns_readlink(&fh, sizeof buf, &len, buf), TBS_ST_BAD_ARG);
  EXPECT_TRUE(msgs.contains("dbid not an slink")) << msgs.all();

  // A dbid never handed out is stale; so is the cover of an oid the namespace does not know, which goes.
  EXPECT_EQ(locate_dbid(silo, fv + 1000, 1, &st), nullptr);
  EXPECT_EQ(st, TBS_ST_STALE);
  tavrel_db_obj_ref gone{uuid_, tbs_oid_create(), 6};
  const uint32_t stale_cover = create_cover_inode(gone, &st);
  EXPECT_EQ(locate_dbid(silo, stale_cover, 1, &st), nullptr);
  EXPECT_TRUE(st == TBS_ST_STALE && msgs.contains("Silo stale") && !cached(stale_cover));
  auto read = [&] { return tvr_db_inode_read(stale_cover, nullptr, nullptr, nullptr, nullptr, nullptr); };
  EXPECT_EQ(tvr_db_in_trans(0, read), TBS_ST_STALE);
}

}  // namespace
