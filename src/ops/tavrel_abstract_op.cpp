#include "ops/tavrel_abstract_op.h"

#include <xercesc/sax/SAXParseException.hpp>

#include <atomic>
#include <cctype>
#include <cstdarg>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <new>

#include "base/fileutl.h"
#include "base/tavrel_mutex.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_view.h"
#include "core/tavrel_msg_table.h"
#include "ops/tavrel_tag.h"
#include "ops/tavrel_unknown.h"
#include "core/tavrel_util.h"
#include "ops/tavrel_xml_error.h"
#include "ops/tavrel_xml_trace_sink.h"
#include "xml/ol_xml_elem.h"
#include "xml/ol_xml_parser.h"

namespace {
std::atomic<Tavrel_AbstractOp::Factory> g_factory{nullptr};
std::atomic<Tavrel_AbstractOp::ViewSource> g_view_source{nullptr};
std::atomic<Tavrel_AbstractOp::ViewSink> g_view_sink{nullptr};

// The installed operation table; the pair is swapped as one.
struct Op_Table {
  const Tavrel_Op_Entry* rows;
  size_t count;
};
std::atomic<const Op_Table*> g_op_table{nullptr};

// The request as it may appear in a trace: without password contents.
std::string traceable(const Tavrel_Trace& trace, int level, const std::string& request) {
  return trace.shouldTrace(level) ? Tavrel_Trace::redact(request) : std::string();
}

// The historic version conversion: the number cut to eight bits and kept as a text of one character
// with that code. strtol saturates instead of overflowing; the cut keeps the low eight bits.
std::string version_as_stored(const std::string& text) {
  long value = std::strtol(text.c_str(), nullptr, 10);
  return std::string(1, static_cast<char>(static_cast<unsigned long>(value) & 0xffUL));
}
// A name the text envelope can carry as it is: a letter, then letters, digits, "-", "_" or ".".
bool plain_name(const std::string& name) {
  if (name.empty() || !std::isalpha(static_cast<unsigned char>(name[0]))) return false;
  for (char c : name)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_' && c != '.') return false;
  return true;
}
}  // namespace

// ---- Construction -----------------------------------------------------------------------------------

Tavrel_AbstractOp::Tavrel_AbstractOp(const std::string& view_location, OlXmlDoc* doc)
    : m_view_location(view_location), m_request_doc(doc) {
  Tavrel_Trace trace(TAVREL, "Tavrel_AbstractOp", "Tavrel_AbstractOp");
  if (!m_request_doc) {
    trace.writeTrace(TRACE_LEVEL_2, "No parsed document");
  } else if (!m_request_doc->get_root()) {
    trace.writeTrace(TRACE_LEVEL_2, "Could not get root element");
  } else {
    m_request_name = m_request_doc->get_root()->get_tag();
  }
}

Tavrel_AbstractOp::Tavrel_AbstractOp() = default;

Tavrel_AbstractOp::Tavrel_AbstractOp(const std::string& request_name, const std::string& view_location)
    : m_view_location(view_location), m_request_name(request_name) {}

Tavrel_AbstractOp::~Tavrel_AbstractOp() = default;

// ---- Factory ----------------------------------------------------------------------------------------

void Tavrel_AbstractOp::set_request_factory(Factory factory) { g_factory.store(factory); }

void Tavrel_AbstractOp::set_view_source(ViewSource source) { g_view_source.store(source); }

void Tavrel_AbstractOp::set_view_sink(ViewSink sink) { g_view_sink.store(sink); }

bool Tavrel_AbstractOp::has_view_source() { return g_view_source.load() != nullptr; }

bool Tavrel_AbstractOp::has_view_sink() { return g_view_sink.load() != nullptr; }

void Tavrel_AbstractOp::set_op_table(const Tavrel_Op_Entry* table, size_t count) {
  // Tables are installed once or a few times (tests); the pairs are kept so that a request that
  // read an older one never sees it freed.
  static Tavrel_Mutex m{Tavrel_Lock_Rank::LEAF, "operation tables kept"};
  static std::deque<Op_Table> kept;
  if (!table) {
    g_op_table.store(nullptr);
    return;
  }
  std::lock_guard<Tavrel_Mutex> g(m);
  kept.push_back(Op_Table{table, count});
  g_op_table.store(&kept.back());
}

bool Tavrel_AbstractOp::has_op_table() { return g_op_table.load() != nullptr; }

bool Tavrel_AbstractOp::install_view(Tavrel_View* view) {
  ViewSink sink = g_view_sink.load();
  if (!sink) return false;
  sink(view);
  return true;
}

Tavrel_AbstractOp* Tavrel_AbstractOp::create_xml_request_handler(const std::string& request,
                                                                 const std::string& view_location, int* status) {
  tavrel_install_xml_trace_sink();
  Factory f = g_factory.load();
  if (f) {
    *status = 0;
    return f(request, view_location, status);
  }
  const Op_Table* table = g_op_table.load();
  return create_from_table(request, view_location, status, table ? table->rows : nullptr, table ? table->count : 0);
}

Tavrel_AbstractOp* Tavrel_AbstractOp::create_from_table(const std::string& request, const std::string& view_location,
                                                        int* status, const Tavrel_Op_Entry* table, size_t count) {
  Tavrel_Trace trace(TAVREL, "Tavrel_AbstractOp", "create_xml_request_handler");
  *status = 0;
  try {
    OlAutoPtr<OlXmlDoc> doc;
    try {
      OlXmlParser parser;
      if (trace.shouldTrace(TRACE_LEVEL_4))
        trace.writeTrace(TRACE_LEVEL_4, "Parsing %s", traceable(trace, TRACE_LEVEL_4, request).c_str());
      doc.reset(parser.parse_string(request)->release());
    } catch (const OlXmlParser::OlXmlEncodingException&) {
      if (trace.shouldTrace(TRACE_LEVEL_2))
        trace.writeTrace(TRACE_LEVEL_2, "Encoding Exception thrown when Parsing %s",
                         traceable(trace, TRACE_LEVEL_2, request).c_str());
      doc.reset();
      Tavrel_AbstractOp* op = new Tavrel_XMLError(view_location, request);
      return op;
    } catch (...) {  // not well formed, refused, or out of memory while parsing
      if (trace.shouldTrace(TRACE_LEVEL_2))
        trace.writeTrace(TRACE_LEVEL_2, "Exception thrown when Parsing %s",
                         traceable(trace, TRACE_LEVEL_2, request).c_str());
      doc.reset();
      return new Tavrel_Unknown(view_location, nullptr, request);
    }
    if (!doc) {
      trace.writeTrace(TRACE_LEVEL_2, "Did not get request_doc");
      *status = TAVREL_ST_MALFORMED;
      return nullptr;
    }
    if (!doc->get_root()) {
      trace.writeTrace(TRACE_LEVEL_2, "Could not get root element");
      *status = TAVREL_ST_MALFORMED;
      return nullptr;
    }
    const std::string& tag = doc->get_root()->get_tag();
    for (size_t i = 0; i < count; i++) {
      if (tag != table[i].name) continue;
      trace.writeTrace(TRACE_LEVEL_4, "Request %s", table[i].name);
      Tavrel_AbstractOp* op = table[i].make(view_location, doc.release());
      op->set_highest_version(table[i].highest_version);
      return op;
    }
    trace.writeTrace(TRACE_LEVEL_2, "Unrecognized request %s", tag.c_str());
    return make_with_doc<Tavrel_Unknown>(view_location, doc.release(), request);
  } catch (const std::bad_alloc&) {
    trace.writeTrace(TRACE_LEVEL_1, "Out of memory building the operation");
    *status = TAVREL_ST_NO_OBJECT;
    return nullptr;
  }
}

void Tavrel_AbstractOp::get_txid(const std::string& text, std::string& out) {
  size_t at = text.find(Tavrel_Tag::TRANS_ID);
  if (at == std::string::npos) return;
  size_t open = text.find('"', at);
  if (open == std::string::npos) return;
  size_t close = text.find('"', open + 1);
  if (close == std::string::npos) return;
  out = text.substr(open + 1, close - open - 1);
}

// ---- Request parsing --------------------------------------------------------------------------------

OlXmlElem* Tavrel_AbstractOp::parse_validate_request(const int& txid_required) {
  Tavrel_Trace trace(TAVREL, "Tavrel_AbstractOp", "parse_validate_request");
  if (!m_request_doc) {
    trace.writeTrace(TRACE_LEVEL_2, "Did not get request_doc");
    m_status = TAVREL_ST_MALFORMED;
    return nullptr;
  }
  OlXmlElem* root = m_request_doc->get_root();
  if (!root) {
    trace.writeTrace(TRACE_LEVEL_2, "Could not get root element");
    m_status = TAVREL_ST_MALFORMED;
    return nullptr;
  }
  const std::string version = root->get_attr(Tavrel_Tag::VERSION);
  if (version.empty()) {
    trace.writeTrace(TRACE_LEVEL_2, "Version not specified");
    m_status = TAVREL_ST_MALFORMED;
    assign_message(TVR_LIB_PARSE_ERROR, m_view_location.c_str());
    return nullptr;
  }
  m_request_version = version_as_stored(version);
  if (std::atoi(m_request_version.c_str()) > std::atoi(m_highest_version.c_str())) {
    trace.writeTrace(TRACE_LEVEL_2, "Version %s not supported", version.c_str());
    m_status = TAVREL_ST_VERSION;
    assign_message(TVR_LIB_PARSE_ERROR, m_view_location.c_str());
    return nullptr;
  }
  // Only operations that require a tx-id read it; the answer carries the transaction id read here, so
  // the first requests (MkView, StartView) and envelopes refused before this point answer an empty one.
  if (txid_required == 0) return root;
  m_txid = root->get_attr(Tavrel_Tag::TRANS_ID);
  if (m_txid.empty()) {
    trace.writeTrace(TRACE_LEVEL_2, "Transaction id not specified");
    m_status = TAVREL_ST_MALFORMED;
    assign_message(TVR_LIB_PARSE_ERROR, m_view_location.c_str());
    return nullptr;
  }
  return root;
}

int Tavrel_AbstractOp::parse_path(OlXmlElem* elem, std::string& out, bool required) {
  Tavrel_Trace trace(TAVREL, "Tavrel_AbstractOp", "parse_path");
  OlXmlElem* child = elem ? elem->extract_child(Tavrel_Tag::PATH) : nullptr;
  out = child ? child->get_value() : std::string();
  if (!out.empty()) Tavrel_Util::globalize_path(out);
  if (out.empty() && required) {
    trace.writeTrace(TRACE_LEVEL_2, "No pathname");
    return fail(TAVREL_ST_MALFORMED, TVR_LIB_NOT_IN_REQUEST, Tavrel_Tag::PATH);
  }
  return TAVREL_ST_OK;
}

int Tavrel_AbstractOp::parse_path(OlXmlElem* elem, bool required) { return parse_path(elem, m_path, required); }

int Tavrel_AbstractOp::parse_sub_list(OlXmlElem* elem, const char* list_tag, const char* item_tag,
                                      std::vector<std::string>& out, bool globalize, bool required) {
  Tavrel_Trace trace(TAVREL, "Tavrel_AbstractOp", "parse_sub_list");
  OlXmlElem* list = elem ? elem->extract_child(list_tag) : nullptr;
  if (!list) {
    if (!required) return TAVREL_ST_OK;
    trace.writeTrace(TRACE_LEVEL_2, "No child list %s", list_tag);
    return fail(TAVREL_ST_MALFORMED, TVR_LIB_PARSE_ERROR, m_view_location.c_str());
  }
  for (const OlXmlElem* item : list->get_children()) {
    if (item->get_tag() != item_tag) {
      trace.writeTrace(TRACE_LEVEL_2, "Wrong child tag %s (should be %s)", item->get_tag().c_str(), item_tag);
      return fail(TAVREL_ST_MALFORMED, TVR_LIB_PARSE_ERROR, m_view_location.c_str());
    }
    std::string value = item->get_value();
    if (value.empty()) {
      trace.writeTrace(TRACE_LEVEL_2, "Empty child item");
      return fail(TAVREL_ST_MALFORMED, TVR_LIB_PARSE_ERROR, m_view_location.c_str());
    }
    if (globalize) Tavrel_Util::globalize_path(value);
    out.push_back(std::move(value));
  }
  return TAVREL_ST_OK;
}

int Tavrel_AbstractOp::parse_new_leaves(OlXmlElem* elem, bool required) {
  return parse_sub_list(elem, Tavrel_Tag::NEW_LEAVES, Tavrel_Tag::LEAF, m_new_leaves, false, required);
}

int Tavrel_AbstractOp::parse_removed_leaves(OlXmlElem* elem, bool required) {
  return parse_sub_list(elem, Tavrel_Tag::REMOVED_LEAVES, Tavrel_Tag::LEAF, m_removed_leaves, false, required);
}

int Tavrel_AbstractOp::parse_removed_load_rules(OlXmlElem* elem, bool required) {
  return parse_sub_list(elem, Tavrel_Tag::REMOVED_LOAD_RULES, Tavrel_Tag::PATH, m_removed_load_rules, true,
                        required);
}

int Tavrel_AbstractOp::parse_namespace_modified(OlXmlElem* elem, bool path_from_block, bool required,
                                                bool removed_leaves_allowed, bool new_leaves_allowed,
                                                bool removed_load_rules_allowed) {
  Tavrel_Trace trace(TAVREL, "Tavrel_AbstractOp", "parse_namespace_items");
  OlXmlElem* block = elem ? elem->extract_child(Tavrel_Tag::NAMESPACE_MODIFIED) : nullptr;
  if (!block) {
    if (!required) return TAVREL_ST_OK;
    trace.writeTrace(TRACE_LEVEL_2, "No modified XML element %s", Tavrel_Tag::NAMESPACE_MODIFIED);
    return fail(TAVREL_ST_MALFORMED, TVR_LIB_PARSE_ERROR, m_view_location.c_str());
  }
  int st;
  if (path_from_block) {
    if ((st = parse_path(block, true)) != 0) return st;
  } else {
    std::string block_path;
    if ((st = parse_path(block, block_path, false)) != 0) return st;
    if (!Tavrel_Util::paths_equal(block_path, m_path)) {
      trace.writeTrace(TRACE_LEVEL_2, "path mismatch: %s vs %s", block_path.c_str(), m_path.c_str());
      return fail(TAVREL_ST_MALFORMED, TVR_LIB_PARSE_ERROR, m_view_location.c_str());
    }
  }
  if ((st = parse_removed_load_rules(block, false)) != 0) return st;
  if ((st = parse_removed_leaves(block, false)) != 0) return st;
  if ((st = parse_new_leaves(block, false)) != 0) return st;
  struct {
    bool allowed;
    const std::vector<std::string>& items;
    const char* tag;
  } lists[] = {{removed_leaves_allowed, m_removed_leaves, Tavrel_Tag::REMOVED_LEAVES},
               {new_leaves_allowed, m_new_leaves, Tavrel_Tag::NEW_LEAVES},
               {removed_load_rules_allowed, m_removed_load_rules, Tavrel_Tag::REMOVED_LOAD_RULES}};
  for (const auto& l : lists) {
    if (l.allowed || l.items.empty()) continue;
    trace.writeTrace(TRACE_LEVEL_2, "Unexpected %s in %s", l.tag, Tavrel_Tag::NAMESPACE_MODIFIED);
    return fail(TAVREL_ST_MALFORMED, TVR_LIB_PARSE_ERROR, m_view_location.c_str());
  }
  if ((st = check_no_separators(m_removed_leaves)) != 0) return st;
  return check_no_separators(m_new_leaves);
}

int Tavrel_AbstractOp::check_no_separators(const std::vector<std::string>& items) {
  Tavrel_Trace trace(TAVREL, "Tavrel_AbstractOp", "check_no_separators");
  for (const std::string& item : items) {
    if (!Tavrel_Util::contains_pname_separator(item)) continue;
    trace.writeTrace(TRACE_LEVEL_2, "invalid item name \"%s\" contains pathname separator", item.c_str());
    return fail(TAVREL_ST_MALFORMED, TVR_LIB_PARSE_ERROR, m_view_location.c_str());
  }
  return TAVREL_ST_OK;
}

// ---- View and paths ---------------------------------------------------------------------------------

int Tavrel_AbstractOp::get_view() {
  Tavrel_Trace trace(TAVREL, "Tavrel_AbstractOp", "get_view");
  ViewSource source = g_view_source.load();
  m_view = source ? source() : nullptr;
  if (!m_view) {
    trace.writeTrace(TRACE_LEVEL_1, "No view object available");
    return fail(TAVREL_ST_NO_VIEW_INFO, TVR_LIB_NO_VIEW_INFO);
  }
  return TAVREL_ST_OK;
}

int Tavrel_AbstractOp::divide_path() {
  Tavrel_Trace trace(TAVREL, "Tavrel_AbstractOp", "divide_path");
  int st = get_view();
  if (st != 0) return st;
  const std::string root = m_view->get_view_root();
  if (root.empty()) {
    trace.writeTrace(TRACE_LEVEL_1, "View root unknown");
    return fail(TAVREL_ST_NO_VIEW_INFO, TVR_LIB_NO_VIEW_INFO);
  }
  size_t last = m_path.rfind(Tavrel_Util::PNAME_SEPARATOR);
  std::string leaf = last == std::string::npos ? m_path : m_path.substr(last + 1);
  if (leaf.empty()) {
    trace.writeTrace(TRACE_LEVEL_2, "Unable to split %s", m_path.c_str());
    return fail(TAVREL_ST_FAILURE, TVR_LIB_SPLIT_PATH, m_path.c_str());
  }
  m_leaf = leaf;
  m_parent_path = last == std::string::npos ? std::string() : fileutl_strip_leaf(m_path);
  // A view-relative path normally starts with "/"; one that does not still lands below the root.
  auto below_root = [&root](const std::string& p) {
    if (p.empty() || p[0] == Tavrel_Util::PNAME_SEPARATOR) return root + p;
    return root + Tavrel_Util::PNAME_SEPARATOR + p;
  };
  m_full_parent_path = m_parent_path == "/" ? root : below_root(m_parent_path);
  m_full_object_path = below_root(m_path);
  trace.writeTrace(TRACE_LEVEL_4, "leaf %s parent %s full parent %s full path %s", m_leaf.c_str(),
                   m_parent_path.c_str(), m_full_parent_path.c_str(), m_full_object_path.c_str());
  return TAVREL_ST_OK;
}

// ---- Status and message -----------------------------------------------------------------------------

int Tavrel_AbstractOp::fail(int status, int number, ...) {
  std::string text;
  va_list ap;
  va_start(ap, number);
  Tavrel_Util::vformat(text, &_tvr_lib_lib_msg_table, number, ap);
  va_end(ap);
  m_status = status;
  m_status_message += text;
  return status;
}

void Tavrel_AbstractOp::append_message(int number, ...) {
  std::string text;
  va_list ap;
  va_start(ap, number);
  Tavrel_Util::vformat(text, &_tvr_lib_lib_msg_table, number, ap);
  va_end(ap);
  m_status_message += text;
}

void Tavrel_AbstractOp::assign_message(int number, ...) {
  va_list ap;
  va_start(ap, number);
  Tavrel_Util::vformat(m_status_message, &_tvr_lib_lib_msg_table, number, ap);
  va_end(ap);
}

// ---- Response ---------------------------------------------------------------------------------------

int Tavrel_AbstractOp::create_response_root(OlXmlDoc& doc, int status_code) {
  Tavrel_Trace trace(TAVREL, "Tavrel_AbstractOp", "create_response_root");
  trace.writeTrace(TRACE_LEVEL_5, "Calling create_root_elem");
  int rc = doc.create_root_elem(m_request_name);
  if (rc == 0) rc = doc.add_attr(Tavrel_Tag::TRANS_ID, m_txid);
  if (rc == 0) rc = doc.add_attr(Tavrel_Tag::STATUS_CODE, std::to_string(status_code));
  if (rc == 0 && !m_status_message.empty()) rc = doc.add_elem(Tavrel_Tag::STATUS_MESSAGE, m_status_message);
  trace.writeTrace(TRACE_LEVEL_5, "Status from create_root_elem = %d", rc);
  return rc;
}

void Tavrel_AbstractOp::finish_response(OlXmlDoc& doc, std::string& response) {
  Tavrel_Trace trace(TAVREL, "Tavrel_AbstractOp", "finish_response");
  if (doc.get_string(response) != 0 || response.empty()) {
    // Nothing could be serialised (not even a root): the envelope as text still tells the client.
    trace.writeTrace(TRACE_LEVEL_1, "Could not serialise the response document of %s", m_request_name.c_str());
    const std::string root = plain_name(m_request_name) ? m_request_name : std::string(Tavrel_Tag::XMLERROR);
    response = make_status_response(root, m_txid, m_status, m_status_message);
  }
  if (trace.shouldTrace(TRACE_LEVEL_4))
    trace.writeTrace(TRACE_LEVEL_4, "Returning response [%s]", Tavrel_Trace::redact(response).c_str());
}

void Tavrel_AbstractOp::get_envelope_response(std::string& response) {
  OlXmlDoc doc;
  create_response_root(doc);
  finish_response(doc, response);
}

// ---- Replies that no operation builds ---------------------------------------------------------------

void Tavrel_AbstractOp::get_shutdown_response(const Tavrel_AbstractOp* op, std::string& response) {
  Tavrel_Trace trace(TAVREL, "Tavrel_AbstractOp", "get_shutdown_response");
  // The operation never ran, so it read no tx-id: the answer has none (a client matches it to the
  // oldest request it still waits for).
  std::string root = Tavrel_Tag::SHUTDOWN_IN_PROGRESS;
  if (op && !op->get_request_name().empty()) root = op->get_request_name();
  std::string message;
  Tavrel_Util::format(message, &_tvr_lib_lib_msg_table, TVR_LIB_SHUTTING_DOWN);
  OlXmlDoc doc;
  int rc = doc.create_root_elem(root);
  if (rc == 0) rc = doc.add_attr(Tavrel_Tag::STATUS_CODE, std::to_string(TAVREL_ST_VIEW_ENDING));
  if (rc == 0) rc = doc.add_elem(Tavrel_Tag::STATUS_MESSAGE, message);
  if (doc.get_string(response) != 0 || response.empty())
    response = make_status_response(root, "", TAVREL_ST_VIEW_ENDING, message);
}

std::string Tavrel_AbstractOp::xml_escape(const std::string& text, bool attribute) {
  static const char kReplacement[] = "\xef\xbf\xbd";  // U+FFFD
  std::string out;
  out.reserve(text.size());
  const size_t n = text.size();
  for (size_t i = 0; i < n;) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 0x80) {
      switch (c) {
        case '&':
          out += "&amp;";
          break;
        case '<':
          out += "&lt;";
          break;
        case '>':
          out += "&gt;";
          break;
        case '"':
          out += attribute ? "&quot;" : "\"";
          break;
        case '\n':
          out += attribute ? "&#10;" : "\n";
          break;
        case '\r':
          out += "&#13;";
          break;
        case '\t':
          out += attribute ? "&#9;" : "\t";
          break;
        default:
          if (c < 0x20)
            out += kReplacement;  // XML 1.0 cannot carry other C0 controls
          else
            out += static_cast<char>(c);
      }
      i++;
      continue;
    }
    // A UTF-8 sequence: copied when well formed and a character XML allows, else one U+FFFD per byte
    // that cannot start a valid sequence.
    size_t len = c >= 0xf0 ? 4 : c >= 0xe0 ? 3 : c >= 0xc0 ? 2 : 0;
    bool ok = len != 0 && c <= 0xf4 && c >= 0xc2 && i + len <= n;
    unsigned long cp = 0;
    if (ok) {
      cp = c & (0x7f >> len);
      for (size_t k = 1; k < len; k++) {
        const unsigned char cc = static_cast<unsigned char>(text[i + k]);
        if ((cc & 0xc0) != 0x80) {
          ok = false;
          break;
        }
        cp = (cp << 6) | (cc & 0x3f);
      }
    }
    if (ok) {
      static const unsigned long kMin[] = {0, 0, 0x80, 0x800, 0x10000};
      ok = cp >= kMin[len] && cp <= 0x10ffff && !(cp >= 0xd800 && cp <= 0xdfff) && cp != 0xfffe && cp != 0xffff;
    }
    if (ok) {
      out.append(text, i, len);
      i += len;
    } else {
      out += kReplacement;
      i++;
    }
  }
  return out;
}

std::string Tavrel_AbstractOp::make_status_response(const std::string& root, const std::string& txid, int status,
                                                    const std::string& message) {
  std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><" + root;
  if (!txid.empty()) out += " tx-id=\"" + xml_escape(txid, true) + "\"";
  out += " status-code=\"" + std::to_string(status) + "\"";
  if (message.empty()) return out + "/>";
  return out + "><status-message>" + xml_escape(message, false) + "</status-message></" + root + ">";
}

void Tavrel_AbstractOp::get_error_response(int status, const std::string& request, std::string& response) {
  response = make_status_response(Tavrel_Tag::UNKNOWN, "", status, request);
}
