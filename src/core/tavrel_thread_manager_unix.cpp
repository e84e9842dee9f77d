#include "core/tavrel_thread_manager_unix.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/pfm.h"
#include "core/tavrel_assert.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"

void Tavrel_Thread_Manager_Unix::post_shutdown_notice() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Thread_Manager_Unix", "post_shutdown_notice");
  // Under the pipe mutex: terminate() may be closing the pipe on another thread, and a closed
  // descriptor number may already name another file.
  std::lock_guard<Tavrel_Mutex> g(m_pipe_mutex);
  if (m_shutdown_write < 0) return;
  char zero = 0;
  if (write(m_shutdown_write, &zero, 1) != 1)
    trace.writeTrace(TRACE_LEVEL_3, "pipe write() failed: %s", strerror(errno));
}

int Tavrel_Thread_Manager_Unix::wait_for_input(int fd) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Thread_Manager_Unix", "wait_for_input");
  TAVREL_ASSERT(g_instance != NULL);
  Tavrel_Thread_Manager_Base* mgr = g_instance.load();
  int shut = static_cast<Tavrel_Thread_Manager_Unix*>(mgr)->m_shutdown_read;
  if (shut < 0) return TAVREL_ST_FAILURE;
  // poll rather than select: descriptors above FD_SETSIZE must work too.
  struct pollfd pfds[2] = {{fd, POLLIN, 0}, {shut, POLLIN, 0}};
  int n;
  do {
    n = poll(pfds, 2, -1);
  } while (n < 0 && errno == EINTR);
  if (n < 0) {
    trace.writeTrace(TRACE_LEVEL_2, "select error: %s", strerror(errno));
    return TAVREL_ST_SELECT;
  }
  if (n == 0) {
    trace.writeTrace(TRACE_LEVEL_2, "timed out waiting for input");
    return TAVREL_ST_TIMED_OUT;
  }
  if (pfds[1].revents) {
    trace.writeTrace(TRACE_LEVEL_4, "exit requested");
    return TAVREL_ST_EXIT_REQUESTED;
  }
  if (pfds[0].revents) {
    trace.writeTrace(TRACE_LEVEL_4, "client input ready");
    return 0;
  }
  trace.writeTrace(TRACE_LEVEL_2, "select returned ready but not our FDs?");
  return TAVREL_ST_FAILURE;
}
