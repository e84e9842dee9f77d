#include "server/update_parts.h"

#include <cstdio>
#include <cstring>

#include "proto/tavrel_records.h"
#include "proto/wan_names.h"

namespace tavrel_server {

using namespace tavrel_wan;

namespace {

void put_elem_info(ReplyWriter& w, const Silo& silo, const std::string& path, const tbs_oid_s& parent,
                   const tbs_oid_s& object, const std::string& prev, const std::string& curr) {
  tavrel_synceleminfo_t info;
  std::memset(&info, 0, sizeof info);
  if (path.size() >= sizeof info.object_path || prev.size() >= sizeof info.prev_version_str ||
      curr.size() >= sizeof info.curr_version_str)
    fail(TBS_ST_TOO_LONG, "path or version string of " + path + " too long for an update record");
  std::memcpy(info.object_path, path.data(), path.size());
  info.parent_oid = parent;
  info.replica_uuid = silo.replica;
  info.object_oid = object;
  std::memcpy(info.prev_version_str, prev.data(), prev.size());
  std::memcpy(info.curr_version_str, curr.data(), curr.size());
  std::string body;
  if (tavrel_synceleminfo_encode(&info, &body) != TBS_ST_OK) fail(TBS_ST_INTERNAL, "update record does not encode");
  w.part(PART_SYNC_ELEM_INFO, body);
}

std::string encode_vstat(const tavrel_vstat& v) {
  std::string out;
  if (tavrel_vstat_encode(&v, &out) != TBS_ST_OK) fail(TBS_ST_INTERNAL, "metadata record does not encode");
  return out;
}

}  // namespace

std::string node_vstr(const Node& n) { return n.is_link ? std::string("link") : n.ver.vstr; }

SnapRow snap_of(const Node& n) {
  SnapRow r;
  r.path = n.path;
  r.silo = n.silo.id;
  r.parent_oid = n.parent_elem_oid;
  r.vstr = node_vstr(n);
  r.is_link = n.is_link;
  if (n.is_link) {
    r.elem_oid = r.ver_oid = n.link.oid;
    r.obj = n.link.id;
  } else {
    r.elem_oid = n.elem.oid;
    r.ver_oid = n.ver.oid;
    r.elem = n.elem.id;
    r.obj = n.ver.id;
    r.checked_out = n.checked_out;
  }
  return r;
}

bool same_state(const SnapRow& a, const SnapRow& b) {
  return a.elem_oid == b.elem_oid && a.ver_oid == b.ver_oid && a.checked_out == b.checked_out &&
         a.parent_oid == b.parent_oid;
}

bool is_absence(const ServerError& e) {
  tbs_status_t c = e.code();
  return c == TBS_ST_NOT_FOUND || c == TBS_ST_NO_SUCH_NAME || c == TBS_ST_STALE || c == TBS_ST_BAD_ARG;
}

Node node_of(Repo& r, const Silo& silo, const SnapRow& row) {
  Node n;
  n.silo = silo;
  n.path = row.path;
  n.parent_elem_oid = row.parent_oid;
  n.checked_out = row.checked_out;
  if (row.is_link) {
    n.is_link = true;
    n.link = r.link_by_id(row.obj);
  } else {
    n.elem = r.element_by_id(row.elem);
    n.ver = r.version_by_id(row.obj);
  }
  return n;
}

Node node_of_served(Repo& r, const Silo& silo, const ServedRow& row) {
  Node n;
  n.silo = silo;
  n.path = row.path;
  n.parent_elem_oid = row.parent_oid;
  if (row.vstr == "link" && row.elem_oid == row.ver_oid) {  // a link's row names the link twice
    auto l = r.link_by_oid(row.elem_oid);
    if (!l) fail(TBS_ST_STALE, "the link at " + row.path + " is gone");
    n.is_link = true;
    n.link = *l;
    return n;
  }
  auto e = r.element_by_oid(row.elem_oid);
  auto v = r.version_by_oid(row.ver_oid);
  if (!e || !v) fail(TBS_ST_STALE, "the element at " + row.path + " is gone");
  n.elem = *e;
  n.ver = *v;
  n.checked_out = row.checked_out;
  return n;
}

void put_update_object(ReplyWriter& w, ViewNamespace& ns, const Node& n, const std::string& prev) {
  put_elem_info(w, n.silo, n.path, n.parent_elem_oid, n.is_link ? n.link.oid : n.elem.oid, prev, node_vstr(n));
  w.part(PART_OBJ_METADATA, encode_vstat(ns.obj_vstat(n)));
  w.part(PART_ELEM_METADATA, encode_vstat(ns.elem_vstat(n)));
}

void put_unload(ReplyWriter& w, const Silo& silo, const SnapRow& row) {
  put_elem_info(w, silo, row.path, row.parent_oid, row.elem_oid, row.prev_vstr.empty() ? row.vstr : row.prev_vstr,
                std::string());
}

}  // namespace tavrel_server

namespace tavrel_server {

void record_sent(Store& store, int64_t view, const std::vector<ServedRow>& rows,
                 const std::vector<std::pair<tbs_oid_s, SnapRow>>& snaps) {
  if (rows.empty() && snaps.empty()) return;
  store.write([&](Repo& r) {
    UpdateLedger ledger(r.db());
    bool tombstones = ledger.has_auto_tombstones(view);
    for (const auto& row : rows) {
      r.record_served(view, row);
      if (tombstones) ledger.clear_auto_tombstone(view, row.path);
    }
    for (const auto& [scope, snap] : snaps) ledger.put_committed(view, scope, snap);
  });
}

}  // namespace tavrel_server
