// Tavrel_View_db_element: an element row (kind 2 directory element, 5 file element) of the view database,
// with its check-out mark. See tavrel_view_db_object.h for the life of these objects and their results.
#pragma once

#include "fs/tavrel_view_db_object.h"

class Tavrel_View_db_element : public Tavrel_View_db_object {
 public:
  Tavrel_View_db_element(const tbs_uuid_s& replica, uint32_t dbid) : Tavrel_View_db_object(replica, dbid) {}
  // An element found later by get_info.
  Tavrel_View_db_element() : Tavrel_View_db_object(tbs_uuid_s{}, 0) {}

  int get_rvstat(tavrel_vstat& vstat) override;
  // Finds the element `oid` of replica `replica` and makes this object stand for it. True with *dbid set;
  // false with *status 20002 for an unknown SILO or element (or an OID that is not an element's), 20001
  // on failure.
  bool get_info(const tbs_uuid_s& replica, const tbs_oid_s& oid, uint32_t* dbid, int* status);
  // Sets the check-out mark to the version `ver_oid`; a null OID clears the mark.
  int set_co_ver_oid(const tbs_oid_s& ver_oid);
  // The checked-out version's OID; null when the element is not checked out.
  int get_co_ver_oid(tbs_oid_s& ver_oid);
  // A version of the element that the view holds: 0, 20002 when it holds none.
  int get_any_version(uint32_t& ver_dbid);
  // Writes the check-out flag, and the version OID only when `ver_oid` is not null (a null pointer keeps
  // the OID written before).
  int set_elem_co_ver_oid(const tbs_oid_s* ver_oid, bool checked_out);
};
