// Build side: the DOM writer's output form, escaping, and refusal of bad steps without throwing.
// Round trips of parsed trees through the writer are in the input table of ol_xml_hostile_test.
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

std::unique_ptr<OlXmlDoc> parse(const std::string& text) {
  OlXmlParser p;
  return std::unique_ptr<OlXmlDoc>(p.parse_string(text)->release());
}

}  // namespace

TEST(OlXmlDocBuild, AnswerInTheAgentsOutputFormWithEscapes) {
  ScopedCtype ctype("C.UTF-8");
  OlXmlDoc d;
  ASSERT_EQ(d.create_root_elem("MountSilo"), OL_XML_OK);
  ASSERT_EQ(d.add_attr("tx-id", "4711-3"), OL_XML_OK);
  ASSERT_EQ(d.add_attr("a", "q\"l<g>a&'n\nt\tc\r"), OL_XML_OK);
  ASSERT_EQ(d.push_elem("list"), OL_XML_OK);
  ASSERT_EQ(d.add_elem("silo-tag", "/a"), OL_XML_OK);
  ASSERT_EQ(d.push_elem("none"), OL_XML_OK);
  ASSERT_EQ(d.pop_elem(), OL_XML_OK);
  ASSERT_EQ(d.pop_elem(), OL_XML_OK);
  ASSERT_EQ(d.add_elem("\xc3\xa9t\xc3\xa9", ""), OL_XML_OK);  // a non-ASCII name, empty text
  ASSERT_EQ(d.add_elem("status-message", "x<y>&z\"q'\r\n]]> \xc3\xa9\xf0\x9f\x98\x80"), OL_XML_OK);
  EXPECT_EQ(serialise(d), kDecl +
                              "<MountSilo a=\"q&quot;l&lt;g>a&amp;'n&#xA;t&#x9;c&#xD;\" tx-id=\"4711-3\">"
                              "<list><silo-tag>/a</silo-tag><none/></list><\xc3\xa9t\xc3\xa9></\xc3\xa9t\xc3\xa9>"
                              "<status-message>x&lt;y&gt;&amp;z\"q'&#xD;\n]]&gt; \xc3\xa9\xf0\x9f\x98\x80"
                              "</status-message></MountSilo>");
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
  EXPECT_EQ(parse(out)->get_root()->get_attr("k"), "a\xef\xbf\xbd" "b\xef\xbf\xbd" "c");  // still well formed
}

TEST(OlXmlDocBuild, RefusedStepsReturnCodesAndLeaveTheDocumentUsable) {
  OlXmlDoc d;
  std::string out = "stale";
  // Nothing may be built before the root exists.
  EXPECT_EQ(d.push_elem("x"), OL_XML_DOM_EXCEPTION);
  EXPECT_EQ(d.add_attr("x", "1"), OL_XML_DOM_EXCEPTION);
  EXPECT_EQ(d.set_body("t"), OL_XML_DOM_EXCEPTION);
  EXPECT_EQ(d.pop_elem(), OL_XML_DOM_EXCEPTION);
  EXPECT_EQ(d.get_string(out), OL_XML_DOM_EXCEPTION);
  EXPECT_EQ(out, "");
  EXPECT_EQ(d.create_root_elem("1bad"), OL_XML_DOM_EXCEPTION);
  ASSERT_EQ(d.create_root_elem("Op"), OL_XML_OK);
  EXPECT_EQ(d.create_root_elem("Again"), OL_XML_DOM_EXCEPTION);  // one root per document
  EXPECT_EQ(d.add_attr("a=b", "v"), OL_XML_DOM_EXCEPTION);
  EXPECT_EQ(d.add_elem("bad name", "t"), OL_XML_DOM_EXCEPTION);  // stops at the push: Op stays current
  ASSERT_EQ(d.add_attr("ok", "1"), OL_XML_OK);
  {
    ScopedCtype ctype("C.UTF-8");
    EXPECT_EQ(d.push_elem("c\xff"), OL_XML_DOM_EXCEPTION);  // a name without a native form
    ScopedCtype ascii("C");
    EXPECT_EQ(d.add_attr("r\xc3\xa9", "v"), OL_XML_DOM_EXCEPTION);
  }
  // Popping past the root: the document node is current, and nothing may be added there.
  ASSERT_EQ(d.pop_elem(), OL_XML_OK);
  EXPECT_EQ(d.push_elem("second-root"), OL_XML_DOM_EXCEPTION);
  EXPECT_EQ(d.set_body("text at top level"), OL_XML_DOM_EXCEPTION);
  ASSERT_EQ(d.pop_elem(), OL_XML_OK);  // now above the document
  EXPECT_EQ(d.pop_elem(), OL_XML_DOM_EXCEPTION);
  EXPECT_EQ(serialise(d), kDecl + "<Op ok=\"1\"/>");
  // A parsed document can carry a built answer too.
  auto q = parse("<q><x/></q>");
  ASSERT_EQ(q->create_root_elem("answer"), OL_XML_OK);
  EXPECT_EQ(serialise(*q), kDecl + "<answer/>");
  EXPECT_EQ(text_of(q->get_root()), "<q><x/></q>");
}
