#include "server/view_namespace.h"

#include <cstring>
#include <unordered_map>

#include "proto/wan_names.h"

namespace tavrel_server {

namespace {
constexpr int kMaxDepth = 512;

void fill_times(tbs_fstat_db_t* f, timeval t) { f->atime = f->mtime = f->ctime = f->fourth_time = t; }
}  // namespace

ViewNamespace::ViewNamespace(Repo& repo, const ViewRow& view) : repo_(repo), view_(view) {
  std::string err;
  const std::string& text = (view.type == "tkm" && !view.tkm_rules.empty()) ? view.tkm_rules : view.elem_rules;
  if (!parse_element_rules(text, &rules_, &err)) rules_.clear();
  load_paths_ = load_rule_paths(view.load_rules);
}

std::optional<Version> ViewNamespace::select(const Element& e, const std::string& path, bool* checked_out) {
  *checked_out = false;
  if (view_.id != 0) {
    if (auto co = repo_.checkout_of(view_.id, e.id)) {
      *checked_out = true;
      return repo_.version_by_id(co->co_version);
    }
  }
  for (const ElementRule& r : rules_) {
    if (!r.matches(path)) continue;
    std::optional<Version> v;
    switch (r.selector) {
      case ElementRule::NONE:
        return std::nullopt;
      case ElementRule::LATEST:
        v = repo_.latest(e.id, "main");
        break;
      case ElementRule::LATEST_BRANCH:
        v = repo_.latest(e.id, r.arg);
        break;
      case ElementRule::LABEL:
        v = repo_.version_by_label(e.id, r.arg);
        break;
      case ElementRule::VERSION:
        v = repo_.version_by_vstr(e.id, r.arg);
        break;
    }
    if (v) return v;
  }
  return std::nullopt;
}

Node ViewNamespace::root(const Silo& silo) {
  Node n;
  n.silo = silo;
  n.path = silo.tag;
  n.elem = repo_.element_by_id(silo.root_elem);
  auto v = select(n.elem, n.path, &n.checked_out);
  if (!v) fail(TBS_ST_NO_SUCH_NAME, "no version of the root of " + silo.tag + " is selected by the view's rules");
  n.ver = *v;
  return n;
}

std::optional<Node> ViewNamespace::entry_node(const Silo& silo, const Element& dir_elem, const std::string& dir_path,
                                              const Entry& e) {
  Node n;
  n.silo = silo;
  n.path = dir_path + "/" + e.name;
  n.parent_elem_oid = dir_elem.oid;
  if (e.link) {
    n.is_link = true;
    n.link = repo_.link_by_id(e.link);
    return n;
  }
  n.elem = repo_.element_by_id(e.elem);
  auto v = select(n.elem, n.path, &n.checked_out);
  if (!v) return std::nullopt;
  n.ver = *v;
  return n;
}

Node ViewNamespace::child(const Silo& silo, const Version& dir, const Element& dir_elem, const std::string& dir_path,
                          const std::string& name) {
  if (!valid_entry_name(name)) fail(TBS_ST_BAD_ARG, "bad name \"" + name + "\"");
  auto e = repo_.entry(dir.id, name);
  if (!e) fail(TBS_ST_NOT_FOUND, "Name \"" + name + "\" not found in " + dir_path);
  auto n = entry_node(silo, dir_elem, dir_path, *e);
  if (!n) fail(TBS_ST_NO_SUCH_NAME, "no version of " + dir_path + "/" + name + " is selected by the view's rules");
  return *n;
}

Node ViewNamespace::resolve(const std::string& path) {
  std::string tag;
  std::vector<std::string> names;
  if (!split_tag_path(path, &tag, &names)) fail(TBS_ST_BAD_ARG, "malformed path \"" + path + "\"");
  auto silo = repo_.silo_by_tag(tag);
  if (!silo) fail(TBS_ST_NOT_FOUND, "no SILO " + tag);
  Node n = root(*silo);
  for (const std::string& name : names) {
    if (n.is_link || n.elem.kind != KIND_DIR) fail(TBS_ST_NOT_FOUND, n.path + " is not a directory");
    n = child(*silo, n.ver, n.elem, n.path, name);
  }
  return n;
}

std::optional<std::string> ViewNamespace::path_of_elem(const Silo& silo, int64_t elem, int depth) {
  auto it = elem_paths_.find(elem);
  if (it != elem_paths_.end()) return it->second;
  auto p = path_of_elem_uncached(silo, elem, depth);
  if (depth <= kMaxDepth) elem_paths_[elem] = p;
  return p;
}

std::optional<std::string> ViewNamespace::path_of_elem_uncached(const Silo& silo, int64_t elem, int depth) {
  if (elem == silo.root_elem) return silo.tag;
  if (depth > kMaxDepth) return std::nullopt;
  for (const auto& [dirver, name] : repo_.parents_of_element(elem)) {
    Version p = repo_.version_by_id(dirver);
    if (p.co_view != 0 && p.co_view != view_.id) continue;
    Element pe = repo_.element_by_id(p.elem);
    if (pe.silo != silo.id) continue;
    auto pp = path_of_elem(silo, pe.id, depth + 1);
    if (!pp) continue;
    bool co = false;
    auto sel = select(pe, *pp, &co);
    if (sel && sel->id == p.id) return *pp + "/" + name;
  }
  return std::nullopt;
}

std::string ViewNamespace::path_of(const Silo& silo, const Version& dir) {
  if (view_.id != 0) {
    if (auto p = repo_.served_path_of_version(view_.id, repo_.element_by_id(dir.elem).oid, dir.oid)) return *p;
  }
  if (auto p = path_of_elem(silo, dir.elem, 0)) return *p;
  fail(TBS_ST_STALE, "directory version " + tbs_oid_to_str(dir.oid) + " is not reachable in this view");
}

Node ViewNamespace::node_for_oid(const Silo& silo, const tbs_oid_s& oid) {
  Node n;
  n.silo = silo;
  if (auto v = repo_.version_by_oid(oid)) {
    n.ver = *v;
    n.elem = repo_.element_by_id(v->elem);
    if (n.elem.silo != silo.id) fail(TBS_ST_NOT_FOUND, "version " + tbs_oid_to_str(oid) + " is not in " + silo.tag);
    n.checked_out = v->co_view != 0 && v->co_view == view_.id;
    if (v->co_view != 0 && v->co_view != view_.id) n.checked_out = false;
    if (view_.id != 0) {
      if (auto p = repo_.served_path_of_version(view_.id, n.elem.oid, oid)) n.path = *p;
    }
    if (n.path.empty()) {
      if (auto p = path_of_elem(silo, n.elem.id, 0)) n.path = *p;
    }
  } else if (auto l = repo_.link_by_oid(oid)) {
    if (l->silo != silo.id) fail(TBS_ST_NOT_FOUND, "link " + tbs_oid_to_str(oid) + " is not in " + silo.tag);
    n.is_link = true;
    n.link = *l;
    for (const auto& [dirver, name] : repo_.parents_of_link(l->id)) {
      Version d = repo_.version_by_id(dirver);
      Element de = repo_.element_by_id(d.elem);
      auto dp = path_of_elem(silo, de.id, 0);
      bool co = false;
      auto sel = dp ? select(de, *dp, &co) : std::nullopt;
      if (sel && sel->id == d.id) {
        n.path = *dp + "/" + name;
        n.parent_elem_oid = de.oid;
        break;
      }
    }
  } else {
    fail(TBS_ST_NOT_FOUND, "no object " + tbs_oid_to_str(oid) + " in " + silo.tag);
  }
  if (!n.path.empty() && !n.is_link && n.elem.id != silo.root_elem) {
    // The parent is the directory element whose selected version names this element at that path.
    size_t slash = n.path.rfind('/');
    try {
      Node parent = resolve(n.path.substr(0, slash));
      if (!parent.is_link) n.parent_elem_oid = parent.elem.oid;
    } catch (const ServerError&) {
    }
  }
  return n;
}

Node ViewNamespace::node_for_element(const Silo& silo, const tbs_oid_s& elem_oid) {
  auto e = repo_.element_by_oid(elem_oid);
  if (!e || e->silo != silo.id) {
    if (auto l = repo_.link_by_oid(elem_oid)) return node_for_oid(silo, l->oid);
    fail(TBS_ST_NOT_FOUND, "no element " + tbs_oid_to_str(elem_oid) + " in " + silo.tag);
  }
  if (e->id == silo.root_elem) return root(silo);
  auto p = path_of_elem(silo, e->id, 0);
  if (p) return resolve(*p);
  Node n;
  n.silo = silo;
  n.elem = *e;
  auto v = select(*e, std::string(), &n.checked_out);
  if (!v) fail(TBS_ST_NO_SUCH_NAME, "no version of element " + tbs_oid_to_str(elem_oid) + " is selected");
  n.ver = *v;
  return n;
}

tavrel_scope ViewNamespace::scope_for(const std::string& path) {
  tavrel_scope s;
  std::memset(&s, 0, sizeof s);
  s.gn = uint32_t(view_.gn_counter);
  for (const std::string& lp : load_paths_) {
    if (path == lp || (path.size() > lp.size() && path.compare(0, lp.size(), lp) == 0 && path[lp.size()] == '/')) {
      s.oid = tavrel_load_scope_oid(lp);
      std::snprintf(s.name, sizeof s.name, "%s", lp.c_str());
      return s;
    }
  }
  s.oid = AUTOMATIC_LOAD_SCOPE_OID;
  std::snprintf(s.name, sizeof s.name, "%s", tavrel_wan::AUTOMATIC_LOAD_SCOPE_NAME);
  return s;
}

tavrel_vstat ViewNamespace::obj_vstat(const Node& n) {
  tavrel_vstat v;
  std::memset(&v, 0, sizeof v);
  tbs_fstat_db_t& f = v.vstat.fstat;
  f.owner = CREDUTL_SID_NOBODY;
  f.group = CREDUTL_SID_NOBODY;
  if (n.is_link) {
    f.type = TBS_FTYPE_LINK;
    f.mode = 0777;
    f.nlink = 1;
    f.size = n.link.target.size();
    fill_times(&f, n.link.created);
    v.vstat.mtype = SILO_MTYPE_SYMLINK;
    v.vstat.elem_oid = v.vstat.obj_oid = n.link.oid;
    v.vstat.event_time = n.link.created;
    std::snprintf(v.path, sizeof v.path, "%s", n.link.target.c_str());
    return v;
  }
  bool dir = n.elem.kind == KIND_DIR;
  f.type = dir ? TBS_FTYPE_DIR : TBS_FTYPE_FILE;
  f.mode = n.ver.mode & 07777;
  f.nlink = dir ? 2 : 1;
  f.size = dir ? 0 : n.ver.size;
  fill_times(&f, n.ver.created);
  v.vstat.mtype = dir ? SILO_MTYPE_DIR_VER : SILO_MTYPE_FILE_VER;
  v.vstat.elem_oid = n.elem.oid;
  v.vstat.obj_oid = n.ver.oid;
  v.vstat.event_time = n.ver.created;
  v.checked_out = n.checked_out ? 1 : 0;
  return v;
}

tavrel_vstat ViewNamespace::elem_vstat(const Node& n) {
  tavrel_vstat v = obj_vstat(n);
  if (n.is_link) return v;
  bool dir = n.elem.kind == KIND_DIR;
  v.vstat.mtype = dir ? SILO_MTYPE_DIR_ELEM : SILO_MTYPE_FILE_ELEM;
  v.vstat.obj_oid = n.elem.oid;
  v.vstat.elem_oid = n.elem.oid;
  v.vstat.event_time = n.elem.created;
  fill_times(&v.vstat.fstat, n.elem.created);
  return v;
}

tavrel_dirent ViewNamespace::dirent(const Node& n, const std::string& name, uint32_t off) {
  tavrel_dirent d;
  std::memset(&d, 0, sizeof d);
  d.namlen = uint32_t(name.size());
  std::snprintf(d.name, sizeof d.name, "%s", name.c_str());
  d.off = off;
  d.state = 0x2000;
  if (n.is_link) {
    d.elem_oid = d.ver_oid = n.link.oid;
    d.elem_type = d.ver_type = SILO_MTYPE_SYMLINK;
  } else {
    bool dir = n.elem.kind == KIND_DIR;
    d.elem_oid = n.elem.oid;
    d.elem_type = dir ? SILO_MTYPE_DIR_ELEM : SILO_MTYPE_FILE_ELEM;
    d.ver_oid = n.ver.oid;
    d.ver_type = dir ? SILO_MTYPE_DIR_VER : SILO_MTYPE_FILE_VER;
    d.checked_out = n.checked_out ? 1 : 0;
  }
  return d;
}

ServedRow ViewNamespace::served_row(const Node& n) {
  ServedRow r;
  r.path = n.path;
  r.silo = n.silo.id;
  r.parent_oid = n.parent_elem_oid;
  if (n.is_link) {
    r.elem_oid = r.ver_oid = n.link.oid;
    r.vstr = "link";
  } else {
    r.elem_oid = n.elem.oid;
    r.ver_oid = n.ver.oid;
    r.vstr = n.ver.vstr;
    r.checked_out = n.checked_out;
  }
  r.scope_oid = scope_for(n.path).oid;
  r.gn = view_.gn_counter;
  return r;
}

}  // namespace tavrel_server
