#include "update/tavrel_async_update.h"

#include "core/tavrel_msg_table.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "update/tavrel_update.h"

Tavrel_Async_Update::Tavrel_Async_Update(Tavrel_Update* update) : m_update(update) {}

Tavrel_Async_Update::~Tavrel_Async_Update() {
  if (m_executed || !m_update) return;
  // Never ran, yet the update holds the gate and the request waits for it: end it as failed.
  Tavrel_Trace trace(TAVREL, "Tavrel_Async_Update", "~Tavrel_Async_Update");
  trace.writeTrace(TRACE_LEVEL_1, "update thread never ran");
  m_update->set_status(TAVREL_ST_THREAD_START);
  std::string text;
  m_update->append_status_message(Tavrel_Util::format(text, &_tvr_lib_lib_msg_table, TVR_LIB_UPDATE_START,
                                                      TAVREL_ST_THREAD_START, "the update thread did not start"));
  m_update->end_view_update();
}

int Tavrel_Async_Update::execute() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Async_Update", "execute");
  m_executed = true;
  return m_update->do_view_update(false);
}
