// Kfsm_Peer: a scripted module for tests. It listens on a module socket and speaks the daemon's side
// of the protocol (proto/kfsm_wire.h), so the agent's kernel channel can be tested without the daemon
// and without FUSE.
//
// Behaviour by default ("permissive"): every HELLO is accepted; commands 2, 5, 7, 8, 36, 37 answer 0;
// 11 answers the root given to the constructor, 20 the empty text. After command 8 every waiting LPC
// call, and every later one, gets 1046. A test may queue other statuses per command (push_status), or
// install a handler per command. Every command and every LPC call is recorded.
//
// LPC: a call that arrives without a pending request waits; lpc_request hands a request to one
// waiting call and waits for the reply that the next call of that connection carries.
//
// Threads: one accept thread and one thread per connection; all state is guarded by one mutex.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "proto/kfsm_records.h"
#include "proto/kfsm_wire.h"

class Kfsm_Peer {
 public:
  // Answers one command: returns the status, may fill outputs.
  using Handler = std::function<int32_t(const kfsm_command&, kfsm_result_outputs*)>;

  Kfsm_Peer(const std::string& socket_path, const std::string& root);
  ~Kfsm_Peer();
  Kfsm_Peer(const Kfsm_Peer&) = delete;
  Kfsm_Peer& operator=(const Kfsm_Peer&) = delete;

  // Binds and starts accepting. 0 or an errno.
  int start();
  // Closes every connection and the listener; joins the threads.
  void stop();

  void push_status(uint32_t cmd, int32_t status);
  void set_handler(uint32_t cmd, Handler h);
  // The status the first LPC call of every new connection gets (0: wait for a request as usual).
  void set_first_call_status(int32_t status);

  std::vector<kfsm_command> commands();
  // Waits until at least `n` commands were received.
  bool wait_commands(size_t n, std::chrono::milliseconds limit = std::chrono::seconds(10));

  struct Lpc_Event {
    uint32_t flags;  // 1: the call carried a reply
    std::string tag;
    uint32_t cookie;  // the reply's cookie (flags 1)
  };
  std::vector<Lpc_Event> lpc_events();
  // LPC calls now waiting for a request.
  int lpc_waiting();
  bool wait_lpc_waiting(int n, std::chrono::milliseconds limit = std::chrono::seconds(10));
  // Connections whose thread has ended (closed by the other side), and all connections accepted.
  int closed_connections();
  int accepted_connections();
  bool wait_closed(int n, std::chrono::milliseconds limit = std::chrono::seconds(10));

  struct Lpc_Reply {
    uint32_t rpc_status = 0;
    uint64_t size = 0;
    uint32_t cookie = 0;
    uint32_t marker = 0;
    std::string payload;
  };
  // Hands one request to a waiting call and waits for its reply. False on timeout or when the
  // connection closed first.
  bool lpc_request(uint64_t op, const std::string& payload, Lpc_Reply* out, uint64_t capacity = VIEW_LPC_PAYLOAD,
                   std::chrono::milliseconds limit = std::chrono::seconds(10));
  // Gives `status` (not 0) to one waiting call; false when none waits.
  bool lpc_status_one(int32_t status);
  // Gives 1046 to every waiting call and to every later one, as command 8 does.
  void end_lpc();

 private:
  struct Conn {
    int fd = -1;
    std::thread thread;
    bool waiting = false;       // an LPC call waits for a request
    uint32_t waiting_seq = 0;   // its sequence number
    bool first_call = true;
    bool closed = false;
    uint32_t expect_cookie = 0;  // request delivered, reply awaited
    bool reply_ready = false;
    Lpc_Reply reply;
  };

  void accept_loop();
  void serve(Conn* c);
  void handle_command(Conn* c, const kfsm_frame& f);
  void handle_lpc(Conn* c, const kfsm_frame& f);
  // Caller holds m_mutex.
  int send_locked(Conn* c, uint16_t type, uint32_t seq, const std::string& body);

  std::string m_path;
  std::string m_root;
  int m_listen = -1;
  std::thread m_accept;
  std::mutex m_mutex;  // guards everything below
  std::condition_variable m_cv;
  bool m_stopping = false;
  bool m_ended = false;
  int32_t m_first_status = 0;
  uint32_t m_next_cookie = 1;
  std::map<uint32_t, std::deque<int32_t>> m_statuses;
  std::map<uint32_t, Handler> m_handlers;
  std::vector<kfsm_command> m_commands;
  std::vector<Lpc_Event> m_lpc_events;
  std::vector<std::unique_ptr<Conn>> m_conns;
};
