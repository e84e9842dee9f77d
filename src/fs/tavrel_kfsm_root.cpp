#include "fs/tavrel_kfsm_root.h"

#include "core/tavrel_trace.h"
#include "ns/ns_rpc.h"

Tavrel_KFSM_Root::Tavrel_KFSM_Root(XDR* in, XDR* out)
    : Tavrel_KFSM_Typed_Op(VIEW_RPC_ROOT, in, out, xdr_view_replica_root_req_t, xdr_view_getattr_reply_t) {}

void Tavrel_KFSM_Root::do_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Root", "do_request");
  m_status = 0;
  const char* pathname = m_req->pathname ? m_req->pathname : "";
  trace.writeTrace(TRACE_LEVEL_4, "root request for SILO OID = %s, replica UUID = %s, pathname = %s",
                   tbs_oid_to_str(m_req->silo_oid).c_str(), tbs_uuid_to_str(m_req->replica_uuid).c_str(), pathname);
  m_rep->hdr.status = ns_root(&m_req->silo_oid, &m_req->replica_uuid, pathname, m_req->warp, &m_rep->fh,
                              &m_rep->vstat, &m_rep->name_state, &m_rep->flag, &m_rep->lvut, nullptr, nullptr);
  trace.writeTrace(TRACE_LEVEL_4, "Status from view_replica_root = %d", m_rep->hdr.status);
}
