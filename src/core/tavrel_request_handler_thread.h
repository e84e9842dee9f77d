// Tavrel_Request_Handler_Thread: one thread of the worker pool. It takes requests from the queues
// until shutdown; a request that reports 20026 (the view has ended) starts shutdown.
#pragma once

#include "core/tavrel_olthread.h"

class Tavrel_Request_Handler_Thread : public Tavrel_OlThread {
 public:
  int run() override;
};
