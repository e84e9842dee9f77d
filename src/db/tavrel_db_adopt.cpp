// Cover inodes, adoption, hijack records and the unique rename (see tavrel_db_adopt.h).
#include "db/tavrel_db_adopt.h"

#include <cstdio>
#include <cstring>
#include <vector>

#include "base/imsg.h"
#include "db/tavrel_db_container.h"
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_dir.h"
#include "db/tvr_db_inode.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_store.h"

namespace {

constexpr silo_mtype_t MTYPE_VIEW_PRIVATE = 19;
constexpr size_t READDIR_CHUNK = 4096;
constexpr size_t UNIQUE_NAME_MAX = 256;

// The file type of the cover of an mtype; 0 for an mtype that has no cover.
uint32_t cover_ftype(silo_mtype_t mtype) {
  switch (mtype) {
    case 2: case 3: case 4: return TBS_FTYPE_DIR;
    case 5: case 6: case 8: case 9: return TBS_FTYPE_FILE;
    case 7: return TBS_FTYPE_LINK;
    default: return 0;
  }
}

std::string dbid_text(uint32_t dbid) {
  char buf[16];
  snprintf(buf, sizeof buf, "0x%x", dbid);
  return buf;
}

// The failure message of an operation: `fmt` takes `a`, `b` (when given) and the status's text.
// A database that is not writable now is the caller's to report.
void report(int st, const char* fmt, const std::string& a, const std::string* b = nullptr) {
  if (st == 0 || st == TBS_ST_DB_NOT_WRITABLE) return;
  if (b != nullptr) imsg_print(IMSG_ERR, fmt, a.c_str(), b->c_str(), tavrel_db_status_text(st).c_str());
  else imsg_print(IMSG_ERR, fmt, a.c_str(), tavrel_db_status_text(st).c_str());
}

std::string oid_text(const tbs_oid_s& oid) { return tbs_oid_to_str(oid); }

int cover_create_in_trans(const tavrel_db_obj_ref& obj, uint32_t* dbid) {
  int st = tavrel_db_cover_lookup(obj, dbid);
  if (st != TBS_ST_NOT_FOUND) return st;
  uint32_t silo = 0;
  st = tvr_db_silo_lookup(obj.replica, &silo);
  if (st == TBS_ST_NOT_FOUND) st = tvr_db_silo_create(obj.replica, "", &silo);
  if (st != 0) return st;
  tbs_fstat_db_s f{};
  f.type = cover_ftype(obj.mtype);
  f.mode = 0xffffffffu;
  f.owner = CREDUTL_SID_DONTCARE;
  f.group = CREDUTL_SID_DONTCARE;
  uint32_t gen = 0;
  st = tvr_db_inode_create(silo, obj.oid, f, obj.mtype, dbid, &gen);
  if (st == 0 && f.type == TBS_FTYPE_DIR) st = tvr_db_dir_create(*dbid);
  return st;
}

// The directory's times after names changed in it.
int touch_dir(uint32_t dir) {
  tbs_fstat_db_s f;
  int st = tvr_db_inode_read(dir, nullptr, nullptr, &f, nullptr, nullptr);
  if (st != 0) return st;
  tvr_db_fix_dir_modtime(nullptr, &f.mtime);
  f.ctime = f.mtime;
  return tvr_db_inode_rewrite(dir, f);
}

// Moves name `from_name` of directory `from` to `to_name` in `to` (which may be `from`) with name state
// `state`: the object it names keeps its link count, a hijack record goes along, `from` loses the name's
// share of its size (and a link for a directory). The directories' times are the caller's to fix.
int move_name(uint32_t from, const std::string& from_name, uint32_t to, const std::string& to_name, uint32_t state) {
  uint32_t inode = 0, old_state = 0;
  int st = tvr_db_dir_entry_lookup(from, from_name.data(), from_name.size(), &inode, &old_state);
  if (st != 0) return st;
  tbs_oid_s ver{}, elem{};
  const bool hijack = (old_state & TVR_DB_NS_HIJACK_OIDS) != 0;
  if (hijack) {
    st = tvr_db_hijack_get(from, from_name.data(), from_name.size(), &ver, &elem);
    if (st != 0) return st;
  }
  tbs_fstat_db_s f{};
  if (inode != 0) {
    st = tvr_db_inode_read(inode, nullptr, nullptr, &f, nullptr, nullptr);
    if (st != 0) return st;
  }
  st = tvr_db_link(to, to_name.data(), to_name.size(), inode, state, nullptr, nullptr, 1, nullptr, nullptr);
  if (st == 0 && hijack && !(tbs_oid_is_null(ver) && tbs_oid_is_null(elem)))
    st = tvr_db_hijack(to, to_name.data(), to_name.size(), &ver, &elem);
  if (st == 0) st = tvr_db_dir_entry_delete(from, from_name.data(), from_name.size(), 0, nullptr);
  // The link above counted one more name for the object; it has as many as before.
  if (st == 0 && inode != 0) st = tvr_db_inode_rewrite(inode, f);
  if (st != 0) return st;
  tbs_fstat_db_s df;
  st = tvr_db_inode_read(from, nullptr, nullptr, &df, nullptr, nullptr);
  if (st != 0) return st;
  df.size -= std::min<uint64_t>(df.size, from_name.size() + TVR_DB_DIR_NAME_OVERHEAD);
  if (inode != 0 && f.type == TBS_FTYPE_DIR && df.nlink > 0) df.nlink--;
  return tvr_db_inode_rewrite(from, df);
}

struct dir_name {
  std::string name;
  uint32_t state;
};

// Every name of directory `dir`, read in portions of READDIR_CHUNK bytes.
int read_all_names(uint32_t dir, std::vector<dir_name>* out) {
  std::vector<char> buf(READDIR_CHUNK);
  uint32_t cookie = 0;
  for (int eof = 0; !eof;) {
    size_t used = 0;
    int st = tvr_db_readdir(dir, cookie, buf.data(), buf.size(), &used, &eof);
    if (st != 0) return st;
    for (size_t at = 0; at < used;) {
      view_db_readdir_entry e;
      memcpy(&e, buf.data() + at, VIEW_DB_READDIR_ENTRY_NAME_OFFSET);
      out->push_back({std::string(buf.data() + at + VIEW_DB_READDIR_ENTRY_NAME_OFFSET, e.name_len), e.name_state});
      cookie = e.offset;
      at += VIEW_DB_READDIR_ENTRY_SIZE(e.name_len);
    }
    if (used == 0) break;
  }
  return 0;
}

}  // namespace

// ---- cover inodes -------------------------------------------------------------------------------------------

int tavrel_db_cover_lookup(const tavrel_db_obj_ref& obj, uint32_t* dbid) {
  tvr_db_trans_read_check();
  uint32_t silo = 0;
  int st = tvr_db_silo_lookup(obj.replica, &silo);
  if (st == 0) st = tvr_db_inode_lookup(silo, obj.oid, dbid);
  return st;
}

uint32_t create_cover_inode(const tavrel_db_obj_ref& obj, int* status) {
  uint32_t dbid = 0;
  int st = TBS_ST_INTERNAL;
  if (cover_ftype(obj.mtype) != 0) {
    st = tvr_db_in_trans(0, [&] { return tavrel_db_cover_lookup(obj, &dbid); });
    if (st == TBS_ST_NOT_FOUND) st = tvr_db_in_trans(1, [&] { return cover_create_in_trans(obj, &dbid); });
  }
  report(st, "View_db_cover_obj of %s: %s\n", oid_text(obj.oid));
  *status = st;
  return st == 0 ? dbid : 0;
}

// ---- adoption ---------------------------------------------------------------------------------------------

int tavrel_db_adopt(uint32_t session, uint32_t dir, const tavrel_db_obj_ref& obj, const char* name) {
  if (obj.mtype != 2 && obj.mtype != 3) return TBS_ST_FAILURE;
  const size_t len = strlen(name);
  int st = 0;
  uint32_t cover = create_cover_inode(obj, &st);
  if (st != 0) return st;
  st = tvr_db_in_trans(1, [&] {
    uint32_t priv = 0, state = 0;
    int st = tvr_db_dir_entry_lookup(dir, name, len, &priv, &state);
    if (st != 0) return st;
    tbs_fstat_db_s f;
    silo_mtype_t mtype = 0;
    st = priv == 0 ? static_cast<int>(TBS_ST_NOT_FOUND) : tvr_db_inode_read(priv, nullptr, nullptr, &f, &mtype, nullptr);
    if (st != 0) return st;
    if (mtype != MTYPE_VIEW_PRIVATE || f.type != TBS_FTYPE_DIR) return static_cast<int>(TBS_ST_INTERNAL);
    std::vector<dir_name> names;
    st = read_all_names(priv, &names);
    for (size_t i = 0; st == 0 && i < names.size(); i++)
      st = move_name(priv, names[i].name, cover, names[i].name, names[i].state);
    if (st == 0) st = touch_dir(cover);
    if (st != 0) return st;
    // Empty now: it keeps only the links of a directory of its own, and loses its name and itself.
    st = tvr_db_inode_read(priv, nullptr, nullptr, &f, nullptr, nullptr);
    if (st != 0) return st;
    f.nlink = 2;
    st = tvr_db_inode_rewrite(priv, f);
    if (st == 0) st = tvr_db_unlink(dir, name, len, 0, nullptr, nullptr, nullptr);
    if (st == 0) st = tavrel_db_inode_delete(session, priv, TBS_FTYPE_DIR, nullptr);
    return st;
  });
  const std::string leaf = name;
  report(st, "View_db_adopt of %s:%s: %s\n", dbid_text(dir), &leaf);
  return st;
}

// ---- hijack records -------------------------------------------------------------------------------------------

int tavrel_db_hijack_set(const tavrel_db_obj_ref& dir_elem, const char* name, const tbs_oid_s& ver,
                         const tbs_oid_s& elem) {
  const size_t len = strlen(name);
  int st = 0;
  uint32_t cover = create_cover_inode(dir_elem, &st);
  if (st == 0) {
    st = tvr_db_in_trans(1, [&] {
      uint32_t state = 0;
      int st = tvr_db_dir_entry_lookup(cover, name, len, nullptr, &state);
      if (st == 0) st = tvr_db_hijack(cover, name, len, &ver, &elem);
      if (st == 0) st = tvr_db_dir_entry_state_set(cover, name, len, state | TVR_DB_NS_HIJACK_OIDS);
      return st;
    });
  }
  const std::string where = oid_text(dir_elem.oid);
  report(st, "View_db_hijack of %s in %s: %s\n", name, &where);
  return st;
}

int tavrel_db_hijack_get(const tavrel_db_obj_ref& dir_elem, const char* name, tbs_oid_s* ver, tbs_oid_s* elem) {
  int st = tvr_db_in_trans(0, [&] {
    uint32_t cover = 0;
    int st = tavrel_db_cover_lookup(dir_elem, &cover);
    if (st == 0) st = tvr_db_hijack_get(cover, name, strlen(name), ver, elem);
    return st;
  });
  const std::string where = oid_text(dir_elem.oid);
  if (st != TBS_ST_BAD_ARG) report(st, "View_db_get_hijack of %s in %s: %s\n", name, &where);
  return st;
}

namespace {

// Clears the hijack of `name` in the cover of `dir_elem`; *cover receives the cover.
int unhijack_in_trans(const tavrel_db_obj_ref& dir_elem, const char* name, size_t len, uint32_t* cover) {
  int st = tavrel_db_cover_lookup(dir_elem, cover);
  uint32_t state = 0;
  if (st == 0) st = tvr_db_dir_entry_lookup(*cover, name, len, nullptr, &state);
  if (st != 0) return st;
  if ((state & TVR_DB_NS_HIJACKED) == 0) return TBS_ST_NOT_FOUND;
  state &= ~(TVR_DB_NS_HIJACKED | TVR_DB_NS_HIJACK_PART);
  st = tvr_db_dir_entry_state_set(*cover, name, len, state);
  if (st != 0 || (state & TVR_DB_NS_HIJACK_OIDS) == 0) return st;
  st = tvr_db_hijack(*cover, name, len, nullptr, nullptr);
  if (st == 0) st = tvr_db_dir_entry_state_set(*cover, name, len, state & ~TVR_DB_NS_HIJACK_OIDS);
  return st;
}

}  // namespace

int tavrel_db_unhijack(const tavrel_db_obj_ref& dir_elem, const char* name) {
  uint32_t cover = 0;
  int st = tvr_db_in_trans(1, [&] { return unhijack_in_trans(dir_elem, name, strlen(name), &cover); });
  const std::string where = oid_text(dir_elem.oid);
  report(st, "View_db_unhijack of %s in %s: %s\n", name, &where);
  return st;
}

int tavrel_db_remove_hijack(uint32_t session, const tavrel_db_obj_ref& dir_elem, const char* name) {
  const size_t len = strlen(name);
  int st = tvr_db_in_trans(1, [&] {
    uint32_t cover = 0, inode = 0, nlink = 0;
    int st = unhijack_in_trans(dir_elem, name, len, &cover);
    if (st == 0) st = tvr_db_unlink(cover, name, len, 0, nullptr, &inode, &nlink);
    if (st != 0 || inode == 0 || nlink != 0) return st;
    tbs_fstat_db_s f;
    st = tvr_db_inode_read(inode, nullptr, nullptr, &f, nullptr, nullptr);
    if (st == 0 && f.type != TBS_FTYPE_DIR) st = tavrel_db_inode_delete(session, inode, f.type, nullptr);
    return st;
  });
  const std::string where = oid_text(dir_elem.oid);
  report(st, "View_db_rmhijack of %s in %s: %s\n", name, &where);
  return st;
}

// ---- unique rename ---------------------------------------------------------------------------------------------

int tavrel_db_rename_unique(uint32_t dir, const char* name, const char* suffix, std::string* out) {
  out->clear();
  const std::string old_name = name;
  std::string fresh;
  int st = tvr_db_in_trans(1, [&] {
    uint32_t state = 0;
    int st = tvr_db_dir_entry_lookup(dir, old_name.data(), old_name.size(), nullptr, &state);
    if (st != 0) return st;
    for (int n = 1;; n++) {
      fresh = old_name + suffix + "." + std::to_string(n);
      if (fresh.size() > UNIQUE_NAME_MAX) return static_cast<int>(TBS_ST_TOO_LONG);
      st = tvr_db_dir_entry_lookup(dir, fresh.data(), fresh.size(), nullptr, nullptr);
      if (st == TBS_ST_NOT_FOUND) break;
      if (st != 0) return st;
    }
    st = move_name(dir, old_name, dir, fresh, state & ~TVR_DB_NS_HIJACK_PART);
    if (st == 0) st = touch_dir(dir);
    return st;
  });
  if (st == 0) *out = fresh;
  const std::string where = dbid_text(dir);
  report(st, "View_db_unhijack of %s in %s: %s\n", old_name, &where);
  return st;
}
