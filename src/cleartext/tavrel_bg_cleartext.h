// Tavrel_BG_Cleartext: a cleartext fetch as a request of the thread pool. It owns one reference on its
// scoreboard (released by the destructor, which deletes the scoreboard's request, the Tavrel_Cleartext
// copy and the listener at the last release). Queued at low priority for a background fetch; a
// foreground caller makes one too and runs it on its own thread.
//
// Promotion: a foreground caller whose scoreboard is linked to the scoreboard of a queued background
// fetch would wait behind every other queued low-priority request. It asks the thread manager to
// promote: is_equivalent tells whether the two scoreboards are linked, one being the original of the
// other, i.e. both lead to the same working request (`work`, taken when the request is made, so that
// is_equivalent compares pointers only: it runs under the thread manager's queue mutex and may take no
// lock of the scoreboard).
#pragma once

#include <string>

#include "cleartext/tavrel_cleartext_sb_req.h"
#include "core/tavrel_olthread.h"

class Tavrel_BG_Cleartext : public Tavrel_Request {
 public:
  // Takes over the caller's reference on `scoreboard`.
  explicit Tavrel_BG_Cleartext(Tavrel_Cleartext_Scoreboard* scoreboard);
  ~Tavrel_BG_Cleartext() override;

  // Runs the scoreboard; tells the listener of a background fetch how it ended. Returns the status.
  int handle_request() override;
  // State 2 for everyone waiting on this fetch; a listener is told 20026.
  void cancel_request() override;
  bool is_equivalent(const Tavrel_Request* other) const override;
  std::string toString() const override { return "background cleartext"; }

  // execute of the scoreboard: 1 done, else failed or cancelled.
  int execute(int& status, std::string& message);
  Tavrel_Cleartext_Scoreboard* get_scoreboard() const { return scoreboard; }

 private:
  Tavrel_Cleartext_Scoreboard* scoreboard;
  const Tavrel_Cleartext_SB_req* work;  // the request that does the work (end of the scoreboard's chain)
};
