// The client side of the admin API for the command line ("tavrel_server admin"): one operation sent
// to a running server, its result printed, so that tests and scripts change a SILO without writing
// HTTP by hand.
//
// Arguments are "Name=value" words, sent in order as the operation's arguments (names repeat, as
// ElemRule does). File bytes come from a file (`data_file`, "-" for standard input). The server's
// answer prints as "Name: value" lines (the Result items), then the Text part as it is.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace tavrel_server {

struct AdminCall {
  std::string url;    // the server's base URL, e.g. http://127.0.0.1:8080/tavrel
  std::string token;  // the admin token
  std::string op;     // "elem.checkin", ...
  std::vector<std::string> args;  // "Name=value"
  std::string data_file;          // empty: no data
  std::string ca_file;            // for https: the CA certificate file (empty: the system's)
};

// 0 when the operation succeeded; 1 when the server refused it or could not be reached (the reason
// goes to `err`); 2 for a malformed call.
int run_admin_call(const AdminCall& call, std::ostream& out, std::ostream& err);

}  // namespace tavrel_server
