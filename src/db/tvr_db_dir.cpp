// Directory bodies, names, readdir, link/unlink, hijack marks and name inventories (tvr_db_dir.h).
#include "db/tvr_db_dir.h"

#include <algorithm>
#include <cstring>

#include "db/rec/dt.h"
#include "db/tavrel_engine_db.h"
#include "db/tavrel_engine_utls.h"
#include "db/tvr_db_bytes.h"
#include "db/tvr_db_inode.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_store.h"

namespace {

DB_TASK* task() { return view_db_task; }

// A directory inode and its body.
struct dir_ref {
  DB_ADDR inode = 0;
  DB_ADDR body = 0;
  DB_ADDR silo = 0;
};

// The DB_DIR member of inode `inode`, 0 when it has none.
int find_body(DB_ADDR inode, DB_ADDR* body) {
  *body = 0;
  int st = dt_csoset(INODE_OID_SET, &inode, task(), -1);
  if (st != 0) return tvr_engine_err("D_CSOSET", "INODE_OID_SET", st);
  for (st = dt_findfm(INODE_OID_SET, task(), -1); st == 0; st = dt_findnm(INODE_OID_SET, task(), -1)) {
    int type = 0;
    st = dt_crtype(&type, task(), -1);
    if (st != 0) return tvr_engine_err("D_CRTYPE", "INODE_OID_SET", st);
    if (type == DB_DIR) {
      st = dt_crget(body, task(), -1);
      if (st != 0) return tvr_engine_err("D_CRGET", "DB_DIR", st);
      return 0;
    }
  }
  if (st != S_EOS) return tvr_engine_err("D_FINDNM", "INODE_OID_SET", st);
  return 0;
}

int open_dir(uint32_t dbid, dir_ref* d) {
  int st = tvr_db_handle_row(dbid, DB_INODE, &d->inode);
  if (st != 0) return st;
  st = dt_crread(INODE_SILO_DBA, &d->silo, task(), -1);
  if (st != 0) return tvr_engine_err("D_CRREAD", "DB_INODE", st);
  st = find_body(d->inode, &d->body);
  if (st != 0) return st;
  return d->body == 0 ? TBS_ST_NOT_FOUND : 0;
}

// The name row `name` of directory inode `dir`: 0 and *entry, or 1002.
int find_entry(DB_ADDR dir, const char* name, size_t len, DB_ADDR* entry, db_dir_ent* row) {
  const key_dir_hash key{dir, tvr_db_hash_name(name, len)};
  int st = dt_keyfind(DIR_ENT_KEY, &key, task(), -1);
  while (st == 0) {
    DB_ADDR at = 0;
    st = dt_crget(&at, task(), -1);
    if (st == 0) st = dt_recread(row, task(), -1);
    if (st != 0) return tvr_engine_err("D_RECREAD", "DB_DIR_ENT", st);
    if (row->dir_ent_dir_dba != key.dir_dba || row->dir_ent_hash != key.hash) return TBS_ST_NOT_FOUND;
    if (row->dir_ent_name_len == len &&
        std::memcmp(row->dir_ent_name, name, std::min<size_t>(len, DIR_ENT_NAME_INLINE)) == 0) {
      int differ = 0;
      if (len > DIR_ENT_NAME_INLINE) {
        st = tvr_db_bytes_cmp(at, row->dir_ent_bytes_dba, name + DIR_ENT_NAME_INLINE, len - DIR_ENT_NAME_INLINE,
                              &differ);
        if (st != 0) return st;
      }
      if (differ == 0) {
        *entry = at;
        return 0;
      }
    }
    st = dt_keynext(DIR_ENT_KEY, task(), -1);
  }
  if (st != S_NOTFOUND) return tvr_engine_err("D_KEYNEXT", "DB_DIR_ENT", st);
  return TBS_ST_NOT_FOUND;
}

// The inode a name row is connected to (0 for none).
int entry_inode(DB_ADDR entry, DB_ADDR* inode) {
  *inode = 0;
  int st = dt_crset(&entry, task(), -1);
  if (st != 0) return tvr_engine_err("D_CRSET", "DB_DIR_ENT", st);
  st = dt_ismember(INODE_OID_SET, task(), -1);
  if (st == 1) return 0;
  if (st != 0) return tvr_engine_err("D_ISMEMBER", "INODE_OID_SET", st);
  st = dt_setmr(INODE_OID_SET, task(), -1);
  if (st == 0) st = dt_csoget(INODE_OID_SET, inode, task(), -1);
  if (st != 0) return tvr_engine_err("D_CSOGET", "INODE_OID_SET", st);
  return 0;
}

int connect_to_inode(DB_ADDR entry, DB_ADDR inode) {
  int st = dt_csoset(INODE_OID_SET, &inode, task(), -1);
  if (st == 0) st = dt_crset(&entry, task(), -1);
  if (st == 0) st = dt_connect(INODE_OID_SET, task(), -1);
  if (st != 0) return tvr_engine_err("D_CONNECT", "INODE_OID_SET", st);
  return 0;
}

int check_name(size_t len) {
  if (len == 0) return TBS_ST_BAD_ARG;
  if (len > TVR_DB_MAX_NAME) return TBS_ST_TOO_LONG;
  return 0;
}

// Creates the name; *created tells whether a new row was made (not an existing one taken over).
int entry_create(uint32_t dir, const char* name, size_t len, uint32_t inode, uint32_t state, uint32_t* offset,
                 bool* created) {
  *created = false;
  int st = check_name(len);
  if (st != 0) return st;
  DB_ADDR inode_dba = 0;
  if (inode != 0) {
    st = tvr_db_dbid_to_dba(inode, &inode_dba);
    if (st != 0) return st;
  }
  dir_ref d;
  st = open_dir(dir, &d);
  if (st != 0) return st;
  DB_ADDR entry = 0;
  db_dir_ent row;
  st = find_entry(d.inode, name, len, &entry, &row);
  if (st == 0) {
    DB_ADDR current = 0;
    if (inode_dba == 0) return TBS_ST_EXISTS;
    st = entry_inode(entry, &current);
    if (st != 0) return st;
    if (current != 0) return TBS_ST_EXISTS;
    const uint16_t bits = tvr_db_name_state_to_bits(state);
    st = dt_crwrite(DIR_ENT_NAME_STATE, &bits, task(), -1);
    if (st != 0) return tvr_engine_err("D_CRWRITE", "DB_DIR_ENT", st);
    st = connect_to_inode(entry, inode_dba);
    if (st != 0) return st;
    if (offset != nullptr) *offset = row.dir_ent_offset;
    return 0;
  }
  if (st != TBS_ST_NOT_FOUND) return st;

  row = db_dir_ent{};
  row.dir_ent_dir_dba = d.inode;
  row.dir_ent_silo_dba = d.silo;
  row.dir_ent_hash = tvr_db_hash_name(name, len);
  row.dir_ent_name_state = tvr_db_name_state_to_bits(state);
  row.dir_ent_name_len = static_cast<uint16_t>(len);
  std::memcpy(row.dir_ent_name, name, std::min<size_t>(len, DIR_ENT_NAME_INLINE));
  row.dir_ent_offset = 2;
  st = dt_csoset(DIR_ENT_SET, &d.body, task(), -1);
  if (st != 0) return tvr_engine_err("D_CSOSET", "DIR_ENT_SET", st);
  st = dt_findlm(DIR_ENT_SET, task(), -1);
  if (st == 0) {
    uint32_t last = 0;
    st = dt_crread(DIR_ENT_OFFSET, &last, task(), -1);
    if (st != 0) return tvr_engine_err("D_CRREAD", "DB_DIR_ENT", st);
    row.dir_ent_offset = last + 1;
  } else if (st != S_EOS) {
    return tvr_engine_err("D_FINDLM", "DIR_ENT_SET", st);
  }
  st = dt_fillnew(DB_DIR_ENT, &row, task(), -1);
  if (st != 0) return tvr_engine_err("D_FILLNEW", "DB_DIR_ENT", st);
  st = dt_crget(&entry, task(), -1);
  if (st != 0) return tvr_engine_err("D_CRGET", "DB_DIR_ENT", st);
  if (len > DIR_ENT_NAME_INLINE) {
    DB_ADDR chain = 0;
    st = tvr_db_bytes_create(entry, name + DIR_ENT_NAME_INLINE, len - DIR_ENT_NAME_INLINE, &chain);
    if (st != 0) return st;
    st = dt_crwrite(DIR_ENT_BYTES_DBA, &chain, task(), -1);
    if (st != 0) return tvr_engine_err("D_CRWRITE", "DB_DIR_ENT", st);
  }
  st = dt_connect(DIR_ENT_SET, task(), -1);
  if (st != 0) return tvr_engine_err("D_CONNECT", "DIR_ENT_SET", st);
  if (inode_dba != 0) {
    st = connect_to_inode(entry, inode_dba);
    if (st != 0) return st;
  }
  *created = true;
  if (offset != nullptr) *offset = row.dir_ent_offset;
  return 0;
}

uint32_t visible_state(const db_dir_ent& row, DB_ADDR inode) {
  uint32_t state = tvr_db_name_state_from_bits(row.dir_ent_name_state);
  if (inode == 0) state |= TVR_DB_NS_WHITE_OUT;
  return state;
}

// Silo filter of the inventories: 0 = any silo; -1 (as *silo_dba stays 0xffffffff) when the UUID is
// unknown, so that nothing matches.
int silo_filter(const tbs_uuid_s* silo, DB_ADDR* silo_dba, bool* none) {
  *silo_dba = 0;
  *none = false;
  if (silo == nullptr) return 0;
  uint32_t dbid = 0;
  int st = tvr_db_silo_lookup(*silo, &dbid);
  if (st == TBS_ST_NOT_FOUND) {
    *none = true;
    return 0;
  }
  if (st != 0) return st;
  return tvr_db_dbid_to_dba(dbid, silo_dba);
}

}  // namespace

int tvr_db_dir_entry_name(DB_ADDR dba, const db_dir_ent& row, std::string* name) {
  name->assign(row.dir_ent_name, std::min<size_t>(row.dir_ent_name_len, DIR_ENT_NAME_INLINE));
  if (row.dir_ent_name_len > DIR_ENT_NAME_INLINE) {
    name->resize(row.dir_ent_name_len);
    return tvr_db_bytes_read(dba, row.dir_ent_bytes_dba, name->data() + DIR_ENT_NAME_INLINE,
                             row.dir_ent_name_len - DIR_ENT_NAME_INLINE);
  }
  return 0;
}

int tvr_db_dir_create(uint32_t dbid) {
  tvr_db_trans_write_check();
  DB_ADDR inode = 0, body = 0;
  int st = tvr_db_handle_row(dbid, DB_INODE, &inode);
  if (st != 0) return st;
  st = find_body(inode, &body);
  if (st != 0) return st;
  if (body != 0) return TBS_ST_EXISTS;
  const db_dir row{0};
  st = dt_fillnew(DB_DIR, &row, task(), -1);
  if (st != 0) return tvr_engine_err("D_FILLNEW", "DB_DIR", st);
  st = dt_csoset(INODE_OID_SET, &inode, task(), -1);
  if (st == 0) st = dt_connect(INODE_OID_SET, task(), -1);
  if (st != 0) return tvr_engine_err("D_CONNECT", "INODE_OID_SET", st);
  st = dt_setor(DIR_ENT_SET, task(), -1);
  if (st != 0) return tvr_engine_err("D_SETOR", "DIR_ENT_SET", st);
  return 0;
}

int tvr_db_dir_lookup(uint32_t dbid) {
  tvr_db_trans_read_check();
  dir_ref d;
  int st = open_dir(dbid, &d);
  if (st != 0) return st;
  st = dt_csoset(DIR_ENT_SET, &d.body, task(), -1);
  if (st != 0) return tvr_engine_err("D_CSOSET", "DIR_ENT_SET", st);
  return 0;
}

int tvr_db_dir_empty(uint32_t dbid) {
  tvr_db_trans_read_check();
  int st = tvr_db_dir_lookup(dbid);
  if (st != 0) return st;
  long count = 0;
  st = dt_members(DIR_ENT_SET, &count, task(), -1);
  if (st != 0) return tvr_engine_err("D_MEMBERS", "DIR_ENT_SET", st);
  return count > 0 ? TBS_ST_NOT_EMPTY : 0;
}

int tvr_db_dir_entry_create(uint32_t dir, const char* name, size_t len, uint32_t inode, uint32_t state,
                            uint32_t* offset) {
  tvr_db_trans_write_check();
  bool created = false;
  return entry_create(dir, name, len, inode, state, offset, &created);
}

int tvr_db_dir_entry_lookup(uint32_t dir, const char* name, size_t len, uint32_t* dbid, uint32_t* state) {
  tvr_db_trans_read_check();
  if (len > TVR_DB_MAX_NAME) return TBS_ST_TOO_LONG;
  DB_ADDR d = 0, entry = 0, inode = 0;
  int st = tvr_db_handle_row(dir, DB_INODE, &d);
  if (st != 0) return st;
  db_dir_ent row;
  st = find_entry(d, name, len, &entry, &row);
  if (st != 0) return st;
  st = entry_inode(entry, &inode);
  if (st != 0) return st;
  if (dbid != nullptr) *dbid = tvr_db_dba_to_dbid(inode);
  if (state != nullptr) *state = visible_state(row, inode);
  return 0;
}

int tvr_db_dir_entry_delete(uint32_t dir, const char* name, size_t len, int keep_row, uint32_t* dbid) {
  tvr_db_trans_write_check();
  DB_ADDR d = 0, entry = 0, inode = 0;
  int st = tvr_db_handle_row(dir, DB_INODE, &d);
  if (st != 0) return st;
  db_dir_ent row;
  st = find_entry(d, name, len, &entry, &row);
  if (st != 0) return st;
  st = entry_inode(entry, &inode);  // leaves the row current and, if connected, its current member
  if (st != 0) return st;
  if (dbid != nullptr) *dbid = tvr_db_dba_to_dbid(inode);
  if (keep_row) {
    if (inode == 0) return 0;
    st = dt_discon(INODE_OID_SET, task(), -1);
    if (st != 0) return tvr_engine_err("D_DISCON", "INODE_OID_SET", st);
    return 0;
  }
  st = tvr_db_bytes_delete(row.dir_ent_bytes_dba);
  if (st != 0) return st;
  st = dt_crset(&entry, task(), -1);
  if (st == 0) st = dt_disdel(task(), -1);
  if (st != 0) return tvr_engine_err("D_DISDEL", "DB_DIR_ENT", st);
  return 0;
}

int tvr_db_dir_entry_state_set(uint32_t dir, const char* name, size_t len, uint32_t state) {
  tvr_db_trans_write_check();
  DB_ADDR d = 0, entry = 0;
  int st = tvr_db_handle_row(dir, DB_INODE, &d);
  if (st != 0) return st;
  db_dir_ent row;
  st = find_entry(d, name, len, &entry, &row);
  if (st != 0) return st;
  const uint16_t bits = tvr_db_name_state_to_bits(state);
  st = dt_crset(&entry, task(), -1);
  if (st == 0) st = dt_crwrite(DIR_ENT_NAME_STATE, &bits, task(), -1);
  if (st != 0) return tvr_engine_err("D_CRWRITE", "DB_DIR_ENT", st);
  return 0;
}

int tvr_db_readdir(uint32_t dir, uint32_t cookie, void* buffer, size_t size, size_t* used, int* eof) {
  tvr_db_trans_read_check();
  *used = 0;
  *eof = 0;
  if (cookie > 0x3fffffffu) cookie -= TVR_DB_COOKIE_BASE;
  dir_ref d;
  int st = open_dir(dir, &d);
  if (st != 0) return st;
  st = dt_csoset(DIR_ENT_SET, &d.body, task(), -1);
  if (st != 0) return tvr_engine_err("D_CSOSET", "DIR_ENT_SET", st);
  char* out = static_cast<char*>(buffer);
  for (st = dt_findfm(DIR_ENT_SET, task(), -1); st == 0; st = dt_findnm(DIR_ENT_SET, task(), -1)) {
    DB_ADDR entry = 0;
    db_dir_ent row;
    st = dt_crget(&entry, task(), -1);
    if (st == 0) st = dt_recread(&row, task(), -1);
    if (st != 0) return tvr_engine_err("D_RECREAD", "DB_DIR_ENT", st);
    if (row.dir_ent_offset <= cookie) continue;
    const size_t need = VIEW_DB_READDIR_ENTRY_SIZE(row.dir_ent_name_len);
    if (*used + need > size) return *used == 0 ? TBS_ST_TOO_LONG : 0;
    DB_ADDR inode = 0;
    st = entry_inode(entry, &inode);
    if (st != 0) return st;
    uint32_t mtype = 0;
    if (inode != 0) {
      st = dt_crset(&inode, task(), -1);
      if (st == 0) st = dt_crread(INODE_MTYPE, &mtype, task(), -1);
      if (st != 0) return tvr_engine_err("D_CRREAD", "DB_INODE", st);
    }
    std::string name;
    st = tvr_db_dir_entry_name(entry, row, &name);
    if (st != 0) return st;
    char* e = out + *used;
    std::memset(e, 0, need);
    const uint32_t head[4] = {tvr_db_dba_to_dbid(inode), mtype, row.dir_ent_offset + TVR_DB_COOKIE_BASE,
                              visible_state(row, inode)};
    std::memcpy(e, head, sizeof head);
    std::memcpy(e + 16, &row.dir_ent_name_len, 2);
    std::memcpy(e + VIEW_DB_READDIR_ENTRY_NAME_OFFSET, name.data(), name.size());
    *used += need;
  }
  if (st != S_EOS) return tvr_engine_err("D_FINDNM", "DIR_ENT_SET", st);
  *eof = 1;
  return 0;
}

int tvr_db_find_parent(uint32_t dbid, uint32_t* parent, std::string* name) {
  tvr_db_trans_read_check();
  DB_ADDR inode = 0;
  int st = tvr_db_handle_row(dbid, DB_INODE, &inode);
  if (st != 0) return st;
  st = dt_setor(INODE_OID_SET, task(), -1);
  if (st != 0) return tvr_engine_err("D_SETOR", "INODE_OID_SET", st);
  for (st = dt_findfm(INODE_OID_SET, task(), -1); st == 0; st = dt_findnm(INODE_OID_SET, task(), -1)) {
    int type = 0;
    st = dt_crtype(&type, task(), -1);
    if (st != 0) return tvr_engine_err("D_CRTYPE", "INODE_OID_SET", st);
    if (type != DB_DIR_ENT) continue;
    DB_ADDR entry = 0;
    db_dir_ent row;
    st = dt_crget(&entry, task(), -1);
    if (st == 0) st = dt_recread(&row, task(), -1);
    if (st != 0) return tvr_engine_err("D_RECREAD", "DB_DIR_ENT", st);
    if (parent != nullptr) *parent = tvr_db_dba_to_dbid(row.dir_ent_dir_dba);
    return name != nullptr ? tvr_db_dir_entry_name(entry, row, name) : 0;
  }
  if (st != S_EOS) return tvr_engine_err("D_FINDNM", "INODE_OID_SET", st);
  return TBS_ST_NOT_FOUND;
}

int tvr_db_link(uint32_t dir, const char* name, size_t len, uint32_t inode, uint32_t state,
                tbs_fstat_db_s* dir_fstat, tbs_fstat_db_s* fstat, int keep_times, const struct timeval* modtime,
                uint32_t* offset) {
  tvr_db_trans_write_check();
  int st = check_name(len);
  if (st != 0) return st;
  bool created = false;
  st = entry_create(dir, name, len, inode, state, offset, &created);
  if (st != 0) return st;
  tbs_fstat_db_s df;
  st = tvr_db_inode_read(dir, nullptr, nullptr, &df, nullptr, nullptr);
  if (st != 0) return st;
  if (created) df.size += len + TVR_DB_DIR_NAME_OVERHEAD;
  if (inode != 0) {
    tbs_fstat_db_s f;
    st = tvr_db_inode_read(inode, nullptr, nullptr, &f, nullptr, nullptr);
    if (st != 0) return st;
    if (f.type == TBS_FTYPE_DIR) df.nlink++;
    f.nlink++;
    if (!keep_times) {
      struct timeval now;
      tvr_db_view_time(&now);
      f.ctime = now;
    }
    st = tvr_db_inode_rewrite(inode, f);
    if (st != 0) return st;
    if (fstat != nullptr) *fstat = f;
  }
  if (!keep_times) {
    tvr_db_fix_dir_modtime(modtime, &df.mtime);
    df.ctime = df.mtime;
  }
  st = tvr_db_inode_rewrite(dir, df);
  if (st != 0) return st;
  if (dir_fstat != nullptr) *dir_fstat = df;
  return 0;
}

int tvr_db_unlink(uint32_t dir, const char* name, size_t len, uint32_t state, tbs_fstat_db_s* dir_fstat,
                  uint32_t* inode, uint32_t* nlink) {
  tvr_db_trans_write_check();
  const bool keep_row = (state & (TVR_DB_NS_HIJACK_PART | TVR_DB_NS_HIJACK_OIDS)) != 0;
  uint32_t target = 0;
  int st = tvr_db_dir_entry_lookup(dir, name, len, &target, nullptr);
  if (st != 0) return st;
  tbs_fstat_db_s f{};
  if (target != 0) {
    st = tvr_db_inode_read(target, nullptr, nullptr, &f, nullptr, nullptr);
    if (st != 0) return st;
    if (f.type == TBS_FTYPE_DIR) {
      st = tvr_db_dir_empty(target);
      if (st != 0 && st != TBS_ST_NOT_FOUND) return st;
    }
  }
  st = tvr_db_dir_entry_delete(dir, name, len, keep_row, nullptr);
  if (st != 0) return st;
  if (keep_row) {
    st = tvr_db_dir_entry_state_set(dir, name, len, state);
    if (st != 0) return st;
  }
  tbs_fstat_db_s df;
  st = tvr_db_inode_read(dir, nullptr, nullptr, &df, nullptr, nullptr);
  if (st != 0) return st;
  struct timeval now;
  tvr_db_view_time(&now);
  if (target != 0) {
    if (f.type == TBS_FTYPE_DIR && df.nlink > 0) df.nlink--;
    if (f.nlink > 0) f.nlink--;
    f.ctime = now;
    st = tvr_db_inode_rewrite(target, f);
    if (st != 0) return st;
  }
  if (!keep_row) df.size -= std::min<uint64_t>(df.size, len + TVR_DB_DIR_NAME_OVERHEAD);
  tvr_db_fix_dir_modtime(nullptr, &df.mtime);
  df.ctime = df.mtime;
  st = tvr_db_inode_rewrite(dir, df);
  if (st != 0) return st;
  if (dir_fstat != nullptr) *dir_fstat = df;
  if (inode != nullptr) *inode = target;
  if (nlink != nullptr) *nlink = f.nlink;
  return 0;
}

int tvr_db_hijack(uint32_t dir, const char* name, size_t len, const tbs_oid_s* ver, const tbs_oid_s* elem) {
  tvr_db_trans_write_check();
  const bool ver_null = ver == nullptr || tbs_oid_is_null(*ver);
  const bool elem_null = elem == nullptr || tbs_oid_is_null(*elem);
  DB_ADDR d = 0, entry = 0;
  int st = tvr_db_handle_row(dir, DB_INODE, &d);
  if (st != 0) return st;
  db_dir_ent row;
  st = find_entry(d, name, len, &entry, &row);
  if (st != 0) return st;
  const bool marked = (tvr_db_name_state_from_bits(row.dir_ent_name_state) & TVR_DB_NS_HIJACK_OIDS) != 0;
  const bool clearing = ver_null && elem_null;
  if (ver_null != elem_null || (clearing && !marked)) return TBS_ST_BAD_ARG;
  row.dir_ent_hijack_ver = clearing ? TBS_OID_NULL : *ver;
  row.dir_ent_hijack_elem = clearing ? TBS_OID_NULL : *elem;
  st = dt_crset(&entry, task(), -1);
  if (st == 0) st = dt_recwrite(&row, task(), -1);
  if (st != 0) return tvr_engine_err("D_RECWRITE", "DB_DIR_ENT", st);
  st = clearing ? dt_keydel(DIR_ENT_HIJACK_KEY, task(), -1) : dt_keystore(DIR_ENT_HIJACK_KEY, task(), -1);
  if (st != 0) return tvr_engine_err(clearing ? "D_KEYDEL" : "D_KEYSTORE", "DB_DIR_ENT", st);
  return 0;
}

int tvr_db_hijack_get(uint32_t dir, const char* name, size_t len, tbs_oid_s* ver, tbs_oid_s* elem) {
  tvr_db_trans_read_check();
  DB_ADDR d = 0, entry = 0;
  int st = tvr_db_handle_row(dir, DB_INODE, &d);
  if (st != 0) return st;
  db_dir_ent row;
  st = find_entry(d, name, len, &entry, &row);
  if (st != 0) return st;
  if ((tvr_db_name_state_from_bits(row.dir_ent_name_state) & TVR_DB_NS_HIJACK_OIDS) == 0) return TBS_ST_BAD_ARG;
  if (ver != nullptr) *ver = row.dir_ent_hijack_ver;
  if (elem != nullptr) *elem = row.dir_ent_hijack_elem;
  return 0;
}

int tvr_db_has_hijacks(int* has) {
  tvr_db_trans_read_check();
  *has = 0;
  int st = dt_keylast(DIR_ENT_HIJACK_KEY, task(), -1);
  while (st == 0) {
    tbs_oid_s ver;
    st = dt_crread(DIR_ENT_HIJACK_VER, &ver, task(), -1);
    if (st != 0) return tvr_engine_err("D_CRREAD", "DB_DIR_ENT", st);
    if (!tbs_oid_is_null(ver)) {
      *has = 1;
      return 0;
    }
    st = dt_keyprev(DIR_ENT_HIJACK_KEY, task(), -1);
  }
  if (st != S_NOTFOUND) return tvr_engine_err("D_KEYPREV", "DB_DIR_ENT", st);
  return 0;
}

int tvr_db_find_hijacks(const tbs_uuid_s* silo, std::vector<tvr_db_hijack_info>* out) {
  tvr_db_trans_read_check();
  out->clear();
  DB_ADDR silo_dba = 0;
  bool none = false;
  int st = silo_filter(silo, &silo_dba, &none);
  if (st != 0 || none) return st;
  // Collect first: naming each row walks other keys and sets.
  std::vector<DB_ADDR> rows;
  const key_hijack low{TBS_OID_NULL};
  st = dt_keyfind(DIR_ENT_HIJACK_KEY, &low, task(), -1);
  if (st == S_NOTFOUND) st = dt_keynext(DIR_ENT_HIJACK_KEY, task(), -1);
  while (st == 0) {
    DB_ADDR at = 0;
    st = dt_crget(&at, task(), -1);
    if (st != 0) return tvr_engine_err("D_CRGET", "DB_DIR_ENT", st);
    rows.push_back(at);
    st = dt_keynext(DIR_ENT_HIJACK_KEY, task(), -1);
  }
  if (st != S_NOTFOUND) return tvr_engine_err("D_KEYNEXT", "DB_DIR_ENT", st);
  for (DB_ADDR at : rows) {
    db_dir_ent row;
    st = tvr_db_read_row(at, &row, "DB_DIR_ENT");
    if (st != 0) return st;
    if (tbs_oid_is_null(row.dir_ent_hijack_ver)) continue;
    if (silo != nullptr && row.dir_ent_silo_dba != silo_dba) continue;
    tvr_db_hijack_info info;
    info.ver = row.dir_ent_hijack_ver;
    info.elem = row.dir_ent_hijack_elem;
    st = tvr_db_inode_get_dir_name(at, &info.name, &info.parent);
    if (st != 0) return st;
    out->push_back(std::move(info));
  }
  return 0;
}

int tvr_db_find_privates(const tbs_uuid_s* silo, std::vector<tvr_db_private_info>* out, int dir_pass) {
  tvr_db_trans_read_check();
  out->clear();
  DB_ADDR silo_dba = 0;
  bool none = false;
  int st = silo_filter(silo, &silo_dba, &none);
  if (st != 0 || none) return st;
  const uint16_t excluded = tvr_db_name_state_to_bits(TVR_DB_NS_HIJACK_OIDS | TVR_DB_NS_HIJACKED);
  auto listed = [&](DB_ADDR entry, DB_ADDR inode, bool is_dir) -> int {
    db_dir_ent row;
    int s = tvr_db_read_row(entry, &row, "DB_DIR_ENT");
    if (s != 0) return s;
    if (row.dir_ent_name_state & excluded) return 0;
    tvr_db_private_info info;
    info.dbid = tvr_db_dba_to_dbid(inode);
    info.is_dir = is_dir;
    s = tvr_db_inode_get_dir_name(entry, &info.name, &info.parent);
    if (s != 0) return s;
    out->push_back(std::move(info));
    return 0;
  };
  // Row walks are collected before anything else moves the engine's positions.
  std::vector<std::pair<DB_ADDR, DB_ADDR>> dirs, files;  // (name row, inode)
  if (dir_pass) {
    for (st = dt_recfrst(DB_DIR_ENT, task(), -1); st == 0; st = dt_recnext(task(), -1)) {
      DB_ADDR entry = 0;
      st = dt_crget(&entry, task(), -1);
      if (st != 0) return tvr_engine_err("D_CRGET", "DB_DIR_ENT", st);
      dirs.emplace_back(entry, 0);
    }
    if (st != S_NOTFOUND) return tvr_engine_err("D_RECNEXT", "DB_DIR_ENT", st);
  }
  std::vector<DB_ADDR> inodes;
  for (st = dt_recfrst(DB_INODE, task(), -1); st == 0; st = dt_recnext(task(), -1)) {
    DB_ADDR at = 0;
    st = dt_crget(&at, task(), -1);
    if (st != 0) return tvr_engine_err("D_CRGET", "DB_INODE", st);
    inodes.push_back(at);
  }
  if (st != S_NOTFOUND) return tvr_engine_err("D_RECNEXT", "DB_INODE", st);

  auto private_inode = [&](DB_ADDR inode, db_inode* row) -> int {
    int s = tvr_db_read_row(inode, row, "DB_INODE");
    if (s != 0) return s;
    const bool mine = row->inode_mtype == 19 && (silo == nullptr || row->inode_silo_dba == silo_dba);
    return mine ? 0 : TBS_ST_NOT_FOUND;
  };
  for (auto& [entry, inode] : dirs) {
    st = entry_inode(entry, &inode);
    if (st != 0) return st;
    if (inode == 0) continue;
    db_inode row;
    st = private_inode(inode, &row);
    if (st == TBS_ST_NOT_FOUND) continue;
    if (st != 0) return st;
    if (row.inode_fstat.ftype != TBS_FTYPE_DIR) continue;
    st = listed(entry, inode, true);
    if (st != 0) return st;
  }
  for (DB_ADDR inode : inodes) {
    db_inode row;
    st = private_inode(inode, &row);
    if (st == TBS_ST_NOT_FOUND) continue;
    if (st != 0) return st;
    if (row.inode_fstat.ftype == TBS_FTYPE_DIR && dir_pass) continue;
    std::vector<DB_ADDR> names;
    st = dt_csoset(INODE_OID_SET, &inode, task(), -1);
    if (st != 0) return tvr_engine_err("D_CSOSET", "INODE_OID_SET", st);
    for (st = dt_findfm(INODE_OID_SET, task(), -1); st == 0; st = dt_findnm(INODE_OID_SET, task(), -1)) {
      int type = 0;
      DB_ADDR m = 0;
      if (dt_crtype(&type, task(), -1) != 0 || dt_crget(&m, task(), -1) != 0)
        return tvr_engine_err("D_CRTYPE", "INODE_OID_SET", db_status);
      if (type == DB_DIR_ENT) names.push_back(m);
    }
    if (st != S_EOS) return tvr_engine_err("D_FINDNM", "INODE_OID_SET", st);
    for (DB_ADDR entry : names) {
      st = listed(entry, inode, row.inode_fstat.ftype == TBS_FTYPE_DIR);
      if (st != 0) return st;
    }
  }
  return 0;
}

int tvr_db_inventory(uint32_t* cursor, size_t budget, std::vector<tvr_db_name_info>* out, int* eof) {
  tvr_db_trans_read_check();
  out->clear();
  *eof = 0;
  // Position the row walk after the cursor. The cursor's own row may have gone since the last call: then
  // the walk starts over and skips what lies at or before the cursor.
  int st;
  DB_ADDR from = *cursor;
  if (from != 0 && dt_crset(&from, task(), -1) == 0) {
    st = dt_recset(DB_DIR_ENT, task(), -1);
    if (st == 0) st = dt_recnext(task(), -1);
  } else {
    st = dt_recfrst(DB_DIR_ENT, task(), -1);
  }
  std::vector<DB_ADDR> rows;
  size_t spent = 0;
  for (; st == 0; st = dt_recnext(task(), -1)) {
    DB_ADDR at = 0;
    uint16_t len = 0;
    st = dt_crget(&at, task(), -1);
    if (st == 0) st = dt_crread(DIR_ENT_NAME_LEN, &len, task(), -1);
    if (st != 0) return tvr_engine_err("D_CRREAD", "DB_DIR_ENT", st);
    if (at <= *cursor) continue;
    const size_t cost = VIEW_DB_READDIR_ENTRY_SIZE(len) + 24;
    if (!rows.empty() && spent + cost > budget) break;
    rows.push_back(at);
    spent += cost;
  }
  if (st != 0 && st != S_NOTFOUND) return tvr_engine_err("D_RECNEXT", "DB_DIR_ENT", st);
  if (st == S_NOTFOUND) *eof = 1;
  for (DB_ADDR at : rows) {
    db_dir_ent row;
    st = tvr_db_read_row(at, &row, "DB_DIR_ENT");
    if (st != 0) return st;
    tvr_db_name_info info;
    DB_ADDR inode = 0;
    st = entry_inode(at, &inode);
    if (st != 0) return st;
    if (inode != 0) {
      db_inode irow;
      st = tvr_db_read_row(inode, &irow, "DB_INODE");
      if (st != 0) return st;
      info.oid = irow.inode_oid;
      info.mtype = static_cast<silo_mtype_t>(irow.inode_mtype);
    }
    info.dir = tvr_db_dba_to_dbid(row.dir_ent_dir_dba);
    info.inode = tvr_db_dba_to_dbid(inode);
    info.state = visible_state(row, inode);
    info.offset = row.dir_ent_offset;
    st = tvr_db_dir_entry_name(at, row, &info.name);
    if (st != 0) return st;
    out->push_back(std::move(info));
    *cursor = at;
  }
  return 0;
}
