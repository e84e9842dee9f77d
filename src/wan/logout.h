// Logout: a GET of "<session URL>/logout" that ends the WAN session. It carries the session's cookies
// (and may log in again after a 401 like every other command). Whatever the outcome, the session ends
// up not logged in with both cookies forgotten.
#pragma once

#include "wan/rclient_abstract_cmd.h"

class Logout : public RClient_Abstract_Cmd {
 public:
  Logout();

  int marshal_request(RClient_Request_Args*) override { return 0; }
  int unmarshal_response() override;
  int run() override;
};
