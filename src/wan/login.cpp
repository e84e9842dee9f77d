#include "wan/login.h"

#include "base/fileutl.h"
#include "base/strutl.h"
#include "base/sysutl.h"
#include "core/tavrel_trace.h"
#include "proto/wan_names.h"
#include "wan/rclient_base.h"
#include "wan/rclient_session.h"

const std::string Login::RPC_ID = tavrel_wan::RPC_LOGIN;
const std::string Login::CLIENT_TYPE = tavrel_wan::ARG_CLIENT_TYPE;
const std::string Login::REQUEST_UNKNOWN_CLIENT = "ClientType.UNKNOWN";
const std::string Login::SSL_KEYSTORE_FILE = ".keystore_ol_tavrel";
const std::string Login::SSL_KEYSTORE_PEM = ".pem";
const std::string Login::SSL_KEYSTORE_DER = ".der";
const std::string Login::SSL_KEYSTORE_PW = "quorlate";

namespace {
const char* const kClass = "Login";
}

std::string Login::keystore_for(const std::string& home, const std::string& url) {
  Tavrel_Trace trace(RCLIENT, kClass, "keystore_for");
  std::string host = url;
  trim_url_hostname(host);
  std::string candidate = home + "/" + SSL_KEYSTORE_FILE + "_" + host + SSL_KEYSTORE_DER;
  if (!fileutl_exists(candidate)) {
    trace.writeTrace(TRACE_LEVEL_4, "exception keystore \"%s\" not present", candidate.c_str());
    candidate = home + "/" + SSL_KEYSTORE_FILE + SSL_KEYSTORE_PEM;
  }
  return candidate;
}

Login::Login(const std::string& user, const std::string& password, const std::string& domain,
             const std::string& primary, const std::string& groups, const std::string& server_url,
             const std::string& proxy_user, const std::string& proxy_password, const std::string& proxy_host,
             int proxy_port)
    : RClient_Abstract_Cmd(RPC_ID, false) {
  std::string keystore = keystore_for(sysutl_get_homedir(), server_url);
  RClient_Session::get_session()->init(server_url, user, domain, password, primary, groups, proxy_user,
                                       proxy_password, proxy_host, proxy_port, keystore, SSL_KEYSTORE_PW);
}

Login::Login() : RClient_Abstract_Cmd(RPC_ID, false) {}

int Login::marshal_request(RClient_Request_Args* args) {
  args->add_arg(RClient_Base::MIN_PROTOCOL_VER, tavrel_wan::PROTOCOL_VERSION);
  args->add_arg(RClient_Base::MAX_PROTOCOL_VER, tavrel_wan::PROTOCOL_VERSION);
  args->add_arg(CLIENT_TYPE, REQUEST_UNKNOWN_CLIENT);
  return 0;
}

void Login::trim_url_hostname(std::string& url) {
  if (url.size() < 5 || strutl_stricmp(url.substr(0, 5), "https") != 0) {
    url.clear();  // no key store for an unencrypted server
    return;
  }
  size_t s1 = url.find('/');
  size_t s2 = s1 == std::string::npos ? std::string::npos : url.find('/', s1 + 1);
  if (s2 == std::string::npos) return;
  size_t s3 = url.find('/', s2 + 1);
  std::string hostport = url.substr(s2 + 1, s3 == std::string::npos ? std::string::npos : s3 - s2 - 1);
  std::string host = hostport, port;
  if (!hostport.empty() && hostport[0] == '[') {
    size_t close = hostport.find(']');
    if (close != std::string::npos) {
      size_t colon = hostport.find(':', close);
      if (colon != std::string::npos) {
        host = hostport.substr(0, colon);
        port = hostport.substr(colon + 1);
      }
    }
  } else {
    size_t colon = hostport.rfind(':');
    if (colon != std::string::npos) {
      host = hostport.substr(0, colon);
      port = hostport.substr(colon + 1);
    }
  }
  url = host + "(" + (port.empty() ? std::string("443") : port) + ")";
  for (char& c : url)
    if (c == ':') c = '+';
}
