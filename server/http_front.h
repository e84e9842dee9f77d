// The connection layer under the HTTP server: how an accepted connection is admitted, read and kept.
//
// cpp-httplib hands every accepted socket to one pool thread, which reads requests from it until it
// closes; its own reader bounds each single read, never a whole request head, so a client that sends
// one header line every few seconds holds a pool thread for ever, and enough of them stop the server.
// FrontServer is the library's server (plain or TLS) with that per-connection step replaced by ours;
// parsing, routing and replies stay the library's. For each connection, on its pool thread:
//   1. admission: at most `max_per_address` open connections per peer address; one more is refused at
//      once: plain HTTP gets "503 Service Unavailable" with the reason in the body, TLS is closed before
//      the handshake (a reply would first need the handshake, the very work the cap must not spend);
//   2. TLS handshake (TLS only), which must end within `head_timeout_ms`;
//   3. per request: wait for its first byte (at most the keep-alive timeout, also for the first
//      request), then the request line and header lines must all arrive within `head_timeout_ms` of it,
//      else the reply is "408 Request Timeout" and the connection closes. The body and the reply keep
//      the server's per-read and per-write timeouts.
// The socket is non-blocking and every wait is a poll() with a deadline, cut into short slices so that
// stop() ends idle and waiting connections at once. Over-long heads and pipelined bytes are the
// library's business (it caps the request line and header lines); bytes read ahead stay with the
// connection for its next request.
//
// A handler that leaves the request's body unread (for example one it refused as too large) calls
// close_after_reply(): the connection then closes after the reply instead of reading the rest of that
// body as the next request. When the server ends a connection in the middle of a request like this (or
// with 408), it first ends its sending side and reads away what the client still sends for up to 1 s:
// closing with input unread resets the connection, and the client could lose the final reply.
//
// The listening socket has SO_REUSEADDR only (a second server on the same port fails to bind rather
// than share its connections) and a backlog of SOMAXCONN.
//
// Threads: each connection is served on one pool thread; the per-address counts take their own mutex.
#pragma once

#include <memory>
#include <string>

namespace httplib {
class Server;
struct Response;
}

namespace tavrel_server {

struct FrontOptions {
  std::string cert_file, key_file;  // TLS when both are set
  int head_timeout_ms = 5000;
  int max_per_address = 32;
};

class FrontServer {
 public:
  virtual ~FrontServer() = default;
  // The library's server: routes, handlers and timeouts are set on it.
  virtual httplib::Server& http() = 0;
  // Binds `host`:`port` (0: an ephemeral port) with the options above; the port, or -1.
  virtual int bind(const std::string& host, int port) = 0;
};

// Null when TLS was asked for and the certificate or key cannot be loaded.
std::unique_ptr<FrontServer> make_front_server(const FrontOptions& opt);

// Called by a handler: the reply says "Connection: close" and the connection closes after it.
void close_after_reply(httplib::Response& res);

}  // namespace tavrel_server
