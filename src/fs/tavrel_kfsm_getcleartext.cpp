#include "fs/tavrel_kfsm_getcleartext.h"

#include "core/tavrel_trace.h"

Tavrel_KFSM_Getcleartext::Tavrel_KFSM_Getcleartext(XDR* in, XDR* out)
    : Tavrel_KFSM_Typed_Op(VIEW_RPC_GETCLEARTEXT, in, out, xdr_view_readlink_req_t, xdr_view_cltxt_reply_t) {}

void Tavrel_KFSM_Getcleartext::do_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Getcleartext", "do_request");
  answer_not_supported();
  // The module reads the first of two copies of this reply: this one, and the one the common flow
  // encodes after do_request.
  send_reply();
}
