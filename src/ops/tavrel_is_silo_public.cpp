#include "ops/tavrel_is_silo_public.h"

#include "core/tavrel_config.h"
#include "core/tavrel_trace.h"

void Tavrel_IsSiloPublic::process_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_IsSiloPublic", "process_request");
  if (!parse_silo_tag()) return;
  m_answer = Tavrel_Config::get_instance()->get_mount_info(m_silo_tag).is_public;
  trace.writeTrace(TRACE_LEVEL_4, "%s: %s", m_silo_tag.c_str(), m_answer ? "true" : "false");
}
