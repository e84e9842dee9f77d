// The view database in terms of cached objects: names and objects (see tavrel_db_utls.h). The SILO
// rows, configuration records, inventories and message names are in tavrel_db_utls_rows.cpp.
#include "ns/tavrel_db_utls.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <mutex>

#include "base/imsg.h"
#include "base/stg.h"
#include "core/tavrel_trace.h"
#include "db/tavrel_db_adopt.h"
#include "db/tavrel_db_container.h"
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_inode.h"
#include "db/tvr_db_store.h"
#include "ns/tavrel_db_utls_int.h"

#if __has_include("ns/ns_lookup.h")
#include "ns/ns_lookup.h"
#else
void lookup_invalidate(obj_entry* dir, const char* name);
int lookup_view_add(obj_entry* dir, const char* name, obj_entry* target, uint32_t state, uint32_t cookie,
                    uint32_t dbid);
int lookup_view_rm(obj_entry* dir, const char* name, uint32_t state);
#endif
#if __has_include("ns/ns_fstat.h")
#include "ns/ns_fstat.h"
#else
void fstat_flush(obj_entry* obj);
void fstat_cache_update_obj(obj_entry* obj, const tbs_fstat_db_s* fstat);
#endif

using namespace tavrel_db_utls;

namespace {

constexpr silo_mtype_t MTYPE_PRIVATE = 19;
constexpr silo_mtype_t MTYPE_UNSHAREABLE = 26;

// View-private kinds: plain (19), derived (21 to 23) and unshareable (26).
bool is_private_kind(silo_mtype_t m) {
  return m == MTYPE_PRIVATE || m == 21 || m == 22 || m == 23 || m == MTYPE_UNSHAREABLE;
}

void assert_cache_held() { TAVREL_ASSERT_HELD(tavrel_cache_mutex()); }

// "<name> in <dir>" for the messages of name operations.
std::string name_in(obj_entry* dir, const char* name) { return std::string(name) + " in " + obj_2str(dir); }

// The identity the view database keeps for a process id: its decimal text.
credutl_sid_t sid_of(unsigned long id) {
  credutl_sid_t sid{};
  std::string text = std::to_string(id);
  sid.len = static_cast<uint32_t>(text.size());
  memcpy(sid.bytes, text.data(), text.size());
  return sid;
}

// ---- the view side of directories ----------------------------------------------------------------------------

// The element whose cover holds the names of SILO directory `dir`; null for an object that is not a
// directory of a SILO (or a version whose element is not linked).
obj_entry* dir_elem(obj_entry* dir) {
  if (dir->otype == CACHE_COVER_OBJ) return nullptr;
  obj_entry* elem = obj_2elem(dir);
  return elem->otype == CACHE_ELEM_OBJ && elem->mtype == 2 ? elem : nullptr;
}

tavrel_db_obj_ref ref_of(const obj_entry* obj) { return {obj->silo->uuid, obj->oid, obj->mtype}; }

// Pairs element `elem` with its cover `cover_dbid` in the object cache, making the cover's object when
// it is not cached. Nothing happens when the element has a partner already.
void pair_cover(obj_entry* elem, uint32_t cover_dbid) {
  if (elem->cover_obj != nullptr) return;
  obj_entry* cover = obj_get(elem->silo, cover_dbid);
  if (cover == nullptr) {
    uint32_t gen = 0;
    if (tvr_db_in_trans(0, [&] { return tvr_db_inode_read(cover_dbid, &gen, nullptr, nullptr, nullptr, nullptr); }) != 0)
      return;
    cover = obj_alloc(elem->silo, cover_dbid, elem->oid, elem->mtype, gen);
    if (cover == nullptr) return;
  }
  if (cover->otype == CACHE_COVER_OBJ && cover->cover_obj == nullptr) obj_set_cover(elem, cover);
  obj_free(cover);
}

}  // namespace

namespace tavrel_db_utls {

void report(int st, const char* op, const std::string& what, bool lookup) {
  if (st == 0 || st == TBS_ST_DB_NOT_WRITABLE || st == TBS_ST_NOT_ALLOWED || st == TBS_ST_NOT_EMPTY) return;
  if (lookup && st == TBS_ST_NOT_FOUND) return;
  imsg_print(IMSG_ERR, "View_db_%s of %s: %s\n", op, what.c_str(), tavrel_db_status_text(st).c_str());
}

int view_dir_in_trans(obj_entry* dir, uint32_t* inode) {
  if (obj_isa_view_obj(dir)) {
    *inode = dir->dbid;
    return 0;
  }
  obj_entry* elem = dir_elem(dir);
  if (elem == nullptr) return TBS_ST_NOT_DIR;
  if (elem->cover_obj != nullptr) {
    *inode = elem->cover_obj->dbid;
    return 0;
  }
  return tavrel_db_cover_lookup(ref_of(elem), inode);
}

int view_dir_make(obj_entry* dir, uint32_t* inode) {
  if (obj_isa_view_obj(dir)) {
    *inode = dir->dbid;
    return 0;
  }
  obj_entry* elem = dir_elem(dir);
  if (elem == nullptr) return TBS_ST_NOT_DIR;
  if (elem->cover_obj != nullptr) {
    *inode = elem->cover_obj->dbid;
    return 0;
  }
  int st = 0;
  *inode = create_cover_inode(ref_of(elem), &st);
  if (st == 0) pair_cover(elem, *inode);
  return st;
}

int view_obj_make(obj_entry* obj, uint32_t* inode) {
  if (obj_isa_view_obj(obj)) {
    *inode = obj->dbid;
    return 0;
  }
  if (obj->otype == CACHE_COVER_OBJ) return TBS_ST_BAD_ARG;
  obj_entry* elem = obj_2elem(obj);
  if (elem->cover_obj != nullptr) {
    *inode = elem->cover_obj->dbid;
    return 0;
  }
  int st = 0;
  *inode = create_cover_inode(ref_of(elem), &st);
  if (st == 0) pair_cover(elem, *inode);
  return st;
}

obj_entry* view_dir_obj(obj_entry* dir) {
  if (obj_isa_view_obj(dir)) return dir;
  obj_entry* elem = dir_elem(dir);
  return elem != nullptr ? elem->cover_obj : nullptr;
}

int copy_out(const std::string& text, char* buffer, size_t size) {
  if (text.size() >= size) return TBS_ST_TOO_LONG;
  memcpy(buffer, text.c_str(), text.size() + 1);
  return 0;
}

int silo_row_in_trans(const view_silo* silo, uint32_t* row) {
  if (silo == nullptr) return TBS_ST_UNKNOWN_SILO;
  if (silo->db_dbid != 0) {
    *row = silo->db_dbid;
    return 0;
  }
  return tvr_db_silo_lookup(silo->uuid, row);
}

}  // namespace tavrel_db_utls

namespace {

// What the removal of a name did, for the caches.
struct unlinked {
  tbs_fstat_db_s dir_fstat{};
  tbs_fstat_db_s fstat{};
  uint32_t inode = 0;  // the object the name named, 0 for none
  bool deleted = false;
};

// Removes name `name` of directory inode `vdir` inside the caller's write transaction. A view-private
// object whose last name went is deleted with its container (a cover keeps its inode: it stands for its
// SILO object, not for the name).
int unlink_in_trans(uint32_t session, uint32_t vdir, const char* name, uint32_t state, unlinked* out) {
  uint32_t nlink = 0;
  int st = tvr_db_unlink(vdir, name, strlen(name), state, &out->dir_fstat, &out->inode, &nlink);
  if (st != 0 || out->inode == 0) return st;
  silo_mtype_t mtype = 0;
  st = tvr_db_inode_read(out->inode, nullptr, nullptr, &out->fstat, &mtype, nullptr);
  if (st != 0 || !is_private_kind(mtype)) return st;
  const bool dir = out->fstat.type == TBS_FTYPE_DIR;
  // A directory's own entry for itself is one of its links.
  if (out->fstat.nlink > (dir ? 1u : 0u)) return 0;
  out->deleted = true;
  return tavrel_db_inode_delete(session, out->inode, out->fstat.type, nullptr);
}

// The caches after a committed removal of `name` from `dir`.
void unlinked_to_caches(obj_entry* dir, const char* name, uint32_t state, const unlinked& u) {
  lookup_view_rm(dir, name, state);
  if (obj_entry* vdir = view_dir_obj(dir)) fstat_cache_update_obj(vdir, &u.dir_fstat);
  if (u.inode == 0) return;
  obj_entry* target = obj_get(dir->silo, u.inode);
  if (target == nullptr) return;
  if (u.deleted) fstat_flush(target);
  else fstat_cache_update_obj(target, &u.fstat);
  obj_free(target);
}

// A replaced record: with (state & 0x1400) == 0x1000 the caller says the view has a record of the name
// that names an object; it goes before the new one is made. A record that is not there is no failure.
int replace_in_trans(uint32_t session, uint32_t vdir, const char* name, uint32_t state, unlinked* old, bool* replaced) {
  *replaced = false;
  if ((state & (TVR_DB_NS_WHITE_OUT | TVR_DB_NS_VIEW_SIDE)) != TVR_DB_NS_VIEW_SIDE) return 0;
  int st = unlink_in_trans(session, vdir, name, 0, old);
  if (st == TBS_ST_NOT_FOUND) return 0;
  *replaced = st == 0;
  return st;
}

// The cached object of a view-private inode that was just made (with a reference). A cached object of
// the same dbid with another identity is left over from a deleted inode whose address was reused: it is
// flushed when nobody else holds it, and shadowed by the new one otherwise.
obj_entry* new_view_obj(view_silo* silo, uint32_t dbid, const tbs_oid_s& oid, silo_mtype_t mtype, uint32_t gen) {
  obj_entry* obj = obj_get(silo, dbid);
  if (obj != nullptr) {
    if (obj->oid == oid && obj->gen == gen) return obj;
    if (obj->ref_cnt == 1) obj_flush(obj);
    else obj_free(obj);
  }
  return obj_alloc(silo, dbid, oid, mtype, gen);
}

// The name state the caches learn for a record the view database now has.
uint32_t recorded_state(uint32_t state, uint32_t inode) {
  state |= TVR_DB_NS_VIEW_SIDE;
  return inode == 0 ? state | TVR_DB_NS_WHITE_OUT : state & ~TVR_DB_NS_WHITE_OUT;
}

}  // namespace

// ---- names ----------------------------------------------------------------------------------------------------

int tavrel_db_lookup(obj_entry* dir, const char* name, uint32_t* dbid, uint32_t* state) {
  assert_cache_held();
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_lookup");
  int st = tvr_db_in_trans(0, [&] {
    uint32_t vdir = 0;
    int s = view_dir_in_trans(dir, &vdir);
    return s != 0 ? s : tvr_db_dir_entry_lookup(vdir, name, strlen(name), dbid, state);
  });
  report(st, "lookup", name_in(dir, name), true);
  return st;
}

int tavrel_db_readdir(obj_entry* dir, uint32_t cookie, char* buffer, size_t size, size_t* used, int* eof) {
  assert_cache_held();
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_readdir");
  *used = 0;
  *eof = 0;
  int st = tvr_db_in_trans(0, [&] {
    uint32_t vdir = 0;
    int s = view_dir_in_trans(dir, &vdir);
    if (s == TBS_ST_NOT_FOUND) {  // no cover: the view has no names here
      *eof = 1;
      return 0;
    }
    return s != 0 ? s : tvr_db_readdir(vdir, cookie, buffer, size, used, eof);
  });
  report(st, "readdir", obj_2str(dir), false);
  return st;
}

obj_entry* tavrel_db_create(const view_build_rec* build, obj_entry* dir, const char* name, uint32_t ftype,
                            const view_set_attr_t* sattr, const char* text, uint32_t state, tbs_fstat_db_s* fstat,
                            tbs_fstat_db_s* dir_fstat, int* status) {
  assert_cache_held();
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_create");
  *status = 0;
  if ((ftype != TBS_FTYPE_FILE && ftype != TBS_FTYPE_DIR && ftype != TBS_FTYPE_LINK) ||
      (ftype == TBS_FTYPE_LINK && text == nullptr)) {
    *status = TBS_ST_BAD_ARG;
    report(*status, "create", name_in(dir, name), false);
    return nullptr;
  }
  uint32_t vdir = 0;
  int st = view_dir_make(dir, &vdir);
  const tbs_oid_s oid = tbs_oid_create();
  const mode_t mode = sattr != nullptr ? (sattr->mode & 0xfff) : 0644;
  // A file's bytes live in a container of the pool, made before the records that name it.
  std::string container;
  if (st == 0 && ftype == TBS_FTYPE_FILE) {
    char leaf[PATH_MAX];
    if (tavrel_storage_create(oid, TBS_OID_NULL, "", vdir & 0x7fffffffu, leaf, sizeof leaf) != 0) {
      st = TBS_ST_CONTAINER;
    } else {
      char* actual = nullptr;
      st = tavrel_storage_create_container(tavrel_storage_path(leaf), 0, TBS_FTYPE_FILE, *tavrel_my_creds(),
                                           mode, &actual);
      stg_free(actual);
      if (st == 0) container = leaf;
    }
  }
  const uint32_t session = build != nullptr ? build->session : 0;
  uint32_t dbid = 0, gen = 0, offset = 0;
  tbs_fstat_db_s f{}, df{};
  unlinked old;
  bool replaced = false;
  if (st == 0) {
    st = tvr_db_in_trans(1, [&] {
      int s = replace_in_trans(session, vdir, name, state, &old, &replaced);
      uint32_t silo = 0;
      if (s == 0) s = tvr_db_inode_read(vdir, nullptr, nullptr, nullptr, nullptr, &silo);
      if (s != 0) return s;
      if (silo == 0) return static_cast<int>(TBS_ST_STALE);  // a stranded directory takes no names
      struct timeval now;
      tvr_db_view_time(&now);
      const credutl_creds_t* creds = tavrel_my_creds();
      f.type = ftype;
      f.mode = mode;
      f.nlink = ftype == TBS_FTYPE_DIR ? 1 : 0;  // the name adds one
      f.owner = sattr != nullptr && (sattr->mask & VIEW_SATTR_OWNER) ? sattr->owner : sid_of(creds->uid);
      f.group = sattr != nullptr && (sattr->mask & VIEW_SATTR_GROUP) ? sattr->group : sid_of(creds->gid);
      f.size = ftype == TBS_FTYPE_DIR ? TVR_DB_DIR_EMPTY_SIZE : ftype == TBS_FTYPE_LINK ? strlen(text) : 0;
      f.atime = f.mtime = f.ctime = now;
      s = tvr_db_inode_create(silo, oid, f, MTYPE_PRIVATE, &dbid, &gen);
      if (s == 0 && ftype == TBS_FTYPE_DIR) s = tvr_db_dir_create(dbid);
      if (s == 0 && ftype != TBS_FTYPE_DIR) s = tvr_db_inode_write_text(dbid, ftype == TBS_FTYPE_FILE ? container.c_str() : text);
      if (s == 0) s = tvr_db_link(vdir, name, strlen(name), dbid, state, &df, &f, 0, nullptr, &offset);
      return s;
    });
  }
  if (st != 0) {
    if (!container.empty()) tavrel_storage_remove(tavrel_storage_path(container));
    report(st, "create", name_in(dir, name), false);
    *status = st;
    return nullptr;
  }
  f.ino = dbid;
  df.ino = vdir;
  if (replaced) unlinked_to_caches(dir, name, state, old);
  obj_entry* obj = new_view_obj(dir->silo, dbid, oid, MTYPE_PRIVATE, gen);
  if (obj != nullptr) fstat_cache_update_obj(obj, &f);
  if (obj_entry* v = view_dir_obj(dir)) fstat_cache_update_obj(v, &df);
  lookup_view_add(dir, name, obj, recorded_state(state, dbid), offset + TVR_DB_COOKIE_BASE, dbid);
  if (fstat != nullptr) *fstat = f;
  if (dir_fstat != nullptr) *dir_fstat = df;
  if (obj == nullptr) *status = TBS_ST_NO_ROOM;  // committed, but the cache could not take the object
  trace.writeTrace(TRACE_LEVEL_4, "created %s as 0x%x", name, dbid);
  return obj;
}

int tavrel_db_link(obj_entry* dir, const char* name, obj_entry* target, uint32_t state) {
  assert_cache_held();
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_link");
  uint32_t vdir = 0, inode = 0;
  int st = view_dir_make(dir, &vdir);
  if (st == 0 && target != nullptr) st = view_obj_make(target, &inode);
  uint32_t offset = 0;
  tbs_fstat_db_s f{}, df{};
  unlinked old;
  bool replaced = false;
  if (st == 0) {
    st = tvr_db_in_trans(1, [&] {
      int s = replace_in_trans(0, vdir, name, state, &old, &replaced);
      if (s == 0) s = tvr_db_link(vdir, name, strlen(name), inode, state, &df, &f, 0, nullptr, &offset);
      return s;
    });
  }
  report(st, "link", name_in(dir, name), false);
  if (st != 0) return st;
  f.ino = inode;
  df.ino = vdir;
  if (replaced) unlinked_to_caches(dir, name, state, old);
  if (obj_entry* v = view_dir_obj(dir)) fstat_cache_update_obj(v, &df);
  if (target != nullptr) {
    obj_entry* t = obj_isa_view_obj(target) ? target : obj_2view_obj(target);
    if (t != nullptr) fstat_cache_update_obj(t, &f);
  }
  lookup_view_add(dir, name, target, recorded_state(state, inode), offset + TVR_DB_COOKIE_BASE, inode);
  return 0;
}

int tavrel_db_unlink(obj_entry* dir, const char* name, uint32_t state) {
  return tavrel_db_unlink_trans(nullptr, dir, name, state, 1);
}

int tavrel_db_unlink_trans(const view_build_rec* build, obj_entry* dir, const char* name, uint32_t state,
                           int commit) {
  assert_cache_held();
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_unlink_trans");
  const uint32_t session = build != nullptr ? build->session : 0;
  unlinked u;
  auto body = [&] {
    uint32_t vdir = 0;
    int s = view_dir_in_trans(dir, &vdir);
    return s != 0 ? s : unlink_in_trans(session, vdir, name, state, &u);
  };
  if (!commit) {
    int st = body();
    report(st, "unlink", name_in(dir, name), false);
    lookup_invalidate(dir, name);
    if (obj_entry* v = view_dir_obj(dir)) fstat_flush(v);
    return st;
  }
  int st = tvr_db_in_trans(1, body);
  report(st, "unlink", name_in(dir, name), false);
  if (st == 0) unlinked_to_caches(dir, name, state, u);
  return st;
}

int tavrel_db_state_set(obj_entry* dir, const char* name, uint32_t state) {
  assert_cache_held();
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_state_set");
  int st = tvr_db_in_trans(1, [&] {
    uint32_t vdir = 0;
    int s = view_dir_in_trans(dir, &vdir);
    return s != 0 ? s : tvr_db_dir_entry_state_set(vdir, name, strlen(name), state & TAVREL_DB_STATE_MASK);
  });
  report(st, "state_set", name_in(dir, name), false);
  if (st == 0) lookup_invalidate(dir, name);
  return st;
}

int tavrel_db_find_parent(obj_entry* obj, uint32_t* parent_dbid, char* name, size_t size) {
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_find_parent");
  std::string found;
  int st = obj_isa_view_obj(obj) ? tvr_db_in_trans(0, [&] { return tvr_db_find_parent(obj->dbid, parent_dbid, &found); })
                                 : TBS_ST_NOT_ALLOWED;
  if (st == 0) st = copy_out(found, name, size);
  report(st, "find_parent", obj_2str(obj), true);
  return st;
}

namespace {

// The name of object `dbid` in directory version `parent` of silo row `silo`. The listing's element type
// is whatever the namespace records call it.
template <typename Dirent>
int name_of(int (*list)(uint32_t, uint32_t, std::vector<Dirent>&), uint32_t silo, uint32_t parent, uint32_t dbid,
            std::string* name) {
  std::vector<Dirent> names;
  int st = list(silo, parent, names);
  if (st != 0) return st;
  for (const Dirent& d : names)
    if (d.dbid == dbid) {
      *name = d.name;
      return 0;
    }
  return TBS_ST_NOT_FOUND;
}

}  // namespace

int tavrel_db_get_parent_elem(obj_entry* obj, uint32_t* parent_elem_dbid, char* name, size_t size) {
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_get_parent_elem");
  if (obj_isa_view_obj(obj)) return TBS_ST_NOT_ALLOWED;
  std::string found;
  int st = tvr_db_in_trans(0, [&] {
    uint32_t silo = 0, dbid = obj->dbid, parent = 0;
    int s = silo_row_in_trans(obj->silo, &silo);
    // An element has no name of its own: its versions do.
    if (s == 0 && (obj->mtype == 2 || obj->mtype == 5)) s = tvr_db_elem_get_ver(silo, dbid, &dbid);
    if (s == 0) s = tvr_db_ver_get_parent(silo, dbid, &parent);
    if (s != 0) return s;
    if (parent == 0) {  // a root
      *parent_elem_dbid = 0;
      return 0;
    }
    s = tvr_db_ver_get_elem(silo, parent, parent_elem_dbid);
    return s != 0 ? s : name_of(tvr_db_ver_get_sub_vers, silo, parent, dbid, &found);
  });
  if (st == 0) st = copy_out(found, name, size);
  report(st, "get_parent_elem", obj_2str(obj), true);
  return st;
}
