#include "wan/get_configspec.h"

#include "base/stg.h"
#include "core/tavrel_trace.h"
#include "proto/wan_names.h"
#include "wan/rclient_messages.h"

namespace {
const char* const kClass = "Get_Configspec";
}

Get_ConfigSpec::Get_ConfigSpec(const tbs_uuid_s& uuid)
    : RClient_Abstract_Cmd(tavrel_wan::RPC_GET_CONFIG_SPEC, true), view_uuid(uuid), send_freeze(false),
      freeze_load_scopes(false) {}

Get_ConfigSpec::Get_ConfigSpec(const tbs_uuid_s& uuid, bool freeze)
    : RClient_Abstract_Cmd(tavrel_wan::RPC_GET_CONFIG_SPEC, true), view_uuid(uuid), send_freeze(true),
      freeze_load_scopes(freeze) {}

int Get_ConfigSpec::marshal_request(RClient_Request_Args*) {
  Tavrel_Trace trace(RCLIENT, kClass, "marshal_request");
  elem_rules.clear();
  tkm_elem_rules.clear();
  load_rules.clear();
  frz_load_scopes.clear();
  m_reply_error = 0;
  if (tbs_uuid_is_null(view_uuid)) {
    trace.writeTrace(TRACE_LEVEL_2, "No view uuid");
    return RCLIENT_ST_MARSHAL;
  }
  marshal_arg(tavrel_wan::ARG_VIEW_UUID, view_uuid);
  if (send_freeze) marshal_arg(tavrel_wan::ARG_FREEZE_LOAD_SCOPES, freeze_load_scopes);
  return 0;
}

int Get_ConfigSpec::unmarshal_response() {
  int rc = unmarshal_parts();
  return m_reply_error != 0 ? m_reply_error : rc;
}

int Get_ConfigSpec::unmarshal_part(const std::string& content_id) {
  Tavrel_Trace trace(RCLIENT, kClass, "unmarshal_response");
  std::string* field = nullptr;
  const char* what = nullptr;
  if (content_id == tavrel_wan::PART_CSPEC_ELEMENT_RULES) {
    field = &elem_rules;
    what = "Got elem rules of len %d";
  } else if (content_id == tavrel_wan::PART_CSPEC_TKM_ELEMENT_RULES) {
    field = &tkm_elem_rules;
    what = "Got TKM elem rules of len %d";
  } else if (content_id == tavrel_wan::PART_CSPEC_LOAD_RULES) {
    field = &load_rules;
    what = "Got load rules of len %d";
  } else if (content_id == tavrel_wan::PART_CSPEC_FRZ_LOAD_SCOPES) {
    field = &frz_load_scopes;
    what = "Got freeze load scopes of len %d";
  } else {
    return 0;  // not ours: skipped
  }
  long length = 0;
  char* buffer = nullptr;
  int rc = parse_content_with_len(length, buffer);
  if (rc != 0) {
    // The part's headers are consumed; a later call would skip it and forget the failure.
    m_reply_error = rc;
    return rc;
  }
  field->assign(buffer, static_cast<size_t>(length));
  stg_free(buffer);
  trace.writeTrace(TRACE_LEVEL_4, what, static_cast<int>(length));
  if (field == &elem_rules) trace.writeTrace(TRACE_LEVEL_5, "Element rules = [%s]", elem_rules.c_str());
  if (field == &tkm_elem_rules) trace.writeTrace(TRACE_LEVEL_5, "TKM element rules = [%s]", tkm_elem_rules.c_str());
  return 0;
}
