// RClient_Request_Generator_Get: a GET of one URL below the session's URL, with no fields.
#pragma once

#include <string>
#include <vector>

#include "wan/rclient_request_generator.h"

class RClient_Request_Generator_Get : public RClient_Request_Generator {
 public:
  RClient_Request_Generator_Get(const std::string& url, void* cb_data, std::vector<std::string>* response_headers,
                                bool login);
  int send_request(const std::string& rpc_name, const std::string& args) override;
};
