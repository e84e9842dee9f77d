// Tavrel_KFSM_Readdir_Ext (RPC 14): a listing slice whose entries carry name state, rule and the
// element's and version's oids and kinds. Buffer rules as Tavrel_KFSM_Readdir.
//
// Threads: used by one LPC thread from creation to deletion.
#pragma once

#include "fs/tavrel_kfsm_typed_op.h"

class Tavrel_KFSM_Readdir_Ext : public Tavrel_KFSM_Typed_Op<view_readdir_ext_req_t, view_readdir_ext_reply_t> {
 public:
  Tavrel_KFSM_Readdir_Ext(XDR* in, XDR* out);
  ~Tavrel_KFSM_Readdir_Ext() override;

 protected:
  void do_request() override;

 private:
  char* m_buffer = nullptr;
};
