// Tavrel_View_db_abstract_ver: what a directory or file version of the view database and the SILO's root
// directory have in common: the element they belong to, the load scope that vouches for their name, and
// the validated marks of the names inside a directory. See tavrel_view_db_object.h for the life of these
// objects and their results.
#pragma once

#include "fs/tavrel_view_db_object.h"

class Tavrel_View_db_abstract_ver : public Tavrel_View_db_object {
 public:
  Tavrel_View_db_abstract_ver(const tbs_uuid_s& replica, uint32_t dbid) : Tavrel_View_db_object(replica, dbid) {}

  int get_rvstat(tavrel_vstat& vstat) override;
  // Finds the SILO and the version (the root directory: the SILO's root); fills elem_dbid().
  int load_data() override = 0;
  // The scope OID and generation of the version's first name.
  virtual int get_scope(tbs_oid_s& scope_oid, unsigned& gn);
  // Clears the validated mark of the names of whatever `name` shows in this directory, so the next
  // lookup of it asks the server. 20002 when the directory holds no such name.
  virtual int invalidate_name(const char* name);

  uint32_t elem_dbid() const { return m_elem_dbid; }

 protected:
  uint32_t m_elem_dbid = 0;  // the element's dbid, filled by load_data
};
