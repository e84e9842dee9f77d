// Tree model: attributes, consumption of children, equality, deep trees, and the document's tree
// building.
#include "xml/ol_xml_elem.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>

#include "xml/ol_xml_doc.h"
#include "xml/ol_xml_test_util.h"
#include "xml/ol_xml_util.h"

using ol_test::text_of;

TEST(OlXmlElem, AttributesAndChildrenAreFoundByteForByteAndConsumedInOrder) {
  auto root = std::make_unique<OlXmlElem>(nullptr, nullptr, "r", "");
  OlXmlElem* r = root.get();
  r->add_attr("x", "1");
  r->add_attr("y", "2");
  r->add_attr("x", "3");  // kept, but the first of a name wins
  EXPECT_EQ(r->get_attr("x"), "1");
  EXPECT_EQ(r->get_attr("z"), "");
  EXPECT_FALSE(r->has_attr("X"));
  EXPECT_EQ(r->find_attr("x"), r->get_attrs().begin());
  EXPECT_EQ(r->find_attr("nope"), r->get_attrs().end());
  OlXmlElem* x1 = new OlXmlElem(nullptr, r, "x", "one");
  new OlXmlElem(nullptr, r, "y", "why");
  new OlXmlElem(nullptr, r, "x", "two");
  new OlXmlElem(nullptr, r, "e", "");
  new OlXmlElem(nullptr, r, "single", "v");
  EXPECT_EQ(x1->get_parent(), r);
  EXPECT_EQ(r->extract_child("x"), x1);
  EXPECT_EQ(OlXmlUtil::get_value(r, "x"), "two");
  EXPECT_EQ(r->extract_child("x"), nullptr);
  EXPECT_EQ(r->extract_child("Y"), nullptr);   // no case folding
  EXPECT_EQ(r->extract_child("y "), nullptr);  // no prefix match
  // An empty child and a missing one look the same to get_value.
  EXPECT_EQ(OlXmlUtil::get_value(r, "e"), "");
  EXPECT_EQ(OlXmlUtil::get_value(r, "missing"), "");
  // tag_exists consumes: the value is no longer found afterwards.
  EXPECT_TRUE(OlXmlUtil::tag_exists(r, "single"));
  EXPECT_FALSE(OlXmlUtil::tag_exists(r, "single"));
  EXPECT_FALSE(OlXmlUtil::tag_exists(nullptr, "x"));
  EXPECT_EQ(OlXmlUtil::get_value(nullptr, "x"), "");
  // Extracted children stay alive, owned by the parent, and leave the text form.
  ASSERT_EQ(r->get_extracted().size(), 4u);
  EXPECT_EQ(x1->get_value(), "one");
  EXPECT_EQ(text_of(r), "<r x=\"1\" y=\"2\" x=\"3\"><y>why</y></r>");
  // Equality is shallow: content, and the same child and attribute pointers.
  OlXmlElem a(nullptr, nullptr, "y", "why"), b(nullptr, nullptr, "y", "why");
  EXPECT_TRUE(a == *r->get_children().front());
  a.add_attr("n", "1");
  b.add_attr("n", "1");
  EXPECT_TRUE(a != b);
  EXPECT_TRUE(OlXmlAttr("n", "v") == OlXmlAttr("n", "v"));
  EXPECT_TRUE(OlXmlAttr("n", "v") != OlXmlAttr("n", "V"));
}

TEST(OlXmlElem, VeryDeepTreeIsWrittenAndFreedWithoutRecursion) {
  std::ostringstream os;
  os << static_cast<const OlXmlElem*>(nullptr) << static_cast<const OlXmlAttr*>(nullptr);
  EXPECT_EQ(os.str(), "");
  // Deep enough that a recursive destructor or writer would exhaust the stack.
  constexpr size_t kDepth = 300000;
  auto* root = new OlXmlElem(nullptr, nullptr, "d", "");
  OlXmlElem* e = root;
  for (size_t i = 1; i < kDepth; ++i) e = new OlXmlElem(nullptr, e, "d", "");
  e->add_value("x");
  std::string text = text_of(root);
  EXPECT_EQ(text.size(), kDepth * 7 + 1);
  EXPECT_EQ(text.substr(kDepth * 3 - 6, 15), "<d><d>x</d></d>");
  EXPECT_EQ(text.substr(text.size() - 8), "</d></d>");
  delete root;
}

namespace {

// Builds elements that record attribute values in upper case, to show that construct() is the factory
// of push().
class TestDoc : public OlXmlDoc {
 public:
  struct UpperElem : OlXmlElem {
    using OlXmlElem::OlXmlElem;
    void add_attr(const std::string& name, const std::string& value) override {
      std::string v = value;
      for (char& ch : v) ch = static_cast<char>(toupper(static_cast<unsigned char>(ch)));
      OlXmlElem::add_attr(name, v);
    }
  };
  OlXmlElem* construct(const std::string& name, OlXmlElem* parent) override {
    return new UpperElem(this, parent, name, "");
  }
};

}  // namespace

TEST(OlXmlDoc, PushPopBuildsOneRootedTreeThroughTheFactory) {
  TestDoc doc;
  EXPECT_TRUE(doc.is_empty());
  doc.pop();  // nothing to pop: harmless
  OlXmlElem* r = doc.push("r");
  EXPECT_EQ(doc.get_root(), r);
  EXPECT_EQ(r->get_doc(), &doc);
  OlXmlElem* a = doc.push("a");
  EXPECT_EQ(a->get_parent(), r);
  a->add_attr("k", "value");
  EXPECT_NE(dynamic_cast<TestDoc::UpperElem*>(a), nullptr);
  doc.pop();
  EXPECT_EQ(doc.get_curr(), r);
  doc.push("b");
  doc.pop();
  doc.pop();
  EXPECT_EQ(doc.get_curr(), nullptr);
  // A second root is refused rather than leaked or attached.
  EXPECT_EQ(doc.push("second"), nullptr);
  EXPECT_EQ(text_of(doc.get_root()), "<r><a k=\"VALUE\"/><b/></r>");
}
