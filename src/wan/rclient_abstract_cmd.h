// RClient_Abstract_Cmd: the base of every WAN command. A caller constructs the command with its
// arguments, calls run(), reads results from the command's accessors (or a listener got them while the
// reply arrived), and calls check_rpc_status to turn the outcome into a view-level status.
//
// The conversation: a command with an empty url() is a POST of the RPC `rpc_id` to the session's URL
// (form fields "rpc" and "rpcargs", see RClient_Request_Generator for the headers); otherwise a GET of
// url(). The reply body is parsed while it arrives: every block that libcurl delivers is appended to
// the response stream and unmarshal_response() runs from the first unconsumed byte, so the command
// holds only the unfinished tail of a reply of any length (at most one part held whole, bounded by
// max_part_body, plus one block).
//
// run():
//   1. send(): marshal_request(), then the transfer.
//   2. When retry_on_auth and the server answered 401/403 to a request that carried the cookies of a
//      session (with a JSESSIONID), the session was lost on the server: a default Login runs with the
//      cached credentials and, when it succeeds, the request is marshalled and sent once more. There is
//      no third attempt.
//   3. When the transfer succeeded, receive(): unmarshal_headers() (cookies) and a last
//      unmarshal_response() over what is left.
//   Result and get_wan_status(): 0, or a WAN status (rclient_messages.h). A transfer that the command
//   stopped on purpose reports why: 30013 when a listener refused data, the framing error (30007,
//   30011) when the reply cannot be parsed, instead of the transport failure libcurl reports for it.
//
// The RPC's own verdict is in get_status() (code -1 when no Status part came).
//
// Derived commands implement marshal_request() and unmarshal_response(); most write the latter as
// `return unmarshal_parts();` and take their parts in unmarshal_part(). A part's body must be taken
// (copy_part_body, parse_content_with_len, write_content) or it is skipped.
//
// Not thread-safe: a command belongs to one thread. The session it uses is shared.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/tbs.h"
#include "wan/rclient_multi_part_mixed_doc.h"
#include "wan/rclient_request_args.h"
#include "wan/rclient_request_generator.h"
#include "wan/rclient_response_stream.h"
#include "wan/rclient_status.h"

class RClient_CB;
class Tavrel_Log;

class RClient_Abstract_Cmd {
 public:
  RClient_Abstract_Cmd(const std::string& rpc_id, bool retry_on_auth);
  virtual ~RClient_Abstract_Cmd();
  RClient_Abstract_Cmd(const RClient_Abstract_Cmd&) = delete;
  RClient_Abstract_Cmd& operator=(const RClient_Abstract_Cmd&) = delete;

  virtual int marshal_request(RClient_Request_Args* args) = 0;
  virtual int unmarshal_headers();
  virtual int unmarshal_response() = 0;
  // Called for every block of the reply body: 0 to go on, non-zero stops the transfer.
  virtual int process_response(char* data, unsigned int length);

  virtual int run();
  int send();
  int receive();

  RClient_Request_Args* get_req_args();

  void marshal_arg(const std::string& name, unsigned long value);
  // Written with "%d": a value above 2^31-1 travels negative, as the server expects it.
  void marshal_arg(const std::string& name, unsigned int value);
  void marshal_arg(const std::string& name, bool value);
  void marshal_arg(const std::string& name, const char* value);
  void marshal_arg(const std::string& name, const std::string& value);
  void marshal_arg(const std::string& name, const tbs_oid_s& value);
  void marshal_arg(const std::string& name, const tbs_uuid_s& value);

  // An item of the current part as an unsigned number. Missing or not a number (negative, too large):
  // RClient_Malformed_Response_Exception (30009).
  void unmarshal_item(const std::string& name, unsigned int& out);
  // The current part's body in a new buffer (stg_malloc, one byte more, zero-terminated; the caller
  // frees it with stg_free). 0, or 30008 when Content-Length is not a number, 30011 when the part is
  // too large to hold. Throws RClient_Premature_EOF_Exception when the body has not fully arrived.
  int parse_content_with_len(long& length, char*& buffer);
  // The text after `name` in the first reply header line that contains it, up to ";" or the end.
  std::string find_in_header(const std::string& name) const;
  bool response_empty() const { return m_stream.empty(); }

  // The view-level outcome after run(); `status` carries the RPC's status code in and 1001 out when
  // the RPC did not complete. 0; 20048 when the RPC did not complete (with the failure logged at ERROR
  // in `log` when given); 20049 when the server refused it (non-zero `status`). Texts are appended to
  // `message`.
  int check_rpc_status(Tavrel_Log* log, std::string& message, int& status);

  const std::string& get_rpc_id() const { return rpc_id; }
  const std::string& get_url() const { return url; }
  int get_wan_status() const { return wan_status; }
  const RClient_Status& get_status() const { return status; }
  int32_t get_status_code() const { return status.code; }
  const std::string& get_status_message() const { return status.message; }
  const std::vector<std::string>& get_response_headers() const { return response_headers; }
  // The HTTP status of the last transfer (0 when none completed).
  long get_http_status() const;
  // The largest number of reply bytes the command held at once during its last transfer.
  size_t peak_response_buffer() const { return m_stream.peak(); }
  // Bound of a reply part that must be held whole (default RClient_Multi_Part_Mixed_Doc::DEFAULT_MAX_PART_BODY).
  void set_max_part_body(size_t bytes);

 protected:
  // The common shape of unmarshal_response(): parts in order, "Status" into get_status(), any other
  // part to unmarshal_part(). See the .cpp for the results.
  int unmarshal_parts();
  // One part other than Status, its headers in doc; 0 to go on. The default skips the part.
  virtual int unmarshal_part(const std::string& content_id);
  // Whether the command logs in (its request carries the credentials, never a cookie).
  virtual bool is_login() const { return false; }
  // Whether the transfer has ended (the last unmarshal_response() call is then running).
  virtual bool transfer_executed() const;

  std::string rpc_id;
  std::string url;
  std::unique_ptr<RClient_Request_Args> req_args;
  std::unique_ptr<RClient_Request_Generator> generator;
  RClient_Response_Stream m_stream;
  std::vector<std::string> response_headers;
  std::unique_ptr<RClient_Multi_Part_Mixed_Doc> doc;
  RClient_Status status;
  int wan_status = 0;
  bool retry_on_auth;
  std::unique_ptr<RClient_CB> cb;

 private:
  void init();
  void reset_response();

  size_t m_max_part_body;
  int m_abort_status = 0;      // why the command stopped the transfer, 0 when it did not
  int m_last_parse_code = 0;   // the code of the last parse exception
};
