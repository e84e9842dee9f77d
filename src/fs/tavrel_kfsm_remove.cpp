#include "fs/tavrel_kfsm_remove.h"

#include "core/tavrel_trace.h"

Tavrel_KFSM_Remove::Tavrel_KFSM_Remove(XDR* in, XDR* out)
    : Tavrel_KFSM_Typed_Op(VIEW_RPC_REMOVE, in, out, xdr_view_dir_req_t, xdr_view_dir_mod_reply_t) {}

void Tavrel_KFSM_Remove::do_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Remove", "do_request");
  answer_not_supported();
}
