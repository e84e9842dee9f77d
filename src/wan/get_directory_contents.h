// Get_Directory_Contents: the RPC "Tavrel_Orlen::get_directory_contents_rpc", every entry of one
// directory as the view sees it, each handed to a Get_Directory_Contents_Listener while the reply
// streams in.
//
// Request, in this order:
//   by identity: ViewUuid; SiloUuid when not null; VersionOid when not null; then ElementOid when not
//                null, else PathName with the command's path (empty).
//   by path:     ViewUuid, PathName.
// A null view or a path that cannot travel is not sent: run() gives 30010 (also the status code).
//
// Reply: per entry a part "XdrDirectoryEntry" (XDR tavrel_dirent), then its metadata parts
// ("Xdr_ObjScope", "Xdr_ObjMetadata", "Xdr_ElemMetadata", through Metadata_Reply_Base); then "Status".
// An entry is held back until the next "XdrDirectoryEntry" or the "Status" part arrives, and is then
// delivered with the two metadata records that came after it (never those of an earlier entry).
// Unknown parts are skipped; parts after the Status part are not looked at.
//
// Guarantees:
// - The listener sees each entry once, in the order the server sent them, at whatever byte
//   boundaries the reply arrives: a part is acted on only when all of it is there. An empty directory
//   delivers nothing; a directory of one entry delivers it when "Status" arrives.
// - Nothing unusable reaches the listener. Before an entry is delivered it must have both metadata
//   records, kinds in {2,3,5,6,7,8,9,11} (records and entry), and a name that is one name (not
//   empty, no "/"). An entry that fails stops the transfer and fails the command, with nothing more
//   delivered: 30009 a metadata record missing, 1001 an unknown kind or a bad name.
// - Any other fault of the reply stops it the same way: 30007 bad framing, 30008 a bad
//   Content-Length, 30011 a part above MAX_PART bytes, 1001 a record that does not decode. A reply
//   that ends without its "Status" part gives 30006 and its held entry is never delivered, so a
//   listing that stops mid-entry or between entries is never taken for a whole one (a reply cut after
//   its Status part is whole).
// - A listener that returns false or throws stops the transfer at once: run() gives 30013.
// Because the listener has seen the entries before a failure, a caller must treat what it gathered
// as incomplete after any non-zero result or a non-zero status code.
//
// Not thread-safe: a command belongs to one thread; the listener runs on it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/tbs.h"
#include "proto/tavrel_records.h"
#include "wan/metadata_reply_base.h"

class Get_Directory_Contents_Listener {
 public:
  virtual ~Get_Directory_Contents_Listener();
  // One entry with its object's and element's metadata. The entry is only valid during the call.
  // False (or an exception) stops the listing.
  virtual bool process_dirent(tavrel_extended_dirent* entry) = 0;
};

class Get_Directory_Contents : public Metadata_Reply_Base {
 public:
  // The largest reply part held (entries and records are at most 1.3 KB; the Status message fits).
  static constexpr size_t MAX_PART = 64 * 1024;

  Get_Directory_Contents(const tbs_uuid_s& view_uuid, const tbs_uuid_s& silo_uuid, const tbs_oid_s& version_oid,
                         const tbs_oid_s& element_oid, Get_Directory_Contents_Listener* listener);
  Get_Directory_Contents(const tbs_uuid_s& view_uuid, const std::string& path,
                         Get_Directory_Contents_Listener* listener);

  int marshal_request(RClient_Request_Args* args) override;
  int unmarshal_response() override;
  int run() override;

  // Zeroes the held entry and decodes `data` into it: 0 or the decoder's result.
  int decode_dirent(long length, const char* data);

  // Entries handed to the listener in the last attempt.
  uint64_t entries_delivered() const { return m_delivered; }

 private:
  void deliver_held();
  // Stops the reply with `code`: while the transfer runs, the transfer is stopped (run() reports code).
  int fault(int code, const std::string& why);

  tbs_uuid_s view_uuid;
  tbs_uuid_s silo_uuid = TBS_UUID_NULL;
  tbs_oid_s version_oid = TBS_OID_NULL;
  tbs_oid_s element_oid = TBS_OID_NULL;
  std::string path;
  bool by_path = false;
  Get_Directory_Contents_Listener* listener;  // not owned, may be null

  tavrel_extended_dirent m_entry;
  bool m_held = false;         // m_entry is decoded and waits for its metadata
  bool m_have_status = false;  // the Status part has been read
  uint64_t m_delivered = 0;
};
