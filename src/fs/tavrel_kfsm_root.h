// Tavrel_KFSM_Root (RPC 105): binds a SILO replica's root: its handle, attributes, name state and LVUT.
//
// Threads: used by one LPC thread from creation to deletion.
#pragma once

#include "fs/tavrel_kfsm_typed_op.h"

class Tavrel_KFSM_Root : public Tavrel_KFSM_Typed_Op<view_replica_root_req_t, view_getattr_reply_t> {
 public:
  Tavrel_KFSM_Root(XDR* in, XDR* out);

 protected:
  void do_request() override;
};
