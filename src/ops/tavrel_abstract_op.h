// Tavrel_AbstractOp: base of every XML operation on the view. An operation is built from one request
// document by create_xml_request_handler, run with process_request(), and answers with
// get_response(); its status and status message say how it went.
//
// Response envelope (every operation):
//   <?xml version="1.0" encoding="UTF-8"?><Op tx-id="..." status-code="N"><status-message>...
//   </status-message>...operation elements...</Op>
// tx-id is present when the request carried one; status-message only when it is not empty.
#pragma once

#include <string>

class Tavrel_AbstractOp {
 public:
  Tavrel_AbstractOp(const std::string& request_name, const std::string& view_location);
  virtual ~Tavrel_AbstractOp();
  virtual void process_request() = 0;
  virtual void get_response(std::string& response) = 0;

  int get_status() const { return m_status; }
  void set_status(int status) { m_status = status; }
  const std::string& get_status_message() const { return m_status_message; }
  void append_status_message(const std::string& text) { m_status_message += text; }
  const std::string& get_request_name() const { return m_request_name; }
  const std::string& get_txid() const { return m_txid; }
  void set_txid(const std::string& txid) { m_txid = txid; }
  const std::string& get_view_location() const { return m_view_location; }

  // Builds the operation for a request document. Returns null when no operation could be built;
  // *status then says why.
  static Tavrel_AbstractOp* create_xml_request_handler(const std::string& request, const std::string& view_location,
                                                       int* status);
  // The reply to a first request for which no operation could be built: root "Unknown", no tx-id,
  // the status, and the request text as status message.
  static void get_error_response(int status, const std::string& request, std::string& response);
  // A complete envelope with no operation elements.
  static std::string make_status_response(const std::string& root, const std::string& txid, int status,
                                          const std::string& message);
  static std::string xml_escape(const std::string& text, bool attribute);

  // Where operations come from. The process installs the table of operations; tests install their own.
  typedef Tavrel_AbstractOp* (*Factory)(const std::string& request, const std::string& view_location, int* status);
  static void set_request_factory(Factory factory);

 protected:
  int m_status = 0;
  std::string m_status_message;
  std::string m_txid;
  std::string m_view_location;
  std::string m_request_name;
};
