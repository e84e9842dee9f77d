// Tavrel_View_db_silo: the view database's row of one SILO replica, by its uuid. Each call runs in a
// transaction of its own. Results as in tavrel_view_db_object.h.
#pragma once

#include <cstdint>
#include <string>

#include "base/tbs.h"

class Tavrel_View_db_silo {
 public:
  explicit Tavrel_View_db_silo(const tbs_uuid_s& replica) : m_replica(replica) {}

  // The row's dbid: 0, 20002 when the database does not know the replica, 20001 on failure.
  int lookup_silo(unsigned& silo_dbid);
  // Makes the row with the stored text `path` ("host:path"); an existing row is kept and answers 0 with
  // its dbid.
  int create_silo(const std::string& path, unsigned& silo_dbid);

 private:
  tbs_uuid_s m_replica;
};
