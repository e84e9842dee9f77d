// RClient_Multi_Part_Mixed_Doc: a pull parser of the reply document that every WAN reply body is,
// run over the command's response stream while the transfer is still going on.
//
// Byte format (every line ends in CR LF; a CR without LF is an error):
//   *empty-line  "Content-Type: multipart/mixed; boundary=" B
//   per part:    *empty-line  "--" B  1*("name: value")  empty-line  <exactly Content-Length bytes>
//   end:         *empty-line  "--" B "--"
// Every part has a decimal Content-Length; Content-ID names its kind. The last part of a reply is
// Content-ID "Status" with the items Status (decimal) and HasNonOkMsg; with HasNonOkMsg "1" its body
// is the server's message. Bodies are read by length and never scanned.
//
// Interruptible at any byte: when the data ends inside a line the parser throws
// RClient_Premature_EOF_Exception with the read position back at 0 and nothing of the current part
// consumed, and the caller calls again when more has arrived. What is finished is consumed (cut from
// the front of the stream): empty lines and the declaration at once, a part's header block when its
// body is complete (next_part(1)) or at once (next_part(0), for bodies streamed in pieces), a body when
// the caller takes it, and anything after the end line. A body that the caller leaves untaken is
// skipped by the next next_part.
//
// Bounds: lines are read in pieces of at most MAX_LINE bytes (a longer line reads as several, and then
// fails as a boundary); a part has at most MAX_PART_HEADERS header lines; a part that must be held
// whole (next_part(1)) may be at most max_part_body bytes. Breaking a bound is a framing error.
//
// Framing errors (30007, 30011) are final: failure() reports the first one so that the caller can
// abandon the transfer, and every later next_part throws it again.
//
// Not thread-safe: a document belongs to one command.
#pragma once

#include <cstddef>
#include <map>
#include <ostream>
#include <string>

#include "wan/rclient_response_stream.h"
#include "wan/rclient_status.h"

class RClient_Multi_Part_Mixed_Doc {
 public:
  static constexpr size_t MAX_LINE = 2048;
  static constexpr size_t MAX_PART_HEADERS = 64;
  static constexpr size_t DEFAULT_MAX_PART_BODY = 64u << 20;

  explicit RClient_Multi_Part_Mixed_Doc(RClient_Response_Stream* stream);
  virtual ~RClient_Multi_Part_Mixed_Doc() = default;

  // Moves to the next part: 1 with the part's headers in the item map, 0 when the document has ended.
  // With `wait` 1 a part whose body has not fully arrived is returned with its headers left in the
  // stream, and copy_part_body then returns 0: the caller must return and wait for more data (calling
  // next_part again before that throws RClient_Premature_EOF_Exception).
  int next_part(int wait);
  // The value of an item of the current part (exact, case-sensitive name); empty when absent.
  std::string get_part_item(const std::string& name) const;
  // Reads a Status part into `status`: 0, or 30007 when Status or HasNonOkMsg is missing or malformed.
  // Throws RClient_Premature_EOF_Exception when the message body has not fully arrived.
  int unmarshal_result(RClient_Status& status);
  // When at least `length` bytes are there: hands them to `out` (when not null), flushes it, consumes
  // them and returns `length`. Otherwise (and for length 0) returns 0 and does nothing.
  long copy_part_body(size_t length, std::ostream* out);
  // The same into `buffer`, which has room for `length` bytes.
  long copy_part_body(size_t length, char* buffer);
  // Hands on min(length, what has arrived) bytes, consumes them, returns the count (0 when none).
  long write_content(size_t length, std::ostream* out);

  size_t read_location() const { return m_stream->tell(); }
  size_t response_size() const { return m_stream->size(); }
  size_t bytes_to_read() const { return m_stream->available(); }
  void consume_response(size_t count);

  bool is_finished() const { return m_finished != 0; }
  const std::string& get_boundary() const { return m_boundary; }
  // The first final framing error seen (30007, 30011), or 0.
  int failure() const { return m_failure; }
  // Length of the current part's body, as its Content-Length said.
  size_t part_length() const { return m_part_length; }
  void set_max_part_body(size_t bytes) { m_max_part_body = bytes; }
  size_t get_max_part_body() const { return m_max_part_body; }

 private:
  size_t read_to_EOL();
  int set_boundary(const std::string& line);
  void parse_pairs();
  [[noreturn]] void fail(int code, const char* why);
  void skip_pending_body();

  RClient_Response_Stream* m_stream;  // not owned
  std::string m_end_of_doc;           // "--" B "--"; empty until the declaration was read
  std::string m_boundary;             // "--" B
  char m_line[MAX_LINE];
  std::map<std::string, std::string> m_pairs;
  int m_finished = 0;
  int m_failure = 0;
  size_t m_part_length = 0;
  // Body bytes of the current part still in the stream at position 0 (its headers consumed).
  size_t m_body_left = 0;
  // The current part was returned with its headers left in the stream (body incomplete).
  bool m_part_waiting = false;
  size_t m_max_part_body = DEFAULT_MAX_PART_BODY;
};
