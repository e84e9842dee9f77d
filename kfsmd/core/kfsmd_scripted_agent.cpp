#include "kfsmd/core/kfsmd_scripted_agent.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>

#include "kfsm/libkfsm.h"
#include "kfsmd/core/kfsmd_rpc.h"
#include "proto/kfsm_status.h"
#include "proto/xdr_record.h"

namespace {

std::atomic<Kfsmd_Scripted_Agent*> g_installed{nullptr};

// Decodes a request, lets `fn` fill the reply (whose xid is the request's) and encodes it. The
// request owns what its decode allocated; the reply only points into `fn`'s own storage.
template <typename Q, typename R, typename F>
uint32_t serve(XDR* in, bool_t (*dq)(XDR*, Q*), XDR* out, bool_t (*er)(XDR*, R*), F fn) {
  Xdr_Record<Q> q(dq);
  if (!q.code(in)) return KFSM_RPC_DECODE;
  R r;
  memset(&r, 0, sizeof r);
  r.hdr.xid = q->hdr.xid;
  fn(q.get(), r);
  return er(out, &r) ? KFSM_RPC_DONE : KFSM_RPC_ENCODE;
}

}  // namespace

Kfsmd_Scripted_Agent::Kfsmd_Scripted_Agent() { m_objs[1].type = 2; }

Kfsmd_Scripted_Agent::~Kfsmd_Scripted_Agent() {
  stop();
  if (g_installed.load() == this) install(nullptr);
}

tbs_oid_s Kfsmd_Scripted_Agent::oid(uint32_t dbid) {
  tbs_oid_s o;
  memset(o.bytes, 0x5a, sizeof o.bytes);
  o.bytes[0] = 1;
  memcpy(o.bytes + 1, &dbid, sizeof dbid);
  return o;
}

tbs_oid_s Kfsmd_Scripted_Agent::elem_oid(uint32_t dbid) {
  tbs_oid_s o = oid(dbid);
  o.bytes[0] = 2;
  return o;
}

void Kfsmd_Scripted_Agent::add(uint32_t dir, const std::string& name, uint32_t dbid, uint32_t type, uint64_t size,
                               const std::string& target) {
  std::lock_guard<std::mutex> g(m_mutex);
  Obj& o = m_objs[dbid];
  o.type = type;
  o.size = size;
  o.target = target;
  o.parent = dir;
  m_objs[dir].names[name] = dbid;
}

void Kfsmd_Scripted_Agent::set_gen(uint32_t dbid, uint32_t gen) {
  std::lock_guard<std::mutex> g(m_mutex);
  m_objs[dbid].gen = gen;
}

void Kfsmd_Scripted_Agent::set_lookup(bool cacheable, uint32_t miss_state) {
  std::lock_guard<std::mutex> g(m_mutex);
  m_cacheable = cacheable;
  m_miss_state = miss_state;
}

void Kfsmd_Scripted_Agent::set_cleartext(const std::string& path, bool rel_to_cache) {
  std::lock_guard<std::mutex> g(m_mutex);
  m_cltxt = path;
  m_rel_to_cache = rel_to_cache;
}

void Kfsmd_Scripted_Agent::set_no_handler(bool none) {
  std::lock_guard<std::mutex> g(m_mutex);
  m_no_handler = none;
}

void Kfsmd_Scripted_Agent::set_lvut(long seconds) {
  std::lock_guard<std::mutex> g(m_mutex);
  m_lvut.tv_sec = seconds;
}

int Kfsmd_Scripted_Agent::count(uint64_t op) {
  std::lock_guard<std::mutex> g(m_mutex);
  return m_calls[op];
}

view_vstat_t Kfsmd_Scripted_Agent::vstat(uint32_t dbid) {
  view_vstat_t v;
  memset(&v, 0, sizeof v);
  const Obj& o = m_objs[dbid];
  v.fstat.type = o.type;
  v.fstat.mode = o.type == 2 ? 0755 : 0444;
  v.fstat.nlink = o.type == 2 ? 2 : 1;
  v.fstat.size = o.size;
  v.fstat.ino = ino(dbid);
  v.fstat.owner = CREDUTL_SID_DONTCARE;
  v.fstat.group = CREDUTL_SID_DONTCARE;
  v.obj_oid = oid(dbid);
  v.elem_oid = elem_oid(dbid);
  return v;
}

view_fhandle_t Kfsmd_Scripted_Agent::fh(const tbs_uuid_s& silo, uint32_t dbid) {
  return view_fhandle_t{silo, dbid, dbid, m_objs[dbid].gen, 0, 0};
}

bool Kfsmd_Scripted_Agent::stale(const view_fhandle_t& h) {
  auto it = m_objs.find(h.ver_dbid);
  return it == m_objs.end() || it->second.gen != h.gen;
}

uint32_t Kfsmd_Scripted_Agent::answer(uint64_t op, XDR* in, XDR* out) {
  std::lock_guard<std::mutex> g(m_mutex);
  switch (op) {
    case VIEW_RPC_NULL:
      return KFSM_RPC_DONE;
    case VIEW_RPC_ROOT:
      return serve(in, &xdr_view_replica_root_req_t, out, &xdr_view_getattr_reply_t, [&](auto& q, auto& r) {
        r.vstat = vstat(1);
        r.fh = fh(q.replica_uuid, 1);
        r.lvut = m_lvut;
      });
    case VIEW_RPC_GETATTR:
      return serve(in, &xdr_view_getattr_req_t, out, &xdr_view_getattr_reply_t, [&](auto& q, auto& r) {
        if (stale(q.fh)) return void(r.hdr.status = TBS_ST_STALE);
        r.vstat = vstat(q.fh.ver_dbid);
        r.fh = q.fh;
        r.lvut = m_lvut;
      });
    case VIEW_RPC_REVALIDATE:
      return serve(in, &xdr_view_getattr_req_t, out, &xdr_view_root_reply_t, [&](auto& q, auto& r) {
        if (!m_objs.count(q.fh.ver_dbid)) return void(r.hdr.status = TBS_ST_STALE);
        r.vstat = vstat(q.fh.ver_dbid);
        r.fh = fh(q.fh.silo, q.fh.ver_dbid);
      });
    case VIEW_RPC_LOOKUP:
      return serve(in, &xdr_view_lookup_req_t, out, &xdr_view_lookup_reply_t, [&](auto& q, auto& r) {
        if (stale(q.dir)) return void(r.hdr.status = TBS_ST_STALE);
        const std::string residual = q.residual ? q.residual : "";
        uint32_t cur = q.dir.ver_dbid;
        size_t consumed = 0;
        if (strcmp(q.name, ".") == 0) {
          // As the agent walks: a separator counts as consumed before the object is looked at; the
          // walk stops at anything but a directory, and at a missing name with the last good object.
          for (size_t pos = 0; pos < residual.size();) {
            if (residual[pos] == '/') {
              consumed = ++pos;
              continue;
            }
            if (m_objs[cur].type != 2) break;
            size_t end = residual.find('/', pos);
            if (end == std::string::npos) end = residual.size();
            auto it = m_objs[cur].names.find(residual.substr(pos, end - pos));
            if (it == m_objs[cur].names.end()) break;
            cur = it->second;
            consumed = pos = end;
          }
        } else {
          auto it = m_objs[cur].names.find(q.name);
          if (it == m_objs[cur].names.end()) {
            r.hdr.status = TBS_ST_NO_SUCH_NAME;
            r.name_state = m_miss_state;
            return;
          }
          cur = it->second;
        }
        r.fh = fh(q.dir.silo, cur);
        r.vstat = vstat(cur);
        r.consumed = consumed;
        r.cacheable = m_cacheable;
        r.lvut = m_lvut;
      });
    case VIEW_RPC_READLINK: {
      std::string text;
      return serve(in, &xdr_view_readlink_req_t, out, &xdr_view_readlink_reply_t, [&](auto& q, auto& r) {
        text = m_objs[q.fh.ver_dbid].target;
        r.text = text.data();
        r.len = text.size();
      });
    }
    case VIEW_RPC_READDIR: {
      char buf[8192];
      return serve(in, &xdr_view_readdir_req_t, out, &xdr_view_readdir_reply_t, [&](auto& q, auto& r) {
        r.buffer = buf;
        r.capacity = q.max_size < sizeof buf ? q.max_size : sizeof buf;
        r.eof = 1;
        const uint32_t dir = q.fh.ver_dbid;
        std::vector<std::pair<std::string, uint32_t>> all = {{".", ino(dir)},
                                                             {"..", ino(dir == 1 ? 1 : m_objs[dir].parent)}};
        for (const auto& n : m_objs[q.fh.ver_dbid].names) all.push_back(n);
        for (uint32_t off = 1; off <= all.size(); ++off) {
          if (off <= q.cursor) continue;
          if (!view_dirent_append(&r, all[off - 1].second, off, all[off - 1].first.c_str())) {
            r.eof = 0;
            break;
          }
        }
      });
    }
    case VIEW_RPC_GETCLEARTEXT: {
      std::string path = m_cltxt;
      return serve(in, &xdr_view_readlink_req_t, out, &xdr_view_cltxt_reply_t, [&](auto&, auto& r) {
        r.path = path.data();
        r.len = path.size();
        r.rel_to_cache = m_rel_to_cache;
      });
    }
    default:
      return KFSM_RPC_UNKNOWN;
  }
}

uint32_t Kfsmd_Scripted_Agent::answer(uint64_t op, const std::string& in, std::string* out) {
  std::vector<char> buf(VIEW_LPC_PAYLOAD);
  XDR xin, xout;
  xdrmem_create(&xin, const_cast<char*>(in.data()), static_cast<u_int>(in.size()), XDR_DECODE);
  xdrmem_create(&xout, buf.data(), static_cast<u_int>(buf.size()), XDR_ENCODE);
  uint32_t rs = answer(op, &xin, &xout);
  out->assign(buf.data(), rs == KFSM_RPC_DONE ? xdr_getpos(&xout) : 0);
  xdr_destroy(&xin);
  xdr_destroy(&xout);
  return rs;
}

// ---- LPC threads of its own ----

void Kfsmd_Scripted_Agent::start(const std::string& view_tag, int threads) {
  m_tag = view_tag;
  if (m_wake[0] < 0 && pipe2(m_wake, O_CLOEXEC) == 0) kfsm_set_wakeup_fd(m_wake[0]);
  std::lock_guard<std::mutex> g(m_mutex);
  m_running += threads;
  for (int i = 0; i < threads; ++i) m_threads.emplace_back([this] {
    loop();
    std::lock_guard<std::mutex> g(m_mutex);
    m_running--;
    m_cv.notify_all();
  });
}

void Kfsmd_Scripted_Agent::script(Fault f, int times) {
  std::lock_guard<std::mutex> g(m_mutex);
  for (int i = 0; i < times; ++i) m_script.push_back(f);
}

bool Kfsmd_Scripted_Agent::wait_held(int n) {
  std::unique_lock<std::mutex> g(m_mutex);
  return m_cv.wait_for(g, std::chrono::seconds(10), [&] { return m_held >= n; });
}

void Kfsmd_Scripted_Agent::release() {
  std::lock_guard<std::mutex> g(m_mutex);
  m_release++;
  m_held = 0;
  m_cv.notify_all();
}

bool Kfsmd_Scripted_Agent::join() {
  {
    std::unique_lock<std::mutex> g(m_mutex);
    if (!m_cv.wait_for(g, std::chrono::seconds(10), [&] { return m_running == 0; })) return false;
  }
  for (auto& t : m_threads)
    if (t.joinable()) t.join();
  m_threads.clear();
  if (m_wake[0] >= 0) {
    kfsm_set_wakeup_fd(-1);
    close(m_wake[0]);
    close(m_wake[1]);
    m_wake[0] = m_wake[1] = -1;
  }
  return true;
}

void Kfsmd_Scripted_Agent::stop() {
  {
    std::lock_guard<std::mutex> g(m_mutex);
    m_stopping = true;
    m_cv.notify_all();
  }
  if (m_wake[1] >= 0 && write(m_wake[1], "x", 1) != 1) {
    // The pipe is ours and empty: a write does not fail.
  }
  join();
  std::lock_guard<std::mutex> g(m_mutex);
  m_stopping = false;
}

std::vector<int> Kfsmd_Scripted_Agent::statuses() {
  std::lock_guard<std::mutex> g(m_mutex);
  return m_statuses;
}

void Kfsmd_Scripted_Agent::loop() {
  int err = 0;
  int h = kfsm_view_root_open_type(1, &err);
  if (!h) return;
  std::vector<uint8_t> buf(KFSM_LPC_BUF, 0);
  kfsm_strbuf tag = kfsm_strbuf_of(m_tag.c_str());
  for (;;) {
    int st = 0;
    err = 0;
    kfsm_cmd(h, &err, &st, KFSM_CMD_LPC_MESSAGE, 0, &tag, &tag, buf.data(), KFSM_LPC_BUF);
    if (err) break;
    if (st) {
      std::lock_guard<std::mutex> g(m_mutex);
      m_statuses.push_back(st);
      if (st == TBS_ST_VIEW_GONE || st == TBS_ST_NO_PERMISSION) break;
      continue;
    }
    const kfsm_lpc_request_hdr q = kfsm_lpc_get_request(buf.data());
    int fault = -1;
    {
      std::unique_lock<std::mutex> g(m_mutex);
      m_calls[q.op]++;
      if (!m_script.empty()) {
        fault = m_script.front();
        m_script.pop_front();
      }
      if (fault == HOLD) {
        const uint64_t gen = m_release;
        m_held++;
        m_cv.notify_all();
        m_cv.wait(g, [&] { return m_release != gen || m_stopping; });
      }
    }
    if (fault == DROP) break;
    std::string reply;
    uint32_t rs = answer(q.op, std::string(reinterpret_cast<char*>(buf.data()) + KFSM_LPC_HDR, q.req_size), &reply);
    if (reply.size() > q.res_capacity) reply.resize(q.res_capacity);
    memcpy(buf.data() + KFSM_LPC_HDR, reply.data(), reply.size());
    kfsm_lpc_put_reply(buf.data(), rs, reply.size(), fault == BAD_COOKIE ? q.cookie ^ 0x40000000u : q.cookie);
  }
  kfsm_view_root_close_type(1, h);
}

// ---- the agent's own LPC threads ----

void Kfsmd_Scripted_Agent::install(Kfsmd_Scripted_Agent* agent) { g_installed.store(agent); }

bool Kfsmd_Scripted_Agent::dispatch(int rpc, XDR* in, XDR* out, int* rpc_status) {
  Kfsmd_Scripted_Agent* a = g_installed.load();
  if (!a) return false;
  {
    std::lock_guard<std::mutex> g(a->m_mutex);
    a->m_calls[static_cast<uint64_t>(rpc)]++;
    if (a->m_no_handler) return false;
  }
  *rpc_status = static_cast<int>(a->answer(static_cast<uint64_t>(rpc), in, out));
  return true;
}
