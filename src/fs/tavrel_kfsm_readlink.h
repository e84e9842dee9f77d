// Tavrel_KFSM_Readlink (RPC 29): the text of a symbolic link, at most 1024 bytes whatever the caller
// allows.
//
// Threads: used by one LPC thread from creation to deletion.
#pragma once

#include "fs/tavrel_kfsm_typed_op.h"

class Tavrel_KFSM_Readlink : public Tavrel_KFSM_Typed_Op<view_readlink_req_t, view_readlink_reply_t> {
 public:
  Tavrel_KFSM_Readlink(XDR* in, XDR* out);
  ~Tavrel_KFSM_Readlink() override;

 protected:
  void do_request() override;

 private:
  char* m_buffer = nullptr;
};
