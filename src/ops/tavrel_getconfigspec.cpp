#include "ops/tavrel_getconfigspec.h"

#include "core/tavrel_log.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_view.h"
#include "ops/tavrel_configspec.h"
#include "core/tavrel_msg_table.h"
#include "core/tavrel_util.h"
#include "wan/get_configspec.h"

int Tavrel_GetConfigSpec::get_server_cspec(Tavrel_View* view, Tavrel_ConfigSpec& cspec, std::string& message,
                                           std::string* elem_rules, std::string* load_rules) {
  Tavrel_Trace trace(TAVREL, "Tavrel_GetConfigSpec", "get_server_cspec");
  Get_ConfigSpec cmd(view->get_view_uuid());
  trace.writeTrace(TRACE_LEVEL_4, "Calling Get_ConfigSpec");
  cmd.run();
  int rpc_status = cmd.get_status_code();
  int status = cmd.check_rpc_status(Tavrel_Log::get_instance(view->get_storage_path()), message, rpc_status);
  trace.writeTrace(TRACE_LEVEL_4, "Returning from wan request %d", status);
  if (status != 0) return status;

  trace.writeTrace(TRACE_LEVEL_4, "Element rules = [%s]", cmd.get_elem_rules().c_str());
  trace.writeTrace(TRACE_LEVEL_4, "TKM element rules = [%s]", cmd.get_tkm_elem_rules().c_str());
  if (elem_rules) *elem_rules = cmd.get_elem_rules();
  if (load_rules) *load_rules = cmd.get_load_rules();
  status = cspec.save_elem_rules(cmd.get_elem_rules());
  if (status == 0 && view->is_tkm()) status = cspec.save_tkm_elem_rules(cmd.get_tkm_elem_rules());
  if (status != 0) {
    std::string text;
    message += Tavrel_Util::format(text, &_tvr_lib_lib_msg_table, TVR_LIB_CACHE_ELEMENT_RULES);
  }
  return status;
}
