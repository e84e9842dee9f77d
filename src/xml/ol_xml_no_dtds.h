// OlXmlNoDTDs: the DTD handler every parser uses. It refuses document type declarations.
//
// The library announces a document type declaration (internal subset or external) through
// resetDocType() before it reads any of it; that and the notation and unparsed-entity
// callbacks throw a SAXParseException "DTDs not supported" (public id "empty-public-id",
// system id "empty-system-id", line 0, column 0), which ends the parse. So no entity can be
// declared, expanded or fetched. Stateless: one object serves all parsers and threads.
#pragma once

#include <xercesc/sax/DTDHandler.hpp>

class OlXmlNoDTDs : public xercesc::DTDHandler {
 public:
  void notationDecl(const XMLCh* const name, const XMLCh* const publicId,
                    const XMLCh* const systemId) override;
  void unparsedEntityDecl(const XMLCh* const name, const XMLCh* const publicId,
                          const XMLCh* const systemId, const XMLCh* const notationName) override;
  void resetDocType() override;
};
