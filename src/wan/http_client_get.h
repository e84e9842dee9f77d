// Http_Client_Get: an HTTP GET of its URL; it has no fields.
#pragma once

#include "wan/http_client_base.h"

class Http_Client_Get : public Http_Client_Base {
 public:
  Http_Client_Get(const std::string& url, RClient_Session* session, const std::string& keystore,
                  const std::string& keystore_password, void* write_data, std::vector<std::string>* response_headers);

  int set_additional_args() override { return 0; }
  int add_request_field(const std::string&, const std::string&) override { return 0; }
};
