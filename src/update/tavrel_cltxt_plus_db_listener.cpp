#include "update/tavrel_cltxt_plus_db_listener.h"

#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "update/tavrel_update.h"
#include "update/tavrel_update_cltxt_listener.h"

bool Tavrel_Cltxt_Plus_DB_Listener::update_object(const tbs_uuid_s& replica_uuid, const tbs_oid_s& parent_oid,
                                                  const std::string& path, const std::string& prev_version,
                                                  const std::string& curr_version, const tavrel_vstat& obj,
                                                  const tavrel_vstat& elem) {
  if (!Tavrel_View_db_listener::update_object(replica_uuid, parent_oid, path, prev_version, curr_version, obj, elem))
    return false;
  if (!Tavrel_Update_Cltxt_listener::has_cleartext(obj.vstat.mtype) || m_last_ver_dbid == 0) return true;
  Tavrel_Trace trace(TAVREL, "Tavrel_Cltxt_Plus_DB_Listener", "update_object");
  Tavrel_Update::wait_for_fewer_blocking(kMaxQueuedFetches);
  std::string text;
  int st = Tavrel_Update_Cltxt_listener::queue_cleartext_fetch(replica_uuid, m_last_ver_dbid, obj, curr_version,
                                                              update->get_update_view(), update, text);
  if (st != 0) return fail_text(st, text);
  m_queued++;
  return true;
}
