// Tavrel_KFSM_Create (RPC 110): creates a view-private file and returns its container path. Not
// offered yet: the request is decoded and answered 1007.
//
// Threads: used by one LPC thread from creation to deletion.
#pragma once

#include "fs/tavrel_kfsm_typed_op.h"

class Tavrel_KFSM_Create : public Tavrel_KFSM_Typed_Op<view_create_req_t, view_create_reply_t> {
 public:
  Tavrel_KFSM_Create(XDR* in, XDR* out);

 protected:
  void do_request() override;
};
