#include "ops/tavrel_server.h"

#include "base/strutl.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "xml/ol_xml_elem.h"
#include "xml/ol_xml_util.h"

Tavrel_Mutex Tavrel_Server::g_session_lock{Tavrel_Lock_Rank::SERVER_SESSION, "Tavrel_Server::g_session_lock"};
Tavrel_Mutex Tavrel_Server::g_fields_lock{Tavrel_Lock_Rank::LEAF, "Tavrel_Server::g_fields_lock"};
Tavrel_Server::Fields Tavrel_Server::g_fields;

namespace {
const char* secret(const std::string& s) { return s.empty() ? "<empty>" : "<not empty>"; }
}  // namespace

Tavrel_Server::Fields Tavrel_Server::get_fields() {
  std::lock_guard<Tavrel_Mutex> g(g_fields_lock);
  return g_fields;
}

void Tavrel_Server::set_fields(const Fields& f) {
  std::lock_guard<Tavrel_Mutex> g(g_fields_lock);
  g_fields = f;
}

std::string Tavrel_Server::get_url() {
  std::lock_guard<Tavrel_Mutex> g(g_fields_lock);
  return g_fields.url;
}

int Tavrel_Server::parse_server_info(OlXmlElem* elem, int read_url, int read_online) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Server", "parse_server_info");
  OlXmlElem* server = elem ? elem->extract_child(SERVER) : nullptr;
  if (!server) {
    trace.writeTrace(TRACE_LEVEL_2, "Error getting server node");
    return TAVREL_ST_SERVER_INFO;
  }
  if (read_online) {
    std::string online = server->get_attr(ONLINE);
    trace.writeTrace(TRACE_LEVEL_4, "online = %s", online.c_str());
    if (online == TRUESTRING)
      set_online(true);
    else if (online == FALSESTRING)
      set_online(false);
    else if (!online.empty())
      return TAVREL_ST_SERVER_INFO;
  }
  Fields f = get_fields();
  if (read_url) {
    f.url = OlXmlUtil::get_value(server, SERVER_URL);
    set_fields(f);
    customize_url();
    f = get_fields();
    trace.writeTrace(TRACE_LEVEL_4, "url = %s", f.url.c_str());
  }
  f.username = OlXmlUtil::get_value(server, SERVER_USERNAME);
  f.domain = OlXmlUtil::get_value(server, SERVER_DOMAIN);
  f.password = OlXmlUtil::get_value(server, SERVER_PASSWORD);
  f.proxy_username = OlXmlUtil::get_value(server, PROXY_USERNAME);
  f.proxy_password = OlXmlUtil::get_value(server, PROXY_PASSWORD);
  f.proxy_host = OlXmlUtil::get_value(server, PROXY_HOST);
  f.proxy_port = OlXmlUtil::get_value(server, PROXY_PORT);
  f.primary_group = OlXmlUtil::get_value(server, OL_PRIMARY_GROUP);
  f.groups = OlXmlUtil::get_value(server, OL_GROUPS);
  trace.writeTrace(TRACE_LEVEL_4, "user = %s", f.username.c_str());
  trace.writeTrace(TRACE_LEVEL_4, "domain = %s", f.domain.c_str());
  trace.writeTrace(TRACE_LEVEL_4, "password = %s", secret(f.password));
  trace.writeTrace(TRACE_LEVEL_4, "proxy creds = %s %s", f.proxy_username.c_str(), secret(f.proxy_password));
  trace.writeTrace(TRACE_LEVEL_4, "proxy host and port = %s %s", f.proxy_host.c_str(), f.proxy_port.c_str());
  trace.writeTrace(TRACE_LEVEL_4, "OL primary group = %s", f.primary_group.c_str());
  trace.writeTrace(TRACE_LEVEL_4, "OL groups = %s", f.groups.c_str());
  set_fields(f);
  return 0;
}

void Tavrel_Server::customize_url() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Server", "customize_url");
  std::lock_guard<Tavrel_Mutex> g(g_fields_lock);
  std::string url = strutl_trim(g_fields.url);
  if (!url.empty()) {
    if (url.back() != '/') url += "/";
    url += URL_CONTEXT;
  }
  g_fields.url = url;
  trace.writeTrace(TRACE_LEVEL_4, "Final url is now %s", url.c_str());
}

bool Tavrel_Server::is_valid() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Server", "is_valid");
  if (!is_online()) return true;
  Fields f = get_fields();
  bool server = !f.url.empty() && !f.username.empty() && !f.password.empty();
  bool proxy = f.proxy_host.empty() == f.proxy_port.empty();
  bool rproxy = f.proxy_username.empty() == f.proxy_password.empty();
  trace.writeTrace(TRACE_LEVEL_4, "proxy = %d, server = %d, r proxy = %d", proxy, server, rproxy);
  return proxy && server && rproxy;
}
