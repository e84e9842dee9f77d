#include "ns/ns_rpc.h"

#include <algorithm>
#include <cstring>
#include <mutex>

#include "base/imsg.h"
#include "core/tavrel_trace.h"
#include "fs/tavrel_metadata.h"
#include "fs/tavrel_view_db_element.h"
#include "ns/ns_cache.h"
#include "ns/ns_fstat.h"
#include "ns/ns_locate.h"
#include "ns/ns_lookup.h"
#include "ns/ns_silo.h"
#include "ns/tavrel_db_utls.h"

namespace {

constexpr size_t kLinkTextMax = 65535;  // the longest text the view database stores for an inode

// An object whose attributes are gone from the view database: reported and flushed, 1087. The caller's
// reference is consumed. A SILO object paired with a cover goes through its cover, which holds the
// other reference on it.
int vanished(obj_entry* obj) {
  imsg_print(IMSG_ERR, "Silo stale %s: Flushing\n", locate_obj_name(obj).c_str());
  if (obj->otype != CACHE_COVER_OBJ && obj->cover_obj != nullptr) {
    obj_entry* cover = obj->cover_obj;
    obj_inc_ref(cover);
    obj_free(obj);
    obj = cover;
  }
  obj_flush(obj);
  return TBS_ST_STALE;
}

// makehandle, fstat_vstat, and the vanished rule (the view database has no attributes: 1002, or 1087 for
// an inode deleted since the object was cached), for getattr and revalidate. Consumes the reference.
int answer_attributes(obj_entry* obj, int hm, view_fhandle_t* fh_out, view_vstat_t* vstat, struct timeval* lvut) {
  makehandle(obj, hm, fh_out);
  int st = fstat_vstat(obj, hm, vstat);
  if (st == TBS_ST_NOT_FOUND || st == TBS_ST_STALE) return vanished(obj);
  if (lvut != nullptr && obj->silo != nullptr) *lvut = obj->silo->lvut;
  obj_free(obj);
  return st;
}

}  // namespace

int ns_root(const tbs_oid_s* silo_oid, const tbs_uuid_s* replica_uuid, const char* pathname, view_hm_warp_opt warp,
            view_fhandle_t* fh, view_vstat_t* vstat, view_name_state_t* name_state, tbs_boolean_t* flag,
            struct timeval* lvut, int* checked_out, tbs_oid_s* co_ver_oid) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_rpc", "ns_root");
  (void)silo_oid;
  if (replica_uuid == nullptr) return TBS_ST_BAD_ARG;
  int st = 0;
  view_silo* silo = silo_create(*replica_uuid, &st);
  if (silo == nullptr) return st;
  if (pathname != nullptr && *pathname != '\0') return TBS_ST_BAD_ARG;
  int cacheable = 0;
  uint32_t state = 0;
  obj_entry* obj = lookup_root_ext(silo, warp, &cacheable, &state, &st);
  if (obj == nullptr) return st;
  const int hm = (state & VIEW_NAME_STATE_HM) ? 1 : 0;
  makehandle(obj, hm, fh);
  st = fstat_vstat(obj, hm, vstat);
  if (st == 0 && checked_out != nullptr) {
    *checked_out = (state & VIEW_NAME_STATE_CHECKEDOUT) ? 1 : 0;
    if (*checked_out && co_ver_oid != nullptr) {
      Tavrel_View_db_element elem(silo->uuid, obj_2elem(obj)->dbid);
      if (elem.get_co_ver_oid(*co_ver_oid) != 0) st = TBS_ST_INTERNAL;
    }
  }
  obj_free(obj);
  if (st != 0) return st;
  if (name_state != nullptr) *name_state = state & VIEW_NAME_STATE_KERNEL_MASK;
  if (flag != nullptr) *flag = cacheable ? 1 : 0;
  if (lvut != nullptr) *lvut = silo->lvut;
  trace.writeTrace(TRACE_LEVEL_4, "root 0x%X state 0x%X", fh->ver_dbid, state);
  return 0;
}

int ns_getattr(const view_fhandle_t* fh, view_fhandle_t* fh_out, view_vstat_t* vstat, struct timeval* lvut) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_rpc", "ns_getattr");
  int st = 0, hm = 0;
  obj_entry* obj = locate_validate_fhandle(fh, &hm, &st);
  if (obj == nullptr) return st;
  return answer_attributes(obj, hm, fh_out, vstat, lvut);
}

int ns_revalidate(const view_fhandle_t* fh, view_fhandle_t* fh_out, view_vstat_t* vstat) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_rpc", "ns_revalidate");
  int st = 0;
  obj_entry* obj = locate_revalidate_fhandle(fh, &st);
  if (obj == nullptr) return st;
  return answer_attributes(obj, (fh->flags & VIEW_FH_HISTORY) ? 1 : 0, fh_out, vstat, nullptr);
}

int ns_readlink(const view_fhandle_t* fh, size_t max_len, size_t* len, char* buffer) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_rpc", "ns_readlink");
  int st = 0, hm = 0;
  *len = 0;
  obj_entry* obj = locate_validate_fhandle(fh, &hm, &st);
  if (obj == nullptr) return st;
  st = acl_check(obj, hm, 3, 0);
  if (st == 0 && obj_isa_view_obj(obj)) {
    // The stored text is read whole (the database refuses a buffer that cannot hold it with its NUL)
    // and cut to the caller's length; a text of a path's length is the common case.
    std::string text(std::max<size_t>(max_len, KS_CANON_PNAME_MAX) + 1, '\0');
    size_t n = 0;
    st = tavrel_db_readlink(obj, text.data(), text.size(), &n);
    if (st == TBS_ST_TOO_LONG) {
      text.assign(kLinkTextMax + 1, '\0');
      st = tavrel_db_readlink(obj, text.data(), text.size(), &n);
    }
    if (st == 0) {
      *len = std::min(n, max_len);
      memcpy(buffer, text.data(), *len);
    }
  } else if (st == 0) {
    tavrel_vstat tv{};
    const obj_entry* elem = obj_2elem(obj);
    int wst = Tavrel_Metadata::get_metadata(obj->silo->uuid, obj->dbid, elem->dbid, &tv);
    if (wst != 0) {
      trace.writeTrace(TRACE_LEVEL_2, "get_metadata of 0x%X: %d", obj->dbid, wst);
      st = silo_print_error_dbid(obj->silo, "slink get metadata", obj->dbid, TBS_ST_FAILURE);
    } else if (tv.vstat.mtype != 7) {
      st = silo_print_error_dbid(obj->silo, "dbid not an slink", obj->dbid, TBS_ST_BAD_ARG);
    } else {
      *len = std::min(strnlen(tv.path, sizeof tv.path), max_len);
      memcpy(buffer, tv.path, *len);
    }
  }
  obj_free(obj);
  return st;
}

int ns_gpath(const view_fhandle_t* fh, int hm, size_t path_max, char* path, size_t ext_path_max, char* ext_path) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_rpc", "ns_gpath");
  int st = 0, fh_hm = 0;
  obj_entry* obj = locate_validate_fhandle(fh, &fh_hm, &st);
  if (obj == nullptr) return st;
  st = lookup_gpath(obj, hm, path_max, path, ext_path_max, ext_path);
  obj_free(obj);
  return st;
}
