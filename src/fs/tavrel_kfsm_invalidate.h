// Tavrel_KFSM_Invalidate (RPC 19): forgets what the agent's caches and database hold of a view, a SILO,
// an object or a name (the kind in the request), the database's view of the object included.
//
// Threads: used by one LPC thread from creation to deletion.
#pragma once

#include "fs/tavrel_kfsm_typed_op.h"

class Tavrel_KFSM_Invalidate : public Tavrel_KFSM_Typed_Op<view_invalidate_req_t, view_null_reply_t> {
 public:
  Tavrel_KFSM_Invalidate(XDR* in, XDR* out);

 protected:
  void do_request() override;
};
