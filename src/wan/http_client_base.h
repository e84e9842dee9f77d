// Http_Client_Base: one HTTP exchange over a libcurl easy handle borrowed from the session's pool,
// with the agent's TLS policy and time limits applied. Http_Client_Post sends form fields,
// Http_Client_Get only its URL.
//
// Order of use: constructor (borrows a handle), init() (all options), add_header()..., add_request_field()...,
// execute(); the destructor frees the header list and gives the handle back to the pool.
//
// Results: 0 success (HTTP 200 or 201), 30001 any other HTTP status, 30002 HTTP 401/403, 30003
// transport, TLS, time-limit or option failure, 30004 HTTP 404. The human text of the last failure is
// in get_error_message(). A transfer that ends short of its announced length (libcurl's partial-file
// result) with HTTP 200 counts as success here: the reply parser decides.
//
// Reply body: each block goes to RClient_CB::response_cb(data, length, write_data) while the transfer
// runs, only for HTTP 200/201 (bodies of other statuses are discarded); a non-zero result aborts the
// transfer (write_refused() is then true). Reply headers: every line of every header block, without
// its CR LF, goes to the caller's list; empty lines are skipped; more than MAX_RESPONSE_HEADER_LINES
// lines abort the transfer.
//
// Time limits (Curl_Util::Transfer_Limits): the connection phase, TCP and TLS, is bounded by the
// connect timeout; once connected, a transfer that has moved fewer than limit x window bytes over the
// last low_speed_time_ms is aborted (stalled() is then true). The check runs whenever libcurl reports
// progress, which is at least once a second while nothing moves. The whole request, connection
// included, is bounded by request_timeout_ms unless that is 0: a reply that trickles just fast enough
// to pass the low-speed check still ends.
//
// Not thread-safe: an object belongs to one thread; the handle is exclusive while borrowed.
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "wan/curl_util.h"

class RClient_Session;

class Http_Client_Base {
 public:
  static constexpr size_t MAX_RESPONSE_HEADER_LINES = 256;
  static constexpr const char* CREDENTIAL_SEPARATOR = ":";

  Http_Client_Base(int is_post, const std::string& url, RClient_Session* session, const std::string& keystore,
                   const std::string& keystore_password, void* write_data, std::vector<std::string>* response_headers);
  virtual ~Http_Client_Base();
  Http_Client_Base(const Http_Client_Base&) = delete;
  Http_Client_Base& operator=(const Http_Client_Base&) = delete;

  virtual int set_additional_args() = 0;
  virtual int add_request_field(const std::string& name, const std::string& value) = 0;

  int init();
  void add_header(const std::string& line);
  int set_http_headers();
  int set_write_data_callback(curl_write_callback fn);
  // Kept for completeness; nothing calls it: init() sets an empty proxy, so transfers always go direct.
  int set_proxy(const std::string& host, int port, const std::string& user, const std::string& password);
  int execute();

  void* get_response_stream() const { return response_stream; }
  std::vector<std::string>* get_response_headers() const { return response_headers; }
  const std::string& get_error_message() const { return error_message; }
  int is_executed() const { return executed; }
  long get_http_status() const { return http_status; }
  bool write_refused() const { return m_write_refused; }
  bool stalled() const { return m_stalled; }
  const std::vector<std::string>& get_headers() const { return headers; }
  const Curl_Util::Transfer_Limits& get_limits() const { return m_limits; }

  static size_t write_data_callback(char* data, size_t size, size_t count, void* user);
  static size_t write_header_callback(char* data, size_t size, size_t count, void* user);
  static int progress_callback(void* user, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal, curl_off_t ulnow);

 protected:
  bool setopt_success(CURLcode code, long option);

  int executed = 0;
  int is_post;
  std::string url;
  std::vector<std::string> headers;
  std::vector<std::string>* response_headers;  // the caller's
  CURL* curl;
  char error_buffer[CURL_ERROR_SIZE];
  void* response_stream;  // user data for RClient_CB::response_cb
  std::string error_message;
  RClient_Session* session;
  std::string keystore;
  std::string keystore_password;
  curl_slist* slist = nullptr;
  long http_status = 0;

 private:
  Curl_Util::Transfer_Limits m_limits;
  bool m_write_refused = false;
  bool m_stalled = false;
  bool m_header_overflow = false;
  struct Progress_Sample {
    std::chrono::steady_clock::time_point t;
    curl_off_t bytes;  // moved up to t, both ways
  };
  std::deque<Progress_Sample> m_samples;  // at most about 17: one per 1/16 window
};
