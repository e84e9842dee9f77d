#include "kfsm/tavrel_kfsm_thread_unix.h"

#include <climits>
#include <cstring>

#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_trace.h"
#include "kfsm/libkfsm.h"
#include "proto/kfsm_status.h"

std::atomic<Tavrel_KFSM_Dispatch> Tavrel_KFSM_Thread_Unix::g_dispatch{nullptr};

Tavrel_KFSM_Thread_Unix::Tavrel_KFSM_Thread_Unix(const std::string& view_tag, Tavrel_Thread_Manager_Base& mgr)
    : m_view_tag(view_tag), m_mgr(mgr) {}

Tavrel_KFSM_Thread_Unix::~Tavrel_KFSM_Thread_Unix() { close_handle(); }

bool Tavrel_KFSM_Thread_Unix::open_handle(int* err) {
  *err = 0;
  m_handle = kfsm_view_root_open_type(1, err);
  return m_handle != 0;
}

int Tavrel_KFSM_Thread_Unix::execute() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Thread_Unix", "execute");
  memset(m_buf_a, 0, sizeof m_buf_a);
  memset(m_buf_b, 0, sizeof m_buf_b);
  kfsm_put_u32(m_buf_a + KFSM_LPC_MARKER_OFF, 0);
  kfsm_put_u32(m_buf_b + KFSM_LPC_MARKER_OFF, 0);
  const uint32_t len = static_cast<uint32_t>(m_view_tag.size());
  kfsm_strbuf pn{m_view_tag.data(), len, len + 1};
  kfsm_strbuf pn2 = pn;
  trace.writeTrace(TRACE_LEVEL_3, "Start loop");
  int toggle = 1;
  for (;;) {
    toggle = !toggle;
    uint8_t* req = toggle ? m_buf_a : m_buf_b;
    uint8_t* res = toggle ? m_buf_b : m_buf_a;
    trace.writeTrace(TRACE_LEVEL_5, "Before IOCTL req=%p res=%p", static_cast<void*>(req), static_cast<void*>(res));
    int err = 0, status = 0;
    kfsm_cmd(m_handle, &err, &status, KFSM_CMD_LPC_MESSAGE, 0, &pn, &pn2, req, KFSM_LPC_BUF);
    if (err != 0) {
      trace.writeTrace(TRACE_LEVEL_2, "KFSM_CMD_LPC_MESSAGE failed: %d", err);
      close_handle();
      return err;
    }
    if (status != 0) {
      m_result = tbs_status2errno(status);
      trace.writeTrace(TRACE_LEVEL_2, "KFSM_CMD_LPC_MESSAGE stat=%d (%s)", status, tbs_strerror(status));
      if (status == TBS_ST_VIEW_GONE) {
        trace.writeTrace(TRACE_LEVEL_3, "End loop");
        break;
      }
    }
    if (m_mgr.should_exit()) {
      trace.writeTrace(TRACE_LEVEL_3, "End loop");
      break;
    }
    if (status != 0) {
      toggle = !toggle;
      continue;
    }
    serve(req, res);
  }
  close_handle();
  return m_result;
}

void Tavrel_KFSM_Thread_Unix::close_handle() {
  if (m_handle) kfsm_view_root_close_type(1, m_handle);
  m_handle = 0;
}

void Tavrel_KFSM_Thread_Unix::serve(uint8_t* req, uint8_t* res) {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Thread_Unix", "execute");
  const kfsm_lpc_request_hdr h = kfsm_lpc_get_request(req);
  trace.writeTrace(TRACE_LEVEL_4, "Handle LPC request op=%llu req sz=%llu res in sz=%llu",
                   static_cast<unsigned long long>(h.op), static_cast<unsigned long long>(h.req_size),
                   static_cast<unsigned long long>(h.res_capacity));
  // The library never delivers more than the payload; the bounds hold the streams inside the buffers
  // whatever the header says.
  u_int in_size = static_cast<u_int>(h.req_size > VIEW_LPC_PAYLOAD ? VIEW_LPC_PAYLOAD : h.req_size);
  u_int out_size = static_cast<u_int>(h.res_capacity > VIEW_LPC_PAYLOAD ? VIEW_LPC_PAYLOAD : h.res_capacity);
  XDR in, out;
  xdrmem_create(&in, reinterpret_cast<char*>(req + KFSM_LPC_HDR), in_size, XDR_DECODE);
  xdrmem_create(&out, reinterpret_cast<char*>(res + KFSM_LPC_HDR), out_size, XDR_ENCODE);
  int rpc = h.op > static_cast<uint64_t>(INT_MAX) ? INT_MAX : static_cast<int>(h.op);
  int rpc_status = KFSM_RPC_ENCODE;
  uint64_t size = 0;
  Tavrel_KFSM_Dispatch dispatch = g_dispatch.load();
  bool served = false;
  try {
    served = dispatch && dispatch(rpc, &in, &out, &rpc_status);
  } catch (...) {
    // An operation that throws costs its one request (no reply body), never the thread.
    trace.writeTrace(TRACE_LEVEL_1, "RPC %llu ended by an exception", static_cast<unsigned long long>(h.op));
    xdr_setpos(&out, 0);
    rpc_status = KFSM_RPC_ENCODE;
  }
  if (served) {
    switch (rpc_status) {
      case KFSM_RPC_DONE:
        break;
      case KFSM_RPC_UNKNOWN:
        trace.writeTrace(TRACE_LEVEL_2, "unknown procedure for RPC %llu", static_cast<unsigned long long>(h.op));
        break;
      case KFSM_RPC_DECODE:
        trace.writeTrace(TRACE_LEVEL_2, "can't decode request for RPC %llu", static_cast<unsigned long long>(h.op));
        break;
      case KFSM_RPC_ENCODE:
        trace.writeTrace(TRACE_LEVEL_2, "can't encode reply for RPC %llu", static_cast<unsigned long long>(h.op));
        break;
      default:
        trace.writeTrace(TRACE_LEVEL_2, "unknown RPC problem for RPC %llu: stat=%d",
                         static_cast<unsigned long long>(h.op), rpc_status);
    }
    size = xdr_getpos(&out);
  } else {
    trace.writeTrace(TRACE_LEVEL_2, "No handler for RPC %llu", static_cast<unsigned long long>(h.op));
    rpc_status = KFSM_RPC_ENCODE;
  }
  if ((h.res_capacity >> 32) == 0 && static_cast<uint32_t>(h.res_capacity) < size)
    trace.writeTrace(TRACE_LEVEL_2, "response out sz=%llu > in sz=%llu", static_cast<unsigned long long>(size),
                     static_cast<unsigned long long>(h.res_capacity));
  xdr_destroy(&in);
  xdr_destroy(&out);
  kfsm_lpc_put_reply(res, static_cast<uint32_t>(rpc_status), size, h.cookie);
  trace.writeTrace(TRACE_LEVEL_4, "LPC response stat=%ld res out sz=%llu", static_cast<long>(rpc_status),
                   static_cast<unsigned long long>(size));
}
