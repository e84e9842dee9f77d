// Login: the RPC "Tavrel_Orlen::login_rpc" that opens the WAN session. It is never retried after an
// authorisation failure (401/403 reach the caller as 30002, "Authorization failure, check username
// and password.").
//
// Request: the credentials header (always, and never a cookie) and the arguments
//   min_clnt_proto_ver=6\nmax_clnt_proto_ver=6\nclienttype=ClientType.UNKNOWN\n
// Reply: a Status part; the cookies "JSESSIONID" and "Session" come with the reply headers and log the
// session in.
//
// Key store, chosen by the first-login constructor from the server URL:
//   ~/.keystore_ol_tavrel_<host>(<port>).der   when it exists: the server's public key, pinned (the
//                                              ")" in the name is what makes the HTTP client pin it)
//   ~/.keystore_ol_tavrel.pem                  otherwise, whether or not it exists: the CA file
// The key store password is the fixed word SSL_KEYSTORE_PW; nothing ever reads it (the HTTP client
// only checks that path and password are set together).
#pragma once

#include <string>

#include "wan/rclient_abstract_cmd.h"

class Login : public RClient_Abstract_Cmd {
 public:
  static const std::string RPC_ID;                  // "Tavrel_Orlen::login_rpc"
  static const std::string CLIENT_TYPE;             // "clienttype"
  static const std::string REQUEST_UNKNOWN_CLIENT;  // "ClientType.UNKNOWN"
  static const std::string SSL_KEYSTORE_FILE;       // ".keystore_ol_tavrel"
  static const std::string SSL_KEYSTORE_PEM;        // ".pem"
  static const std::string SSL_KEYSTORE_DER;        // ".der"
  static const std::string SSL_KEYSTORE_PW;         // "quorlate"

  // First login: stores URL, credentials and key store in the session (not yet logged in).
  Login(const std::string& user, const std::string& password, const std::string& domain, const std::string& primary,
        const std::string& groups, const std::string& url, const std::string& proxy_user = std::string(),
        const std::string& proxy_password = std::string(), const std::string& proxy_host = std::string(),
        int proxy_port = 0);
  // Re-login with the session's cached credentials. The session keeps its cookies until the reply
  // brings new ones, so other threads never find the session without any.
  Login();

  int marshal_request(RClient_Request_Args* args) override;
  int unmarshal_response() override { return unmarshal_parts(); }

 protected:
  bool is_login() const override { return true; }

 public:

  // The per-server part of a key store file name, in place: "host(port)" for an https URL ("(443)"
  // without a port; ":" becomes "+", also inside an IPv6 literal), empty text for any other scheme. A
  // URL with fewer than two "/" stays as it is.
  static void trim_url_hostname(std::string& url);
  // The key store path the first login chooses for `url` in the home directory `home`.
  static std::string keystore_for(const std::string& home, const std::string& url);
};
