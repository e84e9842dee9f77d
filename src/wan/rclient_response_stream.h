// RClient_Response_Stream: the bytes of a reply that have arrived and are not consumed yet, with a
// read position. The reply parser reads from the position, and cuts ("consumes") what it has finished
// from the front, so the stream holds only the unfinished tail of a reply of any length.
//
// Positions are relative to the first byte still held. Consuming is amortised O(1): the consumed
// prefix is dropped from memory once it is at least half of what is allocated.
//
// Not thread-safe: a stream belongs to one command, which belongs to one thread.
#pragma once

#include <cstddef>
#include <string>

class RClient_Response_Stream {
 public:
  void append(const char* data, size_t n);
  // Bytes held (not consumed).
  size_t size() const { return m_buf.size() - m_start; }
  bool empty() const { return size() == 0; }
  size_t tell() const { return m_pos - m_start; }
  // Moves the read position; past the end it stops at the end.
  void seek(size_t pos);
  size_t available() const { return m_buf.size() - m_pos; }
  // The next byte (0-255) or -1 at the end.
  int get() { return m_pos < m_buf.size() ? static_cast<unsigned char>(m_buf[m_pos++]) : -1; }
  // The bytes from the read position on; `available()` of them are valid.
  const char* current() const { return m_buf.data() + m_pos; }
  void skip(size_t n);
  // Drops the first `count` held bytes and sets the read position to 0. A count of 0 or one larger
  // than what is held only sets the read position to 0.
  void consume(size_t count);
  void clear();
  // The largest number of bytes held at once since construction or clear().
  size_t peak() const { return m_peak; }

 private:
  std::string m_buf;
  size_t m_start = 0;  // index of the first held byte in m_buf
  size_t m_pos = 0;    // index of the read position in m_buf
  size_t m_peak = 0;
};
