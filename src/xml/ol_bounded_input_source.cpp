#include "xml/ol_bounded_input_source.h"

#include <xercesc/util/BinInputStream.hpp>

namespace {

class BoundedStream : public xercesc::BinInputStream {
 public:
  BoundedStream(xercesc::BinInputStream* inner, std::size_t max_bytes, bool& over_limit)
      : inner(inner), max_bytes(max_bytes), over_limit(over_limit) {}
  ~BoundedStream() override { delete inner; }

  XMLFilePos curPos() const override { return inner->curPos(); }

  XMLSize_t readBytes(XMLByte* const to_fill, const XMLSize_t max_to_read) override {
    if (over_limit) return 0;
    XMLSize_t n = inner->readBytes(to_fill, max_to_read);
    if (n > max_bytes - total) {
      over_limit = true;
      return 0;
    }
    total += n;
    return n;
  }

  const XMLCh* getContentType() const override { return inner->getContentType(); }
  const XMLCh* getEncoding() const override { return inner->getEncoding(); }

 private:
  xercesc::BinInputStream* inner;
  std::size_t max_bytes;
  std::size_t total = 0;
  bool& over_limit;
};

}  // namespace

OlBoundedInputSource::OlBoundedInputSource(const xercesc::InputSource& in, std::size_t max)
    : inner(in), max_bytes(max) {
  setSystemId(in.getSystemId());
  setPublicId(in.getPublicId());
  if (in.getEncoding()) setEncoding(in.getEncoding());
  setIssueFatalErrorIfNotFound(in.getIssueFatalErrorIfNotFound());
}

xercesc::BinInputStream* OlBoundedInputSource::makeStream() const {
  xercesc::BinInputStream* stream = inner.makeStream();
  if (!stream) return nullptr;
  return new BoundedStream(stream, max_bytes, over_limit);
}
