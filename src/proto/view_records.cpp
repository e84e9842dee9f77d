#include "proto/view_records.h"

#include <cstdlib>
#include <cstring>

namespace {

// Runs filters in order and stops at the first failure.
#define X(call) \
  if (!(call)) return FALSE

bool_t xdr_u32(XDR* x, uint32_t* v) { return xdr_u_int32_t(x, v); }
bool_t xdr_i32(XDR* x, int32_t* v) { return xdr_int32_t(x, v); }
bool_t xdr_name255(XDR* x, char* buf) { return xdr_fixed_string(x, buf, VIEW_NAME_MAX); }

bool is_free(XDR* x) { return x->x_op == XDR_FREE; }

}  // namespace

bool_t xdr_view_handle_t(XDR* x, view_handle_t* v) { return xdr_tbs_uuid_t(x, v); }
bool_t xdr_view_build_session_t(XDR* x, view_build_session_t* v) { return xdr_u32(x, v); }
bool_t xdr_view_name_state_t(XDR* x, view_name_state_t* v) { return xdr_u32(x, v); }

bool_t xdr_view_bhandle_t(XDR* x, view_bhandle_t* v) {
  if (is_free(x)) return TRUE;
  if (int32_t* p = XDR_INLINE(x, 8)) {
    if (x->x_op == XDR_ENCODE) {
      IXDR_PUT_U_INT32(p, v->build_session);
      IXDR_PUT_U_INT32(p, v->second);
    } else {
      v->build_session = IXDR_GET_U_INT32(p);
      v->second = IXDR_GET_U_INT32(p);
    }
    return TRUE;
  }
  X(xdr_view_build_session_t(x, &v->build_session));
  return xdr_u32(x, &v->second);
}

bool_t xdr_view_eacl_cursor_t(XDR* x, view_eacl_cursor_t* v) {
  X(xdr_tbs_timeval_t(x, &v->time));
  return xdr_u32(x, &v->pos);
}

bool_t xdr_view_hdr_req_t(XDR* x, view_hdr_req_t* v) {
  if (is_free(x)) return TRUE;
  bool time_ok = v->time >= INT32_MIN && v->time <= INT32_MAX;
  if (x->x_op == XDR_DECODE || time_ok) {
    if (int32_t* p = XDR_INLINE(x, 8)) {
      if (x->x_op == XDR_ENCODE) {
        IXDR_PUT_INT32(p, int32_t(v->time));
        IXDR_PUT_U_INT32(p, v->xid);
      } else {
        v->time = IXDR_GET_INT32(p);
        v->xid = IXDR_GET_U_INT32(p);
      }
      X(xdr_view_handle_t(x, &v->view));
      return xdr_view_bhandle_t(x, &v->bhandle);
    }
  }
  X(xdr_time_t(x, &v->time));
  X(xdr_xid_t(x, &v->xid));
  X(xdr_view_handle_t(x, &v->view));
  return xdr_view_bhandle_t(x, &v->bhandle);
}

bool_t xdr_view_hdr_reply_t(XDR* x, view_hdr_reply_t* v) {
  if (is_free(x)) return TRUE;
  if (int32_t* p = XDR_INLINE(x, 8)) {
    if (x->x_op == XDR_ENCODE) {
      IXDR_PUT_U_INT32(p, v->xid);
      IXDR_PUT_INT32(p, v->status);
    } else {
      v->xid = IXDR_GET_U_INT32(p);
      v->status = IXDR_GET_INT32(p);
    }
    return TRUE;
  }
  X(xdr_xid_t(x, &v->xid));
  return xdr_tbs_status_t(x, &v->status);
}

bool_t xdr_view_fhandle_t(XDR* x, view_fhandle_t* v) {
  if (is_free(x)) return TRUE;
  X(xdr_tbs_uuid_t(x, &v->silo));
  if (int32_t* p = XDR_INLINE(x, 20)) {
    if (x->x_op == XDR_ENCODE) {
      IXDR_PUT_U_INT32(p, v->ver_dbid);
      IXDR_PUT_U_INT32(p, v->elem_dbid);
      IXDR_PUT_U_INT32(p, v->gen);
      IXDR_PUT_U_INT32(p, v->flags);
      IXDR_PUT_U_INT32(p, v->spare);
    } else {
      v->ver_dbid = IXDR_GET_U_INT32(p);
      v->elem_dbid = IXDR_GET_U_INT32(p);
      v->gen = IXDR_GET_U_INT32(p);
      v->flags = IXDR_GET_U_INT32(p);
      v->spare = IXDR_GET_U_INT32(p);
    }
    return TRUE;
  }
  X(xdr_tbs_dbid_t(x, &v->ver_dbid));
  X(xdr_tbs_dbid_t(x, &v->elem_dbid));
  X(xdr_u32(x, &v->gen));
  X(xdr_u32(x, &v->flags));
  return xdr_u32(x, &v->spare);
}

bool_t xdr_view_dir_arg_t(XDR* x, view_dir_arg_t* v) {
  X(xdr_view_fhandle_t(x, &v->dir));
  return xdr_name255(x, v->name);
}

bool_t xdr_view_vstat_t(XDR* x, view_vstat_t* v) {
  X(xdr_tbs_fstat_db_t(x, &v->fstat));
  X(xdr_silo_mtype_t(x, &v->mtype));
  X(xdr_tbs_oid_t(x, &v->elem_oid));
  X(xdr_tbs_oid_t(x, &v->obj_oid));
  X(xdr_tbs_timeval_t(x, &v->event_time));
  X(xdr_tbs_oid_t(x, &v->rmap_oid));
  return xdr_tbs_timeval_t(x, &v->reserved_time);
}

bool_t xdr_view_vstat_v8_t(XDR* x, view_vstat_v8_t* v) {
  X(xdr_tbs_fstat_db_t(x, &v->fstat));
  X(xdr_silo_mtype_t(x, &v->mtype));
  X(xdr_tbs_oid_t(x, &v->elem_oid));
  X(xdr_tbs_oid_t(x, &v->obj_oid));
  return xdr_tbs_timeval_t(x, &v->event_time);
}

bool_t xdr_view_dir_mod_t(XDR* x, view_dir_mod_t* v) {
  X(xdr_view_vstat_t(x, &v->vstat));
  return xdr_tbs_boolean_t(x, &v->changed);
}

bool_t xdr_view_dir_mod_v8_t(XDR* x, view_dir_mod_v8_t* v) {
  X(xdr_view_vstat_v8_t(x, &v->vstat));
  return xdr_tbs_boolean_t(x, &v->changed);
}

bool_t xdr_view_set_attr_t(XDR* x, view_set_attr_t* v) {
  if (is_free(x)) return TRUE;
  X(xdr_u32(x, &v->mask));
  X(xdr_u32(x, &v->second));
  X(xdr_u32(x, &v->mode));
  if (x->x_op == XDR_ENCODE) {
    credutl_sid_t owner = (v->mask & VIEW_SATTR_OWNER) ? v->owner : CREDUTL_SID_DONTCARE;
    credutl_sid_t group = (v->mask & VIEW_SATTR_GROUP) ? v->group : CREDUTL_SID_DONTCARE;
    X(xdr_credutl_sid_t(x, &owner));
    X(xdr_credutl_sid_t(x, &group));
  } else {
    X(xdr_credutl_sid_t(x, &v->owner));
    X(xdr_credutl_sid_t(x, &v->group));
  }
  uint32_t lo = uint32_t(v->size), hi = uint32_t(v->size >> 32);
  X(xdr_u32(x, &lo));
  X(xdr_u32(x, &hi));
  v->size = (uint64_t(hi) << 32) | lo;
  X(xdr_tbs_timeval_t(x, &v->atime));
  return xdr_tbs_timeval_t(x, &v->mtime);
}

// ---- requests ----

bool_t xdr_view_null_req_t(XDR* x, view_null_req_t* v) { return xdr_view_hdr_req_t(x, &v->hdr); }

bool_t xdr_view_getattr_req_t(XDR* x, view_getattr_req_t* v) {
  X(xdr_view_hdr_req_t(x, &v->hdr));
  return xdr_view_fhandle_t(x, &v->fh);
}

bool_t xdr_view_readlink_req_t(XDR* x, view_readlink_req_t* v) {
  X(xdr_view_hdr_req_t(x, &v->hdr));
  X(xdr_view_fhandle_t(x, &v->fh));
  return xdr_size_t(x, &v->max_len);
}

bool_t xdr_view_setattr_req_t(XDR* x, view_setattr_req_t* v) {
  X(xdr_view_hdr_req_t(x, &v->hdr));
  X(xdr_view_fhandle_t(x, &v->fh));
  return xdr_view_set_attr_t(x, &v->sattr);
}

bool_t xdr_view_dir_req_t(XDR* x, view_dir_req_t* v) {
  X(xdr_view_hdr_req_t(x, &v->hdr));
  X(xdr_view_dir_arg_t(x, &v->arg));
  return xdr_tbs_timeval_t(x, &v->dir_event_time);
}

bool_t xdr_view_create_req_t(XDR* x, view_create_req_t* v) {
  X(xdr_view_hdr_req_t(x, &v->hdr));
  X(xdr_view_dir_arg_t(x, &v->arg));
  X(xdr_view_set_attr_t(x, &v->sattr));
  X(xdr_size_t(x, &v->cltxt_max_len));
  return xdr_tbs_timeval_t(x, &v->dir_event_time);
}

bool_t xdr_view_mkdir_req_t(XDR* x, view_mkdir_req_t* v) {
  X(xdr_view_hdr_req_t(x, &v->hdr));
  X(xdr_view_dir_arg_t(x, &v->arg));
  X(xdr_view_set_attr_t(x, &v->sattr));
  return xdr_tbs_timeval_t(x, &v->dir_event_time);
}

bool_t xdr_view_symlink_req_t(XDR* x, view_symlink_req_t* v) {
  X(xdr_view_hdr_req_t(x, &v->hdr));
  X(xdr_view_dir_arg_t(x, &v->arg));
  X(xdr_ks_canon_pname_p_t(x, &v->target));
  X(xdr_view_set_attr_t(x, &v->sattr));
  return xdr_tbs_timeval_t(x, &v->dir_event_time);
}

bool_t xdr_view_rename_req_t(XDR* x, view_rename_req_t* v) {
  X(xdr_view_hdr_req_t(x, &v->hdr));
  X(xdr_view_dir_arg_t(x, &v->from));
  X(xdr_view_dir_arg_t(x, &v->to));
  return xdr_tbs_timeval_t(x, &v->dir_event_time);
}

bool_t xdr_view_link_req_t(XDR* x, view_link_req_t* v) {
  X(xdr_view_hdr_req_t(x, &v->hdr));
  X(xdr_view_fhandle_t(x, &v->fh));
  X(xdr_view_dir_arg_t(x, &v->arg));
  return xdr_tbs_timeval_t(x, &v->dir_event_time);
}

bool_t xdr_view_lookup_req_t(XDR* x, view_lookup_req_t* v) {
  X(xdr_view_hdr_req_t(x, &v->hdr));
  X(xdr_view_fhandle_t(x, &v->dir));
  X(xdr_name255(x, v->name));
  X(xdr_i32(x, &v->warp));
  return xdr_ks_canon_pname_p_t(x, &v->residual);
}

bool_t xdr_view_readdir_req_t(XDR* x, view_readdir_req_t* v) {
  X(xdr_view_hdr_req_t(x, &v->hdr));
  X(xdr_view_fhandle_t(x, &v->fh));
  X(xdr_u32(x, &v->cursor));
  int32_t zero = 0;
  X(xdr_i32(x, &zero));
  return xdr_size_t(x, &v->max_size);
}

bool_t xdr_view_readdir_ext_req_t(XDR* x, view_readdir_ext_req_t* v) {
  X(xdr_view_hdr_req_t(x, &v->hdr));
  X(xdr_view_fhandle_t(x, &v->fh));
  X(xdr_u32(x, &v->cursor));
  int32_t zero = 0;
  X(xdr_i32(x, &zero));
  X(xdr_name255(x, v->name));
  X(xdr_u32(x, &v->flags));
  return xdr_size_t(x, &v->max_size);
}

bool_t xdr_view_gpath_req_t(XDR* x, view_gpath_req_t* v) {
  X(xdr_view_hdr_req_t(x, &v->hdr));
  X(xdr_view_fhandle_t(x, &v->fh));
  X(xdr_tbs_boolean_t(x, &v->hm));
  X(xdr_size_t(x, &v->path_max));
  return xdr_size_t(x, &v->ext_path_max);
}

bool_t xdr_view_change_oid_req_t(XDR* x, view_change_oid_req_t* v) {
  X(xdr_view_hdr_req_t(x, &v->hdr));
  X(xdr_view_fhandle_t(x, &v->fh));
  return xdr_i32(x, &v->option);
}

bool_t xdr_view_change_mtype_req_t(XDR* x, view_change_mtype_req_t* v) {
  X(xdr_view_hdr_req_t(x, &v->hdr));
  X(xdr_view_fhandle_t(x, &v->fh));
  return xdr_silo_mtype_t(x, &v->mtype);
}

bool_t xdr_view_invalidate_req_t(XDR* x, view_invalidate_req_t* v) {
  X(xdr_view_hdr_req_t(x, &v->hdr));
  X(xdr_i32(x, &v->type));
  X(xdr_tbs_oid_t(x, &v->silo_oid));
  X(xdr_tbs_oid_t(x, &v->obj_oid));
  return xdr_name255(x, v->name);
}

bool_t xdr_view_replica_root_req_t(XDR* x, view_replica_root_req_t* v) {
  X(xdr_view_hdr_req_t(x, &v->hdr));
  X(xdr_tbs_oid_t(x, &v->silo_oid));
  X(xdr_tbs_uuid_t(x, &v->replica_uuid));
  X(xdr_name255(x, v->host));
  X(xdr_tbs_pname_t(x, v->path));
  X(xdr_i32(x, &v->warp));
  return xdr_ks_canon_pname_p_t(x, &v->pathname);
}

bool_t xdr_view_getprop_req_t(XDR* x, view_getprop_req_t* v) {
  X(xdr_view_hdr_req_t(x, &v->hdr));
  return xdr_i32(x, &v->prop);
}

bool_t xdr_view_eacl_rolemap_req_t(XDR* x, view_eacl_rolemap_req_t* v) {
  X(xdr_view_hdr_req_t(x, &v->hdr));
  X(xdr_tbs_uuid_t(x, &v->uuid));
  X(xdr_tbs_oid_t(x, &v->oid));
  return xdr_view_eacl_cursor_t(x, &v->cursor);
}

// ---- replies ----
//
// Heap fields of a reply are freed whatever the status: a record that was never decoded holds nulls
// there (callers zero their records), and freeing a null is a no-op.

bool_t xdr_view_null_reply_t(XDR* x, view_null_reply_t* v) { return xdr_view_hdr_reply_t(x, &v->hdr); }

bool_t xdr_view_dir_reply_t(XDR* x, view_dir_reply_t* v) {
  X(xdr_view_hdr_reply_t(x, &v->hdr));
  if (v->hdr.status != 0) return TRUE;
  return xdr_view_vstat_t(x, &v->vstat);
}

bool_t xdr_view_dir_mod_reply_t(XDR* x, view_dir_mod_reply_t* v) {
  X(xdr_view_hdr_reply_t(x, &v->hdr));
  if (v->hdr.status != 0) return TRUE;
  return xdr_view_dir_mod_t(x, &v->dir_mod);
}

bool_t xdr_view_getattr_reply_t(XDR* x, view_getattr_reply_t* v) {
  X(xdr_view_hdr_reply_t(x, &v->hdr));
  if (v->hdr.status == VIEW_ST_NAME_STATE_ONLY) return xdr_view_name_state_t(x, &v->name_state);
  if (v->hdr.status != 0) return TRUE;
  X(xdr_view_vstat_t(x, &v->vstat));
  X(xdr_view_name_state_t(x, &v->name_state));
  X(xdr_view_fhandle_t(x, &v->fh));
  X(xdr_tbs_timeval_t(x, &v->lvut));
  return xdr_tbs_boolean_t(x, &v->flag);
}

bool_t xdr_view_root_reply_t(XDR* x, view_root_reply_t* v) {
  X(xdr_view_hdr_reply_t(x, &v->hdr));
  if (v->hdr.status != 0) return TRUE;
  X(xdr_view_vstat_t(x, &v->vstat));
  X(xdr_view_fhandle_t(x, &v->fh));
  return xdr_tbs_boolean_t(x, &v->flag);
}

bool_t xdr_view_lookup_reply_t(XDR* x, view_lookup_reply_t* v) {
  X(xdr_view_hdr_reply_t(x, &v->hdr));
  X(xdr_view_name_state_t(x, &v->name_state));
  if (v->hdr.status != 0) return TRUE;
  X(xdr_view_fhandle_t(x, &v->fh));
  X(xdr_view_vstat_t(x, &v->vstat));
  X(xdr_size_t(x, &v->consumed));
  X(xdr_tbs_boolean_t(x, &v->cacheable));
  return xdr_tbs_timeval_t(x, &v->lvut);
}

bool_t xdr_view_create_reply_t(XDR* x, view_create_reply_t* v) {
  if (is_free(x)) return xdr_ks_canon_pname_p_t(x, &v->cltxt_path);
  X(xdr_view_hdr_reply_t(x, &v->hdr));
  if (v->hdr.status != 0) return TRUE;
  X(xdr_view_fhandle_t(x, &v->fh));
  X(xdr_view_vstat_t(x, &v->vstat));
  X(xdr_view_dir_mod_t(x, &v->dir_mod));
  X(xdr_size_t(x, &v->cltxt_len));
  return xdr_ks_canon_pname_p_t(x, &v->cltxt_path);
}

bool_t xdr_view_symlink_reply_t(XDR* x, view_symlink_reply_t* v) {
  X(xdr_view_hdr_reply_t(x, &v->hdr));
  if (v->hdr.status != 0) return TRUE;
  X(xdr_view_fhandle_t(x, &v->fh));
  X(xdr_view_vstat_t(x, &v->vstat));
  return xdr_view_dir_mod_t(x, &v->dir_mod);
}

bool_t xdr_view_readlink_reply_t(XDR* x, view_readlink_reply_t* v) {
  if (is_free(x)) return xdr_ks_canon_pname_p_t(x, &v->text);
  X(xdr_view_hdr_reply_t(x, &v->hdr));
  if (v->hdr.status != 0) return TRUE;
  X(xdr_size_t(x, &v->len));
  return xdr_ks_canon_pname_p_t(x, &v->text);
}

bool_t xdr_view_cltxt_reply_t(XDR* x, view_cltxt_reply_t* v) {
  if (is_free(x)) return xdr_ks_canon_pname_p_t(x, &v->path);
  X(xdr_view_hdr_reply_t(x, &v->hdr));
  if (v->hdr.status != 0) return TRUE;
  X(xdr_size_t(x, &v->len));
  X(xdr_ks_canon_pname_p_t(x, &v->path));
  return xdr_tbs_boolean_t(x, &v->rel_to_cache);
}

bool_t xdr_view_gpath_reply_t(XDR* x, view_gpath_reply_t* v) {
  if (is_free(x)) {
    xdr_ks_canon_pname_p_t(x, &v->path);
    return xdr_ks_canon_pname_p_t(x, &v->ext_path);
  }
  X(xdr_view_hdr_reply_t(x, &v->hdr));
  if (v->hdr.status != 0) return TRUE;
  X(xdr_size_t(x, &v->path_len));
  X(xdr_ks_canon_pname_p_t(x, &v->path));
  X(xdr_size_t(x, &v->ext_len));
  return xdr_ks_canon_pname_p_t(x, &v->ext_path);
}

bool_t xdr_view_getprop_reply_t(XDR* x, view_getprop_reply_t* v) {
  X(xdr_view_hdr_reply_t(x, &v->hdr));
  return xdr_u32(x, &v->value);
}

bool_t xdr_view_eacl_rolemap_reply_t(XDR* x, view_eacl_rolemap_reply_t* v) {
  X(xdr_view_hdr_reply_t(x, &v->hdr));
  if (v->hdr.status != 0) return TRUE;
  X(xdr_tbs_sid_acl_fragment_t(x, &v->fragment));
  X(xdr_view_eacl_cursor_t(x, &v->cursor));
  X(xdr_tbs_timeval_t(x, &v->time));
  return xdr_tbs_oid_t(x, &v->oid);
}

bool_t xdr_view_lookup_v8_reply_t(XDR* x, view_lookup_v8_reply_t* v) {
  X(xdr_view_hdr_reply_t(x, &v->hdr));
  X(xdr_view_name_state_t(x, &v->name_state));
  if (v->hdr.status != 0) return TRUE;
  X(xdr_view_fhandle_t(x, &v->fh));
  X(xdr_view_vstat_v8_t(x, &v->vstat));
  X(xdr_size_t(x, &v->consumed));
  X(xdr_tbs_boolean_t(x, &v->cacheable));
  return xdr_tbs_timeval_t(x, &v->lvut);
}

bool_t xdr_view_getattr_v8_reply_t(XDR* x, view_getattr_v8_reply_t* v) {
  X(xdr_view_hdr_reply_t(x, &v->hdr));
  if (v->hdr.status != 0) return TRUE;
  X(xdr_view_vstat_v8_t(x, &v->vstat));
  X(xdr_view_fhandle_t(x, &v->fh));
  X(xdr_tbs_timeval_t(x, &v->lvut));
  return xdr_tbs_boolean_t(x, &v->flag);
}

bool_t xdr_view_root_v8_reply_t(XDR* x, view_root_v8_reply_t* v) {
  X(xdr_view_hdr_reply_t(x, &v->hdr));
  if (v->hdr.status != 0) return TRUE;
  X(xdr_view_vstat_v8_t(x, &v->vstat));
  X(xdr_view_fhandle_t(x, &v->fh));
  return xdr_tbs_boolean_t(x, &v->flag);
}

bool_t xdr_view_create_v8_reply_t(XDR* x, view_create_v8_reply_t* v) {
  if (is_free(x)) return xdr_ks_canon_pname_p_t(x, &v->cltxt_path);
  X(xdr_view_hdr_reply_t(x, &v->hdr));
  if (v->hdr.status != 0) return TRUE;
  X(xdr_view_fhandle_t(x, &v->fh));
  X(xdr_view_vstat_v8_t(x, &v->vstat));
  X(xdr_view_dir_mod_v8_t(x, &v->dir_mod));
  X(xdr_size_t(x, &v->cltxt_len));
  return xdr_ks_canon_pname_p_t(x, &v->cltxt_path);
}

bool_t xdr_view_symlink_v8_reply_t(XDR* x, view_symlink_v8_reply_t* v) {
  X(xdr_view_hdr_reply_t(x, &v->hdr));
  if (v->hdr.status != 0) return TRUE;
  X(xdr_view_fhandle_t(x, &v->fh));
  X(xdr_view_vstat_v8_t(x, &v->vstat));
  return xdr_view_dir_mod_v8_t(x, &v->dir_mod);
}

bool_t xdr_view_dir_v8_reply_t(XDR* x, view_dir_v8_reply_t* v) {
  X(xdr_view_hdr_reply_t(x, &v->hdr));
  if (v->hdr.status != 0) return TRUE;
  return xdr_view_vstat_v8_t(x, &v->vstat);
}

bool_t xdr_view_dir_mod_v8_reply_t(XDR* x, view_dir_mod_v8_reply_t* v) {
  X(xdr_view_hdr_reply_t(x, &v->hdr));
  if (v->hdr.status != 0) return TRUE;
  return xdr_view_dir_mod_v8_t(x, &v->dir_mod);
}

// ---- directory listings ----

namespace {

void put16(char* p, uint16_t v) { std::memcpy(p, &v, 2); }
void put32(char* p, uint32_t v) { std::memcpy(p, &v, 4); }
uint16_t get16(const char* p) {
  uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}
uint32_t get32(const char* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

unsigned pad4(unsigned n) { return (n + 3) & ~3u; }

// Wire bytes of one entry.
unsigned wire_size(unsigned namlen, bool ext) { return 4 + pad4(namlen) + 12 + (ext ? 48 : 0); }

bool ensure_buffer(view_readdir_reply_t* r) {
  if (r->buffer == nullptr && r->capacity > 0) {
    r->buffer = static_cast<char*>(std::malloc(r->capacity));
    if (r->buffer == nullptr) return false;
  }
  return true;
}

bool_t readdir_filter(XDR* x, view_readdir_reply_t* r, bool ext) {
  if (is_free(x)) {
    std::free(r->buffer);
    r->buffer = nullptr;
    return TRUE;
  }
  X(xdr_view_hdr_reply_t(x, &r->hdr));
  if (r->hdr.status != 0) return TRUE;
  const unsigned name_off = ext ? VIEW_DIRENT_EXT_NAME_OFF : VIEW_DIRENT_NAME_OFF;
  const unsigned namlen_off = name_off - 2;
  const unsigned reclen_off = 8;  // plain records only; ext records derive reclen from namlen

  if (x->x_op == XDR_ENCODE) {
    const unsigned limit = xdr_getpos(x) + VIEW_READDIR_LIMIT;
    int32_t eof = r->eof;
    unsigned pos = 0;
    while (pos < r->used) {
      if (r->buffer == nullptr || r->used - pos < name_off) return FALSE;
      const char* rec = r->buffer + pos;
      unsigned namlen = get16(rec + namlen_off);
      unsigned reclen = ext ? view_dirent_ext_reclen(namlen) : get16(rec + reclen_off);
      if (reclen == 0 || reclen > r->used - pos) return FALSE;
      if (namlen == 0 || namlen > VIEW_NAME_MAX || name_off + namlen + 1 > reclen) return FALSE;
      if (xdr_getpos(x) + wire_size(namlen, ext) > limit) {
        eof = 0;
        break;
      }
      uint32_t n = namlen, ino = get32(rec), off = get32(rec + 4);
      int32_t zero = 0;
      X(xdr_u32(x, &n));
      X(xdr_opaque(x, const_cast<char*>(rec + name_off), namlen));
      X(xdr_u32(x, &ino));
      X(xdr_ks_off32_t(x, &off));
      X(xdr_i32(x, &zero));
      if (ext) {
        uint32_t state = get32(rec + 8), rule = get32(rec + 12);
        tbs_oid_s eo, vo;
        std::memcpy(eo.bytes, rec + 16, 16);
        int32_t et = int32_t(get32(rec + 32));
        std::memcpy(vo.bytes, rec + 36, 16);
        int32_t vt = int32_t(get32(rec + 52));
        X(xdr_view_name_state_t(x, &state));
        X(xdr_u32(x, &rule));
        X(xdr_tbs_oid_t(x, &eo));
        X(xdr_silo_mtype_t(x, &et));
        X(xdr_tbs_oid_t(x, &vo));
        X(xdr_silo_mtype_t(x, &vt));
      }
      pos += reclen;
    }
    uint32_t end = 0;
    X(xdr_u32(x, &end));
    return xdr_tbs_boolean_t(x, &eof);
  }

  // Decode.
  if (!ensure_buffer(r)) return FALSE;
  r->used = 0;
  r->eof = 0;
  for (;;) {
    uint32_t namlen = 0;
    X(xdr_u32(x, &namlen));
    if (namlen == 0) return xdr_tbs_boolean_t(x, &r->eof);
    if (namlen > VIEW_NAME_MAX) return FALSE;
    unsigned reclen = ext ? view_dirent_ext_reclen(namlen) : view_dirent_reclen(namlen);
    if (r->buffer == nullptr || reclen > r->capacity - r->used) {
      r->eof = 0;  // the rest does not fit; the caller reads on from the cursor
      return TRUE;
    }
    char* rec = r->buffer + r->used;
    std::memset(rec, 0, reclen);
    X(xdr_opaque(x, rec + name_off, namlen));
    if (std::memchr(rec + name_off, 0, namlen) != nullptr) return FALSE;
    uint32_t ino = 0, off = 0;
    int32_t ignored = 0;
    X(xdr_u32(x, &ino));
    X(xdr_ks_off32_t(x, &off));
    X(xdr_i32(x, &ignored));
    put32(rec, ino);
    put32(rec + 4, off);
    put16(rec + namlen_off, uint16_t(namlen));
    if (ext) {
      uint32_t state = 0, rule = 0;
      tbs_oid_s eo, vo;
      int32_t et = 0, vt = 0;
      X(xdr_view_name_state_t(x, &state));
      X(xdr_u32(x, &rule));
      X(xdr_tbs_oid_t(x, &eo));
      X(xdr_silo_mtype_t(x, &et));
      X(xdr_tbs_oid_t(x, &vo));
      X(xdr_silo_mtype_t(x, &vt));
      put32(rec + 8, state);
      put32(rec + 12, rule);
      std::memcpy(rec + 16, eo.bytes, 16);
      put32(rec + 32, uint32_t(et));
      std::memcpy(rec + 36, vo.bytes, 16);
      put32(rec + 52, uint32_t(vt));
    } else {
      put16(rec + reclen_off, uint16_t(reclen));
    }
    r->used += reclen;
    r->cursor = off;
  }
}

}  // namespace

bool_t xdr_view_readdir_reply_t(XDR* x, view_readdir_reply_t* v) { return readdir_filter(x, v, false); }
bool_t xdr_view_readdir_ext_reply_t(XDR* x, view_readdir_ext_reply_t* v) { return readdir_filter(x, v, true); }

bool view_dirent_append(view_readdir_reply_t* r, uint32_t ino, uint32_t off, const char* name) {
  size_t namlen = strnlen(name, VIEW_NAME_MAX + 1);
  if (namlen == 0 || namlen > VIEW_NAME_MAX || !ensure_buffer(r)) return false;
  unsigned reclen = view_dirent_reclen(unsigned(namlen));
  if (r->buffer == nullptr || reclen > r->capacity - r->used) return false;
  char* rec = r->buffer + r->used;
  std::memset(rec, 0, reclen);
  put32(rec, ino);
  put32(rec + 4, off);
  put16(rec + 8, uint16_t(reclen));
  put16(rec + 10, uint16_t(namlen));
  std::memcpy(rec + VIEW_DIRENT_NAME_OFF, name, namlen);
  r->used += reclen;
  r->cursor = off;
  return true;
}

bool view_dirent_ext_append(view_readdir_reply_t* r, const view_dirent_ext_fields& f, const char* name) {
  size_t namlen = strnlen(name, VIEW_NAME_MAX + 1);
  if (namlen == 0 || namlen > VIEW_NAME_MAX || !ensure_buffer(r)) return false;
  unsigned reclen = view_dirent_ext_reclen(unsigned(namlen));
  if (r->buffer == nullptr || reclen > r->capacity - r->used) return false;
  char* rec = r->buffer + r->used;
  std::memset(rec, 0, reclen);
  put32(rec, f.ino);
  put32(rec + 4, f.off);
  put32(rec + 8, f.state);
  put32(rec + 12, f.rule);
  std::memcpy(rec + 16, f.elem_oid.bytes, 16);
  put32(rec + 32, uint32_t(f.elem_type));
  std::memcpy(rec + 36, f.ver_oid.bytes, 16);
  put32(rec + 52, uint32_t(f.ver_type));
  put16(rec + 56, uint16_t(namlen));
  std::memcpy(rec + VIEW_DIRENT_EXT_NAME_OFF, name, namlen);
  r->used += reclen;
  r->cursor = f.off;
  return true;
}
