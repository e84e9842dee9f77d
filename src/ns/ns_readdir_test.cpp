#include "ns/ns_readdir.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "core/tavrel_online.h"
#include "db/db_test_util.h"
#include "db/tavrel_engine_db.h"
#include "db/tavrel_db_container.h"
#include "db/tvr_db_dir.h"
#include "fs/tavrel_view_db.h"
#include "fs/tavrel_view_db_root_dir.h"
#include "fs/tavrel_view_db_silo.h"
#include "ns/ns_fstat.h"
#include "ns/ns_locate.h"
#include "ns/ns_lookup.h"
#include "ns/ns_silo.h"
#include "ns/tavrel_db_utls.h"

namespace {

tbs_oid_s oid(uint32_t n) {
  tbs_oid_s o{};
  std::memcpy(o.bytes + 12, &n, 4);
  o.bytes[0] = 0x6b;
  return o;
}

tavrel_vstat vstat(silo_mtype_t mtype, const tbs_oid_s& obj, const tbs_oid_s& elem) {
  tavrel_vstat v{};
  v.vstat.mtype = mtype;
  v.vstat.obj_oid = obj;
  v.vstat.elem_oid = elem;
  v.vstat.fstat.type = mtype == 2 || mtype == 3 ? TBS_FTYPE_DIR : TBS_FTYPE_FILE;
  v.vstat.fstat.mode = 0755;
  return v;
}

struct Rec {
  uint32_t ino, off;
  std::string name;
};

// Decodes view_dirent (ext false) or view_dirent_ext records and checks each record's length.
std::vector<Rec> decode(const char* buf, uint32_t used, bool ext) {
  std::vector<Rec> out;
  for (uint32_t at = 0; at < used;) {
    uint32_t ino, off;
    uint16_t namlen;
    std::memcpy(&ino, buf + at, 4);
    std::memcpy(&off, buf + at + 4, 4);
    std::memcpy(&namlen, buf + at + (ext ? 56 : 10), 2);
    const uint32_t reclen = ext ? view_dirent_ext_reclen(namlen) : view_dirent_reclen(namlen);
    if (!ext) {
      uint16_t stored;
      std::memcpy(&stored, buf + at + 8, 2);
      EXPECT_EQ(stored, reclen);
    }
    out.push_back({ino, off, std::string(buf + at + (ext ? 58 : 12), namlen)});
    at += reclen;
  }
  return out;
}

// An offline view (listings come from the view database) with one SILO whose root directory holds
// the names the test stores.
class NsReaddir : public dbtest::DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    tavrel_set_online(false);
    ASSERT_EQ(tavrel_storage_init(), 0);  // the container pool of view-private files
    ASSERT_EQ(cache_init(), 0);
    uuid_ = tbs_uuid_create();
    unsigned silo_dbid = 0;
    ASSERT_EQ(Tavrel_View_db_silo(uuid_).create_silo("host:/silos/p", silo_dbid), 0);
    ASSERT_EQ(Tavrel_View_db_root_dir(uuid_).create(TBS_OID_NULL, 1, 0, vstat(3, oid(1), oid(2)),
                                                    vstat(2, oid(2), oid(2)), &root_dbid_, &root_elem_),
              0);
    int st = -1;
    silo_ = silo_find(uuid_, &st);
    ASSERT_NE(silo_, nullptr) << st;
  }
  void TearDown() override {
    obj_free(root_);
    // Listings and names go first, whatever flushers an earlier test of this binary left installed.
    readdir_cache_flush();
    lookup_flush_all();
    silo_tab_dispose_all();
    tavrel_set_online(true);
    DbTest::TearDown();
  }
  obj_entry* root() {
    if (root_ == nullptr) {
      int st = -1;
      root_ = locate_dbid(silo_, root_dbid_, 1, &st);
      EXPECT_NE(root_, nullptr) << st;
    }
    return root_;
  }
  // A SILO name in the root: a file version (mtype 6) with oid n.
  uint32_t add_silo(const std::string& name, uint32_t n) {
    uint32_t ver = 0, elem = 0;
    EXPECT_EQ(Tavrel_View_db::add_db_entry(uuid_, 6, name.c_str(), root_dbid_, TBS_OID_NULL, 1, 3, 0,
                                           vstat(6, oid(n), oid(n + 1)), vstat(5, oid(n + 1), oid(0)), &ver, &elem, 0),
              0);
    return ver;
  }
  // A view-private object (ftype 1 file, 2 directory) in `dir`, with its dbid.
  uint32_t add_private(obj_entry* dir, const char* name, uint32_t ftype) {
    view_set_attr_t sattr{};
    sattr.mode = 0755;
    int st = -1;
    std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());  // the facade's callers hold it
    obj_entry* o = tavrel_db_create(nullptr, dir, name, ftype, &sattr, nullptr, 0, nullptr, nullptr, &st);
    EXPECT_NE(o, nullptr) << name << ": " << st;
    uint32_t dbid = o != nullptr ? o->dbid : 0;
    obj_free(o);
    return dbid;
  }
  // A whole listing of `dir` through ns_readdir in buffers of `size` bytes: the records, and the count of
  // replies that said eof.
  std::vector<Rec> list(obj_entry* dir, uint32_t size, int* eofs, int hm = 0) {
    view_fhandle_t fh{};
    makehandle(dir, hm, &fh);
    std::vector<char> buf(size);
    std::vector<Rec> all;
    uint32_t cursor = 0;
    *eofs = 0;
    for (int calls = 0; calls < 100000 && *eofs == 0; calls++) {
      uint32_t out = 0, used = 0;
      int eof = 0;
      int st = ns_readdir(&fh, cursor, size, &out, &used, &eof, buf.data());
      if (st != 0) {
        ADD_FAILURE() << "ns_readdir at cursor " << cursor << ": " << st;
        break;
      }
      for (Rec& r : decode(buf.data(), used, false)) all.push_back(r);
      *eofs += eof;
      cursor = out;
    }
    return all;
  }

  tbs_uuid_s uuid_{};
  uint32_t root_dbid_ = 0, root_elem_ = 0;
  view_silo* silo_ = nullptr;
  obj_entry* root_ = nullptr;
};

TEST_F(NsReaddir, TenThousandNamesInSmallBuffersComeOnceEachWithOneEof) {
  std::set<uint32_t> stored;
  for (int i = 0; i < 10000; i++) stored.insert(add_silo("entry-" + std::to_string(i), 100 + 2 * i));
  ASSERT_EQ(stored.size(), 10000u);
  for (uint32_t size : {24u, 100u, 517u, 8192u}) {  // 24: the longest name's record
    SCOPED_TRACE(size);
    int eofs = 0;
    std::vector<Rec> recs = list(root(), size, &eofs);
    EXPECT_EQ(eofs, 1);
    ASSERT_EQ(recs.size(), 10002u);
    EXPECT_EQ(recs[0].name, ".");
    EXPECT_EQ(recs[1].name, "..");
    std::set<std::string> names;
    std::set<uint32_t> inos;
    uint32_t last_off = 2;
    for (size_t i = 2; i < recs.size(); i++) {
      EXPECT_TRUE(names.insert(recs[i].name).second) << "twice: " << recs[i].name;
      inos.insert(recs[i].ino);
      EXPECT_GT(recs[i].off, last_off) << "cookies rise";
      last_off = recs[i].off;
    }
    EXPECT_EQ(names.size(), 10000u);
    EXPECT_EQ(inos, stored) << "each entry's inode number is its version's dbid";
  }
}

TEST_F(NsReaddir, CursorAndBufferEdges) {
  add_silo("a", 10);
  add_silo("b", 20);
  view_fhandle_t fh{};
  makehandle(root(), 0, &fh);
  struct Case {
    uint32_t cursor, size;
    int st;
    std::vector<std::string> names;
    int eof;
  } cases[] = {
      {0, 15, TBS_ST_BAD_ARG, {}, 0},           // not even "."
      {0, 16, 0, {"."}, 0},                     // "." only
      {0, 32, 0, {".", ".."}, 0},
      {1, 16, 0, {".."}, 0},
      {1, 15, TBS_ST_BAD_ARG, {}, 0},
      {2, 4096, 0, {"a", "b"}, 1},              // behind ".."
      {0, 4096, 0, {".", "..", "a", "b"}, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.cursor) + "/" + std::to_string(c.size));
    std::vector<char> buf(c.size + 1);
    uint32_t out = 0, used = 0;
    int eof = -1;
    EXPECT_EQ(ns_readdir(&fh, c.cursor, c.size, &out, &used, &eof, buf.data()), c.st);
    std::vector<std::string> got;
    for (const Rec& r : decode(buf.data(), used, false)) got.push_back(r.name);
    EXPECT_EQ(got, c.names);
    EXPECT_EQ(eof, c.eof);
  }
  // An empty directory: "." and ".." and eof.
  obj_entry* empty = nullptr;
  uint32_t d = add_private(root(), "empty", 2);
  int st = -1;
  empty = locate_dbid(silo_, d, 1, &st);
  ASSERT_NE(empty, nullptr);
  int eofs = 0;
  std::vector<Rec> recs = list(empty, 4096, &eofs);
  ASSERT_EQ(recs.size(), 2u);
  EXPECT_EQ(recs[0].name + recs[1].name, "...");
  view_vstat_t root_vs{};
  ASSERT_EQ(fstat_vstat(root(), 0, &root_vs), 0);
  EXPECT_EQ(recs[1].ino, root_vs.fstat.ino) << "the parent of a top directory is the root";
  EXPECT_EQ(eofs, 1);
  obj_free(empty);
}

TEST_F(NsReaddir, BothSidesListOnceWhiteOutsHiddenHistoryModeSiloOnly) {
  const uint32_t silo_dup = add_silo("dup", 10), silo_gone = add_silo("gone", 20), silo_keep = add_silo("keep", 30);
  const uint32_t priv_dup = add_private(root(), "dup", 1);
  const uint32_t priv_p = add_private(root(), "p", 1);
  {
    std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
    ASSERT_EQ(tavrel_db_link(root(), "gone", nullptr, 0), 0);  // a white-out of a SILO name
  }
  int eofs = 0;
  std::map<std::string, uint32_t> seen;
  for (const Rec& r : list(root(), 4096, &eofs))
    EXPECT_TRUE(seen.emplace(r.name, r.ino).second) << "twice: " << r.name;
  const std::map<std::string, uint32_t> want = {
      {".", seen["."]}, {"..", seen[".."]}, {"dup", priv_dup}, {"keep", silo_keep}, {"p", priv_p}};
  EXPECT_EQ(seen, want);

  // The listing answers lookups of either side.
  uint32_t s = 0, v = 0, state = 0;
  EXPECT_EQ(readdir_lookup_name(root(), "dup", &s, &v, &state), READDIR_SILO_LOADED | READDIR_VIEW_LOADED |
                                                                   READDIR_DUPS_EVALUATED);
  EXPECT_EQ(s, silo_dup);
  EXPECT_EQ(v, priv_dup);
  EXPECT_TRUE(state & VIEW_NAME_STATE_SILO_REC);
  readdir_lookup_name(root(), "gone", &s, &v, &state);
  EXPECT_EQ(s, silo_gone);
  EXPECT_EQ(v, 0u);
  EXPECT_TRUE(state & VIEW_NAME_STATE_WHITE_OUT);

  // History mode: the SILO side only, with the SILO objects.
  obj_entry* hm_dir = root();
  std::map<std::string, uint32_t> hm;
  for (const Rec& r : list(hm_dir, 4096, &eofs, 1)) hm.emplace(r.name, r.ino);
  hm.erase(".");
  hm.erase("..");
  EXPECT_EQ(hm, (std::map<std::string, uint32_t>{{"dup", silo_dup}, {"gone", silo_gone}, {"keep", silo_keep}}));

  // Extended records: "." 60 bytes, ".." 64, a name selects its one entry.
  view_fhandle_t fh{};
  makehandle(root(), 0, &fh);
  std::vector<char> buf(4096);
  uint32_t out = 0, used = 0;
  int eof = 0;
  ASSERT_EQ(ns_readdir_ext(&fh, 0, "", 1, 124, &out, &used, &eof, buf.data()), 0);
  EXPECT_EQ(used, 124u);
  EXPECT_EQ(eof, 0);
  ASSERT_EQ(ns_readdir_ext(&fh, 0, "p", 1, 4096, &out, &used, &eof, buf.data()), 0);
  std::vector<Rec> one = decode(buf.data(), used, true);
  ASSERT_EQ(one.size(), 1u);
  EXPECT_EQ(one[0].name, "p");
  EXPECT_EQ(one[0].ino, priv_p);
}

TEST_F(NsReaddir, ReloadKeepsUnchangedEntriesAndDropsVanishedOnes) {
  int st = -1;
  obj_entry* dir = locate_dbid(silo_, add_private(root(), "d", 2), 1, &st);
  ASSERT_NE(dir, nullptr);
  for (const char* n : {"a", "b", "c"}) add_private(dir, n, 1);
  readdir_root* rrp = readdir_get(dir, &st);
  ASSERT_NE(rrp, nullptr);
  readdir_put(rrp);
  // "b" goes from the database behind the caches' back; the listing learns it only by a reload.
  ASSERT_EQ(tvr_db_in_trans(1, [&] {
              uint32_t inode = 0, nlink = 0;
              return tvr_db_unlink(dir->dbid, "b", 1, 0, nullptr, &inode, &nlink);
            }),
            0);
  const uint32_t frees = rrp->frees;
  readdir_invalidate_name(dir, nullptr, 1);
  EXPECT_EQ(rrp->flags & READDIR_VIEW_LOADED, 0u);
  int eofs = 0;
  std::vector<std::string> names;
  for (const Rec& r : list(dir, 4096, &eofs)) names.push_back(r.name);
  EXPECT_EQ(names, (std::vector<std::string>{".", "..", "a", "c"}));
  EXPECT_EQ(dir->readdir_list, rrp) << "the listing is reloaded in place";
  EXPECT_EQ(rrp->frees - frees, 1u) << "only the vanished entry is freed";
  obj_free(dir);
}

TEST_F(NsReaddir, IdleListingsAreEvictedOldestFirst) {
  int st = -1;
  std::vector<obj_entry*> dirs;  // A, B, C, D
  for (const char* n : {"A", "B", "C", "D"}) {
    dirs.push_back(locate_dbid(silo_, add_private(root(), n, 2), 1, &st));
    ASSERT_NE(dirs.back(), nullptr);
    add_private(dirs.back(), "f", 1);
  }
  auto touch = [&](obj_entry* d) {
    readdir_root* r = readdir_get(d, &st);
    ASSERT_NE(r, nullptr);
    readdir_put(r);
  };
  for (int i : {3, 0, 1, 2, 0}) touch(dirs[i]);  // idle order, oldest first: D B C A
  // D is reloaded while the listings are one byte over budget: only the oldest idle one (B) goes.
  readdir_invalidate_name(dirs[3], nullptr, 3);
  const long over = long(ns_cache_get_budget().readdir_max) - readdir_cache_stats.size + 1;
  readdir_cache_stats.size += over;
  const unsigned ejects = readdir_cache_stats.ejects;
  readdir_root* d = readdir_get(dirs[3], &st);
  readdir_cache_stats.size -= over;
  ASSERT_NE(d, nullptr);
  readdir_put(d);
  EXPECT_EQ(readdir_cache_stats.ejects - ejects, 1u);
  const bool kept[] = {true, false, true, true};
  for (int i = 0; i < 4; i++) EXPECT_EQ(dirs[i]->readdir_list != nullptr, kept[i]) << "ABCD"[i];
  for (obj_entry* o : dirs) obj_free(o);
}

}  // namespace
