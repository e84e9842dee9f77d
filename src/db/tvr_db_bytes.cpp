// Byte chains: the tails of strings longer than their record's inline field (format in tvr_db_bytes.h).
#include "db/tvr_db_bytes.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "base/imsg.h"
#include "base/pfm.h"
#include "db/rec/dt.h"
#include "db/tavrel_engine_db.h"

namespace {

// The row that holds the next piece when `remaining` bytes are still to go, and how many it holds.
struct piece_t {
  int rec;
  size_t len;
};
piece_t next_piece(size_t remaining) {
  if (remaining > static_cast<size_t>(DB_BYTES_SMALL_LEN))
    return {DB_BYTES_MED, std::min(remaining, static_cast<size_t>(DB_BYTES_MED_LEN))};
  return {DB_BYTES_SMALL, remaining};
}

// Walks the chain of `len` bytes at `head` and hands every piece to `visit(data, n, offset)`, which
// returns false to stop early. Checks owners and the chain's length against `len`. Moves the current
// record and the positions of DB_BYTES_SET.
template <typename F>
int walk_chain(DB_ADDR owner, DB_ADDR head, size_t len, F&& visit) {
  if (head == 0) {
    imsg_print(IMSG_ERR, "db_bytes came up short for dba 0x%lx\n", static_cast<unsigned long>(head));
    return TBS_ST_INTERNAL;
  }
  int st = dt_crset(&head, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_CRSET", "DB_BYTES", st);
  int type = 0;
  st = dt_crtype(&type, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_CRTYPE", "DB_BYTES", st);
  if (type != DB_BYTES) return tvr_engine_err("D_CRTYPE", "DB_BYTES", type);
  db_bytes h;
  st = dt_recread(&h, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_RECREAD", "DB_BYTES", st);
  if (h.owner_dba != owner) {
    imsg_print(IMSG_ERR, "db_bytes_inconsistent_owner (0x%lx) for dba 0x%lx\n",
               static_cast<unsigned long>(h.owner_dba), static_cast<unsigned long>(head));
    return TBS_ST_INTERNAL;
  }
  size_t done = std::min(len, static_cast<size_t>(DB_BYTES_HEAD_LEN));
  if (!visit(h.bytes, done, size_t{0})) return 0;
  st = dt_setor(DB_BYTES_SET, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_SETOR", "DB_BYTES_SET", st);
  bool first = true;
  for (;;) {
    st = first ? dt_findfm(DB_BYTES_SET, view_db_task, -1) : dt_findnm(DB_BYTES_SET, view_db_task, -1);
    first = false;
    if (st == S_EOS) {
      if (done < len) {
        imsg_print(IMSG_ERR, "db_bytes came up short for dba 0x%lx\n", static_cast<unsigned long>(head));
        return TBS_ST_INTERNAL;
      }
      return 0;
    }
    if (st != 0) return tvr_engine_err("D_FINDNM", "DB_BYTES_SET", st);
    if (done >= len) {
      imsg_print(IMSG_ERR, "db_bytes came up with extra for dba 0x%lx\n", static_cast<unsigned long>(head));
      return TBS_ST_INTERNAL;
    }
    st = dt_crtype(&type, view_db_task, -1);
    if (st != 0) return tvr_engine_err("D_CRTYPE", "DB_BYTES_SET", st);
    db_bytes_med row;  // the larger of the two member layouts; both start with the owner
    const char* label = type == DB_BYTES_MED ? "DB_BYTES_MED" : "DB_BYTES_SMALL";
    st = dt_recread(&row, view_db_task, -1);
    if (st != 0) return tvr_engine_err("D_RECREAD", label, st);
    if (row.owner_dba != owner) {
      DB_ADDR at = 0;
      dt_crget(&at, view_db_task, -1);
      imsg_print(IMSG_ERR, "db_bytes_inconsistent_owner (0x%lx) for dba 0x%lx\n",
                 static_cast<unsigned long>(row.owner_dba), static_cast<unsigned long>(at));
      return TBS_ST_INTERNAL;
    }
    const size_t cap = type == DB_BYTES_MED ? DB_BYTES_MED_LEN : DB_BYTES_SMALL_LEN;
    const size_t n = std::min(len - done, cap);
    const bool go_on = visit(row.bytes, n, done);
    done += n;
    if (!go_on) return 0;
  }
}

}  // namespace

int tvr_db_bytes_create(DB_ADDR owner, const void* data, size_t len, DB_ADDR* head) {
  tvr_db_trans_write_check();
  if (len == 0) pfm_assert_fail("len != 0", __FILE__, __LINE__, nullptr);
  const char* p = static_cast<const char*>(data);
  db_bytes h{};
  h.owner_dba = owner;
  size_t done = std::min(len, static_cast<size_t>(DB_BYTES_HEAD_LEN));
  std::memcpy(h.bytes, p, done);
  int st = dt_fillnew(DB_BYTES, &h, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_FILLNEW", "DB_BYTES", st);
  DB_ADDR hd = 0;
  st = dt_crget(&hd, view_db_task, -1);
  if (st != 0) return tvr_engine_err("D_CRGET", "DB_BYTES", st);
  if (done < len) {
    st = dt_setor(DB_BYTES_SET, view_db_task, -1);
    if (st != 0) return tvr_engine_err("D_SETOR", "DB_BYTES_SET", st);
  }
  while (done < len) {
    const piece_t piece = next_piece(len - done);
    db_bytes_med row{};
    row.owner_dba = owner;
    std::memcpy(row.bytes, p + done, piece.len);
    const char* label = piece.rec == DB_BYTES_MED ? "DB_BYTES_MED" : "DB_BYTES_SMALL";
    st = dt_fillnew(piece.rec, &row, view_db_task, -1);
    if (st != 0) return tvr_engine_err("D_FILLNEW", label, st);
    st = dt_connect(DB_BYTES_SET, view_db_task, -1);
    if (st != 0) return tvr_engine_err("D_CONNECT", "DB_BYTES_SET", st);
    done += piece.len;
  }
  if (owner != 0) {
    st = dt_crset(&owner, view_db_task, -1);
    if (st != 0) return tvr_engine_err("D_CRSET", "OWNER_DBA", st);
  }
  *head = hd;
  return 0;
}

int tvr_db_bytes_read(DB_ADDR owner, DB_ADDR head, void* buffer, size_t len) {
  tvr_db_trans_read_check();
  char* out = static_cast<char*>(buffer);
  return walk_chain(owner, head, len, [&](const char* piece, size_t n, size_t at) {
    std::memcpy(out + at, piece, n);
    return true;
  });
}

int tvr_db_bytes_cmp(DB_ADDR owner, DB_ADDR head, const void* data, size_t len, int* differ) {
  tvr_db_trans_read_check();
  const char* in = static_cast<const char*>(data);
  int diff = 0;
  int st = walk_chain(owner, head, len, [&](const char* piece, size_t n, size_t at) {
    diff = std::memcmp(piece, in + at, n);
    return diff == 0;
  });
  if (st != 0) return st;
  *differ = diff;
  return 0;
}

int tvr_db_bytes_delete(DB_ADDR head) {
  tvr_db_trans_write_check();
  if (head == 0) return 0;
  DB_ADDR* saved = nullptr;
  int size = 0;
  int st = dt_rdcurr(&saved, &size, view_db_task);
  if (st != 0) return tvr_engine_err("D_RDCURR", "DB_BYTES", st);
  auto fail = [&](const char* op, const char* obj, int status) {
    dt_wrcurr(saved, view_db_task);
    return tvr_engine_err(op, obj, status);
  };
  st = dt_crset(&head, view_db_task, -1);
  if (st != 0) return fail("D_CRSET", "DB_BYTES", st);
  int type = 0;
  st = dt_crtype(&type, view_db_task, -1);
  if (st != 0) return fail("D_CRTYPE", "DB_BYTES", st);
  if (type != DB_BYTES) return fail("D_CRTYPE", "DB_BYTES", type);
  st = dt_setor(DB_BYTES_SET, view_db_task, -1);
  if (st != 0) return fail("D_SETOR", "DB_BYTES_SET", st);
  // Members go first (a head with members cannot be deleted); each disdel leaves the owner in place.
  while ((st = dt_findfm(DB_BYTES_SET, view_db_task, -1)) == 0) {
    st = dt_disdel(view_db_task, -1);
    if (st != 0) return fail("D_DISDEL", "DB_BYTES_SET", st);
  }
  if (st != S_EOS) return fail("D_FINDFM", "DB_BYTES_SET", st);
  st = dt_crset(&head, view_db_task, -1);
  if (st != 0) return fail("D_CRSET", "DB_BYTES", st);
  st = dt_disdel(view_db_task, -1);
  if (st != 0) return fail("D_DISDEL", "DB_BYTES", st);
  st = dt_wrcurr(saved, view_db_task);
  if (st != 0) return tvr_engine_err("D_WRCURR", "DB_BYTES", st);
  return 0;
}
