// Tavrel_KFSM_Revalidate (RPC 106): for a stale handle, the handle and attributes of the object the view
// selects now under the same name.
//
// Threads: used by one LPC thread from creation to deletion.
#pragma once

#include "fs/tavrel_kfsm_typed_op.h"

class Tavrel_KFSM_Revalidate : public Tavrel_KFSM_Typed_Op<view_getattr_req_t, view_root_reply_t> {
 public:
  Tavrel_KFSM_Revalidate(XDR* in, XDR* out);

 protected:
  void do_request() override;
};
