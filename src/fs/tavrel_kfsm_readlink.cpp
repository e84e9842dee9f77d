#include "fs/tavrel_kfsm_readlink.h"

#include <algorithm>

#include "base/stg.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_util.h"
#include "ns/ns_rpc.h"

Tavrel_KFSM_Readlink::Tavrel_KFSM_Readlink(XDR* in, XDR* out)
    : Tavrel_KFSM_Typed_Op(VIEW_RPC_READLINK, in, out, xdr_view_readlink_req_t, xdr_view_readlink_reply_t) {}

Tavrel_KFSM_Readlink::~Tavrel_KFSM_Readlink() {
  m_rep->text = nullptr;  // borrowed from m_buffer
  stg_free(m_buffer);
}

void Tavrel_KFSM_Readlink::do_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Readlink", "do_request");
  m_status = 0;
  const size_t max_len = std::min(m_req->max_len, KFSM_TEXT_MAX);
  trace.writeTrace(TRACE_LEVEL_4, "Readlink request for UUID = %s, DBID = %d, max_len = %zu",
                   tbs_uuid_to_str(m_req->fh.silo).c_str(), int(m_req->fh.ver_dbid), max_len);
  // One byte beyond max_len keeps the text terminated whatever ns_readlink writes.
  m_buffer = take_buffer(max_len + 1);
  if (!m_buffer) {
    m_rep->hdr.status = TBS_ST_NO_ROOM;
    m_status = Tavrel_Util::tbs_to_tavrel_status(TBS_ST_NO_ROOM);
    return;
  }
  size_t len = 0;
  m_rep->hdr.status = ns_readlink(&m_req->fh, max_len, &len, m_buffer);
  if (m_rep->hdr.status == TBS_ST_OK) {
    len = std::min(len, max_len);
    m_buffer[len] = '\0';
    m_rep->len = len;
    m_rep->text = m_buffer;
  }
}
