// XDR primitives of the base types that every wire record is built from.
//
// One filter per type, in the usual XDR shape: the stream's operation (encode, decode, free) decides
// what the call does, the result says whether it succeeded. All of them sit on libtirpc's XDR streams
// (normally memory streams, xdrmem_create).
//
// Wire forms (big-endian 4-byte units; strings and opaques padded to a multiple of four):
//
//   tbs_uuid_t, tbs_oid_t        fixed opaque[16], the 16 bytes as they are in memory
//   tbs_dbid_t, xid_t, ks_off32  unsigned int
//   size_t                       unsigned int; encoding a value above 2^32-1 fails
//   time_t                       int (32 bit); encoding a value outside int32 fails
//   timeval                      int seconds, int microseconds (same 32-bit range rule)
//   tbs_status_t, silo_mtype_t   int
//   tbs_boolean_t                XDR bool (0 or 1; any other value fails to decode)
//   tbs_pname_t                  string<1023> in a 1024-byte buffer (always NUL-terminated)
//   ks_canon_pname_p_t           string<4095>, heap-allocated (malloc) on decode, freed by XDR_FREE
//   credutl_sid_t                opaque<34>
//   tbs_fstat_db_t               type, mode, nlink, spare (u_int each); owner, group (credutl_sid_t);
//                                size (unsigned hyper); ino (u_int); atime, mtime, ctime, fourth timeval
//   tbs_sid_acl_fragment_t       count (u_int); opaque<256>
//
// Strings never carry a NUL byte on the wire: a decoded string with an embedded NUL is refused, so the
// in-memory C string always has exactly the wire length. Fixed-buffer fields need no freeing: their
// filters return success at once for XDR_FREE.
#pragma once

#include <rpc/types.h>
#include <rpc/xdr.h>
#include <sys/time.h>

#include <cstddef>
#include <cstdint>

#include "base/tbs.h"

typedef int32_t silo_mtype_t;
typedef uint32_t tbs_dbid_t;
typedef uint32_t xid_t;
typedef uint32_t ks_off32_t;
typedef int32_t tbs_boolean_t;

// Object kinds used on the wire.
enum : silo_mtype_t {
  SILO_MTYPE_NONE = 0,
  SILO_MTYPE_SILO_TOP = 1,
  SILO_MTYPE_DIR_ELEM = 2,
  SILO_MTYPE_DIR_VER = 3,
  SILO_MTYPE_FILE_ELEM = 5,
  SILO_MTYPE_FILE_VER = 6,
  SILO_MTYPE_SYMLINK = 7,
  SILO_MTYPE_VER3 = 8,
  SILO_MTYPE_ELEM3 = 9,
};

constexpr unsigned TBS_PNAME_MAX = 1023;          // characters; buffer is TBS_PNAME_MAX + 1
constexpr unsigned KS_CANON_PNAME_MAX = 4095;     // characters
constexpr unsigned VIEW_NAME_MAX = 255;           // characters of one name
constexpr unsigned CREDUTL_SID_MAX = 34;          // bytes of one identity
constexpr unsigned TBS_SID_ACL_FRAGMENT_MAX = 256;

typedef char tbs_pname_t[TBS_PNAME_MAX + 1];
typedef char* ks_canon_pname_p_t;

// A security identity: a length and up to 34 bytes.
struct credutl_sid_t {
  uint32_t len;
  uint8_t bytes[CREDUTL_SID_MAX];
};
// "Leave as it is" and "nobody". Both are one marker byte, which no real identity uses.
extern const credutl_sid_t CREDUTL_SID_DONTCARE;
extern const credutl_sid_t CREDUTL_SID_NOBODY;
bool credutl_sid_eq(const credutl_sid_t& a, const credutl_sid_t& b);

// Attribute record of an object.
struct tbs_fstat_db_s {
  uint32_t type;   // 1 regular file, 2 directory, 5 symbolic link
  uint32_t mode;   // permission bits and flags
  uint32_t nlink;
  uint32_t spare;  // the fourth word
  credutl_sid_t owner;
  credutl_sid_t group;
  uint64_t size;
  uint32_t ino;
  struct timeval atime;
  struct timeval mtime;
  struct timeval ctime;
  struct timeval fourth_time;
};
typedef tbs_fstat_db_s tbs_fstat_db_t;

enum : uint32_t { TBS_FTYPE_FILE = 1, TBS_FTYPE_DIR = 2, TBS_FTYPE_LINK = 5 };

struct tbs_sid_acl_fragment_t {
  uint32_t count;
  uint32_t len;
  uint8_t bytes[TBS_SID_ACL_FRAGMENT_MAX];
};

bool_t xdr_tbs_uuid_t(XDR* xdrs, tbs_uuid_s* v);
bool_t xdr_tbs_oid_t(XDR* xdrs, tbs_oid_s* v);
bool_t xdr_tbs_dbid_t(XDR* xdrs, tbs_dbid_t* v);
bool_t xdr_tbs_status_t(XDR* xdrs, tbs_status_t* v);
bool_t xdr_tbs_boolean_t(XDR* xdrs, tbs_boolean_t* v);
bool_t xdr_tbs_pname_t(XDR* xdrs, char* buf /* TBS_PNAME_MAX + 1 bytes */);
bool_t xdr_ks_canon_pname_p_t(XDR* xdrs, ks_canon_pname_p_t* v);
bool_t xdr_ks_off32_t(XDR* xdrs, ks_off32_t* v);
bool_t xdr_silo_mtype_t(XDR* xdrs, silo_mtype_t* v);
bool_t xdr_credutl_sid_t(XDR* xdrs, credutl_sid_t* v);
bool_t xdr_xid_t(XDR* xdrs, xid_t* v);
bool_t xdr_time_t(XDR* xdrs, time_t* v);
bool_t xdr_size_t(XDR* xdrs, size_t* v);
bool_t xdr_tbs_timeval_t(XDR* xdrs, struct timeval* v);
bool_t xdr_tbs_fstat_db_t(XDR* xdrs, tbs_fstat_db_t* v);
bool_t xdr_tbs_sid_acl_fragment_t(XDR* xdrs, tbs_sid_acl_fragment_t* v);

// A string<max> held in a caller's buffer of at least max + 1 bytes (names, fixed paths).
bool_t xdr_fixed_string(XDR* xdrs, char* buf, unsigned max);
// A u_int that must be 0 or 1 on decode.
bool_t xdr_strict_bool(XDR* xdrs, int32_t* v);
