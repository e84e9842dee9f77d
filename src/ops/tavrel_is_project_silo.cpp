#include "ops/tavrel_is_project_silo.h"

#include "core/tavrel_config.h"
#include "core/tavrel_trace.h"

void Tavrel_IsProjectSilo::process_request() {
  Tavrel_Trace trace(TAVREL, "Tavrel_IsProjectSilo", "process_request");
  if (!parse_silo_tag()) return;
  m_answer = Tavrel_Config::get_instance()->get_mount_info(m_silo_tag).is_project_silo;
  trace.writeTrace(TRACE_LEVEL_4, "%s: %s", m_silo_tag.c_str(), m_answer ? "true" : "false");
}
