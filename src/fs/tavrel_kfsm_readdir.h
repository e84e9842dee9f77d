// Tavrel_KFSM_Readdir (RPC 10): one slice of a directory listing from a cursor. The listing buffer is
// at most one LPC message long whatever the kernel asks (a larger one could never be sent), and is
// this object's own; the reply only borrows it.
//
// Threads: used by one LPC thread from creation to deletion.
#pragma once

#include "fs/tavrel_kfsm_typed_op.h"

class Tavrel_KFSM_Readdir : public Tavrel_KFSM_Typed_Op<view_readdir_req_t, view_readdir_reply_t> {
 public:
  Tavrel_KFSM_Readdir(XDR* in, XDR* out);
  ~Tavrel_KFSM_Readdir() override;

 protected:
  void do_request() override;

 private:
  char* m_buffer = nullptr;
};
