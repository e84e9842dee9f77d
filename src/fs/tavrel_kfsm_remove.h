// Tavrel_KFSM_Remove (RPC 111): removes a name. Not offered yet: the request is decoded and answered 1007.
//
// Threads: used by one LPC thread from creation to deletion.
#pragma once

#include "fs/tavrel_kfsm_typed_op.h"

class Tavrel_KFSM_Remove : public Tavrel_KFSM_Typed_Op<view_dir_req_t, view_dir_mod_reply_t> {
 public:
  Tavrel_KFSM_Remove(XDR* in, XDR* out);

 protected:
  void do_request() override;
};
