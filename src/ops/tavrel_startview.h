// Tavrel_Startview: the request "StartView", the first request of an agent that opens an existing
// view.
//
// Request (tx-id optional): <StartView version="1"><server online="true|false">...</server></StartView>
//
// Steps: the storage must exist (20023); parse the server element (20021 with message 7 when it is
// missing or its online attribute is neither "true", "false" nor empty); open the view
// (Tavrel_View::start: storage checks, metadata, host, view lock, cache, database, kernel
// registration; its status and messages are the answer's); install it; mount again the SILOs of the
// mount table (a failure is logged as a warning, message 23, and the answer stays 0); online: log in.
// A failed login is logged as a warning (message 17 with the URL) and the view starts offline with
// answer 0 and nothing added to the answer; the view's log is where a client finds the warning, and
// `Connect` brings the view online later. A failed StartView leaves the storage untouched.
#pragma once

#include <memory>
#include <string>

#include "core/tavrel_view.h"
#include "ops/tavrel_abstract_op.h"

class Tavrel_Startview : public Tavrel_AbstractOp {
 public:
  Tavrel_Startview(const std::string& location, OlXmlDoc* doc) : Tavrel_AbstractOp(location, doc) {}

  void process_request() override;
  void get_response(std::string& response) override { get_envelope_response(response); }

 private:
  void parse_request();

  std::unique_ptr<Tavrel_View> m_kept_view;
};
