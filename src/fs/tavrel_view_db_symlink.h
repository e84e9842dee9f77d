// Tavrel_View_db_symlink: a symbolic link of the view database (kind 7; a link is its own element). See
// tavrel_view_db_object.h for the life of these objects and their results.
#pragma once

#include <sys/time.h>

#include "fs/tavrel_view_db_object.h"

class Tavrel_View_db_symlink : public Tavrel_View_db_object {
 public:
  Tavrel_View_db_symlink(const tbs_uuid_s& replica, uint32_t dbid) : Tavrel_View_db_object(replica, dbid) {}

  // As the base, with the link's text in vstat.path.
  int get_rvstat(tavrel_vstat& vstat) override;
  // Stores the link `oid` with target `text` under `name` in directory version `parent`, in load scope
  // `scope` (null OID: the default scope) at generation `gn`; the object then stands for it and *dbid
  // receives its dbid. Running it again with the same data changes nothing but marks. A name over 255
  // bytes or a text over 1023 bytes gives 20001.
  int create(uint32_t parent, const tbs_oid_s& oid, const struct timeval& event_time, const char* name,
             const char* text, const tbs_oid_s& scope, uint32_t gn, uint32_t* dbid);
};
