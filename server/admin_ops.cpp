#include "server/admin_ops.h"

#include <functional>

#include "proto/reply_writer.h"
#include "proto/wan_names.h"
#include "server/importer.h"
#include "server/rules.h"
#include "server/view_namespace.h"
#include "server/wan_server.h"

namespace tavrel_server {

using tavrel_wan::ReplyItems;
using tavrel_wan::ReplyWriter;

namespace {

constexpr uint64_t kMaxFile = 512ull << 20;
constexpr const char* kBadLinkTarget = "a symbolic link target must be 1 to 1023 bytes without NUL";

std::string result(const ReplyItems& items, const std::string& text = std::string()) {
  ReplyWriter w;
  w.begin();
  w.part("Result", items, "");
  if (!text.empty()) w.part("Text", text);
  w.status(0);
  w.end();
  return w.take();
}

ViewRow head_view() {
  ViewRow v;
  v.elem_rules = DEFAULT_ELEM_RULES;
  return v;
}

void split_parent(const std::string& path, std::string* parent, std::string* leaf) {
  std::string tag;
  std::vector<std::string> names;
  if (!split_tag_path(path, &tag, &names)) fail(TBS_ST_BAD_ARG, "malformed path \"" + path + "\"");
  if (names.empty()) fail(TBS_ST_BAD_ARG, "the SILO root " + path + " cannot be changed this way");
  *leaf = names.back();
  *parent = path.substr(0, path.size() - leaf->size() - 1);
}

Node dir_node(ViewNamespace& ns, const std::string& path) {
  Node n = ns.resolve(path);
  if (n.is_link || n.elem.kind != KIND_DIR) fail(TBS_ST_BAD_ARG, path + " is not a directory");
  return n;
}

// A new ordinary version of directory `dir` on the branch of its selected version: its entries as
// they are, changed by `change`.
Version new_dir_version(Repo& r, const Node& dir, const std::function<void(int64_t)>& change) {
  Version v = r.new_version(dir.elem, r.branch_by_id(dir.ver.branch), 0, 0, dir.ver.mode, now_timeval());
  r.copy_entries(dir.ver.id, v.id);
  change(v.id);
  return v;
}

// Makes the parent directories of `path` that are missing (head selection).
Node ensure_dir(Repo& r, const std::string& path, bool parents) {
  ViewNamespace ns(r, head_view());
  try {
    return dir_node(ns, path);
  } catch (const ServerError& e) {
    if (e.code() != TBS_ST_NOT_FOUND || !parents) throw;
  }
  std::string parent, leaf;
  split_parent(path, &parent, &leaf);
  Node p = ensure_dir(r, parent, true);
  timeval now = now_timeval();
  Element e = r.new_element(p.silo.id, KIND_DIR, 0755, now);
  r.new_version(e, *r.branch_by_name(e.id, "main"), 0, 0, 0755, now);
  new_dir_version(r, p, [&](int64_t v) { r.add_entry(v, Entry{leaf, e.id, 0}); });
  return dir_node(ns, path);
}

uint32_t mode_arg(const Args& a, uint32_t dflt) { return uint32_t(a.number("Mode", dflt, 0, 07777)); }

const std::string& need_data(const std::string* data, std::string& empty) {
  if (!data) return empty;
  if (data->size() > kMaxFile) fail(TBS_ST_TOO_LONG, "file data over the size limit");
  return *data;
}

// ---- global changes ----

std::string elem_make(WanServer& srv, const Args& a, const std::string* data, int kind) {
  std::string path = a.text("Path"), parent, leaf;
  split_parent(path, &parent, &leaf);
  std::string empty;
  const std::string& bytes = need_data(data, empty);
  std::string target = kind == KIND_DIR || kind == KIND_FILE ? std::string() : a.text("Target");
  if (kind == 0 && !valid_link_target(target)) fail(TBS_ST_BAD_ARG, kBadLinkTarget);
  return srv.store().write([&](Repo& r) {
    Node p = ensure_dir(r, parent, a.flag("Parents"));
    // With Replace, the new object takes the name of whatever held it, in one directory version.
    bool replace = a.flag("Replace");
    if (!replace && r.entry(p.ver.id, leaf)) fail(TBS_ST_EXISTS, path + " exists");
    timeval now = now_timeval();
    ReplyItems items;
    Entry entry{leaf, 0, 0};
    if (kind == 0) {
      Link l = r.new_link(p.silo.id, target, now);
      entry.link = l.id;
      items.push_back({"LinkOid", tbs_oid_to_str(l.oid)});
    } else {
      uint32_t mode = mode_arg(a, kind == KIND_DIR ? 0755 : 0644);
      Element e = r.new_element(p.silo.id, kind, mode, now);
      int64_t content = kind == KIND_FILE ? r.put_content(bytes) : 0;
      Version v = r.new_version(e, *r.branch_by_name(e.id, "main"), content, kind == KIND_FILE ? bytes.size() : 0,
                                mode, now);
      entry.elem = e.id;
      items.push_back({"ElementOid", tbs_oid_to_str(e.oid)});
      items.push_back({"NewVersionOid", tbs_oid_to_str(v.oid)});
    }
    Version pv = new_dir_version(r, p, [&](int64_t v) {
      if (replace) r.remove_entry(v, leaf);
      r.add_entry(v, entry);
    });
    items.push_back({"ParentVersionOid", tbs_oid_to_str(pv.oid)});
    items.push_back({"ReplicaUuid", tbs_uuid_to_str(p.silo.replica)});
    return result(items);
  });
}

std::string elem_checkin(WanServer& srv, const Args& a, const std::string* data) {
  std::string path = a.text("Path");
  std::string empty;
  const std::string& bytes = need_data(data, empty);
  return srv.store().write([&](Repo& r) {
    ViewNamespace ns(r, head_view());
    Node n = ns.resolve(path);
    if (n.is_link || n.elem.kind != KIND_FILE) fail(TBS_ST_BAD_ARG, path + " is not a file element");
    std::string bname = a.text_or("Branch", "");
    Branch b = bname.empty() ? r.branch_by_id(n.ver.branch) : [&] {
      auto x = r.branch_by_name(n.elem.id, bname);
      if (!x) fail(TBS_ST_NOT_FOUND, "no branch " + bname + " of " + path);
      return *x;
    }();
    Version v = r.new_version(n.elem, b, r.put_content(bytes), bytes.size(), mode_arg(a, n.ver.mode), now_timeval());
    return result({{"NewVersionOid", tbs_oid_to_str(v.oid)}, {"VersionString", v.vstr},
                   {"ElementOid", tbs_oid_to_str(n.elem.oid)}});
  });
}

std::string elem_rmname(WanServer& srv, const Args& a) {
  std::string path = a.text("Path"), parent, leaf;
  split_parent(path, &parent, &leaf);
  return srv.store().write([&](Repo& r) {
    ViewNamespace ns(r, head_view());
    Node p = dir_node(ns, parent);
    if (!r.entry(p.ver.id, leaf)) fail(TBS_ST_NOT_FOUND, path + " not found");
    Version pv = new_dir_version(r, p, [&](int64_t v) { r.remove_entry(v, leaf); });
    return result({{"ParentVersionOid", tbs_oid_to_str(pv.oid)}});
  });
}

void check_move(const std::string& from, const std::string& to) {
  if (to == from || (to.size() > from.size() && to.compare(0, from.size(), from) == 0 && to[from.size()] == '/'))
    fail(TBS_ST_BAD_ARG, "cannot move " + from + " into itself");
}

std::string elem_move(WanServer& srv, const Args& a) {
  std::string from = a.text("From"), to = a.text("To"), fp, fl, tp, tl;
  split_parent(from, &fp, &fl);
  split_parent(to, &tp, &tl);
  check_move(from, to);
  return srv.store().write([&](Repo& r) {
    ViewNamespace ns(r, head_view());
    Node src = dir_node(ns, fp), dst = dir_node(ns, tp);
    if (src.silo.id != dst.silo.id) fail(TBS_ST_BAD_ARG, "cannot move between SILOs");
    auto e = r.entry(src.ver.id, fl);
    if (!e) fail(TBS_ST_NOT_FOUND, from + " not found");
    if (r.entry(dst.ver.id, tl)) fail(TBS_ST_EXISTS, to + " exists");
    Entry moved{tl, e->elem, e->link};
    if (src.elem.id == dst.elem.id) {
      new_dir_version(r, src, [&](int64_t v) {
        r.remove_entry(v, fl);
        r.add_entry(v, moved);
      });
    } else {
      new_dir_version(r, src, [&](int64_t v) { r.remove_entry(v, fl); });
      new_dir_version(r, dst, [&](int64_t v) { r.add_entry(v, moved); });
    }
    return result({});
  });
}

std::string label_apply(WanServer& srv, const Args& a) {
  std::string path = a.text("Path"), label = a.text("Label");
  if (label.empty() || label.find_first_of(" \t\r\n") != std::string::npos) fail(TBS_ST_BAD_ARG, "bad label name");
  std::string vstr = a.text_or("Version", "");
  bool recursive = a.flag("Recursive");
  return srv.store().write([&](Repo& r) {
    ViewNamespace ns(r, head_view());
    Node n = ns.resolve(path);
    if (n.is_link) fail(TBS_ST_BAD_ARG, path + " is a symbolic link");
    uint64_t count = 0;
    std::function<void(const Node&)> walk = [&](const Node& x) {
      if (x.is_link) return;
      r.apply_label(x.elem.id, label, x.ver.id);
      ++count;
      if (!recursive || x.elem.kind != KIND_DIR) return;
      for (const Entry& e : r.entries(x.ver.id)) {
        if (auto c = ns.entry_node(x.silo, x.elem, x.path, e)) walk(*c);
      }
    };
    if (!vstr.empty()) {
      auto v = r.version_by_vstr(n.elem.id, vstr);
      if (!v) fail(TBS_ST_NOT_FOUND, "no version " + vstr + " of " + path);
      n.ver = *v;
    }
    walk(n);
    return result({{"Labelled", std::to_string(count)}});
  });
}

std::string branch_make(WanServer& srv, const Args& a) {
  std::string path = a.text("Path"), name = a.text("Branch");
  if (name.empty() || name.find_first_of("/ \t\r\n@") != std::string::npos) fail(TBS_ST_BAD_ARG, "bad branch name");
  std::string vstr = a.text_or("Version", "");
  return srv.store().write([&](Repo& r) {
    ViewNamespace ns(r, head_view());
    Node n = ns.resolve(path);
    if (n.is_link) fail(TBS_ST_BAD_ARG, path + " is a symbolic link");
    Version sprout = n.ver;
    if (!vstr.empty()) {
      auto v = r.version_by_vstr(n.elem.id, vstr);
      if (!v) fail(TBS_ST_NOT_FOUND, "no version " + vstr + " of " + path);
      sprout = *v;
    }
    Branch b = r.make_branch(n.elem.id, name, sprout);
    Version v0 = r.new_version(n.elem, b, sprout.content, sprout.size, sprout.mode, now_timeval());
    if (n.elem.kind == KIND_DIR) r.copy_entries(sprout.id, v0.id);
    return result({{"VersionOid", tbs_oid_to_str(v0.oid)}, {"VersionString", v0.vstr}});
  });
}

// ---- view changes ----

struct ViewScope {
  std::shared_ptr<std::shared_mutex> lock;
  std::unique_lock<std::shared_mutex> guard;
};

ViewRow view_row(Repo& r, const tbs_uuid_s& uuid) {
  auto v = r.view_by_uuid(uuid);
  if (v) return *v;
  return r.create_view(uuid, "");
}

// Gives the checked-out directory `dir` of the view a new checkout version changed by `change`.
Version new_co_dir_version(Repo& r, const ViewRow& view, const Node& dir, const std::function<void(int64_t)>& change) {
  if (!dir.checked_out) fail(TBS_ST_BAD_ARG, "directory " + dir.path + " is not checked out in this view");
  Version co = r.new_checkout_version(dir.elem, dir.ver, view.id, now_timeval());
  change(co.id);
  r.set_checkout_version(view.id, dir.elem.id, co.id);
  return co;
}

std::string view_op(WanServer& srv, const std::string& op, const Args& a, const std::string* data) {
  tbs_uuid_s uuid = a.uuid("ViewUuid");
  if (tbs_uuid_is_null(uuid)) fail(TBS_ST_BAD_ARG, "null ViewUuid");
  auto lock = srv.view_lock(uuid);
  std::unique_lock<std::shared_mutex> g(*lock);
  std::string empty;
  return srv.store().write([&](Repo& r) -> std::string {
    ViewRow view = view_row(r, uuid);
    ViewNamespace ns(r, view);
    timeval now = now_timeval();
    if (op == "view.create") {
      std::string type = a.text_or("Type", "");
      r.set_view_type(view.id, type, view.tkm_rules);
      return result({{"ViewUuid", tbs_uuid_to_str(uuid)}});
    }
    if (op == "view.set_rules") {
      std::string elem, tkm, load, err;
      std::vector<ElementRule> parsed;
      for (const auto& x : a.all("ElemRule")) elem += trim(x) + "\n";
      for (const auto& x : a.all("TkmRule")) tkm += trim(x) + "\n";
      if (!parse_element_rules(elem, &parsed, &err) || !parse_element_rules(tkm, &parsed, &err))
        fail(TBS_ST_BAD_ARG, err);
      for (const auto& x : a.all("LoadRule")) {
        std::string p;
        if (!parse_load_rule(x, &p, &err)) fail(TBS_ST_BAD_ARG, err);
        load += "load " + p + "\n";
      }
      r.set_view_rules(view.id, elem, load);
      r.set_view_type(view.id, view.type, tkm);
      return result({{"CurrentOperationGN", std::to_string(r.bump_gn(view.id))}});
    }
    if (op == "view.dump") {
      std::string t = "type " + view.type + "\ngn " + std::to_string(view.gn_counter) + "\ncommitted_gn " +
                      std::to_string(view.committed_gn) + "\n[elem_rules]\n" + view.elem_rules + "[tkm_rules]\n" +
                      view.tkm_rules + "[load_rules]\n" + view.load_rules + "[checkouts]\n";
      for (const auto& c : r.checkouts(view.id)) {
        t += tbs_oid_to_str(r.element_by_id(c.elem).oid) + " " + tbs_oid_to_str(r.version_by_id(c.co_version).oid) +
             " base " + r.version_by_id(c.base_version).vstr + "\n";
      }
      t += "[served]\n";
      for (const auto& s : r.served(view.id))
        t += s.path + " " + s.vstr + (s.checked_out ? " co" : "") + " " + tbs_oid_to_str(s.ver_oid) + "\n";
      return result({}, t);
    }
    if (op == "view.checkout") {
      std::string path = a.text("Path");
      Node n = ns.resolve(path);
      if (n.is_link) fail(TBS_ST_BAD_ARG, path + " is a symbolic link");
      if (n.checked_out) fail(TBS_ST_EXISTS, path + " is already checked out in this view");
      Version co = r.new_checkout_version(n.elem, n.ver, view.id, now);
      r.add_checkout(Checkout{view.id, n.elem.id, co.id, n.ver.id});
      return result({{"CoVersionOid", tbs_oid_to_str(co.oid)}, {"ElementOid", tbs_oid_to_str(n.elem.oid)},
                     {"ReplicaUuid", tbs_uuid_to_str(n.silo.replica)}, {"BaseVersion", n.ver.vstr}});
    }
    if (op == "view.checkin" || op == "view.uncheckout") {
      std::string path = a.text("Path");
      Node n = ns.resolve(path);
      if (n.is_link || !n.checked_out) fail(TBS_ST_BAD_ARG, path + " is not checked out in this view");
      auto co = r.checkout_of(view.id, n.elem.id);
      Version base = r.version_by_id(co->base_version);
      ReplyItems items;
      if (op == "view.checkin") {
        Branch b = r.branch_by_id(base.branch);
        Version nv;
        if (n.elem.kind == KIND_FILE) {
          int64_t content = data ? r.put_content(need_data(data, empty)) : n.ver.content;
          uint64_t size = data ? data->size() : n.ver.size;
          nv = r.new_version(n.elem, b, content, size, mode_arg(a, n.ver.mode), now);
        } else {
          nv = r.new_version(n.elem, b, 0, 0, n.ver.mode, now);
          r.copy_entries(n.ver.id, nv.id);
        }
        r.remove_checkout(view.id, n.elem.id);
        Node after = ViewNamespace(r, view).resolve(path);
        bool selected = !after.is_link && after.ver.id == nv.id;
        items = {{"NewVersionOid", tbs_oid_to_str(nv.oid)}, {"VersionString", nv.vstr},
                 {"Selected", selected ? "1" : "0"}, {"ReplicaUuid", tbs_uuid_to_str(n.silo.replica)}};
      } else {
        r.remove_checkout(view.id, n.elem.id);
        std::string now_selected;
        try {
          Node after = ViewNamespace(r, view).resolve(path);
          if (!after.is_link) now_selected = tbs_oid_to_str(after.ver.oid);
        } catch (const ServerError&) {
        }
        items = {{"VersionOid", now_selected}};
      }
      return result(items);
    }
    if (op == "view.mkelem") {
      std::string path = a.text("Path"), parent, leaf;
      split_parent(path, &parent, &leaf);
      std::string kind = a.text_or("Kind", "file");
      Node p = dir_node(ns, parent);
      if (r.entry(p.ver.id, leaf)) fail(TBS_ST_EXISTS, path + " exists");
      ReplyItems items{{"ReplicaUuid", tbs_uuid_to_str(p.silo.replica)}};
      Entry entry{leaf, 0, 0};
      if (kind == "link") {
        std::string target = a.text("Target");
        if (!valid_link_target(target)) fail(TBS_ST_BAD_ARG, kBadLinkTarget);
        Link l = r.new_link(p.silo.id, target, now);
        entry.link = l.id;
        items.push_back({"ElementOid", tbs_oid_to_str(l.oid)});
        items.push_back({"NewVersionOid", tbs_oid_to_str(l.oid)});
      } else if (kind == "file" || kind == "dir") {
        bool dir = kind == "dir";
        uint32_t mode = mode_arg(a, dir ? 0755 : 0644);
        Element e = r.new_element(p.silo.id, dir ? KIND_DIR : KIND_FILE, mode, now);
        const std::string& bytes = need_data(data, empty);
        Version v = r.new_version(e, *r.branch_by_name(e.id, "main"), dir ? 0 : r.put_content(bytes),
                                  dir ? 0 : bytes.size(), mode, now);
        entry.elem = e.id;
        items.push_back({"ElementOid", tbs_oid_to_str(e.oid)});
        items.push_back({"NewVersionOid", tbs_oid_to_str(v.oid)});
        if (a.flag("Checkout")) {
          Version co = r.new_checkout_version(e, v, view.id, now);
          r.add_checkout(Checkout{view.id, e.id, co.id, v.id});
          items.push_back({"CoVersionOid", tbs_oid_to_str(co.oid)});
        }
      } else {
        fail(TBS_ST_BAD_ARG, "Kind must be file, dir or link");
      }
      Version pco = new_co_dir_version(r, view, p, [&](int64_t v) { r.add_entry(v, entry); });
      items.push_back({"ParentVersionOid", tbs_oid_to_str(pco.oid)});
      return result(items);
    }
    if (op == "view.rmname") {
      std::string path = a.text("Path"), parent, leaf;
      split_parent(path, &parent, &leaf);
      Node p = dir_node(ns, parent);
      if (!r.entry(p.ver.id, leaf)) fail(TBS_ST_NOT_FOUND, path + " not found");
      Version pco = new_co_dir_version(r, view, p, [&](int64_t v) { r.remove_entry(v, leaf); });
      return result({{"ParentVersionOid", tbs_oid_to_str(pco.oid)}});
    }
    if (op == "view.move") {
      std::string from = a.text("From"), to = a.text("To"), fp, fl, tp, tl;
      split_parent(from, &fp, &fl);
      split_parent(to, &tp, &tl);
      check_move(from, to);
      Node src = dir_node(ns, fp), dst = dir_node(ns, tp);
      if (src.silo.id != dst.silo.id) fail(TBS_ST_BAD_ARG, "cannot move between SILOs");
      auto e = r.entry(src.ver.id, fl);
      if (!e) fail(TBS_ST_NOT_FOUND, from + " not found");
      if (r.entry(dst.ver.id, tl)) fail(TBS_ST_EXISTS, to + " exists");
      Entry moved{tl, e->elem, e->link};
      if (src.elem.id == dst.elem.id) {
        new_co_dir_version(r, view, src, [&](int64_t v) {
          r.remove_entry(v, fl);
          r.add_entry(v, moved);
        });
      } else {
        if (!dst.checked_out) fail(TBS_ST_BAD_ARG, "directory " + tp + " is not checked out in this view");
        new_co_dir_version(r, view, src, [&](int64_t v) { r.remove_entry(v, fl); });
        new_co_dir_version(r, view, dst, [&](int64_t v) { r.add_entry(v, moved); });
      }
      return result({});
    }
    fail(TBS_ST_BAD_ARG, "unknown operation \"" + op + "\"");
  });
}

std::string silo_list(WanServer& srv) {
  std::string t;
  for (const Silo& s : srv.store().read([](Repo& r) { return r.silos(); }))
    t += s.tag + " " + tbs_uuid_to_str(s.replica) + " " + tbs_uuid_to_str(s.family) + "\n";
  return result({}, t);
}

}  // namespace

std::string run_admin_op(WanServer& srv, const std::string& op, const Args& a, const std::string* data, bool admin) {
  bool client_op = op.rfind("view.", 0) == 0 && op != "view.create" && op != "view.set_rules";
  if (op == "silo.list") return silo_list(srv);
  if (client_op) return view_op(srv, op, a, data);
  if (!admin) fail(TBS_ST_BAD_ARG, "operation \"" + op + "\" needs the admin token");
  if (op == "view.create" || op == "view.set_rules") return view_op(srv, op, a, data);
  if (op == "silo.create") {
    std::string tag = a.text("Tag");
    if (!valid_silo_tag(tag)) fail(TBS_ST_BAD_ARG, "bad SILO tag \"" + tag + "\"");
    std::string storage = a.text_or("Storage", srv.store().path() + "#" + tag);
    if (storage.empty() || storage.find('=') != std::string::npos || storage.size() > 1000 ||
        !ReplyWriter::valid_item("SiloStorage", storage))
      fail(TBS_ST_BAD_ARG, "bad storage text (1 to 1000 bytes, no \"=\", CR, LF, NUL or 0xFF)");
    Silo s = srv.store().write(
        [&](Repo& r) { return r.create_silo(tag, a.flag("Public"), a.flag("Project"), storage, now_timeval()); });
    return result({{"SiloReplicaUuid", tbs_uuid_to_str(s.replica)}, {"SiloFamilyUuid", tbs_uuid_to_str(s.family)}});
  }
  if (op == "silo.import") {
    ImportOptions opt;
    opt.is_public = a.flag("Public");
    opt.is_project = a.flag("Project");
    ImportStats st = import_tree(srv.store(), a.text("Tag"), a.text("Source"), opt);
    std::string skipped;
    for (const auto& s : st.skipped) skipped += s + "\n";
    return result({{"SiloReplicaUuid", tbs_uuid_to_str(st.silo.replica)},
                   {"Files", std::to_string(st.files)},
                   {"Dirs", std::to_string(st.dirs)},
                   {"Links", std::to_string(st.links)},
                   {"Skipped", std::to_string(st.skipped.size())}},
                  skipped);
  }
  if (op == "elem.mkfile") return elem_make(srv, a, data, KIND_FILE);
  if (op == "elem.mkdir") return elem_make(srv, a, data, KIND_DIR);
  if (op == "elem.mklink") return elem_make(srv, a, data, 0);
  if (op == "elem.checkin") return elem_checkin(srv, a, data);
  if (op == "elem.rmname") return elem_rmname(srv, a);
  if (op == "elem.move") return elem_move(srv, a);
  if (op == "label.apply") return label_apply(srv, a);
  if (op == "branch.make") return branch_make(srv, a);
  if (op == "sessions.expire") {
    srv.sessions().expire_all();
    return result({});
  }
  if (op == "fault.set") {
    Fault f;
    f.kind = a.text("Kind");
    if (!FaultInjector::valid_kind(f.kind)) fail(TBS_ST_BAD_ARG, "unknown fault kind \"" + f.kind + "\"");
    f.value = a.number("Value", 0, 0, 1 << 30);
    f.match = a.text_or("Match", "");
    f.count = int(a.number("Count", 1, 0, 1000000));
    srv.faults().arm(f);
    return result({});
  }
  if (op == "fault.clear") {
    srv.faults().clear();
    return result({});
  }
  if (op == "fault.list") {
    std::string t;
    for (const auto& f : srv.faults().armed())
      t += f.kind + " " + std::to_string(f.value) + " " + (f.match.empty() ? "*" : f.match) + " " +
           std::to_string(f.count) + "\n";
    return result({}, t);
  }
  if (op == "log.get") {
    std::string t;
    for (const auto& e : srv.log().since(uint64_t(a.number("Since", 0, 0, INT64_MAX)))) t += e.line() + "\n";
    return result({}, t);
  }
  if (op == "log.clear") {
    srv.log().clear();
    return result({});
  }
  fail(TBS_ST_BAD_ARG, "unknown operation \"" + op + "\"");
}

}  // namespace tavrel_server
