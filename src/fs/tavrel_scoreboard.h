// Tavrel_Scoreboard<T>: merges concurrent equal fetches, so that one fetch of a directory or of a
// cleartext reaches the server however many threads want it at once.
//
// A caller wraps its work (a Tavrel_Scoreboard_Request, owned by the scoreboard) in a new scoreboard
// and calls check_duplicate(background):
//   - no equivalent fetch is registered: this scoreboard is registered and becomes the worker; true.
//   - one is registered and the caller is in the background: false. Somebody is already on it; the
//     caller release()s its scoreboard and does nothing.
//   - one is registered and the caller is in the foreground: this scoreboard is linked to it (its
//     `original`) and holds a reference on it; true.
// Then execute(): the worker runs the request's work holding its own `mutex` throughout; a linked
// scoreboard waits until the original's state is no longer 0 and takes the result from the
// original's request (get_status(), get_message()). Each holder calls release() once.
//
// States: 0 running or not started, 1 done, 2 cancelled, 3 failed (TAVREL_SB_*). A request whose
// execute() gives any other value counts as failed, so that no waiter can wait for ever.
//
// Guarantees:
// - A registered worker stays in the map until its last release (its own and every linked one's), so
//   a late comer attaches to a finished fetch and gets its result at once.
// - A linked scoreboard holds a reference on its original: the original's request, with its result,
//   lives until every waiter has read it.
// - cancel() gives state 2 to the cancelled scoreboard and wakes its waiters; a cancelled worker's
//   execute() no longer runs the work. A waiter of a cancelled fetch whose request recorded no failure
//   of its own gets the status 20026 (the view is ending), never a success with no data.
// - Every scoreboard and request is deleted at the last release, outside every lock.
//
// Locks: per instantiation a static g_lock (rank SCOREBOARD, a leaf) guards g_map, every refcnt,
// `original` and the counters; each scoreboard's `mutex` (rank SCOREBOARD_WORKER) guards its `state`
// and `waits` and is held by the worker for the whole work. g_lock is never held while waiting or
// working. cancel() takes the scoreboard's mutex and then g_lock. A waiter takes the original's mutex,
// lets it go, then takes its own.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "base/tavrel_mutex.h"
#include "core/tavrel_trace.h"
#include "proto/tavrel_status.h"

enum : int {
  TAVREL_SB_RUNNING = 0,  // running or not started
  TAVREL_SB_DONE = 1,
  TAVREL_SB_CANCELLED = 2,
  TAVREL_SB_FAILED = 3,
};

// The work a scoreboard runs once for every equivalent caller.
class Tavrel_Scoreboard_Request {
 public:
  virtual ~Tavrel_Scoreboard_Request() = default;
  // Does the work; fills `status` and appends to `message`. Returns TAVREL_SB_DONE or TAVREL_SB_FAILED.
  virtual int execute(int& status, std::string& message) = 0;
  // Equal for equivalent requests (unequal hashes are never compared).
  virtual uint32_t hash() const = 0;
  // The outcome of the work, read by the waiters after it finished.
  virtual int get_status() const = 0;
  virtual std::string get_message() const = 0;
  virtual bool equivalent(const Tavrel_Scoreboard_Request* other) const = 0;
};

template <class T>
class Tavrel_Scoreboard {
 public:
  // Takes `req` (owned from now on, deleted at the last release). refcnt is 1.
  explicit Tavrel_Scoreboard(T* req) : req(req) {}
  Tavrel_Scoreboard(const Tavrel_Scoreboard&) = delete;
  Tavrel_Scoreboard& operator=(const Tavrel_Scoreboard&) = delete;

  // Registers this scoreboard or links it to an equivalent one (see the top of the file).
  bool check_duplicate(bool background);
  // Runs the work (worker) or waits for it (linked). Returns the state; `status` and `message` as the
  // work left them.
  int execute(int& status, std::string& message);
  // The request that does the work: the end of the chain of originals.
  T* get_req();
  // Drops one reference; the last deletes the scoreboard (and releases its original). The caller must
  // not touch the scoreboard afterwards.
  void release();
  // Gives up this scoreboard's fetch: drops the link to an original, state 2, waiters woken.
  void cancel();

  // Whether this scoreboard waits on another one's work.
  bool is_linked() const;
  // Whether one of the two is the original of the other.
  bool linked_to(const Tavrel_Scoreboard* other) const;
  int get_state();
  uint32_t get_refcnt() const;
  uint32_t get_waits();

  struct Stats {
    size_t registered;     // workers in the map
    uint32_t max_refcnt;   // highest refcnt any scoreboard reached
    uint64_t waits;        // waits made on scoreboards destroyed so far
    uint32_t max_waits;    // most waits on one destroyed scoreboard
  };
  static Stats stats();

 private:
  ~Tavrel_Scoreboard() { delete req; }
  // Under g_lock: drops a reference; scoreboards to delete are added to `dead`.
  void release_locked(std::vector<Tavrel_Scoreboard*>& dead);
  static void destroy(std::vector<Tavrel_Scoreboard*>& dead);

  T* req;
  Tavrel_Scoreboard* original = nullptr;  // g_lock
  int state = TAVREL_SB_RUNNING;          // mutex
  uint32_t waits = 0;                     // mutex
  std::condition_variable_any cond;
  Tavrel_Mutex mutex{Tavrel_Lock_Rank::SCOREBOARD_WORKER, "Tavrel_Scoreboard::mutex"};
  uint32_t refcnt = 1;  // g_lock
  uint32_t maxref = 1;  // g_lock
  bool registered = false;  // g_lock: in g_map

  inline static Tavrel_Mutex g_lock{Tavrel_Lock_Rank::SCOREBOARD, "Tavrel_Scoreboard::g_lock"};
  inline static std::multimap<uint32_t, Tavrel_Scoreboard*> g_map;
  inline static uint32_t g_max_refcnt = 0;
  inline static uint64_t g_waits = 0;
  inline static uint32_t g_max_waits = 0;
};

template <class T>
bool Tavrel_Scoreboard<T>::check_duplicate(bool background) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Scoreboard", "check_duplicate");
  const uint32_t h = req->hash();
  std::lock_guard<Tavrel_Mutex> g(g_lock);
  if (registered || original != nullptr) return true;  // already checked
  auto [first, last] = g_map.equal_range(h);
  for (auto it = first; it != last; ++it) {
    Tavrel_Scoreboard* entry = it->second;
    trace.writeTrace(TRACE_LEVEL_5, "comparing %p(%u) to %p(%u)", static_cast<void*>(this), h,
                     static_cast<void*>(entry), it->first);
    if (!entry->req->equivalent(req)) continue;
    if (background) return false;
    ++entry->refcnt;
    if (entry->refcnt > entry->maxref) entry->maxref = entry->refcnt;
    if (entry->refcnt > g_max_refcnt) g_max_refcnt = entry->refcnt;
    original = entry;
    trace.writeTrace(TRACE_LEVEL_4, "referencing %p now refcnt %u", static_cast<void*>(entry), entry->refcnt);
    return true;
  }
  g_map.emplace(h, this);
  registered = true;
  return true;
}

template <class T>
int Tavrel_Scoreboard<T>::execute(int& status, std::string& message) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Scoreboard", "execute");
  trace.writeTrace(TRACE_LEVEL_4, "executing %p", static_cast<void*>(this));
  Tavrel_Scoreboard* orig;
  {
    std::lock_guard<Tavrel_Mutex> g(g_lock);
    orig = original;
  }
  if (orig == nullptr) {
    std::unique_lock<Tavrel_Mutex> l(mutex);
    if (state != TAVREL_SB_RUNNING) {  // cancelled before it ran: the work is not done
      status = req->get_status() != 0 ? req->get_status() : TAVREL_ST_VIEW_ENDING;
      return state;
    }
    int result;
    try {
      result = req->execute(status, message);
    } catch (...) {
      state = TAVREL_SB_FAILED;
      cond.notify_all();
      throw;
    }
    state = (result == TAVREL_SB_DONE || result == TAVREL_SB_FAILED || result == TAVREL_SB_CANCELLED)
                ? result
                : TAVREL_SB_FAILED;
    cond.notify_all();
    return state;
  }
  // Waiting on the original's work; its mutex is held by its worker while the work runs.
  int st;
  {
    std::unique_lock<Tavrel_Mutex> l(orig->mutex);
    while (orig->state == TAVREL_SB_RUNNING) {
      ++orig->waits;
      orig->cond.wait(l);
    }
    st = orig->state;
  }
  {
    std::lock_guard<Tavrel_Mutex> l(mutex);
    state = st;
    cond.notify_all();
  }
  T* r = get_req();
  status = r->get_status();
  if (st == TAVREL_SB_CANCELLED && status == 0) status = TAVREL_ST_VIEW_ENDING;
  message += r->get_message();
  return st;
}

template <class T>
T* Tavrel_Scoreboard<T>::get_req() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Scoreboard", "get_req");
  trace.writeTrace(TRACE_LEVEL_5, "get_req %p", static_cast<void*>(this));
  std::lock_guard<Tavrel_Mutex> g(g_lock);
  Tavrel_Scoreboard* s = this;
  while (s->original != nullptr) s = s->original;
  return s->req;
}

template <class T>
void Tavrel_Scoreboard<T>::release() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Scoreboard", "release");
  trace.writeTrace(TRACE_LEVEL_4, "releasing %p", static_cast<void*>(this));
  std::vector<Tavrel_Scoreboard*> dead;
  {
    std::lock_guard<Tavrel_Mutex> g(g_lock);
    release_locked(dead);
  }
  destroy(dead);
}

template <class T>
void Tavrel_Scoreboard<T>::release_locked(std::vector<Tavrel_Scoreboard*>& dead) {
  if (--refcnt > 0) return;
  Tavrel_Trace trace(TAVREL, "Tavrel_Scoreboard", "release");
  Tavrel_Scoreboard* orig = original;
  if (orig != nullptr) orig->release_locked(dead);
  // Nobody waits on a scoreboard without references: `waits` is read safely here.
  trace.writeTrace(TRACE_LEVEL_4, "destroying %p: waits %u original %p maxref %u", static_cast<void*>(this), waits,
                   static_cast<void*>(orig), maxref);
  g_waits += waits;
  if (waits > g_max_waits) g_max_waits = waits;
  if (registered) {
    auto [first, last] = g_map.equal_range(req->hash());
    for (auto it = first; it != last; ++it)
      if (it->second == this) {
        g_map.erase(it);
        break;
      }
    registered = false;
  }
  dead.push_back(this);
}

template <class T>
void Tavrel_Scoreboard<T>::destroy(std::vector<Tavrel_Scoreboard*>& dead) {
  for (Tavrel_Scoreboard* s : dead) delete s;
}

template <class T>
void Tavrel_Scoreboard<T>::cancel() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Scoreboard", "cancel");
  trace.writeTrace(TRACE_LEVEL_4, "cancelling %p", static_cast<void*>(this));
  std::vector<Tavrel_Scoreboard*> dead;
  {
    std::lock_guard<Tavrel_Mutex> l(mutex);
    {
      std::lock_guard<Tavrel_Mutex> g(g_lock);
      if (original != nullptr) {
        original->release_locked(dead);
        original = nullptr;
      }
    }
    state = TAVREL_SB_CANCELLED;
    cond.notify_all();
  }
  destroy(dead);
}

template <class T>
bool Tavrel_Scoreboard<T>::is_linked() const {
  std::lock_guard<Tavrel_Mutex> g(g_lock);
  return original != nullptr;
}

template <class T>
bool Tavrel_Scoreboard<T>::linked_to(const Tavrel_Scoreboard* other) const {
  if (other == nullptr) return false;
  std::lock_guard<Tavrel_Mutex> g(g_lock);
  return original == other || other->original == this;
}

template <class T>
int Tavrel_Scoreboard<T>::get_state() {
  std::lock_guard<Tavrel_Mutex> l(mutex);
  return state;
}

template <class T>
uint32_t Tavrel_Scoreboard<T>::get_refcnt() const {
  std::lock_guard<Tavrel_Mutex> g(g_lock);
  return refcnt;
}

template <class T>
uint32_t Tavrel_Scoreboard<T>::get_waits() {
  std::lock_guard<Tavrel_Mutex> l(mutex);
  return waits;
}

template <class T>
typename Tavrel_Scoreboard<T>::Stats Tavrel_Scoreboard<T>::stats() {
  std::lock_guard<Tavrel_Mutex> g(g_lock);
  return {g_map.size(), g_max_refcnt, g_waits, g_max_waits};
}
