#include "fs/tavrel_kfsm_setattr.h"

#include "core/tavrel_trace.h"

Tavrel_KFSM_Setattr::Tavrel_KFSM_Setattr(XDR* in, XDR* out)
    : Tavrel_KFSM_Typed_Op(VIEW_RPC_SETATTR, in, out, xdr_view_setattr_req_t, xdr_view_dir_reply_t) {}

void Tavrel_KFSM_Setattr::do_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Setattr", "do_request");
  trace.writeTrace(TRACE_LEVEL_4, "Setattr request for UUID = %s, DBID = %d",
                   tbs_uuid_to_str(m_req->fh.silo).c_str(), int(m_req->fh.ver_dbid));
  answer_not_supported();
}
