// The client and admin API: server-side changes that the agent is later told about, and the test
// controls. Each operation is one "rpc" name with "rpcargs" arguments; file bytes travel in a third
// form field "data". The reply is a multipart document with a "Result" part (items) and, for
// listings, a "Text" part, then Status.
//
// Client operations (allowed on <base>/client with a session, and on <base>/admin):
//   view.checkout    ViewUuid Path                    -> CoVersionOid ElementOid ReplicaUuid
//   view.checkin     ViewUuid Path [data]              -> NewVersionOid VersionString Selected
//   view.uncheckout  ViewUuid Path                    -> VersionOid (now selected, may be empty)
//   view.mkelem      ViewUuid Path Kind=file|dir|link [Target] [Mode] [Checkout] [data]
//                                                     -> ElementOid NewVersionOid ReplicaUuid
//   view.move        ViewUuid From To                 (both parents checked out in the view)
//   view.rmname      ViewUuid Path                    (parent checked out in the view)
//   view.dump        ViewUuid                         -> Text: rules, GN, checkouts, served set
//   silo.list                                         -> Text: "<tag> <replica> <family>" lines
// Admin operations (<base>/admin only):
//   silo.create      Tag [Public] [Project] [Storage] -> SiloReplicaUuid SiloFamilyUuid
//   silo.import      Tag Source [Public] [Project]    -> SiloReplicaUuid Files Dirs Links Skipped
//   elem.mkfile      Path [Mode] [Parents] [Replace] [data]  -> ElementOid NewVersionOid
//   elem.mkdir       Path [Mode] [Parents] [Replace]  -> ElementOid NewVersionOid
//   elem.mklink      Path Target [Replace]            -> LinkOid
//                    (Replace=1: the new object takes over the name from whatever held it, in one
//                    new version of the parent: a directory replaced by a file, and so on)
//   elem.checkin     Path [Branch] [data]             -> NewVersionOid VersionString
//   elem.rmname      Path;  elem.move  From To
//   label.apply      Path Label [Version] [Recursive]
//   branch.make      Path Branch [Version]            -> VersionOid (the branch's version 0)
//   view.create      ViewUuid [Type];  view.set_rules ViewUuid ElemRule* TkmRule* LoadRule*  -> GN
//   sessions.expire;  fault.set Kind [Value] [Match] [Count];  fault.clear;  fault.list -> Text
//   log.get [Since] -> Text (request log lines);  log.clear
//
// Global changes (elem.*, label.*, branch.*) resolve paths with "select * latest" and make new
// versions on main, each directory change a new directory version (a direct check-in). View
// changes resolve paths in the view; namespace changes need the parent checked out in the view and
// give the parent a new checkout version, so every version OID keeps its contents.
#pragma once

#include <string>

#include "server/args.h"

namespace tavrel_server {

class WanServer;

// `data` is the "data" form field, null when the request has none.
std::string run_admin_op(WanServer& srv, const std::string& op, const Args& args, const std::string* data,
                         bool admin);

}  // namespace tavrel_server
