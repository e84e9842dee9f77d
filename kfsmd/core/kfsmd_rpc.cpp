#include "kfsmd/core/kfsmd_rpc.h"

#include <rpc/xdr.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

#include "proto/kfsm_records.h"

namespace {

bool copy_name(char* dst, size_t cap, const std::string& src) {
  if (src.size() >= cap || src.find('\0') != std::string::npos) return false;
  memcpy(dst, src.c_str(), src.size() + 1);
  return true;
}

// Decoding capacity of a listing: more than the largest listing one message can carry.
constexpr uint32_t kListingCapacity = 16384;

}  // namespace

view_hdr_req_t Kfsmd_Rpc::header() {
  view_hdr_req_t h;
  memset(&h, 0, sizeof h);
  h.time = time(nullptr);
  h.xid = m_channel.next_xid();
  h.view = m_view;
  return h;
}

template <typename Q, typename R>
int Kfsmd_Rpc::run(uint64_t op, Q* req, bool_t (*enc)(XDR*, Q*), Xdr_Record<R>* rep) {
  req->hdr = header();
  std::vector<char> buf(VIEW_LPC_PAYLOAD);
  XDR x;
  xdrmem_create(&x, buf.data(), static_cast<u_int>(buf.size()), XDR_ENCODE);
  bool ok = enc(&x, req);
  std::string payload(buf.data(), ok ? xdr_getpos(&x) : 0);
  xdr_destroy(&x);
  if (!ok) return ENAMETOOLONG;
  uint32_t rpc_status = 0;
  std::string reply;
  int e = m_channel.call(op, payload, &rpc_status, &reply);
  if (e != 0) return e;
  if (rpc_status == KFSM_RPC_UNKNOWN) return ENOSYS;
  if (rpc_status != KFSM_RPC_DONE) return EIO;
  xdrmem_create(&x, reply.data(), static_cast<u_int>(reply.size()), XDR_DECODE);
  ok = rep->code(&x);
  xdr_destroy(&x);
  if (!ok || rep->get().hdr.xid != req->hdr.xid) {
    rep->reset();
    return EIO;
  }
  return 0;
}

int Kfsmd_Rpc::null_rpc() {
  std::string reply;
  uint32_t rpc_status = 0;
  int e = m_channel.call(VIEW_RPC_NULL, std::string(), &rpc_status, &reply);
  if (e != 0) return e;
  return rpc_status == KFSM_RPC_DONE ? 0 : rpc_status == KFSM_RPC_UNKNOWN ? ENOSYS : EIO;
}

int Kfsmd_Rpc::root(const tbs_oid_s& silo, const tbs_uuid_s& replica, const std::string& host, const std::string& path,
                    Xdr_Record<view_getattr_reply_t>* r) {
  view_replica_root_req_t q;
  memset(&q, 0, sizeof q);
  q.silo_oid = silo;
  q.replica_uuid = replica;
  if (!copy_name(q.host, sizeof q.host, host) || !copy_name(q.path, sizeof q.path, path)) return ENAMETOOLONG;
  char empty[1] = {0};
  q.pathname = empty;
  q.warp = 0;
  r->reset();
  return run(VIEW_RPC_ROOT, &q, &xdr_view_replica_root_req_t, r);
}

int Kfsmd_Rpc::lookup(const view_fhandle_t& dir, const std::string& name, const std::string& residual,
                      Xdr_Record<view_lookup_reply_t>* r) {
  view_lookup_req_t q;
  memset(&q, 0, sizeof q);
  q.dir = dir;
  if (!copy_name(q.name, sizeof q.name, name) || residual.size() > KS_CANON_PNAME_MAX) return ENAMETOOLONG;
  std::string res = residual;
  q.residual = res.data();
  q.warp = 0;
  r->reset();
  return run(VIEW_RPC_LOOKUP, &q, &xdr_view_lookup_req_t, r);
}

int Kfsmd_Rpc::getattr(const view_fhandle_t& fh, Xdr_Record<view_getattr_reply_t>* r) {
  view_getattr_req_t q;
  memset(&q, 0, sizeof q);
  q.fh = fh;
  r->reset();
  return run(VIEW_RPC_GETATTR, &q, &xdr_view_getattr_req_t, r);
}

int Kfsmd_Rpc::revalidate(const view_fhandle_t& fh, Xdr_Record<view_root_reply_t>* r) {
  view_getattr_req_t q;
  memset(&q, 0, sizeof q);
  q.fh = fh;
  r->reset();
  return run(VIEW_RPC_REVALIDATE, &q, &xdr_view_getattr_req_t, r);
}

int Kfsmd_Rpc::readdir(const view_fhandle_t& fh, uint32_t cursor, uint32_t max_size,
                       Xdr_Record<view_readdir_reply_t>* r) {
  view_readdir_req_t q;
  memset(&q, 0, sizeof q);
  q.fh = fh;
  q.cursor = cursor;
  q.max_size = max_size;
  r->reset();
  r->get().capacity = kListingCapacity;
  return run(VIEW_RPC_READDIR, &q, &xdr_view_readdir_req_t, r);
}

int Kfsmd_Rpc::readlink(const view_fhandle_t& fh, Xdr_Record<view_readlink_reply_t>* r) {
  view_readlink_req_t q;
  memset(&q, 0, sizeof q);
  q.fh = fh;
  q.max_len = 1024;
  r->reset();
  return run(VIEW_RPC_READLINK, &q, &xdr_view_readlink_req_t, r);
}

int Kfsmd_Rpc::getcleartext(const view_fhandle_t& fh, Xdr_Record<view_cltxt_reply_t>* r) {
  view_readlink_req_t q;
  memset(&q, 0, sizeof q);
  q.fh = fh;
  q.max_len = 1024;
  r->reset();
  return run(VIEW_RPC_GETCLEARTEXT, &q, &xdr_view_readlink_req_t, r);
}
