// Tavrel_KFSM_Typed_Op<Req, Rep>: the frame of one view-protocol operation with its request and reply
// records. A derived class names its two records' filters and writes do_request(); decoding, the
// reply's xid and encoding stay in Tavrel_KFSM_AbstractOp.
//
// The records are owned here and live as long as the operation. Fields that a decode allocated are
// freed with the records; buffers a derived class hands to the reply (readlink text, listing buffer,
// paths) stay the derived class's own, and it detaches them from the reply before freeing them.
//
// Threads: one operation is used by one LPC thread only.
#pragma once

#include <cstdlib>

#include "fs/tavrel_kfsm_abstract_op.h"
#include "proto/xdr_record.h"

template <class Req, class Rep>
class Tavrel_KFSM_Typed_Op : public Tavrel_KFSM_AbstractOp {
 protected:
  Tavrel_KFSM_Typed_Op(int rpc, XDR* in, XDR* out, typename Xdr_Record<Req>::Filter req_filter,
                       typename Xdr_Record<Rep>::Filter rep_filter)
      : Tavrel_KFSM_AbstractOp(rpc, in, out), m_req(req_filter), m_rep(rep_filter) {
    set_records(&m_req, &m_req->hdr, &m_rep, &m_rep->hdr);
  }

  // The answer of an operation whose name-service call is not offered yet: the request was decoded,
  // the reply says "not supported" (1007). The frame itself succeeded.
  void answer_not_supported() {
    m_status = 0;
    m_rep->hdr.status = TBS_ST_NOT_SUPPORTED;
  }

  // A zeroed buffer of `size` bytes, or null when memory is short. The caller frees it with stg_free.
  static char* take_buffer(size_t size) { return static_cast<char*>(std::calloc(size ? size : 1, 1)); }

  Xdr_Record<Req> m_req;
  Xdr_Record<Rep> m_rep;
};

// What the view protocol lets a caller ask for in one reply text (readlink, cleartext path, gpath).
constexpr size_t KFSM_TEXT_MAX = 1024;
