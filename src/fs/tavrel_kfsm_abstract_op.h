// Tavrel_KFSM_AbstractOp: one view-protocol request served on an LPC thread. The factory
// create_kfsm_request_handler picks the class by RPC number; process_request() decodes the request
// from `in`, runs do_request() and encodes the reply into `out`. A reply goes out also for a request
// that could not be decoded: its header then carries status 1001 and the xid decoded so far.
//
//   rpc_status  0 done, 3 unknown procedure, 4 the request could not be decoded, 5 the reply could not
//               be encoded; the LPC loop sends it in the LPC reply header.
//   status      the agent's own status (0, 20001, 20003, 20027 decode, 20028 encode), with `message`
//               holding catalogue texts for the trace only. Failures of the name service travel in
//               the reply header's tbs status, never here.
//
// Classes: Tavrel_KFSM_NULL (RPC 0: nothing decoded, nothing encoded, rpc_status 0) and
// Tavrel_KFSM_Unsupported (any RPC without a class: the header is decoded, reply status 1007,
// nothing encoded, rpc_status 3). Every other operation has its own class and file,
// tavrel_kfsm_<name>.{h,cpp}, over Tavrel_KFSM_Typed_Op (fs/tavrel_kfsm_typed_op.h).
//
// Threads: an operation lives on one LPC thread from creation to deletion and shares nothing.
#pragma once

#include <rpc/xdr.h>

#include <string>

#include "proto/view_records.h"
#include "proto/xdr_record.h"

class Tavrel_KFSM_AbstractOp {
 public:
  Tavrel_KFSM_AbstractOp(int rpc, XDR* in, XDR* out);
  virtual ~Tavrel_KFSM_AbstractOp();
  Tavrel_KFSM_AbstractOp(const Tavrel_KFSM_AbstractOp&) = delete;
  Tavrel_KFSM_AbstractOp& operator=(const Tavrel_KFSM_AbstractOp&) = delete;

  // The operation for `rpc` over the two streams (borrowed; they must outlive it); null only when
  // no object could be made.
  static Tavrel_KFSM_AbstractOp* create_kfsm_request_handler(int rpc, XDR* in, XDR* out);

  // The common flow: decode, serve, encode.
  virtual void process_request();

  int get_rpc() const { return m_rpc; }
  int get_status() const { return m_status; }
  int get_rpc_status() const { return m_rpc_status; }
  const std::string& get_message() const { return m_message; }

 protected:
  // The records of a derived class (owned by it) and their headers, which lead each record.
  void set_records(Xdr_Record_Base* request, view_hdr_req_t* request_hdr, Xdr_Record_Base* reply,
                   view_hdr_reply_t* reply_hdr);

  virtual void get_request();
  virtual void do_request() = 0;
  virtual void send_reply();

  XDR* m_in;
  XDR* m_out;
  int m_rpc;
  int m_status = 0;
  std::string m_message;
  Xdr_Record_Base* m_request_rec = nullptr;
  Xdr_Record_Base* m_reply_rec = nullptr;
  view_hdr_req_t* m_request = nullptr;
  view_hdr_reply_t* m_reply = nullptr;
  int m_rpc_status = 0;
};

// RPC 0: a ping. Nothing is decoded or encoded.
class Tavrel_KFSM_NULL : public Tavrel_KFSM_AbstractOp {
 public:
  Tavrel_KFSM_NULL(XDR* in, XDR* out);
  void process_request() override;

 protected:
  void get_request() override {}
  void do_request() override;
  void send_reply() override {}
};

// An RPC without a class: the header is decoded, nothing is encoded, rpc_status 3.
class Tavrel_KFSM_Unsupported : public Tavrel_KFSM_AbstractOp {
 public:
  Tavrel_KFSM_Unsupported(int rpc, XDR* in, XDR* out);

 protected:
  void do_request() override;
  void send_reply() override;

 private:
  Xdr_Record<view_hdr_req_t> m_req{xdr_view_hdr_req_t};
  Xdr_Record<view_hdr_reply_t> m_rep{xdr_view_hdr_reply_t};
};

// The LPC threads' dispatcher (installed by the agent): makes the operation for `rpc`, runs it and
// reports its rpc_status. False when no operation could be made.
bool tavrel_kfsm_dispatch(int rpc, XDR* in, XDR* out, int* rpc_status);
