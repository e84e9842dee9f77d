#include "wan/get_siloinfo.h"

#include "core/tavrel_trace.h"
#include "proto/wan_names.h"
#include "wan/rclient_exceptions.h"
#include "wan/rclient_messages.h"

namespace {
const char* const kClass = "Get_SILOInfo";
}

Get_SILOInfo::Get_SILOInfo(const std::string& tag) : RClient_Abstract_Cmd(tavrel_wan::RPC_GET_SILO_INFO, true), silo_tag(tag) {}

int Get_SILOInfo::marshal_request(RClient_Request_Args* args) {
  Tavrel_Trace trace(RCLIENT, kClass, "marshal_request");
  // A new attempt (the resend after a re-login) starts from nothing.
  family_uuid = TBS_UUID_NULL;
  replica_uuid = TBS_UUID_NULL;
  storage.clear();
  is_public = is_project = have_info = false;
  m_reply_error = 0;
  m_reply_text.clear();
  if (silo_tag.empty() || silo_tag.find_first_of("\r\n") != std::string::npos) {
    trace.writeTrace(TRACE_LEVEL_2, "SILO tag [%s] cannot be sent", silo_tag.c_str());
    return RCLIENT_ST_MARSHAL;
  }
  args->add_arg(tavrel_wan::ARG_SILO_TAG, silo_tag);
  return 0;
}

int Get_SILOInfo::unmarshal_response() {
  Tavrel_Trace trace(RCLIENT, kClass, "unmarshal_response");
  int rc = unmarshal_parts();
  if (m_reply_error == 0 && rc == 0 && status.code == 0 && !have_info) {
    // A success without the identity would mount null identities: refuse it.
    trace.writeTrace(TRACE_LEVEL_2, "Status 0 without SiloInfo for %s", silo_tag.c_str());
    m_reply_text = "SILO information missing from the reply for \"" + silo_tag + "\".\n";
    m_reply_error = RCLIENT_ST_MALFORMED_ITEM;
  }
  if (m_reply_error != 0) {
    // The server's message of a later Status part replaces the text; the reason must stay.
    if (status.message.find(m_reply_text) == std::string::npos) status.message += m_reply_text;
    return m_reply_error;
  }
  return rc;
}

int Get_SILOInfo::unmarshal_part(const std::string& content_id) {
  if (content_id == tavrel_wan::PART_SILO_INFO) unmarshal_siloinfo();
  return 0;
}

void Get_SILOInfo::malformed(const std::string& text) {
  m_reply_text = text;
  status.message += text;
  m_reply_error = RCLIENT_ST_MALFORMED_ITEM;
  throw RClient_Malformed_Response_Exception(RCLIENT_ST_MALFORMED_ITEM);
}

void Get_SILOInfo::unmarshal_siloinfo() {
  Tavrel_Trace trace(RCLIENT, kClass, "unmarshal_siloinfo");
  const std::string family = doc->get_part_item(tavrel_wan::ITEM_SILO_FAMILY_UUID);
  const std::string replica = doc->get_part_item(tavrel_wan::ITEM_SILO_REPLICA_UUID);
  const std::string store = doc->get_part_item(tavrel_wan::ITEM_SILO_STORAGE);
  const std::string pub = doc->get_part_item(tavrel_wan::ITEM_IS_PUBLIC);
  const std::string proj = doc->get_part_item(tavrel_wan::ITEM_IS_PROJECT);
  trace.writeTrace(TRACE_LEVEL_4, "Family = [%s], replica = [%s], storage = [%s], public = [%s], project = [%s]",
                   family.c_str(), replica.c_str(), store.c_str(), pub.c_str(), proj.c_str());
  if (family.empty()) malformed(rclient_msg(RCLIENT_MSG_FAMILY_OID, silo_tag.c_str()));
  if (replica.empty()) malformed(rclient_msg(RCLIENT_MSG_REPLICA_OID, silo_tag.c_str()));
  if (store.empty()) malformed(rclient_msg(RCLIENT_MSG_STORAGE, silo_tag.c_str()));
  tbs_uuid_s f, r;
  if (tbs_str_to_uuid(family, &f) != TBS_ST_OK || tbs_uuid_is_null(f))
    malformed(rclient_msg(RCLIENT_MSG_INVALID_OID, family.c_str()));
  if (tbs_str_to_uuid(replica, &r) != TBS_ST_OK || tbs_uuid_is_null(r))
    malformed(rclient_msg(RCLIENT_MSG_INVALID_OID, replica.c_str()));
  family_uuid = f;
  replica_uuid = r;
  storage = store;
  is_public = pub == "1";
  is_project = proj == "1";
  have_info = true;
}

SILO_mount_info Get_SILOInfo::to_mount_info() const {
  SILO_mount_info info;
  info.silo_tag = silo_tag;
  info.replica_uuid = replica_uuid;
  info.family_uuid = family_uuid;
  info.storage = storage;
  info.is_public = is_public;
  info.is_project_silo = is_project;
  return info;
}
