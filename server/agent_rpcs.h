// The agent's RPCs other than login/logout and the cleartext GET: Get_SILOInfo, Get_ConfigSpec,
// Set_ConfigSpec, Get_Metadata, Lookup and Get_Directory_Contents.
//
// Each handler returns the whole reply document (ending in Status 0) or throws ServerError, which the
// caller turns into a Status-only reply. On-demand replies record what they sent in the view's
// served set. Views named by an unknown ViewUuid are created with the default rules.
#pragma once

#include <string>

#include "server/args.h"

namespace tavrel_server {

class WanServer;

// Whether `rpc` names one of the handlers here.
bool is_agent_rpc(const std::string& rpc);
std::string run_agent_rpc(WanServer& srv, const std::string& rpc, const Args& args);

}  // namespace tavrel_server
