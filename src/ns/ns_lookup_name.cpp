// Name lookup: the view protocol's Lookup (a name and a residual path walked component by component),
// the component lookup through the cache, and the merge of the view side with the SILO side.
#include <cstring>
#include <mutex>

#include "base/imsg.h"
#include "core/tavrel_trace.h"
#include "db/tavrel_db_adopt.h"
#include "fs/tavrel_metadata.h"
#include "fs/tavrel_view_db_element.h"
#include "fs/tavrel_view_db_version.h"
#include "ns/ns_fstat.h"
#include "ns/ns_locate.h"
#include "ns/ns_lookup.h"
#include "ns/ns_lookup_int.h"
#include "ns/ns_readdir.h"
#include "ns/ns_silo.h"
#include "ns/tavrel_db_utls.h"
#include "proto/tavrel_status.h"

namespace {

constexpr size_t LEAF_MAX = 256;  // a leaf of the residual path, NUL included

// The status of a name that stands for no object.
int not_visible_status(uint32_t state) {
  return (state & (VIEW_NAME_STATE_NOT_FOUND | VIEW_NAME_STATE_NO_OBJ)) ? TBS_ST_NO_SUCH_NAME : TBS_ST_NO_OBJECT;
}

// The checked-out mark of a SILO object: its own or its element's.
bool silo_checked_out(obj_entry* obj) {
  if (obj_is_checkedout(obj)) return true;
  return obj->otype != CACHE_COVER_OBJ && obj_is_checkedout(obj_2elem(obj));
}

// Whether the state says the target is checked out. A hijacked name's record carries the same bit to
// say that it keeps the hijacked version's identity; that is no checkout.
bool state_checked_out(uint32_t state) {
  return (state & VIEW_NAME_STATE_CHECKEDOUT) != 0 && (state & VIEW_NAME_STATE_HIJACKED) == 0;
}

bool is_dot(const char* s) { return s[0] == '.' && s[1] == 0; }
bool is_dot_dot(const char* s) { return s[0] == '.' && s[1] == '.' && s[2] == 0; }

// The SILO side of `name` in `dir` through the resolver; the root's own entry (the empty name in the
// not-found anchor) is the SILO's root.
int resolve_silo_side(obj_entry* dir, const char* name, uint32_t* ver_dbid, tavrel_vstat* tv) {
  uint32_t elem_dbid = 0;
  if (dir->dbid == 1 && name[0] == 0) return Tavrel_Metadata::bindroot(dir->silo->uuid, &elem_dbid, ver_dbid, tv);
  return Tavrel_Metadata::lookup_obj(dir->silo->uuid, dir->dbid, 0, name, &elem_dbid, ver_dbid, tv);
}

// One component for ns_lookup_flags, history mode or not.
obj_entry* lookup_component(obj_entry* dir, const char* name, int hm, uint32_t* state, int* cacheable, int* status) {
  if (hm) {
    obj_entry* obj = lookup_hm_name(dir, name, state, cacheable, status);
    *cacheable = 1;
    return obj;
  }
  return lookup_name(dir, name, state, cacheable, status);
}

}  // namespace

// ---- the merge ----------------------------------------------------------------------------------------

name_entry* cm_name(obj_entry* dir, void* /*unused*/, const char* name, uint32_t silo_dbid, uint32_t view_dbid,
                    uint32_t state, int* status) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_lookup", "cm_name");
  NS_LOOKUP_ASSERT(dir->otype == CACHE_VER_OBJ, "d_obj->otype == CACHE_VER_OBJ");
  view_silo* silo = dir->silo;
  obj_entry* silo_obj = nullptr;  // the SILO side's object, with a reference
  obj_entry* target = nullptr;    // the answer's object, with a reference
  uint32_t target_dbid = 0;
  bool decided = false;
  int st = 0;
  auto fail = [&](int why) -> name_entry* {
    obj_free(silo_obj);
    obj_free(target);
    *status = why;
    return nullptr;
  };

  // 1. The SILO side's object and its checkout.
  bool silo_co = false;
  if (state & VIEW_NAME_STATE_SILO_REC) {
    silo_obj = locate_dbid(silo, silo_dbid, 0, &st);
    if (silo_obj == nullptr) return fail(st);
    silo_co = silo_checked_out(silo_obj);
  }

  // 2. The view's record follows the SILO's checkout mark (a directory element's mark is its own).
  if (silo_obj != nullptr && silo_co != state_checked_out(state) && silo_obj->mtype != 2) {
    if (silo_co) {
      trace.writeTrace(TRACE_LEVEL_1, "Checkout of %s->%s\n", lookup_obj_text(dir).c_str(), name);
      if ((state & VIEW_NAME_STATE_VIEW_REC) == 0) {
        state |= 0x1420;
        st = tavrel_db_link(dir, name, nullptr, state);
      } else {
        state |= VIEW_NAME_STATE_CHECKEDOUT;
        st = tavrel_db_state_set(dir, name, state);
      }
    } else if (state & VIEW_NAME_STATE_WHITE_OUT) {
      state &= ~VIEW_NAME_STATE_VIEW_BITS;
      st = tavrel_db_unlink(dir, name, state);
    } else {
      state &= ~0x820u;
      st = tavrel_db_state_set(dir, name, state);
    }
    // The answer below stands on the state as reconciled; a record that could not be written now is
    // reconciled again at the next lookup.
    if (st != 0) trace.writeTrace(TRACE_LEVEL_2, "checkout record of %s not written: %d", name, st);
  }

  // 3. An object the view side offers.
  if ((state & 0x1400) == VIEW_NAME_STATE_VIEW_REC) {
    obj_entry* vo = locate_dbid(silo, view_dbid, 0, &st);
    if (vo == nullptr) {
      if (st != TBS_ST_STALE) return fail(st);
      trace.writeTrace(TRACE_LEVEL_5, "cm_name5\n");
      imsg_print(IMSG_WARN, "Silo stale 0x%lx: Purging %s in %s!\n", static_cast<unsigned long>(view_dbid), name,
                 lookup_obj_text(dir).c_str());
      state &= ~VIEW_NAME_STATE_VIEW_BITS;
      st = tavrel_db_unlink(dir, name, state);
      if (st != 0) trace.writeTrace(TRACE_LEVEL_2, "stale record of %s not removed: %d", name, st);
      view_dbid = 0;
    } else if (silo_co && (state & VIEW_NAME_STATE_SILO_REC)) {
      view_dbid = vo->dbid;  // only the checkout's cover: the SILO side decides below
      obj_free(vo);
    } else {
      switch (vo->mtype) {
        case 2: case 5: {
          uint32_t ver_dbid = 0;
          Tavrel_View_db_element elem(silo->uuid, vo->dbid);
          obj_free(vo);
          if (elem.get_any_version(ver_dbid) != 0) return fail(TBS_ST_FAILURE);
          tavrel_vstat tv{};
          const bool co = Tavrel_View_db_version(silo->uuid, ver_dbid).get_rvstat(tv) == 0 && tv.checked_out;
          state = (state & 0x203c20) | VIEW_NAME_STATE_VIEW | (co ? VIEW_NAME_STATE_CHECKEDOUT : 0);
          target_dbid = ver_dbid;
          break;
        }
        case 3: case 6: case 7: case 8: case 9: case 19: case 21: case 22: case 23: case 26:
          target = vo;
          state |= VIEW_NAME_STATE_VIEW;
          trace.writeTrace(TRACE_LEVEL_2, "Lookup %s->%s rule %ld, from view to ver 0x%lx\n",
                           lookup_obj_text(dir).c_str(), name, 0L, static_cast<unsigned long>(vo->dbid));
          break;
        default:
          st = lookup_unexpected_mtype(vo);
          obj_free(vo);
          return fail(st);
      }
      decided = true;
    }
  }

  if (!decided) {
    if ((state & VIEW_NAME_STATE_SILO_REC) == 0 || ((state & VIEW_NAME_STATE_VIEW_REC) && !silo_co)) {
      // 4. The view decides that the name is absent.
      state |= VIEW_NAME_STATE_VIEW;
      trace.writeTrace(TRACE_LEVEL_2, "Lookup %s->%s rule %ld, not found\n", lookup_obj_text(dir).c_str(), name, 0L);
    } else {
      // 5. The SILO side's version.
      uint32_t ver_dbid = 0;
      tavrel_vstat tv{};
      if (resolve_silo_side(dir, name, &ver_dbid, &tv) != 0) return fail(TBS_ST_FAILURE);
      uint32_t bits;
      if (!tv.checked_out)
        bits = (silo_co || (state & VIEW_NAME_STATE_VIEW_REC)) ? VIEW_NAME_STATE_VIEW : 0;
      else
        bits = (tv.vstat.mtype == 3 && !(state & VIEW_NAME_STATE_VIEW_REC)) ? VIEW_NAME_STATE_CHECKEDOUT
                                                                            : VIEW_NAME_STATE_CHECKEDOUT | VIEW_NAME_STATE_VIEW;
      state = (state & 0x203c20) | bits;
      if (bits & VIEW_NAME_STATE_VIEW) {
        target_dbid = view_dbid;
        if (view_dbid != 0)
          trace.writeTrace(TRACE_LEVEL_2, "Lookup %s->%s rule %ld, from view to ver 0x%lx\n",
                           lookup_obj_text(dir).c_str(), name, 0L, static_cast<unsigned long>(view_dbid));
        else
          trace.writeTrace(TRACE_LEVEL_2, "Lookup %s->%s rule %ld, not found\n", lookup_obj_text(dir).c_str(), name, 0L);
      } else {
        target_dbid = ver_dbid;
      }
    }
  }

  // 6. The target, activated.
  if (target == nullptr && target_dbid != 0) {
    target = locate_dbid(silo, target_dbid, 1, &st);
    if (target == nullptr) return fail(st);
  }
  // 7. The entry (the target's reference goes with it).
  name_entry* nep = lookup_add_nep(dir, name, target, state, 0, 1);
  target = nullptr;
  obj_free(silo_obj);
  *status = nep != nullptr ? 0 : TBS_ST_INTERNAL;
  return nep;
}

// ---- component lookup ---------------------------------------------------------------------------------

name_entry* lookup_cm_name(obj_entry* dir, void* /*unused*/, const char* name, int* status) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_lookup", "lookup_cm_name");
  name_cache_stats.requests++;

  // 1. The cache.
  name_entry* hit = lookup_find_nep(dir, name, false);
  if (hit != nullptr) {
    name_cache_stats.hits++;
    hit->ref_cnt++;
    obj_inc_ref(hit->ver);
    *status = 0;
    return hit;
  }
  name_cache_stats.bh_miss++;
  // A provisional answer of an earlier lookup gives way to this one.
  lookup_remove_name(dir, name, NAME_FLAG_PROVISIONAL);

  // 2. The listing.
  uint32_t silo_dbid = 0, view_dbid = 0, state = 0;
  const uint32_t complete = readdir_lookup_name(dir, name, &silo_dbid, &view_dbid, &state);

  // 3. The view side.
  int view_status = TBS_ST_NOT_FOUND;
  if ((complete & 2) == 0) {
    uint32_t dbid = 0, vstate = 0;
    int st = tavrel_db_lookup(dir, name, &dbid, &vstate);
    if (st == 0) {
      view_dbid = dbid;
      state |= vstate & VIEW_NAME_STATE_VIEW_BITS;
      view_status = 0;
    } else if (st == TBS_ST_NOT_FOUND) {
      view_dbid = 0;
    } else {
      *status = st;
      return nullptr;
    }
  } else if (view_dbid != 0 || (state & VIEW_NAME_STATE_VIEW_BITS) != 0) {
    view_status = 0;
  }

  // 4. The SILO side.
  bool provisional = false;
  if ((complete & 1) == 0 && !obj_isa_view_obj(dir)) {
    uint32_t elem_dbid = 0, ver_dbid = 0;
    tavrel_vstat tv{};
    int st = Tavrel_Metadata::lookup_obj(dir->silo->uuid, dir->dbid, 0, name, &elem_dbid, &ver_dbid, &tv);
    if (st == 0) {
      silo_dbid = ver_dbid;
      state |= VIEW_NAME_STATE_SILO_REC;
    } else if (st == TAVREL_ST_NOT_FOUND) {
      silo_dbid = 0;
      state &= ~VIEW_NAME_STATE_SILO_REC;
    } else if (view_status != 0 || (state & VIEW_NAME_STATE_VIEW_REC) == 0) {
      // The server could not answer and the view knows nothing of the name: nothing is cached, and
      // the next lookup asks again.
      trace.writeTrace(TRACE_LEVEL_4, "%s->%s unresolved: %d", lookup_obj_text(dir).c_str(), name, st);
      *status = TBS_ST_NOT_FOUND;
      return nullptr;
    } else {
      // The view has a record of the name: its answer is served, but not kept.
      trace.writeTrace(TRACE_LEVEL_4, "%s->%s from the view alone: %d", lookup_obj_text(dir).c_str(), name, st);
      provisional = true;
    }
  }

  // 5. The merge.
  name_entry* nep = cm_name(dir, nullptr, name, silo_dbid, view_dbid, state, status);
  if (nep != nullptr && provisional && nep->ref_cnt == 1) {
    nep->flags |= NAME_FLAG_PROVISIONAL;
    nep->flags &= ~NAME_FLAG_CACHEABLE;
  }
  return nep;
}

obj_entry* lookup_name(obj_entry* dir, const char* name, uint32_t* state, int* cacheable, int* status) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  auto clear = [&] {
    if (*state != VIEW_NAME_STATE_HIDDEN) *state = 0;
    *cacheable = 0;
  };
  if (name[0] == 0 || is_dot(name) || is_dot_dot(name)) {
    clear();
    *status = TBS_ST_BAD_ARG;
    return nullptr;
  }
  if (!lookup_is_dir_kind(dir->mtype)) {
    clear();
    *status = lookup_unexpected_mtype(dir);
    return nullptr;
  }
  name_entry* nep = lookup_cm_name(dir, nullptr, name, status);
  if (nep == nullptr) {
    clear();
    return nullptr;
  }
  obj_entry* obj = nullptr;
  if (nep->state & VIEW_NAME_STATE_NOT_VISIBLE) {
    *status = not_visible_status(nep->state);
  } else {
    obj = nep->ver;
    obj_inc_ref(obj);
    *status = 0;
  }
  *state = nep->state;
  *cacheable = (nep->flags & NAME_FLAG_CACHEABLE) ? 1 : 0;
  lookup_nep_free(nep);
  return obj;
}

obj_entry* lookup_hm_name(obj_entry* dir, const char* name, uint32_t* state, int* cacheable, int* status) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  name_entry* nep = lookup_find_nep(dir, name, true);
  if (nep == nullptr) {
    if (*state != VIEW_NAME_STATE_HIDDEN) *state = 0;
    *cacheable = 0;
    *status = TBS_ST_INTERNAL;
    return nullptr;
  }
  obj_entry* obj = nullptr;
  if (nep->state & VIEW_NAME_STATE_NOT_VISIBLE) {
    *status = not_visible_status(nep->state);
  } else {
    obj = nep->ver;
    obj_inc_ref(obj);
    *status = 0;
  }
  *state = nep->state;
  *cacheable = (nep->flags & NAME_FLAG_CACHEABLE) ? 1 : 0;
  return obj;
}

// ---- the view protocol --------------------------------------------------------------------------------

int ns_lookup_flags(const view_fhandle_t* dir, const char* name, view_hm_warp_opt warp, const char* residual,
                    view_fhandle_t* fh_out, view_fhandle_t* parent_out, view_vstat_t* vstat, uint32_t* consumed,
                    int* cacheable, view_name_state_t* name_state, struct timeval* lvut, int* checked_out,
                    bool* eclipsed, bool* hijacked, tbs_oid_s* co_ver_oid, bool* dot_dot) {
  std::unique_lock<Tavrel_Recursive_Mutex> lock(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_lookup", "ns_lookup_flags");
  if (residual == nullptr) residual = "";
  trace.writeTrace(TRACE_LEVEL_4, "path '%s' residual '%s'", name, residual);
  *cacheable = 0;
  *consumed = 0;
  if (warp != 0) return TBS_ST_BAD_ARG;

  if (dot_dot != nullptr) *dot_dot = false;
  *parent_out = *dir;
  *name_state = 0;
  int hm = 0, status = 0;
  obj_entry* obj = locate_validate_fhandle(dir, &hm, &status);
  if (obj == nullptr) return status == TBS_ST_NOT_FOUND ? TBS_ST_NO_SUCH_NAME : status;

  obj_entry* parent = nullptr;  // the directory the last name was found in, with a reference
  const char* last_leaf = name;
  char leaf[LEAF_MAX];
  uint32_t state = 0;
  int depth;
  auto finish = [&](int st) {
    obj_free(obj);
    obj_free(parent);
    if (st == TBS_ST_NOT_FOUND) {
      // An unresolved name is told as absent, and the kernel must not keep that answer.
      st = TBS_ST_NO_SUCH_NAME;
      *cacheable = 0;
    }
    return st;
  };

  // First component.
  if (is_dot(name)) {
    status = acl_check_ext(obj, 0, vstat, &state, 4, 1);
    if (status != 0) return finish(status);
    *cacheable = 1;
    depth = 0;
  } else if (is_dot_dot(name)) {
    obj_entry* up = lookup_dot_dot(obj, hm, cacheable, &status);
    if (up == nullptr) return finish(status);
    obj_free(obj);
    obj = up;
    depth = -1;
  } else {
    obj_entry* found = lookup_component(obj, name, hm, &state, cacheable, &status);
    if (found == nullptr) {
      *name_state = state;
      return finish(status);
    }
    parent = obj;
    obj = found;
    depth = 1;
  }
  status = fstat_vstat(obj, hm, vstat);
  if (status != 0) return finish(status);
  *consumed = 0;

  // The residual path, leaf by leaf.
  const char* p = residual;
  while (*p != 0 && depth >= 0) {
    if (*p == '/') {
      p++;
      (*consumed)++;
      continue;
    }
    if (vstat->fstat.type != TBS_FTYPE_DIR) break;
    const size_t len = std::strcspn(p, "/");
    if (len >= LEAF_MAX) break;
    std::memcpy(leaf, p, len);
    leaf[len] = 0;
    trace.writeTrace(TRACE_LEVEL_4, "lookup leaf '%s' residual '%s'", leaf, p + len);
    if (is_dot(leaf)) {
      // the object stays
    } else if (is_dot_dot(leaf)) {
      if (dot_dot != nullptr) {
        // The resolver takes the level itself.
        *dot_dot = true;
        *consumed += static_cast<uint32_t>(len);
        break;
      }
      int c = 0;
      obj_entry* up = lookup_dot_dot(obj, hm, &c, &status);
      if (up == nullptr) break;
      if (!c) *cacheable = 0;
      obj_free(obj);
      obj = up;
      depth--;
    } else {
      int c = 0;
      uint32_t leaf_state = 0;
      obj_entry* found = lookup_component(obj, leaf, hm, &leaf_state, &c, &status);
      if (found == nullptr) break;  // the walk ends at the last good object
      state = leaf_state;
      if (!c) *cacheable = 0;
      depth++;
      makehandle(obj, hm, parent_out);
      obj_free(parent);
      parent = obj;
      obj = found;
      last_leaf = p;  // the leaf is the first len bytes of p
    }
    status = fstat_vstat(obj, hm, vstat);
    if (status != 0) return finish(status);
    *consumed += static_cast<uint32_t>(len);
    p += len;
  }

  makehandle(obj, hm, fh_out);
  if (lvut != nullptr) {
    *lvut = obj->silo->lvut;
    trace.writeTrace(TRACE_LEVEL_4, "LVUT %ld.%06ld", static_cast<long>(lvut->tv_sec), static_cast<long>(lvut->tv_usec));
  }
  status = 0;
  *name_state = state;

  if (eclipsed != nullptr) *eclipsed = view_name_state_eclipsed(state);
  if (hijacked != nullptr) {
    *hijacked = (state & VIEW_NAME_STATE_HIJACKED) != 0;
    if (*hijacked && parent != nullptr) {
      // The hijack record keeps the version and element the view stood on before.
      const size_t n = std::strcspn(last_leaf, "/");
      std::string leaf_name(last_leaf, n);
      obj_entry* dir_elem = obj_2elem(parent);
      tavrel_db_obj_ref ref;
      ref.replica = dir_elem->silo->uuid;
      ref.oid = dir_elem->oid;
      ref.mtype = dir_elem->mtype;
      tbs_oid_s ver{}, elem{};
      if (tavrel_db_hijack_get(ref, leaf_name.c_str(), &ver, &elem) == 0) {
        vstat->obj_oid = ver;
        vstat->elem_oid = elem;
      }
    }
  }

  if (checked_out != nullptr) *checked_out = state_checked_out(state);
  const bool want_co = checked_out != nullptr && *checked_out && co_ver_oid != nullptr;
  // What the checkout version is read from, copied before the objects are let go.
  obj_entry* silo_side = obj;
  if (obj_isa_view_obj(obj) && obj->cover_obj != nullptr) silo_side = obj->cover_obj;
  const tbs_uuid_s replica = obj->silo->uuid;
  const uint32_t co_dbid = silo_side->dbid;
  const uint32_t co_elem_dbid = silo_side->otype == CACHE_COVER_OBJ ? silo_side->dbid : obj_2elem(silo_side)->dbid;
  const uint32_t ftype = vstat->fstat.type;
  status = finish(0);
  obj = parent = nullptr;

  if (want_co) {
    // The database is read without the cache mutex; no object is held meanwhile.
    lock.unlock();
    int st = TBS_ST_INTERNAL;
    if (ftype == TBS_FTYPE_FILE) {
      tavrel_vstat tv{};
      if (Tavrel_View_db_version(replica, co_dbid).get_rvstat(tv) == 0) {
        vstat->elem_oid = tv.vstat.elem_oid;
        *co_ver_oid = tv.vstat.obj_oid;
        st = 0;
      }
    } else if (ftype == TBS_FTYPE_DIR) {
      tbs_oid_s oid{};
      if (Tavrel_View_db_element(replica, co_elem_dbid).get_co_ver_oid(oid) == 0) {
        *co_ver_oid = oid;
        st = 0;
      }
    }
    lock.lock();
    if (st != 0) {
      trace.writeTrace(TRACE_LEVEL_2, "checkout version of dbid 0x%x not read", co_dbid);
      return TBS_ST_INTERNAL;
    }
  }
  return status;
}

int ns_lookup(const view_fhandle_t* dir, const char* name, view_hm_warp_opt warp, const char* residual,
              view_fhandle_t* fh_out, view_fhandle_t* parent_out, view_vstat_t* vstat, uint32_t* consumed,
              int* cacheable, view_name_state_t* name_state, struct timeval* lvut) {
  int st = ns_lookup_flags(dir, name, warp, residual, fh_out, parent_out, vstat, consumed, cacheable, name_state,
                           lvut, nullptr, nullptr, nullptr, nullptr, nullptr);
  *name_state &= VIEW_NAME_STATE_KERNEL_MASK;
  return st;
}

int ns_lookup_white_out(const view_fhandle_t* fh, const char* name, bool* hijacked) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  int hm = 0, status = 0;
  obj_entry* dir = locate_validate_fhandle(fh, &hm, &status);
  if (dir == nullptr) return status;
  int result = TBS_ST_EXISTS;
  name_entry* nep = lookup_is_dir_kind(dir->mtype) ? lookup_cm_name(dir, nullptr, name, &status) : nullptr;
  if (nep != nullptr && (nep->state & VIEW_NAME_STATE_WHITE_OUT)) {
    if (hijacked != nullptr) *hijacked = (nep->state & VIEW_NAME_STATE_HIJACKED) != 0;
    result = 0;
  }
  lookup_nep_free(nep);
  obj_free(dir);
  return result;
}
