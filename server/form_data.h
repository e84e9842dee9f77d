// A strict reader of "multipart/form-data" request bodies (the "rpc" and "rpcargs" fields).
//
// The boundary comes from the Content-Type parameter; when the header has none, it is taken from the
// body's first line ("--<boundary>"). Each part needs a Content-Disposition header with a quoted
// name; part headers end at an empty line; the part body ends at CR LF "--<boundary>". At most 32
// parts; a name may occur once. Anything else is a malformed body.
#pragma once

#include <map>
#include <string>

namespace tavrel_server {

bool parse_form_data(const std::string& content_type, const std::string& body, std::map<std::string, std::string>* fields,
                     std::string* error);

}  // namespace tavrel_server
