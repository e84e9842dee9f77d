// The view-protocol frame: what each kind of request puts in the reply stream and the rpc_status.
#include <rpc/xdr.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "fs/tavrel_kfsm_abstract_op.h"
#include "proto/kfsm_records.h"
#include "proto/tavrel_status.h"

namespace {

struct Served {
  bool made;
  int rpc_status;
  u_int reply_size;
};

// Serves `rpc` over a request of `req_len` bytes holding an encoded header with xid 7.
Served serve(int rpc, u_int req_len) {
  char req[128] = {}, rep[128];
  XDR enc;
  xdrmem_create(&enc, req, sizeof req, XDR_ENCODE);
  view_hdr_req_t hdr{};
  hdr.xid = 7;
  EXPECT_TRUE(xdr_view_hdr_req_t(&enc, &hdr));
  XDR in, out;
  xdrmem_create(&in, req, req_len, XDR_DECODE);
  xdrmem_create(&out, rep, sizeof rep, XDR_ENCODE);
  Served s{};
  s.rpc_status = -1;
  s.made = tavrel_kfsm_dispatch(rpc, &in, &out, &s.rpc_status);
  s.reply_size = xdr_getpos(&out);
  return s;
}

TEST(KfsmFrame, RepliesByRpc) {
  struct {
    int rpc;
    u_int req_len;
    int rpc_status;
  } rows[] = {
      {VIEW_RPC_NULL, 0, KFSM_RPC_DONE},    // ping: nothing decoded, empty reply
      {VIEW_RPC_NULL, 128, KFSM_RPC_DONE},  // a body on a ping is ignored
      {11, 128, KFSM_RPC_UNKNOWN},  // a gap in the table
      {119, 128, KFSM_RPC_UNKNOWN}, // beyond the table
      {-5, 128, KFSM_RPC_UNKNOWN},
      {120, 3, KFSM_RPC_UNKNOWN},   // a torn header still ends as an unknown procedure
  };
  for (auto& r : rows) {
    Served s = serve(r.rpc, r.req_len);
    EXPECT_TRUE(s.made) << r.rpc;
    EXPECT_EQ(s.rpc_status, r.rpc_status) << r.rpc;
    EXPECT_EQ(s.reply_size, 0u) << r.rpc;
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

}  // namespace
