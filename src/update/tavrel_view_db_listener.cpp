#include "update/tavrel_view_db_listener.h"

#include <algorithm>
#include <cstdarg>

#include "base/fileutl.h"
#include "core/tavrel_log_update.h"
#include "core/tavrel_msg_table.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_util.h"
#include "core/tavrel_view.h"
#include "db/tavrel_db_vns.h"
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_vns.h"
#include "fs/tavrel_metadata.h"
#include "fs/tavrel_view_db.h"
#include "fs/tavrel_view_db_root_dir.h"
#include "kfsm/tavrel_kfsm_ioctl.h"
#include "proto/kfsm_status.h"
#include "proto/wan_names.h"
#include "proto/xdr_prim.h"
#include "update/tavrel_update.h"
#include "update/tavrel_update_hijack.h"

namespace {
const char* const kClass = "Tavrel_View_db_listener";

std::string oid_text(const tbs_oid_s& oid) { return tbs_oid_to_str(oid); }
std::string uuid_text(const tbs_uuid_s& uuid) { return tbs_uuid_to_str(uuid); }
const char* db_text(int st) { return tbs_strerror(st); }
// A database status as the update's status.
int agent_status(int st) { return st >= 20000 ? st : Tavrel_Util::tbs_to_tavrel_status(st); }
}  // namespace

Tavrel_View_db_listener::Tavrel_View_db_listener(Tavrel_Update* u) : update(u) {}

Tavrel_View_db_listener::~Tavrel_View_db_listener() = default;

bool Tavrel_View_db_listener::is_auto_scope(const tavrel_scope& scope) { return scope.oid == AUTOMATIC_LOAD_SCOPE_OID; }

void Tavrel_View_db_listener::split_path(const std::string& path, std::string& dir, std::string& leaf) {
  dir = fileutl_strip_leaf(path);
  const size_t slash = path.rfind('/');
  leaf = slash == std::string::npos ? path : path.substr(slash + 1);
}

// ---- failures and stops ------------------------------------------------------------------------------------------

bool Tavrel_View_db_listener::fail_text(int status, const std::string& text) {
  Tavrel_Trace trace(TAVREL, kClass, "fail");
  trace.writeTrace(TRACE_LEVEL_2, "Status = %d: %s", status, text.c_str());
  if (update->get_status() == 0) update->set_status(status == 0 ? TAVREL_ST_FAILURE : status);
  update->append_status_message(text);
  if (Tavrel_Log_Update* log = update->get_log()) {
    std::string line = text;
    while (!line.empty() && line.back() == '\n') line.pop_back();
    log->log_error(line);
  }
  return false;
}

bool Tavrel_View_db_listener::fail(int status, int number, ...) {
  std::string text;
  va_list ap;
  va_start(ap, number);
  Tavrel_Util::vformat(text, &_tvr_lib_lib_msg_table, number, ap);
  va_end(ap);
  return fail_text(status, text);
}

bool Tavrel_View_db_listener::stopping() {
  if (!Tavrel_View::should_stop_update()) return false;
  if (!update->is_cancelled()) {
    update->set_cancelled();
    if (update->get_status() == 0) {
      update->set_status(TAVREL_ST_VIEW_ENDING);
      std::string text;
      update->append_status_message(Tavrel_Util::format(text, &_tvr_lib_lib_msg_table, TVR_LIB_SHUTTING_DOWN));
    }
  }
  return true;
}

void Tavrel_View_db_listener::flush(const tbs_uuid_s& replica, const tbs_oid_s& oid, const tbs_oid_s& oid2,
                                    const tbs_oid_s& parent_oid, const std::string& leaf, const std::string& path) {
  Tavrel_Trace trace(TAVREL, kClass, "flush");
  std::string text;
  int st = Tavrel_Metadata::flush_cache(replica, oid, parent_oid, leaf.c_str(), ioctl(), path, text);
  if (!tbs_oid_is_null(oid2) && !(oid2 == oid)) {
    int st2 = Tavrel_Metadata::view_inval_obj(ioctl(), replica, oid2, 13, 1, 1, 0);
    if (st == 0 && st2 != 0) st = st2;
  }
  if (st != 0) trace.writeTrace(TRACE_LEVEL_3, "flush of %s gave %d: %s", path.c_str(), st, text.c_str());
}

// ---- the operation ------------------------------------------------------------------------------------------------

bool Tavrel_View_db_listener::prepare_operation() {
  Tavrel_Trace trace(TAVREL, kClass, "prepare_operation");
  std::vector<tavrel_scope> scopes;
  int st = Tavrel_View_db::get_scopes(Tavrel_View_db::ALL_SCOPES, scopes);
  if (st != 0) return fail(TAVREL_ST_FAILURE, TVR_LIB_GET_LOAD_SCOPES);
  for (const tavrel_scope& s : scopes) {
    if (is_auto_scope(s)) continue;
    Tavrel_Metadata md(s.name, false);
    st = md.run();
    // Only a SILO that was reached and said the path is not there dooms the scope; an unmounted SILO
    // or a server out of reach says nothing about it.
    if (st == TAVREL_ST_NOT_FOUND && !md.get_silo_tag().empty()) {
      trace.writeTrace(TRACE_LEVEL_3, "load scope %s no longer exists", s.name);
      doomed.push_back({s});
    } else if (st != 0) {
      trace.writeTrace(TRACE_LEVEL_3, "Metadata failed with status %d", st);
    }
  }
  return true;
}

bool Tavrel_View_db_listener::begin_operation(unsigned int gn) {
  Tavrel_Trace trace(TAVREL, kClass, "begin_operation");
  if (stopping()) return false;
  int st = tavrel_db_get_vns_view_gn(&old_gn);
  if (st != 0) return fail(agent_status(st), TVR_LIB_UPDATE_OLD_GN, db_text(st));
  new_gn = gn;
  trace.writeTrace(TRACE_LEVEL_4, "old gn %u new gn %u", old_gn, new_gn);
  m_ioctl = std::make_unique<Tavrel_KFSM_Ioctl>(update->get_update_view());
  // One or two invalidations per element: one connection for them all, sent by a thread of their own.
  m_ioctl->send_from_own_thread();
  m_has_hijacks = Tavrel_Update_Hijack::view_has_hijacks();
  scope_names.clear();
  return true;
}

bool Tavrel_View_db_listener::begin_silo(const tbs_uuid_s& replica_uuid, const tbs_oid_s& family) {
  Tavrel_Trace trace(TAVREL, kClass, "begin_silo");
  if (stopping()) return false;
  trace.writeTrace(TRACE_LEVEL_4, "silo_uuid=%s   family_oid=%s", uuid_text(replica_uuid).c_str(),
                   oid_text(family).c_str());
  current_silo = replica_uuid;
  family_oid = family;
  if (std::find(m_silos.begin(), m_silos.end(), replica_uuid) == m_silos.end()) m_silos.push_back(replica_uuid);
  int empty = 0;
  int st = tavrel_db_is_def_scope_silo_empty(replica_uuid, &empty);
  silo_is_load = empty != 0;
  if (st == 0)
    st = silo_is_load ? tavrel_db_begin_def_scope_silo_load(replica_uuid, new_gn)
                      : tavrel_db_begin_def_scope_silo_update(replica_uuid, new_gn);
  if (st != 0)
    return fail(agent_status(st), TVR_LIB_UPDATE_START_SCOPE_SILO, TVR_DB_DEF_SCOPE_NAME,
                uuid_text(replica_uuid).c_str(), db_text(st));
  return true;
}

bool Tavrel_View_db_listener::begin_scope(const tavrel_scope& scope) {
  Tavrel_Trace trace(TAVREL, kClass, "begin_scope");
  if (stopping()) return false;
  trace.writeTrace(TRACE_LEVEL_4, "scope %s", scope.name);
  current_scope = scope;
  in_scope = true;
  if (is_auto_scope(scope)) {
    is_load = false;
    int st = tavrel_db_begin_def_scope(new_gn);
    if (st != 0) return fail(agent_status(st), TVR_LIB_UPDATE_START_SCOPE, scope.name, db_text(st));
    return true;
  }
  unsigned gn = 0;
  int st = tavrel_db_get_lr_scope_gn(scope.oid, &gn);
  if (st == TBS_ST_NOT_FOUND) return fail(TAVREL_ST_FAILURE, TVR_LIB_UPDATE_SCOPE_OID, oid_text(scope.oid).c_str());
  int empty = 0;
  if (st == 0) st = tavrel_db_is_lr_scope_empty(scope.oid, &empty);
  is_load = empty != 0;
  if (st == 0)
    st = is_load ? tavrel_db_begin_lr_scope_load(scope.oid, new_gn) : tavrel_db_begin_lr_scope_update(scope.oid, new_gn);
  if (st != 0) return fail(agent_status(st), TVR_LIB_UPDATE_START_SCOPE, scope.name, db_text(st));
  return true;
}

bool Tavrel_View_db_listener::end_scope() {
  Tavrel_Trace trace(TAVREL, kClass, "end_scope");
  if (stopping()) return false;
  finished_scopes.emplace_back(current_scope, is_load);
  in_scope = false;
  return true;
}

bool Tavrel_View_db_listener::end_silo() {
  Tavrel_Trace trace(TAVREL, kClass, "end_silo");
  if (stopping()) return false;
  int st = silo_is_load ? tavrel_db_end_def_scope_silo_load(current_silo, new_gn)
                        : tavrel_db_end_def_scope_silo_update(current_silo, new_gn);
  if (st != 0)
    return fail(agent_status(st), TVR_LIB_UPDATE_END_SCOPE_SILO, TVR_DB_DEF_SCOPE_NAME, uuid_text(current_silo).c_str(),
                db_text(st));
  return true;
}

// ---- objects ------------------------------------------------------------------------------------------------------

int Tavrel_View_db_listener::store(const tbs_uuid_s& replica, const std::string& leaf, uint32_t parent_ver,
                                   const tavrel_vstat& obj, const tavrel_vstat& elem, uint32_t* ver_dbid,
                                   bool* unchanged, std::string& text) {
  const bool lr_scope = in_scope && !is_auto_scope(current_scope);
  const tbs_oid_s scope = lr_scope ? current_scope.oid : TBS_OID_NULL;
  // A load lists each of its directories whole, so the end of the load may trust their listings.
  const int load_state = lr_scope && is_load && obj.vstat.mtype == SILO_MTYPE_DIR_VER ? 1 : 2;
  uint32_t elem_dbid = 0;
  int st = Tavrel_View_db::add_db_entry(replica, obj.vstat.mtype, leaf.c_str(), parent_ver, scope, new_gn, 3, 0, obj,
                                        elem, ver_dbid, &elem_dbid, load_state, unchanged);
  Tavrel_Trace trace(TAVREL, kClass, "store");
  if (st != 0) {
    text = "error " + std::to_string(st);
  } else {
    trace.writeTrace(TRACE_LEVEL_5, "new object dbid %d elem dbid %d", static_cast<int>(*ver_dbid),
                     static_cast<int>(elem_dbid));
  }
  return st;
}

bool Tavrel_View_db_listener::update_root(const tbs_uuid_s& replica, const std::string& path,
                                          const std::string& prev_version, const std::string& curr_version,
                                          const tavrel_vstat& obj, const tavrel_vstat& elem) {
  Tavrel_Trace trace(TAVREL, kClass, "update_root");
  const bool lr_scope = in_scope && !is_auto_scope(current_scope);
  uint32_t ver = 0, elem_dbid = 0;
  Tavrel_View_db_root_dir root(replica);
  int st = root.create(lr_scope ? current_scope.oid : TBS_OID_NULL, new_gn, lr_scope && is_load ? 1 : 2, obj, elem,
                       &ver, &elem_dbid);
  if (st != 0)
    return fail(agent_status(st), TVR_LIB_UPDATE_ADD, path.c_str(), "", ("error " + std::to_string(st)).c_str());
  trace.writeTrace(TRACE_LEVEL_4, "new rootdir ver dbid %d elem dbid %d", static_cast<int>(ver),
                   static_cast<int>(elem_dbid));
  m_last_ver_dbid = ver;
  if (Tavrel_Log_Update* log = update->get_log()) {
    if (prev_version.empty())
      log->log_load(path, curr_version, false);
    else
      log->log_update(path, prev_version, curr_version, false);
  }
  scope_names.emplace(obj.vstat.elem_oid, current_scope.name);
  flush(replica, obj.vstat.elem_oid, obj.vstat.obj_oid, TBS_OID_NULL, "", path);
  m_applied++;
  return true;
}

bool Tavrel_View_db_listener::update_object(const tbs_uuid_s& replica_uuid, const tbs_oid_s& parent_oid,
                                            const std::string& path, const std::string& prev_version,
                                            const std::string& curr_version, const tavrel_vstat& obj,
                                            const tavrel_vstat& elem) {
  Tavrel_Trace trace(TAVREL, kClass, "update_object");
  if (stopping()) return false;
  std::string dir, leaf;
  split_path(path, dir, leaf);
  const silo_mtype_t mtype = obj.vstat.mtype;
  const bool is_symlink = mtype == SILO_MTYPE_SYMLINK;
  trace.writeTrace(TRACE_LEVEL_5,
                   "update silo %s parent elem %s name \"%s\" obj_oid %s elem_oid (obj) %s elem_oid %s ver-co %d "
                   "elem-co %d",
                   uuid_text(replica_uuid).c_str(), oid_text(parent_oid).c_str(), leaf.c_str(),
                   oid_text(obj.vstat.obj_oid).c_str(), oid_text(obj.vstat.elem_oid).c_str(),
                   oid_text(elem.vstat.obj_oid).c_str(), static_cast<int>(obj.checked_out),
                   static_cast<int>(elem.checked_out));
  m_last_ver_dbid = 0;
  if (tbs_oid_is_null(parent_oid)) return update_root(replica_uuid, path, prev_version, curr_version, obj, elem);

  uint32_t parent_elem = 0, parent_ver = 0;
  std::string text;
  int st = Tavrel_Metadata::lookup_parent_dir(replica_uuid, parent_oid, path, &parent_elem, &parent_ver, text);
  if (st != 0) {
    if (text.empty())
      Tavrel_Util::format(text, &_tvr_lib_lib_msg_table, TVR_LIB_PARENT_VERSION, path.c_str(),
                          oid_text(parent_oid).c_str(), "not in the view database");
    return fail_text(st, text);
  }
  trace.writeTrace(TRACE_LEVEL_5, "parent ver dbid %d elem dbid %d", static_cast<int>(parent_ver),
                   static_cast<int>(parent_elem));

  // A file the user hijacked under this name is treated as asked before the new object takes the name.
  const HijackTreatment treatment = update->get_hijack_treatment();
  bool hijacked = false;
  std::string new_leaf;
  if (m_has_hijacks && Tavrel_Update_Hijack::lookup(replica_uuid, parent_oid, leaf) == 0) {
    hijacked = true;
    st = Tavrel_Update_Hijack::treat(treatment, false, replica_uuid, parent_oid, leaf, &new_leaf);
    if (st != 0)
      return fail(agent_status(st), TVR_LIB_UPDATE_ADD, leaf.c_str(), oid_text(parent_oid).c_str(), db_text(st));
  }

  uint32_t ver_dbid = 0;
  bool unchanged = false;
  trace.writeTrace(TRACE_LEVEL_5, "add '%s' parent-ver-dbid %d", leaf.c_str(), static_cast<int>(parent_ver));
  st = store(replica_uuid, leaf, parent_ver, obj, elem, &ver_dbid, &unchanged, text);
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Can't add db entry %s/%s (%s): error %d", dir.c_str(), leaf.c_str(),
                     oid_text(obj.vstat.obj_oid).c_str(), st);
    return fail(st, TVR_LIB_UPDATE_ADD, leaf.c_str(), oid_text(parent_oid).c_str(), text.c_str());
  }
  m_last_ver_dbid = ver_dbid;

  // The log tells what the database now holds.
  if (Tavrel_Log_Update* log = update->get_log()) {
    if (hijacked)
      log->log_hijack_update(treatment, path, prev_version, curr_version, is_symlink,
                             new_leaf.empty() ? "" : dir + "/" + new_leaf);
    else if (prev_version.empty())
      log->log_load(path, curr_version, is_symlink);
    else
      log->log_update(path, prev_version, curr_version, is_symlink);
  }
  // The caches learn of the change after the database holds it, so a lookup in between cannot bring
  // the old state back into them. A name that showed this very version already changed nothing they can
  // hold (only its generation and marks moved), so they are left alone: in a load of names the view has
  // met, that is nearly every name, and the caches are forgotten whole when the update ends.
  if (!unchanged || hijacked) flush(replica_uuid, obj.vstat.elem_oid, TBS_OID_NULL, parent_oid, leaf, path);
  if (!new_leaf.empty()) flush(replica_uuid, TBS_OID_NULL, TBS_OID_NULL, parent_oid, new_leaf, dir + "/" + new_leaf);
  m_applied++;

  if (mtype == SILO_MTYPE_DIR_VER) {
    auto [it, inserted] = scope_names.emplace(obj.vstat.elem_oid, current_scope.name);
    if (!inserted && it->second != current_scope.name)
      return fail(TAVREL_ST_FAILURE, TVR_LIB_DIR_IN_TWO_RULES, path.c_str());
  }
  return true;
}

bool Tavrel_View_db_listener::unload_object(const tbs_uuid_s& replica_uuid, const tbs_oid_s& parent_oid,
                                            const std::string& path, const tbs_oid_s& object_oid) {
  Tavrel_Trace trace(TAVREL, kClass, "unload_object");
  if (stopping()) return false;
  std::string dir, leaf;
  split_path(path, dir, leaf);
  if (in_scope && !tbs_oid_is_null(parent_oid))
    trace.writeTrace(TRACE_LEVEL_3, "Unloading while inside valid scope--not expected!?!");
  trace.writeTrace(TRACE_LEVEL_5, "unload silo %s parent elem %s name \"%s\" old_obj_oid %s",
                   uuid_text(replica_uuid).c_str(), oid_text(parent_oid).c_str(), leaf.c_str(),
                   oid_text(object_oid).c_str());
  // The stream names the element; the name in its parent shows the version of it that the view holds.
  const tbs_oid_s shown = shown_object(replica_uuid, object_oid);
  int st = tavrel_db_ver_mark_remove(replica_uuid, parent_oid, shown, leaf.c_str());
  if (st != 0)
    return fail(agent_status(st), TVR_LIB_UPDATE_MARK_REMOVED, uuid_text(replica_uuid).c_str(),
                oid_text(parent_oid).c_str(), path.c_str(), db_text(st));

  const HijackTreatment treatment = update->get_hijack_treatment();
  std::string new_leaf;
  Tavrel_Log_Update* log = update->get_log();
  if (m_has_hijacks && Tavrel_Update_Hijack::lookup(replica_uuid, parent_oid, leaf) == 0) {
    st = Tavrel_Update_Hijack::treat(treatment, true, replica_uuid, parent_oid, leaf, &new_leaf);
    if (st != 0)
      return fail(agent_status(st), TVR_LIB_UPDATE_MARK_REMOVED, uuid_text(replica_uuid).c_str(),
                  oid_text(parent_oid).c_str(), path.c_str(), db_text(st));
    if (log) log->log_hijack_unload(treatment, path, new_leaf.empty() ? "" : dir + "/" + new_leaf);
  } else if (log) {
    log->log_unload(path);
  }
  flush(replica_uuid, object_oid, shown, parent_oid, leaf, path);
  if (!new_leaf.empty()) flush(replica_uuid, TBS_OID_NULL, TBS_OID_NULL, parent_oid, new_leaf, dir + "/" + new_leaf);
  m_applied++;
  return true;
}

tbs_oid_s Tavrel_View_db_listener::shown_object(const tbs_uuid_s& replica, const tbs_oid_s& object_oid) {
  uint32_t dbid = 0, ver = 0;
  silo_mtype_t mtype = 0;
  if (!Tavrel_View_db::obj_oid_to_dbid_mtype(replica, object_oid, &dbid, &mtype) ||
      (mtype != SILO_MTYPE_DIR_ELEM && mtype != SILO_MTYPE_FILE_ELEM))
    return object_oid;  // a link is its own element; an object the view does not hold has no name to mark
  int st = tvr_db_in_trans(0, [&] {
    uint32_t silo = 0;
    int st = tvr_db_silo_lookup(replica, &silo);
    if (st == 0) st = tvr_db_elem_get_ver(silo, dbid, &ver);
    return st;
  });
  tbs_oid_s oid = object_oid;
  if (st == 0 && !Tavrel_View_db::obj_dbid_to_oid(replica, ver, &oid)) oid = object_oid;
  return oid;
}

// ---- the end ------------------------------------------------------------------------------------------------------

bool Tavrel_View_db_listener::process_finished_scope(const tavrel_scope& scope, bool load) {
  Tavrel_Trace trace(TAVREL, kClass, "process_finished_scope");
  int st = is_auto_scope(scope) ? tavrel_db_end_def_scope(new_gn)
           : load              ? tavrel_db_end_lr_scope_load(scope.oid, new_gn)
                               : tavrel_db_end_lr_scope_update(scope.oid, new_gn);
  if (st != 0) return fail(agent_status(st), TVR_LIB_UPDATE_END_SCOPE, scope.name, db_text(st));
  return true;
}

bool Tavrel_View_db_listener::cleanup_deleted_load_rules() {
  Tavrel_Trace trace(TAVREL, kClass, "cleanup_deleted_load_rules");
  int failed = 0;
  for (const doomed_scope& d : doomed) {
    trace.writeTrace(TRACE_LEVEL_4, "Deleting load scope %s", d.scope.name);
    int st = Tavrel_View_db::delete_lr_scope(d.scope.oid);
    if (st != 0) {
      trace.writeTrace(TRACE_LEVEL_2, "Can't delete load scope %s = %d", d.scope.name, st);
      failed = st;
    }
  }
  if (failed != 0) trace.writeTrace(TRACE_LEVEL_2, "Can't cleanup load scopes marked for deletion %d", failed);
  return failed == 0;
}

bool Tavrel_View_db_listener::get_lr_metadata() {
  Tavrel_Trace trace(TAVREL, kClass, "get_lr_metadata");
  std::vector<tavrel_scope> scopes;
  if (Tavrel_View_db::get_scopes(Tavrel_View_db::ACTIVE_SCOPES, scopes) != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Can't get load scopes from db");
    return false;
  }
  int failed = 0;
  for (const tavrel_scope& s : scopes) {
    if (is_auto_scope(s)) continue;
    trace.writeTrace(TRACE_LEVEL_4, "Getting metadata for %s", s.name);
    Tavrel_Metadata md(s.name, false);
    int st = md.run();
    if (st != 0) {
      trace.writeTrace(TRACE_LEVEL_3, "Metadata failed with status %d", st);
      failed = st;
    }
  }
  if (failed != 0) trace.writeTrace(TRACE_LEVEL_3, "Can't get metadata for load scopes %d", failed);
  return failed == 0;
}

bool Tavrel_View_db_listener::end_operation() {
  Tavrel_Trace trace(TAVREL, kClass, "end_operation");
  if (stopping()) return false;
  std::vector<tbs_oid_s> closed;
  for (const auto& [scope, load] : finished_scopes) {
    // The automatic scope may come once per SILO; it is closed once.
    if (std::find(closed.begin(), closed.end(), scope.oid) != closed.end()) continue;
    closed.push_back(scope.oid);
    if (!process_finished_scope(scope, load)) return false;
  }
  // Names removed by the closing of the scopes may still stand in the caches.
  int st = Tavrel_Metadata::view_inval_view(ioctl(), 1, 1, 0);
  if (st != 0) trace.writeTrace(TRACE_LEVEL_3, "view invalidation gave %d", st);
  // Housekeeping: what fails here is traced, and is done again by the next update.
  cleanup_deleted_load_rules();
  get_lr_metadata();
  st = tavrel_db_set_vns_view_gn(new_gn);
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Can't end update operation: %s", db_text(st));
    return fail_text(agent_status(st), std::string("Can't end update operation: ") + db_text(st) + "\n");
  }
  Tavrel_View::set_current_gn(new_gn, false);
  Tavrel_Update::set_rpc_complete(true);
  for (const tbs_uuid_s& silo : m_silos)
    Tavrel_Update_Hijack::sweep(silo, update->get_hijack_treatment(), update->get_log(), ioctl());
  // The kernel has every invalidation of the update before the update is said to be over.
  ioctl()->drain();
  if (ioctl()->posted_failures() != 0)
    trace.writeTrace(TRACE_LEVEL_2, "%d kernel invalidations failed", ioctl()->posted_failures());
  return true;
}
