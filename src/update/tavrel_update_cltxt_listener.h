// Tavrel_Update_Cltxt_listener: the listener of one background cleartext fetch queued by an update.
// While it exists it counts as a blocking request of the update (Tavrel_Update::add_blocking), so the
// update's log is closed only after every fetch it queued has ended (completed, failed, cancelled, or
// dropped because an equal fetch was under way: the fetch deletes its listener in every case). A
// failure is kept for the log's trailer through Tavrel_Update::bg_error.
//
// queue_cleartext_fetch asks for the cleartext of a file version in the background; a version already
// cached costs nothing more. Its failure to queue is message 69.
#pragma once

#include <string>

#include "base/tbs.h"
#include "cleartext/tavrel_bg_cleartext_listener.h"
#include "proto/tavrel_records.h"

class Tavrel_Update;
class Tavrel_View;

class Tavrel_Update_Cltxt_listener : public Tavrel_BG_Cleartext_listener {
 public:
  explicit Tavrel_Update_Cltxt_listener(Tavrel_Update* update);
  ~Tavrel_Update_Cltxt_listener() override;

  void completed() override;
  void failed(int status, std::string message) override;

  // Queues the fetch of version `vstat` (dbid `dbid`, version string `version`) of `replica` into the
  // view's cache. 0, or the status of the failure with message 69 in `message`.
  static int queue_cleartext_fetch(const tbs_uuid_s& replica, uint32_t dbid, const tavrel_vstat& vstat,
                                   const std::string& version, Tavrel_View* view, Tavrel_Update* update,
                                   std::string& message);
  // Whether a version of this kind has cleartext to fetch (file versions).
  static bool has_cleartext(silo_mtype_t mtype);

 private:
  Tavrel_Update* m_update;
};
