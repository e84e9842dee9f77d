#include "wan/http_client_get.h"

Http_Client_Get::Http_Client_Get(const std::string& u, RClient_Session* s, const std::string& ks,
                                 const std::string& ks_pw, void* write_data, std::vector<std::string>* resp_headers)
    : Http_Client_Base(0, u, s, ks, ks_pw, write_data, resp_headers) {}
