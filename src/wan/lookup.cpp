#include "wan/lookup.h"

#include "core/tavrel_trace.h"
#include "proto/wan_names.h"
#include "wan/get_metadata.h"
#include "wan/rclient_messages.h"

namespace {
const char* const kClass = "Lookup";
namespace n = tavrel_wan;
}  // namespace

Lookup::Lookup(const tbs_uuid_s& view, const tbs_uuid_s& silo, const tbs_oid_s& version, const tbs_oid_s& element,
               const std::string& l)
    : Metadata_Reply_Base(n::RPC_LOOKUP, true),
      view_uuid(view),
      silo_uuid(silo),
      version_oid(version),
      element_oid(element),
      leaf(l) {
  Tavrel_Trace trace(RCLIENT, kClass, "Lookup");
  if (trace.shouldTrace(TRACE_LEVEL_4))
    trace.writeTrace(TRACE_LEVEL_4, "Looking up '%s' in directory %s", leaf.c_str(),
                     tbs_oid_to_str(tbs_oid_is_null(version_oid) ? element_oid : version_oid).c_str());
  set_max_part_body(MAX_PART);
}

int Lookup::marshal_request(RClient_Request_Args*) {
  Tavrel_Trace trace(RCLIENT, kClass, "marshal_request");
  reset_metadata();  // a resend after a re-login parses its reply from nothing
  if (tbs_uuid_is_null(view_uuid) || leaf.empty() || leaf.find('/') != std::string::npos ||
      !metadata_arg_sendable(leaf, VIEW_NAME_MAX)) {
    trace.writeTrace(TRACE_LEVEL_2, "Cannot send: view %s, leaf [%s]", tbs_uuid_to_str(view_uuid).c_str(),
                     leaf.c_str());
    status.code = RCLIENT_ST_MARSHAL;
    return RCLIENT_ST_MARSHAL;
  }
  marshal_arg(n::ARG_VIEW_UUID, view_uuid);
  if (!tbs_uuid_is_null(silo_uuid)) marshal_arg(n::ARG_SILO_UUID, silo_uuid);
  if (!tbs_oid_is_null(version_oid)) marshal_arg(n::ARG_VERSION_OID, version_oid);
  if (!tbs_oid_is_null(element_oid))
    marshal_arg(n::ARG_ELEMENT_OID, element_oid);
  else
    marshal_arg(n::ARG_SILO_PATH_NAME, "");
  marshal_arg(n::ARG_LEAF_NAME, leaf);
  return 0;
}

int Lookup::run() {
  wan_status = metadata_reply_settle(RClient_Abstract_Cmd::run(), status, obj_vstat, elem_vstat, scope);
  return wan_status;
}
