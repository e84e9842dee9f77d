#include "core/tavrel_request_handler_thread.h"

#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_trace.h"

int Tavrel_Request_Handler_Thread::run() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Request_Handler_Thread", "pool_thread");
  Tavrel_Thread_Manager_Base* mgr = Tavrel_Thread_Manager_Base::get_instance();
  mgr->register_pool_thread(this);
  mgr->lock_mutex();
  for (;;) {
    Tavrel_Request* request = mgr->pop_request(true);
    if (request) {
      mgr->unlock_mutex();
      int status = TAVREL_ST_INTERNAL;
      try {
        status = request->handle_request();
      } catch (...) {
        // A request that throws past its own handling costs that request, not the pool thread.
        trace.writeTrace(TRACE_LEVEL_1, "request ended by an exception");
      }
      mgr->mark_idle(request);
      if (status == TAVREL_ST_VIEW_ENDING) {
        mgr->set_should_exit();
        delete request;
        break;
      }
      mgr->lock_mutex();
      delete request;
      continue;
    }
    if (mgr->should_exit()) {
      mgr->unlock_mutex();
      break;
    }
    mgr->cond_wait();
  }
  mgr->cleanup_thread(this, true);
  return 0;
}
