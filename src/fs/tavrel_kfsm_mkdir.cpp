#include "fs/tavrel_kfsm_mkdir.h"

#include "core/tavrel_trace.h"

Tavrel_KFSM_Mkdir::Tavrel_KFSM_Mkdir(XDR* in, XDR* out)
    : Tavrel_KFSM_Typed_Op(VIEW_RPC_MKDIR, in, out, xdr_view_mkdir_req_t, xdr_view_symlink_reply_t) {}

void Tavrel_KFSM_Mkdir::do_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Mkdir", "do_mkdir");
  answer_not_supported();
}
