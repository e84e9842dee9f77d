#include "update/tavrel_load.h"

#include "core/tavrel_msg_table.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "ops/tavrel_tag.h"
#include "xml/ol_xml_elem.h"

int Tavrel_Load::parse_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Load", "parse_request");
  OlXmlElem* root = parse_validate_request(1);
  if (root == nullptr) return m_status;
  OlXmlElem* flags = root->extract_child(LOAD_FLAGS);
  if (flags == nullptr) {
    trace.writeTrace(TRACE_LEVEL_2, "No load flags");
    return fail(TAVREL_ST_MALFORMED, TVR_LIB_PARSE_ERROR, m_view_location.c_str());
  }
  const std::string treatment = flags->get_attr("hijack-treatment");
  if (!treatment.empty() && !Tavrel_Util::parse_hijack_treatment(treatment, m_hijack_treatment)) {
    trace.writeTrace(TRACE_LEVEL_2, "Illegal hijack treatment flag: %s", treatment.c_str());
    m_status_message += "Illegal hijack treatment flag: " + treatment + "\n";
    return fail(TAVREL_ST_MALFORMED, TVR_LIB_PARSE_ERROR, m_view_location.c_str());
  }
  m_preserve_times = flags->get_attr("ptime") == Tavrel_Tag::TRUE_STRING;
  return parse_path(root, true);
}

void Tavrel_Load::process_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Load", "process_request");
  parse_request();
}

void Tavrel_Load::get_response(std::string& response) { get_envelope_response(response); }
