#include "ops/tavrel_connect.h"

#include <cstdlib>

#include "core/tavrel_log.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_view.h"
#include "fs/tavrel_metadata.h"
#include "kfsm/tavrel_kfsm_ioctl.h"
#include "proto/kfsm_status.h"
#include "core/tavrel_msg_table.h"
#include "ops/tavrel_server.h"
#include "core/tavrel_util.h"
#include "wan/login.h"
#include "wan/rclient_session.h"

namespace {
const char* secret(const std::string& s) { return s.empty() ? "<empty>" : "<not empty>"; }
}  // namespace

int Tavrel_Connect::connect_to_server(std::string& message, const std::string& location) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Connect", "connect_to_server");
  std::string text;
  if (!Tavrel_Server::is_valid()) {
    message += Tavrel_Util::format(text, &_tvr_lib_lib_msg_table, TVR_LIB_BAD_SERVER_INFO, location.c_str());
    return TAVREL_ST_SERVER_INFO;
  }
  const Tavrel_Server::Fields f = Tavrel_Server::get_fields();
  trace.writeTrace(TRACE_LEVEL_4, "Login with url %s, user %s, pass %s, domain %s", f.url.c_str(), f.username.c_str(),
                   secret(f.password), f.domain.c_str());
  // The port was checked for presence only; a text that is no number counts as no proxy port.
  int port = static_cast<int>(std::strtol(f.proxy_port.c_str(), nullptr, 10));
  Login login(f.username, f.password, f.domain, f.primary_group, f.groups, f.url, f.proxy_username, f.proxy_password,
              f.proxy_host, port);
  login.run();
  int rpc_status = login.get_status_code();
  int status = login.check_rpc_status(Tavrel_Log::get_instance(location), message, rpc_status);
  if (status == 0) {
    RClient_Session::get_session()->print_session();
    Tavrel_Server::set_online(true);
    return TAVREL_ST_OK;
  }
  trace.writeTrace(TRACE_LEVEL_1, "Login failed with %d", status);
  Tavrel_Server::set_online(false);
  RClient_Session::get_session()->flush_curl_handles();
  if (!message.empty() && message.back() != '\n') message += "\n";
  message += Tavrel_Util::format(text, &_tvr_lib_lib_msg_table, TVR_LIB_CANNOT_CONNECT, f.url.c_str());
  return TAVREL_ST_CANNOT_CONNECT;
}

void Tavrel_Connect::parse_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Connect", "parse_request");
  OlXmlElem* root = parse_validate_request(1);
  if (!root) return;
  trace.writeTrace(TRACE_LEVEL_4, "Looking for server information");
  m_status = Tavrel_Server::parse_server_info(root, 0, 0);
}

void Tavrel_Connect::process_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Connect", "process_request");
  std::lock_guard<Tavrel_Mutex> g(Tavrel_Server::g_session_lock);
  parse_request();
  if (m_status != 0) return;
  if (Tavrel_Server::is_online()) {
    // The new credentials are kept for the next login; the running session stays as it is.
    trace.writeTrace(TRACE_LEVEL_4, "Server is already online!");
    return;
  }
  m_status = connect_to_server(m_status_message, m_view_location);
  if (m_status != 0) return;
  // What the kernel cached while the view was offline may be out of date now.
  if (get_view() != 0) {
    m_status = TAVREL_ST_OK;
    m_status_message.clear();
    return;
  }
  // Names and listings learned offline may be partial: the name service and the kernel forget them.
  Tavrel_KFSM_Ioctl ioctl(m_view);
  int st = Tavrel_Metadata::view_inval_view(&ioctl, 1, 1, 0);
  if (st != 0) trace.writeTrace(TRACE_LEVEL_2, "Unable to invalidate view in KFSM: %s", tbs_strerror(st));
}
