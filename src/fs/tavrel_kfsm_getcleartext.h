// Tavrel_KFSM_Getcleartext (RPC 12): the path of an object's cleartext (ns_get_cltxt), at most 1024
// bytes whatever the caller allows. The reply record is encoded twice, one copy behind the other (the
// module reads the first).
//
// Threads: used by one LPC thread from creation to deletion.
#pragma once

#include "fs/tavrel_kfsm_typed_op.h"

class Tavrel_KFSM_Getcleartext : public Tavrel_KFSM_Typed_Op<view_readlink_req_t, view_cltxt_reply_t> {
 public:
  Tavrel_KFSM_Getcleartext(XDR* in, XDR* out);
  ~Tavrel_KFSM_Getcleartext() override;

 protected:
  void do_request() override;

 private:
  char* m_buffer = nullptr;  // the path the reply carries
};
