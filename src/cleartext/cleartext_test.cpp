// The cleartext cache against a scripted WAN server: the cache layout, merged fetches (one GET for
// concurrent callers, a queued background fetch promoted by a foreground caller), failures that leave
// nothing in the cache, offline answers, adoption, and the rename race.
#include "cleartext/tavrel_cleartext.h"

#include <httplib.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "cleartext/tavrel_bg_cleartext_listener.h"
#include "cleartext/tavrel_cleartext_sb_req.h"
#include "core/tavrel_online.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_view.h"
#include "fs/tavrel_kfsm_abstract_op.h"
#include "fs/tavrel_metadata.h"
#include "proto/reply_writer.h"
#include "proto/view_records.h"
#include "proto/view_rpc.h"
#include "proto/xdr_record.h"
#include "proto/tavrel_status.h"
#include "proto/wan_names.h"
#include "wan/wan_test_fixture.h"

namespace {

namespace fs = std::filesystem;
namespace n = tavrel_wan;

const char* const kReplica = "fedcba98-7654-3210-fedc-ba9876543210";
const char* const kOid = "01234567-89ab-cdef-0123-456789abcdef";  // hash32 0x71819825: levels d and 8
const char* const kOid2 = "ffffffff-0000-1111-2222-333333333333";  // hash32 0x26401c59: levels 36 and 23

Tavrel_View* g_view = nullptr;
Tavrel_View* view_source() { return g_view; }

tbs_uuid_s uuid_of(const char* text) {
  tbs_uuid_s u{};
  EXPECT_EQ(tbs_str_to_uuid(text, &u), 0);
  return u;
}
tbs_oid_s oid_of(const char* text) {
  tbs_oid_s o{};
  EXPECT_EQ(tbs_str_to_oid(text, &o), 0);
  return o;
}

std::string cltxt_doc(const std::string& body) {
  n::ReplyWriter w;
  w.begin();
  w.part(n::PART_SYNC_ELEM_DATA, body);
  w.status(0);
  w.end();
  return w.take();
}

struct Listener : Tavrel_BG_Cleartext_listener {
  explicit Listener(std::atomic<int>* log) : log(log) {}
  ~Listener() override { *log += 100; }
  void completed() override { *log += 1; }
  void failed(int, std::string) override { *log += 10; }
  std::atomic<int>* log;
};

class Cleartext : public wan_test::WanTest {
 protected:
  void SetUp() override {
    WanTest::SetUp();
    root = home->path() + "/cache";
    fs::create_directories(root);
    view = std::make_unique<Tavrel_View>("0d0d0d0d-0000-4000-8000-00000000000d", "/v", "unix", "", root,
                                         home->path() + "/storage", 0);
    g_view = view.get();
    Tavrel_Metadata::set_view_source(view_source);
    tavrel_set_online(true);
    server.add_user("u", "p");
    server.on_get("/tavrel/cltxt/", [this](const wan_test::Recorded& r, httplib::Response& res) {
      gets++;
      paths.push_back(r.path);
      if (hold) hold();
      res.set_content(reply, "multipart/mixed");
    });
    ASSERT_EQ(login(server.base_url(), "u", "p"), 0);
  }
  void TearDown() override {
    Tavrel_Thread_Manager_Base::get_instance()->drain_incomplete();
    tavrel_set_online(false);
    Tavrel_Metadata::set_view_source(nullptr);
    g_view = nullptr;
    WanTest::TearDown();
  }
  Tavrel_Cleartext make(const char* oid = kOid, Tavrel_BG_Cleartext_listener* l = nullptr) {
    return Tavrel_Cleartext(uuid_of(kReplica), 7, oid_of(oid), root, l);
  }
  // Every file below the cache root, relative to it.
  std::vector<std::string> files() {
    std::vector<std::string> out;
    for (auto& e : fs::recursive_directory_iterator(root))
      if (!e.is_directory()) out.push_back(fs::relative(e.path(), root).string());
    return out;
  }
  // The cache path of a version.
  std::string leaf(const char* oid = kOid) {
    Tavrel_Cleartext c = make(oid);
    int present = 0;
    EXPECT_EQ(c.check_cache(present), 0);
    return c.get_cache_path();
  }

  wan_test::Test_Wan_Server server;
  std::unique_ptr<Tavrel_View> view;
  std::string root;
  std::string reply = cltxt_doc("hello, world\n");
  std::function<void()> hold;
  std::atomic<int> gets{0};
  std::vector<std::string> paths;
};

TEST_F(Cleartext, LayoutOfTheCacheAndTheFetchedFile) {
  const std::string dir = std::string(".c/") + kReplica;
  for (auto [oid, rel] : {std::pair<const char*, std::string>{kOid, dir + "/d/8/" + kOid + "-unix"},
                          {kOid2, dir + "/36/23/" + kOid2 + "-unix"}}) {
    Tavrel_Cleartext c = make(oid);
    int present = -1;
    ASSERT_EQ(c.getcleartext(present), 0) << c.get_message();
    EXPECT_EQ(present, 1);
    EXPECT_EQ(c.get_cltxt_relpath(), rel);
    EXPECT_EQ(c.get_cache_path(), root + "/" + rel);
    EXPECT_EQ(wan_test::read_file(c.get_cache_path()), "hello, world\n");
    struct stat st;
    ASSERT_EQ(stat(c.get_cache_path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0400u);
    EXPECT_EQ(paths.back(), std::string("/tavrel/cltxt/") + kReplica + "/" + oid + "/unix");
  }
  EXPECT_EQ(files().size(), 2u);  // no temporary left
  // A trailing slash of the root changes nothing; a cached version is not asked for again.
  Tavrel_Cleartext again(uuid_of(kReplica), 7, oid_of(kOid), root + "/");
  int present = 0;
  EXPECT_EQ(again.getcleartext(present), 0);
  EXPECT_EQ(present, 1);
  EXPECT_EQ(again.get_cltxt_relpath(), dir + "/d/8/" + kOid + "-unix");
  EXPECT_EQ(gets.load(), 2);
}

TEST_F(Cleartext, ConcurrentFetchesOfOneVersionMakeOneGet) {
  // Enough callers that the busiest scoreboard so far is outdone only when all of them are merged: the
  // server answers once every caller but the first is linked to the first one's fetch.
  const uint32_t n = std::max<uint32_t>(2, Tavrel_Cleartext_Scoreboard::stats().max_refcnt + 1);
  std::mutex m;
  std::condition_variable cv;
  bool dropped_checked = false;
  std::atomic<int> dropped{0};
  hold = [&] {
    // While the fetch runs, a background request for the same version is dropped with its listener.
    Tavrel_Cleartext bg = make(kOid, new Listener(&dropped));
    int present = -1;
    EXPECT_EQ(bg.getcleartext(present), 0);
    EXPECT_EQ(present, 0);
    EXPECT_EQ(dropped.load(), 100);  // deleted, neither completed nor failed
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (Tavrel_Cleartext_Scoreboard::stats().max_refcnt < n && std::chrono::steady_clock::now() < deadline)
      std::this_thread::yield();
    std::lock_guard<std::mutex> g(m);
    dropped_checked = true;
    cv.notify_all();
  };
  std::vector<std::thread> threads;
  std::vector<int> status(n, -1), present(n, -1);
  for (uint32_t i = 0; i < n; i++)
    threads.emplace_back([&, i] {
      Tavrel_Cleartext c = make();
      status[i] = c.getcleartext(present[i]);
    });
  for (auto& t : threads) t.join();
  EXPECT_TRUE(dropped_checked);
  EXPECT_EQ(gets.load(), 1);
  for (uint32_t i = 0; i < n; i++) {
    EXPECT_EQ(status[i], 0) << i;
    EXPECT_EQ(present[i], 1) << i;
  }
  EXPECT_EQ(wan_test::read_file(leaf()), "hello, world\n");
  EXPECT_EQ(Tavrel_Cleartext_Scoreboard::stats().registered, 0u);
}

TEST_F(Cleartext, AForegroundCallerPromotesTheQueuedBackgroundFetchAndWaitsForIt) {
  Tavrel_Thread_Manager_Base* tm = Tavrel_Thread_Manager_Base::get_instance();
  std::atomic<int> events{0};
  {
    Tavrel_Cleartext bg = make(kOid, new Listener(&events));
    int present = -1;
    ASSERT_EQ(bg.getcleartext(present), 0);
    EXPECT_EQ(present, 0);
    EXPECT_EQ(bg.get_listener(), nullptr);  // the queued fetch took it
  }
  ASSERT_EQ(tm->counters().bg_queued, 1u);
  int status = -1, present = -1;
  std::thread fg([&] {
    Tavrel_Cleartext c = make();
    status = c.getcleartext(present);
  });
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (tm->counters().fg_queued == 0 && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  EXPECT_EQ(tm->counters().bg_queued, 0u);
  Tavrel_Request* promoted = tm->pop_request(false);
  ASSERT_NE(promoted, nullptr);
  EXPECT_EQ(promoted->toString(), "background cleartext");
  EXPECT_EQ(promoted->handle_request(), 0);
  delete promoted;
  fg.join();
  EXPECT_EQ(status, 0);
  EXPECT_EQ(present, 1);
  EXPECT_EQ(events.load(), 101);  // completed, then deleted with the fetch
  EXPECT_EQ(gets.load(), 1);
}

TEST_F(Cleartext, AFailedFetchLeavesNothingInTheCache) {
  const std::string body(256 * 1024, 'x');
  struct Case {
    const char* name;
    std::string reply;
    bool limit_file_size;  // writing the file fails (EFBIG)
    int status;
    const char* text;
  };
  n::ReplyWriter cut_after, cut_inside;
  cut_after.begin();
  cut_after.part(n::PART_SYNC_ELEM_DATA, body);  // no Status, no end line
  cut_inside.begin();
  cut_inside.part_header(n::PART_SYNC_ELEM_DATA, {}, body.size());
  cut_inside.body_piece(body.data(), body.size() / 2);
  const std::string refused = n::reply_status_only(TBS_ST_NOT_FOUND, "no such version");
  Case cases[] = {
      {"write error", cltxt_doc(body), true, TAVREL_ST_FAILURE, "I/O error saving cleartext"},
      {"reply cut after the data", cut_after.take(), false, TAVREL_ST_WAN_CALL, "Error fetching cleartext for"},
      {"reply cut inside the data", cut_inside.take(), false, TAVREL_ST_WAN_CALL, "Error fetching cleartext for"},
      {"version refused", refused, false, TAVREL_ST_WAN_CALL_2, "Error fetching cleartext for"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    reply = c.reply;
    struct rlimit old;
    getrlimit(RLIMIT_FSIZE, &old);
    auto old_handler = std::signal(SIGXFSZ, SIG_IGN);
    if (c.limit_file_size) {
      struct rlimit small = old;
      small.rlim_cur = 64 * 1024;
      ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    }
    Tavrel_Cleartext t = make();
    int present = -1;
    const int st = t.getcleartext(present);
    setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, old_handler);
    EXPECT_EQ(st, c.status);
    EXPECT_EQ(present, 0);
    EXPECT_NE(t.get_message().find(c.text), std::string::npos) << t.get_message();
    EXPECT_EQ(files(), std::vector<std::string>{});
  }
  EXPECT_EQ(gets.load(), 4);
}

TEST_F(Cleartext, OfflineACachedVersionIsServedAndAnUncachedOneFailsAtOnce) {
  Tavrel_Cleartext first = make();
  int present = 0;
  ASSERT_EQ(first.getcleartext(present), 0);
  tavrel_set_online(false);
  Tavrel_Cleartext cached = make();
  EXPECT_EQ(cached.getcleartext(present), 0);
  EXPECT_EQ(present, 1);
  Tavrel_Cleartext uncached = make(kOid2);
  present = -1;
  EXPECT_EQ(uncached.getcleartext(present), TAVREL_ST_DISCONNECTED);
  EXPECT_EQ(present, 0);
  EXPECT_EQ(uncached.get_message(), "Client is disconnected from the server.\n");
  EXPECT_EQ(gets.load(), 1);
  // Without a view nothing is known.
  g_view = nullptr;
  Tavrel_Cleartext no_view = make();
  EXPECT_EQ(no_view.getcleartext(present), TAVREL_ST_NO_VIEW_INFO);
  EXPECT_EQ(no_view.get_message(), "View information not found.");
}

TEST_F(Cleartext, AdoptCopiesAViewPrivateFileOrOnlyRemovesItWhenTheVersionIsCached) {
  const std::string priv = home->path() + "/private.c";
  std::ofstream(priv) << "int adopted;\n";
  Tavrel_Cleartext a = make();
  ASSERT_EQ(a.adopt(priv), 0) << a.get_message();
  EXPECT_EQ(wan_test::read_file(leaf()), "int adopted;\n");
  EXPECT_TRUE(fs::exists(priv));  // copied, not moved
  struct stat st;
  ASSERT_EQ(stat(leaf().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0277, 0u);
  // Cached already: the private file goes, the cached one stays as it was.
  std::ofstream(priv) << "other contents\n";
  Tavrel_Cleartext b = make();
  ASSERT_EQ(b.adopt(priv), 0) << b.get_message();
  EXPECT_FALSE(fs::exists(priv));
  EXPECT_EQ(wan_test::read_file(leaf()), "int adopted;\n");
  EXPECT_EQ(files().size(), 1u);
  EXPECT_EQ(gets.load(), 0);
}

TEST_F(Cleartext, ARenameRaceWithAnIdenticalFileIsSuccess) {
  struct Case {
    const char* name;
    std::string there;  // what another fetch put at the cache path
    mode_t mode;
    int status;
  };
  for (const Case& c : {Case{"identical", "hello, world\n", 0400, 0}, Case{"other size", "hello\n", 0400, TAVREL_ST_FAILURE},
                        Case{"writable", "hello, world\n", 0600, TAVREL_ST_FAILURE}}) {
    SCOPED_TRACE(c.name);
    fs::remove_all(root + "/.c");
    Tavrel_Cleartext t = make();
    int present = -1;
    ASSERT_EQ(t.check_cache(present), 0);
    ASSERT_EQ(present, 0);
    ASSERT_EQ(t.make_cltxt_parent(), 0);
    ASSERT_EQ(t.gen_tmp_path(), 0);
    std::ofstream(t.get_tmp_path()) << "hello, world\n";
    std::ofstream(t.get_cache_path()) << c.there;
    chmod(t.get_cache_path().c_str(), c.mode);
    EXPECT_EQ(t.finalize_cltxt(), c.status) << t.get_message();
    EXPECT_EQ(wan_test::read_file(t.get_cache_path()), c.there);  // never replaced
    EXPECT_EQ(files().size(), 1u);                                 // the temporary is gone
    if (c.status != 0) {
      EXPECT_NE(t.get_message().find("already exists"), std::string::npos) << t.get_message();
    }
  }
}

// The view-protocol operation answers with its reply record twice, one copy behind the other, each
// with the request's xid; a handle the name service does not know is no cleartext.
TEST(CleartextOp, TheReplyStandsTwiceWithTheRequestsXid) {
  view_readlink_req_t req{};
  req.hdr.xid = 41;
  req.max_len = 5000;
  std::vector<char> in_bytes(VIEW_LPC_PAYLOAD), out_bytes(VIEW_LPC_PAYLOAD);
  XDR in, out;
  xdrmem_create(&in, in_bytes.data(), u_int(in_bytes.size()), XDR_ENCODE);
  ASSERT_TRUE(xdr_view_readlink_req_t(&in, &req));
  xdr_destroy(&in);
  xdrmem_create(&in, in_bytes.data(), u_int(in_bytes.size()), XDR_DECODE);
  xdrmem_create(&out, out_bytes.data(), u_int(out_bytes.size()), XDR_ENCODE);
  std::unique_ptr<Tavrel_KFSM_AbstractOp> op(
      Tavrel_KFSM_AbstractOp::create_kfsm_request_handler(VIEW_RPC_GETCLEARTEXT, &in, &out));
  ASSERT_NE(op, nullptr);
  op->process_request();
  EXPECT_EQ(op->get_rpc_status(), 0);
  const u_int used = xdr_getpos(&out);
  XDR dec;
  xdrmem_create(&dec, out_bytes.data(), used, XDR_DECODE);
  for (int copy = 0; copy < 2; copy++) {
    Xdr_Record<view_cltxt_reply_t> rep{xdr_view_cltxt_reply_t};
    ASSERT_TRUE(xdr_view_cltxt_reply_t(&dec, &rep.get())) << copy;
    EXPECT_EQ(rep->hdr.xid, 41u) << copy;
    EXPECT_NE(rep->hdr.status, 0) << copy;
    EXPECT_NE(rep->hdr.status, TBS_ST_NOT_SUPPORTED) << copy;
  }
  EXPECT_EQ(xdr_getpos(&dec), used);  // nothing behind the second copy
}

}  // namespace
