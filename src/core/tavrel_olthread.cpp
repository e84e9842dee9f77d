#include "core/tavrel_olthread.h"

#include <exception>

#include "base/strutl.h"
#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_trace.h"

std::string Tavrel_OlThread::tid_text() const {
  return strutl_format("%lx", static_cast<unsigned long>(m_tid));
}

int Tavrel_OlThread::start() {
  Tavrel_Trace trace(TAVREL, "Tavrel_OlThread", "start");
  int rc = olthread_create(&m_tid, nullptr, &Tavrel_OlThread::startThread, this);
  // Once started, the object belongs to the new thread: it may already have ended and been deleted by
  // the cleanup thread, so nothing of it is touched here any more (the new thread traces its id).
  if (rc != 0) trace.writeTrace(TRACE_LEVEL_2, "Error %d in start thread", rc);
  return rc;
}

void* Tavrel_OlThread::startThread(void* arg) {
  auto* self = static_cast<Tavrel_OlThread*>(arg);
  {
    Tavrel_Trace trace(TAVREL, "Tavrel_OlThread", "startThread");
    trace.writeTrace(TRACE_LEVEL_4, "forked thread %lx", static_cast<unsigned long>(olthread_self()));
  }
  // The object stays alive until it has been joined, so this thread may touch it until it exits. An
  // exception that no code below caught ends this thread with a status, never the process.
  int status = TAVREL_ST_INTERNAL;
  try {
    status = self->run();
  } catch (const std::exception& e) {
    Tavrel_Trace trace(TAVREL, "Tavrel_OlThread", "startThread");
    trace.writeTrace(TRACE_LEVEL_1, "thread ended by an exception: %s", e.what());
  } catch (...) {
    Tavrel_Trace trace(TAVREL, "Tavrel_OlThread", "startThread");
    trace.writeTrace(TRACE_LEVEL_1, "thread ended by an exception");
  }
  self->m_run_status = status;
  Tavrel_Trace trace(TAVREL, "Tavrel_OlThread", "startThread");
  trace.writeTrace(TRACE_LEVEL_4, "thread exiting, run status: %d", status);
  olthread_exit(status);
}

int Tavrel_OlThread::join() {
  Tavrel_Trace trace(TAVREL, "Tavrel_OlThread", "join");
  int status = 0;
  if (olthread_join(m_tid, &status) != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Error in join thread for thread id : %d", static_cast<int>(m_tid));
    return m_run_status;
  }
  trace.writeTrace(TRACE_LEVEL_4, "joined thread %s, return status: %d", tid_text().c_str(), m_run_status);
  return m_run_status;
}

int Tavrel_Request_Thread::run() {
  Tavrel_Thread_Manager_Base* mgr = Tavrel_Thread_Manager_Base::get_instance();
  mgr->register_thread(this);
  int status = TAVREL_ST_INTERNAL;
  try {
    status = execute();
  } catch (...) {
    // The thread still hands itself to the cleanup thread, so it is joined and its count drops.
    Tavrel_Trace trace(TAVREL, "Tavrel_Request_Thread", "run");
    trace.writeTrace(TRACE_LEVEL_1, "execute ended by an exception");
  }
  mgr->push_into_cleanup_queue(this);
  return status;
}

void Tavrel_Request_Thread::add_outstanding() {
  std::lock_guard<Tavrel_Mutex> g(m_outstanding_mutex);
  m_outstanding++;
}

void Tavrel_Request_Thread::remove_outstanding() {
  std::lock_guard<Tavrel_Mutex> g(m_outstanding_mutex);
  if (--m_outstanding <= 0) m_outstanding_cv.notify_all();
}

void Tavrel_Request_Thread::wait_for_outstanding() {
  std::unique_lock<Tavrel_Mutex> g(m_outstanding_mutex);
  m_outstanding_cv.wait(g, [this] { return m_outstanding <= 0; });
}
