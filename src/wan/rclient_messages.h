// The WAN client's message catalogue (section "client_lib", prefix "rclient"). Its statuses,
// RCLIENT_ST_*, are the results of the transport and of the reply parser (proto/tavrel_status.h); the
// server never sends them. The server's verdict on an RPC travels in the reply's Status part
// (RClient_Status).
#pragma once

#include <string>

#include "base/imsg.h"
#include "proto/tavrel_status.h"  // the RCLIENT_ST_ statuses

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
  RCLIENT_MSG_REQUEST_TIMEOUT = 17,  // "Request not finished within %ld ms.\n"
};

extern const _imsg_message_table_t _rclient_msg_table;

// Expands a catalogue entry.
std::string rclient_msg(int number, ...);
