// The operation framework: the factory and its error replies, the envelope checks, the shared request
// parsers, the view and path split, the response envelope, and the XML layer's trace hook.
#include <algorithm>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>

#include "core/tavrel_trace.h"
#include "core/tavrel_view.h"
#include "ops/ops_test_util.h"
#include "ops/tavrel_abstract_op.h"
#include "ops/tavrel_xml_trace_sink.h"
#include "xml/ol_util.h"

namespace {

using ops_test::read_reply;
using ops_test::Reply;

const std::string kLocation = "/views/v1";
const std::string kParseError = "Parse error in \"/views/v1\".\n";
const std::string kUnrecognized = "Unrecognized IPC: \"XMLError\".\n";
const std::string kShuttingDown = "tavrel_agent is shutting down; no new requests can be processed.\n";

// A test operation with the envelope of a real one: "ProbeFirst" does not require a tx-id (like the
// two operations that can come first), the others do. On success it echoes its path.
class ProbeOp : public Tavrel_AbstractOp {
 public:
  ProbeOp(const std::string& location, OlXmlDoc* doc) : Tavrel_AbstractOp(location, doc) {}
  void process_request() override {
    OlXmlElem* root = parse_validate_request(m_request_name == "ProbeFirst" ? 0 : 1);
    if (!root) return;
    parse_path(root, false);
  }
  void get_response(std::string& response) override {
    OlXmlDoc doc;
    if (create_response_root(doc) == 0 && m_status == 0 && !m_path.empty()) doc.add_elem("echo-path", m_path);
    finish_response(doc, response);
  }

  using Tavrel_AbstractOp::check_no_separators;
  using Tavrel_AbstractOp::divide_path;
  using Tavrel_AbstractOp::get_view;
  using Tavrel_AbstractOp::parse_namespace_modified;
  using Tavrel_AbstractOp::parse_new_leaves;
  using Tavrel_AbstractOp::parse_path;
  using Tavrel_AbstractOp::parse_removed_leaves;
  using Tavrel_AbstractOp::parse_sub_list;
  using Tavrel_AbstractOp::parse_validate_request;
  OlXmlElem* root() { return m_request_doc ? m_request_doc->get_root() : nullptr; }
  std::string& path() { return m_path; }
  const std::vector<std::string>& new_leaves() const { return m_new_leaves; }
  const std::vector<std::string>& removed_leaves() const { return m_removed_leaves; }
  const std::vector<std::string>& removed_load_rules() const { return m_removed_load_rules; }
  const std::string& leaf() const { return m_leaf; }
  const std::string& parent_path() const { return m_parent_path; }
  const std::string& full_parent_path() const { return m_full_parent_path; }
  const std::string& full_object_path() const { return m_full_object_path; }
  Tavrel_View* view() const { return m_view; }
};

// The second "Probe" row must never be reached: the first match decides.
const Tavrel_Op_Entry kProbeTable[] = {
    {"Probe", "1", &Tavrel_AbstractOp::make_with_doc<ProbeOp>},
    {"ProbeFirst", "1", &Tavrel_AbstractOp::make_with_doc<ProbeOp>},
    {"ProbeTwo", "2", &Tavrel_AbstractOp::make_with_doc<ProbeOp>},
    {"Probe", "2", &Tavrel_AbstractOp::make_with_doc<ProbeOp>},
};

Tavrel_AbstractOp* probe_factory(const std::string& request, const std::string& location, int* status) {
  return Tavrel_AbstractOp::create_from_table(request, location, status, kProbeTable, std::size(kProbeTable));
}

// A probe over a parsed document, for the parsing helpers.
std::unique_ptr<ProbeOp> probe_of(const std::string& xml) {
  OlXmlParser parser;
  OlXmlParser::Result result;
  OlXmlDoc* doc = parser.parse(xml, result);
  EXPECT_NE(doc, nullptr) << xml << ": " << result.message;
  return std::make_unique<ProbeOp>(kLocation, doc);
}

std::string run_probe(const std::string& request, int* op_status = nullptr) {
  int status = -1;
  std::string reply = ops_test::run_request(probe_factory, request, kLocation, &status, op_status);
  EXPECT_EQ(status, 0) << request;
  return reply;
}

// ---- Error and special replies ------------------------------------------------------------------------

TEST(OperationFramework, ErrorReplies) {
  struct Row {
    const char* name;
    std::function<std::string(int* op_status)> make;  // the reply, and the operation's own status
    const char* root;
    const char* txid;  // null: no tx-id attribute at all
    int code;
    std::string message;  // "" : no status-message element
    int op_status;
  };
  auto through_factory = [](std::string request, const char* ctype = "C") {
    return [request, ctype](int* op_status) {
      ol_test::ScopedCtype native(ctype);
      return run_probe(request, op_status);
    };
  };
  auto cancelled = [](std::string request) {
    return [request](int* op_status) {
      int status = -1;
      std::unique_ptr<Tavrel_AbstractOp> op(probe_factory(request, kLocation, &status));
      std::string reply;
      Tavrel_AbstractOp::get_shutdown_response(op.get(), reply);
      *op_status = op->get_status();
      return reply;
    };
  };
  const std::string first = "<Echo version=\"1\" tx-id=\"x\"/>";
  const Row rows[] = {
      // Not well formed, empty, or refused by the parser: text search for the tx-id, always 20020.
      {"Empty", through_factory(""), "XMLError", "", TAVREL_ST_UNRECOGNIZED, kParseError, TAVREL_ST_MALFORMED},
      {"Unclosed", through_factory("<Probe version=\"1\" tx-id=\"t-1\">"), "XMLError", "t-1", TAVREL_ST_UNRECOGNIZED, kParseError,
       TAVREL_ST_MALFORMED},
      {"Dtd", through_factory("<!DOCTYPE Probe><Probe version=\"1\" tx-id=\"t-2\"/>"), "XMLError", "t-2", TAVREL_ST_UNRECOGNIZED,
       kParseError, TAVREL_ST_MALFORMED},
      // Well formed, unknown root: the root's tx-id, 20020 even without one.
      {"UnknownRoot", through_factory("<Bogus version=\"1\" tx-id=\"t-3\"/>"), "XMLError", "t-3", TAVREL_ST_UNRECOGNIZED,
       kUnrecognized, 0},
      {"UnknownRootNoTxid", through_factory("<Bogus version=\"1\"/>"), "XMLError", "", TAVREL_ST_UNRECOGNIZED, kUnrecognized, TAVREL_ST_MALFORMED},
      // A character the native character set (here ASCII) cannot hold.
      {"Unconvertible", through_factory("<Probe version=\"1\" tx-id=\"t-5\"><path>caf\xc3\xa9</path></Probe>"),
       "XMLError", "t-5", TAVREL_ST_ENCODING, kParseError, TAVREL_ST_ENCODING},
      // Known root, bad envelope: own root; the tx-id is read last, so a refusal before it answers "".
      {"NoVersion", through_factory("<Probe tx-id=\"t-6\"/>"), "Probe", "", TAVREL_ST_MALFORMED, kParseError, TAVREL_ST_MALFORMED},
      {"NoTxid", through_factory("<Probe version=\"1\"/>"), "Probe", "", TAVREL_ST_MALFORMED, kParseError, TAVREL_ST_MALFORMED},
      {"VersionTooHigh", through_factory("<Probe version=\"50\" tx-id=\"t-7\"/>"), "Probe", "", TAVREL_ST_VERSION,
       kParseError, TAVREL_ST_VERSION},
      {"NoTxidFirstRequest", through_factory("<ProbeFirst version=\"1\"/>"), "ProbeFirst", "", 0, "", 0},
      // An operation that does not require a tx-id does not read one.
      {"TxidFirstRequest", through_factory("<ProbeFirst version=\"1\" tx-id=\"f-1\"/>"), "ProbeFirst", "", 0, "", 0},
      {"TxidWithEntities", through_factory("<Probe version=\"1\" tx-id=\"a&amp;&quot;b\"/>"), "Probe", "a&\"b", 0, "", 0},
      // First request for which no operation could be built: no tx-id, the request as message.
      {"FirstRequestRefused",
       [first](int* op_status) {
         std::string reply;
         Tavrel_AbstractOp::get_error_response(TAVREL_ST_UNRECOGNIZED, first, reply);
         *op_status = TAVREL_ST_UNRECOGNIZED;
         return reply;
       },
       "Unknown", nullptr, TAVREL_ST_UNRECOGNIZED, first, TAVREL_ST_UNRECOGNIZED},
      // Cancelled because the view is ending: own root (or ShutdownInProgress), no tx-id, message 73.
      {"Cancelled", cancelled("<Probe version=\"1\" tx-id=\"t-8\"/>"), "Probe", nullptr, TAVREL_ST_VIEW_ENDING, kShuttingDown, 0},
      {"CancelledUnparsable", cancelled("<Probe tx-id=\"t-9\""), "XMLError", nullptr, TAVREL_ST_VIEW_ENDING, kShuttingDown, 0},
      {"CancelledNoOperation",
       [](int* op_status) {
         std::string reply;
         Tavrel_AbstractOp::get_shutdown_response(nullptr, reply);
         *op_status = 0;
         return reply;
       },
       "ShutdownInProgress", nullptr, TAVREL_ST_VIEW_ENDING, kShuttingDown, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    int op_status = -1;
    const std::string text = row.make(&op_status);
    Reply r = read_reply(text);
    ASSERT_TRUE(r.parsed) << text;
    EXPECT_EQ(r.root, row.root) << text;
    if (row.txid) {
      EXPECT_TRUE(r.has_attr("tx-id")) << text;
      EXPECT_EQ(r.attr("tx-id"), row.txid) << text;
    } else {
      EXPECT_FALSE(r.has_attr("tx-id")) << text;
    }
    EXPECT_EQ(r.status(), row.code) << text;
    EXPECT_EQ(r.has_message, !row.message.empty()) << text;
    EXPECT_EQ(r.message, row.message) << text;
    EXPECT_TRUE(r.other_children.empty()) << text;
    EXPECT_EQ(op_status, row.op_status) << text;
  }
}

// ---- Envelope checks --------------------------------------------------------------------------------

TEST(OperationFramework, VersionCheckKeepsItsHistoricForm) {
  struct {
    const char* root;
    const char* version;
    int status;
    std::string stored;  // the request version as kept: one character
  } cases[] = {
      {"Probe", "1", 0, std::string(1, '\x01')},
      {"Probe", "2", 0, std::string(1, '\x02')},  // reads as 0: passes against "1"
      {"Probe", "50", TAVREL_ST_VERSION, "2"},
      {"Probe", "306", TAVREL_ST_VERSION, "2"},  // 306 = 256 + 50
      {"Probe", "-1", 0, std::string(1, '\xff')},
      {"Probe", "abc", 0, std::string(1, '\0')},
      {"Probe", "99999999999999999999999", 0, std::string(1, '\xff')},  // saturates, never overflows
      {"ProbeTwo", "50", 0, "2"},
      {"ProbeTwo", "51", TAVREL_ST_VERSION, "3"},
  };
  for (auto& c : cases) {
    int status = -1;
    std::unique_ptr<Tavrel_AbstractOp> op(probe_factory(
        std::string("<") + c.root + " version=\"" + c.version + "\" tx-id=\"v\"/>", kLocation, &status));
    ASSERT_NE(op, nullptr);
    op->process_request();
    EXPECT_EQ(op->get_status(), c.status) << c.root << " " << c.version;
    EXPECT_EQ(op->get_request_version(), c.stored) << c.root << " " << c.version;
    EXPECT_EQ(op->get_highest_version(), std::string(c.root) == "ProbeTwo" ? "2" : "1");
  }
}

TEST(OperationFramework, TxidTextSearch) {
  struct {
    std::string text;
    std::string expect;  // "-" stands for "unchanged"
  } cases[] = {
      {"<a tx-id=\"abc\"/>", "abc"},
      {"<a tx-id=\"\"/>", ""},
      {"<a tx-id = \"spaced\" b=\"c\"/>", "spaced"},
      {"tx-id=\"first\" tx-id=\"second\"", "first"},
      {"<a tx-id='single' b=\"next\"/>", "next"},  // any next two double quotes, as it stands
      {"<a tx-id=\"open", "-"},
      {"<a tx-id=unquoted/>", "-"},
      {"<a txid=\"x\"/>", "-"},
  };
  for (auto& c : cases) {
    std::string out = "-";
    Tavrel_AbstractOp::get_txid(c.text, out);
    EXPECT_EQ(out, c.expect) << c.text;
  }
}

// ---- Shared request parsers -----------------------------------------------------------------------

TEST(OperationFramework, ParsePath) {
  auto op = probe_of("<r><path>/a/b</path><path>/second</path><path></path></r>");
  std::string out;
  EXPECT_EQ(op->parse_path(op->root(), out, true), 0);
  EXPECT_EQ(out, "/a/b");
  EXPECT_EQ(op->parse_path(op->root(), true), 0);  // the first child was consumed
  EXPECT_EQ(op->path(), "/second");
  EXPECT_EQ(op->parse_path(op->root(), out, false), 0);  // empty and optional
  EXPECT_EQ(out, "");
  EXPECT_EQ(op->get_status(), 0);
  EXPECT_EQ(op->parse_path(op->root(), out, true), TAVREL_ST_MALFORMED);  // none left
  EXPECT_EQ(op->get_status(), TAVREL_ST_MALFORMED);
  EXPECT_EQ(op->get_status_message(), "\"path\" not found in XML request.\n");
  EXPECT_EQ(op->parse_path(nullptr, out, true), TAVREL_ST_MALFORMED);
  // Leaf values are taken raw.
  op = probe_of("<r><path> /a b \n</path></r>");
  EXPECT_EQ(op->parse_path(op->root(), out, true), 0);
  EXPECT_EQ(out, " /a b \n");
}

TEST(OperationFramework, ParseSubList) {
  struct {
    const char* xml;
    bool required;
    int status;
    std::vector<std::string> items;
  } cases[] = {
      {"<r/>", false, 0, {}},
      {"<r/>", true, TAVREL_ST_MALFORMED, {}},
      {"<r><new-leaves/></r>", true, 0, {}},
      {"<r><new-leaves><leaf>a</leaf><leaf>b c</leaf></new-leaves></r>", true, 0, {"a", "b c"}},
      {"<r><new-leaves><leaf>a</leaf><path>b</path></new-leaves></r>", false, TAVREL_ST_MALFORMED, {"a"}},
      {"<r><new-leaves><leaf>a</leaf><leaf/></new-leaves></r>", false, TAVREL_ST_MALFORMED, {"a"}},
  };
  for (auto& c : cases) {
    auto op = probe_of(c.xml);
    std::vector<std::string> out;
    EXPECT_EQ(op->parse_sub_list(op->root(), "new-leaves", "leaf", out, false, c.required), c.status) << c.xml;
    EXPECT_EQ(out, c.items) << c.xml;
    EXPECT_EQ(op->get_status(), c.status) << c.xml;
    EXPECT_EQ(op->get_status_message(), c.status ? kParseError : "") << c.xml;
  }
}

TEST(OperationFramework, ParseNamespaceModified) {
  const std::string full =
      "<namespace-modified><path>/d</path>"
      "<removed-load-rules><path>/d/x</path></removed-load-rules>"
      "<removed-leaves><leaf>x</leaf></removed-leaves>"
      "<new-leaves><leaf>y</leaf><leaf>z</leaf></new-leaves></namespace-modified>";
  struct {
    const char* name;
    std::string body;      // children of the root besides the op's own path
    std::string op_path;   // the operation's path before the block is read
    bool flags[5];
    int status;
    std::string message;
    std::string path;  // the path field afterwards
    std::vector<std::string> removed, added, rules;
  } cases[] = {
      {"AbsentOptional", "", "/d", {false, false, true, true, true}, 0, "", "/d", {}, {}, {}},
      {"AbsentRequired", "", "/d", {false, true, true, true, true}, TAVREL_ST_MALFORMED, kParseError, "/d", {}, {}, {}},
      {"PathFromBlock", full, "", {true, true, true, true, true}, 0, "", "/d", {"x"}, {"y", "z"}, {"/d/x"}},
      {"PathFromBlockMissing", "<namespace-modified/>", "", {true, true, true, true, true}, TAVREL_ST_MALFORMED,
       "\"path\" not found in XML request.\n", "", {}, {}, {}},
      {"PathMatches", full, "/d", {false, true, true, true, true}, 0, "", "/d", {"x"}, {"y", "z"}, {"/d/x"}},
      {"PathMismatch", full, "/e", {false, true, true, true, true}, TAVREL_ST_MALFORMED, kParseError, "/e", {}, {}, {}},
      {"EmptyBlockPathAgainstEmpty", "<namespace-modified><new-leaves><leaf>n</leaf></new-leaves></namespace-modified>",
       "", {false, true, false, true, false}, 0, "", "", {}, {"n"}, {}},
      {"RemovedLeavesNotAllowed", full, "/d", {false, true, false, true, true}, TAVREL_ST_MALFORMED, kParseError, "/d", {"x"},
       {"y", "z"}, {"/d/x"}},
      {"LoadRulesNotAllowed", full, "/d", {false, true, true, true, false}, TAVREL_ST_MALFORMED, kParseError, "/d", {"x"},
       {"y", "z"}, {"/d/x"}},
      {"EmptyListsAlwaysAllowed",
       "<namespace-modified><path>/d</path><removed-leaves/><new-leaves/></namespace-modified>", "/d",
       {false, true, false, false, false}, 0, "", "/d", {}, {}, {}},
      {"SeparatorInRemovedLeaf",
       "<namespace-modified><path>/d</path><removed-leaves><leaf>a/b</leaf></removed-leaves></namespace-modified>",
       "/d", {false, true, true, true, true}, TAVREL_ST_MALFORMED, kParseError, "/d", {"a/b"}, {}, {}},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto op = probe_of("<r>" + c.body + "</r>");
    op->path() = c.op_path;
    EXPECT_EQ(op->parse_namespace_modified(op->root(), c.flags[0], c.flags[1], c.flags[2], c.flags[3], c.flags[4]),
              c.status);
    EXPECT_EQ(op->get_status(), c.status);
    EXPECT_EQ(op->get_status_message(), c.message);
    EXPECT_EQ(op->path(), c.path);
    EXPECT_EQ(op->removed_leaves(), c.removed);
    EXPECT_EQ(op->new_leaves(), c.added);
    EXPECT_EQ(op->removed_load_rules(), c.rules);
  }
}

// ---- View and path split -----------------------------------------------------------------------------

Tavrel_View* g_test_view = nullptr;

TEST(OperationFramework, GetViewAndDividePath) {
  auto op = probe_of("<r/>");
  Tavrel_AbstractOp::set_view_source(nullptr);
  EXPECT_EQ(op->get_view(), TAVREL_ST_NO_VIEW_INFO);
  EXPECT_EQ(op->get_status_message(), "View information not found.");

  Tavrel_View_Hooks saved = Tavrel_View::get_hooks();
  Tavrel_View_Hooks hooks = saved;
  hooks.get_kfsm_root = [](std::string* root) {
    *root = "/kfsm/";
    return 0;
  };
  Tavrel_View view("00000000-0000-4000-8000-000000000001", "tag", "unix", "", "", "/views/v1", 0);
  g_test_view = &view;
  Tavrel_AbstractOp::set_view_source([] { return g_test_view; });

  // A view whose root is not known yet (no kernel root).
  {
    auto p = probe_of("<r/>");
    p->path() = "/d/f";
    EXPECT_EQ(p->divide_path(), TAVREL_ST_NO_VIEW_INFO);
    EXPECT_EQ(p->get_status_message(), "View information not found.");
  }
  Tavrel_View::install_hooks(hooks);
  Tavrel_View known("00000000-0000-4000-8000-000000000001", "tag", "unix", "", "", "/views/v1", 0);
  g_test_view = &known;
  struct {
    std::string path;
    int status;
    std::string leaf, parent, full_parent, full;
  } cases[] = {
      {"/d/e/f", 0, "f", "/d/e", "/kfsm/tag/d/e", "/kfsm/tag/d/e/f"},
      {"/f", 0, "f", "/", "/kfsm/tag", "/kfsm/tag/f"},
      {"f", 0, "f", "", "/kfsm/tag", "/kfsm/tag/f"},
      {"/d/", TAVREL_ST_FAILURE, "", "", "", ""},
  };
  for (auto& c : cases) {
    auto p = probe_of("<r/>");
    p->path() = c.path;
    EXPECT_EQ(p->divide_path(), c.status) << c.path;
    EXPECT_EQ(p->view(), &known);
    EXPECT_EQ(p->leaf(), c.leaf) << c.path;
    EXPECT_EQ(p->parent_path(), c.parent) << c.path;
    EXPECT_EQ(p->full_parent_path(), c.full_parent) << c.path;
    EXPECT_EQ(p->full_object_path(), c.full) << c.path;
    EXPECT_EQ(p->get_status_message(),
              c.status ? "Unable to split path \"" + c.path + "\" into parent and leaf.\n" : "")
        << c.path;
  }
  Tavrel_View::install_hooks(saved);
  Tavrel_AbstractOp::set_view_source(nullptr);
  g_test_view = nullptr;
}

// ---- Response envelope ----------------------------------------------------------------------------------

class NamedOp : public Tavrel_AbstractOp {
 public:
  NamedOp(const std::string& name, int status, const std::string& message) : Tavrel_AbstractOp(name, kLocation) {
    m_status = status;
    m_status_message = message;
    m_txid = "n-1";
  }
  void process_request() override {}
  void get_response(std::string& response) override { get_envelope_response(response); }
};

TEST(OperationFramework, ResponseEnvelope) {
  const std::string decl = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
  EXPECT_EQ(Tavrel_AbstractOp::make_status_response("Op", "t-1", 0, ""), decl + "<Op tx-id=\"t-1\" status-code=\"0\"/>");
  EXPECT_EQ(Tavrel_AbstractOp::make_status_response("Op", "a\"<&", TAVREL_ST_VIEW_ENDING, "x < y & \"z\"\n"),
            decl + "<Op tx-id=\"a&quot;&lt;&amp;\" status-code=\"" + std::to_string(TAVREL_ST_VIEW_ENDING) +
                "\"><status-message>x &lt; y &amp; \"z\"\n</status-message></Op>");
  std::string text;
  Tavrel_AbstractOp::get_error_response(TAVREL_ST_UNRECOGNIZED, "<bad", text);
  EXPECT_EQ(text, decl + "<Unknown status-code=\"" + std::to_string(TAVREL_ST_UNRECOGNIZED) +
                      "\"><status-message>&lt;bad</status-message></Unknown>");
  // An operation's own envelope; a name the document library refuses still goes out, as text.
  struct {
    std::string name;
    int status;
    std::string message, root;
  } ops[] = {{"Op", 0, "", "Op"}, {"Op", TAVREL_ST_FAILURE, "a < b & \"c\" > d\nline two\n", "Op"},
             {"bad name", TAVREL_ST_INTERNAL, "m", "XMLError"}};
  for (auto& c : ops) {
    NamedOp op(c.name, c.status, c.message);
    op.get_response(text);
    Reply r = read_reply(text);
    ASSERT_TRUE(r.parsed) << text;
    EXPECT_EQ(r.root, c.root) << text;
    EXPECT_EQ(r.attr("tx-id"), "n-1") << text;
    EXPECT_EQ(r.status(), c.status) << text;
    EXPECT_EQ(r.has_message, !c.message.empty()) << text;
    EXPECT_EQ(r.message, c.message) << text;
  }
  // Whatever a message or a tx-id holds, the envelope is well formed: bytes that are not UTF-8, or
  // characters XML does not allow, read back as U+FFFD.
  const std::string bad = "\xef\xbf\xbd";
  const struct {
    std::string in, read_back;
  } texts[] = {
      {"caf\xc3\xa9 \xf0\x9f\x98\x80 tab\tand\r\nreturn", "caf\xc3\xa9 \xf0\x9f\x98\x80 tab\tand\r\nreturn"},
      {"bell\x07 and \xff byte", "bell" + bad + " and " + bad + " byte"},
      {"\xed\xa0\x80", bad + bad + bad},  // a surrogate
      {"cut \xe2\x82", "cut " + bad + bad},  // a sequence cut by the end
  };
  for (auto& c : texts) {
    Tavrel_AbstractOp::get_error_response(TAVREL_ST_UNRECOGNIZED, c.in, text);
    Reply r = read_reply(text);
    ASSERT_TRUE(r.parsed) << text;
    EXPECT_EQ(r.message, c.read_back) << text;
    r = read_reply(Tavrel_AbstractOp::make_status_response("Op", c.in, 1, ""));
    ASSERT_TRUE(r.parsed);
    EXPECT_EQ(r.attr("tx-id"), c.read_back);
  }
}

// ---- The XML layer's trace hook ------------------------------------------------------------------------

std::string read_file(const std::string& path) {
  std::ifstream f(path);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

int count_of(const std::string& hay, const std::string& needle) {
  int n = 0;
  for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + 1)) n++;
  return n;
}

TEST(OperationFramework, XmlLayerTracesThroughTheAgentTrace) {
  char tmpl[] = "/tmp/tavrel-ops-trace-XXXXXX";
  const std::string home = mkdtemp(tmpl);
  const char* old_home = getenv("HOME");
  const std::string saved_home = old_home ? old_home : "";
  setenv("HOME", home.c_str(), 1);
  Tavrel_Trace::setup_trace_file("tester", getpid());
  const std::string file = Tavrel_Trace::get_trace_file();
  Tavrel_Trace::set_trace("TAVREL", 5);

  const std::string secret_request =
      "<Connect version=\"1\" tx-id=\"s\"><server><password>hunter2</password>"
      "<proxy-password>swordfish</proxy-password></server></Connect>";
  int status = -1;
  ops_test::run_request(Tavrel_AbstractOp::create_xml_request_handler, secret_request, kLocation, &status);
  ops_test::run_request(Tavrel_AbstractOp::create_xml_request_handler, secret_request.substr(0, 60), kLocation,
                        &status);
  EXPECT_EQ(OlUtil::get_trace_sink(), &tavrel_xml_trace_sink);
  std::string trace = read_file(file);
  // The layer's own lines, under TAVREL, class XML, its scope as function; the factory's lines show
  // the request, whole or cut, without its passwords.
  EXPECT_NE(trace.find("::TRACE::TAVREL::XML::OlXmlParser:parse_impl::"), std::string::npos) << trace;
  EXPECT_NE(trace.find("Exception thrown when Parsing <Connect"), std::string::npos) << trace;
  EXPECT_EQ(trace.find("hunter2"), std::string::npos);
  EXPECT_EQ(trace.find("swordfish"), std::string::npos);
  // No scope lines of the hook's own.
  EXPECT_EQ(trace.find("::XML::trace::"), std::string::npos);

  // Subsystem filtering applies to the layer's lines too.
  const int before = count_of(trace, "::TAVREL::XML::");
  Tavrel_Trace::set_trace("RCLIENT", 5);
  ops_test::run_request(Tavrel_AbstractOp::create_xml_request_handler, "<a/>", kLocation, &status);
  EXPECT_EQ(count_of(read_file(file), "::TAVREL::XML::"), before);
  // And the level: at 2 only the layer's problem lines pass ("Parsing" is level 3).
  Tavrel_Trace::set_trace("TAVREL", 2);
  ops_test::run_request(Tavrel_AbstractOp::create_xml_request_handler, "<a/>", kLocation, &status);
  EXPECT_EQ(count_of(read_file(file), "::TAVREL::XML::"), before);
  ops_test::run_request(Tavrel_AbstractOp::create_xml_request_handler, "<a", kLocation, &status);
  EXPECT_EQ(count_of(read_file(file), "::TAVREL::XML::"), before + 1);  // the level-2 parse error line

  Tavrel_Trace::set_trace(nullptr, 0);
  Tavrel_Trace::close_trace_file();
  if (old_home)
    setenv("HOME", saved_home.c_str(), 1);
  else
    unsetenv("HOME");
  EXPECT_EQ(std::system(("rm -rf '" + home + "'").c_str()), 0);
}

}  // namespace
