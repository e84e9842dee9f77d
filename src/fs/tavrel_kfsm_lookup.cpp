#include "fs/tavrel_kfsm_lookup.h"

#include "core/tavrel_trace.h"
#include "ns/ns_lookup.h"

Tavrel_KFSM_Lookup::Tavrel_KFSM_Lookup(XDR* in, XDR* out)
    : Tavrel_KFSM_Typed_Op(VIEW_RPC_LOOKUP, in, out, xdr_view_lookup_req_t, xdr_view_lookup_reply_t) {}

void Tavrel_KFSM_Lookup::do_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Lookup", "do_request");
  m_status = 0;
  trace.writeTrace(TRACE_LEVEL_4, "lookup request for uuid = %s, dbid = %d, name = %s",
                   tbs_uuid_to_str(m_req->dir.silo).c_str(), int(m_req->dir.ver_dbid), m_req->name);
  view_fhandle_t parent{};
  uint32_t consumed = 0;
  int cacheable = 0;
  m_rep->hdr.status = ns_lookup(&m_req->dir, m_req->name, m_req->warp, m_req->residual ? m_req->residual : "",
                                &m_rep->fh, &parent, &m_rep->vstat, &consumed, &cacheable, &m_rep->name_state,
                                &m_rep->lvut);
  m_rep->consumed = consumed;
  m_rep->cacheable = cacheable ? 1 : 0;
  trace.writeTrace(TRACE_LEVEL_4, "Status from view_lookup = %d", m_rep->hdr.status);
}
