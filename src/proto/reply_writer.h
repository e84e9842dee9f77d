// Writer of the multipart reply document that every WAN reply body is.
//
// Byte format (every line ends in CR LF):
//   "Content-Type: multipart/mixed; boundary=" B
//   per part:  "--" B, "Content-ID: <id>", item lines "<Name>: <value>", "Content-Length: <n>", an
//              empty line, exactly n body bytes, CR LF
//   last part: Content-ID Status with items "Status: <code>" and "HasNonOkMsg: 0|1"; with 1 the body
//              is the (non-empty) UTF-8 message
//   end:       "--" B "--"
// Header lines stay below 2048 bytes and never contain CR, LF or the byte 0xFF; names never contain
// ":". Bodies are binary and read by length. The writer checks these rules and refuses (returns
// false, writes nothing) a part that would break them.
//
// The writer appends to a string that the caller sends and clears as it likes (take()), so a reply
// can be streamed part by part; a large body can be sent in pieces after part_header().
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tavrel_wan {

using ReplyItems = std::vector<std::pair<std::string, std::string>>;

class ReplyWriter {
 public:
  explicit ReplyWriter(std::string boundary = "X--------------nXjq59chSaB20");

  // The declaration line; call once, first.
  void begin();
  // A whole part.
  bool part(const std::string& content_id, const ReplyItems& items, const std::string& body);
  bool part(const std::string& content_id, const std::string& body) { return part(content_id, {}, body); }
  // The headers of a part whose `length` body bytes the caller appends itself (body_piece), followed
  // by end_body().
  bool part_header(const std::string& content_id, const ReplyItems& items, uint64_t length);
  void body_piece(const char* data, size_t n) { out_.append(data, n); }
  void end_body() { out_.append("\r\n"); }
  // The Status part. A message is sent (HasNonOkMsg 1) only when it is not empty.
  void status(int32_t code, const std::string& message = std::string());
  // The end line.
  void end();

  const std::string& data() const { return out_; }
  std::string take() {
    std::string s;
    s.swap(out_);
    return s;
  }
  const std::string& boundary() const { return boundary_; }

  // Whether a header name/value pair may stand in a part's header block.
  static bool valid_item(const std::string& name, const std::string& value);

 private:
  std::string boundary_;
  std::string out_;
};

// A whole reply holding only a Status part.
std::string reply_status_only(int32_t code, const std::string& message = std::string());

}  // namespace tavrel_wan
