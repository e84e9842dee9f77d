#include "db/vns_check.h"

#include <cstdarg>
#include <cstdio>
#include <map>
#include <vector>

#include "db/rec/dt.h"
#include "db/tavrel_engine_db.h"
#include "db/tavrel_engine_utls.h"
#include "db/tvr_db_bytes.h"
#include "db/tvr_db_vns.h"
#include "db/tvr_db_vns_int.h"

using namespace tvr_vns;

namespace {

class Checker {
 public:
  explicit Checker(std::string* report) : report_(report) {}

  void fail(const char* fmt, ...) __attribute__((format(printf, 2, 3))) {
    ++failures_;
    if (failures_ > 50) return;
    char line[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    report_->append(line).append("\n");
  }
  int failures() const { return failures_; }

  // Every DBA of a record type.
  std::vector<DB_ADDR> rows(int rec) {
    std::vector<DB_ADDR> out;
    int st = dt_recfrst(rec, view_db_task, -1);
    for (; st == S_OKAY; st = dt_recnext(view_db_task, -1)) {
      DB_ADDR at = 0;
      dt_crget(&at, view_db_task, -1);
      out.push_back(at);
    }
    if (st != S_NOTFOUND) fail("record %d: scan ended with %d", rec, st);
    return out;
  }

  template <typename Row>
  bool get(DB_ADDR at, Row* row) {
    if (read(at, row, "CHECK_VALIDATE") != 0) {
      fail("row %#x unreadable", at);
      return false;
    }
    return true;
  }

  bool has(long key, DB_ADDR silo, uint32_t dbid, DB_ADDR* dba = nullptr) {
    key_silo_dbid k{silo, dbid};
    bool found = false;
    DB_ADDR at = 0;
    find(key, &k, &found, &at, "CHECK_VALIDATE");
    if (dba != nullptr) *dba = at;
    return found;
  }

  DB_ADDR owner(int set, DB_ADDR member) {
    DB_ADDR o = 0;
    owner_of(set, member, &o, "CHECK_VALIDATE");
    return o;
  }

  long count(int set, DB_ADDR owner_dba) {
    long n = 0;
    member_count(set, owner_dba, &n, "CHECK_VALIDATE");
    return n;
  }

  void run() {
    std::map<DB_ADDR, uint32_t> next_dbid;  // silo -> SILO_NEXT_DBID
    for (DB_ADDR at : rows(DB_SILO)) {
      db_silo s{};
      if (get(at, &s)) next_dbid[at] = s.silo_next_dbid;
    }
    check_objects(next_dbid);
    check_versions();
    check_typed_rows();
    check_names();
    check_scopes();
    if (rows(VNS_DB_VIEW).size() > 1) fail("more than one view row");
  }

 private:
  void check_objects(const std::map<DB_ADDR, uint32_t>& next_dbid) {
    for (DB_ADDR at : rows(VNS_DB_OBJ)) {
      vns_db_obj o{};
      if (!get(at, &o)) continue;
      uint32_t m = o.vns_obj_mtype, d = o.vns_obj_dbid;
      auto silo = next_dbid.find(o.vns_obj_silo_dba);
      if (silo == next_dbid.end()) {
        fail("object %u: silo %#x is no silo row", d, o.vns_obj_silo_dba);
        continue;
      }
      if (d < 2 || d > silo->second) fail("object %u: dbid beyond the silo counter %u", d, silo->second);
      if (!mtype_valid(m)) {
        fail("object %u: type %u", d, m);
        continue;
      }
      if (is_elem_type(m) && !has(VNS_ELEM_KEY, o.vns_obj_silo_dba, d)) fail("element %u has no element row", d);
      if (is_version_type(m) && !has(VNS_VER_KEY, o.vns_obj_silo_dba, d)) fail("version %u has no version row", d);
      if (m == 3 && !has(VNS_DIR_VER_KEY, o.vns_obj_silo_dba, d)) fail("directory %u has no directory row", d);
      if (m == 7 && !has(VNS_SLINK_KEY, o.vns_obj_silo_dba, d)) fail("link %u has no link row", d);
      if ((is_elem_type(m) || m == 7) && o.vns_obj_nodeid != d) fail("object %u: node id %u", d, o.vns_obj_nodeid);
    }
  }

  void check_versions() {
    for (DB_ADDR at : rows(VNS_DB_VER)) {
      vns_db_ver v{};
      if (!get(at, &v)) continue;
      DB_ADDR elem_dba = owner(VNS_ELEM_VER_SET, at);
      if (elem_dba == 0) {
        fail("version %u is in no element's set", v.dbid);
        continue;
      }
      vns_db_elem e{};
      vns_db_obj o{};
      bool found = false;
      if (!get(elem_dba, &e)) continue;
      obj_by_dbid(v.silo_dba, v.dbid, &o, &found);
      if (!found) fail("version %u has no identity row", v.dbid);
      else if (o.vns_obj_nodeid != e.dbid) fail("version %u: node id %u, element %u", v.dbid, o.vns_obj_nodeid, e.dbid);
      else if (o.vns_obj_mtype != v.mtype) fail("version %u: types %u and %u", v.dbid, o.vns_obj_mtype, v.mtype);
      if (count(VNS_VER_NAME_SET, at) == 0) fail("version %u has no name", v.dbid);
    }
  }

  void check_typed_rows() {
    for (DB_ADDR at : rows(VNS_DB_ELEM)) {
      vns_db_elem e{};
      if (get(at, &e) && !has(VNS_OBJ_KEY, e.silo_dba, e.dbid)) fail("element row %u has no identity row", e.dbid);
    }
    for (DB_ADDR at : rows(VNS_DB_SLINK)) {
      vns_db_slink l{};
      if (!get(at, &l)) continue;
      if (!has(VNS_OBJ_KEY, l.silo_dba, l.dbid)) fail("link row %u has no identity row", l.dbid);
      if (count(VNS_SLINK_NAME_SET, at) == 0) fail("link %u has no name", l.dbid);
      if ((l.text_len > SLINK_TEXT_INLINE) != (l.text_bytes_dba != 0)) fail("link %u: text chain", l.dbid);
    }
    for (DB_ADDR at : rows(VNS_DB_DIR_VER)) {
      vns_db_dir_ver d{};
      if (!get(at, &d)) continue;
      vns_db_obj o{};
      bool found = false;
      obj_by_dbid(d.silo_dba, d.dbid, &o, &found);
      if (!found || o.vns_obj_mtype != 3) fail("directory row %u has no directory identity", d.dbid);
      if (d.type != 3) fail("directory %u: type %u", d.dbid, d.type);
      if (d.saved_rddir_state > 3) fail("directory %u: saved state %u", d.dbid, d.saved_rddir_state);
      if ((d.saved_rddir_state == 2 || d.saved_rddir_state == 3) && d.rddir_done != 0)
        fail("directory %u: done while saved state %u waits", d.dbid, d.saved_rddir_state);
    }
  }

  void check_names() {
    for (DB_ADDR at : rows(VNS_DB_DIR_VER_ENT)) {
      vns_db_dir_ver_ent r{};
      if (!get(at, &r)) continue;
      uint32_t d = r.obj_dbid;
      std::string name;
      if (entry_name(at, r, &name) != 0) {
        fail("name of %u: chain unreadable", d);
        continue;
      }
      if ((r.name_len > VNS_NAME_INLINE) != (r.name_bytes_dba != 0)) fail("name of %u: chain presence", d);
      uint32_t hash = r.dir_dbid == 0 && r.name_len == 0 ? 0 : tvr_db_hash_name(name.data(), name.size());
      if (r.hash != hash) fail("name '%s' of %u: hash %#x, expected %#x", name.c_str(), d, r.hash, hash);
      if (!mtype_valid(r.mtype) || is_elem_type(r.mtype)) {
        fail("name '%s': type %u", name.c_str(), r.mtype);
        continue;
      }
      // Its object's name set, and no other.
      int set = r.mtype == 7 ? VNS_SLINK_NAME_SET : VNS_VER_NAME_SET;
      int other = r.mtype == 7 ? VNS_VER_NAME_SET : VNS_SLINK_NAME_SET;
      DB_ADDR obj_owner = 0;
      has(r.mtype == 7 ? VNS_SLINK_KEY : VNS_VER_KEY, r.silo_dba, d, &obj_owner);
      if (obj_owner == 0 || owner(set, at) != obj_owner) fail("name '%s' is not in the name set of %u", name.c_str(), d);
      if (owner(other, at) != 0) fail("name '%s' is in two name sets", name.c_str());
      // Its scope's set.
      DB_ADDR scope = owner(VNS_SCOPE_ENT_SET, at);
      vns_db_lr_scope s{};
      if (scope == 0 || !get(scope, &s) || s.scope_oid != r.scope)
        fail("name '%s' of %u is not in the set of its scope", name.c_str(), d);
      // Its directory's set exactly when it has a directory.
      DB_ADDR dir = owner(VNS_DIR_ENT_SET, at);
      DB_ADDR want = 0;
      if (r.dir_dbid != 0 && !has(VNS_DIR_VER_KEY, r.silo_dba, r.dir_dbid, &want)) want = ~0u;
      if (dir != want) fail("name '%s' of %u: directory set of %u wrong", name.c_str(), d, r.dir_dbid);
    }
  }

  void check_scopes() {
    for (DB_ADDR at : rows(VNS_DB_LR_SCOPE)) {
      vns_db_lr_scope s{};
      if (!get(at, &s)) continue;
      if (s.op_state > 2) fail("scope %s: state %u", tbs_oid_to_str(s.scope_oid).c_str(), s.op_state);
      if (s.op_state == 2 && s.finished_gn != s.gn - 1)
        fail("scope %s: updating with finished %u at gn %u", tbs_oid_to_str(s.scope_oid).c_str(), s.finished_gn, s.gn);
      char name[1024];
      if (tvr_db_get_lr_scope_name(at, sizeof name, name) != 0) {
        fail("scope %s: name unreadable", tbs_oid_to_str(s.scope_oid).c_str());
        continue;
      }
      if (tvr_db_hash_name(name, s.name_len) != s.name_hash) fail("scope '%s': name hash", name);
    }
  }

  std::string* report_;
  int failures_ = 0;
};

}  // namespace

int vns_check(std::string* report) {
  tvr_db_trans_read_check();
  report->clear();
  Checker c(report);
  c.run();
  return c.failures() == 0 ? 0 : TBS_ST_INTERNAL;
}
