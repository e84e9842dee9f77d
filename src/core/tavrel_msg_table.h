// The agent's message catalogue _tvr_lib_lib_msg_table (section "lib_tavrel_agent", prefix "tvr_lib"):
// printf formats addressed by index 0-131. It is the only copy: every library of the agent takes its
// texts from here. Operations pick a message at the place of failure,
// expand it with Tavrel_Util::format and append it to (or assign it to) their status message; no table
// maps a status number to a text.
//
// The names below give the index and, in the comment, the arguments in order. Messages 125 to 131 are
// the view storage's own texts (ownership of the storage and cache directory, the view lock, write
// failures), which the catalogue of the system does not have; they follow it under the same section.
//
// _tvr_base_msg_table holds the base library's message 46 ("%s failed: %s\n", a function name and
// an error text); its other numbers are empty.
#pragma once

#include "base/imsg.h"

extern const _imsg_message_table_t _tvr_lib_lib_msg_table;
extern const _imsg_message_table_t _tvr_base_msg_table;

enum : int {
  TVR_LIB_CREATE_STORAGE = 0,           // errno, storage path
  TVR_LIB_NO_VIEW_UUID = 1,             // storage path
  TVR_LIB_NO_VIEW_TYPE = 2,             // storage path
  TVR_LIB_NO_CLTXT_DIR = 3,             // storage path
  TVR_LIB_BAD_SERVER_INFO = 4,          // storage path
  TVR_LIB_NO_SERVER_TAG = 5,            // storage path
  TVR_LIB_VIEW_EXISTS = 6,              // storage path
  TVR_LIB_PARSE_ERROR = 7,              // storage path (or file)
  TVR_LIB_KFSM_PARSE = 8,               // rpc number
  TVR_LIB_KFSM_REPLY = 9,               // rpc number
  TVR_LIB_OUT_OF_MEMORY = 10,           // -
  TVR_LIB_NO_TEXT_MODE = 11,            // storage path
  TVR_LIB_ALREADY_MOUNTED = 12,         // SILO tag
  TVR_LIB_NOT_MOUNTED = 13,             // SILO tag
  TVR_LIB_NO_VIEW_INFO = 14,            // -
  TVR_LIB_CLTXT_FETCH = 15,             // path or location
  TVR_LIB_DISCONNECTED = 16,            // -
  TVR_LIB_CANNOT_CONNECT = 17,          // server URL
  TVR_LIB_MOUNT_FAILED = 18,            // SILO tag
  TVR_LIB_FILE_EXISTS = 19,             // path
  TVR_LIB_RPC_FAILED = 20,              // -
  TVR_LIB_BAD_VIEW_UUID = 21,           // uuid text, storage path
  TVR_LIB_UNRECOGNIZED_IPC = 22,        // request name
  TVR_LIB_REMOUNT_FAILED = 23,          // -
  TVR_LIB_NO_DOCUMENT = 24,             // -
  TVR_LIB_NO_ROOT = 25,                 // -
  TVR_LIB_NO_VERSION = 26,              // -
  TVR_LIB_NOT_IN_REQUEST = 27,          // element name
  TVR_LIB_NO_MOUNTED_SILO = 28,         // path, original path
  TVR_LIB_SILO_ROOT = 29,               // SILO root, path, error text
  TVR_LIB_LOOKUP_OBJECT = 30,           // name, SILO, error text
  TVR_LIB_LOOKUP_INCOMPLETE = 31,       // path, rest of the path
  TVR_LIB_READLINK = 32,                // path, error text
  TVR_LIB_KFSM_XSTAT = 33,              // error text
  TVR_LIB_FLUSH_ENTRY = 34,             // path, error text
  TVR_LIB_CLTXT_TEMP = 35,              // directory, error text
  TVR_LIB_CLTXT_RENAME = 36,            // temporary file, cleartext file, error text
  TVR_LIB_CACHE_INVALID = 37,           // cache directory
  TVR_LIB_CACHE_NESTED = 38,            // cache directory
  TVR_LIB_SPLIT_PATH = 39,              // path
  TVR_LIB_PARENT_DBID = 40,             // parent path
  TVR_LIB_NOT_A_VERSION = 41,           // path, mtype
  TVR_LIB_DB_INIT = 42,                 // status
  TVR_LIB_CONVERT_VIEWPVT_DIR = 43,     // path, error text
  TVR_LIB_CONSTRUCT_CLTXT = 44,         // name, error text
  TVR_LIB_BG_READDIR = 45,              // SILO uuid, dbid
  TVR_LIB_CACHE_ELEMENT_RULES = 46,     // -
  TVR_LIB_SET_LOAD_RULES = 47,          // -
  TVR_LIB_GET_LOAD_RULES = 48,          // -
  TVR_LIB_UNKNOWN_OID = 49,             // oid, SILO
  TVR_LIB_UPDATE_ADD = 50,              // name, directory oid, error text
  TVR_LIB_UPDATE_SCOPE_OID = 51,        // scope oid
  TVR_LIB_REMOVE_LOAD_RULE = 52,        // rule
  TVR_LIB_ADD_LOAD_RULE = 53,           // rule
  TVR_LIB_UPDATE_START_SCOPE = 54,      // scope, error text
  TVR_LIB_UPDATE_START_SCOPE_SILO = 55, // scope, SILO, error text
  TVR_LIB_UPDATE_END_SCOPE = 56,        // scope, error text
  TVR_LIB_UPDATE_END_SCOPE_SILO = 57,   // scope, SILO, error text
  TVR_LIB_UPDATE_MARK_REMOVED = 58,     // SILO uuid, directory oid, path, error text
  TVR_LIB_UPDATE_OLD_GN = 59,           // error text
  TVR_LIB_SURGICAL_END_SCOPE = 60,      // scope
  TVR_LIB_DIR_IN_TWO_RULES = 61,        // path
  TVR_LIB_UPDATE_START = 62,            // status, error text
  TVR_LIB_UPDATE_RPC = 63,              // status, error text
  TVR_LIB_UPDATE_FAILED = 64,           // status, error text
  TVR_LIB_UPDATE_LOG_TITLE = 65,        // -
  TVR_LIB_VIEW_DB_ACCESS = 66,          // -
  TVR_LIB_GET_LOAD_SCOPES = 67,         // -
  TVR_LIB_UPDATE_LOG_OPEN = 68,         // path, error text
  TVR_LIB_QUEUE_BG_CLTXT = 69,          // version, oid, SILO uuid, error code
  TVR_LIB_UPDATE_SILO_ROOT = 70,        // path
  TVR_LIB_PARENT_VERSION = 71,          // path, parent element oid, error text
  TVR_LIB_SILO_OBJ_NOT_IN_DB = 72,      // SILO, object dbid, element dbid
  TVR_LIB_SHUTTING_DOWN = 73,           // -
  TVR_LIB_UPDATE_RUNNING = 74,          // -
  TVR_LIB_UNMOUNT_FAILED = 75,          // SILO tag, error text
  TVR_LIB_UNMOUNTED = 76,               // SILO tag
  TVR_LIB_UNMOUNT_INCOMPLETE = 77,      // -
  TVR_LIB_PRESERVE_TIME = 78,           // path, error text
  TVR_LIB_HIJACK_CHECKED_OUT = 79,      // path
  TVR_LIB_HIJACK_NOT_VERSIONED = 80,    // path
  TVR_LIB_HIJACK_NOT_FILE = 81,         // path
  TVR_LIB_HIJACK_ALREADY = 82,          // path
  TVR_LIB_HIJACK_FAILED = 83,           // path, error text
  TVR_LIB_UNHIJACK_SILO_ROOT = 84,      // path
  TVR_LIB_UNHIJACK_FAILED = 85,         // path, error text
  TVR_LIB_KFSM_UNREGISTER = 86,         // error text
  TVR_LIB_REMOUNT_STATUS = 87,          // SILO tag, status
  TVR_LIB_REMOUNTED = 88,               // SILO tag
  TVR_LIB_READDIR_DBID = 89,            // path
  TVR_LIB_BAD_AGGREGATED_STATE = 90,    // state
  TVR_LIB_GET_METADATA = 91,            // path
  TVR_LIB_WHITE_OUT_CHECK = 92,         // path, error text
  TVR_LIB_LIST_HIJACKS = 93,            // error text
  TVR_LIB_HAS_HIJACKS = 94,             // error text
  TVR_LIB_LIST_CHECKOUTS = 95,          // error text
  TVR_LIB_HAS_CHECKOUTS = 96,           // error text
  TVR_LIB_RESTORE_PATH = 97,            // path, error text
  TVR_LIB_RESTORE_GN = 98,              // error text
  TVR_LIB_RESTORE_FLUSH = 99,           // error text
  TVR_LIB_REMOVE_CHECKOUT = 100,        // element oid, replica uuid
  TVR_LIB_SET_CHECKOUT = 101,           // path, error text
  TVR_LIB_READ_BACK_DIR = 102,          // path
  TVR_LIB_MOVE_READDIR = 103,           // source parent
  TVR_LIB_ADOPT_ELEMENT = 104,          // path, error text
  TVR_LIB_NAMESPACE_UPDATE = 105,       // path, error text
  TVR_LIB_LOAD_RULES_NESTED = 106,      // rule, rule
  TVR_LIB_NO_IOCTL = 107,               // -
  TVR_LIB_FLUSH_VIEW = 108,             // error text
  TVR_LIB_VALIDATE_LOAD_RULE = 109,     // rule
  TVR_LIB_BG_CLTXT = 110,               // status, error text
  TVR_LIB_CLTXT_IO = 111,               // path
  TVR_LIB_KFSM_EVENT = 112,             // error text
  TVR_LIB_KFSM_LPC = 113,               // status, error text
  TVR_LIB_NO_CACHED_CLTXT = 114,        // path
  TVR_LIB_CACHE_MINIMUM = 115,          // size, minimum
  TVR_LIB_CACHE_SIZE = 116,             // size, error text
  TVR_LIB_CACHE_SAVE = 117,             // -
  TVR_LIB_LOAD_RULE_DOTDOT = 118,       // rule
  TVR_LIB_VIEW_PRIVATE_PATHS = 119,     // error text
  TVR_LIB_NOT_SILO_ROOT = 120,          // path
  TVR_LIB_LOAD_RULE_COMMENT = 121,      // -
  TVR_LIB_CREATE_CACHE_DIR = 122,       // error text, cache directory
  TVR_LIB_WRONG_HOST = 123,             // recorded host
  TVR_LIB_FLUSH_OID = 124,              // oid, replica uuid, error text
  TVR_LIB_STORAGE_NOT_DIR = 125,        // storage path
  TVR_LIB_STORAGE_OWNER = 126,          // storage path, owner uid, our uid
  TVR_LIB_VIEW_IN_USE = 127,            // storage path, pid
  TVR_LIB_LOCK_ERROR = 128,             // error text, lock file
  TVR_LIB_CACHE_OWNER = 129,            // cache directory, owner uid, our uid
  TVR_LIB_CACHE_RELATIVE = 130,         // cache directory
  TVR_LIB_WRITE_FILE = 131,             // file, error text
  TVR_LIB_MSG_COUNT = 132,
  TVR_LIB_SYSTEM_MSG_COUNT = 125,       // numbers below this are the system's catalogue
};

enum : int { TVR_BASE_MSG_CALL_FAILED = 46 };  // function name, error text
