#include "ns/ns_fstat.h"

#include <cstdlib>
#include <mutex>

#include "base/imsg.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "fs/tavrel_metadata.h"
#include "ns/ns_locate.h"
#include "ns/ns_lvut.h"
#include "ns/ns_silo.h"
#include "ns/tavrel_db_utls.h"

namespace {

// fstat_lru: most recently used first. Under tavrel_cache_mutex().
llist_d_t g_fstat_lru;

llist_d_t& lru() {
  if (g_fstat_lru.next == nullptr) llist_d_init_head(&g_fstat_lru);
  return g_fstat_lru;
}

// Kinds whose attributes the metadata resolver reads from the view database.
bool is_silo_kind_with_attributes(silo_mtype_t mtype) {
  switch (mtype) {
    case 2: case 3: case 5: case 6: case 7: case 8: case 9: case 11: return true;
    default: return false;
  }
}

void unexpected_mtype(const obj_entry* obj) {
  imsg_print(IMSG_ERR, "Unexpected mtype(%ld) for object %s\n", static_cast<long>(obj->mtype),
             locate_obj_name(obj).c_str());
}

// Takes the entry off its object and off the LRU, uncharged but not freed.
void detach(fstat_entry* fep) {
  if (fep->obj != nullptr) fep->obj->fep = nullptr;
  fep->obj = nullptr;
  llist_d_remove(&fep->lru);
}

// Removes the entry of a SILO object (moving the LVUT) or of a view-private one, and frees it.
void dispose(fstat_entry* fep) {
  obj_entry* obj = fep->obj;
  if (obj != nullptr && obj->silo != nullptr) fstat_update_lvut(obj->silo, obj, 0);
  detach(fep);
  std::free(fep);
  fstat_cache_stats.size -= NS_FSTAT_CHARGE;
  fstat_cache_stats.count--;
}

fstat_entry* lru_tail() {
  llist_d_t& head = lru();
  return llist_d_empty(&head) ? nullptr : LLIST_D_ENTRY(head.prev, fstat_entry, lru);
}

void flush_obj_hook(obj_entry* obj) { fstat_flush(obj); }

// A fresh entry, not yet attached: evicts from the tail while over budget, re-uses the tail when the
// budget is still reached, else allocates. Null after "Unable to malloc storage.\n".
fstat_entry* fstat_new() {
  fstat_cache_init();
  const long max = static_cast<long>(ns_cache_get_budget().fstat_max);
  while (fstat_cache_stats.size > max) {
    fstat_entry* tail = lru_tail();
    if (tail == nullptr) break;
    dispose(tail);
    fstat_cache_stats.ejects++;
  }
  fstat_entry* tail = lru_tail();
  if (fstat_cache_stats.size >= max && tail != nullptr) {
    if (tail->obj != nullptr && tail->obj->silo != nullptr) fstat_update_lvut(tail->obj->silo, tail->obj, 0);
    detach(tail);
    fstat_cache_stats.ejects++;
    return tail;
  }
  fstat_entry* fep = static_cast<fstat_entry*>(std::calloc(1, sizeof(fstat_entry)));
  if (fep == nullptr) {
    imsg_print(IMSG_ERR, "Unable to malloc storage.\n");
    return nullptr;
  }
  fstat_cache_stats.size += NS_FSTAT_CHARGE;
  fstat_cache_stats.count++;
  return fep;
}

// Attaches a fresh entry to obj at the front of the LRU.
void attach(obj_entry* obj, fstat_entry* fep, const tbs_fstat_db_s& fstat) {
  fep->obj = obj;
  fep->fstat = fstat;
  obj->fep = fep;
  llist_d_insert_head(&lru(), &fep->lru);
}

// Reads the object's attributes from the view database.
int read_attributes(obj_entry* obj, tbs_fstat_db_s* out) {
  Tavrel_Trace trace(TAVREL, "ns_fstat", "read_attributes");
  tbs_fstat_db_s f{};
  f.owner = CREDUTL_SID_NOBODY;
  f.group = CREDUTL_SID_NOBODY;
  int st;
  if (obj_isa_view_obj(obj)) {
    tbs_oid_s oid;
    silo_mtype_t mtype = 0;
    uint32_t gen = 0;
    st = tavrel_db_dbid2oid(obj->silo, obj->dbid, &oid, &f, &mtype, &gen);
  } else if (is_silo_kind_with_attributes(obj->mtype)) {
    if (obj->silo == nullptr) return TBS_ST_STALE;
    const obj_entry* elem = obj->otype == CACHE_COVER_OBJ ? obj : obj_2elem(obj);
    tavrel_vstat tv{};
    st = Tavrel_Metadata::get_metadata(obj->silo->uuid, obj->dbid, elem->dbid, &tv);
    if (st == 0) {
      f = tv.vstat.fstat;
    } else {
      trace.writeTrace(TRACE_LEVEL_2, "get_metadata of %s: %d", locate_obj_name(obj).c_str(), st);
      // The view database does not have the object any more (an update removed it): it has vanished.
      st = (st == TAVREL_ST_INTERNAL || st == TAVREL_ST_MALFORMED) ? TBS_ST_NOT_FOUND : TBS_ST_FAILURE;
    }
  } else {
    unexpected_mtype(obj);
    return TBS_ST_INTERNAL;
  }
  if (st == 0) *out = f;
  return st;
}

// The cached entry of obj, read and cached when missing. Null with *status on failure.
fstat_entry* fstat_get(obj_entry* obj, int* status) {
  fstat_cache_stats.requests++;
  if (obj->fep != nullptr) {
    fstat_cache_stats.hits++;
    llist_d_remove(&obj->fep->lru);
    llist_d_insert_head(&lru(), &obj->fep->lru);
    *status = 0;
    return obj->fep;
  }
  tbs_fstat_db_s f;
  *status = read_attributes(obj, &f);
  if (*status != 0) return nullptr;
  fstat_entry* fep = fstat_new();
  if (fep == nullptr) {
    *status = TBS_ST_NO_RESOURCES;
    return nullptr;
  }
  attach(obj, fep, f);
  return fep;
}

bool later(const struct timeval& a, const struct timeval& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_usec > b.tv_usec;
}

void merge_cover(tbs_fstat_db_s* f, const tbs_fstat_db_s& c) {
  if (c.mode != 0xffffffffu) f->mode = c.mode;
  if (!credutl_sid_eq(c.owner, CREDUTL_SID_DONTCARE)) f->owner = c.owner;
  if (!credutl_sid_eq(c.group, CREDUTL_SID_DONTCARE)) f->group = c.group;
  f->nlink += c.nlink;
  f->size += c.size;
  if (later(c.atime, f->atime)) f->atime = c.atime;
  if (later(c.mtime, f->mtime)) f->mtime = c.mtime;
  if (later(c.ctime, f->ctime)) f->ctime = c.ctime;
  if (later(c.fourth_time, f->fourth_time)) f->fourth_time = c.fourth_time;
}

}  // namespace

void fstat_cache_init() {
  ns_cache_set_flusher(NS_HANG_FSTAT, ns_hanging_flusher{flush_obj_hook, fstat_flush_all});
}

int fstat_get_db(obj_entry* obj, tbs_fstat_db_s* out) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  int st = 0;
  fstat_entry* fep = fstat_get(obj, &st);
  if (fep != nullptr) *out = fep->fstat;
  return st;
}

int fstat_vstat(obj_entry* obj, int hm, view_vstat_t* vstat) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_fstat", "fstat_vstat");
  int st = 0;
  fstat_entry* fep = fstat_get(obj, &st);
  if (fep == nullptr) return st;
  view_vstat_t v{};
  v.fstat = fep->fstat;

  if (!hm && obj->otype != CACHE_COVER_OBJ) {
    obj_entry* cover = obj_2view_obj(obj);
    if (cover != nullptr && cover != obj) {
      fstat_entry* cep = fstat_get(cover, &st);
      if (cep == nullptr) return st;
      merge_cover(&v.fstat, cep->fstat);
    }
  }

  v.mtype = obj->mtype;
  obj_entry* elem = (obj->otype == CACHE_COVER_OBJ) ? obj : obj_2elem(obj);
  v.elem_oid = elem == obj ? TBS_OID_NULL : elem->oid;
  v.obj_oid = obj->oid;
  v.event_time = obj->event_time;
  v.rmap_oid = obj->rmap;
  v.reserved_time = {0, 0};

  switch (obj->mtype) {
    case 2: case 5: case 11:
      if (hm) {
        v.fstat.type = TBS_FTYPE_DIR;
        if (v.fstat.mode & 0x100) v.fstat.mode |= 0x40;
        if (v.fstat.mode & 0x20) v.fstat.mode |= 0x8;
        if (v.fstat.mode & 0x4) v.fstat.mode |= 0x1;
      }
      break;
    case 3: case 6: case 8:
      if (hm) v.fstat.ino = obj->dbid;
      break;
    case 7: case 9: case 19: case 21: case 22: case 23: case 26:
      break;
    default:
      unexpected_mtype(obj);
      return TBS_ST_INTERNAL;
  }
  *vstat = v;
  return 0;
}

void fstat_flush(obj_entry* obj) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  if (obj->fep == nullptr) return;
  dispose(obj->fep);
  fstat_cache_stats.flushes++;
}

void fstat_flush_all() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  while (fstat_entry* tail = lru_tail()) {
    dispose(tail);
    fstat_cache_stats.flushes++;
  }
}

void fstat_cache_update_obj(obj_entry* obj, const tbs_fstat_db_s* fstat) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_fstat", "fstat_cache_update_obj");
  fstat_entry* fep = obj->fep;
  if (fep == nullptr) {
    fep = fstat_new();
    if (fep == nullptr) return;  // nothing cached: the next reader goes to the database
    attach(obj, fep, *fstat);
    return;
  }
  fep->fstat = *fstat;
  llist_d_remove(&fep->lru);
  llist_d_insert_head(&lru(), &fep->lru);
  if (obj->mtype != 2 && obj->mtype != 3 && obj->silo != nullptr) fstat_update_lvut(obj->silo, obj, 1);
}

int ns_fstat_flush(const tbs_uuid_s& uuid, const tbs_oid_s& oid) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  view_silo* silo = silo_find_cached(uuid);
  if (silo == nullptr) return TBS_ST_UNKNOWN_SILO;
  locate_invalidate_oid(silo, &oid, 0);
  return 0;
}

void makehandle(obj_entry* obj, int hm, view_fhandle_t* fh) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  *fh = view_fhandle_t{};
  if (obj->silo != nullptr) fh->silo = obj->silo->uuid;
  fh->ver_dbid = obj->dbid;
  fh->gen = obj->gen;
  fh->flags = 0;
  const bool cover = obj->otype == CACHE_COVER_OBJ;
  switch (obj->mtype) {
    case 1: case 7: case 9: case 19: case 21: case 22: case 23: case 26:
      fh->elem_dbid = obj->dbid;
      break;
    case 2: case 5:
      fh->elem_dbid = obj->dbid;
      fh->flags |= VIEW_FH_HISTORY;
      break;
    case 3: case 6: case 8:
      fh->elem_dbid = cover ? obj->dbid : obj_2elem(obj)->dbid;
      break;
    case 11:
      fh->elem_dbid = obj_2elem(obj)->dbid;
      fh->flags |= VIEW_FH_HISTORY;
      break;
    default:
      imsg_print(IMSG_ERR, "makehandle: unexpected mtype(%ld) for object %s\n", static_cast<long>(obj->mtype),
                 locate_obj_name(obj).c_str());
      fh->gen = ~obj->gen;
      fh->elem_dbid = 0xffffffffu;
      break;
  }
  if (hm) fh->flags |= VIEW_FH_HISTORY;
  if (static_cast<int32_t>(obj->dbid) < 0) fh->flags |= VIEW_FH_PRIVATE;
  fh->spare = 0;
}
