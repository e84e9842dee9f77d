// Tavrel_OlThread: base of every thread of the agent. Tavrel_Request: a unit of queued work.
// Tavrel_Request_Thread: a thread that registers with the thread manager, runs execute(), and hands
// itself to the cleanup thread when done; it also counts the requests it has queued and not yet seen
// deleted, so that it can wait for them before it ends.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>

#include "base/olthread.h"
#include "base/tavrel_mutex.h"

class Tavrel_OlThread {
 public:
  Tavrel_OlThread() = default;
  virtual ~Tavrel_OlThread() = default;
  virtual int run() = 0;

  // Starts the thread; 0 or the error of thread creation.
  int start();
  // Joins the thread; returns its run status.
  int join();
  olthread_t get_tid() const { return m_tid; }
  std::string tid_text() const;

 protected:
  static void* startThread(void* self);

  olthread_t m_tid{};
  int m_run_status = 0;
};

class Tavrel_Request {
 public:
  enum { FOREGROUND = 1, LOW_PRIORITY = 0 };
  explicit Tavrel_Request(int k) : kind(k) {}
  virtual ~Tavrel_Request() = default;
  virtual int handle_request() = 0;
  virtual void cancel_request() = 0;
  virtual bool is_equivalent(const Tavrel_Request*) const { return false; }
  virtual std::string toString() const = 0;

  int kind;
};

class Tavrel_Request_Thread : public Tavrel_OlThread {
 public:
  int run() final;
  virtual int execute() = 0;

  // The count of requests this thread has queued and that are not yet deleted.
  void add_outstanding();
  void remove_outstanding();
  void wait_for_outstanding();

 protected:
  int m_outstanding = 0;
  Tavrel_Mutex m_outstanding_mutex{Tavrel_Lock_Rank::THREAD_OUTSTANDING, "request thread outstanding count"};
  std::condition_variable_any m_outstanding_cv;  // with m_outstanding_mutex
};
