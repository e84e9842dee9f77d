// Lookup: the RPC "Tavrel_Orlen::lookup_rpc", one name in a directory that the agent holds: the
// object the view selects for it now, with its element and load scope.
//
// Request, in this order: ViewUuid; SiloUuid when not null; VersionOid (the directory version) when
// not null; ElementOid (the directory element) when not null, else an empty SiloPathName; LeafName.
// A null view, or a leaf that is no single name (empty, longer than 255 bytes, holding "/", or a line
// feed with text after it) is not sent: run() gives 30010, which is also the status code.
//
// Reply and guarantees: as Get_Metadata (get_metadata.h): the records come through the accessors of
// Metadata_Reply_Base, and a reply that the server did not refuse but that lacks a record or names an
// unknown object kind is refused before anything reaches the caller. A name the directory does not
// hold is the server's refusal (status 1002 or 1052), not a fault of the reply.
//
// Not thread-safe: a command belongs to one thread.
#pragma once

#include <cstddef>
#include <string>

#include "base/tbs.h"
#include "wan/metadata_reply_base.h"

class Lookup : public Metadata_Reply_Base {
 public:
  static constexpr size_t MAX_PART = 64 * 1024;

  Lookup(const tbs_uuid_s& view_uuid, const tbs_uuid_s& silo_uuid, const tbs_oid_s& version_oid,
         const tbs_oid_s& element_oid, const std::string& leaf);

  int marshal_request(RClient_Request_Args* args) override;
  int run() override;

  const std::string& get_leaf() const { return leaf; }

 private:
  tbs_uuid_s view_uuid;
  tbs_uuid_s silo_uuid;
  tbs_oid_s version_oid;
  tbs_oid_s element_oid;
  std::string leaf;
};
