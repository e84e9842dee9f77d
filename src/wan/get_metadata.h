// Get_Metadata: the RPC "Tavrel_Orlen::getmetadata_rpc", the metadata of one object the agent does
// not hold: a version or link by its OID, the version the view selects for an element, the SILO root,
// or the object at a path of the view.
//
// Request, in this order:
//   by identity: ViewUuid; SiloUuid when not null; VersionOid when not null; then ElementOid when not
//                null, else PathName with the command's path (empty: the SILO root).
//   by path:     ViewUuid, PathName.
// A null view, or a path that cannot travel (longer than 1023 bytes, or a line feed with text after
// it), is not sent: run() gives 30010, which is also the status code.
//
// Reply: "Xdr_ObjScope", "Xdr_ObjMetadata", "Xdr_ElemMetadata" in any order, then "Status"; read by
// Metadata_Reply_Base (the accessors, and a record that does not decode fails the reply with 1001).
//
// Before anything reaches the caller, a reply that the server did not refuse (status 0, or no Status
// part) must describe an object the view can hold (metadata_reply_check): both records present and
// of a known kind. Otherwise the reply is refused: run() gives the reason (30009 a record missing,
// 1001 a kind outside {2,3,5,6,7,8,9,11}), the status code becomes that reason, the records are
// zeroed and the status message says why. A failed transfer does the same with its WAN status. So
// the accessors never hand out a record of a reply that failed.
//
// Not thread-safe: a command belongs to one thread.
#pragma once

#include <cstddef>
#include <string>

#include "base/tbs.h"
#include "proto/tavrel_records.h"
#include "wan/metadata_reply_base.h"

class Get_Metadata : public Metadata_Reply_Base {
 public:
  // The largest reply part held (records are at most 1.3 KB; the Status message fits too).
  static constexpr size_t MAX_PART = 64 * 1024;

  Get_Metadata(const tbs_uuid_s& view_uuid, const tbs_uuid_s& silo_uuid, const tbs_oid_s& version_oid,
               const tbs_oid_s& element_oid);
  Get_Metadata(const tbs_uuid_s& view_uuid, const std::string& path);

  int marshal_request(RClient_Request_Args* args) override;
  int run() override;

 private:
  tbs_uuid_s view_uuid;
  tbs_uuid_s silo_uuid = TBS_UUID_NULL;
  tbs_oid_s version_oid = TBS_OID_NULL;
  tbs_oid_s element_oid = TBS_OID_NULL;
  std::string path;
  bool by_path = false;
};

// Whether an object kind sent by the server may enter the view: directory and file elements and
// versions, symbolic links, and the other kinds of stored objects (2, 3, 5, 6, 7, 8, 9, 11). Any
// other kind would reach the object cache as something it cannot hold.
bool metadata_mtype_acceptable(silo_mtype_t mtype);

// The check of a reply that describes one object: 0 when both records have an acceptable kind;
// otherwise 30009 when a record is missing (kind 0: it never arrived) or 1001 for an unknown kind,
// with the reason in `why`.
int metadata_reply_check(const tavrel_vstat& obj, const tavrel_vstat& elem, std::string& why);

// The end of run() of a command whose reply describes one object (Get_Metadata, Lookup), `wan` being
// the transfer's result. When the server did not refuse (code 0 or -1): a transfer that failed, or
// records that do not pass metadata_reply_check, leave the records zeroed and the status code set to
// the failure (the reason appended to the message), which is returned. Otherwise `wan` is returned.
// So after a failure the accessors give a non-zero status and never a record.
int metadata_reply_settle(int wan, RClient_Status& status, tavrel_vstat& obj, tavrel_vstat& elem, tavrel_scope& scope);

// Whether a text can travel as an argument value unchanged: no line feed with text after it
// (a trailing one travels coded) and at most `max` bytes.
bool metadata_arg_sendable(const std::string& value, size_t max);
