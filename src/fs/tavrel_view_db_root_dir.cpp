#include "fs/tavrel_view_db_root_dir.h"

#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_util.h"
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_vns.h"

int Tavrel_View_db_root_dir::load_data() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_root_dir", "load_data");
  uint32_t silo = 0, root = 0, elem = 0;
  int st = tvr_db_in_trans(0, [&] {
    int s = tvr_db_silo_lookup(m_replica, &silo);
    if (s == 0) s = tvr_db_get_silo_root_dir(silo, &root);
    return s != 0 ? s : tvr_db_ver_get_elem(silo, root, &elem);
  });
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_4, "root of %s: %d", tbs_uuid_to_str(m_replica).c_str(), st);
    return Tavrel_Util::tbs_to_tavrel_status(st);
  }
  m_silo_dbid = silo;
  m_dbid = root;
  m_elem_dbid = elem;
  return 0;
}

bool Tavrel_View_db_root_dir::has_root_dir() {
  int has = 0;
  int st = tvr_db_in_trans(0, [&] {
    uint32_t silo = 0;
    int s = tvr_db_silo_lookup(m_replica, &silo);
    return s != 0 ? s : tvr_db_silo_has_root_dir(silo, &has);
  });
  return st == 0 && has != 0;
}

int Tavrel_View_db_root_dir::get_root_dir(uint32_t& ver_dbid) {
  if (!ensure_loaded("get_root_dir")) return TAVREL_ST_FAILURE;
  ver_dbid = m_dbid;
  return 0;
}

int Tavrel_View_db_root_dir::get_info(tavrel_vstat& obj, tavrel_vstat& elem, uint32_t& ver_dbid,
                                      uint32_t& elem_dbid) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_root_dir", "get_info");
  // Loaded afresh: the root may have been replaced since this object last looked.
  if (load_data() != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Can't load silo object.");
    return TAVREL_ST_FAILURE;
  }
  tavrel_vstat o{}, e{};
  int st = tvr_db_in_trans(0, [&] {
    int s = read_rvstat(m_silo_dbid, m_dbid, &o);
    return s != 0 ? s : read_rvstat(m_silo_dbid, m_elem_dbid, &e);
  });
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "root dbid %u: %d", m_dbid, st);
    return Tavrel_Util::tbs_to_tavrel_status(st);
  }
  obj = o;
  elem = e;
  ver_dbid = m_dbid;
  elem_dbid = m_elem_dbid;
  return 0;
}

int Tavrel_View_db_root_dir::create(const tbs_oid_s& scope, uint32_t gn, int load_state, const tavrel_vstat& obj,
                                    const tavrel_vstat& elem, uint32_t* ver_dbid, uint32_t* elem_dbid) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db_root_dir", "create");
  const view_vstat_t& o = obj.vstat;
  const view_vstat_t& e = elem.vstat;
  const tbs_oid_s& elem_oid = tbs_oid_is_null(e.obj_oid) ? o.elem_oid : e.obj_oid;
  if (o.mtype != SILO_MTYPE_DIR_VER || (e.mtype != SILO_MTYPE_DIR_ELEM && e.mtype != SILO_MTYPE_NONE) ||
      tbs_oid_is_null(o.obj_oid) || tbs_oid_is_null(elem_oid) ||
      (!tbs_oid_is_null(o.elem_oid) && !(o.elem_oid == elem_oid))) {
    trace.writeTrace(TRACE_LEVEL_1, "refusing root: mtype %d, element mtype %d, oid %s, element oid %s / %s", o.mtype,
                     e.mtype, tbs_oid_to_str(o.obj_oid).c_str(), tbs_oid_to_str(o.elem_oid).c_str(),
                     tbs_oid_to_str(e.obj_oid).c_str());
    return TAVREL_ST_FAILURE;
  }
  const tbs_oid_s* scope_p = tbs_oid_is_null(scope) ? nullptr : &scope;
  // An element without attributes of its own takes the version's.
  const view_vstat_t& ea = e.mtype == SILO_MTYPE_NONE ? o : e;
  uint32_t silo = 0, root = 0, el = 0;
  int st = tvr_db_in_trans(1, [&] {
    // The first root of a SILO the view meets brings its row: an empty host and path (":"), which the
    // module's mount information may fill in later.
    int s = tvr_db_silo_lookup(m_replica, &silo);
    if (s == TBS_ST_NOT_FOUND) s = tvr_db_silo_create(m_replica, ":", &silo);
    if (s == 0) {
      s = tvr_db_create_vns_elem(silo, elem_oid, SILO_MTYPE_DIR_ELEM, ea.event_time, ea.fstat,
                                 elem.checked_out || obj.checked_out, obj.checked_out ? &o.obj_oid : nullptr, &el);
    }
    return s != 0 ? s
                  : tvr_db_create_root_dir(silo, o.obj_oid, elem_oid, o.event_time, o.fstat, scope_p, gn, load_state,
                                           &root);
  });
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Error creating root dir: %d", st);
    return Tavrel_Util::tbs_to_tavrel_status(st);
  }
  m_silo_dbid = silo;
  m_dbid = root;
  m_elem_dbid = el;
  if (ver_dbid != nullptr) *ver_dbid = root;
  if (elem_dbid != nullptr) *elem_dbid = el;
  trace.writeTrace(TRACE_LEVEL_4, "root dbid %u element dbid %u", root, el);
  return 0;
}
