#include "fs/tavrel_kfsm_invalidate.h"

#include <cstring>

#include "core/tavrel_trace.h"
#include "ns/ns_locate.h"

Tavrel_KFSM_Invalidate::Tavrel_KFSM_Invalidate(XDR* in, XDR* out)
    : Tavrel_KFSM_Typed_Op(VIEW_RPC_INVALIDATE, in, out, xdr_view_invalidate_req_t, xdr_view_null_reply_t) {}

void Tavrel_KFSM_Invalidate::do_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Invalidate", "do_request");
  m_status = 0;
  trace.writeTrace(TRACE_LEVEL_4, "inval type %d, SILO OID %s, OBJ OID is %s, name is %s", int(m_req->type),
                   tbs_oid_to_str(m_req->silo_oid).c_str(), tbs_oid_to_str(m_req->obj_oid).c_str(), m_req->name);
  // The SILO travels in the oid field: its 16 bytes are the replica's uuid.
  tbs_uuid_s silo;
  static_assert(sizeof silo.bytes == sizeof m_req->silo_oid.bytes);
  std::memcpy(silo.bytes, m_req->silo_oid.bytes, sizeof silo.bytes);
  m_rep->hdr.status = locate_invalidate(m_req->type, &silo, &m_req->obj_oid, m_req->name, 1);
}
