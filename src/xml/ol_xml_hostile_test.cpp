// Every input, well formed, malformed or hostile, has one exact outcome: the tree's text form or
// the error with its position. Nothing outside the input is read (no file is opened, no connection
// made) and the memory of a parse stays bounded. A parsed tree written by the DOM writer re-parses to
// the same tree, and the writer's form is a fixed point.
//
// Proof of "nothing read": the detectors of ol_xml_detectors_test_util.h, first shown to fire on a
// default-configured library reader so that a silent detector cannot pass. Memory is measured by
// counting every operator new of the process (the XML library allocates through it too), which is
// why this is a program of its own.
#include <gtest/gtest.h>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/sax2/DefaultHandler.hpp>
#include <xercesc/sax2/SAX2XMLReader.hpp>
#include <xercesc/sax2/XMLReaderFactory.hpp>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "xml/ol_xml_detectors_test_util.h"
#include "xml/ol_xml_doc.h"
#include "xml/ol_xml_elem.h"
#include "xml/ol_xml_parser.h"
#include "xml/ol_xml_test_util.h"
#include "xml/ol_xml_util.h"

namespace {
std::atomic<std::size_t> g_live{0};
std::atomic<std::size_t> g_peak{0};
constexpr std::size_t kHeader = 16;

void* counted_alloc(std::size_t n) {
  void* base = std::malloc(n + kHeader);
  if (!base) return nullptr;
  *static_cast<std::size_t*>(base) = n;
  std::size_t live = g_live.fetch_add(n, std::memory_order_relaxed) + n;
  std::size_t peak = g_peak.load(std::memory_order_relaxed);
  while (live > peak && !g_peak.compare_exchange_weak(peak, live, std::memory_order_relaxed)) {
  }
  return static_cast<char*>(base) + kHeader;
}

void counted_free(void* p) {
  if (!p) return;
  char* base = static_cast<char*>(p) - kHeader;
  g_live.fetch_sub(*reinterpret_cast<std::size_t*>(base), std::memory_order_relaxed);
  std::free(base);
}
}  // namespace

void* operator new(std::size_t n) {
  void* p = counted_alloc(n);
  if (!p) throw std::bad_alloc();
  return p;
}
void* operator new[](std::size_t n) { return operator new(n); }
void* operator new(std::size_t n, const std::nothrow_t&) noexcept { return counted_alloc(n); }
void* operator new[](std::size_t n, const std::nothrow_t&) noexcept { return counted_alloc(n); }
void operator delete(void* p) noexcept { counted_free(p); }
void operator delete[](void* p) noexcept { counted_free(p); }
void operator delete(void* p, std::size_t) noexcept { counted_free(p); }
void operator delete[](void* p, std::size_t) noexcept { counted_free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { counted_free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { counted_free(p); }

namespace {

using ol_test::text_of;
using Kind = OlXmlParser::Result::Kind;

std::string repeat(const std::string& s, std::size_t n) {
  std::string out;
  out.reserve(s.size() * n);
  for (std::size_t i = 0; i < n; ++i) out += s;
  return out;
}

std::string writer_form(const OlXmlElem* root) {
  OlXmlDoc out;
  std::string text;
  EXPECT_EQ(ol_test::copy_to_dom(root, out), OL_XML_OK);
  EXPECT_EQ(out.get_string(text), OL_XML_OK);
  return text;
}

std::string fill(std::string s, const std::string& dir, int port) {
  for (auto [from, to] : {std::pair<std::string, std::string>{"{DIR}", dir}, {"{PORT}", std::to_string(port)}})
    for (std::size_t at = s.find(from); at != std::string::npos; at = s.find(from, at + to.size()))
      s.replace(at, from.size(), to);
  return s;
}

// Leak checking is paused around the unprotected reader: the library leaks a little on the
// failure paths of its own entity loading, which our parser never takes.
extern "C" void __lsan_disable() __attribute__((weak));
extern "C" void __lsan_enable() __attribute__((weak));

// What a library reader in its default configuration (no refusals) does with the same input.
void parse_unprotected(const std::string& xml) {
  if (__lsan_disable) __lsan_disable();
  ol_test::ScopedCtype ctype("C.UTF-8");
  OlXmlUtil::platform_init();
  std::unique_ptr<xercesc::SAX2XMLReader> reader(xercesc::XMLReaderFactory::createXMLReader());
  xercesc::DefaultHandler handler;
  reader->setContentHandler(&handler);
  reader->setErrorHandler(&handler);
  xercesc::MemBufInputSource src(reinterpret_cast<const XMLByte*>(xml.data()), xml.size(), "probe");
  try {
    reader->parse(src);
  } catch (...) {
  }
  if (__lsan_enable) __lsan_enable();
}

}  // namespace

TEST(OlXmlHostileDetectors, FireOnAnUnprotectedReader) {
  ol_test::MarkerDir dir;
  ASSERT_TRUE(dir.watching());
  ol_test::Listener net;
  ASSERT_NE(net.port, 0);
  EXPECT_EQ(dir.events(), 0);
  parse_unprotected(fill("<!DOCTYPE a SYSTEM \"file://{DIR}/marker.dtd\"><a>&leak;</a>", dir.path, 0));
  EXPECT_GT(dir.events(), 0) << "the file detector does not see the library read a DTD";
  parse_unprotected(fill("<!DOCTYPE a SYSTEM \"http://127.0.0.1:{PORT}/d.dtd\"><a/>", "", net.port));
  EXPECT_GT(net.connections(), 0) << "the network detector does not see the library connect";
}

namespace {

// head + `count` copies of `unit` + tail, built when the case runs ("{DIR}" and "{PORT}" are filled
// in then).
struct Input {
  std::string head, unit;
  std::size_t count = 0;
  std::string tail;
  Input(const char* s) : head(s) {}
  Input(std::string s) : head(std::move(s)) {}
  Input(std::string h, std::string u, std::size_t n, std::string t)
      : head(std::move(h)), unit(std::move(u)), count(n), tail(std::move(t)) {}
};

struct Case {
  const char* name;
  Input in;
  Kind kind;
  std::string expect;  // kOk: the text form of the tree ("=": the input itself); else the message
  int line, column;
  const char* ctype;
  OlXmlLimits limits = {};
};

Case ok(const char* name, Input in, std::string text = "=") {
  return {name, std::move(in), Kind::kOk, std::move(text), 0, 0, "C.UTF-8"};
}
Case bad(const char* name, Input in, std::string message, int line, int column) {
  return {name, std::move(in), Kind::kSyntax, std::move(message), line, column, "C.UTF-8"};
}
// Under limits of 40 bytes, depth 4 and 6 nodes (elements and attributes).
Case tight(Case c) {
  c.limits = OlXmlLimits{40, 4, 6};
  return c;
}
// Text the native character set (ASCII here) cannot carry; `shown` is how the message shows it.
Case unconvertible(const char* name, Input in, const std::string& shown, int line, int column) {
  return {name, std::move(in), Kind::kEncoding,
          "Error: One or more characters in the following string is not supported by the server's "
          "operating system: \"" + shown + "\".\n",
          line, column, "C"};
}

// Any document type declaration is refused before anything in it is read.
Case dtd(const char* name, Input in) { return bad(name, std::move(in), "DTDs not supported", 0, 0); }

std::vector<Case> cases() {
  const char kOver40[] = "XML parse error: input larger than 40 bytes";
  const char kInvalidByte[] = "invalid byte '\xef\xbf\xbd' at position 1 of a 1-byte sequence";
  std::string laughs = "<!DOCTYPE lolz [<!ENTITY lol \"lol\">";
  for (int i = 1; i < 10; ++i)
    laughs += "<!ENTITY lol" + std::to_string(i) + " \"" +
              repeat(i == 1 ? "&lol;" : "&lol" + std::to_string(i - 1) + ";", 10) + "\">";
  std::string attrs = "<a";
  for (int i = 0; i < 20000; ++i) attrs += " k" + std::to_string(i) + "=\"v\"";
  return {
      // What arrives in the tree.
      ok("MixedContentConcatenates", "<a>x<b>in</b>y<c/>z</a>", "<a>xyz<b>in</b><c/></a>"),
      ok("WhitespaceKept", "<a>\n  <b> v </b>\n</a>", "<a>\n  \n<b> v </b></a>"),
      ok("EntitiesAndCharRefs", "<a t=\"&lt;&amp;&quot;\">&lt;&gt;&amp;&#x41;&#66;&apos;</a>",
         "<a t=\"<&\"\">&lt;&gt;&amp;AB'</a>"),
      ok("Cdata", "<a><![CDATA[<x>&amp;]]></a>", "<a>&lt;x&gt;&amp;amp;</a>"),
      ok("CommentsAndPisDropped", "<?pi data?><!--c--><a><?p q?>t<!--d-->u</a><?end?>", "<a>tu</a>"),
      ok("CrLfNormalised", "<a>1\r\n2\r3</a>", "<a>1\n2\n3</a>"),
      ok("AttributeWhitespaceNormalised", "<a v=\"x\ty\nz\"/>", "<a v=\"x y z\"/>"),
      ok("NamespacesNotProcessed", "<a xmlns:p=\"urn:x\"><p:b p:k=\"v\"/></a>"),
      ok("NonAscii", "<a k=\"\xc3\xa9\">\xe2\x82\xac \xf0\x9f\x98\x80</a>"),
      ok("ControlCharRefs", "<a k=\"&lt;&#9;&#10;&#13;\">1&#13;\n2\t3 ]]&gt;</a>",
         "<a k=\"<\t\n\r\">1\r\n2\t3 ]]&gt;</a>"),
      ok("NamespaceBlock", "<Move version=\"1\"><src-path>/s/a</src-path><namespace-modified><path>/s/b</path>"
                           "<new-leaves><leaf>new</leaf><leaf>two</leaf></new-leaves></namespace-modified></Move>"),
      ok("EmptyForms", "<a><b/><c></c><d x=\"\"/></a>", "<a><b/><c/><d x=\"\"/></a>"),
      ok("Latin1Declared", "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><a>\xe9</a>", "<a>\xc3\xa9</a>"),
      ok("Utf16WithBom", std::string("\xff\xfe<\0a\0/\0>\0", 10), "<a/>"),
      ok("BomUtf8", "\xef\xbb\xbf<a>v</a>", "<a>v</a>"),
      // Without a byte order mark the bytes decide: ASCII text declared UTF-16 is read as UTF-8.
      ok("DeclaredUtf16ButUtf8", "<?xml version=\"1.0\" encoding=\"UTF-16\"?><a/>", "<a/>"),
      // Not XML.
      bad("Empty", "", "invalid document structure", 1, 1),
      bad("Unclosed", "<a", "unexpected end of input", 1, 3),
      bad("Mismatch", "<a></b>", "expected end of tag 'a'", 1, 6),
      bad("TwoRoots", "<a/><b/>", "comment or processing instruction expected", 1, 5),
      bad("TextOnly", "hello", "invalid document structure", 1, 1),
      bad("DuplicateAttribute", "<a x='1' x='2'/>", "attribute 'x' is already specified for element 'a'", 1, 12),
      bad("NulByte", std::string("<a>x\0y</a>", 10), "invalid character 0x0", 1, 6),
      bad("UnknownEncoding", "<?xml version=\"1.0\" encoding=\"x-foo\"?><a/>",
          "unable to create converter for 'X-FOO' encoding", 1, 39),
      // Entity expansion: refused before any declaration is read.
      dtd("BillionLaughs", laughs + "]><lolz>&lol9;</lolz>"),
      dtd("QuadraticBlowup",
          {"<!DOCTYPE a [<!ENTITY x \"" + std::string(100000, 'x') + "\">]><a>", "&x;", 20000, "</a>"}),
      bad("EntityWithoutDeclaration", "<lolz>&lol9;</lolz>", "entity 'lol9' not found", 1, 13),
      // External entities and DTDs: local files, absolute, relative and as URLs.
      dtd("ExternalEntityFileUrl", "<!DOCTYPE a [<!ENTITY e SYSTEM \"file://{DIR}/marker.txt\">]><a>&e;</a>"),
      dtd("ExternalEntityPath", "<!DOCTYPE a [<!ENTITY e SYSTEM \"{DIR}/marker.txt\">]><a>&e;</a>"),
      dtd("ExternalDtdFile", "<!DOCTYPE a SYSTEM \"{DIR}/marker.dtd\"><a>&leak;</a>"),
      dtd("ExternalEntityUrl", "<!DOCTYPE a [<!ENTITY e SYSTEM \"http://127.0.0.1:{PORT}/e\">]><a>&e;</a>"),
      dtd("ExternalDtdPublicUrl", "<!DOCTYPE a PUBLIC \"-//X//DTD Y//EN\" \"http://127.0.0.1:{PORT}/d.dtd\"><a/>"),
      dtd("ParameterEntityUrl", "<!DOCTYPE a [<!ENTITY % p SYSTEM \"http://127.0.0.1:{PORT}/p\"> %p;]><a/>"),
      dtd("UnparsedEntityAndNotation",
          "<!DOCTYPE a [<!NOTATION n SYSTEM \"file://{DIR}/marker.txt\">"
          "<!ENTITY u SYSTEM \"file://{DIR}/marker.txt\" NDATA n>]><a/>"),
      dtd("DoctypeAfterProlog", "<?xml version=\"1.0\"?><!-- c --><!DOCTYPE a><a/>"),
      // References that a naive processor might follow but that are plain text here.
      ok("SchemaLocationHints",
         "<a xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" xsi:schemaLocation=\"urn:x "
         "http://127.0.0.1:{PORT}/s.xsd\" xsi:noNamespaceSchemaLocation=\"file://{DIR}/marker.xsd\">v</a>"),
      ok("XInclude", "<a xmlns:xi=\"http://www.w3.org/2001/XInclude\">"
                     "<xi:include href=\"file://{DIR}/marker.txt\" parse=\"text\"/></a>"),
      ok("StylesheetInstruction", "<?xml-stylesheet type=\"text/xsl\" href=\"http://127.0.0.1:{PORT}/s.xsl\"?><a/>",
         "<a/>"),
      // Nesting, breadth and size at and past the default limits.
      ok("DeepNestingAtTheLimit", {"", "<a>", 256, "x" + repeat("</a>", 256)}),
      bad("DeepNestingOneTooDeep", {"", "<a>", 257, repeat("</a>", 257)},
          "XML parse error: element nesting deeper than 256 levels", 1, 772),
      bad("DeepNestingMillion", {"", "<a>", 1000000, ""}, "XML parse error: element nesting deeper than 256 levels", 1,
          772),
      ok("ManySiblingsAtTheLimit", {"<a>", "<b/>", 199999, "</a>"}),
      bad("TooManySiblings", {"<a>", "<b/>", 200000, "</a>"},
          "XML parse error: more than 200000 elements and attributes", 1, 800004),
      ok("ManyAttributes", attrs + "/>"),
      tight(ok("TightDepthAtTheLimit", "<a><b><c><d/></c></b></a>")),
      tight(bad("TightDepthOver", "<a><b><c><d><e/></d></c></b></a>",
                "XML parse error: element nesting deeper than 4 levels", 1, 17)),
      tight(ok("TightNodesAtTheLimit", "<a x=\"1\"><b/><b/><b y=\"2\"/></a>")),
      tight(bad("TightNodesOver", "<a><b/><b/><b/><b/><b/><b/></a>",
                "XML parse error: more than 6 elements and attributes", 1, 28)),
      tight(bad("TightAttributesCount", "<a x='1'><b/><b/><b/><b/><b y='2'/></a>",
                "XML parse error: more than 6 elements and attributes", 1, 36)),
      tight(ok("TightInputAtTheLimit", "<a>" + std::string(33, 'x') + "</a>")),
      tight(bad("TightInputOver", "<a>" + std::string(34, 'x') + "</a>", kOver40, 0, 0)),
      tight(bad("TightTrailingBytes", "<a/>" + std::string(40, ' '), kOver40, 0, 0)),
      ok("HugeAttribute", {"<a v=\"", "v", 8u << 20, "\"/>"}),
      ok("HugeText", {"<a>", "t", 8u << 20, "</a>"}),
      ok("HugeName", {"<", "n", 1u << 20, "/>"}),
      bad("InputOverTheLimit", {"<a>", "t", (16u << 20) - 6, "</a>"},
          "XML parse error: input larger than 16777216 bytes", 0, 0),
      // Bytes that are not UTF-8. (A sequence cut by the end of the input is dropped by the
      // decoder, so the scanner reports the unclosed element instead.)
      bad("Utf8LoneContinuation", "<a>x\x80y</a>", kInvalidByte, 1, 1),
      bad("Utf8Overlong", "<a>\xc0\xaf</a>", kInvalidByte, 1, 1),
      bad("Utf8Surrogate", "<a>\xed\xa0\x80</a>",
          "irregular bytes '\xef\xbf\xbd' and '\xef\xbf\xbd' of a 3-byte sequence", 1, 1),
      bad("Utf8FiveBytes", "<a>\xf8\x88\x80\x80\x80</a>",
          "exceeded byte limit at byte '\xef\xbf\xbd' in a 5-byte sequence", 1, 1),
      bad("Utf8TruncatedAtEnd", "<a>\xe2\x82",
          "input ended before all started tags were ended; last tag started is 'a'", 1, 4),
      bad("Utf8InAttribute", "<a k=\"\xff\"/>", "unexpected end of input", 1, 7),
      bad("ForbiddenCharRef", "<a>&#1;</a>", "invalid character reference", 1, 8),
      bad("CharRefSurrogate", "<a>&#xD800;</a>", "invalid character reference", 1, 12),
      bad("CharRefNonCharacter", "<a>&#xFFFE;</a>", "invalid character reference", 1, 12),
      bad("CharRefBeyondUnicode", "<a>&#x110000;</a>", "invalid character reference", 1, 12),
      // Characters that the native character set cannot carry, wherever they stand.
      unconvertible("Text", "<a>\n<path>/caf\xc3\xa9</path></a>", "/caf?", 2, 12),
      unconvertible("AttributeValue", "<a p=\"x\xc3\xa9y\"/>", "x?y", 1, 13),
      unconvertible("ElementName", "<\xc3\xa9l/>", "?l", 1, 6),
      unconvertible("AttributeName", "<a \xc3\xa9=\"1\"/>", "?", 1, 11),
      unconvertible("Astral", "<a k=\"\xf0\x9f\x98\x80\"/>", "?", 1, 12),
  };
}

void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

class OlXmlInput : public ::testing::TestWithParam<Case> {};

}  // namespace

TEST_P(OlXmlInput, ExactOutcomeNothingReadMemoryBounded) {
  const Case& c = GetParam();
  ol_test::MarkerDir dir;
  ASSERT_TRUE(dir.watching());
  ol_test::Listener net;
  ASSERT_NE(net.port, 0);
  std::string xml = fill(c.in.head + repeat(c.in.unit, c.in.count) + c.in.tail, dir.path, net.port);

  ol_test::ScopedCtype ctype(c.ctype);
  OlXmlParser parser;
  parser.set_limits(c.limits);
  OlXmlParser::Result r;
  const std::size_t base = g_live.load();
  g_peak.store(base);
  std::unique_ptr<OlXmlDoc> doc(parser.parse(xml, r));
  const std::size_t growth = g_peak.load() - base;
  EXPECT_EQ(r.kind, c.kind) << r.message;
  if (c.kind == Kind::kOk) {
    ASSERT_TRUE(doc && doc->get_root());
    const std::string text = text_of(doc->get_root());
    if (c.expect == "=") {
      EXPECT_TRUE(text == xml) << "the text form differs from the input";
    } else {
      EXPECT_EQ(text, c.expect);
    }
    EXPECT_EQ(text.find(ol_test::kMarker), std::string::npos);
  } else {
    EXPECT_FALSE(doc);
    EXPECT_EQ(r.message, c.expect);
    EXPECT_EQ(r.line, static_cast<std::uint64_t>(c.line));
    EXPECT_EQ(r.column, static_cast<std::uint64_t>(c.column));
  }
  // Nothing outside the input was read.
  EXPECT_EQ(dir.events(), 0) << "a file in the marker directory was opened or read";
  EXPECT_EQ(net.connections(), 0) << "the parser connected to the network";
  // Memory: a few times the input, plus about 200 bytes per element or attribute (each '<' or
  // '=' counts as one), plus a fixed overhead for the library. An expansion bomb needs gigabytes.
  const std::size_t markup = static_cast<std::size_t>(std::count(xml.begin(), xml.end(), '<') +
                                                      std::count(xml.begin(), xml.end(), '='));
  EXPECT_LE(growth, 8 * xml.size() + 256 * markup + (8u << 20)) << "peak heap growth for " << xml.size() << " bytes";
  // The writer's form re-parses to the same tree and is a fixed point.
  if (doc) {
    OlXmlParser fresh;
    std::string written = writer_form(doc->get_root());
    std::unique_ptr<OlXmlDoc> again(fresh.parse(written, r));
    ASSERT_TRUE(again && again->get_root()) << r.message;
    EXPECT_TRUE(ol_test::same_tree(doc->get_root(), again->get_root()));
    EXPECT_TRUE(writer_form(again->get_root()) == written);
  }
  // The parser is still usable; unconvertible text parses where the native set can carry it.
  ol_test::ScopedCtype utf8("C.UTF-8");
  doc.reset(parser.parse_string(c.kind == Kind::kEncoding ? xml : "<ok/>")->release());
  EXPECT_TRUE(doc && doc->get_root());
}

INSTANTIATE_TEST_SUITE_P(Corpus, OlXmlInput, ::testing::ValuesIn(cases()),
                         [](const auto& info) { return std::string(info.param.name); });
