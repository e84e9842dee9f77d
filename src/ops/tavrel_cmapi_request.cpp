#include "ops/tavrel_cmapi_request.h"

#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_view.h"
#include "ops/tavrel_abstract_op.h"
#include "ops/tavrel_request_handler_base.h"

Tavrel_CMAPI_Request::Tavrel_CMAPI_Request(Tavrel_Request_Handler_Base* handler, const std::string& text)
    : Tavrel_Request(FOREGROUND), m_handler(handler), m_request(text) {}

Tavrel_CMAPI_Request::~Tavrel_CMAPI_Request() {
  delete m_op;
  if (m_handler) m_handler->remove_outstanding();
}

int Tavrel_CMAPI_Request::begin_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_CMAPI_Request", "begin_request");
  trace.writeTrace(TRACE_LEVEL_5, "Calling get_parent_request_handler()");
  if (!m_handler) {
    trace.writeTrace(TRACE_LEVEL_1, "Null get_parent_request_handler, giving up");
    return TAVREL_ST_INTERNAL;
  }
  int status = 0;
  std::string location = m_handler->get_view()->get_storage_path();
  Tavrel_AbstractOp* op = Tavrel_AbstractOp::create_xml_request_handler(m_request, location, &status);
  delete m_op;
  m_op = op;
  return status;
}

int Tavrel_CMAPI_Request::handle_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_CMAPI_Request", "handle_request");
  int status = begin_request();
  if (status != 0) return status;
  if (!m_op) {
    trace.writeTrace(TRACE_LEVEL_1, "No XML request handler available");
    return TAVREL_ST_INTERNAL;
  }
  trace.writeTrace(TRACE_LEVEL_4, "Calling request's process request");
  m_op->process_request();
  std::string response;
  m_op->get_response(response);
  if (trace.shouldTrace(TRACE_LEVEL_4))
    trace.writeTrace(TRACE_LEVEL_4, "Response string is %s", Tavrel_Trace::redact(response).c_str());
  m_handler->send_response(response);
  return m_op->get_status();
}

void Tavrel_CMAPI_Request::cancel_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_CMAPI_Request", "cancel_request");
  if (begin_request() != 0) return;
  std::string response;
  Tavrel_AbstractOp::get_shutdown_response(m_op, response);
  trace.writeTrace(TRACE_LEVEL_4, "Response string is %s", response.c_str());
  m_handler->send_response(response);
}
