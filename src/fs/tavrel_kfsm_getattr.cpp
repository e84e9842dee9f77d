#include "fs/tavrel_kfsm_getattr.h"

#include "core/tavrel_trace.h"
#include "ns/ns_rpc.h"

Tavrel_KFSM_Getattr::Tavrel_KFSM_Getattr(XDR* in, XDR* out)
    : Tavrel_KFSM_Typed_Op(VIEW_RPC_GETATTR, in, out, xdr_view_getattr_req_t, xdr_view_getattr_reply_t) {}

void Tavrel_KFSM_Getattr::do_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Getattr", "do_request");
  m_status = 0;
  trace.writeTrace(TRACE_LEVEL_4, "Getattr request for UUID = %s, DBID = %d", tbs_uuid_to_str(m_req->fh.silo).c_str(),
                   int(m_req->fh.ver_dbid));
  m_rep->hdr.status = ns_getattr(&m_req->fh, &m_rep->fh, &m_rep->vstat, &m_rep->lvut);
  m_rep->name_state = 0;
  m_rep->flag = 0;
}
