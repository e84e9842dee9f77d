// The resolver's direct use of the namespace records, kept apart: the record layer's own listing entry
// (db/tvr_db_vns.h) and the wire's (proto/tavrel_records.h) share a name, so no file may include both.
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_vns.h"
#include "fs/tavrel_metadata.h"

int Tavrel_Metadata::cleanup_vns_recs(int all) {
  return tvr_db_in_trans(1, [all] { return tvr_db_cleanup_vns_recs(all); });
}
