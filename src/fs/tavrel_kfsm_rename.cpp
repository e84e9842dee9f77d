#include "fs/tavrel_kfsm_rename.h"

#include "core/tavrel_trace.h"

Tavrel_KFSM_Rename::Tavrel_KFSM_Rename(XDR* in, XDR* out)
    : Tavrel_KFSM_Typed_Op(VIEW_RPC_RENAME, in, out, xdr_view_rename_req_t, xdr_view_dir_mod_reply_t) {}

void Tavrel_KFSM_Rename::do_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Rename", "do_request");
  answer_not_supported();
}
