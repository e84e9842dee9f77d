#include "base/imsg.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <vector>

#include "base/strutl.h"
#include "base/tavrel_mutex.h"

namespace {
// A leaf: the redirect procedure runs outside it.
Tavrel_Mutex g_redirect_mutex{Tavrel_Lock_Rank::LEAF, "message redirection"};
imsg_redirect_proc_t g_procs[11];
int g_proc_count = 0;
void* g_context = nullptr;

// Below every lock of ours (the trace lock takes it); nothing is taken under it.
std::shared_mutex g_filter_mutex;
std::vector<std::string> g_subsys;
std::atomic<int> g_verbosity{0};
}  // namespace

void imsg_set_redirect_procs(const imsg_redirect_proc_t* procs, int count, void* context) {
  std::lock_guard<Tavrel_Mutex> g(g_redirect_mutex);
  g_proc_count = count < 0 ? 0 : (count > 11 ? 11 : count);
  for (int i = 0; i < g_proc_count; i++) g_procs[i] = procs[i];
  g_context = context;
}

void imsg_append_proc_suppress(void*, const char*) {}

void imsg_print(imsg_kind_t kind, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string text = strutl_vformat(fmt, ap);
  va_end(ap);
  imsg_redirect_proc_t proc = nullptr;
  void* ctx = nullptr;
  {
    std::lock_guard<Tavrel_Mutex> g(g_redirect_mutex);
    if (static_cast<int>(kind) < g_proc_count) {
      proc = g_procs[kind];
      ctx = g_context;
    }
  }
  if (proc) {
    proc(ctx, text.c_str());
  } else if (kind == IMSG_WARN || kind == IMSG_ERR) {
    fputs(text.c_str(), stderr);
  }
}

size_t imsg_vsnprintf(char* buf, size_t size, const _imsg_message_table_t* table, int number, va_list ap) {
  if (!table || number < 0 || number >= table->count || !table->texts[number]) {
    std::string s = strutl_format("%s: unknown message %d", table ? table->prefix : "imsg", number);
    return strutl_cpy_buf(buf, size, s.c_str());
  }
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  return strutl_vsnprintf(buf, size, table->texts[number], ap);
#pragma GCC diagnostic pop
}

std::string imsg_vformat(const _imsg_message_table_t* table, int number, va_list ap) {
  if (!table || number < 0 || number >= table->count || !table->texts[number])
    return strutl_format("%s: unknown message %d", table ? table->prefix : "imsg", number);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  return strutl_vformat(table->texts[number], ap);
#pragma GCC diagnostic pop
}

std::string imsg_format(const _imsg_message_table_t* table, int number, ...) {
  va_list ap;
  va_start(ap, number);
  std::string s = imsg_vformat(table, number, ap);
  va_end(ap);
  return s;
}

void imsg_set_trace_subsys(const char* list) {
  std::unique_lock<std::shared_mutex> g(g_filter_mutex);
  g_subsys.clear();
  if (!list) return;
  const char* p = list;
  while (*p) {
    const char* colon = strchr(p, ':');
    size_t len = colon ? static_cast<size_t>(colon - p) : strlen(p);
    if (len) g_subsys.emplace_back(p, len);
    if (!colon) break;
    p = colon + 1;
  }
}

void imsg_set_trace_verbosity(int level) { g_verbosity.store(level); }
int imsg_get_desired_verbosity() { return g_verbosity.load(); }

bool imsg_should_trace(const char* subsystem, int level) {
  if (level > g_verbosity.load()) return false;
  std::shared_lock<std::shared_mutex> g(g_filter_mutex);
  for (const auto& s : g_subsys)
    if (subsystem && s == subsystem) return true;
  return false;
}
