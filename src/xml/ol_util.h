// OlUtil: the small services the XML layer needs from its surroundings.
//
//  * A message catalogue for the layer's own texts and printf-style expansion of a message.
//  * ol_assert: the layer's consistency checks. A failed check never stops anything: it only
//    reaches the trace sink (below), so a recoverable XML problem never ends a request.
//  * The trace sink: one process-wide function pointer through which every trace line of the
//    layer leaves. It is null (silent) until the agent installs its tracer. Setting and
//    calling it is thread-safe; the sink itself must be callable from any thread.
#pragma once

#include <cstddef>
#include <string>

#include "base/imsg.h"

// Trace levels used by the layer: 2 problems, 3 entry and exit, 4 steps, 5 detail.
// `scope` names the place, e.g. "XML:OlXmlParser:parse_impl"; `text` is one finished line.
using OlTraceSink = void (*)(int level, const char* scope, const char* text);

// The XML layer's message catalogue (section "xml_odfs", prefix "ol_xml"). Message 0 takes the
// text that could not be converted to the native character set.
extern const _imsg_message_table_t _ol_xml_msg_table;

class OlUtil {
 public:
  // Size of the expansion buffer of format(), terminator included.
  static constexpr std::size_t kFormatBufferSize = 153600;

  static constexpr int kMsgUnsupportedChars = 0;  // index in _ol_xml_msg_table

  // Expands message `number` of `table` with the printf arguments that follow.
  // An unknown number gives "Internal error: could not load message N"; an expansion of
  // more than kFormatBufferSize - 1 bytes gives "Internal error: message N is too long".
  static std::string format(const _imsg_message_table_t* table, int number, ...);

  // Consistency check. Does nothing when `condition` holds; otherwise sends
  // "<message> (<file>:<line>)" to the trace sink at level 2 and returns.
  static void ol_assert(bool condition, const char* file, int line, const std::string& message);

  // Installs the trace sink (null silences the layer). Returns the previous one.
  static OlTraceSink set_trace_sink(OlTraceSink sink);
  static OlTraceSink get_trace_sink();

  // True when a sink is installed: lets callers skip building expensive lines.
  static bool tracing();

  // Formats one line and hands it to the sink; no-op without a sink.
  static void trace(int level, const char* scope, const char* fmt, ...)
      __attribute__((format(printf, 3, 4)));
};
