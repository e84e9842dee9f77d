// Kfsmd_Server: the module socket. It accepts connections, learns each peer's credentials
// (SO_PEERCRED), and serves each connection on a thread of its own:
//
//   HELLO first (anything else closes the connection), answered HELLO_OK 0, or 1062 when
//   max_connections are open (and the connection is closed).
//   MCB frames carry commands 2, 5, 7, 8, 36, 37; CMD frames commands 11 and 20; each is answered with
//   the registry's status. An LPC_CALL binds the connection to the view it names (1046 for an unknown
//   view, 1063 and the end of the connection for another user's); from then on it carries only
//   LPC_CALLs for that view.
//   Any malformed frame, a frame of the wrong type, a command on the wrong frame, or an LPC call for
//   another tag closes the connection; nothing else is affected.
//
// The socket is made with mode 0666 (every user's agent must reach it; the registry checks who may do
// what); a stale socket file at the path is replaced, a live daemon there is not (EADDRINUSE).
//
// Threads: one accept thread, one thread per connection; finished connection threads are joined by
// the accept thread. m_mutex guards the connection list.
#pragma once

#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "kfsmd/core/kfsmd_options.h"
#include "kfsmd/core/kfsmd_registry.h"

class Kfsmd_Server {
 public:
  Kfsmd_Server(const Kfsmd_Options& opt, Kfsmd_Registry& registry);
  ~Kfsmd_Server();

  // Binds and starts accepting. 0 or an errno.
  int start();
  // Stops accepting, closes every connection and joins their threads. The socket file is removed.
  void stop();
  int connection_count();

 private:
  struct Conn {
    int fd = -1;
    Kfsmd_Caller who;
    std::thread thread;
    bool done = false;
  };
  void accept_loop();
  void serve(Conn* c);
  void reap_locked();

  const Kfsmd_Options m_opt;
  Kfsmd_Registry& m_registry;
  int m_listen = -1;
  std::thread m_accept;
  std::mutex m_mutex;  // guards m_conns, m_stopping
  std::list<std::unique_ptr<Conn>> m_conns;
  bool m_stopping = false;
};
