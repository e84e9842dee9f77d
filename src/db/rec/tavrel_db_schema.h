// tavrel_db_schema.h: the record types, fields, sets and keys of the view database "tavrel_db", with the
// native layout of every record and every compound key buffer.
//
// Numbering (the engine addresses every schema object by one number):
//   record type = 10000 + index            (DB_SILO = 10000 ... VNS_DB_VIEW = 10019)
//   set         = 20000 + index            (DO_OID_SET = 20000 ... VNS_SCOPE_ENT_SET = 20010)
//   field       = index * 1000 + position  (a nested structure's members take positions of their own, and a
//                                           compound key takes a position behind the data fields)
// Field numbers 10000/10001 (DB_BYTES_SMALL) coincide with record numbers 10000/10001; no call takes both.
//
// Every stored record has a 32-bit DBA (database address, 0 = none) that is stable for the life of the row.
// Records are passed to and from the engine as the structs below (plain, native little-endian, no padding
// beyond the one shown); static_asserts pin every offset.
//
// Keys: a simple key is the data field itself (its number is the field's); a compound key has a position
// of its own and its value buffer is the native struct of its parts (the key_* structs below). Numeric parts
// compare as numbers, byte parts bytewise; rows sharing a non-unique key value come back in DBA order.
// Optional keys (DIR_ENT_HIJACK_KEY, DO_SESSION_HOLD, VNS_ELEM_CHECKEDOUT) exist for a row only after
// dt_keystore.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/tbs.h"

typedef uint32_t DB_ADDR;

// The schema version this build writes ("tavrel_db_schema_version").
constexpr int TAVREL_DB_SCHEMA_VERSION = 1;

// ---- record types -----------------------------------------------------------------------------------------
enum : int {
  DB_SILO = 10000,
  DB_DIR = 10001,
  DB_DIR_ENT = 10002,
  DB_INODE = 10003,
  DB_CR = 10004,
  DB_DO = 10005,
  DB_SUB_DO = 10006,
  DB_UNELEVATED_REF = 10007,
  DB_CR_FREE = 10008,
  DB_BYTES = 10009,
  DB_BYTES_SMALL = 10010,
  DB_BYTES_MED = 10011,
  VNS_DB_OBJ = 10012,
  VNS_DB_DIR_VER = 10013,
  VNS_DB_DIR_VER_ENT = 10014,
  VNS_DB_VER = 10015,
  VNS_DB_SLINK = 10016,
  VNS_DB_ELEM = 10017,
  VNS_DB_LR_SCOPE = 10018,
  VNS_DB_VIEW = 10019,
};
constexpr int TAVREL_DB_NUM_RECORDS = 20;

// ---- sets -------------------------------------------------------------------------------------------------
enum : int {
  DO_OID_SET = 20000,          // DB_CR owns DB_DO
  SUB_DO_SET = 20001,          // DB_CR owns DB_SUB_DO
  UNELEVATED_CR_SET = 20002,   // DB_CR owns DB_UNELEVATED_REF
  DB_BYTES_SET = 20003,        // DB_BYTES owns DB_BYTES_SMALL, DB_BYTES_MED
  DIR_ENT_SET = 20004,         // DB_DIR owns DB_DIR_ENT
  INODE_OID_SET = 20005,       // DB_INODE owns DB_DIR, DB_DIR_ENT
  VNS_DIR_ENT_SET = 20006,     // VNS_DB_DIR_VER owns VNS_DB_DIR_VER_ENT
  VNS_VER_NAME_SET = 20007,    // VNS_DB_VER owns VNS_DB_DIR_VER_ENT
  VNS_SLINK_NAME_SET = 20008,  // VNS_DB_SLINK owns VNS_DB_DIR_VER_ENT
  VNS_ELEM_VER_SET = 20009,    // VNS_DB_ELEM owns VNS_DB_VER
  VNS_SCOPE_ENT_SET = 20010,   // VNS_DB_LR_SCOPE owns VNS_DB_DIR_VER_ENT
};
constexpr int TAVREL_DB_NUM_SETS = 11;

// ---- fields -----------------------------------------------------------------------------------------------
enum : long {
  // record 0 DB_SILO
  REPLICA_UUID = 0,  // unique key
  SILO_REF_CNT = 1,
  SILO_NEXT_DBID = 2,
  SILO_GEN_NUM = 3,
  SILO_ROOT_DBID = 4,
  SILO_BYTES_DBA = 5,
  SILO_FLAGS = 6,
  SILO_PATH_LEN = 7,
  SILO_PATH = 8,
  // record 1 DB_DIR
  DIR_FILLER = 1000,
  // record 2 DB_DIR_ENT
  DIR_ENT_DIR_DBA = 2000,
  DIR_ENT_SILO_DBA = 2001,
  DIR_ENT_HIJACK_VER = 2002,
  DIR_ENT_HIJACK_ELEM = 2003,
  DIR_ENT_HASH = 2004,
  DIR_ENT_OFFSET = 2005,
  DIR_ENT_BYTES_DBA = 2006,
  DIR_ENT_NAME_STATE = 2007,
  DIR_ENT_NAME_LEN = 2008,
  DIR_ENT_NAME = 2009,
  DIR_ENT_KEY = 2010,         // compound (DIR_ENT_DIR_DBA, DIR_ENT_HASH), duplicates
  DIR_ENT_HIJACK_KEY = 2011,  // compound (DIR_ENT_HIJACK_VER), optional, duplicates
  // record 3 DB_INODE
  INODE_SILO_DBA = 3000,
  INODE_OID = 3001,
  INODE_FSTAT = 3002,  // the nested struct db_fstat, members 3003-3022
  INODE_FSTAT_FTYPE = 3003,
  INODE_FSTAT_MODE = 3004,
  INODE_FSTAT_NLINK = 3005,
  INODE_FSTAT_USAGE = 3006,
  INODE_FSTAT_SIZE_W0 = 3007,
  INODE_FSTAT_SIZE_W1 = 3008,
  INODE_FSTAT_ATIME_SEC = 3009,
  INODE_FSTAT_ATIME_USEC = 3010,
  INODE_FSTAT_MTIME_SEC = 3011,
  INODE_FSTAT_MTIME_USEC = 3012,
  INODE_FSTAT_CTIME_SEC = 3013,
  INODE_FSTAT_CTIME_USEC = 3014,
  INODE_FSTAT_EXTRA0 = 3015,
  INODE_FSTAT_EXTRA1 = 3016,
  INODE_FSTAT_USID_BYTES_DBA = 3017,
  INODE_FSTAT_GSID_BYTES_DBA = 3018,
  INODE_FSTAT_USID_LEN = 3019,
  INODE_FSTAT_GSID_LEN = 3020,
  INODE_FSTAT_USID = 3021,
  INODE_FSTAT_GSID = 3022,
  INODE_MTYPE = 3023,
  INODE_GEN = 3024,
  INODE_TEXT_DBA = 3025,
  INODE_TEXT_LEN = 3026,
  INODE_TEXT = 3027,
  INODE_KEY = 3028,  // compound (INODE_SILO_DBA, INODE_OID), unique
  // record 4 DB_CR
  CR_PARENT_REF_CNT = 4000,
  CR_CRC = 4001,
  CR_FILE_OFFSET = 4002,
  CR_HDR_WORD = 4003,
  CR_LENGTH = 4004,
  // record 5 DB_DO
  DO_REPLICA_UUID = 5000,
  DO_OID = 5001,           // unique key
  DO_SESSION_HOLD = 5002,  // optional key, duplicates
  // record 6 DB_SUB_DO: fourteen OID slots, fields SUB_DO_OID0 + i for i in 0..13
  SUB_DO_OID0 = 6000,
  // record 7 DB_UNELEVATED_REF
  UNELEVATED_REF_UUID = 7000,
  // record 8 DB_CR_FREE
  CR_FREE_LEN = 8000,     // key, duplicates
  CR_FREE_OFFSET = 8001,  // unique key
  // records 9, 10, 11: byte chains
  OWNER_DBA = 9000,
  BYTES_DATA = 9001,
  BYTES_SMALL_OWNER_DBA = 10000,
  BYTES_SMALL_DATA = 10001,
  BYTES_MED_OWNER_DBA = 11000,
  BYTES_MED_DATA = 11001,
  // record 12 VNS_DB_OBJ
  VNS_OBJ_SILO_DBA = 12000,
  VNS_OBJ_OID = 12001,
  VNS_OBJ_MTYPE = 12002,
  VNS_OBJ_DBID = 12003,
  VNS_OBJ_FTYPE = 12004,
  VNS_OBJ_MODE = 12005,
  VNS_OBJ_NODEID = 12006,
  VNS_OBJ_ATIME_SEC = 12007,
  VNS_OBJ_ATIME_USEC = 12008,
  VNS_OBJ_MTIME_SEC = 12009,
  VNS_OBJ_MTIME_USEC = 12010,
  VNS_OBJ_CTIME_SEC = 12011,
  VNS_OBJ_CTIME_USEC = 12012,
  VNS_OBJ_EXTRA0 = 12013,
  VNS_OBJ_EXTRA1 = 12014,
  VNS_OBJ_KEY = 12015,      // compound (silo, dbid), unique
  VNS_OBJ_OID_KEY = 12016,  // compound (silo, oid), unique
  // record 13 VNS_DB_DIR_VER
  VNS_DIR_VER_SILO_DBA = 13000,
  VNS_DIR_VER_DBID = 13001,
  VNS_DIR_VER_PARENT_DBID = 13002,
  VNS_DIR_VER_TYPE = 13003,
  VNS_DIR_VER_RDDIR_DONE = 13004,
  VNS_DIR_VER_SAVED_STATE = 13005,
  VNS_DIR_VER_KEY = 13006,  // compound (silo, dbid), unique
  // record 14 VNS_DB_DIR_VER_ENT
  VNS_DIR_VER_ENT_SILO_DBA = 14000,
  VNS_DIR_VER_ENT_NAME_DBA = 14001,
  VNS_DIR_VER_ENT_OBJ_DBID = 14002,
  VNS_DIR_VER_ENT_DIR_DBID = 14003,
  VNS_DIR_VER_ENT_SCOPE = 14004,
  VNS_DIR_VER_ENT_HASH = 14005,
  VNS_DIR_VER_ENT_RESERVED = 14006,
  VNS_DIR_VER_ENT_MTYPE = 14007,
  VNS_DIR_VER_ENT_VALIDATED = 14008,
  VNS_DIR_VER_ENT_SCOPE_GN = 14009,
  VNS_DIR_VER_ENT_NAME_LEN = 14010,
  VNS_DIR_VER_ENT_REMOVE = 14011,
  VNS_DIR_VER_ENT_NAME = 14012,
  DIR_VER_ENT_LOOKUP = 14013,       // compound (silo, object dbid), duplicates
  DIR_VER_ENT_NAME_LOOKUP = 14014,  // compound (silo, directory dbid, hash), duplicates
  // record 15 VNS_DB_VER
  VNS_VER_SILO_DBA = 15000,
  VNS_VER_DBID = 15001,
  VNS_VER_EVENT_SEC = 15002,
  VNS_VER_SIZE_W0 = 15003,
  VNS_VER_SIZE_W1 = 15004,
  VNS_VER_EVENT_USEC = 15005,
  VNS_VER_USAGE = 15006,
  VNS_VER_MTYPE = 15007,
  VNS_VER_STALE = 15008,
  VNS_VER_KEY = 15009,  // compound (silo, dbid), unique
  // record 16 VNS_DB_SLINK
  VNS_SLINK_SILO_DBA = 16000,
  VNS_SLINK_DBID = 16001,
  VNS_SLINK_TEXT_DBA = 16002,
  VNS_SLINK_EVENT_SEC = 16003,
  VNS_SLINK_EVENT_USEC = 16004,
  VNS_SLINK_TEXT_LEN = 16005,
  VNS_SLINK_TEXT = 16006,
  VNS_SLINK_KEY = 16007,  // compound (silo, dbid), unique
  // record 17 VNS_DB_ELEM
  VNS_ELEM_SILO_DBA = 17000,
  VNS_ELEM_DBID = 17001,
  VNS_ELEM_CO_VER = 17002,
  VNS_ELEM_EVENT_SEC = 17003,
  VNS_ELEM_EVENT_USEC = 17004,
  VNS_ELEM_RESERVED = 17005,
  VNS_ELEM_CHECKEDOUT = 17006,  // i32; optional key, duplicates
  VNS_ELEM_KEY = 17007,         // compound (silo, dbid), unique
  // record 18 VNS_DB_LR_SCOPE
  VNS_LR_SCOPE_OID = 18000,        // unique key
  VNS_LR_SCOPE_NAME_HASH = 18001,  // key, duplicates
  VNS_LR_SCOPE_GN = 18002,
  VNS_LR_SCOPE_FINISHED_GN = 18003,
  VNS_LR_SCOPE_NAME_LEN = 18004,
  VNS_LR_SCOPE_NAME_DBA = 18005,
  VNS_LR_SCOPE_RESERVED = 18006,
  VNS_LR_SCOPE_OP_STATE = 18007,
  VNS_LR_SCOPE_NAME = 18008,
  // record 19 VNS_DB_VIEW
  VNS_VIEW_UUID = 19000,
  VNS_VIEW_GN = 19001,
  VNS_VIEW_INITIAL_GN = 19002,
};

// Inline widths of the text heads.
constexpr int SILO_PATH_INLINE = 208;
constexpr int DIR_ENT_NAME_INLINE = 25;
constexpr int INODE_SID_INLINE = 30;
constexpr int INODE_TEXT_INLINE = 74;
constexpr int VNS_NAME_INLINE = 144;
constexpr int LR_SCOPE_NAME_INLINE = 54;
constexpr int SLINK_TEXT_INLINE = 72;
constexpr int DB_BYTES_HEAD_LEN = 90;
constexpr int DB_BYTES_SMALL_LEN = 90;
constexpr int DB_BYTES_MED_LEN = 232;
constexpr int SUB_DO_SLOTS = 14;

// ---- record layouts ---------------------------------------------------------------------------------------
struct db_silo {
  tbs_uuid_s replica_uuid;
  uint32_t silo_ref_cnt;
  uint32_t silo_next_dbid;
  uint32_t silo_gen_num;
  uint32_t silo_root_dbid;
  DB_ADDR silo_bytes_dba;
  uint16_t silo_flags;
  uint16_t silo_path_len;
  char silo_path[SILO_PATH_INLINE];
};
static_assert(sizeof(db_silo) == 248 && offsetof(db_silo, silo_path) == 40);

struct db_dir {
  uint32_t filler;  // always 0
};

struct db_dir_ent {
  DB_ADDR dir_ent_dir_dba;
  DB_ADDR dir_ent_silo_dba;
  tbs_oid_s dir_ent_hijack_ver;
  tbs_oid_s dir_ent_hijack_elem;
  uint32_t dir_ent_hash;
  uint32_t dir_ent_offset;
  DB_ADDR dir_ent_bytes_dba;
  uint16_t dir_ent_name_state;
  uint16_t dir_ent_name_len;
  char dir_ent_name[DIR_ENT_NAME_INLINE];
};
static_assert(sizeof(db_dir_ent) == 84 && offsetof(db_dir_ent, dir_ent_hash) == 40 &&
              offsetof(db_dir_ent, dir_ent_name) == 56);

// The attribute record nested in DB_INODE (field INODE_FSTAT, read and written whole).
struct db_fstat {
  uint32_t ftype;
  uint32_t mode;
  uint32_t nlink;
  uint32_t usage;
  uint32_t size[2];  // the u64 size as two words, stored as given
  uint32_t atime_sec, atime_usec;
  uint32_t mtime_sec, mtime_usec;
  uint32_t ctime_sec, ctime_usec;
  uint32_t extra[2];
  DB_ADDR usid_bytes_dba;
  DB_ADDR gsid_bytes_dba;
  uint16_t usid_len;  // at most 34
  uint16_t gsid_len;
  char usid[INODE_SID_INLINE];
  char gsid[INODE_SID_INLINE];
};
static_assert(sizeof(db_fstat) == 128);

struct db_inode {
  DB_ADDR inode_silo_dba;
  tbs_oid_s inode_oid;
  db_fstat inode_fstat;
  uint32_t inode_mtype;
  uint32_t inode_gen;
  DB_ADDR inode_text_dba;
  uint16_t inode_text_len;
  char inode_text[INODE_TEXT_INLINE];
};
static_assert(sizeof(db_inode) == 236 && offsetof(db_inode, inode_fstat) == 20 &&
              offsetof(db_inode, inode_mtype) == 148 && offsetof(db_inode, inode_text) == 162);

struct db_cr {
  int32_t cr_parent_ref_cnt;
  uint32_t cr_crc;
  uint32_t cr_file_offset;
  uint32_t cr_hdr_word;
  uint32_t cr_length;
};
static_assert(sizeof(db_cr) == 20);

struct db_do {
  tbs_uuid_s do_replica_uuid;
  tbs_oid_s do_oid;
  uint32_t do_session_hold;
};
static_assert(sizeof(db_do) == 36);

struct db_sub_do {
  tbs_oid_s sub_do_oid[SUB_DO_SLOTS];
};
static_assert(sizeof(db_sub_do) == 224);

struct db_unelevated_ref {
  tbs_uuid_s unelevated_ref_uuid;
};

struct db_cr_free {
  uint32_t cr_free_len;
  uint32_t cr_free_offset;
};

struct db_bytes {
  DB_ADDR owner_dba;
  char bytes[DB_BYTES_HEAD_LEN];
};  // 94 bytes of data, 96 with the tail padding
struct db_bytes_small {
  DB_ADDR owner_dba;
  char bytes[DB_BYTES_SMALL_LEN];
};
struct db_bytes_med {
  DB_ADDR owner_dba;
  char bytes[DB_BYTES_MED_LEN];
};
static_assert(sizeof(db_bytes) == 96 && sizeof(db_bytes_small) == 96 && sizeof(db_bytes_med) == 236);

struct vns_db_obj {
  DB_ADDR vns_obj_silo_dba;
  tbs_oid_s vns_obj_oid;
  uint32_t vns_obj_mtype;
  uint32_t vns_obj_dbid;
  uint32_t vns_obj_ftype;
  uint32_t vns_obj_mode;
  uint32_t vns_obj_nodeid;
  uint32_t atime_sec, atime_usec;
  uint32_t mtime_sec, mtime_usec;
  uint32_t ctime_sec, ctime_usec;
  uint32_t extra[2];
};
static_assert(sizeof(vns_db_obj) == 72 && offsetof(vns_db_obj, atime_sec) == 40);

struct vns_db_dir_ver {
  DB_ADDR silo_dba;
  uint32_t dbid;
  uint32_t parent_dbid;
  uint32_t type;
  uint16_t rddir_done;
  uint16_t saved_rddir_state;
};
static_assert(sizeof(vns_db_dir_ver) == 20);

// scope_gn is the generation the name last took. A name of the default scope reads as the later of it and
// the default scope's finished generation: the end of that scope moves the scope's finished generation
// instead of writing every name it holds. Load scopes write it into every name.
struct vns_db_dir_ver_ent {
  DB_ADDR silo_dba;
  DB_ADDR name_bytes_dba;
  uint32_t obj_dbid;
  uint32_t dir_dbid;
  tbs_oid_s scope;
  uint32_t hash;
  uint32_t reserved;
  uint32_t mtype;
  uint32_t validated;
  uint32_t scope_gn;
  uint16_t name_len;
  uint16_t remove_mark;
  char name[VNS_NAME_INLINE];
};
static_assert(sizeof(vns_db_dir_ver_ent) == 200 && offsetof(vns_db_dir_ver_ent, name) == 56);

struct vns_db_ver {
  DB_ADDR silo_dba;
  uint32_t dbid;
  uint32_t event_sec;
  uint32_t size[2];
  uint32_t event_usec;
  uint32_t usage;
  uint32_t mtype;
  uint32_t stale;
};
static_assert(sizeof(vns_db_ver) == 36 && offsetof(vns_db_ver, event_usec) == 20);

struct vns_db_slink {
  DB_ADDR silo_dba;
  uint32_t dbid;
  DB_ADDR text_bytes_dba;
  uint32_t event_sec;
  uint32_t event_usec;
  uint16_t text_len;
  char text[SLINK_TEXT_INLINE];
};
static_assert(sizeof(vns_db_slink) == 96 && offsetof(vns_db_slink, text) == 22);

struct vns_db_elem {
  DB_ADDR silo_dba;
  uint32_t dbid;
  tbs_oid_s co_ver;
  uint32_t event_sec;
  uint32_t event_usec;
  uint32_t reserved;
  int32_t checked_out;
};
static_assert(sizeof(vns_db_elem) == 40);

struct vns_db_lr_scope {
  tbs_oid_s scope_oid;
  uint32_t name_hash;
  uint32_t gn;
  uint32_t finished_gn;
  uint32_t name_len;
  DB_ADDR name_bytes_dba;
  uint16_t reserved;
  uint16_t op_state;
  char name[LR_SCOPE_NAME_INLINE];
};
static_assert(sizeof(vns_db_lr_scope) == 96 && offsetof(vns_db_lr_scope, name) == 40);

struct vns_db_view {
  tbs_uuid_s view_uuid;
  uint32_t view_gn;
  uint32_t initial_gn;
};
static_assert(sizeof(vns_db_view) == 24);

// ---- compound key buffers ---------------------------------------------------------------------------------
// VNS_OBJ_KEY, VNS_DIR_VER_KEY, DIR_VER_ENT_LOOKUP, VNS_VER_KEY, VNS_SLINK_KEY, VNS_ELEM_KEY
struct key_silo_dbid {
  DB_ADDR silo_dba;
  uint32_t dbid;
};
// VNS_OBJ_OID_KEY, INODE_KEY
struct key_silo_oid {
  DB_ADDR silo_dba;
  tbs_oid_s oid;
};
static_assert(sizeof(key_silo_oid) == 20);
// DIR_VER_ENT_NAME_LOOKUP
struct key_silo_dir_hash {
  DB_ADDR silo_dba;
  uint32_t dir_dbid;
  uint32_t hash;
};
// DIR_ENT_KEY
struct key_dir_hash {
  DB_ADDR dir_dba;
  uint32_t hash;
};
// DIR_ENT_HIJACK_KEY
struct key_hijack {
  tbs_oid_s hijack_ver;
};
