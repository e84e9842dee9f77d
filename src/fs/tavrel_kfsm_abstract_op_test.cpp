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

#include "fs/tavrel_kfsm_abstract_op.h"
#include "fs/tavrel_kfsm_change_mtype.h"
#include "fs/tavrel_kfsm_change_oid.h"
#include "fs/tavrel_kfsm_create.h"
#include "fs/tavrel_kfsm_getcleartext.h"
#include "fs/tavrel_kfsm_link.h"
#include "fs/tavrel_kfsm_mkdir.h"
#include "fs/tavrel_kfsm_remove.h"
#include "fs/tavrel_kfsm_rename.h"
#include "fs/tavrel_kfsm_rmdir.h"
#include "fs/tavrel_kfsm_setattr.h"
#include "fs/tavrel_kfsm_symlink.h"
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
      {VIEW_RPC_GETCLEARTEXT, typeid(Tavrel_KFSM_Getcleartext)},
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
    std::unique_ptr<Tavrel_KFSM_AbstractOp> op(Tavrel_KFSM_AbstractOp::create_kfsm_request_handler(rpc, nullptr, nullptr));
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

// Operations whose namespace change is not offered yet decode their own request (a torn one is
// refused as undecodable) and answer 1007 with the request's xid; the cleartext reply stands twice.
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
      {VIEW_RPC_GETCLEARTEXT, encode_request(xdr_view_readlink_req_t), 2},
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

}  // namespace
