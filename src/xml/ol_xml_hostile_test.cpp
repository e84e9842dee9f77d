// Hostile input: every case has one exact outcome, nothing outside the input is read (no
// file is opened, no connection is made), and the memory of a parse stays bounded.
//
// Proof of "nothing read": a directory of marker files is watched with inotify (any open
// or read of anything in it is an event) and a loopback listener counts connections. Both
// detectors are first shown to fire on a default-configured library reader, so a silent
// detector cannot pass the test. Memory is measured by counting every operator new of the
// process (the XML library allocates through it too).
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/sax2/DefaultHandler.hpp>
#include <xercesc/sax2/SAX2XMLReader.hpp>
#include <xercesc/sax2/XMLReaderFactory.hpp>
#include <xercesc/util/XMLString.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <thread>

#include "xml/ol_xml_detectors_test_util.h"
#include "xml/ol_xml_elem.h"
#include "xml/ol_xml_parser.h"
#include "xml/ol_xml_test_util.h"
#include "xml/ol_xml_util.h"

// ---- heap accounting -------------------------------------------------------------------------

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

// Heap growth above the level at construction, at its highest.
class PeakHeap {
 public:
  PeakHeap() : base(g_live.load()) { g_peak.store(base); }
  std::size_t growth() const { return g_peak.load() - base; }

 private:
  std::size_t base;
};

using ol_test::kMarker;
using ol_test::Listener;
using ol_test::MarkerDir;

std::string message_of(const xercesc::SAXParseException& e) {
  return OlXmlUtil::xerces_to_native_lossy(e.getMessage(), xercesc::XMLString::stringLen(e.getMessage()));
}

std::string replace(std::string s, const std::string& from, const std::string& to) {
  for (std::size_t pos = s.find(from); pos != std::string::npos; pos = s.find(from, pos + to.size()))
    s.replace(pos, from.size(), to);
  return s;
}

std::string repeat(const std::string& s, std::size_t n) {
  std::string out;
  out.reserve(s.size() * n);
  for (std::size_t i = 0; i < n; ++i) out += s;
  return out;
}

// Leak checking is paused around the unprotected reader below: the library leaks a little on
// the failure paths of its own entity loading, which our parser never takes.
extern "C" void __lsan_disable() __attribute__((weak));
extern "C" void __lsan_enable() __attribute__((weak));

// Parses with a library reader in its default configuration (no refusals): what an
// unprotected parser would do with the same input.
void parse_unprotected(const std::string& xml) {
  struct PauseLeakCheck {
    PauseLeakCheck() {
      if (__lsan_disable) __lsan_disable();
    }
    ~PauseLeakCheck() {
      if (__lsan_enable) __lsan_enable();
    }
  } pause;
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
}

}  // namespace

TEST(OlXmlHostileDetectors, FireOnAnUnprotectedReader) {
  MarkerDir dir;
  ASSERT_TRUE(dir.watching());
  Listener net;
  ASSERT_NE(net.port, 0);
  EXPECT_EQ(dir.events(), 0);
  parse_unprotected("<!DOCTYPE a SYSTEM \"file://" + dir.path + "/marker.dtd\"><a>&leak;</a>");
  EXPECT_GT(dir.events(), 0) << "the file detector does not see the library read a DTD";
  parse_unprotected("<!DOCTYPE a SYSTEM \"http://127.0.0.1:" + std::to_string(net.port) +
                    "/d.dtd\"><a/>");
  EXPECT_GT(net.connections(), 0) << "the network detector does not see the library connect";
}

namespace {

enum class Outcome { kOk, kSyntax, kEncoding };

struct HostileCase {
  const char* name;
  std::function<std::string()> input;  // "{DIR}" and "{PORT}" are filled in
  Outcome outcome;
  const char* message;  // exact exception message (null for kOk)
  int line = -1;        // exact position when >= 0
  int column = -1;
  const char* ctype = "C.UTF-8";
  std::function<void(OlXmlElem*)> check = nullptr;  // for kOk: what the tree holds
};

std::string billion_laughs() {
  std::string dtd = "<!DOCTYPE lolz [<!ENTITY lol \"lol\">";
  for (int i = 1; i < 10; ++i) {
    dtd += "<!ENTITY lol" + std::to_string(i) + " \"";
    for (int j = 0; j < 10; ++j) dtd += i == 1 ? "&lol;" : "&lol" + std::to_string(i - 1) + ";";
    dtd += "\">";
  }
  return dtd + "]><lolz>&lol9;</lolz>";
}

const char kDtdRefused[] = "DTDs not supported";

std::vector<HostileCase> hostile_cases() {
  std::vector<HostileCase> v;
  auto fixed = [](std::string s) { return [s] { return s; }; };
  // Entity expansion: refused before any declaration is read.
  v.push_back({"BillionLaughs", billion_laughs, Outcome::kSyntax, kDtdRefused, 0, 0});
  v.push_back({"QuadraticBlowup",
               [] {
                 return "<!DOCTYPE a [<!ENTITY x \"" + std::string(100000, 'x') + "\">]><a>" +
                        repeat("&x;", 20000) + "</a>";
               },
               Outcome::kSyntax, kDtdRefused, 0, 0});
  v.push_back({"EntityWithoutDeclaration", fixed("<lolz>&lol9;</lolz>"), Outcome::kSyntax,
               "entity 'lol9' not found", 1, 13});
  // External entities and DTDs: local files, absolute, relative and as URLs.
  v.push_back({"ExternalEntityFileUrl",
               fixed("<!DOCTYPE a [<!ENTITY e SYSTEM \"file://{DIR}/marker.txt\">]><a>&e;</a>"),
               Outcome::kSyntax, kDtdRefused, 0, 0});
  v.push_back({"ExternalEntityPath",
               fixed("<!DOCTYPE a [<!ENTITY e SYSTEM \"{DIR}/marker.txt\">]><a>&e;</a>"),
               Outcome::kSyntax, kDtdRefused, 0, 0});
  v.push_back({"ExternalDtdFile", fixed("<!DOCTYPE a SYSTEM \"{DIR}/marker.dtd\"><a>&leak;</a>"),
               Outcome::kSyntax, kDtdRefused, 0, 0});
  v.push_back({"ExternalEntityUrl",
               fixed("<!DOCTYPE a [<!ENTITY e SYSTEM \"http://127.0.0.1:{PORT}/e\">]><a>&e;</a>"),
               Outcome::kSyntax, kDtdRefused, 0, 0});
  v.push_back({"ExternalDtdPublicUrl",
               fixed("<!DOCTYPE a PUBLIC \"-//X//DTD Y//EN\" \"http://127.0.0.1:{PORT}/d.dtd\"><a/>"),
               Outcome::kSyntax, kDtdRefused, 0, 0});
  v.push_back({"ParameterEntityUrl",
               fixed("<!DOCTYPE a [<!ENTITY % p SYSTEM \"http://127.0.0.1:{PORT}/p\"> %p;]><a/>"),
               Outcome::kSyntax, kDtdRefused, 0, 0});
  v.push_back({"UnparsedEntityAndNotation",
               fixed("<!DOCTYPE a [<!NOTATION n SYSTEM \"file://{DIR}/marker.txt\">"
                     "<!ENTITY u SYSTEM \"file://{DIR}/marker.txt\" NDATA n>]><a/>"),
               Outcome::kSyntax, kDtdRefused, 0, 0});
  v.push_back({"DoctypeAfterProlog", fixed("<?xml version=\"1.0\"?><!-- c --><!DOCTYPE a><a/>"),
               Outcome::kSyntax, kDtdRefused, 0, 0});
  // References that a naive processor might follow but that are plain text here.
  v.push_back({"SchemaLocationHints",
               fixed("<a xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
                     "xsi:schemaLocation=\"urn:x http://127.0.0.1:{PORT}/s.xsd\" "
                     "xsi:noNamespaceSchemaLocation=\"file://{DIR}/marker.xsd\">v</a>"),
               Outcome::kOk, nullptr, -1, -1, "C.UTF-8", [](OlXmlElem* r) {
                 EXPECT_EQ(r->get_attrs().size(), 3u);
                 EXPECT_EQ(r->get_value(), "v");
               }});
  v.push_back({"XInclude",
               fixed("<a xmlns:xi=\"http://www.w3.org/2001/XInclude\">"
                     "<xi:include href=\"file://{DIR}/marker.txt\" parse=\"text\"/></a>"),
               Outcome::kOk, nullptr, -1, -1, "C.UTF-8", [](OlXmlElem* r) {
                 ASSERT_EQ(r->get_children().size(), 1u);
                 EXPECT_EQ(r->get_children().front()->get_tag(), "xi:include");
                 EXPECT_EQ(r->get_children().front()->get_value(), "");
               }});
  v.push_back({"StylesheetInstruction",
               fixed("<?xml-stylesheet type=\"text/xsl\" href=\"http://127.0.0.1:{PORT}/s.xsl\"?>"
                     "<a/>"),
               Outcome::kOk, nullptr, -1, -1, "C.UTF-8",
               [](OlXmlElem* r) { EXPECT_EQ(ol_test::text_of(r), "<a/>"); }});
  // Nesting.
  v.push_back({"DeepNestingAtTheLimit",
               [] { return repeat("<a>", 256) + "x" + repeat("</a>", 256); }, Outcome::kOk,
               nullptr, -1, -1, "C.UTF-8", [](OlXmlElem* r) {
                 int depth = 1;
                 while (!r->get_children().empty()) {
                   r = r->get_children().front();
                   ++depth;
                 }
                 EXPECT_EQ(depth, 256);
                 EXPECT_EQ(r->get_value(), "x");
               }});
  v.push_back({"DeepNestingOneTooDeep",
               [] { return repeat("<a>", 257) + repeat("</a>", 257); }, Outcome::kSyntax,
               "XML parse error: element nesting deeper than 256 levels", 1, 772});
  v.push_back({"DeepNestingMillion", [] { return repeat("<a>", 1000000); }, Outcome::kSyntax,
               "XML parse error: element nesting deeper than 256 levels", 1, 772});
  // Breadth and size.
  v.push_back({"ManySiblingsAtTheLimit",
               [] { return "<a>" + repeat("<b/>", 199999) + "</a>"; }, Outcome::kOk, nullptr,
               -1, -1, "C.UTF-8",
               [](OlXmlElem* r) { EXPECT_EQ(r->get_children().size(), 199999u); }});
  v.push_back({"TooManySiblings", [] { return "<a>" + repeat("<b/>", 200000) + "</a>"; },
               Outcome::kSyntax, "XML parse error: more than 200000 elements and attributes", 1,
               800004});
  v.push_back({"ManyAttributes",
               [] {
                 std::string s = "<a";
                 for (int i = 0; i < 20000; ++i) s += " k" + std::to_string(i) + "=\"v\"";
                 return s + "/>";
               },
               Outcome::kOk, nullptr, -1, -1, "C.UTF-8", [](OlXmlElem* r) {
                 EXPECT_EQ(r->get_attrs().size(), 20000u);
                 EXPECT_EQ(r->get_attr("k19999"), "v");
               }});
  v.push_back({"HugeAttribute",
               [] { return "<a v=\"" + std::string(8u << 20, 'v') + "\"/>"; }, Outcome::kOk,
               nullptr, -1, -1, "C.UTF-8",
               [](OlXmlElem* r) { EXPECT_EQ(r->get_attr("v").size(), 8u << 20); }});
  v.push_back({"HugeText", [] { return "<a>" + std::string(8u << 20, 't') + "</a>"; },
               Outcome::kOk, nullptr, -1, -1, "C.UTF-8",
               [](OlXmlElem* r) { EXPECT_EQ(r->get_value().size(), 8u << 20); }});
  v.push_back({"HugeName",
               [] {
                 std::string n(1u << 20, 'n');
                 return "<" + n + "/>";
               },
               Outcome::kOk, nullptr, -1, -1, "C.UTF-8",
               [](OlXmlElem* r) { EXPECT_EQ(r->get_tag().size(), 1u << 20); }});
  v.push_back({"InputOverTheLimit",
               [] { return "<a>" + std::string((16u << 20) - 6, 't') + "</a>"; },
               Outcome::kSyntax, "XML parse error: input larger than 16777216 bytes", 0, 0});
  // Bytes that are not UTF-8. (A sequence cut by the end of the input is dropped by the
  // decoder, so the scanner reports the unclosed element instead.)
  v.push_back({"Utf8LoneContinuation", fixed("<a>x\x80y</a>"), Outcome::kSyntax,
               "invalid byte '\xef\xbf\xbd' at position 1 of a 1-byte sequence", 1, 1});
  v.push_back({"Utf8Overlong", fixed("<a>\xc0\xaf</a>"), Outcome::kSyntax, "invalid byte '\xef\xbf\xbd' at position 1 of a 1-byte sequence", 1, 1});
  v.push_back({"Utf8Surrogate", fixed("<a>\xed\xa0\x80</a>"), Outcome::kSyntax,
               "irregular bytes '\xef\xbf\xbd' and '\xef\xbf\xbd' of a 3-byte sequence", 1, 1});
  v.push_back({"Utf8FiveBytes", fixed("<a>\xf8\x88\x80\x80\x80</a>"), Outcome::kSyntax, "exceeded byte limit at byte '\xef\xbf\xbd' in a 5-byte sequence", 1, 1});
  v.push_back({"Utf8TruncatedAtEnd", fixed("<a>\xe2\x82"), Outcome::kSyntax, "input ended before all started tags were ended; last tag started is 'a'", 1, 4});
  v.push_back({"Utf8InAttribute", fixed("<a k=\"\xff\"/>"), Outcome::kSyntax, "unexpected end of input", 1, 7});
  v.push_back({"CharRefSurrogate", fixed("<a>&#xD800;</a>"), Outcome::kSyntax,
               "invalid character reference", 1, 12});
  v.push_back({"CharRefNonCharacter", fixed("<a>&#xFFFE;</a>"), Outcome::kSyntax,
               "invalid character reference", 1, 12});
  v.push_back({"CharRefBeyondUnicode", fixed("<a>&#x110000;</a>"), Outcome::kSyntax,
               "invalid character reference", 1, 12});
  // Without a byte order mark the bytes decide: ASCII text declared UTF-16 is read as UTF-8.
  v.push_back({"DeclaredUtf16ButUtf8", fixed("<?xml version=\"1.0\" encoding=\"UTF-16\"?><a/>"),
               Outcome::kOk, nullptr, -1, -1, "C.UTF-8",
               [](OlXmlElem* r) { EXPECT_EQ(ol_test::text_of(r), "<a/>"); }});
  // Characters that the native character set cannot carry (ASCII locale).
  v.push_back({"UnconvertibleText", fixed("<a>na\xc3\xafve</a>"), Outcome::kEncoding,
               "Error: One or more characters in the following string is not supported by the "
               "server's operating system: \"na?ve\".\n",
               1, 9, "C"});
  v.push_back({"UnconvertibleAstral", fixed("<a k=\"\xf0\x9f\x98\x80\"/>"), Outcome::kEncoding,
               "Error: One or more characters in the following string is not supported by the "
               "server's operating system: \"?\".\n",
               1, 12, "C"});
  return v;
}

class OlXmlHostile : public ::testing::TestWithParam<HostileCase> {};

}  // namespace

TEST_P(OlXmlHostile, ExactOutcomeNothingReadMemoryBounded) {
  const HostileCase& c = GetParam();
  MarkerDir dir;
  ASSERT_TRUE(dir.watching());
  Listener net;
  ASSERT_NE(net.port, 0);
  std::string xml = replace(replace(c.input(), "{DIR}", dir.path), "{PORT}", std::to_string(net.port));

  ol_test::ScopedCtype ctype(c.ctype);
  OlXmlParser parser;
  std::unique_ptr<OlXmlDoc> doc;
  Outcome got = Outcome::kOk;
  std::string message;
  int line = -1, column = -1;
  std::size_t growth = 0;
  {
    PeakHeap heap;
    try {
      doc.reset(parser.parse_string(xml)->release());
    } catch (const OlXmlParser::OlXmlEncodingException& e) {
      got = Outcome::kEncoding;
      message = message_of(e);
      line = static_cast<int>(e.getLineNumber());
      column = static_cast<int>(e.getColumnNumber());
    } catch (const xercesc::SAXParseException& e) {
      got = Outcome::kSyntax;
      message = message_of(e);
      line = static_cast<int>(e.getLineNumber());
      column = static_cast<int>(e.getColumnNumber());
    }
    // Nothing else may escape: any other exception fails the test here.
    growth = heap.growth();
  }

  EXPECT_EQ(static_cast<int>(got), static_cast<int>(c.outcome)) << message;
  if (c.message) {
    EXPECT_EQ(message, c.message);
  }
  if (c.line >= 0) {
    EXPECT_EQ(line, c.line);
  }
  if (c.column >= 0) {
    EXPECT_EQ(column, c.column);
  }
  if (c.outcome == Outcome::kOk) {
    ASSERT_TRUE(doc && doc->get_root());
    if (c.check) c.check(doc->get_root());
  }
  // Nothing outside the input was read.
  EXPECT_EQ(dir.events(), 0) << "a file in the marker directory was opened or read";
  EXPECT_EQ(net.connections(), 0) << "the parser connected to the network";
  EXPECT_EQ(message.find(kMarker), std::string::npos);
  if (doc && doc->get_root()) {
    std::string text = ol_test::text_of(doc->get_root());
    EXPECT_EQ(text.find(kMarker), std::string::npos);
  }
  // Memory: a few times the input, plus about 200 bytes per element or attribute (each markup
  // character '<' or '=' is counted as one), plus a fixed overhead for the library. An
  // expansion bomb would need gigabytes.
  const std::size_t markup = static_cast<std::size_t>(std::count(xml.begin(), xml.end(), '<') +
                                                      std::count(xml.begin(), xml.end(), '='));
  const std::size_t bound = 8 * xml.size() + 256 * markup + (8u << 20);
  EXPECT_LE(growth, bound) << "peak heap growth " << growth << " for " << xml.size() << " bytes";
  // The parser is still usable.
  doc.reset();
  std::unique_ptr<OlXmlDoc> after(parser.parse_string("<ok/>")->release());
  ASSERT_TRUE(after && after->get_root());
  EXPECT_EQ(after->get_root()->get_tag(), "ok");
}

INSTANTIATE_TEST_SUITE_P(Corpus, OlXmlHostile, ::testing::ValuesIn(hostile_cases()),
                         [](const auto& info) { return std::string(info.param.name); });
