#include "wan/rclient_request_generator_get.h"

#include "core/tavrel_trace.h"
#include "wan/http_client_get.h"

RClient_Request_Generator_Get::RClient_Request_Generator_Get(const std::string& url, void* cb,
                                                             std::vector<std::string>* headers, bool is_login)
    : RClient_Request_Generator(cb, headers, is_login) {
  client = std::make_unique<Http_Client_Get>(url, session, context.keystore, context.keystore_password, cb_data,
                                             response_headers);
}

int RClient_Request_Generator_Get::send_request(const std::string& rpc_name, const std::string&) {
  Tavrel_Trace trace(RCLIENT, "RClient_Request_Generator_Get", "send_request");
  int rc = client->init();
  if (rc == 0) {
    add_standard_headers(rpc_name);
    rc = client->execute();
  }
  if (rc != 0) {
    error += client->get_error_message();
    trace.writeTrace(TRACE_LEVEL_2, "Error message = %s", error.c_str());
  }
  return rc;
}
