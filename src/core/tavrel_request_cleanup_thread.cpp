#include "core/tavrel_request_cleanup_thread.h"

#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_trace.h"

int Tavrel_Request_Cleanup_Thread::run() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Request_Cleanup_Thread", "run");
  Tavrel_Thread_Manager_Base* mgr = Tavrel_Thread_Manager_Base::get_instance();
  mgr->register_thread(this);
  mgr->do_cleanup(1);
  mgr->push_into_cleanup_queue(this);
  return 0;
}
