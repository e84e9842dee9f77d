#include "ops/tavrel_is_silo_mounted.h"

#include "core/tavrel_config.h"
#include "core/tavrel_trace.h"

void Tavrel_IsSiloMounted::process_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_IsSiloMounted", "process_request");
  if (!parse_silo_tag()) return;
  m_answer = Tavrel_Config::get_instance()->get_mount_state(m_silo_tag);
  trace.writeTrace(TRACE_LEVEL_4, "%s: %s", m_silo_tag.c_str(), m_answer ? "true" : "false");
}
