#include "ops/tavrel_cmapi_request.h"

#include <exception>

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
  std::string response;
  status = 0;
  try {
    m_op->process_request();
    m_op->get_response(response);
    status = m_op->get_status();
  } catch (const std::exception& e) {
    // Whatever went wrong inside the operation, this client gets an answer and the agent goes on.
    trace.writeTrace(TRACE_LEVEL_1, "Operation ended by an exception: %s", e.what());
    status = TAVREL_ST_INTERNAL;
    response = Tavrel_AbstractOp::make_status_response(m_op->get_request_name(), m_op->get_txid(), status,
                                                       std::string("Internal error: ") + e.what() + "\n");
  } catch (...) {
    trace.writeTrace(TRACE_LEVEL_1, "Operation ended by an exception");
    status = TAVREL_ST_INTERNAL;
    response = Tavrel_AbstractOp::make_status_response(m_op->get_request_name(), m_op->get_txid(), status,
                                                       "Internal error\n");
  }
  if (trace.shouldTrace(TRACE_LEVEL_4))
    trace.writeTrace(TRACE_LEVEL_4, "Response string is %s", Tavrel_Trace::redact(response).c_str());
  m_handler->send_response(response);
  return status;
}

void Tavrel_CMAPI_Request::cancel_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_CMAPI_Request", "cancel_request");
  if (begin_request() != 0) return;
  std::string response;
  Tavrel_AbstractOp::get_shutdown_response(m_op, response);
  trace.writeTrace(TRACE_LEVEL_4, "Response string is %s", response.c_str());
  m_handler->send_response(response);
}
