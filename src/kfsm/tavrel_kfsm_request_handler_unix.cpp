#include "kfsm/tavrel_kfsm_request_handler_unix.h"

#include <cstdlib>
#include <string>

#include "base/imsg.h"
#include "core/tavrel_config.h"
#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_msg_table.h"
#include "kfsm/libkfsm.h"
#include "kfsm/tavrel_kfsm_thread_unix.h"
#include "proto/kfsm_status.h"

namespace {

// tavrelNumKfsm, default 5, held to 0..MAX_KFSM_THREADS.
long num_kfsm_threads() {
  long n = Tavrel_Config::get_instance()->get_int_param(Tavrel_Config::NUM_KFSM_THREADS, 5);
  if (n < 0) return 0;
  return n > Tavrel_KFSM_Request_Handler_Unix::MAX_KFSM_THREADS ? Tavrel_KFSM_Request_Handler_Unix::MAX_KFSM_THREADS : n;
}

}  // namespace

int Tavrel_KFSM_Request_Handler_Unix::start_listening() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Request_Handler_Unix", "start_listening");
  const std::string tag = get_view_tag();
  if (tag.empty()) {
    trace.writeTrace(TRACE_LEVEL_1, "No view registered: no KFSM threads started");
    return TAVREL_ST_FAILURE;
  }
  Tavrel_Thread_Manager_Base* mgr = Tavrel_Thread_Manager_Base::get_instance();
  kfsm_set_wakeup_fd(mgr->shutdown_read_fd());
  trace.writeTrace(TRACE_LEVEL_2, "Starting %d KFSM request handler threads.", static_cast<int>(num_kfsm_threads()));
  for (long i = 0; i < num_kfsm_threads(); i++) {
    auto* thread = new Tavrel_KFSM_Thread_Unix(tag, *mgr);
    int err = 0;
    if (!thread->open_handle(&err))
      imsg_print(IMSG_ERR, "%s", imsg_format(&_tvr_base_msg_table, TVR_BASE_MSG_CALL_FAILED,
                                             "kfsm_view_root_open_type", tbs_strerror(err)).c_str());
    trace.writeTrace(TRACE_LEVEL_4, "Created KFSM thread %d", static_cast<int>(i));
    mgr->start_op(thread);
  }
  return 0;
}

int Tavrel_KFSM_Request_Handler_Unix::stop_listening() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Request_Handler_Unix", "stop_listening");
  trace.writeTrace(TRACE_LEVEL_3, "Stop listening: the LPC threads end when the module lets them go");
  return 0;
}
