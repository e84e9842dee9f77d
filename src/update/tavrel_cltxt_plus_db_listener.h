// Tavrel_Cltxt_Plus_DB_Listener: the database listener of a whole-view update that also fetches, in the
// background, the cleartext of every file version it stores, so that the files of the updated view
// open without waiting for the server. A fetch that cannot be queued fails the update (message 69);
// one that fails later is reported in the log's trailer. At most kMaxQueuedFetches fetches wait at a time:
// beyond that the stream waits for them, so the agent's memory does not grow with the stream and the
// update goes at the pace of the server's cleartext. Everything else as Tavrel_View_db_listener.
#pragma once

#include "update/tavrel_view_db_listener.h"

class Tavrel_Cltxt_Plus_DB_Listener : public Tavrel_View_db_listener {
 public:
  static constexpr int kMaxQueuedFetches = 1024;

  explicit Tavrel_Cltxt_Plus_DB_Listener(Tavrel_Update* update) : Tavrel_View_db_listener(update) {}

  bool update_object(tbs_uuid_s const& replica_uuid, tbs_oid_s const& parent_oid, std::string const& path,
                     std::string const& prev_version, std::string const& curr_version, tavrel_vstat const& obj,
                     tavrel_vstat const& elem) override;

  unsigned long get_queued() const { return m_queued; }

 private:
  unsigned long m_queued = 0;
};
