#include "xml/ol_xml_no_dtds.h"

#include <xercesc/sax/SAXParseException.hpp>

namespace {

[[noreturn]] void refuse() {
  static const XMLCh kMessage[] = u"DTDs not supported";
  static const XMLCh kPublicId[] = u"empty-public-id";
  static const XMLCh kSystemId[] = u"empty-system-id";
  throw xercesc::SAXParseException(kMessage, kPublicId, kSystemId, 0, 0);
}

}  // namespace

void OlXmlNoDTDs::notationDecl(const XMLCh* const, const XMLCh* const, const XMLCh* const) {
  refuse();
}

void OlXmlNoDTDs::unparsedEntityDecl(const XMLCh* const, const XMLCh* const, const XMLCh* const,
                                     const XMLCh* const) {
  refuse();
}

void OlXmlNoDTDs::resetDocType() { refuse(); }
