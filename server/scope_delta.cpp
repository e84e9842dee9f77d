#include "server/scope_delta.h"

#include "proto/wan_names.h"
#include "server/path_order.h"
#include "server/update_parts.h"

namespace tavrel_server {

namespace {

constexpr size_t kPage = 1024;     // committed rows read at a time when unloading a subtree
constexpr size_t kMaxDepth = 512;  // directories deep; deeper means a cycle of directories

bool is_dir(const Node& n) { return !n.is_link && n.elem.kind == KIND_DIR; }

}  // namespace

ScopeDelta::ScopeDelta(Repo& r, ViewNamespace& ns, const Silo& silo, const tbs_oid_s& scope,
                       const std::vector<int64_t>& changed, std::function<void(SnapRow)> out)
    : repo_(r),
      ns_(ns),
      ledger_(r.db()),
      silo_(silo),
      scope_(scope),
      is_auto_(scope == AUTOMATIC_LOAD_SCOPE_OID),
      view_(ns.view().id),
      changed_(changed.begin(), changed.end()),
      out_(std::move(out)) {}

void ScopeDelta::load_rule(const std::string& top) {
  mark_dirty(top);
  std::optional<Node> now;
  try {
    now = ns_.resolve(top);
    if (now->silo.id != silo_.id) now.reset();
  } catch (const ServerError& e) {
    if (!is_absence(e)) throw;
  }
  visit(top, now, ledger_.committed_at(view_, scope_, silo_.id, top), 0);
}

void ScopeDelta::automatic(const std::vector<std::string>& rule_paths) {
  rule_paths_ = rule_paths;
  if (excluded(silo_.tag)) return;  // a load rule holds the whole SILO
  mark_dirty(silo_.tag);
  std::optional<Node> now;
  try {
    now = ns_.root(silo_);
  } catch (const ServerError& e) {
    if (!is_absence(e)) throw;
  }
  visit(silo_.tag, now, ledger_.committed_at(view_, scope_, silo_.id, silo_.tag), 0);
}

bool ScopeDelta::excluded(const std::string& path) const {
  return path_top_of(path, rule_paths_) != nullptr;
}

void ScopeDelta::mark_dirty(const std::string& top) {
  for (int64_t elem : changed_) {
    for (std::string p : ledger_.committed_paths_of(view_, scope_, silo_.id, elem)) {
      if (excluded(p) || !path_below(p, top)) continue;
      while (p != top) {
        size_t slash = p.rfind('/');
        std::string parent = p.substr(0, slash);
        if (!dirty_[parent].insert(p.substr(slash + 1)).second) break;
        p = std::move(parent);
      }
    }
  }
}

void ScopeDelta::visit(const std::string& path, const std::optional<Node>& now, const std::optional<SnapRow>& had,
                       size_t depth) {
  if (depth > kMaxDepth) fail(TBS_ST_LOOP, "directories below " + path + " nest too deep");
  if (!now) {
    if (had) unload_below(path, had);
    return;
  }
  SnapRow row = snap_of(*now);
  if (had) {
    row.prev_vstr = had->vstr;
    if (!same_state(*had, row)) {
      row.action = SNAP_SEND;
      out_(row);
    }
  } else if (!is_auto_) {
    row.action = SNAP_SEND;  // new to the scope
    out_(row);
  }
  bool same_elem = had && had->elem_oid == row.elem_oid;
  if (!is_dir(*now)) {
    if (had && !same_elem) unload_below(path, std::nullopt);  // a directory became a file or a link
    return;
  }
  if (!same_elem || changed_.count(now->elem.id)) {
    if (is_auto_) served_below(*now, depth);
    else merge_entries(*now, depth);
  } else {
    dirty_children(*now, depth);
  }
}

std::optional<SnapRow> ScopeDelta::next_below(const std::string& top, const std::string& key) {
  std::vector<SnapRow> r = ledger_.committed_after(view_, scope_, silo_.id, key, 1);
  if (r.empty() || !path_below(r[0].path, top)) return std::nullopt;
  return std::move(r[0]);
}

// The directory's entries now against the committed rows one level below it, both in path order.
void ScopeDelta::merge_entries(const Node& dir, size_t depth) {
  std::optional<SnapRow> b = next_below(dir.path, dir.path);
  for (const Entry& e : repo_.entries(dir.ver.id)) {
    std::string cpath = dir.path + "/" + e.name;
    while (b && path_order_compare(b->path, cpath) < 0) {
      std::string gone = b->path;
      unload_below(gone, b);
      b = next_below(dir.path, past_subtree(gone));
    }
    std::optional<SnapRow> had;
    if (b && b->path == cpath) {
      had = std::move(b);
      b.reset();
    }
    visit(cpath, ns_.entry_node(dir.silo, dir.elem, dir.path, e), had, depth + 1);
    if (had || (b && path_below(b->path, cpath))) b = next_below(dir.path, past_subtree(cpath));
  }
  while (b) {
    std::string gone = b->path;
    unload_below(gone, b);
    b = next_below(dir.path, past_subtree(gone));
  }
}

// Every name served below the directory, one subtree at a time. A name whose parent was not served
// (the agent reached it another way) is resolved from the root.
void ScopeDelta::served_below(const Node& dir, size_t depth) {
  for (std::optional<SnapRow> r = next_below(dir.path, dir.path); r;) {
    std::string path = r->path;
    if (!excluded(path)) {
      size_t slash = path.rfind('/');
      std::optional<Node> now;
      try {
        now = slash == dir.path.size() ? ns_.child(dir.silo, dir.ver, dir.elem, dir.path, path.substr(slash + 1))
                                       : ns_.resolve(path);
      } catch (const ServerError& e) {
        if (!is_absence(e)) throw;
      }
      visit(path, now, r, depth + 1);
    }
    r = next_below(dir.path, past_subtree(path));
  }
}

// Only the names on the way down to a changed element: the directory's entries are as they were.
void ScopeDelta::dirty_children(const Node& dir, size_t depth) {
  auto it = dirty_.find(dir.path);
  if (it == dirty_.end()) return;
  for (const std::string& leaf : it->second) {
    std::string cpath = dir.path + "/" + leaf;
    std::optional<Node> now;
    try {
      now = ns_.child(dir.silo, dir.ver, dir.elem, dir.path, leaf);
    } catch (const ServerError& e) {
      if (!is_absence(e)) throw;
    }
    visit(cpath, now, ledger_.committed_at(view_, scope_, silo_.id, cpath), depth + 1);
  }
}

void ScopeDelta::unload_below(const std::string& path, const std::optional<SnapRow>& had) {
  auto unload = [&](SnapRow r) {
    r.prev_vstr = r.vstr;
    r.action = SNAP_UNLOAD;
    out_(std::move(r));
  };
  if (had) unload(*had);
  std::string key = path;
  for (bool more = true; more;) {
    std::vector<SnapRow> page = ledger_.committed_after(view_, scope_, silo_.id, key, kPage);
    more = page.size() == kPage;
    for (SnapRow& r : page) {
      if (!path_below(r.path, path)) return;
      key = r.path;
      if (!excluded(r.path)) unload(std::move(r));
    }
  }
}

}  // namespace tavrel_server
