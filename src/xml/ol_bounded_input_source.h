// OlBoundedInputSource: wraps another input source so that no more than a fixed number of
// bytes is ever taken from it.
//
// The wrapped source's identifiers and encoding are copied. When the input goes past the
// limit the stream reports end of input and exceeded() becomes true; the parser then reports
// the limit instead of whatever the truncated text made the scanner say. The wrapped source
// must outlive this one.
#pragma once

#include <xercesc/sax/InputSource.hpp>

#include <cstddef>

class OlBoundedInputSource : public xercesc::InputSource {
 public:
  OlBoundedInputSource(const xercesc::InputSource& inner, std::size_t max_bytes);

  xercesc::BinInputStream* makeStream() const override;

  bool exceeded() const { return over_limit; }

 private:
  const xercesc::InputSource& inner;
  std::size_t max_bytes;
  mutable bool over_limit = false;
};
