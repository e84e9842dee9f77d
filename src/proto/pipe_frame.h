// Frames of the pipe protocol between a client and the agent (the FIFOs of proto/view_storage_names.h).
//
//   request    <length>\n<body>          the client's request FIFO, one frame per request
//   response   <length>\n<body>0\n       the response FIFO; the closing "0\n" is an empty length that
//                                        ends the answer
//
// <length> is the body's size in bytes: 1 to PIPE_FRAME_MAX_DIGITS decimal digits and nothing else (no
// sign, no blank, no CR). The body is an XML document; the frame says nothing of its content.
//
// Pipe_Frame_Decoder takes the bytes of ONE frame as they come, in pieces of any size, and never
// takes a byte past that frame: feed() says how many it took. The length line is checked when its
// "\n" arrives: an empty line, a byte that is not a digit, or a length over the decoder's limit (one
// that does not fit 64 bits included) fails the frame; a line of more than PIPE_FRAME_MAX_DIGITS
// bytes fails as soon as the byte after the last allowed one arrives. Failures are values, never
// exceptions, and the decoder takes nothing more after one. A length over the limit is still told
// (declared_length, saturated at UINT64_MAX), so that a reader may skip the body it refuses.
//
// Pipe_Frame_Reader buffers a byte stream and yields the frames in it one after the other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

enum class Pipe_Frame_Kind { REQUEST, RESPONSE };

constexpr size_t PIPE_FRAME_MAX_DIGITS = 20;
constexpr size_t PIPE_FRAME_MAX_REQUEST = 16u << 20;   // the agent refuses a longer request body
constexpr size_t PIPE_FRAME_MAX_RESPONSE = 64u << 20;  // a client refuses a longer response body

std::string pipe_frame_encode(Pipe_Frame_Kind kind, const std::string& body);

class Pipe_Frame_Decoder {
 public:
  enum class State { LENGTH, BODY, TRAILER, DONE, FAILED };
  enum class Error { NONE, EMPTY_LENGTH, NOT_A_NUMBER, LINE_TOO_LONG, TOO_LARGE, BAD_END };

  Pipe_Frame_Decoder(Pipe_Frame_Kind kind, size_t max_body) : m_kind(kind), m_max(max_body) {}

  // Takes bytes of the frame from data[0, len) and returns how many it took: all of them unless
  // the frame ended (DONE) or failed (FAILED; the offending byte is taken) within them.
  size_t feed(const char* data, size_t len);

  State state() const { return m_state; }
  bool done() const { return m_state == State::DONE; }
  bool failed() const { return m_state == State::FAILED; }
  Error error() const { return m_error; }
  // "<kind> length is not a number", ...: for a trace or a message.
  std::string error_text() const;

  // The length the line declared, once the line is complete (also for TOO_LARGE); 0 before.
  uint64_t declared_length() const { return m_declared; }
  // Body bytes still wanted (in BODY).
  size_t body_missing() const { return m_state == State::BODY ? static_cast<size_t>(m_declared) - m_body.size() : 0; }
  const std::string& body() const { return m_body; }
  std::string take_body() { return std::move(m_body); }

  // Ready for the next frame (kind and limit kept).
  void reset();

 private:
  bool end_of_length();
  size_t fail(Error e, size_t taken) {
    m_state = State::FAILED;
    m_error = e;
    return taken;
  }

  Pipe_Frame_Kind m_kind;
  size_t m_max;
  State m_state = State::LENGTH;
  Error m_error = Error::NONE;
  std::string m_line;  // the length line so far
  uint64_t m_declared = 0;
  std::string m_body;
  size_t m_trailer = 0;  // bytes of "0\n" seen
};

class Pipe_Frame_Reader {
 public:
  enum class Result { kNeedMore, kFrame, kError };
  Pipe_Frame_Reader(Pipe_Frame_Kind kind, size_t max_body) : m_decoder(kind, max_body) {}

  void feed(const char* data, size_t len) { m_buf.append(data, len); }
  // Takes the next whole frame's body out of the stream. kError is final; error() says why.
  Result next(std::string* body);
  std::string error() const { return m_decoder.error_text(); }

 private:
  Pipe_Frame_Decoder m_decoder;
  std::string m_buf;
};
