// The WAN client's message catalogue (section "rclient" of the group "client_lib") and its status
// values.
//
// WAN statuses are the results of the transport and of the reply parser; the server never sends them.
// The server's verdict on an RPC travels in the reply's Status part (RClient_Status).
#pragma once

#include <string>

#include "base/imsg.h"

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

// Numbers of the catalogue entries.
enum : int {
  RCLIENT_MSG_SETOPT = 0,          // "Error \"%d\" (%s) setting option %d.\n"
  RCLIENT_MSG_EXECUTE = 1,         // "Error executing request %d (%s).\n"
  RCLIENT_MSG_AUTH = 2,            // "Authorization failure, check username and password.\n"
  RCLIENT_MSG_NOT_FOUND = 3,       // "Not found.\n"
  RCLIENT_MSG_FORM = 4,            // "Error adding form fields to POST request.\n"
  RCLIENT_MSG_FAMILY_OID = 5,
  RCLIENT_MSG_REPLICA_OID = 6,
  RCLIENT_MSG_INVALID_OID = 7,
  RCLIENT_MSG_STORAGE = 8,
  RCLIENT_MSG_RPC_INCOMPLETE = 9,  // "Unable to complete RPC to WAN server."
  RCLIENT_MSG_RPC_FAILED = 10,     // "WAN RPC \"%s\" failed : WAN status code %d, status code %d, message \"%s\"."
  RCLIENT_MSG_RELOGIN = 11,        // "Unable to establish new WAN session using cached credentials.\n"
  RCLIENT_MSG_HTTP_STATUS = 12,    // "Status code from RPC = %d"
  RCLIENT_MSG_SSL_CONFIG = 13,     // "Error in SSL configuration = %d (%s).\n"
  RCLIENT_MSG_STALLED = 14,        // "Transfer stalled: fewer than %ld bytes in %ld ms.\n"
  RCLIENT_MSG_CONNECT_TIMEOUT = 15,  // "No connection to the WAN server within %ld ms.\n"
  RCLIENT_MSG_REPLY_TOO_LARGE = 16,  // "Reply part larger than %ld bytes refused.\n"
};

extern const _imsg_message_table_t _rclient_msg_table;

// Expands a catalogue entry.
std::string rclient_msg(int number, ...);
