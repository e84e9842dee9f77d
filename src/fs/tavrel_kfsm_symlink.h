// Tavrel_KFSM_Symlink (RPC 116): makes a view-private symbolic link. Not offered yet: the request is
// decoded and answered 1007.
//
// Threads: used by one LPC thread from creation to deletion.
#pragma once

#include "fs/tavrel_kfsm_typed_op.h"

class Tavrel_KFSM_Symlink : public Tavrel_KFSM_Typed_Op<view_symlink_req_t, view_symlink_reply_t> {
 public:
  Tavrel_KFSM_Symlink(XDR* in, XDR* out);

 protected:
  void do_request() override;
};
