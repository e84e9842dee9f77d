// Kfsmd_Server: the module socket. It accepts connections, learns each peer's credentials
// (SO_PEERCRED), and serves each connection on a thread of its own:
//
//   HELLO first, within hello_timeout_ms of the accept (anything else, or nothing in time, closes the
//   connection and ends its thread), answered HELLO_OK 0.
//   MCB frames carry commands 2, 5, 7, 8, 36, 37; CMD frames commands 11 and 20; each is answered with
//   the registry's status. An LPC_CALL binds the connection to the view it names (1046 for an unknown
//   view, 1063 and the end of the connection for another user's); from then on it carries only
//   LPC_CALLs for that view.
//   Any malformed frame, a frame of the wrong type, a command on the wrong frame, or an LPC call for
//   another tag closes the connection; nothing else is affected.
//
// Caps, checked at accept before any thread is made: a non-root peer (uid from SO_PEERCRED) with
// max_connections_per_user connections open, or any non-root peer while max_connections non-root
// connections are open, is refused: it gets HELLO_OK with KFSM_ST_TOO_MANY_CONNECTIONS and sequence 1 at
// once (before its HELLO is read) and the connection is closed. Root is never refused, so the
// administrator and root's views still get in when users have filled the daemon. The first refusal of a
// uid, and then at most one a minute, is noted on stderr with the count since the last note.
//
// The socket is made with mode 0666 (every user's agent must reach it; the registry checks who may do
// what); a stale socket file at the path is replaced, a live daemon there is not (EADDRINUSE).
//
// Threads: one accept thread, one thread per admitted connection; finished connection threads are
// joined by the accept thread. m_mutex guards the connection list, the counts and the refusal notes.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <list>
#include <map>
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
  struct Refusals {
    time_t noted = 0;     // when the last note was written
    size_t unnoted = 0;   // refusals since then
  };
  void accept_loop();
  void serve(Conn* c);
  void reap_locked();
  // Why a connection of `uid` must be refused now, or nullptr when it may be admitted.
  const char* over_cap_locked(uid_t uid);

  const Kfsmd_Options m_opt;
  Kfsmd_Registry& m_registry;
  int m_listen = -1;
  std::thread m_accept;
  std::mutex m_mutex;  // guards everything below
  std::list<std::unique_ptr<Conn>> m_conns;
  std::map<uid_t, size_t> m_open_by_user;  // admitted connections of each non-root uid still open
  size_t m_open_non_root = 0;
  std::map<uid_t, Refusals> m_refusals;
  bool m_stopping = false;
};
