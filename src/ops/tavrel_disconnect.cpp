#include "ops/tavrel_disconnect.h"

#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_trace.h"
#include "ops/tavrel_server.h"
#include "wan/logout.h"
#include "wan/rclient_session.h"

void Tavrel_Disconnect::perform_disconnect() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Disconnect", "perform_disconnect");
  Logout logout;
  logout.run();
  trace.writeTrace(TRACE_LEVEL_4, "Logout status %d", static_cast<int>(logout.get_status_code()));
  Tavrel_Server::set_online(false);
  RClient_Session::get_session()->flush_curl_handles();
}

void Tavrel_Disconnect::process_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Disconnect", "process_request");
  if (!parse_validate_request(1)) return;
  std::lock_guard<Tavrel_Mutex> g(Tavrel_Server::g_session_lock);
  if (!Tavrel_Server::is_online()) {
    trace.writeTrace(TRACE_LEVEL_4, "Server is already offline!");
    return;
  }
  Tavrel_Thread_Manager_Base::get_instance()->wait_for_background();
  perform_disconnect();
}
