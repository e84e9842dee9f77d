#include "server/agent_rpcs.h"

#include <set>

#include "proto/reply_writer.h"
#include "proto/wan_names.h"
#include "server/path_order.h"
#include "server/rules.h"
#include "server/update_ledger.h"
#include "server/update_parts.h"
#include "server/update_stream.h"
#include "server/view_namespace.h"
#include "server/wan_server.h"

namespace tavrel_server {

using namespace tavrel_wan;

namespace {

// The view's row, creating the view on first use.
ViewRow ensure_view(WanServer& srv, const tbs_uuid_s& uuid) {
  if (tbs_uuid_is_null(uuid)) fail(TBS_ST_BAD_ARG, "null ViewUuid");
  auto v = srv.store().read([&](Repo& r) { return r.view_by_uuid(uuid); });
  if (v) return *v;
  return srv.store().write([&](Repo& r) { return r.view_get_or_create(uuid); });
}

std::string encode_or_fail(const tavrel_vstat& v) {
  std::string out;
  if (tavrel_vstat_encode(&v, &out) != TBS_ST_OK) fail(TBS_ST_INTERNAL, "metadata record does not encode");
  return out;
}

void put_object(ReplyWriter& w, ViewNamespace& ns, const Node& n) {
  tavrel_scope scope = ns.scope_for(n.path.empty() ? n.silo.tag : n.path);
  std::string s;
  if (tavrel_scope_encode(&scope, &s) != TBS_ST_OK) fail(TBS_ST_INTERNAL, "scope record does not encode");
  w.part(PART_OBJ_SCOPE, s);
  w.part(PART_OBJ_METADATA, encode_or_fail(ns.obj_vstat(n)));
  w.part(PART_ELEM_METADATA, encode_or_fail(ns.elem_vstat(n)));
}

void record_served(WanServer& srv, int64_t view, const std::vector<ServedRow>& rows) {
  record_sent(srv.store(), view, rows);
}

Silo silo_of(Repo& r, const Args& a) {
  auto u = a.opt_uuid(ARG_SILO_UUID);
  if (!u) fail(TBS_ST_BAD_ARG, "missing argument SiloUuid");
  auto s = r.silo_by_replica(*u);
  if (!s) fail(TBS_ST_NOT_FOUND, "no SILO with replica " + tbs_uuid_to_str(*u));
  return *s;
}

// ---- Get_SILOInfo ----

std::string get_silo_info(WanServer& srv, const Args& a) {
  std::string tag = a.text(ARG_SILO_TAG);
  auto silo = srv.store().read([&](Repo& r) { return r.silo_by_tag(tag); });
  if (!silo) fail(TBS_ST_NOT_FOUND, "SILO \"" + tag + "\" not found");
  ReplyWriter w;
  w.begin();
  bool ok = w.part(PART_SILO_INFO,
         {{ITEM_SILO_FAMILY_UUID, tbs_uuid_to_str(silo->family)},
          {ITEM_SILO_REPLICA_UUID, tbs_uuid_to_str(silo->replica)},
          {ITEM_SILO_STORAGE, silo->storage},
          {ITEM_IS_PUBLIC, silo->is_public ? "1" : "0"},
          {ITEM_IS_PROJECT, silo->is_project ? "1" : "0"}},
         "");
  if (!ok) fail(TBS_ST_INTERNAL, "SILO " + tag + " has a storage text that cannot be sent");
  w.status(0);
  w.end();
  return w.take();
}

// ---- Get_ConfigSpec ----

std::string get_config_spec(WanServer& srv, const Args& a) {
  tbs_uuid_s uuid = a.uuid(ARG_VIEW_UUID);
  bool freeze = a.flag(ARG_FREEZE_LOAD_SCOPES);
  auto lock = srv.view_lock(uuid);
  std::shared_lock<std::shared_mutex> g(*lock);
  ViewRow v = ensure_view(srv, uuid);
  ReplyWriter w;
  w.begin();
  if (!v.elem_rules.empty()) w.part(PART_CSPEC_ELEMENT_RULES, v.elem_rules);
  if (!v.tkm_rules.empty()) w.part(PART_CSPEC_TKM_ELEMENT_RULES, v.tkm_rules);
  if (!v.load_rules.empty()) w.part(PART_CSPEC_LOAD_RULES, v.load_rules);
  if (freeze && !v.load_rules.empty()) {
    std::string frz;
    size_t pos = 0;
    while (pos < v.load_rules.size()) {
      size_t end = v.load_rules.find('\n', pos);
      if (end == std::string::npos) end = v.load_rules.size();
      std::string path, err;
      if (parse_load_rule(v.load_rules.substr(pos, end - pos), &path, &err))
        frz += tbs_oid_to_str(tavrel_load_scope_oid(path)) + " " + path + "\n";
      pos = end + 1;
    }
    if (!frz.empty()) w.part(PART_CSPEC_FRZ_LOAD_SCOPES, frz);
  }
  w.status(0);
  w.end();
  return w.take();
}

// ---- Set_ConfigSpec ----

std::string set_config_spec(WanServer& srv, const Args& a) {
  tbs_uuid_s uuid = a.uuid(ARG_VIEW_UUID);
  bool force = a.flag(ARG_FORCE_UPDATE);
  std::string elem_text;
  for (const std::string& r : a.all(ARG_ELEM_RULE)) {
    std::string t = r;
    while (!t.empty() && (t.back() == '\n' || t.back() == '\r')) t.pop_back();
    elem_text += t + "\n";
  }
  std::vector<ElementRule> parsed;
  std::string err;
  if (!parse_element_rules(elem_text, &parsed, &err)) fail(TBS_ST_BAD_ARG, err);
  // An element rule text of only comments and blanks is kept as written.
  std::vector<std::string> load_paths;
  for (const std::string& lr : a.all(ARG_LOAD_RULE)) {
    if (trim(lr).empty()) continue;
    std::string path;
    if (!parse_load_rule(lr, &path, &err)) fail(TBS_ST_BAD_ARG, err);
    for (const std::string& other : load_paths) {
      if (path_at_or_below(path, other) || path_at_or_below(other, path))
        fail(TBS_ST_BAD_ARG, "load rules \"" + other + "\" and \"" + path + "\" overlap");
    }
    load_paths.push_back(path);
  }

  auto lock = srv.view_lock(uuid);
  std::unique_lock<std::shared_mutex> g(*lock);
  ensure_view(srv, uuid);
  struct Out {
    std::vector<std::string> tags;
    int64_t gn, committed;
  };
  Out out = srv.store().write([&](Repo& r) {
    ViewRow v = *r.view_by_uuid(uuid);
    ViewRow next = v;
    next.elem_rules = elem_text;
    std::string load_text;
    for (const auto& p : load_paths) load_text += "load " + p + "\n";
    next.load_rules = load_text;
    ViewNamespace ns(r, next);
    Out o;
    for (const std::string& p : load_paths) {
      std::string tag = p.substr(0, p.find('/', 1));
      if (!r.silo_by_tag(tag)) fail(TBS_ST_NOT_FOUND, "load rule \"load " + p + "\": no SILO " + tag);
      if (std::find(o.tags.begin(), o.tags.end(), tag) == o.tags.end()) o.tags.push_back(tag);
      try {
        ns.resolve(p);
      } catch (const ServerError& e) {
        if (e.code() != TBS_ST_NOT_FOUND && e.code() != TBS_ST_NO_SUCH_NAME) throw;
        if (!force)
          fail(TBS_ST_BAD_ARG, "warning: load rule \"load " + p + "\" selects nothing in this view (" + e.what() +
                                   "); set ForceUpdate to proceed");
      }
    }
    r.set_view_rules(v.id, elem_text, load_text);
    o.gn = r.bump_gn(v.id);
    o.committed = v.committed_gn;
    return o;
  });
  ReplyWriter w;
  w.begin();
  for (const auto& t : out.tags) w.part(PART_LOAD_RULE_SILO_TAG, {{ITEM_SILO_TAG, t}}, "");
  w.part(PART_VIEW_INFO,
         {{ITEM_CURRENT_OPERATION_GN, std::to_string(out.gn)}, {ITEM_VIEW_GN, std::to_string(out.committed)}}, "");
  w.status(0);
  w.end();
  return w.take();
}

// ---- Get_Metadata, Lookup, Get_Directory_Contents ----

// The directory a Lookup or listing names: VersionOid, else ElementOid (its selected version), else a
// path argument.
Node directory_node(ViewNamespace& ns, const Args& a, const char* path_arg) {
  auto ver = a.opt_oid(ARG_VERSION_OID);
  auto elem = a.opt_oid(ARG_ELEMENT_OID);
  Node n;
  if (ver || elem) {
    Silo silo = silo_of(ns.repo(), a);
    if (ver) {
      try {
        n = ns.node_for_oid(silo, *ver);
      } catch (const ServerError& e) {
        if (e.code() == TBS_ST_NOT_FOUND) fail(TBS_ST_STALE, "directory version " + tbs_oid_to_str(*ver) + " is unknown");
        throw;
      }
      if (n.is_link || n.elem.kind != KIND_DIR) fail(TBS_ST_BAD_ARG, tbs_oid_to_str(*ver) + " is not a directory version");
      if (n.path.empty()) n.path = ns.path_of(silo, n.ver);  // 1087 when unreachable
    } else {
      n = ns.node_for_element(silo, *elem);
      if (n.is_link || n.elem.kind != KIND_DIR) fail(TBS_ST_BAD_ARG, tbs_oid_to_str(*elem) + " is not a directory");
      if (n.path.empty()) fail(TBS_ST_STALE, "directory element " + tbs_oid_to_str(*elem) + " is not reachable");
    }
    return n;
  }
  std::string path = a.text_or(path_arg, "");
  if (path.empty()) {
    Silo silo = silo_of(ns.repo(), a);
    return ns.root(silo);
  }
  n = ns.resolve(path);
  if (n.is_link || n.elem.kind != KIND_DIR) fail(TBS_ST_BAD_ARG, path + " is not a directory");
  return n;
}

std::string metadata_reply(WanServer& srv, const Args& a, bool lookup) {
  tbs_uuid_s uuid = a.uuid(ARG_VIEW_UUID);
  auto lock = srv.view_lock(uuid);
  std::shared_lock<std::shared_mutex> g(*lock);
  ViewRow view = ensure_view(srv, uuid);
  std::vector<ServedRow> served;
  std::string body = srv.store().read([&](Repo& r) {
    ViewNamespace ns(r, view);
    Node n;
    if (lookup) {
      std::string leaf = a.text(ARG_LEAF_NAME);
      Node dir = directory_node(ns, a, ARG_SILO_PATH_NAME);
      n = ns.child(dir.silo, dir.ver, dir.elem, dir.path, leaf);
    } else {
      auto ver = a.opt_oid(ARG_VERSION_OID);
      auto elem = a.opt_oid(ARG_ELEMENT_OID);
      std::string path = a.text_or(ARG_PATH_NAME, "");
      if (ver) {
        n = ns.node_for_oid(silo_of(r, a), *ver);
      } else if (elem) {
        n = ns.node_for_element(silo_of(r, a), *elem);
      } else if (!path.empty()) {
        n = ns.resolve(path);
        if (auto u = a.opt_uuid(ARG_SILO_UUID); u && n.silo.replica != *u)
          fail(TBS_ST_BAD_ARG, "PathName " + path + " is not in SILO " + tbs_uuid_to_str(*u));
      } else {
        n = ns.root(silo_of(r, a));
      }
    }
    ReplyWriter w;
    w.begin();
    put_object(w, ns, n);
    w.status(0);
    w.end();
    if (!n.path.empty()) {
      // An unchanged row is written again only while an unfinished update would unload names.
      ServedRow row = ns.served_row(n);
      if (!r.served_unchanged(view.id, row) || UpdateLedger(r.db()).has_auto_tombstones(view.id))
        served.push_back(std::move(row));
    }
    return w.take();
  });
  record_served(srv, view.id, served);
  return body;
}

// A listing produced a batch of entries at a time, under the view's read lock and one read
// transaction, recording each batch in the served set as it goes.
class DirectoryStream : public ReplyStream {
 public:
  DirectoryStream(WanServer& srv, const Args& a) : srv_(srv) {
    tbs_uuid_s uuid = a.uuid(ARG_VIEW_UUID);
    lock_ = srv.view_lock(uuid);
    guard_ = std::shared_lock<std::shared_mutex>(*lock_);
    view_ = ensure_view(srv, uuid);
    lease_ = std::make_unique<Store::Lease>(srv.store().lease());
    txn_ = std::make_unique<Txn>(lease_->db(), false);
    repo_ = std::make_unique<Repo>(lease_->db());
    ns_ = std::make_unique<ViewNamespace>(*repo_, view_);
    dir_ = directory_node(*ns_, a, ARG_PATH_NAME);  // throws before anything is sent
    entries_ = repo_->entries(dir_.ver.id);
    rewrite_all_ = UpdateLedger(lease_->db()).has_auto_tombstones(view_.id);
  }

  bool next(std::string* out) override {
    out->clear();
    if (finished_) return false;
    ReplyWriter w;
    if (!begun_) {
      w.begin();
      begun_ = true;
    }
    try {
      std::vector<ServedRow> served;
      for (size_t n = 0; n < kBatch && pos_ < entries_.size(); ++n, ++pos_) {
        const Entry& e = entries_[pos_];
        auto node = ns_->entry_node(dir_.silo, dir_.elem, dir_.path, e);
        if (!node) continue;  // no version selected: invisible
        tavrel_dirent d = ns_->dirent(*node, e.name, off_++);
        std::string rec;
        if (tavrel_dirent_encode(&d, &rec) != TBS_ST_OK) fail(TBS_ST_INTERNAL, "directory entry does not encode");
        w.part(PART_DIRECTORY_ENTRY, rec);
        put_object(w, *ns_, *node);
        ServedRow row = ns_->served_row(*node);
        if (rewrite_all_ || !repo_->served_unchanged(view_.id, row)) served.push_back(std::move(row));
      }
      record_served(srv_, view_.id, served);
      if (pos_ >= entries_.size()) finish(w, 0, std::string());
    } catch (const ServerError& e) {
      finish(w, e.code(), e.what());
    } catch (const std::exception& e) {
      finish(w, TBS_ST_INTERNAL, std::string("internal error: ") + e.what());
    }
    *out = w.take();
    return true;
  }

  tbs_status_t final_status() const override { return final_status_; }

 private:
  static constexpr size_t kBatch = 256;

  void finish(ReplyWriter& w, tbs_status_t code, const std::string& msg) {
    w.status(code, msg);
    w.end();
    final_status_ = code;
    finished_ = true;
  }

  WanServer& srv_;
  std::shared_ptr<std::shared_mutex> lock_;
  std::shared_lock<std::shared_mutex> guard_;
  ViewRow view_;
  // Destroyed in reverse order: the namespace, then the transaction, then the connection.
  std::unique_ptr<Store::Lease> lease_;
  std::unique_ptr<Txn> txn_;
  std::unique_ptr<Repo> repo_;
  std::unique_ptr<ViewNamespace> ns_;
  Node dir_;
  std::vector<Entry> entries_;
  size_t pos_ = 0;
  uint32_t off_ = 2;
  bool begun_ = false, finished_ = false;
  bool rewrite_all_ = false;  // an unfinished update would unload names: record every entry sent
  tbs_status_t final_status_ = -1;
};

std::string get_directory_contents(WanServer& srv, const Args& a) {
  DirectoryStream s(srv, a);
  std::string all, piece;
  while (s.next(&piece)) all += piece;
  return all;
}

}  // namespace

std::string view_update(WanServer& srv, const Args& a) {
  auto s = start_view_update(srv, a);
  std::string all, piece;
  while (s->next(&piece)) all += piece;
  return all;
}

std::unique_ptr<ReplyStream> start_directory_contents(WanServer& srv, const Args& args) {
  return std::make_unique<DirectoryStream>(srv, args);
}

bool is_agent_rpc(const std::string& rpc) {
  return rpc == RPC_GET_SILO_INFO || rpc == RPC_GET_CONFIG_SPEC || rpc == RPC_SET_CONFIG_SPEC ||
         rpc == RPC_GET_METADATA || rpc == RPC_LOOKUP || rpc == RPC_GET_DIRECTORY_CONTENTS || rpc == RPC_SYNCFETCH;
}

std::string run_agent_rpc(WanServer& srv, const std::string& rpc, const Args& args) {
  if (rpc == RPC_GET_SILO_INFO) return get_silo_info(srv, args);
  if (rpc == RPC_GET_CONFIG_SPEC) return get_config_spec(srv, args);
  if (rpc == RPC_SET_CONFIG_SPEC) return set_config_spec(srv, args);
  if (rpc == RPC_GET_METADATA) return metadata_reply(srv, args, false);
  if (rpc == RPC_LOOKUP) return metadata_reply(srv, args, true);
  if (rpc == RPC_GET_DIRECTORY_CONTENTS) return get_directory_contents(srv, args);
  if (rpc == RPC_SYNCFETCH) return view_update(srv, args);
  fail(TBS_ST_BAD_ARG, "unknown RPC \"" + rpc + "\"");
}

}  // namespace tavrel_server
