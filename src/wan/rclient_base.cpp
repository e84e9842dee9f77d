#include "wan/rclient_base.h"

#include "proto/wan_names.h"

using namespace tavrel_wan;

namespace {
const std::string kLoginPrefix = "x-ondrel-login-";

// "x-ondrel-login-credentials" -> "credentials:"
std::string login_suffix(const char* full) { return std::string(full).substr(kLoginPrefix.size()) + ":"; }
}  // namespace

const std::string RClient_Base::MIN_PROTOCOL_VER = ARG_MIN_PROTOCOL_VER;
const std::string RClient_Base::MAX_PROTOCOL_VER = ARG_MAX_PROTOCOL_VER;
const std::string RClient_Base::CLIENT_TYPE = ARG_CLIENT_TYPE;
const std::string RClient_Base::HDR_EXPECT_CONTINUE = "Expect:";
const std::string RClient_Base::HDR_ACCEPT_ENCODING = "Accept-Encoding:";
const std::string RClient_Base::HDR_DEFLATE = "deflate";
const std::string RClient_Base::HDR_RPC_NAME = std::string(tavrel_wan::HDR_RPC_NAME) + ":";
const std::string RClient_Base::HDR_LOGIN_PREFIX = kLoginPrefix;
const std::string RClient_Base::HDR_PATH = "Path=";
const std::string RClient_Base::HDR_USER_AGENT = "User-Agent:";
const std::string RClient_Base::HDR_JSESSIONID = std::string(COOKIE_JSESSIONID) + "=";
const std::string RClient_Base::HDR_SESSION = std::string(COOKIE_SESSION) + "=";
const std::string RClient_Base::VERSION_STRING = "TVR / 1.0.0.0";
const std::string RClient_Base::SEMICOLON = ";";
const std::string RClient_Base::HDR_CONTENT_TYPE = "Content-Type:";
const std::string RClient_Base::HDR_MULTIPART_FORMDATA = "multipart/form-data";
const std::string RClient_Base::HDR_COOKIE = "Cookie:";
const std::string RClient_Base::CONTENT_ID_STATUS = PART_STATUS;
const std::string RClient_Base::CONTENT_ID = tavrel_wan::CONTENT_ID;
const std::string RClient_Base::CONTENT_LENGTH = tavrel_wan::CONTENT_LENGTH;
const std::string RClient_Base::HAS_NON_OK_MSG = tavrel_wan::HAS_NON_OK_MSG;
const std::string RClient_Base::STATUS = tavrel_wan::STATUS;
const std::string RClient_Base::HDR_PRIMARY_GROUP = login_suffix(HDR_LOGIN_PRIMARY_GROUP);
const std::string RClient_Base::HDR_GROUPS_LIST = login_suffix(HDR_LOGIN_GROUPS_LIST);
const std::string RClient_Base::HDR_CREDENTIALS = login_suffix(HDR_LOGIN_CREDENTIALS);
