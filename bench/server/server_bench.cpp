// Benchmark of the reference WAN server on a generated SILO (default 100,000 files).
//
// Measures, over HTTP on loopback with the server in this process:
//   - import time of the generated tree;
//   - a null RPC (Get_SILOInfo) per second: the baseline for one request's cost;
//   - Lookup per second and Get_Directory_Contents per second (1,000-entry directories), as ratios
//     to the null RPC;
//   - cleartext throughput of one large version with the curl program, as a ratio to curl fetching a
//     file of the same size from a static server (python3 -m http.server, and cpp-httplib's static
//     mount) on loopback, measured in the same run.
//
// usage: server_bench [--files N] [--big-mib M] [--clients C] [--dir PATH]
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
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

void generate(const fs::path& root, int files, size_t big_bytes) {
  std::mt19937 rng(42);
  const int per_dir = 1000;
  std::string pad(4096, 'x');
  for (auto& c : pad) c = char('a' + rng() % 26);
  for (int i = 0; i < files; ++i) {
    fs::path d = root / ("d" + std::to_string(i / per_dir / 10)) / ("s" + std::to_string(i / per_dir));
    if (i % per_dir == 0) fs::create_directories(d);
    std::ofstream f(d / ("f" + std::to_string(i % per_dir) + ".c"), std::ios::binary);
    f << "/* file " << i << " */\n";
    f.write(pad.data(), std::streamsize(64 + rng() % 1500));
  }
  std::ofstream big(root / "big.bin", std::ios::binary);
  std::string block(1 << 20, '\0');
  for (size_t done = 0; done < big_bytes; done += block.size()) {
    for (auto& c : block) c = char(rng());
    big.write(block.data(), std::streamsize(std::min(block.size(), big_bytes - done)));
  }
}

// Runs `fn(client, i)` for `total` iterations spread over `clients` threads; returns operations/second.
template <class F>
double rate(int port, const std::string& j, const std::string& s, int clients, int total, F fn) {
  std::atomic<int> next{0}, errors{0};
  std::vector<std::thread> ts;
  auto t0 = Clock::now();
  for (int c = 0; c < clients; ++c) {
    ts.emplace_back([&] {
      WanClient cl("127.0.0.1", port);
      cl.set_cookies(j, s);
      for (int i; (i = next++) < total;)
        if (!fn(cl, i)) ++errors;
    });
  }
  for (auto& t : ts) t.join();
  double secs = seconds_since(t0);
  if (errors) std::fprintf(stderr, "  %d errors\n", errors.load());
  return total / secs;
}

// curl's average download speed (bytes/s) for a URL, best of `runs`.
double curl_speed(const std::string& url, const std::string& cookie, int runs) {
  double best = 0;
  for (int r = 0; r < runs; ++r) {
    std::string cmd = "curl -s -o /dev/null -w '%{speed_download} %{http_code}' ";
    if (!cookie.empty()) cmd += "-H 'Cookie:" + cookie + "' ";
    cmd += "'" + url + "'";
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return 0;
    double speed = 0;
    int code = 0;
    if (std::fscanf(p, "%lf %d", &speed, &code) != 2 || code != 200) speed = 0;
    pclose(p);
    best = std::max(best, speed);
  }
  return best;
}

}  // namespace

int main(int argc, char** argv) {
  int files = 100000, clients = 2;
  size_t big_mib = 256;
  std::string dir;
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string a = argv[i];
    if (a == "--files") files = std::atoi(argv[i + 1]);
    else if (a == "--big-mib") big_mib = size_t(std::atoi(argv[i + 1]));
    else if (a == "--clients") clients = std::atoi(argv[i + 1]);
    else if (a == "--dir") dir = argv[i + 1];
  }
  if (files < 1000 || clients < 1 || big_mib < 1) {
    std::fprintf(stderr, "usage: server_bench [--files N>=1000] [--big-mib M] [--clients C] [--dir PATH]\n");
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  fs::path base = dir.empty() ? fs::temp_directory_path() / ("tavrel_server_bench_" + std::to_string(getpid())) : fs::path(dir);
  fs::remove_all(base);
  fs::create_directories(base);
  fs::path tree = base / "tree";
  std::printf("server_bench: %d files + one %zu MiB file, %d client threads\n", files, big_mib, clients);

  auto t0 = Clock::now();
  generate(tree, files, big_mib << 20);
  std::printf("  generate tree            %8.2f s\n", seconds_since(t0));

  std::string db = (base / "store.db").string();
  {
    Store store(db);
    t0 = Clock::now();
    ImportStats st = import_tree(store, "/bench", tree.string(), {});
    double secs = seconds_since(t0);
    std::printf("  import                   %8.2f s  (%.0f files/s, %llu bytes)\n", secs, double(st.files) / secs,
                (unsigned long long)st.bytes);
  }

  ServerConfig cfg;
  cfg.store_path = db;
  cfg.users = {{"bench", "pw"}};
  cfg.threads = 8;
  WanServer srv(cfg);
  int port = srv.start();
  if (port < 0) {
    std::fprintf(stderr, "cannot start the server\n");
    return 1;
  }
  WanClient c("127.0.0.1", port);
  if (c.login("bench", "pw").reply.status != 0) return 1;
  std::string j = c.jsession(), s = c.session();
  std::string view = tbs_uuid_to_str(tbs_uuid_create());
  std::string rep = c.rpc(tavrel_wan::RPC_GET_SILO_INFO, ArgText().add("SiloTag", "/bench"))
                        .reply.parts.at(0).items.at("SiloReplicaUuid");

  // Directory versions of every 1,000-entry directory, through the agent's own walk.
  std::vector<std::string> leaf_dirs;
  {
    Result root = c.rpc(tavrel_wan::RPC_GET_METADATA, ArgText().add("ViewUuid", view).add("SiloUuid", rep).add("PathName", ""));
    std::string rootver = tbs_oid_to_str(decode_vstat(root.reply.find("Xdr_ObjMetadata")->body).vstat.obj_oid);
    Result top = c.rpc(tavrel_wan::RPC_GET_DIRECTORY_CONTENTS,
                       ArgText().add("ViewUuid", view).add("SiloUuid", rep).add("VersionOid", rootver));
    for (const auto& p : top.reply.parts) {
      if (p.id != "XdrDirectoryEntry") continue;
      tavrel_dirent d = decode_dirent(p.body);
      if (d.ver_type != SILO_MTYPE_DIR_VER) continue;
      Result mid = c.rpc(tavrel_wan::RPC_GET_DIRECTORY_CONTENTS,
                         ArgText().add("ViewUuid", view).add("SiloUuid", rep).add("VersionOid", tbs_oid_to_str(d.ver_oid)));
      for (const auto& q : mid.reply.parts)
        if (q.id == "XdrDirectoryEntry") leaf_dirs.push_back(tbs_oid_to_str(decode_dirent(q.body).ver_oid));
    }
  }
  std::printf("  directories of 1,000     %8zu\n", leaf_dirs.size());

  const int kNull = 20000, kLookups = 40000, kLists = std::min<int>(400, int(leaf_dirs.size()) * 4);
  double null_rate = rate(port, j, s, clients, kNull, [&](WanClient& cl, int) {
    return cl.rpc(tavrel_wan::RPC_GET_SILO_INFO, ArgText().add("SiloTag", "/bench")).reply.status == 0;
  });
  double lookup_rate = rate(port, j, s, clients, kLookups, [&](WanClient& cl, int i) {
    uint32_t h = uint32_t(i) * 2654435761u;
    const std::string& d = leaf_dirs[h % leaf_dirs.size()];
    Result r = cl.rpc(tavrel_wan::RPC_LOOKUP, ArgText()
                                                  .add("ViewUuid", view)
                                                  .add("SiloUuid", rep)
                                                  .add("VersionOid", d)
                                                  .add("SiloPathName", "")
                                                  .add("LeafName", "f" + std::to_string((h >> 8) % 1000) + ".c"));
    return r.reply.status == 0;
  });
  double gdc_rate = rate(port, j, s, clients, kLists, [&](WanClient& cl, int i) {
    Result r = cl.rpc(tavrel_wan::RPC_GET_DIRECTORY_CONTENTS,
                      ArgText().add("ViewUuid", view).add("SiloUuid", rep).add("VersionOid", leaf_dirs[i % leaf_dirs.size()]));
    return r.reply.status == 0 && r.reply.parts.size() == 4000;
  });
  std::printf("  null RPC (Get_SILOInfo)  %8.0f /s  (baseline)\n", null_rate);
  std::printf("  Lookup                   %8.0f /s  = %.2f x null RPC\n", lookup_rate, lookup_rate / null_rate);
  std::printf("  Get_Directory_Contents   %8.1f /s  (%.0f entries/s) = %.3f x null RPC\n", gdc_rate, gdc_rate * 1000,
              gdc_rate / null_rate);

  // Cleartext of the big file, with curl, against static servers of the same file.
  Result root = c.rpc(tavrel_wan::RPC_GET_METADATA, ArgText().add("ViewUuid", view).add("PathName", "/bench/big.bin"));
  std::string bigver = tbs_oid_to_str(decode_vstat(root.reply.find("Xdr_ObjMetadata")->body).vstat.obj_oid);
  std::string cookie = "JSESSIONID=" + j + ";Session=" + s;
  double ours = curl_speed("http://127.0.0.1:" + std::to_string(port) + "/tavrel/cltxt/" + rep + "/" + bigver + "/t",
                           cookie, 5);

  httplib::Server stat;
  stat.set_mount_point("/", tree.string());
  int sport = stat.bind_to_any_port("127.0.0.1");
  std::thread st([&] { stat.listen_after_bind(); });
  while (!stat.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  double httplib_static = curl_speed("http://127.0.0.1:" + std::to_string(sport) + "/big.bin", "", 5);
  stat.stop();
  st.join();

  double python_static = 0;
  std::fflush(stdout);
  std::fflush(stderr);
  const int pyport = 18000 + int(getpid() % 20000);
  pid_t py = fork();
  if (py == 0) {
    std::string p = std::to_string(pyport);
    std::string log = (base / "python.log").string();
    freopen(log.c_str(), "w", stdout);
    freopen(log.c_str(), "a", stderr);
    execlp("python3", "python3", "-m", "http.server", p.c_str(), "--bind", "127.0.0.1", "--directory",
           tree.c_str(), (char*)nullptr);
    _exit(127);
  }
  for (int i = 0; i < 100 && python_static == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    python_static = curl_speed("http://127.0.0.1:" + std::to_string(pyport) + "/big.bin", "", 1);
  }
  if (python_static > 0) python_static = std::max(python_static, curl_speed("http://127.0.0.1:" + std::to_string(pyport) + "/big.bin", "", 4));
  kill(py, SIGTERM);
  waitpid(py, nullptr, 0);

  const double MiB = 1 << 20;
  std::printf("  cleartext via server     %8.0f MiB/s (curl)\n", ours / MiB);
  std::printf("  static, python3 http     %8.0f MiB/s (curl)  -> server = %.2f x\n", python_static / MiB,
              python_static > 0 ? ours / python_static : 0.0);
  std::printf("  static, cpp-httplib      %8.0f MiB/s (curl)  -> server = %.2f x\n", httplib_static / MiB,
              httplib_static > 0 ? ours / httplib_static : 0.0);
  srv.stop();
  if (dir.empty()) fs::remove_all(base);
  return 0;
}
