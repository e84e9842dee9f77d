// The lookup cache itself: entries, their table and budget, invalidation, the view's own changes, and
// the flusher the object cache calls. The lookups are in ns_lookup_name.cpp, roots, parents and paths in
// ns_lookup_parent.cpp.
#include "ns/ns_lookup.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <vector>

#include "base/imsg.h"
#include "core/tavrel_trace.h"
#include "ns/ns_fstat.h"
#include "ns/ns_lookup_int.h"
#include "ns/ns_readdir.h"
#include "ns/ns_silo.h"

namespace {

// Guarded by tavrel_cache_mutex().
name_entry* name_hash_table[NS_NAME_BUCKETS];
uint32_t name_hash_clock;  // the sweep's hand: the bucket the next sweep starts at

size_t nep_charge(const name_entry* nep) { return std::strlen(nep->name) + NS_NAME_CHARGE; }

void unchain_list(name_entry** head, name_entry* nep, name_entry* name_entry::*next) {
  for (name_entry** p = head; *p != nullptr; p = &((*p)->*next)) {
    if (*p == nep) {
      *p = nep->*next;
      return;
    }
  }
  NS_LOOKUP_ASSERT(false, "name entry on its object's list");
}

// Takes an unreferenced entry off its directory's and target's lists, drops its reference on the
// directory, uncharges and frees it. The caller has unchained it from its bucket.
void nep_dispose_int(name_entry* nep) {
  NS_LOOKUP_ASSERT(nep->ref_cnt == 0, "nep->ref_cnt == 0");
  unchain_list(&nep->dir->name_list, nep, &name_entry::dir_next);
  unchain_list(&nep->ver->parent_list, nep, &name_entry::ver_next);
  obj_free(nep->dir);
  name_cache_stats.size -= static_cast<long>(nep_charge(nep));
  name_cache_stats.count--;
  std::free(nep);
}

name_entry** bucket_of(const name_entry* nep) {
  return &name_hash_table[lookup_name_bucket(nep->dir->dbid, nep->name)];
}

// The sweep: a clock over the buckets from name_hash_clock. Unreferenced entries not touched since the
// hand last passed go (ejects); others lose their touch. Three wraps at most; stops at the end of a
// bucket once the size is under the budget.
void name_sweep(long name_max) {
  int wraps = 3;
  while (name_cache_stats.size >= name_max && wraps > 0) {
    name_entry** p = &name_hash_table[name_hash_clock];
    while (*p != nullptr) {
      name_entry* nep = *p;
      if ((nep->flags & NAME_FLAG_TOUCHED) == 0 && nep->ref_cnt == 0) {
        *p = nep->next;
        nep_dispose_int(nep);
        name_cache_stats.ejects++;
      } else {
        nep->flags &= ~NAME_FLAG_TOUCHED;
        p = &nep->next;
      }
    }
    if (++name_hash_clock == NS_NAME_BUCKETS) {
      name_hash_clock = 0;
      wraps--;
    }
  }
}

// Disposes of the entries of `head`'s list (through `next`) that `pick` selects.
template <typename Pick>
void dispose_list(name_entry* name_entry::*next, name_entry* head_of(obj_entry*), obj_entry* obj, Pick pick) {
  name_entry* nep = head_of(obj);
  while (nep != nullptr) {
    name_entry* following = nep->*next;
    if (pick(nep)) lookup_remove_nep(nep);
    nep = following;
  }
}

name_entry* parent_head(obj_entry* obj) { return obj->parent_list; }
name_entry* name_head(obj_entry* obj) { return obj->name_list; }

void flush_obj_hook(obj_entry* obj) { lookup_flush_names2obj(obj, 0); }

struct Installer {
  Installer() { ns_lookup_install(); }
} g_installer;

}  // namespace

// ---- helpers shared by the lookup sources -------------------------------------------------------------

uint32_t lookup_name_bucket(uint32_t dir_dbid, const char* name) {
  // FNV-1a over the directory's dbid (low byte first) and the name.
  uint32_t h = 2166136261u;
  for (int i = 0; i < 4; i++) {
    h ^= (dir_dbid >> (8 * i)) & 0xff;
    h *= 16777619u;
  }
  for (const unsigned char* c = reinterpret_cast<const unsigned char*>(name); *c != 0; c++) {
    h ^= *c;
    h *= 16777619u;
  }
  return h % NS_NAME_BUCKETS;
}

std::string lookup_obj_text(const obj_entry* obj) {
  if (obj == nullptr) return "(none)";
  std::string replica = obj->silo != nullptr ? tbs_uuid_to_str(obj->silo->uuid) : std::string("(flushed)");
  return "oid:" + tbs_oid_to_str(obj->oid) + "@replicauuid:" + replica;
}

int lookup_unexpected_mtype(const obj_entry* obj) {
  imsg_print(IMSG_ERR, "Unexpected mtype(%ld) for object %s\n", static_cast<long>(obj->mtype),
             lookup_obj_text(obj).c_str());
  return TBS_ST_INTERNAL;
}

bool lookup_is_dir_kind(silo_mtype_t mtype) {
  switch (mtype) {
    case 3: case 6: case 8: case 19: case 21: case 22: case 23: case 26: return true;
    default: return false;
  }
}

name_entry* lookup_find_nep(obj_entry* dir, const char* name, bool hm) {
  for (name_entry* nep = name_hash_table[lookup_name_bucket(dir->dbid, name)]; nep != nullptr; nep = nep->next) {
    if (nep->dir != dir || std::strcmp(nep->name, name) != 0) continue;
    if (((nep->state & VIEW_NAME_STATE_HM) != 0) != hm) continue;
    if (nep->flags & NAME_FLAG_PROVISIONAL) continue;
    return nep;
  }
  return nullptr;
}

void lookup_remove_nep(name_entry* nep) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  NS_LOOKUP_ASSERT(nep->ref_cnt == 0, "nep->ref_cnt == 0");
  name_entry** head = bucket_of(nep);
  for (name_entry** p = head; *p != nullptr; p = &(*p)->next) {
    if (*p == nep) {
      *p = nep->next;
      nep_dispose_int(nep);
      return;
    }
  }
  NS_LOOKUP_ASSERT(false, "name entry in its bucket");
}

int lookup_remove_name(obj_entry* dir, const char* name, uint16_t only_flags) {
  int removed = 0;
  name_entry** p = &name_hash_table[lookup_name_bucket(dir->dbid, name)];
  while (*p != nullptr) {
    name_entry* nep = *p;
    if (nep->dir == dir && std::strcmp(nep->name, name) == 0 && (only_flags == 0 || ((nep->flags & only_flags) && nep->ref_cnt == 0))) {
      NS_LOOKUP_ASSERT(nep->ref_cnt == 0, "nep->ref_cnt == 0");
      *p = nep->next;
      nep_dispose_int(nep);
      removed++;
    } else {
      p = &nep->next;
    }
  }
  return removed;
}

obj_entry* lookup_ensure_anchor(view_silo* silo) {
  if (silo->not_found != nullptr) return silo->not_found;
  obj_entry* anchor = obj_get(silo, 1);
  if (anchor == nullptr) {
    tbs_oid_s oid;
    static_assert(sizeof oid.bytes == sizeof silo->uuid.bytes, "an oid holds a uuid");
    std::memcpy(oid.bytes, silo->uuid.bytes, sizeof oid.bytes);
    anchor = obj_alloc(silo, 1, oid, 1, static_cast<uint32_t>(silo->gen));
    if (anchor == nullptr) return nullptr;
  }
  silo->not_found = anchor;  // the SILO keeps the reference
  return anchor;
}

// ---- entries ------------------------------------------------------------------------------------------

name_entry* lookup_add_nep(obj_entry* dir, const char* name, obj_entry* ver, uint32_t state, uint32_t rule,
                           int cacheable) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_lookup", "lookup_add_nep");
  ns_lookup_install();
  const bool to_anchor = ver == nullptr;
  if (to_anchor) {
    ver = lookup_ensure_anchor(dir->silo);
    if (ver == nullptr) return nullptr;
    obj_inc_ref(ver);
    if ((state & VIEW_NAME_STATE_NOT_VISIBLE) == 0) state |= VIEW_NAME_STATE_NOT_FOUND;
  }

  const uint32_t b = lookup_name_bucket(dir->dbid, name);
  for (name_entry* nep = name_hash_table[b]; nep != nullptr; nep = nep->next) {
    if (nep->dir == dir && nep->ver == ver && nep->state == state && nep->rule == rule &&
        std::strcmp(nep->name, name) == 0) {
      nep->ref_cnt++;  // the caller's reference on ver now rides with this reference
      nep->flags &= ~NAME_FLAG_PROVISIONAL;
      if (cacheable) nep->flags |= NAME_FLAG_CACHEABLE;
      return nep;
    }
  }

  const long name_max = static_cast<long>(ns_cache_get_budget().name_max);
  if (name_cache_stats.size >= name_max) name_sweep(name_max);

  const size_t len = std::strlen(name);
  name_entry* nep = static_cast<name_entry*>(std::malloc(offsetof(name_entry, name) + len + 1));
  if (nep == nullptr) {
    imsg_print(IMSG_ERR, "Unable to malloc storage.\n");
    obj_free(ver);
    return nullptr;
  }
  std::memcpy(nep->name, name, len + 1);
  nep->session[0] = nep->session[1] = NS_NAME_SESSION_NONE;
  nep->state = state;
  nep->rule = rule;
  nep->ref_cnt = 1;
  nep->flags = NAME_FLAG_TOUCHED | (cacheable ? NAME_FLAG_CACHEABLE : 0);
  obj_inc_ref(dir);
  nep->dir = dir;
  nep->dir_next = dir->name_list;
  dir->name_list = nep;
  nep->ver = ver;
  nep->ver_next = ver->parent_list;
  ver->parent_list = nep;
  nep->next = name_hash_table[b];
  name_hash_table[b] = nep;
  name_cache_stats.size += static_cast<long>(len + NS_NAME_CHARGE);
  name_cache_stats.count++;
  if (to_anchor)
    trace.writeTrace(TRACE_LEVEL_4, "cached %s->%s, state %lx rule %ld, session %lx to not found\n",
                     lookup_obj_text(dir).c_str(), name, static_cast<long>(state), static_cast<long>(rule),
                     static_cast<long>(nep->session[0]));
  else
    trace.writeTrace(TRACE_LEVEL_4, "cached %s->%s state %lx rule %ld session %lx to 0x%lx\n",
                     lookup_obj_text(dir).c_str(), name, static_cast<long>(state), static_cast<long>(rule),
                     static_cast<long>(nep->session[0]), static_cast<long>(ver->dbid));
  return nep;
}

void lookup_nep_free(name_entry* nep) {
  if (nep == nullptr) return;
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  NS_LOOKUP_ASSERT(nep->ref_cnt > 0, "nep->ref_cnt > 0");
  nep->ref_cnt--;
  nep->flags |= NAME_FLAG_TOUCHED;
  obj_free(nep->ver);
}

// ---- invalidation -------------------------------------------------------------------------------------

void lookup_invalidate(obj_entry* dir, const char* name) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_lookup", "lookup_invalidate");
  int removed = lookup_remove_name(dir, name);
  name_cache_stats.flushes += static_cast<unsigned>(removed);
  trace.writeTrace(TRACE_LEVEL_5, "%s->%s: %d entries", lookup_obj_text(dir).c_str(), name, removed);
  readdir_invalidate_name(dir, name, 3);
}

void lookup_invalidate_oid(view_silo* silo, const tbs_oid_s* oid, const char* name) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  obj_entry* obj = obj_get_by_oid(silo, oid, 0);
  if (obj == nullptr) return;
  if (obj->otype == CACHE_ELEM_OBJ) {
    // Invalidation never flushes objects, so the element's list stays as it is while walking it.
    for (obj_entry* v = obj->ver; v != nullptr; v = v->ver_next) lookup_invalidate(v, name);
  } else if (obj->otype == CACHE_VER_OBJ || obj->otype == CACHE_OTHER_OBJ) {
    lookup_invalidate(obj, name);
  }
  obj_free(obj);
}

void lookup_invalidate_root(view_silo* silo) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  if (silo->root != nullptr) obj_flush(silo->root);
}

void lookup_invalidate_root_nsdir(view_silo* silo) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  obj_entry* anchor = lookup_ensure_anchor(silo);
  if (anchor != nullptr) lookup_invalidate(anchor, "");
}

void lookup_flush_names2obj(obj_entry* obj, int only_hm) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  auto pick = [only_hm](const name_entry* nep) { return !only_hm || (nep->state & VIEW_NAME_STATE_HM) != 0; };
  dispose_list(&name_entry::ver_next, parent_head, obj, pick);
  dispose_list(&name_entry::dir_next, name_head, obj, pick);
  if (!only_hm && obj->readdir_list != nullptr) {
    readdir_dispose(obj->readdir_list);
    NS_LOOKUP_ASSERT(obj->readdir_list == nullptr, "obj->readdir_list == NULL");
    readdir_cache_stats.flushes++;
  }
}

void lookup_invalidate_not_found(view_silo* silo) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  if (silo->not_found != nullptr) lookup_flush_names2obj(silo->not_found, 0);
}

void lookup_flush_build_session(uint32_t session) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  for (uint32_t b = 0; b < NS_NAME_BUCKETS; b++) {
    name_entry** p = &name_hash_table[b];
    while (*p != nullptr) {
      name_entry* nep = *p;
      for (uint32_t& s : nep->session)
        if (s == session) s = NS_NAME_SESSION_NONE;
      const bool no_session = nep->session[0] == NS_NAME_SESSION_NONE && nep->session[1] == NS_NAME_SESSION_NONE;
      if (no_session && (nep->flags & NAME_FLAG_CACHEABLE) == 0 && nep->ref_cnt == 0) {
        *p = nep->next;
        nep_dispose_int(nep);
      } else {
        p = &nep->next;
      }
    }
  }
}

void lookup_event_flush_dir(view_silo* silo, uint32_t dbid, int only_hm) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_lookup", "lookup_event_flush_dir");
  obj_entry* obj = obj_get(silo, dbid);
  if (obj == nullptr) return;
  trace.writeTrace(TRACE_LEVEL_2, "Flushing directory %s\n", lookup_obj_text(obj).c_str());
  // The targets of the names in the directory lose their attributes too; hold them while the names go.
  std::vector<obj_entry*> targets;
  for (name_entry* nep = obj->name_list; nep != nullptr; nep = nep->dir_next) {
    if (only_hm && (nep->state & VIEW_NAME_STATE_HM) == 0) continue;
    if (nep->ver == silo->not_found) continue;
    obj_inc_ref(nep->ver);
    targets.push_back(nep->ver);
  }
  lookup_flush_names2obj(obj, only_hm);
  for (obj_entry* t : targets) {
    fstat_flush(t);
    obj_free(t);
  }
  obj_free(obj);
}

// ---- changes made by the view -------------------------------------------------------------------------

int lookup_view_add(obj_entry* dir, const char* name, obj_entry* target, uint32_t state, uint32_t cookie,
                    uint32_t dbid) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_lookup", "lookup_view_add");
  name_entry* present = lookup_find_nep(dir, name, false);
  // Only a cached negative answer carries its rule and state over.
  const bool carry = present != nullptr && (present->state & 0x10210e) == VIEW_NAME_STATE_NOT_FOUND;
  const uint32_t old_state = carry ? present->state : 0, old_rule = carry ? present->rule : 0;
  lookup_remove_name(dir, name);
  if (!carry) {
    readdir_invalidate_name(dir, name, 1);
  } else {
    uint32_t new_state = (old_state & ~0x301d2eu) | (state & VIEW_NAME_STATE_VIEW_BITS) |
                         ((state & 0x1400) == VIEW_NAME_STATE_VIEW_REC ? VIEW_NAME_STATE_VIEW : 0);
    if (target != nullptr) {
      switch (target->mtype) {
        case 7: case 9: case 19: case 21: case 22: case 23: case 26: {
          obj_inc_ref(target);
          lookup_nep_free(lookup_add_nep(dir, name, target, new_state, old_rule, 1));
          break;
        }
        default: break;
      }
    }
    trace.writeTrace(TRACE_LEVEL_4, "%s: state %x carried as %x rule %u", name, old_state, new_state, old_rule);
  }
  return readdir_view_add(dir, dbid, name, cookie, state);
}

int lookup_view_rm(obj_entry* dir, const char* name, uint32_t state) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  name_entry* present = lookup_find_nep(dir, name, false);
  // A name the view decided keeps its rule and state, and becomes a cached ENOENT at once.
  const bool keep = present != nullptr && (present->state & 0x10310f) == 0x1001;
  const uint32_t kept_state = keep ? present->state : 0, kept_rule = keep ? present->rule : 0;
  lookup_remove_name(dir, name);
  readdir_view_rm(dir, name, state);
  if (keep) {
    uint32_t new_state = (state & VIEW_NAME_STATE_VIEW_BITS) | (kept_state & ~0x201c21u);
    lookup_nep_free(lookup_add_nep(dir, name, nullptr, new_state, kept_rule, 1));
  }
  return 0;
}

// ---- maintenance --------------------------------------------------------------------------------------

void ns_lookup_install() {
  // Cheap enough to repeat at every new entry, so that names never hang on objects whose cache does
  // not know how to drop them.
  ns_cache_set_flusher(NS_HANG_NAMES, ns_hanging_flusher{flush_obj_hook, lookup_flush_all});
}

void lookup_flush_all() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  for (uint32_t b = 0; b < NS_NAME_BUCKETS; b++) {
    while (name_hash_table[b] != nullptr) {
      name_entry* nep = name_hash_table[b];
      NS_LOOKUP_ASSERT(nep->ref_cnt == 0, "nep->ref_cnt == 0");
      name_hash_table[b] = nep->next;
      nep_dispose_int(nep);
      name_cache_stats.flushes++;
    }
  }
  name_hash_clock = 0;
}

std::string lookup_cache_check() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  long size = 0, count = 0;
  std::set<const name_entry*> seen;
  for (uint32_t b = 0; b < NS_NAME_BUCKETS; b++) {
    for (const name_entry* nep = name_hash_table[b]; nep != nullptr; nep = nep->next) {
      if (lookup_name_bucket(nep->dir->dbid, nep->name) != b) return "entry in the wrong bucket";
      if (!seen.insert(nep).second) return "entry chained twice";
      if (nep->ref_cnt != 0) return "entry still referenced";
      bool in_dir = false, in_ver = false;
      for (const name_entry* e = nep->dir->name_list; e != nullptr; e = e->dir_next) in_dir |= e == nep;
      for (const name_entry* e = nep->ver->parent_list; e != nullptr; e = e->ver_next) in_ver |= e == nep;
      if (!in_dir) return "entry missing from its directory's name_list";
      if (!in_ver) return "entry missing from its target's parent_list";
      if (nep->dir->ref_cnt == 0) return "directory of an entry without a reference";
      size += static_cast<long>(nep_charge(nep));
      count++;
    }
  }
  if (size != name_cache_stats.size) return "charged size differs from the entries' names + 41";
  if (count != name_cache_stats.count) return "entry count differs from the entries chained";
  return "";
}

void print_lookup_cache() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  imsg_print(IMSG_OK, "%4s %18s %18s %18s %18s %18s %10s %8s %4s %4s %5s %s\n", "hsh", "addr", "next", "nxt nm",
             "dir", "parent", "vers'n", "state", "rule", "refs", "flags", "name");
  for (uint32_t b = 0; b < NS_NAME_BUCKETS; b++) {
    for (const name_entry* nep = name_hash_table[b]; nep != nullptr; nep = nep->next) {
      imsg_print(IMSG_OK, "%4u %18p %18p %18p %18p %18p 0x%08X %08x %4u %4u 0x%03x %s\n", b,
                 static_cast<const void*>(nep), static_cast<const void*>(nep->next),
                 static_cast<const void*>(nep->dir_next), static_cast<const void*>(nep->dir),
                 static_cast<const void*>(nep->ver_next), nep->ver->dbid, nep->state, nep->rule, nep->ref_cnt,
                 nep->flags, nep->name);
    }
  }
}
