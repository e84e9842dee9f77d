// Parsing: the tree of a request, who owns the document, files and standard input, traces.
// The outcome of each kind of input (text forms and exact errors) is the table of ol_xml_hostile_test.
#include "xml/ol_xml_parser.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <xercesc/util/XMLString.hpp>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "xml/ol_util.h"
#include "xml/ol_xml_elem.h"
#include "xml/ol_xml_test_util.h"
#include "xml/ol_xml_util.h"

using ol_test::text_of;
using xercesc::SAXParseException;

namespace {

std::string message_of(const SAXParseException& e) {
  return OlXmlUtil::xerces_to_native_lossy(e.getMessage(), xercesc::XMLString::stringLen(e.getMessage()));
}

// The message of the exception parse_file throws, or "" when it parses.
std::string file_error(OlXmlParser& p, const std::string& path) {
  try {
    std::unique_ptr<OlXmlDoc>(p.parse_file(path)->release());
  } catch (const SAXParseException& e) {
    return message_of(e);
  }
  return "";
}

}  // namespace

TEST(OlXmlParser, BuildsTheTreeOfARequest) {
  OlXmlParser p;
  std::unique_ptr<OlXmlDoc> doc(p.parse_string("<?xml version=\"1.0\" encoding=\"UTF-8\"?><MountSilo version=\"1\" "
                                               "tx-id=\"4711-3\"><silo-tag mount-state=\"true\">repo1</silo-tag>"
                                               "<path>/a b</path></MountSilo>")->release());
  OlXmlElem* root = doc->get_root();
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->get_doc(), doc.get());
  EXPECT_EQ(doc->get_curr(), nullptr);  // closed again
  EXPECT_EQ(root->get_tag(), "MountSilo");
  EXPECT_EQ(root->get_attrs().front()->get_name(), "version");  // document order
  EXPECT_EQ(root->get_attr("tx-id"), "4711-3");
  OlXmlElem* tag = root->extract_child("silo-tag");
  ASSERT_NE(tag, nullptr);
  EXPECT_EQ(tag->get_parent(), root);
  EXPECT_EQ(tag->get_value(), "repo1");
  EXPECT_EQ(tag->get_attr("mount-state"), "true");
  EXPECT_EQ(OlXmlUtil::get_value(root, "path"), "/a b");
}

TEST(OlXmlParser, TheOwnerKeepsTheLastDocumentUntilItIsTaken) {
  OlXmlParser p;
  OlAutoPtr<OlXmlDoc>* owner = p.parse_string("<first/>");
  EXPECT_EQ(p.parse_string("<second/>"), owner);  // same owner, first document deleted
  EXPECT_EQ(text_of((*owner)->get_root()), "<second/>");
  // A failed parse leaves what was built in the owner.
  EXPECT_THROW(p.parse_string("<a><b>t</b><c>"), SAXParseException);
  ASSERT_TRUE(*owner);
  EXPECT_EQ(text_of((*owner)->get_root()), "<a><b>t</b><c/></a>");
  // A taken document outlives the parser.
  std::unique_ptr<OlXmlDoc> kept;
  {
    OlXmlParser q;
    kept.reset(q.parse_string("<kept a=\"1\"/>")->release());
  }
  EXPECT_EQ(text_of(kept->get_root()), "<kept a=\"1\"/>");
}

TEST(OlXmlParser, ParsesFilesAndStandardInput) {
  char tmpl[] = "/tmp/ol_xml_test_XXXXXX";
  const std::string dir = mkdtemp(tmpl);
  const std::string path = dir + "/req.xml", odd = dir + "/caf\xc3\xa9.xml";
  std::ofstream(path) << "<StartView><server online=\"false\"/></StartView>";
  std::ofstream(odd) << "<r/>";
  OlXmlParser p;
  std::unique_ptr<OlXmlDoc> doc(p.parse_file(path)->release());
  EXPECT_EQ(text_of(doc->get_root()), "<StartView><server online=\"false\"/></StartView>");
  EXPECT_EQ(file_error(p, dir + "/missing.xml"),
            "XML parse error: cannot open \"" + dir + "/missing.xml\": No such file or directory");
  EXPECT_EQ(file_error(p, dir), "XML parse error: not a regular file: \"" + dir + "\"");
  {
    // A name the native set cannot carry; the message is native text too, '?' for each byte.
    ol_test::ScopedCtype ascii("C");
    EXPECT_EQ(file_error(p, odd),
              "XML parse error: path is not valid in the native character set: \"" + dir + "/caf??.xml\"");
    ol_test::ScopedCtype utf8("C.UTF-8");
    EXPECT_EQ(file_error(p, odd), "");
  }
  // Standard input.
  int saved = dup(0), fd = open(path.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(dup2(fd, 0), 0);
  close(fd);
  std::string error;
  doc.reset();
  try {
    doc.reset(p.parse_stdin()->release());
  } catch (const SAXParseException& e) {
    error = message_of(e);
  }
  dup2(saved, 0);
  close(saved);
  ASSERT_TRUE(doc) << error;
  EXPECT_EQ(text_of(doc->get_root()), "<StartView><server online=\"false\"/></StartView>");
  OlXmlLimits l;
  l.max_input_bytes = 10;
  p.set_limits(l);
  EXPECT_EQ(file_error(p, path), "XML parse error: input larger than 10 bytes");
  std::system(("rm -rf '" + dir + "'").c_str());
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
    p.parse_string("<StartView><server><password>s3cret</password></server><?pi x?></StartView>");
    EXPECT_THROW(p.parse_string("<Connect><password>hunter2</password"), SAXParseException);
  }
  OlUtil::set_trace_sink(nullptr);
  int parsing = 0, pi = 0, failure = 0;
  for (const std::string& line : g_trace) {
    EXPECT_EQ(line.find("s3cret"), std::string::npos) << line;
    EXPECT_EQ(line.find("hunter2"), std::string::npos) << line;
    parsing += line == "3 XML:OlXmlParser:parse_impl Parsing fakeId";
    pi += line.rfind("2 XML:OlUtil:ol_assert XML parse error: unexpected processing instruction (", 0) == 0;
    failure += line.rfind("2 XML:OlXmlParser:parse_impl XML parse error in fakeId: ", 0) == 0;
  }
  EXPECT_EQ(parsing, 2);
  EXPECT_EQ(pi, 1);
  EXPECT_EQ(failure, 1);
}
