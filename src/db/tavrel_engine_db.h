// tavrel_engine_db: the one view database of the process, its state file, and the transactions that
// every access runs in.
//
// Files, relative to the working directory (the view storage directory):
//   "tavrel_db.state"          one letter and a newline: whether the database on disk can be trusted
//   "db/"                      the record engine's files (dt.h), made 0777 before the umask
//   "db/tavrel_db_schema_version"  decimal schema version; only 1 is opened
//   "db/tavrel_db.dbd"         the dictionary copied from the product directory, mode 0640
//   ".s/tavrel_db.crs_file"    configuration-record bytes (the side file), 0700
//   ".new_db"                  optional marker: with an empty state file the next start creates the database
//
// State letters:
//   '\0' none   no database yet, or the letter was lost (empty or unreadable file)
//   'n'  new    the database must be created
//   'i'  idle   everything synced; the files are consistent
//   'm'  modified  write transactions ran since the last sync; a start in this state repairs the
//               database by dump and reload, never trusting it as it stands
//   'r'  recover   a repair started and has not finished
//   'd'  dumped    the dump is written and the old database renamed; a load is due
// Every change of letter reaches the disk (fflush + fsync) before the step it announces. The first
// write transaction turns 'i' into 'm'; the idle callback turns 'm' back into 'i' after a quiet spell of
// 10 to 20 seconds, once the engine has synced its files.
//
// Transactions: tvr_db_trans_start takes `tavrel_engine_mutex` and keeps it until tvr_db_trans_end or
// tvr_db_trans_abort, so at most one transaction (read or write) exists in the process. Process exit is
// deferred (pfm_inhibit) for its life. Each thread remembers the transaction it began, so a thread that
// ends a transaction it did not begin, begins a second one, or calls a record function outside one fails
// an assertion. Record functions (tvr_db_*) never lock; they call tvr_db_trans_read_check() or
// tvr_db_trans_write_check() first.
//
// Durability: the engine's journal makes each commit atomic. With `tavrelDbSync` = "commit" every commit
// syncs the journal; with "deferred" (the default) the journal is synced within 50 ms of a commit and
// before every checkpoint and every change of state letter (see tvr_db_set_sync_mode).
//
// Statuses (1000 range): 0; 1002 not found; 1008 internal; 1013 repair refused without force; 1022 not
// writable now; 1023 needs reformat or reload; 1052 no dump waiting; 1067 exists; 1072 bad argument;
// 1084 buffer too small; 1085 not empty; 1087 stale handle.
#pragma once

#include <string>

#include "base/tavrel_mutex.h"

struct DB_TASK;

// The engine task of the view database; valid while the database is open.
extern DB_TASK* view_db_task;

// The lock of every database access (rank: see docs/threads-and-locks.md). Recursive so that the state
// functions can be called with it held.
Tavrel_Recursive_Mutex& tavrel_engine_mutex();

enum tvr_db_trans_state_t { DB_TRANS_NULL = 0, DB_TRANS_WRITE = 1, DB_TRANS_READ = 2 };

// ---- state file -----------------------------------------------------------------------------------------
int tvr_db_state_file_open();
int tvr_db_state_file_close();
int tvr_db_state_change(char letter);
int tvr_db_state_purify();
char tvr_db_state();  // the letter in memory
// The idle callback's body (scheduled with rt_sched after a change to 'm'); exposed for tests.
void tvr_db_state_idle_callback();
// True while an idle callback is scheduled.
bool tvr_db_state_callback_pending();

// ---- open and close ---------------------------------------------------------------------------------------
int tvr_db_init_schema();
int tvr_db_init_db();
int tvr_db_read_schema(int* version);
int tvr_db_open_db(int quiet, int pages);
int tvr_db_close_db();
bool tvr_db_is_open();
// Descriptor of ".s/tavrel_db.crs_file", -1 while closed.
int tvr_db_cr_file_fd();
// When set, the engine syncs every data file at commit (option 16). Tests only.
void tvr_db_set_force_write(bool on);

// Commit durability (tavrel.conf `tavrelDbSync`): "commit" or "deferred". Takes effect at the next open.
enum tvr_db_sync_mode_t { TVR_DB_SYNC_DEFERRED = 0, TVR_DB_SYNC_COMMIT = 1 };
void tvr_db_set_sync_mode(tvr_db_sync_mode_t mode);
tvr_db_sync_mode_t tvr_db_get_sync_mode();
// Parses a tavrelDbSync value; false for an unknown one.
bool tvr_db_parse_sync_mode(const std::string& text, tvr_db_sync_mode_t* mode);

// ---- transactions -----------------------------------------------------------------------------------------
int tvr_db_trans_start(int write);
int tvr_db_trans_start_int(int write, int check_state);  // check_state 0: the loader only
int tvr_db_trans_end(int write);
int tvr_db_trans_abort(int write);
void tvr_db_trans_read_check();
void tvr_db_trans_write_check();

// Runs `body` in a transaction: start, body, end on 0, abort otherwise. Returns the first failure.
template <typename F>
int tvr_db_in_trans(int write, F&& body) {
  int st = tvr_db_trans_start(write);
  if (st != 0) return st;
  st = body();
  if (st != 0) {
    tvr_db_trans_abort(write);
    return st;
  }
  return tvr_db_trans_end(write);
}

// ---- start-up and repair ----------------------------------------------------------------------------------
// Opens, creates or repairs the database as the state letter says (see the header comment). *created is
// set when a new database was made. 0 also when the database stays closed (state 'd', or no database
// and no ".new_db" marker, or a failed repair): transactions then answer 1023 or 1008.
int tavrel_db_init(int* created);
int tavrel_db_init_int(int* created);
int tavrel_db_reset();
int tavrel_db_recover_db(int force);
int tavrel_db_recover(int force);
int tavrel_db_load(int force);
// Closes the database for good (process exit): close, which purifies, so a clean exit leaves 'i'.
void tavrel_db_on_exit();

// The view storage directory's path for messages (the working directory).
std::string tvr_db_storage_name();

// ---- engine failures ----------------------------------------------------------------------------------
// The one funnel for engine failures: prints the diagnostic for `op` (the engine call, "D_RECREAD") on
// `object` (record, set or operation label) and returns 1008.
int tvr_engine_err(const char* op, const char* object, int status);

// ---- steps of other modules of this library ---------------------------------------------------------
// At every open of an existing database: drops what build sessions held, in a write transaction of its own.
int tvr_db_start_cleanup();
// Inside a read transaction at start: schedules the scrubber of stranded containers.
int tvr_db_start_scrubber();
// Written by the loader before it starts and removed when it has finished: a start that finds it (with
// the dump beside it) loads that dump again instead of dumping the half-loaded database over it.
constexpr const char* TVR_DB_LOADING_MARKER = "db/.loading";

// Dumps the database with the product's dumper into "tavrel_db.dump_file", moves "db" aside and sets
// 'd'; *dumped receives the moved directory's path. 1001 if the dumper is not executable.
int tvr_db_dump_db(std::string* dumped);
// Rebuilds the database from the dump; state 'i' on success.
int tvr_db_load_db();
// Makes records and containers agree after a load.
int tvr_db_fsck_db();
