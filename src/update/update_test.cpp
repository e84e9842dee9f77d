// The Update operation against a real view database, the name service, a scripted module and a
// scripted server whose update streams each test writes: a first load and an update (database, log
// and kernel agree), hijacked files under each treatment, a stop midway, a directory in two load
// rules, a second update while one runs, resume, and the requests refused before anything starts.
#include "update/tavrel_update.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "base/olthread.h"
#include "cleartext/tavrel_cleartext.h"
#include "core/tavrel_config.h"
#include "core/tavrel_online.h"
#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_view.h"
#include "db/db_test_util.h"
#include "db/tavrel_db_adopt.h"
#include "db/tavrel_db_container.h"
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_dir.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_vns.h"
#include "fs/tavrel_metadata.h"
#include "fs/tavrel_view_db.h"
#include "fs/tavrel_view_db_silo.h"
#include "kfsm/kfsm_test_util.h"
#include "ns/ns_cache.h"
#include "ns/ns_lookup.h"
#include "ns/ns_silo.h"
#include "ns/tavrel_db_utls.h"
#include "proto/rpcargs.h"
#include "proto/wan_names.h"
#include "update/tavrel_update_hijack.h"
#include "wan/rpc_cmd_test_util.h"

namespace n = tavrel_wan;
namespace fs = std::filesystem;

namespace {

tbs_oid_s oid(uint32_t k) {
  tbs_oid_s o{};
  o.bytes[0] = 0x75;
  std::memcpy(o.bytes + 12, &k, 4);
  return o;
}
uint32_t id_of(const tbs_oid_s& o) {
  uint32_t k = 0;
  std::memcpy(&k, o.bytes + 12, 4);
  return k;
}

// The SILO of the tests: root (element 1, version 2); a.c (10: 11, then 12); src (20: 21); src/b.c
// (30: 31); ln, a link (40); src/c.c (50: 51), brought by an update.
enum Kind { DIR, FILE_, LINK };
struct Obj {
  std::string path;
  Kind kind;
  uint32_t elem, ver, parent;  // parent: element of the directory, 0 for the root
};
const Obj kRoot{"/proj", DIR, 1, 2, 0}, kA{"/proj/a.c", FILE_, 10, 11, 1}, kA2{"/proj/a.c", FILE_, 10, 12, 1},
    kSrc{"/proj/src", DIR, 20, 21, 1}, kB{"/proj/src/b.c", FILE_, 30, 31, 20}, kLn{"/proj/ln", LINK, 40, 40, 1},
    kC{"/proj/src/c.c", FILE_, 50, 51, 20};
const tbs_oid_s kRule = tavrel_load_scope_oid("/proj"), kRule2 = tavrel_load_scope_oid("/proj/src");

tavrel_vstat vstat_of(const Obj& o, bool element) {
  tavrel_vstat v{};
  const silo_mtype_t obj_type = o.kind == DIR ? 3 : o.kind == FILE_ ? 6 : 7;
  v.vstat.mtype = !element || o.kind == LINK ? obj_type : o.kind == DIR ? 2 : 5;
  v.vstat.obj_oid = oid(element ? o.elem : o.ver);
  v.vstat.elem_oid = oid(o.elem);
  v.vstat.fstat.type = o.kind == DIR ? TBS_FTYPE_DIR : o.kind == LINK ? TBS_FTYPE_LINK : TBS_FTYPE_FILE;
  v.vstat.fstat.mode = 0755;
  v.vstat.fstat.owner = v.vstat.fstat.group = CREDUTL_SID_NOBODY;
  v.vstat.event_time = {1700000000, 0};
  if (o.kind == LINK) std::snprintf(v.path, sizeof v.path, "a.c");
  return v;
}

// An update stream as the server writes it.
struct Stream {
  n::ReplyWriter w;
  tbs_uuid_s replica;
  Stream(unsigned gn, const tbs_uuid_s& r) : replica(r) {
    w.begin();
    w.part(n::PART_SYNC_FETCH_BEGIN, {{n::ITEM_OPERATION_GN, std::to_string(gn)}}, "");
    w.part(n::PART_SILO_FETCH_BEGIN,
           {{n::ITEM_REPLICA_UUID, tbs_uuid_to_str(replica)}, {n::ITEM_FAMILY_OID, tbs_oid_to_str(oid(99))}}, "");
  }
  void elem_info(const Obj& o, const std::string& prev, const std::string& curr) {
    tavrel_synceleminfo_t e{{}, o.parent ? oid(o.parent) : TBS_OID_NULL, replica, oid(o.elem), {}, {}};
    std::snprintf(e.object_path, sizeof e.object_path, "%s", o.path.c_str());
    std::snprintf(e.prev_version_str, sizeof e.prev_version_str, "%s", prev.c_str());
    std::snprintf(e.curr_version_str, sizeof e.curr_version_str, "%s", curr.c_str());
    std::string body;
    EXPECT_EQ(tavrel_synceleminfo_encode(&e, &body), 0);
    w.part(n::PART_SYNC_ELEM_INFO, body);
  }
  Stream& scope(const char* name, const tbs_oid_s& scope_oid, unsigned gn) {
    tavrel_scope s{scope_oid, {}, gn, {}};
    std::snprintf(s.name, sizeof s.name, "%s", name);
    std::string body;
    EXPECT_EQ(tavrel_scope_encode(&s, &body), 0);
    w.part(n::PART_SCOPE_FETCH_BEGIN, body);
    return *this;
  }
  Stream& put(const Obj& o, const std::string& prev = "") {
    elem_info(o, prev, "main/" + std::to_string(o.ver));
    for (bool element : {false, true}) {
      tavrel_vstat v = vstat_of(o, element);
      std::string body;
      EXPECT_EQ(tavrel_vstat_encode(&v, &body), 0);
      w.part(element ? n::PART_ELEM_METADATA : n::PART_OBJ_METADATA, body);
    }
    return *this;
  }
  Stream& unload(const Obj& o) { return elem_info(o, "main/" + std::to_string(o.ver), ""), *this; }
  Stream& end_scope() { return w.part(n::PART_SCOPE_FETCH_END, ""), *this; }
  std::string done() {
    w.part(n::PART_SILO_FETCH_END, "");
    w.part(n::PART_SYNC_FETCH_END, "");
    w.status(0);
    w.end();
    return w.take();
  }
};

Tavrel_View* g_view = nullptr;
Tavrel_View* view_source() { return g_view; }
Tavrel_AbstractOp* make_update(const std::string& l, OlXmlDoc* d) {
  return Tavrel_AbstractOp::make_with_doc<Tavrel_Update>(l, d);
}
const Tavrel_Op_Entry kTable[] = {{"Update", "1", &make_update}};

struct Outcome {
  int status;
  std::string message, response, log;
};

class UpdateTest : public wan_test::ScriptedServerTest {
 protected:
  void SetUp() override {
    ScriptedServerTest::SetUp();
    Tavrel_View::reset_for_test();
    storage = std::make_unique<dbtest::Storage>();
    int created = 0;
    ASSERT_EQ(tavrel_db_init(&created), 0);
    ASSERT_EQ(tavrel_storage_init(), 0);
    ASSERT_EQ(cache_init(), 0);
    peer = std::make_unique<Kfsm_Peer>(sock.path, "/view");
    ASSERT_EQ(peer->start(), 0);
    cache_root = home->path() + "/cache";
    fs::create_directories(cache_root);
    view = std::make_unique<Tavrel_View>("0d0d0d0d-0000-4000-8000-00000000000d", "vtag", "unix", "", cache_root,
                                         storage->path(), 0);
    g_view = view.get();
    Tavrel_Metadata::set_view_source(view_source);
    Tavrel_AbstractOp::set_view_source(view_source);
    tavrel_set_online(true);
    replica = tbs_uuid_create();
    unsigned silo_dbid = 0;
    ASSERT_EQ(Tavrel_View_db_silo(replica).create_silo("host:/silos/proj", silo_dbid), 0);
    ASSERT_EQ(Tavrel_View_db::create_view_row(view->get_view_uuid_str(), 0), 0);
    ASSERT_EQ(tvr_db_in_trans(1, [] { return tvr_db_create_def_scope(); }), 0);
    ASSERT_EQ(Tavrel_View_db::add_lr_scope(kRule, 1, "/proj"), 0);
    server->on_rpc(n::RPC_SYNCFETCH, [this](const wan_test::Recorded&, httplib::Response& res) {
      std::string doc;
      {
        std::lock_guard<std::mutex> g(mu);
        doc = streams.empty() ? std::string() : streams.front();
        if (!streams.empty()) streams.erase(streams.begin());
      }
      if (gate) gate(res, doc);
      else wan_test::serve_chunked(res, doc, 1 << 20);
    });
    server->on_get("/tavrel/cltxt/", [](const wan_test::Recorded& r, httplib::Response& res) {
      res.set_content(wan_test::make_doc([&](n::ReplyWriter& w) {
                        w.part(n::PART_SYNC_ELEM_DATA, "contents of " + r.path + "\n");
                        w.status(0);
                      }),
                      "multipart/mixed");
    });
  }
  void TearDown() override {
    Tavrel_Thread_Manager_Base* tm = Tavrel_Thread_Manager_Base::get_instance();
    tm->drain_incomplete();
    tm->do_cleanup(0);  // joins the update threads
    Tavrel_AbstractOp::set_view_source(nullptr);
    Tavrel_Metadata::set_view_source(nullptr);
    silo_tab_dispose_all();
    Tavrel_Config::clear_mount_tables_for_test();
    peer->stop();
    g_view = nullptr;
    view.reset();
    storage.reset();
    Tavrel_View::reset_for_test();
    ScriptedServerTest::TearDown();
  }

  // Runs an Update request to its end, running the background fetches it queues meanwhile.
  Outcome update(const std::string& flags, const std::string& extra = "") {
    return request("<update-flags " + flags + "/>" + extra);
  }
  Outcome request(const std::string& inner) {
    const std::string req = "<Update version=\"1\" tx-id=\"t1\">" + inner + "</Update>";
    int st = 0;
    std::unique_ptr<Tavrel_AbstractOp> op(
        Tavrel_AbstractOp::create_from_table(req, storage->path(), &st, kTable, 1));
    EXPECT_NE(op, nullptr);
    if (!op) return {st, "", "", ""};
    std::atomic<bool> done{false};
    std::thread t([&] {
      op->process_request();
      done = true;
    });
    Tavrel_Thread_Manager_Base* tm = Tavrel_Thread_Manager_Base::get_instance();
    while (!done) {
      if (Tavrel_Request* r = tm->pop_request(false)) {
        r->handle_request();
        delete r;
      } else {
        std::this_thread::yield();
      }
    }
    t.join();
    Outcome out{op->get_status(), op->get_status_message(), "", ""};
    op->get_response(out.response);
    const size_t at = out.response.find("<log-file>");
    if (at != std::string::npos)
      out.log = wan_test::read_file(storage->path() + "/log/" +
                                    out.response.substr(at + 10, out.response.find('<', at + 10) - at - 10));
    return out;
  }
  // The texts of the update logs in the view, by name.
  std::vector<std::string> update_logs() {
    std::vector<std::string> out;
    if (fs::exists(storage->path() + "/log"))
      for (const auto& e : fs::directory_iterator(storage->path() + "/log"))
        if (e.path().filename().string().rfind("update.", 0) == 0) out.push_back(wan_test::read_file(e.path()));
    return out;
  }
  template <class P>
  static void wait_until(P pred) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!pred() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  }
  void script(const std::string& doc) {
    std::lock_guard<std::mutex> g(mu);
    streams.push_back(doc);
  }
  // The records of a log as "<key> <first value>", in order.
  static std::vector<std::string> actions(const std::string& log) {
    std::vector<std::string> out;
    std::istringstream in(log);
    std::string key, value;
    for (std::string line; std::getline(in, line);) {
      std::istringstream l(line);
      l >> key >> value;
      for (const char* k : {"New:", "Updated:", "UnloadDeleted:", "UnloadPreserved:", "UnloadRenamed:",
                            "HijackedPreserved:", "HijackedDeleted:", "HijackedRenamed:", "Error:"})
        if (key == k) out.push_back(key + " " + value);
    }
    return out;
  }
  static bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }
  // The version a name shows in the database ("-" when none): the number of its OID.
  std::string shown(const Obj& dir, const char* leaf) {
    uint32_t dir_dbid = 0, silo = 0, dbid = 0;
    if (!Tavrel_View_db::obj_oid_to_dbid(replica, oid(dir.ver), &dir_dbid)) return "no dir";
    tbs_oid_s found{};
    silo_mtype_t mtype = 0;
    int st = tvr_db_in_trans(0, [&] {
      int st = tvr_db_silo_lookup(replica, &silo);
      if (st == 0) st = tvr_db_vns_ver_lookup_name(silo, dir_dbid, leaf, &dbid, &mtype, nullptr, nullptr);
      if (st == TBS_ST_REVALIDATE) st = 0;
      DB_ADDR silo_dba = 0;
      if (st == 0) st = tvr_db_vns_silo_dba(silo, &silo_dba);
      if (st == 0) st = tvr_db_lookup_obj_oid(silo_dba, dbid, &found, &mtype);
      return st;
    });
    return st == TBS_ST_NOT_FOUND ? "-" : st != 0 ? "error " + std::to_string(st) : std::to_string(id_of(found));
  }
  // The view's record of `leaf` in the root's cover: -1 when none, else its state.
  long view_record(const char* leaf) {
    tavrel_db_obj_ref ref{replica, oid(kRoot.elem), 2};
    uint32_t cover = 0, state = 0;
    int st = tvr_db_in_trans(0, [&] {
      int st = tavrel_db_cover_lookup(ref, &cover);
      if (st == 0) st = tvr_db_dir_entry_lookup(cover, leaf, std::strlen(leaf), nullptr, &state);
      return st;
    });
    return st == 0 ? static_cast<long>(state) : -1;
  }
  // Calls `fn` with the SILO's root directory, under the name service's mutex.
  template <class F>
  void with_root(F fn) {
    std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
    int st = 0, cacheable = 0;
    uint32_t state = 0;
    obj_entry* root = lookup_root_ext(silo_create(replica, &st), 0, &cacheable, &state, &st);
    ASSERT_NE(root, nullptr) << st;
    fn(root);
    obj_free(root);
  }
  // The SILO in the agent's mount table as "/proj" (the tests without it see no mounted SILO).
  void mount_proj() {
    SILO_mount_info m;
    m.silo_tag = "/proj";
    m.replica_uuid = m.family_uuid = replica;
    m.mount_state = 1;
    Tavrel_Config::g_mounted_silos[m.silo_tag] = m;
  }
  // The user's hijack of `leaf` in the root: a view-private file under the name, marked hijacked as a
  // copy of version `ver` of element `elem`.
  void hijack(const char* leaf, uint32_t ver, uint32_t elem) {
    with_root([&](obj_entry* root) {
      view_set_attr_t sattr{};
      sattr.mode = 0644;
      int st = 0;
      obj_free(tavrel_db_create(nullptr, root, leaf, 1, &sattr, nullptr, VIEW_NAME_STATE_VIEW_REC, nullptr, nullptr,
                                &st));
      EXPECT_EQ(st, 0);
      EXPECT_EQ(tavrel_db_state_set(root, leaf, 0x201800), 0);
    });
    EXPECT_EQ(tavrel_db_hijack_set({replica, oid(kRoot.elem), 2}, leaf, oid(ver), oid(elem)), 0);
    ASSERT_EQ(Tavrel_Update_Hijack::lookup(replica, oid(kRoot.elem), leaf), 0);
  }
  void hijack_a() { hijack("a.c", kA.ver, kA.elem); }
  // Removes what the view holds of a.c and of its renamed copy.
  void clear_view_records() {
    for (const char* leaf : {"a.c", "a.c.keep.1"}) {
      if (Tavrel_Update_Hijack::lookup(replica, oid(kRoot.elem), leaf) == 0)
        EXPECT_EQ(Tavrel_Update_Hijack::remove(replica, oid(kRoot.elem), leaf), 0);
      else if (view_record(leaf) >= 0)
        with_root([&](obj_entry* root) { EXPECT_EQ(tavrel_db_unlink(root, leaf, 0), 0); });
    }
    ASSERT_EQ(view_record("a.c"), -1);
  }
  // The first load of the SILO, at GN 5.
  void first_load() {
    Stream s(5, replica);
    s.scope("/proj", kRule, 5).put(kRoot).put(kA).put(kSrc).put(kB).put(kLn).end_scope();
    s.scope("Automatic", AUTOMATIC_LOAD_SCOPE_OID, 5).end_scope();
    script(s.done());
    Outcome o = update("hijack-treatment=\"keep\"");
    ASSERT_EQ(o.status, 0) << o.message;
    ASSERT_TRUE(has(o.log, "Succeeded")) << o.log;
  }
  // The values of argument `name` in the i-th request for a stream, in order.
  std::vector<std::string> sent(size_t i, const char* name) {
    std::vector<std::string> out;
    for (const auto& r : server->requests()) {
      std::vector<n::RpcArg> args;
      std::string error;
      if (r.rpc != n::RPC_SYNCFETCH || i-- != 0 || !n::rpcargs_parse(r.rpcargs, &args, &error)) continue;
      for (const auto& a : args)
        if (a.name == name) out.push_back(a.value);
    }
    return out;
  }
  unsigned db_view_gn() {
    unsigned gn = 777;
    EXPECT_EQ(Tavrel_View_db::view_gn(gn), 0);
    return gn;
  }

  kfsm_test::Temp_Socket sock;
  std::unique_ptr<Kfsm_Peer> peer;
  std::unique_ptr<dbtest::Storage> storage;
  std::unique_ptr<Tavrel_View> view;
  std::string cache_root;
  tbs_uuid_s replica{};
  std::mutex mu;
  std::vector<std::string> streams;
  std::function<void(httplib::Response&, const std::string&)> gate;  // serves the stream when set
};

TEST_F(UpdateTest, FirstLoadThenAnUpdateOfChangedNewAndUnloadedElements) {
  first_load();
  EXPECT_EQ(db_view_gn(), 5u);
  EXPECT_EQ(Tavrel_View::get_current_gn(), 5u);
  EXPECT_EQ(shown(kRoot, "a.c"), "11");
  EXPECT_EQ(shown(kRoot, "ln"), "40");
  EXPECT_EQ(shown(kSrc, "b.c"), "31");
  // The files' cleartext was fetched in the background, the directory's and the link's not.
  for (uint32_t ver : {kA.ver, kB.ver}) {
    Tavrel_Cleartext c(replica, 0, oid(ver), cache_root);
    int present = 0;
    EXPECT_EQ(c.check_cache(present), 0);
    EXPECT_EQ(present, 1) << ver;
  }
  EXPECT_EQ(server->count(n::RPC_SYNCFETCH), 1u);

  const size_t before = peer->commands().size();
  Stream s(6, replica);
  s.unload(kB).scope("/proj", kRule, 6).put(kA2, "main/11").put(kC).end_scope();
  script(s.done());
  Outcome o = update("hijack-treatment=\"keep\"");
  ASSERT_EQ(o.status, 0) << o.message;
  EXPECT_TRUE(has(o.response, "<log-file>update.")) << o.response;
  // The log and the database tell the same story.
  EXPECT_EQ(actions(o.log), (std::vector<std::string>{"UnloadDeleted: /proj/src/b.c", "Updated: /proj/a.c",
                                                      "New: /proj/src/c.c"}));
  EXPECT_EQ(shown(kRoot, "a.c"), "12");
  EXPECT_EQ(shown(kSrc, "c.c"), "51");
  EXPECT_EQ(shown(kSrc, "b.c"), "-");
  EXPECT_EQ(shown(kRoot, "ln"), "40");
  EXPECT_EQ(db_view_gn(), 6u);
  EXPECT_TRUE(has(o.log, "Status:                  Succeeded")) << o.log;
  // The kernel was told to forget each name the update touched, and then the whole view.
  std::string kernel;
  const auto commands = peer->commands();
  for (size_t i = before; i < commands.size(); i++) kernel += commands[i].info + commands[i].heap;
  EXPECT_GT(commands.size(), before + 3);
  for (const char* name : {"a.c", "b.c", "c.c"}) EXPECT_TRUE(has(kernel, name)) << name;
  // The second request named the GN the first one stored.
  EXPECT_EQ(sent(0, n::ARG_VIEW_GN), std::vector<std::string>{"0"});
  EXPECT_EQ(sent(1, n::ARG_VIEW_GN), std::vector<std::string>{"5"});
}

// Each treatment of a hijacked a.c, when a.c changes and when it is unloaded: the log's line and what
// becomes of the user's copy; the SILO's side takes the update all the same.
TEST_F(UpdateTest, HijackTreatments) {
  struct Case {
    const char* treatment;
    bool unload;
    const char* line;
    bool still_hijacked, copy_under_name;
    const char* renamed;  // where the copy went, or ""
  } cases[] = {
      {"keep", false, "HijackedPreserved: /proj/a.c", true, true, ""},
      {"overwrite", false, "HijackedDeleted: /proj/a.c", false, false, ""},
      {"rename", false, "HijackedRenamed: /proj/a.c", false, false, "a.c.keep.1"},
      {"keep", true, "UnloadPreserved: /proj/a.c", false, true, ""},
      {"overwrite", true, "UnloadDeleted: /proj/a.c", false, false, ""},
      {"rename", true, "UnloadRenamed: /proj/a.c", false, false, "a.c.keep.1"},
  };
  first_load();
  unsigned gn = 6;
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.treatment) + (c.unload ? " unload" : " update"));
    // Each case starts from a.c at version 11, hijacked.
    if (shown(kRoot, "a.c") != "11") {
      Stream back(gn, replica);
      back.scope("/proj", kRule, gn).put(kA, "").end_scope();
      script(back.done());
      ASSERT_EQ(update("hijack-treatment=\"overwrite\"").status, 0);
      gn++;
    }
    hijack_a();
    Stream s(gn, replica);
    if (c.unload) s.unload(kA);
    s.scope("/proj", kRule, gn);
    if (!c.unload) s.put(kA2, "main/11");
    s.end_scope();
    script(s.done());
    Outcome o = update(std::string("hijack-treatment=\"") + c.treatment + "\"");
    ASSERT_EQ(o.status, 0) << o.message;
    EXPECT_EQ(actions(o.log), std::vector<std::string>{c.line});
    if (*c.renamed) {
      EXPECT_TRUE(has(o.log, std::string("/proj/") + c.renamed)) << o.log;
    }
    EXPECT_EQ(shown(kRoot, "a.c"), c.unload ? "-" : "12");
    EXPECT_EQ(Tavrel_Update_Hijack::lookup(replica, oid(kRoot.elem), "a.c") == 0, c.still_hijacked);
    EXPECT_EQ(view_record("a.c") >= 0, c.copy_under_name);
    if (*c.renamed) {
      ASSERT_GE(view_record(c.renamed), 0);
      EXPECT_EQ(view_record(c.renamed) & 0x200000, 0);  // the user's own file now
    }
    EXPECT_EQ(db_view_gn(), gn);
    gn++;
    clear_view_records();
  }
}

// A hijack whose element the view no longer holds (it went without an unload of its name) is treated at
// the end of the update as for an unload: overwrite and rename log it, keep leaves it as it is.
TEST_F(UpdateTest, TheEndSweepsHijacksOfElementsNoLongerHeld) {
  struct Case {
    const char* treatment;
    const char* line;  // "" when nothing is logged
    bool still_hijacked, copy_under_name;
    const char* renamed;
  } cases[] = {
      {"keep", "", true, true, ""},
      {"overwrite", "HijackedDeleted: /proj/gone.c", false, false, ""},
      {"rename", "HijackedRenamed: /proj/gone.c", false, false, "gone.c.keep.1"},
  };
  first_load();
  // The log names a swept hijack by its SILO path, which takes the mounted SILO's tag and the path of the
  // directory the view holds.
  mount_proj();
  std::string b_path;
  ASSERT_EQ(tvr_db_in_trans(0, [&] {
              uint32_t silo = 0, dbid = 0;
              DB_ADDR silo_dba = 0;
              silo_mtype_t mtype = 0;
              int st = tvr_db_silo_lookup(replica, &silo);
              if (st == 0) st = tvr_db_vns_silo_dba(silo, &silo_dba);
              if (st == 0) st = tvr_db_vns_obj_lookup(silo_dba, oid(kB.ver), &dbid, &mtype);
              return st != 0 ? st : tvr_db_ver_path(silo, dbid, &b_path);
            }),
            0);
  EXPECT_EQ(b_path, "/src/b.c");
  unsigned gn = 6;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.treatment);
    // Elements 90 and 91 never came to the view; a.c's hijack stays beside it, its element still held.
    if (Tavrel_Update_Hijack::lookup(replica, oid(kRoot.elem), "gone.c") != 0) hijack("gone.c", 90, 91);
    hijack_a();
    Stream s(gn, replica);
    s.scope("/proj", kRule, gn).end_scope();
    script(s.done());
    Outcome o = update(std::string("hijack-treatment=\"") + c.treatment + "\"");
    ASSERT_EQ(o.status, 0) << o.message;
    EXPECT_TRUE(has(o.log, "Succeeded")) << o.log;
    EXPECT_EQ(actions(o.log), *c.line ? std::vector<std::string>{c.line} : std::vector<std::string>{});
    if (*c.renamed) {
      EXPECT_TRUE(has(o.log, std::string("/proj/gone.c /proj/") + c.renamed)) << o.log;
      ASSERT_GE(view_record(c.renamed), 0);
      EXPECT_EQ(view_record(c.renamed) & 0x200000, 0);
    }
    EXPECT_EQ(Tavrel_Update_Hijack::lookup(replica, oid(kRoot.elem), "gone.c") == 0, c.still_hijacked);
    EXPECT_EQ(view_record("gone.c") >= 0, c.copy_under_name);
    EXPECT_EQ(Tavrel_Update_Hijack::lookup(replica, oid(kRoot.elem), "a.c"), 0);
    gn++;
    clear_view_records();
  }
}

// An update whose thread cannot start ends at once as failed, with message 62 in its log, and frees the
// view for the next one.
TEST_F(UpdateTest, AnUpdateWhoseThreadCannotStartFailsAndFreesTheView) {
  olthread_fail_next_creates_for_test(1);
  Outcome o = update("hijack-treatment=\"keep\"");
  olthread_fail_next_creates_for_test(0);
  EXPECT_TRUE(has(o.log, "Status:                  Failed")) << o.log;
  EXPECT_TRUE(has(o.log, "starting view update")) << o.log;
  EXPECT_EQ(server->count(n::RPC_SYNCFETCH), 0u);
  EXPECT_EQ(db_view_gn(), 0u);
  first_load();
  EXPECT_EQ(db_view_gn(), 5u);
}

// A listener stopped because the view is ending: what came before stays, the GN does not move, and
// the log says the update was cancelled.
TEST_F(UpdateTest, AStopMidwayKeepsTheViewGn) {
  Stream s(5, replica);
  s.scope("/proj", kRule, 5).put(kRoot).put(kA).put(kSrc).put(kB).end_scope();
  const std::string doc = s.done();
  // The first piece ends before b.c: root and a.c are delivered, src waits for the next part.
  const size_t split = doc.rfind("\r\n--", doc.find("/proj/src/b.c"));
  ASSERT_NE(split, std::string::npos);
  std::promise<void> go;
  std::shared_future<void> released = go.get_future().share();
  gate = [split, released](httplib::Response& res, const std::string& d) {
    auto body = std::make_shared<std::string>(d);
    res.set_chunked_content_provider("multipart/mixed", [=](size_t off, httplib::DataSink& sink) {
      if (off >= body->size()) return sink.done(), true;
      if (off == split) released.wait_for(std::chrono::seconds(30));
      return sink.write(body->data() + off, (off < split ? split : body->size()) - off);
    });
  };
  script(doc);
  std::future<Outcome> first = std::async(std::launch::async, [this] { return update("force=\"true\""); });
  // Wait until a.c stands in the log, then end the view's updates.
  wait_until([this] { return update_logs().size() == 1 && has(update_logs()[0], "/proj/a.c"); });
  Tavrel_View::abort_update();
  go.set_value();
  Outcome o = first.get();
  EXPECT_EQ(o.status, 0) << o.message;  // the request ran; the log says how the update went
  EXPECT_EQ(actions(o.log), (std::vector<std::string>{"New: /proj", "New: /proj/a.c"}));
  EXPECT_TRUE(has(o.log, "Failed")) << o.log;
  EXPECT_TRUE(has(o.log, "Cancelled:               TRUE")) << o.log;
  EXPECT_EQ(shown(kRoot, "a.c"), "11");
  EXPECT_EQ(db_view_gn(), 0u);
  EXPECT_EQ(Tavrel_View::get_current_gn(), 0u);
}

TEST_F(UpdateTest, ADirectoryInTwoLoadRulesFails) {
  ASSERT_EQ(Tavrel_View_db::add_lr_scope(kRule2, 1, "/proj/src"), 0);
  Stream s(5, replica);
  s.scope("/proj", kRule, 5).put(kRoot).put(kSrc).end_scope();
  s.scope("/proj/src", kRule2, 5).put(kSrc).put(kB).end_scope();
  script(s.done());
  Outcome o = update("");
  EXPECT_TRUE(has(o.log, "Directory element \"/proj/src\" is loaded by at least two different load rules."))
      << o.log;
  EXPECT_EQ(actions(o.log).back(), "Error: \"Directory");
  EXPECT_TRUE(has(o.log, "ErrorStatus:             20001")) << o.log;
  EXPECT_EQ(shown(kSrc, "b.c"), "-");  // nothing after the refusal
  EXPECT_EQ(db_view_gn(), 0u);
}

// A load rule whose path its SILO says is gone is deleted at the end of the update; one whose SILO is not
// mounted (nothing said about it) stays.
TEST_F(UpdateTest, ALoadRuleItsSiloSaysIsGoneIsDeletedAtTheEnd) {
  first_load();
  mount_proj();
  for (const char* rpc : {n::RPC_LOOKUP, n::RPC_GET_METADATA})
    server->on_rpc(rpc, [](const wan_test::Recorded&, httplib::Response& res) {
      res.set_content(wan_test::make_doc([](n::ReplyWriter& w) { w.status(TBS_ST_NOT_FOUND); }), "multipart/mixed");
    });
  ASSERT_EQ(Tavrel_View_db::add_lr_scope(tavrel_load_scope_oid("/proj/gone"), 5, "/proj/gone"), 0);
  ASSERT_EQ(Tavrel_View_db::add_lr_scope(tavrel_load_scope_oid("/nosuch/x"), 5, "/nosuch/x"), 0);
  Stream s(6, replica);
  s.scope("/proj", kRule, 6).end_scope();
  script(s.done());
  Outcome o = update("");
  EXPECT_TRUE(has(o.log, "Succeeded")) << o.log;
  std::vector<tavrel_scope> scopes;
  ASSERT_EQ(Tavrel_View_db::get_scopes(Tavrel_View_db::ALL_SCOPES, scopes), 0);
  std::vector<std::string> names;
  for (const tavrel_scope& sc : scopes) names.push_back(sc.name);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"/nosuch/x", "/proj", "Automatic"}));
  EXPECT_EQ(db_view_gn(), 6u);
}

TEST_F(UpdateTest, ASecondUpdateWhileOneRunsIsRefused) {
  std::promise<void> go;
  std::shared_future<void> released = go.get_future().share();
  gate = [released](httplib::Response& res, const std::string& d) {
    released.wait_for(std::chrono::seconds(30));
    wan_test::serve_chunked(res, d, 1 << 20);
  };
  Stream s(5, replica);
  s.scope("/proj", kRule, 5).put(kRoot).put(kA).end_scope();
  script(s.done());
  std::future<Outcome> first = std::async(std::launch::async, [this] { return update(""); });
  wait_until([this] { return server->count(n::RPC_SYNCFETCH) == 1; });
  ASSERT_TRUE(Tavrel_View::update_in_progress());
  Outcome second = update("");
  go.set_value();
  EXPECT_EQ(second.status, TAVREL_ST_UPDATE_IN_PROGRESS);
  EXPECT_EQ(second.message, "A view update operation is already in progress.\n");
  EXPECT_EQ(second.response.find("log-file"), std::string::npos);
  Outcome o = first.get();
  EXPECT_EQ(o.status, 0);
  EXPECT_TRUE(has(o.log, "Succeeded")) << o.log;
  EXPECT_EQ(db_view_gn(), 5u);
  EXPECT_EQ(server->count(n::RPC_SYNCFETCH), 1u);
  EXPECT_EQ(update_logs().size(), 1u);  // the refused request left none
}

// A failed update keeps the view GN; the resumed one sends that GN again with Resume and each scope's
// own GN, and completes the view.
TEST_F(UpdateTest, ResumeSendsTheScopeGnsAndCompletes) {
  const Obj orphan{"/proj/lost/x.c", FILE_, 70, 71, 77};  // its parent is not in the view
  Stream bad(5, replica);
  bad.scope("/proj", kRule, 5).put(kRoot).put(kA).put(orphan).put(kSrc).end_scope();
  script(bad.done());
  Outcome failed = update("");
  EXPECT_TRUE(has(failed.log, "Status:                  Failed")) << failed.log;
  EXPECT_TRUE(has(failed.log, "Error:")) << failed.log;
  EXPECT_EQ(shown(kRoot, "a.c"), "11");  // applied before the failure, and kept
  EXPECT_EQ(db_view_gn(), 0u);

  std::vector<tavrel_scope> scopes;
  ASSERT_EQ(Tavrel_View_db::get_scopes(Tavrel_View_db::ALL_SCOPES, scopes), 0);
  std::vector<std::string> want;
  for (const auto& sc : scopes) want.push_back(std::string(sc.name) + "@" + std::to_string(sc.gn));
  ASSERT_EQ(want.size(), 2u);
  Stream good(6, replica);
  good.scope("/proj", kRule, 6).put(kRoot).put(kA).put(kSrc).put(kB).end_scope();
  script(good.done());
  Outcome o = update("resume=\"true\"");
  ASSERT_EQ(o.status, 0) << o.message;
  EXPECT_TRUE(has(o.log, "Resume:                  TRUE")) << o.log;
  EXPECT_TRUE(has(o.log, "Succeeded")) << o.log;
  EXPECT_EQ(db_view_gn(), 6u);
  EXPECT_EQ(shown(kSrc, "b.c"), "31");

  EXPECT_EQ(sent(1, n::ARG_RESUME), std::vector<std::string>{"1"});
  EXPECT_EQ(sent(1, n::ARG_VIEW_GN), std::vector<std::string>{"0"});
  const std::vector<std::string> paths = sent(1, n::ARG_SCOPE_PATH), gns = sent(1, n::ARG_SCOPE_GN);
  ASSERT_EQ(paths.size(), gns.size());
  std::vector<std::string> scopes_sent;
  for (size_t i = 0; i < paths.size(); i++) scopes_sent.push_back(paths[i] + "@" + gns[i]);
  EXPECT_EQ(scopes_sent, want);
  EXPECT_NE(std::find(want.begin(), want.end(), "/proj@5"), want.end());  // the failed update's scope GN
}

// Requests refused before anything starts: no stream asked for, no log, the gate free.
TEST_F(UpdateTest, RefusedBeforeAnythingStarts) {
  struct Case {
    const char* inner;
    bool online;
    int status;
    const char* text;
  } cases[] = {
      {"<update-flags surgical=\"true\"/>", true, TAVREL_ST_MALFORMED, "Parse error"},
      {"<update-flags surgical=\"true\"/><update-paths/>", true, TAVREL_ST_MALFORMED, "Parse error"},
      {"<update-flags hijack-treatment=\"bogus\"/>", true, TAVREL_ST_MALFORMED, "Illegal hijack treatment flag: bogus"},
      {"<flags/>", true, TAVREL_ST_MALFORMED, "Parse error"},
      {"<update-flags/>", false, TAVREL_ST_DISCONNECTED, "Client is disconnected from the server.\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.inner);
    tavrel_set_online(c.online);
    Outcome o = request(c.inner);
    EXPECT_EQ(o.status, c.status);
    EXPECT_TRUE(has(o.message, c.text)) << o.message;
    EXPECT_FALSE(Tavrel_View::update_in_progress());
  }
  tavrel_set_online(true);
  EXPECT_EQ(server->count(n::RPC_SYNCFETCH), 0u);
  EXPECT_EQ(update_logs().size(), 0u);
}

}  // namespace
