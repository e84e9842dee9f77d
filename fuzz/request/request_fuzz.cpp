// libFuzzer target for the agent's request parser: the operation factory
// (create_xml_request_handler), process_request and get_response, in a UTF-8 and in an ASCII locale.
//
// Properties checked on every input, beyond "no crash, no leak, no sanitizer report":
//  * the process's factory always builds an operation (status 0); for a root of its table, that
//    operation (not run: it would act on a view and a server) with a well-formed answer; otherwise one
//    whose answer parses, has the request name as root, a tx-id and a status-code, and tells exactly
//    what the parser saw:
//    20057 for an encoding failure, 20020 with message 7 for text that is not a document, 20020
//    with message 22 for a document with an unknown root;
//  * a factory over a table of test operations that run the shared parsers (envelope check, path,
//    lists, namespace-modified block) answers with its own root and its status, well formed;
//  * the replies no operation builds (first-request refusal, cancel reply) are well formed for any
//    request text.
#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <locale.h>
#include <memory>
#include <string>

#include "ops/tavrel_abstract_op.h"
#include "apps/tavrel_agent/tavrel_op_table.h"
#include "proto/tavrel_status.h"
#include "xml/ol_xml_elem.h"
#include "xml/ol_xml_parser.h"

namespace {

const std::string kLocation = "/views/fuzz";

[[noreturn]] void fail(const char* what, const std::string& detail) {
  std::fprintf(stderr, "request_fuzz: %s\n%s\n", what, detail.c_str());
  std::abort();
}

// A test operation that runs every shared parser on its request, as the element operations do.
class FuzzOp : public Tavrel_AbstractOp {
 public:
  FuzzOp(const std::string& location, OlXmlDoc* doc) : Tavrel_AbstractOp(location, doc) {}
  void process_request() override {
    const bool first = m_request_name == "MkView" || m_request_name == "StartView";
    OlXmlElem* root = parse_validate_request(first ? 0 : 1);
    if (!root) return;
    if (parse_path(root, false) != 0) return;
    const unsigned flags = static_cast<unsigned>(m_txid.size());
    if (parse_namespace_modified(root, flags & 1, flags & 2, flags & 4, flags & 8, flags & 16) != 0) return;
    std::vector<std::string> paths;
    if (parse_sub_list(root, "update-paths", "path", paths, true, false) != 0) return;
    m_items = paths.size() + m_new_leaves.size() + m_removed_leaves.size() + m_removed_load_rules.size();
  }
  void get_response(std::string& response) override {
    OlXmlDoc doc;
    if (create_response_root(doc) == 0 && m_status == 0) {
      if (!m_path.empty()) doc.add_elem("path", m_path);
      for (const std::string& leaf : m_new_leaves) doc.add_elem("leaf", leaf);
      doc.add_elem("items", std::to_string(m_items));
    }
    finish_response(doc, response);
  }

 private:
  size_t m_items = 0;
};

const Tavrel_Op_Entry kFuzzTable[] = {
    {"Checkin", "1", &Tavrel_AbstractOp::make_with_doc<FuzzOp>},
    {"MkView", "1", &Tavrel_AbstractOp::make_with_doc<FuzzOp>},
    {"Move", "1", &Tavrel_AbstractOp::make_with_doc<FuzzOp>},
    {"StartView", "1", &Tavrel_AbstractOp::make_with_doc<FuzzOp>},
    {"Uncheckout", "2", &Tavrel_AbstractOp::make_with_doc<FuzzOp>},
};

struct Answer {
  std::string root;
  bool has_txid = false;
  int code = -1;
  std::string message;
};

// Reads an answer back, in a UTF-8 locale (an answer is UTF-8 whatever the agent's locale); aborts
// when it is not a well-formed document with a status-code.
Answer read_answer(const std::string& reply, const std::string& input) {
  struct Utf8 {
    locale_t loc = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
    locale_t old = uselocale(loc);
    ~Utf8() {
      uselocale(old);
      freelocale(loc);
    }
  } utf8;
  OlXmlParser parser;
  OlXmlParser::Result result;
  std::unique_ptr<OlXmlDoc> doc(parser.parse(reply, result));
  if (!doc || !doc->get_root()) fail(("answer does not parse: " + result.message).c_str(), input + "\n--\n" + reply);
  Answer a;
  const OlXmlElem* root = doc->get_root();
  a.root = root->get_tag();
  a.has_txid = root->has_attr("tx-id");
  const std::string code = root->get_attr("status-code");
  if (code.empty() || code.find_first_not_of("0123456789") != std::string::npos) fail("bad status-code", reply);
  a.code = std::atoi(code.c_str());
  for (const OlXmlElem* c : root->get_children())
    if (c->get_tag() == "status-message") a.message = c->get_value();
  return a;
}

// Whether the process's table has an operation for this root. Those operations act on the view
// storage and the server, so the fuzzer checks only that the factory chose them and that their
// answer is well formed; it does not run them.
bool in_process_table(const std::string& root) {
  for (size_t i = 0; i < tavrel_op_table_size(); i++)
    if (root == tavrel_op_table()[i].name) return true;
  return false;
}

void check_process_factory(const std::string& input, OlXmlParser::Result::Kind seen, const OlXmlDoc* parsed) {
  int status = -1;
  std::unique_ptr<Tavrel_AbstractOp> op(Tavrel_AbstractOp::create_xml_request_handler(input, kLocation, &status));
  if (!op || status != 0) fail("the factory built no operation", input);
  if (seen == OlXmlParser::Result::kOk && parsed && parsed->get_root() &&
      in_process_table(parsed->get_root()->get_tag())) {
    const std::string& tag = parsed->get_root()->get_tag();
    if (op->get_request_name() != tag) fail("the factory chose another operation", input);
    std::string reply;
    op->get_response(reply);
    if (read_answer(reply, input).root != tag) fail("answer root differs from the operation", reply);
    return;
  }
  op->process_request();
  std::string reply;
  op->get_response(reply);
  Answer a = read_answer(reply, input);
  if (a.root != "XMLError" || !a.has_txid) fail("answer root or tx-id", reply);
  switch (seen) {
    case OlXmlParser::Result::kEncoding:
      if (a.code != TAVREL_ST_ENCODING || a.message != "Parse error in \"/views/fuzz\".\n")
        fail("encoding answer", reply);
      break;
    case OlXmlParser::Result::kSyntax:
      if (a.code != TAVREL_ST_UNRECOGNIZED || a.message != "Parse error in \"/views/fuzz\".\n")
        fail("unparsable answer", reply);
      break;
    case OlXmlParser::Result::kOk:
      if (a.code != TAVREL_ST_UNRECOGNIZED || a.message != "Unrecognized IPC: \"XMLError\".\n")
        fail("unknown-root answer", reply);
      break;
  }
  std::string cancel;
  Tavrel_AbstractOp::get_shutdown_response(op.get(), cancel);
  if (read_answer(cancel, input).code != TAVREL_ST_VIEW_ENDING) fail("cancel answer", cancel);
}

void check_test_table(const std::string& input) {
  int status = -1;
  std::unique_ptr<Tavrel_AbstractOp> op(
      Tavrel_AbstractOp::create_from_table(input, kLocation, &status, kFuzzTable, std::size(kFuzzTable)));
  if (!op || status != 0) fail("the table factory built no operation", input);
  op->process_request();
  std::string reply;
  op->get_response(reply);
  Answer a = read_answer(reply, input);
  if (op->get_request_name() != "XMLError") {
    if (a.root != op->get_request_name()) fail("answer root differs from the request name", reply);
    if (a.code != op->get_status()) fail("status-code differs from the status", reply);
    if (a.code != 0 && a.message.empty()) fail("failure without a message", reply);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::setlocale(LC_ALL, "C.UTF-8");
  Tavrel_AbstractOp::set_op_table(tavrel_op_table(), tavrel_op_table_size());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  for (const char* ctype : {"C.UTF-8", "C"}) {
    locale_t loc = newlocale(LC_CTYPE_MASK, ctype, static_cast<locale_t>(0));
    locale_t old = uselocale(loc);
    OlXmlParser parser;
    OlXmlParser::Result result;
    std::unique_ptr<OlXmlDoc> doc(parser.parse(input, result));
    if (!doc && result.kind == OlXmlParser::Result::kOk) fail("no document and no failure", input);
    check_process_factory(input, result.kind, doc.get());
    check_test_table(input);
    uselocale(old);
    freelocale(loc);
  }
  std::string refused;
  Tavrel_AbstractOp::get_error_response(TAVREL_ST_UNRECOGNIZED, input, refused);
  Answer a = read_answer(refused, input);
  if (a.root != "Unknown" || a.has_txid || a.code != TAVREL_ST_UNRECOGNIZED) fail("first-request refusal", refused);
  return 0;
}
