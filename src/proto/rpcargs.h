// The argument text of a WAN request (form field "rpcargs").
//
// Format: a sequence of lines, each ended by LF; a line is "name=value" (split at the first "="), or a
// bare "name" (a flag). Names are non-empty and never contain "=". A LF inside a value travels as
// "%0A"; nothing else is escaped. The same name may repeat and order is significant, so the parsed
// form is an ordered list.
#pragma once

#include <string>
#include <vector>

namespace tavrel_wan {

struct RpcArg {
  std::string name;
  std::string value;
  bool has_value = true;  // false for a bare "name" line
};

struct RpcArgLimits {
  size_t max_args = 200000;
  size_t max_line = 64 * 1024;
};

// Appends one argument line exactly as the agent writes it: "name=" then, for each LF of the value,
// the text before it and "%0A"; when text remains after the last LF, the whole original value follows
// (so "a\nb" gives "name=a%0Aa\nb\n" while "a\n" gives "name=a%0A\n"); then LF. A name that is empty
// or contains "=" is dropped silently, as the agent does.
void rpcargs_add_arg(std::string* out, const std::string& name, const std::string& value);
// Appends a bare flag line "name\n" (same name rule).
void rpcargs_add_flag(std::string* out, const std::string& name);

// Parses the text. Accepts a missing final LF; skips empty lines; decodes "%0A" to LF in values.
// Fails (false, with a message) on a line without a valid name, or past the limits.
bool rpcargs_parse(const std::string& text, std::vector<RpcArg>* out, std::string* error,
                   const RpcArgLimits& limits = RpcArgLimits());

}  // namespace tavrel_wan
