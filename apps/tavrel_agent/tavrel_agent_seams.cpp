#include "apps/tavrel_agent/tavrel_agent_seams.h"

#include "apps/tavrel_agent/tavrel_op_table.h"
#include "apps/tavrel_agent/tavrel_view_handler.h"
#include "core/tavrel_config.h"
#include "core/tavrel_view.h"
#include "fs/tavrel_kfsm_abstract_op.h"
#include "fs/tavrel_metadata.h"
#include "fs/tavrel_view_db.h"
#include "kfsm/kfsm_view_hooks.h"
#include "kfsm/tavrel_kfsm_thread_unix.h"
#include "ns/ns_cache.h"
#include "ops/tavrel_abstract_op.h"
#include "ops/tavrel_mountsilo.h"
#include "ops/tavrel_server.h"

namespace {

Tavrel_View* current_view() { return Tavrel_View_Handler::has_view() ? Tavrel_View_Handler::get_view() : nullptr; }

}  // namespace

void tavrel_agent_install_seams() {
  Tavrel_View_Hooks hooks = Tavrel_View::get_hooks();
  hooks.server_url = [] { return Tavrel_Server::get_url(); };
  tavrel_kfsm_fill_view_hooks(&hooks);
  hooks.cache_init = [] { return cache_init(); };
  hooks.cache_set_size = [](unsigned size, bool enforce_minimum) { return ns_cache_set_size(size, enforce_minimum); };
  hooks.start_db = Tavrel_View_db::start_db;
  hooks.close_db = Tavrel_View_db::close_db;
  hooks.db_get_vns_view_gn = [](unsigned* gn) { return Tavrel_View_db::view_gn(*gn); };
  hooks.db_create_vns_view = [](const tbs_uuid_s& uuid, unsigned gn) {
    return Tavrel_View_db::create_view_row(tbs_uuid_to_str(uuid), gn);
  };
  Tavrel_View::install_hooks(hooks);

  Tavrel_Config::set_view_lookup(current_view);
  Tavrel_AbstractOp::set_view_source(current_view);
  Tavrel_Metadata::set_view_source(current_view);
  Tavrel_AbstractOp::set_view_sink([](Tavrel_View* view) { Tavrel_View_Handler::set_view(view); });
  // StartView mounts the SILOs of the mount table again through this hook.
  Tavrel_Mountsilo::install_mount_hook();
  Tavrel_AbstractOp::set_op_table(tavrel_op_table(), tavrel_op_table_size());
  Tavrel_KFSM_Thread_Unix::set_dispatcher(tavrel_kfsm_dispatch);
}

std::vector<std::string> tavrel_agent_missing_seams() {
  std::vector<std::string> missing;
  const Tavrel_View_Hooks& h = Tavrel_View::get_hooks();
  if (!h.server_url) missing.push_back("view hook server_url");
  if (!h.register_view || !h.unregister_view || !h.get_kfsm_root) missing.push_back("view hooks of the kernel channel");
  if (!h.cache_init || !h.cache_set_size || !h.start_db || !h.close_db || !h.db_get_vns_view_gn ||
      !h.db_create_vns_view)
    missing.push_back("view hooks of the cache and database");
  if (!Tavrel_Config::has_view_lookup()) missing.push_back("configuration view lookup");
  if (!Tavrel_Config::has_mount_hook()) missing.push_back("configuration mount hook");
  if (!Tavrel_AbstractOp::has_view_source()) missing.push_back("operation view source");
  if (!Tavrel_Metadata::has_view_source()) missing.push_back("resolver view source");
  if (!Tavrel_AbstractOp::has_view_sink()) missing.push_back("operation view sink");
  if (!Tavrel_AbstractOp::has_op_table()) missing.push_back("operation table");
  if (!Tavrel_KFSM_Thread_Unix::get_dispatcher()) missing.push_back("view-protocol dispatcher");
  return missing;
}
