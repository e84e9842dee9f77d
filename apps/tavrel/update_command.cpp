// `tavrel update`: brings the running view to what its rules select now, and tells how it went.
//
//   tavrel update [--hijack keep|overwrite|rename] [--ptime] [--force | --resume] [--no-wait | --follow]
//   tavrel update [--hijack ...] [--ptime] --paths P... | P...      (a surgical update of those paths)
//
// Flow: one Update request; while it is answered the command reads the update log the agent writes
// (the newest "update.*.updt" of <storage>/log that was not there before the request, then the name
// the reply gives in "log-file"). The agent may answer as soon as the update has started or only when
// it has ended; either way the command goes on reading the log, asking IsUpdateInProgress once a
// second, until the log's trailer says how it ended. On a terminal (standard error) a progress line
// shows the elements applied so far; elsewhere nothing is shown until the end. --follow prints the log
// lines as they come instead; --no-wait leaves once the log's path is known.
//
// Time limit: none unless -t/--timeout or TAVREL_TIMEOUT gives one; then the command gives up (exit 4)
// after that long with neither a reply nor a new line in the log, however long the update itself runs.
//
// Exit codes as the other commands, and: 0 only when the log ends "Succeeded"; 1 when it ends "Failed"
// or the agent refused the request; 6 when the view ended before the log's trailer (the update can be
// completed with --resume).
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <set>
#include <thread>

#include "apps/tavrel/cli.h"
#include "base/fileutl.h"
#include "client/connection.h"
#include "client/update_log.h"
#include "proto/tavrel_status.h"
#include "proto/view_metadata.h"
#include "proto/view_storage_names.h"

namespace tavrel::cli {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPollMs = 100;          // how often the log is read
constexpr int kAskEveryMs = 1000;     // how often the agent is asked whether the update still runs
constexpr const char* kDefaultViewRoot = "/view";

const char* const kUpdateUsage =
    "  --hijack keep|overwrite|rename  what becomes of hijacked files (default keep)\n"
    "  --ptime                     keep the repository's modification times\n"
    "  --force                     update every load rule, changed or not\n"
    "  --resume                    complete an update that failed or was cut short\n"
    "  --paths P...                update only these paths (also as trailing arguments): a path in the\n"
    "                              mounted view, or one from the SILO's tag (/tag/dir/file)\n"
    "  --view-root DIR             where views appear (TAVREL_VIEW_ROOT, default /view)\n"
    "  --no-wait                   leave once the update has started and its log is known\n"
    "  --follow                    print the update log's lines as they are written\n";

std::string view_tag(const Options& o) {
  std::string text, value;
  std::vector<View_Metadata_Field> fields;
  if (fileutl_read_file(o.storage + "/" + VIEW_STG_METADATA, &text, VIEW_METADATA_MAX_FILE) != 0 ||
      !view_metadata_parse(text, &fields) || !view_metadata_find(fields, VIEW_MD_SERVER_TAG, &value))
    return "";
  return value;
}

// A path of the command line in the form the server resolves: a path inside the mounted view
// (<view root>/<view tag>/<silo>/...) loses the view's prefix; one that starts with "/" and lies
// elsewhere is taken as already given from the SILO's tag. A relative path is taken from the current
// directory, which must then lie in the view. Empty with *error set when it cannot be.
std::string silo_path(const std::string& given, const std::string& root, const std::string& tag, std::string* error) {
  const std::string prefix = (root.size() > 1 && root.back() == '/' ? root.substr(0, root.size() - 1) : root) + "/" + tag;
  std::string p = given[0] == '/' ? given : fileutl_abspn(given);
  // A path that exists is resolved, so that "..", "." and links to the view's directory come right.
  char real[PATH_MAX];
  if (realpath(p.c_str(), real)) p = real;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  if (!tag.empty() && p.size() > prefix.size() && p.compare(0, prefix.size(), prefix) == 0 && p[prefix.size()] == '/')
    return p.substr(prefix.size());
  if (given[0] != '/') {
    *error = "\"" + given + "\" is not inside the view (" + prefix + ")";
    return "";
  }
  return p;
}

// The progress line on a terminal: redrawn in place, only when its text changes.
struct Progress {
  bool on = false;
  std::string shown;
  void show(const std::string& text) {
    if (!on || text == shown) return;
    fprintf(stderr, "\r%s\033[K", text.c_str());
    fflush(stderr);
    shown = text;
  }
  void clear() {
    if (!on || shown.empty()) return;
    fprintf(stderr, "\r\033[K");
    fflush(stderr);
    shown.clear();
  }
};

struct Follower {
  explicit Follower(const Options& o) : opts(o) {}
  const Options& opts;
  std::string log_dir;
  std::set<std::string> before;  // logs that were there before the request
  client::UpdateLog log;
  bool known = false;            // the log's path is settled
  Progress progress;
  bool follow = false;
  Clock::time_point last_news = Clock::now();

  // Adopts `path` as the log (keeping what was read when it is the same file).
  void adopt(const std::string& path) {
    if (known && log.path() == path) return;
    if (log.path() != path) log = client::UpdateLog(path);
    known = true;
  }
  // Before the reply: the newest log that appeared since the request.
  void discover() {
    if (known) return;
    std::vector<std::string> names = client::update_log_names(log_dir);
    for (auto it = names.rbegin(); it != names.rend(); ++it)
      if (!before.count(*it)) {
        log = client::UpdateLog(log_dir + "/" + *it);
        return;  // not settled: the reply's name wins
      }
  }
  // Reads what the log gained; shows it.
  void read() {
    if (log.path().empty()) return;
    std::vector<std::string> lines;
    off_t had = log.bytes_read();
    log.poll(follow ? &lines : nullptr);
    if (log.bytes_read() != had) last_news = Clock::now();
    if (follow) {
      for (const std::string& l : lines) printf("%s\n", l.c_str());
      fflush(stdout);
    } else if (log.state().header) {
      progress.show(client::update_progress_line(log.state()));
    }
  }
  bool stalled() const {
    return opts.timeout_given && Clock::now() - last_news > std::chrono::seconds(opts.timeout_s);
  }
};

// The end: the log's path, the summary, and the exit code.
int report(const Options& opts, Follower& f, bool view_ended) {
  f.progress.clear();
  const client::UpdateLogState& s = f.log.state();
  if (opts.output == Output::kJson) {
    printf("{\"op\":\"Update\",\"log_file\":%s,\"finished\":%s", client::json_quote(f.log.path()).c_str(),
           s.finished ? "true" : "false");
    if (s.finished)
      printf(",\"status\":%s,\"cancelled\":%s", s.succeeded ? "\"Succeeded\"" : "\"Failed\"", s.cancelled ? "true" : "false");
    printf(",\"new\":%ld,\"updated\":%ld,\"removed\":%ld,\"hijacked\":%ld,\"errors\":%ld", s.counts.loaded,
           s.counts.updated, s.counts.unloaded, s.counts.hijacked, s.counts.errors);
    if (s.finished && !s.succeeded)
      printf(",\"error_message\":%s,\"error_status\":%d", client::json_quote(s.error_message).c_str(), s.error_status);
    printf("}\n");
  } else if (opts.output == Output::kHuman) {
    if (!opts.quiet || !s.finished || !s.succeeded) printf("log: %s\n", f.log.path().c_str());
    if (s.finished && s.succeeded && !opts.quiet) {
      printf("update succeeded: %s\n", client::update_counts_text(s.counts).c_str());
    } else if (s.finished && !s.succeeded) {
      printf("update %s: %s\n", s.cancelled ? "cancelled" : "failed", client::update_counts_text(s.counts).c_str());
      fprintf(stderr, "tavrel: Update failed: %s (%d)\n    %s\n", client::status_name(s.error_status), s.error_status,
              s.error_message.c_str());
    } else {
      printf("update cut short: %s\n", client::update_counts_text(s.counts).c_str());
    }
  }
  if (!s.finished) {
    if (view_ended)
      return fail(kEnded, "the view ended before the update did; the log has no end. `tavrel update --resume` "
                          "completes it once the view runs again");
    return fail(kStatus, "the update ended without writing how: the log has no end");
  }
  return s.succeeded ? kOk : kStatus;
}

int cmd_update(Options& opts) {
  const std::string hijack = opts.get("--hijack", "keep");
  if (hijack != "keep" && hijack != "overwrite" && hijack != "rename")
    return fail(kUsage, "--hijack takes keep, overwrite or rename, not '" + hijack + "'");
  if (opts.has("--no-wait") && opts.has("--follow")) return fail(kUsage, "--no-wait and --follow exclude each other");
  std::vector<std::string> given = opts.values.count("--paths") ? opts.values.at("--paths") : std::vector<std::string>{};
  given.insert(given.end(), opts.positional.begin(), opts.positional.end());
  const bool surgical = !given.empty();
  if (surgical && (opts.has("--force") || opts.has("--resume")))
    return fail(kUsage, "--force and --resume concern the whole view, not an update of paths");
  if (!fileutl_exists(opts.storage)) return fail(kNoAgent, "no view storage at " + opts.storage);

  client::XmlNode req = request_root(opts, "Update");
  client::XmlNode flags("update-flags");
  auto b = [&](const char* option) { return opts.has(option) ? "true" : "false"; };
  flags.attr("hijack-treatment", hijack).attr("ptime", b("--ptime")).attr("force", b("--force"));
  flags.attr("resume", b("--resume")).attr("surgical", surgical ? "true" : "false");
  req.child(flags);
  if (surgical) {
    const char* env_root = getenv("TAVREL_VIEW_ROOT");
    std::string root = opts.get("--view-root", env_root && *env_root ? env_root : kDefaultViewRoot);
    std::string tag = view_tag(opts), error;
    client::XmlNode paths("update-paths");
    for (const std::string& g : given) {
      if (g.empty()) return fail(kUsage, "an empty path");
      std::string p = silo_path(g, root, tag, &error);
      if (p.empty()) return fail(kUsage, error);
      paths.child(client::XmlNode("path", p));
    }
    req.child(paths);
  }

  Follower f(opts);
  f.log_dir = opts.storage + "/" + VIEW_STG_LOG_DIR;
  for (const std::string& n : client::update_log_names(f.log_dir)) f.before.insert(n);
  f.follow = opts.has("--follow");
  f.progress.on = !f.follow && opts.output == Output::kHuman && !opts.quiet && isatty(STDERR_FILENO);

  client::Connection conn;
  client::Connection::Status st = conn.connect(opts.storage, opts.timeout_s * 1000);
  if (st == client::Connection::kTimeout) return fail(kNoAgent, "the view is not running: " + conn.error());
  if (st != client::Connection::kOk) return fail(kNoAgent, conn.error());
  opts.sent_op = "Update";
  const std::string sent_txid = req.get_attr("tx-id");
  if ((st = conn.send(req.to_document())) != client::Connection::kOk) return fail(kProtocol, conn.error());

  // Until the reply: read the log as it appears and grows.
  std::string raw;
  for (;;) {
    st = conn.receive(&raw, kPollMs);
    f.discover();
    f.read();
    if (st == client::Connection::kOk) break;
    if (st == client::Connection::kClosed) {
      f.read();
      return f.log.path().empty() ? fail(kEnded, "the view ended while the request was in flight") : report(opts, f, true);
    }
    if (st != client::Connection::kTimeout) return fail(kProtocol, conn.error());
    if (opts.has("--no-wait") && !f.log.path().empty() && f.log.state().header) {
      f.progress.clear();
      if (!opts.quiet) printf("log: %s\n", f.log.path().c_str());
      return kOk;
    }
    if (f.stalled()) {
      f.progress.clear();
      return fail(kTimeout, "no reply and nothing new in the update log within " + std::to_string(opts.timeout_s) + " s");
    }
  }
  conn.close();
  client::Response reply;
  std::string err;
  if (!client::Response::parse(raw, &reply, &err)) return fail(kProtocol, err);
  if (reply.root.tag != "Update" && reply.root.tag != "XMLError" && reply.root.tag != "ShutdownInProgress")
    return fail(kProtocol, "unexpected reply " + reply.root.tag + " to Update");
  if (reply.txid && *reply.txid != sent_txid) return fail(kProtocol, "reply for tx-id " + *reply.txid + " to request " + sent_txid);
  const client::XmlNode* log_file = reply.root.find("log-file");
  if (reply.status != 0 || !log_file || opts.output == Output::kXml) {
    f.progress.clear();
    int rc = print_reply(opts, reply, raw);
    if (rc != kOk || opts.output == Output::kXml) return rc;
    return fail(kProtocol, "the Update reply names no log-file");
  }
  f.adopt(log_file->text.find('/') == std::string::npos ? f.log_dir + "/" + log_file->text : log_file->text);
  f.read();
  if (opts.has("--no-wait")) {
    f.progress.clear();
    if (!opts.quiet) printf("log: %s\n", f.log.path().c_str());
    return kOk;
  }

  // After the reply: until the trailer, asking now and then whether the update still runs (it may
  // have ended without one, or the view may have gone).
  auto next_ask = Clock::now() + std::chrono::milliseconds(kAskEveryMs);
  while (!f.log.state().finished) {
    std::this_thread::sleep_for(std::chrono::milliseconds(kPollMs));
    f.read();
    if (f.log.state().finished) break;
    if (Clock::now() < next_ask) continue;
    next_ask = Clock::now() + std::chrono::milliseconds(kAskEveryMs);
    client::Connection probe;
    std::string answer;
    client::Response r;
    if (probe.connect(opts.storage, opts.timeout_s * 1000) != client::Connection::kOk ||
        probe.request(request_root(opts, "IsUpdateInProgress").to_document(), &answer, opts.timeout_s * 1000) !=
            client::Connection::kOk ||
        !client::Response::parse(answer, &r, &err) || r.status == TAVREL_ST_VIEW_ENDING) {
      f.read();
      return report(opts, f, true);
    }
    const client::XmlNode* running = r.root.find("is-update-in-progress");
    if (running && running->text == "false") {
      f.read();  // the trailer is written before the update lets go of the view
      return report(opts, f, false);
    }
    if (f.stalled()) {
      f.progress.clear();
      return fail(kTimeout, "nothing new in the update log within " + std::to_string(opts.timeout_s) + " s");
    }
  }
  return report(opts, f, false);
}

}  // namespace

std::vector<Command> update_commands() {
  return {
      {"update", "bring the view to what its rules select now (or only some paths: update P...)", kUpdateUsage,
       {"--hijack", "--paths", "--view-root"}, {"--ptime", "--force", "--resume", "--no-wait", "--follow"}, cmd_update},
  };
}

}  // namespace tavrel::cli
