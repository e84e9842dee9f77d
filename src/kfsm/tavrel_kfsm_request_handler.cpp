#include "kfsm/tavrel_kfsm_request_handler.h"

#include <new>

#include "base/pfm.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_trace.h"
#include "kfsm/tavrel_kfsm_request_handler_unix.h"

std::atomic<Tavrel_KFSM_Request_Handler*> Tavrel_KFSM_Request_Handler::g_instance{nullptr};

Tavrel_KFSM_Request_Handler* Tavrel_KFSM_Request_Handler::get_instance() {
  Tavrel_KFSM_Request_Handler* p = g_instance.load(std::memory_order_acquire);
  if (p) return p;
  {
    std::lock_guard<Tavrel_Mutex> g(Tavrel_Thread_Manager_Base::g_request_mutex);
    p = g_instance.load(std::memory_order_relaxed);
    if (!p) {
      p = new (std::nothrow) Tavrel_KFSM_Request_Handler_Unix();
      g_instance.store(p, std::memory_order_release);
    }
  }
  if (!p) {
    Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Request_Handler", "get_instance");
    trace.writeTrace(TRACE_LEVEL_1, "get_instance returning NULL!");
    pfm_exit(0);
  }
  return p;
}

void Tavrel_KFSM_Request_Handler::destroy_instance() {
  std::lock_guard<Tavrel_Mutex> g(Tavrel_Thread_Manager_Base::g_request_mutex);
  delete g_instance.exchange(nullptr);
}

void Tavrel_KFSM_Request_Handler::set_view_tag(const std::string& tag) {
  std::lock_guard<Tavrel_Mutex> g(m_tag_mutex);
  m_view_tag = tag;
}

std::string Tavrel_KFSM_Request_Handler::get_view_tag() {
  std::lock_guard<Tavrel_Mutex> g(m_tag_mutex);
  return m_view_tag;
}
