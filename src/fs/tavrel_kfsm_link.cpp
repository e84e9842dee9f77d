#include "fs/tavrel_kfsm_link.h"

#include "core/tavrel_trace.h"

Tavrel_KFSM_Link::Tavrel_KFSM_Link(XDR* in, XDR* out)
    : Tavrel_KFSM_Typed_Op(VIEW_RPC_LINK, in, out, xdr_view_link_req_t, xdr_view_dir_mod_reply_t) {}

void Tavrel_KFSM_Link::do_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Link", "do_request");
  answer_not_supported();
}
