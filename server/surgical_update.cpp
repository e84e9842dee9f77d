// The path form of View_Update (see update_stream.h): named objects and the entries of named
// directories, grouped by SILO, under the view's read lock and one read transaction.
#include <shared_mutex>

#include "proto/reply_writer.h"
#include "proto/wan_names.h"
#include "server/rules.h"
#include "server/update_parts.h"
#include "server/update_stream.h"
#include "server/view_namespace.h"
#include "server/wan_server.h"

namespace tavrel_server {

using namespace tavrel_wan;

namespace {

constexpr size_t kBatch = 256;  // objects per piece of the reply

// The tag-prefixed form of a surgical path: the path itself when it starts with a known tag, else
// the rest of it from the first component that is a known tag ("/view/v1/proj/a" -> "/proj/a").
// Empty when no component is a tag.
std::string tag_path(const std::string& raw, const std::vector<Silo>& silos) {
  std::string p = raw;
  for (char& c : p)
    if (c == '\\') c = '/';
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  std::vector<std::string> parts;
  for (size_t pos = 0; pos <= p.size();) {
    size_t end = p.find('/', pos);
    if (end == std::string::npos) end = p.size();
    if (end > pos) parts.push_back(p.substr(pos, end - pos));
    pos = end + 1;
  }
  for (size_t i = 0; i < parts.size(); ++i) {
    for (const Silo& s : silos) {
      if (s.tag.compare(1, std::string::npos, parts[i]) != 0) continue;
      std::string out;
      for (size_t k = i; k < parts.size(); ++k) out += "/" + parts[k];
      return out;
    }
  }
  return std::string();
}

class SurgicalUpdateStream : public ReplyStream {
 public:
  SurgicalUpdateStream(WanServer& srv, const Args& a) : srv_(srv) {
    tbs_uuid_s uuid = a.uuid(ARG_VIEW_UUID);
    if (tbs_uuid_is_null(uuid)) fail(TBS_ST_BAD_ARG, "null ViewUuid");
    lock_ = srv.view_lock(uuid);
    guard_ = std::shared_lock<std::shared_mutex>(*lock_);
    view_ = srv.store().write([&](Repo& r) { return r.view_get_or_create(uuid); });
    lease_ = std::make_unique<Store::Lease>(srv.store().lease());
    txn_ = std::make_unique<Txn>(lease_->db(), false);
    repo_ = std::make_unique<Repo>(lease_->db());
    ns_ = std::make_unique<ViewNamespace>(*repo_, view_);
    std::vector<Silo> silos = repo_->silos();
    // Paths grouped by SILO, each group in the order its SILO first appears.
    for (const std::string& raw : a.all(ARG_SCOPE_PATH)) {
      std::string p = tag_path(raw, silos);
      if (p.empty()) continue;
      std::string tag = p.substr(0, p.find('/', 1));
      size_t g = 0;
      while (g < groups_.size() && groups_[g].silo.tag != tag) ++g;
      if (g == groups_.size()) groups_.push_back({*repo_->silo_by_tag(tag), {}});
      groups_[g].paths.push_back(p);
    }
  }

  bool next(std::string* out) override {
    out->clear();
    if (finished_) return false;
    ReplyWriter w;
    try {
      if (!begun_) {
        w.begin();
        w.part(PART_SYNC_FETCH_BEGIN, {{ITEM_OPERATION_GN, std::to_string(view_.gn_counter)}}, "");
        begun_ = true;
      }
      std::vector<ServedRow> sent;
      std::vector<std::pair<tbs_oid_s, SnapRow>> snaps;
      auto put = [&](const Node& n) {
        put_update_object(w, *ns_, n, UpdateLedger(lease_->db()).known_vstr(view_.id, n.path));
        ServedRow row = ns_->served_row(n);
        if (!(row.scope_oid == AUTOMATIC_LOAD_SCOPE_OID)) snaps.push_back({row.scope_oid, snap_of(n)});
        sent.push_back(std::move(row));
      };
      size_t budget = kBatch;
      while (budget > 0 && group_ < groups_.size()) {
        Group& g = groups_[group_];
        if (!in_group_) {
          w.part(PART_SILO_FETCH_BEGIN,
                 {{ITEM_REPLICA_UUID, tbs_uuid_to_str(g.silo.replica)}, {ITEM_FAMILY_OID, tbs_uuid_to_str(g.silo.family)}},
                 "");
          in_group_ = true;
        }
        if (path_ == g.paths.size()) {
          w.part(PART_SILO_FETCH_END, "");
          in_group_ = false;
          path_ = 0;
          ++group_;
          continue;
        }
        if (!dir_) {
          std::optional<Node> n;
          try {
            n = ns_->resolve(g.paths[path_]);
          } catch (const ServerError& e) {
            if (e.code() != TBS_ST_NOT_FOUND && e.code() != TBS_ST_NO_SUCH_NAME && e.code() != TBS_ST_BAD_ARG) throw;
          }
          if (!n) {  // names nothing: skipped
            ++path_;
            continue;
          }
          if (n->path != n->silo.tag) {  // a SILO root is never sent itself
            put(*n);
            --budget;
          }
          if (n->is_link || n->elem.kind != KIND_DIR) {
            ++path_;
            continue;
          }
          dir_ = std::move(n);
          entries_ = repo_->entries(dir_->ver.id);
          entry_ = 0;
        }
        for (; budget > 0 && entry_ < entries_.size(); ++entry_) {
          if (auto c = ns_->entry_node(g.silo, dir_->elem, dir_->path, entries_[entry_])) {
            put(*c);
            --budget;
          }
        }
        if (entry_ == entries_.size()) {
          dir_.reset();
          entries_.clear();
          ++path_;
        }
      }
      record_sent(srv_.store(), view_.id, sent, snaps);
      if (group_ == groups_.size()) {
        w.part(PART_SYNC_FETCH_END, "");
        finish(w, 0, std::string());
      }
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
  struct Group {
    Silo silo;
    std::vector<std::string> paths;
  };

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
  std::vector<Group> groups_;
  size_t group_ = 0, path_ = 0, entry_ = 0;
  bool in_group_ = false;
  std::optional<Node> dir_;  // the directory whose entries are being sent
  std::vector<Entry> entries_;
  bool begun_ = false, finished_ = false;
  tbs_status_t final_status_ = -1;
};

}  // namespace

std::unique_ptr<ReplyStream> start_surgical_update(WanServer& srv, const Args& args) {
  return std::make_unique<SurgicalUpdateStream>(srv, args);
}

}  // namespace tavrel_server
