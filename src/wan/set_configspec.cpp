#include "wan/set_configspec.h"

#include <algorithm>

#include "core/tavrel_trace.h"
#include "proto/wan_names.h"
#include "wan/rclient_exceptions.h"
#include "wan/rclient_messages.h"

namespace {
const char* const kClass = "Set_ConfigSpec";
}

Set_ConfigSpec::Set_ConfigSpec(const tbs_uuid_s& uuid, const std::vector<std::string>& elem,
                               const std::vector<std::string>& load, bool force)
    : RClient_Abstract_Cmd(tavrel_wan::RPC_SET_CONFIG_SPEC, true), view_uuid(uuid), element_rules(elem),
      load_rules(load), force_update(force) {}

bool Set_ConfigSpec::sendable_rule(const std::string& rule) {
  size_t lf = rule.find('\n');
  return lf == std::string::npos || rule.find_first_not_of('\n', lf) == std::string::npos;
}

int Set_ConfigSpec::marshal_request(RClient_Request_Args*) {
  Tavrel_Trace trace(RCLIENT, kClass, "marshal_request");
  silo_tags.clear();
  current_operation_gn = view_gn = 0;
  have_view_info = false;
  m_reply_error = 0;
  m_reply_text.clear();
  if (tbs_uuid_is_null(view_uuid)) {
    trace.writeTrace(TRACE_LEVEL_2, "View not set");
    return RCLIENT_ST_MARSHAL;
  }
  for (const auto* rules : {&element_rules, &load_rules})
    for (const std::string& r : *rules)
      if (!sendable_rule(r)) {
        trace.writeTrace(TRACE_LEVEL_2, "Rule with an inner line feed cannot be sent: [%s]", r.c_str());
        return RCLIENT_ST_MARSHAL;
      }
  marshal_arg(tavrel_wan::ARG_VIEW_UUID, view_uuid);
  marshal_arg(tavrel_wan::ARG_NUM_ELEM_RULES, static_cast<unsigned int>(element_rules.size()));
  for (const std::string& r : element_rules) marshal_arg(tavrel_wan::ARG_ELEM_RULE, r);
  marshal_arg(tavrel_wan::ARG_NUM_LOAD_RULES, static_cast<unsigned int>(load_rules.size()));
  for (const std::string& r : load_rules) marshal_arg(tavrel_wan::ARG_LOAD_RULE, r);
  marshal_arg(tavrel_wan::ARG_FORCE_UPDATE, force_update);
  return 0;
}

int Set_ConfigSpec::unmarshal_response() {
  Tavrel_Trace trace(RCLIENT, kClass, "unmarshal_response");
  trace.writeTrace(TRACE_LEVEL_5, "Size of string buffer = %d", static_cast<int>(doc->response_size()));
  int rc = unmarshal_parts();
  if (m_reply_error == 0 && rc == 0 && status.code == 0 && !have_view_info) {
    // Without ViewInfo the view would take a generation number the server never gave.
    trace.writeTrace(TRACE_LEVEL_2, "Status 0 without ViewInfo");
    m_reply_text = "View information missing from the reply to the config spec change.\n";
    m_reply_error = RCLIENT_ST_MALFORMED_ITEM;
  }
  if (m_reply_error != 0) {
    if (status.message.find(m_reply_text) == std::string::npos) status.message += m_reply_text;
    return m_reply_error;
  }
  return rc;
}

void Set_ConfigSpec::malformed(const std::string& text) {
  m_reply_text = text;
  status.message += text;
  m_reply_error = RCLIENT_ST_MALFORMED_ITEM;
  throw RClient_Malformed_Response_Exception(RCLIENT_ST_MALFORMED_ITEM);
}

int Set_ConfigSpec::unmarshal_part(const std::string& content_id) {
  Tavrel_Trace trace(RCLIENT, kClass, "unmarshal_part");
  trace.writeTrace(TRACE_LEVEL_5, "Got content id = %s", content_id.c_str());
  if (content_id == tavrel_wan::PART_LOAD_RULE_SILO_TAG) {
    std::string tag = doc->get_part_item(tavrel_wan::ITEM_SILO_TAG);
    if (tag.empty()) malformed("Empty SILO tag in the reply to the config spec change.\n");
    if (std::find(silo_tags.begin(), silo_tags.end(), tag) == silo_tags.end()) {
      if (silo_tags.size() >= MAX_SILO_TAGS)
        malformed("More than " + std::to_string(MAX_SILO_TAGS) + " SILO tags in the reply to the config spec change.\n");
      silo_tags.push_back(tag);
    }
    trace.writeTrace(TRACE_LEVEL_4, "Load rule SILO tag = %s", tag.c_str());
  } else if (content_id == tavrel_wan::PART_VIEW_INFO) {
    unsigned int cur = 0, vgn = 0;
    try {
      unmarshal_item(tavrel_wan::ITEM_CURRENT_OPERATION_GN, cur);
      unmarshal_item(tavrel_wan::ITEM_VIEW_GN, vgn);
    } catch (RClient_Malformed_Response_Exception&) {
      malformed("Malformed view information in the reply to the config spec change.\n");
    }
    current_operation_gn = cur;
    view_gn = vgn;
    have_view_info = true;
    trace.writeTrace(TRACE_LEVEL_4, "Current operation GN = %u, view GN = %u", cur, vgn);
  }
  return 0;
}
