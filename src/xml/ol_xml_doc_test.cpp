// Build side: the DOM writer's output form, escaping, and refusal of bad steps without throwing.
#include "xml/ol_xml_doc.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "xml/ol_xml_elem.h"
#include "xml/ol_xml_parser.h"
#include "xml/ol_xml_test_util.h"

using ol_test::ScopedCtype;
using ol_test::text_of;

namespace {

const std::string kDecl = "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"no\" ?>";

std::string serialise(OlXmlDoc& d) {
  std::string out;
  EXPECT_EQ(d.get_string(out), OL_XML_OK);
  return out;
}

}  // namespace

TEST(OlXmlDocBuild, ResponseEnvelopeInTheAgentsOutputForm) {
  OlXmlDoc d;
  ASSERT_EQ(d.create_root_elem("MountSilo"), OL_XML_OK);
  ASSERT_EQ(d.add_attr("tx-id", "4711-3"), OL_XML_OK);
  ASSERT_EQ(d.add_attr("status-code", "20021"), OL_XML_OK);
  ASSERT_EQ(d.add_elem("status-message", "Parse error in \"/v\".\n"), OL_XML_OK);
  EXPECT_EQ(serialise(d), kDecl +
                              "<MountSilo status-code=\"20021\" tx-id=\"4711-3\">"
                              "<status-message>Parse error in \"/v\".\n</status-message></MountSilo>");
}

TEST(OlXmlDocBuild, NestingEmptyElementsAndEmptyText) {
  OlXmlDoc d;
  ASSERT_EQ(d.create_root_elem("GetMountedSiloList"), OL_XML_OK);
  ASSERT_EQ(d.push_elem("mounted-silo-list"), OL_XML_OK);
  ASSERT_EQ(d.add_elem("silo-tag", "/a"), OL_XML_OK);
  ASSERT_EQ(d.add_elem("silo-tag", "/b"), OL_XML_OK);
  ASSERT_EQ(d.pop_elem(), OL_XML_OK);
  ASSERT_EQ(d.push_elem("none"), OL_XML_OK);
  ASSERT_EQ(d.pop_elem(), OL_XML_OK);
  ASSERT_EQ(d.add_elem("empty-text", ""), OL_XML_OK);
  EXPECT_EQ(serialise(d), kDecl +
                              "<GetMountedSiloList><mounted-silo-list><silo-tag>/a</silo-tag>"
                              "<silo-tag>/b</silo-tag></mounted-silo-list><none/>"
                              "<empty-text></empty-text></GetMountedSiloList>");
}

TEST(OlXmlDocBuild, EscapesTextAndAttributes) {
  ScopedCtype ctype("C.UTF-8");
  OlXmlDoc d;
  ASSERT_EQ(d.create_root_elem("r"), OL_XML_OK);
  ASSERT_EQ(d.add_attr("a", "q\"l<g>a&'n\nt\tc\r"), OL_XML_OK);
  ASSERT_EQ(d.set_body("x<y>&z\"q'\r\n]]> \xc3\xa9\xf0\x9f\x98\x80"), OL_XML_OK);
  EXPECT_EQ(serialise(d), kDecl +
                              "<r a=\"q&quot;l&lt;g>a&amp;'n&#xA;t&#x9;c&#xD;\">"
                              "x&lt;y&gt;&amp;z\"q'&#xD;\n]]&gt; \xc3\xa9\xf0\x9f\x98\x80</r>");
}

TEST(OlXmlDocBuild, TextXmlCannotCarryBecomesReplacementCharacter) {
  ScopedCtype ctype("C.UTF-8");
  OlXmlDoc d;
  ASSERT_EQ(d.create_root_elem("r"), OL_XML_OK);
  // A control character, a NUL, and bytes that are not UTF-8.
  ASSERT_EQ(d.add_attr("k", std::string("a\x01" "b\0c", 5)), OL_XML_OK);
  ASSERT_EQ(d.set_body("p\x1b" "q\xff" "r"), OL_XML_OK);
  std::string out = serialise(d);
  EXPECT_EQ(out, kDecl + "<r k=\"a\xef\xbf\xbd" "b\xef\xbf\xbd" "c\">p\xef\xbf\xbdq\xef\xbf\xbdr</r>");
  // The answer stays well formed: our own parser takes it.
  OlXmlParser p;
  std::unique_ptr<OlXmlDoc> back(p.parse_string(out)->release());
  EXPECT_EQ(back->get_root()->get_attr("k"), "a\xef\xbf\xbd" "b\xef\xbf\xbd" "c");
}

TEST(OlXmlDocBuild, RefusedStepsReturnCodesAndLeaveTheDocumentUsable) {
  OlXmlDoc d;
  std::string out = "stale";
  // Nothing may be built before the root exists.
  EXPECT_EQ(d.push_elem("x"), OL_XML_DOM_EXCEPTION);
  EXPECT_EQ(d.add_attr("x", "1"), OL_XML_DOM_EXCEPTION);
  EXPECT_EQ(d.set_body("t"), OL_XML_DOM_EXCEPTION);
  EXPECT_EQ(d.pop_elem(), OL_XML_DOM_EXCEPTION);
  EXPECT_EQ(d.add_elem("x", "t"), OL_XML_DOM_EXCEPTION);
  EXPECT_EQ(d.get_string(out), OL_XML_DOM_EXCEPTION);
  EXPECT_EQ(out, "");
  // Invalid names are refused.
  EXPECT_EQ(d.create_root_elem("1bad"), OL_XML_DOM_EXCEPTION);
  EXPECT_EQ(d.create_root_elem("a b"), OL_XML_DOM_EXCEPTION);
  ASSERT_EQ(d.create_root_elem("Op"), OL_XML_OK);
  EXPECT_EQ(d.create_root_elem("Again"), OL_XML_DOM_EXCEPTION);  // one root per document
  EXPECT_EQ(d.push_elem("<x>"), OL_XML_DOM_EXCEPTION);
  EXPECT_EQ(d.add_attr("", "v"), OL_XML_DOM_EXCEPTION);
  EXPECT_EQ(d.add_attr("a=b", "v"), OL_XML_DOM_EXCEPTION);
  // add_elem stops at the refused push: the current element is unchanged.
  EXPECT_EQ(d.add_elem("bad name", "t"), OL_XML_DOM_EXCEPTION);
  ASSERT_EQ(d.add_attr("ok", "1"), OL_XML_OK);
  EXPECT_EQ(serialise(d), kDecl + "<Op ok=\"1\"/>");
  // Popping past the root: the document node is current, and nothing may be added there.
  ASSERT_EQ(d.pop_elem(), OL_XML_OK);
  EXPECT_EQ(d.push_elem("second-root"), OL_XML_DOM_EXCEPTION);
  EXPECT_EQ(d.add_attr("a", "1"), OL_XML_DOM_EXCEPTION);
  EXPECT_EQ(d.set_body("text at top level"), OL_XML_DOM_EXCEPTION);
  ASSERT_EQ(d.pop_elem(), OL_XML_OK);  // now above the document
  EXPECT_EQ(d.pop_elem(), OL_XML_DOM_EXCEPTION);
  EXPECT_EQ(serialise(d), kDecl + "<Op ok=\"1\"/>");
}

TEST(OlXmlDocBuild, NamesWithoutANativeFormAreRefused) {
  {
    ScopedCtype ctype("C.UTF-8");
    OlXmlDoc d;
    EXPECT_EQ(d.create_root_elem("r\xff"), OL_XML_DOM_EXCEPTION);  // not UTF-8
    ASSERT_EQ(d.create_root_elem("r\xc3\xa9"), OL_XML_OK);           // é is a name character
    EXPECT_EQ(d.push_elem("c\xff"), OL_XML_DOM_EXCEPTION);
    EXPECT_EQ(d.add_attr("n\xff", "v"), OL_XML_DOM_EXCEPTION);
    EXPECT_EQ(serialise(d), kDecl + "<r\xc3\xa9/>");
  }
  ScopedCtype ctype("C");
  OlXmlDoc d;
  EXPECT_EQ(d.create_root_elem("r\xc3\xa9"), OL_XML_DOM_EXCEPTION);  // not ASCII
}

TEST(OlXmlDocBuild, LargeDocumentsGrowTheBuffer) {
  OlXmlDoc d;
  ASSERT_EQ(d.create_root_elem("big"), OL_XML_OK);
  std::string body(200000, 'b');
  for (int i = 0; i < 50; ++i) ASSERT_EQ(d.add_elem("p", std::to_string(i)), OL_XML_OK);
  ASSERT_EQ(d.add_elem("body", body), OL_XML_OK);
  std::string out = serialise(d);
  std::string expected = kDecl + "<big>";
  for (int i = 0; i < 50; ++i) expected += "<p>" + std::to_string(i) + "</p>";
  expected += "<body>" + body + "</body></big>";
  EXPECT_EQ(out, expected);
  // Serialising twice gives the same text.
  EXPECT_EQ(serialise(d), expected);
}

TEST(OlXmlDocBuild, ParseSideAndBuildSideLiveInOneDocument) {
  // A parsed document can also carry a built answer; both die with it.
  OlXmlParser p;
  std::unique_ptr<OlXmlDoc> d(p.parse_string("<q><x/></q>")->release());
  ASSERT_EQ(d->create_root_elem("answer"), OL_XML_OK);
  ASSERT_EQ(d->add_elem("x", "1"), OL_XML_OK);
  EXPECT_EQ(serialise(*d), kDecl + "<answer><x>1</x></answer>");
  EXPECT_EQ(text_of(d->get_root()), "<q><x/></q>");
}
