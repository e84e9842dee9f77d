#include "fs/tavrel_view_db_abstract_ver.h"

#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_util.h"
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_vns.h"

int Tavrel_View_db_abstract_ver::get_rvstat(tavrel_vstat& vstat) { return Tavrel_View_db_object::get_rvstat(vstat); }

int Tavrel_View_db_abstract_ver::get_scope(tbs_oid_s& scope_oid, unsigned& gn) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_abstract_ver", "get_scope");
  if (!loaded("get_scope")) return TAVREL_ST_FAILURE;
  tbs_oid_s oid = TBS_OID_NULL;
  uint32_t g = 0;
  int st = tvr_db_in_trans(0, [&] { return tvr_db_get_ver_scope_oid(m_silo_dbid, m_dbid, &oid, &g); });
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "scope of dbid %u: %d", m_dbid, st);
    return Tavrel_Util::tbs_to_tavrel_status(st);
  }
  scope_oid = oid;
  gn = g;
  return 0;
}

int Tavrel_View_db_abstract_ver::invalidate_name(const char* name) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_abstract_ver", "invalidate_name");
  if (!loaded("invalidate_name")) return TAVREL_ST_FAILURE;
  if (name == nullptr) return TAVREL_ST_FAILURE;
  int st = tvr_db_in_trans(1, [&] {
    uint32_t obj = 0;
    int s = tvr_db_vns_ver_lookup_name(m_silo_dbid, m_dbid, name, &obj, nullptr, nullptr, nullptr);
    // A name that is already to be confirmed (1033) is still cleared: its object's other names follow.
    if (s != 0 && s != TBS_ST_REVALIDATE) return s;
    return tvr_db_ver_set_validated(m_silo_dbid, obj, 0);
  });
  if (st != 0) trace.writeTrace(TRACE_LEVEL_4, "name '%s' in dbid %u: %d", name, m_dbid, st);
  return Tavrel_Util::tbs_to_tavrel_status(st);
}
