// The parts of an update stream that name objects: an element group (SyncElemInfo with the object's
// metadata records, exactly as a Lookup would give them) and an unload (SyncElemInfo with an empty
// current version string). Shared by the scope and the surgical update streams.
#pragma once

#include <string>

#include "proto/reply_writer.h"
#include "server/update_ledger.h"
#include "server/view_namespace.h"

namespace tavrel_server {

// The version string the stream carries for a node ("link" for a symbolic link; never empty).
std::string node_vstr(const Node& n);
// A ledger row describing node `n` as the view selects it now.
SnapRow snap_of(const Node& n);
// Whether two rows show the agent the same thing (element, version, check-out, parent).
bool same_state(const SnapRow& a, const SnapRow& b);
// Errors that mean "this name is not there for the view" while walking.
bool is_absence(const ServerError& e);

// The node a ledger row names, rebuilt from the store (versions and links never change).
Node node_of(Repo& r, const Silo& silo, const SnapRow& row);

// The node a served row names (ViewNamespace::served_row), rebuilt from the store by OID.
Node node_of_served(Repo& r, const Silo& silo, const ServedRow& row);

// SyncElemInfo, Xdr_ObjMetadata and Xdr_ElemMetadata of `n`; `prev` is the version string the view had.
void put_update_object(tavrel_wan::ReplyWriter& w, ViewNamespace& ns, const Node& n, const std::string& prev);
// SyncElemInfo of an unload of what `row` names.
void put_unload(tavrel_wan::ReplyWriter& w, const Silo& silo, const SnapRow& row);

}  // namespace tavrel_server

namespace tavrel_server {

// Records that `rows` were sent to the view at once (by an on-demand reply or a surgical update):
// the served set takes them, and no pending stream may unload them from the automatic scope. With
// `snaps`, the committed state of their load-rule scopes takes those rows too.
void record_sent(Store& store, int64_t view, const std::vector<ServedRow>& rows,
                 const std::vector<std::pair<tbs_oid_s, SnapRow>>& snaps = {});

}  // namespace tavrel_server
