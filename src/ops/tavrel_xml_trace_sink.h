// Connects the XML layer's trace hook (OlUtil::set_trace_sink) to the agent's trace.
//
// XML lines are written as subsystem TAVREL, class "XML", and the layer's scope without its "XML:"
// prefix as the function, e.g.
//   <time>::TRACE::TAVREL::XML::OlXmlParser:parse_impl::<pid>::<tid>::Parsing fakeId
// and are filtered like every TAVREL line (level and subsystem list). The layer never puts request
// contents into its lines, so no password can reach the trace this way.
//
// The agent installs the sink on the first request the operation factory builds; calling
// tavrel_install_xml_trace_sink() earlier (e.g. from main) does the same. Idempotent and thread-safe.
#pragma once

void tavrel_install_xml_trace_sink();
// The sink itself (exposed for tests).
void tavrel_xml_trace_sink(int level, const char* scope, const char* text);
