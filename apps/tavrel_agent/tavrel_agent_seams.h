// The agent's seams: the places where a lower library calls up into a higher one through a function
// it is handed at start (the layers below may not include the layers above). This is the one place
// that installs them all:
//
//   seam                                         installed from
//   Tavrel_View_Hooks (server URL, kernel          ops (server parameters), kfsm (registration, root)
//     registration and root)
//   Tavrel_Config view lookup, Tavrel_AbstractOp    the view handler (the process's one view)
//     view source and view sink
//   Tavrel_Config mount hook                       ops (MountSilo's remount of one table line)
//   Tavrel_AbstractOp operation table              tavrel_op_table (this folder)
//   Tavrel_KFSM_Thread_Unix dispatcher             fs (create_kfsm_request_handler)
//
// tavrel_agent_check_seams() lists what is missing; the agent refuses to serve with a missing seam
// rather than fail later on the first request that needs it.
#pragma once

#include <string>
#include <vector>

void tavrel_agent_install_seams();

// The names of the seams that are not installed (empty when all are).
std::vector<std::string> tavrel_agent_missing_seams();
