// Tavrel_View_db_version: a directory version (kind 3) or file version (6, 8) of the view database, with
// the marks that tell how far its rows may be trusted: stale (the version must be confirmed before it is
// shown), readdir done (every name of the directory is here) and the generation of its name. See
// tavrel_view_db_object.h for the life of these objects and their results.
#pragma once

#include <vector>

#include "fs/tavrel_view_db_abstract_ver.h"

class Tavrel_View_db_version : public Tavrel_View_db_abstract_ver {
 public:
  Tavrel_View_db_version(const tbs_uuid_s& replica, uint32_t dbid) : Tavrel_View_db_abstract_ver(replica, dbid) {}

  // Finds the SILO and the version's element; 20002 when the dbid is no version of that SILO.
  int load_data() override;
  int set_stale(bool stale);
  // False also on any failure.
  bool is_stale();
  // Marks the directory's listing complete; with `load_done` every name in it becomes validated first.
  int set_load_done(bool load_done);
  // The names of the directory, in the database's order: name, namlen, dbid, ver_type (the name's kind),
  // elem_type (the kind of its element), off (1-based position). Other fields are zero.
  int readdir(std::vector<tavrel_dirent>& names);
  // The version's attributes, its element's attributes and the element's dbid.
  int get_info(tavrel_vstat& obj, tavrel_vstat& elem, uint32_t& elem_dbid);
  // True when the listing is marked complete and the generation of the directory's name is not older
  // than the view's current generation (Tavrel_View::get_current_gn): a new generation of the view makes
  // every listing unknown without touching its rows. False on any failure.
  bool is_readdir_done();
  // Writes the listing mark. With `done`, names that the complete listing did not confirm go (*removed
  // tells whether one of them went stale instead of going).
  int set_readdir_done(bool done, bool& removed);
  // Looks `name` up in this directory. Database statuses, not mapped: 0 found and trusted; 1002 unknown;
  // 1033 found but to be confirmed (the name not validated, or the version stale); ver_dbid and mtype are
  // filled for 0 and 1033. 1001 when the SILO cannot be loaded.
  int lookup(const char* name, uint32_t& ver_dbid, silo_mtype_t& mtype);
  // Stores version `oid` (kind `mtype`: 3, 6 or 8) of the existing element `elem_oid` under `name` in
  // directory version `parent`, with the attributes and event time of `vstat`, in load scope `scope` (null
  // OID: the default scope) at generation `gn`. `load_state`: 0 on demand, 1 a directory that a running
  // load lists completely, 2 an update. The object then stands for the version; *dbid receives its dbid.
  int create(uint32_t parent, const tbs_oid_s& oid, const tbs_oid_s& elem_oid, silo_mtype_t mtype,
             const view_vstat_t& vstat, const char* name, const tbs_oid_s& scope, uint32_t gn, int load_state,
             uint32_t* dbid);
};
