// The exceptions of the WAN client's reply parsing. They never leave a command: run() turns them
// into the command's WAN status (the `code` field).
//
//   RClient_Parse_Exception                 any parse failure; `code` is the WAN status
//     RClient_Format_Error_Exception        30007 bad line, boundary or header; 30008/30011 for parts
//                                           whose length cannot be accepted
//     RClient_Premature_EOF_Exception       30006 the data ends inside a line or a part: more may come
//     RClient_Malformed_Response_Exception  30009 an item is missing or not a number
//     RClient_Listener_Exception            30013 a listener refuses further data; stops the transfer
#pragma once

#include "wan/rclient_messages.h"

class RClient_Parse_Exception {
 public:
  explicit RClient_Parse_Exception(int c) : code(c) {}
  virtual ~RClient_Parse_Exception() = default;
  int code;
};

class RClient_Format_Error_Exception : public RClient_Parse_Exception {
 public:
  explicit RClient_Format_Error_Exception(int c = RCLIENT_ST_FORMAT) : RClient_Parse_Exception(c) {}
};

class RClient_Premature_EOF_Exception : public RClient_Parse_Exception {
 public:
  explicit RClient_Premature_EOF_Exception(int c = RCLIENT_ST_PREMATURE_EOF) : RClient_Parse_Exception(c) {}
};

class RClient_Malformed_Response_Exception : public RClient_Parse_Exception {
 public:
  explicit RClient_Malformed_Response_Exception(int c = RCLIENT_ST_MALFORMED_ITEM) : RClient_Parse_Exception(c) {}
};

class RClient_Listener_Exception : public RClient_Parse_Exception {
 public:
  explicit RClient_Listener_Exception(int c = RCLIENT_ST_LISTENER) : RClient_Parse_Exception(c) {}
};
