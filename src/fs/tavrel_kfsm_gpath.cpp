#include "fs/tavrel_kfsm_gpath.h"

#include <algorithm>
#include <cstring>

#include "base/stg.h"
#include "core/tavrel_msg_table.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "ns/ns_rpc.h"

Tavrel_KFSM_Gpath::Tavrel_KFSM_Gpath(XDR* in, XDR* out)
    : Tavrel_KFSM_Typed_Op(VIEW_RPC_GPATH, in, out, xdr_view_gpath_req_t, xdr_view_gpath_reply_t) {}

Tavrel_KFSM_Gpath::~Tavrel_KFSM_Gpath() {
  m_rep->path = nullptr;  // borrowed from m_path and m_ext_path
  m_rep->ext_path = nullptr;
  stg_free(m_path);
  stg_free(m_ext_path);
}

void Tavrel_KFSM_Gpath::do_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Gpath", "do_request");
  m_status = 0;
  trace.writeTrace(TRACE_LEVEL_4, "Gpath request for UUID = %s, DBID = %d", tbs_uuid_to_str(m_req->fh.silo).c_str(),
                   int(m_req->fh.ver_dbid));
  const size_t path_max = std::min(m_req->path_max, KFSM_TEXT_MAX);
  const size_t ext_path_max = std::min(m_req->ext_path_max, KFSM_TEXT_MAX);
  // Both buffers hold 1024 bytes and a terminator at most; the second takes the first's size.
  m_path = take_buffer(path_max + 1);
  m_ext_path = take_buffer(std::max(path_max, ext_path_max) + 1);
  if (!m_path || !m_ext_path) {
    m_status = TAVREL_ST_NO_OBJECT;
    m_message += imsg_format(&_tvr_lib_lib_msg_table, TVR_LIB_OUT_OF_MEMORY);
    m_rep->hdr.status = TBS_ST_NO_ROOM;
    return;
  }
  m_rep->hdr.status = ns_gpath(&m_req->fh, m_req->hm, path_max, m_path, ext_path_max, m_ext_path);
  if (m_rep->hdr.status == TBS_ST_OK) {
    m_path[path_max] = '\0';
    m_ext_path[ext_path_max] = '\0';
    m_rep->path = m_path;
    m_rep->path_len = std::strlen(m_path);
    m_rep->ext_path = m_ext_path;
    m_rep->ext_len = std::strlen(m_ext_path);
  }
}
