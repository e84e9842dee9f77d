// Roots, parents and paths of the lookup cache: a SILO's root and its entry, "..", the name by which an
// object is reached, the revalidation of a directory handle, and the path of an object.
#include <cstring>
#include <mutex>
#include <vector>

#include "base/imsg.h"
#include "base/strutl.h"
#include "core/tavrel_trace.h"
#include "fs/tavrel_metadata.h"
#include "ns/ns_locate.h"
#include "ns/ns_lookup.h"
#include "ns/ns_lookup_int.h"
#include "ns/ns_readdir.h"
#include "ns/ns_silo.h"
#include "ns/tavrel_db_utls.h"
#include "proto/kfsm_status.h"
#include "proto/tavrel_status.h"

namespace {

constexpr size_t PARENT_PATH_MAX = 1024;
constexpr size_t LEAF_NAME_MAX = 256;

// The entry a scan of parent_list accepts: from another directory, not a listing's or history mode's,
// decided by the view.
bool view_parent_entry(const name_entry* nep, const obj_entry* obj) {
  return nep->dir != obj && (nep->state & (VIEW_NAME_STATE_LISTED | VIEW_NAME_STATE_HM)) == 0 &&
         (nep->state & VIEW_NAME_STATE_VIEW) != 0;
}

name_entry* take_nep(name_entry* nep) {
  nep->ref_cnt++;
  obj_inc_ref(nep->ver);
  return nep;
}

// Appends "/name" to the path in buf (just "name" to an empty path). 1084 when it does not fit.
int path_append(char* buf, size_t size, const char* name) {
  const size_t have = std::strlen(buf), len = std::strlen(name);
  const size_t need = have + (have != 0 ? 1 : 0) + len + 1;
  if (need > size) return TBS_ST_TOO_LONG;
  if (have != 0) buf[have] = '/';
  strutl_cpy_buf(buf + have + (have != 0 ? 1 : 0), size - have - (have != 0 ? 1 : 0), name);
  return 0;
}

// The entry of `name` in the directory that the entry `p_nep` reaches, with its path appended.
name_entry* child_entry(name_entry* p_nep, const char* name, char* path, size_t size, int* status) {
  int st = path_append(path, size, name);
  if (st != 0) {
    *status = st;
    return nullptr;
  }
  return lookup_cm_name(p_nep->ver, nullptr, name, status);
}

// The parent through the view database: the directory element that holds a SILO object (a link or an
// element) under its first name.
name_entry* parent_by_db_elem(obj_entry* obj, char* path, size_t size, int* status) {
  view_silo* silo = obj->silo;
  uint32_t parent_elem_dbid = 0;
  char name[LEAF_NAME_MAX] = "";
  int st = tavrel_db_get_parent_elem(obj, &parent_elem_dbid, name, sizeof name);
  if (st != 0) {
    if (st != TBS_ST_NOT_FOUND) silo_print_error_oid(silo, "tavrel_db_get_parent_dir", obj->oid, st);
    *status = st;
    return nullptr;
  }
  if (parent_elem_dbid == 0) {  // the object is a root
    *status = TBS_ST_REFUSED;
    return nullptr;
  }
  obj_entry* parent_elem = locate_dbid(silo, parent_elem_dbid, 1, status);
  if (parent_elem == nullptr) return nullptr;
  name_entry* p_nep = lookup_parent(parent_elem, path, size, 0, status);
  obj_free(parent_elem);
  if (p_nep == nullptr) return nullptr;
  if (name[0] == 0) {
    st = ns_readdir_get_parent_name(p_nep->ver, obj, sizeof name, name);
    if (st != 0) {
      silo_print_error_oid(silo, "tavrel_db_get_parent_dir", obj->oid, st);
      lookup_nep_free(p_nep);
      *status = st;
      return nullptr;
    }
  }
  name_entry* nep = child_entry(p_nep, name, path, size, status);
  lookup_nep_free(p_nep);
  return nep;
}

// An element's parent: the root's own entry, a cached name of one of its directory versions whose
// directory has a parent, or the view database.
name_entry* parent_of_elem(obj_entry* elem, char* path, size_t size, int* status) {
  obj_entry* root = lookup_ensure_root(elem->silo, status);
  if (root == nullptr) return nullptr;
  if (elem == root) {
    path[0] = 0;
    return lookup_cm_root_ext(elem->silo, status);
  }
  // The candidates are held while their directories' parents are sought: that may read the database
  // and the server, and make room in the caches.
  std::vector<name_entry*> candidates;
  for (obj_entry* v = elem->ver; v != nullptr; v = v->ver_next) {
    if (v->mtype != 3 && v->mtype != 8) continue;
    for (name_entry* nep = v->parent_list; nep != nullptr; nep = nep->ver_next)
      if ((nep->state & (VIEW_NAME_STATE_LISTED | VIEW_NAME_STATE_HM)) == 0 && nep->dir != v)
        candidates.push_back(take_nep(nep));
  }
  name_entry* result = nullptr;
  int st = 0;
  for (name_entry* nep : candidates) {
    if (result != nullptr) continue;
    path[0] = 0;
    if (nep->dir->mtype == 1) {  // a root's entry
      result = take_nep(nep);
      continue;
    }
    name_entry* p_nep = lookup_parent(nep->dir, path, size, 0, &st);
    if (p_nep == nullptr) continue;
    lookup_nep_free(p_nep);
    st = path_append(path, size, nep->name);
    if (st != 0) break;
    result = take_nep(nep);
  }
  for (name_entry* nep : candidates) lookup_nep_free(nep);
  if (result != nullptr || st == TBS_ST_TOO_LONG) {
    *status = result != nullptr ? 0 : st;
    return result;
  }
  path[0] = 0;
  return parent_by_db_elem(elem, path, size, status);
}

// A view-private object's parent: the directory that names it in the view database.
name_entry* parent_of_private(obj_entry* obj, char* path, size_t size, int* status) {
  uint32_t parent_dbid = 0;
  char name[LEAF_NAME_MAX] = "";
  int st = tavrel_db_find_parent(obj, &parent_dbid, name, sizeof name);
  if (st != 0) {
    *status = st;
    return nullptr;
  }
  obj_entry* parent = locate_dbid(obj->silo, parent_dbid, 1, status);
  if (parent == nullptr) return nullptr;
  name_entry* p_nep = lookup_parent(parent, path, size, 0, status);
  obj_free(parent);
  if (p_nep == nullptr) return nullptr;
  name_entry* nep = child_entry(p_nep, name, path, size, status);
  lookup_nep_free(p_nep);
  return nep;
}

}  // namespace

// ---- roots --------------------------------------------------------------------------------------------

obj_entry* lookup_ensure_root(view_silo* silo, int* status) {
  if (silo->root != nullptr) return silo->root;
  Tavrel_Trace trace(TAVREL, "ns_lookup", "lookup_ensure_root");
  uint32_t elem_dbid = 0, ver_dbid = 0;
  tavrel_vstat tv{};
  int st = Tavrel_Metadata::bindroot(silo->uuid, &elem_dbid, &ver_dbid, &tv);
  if (st != 0 && st != TAVREL_ST_NOT_FOUND) {
    trace.writeTrace(TRACE_LEVEL_2, "root of %s not bound: %d", tbs_uuid_to_str(silo->uuid).c_str(), st);
    *status = TBS_ST_FAILURE;
    return nullptr;
  }
  obj_entry* root = locate_dbid(silo, elem_dbid, 1, status);
  if (root == nullptr) return nullptr;
  if (silo->root != nullptr) {  // bound meanwhile by a call of our own
    obj_free(root);
    return silo->root;
  }
  silo->root = root;  // the SILO keeps the reference
  return root;
}

name_entry* lookup_cm_root_ext(view_silo* silo, int* status) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  obj_entry* anchor = lookup_ensure_anchor(silo);
  if (anchor == nullptr) {
    *status = TBS_ST_NO_RESOURCES;
    return nullptr;
  }
  obj_entry* root = lookup_ensure_root(silo, status);
  if (root == nullptr) return nullptr;
  name_entry* nep = lookup_find_nep(anchor, "", false);
  if (nep != nullptr) {
    *status = 0;
    return take_nep(nep);
  }
  return cm_name(anchor, nullptr, "", root->dbid, 0, VIEW_NAME_STATE_SILO_REC, status);
}

obj_entry* lookup_root_ext(view_silo* silo, view_hm_warp_opt warp, int* cacheable, uint32_t* state, int* status) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  *cacheable = 0;
  *state = 0;
  if (warp == 1) {
    obj_entry* root = lookup_ensure_root(silo, status);
    if (root == nullptr) return nullptr;
    obj_inc_ref(root);
    *cacheable = 1;
    *status = 0;
    return root;
  }
  if (warp != 0 && warp != 2) {
    *status = TBS_ST_BAD_ARG;
    return nullptr;
  }
  name_entry* nep = lookup_cm_root_ext(silo, status);
  if (nep == nullptr) return nullptr;
  obj_entry* obj = nullptr;
  *state = nep->state;
  if (nep->state & VIEW_NAME_STATE_NOT_VISIBLE) {
    *status = (nep->state & 0x104) ? TBS_ST_NO_SUCH_NAME : TBS_ST_NO_OBJECT;
  } else {
    obj = nep->ver;
    obj_inc_ref(obj);
    *cacheable = (nep->flags & NAME_FLAG_CACHEABLE) ? 1 : 0;
    *status = 0;
  }
  lookup_nep_free(nep);
  return obj;
}

// ---- parents ------------------------------------------------------------------------------------------

obj_entry* lookup_dot_dot(obj_entry* obj, int hm, int* cacheable, int* status) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  *cacheable = 0;
  obj_entry* root = lookup_ensure_root(obj->silo, status);
  if (root == nullptr) return nullptr;
  obj_entry* top = (hm || obj->otype == CACHE_COVER_OBJ) ? obj : obj_2elem(obj);
  if (top == root) {
    obj_inc_ref(obj);
    *cacheable = 1;
    *status = 0;
    return obj;
  }
  if (!hm) {
    if (!lookup_is_dir_kind(obj->mtype)) {
      *status = lookup_unexpected_mtype(obj);
      return nullptr;
    }
    char path[PARENT_PATH_MAX];
    name_entry* nep = lookup_parent(obj, path, sizeof path, 0, status);
    if (nep == nullptr) return nullptr;
    obj_entry* dir = nep->dir;
    obj_inc_ref(dir);
    *cacheable = (nep->flags & NAME_FLAG_CACHEABLE) ? 1 : 0;
    lookup_nep_free(nep);
    *status = 0;
    return dir;
  }
  for (name_entry* nep = obj->parent_list; nep != nullptr; nep = nep->ver_next) {
    if (nep->dir != obj && (nep->state & VIEW_NAME_STATE_LISTED) == 0 && (nep->state & VIEW_NAME_STATE_HM) &&
        (nep->state & VIEW_NAME_STATE_VIEW)) {
      obj_inc_ref(nep->dir);
      *cacheable = (nep->flags & NAME_FLAG_CACHEABLE) ? 1 : 0;
      *status = 0;
      return nep->dir;
    }
  }
  *status = TBS_ST_INTERNAL;
  return nullptr;
}

name_entry* lookup_parent(obj_entry* obj, char* path, size_t path_size, int hm, int* status) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_lookup", "lookup_parent");
  if (path_size == 0) {
    *status = TBS_ST_TOO_LONG;
    return nullptr;
  }
  path[0] = 0;
  if (obj->flags & OBJ_FLAG_LOOKUP_PARENT) {  // a cycle
    *status = TBS_ST_REFUSED;
    return nullptr;
  }
  obj->flags |= OBJ_FLAG_LOOKUP_PARENT;
  name_entry* result = nullptr;
  int st = 0;

  // A name by which the view reaches the object.
  name_entry* nep = nullptr;
  if (!hm && obj->mtype != 1) {
    for (nep = obj->parent_list; nep != nullptr; nep = nep->ver_next)
      if (view_parent_entry(nep, obj)) break;
  }
  if (nep != nullptr) {
    NS_LOOKUP_ASSERT(!(nep->state & VIEW_NAME_STATE_NOT_VISIBLE), "!(nep->state & VIEW_NAME_STATE_NOT_VISIBLE)");
    nep = take_nep(nep);  // held across the search above it
    if (nep->dir->mtype == 1) {
      result = take_nep(nep);
    } else {
      name_entry* p_nep = lookup_parent(nep->dir, path, path_size, hm, &st);
      if (p_nep != nullptr) {
        // A directory version that is no longer selected is reached through its element's name: the
        // path holds all the same.
        if (p_nep->ver != nep->dir)
          trace.writeTrace(TRACE_LEVEL_4, "parent of %s reached through another version", lookup_obj_text(obj).c_str());
        lookup_nep_free(p_nep);
        st = path_append(path, path_size, nep->name);
        if (st == 0) result = take_nep(nep);
      }
    }
    lookup_nep_free(nep);
  } else {
    switch (obj->mtype) {
      case 2: case 5:
        result = parent_of_elem(obj, path, path_size, &st);
        break;
      case 3: case 6: case 8: {
        obj_entry* elem = obj_2elem(obj);
        if (elem == obj)
          st = TBS_ST_REFUSED;
        else
          result = lookup_parent(elem, path, path_size, hm, &st);
        break;
      }
      case 7:
        result = parent_by_db_elem(obj, path, path_size, &st);
        break;
      case 19: case 21: case 22: case 23: case 26:
        result = parent_of_private(obj, path, path_size, &st);
        break;
      default:
        st = lookup_unexpected_mtype(obj);
    }
  }

  if (result == nullptr && (st == TBS_ST_REFUSED || st == TBS_ST_NO_PERMISSION || st == TBS_ST_NOT_FOUND)) {
    trace.writeTrace(TRACE_LEVEL_1, "Directory %s has no parents\n", lookup_obj_text(obj).c_str());
    st = TBS_ST_REFUSED;
  }
  obj->flags &= ~OBJ_FLAG_LOOKUP_PARENT;
  *status = result != nullptr ? 0 : st;
  return result;
}

obj_entry* lookup_revalidate(obj_entry* obj, int* status) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  char path[PARENT_PATH_MAX];
  name_entry* nep = nullptr;
  if (obj->mtype == 2) {
    nep = lookup_parent(obj, path, sizeof path, 0, status);
  } else if (obj->mtype == 3) {
    for (name_entry* e = obj->parent_list; e != nullptr; e = e->ver_next) {
      if (e->dir != obj && (e->state & (VIEW_NAME_STATE_LISTED | VIEW_NAME_STATE_HM)) == 0 &&
          (e->state & VIEW_NAME_STATE_VIEW)) {
        nep = take_nep(e);
        break;
      }
    }
    if (nep == nullptr) {
      obj_entry* elem = obj_2elem(obj);
      if (elem == obj) {
        *status = TBS_ST_REFUSED;
        return nullptr;
      }
      nep = lookup_parent(elem, path, sizeof path, 0, status);
    }
  } else {
    obj_inc_ref(obj);
    *status = 0;
    return obj;
  }
  if (nep == nullptr) return nullptr;
  obj_entry* result = nullptr;
  if (nep->state & VIEW_NAME_STATE_NOT_VISIBLE) {
    *status = (nep->state & 0x104) ? TBS_ST_NO_SUCH_NAME : TBS_ST_NO_OBJECT;
  } else {
    result = nep->ver;
    obj_inc_ref(result);
    *status = 0;
  }
  lookup_nep_free(nep);
  return result;
}

// ---- paths --------------------------------------------------------------------------------------------

int lookup_gpath(obj_entry* obj, int hm, size_t path_max, char* path, size_t ext_path_max, char* ext_path) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_lookup", "lookup_gpath");
  if (path_max == 0 || ext_path_max == 0) return TBS_ST_BAD_ARG;
  if (hm) return TBS_ST_INTERNAL;
  if (obj->mtype == 9) return TBS_ST_NOT_FOUND;
  if (path_max < 2) return TBS_ST_TOO_LONG;
  auto failed = [&](int st) {
    imsg_print(IMSG_ERR, "view_cm_gpath of %s: %s\n", lookup_obj_text(obj).c_str(), tbs_strerror(st));
    return st;
  };

  // The path, from the name by which the object is reached.
  path[0] = '/';
  int st = 0;
  name_entry* nep;
  if (obj_isa_view_obj(obj)) {
    nep = lookup_parent(obj, path + 1, path_max - 1, 0, &st);
  } else {
    nep = lookup_parent(obj, path + 1, path_max - 1, 1, &st);
    if (nep == nullptr && st == TBS_ST_REFUSED) nep = lookup_parent(obj, path + 1, path_max - 1, 0, &st);
  }
  if (nep == nullptr) return failed(st);
  lookup_nep_free(nep);

  // The same path built from its end, directory by directory; a directory met twice is a cycle.
  std::vector<const obj_entry*> visited;
  visited.reserve(10);
  size_t pos = ext_path_max - 1;
  ext_path[pos] = 0;
  obj_entry* cur = obj;
  obj_inc_ref(cur);
  char scratch[PARENT_PATH_MAX];
  for (;;) {
    name_entry* e = lookup_parent(cur, scratch, sizeof scratch, 0, &st);
    if (e == nullptr) break;
    obj_entry* dir = e->dir;
    const size_t len = std::strlen(e->name);
    if (dir->mtype == 1) {  // the root's own entry
      lookup_nep_free(e);
      break;
    }
    if (pos < len + 1) {
      lookup_nep_free(e);
      st = TBS_ST_TOO_LONG;
      break;
    }
    pos -= len;
    std::memcpy(ext_path + pos, e->name, len);
    ext_path[--pos] = '/';
    lookup_nep_free(e);
    bool seen = false;
    for (const obj_entry* v : visited) seen |= v == dir;
    if (seen) {
      st = TBS_ST_REFUSED;
      break;
    }
    visited.push_back(dir);  // the vector doubles its room as needed
    obj_inc_ref(dir);
    obj_free(cur);
    cur = dir;
  }
  obj_free(cur);
  if (st != 0) return failed(st);
  if (ext_path[pos] == 0) {  // the root
    if (pos == 0) return failed(TBS_ST_TOO_LONG);
    ext_path[--pos] = '/';
  }
  std::memmove(ext_path, ext_path + pos, ext_path_max - pos);
  trace.writeTrace(TRACE_LEVEL_4, "%s: %s", lookup_obj_text(obj).c_str(), path);
  return 0;
}
