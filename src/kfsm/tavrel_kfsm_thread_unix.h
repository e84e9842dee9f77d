// Tavrel_KFSM_Thread_Unix: one LPC thread of the kernel channel. It owns a module handle and two LPC
// buffers and serves view-protocol requests in a loop:
//
//   The buffer that holds the previous reply is handed to the module, which takes the reply from it
//   and writes the next request into the same buffer; the reply to that request is built in the other
//   buffer. A nonzero status from the module leaves the buffers as they are and repeats the pass with
//   the same buffer (the library does not send a reply twice). The loop ends when the module answers
//   1046 (the view is gone), when the call itself fails, or when the thread manager's shutting-down
//   flag is seen after a call returns; the module handle is closed then.
//
// Serving one request: two XDR memory streams, decoding the request payload and encoding into the
// reply buffer (capacity: what the module offers, at most 8768 bytes), are handed to the installed
// dispatcher. Without a dispatcher, or when it makes no handler, the reply has rpc_status 5 and size
// 0. No allocation is made per request by the loop itself.
//
// Nothing is shared with other threads except the dispatcher pointer (set before threads start).
#pragma once

#include <rpc/xdr.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "core/tavrel_olthread.h"
#include "proto/kfsm_records.h"

class Tavrel_Thread_Manager_Base;

// Makes and runs the operation for RPC `rpc` over the two streams. False when no handler could be
// made; otherwise true with *rpc_status set by the operation (0, 3, 4 or 5).
typedef bool (*Tavrel_KFSM_Dispatch)(int rpc, XDR* in, XDR* out, int* rpc_status);

class Tavrel_KFSM_Thread_Unix : public Tavrel_Request_Thread {
 public:
  Tavrel_KFSM_Thread_Unix(const std::string& view_tag, Tavrel_Thread_Manager_Base& mgr);
  // Closes the module handle if execute() has not.
  ~Tavrel_KFSM_Thread_Unix() override;

  // Opens the module handle; false with *err (a status) on failure. The thread may run without one:
  // its first call then fails and the loop ends.
  bool open_handle(int* err);
  int execute() override;

  // The errno stored from the last nonzero module status (ENOTCONN after 1046), 0 when none.
  int get_result() const { return m_result; }

  static void set_dispatcher(Tavrel_KFSM_Dispatch fn) { g_dispatch.store(fn); }
  static Tavrel_KFSM_Dispatch get_dispatcher() { return g_dispatch.load(); }

 private:
  // Serves the request in `req` and writes the reply into `res`.
  void serve(uint8_t* req, uint8_t* res);
  // The module sees the connection close as soon as the loop ends, not when the thread is joined:
  // after shutdown the cleanup thread has stopped and only terminate() joins what is left.
  void close_handle();

  std::string m_view_tag;
  Tavrel_Thread_Manager_Base& m_mgr;
  alignas(8) uint8_t m_buf_a[KFSM_LPC_BUF];
  alignas(8) uint8_t m_buf_b[KFSM_LPC_BUF];
  int m_handle = 0;
  int m_result = 0;

  static std::atomic<Tavrel_KFSM_Dispatch> g_dispatch;
};
