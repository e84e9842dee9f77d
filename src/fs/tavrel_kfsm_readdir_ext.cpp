#include "fs/tavrel_kfsm_readdir_ext.h"

#include <algorithm>

#include "base/stg.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "ns/ns_readdir.h"

Tavrel_KFSM_Readdir_Ext::Tavrel_KFSM_Readdir_Ext(XDR* in, XDR* out)
    : Tavrel_KFSM_Typed_Op(VIEW_RPC_READDIR_EXT, in, out, xdr_view_readdir_ext_req_t, xdr_view_readdir_ext_reply_t) {}

Tavrel_KFSM_Readdir_Ext::~Tavrel_KFSM_Readdir_Ext() {
  m_rep->buffer = nullptr;  // borrowed from m_buffer
  stg_free(m_buffer);
}

void Tavrel_KFSM_Readdir_Ext::do_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Readdir_Ext", "do_request");
  m_status = 0;
  trace.writeTrace(TRACE_LEVEL_4, "Readdir_Ext uuid %s, dbid = %d max size = %ld",
                   tbs_uuid_to_str(m_req->fh.silo).c_str(), int(m_req->fh.ver_dbid), long(m_req->max_size));
  m_rep->cursor = 0;
  m_rep->used = 0;
  // No reply carries more than one LPC message; a larger request would only allocate what is never sent.
  const uint32_t max_size = uint32_t(std::min<size_t>(m_req->max_size, VIEW_LPC_PAYLOAD));
  m_buffer = take_buffer(size_t(max_size) + 1);
  if (!m_buffer) {
    trace.writeTrace(TRACE_LEVEL_1, "malloc failed");
    m_status = TAVREL_ST_NO_OBJECT;
    m_rep->hdr.status = TBS_ST_NO_ROOM;
    return;
  }
  int eof = 0;
  uint32_t cursor = 0, used = 0;
  m_rep->hdr.status = ns_readdir_ext(&m_req->fh, m_req->cursor, m_req->name, m_req->flags, max_size, &cursor, &used,
                                     &eof, m_buffer);
  m_rep->cursor = cursor;
  m_rep->used = std::min(used, max_size);
  m_rep->eof = eof ? 1 : 0;
  m_rep->capacity = max_size;
  m_rep->buffer = m_buffer;
}
