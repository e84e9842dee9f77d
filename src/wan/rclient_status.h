// RClient_Status: the server's verdict on one RPC, from the reply's Status part. `code` stays -1
// until a Status part has been read; `message` holds the server's text (HasNonOkMsg 1) and whatever
// the client appends while failing.
#pragma once

#include <cstdint>
#include <string>

class RClient_Status {
 public:
  virtual ~RClient_Status() = default;
  std::string message;
  int32_t code = -1;
};
