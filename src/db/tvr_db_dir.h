// tvr_db_dir: directory bodies (DB_DIR), names (DB_DIR_ENT), link and unlink, readdir, hijack marks and
// the inventories of names.
//
// A directory inode owns, through INODE_OID_SET, one DB_DIR row, which owns its names in DIR_ENT_SET in
// the order they were made. A name row keeps its directory inode's DBA, the directory's silo, the name
// (25 bytes inline, the rest chained), its hash (tvr_db_hash_name; key 2010 is (directory DBA, hash),
// duplicates allowed), its position DIR_ENT_OFFSET (2 for the first name of a directory, then the last
// name's plus 1, so positions rise along the set and are never reused while later names exist), three
// name-state bits (tvr_db_store.h) and, for a hijacked name, the version and element OIDs (optional key
// 2011 on the version OID, stored only while a mark is set). A name row is a member of the
// INODE_OID_SET of the inode it names; a row outside every INODE_OID_SET is a name without an inode (a
// white-out or a hijack mark of a silo name): lookups give dbid 0 and add TVR_DB_NS_WHITE_OUT.
//
// Directory cookies: readdir hands out DIR_ENT_OFFSET + TVR_DB_COOKIE_BASE and takes back a cookie above
// 0x3fffffff minus that base; a smaller cookie is taken as a position as it is. Entries whose position is
// not above the cookie are skipped.
//
// Names are 1 to 255 bytes (TVR_DB_MAX_NAME): link refuses longer ones with 1084, empty ones with 1072.
// Runs in the caller's transaction (tvr_db_store.h).
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/tbs.h"
#include "db/rec/tavrel_db_schema.h"
#include "db/tbs_fstat_db.h"

constexpr uint32_t TVR_DB_COOKIE_BASE = 0x40000000u;

// One directory entry in a readdir buffer: 18 bytes of header and the NUL-terminated name, padded so that
// the whole takes VIEW_DB_READDIR_ENTRY_SIZE(name_len) bytes. Entries follow one another in the buffer;
// read them with memcpy (the buffer gives no alignment guarantee beyond 4 for the first).
struct view_db_readdir_entry {
  uint32_t dbid;        // inode dbid, 0 for a name without an inode
  int32_t mtype;        // the inode's mtype, 0 without an inode
  uint32_t offset;      // cookie of this entry (DIR_ENT_OFFSET + TVR_DB_COOKIE_BASE)
  uint32_t name_state;  // as tvr_db_dir_entry_lookup reports it
  uint16_t name_len;
  char name[1];  // name_len bytes and a NUL
};
constexpr size_t VIEW_DB_READDIR_ENTRY_NAME_OFFSET = 18;
constexpr size_t VIEW_DB_READDIR_ENTRY_SIZE(size_t name_len) { return (name_len + 22) & ~static_cast<size_t>(3); }

// ---- directory bodies ------------------------------------------------------------------------------------
// Gives inode `dbid` its directory body (1067 when it has one).
int tvr_db_dir_create(uint32_t dbid);
// 0 when inode `dbid` has a directory body (it becomes the current owner of DIR_ENT_SET), 1002 when not.
int tvr_db_dir_lookup(uint32_t dbid);
// 0 when the directory has no names, 1085 when it has.
int tvr_db_dir_empty(uint32_t dbid);

// ---- names -----------------------------------------------------------------------------------------------
// Makes name `name` in directory `dir` for inode `inode` (0: a name without an inode) with name state
// `state`; *offset (may be null) receives its position. An existing name without an inode is taken over
// when `inode` is given (its state becomes `state`); otherwise an existing name gives 1067. An `inode`
// without the top bit gives 1008.
int tvr_db_dir_entry_create(uint32_t dir, const char* name, size_t len, uint32_t inode, uint32_t state,
                            uint32_t* offset);
// 1002 (no message) when the name is not there.
int tvr_db_dir_entry_lookup(uint32_t dir, const char* name, size_t len, uint32_t* dbid, uint32_t* state);
// Removes the name; with `keep_row` only its link to the inode goes. *dbid (may be null) receives the
// inode it named (0 for none).
int tvr_db_dir_entry_delete(uint32_t dir, const char* name, size_t len, int keep_row, uint32_t* dbid);
int tvr_db_dir_entry_state_set(uint32_t dir, const char* name, size_t len, uint32_t state);
// The whole name of name row `dba` whose row is `row`.
int tvr_db_dir_entry_name(DB_ADDR dba, const db_dir_ent& row, std::string* name);
// Packs the entries after `cookie` into `buffer`; *used gets the bytes filled, *eof 1 when the last
// entry is in. 1084 when not even the next entry fits.
int tvr_db_readdir(uint32_t dir, uint32_t cookie, void* buffer, size_t size, size_t* used, int* eof);
// A directory that names inode `dbid`, and the name; 1002 when no name points at it.
int tvr_db_find_parent(uint32_t dbid, uint32_t* parent, std::string* name);

// Links `name` in `dir` to `inode` (0: a name without an inode). A new name adds its length plus
// TVR_DB_DIR_NAME_OVERHEAD to the directory's size. The inode gains a link (and a directory inode gives
// its parent one more link); unless `keep_times`, the inode's ctime becomes the view time and the
// directory's mtime and ctime tvr_db_fix_dir_modtime(`modtime`). The new attributes go to *dir_fstat and
// *fstat (either may be null).
int tvr_db_link(uint32_t dir, const char* name, size_t len, uint32_t inode, uint32_t state,
                tbs_fstat_db_s* dir_fstat, tbs_fstat_db_s* fstat, int keep_times, const struct timeval* modtime,
                uint32_t* offset);
// The record side of removing a name: with `state` & 0x820 the row stays (a white-out) with its state
// rebuilt from `state`, else the row goes and the directory's size loses the name's share. The inode the
// name pointed at loses a link (a directory must be empty, else 1085, and its parent loses a link too)
// and its ctime becomes the view time; the directory's times are fixed. *inode receives the inode
// (0 for none) and *nlink its remaining link count, so that the caller can delete it and its container.
int tvr_db_unlink(uint32_t dir, const char* name, size_t len, uint32_t state, tbs_fstat_db_s* dir_fstat,
                  uint32_t* inode, uint32_t* nlink);

// ---- hijack marks ----------------------------------------------------------------------------------------
// Sets (both OIDs non-null) or clears (both null) the hijack mark of a name. A name without
// TVR_DB_NS_HIJACK_OIDS in its state accepts only a setting; anything else gives 1072.
int tvr_db_hijack(uint32_t dir, const char* name, size_t len, const tbs_oid_s* ver, const tbs_oid_s* elem);
// The mark's OIDs; 1072 for a name without TVR_DB_NS_HIJACK_OIDS.
int tvr_db_hijack_get(uint32_t dir, const char* name, size_t len, tbs_oid_s* ver, tbs_oid_s* elem);
int tvr_db_has_hijacks(int* has);

struct tvr_db_hijack_info {
  tbs_oid_s ver{};
  tbs_oid_s elem{};
  tbs_oid_s parent{};  // OID of the name's directory
  std::string name;    // path as tvr_db_inode_get_dir_name builds it
};
// Every hijacked name, of silo `silo` only when it is non-null.
int tvr_db_find_hijacks(const tbs_uuid_s* silo, std::vector<tvr_db_hijack_info>* out);

struct tvr_db_private_info {
  uint32_t dbid = 0;
  tbs_oid_s parent{};
  std::string name;
  bool is_dir = false;
};
// View-private objects (mtype 19) by name, leaving out hijacked names and names with
// TVR_DB_NS_HIJACKED: with `dir_pass`, first every private directory (in name-row order); then the
// names of every other private object (in inode order). Of silo `silo` only when it is non-null.
int tvr_db_find_privates(const tbs_uuid_s* silo, std::vector<tvr_db_private_info>* out, int dir_pass);

// One name in the inventory of all names.
struct tvr_db_name_info {
  uint32_t dir = 0;    // directory inode dbid
  uint32_t inode = 0;  // 0 without an inode
  tbs_oid_s oid{};     // the inode's OID, null without an inode
  silo_mtype_t mtype = 0;
  uint32_t state = 0;
  uint32_t offset = 0;  // DIR_ENT_OFFSET
  std::string name;
};
// Walks every name in row order in portions: at most `budget` bytes, counting each name as
// VIEW_DB_READDIR_ENTRY_SIZE of its length plus 24 (at least one name per call). *cursor is 0 at the
// start and is advanced; *eof 1 at the end. Names deleted between calls do not disturb the walk.
int tvr_db_inventory(uint32_t* cursor, size_t budget, std::vector<tvr_db_name_info>* out, int* eof);
