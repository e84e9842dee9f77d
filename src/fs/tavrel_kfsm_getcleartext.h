// Tavrel_KFSM_Getcleartext (RPC 12): the path of an object's cleartext. The reply record is encoded
// twice, one copy behind the other (the module reads the first). The cleartext cache is not offered
// yet: the request is decoded and answered 1007.
//
// Threads: used by one LPC thread from creation to deletion.
#pragma once

#include "fs/tavrel_kfsm_typed_op.h"

class Tavrel_KFSM_Getcleartext : public Tavrel_KFSM_Typed_Op<view_readlink_req_t, view_cltxt_reply_t> {
 public:
  Tavrel_KFSM_Getcleartext(XDR* in, XDR* out);

 protected:
  void do_request() override;
};
