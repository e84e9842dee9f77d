#include "wan/rclient_abstract_cmd.h"

#include <climits>

#include "base/stg.h"
#include "base/strutl.h"
#include "core/tavrel_log.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "wan/http_client_base.h"
#include "wan/login.h"
#include "wan/rclient_base.h"
#include "wan/rclient_cb.h"
#include "wan/rclient_exceptions.h"
#include "wan/rclient_messages.h"
#include "wan/rclient_request_generator_get.h"
#include "wan/rclient_request_generator_post.h"
#include "wan/rclient_session.h"

namespace {
const char* const kClass = "RClient_Abstract_Cmd";
// Bytes a command may hold beyond its largest part before it gives up on a reply that it cannot
// make progress in (libcurl hands at most 16 KiB at a time).
constexpr size_t kBufferSlack = 1u << 20;
// A cookie longer than this is not kept.
constexpr size_t kMaxCookie = 4096;
}  // namespace

RClient_Abstract_Cmd::RClient_Abstract_Cmd(const std::string& id, bool retry)
    : rpc_id(id), retry_on_auth(retry), m_max_part_body(RClient_Multi_Part_Mixed_Doc::DEFAULT_MAX_PART_BODY) {
  init();
}

RClient_Abstract_Cmd::~RClient_Abstract_Cmd() = default;

void RClient_Abstract_Cmd::init() {
  Tavrel_Trace trace(RCLIENT, kClass, "init");
  trace.writeTrace(TRACE_LEVEL_4, "RPC ID = [%s]", rpc_id.c_str());
  doc = std::make_unique<RClient_Multi_Part_Mixed_Doc>(&m_stream);
  doc->set_max_part_body(m_max_part_body);
  cb = std::make_unique<RClient_CB>(this);
}

void RClient_Abstract_Cmd::set_max_part_body(size_t bytes) {
  m_max_part_body = bytes;
  doc->set_max_part_body(bytes);
}

void RClient_Abstract_Cmd::reset_response() {
  generator.reset();  // gives its handle back before a new one is borrowed
  m_stream.clear();
  doc = std::make_unique<RClient_Multi_Part_Mixed_Doc>(&m_stream);
  doc->set_max_part_body(m_max_part_body);
  response_headers.clear();
  status.code = -1;
  m_abort_status = 0;
  m_last_parse_code = 0;
}

RClient_Request_Args* RClient_Abstract_Cmd::get_req_args() {
  if (!req_args) req_args = std::make_unique<RClient_Request_Args>();
  return req_args.get();
}

long RClient_Abstract_Cmd::get_http_status() const {
  const Http_Client_Base* c = generator ? generator->get_http_client() : nullptr;
  return c ? c->get_http_status() : 0;
}

bool RClient_Abstract_Cmd::transfer_executed() const {
  const Http_Client_Base* c = generator ? generator->get_http_client() : nullptr;
  return c && c->is_executed();
}

int RClient_Abstract_Cmd::send() {
  Tavrel_Trace trace(RCLIENT, kClass, "send");
  trace.writeTrace(TRACE_LEVEL_4, "Marshal request for %s", rpc_id.c_str());
  reset_response();
  int rc = marshal_request(get_req_args());
  if (rc != 0) return rc;
  const std::string& args = get_req_args()->get_args();
  trace.writeTrace(TRACE_LEVEL_5, "Args: \"%s\"", args.c_str());
  RClient_Session* session = RClient_Session::get_session();
  session->print_session();
  if (!url.empty()) {
    trace.writeTrace(TRACE_LEVEL_4, "Creating Get request generator");
    generator = std::make_unique<RClient_Request_Generator_Get>(url, cb.get(), &response_headers, is_login());
  } else {
    trace.writeTrace(TRACE_LEVEL_4, "Creating Post request generator");
    generator = std::make_unique<RClient_Request_Generator_Post>(cb.get(), &response_headers, is_login());
  }
  rc = generator->send_request(rpc_id, args);
  if (rc != 0) {
    if (m_abort_status != 0) {
      // The command itself stopped the transfer; libcurl's "write error" would only hide why.
      trace.writeTrace(TRACE_LEVEL_2, "Transfer stopped by the reply parser: %d", m_abort_status);
      return m_abort_status;
    }
    status.message = generator->get_error() + status.message;
  }
  return rc;
}

int RClient_Abstract_Cmd::receive() {
  Tavrel_Trace trace(RCLIENT, kClass, "receive");
  int rc = unmarshal_headers();
  if (rc == 0) {
    m_stream.seek(0);
    rc = unmarshal_response();
  }
  return rc;
}

int RClient_Abstract_Cmd::run() {
  Tavrel_Trace trace(RCLIENT, kClass, "run");
  wan_status = send();
  if (retry_on_auth && wan_status == RCLIENT_ST_AUTH) {
    // Judged by what this request carried, not by the session now: another thread may be renewing it.
    if (!generator || !generator->carried_session()) {
      trace.writeTrace(TRACE_LEVEL_2, "WAN auth failed, no active session, giving up");
    } else {
      trace.writeTrace(TRACE_LEVEL_2, "WAN auth failed, retrying login, message was [%s]", status.message.c_str());
      status.message.clear();
      Login login;
      login.run();
      if (login.get_wan_status() == 0 && login.get_status_code() == 0) {
        req_args.reset();
        wan_status = send();
      } else {
        status.message += rclient_msg(RCLIENT_MSG_RELOGIN);
        status.message += login.get_status_message();
      }
    }
  }
  if (wan_status == 0) wan_status = receive();
  trace.writeTrace(TRACE_LEVEL_4, "Status code = %d", wan_status);
  return wan_status;
}

int RClient_Abstract_Cmd::process_response(char* data, unsigned int length) {
  Tavrel_Trace trace(RCLIENT, kClass, "process_response");
  m_stream.append(data, length);
  trace.writeTrace(TRACE_LEVEL_5, "Buffer size received from cURL= %ld (new size = %ld)", static_cast<long>(length),
                   static_cast<long>(m_stream.size()));
  m_stream.seek(0);
  int rc = unmarshal_response();
  if (rc == RCLIENT_ST_LISTENER) {
    m_abort_status = rc;
    return rc;
  }
  if (doc->failure() != 0) {  // the framing is broken: more data cannot mend it
    m_abort_status = doc->failure();
    return m_abort_status;
  }
  if (m_stream.size() > m_max_part_body + kBufferSlack) {
    // No progress is possible (for example a byte 0xFF where a line should end): stop holding data.
    m_abort_status = (m_last_parse_code != 0 && m_last_parse_code != RCLIENT_ST_HTTP_STATUS) ? m_last_parse_code
                                                                                            : RCLIENT_ST_NO_MEMORY;
    trace.writeTrace(TRACE_LEVEL_2, "Reply makes no progress after %ld bytes: %d", static_cast<long>(m_stream.size()),
                     m_abort_status);
    return m_abort_status;
  }
  if (rc != 0) trace.writeTrace(TRACE_LEVEL_5, "unmarshal failed: %d", rc);
  return 0;
}

int RClient_Abstract_Cmd::unmarshal_parts() {
  Tavrel_Trace trace(RCLIENT, kClass, "unmarshal_response");
  if (response_empty()) {
    if (transfer_executed()) {
      trace.writeTrace(TRACE_LEVEL_5, "Response consumed");
      return 0;
    }
    trace.writeTrace(TRACE_LEVEL_5, "Response consumed but RPC not complete!");
    return RCLIENT_ST_HTTP_STATUS;
  }
  try {
    while (doc->next_part(1)) {
      std::string id = doc->get_part_item(RClient_Base::CONTENT_ID);
      int rc = id == RClient_Base::CONTENT_ID_STATUS ? doc->unmarshal_result(status) : unmarshal_part(id);
      if (rc != 0) return rc;
    }
    return 0;
  } catch (RClient_Listener_Exception& e) {
    trace.writeTrace(TRACE_LEVEL_2, "Listener exception %d", e.code);
    m_last_parse_code = RCLIENT_ST_LISTENER;
    return RCLIENT_ST_LISTENER;
  } catch (RClient_Parse_Exception& e) {
    trace.writeTrace(TRACE_LEVEL_5, "Exception %d", e.code);
    m_last_parse_code = e.code;
    return transfer_executed() ? e.code : RCLIENT_ST_HTTP_STATUS;
  }
}

int RClient_Abstract_Cmd::unmarshal_part(const std::string&) { return 0; }

int RClient_Abstract_Cmd::unmarshal_headers() {
  RClient_Session* session = RClient_Session::get_session();
  std::string j = find_in_header(RClient_Base::HDR_JSESSIONID);
  if (!j.empty() && j.size() <= kMaxCookie) session->set_jsessionid(j);
  std::string s = find_in_header(RClient_Base::HDR_SESSION);
  if (!s.empty() && s.size() <= kMaxCookie) session->set_session_id(s);
  return 0;
}

std::string RClient_Abstract_Cmd::find_in_header(const std::string& name) const {
  for (const std::string& line : response_headers) {
    size_t at = line.find(name);
    if (at == std::string::npos) continue;
    size_t begin = at + name.size();
    size_t end = line.find(';', begin);
    return strutl_trim(line.substr(begin, end == std::string::npos ? std::string::npos : end - begin));
  }
  return std::string();
}

void RClient_Abstract_Cmd::marshal_arg(const std::string& name, unsigned long value) {
  get_req_args()->add_arg(name, strutl_format("%lu", value));
}

void RClient_Abstract_Cmd::marshal_arg(const std::string& name, unsigned int value) {
  get_req_args()->add_arg(name, strutl_format("%d", static_cast<int>(value)));
}

void RClient_Abstract_Cmd::marshal_arg(const std::string& name, bool value) {
  get_req_args()->add_arg(name, std::string(value ? "1" : "0"));
}

void RClient_Abstract_Cmd::marshal_arg(const std::string& name, const char* value) {
  get_req_args()->add_arg(name, std::string(value ? value : ""));
}

void RClient_Abstract_Cmd::marshal_arg(const std::string& name, const std::string& value) {
  get_req_args()->add_arg(name, value);
}

void RClient_Abstract_Cmd::marshal_arg(const std::string& name, const tbs_oid_s& value) {
  get_req_args()->add_arg(name, tbs_oid_to_str(value));
}

void RClient_Abstract_Cmd::marshal_arg(const std::string& name, const tbs_uuid_s& value) {
  get_req_args()->add_arg(name, tbs_uuid_to_str(value));
}

void RClient_Abstract_Cmd::unmarshal_item(const std::string& name, unsigned int& out) {
  Tavrel_Trace trace(RCLIENT, kClass, "unmarshal_item");
  std::string text = doc->get_part_item(name);
  if (text.empty()) {
    trace.writeTrace(TRACE_LEVEL_2, "%s empty!", name.c_str());
    throw RClient_Malformed_Response_Exception();
  }
  long v;
  if (!strutl_strtol(text, &v) || v < 0 || static_cast<unsigned long>(v) > UINT_MAX) {
    trace.writeTrace(TRACE_LEVEL_2, "%s invalid!", name.c_str());
    throw RClient_Malformed_Response_Exception();
  }
  out = static_cast<unsigned int>(v);
}

int RClient_Abstract_Cmd::parse_content_with_len(long& length, char*& buffer) {
  Tavrel_Trace trace(RCLIENT, kClass, "parse_content_with_len");
  buffer = nullptr;
  long len;
  if (!strutl_strtol(doc->get_part_item(RClient_Base::CONTENT_LENGTH), &len) || len < 0)
    return RCLIENT_ST_CONTENT_LENGTH;
  if (static_cast<unsigned long>(len) > m_max_part_body) return RCLIENT_ST_NO_MEMORY;
  char* buf = static_cast<char*>(stg_malloc(static_cast<size_t>(len) + 1));
  long got = len == 0 ? 0 : doc->copy_part_body(static_cast<size_t>(len), buf);
  if (len > 0 && got == 0) {
    stg_free(buf);
    throw RClient_Premature_EOF_Exception();
  }
  buf[len] = '\0';
  trace.writeTrace(TRACE_LEVEL_5, "Requested = %ld, actul = %ld", len, got);
  length = len;
  buffer = buf;
  return 0;
}

int RClient_Abstract_Cmd::check_rpc_status(Tavrel_Log* log, std::string& message, int& rpc_status) {
  Tavrel_Trace trace(RCLIENT, kClass, "check_rpc_status");
  if (wan_status != 0) {
    rpc_status = TBS_ST_FAILURE;
    message += rclient_msg(RCLIENT_MSG_RPC_INCOMPLETE);
    message += status.message;
    if (log)
      log->write_log(TAVREL_LOG_ERROR, &_rclient_msg_table, RCLIENT_MSG_RPC_FAILED, rpc_id.c_str(), wan_status,
                     static_cast<int>(status.code), status.message.c_str());
    return TAVREL_ST_WAN_CALL;
  }
  if (rpc_status != 0) {
    message += status.message;
    trace.writeTrace(TRACE_LEVEL_1, "%s failure: %s (%d)", rpc_id.c_str(), status.message.c_str(), rpc_status);
    return TAVREL_ST_WAN_CALL_2;
  }
  return 0;
}
