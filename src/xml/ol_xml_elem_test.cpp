// Tree model: elements, attributes, consumption, text form, and the owners around them.
#include "xml/ol_xml_elem.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <sstream>
#include <string>

#include "xml/ol_auto_ptr.h"
#include "xml/ol_str_util.h"
#include "xml/ol_xml_doc.h"
#include "xml/ol_xml_test_util.h"
#include "xml/ol_xml_util.h"

using ol_test::text_of;

namespace {

// A root element with children owned by a unique_ptr (the root owns the rest).
struct Tree {
  std::unique_ptr<OlXmlElem> root;
  explicit Tree(const std::string& tag, const std::string& value = "")
      : root(new OlXmlElem(nullptr, nullptr, tag, value)) {}
  OlXmlElem* add(OlXmlElem* parent, const std::string& tag, const std::string& value = "") {
    return new OlXmlElem(nullptr, parent, tag, value);
  }
};

}  // namespace

TEST(OlXmlAttr, EqualityIsByNameAndValueBytes) {
  OlXmlAttr a("n", "v"), b("n", "v"), c("n", "V"), d("N", "v");
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a != b);
  EXPECT_TRUE(a != c);
  EXPECT_TRUE(a != d);
  std::ostringstream os;
  os << &a;
  EXPECT_EQ(os.str(), "n=\"v\"");
}

TEST(OlXmlElem, ConstructorLinksParentAndKeepsOrder) {
  Tree t("r");
  OlXmlElem* a = t.add(t.root.get(), "a");
  OlXmlElem* b = t.add(t.root.get(), "b");
  OlXmlElem* c = t.add(a, "c");
  EXPECT_TRUE(t.root->is_root());
  EXPECT_FALSE(a->is_root());
  EXPECT_EQ(c->get_parent(), a);
  ASSERT_EQ(t.root->get_children().size(), 2u);
  EXPECT_EQ(t.root->get_children().front(), a);
  EXPECT_EQ(t.root->get_children().back(), b);
}

TEST(OlXmlElem, AttributesKeepDocumentOrderAndFirstNameWins) {
  Tree t("r");
  t.root->add_attr("x", "1");
  t.root->add_attr("y", "2");
  t.root->add_attr("x", "3");
  ASSERT_EQ(t.root->get_attrs().size(), 3u);
  EXPECT_EQ(t.root->get_attr("x"), "1");
  EXPECT_EQ(t.root->get_attr("y"), "2");
  EXPECT_EQ(t.root->get_attr("z"), "");
  EXPECT_TRUE(t.root->has_attr("y"));
  EXPECT_FALSE(t.root->has_attr("X"));
  auto it = t.root->find_attr("x");
  ASSERT_NE(it, t.root->get_attrs().end());
  EXPECT_EQ(it, t.root->get_attrs().begin());
  EXPECT_EQ(t.root->find_attr("nope"), t.root->get_attrs().end());
}

TEST(OlXmlElem, ExtractChildConsumesInOrder) {
  Tree t("r");
  OlXmlElem* x1 = t.add(t.root.get(), "x", "first");
  t.add(t.root.get(), "y", "why");
  OlXmlElem* x2 = t.add(t.root.get(), "x", "second");
  EXPECT_EQ(t.root->extract_child("x"), x1);
  EXPECT_EQ(t.root->extract_child("x"), x2);
  EXPECT_EQ(t.root->extract_child("x"), nullptr);
  // Extracted children stay alive and owned by the parent, but leave `children`.
  ASSERT_EQ(t.root->get_extracted().size(), 2u);
  EXPECT_EQ(x1->get_value(), "first");
  ASSERT_EQ(t.root->get_children().size(), 1u);
  EXPECT_EQ(t.root->get_children().front()->get_tag(), "y");
  // The text form no longer shows them.
  EXPECT_EQ(text_of(t.root.get()), "<r><y>why</y></r>");
  // Tags compare byte for byte: no case folding, no prefix match.
  EXPECT_EQ(t.root->extract_child("Y"), nullptr);
  EXPECT_EQ(t.root->extract_child("y "), nullptr);
}

TEST(OlXmlUtil, GetValueAndTagExistConsume) {
  Tree t("r");
  t.add(t.root.get(), "x", "one");
  t.add(t.root.get(), "x", "two");
  t.add(t.root.get(), "e", "");
  t.add(t.root.get(), "single", "v");
  // Two children of one tag: first, then second, then nothing.
  EXPECT_EQ(OlXmlUtil::get_value(t.root.get(), "x"), "one");
  EXPECT_EQ(OlXmlUtil::get_value(t.root.get(), "x"), "two");
  EXPECT_EQ(OlXmlUtil::get_value(t.root.get(), "x"), "");
  // An empty child and a missing child look the same to get_value.
  EXPECT_EQ(OlXmlUtil::get_value(t.root.get(), "e"), "");
  EXPECT_EQ(OlXmlUtil::get_value(t.root.get(), "missing"), "");
  // tag_exists consumes: the value is no longer found afterwards.
  EXPECT_TRUE(OlXmlUtil::tag_exists(t.root.get(), "single"));
  EXPECT_EQ(OlXmlUtil::get_value(t.root.get(), "single"), "");
  EXPECT_FALSE(OlXmlUtil::tag_exists(t.root.get(), "single"));
  // Null elements are refused quietly.
  EXPECT_FALSE(OlXmlUtil::tag_exists(nullptr, "x"));
  EXPECT_EQ(OlXmlUtil::get_value(nullptr, "x"), "");
}

TEST(OlXmlElem, EqualityIsShallow) {
  OlXmlElem a(nullptr, nullptr, "t", "v");
  OlXmlElem b(nullptr, nullptr, "t", "v");
  EXPECT_TRUE(a == b);  // no children, no attributes: content decides
  OlXmlElem c(nullptr, nullptr, "t", "w");
  EXPECT_TRUE(a != c);
  // Equal content with children or attributes: different pointers, so not equal.
  new OlXmlElem(nullptr, &a, "k", "");
  new OlXmlElem(nullptr, &b, "k", "");
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a == a);
  OlXmlElem d(nullptr, nullptr, "t", "v"), e(nullptr, nullptr, "t", "v");
  d.add_attr("n", "1");
  e.add_attr("n", "1");
  EXPECT_TRUE(d != e);
}

struct TextFormCase {
  const char* name;
  std::function<void(OlXmlElem*)> build;
  const char* expected;
};

class OlXmlElemTextForm : public ::testing::TestWithParam<TextFormCase> {};

TEST_P(OlXmlElemTextForm, WritesExactly) {
  OlXmlElem root(nullptr, nullptr, "a", "");
  GetParam().build(&root);
  EXPECT_EQ(text_of(&root), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, OlXmlElemTextForm,
    ::testing::Values(
        TextFormCase{"Empty", [](OlXmlElem*) {}, "<a/>"},
        TextFormCase{"EmptyWithAttributes",
                     [](OlXmlElem* e) {
                       e->add_attr("b", "c");
                       e->add_attr("d", "");
                     },
                     "<a b=\"c\" d=\"\"/>"},
        TextFormCase{"ValueIsEncoded", [](OlXmlElem* e) { e->add_value("a<b&c>"); },
                     "<a>a&lt;b&amp;c&gt;</a>"},
        TextFormCase{"EntitiesAreNotEncodedTwice", [](OlXmlElem* e) { e->add_value("&lt;&amp;"); },
                     "<a>&amp;lt;&amp;amp;</a>"},
        TextFormCase{"QuotesStayInValues", [](OlXmlElem* e) { e->add_value("\"q\" 'a'"); },
                     "<a>\"q\" 'a'</a>"},
        TextFormCase{"AttributeValuesAreRaw",
                     [](OlXmlElem* e) { e->add_attr("p", "x<y\"z&"); },
                     "<a p=\"x<y\"z&\"/>"},
        TextFormCase{"NoValueButChildren",
                     [](OlXmlElem* e) {
                       new OlXmlElem(nullptr, e, "b", "");
                       new OlXmlElem(nullptr, e, "c", "t");
                     },
                     "<a><b/><c>t</c></a>"},
        TextFormCase{"ValueThenChildren",
                     [](OlXmlElem* e) {
                       e->add_value("x ");
                       OlXmlElem* b = new OlXmlElem(nullptr, e, "b", "");
                       b->add_attr("k", "v");
                       new OlXmlElem(nullptr, b, "c", "");
                       e->add_value("y");
                     },
                     "<a>x y<b k=\"v\"><c/></b></a>"}),
    [](const auto& info) { return info.param.name; });

TEST(OlXmlElem, NullPointersWriteNothing) {
  std::ostringstream os;
  os << static_cast<const OlXmlElem*>(nullptr) << static_cast<const OlXmlAttr*>(nullptr);
  EXPECT_EQ(os.str(), "");
}

TEST(OlXmlElem, VeryDeepTreeIsWrittenAndFreedWithoutRecursion) {
  // Deep enough that a recursive destructor or writer would exhaust the stack.
  constexpr int kDepth = 300000;
  auto* root = new OlXmlElem(nullptr, nullptr, "d", "");
  OlXmlElem* e = root;
  for (int i = 1; i < kDepth; ++i) e = new OlXmlElem(nullptr, e, "d", "");
  e->add_value("x");
  std::string text = text_of(root);
  EXPECT_EQ(text.size(), static_cast<size_t>(kDepth) * 7 + 1);
  EXPECT_EQ(text.substr(0, 6), "<d><d>");
  EXPECT_EQ(text.substr(static_cast<size_t>(kDepth) * 3 - 3, 12), "<d>x</d></d>");
  EXPECT_EQ(text.substr(text.size() - 8), "</d></d>");
  delete root;  // would overflow the stack if it recursed
}

TEST(OlStrUtil, ReplaceAllDoesNotRescanInsertedText) {
  struct Case {
    std::string text, from, to, expected;
  } cases[] = {
      {"aaa", "a", "aa", "aaaaaa"},
      {"aaaa", "aa", "b", "bb"},
      {"a&b&", "&", "&amp;", "a&amp;b&amp;"},
      {"abc", "", "x", "abc"},
      {"", "a", "b", ""},
      {"xyz", "q", "w", "xyz"},
      {"abab", "ab", "", ""},
  };
  for (auto& c : cases) {
    std::string t = c.text;
    EXPECT_EQ(OlStrUtil::replace_all(t, c.from, c.to), c.expected) << c.text;
  }
}

namespace {

int g_live_docs = 0;

class CountingDoc : public OlXmlDoc {
 public:
  CountingDoc() { ++g_live_docs; }
  ~CountingDoc() override { --g_live_docs; }
};

// An element type that records attributes in upper case, to show construct() is the factory.
class UpperElem : public OlXmlElem {
 public:
  using OlXmlElem::OlXmlElem;
  void add_attr(const std::string& name, const std::string& value) override {
    std::string v = value;
    for (char& ch : v) ch = static_cast<char>(toupper(static_cast<unsigned char>(ch)));
    OlXmlElem::add_attr(name, v);
  }
};

class UpperDoc : public OlXmlDoc {
 public:
  OlXmlElem* construct(const std::string& name, OlXmlElem* parent) override {
    return new UpperElem(this, parent, name, "");
  }
};

}  // namespace

TEST(OlAutoPtr, OwnsReleasesResetsAndMoves) {
  {
    OlAutoPtr<OlXmlDoc> p(new CountingDoc());
    EXPECT_EQ(g_live_docs, 1);
    EXPECT_TRUE(p);
  }
  EXPECT_EQ(g_live_docs, 0);
  OlAutoPtr<OlXmlDoc> p(new CountingDoc());
  OlXmlDoc* raw = p.release();
  EXPECT_FALSE(p);
  EXPECT_EQ(p.get(), nullptr);
  EXPECT_EQ(g_live_docs, 1);
  p.reset(raw);
  p.reset(new CountingDoc());
  EXPECT_EQ(g_live_docs, 1);
  OlAutoPtr<OlXmlDoc> q(std::move(p));
  EXPECT_FALSE(p);
  EXPECT_TRUE(q);
  q = OlAutoPtr<OlXmlDoc>();
  EXPECT_EQ(g_live_docs, 0);
}

TEST(OlXmlDoc, PushPopBuildsOneRootedTree) {
  OlXmlDoc doc;
  EXPECT_TRUE(doc.is_empty());
  doc.pop();  // nothing to pop: harmless
  OlXmlElem* r = doc.push("r");
  EXPECT_EQ(doc.get_root(), r);
  EXPECT_EQ(r->get_doc(), &doc);
  OlXmlElem* a = doc.push("a");
  EXPECT_EQ(doc.get_curr(), a);
  EXPECT_EQ(a->get_parent(), r);
  doc.pop();
  EXPECT_EQ(doc.get_curr(), r);
  doc.push("b");
  doc.pop();
  doc.pop();
  EXPECT_EQ(doc.get_curr(), nullptr);
  EXPECT_EQ(doc.get_root(), r);
  // A second root is refused rather than leaked or attached.
  EXPECT_EQ(doc.push("second"), nullptr);
  EXPECT_EQ(text_of(doc.get_root()), "<r><a/><b/></r>");
}

TEST(OlXmlDoc, PushUsesTheVirtualFactory) {
  UpperDoc doc;
  OlXmlElem* e = doc.push("r");
  e->add_attr("k", "value");
  EXPECT_NE(dynamic_cast<UpperElem*>(e), nullptr);
  EXPECT_EQ(e->get_attr("k"), "VALUE");
}
