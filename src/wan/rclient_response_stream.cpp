#include "wan/rclient_response_stream.h"

#include <algorithm>

void RClient_Response_Stream::append(const char* data, size_t n) {
  if (m_start > 0 && m_start == m_buf.size()) {  // everything consumed: start over
    m_buf.clear();
    m_pos -= m_start;
    m_start = 0;
  }
  m_buf.append(data, n);
  m_peak = std::max(m_peak, size());
}

void RClient_Response_Stream::seek(size_t pos) { m_pos = m_start + std::min(pos, size()); }

void RClient_Response_Stream::skip(size_t n) { m_pos += std::min(n, available()); }

void RClient_Response_Stream::consume(size_t count) {
  if (count > 0 && count <= size()) {
    m_start += count;
    if (m_start == m_buf.size()) {
      m_buf.clear();
      m_start = 0;
    } else if (m_start >= 4096 && m_start * 2 >= m_buf.size()) {
      m_buf.erase(0, m_start);
      m_start = 0;
    }
  }
  m_pos = m_start;
}

void RClient_Response_Stream::clear() {
  m_buf.clear();
  m_buf.shrink_to_fit();
  m_start = m_pos = 0;
  m_peak = 0;
}
