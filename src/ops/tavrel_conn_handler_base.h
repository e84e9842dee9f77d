// Tavrel_Conn_Handler_Base: the connection thread. A client announces itself by writing one line,
// its id, to the listener FIFO "<storage>/.ipc/rlistener"; the agent makes "request_<id>" and
// "response_<id>" beside it and serves the client on a request handler thread of its own.
//
// The listener is re-created and reopened for every connection. The loop ends at shutdown, after
// which this thread runs the thread manager's terminate() and so reaps every other thread.
// Only this thread touches the listener.
//
// At most tavrelMaxClients clients (tavrel.conf, default MAX_CLIENTS, 1 to 1024) are served at once;
// an announcement beyond that is dropped (traced, and a WARN line in the log) and makes nothing.
// When the thread refuses to serve at all (a bad ".ipc"), failure() tells why and the agent ends with
// an error.
#pragma once

#include <string>

#include "core/tavrel_olthread.h"
#include "proto/view_storage_names.h"

class Tavrel_View;
class Tavrel_Client;

class Tavrel_Conn_Handler_Base : public Tavrel_OlThread {
 public:
  static constexpr unsigned MAX_CONNECTION_LINE = 4096;
  static constexpr long MAX_CLIENTS = 64;

  static Tavrel_Conn_Handler_Base* get_conn_handler(Tavrel_View* view);
  // The listener path of a storage directory (the watchdog removes it when the agent ends).
  static std::string listener_path(const std::string& storage_path);
  // Whether a client id may become part of a file name: 1 to 64 of [A-Za-z0-9._-], not starting with ".".
  static bool valid_client_id(const std::string& id);

  ~Tavrel_Conn_Handler_Base() override = default;
  int run() override;
  virtual int setup_listener() = 0;
  virtual int handle_connection() = 0;

  // Makes the FIFO `name` (mode 0700) in the directory `dir_fd`. An existing FIFO is reused only when
  // this user owns it; anything else at the name (a symbolic link included) gives 20011.
  static int create_pipe(int dir_fd, const std::string& name, bool exclusive);
  // 0 while serving or after a normal end; the status of a refusal to serve.
  int failure() const { return m_failure; }

 protected:
  explicit Tavrel_Conn_Handler_Base(Tavrel_View* view);

  std::string m_listener_path;
  Tavrel_View* m_view;
  bool m_listener_opened_once = false;
  int m_failure = 0;
  long m_max_clients = MAX_CLIENTS;
};
