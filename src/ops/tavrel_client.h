// Tavrel_Client: one connected client tool: its two descriptors, its id and the paths of its FIFOs.
// The destructor removes the FIFO names that still exist (the descriptors are closed by the request
// handler that owns this object).
#pragma once

#include <string>

class Tavrel_Client {
 public:
  Tavrel_Client() = default;
  virtual ~Tavrel_Client();

  int m_request_fd = -1;
  int m_response_fd = -1;
  std::string m_client_id;
  std::string m_request_path;
  std::string m_response_path;
};
