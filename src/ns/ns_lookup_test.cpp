// Name lookup on a real view database, with the project's reference server in the same process
// holding a small imported tree; its request log tells what reached the server.
#include "ns/ns_lookup.h"

#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "core/tavrel_online.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_view.h"
#include "db/db_test_util.h"
#include "db/tavrel_db_container.h"
#include "db/tavrel_db_adopt.h"
#include "db/tvr_db_dir.h"
#include "db/tvr_db_silo.h"
#include "fs/tavrel_metadata.h"
#include "ns/ns_fstat.h"
#include "ns/ns_locate.h"
#include "ns/ns_silo.h"
#include "ns/tavrel_db_utls.h"
#include "server/importer.h"
#include "server/wan_server.h"
#include "wan/login.h"
#include "wan/lookup.h"
#include "wan/rclient_session.h"
#include "wan/wan_test_support.h"

namespace {

Tavrel_View* g_view = nullptr;
Tavrel_View* view_source() { return g_view; }

struct Walk {
  int status = -1;
  view_fhandle_t fh{}, parent{};
  view_vstat_t vstat{};
  uint32_t consumed = 0;
  int cacheable = -1, checked_out = -1;
  view_name_state_t state = 0;
  bool eclipsed = false, hijacked = false, dot_dot = false;
};

class NsLookup : public dbtest::DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    ASSERT_EQ(tavrel_storage_init(), 0);  // the container pool of view-private files
    home_ = std::make_unique<wan_test::TempHome>();
    const std::string src = home_->path() + "/src";
    std::filesystem::create_directories(src + "/docs");
    std::ofstream(src + "/a.c") << "int a;\n";
    std::ofstream(src + "/docs/readme.txt") << "read me\n";
    {
      tavrel_server::Store store(home_->path() + "/store.db");
      replica_ = tavrel_server::import_tree(store, "/proj", src, {}).silo.replica;
    }
    tavrel_server::ServerConfig cfg;
    cfg.store_path = home_->path() + "/store.db";
    cfg.users = {{"alice", "secret"}};
    server_ = std::make_unique<tavrel_server::WanServer>(cfg);
    ASSERT_GT(server_->start(), 0);
    RClient_Session::get_session()->init("", "", "", "", "", "", "", "", "", 0, "", "");
    Login login("alice", "secret", "", "", "", "http://127.0.0.1:" + std::to_string(server_->port()) + "/tavrel");
    ASSERT_EQ(login.run(), 0);
    ASSERT_EQ(login.get_status_code(), 0);

    view_ = std::make_unique<Tavrel_View>(storage_->path());
    ASSERT_EQ(view_->set_view_uuid("0d0d0d0d-0000-4000-8000-00000000000d"), 0);
    g_view = view_.get();
    Tavrel_Metadata::set_view_source(view_source);
    tavrel_set_online(true);

    ASSERT_EQ(cache_init(), 0);
    uint32_t row = 0;
    ASSERT_EQ(tvr_db_in_trans(1, [&] { return tvr_db_silo_create(replica_, "host:/proj", &row); }), 0);
    int st = -1;
    silo_ = silo_create(replica_, &st);
    ASSERT_NE(silo_, nullptr) << st;
    int cacheable = 0;
    uint32_t state = 0;
    obj_entry* root = lookup_root_ext(silo_, 0, &cacheable, &state, &st);
    ASSERT_NE(root, nullptr) << st;
    makehandle(root, 0, &root_fh_);
    root_oid_ = root->oid;
    obj_free(root);
    // The login went over a connection of its own, and the server logs a request after its answer is
    // out: wait for its entry, or it could land after the first mark and count as the test's.
    ASSERT_TRUE(logged("Tavrel_Orlen::login_rpc"));
    mark();
  }
  void TearDown() override {
    Tavrel_Thread_Manager_Base::get_instance()->drain_incomplete();  // background reads nobody runs here
    EXPECT_EQ(lookup_cache_check(), "");
    silo_tab_dispose_all();
    EXPECT_EQ(ns_cache_check(), "");
    EXPECT_EQ(name_cache_stats.count, 0);
    tavrel_set_online(false);
    Tavrel_Metadata::set_view_source(nullptr);
    g_view = nullptr;
    view_.reset();
    RClient_Session::get_session()->flush_curl_handles();
    RClient_Session::get_session()->clear_login();
    server_.reset();
    home_.reset();
    DbTest::TearDown();
  }

  bool logged(const std::string& rpc) {
    for (int i = 0; i < 1000; i++) {
      for (const auto& e : server_->log().since(0))
        if (e.rpc == rpc) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }
  // What reached the server since the last mark. The server logs a request once its answer is out, so
  // a mark is a request of the test's own, sent through the agent's WAN session after everything the
  // agent sent before, whose entry the log must show: a Lookup of a name nobody else asks for.
  void mark() { seq_ = sentinel(); }
  uint64_t sentinel() {
    const std::string name = "h4-sentinel-" + std::to_string(++sentinels_);
    Lookup cmd(view_->get_view_uuid(), replica_, root_oid_, TBS_OID_NULL, name.c_str());
    cmd.run();
    for (int i = 0; i < 1000; i++) {
      for (const auto& e : server_->log().since(seq_))
        if (e.args.find(name) != std::string::npos) return e.seq;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ADD_FAILURE() << "the server never logged " << name;
    return seq_;
  }
  // The requests since the mark, up to a new mark (which the next count starts from).
  std::string requests_seen;
  int request_count() {
    const uint64_t from = seq_, to = sentinel();
    requests_seen.clear();
    int n = 0;
    for (const auto& e : server_->log().since(from)) {
      if (e.seq >= to) break;
      if (e.args.find("h4-sentinel-") != std::string::npos) continue;
      requests_seen += e.method + " " + e.path + " " + e.rpc + "; ";
      n++;
    }
    seq_ = to;
    return n;
  }
  std::string requests() { return requests_seen; }

  Walk walk(const view_fhandle_t& dir, const char* name, const char* residual = "", bool want_dot_dot = false) {
    Walk w;
    tbs_oid_s co_oid{};
    struct timeval lvut {};
    w.status = ns_lookup_flags(&dir, name, 0, residual, &w.fh, &w.parent, &w.vstat, &w.consumed, &w.cacheable,
                               &w.state, &lvut, &w.checked_out, &w.eclipsed, &w.hijacked, &co_oid,
                               want_dot_dot ? &w.dot_dot : nullptr);
    return w;
  }
  // The root's directory version, with a reference.
  obj_entry* root_dir() {
    int hm = 0, st = 0;
    obj_entry* obj = locate_validate_fhandle(&root_fh_, &hm, &st);
    EXPECT_NE(obj, nullptr) << st;
    return obj;
  }
  // A view-private file named `name` in the root, with a reference.
  obj_entry* private_file(const char* name) {
    obj_entry* dir = root_dir();
    view_set_attr_t sattr{};
    sattr.mode = 0644;
    int st = -1;
    std::lock_guard<Tavrel_Recursive_Mutex> cache_held(tavrel_cache_mutex());  // the facade's callers hold it
    obj_entry* f = tavrel_db_create(nullptr, dir, name, 1, &sattr, nullptr, VIEW_NAME_STATE_VIEW_REC, nullptr,
                                    nullptr, &st);
    EXPECT_NE(f, nullptr) << st;
    obj_free(dir);
    return f;
  }
  bool same(const view_fhandle_t& a, const view_fhandle_t& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

  std::unique_ptr<wan_test::TempHome> home_;
  std::unique_ptr<tavrel_server::WanServer> server_;
  std::unique_ptr<Tavrel_View> view_;
  tbs_uuid_s replica_{};
  view_silo* silo_ = nullptr;
  view_fhandle_t root_fh_{};
  tbs_oid_s root_oid_{};
  uint64_t seq_ = 0;
  int sentinels_ = 0;
};

// A miss asks the server once per component; the same lookups again are answered by the cache alone.
TEST_F(NsLookup, MissThenHitWithoutSecondRequest) {
  struct Row {
    const char* name;
    const char* residual;
    uint32_t type;
    uint32_t consumed;
    int first_requests;
  } rows[] = {{"a.c", "", TBS_FTYPE_FILE, 0, 1}, {"docs", "readme.txt", TBS_FTYPE_FILE, 10, 2}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    Walk cold = walk(root_fh_, r.name, r.residual);
    ASSERT_EQ(cold.status, 0);
    EXPECT_EQ(cold.vstat.fstat.type, r.type);
    EXPECT_EQ(cold.consumed, r.consumed);
    EXPECT_EQ(cold.cacheable, 1);
    EXPECT_TRUE(cold.state & VIEW_NAME_STATE_SILO_REC);
    EXPECT_EQ(request_count(), r.first_requests) << requests();
    mark();
    const long hits = name_cache_stats.hits;
    Walk warm = walk(root_fh_, r.name, r.residual);
    ASSERT_EQ(warm.status, 0);
    EXPECT_TRUE(same(warm.fh, cold.fh));
    EXPECT_TRUE(same(warm.parent, cold.parent));
    EXPECT_EQ(warm.consumed, cold.consumed);
    EXPECT_EQ(request_count(), 0) << requests();
    EXPECT_EQ(name_cache_stats.hits - hits, r.first_requests);
    mark();
  }
  // The walk's parent output is the directory the last name was found in.
  Walk docs = walk(root_fh_, "docs");
  Walk readme = walk(root_fh_, "docs", "readme.txt");
  EXPECT_TRUE(same(readme.parent, docs.fh));
  EXPECT_TRUE(same(docs.parent, root_fh_));
}

// An unknown name is cached as ENOENT (no second request) until the SILO's negative answers are dropped.
TEST_F(NsLookup, EnoentCachedUntilInvalidated) {
  Walk first = walk(root_fh_, "nosuch");
  EXPECT_EQ(first.status, TBS_ST_NO_SUCH_NAME);
  EXPECT_TRUE(first.state & VIEW_NAME_STATE_NOT_FOUND);
  EXPECT_EQ(request_count(), 1) << requests();
  mark();
  Walk second = walk(root_fh_, "nosuch");
  EXPECT_EQ(second.status, TBS_ST_NO_SUCH_NAME);
  EXPECT_TRUE(second.state & VIEW_NAME_STATE_NOT_FOUND);
  EXPECT_EQ(second.cacheable, 1);
  EXPECT_EQ(request_count(), 0) << requests();
  lookup_invalidate_not_found(silo_);
  Walk third = walk(root_fh_, "nosuch");
  EXPECT_EQ(third.status, TBS_ST_NO_SUCH_NAME);
  EXPECT_EQ(request_count(), 1) << requests();
}

// Offline, a name the view does not know fails at once, is not cached, and is asked for when online.
TEST_F(NsLookup, OfflineUnknownNameNotCachedAndRetried) {
  tavrel_set_online(false);
  const long entries = name_cache_stats.count;
  for (int i = 0; i < 2; i++) {
    Walk w = walk(root_fh_, "a.c");
    EXPECT_EQ(w.status, TBS_ST_NO_SUCH_NAME);
    EXPECT_EQ(w.cacheable, 0);
    EXPECT_EQ(name_cache_stats.count, entries);
  }
  EXPECT_EQ(request_count(), 0) << requests();
  tavrel_set_online(true);
  Walk w = walk(root_fh_, "a.c");
  EXPECT_EQ(w.status, 0);
  EXPECT_EQ(w.vstat.fstat.type, TBS_FTYPE_FILE);
  EXPECT_EQ(request_count(), 1) << requests();
}

// What the view's own records make of a name: white-out, eclipse by a private file, hijack.
TEST_F(NsLookup, ViewSideStates) {
  // The SILO side of a.c first, so that the view's records stand against a known name.
  Walk silo_side = walk(root_fh_, "a.c");
  ASSERT_EQ(silo_side.status, 0);
  obj_entry* dir = root_dir();

  {  // white-out
    std::lock_guard<Tavrel_Recursive_Mutex> cache_held(tavrel_cache_mutex());  // the facade's callers hold it
    ASSERT_EQ(tavrel_db_link(dir, "a.c", nullptr, 0x1400), 0);
    lookup_invalidate(dir, "a.c");
    Walk w = walk(root_fh_, "a.c");
    EXPECT_EQ(w.status, TBS_ST_NO_SUCH_NAME);
    EXPECT_EQ(w.state & 0x1400, 0x1400u);
    bool hijacked = true;
    EXPECT_EQ(ns_lookup_white_out(&root_fh_, "a.c", &hijacked), 0);
    EXPECT_FALSE(hijacked);
    EXPECT_EQ(ns_lookup_white_out(&root_fh_, "docs", &hijacked), TBS_ST_EXISTS);
    ASSERT_EQ(tavrel_db_unlink(dir, "a.c", 0), 0);
    lookup_invalidate(dir, "a.c");
  }
  {  // eclipsed: a private file of the same name wins
    obj_entry* f = private_file("a.c");
    ASSERT_NE(f, nullptr);
    lookup_invalidate(dir, "a.c");
    Walk w = walk(root_fh_, "a.c");
    ASSERT_EQ(w.status, 0);
    EXPECT_TRUE(w.eclipsed);
    EXPECT_EQ(w.state & 0x3001, 0x3001u);
    EXPECT_EQ(w.fh.ver_dbid, f->dbid);
    EXPECT_FALSE(w.fh.ver_dbid == silo_side.fh.ver_dbid);

    // hijacked: the same file, marked as a hijack of the SILO's version
    tavrel_db_obj_ref ref;
    obj_entry* elem = obj_2elem(dir);
    ref.replica = replica_;
    ref.oid = elem->oid;
    ref.mtype = elem->mtype;
    std::lock_guard<Tavrel_Recursive_Mutex> cache_held(tavrel_cache_mutex());  // the facade's callers hold it
    ASSERT_EQ(tavrel_db_state_set(dir, "a.c", 0x201800), 0);
    ASSERT_EQ(tavrel_db_hijack_set(ref, "a.c", silo_side.vstat.obj_oid, silo_side.vstat.elem_oid), 0);
    lookup_invalidate(dir, "a.c");
    Walk h = walk(root_fh_, "a.c");
    ASSERT_EQ(h.status, 0);
    EXPECT_TRUE(h.hijacked);
    EXPECT_FALSE(h.eclipsed);
    EXPECT_EQ(h.checked_out, 0);
    EXPECT_TRUE(h.vstat.obj_oid == silo_side.vstat.obj_oid);
    obj_free(f);
  }
  obj_free(dir);
}

// A view record whose object has vanished is purged, logged, and the lookup goes on without it: the
// record names the cover of a SILO object the view database no longer knows.
TEST_F(NsLookup, StaleViewRecordPurged) {
  obj_entry* dir = root_dir();
  tavrel_db_obj_ref gone;
  gone.replica = replica_;
  gone.oid = tbs_oid_create();
  gone.mtype = 6;
  tavrel_db_obj_ref root_elem;
  root_elem.replica = replica_;
  root_elem.oid = obj_2elem(dir)->oid;
  root_elem.mtype = 2;
  int st = -1;
  const uint32_t cover = create_cover_inode(gone, &st);
  ASSERT_NE(cover, 0u) << st;
  const uint32_t root_cover = create_cover_inode(root_elem, &st);
  ASSERT_NE(root_cover, 0u) << st;
  ASSERT_EQ(tvr_db_in_trans(1, [&] {
              return tvr_db_link(root_cover, "p", 1, cover, 0, nullptr, nullptr, 0, nullptr, nullptr);
            }),
            0);
  uint32_t view_dbid = 0, state = 0;
  std::lock_guard<Tavrel_Recursive_Mutex> cache_held(tavrel_cache_mutex());  // the facade's callers hold it
  ASSERT_EQ(tavrel_db_lookup(dir, "p", &view_dbid, &state), 0);
  ASSERT_EQ(view_dbid, cover);

  dbtest::Messages messages;
  Walk w = walk(root_fh_, "p");
  EXPECT_EQ(w.status, TBS_ST_NO_SUCH_NAME);
  EXPECT_TRUE(messages.contains("Purging p")) << messages.all();
  EXPECT_EQ(tavrel_db_lookup(dir, "p", &view_dbid, &state), TBS_ST_NOT_FOUND);
  obj_free(dir);
}

// ".." at the root is the root; below it, the directory above; a walk hands ".." back when asked.
TEST_F(NsLookup, DotDot) {
  Walk up = walk(root_fh_, "..");
  ASSERT_EQ(up.status, 0);
  EXPECT_TRUE(same(up.fh, root_fh_));
  Walk docs = walk(root_fh_, "docs");
  ASSERT_EQ(docs.status, 0);
  Walk back = walk(docs.fh, "..");
  ASSERT_EQ(back.status, 0);
  EXPECT_TRUE(same(back.fh, root_fh_));
  Walk through = walk(root_fh_, "docs", "../a.c");
  ASSERT_EQ(through.status, 0);
  EXPECT_EQ(through.vstat.fstat.type, TBS_FTYPE_FILE);
  Walk handed = walk(root_fh_, ".", "docs/../a.c", true);
  ASSERT_EQ(handed.status, 0);
  EXPECT_TRUE(handed.dot_dot);
  EXPECT_EQ(handed.consumed, 7u);  // "docs/.."
  EXPECT_TRUE(same(handed.fh, docs.fh));
}

// A residual walk stops at a file and at a leaf that does not resolve, and says how far it went.
TEST_F(NsLookup, ResidualWalkStops) {
  struct Row {
    const char* name;
    const char* residual;
    uint32_t type;
    uint32_t consumed;
  } rows[] = {
      {"a.c", "x/y", TBS_FTYPE_FILE, 0},
      {"docs", "readme.txt/more", TBS_FTYPE_FILE, 11},
      {"docs", "nosuch/more", TBS_FTYPE_DIR, 0},
      {"docs", "//readme.txt", TBS_FTYPE_FILE, 12},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.name) + " " + r.residual);
    Walk w = walk(root_fh_, r.name, r.residual);
    ASSERT_EQ(w.status, 0);
    EXPECT_EQ(w.vstat.fstat.type, r.type);
    EXPECT_EQ(w.consumed, r.consumed);
  }
  EXPECT_EQ(walk(root_fh_, "x", "", false).status, TBS_ST_NO_SUCH_NAME);
  view_fhandle_t bad = root_fh_;
  Walk warped;
  struct timeval lvut {};
  EXPECT_EQ(ns_lookup(&bad, "a.c", 1, "", &warped.fh, &warped.parent, &warped.vstat, &warped.consumed,
                      &warped.cacheable, &warped.state, &lvut),
            TBS_ST_BAD_ARG);
}

// With a name budget of 0 and every cached entry in use, a new entry is still added; unused ones go.
TEST_F(NsLookup, NameBudgetZeroStillAdds) {
  obj_entry* dir = root_dir();
  int st = -1;
  name_entry* held = lookup_cm_name(dir, nullptr, "a.c", &st);
  ASSERT_NE(held, nullptr) << st;
  const uint32_t zero[2] = {0, 0};
  ASSERT_EQ(cache_set_values(1, zero), 0);
  ASSERT_EQ(ns_cache_get_budget().name_max, 0u);
  name_entry* also = lookup_cm_name(dir, nullptr, "docs", &st);
  ASSERT_NE(also, nullptr) << st;
  EXPECT_GE(name_cache_stats.count, 2);  // both in use: the sweep could take neither
  lookup_nep_free(also);
  lookup_nep_free(held);
  const unsigned ejects = name_cache_stats.ejects;
  name_entry* third = lookup_cm_name(dir, nullptr, "nosuch", &st);
  ASSERT_NE(third, nullptr) << st;
  EXPECT_GT(name_cache_stats.ejects, ejects);  // the unused entries made room
  EXPECT_EQ(name_cache_stats.count, 1);
  lookup_nep_free(third);
  obj_free(dir);
  ASSERT_EQ(ns_cache_set_size(NS_CACHE_MIN_SIZE, true), 0);
}

// The view's own name changes keep the cache in step: a private file takes over a cached ENOENT, and its
// removal leaves an ENOENT at once; neither needs the server.
TEST_F(NsLookup, ViewChangesKeepTheCacheInStep) {
  EXPECT_EQ(walk(root_fh_, "v").status, TBS_ST_NO_SUCH_NAME);
  EXPECT_EQ(request_count(), 1) << requests();
  obj_entry* f = private_file("v");
  ASSERT_NE(f, nullptr);
  Walk made = walk(root_fh_, "v");
  ASSERT_EQ(made.status, 0);
  EXPECT_EQ(made.fh.ver_dbid, f->dbid);
  EXPECT_EQ(made.state & 0x1001, 0x1001u);
  obj_free(f);
  obj_entry* dir = root_dir();
  std::lock_guard<Tavrel_Recursive_Mutex> cache_held(tavrel_cache_mutex());  // the facade's callers hold it
  ASSERT_EQ(tavrel_db_unlink(dir, "v", 0), 0);
  obj_free(dir);
  Walk gone = walk(root_fh_, "v");
  EXPECT_EQ(gone.status, TBS_ST_NO_SUCH_NAME);
  EXPECT_TRUE(gone.state & VIEW_NAME_STATE_NOT_FOUND);
  EXPECT_EQ(request_count(), 0) << requests();
}

// Paths of objects from their SILO root, and the refusals of bad arguments.
TEST_F(NsLookup, Paths) {
  struct Row {
    const char* name;
    const char* residual;
    const char* path;
  } rows[] = {{".", "", "/"}, {"docs", "", "/docs"}, {"docs", "readme.txt", "/docs/readme.txt"}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.path);
    Walk w = walk(root_fh_, r.name, r.residual);
    ASSERT_EQ(w.status, 0);
    int hm = 0, st = 0;
    obj_entry* obj = locate_validate_fhandle(&w.fh, &hm, &st);
    ASSERT_NE(obj, nullptr) << st;
    char path[64], ext[64];
    EXPECT_EQ(lookup_gpath(obj, 0, sizeof path, path, sizeof ext, ext), 0);
    EXPECT_STREQ(path, r.path);
    EXPECT_STREQ(ext, r.path);
    obj_entry* now = lookup_revalidate(obj, &st);
    EXPECT_EQ(now, obj) << st;
    obj_free(now);
    if (std::strlen(r.path) > 1) {
      EXPECT_EQ(lookup_gpath(obj, 0, 4, path, sizeof ext, ext), TBS_ST_TOO_LONG);
    }
    EXPECT_EQ(lookup_gpath(obj, 0, 0, path, sizeof ext, ext), TBS_ST_BAD_ARG);
    EXPECT_EQ(lookup_gpath(obj, 1, sizeof path, path, sizeof ext, ext), TBS_ST_INTERNAL);
    obj_free(obj);
  }
}

}  // namespace
