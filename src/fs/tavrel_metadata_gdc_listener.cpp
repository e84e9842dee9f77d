#include "fs/tavrel_metadata_gdc_listener.h"

#include <cstring>

#include "core/tavrel_log.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_view.h"
#include "fs/tavrel_metadata.h"
#include "fs/tavrel_view_db.h"
#include "wan/rclient_status.h"

Tavrel_Metadata_GDC_Listener::Tavrel_Metadata_GDC_Listener(const tbs_uuid_s& u, uint32_t d) : dbid(d), uuid(u) {}

Tavrel_Metadata_GDC_Listener::~Tavrel_Metadata_GDC_Listener() = default;

bool Tavrel_Metadata_GDC_Listener::mtype_acceptable(silo_mtype_t mtype) {
  return mtype == SILO_MTYPE_DIR_VER || mtype == SILO_MTYPE_FILE_VER || mtype == SILO_MTYPE_VER3 ||
         mtype == SILO_MTYPE_SYMLINK;
}

bool Tavrel_Metadata_GDC_Listener::process_dirent(tavrel_extended_dirent* entry) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata_GDC_Listener", "process_dirent");
  if (entry == nullptr) return false;
  const char* name = entry->dirent.name;
  if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) return true;
  const silo_mtype_t mtype = entry->obj.vstat.mtype;
  if (!mtype_acceptable(mtype)) {
    trace.writeTrace(TRACE_LEVEL_2, "%s: object mtype %d cannot stand under a name: listing refused", name, mtype);
    ++failed;
    if (status == 0) status = TAVREL_ST_FAILURE;
    return false;
  }
  tbs_oid_s scope_oid = TBS_OID_NULL;
  unsigned gn = 0;
  if (command == nullptr || command->get_obj_scope_info(scope_oid, gn) != 0) {
    scope_oid = TBS_OID_NULL;
    gn = 0;
  }
  Tavrel_Metadata::replace_vstat_values(entry->obj.vstat);
  Tavrel_Metadata::replace_vstat_values(entry->elem.vstat);
  uint32_t ver_dbid = 0, elem_dbid = 0;
  int st = Tavrel_View_db::add_db_entry(uuid, mtype, name, dbid, scope_oid, gn, 3, 0, entry->obj, entry->elem,
                                        &ver_dbid, &elem_dbid, 0);
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "storing '%s' in dbid %u failed: %d", name, dbid, st);
    ++failed;
    status = st;
    return true;
  }
  ++count;
  return true;
}

int Tavrel_Metadata::fetch_directory_contents(const tbs_uuid_s& uuid, uint32_t dbid, const tbs_oid_s& dir_oid,
                                              uint32_t* stored, int* listener_status, int* wan_status,
                                              std::string& message) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata", "fetch_directory_contents");
  *stored = 0;
  *listener_status = 0;
  *wan_status = 0;
  Tavrel_View* view = current_view();
  if (view == nullptr) return TAVREL_ST_FAILURE;
  Tavrel_Metadata_GDC_Listener listener(uuid, dbid);
  trace.writeTrace(TRACE_LEVEL_4, "Listener = %p", static_cast<void*>(&listener));
  Get_Directory_Contents cmd(view->get_view_uuid(), uuid, dir_oid, TBS_OID_NULL, &listener);
  listener.set_command(&cmd);
  *wan_status = cmd.run();
  int rpc_status = cmd.get_status_code();
  int st = cmd.check_rpc_status(Tavrel_Log::get_instance(view->get_storage_path()), message, rpc_status);
  *stored = listener.get_count();
  *listener_status = listener.get_status();
  return st;
}
