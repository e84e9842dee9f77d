// Tavrel_AbstractOp: base of every XML operation on the view. An operation is built from one request
// document by create_xml_request_handler, run once with process_request(), and asked once for its
// answer with get_response(); its status and status message say how it went. process_request never
// throws, and an answer always goes out.
//
// Request envelope: one document whose root element names the operation and carries the attributes
// "version" and "tx-id"; the parameters are child elements.
//
// Response envelope, built with OlXmlDoc in this order (building stops at the first failing step and
// the partial document is sent):
//   <Op tx-id="..." status-code="N"><status-message>...</status-message>...operation elements...</Op>
// tx-id is the transaction id the operation read (see parse_validate_request), empty when it read none.
// status-message only when the status message is not empty; the operation's own elements normally
// only on success.
//
// Factory (create_xml_request_handler): the request is parsed with OlXmlParser; the root tag selects
// the class from the installed operation table (set_op_table; the agent installs its table at start),
// compared case-sensitively, first match wins.
//   * any other well-formed root: Tavrel_Unknown, request name "XMLError", answer 20020 + message 22;
//   * text that is not well-formed XML (or is refused: DTDs, bounds): Tavrel_Unknown without a
//     document, answer "XMLError" 20020 + message 7, tx-id found by text search (get_txid);
//   * text with characters the native character set cannot hold: Tavrel_XMLError, 20057 + message 7.
// So a broken document does not fail the call: it becomes an operation whose answer reports the fault.
// Null comes back only when no object could be built at all (*status then says why).
//
// Threads: an operation belongs to the one thread that runs it. The class-wide hooks (operation table,
// request factory, view source and sink) are atomics and may be set at any time, normally once at start.
#pragma once

#include <cstddef>
#include <new>
#include <string>
#include <vector>

#include "xml/ol_auto_ptr.h"
#include "xml/ol_xml_doc.h"

class OlXmlElem;
class Tavrel_AbstractOp;
class Tavrel_View;

// One row of the operation table.
struct Tavrel_Op_Entry {
  const char* name;             // root element
  const char* highest_version;  // highest request version the operation accepts
  // Builds the operation for `location`. Ownership of the parsed request `doc` passes in the call,
  // also when it throws (see Tavrel_AbstractOp::make_with_doc).
  Tavrel_AbstractOp* (*make)(const std::string& location, OlXmlDoc* doc);
};

class Tavrel_AbstractOp {
 public:
  // Built by the factory from a parsed request; takes ownership of `doc` (may be null) and copies its
  // root tag into the request name.
  Tavrel_AbstractOp(const std::string& view_location, OlXmlDoc* doc);
  // Built in code, without a request document (e.g. an internal update).
  Tavrel_AbstractOp();
  // Built in code under a given name, without a request document.
  Tavrel_AbstractOp(const std::string& request_name, const std::string& view_location);
  virtual ~Tavrel_AbstractOp();

  Tavrel_AbstractOp(const Tavrel_AbstractOp&) = delete;
  Tavrel_AbstractOp& operator=(const Tavrel_AbstractOp&) = delete;

  virtual void process_request() = 0;
  virtual void get_response(std::string& response) = 0;

  int get_status() const { return m_status; }
  void set_status(int status) { m_status = status; }
  const std::string& get_status_message() const { return m_status_message; }
  void append_status_message(const std::string& text) { m_status_message += text; }
  const std::string& get_request_name() const { return m_request_name; }
  void get_request_name(std::string& out) const { out = m_request_name; }
  const std::string& get_txid() const { return m_txid; }
  void set_txid(const std::string& txid) { m_txid = txid; }
  const std::string& get_view_location() const { return m_view_location; }
  const std::string& get_request_version() const { return m_request_version; }
  const std::string& get_highest_version() const { return m_highest_version; }
  const OlXmlDoc* get_request_doc() const { return m_request_doc.get(); }

  // ---- Factory --------------------------------------------------------------------------------------
  // Builds the operation for a request text (see the header comment). *status is 0 whenever an
  // operation comes back; with null it is 20021 (parsed, but no root) or 20003 (out of memory).
  // Uses the installed request factory when there is one, else the installed operation table (without
  // one every root is answered as unrecognised).
  static Tavrel_AbstractOp* create_xml_request_handler(const std::string& request, const std::string& view_location,
                                                       int* status);
  // The operation table of the process: `count` rows that outlive every request (null: none).
  static void set_op_table(const Tavrel_Op_Entry* table, size_t count);
  static bool has_op_table();
  // The factory over a given table.
  static Tavrel_AbstractOp* create_from_table(const std::string& request, const std::string& view_location,
                                              int* status, const Tavrel_Op_Entry* table, size_t count);

  // new Op(location, doc, extra...), taking ownership of `doc` whatever happens: should the allocation
  // fail the document is freed here, and once the constructor runs the operation owns it.
  template <class Op, class... Extra>
  static Tavrel_AbstractOp* make_with_doc(const std::string& location, OlXmlDoc* doc, const Extra&... extra) {
    OlAutoPtr<OlXmlDoc> guard(doc);
    void* mem = ::operator new(sizeof(Op));
    try {
      return new (mem) Op(location, guard.release(), extra...);
    } catch (...) {
      ::operator delete(mem);
      throw;
    }
  }

  // Replaces the operation table as the source of operations (null restores the table). Tests and the
  // end-to-end fixture install their own operations this way.
  typedef Tavrel_AbstractOp* (*Factory)(const std::string& request, const std::string& view_location, int* status);
  static void set_request_factory(Factory factory);

  // Where get_view() finds the view: a function returning the process's view, or null when there is
  // none yet. Until one is installed get_view() finds no view.
  typedef Tavrel_View* (*ViewSource)();
  static void set_view_source(ViewSource source);
  // Where MkView and StartView hand the view they made or opened: a function that takes ownership of
  // it and makes it the process's view. Until one is installed install_view() refuses (false) and
  // the caller keeps the view.
  typedef void (*ViewSink)(Tavrel_View* view);
  static void set_view_sink(ViewSink sink);
  static bool install_view(Tavrel_View* view);
  static bool has_view_source();
  static bool has_view_sink();

  // ---- Replies that no operation builds -------------------------------------------------------------
  // The reply to a first request for which no operation could be built: root "Unknown", no tx-id, the
  // status, and `request` as status message (when not empty).
  static void get_error_response(int status, const std::string& request, std::string& response);
  // The reply to a request cancelled because the view is ending: root = the operation's request name,
  // or "ShutdownInProgress" without an operation or name; no tx-id; status 20026 and message 73.
  static void get_shutdown_response(const Tavrel_AbstractOp* op, std::string& response);
  // A complete envelope built as text, without operation elements; tx-id left out when empty. The
  // text is escaped, and bytes that are not UTF-8 or characters XML cannot carry become U+FFFD, so the
  // result is always well formed.
  static std::string make_status_response(const std::string& root, const std::string& txid, int status,
                                          const std::string& message);
  static std::string xml_escape(const std::string& text, bool attribute);

  // Finds the first "tx-id" in `text`, then the next two double quotes; `out` becomes what lies
  // between them. When any of the three is missing `out` is unchanged.
  static void get_txid(const std::string& text, std::string& out);

 protected:
  // ---- Request parsing (each failure sets the status field and, where said, the message) ------------
  // Checks the envelope: document and root present (20021), "version" present (20021, message 7) and
  // not above the highest version (20024, message 7), and when `txid_required` is not 0, "tx-id"
  // present (20021, message 7). Returns the root, or null with the status set. The transaction id
  // that the answer carries is read here, last and only when required: without it (MkView, StartView)
  // or when an earlier check fails, the answer's tx-id is empty.
  //
  // The version test keeps its historic form: the number is cut to eight bits and kept as a text of
  // one character with that code, which is converted to a number again. So "1" reads as 0 and every
  // small number passes; only values whose low eight bits are the code of a digit above the highest
  // version are refused (e.g. 50, "2", against "1").
  OlXmlElem* parse_validate_request(const int& txid_required);
  // Takes out the child "path" of `elem` (consumed); a non-empty value is globalized. Empty or missing
  // with `required`: 20021, message 27 with "path". Returns the status (0 on success).
  int parse_path(OlXmlElem* elem, std::string& out, bool required);
  int parse_path(OlXmlElem* elem, bool required);  // into the path field
  // Reads the list child `list_tag` whose children must all be `item_tag` with non-empty values
  // (globalized when asked). Missing list: 20021 + message 7 when `required`, else an empty list.
  // Wrong child tag or empty item: 20021, message 7. Returns the status.
  int parse_sub_list(OlXmlElem* elem, const char* list_tag, const char* item_tag, std::vector<std::string>& out,
                     bool globalize, bool required);
  int parse_new_leaves(OlXmlElem* elem, bool required);          // "new-leaves" of "leaf"
  int parse_removed_leaves(OlXmlElem* elem, bool required);      // "removed-leaves" of "leaf"
  int parse_removed_load_rules(OlXmlElem* elem, bool required);  // "removed-load-rules" of "path", globalized
  // Reads the "namespace-modified" block of the element operations:
  //   required: a missing block gives 20021, message 7 (otherwise nothing to do);
  //   path_from_block: the block's "path" (required) becomes the path field; otherwise the block's path
  //     must equal the path field (paths_equal), else 20021, message 7;
  //   removed_leaves_allowed, new_leaves_allowed, removed_load_rules_allowed: a list that is not
  //     allowed must be absent or empty, else 20021, message 7.
  // Leaves must not hold a pathname separator (check_no_separators). Returns the status.
  int parse_namespace_modified(OlXmlElem* elem, bool path_from_block, bool required, bool removed_leaves_allowed,
                               bool new_leaves_allowed, bool removed_load_rules_allowed);
  // 20021, message 7 for the first item that holds a pathname separator. Returns the status.
  int check_no_separators(const std::vector<std::string>& items);

  // ---- View and paths --------------------------------------------------------------------------------
  // Fills the view field from the view source; 20019 and message 14 when there is no view.
  int get_view();
  // Splits the path field into leaf and parent, and makes the full paths below the view root:
  //   leaf, parent path, full parent path = view root + parent, full object path = view root + path.
  // A path without a leaf (empty, or ending in "/") gives message 39 and 20001; no view, or a view whose
  // root is not known yet, gives 20019 and message 14.
  int divide_path();

  // ---- Status and message -----------------------------------------------------------------------------
  // Sets the status and appends catalogue message `number` of the agent's table. Returns `status`.
  int fail(int status, int number, ...);
  // Appends / assigns catalogue message `number` of the agent's table.
  void append_message(int number, ...);
  void assign_message(int number, ...);

  // ---- Response ---------------------------------------------------------------------------------------
  // Makes the root element (the request name) with tx-id, status-code (`status_code`) and, when the
  // status message is not empty, status-message. Returns 0 or the first failing document status.
  int create_response_root(OlXmlDoc& doc, int status_code);
  int create_response_root(OlXmlDoc& doc) { return create_response_root(doc, m_status); }
  // Serialises `doc` into `response`. Should the document library fail to serialise, the envelope is
  // written as text instead, so an answer always goes out.
  void finish_response(OlXmlDoc& doc, std::string& response);
  // The whole answer of an operation without elements of its own.
  void get_envelope_response(std::string& response);

  int m_status = 0;
  std::string m_status_message;
  std::string m_txid;
  std::string m_request_version;
  std::string m_highest_version = "1";
  std::string m_view_location;
  std::string m_request_name;
  OlAutoPtr<OlXmlDoc> m_request_doc;
  std::string m_path;
  std::vector<std::string> m_removed_load_rules;
  std::vector<std::string> m_removed_leaves;
  std::vector<std::string> m_new_leaves;
  Tavrel_View* m_view = nullptr;
  std::string m_leaf;
  std::string m_parent_path;
  std::string m_full_parent_path;
  std::string m_full_object_path;
  std::string m_txid_guess;  // get_txid of the raw request, for requests that did not parse

 private:
  void set_highest_version(const char* version) { m_highest_version = version ? version : "1"; }
};
