#include "core/tavrel_thread_manager_base.h"

#include <cstdlib>

#include <cerrno>
#include <cstring>

#include "base/pfm.h"
#include "base/rt.h"
#include "base/sysutl.h"
#include "core/tavrel_assert.h"
#include "core/tavrel_config.h"
#include "core/tavrel_log.h"
#include "core/tavrel_request_cleanup_thread.h"
#include "core/tavrel_request_handler_thread.h"
#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_unix.h"
#include "core/tavrel_trace.h"

Tavrel_Mutex Tavrel_Thread_Manager_Base::g_request_mutex{Tavrel_Lock_Rank::THREAD_REQUESTS,
                                                         "Tavrel_Thread_Manager_Base::g_request_mutex"};
std::atomic<Tavrel_Thread_Manager_Base*> Tavrel_Thread_Manager_Base::g_instance{nullptr};

namespace {
void cb_do_nothing(void*, int) {}
}  // namespace

Tavrel_Thread_Manager_Base::~Tavrel_Thread_Manager_Base() {
  close_shutdown_pipes();
  for (auto* r : m_fg_queue) delete r;
  for (auto* r : m_bg_queue) delete r;
}

Tavrel_Thread_Manager_Base* Tavrel_Thread_Manager_Base::get_instance() {
  // Double-checked creation under g_request_mutex.
  Tavrel_Thread_Manager_Base* p = g_instance.load(std::memory_order_acquire);
  if (p) return p;
  std::lock_guard<Tavrel_Mutex> g(g_request_mutex);
  p = g_instance.load(std::memory_order_relaxed);
  if (!p) {
    p = new Tavrel_Thread_Manager_Unix();
    g_instance.store(p, std::memory_order_release);
  }
  return p;
}

void Tavrel_Thread_Manager_Base::destroy_instance() {
  std::lock_guard<Tavrel_Mutex> g(g_request_mutex);
  delete g_instance.exchange(nullptr);
}

int Tavrel_Thread_Manager_Base::make_shutdown_pipes() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Thread_Manager_Base", "make_shutdown_pipes");
  int fds[2];
  if (sysutl_pipe(fds) != KS_ST_OK) {
    trace.writeTrace(TRACE_LEVEL_1, "pipe() failed: %s", strerror(errno));
    return TAVREL_ST_PIPE;
  }
  if (sysutl_set_cloexec_file(fds[0]) != KS_ST_OK || sysutl_set_cloexec_file(fds[1]) != KS_ST_OK ||
      rt_handle_fd(fds[0], cb_do_nothing, nullptr) != 0) {
    trace.writeTrace(TRACE_LEVEL_1, "cloexec or rt_handle_fd() failed");
    sysutl_pipe_close(fds[0]);
    sysutl_pipe_close(fds[1]);
    m_shutdown_read = m_shutdown_write = -1;
    return TAVREL_ST_PIPE;
  }
  {
    std::lock_guard<Tavrel_Mutex> g(m_pipe_mutex);
    m_shutdown_read = fds[0];
    m_shutdown_write = fds[1];
  }
  // Shutdown may have been asked for before the pipe existed: the notice must still be there.
  if (m_should_exit.load()) post_shutdown_notice();
  return 0;
}

void Tavrel_Thread_Manager_Base::close_shutdown_pipes() {
  int read_fd, write_fd;
  {
    // A notice posted from now on finds no pipe; one being posted finishes before the close.
    std::lock_guard<Tavrel_Mutex> g(m_pipe_mutex);
    read_fd = m_shutdown_read;
    write_fd = m_shutdown_write;
    m_shutdown_read = m_shutdown_write = -1;
  }
  if (read_fd >= 0) {
    rt_unhandle_fd(read_fd);
    sysutl_pipe_close(read_fd);
  }
  sysutl_pipe_close(write_fd);
}

int Tavrel_Thread_Manager_Base::initialize() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Thread_Manager_Base", "initialize");
  // The settings are read before the queue mutex is taken: the configuration's lock is an outer one.
  Tavrel_Config* config = Tavrel_Config::get_instance();
  // A base-10 number as strtol reads it (the setting is "7" unless the file says otherwise).
  const long wanted = std::strtol(config->find(Tavrel_Config::NUM_CMAPI_THREADS).c_str(), nullptr, 10);
  std::unique_lock<Tavrel_Mutex> q(m_queue_mutex);
  if (m_initialized) return 0;
  int status = make_shutdown_pipes();
  if (status != 0) {
    q.unlock();
    set_should_exit();
    return status;
  }
  status = start_thread(new Tavrel_Request_Cleanup_Thread());
  if (status != 0) return status;

  trace.writeTrace(TRACE_LEVEL_2, "Starting %d CMAPI request handler threads.", static_cast<int>(wanted));
  if (wanted < 2) {
    trace.writeTrace(TRACE_LEVEL_1, "A pool of %d threads cannot run low-priority work beside requests",
                     static_cast<int>(wanted));
    if (Tavrel_Log* log = Tavrel_Log::peek_instance())
      log->write_log(TAVREL_LOG_WARN, "tavrelNumCmapi is %ld: with fewer than 2 pool threads background work waits until the view ends.\n",
                   wanted);
  }
  for (long i = 0; i < wanted; i++) {
    status = start_thread(new Tavrel_Request_Handler_Thread());
    if (status != 0) return status;
  }
  m_initialized = 1;
  return 0;
}

bool Tavrel_Thread_Manager_Base::is_initialized() {
  std::lock_guard<Tavrel_Mutex> q(m_queue_mutex);
  return m_initialized != 0;
}

// Called with the queue mutex held.
int Tavrel_Thread_Manager_Base::start_thread(Tavrel_OlThread* thread) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Thread_Manager_Base", "start_thread");
  if (!thread) {
    trace.writeTrace(TRACE_LEVEL_1, "Worker Thread could not be constructed! Exiting");
    set_should_exit();
    return TAVREL_ST_NO_OBJECT;
  }
  m_pending++;
  if (thread->start() != 0) {
    trace.writeTrace(TRACE_LEVEL_1, "Worker Thread could not be started! Exiting");
    m_pending--;
    delete thread;
    set_should_exit();
    return TAVREL_ST_THREAD_START;
  }
  return 0;
}

void Tavrel_Thread_Manager_Base::start_op(Tavrel_Request_Thread* thread) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Thread_Manager_Base", "start_op");
  pending_thread();
  if (thread->start() != 0) {
    trace.writeTrace(TRACE_LEVEL_1, "Request thread could not be started");
    failed_thread();
    delete thread;
  }
}

void Tavrel_Thread_Manager_Base::pending_thread() {
  std::lock_guard<Tavrel_Mutex> q(m_queue_mutex);
  m_pending++;
}

void Tavrel_Thread_Manager_Base::failed_thread() {
  {
    std::lock_guard<Tavrel_Mutex> q(m_queue_mutex);
    m_pending--;
  }
  m_queue_cond.notify_all();
}

void Tavrel_Thread_Manager_Base::register_thread(Tavrel_OlThread*) {
  {
    std::lock_guard<Tavrel_Mutex> q(m_queue_mutex);
    m_live++;
    m_pending--;
  }
  m_queue_cond.notify_all();
}

void Tavrel_Thread_Manager_Base::register_pool_thread(Tavrel_OlThread*) {
  {
    std::lock_guard<Tavrel_Mutex> q(m_queue_mutex);
    m_live++;
    m_pending--;
    m_pool++;
  }
  m_queue_cond.notify_all();
}

int Tavrel_Thread_Manager_Base::process_request(Tavrel_Request* request) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Thread_Manager_Base", "process_request");
  if (m_should_exit.load()) {
    request->cancel_request();
    delete request;
    return 0;
  }
  {
    std::lock_guard<Tavrel_Mutex> q(m_queue_mutex);
    if (request->kind == Tavrel_Request::FOREGROUND)
      m_fg_queue.push_back(request);
    else
      m_bg_queue.push_back(request);
  }
  cond_signal();
  return 0;
}

void Tavrel_Thread_Manager_Base::promote_dependency(const Tavrel_Request* request) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Thread_Manager_Base", "promote_dependency");
  {
    std::lock_guard<Tavrel_Mutex> q(m_queue_mutex);
    for (auto it = m_bg_queue.begin(); it != m_bg_queue.end(); ++it) {
      if (request->is_equivalent(*it)) {
        trace.writeTrace(TRACE_LEVEL_4, "promoting equivalent request %p (wanted by %p)", static_cast<void*>(*it),
                         static_cast<const void*>(request));
        m_fg_queue.push_back(*it);
        m_bg_queue.erase(it);
        break;
      }
    }
  }
  cond_signal();
}

Tavrel_Request* Tavrel_Thread_Manager_Base::pop_request(bool count) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Thread_Manager_Base", "pop_request");
  std::lock_guard<Tavrel_Mutex> q(m_queue_mutex);
  bool fg_ok = true, bg_ok = true;
  if (count && !m_should_exit.load()) {
    fg_ok = m_fg_running < m_pool - 1 || m_pool == 1;
    bg_ok = !(m_bg_running >= m_pool - 1);
  }
  trace.writeTrace(TRACE_LEVEL_4, "checking queues: pool %d fg %d bg %d fgok=%s, bgok=%s", m_pool, m_fg_running,
                   m_bg_running, fg_ok ? "true" : "false", bg_ok ? "true" : "false");
  Tavrel_Request* request = nullptr;
  if (fg_ok && !m_fg_queue.empty()) {
    request = m_fg_queue.front();
    m_fg_queue.pop_front();
    if (trace.shouldTrace(TRACE_LEVEL_4))
      trace.writeTrace(TRACE_LEVEL_4, "foreground queue not empty!, request is : %s",
                       Tavrel_Trace::redact(request->toString()).c_str());
  } else if (bg_ok && !m_bg_queue.empty()) {
    request = m_bg_queue.front();
    m_bg_queue.pop_front();
    if (trace.shouldTrace(TRACE_LEVEL_4))
      trace.writeTrace(TRACE_LEVEL_4, "lowpri queue not empty!, request is : %s",
                       Tavrel_Trace::redact(request->toString()).c_str());
  } else {
    return nullptr;
  }
  if (count) {
    if (request->kind == Tavrel_Request::FOREGROUND)
      m_fg_running++;
    else
      m_bg_running++;
  }
  return request;
}

void Tavrel_Thread_Manager_Base::mark_idle(const Tavrel_Request* request) {
  {
    std::lock_guard<Tavrel_Mutex> q(m_queue_mutex);
    if (request->kind == Tavrel_Request::FOREGROUND)
      m_fg_running--;
    else
      m_bg_running--;
  }
  m_queue_cond.notify_all();
}

void Tavrel_Thread_Manager_Base::wait_for_background() {
  std::unique_lock<Tavrel_Mutex> q(m_queue_mutex);
  m_queue_cond.wait(q, [this] { return m_bg_queue.empty(); });
  m_queue_cond.wait(q, [this] { return m_bg_running <= 0; });
}

void Tavrel_Thread_Manager_Base::drain_incomplete() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Thread_Manager_Base", "drain_incomplete");
  lock_mutex();
  for (;;) {
    Tavrel_Request* request = pop_request(false);
    if (!request) break;
    unlock_mutex();
    request->cancel_request();
    lock_mutex();
    delete request;
  }
  unlock_mutex();
  std::unique_lock<Tavrel_Mutex> q(m_queue_mutex);
  m_queue_cond.wait(q, [this] { return m_bg_running <= 0; });
  q.unlock();
  m_queue_cond.notify_all();
}

void Tavrel_Thread_Manager_Base::push_into_cleanup_queue(Tavrel_OlThread* thread) { cleanup_thread(thread, false); }

void Tavrel_Thread_Manager_Base::cleanup_thread(Tavrel_OlThread* thread, bool pool) {
  {
    std::lock_guard<Tavrel_Mutex> q(m_queue_mutex);
    if (pool) m_pool--;
    m_cleanup_queue.push_back(thread);
  }
  m_queue_cond.notify_all();
}

void Tavrel_Thread_Manager_Base::do_cleanup_locked(std::unique_lock<Tavrel_Mutex>& q) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Thread_Manager_Base", "do_cleanup_locked");
  while (!m_cleanup_queue.empty()) {
    Tavrel_OlThread* thread = m_cleanup_queue.front();
    m_cleanup_queue.pop_front();
    q.unlock();
    trace.writeTrace(TRACE_LEVEL_4, "Deleting thread: %s", thread->tid_text().c_str());
    thread->join();
    delete thread;
    q.lock();
    m_live--;
    m_queue_cond.notify_all();
  }
}

void Tavrel_Thread_Manager_Base::do_cleanup(int repeat) {
  std::unique_lock<Tavrel_Mutex> q(m_queue_mutex);
  for (;;) {
    do_cleanup_locked(q);
    if (repeat == 0 || m_should_exit.load()) break;
    m_queue_cond.wait(q);
  }
}

void Tavrel_Thread_Manager_Base::set_should_exit() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Thread_Manager_Base", "set_should_exit");
  m_should_exit.store(1);
  rt_shutdown();
  post_shutdown_notice();
  {
    // Taking each mutex before notifying closes the window between a waiter's check of
    // m_should_exit and its sleep.
    std::lock_guard<Tavrel_Mutex> g(g_request_mutex);
  }
  m_work_cond.notify_all();
  {
    std::lock_guard<Tavrel_Mutex> q(m_queue_mutex);
  }
  m_queue_cond.notify_all();
}

void Tavrel_Thread_Manager_Base::terminate() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Thread_Manager_Base", "terminate");
  {
    std::lock_guard<Tavrel_Mutex> g(g_request_mutex);
    m_terminated = 1;
  }
  m_work_cond.notify_all();
  std::unique_lock<Tavrel_Mutex> q(m_queue_mutex);
  if (!m_initialized) return;
  TAVREL_ASSERT(m_should_exit);
  trace.writeTrace(TRACE_LEVEL_3, "started with %d live and %d pending", m_live, m_pending);
  while (m_live + m_pending >= 1) {
    do_cleanup_locked(q);
    if (m_live + m_pending >= 1) {
      trace.writeTrace(TRACE_LEVEL_4, "waiting for %d live and %d pending", m_live, m_pending);
      m_queue_cond.wait(q);
    }
  }
  q.unlock();
  close_shutdown_pipes();
}

void Tavrel_Thread_Manager_Base::wait_for_terminate() {
  std::unique_lock<Tavrel_Mutex> g(g_request_mutex);
  m_work_cond.wait(g, [this] { return m_terminated != 0; });
}

Tavrel_Thread_Manager_Base::Counters Tavrel_Thread_Manager_Base::counters() {
  std::lock_guard<Tavrel_Mutex> q(m_queue_mutex);
  return {m_live, m_pending, m_pool, m_bg_running, m_fg_running, m_fg_queue.size(), m_bg_queue.size()};
}

void Tavrel_Thread_Manager_Base::cond_wait() {
  // The caller holds g_request_mutex (locked through lock_mutex()).
  std::unique_lock<Tavrel_Mutex> g(g_request_mutex, std::adopt_lock);
  m_work_cond.wait(g);
  g.release();
}

void Tavrel_Thread_Manager_Base::cond_signal() {
  // Signalled under g_request_mutex: a pool thread that has just found the queues empty holds the
  // mutex until it sleeps, so the wake-up cannot fall between its check and its wait.
  {
    std::lock_guard<Tavrel_Mutex> g(g_request_mutex);
  }
  m_work_cond.notify_one();
}

void Tavrel_Thread_Manager_Base::queue_cond_wait() {
  std::unique_lock<Tavrel_Mutex> q(m_queue_mutex, std::adopt_lock);
  m_queue_cond.wait(q);
  q.release();
}

void Tavrel_Thread_Manager_Base::queue_cond_broadcast() { m_queue_cond.notify_all(); }
