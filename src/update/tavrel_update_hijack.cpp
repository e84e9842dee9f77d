#include "update/tavrel_update_hijack.h"

#include <vector>

#include "core/tavrel_config.h"
#include "core/tavrel_log_update.h"
#include "core/tavrel_trace.h"
#include "db/tavrel_db_adopt.h"
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_dir.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_store.h"
#include "db/tvr_db_vns.h"
#include "fs/tavrel_metadata.h"
#include "fs/tavrel_view_db.h"
#include "proto/xdr_prim.h"

namespace {

tavrel_db_obj_ref dir_ref(const tbs_uuid_s& replica, const tbs_oid_s& dir_elem) {
  tavrel_db_obj_ref ref;
  ref.replica = replica;
  ref.oid = dir_elem;
  ref.mtype = SILO_MTYPE_DIR_ELEM;
  return ref;
}

std::string leaf_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string sibling(const std::string& path, const std::string& leaf) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? leaf : path.substr(0, slash + 1) + leaf;
}

// The path an update log gives `leaf` of directory element `dir_elem`: "<SILO tag><directory>/<leaf>" when
// the SILO is mounted and the view still holds a version of the directory, else `known`, the name as the
// view's own records have it.
std::string log_path(const tbs_uuid_s& replica, const tbs_oid_s& dir_elem, const std::string& leaf,
                     const std::string& known) {
  std::string tag;
  for (const SILO_mount_info& m : Tavrel_Config::get_instance()->get_mounted_silos())
    if (m.replica_uuid == replica) tag = m.silo_tag;
  if (tag.empty()) return known;
  std::string dir;
  int st = tvr_db_in_trans(0, [&] {
    uint32_t silo = 0, elem = 0, ver = 0;
    DB_ADDR silo_dba = 0;
    int s = tvr_db_silo_lookup(replica, &silo);
    if (s == 0) s = tvr_db_vns_silo_dba(silo, &silo_dba);
    if (s == 0) s = tvr_db_vns_elem_lookup(silo_dba, dir_elem, &elem);
    if (s == 0) s = tvr_db_elem_get_ver(silo, elem, &ver);
    return s != 0 ? s : tvr_db_ver_path(silo, ver, &dir);
  });
  return st == 0 ? tag + dir + "/" + leaf : known;
}

}  // namespace

bool Tavrel_Update_Hijack::view_has_hijacks() {
  int has = 0;
  int st = tvr_db_in_trans(0, [&] { return tvr_db_has_hijacks(&has); });
  // When the answer is not known every name is looked at: slower, never wrong.
  return st != 0 || has != 0;
}

int Tavrel_Update_Hijack::lookup(const tbs_uuid_s& replica, const tbs_oid_s& dir_elem, const std::string& leaf) {
  return tvr_db_in_trans(0, [&] {
    uint32_t cover = 0, state = 0;
    int st = tavrel_db_cover_lookup(dir_ref(replica, dir_elem), &cover);
    if (st == 0) st = tvr_db_dir_entry_lookup(cover, leaf.data(), leaf.size(), nullptr, &state);
    if (st == 0 && (state & TVR_DB_NS_HIJACKED) == 0) st = TBS_ST_NOT_FOUND;
    return st;
  });
}

int Tavrel_Update_Hijack::remove(const tbs_uuid_s& replica, const tbs_oid_s& dir_elem, const std::string& leaf) {
  return tavrel_db_remove_hijack(0, dir_ref(replica, dir_elem), leaf.c_str());
}

int Tavrel_Update_Hijack::unhijack(const tbs_uuid_s& replica, const tbs_oid_s& dir_elem, const std::string& leaf) {
  return tavrel_db_unhijack(dir_ref(replica, dir_elem), leaf.c_str());
}

int Tavrel_Update_Hijack::rename(const tbs_uuid_s& replica, const tbs_oid_s& dir_elem, const std::string& leaf,
                                 std::string* new_leaf) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Update_Hijack", "rename");
  uint32_t cover = 0;
  int st = tvr_db_in_trans(0, [&] { return tavrel_db_cover_lookup(dir_ref(replica, dir_elem), &cover); });
  if (st == 0) st = tavrel_db_rename_unique(cover, leaf.c_str(), RENAME_SUFFIX, new_leaf);
  // The copy under its new name is the user's own file now, no longer a hijack of the SILO's version.
  if (st == 0) st = unhijack(replica, dir_elem, *new_leaf);
  trace.writeTrace(TRACE_LEVEL_4, "rename of hijacked %s to %s: %d", leaf.c_str(), new_leaf->c_str(), st);
  return st;
}

int Tavrel_Update_Hijack::treat(HijackTreatment treatment, bool unloaded, const tbs_uuid_s& replica,
                                const tbs_oid_s& dir_elem, const std::string& leaf, std::string* new_leaf) {
  switch (treatment) {
    case HIJACK_TREATMENT_OVERWRITE:
      return remove(replica, dir_elem, leaf);
    case HIJACK_TREATMENT_RENAME:
      return rename(replica, dir_elem, leaf, new_leaf);
    case HIJACK_TREATMENT_KEEP:
      break;
  }
  return unloaded ? unhijack(replica, dir_elem, leaf) : 0;
}

int Tavrel_Update_Hijack::sweep(const tbs_uuid_s& replica, HijackTreatment treatment, Tavrel_Log_Update* log,
                                Tavrel_KFSM_Ioctl* ioctl) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Update_Hijack", "sweep");
  if (treatment == HIJACK_TREATMENT_KEEP) return 0;  // a kept hijack stays whatever became of its element
  std::vector<tvr_db_hijack_info> hijacks;
  if (tvr_db_in_trans(0, [&] { return tvr_db_find_hijacks(&replica, &hijacks); }) != 0) return -1;
  int treated = 0;
  for (const tvr_db_hijack_info& h : hijacks) {
    uint32_t dbid = 0;
    if (Tavrel_View_db::elem_oid_to_dbid(replica, h.elem, &dbid)) continue;
    const std::string leaf = leaf_of(h.name);
    std::string new_leaf;
    int st = treat(treatment, true, replica, h.parent, leaf, &new_leaf);
    trace.writeTrace(TRACE_LEVEL_4, "hijack %s of an element no longer loaded: %d", h.name.c_str(), st);
    if (st != 0) continue;
    treated++;
    if (log) {
      const std::string path = log_path(replica, h.parent, leaf, h.name);
      log->log_hijack_sweep(treatment, path, new_leaf.empty() ? "" : sibling(path, new_leaf));
    }
    if (ioctl) {
      Tavrel_Metadata::view_inval_name(ioctl, replica, h.parent, leaf.c_str(), 1, 1, 0);
      if (!new_leaf.empty()) Tavrel_Metadata::view_inval_name(ioctl, replica, h.parent, new_leaf.c_str(), 1, 1, 0);
    }
  }
  return treated;
}
