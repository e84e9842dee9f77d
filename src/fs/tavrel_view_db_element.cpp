#include "fs/tavrel_view_db_element.h"

#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_util.h"
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_vns.h"

int Tavrel_View_db_element::get_rvstat(tavrel_vstat& vstat) {
  // The base reads the element row's attributes and its check-out mark alike.
  return Tavrel_View_db_object::get_rvstat(vstat);
}

bool Tavrel_View_db_element::get_info(const tbs_uuid_s& replica, const tbs_oid_s& oid, uint32_t* dbid,
                                      int* status) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_element", "get_info");
  uint32_t silo = 0, found = 0;
  silo_mtype_t mtype = 0;
  int st = tvr_db_in_trans(0, [&] {
    int s = tvr_db_silo_lookup(replica, &silo);
    DB_ADDR silo_dba = 0;
    if (s == 0) s = tvr_db_vns_silo_dba(silo, &silo_dba);
    return s != 0 ? s : tvr_db_vns_obj_lookup(silo_dba, oid, &found, &mtype);
  });
  if (st == 0 && mtype != SILO_MTYPE_DIR_ELEM && mtype != SILO_MTYPE_FILE_ELEM) st = TBS_ST_NOT_FOUND;
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_4, "element %s: %d", tbs_oid_to_str(oid).c_str(), st);
    if (status != nullptr) *status = Tavrel_Util::tbs_to_tavrel_status(st);
    return false;
  }
  m_replica = replica;
  m_silo_dbid = silo;
  m_dbid = found;
  if (dbid != nullptr) *dbid = found;
  if (status != nullptr) *status = 0;
  return true;
}

int Tavrel_View_db_element::set_elem_co_ver_oid(const tbs_oid_s* ver_oid, bool checked_out) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_element", "set_elem_co_ver_oid");
  if (!ensure_loaded("set_elem_co_ver_oid")) return TAVREL_ST_FAILURE;
  int st = tvr_db_in_trans(1, [&] { return tvr_db_elem_set_checkedout(m_silo_dbid, m_dbid, ver_oid, checked_out); });
  if (st != 0) trace.writeTrace(TRACE_LEVEL_2, "check-out mark of dbid %u: %d", m_dbid, st);
  return Tavrel_Util::tbs_to_tavrel_status(st);
}

int Tavrel_View_db_element::set_co_ver_oid(const tbs_oid_s& ver_oid) {
  return set_elem_co_ver_oid(&ver_oid, !tbs_oid_is_null(ver_oid));
}

int Tavrel_View_db_element::get_co_ver_oid(tbs_oid_s& ver_oid) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_element", "get_co_ver_oid");
  if (!ensure_loaded("get_co_ver_oid")) return TAVREL_ST_FAILURE;
  int co = 0;
  tbs_oid_s oid = TBS_OID_NULL;
  int st = tvr_db_in_trans(0, [&] { return tvr_db_elem_get_checkedout(m_silo_dbid, m_dbid, &co, &oid); });
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "check-out mark of dbid %u: %d", m_dbid, st);
    return Tavrel_Util::tbs_to_tavrel_status(st);
  }
  ver_oid = co != 0 ? oid : TBS_OID_NULL;
  return 0;
}

int Tavrel_View_db_element::get_any_version(uint32_t& ver_dbid) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_element", "get_any_version");
  if (!ensure_loaded("get_any_version")) return TAVREL_ST_FAILURE;
  uint32_t ver = 0;
  int st = tvr_db_in_trans(0, [&] { return tvr_db_elem_get_ver(m_silo_dbid, m_dbid, &ver); });
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_4, "no version of element dbid %u: %d", m_dbid, st);
    return Tavrel_Util::tbs_to_tavrel_status(st);
  }
  ver_dbid = ver;
  return 0;
}
