// RClient_Session: the agent's one session with its WAN server, shared by all threads: the server URL,
// the cached credentials, the two cookies that prove a login, the key store, and a pool of libcurl
// easy handles.
//
// Lifecycle: get_session() makes the object on first use (and sets up libcurl). init() stores the URL
// and credentials and marks the session not logged in; a Login reply that brings the cookie "Session="
// marks it logged in (set_session_id); Logout, the start of a re-login and a new init() mark it not
// logged in again.
//
// Handle pool: get_curl_handle() lends the handle most recently given back (so it still holds its open
// connection and TLS session), or makes a new one; release_curl_handle() resets the handle's options
// and keeps it. flush_curl_handles() destroys the idle handles, and handles still lent out are
// destroyed when they come back; after the last one has come back the pool is used again.
//
// Locks: g_session_lock guards the creation of the object (and is taken before `mutex`, only in
// get_session). `mutex` guards every field; it is held only to copy fields, never across a network
// operation or curl_easy_init. Both rank below every lock of the name service (WAN_SESSION_CREATE,
// WAN_SESSION), since WAN calls are made under those.
#pragma once

#include <curl/curl.h>

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

#include "base/tavrel_mutex.h"

class RClient_Session {
 public:
  // The session fields a request needs, copied at one moment.
  struct Request_Context {
    std::string url;
    std::string keystore;
    std::string keystore_password;
    bool authenticated = false;
    std::string jsessionid;
    std::string session_id;
    std::string primary;
    std::string groups;
  };

  static RClient_Session* get_session();
  // Process end: destroys the idle handles and releases libcurl's global state. Call it when no WAN
  // call runs any more (Tavrel_View_Handler::clean_up).
  static void clean_up();

  virtual ~RClient_Session();
  RClient_Session(const RClient_Session&) = delete;
  RClient_Session& operator=(const RClient_Session&) = delete;

  int init(const std::string& url, const std::string& user, const std::string& domain, const std::string& password,
           const std::string& primary, const std::string& groups, const std::string& proxy_user,
           const std::string& proxy_password, const std::string& proxy_host, int proxy_port,
           const std::string& keystore, const std::string& keystore_password);
  // At trace level 4, every field; the passwords appear as "*****".
  void print_session();
  // Stores the "Session" cookie and marks the session logged in.
  void set_session_id(const std::string& id);
  void set_jsessionid(const std::string& id);
  // Forgets both cookies and marks the session not logged in (start of a re-login, Logout).
  void clear_login();
  // The value of the login credentials header: Base64 of "domain\user:password" (or "user:password"
  // without a domain), in UTF-8.
  std::string encrypted_credential();

  CURL* get_curl_handle();
  void release_curl_handle(CURL* handle);
  void flush_curl_handles();

  Request_Context get_request_context();
  std::string get_url();
  std::string get_jsessionid();
  std::string get_session_id();
  bool is_authenticated();
  int get_handles_out();
  size_t get_idle_handles();

  static RClient_Session* g_session;
  static Tavrel_Mutex g_session_lock;

 private:
  RClient_Session() = default;

  Tavrel_Mutex mutex{Tavrel_Lock_Rank::WAN_SESSION, "RClient_Session::mutex"};
  std::string jsessionid;
  std::string session_id;
  std::string url;
  std::string user, domain, password, primary, groups;
  bool authenticated = false;
  int32_t major = 0, minor = 0;
  int32_t proxy_port = 0;
  std::string proxy_host, proxy_user, proxy_password;
  std::string keystore, keystore_password;
  std::deque<CURL*> handles;
  bool flush_pending = false;
  int32_t handles_out = 0;
};
