#include "wan/rclient_multi_part_mixed_doc.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <sstream>

#include "base/strutl.h"
#include "core/tavrel_trace.h"
#include "proto/wan_names.h"
#include "wan/rclient_base.h"
#include "wan/rclient_exceptions.h"

namespace {
const char* const kClass = "RClient_Multi_Part_Mixed_Doc";

// A non-negative decimal number that fits a long.
bool parse_length(const std::string& text, long* out) {
  long v;
  if (!strutl_strtol(text, &v) || v < 0) return false;
  *out = v;
  return true;
}
}  // namespace

RClient_Multi_Part_Mixed_Doc::RClient_Multi_Part_Mixed_Doc(RClient_Response_Stream* stream) : m_stream(stream) {
  m_line[0] = '\0';
}

void RClient_Multi_Part_Mixed_Doc::fail(int code, const char* why) {
  Tavrel_Trace trace(RCLIENT, kClass, "fail");
  trace.writeTrace(TRACE_LEVEL_2, "%s (%d)", why, code);
  if (m_failure == 0) m_failure = code;
  throw RClient_Format_Error_Exception(code);
}

size_t RClient_Multi_Part_Mixed_Doc::read_to_EOL() {
  size_t n = 0;
  for (;;) {
    int c = m_stream->get();
    if (c < 0 || c == 255) {
      Tavrel_Trace trace(RCLIENT, kClass, "read_to_EOL");
      trace.writeTrace(TRACE_LEVEL_5, "Unexpected EOF found!");
      consume_response(0);
      throw RClient_Premature_EOF_Exception();
    }
    if (c == '\r') {
      int d = m_stream->get();
      if (d < 0) {  // the LF may still come
        Tavrel_Trace trace(RCLIENT, kClass, "read_to_EOL");
        trace.writeTrace(TRACE_LEVEL_5, "Unexpected EOF found!");
        consume_response(0);
        throw RClient_Premature_EOF_Exception();
      }
      if (d != '\n') fail(RCLIENT_ST_FORMAT, "LF not found after CR!");
      return n;
    }
    m_line[n++] = static_cast<char>(c);
    if (n == MAX_LINE) return n;
  }
}

int RClient_Multi_Part_Mixed_Doc::set_boundary(const std::string& line) {
  static const std::string decl = tavrel_wan::DECL_PREFIX;
  if (line.size() < 3) return 0;
  size_t at = line.find(decl);
  if (at == std::string::npos) return 0;
  m_boundary = "--" + line.substr(at + decl.size());
  m_end_of_doc = m_boundary + "--";
  Tavrel_Trace trace(RCLIENT, kClass, "set_boundary");
  trace.writeTrace(TRACE_LEVEL_4, "Boundary = [%s] and end of doc [%s]", m_boundary.c_str(), m_end_of_doc.c_str());
  return 1;
}

void RClient_Multi_Part_Mixed_Doc::parse_pairs() {
  try {
    for (size_t count = 0;; ++count) {
      size_t n = read_to_EOL();
      if (n <= 1) return;
      std::string line(m_line, n);
      size_t colon = line.find(':');
      if (colon == std::string::npos) return;
      if (count >= MAX_PART_HEADERS) fail(RCLIENT_ST_FORMAT, "Too many header lines in a part");
      std::string name = strutl_trim(line.substr(0, colon));
      std::string value = strutl_trim(line.substr(colon + 1));
      m_pairs.emplace(std::move(name), std::move(value));  // an earlier pair of the name is kept
    }
  } catch (RClient_Premature_EOF_Exception&) {
    Tavrel_Trace trace(RCLIENT, kClass, "parse_pairs");
    trace.writeTrace(TRACE_LEVEL_5, "All pairs not yet received");
    m_pairs.clear();
    throw;
  }
}

void RClient_Multi_Part_Mixed_Doc::skip_pending_body() {
  // The caller did not take the body of the previous part; it starts at position 0.
  m_stream->seek(0);
  size_t n = std::min(m_body_left, m_stream->size());
  if (n > 0) consume_response(n);
  m_body_left -= n;
  if (m_body_left > 0) throw RClient_Premature_EOF_Exception();
}

int RClient_Multi_Part_Mixed_Doc::next_part(int wait) {
  Tavrel_Trace trace(RCLIENT, kClass, "next_part");
  if (m_failure != 0) throw RClient_Format_Error_Exception(m_failure);
  if (m_part_waiting) {
    // A new pass over the stream starts at 0; anything else means the caller went on past a part
    // whose body is not there yet.
    if (m_stream->tell() != 0) {
      consume_response(0);
      throw RClient_Premature_EOF_Exception();
    }
    m_part_waiting = false;
  }
  if (m_body_left > 0) skip_pending_body();
  for (;;) {
    if (m_finished) {
      trace.writeTrace(TRACE_LEVEL_5, "End of doc found.");
      if (!m_stream->empty()) consume_response(m_stream->size());  // nothing after the end counts
      return 0;
    }
    size_t n = read_to_EOL();
    if (n == 0) {
      consume_response(m_stream->tell());  // empty lines between parts are finished with
      continue;
    }
    std::string line(m_line, n);
    if (m_boundary.empty() && set_boundary(line)) {
      trace.writeTrace(TRACE_LEVEL_4, "Found boundary specification");
      consume_response(m_stream->tell());
      continue;
    }
    if (!m_end_of_doc.empty() && line == m_end_of_doc) {
      trace.writeTrace(TRACE_LEVEL_4, "End of doc reached.");
      m_finished = 1;
      continue;
    }
    if (m_boundary.empty() || line != m_boundary) fail(RCLIENT_ST_FORMAT, "Line is neither boundary nor end of document");
    trace.writeTrace(TRACE_LEVEL_5, "Found boundary");
    m_pairs.clear();
    parse_pairs();
    long length;
    if (!parse_length(get_part_item(RClient_Base::CONTENT_LENGTH), &length))
      fail(RCLIENT_ST_FORMAT, "Content-Length missing or not a number");
    size_t p = m_stream->tell();
    size_t rem = m_stream->available();
    trace.writeTrace(TRACE_LEVEL_5, "Waitforcontent = %d, rem = %d, len = %d", wait, static_cast<int>(rem),
                     static_cast<int>(length));
    if (wait && static_cast<size_t>(length) > m_max_part_body) fail(RCLIENT_ST_NO_MEMORY, "Part too large to hold");
    m_part_length = static_cast<size_t>(length);
    if (!wait || static_cast<size_t>(length) <= rem) {
      consume_response(p);
      m_body_left = m_part_length;
    } else {
      m_body_left = 0;
      m_part_waiting = true;
    }
    return 1;
  }
}

std::string RClient_Multi_Part_Mixed_Doc::get_part_item(const std::string& name) const {
  auto it = m_pairs.find(name);
  return it == m_pairs.end() ? std::string() : it->second;
}

int RClient_Multi_Part_Mixed_Doc::unmarshal_result(RClient_Status& status) {
  Tavrel_Trace trace(RCLIENT, kClass, "unmarshal_result");
  long code;
  std::string text = get_part_item(RClient_Base::STATUS);
  if (text.empty() || !strutl_strtol(text, &code) || code < INT32_MIN || code > INT32_MAX) {
    trace.writeTrace(TRACE_LEVEL_2, "Status item missing or not a number: [%s]", text.c_str());
    if (m_failure == 0) m_failure = RCLIENT_ST_FORMAT;
    return RCLIENT_ST_FORMAT;
  }
  std::string has_msg = get_part_item(RClient_Base::HAS_NON_OK_MSG);
  if (has_msg.empty()) {
    trace.writeTrace(TRACE_LEVEL_2, "HasNonOkMsg item missing");
    if (m_failure == 0) m_failure = RCLIENT_ST_FORMAT;
    return RCLIENT_ST_FORMAT;
  }
  if (has_msg == "1") {
    long length;
    if (!parse_length(get_part_item(RClient_Base::CONTENT_LENGTH), &length)) {
      if (m_failure == 0) m_failure = RCLIENT_ST_FORMAT;
      return RCLIENT_ST_FORMAT;
    }
    if (length > 0) {
      std::ostringstream body;
      if (copy_part_body(static_cast<size_t>(length), &body) == 0) throw RClient_Premature_EOF_Exception();
      status.message = body.str();
      trace.writeTrace(TRACE_LEVEL_4, "Body part = %s", status.message.c_str());
    }
  }
  // The verdict counts only once the whole part is there.
  status.code = static_cast<int32_t>(code);
  return 0;
}

long RClient_Multi_Part_Mixed_Doc::copy_part_body(size_t length, std::ostream* out) {
  if (length == 0 || m_stream->available() < length) return 0;
  if (out) {
    out->write(m_stream->current(), static_cast<std::streamsize>(length));
    out->flush();
  }
  consume_response(m_stream->tell() + length);
  m_body_left -= std::min(m_body_left, length);
  return static_cast<long>(length);
}

long RClient_Multi_Part_Mixed_Doc::copy_part_body(size_t length, char* buffer) {
  if (length == 0 || m_stream->available() < length) return 0;
  std::memcpy(buffer, m_stream->current(), length);
  consume_response(m_stream->tell() + length);
  m_body_left -= std::min(m_body_left, length);
  return static_cast<long>(length);
}

long RClient_Multi_Part_Mixed_Doc::write_content(size_t length, std::ostream* out) {
  size_t n = std::min(length, m_stream->available());
  if (n == 0) return 0;
  if (out) {
    out->write(m_stream->current(), static_cast<std::streamsize>(n));
    out->flush();
  }
  consume_response(m_stream->tell() + n);
  m_body_left -= std::min(m_body_left, n);
  return static_cast<long>(n);
}

void RClient_Multi_Part_Mixed_Doc::consume_response(size_t count) {
  Tavrel_Trace trace(RCLIENT, kClass, "consume_response");
  trace.writeTrace(TRACE_LEVEL_5, "Consume %ld bytes from buffer of %ld bytes", static_cast<long>(count),
                   static_cast<long>(m_stream->size()));
  m_stream->consume(count);
}
