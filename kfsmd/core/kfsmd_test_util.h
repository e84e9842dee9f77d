// Test pieces for the daemon's core: a daemon in this process (registry and socket, with a mounter
// that only records), an agent made of LPC threads over the module library, a small scripted tree
// that answers the view protocol, and helpers that send commands as the agent's library does.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kfsm/libkfsm.h"
#include "kfsmd/core/kfsmd_registry.h"
#include "kfsmd/core/kfsmd_server.h"
#include "proto/kfsm_status.h"
#include "proto/kfsm_wire.h"
#include "proto/view_records.h"

namespace kfsmd_test {

inline tbs_uuid_s uuid_n(uint8_t seed) {
  tbs_uuid_s u;
  for (int i = 0; i < 16; ++i) u.bytes[i] = uint8_t(seed + i);
  return u;
}
inline tbs_oid_s oid_n(uint8_t seed) {
  tbs_oid_s o;
  for (int i = 0; i < 16; ++i) o.bytes[i] = uint8_t(seed * 3 + i);
  return o;
}

// ---- a mounter that records ----
struct Recorder {
  std::mutex mu;
  std::vector<std::string> mounted;  // mount points, in order
  std::vector<std::pair<std::string, bool>> unmounts;  // mount point, lazy
  std::vector<Kfsmd_Action> actions;
  int unmount_err = 0;  // what the next non-lazy unmount answers
};

class Fake_Mount : public Kfsmd_Mount {
 public:
  Fake_Mount(Recorder* r, std::string mp) : m_r(r), m_mp(std::move(mp)) {}
  int unmount(bool lazy) override {
    std::lock_guard<std::mutex> g(m_r->mu);
    m_r->unmounts.emplace_back(m_mp, lazy);
    if (!lazy && m_r->unmount_err) return m_r->unmount_err;
    return 0;
  }
  void notify(std::vector<Kfsmd_Action> a) override {
    std::lock_guard<std::mutex> g(m_r->mu);
    m_r->actions.insert(m_r->actions.end(), a.begin(), a.end());
  }

 private:
  Recorder* m_r;
  std::string m_mp;
};

class Fake_Mounter : public Kfsmd_Mounter {
 public:
  explicit Fake_Mounter(Recorder* r) : m_r(r) {}
  int mount(const std::shared_ptr<Kfsmd_Silo>& silo, std::unique_ptr<Kfsmd_Mount>* out) override {
    std::lock_guard<std::mutex> g(m_r->mu);
    m_r->mounted.push_back(silo->info().mount_point);
    *out = std::make_unique<Fake_Mount>(m_r, silo->info().mount_point);
    return 0;
  }

 private:
  Recorder* m_r;
};

// ---- the agent's LPC threads, over the module library ----
// A handler answers one request: the rpc_status, and the reply payload. Returning DROP makes the
// thread close its connection instead of answering.
constexpr uint32_t DROP = 0xFFFFFFFFu;
using Lpc_Handler = std::function<uint32_t(uint64_t op, const std::string& request, std::string* reply)>;

class Fake_Agent {
 public:
  Fake_Agent(const std::string& tag, int threads, Lpc_Handler h) : m_tag(tag), m_handler(std::move(h)) {
    for (int i = 0; i < threads; ++i) m_threads.emplace_back([this] { loop(); });
  }
  ~Fake_Agent() { join(); }
  void join() {
    for (auto& t : m_threads)
      if (t.joinable()) t.join();
  }
  // Statuses the threads received from the module, in order.
  std::vector<int> statuses() {
    std::lock_guard<std::mutex> g(m_mu);
    return m_statuses;
  }
  int ended() const { return m_ended.load(); }

 private:
  void loop() {
    int err = 0, st = 0;
    int h = kfsm_view_root_open_type(1, &err);
    if (!h) {
      m_ended++;
      return;
    }
    std::vector<uint8_t> buf(KFSM_LPC_BUF, 0);
    kfsm_strbuf tag = kfsm_strbuf_of(m_tag.c_str());
    for (;;) {
      err = st = 0;
      kfsm_cmd(h, &err, &st, KFSM_CMD_LPC_MESSAGE, 0, &tag, &tag, buf.data(), KFSM_LPC_BUF);
      if (err) break;
      if (st) {
        std::lock_guard<std::mutex> g(m_mu);
        m_statuses.push_back(st);
        if (st == KFSM_ST_VIEW_GONE || st == 1063) break;
        continue;
      }
      kfsm_lpc_request_hdr q = kfsm_lpc_get_request(buf.data());
      std::string req(reinterpret_cast<char*>(buf.data()) + KFSM_LPC_HDR, q.req_size);
      std::string reply;
      uint32_t rs = m_handler(q.op, req, &reply);
      if (rs == DROP) break;
      if (reply.size() > q.res_capacity) reply.resize(q.res_capacity);
      memcpy(buf.data() + KFSM_LPC_HDR, reply.data(), reply.size());
      kfsm_lpc_put_reply(buf.data(), rs, reply.size(), q.cookie);
    }
    kfsm_view_root_close_type(1, h);
    m_ended++;
  }

  std::string m_tag;
  Lpc_Handler m_handler;
  std::vector<std::thread> m_threads;
  std::mutex m_mu;
  std::vector<int> m_statuses;
  std::atomic<int> m_ended{0};
};

// ---- a scripted tree answering the view protocol ----
// Objects by dbid: 1 is the root directory. Names live in directories; a symbolic link has a target.
struct Tree {
  struct Obj {
    uint32_t type = 1;  // 1 file, 2 directory, 5 link
    uint64_t size = 0;
    tbs_oid_s oid{};
    std::map<std::string, uint32_t> names;
    std::string target;
    uint32_t gen = 1;
  };
  std::mutex mu;
  std::map<uint32_t, Obj> objs;
  std::map<uint64_t, int> calls;
  std::vector<std::string> lookups;  // "dir:name:residual"
  bool cacheable = true;
  uint32_t miss_state = 0;  // name state of a miss
  std::string cltxt;        // Getcleartext path
  bool rel_to_cache = true;

  Tree() {
    Obj root;
    root.type = 2;
    root.oid = oid_n(100);
    objs[1] = root;
  }
  uint32_t add(uint32_t dir, const std::string& name, uint32_t dbid, uint32_t type, const std::string& target = "") {
    Obj o;
    o.type = type;
    o.oid = oid_n(uint8_t(dbid));
    o.target = target;
    o.size = type == 1 ? 10 * dbid : 0;
    objs[dbid] = o;
    objs[dir].names[name] = dbid;
    return dbid;
  }
  int count(uint64_t op) {
    std::lock_guard<std::mutex> g(mu);
    return calls[op];
  }

  view_vstat_t vstat(uint32_t dbid) {
    view_vstat_t v;
    memset(&v, 0, sizeof v);
    const Obj& o = objs[dbid];
    v.fstat.type = o.type;
    v.fstat.mode = o.type == 2 ? 0755 : 0444;
    v.fstat.size = o.size;
    v.fstat.owner = CREDUTL_SID_DONTCARE;
    v.fstat.group = CREDUTL_SID_DONTCARE;
    v.obj_oid = o.oid;
    return v;
  }
  view_fhandle_t fh(const tbs_uuid_s& silo, uint32_t dbid) { return view_fhandle_t{silo, dbid, dbid, objs[dbid].gen, 0, 0}; }

  template <typename Q, typename R>
  static uint32_t serve(const std::string& in, bool_t (*dq)(XDR*, Q*), std::string* out, bool_t (*er)(XDR*, R*),
                        const std::function<void(Q&, R&)>& fn) {
    Q q;
    memset(&q, 0, sizeof q);
    XDR x;
    xdrmem_create(&x, const_cast<char*>(in.data()), static_cast<u_int>(in.size()), XDR_DECODE);
    bool ok = dq(&x, &q);
    xdr_destroy(&x);
    if (!ok) return KFSM_RPC_DECODE;
    R r;
    memset(&r, 0, sizeof r);
    r.hdr.xid = q.hdr.xid;
    fn(q, r);
    char buf[KFSM_LPC_PAYLOAD];
    xdrmem_create(&x, buf, sizeof buf, XDR_ENCODE);
    ok = er(&x, &r);
    out->assign(buf, ok ? xdr_getpos(&x) : 0);
    xdr_destroy(&x);
    xdrmem_create(&x, nullptr, 0, XDR_FREE);
    dq(&x, &q);
    return ok ? KFSM_RPC_DONE : KFSM_RPC_ENCODE;
  }

  uint32_t handle(uint64_t op, const std::string& in, std::string* out) {
    std::lock_guard<std::mutex> g(mu);
    calls[op]++;
    switch (op) {
      case 105:
        return serve<view_replica_root_req_t, view_getattr_reply_t>(
            in, &xdr_view_replica_root_req_t, out, &xdr_view_getattr_reply_t,
            [&](auto& q, auto& r) {
              r.vstat = vstat(1);
              r.fh = fh(q.replica_uuid, 1);
            });
      case 106:
        return serve<view_getattr_req_t, view_root_reply_t>(
            in, &xdr_view_getattr_req_t, out, &xdr_view_root_reply_t, [&](auto& q, auto& r) {
              if (!objs.count(q.fh.ver_dbid)) {
                r.hdr.status = 1087;
                return;
              }
              r.vstat = vstat(q.fh.ver_dbid);
              r.fh = fh(q.fh.silo, q.fh.ver_dbid);
            });
      case 108:
        return serve<view_getattr_req_t, view_getattr_reply_t>(
            in, &xdr_view_getattr_req_t, out, &xdr_view_getattr_reply_t, [&](auto& q, auto& r) {
              auto it = objs.find(q.fh.ver_dbid);
              if (it == objs.end() || it->second.gen != q.fh.gen) {
                r.hdr.status = 1087;
                return;
              }
              r.vstat = vstat(q.fh.ver_dbid);
              r.fh = q.fh;
            });
      case 107:
        return serve<view_lookup_req_t, view_lookup_reply_t>(
            in, &xdr_view_lookup_req_t, out, &xdr_view_lookup_reply_t, [&](auto& q, auto& r) {
              std::string residual = q.residual ? q.residual : "";
              lookups.push_back(std::to_string(q.dir.ver_dbid) + ":" + q.name + ":" + residual);
              auto d = objs.find(q.dir.ver_dbid);
              if (d == objs.end() || d->second.gen != q.dir.gen) {
                r.hdr.status = 1087;
                return;
              }
              uint32_t cur = q.dir.ver_dbid;
              size_t consumed = 0;
              std::string name = q.name;
              if (name == ".") {
                // Walk the residual, stopping after a symbolic link.
                size_t pos = 0;
                while (pos < residual.size()) {
                  size_t end = residual.find('/', pos);
                  if (end == std::string::npos) end = residual.size();
                  auto it = objs[cur].names.find(residual.substr(pos, end - pos));
                  if (it == objs[cur].names.end()) {
                    r.hdr.status = 1052;
                    return;
                  }
                  cur = it->second;
                  consumed = end;
                  pos = end + 1;
                  if (objs[cur].type == 5) break;
                }
              } else {
                auto it = objs[cur].names.find(name);
                if (it == objs[cur].names.end()) {
                  r.hdr.status = 1052;
                  r.name_state = miss_state;
                  return;
                }
                cur = it->second;
              }
              r.fh = fh(q.dir.silo, cur);
              r.vstat = vstat(cur);
              r.consumed = consumed;
              r.cacheable = cacheable;
            });
      case 29:
        return serve<view_readlink_req_t, view_readlink_reply_t>(
            in, &xdr_view_readlink_req_t, out, &xdr_view_readlink_reply_t, [&](auto& q, auto& r) {
              static thread_local std::string text;
              text = objs[q.fh.ver_dbid].target;
              r.text = text.data();
              r.len = text.size();
            });
      case 10:
        return serve<view_readdir_req_t, view_readdir_reply_t>(
            in, &xdr_view_readdir_req_t, out, &xdr_view_readdir_reply_t, [&](auto& q, auto& r) {
              static thread_local char buf[8192];
              r.buffer = buf;
              r.capacity = static_cast<uint32_t>(q.max_size < sizeof buf ? q.max_size : sizeof buf);
              uint32_t off = 0;
              r.eof = 1;
              for (auto& n : objs[q.fh.ver_dbid].names) {
                ++off;
                if (off <= q.cursor) continue;
                if (!view_dirent_append(&r, n.second, off, n.first.c_str())) {
                  r.eof = 0;
                  break;
                }
              }
            });
      case 12:
        return serve<view_readlink_req_t, view_cltxt_reply_t>(
            in, &xdr_view_readlink_req_t, out, &xdr_view_cltxt_reply_t, [&](auto&, auto& r) {
              r.path = cltxt.data();
              r.len = cltxt.size();
              r.rel_to_cache = rel_to_cache;
            });
      default:
        return KFSM_RPC_UNKNOWN;
    }
  }
};

// ---- commands as the agent's library sends them ----
inline int32_t run_block(kfsmcmd_block* b, int* err_out = nullptr) {
  int err = 0;
  int h = kfsm_view_root_open_sil_type(1, &err, 1);
  if (!h) return err;
  kfsm_mcb_cmd(h, b, &err);
  kfsm_view_root_close_type(1, h);
  if (err_out) *err_out = err;
  return err ? tbs_errno2status(err) : b->status;
}

inline int32_t cmd_mkview(const std::string& tag, const tbs_uuid_s& uuid, const std::string& storage,
                          uint32_t flags = KFSM_FLAG_CASE_SENSITIVE) {
  kfsm_mkviewtag_info m;
  memset(&m, 0, sizeof m);
  m.viewtag = kfsm_strbuf_of(tag.c_str());
  m.spath_u = m.spath_k = m.rpath = kfsm_strbuf_of(storage.c_str());
  m.host = kfsm_strbuf_of("host");
  m.uuid = uuid;
  kfsmcmd_block b;
  memset(&b, 0, sizeof b);
  b.cmd = KFSM_CMD_MKVIEW;
  b.flags = flags;
  b.infolen = KFSM_MKVIEWTAG_IMAGE;
  b.infop = &m;
  return run_block(&b);
}

inline int32_t cmd_rmtag(const std::string& tag) {
  kfsm_strbuf info = kfsm_strbuf_of(tag.c_str());
  kfsmcmd_block b;
  memset(&b, 0, sizeof b);
  b.cmd = KFSM_CMD_RMTAG;
  b.flags = 2;
  b.infolen = KFSM_RMTAG_IMAGE;
  b.infop = &info;
  return run_block(&b);
}

inline int32_t cmd_mount(const std::string& view, const std::string& silo_tag, const tbs_uuid_s& replica,
                         uint16_t version = 12) {
  kfsm_mount_info m;
  memset(&m, 0, sizeof m);
  m.version = version;
  m.size = 248;
  m.word4 = 1;
  m.mount_point = kfsm_strbuf_of(silo_tag.c_str());
  m.host = kfsm_strbuf_of("host");
  m.storage = kfsm_strbuf_of("/silo/storage");
  m.family = oid_n(77);
  m.word88 = 3000;
  m.word92 = 1;
  m.replica = replica;
  kfsmcmd_block b;
  memset(&b, 0, sizeof b);
  b.cmd = KFSM_CMD_MOUNT;
  b.pn = b.pn2 = kfsm_strbuf_of(view.c_str());
  b.infolen = KFSM_MOUNT_IMAGE;
  b.infop = &m;
  return run_block(&b);
}

inline int32_t cmd_umount(const std::string& view, const std::string& silo_tag, const tbs_uuid_s& replica) {
  kfsm_umount_info u;
  memset(&u, 0, sizeof u);
  u.mount_point = kfsm_strbuf_of(silo_tag.c_str());
  u.replica = replica;
  kfsmcmd_block b;
  memset(&b, 0, sizeof b);
  b.cmd = KFSM_CMD_UMOUNT;
  b.pn = b.pn2 = kfsm_strbuf_of(view.c_str());
  b.infolen = KFSM_UMOUNT_IMAGE;
  b.infop = &u;
  return run_block(&b);
}

inline int32_t cmd_inval(const std::string& root_path, uint32_t kind, const tbs_uuid_s& silo, const tbs_oid_s& obj,
                         const char* name = nullptr, uint32_t version = 5) {
  kfsm_inval_info v;
  memset(&v, 0, sizeof v);
  v.version = version;
  v.kind = kind;
  v.silo = silo;
  v.obj = obj;
  v.name = kfsm_strbuf_of(name);
  kfsmcmd_block b;
  memset(&b, 0, sizeof b);
  b.cmd = KFSM_CMD_INVAL;
  b.flags = 2;
  b.pn = kfsm_strbuf_of(root_path.c_str());
  b.pn2 = kfsm_strbuf_empty();
  b.infolen = KFSM_INVAL_IMAGE;
  b.infop = &v;
  return run_block(&b);
}

inline int32_t cmd_xstat(const std::string& path, bool follow, view_vstat_t* vs, kfsm_xstat_info* out = nullptr) {
  kfsm_xstat_info x;
  memset(&x, 0, sizeof x);
  x.vstat = vs;
  kfsmcmd_block b;
  memset(&b, 0, sizeof b);
  b.cmd = KFSM_CMD_XSTAT;
  b.flags = 2 | (follow ? 0 : 1);
  b.pn = b.pn2 = kfsm_strbuf_of(path.c_str());
  b.infolen = KFSM_XSTAT_IMAGE;
  b.infop = &x;
  int32_t st = run_block(&b);
  if (out) *out = x;
  return st;
}

// ---- a daemon in this process ----
class Daemon_Test : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/kfsmd_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    base = tmpl;
    chmod(base.c_str(), 0755);  // another user's process must reach the socket
    opt.root = base + "/view";
    opt.socket_path = base + "/kfsm.sock";
    opt.lpc_wait_ms = 300;
    opt.lpc_orphan_ms = 300;
    ASSERT_EQ(mkdir(opt.root.c_str(), 0755), 0);
    setenv(KFSM_SOCKET_ENV, opt.socket_path.c_str(), 1);
    mounter = std::make_unique<Fake_Mounter>(&rec);
    registry = std::make_unique<Kfsmd_Registry>(opt, mounter.get());
    server = std::make_unique<Kfsmd_Server>(opt, *registry);
    ASSERT_EQ(server->start(), 0);
  }
  void TearDown() override {
    if (server) server->stop();
    if (registry) registry->shutdown();
    server.reset();
    registry.reset();
    std::string cmd = "rm -rf '" + base + "'";
    EXPECT_EQ(system(cmd.c_str()), 0);
  }
  std::string view_root(const std::string& tag) { return opt.root + "/" + tag; }

  std::string base;
  Kfsmd_Options opt;
  Recorder rec;
  std::unique_ptr<Fake_Mounter> mounter;
  std::unique_ptr<Kfsmd_Registry> registry;
  std::unique_ptr<Kfsmd_Server> server;
};

}  // namespace kfsmd_test
