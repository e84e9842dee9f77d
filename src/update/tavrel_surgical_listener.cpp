#include "update/tavrel_surgical_listener.h"

#include "core/tavrel_log_update.h"
#include "core/tavrel_msg_table.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "fs/tavrel_metadata.h"
#include "kfsm/tavrel_kfsm_ioctl.h"
#include "update/tavrel_update.h"
#include "update/tavrel_update_cltxt_listener.h"

namespace {
const char* const kClass = "Tavrel_Surgical_Listener";
}

bool Tavrel_Surgical_Listener::begin_operation(unsigned int gn) {
  if (stopping()) return false;
  // No new generation: what is stored takes the view's current one, which the server sends.
  new_gn = gn;
  m_ioctl = std::make_unique<Tavrel_KFSM_Ioctl>(update->get_update_view());
  return true;
}

bool Tavrel_Surgical_Listener::begin_silo(const tbs_uuid_s&, const tbs_oid_s&) { return !stopping(); }

bool Tavrel_Surgical_Listener::begin_scope(const tavrel_scope& scope) {
  Tavrel_Trace trace(TAVREL, kClass, "begin_scope");
  trace.writeTrace(TRACE_LEVEL_2, "Unexpected begin_scope %s", scope.name);
  current_scope = scope;
  in_scope = true;
  return !stopping();
}

bool Tavrel_Surgical_Listener::end_scope() {
  Tavrel_Trace trace(TAVREL, kClass, "end_scope");
  trace.writeTrace(TRACE_LEVEL_2, "Unexpected end_scope");
  return fail(TAVREL_ST_INTERNAL, TVR_LIB_SURGICAL_END_SCOPE, in_scope ? current_scope.name : "");
}

bool Tavrel_Surgical_Listener::end_silo() { return !stopping(); }

bool Tavrel_Surgical_Listener::unload_object(const tbs_uuid_s&, const tbs_oid_s&, const std::string&,
                                             const tbs_oid_s&) {
  return !stopping();
}

bool Tavrel_Surgical_Listener::update_object(const tbs_uuid_s& replica_uuid, const tbs_oid_s& parent_oid,
                                             const std::string& path, const std::string& prev_version,
                                             const std::string& curr_version, const tavrel_vstat& obj,
                                             const tavrel_vstat& elem) {
  Tavrel_Trace trace(TAVREL, kClass, "update_object");
  if (stopping()) return false;
  if (tbs_oid_is_null(parent_oid)) {
    trace.writeTrace(TRACE_LEVEL_2, "bogus SILO root object?");
    trace.writeTrace(TRACE_LEVEL_2, "can't handle SILO root (yet?)");
    return fail(TAVREL_ST_FAILURE, TVR_LIB_UPDATE_SILO_ROOT, path.c_str());
  }
  std::string dir, leaf;
  split_path(path, dir, leaf);
  uint32_t parent_elem = 0, parent_ver = 0;
  std::string text;
  int st = Tavrel_Metadata::lookup_parent_dir(replica_uuid, parent_oid, path, &parent_elem, &parent_ver, text);
  if (st != 0) return fail_text(st, text);
  uint32_t ver_dbid = 0;
  // A surgical update flushes every path it was asked for, changed or not.
  st = store(replica_uuid, leaf, parent_ver, obj, elem, &ver_dbid, nullptr, text);
  if (st != 0) return fail(st, TVR_LIB_UPDATE_ADD, leaf.c_str(), tbs_oid_to_str(parent_oid).c_str(), text.c_str());
  if (Tavrel_Log_Update* log = update->get_log()) {
    const bool is_symlink = obj.vstat.mtype == SILO_MTYPE_SYMLINK;
    if (prev_version.empty())
      log->log_load(path, curr_version, is_symlink);
    else
      log->log_update(path, prev_version, curr_version, is_symlink);
  }
  flush(replica_uuid, obj.vstat.elem_oid, TBS_OID_NULL, parent_oid, leaf, path);
  m_applied++;
  if (Tavrel_Update_Cltxt_listener::has_cleartext(obj.vstat.mtype)) {
    st = Tavrel_Update_Cltxt_listener::queue_cleartext_fetch(replica_uuid, ver_dbid, obj, curr_version,
                                                            update->get_update_view(), update, text);
    if (st != 0) return fail_text(st, text);
  }
  return true;
}

bool Tavrel_Surgical_Listener::end_operation() {
  if (stopping()) return false;
  Tavrel_Update::set_rpc_complete(true);
  return true;
}
