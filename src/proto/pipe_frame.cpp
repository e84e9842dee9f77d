#include "proto/pipe_frame.h"

#include <algorithm>

std::string pipe_frame_encode(Pipe_Frame_Kind kind, const std::string& body) {
  std::string frame = std::to_string(body.size()) + "\n" + body;
  if (kind == Pipe_Frame_Kind::RESPONSE) frame += "0\n";
  return frame;
}

void Pipe_Frame_Decoder::reset() {
  m_state = State::LENGTH;
  m_error = Error::NONE;
  m_line.clear();
  m_declared = 0;
  m_body.clear();
  m_trailer = 0;
}

bool Pipe_Frame_Decoder::end_of_length() {
  if (m_line.empty()) {
    fail(Error::EMPTY_LENGTH, 0);
    return false;
  }
  uint64_t value = 0;
  bool over = false;
  for (char c : m_line) {
    if (c < '0' || c > '9') {
      fail(Error::NOT_A_NUMBER, 0);
      return false;
    }
    const unsigned digit = static_cast<unsigned>(c - '0');
    if (over) continue;
    if (value > (UINT64_MAX - digit) / 10) {
      over = true;
      value = UINT64_MAX;
    } else {
      value = value * 10 + digit;
    }
  }
  m_declared = value;
  if (over || value > m_max) {
    fail(Error::TOO_LARGE, 0);
    return false;
  }
  m_body.reserve(static_cast<size_t>(value));
  if (value > 0)
    m_state = State::BODY;
  else
    m_state = m_kind == Pipe_Frame_Kind::RESPONSE ? State::TRAILER : State::DONE;
  return true;
}

size_t Pipe_Frame_Decoder::feed(const char* data, size_t len) {
  size_t i = 0;
  while (i < len) {
    switch (m_state) {
      case State::LENGTH: {
        const char c = data[i++];
        if (c == '\n') {
          if (!end_of_length()) return i;
        } else if (m_line.size() == PIPE_FRAME_MAX_DIGITS) {
          return fail(Error::LINE_TOO_LONG, i);
        } else {
          m_line.push_back(c);
        }
        break;
      }
      case State::BODY: {
        const size_t take = std::min(len - i, body_missing());
        m_body.append(data + i, take);
        i += take;
        if (body_missing() == 0) m_state = m_kind == Pipe_Frame_Kind::RESPONSE ? State::TRAILER : State::DONE;
        break;
      }
      case State::TRAILER:
        if (data[i++] != "0\n"[m_trailer]) return fail(Error::BAD_END, i);
        if (++m_trailer == 2) m_state = State::DONE;
        break;
      case State::DONE:
      case State::FAILED:
        return i;
    }
  }
  return i;
}

std::string Pipe_Frame_Decoder::error_text() const {
  const std::string what = m_kind == Pipe_Frame_Kind::REQUEST ? "request" : "response";
  switch (m_error) {
    case Error::NONE:
      return "";
    case Error::EMPTY_LENGTH:
      return what + " length missing";
    case Error::NOT_A_NUMBER:
      return what + " length is not a number";
    case Error::LINE_TOO_LONG:
      return what + " length line too long";
    case Error::TOO_LARGE:
      return what + " larger than " + std::to_string(m_max) + " bytes";
    case Error::BAD_END:
      return what + " frame does not end in a zero length";
  }
  return "";
}

Pipe_Frame_Reader::Result Pipe_Frame_Reader::next(std::string* body) {
  m_buf.erase(0, m_decoder.feed(m_buf.data(), m_buf.size()));
  if (m_decoder.failed()) return Result::kError;
  if (!m_decoder.done()) return Result::kNeedMore;
  *body = m_decoder.take_body();
  m_decoder.reset();
  return Result::kFrame;
}
