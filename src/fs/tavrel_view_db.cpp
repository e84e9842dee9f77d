#include "fs/tavrel_view_db.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/tbs.h"
#include "core/tavrel_config.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_util.h"
#include "db/tavrel_db_container.h"
#include "db/tavrel_db_vns.h"
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_vns.h"

namespace {

void apply_sync_setting(Tavrel_Trace& trace) {
  tvr_db_sync_mode_t mode = TVR_DB_SYNC_DEFERRED;
  std::string text = Tavrel_Config::get_instance()->find("tavrelDbSync");
  if (!text.empty() && !tvr_db_parse_sync_mode(text, &mode)) {
    trace.writeTrace(TRACE_LEVEL_1, "tavrelDbSync \"%s\" is neither \"deferred\" nor \"commit\"; using \"deferred\"",
                     text.c_str());
    mode = TVR_DB_SYNC_DEFERRED;
  }
  tvr_db_set_sync_mode(mode);
}

// The SILO row of `replica` and its stripped address, in the caller's transaction.
int silo_rows(const tbs_uuid_s& replica, uint32_t* silo, DB_ADDR* silo_dba) {
  int st = tvr_db_silo_lookup(replica, silo);
  return st != 0 ? st : tvr_db_vns_silo_dba(*silo, silo_dba);
}

// Object `dbid` of `replica`: its OID and kind, in a read transaction of its own.
bool dbid_to_oid(const tbs_uuid_s& replica, uint32_t dbid, tbs_oid_s* oid, silo_mtype_t* mtype) {
  return tvr_db_in_trans(0, [&] {
    uint32_t silo = 0;
    DB_ADDR silo_dba = 0;
    int st = silo_rows(replica, &silo, &silo_dba);
    return st != 0 ? st : tvr_db_lookup_obj_oid(silo_dba, dbid, oid, mtype);
  }) == 0;
}

bool oid_to_dbid(const tbs_uuid_s& replica, const tbs_oid_s& oid, uint32_t* dbid, silo_mtype_t* mtype) {
  return tvr_db_in_trans(0, [&] {
    uint32_t silo = 0;
    DB_ADDR silo_dba = 0;
    int st = silo_rows(replica, &silo, &silo_dba);
    return st != 0 ? st : tvr_db_vns_obj_lookup(silo_dba, oid, dbid, mtype);
  }) == 0;
}

bool is_element_kind(silo_mtype_t mtype) {
  return mtype == SILO_MTYPE_DIR_ELEM || mtype == SILO_MTYPE_FILE_ELEM || mtype == SILO_MTYPE_SYMLINK;
}

// Why an entry from the server cannot be stored as it stands, or null when it can. `elem_oid` receives
// the element's OID.
const char* entry_fault(silo_mtype_t mtype, const char* name, int parts, const tavrel_vstat& obj,
                        const tavrel_vstat& elem, tbs_oid_s* elem_oid) {
  const view_vstat_t& o = obj.vstat;
  const view_vstat_t& e = elem.vstat;
  if (name == nullptr || name[0] == '\0' || std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
    return "bad name";
  if (std::strlen(name) > VIEW_NAME_MAX) return "name too long";
  if (std::strchr(name, '/') != nullptr) return "name with a slash";
  if (parts != 2 && parts != 3) return "bad parts";
  if (o.mtype != mtype) return "attributes of another kind";
  if (tbs_oid_is_null(o.obj_oid)) return "null object oid";
  if (mtype == SILO_MTYPE_SYMLINK) {
    *elem_oid = o.obj_oid;
    return nullptr;
  }
  if (mtype != SILO_MTYPE_DIR_VER && mtype != SILO_MTYPE_FILE_VER && mtype != SILO_MTYPE_VER3) return "bad mtype";
  silo_mtype_t want = mtype == SILO_MTYPE_DIR_VER ? SILO_MTYPE_DIR_ELEM : SILO_MTYPE_FILE_ELEM;
  *elem_oid = tbs_oid_is_null(e.obj_oid) ? o.elem_oid : e.obj_oid;
  if (tbs_oid_is_null(*elem_oid)) return "null element oid";
  if (!tbs_oid_is_null(o.elem_oid) && !(o.elem_oid == *elem_oid)) return "element oid disagrees";
  if (parts == 3 && e.mtype != want) return "element of another kind";
  return nullptr;
}

}  // namespace

int Tavrel_View_db::start_db(const std::string& storage, const std::string& uuid_text, Tavrel_View_db** db) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db", "start_db");
  *db = new Tavrel_View_db(storage);
  if (chdir(storage.c_str()) != 0) {
    trace.writeTrace(TRACE_LEVEL_1, "Cannot enter the view storage %s: %s", storage.c_str(), strerror(errno));
    return TBS_ST_INTERNAL;
  }
  apply_sync_setting(trace);
  // The container pool first: a repair's check walks it.
  int st = tavrel_storage_init();
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_1, "Cannot set up the container pool of %s: %d", storage.c_str(), st);
    return st;
  }
  int created = 0;
  st = tavrel_db_init(&created);
  trace.writeTrace(TRACE_LEVEL_3, "View %s database: status %d, created %d, open %d", uuid_text.c_str(), st, created,
                   tvr_db_is_open() ? 1 : 0);
  return st;
}

void Tavrel_View_db::close_db(Tavrel_View_db* db) {
  tvr_db_close_db();
  delete db;
}

int Tavrel_View_db::reset_db() { return tavrel_db_reset(); }

int Tavrel_View_db::view_gn(unsigned& gn) {
  uint32_t v = 0;
  int st = tavrel_db_get_vns_view_gn(&v);
  if (st == 0) gn = v;
  return st;
}

int Tavrel_View_db::create_view_row(const std::string& uuid_text, unsigned gn) {
  tbs_uuid_s uuid;
  if (tbs_str_to_uuid(uuid_text, &uuid) != 0) return TBS_ST_BAD_ARG;
  return tavrel_db_create_vns_view(uuid, gn);
}

int Tavrel_View_db::add_lr_scope(const tbs_oid_s& oid, unsigned gn, const char* name) {
  return tavrel_db_create_lr_scope(oid, gn, name);
}

int Tavrel_View_db::delete_lr_scope(const tbs_oid_s& oid) { return tavrel_db_delete_lr_scope(oid); }

int Tavrel_View_db::get_scopes(ScopeListType type, std::vector<tavrel_scope>& scopes) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db", "get_scopes");
  switch (type) {
    case ALL_SCOPES: return tavrel_db_get_lr_scopes(1, scopes);
    case ACTIVE_SCOPES: return tavrel_db_get_lr_scopes(0, scopes);
    case REMOVED_SCOPES: return tavrel_db_get_removed_lr_scopes(scopes);
  }
  trace.writeTrace(TRACE_LEVEL_2, "invalid list type %d", static_cast<int>(type));
  return TBS_ST_BAD_ARG;
}

bool Tavrel_View_db::obj_dbid_to_oid(const tbs_uuid_s& replica, uint32_t dbid, tbs_oid_s* oid) {
  silo_mtype_t mtype = 0;
  return dbid_to_oid(replica, dbid, oid, &mtype);
}

bool Tavrel_View_db::obj_oid_to_dbid(const tbs_uuid_s& replica, const tbs_oid_s& oid, uint32_t* dbid) {
  silo_mtype_t mtype = 0;
  return oid_to_dbid(replica, oid, dbid, &mtype);
}

bool Tavrel_View_db::obj_oid_to_dbid_mtype(const tbs_uuid_s& replica, const tbs_oid_s& oid, uint32_t* dbid,
                                           silo_mtype_t* mtype) {
  return oid_to_dbid(replica, oid, dbid, mtype);
}

bool Tavrel_View_db::elem_dbid_to_oid(const tbs_uuid_s& replica, uint32_t dbid, tbs_oid_s* oid) {
  tbs_oid_s found = TBS_OID_NULL;
  silo_mtype_t mtype = 0;
  if (!dbid_to_oid(replica, dbid, &found, &mtype) || !is_element_kind(mtype)) return false;
  *oid = found;
  return true;
}

bool Tavrel_View_db::elem_oid_to_dbid(const tbs_uuid_s& replica, const tbs_oid_s& oid, uint32_t* dbid) {
  uint32_t found = 0;
  silo_mtype_t mtype = 0;
  if (!oid_to_dbid(replica, oid, &found, &mtype) || !is_element_kind(mtype)) return false;
  *dbid = found;
  return true;
}

int Tavrel_View_db::add_db_entry(const tbs_uuid_s& replica, silo_mtype_t mtype, const char* name, uint32_t dir_dbid,
                                 const tbs_oid_s& scope_oid, uint32_t gn, int parts, int flag,
                                 const tavrel_vstat& obj, const tavrel_vstat& elem, uint32_t* ver_dbid,
                                 uint32_t* elem_dbid, int load_state, bool* unchanged) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_db", "add_db_entry");
  if (unchanged != nullptr) *unchanged = false;
  tbs_oid_s elem_oid = TBS_OID_NULL;
  if (const char* fault = entry_fault(mtype, name, parts, obj, elem, &elem_oid)) {
    trace.writeTrace(TRACE_LEVEL_1, "refusing entry '%.255s' (mtype %d) in dbid %u: %s", name != nullptr ? name : "",
                     mtype, dir_dbid, fault);
    return TAVREL_ST_FAILURE;
  }
  if (load_state < 0 || load_state > 2) return TAVREL_ST_FAILURE;
  const view_vstat_t& o = obj.vstat;
  const tbs_oid_s* scope = tbs_oid_is_null(scope_oid) ? nullptr : &scope_oid;
  uint32_t made = 0, el = 0;
  int same = 0, elem_changed = 0;
  int st = tvr_db_in_trans(1, [&] {
    uint32_t silo = 0;
    DB_ADDR silo_dba = 0;
    int s = silo_rows(replica, &silo, &silo_dba);
    if (s != 0) return s;
    // The directory must be a directory version the view holds: a name is never left without its parent.
    silo_mtype_t dir_kind = 0;
    if ((s = tvr_db_obj_get_mtype(silo, dir_dbid, &dir_kind)) != 0) return s;
    if (dir_kind != SILO_MTYPE_DIR_VER) return int(TBS_ST_NOT_FOUND);
    if (mtype == SILO_MTYPE_SYMLINK) {
      s = tvr_db_create_vns_slink(silo, dir_dbid, o.obj_oid, o.event_time, name, obj.path, scope, gn, &made, &same);
      el = made;
      return s;
    }
    if (parts == 3) {
      const view_vstat_t& e = elem.vstat;
      s = tvr_db_create_vns_elem(silo, elem_oid, e.mtype, e.event_time, e.fstat, elem.checked_out || obj.checked_out,
                                 obj.checked_out ? &o.obj_oid : nullptr, &el, &elem_changed);
      if (s != 0) return s;
    }
    s = tvr_db_create_vns_ver(silo, dir_dbid, o.obj_oid, elem_oid, mtype, o.event_time, name, o.fstat, scope, gn,
                              load_state, &made, nullptr, nullptr, &same);
    return s != 0 ? s : tvr_db_ver_get_elem(silo, made, &el);
  });
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "entry '%s' (mtype %d) in dbid %u of %s: %d", name, mtype, dir_dbid,
                     tbs_uuid_to_str(replica).c_str(), st);
    return Tavrel_Util::tbs_to_tavrel_status(st);
  }
  if (ver_dbid != nullptr) *ver_dbid = made;
  if (elem_dbid != nullptr) *elem_dbid = el;
  if (unchanged != nullptr) *unchanged = same != 0 && elem_changed == 0;
  trace.writeTrace(TRACE_LEVEL_4, "%s '%s' in dbid %u: dbid %u element dbid %u", flag != 0 ? "looked up" : "listed", name,
                   dir_dbid, made, el);
  return 0;
}
