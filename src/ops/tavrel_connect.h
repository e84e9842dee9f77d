// Tavrel_Connect: the request "Connect", which brings a running view online with the credentials of
// its `server` element (URL and online attribute are ignored), and the login that MkView and
// StartView share.
//
// Request: <Connect version="1" tx-id="..."><server>...credentials...</server></Connect>
// Answer: the envelope. 20022 without a server element, or when the fields do not suffice
// (message 4); 20034 when the login fails (message 17 with the URL).
//
// Already online: nothing happens and the answer is 0; the running session keeps the credentials it
// logged in with (new ones are taken only with a login), so a later automatic re-login cannot be
// broken by a mistyped password.
//
// Concurrency: Tavrel_Server::g_session_lock serialises Connect and Disconnect.
#pragma once

#include <string>

#include "ops/tavrel_abstract_op.h"

class Tavrel_Connect : public Tavrel_AbstractOp {
 public:
  Tavrel_Connect(const std::string& location, OlXmlDoc* doc) : Tavrel_AbstractOp(location, doc) {}

  void process_request() override;
  void get_response(std::string& response) override { get_envelope_response(response); }

  // Logs in to the server with the process's server parameters. 0: online. 20022 when they do not
  // suffice (message 4 with `location` appended to `message`); 20034 when the login fails (the
  // command's text and message 17 with the URL appended; the view is then offline).
  static int connect_to_server(std::string& message, const std::string& location);

 private:
  void parse_request();
};
