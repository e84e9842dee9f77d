#include "wan/view_update.h"

#include <climits>
#include <cstring>
#include <exception>

#include "base/stg.h"
#include "base/strutl.h"
#include "core/tavrel_trace.h"
#include "proto/wan_names.h"
#include "wan/rclient_base.h"
#include "wan/rclient_exceptions.h"
#include "wan/rclient_messages.h"

namespace {
const char* const kClass = "View_Update";
namespace n = tavrel_wan;
}  // namespace

View_Update::View_Update(const tbs_uuid_s& uuid, unsigned int gn, int f, int ondemand, int res,
                         const std::vector<tavrel_scope>& s, RClient_Update_Listener* l)
    : Metadata_Reply_Base(n::RPC_SYNCFETCH, true),
      view_uuid(uuid),
      view_gn(gn),
      force(f),
      update_ondemand(ondemand),
      resume(res),
      use_paths(0),
      scopes(s),
      listener(l) {
  std::memset(&elem_info, 0, sizeof elem_info);
  set_max_part_body(MAX_PART);
}

View_Update::View_Update(const tbs_uuid_s& uuid, unsigned int gn, const std::vector<std::string>& p,
                         RClient_Update_Listener* l)
    : Metadata_Reply_Base(n::RPC_SYNCFETCH, true), view_uuid(uuid), view_gn(gn), use_paths(1), paths(p), listener(l) {
  std::memset(&elem_info, 0, sizeof elem_info);
  set_max_part_body(MAX_PART);
}

int View_Update::marshal_request(RClient_Request_Args* args) {
  Tavrel_Trace trace(RCLIENT, kClass, "marshal_request");
  // Every attempt (the resend after a re-login too) parses its reply from nothing.
  reset_metadata();
  std::memset(&elem_info, 0, sizeof elem_info);
  metadata_pending = 0;
  m_elem_held = m_stopped = false;
  m_listener_code = 0;
  m_events = m_parts = 0;
  if (tbs_uuid_is_null(view_uuid)) {
    trace.writeTrace(TRACE_LEVEL_2, "Null view uuid");
    status.code = RCLIENT_ST_MARSHAL;
    return RCLIENT_ST_MARSHAL;
  }
  (void)args;
  marshal_arg(n::ARG_VIEW_UUID, view_uuid);
  marshal_arg(n::ARG_VIEW_GN, view_gn);
  marshal_arg(n::ARG_FORCE, force != 0);
  marshal_arg(n::ARG_RESUME, resume != 0);
  marshal_arg(n::ARG_UPDATE_ODS, update_ondemand != 0);
  marshal_arg(n::ARG_USE_PATHS, use_paths != 0);
  if (use_paths == 0) {
    marshal_arg(n::ARG_NUM_SCOPES, static_cast<unsigned int>(scopes.size()));
    for (const tavrel_scope& s : scopes) {
      marshal_arg(n::ARG_SCOPE_PATH, static_cast<const char*>(s.name));
      marshal_arg(n::ARG_SCOPE_OID, s.oid);
      marshal_arg(n::ARG_SCOPE_GN, static_cast<unsigned int>(s.gn));
    }
  } else {
    marshal_arg(n::ARG_NUM_SCOPES, static_cast<unsigned int>(paths.size()));
    for (const std::string& p : paths) marshal_arg(n::ARG_SCOPE_PATH, p);
  }
  return 0;
}

int View_Update::run() {
  RClient_Abstract_Cmd::run();
  // A transfer this command stopped for a fault of the reply reports the fault, not the stop.
  if (m_reply_error != 0 && wan_status == RCLIENT_ST_LISTENER) wan_status = m_reply_error;
  return wan_status;
}

int View_Update::stop(int code) {
  // While the transfer runs, 30013 makes the write callback abort it; afterwards the fault stands.
  return transfer_executed() ? code : RCLIENT_ST_LISTENER;
}

int View_Update::unmarshal_response() {
  Tavrel_Trace trace(RCLIENT, kClass, "unmarshal_response");
  if (m_reply_error != 0) return stop(m_reply_error);
  if (response_empty()) {
    if (!transfer_executed()) {
      trace.writeTrace(TRACE_LEVEL_5, "Response consumed but RPC not complete!");
      return RCLIENT_ST_HTTP_STATUS;
    }
    if (doc->is_finished()) {
      trace.writeTrace(TRACE_LEVEL_5, "Response consumed");
      return 0;
    }
    trace.writeTrace(TRACE_LEVEL_2, "Reply ended before its end line");
    return RCLIENT_ST_PREMATURE_EOF;
  }
  try {
    while (doc->next_part(1)) {
      trace.writeTrace(TRACE_LEVEL_5, "Size of string buffer = %d", static_cast<int>(doc->response_size()));
      const std::string id = doc->get_part_item(RClient_Base::CONTENT_ID);
      trace.writeTrace(TRACE_LEVEL_5, "Got content id = %s", id.c_str());
      if (metadata_pending && id != n::PART_OBJ_METADATA && id != n::PART_ELEM_METADATA) {
        // A loaded version is complete when the first part after its metadata is seen.
        metadata_pending = 0;
        process_loaded_version();
      }
      if (id == RClient_Base::CONTENT_ID_STATUS) {
        int rc = doc->unmarshal_result(status);
        if (rc != 0) return rc;  // a framing fault: the document reports it and the transfer stops
      } else {
        handle_part(id);
      }
      ++m_parts;
    }
    return 0;
  } catch (RClient_Listener_Exception& e) {
    trace.writeTrace(TRACE_LEVEL_2, "Listener exception %d", e.code);
    m_stopped = true;
    m_reply_error = RCLIENT_ST_LISTENER;
    return RCLIENT_ST_LISTENER;
  } catch (RClient_Premature_EOF_Exception& e) {
    // The part has not fully arrived; it is parsed again from its start with the next block.
    trace.writeTrace(TRACE_LEVEL_5, "Exception %d", e.code);
    return transfer_executed() ? e.code : RCLIENT_ST_HTTP_STATUS;
  } catch (RClient_Parse_Exception& e) {
    trace.writeTrace(TRACE_LEVEL_2, "Exception %d", e.code);
    if (doc->failure() != 0) return e.code;  // framing: the command framework stops the transfer
    // The part that showed the fault is consumed: more data cannot mend it, and nothing after it may
    // reach the listener out of context.
    m_stopped = true;
    m_reply_error = e.code;
    return stop(e.code);
  }
}

void View_Update::handle_part(const std::string& id) {
  if (id == n::PART_SYNC_FETCH_BEGIN) {
    begin_operation_part();
  } else if (id == n::PART_SILO_FETCH_BEGIN) {
    begin_silo_part();
  } else if (id == n::PART_SCOPE_FETCH_BEGIN) {
    int rc = parse_any_metadata(n::PART_OBJ_SCOPE);
    if (rc != 0) throw RClient_Parse_Exception(rc);
    deliver("begin_scope", [this] { return listener->begin_scope(scope); });
  } else if (id == n::PART_SYNC_ELEM_INFO) {
    process_elem_info();
  } else if (id == n::PART_OBJ_METADATA || id == n::PART_ELEM_METADATA) {
    if (!m_elem_held) {
      Tavrel_Trace trace(RCLIENT, kClass, "handle_part");
      trace.writeTrace(TRACE_LEVEL_2, "%s without a loaded element before it: ignored", id.c_str());
      return;  // its body is skipped by the next part
    }
    int rc = parse_any_metadata(id);
    if (rc != 0) throw RClient_Parse_Exception(rc);
    metadata_pending = 1;
  } else if (id == n::PART_SCOPE_FETCH_END) {
    deliver("end_scope", [this] { return listener->end_scope(); });
  } else if (id == n::PART_SILO_FETCH_END) {
    deliver("end_silo", [this] { return listener->end_silo(); });
  } else if (id == n::PART_SYNC_FETCH_END) {
    deliver("end_operation", [this] { return listener->end_operation(); });
  }
  // Any other part is not ours: its body is skipped.
}

void View_Update::begin_operation_part() {
  Tavrel_Trace trace(RCLIENT, kClass, "begin_operation_part");
  const std::string text = doc->get_part_item(n::ITEM_OPERATION_GN);
  if (text.empty()) {
    trace.writeTrace(TRACE_LEVEL_2, "Operation GN empty!");
    throw RClient_Malformed_Response_Exception();
  }
  long v;
  if (!strutl_strtol(text, &v) || v < 0 || static_cast<unsigned long>(v) > UINT_MAX) {
    trace.writeTrace(TRACE_LEVEL_2, "Operation GN invalid!");
    throw RClient_Malformed_Response_Exception();
  }
  const unsigned int gn = static_cast<unsigned int>(v);
  deliver("begin_operation", [this, gn] { return listener->begin_operation(gn); });
}

void View_Update::begin_silo_part() {
  Tavrel_Trace trace(RCLIENT, kClass, "begin_silo_part");
  const std::string replica_text = doc->get_part_item(n::ITEM_REPLICA_UUID);
  const std::string family_text = doc->get_part_item(n::ITEM_FAMILY_OID);
  tbs_uuid_s replica;
  tbs_oid_s family;
  if (replica_text.empty()) {
    trace.writeTrace(TRACE_LEVEL_2, "SILO replica uuid empty!");
    throw RClient_Malformed_Response_Exception();
  }
  if (tbs_str_to_uuid(replica_text, &replica) != TBS_ST_OK || tbs_uuid_is_null(replica)) {
    trace.writeTrace(TRACE_LEVEL_2, "Invalid replica uuid");
    throw RClient_Malformed_Response_Exception();
  }
  if (family_text.empty()) {
    trace.writeTrace(TRACE_LEVEL_2, "SILO family oid empty!");
    throw RClient_Malformed_Response_Exception();
  }
  if (tbs_str_to_oid(family_text, &family) != TBS_ST_OK || tbs_oid_is_null(family)) {
    trace.writeTrace(TRACE_LEVEL_2, "Invalid family oid");
    throw RClient_Malformed_Response_Exception();
  }
  deliver("begin_silo", [&] { return listener->begin_silo(replica, family); });
}

void View_Update::process_elem_info() {
  Tavrel_Trace trace(RCLIENT, kClass, "process_elem_info");
  long length = 0;
  char* data = nullptr;
  int rc = parse_content_with_len(length, data);
  if (rc != 0) throw RClient_Parse_Exception(rc);
  m_elem_held = false;
  metadata_pending = 0;
  rc = tavrel_synceleminfo_decode(&elem_info, static_cast<unsigned>(length), data);
  stg_free(data);
  if (rc != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "SyncElemInfo of %ld bytes does not decode: %d", length, rc);
    throw RClient_Parse_Exception(rc);
  }
  // A server may write paths with backslashes.
  for (char* p = elem_info.object_path; *p; ++p)
    if (*p == '\\') *p = '/';
  if (trace.shouldTrace(TRACE_LEVEL_5)) {  // the identities' texts cost more than the parse
    trace.writeTrace(TRACE_LEVEL_5, "Synceleminfo - object_path %s", elem_info.object_path);
    trace.writeTrace(TRACE_LEVEL_5, "Synceleminfo - parent_oid %s", tbs_oid_to_str(elem_info.parent_oid).c_str());
    trace.writeTrace(TRACE_LEVEL_5, "Synceleminfo - replica_uuid %s", tbs_uuid_to_str(elem_info.replica_uuid).c_str());
    trace.writeTrace(TRACE_LEVEL_5, "Synceleminfo - object_oid %s", tbs_oid_to_str(elem_info.object_oid).c_str());
    trace.writeTrace(TRACE_LEVEL_5, "Synceleminfo - prev_version_str %s", elem_info.prev_version_str);
    trace.writeTrace(TRACE_LEVEL_5, "Synceleminfo - curr_version_str %s", elem_info.curr_version_str);
  }
  // An element's records never come from the element before it.
  std::memset(&obj_vstat, 0, sizeof obj_vstat);
  std::memset(&elem_vstat, 0, sizeof elem_vstat);
  if (elem_info.curr_version_str[0] == '\0')
    process_unloaded_version();
  else
    m_elem_held = true;
}

void View_Update::process_loaded_version() {
  m_elem_held = false;
  deliver("update_object", [this] {
    return listener->update_object(elem_info.replica_uuid, elem_info.parent_oid, elem_info.object_path,
                                   elem_info.prev_version_str, elem_info.curr_version_str, obj_vstat, elem_vstat);
  });
}

void View_Update::process_unloaded_version() {
  deliver("unload_object", [this] {
    return listener->unload_object(elem_info.replica_uuid, elem_info.parent_oid, elem_info.object_path,
                                   elem_info.object_oid);
  });
}

template <class Call>
void View_Update::deliver(const char* event, Call call) {
  if (listener == nullptr || !listener_ok || m_stopped) return;
  Tavrel_Trace trace(RCLIENT, kClass, "deliver");
  ++m_events;
  bool ok;
  // Nothing may unwind through the transfer library: whatever the listener throws stops the transfer.
  try {
    ok = call();
  } catch (RClient_Parse_Exception& e) {
    m_listener_code = e.code;
    throw RClient_Listener_Exception(e.code);
  } catch (std::exception& e) {
    trace.writeTrace(TRACE_LEVEL_1, "Listener failed in %s: %s", event, e.what());
    m_listener_code = RCLIENT_ST_LISTENER;
    throw RClient_Listener_Exception();
  } catch (...) {
    trace.writeTrace(TRACE_LEVEL_1, "Listener failed in %s", event);
    m_listener_code = RCLIENT_ST_LISTENER;
    throw RClient_Listener_Exception();
  }
  listener_ok = ok;
  if (!ok) trace.writeTrace(TRACE_LEVEL_2, "Listener refused %s: the rest of the stream is drained", event);
}
