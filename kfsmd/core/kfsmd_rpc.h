// Kfsmd_Rpc: the view-protocol calls the daemon makes to a view's agent, over its LPC channel.
//
// Each call fills the request header (time now, a fresh xid, the view's uuid, build handle zero),
// encodes the request, runs it on the channel and decodes the first reply record (a reply may carry
// more behind it; only the first counts). The result is 0 with the reply filled (its header's status
// is the agent's answer, for the caller to read), or an errno for a failure of the channel or frame:
//   ENOTCONN  the view was removed            EIO   no agent, lost connection, rpc_status 4 or 5,
//   ENOSYS    rpc_status 3 (unknown RPC)            a reply that does not decode or has another xid
//   ENAMETOOLONG  a name or path too long for the request record
// Replies are Xdr_Records: what their decode allocates (paths, listings) goes with them. A call
// empties the record first; on an errno it is left empty.
#pragma once

#include <cstdint>
#include <string>

#include "base/tbs.h"
#include "kfsmd/core/kfsmd_lpc_channel.h"
#include "proto/view_records.h"
#include "proto/view_rpc.h"
#include "proto/xdr_record.h"

class Kfsmd_Rpc {
 public:
  Kfsmd_Rpc(Kfsmd_Lpc_Channel& channel, const tbs_uuid_s& view) : m_channel(channel), m_view(view) {}

  int null_rpc();
  int root(const tbs_oid_s& silo, const tbs_uuid_s& replica, const std::string& host, const std::string& path,
           Xdr_Record<view_getattr_reply_t>* r);
  int lookup(const view_fhandle_t& dir, const std::string& name, const std::string& residual,
             Xdr_Record<view_lookup_reply_t>* r);
  int getattr(const view_fhandle_t& fh, Xdr_Record<view_getattr_reply_t>* r);
  int revalidate(const view_fhandle_t& fh, Xdr_Record<view_root_reply_t>* r);
  // Entries from `cursor`, at most `max_size` bytes of listing; the decode allocates the buffer.
  int readdir(const view_fhandle_t& fh, uint32_t cursor, uint32_t max_size, Xdr_Record<view_readdir_reply_t>* r);
  int readlink(const view_fhandle_t& fh, Xdr_Record<view_readlink_reply_t>* r);
  int getcleartext(const view_fhandle_t& fh, Xdr_Record<view_cltxt_reply_t>* r);

 private:
  template <typename Q, typename R>
  int run(uint64_t op, Q* req, bool_t (*enc)(XDR*, Q*), Xdr_Record<R>* rep);
  view_hdr_req_t header();

  Kfsmd_Lpc_Channel& m_channel;
  tbs_uuid_s m_view;
};
