#include "fs/tavrel_view_db_symlink.h"

#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_util.h"
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_vns.h"

int Tavrel_View_db_symlink::get_rvstat(tavrel_vstat& vstat) {
  // The base fills the link's text into `path`.
  return Tavrel_View_db_object::get_rvstat(vstat);
}

int Tavrel_View_db_symlink::create(uint32_t parent, const tbs_oid_s& oid, const struct timeval& event_time,
                                   const char* name, const char* text, const tbs_oid_s& scope, uint32_t gn,
                                   uint32_t* dbid) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_symlink", "create");
  if (m_silo_dbid == 0 && load_data() != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Can't load silo object.");
    return TAVREL_ST_FAILURE;
  }
  if (name == nullptr || text == nullptr) return TAVREL_ST_FAILURE;
  const tbs_oid_s* scope_p = tbs_oid_is_null(scope) ? nullptr : &scope;
  uint32_t made = 0;
  int st = tvr_db_in_trans(1, [&] {
    return tvr_db_create_vns_slink(m_silo_dbid, parent, oid, event_time, name, text, scope_p, gn, &made);
  });
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "link '%s' in dbid %u: %d", name, parent, st);
    return Tavrel_Util::tbs_to_tavrel_status(st);
  }
  m_dbid = made;
  if (dbid != nullptr) *dbid = made;
  return 0;
}
