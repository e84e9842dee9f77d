#include "xml/ol_xml_parser.h"

#include <xercesc/framework/LocalFileInputSource.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/framework/StdInInputSource.hpp>
#include <xercesc/sax/SAXException.hpp>
#include <xercesc/sax2/SAX2XMLReader.hpp>
#include <xercesc/sax2/XMLReaderFactory.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/XMLException.hpp>
#include <xercesc/util/XMLString.hpp>
#include <xercesc/util/XMLUni.hpp>

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "xml/ol_bounded_input_source.h"
#include "xml/ol_sax_handler.h"
#include "xml/ol_util.h"
#include "xml/ol_xml_util.h"

using namespace xercesc;

OlXmlNoExternalEntities OlXmlParser::no_ext;
OlXmlNoDTDs OlXmlParser::no_dtds;

namespace {

const char* const kScope = "XML:OlXmlParser:parse_impl";

std::string native_message(const XMLCh* msg) {
  return OlXmlUtil::xerces_to_native_lossy(msg, msg ? XMLString::stringLen(msg) : 0);
}

[[noreturn]] void throw_parse_error(const std::string& text, const InputSource& source) {
  std::u16string wide = OlXmlUtil::native_to_xerces_lossy(text);
  throw SAXParseException(wide.c_str(), source.getPublicId(), source.getSystemId(), 0, 0);
}

}  // namespace

OlXmlParser::OlXmlParser() {
  OlXmlUtil::platform_init();
  handler = new OlSaxHandler();
  handler->set_limits(limits);
  try {
    make_reader();
  } catch (...) {
    delete handler;
    throw;
  }
}

OlXmlParser::~OlXmlParser() {
  delete reader;
  delete handler;
}

void OlXmlParser::make_reader() {
  delete reader;
  reader = nullptr;
  reader = XMLReaderFactory::createXMLReader();
  reader->setFeature(XMLUni::fgSAX2CoreValidation, false);
  reader->setFeature(XMLUni::fgSAX2CoreNameSpaces, false);
  reader->setFeature(XMLUni::fgXercesSchema, false);
  reader->setFeature(XMLUni::fgXercesSchemaFullChecking, false);
  reader->setFeature(XMLUni::fgSAX2CoreNameSpacePrefixes, false);
  // Second line of defence behind the DTD refusal and the resolver: never load an external
  // DTD or schema, and never let the library resolve an entity by itself.
  reader->setFeature(XMLUni::fgXercesLoadExternalDTD, false);
  reader->setFeature(XMLUni::fgXercesLoadSchema, false);
  reader->setFeature(XMLUni::fgXercesDisableDefaultEntityResolution, true);
  reader->setEntityResolver(&no_ext);
  reader->setDTDHandler(&no_dtds);
  reader->setContentHandler(handler);
  reader->setErrorHandler(handler);
}

void OlXmlParser::set_limits(const OlXmlLimits& l) {
  limits = l;
  handler->set_limits(l);
}

OlAutoPtr<OlXmlDoc>* OlXmlParser::parse_string(const std::string& text) {
  MemBufInputSource source(reinterpret_cast<const XMLByte*>(text.data()), text.size(), "fakeId");
  return parse_impl(source);
}

OlAutoPtr<OlXmlDoc>* OlXmlParser::parse_file(const std::string& path) {
  // Only regular files: a directory, FIFO or device is refused before the library sees it
  // (a FIFO would block, a device never end, and the library leaks on a directory).
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    int err = errno;
    std::u16string msg = OlXmlUtil::native_to_xerces_lossy(
        "XML parse error: cannot open \"" + path + "\": " + std::strerror(err));
    throw SAXParseException(msg.c_str(), nullptr, nullptr, 0, 0);
  }
  if (!S_ISREG(st.st_mode)) {
    std::u16string msg =
        OlXmlUtil::native_to_xerces_lossy("XML parse error: not a regular file: \"" + path + "\"");
    throw SAXParseException(msg.c_str(), nullptr, nullptr, 0, 0);
  }
  std::u16string wide;
  if (!OlXmlUtil::try_native_to_xerces(path, wide)) {
    std::u16string msg = OlXmlUtil::native_to_xerces_lossy(
        "XML parse error: path is not valid in the native character set: \"" + path + "\"");
    throw SAXParseException(msg.c_str(), nullptr, nullptr, 0, 0);
  }
  std::unique_ptr<LocalFileInputSource> source;
  try {
    source = std::make_unique<LocalFileInputSource>(wide.c_str());
  } catch (const XMLException& e) {  // e.g. a path the library cannot make absolute
    std::u16string msg =
        OlXmlUtil::native_to_xerces_lossy("XML parse error: " + native_message(e.getMessage()));
    throw SAXParseException(msg.c_str(), nullptr, nullptr, 0, 0);
  }
  return parse_impl(*source);
}

OlAutoPtr<OlXmlDoc>* OlXmlParser::parse_stdin() {
  StdInInputSource source;
  return parse_impl(source);
}

OlAutoPtr<OlXmlDoc>* OlXmlParser::parse_impl(const InputSource& source) {
  const std::string id = native_message(source.getSystemId());
  OlUtil::trace(3, kScope, "Parsing %s", id.c_str());
  OlBoundedInputSource bounded(source, limits.max_input_bytes);
  const std::string too_large =
      "XML parse error: input larger than " + std::to_string(limits.max_input_bytes) + " bytes";
  try {
    reader->parse(bounded);
  } catch (const OlXmlEncodingException& e) {
    OlUtil::trace(2, kScope, "Encoding error in %s at line %d col %d", id.c_str(),
                  static_cast<int>(e.getLineNumber()), static_cast<int>(e.getColumnNumber()));
    throw;
  } catch (const SAXParseException& e) {
    if (bounded.exceeded()) throw_parse_error(too_large, source);
    OlUtil::trace(2, kScope, "XML parse error in %s: %s input line: %d col: %d", id.c_str(),
                  native_message(e.getMessage()).c_str(), static_cast<int>(e.getLineNumber()),
                  static_cast<int>(e.getColumnNumber()));
    throw;
  } catch (const SAXException& e) {
    throw_parse_error("XML parse error: " + native_message(e.getMessage()), source);
  } catch (const XMLException& e) {
    if (bounded.exceeded()) throw_parse_error(too_large, source);
    throw_parse_error("XML parse error: " + native_message(e.getMessage()), source);
  } catch (const OutOfMemoryException&) {
    // The library's reader is not reusable after running out of memory.
    make_reader();
    throw_parse_error("XML parse error: out of memory", source);
  }
  if (bounded.exceeded()) throw_parse_error(too_large, source);
  OlUtil::ol_assert(reader->getErrorCount() == 0, __FILE__, __LINE__,
                    "XML parser: non-zero error count");
  OlUtil::ol_assert(handler->get_state() == OlSaxHandler::kAfter, __FILE__, __LINE__,
                    "Unexpected XML parser state");
  OlUtil::trace(3, kScope, "Parsed %s", id.c_str());
  return handler->get_doc();
}

OlXmlDoc* OlXmlParser::parse(const std::string& text, Result& result) {
  result = Result();
  try {
    return parse_string(text)->release();
  } catch (const OlXmlEncodingException& e) {
    result.kind = Result::kEncoding;
    result.message = native_message(e.getMessage());
    result.line = e.getLineNumber();
    result.column = e.getColumnNumber();
  } catch (const SAXParseException& e) {
    result.kind = Result::kSyntax;
    result.message = native_message(e.getMessage());
    result.line = e.getLineNumber();
    result.column = e.getColumnNumber();
  } catch (const XMLException& e) {
    result.kind = Result::kSyntax;
    result.message = native_message(e.getMessage());
  } catch (const std::bad_alloc&) {
    result.kind = Result::kSyntax;
    result.message = "XML parse error: out of memory";
  }
  handler->get_doc()->reset();
  return nullptr;
}
