#include "fs/tavrel_kfsm_rmdir.h"

#include "core/tavrel_trace.h"

Tavrel_KFSM_Rmdir::Tavrel_KFSM_Rmdir(XDR* in, XDR* out)
    : Tavrel_KFSM_Typed_Op(VIEW_RPC_RMDIR, in, out, xdr_view_dir_req_t, xdr_view_dir_mod_reply_t) {}

void Tavrel_KFSM_Rmdir::do_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Rmdir", "do_request");
  answer_not_supported();
}
