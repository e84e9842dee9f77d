// DB_SILO rows (tvr_db_silo.h).
#include "db/tvr_db_silo.h"

#include <algorithm>
#include <cstring>

#include "db/rec/dt.h"
#include "db/tavrel_engine_db.h"
#include "db/tavrel_engine_utls.h"
#include "db/tvr_db_bytes.h"
#include "db/tvr_db_store.h"

namespace {

// Stores the path of the current silo row `dba` into `row` (head inline, tail chained); the row is
// current again afterwards.
int store_path(DB_ADDR dba, const std::string& path, db_silo* row) {
  if (path.size() > 0xffff) return TBS_ST_TOO_LONG;
  row->silo_path_len = static_cast<uint16_t>(path.size());
  std::memset(row->silo_path, 0, sizeof row->silo_path);
  std::memcpy(row->silo_path, path.data(), std::min(path.size(), sizeof row->silo_path));
  row->silo_bytes_dba = 0;
  if (path.size() > sizeof row->silo_path) {
    int st = tvr_db_bytes_create(dba, path.data() + SILO_PATH_INLINE, path.size() - SILO_PATH_INLINE,
                                 &row->silo_bytes_dba);
    if (st != 0) return st;
  }
  return 0;
}

int write_current(const db_silo& row) {
  int st = dt_recwrite(&row, view_db_task, -1);
  if (st == S_DUPLICATE) return TBS_ST_EXISTS;
  if (st != 0) return tvr_engine_err("D_RECWRITE", "DB_SILO", st);
  return 0;
}

int read_info(DB_ADDR dba, const db_silo& row, tvr_db_silo_info* info) {
  info->dbid = tvr_db_dba_to_dbid(dba);
  info->uuid = row.replica_uuid;
  info->ref_cnt = row.silo_ref_cnt;
  info->next_dbid = row.silo_next_dbid;
  info->gen_num = row.silo_gen_num;
  info->root_dbid = row.silo_root_dbid;
  info->flags = row.silo_flags;
  info->path.assign(row.silo_path, std::min<size_t>(row.silo_path_len, SILO_PATH_INLINE));
  if (row.silo_path_len > SILO_PATH_INLINE) {
    info->path.resize(row.silo_path_len);
    return tvr_db_bytes_read(dba, row.silo_bytes_dba, info->path.data() + SILO_PATH_INLINE,
                             row.silo_path_len - SILO_PATH_INLINE);
  }
  return 0;
}

int set_flag(uint32_t dbid, int on) {
  tvr_db_trans_write_check();
  DB_ADDR dba = 0;
  int st = tvr_db_handle_row(dbid, DB_SILO, &dba);
  if (st != 0) return st;
  uint16_t flags = 0;
  st = dt_crread(SILO_FLAGS, &flags, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_CRREAD", "DB_SILO", st);
  flags = on ? (flags | TVR_DB_SILO_FLAG) : (flags & ~TVR_DB_SILO_FLAG);
  st = dt_crwrite(SILO_FLAGS, &flags, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_CRWRITE", "DB_SILO", st);
  return 0;
}

// Rewrites field `field` (a UUID) of every row of `rec` that holds `from`; counts the rows.
int replace_uuid_in(int rec, long field, const char* label, const tbs_uuid_s& from, const tbs_uuid_s& to,
                    int* count) {
  int st = dt_recfrst(rec, view_db_task, -1);
  while (st == 0) {
    tbs_uuid_s u;
    st = dt_crread(field, &u, view_db_task, -1);
    if (st != 0) return tvr_engine_err("D_CRREAD", label, st);
    if (u == from) {
      st = dt_crwrite(field, &to, view_db_task, -1);
      if (st != 0) return tvr_engine_err("D_CRWRITE", label, st);
      ++*count;
    }
    st = dt_recnext(view_db_task, -1);
  }
  if (st != S_NOTFOUND) return tvr_engine_err("D_RECNEXT", label, st);
  return 0;
}

}  // namespace

int tvr_db_silo_create(const tbs_uuid_s& uuid, const std::string& path, uint32_t* dbid) {
  tvr_db_trans_write_check();
  if (path.size() > 0xffff) return TBS_ST_TOO_LONG;
  db_silo row{};
  row.replica_uuid = uuid;
  row.silo_next_dbid = 1;
  struct timeval now;
  tvr_db_view_time(&now);
  row.silo_gen_num = static_cast<uint32_t>(now.tv_sec);
  int st = dt_fillnew(DB_SILO, &row, view_db_task, -1);
  if (st == S_DUPLICATE) return TBS_ST_EXISTS;
  if (st != 0) return tvr_engine_err("D_FILLNEW", "DB_SILO", st);
  DB_ADDR dba = 0;
  st = dt_crget(&dba, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_CRGET", "DB_SILO", st);
  if (!path.empty()) {
    st = store_path(dba, path, &row);
    if (st != 0) return st;
    st = write_current(row);
    if (st != 0) return st;
  }
  *dbid = tvr_db_dba_to_dbid(dba);
  return 0;
}

int tvr_db_silo_lookup(const tbs_uuid_s& uuid, uint32_t* dbid) {
  tvr_db_trans_read_check();
  int st = dt_keyfind(REPLICA_UUID, &uuid, view_db_task, -1);
  if (st == S_NOTFOUND) return TBS_ST_NOT_FOUND;
  if (st != 0) return tvr_engine_err("D_KEYFIND", "DB_SILO", st);
  DB_ADDR dba = 0;
  st = dt_crget(&dba, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_CRGET", "DB_SILO", st);
  *dbid = tvr_db_dba_to_dbid(dba);
  return 0;
}

int tvr_db_silo_read(uint32_t dbid, tvr_db_silo_info* info) {
  tvr_db_trans_read_check();
  DB_ADDR dba = 0;
  int st = tvr_db_handle_row(dbid, DB_SILO, &dba);
  if (st != 0) return st;
  db_silo row;
  st = dt_recread(&row, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_RECREAD", "DB_SILO", st);
  return read_info(dba, row, info);
}

int tvr_db_silo_update(uint32_t dbid, const std::string& path) {
  tvr_db_trans_write_check();
  if (path.size() > 0xffff) return TBS_ST_TOO_LONG;
  DB_ADDR dba = 0;
  int st = tvr_db_handle_row(dbid, DB_SILO, &dba);
  if (st != 0) return st;
  db_silo row;
  st = dt_recread(&row, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_RECREAD", "DB_SILO", st);
  st = tvr_db_bytes_delete(row.silo_bytes_dba);
  if (st != 0) return st;
  st = store_path(dba, path, &row);
  if (st != 0) return st;
  st = dt_crset(&dba, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_CRSET", "DB_SILO", st);
  return write_current(row);
}

int tvr_db_silo_delete(uint32_t dbid) {
  tvr_db_trans_write_check();
  DB_ADDR dba = 0;
  int st = tvr_db_handle_row(dbid, DB_SILO, &dba);
  if (st != 0) return st;
  db_silo row;
  st = dt_recread(&row, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_RECREAD", "DB_SILO", st);
  if (row.silo_ref_cnt > 0) return TBS_ST_NOT_EMPTY;
  st = dt_disdel(view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_DISDEL", "DB_SILO", st);
  return tvr_db_bytes_delete(row.silo_bytes_dba);
}

int tvr_db_silo_rm_ref(DB_ADDR silo_dba) {
  tvr_db_trans_write_check();
  int st = dt_crset(&silo_dba, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_CRSET", "DB_SILO", st);
  uint32_t refs = 0;
  st = dt_crread(SILO_REF_CNT, &refs, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_CRREAD", "DB_SILO", st);
  if (refs > 0) refs--;
  st = dt_crwrite(SILO_REF_CNT, &refs, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_CRWRITE", "DB_SILO", st);
  return 0;
}

int tvr_db_silo_set_hlink_flag(uint32_t dbid, int on) { return set_flag(dbid, on); }
int tvr_db_silo_set_setwork_flag(uint32_t dbid, int on) { return set_flag(dbid, on); }

int tvr_db_inventory_silos(std::vector<tvr_db_silo_info>* out, int flags) {
  tvr_db_trans_read_check();
  out->clear();
  int st = dt_recfrst(DB_SILO, view_db_task, -1);
  while (st == 0) {
    db_silo row;
    DB_ADDR dba = 0;
    st = dt_crget(&dba, view_db_task, -1);
    if (st != 0) return tvr_engine_err("D_CRGET", "DB_SILO", st);
    st = dt_recread(&row, view_db_task, -1);
    if (st != 0) return tvr_engine_err("D_RECREAD", "DB_SILO", st);
    if (flags == 0 || (row.silo_flags & TVR_DB_SILO_FLAG)) {
      tvr_db_silo_info info;
      st = read_info(dba, row, &info);
      if (st != 0) return st;
      out->push_back(std::move(info));
    }
    st = dt_recnext(view_db_task, -1);
  }
  if (st != S_NOTFOUND) return tvr_engine_err("D_RECNEXT", "DB_SILO", st);
  return 0;
}

int tvr_db_reparent_replica_uuid(const tbs_uuid_s& old_uuid, const tbs_uuid_s& new_uuid) {
  return tvr_db_in_trans(1, [&]() -> int {
    int count = 0;
    int st = dt_keyfind(REPLICA_UUID, &old_uuid, view_db_task, -1);
    if (st == 0) {
      if (old_uuid != new_uuid && dt_keyfind(REPLICA_UUID, &new_uuid, view_db_task, -1) == 0)
        return TBS_ST_EXISTS;
      st = dt_keyfind(REPLICA_UUID, &old_uuid, view_db_task, -1);
      if (st != 0) return tvr_engine_err("D_KEYFIND", "DB_SILO", st);
      st = dt_crwrite(REPLICA_UUID, &new_uuid, view_db_task, -1);
      if (st == S_DUPLICATE) return TBS_ST_EXISTS;
      if (st != 0) return tvr_engine_err("D_CRWRITE", "DB_SILO", st);
      count++;
    } else if (st != S_NOTFOUND) {
      return tvr_engine_err("D_KEYFIND", "DB_SILO", st);
    }
    st = replace_uuid_in(DB_DO, DO_REPLICA_UUID, "DB_DO", old_uuid, new_uuid, &count);
    if (st != 0) return st;
    st = replace_uuid_in(DB_UNELEVATED_REF, UNELEVATED_REF_UUID, "DB_UNELEVATED_REF", old_uuid, new_uuid,
                         &count);
    if (st != 0) return st;
    return count == 0 ? TBS_ST_NOT_FOUND : 0;
  });
}

int tvr_db_change_silo_oid(const tbs_oid_s& oid, const tbs_uuid_s& uuid) {
  tbs_uuid_s old;
  static_assert(sizeof old.bytes == sizeof oid.bytes);
  std::memcpy(old.bytes, oid.bytes, sizeof old.bytes);
  return tvr_db_reparent_replica_uuid(old, uuid);
}
