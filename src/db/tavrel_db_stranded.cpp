// Deleting inodes with their containers, the inodes a denied removal leaves stranded, and the scrubber
// that retries them (see tavrel_db_container.h). Also the two steps of the database's start that belong
// to this area: dropping what build sessions held, and scheduling the scrubber.
#include <cstring>
#include <mutex>
#include <vector>

#include "base/imsg.h"
#include "base/rt.h"
#include "db/rec/dt.h"
#include "db/tavrel_db_container.h"
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_cr.h"
#include "db/tvr_db_dir.h"
#include "db/tvr_db_inode.h"

namespace {

// Under tavrel_engine_mutex(): the timer of the next scrub (0: none), and where the next run goes on.
long tavrel_db_container_deletion_callback_pending = 0;
tbs_oid_s tavrel_db_stranded_container_starting_inode = TBS_OID_NULL;

tavrel_db_scrub_clock_fn g_clock = nullptr;

time_t now_secs() { return g_clock != nullptr ? g_clock() : time(nullptr); }

bool is_file_like(uint32_t ftype) { return ftype == 1 || ftype == 3 || ftype == 4 || ftype == 6; }

int read_text(uint32_t dbid, std::vector<char>* text) {
  text->assign(65536, '\0');
  return tvr_db_inode_read_text(dbid, text->data(), text->size());
}

void scrub_callback(void*) {
  {
    std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_engine_mutex());
    tavrel_db_container_deletion_callback_pending = 0;
  }
  bool again = false;
  int st = tavrel_db_scrub_stranded(&again);
  // A database that refuses writes for now (1022) is tried again later; a closed one is not.
  if (again || (st != 0 && tvr_db_is_open())) tavrel_db_sched_scrubber();
}

// One stranded inode of a scrub. *keep: its container is still denied and it has not expired.
int scrub_one(uint32_t dbid, std::vector<char>& text, time_t now, bool* keep) {
  *keep = false;
  tbs_fstat_db_s f{};
  tbs_oid_s oid;
  int st = tvr_db_inode_read(dbid, nullptr, &oid, &f, nullptr, nullptr);
  if (st == 0) st = read_text(dbid, &text);
  if (st != 0) return st;
  if (text[0] != '\0' && f.type != TBS_FTYPE_LINK) {
    st = tavrel_storage_remove(text.data());
    if (st != 0) {
      // The expiry was kept in the first word of the extra pair when the inode was stranded.
      if (now < static_cast<time_t>(f.fourth_time.tv_sec)) {
        *keep = true;
        return 0;
      }
      imsg_print(IMSG_ERR, "Unable to remove container %s of stranded inode %s: %s\n",
                 tavrel_storage_path(text.data()).c_str(), tbs_oid_to_str(oid).c_str(), tavrel_db_status_text(st).c_str());
    }
  }
  return tvr_db_inode_delete(dbid, 0);
}

}  // namespace

// ---- inodes with containers ------------------------------------------------------------------------------

int tavrel_db_inode_delete(uint32_t session, uint32_t dbid, uint32_t ftype, std::string* lost_found_out) {
  tvr_db_trans_write_check();
  if (lost_found_out != nullptr) lost_found_out->clear();
  std::vector<char> text;
  if (is_file_like(ftype) || ftype == TBS_FTYPE_DIR) {
    int st = read_text(dbid, &text);
    if (st != 0) return st;
  }
  if (is_file_like(ftype) && text[0] != '\0') {
    if (lost_found_out != nullptr) {
      const std::string pool = tavrel_storage_pool().empty() ? TAVREL_STORAGE_POOL : tavrel_storage_pool();
      int st = move_to_lost_and_found_at(pool, tavrel_storage_path(text.data()), lost_found_out);
      // A container that is not there has nothing to keep.
      if (st != 0 && st != TBS_ST_NO_SUCH_NAME) return st;
    } else {
      int st = tavrel_storage_remove(text.data());
      if (st == TBS_ST_NO_PERMISSION) {
        // The file stays for now: so does its inode, out of its silo, until the scrubber removes both.
        st = tvr_db_mark_inode_stranded(dbid, static_cast<uint32_t>(now_secs() + TAVREL_STRANDED_EXPIRY_SECS));
        if (st == 0) tavrel_db_sched_scrubber();
        return st;
      }
      if (st != 0) return st;
    }
  } else if (ftype == TBS_FTYPE_DIR) {
    int st = tvr_db_dir_empty(dbid);
    if (st != 0 && st != TBS_ST_NOT_FOUND) return st;
    if (text[0] != '\0') {
      st = tavrel_storage_remove_dir(text.data());
      if (st != 0) return st;
    }
  }
  return tvr_db_inode_delete(dbid, session);
}

// ---- the scrubber -----------------------------------------------------------------------------------------

void tavrel_db_sched_scrubber() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_engine_mutex());
  if (tavrel_db_container_deletion_callback_pending != 0) return;
  long id = rt_sched(TAVREL_SCRUB_DELAY_MS, scrub_callback, nullptr);
  tavrel_db_container_deletion_callback_pending = id > 0 ? id : 0;
}

bool tavrel_db_scrubber_pending() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_engine_mutex());
  return tavrel_db_container_deletion_callback_pending != 0;
}

void tavrel_db_scrubber_cancel() {
  std::lock_guard<Tavrel_Recursive_Mutex> g(tavrel_engine_mutex());
  if (tavrel_db_container_deletion_callback_pending != 0) rt_unsched(tavrel_db_container_deletion_callback_pending);
  tavrel_db_container_deletion_callback_pending = 0;
  tavrel_db_stranded_container_starting_inode = TBS_OID_NULL;
}

void tavrel_db_set_scrub_clock(tavrel_db_scrub_clock_fn fn) { g_clock = fn; }

int tavrel_db_scrub_stranded(bool* again) {
  *again = false;
  const time_t now = now_secs();
  return tvr_db_in_trans(1, [&] {
    std::vector<uint32_t> dbids(TAVREL_SCRUB_BATCH);
    size_t count = 0;
    // Stranded inodes are those without a silo: the walk of silo 0 finds exactly them.
    int st = tvr_db_inode_inventory(0, tavrel_db_stranded_container_starting_inode, dbids.data(), dbids.size(),
                                    &count, 0);
    if (st != 0) return st;
    if (count == TAVREL_SCRUB_BATCH) {
      st = tvr_db_inode_read(dbids[count - 1], nullptr, &tavrel_db_stranded_container_starting_inode, nullptr,
                             nullptr, nullptr);
      if (st != 0) return st;
      *again = true;
    } else {
      tavrel_db_stranded_container_starting_inode = TBS_OID_NULL;
    }
    std::vector<char> text;
    for (size_t i = 0; i < count; i++) {
      bool keep = false;
      st = scrub_one(dbids[i], text, now, &keep);
      if (st != 0) return st;
      if (keep) *again = true;
    }
    return 0;
  });
}

// ---- steps of the database's start -------------------------------------------------------------------------

int tvr_db_start_cleanup() {
  // Only a database with holds to drop is written: an open that changes nothing leaves the state idle.
  bool held = false;
  int st = tvr_db_in_trans(0, [&] {
    // The key orders holds by session: the last entry names a session unless none is held.
    int st = dt_keylast(DO_SESSION_HOLD, view_db_task, -1);
    if (st == S_NOTFOUND) return 0;
    db_do row;
    if (st == 0) st = dt_recread(&row, view_db_task, -1);
    if (st != 0) return tvr_engine_err("D_KEYLAST", "DB_DO", st);
    held = row.do_session_hold != 0;
    return 0;
  });
  if (st != 0 || !held) return st;
  st = tvr_db_in_trans(1, [] { return tvr_db_cr_rm_build_session(0); });
  // Part of opening: the database is synced and idle again before anyone uses it.
  return st == 0 ? tvr_db_state_purify() : st;
}

int tvr_db_start_scrubber() {
  tvr_db_trans_read_check();
  uint32_t dbid = 0;
  size_t count = 0;
  int st = tvr_db_inode_inventory(0, TBS_OID_NULL, &dbid, 1, &count, 0);
  if (st != 0) return st;
  if (count > 0) tavrel_db_sched_scrubber();
  return 0;
}
