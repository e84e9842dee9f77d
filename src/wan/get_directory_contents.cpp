#include "wan/get_directory_contents.h"

#include <cstring>
#include <exception>

#include "base/stg.h"
#include "base/strutl.h"
#include "core/tavrel_trace.h"
#include "proto/wan_names.h"
#include "wan/get_metadata.h"
#include "wan/rclient_base.h"
#include "wan/rclient_exceptions.h"
#include "wan/rclient_messages.h"

namespace {
const char* const kClass = "Get_Directory_Contents";
namespace n = tavrel_wan;
}  // namespace

Get_Directory_Contents_Listener::~Get_Directory_Contents_Listener() = default;

Get_Directory_Contents::Get_Directory_Contents(const tbs_uuid_s& view, const tbs_uuid_s& silo,
                                               const tbs_oid_s& version, const tbs_oid_s& element,
                                               Get_Directory_Contents_Listener* l)
    : Metadata_Reply_Base(n::RPC_GET_DIRECTORY_CONTENTS, true),
      view_uuid(view),
      silo_uuid(silo),
      version_oid(version),
      element_oid(element),
      listener(l) {
  std::memset(&m_entry, 0, sizeof m_entry);
  set_max_part_body(MAX_PART);
}

Get_Directory_Contents::Get_Directory_Contents(const tbs_uuid_s& view, const std::string& p,
                                               Get_Directory_Contents_Listener* l)
    : Metadata_Reply_Base(n::RPC_GET_DIRECTORY_CONTENTS, true), view_uuid(view), path(p), by_path(true), listener(l) {
  std::memset(&m_entry, 0, sizeof m_entry);
  set_max_part_body(MAX_PART);
}

int Get_Directory_Contents::marshal_request(RClient_Request_Args*) {
  Tavrel_Trace trace(RCLIENT, kClass, "marshal_request");
  // Every attempt (the resend after a re-login too) parses its reply from nothing.
  reset_metadata();
  std::memset(&m_entry, 0, sizeof m_entry);
  m_held = m_have_status = false;
  m_delivered = 0;
  return marshal_object_args(view_uuid, silo_uuid, version_oid, element_oid, by_path, path);
}

int Get_Directory_Contents::run() {
  RClient_Abstract_Cmd::run();
  // A transfer this command stopped for a fault of the reply reports the fault, not the stop.
  if (m_reply_error != 0 && wan_status == RCLIENT_ST_LISTENER) wan_status = m_reply_error;
  return wan_status;
}

int Get_Directory_Contents::fault(int code, const std::string& why) {
  Tavrel_Trace trace(RCLIENT, kClass, "fault");
  trace.writeTrace(TRACE_LEVEL_2, "Listing refused (%d): %s", code, why.c_str());
  if (m_reply_error == 0) {
    m_reply_error = code;
    status.message += why;
  }
  m_held = false;
  // While the transfer runs, 30013 makes the write callback stop it; afterwards the fault stands.
  return transfer_executed() ? m_reply_error : RCLIENT_ST_LISTENER;
}

int Get_Directory_Contents::decode_dirent(long length, const char* data) {
  std::memset(&m_entry, 0, sizeof m_entry);
  return tavrel_dirent_decode(&m_entry.dirent, static_cast<unsigned>(length), data);
}

int Get_Directory_Contents::unmarshal_response() {
  Tavrel_Trace trace(RCLIENT, kClass, "unmarshal_response");
  if (m_reply_error != 0) return transfer_executed() ? m_reply_error : RCLIENT_ST_LISTENER;
  try {
    while (doc->next_part(1)) {
      trace.writeTrace(TRACE_LEVEL_5, "Size of string buffer = %d", static_cast<int>(doc->response_size()));
      const std::string id = doc->get_part_item(RClient_Base::CONTENT_ID);
      trace.writeTrace(TRACE_LEVEL_5, "Got content id = %s", id.c_str());
      if (m_have_status) {
        trace.writeTrace(TRACE_LEVEL_2, "Part %s after the status: skipped", id.c_str());
      } else if (id == n::PART_DIRECTORY_ENTRY) {
        deliver_held();
        long length = 0;
        char* data = nullptr;
        int rc = parse_content_with_len(length, data);
        if (rc != 0) return fault(rc, "Directory entry of a length that cannot be taken.\n");
        rc = decode_dirent(length, data);
        stg_free(data);
        if (rc != 0) return fault(rc, strutl_format("Directory entry of %ld bytes does not decode.\n", length));
        // The entry's records come after it, never from the entry before.
        std::memset(&obj_vstat, 0, sizeof obj_vstat);
        std::memset(&elem_vstat, 0, sizeof elem_vstat);
        m_held = true;
      } else if (id == RClient_Base::CONTENT_ID_STATUS) {
        deliver_held();
        int rc = doc->unmarshal_result(status);
        if (rc != 0) return rc;  // a framing fault: the document reports it and the transfer stops
        m_have_status = true;
      } else {
        int rc = parse_any_metadata(id);
        if (rc != 0) {
          m_reply_error = 0;  // fault() keeps it with its message
          return fault(rc, strutl_format("Part %s of the listing does not decode.\n", id.c_str()));
        }
      }
    }
  } catch (RClient_Listener_Exception& e) {
    trace.writeTrace(TRACE_LEVEL_2, "Listener exception %d", e.code);
    return fault(RCLIENT_ST_LISTENER, "The listing was refused by its reader.\n");
  } catch (RClient_Premature_EOF_Exception& e) {
    // The part has not fully arrived; it is parsed again from its start with the next block.
    trace.writeTrace(TRACE_LEVEL_5, "Exception %d", e.code);
    if (!transfer_executed()) return RCLIENT_ST_HTTP_STATUS;
    // Cut after the Status part: the listing and its verdict are whole.
    return m_have_status ? 0 : fault(e.code, "The listing ends inside a part.\n");
  } catch (RClient_Parse_Exception& e) {
    trace.writeTrace(TRACE_LEVEL_2, "Exception %d", e.code);
    if (doc->failure() != 0) return e.code;  // framing: the command framework stops the transfer
    return fault(e.code, strutl_format("Malformed listing (%d).\n", e.code));
  }
  if (transfer_executed() && !m_have_status) {
    // The held entry, if any, may lack records that never came: the listing cannot count as whole.
    return fault(RCLIENT_ST_PREMATURE_EOF, "The listing ends without its status.\n");
  }
  return 0;
}

void Get_Directory_Contents::deliver_held() {
  if (!m_held) return;
  m_held = false;
  Tavrel_Trace trace(RCLIENT, kClass, "deliver_held");
  get_obj_tavrel_vstat(m_entry.obj);
  get_elem_tavrel_vstat(m_entry.elem);
  std::string why;
  int rc = metadata_reply_check(m_entry.obj, m_entry.elem, why);
  const tavrel_dirent& d = m_entry.dirent;
  if (rc == 0 && (!metadata_mtype_acceptable(d.elem_type) || !metadata_mtype_acceptable(d.ver_type))) {
    why = strutl_format("Unexpected mtype(%ld/%ld) in a directory entry.\n", static_cast<long>(d.elem_type),
                        static_cast<long>(d.ver_type));
    rc = TBS_ST_FAILURE;
  }
  if (rc == 0 && (d.namlen == 0 || std::memchr(d.name, '/', d.namlen) != nullptr)) {
    why = "Directory entry with an empty name or a name holding \"/\".\n";
    rc = TBS_ST_FAILURE;
  }
  if (rc != 0) {
    why = strutl_format("Entry \"%s\": ", d.name) + why;
    if (m_reply_error == 0) {
      m_reply_error = rc;
      status.message += why;
    }
    throw RClient_Parse_Exception(rc);
  }
  ++m_delivered;
  if (listener == nullptr) return;
  trace.writeTrace(TRACE_LEVEL_5, "Delivering \"%s\"", d.name);
  bool ok;
  // Nothing may unwind through the transfer library: whatever the listener throws stops the transfer.
  try {
    ok = listener->process_dirent(&m_entry);
  } catch (RClient_Parse_Exception& e) {
    throw RClient_Listener_Exception(e.code);
  } catch (std::exception& e) {
    trace.writeTrace(TRACE_LEVEL_1, "Listener failed: %s", e.what());
    throw RClient_Listener_Exception();
  } catch (...) {
    trace.writeTrace(TRACE_LEVEL_1, "Listener failed");
    throw RClient_Listener_Exception();
  }
  if (!ok) throw RClient_Listener_Exception();
}
