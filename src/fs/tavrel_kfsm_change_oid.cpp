#include "fs/tavrel_kfsm_change_oid.h"

#include "core/tavrel_trace.h"

Tavrel_KFSM_Change_oid::Tavrel_KFSM_Change_oid(XDR* in, XDR* out)
    : Tavrel_KFSM_Typed_Op(VIEW_RPC_CHANGE_OID, in, out, xdr_view_change_oid_req_t, xdr_view_dir_reply_t) {}

void Tavrel_KFSM_Change_oid::do_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Change_oid", "do_request");
  trace.writeTrace(TRACE_LEVEL_4, "Change_oid request for UUID = %s, DBID = %d",
                   tbs_uuid_to_str(m_req->fh.silo).c_str(), int(m_req->fh.ver_dbid));
  answer_not_supported();
}
