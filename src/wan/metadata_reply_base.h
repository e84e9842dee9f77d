// Metadata_Reply_Base: the base of the commands whose replies carry object metadata as binary parts,
// each an XDR record of proto/tavrel_records.h whose length is the part's Content-Length:
//
//   "Xdr_ObjScope"      tavrel_scope   the load scope the object lies in    -> scope
//   "Xdr_ObjMetadata"   tavrel_vstat   the object (version or link)        -> obj_vstat
//   "Xdr_ElemMetadata"  tavrel_vstat   its element                          -> elem_vstat
//
// The fields hold the latest decoded record of each kind (zero until one arrives). Other parts are
// skipped; "Status" ends the reply as everywhere.
//
// A record that does not decode is a fault of the reply that more data cannot mend: its part is
// consumed, so the fault is kept (reply_error()) and stands as the command's result for the rest of
// the transfer. Its code is the decoder's (1001 for a malformed record).
//
// Not thread-safe: a command belongs to one thread.
#pragma once

#include <string>

#include "proto/tavrel_records.h"
#include "wan/rclient_abstract_cmd.h"

class Metadata_Reply_Base : public RClient_Abstract_Cmd {
 public:
  Metadata_Reply_Base(const std::string& rpc_id, bool retry_on_auth);

  // The skeleton of every command: parts in order through parse_any_metadata, then Status.
  int unmarshal_response() override;

  // When the RPC's status code is neither 0 nor -1 (no Status part): `out` zeroed and the status code
  // returned; otherwise the record copied and 0.
  int get_obj_tavrel_vstat(tavrel_vstat& out) const;
  int get_elem_tavrel_vstat(tavrel_vstat& out) const;
  // The same rule; on failure `oid` is null and `gn` 0.
  int get_obj_scope_info(tbs_oid_s& oid, unsigned int& gn) const;

  static int decode_scope(tavrel_scope& out, long length, const char* data);
  static int decode_vstat(tavrel_vstat& out, long length, const char* data);

  // Takes the body of the current part when `part_id` is one of the three record parts and decodes it
  // into its field: 0, the decoder's result, or parse_content_with_len's. Any other id gives 0.
  // Throws RClient_Premature_EOF_Exception when the body has not fully arrived.
  int parse_any_metadata(const std::string& part_id);

  // The first fault of the reply that this command found (0 when none).
  int reply_error() const { return m_reply_error; }

 protected:
  int unmarshal_part(const std::string& content_id) override;
  // Starts a new attempt: records zeroed, no fault.
  void reset_metadata();
  // The arguments that name one object: "ViewUuid", then by path "PathName", else "SiloUuid" and
  // "VersionOid" when not null and "ElementOid", or "PathName" when that is null. A null view or a
  // path that cannot travel sends nothing and gives RCLIENT_ST_MARSHAL (also set as the status code).
  int marshal_object_args(const tbs_uuid_s& view_uuid, const tbs_uuid_s& silo_uuid, const tbs_oid_s& version_oid,
                          const tbs_oid_s& element_oid, bool by_path, const std::string& path);

  tavrel_vstat obj_vstat;
  tavrel_vstat elem_vstat;
  tavrel_scope scope;
  int m_reply_error = 0;
};
