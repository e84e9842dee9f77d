#include "ns/ns_locate.h"

#include <mutex>

#include "base/imsg.h"
#include "base/pfm.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "db/tavrel_db_adopt.h"
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_inode.h"
#include "fs/tavrel_metadata.h"
#include "fs/tavrel_view_db.h"
#include "ns/ns_lookup.h"
#include "ns/tavrel_db_utls.h"

namespace {

constexpr uint32_t kViewDbInodeOffset = 0x80000000u;  // view-private dbids (inodes) carry the top bit

// Assertions report their own text and this source.
#define LOCATE_ASSERT(cond, text) ((cond) ? static_cast<void>(0) : pfm_assert_fail(text, __FILE__, __LINE__, nullptr))

bool is_private_kind(silo_mtype_t mtype) {
  return mtype == 19 || mtype == 21 || mtype == 22 || mtype == 23 || mtype == 26;
}
// Kinds of SILO objects that may have a cover inode.
bool is_coverable(silo_mtype_t mtype) { return mtype == 2 || mtype == 3 || (mtype >= 5 && mtype <= 9); }

// The answer for an object that is gone.
int stale(const std::string& name) {
  Tavrel_Trace trace(TAVREL, "ns_locate", "stale");
  trace.writeTrace(TRACE_LEVEL_1, "Returning ESTALE for object %s\n", name.c_str());
  return TBS_ST_STALE;
}

std::string oid_name(const view_silo* silo, const tbs_oid_s& oid) {
  return "oid:" + tbs_oid_to_str(oid) + "@replicauuid:" + (silo != nullptr ? tbs_uuid_to_str(silo->uuid) : "");
}

// Pairs a SILO object with its cover inode when the view database has one (the cover is made in the
// object cache, unreferenced but for the pairing).
int locate_cover_get(obj_entry* obj) {
  if (obj->cover_obj != nullptr || obj->silo == nullptr) return 0;
  tavrel_db_obj_ref ref;
  ref.replica = obj->silo->uuid;
  ref.oid = obj->oid;
  ref.mtype = obj->mtype;
  uint32_t dbid = 0, gen = 0;
  silo_mtype_t mtype = 0;
  tbs_fstat_db_s f{};
  int st = tvr_db_in_trans(0, [&] {
    int s = tavrel_db_cover_lookup(ref, &dbid);
    return s != 0 ? s : tvr_db_inode_read(dbid, &gen, nullptr, &f, &mtype, nullptr);
  });
  if (st == TBS_ST_NOT_FOUND) return 0;
  if (st != 0) return st;
  obj_entry* cover = obj_get(obj->silo, dbid);
  if (cover == nullptr) {
    if (!is_coverable(mtype)) return TBS_ST_INTERNAL;
    cover = obj_alloc(obj->silo, dbid, obj->oid, mtype, gen);
    if (cover == nullptr) return TBS_ST_NO_RESOURCES;
  }
  if (cover->otype == CACHE_COVER_OBJ && cover->cover_obj == nullptr) obj_set_cover(obj, cover);
  obj_free(cover);
  return 0;
}

// Makes the cache object of a SILO object read from the view database. tv: what get_metadata gave;
// elem_dbid: the element's dbid for versions and mtype 11.
obj_entry* activate_silo_obj(view_silo* silo, uint32_t dbid, const tavrel_vstat& tv, uint32_t elem_dbid,
                             int activate, int* status) {
  Tavrel_Trace trace(TAVREL, "ns_locate", "activate_silo_obj");
  LOCATE_ASSERT(dbid != 0 && dbid < kViewDbInodeOffset, "dbid != TBS_DBID_NULL && dbid < VIEW_DB_INODE_OFFSET");
  const silo_mtype_t mtype = tv.vstat.mtype;
  obj_entry* obj = nullptr;
  switch (mtype) {
    case 2: case 5:
      obj = obj_alloc_rmap(silo, dbid, tv.vstat.obj_oid, tv.vstat.rmap_oid, mtype, 0);
      if (obj != nullptr && tv.checked_out) obj->flags |= OBJ_FLAG_CHECKEDOUT;
      break;
    case 3: case 6: case 8: case 11: {
      LOCATE_ASSERT(elem_dbid != 0, "elem_dbid != TBS_DBID_NULL");
      obj_entry* elem = locate_dbid(silo, elem_dbid, activate, status);
      if (elem == nullptr) return nullptr;
      if (elem->otype != CACHE_ELEM_OBJ) {
        obj_free(elem);
        *status = TBS_ST_FAILURE;
        return nullptr;
      }
      obj = obj_alloc_rmap(silo, dbid, tv.vstat.obj_oid, tv.vstat.rmap_oid, mtype, 0);
      if (obj != nullptr) obj_link_version(elem, obj);
      obj_free(elem);
      break;
    }
    case 7: case 9:
      obj = obj_alloc_rmap(silo, dbid, tv.vstat.obj_oid, tv.vstat.rmap_oid, mtype, 0);
      break;
    default:
      trace.writeTrace(TRACE_LEVEL_2, "dbid 0x%X: unexpected mtype %d", dbid, mtype);
      *status = TBS_ST_STALE;
      return nullptr;
  }
  if (obj == nullptr) {
    *status = TBS_ST_NO_RESOURCES;
    return nullptr;
  }
  obj->flags |= OBJ_FLAG_ACTIVATED;
  if (is_coverable(mtype)) {
    int st = locate_cover_get(obj);
    if (st != 0) trace.writeTrace(TRACE_LEVEL_2, "cover of %s: %d", locate_obj_name(obj).c_str(), st);
  }
  if (activate) fstat_cache_update_obj(obj, &tv.vstat.fstat);
  *status = 0;
  return obj;
}

// Reads a SILO object from the view database and activates it. 1087 when the database does not know it.
obj_entry* activate_silo_dbid(view_silo* silo, uint32_t dbid, int activate, int* status) {
  Tavrel_Trace trace(TAVREL, "ns_locate", "activate_silo_dbid");
  tavrel_vstat tv{};
  int st = Tavrel_Metadata::get_metadata(silo->uuid, dbid, 0, &tv);
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "get_metadata of dbid 0x%X: %d", dbid, st);
    *status = (st == TAVREL_ST_INTERNAL || st == TAVREL_ST_MALFORMED)
                  ? stale("dbid " + std::to_string(dbid) + "@replicauuid:" + tbs_uuid_to_str(silo->uuid))
                  : TBS_ST_FAILURE;
    return nullptr;
  }
  uint32_t elem_dbid = 0;
  const silo_mtype_t mtype = tv.vstat.mtype;
  if (mtype == 3 || mtype == 6 || mtype == 8 || mtype == 11) {
    if (!Tavrel_View_db::elem_oid_to_dbid(silo->uuid, tv.vstat.elem_oid, &elem_dbid) || elem_dbid == 0) {
      trace.writeTrace(TRACE_LEVEL_2, "no element %s for dbid 0x%X", tbs_oid_to_str(tv.vstat.elem_oid).c_str(), dbid);
      *status = TBS_ST_FAILURE;
      return nullptr;
    }
  }
  return activate_silo_obj(silo, dbid, tv, elem_dbid, activate, status);
}

// The SILO object behind a cover (oid and the cover's inode known). `cover` is the cached cover or null.
obj_entry* locate_by_cover(view_silo* silo, const tbs_oid_s& oid, uint32_t cover_dbid, obj_entry* cover,
                           silo_mtype_t cover_mtype, uint32_t cover_gen, int activate, int* status) {
  Tavrel_Trace trace(TAVREL, "ns_locate", "locate_by_cover");
  // The SILO object may be cached without its cover (the cover was made after it was activated).
  if (obj_entry* cached = obj_get_by_oid(silo, &oid, 0)) {
    int st = locate_cover_get(cached);
    if (st != 0) trace.writeTrace(TRACE_LEVEL_2, "cover of %s: %d", locate_obj_name(cached).c_str(), st);
    *status = 0;
    return cached;
  }
  uint32_t silo_dbid = 0;
  if (!Tavrel_View_db::obj_oid_to_dbid(silo->uuid, oid, &silo_dbid) || silo_dbid == 0) {
    // The SILO object is gone: so is the reason for its cover.
    const std::string name = oid_name(silo, oid);
    obj_entry* doomed = cover;
    if (doomed != nullptr) {
      obj_inc_ref(doomed);
    } else if (is_coverable(cover_mtype)) {
      doomed = obj_alloc(silo, cover_dbid, oid, cover_mtype, cover_gen);
    }
    imsg_print(IMSG_ERR, "Silo stale %s: Flushing\n", name.c_str());
    if (doomed != nullptr) {
      int st = tavrel_db_delete(doomed);
      if (st != 0) trace.writeTrace(TRACE_LEVEL_2, "deleting cover 0x%X: %d", cover_dbid, st);
      obj_flush(doomed);
    }
    *status = stale(name);
    return nullptr;
  }
  obj_entry* obj = obj_get(silo, silo_dbid);
  if (obj == nullptr) obj = activate_silo_dbid(silo, silo_dbid, activate, status);
  if (obj == nullptr) {
    if (*status != TBS_ST_STALE) *status = TBS_ST_FAILURE;
    return nullptr;
  }
  *status = 0;
  return obj;
}

// Makes the cache object of a view-private inode.
obj_entry* locate_activate_view_obj(view_silo* silo, uint32_t dbid, const tbs_oid_s& oid, silo_mtype_t mtype,
                                    uint32_t gen, const tbs_fstat_db_s& fstat, int activate, int* status) {
  if (!is_private_kind(mtype)) {
    imsg_print(IMSG_ERR, "Unexpected mtype(%ld) for object %s\n", static_cast<long>(mtype),
               oid_name(silo, oid).c_str());
    *status = TBS_ST_INTERNAL;
    return nullptr;
  }
  obj_entry* obj = obj_alloc(silo, dbid, oid, mtype, gen);
  if (obj == nullptr) {
    *status = TBS_ST_NO_RESOURCES;
    return nullptr;
  }
  obj->flags |= OBJ_FLAG_ACTIVATED;
  if (activate) fstat_cache_update_obj(obj, &fstat);
  *status = 0;
  return obj;
}

bool gen_matches(const view_fhandle_t* fh, const obj_entry* obj) {
  return fh->gen == obj->gen || fh->gen == 0 || fh->gen == 0xffffffffu;
}

}  // namespace

std::string locate_obj_name(const obj_entry* obj) {
  return oid_name(obj->silo, obj->oid);
}

obj_entry* locate_dbid(view_silo* silo, uint32_t dbid, int activate, int* status) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_locate", "locate_dbid");
  if (obj_entry* obj = obj_get(silo, dbid)) {
    if (obj->otype != CACHE_COVER_OBJ) {
      *status = 0;
      return obj;
    }
    if (obj_entry* partner = obj->cover_obj) {
      obj_inc_ref(partner);
      obj_free(obj);
      *status = 0;
      return partner;
    }
    obj_entry* r = locate_by_cover(silo, obj->oid, dbid, obj, obj->mtype, obj->gen, activate, status);
    obj_free(obj);
    return r;
  }
  if (static_cast<int32_t>(dbid) >= 0) return activate_silo_dbid(silo, dbid, activate, status);

  tbs_oid_s oid{};
  tbs_fstat_db_s fstat{};
  silo_mtype_t mtype = 0;
  uint32_t gen = 0;
  int st = tavrel_db_dbid2oid(silo, dbid, &oid, &fstat, &mtype, &gen);
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "dbid 0x%X: %d", dbid, st);
    *status = st;
    return nullptr;
  }
  if (is_coverable(mtype)) return locate_by_cover(silo, oid, dbid, nullptr, mtype, gen, activate, status);
  return locate_activate_view_obj(silo, dbid, oid, mtype, gen, fstat, activate, status);
}

obj_entry* locate_oid(view_silo* silo, const tbs_oid_s* oid, int hm, int* status) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  (void)hm;
  if (obj_entry* obj = obj_get_by_oid(silo, oid, 0)) {
    *status = 0;
    return obj;
  }
  // The cover inode first (its partner is the answer), else the SILO object itself.
  uint32_t dbid = 0;
  int st = tavrel_db_oid2dbid(silo, oid, &dbid);
  if (st == TBS_ST_NOT_FOUND && Tavrel_View_db::obj_oid_to_dbid(silo->uuid, *oid, &dbid) && dbid != 0) st = 0;
  if (st != 0) {
    *status = st;
    return nullptr;
  }
  return locate_dbid(silo, dbid, 1, status);
}

obj_entry* locate_validate_fhandle(const view_fhandle_t* fh, int* hm, int* status) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_locate", "locate_validate_fhandle");
  view_silo* silo = silo_find(fh->silo, status);
  if (silo == nullptr) return nullptr;
  obj_entry* obj = locate_dbid(silo, fh->ver_dbid, 1, status);
  if (obj == nullptr) return nullptr;
  if (!gen_matches(fh, obj)) {
    imsg_print(IMSG_ERR, "Returning ESTALE for object %s\n", locate_obj_name(obj).c_str());
    trace.writeTrace(TRACE_LEVEL_2, "handle gen %u, object gen %u", fh->gen, obj->gen);
    obj_free(obj);
    *status = TBS_ST_STALE;
    return nullptr;
  }
  if (hm != nullptr) *hm = (fh->flags & VIEW_FH_HISTORY) ? 1 : 0;
  *status = 0;
  return obj;
}

obj_entry* locate_revalidate_fhandle(const view_fhandle_t* fh, int* status) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_locate", "locate_revalidate_fhandle");
  const bool hm = (fh->flags & VIEW_FH_HISTORY) != 0;
  int ignored = 0;
  obj_entry* obj = locate_validate_fhandle(fh, &ignored, status);
  if (obj == nullptr && *status == TBS_ST_STALE && !hm && fh->elem_dbid != 0 && fh->elem_dbid != fh->ver_dbid) {
    view_silo* silo = silo_find(fh->silo, status);
    if (silo == nullptr) return nullptr;
    trace.writeTrace(TRACE_LEVEL_4, "version 0x%X stale, element 0x%X", fh->ver_dbid, fh->elem_dbid);
    obj = locate_dbid(silo, fh->elem_dbid, 1, status);
  }
  if (obj == nullptr || hm) return obj;
  obj_entry* now = lookup_revalidate(obj, status);
  obj_free(obj);
  return now;
}

void locate_invalidate_oid(view_silo* silo, const tbs_oid_s* oid, int flush) {
  // The caller's oid may live in an object flushed below: work on a copy.
  const tbs_oid_s oid_copy = *oid;
  oid = &oid_copy;
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_locate", "locate_invalidate_oid");
  if (!flush) {
    for (int want_cover : {0, 1}) {
      if (obj_entry* obj = obj_get_by_oid(silo, oid, want_cover)) {
        fstat_flush(obj);
        obj_free(obj);
      }
    }
    return;
  }
  // A cover takes its SILO partner with it; a SILO object is flushed through its cover when it has one,
  // since the cover's reference is on it. No reference of ours may remain on what obj_flush frees.
  for (;;) {
    obj_entry* obj = obj_get_by_oid(silo, oid, 1);
    if (obj == nullptr) obj = obj_get_by_oid(silo, oid, 0);
    if (obj == nullptr) break;
    if (obj->otype != CACHE_COVER_OBJ && obj->cover_obj != nullptr) {
      obj_entry* cover = obj->cover_obj;
      obj_inc_ref(cover);
      obj_free(obj);
      obj = cover;
    }
    trace.writeTrace(TRACE_LEVEL_4, "flushing dbid 0x%X", obj->dbid);
    obj_flush(obj);
  }
}

void locate_cache_update(obj_entry* obj, const tbs_fstat_db_s* fstat) { fstat_cache_update_obj(obj, fstat); }

int locate_invalidate(int type, const tbs_uuid_s* silo_uuid, const tbs_oid_s* obj_oid, const char* name, int db) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_locate", "locate_invalidate");
  if (type < VIEW_INVALIDATE_VIEW || type > VIEW_INVALIDATE_NAME) return TBS_ST_BAD_ARG;
  if (type == VIEW_INVALIDATE_VIEW) {
    cache_flush();
    imsg_print(IMSG_OK, "view_invalidate view\n");
    return 0;
  }
  if (silo_uuid == nullptr) return TBS_ST_BAD_ARG;
  if (type == VIEW_INVALIDATE_SILO) {
    silo_flush_silo_uuid(*silo_uuid);
    imsg_print(IMSG_OK, "view_invalidate silo '%s'\n", tbs_uuid_to_str(*silo_uuid).c_str());
    return 0;
  }
  if (obj_oid == nullptr) return TBS_ST_BAD_ARG;
  int st = 0;
  if (type == VIEW_INVALIDATE_OBJ) {
    if (db) st = Tavrel_Metadata::invalidate_obj(*silo_uuid, *obj_oid);
    if (view_silo* silo = silo_find_cached(*silo_uuid)) {
      locate_invalidate_oid(silo, obj_oid, 1);
      lookup_invalidate_not_found(silo);
    }
  } else {
    if (name == nullptr) return TBS_ST_BAD_ARG;
    if (db) st = Tavrel_Metadata::invalidate_name(*silo_uuid, *obj_oid, name);
    if (view_silo* silo = silo_find_cached(*silo_uuid)) lookup_invalidate_oid(silo, obj_oid, name);
  }
  // An oid the view database does not know has nothing stored to forget.
  if (st == TAVREL_ST_MALFORMED) st = 0;
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "type %d: the view database's invalidation gave %d", type, st);
    st = TBS_ST_FAILURE;
  }
  return st;
}

int acl_check_ext(obj_entry* obj, int hm, view_vstat_t* vstat, uint32_t* state_out, int mode, int need_dir) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  view_vstat_t local;
  view_vstat_t* v = vstat != nullptr ? vstat : &local;
  if (state_out != nullptr) *state_out = 0;
  int st = fstat_vstat(obj, hm, v);
  if (st != 0) return st;
  if (need_dir && v->fstat.type != TBS_FTYPE_DIR) return TBS_ST_NOT_DIR;
  uint32_t bit;
  switch (mode) {
    case 1: case 4: bit = 0x40; break;
    case 2: case 5: case 6: bit = 0x80; break;
    case 3: bit = 0x100; break;
    default: return TBS_ST_BAD_ARG;
  }
  if (v->fstat.type != TBS_FTYPE_FILE && (v->fstat.mode & bit) == 0) return TBS_ST_NO_PERMISSION;
  return 0;
}

int acl_check(obj_entry* obj, int hm, int mode, int need_dir) {
  return acl_check_ext(obj, hm, nullptr, nullptr, mode, need_dir);
}
