#include "kfsm/tavrel_kfsm_ioctl.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <system_error>
#include <thread>
#include <vector>

#include "base/pfm.h"
#include "base/sysutl.h"
#include "base/tavrel_mutex.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_view.h"
#include "kfsm/libkfsm.h"
#include "kfsm/tavrel_kfsm_request_handler.h"
#include "proto/kfsm_status.h"

namespace {

// A replica's oid names the same 16 bytes as its uuid.
tbs_uuid_s oid_to_uuid(const tbs_oid_s& o) {
  tbs_uuid_s u;
  memcpy(u.bytes, o.bytes, 16);
  return u;
}

uint32_t case_flag() {
  return Tavrel_KFSM_Ioctl::kfsm_is_case_sensitive() ? uint32_t(KFSM_FLAG_CASE_SENSITIVE) : 0u;
}

// strdup copies that are freed when the holder goes.
struct Dup {
  char* s;
  explicit Dup(const std::string& v) : s(strdup(v.c_str())) {}
  ~Dup() { free(s); }
  Dup(const Dup&) = delete;
  Dup& operator=(const Dup&) = delete;
  kfsm_strbuf buf() const { return kfsm_strbuf_of(s); }
};

void print_mkview(const Tavrel_Trace& trace, const kfsm_mkviewtag_info& m) {
  trace.writeTrace(TRACE_LEVEL_4, "Mkview info ....");
  trace.writeTrace(TRACE_LEVEL_4, "    uuid     = %s", tbs_uuid_to_str(m.uuid).c_str());
  trace.writeTrace(TRACE_LEVEL_4, "    View tag = %s", m.viewtag.s ? m.viewtag.s : "");
  trace.writeTrace(TRACE_LEVEL_4, "    Spath(u) = %s", m.spath_u.s ? m.spath_u.s : "");
  trace.writeTrace(TRACE_LEVEL_4, "    Spath(k) = %s", m.spath_k.s ? m.spath_k.s : "");
  trace.writeTrace(TRACE_LEVEL_4, "    host     = %s", m.host.s ? m.host.s : "");
  trace.writeTrace(TRACE_LEVEL_4, "    rpath    = %s", m.rpath.s ? m.rpath.s : "");
  trace.writeTrace(TRACE_LEVEL_4, "    windows view = %d", static_cast<int>(m.flags & 1));
}

}  // namespace

// The sender thread of send_from_own_thread() and its queue.
class Tavrel_KFSM_Ioctl::Sender {
 public:
  static constexpr size_t BATCH = KFSM_POST_BATCH;  // queued invalidations that wake the sender at once
  static constexpr size_t MAX_QUEUED = 4096;
  static constexpr std::chrono::milliseconds LINGER{2};  // the longest a smaller number waits

  explicit Sender(Tavrel_KFSM_Ioctl* io) : m_io(io), m_thread([this] { run(); }) {}
  ~Sender() {
    {
      std::lock_guard<Tavrel_Mutex> g(m_mutex);
      m_stop = true;
    }
    m_wake.notify_all();
    m_thread.join();
  }

  bool on_sender() const { return std::this_thread::get_id() == m_thread.get_id(); }

  void push(const kfsm_inval_info& info) {
    std::unique_lock<Tavrel_Mutex> g(m_mutex);
    m_room.wait(g, [&] { return m_queue.size() < MAX_QUEUED; });
    Item it;
    it.info = info;
    it.name = info.name.s ? std::string(info.name.s, info.name.l) : std::string();
    it.has_name = info.name.s != nullptr;
    m_queue.push_back(std::move(it));
    if (m_sleeping && (m_queue.size() == 1 || m_queue.size() >= BATCH)) m_wake.notify_one();
  }

  // Until everything queued is sent and answered.
  void wait_idle() {
    std::unique_lock<Tavrel_Mutex> g(m_mutex);
    if (m_queue.empty() && !m_busy) return;
    m_flush = true;
    m_wake.notify_one();
    m_idle.wait(g, [&] { return m_queue.empty() && !m_busy; });
    m_flush = false;
  }

 private:
  struct Item {
    kfsm_inval_info info;
    std::string name;
    bool has_name = false;
  };

  void run() {
    std::unique_lock<Tavrel_Mutex> g(m_mutex);
    std::vector<Item> batch;
    for (;;) {
      m_sleeping = true;
      m_wake.wait(g, [&] { return m_stop || !m_queue.empty(); });
      // A few invalidations wait a little for more, so that they leave together.
      m_wake.wait_for(g, LINGER, [&] { return m_stop || m_flush || m_queue.size() >= BATCH; });
      m_sleeping = false;
      if (m_queue.empty()) {
        if (m_stop) return;
        continue;
      }
      batch.assign(std::make_move_iterator(m_queue.begin()), std::make_move_iterator(m_queue.end()));
      m_queue.clear();
      m_busy = true;
      g.unlock();
      m_room.notify_all();
      for (Item& it : batch) send(it);
      batch.clear();
      // What the last post left waiting in the handle leaves now, and the answers that came are taken.
      while (m_io->collect_one(false)) {
      }
      g.lock();
      if (m_queue.empty()) {
        // Nothing more to send: every outstanding answer is taken before the sender says it is idle.
        g.unlock();
        m_io->drain_kept();
        g.lock();
        if (m_queue.empty()) {
          m_busy = false;
          m_idle.notify_all();
        }
      }
    }
  }

  void send(Item& it) {
    it.info.name = it.has_name ? kfsm_strbuf_of(it.name.c_str()) : kfsm_strbuf{};
    int st = 0;
    try {
      st = m_io->inval(&it.info);
    } catch (const std::exception&) {  // nothing may leave the thread; the caller sees a failure
      st = TBS_ST_FAILURE;
    }
    if (st == 0) return;
    m_io->m_posted_failures++;
    Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Ioctl::Sender", "send");
    trace.writeTrace(TRACE_LEVEL_2, "a queued invalidation failed: %d", st);
  }

  Tavrel_KFSM_Ioctl* m_io;
  Tavrel_Mutex m_mutex{Tavrel_Lock_Rank::LEAF, "Tavrel_KFSM_Ioctl::Sender::m_mutex"};
  std::condition_variable_any m_wake, m_room, m_idle;
  std::deque<Item> m_queue;
  bool m_sleeping = false, m_busy = false, m_flush = false, m_stop = false;
  std::thread m_thread;  // last: starts once the rest is made
};

Tavrel_KFSM_Ioctl::Tavrel_KFSM_Ioctl(Tavrel_View* view) : m_view(view) {}

Tavrel_KFSM_Ioctl::~Tavrel_KFSM_Ioctl() {
  drain();
  m_sender.reset();
  close_kept();
}

void Tavrel_KFSM_Ioctl::send_from_own_thread() {
  m_keep = true;
  if (m_sender) return;
  try {
    m_sender = std::make_unique<Sender>(this);
  } catch (const std::system_error& e) {
    // No thread to be had: the caller sends its invalidations itself, as keep_open() has it.
    Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Ioctl", "send_from_own_thread");
    trace.writeTrace(TRACE_LEVEL_2, "no sender thread (%s): invalidations are sent by the caller", e.what());
  }
}

bool Tavrel_KFSM_Ioctl::queue_inval(const kfsm_inval_info& info) {
  if (!m_sender || m_sender->on_sender()) return false;
  m_sender->push(info);
  return true;
}

void Tavrel_KFSM_Ioctl::close_kept() {
  if (m_handle == 0) return;
  m_posted_failures += kfsm_mcb_outstanding(m_handle);
  kfsm_view_root_close_type(1, m_handle);
  m_handle = 0;
}

bool Tavrel_KFSM_Ioctl::collect_one(bool wait) {
  if (m_handle == 0) return false;
  int status = 0;
  int err = kfsm_mcb_collect(m_handle, wait, &status);
  if (err == EAGAIN) return false;
  if (status == TBS_ST_NO_VIEW) m_root.clear();  // a daemon started again may have another root
  if (err != 0 || status != 0) {
    Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Ioctl", "collect_one");
    trace.writeTrace(TRACE_LEVEL_2, "a posted command failed: errno %d, status %d", err, status);
    m_posted_failures++;
  }
  if (err != 0) {
    close_kept();
    return false;
  }
  return true;
}

void Tavrel_KFSM_Ioctl::drain() {
  if (m_sender && !m_sender->on_sender()) m_sender->wait_idle();
  drain_kept();
}

void Tavrel_KFSM_Ioctl::drain_kept() {
  if (m_handle == 0 || kfsm_mcb_outstanding(m_handle) == 0) return;  // the usual case: nothing to take
  pfm_inhibit();
  while (m_handle != 0 && kfsm_mcb_outstanding(m_handle) > 0 && collect_one(true)) {
  }
  pfm_enable();
}

int Tavrel_KFSM_Ioctl::kept_command(kfsmcmd_block* block) {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Ioctl", "kept_command");
  const bool post = block->cmd == KFSM_CMD_INVAL;
  int status = 0;
  for (int attempt = 0; attempt < 2; attempt++) {
    if (m_handle == 0) {
      status = 0;
      m_handle = kfsm_view_root_open_type(1, &status);
      if (m_handle == 0) return status;
    }
    int err = 0;
    if (post) {
      kfsm_mcb_post(m_handle, block, &err);
      if (err == EAGAIN && collect_one(true)) {
        // The window is full: the oldest answer was awaited; every other one that has come is taken
        // without waiting, so the window fills again only after as many posts.
        while (collect_one(false)) {
        }
        if (m_handle != 0) kfsm_mcb_post(m_handle, block, &err);
      }
      if (err == 0) return 0;
    } else {
      drain();
      if (m_handle == 0) {
        status = TBS_ST_FAILURE;
        continue;
      }
      do {
        err = 0;
        kfsm_mcb_cmd(m_handle, block, &err);
      } while (err == EINTR);
      if (err == 0) return block->status;
    }
    status = tbs_errno2status(err);
    trace.writeTrace(TRACE_LEVEL_3, "kept handle failed (%d): %s", err, attempt == 0 ? "opening another" : "giving up");
    close_kept();
  }
  return status;
}

int Tavrel_KFSM_Ioctl::kfsm_ioctl(kfsmcmd_block* block) {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Ioctl", "kfsm_ioctl");
  // A command of the caller's own waits until the sender is done with the handle.
  if (m_sender && !m_sender->on_sender()) m_sender->wait_idle();
  if (m_keep) {
    pfm_inhibit();
    int status = kept_command(block);
    pfm_enable();
    return status;
  }
  pfm_inhibit();
  int status = 0;
  trace.writeTrace(TRACE_LEVEL_4, "Calling kfsm_view_root_open_type");
  int handle = kfsm_view_root_open_type(1, &status);
  if (handle != 0) {
    int err;
    do {
      trace.writeTrace(TRACE_LEVEL_4, "Calling KFSM_MCB_CMD");
      err = 0;
      kfsm_mcb_cmd(handle, block, &err);
      trace.writeTrace(TRACE_LEVEL_4, "Status from KFSM_MCB_CMD = %d (%d)", block->status, err);
    } while (err == EINTR);
    status = err == 0 ? block->status : tbs_errno2status(err);
    kfsm_view_root_close_type(1, handle);
  }
  pfm_enable();
  trace.writeTrace(TRACE_LEVEL_3, "Returning %d", status);
  return status;
}

int Tavrel_KFSM_Ioctl::register_view() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Ioctl", "register_view");
  const std::string tag = m_view->get_server_tag();
  const std::string path = m_view->get_storage_path();
  const std::string host = sysutl_myhostname();
  trace.writeTrace(TRACE_LEVEL_3, " Registering view %s (%s)", tag.c_str(), path.c_str());
  Dup dtag(tag), dpath_u(path), dpath_k(path), dhost(host), drpath(path);
  kfsm_mkviewtag_info info;
  memset(&info, 0, sizeof info);
  info.viewtag = dtag.buf();
  info.spath_u = dpath_u.buf();
  info.spath_k = dpath_k.buf();
  info.host = dhost.buf();
  info.rpath = drpath.buf();
  info.uuid = m_view->get_view_uuid();
  info.flags = 0;
  trace.writeTrace(TRACE_LEVEL_4, "Entry...");
  trace.writeTrace(TRACE_LEVEL_4, "     view tag       = %s", tag.c_str());
  trace.writeTrace(TRACE_LEVEL_4, "     path             = %s", path.c_str());
  trace.writeTrace(TRACE_LEVEL_4, "     host name    = %s", host.c_str());
  trace.writeTrace(TRACE_LEVEL_4, "     host path      = %s %s", host.c_str(), path.c_str());
  trace.writeTrace(TRACE_LEVEL_4, "     uuid              = %s", tbs_uuid_to_str(info.uuid).c_str());
  trace.writeTrace(TRACE_LEVEL_4, "     windows view = %d", 0);
  trace.writeTrace(TRACE_LEVEL_4, "Before mkview");
  print_mkview(trace, info);

  Tavrel_KFSM_Request_Handler* handler = Tavrel_KFSM_Request_Handler::get_instance();
  if (!handler) return TBS_ST_NO_ROOM;
  handler->set_view_tag(tag);

  kfsmcmd_block block;
  memset(&block, 0, sizeof block);
  block.cmd = KFSM_CMD_MKVIEW;
  block.flags = case_flag();
  block.infolen = KFSM_MKVIEWTAG_IMAGE;
  block.infop = &info;
  int status = kfsm_ioctl(&block);
  trace.writeTrace(TRACE_LEVEL_3, "Status from mkview = %d", status);
  return status;
}

int Tavrel_KFSM_Ioctl::unregister_view() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Ioctl", "unregister_view");
  const std::string tag = m_view->get_server_tag();
  trace.writeTrace(TRACE_LEVEL_3, "Removing view tag = %s", tag.c_str());
  Dup dtag(tag);
  kfsm_strbuf info = dtag.buf();
  kfsmcmd_block block;
  memset(&block, 0, sizeof block);
  block.cmd = KFSM_CMD_RMTAG;
  block.flags = KFSM_FLAG_CASE_SENSITIVE;
  block.infolen = KFSM_RMTAG_IMAGE;
  block.infop = &info;
  trace.writeTrace(TRACE_LEVEL_4, "Calling kfsm_ioctl");
  int status = kfsm_ioctl(&block);
  trace.writeTrace(TRACE_LEVEL_3, "Status from kfsm_ioctl = %d", status);
  return status;
}

int Tavrel_KFSM_Ioctl::mount_silo(const std::string& mount_point, const std::string& storage, tbs_oid_s replica,
                                  tbs_oid_s family) {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Ioctl", "mount_silo");
  trace.writeTrace(TRACE_LEVEL_3, "mounting %s from stg %s (replica %s family %s)", mount_point.c_str(),
                   storage.c_str(), tbs_oid_to_str(replica).c_str(), tbs_oid_to_str(family).c_str());
  const std::string tag = m_view->get_server_tag();
  const std::string view_path = m_view->get_storage_path();
  Dup dtag(tag), dmp(mount_point), dhost(sysutl_myhostname()), dv1(view_path), dv2(view_path),
      dstg(storage.substr(0, 1024));
  kfsm_mount_info info;
  memset(&info, 0, sizeof info);
  info.version = KFSM_MOUNT_VERSION;
  info.size = KFSM_MOUNT_IMAGE;
  info.word4 = 1;
  info.mount_point = dmp.buf();
  info.host = dhost.buf();
  info.word32 = 0;
  info.view_string1 = dv1.buf();
  info.view_string2 = dv2.buf();
  info.storage = dstg.buf();
  info.family = family;
  info.word88 = 3000;
  info.word92 = 1;
  info.replica = oid_to_uuid(replica);
  kfsmcmd_block block;
  memset(&block, 0, sizeof block);
  block.cmd = KFSM_CMD_MOUNT;
  block.flags = 0;
  block.pn = dtag.buf();
  block.pn2 = dtag.buf();
  block.infolen = KFSM_MOUNT_IMAGE;
  block.infop = &info;
  int status = kfsm_ioctl(&block);
  if (status == TBS_ST_EXISTS) {
    trace.writeTrace(TRACE_LEVEL_3, "SILO already mounted");
    return TAVREL_ST_ALREADY_MOUNTED;
  }
  return Tavrel_View::tbs_to_tavrel_status(status);
}

int Tavrel_KFSM_Ioctl::umount_silo(const std::string& mount_point, tbs_oid_s replica, int* raw) {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Ioctl", "umount_silo");
  trace.writeTrace(TRACE_LEVEL_3, "unmounting %s (replica %s)", mount_point.c_str(), tbs_oid_to_str(replica).c_str());
  const std::string tag = m_view->get_server_tag();
  Dup dtag(tag), dmp(mount_point);
  kfsm_umount_info info;
  memset(&info, 0, sizeof info);
  info.mount_point = dmp.buf();
  info.replica = oid_to_uuid(replica);
  kfsmcmd_block block;
  memset(&block, 0, sizeof block);
  block.cmd = KFSM_CMD_UMOUNT;
  block.pn = dtag.buf();
  block.pn2 = dtag.buf();
  block.infolen = KFSM_UMOUNT_IMAGE;
  block.infop = &info;
  int status = kfsm_ioctl(&block);
  if (raw) *raw = status;
  if (status == TBS_ST_BAD_ARG) {
    trace.writeTrace(TRACE_LEVEL_3, "SILO not mounted");
    return TAVREL_ST_NOT_MOUNTED;
  }
  return Tavrel_View::tbs_to_tavrel_status(status);
}

uint32_t Tavrel_KFSM_Ioctl::inval_kind(silo_op_t op) {
  switch (op) {
    case 14: case 17: case 27: case 32: case 66:
      return KFSM_INVAL_OBJ_TREE;
    case 126: case 131:
      return KFSM_INVAL_OBJ_MOVE;
    case 124: case 130:
      return KFSM_INVAL_OBJ_ATTR;
    default:
      return KFSM_INVAL_OBJ;
  }
}

int Tavrel_KFSM_Ioctl::inval(kfsm_inval_info* info) {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Ioctl", "inval");
  if (queue_inval(*info)) return 0;
  char root[KFSM_VIEW_ROOT_MAX];
  if (m_keep && !m_root.empty()) {
    memcpy(root, m_root.c_str(), m_root.size() + 1);
  } else {
    const std::string tag = m_view->get_server_tag();
    int st = tbs_view_root_type(1, root, tag.c_str());
    if (st != 0) {
      trace.writeTrace(TRACE_LEVEL_2, "tbs_view_root_type failed: %d", st);
      return TBS_ST_NO_VIEW;
    }
    if (m_keep) m_root = root;
  }
  trace.writeTrace(TRACE_LEVEL_4, "invalidate kind %u in %s", info->kind, root);
  kfsmcmd_block block;
  memset(&block, 0, sizeof block);
  block.cmd = KFSM_CMD_INVAL;
  block.flags = case_flag();
  block.pn = kfsm_strbuf_of(root);
  block.pn2 = kfsm_strbuf_empty();
  block.infolen = KFSM_INVAL_IMAGE;
  block.infop = info;
  return kfsm_ioctl(&block);
}

int Tavrel_KFSM_Ioctl::view_inval_view() {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Ioctl", "view_inval_view");
  kfsm_inval_info info;
  memset(&info, 0, sizeof info);
  info.version = KFSM_INVAL_VERSION;
  info.kind = KFSM_INVAL_VIEW;
  return inval(&info);
}

int Tavrel_KFSM_Ioctl::view_inval_name(const tbs_uuid_s* silo, const tbs_oid_s* dir, const char* name) {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Ioctl", "view_inval_name");
  kfsm_inval_info info;
  memset(&info, 0, sizeof info);
  info.version = KFSM_INVAL_VERSION;
  info.kind = KFSM_INVAL_NAME;
  if (silo) info.silo = *silo;
  if (dir) info.obj = *dir;
  info.name = kfsm_strbuf_of(name);
  return inval(&info);
}

int Tavrel_KFSM_Ioctl::view_inval_obj(const tbs_uuid_s* silo, const tbs_oid_s* obj, silo_op_t op) {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Ioctl", "view_inval_obj");
  kfsm_inval_info info;
  memset(&info, 0, sizeof info);
  info.version = KFSM_INVAL_VERSION;
  info.kind = inval_kind(op);
  if (silo) info.silo = *silo;
  if (obj) info.obj = *obj;
  return inval(&info);
}

int Tavrel_KFSM_Ioctl::view_get_xstat(const std::string& path, view_vstat* vstat, tbs_oid_s* oid, tbs_uuid_s* uuid,
                                      int* flag, tbs_uuid_s* uuid2) {
  return get_xstat(path, vstat, oid, uuid, flag, 1, uuid2);
}

int Tavrel_KFSM_Ioctl::view_lget_xstat(const std::string& path, view_vstat* vstat, tbs_oid_s* oid, tbs_uuid_s* uuid,
                                       int* flag, tbs_uuid_s* uuid2) {
  return get_xstat(path, vstat, oid, uuid, flag, 0, uuid2);
}

int Tavrel_KFSM_Ioctl::get_xstat(const std::string& path, view_vstat* vstat, tbs_oid_s* oid, tbs_uuid_s* uuid,
                                 int* flag, int follow, tbs_uuid_s* uuid2) {
  Tavrel_Trace trace(TAVREL_KFSM, "Tavrel_KFSM_Ioctl", "get_xstat");
  trace.writeTrace(TRACE_LEVEL_4, "xstat %s (follow %d)", path.c_str(), follow);
  Dup dpath(path);
  view_vstat local;
  memset(&local, 0, sizeof local);
  kfsm_xstat_info info;
  memset(&info, 0, sizeof info);
  info.vstat = &local;
  kfsmcmd_block block;
  memset(&block, 0, sizeof block);
  block.cmd = KFSM_CMD_XSTAT;
  block.flags = case_flag() | (follow ? 0u : uint32_t(KFSM_FLAG_NOFOLLOW));
  block.pn = dpath.buf();
  block.pn2 = dpath.buf();
  block.infolen = KFSM_XSTAT_IMAGE;
  block.infop = &info;
  int status = kfsm_ioctl(&block);
  if (status != 0) return status;
  if (vstat) *vstat = local;
  if (oid) *oid = info.oid;
  if (uuid) *uuid = info.uuid;
  if (flag) *flag = info.flag;
  if (uuid2) *uuid2 = info.uuid2;
  return 0;
}
