// Http_Client_Post: an HTTP POST whose body is "multipart/form-data" with one text part per field, in
// the order added ("Content-Disposition: form-data; name=\"<name>\"", then the value), with a boundary
// of libcurl's choosing.
#pragma once

#include <curl/curl.h>

#include <string>
#include <vector>

#include "wan/http_client_base.h"

class Http_Client_Post : public Http_Client_Base {
 public:
  struct request_part {
    std::string name;
    std::string value;
  };

  Http_Client_Post(const std::string& url, RClient_Session* session, const std::string& keystore,
                   const std::string& keystore_password, void* write_data, std::vector<std::string>* response_headers);
  ~Http_Client_Post() override;

  int set_additional_args() override;
  int add_request_field(const std::string& name, const std::string& value) override;

 private:
  std::vector<request_part> parts;
  curl_mime* form = nullptr;
};
