// Tavrel_Client: one connected client tool: its descriptors, its id and the names of its FIFOs in
// the ".ipc" directory, which is reached only through the connection thread's descriptor of it
// (m_dir_fd, borrowed: the connection thread outlives every client). The destructor removes the FIFO
// names that still exist (the descriptors are closed by the request handler that owns this object).
//
// live_count() is the number of connections being served: clients made and not yet released (the
// handler releases its client before it closes the descriptors and removes the names, so a client
// that sees its end of file or the names gone can count on the slot being free).
#pragma once

#include <atomic>
#include <string>

class Tavrel_Client {
 public:
  Tavrel_Client();
  virtual ~Tavrel_Client();
  Tavrel_Client(const Tavrel_Client&) = delete;
  Tavrel_Client& operator=(const Tavrel_Client&) = delete;

  // Removes both FIFO names (once; later calls do nothing).
  void remove_names();
  // Gives up this client's place in live_count() (once; the destructor does it at the latest).
  void release();
  static int live_count() { return g_live.load(); }

  int m_dir_fd = -1;
  int m_request_fd = -1;
  int m_response_fd = -1;
  std::string m_client_id;
  std::string m_request_name;   // in m_dir_fd; empty once removed
  std::string m_response_name;  // in m_dir_fd; empty once removed

 private:
  bool m_released = false;
  static std::atomic<int> g_live;
};
