// Tavrel_KFSM_Change_Mtype (RPC 117): changes the kind of a view-private object. Not offered yet: the
// request is decoded and answered 1007.
//
// Threads: used by one LPC thread from creation to deletion.
#pragma once

#include "fs/tavrel_kfsm_typed_op.h"

class Tavrel_KFSM_Change_Mtype : public Tavrel_KFSM_Typed_Op<view_change_mtype_req_t, view_dir_reply_t> {
 public:
  Tavrel_KFSM_Change_Mtype(XDR* in, XDR* out);

 protected:
  void do_request() override;
};
