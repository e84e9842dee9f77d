// Tavrel_GetMountedSiloList: the request "GetMountedSiloList", the tags of the SILOs in the view's
// mount table.
//
// Request: <GetMountedSiloList version="1" tx-id="..."/> (20021 and message 7 without version or tx-id).
// Answer: the envelope, and on success <mounted-silo-list> holding one <silo-tag> per mounted SILO in
// tag order; with none mounted the list is there and empty.
//
// The table is copied under Tavrel_Config's g_config_lock when the answer is built, so the list is one
// state of the table, never a mixture.
#pragma once

#include <string>

#include "ops/tavrel_abstract_op.h"

class Tavrel_GetMountedSiloList : public Tavrel_AbstractOp {
 public:
  static constexpr const char* MOUNTED_SILO_LIST = "mounted-silo-list";
  static constexpr const char* SILO_TAG = "silo-tag";

  Tavrel_GetMountedSiloList(const std::string& location, OlXmlDoc* doc) : Tavrel_AbstractOp(location, doc) {}

  void process_request() override;
  void get_response(std::string& response) override;
};
