#include "fs/tavrel_kfsm_abstract_op.h"

#include <new>

#include "core/tavrel_msg_table.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "fs/tavrel_kfsm_change_mtype.h"
#include "fs/tavrel_kfsm_change_oid.h"
#include "fs/tavrel_kfsm_create.h"
#include "fs/tavrel_kfsm_getattr.h"
#include "fs/tavrel_kfsm_getcleartext.h"
#include "fs/tavrel_kfsm_gpath.h"
#include "fs/tavrel_kfsm_invalidate.h"
#include "fs/tavrel_kfsm_link.h"
#include "fs/tavrel_kfsm_lookup.h"
#include "fs/tavrel_kfsm_mkdir.h"
#include "fs/tavrel_kfsm_readdir.h"
#include "fs/tavrel_kfsm_readdir_ext.h"
#include "fs/tavrel_kfsm_readlink.h"
#include "fs/tavrel_kfsm_remove.h"
#include "fs/tavrel_kfsm_rename.h"
#include "fs/tavrel_kfsm_revalidate.h"
#include "fs/tavrel_kfsm_rmdir.h"
#include "fs/tavrel_kfsm_root.h"
#include "fs/tavrel_kfsm_setattr.h"
#include "fs/tavrel_kfsm_symlink.h"
#include "proto/kfsm_records.h"

Tavrel_KFSM_AbstractOp::Tavrel_KFSM_AbstractOp(int rpc, XDR* in, XDR* out) : m_in(in), m_out(out), m_rpc(rpc) {}

Tavrel_KFSM_AbstractOp::~Tavrel_KFSM_AbstractOp() = default;

void Tavrel_KFSM_AbstractOp::set_records(Xdr_Record_Base* request, view_hdr_req_t* request_hdr,
                                         Xdr_Record_Base* reply, view_hdr_reply_t* reply_hdr) {
  m_request_rec = request;
  m_request = request_hdr;
  m_reply_rec = reply;
  m_reply = reply_hdr;
}

Tavrel_KFSM_AbstractOp* Tavrel_KFSM_AbstractOp::create_kfsm_request_handler(int rpc, XDR* in, XDR* out) {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_AbstractOp", "create_kfsm_request_handler");
  trace.writeTrace(TRACE_LEVEL_4, "Rpc  = %d", rpc);
  Tavrel_KFSM_AbstractOp* op = nullptr;
#define KFSM_OP(number, cls)                \
  case number:                              \
    op = new (std::nothrow) cls(in, out);   \
    break;
  switch (rpc) {
    KFSM_OP(VIEW_RPC_NULL, Tavrel_KFSM_NULL)
    KFSM_OP(VIEW_RPC_READDIR, Tavrel_KFSM_Readdir)
    KFSM_OP(VIEW_RPC_GETCLEARTEXT, Tavrel_KFSM_Getcleartext)
    KFSM_OP(VIEW_RPC_READDIR_EXT, Tavrel_KFSM_Readdir_Ext)
    KFSM_OP(VIEW_RPC_GPATH, Tavrel_KFSM_Gpath)
    KFSM_OP(VIEW_RPC_INVALIDATE, Tavrel_KFSM_Invalidate)
    KFSM_OP(VIEW_RPC_READLINK, Tavrel_KFSM_Readlink)
    KFSM_OP(VIEW_RPC_ROOT, Tavrel_KFSM_Root)
    KFSM_OP(VIEW_RPC_REVALIDATE, Tavrel_KFSM_Revalidate)
    KFSM_OP(VIEW_RPC_LOOKUP, Tavrel_KFSM_Lookup)
    KFSM_OP(VIEW_RPC_GETATTR, Tavrel_KFSM_Getattr)
    KFSM_OP(VIEW_RPC_SETATTR, Tavrel_KFSM_Setattr)
    KFSM_OP(VIEW_RPC_CREATE, Tavrel_KFSM_Create)
    KFSM_OP(VIEW_RPC_REMOVE, Tavrel_KFSM_Remove)
    KFSM_OP(VIEW_RPC_MKDIR, Tavrel_KFSM_Mkdir)
    KFSM_OP(VIEW_RPC_RMDIR, Tavrel_KFSM_Rmdir)
    KFSM_OP(VIEW_RPC_RENAME, Tavrel_KFSM_Rename)
    KFSM_OP(VIEW_RPC_LINK, Tavrel_KFSM_Link)
    KFSM_OP(VIEW_RPC_SYMLINK, Tavrel_KFSM_Symlink)
    KFSM_OP(VIEW_RPC_CHANGE_MTYPE, Tavrel_KFSM_Change_Mtype)
    KFSM_OP(VIEW_RPC_CHANGE_OID, Tavrel_KFSM_Change_oid)
#undef KFSM_OP
    default:
      trace.writeTrace(TRACE_LEVEL_2, "Unknown or NYI request %d", rpc);
      op = new (std::nothrow) Tavrel_KFSM_Unsupported(rpc, in, out);
  }
  if (!op) trace.writeTrace(TRACE_LEVEL_1, "Request handler could not be created");
  return op;
}

void Tavrel_KFSM_AbstractOp::process_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_AbstractOp", "process_request");
  m_status = TAVREL_ST_OK;
  get_request();
  if (m_reply_rec) m_reply_rec->reset();
  if (m_status == TAVREL_ST_OK) {
    trace.writeTrace(TRACE_LEVEL_4, "Calling do_request");
    do_request();
    if (m_reply) trace.writeTrace(TRACE_LEVEL_4, "Status in header after do_request = %d", m_reply->status);
  } else if (m_reply) {
    m_reply->status = TBS_ST_FAILURE;
  }
  send_reply();
}

void Tavrel_KFSM_AbstractOp::get_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_AbstractOp", "get_request");
  if (!m_request_rec) return;
  m_request_rec->reset();
  trace.writeTrace(TRACE_LEVEL_4, "Calling ks_svc_getargs");
  const bool ok = m_request_rec->code(m_in);
  if (!ok) {
    m_status = TAVREL_ST_KFSM_DECODE;
    m_rpc_status = KFSM_RPC_DECODE;
    m_message += imsg_format(&_tvr_lib_lib_msg_table, TVR_LIB_KFSM_PARSE, m_rpc);
  }
  trace.writeTrace(TRACE_LEVEL_4, "Return from unmarshal = %d (rpc status %d)", ok ? 1 : 0, m_rpc_status);
}

void Tavrel_KFSM_AbstractOp::send_reply() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_AbstractOp", "send_reply");
  if (!m_reply_rec) return;
  if (m_request) m_reply->xid = m_request->xid;
  if (!m_reply_rec->code(m_out)) {
    m_status = TAVREL_ST_KFSM_ENCODE;
    m_rpc_status = KFSM_RPC_ENCODE;
    m_message += imsg_format(&_tvr_lib_lib_msg_table, TVR_LIB_KFSM_REPLY, m_rpc);
  }
  trace.writeTrace(TRACE_LEVEL_4, "Returning status %d rpc_status %d", m_status, m_rpc_status);
}

Tavrel_KFSM_NULL::Tavrel_KFSM_NULL(XDR* in, XDR* out) : Tavrel_KFSM_AbstractOp(VIEW_RPC_NULL, in, out) {}

void Tavrel_KFSM_NULL::process_request() {
  m_status = TAVREL_ST_OK;
  do_request();
}

void Tavrel_KFSM_NULL::do_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_NULL", "do_request");
  trace.writeTrace(TRACE_LEVEL_4, "Responding to NULL RPC");
  m_rpc_status = KFSM_RPC_DONE;
}

Tavrel_KFSM_Unsupported::Tavrel_KFSM_Unsupported(int rpc, XDR* in, XDR* out) : Tavrel_KFSM_AbstractOp(rpc, in, out) {
  set_records(&m_req, &m_req.get(), &m_rep, &m_rep.get());
}

void Tavrel_KFSM_Unsupported::do_request() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Unsupported", "do_request");
  m_status = TAVREL_ST_FAILURE;
  m_reply->status = TBS_ST_NOT_SUPPORTED;
}

void Tavrel_KFSM_Unsupported::send_reply() {
  if (m_request) m_reply->xid = m_request->xid;
  m_rpc_status = KFSM_RPC_UNKNOWN;
}

bool tavrel_kfsm_dispatch(int rpc, XDR* in, XDR* out, int* rpc_status) {
  Tavrel_KFSM_AbstractOp* op = Tavrel_KFSM_AbstractOp::create_kfsm_request_handler(rpc, in, out);
  if (!op) return false;
  op->process_request();
  *rpc_status = op->get_rpc_status();
  delete op;
  return true;
}
