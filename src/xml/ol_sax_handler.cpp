#include "xml/ol_sax_handler.h"

#include <xercesc/sax/Locator.hpp>
#include <xercesc/sax/SAXParseException.hpp>
#include <xercesc/sax2/Attributes.hpp>
#include <xercesc/util/XMLString.hpp>

#include <cstdio>

#include "xml/ol_util.h"
#include "xml/ol_xml_elem.h"
#include "xml/ol_xml_parser.h"
#include "xml/ol_xml_util.h"

using namespace xercesc;

namespace {

// "XML parse <kind>: <message>input line: L col: C\n"
std::string describe(const char* kind, const SAXParseException& exc) {
  const XMLCh* msg = exc.getMessage();
  std::string text = "XML parse ";
  text += kind;
  text += ": ";
  text += OlXmlUtil::xerces_to_native_lossy(msg, msg ? XMLString::stringLen(msg) : 0);
  char pos[96];
  std::snprintf(pos, sizeof pos, "input line: %d col: %d\n",
                static_cast<int>(exc.getLineNumber()), static_cast<int>(exc.getColumnNumber()));
  text += pos;
  return text;
}

}  // namespace

void OlSaxHandler::setDocumentLocator(const Locator* const loc) { locator = loc; }

void OlSaxHandler::startDocument() {
  OlUtil::ol_assert(state != kInside, __FILE__, __LINE__, "Unexpected XML parser state");
  state = kInside;
  depth = 0;
  nodes = 0;
  doc.reset(new OlXmlDoc());
}

void OlSaxHandler::endDocument() {
  OlUtil::ol_assert(state == kInside, __FILE__, __LINE__, "Unexpected XML parser state");
  state = kAfter;
}

void OlSaxHandler::startElement(const XMLCh* const, const XMLCh* const, const XMLCh* const qname,
                                const Attributes& attrs) {
  OlUtil::ol_assert(state == kInside && doc, __FILE__, __LINE__, "Unexpected XML parser state");
  const XMLSize_t count = attrs.getLength();
  if (++depth > limits.max_depth)
    throw_limit("element nesting deeper than " + std::to_string(limits.max_depth) + " levels");
  nodes += 1 + count;
  if (nodes > limits.max_nodes)
    throw_limit("more than " + std::to_string(limits.max_nodes) + " elements and attributes");

  std::string name;
  to_native(qname, XMLString::stringLen(qname), name);
  OlXmlElem* elem = doc->push(name);
  OlUtil::ol_assert(elem != nullptr, __FILE__, __LINE__, "Unexpected XML parser state");
  if (!elem) return;
  std::string attr_name;
  std::string attr_value;
  for (XMLSize_t i = 0; i < count; ++i) {
    const XMLCh* n = attrs.getQName(i);
    const XMLCh* v = attrs.getValue(i);
    to_native(n, n ? XMLString::stringLen(n) : 0, attr_name);
    to_native(v, v ? XMLString::stringLen(v) : 0, attr_value);
    elem->add_attr(attr_name, attr_value);
  }
}

void OlSaxHandler::endElement(const XMLCh* const, const XMLCh* const, const XMLCh* const) {
  OlUtil::ol_assert(state == kInside && doc, __FILE__, __LINE__, "Unexpected XML parser state");
  if (depth > 0) --depth;
  if (doc) doc->pop();
}

void OlSaxHandler::characters(const XMLCh* const chars, const XMLSize_t length) {
  OlUtil::ol_assert(state == kInside && doc, __FILE__, __LINE__, "Unexpected XML parser state");
  to_native(chars, length, scratch);
  OlXmlElem* curr = doc ? doc->get_curr() : nullptr;
  if (curr) curr->add_value(scratch);
}

void OlSaxHandler::ignorableWhitespace(const XMLCh* const, const XMLSize_t) {}

void OlSaxHandler::processingInstruction(const XMLCh* const, const XMLCh* const) {
  OlUtil::ol_assert(false, __FILE__, __LINE__, "XML parse error: unexpected processing instruction");
}

void OlSaxHandler::warning(const SAXParseException& exc) {
  OlUtil::ol_assert(false, __FILE__, __LINE__, describe("warning", exc));
}

void OlSaxHandler::error(const SAXParseException& exc) {
  OlUtil::ol_assert(false, __FILE__, __LINE__, describe("error", exc));
}

void OlSaxHandler::fatalError(const SAXParseException& exc) { throw exc; }

void OlSaxHandler::to_native(const XMLCh* chars, std::size_t length, std::string& out) const {
  if (OlXmlUtil::try_xerces_to_native(chars, length, out)) return;
  OlUtil::ol_assert(false, __FILE__, __LINE__, "XML transcoding error");
  std::string shown = OlXmlUtil::xerces_to_native_lossy(chars, length);
  std::string message =
      OlUtil::format(&_ol_xml_msg_table, OlUtil::kMsgUnsupportedChars, shown.c_str());
  std::u16string wide = OlXmlUtil::native_to_xerces_lossy(message);
  if (locator) throw OlXmlParser::OlXmlEncodingException(wide.c_str(), *locator);
  throw OlXmlParser::OlXmlEncodingException(wide.c_str(), nullptr, nullptr, 0, 0);
}

void OlSaxHandler::throw_limit(const std::string& what) const {
  std::u16string wide = OlXmlUtil::native_to_xerces_lossy("XML parse error: " + what);
  if (locator) throw SAXParseException(wide.c_str(), *locator);
  throw SAXParseException(wide.c_str(), nullptr, nullptr, 0, 0);
}
