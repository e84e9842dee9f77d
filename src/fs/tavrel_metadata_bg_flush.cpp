#include "fs/tavrel_metadata_bg_flush.h"

#include "core/tavrel_log.h"
#include "core/tavrel_msg_table.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_util.h"
#include "core/tavrel_view.h"
#include "fs/tavrel_metadata.h"
#include "kfsm/tavrel_kfsm_ioctl.h"
#include "ns/ns_fstat.h"
#include "proto/kfsm_status.h"

Tavrel_Metadata_BG_Flush::Tavrel_Metadata_BG_Flush(const tbs_uuid_s& u, const tbs_oid_s& o, int p)
    : Tavrel_Request(LOW_PRIORITY), uuid(u), oid(o), op(p) {}

Tavrel_Metadata_BG_Flush::~Tavrel_Metadata_BG_Flush() = default;

int Tavrel_Metadata_BG_Flush::handle_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata_BG_Flush", "handle_request");
  Tavrel_View* view = Tavrel_Metadata::current_view();
  Tavrel_KFSM_Ioctl ioctl(view);
  ns_fstat_flush(uuid, oid);
  int result = Tavrel_Metadata::view_inval_obj(&ioctl, uuid, oid, op, 1, 1, 0);
  trace.writeTrace(TRACE_LEVEL_4, "view_inval_obj result=%d", result);
  if (result != 0) {
    if (view != nullptr)
      Tavrel_Log::get_instance(view->get_storage_path())
          ->write_log(TAVREL_LOG_ERROR, &_tvr_lib_lib_msg_table, TVR_LIB_FLUSH_OID, tbs_oid_to_str(oid).c_str(),
                      tbs_uuid_to_str(uuid).c_str(), tbs_strerror(result));
    return Tavrel_Util::tbs_to_tavrel_status(result);
  }
  return 0;
}
