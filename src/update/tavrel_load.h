// Tavrel_Load: the request "Load", which names a further path to load. It is validated only and
// changes nothing: load rules are set with the config spec.
//
// Request: <Load version="1" tx-id="..."><load-flags hijack-treatment="..." ptime="true"/><path>P</path>
// </Load>. "load-flags" is required (20021, message 7, trace "No load flags"); a hijack treatment other
// than keep, overwrite and rename gives 20021; "path" is required (20021, message 27).
// Answer: the envelope.
#pragma once

#include <string>

#include "core/tavrel_util.h"
#include "ops/tavrel_abstract_op.h"

class Tavrel_Load : public Tavrel_AbstractOp {
 public:
  static constexpr const char* LOAD_FLAGS = "load-flags";

  Tavrel_Load(const std::string& location, OlXmlDoc* doc) : Tavrel_AbstractOp(location, doc) {}

  void process_request() override;
  void get_response(std::string& response) override;
  int parse_request();

  HijackTreatment get_hijack_treatment() const { return m_hijack_treatment; }
  bool get_preserve_times() const { return m_preserve_times; }
  const std::string& get_load_path() const { return m_path; }

 private:
  HijackTreatment m_hijack_treatment = HIJACK_TREATMENT_KEEP;
  bool m_preserve_times = false;
};
