#include "fs/tavrel_kfsm_revalidate.h"

#include "core/tavrel_trace.h"
#include "ns/ns_rpc.h"

Tavrel_KFSM_Revalidate::Tavrel_KFSM_Revalidate(XDR* in, XDR* out)
    : Tavrel_KFSM_Typed_Op(VIEW_RPC_REVALIDATE, in, out, xdr_view_getattr_req_t, xdr_view_root_reply_t) {}

void Tavrel_KFSM_Revalidate::do_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Revalidate", "do_request");
  m_status = 0;
  trace.writeTrace(TRACE_LEVEL_4, "UUID is %s, DBID is %d", tbs_uuid_to_str(m_req->fh.silo).c_str(),
                   int(m_req->fh.ver_dbid));
  m_rep->hdr.status = ns_revalidate(&m_req->fh, &m_rep->fh, &m_rep->vstat);
}
