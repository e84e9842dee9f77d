#include "wan/metadata_reply_base.h"

#include <cstring>

#include "base/stg.h"
#include "core/tavrel_trace.h"
#include "proto/wan_names.h"
#include "wan/get_metadata.h"  // metadata_arg_sendable
#include "wan/rclient_messages.h"

namespace {
const char* const kClass = "Metadata_Reply_Base";
}

Metadata_Reply_Base::Metadata_Reply_Base(const std::string& id, bool retry) : RClient_Abstract_Cmd(id, retry) {
  reset_metadata();
}

void Metadata_Reply_Base::reset_metadata() {
  std::memset(&obj_vstat, 0, sizeof obj_vstat);
  std::memset(&elem_vstat, 0, sizeof elem_vstat);
  std::memset(&scope, 0, sizeof scope);
  m_reply_error = 0;
}

int Metadata_Reply_Base::unmarshal_response() {
  int rc = unmarshal_parts();
  return m_reply_error != 0 ? m_reply_error : rc;
}

int Metadata_Reply_Base::unmarshal_part(const std::string& content_id) { return parse_any_metadata(content_id); }

int Metadata_Reply_Base::decode_scope(tavrel_scope& out, long length, const char* data) {
  return tavrel_scope_decode(&out, static_cast<unsigned>(length), data);
}

int Metadata_Reply_Base::decode_vstat(tavrel_vstat& out, long length, const char* data) {
  return tavrel_vstat_decode(&out, static_cast<unsigned>(length), data);
}

int Metadata_Reply_Base::parse_any_metadata(const std::string& part_id) {
  Tavrel_Trace trace(RCLIENT, kClass, "parse_any_metadata");
  trace.writeTrace(TRACE_LEVEL_5, "parsing partid '%s'", part_id.c_str());
  enum { SCOPE, OBJ, ELEM } kind;
  if (part_id == tavrel_wan::PART_OBJ_SCOPE)
    kind = SCOPE;
  else if (part_id == tavrel_wan::PART_OBJ_METADATA)
    kind = OBJ;
  else if (part_id == tavrel_wan::PART_ELEM_METADATA)
    kind = ELEM;
  else
    return 0;
  long length = 0;
  char* data = nullptr;
  int rc = parse_content_with_len(length, data);
  if (rc == 0) {
    // A failed decode zeroes the field: no half-read record is left behind.
    rc = kind == SCOPE ? decode_scope(scope, length, data)
                       : decode_vstat(kind == OBJ ? obj_vstat : elem_vstat, length, data);
    stg_free(data);
  }
  if (rc != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Part '%s' of %ld bytes refused: %d", part_id.c_str(), length, rc);
    if (m_reply_error == 0) m_reply_error = rc;
  }
  return rc;
}

int Metadata_Reply_Base::get_obj_tavrel_vstat(tavrel_vstat& out) const {
  if (status.code != 0 && status.code != -1) {
    std::memset(&out, 0, sizeof out);
    return status.code;
  }
  out = obj_vstat;
  return 0;
}

int Metadata_Reply_Base::get_elem_tavrel_vstat(tavrel_vstat& out) const {
  if (status.code != 0 && status.code != -1) {
    std::memset(&out, 0, sizeof out);
    return status.code;
  }
  out = elem_vstat;
  return 0;
}

int Metadata_Reply_Base::get_obj_scope_info(tbs_oid_s& oid, unsigned int& gn) const {
  if (status.code != 0 && status.code != -1) {
    oid = TBS_OID_NULL;
    gn = 0;
    return status.code;
  }
  oid = scope.oid;
  gn = scope.gn;
  return 0;
}

int Metadata_Reply_Base::marshal_object_args(const tbs_uuid_s& view_uuid, const tbs_uuid_s& silo_uuid,
                                             const tbs_oid_s& version_oid, const tbs_oid_s& element_oid, bool by_path,
                                             const std::string& path) {
  namespace n = tavrel_wan;
  Tavrel_Trace trace(RCLIENT, kClass, "marshal_object_args");
  if (tbs_uuid_is_null(view_uuid) || !metadata_arg_sendable(path, TBS_PNAME_MAX)) {
    trace.writeTrace(TRACE_LEVEL_2, "Cannot send: view %s, path [%s]", tbs_uuid_to_str(view_uuid).c_str(),
                     path.c_str());
    status.code = RCLIENT_ST_MARSHAL;
    return RCLIENT_ST_MARSHAL;
  }
  marshal_arg(n::ARG_VIEW_UUID, view_uuid);
  if (!by_path) {
    if (!tbs_uuid_is_null(silo_uuid)) marshal_arg(n::ARG_SILO_UUID, silo_uuid);
    if (!tbs_oid_is_null(version_oid)) marshal_arg(n::ARG_VERSION_OID, version_oid);
    if (!tbs_oid_is_null(element_oid)) {
      marshal_arg(n::ARG_ELEMENT_OID, element_oid);
      return 0;
    }
  }
  marshal_arg(n::ARG_PATH_NAME, path);
  return 0;
}
