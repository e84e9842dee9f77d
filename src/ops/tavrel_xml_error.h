// Tavrel_XMLError: the answer to a request holding characters that the agent's native character set
// cannot carry. Status 20057; answer: root "XMLError", the tx-id found by text search in the raw
// request, status-code 20057 and status-message = message 7 with the view location.
#pragma once

#include <string>

#include "ops/tavrel_abstract_op.h"

class Tavrel_XMLError : public Tavrel_AbstractOp {
 public:
  Tavrel_XMLError(const std::string& location, const std::string& request);

  void process_request() override;
  void get_response(std::string& response) override;

 private:
  void parse_request();
};
