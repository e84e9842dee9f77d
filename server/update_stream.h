// View_Update ("Tavrel_Orlen::syncfetch_rpc") as a streamed reply.
//
// By scope (UsePaths=0). Before anything is sent: the commit step (the request's ViewGn commits the
// stream of that GN, see update_ledger.h), then G := the view's next GN. The reply is
//   SyncFetchBegin(OperationGn G)
//   per SILO (by tag): SiloFetchBegin, the unloads of every scope of that SILO, the automatic scope
//                      group (when the view holds names of that SILO on demand), the SILO's
//                      load-rule scope groups in request order, SiloFetchEnd
//   listed scopes with no SILO of their own (an unknown tag; the automatic scope when nothing was
//   served): an empty group each
//   SyncFetchEnd, Status 0
// Every listed scope gets exactly one group per SILO it belongs to and no other scope is sent. Within
// a group, objects come in path order (path_order.h), so a directory always comes before what it
// holds. A load-rule scope carries its subtree as the view selects it now; the automatic scope
// carries the names the view was served outside load rules, re-evaluated now. Each is diffed against
// the scope's committed state: new or changed names are sent, names gone are unloaded. When the scope's
// committed state is known and the change log can tell what changed since, only the names whose
// elements changed are looked at again (scope_delta.h); the result is the same. Every name is
// sent ("full mode") when Force is set, when ViewGn is 0 or not one the server knows, and for a
// load-rule scope whose ScopeGn is 0; with ViewGn 0 the agent has nothing, so gone names are dropped
// without unloads.
//
// By path (UsePaths=1): SyncFetchBegin with the current GN (not incremented), then per SILO the named
// objects and, for directories, their visible entries; no scope groups, no unloads, never a SILO root
// itself. Paths may be full view paths: everything before the first component that is a SILO tag is
// cut. A path that names nothing is skipped. What is sent becomes the committed state at once.
//
// Memory: a stream holds one batch of rows at a time and the walk's stack of directories; the diff
// goes through the store (update_ledger.h). The view's read lock is held for the stream's life, so
// Set_ConfigSpec waits for it; on-demand requests go on.
#pragma once

#include <memory>

#include "server/agent_rpcs.h"

namespace tavrel_server {

// Checks the request and takes the commit step and the new GN before returning (ServerError then,
// with nothing sent).
std::unique_ptr<ReplyStream> start_view_update(WanServer& srv, const Args& args);
// The path form alone (surgical_update.cpp); start_view_update hands UsePaths=1 requests to it.
std::unique_ptr<ReplyStream> start_surgical_update(WanServer& srv, const Args& args);

}  // namespace tavrel_server
