// OlSaxHandler: turns the SAX events of one parse into an OlXmlDoc.
//
// Events:
//  * startDocument: a new empty document replaces any earlier one (deleting it); state 1.
//  * startElement: push(qualified name), then the attributes in document order.
//  * characters: appended to the current element's value, chunk by chunk, whitespace and text
//    between child elements included.
//  * endElement: pop. endDocument: state 2.
//  * ignorableWhitespace does nothing; a processing instruction is dropped (reported through
//    OlUtil::ol_assert, which does not stop the parse).
//  * warning and error are reported through OlUtil::ol_assert and the parse goes on;
//    fatalError throws a copy of its exception out of the parser.
// Text, names and attribute values that have no native form throw
// OlXmlParser::OlXmlEncodingException (message 0 of the XML catalogue, current position).
// The limits of OlXmlLimits on depth and node count throw a SAXParseException.
//
// After a failed parse `doc` holds what was built so far. One handler per parser; not shared
// between threads.
#pragma once

#include <xercesc/sax2/DefaultHandler.hpp>

#include <cstddef>
#include <string>

#include "xml/ol_auto_ptr.h"
#include "xml/ol_xml_doc.h"
#include "xml/ol_xml_limits.h"

class OlSaxHandler : public xercesc::DefaultHandler {
 public:
  enum State { kBefore = 0, kInside = 1, kAfter = 2 };

  OlSaxHandler() = default;

  OlAutoPtr<OlXmlDoc>* get_doc() { return &doc; }
  int get_state() const { return state; }

  // Limits applied from the next startDocument on.
  void set_limits(const OlXmlLimits& l) { limits = l; }

  void setDocumentLocator(const xercesc::Locator* const loc) override;
  void startDocument() override;
  void endDocument() override;
  void startElement(const XMLCh* const uri, const XMLCh* const localname, const XMLCh* const qname,
                    const xercesc::Attributes& attrs) override;
  void endElement(const XMLCh* const uri, const XMLCh* const localname,
                  const XMLCh* const qname) override;
  void characters(const XMLCh* const chars, const XMLSize_t length) override;
  void ignorableWhitespace(const XMLCh* const chars, const XMLSize_t length) override;
  void processingInstruction(const XMLCh* const target, const XMLCh* const data) override;

  void warning(const xercesc::SAXParseException& exc) override;
  void error(const xercesc::SAXParseException& exc) override;
  void fatalError(const xercesc::SAXParseException& exc) override;

 private:
  // Converts to native text or throws OlXmlEncodingException naming the text.
  void to_native(const XMLCh* chars, std::size_t length, std::string& out) const;
  [[noreturn]] void throw_limit(const std::string& what) const;

  OlAutoPtr<OlXmlDoc> doc;
  int state = kBefore;
  const xercesc::Locator* locator = nullptr;

  OlXmlLimits limits;
  std::size_t depth = 0;
  std::size_t nodes = 0;
  std::string scratch;  // reused conversion buffer
};
