// Tavrel_Thread_Manager_Unix: the system half of the thread manager: the shutdown notice is one byte
// written to a pipe that is never read, so every present and future wait_for_input returns at once.
#pragma once

#include "core/tavrel_thread_manager_base.h"

class Tavrel_Thread_Manager_Unix : public Tavrel_Thread_Manager_Base {
 public:
  void post_shutdown_notice() override;

  // Blocks until `fd` is readable (0) or shutdown was posted (20038). Other results: 20040 when the
  // wait itself fails, 20001 when the shutdown pipe is closed or the wake-up was for neither.
  static int wait_for_input(int fd);
};
