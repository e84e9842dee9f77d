// Hostile requests through the operation factory (create_xml_request_handler, process_request,
// get_response): every input gets its exact reply and nothing outside the request is read (no file is
// opened, no connection is made).
//
// The inputs are one or two of each kind of the XML layer's own hostile corpus: what is checked here is
// that the agent's factory keeps the parser's protections and answers each with its reply. Proof of
// "nothing read": a directory of marker files watched with inotify and a loopback listener that counts
// connections (shown to fire in the XML layer's tests). The memory bound on the same inputs is the
// XML layer's own test.
#include <functional>

#include "ops/ops_test_util.h"
#include "xml/ol_xml_detectors_test_util.h"

namespace {

using ops_test::Reply;

using ol_test::kMarker;
using ol_test::Listener;
using ol_test::MarkerDir;

std::string repeat(const std::string& s, std::size_t n) {
  std::string out;
  out.reserve(s.size() * n);
  for (std::size_t i = 0; i < n; ++i) out += s;
  return out;
}

std::string fill(std::string s, const std::string& dir, int port) {
  for (auto [from, to] : {std::pair<std::string, std::string>{"{DIR}", dir}, {"{PORT}", std::to_string(port)}})
    for (size_t p = s.find(from); p != std::string::npos; p = s.find(from, p + to.size())) s.replace(p, from.size(), to);
  return s;
}

std::string billion_laughs() {
  std::string dtd = "<!DOCTYPE lolz [<!ENTITY lol \"lol\">";
  for (int i = 1; i < 10; ++i) {
    dtd += "<!ENTITY lol" + std::to_string(i) + " \"";
    for (int j = 0; j < 10; ++j) dtd += i == 1 ? "&lol;" : "&lol" + std::to_string(i - 1) + ";";
    dtd += "\">";
  }
  return dtd + "]><lolz version=\"1\" tx-id=\"bl\">&lol9;</lolz>";
}

const std::string kLocation = "/views/hostile";
const std::string kParseError = "Parse error in \"/views/hostile\".\n";
const std::string kUnrecognized = "Unrecognized IPC: \"XMLError\".\n";

enum class Answer { kUnparsable, kUnrecognised, kEncoding };

struct HostileCase {
  const char* name;
  std::function<std::string()> input;  // "{DIR}" and "{PORT}" are filled in
  Answer answer;
  std::string txid;
  const char* ctype = "C.UTF-8";
};

std::vector<HostileCase> hostile_cases() {
  auto fixed = [](std::string s) { return [s] { return s; }; };
  std::vector<HostileCase> v;
  // Entity expansion.
  v.push_back({"BillionLaughs", billion_laughs, Answer::kUnparsable, "bl"});
  // External entities and DTDs, local files and URLs.
  v.push_back({"ExternalEntityFileUrl",
               fixed("<!DOCTYPE a [<!ENTITY e SYSTEM \"file://{DIR}/marker.txt\">]><a tx-id=\"ef\">&e;</a>"),
               Answer::kUnparsable, "ef"});
  v.push_back({"ExternalDtdFile", fixed("<!DOCTYPE a SYSTEM \"{DIR}/marker.dtd\"><a tx-id=\"ed\">&leak;</a>"),
               Answer::kUnparsable, "ed"});
  v.push_back({"ExternalEntityUrl",
               fixed("<!DOCTYPE a [<!ENTITY e SYSTEM \"http://127.0.0.1:{PORT}/e\">]><a tx-id=\"eu\">&e;</a>"),
               Answer::kUnparsable, "eu"});
  v.push_back({"ParameterEntityUrl",
               fixed("<!DOCTYPE a [<!ENTITY % p SYSTEM \"http://127.0.0.1:{PORT}/p\"> %p;]><a tx-id=\"pe\"/>"),
               Answer::kUnparsable, "pe"});
  // A reference a naive processor might follow; plain text here, so the document is well formed.
  v.push_back({"XInclude",
               fixed("<a tx-id=\"xi\" xmlns:xi=\"http://www.w3.org/2001/XInclude\">"
                     "<xi:include href=\"file://{DIR}/marker.txt\" parse=\"text\"/></a>"),
               Answer::kUnrecognised, "xi"});
  // Nesting.
  v.push_back({"DeepNestingOneTooDeep", [] { return "<a tx-id=\"n2\">" + repeat("<a>", 256) + repeat("</a>", 257); },
               Answer::kUnparsable, "n2"});
  v.push_back({"DeepNestingMillion", [] { return repeat("<a>", 1000000); }, Answer::kUnparsable, ""});
  v.push_back({"TooManySiblings", [] { return "<a tx-id=\"sb\">" + repeat("<b/>", 200000) + "</a>"; },
               Answer::kUnparsable, "sb"});
  // Size.
  v.push_back({"HugeTxid", [] { return "<a tx-id=\"" + std::string(1u << 20, 't') + "\"/>"; },
               Answer::kUnrecognised, std::string(1u << 20, 't')});
  v.push_back({"InputOverTheLimit",
               [] { return "<a tx-id=\"ol\">" + std::string(16u << 20, 't') + "</a>"; }, Answer::kUnparsable, "ol"});
  // Bytes that are not UTF-8, and a character XML does not allow.
  v.push_back({"Utf8InTxid", fixed("<a tx-id=\"\xff\"/>"), Answer::kUnparsable, "\xef\xbf\xbd"});
  v.push_back({"NulByte", [] { return std::string("<a tx-id=\"nb\">\0</a>", 19); }, Answer::kUnparsable, "nb"});
  // Well formed in another encoding: the tx-id comes from the document, not from the text.
  v.push_back({"Utf16WithBom",
               [] {
                 std::string ascii = "<a tx-id=\"w16\"/>";
                 std::string s = "\xff\xfe";
                 for (char c : ascii) s += std::string(1, c) + '\0';
                 return s;
               },
               Answer::kUnrecognised, "w16"});
  // A character with no form in the native character set (ASCII here).
  v.push_back({"UnconvertibleName", fixed("<caf\xc3\xa9 tx-id=\"e2\"/>"), Answer::kEncoding, "e2", "C"});
  return v;
}

TEST(HostileRequests, EachGetsItsExactReplyAndNothingIsRead) {
  MarkerDir dir;
  ASSERT_TRUE(dir.watching());
  Listener net;
  ASSERT_NE(net.port, 0);
  for (const HostileCase& c : hostile_cases()) {
    SCOPED_TRACE(c.name);
    const std::string request = fill(c.input(), dir.path, net.port);
    std::string reply;
    int status = -1;
    int op_status = -1;
    {
      ol_test::ScopedCtype native(c.ctype);
      reply = ops_test::run_request(Tavrel_AbstractOp::create_xml_request_handler, request, kLocation, &status,
                                    &op_status);
    }
    EXPECT_EQ(status, 0);
    Reply r = ops_test::read_reply(reply);
    ASSERT_TRUE(r.parsed) << reply.substr(0, 300);
    EXPECT_EQ(r.root, "XMLError");
    EXPECT_TRUE(r.has_attr("tx-id"));
    EXPECT_TRUE(r.attr("tx-id") == c.txid) << r.attr("tx-id").substr(0, 80);
    switch (c.answer) {
      case Answer::kUnparsable:
        EXPECT_EQ(r.status(), TAVREL_ST_UNRECOGNIZED);
        EXPECT_EQ(r.message, kParseError);
        EXPECT_EQ(op_status, TAVREL_ST_MALFORMED);
        break;
      case Answer::kUnrecognised:
        EXPECT_EQ(r.status(), TAVREL_ST_UNRECOGNIZED);
        EXPECT_EQ(r.message, kUnrecognized);
        EXPECT_EQ(op_status, 0);
        break;
      case Answer::kEncoding:
        EXPECT_EQ(r.status(), TAVREL_ST_ENCODING);
        EXPECT_EQ(r.message, kParseError);
        EXPECT_EQ(op_status, TAVREL_ST_ENCODING);
        break;
    }
    EXPECT_TRUE(r.other_children.empty());
    EXPECT_EQ(reply.find(kMarker), std::string::npos);
    EXPECT_EQ(dir.events(), 0) << "a file of the marker directory was opened or read";
    EXPECT_EQ(net.connections(), 0) << "a connection was made";
  }
}

}  // namespace
