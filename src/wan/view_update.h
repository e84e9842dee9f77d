// View_Update: the RPC "Tavrel_Orlen::syncfetch_rpc", which asks the server what changed for a view
// and turns the answer, while it streams in, into calls of an RClient_Update_Listener.
//
// Request, in this order: ViewUuid, ViewGn, Force, Resume, UpdateOndemandScopes, UsePaths; then
// NumScopes and, for an update by scope, each scope as ScopePath (its name), ScopeOid, ScopeGn, or, for
// a surgical update of paths (UsePaths 1, the three flags sent as 0), each path as ScopePath. A null
// view identity is not sent: run() gives 30010 (also the status code).
//
// Reply (parts in the order the server sends them; nesting is not checked):
//   SyncFetchBegin   item OperationGn                 begin_operation(gn)
//   SiloFetchBegin   items ReplicaUuid, FamilyOid      begin_silo(replica, family)
//   ScopeFetchBegin  body XDR tavrel_scope             begin_scope(scope)
//   SyncElemInfo     body XDR tavrel_synceleminfo_t    an empty current version: unload_object at once;
//                                                      otherwise held until its metadata has come
//   Xdr_ObjMetadata, Xdr_ElemMetadata  XDR tavrel_vstat  the held element's records; the element goes
//                                                      to update_object when the first part after
//                                                      its metadata is seen (Status included)
//   ScopeFetchEnd / SiloFetchEnd / SyncFetchEnd        end_scope() / end_silo() / end_operation()
//   Status                                             the server's verdict
// Unknown parts are skipped. Backslashes in an element's path reach the listener as "/".
// An element whose current version is not empty but that has no metadata part is never delivered;
// metadata parts with no such element before them are ignored; an element's two records start
// zeroed, so one without element metadata is delivered with a zero element record.
//
// Guarantees:
// - Each event reaches the listener at most once, in stream order, at whatever byte boundaries the
//   reply arrives: a part is acted on only when all of it is there.
// - Memory is bounded whatever the stream's length: the command holds one libcurl block and at most
//   one part, and a part above MAX_PART bytes fails the reply (30011).
// - A listener that returns false gets nothing more; the rest is read and dropped, and the Status part
//   still counts (get_status()). listener_refused() tells.
// - A listener that throws stops the transfer at once: run() gives 30013 (listener_exception_code()
//   keeps the code it threw with).
// - A fault of the reply that more data cannot mend stops the transfer and is the result of run(),
//   with nothing more delivered: 30007 bad framing, 30008 bad Content-Length, 30009 a missing or bad
//   OperationGn, ReplicaUuid or FamilyOid, 30011 a part too large, 1001 a record that does not decode.
// - A reply that ends before its end line gives 30006, wherever it was cut.
// Because the listener has applied what came before a failure, a caller must treat the view as
// partly updated after any non-zero result.
//
// Not thread-safe: a command belongs to one thread; the listener runs on it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/tbs.h"
#include "proto/tavrel_records.h"
#include "wan/metadata_reply_base.h"
#include "wan/rclient_update_listener.h"

class View_Update : public Metadata_Reply_Base {
 public:
  // The largest part the stream may hold (its records are at most a few KB; the Status message too).
  static constexpr size_t MAX_PART = 256 * 1024;

  // An update by scope.
  View_Update(const tbs_uuid_s& view_uuid, unsigned int view_gn, int force, int update_ondemand, int resume,
              const std::vector<tavrel_scope>& scopes, RClient_Update_Listener* listener);
  // A surgical update of the listed paths.
  View_Update(const tbs_uuid_s& view_uuid, unsigned int view_gn, const std::vector<std::string>& paths,
              RClient_Update_Listener* listener);

  int marshal_request(RClient_Request_Args* args) override;
  int unmarshal_response() override;
  int run() override;

  bool listener_refused() const { return !listener_ok; }
  // The code of the exception with which the listener stopped the transfer (0 when it did not).
  int listener_exception_code() const { return m_listener_code; }
  // Events delivered to the listener, and parts of the reply taken.
  uint64_t events_delivered() const { return m_events; }
  uint64_t parts_seen() const { return m_parts; }

 private:
  void handle_part(const std::string& id);
  void begin_operation_part();
  void begin_silo_part();
  void process_elem_info();
  void process_loaded_version();
  void process_unloaded_version();
  // Calls the listener when there is one and it has not refused; keeps its answer in listener_ok.
  template <class Call>
  void deliver(const char* event, Call call);
  int stop(int code);

  tbs_uuid_s view_uuid;
  unsigned int view_gn;
  int force = 0;
  int update_ondemand = 0;
  int resume = 0;
  int use_paths = 0;
  std::vector<tavrel_scope> scopes;
  std::vector<std::string> paths;
  RClient_Update_Listener* listener;  // not owned, may be null
  tavrel_synceleminfo_t elem_info;
  int metadata_pending = 0;
  bool listener_ok = true;

  bool m_elem_held = false;   // elem_info is a loaded version waiting for its metadata
  bool m_stopped = false;     // a final fault or a listener exception: nothing more is delivered
  int m_listener_code = 0;
  uint64_t m_events = 0;
  uint64_t m_parts = 0;
};
