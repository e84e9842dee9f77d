// RClient_Base: the texts of the WAN conversation as the client spells them: request header lines,
// cookie names, form fields and the items of the reply document. Names that the server side shares
// come from the one codec in src/proto (proto/wan_names.h); the client's header forms add the colon.
//
// Header constants end in ":" and are written with no blank after the colon ("User-Agent:TVR / 1.0.0.0").
#pragma once

#include <string>

struct RClient_Base {
  static const std::string MIN_PROTOCOL_VER;        // "min_clnt_proto_ver"
  static const std::string MAX_PROTOCOL_VER;        // "max_clnt_proto_ver"
  static const std::string CLIENT_TYPE;             // "clienttype"
  static const std::string HDR_EXPECT_CONTINUE;     // "Expect:"
  static const std::string HDR_ACCEPT_ENCODING;     // "Accept-Encoding:"
  static const std::string HDR_DEFLATE;             // "deflate"
  static const std::string HDR_RPC_NAME;            // "x-ondrel-rpc-name:"
  static const std::string HDR_LOGIN_PREFIX;        // "x-ondrel-login-"
  static const std::string HDR_PATH;                // "Path="
  static const std::string HDR_USER_AGENT;          // "User-Agent:"
  static const std::string HDR_JSESSIONID;          // "JSESSIONID="
  static const std::string HDR_SESSION;             // "Session="
  static const std::string VERSION_STRING;          // "TVR / 1.0.0.0"
  static const std::string SEMICOLON;               // ";"
  static const std::string HDR_CONTENT_TYPE;        // "Content-Type:"
  static const std::string HDR_MULTIPART_FORMDATA;  // "multipart/form-data"
  static const std::string HDR_COOKIE;              // "Cookie:"
  static const std::string CONTENT_ID_STATUS;       // "Status"
  static const std::string CONTENT_ID;              // "Content-ID"
  static const std::string CONTENT_LENGTH;          // "Content-Length"
  static const std::string HAS_NON_OK_MSG;          // "HasNonOkMsg"
  static const std::string STATUS;                  // "Status"
  static const std::string HDR_PRIMARY_GROUP;       // "primary-group:"
  static const std::string HDR_GROUPS_LIST;         // "groups-list:"
  static const std::string HDR_CREDENTIALS;         // "credentials:"
};
