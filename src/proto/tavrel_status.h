// Status numbers of the agent and of the WAN client, and the names the command line prints.
//
//   0              success
//   3              the view lock is held by another process
//   1001-1088      tbs_status_t of the name service, the database, the codec, the kernel channel and
//                  the server (base/tbs.h)
//   20001-20059    the agent's own: what an operation's reply carries in its status-code
//   30001-30013    the WAN client's: results of its transport and reply parser; the server never
//                  sends them, its verdict on an RPC travels as a 1000-range status
//
// Every program (agent, module daemon, command line, server, tests) names these numbers from here.
#pragma once

#include <string>

#include "base/tbs.h"

enum : int {
  TAVREL_ST_OK = 0,
  TAVREL_ST_VIEW_LOCKED = 3,  // the view lock is held by another process
  TAVREL_ST_FAILURE = 20001,
  TAVREL_ST_NOT_FOUND = 20002,
  TAVREL_ST_NO_OBJECT = 20003,
  TAVREL_ST_MKPATH = 20005,
  TAVREL_ST_METADATA_FILE = 20006,
  TAVREL_ST_CACHE_START = 20007,
  TAVREL_ST_WRITE_FILE = 20008,
  TAVREL_ST_VIEW_IDENTITY = 20009,
  TAVREL_ST_PIPE = 20010,
  TAVREL_ST_MKFIFO = 20011,
  TAVREL_ST_CONN_READ = 20013,
  TAVREL_ST_RESP_WRITE = 20016,
  TAVREL_ST_REQ_PIPE = 20017,
  TAVREL_ST_STORAGE_EXISTS = 20018,
  TAVREL_ST_NO_VIEW_INFO = 20019,
  TAVREL_ST_UNRECOGNIZED = 20020,
  TAVREL_ST_MALFORMED = 20021,
  TAVREL_ST_SERVER_INFO = 20022,
  TAVREL_ST_NO_STORAGE = 20023,
  TAVREL_ST_VERSION = 20024,
  TAVREL_ST_VIEW_ENDING = 20026,
  TAVREL_ST_KFSM_DECODE = 20027,  // a view-protocol request could not be decoded
  TAVREL_ST_KFSM_ENCODE = 20028,  // a view-protocol reply could not be encoded
  TAVREL_ST_INTERNAL = 20031,
  TAVREL_ST_MOUNT_CONFLICT = 20032,
  TAVREL_ST_DISCONNECTED = 20033,
  TAVREL_ST_CANNOT_CONNECT = 20034,
  TAVREL_ST_SILO_INFO = 20035,
  TAVREL_ST_SILO_NOT_IN_TABLE = 20036,
  TAVREL_ST_KERNEL_MOUNT = 20037,
  TAVREL_ST_EXIT_REQUESTED = 20038,
  TAVREL_ST_TIMED_OUT = 20039,
  TAVREL_ST_SELECT = 20040,
  TAVREL_ST_THREAD_START = 20041,
  TAVREL_ST_RESTORE_CLIENT = 20042,
  TAVREL_ST_MOUNTED_FILE = 20043,
  TAVREL_ST_UPDATE_RUNNING = 20044,
  TAVREL_ST_REMOUNT = 20045,
  TAVREL_ST_ALREADY_MOUNTED = 20046,
  TAVREL_ST_NOT_MOUNTED = 20047,
  TAVREL_ST_WAN_CALL = 20048,
  TAVREL_ST_WAN_CALL_2 = 20049,
  TAVREL_ST_LIST_DIR = 20050,
  TAVREL_ST_CACHE_NOT_EMPTY = 20051,
  TAVREL_ST_CACHE_NESTED = 20052,
  TAVREL_ST_UPDATE_LOG = 20053,
  TAVREL_ST_LOAD_RULE_COMMENT = 20054,
  TAVREL_ST_LOAD_RULE_NESTED = 20055,
  TAVREL_ST_BG_METADATA = 20056,
  TAVREL_ST_ENCODING = 20057,
  TAVREL_ST_UPDATE_IN_PROGRESS = 20058,
  TAVREL_ST_WRONG_HOST = 20059,
};

enum : int {
  RCLIENT_ST_OK = 0,
  RCLIENT_ST_HTTP_STATUS = 30001,      // other HTTP status, or reply incomplete
  RCLIENT_ST_AUTH = 30002,             // authorisation refused (HTTP 401 or 403)
  RCLIENT_ST_TRANSPORT = 30003,        // transport, TLS, time limit or option failure
  RCLIENT_ST_NOT_FOUND = 30004,        // HTTP 404
  RCLIENT_ST_PREMATURE_EOF = 30006,    // the data ends inside a line or a part
  RCLIENT_ST_FORMAT = 30007,           // bad line, boundary or part header
  RCLIENT_ST_CONTENT_LENGTH = 30008,   // bad Content-Length of a part
  RCLIENT_ST_MALFORMED_ITEM = 30009,   // an item of a part is missing or not a number
  RCLIENT_ST_MARSHAL = 30010,          // an argument could not be marshalled
  RCLIENT_ST_NO_MEMORY = 30011,        // a part's body cannot be held
  RCLIENT_ST_LISTENER = 30013,         // a listener refused further data
};

// The upper-case name of an agent status as the command line prints it ("OK", "VIEW_ENDING", ...),
// or "UNKNOWN" for a number that is not one of the agent's.
const char* tavrel_status_name(int status);

// A short text for a status of the 1000 range, as the agent's messages give it: "not found",
// "internal error", "invalid argument", "service not available", otherwise "error <number>".
std::string tbs_status_text(tbs_status_t status);
