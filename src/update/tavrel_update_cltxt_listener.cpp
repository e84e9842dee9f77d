#include "update/tavrel_update_cltxt_listener.h"

#include "cleartext/tavrel_cleartext.h"
#include "core/tavrel_msg_table.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_util.h"
#include "core/tavrel_view.h"
#include "proto/xdr_prim.h"
#include "update/tavrel_update.h"

Tavrel_Update_Cltxt_listener::Tavrel_Update_Cltxt_listener(Tavrel_Update* update) : m_update(update) {
  Tavrel_Update::add_blocking();
}

Tavrel_Update_Cltxt_listener::~Tavrel_Update_Cltxt_listener() { Tavrel_Update::remove_blocking(); }

void Tavrel_Update_Cltxt_listener::completed() {}

void Tavrel_Update_Cltxt_listener::failed(int status, std::string message) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Update_Cltxt_listener", "failed");
  trace.writeTrace(TRACE_LEVEL_2, "background cleartext failed (%d): %s", status, message.c_str());
  if (m_update) m_update->bg_error(status, message);
}

bool Tavrel_Update_Cltxt_listener::has_cleartext(silo_mtype_t mtype) {
  return mtype == SILO_MTYPE_FILE_VER || mtype == SILO_MTYPE_VER3;
}

int Tavrel_Update_Cltxt_listener::queue_cleartext_fetch(const tbs_uuid_s& replica, uint32_t dbid,
                                                        const tavrel_vstat& vstat, const std::string& version,
                                                        Tavrel_View* view, Tavrel_Update* update,
                                                        std::string& message) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Update_Cltxt_listener", "queue_cleartext_fetch");
  Tavrel_Cleartext cltxt(replica, dbid, vstat.vstat.obj_oid, view ? view->get_cltxt_cache_dir() : std::string(),
                         new Tavrel_Update_Cltxt_listener(update));
  int present = 0;
  int st = cltxt.getcleartext(present);
  if (st != 0) {
    std::string text;
    message += Tavrel_Util::format(text, &_tvr_lib_lib_msg_table, TVR_LIB_QUEUE_BG_CLTXT, version.c_str(),
                                   tbs_oid_to_str(vstat.vstat.obj_oid).c_str(), tbs_uuid_to_str(replica).c_str(), st);
    trace.writeTrace(TRACE_LEVEL_2, "%s", text.c_str());
  }
  return st;
}
