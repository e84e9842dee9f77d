// Tavrel_BG_Readdir: a directory read queued to the thread pool at low priority. It owns one
// reference on its scoreboard (released by the destructor); the scoreboard, not the pool, merges equal
// reads.
//
// Promotion: a foreground reader that links to the scoreboard of a queued background read would wait
// behind every other queued low-priority request while it holds tavrel_cache_mutex. It asks the thread
// manager to promote the queued request: is_equivalent tells the one whose scoreboard does the work the
// foreground reader waits on (promote() builds the probe): both lead to the same working request.
// is_equivalent runs under the thread manager's queue mutex and compares pointers only. No other caller
// of is_equivalent exists, so the pool never merges two of these.
#pragma once

#include <cstdint>
#include <string>

#include "base/tbs.h"
#include "core/tavrel_olthread.h"
#include "fs/tavrel_readdir_sb_req.h"

class Tavrel_BG_Readdir : public Tavrel_Request {
 public:
  // Takes over the caller's reference on `scoreboard`.
  Tavrel_BG_Readdir(const tbs_uuid_s& uuid, uint32_t dbid, Tavrel_Readdir_Scoreboard* scoreboard);
  ~Tavrel_BG_Readdir() override;

  // Runs the scoreboard; after a failed listing invalidates the half-stored directory (no lock held).
  int handle_request() override;
  // State 2 for everyone waiting on this read.
  void cancel_request() override;
  bool is_equivalent(const Tavrel_Request* other) const override;
  std::string toString() const override { return "background readdir"; }

  // Moves the queued background read that does the work of `linked` (a foreground scoreboard linked to
  // it) to the foreground queue. Nothing happens when none is queued (it runs or has run).
  static void promote(Tavrel_Readdir_Scoreboard* linked);

 private:
  // A probe that holds no reference (used by promote()).
  struct Probe {};
  Tavrel_BG_Readdir(Probe, Tavrel_Readdir_Scoreboard* scoreboard);

  tbs_uuid_s uuid;
  uint32_t dbid;
  Tavrel_Readdir_Scoreboard* scoreboard;
  Tavrel_Readdir_SB_req* work;  // the request that does the work (the end of the scoreboard's chain)
  bool owns_reference;
};
