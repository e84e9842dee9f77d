// Tavrel_View_db_root_dir: the root directory version of a SILO in the view database. It has no name and
// no parent; the SILO row remembers it. See tavrel_view_db_object.h for the life of these objects and their
// results.
#pragma once

#include "fs/tavrel_view_db_abstract_ver.h"

class Tavrel_View_db_root_dir : public Tavrel_View_db_abstract_ver {
 public:
  explicit Tavrel_View_db_root_dir(const tbs_uuid_s& replica) : Tavrel_View_db_abstract_ver(replica, 0) {}

  // Finds the SILO and its root (dbid and element); 20002 when the SILO has no root yet.
  int load_data() override;
  // False also when the SILO is unknown or on failure.
  bool has_root_dir();
  int get_root_dir(uint32_t& ver_dbid);
  // The root's attributes, its element's attributes, and both dbids.
  int get_info(tavrel_vstat& obj, tavrel_vstat& elem, uint32_t& ver_dbid, uint32_t& elem_dbid);
  // Stores the root directory `obj` (a kind-3 version) with its element `elem` (kind 2) in one
  // transaction, in load scope `scope` (null OID: the default scope) at generation `gn`, `load_state` as
  // for versions. Safe to run again with the same data: the same dbids come back. Attributes of any other
  // kind, or an element OID that disagrees with the version's, give 20001 and store nothing.
  int create(const tbs_oid_s& scope, uint32_t gn, int load_state, const tavrel_vstat& obj, const tavrel_vstat& elem,
             uint32_t* ver_dbid, uint32_t* elem_dbid);
};
