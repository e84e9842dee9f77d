#include "ns/ns_cache.h"

#include <mutex>

#include "base/tbs.h"

namespace {

ns_cache_budget g_budget{};  // under tavrel_cache_mutex()

void compute(uint32_t size) {
  g_budget.view_cache_size = size;
  g_budget.readdir_max = (uint32_t)((uint64_t)size * 4 / 10);
  uint32_t unit = (size - g_budget.readdir_max) / 392;
  g_budget.obj_cache_max = 200 * unit;
  g_budget.fstat_max = 144 * unit;
  g_budget.name_max = 48 * unit;
}

}  // namespace

Tavrel_Recursive_Mutex& tavrel_cache_mutex() {
  static Tavrel_Recursive_Mutex m(Tavrel_Lock_Rank::NS_CACHE, "tavrel_cache_mutex");
  return m;
}

int cache_init() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  compute(g_budget.view_cache_size < NS_CACHE_MIN_SIZE ? NS_CACHE_MIN_SIZE : g_budget.view_cache_size);
  return 0;
}

int cache_set_values(int count, const uint32_t* pairs) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  for (int i = 0; i < count; i++) {
    uint32_t code = pairs[2 * i], value = pairs[2 * i + 1];
    if (code != 0) continue;
    if (value >= 1 && value < NS_CACHE_MIN_SIZE) return TBS_ST_BAD_ARG;
    compute(value);
  }
  return 0;
}

int ns_cache_set_size(uint32_t size, bool enforce_minimum) {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  if (enforce_minimum && size < NS_CACHE_MIN_SIZE) size = NS_CACHE_MIN_SIZE;
  uint32_t pair[2] = {0, size};
  return cache_set_values(1, pair);
}

ns_cache_budget ns_cache_get_budget() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  return g_budget;
}
