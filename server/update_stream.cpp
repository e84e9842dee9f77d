#include "server/update_stream.h"

#include <cstring>
#include <map>
#include <optional>
#include <shared_mutex>

#include "proto/reply_writer.h"
#include "proto/tavrel_records.h"
#include "proto/wan_names.h"
#include "server/path_order.h"
#include "server/rules.h"
#include "server/scope_delta.h"
#include "server/update_parts.h"
#include "server/view_namespace.h"
#include "server/wan_server.h"

namespace tavrel_server {

using namespace tavrel_wan;

namespace {

constexpr size_t kPage = 1024;      // rows read or written per trip to the store
constexpr size_t kEmitBatch = 256;  // objects (or unloads) per piece of the reply
constexpr size_t kMaxDepth = 512;   // directories deep; deeper means a cycle of directories
constexpr size_t kKeepPending = 3;  // unfinished streams remembered per view
constexpr size_t kMaxDelta = 10000;  // changed elements beyond which a scope is walked whole

struct ScopeReq {
  std::string path;  // load-rule path, or the automatic scope's name
  tbs_oid_s oid{};
  int64_t gn = 0;
  bool is_auto = false;
  bool current = false;  // still a load rule of the view
  bool base_empty = false;
};

// Rows of one scope's stream state, written to the store a page at a time.
class PendingSink {
 public:
  PendingSink(Store& st, int64_t view, int64_t gn, const tbs_oid_s& scope)
      : store_(st), view_(view), gn_(gn), scope_(scope) {}
  void add(SnapRow r) {
    rows_.push_back(std::move(r));
    if (rows_.size() >= kPage) flush();
  }
  void flush() {
    if (rows_.empty()) return;
    store_.write([&](Repo& r) { UpdateLedger(r.db()).put(view_, gn_, scope_, rows_); });
    rows_.clear();
  }

 private:
  Store& store_;
  int64_t view_, gn_;
  tbs_oid_s scope_;
  std::vector<SnapRow> rows_;
};

// The committed rows of a load-rule scope, in path order, a page at a time.
class BasePager {
 public:
  BasePager(UpdateLedger& l, int64_t view, const tbs_oid_s& scope, bool empty)
      : ledger_(l), view_(view), scope_(scope), done_(empty) {}
  const SnapRow* peek() {
    if (pos_ == page_.size() && !done_) {
      page_ = ledger_.rows(view_, 0, scope_, 0, started_ ? &last_ : nullptr, SNAP_KEEP, SNAP_FORGET, kPage);
      if (!page_.empty()) last_ = page_.back().path;  // before take() moves the rows out
      started_ = true;
      pos_ = 0;
      done_ = page_.size() < kPage;
    }
    return pos_ < page_.size() ? &page_[pos_] : nullptr;
  }
  SnapRow take() { return std::move(page_[pos_++]); }

 private:
  UpdateLedger& ledger_;
  int64_t view_;
  tbs_oid_s scope_;
  std::vector<SnapRow> page_;
  std::string last_;
  size_t pos_ = 0;
  bool done_, started_ = false;
};

class ScopeUpdateStream : public ReplyStream {
 public:
  ScopeUpdateStream(WanServer& srv, const Args& a);
  bool next(std::string* out) override;
  tbs_status_t final_status() const override { return final_status_; }

 private:
  enum Kind { SILO_BEGIN, UNLOADS, SCOPE_BEGIN, OBJECTS, SCOPE_END, SILO_END, OP_END };
  struct Step {
    Kind kind;
    size_t group, scope;
  };
  struct Group {
    std::optional<Silo> silo;  // none: scopes sent outside any SILO group
    std::vector<size_t> scopes;
  };

  void plan();
  void prepare(const Group& g);
  void walk_load_rule(Repo& r, ViewNamespace& ns, const Silo& silo, const ScopeReq& s);
  void walk_auto(Repo& r, ViewNamespace& ns, const Silo& silo, const std::vector<std::string>& rule_paths);
  std::vector<ServedRow> unchanged_after(UpdateLedger& ledger, const Silo& silo, size_t n);
  // Emits what it can of step `s` within `*budget`; true when the step is done.
  bool emit(const Step& s, ReplyWriter& w, size_t* budget);
  void finish(ReplyWriter& w, tbs_status_t code, const std::string& msg);

  WanServer& srv_;
  std::shared_ptr<std::shared_mutex> lock_;
  std::shared_lock<std::shared_mutex> guard_;
  ViewRow view_;
  int64_t view_gn_ = 0, gn_ = 0;
  bool full_ = false, ods_ = true;
  std::vector<ScopeReq> scopes_;
  std::vector<std::string> rule_paths_;
  std::vector<Group> groups_;
  std::vector<Step> steps_;
  size_t step_ = 0;
  std::optional<std::string> cursor_;  // last path emitted by the current step
  bool begun_ = false, finished_ = false;
  tbs_status_t final_status_ = -1;
};

ScopeUpdateStream::ScopeUpdateStream(WanServer& srv, const Args& a) : srv_(srv) {
  tbs_uuid_s uuid = a.uuid(ARG_VIEW_UUID);
  if (tbs_uuid_is_null(uuid)) fail(TBS_ST_BAD_ARG, "null ViewUuid");
  view_gn_ = a.number(ARG_VIEW_GN, 0, 0, INT32_MAX);
  bool force = a.flag(ARG_FORCE);
  ods_ = a.first(ARG_UPDATE_ODS) ? a.flag(ARG_UPDATE_ODS) : true;
  // Groups: a new one starts at each ScopePath.
  for (const auto& arg : a.list()) {
    if (arg.name == ARG_SCOPE_PATH) {
      ScopeReq s;
      s.path = arg.value;
      s.is_auto = arg.value == AUTOMATIC_LOAD_SCOPE_NAME;
      s.oid = s.is_auto ? AUTOMATIC_LOAD_SCOPE_OID : tavrel_load_scope_oid(arg.value);
      scopes_.push_back(s);
    } else if (arg.name == ARG_SCOPE_OID || arg.name == ARG_SCOPE_GN) {
      if (scopes_.empty()) fail(TBS_ST_BAD_ARG, std::string(arg.name) + " before any ScopePath");
      if (arg.name == ARG_SCOPE_GN) {
        scopes_.back().gn = Args({arg}).number(ARG_SCOPE_GN, 0, 0, INT32_MAX);
      } else {
        auto oid = Args({arg}).opt_oid(ARG_SCOPE_OID);
        if (!oid) fail(TBS_ST_BAD_ARG, "bad ScopeOid \"" + arg.value + "\"");
        scopes_.back().oid = *oid;
        scopes_.back().is_auto = *oid == AUTOMATIC_LOAD_SCOPE_OID;
      }
    }
  }
  bool has_auto = false;
  for (size_t i = 0; i < scopes_.size(); ++i) {
    has_auto |= scopes_[i].is_auto;
    for (size_t j = 0; j < i; ++j)
      if (scopes_[j].oid == scopes_[i].oid) fail(TBS_ST_BAD_ARG, "scope " + scopes_[i].path + " listed twice");
  }
  if (!has_auto && ods_) {
    ScopeReq s;
    s.path = AUTOMATIC_LOAD_SCOPE_NAME;
    s.oid = AUTOMATIC_LOAD_SCOPE_OID;
    s.is_auto = true;
    scopes_.insert(scopes_.begin(), s);
  }

  lock_ = srv.view_lock(uuid);
  guard_ = std::shared_lock<std::shared_mutex>(*lock_);
  // The commit step, the new GN and the pending states, in one transaction.
  view_ = srv.store().write([&](Repo& r) {
    ViewRow v = r.view_get_or_create(uuid);
    UpdateLedger ledger(r.db());
    if (view_gn_ != 0) ledger.commit(v.id, view_gn_);
    v = *r.view_by_uuid(uuid);
    bool known = view_gn_ != 0 && view_gn_ == v.committed_gn;
    full_ = force || !known;
    v.gn_counter = r.bump_gn(v.id);
    ledger.note_stream_seq(v.id, v.gn_counter, ledger.change_seq());
    for (ScopeReq& s : scopes_) {
      s.base_empty = view_gn_ == 0 || (!s.is_auto && s.gn == 0);
      if (!s.is_auto || ods_) ledger.begin_pending(v.id, v.gn_counter, s.oid, s.base_empty);
    }
    ledger.prune(v.id, kKeepPending);
    return v;
  });
  gn_ = view_.gn_counter;
  plan();
}

void ScopeUpdateStream::plan() {
  rule_paths_ = load_rule_paths(view_.load_rules);
  std::map<std::string, Group> by_tag;
  std::vector<size_t> loose;
  srv_.store().read([&](Repo& r) {
    UpdateLedger ledger(r.db());
    std::vector<int64_t> auto_silos = ods_ ? ledger.auto_silos(view_.id) : std::vector<int64_t>();
    for (size_t i = 0; i < scopes_.size(); ++i) {
      ScopeReq& s = scopes_[i];
      if (s.is_auto) {
        for (int64_t id : auto_silos) {
          auto silo = r.silo_by_id(id);
          if (!silo) continue;
          Group& g = by_tag[silo->tag];
          g.silo = *silo;
          g.scopes.push_back(i);
        }
        if (auto_silos.empty()) loose.push_back(i);
        continue;
      }
      s.current = std::find(rule_paths_.begin(), rule_paths_.end(), s.path) != rule_paths_.end();
      std::string tag = s.path.substr(0, s.path.find('/', 1));
      auto silo = tag.size() > 1 && tag[0] == '/' ? r.silo_by_tag(tag) : std::nullopt;
      if (!silo) {
        loose.push_back(i);
        continue;
      }
      Group& g = by_tag[silo->tag];
      g.silo = *silo;
      g.scopes.push_back(i);
    }
  });
  for (auto& [tag, g] : by_tag) groups_.push_back(std::move(g));
  if (!loose.empty()) groups_.push_back(Group{std::nullopt, loose});
  for (size_t gi = 0; gi < groups_.size(); ++gi) {
    const Group& g = groups_[gi];
    if (g.silo) {
      steps_.push_back({SILO_BEGIN, gi, 0});
      for (size_t s : g.scopes) steps_.push_back({UNLOADS, gi, s});
    }
    for (size_t s : g.scopes) {
      steps_.push_back({SCOPE_BEGIN, gi, s});
      if (g.silo) steps_.push_back({OBJECTS, gi, s});
      steps_.push_back({SCOPE_END, gi, s});
    }
    if (g.silo) steps_.push_back({SILO_END, gi, 0});
  }
  steps_.push_back({OP_END, 0, 0});
}

// Works out what the stream carries for each scope of a SILO and writes it as the pending state.
void ScopeUpdateStream::prepare(const Group& g) {
  srv_.store().read([&](Repo& r) {
    ViewNamespace ns(r, view_);
    UpdateLedger ledger(r.db());
    for (size_t i : g.scopes) {
      const ScopeReq& s = scopes_[i];
      if (s.is_auto && !ods_) continue;
      // A scope whose committed state is known follows the change log when the log can say what changed.
      std::optional<std::vector<int64_t>> changed;
      if (!full_ && !s.base_empty && (s.is_auto || s.current) && srv_.config().update_deltas)
        if (auto since = ledger.committed_seq(view_.id, s.oid)) changed = ledger.changed_elements(view_.id, *since, kMaxDelta);
      if (changed) {
        PendingSink sink(srv_.store(), view_.id, gn_, s.oid);
        ScopeDelta delta(r, ns, *g.silo, s.oid, *changed, [&](SnapRow row) { sink.add(std::move(row)); });
        if (s.is_auto) delta.automatic(rule_paths_);
        else delta.load_rule(s.path);
        sink.flush();
      } else if (s.is_auto) {
        walk_auto(r, ns, *g.silo, rule_paths_);
      } else {
        walk_load_rule(r, ns, *g.silo, s);
      }
    }
  });
}

// Diffs the subtree of a load rule, walked in path order, against the scope's committed rows.
void ScopeUpdateStream::walk_load_rule(Repo& r, ViewNamespace& ns, const Silo& silo, const ScopeReq& s) {
  UpdateLedger ledger(r.db());
  PendingSink sink(srv_.store(), view_.id, gn_, s.oid);
  BasePager base(ledger, view_.id, s.oid, s.base_empty);
  bool full = full_ || s.base_empty;
  auto unload_before = [&](const std::string* path) {
    for (const SnapRow* b; (b = base.peek()) && (!path || path_order_compare(b->path, *path) < 0);) {
      SnapRow gone = base.take();
      gone.prev_vstr = gone.vstr;
      gone.action = SNAP_UNLOAD;
      sink.add(std::move(gone));
    }
  };
  auto visit = [&](const Node& n) {
    unload_before(&n.path);
    SnapRow row = snap_of(n);
    if (const SnapRow* b = base.peek(); b && b->path == n.path) {
      SnapRow had = base.take();
      row.prev_vstr = had.vstr;
      if (!full && same_state(had, row)) return;
    }
    row.action = SNAP_SEND;
    sink.add(std::move(row));
  };
  std::optional<Node> top;
  if (s.current) {
    try {
      top = ns.resolve(s.path);
      if (top->silo.id != silo.id) top.reset();
    } catch (const ServerError& e) {
      if (!is_absence(e)) throw;
    }
  }
  if (top) {
    struct Frame {
      Node dir;
      std::vector<Entry> entries;
      size_t next = 0;
    };
    std::vector<Frame> stack;
    visit(*top);
    if (!top->is_link && top->elem.kind == KIND_DIR) stack.push_back({*top, r.entries(top->ver.id)});
    while (!stack.empty()) {
      Frame& f = stack.back();
      if (f.next == f.entries.size()) {
        stack.pop_back();
        continue;
      }
      const Entry& e = f.entries[f.next++];
      std::optional<Node> c = ns.entry_node(f.dir.silo, f.dir.elem, f.dir.path, e);
      if (!c) continue;  // no version selected: not in the view
      visit(*c);
      if (!c->is_link && c->elem.kind == KIND_DIR) {
        if (stack.size() >= kMaxDepth) fail(TBS_ST_LOOP, "directories below " + s.path + " nest too deep");
        std::vector<Entry> entries = r.entries(c->ver.id);
        stack.push_back({std::move(*c), std::move(entries)});
      }
    }
  }
  unload_before(nullptr);
  sink.flush();
}

// Re-evaluates the names the view was served in the automatic scope of `silo`, in path order, so
// that each name's parent is at hand when the name is resolved.
void ScopeUpdateStream::walk_auto(Repo& r, ViewNamespace& ns, const Silo& silo,
                                  const std::vector<std::string>& rule_paths) {
  UpdateLedger ledger(r.db());
  PendingSink sink(srv_.store(), view_.id, gn_, AUTOMATIC_LOAD_SCOPE_OID);
  std::vector<std::pair<std::string, std::optional<Node>>> up;  // resolved ancestors of the current name
  std::string last;
  for (bool more = true, started = false; more; started = true) {
    std::vector<ServedRow> page = ledger.auto_served(view_.id, silo.id, started ? &last : nullptr, kPage);
    more = page.size() == kPage;
    if (!page.empty()) last = page.back().path;
    for (const ServedRow& had : page) {
      if (path_top_of(had.path, rule_paths)) continue;  // the load rule's own scope carries it
      while (!up.empty() && !(had.path.size() > up.back().first.size() &&
                              had.path.compare(0, up.back().first.size(), up.back().first) == 0 &&
                              had.path[up.back().first.size()] == '/'))
        up.pop_back();
      std::optional<Node> now;
      try {
        if (had.path == silo.tag) {
          now = ns.root(silo);
        } else {
          size_t slash = had.path.rfind('/');
          std::string parent = had.path.substr(0, slash), leaf = had.path.substr(slash + 1);
          if (!up.empty() && up.back().first == parent) {
            const std::optional<Node>& p = up.back().second;
            if (p && !p->is_link && p->elem.kind == KIND_DIR) now = ns.child(silo, p->ver, p->elem, parent, leaf);
          } else {
            now = ns.resolve(had.path);
          }
        }
      } catch (const ServerError& e) {
        if (!is_absence(e)) throw;
      }
      if (up.size() < kMaxDepth) up.push_back({had.path, now});
      SnapRow before = snap_of_served(had);
      if (!now) {
        before.action = view_gn_ == 0 ? SNAP_FORGET : SNAP_UNLOAD;
        sink.add(std::move(before));
        continue;
      }
      SnapRow row = snap_of(*now);
      if (same_state(before, row)) continue;  // a full stream sends it from the served set (emit)
      row.prev_vstr = view_gn_ == 0 ? std::string() : had.vstr;
      row.action = SNAP_SEND;
      sink.add(std::move(row));
    }
  }
  sink.flush();
}

// Up to `n` names of the automatic scope of `silo` after the cursor that the stream recorded nothing
// for, outside the view's load rules (whose scopes carry their names), as the served set holds them.
std::vector<ServedRow> ScopeUpdateStream::unchanged_after(UpdateLedger& ledger, const Silo& silo, size_t n) {
  std::vector<ServedRow> out;
  std::string after = cursor_ ? *cursor_ : std::string();
  for (bool more = true; more && out.size() < n;) {
    size_t want = n - out.size();
    std::vector<ServedRow> page = ledger.auto_unrecorded(view_.id, gn_, silo.id, after, want);
    more = page.size() == want;
    for (ServedRow& h : page) {
      if (const std::string* rule = path_top_of(h.path, rule_paths_)) {
        after = past_subtree(*rule);
        more = true;
        break;
      }
      after = h.path;
      out.push_back(std::move(h));
    }
  }
  return out;
}

bool ScopeUpdateStream::emit(const Step& st, ReplyWriter& w, size_t* budget) {
  const Group& g = groups_[st.group];
  const ScopeReq& s = scopes_[st.scope];
  switch (st.kind) {
    case SILO_BEGIN:
      prepare(g);
      w.part(PART_SILO_FETCH_BEGIN,
             {{ITEM_REPLICA_UUID, tbs_uuid_to_str(g.silo->replica)}, {ITEM_FAMILY_OID, tbs_uuid_to_str(g.silo->family)}},
             "");
      return true;
    case UNLOADS:
    case OBJECTS: {
      int action = st.kind == UNLOADS ? SNAP_UNLOAD : SNAP_SEND;
      size_t n = *budget;
      size_t sent = srv_.store().read([&](Repo& r) {
        UpdateLedger ledger(r.db());
        std::vector<SnapRow> page =
            ledger.rows(view_.id, gn_, s.oid, g.silo->id, cursor_ ? &*cursor_ : nullptr, action, action, n);
        if (action == SNAP_UNLOAD) {
          for (const SnapRow& row : page) put_unload(w, *g.silo, row);
          if (!page.empty()) cursor_ = page.back().path;
          return page.size();
        }
        // The rows the stream recorded, merged in path order with the unchanged names a full stream of
        // the automatic scope sends as the served set holds them.
        std::vector<ServedRow> same;
        if (s.is_auto && full_) same = unchanged_after(ledger, *g.silo, n);
        ViewNamespace ns(r, view_);
        size_t i = 0, j = 0;
        for (; i + j < n && (i < page.size() || j < same.size());) {
          if (j == same.size() || (i < page.size() && path_order_compare(page[i].path, same[j].path) < 0)) {
            put_update_object(w, ns, node_of(r, *g.silo, page[i]), page[i].prev_vstr);
            cursor_ = page[i++].path;
          } else {
            const ServedRow& h = same[j++];
            put_update_object(w, ns, node_of_served(r, *g.silo, h), view_gn_ == 0 ? std::string() : h.vstr);
            cursor_ = h.path;
          }
        }
        return i + j;
      });
      *budget -= sent;
      return sent < n;
    }
    case SCOPE_BEGIN: {
      tavrel_scope sc;
      std::memset(&sc, 0, sizeof sc);
      sc.oid = s.oid;
      sc.gn = uint32_t(gn_);
      if (s.path.size() >= sizeof sc.name) fail(TBS_ST_TOO_LONG, "scope name too long");
      std::memcpy(sc.name, s.path.data(), s.path.size());
      std::string body;
      if (tavrel_scope_encode(&sc, &body) != TBS_ST_OK) fail(TBS_ST_INTERNAL, "scope record does not encode");
      w.part(PART_SCOPE_FETCH_BEGIN, body);
      return true;
    }
    case SCOPE_END:
      w.part(PART_SCOPE_FETCH_END, "");
      return true;
    case SILO_END:
      w.part(PART_SILO_FETCH_END, "");
      return true;
    case OP_END:
      w.part(PART_SYNC_FETCH_END, "");
      return true;
  }
  return true;
}

void ScopeUpdateStream::finish(ReplyWriter& w, tbs_status_t code, const std::string& msg) {
  w.status(code, msg);
  w.end();
  final_status_ = code;
  finished_ = true;
}

bool ScopeUpdateStream::next(std::string* out) {
  out->clear();
  if (finished_) return false;
  ReplyWriter w;
  if (!begun_) {
    // The operation's GN leaves at once; the first SILO's work follows.
    w.begin();
    w.part(PART_SYNC_FETCH_BEGIN, {{ITEM_OPERATION_GN, std::to_string(gn_)}}, "");
    begun_ = true;
    *out = w.take();
    return true;
  }
  try {
    size_t budget = kEmitBatch;
    while (step_ < steps_.size() && budget > 0) {
      if (emit(steps_[step_], w, &budget)) {
        ++step_;
        cursor_.reset();
      }
    }
    if (step_ == steps_.size()) finish(w, 0, std::string());
  } catch (const ServerError& e) {
    finish(w, e.code(), e.what());
  } catch (const std::exception& e) {
    finish(w, TBS_ST_INTERNAL, std::string("internal error: ") + e.what());
  }
  *out = w.take();
  return true;
}

}  // namespace

std::unique_ptr<ReplyStream> start_view_update(WanServer& srv, const Args& args) {
  if (args.flag(ARG_USE_PATHS)) return start_surgical_update(srv, args);
  return std::make_unique<ScopeUpdateStream>(srv, args);
}

}  // namespace tavrel_server
