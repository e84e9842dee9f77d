// The error that server code throws to end a request (or an admin operation) with a status.
//
// The status is a number of the 1000 range that goes to the client in the reply's Status part:
// 1002 not found, 1052 no version selected, 1067 exists, 1072 bad argument, 1087 stale, 1008 internal.
// The message is the text the user sees. Request handlers catch it at their boundary; nothing below
// the handlers writes a reply.
#pragma once

#include <stdexcept>
#include <string>

#include "base/tbs.h"

namespace tavrel_server {

class ServerError : public std::runtime_error {
 public:
  ServerError(tbs_status_t code, const std::string& message) : std::runtime_error(message), code_(code) {}
  tbs_status_t code() const { return code_; }

 private:
  tbs_status_t code_;
};

[[noreturn]] inline void fail(tbs_status_t code, const std::string& message) { throw ServerError(code, message); }

}  // namespace tavrel_server
