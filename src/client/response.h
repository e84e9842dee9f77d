// Response: one reply of the agent, parsed. The root is the operation's name; `status-code` and
// `tx-id` are root attributes; `status-message` is a child when not empty; the operation's own
// elements follow.
#pragma once

#include <optional>
#include <string>

#include "client/xml_node.h"

namespace tavrel::client {

struct Response {
  XmlNode root;                     // the whole reply; status-message removed from its children
  std::optional<std::string> txid;  // absent when the reply carries none
  int status = 0;
  std::string message;

  // Parses a reply document. False (with *error set) when it is not well-formed XML or has no
  // numeric status-code.
  static bool parse(const std::string& document, Response* out, std::string* error);
};

// Name of a status code ("OK", "VIEW_ENDING", ...), or "UNKNOWN".
const char* status_name(int code);

// `s` as a JSON string: quotes, with '"', '\\' and control characters escaped.
std::string json_quote(const std::string& s);

// The reply as JSON: {"op":..,"tx_id":..|null,"status":N,"status_name":..,"message":..,"result":{..}}.
// Texts "true"/"false" become booleans and decimal integers numbers; a repeated child tag becomes
// an array; an element with children becomes an object.
std::string to_json(const Response& r);

}  // namespace tavrel::client
