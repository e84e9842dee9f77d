#include "apps/tavrel_agent/tavrel_view_handler.h"

#include <fcntl.h>
#include <unistd.h>

#include <iostream>

#include "base/olthread.h"
#include "base/pfm.h"
#include "base/rt.h"
#include "core/tavrel_assert.h"
#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_log.h"
#include "core/tavrel_view.h"
#include "kfsm/tavrel_kfsm_request_handler.h"
#include "ops/tavrel_abstract_op.h"
#include "ops/tavrel_conn_handler_base.h"
#include "ops/tavrel_request_handler_base.h"
#include "ops/tavrel_tag.h"
#include "wan/rclient_session.h"

Tavrel_View_Handler* Tavrel_View_Handler::g_instance = nullptr;
Tavrel_View* Tavrel_View_Handler::g_view = nullptr;
Tavrel_Mutex Tavrel_View_Handler::g_request_lock{Tavrel_Lock_Rank::VIEW_REQUEST, "Tavrel_View_Handler::g_request_lock"};

namespace {
Tavrel_Mutex g_instance_mutex{Tavrel_Lock_Rank::LEAF, "Tavrel_View_Handler instance"};

// After the first answer the agent no longer needs its standard input and output: pointing them at
// /dev/null lets a starter that reads to end of file, or runs the agent inside $(...), go on.
void release_standard_streams() {
  int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (fd < 0) return;
  dup2(fd, 0);
  dup2(fd, 1);
  if (isatty(2)) dup2(fd, 2);
  if (fd > 2) close(fd);
}
}  // namespace

Tavrel_View_Handler::Tavrel_View_Handler(const std::string& location) : m_location(location) {}

Tavrel_View_Handler::~Tavrel_View_Handler() {
  Tavrel_Thread_Manager_Base::get_instance();
  delete m_held;
  delete g_view;
  g_view = nullptr;
  std::lock_guard<Tavrel_Mutex> g(g_instance_mutex);
  g_instance = nullptr;
}

Tavrel_View_Handler* Tavrel_View_Handler::get_instance(const std::string& location) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_Handler", "get_instance");
  std::lock_guard<Tavrel_Mutex> g(g_instance_mutex);
  if (!g_instance) {
    g_instance = new Tavrel_View_Handler(location);
    return g_instance;
  }
  if (g_instance->m_location != location) {
    trace.writeTrace(TRACE_LEVEL_1, "Someone requested instance at wrong location %s, should be %s!", location.c_str(),
                     g_instance->m_location.c_str());
    return nullptr;
  }
  return g_instance;
}

void Tavrel_View_Handler::set_view(Tavrel_View* view) {
  TAVREL_ASSERT(OLTHREAD_IS_MAIN_THREAD());
  TAVREL_ASSERT(g_view == NULL);
  g_view = view;
}

Tavrel_View* Tavrel_View_Handler::get_view() {
  TAVREL_ASSERT(g_view != NULL);
  return g_view;
}

bool Tavrel_View_Handler::has_view() { return g_view != nullptr; }

void Tavrel_View_Handler::clean_up() {
  // Idle transfer handles of the WAN session, then libcurl's global state.
  RClient_Session::clean_up();
}

int Tavrel_View_Handler::prepare_view() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_Handler", "prepare_view");
  std::string request;
  Tavrel_Request_Handler_Base::read_request(std::cin, request);
  int status = 0;
  std::string response;
  Tavrel_AbstractOp* op = Tavrel_AbstractOp::create_xml_request_handler(request, m_location, &status);
  if (op) {
    const std::string& name = op->get_request_name();
    if (name == "MkView" || name == "StartView") {
      if (name == "StartView") Tavrel_Log::g_enabled = 1;
      op->process_request();
      op->get_response(response);
      status = op->get_status();
    } else if (name == Tavrel_Tag::XMLERROR) {
      // Not a document, or a root that names no operation: the framework's own answer ("XMLError",
      // 20020 with message 7 or 22; 20057 for an unconvertible character). No view comes of it.
      trace.writeTrace(TRACE_LEVEL_1, "First request is not a request");
      op->process_request();
      op->get_response(response);
      status = op->get_status() != 0 ? op->get_status() : TAVREL_ST_UNRECOGNIZED;
    } else {
      // Only MkView and StartView can bring a view into being; any other operation would reach a view
      // that does not exist.
      trace.writeTrace(TRACE_LEVEL_1, "First request %s is neither MkView nor StartView", name.c_str());
      status = TAVREL_ST_UNRECOGNIZED;
      Tavrel_AbstractOp::get_error_response(status, request, response);
    }
  } else {
    if (status == 0) status = TAVREL_ST_NO_OBJECT;
    Tavrel_AbstractOp::get_error_response(status, request, response);
  }
  Tavrel_Request_Handler_Base::send_response(std::cout, response);
  release_standard_streams();
  if (status == 0) status = g_view ? g_view->get_view_info() : TAVREL_ST_NO_VIEW_INFO;
  delete op;
  return status;
}

int Tavrel_View_Handler::run() {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_Handler", "run");
  int status = 0;
  Tavrel_KFSM_Request_Handler* kfsm = Tavrel_KFSM_Request_Handler::get_instance();
  Tavrel_Thread_Manager_Base* mgr = Tavrel_Thread_Manager_Base::get_instance();
  Tavrel_Conn_Handler_Base* conn = g_view ? Tavrel_Conn_Handler_Base::get_conn_handler(g_view) : nullptr;
  bool conn_started = false;
  if (!kfsm || !mgr || !conn) status = TAVREL_ST_NO_OBJECT;
  if (status == 0) status = mgr->initialize();
  if (status == 0) {
    // The LPC threads of the kernel channel serve the view's file system from here on. They end when
    // the module lets the view go (1046, after the view is unregistered) or at shutdown. A view the
    // module does not know gets no threads; its clients are served all the same.
    trace.writeTrace(TRACE_LEVEL_4, "Starting KFSM listening");
    int rc = kfsm->start_listening();
    if (rc != 0) trace.writeTrace(TRACE_LEVEL_1, "No KFSM listening: %d", rc);
    rc = conn->start();
    if (rc != 0) {
      // The status stays as it is: the process ends here with the exit code of a normal end.
      trace.writeTrace(TRACE_LEVEL_1, "Unable to start connection handler thread: error %d", rc);
      mgr->set_should_exit();
      mgr->terminate();
    } else {
      conn_started = true;
      rt_run();
    }
  } else {
    if (g_view) g_view->cleanup();
    if (mgr) {
      mgr->set_should_exit();
      mgr->terminate();
    }
  }
  if (kfsm) kfsm->stop_listening();
  if (conn_started) conn->join();
  if (status == 0 && conn && conn->failure() != 0) status = conn->failure();  // it refused to serve
  delete conn;
  return status;
}

void Tavrel_View_Handler::perform_shutdown(bool forced) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_Handler", "perform_shutdown");
  trace.writeTrace(TRACE_LEVEL_3, "Ending the view (forced=%d)", forced ? 1 : 0);
  Tavrel_Thread_Manager_Base* mgr = Tavrel_Thread_Manager_Base::get_instance();
  mgr->set_should_exit();
  mgr->drain_incomplete();
  mgr->wait_for_terminate();
}
