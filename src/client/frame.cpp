#include "client/frame.h"

namespace tavrel::client {

std::string encode_request_frame(const std::string& document) {
  return std::to_string(document.size()) + "\n" + document;
}

std::string encode_response_frame(const std::string& document) {
  return std::to_string(document.size()) + "\n" + document + "0\n";
}

FrameReader::Result FrameReader::next(std::string* document) {
  size_t nl = m_buf.find('\n');
  if (nl == std::string::npos) {
    if (m_buf.size() > 20) {
      m_error = "response length line too long";
      return Result::kError;
    }
    return Result::kNeedMore;
  }
  if (nl == 0 || nl > 20) {
    m_error = "response length missing or too long";
    return Result::kError;
  }
  size_t len = 0;
  for (size_t i = 0; i < nl; i++) {
    char c = m_buf[i];
    if (c < '0' || c > '9') {
      m_error = "response length is not a number";
      return Result::kError;
    }
    len = len * 10 + static_cast<size_t>(c - '0');
    if (len > m_max) {
      m_error = "response larger than " + std::to_string(m_max) + " bytes";
      return Result::kError;
    }
  }
  size_t need = nl + 1 + len + 2;
  if (m_buf.size() < need) return Result::kNeedMore;
  if (m_buf[nl + 1 + len] != '0' || m_buf[nl + 2 + len] != '\n') {
    m_error = "response frame does not end in a zero length";
    return Result::kError;
  }
  document->assign(m_buf, nl + 1, len);
  m_buf.erase(0, need);
  return Result::kFrame;
}

}  // namespace tavrel::client
