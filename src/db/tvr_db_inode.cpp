// DB_INODE rows (tvr_db_inode.h) and the stored form of the attribute record (tbs_fstat_db.h).
#include "db/tvr_db_inode.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "base/pfm.h"
#include "db/rec/dt.h"
#include "db/tavrel_engine_db.h"
#include "db/tavrel_engine_utls.h"
#include "db/tvr_db_bytes.h"
#include "db/tvr_db_cr.h"
#include "db/tvr_db_dir.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_store.h"

void tvr_db_fstat_to_row(const tbs_fstat_db_s& f, db_fstat* row) {
  row->ftype = f.type;
  row->mode = f.mode;
  row->nlink = f.nlink;
  row->usage = f.spare;
  row->size[0] = static_cast<uint32_t>(f.size);
  row->size[1] = static_cast<uint32_t>(f.size >> 32);
  row->atime_sec = static_cast<uint32_t>(f.atime.tv_sec);
  row->atime_usec = static_cast<uint32_t>(f.atime.tv_usec);
  row->mtime_sec = static_cast<uint32_t>(f.mtime.tv_sec);
  row->mtime_usec = static_cast<uint32_t>(f.mtime.tv_usec);
  row->ctime_sec = static_cast<uint32_t>(f.ctime.tv_sec);
  row->ctime_usec = static_cast<uint32_t>(f.ctime.tv_usec);
  row->extra[0] = static_cast<uint32_t>(f.fourth_time.tv_sec);
  row->extra[1] = static_cast<uint32_t>(f.fourth_time.tv_usec);
  row->usid_len = static_cast<uint16_t>(f.owner.len);
  row->gsid_len = static_cast<uint16_t>(f.group.len);
  std::memset(row->usid, 0, sizeof row->usid);
  std::memset(row->gsid, 0, sizeof row->gsid);
  std::memcpy(row->usid, f.owner.bytes, std::min<size_t>(f.owner.len, INODE_SID_INLINE));
  std::memcpy(row->gsid, f.group.bytes, std::min<size_t>(f.group.len, INODE_SID_INLINE));
}

void tvr_db_fstat_from_row(const db_fstat& row, tbs_fstat_db_s* f) {
  *f = tbs_fstat_db_s{};
  f->type = row.ftype;
  f->mode = row.mode;
  f->nlink = row.nlink;
  f->spare = row.usage;
  f->size = (static_cast<uint64_t>(row.size[1]) << 32) | row.size[0];
  f->atime = {static_cast<time_t>(row.atime_sec), static_cast<suseconds_t>(row.atime_usec)};
  f->mtime = {static_cast<time_t>(row.mtime_sec), static_cast<suseconds_t>(row.mtime_usec)};
  f->ctime = {static_cast<time_t>(row.ctime_sec), static_cast<suseconds_t>(row.ctime_usec)};
  f->fourth_time = {static_cast<time_t>(row.extra[0]), static_cast<suseconds_t>(row.extra[1])};
  f->owner.len = std::min<uint32_t>(row.usid_len, CREDUTL_SID_MAX);
  f->group.len = std::min<uint32_t>(row.gsid_len, CREDUTL_SID_MAX);
  std::memcpy(f->owner.bytes, row.usid, std::min<size_t>(f->owner.len, INODE_SID_INLINE));
  std::memcpy(f->group.bytes, row.gsid, std::min<size_t>(f->group.len, INODE_SID_INLINE));
}

namespace {

void check_sid_lengths(const tbs_fstat_db_s& f) {
  if (static_cast<size_t>(f.owner.len) > sizeof(f.owner.bytes))
    pfm_assert_fail("(size_t)fstat->usid.length <= sizeof(fstat->usid)", __FILE__, __LINE__, nullptr);
  if (static_cast<size_t>(f.group.len) > sizeof(f.group.bytes))
    pfm_assert_fail("(size_t)fstat->gsid.length <= sizeof(fstat->gsid)", __FILE__, __LINE__, nullptr);
}

// Chains the identity tails of `f` for inode `dba` into `row` (which must hold the new lengths).
int store_sid_tails(DB_ADDR dba, const tbs_fstat_db_s& f, db_fstat* row) {
  row->usid_bytes_dba = 0;
  row->gsid_bytes_dba = 0;
  if (f.owner.len > INODE_SID_INLINE) {
    int st = tvr_db_bytes_create(dba, f.owner.bytes + INODE_SID_INLINE, f.owner.len - INODE_SID_INLINE,
                                 &row->usid_bytes_dba);
    if (st != 0) return st;
  }
  if (f.group.len > INODE_SID_INLINE) {
    int st = tvr_db_bytes_create(dba, f.group.bytes + INODE_SID_INLINE, f.group.len - INODE_SID_INLINE,
                                 &row->gsid_bytes_dba);
    if (st != 0) return st;
  }
  return 0;
}

int read_inode(uint32_t dbid, DB_ADDR* dba, db_inode* row) {
  int st = tvr_db_handle_row(dbid, DB_INODE, dba);
  if (st != 0) return st;
  st = dt_recread(row, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_RECREAD", "DB_INODE", st);
  return 0;
}

int write_inode(DB_ADDR dba, const db_inode& row) {
  int st = dt_crset(&dba, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_CRSET", "DB_INODE", st);
  st = dt_recwrite(&row, view_db_task, -1);
  if (st == S_DUPLICATE) return TBS_ST_EXISTS;
  if (st != 0) return tvr_engine_err("D_RECWRITE", "DB_INODE", st);
  return 0;
}

int ignore_not_found(int st) { return st == TBS_ST_NOT_FOUND ? 0 : st; }

// The first name row among the members of inode `inode`'s INODE_OID_SET, 0 when it has none.
int first_name_of(DB_ADDR inode, DB_ADDR* entry) {
  *entry = 0;
  int st = dt_csoset(INODE_OID_SET, &inode, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_CSOSET", "INODE_OID_SET", st);
  for (st = dt_findfm(INODE_OID_SET, view_db_task, -1); st == 0; st = dt_findnm(INODE_OID_SET, view_db_task, -1)) {
    int type = 0;
    st = dt_crtype(&type, view_db_task, -1);
    if (st != 0) return tvr_engine_err("D_CRTYPE", "INODE_OID_SET", st);
    if (type == DB_DIR_ENT) return dt_crget(entry, view_db_task, -1) == 0 ? 0 : TBS_ST_INTERNAL;
  }
  if (st != S_EOS) return tvr_engine_err("D_FINDNM", "INODE_OID_SET", st);
  return 0;
}

}  // namespace

int tvr_db_inode_create(uint32_t silo, const tbs_oid_s& oid, const tbs_fstat_db_s& fstat, silo_mtype_t mtype,
                        uint32_t* dbid, uint32_t* gen) {
  tvr_db_trans_write_check();
  check_sid_lengths(fstat);
  DB_ADDR silo_dba = 0;
  int st = tvr_db_handle_row(silo, DB_SILO, &silo_dba);
  if (st != 0) return st;
  key_silo_oid key{silo_dba, oid};
  st = dt_keyfind(INODE_KEY, &key, view_db_task, -1);
  if (st == 0) return TBS_ST_EXISTS;
  if (st != S_NOTFOUND) return tvr_engine_err("D_KEYFIND", "DB_INODE", st);

  db_silo srow;
  st = tvr_db_read_row(silo_dba, &srow, "DB_SILO");
  if (st != 0) return st;
  srow.silo_ref_cnt++;
  srow.silo_gen_num++;
  st = dt_recwrite(&srow, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_RECWRITE", "DB_SILO", st);

  db_inode row{};
  row.inode_silo_dba = silo_dba;
  row.inode_oid = oid;
  tvr_db_fstat_to_row(fstat, &row.inode_fstat);
  row.inode_mtype = static_cast<uint32_t>(mtype);
  row.inode_gen = srow.silo_gen_num;
  st = dt_fillnew(DB_INODE, &row, view_db_task, -1);
  if (st == S_DUPLICATE) return TBS_ST_EXISTS;
  if (st != 0) return tvr_engine_err("D_FILLNEW", "DB_INODE", st);
  DB_ADDR dba = 0;
  st = dt_crget(&dba, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_CRGET", "DB_INODE", st);
  if (fstat.owner.len > INODE_SID_INLINE || fstat.group.len > INODE_SID_INLINE) {
    st = store_sid_tails(dba, fstat, &row.inode_fstat);
    if (st != 0) return st;
    st = write_inode(dba, row);
    if (st != 0) return st;
  }
  st = ignore_not_found(tvr_db_cr_add_ref(oid, nullptr));
  if (st != 0) return st;
  *dbid = tvr_db_dba_to_dbid(dba);
  if (gen != nullptr) *gen = row.inode_gen;
  return 0;
}

int tvr_db_inode_read(uint32_t dbid, uint32_t* gen, tbs_oid_s* oid, tbs_fstat_db_s* fstat, silo_mtype_t* mtype,
                      uint32_t* silo) {
  tvr_db_trans_read_check();
  DB_ADDR dba = 0;
  db_inode row;
  int st = read_inode(dbid, &dba, &row);
  if (st != 0) return st;
  if (gen != nullptr) *gen = row.inode_gen;
  if (oid != nullptr) *oid = row.inode_oid;
  if (mtype != nullptr) *mtype = static_cast<silo_mtype_t>(row.inode_mtype);
  if (silo != nullptr) *silo = tvr_db_dba_to_dbid(row.inode_silo_dba);
  if (fstat != nullptr) {
    const db_fstat& r = row.inode_fstat;
    if (r.usid_len > CREDUTL_SID_MAX || r.gsid_len > CREDUTL_SID_MAX)
      return tvr_engine_err("D_RECREAD", "INODE_FSTAT", r.usid_len > CREDUTL_SID_MAX ? r.usid_len : r.gsid_len);
    tvr_db_fstat_from_row(r, fstat);
    if (r.usid_len > INODE_SID_INLINE) {
      st = tvr_db_bytes_read(dba, r.usid_bytes_dba, fstat->owner.bytes + INODE_SID_INLINE,
                             r.usid_len - INODE_SID_INLINE);
      if (st != 0) return st;
    }
    if (r.gsid_len > INODE_SID_INLINE) {
      st = tvr_db_bytes_read(dba, r.gsid_bytes_dba, fstat->group.bytes + INODE_SID_INLINE,
                             r.gsid_len - INODE_SID_INLINE);
      if (st != 0) return st;
    }
    fstat->ino = dbid;
  }
  return 0;
}

int tvr_db_inode_rewrite(uint32_t dbid, const tbs_fstat_db_s& fstat) {
  tvr_db_trans_write_check();
  check_sid_lengths(fstat);
  DB_ADDR dba = 0;
  db_inode row;
  int st = read_inode(dbid, &dba, &row);
  if (st != 0) return st;
  st = tvr_db_bytes_delete(row.inode_fstat.usid_bytes_dba);
  if (st == 0) st = tvr_db_bytes_delete(row.inode_fstat.gsid_bytes_dba);
  if (st != 0) return st;
  tvr_db_fstat_to_row(fstat, &row.inode_fstat);
  st = store_sid_tails(dba, fstat, &row.inode_fstat);
  if (st != 0) return st;
  st = dt_crset(&dba, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_CRSET", "DB_INODE", st);
  st = dt_crwrite(INODE_FSTAT, &row.inode_fstat, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_CRWRITE", "INODE_FSTAT", st);
  return 0;
}

int tvr_db_inode_set_oid(uint32_t dbid, const tbs_oid_s* oid, silo_mtype_t mtype, uint32_t session) {
  tvr_db_trans_write_check();
  DB_ADDR dba = 0;
  db_inode row;
  int st = read_inode(dbid, &dba, &row);
  if (st != 0) return st;
  const tbs_oid_s old = row.inode_oid;
  if (oid != nullptr) row.inode_oid = *oid;
  row.inode_mtype = static_cast<uint32_t>(mtype);
  struct timeval now;
  tvr_db_view_time(&now);
  row.inode_fstat.ctime_sec = static_cast<uint32_t>(now.tv_sec);
  row.inode_fstat.ctime_usec = static_cast<uint32_t>(now.tv_usec);
  st = write_inode(dba, row);
  if (st != 0) return st;
  if (row.inode_oid != old) {
    st = ignore_not_found(tvr_db_cr_rm_ref(old, session));
    if (st == 0) st = ignore_not_found(tvr_db_cr_add_ref(row.inode_oid, nullptr));
  }
  return st;
}

int tvr_db_inode_delete(uint32_t dbid, uint32_t session) {
  tvr_db_trans_write_check();
  DB_ADDR dba = 0;
  db_inode row;
  int st = read_inode(dbid, &dba, &row);
  if (st != 0) return st;
  // Collect the members first: the walk below changes the set.
  std::vector<std::pair<DB_ADDR, int>> members;
  st = dt_setor(INODE_OID_SET, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_SETOR", "INODE_OID_SET", st);
  for (st = dt_findfm(INODE_OID_SET, view_db_task, -1); st == 0; st = dt_findnm(INODE_OID_SET, view_db_task, -1)) {
    DB_ADDR m = 0;
    int type = 0;
    if (dt_crget(&m, view_db_task, -1) != 0 || dt_crtype(&type, view_db_task, -1) != 0)
      return tvr_engine_err("D_CRTYPE", "INODE_OID_SET", db_status);
    members.emplace_back(m, type);
  }
  if (st != S_EOS) return tvr_engine_err("D_FINDNM", "INODE_OID_SET", st);
  for (const auto& [m, type] : members) {
    if (type == DB_DIR) {
      DB_ADDR body = m;
      st = dt_csoset(DIR_ENT_SET, &body, view_db_task, -1);
      if (st != 0) return tvr_engine_err("D_CSOSET", "DIR_ENT_SET", st);
      while ((st = dt_findfm(DIR_ENT_SET, view_db_task, -1)) == 0) {
        DB_ADDR chain = 0;
        st = dt_crread(DIR_ENT_BYTES_DBA, &chain, view_db_task, -1);
        if (st != 0) return tvr_engine_err("D_CRREAD", "DB_DIR_ENT", st);
        st = tvr_db_bytes_delete(chain);  // keeps the current record: the name row
        if (st != 0) return st;
        st = dt_disdel(view_db_task, -1);
        if (st != 0) return tvr_engine_err("D_DISDEL", "DB_DIR_ENT", st);
      }
      if (st != S_EOS) return tvr_engine_err("D_FINDFM", "DIR_ENT_SET", st);
      st = dt_crset(&body, view_db_task, -1);
      if (st == 0) st = dt_disdel(view_db_task, -1);
      if (st != 0) return tvr_engine_err("D_DISDEL", "DB_DIR", st);
    } else if (type == DB_DIR_ENT) {
      // A name elsewhere still points here: it stays, without an inode.
      DB_ADDR e = m;
      st = dt_crset(&e, view_db_task, -1);
      if (st == S_DELETED) continue;  // it was a name inside the directory body just emptied
      if (st == 0) st = dt_setmr(INODE_OID_SET, view_db_task, -1);
      if (st == 0) st = dt_discon(INODE_OID_SET, view_db_task, -1);
      if (st != 0) return tvr_engine_err("D_DISCON", "INODE_OID_SET", st);
    } else {
      return tvr_engine_err("D_CRTYPE", "INODE_OID_SET", type);
    }
  }
  st = dt_crset(&dba, view_db_task, -1);
  if (st == 0) st = dt_disdel(view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_DISDEL", "DB_INODE", st);
  st = ignore_not_found(tvr_db_cr_rm_ref(row.inode_oid, session));
  if (st == 0) st = tvr_db_bytes_delete(row.inode_fstat.usid_bytes_dba);
  if (st == 0) st = tvr_db_bytes_delete(row.inode_fstat.gsid_bytes_dba);
  if (st == 0) st = tvr_db_bytes_delete(row.inode_text_dba);
  if (st == 0 && row.inode_silo_dba != 0) st = tvr_db_silo_rm_ref(row.inode_silo_dba);
  return st;
}

int tvr_db_inode_read_text(uint32_t dbid, char* buffer, size_t size) {
  tvr_db_trans_read_check();
  DB_ADDR dba = 0;
  db_inode row;
  int st = read_inode(dbid, &dba, &row);
  if (st != 0) return st;
  if (static_cast<size_t>(row.inode_text_len) >= size) return TBS_ST_TOO_LONG;
  std::memcpy(buffer, row.inode_text, std::min<size_t>(row.inode_text_len, INODE_TEXT_INLINE));
  if (row.inode_text_len > INODE_TEXT_INLINE) {
    st = tvr_db_bytes_read(dba, row.inode_text_dba, buffer + INODE_TEXT_INLINE,
                           row.inode_text_len - INODE_TEXT_INLINE);
    if (st != 0) return st;
  }
  buffer[row.inode_text_len] = '\0';
  return 0;
}

int tvr_db_inode_write_text(uint32_t dbid, const char* text) {
  tvr_db_trans_write_check();
  const size_t len = std::strlen(text);
  if (len > 0xffff) return TBS_ST_TOO_LONG;
  DB_ADDR dba = 0;
  db_inode row;
  int st = read_inode(dbid, &dba, &row);
  if (st != 0) return st;
  st = tvr_db_bytes_delete(row.inode_text_dba);
  if (st != 0) return st;
  row.inode_text_dba = 0;
  row.inode_text_len = static_cast<uint16_t>(len);
  std::memset(row.inode_text, 0, sizeof row.inode_text);
  std::memcpy(row.inode_text, text, std::min<size_t>(len, INODE_TEXT_INLINE));
  if (len > INODE_TEXT_INLINE) {
    st = tvr_db_bytes_create(dba, text + INODE_TEXT_INLINE, len - INODE_TEXT_INLINE, &row.inode_text_dba);
    if (st != 0) return st;
  }
  return write_inode(dba, row);
}

int tvr_db_inode_lookup(uint32_t silo, const tbs_oid_s& oid, uint32_t* dbid) {
  tvr_db_trans_read_check();
  key_silo_oid key{0, oid};
  if (silo != 0) {
    int st = tvr_db_dbid_to_dba(silo, &key.silo_dba);
    if (st != 0) return st;
  }
  int st = dt_keyfind(INODE_KEY, &key, view_db_task, -1);
  if (st == S_NOTFOUND) return TBS_ST_NOT_FOUND;
  if (st != 0) return tvr_engine_err("D_KEYFIND", "DB_INODE", st);
  DB_ADDR dba = 0;
  st = dt_crget(&dba, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_CRGET", "DB_INODE", st);
  *dbid = tvr_db_dba_to_dbid(dba);
  return 0;
}

int tvr_db_inode_inventory(uint32_t silo, const tbs_oid_s& start, uint32_t* dbids, size_t max, size_t* count,
                           int all_silos) {
  tvr_db_trans_read_check();
  *count = 0;
  key_silo_oid key{0, start};
  if (silo != 0) {
    int st = tvr_db_dbid_to_dba(silo, &key.silo_dba);
    if (st != 0) return st;
  }
  if (max == 0) return 0;
  int st = dt_keyfind(INODE_KEY, &key, view_db_task, -1);
  const bool skip_first = st == 0 && !tbs_oid_is_null(start);
  if (st == S_NOTFOUND || skip_first) {
    st = dt_keynext(INODE_KEY, view_db_task, -1);
  }
  while (st == 0 && *count < max) {
    db_inode row;
    DB_ADDR dba = 0;
    st = dt_crget(&dba, view_db_task, -1);
    if (st == 0) st = dt_recread(&row, view_db_task, -1);
    if (st != 0) return tvr_engine_err("D_RECREAD", "DB_INODE", st);
    if (!all_silos && row.inode_silo_dba != key.silo_dba) return 0;
    dbids[(*count)++] = tvr_db_dba_to_dbid(dba);
    if (*count == max) return 0;
    st = dt_keynext(INODE_KEY, view_db_task, -1);
  }
  if (st != 0 && st != S_NOTFOUND) return tvr_engine_err("D_KEYNEXT", "DB_INODE", st);
  return 0;
}

int tvr_db_inode_get_dir_name(DB_ADDR dba, std::string* name, tbs_oid_s* parent_oid) {
  tvr_db_trans_read_check();
  name->clear();
  DB_ADDR entry = dba;
  // A directory chain deeper than this can only be a cycle in a damaged database.
  for (int depth = 0; entry != 0; depth++) {
    if (depth > 4096) return tvr_engine_err("D_FINDNM", "DIR_ENT_SET", depth);
    db_dir_ent row;
    int st = tvr_db_read_row(entry, &row, "DB_DIR_ENT");
    if (st != 0) return st;
    std::string component;
    st = tvr_db_dir_entry_name(entry, row, &component);
    if (st != 0) return st;
    *name = name->empty() ? component : component + "/" + *name;
    if (depth == 0 && parent_oid != nullptr) {
      st = dt_crset(&row.dir_ent_dir_dba, view_db_task, -1);
      if (st == 0) st = dt_crread(INODE_OID, parent_oid, view_db_task, -1);
      if (st != 0) return tvr_engine_err("D_CRREAD", "DB_INODE", st);
    }
    st = first_name_of(row.dir_ent_dir_dba, &entry);
    if (st != 0) return st;
  }
  return 0;
}

int tvr_db_mark_inode_stranded(uint32_t dbid, uint32_t expiry) {
  tvr_db_trans_write_check();
  DB_ADDR dba = 0;
  db_inode row;
  int st = read_inode(dbid, &dba, &row);
  if (st != 0) return st;
  if (row.inode_silo_dba != 0) {
    st = tvr_db_silo_rm_ref(row.inode_silo_dba);
    if (st != 0) return st;
  }
  row.inode_silo_dba = 0;
  row.inode_fstat.extra[0] = expiry;
  row.inode_fstat.extra[1] = 0;
  return write_inode(dba, row);
}
