// Tavrel_Request_Handler_Base: the thread that serves one client. It reads framed requests from the
// client's request FIFO and queues each as a Tavrel_CMAPI_Request; pool threads answer through
// send_response. Several requests of one client may run at once; their answers leave in the order
// they finish. The thread ends when the client closes its end or the agent stops, after all its
// queued requests are gone (see Tavrel_Request_Handler_Unix for the channel itself).
//
// Frames as proto/pipe_frame.h has them; a request body over PIPE_FRAME_MAX_REQUEST bytes is dropped
// as malformed.
#pragma once

#include <iosfwd>
#include <string>

#include "core/tavrel_olthread.h"

class Tavrel_Client;
class Tavrel_View;

class Tavrel_Request_Handler_Base : public Tavrel_Request_Thread {
 public:
  // Line limit of the first request on standard input.
  static constexpr size_t STREAM_LINE_LIMIT = 16000;

  static Tavrel_Request_Handler_Base* get_request_handler(Tavrel_Client* client, Tavrel_View* view);
  ~Tavrel_Request_Handler_Base() override;

  // Called by pool threads; never waits on the client.
  virtual int send_response(const std::string& text) = 0;
  virtual void close_pipes() = 0;

  // The first request of the process: every line of the stream to its end (each at most
  // STREAM_LINE_LIMIT - 1 characters); the first line, the length, is ignored; the others are
  // trimmed and joined with no separator.
  static int read_request(std::istream& in, std::string& out);
  static int send_response(std::ostream& out, const std::string& text);

  Tavrel_View* get_view() const { return m_view; }
  Tavrel_Client* get_client() const { return m_client; }

 protected:
  Tavrel_Request_Handler_Base(Tavrel_Client* client, Tavrel_View* view);
  // Queues one request of this client (counted as outstanding until the request is deleted).
  void queue_request(const std::string& text);

  Tavrel_Client* m_client;  // owned
  Tavrel_View* m_view;
};
