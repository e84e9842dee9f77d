// tvr_db_vns: the view's namespace records (VNS_DB_OBJ ... VNS_DB_VIEW): its cached picture of the
// repository — elements, versions, directory versions and the names inside them, each name tied to the
// load scope that brought it in — and the marks that say how far that picture may be trusted.
//
// Calling rules
//   Every function runs inside a transaction of tavrel_engine_db.h (it calls tvr_db_trans_read_check or
//   tvr_db_trans_write_check first) and never locks. An argument named `silo` is the dbid of a DB_SILO row
//   (its DBA with the top bit set): 0 gives 1002, a missing top bit 1008, a handle that no longer names a
//   DB_SILO row 1087. An argument named `silo_dba` is the stripped DBA itself. Namespace dbids are per-silo
//   counters (SILO_NEXT_DBID is incremented before use, so the first object of a silo is 2; dbids are dense
//   and never reused). Names longer than TVR_DB_MAX_NAME (255) bytes give 1084. Engine failures are
//   reported through tvr_engine_err with the labels of the namespace records and give 1008; the caller then
//   aborts its transaction.
//
// The marks
//   validated (name row)   the server confirmed the name since its directory last changed. Set at creation,
//                          by re-creation of the same name, by a move; cleared by tvr_db_obj_set_validated(0),
//                          tvr_db_ver_set_validated(0) and when a directory's names move to its new version.
//   stale (version row)    the version must not be shown before it is confirmed again.
//   rddir_done (dir row)   every name of the directory is here, so a missing name truly does not exist.
//   saved rddir state      what rddir_done becomes when the running scope operation ends:
//                          0 nothing; 1 (replaced during an update, old version not done) -> done 0;
//                          2 (replaced during an update, old version done) -> done 1, names validated;
//                          3 (fully loaded by a non-default scope) -> done 1 at the end of a load, as 2 at
//                          the end of an update. While it is 2 or 3 rddir_done stays 0, so a reader never
//                          trusts a directory of a running load. The default scope saves nothing.
//   remove mark (name row) the end of the next scope update removes the name.
//   scope generation       the generation at which the scope last saw the name.
//   scope operation state  0 idle, 1 load running (also: scope marked removed), 2 update running. A scope
//                          left at 1 by an interrupted load is reported as removed after a restart.
//
// Invariants that hold between transactions (vns_check.h checks them):
//   - every VNS_DB_OBJ row has its typed row with the same (silo, dbid): 2, 5 an element row; 3, 6, 8 a
//     version row; 3 also a directory row; 7 a link row; and no typed row lacks its VNS_DB_OBJ row;
//   - every version row is a member of its element's VNS_ELEM_VER_SET and its NODEID is the element dbid;
//   - every name row is in exactly one name set (its object's), in the set of the scope its OID names,
//     and in VNS_DIR_ENT_SET of its directory exactly when the directory dbid is not 0;
//   - a name row's hash is tvr_db_hash_name of its whole name; a byte chain exists iff it is over 144 bytes;
//   - a version or link with no name row does not exist;
//   - no dbid exceeds its silo's SILO_NEXT_DBID;
//   - a saved rddir state of 2 or 3 implies rddir_done 0.
//
// Key 14013 (silo, object dbid) allows duplicates: a hard-linked version has one name row per name, and a
// lookup by object dbid gives the first in DBA order.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <string>
#include <vector>

#include "db/rec/tavrel_db_schema.h"
#include "proto/view_records.h"
#include "proto/tavrel_records.h"
#include "proto/xdr_prim.h"

// ---- value records -----------------------------------------------------------------------------------------
// A load scope as callers see it is the wire record `tavrel_scope` (proto/tavrel_records.h): the scope's
// OID, a second OID that is always null, the generation and the name, so that a scope read here and one
// received from the server are the same type.
struct tavrel_scope_vers {
  uint32_t silo;  // silo dbid (flagged)
  uint32_t dbid;  // object dbid
};
struct tavrel_scope_elem {
  tbs_uuid_s silo_uuid;
  tbs_oid_s elem_oid;
  uint32_t elem_dbid;
};
// One name of a directory version, as the record layer reads it (the listing record that travels to the
// kernel and over the WAN is proto's `tavrel_dirent`).
struct tvr_db_dirent {
  std::string name;
  uint32_t dbid;
  silo_mtype_t mtype;
};
// One name row below a directory version.
struct tvr_db_sub_vers {
  uint32_t dbid;
  silo_mtype_t mtype;
  DB_ADDR entry_dba;
};
// A checked-out element: the element, the element of its parent directory (null for a root), and its name
// ("RootDir" for a root).
struct tavrel_hijack_co_info {
  tbs_uuid_s silo_uuid;
  tbs_oid_s elem_oid;
  tbs_oid_s parent_oid;
  std::string name;
};

// The fixed name of the default scope and of a checked-out root.
constexpr const char* TVR_DB_DEF_SCOPE_NAME = "Automatic";
constexpr const char* TVR_DB_ROOT_DIR_NAME = "RootDir";

// ---- silo handle ---------------------------------------------------------------------------------------------
// Resolves a silo dbid to the DBA of its DB_SILO row (1002 / 1008 / 1087 as above).
int tvr_db_vns_silo_dba(uint32_t silo, DB_ADDR* silo_dba);

// ---- view row ---------------------------------------------------------------------------------------------------
// Creates the one VNS_DB_VIEW row (view GN and initial GN `gn`); an existing row only takes the new GN.
int tvr_db_create_vns_view(const tbs_uuid_s& uuid, uint32_t gn);
int tvr_db_get_vns_view_gn(uint32_t* gn);   // 1002 without a view row
int tvr_db_set_vns_view_gn(uint32_t gn);    // writes the view GN only; 1002 without a view row
int tvr_db_get_vns_view(tbs_uuid_s* uuid, uint32_t* gn, uint32_t* initial_gn);

// ---- scopes -----------------------------------------------------------------------------------------------------
bool tvr_db_is_def_scope(const tbs_oid_s& oid);
// Creates the default scope (generation 1) when it does not exist.
int tvr_db_create_def_scope();
// A new scope is idle at generation `gn` with finished generation gn - 1. An existing one takes `gn`,
// finished gn - 1 and state 0, and keeps its name. Names over 1023 bytes give 1084.
int tvr_db_create_lr_scope(const tbs_oid_s& oid, uint32_t gn, const char* name);
int tvr_db_lookup_lr_scope_oid(const tbs_oid_s& oid, DB_ADDR* dba);  // 1002 when absent
int tvr_db_lookup_lr_scope_name(const char* name, DB_ADDR* dba);     // 1002 when absent
int tvr_db_get_scope_by_name(const char* name, tavrel_scope* scope);
int tvr_db_get_lr_scope_gn(const tbs_oid_s& oid, uint32_t* gn);
int tvr_db_get_lr_scope_gn_name(const char* name, uint32_t* gn);
int tvr_db_get_def_scope_gn(uint32_t* gn);
// The name of the scope row at `scope_dba`, NUL-terminated; 1084 when length + 1 exceeds `size`.
int tvr_db_get_lr_scope_name(DB_ADDR scope_dba, size_t size, char* buffer);
// Every scope in record order; with `all` 0 those at state 1 (loading or removed) are left out.
int tvr_db_get_lr_scopes(int all, std::vector<tavrel_scope>& scopes);
// Scopes at state 1: marked removed, or a load that never finished.
int tvr_db_get_removed_lr_scopes(std::vector<tavrel_scope>& scopes);
int tvr_db_get_lr_scope_removed_flag(const tbs_oid_s& oid, int* removed);
int tvr_db_mark_lr_scope_removed(const tbs_oid_s& oid);
int tvr_db_is_lr_scope_empty(const tbs_oid_s& oid, int* empty);
// Whether the default scope holds no name of the silo with this replica uuid (an unknown silo is empty).
int tvr_db_is_def_scope_silo_empty(const tbs_uuid_s& uuid, int* empty);
// The objects (each once) and elements (each once) that the scope's names show.
int tvr_db_scope_get_versions(const tbs_oid_s& oid, std::vector<tavrel_scope_vers>& vers);
int tvr_db_scope_get_elements(const tbs_oid_s& oid, std::vector<tavrel_scope_elem>& elems);

// Scope operations. begin_*: generation gn, finished gn - 1, state 1 (load) or 2 (update); the default
// scope keeps its state. end_lr_scope_load: with `set_gn` every name of the scope takes gn, then the
// scope takes finished gn and state 0; with `use_saved` a directory's saved state 3 becomes rddir_done 1.
// end_lr_scope_update: names with the remove mark go (files first, then directories, children before
// parents); the others take gn and their directories' saved states take effect; then finished gn, state 0.
// The default scope's names take gn through the scope's finished generation (see
// vns_db_dir_ver_ent::scope_gn), so its end costs the marked names, not every name it holds; it walks the
// scope only when this process has not seen every mark its names may carry (its first end after an open).
int tvr_db_begin_lr_scope_load(const tbs_oid_s& oid, uint32_t gn);
int tvr_db_begin_lr_scope_update(const tbs_oid_s& oid, uint32_t gn);
int tvr_db_begin_def_scope(uint32_t gn);
int tvr_db_end_lr_scope_load(const tbs_oid_s& oid, uint32_t gn, int set_gn, int use_saved);
int tvr_db_end_lr_scope_update(const tbs_oid_s& oid, uint32_t gn);
int tvr_db_end_def_scope(uint32_t gn);
// The generation a name row reads as, given the default scope's finished generation (see
// vns_db_dir_ver_ent::scope_gn).
inline uint32_t tvr_db_name_gn(const vns_db_dir_ver_ent& row, uint32_t def_scope_finished) {
  return tvr_db_is_def_scope(row.scope) && def_scope_finished > row.scope_gn ? def_scope_finished : row.scope_gn;
}
// Forgets which names this process saw marked or changed; the next end of the default scope walks it.
// Called at every open of the database.
void tvr_db_forget_scope_end_visits();
int tvr_db_begin_def_scope_silo_load(const tbs_uuid_s& uuid, uint32_t gn);    // 0 at once
int tvr_db_end_def_scope_silo_load(const tbs_uuid_s& uuid, uint32_t gn);      // 0 at once
int tvr_db_begin_def_scope_silo_update(const tbs_uuid_s& uuid, uint32_t gn);  // 0 at once
int tvr_db_end_def_scope_silo_update(const tbs_uuid_s& uuid, uint32_t gn);    // 0 at once
// Removes every name of the scope (each removal clears the parent's rddir_done) and, unless it is the
// default scope, the scope row.
int tvr_db_delete_lr_scope(const tbs_oid_s& oid);
// Keeps the objects: every name moves to `target`'s scope (the default scope when null), taking its OID and
// generation; the scope row goes when `delete_row` is set and it is not the default scope.
int tvr_db_remove_lr_scope(const tbs_oid_s& oid, int delete_row, const tbs_oid_s* target);

// ---- creating objects ----------------------------------------------------------------------------------------
// `scope` null means the default scope. `load_state`: 0 on demand, 1 a directory that the running load lists
// completely, 2 an update. Every create is safe to run again with the same data: the second run changes
// nothing but generations and marks that the first already set.
//
// The identity row alone: takes the next dbid of the silo. 1067 when the OID exists.
int tvr_db_create_vns_obj(DB_ADDR silo_dba, const tbs_oid_s& oid, silo_mtype_t mtype, const tbs_fstat_db_t& fstat,
                          uint32_t* dbid);
// An element (2 or 5); an existing one only takes the check-out flag (and `co_ver` when given).
// `changed` (optional) receives 0 when the element existed with that flag and OID already, else 1.
int tvr_db_create_vns_elem(uint32_t silo, const tbs_oid_s& oid, silo_mtype_t mtype, const struct timeval& event_time,
                           const tbs_fstat_db_t& fstat, int checked_out, const tbs_oid_s* co_ver, uint32_t* dbid,
                           int* changed = nullptr);
// A version (3, 6, 8) of the element `elem_oid` (which must exist) under `name` in directory version
// `parent`. *dbid receives the version's dbid. `hardlink_oid` (optional, directories): the scope of another
// name of this directory version whose scope differs, else null. `out_oid` (optional): the OID of the
// object the name showed before when this call replaced it (an evil twin or another version), else null.
// `same` (optional) receives 1 when the name already showed this version (only its scope, generation and
// marks were brought up to date), else 0.
int tvr_db_create_vns_ver(uint32_t silo, uint32_t parent, const tbs_oid_s& oid, const tbs_oid_s& elem_oid,
                          silo_mtype_t mtype, const struct timeval& event_time, const char* name,
                          const tbs_fstat_db_t& fstat, const tbs_oid_s* scope, uint32_t gn, int load_state,
                          uint32_t* dbid, tbs_oid_s* hardlink_oid, tbs_oid_s* out_oid, int* same = nullptr);
// The silo's root directory version (no name, no parent); becomes SILO_ROOT_DBID.
int tvr_db_create_root_dir(uint32_t silo, const tbs_oid_s& oid, const tbs_oid_s& elem_oid,
                           const struct timeval& event_time, const tbs_fstat_db_t& fstat, const tbs_oid_s* scope,
                           uint32_t gn, int load_state, uint32_t* dbid);
// A symbolic link (type 7; its own element). Text over 1023 bytes gives 1084. `same` as above.
int tvr_db_create_vns_slink(uint32_t silo, uint32_t parent, const tbs_oid_s& oid, const struct timeval& event_time,
                            const char* name, const char* text, const tbs_oid_s* scope, uint32_t gn,
                            uint32_t* dbid, int* same = nullptr);

// The creation check: what the server says now (oid, elem_oid, mtype under `name` in `parent`) against
// the local rows. Exactly one of the flags or none is set (same_ver implies same_elem); *entry is the name
// row it concerns (0 when none).
struct tvr_db_creation_check_t {
  bool evil_twin = false, same_elem = false, same_ver = false, changed_ver = false, existing = false;
  uint32_t existing_dbid = 0;
  DB_ADDR entry = 0;
  bool by_name = false;  // the row was found under the name asked for (not through the OID)
};
int tvr_db_obj_creation_check(DB_ADDR silo_dba, const tbs_oid_s& oid, const tbs_oid_s& elem_oid, uint32_t parent,
                              silo_mtype_t mtype, const char* name, tvr_db_creation_check_t* result);
// Removes the name row `entry` in `parent` and what only it kept alive (the whole subtree of a directory).
int tvr_db_handle_evil_twins(uint32_t parent, DB_ADDR entry);

// ---- lookups and reads ---------------------------------------------------------------------------------------------
// By (silo DBA, dbid): *found 0 and status 0 when there is no row.
int tvr_db_obj_lookup(DB_ADDR silo_dba, uint32_t dbid, int* found, DB_ADDR* dba);
int tvr_db_ver_lookup(DB_ADDR silo_dba, uint32_t dbid, int* found, DB_ADDR* dba);
int tvr_db_elem_lookup(DB_ADDR silo_dba, uint32_t dbid, int* found, DB_ADDR* dba);
int tvr_db_slink_lookup(DB_ADDR silo_dba, uint32_t dbid, int* found, DB_ADDR* dba);
int tvr_db_dir_ver_lookup(DB_ADDR silo_dba, uint32_t dbid, int* found, DB_ADDR* dba);
int tvr_db_dir_ver_ent_lookup(DB_ADDR silo_dba, uint32_t dbid, int* found, DB_ADDR* dba);  // first name row
// The name row of `name` in directory `dir` (0 with a null name: the root's row); *found 0 when absent.
int tvr_db_dir_ver_ent_lookup_name(DB_ADDR silo_dba, uint32_t dir, const char* name, int* found, DB_ADDR* dba);
// By OID: 1002 when absent; a row of an unexpected type gives 1002 too.
int tvr_db_vns_obj_lookup(DB_ADDR silo_dba, const tbs_oid_s& oid, uint32_t* dbid, silo_mtype_t* mtype);
int tvr_db_lookup_obj_oid(DB_ADDR silo_dba, uint32_t dbid, tbs_oid_s* oid, silo_mtype_t* mtype);
int tvr_db_vns_elem_lookup(DB_ADDR silo_dba, const tbs_oid_s& oid, uint32_t* dbid);
// A stale version answers 1033 with *dbid filled in.
int tvr_db_vns_ver_lookup(DB_ADDR silo_dba, const tbs_oid_s& oid, uint32_t* dbid, silo_mtype_t* mtype);
int tvr_db_vns_slink_lookup(DB_ADDR silo_dba, const tbs_oid_s& oid, uint32_t* dbid);
// Name lookup with the trust table: no row 1002; a row not validated 1033; a validated version (3, 6, 8)
// that is stale 1033; otherwise 0. The outputs (any may be null) are filled whenever a row is found.
int tvr_db_vns_ver_lookup_name(uint32_t silo, uint32_t dir, const char* name, uint32_t* dbid, silo_mtype_t* mtype,
                               tbs_oid_s* scope_oid, uint32_t* gn);

int tvr_db_get_obj_info(uint32_t silo, uint32_t dbid, vns_db_obj* obj);
int tvr_db_obj_get_mtype(uint32_t silo, uint32_t dbid, silo_mtype_t* mtype);
int tvr_db_get_vns_elem_info(uint32_t silo, uint32_t dbid, vns_db_obj* obj, vns_db_elem* elem);
int tvr_db_get_ver_info(uint32_t silo, uint32_t dbid, vns_db_obj* obj, vns_db_ver* ver);
// The version's element: its identity row.
int tvr_db_get_ver_elem_info(uint32_t silo, uint32_t dbid, vns_db_obj* elem_obj);
int tvr_db_get_slink_info(uint32_t silo, uint32_t dbid, vns_db_obj* obj, std::string* text);
int tvr_db_get_root_dir_info(uint32_t silo, vns_db_obj* obj);  // 1002 without a root
// The attributes of an object as the view shows them (link count = number of names).
int tvr_db_get_ver_vstat(uint32_t silo, uint32_t dbid, view_vstat_t* vstat);
// Scope of the object's first name: its row DBA, or its OID and generation.
int tvr_db_get_ver_scope(uint32_t silo, uint32_t dbid, DB_ADDR* scope_dba);
int tvr_db_get_ver_scope_oid(uint32_t silo, uint32_t dbid, tbs_oid_s* scope_oid, uint32_t* gn);
// Directory version holding the object's first name (0 for a root).
int tvr_db_ver_get_parent(uint32_t silo, uint32_t dbid, uint32_t* parent);
// The path of a version from its SILO's root by first names: "" for the root, else "/a/b". 1002 when the
// version is not held; a chain deeper than 4096 directories (a damaged database) is an internal error.
int tvr_db_ver_path(uint32_t silo, uint32_t dbid, std::string* path);
int tvr_db_ver_get_elem(uint32_t silo, uint32_t dbid, uint32_t* elem_dbid);
// First version of an element that the view holds (1002 when none).
int tvr_db_elem_get_ver(uint32_t silo, uint32_t elem_dbid, uint32_t* ver_dbid);
// Element of the directory holding the object's first name (0 for a root).
int tvr_db_obj_get_parent_elem(uint32_t silo, uint32_t dbid, uint32_t* parent_elem);
int tvr_db_ver_get_sub_vers(uint32_t silo, uint32_t dbid, std::vector<tvr_db_dirent>& names);
int tvr_db_ver_get_sub_vers_dbid(DB_ADDR silo_dba, uint32_t dbid, std::vector<tvr_db_sub_vers>& subs);
int tvr_db_get_silo_root_dir(uint32_t silo, uint32_t* root_dbid);  // 1002 without a root
int tvr_db_silo_has_root_dir(uint32_t silo, int* has);
int tvr_db_silo_get_uuid(uint32_t silo, tbs_uuid_s* uuid);

// ---- marks ------------------------------------------------------------------------------------------------------------
int tvr_db_ver_get_stale(uint32_t silo, uint32_t dbid, int* stale);
int tvr_db_ver_set_stale(uint32_t silo, uint32_t dbid, int stale);
// Element (2, 5): all its versions (with 0 they also go stale); version or link: itself. Every name row of
// those objects takes `validated`; with 0 a directory's own names lose it as well and its rddir_done clears.
int tvr_db_obj_set_validated(uint32_t silo, uint32_t dbid, int validated);
int tvr_db_obj_get_validated(uint32_t silo, uint32_t dbid, int* validated);
// Every name row of one version or link.
int tvr_db_ver_set_validated(uint32_t silo, uint32_t dbid, int validated);
int tvr_db_ver_get_validated(uint32_t silo, uint32_t dbid, int* validated);
int tvr_db_ver_get_readdir_done(uint32_t silo, uint32_t dbid, int* done);
// rddir_done := done (kept 0 while a saved state of 2 or 3 waits); with done 1 the names that the complete
// listing did not confirm (validated 0) are removed; *removed tells whether one of them went stale instead.
int tvr_db_ver_set_readdir_done(uint32_t silo, uint32_t dbid, int done, bool& removed);
int tvr_db_ver_set_readdir_done_only(DB_ADDR silo_dba, uint32_t dbid, int done);
// rddir_done 1; with `load_done` every name of the directory becomes validated first.
int tvr_db_ver_set_load_done(uint32_t silo, uint32_t dbid, int load_done);
int tvr_db_mark_saved_readdir_done(DB_ADDR silo_dba, uint32_t dbid, const tbs_oid_s* scope, int load_state);
int tvr_db_mark_sub_ver_stale(DB_ADDR silo_dba, uint32_t dbid, int stale);
// Marks the name `name` of object `obj` in directory `dir` for removal at the end of the next scope update
// (obj 0: whatever the name shows). 1002 when there is no such name.
int tvr_db_mark_dir_ent_remove(uint32_t silo, uint32_t dir, uint32_t obj, const char* name);
// Check-out mark of an element, given the element or any of its versions: the flag, and the OID when
// `ver_oid` is not null. Nothing is written when both are as asked already; `changed` (optional) tells
// whether anything was.
int tvr_db_elem_set_checkedout(uint32_t silo, uint32_t dbid, const tbs_oid_s* ver_oid, int checked_out,
                               int* changed = nullptr);
int tvr_db_elem_get_checkedout(uint32_t silo, uint32_t dbid, int* checked_out, tbs_oid_s* ver_oid);
int tvr_db_has_checkouts(bool* any);
int tvr_db_find_checkouts(std::vector<tavrel_hijack_co_info>& out);

// ---- moving and removing ---------------------------------------------------------------------------------------------
int tvr_db_dir_ver_ent_move(DB_ADDR silo_dba, uint32_t new_dbid, DB_ADDR entry, const tbs_oid_s* scope, uint32_t gn,
                            int* scope_changed, uint32_t* old_dbid);
int tvr_db_dir_ver_ent_reconn_scope(DB_ADDR entry, DB_ADDR scope_dba);
int tvr_db_dir_ver_ent_update_scope(DB_ADDR entry, const tbs_oid_s* scope, uint32_t gn, tbs_oid_s* hardlink_oid,
                                    int* changed, int* to_default);
int tvr_db_dir_ver_reconn_sub_ver_scope(DB_ADDR silo_dba, uint32_t dbid, const tbs_oid_s* scope);
// Moves every name of directory `old_dbid` to `new_dbid`, unvalidated; with `keep` the new directory's
// saved state records whether the old one was done (2) or not (1).
int tvr_db_dir_ver_update_dbid(DB_ADDR silo_dba, uint32_t old_dbid, uint32_t new_dbid, int keep);
// Number of names of the version of name row `entry`; with 2 or more, `oid` (if given) receives the first
// other name's scope that differs from this row's, and without `oid` every other name's scope is listed.
int tvr_db_ver_has_hardlink(DB_ADDR entry, int* count, tbs_oid_s* oid, std::vector<tbs_oid_s>& scopes);
// Removes the name `entry` (or, with entry 0, the name in `parent`) of object dbid, and with its last name
// the object (type 3, 6, 8: directory, version and identity rows; 7: link). Directory subtrees go too.
int tvr_db_remove_version(DB_ADDR silo_dba, uint32_t dbid, silo_mtype_t mtype, uint32_t parent, DB_ADDR entry,
                          bool& went_stale);
int tvr_db_remove_one_ver(DB_ADDR silo_dba, uint32_t dbid, uint32_t parent, DB_ADDR entry);
int tvr_db_remove_one_slink(DB_ADDR silo_dba, uint32_t dbid, uint32_t parent, DB_ADDR entry);
int tvr_db_remove_one_dir_ver_ent(DB_ADDR entry);
// Removes a version by dbid from under its first name; an element answers 1002.
int tvr_db_delete_vns_ver(uint32_t silo, uint32_t dbid);

// ---- cleaning ---------------------------------------------------------------------------------------------------------
// Deletes every directory, name, version and link row and the identity rows of those objects (with `all`
// also the elements), every scope but the default one (recreated), and clears every silo's root (with
// `all` its dbid counter restarts). Goes on past failures, reporting each; 1008 if any failed.
int tvr_db_cleanup_vns_recs(int all);
// Deletes every element that holds no version, with its identity row.
int tvr_db_cleanup_unused_elem();
