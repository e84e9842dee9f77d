#include "ns/ns_readdir.h"

#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "base/hash_str.h"
#include "base/imsg.h"
#include "base/pfm.h"
#include "base/strutl.h"
#include "core/tavrel_trace.h"
#include "db/tvr_db_dir.h"
#include "fs/tavrel_metadata.h"
#include "ns/ns_fstat.h"
#include "ns/ns_locate.h"
#include "ns/ns_lookup.h"
#include "ns/ns_silo.h"
#include "ns/tavrel_db_utls.h"
#include "proto/kfsm_status.h"
#include "proto/tavrel_records.h"

namespace {

// Idle listings, oldest first. Guarded by tavrel_cache_mutex().
llist_d_t readdir_lru = {&readdir_lru, &readdir_lru};

constexpr uint32_t ROOT_CHARGE = 32;
constexpr uint32_t ENTRY_CHARGE = 17;            // plus the name's length
constexpr uint32_t VIEW_READ_BLOCK = 4096;       // bytes of one read of the view side
constexpr uint32_t EXT_REPEATS = 3;              // repeats of an extended read whose listing changed
constexpr uint32_t STATUS_AGENT_NOT_FOUND = 20002;
constexpr uint32_t DOT_RECLEN = 16;              // "." and ".." as view_dirent records

#define RD_ASSERT(cond, text) ((cond) ? static_cast<void>(0) : pfm_assert_fail(text, __FILE__, __LINE__, nullptr))

bool has_listing(silo_mtype_t m) {
  switch (m) {
    case 3: case 6: case 8: case 19: case 21: case 22: case 23: case 26: return true;
    default: return false;
  }
}

bool has_visibility(silo_mtype_t m) {
  switch (m) {
    case 3: case 19: case 21: case 22: case 23: case 26: return true;
    default: return false;
  }
}

bool is_view_cookie(uint32_t cookie) { return cookie > READDIR_SILO_COOKIE_MAX; }

hash_str_table* table_of(readdir_root* rrp, const readdir_entry* e) {
  return is_view_cookie(e->cookie) ? rrp->view_hash : rrp->silo_hash;
}

// Unlinks the entry at *link and frees it.
void entry_free_at(readdir_root* rrp, readdir_entry** link) {
  readdir_entry* e = *link;
  *link = e->next;
  hash_str_table* t = table_of(rrp, e);
  if (hash_str_lookup(t, e->name) == e) hash_str_free(t, e->name);
  if (rrp->hint == e) rrp->hint = nullptr;
  readdir_cache_stats.size -= long(strlen(e->name) + ENTRY_CHARGE);
  rrp->frees++;
  // A freed entry may have decided a pair: evaluate again.
  rrp->flags &= ~READDIR_DUPS_EVALUATED;
  std::free(e);
}

// Frees every entry behind `last` (the whole list for null).
void free_behind(readdir_root* rrp, readdir_entry* last) {
  readdir_entry** link = last != nullptr ? &last->next : &rrp->entries;
  while (*link != nullptr) entry_free_at(rrp, link);
}

// Frees the SILO entries behind `last` (from the head for null): remains of an older SILO side.
void free_silo_behind(readdir_root* rrp, readdir_entry* last) {
  readdir_entry** link = last != nullptr ? &last->next : &rrp->entries;
  while (*link != nullptr && !is_view_cookie((*link)->cookie)) entry_free_at(rrp, link);
}

void flusher_obj(obj_entry* obj) {
  if (obj->readdir_list != nullptr) readdir_dispose(obj->readdir_list);
}

std::string name_of(obj_entry* obj) { return locate_obj_name(obj); }

readdir_root* new_root(obj_entry* obj, int* status) {
  readdir_root* rrp = static_cast<readdir_root*>(std::calloc(1, sizeof(readdir_root)));
  if (rrp != nullptr) {
    rrp->view_hash = hash_str_create(100, 4, 0);
    rrp->silo_hash = hash_str_create(100, 4, 0);
  }
  if (rrp == nullptr || rrp->view_hash == nullptr || rrp->silo_hash == nullptr ||
      hash_set_dynamic(rrp->view_hash, 100) != 0 || hash_set_dynamic(rrp->silo_hash, 100) != 0) {
    if (rrp != nullptr) {
      hash_str_delete(rrp->view_hash);
      hash_str_delete(rrp->silo_hash);
      std::free(rrp);
    }
    imsg_print(IMSG_ERR, "Unable to malloc storage.\n");
    *status = 0;
    return nullptr;
  }
  readdir_cache_stats.size += ROOT_CHARGE;
  readdir_cache_stats.count++;
  obj_inc_ref(obj);
  rrp->obj = obj;
  obj->readdir_list = rrp;
  return rrp;
}

// Loads the SILO side through the resolver. Cookies are kept when they rise above 2 (cookies 1 and 2
// are "." and ".."); a run that does not is renumbered from there in the resolver's order. The place
// to continue is left in *last. 0 or 1001.
int load_silo_side(readdir_root* rrp, readdir_entry** last, const Tavrel_Trace& trace) {
  obj_entry* obj = rrp->obj;
  std::vector<tavrel_dirent> dirents;
  int st = Tavrel_Metadata::readdir_obj(obj->silo->uuid, obj->dbid, &dirents);
  if (st != 0 && st != int(STATUS_AGENT_NOT_FOUND)) {
    trace.writeTrace(TRACE_LEVEL_2, "readdir_obj of %s: %d", name_of(obj).c_str(), st);
    return TBS_ST_FAILURE;
  }
  readdir_entry* prev = nullptr;
  uint32_t cookie = 2;
  for (const tavrel_dirent& d : dirents) {
    cookie = d.off > cookie ? uint32_t(d.off) : cookie + 1;
    if (cookie > READDIR_SILO_COOKIE_MAX) {
      trace.writeTrace(TRACE_LEVEL_1, "too many SILO entries in %s", name_of(obj).c_str());
      return TBS_ST_FAILURE;
    }
    readdir_entry* e = add_next_entry(prev, rrp, d.name, d.dbid, cookie, VIEW_NAME_STATE_SILO_REC);
    if (e == nullptr) return TBS_ST_FAILURE;
    prev = e;
  }
  free_silo_behind(rrp, prev);
  *last = prev;
  return 0;
}

// Loads the view side from the view database behind *last. 0 or 1001.
int load_view_side(readdir_root* rrp, obj_entry* view_obj, readdir_entry** last) {
  Tavrel_Trace trace(TAVREL, "ns_readdir", "load_view_side");
  obj_entry* obj = rrp->obj;
  std::vector<char> block(VIEW_READ_BLOCK);
  uint32_t cookie = 0;  // from the first name (whose position is 2)
  readdir_entry* prev = *last;
  for (int eof = 0; !eof;) {
    size_t used = 0;
    int st = tavrel_db_readdir(view_obj, cookie, block.data(), block.size(), &used, &eof);
    if (st != 0) {
      trace.writeTrace(TRACE_LEVEL_2, "tavrel_db_readdir of %s: %d", name_of(view_obj).c_str(), st);
      return TBS_ST_FAILURE;
    }
    for (size_t at = 0; at + VIEW_DB_READDIR_ENTRY_NAME_OFFSET < used;) {
      const char* rec = block.data() + at;
      uint32_t words[4];
      uint16_t len;
      std::memcpy(words, rec, sizeof words);
      std::memcpy(&len, rec + 16, sizeof len);
      const size_t size = VIEW_DB_READDIR_ENTRY_SIZE(len);
      if (at + size > used || len == 0 || len > VIEW_NAME_MAX) {
        trace.writeTrace(TRACE_LEVEL_1, "malformed view record at %zu of %zu", at, used);
        return TBS_ST_FAILURE;
      }
      at += size;
      std::string name(rec + VIEW_DB_READDIR_ENTRY_NAME_OFFSET, len);
      uint32_t dbid = words[0];
      const int32_t mtype = int32_t(words[1]);
      const uint32_t rec_cookie = words[2], state = words[3];
      cookie = rec_cookie;
      if (!is_view_cookie(rec_cookie) || (prev != nullptr && rec_cookie <= prev->cookie)) {
        trace.writeTrace(TRACE_LEVEL_1, "view record %s out of order (cookie 0x%x)", name.c_str(), rec_cookie);
        continue;
      }
      if (dbid != 0) {
        switch (mtype) {
          case 2: case 3: case 5: case 6: case 7: case 8: case 9: {
            // A cover: list the SILO object it covers.
            int lst = 0;
            obj_entry* silo_obj = locate_dbid(obj->silo, dbid, 0, &lst);
            if (silo_obj != nullptr) {
              dbid = silo_obj->dbid;
              obj_free(silo_obj);
              break;
            }
            imsg_print(IMSG_ERR, "Trouble fetching cover object for %s name %s: %s\n", name_of(obj).c_str(),
                       name.c_str(), tbs_strerror(lst));
            if (lst == TBS_ST_STALE) {
              imsg_print(IMSG_ERR, "Silo stale 0x%lx: Creating white-out record of %s in %s\n", (unsigned long)dbid,
                         name.c_str(), name_of(obj).c_str());
              if (tavrel_db_unlink(view_obj, name.c_str(), state) != 0) return TBS_ST_FAILURE;
              continue;
            }
            break;
          }
          case 19: case 21: case 22: case 23: case 26:
            break;
          default:
            imsg_print(IMSG_ERR, "Unexpected mtype(%ld) for object %s\n", long(mtype), name_of(obj).c_str());
            break;
        }
      }
      readdir_entry* e = add_next_entry(prev, rrp, name.c_str(), dbid, rec_cookie, state);
      if (e == nullptr) return TBS_ST_FAILURE;
      prev = e;
    }
    if (used == 0 && !eof) {
      trace.writeTrace(TRACE_LEVEL_1, "view read of %s made no progress", name_of(view_obj).c_str());
      return TBS_ST_FAILURE;
    }
  }
  *last = prev;
  return 0;
}

void evict_idle() {
  const long max = long(ns_cache_get_budget().readdir_max);
  while (readdir_cache_stats.size > max && !llist_d_empty(&readdir_lru)) {
    readdir_root* old = LLIST_D_ENTRY(llist_d_head(&readdir_lru), readdir_root, lru_thread);
    readdir_cache_stats.ejects++;
    readdir_dispose(old);
  }
}

// The walk's start: the hint when the cursor is at or past it, else the head.
readdir_entry* walk_start(readdir_root* rrp, uint32_t cursor) {
  return rrp->hint != nullptr && rrp->hint->cookie <= cursor ? rrp->hint : rrp->entries;
}

bool listable_name(const char* name) {
  size_t n = strnlen(name, VIEW_NAME_MAX + 1);
  return n > 0 && n <= VIEW_NAME_MAX;
}

// The parent for "..": with a reference, or null (the caller falls back on the directory itself).
obj_entry* parent_of(obj_entry* obj, int hm, const Tavrel_Trace& trace) {
  int cacheable = 0, st = 0;
  obj_entry* parent = lookup_dot_dot(obj, hm, &cacheable, &st);
  if (parent == nullptr) trace.writeTrace(TRACE_LEVEL_2, "no parent of %s: %d", name_of(obj).c_str(), st);
  return parent;
}

// Identifiers of "." or "..": a view-private directory or history mode gives its own as the element;
// otherwise the element's, with the directory as the version.
void dot_ids(obj_entry* dir, int hm, view_dirent_ext_fields* f) {
  if (obj_isa_view_obj(dir) || hm) {
    f->elem_oid = dir->oid;
    f->elem_type = dir->mtype;
    return;
  }
  obj_entry* elem = obj_2elem(dir);
  f->elem_oid = elem->oid;
  f->elem_type = elem->mtype;
  f->ver_oid = dir->oid;
  f->ver_type = dir->mtype;
}

}  // namespace

// ---- the listing cache ------------------------------------------------------------------------------------

void readdir_cache_init() {
  ns_cache_set_flusher(NS_HANG_READDIR, ns_hanging_flusher{flusher_obj, readdir_cache_flush});
}

readdir_entry* add_next_entry(readdir_entry* previous, readdir_root* rrp, const char* name, uint32_t dbid,
                              uint32_t cookie, uint32_t state) {
  readdir_entry** link = previous != nullptr ? &previous->next : &rrp->entries;
  while (*link != nullptr) {
    readdir_entry* n = *link;
    if (n->cookie < cookie || (n->cookie == cookie && (n->dbid != dbid || strcmp(n->name, name) != 0))) {
      entry_free_at(rrp, link);
      continue;
    }
    if (n->cookie == cookie) {
      // The same entry: it keeps its place and, while its name state holds, its visibility.
      if ((n->state & ~(READDIR_HIDDEN | READDIR_VISIBLE)) != state) {
        n->state = state;
        rrp->flags &= ~READDIR_DUPS_EVALUATED;
      }
      return n;
    }
    break;
  }
  const size_t len = strlen(name);
  readdir_entry* e = static_cast<readdir_entry*>(std::malloc(offsetof(readdir_entry, name) + len + 1));
  if (e == nullptr) {
    imsg_print(IMSG_ERR, "Unable to malloc storage.\n");
    return nullptr;
  }
  e->dbid = dbid;
  e->cookie = cookie;
  e->state = state;
  std::memcpy(e->name, name, len + 1);
  e->next = *link;
  *link = e;
  hash_str_table* t = table_of(rrp, e);
  int st = hash_str_enter(t, e->name, e);
  if (st == TBS_ST_EXISTS) {
    if (hash_str_free(t, e->name) != 0) imsg_print(IMSG_ERR, "Failure freeing entry in hash table.\n");
    st = hash_str_enter(t, e->name, e);
  }
  if (st != 0) imsg_print(IMSG_ERR, "Failure adding entry to hash table.\n");
  rrp->flags &= ~READDIR_DUPS_EVALUATED;
  readdir_cache_stats.size += long(len + ENTRY_CHARGE);
  return e;
}

void readdir_entry_free(readdir_root* rrp, readdir_entry* ent) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  for (readdir_entry** link = &rrp->entries; *link != nullptr; link = &(*link)->next) {
    if (*link == ent) {
      entry_free_at(rrp, link);
      return;
    }
  }
  RD_ASSERT(false, "entry in its listing");
}

readdir_root* readdir_get(obj_entry* obj, int* status) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_readdir", "readdir_get");
  readdir_cache_stats.requests++;
  readdir_root* rrp = obj->readdir_list;
  if (rrp != nullptr) {
    RD_ASSERT(llist_d_threaded(&rrp->lru_thread), "llist_d_threaded(&rrp->lru_thread)");
    llist_d_remove(&rrp->lru_thread);
    if ((rrp->flags & (READDIR_SILO_LOADED | READDIR_VIEW_LOADED)) == (READDIR_SILO_LOADED | READDIR_VIEW_LOADED)) {
      readdir_cache_stats.hits++;
      *status = 0;
      return rrp;
    }
  } else {
    if (!has_listing(obj->mtype)) {
      imsg_print(IMSG_ERR, "Unexpected mtype(%ld) for object %s\n", long(obj->mtype), name_of(obj).c_str());
      *status = TBS_ST_INTERNAL;
      return nullptr;
    }
    readdir_cache_init();
    rrp = new_root(obj, status);
    if (rrp == nullptr) return nullptr;
  }

  // SILO side, then the view side merged behind it.
  readdir_entry* last = nullptr;
  int st = 0;
  if (!obj_isa_view_obj(obj)) {
    if (!(rrp->flags & READDIR_SILO_LOADED)) {
      st = load_silo_side(rrp, &last, trace);
    } else {
      for (readdir_entry* e = rrp->entries; e != nullptr && !is_view_cookie(e->cookie); e = e->next) last = e;
    }
  }
  if (st == 0) {
    obj_entry* view_obj = obj_2view_obj(obj);
    if (view_obj == nullptr) {
      free_behind(rrp, last);
    } else if (!(rrp->flags & READDIR_VIEW_LOADED)) {
      st = load_view_side(rrp, view_obj, &last);
      if (st == 0) free_behind(rrp, last);
    }
  }
  if (st != 0) {
    readdir_dispose(rrp);
    *status = st;
    return nullptr;
  }
  rrp->flags |= READDIR_SILO_LOADED | READDIR_VIEW_LOADED;
  evict_idle();
  trace.writeTrace(TRACE_LEVEL_4, "listing of %s loaded, %ld bytes cached", name_of(obj).c_str(),
                   readdir_cache_stats.size);
  *status = 0;
  return rrp;
}

void readdir_put(readdir_root* rrp) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  RD_ASSERT(!llist_d_threaded(&rrp->lru_thread), "!llist_d_threaded(&rrp->lru_thread)");
  llist_d_insert_tail(&readdir_lru, &rrp->lru_thread);
}

int duplicate_name_eval(obj_entry* dir, readdir_entry* silo_ent, readdir_entry* view_ent) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  readdir_root* rrp = dir->readdir_list;
  const std::string name = silo_ent->name;
  const uint32_t frees = rrp->frees;
  const uint32_t state = (view_ent->state & VIEW_NAME_STATE_VIEW_BITS) | (silo_ent->state & VIEW_NAME_STATE_SILO_REC);
  int st = 0;
  name_entry* nep = cm_name(dir, nullptr, name.c_str(), silo_ent->dbid, view_ent->dbid, state, &st);
  if (nep == nullptr) {
    imsg_print(IMSG_ERR, "Lookup of %s in %s': %s\n", name.c_str(), name_of(dir).c_str(), tbs_strerror(st));
    return st != 0 ? st : TBS_ST_INTERNAL;
  }
  const uint32_t answer = nep->state;
  lookup_nep_free(nep);
  if (dir->readdir_list != rrp) return 0;  // the listing went while deciding; a new one decides again
  if (rrp->frees != frees) {
    // The lookup changed the listing: find the pair again.
    silo_ent = static_cast<readdir_entry*>(hash_str_lookup(rrp->silo_hash, name.c_str()));
    view_ent = static_cast<readdir_entry*>(hash_str_lookup(rrp->view_hash, name.c_str()));
    if (silo_ent == nullptr || view_ent == nullptr) {
      rrp->flags &= ~READDIR_DUPS_EVALUATED;
      return 0;
    }
  }
  if (answer & VIEW_NAME_STATE_VIEW) {
    silo_ent->state |= READDIR_HIDDEN;
    view_ent->state |= READDIR_VISIBLE;
  } else {
    silo_ent->state |= READDIR_VISIBLE;
    view_ent->state |= READDIR_HIDDEN;
  }
  silo_ent->state |= answer & VIEW_NAME_STATE_CARRIED;
  return 0;
}

int readdir_visibility_eval(readdir_root* rrp) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  obj_entry* obj = rrp->obj;
  if (!has_visibility(obj->mtype)) {
    imsg_print(IMSG_ERR, "Unexpected mtype(%ld) for object %s\n", long(obj->mtype), name_of(obj).c_str());
    return TBS_ST_INTERNAL;
  }
  if (rrp->flags & READDIR_DUPS_EVALUATED) return 0;
  rrp->flags |= READDIR_DUPS_EVALUATED;
  const uint32_t vis = READDIR_HIDDEN | READDIR_VISIBLE;
  for (readdir_entry* e = rrp->entries; e != nullptr;) {
    if (is_view_cookie(e->cookie)) {
      if (!(e->state & vis)) e->state = (e->state | READDIR_VISIBLE) & ~READDIR_HIDDEN;
    } else if (readdir_entry* v = static_cast<readdir_entry*>(hash_str_lookup(rrp->view_hash, e->name))) {
      if ((e->state & vis) && (v->state & vis)) {
        e = e->next;
        continue;
      }
      e->state &= ~vis;
      v->state &= ~vis;
      const uint32_t frees = rrp->frees;
      int st = duplicate_name_eval(obj, e, v);
      if (obj->readdir_list != rrp) return TBS_ST_REVALIDATE;
      if (st != 0) {
        rrp->flags &= ~READDIR_DUPS_EVALUATED;
        return st;
      }
      if (rrp->frees != frees) {
        // Entries went during the lookup: start over; decided pairs are skipped.
        rrp->flags |= READDIR_DUPS_EVALUATED;
        e = rrp->entries;
        continue;
      }
    } else {
      e->state = (e->state & ~READDIR_HIDDEN) | READDIR_VISIBLE;
    }
    e = e->next;
  }
  return 0;
}

uint32_t readdir_lookup_name(obj_entry* dir, const char* name, uint32_t* silo_dbid, uint32_t* view_dbid,
                             uint32_t* state) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  readdir_root* rrp = dir->readdir_list;
  if (rrp == nullptr) return 0;
  const readdir_entry* s = static_cast<readdir_entry*>(hash_str_lookup(rrp->silo_hash, name));
  const readdir_entry* v = static_cast<readdir_entry*>(hash_str_lookup(rrp->view_hash, name));
  *silo_dbid = s != nullptr ? s->dbid : 0;
  *view_dbid = v != nullptr ? v->dbid : 0;
  *state = (v != nullptr ? v->state & VIEW_NAME_STATE_VIEW_BITS : 0) | (s != nullptr ? VIEW_NAME_STATE_SILO_REC : 0);
  return rrp->flags;
}

void readdir_invalidate_name(obj_entry* dir, const char* name, uint32_t mask) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  readdir_root* rrp = dir->readdir_list;
  if (rrp == nullptr) return;
  if (mask & 2) rrp->flags &= ~READDIR_SILO_LOADED;
  if (mask & 1) rrp->flags &= ~READDIR_VIEW_LOADED;
  rrp->flags &= ~READDIR_DUPS_EVALUATED;
  readdir_cache_stats.flushes++;
  const uint32_t vis = READDIR_HIDDEN | READDIR_VISIBLE;
  if (name != nullptr && *name != '\0') {
    for (hash_str_table* t : {rrp->silo_hash, rrp->view_hash})
      if (readdir_entry* e = static_cast<readdir_entry*>(hash_str_lookup(t, name))) e->state &= ~vis;
  } else {
    for (readdir_entry* e = rrp->entries; e != nullptr; e = e->next) e->state &= ~vis;
  }
}

int readdir_view_add(obj_entry* dir, uint32_t dbid, const char* name, uint32_t cookie, uint32_t state) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  readdir_root* rrp = dir->readdir_list;
  if (rrp == nullptr) return 0;
  // A database position is taken as the view cookie it stands for.
  if (!is_view_cookie(cookie)) cookie += TVR_DB_COOKIE_BASE;
  // One entry per name and side: an older place of the name goes.
  if (readdir_entry* old = static_cast<readdir_entry*>(hash_str_lookup(rrp->view_hash, name));
      old != nullptr && old->cookie != cookie)
    readdir_entry_free(rrp, old);
  readdir_entry* prev = nullptr;
  for (readdir_entry* e = walk_start(rrp, cookie - 1); e != nullptr && e->cookie < cookie; e = e->next) prev = e;
  readdir_entry* v = add_next_entry(prev, rrp, name, dbid, cookie, state);
  if (v == nullptr) return TBS_ST_FAILURE;
  const uint32_t vis = READDIR_HIDDEN | READDIR_VISIBLE;
  readdir_entry* s = static_cast<readdir_entry*>(hash_str_lookup(rrp->silo_hash, name));
  if (s != nullptr && !((s->state & vis) && (v->state & vis))) {
    s->state &= ~vis;
    v->state &= ~vis;
    if (duplicate_name_eval(dir, s, v) != 0 && dir->readdir_list == rrp) rrp->flags &= ~READDIR_DUPS_EVALUATED;
  }
  return 0;
}

void readdir_view_rm(obj_entry* dir, const char* name, uint32_t state) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  readdir_root* rrp = dir->readdir_list;
  if (rrp == nullptr) return;
  readdir_entry* v = static_cast<readdir_entry*>(hash_str_lookup(rrp->view_hash, name));
  if (v == nullptr) return;
  if (!(state & VIEW_NAME_STATE_VIEW_BITS) && hash_str_lookup(rrp->silo_hash, name) == nullptr)
    readdir_entry_free(rrp, v);
  else
    readdir_invalidate_name(dir, name, 1);
}

void readdir_dispose(readdir_root* rrp) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  if (llist_d_threaded(&rrp->lru_thread)) llist_d_remove(&rrp->lru_thread);
  obj_entry* obj = rrp->obj;
  if (obj != nullptr) {
    obj->readdir_list = nullptr;
    rrp->obj = nullptr;
  }
  hash_str_delete(rrp->view_hash);
  hash_str_delete(rrp->silo_hash);
  for (readdir_entry* e = rrp->entries; e != nullptr;) {
    readdir_entry* next = e->next;
    readdir_cache_stats.size -= long(strlen(e->name) + ENTRY_CHARGE);
    std::free(e);
    e = next;
  }
  readdir_cache_stats.size -= ROOT_CHARGE;
  readdir_cache_stats.count--;
  std::free(rrp);
  obj_free(obj);
}

void readdir_cache_flush() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  while (!llist_d_empty(&readdir_lru))
    readdir_dispose(LLIST_D_ENTRY(llist_d_head(&readdir_lru), readdir_root, lru_thread));
}

void print_dir_cache() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  imsg_print(IMSG_OK, "readdir cache: %ld listings, %ld bytes\n", readdir_cache_stats.count, readdir_cache_stats.size);
  for (llist_d_t* n = readdir_lru.next; n != &readdir_lru; n = n->next) {
    readdir_root* rrp = LLIST_D_ENTRY(n, readdir_root, lru_thread);
    imsg_print(IMSG_OK, "listing of %s flags 0x%x\n", name_of(rrp->obj).c_str(), rrp->flags);
    for (readdir_entry* e = rrp->entries; e != nullptr; e = e->next)
      imsg_print(IMSG_OK, "  0x%08x 0x%08x 0x%06x %s\n", e->cookie, e->dbid, e->state, e->name);
  }
}

// ---- the view protocol ------------------------------------------------------------------------------------

int ns_readdir(const view_fhandle_t* fh, uint32_t cursor, uint32_t max_size, uint32_t* cursor_out,
               uint32_t* used, int* eof, char* buffer) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_readdir", "ns_readdir");
  *cursor_out = cursor;
  *used = 0;
  *eof = 0;
  if (buffer == nullptr && max_size != 0) return TBS_ST_BAD_ARG;
  int hm = 0, st = 0;
  obj_entry* obj = locate_validate_fhandle(fh, &hm, &st);
  if (obj == nullptr) return st;
  view_vstat_t vs{};
  if ((st = fstat_vstat(obj, hm, &vs)) != 0) {
    obj_free(obj);
    return st;
  }
  view_readdir_reply_t r{};
  r.buffer = buffer;
  r.capacity = max_size;
  r.cursor = cursor;
  bool full = false;
  if (cursor == 0 && !view_dirent_append(&r, vs.fstat.ino, 1, ".")) full = true;
  if (!full && cursor <= 1) {
    if (r.capacity - r.used < DOT_RECLEN) {
      full = true;
    } else {
      uint32_t ino = vs.fstat.ino;
      if (obj_entry* parent = parent_of(obj, hm, trace)) {
        view_vstat_t pvs{};
        if (fstat_vstat(parent, hm, &pvs) == 0) ino = pvs.fstat.ino;
        obj_free(parent);
      }
      view_dirent_append(&r, ino, 2, "..");
    }
  }
  if (!full) {
    readdir_root* rrp = readdir_get(obj, &st);
    if (rrp == nullptr) {
      obj_free(obj);
      return st != 0 ? st : TBS_ST_NO_ROOM;
    }
    if (!hm && (st = readdir_visibility_eval(rrp)) != 0) {
      if (obj->readdir_list == rrp) readdir_put(rrp);
      obj_free(obj);
      return st;
    }
    readdir_entry* e = walk_start(rrp, cursor);
    for (; e != nullptr; e = e->next) {
      if (e->cookie <= cursor) continue;
      if (hm && is_view_cookie(e->cookie)) break;  // history mode shows the SILO side only
      if (!hm && !(e->state & READDIR_VISIBLE)) continue;
      if (e->dbid == 0 || !listable_name(e->name)) continue;
      if (!view_dirent_append(&r, e->dbid, e->cookie, e->name)) {
        full = true;
        break;
      }
      rrp->hint = e;
    }
    readdir_put(rrp);
  }
  obj_free(obj);
  *eof = full ? 0 : 1;
  *cursor_out = r.cursor;
  *used = r.used;
  trace.writeTrace(TRACE_LEVEL_4, "cursor %u -> %u, %u bytes, eof %d", cursor, r.cursor, r.used, *eof);
  if (r.used == 0 && !*eof) return TBS_ST_BAD_ARG;
  return 0;
}

int ns_readdir_ext(const view_fhandle_t* fh, uint32_t cursor, const char* name, uint32_t flags,
                   uint32_t max_size, uint32_t* cursor_out, uint32_t* used, int* eof, char* buffer) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_readdir", "ns_readdir_ext");
  *cursor_out = cursor;
  *used = 0;
  *eof = 0;
  if (buffer == nullptr && max_size != 0) return TBS_ST_BAD_ARG;
  if (name == nullptr) name = "";
  int hm = 0, st = 0;
  obj_entry* obj = locate_validate_fhandle(fh, &hm, &st);
  if (obj == nullptr) return st;
  if ((st = acl_check(obj, hm, 3, 1)) != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "ns_view_readdir_ext got %d from acl_check\n", st);
    obj_free(obj);
    return st;
  }
  view_vstat_t vs{};
  if ((st = fstat_vstat(obj, hm, &vs)) != 0) {
    obj_free(obj);
    return st;
  }
  const uint32_t private_bit = obj_isa_view_obj(obj) ? VIEW_NAME_STATE_VIEW : 0;
  view_readdir_reply_t r{};
  r.buffer = buffer;
  r.capacity = max_size;
  r.cursor = cursor;
  bool full = false;

  if (cursor == 0 && (*name == '\0' || strcmp(name, ".") == 0)) {
    view_dirent_ext_fields f{};
    f.ino = vs.fstat.ino;
    f.off = 1;
    f.state = private_bit;
    dot_ids(obj, hm, &f);
    if (flags == READDIR_EXT_PARENT_STATE && !hm) {
      std::vector<char> path(PATH_MAX);
      name_entry* nep = lookup_parent(obj, path.data(), path.size(), hm, &st);
      if (nep != nullptr && nep->ver == obj) {
        f.state |= nep->state & VIEW_NAME_STATE_KERNEL_MASK;
        f.rule = nep->rule;
      } else {
        f.state |= VIEW_NAME_STATE_ERROR;
      }
      lookup_nep_free(nep);
    }
    if (!view_dirent_ext_append(&r, f, ".")) full = true;
  }
  if (!full && cursor <= 1 && (*name == '\0' || strcmp(name, "..") == 0)) {
    view_dirent_ext_fields f{};
    f.off = 2;
    f.state = private_bit;
    if (r.capacity - r.used < view_dirent_ext_reclen(2)) {
      full = true;
    } else {
      obj_entry* parent = parent_of(obj, hm, trace);
      view_vstat_t pvs{};
      if (parent != nullptr && fstat_vstat(parent, hm, &pvs) == 0) {
        f.ino = pvs.fstat.ino;
        dot_ids(parent, hm, &f);
      } else {
        f.ino = vs.fstat.ino;
        f.state |= VIEW_NAME_STATE_ERROR;
        dot_ids(obj, hm, &f);
      }
      obj_free(parent);
      view_dirent_ext_append(&r, f, "..");
    }
  }

  const uint32_t used_dots = r.used, cursor_dots = r.cursor;
  bool gone = false;  // the listing was disposed of under the lookups of the last pass
  for (uint32_t repeat = 0; !full; repeat++) {
    r.used = used_dots;
    r.cursor = cursor_dots;
    readdir_root* rrp = readdir_get(obj, &st);
    if (rrp == nullptr) {
      obj_free(obj);
      return st != 0 ? st : TBS_ST_NO_ROOM;
    }
    if (!hm && (st = readdir_visibility_eval(rrp)) != 0) {
      if (obj->readdir_list == rrp) readdir_put(rrp);
      obj_free(obj);
      return st;
    }
    gone = false;
    for (readdir_entry* e = walk_start(rrp, cursor); e != nullptr;) {
      if (e->cookie <= cursor || (!hm && !(e->state & READDIR_VISIBLE)) || e->dbid == 0 || !listable_name(e->name) ||
          (*name != '\0' && strcmp(name, e->name) != 0)) {
        e = e->next;
        continue;
      }
      if (hm && is_view_cookie(e->cookie)) break;
      view_dirent_ext_fields f{};
      f.ino = e->dbid;
      f.off = e->cookie;
      f.state = hm ? 0 : e->state & VIEW_NAME_STATE_KERNEL_MASK;
      const std::string ename = e->name;
      const uint32_t frees = rrp->frees;
      if (flags != 0) {
        int lst = 0;
        if (obj_entry* o = locate_dbid(obj->silo, e->dbid, 0, &lst)) {
          obj_entry* elem = o->otype == CACHE_COVER_OBJ ? o : obj_2elem(o);
          f.elem_oid = elem->oid;
          f.elem_type = elem->mtype;
          obj_free(o);
        } else {
          f.state |= VIEW_NAME_STATE_ERROR;
        }
      }
      if (!hm) {
        int lst = 0;
        if (name_entry* nep = lookup_cm_name(obj, nullptr, ename.c_str(), &lst)) {
          f.rule = nep->rule;
          f.state = nep->state & VIEW_NAME_STATE_KERNEL_MASK;
          if (!(nep->state & VIEW_NAME_STATE_NOT_VISIBLE) && nep->ver != nullptr) {
            f.ver_oid = nep->ver->oid;
            f.ver_type = nep->ver->mtype;
          }
          lookup_nep_free(nep);
        } else {
          imsg_print(IMSG_ERR, "Lookup of %s in %s': %s\n", ename.c_str(), name_of(obj).c_str(), tbs_strerror(lst));
          f.state |= VIEW_NAME_STATE_ERROR;
        }
      }
      if (obj->readdir_list != rrp) {
        gone = true;
        break;
      }
      if (rrp->frees != frees) {
        // Entries went during the lookups: continue behind this cookie from the head.
        e = rrp->entries;
        while (e != nullptr && e->cookie <= f.off) e = e->next;
        if (!view_dirent_ext_append(&r, f, ename.c_str())) {
          full = true;
          break;
        }
        continue;
      }
      if (!view_dirent_ext_append(&r, f, ename.c_str())) {
        full = true;
        break;
      }
      rrp->hint = e;
      e = e->next;
    }
    const uint32_t done = gone ? 0 : rrp->flags;
    if (!gone) readdir_put(rrp);
    if (hm || (done & 7) == 7 || repeat == EXT_REPEATS) break;
    trace.writeTrace(TRACE_LEVEL_4, "listing of %s changed while read (flags 0x%x), repeat %u", name_of(obj).c_str(),
                     done, repeat + 1);
    full = false;
  }
  obj_free(obj);
  *eof = full || gone ? 0 : 1;
  *cursor_out = r.cursor;
  *used = r.used;
  trace.writeTrace(TRACE_LEVEL_4, "cursor %u -> %u, %u bytes, eof %d", cursor, r.cursor, r.used, *eof);
  if (r.used == 0 && !*eof) return gone ? TBS_ST_FAILURE : TBS_ST_BAD_ARG;
  return 0;
}

// ---- parents ----------------------------------------------------------------------------------------------

int ns_readdir_get_parent_name(obj_entry* dir, obj_entry* child, size_t size, char* buffer) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_readdir", "ns_readdir_get_parent_name");
  readdir_cache_stats.requests++;
  auto give = [&](const char* name) {
    if (strlen(name) >= size) return int(TBS_ST_TOO_LONG);
    strutl_cpy_buf(buffer, size, name);
    return 0;
  };
  readdir_root* rrp = dir->readdir_list;
  if (rrp != nullptr && (rrp->flags & (READDIR_SILO_LOADED | READDIR_VIEW_LOADED)) ==
                            (READDIR_SILO_LOADED | READDIR_VIEW_LOADED)) {
    readdir_cache_stats.hits++;
    for (readdir_entry* e = rrp->entries; e != nullptr; e = e->next)
      if (e->dbid == child->dbid) return give(e->name);
    return TBS_ST_NOT_FOUND;
  }
  if (obj_isa_view_obj(dir)) {
    uint32_t parent = 0;
    std::vector<char> name(VIEW_NAME_MAX + 1);
    int st = tavrel_db_find_parent(child, &parent, name.data(), name.size());
    if (st != 0) return st;
    if (parent != dir->dbid) return TBS_ST_NOT_FOUND;
    return give(name.data());
  }
  std::vector<tavrel_dirent> dirents;
  int st = Tavrel_Metadata::readdir_obj(dir->silo->uuid, dir->dbid, &dirents);
  if (st != 0 && st != int(STATUS_AGENT_NOT_FOUND)) {
    trace.writeTrace(TRACE_LEVEL_2, "readdir_obj of %s: %d", name_of(dir).c_str(), st);
    return TBS_ST_FAILURE;
  }
  for (const tavrel_dirent& d : dirents)
    if (d.dbid == child->dbid) return give(d.name);
  return TBS_ST_NOT_FOUND;
}
