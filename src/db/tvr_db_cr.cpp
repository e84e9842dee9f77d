// Configuration records, their derived objects and the side file's free extents (tvr_db_cr.h).
#include "db/tvr_db_cr.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/fileutl.h"
#include "base/imsg.h"
#include "db/rec/dt.h"
#include "db/tavrel_engine_db.h"
#include "db/tavrel_engine_utls.h"
#include "db/tvr_db_inode.h"
#include "db/tvr_db_silo.h"
#include "db/tvr_db_store.h"

namespace {

const char* const CRS_FILE = ".s/tavrel_db.crs_file";

DB_TASK* task() { return view_db_task; }

int ignore_not_found(int st) { return st == TBS_ST_NOT_FOUND ? 0 : st; }

// Saves the engine's positions for the life of the object and puts them back at the end.
class Saved_Positions {
 public:
  Saved_Positions() { status_ = dt_rdcurr(&block_, &size_, task()); }
  ~Saved_Positions() {
    if (block_ != nullptr) dt_wrcurr(block_, task());
  }
  Saved_Positions(const Saved_Positions&) = delete;
  Saved_Positions& operator=(const Saved_Positions&) = delete;
  int status() const { return status_; }

 private:
  DB_ADDR* block_ = nullptr;
  int size_ = 0;
  int status_ = 0;
};

// Positions key `field` on the first entry >= `value`: 0 with that row current, or 2 at the end.
int key_seek(long field, const void* value) {
  int st = dt_keyfind(field, value, task(), -1);
  if (st == S_NOTFOUND) st = dt_keynext(field, task(), -1);
  return st;
}

// Takes `len` bytes from the best-fitting free extent.
int alloc_extent(uint32_t len, uint32_t* offset) {
  int st = key_seek(CR_FREE_LEN, &len);
  db_cr_free row{0, 0};
  if (st == 0) {
    st = dt_recread(&row, task(), -1);
    if (st != 0) return tvr_engine_err("D_RECREAD", "DB_CR_FREE", st);
  } else if (st != S_NOTFOUND) {
    return tvr_engine_err("D_KEYNEXT", "DB_CR_FREE", st);
  }
  if (row.cr_free_len < len) {
    imsg_print(IMSG_ERR, "Not enough space %ld for cr %ld\n", static_cast<long>(row.cr_free_len),
               static_cast<long>(len));
    return TBS_ST_NO_ROOM;
  }
  *offset = row.cr_free_offset;
  if (row.cr_free_len == len) {
    st = dt_delete(task(), -1);
    if (st != 0) return tvr_engine_err("D_DELETE", "DB_CR_FREE", st);
    return 0;
  }
  row.cr_free_len -= len;
  row.cr_free_offset += len;
  st = dt_recwrite(&row, task(), -1);
  if (st != 0) return tvr_engine_err("D_RECWRITE", "DB_CR_FREE", st);
  return 0;
}

// Gives an extent back, merged with the free extents that end where it starts and start where it ends.
int release_extent(uint32_t offset, uint32_t len) {
  if (len == 0) return 0;
  db_cr_free merged{len, offset};
  const uint32_t end = offset + len;
  int st = dt_keyfind(CR_FREE_OFFSET, &end, task(), -1);
  if (st == 0) {
    db_cr_free next;
    st = dt_recread(&next, task(), -1);
    if (st == 0) st = dt_delete(task(), -1);
    if (st != 0) return tvr_engine_err("D_DELETE", "DB_CR_FREE", st);
    merged.cr_free_len += next.cr_free_len;
  } else if (st != S_NOTFOUND) {
    return tvr_engine_err("D_KEYFIND", "DB_CR_FREE", st);
  }
  st = dt_keyfind(CR_FREE_OFFSET, &offset, task(), -1);
  if (st == 0) return tvr_engine_err("D_KEYFIND", "DB_CR_FREE", S_DUPLICATE);  // freed twice
  if (st != S_NOTFOUND) return tvr_engine_err("D_KEYFIND", "DB_CR_FREE", st);
  st = dt_keyprev(CR_FREE_OFFSET, task(), -1);
  if (st == 0) {
    db_cr_free prev;
    st = dt_recread(&prev, task(), -1);
    if (st != 0) return tvr_engine_err("D_RECREAD", "DB_CR_FREE", st);
    if (prev.cr_free_offset + prev.cr_free_len == offset) {
      prev.cr_free_len += merged.cr_free_len;
      st = dt_recwrite(&prev, task(), -1);
      if (st != 0) return tvr_engine_err("D_RECWRITE", "DB_CR_FREE", st);
      return 0;
    }
  } else if (st != S_NOTFOUND) {
    return tvr_engine_err("D_KEYPREV", "DB_CR_FREE", st);
  }
  st = dt_fillnew(DB_CR_FREE, &merged, task(), -1);
  if (st != 0) return tvr_engine_err("D_FILLNEW", "DB_CR_FREE", st);
  return 0;
}

int write_side_file(uint32_t offset, const tvr_db_cr_data& data, int sync) {
  const int fd = tvr_db_cr_file_fd();
  size_t done = 0;
  int err = fd < 0 ? EBADF : 0;
  while (err == 0 && done < data.bytes.size()) {
    ssize_t n = pwrite(fd, data.bytes.data() + done, data.bytes.size() - done, static_cast<off_t>(offset) + done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) err = n < 0 ? errno : EIO;
    else done += static_cast<size_t>(n);
  }
  if (err == 0 && sync && fsync(fd) != 0) err = errno;
  if (err != 0) {
    imsg_print(IMSG_ERR, "db_cr_create write into %s at 0x%lx for %ld failed:%s\n", CRS_FILE,
               static_cast<unsigned long>(offset), static_cast<long>(data.bytes.size()), strerror(err));
    return TBS_ST_INTERNAL;
  }
  return 0;
}

// The DB_CR that owns the current DB_DO row.
int owner_of_current_do(DB_ADDR* cr) {
  int st = dt_setmr(DO_OID_SET, task(), -1);
  if (st == 0) st = dt_csoget(DO_OID_SET, cr, task(), -1);
  if (st != 0) return tvr_engine_err("D_CSOGET", "DO_OID_SET", st);
  return 0;
}

int add_to_count(DB_ADDR cr, int32_t delta, int32_t* result) {
  int st = dt_crset(&cr, task(), -1);
  if (st != 0) return tvr_engine_err("D_CRSET", "DB_CR", st);
  int32_t count = 0;
  st = dt_crread(CR_PARENT_REF_CNT, &count, task(), -1);
  if (st != 0) return tvr_engine_err("D_CRREAD", "DB_CR", st);
  count += delta;
  st = dt_crwrite(CR_PARENT_REF_CNT, &count, task(), -1);
  if (st != 0) return tvr_engine_err("D_CRWRITE", "DB_CR", st);
  if (result != nullptr) *result = count;
  return 0;
}

int add_silo_ref(DB_ADDR cr, const tbs_uuid_s& replica) {
  int st = dt_csoset(UNELEVATED_CR_SET, &cr, task(), -1);
  if (st != 0) return tvr_engine_err("D_CSOSET", "UNELEVATED_CR_SET", st);
  for (st = dt_findfm(UNELEVATED_CR_SET, task(), -1); st == 0; st = dt_findnm(UNELEVATED_CR_SET, task(), -1)) {
    db_unelevated_ref ref;
    st = dt_recread(&ref, task(), -1);
    if (st != 0) return tvr_engine_err("D_RECREAD", "DB_UNELEVATED_REF", st);
    if (ref.unelevated_ref_uuid == replica) return 0;
  }
  if (st != S_EOS) return tvr_engine_err("D_FINDNM", "UNELEVATED_CR_SET", st);
  const db_unelevated_ref ref{replica};
  st = dt_fillnew(DB_UNELEVATED_REF, &ref, task(), -1);
  if (st == 0) st = dt_connect(UNELEVATED_CR_SET, task(), -1);
  if (st != 0) return tvr_engine_err("D_CONNECT", "UNELEVATED_CR_SET", st);
  return 0;
}

// Deletes every member of set `set` of the current owner.
int delete_members(DB_ADDR owner, int set, const char* label) {
  int st = dt_csoset(set, &owner, task(), -1);
  if (st != 0) return tvr_engine_err("D_CSOSET", label, st);
  while ((st = dt_findfm(set, task(), -1)) == 0) {
    st = dt_disdel(task(), -1);
    if (st != 0) return tvr_engine_err("D_DISDEL", label, st);
  }
  if (st != S_EOS) return tvr_engine_err("D_FINDFM", label, st);
  return 0;
}

int discon(DB_ADDR cr) {
  db_cr row;
  int st = tvr_db_read_row(cr, &row, "DB_CR");
  if (st != 0) return st;
  st = delete_members(cr, DO_OID_SET, "DO_OID_SET");
  if (st == 0) st = delete_members(cr, UNELEVATED_CR_SET, "UNELEVATED_CR_SET");
  if (st != 0) return st;
  std::vector<tbs_oid_s> subs;
  st = dt_csoset(SUB_DO_SET, &cr, task(), -1);
  if (st != 0) return tvr_engine_err("D_CSOSET", "SUB_DO_SET", st);
  while ((st = dt_findfm(SUB_DO_SET, task(), -1)) == 0) {
    db_sub_do sub;
    st = dt_recread(&sub, task(), -1);
    if (st != 0) return tvr_engine_err("D_RECREAD", "DB_SUB_DO", st);
    for (const tbs_oid_s& oid : sub.sub_do_oid)
      if (!tbs_oid_is_null(oid)) subs.push_back(oid);
    st = dt_disdel(task(), -1);
    if (st != 0) return tvr_engine_err("D_DISDEL", "DB_SUB_DO", st);
  }
  if (st != S_EOS) return tvr_engine_err("D_FINDFM", "SUB_DO_SET", st);
  st = dt_crset(&cr, task(), -1);
  if (st == 0) st = dt_disdel(task(), -1);
  if (st != 0) return tvr_engine_err("D_DISDEL", "DB_CR", st);
  st = release_extent(row.cr_file_offset, row.cr_length);
  if (st != 0) return st;
  for (const tbs_oid_s& oid : subs) {
    st = ignore_not_found(tvr_db_cr_rm_ref(oid, 0));
    if (st != 0) return st;
  }
  return 0;
}

int cr_handle(uint32_t cr_dbid, DB_ADDR* cr) { return tvr_db_handle_row(cr_dbid, DB_CR, cr); }

}  // namespace

int tvr_db_cr_create(const tbs_oid_s* do_oids, const tbs_uuid_s& replica, int count, const tbs_oid_s* sub_oids,
                     int sub_count, const tvr_db_cr_data& data, int sync, uint32_t session, uint32_t* cr_dbid) {
  tvr_db_trans_write_check();
  if (do_oids == nullptr || count < 1 || sub_count < 0 || (sub_count > 0 && sub_oids == nullptr))
    return TBS_ST_BAD_ARG;
  if (data.bytes.size() >= 0xffffffffu) return TBS_ST_TOO_LONG;
  const uint32_t len = static_cast<uint32_t>(data.bytes.size());
  for (int i = 0; i < count; i++) {
    int st = dt_keyfind(DO_OID, &do_oids[i], task(), -1);
    if (st == 0) {
      imsg_print(IMSG_ERR, "Duplicate DB_DO for %s\n", tbs_oid_to_str(do_oids[i]).c_str());
      return TBS_ST_EXISTS;
    }
    if (st != S_NOTFOUND) return tvr_engine_err("D_KEYFIND", "DB_DO", st);
  }
  uint32_t offset = 0;
  if (len > 0) {
    int st = alloc_extent(len, &offset);
    if (st == 0) st = write_side_file(offset, data, sync);
    if (st != 0) return st;
  }
  const db_cr row{0, fileutl_crc_buffer(data.bytes.data(), len), offset, data.header, len};
  int st = dt_fillnew(DB_CR, &row, task(), -1);
  if (st != 0) return tvr_engine_err("D_FILLNEW", "DB_CR", st);
  DB_ADDR cr = 0;
  st = dt_crget(&cr, task(), -1);
  if (st != 0) return tvr_engine_err("D_CRGET", "DB_CR", st);

  int32_t refs = 0;
  uint32_t silo = 0;
  const bool silo_known = tvr_db_silo_lookup(replica, &silo) == 0;
  for (int i = 0; i < count; i++) {
    const db_do d{replica, do_oids[i], session};
    st = dt_fillnew(DB_DO, &d, task(), -1);
    if (st == S_DUPLICATE) {  // the same OID twice in the list
      imsg_print(IMSG_ERR, "Duplicate DB_DO for %s\n", tbs_oid_to_str(do_oids[i]).c_str());
      return TBS_ST_EXISTS;
    }
    if (st != 0) return tvr_engine_err("D_FILLNEW", "DB_DO", st);
    if (session != 0) {
      st = dt_keystore(DO_SESSION_HOLD, task(), -1);
      if (st != 0) return tvr_engine_err("D_KEYSTORE", "DB_DO", st);
      refs++;
    }
    st = dt_csoset(DO_OID_SET, &cr, task(), -1);
    if (st == 0) st = dt_connect(DO_OID_SET, task(), -1);
    if (st != 0) return tvr_engine_err("D_CONNECT", "DO_OID_SET", st);
    uint32_t inode = 0;
    if (silo_known) {
      st = tvr_db_inode_lookup(silo, do_oids[i], &inode);
      if (st == 0) refs++;
      else if (st != TBS_ST_NOT_FOUND) return st;
    }
  }
  for (int i = 0; i < sub_count; i += SUB_DO_SLOTS) {
    db_sub_do sub{};
    for (int k = 0; k < SUB_DO_SLOTS && i + k < sub_count; k++) sub.sub_do_oid[k] = sub_oids[i + k];
    st = dt_fillnew(DB_SUB_DO, &sub, task(), -1);
    if (st == 0) st = dt_csoset(SUB_DO_SET, &cr, task(), -1);
    if (st == 0) st = dt_connect(SUB_DO_SET, task(), -1);
    if (st != 0) return tvr_engine_err("D_CONNECT", "SUB_DO_SET", st);
    for (int k = 0; k < SUB_DO_SLOTS && i + k < sub_count; k++) {
      st = ignore_not_found(tvr_db_cr_add_ref(sub_oids[i + k], nullptr));
      if (st != 0) return st;
    }
  }
  st = add_to_count(cr, refs, nullptr);
  if (st != 0) return st;
  if (cr_dbid != nullptr) *cr_dbid = tvr_db_dba_to_dbid(cr);
  return 0;
}

int tvr_db_cr_get(const tbs_oid_s& oid, uint32_t* cr_dbid) {
  tvr_db_trans_read_check();
  int st = dt_keyfind(DO_OID, &oid, task(), -1);
  if (st == S_NOTFOUND) return TBS_ST_NOT_FOUND;
  if (st != 0) return tvr_engine_err("D_KEYFIND", "DB_DO", st);
  DB_ADDR cr = 0;
  st = owner_of_current_do(&cr);
  if (st != 0) return st;
  *cr_dbid = tvr_db_dba_to_dbid(cr);
  return 0;
}

int tvr_db_cr_read(uint32_t cr_dbid, tvr_db_cr_data* data) {
  tvr_db_trans_read_check();
  DB_ADDR cr = 0;
  int st = cr_handle(cr_dbid, &cr);
  if (st != 0) return st;
  db_cr row;
  st = dt_recread(&row, task(), -1);
  if (st != 0) return tvr_engine_err("D_RECREAD", "DB_CR", st);
  data->header = row.cr_hdr_word;
  data->bytes.assign(row.cr_length, 0);
  const int fd = tvr_db_cr_file_fd();
  size_t done = 0;
  while (fd >= 0 && done < row.cr_length) {
    ssize_t n = pread(fd, data->bytes.data() + done, row.cr_length - done,
                      static_cast<off_t>(row.cr_file_offset) + done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  const uint32_t crc = fileutl_crc_buffer(data->bytes.data(), done);
  if (done != row.cr_length || crc != row.cr_crc) {
    imsg_print(IMSG_ERR, "db_cr_get of dba 0x%lx failed: CRC error 0x%lx was 0x%lx\n",
               static_cast<unsigned long>(cr), static_cast<unsigned long>(row.cr_crc),
               static_cast<unsigned long>(crc));
    return TBS_ST_INTERNAL;
  }
  return 0;
}

int tvr_db_cr_free(uint32_t cr_dbid) {
  tvr_db_trans_write_check();
  DB_ADDR cr = 0;
  int st = cr_handle(cr_dbid, &cr);
  if (st != 0) return st;
  return tvr_db_cr_discon(cr);
}

int tvr_db_cr_add_ref(const tbs_oid_s& oid, const tbs_uuid_s* replica) {
  tvr_db_trans_write_check();
  int st = dt_keyfind(DO_OID, &oid, task(), -1);
  if (st == S_NOTFOUND) return TBS_ST_NOT_FOUND;
  if (st != 0) return tvr_engine_err("D_KEYFIND", "DB_DO", st);
  DB_ADDR cr = 0;
  st = owner_of_current_do(&cr);
  if (st == 0) st = add_to_count(cr, 1, nullptr);
  if (st == 0 && replica != nullptr) st = add_silo_ref(cr, *replica);
  return st;
}

int tvr_db_cr_rm_ref(const tbs_oid_s& oid, uint32_t session) {
  tvr_db_trans_write_check();
  Saved_Positions saved;
  if (saved.status() != 0) return tvr_engine_err("D_RDCURR", "DB_DO", saved.status());
  int st = dt_keyfind(DO_OID, &oid, task(), -1);
  if (st == S_NOTFOUND) return TBS_ST_NOT_FOUND;
  if (st != 0) return tvr_engine_err("D_KEYFIND", "DB_DO", st);
  uint32_t hold = 0;
  st = dt_crread(DO_SESSION_HOLD, &hold, task(), -1);
  if (st != 0) return tvr_engine_err("D_CRREAD", "DB_DO", st);
  if (session != 0 && hold == 0) {
    // The reference becomes the session's hold, dropped when the session ends.
    st = dt_crwrite(DO_SESSION_HOLD, &session, task(), -1);
    if (st == 0) st = dt_keystore(DO_SESSION_HOLD, task(), -1);
    if (st != 0) return tvr_engine_err("D_KEYSTORE", "DB_DO", st);
    return 0;
  }
  DB_ADDR cr = 0;
  int32_t count = 0;
  st = owner_of_current_do(&cr);
  if (st == 0) st = add_to_count(cr, -1, &count);
  if (st == 0 && count <= 0) st = discon(cr);
  return st;
}

int tvr_db_cr_discon(DB_ADDR cr_dba) {
  tvr_db_trans_write_check();
  Saved_Positions saved;
  if (saved.status() != 0) return tvr_engine_err("D_RDCURR", "DB_CR", saved.status());
  return discon(cr_dba);
}

int tvr_db_cr_add_silo_ref(uint32_t cr_dbid, const tbs_uuid_s& replica) {
  tvr_db_trans_write_check();
  DB_ADDR cr = 0;
  int st = cr_handle(cr_dbid, &cr);
  if (st != 0) return st;
  return add_silo_ref(cr, replica);
}

int tvr_db_cr_rm_silo_ref(uint32_t cr_dbid, const tbs_uuid_s& replica) {
  tvr_db_trans_write_check();
  DB_ADDR cr = 0;
  int st = cr_handle(cr_dbid, &cr);
  if (st != 0) return st;
  st = dt_csoset(UNELEVATED_CR_SET, &cr, task(), -1);
  if (st != 0) return tvr_engine_err("D_CSOSET", "UNELEVATED_CR_SET", st);
  for (st = dt_findfm(UNELEVATED_CR_SET, task(), -1); st == 0; st = dt_findnm(UNELEVATED_CR_SET, task(), -1)) {
    db_unelevated_ref ref;
    st = dt_recread(&ref, task(), -1);
    if (st != 0) return tvr_engine_err("D_RECREAD", "DB_UNELEVATED_REF", st);
    if (ref.unelevated_ref_uuid == replica) {
      st = dt_disdel(task(), -1);
      if (st != 0) return tvr_engine_err("D_DISDEL", "DB_UNELEVATED_REF", st);
      return 0;
    }
  }
  if (st != S_EOS) return tvr_engine_err("D_FINDNM", "UNELEVATED_CR_SET", st);
  return TBS_ST_NOT_FOUND;
}

int tvr_db_cr_rm_build_session(uint32_t session) {
  tvr_db_trans_write_check();
  std::vector<std::pair<DB_ADDR, tbs_oid_s>> held;
  int st = key_seek(DO_SESSION_HOLD, &session);
  while (st == 0) {
    db_do d;
    DB_ADDR at = 0;
    st = dt_crget(&at, task(), -1);
    if (st == 0) st = dt_recread(&d, task(), -1);
    if (st != 0) return tvr_engine_err("D_RECREAD", "DB_DO", st);
    if (session != 0 && d.do_session_hold != session) break;
    held.emplace_back(at, d.do_oid);
    st = dt_keynext(DO_SESSION_HOLD, task(), -1);
  }
  if (st != 0 && st != S_NOTFOUND) return tvr_engine_err("D_KEYNEXT", "DB_DO", st);
  for (auto& [at, oid] : held) {
    st = dt_crset(&at, task(), -1);
    if (st == S_DELETED) continue;  // its record went with an earlier one
    const uint32_t none = 0;
    if (st == 0) st = dt_keydel(DO_SESSION_HOLD, task(), -1);
    if (st == 0) st = dt_crwrite(DO_SESSION_HOLD, &none, task(), -1);
    if (st != 0) return tvr_engine_err("D_KEYDEL", "DB_DO", st);
    st = ignore_not_found(tvr_db_cr_rm_ref(oid, 0));
    if (st != 0) return st;
  }
  return 0;
}

int tvr_db_fsck_crs() {
  tvr_db_trans_write_check();
  std::vector<DB_ADDR> crs;
  int st;
  for (st = dt_recfrst(DB_CR, task(), -1); st == 0; st = dt_recnext(task(), -1)) {
    DB_ADDR at = 0;
    st = dt_crget(&at, task(), -1);
    if (st != 0) return tvr_engine_err("D_CRGET", "DB_CR", st);
    crs.push_back(at);
  }
  if (st != S_NOTFOUND) return tvr_engine_err("D_RECNEXT", "DB_CR", st);
  for (DB_ADDR cr : crs) {
    st = dt_crset(&cr, task(), -1);
    if (st == S_DELETED) continue;
    int32_t count = 0;
    long refs = 0;
    if (st == 0) st = dt_crread(CR_PARENT_REF_CNT, &count, task(), -1);
    if (st == 0) st = dt_setor(UNELEVATED_CR_SET, task(), -1);
    if (st == 0) st = dt_members(UNELEVATED_CR_SET, &refs, task(), -1);
    if (st != 0) return tvr_engine_err("D_MEMBERS", "DB_CR", st);
    if (count <= 0 || refs == 0) {
      st = discon(cr);
      if (st != 0) return st;
    }
  }
  return 0;
}

int tvr_db_get_dos(uint32_t cr_dbid, std::vector<tvr_db_do_info>* out) {
  tvr_db_trans_read_check();
  out->clear();
  DB_ADDR cr = 0;
  int st = cr_handle(cr_dbid, &cr);
  if (st != 0) return st;
  st = dt_setor(DO_OID_SET, task(), -1);
  if (st != 0) return tvr_engine_err("D_SETOR", "DO_OID_SET", st);
  for (st = dt_findfm(DO_OID_SET, task(), -1); st == 0; st = dt_findnm(DO_OID_SET, task(), -1)) {
    db_do d;
    st = dt_recread(&d, task(), -1);
    if (st != 0) return tvr_engine_err("D_RECREAD", "DB_DO", st);
    out->push_back({d.do_replica_uuid, d.do_oid, d.do_session_hold});
  }
  if (st != S_EOS) return tvr_engine_err("D_FINDNM", "DO_OID_SET", st);
  return 0;
}

int tvr_db_dos_found(const tbs_oid_s& oid, int* found) {
  tvr_db_trans_read_check();
  int st = dt_keyfind(DO_OID, &oid, task(), -1);
  if (st != 0 && st != S_NOTFOUND) return tvr_engine_err("D_KEYFIND", "DB_DO", st);
  *found = st == 0 ? 1 : 0;
  return 0;
}

int tvr_db_cr_free_extents(std::vector<tvr_db_cr_extent>* out) {
  tvr_db_trans_read_check();
  out->clear();
  const uint32_t zero = 0;
  int st;
  for (st = key_seek(CR_FREE_OFFSET, &zero); st == 0; st = dt_keynext(CR_FREE_OFFSET, task(), -1)) {
    db_cr_free row;
    st = dt_recread(&row, task(), -1);
    if (st != 0) return tvr_engine_err("D_RECREAD", "DB_CR_FREE", st);
    out->push_back({row.cr_free_offset, row.cr_free_len});
  }
  if (st != S_NOTFOUND) return tvr_engine_err("D_KEYNEXT", "DB_CR_FREE", st);
  return 0;
}
