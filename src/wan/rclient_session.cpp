#include "wan/rclient_session.h"

#include <algorithm>

#include "core/tavrel_trace.h"
#include "wan/base64.h"
#include "wan/curl_util.h"

RClient_Session* RClient_Session::g_session = nullptr;
Tavrel_Mutex RClient_Session::g_session_lock{Tavrel_Lock_Rank::WAN_SESSION_CREATE, "RClient_Session::g_session_lock"};

namespace {
const char* const kClass = "RClient_Session";
}

RClient_Session* RClient_Session::get_session() {
  std::lock_guard<Tavrel_Mutex> g(g_session_lock);
  if (!g_session) {
    g_session = new RClient_Session();
    Curl_Util::init_common();
    Tavrel_Trace trace(RCLIENT, kClass, "get_session");
    trace.writeTrace(TRACE_LEVEL_4, "After curl_global_init");
  }
  return g_session;
}

void RClient_Session::clean_up() {
  {
    std::lock_guard<Tavrel_Mutex> g(g_session_lock);
    if (g_session) g_session->flush_curl_handles();
  }
  Curl_Util::global_cleanup();
}

RClient_Session::~RClient_Session() {
  for (CURL* h : handles) curl_easy_cleanup(h);
}

int RClient_Session::init(const std::string& u, const std::string& us, const std::string& dom, const std::string& pw,
                          const std::string& prim, const std::string& grps, const std::string& p_user,
                          const std::string& p_password, const std::string& p_host, int p_port, const std::string& ks,
                          const std::string& ks_pw) {
  std::lock_guard<Tavrel_Mutex> g(mutex);
  url = u;
  user = us;
  domain = dom;
  password = pw;
  primary = prim;
  groups = grps;
  proxy_user = p_user;
  proxy_password = p_password;
  proxy_host = p_host;
  proxy_port = p_port;
  keystore = ks;
  keystore_password = ks_pw;
  authenticated = false;
  return 0;
}

void RClient_Session::print_session() {
  Tavrel_Trace trace(RCLIENT, kClass, "print_session");
  if (!trace.shouldTrace(TRACE_LEVEL_4)) return;
  std::lock_guard<Tavrel_Mutex> g(mutex);
  const char* hidden = "*****";
  // The session cookies are credentials: the trace says only whether there are any.
  trace.writeTrace(TRACE_LEVEL_4, "JSESSIONID %s", jsessionid.empty() ? "" : hidden);
  trace.writeTrace(TRACE_LEVEL_4, "Session %s", session_id.empty() ? "" : hidden);
  trace.writeTrace(TRACE_LEVEL_4, "URL %s", url.c_str());
  trace.writeTrace(TRACE_LEVEL_4, "User %s", user.c_str());
  trace.writeTrace(TRACE_LEVEL_4, "Domain %s", domain.c_str());
  trace.writeTrace(TRACE_LEVEL_4, "Password %s", password.empty() ? "" : hidden);
  trace.writeTrace(TRACE_LEVEL_4, "Primary %s", primary.c_str());
  trace.writeTrace(TRACE_LEVEL_4, "Groups %s", groups.c_str());
  trace.writeTrace(TRACE_LEVEL_4, "auth %d", authenticated ? 1 : 0);
  trace.writeTrace(TRACE_LEVEL_4, "major %d", major);
  trace.writeTrace(TRACE_LEVEL_4, "minor %d", minor);
  trace.writeTrace(TRACE_LEVEL_4, "p port %d", proxy_port);
  trace.writeTrace(TRACE_LEVEL_4, "p host %s", proxy_host.c_str());
  trace.writeTrace(TRACE_LEVEL_4, "p user %s", proxy_user.c_str());
  trace.writeTrace(TRACE_LEVEL_4, "p pass %s", proxy_password.empty() ? "" : hidden);
}

void RClient_Session::set_session_id(const std::string& id) {
  std::lock_guard<Tavrel_Mutex> g(mutex);
  session_id = id;
  authenticated = true;
}

void RClient_Session::set_jsessionid(const std::string& id) {
  std::lock_guard<Tavrel_Mutex> g(mutex);
  jsessionid = id;
}

void RClient_Session::clear_login() {
  std::lock_guard<Tavrel_Mutex> g(mutex);
  jsessionid.clear();
  session_id.clear();
  authenticated = false;
}

std::string RClient_Session::encrypted_credential() {
  std::string text;
  {
    std::lock_guard<Tavrel_Mutex> g(mutex);
    text = domain.empty() ? user + ":" + password : domain + "\\" + user + ":" + password;
  }
  // The native and the network character sets are both UTF-8: the text goes as it is.
  std::string out = Base64::encode(text);
  std::fill(text.begin(), text.end(), '\0');
  return out;
}

CURL* RClient_Session::get_curl_handle() {
  {
    std::lock_guard<Tavrel_Mutex> g(mutex);
    ++handles_out;
    if (!handles.empty()) {
      CURL* h = handles.back();
      handles.pop_back();
      return h;
    }
  }
  return curl_easy_init();
}

void RClient_Session::release_curl_handle(CURL* handle) {
  std::lock_guard<Tavrel_Mutex> g(mutex);
  --handles_out;
  if (!handle) {
    if (flush_pending && handles_out == 0) flush_pending = false;
    return;
  }
  if (flush_pending) {
    curl_easy_cleanup(handle);
    if (handles_out == 0) flush_pending = false;
    return;
  }
  curl_easy_reset(handle);
  handles.push_back(handle);
}

void RClient_Session::flush_curl_handles() {
  Tavrel_Trace trace(RCLIENT, kClass, "flush_curl_handles");
  std::lock_guard<Tavrel_Mutex> g(mutex);
  trace.writeTrace(TRACE_LEVEL_4, "Flushing %d idle handles, %d lent out", static_cast<int>(handles.size()),
                   handles_out);
  for (CURL* h : handles) curl_easy_cleanup(h);
  handles.clear();
  if (handles_out > 0) flush_pending = true;
}

RClient_Session::Request_Context RClient_Session::get_request_context() {
  std::lock_guard<Tavrel_Mutex> g(mutex);
  Request_Context c;
  c.url = url;
  c.keystore = keystore;
  c.keystore_password = keystore_password;
  c.authenticated = authenticated;
  c.jsessionid = jsessionid;
  c.session_id = session_id;
  c.primary = primary;
  c.groups = groups;
  return c;
}

std::string RClient_Session::get_url() {
  std::lock_guard<Tavrel_Mutex> g(mutex);
  return url;
}

std::string RClient_Session::get_jsessionid() {
  std::lock_guard<Tavrel_Mutex> g(mutex);
  return jsessionid;
}

std::string RClient_Session::get_session_id() {
  std::lock_guard<Tavrel_Mutex> g(mutex);
  return session_id;
}

bool RClient_Session::is_authenticated() {
  std::lock_guard<Tavrel_Mutex> g(mutex);
  return authenticated;
}

int RClient_Session::get_handles_out() {
  std::lock_guard<Tavrel_Mutex> g(mutex);
  return handles_out;
}

size_t RClient_Session::get_idle_handles() {
  std::lock_guard<Tavrel_Mutex> g(mutex);
  return handles.size();
}
