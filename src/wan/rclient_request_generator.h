// RClient_Request_Generator: builds and sends one request of a command. The POST generator
// (RClient_Request_Generator_Post) sends a named RPC to the session's URL with the form fields "rpc"
// and "rpcargs"; the GET generator (RClient_Request_Generator_Get) fetches a URL.
//
// Headers of every request, in this order, with no blank after the colon:
//   Expect:                                   (empty: libcurl sends no "Expect: 100-continue")
//   Accept-Encoding:deflate
//   x-ondrel-rpc-name:<rpc name>              (empty for a GET)
//   User-Agent:TVR / 1.0.0.0
//   when logged in:  Cookie:JSESSIONID=<j>;Session=<s>
//   otherwise:       x-ondrel-login-credentials:<Base64 credentials>
//                    x-ondrel-login-primary-group:<group>     (when set)
//                    x-ondrel-login-groups-list:<groups>      (when set)
// The POST generator then adds "Content-Type:multipart/form-data" (libcurl completes it with the
// boundary of the body).
//
// A login request always carries the credentials and never a cookie.
//
// The session's URL, key store and login state are copied once, when the generator is made.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "wan/http_client_base.h"
#include "wan/rclient_session.h"

class RClient_Request_Generator {
 public:
  RClient_Request_Generator(void* cb_data, std::vector<std::string>* response_headers, bool login);
  virtual ~RClient_Request_Generator();
  RClient_Request_Generator(const RClient_Request_Generator&) = delete;
  RClient_Request_Generator& operator=(const RClient_Request_Generator&) = delete;

  // Sends the request and runs the transfer: 0 or a WAN status; get_error() then holds the text.
  virtual int send_request(const std::string& rpc_name, const std::string& args) = 0;
  void add_standard_headers(const std::string& rpc_name);

  Http_Client_Base* get_http_client() const { return client.get(); }
  const std::string& get_error() const { return error; }
  // Whether the request went with the cookies of a session (so a refusal means the session was lost).
  bool carried_session() const { return !login && context.authenticated && !context.jsessionid.empty(); }

 protected:
  std::unique_ptr<Http_Client_Base> client;
  void* cb_data;
  std::vector<std::string>* response_headers;
  std::string error;
  RClient_Session* session;
  RClient_Session::Request_Context context;
  bool login;
};
