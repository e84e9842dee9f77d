// Tavrel_CMAPI_Request: one XML request of a client, queued in the foreground. Its operation is built
// on the pool thread that takes it; the answer goes back through the client's request handler. While
// the object lives it keeps its handler alive (the handler waits until all of its requests are gone).
#pragma once

#include <string>

#include "core/tavrel_olthread.h"

class Tavrel_AbstractOp;
class Tavrel_Request_Handler_Base;

class Tavrel_CMAPI_Request : public Tavrel_Request {
 public:
  Tavrel_CMAPI_Request(Tavrel_Request_Handler_Base* handler, const std::string& text);
  ~Tavrel_CMAPI_Request() override;

  // Builds the operation, runs it and sends its answer. A request for which no operation could be
  // built gets no answer (its status is returned).
  int handle_request() override;
  // Answers the request with 20026 and message 73 without running it (see
  // Tavrel_AbstractOp::get_shutdown_response), unless no operation could be built.
  void cancel_request() override;
  bool is_equivalent(const Tavrel_Request*) const override { return false; }
  std::string toString() const override { return m_request; }

  Tavrel_Request_Handler_Base* get_parent_request_handler() const { return m_handler; }

 private:
  int begin_request();

  Tavrel_Request_Handler_Base* m_handler;
  std::string m_request;
  Tavrel_AbstractOp* m_op = nullptr;  // owned
};
