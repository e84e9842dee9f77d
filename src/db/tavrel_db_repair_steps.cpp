// TRANSITIONAL: the build-session cleanup and the container scrubber land in their own modules.
#include "db/tavrel_engine_db.h"

int tvr_db_start_cleanup() { return 0; }

int tvr_db_start_scrubber() { return 0; }
