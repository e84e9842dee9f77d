// Test support for the WAN client's tests: a temporary home, self-signed certificates made at test
// time, a small WAN server on cpp-httplib (HTTP or HTTPS) with sessions and per-test RPC handlers, and a
// raw TCP server for byte-exact captures and misbehaving peers.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace wan_test {

// A fresh home directory ($HOME) with default configuration; removed on destruction.
class TempHome {
 public:
  TempHome();
  ~TempHome();
  const std::string& path() const { return m_path; }
  void write_file(const std::string& name, const std::string& data) const;
  // Replaces the agent's configuration with `text` (tavrel.conf lines).
  static void set_config(const std::string& text);

 private:
  std::string m_path;
  std::string m_old_home;
};

// The per-process directory that $TAVREL_HOST_CONFIG_DIR names (set before any test runs).
const std::string& host_config_dir();

struct Cert {
  std::string cert_pem;
  std::string key_pem;
  std::string spki_der;  // the public key, as a pinned key file holds it
};
// A self-signed certificate for the names and addresses in `san` ("IP:127.0.0.1,DNS:localhost").
Cert make_cert(const std::string& common_name, const std::string& san);

struct Recorded {
  std::string method;
  std::string path;
  std::multimap<std::string, std::string> headers;  // names in the case they came in
  std::string rpc;
  std::string rpcargs;
  int remote_port = 0;
  bool tls_resumed = false;
};
// The first value of a request header, or "<none>".
inline std::string header(const Recorded& r, const std::string& name) {
  auto it = r.headers.find(name);
  return it == r.headers.end() ? std::string("<none>") : it->second;
}

// A WAN server: POST <base> dispatches on the form field "rpc", GET <base>/logout ends a session.
// Login checks the credentials header against `users` and sets the two cookies; every other request
// needs a live session (else 401). Replies of RPCs come from the handler set with on_rpc.
class Test_Wan_Server {
 public:
  using Rpc_Handler = std::function<void(const Recorded&, httplib::Response&)>;
  struct Options {
    bool tls = false;
    Cert cert;
    int tls_max_version = 0;  // e.g. TLS1_1_VERSION; 0: library default
    bool keep_alive = true;
  };

  explicit Test_Wan_Server(Options options);
  Test_Wan_Server() : Test_Wan_Server(Options()) {}
  ~Test_Wan_Server();

  int port() const { return m_port; }
  std::string base_url() const;
  void add_user(const std::string& user, const std::string& password) { m_users[user] = password; }
  void on_rpc(const std::string& rpc, Rpc_Handler h);
  // GETs of paths that begin with `path_prefix`.
  void on_get(const std::string& path_prefix, Rpc_Handler h);
  // Drops every session: the next request with old cookies gets 401.
  void expire_sessions();
  int logins() const { return m_logins.load(); }
  int login_failures() const { return m_login_failures.load(); }
  std::vector<Recorded> requests();
  size_t count(const std::string& rpc);
  // Set when the server is stopping: handlers that wait must return.
  bool stopping() const { return m_stopping.load(); }
  // Blocks a handler until the server stops (a peer that stalls).
  void wait_until_stopping();

 private:
  void record(const httplib::Request& req, Recorded* out);
  bool session_ok(const httplib::Request& req);

  std::unique_ptr<httplib::Server> m_http;
  std::thread m_thread;
  int m_port = -1;
  bool m_tls;
  std::map<std::string, std::string> m_users;
  std::map<std::string, Rpc_Handler> m_handlers;
  std::mutex m_mutex;  // guards m_sessions, m_requests, m_handlers after start
  std::set<std::string> m_sessions;
  std::vector<Recorded> m_requests;
  std::atomic<int> m_logins{0};
  std::atomic<int> m_login_failures{0};
  std::atomic<int> m_next_token{1};
  std::atomic<bool> m_stopping{false};
  std::mutex m_stop_mutex;
  std::condition_variable m_stop_cv;
};

// A TCP server that reads HTTP/1.1 requests byte for byte (headers, then Content-Length bytes of
// body) and lets `handler` answer each with raw bytes; the handler returns false to close the
// connection. With `read_requests` false it accepts and reads nothing (a peer that never speaks).
class Raw_Server {
 public:
  using Handler = std::function<bool(int fd, const std::string& request)>;
  explicit Raw_Server(Handler handler, bool read_requests = true);
  ~Raw_Server();
  int port() const { return m_port; }
  std::vector<std::string> requests();

 private:
  void serve(int fd);

  Handler m_handler;
  bool m_read;
  int m_listen = -1;
  int m_port = -1;
  std::atomic<bool> m_stop{false};
  std::thread m_accept;
  std::mutex m_mutex;
  std::vector<int> m_fds;
  std::vector<std::thread> m_threads;
  std::vector<std::string> m_requests;
};

// Writes all of `data` to a socket; false when the peer is gone.
bool send_all(int fd, const std::string& data);
// An HTTP/1.1 200 reply with `body` (Content-Length), or with `declared` as the length when not 0.
std::string http_reply(const std::string& body, size_t declared = 0, int status = 200,
                       const std::string& extra_headers = std::string());

// The whole contents of a file ("" when it cannot be read).
std::string read_file(const std::string& path);
// `n` pseudo-random bytes, the same for the same seed.
std::string random_bytes(size_t n, unsigned seed);

// A reply document: the declaration, parts "Item" with bodies, and a Status part.
std::string reply_doc(const std::vector<std::string>& bodies, int status, const std::string& message = std::string());

}  // namespace wan_test
