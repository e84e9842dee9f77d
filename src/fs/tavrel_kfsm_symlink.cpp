#include "fs/tavrel_kfsm_symlink.h"

#include "core/tavrel_trace.h"

Tavrel_KFSM_Symlink::Tavrel_KFSM_Symlink(XDR* in, XDR* out)
    : Tavrel_KFSM_Typed_Op(VIEW_RPC_SYMLINK, in, out, xdr_view_symlink_req_t, xdr_view_symlink_reply_t) {}

void Tavrel_KFSM_Symlink::do_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Symlink", "do_request");
  answer_not_supported();
}
