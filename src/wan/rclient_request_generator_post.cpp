#include "wan/rclient_request_generator_post.h"

#include "core/tavrel_trace.h"
#include "wan/http_client_post.h"
#include "wan/rclient_base.h"
#include "wan/rclient_request_args.h"

RClient_Request_Generator_Post::RClient_Request_Generator_Post(void* cb, std::vector<std::string>* headers,
                                                               bool is_login)
    : RClient_Request_Generator(cb, headers, is_login) {
  client = std::make_unique<Http_Client_Post>(context.url, session, context.keystore, context.keystore_password,
                                              cb_data, response_headers);
}

int RClient_Request_Generator_Post::send_request(const std::string& rpc_name, const std::string& args) {
  Tavrel_Trace trace(RCLIENT, "RClient_Request_Generator_Post", "send_request");
  int rc = client->init();
  if (rc != 0) {
    error += client->get_error_message();
    trace.writeTrace(TRACE_LEVEL_2, "Error message = %s", error.c_str());
    return rc;
  }
  add_standard_headers(rpc_name);
  client->add_header(RClient_Base::HDR_CONTENT_TYPE + RClient_Base::HDR_MULTIPART_FORMDATA);
  client->add_request_field(RClient_Request_Args::RPC, rpc_name);
  client->add_request_field(RClient_Request_Args::RPC_ARGS, args);
  for (const auto& f : extra_fields) client->add_request_field(f.first, f.second);
  rc = client->execute();
  if (rc != 0) {
    error += client->get_error_message();
    trace.writeTrace(TRACE_LEVEL_2, "Error message = %s", error.c_str());
  }
  return rc;
}
