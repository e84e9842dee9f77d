#include "ops/tavrel_silo_tag_op.h"

#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_msg_table.h"
#include "ops/tavrel_tag.h"
#include "xml/ol_xml_elem.h"

bool Tavrel_SiloTagOp::table_can_hold(const std::string& tag) {
  return !tag.empty() && tag.find_first_of("=\r\n") == std::string::npos;
}

OlXmlElem* Tavrel_SiloTagOp::parse_silo_tag() {
  Tavrel_Trace trace(TAVREL, "Tavrel_SiloTagOp", "parse_silo_tag");
  OlXmlElem* root = parse_validate_request(1);
  if (!root) return nullptr;
  OlXmlElem* tag = root->extract_child(SILO_TAG);
  if (!tag || tag->get_value().empty()) {
    trace.writeTrace(TRACE_LEVEL_2, "No silo_tag");
    fail(TAVREL_ST_MALFORMED, TVR_LIB_PARSE_ERROR, m_view_location.c_str());
    return nullptr;
  }
  if (!table_can_hold(tag->get_value())) {
    trace.writeTrace(TRACE_LEVEL_2, "silo_tag holds \"=\" or a line end");
    fail(TAVREL_ST_MALFORMED, TVR_LIB_PARSE_ERROR, m_view_location.c_str());
    return nullptr;
  }
  m_silo_tag = tag->get_value();
  trace.writeTrace(TRACE_LEVEL_4, "silo_tag %s", m_silo_tag.c_str());
  return tag;
}

void Tavrel_SiloTagOp::get_boolean_response(const char* name, bool value, std::string& response) {
  Tavrel_Trace trace(TAVREL, "Tavrel_SiloTagOp", "get_response");
  OlXmlDoc doc;
  if (create_response_root(doc) == 0 && m_status == 0)
    doc.add_elem(name, value ? Tavrel_Tag::TRUE_STRING : Tavrel_Tag::FALSE_STRING);
  finish_response(doc, response);
}
