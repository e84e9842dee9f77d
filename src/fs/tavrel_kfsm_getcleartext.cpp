#include "fs/tavrel_kfsm_getcleartext.h"

#include <algorithm>

#include "base/stg.h"
#include "core/tavrel_msg_table.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_util.h"
#include "ns/ns_cltxt.h"
#include "proto/tavrel_status.h"

Tavrel_KFSM_Getcleartext::Tavrel_KFSM_Getcleartext(XDR* in, XDR* out)
    : Tavrel_KFSM_Typed_Op(VIEW_RPC_GETCLEARTEXT, in, out, xdr_view_readlink_req_t, xdr_view_cltxt_reply_t) {}

Tavrel_KFSM_Getcleartext::~Tavrel_KFSM_Getcleartext() {
  m_rep->path = nullptr;  // borrowed from m_buffer
  stg_free(m_buffer);
}

void Tavrel_KFSM_Getcleartext::do_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Getcleartext", "do_request");
  m_status = 0;
  const size_t max_len = std::min(m_req->max_len, KFSM_TEXT_MAX);
  trace.writeTrace(TRACE_LEVEL_4, "Getcleartext request for UUID = %s, DBID = %d, max_len = %zu",
                   tbs_uuid_to_str(m_req->fh.silo).c_str(), int(m_req->fh.ver_dbid), max_len);
  // One byte beyond max_len keeps the path terminated whatever ns_get_cltxt writes.
  m_buffer = take_buffer(max_len + 1);
  if (!m_buffer) {
    m_status = TAVREL_ST_NO_OBJECT;
    Tavrel_Util::format(m_message, &_tvr_lib_lib_msg_table, TVR_LIB_OUT_OF_MEMORY);
    m_rep->hdr.status = TBS_ST_FAILURE;
  } else {
    size_t len = 0;
    tbs_boolean_t rel_to_cache = 0;
    int flag = 0;
    m_rep->hdr.status = ns_get_cltxt(&m_req->fh, max_len, &len, m_buffer, &rel_to_cache, &flag);
    trace.writeTrace(TRACE_LEVEL_4, "Status from ns_get_cltxt = %d", int(m_rep->hdr.status));
    if (m_rep->hdr.status == TBS_ST_OK) {
      len = std::min(len, max_len);
      m_buffer[len] = '\0';
      m_rep->len = len;
      m_rep->path = m_buffer;
      m_rep->rel_to_cache = rel_to_cache;
    }
  }
  // The module reads the first of two copies of this reply: this one, and the one the common flow
  // encodes after do_request.
  send_reply();
}
