// Tavrel_Metadata_BG_Flush: a queued flush of one object from the name service and the kernel module,
// for callers that hold locks under which the flush cannot run (it takes tavrel_cache_mutex and calls
// the module). Low priority; never merged with another request; cancelling does nothing but drop it.
#pragma once

#include <string>

#include "base/tbs.h"
#include "core/tavrel_olthread.h"

class Tavrel_Metadata_BG_Flush : public Tavrel_Request {
 public:
  Tavrel_Metadata_BG_Flush(const tbs_uuid_s& uuid, const tbs_oid_s& oid, int op);
  ~Tavrel_Metadata_BG_Flush() override;

  // ns_fstat_flush, then view_inval_obj with names and kernel: 0 or the mapped status (20000 range),
  // a failure logged as catalogue message 124.
  int handle_request() override;
  void cancel_request() override {}
  bool is_equivalent(const Tavrel_Request*) const override { return false; }
  std::string toString() const override { return "metadata flush"; }

 private:
  tbs_uuid_s uuid;
  tbs_oid_s oid;
  int op;
};
