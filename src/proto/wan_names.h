// Names and constants of the WAN protocol shared by the agent's client, the server and tests:
// RPC names, request argument names, reply part identifiers and item names, the reply boundary,
// URL segments, the protocol version, and the automatic load scope.
//
// Item and part names are matched exactly and case-sensitively on both sides.
#pragma once

#include <string>

#include "base/tbs.h"

namespace tavrel_wan {

// The context the agent appends to the user's server URL.
inline constexpr const char* URL_CONTEXT = "tavrel";
// Paths below the base URL.
inline constexpr const char* PATH_LOGOUT = "/logout";
inline constexpr const char* PATH_CLEARTEXT = "/cltxt/";  // + replica dstr / oid dstr / text mode
inline constexpr const char* PATH_CLIENT = "/client";     // client API (session or admin token)
inline constexpr const char* PATH_ADMIN = "/admin";       // admin API (admin token)

inline constexpr int PROTOCOL_VERSION = 6;

// RPC names (form field "rpc").
inline constexpr const char* RPC_LOGIN = "Tavrel_Orlen::login_rpc";
inline constexpr const char* RPC_GET_SILO_INFO = "Tavrel_Orlen::getsiloinfo_rpc";
inline constexpr const char* RPC_GET_CONFIG_SPEC = "Tavrel_Orlen::getconfigspec_rpc";
inline constexpr const char* RPC_SET_CONFIG_SPEC = "Tavrel_Orlen::setconfigspec_rpc";
inline constexpr const char* RPC_GET_METADATA = "Tavrel_Orlen::getmetadata_rpc";
inline constexpr const char* RPC_LOOKUP = "Tavrel_Orlen::lookup_rpc";
inline constexpr const char* RPC_GET_DIRECTORY_CONTENTS = "Tavrel_Orlen::get_directory_contents_rpc";
inline constexpr const char* RPC_SYNCFETCH = "Tavrel_Orlen::syncfetch_rpc";

// Request form fields.
inline constexpr const char* FIELD_RPC = "rpc";
inline constexpr const char* FIELD_RPC_ARGS = "rpcargs";

// Request headers (names without the colon).
inline constexpr const char* HDR_RPC_NAME = "x-ondrel-rpc-name";
inline constexpr const char* HDR_LOGIN_CREDENTIALS = "x-ondrel-login-credentials";
inline constexpr const char* HDR_LOGIN_PRIMARY_GROUP = "x-ondrel-login-primary-group";
inline constexpr const char* HDR_LOGIN_GROUPS_LIST = "x-ondrel-login-groups-list";
inline constexpr const char* HDR_ADMIN_TOKEN = "x-tavrel-admin-token";
inline constexpr const char* COOKIE_JSESSIONID = "JSESSIONID";
inline constexpr const char* COOKIE_SESSION = "Session";

// Request arguments.
inline constexpr const char* ARG_MIN_PROTOCOL_VER = "min_clnt_proto_ver";
inline constexpr const char* ARG_MAX_PROTOCOL_VER = "max_clnt_proto_ver";
inline constexpr const char* ARG_CLIENT_TYPE = "clienttype";
inline constexpr const char* ARG_VIEW_UUID = "ViewUuid";
inline constexpr const char* ARG_SILO_UUID = "SiloUuid";
inline constexpr const char* ARG_SILO_TAG = "SiloTag";
inline constexpr const char* ARG_VERSION_OID = "VersionOid";
inline constexpr const char* ARG_ELEMENT_OID = "ElementOid";
inline constexpr const char* ARG_PATH_NAME = "PathName";
inline constexpr const char* ARG_SILO_PATH_NAME = "SiloPathName";
inline constexpr const char* ARG_LEAF_NAME = "LeafName";
inline constexpr const char* ARG_FREEZE_LOAD_SCOPES = "FreezeLoadScopes";
inline constexpr const char* ARG_NUM_ELEM_RULES = "NumElemRules";
inline constexpr const char* ARG_ELEM_RULE = "ElemRule";
inline constexpr const char* ARG_NUM_LOAD_RULES = "NumLoadRules";
inline constexpr const char* ARG_LOAD_RULE = "LoadRule";
inline constexpr const char* ARG_FORCE_UPDATE = "ForceUpdate";
inline constexpr const char* ARG_VIEW_GN = "ViewGn";
inline constexpr const char* ARG_FORCE = "Force";
inline constexpr const char* ARG_RESUME = "Resume";
inline constexpr const char* ARG_UPDATE_ODS = "UpdateOndemandScopes";
inline constexpr const char* ARG_USE_PATHS = "UsePaths";
inline constexpr const char* ARG_NUM_SCOPES = "NumScopes";
inline constexpr const char* ARG_SCOPE_PATH = "ScopePath";
inline constexpr const char* ARG_SCOPE_OID = "ScopeOid";
inline constexpr const char* ARG_SCOPE_GN = "ScopeGn";

// Reply document.
inline constexpr const char* DEFAULT_BOUNDARY = "X--------------nXjq59chSaB20";
inline constexpr const char* DECL_PREFIX = "Content-Type: multipart/mixed; boundary=";
inline constexpr const char* CONTENT_ID = "Content-ID";
inline constexpr const char* CONTENT_LENGTH = "Content-Length";
inline constexpr const char* STATUS = "Status";
inline constexpr const char* HAS_NON_OK_MSG = "HasNonOkMsg";
inline constexpr unsigned MAX_HEADER_LINE = 2047;  // bytes before CR LF

// Reply parts.
inline constexpr const char* PART_STATUS = "Status";
inline constexpr const char* PART_OBJ_SCOPE = "Xdr_ObjScope";
inline constexpr const char* PART_OBJ_METADATA = "Xdr_ObjMetadata";
inline constexpr const char* PART_ELEM_METADATA = "Xdr_ElemMetadata";
inline constexpr const char* PART_DIRECTORY_ENTRY = "XdrDirectoryEntry";
inline constexpr const char* PART_SILO_INFO = "SiloInfo";
inline constexpr const char* PART_CSPEC_ELEMENT_RULES = "CspecElementRules";
inline constexpr const char* PART_CSPEC_TKM_ELEMENT_RULES = "CspecTkmElementRules";
inline constexpr const char* PART_CSPEC_LOAD_RULES = "CspecLoadRules";
inline constexpr const char* PART_CSPEC_FRZ_LOAD_SCOPES = "CspecFrzLoadScopes";
inline constexpr const char* PART_LOAD_RULE_SILO_TAG = "LoadRuleSiloTag";
inline constexpr const char* PART_VIEW_INFO = "ViewInfo";
inline constexpr const char* PART_SYNC_ELEM_DATA = "SyncElemData";
inline constexpr const char* PART_SYNC_FETCH_BEGIN = "SyncFetchBegin";
inline constexpr const char* PART_SYNC_FETCH_END = "SyncFetchEnd";
inline constexpr const char* PART_SILO_FETCH_BEGIN = "SiloFetchBegin";
inline constexpr const char* PART_SILO_FETCH_END = "SiloFetchEnd";
inline constexpr const char* PART_SCOPE_FETCH_BEGIN = "ScopeFetchBegin";
inline constexpr const char* PART_SCOPE_FETCH_END = "ScopeFetchEnd";
inline constexpr const char* PART_SYNC_ELEM_INFO = "SyncElemInfo";

// Reply items.
inline constexpr const char* ITEM_SILO_FAMILY_UUID = "SiloFamilyUuid";
inline constexpr const char* ITEM_SILO_REPLICA_UUID = "SiloReplicaUuid";
inline constexpr const char* ITEM_SILO_STORAGE = "SiloStorage";
inline constexpr const char* ITEM_IS_PUBLIC = "IsPublic";
inline constexpr const char* ITEM_IS_PROJECT = "IsProject";
inline constexpr const char* ITEM_SILO_TAG = "SiloTag";
inline constexpr const char* ITEM_CURRENT_OPERATION_GN = "CurrentOperationGN";
inline constexpr const char* ITEM_VIEW_GN = "ViewGN";
inline constexpr const char* ITEM_OPERATION_GN = "OperationGn";
inline constexpr const char* ITEM_REPLICA_UUID = "ReplicaUuid";
inline constexpr const char* ITEM_FAMILY_OID = "FamilyOid";

// The automatic load scope: holds everything loaded on demand outside load rules.
inline constexpr const char* AUTOMATIC_LOAD_SCOPE_NAME = "Automatic";

}  // namespace tavrel_wan

// 00000000-0000-0000-0000-00000000a000: no derived load-scope OID can equal it in practice.
extern const tbs_oid_s AUTOMATIC_LOAD_SCOPE_OID;

// OID of the load scope of a load rule: the first 16 bytes of SHA-256("tavrel-load-scope:" + path),
// where `path` is the rule's tag-prefixed path as written after "load " ("/proj/src"). Agent and
// server derive it the same way, so the server can name a scope the agent made on its own.
tbs_oid_s tavrel_load_scope_oid(const std::string& path);
