#include "proto/xdr_prim.h"

#include <climits>
#include <cstdlib>
#include <cstring>

const credutl_sid_t CREDUTL_SID_DONTCARE = {1, {0xFF}};
const credutl_sid_t CREDUTL_SID_NOBODY = {1, {0xFE}};

bool credutl_sid_eq(const credutl_sid_t& a, const credutl_sid_t& b) {
  return a.len == b.len && a.len <= CREDUTL_SID_MAX && std::memcmp(a.bytes, b.bytes, a.len) == 0;
}

bool_t xdr_tbs_uuid_t(XDR* xdrs, tbs_uuid_s* v) {
  if (xdrs->x_op == XDR_FREE) return TRUE;
  return xdr_opaque(xdrs, reinterpret_cast<char*>(v->bytes), 16);
}

bool_t xdr_tbs_oid_t(XDR* xdrs, tbs_oid_s* v) {
  if (xdrs->x_op == XDR_FREE) return TRUE;
  return xdr_opaque(xdrs, reinterpret_cast<char*>(v->bytes), 16);
}

bool_t xdr_tbs_dbid_t(XDR* xdrs, tbs_dbid_t* v) { return xdr_u_int32_t(xdrs, v); }
bool_t xdr_tbs_status_t(XDR* xdrs, tbs_status_t* v) { return xdr_int32_t(xdrs, v); }
bool_t xdr_ks_off32_t(XDR* xdrs, ks_off32_t* v) { return xdr_u_int32_t(xdrs, v); }
bool_t xdr_silo_mtype_t(XDR* xdrs, silo_mtype_t* v) { return xdr_int32_t(xdrs, v); }
bool_t xdr_xid_t(XDR* xdrs, xid_t* v) { return xdr_u_int32_t(xdrs, v); }

bool_t xdr_strict_bool(XDR* xdrs, int32_t* v) {
  switch (xdrs->x_op) {
    case XDR_FREE:
      return TRUE;
    case XDR_ENCODE: {
      int32_t w = *v ? 1 : 0;
      return xdr_int32_t(xdrs, &w);
    }
    case XDR_DECODE: {
      int32_t w = 0;
      if (!xdr_int32_t(xdrs, &w) || (w != 0 && w != 1)) return FALSE;
      *v = w;
      return TRUE;
    }
  }
  return FALSE;
}

bool_t xdr_tbs_boolean_t(XDR* xdrs, tbs_boolean_t* v) { return xdr_strict_bool(xdrs, v); }

bool_t xdr_fixed_string(XDR* xdrs, char* buf, unsigned max) {
  switch (xdrs->x_op) {
    case XDR_FREE:
      return TRUE;
    case XDR_ENCODE: {
      size_t n = strnlen(buf, size_t(max) + 1);
      if (n > max) return FALSE;
      uint32_t len = uint32_t(n);
      return xdr_u_int32_t(xdrs, &len) && xdr_opaque(xdrs, buf, len);
    }
    case XDR_DECODE: {
      uint32_t len = 0;
      if (!xdr_u_int32_t(xdrs, &len) || len > max) return FALSE;
      if (!xdr_opaque(xdrs, buf, len)) return FALSE;
      if (std::memchr(buf, 0, len) != nullptr) return FALSE;
      buf[len] = '\0';
      return TRUE;
    }
  }
  return FALSE;
}

bool_t xdr_tbs_pname_t(XDR* xdrs, char* buf) { return xdr_fixed_string(xdrs, buf, TBS_PNAME_MAX); }

bool_t xdr_ks_canon_pname_p_t(XDR* xdrs, ks_canon_pname_p_t* v) {
  switch (xdrs->x_op) {
    case XDR_FREE:
      std::free(*v);
      *v = nullptr;
      return TRUE;
    case XDR_ENCODE: {
      const char* s = *v ? *v : "";
      size_t n = strnlen(s, size_t(KS_CANON_PNAME_MAX) + 1);
      if (n > KS_CANON_PNAME_MAX) return FALSE;
      uint32_t len = uint32_t(n);
      return xdr_u_int32_t(xdrs, &len) && xdr_opaque(xdrs, const_cast<char*>(s), len);
    }
    case XDR_DECODE: {
      uint32_t len = 0;
      if (!xdr_u_int32_t(xdrs, &len) || len > KS_CANON_PNAME_MAX) return FALSE;
      char* p = *v;
      bool owned = false;
      if (p == nullptr) {
        p = static_cast<char*>(std::malloc(len + 1));
        if (p == nullptr) return FALSE;
        owned = true;
      }
      if (!xdr_opaque(xdrs, p, len) || std::memchr(p, 0, len) != nullptr) {
        if (owned) std::free(p);
        return FALSE;
      }
      p[len] = '\0';
      *v = p;
      return TRUE;
    }
  }
  return FALSE;
}

bool_t xdr_credutl_sid_t(XDR* xdrs, credutl_sid_t* v) {
  if (xdrs->x_op == XDR_FREE) return TRUE;
  uint32_t len = v->len;
  if (xdrs->x_op == XDR_ENCODE && len > CREDUTL_SID_MAX) return FALSE;
  if (!xdr_u_int32_t(xdrs, &len) || len > CREDUTL_SID_MAX) return FALSE;
  if (!xdr_opaque(xdrs, reinterpret_cast<char*>(v->bytes), len)) return FALSE;
  if (xdrs->x_op == XDR_DECODE) {
    v->len = len;
    std::memset(v->bytes + len, 0, CREDUTL_SID_MAX - len);
  }
  return TRUE;
}

bool_t xdr_time_t(XDR* xdrs, time_t* v) {
  if (xdrs->x_op == XDR_FREE) return TRUE;
  int32_t w = 0;
  if (xdrs->x_op == XDR_ENCODE) {
    if (*v < INT32_MIN || *v > INT32_MAX) return FALSE;
    w = int32_t(*v);
  }
  if (!xdr_int32_t(xdrs, &w)) return FALSE;
  if (xdrs->x_op == XDR_DECODE) *v = w;
  return TRUE;
}

bool_t xdr_size_t(XDR* xdrs, size_t* v) {
  if (xdrs->x_op == XDR_FREE) return TRUE;
  uint32_t w = 0;
  if (xdrs->x_op == XDR_ENCODE) {
    if (*v > UINT32_MAX) return FALSE;
    w = uint32_t(*v);
  }
  if (!xdr_u_int32_t(xdrs, &w)) return FALSE;
  if (xdrs->x_op == XDR_DECODE) *v = w;
  return TRUE;
}

bool_t xdr_tbs_timeval_t(XDR* xdrs, struct timeval* v) {
  if (xdrs->x_op == XDR_FREE) return TRUE;
  int32_t s = 0, us = 0;
  if (xdrs->x_op == XDR_ENCODE) {
    if (v->tv_sec < INT32_MIN || v->tv_sec > INT32_MAX || v->tv_usec < INT32_MIN || v->tv_usec > INT32_MAX)
      return FALSE;
    s = int32_t(v->tv_sec);
    us = int32_t(v->tv_usec);
  }
  if (!xdr_int32_t(xdrs, &s) || !xdr_int32_t(xdrs, &us)) return FALSE;
  if (xdrs->x_op == XDR_DECODE) {
    v->tv_sec = s;
    v->tv_usec = us;
  }
  return TRUE;
}

bool_t xdr_tbs_fstat_db_t(XDR* xdrs, tbs_fstat_db_t* v) {
  if (xdrs->x_op == XDR_FREE) return TRUE;
  uint64_t size = v->size;
  if (!(xdr_u_int32_t(xdrs, &v->type) && xdr_u_int32_t(xdrs, &v->mode) && xdr_u_int32_t(xdrs, &v->nlink) &&
        xdr_u_int32_t(xdrs, &v->spare) && xdr_credutl_sid_t(xdrs, &v->owner) &&
        xdr_credutl_sid_t(xdrs, &v->group) && xdr_u_int64_t(xdrs, &size) && xdr_u_int32_t(xdrs, &v->ino) &&
        xdr_tbs_timeval_t(xdrs, &v->atime) && xdr_tbs_timeval_t(xdrs, &v->mtime) &&
        xdr_tbs_timeval_t(xdrs, &v->ctime) && xdr_tbs_timeval_t(xdrs, &v->fourth_time)))
    return FALSE;
  v->size = size;
  return TRUE;
}

bool_t xdr_tbs_sid_acl_fragment_t(XDR* xdrs, tbs_sid_acl_fragment_t* v) {
  if (xdrs->x_op == XDR_FREE) return TRUE;
  uint32_t len = v->len;
  if (xdrs->x_op == XDR_ENCODE && len > TBS_SID_ACL_FRAGMENT_MAX) return FALSE;
  if (!xdr_u_int32_t(xdrs, &v->count) || !xdr_u_int32_t(xdrs, &len) || len > TBS_SID_ACL_FRAGMENT_MAX)
    return FALSE;
  if (!xdr_opaque(xdrs, reinterpret_cast<char*>(v->bytes), len)) return FALSE;
  if (xdrs->x_op == XDR_DECODE) v->len = len;
  return TRUE;
}
