// Message texts of the view object and the mount table, addressed by number.
//
// _tvr_view_msg_table uses the numbers of the agent's catalogue (section "lib_tavrel_agent", prefix
// "tvr_lib") for the texts the view needs: 0, 1, 2, 4, 5, 6, 7, 11, 14, 21, 37, 38, 42, 115, 116,
// 117, 122, 123. Numbers 125 to 131 are texts of the view that the catalogue does not have yet (storage
// ownership, the lock holder, cache directory ownership, write failures). Numbers not listed are empty
// and expand to "tvr_lib: unknown message N".
//
// _tvr_view_base_msg_table holds message 46 of the base library's catalogue ("%s failed: %s\n", with a
// function name and an error text).
#pragma once

#include "base/imsg.h"

extern const _imsg_message_table_t _tvr_view_msg_table;
extern const _imsg_message_table_t _tvr_view_base_msg_table;

enum : int {
  TVR_MSG_CREATE_STORAGE = 0,     // "Error \"%d\" creating view storage directory \"%s\"."
  TVR_MSG_NO_UUID = 1,            // storage path
  TVR_MSG_NO_VIEW_TYPE = 2,       // storage path
  TVR_MSG_BAD_SERVER_INFO = 4,    // storage path
  TVR_MSG_NO_SERVER_TAG = 5,      // storage path
  TVR_MSG_VIEW_EXISTS = 6,        // storage path
  TVR_MSG_PARSE_ERROR = 7,        // file
  TVR_MSG_NO_TEXT_MODE = 11,      // storage path
  TVR_MSG_NO_VIEW_INFO = 14,      // no argument
  TVR_MSG_BAD_UUID = 21,          // uuid text, storage path
  TVR_MSG_CACHE_INVALID = 37,     // cache directory
  TVR_MSG_CACHE_NESTED = 38,      // cache directory
  TVR_MSG_DB_INIT = 42,           // status
  TVR_MSG_CACHE_MINIMUM = 115,    // size, minimum
  TVR_MSG_CACHE_SIZE = 116,       // size, error text
  TVR_MSG_CACHE_SAVE = 117,       // no argument
  TVR_MSG_CACHE_CREATE = 122,     // error text, cache directory
  TVR_MSG_WRONG_HOST = 123,       // recorded host
  TVR_MSG_STORAGE_NOT_DIR = 125,  // storage path
  TVR_MSG_STORAGE_OWNER = 126,    // storage path, owner uid, our uid
  TVR_MSG_VIEW_IN_USE = 127,      // storage path, pid
  TVR_MSG_LOCK_ERROR = 128,       // error text, lock file
  TVR_MSG_CACHE_OWNER = 129,      // cache directory, owner uid, our uid
  TVR_MSG_CACHE_RELATIVE = 130,   // cache directory
  TVR_MSG_WRITE_FILE = 131,       // file, error text
};

enum : int { TVR_BASE_MSG_CALL_FAILED = 46 };  // function name, error text
