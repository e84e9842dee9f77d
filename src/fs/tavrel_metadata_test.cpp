// The metadata resolver against a real view database and a scripted server that holds a small SILO
// and counts requests: the lookup decision table, merged and promoted listings, a failing listing
// (invalidated, no deadlock), and the path walk through the name service.
#include "fs/tavrel_metadata.h"

#include <unistd.h>

#include <future>
#include <map>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "core/tavrel_config.h"
#include "core/tavrel_online.h"
#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_view.h"
#include "db/db_test_util.h"
#include "fs/tavrel_readdir_sb_req.h"
#include "fs/tavrel_view_db_silo.h"
#include "kfsm/kfsm_test_util.h"
#include "ns/ns_cache.h"
#include "ns/ns_silo.h"
#include "proto/kfsm_wire.h"
#include "proto/rpcargs.h"
#include "proto/tavrel_records.h"
#include "proto/wan_names.h"
#include "wan/rpc_cmd_test_util.h"

namespace n = tavrel_wan;

namespace {

tbs_oid_s oid(uint32_t k) {
  tbs_oid_s o{};
  o.bytes[0] = 0x6b;
  std::memcpy(o.bytes + 12, &k, 4);
  return o;
}

// The SILO as the server holds it: directories by version OID, entries in name order.
struct Entry {
  std::string name;
  silo_mtype_t mtype;  // 3 directory, 6 file, 7 link, anything else as sent
  uint32_t id;         // object OID oid(id), element oid(id + 1) (a link is its own element)
  std::string text;    // a link's target
};
struct Silo_Model {
  std::map<uint32_t, std::vector<Entry>> dirs;  // by directory id
  std::mutex mu;
  bool gate_closed = false;  // listings wait while closed
  int listings_entered = 0;
  std::condition_variable cv;
};

tavrel_vstat vstat_of(silo_mtype_t mtype, uint32_t id, const std::string& text, bool element) {
  tavrel_vstat v{};
  const bool link = mtype == SILO_MTYPE_SYMLINK;
  v.vstat.mtype = element ? (link ? 7 : mtype == 3 ? 2 : 5) : mtype;
  v.vstat.obj_oid = element && !link ? oid(id + 1) : oid(id);
  v.vstat.elem_oid = link ? oid(id) : oid(id + 1);
  v.vstat.fstat.type = mtype == 3 ? TBS_FTYPE_DIR : link ? TBS_FTYPE_LINK : TBS_FTYPE_FILE;
  v.vstat.fstat.mode = 0755;
  v.vstat.fstat.owner = v.vstat.fstat.group = CREDUTL_SID_NOBODY;
  v.vstat.fstat.size = text.size();
  v.vstat.event_time = {1700000000, 0};
  std::snprintf(v.path, sizeof v.path, "%s", link ? text.c_str() : "");
  return v;
}

void put_object(n::ReplyWriter& w, silo_mtype_t mtype, uint32_t id, const std::string& text) {
  std::string s, o, e;
  tavrel_scope scope{TBS_OID_NULL, TBS_OID_NULL, 1, "Automatic"};
  tavrel_vstat ov = vstat_of(mtype, id, text, false), ev = vstat_of(mtype, id, text, true);
  EXPECT_EQ(tavrel_scope_encode(&scope, &s), 0);
  EXPECT_EQ(tavrel_vstat_encode(&ov, &o), 0);
  EXPECT_EQ(tavrel_vstat_encode(&ev, &e), 0);
  w.part(n::PART_OBJ_SCOPE, s);
  w.part(n::PART_OBJ_METADATA, o);
  w.part(n::PART_ELEM_METADATA, e);
}

std::string arg(const wan_test::Recorded& r, const std::string& name) {
  std::vector<n::RpcArg> args;
  std::string error;
  n::rpcargs_parse(r.rpcargs, &args, &error);
  for (const auto& a : args)
    if (a.name == name) return a.value;
  return "";
}

uint32_t id_of(const std::string& oid_text) {
  tbs_oid_s o{};
  tbs_str_to_oid(oid_text, &o);
  uint32_t k = 0;
  std::memcpy(&k, o.bytes + 12, 4);
  return k;
}

Tavrel_View* g_test_view = nullptr;

class MetadataTest : public wan_test::ScriptedServerTest {
 protected:
  void SetUp() override {
    ScriptedServerTest::SetUp();
    storage = std::make_unique<dbtest::Storage>();
    int created = 0;
    ASSERT_EQ(tavrel_db_init(&created), 0);
    ASSERT_EQ(cache_init(), 0);
    peer = std::make_unique<Kfsm_Peer>(sock.path, "/view");
    ASSERT_EQ(peer->start(), 0);
    view = std::make_unique<Tavrel_View>("01234567-89ab-cdef-0123-456789abcdef", "vtag", "unix", "", "/cache",
                                         storage->path(), 0);
    g_test_view = view.get();
    Tavrel_Metadata::set_view_source([] { return g_test_view; });
    tavrel_set_online(true);
    replica = tbs_uuid_create();
    unsigned silo_dbid = 0;
    ASSERT_EQ(Tavrel_View_db_silo(replica).create_silo("host:/silos/proj", silo_dbid), 0);
    // The root (directory 1): a file, a directory, a link; directory 10 holds one file.
    model.dirs[1] = {{"a.c", 6, 100, ""}, {"docs", 3, 10, ""}, {"ln", 7, 200, "a.c"}};
    model.dirs[10] = {{"readme", 6, 110, ""}};
    serve();
  }
  void TearDown() override {
    drop_queued();  // a queued read holds its directory's scoreboard
    open_gate();
    Tavrel_Metadata::set_view_source(nullptr);
    silo_tab_dispose_all();
    peer->stop();
    storage.reset();
    tavrel_set_online(true);
    ScriptedServerTest::TearDown();
  }

  void serve() {
    server->on_rpc(n::RPC_GET_METADATA, [this](const wan_test::Recorded& r, httplib::Response& res) {
      const bool other = arg(r, n::ARG_SILO_UUID) == tbs_uuid_to_str(replica2);
      res.set_content(wan_test::make_doc([&](n::ReplyWriter& w) {
                        put_object(w, 3, other ? 1000 : 1, "");
                        w.status(0);
                      }),
                      "multipart/mixed");
    });
    server->on_rpc(n::RPC_LOOKUP, [this](const wan_test::Recorded& r, httplib::Response& res) {
      const uint32_t dir = id_of(arg(r, n::ARG_VERSION_OID));
      const std::string leaf = arg(r, n::ARG_LEAF_NAME);
      std::lock_guard<std::mutex> g(model.mu);
      const Entry* found = nullptr;
      for (const Entry& e : model.dirs[dir])
        if (e.name == leaf) found = &e;
      res.set_content(wan_test::make_doc([&](n::ReplyWriter& w) {
                        if (found) put_object(w, found->mtype, found->id, found->text);
                        w.status(found ? 0 : TBS_ST_NOT_FOUND);
                      }),
                      "multipart/mixed");
    });
    server->on_rpc(n::RPC_GET_DIRECTORY_CONTENTS, [this](const wan_test::Recorded& r, httplib::Response& res) {
      const uint32_t dir = id_of(arg(r, n::ARG_VERSION_OID));
      std::unique_lock<std::mutex> g(model.mu);
      ++model.listings_entered;
      model.cv.notify_all();
      model.cv.wait(g, [this] { return !model.gate_closed || server->stopping(); });
      res.set_content(wan_test::make_doc([&](n::ReplyWriter& w) {
                        for (const Entry& e : model.dirs[dir]) {
                          tavrel_dirent d{uint32_t(e.name.size()), {}, 0, 2, 0x2000, 0, oid(e.id + 1), 5,
                                          oid(e.id), e.mtype, 0};
                          std::snprintf(d.name, sizeof d.name, "%s", e.name.c_str());
                          std::string body;
                          EXPECT_EQ(tavrel_dirent_encode(&d, &body), 0);
                          w.part(n::PART_DIRECTORY_ENTRY, body);
                          put_object(w, e.mtype, e.id, e.text);
                        }
                        w.status(0);
                      }),
                      "multipart/mixed");
    });
  }
  void close_gate() {
    std::lock_guard<std::mutex> g(model.mu);
    model.gate_closed = true;
  }
  void open_gate() {
    std::lock_guard<std::mutex> g(model.mu);
    model.gate_closed = false;
    model.cv.notify_all();
  }
  void wait_listings_entered(int n) {
    std::unique_lock<std::mutex> g(model.mu);
    model.cv.wait(g, [&] { return model.listings_entered >= n; });
  }
  size_t count(const char* rpc) { return server->count(rpc); }
  static void drop_queued() {
    while (Tavrel_Request* r = Tavrel_Thread_Manager_Base::get_instance()->pop_request(false)) {
      r->cancel_request();
      delete r;
    }
  }
  // Runs every queued request on this thread, as a pool thread would.
  void run_queued() {
    while (Tavrel_Request* r = Tavrel_Thread_Manager_Base::get_instance()->pop_request(false)) {
      r->handle_request();
      delete r;
    }
  }
  template <class Pred>
  static void wait_for(Pred pred) {
    while (!pred()) std::this_thread::yield();
  }
  uint32_t root_dbid() {
    uint32_t e = 0, v = 0;
    tavrel_vstat st{};
    EXPECT_EQ(Tavrel_Metadata::bindroot(replica, &e, &v, &st), 0);
    return v;
  }
  int lookup(uint32_t dir, const char* name, uint32_t* ver = nullptr, tavrel_vstat* out = nullptr) {
    uint32_t e = 0, v = 0;
    tavrel_vstat st{};
    int rc = Tavrel_Metadata::lookup_obj(replica, dir, 0, name, &e, &v, &st);
    if (ver) *ver = v;
    if (out) *out = st;
    return rc;
  }
  static std::string names(const std::vector<tavrel_dirent>& v) {
    std::string s;
    for (const auto& d : v) s += std::string(d.name) + " ";
    return s;
  }

  kfsm_test::Temp_Socket sock;
  std::unique_ptr<Kfsm_Peer> peer;
  std::unique_ptr<dbtest::Storage> storage;
  std::unique_ptr<Tavrel_View> view;
  tbs_uuid_s replica{}, replica2 = tbs_uuid_create();
  Silo_Model model;
};

// Each step: what it does, the status it must give, and the requests it may send.
TEST_F(MetadataTest, LookupDecisionTable) {
  uint32_t root = 0, docs = 0;
  tavrel_vstat got{};
  struct Step {
    const char* what;
    std::function<int()> run;
    int want;
    size_t metadata, lookups, listings;  // requests sent by this step
  } steps[] = {
      {"root from the server", [&] { return (root = root_dbid()) ? 0 : -1; }, 0, 1, 0, 0},
      {"root again from the database", [&] { return root_dbid() == root ? 0 : -1; }, 0, 0, 0, 0},
      {"unknown name from the server", [&] { return lookup(root, "a.c", nullptr, &got); }, 0, 0, 1, 0},
      {"the same name from the database", [&] { return lookup(root, "a.c"); }, 0, 0, 0, 0},
      {"a name the server does not know", [&] { return lookup(root, "nope"); }, TAVREL_ST_NOT_FOUND, 0, 1, 0},
      {"the queued background listing", [&] { return run_queued(), 0; }, 0, 0, 0, 1},
      {"definite absence after the listing", [&] { return lookup(root, "nope2"); }, TAVREL_ST_NOT_FOUND, 0, 0, 0},
      {"a listed name", [&] { return lookup(root, "docs", &docs); }, 0, 0, 0, 0},
      {"offline: unread directory", [&] { return tavrel_set_online(false), lookup(docs, "x"); },
       TAVREL_ST_DISCONNECTED, 0, 0, 0},
      {"offline: known name", [&] { return lookup(root, "ln"); }, 0, 0, 0, 0},
      {"offline: listing from the database", [&] {
         std::vector<tavrel_dirent> v;
         int rc = Tavrel_Metadata::readdir_obj(replica, docs, &v);
         return rc == 0 && v.empty() ? 0 : -1;
       }, 0, 0, 0, 0},
  };
  for (const Step& s : steps) {
    SCOPED_TRACE(s.what);
    const size_t m0 = count(n::RPC_GET_METADATA), l0 = count(n::RPC_LOOKUP), d0 = count(n::RPC_GET_DIRECTORY_CONTENTS);
    EXPECT_EQ(s.run(), s.want);
    EXPECT_EQ(count(n::RPC_GET_METADATA) - m0, s.metadata);
    EXPECT_EQ(count(n::RPC_LOOKUP) - l0, s.lookups);
    EXPECT_EQ(count(n::RPC_GET_DIRECTORY_CONTENTS) - d0, s.listings);
  }
  // What the server sent is shown as the view's user's, with the database's link count.
  const std::string uid = std::to_string(getuid());
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(got.vstat.fstat.owner.bytes), got.vstat.fstat.owner.len), uid);
  EXPECT_EQ(got.vstat.obj_oid, oid(100));
  EXPECT_EQ(got.vstat.mtype, SILO_MTYPE_FILE_VER);

  // Online with the server gone: a directory's listing is what the database holds, never complete.
  tavrel_set_online(true);
  ASSERT_EQ(lookup(docs, "readme"), 0);
  drop_queued();  // the background listing it queued never runs
  server.reset();
  std::vector<tavrel_dirent> v;
  EXPECT_EQ(Tavrel_Metadata::readdir_obj(replica, docs, &v), 0);
  EXPECT_EQ(names(v), "readme ");
  EXPECT_EQ(lookup(docs, "other"), TAVREL_ST_WAN_CALL);
}

TEST_F(MetadataTest, ConcurrentForegroundListingsMakeOneRequest) {
  const uint32_t root = root_dbid();
  // Enough readers that the highest reference count ever reached must grow: then all of them linked.
  const uint32_t before = Tavrel_Readdir_Scoreboard::stats().max_refcnt;
  const int readers = 1 + static_cast<int>(std::max<uint32_t>(before, 1));
  close_gate();
  std::vector<std::vector<tavrel_dirent>> got(readers);
  std::vector<std::future<int>> done;
  done.push_back(std::async(std::launch::async, [&] { return Tavrel_Metadata::readdir_obj(replica, root, &got[0]); }));
  wait_listings_entered(1);
  for (int i = 1; i < readers; ++i)
    done.push_back(
        std::async(std::launch::async, [&, i] { return Tavrel_Metadata::readdir_obj(replica, root, &got[i]); }));
  wait_for([&] { return Tavrel_Readdir_Scoreboard::stats().max_refcnt >= static_cast<uint32_t>(readers); });
  open_gate();
  for (auto& f : done) EXPECT_EQ(f.get(), 0);
  EXPECT_EQ(count(n::RPC_GET_DIRECTORY_CONTENTS), 1u);
  for (const auto& v : got) EXPECT_EQ(names(v), "a.c docs ln ");
  // Complete now: served by the database, and names it lacks are definitely absent.
  std::vector<tavrel_dirent> again;
  EXPECT_EQ(Tavrel_Metadata::readdir_obj(replica, root, &again), 0);
  EXPECT_EQ(names(again), "a.c docs ln ");
  EXPECT_EQ(lookup(root, "zz"), TAVREL_ST_NOT_FOUND);
  EXPECT_EQ(count(n::RPC_GET_DIRECTORY_CONTENTS) + count(n::RPC_LOOKUP), 1u);
  EXPECT_EQ(Tavrel_Readdir_Scoreboard::stats().registered, 0u);
}

TEST_F(MetadataTest, ForegroundListingPromotesTheQueuedBackgroundRead) {
  const uint32_t root = root_dbid();
  Tavrel_Thread_Manager_Base* tm = Tavrel_Thread_Manager_Base::get_instance();
  Tavrel_Metadata::readdir_in_background(replica, root);
  Tavrel_Metadata::readdir_in_background(replica, root);  // a duplicate: skipped
  ASSERT_EQ(tm->counters().bg_queued, 1u);
  std::vector<tavrel_dirent> got;
  auto reader = std::async(std::launch::async, [&] { return Tavrel_Metadata::readdir_obj(replica, root, &got); });
  wait_for([&] { return tm->counters().fg_queued == 1; });
  EXPECT_EQ(tm->counters().bg_queued, 0u);
  run_queued();
  EXPECT_EQ(reader.get(), 0);
  EXPECT_EQ(names(got), "a.c docs ln ");
  EXPECT_EQ(count(n::RPC_GET_DIRECTORY_CONTENTS), 1u);
}

// An entry of a kind that cannot stand under a name stops the listing: the directory is not taken
// as complete, and its cached names and the kernel's are invalidated by the background reader after
// its scoreboard is released, while a foreground reader holding the name-service mutex waits on it.
TEST_F(MetadataTest, FailingListingInvalidatesWithoutDeadlock) {
  const uint32_t root = root_dbid();
  model.dirs[1].push_back({"weird", SILO_MTYPE_ELEM3, 300, ""});
  Tavrel_Metadata::readdir_in_background(replica, root);
  std::vector<tavrel_dirent> got;
  auto reader = std::async(std::launch::async, [&] {
    std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
    return Tavrel_Metadata::readdir_obj(replica, root, &got);
  });
  Tavrel_Thread_Manager_Base* tm = Tavrel_Thread_Manager_Base::get_instance();
  wait_for([&] { return tm->counters().fg_queued == 1; });
  run_queued();
  ASSERT_EQ(reader.wait_for(std::chrono::seconds(60)), std::future_status::ready) << "deadlock";
  EXPECT_EQ(reader.get(), TAVREL_ST_FAILURE);
  int obj_invalidations = 0;
  for (const kfsm_command& c : peer->commands()) {
    kfsm_inval_args a;
    if (c.cmd == KFSM_CMD_INVAL && kfsm_parse_inval(c, &a) && a.kind == KFSM_INVAL_OBJ && a.obj == oid(1))
      ++obj_invalidations;
  }
  EXPECT_EQ(obj_invalidations, 1);
  // Not complete: a missing name is asked of the server again.
  EXPECT_EQ(lookup(root, "zz"), TAVREL_ST_NOT_FOUND);
  EXPECT_EQ(count(n::RPC_LOOKUP), 1u);
}

// Client paths walked through the name service: links (20 followed, the 21st a loop), absolute links
// refused, ".." inside a SILO and out of its root into another mounted SILO, a file used as a
// directory, missing components, an unmounted tag.
TEST_F(MetadataTest, PathResolution) {
  for (int i = 1; i <= 21; ++i)
    model.dirs[1].push_back({"l" + std::to_string(i), 7, uint32_t(500 + 2 * i), i < 21 ? "l" + std::to_string(i + 1) : "a.c"});
  model.dirs[1].push_back({"abs", 7, 600, "/etc/passwd"});
  model.dirs[1000] = {{"b.c", 6, 1100, ""}};
  unsigned row = 0;
  ASSERT_EQ(Tavrel_View_db_silo(replica2).create_silo("host:/silos/other", row), 0);
  for (auto [tag, uuid] : {std::pair{"/proj", replica}, std::pair{"/other", replica2}}) {
    SILO_mount_info m;
    m.silo_tag = tag;
    m.replica_uuid = m.family_uuid = uuid;
    m.mount_state = 1;
    Tavrel_Config::g_mounted_silos[tag] = m;
  }
  struct Row {
    const char* path;
    bool follow;
    int want;
    const char* canonical;  // or the message's expected text on failure
    const char* tag;
    bool multi;
  } rows[] = {
      {"/proj", true, 0, "/", "/proj", false},
      {"/proj/docs/readme", true, 0, "/docs/readme", "/proj", false},
      {"/proj/ln", false, 0, "/ln", "/proj", false},
      {"/proj/ln", true, 0, "/a.c", "/proj", false},
      {"/proj/l2", true, 0, "/a.c", "/proj", false},
      {"/proj/l1", true, TAVREL_ST_FAILURE, "Cannot look up object \"/proj/l1\"", "/proj", false},
      {"/proj/abs", true, TAVREL_ST_FAILURE, "Absolute symlinks unsupported: /proj/abs -> /etc/passwd", "/proj", false},
      {"/proj/docs/../a.c", true, 0, "/a.c", "/proj", false},
      {"/proj/../other/b.c", true, 0, "/b.c", "/other", false},
      {"/proj/a.c/x", true, TAVREL_ST_BG_METADATA, "could not look up \"x\"", "/proj", true},
      {"/proj/docs/nope/x", true, TAVREL_ST_NOT_FOUND, "could not look up \"nope/x\"", "/proj", true},
      {"/proj/docs/nope", true, TAVREL_ST_NOT_FOUND, "could not look up \"nope\"", "/proj", false},
      {"/nomount/x", true, TAVREL_ST_NOT_MOUNTED, "No known mounted SILO", "", false},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.path) + (r.follow ? " follow" : ""));
    Tavrel_Metadata md(r.path, r.follow);
    ASSERT_EQ(md.run(), r.want) << md.get_message();
    EXPECT_EQ(md.get_silo_tag(), r.tag);
    EXPECT_EQ(md.get_multi_component(), r.multi);
    if (r.want != 0) {
      EXPECT_NE(md.get_message().find(r.canonical), std::string::npos) << md.get_message();
      continue;
    }
    EXPECT_EQ(md.get_canonical(), r.canonical);
    view_vstat_t v{};
    ASSERT_EQ(md.get_vstat(&v), 0);
    EXPECT_EQ(md.get_is_silo_root(), std::string(r.canonical) == "/");
    if (!r.follow) {
      EXPECT_STREQ(md.get_target(), "a.c");
    } else if (std::string(r.canonical) == "/a.c") {
      EXPECT_EQ(v.obj_oid, oid(100));
    }
  }
  EXPECT_EQ(Tavrel_Metadata("/proj", true).get_vstat(nullptr), TAVREL_ST_FAILURE);
  Tavrel_Config::g_mounted_silos.clear();
}

}  // namespace
