#include "ops/tavrel_conn_handler_unix.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/sysutl.h"
#include "core/tavrel_log.h"
#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_thread_manager_unix.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_view.h"
#include "ops/tavrel_client.h"
#include "ops/tavrel_request_handler_base.h"

Tavrel_Conn_Handler_Unix::Tavrel_Conn_Handler_Unix(Tavrel_View* view) : Tavrel_Conn_Handler_Base(view) {
  m_listener_path = listener_path(m_view->get_storage_path());
}

Tavrel_Conn_Handler_Unix::~Tavrel_Conn_Handler_Unix() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Conn_Handler_Unix", "~Tavrel_Conn_Handler_Unix");
  if (m_listener_fd >= 0) close(m_listener_fd);
  if (m_ipc_fd >= 0) {
    trace.writeTrace(TRACE_LEVEL_4, "Removing %s", m_listener_path.c_str());
    unlinkat(m_ipc_fd, VIEW_STG_LISTENER, 0);
    close(m_ipc_fd);
  }
}

int Tavrel_Conn_Handler_Unix::open_ipc_dir(const std::string& storage_path, int* fd) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Conn_Handler_Unix", "open_ipc_dir");
  std::string dir = storage_path + "/" + VIEW_STG_IPC_DIR;
  if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return TAVREL_ST_PIPE;
  int d = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  struct stat st;
  if (d < 0 || fstat(d, &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid() ||
      ((st.st_mode & 0777) != 0700 && fchmod(d, 0700) != 0)) {
    trace.writeTrace(TRACE_LEVEL_1, "%s is not a directory owned by this user; refusing to serve clients", dir.c_str());
    if (d >= 0) close(d);
    return TAVREL_ST_PIPE;
  }
  *fd = d;
  return 0;
}

int Tavrel_Conn_Handler_Unix::remove_stale_pipes(int dir_fd) {
  int d = dup(dir_fd);
  DIR* dir = d >= 0 ? fdopendir(d) : nullptr;
  if (!dir) {
    if (d >= 0) close(d);
    return 0;
  }
  const std::string req = std::string(VIEW_STG_REQUEST_PIPE) + VIEW_STG_PIPE_SEP,
                    resp = std::string(VIEW_STG_RESPONSE_PIPE) + VIEW_STG_PIPE_SEP;
  int removed = 0;
  while (struct dirent* e = readdir(dir)) {
    std::string name = e->d_name;
    struct stat st;
    if ((name.rfind(req, 0) == 0 || name.rfind(resp, 0) == 0) &&
        fstatat(dir_fd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISFIFO(st.st_mode) &&
        unlinkat(dir_fd, e->d_name, 0) == 0)
      removed++;
  }
  closedir(dir);
  return removed;
}

int Tavrel_Conn_Handler_Unix::setup_listener() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Conn_Handler_Unix", "setup_listener");
  if (m_ipc_fd < 0) {
    if (open_ipc_dir(m_view->get_storage_path(), &m_ipc_fd) != 0) {
      m_failure = TAVREL_ST_PIPE;
      if (Tavrel_Log* log = Tavrel_Log::peek_instance())
        log->write_log(TAVREL_LOG_ERROR, "%s/%s is not a directory of this user; refusing to serve clients.\n",
                       m_view->get_storage_path().c_str(), VIEW_STG_IPC_DIR);
      return TAVREL_ST_PIPE;
    }
    int n = remove_stale_pipes(m_ipc_fd);
    trace.writeTrace(TRACE_LEVEL_3, "Removed %d FIFOs of earlier clients", n);
  }
  if (create_pipe(m_ipc_fd, VIEW_STG_LISTENER, false) != 0) {
    trace.writeTrace(TRACE_LEVEL_1, "Unable to create listener %s", m_listener_path.c_str());
    return TAVREL_ST_PIPE;
  }
  trace.writeTrace(TRACE_LEVEL_4, "Attempting to open listener request pipe %s", m_listener_path.c_str());
  m_listener_fd = openat(m_ipc_fd, VIEW_STG_LISTENER, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
  if (m_listener_fd < 0) {
    trace.writeTrace(TRACE_LEVEL_1, "Error opening listener pipe: %s", strerror(errno));
    return TAVREL_ST_PIPE;
  }
  int status = set_blocking(m_listener_fd);
  if (status != 0) {
    close(m_listener_fd);
    m_listener_fd = -1;
    return status;
  }
  m_listener_opened_once = true;
  return Tavrel_Thread_Manager_Unix::wait_for_input(m_listener_fd);
}

int Tavrel_Conn_Handler_Unix::handle_connection() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Conn_Handler_Unix", "handle_connection");
  std::string id;
  int status = get_connection_request(id);
  if (m_listener_fd >= 0) close(m_listener_fd);
  m_listener_fd = -1;
  if (status != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Error %d getting connection request", status);
    return status;
  }
  if (id.empty()) {
    trace.writeTrace(TRACE_LEVEL_2, "Empty connection request");
    return TAVREL_ST_FAILURE;
  }
  if (!valid_client_id(id)) {
    trace.writeTrace(TRACE_LEVEL_1, "Refusing client id that is not a plain name (%zu bytes)", id.size());
    return TAVREL_ST_FAILURE;
  }
  if (Tavrel_Client::live_count() >= m_max_clients) {
    trace.writeTrace(TRACE_LEVEL_1, "Refusing client %s: %ld clients are served already", id.c_str(), m_max_clients);
    if (Tavrel_Log* log = Tavrel_Log::peek_instance())
      log->write_log(TAVREL_LOG_WARN, "Refusing client %s: %ld clients are connected already (tavrelMaxClients).\n",
                     id.c_str(), m_max_clients);
    return TAVREL_ST_FAILURE;
  }
  auto* client = new Tavrel_Client();
  status = create_client_connections(id, client);
  if (status != 0) {
    delete client;
    return status;
  }
  Tavrel_Request_Handler_Base* handler = Tavrel_Request_Handler_Base::get_request_handler(client, m_view);
  Tavrel_Thread_Manager_Base::get_instance()->start_op(handler);
  return 0;
}

int Tavrel_Conn_Handler_Unix::set_blocking(int fd) {
  return sysutl_set_nonblocking(fd, false) == KS_ST_OK ? 0 : TAVREL_ST_REQ_PIPE;
}

int Tavrel_Conn_Handler_Unix::readline(int fd, char* buf, unsigned size, unsigned* count) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Conn_Handler_Unix", "readline");
  unsigned n = 0;
  while (n < size) {
    char c;
    ssize_t r = read(fd, &c, 1);
    if (r == 1) {
      if (c == '\n') break;
      buf[n++] = c;
      continue;
    }
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) {
      *count = ~0u;
      return 0;
    }
    if (r == 0) {
      // No writer (any more): wait until one writes or shutdown. What was read of an unfinished
      // line is dropped (count 0), so a writer must end its line with a newline.
      int status = Tavrel_Thread_Manager_Unix::wait_for_input(fd);
      if (status != 0) return status;
      *count = 0;
      return 0;
    }
    trace.writeTrace(TRACE_LEVEL_1, "read() failed its contract");
    return TAVREL_ST_FAILURE;
  }
  *count = n;
  return 0;
}

int Tavrel_Conn_Handler_Unix::get_connection_request(std::string& id) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Conn_Handler_Unix", "get_connection_request");
  trace.writeTrace(TRACE_LEVEL_4, "[Unix]Waiting for connection");
  char buf[MAX_CONNECTION_LINE + 1];
  unsigned count = 0;
  int status = readline(m_listener_fd, buf, MAX_CONNECTION_LINE, &count);
  if (status != 0) return status;
  if (count == 0 || count == ~0u) {
    trace.writeTrace(TRACE_LEVEL_2, "[Unix]ReadFile failed (%d)", static_cast<int>(count));
    return TAVREL_ST_CONN_READ;
  }
  buf[count] = '\0';
  id = buf;  // stops at the first NUL byte
  trace.writeTrace(TRACE_LEVEL_4, "[Unix]Got %d bytes (%s)", static_cast<int>(count), id.c_str());
  return 0;
}

int Tavrel_Conn_Handler_Unix::create_client_connections(const std::string& id, Tavrel_Client* client) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Conn_Handler_Unix", "create_client_connections");
  client->m_dir_fd = m_ipc_fd;
  client->m_client_id = id;
  std::string req = std::string(VIEW_STG_REQUEST_PIPE) + VIEW_STG_PIPE_SEP + id;
  int status = create_pipe(m_ipc_fd, req, false);
  if (status != 0) {
    trace.writeTrace(TRACE_LEVEL_1, "Error creating client request pipe (%d)", status);
    return status;
  }
  client->m_request_name = req;
  std::string resp = std::string(VIEW_STG_RESPONSE_PIPE) + VIEW_STG_PIPE_SEP + id;
  status = create_pipe(m_ipc_fd, resp, false);
  if (status != 0) {
    trace.writeTrace(TRACE_LEVEL_1, "Error creating client response  pipe (%d)", status);
    return status;
  }
  client->m_response_name = resp;
  return 0;
}
