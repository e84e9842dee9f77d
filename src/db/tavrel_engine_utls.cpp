#include "db/tavrel_engine_utls.h"

#include "base/tbs.h"

int tvr_db_dbid_to_dba(uint32_t dbid, DB_ADDR* dba) {
  if (dbid == 0) return TBS_ST_NOT_FOUND;
  if ((dbid & TVR_DB_DBID_FLAG) == 0) return TBS_ST_INTERNAL;
  *dba = dbid & ~TVR_DB_DBID_FLAG;
  return 0;
}

uint32_t tvr_db_hash_name(const char* name, size_t len) {
  uint32_t h = 0;
  for (size_t i = 0; i < len; i++) h = ((h << 5) | (h >> 27)) + (uint32_t)(int32_t)(signed char)name[i];
  return h;
}
