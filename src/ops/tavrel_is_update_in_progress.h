// Tavrel_IsUpdateInProgress: the request "IsUpdateInProgress", a cheap question that clients also use
// to see that the view answers.
//
// Request: <IsUpdateInProgress version="1" tx-id="..."/>.
// Answer: the envelope with <is-update-in-progress>true|false</is-update-in-progress>, asked of the
// update gate when the answer is built.
#pragma once

#include <string>

#include "ops/tavrel_abstract_op.h"

class Tavrel_IsUpdateInProgress : public Tavrel_AbstractOp {
 public:
  static constexpr const char* IS_UPDATE_IN_PROGRESS = "is-update-in-progress";

  Tavrel_IsUpdateInProgress(const std::string& location, OlXmlDoc* doc) : Tavrel_AbstractOp(location, doc) {}

  void process_request() override;
  void get_response(std::string& response) override;
};
