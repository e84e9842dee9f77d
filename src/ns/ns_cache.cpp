#include "ns/ns_cache.h"

#include <cstdlib>
#include <map>
#include <mutex>

#include "base/imsg.h"
#include "base/pfm.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_util.h"
#include "ns/ns_lvut.h"
#include "ns/ns_obj_index.h"
#include "ns/ns_silo.h"

// Everything below is guarded by tavrel_cache_mutex().
ns_cache_counters obj_cache_stats, fstat_cache_stats, readdir_cache_stats, name_cache_stats;
long obj_zero_ref_size;

namespace {

uint32_t oid_hash(const obj_entry* obj) { return tbs_oid_to_hash32(obj->oid); }
uint32_t dbid_hash(const obj_entry* obj) { return obj->dbid; }

ns_cache_budget g_budget{};
obj_entry* dbid_hash_tab[NS_OBJ_BUCKETS];
Ns_Obj_Index<&obj_entry::oid_next, oid_hash> oid_index;
Ns_Obj_Index<&obj_entry::dbid_idx_next, dbid_hash> dbid_index;
uint32_t dbid_hash_sweep;  // the clock's hand: the bucket the next sweep starts at
ns_hanging_flusher g_flushers[NS_HANG_KINDS];

// Assertions of the cache report their own text and this source.
#define NS_ASSERT(cond, text) ((cond) ? static_cast<void>(0) : pfm_assert_fail(text, __FILE__, __LINE__, nullptr))

void compute(uint32_t size) {
  g_budget.view_cache_size = size;
  g_budget.readdir_max = (uint32_t)((uint64_t)size * 4 / 10);
  uint32_t unit = (size - g_budget.readdir_max) / 392;
  g_budget.obj_cache_max = 200 * unit;
  g_budget.fstat_max = 144 * unit;
  g_budget.name_max = 48 * unit;
}

uint32_t dbid_bucket(uint32_t dbid) { return dbid % NS_OBJ_BUCKETS; }

// The cache kind of an object, or 0 for a kind the cache does not hold.
uint32_t otype_of(bool view_private, silo_mtype_t mtype) {
  if (!view_private) {
    switch (mtype) {
      case 2: case 5: return CACHE_ELEM_OBJ;
      case 1: case 3: case 6: case 7: case 8: case 9: return CACHE_VER_OBJ;
      case 11: return CACHE_OTHER_OBJ;
      default: return 0;
    }
  }
  switch (mtype) {
    case 19: case 21: case 22: case 23: case 26: return CACHE_VER_OBJ;
    case 2: case 3: case 5: case 6: case 7: case 8: case 9: return CACHE_COVER_OBJ;
    default: return 0;
  }
}

void unchain(obj_entry* obj) {
  NS_ASSERT(*obj->dbid_pprev == obj, "object in its hash chain");
  *obj->dbid_pprev = obj->dbid_next;
  if (obj->dbid_next != nullptr) obj->dbid_next->dbid_pprev = obj->dbid_pprev;
}

// Takes a version off its element's list and drops the reference it held on the element.
void unlink_from_elem(obj_entry* obj) {
  obj_entry* elem = obj->ver;
  if (elem == nullptr) return;
  for (obj_entry** p = &elem->ver; *p != nullptr; p = &(*p)->ver_next) {
    if (*p == obj) {
      *p = obj->ver_next;
      break;
    }
  }
  obj->ver = nullptr;
  obj->ver_next = nullptr;
  obj_free(elem);
}

// The clock: see the header. Flushes unreferenced objects not touched since the hand last passed.
void obj_flush_lru() {
  Tavrel_Trace trace(TAVREL, "ns_cache", "obj_flush_lru");
  int passes = 2;
  const uint32_t start = dbid_hash_sweep;
  for (;;) {
    obj_entry* prev = nullptr;  // the last survivor of this chain
    obj_entry* obj = dbid_hash_tab[dbid_hash_sweep];
    while (obj != nullptr) {
      if ((obj->flags & OBJ_FLAG_TOUCHED) || obj->ref_cnt != 0) {
        obj->flags &= ~OBJ_FLAG_TOUCHED;
        prev = obj;
      } else {
        obj_flush(obj);
        obj_cache_stats.ejects++;
        passes = 0;
      }
      // A flush may take others with it: go on from the survivor, which is still chained.
      obj = prev != nullptr ? prev->dbid_next : dbid_hash_tab[dbid_hash_sweep];
    }
    dbid_hash_sweep = (dbid_hash_sweep + 1) % NS_OBJ_BUCKETS;
    if (dbid_hash_sweep == start) passes--;
    if (passes < 1) break;
  }
  trace.writeTrace(TRACE_LEVEL_5, "hand at %u, %ld objects", dbid_hash_sweep, obj_cache_stats.count);
}

}  // namespace

Tavrel_Recursive_Mutex& tavrel_cache_mutex() {
  static Tavrel_Recursive_Mutex m(Tavrel_Lock_Rank::NS_CACHE, "tavrel_cache_mutex");
  return m;
}

// ---- budget -------------------------------------------------------------------------------------------

int cache_init() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  if (obj_cache_stats.count != 0 || silo_tab_head() != nullptr) cache_flush();
  for (uint32_t i = 0; i < NS_OBJ_BUCKETS; i++) dbid_hash_tab[i] = nullptr;
  dbid_hash_sweep = 0;
  obj_zero_ref_size = 0;
  cache_reset_stats();
  compute(g_budget.view_cache_size < NS_CACHE_MIN_SIZE ? NS_CACHE_MIN_SIZE : g_budget.view_cache_size);
  return 0;
}

int cache_set_values(int count, const uint32_t* pairs) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  for (int i = 0; i < count; i++) {
    uint32_t code = pairs[2 * i], value = pairs[2 * i + 1];
    if (code == 1) cache_print_stats();
    if (code != 0) continue;
    if (value >= 1 && value < NS_CACHE_MIN_SIZE) return TBS_ST_BAD_ARG;
    compute(value);
  }
  return 0;
}

int ns_cache_set_size(uint32_t size, bool enforce_minimum) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  if (enforce_minimum && size < NS_CACHE_MIN_SIZE) size = NS_CACHE_MIN_SIZE;
  uint32_t pair[2] = {0, size};
  return cache_set_values(1, pair);
}

ns_cache_budget ns_cache_get_budget() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  return g_budget;
}

// ---- objects ------------------------------------------------------------------------------------------

obj_entry* obj_get(view_silo* silo, uint32_t dbid) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  obj_cache_stats.requests++;
  for (obj_entry* obj = dbid_index.head(dbid); obj != nullptr; obj = obj->dbid_idx_next) {
    if (obj->dbid == dbid && obj->silo == silo) {
      obj_cache_stats.hits++;
      obj_inc_ref(obj);
      return obj;
    }
  }
  return nullptr;
}

obj_entry* obj_get_by_oid(view_silo* silo, const tbs_oid_s* oid, int want_cover) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  obj_cache_stats.requests++;
  for (obj_entry* obj = oid_index.head(tbs_oid_to_hash32(*oid)); obj != nullptr; obj = obj->oid_next) {
    if (obj->silo != silo || obj->oid != *oid) continue;
    if ((obj->otype == CACHE_COVER_OBJ) != (want_cover != 0)) continue;
    obj_cache_stats.hits++;
    obj_inc_ref(obj);
    return obj;
  }
  return nullptr;
}

obj_entry* obj_alloc(view_silo* silo, uint32_t dbid, const tbs_oid_s& oid, silo_mtype_t mtype, uint32_t gen) {
  return obj_alloc_rmap(silo, dbid, oid, TBS_OID_NULL, mtype, gen);
}

obj_entry* obj_alloc_rmap(view_silo* silo, uint32_t dbid, const tbs_oid_s& oid, const tbs_oid_s& rmap,
                          silo_mtype_t mtype, uint32_t gen) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_cache", "obj_alloc_rmap");
  const bool view_private = static_cast<int32_t>(dbid) < 0;
  const uint32_t otype = otype_of(view_private, mtype);
  if (otype == 0) {
    char text[96];
    snprintf(text, sizeof text, "obj_alloc: object kind %d not cached (%s object)", mtype,
             view_private ? "view-private" : "SILO");
    pfm_panic(text);
  }
  while (obj_cache_stats.size > static_cast<long>(g_budget.obj_cache_max) && obj_zero_ref_size != 0)
    obj_flush_lru();

  // Not stg_malloc: running out of memory here is reported to the caller, not fatal.
  obj_entry* obj = static_cast<obj_entry*>(std::calloc(1, sizeof(obj_entry)));
  if (obj == nullptr) {
    imsg_print(IMSG_ERR, "Unable to malloc storage.\n");
    return nullptr;
  }
  obj_cache_stats.size += NS_OBJ_CHARGE;
  obj_cache_stats.count++;

  obj->dbid = dbid;
  obj->oid = oid;
  obj->ref_cnt = 1;
  obj->flags = 0;
  obj->gen = gen;
  obj_entry** head = &dbid_hash_tab[dbid_bucket(dbid)];
  obj->dbid_next = *head;
  if (*head != nullptr) (*head)->dbid_pprev = &obj->dbid_next;
  obj->dbid_pprev = head;
  *head = obj;
  oid_index.insert(obj);
  dbid_index.insert(obj);
  obj->mtype = mtype;
  obj->otype = otype;
  if (view_private) {
    obj->rmap = TBS_OID_NULL;
  } else {
    Tavrel_Util::get_view_time(obj->event_time);
    obj->rmap = rmap;
  }
  obj->silo = silo;
  if (silo != nullptr) silo->obj_count++;
  trace.writeTrace(TRACE_LEVEL_5, "dbid 0x%X mtype %d otype %u", dbid, mtype, otype);
  return obj;
}

void obj_inc_ref(obj_entry* obj) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  if (obj->ref_cnt++ == 0) {
    obj_zero_ref_size -= NS_OBJ_CHARGE;
    obj_cache_stats.reclaims++;
  }
}

void obj_free(obj_entry* obj) {
  if (obj == nullptr) return;
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  obj->flags |= OBJ_FLAG_TOUCHED;
  NS_ASSERT(obj->ref_cnt != 0, "obj->ref_cnt != 0");
  if (--obj->ref_cnt == 0) obj_zero_ref_size += NS_OBJ_CHARGE;
}

void obj_flush(obj_entry* obj) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_cache", "obj_flush");
  trace.writeTrace(TRACE_LEVEL_5, "dbid 0x%X otype %u ref %u", obj->dbid, obj->otype, obj->ref_cnt);

  // 1. Attributes.
  if (g_flushers[NS_HANG_FSTAT].flush_obj != nullptr) g_flushers[NS_HANG_FSTAT].flush_obj(obj);
  NS_ASSERT(obj->fep == nullptr, "obj->fep == NULL");
  // 2. Names to it and in it, and its listing.
  if (g_flushers[NS_HANG_NAMES].flush_obj != nullptr) g_flushers[NS_HANG_NAMES].flush_obj(obj);
  NS_ASSERT(obj->parent_list == nullptr, "obj->parent_list == NULL");
  NS_ASSERT(obj->name_list == nullptr, "obj->name_list == NULL");
  NS_ASSERT(obj->readdir_list == nullptr, "obj->readdir_list == NULL");

  // 3. By kind; 4. the cover partner of an element or version.
  bool partner_step = true;
  view_silo* silo = obj->silo;
  switch (obj->otype) {
    case CACHE_ELEM_OBJ:
      while (obj->ver != nullptr) obj_flush(obj->ver);
      if (silo != nullptr && silo->root == obj) {
        silo->root = nullptr;
        obj_free(obj);
      }
      break;
    case CACHE_VER_OBJ:
      unlink_from_elem(obj);
      if (silo != nullptr && silo->not_found == obj) {
        silo->not_found = nullptr;
        obj_free(obj);
      }
      break;
    case CACHE_OTHER_OBJ:
      unlink_from_elem(obj);
      NS_ASSERT(obj->cover_obj == nullptr, "obj->cover_obj == NULL");
      partner_step = false;
      break;
    case CACHE_COVER_OBJ:
      if (obj->cover_obj != nullptr) obj_flush(obj->cover_obj);
      NS_ASSERT(obj->cover_obj == nullptr, "obj->cover_obj == NULL");
      partner_step = false;
      break;
    default:
      pfm_panic("obj_flush: object of unknown cache kind");
  }
  if (partner_step && obj->cover_obj != nullptr) {
    obj_entry* cover = obj->cover_obj;
    NS_ASSERT(cover->cover_obj == obj, "cover_obj->cover_obj == obj");
    cover->cover_obj = nullptr;
    obj->cover_obj = nullptr;
    obj_free(cover);
  }

  // 5. Out of its SILO.
  if (obj->silo != nullptr) obj->silo->obj_count--;
  obj->silo = nullptr;
  NS_ASSERT((obj->ref_cnt == 1 || obj->ref_cnt == 0) && obj->silo == nullptr,
            "(obj->ref_cnt == 1 || obj->ref_cnt == 0) && obj->silo == NULL");

  // 6. Out of the tables; uncharged and freed.
  unchain(obj);
  oid_index.remove(obj);
  dbid_index.remove(obj);
  obj_cache_stats.size -= NS_OBJ_CHARGE;
  if (obj->ref_cnt == 0) obj_zero_ref_size -= NS_OBJ_CHARGE;
  obj_cache_stats.count--;
  std::free(obj);
  obj_cache_stats.flushes++;
}

void obj_link_version(obj_entry* elem, obj_entry* ver) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  NS_ASSERT(elem->otype == CACHE_ELEM_OBJ, "elem->otype == CACHE_ELEM_OBJ");
  NS_ASSERT(ver->otype == CACHE_VER_OBJ || ver->otype == CACHE_OTHER_OBJ,
            "ver->otype == CACHE_VER_OBJ || ver->otype == CACHE_OTHER_OBJ");
  if (ver->ver != nullptr) return;
  obj_inc_ref(elem);
  ver->ver = elem;
  ver->ver_next = elem->ver;
  elem->ver = ver;
}

void obj_set_cover(obj_entry* silo_obj, obj_entry* cover) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  NS_ASSERT(cover->otype == CACHE_COVER_OBJ, "cover->otype == CACHE_COVER_OBJ");
  NS_ASSERT(silo_obj->otype == CACHE_ELEM_OBJ || silo_obj->otype == CACHE_VER_OBJ,
            "silo_obj->otype == CACHE_ELEM_OBJ || silo_obj->otype == CACHE_VER_OBJ");
  NS_ASSERT(silo_obj->cover_obj == nullptr && cover->cover_obj == nullptr,
            "silo_obj->cover_obj == NULL && cover->cover_obj == NULL");
  obj_inc_ref(silo_obj);
  obj_inc_ref(cover);
  silo_obj->cover_obj = cover;
  cover->cover_obj = silo_obj;
}

void cache_flush_silo(view_silo* silo) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_cache", "cache_flush_silo");
  for (uint32_t i = 0; i < NS_OBJ_BUCKETS; i++) {
    obj_entry* prev = nullptr;
    obj_entry* obj = dbid_hash_tab[i];
    while (obj != nullptr) {
      if (obj->silo == silo) {
        obj_flush(obj);
      } else {
        prev = obj;
      }
      // A flush may take versions or a partner with it: re-read from the last survivor.
      obj = prev != nullptr ? prev->dbid_next : dbid_hash_tab[i];
    }
  }
  fstat_update_lvut(silo, nullptr, 3);
}

void cache_flush() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_cache", "cache_flush");
  silo_cache_flush();
  for (ns_hanging_kind k : {NS_HANG_FSTAT, NS_HANG_READDIR, NS_HANG_NAMES})
    if (g_flushers[k].flush_all != nullptr) g_flushers[k].flush_all();
  for (uint32_t i = 0; i < NS_OBJ_BUCKETS; i++) NS_ASSERT(dbid_hash_tab[i] == nullptr, "dbid_hash_tab[i] == NULL");
  NS_ASSERT(oid_index.count() == 0 && dbid_index.count() == 0, "oid and dbid indexes empty");
  NS_ASSERT(obj_cache_stats.size == 0 && obj_zero_ref_size == 0 && obj_cache_stats.count == 0,
            "obj_cache_stats.size == 0 && obj_zero_ref_size == 0 && obj_cache_stats.count == 0");
}

void ns_cache_set_flusher(ns_hanging_kind kind, const ns_hanging_flusher& flusher) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  g_flushers[kind] = flusher;
}

std::string ns_cache_check() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  long count = 0, zero = 0;
  auto indexed = [](obj_entry* head, obj_entry* obj_entry::*next, const obj_entry* o) {
    for (obj_entry* p = head; p != nullptr; p = p->*next)
      if (p == o) return true;
    return false;
  };
  std::map<view_silo*, long> per_silo;
  for (uint32_t i = 0; i < NS_OBJ_BUCKETS; i++) {
    obj_entry** link = &dbid_hash_tab[i];
    for (obj_entry* o = dbid_hash_tab[i]; o != nullptr; link = &o->dbid_next, o = o->dbid_next) {
      count++;
      if (o->dbid_pprev != link) return "an object's back link is not the link to it";
      if (!indexed(oid_index.head(tbs_oid_to_hash32(o->oid)), &obj_entry::oid_next, o))
        return "object missing from the oid index";
      if (!indexed(dbid_index.head(o->dbid), &obj_entry::dbid_idx_next, o)) return "object missing from the dbid index";
      if (o->ref_cnt == 0) zero++;
      per_silo[o->silo]++;
      if (dbid_bucket(o->dbid) != i) return "object in the wrong dbid bucket";
      if (o->cover_obj != nullptr && o->cover_obj->cover_obj != o) return "cover partners do not point at each other";
      if (o->ver != nullptr && o->otype != CACHE_ELEM_OBJ) {
        bool linked = false;
        for (obj_entry* v = o->ver->ver; v != nullptr; v = v->ver_next) linked |= v == o;
        if (!linked) return "version missing from its element's list";
      }
    }
  }
  if (static_cast<long>(oid_index.count()) != count || static_cast<long>(dbid_index.count()) != count)
    return "the indexes and the dbid table hold different objects";
  if (count != obj_cache_stats.count) return "object count differs from the objects chained";
  if (obj_cache_stats.size != static_cast<long>(NS_OBJ_CHARGE) * count) return "charged size is not 100 x count";
  if (obj_zero_ref_size != static_cast<long>(NS_OBJ_CHARGE) * zero) return "obj_zero_ref_size is not 100 x unreferenced";
  for (const auto& [silo, n] : per_silo)
    if (silo != nullptr && silo->obj_count != n) return "a SILO's object count differs from its objects";
  return "";
}

// ---- accessors ----------------------------------------------------------------------------------------

obj_entry* obj_2elem(obj_entry* obj) {
  switch (obj->otype) {
    case CACHE_ELEM_OBJ: return obj;
    case CACHE_VER_OBJ:
    case CACHE_OTHER_OBJ: return obj->ver != nullptr ? obj->ver : obj;
    default: pfm_panic("obj_2elem: object is not an element or version");
  }
}

obj_entry* obj_2view_obj(obj_entry* obj) {
  if (obj_isa_view_obj(obj)) return obj;
  return obj_2elem(obj)->cover_obj;
}

// ---- dump --------------------------------------------------------------------------------------------

void print_cache() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  imsg_print(IMSG_OK, "%-36s %10s %5s %5s %17s %5s %4s %18s %18s %4s\n", "silo name", "dbid", "mtype", "flags",
             "event time", "fstat", "ref", "cover", "object", "hsh");
  for (uint32_t i = 0; i < NS_OBJ_BUCKETS; i++) {
    for (obj_entry* obj = dbid_hash_tab[i]; obj != nullptr; obj = obj->dbid_next) {
      std::string name = obj->silo == nullptr ? "-" : !obj->silo->tag.empty() ? obj->silo->tag
                                                                              : tbs_uuid_to_str(obj->silo->uuid);
      imsg_print(IMSG_OK, "%-36s 0x%08X %5d 0x%03x %10ld.%06ld %5s %4u %18p %18p %4u\n", name.c_str(), obj->dbid,
                 obj->mtype, obj->flags, static_cast<long>(obj->event_time.tv_sec),
                 static_cast<long>(obj->event_time.tv_usec), obj->fep != nullptr ? "yes" : "no", obj->ref_cnt,
                 static_cast<void*>(obj->cover_obj), static_cast<void*>(obj), i);
    }
  }
}

// ---- credentials --------------------------------------------------------------------------------------

const credutl_creds_t* tavrel_my_creds() {
  static Tavrel_Mutex cred_mutex(Tavrel_Lock_Rank::LEAF, "cred_mutex");
  static credutl_creds_t creds;
  static bool have = false;
  std::lock_guard<Tavrel_Mutex> g(cred_mutex);
  if (!have) {
    if (credutl_get_sid_credentials(&creds) != 0) pfm_panic("Unable to get the process's credentials");
    have = true;
  }
  return &creds;
}
