// The reference WAN server: HTTP(S) front end, sessions, the agent's RPCs, the cleartext GET, the
// client and admin API, fault injection and the request log.
//
// Endpoints below the base path (default "/tavrel"):
//   POST <base>           agent RPCs (form fields "rpc", "rpcargs"); login sets two cookies
//   GET  <base>/logout    ends the session; always 200 + Status 0
//   GET  <base>/cltxt/<replica>/<version oid>/<text mode>   one version's bytes
//   POST <base>/client    client API (view operations), with a session or the admin token
//   POST <base>/admin     admin API, with the admin token (header x-tavrel-admin-token)
// Anything else is 404. Every reply body is a multipart reply document ending in a Status part;
// RPC-level failures are HTTP 200 with a non-zero Status; 401 means "log in".
//
// Connections pass through FrontServer (http_front.h): a deadline for each request head and a cap on
// open connections per client address, so that slow clients cannot hold every pool thread. Bodies over
// the size limit get 413 whether sent with a length or in chunks, and the connection closes. Failed
// credentials are slowed per user and per address (login_throttle.h): a throttled attempt gets 429
// with Retry-After, unchecked.
//
// Threads: cpp-httplib's pool runs handlers concurrently. Per-view reader/writer locks keep a view's
// rule changes (and its checkout/namespace changes) apart from its on-demand requests; the store
// serialises writers. See the .cpp for the order of locks: view lock, then store write mutex.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <thread>

#include "server/faults.h"
#include "server/http_front.h"
#include "server/login_throttle.h"
#include "server/request_log.h"
#include "server/sessions.h"
#include "server/store.h"

namespace httplib {
class Server;
}

namespace tavrel_server {

struct ServerConfig {
  std::string store_path;
  std::string host = "127.0.0.1";
  int port = 0;  // 0: an ephemeral port
  std::string base_path = "/tavrel";
  std::string cert_file, key_file;  // HTTPS when both are set
  // Accepted logins: "user" or "domain\user" -> password. Empty with open_login: any user, any password.
  std::map<std::string, std::string> users;
  bool open_login = false;
  std::string admin_token;  // empty: admin API disabled
  size_t max_body = 64u << 20;
  int session_idle_seconds = 1800;
  std::string request_log_file;
  size_t request_log_capacity = 10000;
  int threads = 64;                 // connections served at once
  int head_timeout_ms = 5000;       // for the whole head of each request
  int max_conns_per_address = 32;   // open connections from one client address
  std::function<int64_t()> clock_ms;  // monotonic milliseconds for login throttling; empty: steady clock
  // Update streams follow the change log (scope_delta.h) where they can; false: always diff a walk of
  // the whole scope (the tests and the bench compare the two).
  bool update_deltas = true;
};

class WanServer {
 public:
  explicit WanServer(ServerConfig cfg);
  ~WanServer();
  WanServer(const WanServer&) = delete;
  WanServer& operator=(const WanServer&) = delete;

  // Binds and serves on a background thread; returns the port, or -1 when binding failed.
  int start();
  // Stops serving and joins the thread (also done by the destructor).
  void stop();
  int port() const { return port_; }
  bool tls() const { return !cfg_.cert_file.empty(); }

  Store& store() { return *store_; }
  Sessions& sessions() { return *sessions_; }
  FaultInjector& faults() { return faults_; }
  RequestLog& log() { return *log_; }
  const ServerConfig& config() const { return cfg_; }

  // The reader/writer lock of one view.
  std::shared_ptr<std::shared_mutex> view_lock(const tbs_uuid_s& view);

 private:
  void install_routes();

  ServerConfig cfg_;
  std::unique_ptr<Store> store_;
  std::unique_ptr<Sessions> sessions_;
  FaultInjector faults_;
  std::unique_ptr<RequestLog> log_;
  LoginThrottle throttle_;
  std::unique_ptr<FrontServer> front_;
  httplib::Server* http_ = nullptr;  // front_'s
  std::thread thread_;
  int port_ = -1;
  std::mutex locks_mu_;
  std::map<tbs_uuid_s, std::shared_ptr<std::shared_mutex>> view_locks_;
};

}  // namespace tavrel_server
