// Kfsmd_Lpc_Channel: the daemon's half of a view's LPC channel. Requests of the view (from FUSE
// workers and the stat command) wait here for the agent's LPC threads, each of which holds one
// connection.
//
// A connection is IDLE while its thread's call waits for a request, BUSY while the request handed to
// it is outstanding. call() hands its request to an idle connection at once, or queues it (FIFO); a
// connection that becomes idle takes the head of the queue. Each request carries a cookie (a per-view
// counter that skips 0); the reply that comes back with a connection's next call must carry the
// cookie of that connection's outstanding request, else it is dropped. So each agent thread has at
// most one request outstanding, and at most as many RPCs run at once as the view has LPC threads.
//
// Failures: a request queued while the view has no connection waits lpc_wait_ms (lpc_orphan_ms once
// the view has had connections and lost them all), then fails with EIO. A connection that closes with
// a request outstanding fails it with EIO; requests that may safely run twice (RPCs 0, 10, 12, 14,
// 15, 29, 105 to 108) are queued once more instead. end() (the view is removed) gives 1046 to every
// idle connection and to every later call, and fails every queued and outstanding request with
// ENOTCONN.
//
// Lock: m_mutex guards everything; a connection's sends are made under it (the agent's thread is
// blocked in its receive, so a send of one packet does not block).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <list>
#include <mutex>
#include <string>

#include "proto/kfsm_wire.h"

class Kfsmd_Lpc_Channel {
 public:
  struct Conn;

  Kfsmd_Lpc_Channel(int lpc_wait_ms, int lpc_orphan_ms);
  ~Kfsmd_Lpc_Channel();

  // Runs one RPC: `request` is the XDR payload. 0 with *rpc_status and *reply (the reply payload), or
  // EIO / ENOTCONN as above.
  int call(uint64_t op, const std::string& request, uint32_t* rpc_status, std::string* reply);
  uint32_t next_xid();

  // A new connection of an agent thread, sending on `fd`.
  Conn* attach(int fd);
  // One LPC_CALL frame of `conn` (sequence `seq`): takes the reply it carries, then hands the next
  // request or parks the connection. False when the connection should be closed.
  bool on_call(Conn* conn, uint32_t seq, const kfsm_lpc_call& call);
  // The connection closed; `conn` is deleted.
  void detach(Conn* conn);
  // The view is removed.
  void end();
  bool ended();
  int connections();
  // Requests queued and not yet handed to a connection (tests).
  size_t queued();

  // Whether a request of RPC `op` may be sent again after a lost connection.
  static bool idempotent(uint64_t op);

 private:
  struct Call {
    uint64_t op;
    const std::string* request;
    uint32_t cookie = 0;
    bool done = false;
    int err = 0;
    uint32_t rpc_status = 0;
    std::string reply;
    Conn* conn = nullptr;
    int resent = 0;
    std::chrono::steady_clock::time_point queued_at;
  };

  // Caller holds m_mutex.
  bool deliver(Conn* c, Call* call);
  void finish(Call* call, int err);
  void feed(Conn* c);

  const int m_lpc_wait_ms;
  const int m_lpc_orphan_ms;
  std::mutex m_mutex;
  std::condition_variable m_cv;  // any request finished, or the set of connections changed
  std::list<Conn*> m_conns;
  std::deque<Call*> m_queue;
  bool m_ended = false;
  bool m_ever_connected = false;
  std::chrono::steady_clock::time_point m_no_conn_since;
  uint32_t m_next_cookie = 1;
  uint32_t m_next_xid = 1;
};
