// Tavrel_KFSM_Mkdir (RPC 112): makes a view-private directory. Not offered yet: the request is decoded
// and answered 1007.
//
// Threads: used by one LPC thread from creation to deletion.
#pragma once

#include "fs/tavrel_kfsm_typed_op.h"

class Tavrel_KFSM_Mkdir : public Tavrel_KFSM_Typed_Op<view_mkdir_req_t, view_symlink_reply_t> {
 public:
  Tavrel_KFSM_Mkdir(XDR* in, XDR* out);

 protected:
  void do_request() override;
};
