// Tavrel_KFSM_Request_Handler_Unix: the system half of the LPC thread owner (see the base class).
#pragma once

#include "kfsm/tavrel_kfsm_request_handler.h"

class Tavrel_KFSM_Request_Handler_Unix : public Tavrel_KFSM_Request_Handler {
 public:
  // Upper bound of tavrelNumKfsm: a larger setting starts this many threads.
  static constexpr long MAX_KFSM_THREADS = 64;
  // Starts the LPC threads; 0, or 20001 when no view tag was recorded.
  int start_listening() override;
  int stop_listening() override;
};
