#include "wan/get_metadata.h"

#include <cstring>

#include "base/strutl.h"
#include "core/tavrel_trace.h"
#include "proto/wan_names.h"
#include "wan/rclient_messages.h"

namespace {
const char* const kClass = "Get_Metadata";
namespace n = tavrel_wan;
}  // namespace

bool metadata_mtype_acceptable(silo_mtype_t mtype) {
  switch (mtype) {
    case 2: case 3: case 5: case 6: case 7: case 8: case 9: case 11:
      return true;
    default:
      return false;
  }
}

int metadata_reply_check(const tavrel_vstat& obj, const tavrel_vstat& elem, std::string& why) {
  for (const auto& [rec, what] : {std::pair<const tavrel_vstat*, const char*>{&obj, "object"}, {&elem, "element"}}) {
    const silo_mtype_t mtype = rec->vstat.mtype;
    if (mtype == 0) {
      why = strutl_format("Reply without the %s metadata.\n", what);
      return RCLIENT_ST_MALFORMED_ITEM;
    }
    if (!metadata_mtype_acceptable(mtype)) {
      why = strutl_format("Unexpected mtype(%ld) in the %s metadata of the reply.\n", static_cast<long>(mtype), what);
      return TBS_ST_FAILURE;
    }
  }
  return 0;
}

int metadata_reply_settle(int wan, RClient_Status& status, tavrel_vstat& obj, tavrel_vstat& elem, tavrel_scope& scope) {
  if (status.code != 0 && status.code != -1) return wan;  // the server's refusal: the accessors say so
  std::string why;
  int rc = wan != 0 ? wan : metadata_reply_check(obj, elem, why);
  if (rc == 0) return 0;
  Tavrel_Trace trace(RCLIENT, "Metadata_Reply_Base", "metadata_reply_settle");
  trace.writeTrace(TRACE_LEVEL_2, "Reply refused (%d): %s", rc, why.c_str());
  std::memset(&obj, 0, sizeof obj);
  std::memset(&elem, 0, sizeof elem);
  std::memset(&scope, 0, sizeof scope);
  status.code = rc;
  status.message += why;
  return rc;
}

bool metadata_arg_sendable(const std::string& value, size_t max) {
  if (value.size() > max) return false;
  size_t lf = value.find('\n');
  return lf == std::string::npos || value.find_first_not_of('\n', lf) == std::string::npos;
}

Get_Metadata::Get_Metadata(const tbs_uuid_s& view, const tbs_uuid_s& silo, const tbs_oid_s& version,
                           const tbs_oid_s& element)
    : Metadata_Reply_Base(n::RPC_GET_METADATA, true),
      view_uuid(view),
      silo_uuid(silo),
      version_oid(version),
      element_oid(element) {
  set_max_part_body(MAX_PART);
}

Get_Metadata::Get_Metadata(const tbs_uuid_s& view, const std::string& p)
    : Metadata_Reply_Base(n::RPC_GET_METADATA, true), view_uuid(view), path(p), by_path(true) {
  set_max_part_body(MAX_PART);
}

int Get_Metadata::marshal_request(RClient_Request_Args*) {
  Tavrel_Trace trace(RCLIENT, kClass, "marshal_request");
  reset_metadata();  // a resend after a re-login parses its reply from nothing
  return marshal_object_args(view_uuid, silo_uuid, version_oid, element_oid, by_path, path);
}

int Get_Metadata::run() {
  wan_status = metadata_reply_settle(RClient_Abstract_Cmd::run(), status, obj_vstat, elem_vstat, scope);
  return wan_status;
}
