// Tavrel_KFSM_Gpath (RPC 15): the path of an object inside its SILO, and its extended path. Both
// maxima are cut to 1024 bytes.
//
// Threads: used by one LPC thread from creation to deletion.
#pragma once

#include "fs/tavrel_kfsm_typed_op.h"

class Tavrel_KFSM_Gpath : public Tavrel_KFSM_Typed_Op<view_gpath_req_t, view_gpath_reply_t> {
 public:
  Tavrel_KFSM_Gpath(XDR* in, XDR* out);
  ~Tavrel_KFSM_Gpath() override;

 protected:
  void do_request() override;

 private:
  char* m_path = nullptr;
  char* m_ext_path = nullptr;
};
