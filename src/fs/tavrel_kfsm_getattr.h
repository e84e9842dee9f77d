// Tavrel_KFSM_Getattr (RPC 108): the attributes, current handle and LVUT of the object a handle names.
// Name state and flag of the reply stay 0.
//
// Threads: used by one LPC thread from creation to deletion.
#pragma once

#include "fs/tavrel_kfsm_typed_op.h"

class Tavrel_KFSM_Getattr : public Tavrel_KFSM_Typed_Op<view_getattr_req_t, view_getattr_reply_t> {
 public:
  Tavrel_KFSM_Getattr(XDR* in, XDR* out);

 protected:
  void do_request() override;
};
