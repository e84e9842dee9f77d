#include "wan/logout.h"

#include "core/tavrel_trace.h"
#include "proto/wan_names.h"
#include "wan/rclient_session.h"

Logout::Logout() : RClient_Abstract_Cmd("", true) {
  url = RClient_Session::get_session()->get_url() + tavrel_wan::PATH_LOGOUT;
  Tavrel_Trace trace(RCLIENT, "Logout", "Logout");
  trace.writeTrace(TRACE_LEVEL_4, "URL is %s", url.c_str());
}

int Logout::unmarshal_response() {
  int rc = unmarshal_parts();
  RClient_Session::get_session()->clear_login();
  return rc;
}

int Logout::run() {
  int rc = RClient_Abstract_Cmd::run();
  RClient_Session::get_session()->clear_login();
  return rc;
}
