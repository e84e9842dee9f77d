// Tavrel_IsProjectSilo: the request "IsProjectSilo", whether a mounted SILO is a project SILO.
//
// Request: <IsProjectSilo version="1" tx-id="..."><silo-tag>TAG</silo-tag></IsProjectSilo> (see Tavrel_SiloTagOp for
// the refusals, 20021 with message 7).
// Answer: the envelope, and on success <is-project-silo>true|false</is-project-silo>. A tag that is not in the mount
// table answers "false" with status 0.
//
// Reads the mount table through Tavrel_Config (under its g_config_lock) once, in process_request.
#pragma once

#include <string>

#include "ops/tavrel_silo_tag_op.h"

class Tavrel_IsProjectSilo : public Tavrel_SiloTagOp {
 public:
  static constexpr const char* ANSWER = "is-project-silo";

  Tavrel_IsProjectSilo(const std::string& location, OlXmlDoc* doc) : Tavrel_SiloTagOp(location, doc) {}

  void process_request() override;
  void get_response(std::string& response) override { get_boolean_response(ANSWER, m_answer, response); }

 private:
  bool m_answer = false;
};
