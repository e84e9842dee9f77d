// Tavrel_KFSM_Rename (RPC 114): renames a view-private name. Not offered yet: the request is decoded
// and answered 1007.
//
// Threads: used by one LPC thread from creation to deletion.
#pragma once

#include "fs/tavrel_kfsm_typed_op.h"

class Tavrel_KFSM_Rename : public Tavrel_KFSM_Typed_Op<view_rename_req_t, view_dir_mod_reply_t> {
 public:
  Tavrel_KFSM_Rename(XDR* in, XDR* out);

 protected:
  void do_request() override;
};
