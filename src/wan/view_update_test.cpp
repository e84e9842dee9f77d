// The view update stream: its request, and its reply parsed as libcurl delivers it (split at every
// byte, cut at every byte, broken in each way a part can break), the listener's refusals and
// exceptions, the bound on memory, and the same over a real transfer.
#include "wan/view_update.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "proto/proto_test_util.h"
#include "proto/wan_names.h"
#include "wan/rclient_exceptions.h"
#include "wan/rpc_cmd_test_util.h"

using namespace wan_test;
using proto_test::oid_n;
using proto_test::uuid_n;
namespace n = tavrel_wan;
using Events = std::vector<std::string>;

namespace {

// Records every event as a line; refuses at event `refuse_at`, or throws at `throw_at`.
struct Recorder : RClient_Update_Listener {
  Events events;
  size_t refuse_at = SIZE_MAX, throw_at = SIZE_MAX;
  bool throw_std = false;
  bool note(std::string e) {
    events.push_back(std::move(e));
    size_t i = events.size() - 1;
    if (i == throw_at) {
      if (throw_std) throw std::runtime_error("listener broke");
      throw RClient_Listener_Exception(77);
    }
    return i != refuse_at;
  }
  bool begin_operation(unsigned gn) override { return note("begin_operation " + std::to_string(gn)); }
  bool begin_scope(const tavrel_scope& s) override {
    return note("begin_scope " + std::string(s.name) + " " + std::to_string(s.gn));
  }
  bool begin_silo(const tbs_uuid_s& r, const tbs_oid_s& f) override {
    return note("begin_silo " + tbs_uuid_to_str(r) + " " + tbs_oid_to_str(f));
  }
  bool update_object(const tbs_uuid_s&, const tbs_oid_s& parent, const std::string& path, const std::string& prev,
                     const std::string& curr, const tavrel_vstat& obj, const tavrel_vstat& elem) override {
    return note("update " + path + " " + prev + ">" + curr + " " + std::to_string(obj.vstat.mtype) + "/" +
                std::to_string(elem.vstat.mtype) + (tbs_oid_is_null(parent) ? " root" : ""));
  }
  bool unload_object(const tbs_uuid_s&, const tbs_oid_s&, const std::string& path, const tbs_oid_s& oid) override {
    return note("unload " + path + " " + tbs_oid_to_str(oid).substr(0, 8));
  }
  bool end_scope() override { return note("end_scope"); }
  bool end_silo() override { return note("end_silo"); }
  bool end_operation() override { return note("end_operation"); }
};

// The command driven without a transfer, as libcurl would drive it.
struct Fed_Update : View_Update {
  explicit Fed_Update(RClient_Update_Listener* l) : View_Update(uuid_n(1), 3, 0, 1, 0, {}, l) {}
  bool done = false;
  bool transfer_executed() const override { return done; }
  // Feeds the blocks until the command stops the transfer; then the result run() would give.
  int drive(const std::vector<std::string>& blocks) {
    for (std::string b : blocks) {
      int rc = process_response(b.data(), static_cast<unsigned>(b.size()));
      if (rc != 0) return rc == RCLIENT_ST_LISTENER && reply_error() ? reply_error() : rc;
    }
    done = true;
    return receive();
  }
};

std::string sei(const std::string& path, const std::string& prev, const std::string& curr, bool root = false) {
  tavrel_synceleminfo_t e{{}, root ? TBS_OID_NULL : oid_n(3), uuid_n(4), oid_n(6), {}, {}};
  snprintf(e.object_path, sizeof e.object_path, "%s", path.c_str());
  snprintf(e.prev_version_str, sizeof e.prev_version_str, "%s", prev.c_str());
  snprintf(e.curr_version_str, sizeof e.curr_version_str, "%s", curr.c_str());
  std::string out;
  EXPECT_EQ(tavrel_synceleminfo_encode(&e, &out), 0);
  return out;
}
std::string vstat(silo_mtype_t mtype) {
  tavrel_vstat v{proto_test::sample_vstat(), 0, {}};
  v.vstat.mtype = mtype;
  std::string out;
  EXPECT_EQ(tavrel_vstat_encode(&v, &out), 0);
  return out;
}
std::string scope_rec(const std::string& name, unsigned gn) {
  tavrel_scope s{oid_n(5), {}, gn, {}};
  snprintf(s.name, sizeof s.name, "%s", name.c_str());
  std::string out;
  EXPECT_EQ(tavrel_scope_encode(&s, &out), 0);
  return out;
}
const std::string kReplica = tbs_uuid_to_str(uuid_n(9)), kFamily = tbs_oid_to_str(oid_n(8));
void elem(n::ReplyWriter& w, const std::string& path, const std::string& prev, const std::string& curr,
          silo_mtype_t obj, silo_mtype_t el, bool root = false) {
  w.part(n::PART_SYNC_ELEM_INFO, sei(path, prev, curr, root));
  w.part(n::PART_OBJ_METADATA, vstat(obj));
  w.part(n::PART_ELEM_METADATA, vstat(el));
}

// One silo with an unload, a scope with a root, a file whose path has backslashes and a blank, a
// symbolic link, an element without metadata (never delivered), an unknown part, a stray metadata part.
std::string sample_stream(int32_t code = 0, const std::string& msg = "") {
  return make_doc([&](n::ReplyWriter& w) {
    w.part(n::PART_SYNC_FETCH_BEGIN, {{n::ITEM_OPERATION_GN, "7"}}, "");
    w.part(n::PART_SILO_FETCH_BEGIN, {{n::ITEM_REPLICA_UUID, kReplica}, {n::ITEM_FAMILY_OID, kFamily}}, "");
    w.part(n::PART_SYNC_ELEM_INFO, sei("/proj/old.c", "main/4", ""));
    w.part(n::PART_OBJ_METADATA, vstat(6));  // follows an unload: ignored
    w.part(n::PART_SCOPE_FETCH_BEGIN, scope_rec("Automatic", 7));
    elem(w, "/proj", "", "main/3", 3, 2, true);
    elem(w, "\\proj\\src\\a b.c", "main/1", "main/2", 6, 5);
    w.part(n::PART_SYNC_ELEM_INFO, sei("/proj/nometa", "", "main/1"));
    elem(w, "/proj/link", "", "main/0", 7, 7);
    w.part("Extension", {{"X", "y"}}, std::string(300, '\xff'));
    w.part(n::PART_SCOPE_FETCH_END, "");
    w.part(n::PART_SILO_FETCH_END, "");
    w.part(n::PART_SYNC_FETCH_END, "");
    w.status(code, msg);
  });
}
const Events kSampleEvents = {
    "begin_operation 7", "begin_silo " + kReplica + " " + kFamily, "unload /proj/old.c 06070809",
    "begin_scope Automatic 7", "update /proj >main/3 3/2 root", "update /proj/src/a b.c main/1>main/2 6/5",
    "update /proj/link >main/0 7/7", "end_scope", "end_silo", "end_operation"};

std::vector<std::string> blocks_of(const std::string& s, size_t n) {
  std::vector<std::string> out;
  for (size_t i = 0; i < s.size(); i += n) out.push_back(s.substr(i, n));
  return out;
}

TEST(ViewUpdateStream, EverySplitDeliversTheSameEventsOnce) {
  const std::string doc = sample_stream(5, "partly");
  for (size_t block : {doc.size(), size_t(1), size_t(7), size_t(1000)}) {
    Recorder r;
    Fed_Update cmd(&r);
    ASSERT_EQ(cmd.drive(blocks_of(doc, block)), 0) << block;
    EXPECT_EQ(r.events, kSampleEvents) << block;
    EXPECT_EQ(cmd.get_status_code(), 5);
    EXPECT_EQ(cmd.get_status_message(), "partly");
  }
  for (size_t cut = 1; cut < doc.size(); ++cut) {
    Recorder r;
    Fed_Update cmd(&r);
    ASSERT_EQ(cmd.drive({doc.substr(0, cut), doc.substr(cut)}), 0) << cut;
    ASSERT_EQ(r.events, kSampleEvents) << cut;
  }
}

TEST(ViewUpdateStream, EveryTruncationIsPrematureAndDeliversOnlyWholeParts) {
  const std::string doc = sample_stream();
  size_t before = 0;
  for (size_t cut = 0; cut < doc.size(); ++cut) {
    Recorder r;
    Fed_Update cmd(&r);
    ASSERT_EQ(cmd.drive(blocks_of(doc.substr(0, cut), 64)), RCLIENT_ST_PREMATURE_EOF) << cut;
    ASSERT_LE(r.events.size(), kSampleEvents.size());
    ASSERT_EQ(r.events, Events(kSampleEvents.begin(), kSampleEvents.begin() + r.events.size())) << cut;
    ASSERT_GE(r.events.size(), before) << cut;  // more bytes never take an event back
    before = r.events.size();
  }
  EXPECT_EQ(before, kSampleEvents.size());  // the metadata at the end is delivered by the Status part
}

TEST(ViewUpdateStream, CorruptPartsStopWithTheirStatusAndNothingAfter) {
  const std::string B = "--" + std::string(n::DEFAULT_BOUNDARY), rep = kReplica;
  struct Case {
    const char* id;
    n::ReplyItems items;
    std::string body;
    int status;
  } cases[] = {
      {n::PART_SYNC_FETCH_BEGIN, {}, "", RCLIENT_ST_MALFORMED_ITEM},
      {n::PART_SYNC_FETCH_BEGIN, {{n::ITEM_OPERATION_GN, "-1"}}, "", RCLIENT_ST_MALFORMED_ITEM},
      {n::PART_SILO_FETCH_BEGIN, {{n::ITEM_FAMILY_OID, kFamily}}, "", RCLIENT_ST_MALFORMED_ITEM},
      {n::PART_SILO_FETCH_BEGIN, {{n::ITEM_REPLICA_UUID, rep}, {n::ITEM_FAMILY_OID, "zz"}}, "", RCLIENT_ST_MALFORMED_ITEM},
      {n::PART_SYNC_ELEM_INFO, {}, "garbage!", TBS_ST_FAILURE},
      {n::PART_SCOPE_FETCH_BEGIN, {}, "x", TBS_ST_FAILURE},
      {n::PART_OBJ_METADATA, {}, "1234", TBS_ST_FAILURE},  // after a loaded element
      {"Big", {}, std::string(View_Update::MAX_PART + 1, 'b'), RCLIENT_ST_NO_MEMORY},
      {nullptr, {}, B + "\rx\r\n", RCLIENT_ST_FORMAT},  // raw bytes: a lone CR, no boundary, a bad length
      {nullptr, {}, "hello\r\n", RCLIENT_ST_FORMAT},
      {nullptr, {}, B + "\r\nContent-Length: x\r\n\r\n", RCLIENT_ST_FORMAT},
  };
  for (const Case& c : cases) {
    const std::string doc = make_doc([&](n::ReplyWriter& w) {
      w.part(n::PART_SYNC_FETCH_END, "");  // one event before the fault
      if (c.id && std::string(c.id) == n::PART_OBJ_METADATA) w.part(n::PART_SYNC_ELEM_INFO, sei("/p/a", "", "main/1"));
      if (c.id) w.part(c.id, c.items, c.body);
      else w.body_piece(c.body.data(), c.body.size());
      w.part(n::PART_SYNC_ELEM_INFO, sei("/p/after", "", ""));  // never delivered
      w.part(n::PART_SYNC_FETCH_END, "");
      w.status(0);
    });
    for (size_t block : {doc.size(), size_t(1)}) {
      Recorder r;
      Fed_Update cmd(&r);
      EXPECT_EQ(cmd.drive(blocks_of(doc, block)), c.status) << c.body << " " << block;
      EXPECT_EQ(r.events, Events{"end_operation"}) << c.body << " " << block;
    }
  }
}

TEST(ViewUpdateStream, RefusalDrainsTheRestAndKeepsTheVerdict) {
  const std::string doc = sample_stream(1002, "gone");
  for (size_t k = 0; k < kSampleEvents.size(); ++k) {
    Recorder r;
    r.refuse_at = k;
    Fed_Update cmd(&r);
    ASSERT_EQ(cmd.drive(blocks_of(doc, 5)), 0) << k;
    EXPECT_EQ(r.events, Events(kSampleEvents.begin(), kSampleEvents.begin() + k + 1)) << k;
    EXPECT_TRUE(cmd.listener_refused());
    EXPECT_EQ(cmd.get_status_code(), 1002);
    EXPECT_EQ(cmd.get_status_message(), "gone");
  }
}

TEST(ViewUpdateStream, ThrowingListenerStopsAtOnce) {
  const std::string doc = sample_stream();
  for (bool std_exception : {false, true})
    for (size_t k = 0; k < kSampleEvents.size(); ++k) {
      Recorder r;
      r.throw_at = k;
      r.throw_std = std_exception;
      Fed_Update cmd(&r);
      ASSERT_EQ(cmd.drive(blocks_of(doc, 3)), RCLIENT_ST_LISTENER) << k;
      EXPECT_EQ(r.events.size(), k + 1);
      EXPECT_EQ(cmd.listener_exception_code(), std_exception ? RCLIENT_ST_LISTENER : 77);
      EXPECT_EQ(cmd.get_status_code(), -1);  // the verdict was never read
    }
}

// A stream of `count` loaded files in one scope.
std::string long_stream(size_t count) {
  return make_doc([&](n::ReplyWriter& w) {
    w.part(n::PART_SYNC_FETCH_BEGIN, {{n::ITEM_OPERATION_GN, "9"}}, "");
    w.part(n::PART_SCOPE_FETCH_BEGIN, scope_rec("/proj", 9));
    const std::string o = vstat(6), e = vstat(5);
    for (size_t i = 0; i < count; ++i) {
      w.part(n::PART_SYNC_ELEM_INFO, sei("/proj/f" + std::to_string(i), "", "main/1"));
      w.part(n::PART_OBJ_METADATA, o);
      w.part(n::PART_ELEM_METADATA, e);
    }
    w.part(n::PART_SCOPE_FETCH_END, "");
    w.part(n::PART_SYNC_FETCH_END, "");
    w.status(0);
  });
}

TEST(ViewUpdateStream, MemoryStaysBoundedForALongStream) {
  Recorder r;
  Fed_Update cmd(&r);
  ASSERT_EQ(cmd.drive(blocks_of(long_stream(20000), 16384)), 0);
  EXPECT_EQ(r.events.size(), 20004u);
  EXPECT_EQ(r.events[20001], "update /proj/f19999 >main/1 6/5");
  EXPECT_LT(cmd.peak_response_buffer(), 16384u + 4096u);  // one block and one part's tail
}

class ViewUpdateRpc : public ScriptedServerTest {};

TEST_F(ViewUpdateRpc, SendsItsArgumentsAndRefusesANullView) {
  answer(n::RPC_SYNCFETCH, sample_stream());
  tavrel_scope s{oid_n(5), {}, 4, "/proj/src"};
  Recorder r;
  View_Update by_scope(uuid_n(1), 12, 1, 1, 0, {s}, &r);
  ASSERT_EQ(by_scope.run(), 0);
  EXPECT_EQ(r.events, kSampleEvents);
  View_Update by_path(uuid_n(1), 12, {"/proj/a", "/proj/b\nc"}, nullptr);
  ASSERT_EQ(by_path.run(), 0);
  auto reqs = server->requests();
  ASSERT_EQ(reqs.size(), 3u);  // the login and the two updates
  const std::string head = "ViewUuid=" + tbs_uuid_to_str(uuid_n(1)) + "\nViewGn=12\n";
  EXPECT_EQ(reqs[1].rpcargs, head + "Force=1\nResume=0\nUpdateOndemandScopes=1\nUsePaths=0\nNumScopes=1\n"
                                    "ScopePath=/proj/src\nScopeOid=" + tbs_oid_to_str(oid_n(5)) + "\nScopeGn=4\n");
  EXPECT_EQ(reqs[2].rpcargs, head + "Force=0\nResume=0\nUpdateOndemandScopes=0\nUsePaths=1\nNumScopes=2\n"
                                    "ScopePath=/proj/a\nScopePath=/proj/b%0A/proj/b\nc\n");
  View_Update null_view(TBS_UUID_NULL, 1, {"/p"}, nullptr);
  EXPECT_EQ(null_view.run(), RCLIENT_ST_MARSHAL);
  EXPECT_EQ(null_view.get_status_code(), RCLIENT_ST_MARSHAL);
  EXPECT_EQ(server->requests().size(), 3u);
}

TEST_F(ViewUpdateRpc, ThrowingListenerAndCorruptReplyCutTheTransfer) {
  for (bool corrupt : {false, true}) {
    std::string doc = long_stream(20000);
    if (corrupt) doc.replace(doc.find("Content-ID: ScopeFetchBegin"), 27, "Content-ID: SyncElemInfo   ");
    auto served = answer(n::RPC_SYNCFETCH, doc, 4096);
    Recorder r;
    r.throw_at = corrupt ? SIZE_MAX : 2;
    View_Update cmd(uuid_n(1), 1, 0, 1, 0, {}, &r);
    EXPECT_EQ(cmd.run(), corrupt ? int(TBS_ST_FAILURE) : int(RCLIENT_ST_LISTENER));
    EXPECT_EQ(r.events.size(), corrupt ? 1u : 3u);
    EXPECT_TRUE(served->wait_cut_short()) << corrupt;
  }
}

}  // namespace
