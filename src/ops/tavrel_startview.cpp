#include "ops/tavrel_startview.h"

#include "base/fileutl.h"
#include "core/tavrel_config.h"
#include "core/tavrel_log.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "ops/tavrel_connect.h"
#include "core/tavrel_msg_table.h"
#include "ops/tavrel_server.h"

void Tavrel_Startview::parse_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Startview", "parse_request");
  OlXmlElem* root = parse_validate_request(0);
  if (!root) return;
  trace.writeTrace(TRACE_LEVEL_4, "Looking for server information");
  m_status = Tavrel_Server::parse_server_info(root, 1, 1);
}

void Tavrel_Startview::process_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Startview", "process_request");
  const std::string& location = m_view_location;
  trace.writeTrace(TRACE_LEVEL_4, "Checking if storage exists - %s", location.c_str());
  if (!fileutl_exists(location)) {
    m_status = TAVREL_ST_NO_STORAGE;
    return;
  }
  trace.writeTrace(TRACE_LEVEL_4, "Parsing request");
  parse_request();
  if (m_status != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Parse failed with %d", m_status);
    assign_message(TVR_LIB_PARSE_ERROR, location.c_str());
    return;
  }
  Tavrel_View* view = Tavrel_View::get_view_from_stg(location);
  if (!view) {
    m_status = TAVREL_ST_NO_OBJECT;
    append_message(TVR_LIB_OUT_OF_MEMORY);
    return;
  }
  trace.writeTrace(TRACE_LEVEL_4, "Starting view");
  if (!install_view(view)) m_kept_view.reset(view);  // no process view to hand it to (tests)
  m_status = view->start();
  trace.writeTrace(TRACE_LEVEL_4, "Status from start view = %d", m_status);
  m_status_message += view->get_status_message();
  trace.writeTrace(TRACE_LEVEL_4, "Status message from start view = %s", view->get_status_message().c_str());
  if (m_status != 0) return;

  Tavrel_Log* log = Tavrel_Log::get_instance(location);
  if (Tavrel_Config::get_instance()->remount_silos() != 0)
    log->write_log(TAVREL_LOG_WARN, &_tvr_lib_lib_msg_table, TVR_LIB_REMOUNT_FAILED);

  if (!Tavrel_Server::is_online()) return;
  std::string message;
  int st = Tavrel_Connect::connect_to_server(message, location);
  trace.writeTrace(TRACE_LEVEL_4, "Status from connect_to_server = %d", st);
  if (st != 0) {
    // The view starts offline; Connect brings it online later.
    trace.writeTrace(TRACE_LEVEL_2, "Login failed: %s", message.c_str());
    // The answer stays 0 and says nothing of it: the warning in the view's log is what tells that the
    // view runs offline (the command line shows it from there).
    log->write_log(TAVREL_LOG_WARN, &_tvr_lib_lib_msg_table, TVR_LIB_CANNOT_CONNECT, Tavrel_Server::get_url().c_str());
  }
}
