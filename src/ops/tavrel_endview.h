// Tavrel_Endview: the end of the view, for the request "EndView" and for a shutdown signal (then
// built in code with the forced flag, on the forced-shutdown thread).
//
// Request: <EndView version="1" tx-id="..."/>. Answer: the envelope; status-code 0 when the view
// ends (internally 20026, which makes the pool thread end after sending it), otherwise the failure.
// The status message lists, line by line, what happened to each SILO.
//
// perform_endview:
//   1. the view (20019 without one) and the thread manager (20031 without one);
//   2. forced only: the running update is aborted and awaited; a normal end lets it run;
//   3. every SILO of the mount table is unmounted in the module, in tag order; a busy one is tried
//      once more after 2 s. Unmounted (or already gone): message 76. Failed: message 75 and that
//      status, and message 75 also to the view's log as an error (imsg_print); after the last one,
//      message 77 and the SILOs unmounted so far are mounted again, each answered by message 88, or
//      87 with its status. The mount table and ".mounted_silos" stay as they are,
//      so the next start mounts the same set;
//   4. a normal end stops here when an unmount failed: the view stays up and the client sees which
//      SILO is busy;
//   5. the view is unregistered from the module. After failed unmounts (forced only) message 86, the
//      SILOs are mounted again and the status becomes the module's answer: the process goes on, no
//      longer registered, until EndView or SIGKILL. Otherwise the answer of the module is not looked
//      at;
//   6. no new work; queued requests are answered 20026; logout when online; wait until the
//      connection thread has begun reaping threads; status 20026.
//
// Two ends may run at once (a signal during EndView); each walks the same steps and the module
// answers "not mounted" for what is gone.
#pragma once

#include <string>
#include <vector>

#include "core/tavrel_config.h"
#include "ops/tavrel_abstract_op.h"

class Tavrel_Endview : public Tavrel_AbstractOp {
 public:
  static constexpr const char* REQUEST_NAME = "EndView";
  // Time before a busy SILO is tried once more.
  static constexpr int BUSY_RETRY_SECONDS = 2;

  Tavrel_Endview(const std::string& location, OlXmlDoc* doc) : Tavrel_AbstractOp(location, doc) {}
  // The forced end of a shutdown signal (no request document).
  Tavrel_Endview(const std::string& location, bool forced)
      : Tavrel_AbstractOp(REQUEST_NAME, location), m_forced(forced) {}

  void process_request() override;
  void get_response(std::string& response) override;

  // The steps above. Returns the status (20026 when the view ends).
  int perform_endview();
  // Step 3, on its own: 0 or the status of the last failed unmount.
  int unmount_silos();

  const std::vector<SILO_mount_info>& get_unmounted() const { return m_unmounted; }

 private:
  int remount_silos();

  std::vector<SILO_mount_info> m_unmounted;
  bool m_forced = false;
};
