// tavrel_db_container: the container pool of the view storage, where the bytes of view-private objects
// live outside the database, and the deletion of inodes together with their containers.
//
// Layout (relative to the view storage directory, which is the working directory):
//   ".s/"                 the pool (made 0777 before the umask)
//   ".s/00000" .. "00056" 57 buckets, named "%s%c%05d" (pool, '/', bucket number)
//   ".s/lost+found"       containers that no inode names any more, made on first use
// A container name is relative to the pool and is what an inode's text holds:
//   "%05ld%c%08x%06x" + suffix = bucket (hash of the OID modulo 57), '/', the caller's 32-bit id, the
//   process's sequence number (a counter that starts at time(NULL) on first use), the caller's suffix
//   ("cow" for a copy-on-write container, for instance). A name that ends in '.' ends in '!' instead.
// The longest name allowed (max leaf length) is the file system's name limit of the pool plus 7, the
// bucket prefix "NNNNN/" and the terminating NUL.
//
// Pool state: set by tavrel_storage_init (at every start of a view, and again by each test for its own
// scratch directory) and read under the database transaction afterwards; the sequence counter is atomic.
//
// Order of work: container files change only where a failure can be mended. A container that cannot be
// removed leaves a stranded inode (its silo reference dropped, INODE_SILO_DBA 0, an expiry in the first
// word of the fstat's extra pair) which the scrubber retries; there is never a missing inode for a
// present file.
//
// Statuses: those of tavrel_engine_db.h; 1052 a file that is not there (lost+found), 1062 no memory,
// 1063 access denied or a path that may not be used, 1067 exists, 1072 bad type, 1084 too long.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

#include "base/credutl.h"
#include "base/tbs.h"

constexpr int TAVREL_STORAGE_BUCKETS = 57;
constexpr const char* TAVREL_STORAGE_POOL = ".s";
constexpr const char* TAVREL_STORAGE_LOST_FOUND = "lost+found";
// Seconds a stranded inode waits for its container to become removable before it is given up.
constexpr uint32_t TAVREL_STRANDED_EXPIRY_SECS = 86400;
// The scrubber's period and the number of stranded inodes one run looks at.
constexpr long TAVREL_SCRUB_DELAY_MS = 60 * 1000;
constexpr size_t TAVREL_SCRUB_BATCH = 1000;

// The status of a failed file operation's errno (1001 for one without a status of its own), and the
// short text of a status for messages.
int tavrel_storage_errno_status(int err);
std::string tavrel_db_status_text(int status);

// ---- the pool ----------------------------------------------------------------------------------------------
// Makes the pool ".s" and its buckets in the working directory (existing ones are fine), measures the
// longest leaf name and remembers the pool's absolute path. 0, 1063 when a directory cannot be made,
// 1072 when the pool is the view directory itself.
int tavrel_storage_init();
// The same for pool `pool` of view directory `view_dir`.
int tavrel_storage_init_at(const std::string& pool, const std::string& view_dir);
// The absolute path of the pool (empty before tavrel_storage_init), and the max leaf length.
const std::string& tavrel_storage_pool();
size_t tavrel_storage_max_leaf_len();
// The full path of container `name` (a name relative to the pool; an absolute path stays as it is).
std::string tavrel_storage_path(const std::string& name);

// ---- container names and files ---------------------------------------------------------------------------
// Writes a new container name for `oid` (`elem_oid` when `oid` is null) into `buffer` (`size` bytes, cut
// to the max leaf length). 0; -1 with errno ENAMETOOLONG when `size` is 20 or less, EEXIST when the name
// is taken in the pool, or the errno of a failed stat (with a message).
int tavrel_storage_create(const tbs_oid_s& oid, const tbs_oid_s& elem_oid, const char* suffix, uint32_t id,
                          char* buffer, size_t size);
// Removes the container file `path` (retrying once after flushing its directory). A file that is not
// there counts as removed. 0, 1063 when access is denied (quiet unless traced), else the errno's status.
int tavrel_storage_remove(const std::string& path);
// Removes an empty container directory; a missing one counts as removed.
int tavrel_storage_remove_dir(const std::string& path);

// Makes container `path`: a file for `ftype` 1, a directory for 2 (any other type: "Unexpected file
// type(%ld) on %s" and 1072), owned by the agent with the caller's group `creds.gid` and with `mode`
// (bit 8 of `mode` clears the set-id and sticky bits 0x0e00). When the name is taken: with `uniquify` the
// names "%s.%d" from 1 up are tried, else 1067. *actual (stg_strdup; free with stg_free) receives the
// name made.
int tavrel_storage_create_container(const std::string& path, int uniquify, long ftype, const credutl_creds_t& creds,
                                    mode_t mode, char** actual);
// A directory goes with all it holds, a file or link alone; another type gives 1072.
int tavrel_storage_remove_container(const std::string& path);
// `from` must exist and `to` must not (1067); `to` passes validate_pname. The access time of `from` is
// freshened before the rename.
int tavrel_storage_rename_container(const std::string& from, const std::string& to);
// Replaces `to` (which, when it exists, must have the type of `from`: 1072) by `from`; process exit waits
// until both steps are done.
int tavrel_storage_replace_container(const std::string& from, const std::string& to);
// Sets the group (`creds.gid`) and the mode of a container.
int tavrel_storage_protect_container(const std::string& path, const credutl_creds_t& creds, mode_t mode);
// lstat of a container.
int tavrel_storage_fstat_container(const std::string& path, struct stat* st);
// 0 for a relative path without any ".." component; 1063 otherwise.
int validate_pname(const std::string& path);

// Moves `path` (a container name or any path) into "lost+found" of the pool under its leaf, or under a
// fresh UUID's text when that leaf is taken there. `out` (`size` bytes, may be null) receives the new
// path, or "" on failure. 1052 when `path` is not there, 1084 when the new path does not fit, 1008 else.
int move_to_lost_and_found(const std::string& path, char* out, size_t size);
// The same into the pool `pool` (the check after a reload works on the pool of the working directory).
int move_to_lost_and_found_at(const std::string& pool, const std::string& path, std::string* out);

// ---- inodes with containers ------------------------------------------------------------------------------
// Deletes inode `dbid` of file type `ftype` with its container, in the caller's write transaction.
// File-like types (1, 3, 4, 6) with a container: with `lost_found_out` the container moves to lost+found
// and its new path is returned; otherwise it is removed, and when that is denied (1063) the inode is
// stranded instead of deleted and the scrubber is scheduled. A directory (2) must be empty (1085) and its
// container directory goes. The configuration-record reference is dropped for build session `session`.
int tavrel_db_inode_delete(uint32_t session, uint32_t dbid, uint32_t ftype, std::string* lost_found_out);

// ---- the scrubber of stranded inodes -------------------------------------------------------------------
// Schedules a scrub in 60 seconds unless one is pending.
void tavrel_db_sched_scrubber();
bool tavrel_db_scrubber_pending();
// Drops a pending scrub (the database closes, or a test ends).
void tavrel_db_scrubber_cancel();
// One run, in a write transaction of its own: up to 1000 stranded inodes after the resume point lose
// their containers and go; a container still denied before its inode's expiry keeps the inode. *again is
// set when another run is due (a full batch, or an inode kept). Exposed for tests; the timer calls it.
int tavrel_db_scrub_stranded(bool* again);
// The scrubber's clock (seconds); null restores time(). Also dates the expiry of new stranded inodes.
using tavrel_db_scrub_clock_fn = time_t (*)();
void tavrel_db_set_scrub_clock(tavrel_db_scrub_clock_fn fn);
