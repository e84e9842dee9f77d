#include "kfsmd/core/kfsmd_registry.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "proto/kfsm_status.h"

namespace {

bool valid_component(const std::string& c) {
  if (c.empty() || c.size() > VIEW_NAME_MAX || c == "." || c == "..") return false;
  for (char ch : c)
    if (!(isalnum(static_cast<unsigned char>(ch)) || ch == '.' || ch == '_' || ch == '-')) return false;
  return true;
}

// Makes directory `path` (its parent exists) owned by root, mode 0755; an existing directory is fine,
// anything else there (a symbolic link, a file) is not.
bool make_dir(const std::string& path) {
  if (mkdir(path.c_str(), 0755) == 0) return true;
  if (errno != EEXIST) return false;
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Removes the empty directories from `path` up to, not including, `stop`.
void remove_dirs(std::string path, const std::string& stop) {
  while (path.size() > stop.size() && path.compare(0, stop.size(), stop) == 0) {
    if (rmdir(path.c_str()) != 0) return;
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) return;
    path.resize(slash);
  }
}

bool nests(const std::string& a, const std::string& b) {
  auto under = [](const std::string& x, const std::string& y) {
    return x.size() > y.size() && x.compare(0, y.size(), y) == 0 && x[y.size()] == '/';
  };
  return under(a, b) || under(b, a);
}

}  // namespace

Kfsmd_Registry::Kfsmd_Registry(const Kfsmd_Options& opt, Kfsmd_Mounter* mounter) : m_opt(opt), m_mounter(mounter) {}

Kfsmd_Registry::~Kfsmd_Registry() { shutdown(); }

bool Kfsmd_Registry::valid_view_tag(const std::string& tag) { return valid_component(tag); }

bool Kfsmd_Registry::valid_silo_tag(const std::string& tag) {
  if (tag.size() < 2 || tag.size() > TBS_PNAME_MAX || tag[0] != '/') return false;
  size_t pos = 1;
  while (pos <= tag.size()) {
    size_t end = tag.find('/', pos);
    if (end == std::string::npos) end = tag.size();
    if (!valid_component(tag.substr(pos, end - pos))) return false;
    pos = end + 1;
  }
  return true;
}

int32_t Kfsmd_Registry::command(const Kfsmd_Caller& who, const kfsm_command& c, kfsm_result_outputs* out) {
  switch (c.cmd) {
    case KFSM_CMD_MKVIEW: return mkview(who, c);
    case KFSM_CMD_RMTAG: return rmtag(who, c);
    case KFSM_CMD_MOUNT: return mount(who, c);
    case KFSM_CMD_UMOUNT: return umount(who, c);
    case KFSM_CMD_INVAL: return inval(who, c);
    case KFSM_CMD_XSTAT: return xstat(who, c, out);
    case KFSM_CMD_ROOT: out->text = m_opt.root; return m_opt.root.size() >= kfsm_output_capacity(c) ? TBS_ST_TOO_LONG : 0;
    case KFSM_CMD_SUFFIX: out->text.clear(); return 0;
    default: return TBS_ST_BAD_ARG;
  }
}

int32_t Kfsmd_Registry::mkview(const Kfsmd_Caller& who, const kfsm_command& c) {
  kfsm_mkview_args a;
  if (!kfsm_parse_mkview(c, &a) || !valid_view_tag(a.tag) || (c.flags & ~uint32_t(KFSM_FLAG_CASE_SENSITIVE)) ||
      (a.flags & 1) || tbs_uuid_is_null(a.uuid))
    return TBS_ST_BAD_ARG;
  std::lock_guard<std::mutex> g(m_mutex);
  auto it = m_views.find(a.tag);
  if (it != m_views.end()) {
    Entry& e = it->second;
    if (!may_drive(who, *e.view)) return TBS_ST_NO_PERMISSION;
    if (e.view->uuid() != a.uuid) return TBS_ST_EXISTS;
    // The agent of this view started again: keep its mounts, forget what the kernel was told.
    e.view->set_location(a.spath_u, a.host);
    post(e, KFSM_INVAL_VIEW, TBS_UUID_NULL, TBS_OID_NULL, "");
    return 0;
  }
  if (m_views.size() >= m_opt.max_views) return TBS_ST_NO_ROOM;
  size_t mine = 0;
  for (auto& v : m_views) mine += v.second.view->uid() == who.uid;
  if (mine >= m_opt.max_views_per_user) return TBS_ST_NO_ROOM;
  if (!make_dir(view_dir(a.tag))) return TBS_ST_FAILURE;
  Entry e;
  e.view = std::make_shared<Kfsmd_View>(a.tag, a.uuid, a.spath_u, a.host, who.uid, who.gid, m_opt);
  m_views.emplace(a.tag, std::move(e));
  return 0;
}

void Kfsmd_Registry::end_view(Entry& e) {
  e.view->channel().end();
  for (auto& s : e.silos) {
    std::unique_ptr<Kfsmd_Mount> m = s.second->take_mount();
    if (m) m->unmount(true);  // then deleted: a session still serving the detached mount ends by itself
    remove_dirs(s.second->info().mount_point, view_dir(e.view->tag()));
  }
  e.silos.clear();
  rmdir(view_dir(e.view->tag()).c_str());
}

int32_t Kfsmd_Registry::rmtag(const Kfsmd_Caller& who, const kfsm_command& c) {
  std::string tag;
  if (!kfsm_parse_rmtag(c, &tag)) return TBS_ST_BAD_ARG;
  std::lock_guard<std::mutex> g(m_mutex);
  auto it = m_views.find(tag);
  if (it == m_views.end()) return TBS_ST_NOT_FOUND;
  if (!may_drive(who, *it->second.view)) return TBS_ST_NO_PERMISSION;
  end_view(it->second);
  m_views.erase(it);
  return 0;
}

int32_t Kfsmd_Registry::mount(const Kfsmd_Caller& who, const kfsm_command& c) {
  kfsm_mount_args a;
  if (!kfsm_parse_mount(c, &a) || a.version != KFSM_MOUNT_VERSION || a.size != KFSM_MOUNT_IMAGE ||
      !valid_silo_tag(a.mount_point))
    return TBS_ST_BAD_ARG;
  std::lock_guard<std::mutex> g(m_mutex);
  auto it = m_views.find(c.pn.text);
  if (it == m_views.end()) return TBS_ST_NOT_FOUND;
  Entry& e = it->second;
  if (!may_drive(who, *e.view)) return TBS_ST_NO_PERMISSION;
  for (auto& s : e.silos) {
    if (s.first == a.mount_point || s.second->info().replica == a.replica) return TBS_ST_EXISTS;
    if (nests(s.first, a.mount_point)) return TBS_ST_BAD_ARG;
  }
  if (e.silos.size() >= m_opt.max_mounts_per_view) return TBS_ST_NO_ROOM;
  const std::string base = view_dir(e.view->tag());
  std::string mp = base;
  size_t pos = 1;
  while (pos <= a.mount_point.size()) {
    size_t end = a.mount_point.find('/', pos);
    if (end == std::string::npos) end = a.mount_point.size();
    mp += "/" + a.mount_point.substr(pos, end - pos);
    if (!make_dir(mp)) {
      remove_dirs(mp, base);
      return TBS_ST_FAILURE;
    }
    pos = end + 1;
  }
  Kfsmd_Silo_Info info;
  info.tag = a.mount_point;
  info.mount_point = mp;
  info.host = a.host;
  info.storage = a.storage;
  info.family = a.family;
  info.replica = a.replica;
  auto silo = std::make_shared<Kfsmd_Silo>(e.view, info);
  std::unique_ptr<Kfsmd_Mount> m;
  int err = m_mounter ? m_mounter->mount(silo, &m) : ENODEV;
  if (err != 0) {
    remove_dirs(mp, base);
    return TBS_ST_FAILURE;
  }
  silo->set_mount(std::move(m));
  e.silos.emplace(a.mount_point, silo);
  return 0;
}

int32_t Kfsmd_Registry::umount(const Kfsmd_Caller& who, const kfsm_command& c) {
  kfsm_umount_args a;
  if (!kfsm_parse_umount(c, &a)) return TBS_ST_BAD_ARG;
  std::lock_guard<std::mutex> g(m_mutex);
  auto it = m_views.find(c.pn.text);
  if (it == m_views.end()) return TBS_ST_NOT_FOUND;
  Entry& e = it->second;
  if (!may_drive(who, *e.view)) return TBS_ST_NO_PERMISSION;
  auto s = e.silos.begin();
  for (; s != e.silos.end(); ++s)
    if (s->second->info().replica == a.replica) break;
  if (s == e.silos.end() || (!a.mount_point.empty() && a.mount_point != s->first)) return TBS_ST_BAD_ARG;
  if (Kfsmd_Mount* m = s->second->mount()) {
    int err = m->unmount(false);
    if (err == EBUSY) return TBS_ST_BUSY;
    if (err != 0) return TBS_ST_FAILURE;
  }
  std::unique_ptr<Kfsmd_Mount> gone = s->second->take_mount();
  remove_dirs(s->second->info().mount_point, view_dir(e.view->tag()));
  e.silos.erase(s);
  return 0;
}

void Kfsmd_Registry::post(Entry& e, uint32_t kind, const tbs_uuid_s& silo, const tbs_oid_s& oid,
                          const std::string& name) {
  e.view->bump_epoch();
  for (auto& s : e.silos) {
    if (!tbs_uuid_is_null(silo) && s.second->info().replica != silo) continue;
    std::vector<Kfsmd_Action> actions;
    s.second->plan(kind, oid, name, &actions);
    if (!actions.empty() && s.second->mount()) s.second->mount()->notify(std::move(actions));
  }
}

int32_t Kfsmd_Registry::inval(const Kfsmd_Caller& who, const kfsm_command& c) {
  kfsm_inval_args a;
  if (!kfsm_parse_inval(c, &a)) return TBS_ST_BAD_ARG;
  std::string path = c.pn.text;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  const std::string prefix = m_opt.root == "/" ? "/" : m_opt.root + "/";
  if (path.compare(0, prefix.size(), prefix) != 0) return TBS_ST_NO_VIEW;
  std::lock_guard<std::mutex> g(m_mutex);
  auto it = m_views.find(path.substr(prefix.size()));
  if (it == m_views.end()) return TBS_ST_NO_VIEW;
  if (!may_drive(who, *it->second.view)) return TBS_ST_NO_PERMISSION;
  if (a.version != KFSM_INVAL_VERSION) return TBS_ST_BAD_ARG;
  switch (a.kind) {
    case KFSM_INVAL_NAME:
      if (a.name.empty() || a.name.size() > VIEW_NAME_MAX) return TBS_ST_BAD_ARG;
      break;
    case KFSM_INVAL_OBJ: case KFSM_INVAL_VIEW: case KFSM_INVAL_OBJ_TREE: case KFSM_INVAL_OBJ_MOVE: case KFSM_INVAL_OBJ_ATTR:
      break;
    default:
      return TBS_ST_BAD_ARG;
  }
  post(it->second, a.kind, a.kind == KFSM_INVAL_VIEW ? TBS_UUID_NULL : a.silo, a.obj, a.name);
  return 0;
}

int32_t Kfsmd_Registry::xstat(const Kfsmd_Caller& who, const kfsm_command& c, kfsm_result_outputs* out) {
  const std::string& path = c.pn.text;
  const std::string prefix = m_opt.root == "/" ? "/" : m_opt.root + "/";
  if (path.compare(0, prefix.size(), prefix) != 0) return TBS_ST_BAD_ARG;
  std::string rest = path.substr(prefix.size());
  size_t slash = rest.find('/');
  std::string tag = rest.substr(0, slash);
  std::string in_view = slash == std::string::npos ? "" : rest.substr(slash);
  std::shared_ptr<Kfsmd_Silo> silo;
  std::shared_ptr<Kfsmd_View> view;
  {
    std::lock_guard<std::mutex> g(m_mutex);
    auto it = m_views.find(tag);
    if (it == m_views.end()) return TBS_ST_BAD_ARG;
    if (!may_drive(who, *it->second.view)) return TBS_ST_NO_PERMISSION;
    view = it->second.view;
    size_t best = 0;
    for (auto& s : it->second.silos) {
      const std::string& t = s.first;
      if (in_view.compare(0, t.size(), t) == 0 && (in_view.size() == t.size() || in_view[t.size()] == '/') &&
          t.size() > best) {
        best = t.size();
        silo = s.second;
      }
    }
    if (!silo) return TBS_ST_NO_SUCH_NAME;
    in_view = in_view.substr(best);
  }
  view_vstat_t vs;
  view_fhandle_t fh;
  int32_t st = silo->resolve(in_view, !(c.flags & KFSM_FLAG_NOFOLLOW), &vs, &fh);
  if (st != 0) return st;
  out->has_vstat = true;
  out->vstat = vs;
  out->oid = vs.obj_oid;
  out->uuid = fh.silo;
  out->flag = 0;
  out->uuid2 = view->uuid();
  return 0;
}

int32_t Kfsmd_Registry::bind_lpc(const Kfsmd_Caller& who, const std::string& tag, std::shared_ptr<Kfsmd_View>* view) {
  std::lock_guard<std::mutex> g(m_mutex);
  auto it = m_views.find(tag);
  if (it == m_views.end()) return TBS_ST_VIEW_GONE;
  if (!may_drive(who, *it->second.view)) return TBS_ST_NO_PERMISSION;
  *view = it->second.view;
  return 0;
}

void Kfsmd_Registry::shutdown() {
  std::lock_guard<std::mutex> g(m_mutex);
  for (auto& v : m_views) end_view(v.second);
  m_views.clear();
}

std::vector<std::string> Kfsmd_Registry::view_tags() {
  std::lock_guard<std::mutex> g(m_mutex);
  std::vector<std::string> tags;
  for (auto& v : m_views) tags.push_back(v.first);
  return tags;
}

std::shared_ptr<Kfsmd_View> Kfsmd_Registry::find_view(const std::string& tag) {
  std::lock_guard<std::mutex> g(m_mutex);
  auto it = m_views.find(tag);
  return it == m_views.end() ? nullptr : it->second.view;
}

std::shared_ptr<Kfsmd_Silo> Kfsmd_Registry::find_silo(const std::string& view_tag, const std::string& silo_tag) {
  std::lock_guard<std::mutex> g(m_mutex);
  auto it = m_views.find(view_tag);
  if (it == m_views.end()) return nullptr;
  auto s = it->second.silos.find(silo_tag);
  return s == it->second.silos.end() ? nullptr : s->second;
}
