// Test pieces for the daemon's core: a daemon in this process (registry and socket, with a mounter
// that only records), a reply that records what an operation handler answered, and helpers that send
// commands as the agent's library does. The agent's side is Kfsmd_Scripted_Agent.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kfsm/libkfsm.h"
#include "kfsmd/core/kfsmd_registry.h"
#include "kfsmd/core/kfsmd_scripted_agent.h"
#include "kfsmd/core/kfsmd_server.h"
#include "proto/kfsm_status.h"
#include "proto/kfsm_wire.h"
#include "proto/view_records.h"

inline void PrintTo(const Kfsmd_Action& a, std::ostream* os) {
  *os << (a.kind == Kfsmd_Action::ENTRY ? "entry(" : "inode(") << a.parent_or_ino << (a.name.empty() ? "" : ", ")
      << a.name << ")";
}

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
  std::map<std::string, std::vector<Kfsmd_Action>> actions;  // by mount point
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
    auto& to = m_r->actions[m_mp];
    to.insert(to.end(), a.begin(), a.end());
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

// ---- what an operation handler answered ----
struct Rec_Reply : Kfsmd_Reply {
  int error = -1;  // -1: no error answered
  Kfsmd_Entry ent;
  struct stat st {};
  double timeout = -1;
  std::string text;
  std::vector<std::pair<std::string, uint64_t>> dir;  // name, next offset
  std::vector<uint64_t> dir_ino;                      // the inode number of each entry of `dir`
  size_t room = 100;                                  // entries dir_add accepts
  void err(int e) override { error = e; }
  void entry(const Kfsmd_Entry& e) override { error = 0, ent = e; }
  void attr(const struct stat& s, double t) override { error = 0, st = s, timeout = t; }
  void readlink(const std::string& t) override { error = 0, text = t; }
  bool keep_cache = false, direct_io = false;  // of the last open
  void open(int fd, bool keep, bool direct) override { error = 0, keep_cache = keep, direct_io = direct, close(fd); }
  void statfs(const struct statvfs&) override { error = 0; }
  bool dir_add(const std::string& name, uint64_t ino, uint64_t off) override {
    if (dir.size() >= room) return false;
    dir.emplace_back(name, off);
    dir_ino.push_back(ino);
    return true;
  }
  void dir_done() override { error = 0; }
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
    opt.lpc_wait_ms = lpc_wait_ms;
    opt.lpc_orphan_ms = 200;
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
  // Registers view `tag` with one SILO mounted.
  std::shared_ptr<Kfsmd_Silo> view_with_silo(const std::string& tag, const std::string& silo = "/proj",
                                             uint8_t replica = 5) {
    EXPECT_EQ(cmd_mkview(tag, uuid_n(1), base), 0);
    EXPECT_EQ(cmd_mount(tag, silo, uuid_n(replica)), 0);
    return registry->find_silo(tag, silo);
  }
  // Polls for a state that no event announces (10 s at most).
  static bool eventually(const std::function<bool()>& pred) {
    for (int i = 0; i < 2000 && !pred(); ++i) usleep(5000);
    return pred();
  }

  std::string base;
  int lpc_wait_ms = 10000;  // a fixture may shorten it in its constructor
  Kfsmd_Options opt;
  Recorder rec;
  std::unique_ptr<Fake_Mounter> mounter;
  std::unique_ptr<Kfsmd_Registry> registry;
  std::unique_ptr<Kfsmd_Server> server;
};

}  // namespace kfsmd_test
