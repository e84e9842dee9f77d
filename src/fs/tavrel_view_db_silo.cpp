#include "fs/tavrel_view_db_silo.h"

#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_util.h"
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_silo.h"

int Tavrel_View_db_silo::lookup_silo(unsigned& silo_dbid) {
  uint32_t silo = 0;
  int st = tvr_db_in_trans(0, [&] { return tvr_db_silo_lookup(m_replica, &silo); });
  if (st != 0) {
    Tavrel_Trace trace(TAVREL, "Tavrel_View_db_silo", "lookup_silo");
    trace.writeTrace(TRACE_LEVEL_4, "SILO %s: %d", tbs_uuid_to_str(m_replica).c_str(), st);
    return Tavrel_Util::tbs_to_tavrel_status(st);
  }
  silo_dbid = silo;
  return 0;
}

int Tavrel_View_db_silo::create_silo(const std::string& path, unsigned& silo_dbid) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_silo", "create_silo");
  uint32_t silo = 0;
  int st = tvr_db_in_trans(1, [&] {
    int s = tvr_db_silo_lookup(m_replica, &silo);
    return s == TBS_ST_NOT_FOUND ? tvr_db_silo_create(m_replica, path, &silo) : s;
  });
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "SILO %s at %s: %d", tbs_uuid_to_str(m_replica).c_str(), path.c_str(), st);
    return Tavrel_Util::tbs_to_tavrel_status(st);
  }
  silo_dbid = silo;
  return 0;
}
