// Tavrel_View_Handler: owns the life of the view inside the agent process. It serves the first
// request (MkView or StartView) from standard input, then runs the agent until shutdown: pool, kernel
// channel, connection thread, and the event loop on the main thread.
//
// Singleton: made by get_instance(location); a call with another location gets null. The one
// Tavrel_View is installed with set_view, on the main thread only.
#pragma once

#include <mutex>
#include <string>

#include "base/tavrel_mutex.h"

class Tavrel_View;

class Tavrel_View_Handler {
 public:
  virtual ~Tavrel_View_Handler();

  static Tavrel_View_Handler* get_instance(const std::string& location);
  static void set_view(Tavrel_View* view);
  static Tavrel_View* get_view();
  static bool has_view();
  // Releases the process-wide resources of the WAN client.
  static void clean_up();
  static void lock_request() { g_request_lock.lock(); }
  static void unlock_request() { g_request_lock.unlock(); }

  int prepare_view();
  int run();

  // Ends the agent's work: no new requests, queued ones cancelled (each client gets 20026), then
  // waits until the connection thread has begun reaping threads. Running requests finish.
  static void perform_shutdown(bool forced);

  const std::string& get_location() const { return m_location; }

 private:
  explicit Tavrel_View_Handler(const std::string& location);

  std::string m_location;
  std::string m_unused1;
  std::string m_unused2;
  Tavrel_View_Handler* m_held = nullptr;

  static Tavrel_View_Handler* g_instance;
  static Tavrel_View* g_view;
  static Tavrel_Mutex g_request_lock;
};
