#include "fs/tavrel_view_db_version.h"

#include <cstring>

#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_util.h"
#include "core/tavrel_view.h"
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_vns.h"

namespace {

bool is_version(silo_mtype_t mtype) {
  return mtype == SILO_MTYPE_DIR_VER || mtype == SILO_MTYPE_FILE_VER || mtype == SILO_MTYPE_VER3;
}

// The kind of the element of an object of kind `mtype` (a link is its own element).
silo_mtype_t elem_kind(silo_mtype_t mtype) {
  switch (mtype) {
    case SILO_MTYPE_DIR_VER: return SILO_MTYPE_DIR_ELEM;
    case SILO_MTYPE_FILE_VER:
    case SILO_MTYPE_VER3: return SILO_MTYPE_FILE_ELEM;
    default: return mtype;
  }
}

}  // namespace

int Tavrel_View_db_version::load_data() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_version", "load_data");
  uint32_t silo = 0, elem = 0;
  int st = tvr_db_in_trans(0, [&] {
    int s = tvr_db_silo_lookup(m_replica, &silo);
    if (s != 0) return s;
    silo_mtype_t mtype = 0;
    if ((s = tvr_db_obj_get_mtype(silo, m_dbid, &mtype)) != 0) return s;
    if (!is_version(mtype)) return int(TBS_ST_NOT_FOUND);
    return tvr_db_ver_get_elem(silo, m_dbid, &elem);
  });
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "version dbid %u of %s: %d", m_dbid, tbs_uuid_to_str(m_replica).c_str(), st);
    return Tavrel_Util::tbs_to_tavrel_status(st);
  }
  m_silo_dbid = silo;
  m_elem_dbid = elem;
  return 0;
}

int Tavrel_View_db_version::set_stale(bool stale) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_version", "set_stale");
  if (!ensure_loaded("set_stale")) return TAVREL_ST_FAILURE;
  int st = tvr_db_in_trans(1, [&] { return tvr_db_ver_set_stale(m_silo_dbid, m_dbid, stale ? 1 : 0); });
  return Tavrel_Util::tbs_to_tavrel_status(st);
}

bool Tavrel_View_db_version::is_stale() {
  if (!ensure_loaded("is_stale")) return false;
  int stale = 0;
  int st = tvr_db_in_trans(0, [&] { return tvr_db_ver_get_stale(m_silo_dbid, m_dbid, &stale); });
  return st == 0 && stale != 0;
}

int Tavrel_View_db_version::set_load_done(bool load_done) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_version", "set_load_done");
  if (!ensure_loaded("set_load_done")) return TAVREL_ST_FAILURE;
  int st = tvr_db_in_trans(1, [&] { return tvr_db_ver_set_load_done(m_silo_dbid, m_dbid, load_done ? 1 : 0); });
  return Tavrel_Util::tbs_to_tavrel_status(st);
}

int Tavrel_View_db_version::readdir(std::vector<tavrel_dirent>& names) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_version", "readdir");
  names.clear();
  if (!ensure_loaded("readdir")) return TAVREL_ST_FAILURE;
  std::vector<tvr_db_dirent> rows;
  int st = tvr_db_in_trans(0, [&] { return tvr_db_ver_get_sub_vers(m_silo_dbid, m_dbid, rows); });
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "names of dbid %u: %d", m_dbid, st);
    return Tavrel_Util::tbs_to_tavrel_status(st);
  }
  names.reserve(rows.size());
  for (const tvr_db_dirent& row : rows) {
    if (row.name.size() > VIEW_NAME_MAX) continue;  // the record layer refuses such names when storing
    tavrel_dirent d{};
    d.namlen = static_cast<uint32_t>(row.name.size());
    std::memcpy(d.name, row.name.data(), row.name.size());
    d.dbid = row.dbid;
    d.off = static_cast<ks_off32_t>(names.size() + 1);
    d.ver_type = row.mtype;
    d.elem_type = elem_kind(row.mtype);
    names.push_back(d);
  }
  trace.writeTrace(TRACE_LEVEL_4, "dbid %u: %zu names", m_dbid, names.size());
  return 0;
}

int Tavrel_View_db_version::get_info(tavrel_vstat& obj, tavrel_vstat& elem, uint32_t& elem_dbid) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_version", "get_info");
  if (!ensure_loaded("get_info")) return TAVREL_ST_FAILURE;
  tavrel_vstat o{}, e{};
  uint32_t ed = 0;
  int st = tvr_db_in_trans(0, [&] {
    int s = read_rvstat(m_silo_dbid, m_dbid, &o);
    if (s == 0) s = tvr_db_ver_get_elem(m_silo_dbid, m_dbid, &ed);
    return s != 0 ? s : read_rvstat(m_silo_dbid, ed, &e);
  });
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "version dbid %u: %d", m_dbid, st);
    return Tavrel_Util::tbs_to_tavrel_status(st);
  }
  obj = o;
  elem = e;
  elem_dbid = ed;
  return 0;
}

bool Tavrel_View_db_version::is_readdir_done() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_version", "is_readdir_done");
  if (!ensure_loaded("is_readdir_done")) return false;
  int done = 0;
  uint32_t gn = 0;
  int st = tvr_db_in_trans(0, [&] {
    int s = tvr_db_ver_get_readdir_done(m_silo_dbid, m_dbid, &done);
    return s != 0 ? s : tvr_db_get_ver_scope_oid(m_silo_dbid, m_dbid, nullptr, &gn);
  });
  if (st != 0) return false;
  if (gn < Tavrel_View::get_current_gn()) {
    trace.writeTrace(TRACE_LEVEL_4, "object GN (%u) stale", gn);
    return false;
  }
  return done != 0;
}

int Tavrel_View_db_version::set_readdir_done(bool done, bool& removed) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_version", "set_readdir_done");
  removed = false;
  if (!ensure_loaded("set_readdir_done")) return TAVREL_ST_FAILURE;
  bool r = false;
  int st = tvr_db_in_trans(1, [&] { return tvr_db_ver_set_readdir_done(m_silo_dbid, m_dbid, done ? 1 : 0, r); });
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "dbid %u: %d", m_dbid, st);
    return Tavrel_Util::tbs_to_tavrel_status(st);
  }
  removed = r;
  return 0;
}

int Tavrel_View_db_version::lookup(const char* name, uint32_t& ver_dbid, silo_mtype_t& mtype) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_version", "lookup");
  if (!ensure_loaded("lookup")) return TBS_ST_FAILURE;
  if (name == nullptr) return TBS_ST_BAD_ARG;
  uint32_t dbid = 0;
  silo_mtype_t kind = 0;
  int answer = 0;
  int st = tvr_db_in_trans(0, [&] {
    answer = tvr_db_vns_ver_lookup_name(m_silo_dbid, m_dbid, name, &dbid, &kind, nullptr, nullptr);
    // Unknown and to-be-confirmed are answers, not failures of the transaction.
    return answer == TBS_ST_NOT_FOUND || answer == TBS_ST_REVALIDATE ? 0 : answer;
  });
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "'%s' in dbid %u: %d", name, m_dbid, st);
    return st;
  }
  if (answer != TBS_ST_NOT_FOUND) {
    ver_dbid = dbid;
    mtype = kind;
  }
  trace.writeTrace(TRACE_LEVEL_4, "'%s' in dbid %u: %d (dbid %u mtype %d)", name, m_dbid, answer, dbid, kind);
  return answer;
}

int Tavrel_View_db_version::create(uint32_t parent, const tbs_oid_s& oid, const tbs_oid_s& elem_oid,
                                   silo_mtype_t mtype, const view_vstat_t& vstat, const char* name,
                                   const tbs_oid_s& scope, uint32_t gn, int load_state, uint32_t* dbid) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_version", "create");
  if (m_silo_dbid == 0 && Tavrel_View_db_object::load_data() != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Can't load silo object.");
    return TAVREL_ST_FAILURE;
  }
  if (!is_version(mtype) || name == nullptr) return TAVREL_ST_FAILURE;
  const tbs_oid_s* scope_p = tbs_oid_is_null(scope) ? nullptr : &scope;
  uint32_t made = 0, elem = 0;
  int st = tvr_db_in_trans(1, [&] {
    int s = tvr_db_create_vns_ver(m_silo_dbid, parent, oid, elem_oid, mtype, vstat.event_time, name, vstat.fstat,
                                  scope_p, gn, load_state, &made, nullptr, nullptr);
    return s != 0 ? s : tvr_db_ver_get_elem(m_silo_dbid, made, &elem);
  });
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "version '%s' in dbid %u: %d", name, parent, st);
    return Tavrel_Util::tbs_to_tavrel_status(st);
  }
  m_dbid = made;
  m_elem_dbid = elem;
  if (dbid != nullptr) *dbid = made;
  return 0;
}
