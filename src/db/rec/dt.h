// dt.h: the record engine of the view database, in its task-qualified calling form.
//
// The engine keeps one database ("tavrel_db") of the record types, sets and keys of tavrel_db_schema.h in
// one directory: a data file per record type ("<name>.dNN", fixed-size slots, stable DBAs), a B+tree file per
// key ("<name>.kNNNNN"), the transaction journal "<name>.tjf" and its control file "<name>.tcf" (format in
// journal.h), and the dictionary copy "<name>.dbd", which must match the compiled-in schema.
//
// Calling form: every call returns 0 or a status and also stores it in the global `db_status`. The last two
// arguments are the task (from dt_opentask) and the database number, which must be -1 (or 0). A call
// while no database is open answers -1 (S_DBOPEN). Not thread-safe: callers serialise all calls (the agent
// holds its engine mutex); calls may come from different threads one after the other.
//
// Positive statuses are not errors: 1 end of set (S_EOS), 2 not found (S_NOTFOUND), 3 duplicate
// (S_DUPLICATE), 6 deleted record (S_DELETED). Negative statuses are errors with fixed texts (dt_errtext,
// dberr_code). Failing calls change no position unless stated.
//
// Durability: dt_trend is atomic against a crash at any point: after the next dt_open a transaction is
// either whole or absent. Commit makes the journal durable with one data sync and then writes the files
// through the OS; dt_syncfiles and dt_close checkpoint (sync the files, empty the journal). If writing the
// files fails after the journal sync, the engine reports "*** view database engine error during commit,
// exiting" and ends the process: the next dt_open replays the journal.
//
// Messages (roll-forward reports, journal and dictionary problems) go to the message sink (dt_set_msg_sink);
// without one they are appended to the file named by DBLOG, or else written to standard error.
//
// Engine settings, read from the environment at dt_opentask:
//   DBWDIR   database directory when dt_dbwdir was not called (default ".")
//   DBDPATH  directory of the dictionary file "<name>.dbd" (default: the database directory)
//   DBFPATH  directory of the data and key files (default: the database directory)
//   DBTAF    directory of the journal and control files (default: the database directory)
//   DBLOG    file that receives engine messages when no sink is set
//   DBUSERID user name for the one-user open; accepted and reported in lock messages only
//   CTBPATH, LOCKMGR: country tables and lock manager; not used by this engine (one-user mode), accepted
// Paths longer than 4095 bytes answer -35 at dt_open.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "db/rec/journal.h"
#include "db/rec/tavrel_db_schema.h"

struct DB_TASK;

extern int db_status;

// ---- statuses ---------------------------------------------------------------------------------------------
enum : int {
  S_OKAY = 0,
  S_EOS = 1,
  S_NOTFOUND = 2,
  S_DUPLICATE = 3,
  S_DELETED = 6,
  S_DBOPEN = -1,
  S_INVSET = -2,
  S_INVREC = -3,
  S_INVDB = -4,
  S_INVFLD = -5,
  S_INVADDR = -6,
  S_NOCR = -7,
  S_NOCO = -8,
  S_NOCM = -9,
  S_KEYREQD = -10,
  S_HASMEM = -12,
  S_ISMEM = -13,
  S_ISOWNED = -14,
  S_ISCOMKEY = -15,
  S_NOTCON = -16,
  S_NOTKEY = -17,
  S_INVOWN = -18,
  S_INVMEM = -19,
  S_SETPAGES = -20,
  S_INCOMPAT = -21,
  S_TRX_ID = -25,
  S_TRACTIVE = -26,
  S_TRNOTACT = -27,
  S_TRCHANGES = -30,
  S_TRFREE = -31,
  S_NAMELEN = -35,
  S_NOTOPTKEY = -37,
  S_BADFIELD = -38,
  S_COMKEY = -39,
  S_INVNUM = -40,
  S_NOTYPE = -46,
  S_NOSPACE = -900,
  S_SYSERR = -901,
  S_FAULT = -902,
  S_NOMEMORY = -904,
  S_NOFILE = -905,
  S_BADKEY = -910,
  S_BADSEEK = -912,
  S_BADREAD = -914,
  S_RECOVERY = -918,
  S_BADWRITE = -919,
  S_TAFSYNC = -925,
};

// Option bits (dt_on_opt / dt_off_opt).
enum : int {
  DT_OPT_COMMIT_PATH = 0x2,     // accepted and kept; commit always goes through the journal
  DT_OPT_TRACE = 0x4,           // accepted; the engine reports through the message sink only
  DT_OPT_IGNORECASE = 0x8,      // accepted; keys always compare bytewise
  DT_OPT_SYNC_FILES = 0x10,     // commit also syncs every data and key file it wrote
  DT_OPT_TXJOURNAL = 0x100,     // transaction journal (default on). Off: for a bulk load only; changes go
                                // to the files without the journal, a crash leaves them half done, and
                                // dt_trabort answers -925
  DT_OPT_DEFER_SYNC = 0x200,    // commit returns after writing the journal, without its data sync; the
                                // sync follows through dt_journal_sync_point (from any thread), before any
                                // committed page reaches its file, and at every checkpoint and close
};

// ---- session ----------------------------------------------------------------------------------------------
int dt_opentask(DB_TASK** task);  // new task with empty positions; reads the engine settings
int dt_closetask(DB_TASK* task);  // closes its database if open
int dt_dbwdir(const char* dir, DB_TASK* task);  // directory of the database files for the next dt_open
// Page cache size for the next dt_open: data_pages + overflow_pages frames of one page. Only while no
// database is open (-20 otherwise, or when either count is negative or the sum is below 8).
int d_setpages(int data_pages, int overflow_pages);
// Open database `name` in one-user mode ("o"; any other mode is -4). Checks the dictionary (-905 missing,
// -21 different), takes a lock on the journal (-901 if another process holds the database), replays the
// journal if it holds committed transactions (roll-forward; -925 on a malformed journal, which is then kept
// aside as "<journal>.<tx hex>"), creates the files of an empty database, and allocates the page cache
// (-904 when it cannot be allocated; the caller may retry with fewer pages).
int dt_open(const char* name, const char* mode, DB_TASK* task);
int dt_close(DB_TASK* task);  // aborts an open transaction, checkpoints, closes
// Empty all files of the open database. Until the next dt_close, a write outside a transaction is
// allowed and committed on its own (used to store the first rows of a new database).
int dt_initialize(DB_TASK* task, int dbn);
int dt_on_opt(int bits, DB_TASK* task);
int dt_off_opt(int bits, DB_TASK* task);
// Transactions. All writes must lie between dt_trbegin and dt_trend (-31 otherwise). dt_trbegin with a
// null id is -25; twice -26. dt_trend / dt_trabort without a transaction -27. dt_trabort drops every change
// of the transaction and clears all positions.
int dt_trbegin(const char* tid, DB_TASK* task);
int dt_trend(DB_TASK* task);
int dt_trabort(DB_TASK* task);
// Force all files to disk. Outside a transaction this is a checkpoint: the journal is emptied.
int dt_syncfiles(DB_TASK* task);
// Save all positions (current record, owner and member of every set, every key position, the scan) into
// a block allocated with malloc; dt_wrcurr restores them and frees the block (-4 for a foreign block, which
// is then not freed).
int dt_rdcurr(DB_ADDR** buffer, int* size, DB_TASK* task);
int dt_wrcurr(DB_ADDR* buffer, DB_TASK* task);

// ---- rows -------------------------------------------------------------------------------------------------
// Store a new row of type `rec` from `values` (the record's struct). Every mandatory key is stored; a
// duplicate unique key answers 3 and stores nothing. The row becomes the current record.
int dt_fillnew(int rec, const void* values, DB_TASK* task, int dbn);
int dt_recread(void* buffer, DB_TASK* task, int dbn);         // current record -> buffer
// Overwrite the current record; keys whose value changed move (3 and no change on a unique clash).
int dt_recwrite(const void* buffer, DB_TASK* task, int dbn);
// One field (or a whole nested structure such as INODE_FSTAT) of the current record. -5 unknown field,
// -38 field of another record type, -15 a compound key position.
int dt_crread(long field, void* buffer, DB_TASK* task, int dbn);
int dt_crwrite(long field, const void* value, DB_TASK* task, int dbn);
int dt_crget(DB_ADDR* dba, DB_TASK* task, int dbn);  // -7 without a current record
// Make `*dba` the current record: -6 for an address that cannot exist, 6 for a row that is gone (the
// current record is then unchanged).
int dt_crset(const DB_ADDR* dba, DB_TASK* task, int dbn);
int dt_crtype(int* rec, DB_TASK* task, int dbn);
// Disconnect the current record from every set it is a member of and delete it; -12 when it owns a
// non-empty set. Every position naming the row (current record, owner, member) becomes none; key and scan
// positions keep their values, so walks continue.
int dt_disdel(DB_TASK* task, int dbn);
// Delete the current record, which must be in no set (-13) and own no non-empty set (-12).
int dt_delete(DB_TASK* task, int dbn);
// Scan all rows of a type in DBA order: first (2 when there is none), next (2 at the end; -46 without a
// scan), and start the scan at the current record (-3 when it is of another type). The scan survives the
// deletion of its current row.
int dt_recfrst(int rec, DB_TASK* task, int dbn);
int dt_recnext(DB_TASK* task, int dbn);
int dt_recset(int rec, DB_TASK* task, int dbn);

// ---- sets -------------------------------------------------------------------------------------------------
// All sets keep their members in connection order (connect appends last).
int dt_setor(int set, DB_TASK* task, int dbn);            // owner := current record (-18); member := none
int dt_setro(int set, DB_TASK* task, int dbn);            // current record := owner (-8)
// Member := current record and owner := its owner in `set`; -19 if its type cannot be a member, -16 if
// it is not connected.
int dt_setmr(int set, DB_TASK* task, int dbn);
int dt_setmo(int seta, int setb, DB_TASK* task, int dbn);  // member of seta := owner of setb, as setmr
int dt_setoo(int seta, int setb, DB_TASK* task, int dbn);  // owner of seta := owner of setb; member := none
int dt_csoget(int set, DB_ADDR* dba, DB_TASK* task, int dbn);
int dt_csoset(int set, const DB_ADDR* dba, DB_TASK* task, int dbn);  // as dt_crset; member := none
int dt_csoread(int set, long field, void* buffer, DB_TASK* task, int dbn);
int dt_csowrite(int set, long field, const void* value, DB_TASK* task, int dbn);
// Append the current record to the current owner's members; it becomes the current member. -7, -19, -8,
// -14 (already connected in this set).
int dt_connect(int set, DB_TASK* task, int dbn);
// Disconnect the current member; the current member becomes none. 1 when there is none.
int dt_discon(int set, DB_TASK* task, int dbn);
int dt_ismember(int set, DB_TASK* task, int dbn);  // 0 member, 1 not
// First, next and last member: the member becomes current record and current member; 1 (with nothing
// moved) when there is none. dt_findnm without a current member starts from the first.
int dt_findfm(int set, DB_TASK* task, int dbn);
int dt_findnm(int set, DB_TASK* task, int dbn);
int dt_findlm(int set, DB_TASK* task, int dbn);
int dt_members(int set, long* count, DB_TASK* task, int dbn);

// ---- keys -------------------------------------------------------------------------------------------------
// Find the first row (lowest DBA) with this key value (the field's native value, or for a compound key the
// key_* struct of its parts). Hit: the row becomes current record and the key position stands on it. Miss
// (2): the key position stands before the next larger value, so dt_keynext gives it and dt_keyprev the
// largest smaller one. -17 for a field that is not a key.
int dt_keyfind(long field, const void* value, DB_TASK* task, int dbn);
// Step along the key in (value, DBA) order; the row becomes current. 2 at the end (nothing moves).
// Without a key position dt_keynext starts at the first entry and dt_keyprev at the last.
int dt_keynext(long field, DB_TASK* task, int dbn);
int dt_keyprev(long field, DB_TASK* task, int dbn);
int dt_keylast(long field, DB_TASK* task, int dbn);
// Store / delete an optional key entry of the current record (-37 for a key that is not optional, -38
// for a key of another record type). Storing a stored key or deleting an absent one does nothing.
int dt_keystore(long field, DB_TASK* task, int dbn);
int dt_keydel(long field, DB_TASK* task, int dbn);
// The key value at the last key position used (the native value or key_* struct); -7 when that position is
// not on an entry.
int dt_keyread(void* buffer, DB_TASK* task);

// ---- messages ---------------------------------------------------------------------------------------------
const char* dt_errtext(int status);  // fixed text of a status, "" for an unknown one
// "TVRDB0904E *** view database engine error -904 - unable to allocate sufficient memory"
std::string dberr_code(int status);
using dt_msg_sink_fn = void (*)(int level, const char* text, void* ctx);  // level 0 info, 1 warning, 2 error
void dt_set_msg_sink(dt_msg_sink_fn fn, void* ctx);

// ---- extensions for tools, tests and benchmarks -----------------------------------------------------------
// Page size of the files of a database created by the next dt_open (a power of two, 512 to 32768; -20
// otherwise or while a database is open). An existing database keeps its own.
int d_setpagesize(int bytes);
// Check every invariant of the open database (slots, free lists, set chains, keys). 0 when all holds;
// -910 with a description in *report otherwise.
int dt_check(std::string* report, DB_TASK* task);
struct dt_stats_s {
  uint64_t cache_hits, cache_misses, spills, commits, journal_bytes, journal_syncs;
  uint32_t frames, page_size;
};
int dt_stats(dt_stats_s* out, DB_TASK* task);
// Write the dictionary file of the compiled-in schema (what the build installs as "tavrel_db.dbd").
int dt_write_dictionary(const char* path);
// The open database's journal sync point: sync() makes every commit so far durable; it may be called from
// any thread without serialising with the other calls, and stays harmless after the database closes.
// Null while no database is open.
std::shared_ptr<tavrel::rec::SyncPoint> dt_journal_sync_point(DB_TASK* task);
// Tests only: cap the page cache allocation at `bytes` (0 = no cap) to exercise the -904 path.
void d_set_cache_alloc_cap(size_t bytes);
// Tests only: give up the open database as a crash would (no abort, no flush, no checkpoint).
int dt_crash(DB_TASK* task);
// Tests only: set the last issued transaction number of an open database whose journal is empty.
int dt_set_txnum(uint32_t tx, DB_TASK* task);
