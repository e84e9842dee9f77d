#include "kfsmd/core/kfsmd_silo.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "kfsmd/core/kfsmd_as_user.h"
#include "proto/kfsm_status.h"

namespace {

// Name states of a lookup answer: the agent's own cached "no such name".
constexpr uint32_t NAME_STATE_CACHED_MISS = 0x100;

}  // namespace

Kfsmd_Silo::Kfsmd_Silo(std::shared_ptr<Kfsmd_View> view, const Kfsmd_Silo_Info& info)
    : m_view(std::move(view)), m_info(info) {
  Node root;
  root.ino = ROOT_INO;
  m_nodes.emplace(ROOT_INO, root);
  index_oid(root.vs.obj_oid, ROOT_INO);
}

Kfsmd_Silo::~Kfsmd_Silo() = default;

void Kfsmd_Silo::set_mount(std::unique_ptr<Kfsmd_Mount> m) {
  std::lock_guard<std::mutex> lk(m_mount_mutex);
  m_mount = std::move(m);
}

Kfsmd_Mount* Kfsmd_Silo::mount() {
  std::lock_guard<std::mutex> lk(m_mount_mutex);
  return m_mount.get();
}

std::unique_ptr<Kfsmd_Mount> Kfsmd_Silo::take_mount() {
  std::lock_guard<std::mutex> lk(m_mount_mutex);
  return std::move(m_mount);
}

void Kfsmd_Silo::notify(std::vector<Kfsmd_Action> actions) {
  std::lock_guard<std::mutex> lk(m_mount_mutex);
  if (m_mount && !actions.empty()) m_mount->notify(std::move(actions));
}

void Kfsmd_Silo::note_lvut(const struct timeval& lvut) {
  std::vector<Kfsmd_Action> actions;
  {
    std::lock_guard<std::mutex> lk(m_mutex);
    if (!timercmp(&lvut, &m_lvut, >)) return;
    const bool first = m_lvut.tv_sec == 0 && m_lvut.tv_usec == 0;
    m_lvut = lvut;
    if (first) return;  // nothing was given to the kernel under an older time that this one could date
    const auto now = std::chrono::steady_clock::now();
    const auto period = std::chrono::milliseconds(static_cast<int64_t>(m_view->options().lvut_inval_period * 1000));
    if (m_lvut_invalidated && now - m_lvut_inval_at < period) return;
    m_lvut_invalidated = true;
    m_lvut_inval_at = now;
    for (const auto& n : m_nodes)
      if (n.first != ROOT_INO || m_root_bound) actions.push_back({Kfsmd_Action::INODE, n.first, ""});
  }
  notify(std::move(actions));
}

struct stat Kfsmd_Silo::to_stat(const view_vstat_t& vs, const view_fhandle_t& fh) const {
  struct stat st;
  memset(&st, 0, sizeof st);
  mode_t type;
  switch (vs.fstat.type) {
    case 2: type = S_IFDIR; break;
    case 5: type = S_IFLNK; break;
    default: type = S_IFREG; break;
  }
  st.st_mode = type | (vs.fstat.mode & 07777);
  st.st_ino = ino_of(fh);
  st.st_nlink = vs.fstat.nlink ? vs.fstat.nlink : (type == S_IFDIR ? 2 : 1);
  auto ident = [&](const credutl_sid_t& sid, unsigned own) -> unsigned {
    return credutl_sid_eq(sid, CREDUTL_SID_NOBODY) ? 65534u : own;
  };
  st.st_uid = ident(vs.fstat.owner, m_view->uid());
  st.st_gid = ident(vs.fstat.group, m_view->gid());
  st.st_size = static_cast<off_t>(vs.fstat.size);
  st.st_blksize = 4096;
  st.st_blocks = static_cast<blkcnt_t>((vs.fstat.size + 511) / 512);
  st.st_atim.tv_sec = vs.fstat.atime.tv_sec;
  st.st_atim.tv_nsec = vs.fstat.atime.tv_usec * 1000;
  st.st_mtim.tv_sec = vs.fstat.mtime.tv_sec;
  st.st_mtim.tv_nsec = vs.fstat.mtime.tv_usec * 1000;
  st.st_ctim.tv_sec = vs.fstat.ctime.tv_sec;
  st.st_ctim.tv_nsec = vs.fstat.ctime.tv_usec * 1000;
  return st;
}

double Kfsmd_Silo::attr_timeout(const view_fhandle_t& fh) const {
  const Kfsmd_Options& o = m_view->options();
  return is_private(fh) ? o.attr_timeout_private : o.attr_timeout_silo;
}

int Kfsmd_Silo::bind_root(view_fhandle_t* fh, view_vstat_t* vs) {
  Xdr_Record<view_getattr_reply_t> g{xdr_view_getattr_reply_t};
  int e = m_view->rpc().root(m_info.family, m_info.replica, m_info.host, m_info.storage, &g);
  if (e != 0) return e;
  if (g->hdr.status != 0) return tbs_status2errno(g->hdr.status);
  {
    std::lock_guard<std::mutex> lk(m_mutex);
    Node& root = m_nodes[ROOT_INO];
    root.ino = ROOT_INO;
    // An answer that names the root object (a lookup of "..", say) must find node 1, not a twin.
    auto old = m_by_key.find(key_of(root.fh));
    if (old != m_by_key.end() && old->second == ROOT_INO) m_by_key.erase(old);
    root.fh = g->fh;
    set_vs(root, g->vstat);
    m_by_key[key_of(root.fh)] = ROOT_INO;
    m_root_bound = true;
    *fh = root.fh;
    if (vs) *vs = root.vs;
  }
  note_lvut(g->lvut);
  return 0;
}

int Kfsmd_Silo::handle_of(uint64_t ino, view_fhandle_t* fh, view_vstat_t* vs) {
  {
    std::lock_guard<std::mutex> lk(m_mutex);
    if (ino != ROOT_INO || m_root_bound) {
      auto it = m_nodes.find(ino);
      if (it == m_nodes.end()) return ESTALE;
      *fh = it->second.fh;
      if (vs) *vs = it->second.vs;
      return 0;
    }
  }
  return bind_root(fh, vs);
}

int Kfsmd_Silo::revalidate(uint64_t ino, view_fhandle_t* fh) {
  if (ino == ROOT_INO) return bind_root(fh, nullptr);
  view_fhandle_t old;
  view_vstat_t vs;
  int e = handle_of(ino, &old, &vs);
  if (e != 0) return e;
  if (!is_dir(vs)) return ESTALE;
  Xdr_Record<view_root_reply_t> r{xdr_view_root_reply_t};
  e = m_view->rpc().revalidate(old, &r);
  if (e != 0) return e;
  if (r->hdr.status != 0) return tbs_status2errno(r->hdr.status);
  std::lock_guard<std::mutex> lk(m_mutex);
  auto it = m_nodes.find(ino);
  if (it == m_nodes.end()) return ESTALE;
  auto k = m_by_key.find(key_of(it->second.fh));
  if (k != m_by_key.end() && k->second == ino) m_by_key.erase(k);
  it->second.fh = r->fh;
  set_vs(it->second, r->vstat);
  m_by_key[key_of(r->fh)] = ino;
  *fh = r->fh;
  return 0;
}

Kfsmd_Silo::Node& Kfsmd_Silo::intern(const view_fhandle_t& fh, const view_vstat_t& vs) {
  auto k = m_by_key.find(key_of(fh));
  if (k != m_by_key.end()) {
    auto it = m_nodes.find(k->second);
    if (it != m_nodes.end()) {
      it->second.fh = fh;
      set_vs(it->second, vs);
      return it->second;
    }
  }
  Node n;
  n.ino = m_next_ino++;
  n.fh = fh;
  m_by_key[key_of(fh)] = n.ino;
  Node& made = m_nodes.emplace(n.ino, n).first->second;
  set_vs(made, vs);
  return made;
}

void Kfsmd_Silo::index_oid(const tbs_oid_s& oid, uint64_t ino) {
  std::vector<uint64_t>& inos = m_by_oid[oid];
  if (std::find(inos.begin(), inos.end(), ino) == inos.end()) inos.push_back(ino);
}

void Kfsmd_Silo::unindex_oid(const tbs_oid_s& oid, uint64_t ino) {
  auto it = m_by_oid.find(oid);
  if (it == m_by_oid.end()) return;
  std::vector<uint64_t>& inos = it->second;
  inos.erase(std::remove(inos.begin(), inos.end(), ino), inos.end());
  if (inos.empty()) m_by_oid.erase(it);
}

void Kfsmd_Silo::set_vs(Node& n, const view_vstat_t& vs) {
  for (const tbs_oid_s* old : {&n.vs.obj_oid, &n.vs.elem_oid})
    if (!(*old == vs.obj_oid) && !(*old == vs.elem_oid)) unindex_oid(*old, n.ino);
  n.vs = vs;
  index_oid(vs.obj_oid, n.ino);
  index_oid(vs.elem_oid, n.ino);
}

void Kfsmd_Silo::drop_name(uint64_t dir, const std::string& name) {
  auto key = std::make_pair(dir, name);
  auto it = m_names.find(key);
  if (it != m_names.end()) {
    auto n = m_nodes.find(it->second);
    if (n != m_nodes.end()) n->second.names.erase(key);
    m_names.erase(it);
  }
  m_negative.erase(key);
}

void Kfsmd_Silo::remove_node(uint64_t ino) {
  auto it = m_nodes.find(ino);
  if (it == m_nodes.end()) return;
  for (const auto& nm : it->second.names) m_names.erase(nm);
  auto k = m_by_key.find(key_of(it->second.fh));
  if (k != m_by_key.end() && k->second == ino) m_by_key.erase(k);
  unindex_oid(it->second.vs.obj_oid, ino);
  unindex_oid(it->second.vs.elem_oid, ino);
  m_nodes.erase(it);
}

void Kfsmd_Silo::lookup(uint64_t parent, const std::string& name, Kfsmd_Reply& r) {
  if (name.size() > VIEW_NAME_MAX) return r.err(ENAMETOOLONG);
  view_fhandle_t dir;
  int e = handle_of(parent, &dir);
  if (e != 0) return r.err(e);
  const uint64_t epoch = m_view->epoch();
  Xdr_Record<view_lookup_reply_t> reply{xdr_view_lookup_reply_t};
  const view_lookup_reply_t& lr = reply.get();
  for (int attempt = 0;; ++attempt) {
    e = m_view->rpc().lookup(dir, name, "", &reply);
    if (e != 0) return r.err(e);
    if (lr.hdr.status == TBS_ST_STALE && attempt == 0) {
      if (revalidate(parent, &dir) == 0) continue;
    }
    break;
  }
  const bool raced = m_view->epoch() != epoch;
  const Kfsmd_Options& o = m_view->options();
  if (lr.hdr.status != 0) {
    if (lr.hdr.status == TBS_ST_NO_SUCH_NAME && (lr.name_state & NAME_STATE_CACHED_MISS) && !raced) {
      bool recorded = false;
      {
        std::lock_guard<std::mutex> lk(m_mutex);
        const auto now = std::chrono::steady_clock::now();
        if (m_negative.size() >= MAX_NEGATIVE) {
          // Entries whose time is over need no invalidation any more.
          for (auto it = m_negative.begin(); it != m_negative.end();) it = it->second < now ? m_negative.erase(it) : std::next(it);
        }
        if (m_negative.size() < MAX_NEGATIVE) {
          m_negative[{parent, name}] = now + std::chrono::milliseconds(static_cast<int64_t>(o.negative_timeout * 1000));
          recorded = true;
        }
      }
      if (recorded) {
        Kfsmd_Entry neg;
        neg.entry_timeout = o.negative_timeout;
        return r.entry(neg);
      }
    }
    return r.err(tbs_status2errno(lr.hdr.status));
  }
  Kfsmd_Entry ent;
  ent.attr_timeout = raced ? 0 : attr_timeout(lr.fh);
  ent.entry_timeout = raced || !lr.cacheable ? 0 : o.entry_timeout;
  {
    std::lock_guard<std::mutex> lk(m_mutex);
    Node& n = intern(lr.fh, lr.vstat);
    if (n.ino != ROOT_INO) n.nlookup++;
    if (is_dir(lr.vstat) && n.ino != parent) n.parent = parent;
    const auto key = std::make_pair(parent, name);
    drop_name(parent, name);
    if (ent.entry_timeout > 0) {
      m_names[key] = n.ino;
      n.names.insert(key);
    }
    ent.ino = n.ino;
    ent.generation = lr.fh.gen;
    ent.attr = to_stat(lr.vstat, lr.fh);
  }
  note_lvut(lr.lvut);
  r.entry(ent);
}

void Kfsmd_Silo::forget(uint64_t ino, uint64_t nlookup) {
  if (ino == ROOT_INO) return;
  std::lock_guard<std::mutex> lk(m_mutex);
  auto it = m_nodes.find(ino);
  if (it == m_nodes.end()) return;
  it->second.nlookup = nlookup >= it->second.nlookup ? 0 : it->second.nlookup - nlookup;
  if (it->second.nlookup == 0) remove_node(ino);
}

void Kfsmd_Silo::getattr(uint64_t ino, Kfsmd_Reply& r) {
  view_fhandle_t fh;
  int e = handle_of(ino, &fh);
  if (e != 0) return r.err(e);
  const uint64_t epoch = m_view->epoch();
  Xdr_Record<view_getattr_reply_t> g{xdr_view_getattr_reply_t};
  for (int attempt = 0;; ++attempt) {
    e = m_view->rpc().getattr(fh, &g);
    if (e != 0) return r.err(e);
    if (g->hdr.status == TBS_ST_STALE && attempt == 0) {
      e = revalidate(ino, &fh);
      if (e != 0) return r.err(e);
      continue;
    }
    break;
  }
  if (g->hdr.status != 0) return r.err(tbs_status2errno(g->hdr.status));
  {
    std::lock_guard<std::mutex> lk(m_mutex);
    auto it = m_nodes.find(ino);
    if (it != m_nodes.end()) set_vs(it->second, g->vstat);
  }
  note_lvut(g->lvut);
  r.attr(to_stat(g->vstat, fh), m_view->epoch() != epoch ? 0 : attr_timeout(fh));
}

void Kfsmd_Silo::readlink(uint64_t ino, Kfsmd_Reply& r) {
  view_fhandle_t fh;
  int e = handle_of(ino, &fh);
  if (e != 0) return r.err(e);
  Xdr_Record<view_readlink_reply_t> rl{xdr_view_readlink_reply_t};
  e = m_view->rpc().readlink(fh, &rl);
  if (e != 0) return r.err(e);
  if (rl->hdr.status != 0) return r.err(tbs_status2errno(rl->hdr.status));
  r.readlink(rl->text ? rl->text : "");
}

void Kfsmd_Silo::readdir(uint64_t ino, uint64_t off, size_t size, Kfsmd_Reply& r) {
  if (off > UINT32_MAX) return r.dir_done();
  view_fhandle_t fh;
  int e = handle_of(ino, &fh);
  if (e != 0) return r.err(e);
  uint32_t max_size = static_cast<uint32_t>(size < 512 ? 512 : size > 8192 ? 8192 : size);
  Xdr_Record<view_readdir_reply_t> listing{xdr_view_readdir_reply_t};
  const view_readdir_reply_t& rd = listing.get();
  for (int attempt = 0;; ++attempt) {
    e = m_view->rpc().readdir(fh, static_cast<uint32_t>(off), max_size, &listing);
    if (e != 0) return r.err(e);
    if (rd.hdr.status == TBS_ST_STALE && attempt == 0) {
      e = revalidate(ino, &fh);
      if (e != 0) return r.err(e);
      continue;
    }
    break;
  }
  if (rd.hdr.status != 0) return r.err(tbs_status2errno(rd.hdr.status));
  uint32_t pos = 0;
  while (pos + VIEW_DIRENT_NAME_OFF <= rd.used) {
    const uint8_t* rec = reinterpret_cast<const uint8_t*>(rd.buffer + pos);
    uint16_t reclen = kfsm_get_u16(rec + 8);
    uint16_t namlen = kfsm_get_u16(rec + 10);
    if (reclen == 0 || pos + reclen > rd.used || VIEW_DIRENT_NAME_OFF + namlen >= reclen + 1u) break;
    std::string name(reinterpret_cast<const char*>(rec + VIEW_DIRENT_NAME_OFF), namlen);
    uint64_t entry_ino = kfsm_get_u32(rec);
    if (name == ".") entry_ino = ino_of(fh);
    else if (name == "..") entry_ino = dot_dot_ino(ino, fh, entry_ino);
    if (!r.dir_add(name, entry_ino, kfsm_get_u32(rec + 4))) break;
    pos += reclen;
  }
  r.dir_done();
}

uint64_t Kfsmd_Silo::dot_dot_ino(uint64_t ino, const view_fhandle_t& fh, uint64_t agents) {
  if (ino == ROOT_INO) {
    // The SILO root's parent is the real directory the SILO is mounted in.
    {
      std::lock_guard<std::mutex> lk(m_mutex);
      if (m_mount_parent_ino) return m_mount_parent_ino;
    }
    const std::string& mp = m_info.mount_point;
    const size_t slash = mp.find_last_of('/');
    struct stat st;
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : mp.substr(0, slash);
    if (lstat(dir.c_str(), &st) != 0) return ino_of(fh);
    std::lock_guard<std::mutex> lk(m_mutex);
    m_mount_parent_ino = st.st_ino;
    return m_mount_parent_ino;
  }
  std::lock_guard<std::mutex> lk(m_mutex);
  auto n = m_nodes.find(ino);
  if (n == m_nodes.end() || n->second.parent == 0) return agents;
  auto p = m_nodes.find(n->second.parent);
  if (p == m_nodes.end()) return agents;
  return ino_of(p->second.fh);
}

std::string Kfsmd_Silo::backing_path(const std::string& path, bool rel_to_cache) {
  if (!path.empty() && path[0] == '/') return path;
  if (rel_to_cache) {
    std::string dir = m_view->cache_dir();
    if (dir.empty()) {
      m_view->reload_cache_dir();
      dir = m_view->cache_dir();
    }
    if (dir.empty()) return "";
    return dir + "/" + path;
  }
  return m_view->storage() + "/.s/" + path;
}

void Kfsmd_Silo::open(uint64_t ino, int flags, Kfsmd_Reply& r) {
  view_fhandle_t fh;
  view_vstat_t vs;
  int e = handle_of(ino, &fh, &vs);
  if (e != 0) return r.err(e);
  const bool writing = (flags & O_ACCMODE) != O_RDONLY || (flags & O_TRUNC);
  if (writing && !is_private(fh)) return r.err(EROFS);
  Xdr_Record<view_cltxt_reply_t> c{xdr_view_cltxt_reply_t};
  e = m_view->rpc().getcleartext(fh, &c);
  if (e != 0) return r.err(e);
  if (c->hdr.status != 0) return r.err(tbs_status2errno(c->hdr.status));
  const std::string path = backing_path(c->path ? c->path : "", c->rel_to_cache != 0);
  if (path.empty()) return r.err(EIO);
  int fd;
  {
    Kfsmd_As_User as(m_view->uid(), m_view->gid());
    if (!as.ok()) return r.err(EPERM);
    fd = ::open(path.c_str(), (flags & (O_ACCMODE | O_APPEND | O_TRUNC)) | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) e = errno;
  }
  if (fd < 0) return r.err(e == ELOOP ? EIO : e);
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    return r.err(EIO);
  }
  int fl = fcntl(fd, F_GETFL);
  if (fl >= 0) fcntl(fd, F_SETFL, fl & ~O_NONBLOCK);
  const bool direct = static_cast<uint64_t>(st.st_size) != vs.fstat.size;
  bool keep = false;
  if (!is_private(fh)) {
    std::lock_guard<std::mutex> lk(m_mutex);
    auto it = m_nodes.find(ino);
    if (it != m_nodes.end()) {
      Node& n = it->second;
      keep = n.paged && !direct && n.paged_oid == vs.obj_oid && n.paged_size == vs.fstat.size &&
             n.paged_mtime.tv_sec == vs.fstat.mtime.tv_sec && n.paged_mtime.tv_usec == vs.fstat.mtime.tv_usec &&
             n.paged_dev == st.st_dev && n.paged_ino == st.st_ino && n.paged_ctime.tv_sec == st.st_ctim.tv_sec &&
             n.paged_ctime.tv_nsec == st.st_ctim.tv_nsec;
      n.paged = !direct;
      n.paged_oid = vs.obj_oid;
      n.paged_size = vs.fstat.size;
      n.paged_mtime = vs.fstat.mtime;
      n.paged_dev = st.st_dev;
      n.paged_ino = st.st_ino;
      n.paged_ctime = st.st_ctim;
    }
  }
  r.open(fd, keep, direct);
}

void Kfsmd_Silo::statfs(Kfsmd_Reply& r) {
  std::string dir = m_view->cache_dir();
  if (dir.empty()) dir = m_view->storage();
  struct statvfs st;
  int rc;
  {
    Kfsmd_As_User as(m_view->uid(), m_view->gid());
    rc = as.ok() ? statvfs(dir.c_str(), &st) : -1;
  }
  if (rc != 0) memset(&st, 0, sizeof st);
  st.f_namemax = VIEW_NAME_MAX;
  r.statfs(st);
}

int Kfsmd_Silo::resolve(const std::string& rest_in, bool follow, view_vstat_t* vs, view_fhandle_t* out_fh) {
  view_fhandle_t root;
  int e = handle_of(ROOT_INO, &root);
  if (e != 0) return tbs_errno2status(e);
  std::string residual = rest_in;
  while (!residual.empty() && residual[0] == '/') residual.erase(0, 1);
  for (int links = 0;;) {
    Xdr_Record<view_lookup_reply_t> reply{xdr_view_lookup_reply_t};
    const view_lookup_reply_t& lr = reply.get();
    e = m_view->rpc().lookup(root, ".", residual, &reply);
    if (e != 0) return tbs_errno2status(e);
    if (lr.hdr.status != 0) return lr.hdr.status;
    const bool at_link = lr.vstat.fstat.type == 5;
    const bool whole = lr.consumed >= residual.size();
    if (whole && !(at_link && follow)) {
      *vs = lr.vstat;
      *out_fh = lr.fh;
      return 0;
    }
    if (!at_link) return TBS_ST_NO_SUCH_NAME;  // stopped short at something that is no link
    if (++links > MAX_LINKS) return TBS_ST_LOOP;
    Xdr_Record<view_readlink_reply_t> rl{xdr_view_readlink_reply_t};
    e = m_view->rpc().readlink(lr.fh, &rl);
    if (e != 0) return tbs_errno2status(e);
    if (rl->hdr.status != 0) return rl->hdr.status;
    const std::string target = rl->text ? rl->text : "";
    if (!target.empty() && target[0] == '/') return TBS_ST_BAD_ARG;
    size_t consumed = lr.consumed > residual.size() ? residual.size() : lr.consumed;
    // The agent counts the separator behind the link as consumed: the link's own path ends before it.
    std::string done = residual.substr(0, consumed);
    while (!done.empty() && done.back() == '/') done.pop_back();
    std::string remainder = residual.substr(consumed);
    size_t slash = done.rfind('/');
    std::string dir = slash == std::string::npos ? "" : done.substr(0, slash);
    std::string next = dir.empty() ? target : dir + "/" + target;
    if (!remainder.empty()) next += (remainder[0] == '/' ? "" : "/") + remainder;
    residual = next;
    if (residual.size() > KS_CANON_PNAME_MAX) return TBS_ST_TOO_LONG;
  }
}

void Kfsmd_Silo::plan(uint32_t kind, const tbs_oid_s& oid, const std::string& name, std::vector<Kfsmd_Action>* out) {
  std::lock_guard<std::mutex> lk(m_mutex);
  auto matches = [&](const Node& n) {
    return n.vs.obj_oid == oid || n.vs.elem_oid == oid;
  };
  if (kind == KFSM_INVAL_VIEW) {
    for (const auto& nm : m_names) out->push_back({Kfsmd_Action::ENTRY, nm.first.first, nm.first.second});
    for (const auto& neg : m_negative) out->push_back({Kfsmd_Action::ENTRY, neg.first.first, neg.first.second});
    for (auto& n : m_nodes) {
      out->push_back({Kfsmd_Action::INODE_DATA, n.first, ""});
      n.second.names.clear();
    }
    m_names.clear();
    m_negative.clear();
    m_root_bound = false;
    return;
  }
  std::vector<uint64_t> hit;
  if (auto found = m_by_oid.find(oid); found != m_by_oid.end())
    for (uint64_t ino : found->second) {
      auto n = m_nodes.find(ino);
      if (n != m_nodes.end() && matches(n->second)) hit.push_back(ino);
    }
  if (kind == KFSM_INVAL_NAME) {
    for (uint64_t d : hit) {
      if (!is_dir(m_nodes[d].vs)) continue;
      out->push_back({Kfsmd_Action::ENTRY, d, name});
      out->push_back({Kfsmd_Action::INODE_DATA, d, ""});
      drop_name(d, name);
    }
    return;
  }
  // Kinds 2, 5, 6, 7.
  for (uint64_t ino : hit) {
    Node& n = m_nodes[ino];
    out->push_back({Kfsmd_Action::INODE_DATA, ino, ""});
    std::vector<std::pair<uint64_t, std::string>> names(n.names.begin(), n.names.end());
    for (const auto& nm : names) {
      out->push_back({Kfsmd_Action::ENTRY, nm.first, nm.second});
      drop_name(nm.first, nm.second);
    }
    if (is_dir(n.vs)) {
      std::vector<std::string> inside;
      for (auto it = m_names.lower_bound({ino, ""}); it != m_names.end() && it->first.first == ino; ++it)
        inside.push_back(it->first.second);
      for (auto it = m_negative.lower_bound({ino, ""}); it != m_negative.end() && it->first.first == ino; ++it)
        inside.push_back(it->first.second);
      for (const auto& child : inside) {
        out->push_back({Kfsmd_Action::ENTRY, ino, child});
        drop_name(ino, child);
      }
    }
  }
}

size_t Kfsmd_Silo::node_count() {
  std::lock_guard<std::mutex> lk(m_mutex);
  return m_nodes.size();
}

size_t Kfsmd_Silo::name_count() {
  std::lock_guard<std::mutex> lk(m_mutex);
  return m_names.size() + m_negative.size();
}
