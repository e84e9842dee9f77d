// OlXmlNoExternalEntities: the entity resolver every parser uses.
//
// Whatever it is asked for, it answers with an empty in-memory source (identifier "fakeId"):
// an external entity or DTD resolves to nothing, and no file or URL is ever opened. It does
// not look at its arguments. Stateless: one object serves all parsers and threads.
#pragma once

#include <xercesc/sax/EntityResolver.hpp>

class OlXmlNoExternalEntities : public xercesc::EntityResolver {
 public:
  xercesc::InputSource* resolveEntity(const XMLCh* const publicId,
                                      const XMLCh* const systemId) override;
};
