// The view database in terms of cached objects: the inodes of view objects (see tavrel_db_utls.h).
#include <climits>
#include <cstring>
#include <vector>

#include "core/tavrel_trace.h"
#include "db/tavrel_db_container.h"
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_cr.h"
#include "db/tvr_db_inode.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_store.h"
#include "ns/tavrel_db_utls.h"
#include "ns/tavrel_db_utls_int.h"

#if __has_include("ns/ns_fstat.h")
#include "ns/ns_fstat.h"
#else
void fstat_flush(obj_entry* obj);
void fstat_cache_update_obj(obj_entry* obj, const tbs_fstat_db_s* fstat);
#endif

using namespace tavrel_db_utls;

namespace {

bool is_private_kind(silo_mtype_t m) { return m == 19 || m == 21 || m == 22 || m == 23 || m == 26; }

// Reads the attributes of view object `dbid` and writes back what `change` made of them; *out (may be
// null) receives them. In the caller's write transaction.
template <typename F>
int rewrite(uint32_t dbid, tbs_fstat_db_s* out, F&& change) {
  tbs_fstat_db_s f;
  int st = tvr_db_inode_read(dbid, nullptr, nullptr, &f, nullptr, nullptr);
  if (st == 0) st = change(f);
  if (st == 0) st = tvr_db_inode_rewrite(dbid, f);
  if (st == 0 && out != nullptr) *out = f;
  return st;
}

}  // namespace

int tavrel_db_dbid2oid(view_silo* silo, uint32_t dbid, tbs_oid_s* oid, tbs_fstat_db_s* fstat, silo_mtype_t* mtype,
                       uint32_t* gen) {
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_dbid2oid");
  int st = tvr_db_in_trans(0, [&] {
    uint32_t row = 0, owner = 0;
    int s = silo_row_in_trans(silo, &row);
    if (s == TBS_ST_NOT_FOUND) return static_cast<int>(TBS_ST_STALE);  // no row: nothing of it is stored
    if (s == 0) s = tvr_db_inode_read(dbid, gen, oid, fstat, mtype, &owner);
    // An inode of another SILO, or one stranded on its way out, is not this handle's object.
    if (s == 0 && owner != row) s = TBS_ST_STALE;
    return s;
  });
  // A stale handle is an answer: the object went away since the caller learned its dbid.
  if (st != TBS_ST_STALE) report(st, "dbid2oid", tavrel_dbid2str(silo, dbid), false);
  return st;
}

int tavrel_db_oid2dbid(view_silo* silo, const tbs_oid_s* oid, uint32_t* dbid) {
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_oid2dbid");
  int st = tvr_db_in_trans(0, [&] {
    uint32_t row = 0;
    int s = silo_row_in_trans(silo, &row);
    return s != 0 ? s : tvr_db_inode_lookup(row, *oid, dbid);
  });
  report(st, "oid2dbid", tavrel_oid2str(silo, *oid), true);
  return st;
}

int tavrel_db_delete(obj_entry* obj) {
  TAVREL_ASSERT_HELD(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_delete");
  int st = !obj_isa_view_obj(obj) ? TBS_ST_NOT_ALLOWED : tvr_db_in_trans(1, [&] {
    tbs_fstat_db_s f;
    int s = tvr_db_inode_read(obj->dbid, nullptr, nullptr, &f, nullptr, nullptr);
    if (s != 0) return s;
    // A directory goes with the names in it; a file with its container.
    return f.type == TBS_FTYPE_DIR ? tvr_db_inode_delete(obj->dbid, 0) : tavrel_db_inode_delete(0, obj->dbid, f.type, nullptr);
  });
  report(st, "delete", obj_2str(obj), false);
  if (st == 0) fstat_flush(obj);
  return st;
}

int tavrel_db_setattr(obj_entry* obj, const view_set_attr_t* sattr, tbs_fstat_db_s* fstat) {
  TAVREL_ASSERT_HELD(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_setattr");
  if (!obj_isa_view_obj(obj)) return TBS_ST_NOT_ALLOWED;
  tbs_fstat_db_s f{};
  const uint32_t mask = sattr->mask;
  int st = tvr_db_in_trans(1, [&] {
    return rewrite(obj->dbid, &f, [&](tbs_fstat_db_s& a) {
      if (mask & VIEW_SATTR_MODE_TOP) a.mode = (a.mode & ~VIEW_SATTR_MODE_TOP) | (sattr->mode & VIEW_SATTR_MODE_TOP);
      if (mask & VIEW_SATTR_MODE) a.mode = (a.mode & ~0xfffu) | (sattr->mode & 0xfffu);
      if (mask & VIEW_SATTR_OWNER) a.owner = sattr->owner;
      if (mask & VIEW_SATTR_GROUP) a.group = sattr->group;
      if (mask & VIEW_SATTR_SIZE) a.size = sattr->size;
      if (mask & VIEW_SATTR_ATIME) a.atime = sattr->atime;
      if (mask & VIEW_SATTR_MTIME) a.mtime = sattr->mtime;
      if (mask & VIEW_SATTR_CTIME_BITS) tvr_db_view_time(&a.ctime);
      return 0;
    });
  });
  report(st, "setattr", obj_2str(obj), false);
  if (st != 0) return st;
  fstat_cache_update_obj(obj, &f);
  if (fstat != nullptr) *fstat = f;
  return 0;
}

int tavrel_db_set_mtype(obj_entry* obj, silo_mtype_t mtype) {
  TAVREL_ASSERT_HELD(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_set_mtype");
  tbs_fstat_db_s f{};
  int st = !obj_isa_view_obj(obj)                                    ? TBS_ST_NOT_ALLOWED
           : !is_private_kind(obj->mtype) || !is_private_kind(mtype) ? TBS_ST_INTERNAL
                                                                     : tvr_db_in_trans(1, [&] {
                                                                         int s = tvr_db_inode_set_oid(obj->dbid, nullptr, mtype, 0);
                                                                         return s != 0 ? s : tvr_db_inode_read(obj->dbid, nullptr, nullptr, &f, nullptr, nullptr);
                                                                       });
  report(st, "set_mtype", obj_2str(obj), false);
  if (st != 0) return st;
  obj->mtype = mtype;
  fstat_cache_update_obj(obj, &f);
  return 0;
}

int tavrel_db_readlink(obj_entry* obj, char* buffer, size_t size, size_t* len) {
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_readlink");
  int st = !obj_isa_view_obj(obj) ? TBS_ST_NOT_ALLOWED : tvr_db_in_trans(0, [&] {
    tbs_fstat_db_s f;
    int s = tvr_db_inode_read(obj->dbid, nullptr, nullptr, &f, nullptr, nullptr);
    if (s == 0 && f.type != TBS_FTYPE_LINK) s = TBS_ST_BAD_ARG;
    return s != 0 ? s : tvr_db_inode_read_text(obj->dbid, buffer, size);
  });
  report(st, "readlink", obj_2str(obj), false);
  *len = st == 0 ? strlen(buffer) : 0;
  return st;
}

int tavrel_db_cltxt_name(obj_entry* obj, char* buffer, size_t size) {
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_cltxt_name");
  int st = !obj_isa_view_obj(obj) ? TBS_ST_NOT_ALLOWED
                                  : tvr_db_in_trans(0, [&] { return tvr_db_inode_read_text(obj->dbid, buffer, size); });
  report(st, "cltxt_name", obj_2str(obj), false);
  return st;
}

int tavrel_db_choid(const view_build_rec* build, obj_entry* obj, const tbs_oid_s* oid) {
  TAVREL_ASSERT_HELD(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_choid");
  if (!obj_isa_view_obj(obj)) return TBS_ST_NOT_ALLOWED;
  const uint32_t session = build != nullptr ? build->session : 0;
  const silo_mtype_t mtype = oid == nullptr || session == 0 ? 19 : (build->flags & 1) ? 21 : 23;
  int st = tvr_db_in_trans(1, [&] {
    std::vector<char> text(65536);  // the longest text an inode keeps, and its NUL
    int s = tvr_db_inode_read_text(obj->dbid, text.data(), text.size());
    if (s == 0) s = tvr_db_inode_set_oid(obj->dbid, oid, mtype, session);
    if (s != 0 || text[0] != '\0') return s;
    // Copy on write: the object's bytes will need a container of their own.
    char leaf[PATH_MAX];
    if (tavrel_storage_create(oid != nullptr ? *oid : obj->oid, TBS_OID_NULL, "cow", obj->dbid & 0x7fffffffu, leaf,
                              sizeof leaf) != 0)
      return static_cast<int>(TBS_ST_CONTAINER);
    return tvr_db_inode_write_text(obj->dbid, leaf);
  });
  report(st, "choid", obj_2str(obj), false);
  if (st != 0) return st;
  obj->mtype = mtype;
  fstat_flush(obj);
  return 0;
}

int tavrel_db_dos_to_unshareable(view_silo* silo, const uint32_t* dbids, size_t count) {
  TAVREL_ASSERT_HELD(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_dos_to_unshareable");
  int st = tvr_db_in_trans(1, [&] {
    for (size_t i = 0; i < count; i++) {
      int s = tvr_db_inode_set_oid(dbids[i], nullptr, 26, 0);
      if (s != 0) return s;
    }
    return 0;
  });
  report(st, "dos_to_unshareable", count > 0 ? tavrel_dbid2str(silo, dbids[0]) : "", false);
  if (st != 0) return st;
  for (size_t i = 0; i < count; i++) {
    obj_entry* obj = obj_get(silo, dbids[i]);
    if (obj == nullptr) continue;
    obj->mtype = 26;
    fstat_flush(obj);
    obj_free(obj);
  }
  return 0;
}

int tavrel_db_recover_object(const tbs_uuid_s& old_uuid, const tbs_uuid_s& new_uuid) {
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_recover_object");
  int st = tvr_db_reparent_replica_uuid(old_uuid, new_uuid);  // a write transaction of its own
  report(st, "recover_object", tbs_uuid_to_str(old_uuid), true);
  return st;
}

int tavrel_db_rm_build_session(uint32_t session) {
  Tavrel_Trace trace(TAVREL_DB, "tavrel_db_utls", "tavrel_db_rm_build_session");
  int st = tvr_db_in_trans(1, [&] { return tvr_db_cr_rm_build_session(session); });
  report(st, "rm_build_session", std::to_string(session), false);
  return st;
}
