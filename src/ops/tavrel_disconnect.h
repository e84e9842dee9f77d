// Tavrel_Disconnect: the request "Disconnect", which takes the view offline. Queued and running
// background work is let finish with the server first; then the session logs out.
//
// Request: <Disconnect version="1" tx-id="..."/>. Answer: the envelope; 0 also when already offline.
// Concurrency: Tavrel_Server::g_session_lock serialises Connect and Disconnect.
#pragma once

#include <string>

#include "ops/tavrel_abstract_op.h"

class Tavrel_Disconnect : public Tavrel_AbstractOp {
 public:
  Tavrel_Disconnect(const std::string& location, OlXmlDoc* doc) : Tavrel_AbstractOp(location, doc) {}

  void process_request() override;
  void get_response(std::string& response) override { get_envelope_response(response); }

  // Logs out (whatever the server answers) and marks the view offline.
  static void perform_disconnect();
};
