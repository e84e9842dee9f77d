#include "ops/tavrel_unknown.h"

#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_msg_table.h"
#include "ops/tavrel_tag.h"
#include "xml/ol_xml_elem.h"

Tavrel_Unknown::Tavrel_Unknown(const std::string& location, OlXmlDoc* doc, const std::string& request)
    : Tavrel_AbstractOp(location, doc) {
  m_request_name = Tavrel_Tag::XMLERROR;
  if (!m_request_doc) get_txid(request, m_txid_guess);
}

void Tavrel_Unknown::parse_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Unknown", "parse_request");
  if (!m_request_doc) {
    m_txid = m_txid_guess;
    trace.writeTrace(TRACE_LEVEL_2, "Did not get request_doc, best guess tx-id='%s'", m_txid.c_str());
    m_status = TAVREL_ST_MALFORMED;
    return;
  }
  OlXmlElem* root = m_request_doc->get_root();
  if (!root) {
    trace.writeTrace(TRACE_LEVEL_2, "Could not get root element");
    m_status = TAVREL_ST_MALFORMED;
    return;
  }
  m_txid = root->get_attr(Tavrel_Tag::TRANS_ID);
  if (m_txid.empty()) {
    trace.writeTrace(TRACE_LEVEL_2, "Transaction id not specified");
    m_status = TAVREL_ST_MALFORMED;
  }
}

void Tavrel_Unknown::process_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Unknown", "process_request");
  parse_request();
}

void Tavrel_Unknown::get_response(std::string& response) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Unknown", "get_response");
  if (m_request_doc)
    assign_message(TVR_LIB_UNRECOGNIZED_IPC, m_request_name.c_str());
  else
    assign_message(TVR_LIB_PARSE_ERROR, m_view_location.c_str());
  OlXmlDoc doc;
  create_response_root(doc, TAVREL_ST_UNRECOGNIZED);
  finish_response(doc, response);
}
