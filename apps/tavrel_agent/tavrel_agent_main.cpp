#include "apps/tavrel_agent/tavrel_agent_main.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <clocale>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include <curl/curl.h>
#include <openssl/crypto.h>

#include "base/fileutl.h"
#include "base/imsg.h"
#include "base/olthread.h"
#include "base/pfm.h"
#include "base/server.h"
#include "base/strutl.h"
#include "base/sysutl.h"
#include "base/tavrel_mutex.h"
#include "core/tavrel_assert.h"
#include "core/tavrel_config.h"
#include "core/tavrel_log.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_view.h"
#include "apps/tavrel_agent/tavrel_agent_seams.h"
#include "apps/tavrel_agent/tavrel_view_handler.h"
#include "ops/tavrel_abstract_op.h"
#include "ops/tavrel_conn_handler_base.h"
#include "ops/tavrel_endview.h"
#include "ops/tavrel_mountsilo.h"
#include "ops/tavrel_server.h"
#include "proto/view_storage_names.h"

namespace {

const char* const USAGE = "tavrel_agent <view_storage_location> [-help] [-trace_level 0-5] [-trace_subsystem TAVREL:TVRCLIENT]";

const char* const tvr_bin_texts[] = {
    "Using view \"%s\", on host \"%s\".\n",
    "Not enough memory!\n",
    "Another instance of the Tavrel Agent found!\n",
    "Prepare view failed!\n",
    "Exiting, status = %d.\n",
    "Interrupted...exiting.\n",
};
const _imsg_message_table_t _tvr_bin_bin_msg_table = {"bin_tavrel_agent", "tvr_bin", 6, tvr_bin_texts};

char* g_view_storage = nullptr;
Tavrel_View_Handler* g_view_handler = nullptr;
olthread_t force_tid;
int cleanup_required = 1;
int tavrel_shutdown_signal = 0;
Tavrel_Mutex tavrel_shutdown_mutex{Tavrel_Lock_Rank::LEAF, "forced shutdown signal"};
std::condition_variable_any tavrel_shutdown_cv;
Tavrel_Mutex pending_mutex{Tavrel_Lock_Rank::LEAF, "pending messages"};  // guards the pending vectors
std::vector<std::string> pending_ok, pending_warn, pending_err, pending_trace;

Tavrel_Log* log_of(void* context) { return static_cast<Tavrel_Log*>(context); }

void tvr_handle_ok_message(void* context, const char* text) {
  if (context) return log_of(context)->write_log(TAVREL_LOG_INFO, "%s", text);
  std::lock_guard<Tavrel_Mutex> g(pending_mutex);
  pending_ok.emplace_back(text);
}
void tvr_handle_warn_message(void* context, const char* text) {
  if (context) return log_of(context)->write_log(TAVREL_LOG_WARN, "%s", text);
  std::lock_guard<Tavrel_Mutex> g(pending_mutex);
  pending_warn.emplace_back(text);
}
void tvr_handle_err_message(void* context, const char* text) {
  if (context) return log_of(context)->write_log(TAVREL_LOG_ERROR, "%s", text);
  std::lock_guard<Tavrel_Mutex> g(pending_mutex);
  pending_err.emplace_back(text);
}
void tvr_handle_trace_message(void* context, const char* text) {
  if (context) return Tavrel_Trace::write_to_trace_file(text);
  std::lock_guard<Tavrel_Mutex> g(pending_mutex);
  pending_trace.emplace_back(text);
}

const imsg_redirect_proc_t redirect_table[11] = {
    tvr_handle_ok_message,   tvr_handle_ok_message,   tvr_handle_ok_message,    tvr_handle_ok_message,
    tvr_handle_warn_message, tvr_handle_warn_message, tvr_handle_err_message,   tvr_handle_err_message,
    tvr_handle_trace_message, tvr_handle_trace_message, imsg_append_proc_suppress,
};

void tavrel_agent_destroy(int sig) {
  std::lock_guard<Tavrel_Mutex> g(tavrel_shutdown_mutex);
  tavrel_shutdown_signal = sig;
  tavrel_shutdown_cv.notify_all();
}

void* tavrel_agent_force_shutdown_thread(void*) {
  {
    std::unique_lock<Tavrel_Mutex> g(tavrel_shutdown_mutex);
    tavrel_shutdown_cv.wait(g, [] { return tavrel_shutdown_signal != 0; });
  }
  Tavrel_Trace trace(TAVREL, "tavrel_agent", "tavrel_agent_shutdown_now");
  if (g_view_storage)
    Tavrel_Log::get_instance(g_view_storage)->write_log(TAVREL_LOG_WARN, &_tvr_bin_bin_msg_table, 5);
  // The forced end: the same steps as EndView. A signal that comes before there is a view (during
  // the first request) still stops the agent.
  if (g_view_storage && Tavrel_View_Handler::has_view()) {
    Tavrel_Endview end(g_view_storage, true);
    int status = end.perform_endview();
    trace.writeTrace(TRACE_LEVEL_3, "Forced end: %d %s", status, end.get_status_message().c_str());
  } else {
    Tavrel_View_Handler::perform_shutdown(true);
  }
  return nullptr;
}

void tavrel_agent_on_exit(int status, void*) {
  if (!g_view_storage) return;
  Tavrel_Log* log = Tavrel_Log::get_instance(g_view_storage);
  if (cleanup_required) {
    Tavrel_Trace trace(TAVREL, "tavrel_agent", "do_cleanup");
    trace.writeTrace(TRACE_LEVEL_4, "Status = %d", status);
    if (g_view_handler) {
      trace.writeTrace(TRACE_LEVEL_4, "Deleting view handler");
      delete g_view_handler;
      g_view_handler = nullptr;
    } else {
      Tavrel_View* view = Tavrel_View::get_view_from_stg(g_view_storage);
      view->cleanup();
      delete view;
    }
    Tavrel_View_Handler::clean_up();
  }
  log->write_log(TAVREL_LOG_INFO, &_tvr_bin_bin_msg_table, 4, status);
}

[[noreturn]] void usage_error(const char* argv0) {
  fprintf(stderr, "usage error\nusage: %s %s\n", argv0, USAGE);
  pfm_exit(1);
}

void print_version(bool all) {
  printf("%s\n", tavrel_agent_version());
  if (!all) return;
  printf("  libcurl %s\n", curl_version_info(CURLVERSION_NOW)->version);
  printf("  %s\n", OpenSSL_version(OPENSSL_VERSION));
}

}  // namespace

const char* tavrel_agent_version() { return "tavrel_agent 0.1.0"; }

int tavrel_agent_main(int argc, char** argv) {
  const char* argv0 = argc > 0 ? argv[0] : "tavrel_agent";
  // 1. Version switches, before anything is set up.
  if (argc > 1) {
    if (strcasecmp(argv[1], "-Ver") == 0 || strcasecmp(argv[1], "-Version") == 0) {
      print_version(false);
      return 0;
    }
    if (strcasecmp(argv[1], "-VerAll") == 0) {
      print_version(true);
      return 0;
    }
  }
  // Passwords come in the first request. A starter that left one in the environment would have it
  // kept, readable in /proc, for the view's life: wipe the text in place, then drop the variables.
  for (const char* name : {"TAVREL_PASSWORD", "TAVREL_PROXY_PASSWORD"}) {
    if (char* value = getenv(name)) {
      memset(value, 0, strlen(value));
      unsetenv(name);
    }
  }
  // 2.-6. Messages, locale, umask, signals, exit handler.
  imsg_set_redirect_procs(redirect_table, 11, nullptr);
  setlocale(LC_ALL, "");
  mode_t mask;
  TAVREL_ASSERT(sysutl_get_umask(&mask) == KS_ST_OK);
  TAVREL_ASSERT_TEXT(sysutl_initialize_umask(false, mask & ~(KS_FMODE_IRWXU | KS_FMODE_IRWXG)) == KS_ST_OK,
                     "sysutl_initialize_umask(FALSE, mask & ~(KS_FMODE_IRWXU | KS_FMODE_IRWXG)) == KS_ST_OK");
  pfm_signal(SIGTERM, tavrel_agent_destroy);
  pfm_signal(SIGINT, tavrel_agent_destroy);
  pfm_signal(SIGHUP, tavrel_agent_destroy);
  pfm_signal(SIGPIPE, PFM_SIG_IGNORE);
  pfm_on_exit(tavrel_agent_on_exit, nullptr);

  // 7. Arguments: the storage path first, options after it.
  if (argc < 2) {
    fprintf(stderr, "Usage: %s %s\n", argv0, USAGE);
    pfm_exit(1);
  }
  int trace_level = 0;
  std::string trace_subsystem;
  std::string storage;
  for (int i = 1; i < argc; i++) {
    std::string arg = argv[i];
    if (arg == "-help") {
      printf("%s %s\n", argv0, USAGE);
      pfm_exit(0);
    }
    if (i == 1) {
      if (arg == "-trace_level" || arg == "-trace_subsystem") usage_error(argv0);
      storage = arg;
      continue;
    }
    if (arg == "-trace_level" || arg == "-trace_subsystem") {
      if (i + 1 >= argc) usage_error(argv0);  // an option without its value
      std::string value = argv[++i];
      if (arg == "-trace_level") {
        // A base-10 number as strtol reads it: text that is no number is level 0 (no trace).
        long level = std::strtol(value.c_str(), nullptr, 10);
        trace_level = level > INT_MAX ? INT_MAX : level < INT_MIN ? INT_MIN : static_cast<int>(level);
      } else {
        trace_subsystem = value;
      }
      continue;
    }
    usage_error(argv0);
  }
  if (storage.empty()) usage_error(argv0);
  // Paths of pipes and files are built from the storage path, and the agent changes its working
  // directory later: a relative path is made absolute now.
  if (storage[0] != '/') storage = fileutl_abspn(storage);
  g_view_storage = strdup(storage.c_str());

  // 8.-10. Own process group; the parent stays behind as watchdog.
  if (setpgid(0, 0) != 0) _exit(2);
  pid_t child = olthread_fork(2);
  if (child < 0) pfm_exit(2);
  if (child > 0) {
    // The watchdog never reads or writes the starter's pipes: let go of them, so that only the agent
    // holds them (and it releases them after its first answer).
    int devnull = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (devnull >= 0) {
      dup2(devnull, 0);
      dup2(devnull, 1);
      if (devnull > 2) close(devnull);
    }
    int st = 0;
    for (;;) {
      pid_t r = waitpid(child, &st, 0);
      if (r == child) break;
      if (r < 0 && errno != EINTR) break;
    }
    // The listener belongs to whoever holds the view lock: a second agent refused on a running view
    // must not take the running agent's listener away (no client could reach that view any more).
    pid_t holder = server_lock_holder(storage + "/" + VIEW_STG_LOCK);
    if (holder <= 0 || holder == child) remove(Tavrel_Conn_Handler_Base::listener_path(storage).c_str());
    if (WIFEXITED(st)) _exit(WEXITSTATUS(st));
    _exit(2);
  }

  // 11.-14. Trace and log.
  int exit_code;
  {
    Tavrel_Trace trace(TAVREL, "tavrel_agent", "main");
    Tavrel_Log* log = Tavrel_Log::get_instance(storage);
    std::string user = sysutl_myloginname();
    if (trace_level > 0) {
      Tavrel_Trace::set_trace(trace_subsystem.c_str(), trace_level);
      Tavrel_Trace::setup_trace_file(user.c_str(), getpid());
    }
    imsg_set_redirect_procs(redirect_table, 11, log);
    Tavrel_Config* config = Tavrel_Config::get_instance();
    if (!Tavrel_Trace::tracing_enabled()) {
      long level;
      if (strutl_strtol(config->find(Tavrel_Config::TAVREL_TRACE_LEVEL), &level) && level > 0) {
        Tavrel_Trace::set_trace(config->find(Tavrel_Config::TAVREL_TRACE_SUBSYSTEM).c_str(), static_cast<int>(level));
        Tavrel_Trace::setup_trace_file(user.c_str(), getpid());
      }
    }
    {
      Tavrel_Trace pending(TAVREL, "tavrel_agent", "tvr_trace_pending_messages");
      std::lock_guard<Tavrel_Mutex> g(pending_mutex);
      for (auto& m : pending_ok) pending.writeTrace(TRACE_LEVEL_1, "INFO: %s", m.c_str());
      for (auto& m : pending_warn) pending.writeTrace(TRACE_LEVEL_1, "WARN: %s", m.c_str());
      for (auto& m : pending_err) pending.writeTrace(TRACE_LEVEL_1, "ERROR: %s", m.c_str());
      for (auto& m : pending_trace) pending.writeTrace(TRACE_LEVEL_1, "UNKNOWN: %s", m.c_str());
      pending_ok.clear();
      pending_warn.clear();
      pending_err.clear();
      pending_trace.clear();
    }

    // Lower libraries reach the layers above through seams, all installed here; a missing one
    // stops the agent before it serves anything.
    tavrel_agent_install_seams();
    const std::vector<std::string> missing = tavrel_agent_missing_seams();
    if (!missing.empty()) {
      for (const std::string& m : missing) {
        trace.writeTrace(TRACE_LEVEL_1, "Seam not installed: %s", m.c_str());
        imsg_print(IMSG_ERR, "tavrel_agent: seam not installed: %s\n", m.c_str());
      }
      pfm_exit(2);
    }

    // 15.-17. View handler, forced-shutdown thread, first request.
    trace.writeTrace(TRACE_LEVEL_4, "Creating view handler for location %s", storage.c_str());
    g_view_handler = Tavrel_View_Handler::get_instance(storage);
    if (!g_view_handler) pfm_exit(2);
    // Nothing joins the forced-shutdown thread (the process ends through pfm_exit, possibly while it
    // still runs the forced end), so it is detached: its end leaves nothing behind.
    pthread_attr_t detached;
    pthread_attr_init(&detached);
    pthread_attr_setdetachstate(&detached, PTHREAD_CREATE_DETACHED);
    olthread_create(&force_tid, &detached, tavrel_agent_force_shutdown_thread, nullptr);
    pthread_attr_destroy(&detached);
    int status = 0;
    trace.writeTrace(TRACE_LEVEL_4, "Status before prepare view %d", status);
    status = g_view_handler->prepare_view();
    trace.writeTrace(TRACE_LEVEL_4, "Status after prepare view %d", status);

    // 18.-22.
    if (status == 0) {
      Tavrel_Log::g_enabled = 1;
      log->write_log(TAVREL_LOG_INFO, &_tvr_bin_bin_msg_table, 0, storage.c_str(), sysutl_myhostname());
      status = g_view_handler->run();
      trace.writeTrace(TRACE_LEVEL_4, "Exit status from run %d", status);
      exit_code = status == 0 ? 0 : 4;
    } else {
      exit_code = 2;
      if (status == TAVREL_ST_VIEW_LOCKED || status == TAVREL_ST_STORAGE_EXISTS) {
        // This process never owned the view and must leave it alone.
        cleanup_required = 0;
        trace.writeTrace(TRACE_LEVEL_4, "cleanup not required ");
      }
    }
    if (g_view_handler) {
      delete g_view_handler;
      g_view_handler = nullptr;
    }
    if (status != 0)
      log->write_log(TAVREL_LOG_ERROR, &_tvr_bin_bin_msg_table, 4, status);
    else
      log->write_log(TAVREL_LOG_INFO, &_tvr_bin_bin_msg_table, 4, 0);
  }
  pfm_exit(exit_code);
}
