// The shared pieces of the private record family: clock, handles, name-state bits (tvr_db_store.h).
#include "db/tvr_db_store.h"

#include <atomic>

#include "base/tbs.h"
#include "core/tavrel_trace.h"
#include "db/rec/dt.h"
#include "db/tavrel_engine_db.h"
#include "db/tavrel_engine_utls.h"

namespace {

std::atomic<tvr_db_view_time_fn> g_view_time{nullptr};

}  // namespace

uint16_t tvr_db_name_state_to_bits(uint32_t state) {
  uint16_t bits = 0;
  if (state & TVR_DB_NS_HIJACK_PART) bits |= 1;
  if (state & TVR_DB_NS_HIJACK_OIDS) bits |= 2;
  if (state & TVR_DB_NS_HIJACKED) bits |= 4;
  return bits;
}

uint32_t tvr_db_name_state_from_bits(uint16_t bits) {
  uint32_t state = TVR_DB_NS_VIEW_SIDE;
  if (bits & 1) state |= TVR_DB_NS_HIJACK_PART;
  if (bits & 2) state |= TVR_DB_NS_HIJACK_OIDS;
  if (bits & 4) state |= TVR_DB_NS_HIJACKED;
  return state;
}

void tvr_db_set_view_time_fn(tvr_db_view_time_fn fn) { g_view_time.store(fn); }

void tvr_db_view_time(struct timeval* now) {
  tvr_db_view_time_fn fn = g_view_time.load();
  if (fn != nullptr) {
    fn(now);
  } else {
    gettimeofday(now, nullptr);
  }
}

void tvr_db_fix_dir_modtime(const struct timeval* floor, struct timeval* out) {
  tvr_db_view_time(out);
  if (floor == nullptr) return;
  if (floor->tv_sec > out->tv_sec || (floor->tv_sec == out->tv_sec && floor->tv_usec > out->tv_usec)) {
    Tavrel_Trace trace(TAVREL_DB, "tvr_db", "fix_dir_modtime");
    trace.writeTrace("fixing up mtime due to futuristic SILO\n");
    *out = *floor;
    out->tv_usec += 1;
    if (out->tv_usec > 999999) {
      out->tv_usec -= 1000000;
      out->tv_sec += 1;
    }
  }
}

int tvr_db_handle_row(uint32_t dbid, int rec, DB_ADDR* dba) {
  DB_ADDR d = 0;
  int st = tvr_db_dbid_to_dba(dbid, &d);
  if (st != 0) return st;
  st = dt_crset(&d, view_db_task, -1);
  if (st == S_DELETED || st == S_INVADDR) return TBS_ST_STALE;
  if (st != 0) return tvr_engine_err("D_CRSET", "DB_ADDR", st);
  int type = 0;
  st = dt_crtype(&type, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_CRTYPE", "DB_ADDR", st);
  if (type != rec) return TBS_ST_STALE;
  *dba = d;
  return 0;
}

int tvr_db_read_row(DB_ADDR dba, void* buf, const char* label) {
  int st = dt_crset(&dba, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_CRSET", label, st);
  st = dt_recread(buf, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_RECREAD", label, st);
  return 0;
}
