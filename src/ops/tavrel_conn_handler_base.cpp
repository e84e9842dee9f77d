#include "ops/tavrel_conn_handler_base.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/tavrel_config.h"
#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_view.h"
#include "ops/tavrel_conn_handler_unix.h"

Tavrel_Conn_Handler_Base::Tavrel_Conn_Handler_Base(Tavrel_View* view) : m_view(view) {
  long n = Tavrel_Config::get_instance()->get_int_param("tavrelMaxClients", MAX_CLIENTS);
  m_max_clients = n < 1 ? 1 : n > 1024 ? 1024 : n;
}

Tavrel_Conn_Handler_Base* Tavrel_Conn_Handler_Base::get_conn_handler(Tavrel_View* view) {
  return new Tavrel_Conn_Handler_Unix(view);
}

std::string Tavrel_Conn_Handler_Base::listener_path(const std::string& storage_path) {
  return storage_path + "/" + VIEW_STG_IPC_DIR + "/" + VIEW_STG_LISTENER;
}

bool Tavrel_Conn_Handler_Base::valid_client_id(const std::string& id) {
  if (id.empty() || id.size() > 64 || id[0] == '.') return false;
  for (char c : id) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
              c == '-';
    if (!ok) return false;
  }
  return true;
}

int Tavrel_Conn_Handler_Base::run() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Conn_Handler_Base", "run");
  Tavrel_Thread_Manager_Base* mgr = Tavrel_Thread_Manager_Base::get_instance();
  do {
    int status = setup_listener();
    if (status != 0) {
      mgr->set_should_exit();
      if (status == TAVREL_ST_EXIT_REQUESTED) break;
      if (m_failure == 0) m_failure = status;  // the agent stops serving: its start or its run failed
    } else {
      status = handle_connection();
      trace.writeTrace(TRACE_LEVEL_4, "Status from handle_connection = %d", status);
      if (status == TAVREL_ST_EXIT_REQUESTED) break;
    }
  } while (!mgr->should_exit());
  mgr->terminate();
  return 0;
}

int Tavrel_Conn_Handler_Base::create_pipe(int dir_fd, const std::string& name, bool exclusive) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Conn_Handler_Base", "create_pipe");
  if (mkfifoat(dir_fd, name.c_str(), 0700) == 0) {
    trace.writeTrace(TRACE_LEVEL_4, "mkfifo success for %s", name.c_str());
    return 0;
  }
  if (errno != EEXIST) {
    trace.writeTrace(TRACE_LEVEL_1, "mkfifo failed for %s: %s", name.c_str(), strerror(errno));
    return TAVREL_ST_MKFIFO;
  }
  if (exclusive) {
    trace.writeTrace(TRACE_LEVEL_1, "mkfifo failed, file exists at %s", name.c_str());
    return TAVREL_ST_MKFIFO;
  }
  struct stat st;
  // Not following: a symbolic link at the name is refused.
  if (fstatat(dir_fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISFIFO(st.st_mode) && st.st_uid == geteuid())
    return 0;
  trace.writeTrace(TRACE_LEVEL_1, "mkfifo failed, non-fifo present at %s", name.c_str());
  return TAVREL_ST_MKFIFO;
}
