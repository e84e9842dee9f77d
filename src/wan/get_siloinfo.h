// Get_SILOInfo: the RPC "Tavrel_Orlen::getsiloinfo_rpc", the identity of one SILO by its tag, for
// mounting it.
//
// Request: one argument "SiloTag=<tag>". A tag that is empty or holds a CR or LF cannot be sent: run()
// gives 30010 and sends nothing.
// Reply: a part "SiloInfo" (no body) with the items SiloFamilyUuid, SiloReplicaUuid, SiloStorage,
// IsPublic, IsProject, then Status. An unknown tag is a non-zero Status and no SiloInfo.
//
// Guarantees: after run() and a Status of 0 with WAN status 0, the family and replica are valid
// identities (never null) and the storage is not empty. Anything else fails the command with 30009
// and a message in get_status_message():
//   an empty family, replica or storage item   client messages 5, 6, 8 with the tag
//   family or replica text that is no identity client message 7 with the text (a null identity too)
//   Status 0 with no SiloInfo part             "SILO information missing from the reply for "<tag>"."
// IsPublic and IsProject are true only for the text "1". A second SiloInfo part replaces the first.
//
// Use: Get_SILOInfo cmd(tag); cmd.run(); int st = cmd.get_status_code();
//      cmd.check_rpc_status(log, message, st); then the accessors (or to_mount_info()).
#pragma once

#include <string>

#include "base/tbs.h"
#include "core/tavrel_config.h"
#include "wan/rclient_abstract_cmd.h"

class Get_SILOInfo : public RClient_Abstract_Cmd {
 public:
  explicit Get_SILOInfo(const std::string& silo_tag);

  int marshal_request(RClient_Request_Args* args) override;
  int unmarshal_response() override;

  const std::string& get_silo_tag() const { return silo_tag; }
  const tbs_uuid_s& get_family_uuid() const { return family_uuid; }
  const tbs_uuid_s& get_replica_uuid() const { return replica_uuid; }
  const std::string& get_storage() const { return storage; }
  bool get_is_public() const { return is_public; }
  bool get_is_project() const { return is_project; }
  // Whether a well-formed SiloInfo part was read.
  bool has_silo_info() const { return have_info; }
  // The reply as a mount table entry: tag, replica, family, storage and the two flags; the mount state
  // is left 0 for the caller to set.
  SILO_mount_info to_mount_info() const;

 protected:
  int unmarshal_part(const std::string& content_id) override;

 private:
  void unmarshal_siloinfo();
  [[noreturn]] void malformed(const std::string& text);

  std::string silo_tag;
  tbs_uuid_s family_uuid = TBS_UUID_NULL;
  tbs_uuid_s replica_uuid = TBS_UUID_NULL;
  std::string storage;
  bool is_public = false;
  bool is_project = false;
  bool have_info = false;
  // A fault of the reply found by this command (30009). It stands for the rest of the transfer: the
  // part that showed it is consumed, so later calls must not forget it.
  int m_reply_error = 0;
  std::string m_reply_text;  // its message
};
