#include "proto/reply_writer.h"

#include "proto/wan_names.h"

namespace tavrel_wan {

namespace {
bool clean(const std::string& s) {
  for (unsigned char c : s)
    if (c == '\r' || c == '\n' || c == 0xFF || c == 0) return false;
  return true;
}
}  // namespace

ReplyWriter::ReplyWriter(std::string boundary) : boundary_(std::move(boundary)) {}

bool ReplyWriter::valid_item(const std::string& name, const std::string& value) {
  if (name.empty() || name.find(':') != std::string::npos || !clean(name) || !clean(value)) return false;
  if (name.front() == ' ' || name.back() == ' ') return false;
  return name.size() + 2 + value.size() <= MAX_HEADER_LINE;
}

void ReplyWriter::begin() { out_.append(DECL_PREFIX).append(boundary_).append("\r\n"); }

bool ReplyWriter::part_header(const std::string& content_id, const ReplyItems& items, uint64_t length) {
  if (!valid_item(CONTENT_ID, content_id)) return false;
  for (const auto& [n, v] : items) {
    if (!valid_item(n, v) || n == CONTENT_ID || n == CONTENT_LENGTH) return false;
  }
  out_.append("--").append(boundary_).append("\r\n");
  out_.append(CONTENT_ID).append(": ").append(content_id).append("\r\n");
  for (const auto& [n, v] : items) out_.append(n).append(": ").append(v).append("\r\n");
  out_.append(CONTENT_LENGTH).append(": ").append(std::to_string(length)).append("\r\n\r\n");
  return true;
}

bool ReplyWriter::part(const std::string& content_id, const ReplyItems& items, const std::string& body) {
  if (!part_header(content_id, items, body.size())) return false;
  out_.append(body);
  end_body();
  return true;
}

void ReplyWriter::status(int32_t code, const std::string& message) {
  bool has_msg = !message.empty();
  part_header(PART_STATUS, {{STATUS, std::to_string(code)}, {HAS_NON_OK_MSG, has_msg ? "1" : "0"}},
              has_msg ? message.size() : 0);
  if (has_msg) out_.append(message);
  end_body();
}

void ReplyWriter::end() { out_.append("--").append(boundary_).append("--\r\n"); }

std::string reply_status_only(int32_t code, const std::string& message) {
  ReplyWriter w;
  w.begin();
  w.status(code, message);
  w.end();
  return w.take();
}

}  // namespace tavrel_wan
