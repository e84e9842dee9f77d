// Tavrel_Conn_Handler_Base: the connection thread. A client announces itself by writing one line,
// its id, to the listener FIFO "<storage>/.ipc/rlistener"; the agent makes "request_<id>" and
// "response_<id>" beside it and serves the client on a request handler thread of its own.
//
// The listener is re-created and reopened for every connection. The loop ends at shutdown, after
// which this thread runs the thread manager's terminate() and so reaps every other thread.
// Only this thread touches the listener.
#pragma once

#include <string>

#include "core/tavrel_olthread.h"
#include "proto/view_storage_names.h"

class Tavrel_View;
class Tavrel_Client;

class Tavrel_Conn_Handler_Base : public Tavrel_OlThread {
 public:
  static constexpr unsigned MAX_CONNECTION_LINE = 4096;

  static Tavrel_Conn_Handler_Base* get_conn_handler(Tavrel_View* view);
  // The listener path of a storage directory (the watchdog removes it when the agent ends).
  static std::string listener_path(const std::string& storage_path);
  // Whether a client id may become part of a file name: 1 to 64 of [A-Za-z0-9._-], not starting with ".".
  static bool valid_client_id(const std::string& id);

  ~Tavrel_Conn_Handler_Base() override = default;
  int run() override;
  virtual int setup_listener() = 0;
  virtual int handle_connection() = 0;

  // Makes a FIFO (mode 0700, parents 0700). An existing FIFO is reused only when this user owns it;
  // anything else at the path gives 20011.
  static int create_pipe(const std::string& path, bool exclusive);

 protected:
  explicit Tavrel_Conn_Handler_Base(Tavrel_View* view);

  std::string m_listener_path;
  Tavrel_View* m_view;
  bool m_listener_opened_once = false;
};
