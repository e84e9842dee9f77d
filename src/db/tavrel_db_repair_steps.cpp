// TRANSITIONAL: the loader, the check after a load, the build-session cleanup and the container
// scrubber land in their own modules; until then a repair cannot complete and says so.
#include "base/imsg.h"
#include "base/tbs.h"
#include "db/tavrel_engine_db.h"

int tvr_db_load_db() {
  imsg_print(IMSG_ERR, "The view database loader is not part of this build\n");
  return TBS_ST_FAILURE;
}

int tvr_db_fsck_db() { return TBS_ST_FAILURE; }

int tvr_db_start_cleanup() { return 0; }

int tvr_db_start_scrubber() { return 0; }
