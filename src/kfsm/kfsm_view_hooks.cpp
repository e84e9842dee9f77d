#include "kfsm/kfsm_view_hooks.h"

#include "core/tavrel_view.h"
#include "kfsm/kfsm_agent_ioctl.h"
#include "kfsm/tavrel_kfsm_ioctl.h"

int tavrel_kfsm_register_view(Tavrel_View* view) { return Tavrel_KFSM_Ioctl(view).register_view(); }

int tavrel_kfsm_unregister_view(Tavrel_View* view) { return Tavrel_KFSM_Ioctl(view).unregister_view(); }

int tavrel_kfsm_get_root(std::string* root) { return KFSM_Agent_Ioctl::get_kfsm_root(1, *root); }

void tavrel_kfsm_fill_view_hooks(Tavrel_View_Hooks* hooks) {
  hooks->register_view = &tavrel_kfsm_register_view;
  hooks->unregister_view = &tavrel_kfsm_unregister_view;
  hooks->get_kfsm_root = &tavrel_kfsm_get_root;
}
