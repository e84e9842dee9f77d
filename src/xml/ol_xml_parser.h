// OlXmlParser: parses XML text into an OlXmlDoc tree.
//
// Safety: the parser never reads anything but its input. Every document type declaration is
// refused ("DTDs not supported", see OlXmlNoDTDs), every external entity or DTD resolves to
// nothing (OlXmlNoExternalEntities), validation, namespaces and schemas are off, and the
// bounds of OlXmlLimits hold for size, depth and node count. Processing instructions are
// dropped; recoverable errors and warnings do not stop the parse.
//
// Results: each parse_* returns the address of the handler's owner of the parsed document.
// The caller takes the document with release() or leaves it to die with the parser (or with
// the next parse). Failures are exceptions, and only these:
//  * OlXmlEncodingException: text, a name or an attribute value has no native form;
//  * xercesc::SAXParseException: anything else (text not well formed, a DTD, a bound passed,
//    an unreadable file, a library failure), with the library's or our message.
// parse() is the non-throwing entry that reports the same outcomes as a value.
// After a failure the parser is usable again; the handler's document holds what was built.
//
// Threads: a parser is made for one request and used by one thread. Parsers on different
// threads are independent; the library is initialised once per process and never terminated.
#pragma once

#include <xercesc/sax/SAXParseException.hpp>

#include <cstdint>
#include <string>

#include "xml/ol_auto_ptr.h"
#include "xml/ol_xml_doc.h"
#include "xml/ol_xml_limits.h"
#include "xml/ol_xml_no_dtds.h"
#include "xml/ol_xml_no_external_entities.h"

XERCES_CPP_NAMESPACE_BEGIN
class SAX2XMLReader;
class InputSource;
XERCES_CPP_NAMESPACE_END

class OlSaxHandler;

class OlXmlParser {
 public:
  // Text that cannot be carried in the native character set, as opposed to bad XML.
  class OlXmlEncodingException : public xercesc::SAXParseException {
   public:
    using xercesc::SAXParseException::SAXParseException;
  };

  // Outcome of the non-throwing parse().
  struct Result {
    enum Kind { kOk = 0, kSyntax = 1, kEncoding = 2 };
    Kind kind = kOk;
    std::string message;  // native text of the exception's message (lossy)
    std::uint64_t line = 0;
    std::uint64_t column = 0;
  };

  OlXmlParser();
  ~OlXmlParser();

  OlXmlParser(const OlXmlParser&) = delete;
  OlXmlParser& operator=(const OlXmlParser&) = delete;

  // Parses the bytes of `text` (system identifier "fakeId"). The entry of command handling.
  OlAutoPtr<OlXmlDoc>* parse_string(const std::string& text);
  // Parses a local regular file; `path` is native text. A missing file, a path that is not a
  // regular file (directory, FIFO, device) or a path without a UTF-16 form is refused with a
  // SAXParseException before anything is read.
  OlAutoPtr<OlXmlDoc>* parse_file(const std::string& path);
  // Parses standard input (system identifier "stdin") up to its end.
  OlAutoPtr<OlXmlDoc>* parse_stdin();

  // parse_string without exceptions: returns the document (the caller owns it) or null, and
  // fills `result`. Never throws a library exception.
  OlXmlDoc* parse(const std::string& text, Result& result);

  void set_limits(const OlXmlLimits& limits);
  const OlXmlLimits& get_limits() const { return limits; }

  // Shared, stateless refusal objects installed in every parser.
  static OlXmlNoExternalEntities no_ext;
  static OlXmlNoDTDs no_dtds;

 private:
  OlAutoPtr<OlXmlDoc>* parse_impl(const xercesc::InputSource& source);
  void make_reader();

  xercesc::SAX2XMLReader* reader = nullptr;
  OlSaxHandler* handler = nullptr;
  OlXmlLimits limits;
};
