// Frames of the agent's pipe protocol, as a client writes and reads them.
//
// Request frame:  <decimal length>\n<length bytes>
// Response frame: <decimal length>\n<length bytes>0\n
//
// FrameReader takes bytes as they arrive and yields whole response documents; it refuses a length
// that is not all digits, longer than 20 digits, or above its limit, and a frame whose closing
// "0\n" is missing.
#pragma once

#include <cstddef>
#include <string>

namespace tavrel::client {

std::string encode_request_frame(const std::string& document);
std::string encode_response_frame(const std::string& document);

class FrameReader {
 public:
  enum class Result { kNeedMore, kFrame, kError };
  explicit FrameReader(size_t max_document = 64u << 20) : m_max(max_document) {}

  void feed(const char* data, size_t len) { m_buf.append(data, len); }
  // Takes the next whole frame out of the buffer. kError leaves a message in error().
  Result next(std::string* document);
  const std::string& error() const { return m_error; }
  size_t buffered() const { return m_buf.size(); }

 private:
  std::string m_buf;
  size_t m_max;
  std::string m_error;
};

}  // namespace tavrel::client
