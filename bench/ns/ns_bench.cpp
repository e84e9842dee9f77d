// ns_bench: the name service in process, driven as the LPC threads drive it, each figure against a
// baseline measured in the same run.
//
// Set-up: a real view database in a scratch directory; the reference WAN server in the same process on
// loopback HTTP, holding a SILO imported from a generated tree:
//   d1k/ d10k/ d100k/  1,000, 10,000 and 100,000 files (the listings)
//   dwan/              2 x kWanNames files never listed (the server-resolved lookups)
//   m00/ .. m99/       1,000 files each (the objects B12 touches, with d1k and d10k)
// A view, a session logged in, the SILO's row in the view database and its root handle. Requests are
// encoded once into XDR memory buffers and served through Tavrel_KFSM_AbstractOp::
// create_kfsm_request_handler + process_request, as an LPC thread serves a buffer from the kernel.
//
// Measures:
//   B0   RPC 0 (NULL) through the op frame: the frame's cost, baseline of B1
//   B1   Lookup RPC answered by the lookup cache, 1 and 2 threads
//   B2   Lookup RPC after cache_init() (memory cold, database warm) against the record lookups it does
//        (tvr_db_vns_ver_lookup_name in a read transaction each)
//   B3   Lookup RPC of a name neither memory nor database knows (resolved from the server) against the
//        same Lookup WAN command run alone, alternating rounds of 100 names
//   B4   Readdir RPC with cursors until eof, 1k/10k/100k entries: cold (server), warm database (after
//        cache_init()), warm memory; per-entry cost at 100k over 1k
//   B12  resident memory of the caches at budgets of 4 and 64 MiB after listing and looking up every
//        file of d1k, d10k and m00..m99 (111,000 files, more objects than either budget holds; VmRSS
//        before and after, allocator trimmed before), as a ratio to the budget
// Last, every name of d100k looked up with a 64 MiB budget (one directory holding 100,000 cached names).
// Every RPC's status is checked; the server's request log tells what reached the server during each
// measure (a warm measure that reached it is reported as failed).
//
// usage: ns_bench [scale, default 1: 1 gives 1,000/10,000/100,000 entries; 0.1 gives a tenth]
//                 [B12 budgets in MiB, default 4,64]
#include <malloc.h>
#include <rpc/xdr.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/fileutl.h"
#include "core/tavrel_online.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_view.h"
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_vns.h"
#include "fs/tavrel_kfsm_abstract_op.h"
#include "fs/tavrel_metadata.h"
#include "ns/ns_cache.h"
#include "ns/ns_fstat.h"
#include "ns/ns_lookup.h"
#include "ns/ns_silo.h"
#include "proto/view_records.h"
#include "server/importer.h"
#include "server/wan_server.h"
#include "wan/login.h"
#include "wan/lookup.h"
#include "wan/rclient_session.h"
#include "wan/wan_test_support.h"

namespace {

using Clock = std::chrono::steady_clock;
double since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

[[noreturn]] void die(const std::string& what, int st = 0) {
  std::fprintf(stderr, "ns_bench: %s (%d)\n", what.c_str(), st);
  std::exit(1);
}

int g_failures = 0;
void fail(const std::string& what) {
  ++g_failures;
  std::printf("FAILED: %s\n", what.c_str());
}

constexpr size_t kWanNames = 1000;  // per side of B3
constexpr int kSpreadDirs = 100;    // m00..m99, the objects B12 touches besides d1k and d10k

std::string spread_dir(int i) {
  char b[8];
  std::snprintf(b, sizeof b, "m%02d", i);
  return b;
}

long rss_kib() {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  return -1;
}

std::string file_name(size_t i) {
  char b[32];
  std::snprintf(b, sizeof b, "f%07zu.c", i);
  return b;
}

// ---- the view-protocol frame -------------------------------------------------------------------------

// An encoded request, kept so that every serve decodes the same bytes.
struct Encoded {
  std::vector<char> bytes;
};

template <class Req>
Encoded encode(bool_t (*filter)(XDR*, Req*), Req req) {
  static thread_local std::vector<char> buf(VIEW_LPC_PAYLOAD);
  XDR x;
  xdrmem_create(&x, buf.data(), u_int(buf.size()), XDR_ENCODE);
  if (!filter(&x, &req)) die("encoding a request");
  Encoded e;
  e.bytes.assign(buf.data(), buf.data() + xdr_getpos(&x));  // exactly the request's bytes
  return e;
}

// One LPC thread's reply buffer.
struct Lpc {
  std::vector<char> reply = std::vector<char>(VIEW_LPC_PAYLOAD);
  size_t used = 0;
  int rpc_status = -1;

  void serve(int rpc, const Encoded& req) {
    XDR in, out;
    xdrmem_create(&in, const_cast<char*>(req.bytes.data()), u_int(req.bytes.size()), XDR_DECODE);
    xdrmem_create(&out, reply.data(), u_int(reply.size()), XDR_ENCODE);
    std::unique_ptr<Tavrel_KFSM_AbstractOp> op(Tavrel_KFSM_AbstractOp::create_kfsm_request_handler(rpc, &in, &out));
    if (!op) die("no operation for an RPC", rpc);
    op->process_request();
    rpc_status = op->get_rpc_status();
    used = xdr_getpos(&out);
  }
  template <class Rep>
  bool decode(Xdr_Record<Rep>* rec) {
    XDR x;
    xdrmem_create(&x, reply.data(), u_int(used), XDR_DECODE);
    return rec->code(&x);
  }
};

Encoded lookup_request(const view_fhandle_t& dir, const std::string& name) {
  static char empty[] = "";
  view_lookup_req_t q{};
  q.hdr.xid = 1;
  q.dir = dir;
  std::snprintf(q.name, sizeof q.name, "%s", name.c_str());
  q.residual = empty;
  return encode(xdr_view_lookup_req_t, q);
}

// Serves a Lookup RPC; its tbs status (-1 when the reply is unreadable), the handle and attributes.
int serve_lookup(Lpc& lpc, const Encoded& req, view_fhandle_t* fh = nullptr, view_vstat_t* vstat = nullptr) {
  lpc.serve(VIEW_RPC_LOOKUP, req);
  Xdr_Record<view_lookup_reply_t> rep(xdr_view_lookup_reply_t);
  if (lpc.rpc_status != 0 || !lpc.decode(&rep)) return -1;
  if (fh) *fh = rep->fh;
  if (vstat) *vstat = rep->vstat;
  return rep->hdr.status;
}

// A whole listing through Readdir RPCs with cursors until eof: the file names seen (not "." and ".."),
// the RPCs, and the first failing status (0 when none).
struct Listing {
  size_t names = 0, rpcs = 0;
  int status = 0;
};

Listing list(Lpc& lpc, const view_fhandle_t& dir) {
  Listing l;
  view_readdir_req_t q{};
  q.hdr.xid = 2;
  q.fh = dir;
  q.max_size = VIEW_READDIR_LIMIT;
  for (;;) {
    Encoded req = encode(xdr_view_readdir_req_t, q);
    lpc.serve(VIEW_RPC_READDIR, req);
    ++l.rpcs;
    Xdr_Record<view_readdir_reply_t> rep(xdr_view_readdir_reply_t);
    rep->capacity = VIEW_LPC_PAYLOAD;  // the decode allocates a buffer of this size
    if (lpc.rpc_status != 0 || !lpc.decode(&rep)) {
      l.status = -1;
      return l;
    }
    if (rep->hdr.status != 0) {
      l.status = rep->hdr.status;
      return l;
    }
    size_t here = 0;
    for (uint32_t at = 0; at < rep->used;) {
      uint16_t reclen, namlen;
      std::memcpy(&reclen, rep->buffer + at + 8, 2);
      std::memcpy(&namlen, rep->buffer + at + 10, 2);
      const char* name = rep->buffer + at + VIEW_DIRENT_NAME_OFF;
      if (!(namlen == 1 && name[0] == '.') && !(namlen == 2 && name[0] == '.' && name[1] == '.')) ++l.names;
      ++here;
      if (reclen == 0) break;
      at += reclen;
    }
    if (rep->eof) return l;
    if (here == 0) {  // no progress and no eof: report rather than loop
      l.status = -2;
      return l;
    }
    q.cursor = rep->cursor;
  }
}

// ---- the bench -----------------------------------------------------------------------------------------

Tavrel_View* g_view = nullptr;
Tavrel_View* view_source() { return g_view; }

struct Bench {
  std::unique_ptr<wan_test::TempHome> home;
  std::string storage;
  std::unique_ptr<tavrel_server::WanServer> server;
  std::unique_ptr<Tavrel_View> view;
  tbs_uuid_s replica{};
  view_silo* silo = nullptr;
  view_fhandle_t root{};
  std::map<std::string, view_fhandle_t> dirs;
  std::map<std::string, view_vstat_t> dir_vstat;
  std::map<std::string, size_t> sizes;
  uint64_t seq = 0;
  Lpc lpc;

  void mark() {
    auto all = server->log().since(0);
    seq = all.empty() ? 0 : all.back().seq;
  }
  // What reached the server since the last mark: "rpc xN, ...".
  std::string requests(size_t* count = nullptr) {
    std::map<std::string, size_t> by;
    size_t n = 0;
    for (const auto& e : server->log().since(seq)) ++by[e.rpc], ++n;
    if (count) *count = n;
    std::string s;
    for (auto& [rpc, c] : by) s += (s.empty() ? "" : ", ") + rpc + " x" + std::to_string(c);
    return s.empty() ? "none" : s;
  }
  size_t request_count() {
    size_t n = 0;
    requests(&n);
    return n;
  }
  void drain() { Tavrel_Thread_Manager_Base::get_instance()->drain_incomplete(); }

  void generate(double scale) {
    const std::string src = home->path() + "/src";
    sizes = {{"d1k", size_t(1000 * scale)}, {"d10k", size_t(10000 * scale)}, {"d100k", size_t(100000 * scale)},
             {"dwan", 2 * kWanNames}};
    for (int i = 0; i < kSpreadDirs; ++i) sizes[spread_dir(i)] = size_t(1000 * scale);
    for (auto& [dir, n] : sizes) {
      std::filesystem::create_directories(src + "/" + dir);
      for (size_t i = 0; i < n; ++i) std::ofstream(src + "/" + dir + "/" + file_name(i)) << "x\n";
    }
    auto t0 = Clock::now();
    tavrel_server::Store store(home->path() + "/store.db");
    replica = tavrel_server::import_tree(store, "/proj", src, {}).silo.replica;
    size_t files = 0;
    for (auto& [dir, n] : sizes) files += n;
    std::printf("tree imported: %zu files in %zu directories in %.1f s\n", files, sizes.size(), since(t0));
    fileutl_rm_tree(src);
  }

  void start(double scale) {
    home = std::make_unique<wan_test::TempHome>();
    generate(scale);
    tavrel_server::ServerConfig cfg;
    cfg.store_path = home->path() + "/store.db";
    cfg.users = {{"alice", "secret"}};
    server = std::make_unique<tavrel_server::WanServer>(cfg);
    if (server->start() <= 0) die("server start");
    RClient_Session::get_session()->init("", "", "", "", "", "", "", "", "", 0, "", "");
    Login login("alice", "secret", "", "", "", "http://127.0.0.1:" + std::to_string(server->port()) + "/tavrel");
    if (login.run() != 0 || login.get_status_code() != 0) die("login");

    // The view storage with its database; the database works relative to the working directory.
    storage = home->path() + "/view";
    if (fileutl_mkpath(storage, 0700) != 0 || chdir(storage.c_str()) != 0) die("view storage");
    setenv("TAVREL_PRODUCT_DIR", TAVREL_PRODUCT_DIR, 1);
    int created = 0;
    if (int st = tavrel_db_init(&created); st != 0) die("tavrel_db_init", st);
    view = std::make_unique<Tavrel_View>(storage);
    if (view->set_view_uuid("0d0d0d0d-0000-4000-8000-00000000000d") != 0) die("view uuid");
    g_view = view.get();
    Tavrel_Metadata::set_view_source(view_source);
    tavrel_set_online(true);

    if (int st = ns_cache_set_size(64u << 20, true); st != 0) die("cache size", st);
    if (int st = cache_init(); st != 0) die("cache_init", st);
    uint32_t row = 0;
    if (int st = tvr_db_in_trans(1, [&] { return tvr_db_silo_create(replica, "host:/proj", &row); }); st != 0)
      die("SILO row", st);
    int st = -1;
    silo = silo_create(replica, &st);
    if (!silo) die("silo_create", st);
    int cacheable = 0;
    uint32_t state = 0;
    obj_entry* r = lookup_root_ext(silo, 0, &cacheable, &state, &st);
    if (!r) die("root", st);
    makehandle(r, 0, &root);
    obj_free(r);
    for (auto& [dir, n] : sizes) {
      view_fhandle_t fh{};
      view_vstat_t vs{};
      if (int s = serve_lookup(lpc, lookup_request(root, dir), &fh, &vs); s != 0) die("lookup of " + dir, s);
      dirs[dir] = fh;
      dir_vstat[dir] = vs;
    }
    drain();  // the background read of the root the lookups queued: nobody runs it here
  }

  void stop() {
    drain();
    silo_tab_dispose_all();
    tavrel_set_online(false);
    Tavrel_Metadata::set_view_source(nullptr);
    g_view = nullptr;
    view.reset();
    RClient_Session::get_session()->flush_curl_handles();
    RClient_Session::get_session()->clear_login();
    server.reset();
    tvr_db_close_db();
    if (chdir("/") != 0) die("chdir");
    home.reset();
  }

  // Memory cold, database warm: every cache emptied.
  void reset_caches() {
    if (int st = cache_init(); st != 0) die("cache_init", st);
  }

  std::vector<Encoded> lookups_in(const std::string& dir, size_t from, size_t count) {
    std::vector<Encoded> out;
    for (size_t i = from; i < from + count; ++i) out.push_back(lookup_request(dirs[dir], file_name(i)));
    return out;
  }
  // Serves each request once; the count that did not answer 0.
  size_t serve_all(Lpc& l, const std::vector<Encoded>& reqs) {
    size_t bad = 0;
    for (const Encoded& r : reqs) bad += serve_lookup(l, r) != 0;
    return bad;
  }
};

void b0_b1(Bench& b) {
  const size_t n = std::min<size_t>(b.sizes["d10k"], 10000);
  std::vector<Encoded> reqs = b.lookups_in("d10k", 0, n);
  if (size_t bad = b.serve_all(b.lpc, reqs)) fail("B1 warm-up: " + std::to_string(bad) + " lookups failed");
  const Encoded null_req{};
  double best0 = 0, best1 = 0, best2 = 0;
  const int rounds = 200000;
  for (int run = 0; run < 3; ++run) {
    auto t0 = Clock::now();
    for (int i = 0; i < rounds; ++i) b.lpc.serve(VIEW_RPC_NULL, null_req);
    best0 = std::max(best0, rounds / since(t0));
    if (b.lpc.rpc_status != 0) fail("B0 rpc_status " + std::to_string(b.lpc.rpc_status));

    b.mark();
    size_t bad = 0;
    t0 = Clock::now();
    for (int k = 0; k < 10; ++k) bad += b.serve_all(b.lpc, reqs);
    best1 = std::max(best1, 10.0 * n / since(t0));
    if (bad) fail("B1: " + std::to_string(bad) + " lookups failed");

    std::atomic<size_t> bad2{0};
    t0 = Clock::now();
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t)
      threads.emplace_back([&] {
        Lpc mine;
        size_t my_bad = 0;
        for (int k = 0; k < 10; ++k) my_bad += b.serve_all(mine, reqs);
        bad2 += my_bad;
      });
    for (auto& t : threads) t.join();
    best2 = std::max(best2, 20.0 * n / since(t0));
    if (bad2) fail("B1 2 threads: " + std::to_string(bad2.load()) + " lookups failed");
    if (b.request_count()) fail("B1 reached the server: " + b.requests());
  }
  std::printf("B0 NULL RPC through the op frame: %.0f /s (%.2f us)  [baseline]\n", best0, 1e6 / best0);
  std::printf("B1 lookup hit, 1 thread: %.0f /s (%.2f us; %.2f us above B0)  ratio %.3f x B0\n", best1, 1e6 / best1,
              1e6 / best1 - 1e6 / best0, best1 / best0);
  std::printf("B1 lookup hit, 2 threads: %.0f /s  ratio %.3f x B0, %.2f x 1 thread\n", best2, best2 / best0,
              best2 / best1);
}

void b2(Bench& b) {
  const size_t n = std::min<size_t>(b.sizes["d10k"], 10000);
  std::vector<Encoded> reqs = b.lookups_in("d10k", 0, n);
  const uint32_t dir = b.dirs["d10k"].ver_dbid;
  double best_ns = 0, best_db = 0;
  for (int run = 0; run < 3; ++run) {
    b.reset_caches();
    b.mark();
    auto t0 = Clock::now();
    size_t bad = b.serve_all(b.lpc, reqs);
    best_ns = std::max(best_ns, n / since(t0));
    if (bad) fail("B2: " + std::to_string(bad) + " lookups failed");
    if (b.request_count()) fail("B2 reached the server: " + b.requests());

    const uint32_t silo_row = b.silo->db_dbid;
    size_t found = 0;
    t0 = Clock::now();
    for (size_t i = 0; i < n; ++i) {
      const std::string nm = file_name(i);
      uint32_t dbid = 0;
      silo_mtype_t mt = 0;
      tvr_db_in_trans(0, [&] {
        if (tvr_db_vns_ver_lookup_name(silo_row, dir, nm.c_str(), &dbid, &mt, nullptr, nullptr) == 0) ++found;
        return 0;
      });
    }
    best_db = std::max(best_db, n / since(t0));
    if (found != n) fail("B2 baseline found " + std::to_string(found) + " of " + std::to_string(n));
  }
  std::printf("B2 lookup miss from the database (caches reset): %.0f /s (%.1f us)  ratio %.3f x raw record lookup "
              "(%.0f /s, %.2f us); %.1f record lookups' time each\n",
              best_ns, 1e6 / best_ns, best_ns / best_db, best_db, 1e6 / best_db, best_db / best_ns);
}

void b3(Bench& b) {
  const view_vstat_t& dv = b.dir_vstat["dwan"];
  const tbs_uuid_s view_uuid = b.view->get_view_uuid();
  double t_ns = 0, t_cmd = 0;
  size_t bad_ns = 0, bad_cmd = 0, reqs_ns = 0, reqs_cmd = 0;
  std::string what_ns;
  for (size_t at = 0; at < kWanNames; at += 100) {
    // The name service: names 0..999, each unknown to memory and database.
    std::vector<Encoded> reqs = b.lookups_in("dwan", at, 100);
    b.mark();
    auto t0 = Clock::now();
    bad_ns += b.serve_all(b.lpc, reqs);
    t_ns += since(t0);
    size_t c = 0;
    what_ns = b.requests(&c);
    reqs_ns += c;
    b.drain();  // background reads of dwan the misses queued: not run, so the next names stay unknown
    // The same command alone: names 1000..1999, each first seen by the server as well.
    b.mark();
    t0 = Clock::now();
    for (size_t i = kWanNames + at; i < kWanNames + at + 100; ++i) {
      Lookup cmd(view_uuid, b.replica, dv.obj_oid, dv.elem_oid, file_name(i));
      if (cmd.run() != 0 || cmd.get_status_code() != 0) ++bad_cmd;
    }
    t_cmd += since(t0);
    reqs_cmd += b.request_count();
  }
  if (bad_ns) fail("B3: " + std::to_string(bad_ns) + " lookups failed");
  if (bad_cmd) fail("B3 baseline: " + std::to_string(bad_cmd) + " commands failed");
  const double r_ns = kWanNames / t_ns, r_cmd = kWanNames / t_cmd;
  std::printf("B3 lookup miss from the server: %.0f /s (%.0f us), %.2f server requests each (last round: %s)  "
              "ratio %.3f x the Lookup command alone (%.0f /s, %.0f us, %.2f requests each)\n",
              r_ns, 1e6 / r_ns, double(reqs_ns) / kWanNames, what_ns.c_str(), r_ns / r_cmd, r_cmd, 1e6 / r_cmd,
              double(reqs_cmd) / kWanNames);
}

void b4(Bench& b) {
  struct Row {
    double cold = 0, db = 0, mem = 0;
  };
  std::map<std::string, Row> rows;
  const char* order[] = {"d1k", "d10k", "d100k"};
  auto run = [&](const std::string& dir, const char* kind) {
    b.mark();
    auto t0 = Clock::now();
    Listing l = list(b.lpc, b.dirs[dir]);
    const double s = since(t0);
    const size_t n = b.sizes[dir];
    if (l.status != 0) fail(std::string("B4 ") + kind + " " + dir + ": status " + std::to_string(l.status));
    if (l.names != n) fail(std::string("B4 ") + kind + " " + dir + ": " + std::to_string(l.names) + " names of " +
                           std::to_string(n));
    std::string reqs = b.requests();
    if (std::strcmp(kind, "cold") != 0 && b.request_count())
      fail(std::string("B4 ") + kind + " " + dir + " reached the server: " + reqs);
    std::printf("  %-5s %-9s %7zu entries %5zu RPCs %8.3f s %10.0f entries/s  server: %s\n", dir.c_str(), kind, l.names,
                l.rpcs, s, n / s, reqs.c_str());
    return n / s;
  };
  std::printf("B4 listings (Readdir RPCs of %u bytes until eof):\n", VIEW_READDIR_LIMIT);
  for (const char* d : order) {
    b.drain();
    rows[d].cold = run(d, "cold");
    b.drain();
  }
  for (int r = 0; r < 3; ++r)
    for (const char* d : order) {
      b.reset_caches();
      rows[d].db = std::max(rows[d].db, run(d, "warm-db"));
      rows[d].mem = std::max(rows[d].mem, run(d, "warm-mem"));
      b.drain();
    }
  for (const char* d : order)
    std::printf("B4 %-5s best: cold %.0f, warm database %.0f, warm memory %.0f entries/s\n", d, rows[d].cold,
                rows[d].db, rows[d].mem);
  std::printf("B4 per-entry cost 100k / 1k (1.0 = linear): cold %.2f, warm database %.2f, warm memory %.2f\n",
              rows["d1k"].cold / rows["d100k"].cold, rows["d1k"].db / rows["d100k"].db,
              rows["d1k"].mem / rows["d100k"].mem);
}

// Lists every directory of `dirs` and looks up each of its names; the lookups that failed.
size_t touch(Bench& b, const std::vector<std::string>& dirs, std::map<std::string, std::vector<Encoded>>& reqs) {
  size_t bad = 0;
  for (const std::string& d : dirs) {
    Listing l = list(b.lpc, b.dirs[d]);
    if (l.status != 0) fail("B12 listing " + d + ": " + std::to_string(l.status));
    bad += b.serve_all(b.lpc, reqs[d]);
  }
  return bad;
}

void b12(Bench& b, const std::vector<uint32_t>& budgets) {
  // Every object B12 touches lives in a directory of at most 10,000 names: d1k, d10k and m00..m99.
  std::vector<std::string> dirs = {"d1k", "d10k"};
  for (int i = 0; i < kSpreadDirs; ++i) dirs.push_back(spread_dir(i));
  std::map<std::string, std::vector<Encoded>> reqs;  // encoded before the first reading
  size_t files = 0;
  for (const std::string& d : dirs) {
    reqs[d] = b.lookups_in(d, 0, b.sizes[d]);
    files += reqs[d].size();
  }
  b.mark();
  touch(b, dirs, reqs);  // m00..m99 come from the server once, so that every run below is local
  std::printf("B12 preparation (first listing of m00..m99): server %s\n", b.requests().c_str());
  b.drain();
  for (uint32_t mib : budgets) {
    if (int st = ns_cache_set_size(mib << 20, true); st != 0) die("cache size", st);
    b.reset_caches();
    malloc_trim(0);
    const long before = rss_kib();
    b.mark();
    const size_t bad = touch(b, dirs, reqs);
    if (bad) fail("B12: " + std::to_string(bad) + " lookups failed");
    if (b.request_count()) fail("B12 reached the server: " + b.requests());
    const long after = rss_kib();
    malloc_trim(0);  // what the allocator kept of freed (evicted) memory goes back
    const long trimmed = rss_kib();
    const ns_cache_budget bg = ns_cache_get_budget();
    std::printf("B12 budget %u MiB: %zu files in %zu directories listed and looked up; RSS %+.1f MiB (%ld -> %ld KiB)  "
                "ratio %.2f x budget; after malloc_trim %+.1f MiB, ratio %.2f\n",
                mib, files, dirs.size(), (after - before) / 1024.0, before, after, (after - before) / 1024.0 / mib,
                (trimmed - before) / 1024.0, (trimmed - before) / 1024.0 / mib);
    std::printf("    objects %ld (%ld B of %u), attributes %ld (%ld B of %u), names %ld (%ld B of %u), listings %ld B of %u\n",
                obj_cache_stats.count, obj_cache_stats.size, bg.obj_cache_max, fstat_cache_stats.count,
                fstat_cache_stats.size, bg.fstat_max, name_cache_stats.count, name_cache_stats.size, bg.name_max,
                readdir_cache_stats.size, bg.readdir_max);
    b.drain();
  }
}

// Every name of d100k looked up with a 64 MiB budget, which keeps them all: one directory then holds
// as many cached names as it has files.
void one_large_directory(Bench& b) {
  std::vector<Encoded> reqs = b.lookups_in("d100k", 0, b.sizes["d100k"]);
  if (int st = ns_cache_set_size(64u << 20, true); st != 0) die("cache size", st);
  b.reset_caches();
  std::printf("lookups of all %zu names of d100k at 64 MiB: starting\n", reqs.size());
  std::fflush(stdout);
  b.mark();
  if (size_t bad = b.serve_all(b.lpc, reqs)) fail("d100k lookups: " + std::to_string(bad) + " failed");
  if (b.request_count()) fail("d100k lookups reached the server: " + b.requests());
  std::printf("lookups of all names of d100k at 64 MiB: done, %ld names cached\n", name_cache_stats.count);
}

}  // namespace

int main(int argc, char** argv) {
  const double scale = argc > 1 ? std::atof(argv[1]) : 1.0;
  if (scale <= 0) die("scale must be positive");
  std::vector<uint32_t> budgets;  // MiB, in the order given
  for (const char* p = argc > 2 ? argv[2] : "4,64"; *p;) {
    char* end = nullptr;
    const unsigned long mib = std::strtoul(p, &end, 10);
    if (end == p || mib < 4 || mib > 1024) die("budgets: MiB from 4 to 1024, separated by commas");
    budgets.push_back(uint32_t(mib));
    p = *end == ',' ? end + 1 : end;
  }
  Bench b;
  b.start(scale);
  std::printf("view database in %s, server on port %d, cache size 64 MiB\n", b.storage.c_str(), b.server->port());
  b3(b);  // first: dwan must be unknown to memory and database
  b4(b);
  b0_b1(b);
  b2(b);
  b12(b, budgets);
  one_large_directory(b);
  b.stop();
  std::printf("%s\n", g_failures ? "SOME MEASURES FAILED" : "all measures checked");
  return g_failures ? 1 : 0;
}
