// Records of the view protocol between the kernel module and the agent, and their XDR filters.
//
// Every record has one filter `xdr_<record>(XDR*, record*)` that encodes, decodes or frees it by the
// stream's operation. Field order on the wire is the order of the members below unless a comment says
// otherwise. Requests begin with a view_hdr_req_t, replies with a view_hdr_reply_t. Where a reply
// carries fields "if status is 0", nothing but the header (and the fields marked "always") is on the
// wire for any other status.
//
// Fields of type ks_canon_pname_p_t are heap strings: decoding allocates them (when null), XDR_FREE
// releases them. The readdir replies own a heap buffer likewise. Every other field is inline.
//
// Inline encoding: view_hdr_req_t, view_bhandle_t, view_hdr_reply_t and the five words of
// view_fhandle_t ask the stream for an inline area and store big-endian words directly when it offers
// one; otherwise the field filters run. Both paths give the same bytes.
#pragma once

#include "proto/view_rpc.h"
#include "proto/xdr_prim.h"

typedef tbs_uuid_s view_handle_t;
typedef uint32_t view_build_session_t;
typedef uint32_t view_name_state_t;

// Enumerations carried as XDR enums (int).
typedef int32_t view_hm_warp_opt;
typedef int32_t view_change_oid_option;
typedef int32_t view_invalidate_type;
enum : view_invalidate_type {
  VIEW_INVALIDATE_VIEW = 1,
  VIEW_INVALIDATE_SILO = 2,
  VIEW_INVALIDATE_OBJ = 3,
  VIEW_INVALIDATE_NAME = 4,
};

// fhandle flags.
enum : uint32_t { VIEW_FH_HISTORY = 1, VIEW_FH_PRIVATE = 2 };

// Status that makes a getattr reply carry only the name state.
constexpr tbs_status_t VIEW_ST_NAME_STATE_ONLY = TBS_ST_NO_PERMISSION;

// The bytes a directory listing may fill of one LPC message.
constexpr unsigned VIEW_READDIR_LIMIT = VIEW_LPC_PAYLOAD - 24;

struct view_bhandle_t {
  view_build_session_t build_session;
  uint32_t second;
};
struct view_eacl_cursor_t {
  struct timeval time;
  uint32_t pos;
};
struct view_hdr_req_t {
  time_t time;
  xid_t xid;
  view_handle_t view;
  view_bhandle_t bhandle;
};
struct view_hdr_reply_t {
  xid_t xid;
  tbs_status_t status;
};
struct view_fhandle_t {
  tbs_uuid_s silo;  // the replica's uuid
  tbs_dbid_t ver_dbid;
  tbs_dbid_t elem_dbid;
  uint32_t gen;
  uint32_t flags;
  uint32_t spare;  // always 0
};
struct view_dir_arg_t {
  view_fhandle_t dir;
  char name[VIEW_NAME_MAX + 1];
};
struct view_vstat_t {
  tbs_fstat_db_t fstat;
  silo_mtype_t mtype;
  tbs_oid_s elem_oid;
  tbs_oid_s obj_oid;
  struct timeval event_time;
  tbs_oid_s rmap_oid;
  struct timeval reserved_time;  // always zero
};
struct view_vstat_v8_t {
  tbs_fstat_db_t fstat;
  silo_mtype_t mtype;
  tbs_oid_s elem_oid;
  tbs_oid_s obj_oid;
  struct timeval event_time;
};
struct view_dir_mod_t {
  view_vstat_t vstat;
  tbs_boolean_t changed;
};
struct view_dir_mod_v8_t {
  view_vstat_v8_t vstat;
  tbs_boolean_t changed;
};

// mask bits of view_set_attr_t.
enum : uint32_t { VIEW_SATTR_OWNER = 4, VIEW_SATTR_GROUP = 8 };
struct view_set_attr_t {
  uint32_t mask;
  uint32_t second;
  uint32_t mode;
  credutl_sid_t owner;  // CREDUTL_SID_DONTCARE goes on the wire when mask bit 4 is clear
  credutl_sid_t group;  // likewise with mask bit 8
  uint64_t size;        // wire: low word, then high word
  struct timeval atime;
  struct timeval mtime;
};

// ---- requests ----
struct view_null_req_t { view_hdr_req_t hdr; };
struct view_getattr_req_t { view_hdr_req_t hdr; view_fhandle_t fh; };
struct view_readlink_req_t { view_hdr_req_t hdr; view_fhandle_t fh; size_t max_len; };
struct view_setattr_req_t { view_hdr_req_t hdr; view_fhandle_t fh; view_set_attr_t sattr; };
struct view_dir_req_t { view_hdr_req_t hdr; view_dir_arg_t arg; struct timeval dir_event_time; };
struct view_create_req_t {
  view_hdr_req_t hdr;
  view_dir_arg_t arg;
  view_set_attr_t sattr;
  size_t cltxt_max_len;
  struct timeval dir_event_time;
};
struct view_mkdir_req_t {
  view_hdr_req_t hdr;
  view_dir_arg_t arg;
  view_set_attr_t sattr;
  struct timeval dir_event_time;
};
struct view_symlink_req_t {
  view_hdr_req_t hdr;
  view_dir_arg_t arg;
  ks_canon_pname_p_t target;
  view_set_attr_t sattr;
  struct timeval dir_event_time;
};
struct view_rename_req_t {
  view_hdr_req_t hdr;
  view_dir_arg_t from;
  view_dir_arg_t to;
  struct timeval dir_event_time;
};
struct view_link_req_t {
  view_hdr_req_t hdr;
  view_fhandle_t fh;
  view_dir_arg_t arg;
  struct timeval dir_event_time;
};
struct view_lookup_req_t {
  view_hdr_req_t hdr;
  view_fhandle_t dir;
  char name[VIEW_NAME_MAX + 1];
  view_hm_warp_opt warp;
  ks_canon_pname_p_t residual;
};
struct view_readdir_req_t {
  view_hdr_req_t hdr;
  view_fhandle_t fh;
  uint32_t cursor;
  // then an int: 0 on encode, ignored on decode
  size_t max_size;
};
struct view_readdir_ext_req_t {
  view_hdr_req_t hdr;
  view_fhandle_t fh;
  uint32_t cursor;
  // then an int: 0 on encode, ignored on decode
  char name[VIEW_NAME_MAX + 1];
  uint32_t flags;
  size_t max_size;
};
struct view_gpath_req_t {
  view_hdr_req_t hdr;
  view_fhandle_t fh;
  tbs_boolean_t hm;
  size_t path_max;
  size_t ext_path_max;
};
struct view_change_oid_req_t { view_hdr_req_t hdr; view_fhandle_t fh; view_change_oid_option option; };
struct view_change_mtype_req_t { view_hdr_req_t hdr; view_fhandle_t fh; silo_mtype_t mtype; };
struct view_invalidate_req_t {
  view_hdr_req_t hdr;
  view_invalidate_type type;
  tbs_oid_s silo_oid;
  tbs_oid_s obj_oid;
  char name[VIEW_NAME_MAX + 1];
};
struct view_replica_root_req_t {
  view_hdr_req_t hdr;
  tbs_oid_s silo_oid;
  tbs_uuid_s replica_uuid;
  char host[VIEW_NAME_MAX + 1];
  tbs_pname_t path;
  ks_canon_pname_p_t pathname;  // on the wire after warp
  view_hm_warp_opt warp;        // on the wire before pathname
};
struct view_getprop_req_t { view_hdr_req_t hdr; int32_t prop; };
struct view_eacl_rolemap_req_t {
  view_hdr_req_t hdr;
  tbs_uuid_s uuid;
  tbs_oid_s oid;
  view_eacl_cursor_t cursor;
};

// ---- replies ----
struct view_null_reply_t { view_hdr_reply_t hdr; };
struct view_dir_reply_t { view_hdr_reply_t hdr; view_vstat_t vstat; };
struct view_dir_mod_reply_t { view_hdr_reply_t hdr; view_dir_mod_t dir_mod; };
struct view_getattr_reply_t {
  view_hdr_reply_t hdr;
  view_vstat_t vstat;
  view_name_state_t name_state;  // also alone for status 1063
  view_fhandle_t fh;
  struct timeval lvut;
  tbs_boolean_t flag;
};
struct view_root_reply_t { view_hdr_reply_t hdr; view_vstat_t vstat; view_fhandle_t fh; tbs_boolean_t flag; };
struct view_lookup_reply_t {
  view_hdr_reply_t hdr;
  view_name_state_t name_state;  // always
  view_fhandle_t fh;
  view_vstat_t vstat;
  size_t consumed;
  tbs_boolean_t cacheable;
  struct timeval lvut;
};
struct view_create_reply_t {
  view_hdr_reply_t hdr;
  view_fhandle_t fh;
  view_vstat_t vstat;
  view_dir_mod_t dir_mod;
  size_t cltxt_len;
  ks_canon_pname_p_t cltxt_path;
};
struct view_symlink_reply_t { view_hdr_reply_t hdr; view_fhandle_t fh; view_vstat_t vstat; view_dir_mod_t dir_mod; };
struct view_readlink_reply_t { view_hdr_reply_t hdr; size_t len; ks_canon_pname_p_t text; };
struct view_cltxt_reply_t { view_hdr_reply_t hdr; size_t len; ks_canon_pname_p_t path; tbs_boolean_t rel_to_cache; };
struct view_gpath_reply_t {
  view_hdr_reply_t hdr;
  size_t path_len;
  ks_canon_pname_p_t path;
  size_t ext_len;
  ks_canon_pname_p_t ext_path;
};
struct view_getprop_reply_t { view_hdr_reply_t hdr; uint32_t value; /* always */ };
struct view_eacl_rolemap_reply_t {
  view_hdr_reply_t hdr;
  tbs_sid_acl_fragment_t fragment;
  view_eacl_cursor_t cursor;
  struct timeval time;
  tbs_oid_s oid;
};

// Replies of the older protocol level (no operation uses them).
struct view_lookup_v8_reply_t {
  view_hdr_reply_t hdr;
  view_name_state_t name_state;
  view_fhandle_t fh;
  view_vstat_v8_t vstat;
  size_t consumed;
  tbs_boolean_t cacheable;
  struct timeval lvut;
};
struct view_getattr_v8_reply_t {
  view_hdr_reply_t hdr;
  view_vstat_v8_t vstat;
  view_fhandle_t fh;
  struct timeval lvut;
  tbs_boolean_t flag;
};
struct view_root_v8_reply_t { view_hdr_reply_t hdr; view_vstat_v8_t vstat; view_fhandle_t fh; tbs_boolean_t flag; };
struct view_create_v8_reply_t {
  view_hdr_reply_t hdr;
  view_fhandle_t fh;
  view_vstat_v8_t vstat;
  view_dir_mod_v8_t dir_mod;
  size_t cltxt_len;
  ks_canon_pname_p_t cltxt_path;
};
struct view_symlink_v8_reply_t {
  view_hdr_reply_t hdr;
  view_fhandle_t fh;
  view_vstat_v8_t vstat;
  view_dir_mod_v8_t dir_mod;
};
struct view_dir_v8_reply_t { view_hdr_reply_t hdr; view_vstat_v8_t vstat; };
struct view_dir_mod_v8_reply_t { view_hdr_reply_t hdr; view_dir_mod_v8_t dir_mod; };

// Directory listings. `buffer` holds `used` bytes of records in host byte order:
//   view_dirent:     ino u32, off u32, reclen u16, namlen u16, name + NUL at byte 12;
//                    reclen = (namlen + 16) rounded down to a multiple of 4.
//   view_dirent_ext: ino u32, off u32, state u32, rule u32, elem_oid[16], elem_type u32, ver_oid[16],
//                    ver_type u32, namlen u16, name + NUL at byte 58;
//                    reclen = (namlen + 62) rounded down to a multiple of 4.
// On the wire, if status is 0, per entry: namlen u_int (never 0), the name as opaque, ino u_int,
// off, an int 0 (Readdir_Ext adds state, rule, elem_oid, elem_type, ver_oid, ver_type); after the
// last entry a namlen of 0 and eof as a bool. Encoding stops before an entry that would take the
// listing past VIEW_READDIR_LIMIT bytes of the message and then sends eof false. Decoding takes
// what fits in `capacity` (allocating the buffer with malloc when it is null); when an entry does not
// fit it stops, sets eof false, `used` to the bytes filled and `cursor` to the last entry's off.
struct view_readdir_reply_t {
  view_hdr_reply_t hdr;
  uint32_t cursor;
  uint32_t used;
  tbs_boolean_t eof;
  uint32_t capacity;
  char* buffer;
};
typedef view_readdir_reply_t view_readdir_ext_reply_t;

constexpr unsigned VIEW_DIRENT_NAME_OFF = 12;
constexpr unsigned VIEW_DIRENT_EXT_NAME_OFF = 58;
inline unsigned view_dirent_reclen(unsigned namlen) { return (namlen + 16) & ~3u; }
inline unsigned view_dirent_ext_reclen(unsigned namlen) { return (namlen + 62) & ~3u; }

// Appends one record to a listing buffer; false when it does not fit in `capacity` or the name is
// empty or too long.
bool view_dirent_append(view_readdir_reply_t* r, uint32_t ino, uint32_t off, const char* name);
struct view_dirent_ext_fields {
  uint32_t ino, off, state, rule;
  tbs_oid_s elem_oid;
  silo_mtype_t elem_type;
  tbs_oid_s ver_oid;
  silo_mtype_t ver_type;
};
bool view_dirent_ext_append(view_readdir_reply_t* r, const view_dirent_ext_fields& f, const char* name);

bool_t xdr_view_handle_t(XDR*, view_handle_t*);
bool_t xdr_view_build_session_t(XDR*, view_build_session_t*);
bool_t xdr_view_name_state_t(XDR*, view_name_state_t*);
bool_t xdr_view_bhandle_t(XDR*, view_bhandle_t*);
bool_t xdr_view_eacl_cursor_t(XDR*, view_eacl_cursor_t*);
bool_t xdr_view_hdr_req_t(XDR*, view_hdr_req_t*);
bool_t xdr_view_hdr_reply_t(XDR*, view_hdr_reply_t*);
bool_t xdr_view_fhandle_t(XDR*, view_fhandle_t*);
bool_t xdr_view_dir_arg_t(XDR*, view_dir_arg_t*);
bool_t xdr_view_vstat_t(XDR*, view_vstat_t*);
bool_t xdr_view_vstat_v8_t(XDR*, view_vstat_v8_t*);
bool_t xdr_view_dir_mod_t(XDR*, view_dir_mod_t*);
bool_t xdr_view_dir_mod_v8_t(XDR*, view_dir_mod_v8_t*);
bool_t xdr_view_set_attr_t(XDR*, view_set_attr_t*);

bool_t xdr_view_null_req_t(XDR*, view_null_req_t*);
bool_t xdr_view_getattr_req_t(XDR*, view_getattr_req_t*);
bool_t xdr_view_readlink_req_t(XDR*, view_readlink_req_t*);
bool_t xdr_view_setattr_req_t(XDR*, view_setattr_req_t*);
bool_t xdr_view_dir_req_t(XDR*, view_dir_req_t*);
bool_t xdr_view_create_req_t(XDR*, view_create_req_t*);
bool_t xdr_view_mkdir_req_t(XDR*, view_mkdir_req_t*);
bool_t xdr_view_symlink_req_t(XDR*, view_symlink_req_t*);
bool_t xdr_view_rename_req_t(XDR*, view_rename_req_t*);
bool_t xdr_view_link_req_t(XDR*, view_link_req_t*);
bool_t xdr_view_lookup_req_t(XDR*, view_lookup_req_t*);
bool_t xdr_view_readdir_req_t(XDR*, view_readdir_req_t*);
bool_t xdr_view_readdir_ext_req_t(XDR*, view_readdir_ext_req_t*);
bool_t xdr_view_gpath_req_t(XDR*, view_gpath_req_t*);
bool_t xdr_view_change_oid_req_t(XDR*, view_change_oid_req_t*);
bool_t xdr_view_change_mtype_req_t(XDR*, view_change_mtype_req_t*);
bool_t xdr_view_invalidate_req_t(XDR*, view_invalidate_req_t*);
bool_t xdr_view_replica_root_req_t(XDR*, view_replica_root_req_t*);
bool_t xdr_view_getprop_req_t(XDR*, view_getprop_req_t*);
bool_t xdr_view_eacl_rolemap_req_t(XDR*, view_eacl_rolemap_req_t*);

bool_t xdr_view_null_reply_t(XDR*, view_null_reply_t*);
bool_t xdr_view_dir_reply_t(XDR*, view_dir_reply_t*);
bool_t xdr_view_dir_mod_reply_t(XDR*, view_dir_mod_reply_t*);
bool_t xdr_view_getattr_reply_t(XDR*, view_getattr_reply_t*);
bool_t xdr_view_root_reply_t(XDR*, view_root_reply_t*);
bool_t xdr_view_lookup_reply_t(XDR*, view_lookup_reply_t*);
bool_t xdr_view_create_reply_t(XDR*, view_create_reply_t*);
bool_t xdr_view_symlink_reply_t(XDR*, view_symlink_reply_t*);
bool_t xdr_view_readlink_reply_t(XDR*, view_readlink_reply_t*);
bool_t xdr_view_cltxt_reply_t(XDR*, view_cltxt_reply_t*);
bool_t xdr_view_gpath_reply_t(XDR*, view_gpath_reply_t*);
bool_t xdr_view_getprop_reply_t(XDR*, view_getprop_reply_t*);
bool_t xdr_view_eacl_rolemap_reply_t(XDR*, view_eacl_rolemap_reply_t*);
bool_t xdr_view_lookup_v8_reply_t(XDR*, view_lookup_v8_reply_t*);
bool_t xdr_view_getattr_v8_reply_t(XDR*, view_getattr_v8_reply_t*);
bool_t xdr_view_root_v8_reply_t(XDR*, view_root_v8_reply_t*);
bool_t xdr_view_create_v8_reply_t(XDR*, view_create_v8_reply_t*);
bool_t xdr_view_symlink_v8_reply_t(XDR*, view_symlink_v8_reply_t*);
bool_t xdr_view_dir_v8_reply_t(XDR*, view_dir_v8_reply_t*);
bool_t xdr_view_dir_mod_v8_reply_t(XDR*, view_dir_mod_v8_reply_t*);
bool_t xdr_view_readdir_reply_t(XDR*, view_readdir_reply_t*);
bool_t xdr_view_readdir_ext_reply_t(XDR*, view_readdir_ext_reply_t*);
