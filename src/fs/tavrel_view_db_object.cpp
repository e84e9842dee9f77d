#include "fs/tavrel_view_db_object.h"

#include <cstring>
#include <string>

#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_util.h"
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_vns.h"
#include "fs/tavrel_view_db_element.h"
#include "fs/tavrel_view_db_symlink.h"
#include "fs/tavrel_view_db_version.h"

namespace {

// The SILO row of `replica`, in the caller's transaction.
int silo_of(const tbs_uuid_s& replica, uint32_t* silo) { return tvr_db_silo_lookup(replica, silo); }

}  // namespace

std::unique_ptr<Tavrel_View_db_object> Tavrel_View_db_object::for_kind(const tbs_uuid_s& replica, uint32_t dbid,
                                                                       silo_mtype_t mtype, const char* what) {
  switch (mtype) {
    case SILO_MTYPE_DIR_ELEM:
    case SILO_MTYPE_FILE_ELEM:
      return std::make_unique<Tavrel_View_db_element>(replica, dbid);
    case SILO_MTYPE_DIR_VER:
    case SILO_MTYPE_FILE_VER:
    case SILO_MTYPE_VER3:
      return std::make_unique<Tavrel_View_db_version>(replica, dbid);
    case SILO_MTYPE_SYMLINK:
      return std::make_unique<Tavrel_View_db_symlink>(replica, dbid);
    default:
      break;
  }
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_object", "get_object");
  trace.writeTrace(TRACE_LEVEL_2, "unexpected mtype %d, getting type of %s", mtype, what);
  return nullptr;
}

namespace {

// The object of kind `mtype`, handed out loaded so that its first operation needs no SILO lookup.
std::unique_ptr<Tavrel_View_db_object> make_object(const tbs_uuid_s& replica, uint32_t dbid, silo_mtype_t mtype,
                                                   const std::string& what) {
  auto obj = Tavrel_View_db_object::for_kind(replica, dbid, mtype, what.c_str());
  if (obj == nullptr || obj->load_data() != 0) return nullptr;
  return obj;
}

}  // namespace

bool Tavrel_View_db_object::loaded(const char* function) const {
  if (m_silo_dbid != 0 && m_dbid != 0) return true;
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_object", function);
  trace.writeTrace(TRACE_LEVEL_2, "Caller didn't load data.");
  return false;
}

bool Tavrel_View_db_object::ensure_loaded(const char* function) {
  if (m_silo_dbid != 0 && m_dbid != 0) return true;
  if (load_data() == 0 && m_dbid != 0) return true;
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_object", function);
  trace.writeTrace(TRACE_LEVEL_2, "Can't load silo object.");
  return false;
}

int Tavrel_View_db_object::load_data() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_object", "load_data");
  uint32_t silo = 0;
  int st = tvr_db_in_trans(0, [&] { return silo_of(m_replica, &silo); });
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "unknown SILO uuid %s: %s", tbs_uuid_to_str(m_replica).c_str(),
                     std::to_string(st).c_str());
    return Tavrel_Util::tbs_to_tavrel_status(st);
  }
  m_silo_dbid = silo;
  return 0;
}

int Tavrel_View_db_object::get_dbid(unsigned& dbid) {
  if (m_dbid == 0) return TAVREL_ST_FAILURE;
  dbid = m_dbid;
  return 0;
}

int Tavrel_View_db_object::read_rvstat(uint32_t silo, uint32_t dbid, tavrel_vstat* out) {
  *out = tavrel_vstat{};
  int st = tvr_db_get_ver_vstat(silo, dbid, &out->vstat);
  if (st != 0) return st;
  // A link is its own element and carries no check-out mark; its text is its path.
  if (out->vstat.mtype == SILO_MTYPE_SYMLINK) {
    std::string text;
    vns_db_obj row{};
    if ((st = tvr_db_get_slink_info(silo, dbid, &row, &text)) != 0) return st;
    if (text.size() > TBS_PNAME_MAX) return TBS_ST_TOO_LONG;
    std::memcpy(out->path, text.data(), text.size());
    out->path[text.size()] = '\0';
    return 0;
  }
  int co = 0;
  st = tvr_db_elem_get_checkedout(silo, dbid, &co, nullptr);
  if (st == TBS_ST_NOT_FOUND) st = 0;  // a version whose element row is missing shows as not checked out
  out->checked_out = co != 0 ? 1 : 0;
  return st;
}

int Tavrel_View_db_object::get_rvstat(tavrel_vstat& vstat) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_object", "get_rvstat");
  if (!loaded("get_rvstat")) return TAVREL_ST_FAILURE;
  tavrel_vstat out{};
  int st = tvr_db_in_trans(0, [&] { return read_rvstat(m_silo_dbid, m_dbid, &out); });
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "attributes of dbid %u: %d", m_dbid, st);
    return Tavrel_Util::tbs_to_tavrel_status(st);
  }
  vstat = out;
  return 0;
}

int Tavrel_View_db_object::invalidate_obj() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_object", "invalidate_obj");
  if (!loaded("invalidate_obj")) return TAVREL_ST_FAILURE;
  int st = tvr_db_in_trans(1, [&] { return tvr_db_obj_set_validated(m_silo_dbid, m_dbid, 0); });
  if (st != 0) trace.writeTrace(TRACE_LEVEL_2, "invalidating dbid %u: %d", m_dbid, st);
  return Tavrel_Util::tbs_to_tavrel_status(st);
}

std::unique_ptr<Tavrel_View_db_object> Tavrel_View_db_object::get_object(const tbs_uuid_s& replica, uint32_t dbid,
                                                                         silo_mtype_t* mtype) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_object", "get_object");
  uint32_t silo = 0;
  int st = tvr_db_in_trans(0, [&] { return silo_of(replica, &silo); });
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "unknown SILO uuid %s: %s", tbs_uuid_to_str(replica).c_str(),
                     std::to_string(st).c_str());
    return nullptr;
  }
  silo_mtype_t kind = 0;
  st = tvr_db_in_trans(0, [&] { return tvr_db_obj_get_mtype(silo, dbid, &kind); });
  std::string what = "dbid " + std::to_string(dbid);
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "error getting type of %s: %s", what.c_str(), std::to_string(st).c_str());
    return nullptr;
  }
  if (mtype != nullptr) *mtype = kind;
  return make_object(replica, dbid, kind, what);
}

std::unique_ptr<Tavrel_View_db_object> Tavrel_View_db_object::get_object(const tbs_uuid_s& replica,
                                                                         const tbs_oid_s& oid, silo_mtype_t* mtype) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_object", "get_object");
  uint32_t silo = 0;
  int st = tvr_db_in_trans(0, [&] { return silo_of(replica, &silo); });
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "unknown SILO uuid %s: %s", tbs_uuid_to_str(replica).c_str(),
                     std::to_string(st).c_str());
    return nullptr;
  }
  uint32_t dbid = 0;
  silo_mtype_t kind = 0;
  st = tvr_db_in_trans(0, [&] {
    DB_ADDR silo_dba = 0;
    int s = tvr_db_vns_silo_dba(silo, &silo_dba);
    return s != 0 ? s : tvr_db_vns_obj_lookup(silo_dba, oid, &dbid, &kind);
  });
  std::string what = "oid " + tbs_oid_to_str(oid);
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "error getting type of %s: %s", what.c_str(), std::to_string(st).c_str());
    return nullptr;
  }
  if (mtype != nullptr) *mtype = kind;
  return make_object(replica, dbid, kind, what);
}
