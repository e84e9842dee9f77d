// Tavrel_Update: the request "Update", which brings the view to what its config spec selects now.
//
// Request:
//   <Update version="1" tx-id="...">
//     <update-flags hijack-treatment="keep|overwrite|rename" ptime="true" force="true" resume="true"
//                   surgical="true"/>
//     <update-paths><path>/tag/a/b</path>...</update-paths>      (only with surgical="true")
//   </Update>
// "update-flags" is required (20021, message 7); a flag counts as set only for the exact text "true";
// any hijack treatment but the three gives 20021 and "Illegal hijack treatment flag: %s". A surgical
// request without "update-paths" (or with an empty one) fails here, before anything starts. Paths are
// tag-prefixed SILO paths or full paths under the view root (the root is cut off).
// Answer: the envelope with <log-file>update.<time>.updt</log-file>, the name of the update log in the
// view's "log" directory. Refusals: 20033 offline (message 16), 20026 shutting down (message 73), 20058
// an update already running (message 74), 20053 the log could not be made (message 68).
//
// A whole-view update runs on a thread of its own (Tavrel_Async_Update) over a private copy of this
// operation, while the request's thread waits for it to end: the client's request blocks for the
// update's whole length. The request's own status says whether the update ran; how it went is in the
// log's trailer ("Status:", "Cancelled:", "ErrorStatus:", "ErrorMessage:"), written before the update
// lets go of the view. Then the name service and the kernel forget what they held of the view.
// A surgical update runs in the request's thread, after any update that holds the gate, and its
// status is the request's.
//
// Prefetch: a whole-view update also fetches the cleartext of the file versions it brings, in the
// background, unless tavrel.conf sets tavrelUpdatePrefetch=0 or the agent's pool has one thread (which
// runs background work only at the view's end, so the update would wait for ever); then a file is
// fetched when it is first opened, as in a view that was never updated.
//
// Durability: each applied event is its own database transaction; the view's generation number (GN)
// is stored only once the whole stream was applied. An update that fails, is stopped, or dies with the
// process leaves a whole database, the old view GN, and a log that ends without a trailer (death) or
// with the failure; an update asked with resume="true" (or a plain one) completes it.
//
// Threads: one update per view, through the gate of Tavrel_View (update_start / update_end).
// g_blocking_lock (a leaf) guards the count of background requests that must end before the log is
// closed (the cleartext prefetches of the update); m_bg_lock (a leaf) guards the background failure
// kept for the trailer, which prefetches report from pool threads.
#pragma once

#include <condition_variable>
#include <memory>
#include <string>
#include <vector>

#include "base/tavrel_mutex.h"
#include "core/tavrel_util.h"
#include "ops/tavrel_abstract_op.h"
#include "proto/tavrel_records.h"

class Tavrel_Async_Update;
class Tavrel_Log_Update;

class Tavrel_Update : public Tavrel_AbstractOp {
 public:
  static constexpr const char* REQUEST_NAME = "Update";
  static constexpr const char* UPDATE_FLAGS = "update-flags";
  static constexpr const char* HIJACK_TREATMENT = "hijack-treatment";
  static constexpr const char* PTIME = "ptime";
  static constexpr const char* FORCE = "force";
  static constexpr const char* RESUME = "resume";
  static constexpr const char* SURGICAL = "surgical";
  static constexpr const char* UPDATE_PATHS = "update-paths";
  static constexpr const char* PATH = "path";
  static constexpr const char* LOG_FILE = "log-file";
  static constexpr const char* CONF_PREFETCH = "tavrelUpdatePrefetch";

  Tavrel_Update(const std::string& location, OlXmlDoc* doc);
  // Built in code: a surgical update of `paths` (tag-prefixed), as the namespace operations ask for it.
  Tavrel_Update(const std::string& location, const std::vector<std::string>& paths, HijackTreatment treatment);
  ~Tavrel_Update() override;

  void process_request() override;
  void get_response(std::string& response) override;

  // Reads the request into the fields. 0 or 20021 (status and message set).
  int parse_request();
  // Makes the log, a private copy of this operation and the thread that runs it, and takes the gate
  // for the copy. False when the log cannot be made or another update holds the gate (nothing runs).
  bool queue_view_update(Tavrel_Async_Update** out_job);
  // The whole-view update (on the update thread): scopes and GN from the database, the stream from the
  // server applied by the listener, then end_view_update. Returns the status.
  int do_view_update(bool is_restore);
  // The update of the request's paths, in this thread. Returns the status.
  int do_surgical_update();
  // Creates the update log of the view (20053 and message 68 when its directory cannot be made).
  int init_log();
  void log_start_update();
  void log_end_update();
  // Waits for the background requests of the update, writes the trailer and lets go of the gate.
  void end_view_update();
  // A background failure of the update (a prefetch); the first one is kept and promoted in the trailer
  // when the update itself succeeded.
  void bg_error(int status, const std::string& message);

  // The listeners' view of the request.
  HijackTreatment get_hijack_treatment() const { return m_hijack_treatment; }
  bool get_preserve_times() const { return m_preserve_times; }
  bool get_force() const { return m_force; }
  bool get_resume() const { return m_resume; }
  bool get_surgical() const { return m_surgical; }
  const std::vector<std::string>& get_update_paths() const { return m_update_paths; }
  Tavrel_Log_Update* get_log() const { return m_log.get(); }
  const std::string& get_log_file() const { return m_log_file; }
  Tavrel_View* get_update_view() const { return m_view; }
  // A listener that was stopped because the view is ending marks the update cancelled.
  void set_cancelled() { m_cancelled = true; }
  bool is_cancelled() const { return m_cancelled; }
  // Whether full updates prefetch the cleartext of the file versions they bring (default true; off also
  // when tavrel.conf says so).
  void set_prefetch(bool on) { m_prefetch = on; }

  // The count of background requests that end_view_update waits for.
  static void add_blocking();
  static void remove_blocking();
  static int blocking_count();
  // Waits while `limit` or more are outstanding, or until the view begins to end: the update thread
  // waits here before it queues another prefetch, so what waits for the server stays bounded however
  // long the stream. Call with no lock held.
  static void wait_for_fewer_blocking(int limit);
  // Cleared when an update starts; set when its stream was applied whole.
  static bool rpc_complete();
  static void set_rpc_complete(bool done);

 private:
  // A private copy of `other`'s request fields (and a log of the same file), for the update thread.
  explicit Tavrel_Update(const Tavrel_Update& other);
  void finish_parse(bool ok);

  std::unique_ptr<Tavrel_Log_Update> m_log;
  HijackTreatment m_hijack_treatment = HIJACK_TREATMENT_KEEP;
  bool m_preserve_times = false;
  bool m_force = false;
  bool m_update_ondemand = true;
  bool m_resume = false;
  bool m_surgical = false;
  std::vector<std::string> m_update_paths;
  tavrel_scope m_scope{};
  std::string m_thread_id;
  std::string m_log_file;
  bool m_prefetch = true;
  bool m_cancelled = false;
  bool m_parsed = false;  // built in code: nothing to parse

  Tavrel_Mutex m_bg_lock{Tavrel_Lock_Rank::LEAF, "Tavrel_Update::m_bg_lock"};
  int m_bg_status = 0;
  std::string m_bg_message;

  static Tavrel_Mutex g_blocking_lock;
  static std::condition_variable_any g_blocking_cond;
  static int g_blocking_count;
  static bool g_rpc_complete;
};
