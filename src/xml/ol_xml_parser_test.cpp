// Parsing: the tree built from SAX events, failures and their exact reports, limits, sources.
#include "xml/ol_xml_parser.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <xercesc/util/XMLString.hpp>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "xml/ol_util.h"
#include "xml/ol_xml_elem.h"
#include "xml/ol_xml_test_util.h"
#include "xml/ol_xml_util.h"

using ol_test::ScopedCtype;
using ol_test::text_of;
using xercesc::SAXParseException;

namespace {

std::string message_of(const SAXParseException& e) { return OlXmlUtil::xerces_to_native_lossy(e.getMessage(), xercesc::XMLString::stringLen(e.getMessage())); }

// Parses and returns the taken document (the test owns it).
std::unique_ptr<OlXmlDoc> parse(OlXmlParser& p, const std::string& text) {
  return std::unique_ptr<OlXmlDoc>(p.parse_string(text)->release());
}

class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/ol_xml_test_XXXXXX";
    path = mkdtemp(tmpl);
  }
  ~TempDir() { std::system(("rm -rf '" + path + "'").c_str()); }
  std::string file(const std::string& name, const std::string& content) const {
    std::string p = path + "/" + name;
    std::ofstream(p, std::ios::binary) << content;
    return p;
  }
  std::string path;
};

}  // namespace

TEST(OlXmlParser, BuildsTheTreeOfARequest) {
  OlXmlParser p;
  auto doc = parse(p, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
                      "<MountSilo version=\"1\" tx-id=\"4711-3\">"
                      "<silo-tag mount-state=\"true\">repo1</silo-tag><path>/a b</path></MountSilo>");
  ASSERT_TRUE(doc);
  OlXmlElem* root = doc->get_root();
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->get_doc(), doc.get());
  EXPECT_EQ(root->get_tag(), "MountSilo");
  EXPECT_EQ(root->get_attr("version"), "1");
  EXPECT_EQ(root->get_attr("tx-id"), "4711-3");
  EXPECT_EQ(root->get_attrs().front()->get_name(), "version");  // document order
  EXPECT_EQ(doc->get_curr(), nullptr);                           // closed again
  OlXmlElem* tag = root->extract_child("silo-tag");
  ASSERT_NE(tag, nullptr);
  EXPECT_EQ(tag->get_parent(), root);
  EXPECT_EQ(tag->get_value(), "repo1");
  EXPECT_EQ(tag->get_attr("mount-state"), "true");
  EXPECT_EQ(OlXmlUtil::get_value(root, "path"), "/a b");
}

struct ValueCase {
  const char* name;
  std::string xml;
  const char* expected;  // text form of the parsed root
};

class OlXmlParserValues : public ::testing::TestWithParam<ValueCase> {};

TEST_P(OlXmlParserValues, TextArrivesAsWritten) {
  ScopedCtype ctype("C.UTF-8");
  OlXmlParser p;
  auto doc = parse(p, GetParam().xml);
  ASSERT_TRUE(doc && doc->get_root());
  EXPECT_EQ(text_of(doc->get_root()), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, OlXmlParserValues,
    ::testing::Values(
        ValueCase{"MixedContentConcatenates", "<a>x<b>in</b>y<c/>z</a>",
                  "<a>xyz<b>in</b><c/></a>"},
        ValueCase{"WhitespaceKept", "<a>\n  <b> v </b>\n</a>", "<a>\n  \n<b> v </b></a>"},
        ValueCase{"EntitiesAndCharRefs", "<a t=\"&lt;&amp;&quot;\">&lt;&gt;&amp;&#x41;&#66;&apos;</a>",
                  "<a t=\"<&\"\">&lt;&gt;&amp;AB'</a>"},
        ValueCase{"Cdata", "<a><![CDATA[<x>&amp;]]></a>", "<a>&lt;x&gt;&amp;amp;</a>"},
        ValueCase{"CommentsAndPisDropped", "<?pi data?><!--c--><a><?p q?>t<!--d-->u</a><?end?>",
                  "<a>tu</a>"},
        ValueCase{"CrLfNormalised", "<a>1\r\n2\r3</a>", "<a>1\n2\n3</a>"},
        ValueCase{"AttributeWhitespaceNormalised", "<a v=\"x\ty\nz\"/>", "<a v=\"x y z\"/>"},
        ValueCase{"NamespacesNotProcessed", "<p:a xmlns:p=\"urn:x\" p:k=\"v\"/>",
                  "<p:a xmlns:p=\"urn:x\" p:k=\"v\"/>"},
        ValueCase{"NonAscii", "<a k=\"\xc3\xa9\">\xe2\x82\xac \xf0\x9f\x98\x80</a>",
                  "<a k=\"\xc3\xa9\">\xe2\x82\xac \xf0\x9f\x98\x80</a>"},
        ValueCase{"Latin1Declared",
                  "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><a>\xe9</a>",
                  "<a>\xc3\xa9</a>"},
        ValueCase{"Utf16WithBom", std::string("\xff\xfe<\0a\0/\0>\0", 10), "<a/>"},
        ValueCase{"BomUtf8", "\xef\xbb\xbf<a>v</a>", "<a>v</a>"}),
    [](const auto& info) { return info.param.name; });

struct FailCase {
  const char* name;
  std::string xml;
  const char* message;
  int line;
  int column;
};

class OlXmlParserFailures : public ::testing::TestWithParam<FailCase> {};

TEST_P(OlXmlParserFailures, ThrowsExactlyAndStaysUsable) {
  OlXmlParser p;
  const FailCase& c = GetParam();
  try {
    p.parse_string(c.xml);
    ADD_FAILURE() << "no exception";
  } catch (const OlXmlParser::OlXmlEncodingException&) {
    ADD_FAILURE() << "encoding exception for bad XML";
  } catch (const SAXParseException& e) {
    EXPECT_EQ(message_of(e), c.message);
    EXPECT_EQ(static_cast<int>(e.getLineNumber()), c.line);
    EXPECT_EQ(static_cast<int>(e.getColumnNumber()), c.column);
  }
  // The same parser parses the next document, and the non-throwing entry agrees.
  auto doc = parse(p, "<ok/>");
  ASSERT_TRUE(doc && doc->get_root());
  EXPECT_EQ(doc->get_root()->get_tag(), "ok");
  OlXmlParser::Result r;
  EXPECT_EQ(p.parse(c.xml, r), nullptr);
  EXPECT_EQ(r.kind, OlXmlParser::Result::kSyntax);
  EXPECT_EQ(r.message, c.message);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, OlXmlParserFailures,
    ::testing::Values(
        FailCase{"Empty", "", "invalid document structure", 1, 1},
        FailCase{"Unclosed", "<a", "unexpected end of input", 1, 3},
        FailCase{"Mismatch", "<a></b>", "expected end of tag 'a'", 1, 6},
        FailCase{"TwoRoots", "<a/><b/>", "comment or processing instruction expected", 1, 5},
        FailCase{"TextOnly", "hello", "invalid document structure", 1, 1},
        FailCase{"DuplicateAttribute", "<a x='1' x='2'/>", "attribute 'x' is already specified for element 'a'", 1, 12},
        FailCase{"UndeclaredEntity", "<a>&ext;</a>", "entity 'ext' not found", 1, 9},
        FailCase{"ForbiddenCharRef", "<a>&#1;</a>", "invalid character reference", 1, 8},
        FailCase{"NulByte", std::string("<a>x\0y</a>", 10), "invalid character 0x0", 1, 6},
        FailCase{"UnknownEncoding", "<?xml version=\"1.0\" encoding=\"x-foo\"?><a/>",
                 "unable to create converter for 'X-FOO' encoding", 1, 39},
        FailCase{"Doctype", "<!DOCTYPE a><a/>", "DTDs not supported", 0, 0}),
    [](const auto& info) { return info.param.name; });

struct EncodingCase {
  const char* name;
  const char* xml;
  const char* shown;  // the text as message 0 shows it
  int line;
  int column;
};

class OlXmlParserEncoding : public ::testing::TestWithParam<EncodingCase> {};

TEST_P(OlXmlParserEncoding, UnconvertibleTextThrowsTheEncodingException) {
  ScopedCtype ctype("C");  // ASCII: é has no native form
  OlXmlParser p;
  const EncodingCase& c = GetParam();
  const std::string expected =
      "Error: One or more characters in the following string is not supported by the server's "
      "operating system: \"" + std::string(c.shown) + "\".\n";
  try {
    p.parse_string(c.xml);
    ADD_FAILURE() << "no exception";
  } catch (const OlXmlParser::OlXmlEncodingException& e) {
    EXPECT_EQ(message_of(e), expected);
    EXPECT_EQ(static_cast<int>(e.getLineNumber()), c.line);
    EXPECT_EQ(static_cast<int>(e.getColumnNumber()), c.column);
  }
  OlXmlParser::Result r;
  EXPECT_EQ(p.parse(c.xml, r), nullptr);
  EXPECT_EQ(r.kind, OlXmlParser::Result::kEncoding);
  EXPECT_EQ(r.message, expected);
  // The same text parses in a UTF-8 locale.
  ScopedCtype utf8("C.UTF-8");
  EXPECT_TRUE(parse(p, c.xml));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, OlXmlParserEncoding,
    ::testing::Values(
        EncodingCase{"Text", "<a>\n<path>/caf\xc3\xa9</path></a>", "/caf?", 2, 12},
        EncodingCase{"AttributeValue", "<a p=\"x\xc3\xa9y\"/>", "x?y", 1, 13},
        EncodingCase{"ElementName", "<\xc3\xa9l/>", "?l", 1, 6},
        EncodingCase{"AttributeName", "<a \xc3\xa9=\"1\"/>", "?", 1, 11}),
    [](const auto& info) { return info.param.name; });

TEST(OlXmlParser, SecondParseReplacesAnUntakenDocument) {
  OlXmlParser p;
  OlAutoPtr<OlXmlDoc>* owner = p.parse_string("<first/>");
  ASSERT_TRUE(*owner);
  EXPECT_EQ(p.parse_string("<second/>"), owner);  // same owner, first document deleted
  EXPECT_EQ((*owner)->get_root()->get_tag(), "second");
  // A taken document outlives the parser.
  std::unique_ptr<OlXmlDoc> kept;
  {
    OlXmlParser q;
    kept.reset(q.parse_string("<kept a=\"1\"/>")->release());
  }
  EXPECT_EQ(text_of(kept->get_root()), "<kept a=\"1\"/>");
}

TEST(OlXmlParser, FailedParseLeavesThePartialDocumentInTheOwner) {
  OlXmlParser p;
  OlAutoPtr<OlXmlDoc>* owner = p.parse_string("<x/>");
  EXPECT_THROW(p.parse_string("<a><b>t</b><c>"), SAXParseException);
  ASSERT_TRUE(*owner);
  EXPECT_EQ(text_of((*owner)->get_root()), "<a><b>t</b><c/></a>");
}

TEST(OlXmlParser, LimitsHoldAtTheirBoundaries) {
  OlXmlParser p;
  OlXmlLimits l;
  l.max_depth = 4;
  l.max_nodes = 6;
  l.max_input_bytes = 40;
  p.set_limits(l);
  EXPECT_EQ(p.get_limits().max_depth, 4u);
  struct Case {
    std::string xml;
    const char* error;  // null: must parse
  } cases[] = {
      {"<a><b><c><d/></c></b></a>", nullptr},
      {"<a><b><c><d><e/></d></c></b></a>", "XML parse error: element nesting deeper than 4 levels"},
      {"<a x='1'><b/><b/><b/><b y='2'/></a>", nullptr},  // 5 elements + 2 attributes = 7
      {"<a><b/><b/><b/><b/><b/></a>", nullptr},           // 6 nodes
      {"<a><b/><b/><b/><b/><b/><b/></a>", "XML parse error: more than 6 elements and attributes"},
      {"<a>" + std::string(33, 'x') + "</a>", nullptr},   // 40 bytes
      {"<a>" + std::string(34, 'x') + "</a>", "XML parse error: input larger than 40 bytes"},
      {"<a/>" + std::string(40, ' '), "XML parse error: input larger than 40 bytes"},
  };
  cases[2].error = "XML parse error: more than 6 elements and attributes";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.xml);
    if (!c.error) {
      EXPECT_TRUE(parse(p, c.xml));
      continue;
    }
    try {
      p.parse_string(c.xml);
      ADD_FAILURE() << "no exception";
    } catch (const OlXmlParser::OlXmlEncodingException&) {
      ADD_FAILURE() << "wrong type";
    } catch (const SAXParseException& e) {
      EXPECT_EQ(message_of(e), c.error);
    }
  }
}

TEST(OlXmlParser, ParsesFilesAndReportsMissingOnes) {
  TempDir dir;
  std::string path = dir.file("req.xml", "<r><v>1</v></r>");
  OlXmlParser p;
  std::unique_ptr<OlXmlDoc> doc(p.parse_file(path)->release());
  EXPECT_EQ(text_of(doc->get_root()), "<r><v>1</v></r>");
  struct {
    std::string path;
    std::string message;
  } refused[] = {
      {dir.path + "/missing.xml",
       "XML parse error: cannot open \"" + dir.path + "/missing.xml\": No such file or directory"},
      {dir.path, "XML parse error: not a regular file: \"" + dir.path + "\""},
      {"/dev/zero", "XML parse error: not a regular file: \"/dev/zero\""},
  };
  {
    ScopedCtype ascii("C");
    std::string name = dir.file("caf\xc3\xa9.xml", "<r/>");
    try {
      p.parse_file(name);
      ADD_FAILURE() << "no exception for a name the native set cannot carry";
    } catch (const SAXParseException& e) {
      // The message itself is native text: each byte it cannot carry shows as '?'.
      EXPECT_EQ(message_of(e), "XML parse error: path is not valid in the native character set: \"" +
                                   dir.path + "/caf??.xml\"");
    }
    ScopedCtype utf8("C.UTF-8");
    std::unique_ptr<OlXmlDoc> ok(p.parse_file(name)->release());
    EXPECT_EQ(text_of(ok->get_root()), "<r/>");
  }
  for (const auto& r : refused) {
    try {
      p.parse_file(r.path);
      ADD_FAILURE() << "no exception for " << r.path;
    } catch (const SAXParseException& e) {
      EXPECT_EQ(message_of(e), r.message);
    }
  }
  OlXmlLimits l;
  l.max_input_bytes = 10;
  p.set_limits(l);
  try {
    p.parse_file(path);
    ADD_FAILURE() << "no exception";
  } catch (const SAXParseException& e) {
    EXPECT_EQ(message_of(e), "XML parse error: input larger than 10 bytes");
  }
}

TEST(OlXmlParser, ParsesStandardInput) {
  TempDir dir;
  std::string path = dir.file("in.xml", "<StartView><server online=\"false\"/></StartView>");
  int saved = dup(0);
  ASSERT_GE(saved, 0);
  int fd = open(path.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(dup2(fd, 0), 0);
  close(fd);
  std::unique_ptr<OlXmlDoc> doc;
  std::string error;
  try {
    OlXmlParser p;
    doc.reset(p.parse_stdin()->release());
  } catch (const SAXParseException& e) {
    error = message_of(e);
  }
  dup2(saved, 0);
  close(saved);
  ASSERT_TRUE(doc) << error;
  EXPECT_EQ(text_of(doc->get_root()), "<StartView><server online=\"false\"/></StartView>");
}

namespace {

std::vector<std::string> g_trace;
void keep(int level, const char* scope, const char* text) {
  g_trace.push_back(std::to_string(level) + " " + scope + " " + text);
}

}  // namespace

TEST(OlXmlParser, TracesWhereItIsButNeverTheDocument) {
  g_trace.clear();
  OlUtil::set_trace_sink(&keep);
  {
    OlXmlParser p;
    parse(p, "<StartView><server><password>s3cret</password></server><?pi x?></StartView>");
    EXPECT_THROW(p.parse_string("<Connect><password>hunter2</password"), SAXParseException);
  }
  OlUtil::set_trace_sink(nullptr);
  bool parsing = false, pi = false, failure = false;
  for (const std::string& line : g_trace) {
    EXPECT_EQ(line.find("s3cret"), std::string::npos) << line;
    EXPECT_EQ(line.find("hunter2"), std::string::npos) << line;
    if (line == "3 XML:OlXmlParser:parse_impl Parsing fakeId") parsing = true;
    if (line.rfind("2 XML:OlUtil:ol_assert XML parse error: unexpected processing instruction (", 0) == 0)
      pi = true;
    if (line.rfind("2 XML:OlXmlParser:parse_impl XML parse error in fakeId: ", 0) == 0) failure = true;
  }
  EXPECT_TRUE(parsing);
  EXPECT_TRUE(pi);
  EXPECT_TRUE(failure);
}
