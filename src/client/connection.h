// Connection: a client's session with a running agent over its FIFOs.
//
// Connecting (safe against lost announcements and against a hostile or stale .ipc):
//  1. open <storage>/.ipc/rlistener write-only and non-blocking, retrying while it is missing or has
//     no reader (the agent reopens it between connections), until the timeout;
//  2. write "<id>\n" in one write (ids are [A-Za-z0-9._-], at most 64 bytes, so the write is atomic);
//  3. keep the listener open until request_<id> and response_<id> exist, are FIFOs and belong to us;
//  4. open response_<id> read-only non-blocking; open request_<id> write-only, retrying until the
//     agent's handler has opened its end; enlarge the request pipe (F_SETPIPE_SZ);
//  5. close the listener.
// The agent unlinks both names at the first frame, so they are opened before anything is sent.
//
// Replies come in the order operations finish; end of file on the response pipe means the view has
// ended. Every wait has a time limit.
#pragma once

#include <string>

#include "proto/pipe_frame.h"

namespace tavrel::client {

class Connection {
 public:
  enum Status { kOk = 0, kTimeout, kClosed, kProtocol, kSystem, kTooLarge };

  Connection() = default;
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Connects with a fresh id ("c<pid>-<random hex>"), or with `id` when given.
  Status connect(const std::string& storage, int timeout_ms, const std::string& id = "");
  // Sends one request document in one write. Refuses one that would not fit the pipe whole.
  Status send(const std::string& document);
  // Sends raw bytes as they are (for tests of malformed frames).
  Status send_raw(const std::string& bytes);
  // Waits for the next response document.
  Status receive(std::string* document, int timeout_ms);
  Status request(const std::string& document, std::string* response, int timeout_ms);
  // Closes the request end: the agent's handler then ends after its outstanding requests.
  void close_request();
  void close();

  const std::string& id() const { return m_id; }
  const std::string& error() const { return m_error; }
  int pipe_capacity() const { return m_pipe_size; }
  static std::string random_id();

 private:
  Status fail(Status s, const std::string& message);

  std::string m_id;
  int m_request_fd = -1;
  int m_response_fd = -1;
  int m_pipe_size = 0;
  Pipe_Frame_Reader m_reader{Pipe_Frame_Kind::RESPONSE, PIPE_FRAME_MAX_RESPONSE};
  std::string m_error;
};

}  // namespace tavrel::client
