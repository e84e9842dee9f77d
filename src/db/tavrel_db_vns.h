// tavrel_db_vns: the namespace record calls as the view's update and start-up code makes them.
//
// Each function runs in a transaction of its own (tvr_db_in_trans: a write transaction unless it only
// reads), resolves replica UUIDs to silo rows and OIDs to dbids, and aborts the transaction on any
// failure, so that a failed call leaves the database as it was. Nothing is rolled back across calls: the
// generation numbers of the view and of each scope tell how far an update got. Statuses are those of
// tvr_db_vns.h, plus the transaction's own (1022 not writable now, 1023 reload needed, 1008).
#pragma once

#include <vector>

#include "base/tbs.h"
#include "db/tvr_db_vns.h"

// ---- view generation -----------------------------------------------------------------------------------------
int tavrel_db_create_vns_view(const tbs_uuid_s& uuid, unsigned gn);
int tavrel_db_get_vns_view_gn(unsigned* gn);
int tavrel_db_set_vns_view_gn(unsigned gn);

// ---- scopes ----------------------------------------------------------------------------------------------------
int tavrel_db_create_def_scope();
int tavrel_db_create_lr_scope(const tbs_oid_s& oid, unsigned gn, const char* name);
int tavrel_db_get_lr_scope_gn(const tbs_oid_s& oid, unsigned* gn);
int tavrel_db_is_lr_scope_empty(const tbs_oid_s& oid, int* empty);
int tavrel_db_get_lr_scopes(int all, std::vector<tavrel_scope>& scopes);
int tavrel_db_get_removed_lr_scopes(std::vector<tavrel_scope>& scopes);
int tavrel_db_mark_lr_scope_removed(const tbs_oid_s& oid);
int tavrel_db_delete_lr_scope(const tbs_oid_s& oid);
int tavrel_db_remove_lr_scope(const tbs_oid_s& oid, int delete_row, const tbs_oid_s* target);
int tavrel_db_is_def_scope_silo_empty(const tbs_uuid_s& replica, int* empty);
int tavrel_db_begin_def_scope_silo_load(const tbs_uuid_s& replica, unsigned gn);
int tavrel_db_end_def_scope_silo_load(const tbs_uuid_s& replica, unsigned gn);
int tavrel_db_begin_def_scope_silo_update(const tbs_uuid_s& replica, unsigned gn);
int tavrel_db_end_def_scope_silo_update(const tbs_uuid_s& replica, unsigned gn);
int tavrel_db_begin_def_scope(unsigned gn);
int tavrel_db_end_def_scope(unsigned gn);
int tavrel_db_begin_lr_scope_load(const tbs_oid_s& oid, unsigned gn);
int tavrel_db_begin_lr_scope_update(const tbs_oid_s& oid, unsigned gn);
// Ends a load: every name of the scope takes `gn`, fully loaded directories become done, the scope idles.
int tavrel_db_end_lr_scope_load(const tbs_oid_s& oid, unsigned gn);
int tavrel_db_end_lr_scope_update(const tbs_oid_s& oid, unsigned gn);

// ---- names -----------------------------------------------------------------------------------------------------
// Marks for removal at the end of the running scope update the name `leaf` of object `obj_oid` in the
// directory whose element is `parent_elem_oid` (replica `replica`). A name, object or silo the view does not
// hold has nothing to remove: 0.
int tavrel_db_ver_mark_remove(const tbs_uuid_s& replica, const tbs_oid_s& parent_elem_oid, const tbs_oid_s& obj_oid,
                              const char* leaf);
