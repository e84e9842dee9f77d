// Records that travel as binary parts of WAN replies and are kept in the agent's database, with their
// helper codecs.
//
// Each helper encodes into a memory stream of a fixed maximum size (the *_BUF constants) and decodes
// from exactly `length` bytes: a record shorter or longer than the bytes given, a string over its
// limit or with a NUL, or a bool other than 0/1 is malformed.
//
// Results: 0; TBS_ST_BAD_ARG (1072) for a null argument; TBS_ST_NO_ROOM (1062) when the encoding
// does not fit; TBS_ST_FAILURE (1001) for a malformed buffer on decode.
//
// Wire layouts (XDR, see xdr_prim.h for the primitives):
//   tavrel_vstat         view_vstat_t; bool checked_out; tbs_pname_t path              <= 1240 bytes
//   tavrel_dirent        namlen u_int; name opaque<255>; dbid u_int; off; state u_int; rule u_int;
//                        elem_oid; elem_type; ver_oid; ver_type; bool checked_out      <= 320 bytes
//   tavrel_scope         oid; oid2 (null); tbs_pname_t name; u_int gn                  <= 1064 bytes
//   tavrel_synceleminfo  pname object_path; oid parent_oid; uuid replica_uuid; oid object_oid;
//                        pname prev_version_str; pname curr_version_str                <= 3132 bytes
#pragma once

#include <cstring>
#include <string>

#include "proto/view_records.h"

struct tavrel_vstat {
  view_vstat_t vstat;
  tbs_boolean_t checked_out;
  tbs_pname_t path;  // symbolic link: its target text; otherwise empty
};

struct tavrel_dirent {
  uint32_t namlen;
  char name[VIEW_NAME_MAX + 1];
  uint32_t dbid;
  ks_off32_t off;
  view_name_state_t state;
  uint32_t rule;
  tbs_oid_s elem_oid;
  silo_mtype_t elem_type;
  tbs_oid_s ver_oid;
  silo_mtype_t ver_type;
  tbs_boolean_t checked_out;
};

struct tavrel_scope {
  tbs_oid_s oid;
  tbs_oid_s oid2;  // always null
  uint32_t gn;
  tbs_pname_t name;  // load-rule path, or "Automatic"
};

struct tavrel_synceleminfo_t {
  tbs_pname_t object_path;
  tbs_oid_s parent_oid;
  tbs_uuid_s replica_uuid;
  tbs_oid_s object_oid;
  tbs_pname_t prev_version_str;
  tbs_pname_t curr_version_str;
};

// One decoded directory entry with the metadata that followed it in a listing.
struct tavrel_extended_dirent {
  tavrel_dirent dirent;
  tavrel_vstat obj;
  tavrel_vstat elem;
};

constexpr unsigned TAVREL_VSTAT_BUF = 1352;
constexpr unsigned TAVREL_DIRENT_BUF = 444;
constexpr unsigned TAVREL_SCOPE_BUF = 1188;
constexpr unsigned TAVREL_SYNCELEMINFO_BUF = 3248;

bool_t xdr_tavrel_vstat(XDR*, tavrel_vstat*);
bool_t xdr_tavrel_dirent(XDR*, tavrel_dirent*);
bool_t xdr_tavrel_scope(XDR*, tavrel_scope*);
bool_t xdr_tavrel_synceleminfo_t(XDR*, tavrel_synceleminfo_t*);

// Encoders: write the record into `buf` (at least `buflen` bytes) and its length into `*len`.
tbs_status_t tavrel_vstat_encode(const tavrel_vstat* rec, char* buf, unsigned buflen, unsigned* len);
tbs_status_t tavrel_dirent_encode(const tavrel_dirent* rec, char* buf, unsigned buflen, unsigned* len);
tbs_status_t tavrel_scope_encode(const tavrel_scope* rec, char* buf, unsigned buflen, unsigned* len);
tbs_status_t tavrel_synceleminfo_encode(const tavrel_synceleminfo_t* rec, char* buf, unsigned buflen,
                                        unsigned* len);
// The same into a string (cleared first), with the record's fixed buffer size.
tbs_status_t tavrel_vstat_encode(const tavrel_vstat* rec, std::string* out);
tbs_status_t tavrel_dirent_encode(const tavrel_dirent* rec, std::string* out);
tbs_status_t tavrel_scope_encode(const tavrel_scope* rec, std::string* out);
tbs_status_t tavrel_synceleminfo_encode(const tavrel_synceleminfo_t* rec, std::string* out);

// Decoders: `out` is zeroed first and holds the record only on success.
tbs_status_t tavrel_vstat_decode(tavrel_vstat* out, unsigned length, const char* data);
tbs_status_t tavrel_dirent_decode(tavrel_dirent* out, unsigned length, const char* data);
tbs_status_t tavrel_scope_decode(tavrel_scope* out, unsigned length, const char* data);
tbs_status_t tavrel_synceleminfo_decode(tavrel_synceleminfo_t* out, unsigned length, const char* data);

// Generic encode/decode of any record through its filter. Encoding fails when the record needs more
// than `max` bytes; decoding must consume exactly the bytes given. What a decode allocates is freed by
// holding the record in an Xdr_Record (proto/xdr_record.h).
template <class T>
bool xdr_encode_record(bool_t (*filter)(XDR*, T*), const T& rec, std::string* out, unsigned max = 65536) {
  std::string buf(max, '\0');
  XDR x;
  xdrmem_create(&x, buf.data(), max, XDR_ENCODE);
  bool ok = filter(&x, const_cast<T*>(&rec));
  unsigned len = xdr_getpos(&x);
  xdr_destroy(&x);
  if (!ok) return false;
  buf.resize(len);
  *out = std::move(buf);
  return true;
}
template <class T>
bool xdr_decode_record(bool_t (*filter)(XDR*, T*), T* rec, const char* data, unsigned length) {
  XDR x;
  // xdrmem takes a non-const buffer; a decoding stream only reads it.
  xdrmem_create(&x, const_cast<char*>(data), length, XDR_DECODE);
  bool ok = filter(&x, rec) && xdr_getpos(&x) == length;
  xdr_destroy(&x);
  return ok;
}
template <class T>
bool xdr_decode_record(bool_t (*filter)(XDR*, T*), T* rec, const std::string& in) {
  return xdr_decode_record(filter, rec, in.data(), unsigned(in.size()));
}
