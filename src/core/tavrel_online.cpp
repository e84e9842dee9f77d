#include "core/tavrel_online.h"

#include <atomic>

namespace {
std::atomic<bool> g_online{true};
}  // namespace

bool tavrel_is_online() { return g_online.load(std::memory_order_acquire); }
void tavrel_set_online(bool online) { g_online.store(online, std::memory_order_release); }
