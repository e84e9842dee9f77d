#include "ns/ns_lvut.h"

#include <cstdio>
#include <mutex>

#include "core/tavrel_trace.h"
#include "core/tavrel_util.h"
#include "ns/ns_cache.h"
#include "ns/ns_silo.h"

unsigned lvut_stats[NS_LVUT_REASONS];  // under tavrel_cache_mutex()

namespace {

const char* const kReasons[NS_LVUT_REASONS] = {"cached objects removed", "cached objects updated",
                                               "non-cached objects updated", "silo was flushed",
                                               "SILO was changed"};

bool is_view_private_kind(silo_mtype_t mtype) {
  return mtype == 19 || mtype == 21 || mtype == 22 || mtype == 23 || mtype == 26;
}

}  // namespace

void fstat_update_lvut(view_silo* silo, const obj_entry* obj, int reason) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  if (silo == nullptr || (obj != nullptr && is_view_private_kind(obj->mtype))) return;
  Tavrel_Trace trace(TAVREL, "ns_fstat", "fstat_update_lvut");
  Tavrel_Util::get_view_time(silo->lvut);
  trace.writeTrace(TRACE_LEVEL_4, "new LVUT reason %d: %ld.%06ld", reason, static_cast<long>(silo->lvut.tv_sec),
                   static_cast<long>(silo->lvut.tv_usec));
  if (reason >= 0 && reason < NS_LVUT_REASONS) lvut_stats[reason]++;
}

std::string lvut_stats_text() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  std::string out;
  char line[96];
  for (int i = 0; i < NS_LVUT_REASONS; i++) {
    snprintf(line, sizeof line, "\t%u %s\n", lvut_stats[i], kReasons[i]);
    out += line;
  }
  return out;
}
