// libFuzzer target for the XML parser and writer.
//
// Properties checked on every input, beyond "no crash, no leak, no sanitizer report":
//  * a parse either gives a document with a root or reports a failure, and the parser stays
//    usable (one parser serves all inputs);
//  * a parsed tree written through the DOM writer always re-parses, to the same content
//    (characters XML 1.0 cannot carry come back as U+FFFD);
//  * a tree whose text holds no characters that its text form writes raw re-parses from that
//    text form to the same content.
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>
#include <algorithm>

#include "xml/ol_xml_doc.h"
#include "xml/ol_xml_elem.h"
#include "xml/ol_xml_parser.h"

namespace {

// Replaces the characters XML 1.0 cannot carry (C0 controls but tab, newline, return) with
// U+FFFD, as the writer does.
std::string xml10(const std::string& s) {
  std::string out;
  for (unsigned char c : s) {
    if (c < 0x20 && c != '\t' && c != '\n' && c != '\r')
      out += "\xef\xbf\xbd";
    else
      out += static_cast<char>(c);
  }
  return out;
}

bool same(const OlXmlElem* a, const OlXmlElem* b, bool writer) {
  auto norm = [writer](const std::string& s) { return writer ? xml10(s) : s; };
  if (a->get_tag() != b->get_tag() || norm(a->get_value()) != b->get_value()) return false;
  std::vector<std::pair<std::string, std::string>> x, y;
  for (const OlXmlAttr* at : a->get_attrs()) x.emplace_back(at->get_name(), norm(at->get_value()));
  for (const OlXmlAttr* at : b->get_attrs()) y.emplace_back(at->get_name(), at->get_value());
  std::sort(x.begin(), x.end());
  std::sort(y.begin(), y.end());
  if (x != y || a->get_children().size() != b->get_children().size()) return false;
  auto ib = b->get_children().begin();
  for (const OlXmlElem* c : a->get_children())
    if (!same(c, *ib++, writer)) return false;
  return true;
}

int copy_to_dom(const OlXmlElem* e, OlXmlDoc& out, bool is_root) {
  int rc = is_root ? out.create_root_elem(e->get_tag()) : out.push_elem(e->get_tag());
  if (rc) return rc;
  for (const OlXmlAttr* a : e->get_attrs())
    if ((rc = out.add_attr(a->get_name(), a->get_value()))) return rc;
  if (!e->get_value().empty() && (rc = out.set_body(e->get_value()))) return rc;
  for (const OlXmlElem* c : e->get_children())
    if ((rc = copy_to_dom(c, out, false))) return rc;
  return is_root ? 0 : out.pop_elem();
}

// True when the text form of the tree re-parses to the same content: no attribute value
// holds markup or whitespace that the parser would normalise, and no text holds a character
// that is written raw and read back differently.
bool plain(const OlXmlElem* e) {
  for (const OlXmlAttr* a : e->get_attrs())
    for (unsigned char c : a->get_value())
      if (c == '"' || c == '<' || c == '&' || c < 0x20) return false;
  for (unsigned char c : e->get_value())
    if (c < 0x20 && c != '\t' && c != '\n') return false;
  for (const OlXmlElem* c : e->get_children())
    if (!plain(c)) return false;
  return true;
}

[[noreturn]] void fail(const char* what, const std::string& detail) {
  std::fprintf(stderr, "xml_fuzz: %s\n%s\n", what, detail.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::setlocale(LC_ALL, "C.UTF-8");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static OlXmlParser* parser = new OlXmlParser();
  const std::string input(reinterpret_cast<const char*>(data), size);
  OlXmlParser::Result result;
  std::unique_ptr<OlXmlDoc> doc(parser->parse(input, result));
  if (!doc) {
    if (result.kind == OlXmlParser::Result::kOk) fail("no document and no failure", input);
    return 0;
  }
  const OlXmlElem* root = doc->get_root();
  if (!root) fail("document without root", input);

  std::ostringstream os;
  os << root;
  const std::string text = os.str();

  OlXmlDoc written;
  if (copy_to_dom(root, written, true) == OL_XML_OK) {
    std::string out;
    if (written.get_string(out) != OL_XML_OK) fail("writer failed", input);
    OlXmlParser::Result r2;
    std::unique_ptr<OlXmlDoc> back(parser->parse(out, r2));
    if (!back) fail(("writer output does not parse: " + r2.message).c_str(), out);
    if (!same(root, back->get_root(), true)) fail("writer round trip differs", out);
  }

  if (plain(root)) {
    OlXmlParser::Result r3;
    std::unique_ptr<OlXmlDoc> back(parser->parse(text, r3));
    if (!back) fail(("text form does not parse: " + r3.message).c_str(), text);
    if (!same(root, back->get_root(), false)) fail("text form round trip differs", text);
  }
  return 0;
}
