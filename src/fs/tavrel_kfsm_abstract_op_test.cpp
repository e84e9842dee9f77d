// The view-protocol frame: which class serves each RPC, what each kind of request puts in the reply
// stream and the rpc_status.
#include <rpc/xdr.h>

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <typeindex>
#include <vector>

#include "db/db_test_util.h"
#include "db/tvr_db_inode.h"
#include "db/tvr_db_silo.h"
#include "fs/tavrel_kfsm_abstract_op.h"
#include "fs/tavrel_kfsm_change_mtype.h"
#include "fs/tavrel_kfsm_change_oid.h"
#include "fs/tavrel_kfsm_create.h"
#include "fs/tavrel_kfsm_getattr.h"
#include "fs/tavrel_kfsm_getcleartext.h"
#include "fs/tavrel_kfsm_gpath.h"
#include "fs/tavrel_kfsm_invalidate.h"
#include "fs/tavrel_kfsm_link.h"
#include "fs/tavrel_kfsm_lookup.h"
#include "fs/tavrel_kfsm_mkdir.h"
#include "fs/tavrel_kfsm_readdir.h"
#include "fs/tavrel_kfsm_readdir_ext.h"
#include "fs/tavrel_kfsm_readlink.h"
#include "fs/tavrel_kfsm_remove.h"
#include "fs/tavrel_kfsm_rename.h"
#include "fs/tavrel_kfsm_revalidate.h"
#include "fs/tavrel_kfsm_rmdir.h"
#include "fs/tavrel_kfsm_root.h"
#include "fs/tavrel_kfsm_setattr.h"
#include "fs/tavrel_kfsm_symlink.h"
#include "ns/ns_cache.h"
#include "ns/ns_silo.h"
#include "proto/kfsm_records.h"
#include "proto/tavrel_status.h"

namespace {

constexpr xid_t kXid = 7;

// The encoded bytes of a request record whose header carries kXid.
template <class Req>
std::vector<char> encode_request(bool_t (*filter)(XDR*, Req*), Req req = Req{}) {
  std::vector<char> bytes(VIEW_LPC_PAYLOAD);
  req.hdr.xid = kXid;
  XDR x;
  xdrmem_create(&x, bytes.data(), u_int(bytes.size()), XDR_ENCODE);
  EXPECT_TRUE(filter(&x, &req));
  bytes.resize(xdr_getpos(&x));
  return bytes;
}

struct Served {
  bool made = false;
  int rpc_status = -1;
  int status = -1;
  std::vector<char> reply;
};

// Serves `rpc` over the request bytes through the LPC threads' dispatcher.
Served serve(int rpc, std::vector<char> req) {
  std::vector<char> rep(VIEW_LPC_PAYLOAD);
  XDR in, out;
  xdrmem_create(&in, req.data(), u_int(req.size()), XDR_DECODE);
  xdrmem_create(&out, rep.data(), u_int(rep.size()), XDR_ENCODE);
  Served s;
  std::unique_ptr<Tavrel_KFSM_AbstractOp> op(Tavrel_KFSM_AbstractOp::create_kfsm_request_handler(rpc, &in, &out));
  if (!op) return s;
  s.made = true;
  op->process_request();
  s.rpc_status = op->get_rpc_status();
  s.status = op->get_status();
  rep.resize(xdr_getpos(&out));
  s.reply = rep;
  return s;
}

// The reply headers in the reply bytes, one behind the other.
std::vector<view_hdr_reply_t> headers(const std::vector<char>& reply) {
  std::vector<char> copy = reply;
  XDR x;
  xdrmem_create(&x, copy.data(), u_int(copy.size()), XDR_DECODE);
  std::vector<view_hdr_reply_t> out;
  while (xdr_getpos(&x) < copy.size()) {
    view_hdr_reply_t h{};
    if (!xdr_view_hdr_reply_t(&x, &h)) break;
    out.push_back(h);
  }
  return out;
}

TEST(KfsmFrame, EachRpcHasItsClass) {
  const std::map<int, std::type_index> table = {
      {VIEW_RPC_NULL, typeid(Tavrel_KFSM_NULL)},
      {VIEW_RPC_READDIR, typeid(Tavrel_KFSM_Readdir)},
      {VIEW_RPC_GETCLEARTEXT, typeid(Tavrel_KFSM_Getcleartext)},
      {VIEW_RPC_READDIR_EXT, typeid(Tavrel_KFSM_Readdir_Ext)},
      {VIEW_RPC_GPATH, typeid(Tavrel_KFSM_Gpath)},
      {VIEW_RPC_INVALIDATE, typeid(Tavrel_KFSM_Invalidate)},
      {VIEW_RPC_READLINK, typeid(Tavrel_KFSM_Readlink)},
      {VIEW_RPC_ROOT, typeid(Tavrel_KFSM_Root)},
      {VIEW_RPC_REVALIDATE, typeid(Tavrel_KFSM_Revalidate)},
      {VIEW_RPC_LOOKUP, typeid(Tavrel_KFSM_Lookup)},
      {VIEW_RPC_GETATTR, typeid(Tavrel_KFSM_Getattr)},
      {VIEW_RPC_SETATTR, typeid(Tavrel_KFSM_Setattr)},
      {VIEW_RPC_CREATE, typeid(Tavrel_KFSM_Create)},
      {VIEW_RPC_REMOVE, typeid(Tavrel_KFSM_Remove)},
      {VIEW_RPC_MKDIR, typeid(Tavrel_KFSM_Mkdir)},
      {VIEW_RPC_RMDIR, typeid(Tavrel_KFSM_Rmdir)},
      {VIEW_RPC_RENAME, typeid(Tavrel_KFSM_Rename)},
      {VIEW_RPC_LINK, typeid(Tavrel_KFSM_Link)},
      {VIEW_RPC_SYMLINK, typeid(Tavrel_KFSM_Symlink)},
      {VIEW_RPC_CHANGE_MTYPE, typeid(Tavrel_KFSM_Change_Mtype)},
      {VIEW_RPC_CHANGE_OID, typeid(Tavrel_KFSM_Change_oid)},
  };
  for (int rpc = -2; rpc <= 130; ++rpc) {
    std::unique_ptr<Tavrel_KFSM_AbstractOp> op(
        Tavrel_KFSM_AbstractOp::create_kfsm_request_handler(rpc, nullptr, nullptr));
    ASSERT_TRUE(op) << rpc;
    EXPECT_EQ(op->get_rpc(), rpc);
    auto it = table.find(rpc);
    const std::type_index want = it == table.end() ? std::type_index(typeid(Tavrel_KFSM_Unsupported)) : it->second;
    EXPECT_EQ(std::type_index(typeid(*op)), want) << "rpc " << rpc;
  }
}

TEST(KfsmFrame, PingAndUnknownProceduresSendNoBody) {
  const std::vector<char> hdr = encode_request(xdr_view_null_req_t);
  struct {
    int rpc;
    std::vector<char> req;
    int rpc_status;
  } rows[] = {
      {VIEW_RPC_NULL, {}, KFSM_RPC_DONE},   // ping: nothing decoded, empty reply
      {VIEW_RPC_NULL, hdr, KFSM_RPC_DONE},  // a body on a ping is ignored
      {11, hdr, KFSM_RPC_UNKNOWN},          // a gap in the table
      {119, hdr, KFSM_RPC_UNKNOWN},         // beyond the table
      {120, hdr, KFSM_RPC_UNKNOWN},
      {-5, hdr, KFSM_RPC_UNKNOWN},
      {120, std::vector<char>(hdr.begin(), hdr.begin() + 3), KFSM_RPC_UNKNOWN},  // a torn header
  };
  for (auto& r : rows) {
    Served s = serve(r.rpc, r.req);
    ASSERT_TRUE(s.made) << r.rpc;
    EXPECT_EQ(s.rpc_status, r.rpc_status) << r.rpc;
    EXPECT_TRUE(s.reply.empty()) << r.rpc;
  }
}

TEST(KfsmFrame, UnsupportedKeepsTheAgentStatusAndMessage) {
  char req[64] = {}, rep[64];
  XDR in, out;
  xdrmem_create(&in, req, 2, XDR_DECODE);  // too short for a header
  xdrmem_create(&out, rep, sizeof rep, XDR_ENCODE);
  std::unique_ptr<Tavrel_KFSM_AbstractOp> op(Tavrel_KFSM_AbstractOp::create_kfsm_request_handler(11, &in, &out));
  ASSERT_TRUE(op);
  op->process_request();
  EXPECT_EQ(op->get_status(), TAVREL_ST_KFSM_DECODE);
  EXPECT_EQ(op->get_message(), "Error parsing KFSM request \"11\".\n");
  EXPECT_EQ(op->get_rpc_status(), KFSM_RPC_UNKNOWN);
}

// The reply record in the reply bytes.
template <class Rep>
std::unique_ptr<Xdr_Record<Rep>> decode_reply(bool_t (*filter)(XDR*, Rep*), std::vector<char> bytes) {
  auto rec = std::make_unique<Xdr_Record<Rep>>(filter);
  XDR x;
  xdrmem_create(&x, bytes.data(), u_int(bytes.size()), XDR_DECODE);
  EXPECT_TRUE(rec->code(&x));
  EXPECT_EQ(xdr_getpos(&x), bytes.size()) << "bytes behind the reply record";
  return rec;
}

TEST(KfsmFrame, AMalformedLookupIsAnsweredWithTheXidDecodedSoFar) {
  view_lookup_req_t q{};
  std::strcpy(q.name, "name");
  char residual[] = "";
  q.residual = residual;
  std::vector<char> req = encode_request(xdr_view_lookup_req_t, q);
  req.resize(req.size() - 6);  // the residual's length and part of the warp are missing
  Served s = serve(VIEW_RPC_LOOKUP, req);
  EXPECT_EQ(s.rpc_status, KFSM_RPC_DECODE);
  EXPECT_EQ(s.status, TAVREL_ST_KFSM_DECODE);
  auto rep = decode_reply(xdr_view_lookup_reply_t, s.reply);
  EXPECT_EQ((*rep)->hdr.xid, kXid);
  EXPECT_EQ((*rep)->hdr.status, TBS_ST_FAILURE);
  EXPECT_EQ((*rep)->name_state, 0u);
}

// Operations whose namespace change is not offered yet decode their own request (a torn one is
// refused as undecodable) and answer 1007 with the request's xid.
TEST(KfsmFrame, OperationsNotOfferedYetAnswer1007) {
  view_symlink_req_t link{};
  char target[] = "../t";
  link.target = target;
  std::strcpy(link.arg.name, "n");
  struct {
    int rpc;
    std::vector<char> req;
    size_t copies;
  } rows[] = {
      {VIEW_RPC_SETATTR, encode_request(xdr_view_setattr_req_t), 1},
      {VIEW_RPC_CREATE, encode_request(xdr_view_create_req_t), 1},
      {VIEW_RPC_REMOVE, encode_request(xdr_view_dir_req_t), 1},
      {VIEW_RPC_MKDIR, encode_request(xdr_view_mkdir_req_t), 1},
      {VIEW_RPC_RMDIR, encode_request(xdr_view_dir_req_t), 1},
      {VIEW_RPC_RENAME, encode_request(xdr_view_rename_req_t), 1},
      {VIEW_RPC_LINK, encode_request(xdr_view_link_req_t), 1},
      {VIEW_RPC_SYMLINK, encode_request(xdr_view_symlink_req_t, link), 1},
      {VIEW_RPC_CHANGE_MTYPE, encode_request(xdr_view_change_mtype_req_t), 1},
      {VIEW_RPC_CHANGE_OID, encode_request(xdr_view_change_oid_req_t), 1},
  };
  for (auto& r : rows) {
    Served s = serve(r.rpc, r.req);
    EXPECT_EQ(s.rpc_status, KFSM_RPC_DONE) << r.rpc;
    EXPECT_EQ(s.status, TAVREL_ST_OK) << r.rpc;
    auto h = headers(s.reply);
    ASSERT_EQ(h.size(), r.copies) << r.rpc;
    for (auto& one : h) {
      EXPECT_EQ(one.xid, kXid) << r.rpc;
      EXPECT_EQ(one.status, TBS_ST_NOT_SUPPORTED) << r.rpc;
    }
    // The same request cut short by one byte is undecodable: 1001 with the xid, rpc_status 4.
    r.req.pop_back();
    s = serve(r.rpc, r.req);
    EXPECT_EQ(s.rpc_status, KFSM_RPC_DECODE) << r.rpc;
    EXPECT_EQ(s.status, TAVREL_ST_KFSM_DECODE) << r.rpc;
    h = headers(s.reply);
    ASSERT_GE(h.size(), 1u) << r.rpc;
    EXPECT_EQ(h[0].xid, kXid) << r.rpc;
    EXPECT_EQ(h[0].status, TBS_ST_FAILURE) << r.rpc;
  }
}

// The read-only operations against the name service over a real view database: view-private objects
// in a SILO row, reached by handles as the kernel module holds them.
class KfsmOps : public dbtest::DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    ASSERT_EQ(cache_init(), 0);
    uuid_ = tbs_uuid_create();
    ASSERT_EQ(tvr_db_in_trans(1, [&] { return tvr_db_silo_create(uuid_, "host:/silo", &silo_dbid_); }), 0);
  }
  void TearDown() override {
    silo_tab_dispose_all();
    DbTest::TearDown();
  }
  // A view-private inode of `type` and `mode` (a link gets `text`); its handle.
  view_fhandle_t inode(uint32_t type, uint32_t mode, const std::string& text = "") {
    tbs_fstat_db_s f{};
    f.type = type;
    f.mode = mode;
    f.nlink = 1;
    f.owner = f.group = CREDUTL_SID_NOBODY;
    f.size = text.size();
    uint32_t dbid = 0, gen = 0;
    EXPECT_EQ(tvr_db_in_trans(1, [&] {
                int st = tvr_db_inode_create(silo_dbid_, tbs_oid_create(), f, 19, &dbid, &gen);
                return st == 0 && !text.empty() ? tvr_db_inode_write_text(dbid, text.c_str()) : st;
              }),
              0);
    view_fhandle_t fh{};
    fh.silo = uuid_;
    fh.ver_dbid = fh.elem_dbid = dbid;
    fh.gen = gen;
    fh.flags = VIEW_FH_PRIVATE;
    return fh;
  }
  tbs_uuid_s uuid_{};
  uint32_t silo_dbid_ = 0;
};

TEST_F(KfsmOps, GetattrCarriesTheNameServiceAnswer) {
  view_getattr_req_t q{};
  q.fh = inode(TBS_FTYPE_FILE, 0640);
  Served s = serve(VIEW_RPC_GETATTR, encode_request(xdr_view_getattr_req_t, q));
  ASSERT_EQ(s.rpc_status, KFSM_RPC_DONE);
  auto rep = decode_reply(xdr_view_getattr_reply_t, s.reply);
  ASSERT_EQ((*rep)->hdr.status, TBS_ST_OK);
  EXPECT_EQ((*rep)->hdr.xid, kXid);
  EXPECT_EQ((*rep)->vstat.fstat.mode, 0640u);
  EXPECT_EQ((*rep)->fh.ver_dbid, q.fh.ver_dbid);
  EXPECT_EQ((*rep)->fh.gen, q.fh.gen);
  EXPECT_NE((*rep)->lvut.tv_sec, 0);
  EXPECT_EQ((*rep)->name_state, 0u);
  EXPECT_EQ((*rep)->flag, 0);
  // A stale generation is the name service's 1087, with nothing behind the header.
  q.fh.gen += 1;
  s = serve(VIEW_RPC_GETATTR, encode_request(xdr_view_getattr_req_t, q));
  EXPECT_EQ(headers(s.reply).size(), 1u);
  EXPECT_EQ(decode_reply(xdr_view_getattr_reply_t, s.reply)->get().hdr.status, TBS_ST_STALE);
}

TEST_F(KfsmOps, ReadlinkGivesAtMost1024BytesWhateverTheCallerAllows) {
  const std::string target(5000, 'x');
  view_readlink_req_t q{};
  q.fh = inode(TBS_FTYPE_LINK, 0777, target);
  struct {
    size_t max_len, want;
  } rows[] = {{5000, 1024}, {1024, 1024}, {10, 10}};
  for (auto& r : rows) {
    q.max_len = r.max_len;
    Served s = serve(VIEW_RPC_READLINK, encode_request(xdr_view_readlink_req_t, q));
    ASSERT_EQ(s.rpc_status, KFSM_RPC_DONE);
    auto rep = decode_reply(xdr_view_readlink_reply_t, s.reply);
    ASSERT_EQ((*rep)->hdr.status, TBS_ST_OK) << r.max_len;
    EXPECT_EQ((*rep)->len, r.want) << r.max_len;
    EXPECT_EQ(std::string((*rep)->text), target.substr(0, r.want)) << r.max_len;
  }
}

TEST_F(KfsmOps, ListingsAndInvalidationsPassTheNameServiceStatus) {
  const view_fhandle_t dir = inode(TBS_FTYPE_DIR, 0755);
  view_readdir_req_t rd{};
  rd.fh = dir;
  rd.max_size = 0;  // not even "." fits
  Served s = serve(VIEW_RPC_READDIR, encode_request(xdr_view_readdir_req_t, rd));
  ASSERT_EQ(s.rpc_status, KFSM_RPC_DONE);
  EXPECT_EQ(decode_reply(xdr_view_readdir_reply_t, s.reply)->get().hdr.status, TBS_ST_BAD_ARG);
  view_readdir_ext_req_t rx{};
  rx.fh = dir;
  s = serve(VIEW_RPC_READDIR_EXT, encode_request(xdr_view_readdir_ext_req_t, rx));
  EXPECT_EQ(decode_reply(xdr_view_readdir_ext_reply_t, s.reply)->get().hdr.status, TBS_ST_BAD_ARG);

  // Invalidation of a SILO: the replica's uuid travels in the oid field.
  view_invalidate_req_t inv{};
  inv.type = VIEW_INVALIDATE_SILO;
  std::memcpy(inv.silo_oid.bytes, uuid_.bytes, sizeof uuid_.bytes);
  dbtest::Messages msgs;
  s = serve(VIEW_RPC_INVALIDATE, encode_request(xdr_view_invalidate_req_t, inv));
  ASSERT_EQ(s.rpc_status, KFSM_RPC_DONE);
  EXPECT_EQ(decode_reply(xdr_view_null_reply_t, s.reply)->get().hdr.status, TBS_ST_OK);
  EXPECT_TRUE(msgs.contains("view_invalidate silo '" + tbs_uuid_to_str(uuid_) + "'")) << msgs.all();
  inv.type = 7;
  s = serve(VIEW_RPC_INVALIDATE, encode_request(xdr_view_invalidate_req_t, inv));
  EXPECT_EQ(decode_reply(xdr_view_null_reply_t, s.reply)->get().hdr.status, TBS_ST_BAD_ARG);
}

}  // namespace
