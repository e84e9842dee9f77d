#define FUSE_USE_VERSION 312
#include "kfsmd/fuse/kfsmd_fuse_mount.h"

#include <fcntl.h>
#include <fuse_lowlevel.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "kfsmd/core/kfsmd_silo.h"

extern const struct fuse_lowlevel_ops kfsmd_fuse_ops;

// What a session's loop, its mount object and the notifier share. m guards everything; the notifier
// holds it while it notifies, the loop takes it to destroy the session.
struct Kfsmd_Fuse_State {
  std::mutex m;
  struct fuse_session* se = nullptr;
  bool alive = false;       // se is mounted and may be notified
  bool loop_done = false;
  bool detached = false;    // the loop thread was let go (lazy unmount)
  std::shared_ptr<Kfsmd_Silo> keep;  // held by a let-go loop until it ends
  std::weak_ptr<Kfsmd_Silo> silo;
  std::thread loop;
  std::string mount_point;
};

namespace {

void run_loop(std::shared_ptr<Kfsmd_Fuse_State> st) {
  struct fuse_loop_config* cfg = fuse_loop_cfg_create();
  fuse_loop_cfg_set_clone_fd(cfg, 0);
  fuse_loop_cfg_set_max_threads(cfg, 16);
  fuse_session_loop_mt(st->se, cfg);
  fuse_loop_cfg_destroy(cfg);
  std::shared_ptr<Kfsmd_Silo> keep;
  {
    std::lock_guard<std::mutex> g(st->m);
    st->alive = false;
    st->loop_done = true;
    fuse_session_destroy(st->se);
    st->se = nullptr;
    keep = std::move(st->keep);
  }
  // `keep` may hold the last reference to the SILO; it goes here, on this thread, which touches
  // nothing of it afterwards.
}

class Fuse_Mount : public Kfsmd_Mount {
 public:
  Fuse_Mount(Kfsmd_Fuse_Mounter* owner, std::shared_ptr<Kfsmd_Fuse_State> st) : m_owner(owner), m_st(std::move(st)) {}
  ~Fuse_Mount() override {
    bool pending;
    {
      std::lock_guard<std::mutex> g(m_st->m);
      pending = !m_st->loop_done && !m_st->detached;
    }
    if (pending) unmount(true);
    if (m_st->loop.joinable()) m_st->loop.join();
  }

  int unmount(bool lazy) override {
    {
      std::lock_guard<std::mutex> g(m_st->m);
      if (m_st->detached) return 0;
    }
    int e = 0;
    if (umount2(m_st->mount_point.c_str(), lazy ? MNT_DETACH : 0) != 0) e = errno;
    // EINVAL: no longer a mount point (unmounted behind the daemon's back), the same as done.
    if (e == EINVAL) e = 0;
    if (e != 0 && !lazy) return e;  // busy or refused: nothing changes
    std::unique_lock<std::mutex> g(m_st->m);
    m_st->alive = false;
    if (!lazy || m_st->loop_done) {
      g.unlock();
      if (m_st->loop.joinable()) m_st->loop.join();
      return e;
    }
    // The loop serves on until the kernel lets go of the detached mount; it keeps the SILO.
    m_st->keep = m_st->silo.lock();
    m_st->detached = true;
    m_st->loop.detach();
    return e;
  }

  void notify(std::vector<Kfsmd_Action> actions) override { m_owner->post(m_st, std::move(actions)); }

 private:
  Kfsmd_Fuse_Mounter* m_owner;
  std::shared_ptr<Kfsmd_Fuse_State> m_st;
};

}  // namespace

Kfsmd_Fuse_Mounter::Kfsmd_Fuse_Mounter() { m_thread = std::thread([this] { notifier_loop(); }); }

Kfsmd_Fuse_Mounter::~Kfsmd_Fuse_Mounter() {
  {
    std::lock_guard<std::mutex> g(m_mutex);
    m_stop = true;
  }
  m_cv.notify_all();
  if (m_thread.joinable()) m_thread.join();
}

void Kfsmd_Fuse_Mounter::post(std::shared_ptr<Kfsmd_Fuse_State> state, std::vector<Kfsmd_Action> actions) {
  {
    std::lock_guard<std::mutex> g(m_mutex);
    m_queue.emplace_back(std::move(state), std::move(actions));
  }
  m_cv.notify_all();
}

void Kfsmd_Fuse_Mounter::drain() {
  std::unique_lock<std::mutex> g(m_mutex);
  m_cv.wait(g, [this] { return m_queue.empty() && !m_busy; });
}

void Kfsmd_Fuse_Mounter::notifier_loop() {
  std::unique_lock<std::mutex> g(m_mutex);
  for (;;) {
    m_cv.wait(g, [this] { return m_stop || !m_queue.empty(); });
    if (m_queue.empty()) return;
    auto item = std::move(m_queue.front());
    m_queue.pop_front();
    m_busy = true;
    g.unlock();
    {
      Kfsmd_Fuse_State& st = *item.first;
      std::lock_guard<std::mutex> sg(st.m);
      if (st.alive && st.se) {
        for (const Kfsmd_Action& a : item.second) {
          if (a.kind == Kfsmd_Action::ENTRY)
            fuse_lowlevel_notify_inval_entry(st.se, a.parent_or_ino, a.name.c_str(), a.name.size());
          else  // off -1: attributes only; off 0, len 0: attributes and every cached page
            fuse_lowlevel_notify_inval_inode(st.se, a.parent_or_ino, a.kind == Kfsmd_Action::INODE ? -1 : 0, 0);
        }
      }
    }
    item.first.reset();
    g.lock();
    m_busy = false;
    m_cv.notify_all();
  }
}

int Kfsmd_Fuse_Mounter::mount(const std::shared_ptr<Kfsmd_Silo>& silo, std::unique_ptr<Kfsmd_Mount>* out) {
  const Kfsmd_Silo_Info& info = silo->info();
  std::string tag = info.tag.substr(1);
  std::string opts = "fsname=tavrel:" + silo->view().tag() + ":" + tag +
                     ",subtype=tavrel,allow_other,default_permissions";
  struct fuse_args args = FUSE_ARGS_INIT(0, nullptr);
  if (fuse_opt_add_arg(&args, "tavrel_kfsmd") != 0 || fuse_opt_add_arg(&args, "-o") != 0 ||
      fuse_opt_add_arg(&args, opts.c_str()) != 0) {
    fuse_opt_free_args(&args);
    return ENOMEM;
  }
  auto st = std::make_shared<Kfsmd_Fuse_State>();
  st->silo = silo;
  st->mount_point = info.mount_point;
  st->se = fuse_session_new(&args, &kfsmd_fuse_ops, sizeof kfsmd_fuse_ops, silo.get());
  fuse_opt_free_args(&args);
  if (!st->se) return EIO;
  if (fuse_session_mount(st->se, info.mount_point.c_str()) != 0) {
    fuse_session_destroy(st->se);
    return EIO;
  }
  st->alive = true;
  st->loop = std::thread(run_loop, st);
  *out = std::make_unique<Fuse_Mount>(this, st);
  return 0;
}

bool kfsmd_fuse_available(std::string* why) {
  int fd = open("/dev/fuse", O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    *why = std::string("/dev/fuse cannot be opened: ") + strerror(errno);
    return false;
  }
  close(fd);
  char tmpl[] = "/tmp/kfsmd_probe.XXXXXX";
  char* dir = mkdtemp(tmpl);
  if (!dir) {
    *why = std::string("no temporary directory: ") + strerror(errno);
    return false;
  }
  static const struct fuse_lowlevel_ops none = {};
  struct fuse_args args = FUSE_ARGS_INIT(0, nullptr);
  fuse_opt_add_arg(&args, "kfsmd_probe");
  struct fuse_session* se = fuse_session_new(&args, &none, sizeof none, nullptr);
  fuse_opt_free_args(&args);
  bool ok = false;
  if (!se) {
    *why = "fuse_session_new failed";
  } else if (fuse_session_mount(se, dir) != 0) {
    *why = "a FUSE file system cannot be mounted here (no permission to mount, or no fusermount3)";
    fuse_session_destroy(se);
  } else {
    ok = true;
    umount2(dir, MNT_DETACH);
    fuse_session_destroy(se);
  }
  rmdir(dir);
  return ok;
}
