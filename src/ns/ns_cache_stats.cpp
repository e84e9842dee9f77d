// The statistics of the four caches of the name service (declared in ns_cache.h): the snapshot that
// GetCache reports and the lines that cache_set_values code 1 prints.
#include <mutex>

#include "base/imsg.h"
#include "ns/ns_cache.h"
#include "ns/ns_lvut.h"

namespace {

// The counters at the previous snapshot, for the "delta" values. Under tavrel_cache_mutex().
ns_cache_counters last_name, last_readdir, last_fstat, last_obj;

double percent(double part, double whole) { return whole > 0 ? part * 100.0 / whole : 0.0; }

}  // namespace

void cache_reset_stats() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  obj_cache_stats = fstat_cache_stats = readdir_cache_stats = name_cache_stats = ns_cache_counters{};
  last_name = last_readdir = last_fstat = last_obj = ns_cache_counters{};
}

void cache_get_stats(std::vector<ns_statistic>& out) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  const ns_cache_budget b = ns_cache_get_budget();
  const ns_cache_counters &n = name_cache_stats, &r = readdir_cache_stats, &f = fstat_cache_stats,
                          &o = obj_cache_stats;
  const long values[NS_CACHE_STAT_COUNT] = {
      n.count, n.size, b.name_max,
      n.requests - last_name.requests, n.hits - last_name.hits, n.requests, n.hits,
      n.bh_miss - last_name.bh_miss, n.bh_miss,
      r.count, r.size, b.readdir_max,
      r.requests - last_readdir.requests, r.hits - last_readdir.hits, r.requests, r.hits,
      f.count, f.size, b.fstat_max,
      f.requests - last_fstat.requests, f.hits - last_fstat.hits, f.requests, f.hits, f.count,
      o.size, b.obj_cache_max,
      o.requests - last_obj.requests, o.hits - last_obj.hits, o.requests, o.hits,
      o.reclaims - last_obj.reclaims, o.reclaims,
      n.flushes, n.ejects, r.flushes, r.ejects, f.flushes, f.ejects, o.flushes, o.ejects,
      b.view_cache_size,
  };
  for (int id = 0; id < NS_CACHE_STAT_COUNT; id++)
    out.push_back(ns_statistic{static_cast<uint32_t>(id), static_cast<uint64_t>(values[id])});
  last_name = n;
  last_readdir = r;
  last_fstat = f;
  last_obj = o;
}

int ns_cache_get_stats(std::vector<ns_statistic>& out) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  cache_get_stats(out);
  return 0;
}

void cache_print_stats() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  const ns_cache_budget b = ns_cache_get_budget();
  const ns_cache_counters &n = name_cache_stats, &r = readdir_cache_stats, &f = fstat_cache_stats,
                          &o = obj_cache_stats;
  imsg_print(IMSG_OK,
             "    Object cache %4ld (%4.1fK) %3.0f%%, %4ld reqs, %3.0f%% hits, %3.0f%% reclaims\n\t%d flushes, %d "
             "ejects\n",
             o.count, o.size / 1024.0, percent(o.size, b.obj_cache_max), o.requests, percent(o.hits, o.requests),
             percent(o.reclaims, o.requests), static_cast<int>(o.flushes), static_cast<int>(o.ejects));
  imsg_print(IMSG_OK, "    Stat cache   %4ld (%4.1fK) %3.0f%%, %4ld reqs, %3.0f%% hits,\n\t%u flushes, %u ejects\n",
             f.count, f.size / 1024.0, percent(f.size, b.fstat_max), f.requests, percent(f.hits, f.requests),
             f.flushes, f.ejects);
  imsg_print(IMSG_OK, "    Dir cache    %4ld (%4.1fK) %3.0f%%, %4ld reqs, %3.0f%% hits\n\t%u flushes, %u ejects\n",
             r.count, r.size / 1024.0, percent(r.size, b.readdir_max), r.requests, percent(r.hits, r.requests),
             r.flushes, r.ejects);
  imsg_print(IMSG_OK,
             "    Lookup cache %4ld (%4.1fK) %3.0f%%, %4ld reqs, %3.0f%% hits %3.0f%% bh miss\n\t%u flushes, %u "
             "ejects\n",
             n.count, n.size / 1024.0, percent(n.size, b.name_max), n.requests, percent(n.hits, n.requests),
             percent(n.bh_miss, n.requests), n.flushes, n.ejects);
  imsg_print(IMSG_OK, "%s", lvut_stats_text().c_str());
}
