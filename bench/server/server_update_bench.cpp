// Benchmark of the update stream (View_Update) of the reference WAN server on a generated SILO
// (default 100,000 files in 100 directories of 1,000, below one load rule).
//
// Measures, over HTTP on loopback with the server in this process:
//   - the first load of the load rule (ViewGn 0): time to compute and receive the whole stream, its
//     size, and the growth of the process's anonymous resident memory while it runs (sampled every
//     5 ms; the client counts the bytes and keeps none);
//   - an update carrying 1,000 changed files on the same SILO (new versions checked in through the
//     admin API), timed the same way; the stream is not committed, so each run resends the same diff;
//     the first run also commits the first load's stream, and is reported on its own;
// against baselines from the same run: a cleartext GET by the same client of a version as long as
// the stream (the server's plain streaming rate for those bytes), the SQLite query that reads the
// same rows (every name, element and selected version of the tree) from the store, and for the update
// the same request to a second server on the store that always walks the whole scope instead of
// following the change log.
//
// With --auto the view has no load rule: it is served every directory listing of the tree first, as a
// view is that the user walked, and the streams carry its automatic scope instead.
//
// usage: server_update_bench [--files N] [--changes C] [--runs R] [--dir PATH] [--auto]
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <thread>

#include "server/importer.h"
#include "server/test_client.h"
#include "server/wan_server.h"

namespace fs = std::filesystem;
using namespace tavrel_server;
using namespace tavrel_test;
using Clock = std::chrono::steady_clock;

namespace {

double seconds_since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

// Anonymous resident memory (heap, SQLite's page caches): the store file's mapped pages are left out,
// since they are the kernel's file cache shared with every reader.
long rss_kib() {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind("RssAnon:", 0) == 0) return std::strtol(line.c_str() + 8, nullptr, 10);
  return 0;
}

// Peak resident memory above the level at construction, sampled until stop().
class RssWatch {
 public:
  RssWatch() : base_(rss_kib()), peak_(base_) {
    t_ = std::thread([this] {
      while (!stop_) {
        peak_ = std::max(peak_.load(), rss_kib());
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    });
  }
  long stop() {
    stop_ = true;
    t_.join();
    return std::max(0L, peak_.load() - base_);
  }

 private:
  long base_;
  std::atomic<long> peak_;
  std::atomic<bool> stop_{false};
  std::thread t_;
};

void generate(const fs::path& root, int files) {
  std::mt19937 rng(7);
  for (int i = 0; i < files; ++i) {
    fs::path d = root / "tree" / ("d" + std::to_string(i / 10000)) / ("s" + std::to_string(i / 1000));
    if (i % 1000 == 0) fs::create_directories(d);
    std::ofstream(d / ("f" + std::to_string(i % 1000) + ".c")) << "/* " << i << " */\n" << std::string(rng() % 200, 'x');
  }
}

struct Run {
  double secs = 0;
  size_t bytes = 0, elems = 0;
  long peak_kib = 0;
  int status = -1;
};

// Starts `srv` and logs a client in to it; null when either fails.
std::unique_ptr<WanClient> start_and_log_in(WanServer& srv) {
  int port = srv.start();
  if (port < 0) return nullptr;
  auto c = std::make_unique<WanClient>("127.0.0.1", port);
  c->set_cookies("", "");
  if (c->login("bench", "pw").reply.status != 0) return nullptr;
  return c;
}

// One View_Update received and counted as it arrives, not kept, so that the resident memory measured
// is the server's.
Run fetch_update(WanClient& c, const std::string& args) {
  Run r;
  const std::string b = "bench-form-boundary";
  httplib::Request req;
  req.method = "POST";
  req.path = "/tavrel";
  req.set_header("Cookie", "JSESSIONID=" + c.jsession() + ";Session=" + c.session());
  req.set_header("Content-Type", "multipart/form-data; boundary=" + b);
  req.body = "--" + b + "\r\nContent-Disposition: form-data; name=\"rpc\"\r\n\r\n" + tavrel_wan::RPC_SYNCFETCH + "\r\n--" +
             b + "\r\nContent-Disposition: form-data; name=\"rpcargs\"\r\n\r\n" + args + "\r\n--" + b + "--\r\n";
  const std::string marker = "Content-ID: SyncElemInfo\r\n";
  std::string window;  // the bytes not yet searched, with the end of the previous piece
  bool tail_ok = false;
  req.content_receiver = [&](const char* data, size_t n, uint64_t, uint64_t) {
    r.bytes += n;
    window.append(data, n);
    size_t searched = 0;
    for (size_t at = 0; (at = window.find(marker, at)) != std::string::npos; at += marker.size()) {
      ++r.elems;
      searched = at + marker.size();
    }
    // Keep what may still begin a marker or hold the Status part: no counted byte twice.
    size_t keep_from = std::max(searched, window.size() > 256 ? window.size() - 256 : size_t(0));
    tail_ok = window.find("\r\nStatus: 0\r\n") != std::string::npos || tail_ok;
    window.erase(0, keep_from);
    return true;
  };
  httplib::Response res;
  httplib::Error err = httplib::Error::Success;
  RssWatch watch;
  auto t0 = Clock::now();
  bool ok = c.http().send(req, res, err);
  r.secs = seconds_since(t0);
  r.peak_kib = watch.stop();
  if (ok && tail_ok) r.status = 0;
  return r;
}

std::string update_args(const std::string& view, int64_t view_gn, int64_t scope_gn, bool with_rule) {
  ArgText a;
  a.add("ViewUuid", view).add("ViewGn", std::to_string(view_gn)).add("Force", "0").add("Resume", "0");
  a.add("UpdateOndemandScopes", "1").add("UsePaths", "0").add("NumScopes", with_rule ? "2" : "1");
  a.add("ScopePath", "Automatic").add("ScopeOid", tbs_oid_to_str(AUTOMATIC_LOAD_SCOPE_OID)).add("ScopeGn", "0");
  if (with_rule) {
    a.add("ScopePath", "/bench/tree").add("ScopeOid", tbs_oid_to_str(tavrel_load_scope_oid("/bench/tree")));
    a.add("ScopeGn", std::to_string(scope_gn));
  }
  return a.text;
}

}  // namespace

int main(int argc, char** argv) {
  int files = 100000, changes = 1000, runs = 3;
  std::string dir;
  bool with_rule = true;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--auto") {
      with_rule = false;
      continue;
    }
    if (i + 1 == argc) break;
    if (a == "--files") files = std::atoi(argv[++i]);
    else if (a == "--changes") changes = std::atoi(argv[++i]);
    else if (a == "--runs") runs = std::atoi(argv[++i]);
    else if (a == "--dir") dir = argv[++i];
  }
  fs::path work = dir.empty() ? fs::temp_directory_path() / ("tavrel_update_bench_" + std::to_string(getpid())) : fs::path(dir);
  fs::create_directories(work);
  std::string db = (work / "store.db").string();
  if (!fs::exists(db)) {
    std::printf("generating %d files ...\n", files);
    generate(work / "src", files);
    Store store(db);
    auto t0 = Clock::now();
    import_tree(store, "/bench", (work / "src").string(), {});
    std::printf("import: %.1f s\n", seconds_since(t0));
  }
  ServerConfig cfg;
  cfg.store_path = db;
  cfg.users = {{"bench", "pw"}};
  cfg.admin_token = "bench-token";
  cfg.threads = 4;
  WanServer srv(cfg);
  std::unique_ptr<WanClient> client = start_and_log_in(srv);
  if (!client) return 1;
  WanClient& c = *client;
  std::string view = tbs_uuid_to_str(tbs_uuid_create());
  ArgText view_rules;
  view_rules.add("ViewUuid", view).add("NumElemRules", "1").add("ElemRule", "select * latest");
  view_rules.add("NumLoadRules", with_rule ? "1" : "0");
  if (with_rule) view_rules.add("LoadRule", "load /bench/tree");
  view_rules.add("ForceUpdate", "0");
  Result cs = c.rpc(tavrel_wan::RPC_SET_CONFIG_SPEC, view_rules);
  if (cs.reply.status != 0) return std::fprintf(stderr, "setting the view's rules: %s\n", cs.reply.message.c_str()), 1;
  // Every listing of the tree, each recorded in what the view was served; seconds, or < 0 on failure.
  std::vector<std::string> dirs = {"/bench", "/bench/tree"};
  for (int d = 0; d * 10000 < files; ++d) dirs.push_back("/bench/tree/d" + std::to_string(d));
  for (int k = 0; k * 1000 < files; ++k) dirs.push_back("/bench/tree/d" + std::to_string(k / 10) + "/s" + std::to_string(k));
  auto list_all = [&]() -> double {
    auto t0 = Clock::now();
    for (const std::string& d : dirs) {
      Result l = c.rpc(tavrel_wan::RPC_GET_DIRECTORY_CONTENTS, ArgText().add("ViewUuid", view).add("PathName", d));
      if (l.reply.status != 0) return std::fprintf(stderr, "listing %s: %s\n", d.c_str(), l.reply.message.c_str()), -1;
    }
    return seconds_since(t0);
  };
  // The user walks the tree (the first pass records what was served), then again: the baseline below.
  double list_before_s = 0;
  if (!with_rule && (list_all() < 0 || (list_before_s = list_all()) < 0)) return 1;

  // First load, each run from generation 0.
  std::vector<Run> first;
  for (int i = 0; i < runs; ++i) first.push_back(fetch_update(c, update_args(view, 0, 0, with_rule)));
  auto by_time = [](const Run& a, const Run& b) { return a.secs < b.secs; };
  std::sort(first.begin(), first.end(), by_time);
  const Run& f = first[first.size() / 2];
  if (f.status != 0) return std::fprintf(stderr, "first load failed: %d\n", f.status), 1;
  // The same listings while the first load's stream (every name) waits for the agent's next request to
  // commit it.
  double list_after_s = 0;
  if (!with_rule && (list_after_s = list_all()) < 0) return 1;
  int64_t gn = srv.store().read([&](Repo& r) {
    tbs_uuid_s u;
    tbs_str_to_uuid(view, &u);
    return r.view_by_uuid(u)->gn_counter;
  });

  // Baseline 1: a version as long as the first load's stream, fetched by the same client.
  Result big = c.post("/admin", "elem.mkfile", ArgText().add("Path", "/bench/big.bin"),
                      {{"x-tavrel-admin-token", "bench-token"}}, std::string(f.bytes, 'b'));
  std::string oid = big.reply.parts.at(0).items.at("NewVersionOid");
  std::string replica = c.rpc(tavrel_wan::RPC_GET_SILO_INFO, ArgText().add("SiloTag", "/bench"))
                            .reply.parts.at(0).items.at("SiloReplicaUuid");
  std::vector<double> get_secs;
  for (int i = 0; i < runs; ++i) {
    auto t0 = Clock::now();
    Result g = c.get("/cltxt/" + replica + "/" + oid + "/text");
    get_secs.push_back(seconds_since(t0));
    if (g.reply.status != 0) return 1;
  }
  std::sort(get_secs.begin(), get_secs.end());
  double get_s = get_secs[get_secs.size() / 2];

  // Baseline 2: the SQLite query reading every name of the tree with its element and latest version.
  std::vector<double> sql_secs;
  size_t sql_rows = 0;
  for (int i = 0; i < runs; ++i) {
    auto t0 = Clock::now();
    sql_rows = srv.store().read([](Repo& r) {
      size_t n = 0;
      auto s = r.db().stmt(
          "SELECT d.name, e.oid, v.oid, v.vstr FROM dir_entry d JOIN element e ON e.id=d.elem JOIN version v ON "
          "v.id=(SELECT id FROM version WHERE elem=e.id AND co_view IS NULL ORDER BY num DESC LIMIT 1) "
          "WHERE d.dirver IN (SELECT id FROM version WHERE id IN (SELECT MAX(id) FROM version GROUP BY elem))");
      while (s.step()) n += s.i64(1) >= 0;
      return n;
    });
    sql_secs.push_back(seconds_since(t0));
  }
  std::sort(sql_secs.begin(), sql_secs.end());
  double sql_s = sql_secs[sql_secs.size() / 2];

  // The changes: new versions of `changes` files spread over the tree.
  auto t0 = Clock::now();
  for (int i = 0; i < changes; ++i) {
    int k = int(int64_t(i) * files / changes);
    std::string path = "/bench/tree/d" + std::to_string(k / 10000) + "/s" + std::to_string(k / 1000) + "/f" +
                       std::to_string(k % 1000) + ".c";
    Result r = c.post("/admin", "elem.checkin", ArgText().add("Path", path), {{"x-tavrel-admin-token", "bench-token"}},
                      "changed " + std::to_string(i) + "\n");
    if (r.reply.status != 0) return std::fprintf(stderr, "checkin %s: %s\n", path.c_str(), r.reply.message.c_str()), 1;
  }
  double checkin_s = seconds_since(t0);
  // The first load of GN `gn` is committed by the first request; the rest resend the same diff.
  std::vector<Run> upd;
  for (int i = 0; i < runs; ++i) upd.push_back(fetch_update(c, update_args(view, gn, gn, with_rule)));
  double commit_run_s = upd.front().secs;
  std::sort(upd.begin(), upd.end(), by_time);
  const Run& u = upd[upd.size() / 2];
  if (u.status != 0) return std::fprintf(stderr, "update failed: %d\n", u.status), 1;
  // Baseline 3: the same update from a server on the same store that always walks the whole scope.
  ServerConfig walk_cfg = cfg;
  walk_cfg.update_deltas = false;
  WanServer walker(walk_cfg);
  std::unique_ptr<WanClient> walk_client = start_and_log_in(walker);
  if (!walk_client) return 1;
  WanClient& wc = *walk_client;
  std::vector<Run> walked;
  for (int i = 0; i < runs; ++i) walked.push_back(fetch_update(wc, update_args(view, gn, gn, with_rule)));
  std::sort(walked.begin(), walked.end(), by_time);
  const Run& w = walked[walked.size() / 2];
  if (w.status != 0 || w.elems != u.elems) return std::fprintf(stderr, "walked update: %d, %zu objects\n", w.status, w.elems), 1;
  walker.stop();

  std::printf("tree: %d files; %zu rows read by the SQLite baseline\n", files, sql_rows);
  std::printf("first load: %.2f s, %zu objects, %.1f MiB, peak +%ld MiB anonymous resident (median of %d)\n", f.secs, f.elems,
              f.bytes / 1048576.0, f.peak_kib / 1024, runs);
  std::printf("  cleartext GET of the same %.1f MiB: %.3f s -> stream takes %.1f x\n", f.bytes / 1048576.0, get_s,
              f.secs / get_s);
  std::printf("  SQLite query of the same rows: %.3f s -> stream takes %.1f x\n", sql_s, f.secs / sql_s);
  std::printf("%d check-ins through the admin API: %.2f s\n", changes, checkin_s);
  std::printf("update with %d changes: %.3f s, %zu objects, %.2f MiB, peak +%ld MiB anonymous resident -> %.2f x the first load, "
              "%.1f x the SQLite query\n",
              changes, u.secs, u.elems, u.bytes / 1048576.0, u.peak_kib / 1024, u.secs / f.secs, u.secs / sql_s);
  std::printf("  the same by a walk of the whole scope: %.3f s -> the update takes %.3f x; the first update, which also "
              "commits the first load's stream: %.3f s\n",
              w.secs, u.secs / w.secs, commit_run_s);
  if (!with_rule)
    std::printf("%zu listings (every directory) after the first load, its stream not yet committed: %.3f s -> %.2f x "
                "the same listings before it (%.3f s)\n",
                dirs.size(), list_after_s, list_after_s / list_before_s, list_before_s);
  srv.stop();
  if (dir.empty()) fs::remove_all(work);
  return 0;
}
