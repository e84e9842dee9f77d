#include "wan/rclient_request_generator.h"

#include "wan/rclient_base.h"

RClient_Request_Generator::RClient_Request_Generator(void* cb, std::vector<std::string>* headers, bool is_login)
    : cb_data(cb), response_headers(headers), session(RClient_Session::get_session()), login(is_login) {
  context = session->get_request_context();
}

RClient_Request_Generator::~RClient_Request_Generator() = default;

void RClient_Request_Generator::add_standard_headers(const std::string& rpc_name) {
  client->add_header(RClient_Base::HDR_EXPECT_CONTINUE);
  client->add_header(RClient_Base::HDR_ACCEPT_ENCODING + RClient_Base::HDR_DEFLATE);
  if (rpc_name.empty()) {
    // libcurl drops a header written "Name:" with nothing after it; "Name;" sends it empty.
    std::string empty = RClient_Base::HDR_RPC_NAME;
    empty.back() = ';';
    client->add_header(empty);
  } else {
    client->add_header(RClient_Base::HDR_RPC_NAME + rpc_name);
  }
  client->add_header(RClient_Base::HDR_USER_AGENT + RClient_Base::VERSION_STRING);
  if (context.authenticated && !login) {
    client->add_header(RClient_Base::HDR_COOKIE + RClient_Base::HDR_JSESSIONID + context.jsessionid +
                       RClient_Base::SEMICOLON + RClient_Base::HDR_SESSION + context.session_id);
  } else {
    client->add_header(RClient_Base::HDR_LOGIN_PREFIX + RClient_Base::HDR_CREDENTIALS +
                       session->encrypted_credential());
    if (!context.primary.empty())
      client->add_header(RClient_Base::HDR_LOGIN_PREFIX + RClient_Base::HDR_PRIMARY_GROUP + context.primary);
    if (!context.groups.empty())
      client->add_header(RClient_Base::HDR_LOGIN_PREFIX + RClient_Base::HDR_GROUPS_LIST + context.groups);
  }
}
