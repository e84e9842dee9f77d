// Tavrel_KFSM_Lookup (RPC 107): one name in a directory: handle, attributes, name state, whether the
// kernel may cache the answer, and the SILO's LVUT. The name state travels with every status.
//
// Threads: used by one LPC thread from creation to deletion.
#pragma once

#include "fs/tavrel_kfsm_typed_op.h"

class Tavrel_KFSM_Lookup : public Tavrel_KFSM_Typed_Op<view_lookup_req_t, view_lookup_reply_t> {
 public:
  Tavrel_KFSM_Lookup(XDR* in, XDR* out);

 protected:
  void do_request() override;
};
