#include "fs/tavrel_metadata.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>

#include "base/fileutl.h"
#include "base/tavrel_mutex.h"
#include "core/tavrel_config.h"
#include "core/tavrel_log.h"
#include "core/tavrel_msg_table.h"
#include "core/tavrel_online.h"
#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_util.h"
#include "core/tavrel_view.h"
#include "db/tavrel_engine_db.h"
#include "db/tvr_db_vns.h"
#include "fs/tavrel_bg_readdir.h"
#include "fs/tavrel_metadata_bg_flush.h"
#include "fs/tavrel_readdir_sb_req.h"
#include "fs/tavrel_view_db.h"
#include "fs/tavrel_view_db_element.h"
#include "fs/tavrel_view_db_object.h"
#include "fs/tavrel_view_db_root_dir.h"
#include "fs/tavrel_view_db_silo.h"
#include "fs/tavrel_view_db_symlink.h"
#include "fs/tavrel_view_db_version.h"
#include "kfsm/tavrel_kfsm_ioctl.h"
#include "ns/ns_cache.h"
#include "ns/ns_locate.h"
#include "ns/ns_lookup.h"
#include "ns/ns_rpc.h"
#include "proto/kfsm_status.h"
#include "proto/tavrel_records.h"
#include "wan/get_metadata.h"
#include "wan/lookup.h"
#include "wan/rclient_status.h"

namespace {

constexpr size_t LINK_MAX = 1024;  // bytes of a link text the resolver reads, NUL included
constexpr int MAX_SYMLINKS = 20;   // links followed in one resolution; one more is a loop

std::atomic<Tavrel_Metadata::View_Source> g_view_source{nullptr};

Tavrel_Log* view_log(Tavrel_View* view) { return view ? Tavrel_Log::get_instance(view->get_storage_path()) : nullptr; }

// An identity as the view shows it: the decimal text of the id.
credutl_sid_t make_sid(unsigned id) {
  credutl_sid_t sid{};
  int n = std::snprintf(reinterpret_cast<char*>(sid.bytes), sizeof sid.bytes, "%u", id);
  sid.len = static_cast<uint32_t>(n);
  return sid;
}

bool same_object(const view_fhandle_t& a, const view_fhandle_t& b) {
  return a.silo == b.silo && a.ver_dbid == b.ver_dbid && a.elem_dbid == b.elem_dbid && a.flags == b.flags;
}

bool mtype_is_version(silo_mtype_t mtype) {
  return mtype == SILO_MTYPE_DIR_VER || mtype == SILO_MTYPE_FILE_VER || mtype == SILO_MTYPE_VER3;
}

// The attributes of an object the directory's name row leads to, with its element's dbid: 0, or 20001.
int answer_from_db(const tbs_uuid_s& uuid, uint32_t ver_dbid, silo_mtype_t mtype, uint32_t* elem_dbid_out,
                   uint32_t* ver_dbid_out, tavrel_vstat* vstat, const Tavrel_Trace& trace, const char* name) {
  int st;
  uint32_t elem_dbid = 0;
  if (mtype_is_version(mtype)) {
    Tavrel_View_db_version ver(uuid, ver_dbid);
    st = ver.load_data();
    if (st == 0) st = ver.get_rvstat(*vstat);
    if (st != 0) return TAVREL_ST_FAILURE;
    Tavrel_View_db_element elem;
    int est = 0;
    if (!elem.get_info(uuid, vstat->vstat.elem_oid, &elem_dbid, &est)) {
      trace.writeTrace(TRACE_LEVEL_2, "Unknown element oid %s?", tbs_oid_to_str(vstat->vstat.elem_oid).c_str());
      return TAVREL_ST_FAILURE;
    }
  } else if (mtype == SILO_MTYPE_SYMLINK) {
    Tavrel_View_db_symlink link(uuid, ver_dbid);
    st = link.load_data();
    if (st == 0) st = link.get_rvstat(*vstat);
    if (st != 0) return TAVREL_ST_FAILURE;
    elem_dbid = ver_dbid;  // a link is its own element
  } else {
    trace.writeTrace(TRACE_LEVEL_2, "%s: Unknown object mtype %d?", name, mtype);
    return TAVREL_ST_FAILURE;
  }
  Tavrel_Metadata::replace_vstat_values(vstat->vstat);
  *elem_dbid_out = elem_dbid;
  *ver_dbid_out = ver_dbid;
  return TAVREL_ST_OK;
}

}  // namespace

// ---- the resolver object --------------------------------------------------------------------------------------------

Tavrel_Metadata::Tavrel_Metadata(const std::string& p, bool f)
    : path(p), original_path(p), vstat(std::make_unique<tavrel_vstat>()), follow(f) {
  std::memset(vstat.get(), 0, sizeof(tavrel_vstat));
}

Tavrel_Metadata::~Tavrel_Metadata() = default;

int Tavrel_Metadata::get_vstat(view_vstat_t* out) const {
  if (out == nullptr) return TAVREL_ST_FAILURE;
  *out = vstat->vstat;
  return TAVREL_ST_OK;
}

int Tavrel_Metadata::get_tavrel_vstat(tavrel_vstat* out) const {
  if (out == nullptr) return TAVREL_ST_FAILURE;
  *out = *vstat;
  return TAVREL_ST_OK;
}

int Tavrel_Metadata::run() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata", "run");
  status = 0;
  tbs_status = 0;
  if (parse_siloroot() != 0) return status;
  view_fhandle_t dir = root_handle;
  view_fhandle_t top = root_handle;
  while (!path.empty()) {
    bool dot_dot = false;
    consumed = 0;
    int cacheable = 0;
    view_name_state_t name_state = 0;
    struct timeval lvut = {0, 0};
    tbs_status = ns_lookup_flags(&dir, ".", 0, path.c_str(), &handle, &root_handle, &vstat->vstat, &consumed,
                                 &cacheable, &name_state, &lvut, &checked_out, &eclipsed, &hijacked, &co_ver_oid,
                                 &dot_dot);
    if (tbs_status != 0) {
      lookup_failure();
      return status;
    }
    if (consumed > path.size()) consumed = static_cast<uint32_t>(path.size());
    if (consumed > 0) {
      if (canonical.empty() || canonical.back() != '/') canonical += '/';
      canonical.append(path, 0, consumed);
    }
    trace.writeTrace(TRACE_LEVEL_4, "interim canonical pathname: %s", canonical.c_str());
    if (dot_dot) {
      handle_dotdot(dir, top);
      if (status != 0) return status;
      continue;
    }
    const bool at_end = path.find_first_not_of('/', consumed) == std::string::npos;
    const uint32_t type = vstat->vstat.fstat.type;
    if (at_end) {
      if (!follow && type == TBS_FTYPE_LINK) {
        size_t len = 0;
        int st = ns_readlink(&handle, LINK_MAX - 1, &len, target);
        if (st != 0) {
          std::string text;
          message += Tavrel_Util::format(text, &_tvr_lib_lib_msg_table, TVR_LIB_READLINK, original_path.c_str(),
                                         tbs_strerror(st));
          trace.writeTrace(TRACE_LEVEL_2, "readlink failed: %s", tbs_strerror(st));
          status = TAVREL_ST_FAILURE;
          return status;
        }
        target[len < LINK_MAX ? len : LINK_MAX - 1] = '\0';
        path.clear();
        break;
      }
      if (follow && type == TBS_FTYPE_LINK) {
        substitute_symlink();
        if (status != 0) return status;
        dir = root_handle;
        continue;
      }
      is_silo_root = same_object(handle, top);
      path.clear();
      break;
    }
    // The walk stopped inside the path.
    const std::string rest = path.substr(consumed);
    if (type == TBS_FTYPE_LINK) {
      substitute_symlink();
      if (status != 0) return status;
      dir = root_handle;
      continue;
    }
    if (type == TBS_FTYPE_DIR) {
      status = TAVREL_ST_NOT_FOUND;
      std::string r = rest;
      Tavrel_Util::strip_leading_separators(r);
      Tavrel_Util::strip_trailing_pathname_separator(r);
      multi_component = Tavrel_Util::contains_pname_separator(r);
    } else {
      multi_component = true;
      status = TAVREL_ST_BG_METADATA;  // a file used as a directory
    }
    std::string text;
    message += Tavrel_Util::format(text, &_tvr_lib_lib_msg_table, TVR_LIB_LOOKUP_INCOMPLETE, original_path.c_str(),
                                   rest.c_str());
    trace.writeTrace(TRACE_LEVEL_2, "lookup '%s' incomplete, fragment \"%s\", name state %x remains",
                     original_path.c_str(), rest.c_str(), 0u);
    return status;
  }
  if (status == 0 && !is_silo_root && target[0] == '\0') is_silo_root = same_object(handle, top);
  if (tbs_status == 0) {
    canonical = Tavrel_Util::sanitize_path(canonical.empty() ? std::string("/") : canonical);
    if (canonical.empty()) canonical = "/";
    trace.writeTrace(TRACE_LEVEL_4, "final canonical pathname: silo %s path %s", silo_tag.c_str(), canonical.c_str());
  } else {
    trace.writeTrace(TRACE_LEVEL_2, "get_info failed: %s", tbs_strerror(tbs_status));
    status = TAVREL_ST_FAILURE;
  }
  return status;
}

int Tavrel_Metadata::parse_siloroot() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata", "parse_siloroot");
  SILO_mount_info info;
  std::string rest = path;
  std::string text;
  int st = Tavrel_Config::get_instance()->get_silo_info_and_path(rest, info);
  if (st != 0) {
    message += Tavrel_Util::format(text, &_tvr_lib_lib_msg_table, TVR_LIB_NO_MOUNTED_SILO, path.c_str(),
                                   original_path.c_str());
    status = st;
    return status;
  }
  trace.writeTrace(TRACE_LEVEL_4, "canonical path reset");
  canonical = "/";
  path = rest;
  Tavrel_Util::strip_leading_separators(path);
  silo_tag = info.silo_tag;
  replica_uuid = info.replica_uuid;
  tbs_oid_s family{};
  std::memcpy(family.bytes, info.family_uuid.bytes, sizeof family.bytes);
  tbs_boolean_t flag = 0;
  view_name_state_t name_state = 0;
  tbs_status = ns_root(&family, &replica_uuid, "", 0, &root_handle, &vstat->vstat, &name_state, &flag, nullptr,
                       &checked_out, &co_ver_oid);
  hijacked = false;
  eclipsed = false;
  if (tbs_status != 0) {
    message += Tavrel_Util::format(text, &_tvr_lib_lib_msg_table, TVR_LIB_SILO_ROOT, silo_tag.c_str(),
                                   original_path.c_str(), tbs_strerror(tbs_status));
    trace.writeTrace(TRACE_LEVEL_2, "replica root failed: %s", tbs_strerror(tbs_status));
    status = Tavrel_Util::tbs_to_tavrel_status(tbs_status);
    return status;
  }
  if (path.empty()) {
    is_silo_root = true;
    handle = root_handle;
  }
  return 0;
}

void Tavrel_Metadata::handle_dotdot(view_fhandle_t& dir, view_fhandle_t& top) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata", "handle_dotdot");
  uint32_t used = 0;
  int cacheable = 0;
  view_name_state_t name_state = 0;
  struct timeval lvut = {0, 0};
  if (!same_object(handle, top)) {
    tbs_status = ns_lookup_flags(&handle, "..", 0, "", &dir, &root_handle, &vstat->vstat, &used, &cacheable,
                                 &name_state, &lvut, nullptr, nullptr, nullptr, nullptr, nullptr);
    if (tbs_status != 0) {
      lookup_failure();
      return;
    }
    trim_canonical_tail();  // the ".."
    if (status != 0) return;
    trim_canonical_tail();  // the name it cancels
    if (status != 0) return;
    path.erase(0, consumed);
    Tavrel_Util::strip_leading_separators(path);
    consumed = 0;
    handle = dir;
    if (path.empty()) {
      if (same_object(handle, top)) {
        root_handle = handle;
      } else {
        view_fhandle_t parent{}, grandparent{};
        view_vstat_t parent_vstat{};
        tbs_status = ns_lookup_flags(&dir, "..", 0, "", &parent, &grandparent, &parent_vstat, &used, &cacheable,
                                     &name_state, &lvut, nullptr, nullptr, nullptr, nullptr, nullptr);
        if (tbs_status != 0) {
          lookup_failure();
          return;
        }
        root_handle = parent;
      }
    }
    return;
  }
  // ".." at the SILO root leaves the SILO: the rest names a mounted SILO of its own.
  std::string rest = path.substr(consumed);
  Tavrel_Util::strip_leading_separators(rest);
  path = "/" + rest;
  consumed = 0;
  if (parse_siloroot() != 0) return;
  top = root_handle;
  dir = top;
}

void Tavrel_Metadata::substitute_symlink() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata", "substitute_symlink");
  if (++symlink_count > MAX_SYMLINKS) {
    tbs_status = TBS_ST_LOOP;
    lookup_failure();
    return;
  }
  char text[LINK_MAX];
  size_t len = 0;
  int st = ns_readlink(&handle, LINK_MAX - 1, &len, text);
  std::string msg;
  if (st != 0) {
    message += Tavrel_Util::format(msg, &_tvr_base_msg_table, TVR_BASE_MSG_CALL_FAILED, "ns_readlink", tbs_strerror(st));
    trace.writeTrace(TRACE_LEVEL_2, "readlink %s failed: %s", original_path.c_str(), tbs_strerror(st));
    tbs_status = st;
    status = Tavrel_Util::tbs_to_tavrel_status(st);
    return;
  }
  text[len < LINK_MAX ? len : LINK_MAX - 1] = '\0';
  const std::string link(text);
  if (Tavrel_Util::is_absolute_view_rel_path(link)) {
    message += Tavrel_Util::snprintf("Absolute symlinks unsupported: %s -> %s\n", original_path.c_str(), link.c_str());
    trace.writeTrace(TRACE_LEVEL_2, "symlink target absolute: %s -> %s", original_path.c_str(), link.c_str());
    status = Tavrel_Util::tbs_to_tavrel_status(TBS_ST_BAD_ARG);
    return;
  }
  trim_canonical_tail();
  if (status != 0) return;
  std::string rest = path.substr(consumed);
  Tavrel_Util::strip_leading_separators(rest);
  path = rest.empty() ? link : link + "/" + rest;
  consumed = 0;
  trace.writeTrace(TRACE_LEVEL_4, "restarting lookup with remaining path %s", path.c_str());
}

void Tavrel_Metadata::trim_canonical_tail() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata", "trim_canonical_tail");
  trace.writeTrace(TRACE_LEVEL_4, "before trim, canonical pathname: %s", canonical.c_str());
  std::string c = canonical;
  Tavrel_Util::strip_trailing_pathname_separator(c);
  if (c.empty() || c == "/" || c.size() >= LINK_MAX) {
    std::string text;
    message += Tavrel_Util::format(text, &_tvr_lib_lib_msg_table, TVR_LIB_SPLIT_PATH, canonical.c_str());
    status = TAVREL_ST_FAILURE;
    return;
  }
  std::string parent = fileutl_strip_leaf(c);
  canonical = parent.empty() || parent.back() != '/' ? parent + "/" : parent;
  trace.writeTrace(TRACE_LEVEL_4, "after trim, canonical pathname: %s", canonical.c_str());
}

void Tavrel_Metadata::lookup_failure() {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata", "lookup_failure");
  std::string text;
  message += Tavrel_Util::format(text, &_tvr_lib_lib_msg_table, TVR_LIB_LOOKUP_OBJECT, original_path.c_str(),
                                 silo_tag.c_str(), tbs_strerror(tbs_status));
  trace.writeTrace(TRACE_LEVEL_2, "lookup failed: %s", tbs_strerror(tbs_status));
  status = Tavrel_Util::tbs_to_tavrel_status(tbs_status);
}

// ---- the view and the stripes -------------------------------------------------------------------------------------

void Tavrel_Metadata::set_view_source(View_Source source) { g_view_source.store(source); }

bool Tavrel_Metadata::has_view_source() { return g_view_source.load() != nullptr; }

Tavrel_View* Tavrel_Metadata::current_view() {
  View_Source source = g_view_source.load();
  return source ? source() : nullptr;
}

Tavrel_Mutex& Tavrel_Metadata::oid_lock(const tbs_oid_s& dir_oid) {
  // Made on first use; the initialisation of a function-local static is itself guarded.
  static Tavrel_Mutex* const g_oid_locks = [] {
    auto* raw = static_cast<Tavrel_Mutex*>(::operator new(sizeof(Tavrel_Mutex) * OID_LOCK_COUNT));
    for (unsigned i = 0; i < OID_LOCK_COUNT; ++i)
      new (raw + i) Tavrel_Mutex(Tavrel_Lock_Rank::OID_STRIPE, "Tavrel_Metadata::g_oid_locks");
    return raw;
  }();
  return g_oid_locks[tbs_oid_to_hash32(dir_oid) % OID_LOCK_COUNT];
}

// ---- identities -----------------------------------------------------------------------------------------------------

void Tavrel_Metadata::replace_fstat_identities(tbs_fstat_db_s& fstat) {
  const credutl_creds_t* creds = tavrel_my_creds();
  fstat.owner = make_sid(static_cast<unsigned>(creds->uid));
  fstat.group = make_sid(static_cast<unsigned>(creds->gid));
}

void Tavrel_Metadata::replace_vstat_values(view_vstat_t& v) {
  replace_fstat_identities(v.fstat);
  v.rmap_oid = TBS_OID_NULL;
}

// ---- the on-demand bridge -------------------------------------------------------------------------------------------

int Tavrel_Metadata::lookup_obj(const tbs_uuid_s& uuid, uint32_t dir_dbid, uint32_t elem_dbid, const char* name,
                                uint32_t* elem_dbid_out, uint32_t* ver_dbid_out, tavrel_vstat* vstat) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata", "lookup_obj");
  if (name == nullptr) name = "";
  trace.writeTrace(TRACE_LEVEL_4, "Looking up '%s' in directory dbid:%d", name, static_cast<int>(dir_dbid));
  if (dir_dbid == 1 && name[0] == '\0') return bindroot(uuid, elem_dbid_out, ver_dbid_out, vstat);
  if (elem_dbid_out == nullptr || ver_dbid_out == nullptr || vstat == nullptr) return TAVREL_ST_FAILURE;

  // A name known but not confirmed since its directory changed (1033) is asked again; offline it is
  // what the view knows, so it is served as it stands.
  bool unconfirmed = false;
  uint32_t known_dbid = 0;
  silo_mtype_t known_mtype = 0;
  unsigned silo_dbid = 0;
  if (Tavrel_View_db_silo(uuid).lookup_silo(silo_dbid) == 0) {
    Tavrel_View_db_version dir(uuid, dir_dbid);
    int st = dir.lookup(name, known_dbid, known_mtype);
    if (st == 0) return answer_from_db(uuid, known_dbid, known_mtype, elem_dbid_out, ver_dbid_out, vstat, trace, name);
    if (st == TBS_ST_NOT_FOUND && dir.is_readdir_done()) return TAVREL_ST_NOT_FOUND;
    unconfirmed = st == TBS_ST_REVALIDATE;
    trace.writeTrace(TRACE_LEVEL_4, "lookup '%s' failed: %s", name, tbs_strerror(st));
  }
  if (!tavrel_is_online()) {
    if (unconfirmed)
      return answer_from_db(uuid, known_dbid, known_mtype, elem_dbid_out, ver_dbid_out, vstat, trace, name);
    trace.writeTrace(TRACE_LEVEL_4, "giving up, offline");
    return TAVREL_ST_DISCONNECTED;
  }
  Tavrel_View* view = current_view();
  if (view == nullptr) return TAVREL_ST_FAILURE;
  tbs_oid_s dir_oid{}, elem_oid = TBS_OID_NULL;
  if (!Tavrel_View_db::obj_dbid_to_oid(uuid, dir_dbid, &dir_oid)) return TAVREL_ST_MALFORMED;
  if (elem_dbid != 0 && !Tavrel_View_db::elem_dbid_to_oid(uuid, elem_dbid, &elem_oid)) return TAVREL_ST_MALFORMED;

  Lookup cmd(view->get_view_uuid(), uuid, dir_oid, elem_oid, name);
  cmd.run();
  int rpc_status = cmd.get_status_code();
  std::string msg;
  int st = cmd.check_rpc_status(view_log(view), msg, rpc_status);
  if (st == 0) {
    tbs_oid_s scope_oid{};
    unsigned gn = 0;
    tavrel_vstat obj{}, elem{};
    int s1 = cmd.get_obj_scope_info(scope_oid, gn);
    int s2 = s1 == 0 ? cmd.get_obj_tavrel_vstat(obj) : s1;
    if (s2 == 0) s2 = cmd.get_elem_tavrel_vstat(elem);
    if (s1 != 0 || s2 != 0) {
      trace.writeTrace(TRACE_LEVEL_2, "Lookup get_tavrel_vstat or similar failure: %s (%d)", msg.c_str(), s1 ? s1 : s2);
      return TAVREL_ST_FAILURE;
    }
    replace_vstat_values(obj.vstat);
    replace_vstat_values(elem.vstat);
    st = Tavrel_View_db::add_db_entry(uuid, obj.vstat.mtype, name, dir_dbid, scope_oid, gn, 3, 1, obj, elem,
                                      ver_dbid_out, elem_dbid_out, 0);
    if (st == 0) {
      // What the view shows (link count, check-out mark) is the database's picture of what was stored.
      uint32_t e = 0, v = 0;
      if (answer_from_db(uuid, *ver_dbid_out, obj.vstat.mtype, &e, &v, vstat, trace, name) != 0) *vstat = obj;
    }
    // One name of the directory was needed: the rest of it is likely to be, so it is read now.
    readdir_in_background(uuid, dir_dbid);
    return st;
  }
  if (st == TAVREL_ST_WAN_CALL_2 && (cmd.get_status_code() == TBS_ST_NOT_FOUND ||
                                     cmd.get_status_code() == TBS_ST_NO_SUCH_NAME)) {
    // The server does not know the name; a complete listing makes the next miss definite.
    readdir_in_background(uuid, dir_dbid);
    return TAVREL_ST_NOT_FOUND;
  }
  trace.writeTrace(TRACE_LEVEL_2, "Lookup of '%s' failed (%d): %s", name, st, msg.c_str());
  return st;
}

int Tavrel_Metadata::bindroot(const tbs_uuid_s& uuid, uint32_t* elem_dbid, uint32_t* ver_dbid, tavrel_vstat* vstat) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata", "bindroot");
  if (elem_dbid == nullptr || ver_dbid == nullptr || vstat == nullptr) return TAVREL_ST_FAILURE;
  Tavrel_View_db_root_dir root(uuid);
  if (root.has_root_dir()) {
    uint32_t v = 0;
    int st = root.get_root_dir(v);
    if (st != 0) {
      trace.writeTrace(TRACE_LEVEL_2, "Error on getting root dir: %d", st);
    } else {
      tavrel_vstat elem{};
      st = root.get_info(*vstat, elem, *ver_dbid, *elem_dbid);
      if (st == 0) {
        replace_vstat_values(vstat->vstat);
        return TAVREL_ST_OK;
      }
      trace.writeTrace(TRACE_LEVEL_2, "Error on getting root dir info: %d", st);
    }
  }
  if (!tavrel_is_online()) return TAVREL_ST_DISCONNECTED;
  Tavrel_View* view = current_view();
  if (view == nullptr) return TAVREL_ST_FAILURE;
  Get_Metadata cmd(view->get_view_uuid(), uuid, TBS_OID_NULL, TBS_OID_NULL);
  cmd.run();
  int rpc_status = cmd.get_status_code();
  std::string msg;
  int st = cmd.check_rpc_status(view_log(view), msg, rpc_status);
  if (st != 0) return st;
  tavrel_vstat obj{}, elem{};
  tbs_oid_s scope_oid{};
  unsigned gn = 0;
  int s = cmd.get_obj_tavrel_vstat(obj);
  if (s == 0) s = cmd.get_elem_tavrel_vstat(elem);
  if (s == 0) s = cmd.get_obj_scope_info(scope_oid, gn);
  if (s != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Get_Metadata get_tavrel_vstat failure: %s (%d)", msg.c_str(), s);
    return TAVREL_ST_FAILURE;
  }
  replace_vstat_values(obj.vstat);
  replace_vstat_values(elem.vstat);
  st = root.create(scope_oid, gn, 0, obj, elem, ver_dbid, elem_dbid);
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Error creating root dir.");
    return st;
  }
  tavrel_vstat stored_elem{};
  uint32_t v = 0, e = 0;
  Tavrel_View_db_root_dir again(uuid);
  if (again.get_info(*vstat, stored_elem, v, e) == 0)
    replace_vstat_values(vstat->vstat);
  else
    *vstat = obj;
  return TAVREL_ST_OK;
}

int Tavrel_Metadata::get_metadata(const tbs_uuid_s& uuid, uint32_t dbid, uint32_t elem_dbid, tavrel_vstat* vstat) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata", "get_metadata");
  if (vstat == nullptr) return TAVREL_ST_FAILURE;
  silo_mtype_t mtype = 0;
  std::unique_ptr<Tavrel_View_db_object> obj = Tavrel_View_db_object::get_object(uuid, dbid, &mtype);
  if (obj) {
    int st = obj->get_rvstat(*vstat);
    if (st == 0) replace_vstat_values(vstat->vstat);
    return st;
  }
  if (!tavrel_is_online()) return TAVREL_ST_DISCONNECTED;
  tbs_oid_s oid{};
  if (!Tavrel_View_db::obj_dbid_to_oid(uuid, dbid, &oid)) return TAVREL_ST_MALFORMED;
  if (elem_dbid != 0 && !Tavrel_View_db::elem_dbid_to_oid(uuid, elem_dbid, &oid)) return TAVREL_ST_MALFORMED;
  Tavrel_View* view = current_view();
  if (Tavrel_Log* log = view_log(view))
    log->write_log(TAVREL_LOG_ERROR, &_tvr_lib_lib_msg_table, TVR_LIB_SILO_OBJ_NOT_IN_DB, tbs_uuid_to_str(uuid).c_str(),
                   static_cast<int>(dbid), static_cast<int>(elem_dbid));
  return TAVREL_ST_INTERNAL;
}

int Tavrel_Metadata::lookup_parent_dir(const tbs_uuid_s& uuid, const tbs_oid_s& elem_oid, const std::string& p,
                                       uint32_t* elem_dbid, uint32_t* ver_dbid, std::string& msg) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata", "lookup_parent_dir");
  std::string text;
  uint32_t dbid = 0;
  silo_mtype_t mtype = 0;
  if (!Tavrel_View_db::obj_oid_to_dbid_mtype(uuid, elem_oid, &dbid, &mtype)) {
    msg += Tavrel_Util::format(text, &_tvr_lib_lib_msg_table, TVR_LIB_UNKNOWN_OID, tbs_oid_to_str(elem_oid).c_str(),
                               tbs_uuid_to_str(uuid).c_str());
    return TAVREL_ST_INTERNAL;
  }
  if (mtype != SILO_MTYPE_DIR_ELEM) {
    trace.writeTrace(TRACE_LEVEL_2, "invalid parent mtype %d (oid %s)", mtype, tbs_oid_to_str(elem_oid).c_str());
    return TAVREL_ST_INTERNAL;
  }
  Tavrel_View_db_element elem(uuid, dbid);
  uint32_t ver = 0;
  int st = elem.load_data();
  if (st == 0) st = elem.get_any_version(ver);
  if (st != 0) {
    msg += Tavrel_Util::format(text, &_tvr_lib_lib_msg_table, TVR_LIB_PARENT_VERSION, p.c_str(),
                               tbs_oid_to_str(elem_oid).c_str(), tbs_strerror(st));
    return TAVREL_ST_INTERNAL;
  }
  if (elem_dbid) *elem_dbid = dbid;
  if (ver_dbid) *ver_dbid = ver;
  return TAVREL_ST_OK;
}

int Tavrel_Metadata::cleanup_vns_recs(int all) {
  return tvr_db_in_trans(1, [all] { return tvr_db_cleanup_vns_recs(all); });
}

// ---- invalidation ---------------------------------------------------------------------------------------------------

int Tavrel_Metadata::view_inval_view(Tavrel_KFSM_Ioctl* ioctl, int names, int kernel, int db) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata", "view_inval_view");
  if (ioctl == nullptr) return TBS_ST_FAILURE;
  int db_st = db ? cleanup_vns_recs(0) : 0;
  int ns_st = names ? locate_invalidate(VIEW_INVALIDATE_VIEW, nullptr, nullptr, "", 0) : 0;
  int k_st = kernel ? ioctl->view_inval_view() : 0;
  return db_st != 0 ? db_st : ns_st != 0 ? ns_st : k_st;
}

int Tavrel_Metadata::view_inval_obj(Tavrel_KFSM_Ioctl* ioctl, const tbs_uuid_s& uuid, const tbs_oid_s& oid, int op,
                                    int names, int kernel, int db) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata", "view_inval_obj");
  if (ioctl == nullptr) return TBS_ST_FAILURE;
  trace.writeTrace(TRACE_LEVEL_4, "inval obj, SILO UUID %s, OBJ OID is %s", tbs_uuid_to_str(uuid).c_str(),
                   tbs_oid_to_str(oid).c_str());
  if (db) invalidate_obj(uuid, oid);
  int ns_st = names ? locate_invalidate(VIEW_INVALIDATE_OBJ, &uuid, &oid, "", 0) : 0;
  int k_st = kernel ? ioctl->view_inval_obj(&uuid, &oid, op) : 0;
  return ns_st != 0 ? ns_st : k_st;
}

int Tavrel_Metadata::view_inval_name(Tavrel_KFSM_Ioctl* ioctl, const tbs_uuid_s& uuid, const tbs_oid_s& dir_oid,
                                     const char* name, int names, int kernel, int db) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata", "view_inval_name");
  if (ioctl == nullptr) return TBS_ST_FAILURE;
  if (name == nullptr) name = "";
  trace.writeTrace(TRACE_LEVEL_4, "inval name, SILO UUID %s, OBJ OID %s, name '%s'", tbs_uuid_to_str(uuid).c_str(),
                   tbs_oid_to_str(dir_oid).c_str(), name);
  if (db) invalidate_name(uuid, dir_oid, name);
  int ns_st = names ? locate_invalidate(VIEW_INVALIDATE_NAME, &uuid, &dir_oid, name, 0) : 0;
  int k_st = kernel ? ioctl->view_inval_name(&uuid, &dir_oid, name) : 0;
  return ns_st != 0 ? ns_st : k_st;
}

int Tavrel_Metadata::view_inval_parent(const tbs_uuid_s& uuid, const tbs_oid_s& oid, int op) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata", "view_inval_parent");
  trace.writeTrace(TRACE_LEVEL_4, "inval parent, SILO UUID %s, OBJ OID %s, op %d", tbs_uuid_to_str(uuid).c_str(),
                   tbs_oid_to_str(oid).c_str(), op);
  return Tavrel_Thread_Manager_Base::get_instance()->process_request(new Tavrel_Metadata_BG_Flush(uuid, oid, op));
}

int Tavrel_Metadata::invalidate_obj(const tbs_uuid_s& uuid, const tbs_oid_s& oid) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata", "invalidate_obj");
  silo_mtype_t mtype = 0;
  std::unique_ptr<Tavrel_View_db_object> obj = Tavrel_View_db_object::get_object(uuid, oid, &mtype);
  if (obj) obj->invalidate_obj();
  return 0;
}

int Tavrel_Metadata::invalidate_name(const tbs_uuid_s& uuid, const tbs_oid_s& dir_oid, const char* name) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata", "invalidate_name");
  uint32_t dbid = 0;
  if (!Tavrel_View_db::obj_oid_to_dbid(uuid, dir_oid, &dbid)) return TAVREL_ST_MALFORMED;
  std::lock_guard<Tavrel_Mutex> stripe(oid_lock(dir_oid));
  Tavrel_View_db_version dir(uuid, dbid);
  if (dir.load_data() == 0) dir.invalidate_name(name ? name : "");
  return 0;
}

int Tavrel_Metadata::flush_cache(const tbs_uuid_s& uuid, const tbs_oid_s& oid, const tbs_oid_s& dir_oid,
                                 const char* name, Tavrel_KFSM_Ioctl* ioctl, const std::string& p, std::string& msg) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata", "flush_cache");
  int result = 0;
  std::string text;
  if (!tbs_oid_is_null(oid)) {
    int st = view_inval_obj(ioctl, uuid, oid, 13, 1, 1, 0);
    if (st != 0) {
      msg += Tavrel_Util::format(text, &_tvr_lib_lib_msg_table, TVR_LIB_FLUSH_ENTRY, p.c_str(), tbs_strerror(st));
      result = Tavrel_Util::tbs_to_tavrel_status(st);
    }
  }
  if (name != nullptr && name[0] != '\0') {
    int st = view_inval_name(ioctl, uuid, dir_oid, name, 1, 1, 0);
    if (st != 0) {
      msg += Tavrel_Util::format(text, &_tvr_lib_lib_msg_table, TVR_LIB_FLUSH_ENTRY, p.c_str(), tbs_strerror(st));
      result = Tavrel_Util::tbs_to_tavrel_status(st);
    } else {
      result = 0;
    }
  }
  return result;
}

// ---- directory listings ---------------------------------------------------------------------------------------------

int Tavrel_Metadata::readdir_obj(const tbs_uuid_s& uuid, uint32_t dbid, std::vector<tavrel_dirent>* out) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata", "readdir_obj");
  auto* sb = new Tavrel_Readdir_Scoreboard(new Tavrel_Readdir_SB_req(uuid, dbid, false));
  if (!sb->check_duplicate(false)) {
    trace.writeTrace(TRACE_LEVEL_2, "obj create failed");
    sb->release();
    return TAVREL_ST_INTERNAL;
  }
  // Waiting on a queued background read would put this reader behind all queued low-priority work.
  const bool linked = sb->is_linked();
  if (linked) Tavrel_BG_Readdir::promote(sb);
  int status = 0;
  std::string msg;
  int result = sb->execute(status, msg);
  Tavrel_Readdir_SB_req* work = sb->get_req();
  if (result == TAVREL_SB_DONE) {
    if (out) *out = work->get_dirents();
  } else {
    trace.writeTrace(TRACE_LEVEL_2, "readdir(%s:%d) failed (%d): %s", tbs_uuid_to_str(uuid).c_str(),
                     static_cast<int>(dbid), status, msg.c_str());
  }
  // Only the worker invalidates what its failed listing left; nothing of the scoreboard is held now.
  const tbs_oid_s inval = linked ? TBS_OID_NULL : work->get_inval_oid();
  sb->release();
  if (!tbs_oid_is_null(inval)) {
    Tavrel_KFSM_Ioctl ioctl(current_view());
    view_inval_obj(&ioctl, uuid, inval, 13, 1, 1, 0);
  }
  return status;
}

int Tavrel_Metadata::do_readdir_obj(const tbs_uuid_s& uuid, uint32_t dbid, std::vector<tavrel_dirent>* out) {
  tbs_oid_s inval = TBS_OID_NULL;
  int st = do_readdir_obj(uuid, dbid, out, &inval);
  if (!tbs_oid_is_null(inval)) {
    Tavrel_KFSM_Ioctl ioctl(current_view());
    view_inval_obj(&ioctl, uuid, inval, 13, 1, 1, 0);
  }
  return st;
}

int Tavrel_Metadata::do_readdir_obj(const tbs_uuid_s& uuid, uint32_t dbid, std::vector<tavrel_dirent>* out,
                                    tbs_oid_s* inval_oid) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata", "do_readdir_obj");
  std::vector<tavrel_dirent> scratch;
  if (out == nullptr) out = &scratch;
  if (inval_oid) *inval_oid = TBS_OID_NULL;
  unsigned silo_dbid = 0;
  int st = Tavrel_View_db_silo(uuid).lookup_silo(silo_dbid);
  if (st != 0) return st;
  Tavrel_View_db_version dir(uuid, dbid);
  if (dir.is_readdir_done() || !tavrel_is_online()) {
    // Complete, or all there is while offline.
    out->clear();
    return dir.readdir(*out);
  }
  tbs_oid_s dir_oid{};
  if (!Tavrel_View_db::obj_dbid_to_oid(uuid, dbid, &dir_oid)) return TAVREL_ST_MALFORMED;
  std::lock_guard<Tavrel_Mutex> stripe(oid_lock(dir_oid));
  uint32_t stored = 0;
  int listener_status = 0, wan_status = 0;
  std::string msg;
  st = fetch_directory_contents(uuid, dbid, dir_oid, &stored, &listener_status, &wan_status, msg);
  if (listener_status != 0) {
    // Part of the listing may be stored and part not: nothing of it may stay cached.
    if (inval_oid) *inval_oid = dir_oid;
    trace.writeTrace(TRACE_LEVEL_2, "Get_Directory_Contents repackaging failure: %d", listener_status);
    return TAVREL_ST_FAILURE;
  }
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Get_Directory_Contents RPC failed = %d %s", st, msg.c_str());
    if (wan_status == RCLIENT_ST_TRANSPORT) {
      // The server cannot be reached: what the database holds, as while offline (never marked complete).
      std::vector<tavrel_dirent> known;
      if (dir.readdir(known) == 0 && !known.empty()) {
        *out = std::move(known);
        return TAVREL_ST_OK;
      }
    }
    return st;
  }
  bool removed = false;
  st = dir.set_readdir_done(true, removed);
  if (st == 0) {
    out->clear();
    out->reserve(stored);
    st = dir.readdir(*out);
  }
  if (st != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Can't finalize readdir for %d: %d", static_cast<int>(dbid), st);
    trace.writeTrace(TRACE_LEVEL_2, "Get_Directory_Contents repackaging failure: %d", st);
    return TAVREL_ST_FAILURE;
  }
  return TAVREL_ST_OK;
}

void Tavrel_Metadata::readdir_in_background(const tbs_uuid_s& uuid, uint32_t dbid) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata", "readdir_in_background");
  trace.writeTrace(TRACE_LEVEL_4, "scheduling readdir() for silo:%s nsdir ver dbid:%d", tbs_uuid_to_str(uuid).c_str(),
                   static_cast<int>(dbid));
  auto* sb = new Tavrel_Readdir_Scoreboard(new Tavrel_Readdir_SB_req(uuid, dbid, true));
  if (!sb->check_duplicate(true)) {
    sb->release();
    trace.writeTrace(TRACE_LEVEL_4, "skipping duplicate readdir() for %s:%d", tbs_uuid_to_str(uuid).c_str(),
                     static_cast<int>(dbid));
    return;
  }
  Tavrel_Thread_Manager_Base::get_instance()->process_request(new Tavrel_BG_Readdir(uuid, dbid, sb));
}

void Tavrel_Metadata::readdir_in_background(const tbs_uuid_s& uuid, const tbs_oid_s& ver_oid) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Metadata", "readdir_in_background");
  uint32_t dbid = 0;
  if (!Tavrel_View_db::obj_oid_to_dbid(uuid, ver_oid, &dbid)) {
    trace.writeTrace(TRACE_LEVEL_2, "Unknown ver oid for background readdir, silo %s ver %s",
                     tbs_uuid_to_str(uuid).c_str(), tbs_oid_to_str(ver_oid).c_str());
    return;
  }
  readdir_in_background(uuid, dbid);
}
