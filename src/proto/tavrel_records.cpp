#include "proto/tavrel_records.h"

#include <cstring>
#include <vector>

#define X(call) \
  if (!(call)) return FALSE

bool_t xdr_tavrel_vstat(XDR* x, tavrel_vstat* v) {
  X(xdr_view_vstat_t(x, &v->vstat));
  X(xdr_tbs_boolean_t(x, &v->checked_out));
  return xdr_tbs_pname_t(x, v->path);
}

bool_t xdr_tavrel_dirent(XDR* x, tavrel_dirent* v) {
  if (x->x_op == XDR_FREE) return TRUE;
  if (x->x_op == XDR_ENCODE) {
    if (v->namlen > VIEW_NAME_MAX || strnlen(v->name, VIEW_NAME_MAX + 1) != v->namlen) return FALSE;
  }
  uint32_t namlen = v->namlen;
  X(xdr_u_int32_t(x, &namlen));
  if (namlen > VIEW_NAME_MAX) return FALSE;
  X(xdr_opaque(x, v->name, namlen));
  if (x->x_op == XDR_DECODE) {
    if (std::memchr(v->name, 0, namlen) != nullptr) return FALSE;
    v->name[namlen] = '\0';
    v->namlen = namlen;
  }
  X(xdr_u_int32_t(x, &v->dbid));
  X(xdr_ks_off32_t(x, &v->off));
  X(xdr_view_name_state_t(x, &v->state));
  X(xdr_u_int32_t(x, &v->rule));
  X(xdr_tbs_oid_t(x, &v->elem_oid));
  X(xdr_silo_mtype_t(x, &v->elem_type));
  X(xdr_tbs_oid_t(x, &v->ver_oid));
  X(xdr_silo_mtype_t(x, &v->ver_type));
  return xdr_tbs_boolean_t(x, &v->checked_out);
}

bool_t xdr_tavrel_scope(XDR* x, tavrel_scope* v) {
  X(xdr_tbs_oid_t(x, &v->oid));
  X(xdr_tbs_oid_t(x, &v->oid2));
  X(xdr_tbs_pname_t(x, v->name));
  return xdr_u_int32_t(x, &v->gn);
}

bool_t xdr_tavrel_synceleminfo_t(XDR* x, tavrel_synceleminfo_t* v) {
  X(xdr_tbs_pname_t(x, v->object_path));
  X(xdr_tbs_oid_t(x, &v->parent_oid));
  X(xdr_tbs_uuid_t(x, &v->replica_uuid));
  X(xdr_tbs_oid_t(x, &v->object_oid));
  X(xdr_tbs_pname_t(x, v->prev_version_str));
  return xdr_tbs_pname_t(x, v->curr_version_str);
}

namespace {

template <class T>
tbs_status_t encode_into(bool_t (*filter)(XDR*, T*), const T* rec, char* buf, unsigned buflen, unsigned* len) {
  if (rec == nullptr || buf == nullptr || len == nullptr) return TBS_ST_BAD_ARG;
  XDR x;
  xdrmem_create(&x, buf, buflen, XDR_ENCODE);
  bool ok = filter(&x, const_cast<T*>(rec));
  *len = ok ? xdr_getpos(&x) : 0;
  xdr_destroy(&x);
  return ok ? tbs_status_t(TBS_ST_OK) : tbs_status_t(TBS_ST_NO_ROOM);
}

template <class T>
tbs_status_t encode_string(bool_t (*filter)(XDR*, T*), const T* rec, unsigned bufsize, std::string* out) {
  if (rec == nullptr || out == nullptr) return TBS_ST_BAD_ARG;
  out->clear();
  char buf[TAVREL_SYNCELEMINFO_BUF];
  unsigned len = 0;
  tbs_status_t st = encode_into(filter, rec, buf, bufsize, &len);
  if (st == TBS_ST_OK) out->assign(buf, len);
  return st;
}

template <class T>
tbs_status_t decode_from(bool_t (*filter)(XDR*, T*), T* out, unsigned length, const char* data) {
  if (out == nullptr || (data == nullptr && length > 0)) return TBS_ST_BAD_ARG;
  std::memset(out, 0, sizeof *out);
  if (data == nullptr) return TBS_ST_FAILURE;
  bool ok = xdr_decode_record(filter, out, data, length);
  if (!ok) {
    std::memset(out, 0, sizeof *out);
    return TBS_ST_FAILURE;
  }
  return TBS_ST_OK;
}

}  // namespace

tbs_status_t tavrel_vstat_encode(const tavrel_vstat* rec, char* buf, unsigned buflen, unsigned* len) {
  return encode_into(xdr_tavrel_vstat, rec, buf, buflen, len);
}
tbs_status_t tavrel_dirent_encode(const tavrel_dirent* rec, char* buf, unsigned buflen, unsigned* len) {
  return encode_into(xdr_tavrel_dirent, rec, buf, buflen, len);
}
tbs_status_t tavrel_scope_encode(const tavrel_scope* rec, char* buf, unsigned buflen, unsigned* len) {
  return encode_into(xdr_tavrel_scope, rec, buf, buflen, len);
}
tbs_status_t tavrel_synceleminfo_encode(const tavrel_synceleminfo_t* rec, char* buf, unsigned buflen,
                                        unsigned* len) {
  return encode_into(xdr_tavrel_synceleminfo_t, rec, buf, buflen, len);
}

tbs_status_t tavrel_vstat_encode(const tavrel_vstat* rec, std::string* out) {
  return encode_string(xdr_tavrel_vstat, rec, TAVREL_VSTAT_BUF, out);
}
tbs_status_t tavrel_dirent_encode(const tavrel_dirent* rec, std::string* out) {
  return encode_string(xdr_tavrel_dirent, rec, TAVREL_DIRENT_BUF, out);
}
tbs_status_t tavrel_scope_encode(const tavrel_scope* rec, std::string* out) {
  return encode_string(xdr_tavrel_scope, rec, TAVREL_SCOPE_BUF, out);
}
tbs_status_t tavrel_synceleminfo_encode(const tavrel_synceleminfo_t* rec, std::string* out) {
  return encode_string(xdr_tavrel_synceleminfo_t, rec, TAVREL_SYNCELEMINFO_BUF, out);
}

tbs_status_t tavrel_vstat_decode(tavrel_vstat* out, unsigned length, const char* data) {
  return decode_from(xdr_tavrel_vstat, out, length, data);
}
tbs_status_t tavrel_dirent_decode(tavrel_dirent* out, unsigned length, const char* data) {
  return decode_from(xdr_tavrel_dirent, out, length, data);
}
tbs_status_t tavrel_scope_decode(tavrel_scope* out, unsigned length, const char* data) {
  return decode_from(xdr_tavrel_scope, out, length, data);
}
tbs_status_t tavrel_synceleminfo_decode(tavrel_synceleminfo_t* out, unsigned length, const char* data) {
  return decode_from(xdr_tavrel_synceleminfo_t, out, length, data);
}
