// Tavrel_Mutex, Tavrel_Recursive_Mutex: the agent's mutexes, each placed in the one lock order of the
// process (docs/threads-and-locks.md explains the order and why it is so).
//
// Rule: a thread may block on a mutex only when the mutex's rank is strictly greater than the rank of
// every mutex the thread already holds. The one exception is a recursive mutex the thread already
// holds: locking it again is allowed wherever the thread stands. try_lock is never refused (it cannot
// wait), but a mutex got by try_lock counts as held for the locks that follow.
//
// With TAVREL_LOCK_ORDER_CHECKS defined (Debug and sanitizer builds, see the top CMakeLists.txt),
// each thread keeps a small stack of the mutexes it holds, and a lock against the order, an unlock
// of a mutex the thread does not hold, or more than MAX_HELD different mutexes at once (re-entries of a
// recursive mutex count once) ends the process with a
// message naming both mutexes. Without it the classes hold a plain std::mutex / std::recursive_mutex
// and nothing else; the checks compile away.
//
// Both classes meet the Lockable requirements: std::lock_guard and std::unique_lock work with them,
// and std::condition_variable_any waits on them (the wait unlocks and locks again through these
// classes, so the bookkeeping stays right across it). std::condition_variable cannot be used: it
// takes only std::mutex.
#pragma once

#include <mutex>

// Ranks, outermost first. Gaps leave room for the locks still to come.
enum class Tavrel_Lock_Rank : int {
  // Gates of operations on the whole view: held briefly, never across name-service work.
  VIEW_REQUEST = 100,    // Tavrel_View_Handler::g_request_lock
  SERVER_SESSION = 110,  // Tavrel_Server::g_session_lock: Connect, Disconnect (held across Login, Logout)
  UPDATE_GATE = 120,     // Tavrel_View::g_update_lock
  CONFIG = 130,          // Tavrel_Config::g_config_lock: the mount table and its file
  // The name service.
  NS_CACHE = 200,           // tavrel_cache_mutex (recursive; held across WAN calls)
  SCOREBOARD_WORKER = 300,  // a scoreboard worker's mutex, held for a whole background fetch
  OID_STRIPE = 310,         // a stripe of g_oid_locks
  DB_ENGINE = 400,          // tavrel_engine_mutex (recursive; start to end of a transaction)
  // Short chains below everything above.
  CLIENT_REQUEST = 500,      // a client's request channel (held across the blocking read)
  CLIENT_RESPONSE = 510,     // a client's response channel (held across one bounded write)
  THREAD_REQUESTS = 530,     // Tavrel_Thread_Manager_Base::g_request_mutex
  THREAD_QUEUE = 540,        // the thread manager's queue mutex
  THREAD_OUTSTANDING = 550,  // a request thread's count of queued requests
  SCOREBOARD = 555,          // the scoreboard's g_lock (read by the thread manager's equivalence test)
  WAN_SESSION_CREATE = 560,  // RClient_Session::g_session_lock (creation of the session)
  WAN_SESSION = 570,         // RClient_Session::mutex (the session's fields and handle pool)
  CURL_INIT = 580,           // libcurl's global set-up
  VIEW_ROOT = 590,           // Tavrel_View::m_view_root_mutex (held across the module's root query)
  KFSM_HANDLES = 600,        // the module library's handle table
  LEAF = 700,                // a lock under which no other lock of ours is taken (tracing aside)
  LOG_INSTANCE = 710,        // Tavrel_Log's singleton
  LOG_FILE = 720,            // one append to the view's log
  TRACE = 800,               // the trace file: taken under any lock
};

// The enumerator's name, e.g. "NS_CACHE".
const char* tavrel_lock_rank_name(Tavrel_Lock_Rank rank);

#if defined(TAVREL_LOCK_ORDER_CHECKS)
namespace tavrel_lock_order {
constexpr int MAX_HELD = 16;
// The checks, called by the classes below: check_lock before blocking, note_locked once the mutex
// is held, note_unlocked before it is released.
void check_lock(const void* mutex, Tavrel_Lock_Rank rank, const char* name);
void note_locked(const void* mutex, Tavrel_Lock_Rank rank, const char* name);
void note_unlocked(const void* mutex, const char* name);
bool held_by_me(const void* mutex);
// How many mutexes (re-entries counted) the calling thread holds.
int held_count();
}  // namespace tavrel_lock_order
#endif

class Tavrel_Mutex {
 public:
#if defined(TAVREL_LOCK_ORDER_CHECKS)
  constexpr Tavrel_Mutex(Tavrel_Lock_Rank rank, const char* name) noexcept : m_rank(rank), m_name(name) {}
  void lock() {
    tavrel_lock_order::check_lock(this, m_rank, m_name);
    m_mutex.lock();
    tavrel_lock_order::note_locked(this, m_rank, m_name);
  }
  bool try_lock() {
    if (!m_mutex.try_lock()) return false;
    tavrel_lock_order::note_locked(this, m_rank, m_name);
    return true;
  }
  void unlock() {
    tavrel_lock_order::note_unlocked(this, m_name);
    m_mutex.unlock();
  }
  bool held_by_me() const { return tavrel_lock_order::held_by_me(this); }
  Tavrel_Lock_Rank rank() const { return m_rank; }
  const char* name() const { return m_name; }
#else
  constexpr Tavrel_Mutex(Tavrel_Lock_Rank, const char*) noexcept {}
  void lock() { m_mutex.lock(); }
  bool try_lock() { return m_mutex.try_lock(); }
  void unlock() { m_mutex.unlock(); }
#endif
  Tavrel_Mutex(const Tavrel_Mutex&) = delete;
  Tavrel_Mutex& operator=(const Tavrel_Mutex&) = delete;

 private:
  std::mutex m_mutex;
#if defined(TAVREL_LOCK_ORDER_CHECKS)
  Tavrel_Lock_Rank m_rank;
  const char* m_name;
#endif
};

class Tavrel_Recursive_Mutex {
 public:
#if defined(TAVREL_LOCK_ORDER_CHECKS)
  Tavrel_Recursive_Mutex(Tavrel_Lock_Rank rank, const char* name) noexcept : m_rank(rank), m_name(name) {}
  void lock() {
    // Re-entry cannot wait on another thread, so it is allowed wherever the thread stands.
    if (!tavrel_lock_order::held_by_me(this)) tavrel_lock_order::check_lock(this, m_rank, m_name);
    m_mutex.lock();
    tavrel_lock_order::note_locked(this, m_rank, m_name);
  }
  bool try_lock() {
    if (!m_mutex.try_lock()) return false;
    tavrel_lock_order::note_locked(this, m_rank, m_name);
    return true;
  }
  void unlock() {
    tavrel_lock_order::note_unlocked(this, m_name);
    m_mutex.unlock();
  }
  bool held_by_me() const { return tavrel_lock_order::held_by_me(this); }
  Tavrel_Lock_Rank rank() const { return m_rank; }
  const char* name() const { return m_name; }
#else
  Tavrel_Recursive_Mutex(Tavrel_Lock_Rank, const char*) noexcept {}
  void lock() { m_mutex.lock(); }
  bool try_lock() { return m_mutex.try_lock(); }
  void unlock() { m_mutex.unlock(); }
#endif
  Tavrel_Recursive_Mutex(const Tavrel_Recursive_Mutex&) = delete;
  Tavrel_Recursive_Mutex& operator=(const Tavrel_Recursive_Mutex&) = delete;

 private:
  std::recursive_mutex m_mutex;
#if defined(TAVREL_LOCK_ORDER_CHECKS)
  Tavrel_Lock_Rank m_rank;
  const char* m_name;
#endif
};

// Ends the process when the calling thread does not hold `m` (checked builds only): for functions
// whose callers must already hold a lock, such as the mutators that run inside a database
// transaction only under the name-service cache mutex.
#if defined(TAVREL_LOCK_ORDER_CHECKS)
#define TAVREL_ASSERT_HELD(m) tavrel_lock_order::assert_held(&(m), (m).held_by_me(), (m).name(), __FILE__, __LINE__)
namespace tavrel_lock_order {
void assert_held(const void* mutex, bool held, const char* name, const char* file, int line);
}
#else
#define TAVREL_ASSERT_HELD(m) ((void)0)
#endif
