#include "ops/tavrel_xml_trace_sink.h"

#include <cstring>
#include <mutex>

#include "core/tavrel_trace.h"
#include "xml/ol_util.h"

namespace {

// One scope object for every XML line. It is made before main, while tracing is still off, so it
// writes no "Entering" line, and it is never destroyed, so it writes no "Exiting" line either.
const Tavrel_Trace* const g_xml_trace = new Tavrel_Trace(TAVREL, "XML", "trace");

std::once_flag g_install_once;

}  // namespace

void tavrel_xml_trace_sink(int level, const char* scope, const char* text) {
  if (!g_xml_trace->shouldTrace(level)) return;
  const char* function = scope ? scope : "";
  if (std::strncmp(function, "XML:", 4) == 0) function += 4;
  g_xml_trace->writeTrace_m(function, "%s", text ? text : "");
}

void tavrel_install_xml_trace_sink() {
  std::call_once(g_install_once, [] { OlUtil::set_trace_sink(tavrel_xml_trace_sink); });
}
