// The kernel channel's side of the view's seams: what Tavrel_View calls to register and remove the
// view in the module and to learn the module's root. The agent entry installs them with the other
// Tavrel_View_Hooks at process start.
#pragma once

#include <string>

class Tavrel_View;
struct Tavrel_View_Hooks;

// Fills register_view, unregister_view and get_kfsm_root of `hooks`.
void tavrel_kfsm_fill_view_hooks(Tavrel_View_Hooks* hooks);

// Tavrel_KFSM_Ioctl(view).register_view() / unregister_view(); statuses of the 1000 range.
int tavrel_kfsm_register_view(Tavrel_View* view);
int tavrel_kfsm_unregister_view(Tavrel_View* view);
// KFSM_Agent_Ioctl::get_kfsm_root(1, *root).
int tavrel_kfsm_get_root(std::string* root);
