#include "ops/tavrel_endview.h"

#include "base/imsg.h"
#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_view.h"
#include "kfsm/tavrel_kfsm_ioctl.h"
#include "ops/tavrel_mountsilo.h"
#include "core/tavrel_msg_table.h"
#include "ops/tavrel_server.h"
#include "proto/kfsm_status.h"
#include "wan/logout.h"

void Tavrel_Endview::process_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Endview", "process_request");
  if (!parse_validate_request(1)) return;
  perform_endview();
}

void Tavrel_Endview::get_response(std::string& response) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Endview", "get_response");
  OlXmlDoc doc;
  create_response_root(doc, m_status == TAVREL_ST_VIEW_ENDING ? 0 : m_status);
  finish_response(doc, response);
}

int Tavrel_Endview::perform_endview() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Endview", "perform_endview");
  if (get_view() != 0) return m_status;
  Tavrel_Thread_Manager_Base* mgr = Tavrel_Thread_Manager_Base::get_instance();
  if (!mgr) {
    trace.writeTrace(TRACE_LEVEL_3, "Cannot find thread manager to shut down?");
    return m_status = TAVREL_ST_INTERNAL;
  }
  if (m_forced) {
    Tavrel_View::abort_update();
    Tavrel_View::wait_for_finished_update();
  }
  m_status = unmount_silos();
  if (!m_forced && m_status != 0) return m_status;  // the view stays up

  int cleanup = m_view->cleanup();
  trace.writeTrace(TRACE_LEVEL_4, "Status from cleanup = %d", cleanup);
  if (m_status != 0) {
    // Forced, with SILOs that would not let go: the view is no longer registered, but what was
    // unmounted is mounted again and the process goes on.
    append_message(TVR_LIB_KFSM_UNREGISTER, tbs_strerror(cleanup));
    remount_silos();
    m_status = Tavrel_View::tbs_to_tavrel_status(cleanup);
    return m_status;
  }

  mgr->set_should_exit();
  mgr->drain_incomplete();
  if (Tavrel_Server::is_online()) {
    trace.writeTrace(TRACE_LEVEL_4, "Logout from server.");
    Logout logout;
    logout.run();
  }
  mgr->wait_for_terminate();
  return m_status = TAVREL_ST_VIEW_ENDING;
}

int Tavrel_Endview::unmount_silos() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Endview", "unmount_silos");
  if (!m_view && get_view() != 0) return m_status;
  Tavrel_KFSM_Ioctl ioctl(m_view);
  int status = 0;
  for (const SILO_mount_info& e : Tavrel_Config::get_instance()->get_mounted_silos()) {
    const tbs_oid_s replica = Tavrel_Mountsilo::as_oid(e.replica_uuid);
    int error = 0;
    int st = ioctl.umount_silo(e.silo_tag, replica, &error);
    if (error == TBS_ST_BUSY) {
      trace.writeTrace(TRACE_LEVEL_3, "EBUSY, sleeping");
      Tavrel_Mountsilo::pause_seconds(BUSY_RETRY_SECONDS);
      st = ioctl.umount_silo(e.silo_tag, replica, &error);
      trace.writeTrace(TRACE_LEVEL_3, "after EBUSY: %d (%d)", st, error);
    }
    // A module that no longer knows the view (a forced end unregistered it) holds none of its SILOs.
    if (error == TBS_ST_NOT_FOUND) st = TAVREL_ST_NOT_MOUNTED;
    if (st == 0 || st == TAVREL_ST_NOT_MOUNTED) {
      append_message(TVR_LIB_UNMOUNTED, e.silo_tag.c_str());
      trace.writeTrace(TRACE_LEVEL_3, "Unmounted %s", e.silo_tag.c_str());
      m_unmounted.push_back(e);
      continue;
    }
    append_message(TVR_LIB_UNMOUNT_FAILED, e.silo_tag.c_str(), tbs_strerror(error));
    trace.writeTrace(TRACE_LEVEL_1, "Unmount failed for %s: %s", e.silo_tag.c_str(), tbs_strerror(error));
    status = st;
    // Also to the view's log (through the message redirection), since a forced end has no client.
    imsg_print(IMSG_ERR, "%s",
               imsg_format(&_tvr_lib_lib_msg_table, TVR_LIB_UNMOUNT_FAILED, e.silo_tag.c_str(), tbs_strerror(error))
                   .c_str());
  }
  if (status != 0) {
    append_message(TVR_LIB_UNMOUNT_INCOMPLETE);
    int remount = remount_silos();
    if (remount != 0) status = remount;
  }
  return status;
}

int Tavrel_Endview::remount_silos() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Endview", "remount_silos");
  Tavrel_KFSM_Ioctl ioctl(m_view);
  int result = 0;
  for (const SILO_mount_info& e : m_unmounted) {
    int st = ioctl.mount_silo(e.silo_tag, e.storage, Tavrel_Mountsilo::as_oid(e.replica_uuid),
                              Tavrel_Mountsilo::as_oid(e.family_uuid));
    if (st == TAVREL_ST_ALREADY_MOUNTED) st = 0;
    trace.writeTrace(TRACE_LEVEL_3, "Remount %s: %d", e.silo_tag.c_str(), st);
    if (st == 0) {
      append_message(TVR_LIB_REMOUNTED, e.silo_tag.c_str());
    } else {
      append_message(TVR_LIB_REMOUNT_STATUS, e.silo_tag.c_str(), st);
      m_status = result = st;
    }
  }
  return result;
}
