#include "xml/ol_util.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <vector>

namespace {

const char* const kXmlTexts[] = {
    "Error: One or more characters in the following string is not supported by the server's "
    "operating system: \"%s\".\n",
};

std::atomic<OlTraceSink> g_trace_sink{nullptr};

std::string vformat_message(const _imsg_message_table_t* table, int number, va_list ap) {
  char small[64];
  if (!table || number < 0 || number >= table->count || !table->texts[number]) {
    std::snprintf(small, sizeof small, "Internal error: could not load message %d", number);
    return small;
  }
  std::string out = imsg_vformat(table, number, ap);
  if (out.size() > OlUtil::kFormatBufferSize - 1) {
    std::snprintf(small, sizeof small, "Internal error: message %d is too long", number);
    return small;
  }
  return out;
}

}  // namespace

const _imsg_message_table_t _ol_xml_msg_table = {
    "xml_odfs", "ol_xml", static_cast<int>(sizeof(kXmlTexts) / sizeof(kXmlTexts[0])), kXmlTexts};

std::string OlUtil::format(const _imsg_message_table_t* table, int number, ...) {
  va_list ap;
  va_start(ap, number);
  std::string out = vformat_message(table, number, ap);
  va_end(ap);
  return out;
}

void OlUtil::ol_assert(bool condition, const char* file, int line, const std::string& message) {
  if (condition) return;
  OlTraceSink sink = g_trace_sink.load(std::memory_order_acquire);
  if (!sink) return;
  std::string text = message;
  while (!text.empty() && text.back() == '\n') text.pop_back();
  text += " (";
  text += file ? file : "?";
  text += ':';
  text += std::to_string(line);
  text += ')';
  sink(2, "XML:OlUtil:ol_assert", text.c_str());
}

OlTraceSink OlUtil::set_trace_sink(OlTraceSink sink) {
  return g_trace_sink.exchange(sink, std::memory_order_acq_rel);
}

OlTraceSink OlUtil::get_trace_sink() { return g_trace_sink.load(std::memory_order_acquire); }

bool OlUtil::tracing() { return g_trace_sink.load(std::memory_order_relaxed) != nullptr; }

void OlUtil::trace(int level, const char* scope, const char* fmt, ...) {
  OlTraceSink sink = g_trace_sink.load(std::memory_order_acquire);
  if (!sink) return;
  char buf[1024];
  va_list ap;
  va_start(ap, fmt);
  int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  if (n < 0) return;
  sink(level, scope, buf);  // lines longer than the buffer are cut
}
