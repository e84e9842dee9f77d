#include "wan/http_client_base.h"

#include <cstring>
#include <strings.h>

#include "base/fileutl.h"
#include "core/tavrel_trace.h"
#include "wan/rclient_cb.h"
#include "wan/rclient_messages.h"
#include "wan/rclient_session.h"

namespace {
const char* const kClass = "Http_Client_Base";
}

Http_Client_Base::Http_Client_Base(int post, const std::string& u, RClient_Session* s, const std::string& ks,
                                   const std::string& ks_pw, void* write_data, std::vector<std::string>* resp_headers)
    : is_post(post),
      url(u),
      response_headers(resp_headers),
      curl(s->get_curl_handle()),
      response_stream(write_data),
      session(s),
      keystore(ks),
      keystore_password(ks_pw) {
  error_buffer[0] = '\0';
}

Http_Client_Base::~Http_Client_Base() {
  if (slist) curl_slist_free_all(slist);
  slist = nullptr;
  session->release_curl_handle(curl);
}

bool Http_Client_Base::setopt_success(CURLcode code, long option) {
  if (code == CURLE_OK) return true;
  error_message = rclient_msg(RCLIENT_MSG_SETOPT, static_cast<int>(code), curl_easy_strerror(code), static_cast<int>(option));
  error_message += error_buffer;
  return false;
}

int Http_Client_Base::init() {
  Tavrel_Trace trace(RCLIENT, kClass, "init");
  if (!curl) {
    error_message = rclient_msg(RCLIENT_MSG_SETOPT, static_cast<int>(CURLE_FAILED_INIT),
                                curl_easy_strerror(CURLE_FAILED_INIT), 0);
    return RCLIENT_ST_TRANSPORT;
  }
  if (response_headers) response_headers->clear();
  headers.clear();
  trace.writeTrace(TRACE_LEVEL_5, " Initialized headers");

#define TVR_SETOPT(opt, value) \
  if (!setopt_success(curl_easy_setopt(curl, opt, value), static_cast<long>(opt))) return RCLIENT_ST_TRANSPORT
  TVR_SETOPT(CURLOPT_NOSIGNAL, 1L);
  TVR_SETOPT(CURLOPT_ERRORBUFFER, error_buffer);
  TVR_SETOPT(CURLOPT_URL, url.c_str());
  if (is_post) TVR_SETOPT(CURLOPT_POST, 1L);
  TVR_SETOPT(CURLOPT_WRITEFUNCTION, &Http_Client_Base::write_data_callback);
  TVR_SETOPT(CURLOPT_WRITEDATA, static_cast<void*>(this));
  TVR_SETOPT(CURLOPT_HEADERFUNCTION, &Http_Client_Base::write_header_callback);
  TVR_SETOPT(CURLOPT_HEADERDATA, static_cast<void*>(this));

  CURLcode rc = Curl_Util::init_common_secopt(curl, false);
  if (rc != CURLE_OK) {
    error_message = rclient_msg(RCLIENT_MSG_SSL_CONFIG, static_cast<int>(rc), curl_easy_strerror(rc));
    error_message += error_buffer;
    return RCLIENT_ST_TRANSPORT;
  }

  if (keystore.empty() != keystore_password.empty()) {
    trace.writeTrace(TRACE_LEVEL_2, "keystore path \"%s\", pwd \"%s\"", keystore.empty() ? "<empty>" : keystore.c_str(),
                     keystore_password.empty() ? "<empty>" : "***");
    error_message += "Internal error, improper option combination (keystore/password)\n";
    return RCLIENT_ST_TRANSPORT;
  }
  if (!keystore.empty()) {
    trace.writeTrace(TRACE_LEVEL_4, " Setting keystore path to %s", keystore.c_str());
    if (keystore.find(')') != std::string::npos) {
      // A per-server file: the server's public key, pinned. It replaces the chain and name checks.
      trace.writeTrace(TRACE_LEVEL_4, "requesting pinned server cert handling");
      TVR_SETOPT(CURLOPT_SSL_VERIFYHOST, 0L);
      TVR_SETOPT(CURLOPT_SSL_VERIFYPEER, 0L);
      TVR_SETOPT(CURLOPT_PINNEDPUBLICKEY, keystore.c_str());
    } else {
      if (!setopt_success(curl_easy_setopt(curl, CURLOPT_CAINFO, keystore.c_str()), 10264L)) return RCLIENT_ST_TRANSPORT;
      std::string marker = keystore + "_hnfail";
      if (fileutl_exists(marker)) {
        trace.writeTrace(TRACE_LEVEL_4, "hnfail file \"%s\" present--disabling hn check", marker.c_str());
        TVR_SETOPT(CURLOPT_SSL_VERIFYHOST, 0L);
      }
    }
  }
  TVR_SETOPT(CURLOPT_TCP_NODELAY, 1L);
  TVR_SETOPT(CURLOPT_PROXY, "");

  // The reply parser reads HTTP/1.1 bodies; time limits keep a dead or stalled server from holding a
  // caller for ever.
  m_limits = Curl_Util::get_transfer_limits();
  TVR_SETOPT(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  TVR_SETOPT(CURLOPT_CONNECTTIMEOUT_MS, m_limits.connect_timeout_ms);
  TVR_SETOPT(CURLOPT_TIMEOUT_MS, m_limits.request_timeout_ms);  // 0: none
  TVR_SETOPT(CURLOPT_XFERINFOFUNCTION, &Http_Client_Base::progress_callback);
  TVR_SETOPT(CURLOPT_XFERINFODATA, static_cast<void*>(this));
  TVR_SETOPT(CURLOPT_NOPROGRESS, 0L);
#undef TVR_SETOPT
  return 0;
}

void Http_Client_Base::add_header(const std::string& line) {
  Tavrel_Trace trace(RCLIENT, kClass, "add_header");
  if (trace.shouldTrace(TRACE_LEVEL_5)) {
    // Credentials never reach the trace: neither the login header nor the session cookies.
    std::string shown = line;
    size_t colon = line.find(':');
    if (colon != std::string::npos && (strncasecmp(line.c_str(), "x-ondrel-login-credentials:", colon + 1) == 0 ||
                                       strncasecmp(line.c_str(), "cookie:", colon + 1) == 0))
      shown = line.substr(0, colon + 1) + "*****";
    trace.writeTrace(TRACE_LEVEL_5, "Adding header [%s]", shown.c_str());
  }
  headers.push_back(line);
}

int Http_Client_Base::set_http_headers() {
  if (slist) curl_slist_free_all(slist);
  slist = nullptr;
  for (const std::string& h : headers) {
    curl_slist* next = curl_slist_append(slist, h.c_str());
    if (!next) {
      error_message = rclient_msg(RCLIENT_MSG_SETOPT, static_cast<int>(CURLE_OUT_OF_MEMORY),
                                  curl_easy_strerror(CURLE_OUT_OF_MEMORY), static_cast<int>(CURLOPT_HTTPHEADER));
      return RCLIENT_ST_TRANSPORT;
    }
    slist = next;
  }
  return setopt_success(curl_easy_setopt(curl, CURLOPT_HTTPHEADER, slist), CURLOPT_HTTPHEADER) ? 0
                                                                                                : RCLIENT_ST_TRANSPORT;
}

int Http_Client_Base::set_write_data_callback(curl_write_callback fn) {
  return setopt_success(curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, fn), CURLOPT_WRITEFUNCTION) ? 0
                                                                                                  : RCLIENT_ST_TRANSPORT;
}

int Http_Client_Base::set_proxy(const std::string& host, int port, const std::string& user,
                                const std::string& password) {
  if (!host.empty() && !setopt_success(curl_easy_setopt(curl, CURLOPT_PROXY, host.c_str()), CURLOPT_PROXY))
    return RCLIENT_ST_TRANSPORT;
  if (!setopt_success(curl_easy_setopt(curl, CURLOPT_PROXYPORT, static_cast<long>(port)), CURLOPT_PROXYPORT))
    return RCLIENT_ST_TRANSPORT;
  if (!user.empty()) {
    std::string cred = user + CREDENTIAL_SEPARATOR + password;
    if (!setopt_success(curl_easy_setopt(curl, CURLOPT_PROXYUSERPWD, cred.c_str()), CURLOPT_PROXYUSERPWD))
      return RCLIENT_ST_TRANSPORT;
  }
  return 0;
}

int Http_Client_Base::execute() {
  Tavrel_Trace trace(RCLIENT, kClass, "execute");
  int rc = set_http_headers();
  if (rc != 0) return rc;
  rc = set_additional_args();
  if (rc != 0) return rc;

  m_write_refused = m_stalled = m_header_overflow = false;
  m_samples.clear();
  http_status = 0;
  CURLcode res = curl_easy_perform(curl);
  executed = 1;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &http_status);
  if (res != CURLE_OK && res != CURLE_PARTIAL_FILE) {
    error_message = rclient_msg(RCLIENT_MSG_EXECUTE, static_cast<int>(res), curl_easy_strerror(res));
    error_message += error_buffer;
    if (!error_message.empty() && error_message.back() != '\n') error_message += "\n";
    if (m_stalled) {
      long bytes = static_cast<long>(m_limits.low_speed_limit * m_limits.low_speed_time_ms / 1000);
      error_message += rclient_msg(RCLIENT_MSG_STALLED, bytes < 1 ? 1L : bytes, m_limits.low_speed_time_ms);
    } else if (res == CURLE_OPERATION_TIMEDOUT) {
      // Connected means the request was ready to go: then only the overall limit can have run out.
      curl_off_t pretransfer = 0;
      curl_easy_getinfo(curl, CURLINFO_PRETRANSFER_TIME_T, &pretransfer);
      long request_ms = m_limits.request_timeout_ms;
      long connect_ms = m_limits.connect_timeout_ms;
      if (request_ms > 0 && request_ms < connect_ms) connect_ms = request_ms;  // the shorter one bounds connecting
      if (pretransfer > 0 && request_ms > 0)
        error_message += rclient_msg(RCLIENT_MSG_REQUEST_TIMEOUT, request_ms);
      else
        error_message += rclient_msg(RCLIENT_MSG_CONNECT_TIMEOUT, connect_ms);
    }
    trace.writeTrace(TRACE_LEVEL_2, "%s", error_message.c_str());
    return RCLIENT_ST_TRANSPORT;
  }
  trace.writeTrace(TRACE_LEVEL_4, "HTTP status %ld", http_status);
  switch (http_status) {
    case 200:
    case 201:
      return 0;
    case 401:
    case 403:
      error_message = rclient_msg(RCLIENT_MSG_AUTH);
      return RCLIENT_ST_AUTH;
    case 404:
      error_message = rclient_msg(RCLIENT_MSG_NOT_FOUND);
      return RCLIENT_ST_NOT_FOUND;
    default:
      error_message = rclient_msg(RCLIENT_MSG_HTTP_STATUS, static_cast<int>(http_status));
      return RCLIENT_ST_HTTP_STATUS;
  }
}

size_t Http_Client_Base::write_data_callback(char* data, size_t size, size_t count, void* user) {
  auto* self = static_cast<Http_Client_Base*>(user);
  size_t n = size * count;
  long code = 0;
  curl_easy_getinfo(self->curl, CURLINFO_RESPONSE_CODE, &code);
  if (code != 200 && code != 201) return n;  // not a reply document: dropped
  if (RClient_CB::response_cb(data, n, self->response_stream) == 0) return n;
  self->m_write_refused = true;
  return static_cast<size_t>(-1);
}

size_t Http_Client_Base::write_header_callback(char* data, size_t size, size_t count, void* user) {
  auto* self = static_cast<Http_Client_Base*>(user);
  size_t n = size * count;
  if (n <= 2 || !self->response_headers) return n;
  if (self->response_headers->size() >= MAX_RESPONSE_HEADER_LINES) {
    self->m_header_overflow = true;
    return 0;  // aborts the transfer
  }
  self->response_headers->emplace_back(data, n - 2);
  return n;
}

int Http_Client_Base::progress_callback(void* user, curl_off_t, curl_off_t dlnow, curl_off_t, curl_off_t ulnow) {
  auto* self = static_cast<Http_Client_Base*>(user);
  const auto& l = self->m_limits;
  if (l.low_speed_limit <= 0) return 0;
  auto now = std::chrono::steady_clock::now();
  curl_off_t moved = dlnow + ulnow;
  curl_off_t pretransfer = 0;
  curl_easy_getinfo(self->curl, CURLINFO_PRETRANSFER_TIME_T, &pretransfer);
  auto& samples = self->m_samples;
  if (pretransfer == 0 && moved == 0) {
    samples.clear();  // still connecting: the connect timeout governs
    return 0;
  }
  const std::chrono::milliseconds window(l.low_speed_time_ms);
  // A sample every 1/16 of a window at most, so that few are kept however often libcurl reports.
  if (samples.empty() || now - samples.back().t >= window / 16) samples.push_back({now, moved});
  // The newest sample at least a window old is the baseline; older ones are not needed.
  while (samples.size() >= 2 && samples[1].t <= now - window) samples.pop_front();
  const Progress_Sample& base = samples.front();
  auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(now - base.t).count();
  if (elapsed < l.low_speed_time_ms) return 0;
  if (static_cast<double>(moved - base.bytes) * 1000.0 <
      static_cast<double>(l.low_speed_limit) * static_cast<double>(elapsed)) {
    self->m_stalled = true;
    return 1;  // aborts the transfer
  }
  return 0;
}
