// Tavrel_Request_Cleanup_Thread: joins and deletes the threads that have finished, until shutdown.
// It then hands itself to the cleanup queue, where terminate() reaps it.
#pragma once

#include "core/tavrel_olthread.h"

class Tavrel_Request_Cleanup_Thread : public Tavrel_OlThread {
 public:
  int run() override;
};
