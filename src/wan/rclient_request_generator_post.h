// RClient_Request_Generator_Post: a named RPC, POSTed to the session's URL as "multipart/form-data"
// with exactly two fields in this order: "rpc" (the RPC name) and "rpcargs" (the argument text).
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "wan/rclient_request_generator.h"

class RClient_Request_Generator_Post : public RClient_Request_Generator {
 public:
  RClient_Request_Generator_Post(void* cb_data, std::vector<std::string>* response_headers, bool login);
  int send_request(const std::string& rpc_name, const std::string& args) override;
  // A further field after "rpc" and "rpcargs" (no RPC of the agent sends one).
  void add_extra_field(const std::string& name, const std::string& value) { extra_fields.emplace_back(name, value); }

 private:
  std::vector<std::pair<std::string, std::string>> extra_fields;
};
