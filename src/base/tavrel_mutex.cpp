#include "base/tavrel_mutex.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

const char* tavrel_lock_rank_name(Tavrel_Lock_Rank rank) {
  switch (rank) {
#define RANK(n) \
  case Tavrel_Lock_Rank::n: \
    return #n;
    RANK(VIEW_REQUEST)
    RANK(SERVER_SESSION)
    RANK(UPDATE_GATE)
    RANK(CONFIG)
    RANK(NS_CACHE)
    RANK(SCOREBOARD_WORKER)
    RANK(OID_STRIPE)
    RANK(DB_ENGINE)
    RANK(CLIENT_REQUEST)
    RANK(CLIENT_RESPONSE)
    RANK(SCOREBOARD)
    RANK(THREAD_REQUESTS)
    RANK(THREAD_QUEUE)
    RANK(THREAD_OUTSTANDING)
    RANK(WAN_SESSION_CREATE)
    RANK(WAN_SESSION)
    RANK(CURL_INIT)
    RANK(VIEW_ROOT)
    RANK(KFSM_HANDLES)
    RANK(LEAF)
    RANK(LOG_INSTANCE)
    RANK(LOG_FILE)
    RANK(TRACE)
#undef RANK
  }
  return "?";
}

#if defined(TAVREL_LOCK_ORDER_CHECKS)
namespace tavrel_lock_order {
namespace {

// What one thread holds, in the order first taken. Ranks only ever grow along the stack; the
// re-entries of a recursive mutex count in the depth of its one entry (a walk up a deep tree re-enters
// the cache mutex once per level). A release may come out of order (unique_lock, wait), so an entry is
// taken out wherever it stands.
struct Held {
  const void* mutex;
  Tavrel_Lock_Rank rank;
  const char* name;
  int depth;
};
thread_local Held t_held[MAX_HELD];
thread_local int t_count = 0;

// Writes the message with no lock of ours and no allocation (the trace and the log take locks) and
// ends the process.
[[noreturn]] void fail(const char* text) {
  size_t len = 0;
  while (text[len]) len++;
  ssize_t ignored = write(2, text, len);
  (void)ignored;
  abort();
}

}  // namespace

void check_lock(const void* mutex, Tavrel_Lock_Rank rank, const char* name) {
  // The highest rank held decides: a lock at or below it could wait for a thread that waits for us.
  int top = -1;
  for (int i = 0; i < t_count; i++)
    if (top < 0 || t_held[i].rank >= t_held[top].rank) top = i;
  if (top < 0 || rank > t_held[top].rank) return;
  const Held& h = t_held[top];
  char text[512];
  if (h.mutex == mutex)
    snprintf(text, sizeof text, "lock order: \"%s\" (%s) locked again by the thread that holds it\n", name,
             tavrel_lock_rank_name(rank));
  else
    snprintf(text, sizeof text, "lock order: taking \"%s\" (%s) while holding \"%s\" (%s)\n", name,
             tavrel_lock_rank_name(rank), h.name, tavrel_lock_rank_name(h.rank));
  fail(text);
}

void note_locked(const void* mutex, Tavrel_Lock_Rank rank, const char* name) {
  for (int i = 0; i < t_count; i++)
    if (t_held[i].mutex == mutex) {
      t_held[i].depth++;
      return;
    }
  if (t_count >= MAX_HELD) {
    char text[512];
    snprintf(text, sizeof text, "lock order: taking \"%s\" (%s) with %d locks held already\n", name,
             tavrel_lock_rank_name(rank), t_count);
    fail(text);
  }
  t_held[t_count++] = Held{mutex, rank, name, 1};
}

void note_unlocked(const void* mutex, const char* name) {
  for (int i = t_count - 1; i >= 0; i--) {
    if (t_held[i].mutex != mutex) continue;
    if (--t_held[i].depth > 0) return;
    for (int j = i; j + 1 < t_count; j++) t_held[j] = t_held[j + 1];
    t_count--;
    return;
  }
  char text[512];
  snprintf(text, sizeof text, "lock order: \"%s\" released by a thread that does not hold it\n", name);
  fail(text);
}

bool held_by_me(const void* mutex) {
  for (int i = 0; i < t_count; i++)
    if (t_held[i].mutex == mutex) return true;
  return false;
}

int held_count() {
  int n = 0;
  for (int i = 0; i < t_count; i++) n += t_held[i].depth;
  return n;
}

void assert_held(const void*, bool held, const char* name, const char* file, int line) {
  if (held) return;
  char text[512];
  snprintf(text, sizeof text, "lock order: \"%s\" must be held here (%s:%d)\n", name, file, line);
  fail(text);
}

}  // namespace tavrel_lock_order
#endif
