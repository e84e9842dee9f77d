#include "ops/tavrel_xml_error.h"

#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_msg_table.h"
#include "ops/tavrel_tag.h"

Tavrel_XMLError::Tavrel_XMLError(const std::string& location, const std::string& request)
    : Tavrel_AbstractOp(Tavrel_Tag::XMLERROR, location) {
  m_status = TAVREL_ST_ENCODING;
  get_txid(request, m_txid_guess);
}

void Tavrel_XMLError::parse_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_XMLError", "parse_request");
  m_txid = m_txid_guess;
  trace.writeTrace(TRACE_LEVEL_2, "Did not get request_doc, best guess tx-id='%s'", m_txid.c_str());
}

void Tavrel_XMLError::process_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_XMLError", "process_request");
  parse_request();
}

void Tavrel_XMLError::get_response(std::string& response) {
  Tavrel_Trace trace(TAVREL, "Tavrel_XMLError", "get_response");
  assign_message(TVR_LIB_PARSE_ERROR, m_view_location.c_str());
  OlXmlDoc doc;
  create_response_root(doc);
  finish_response(doc, response);
}
