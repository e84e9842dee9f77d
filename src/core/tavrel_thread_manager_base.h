// Tavrel_Thread_Manager_Base: the one owner of the agent's asynchronous work.
//
// It holds a pool of worker threads, two FIFO queues of Tavrel_Request (foreground: kind 1; low
// priority: any other kind), a cleanup queue of finished threads waiting to be joined, and the
// shutdown pipe whose single byte wakes every wait_for_input in the process for good.
//
// Scheduling: with a pool of P threads each class may occupy at most P-1 threads, so one thread is
// always left for the other class; with P == 1 foreground work may use the one thread and low-priority
// work waits for shutdown. Foreground is looked at first. A foreground operation that needs a queued
// low-priority request can pull it into the foreground queue (promote_dependency).
//
// Shutdown: set_should_exit() (idempotent) stops the event loop, posts the shutdown byte and wakes
// everyone. Requests queued after it are cancelled at once; drain_incomplete() cancels the ones still
// queued; running requests finish. terminate(), run by the connection thread, reaps every registered
// and pending thread and then closes the shutdown pipe.
//
// Locks: g_request_mutex (class-wide; pool threads sleep on the work condition with it) is always
// taken before the queue mutex, never the reverse (ranks THREAD_REQUESTS and THREAD_QUEUE of
// base/tavrel_mutex.h: below every lock of the name service, so work may be queued under those).
// The queue mutex guards the queues and the counters (m_live, m_pending, m_pool, m_bg_running,
// m_fg_running, m_initialized). m_should_exit is atomic and only ever goes from 0 to 1. The write end
// of the shutdown pipe is guarded by m_pipe_mutex (a leaf): threads the manager does not reap (the
// forced-shutdown thread, the main thread) may post the notice while terminate() closes the pipe.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <list>
#include <mutex>

#include "base/tavrel_mutex.h"
#include "core/tavrel_olthread.h"

class Tavrel_Thread_Manager_Base {
 public:
  virtual ~Tavrel_Thread_Manager_Base();
  virtual void post_shutdown_notice() = 0;

  static Tavrel_Thread_Manager_Base* get_instance();
  // Deletes the singleton (tests and the end of the process only; no thread may use it afterwards).
  static void destroy_instance();

  int initialize();
  void start_op(Tavrel_Request_Thread* thread);
  int start_thread(Tavrel_OlThread* thread);
  void pending_thread();
  void failed_thread();
  void register_thread(Tavrel_OlThread* thread);
  void register_pool_thread(Tavrel_OlThread* thread);
  int process_request(Tavrel_Request* request);
  void promote_dependency(const Tavrel_Request* request);
  Tavrel_Request* pop_request(bool count);
  void mark_idle(const Tavrel_Request* request);
  void wait_for_background();
  void drain_incomplete();
  void push_into_cleanup_queue(Tavrel_OlThread* thread);
  void cleanup_thread(Tavrel_OlThread* thread, bool pool);
  void do_cleanup(int repeat);
  void set_should_exit();
  void terminate();
  void wait_for_terminate();

  bool should_exit() const { return m_should_exit.load() != 0; }
  bool is_initialized();
  int shutdown_read_fd() const { return m_shutdown_read; }

  // Counters, for tests and traces (read under the queue mutex).
  struct Counters {
    int live, pending, pool, bg_running, fg_running;
    size_t fg_queued, bg_queued;
  };
  Counters counters();

  void lock_mutex() { g_request_mutex.lock(); }
  void unlock_mutex() { g_request_mutex.unlock(); }
  void lock_queue() { m_queue_mutex.lock(); }
  void unlock_queue() { m_queue_mutex.unlock(); }
  // Waits on the work condition; the caller holds g_request_mutex.
  void cond_wait();
  void cond_signal();
  // Waits on the queue condition; the caller holds the queue mutex.
  void queue_cond_wait();
  void queue_cond_broadcast();

  static Tavrel_Mutex g_request_mutex;

 protected:
  Tavrel_Thread_Manager_Base() = default;
  int make_shutdown_pipes();
  void close_shutdown_pipes();
  // Caller holds the queue mutex; it is released around each join.
  void do_cleanup_locked(std::unique_lock<Tavrel_Mutex>& queue_lock);

  static std::atomic<Tavrel_Thread_Manager_Base*> g_instance;

  int m_shutdown_read = -1;
  int m_shutdown_write = -1;  // under m_pipe_mutex once the pool runs
  Tavrel_Mutex m_pipe_mutex{Tavrel_Lock_Rank::LEAF, "thread manager shutdown pipe"};
  std::deque<Tavrel_Request*> m_fg_queue;
  std::list<Tavrel_Request*> m_bg_queue;
  std::deque<Tavrel_OlThread*> m_cleanup_queue;
  std::condition_variable_any m_work_cond;    // with g_request_mutex
  std::condition_variable_any m_queue_cond;   // with m_queue_mutex
  Tavrel_Mutex m_queue_mutex{Tavrel_Lock_Rank::THREAD_QUEUE, "thread manager queue mutex"};
  int m_initialized = 0;
  std::atomic<int> m_should_exit{0};
  int m_terminated = 0;  // under g_request_mutex
  int m_live = 0;
  int m_pending = 0;
  int m_pool = 0;
  int m_bg_running = 0;
  int m_fg_running = 0;
};
