// Tavrel_Request_Handler_Unix: the FIFO side of a client's request handler.
//
// The request FIFO is opened read-only, the response FIFO read-write (so opening never waits for the
// client and a departed client never raises SIGPIPE). Both names are unlinked once the first input
// arrives: from then on they live only as open descriptors.
//
// Responses are written without blocking: a client that stops reading gets RESPONSE_TIMEOUT_S
// seconds (tavrelResponseTimeout in tavrel.conf) to make room; then the reply is dropped, the
// response channel is marked broken and later replies to that client fail at once (20016). A pool
// thread therefore never waits for ever on a client.
#pragma once

#include "ops/tavrel_request_handler_base.h"

class Tavrel_Request_Handler_Unix : public Tavrel_Request_Handler_Base {
 public:
  static constexpr int RESPONSE_TIMEOUT_S = 60;

  Tavrel_Request_Handler_Unix(Tavrel_Client* client, Tavrel_View* view);
  ~Tavrel_Request_Handler_Unix() override;

  int read_request(std::string& out) override;
  int send_response(const std::string& text) override;
  void close_pipes() override;

 private:
  int open_request_pipe();
  int open_response_pipe();

  int m_request_opened = 0;   // guarded by m_request_mutex
  int m_response_opened = 0;  // guarded by m_response_mutex
  bool m_response_broken = false;
  int m_response_timeout_ms;
};
