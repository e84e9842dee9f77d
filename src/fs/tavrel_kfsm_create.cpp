#include "fs/tavrel_kfsm_create.h"

#include "core/tavrel_trace.h"

Tavrel_KFSM_Create::Tavrel_KFSM_Create(XDR* in, XDR* out)
    : Tavrel_KFSM_Typed_Op(VIEW_RPC_CREATE, in, out, xdr_view_create_req_t, xdr_view_create_reply_t) {}

void Tavrel_KFSM_Create::do_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Create", "do_request");
  answer_not_supported();
}
