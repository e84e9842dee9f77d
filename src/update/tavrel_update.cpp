#include "update/tavrel_update.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>

#include "core/tavrel_config.h"
#include "core/tavrel_log.h"
#include "core/tavrel_log_update.h"
#include "core/tavrel_msg_table.h"
#include "core/tavrel_online.h"
#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_view.h"
#include "fs/tavrel_metadata.h"
#include "fs/tavrel_view_db.h"
#include "kfsm/tavrel_kfsm_ioctl.h"
#include "ops/tavrel_server.h"
#include "ops/tavrel_tag.h"
#include "update/tavrel_async_update.h"
#include "update/tavrel_cltxt_plus_db_listener.h"
#include "update/tavrel_surgical_listener.h"
#include "update/tavrel_view_db_listener.h"
#include "wan/view_update.h"
#include "xml/ol_xml_elem.h"

Tavrel_Mutex Tavrel_Update::g_blocking_lock{Tavrel_Lock_Rank::LEAF, "Tavrel_Update::g_blocking_lock"};
std::condition_variable_any Tavrel_Update::g_blocking_cond;
int Tavrel_Update::g_blocking_count = 0;
bool Tavrel_Update::g_rpc_complete = false;

namespace {
const char* const kClass = "Tavrel_Update";

bool is_true(const OlXmlElem* elem, const char* attr) { return elem->get_attr(attr) == Tavrel_Tag::TRUE_STRING; }

std::string client_user() {
  struct passwd pw;
  struct passwd* found = nullptr;
  char buf[4096];
  if (getpwuid_r(geteuid(), &pw, buf, sizeof buf, &found) == 0 && found != nullptr) return found->pw_name;
  return std::to_string(geteuid());
}
}  // namespace

Tavrel_Update::Tavrel_Update(const std::string& location, OlXmlDoc* doc) : Tavrel_AbstractOp(location, doc) {}

Tavrel_Update::Tavrel_Update(const std::string& location, const std::vector<std::string>& paths,
                             HijackTreatment treatment)
    : Tavrel_AbstractOp(REQUEST_NAME, location), m_hijack_treatment(treatment), m_surgical(true),
      m_update_paths(paths), m_parsed(true) {}

Tavrel_Update::Tavrel_Update(const Tavrel_Update& other)
    : Tavrel_AbstractOp(other.m_request_name, other.m_view_location),
      m_hijack_treatment(other.m_hijack_treatment),
      m_preserve_times(other.m_preserve_times),
      m_force(other.m_force),
      m_update_ondemand(other.m_update_ondemand),
      m_resume(other.m_resume),
      m_surgical(other.m_surgical),
      m_update_paths(other.m_update_paths),
      m_scope(other.m_scope),
      m_log_file(other.m_log_file),
      m_prefetch(other.m_prefetch),
      m_parsed(true) {
  m_txid = other.m_txid;
  m_view = other.m_view;
}

Tavrel_Update::~Tavrel_Update() = default;

// ---- request ----------------------------------------------------------------------------------------------

int Tavrel_Update::parse_request() {
  Tavrel_Trace trace(TAVREL, kClass, "parse_request");
  if (m_parsed) return m_status;
  m_parsed = true;
  OlXmlElem* root = parse_validate_request(1);
  if (root == nullptr) return m_status;
  OlXmlElem* flags = root->extract_child(UPDATE_FLAGS);
  if (flags == nullptr) {
    trace.writeTrace(TRACE_LEVEL_2, "No update flags");
    return fail(TAVREL_ST_MALFORMED, TVR_LIB_PARSE_ERROR, m_view_location.c_str());
  }
  const std::string treatment = flags->get_attr(HIJACK_TREATMENT);
  if (!treatment.empty() && !Tavrel_Util::parse_hijack_treatment(treatment, m_hijack_treatment)) {
    trace.writeTrace(TRACE_LEVEL_2, "Illegal hijack treatment flag: %s", treatment.c_str());
    m_status_message += "Illegal hijack treatment flag: " + treatment + "\n";
    return fail(TAVREL_ST_MALFORMED, TVR_LIB_PARSE_ERROR, m_view_location.c_str());
  }
  m_preserve_times = is_true(flags, PTIME);
  m_force = is_true(flags, FORCE);
  m_resume = is_true(flags, RESUME);
  m_surgical = is_true(flags, SURGICAL);
  m_update_ondemand = true;
  if (m_surgical) {
    trace.writeTrace(TRACE_LEVEL_4, "Surgical update string = %s", flags->get_attr(SURGICAL).c_str());
    if (parse_sub_list(root, UPDATE_PATHS, PATH, m_update_paths, true, true) != 0 || m_update_paths.empty()) {
      trace.writeTrace(TRACE_LEVEL_2, "No update paths");
      if (m_status == 0) fail(TAVREL_ST_MALFORMED, TVR_LIB_PARSE_ERROR, m_view_location.c_str());
      return m_status;
    }
    trace.writeTrace(TRACE_LEVEL_4, "Number paths = %d", static_cast<int>(m_update_paths.size()));
    for (const std::string& p : m_update_paths) trace.writeTrace(TRACE_LEVEL_4, "Path = %s", p.c_str());
  }
  return m_status;
}

void Tavrel_Update::process_request() {
  Tavrel_Trace trace(TAVREL, kClass, "process_request");
  if (parse_request() != 0) return;
  if (!tavrel_is_online()) {
    fail(TAVREL_ST_DISCONNECTED, TVR_LIB_DISCONNECTED);
    return;
  }
  if (get_view() != 0) return;
  if (m_surgical) {
    do_surgical_update();
    return;
  }
  if (Tavrel_View::should_stop_update()) {
    fail(TAVREL_ST_VIEW_ENDING, TVR_LIB_SHUTTING_DOWN);
    return;
  }
  Tavrel_Async_Update* job = nullptr;
  if (!queue_view_update(&job)) {
    if (m_status == 0) fail(TAVREL_ST_UPDATE_IN_PROGRESS, TVR_LIB_UPDATE_RUNNING);
    return;
  }
  Tavrel_View::wait_for_running_update();
  // What the kernel and the name service learned during the update may be of the old view.
  Tavrel_KFSM_Ioctl ioctl(m_view);
  int st = Tavrel_Metadata::view_inval_view(&ioctl, 1, 1, 0);
  trace.writeTrace(TRACE_LEVEL_4, "view invalidation after the update: %d", st);
}

void Tavrel_Update::get_response(std::string& response) {
  Tavrel_Trace trace(TAVREL, kClass, "get_response");
  OlXmlDoc doc;
  if (create_response_root(doc) == 0 && !m_log_file.empty()) doc.add_elem(LOG_FILE, m_log_file);
  finish_response(doc, response);
}

// ---- the log ------------------------------------------------------------------------------------------------

int Tavrel_Update::init_log() {
  Tavrel_Trace trace(TAVREL, kClass, "init_log");
  m_log = std::make_unique<Tavrel_Log_Update>(m_view->get_storage_path());
  // The file exists from here on, so a client can follow it from the moment it has its name.
  if (m_log->write_log(TAVREL_LOG_INFO, std::string()) != 0) {
    const int err = errno;
    fail(TAVREL_ST_UPDATE_LOG, TVR_LIB_UPDATE_LOG_OPEN, m_log->get_log_path().c_str(), std::strerror(err));
    m_log.reset();
    return m_status;
  }
  m_log_file = m_log->get_file_name();
  return 0;
}

void Tavrel_Update::log_start_update() {
  if (!m_log) return;
  Update_Log_Header h;
  h.view_tag = m_view ? m_view->get_server_tag() : std::string();
  h.start_time = time(nullptr);
  h.client_user = client_user();
  const Tavrel_Server::Fields f = Tavrel_Server::get_fields();
  h.server_domain = f.domain;
  h.server_user = f.username;
  h.server_url = f.url;
  h.process_id = static_cast<int>(getpid());
  h.preserve_times = m_preserve_times;
  h.hijack_treatment = m_hijack_treatment;
  h.force = m_force;
  h.resume = m_resume;
  h.update_ondemand = m_update_ondemand;
  m_log->log_header(h);
}

void Tavrel_Update::log_end_update() {
  if (!m_log) return;
  Update_Log_Trailer t;
  t.end_time = time(nullptr);
  t.status = m_status;
  t.message = m_status_message;
  t.cancelled = m_cancelled;
  {
    std::lock_guard<Tavrel_Mutex> g(m_bg_lock);
    t.background_status = m_bg_status;
    t.background_message = m_bg_message;
  }
  if (t.status == 0 && t.background_status != 0) {
    Tavrel_Trace trace(TAVREL, kClass, "log_end_update");
    trace.writeTrace(TRACE_LEVEL_2, "Promoting background status %d", t.background_status);
  }
  m_log->log_trailer(t);
}

void Tavrel_Update::bg_error(int status, const std::string& message) {
  std::lock_guard<Tavrel_Mutex> g(m_bg_lock);
  if (m_bg_status != 0) return;
  m_bg_status = status;
  m_bg_message = message;
}

// ---- blocking requests ----------------------------------------------------------------------------------------

void Tavrel_Update::add_blocking() {
  std::lock_guard<Tavrel_Mutex> g(g_blocking_lock);
  g_blocking_count++;
}

void Tavrel_Update::remove_blocking() {
  std::lock_guard<Tavrel_Mutex> g(g_blocking_lock);
  --g_blocking_count;
  g_blocking_cond.notify_all();  // the end of the update, or an update thread held back by the limit
}

void Tavrel_Update::wait_for_fewer_blocking(int limit) {
  for (;;) {
    {
      std::unique_lock<Tavrel_Mutex> g(g_blocking_lock);
      if (g_blocking_count < limit) return;
      g_blocking_cond.wait_for(g, std::chrono::milliseconds(100));
      if (g_blocking_count < limit) return;
    }
    // Outside the leaf lock: the view's own lock is taken to ask.
    if (Tavrel_View::should_stop_update()) return;
  }
}

int Tavrel_Update::blocking_count() {
  std::lock_guard<Tavrel_Mutex> g(g_blocking_lock);
  return g_blocking_count;
}

bool Tavrel_Update::rpc_complete() {
  std::lock_guard<Tavrel_Mutex> g(g_blocking_lock);
  return g_rpc_complete;
}

void Tavrel_Update::set_rpc_complete(bool done) {
  std::lock_guard<Tavrel_Mutex> g(g_blocking_lock);
  g_rpc_complete = done;
}

void Tavrel_Update::end_view_update() {
  Tavrel_Trace trace(TAVREL, kClass, "end_view_update");
  {
    std::unique_lock<Tavrel_Mutex> g(g_blocking_lock);
    while (g_blocking_count > 0) {
      trace.writeTrace(TRACE_LEVEL_4, "Waiting for blocking requests to complete (current = %d)", g_blocking_count);
      g_blocking_cond.wait(g);
    }
  }
  log_end_update();
  Tavrel_View::update_end(this);
}

// ---- the whole-view update --------------------------------------------------------------------------------------

bool Tavrel_Update::queue_view_update(Tavrel_Async_Update** out_job) {
  Tavrel_Trace trace(TAVREL, kClass, "queue_view_update");
  if (out_job) *out_job = nullptr;
  if (init_log() != 0) return false;
  auto* copy = new Tavrel_Update(*this);
  copy->m_log = std::move(m_log);
  unsigned gn = 0;
  if (!Tavrel_View::update_start(copy, gn, false)) {
    trace.writeTrace(TRACE_LEVEL_2, "an update is already running");
    // The log made for this request names no update that ran: it goes (it is still empty).
    ::unlink(copy->m_log->get_log_path().c_str());
    m_log_file.clear();
    delete copy;
    return false;
  }
  auto* job = new Tavrel_Async_Update(copy);
  if (out_job) *out_job = job;
  Tavrel_Thread_Manager_Base::get_instance()->start_op(job);
  return true;
}

int Tavrel_Update::do_view_update(bool is_restore) {
  Tavrel_Trace trace(TAVREL, kClass, "do_view_update");
  m_thread_id = std::to_string(static_cast<unsigned long>(olthread_self()));
  if (m_view == nullptr && get_view() != 0) {
    end_view_update();
    return m_status;
  }
  trace.writeTrace(TRACE_LEVEL_4, "Getting cached scopes");
  std::vector<tavrel_scope> scopes;
  if (Tavrel_View_db::get_scopes(Tavrel_View_db::ALL_SCOPES, scopes) != 0) {
    fail(TAVREL_ST_FAILURE, TVR_LIB_GET_LOAD_SCOPES);
    if (!is_restore) log_start_update();
    end_view_update();
    return m_status;
  }
  trace.writeTrace(TRACE_LEVEL_4, "Number of scopes %d", static_cast<int>(scopes.size()));
  unsigned gn = 0;
  int st = Tavrel_View_db::view_gn(gn);
  trace.writeTrace(TRACE_LEVEL_4, "view_gn (status = %d) = %d", st, static_cast<int>(gn));
  if (st != 0) {
    fail(TAVREL_ST_FAILURE, TVR_LIB_VIEW_DB_ACCESS);
    if (!is_restore) log_start_update();
    end_view_update();
    return m_status;
  }
  set_rpc_complete(false);
  {
    std::unique_ptr<Tavrel_View_db_listener> listener;
    // A pool of one thread runs no background work until the view ends: the update would wait for its
    // prefetches for ever, so it fetches nothing ahead then.
    const bool one_thread = Tavrel_Thread_Manager_Base::get_instance()->counters().pool == 1;
    const bool prefetch =
        m_prefetch && !one_thread && Tavrel_Config::get_instance()->get_int_param(CONF_PREFETCH, 1) != 0;
    if (m_prefetch && one_thread) trace.writeTrace(TRACE_LEVEL_3, "one pool thread: no cleartext prefetch");
    if (prefetch && !is_restore)
      listener = std::make_unique<Tavrel_Cltxt_Plus_DB_Listener>(this);
    else
      listener = std::make_unique<Tavrel_View_db_listener>(this);
    const bool prepared = listener->prepare_operation();
    if (!is_restore) log_start_update();
    if (!prepared) {
      trace.writeTrace(TRACE_LEVEL_2, "Status = %d, msg = [%s]", m_status, m_status_message.c_str());
    } else {
      trace.writeTrace(TRACE_LEVEL_4,
                       "Calling update with view gen# = %d, force = %d, upd_auto = %d, resume = %d, # scopes = %d",
                       static_cast<int>(gn), m_force, m_update_ondemand, m_resume, static_cast<int>(scopes.size()));
      View_Update cmd(m_view->get_view_uuid(), gn, m_force, m_update_ondemand, m_resume, scopes, listener.get());
      trace.writeTrace(TRACE_LEVEL_4, "Calling View_Update.run");
      cmd.run();
      std::string text;
      int rpc_status = cmd.get_status_code();
      st = cmd.check_rpc_status(Tavrel_Log::get_instance(m_view_location), text, rpc_status);
      trace.writeTrace(TRACE_LEVEL_4, "Status from view update rpc = %d (%d)", st, rpc_status);
      if (m_status != 0) {
        // The listener refused: its text says why; the transfer itself is of no further interest.
        std::string why = m_status_message;
        while (!why.empty() && why.back() == '\n') why.pop_back();
        m_status_message.clear();
        append_message(TVR_LIB_UPDATE_FAILED, m_status, why.c_str());
      } else if (st != 0) {
        while (!text.empty() && text.back() == '\n') text.pop_back();
        m_status = st;
        append_message(TVR_LIB_UPDATE_RPC, st, text.c_str());
      } else if (!rpc_complete()) {
        // A stream that ended without its end: nothing tells that the view has what it should.
        m_status = TAVREL_ST_WAN_CALL;
        append_message(TVR_LIB_UPDATE_RPC, st, "the update stream ended before its end");
      }
    }
  }
  end_view_update();
  return m_status;
}

// ---- the surgical update ----------------------------------------------------------------------------------------

int Tavrel_Update::do_surgical_update() {
  Tavrel_Trace trace(TAVREL, kClass, "do_surgical_update");
  if (m_view == nullptr && get_view() != 0) return m_status;
  unsigned current = 0;
  Tavrel_View::update_start(this, current, true);
  if (m_log == nullptr) init_log();
  if (m_status != 0) {
    Tavrel_View::update_end(this);
    return m_status;
  }
  log_start_update();
  unsigned gn = 0;
  if (Tavrel_View_db::view_gn(gn) != 0) {
    fail(TAVREL_ST_FAILURE, TVR_LIB_VIEW_DB_ACCESS);
    end_view_update();
    return m_status;
  }
  std::vector<std::string> paths;
  for (const std::string& p : m_update_paths) paths.push_back(m_view->strip_view_root(p));
  {
    Tavrel_Surgical_Listener listener(this);
    View_Update cmd(m_view->get_view_uuid(), gn, paths, &listener);
    cmd.run();
    std::string text;
    int rpc_status = cmd.get_status_code();
    int st = cmd.check_rpc_status(Tavrel_Log::get_instance(m_view_location), text, rpc_status);
    trace.writeTrace(TRACE_LEVEL_4, "Status from view update rpc = %d (%d)", st, rpc_status);
    if (m_status != 0) {
      std::string why = m_status_message;
      while (!why.empty() && why.back() == '\n') why.pop_back();
      m_status_message.clear();
      append_message(TVR_LIB_UPDATE_FAILED, m_status, why.c_str());
    } else if (st != 0) {
      while (!text.empty() && text.back() == '\n') text.pop_back();
      m_status = st;
      append_message(TVR_LIB_UPDATE_RPC, st, text.c_str());
    }
  }
  end_view_update();
  return m_status;
}
