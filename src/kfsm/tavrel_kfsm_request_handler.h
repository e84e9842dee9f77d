// Tavrel_KFSM_Request_Handler: the process-wide owner of the LPC threads of the kernel channel.
//
// get_instance() makes the one instance on first use (double-checked, under the thread manager's
// g_request_mutex); if it cannot be made the process ends. start_listening() starts tavrelNumKfsm
// (default 5) Tavrel_KFSM_Thread_Unix threads for the view tag recorded by set_view_tag (which
// Tavrel_KFSM_Ioctl::register_view calls), and points the module library's LPC waits at the shutdown
// pipe, so that shutdown also wakes threads that the module never answers. stop_listening() only
// traces: the threads end when the module answers 1046 (after the view is unregistered), when their
// call fails, or at shutdown.
#pragma once

#include <atomic>
#include <mutex>
#include <string>

#include "base/tavrel_mutex.h"

class Tavrel_KFSM_Request_Handler {
 public:
  virtual ~Tavrel_KFSM_Request_Handler() = default;
  virtual int start_listening() = 0;
  virtual int stop_listening() = 0;

  static Tavrel_KFSM_Request_Handler* get_instance();
  // Deletes the instance (tests only; no thread may use it afterwards).
  static void destroy_instance();

  void set_view_tag(const std::string& tag);
  std::string get_view_tag();

 protected:
  Tavrel_KFSM_Request_Handler() = default;

  Tavrel_Mutex m_tag_mutex{Tavrel_Lock_Rank::LEAF, "KFSM request handler view tag"};  // guards m_view_tag
  std::string m_view_tag;

  static std::atomic<Tavrel_KFSM_Request_Handler*> g_instance;
};
