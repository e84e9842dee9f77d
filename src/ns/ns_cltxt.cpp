#include "ns/ns_cltxt.h"

#include <cstring>
#include <mutex>
#include <string>

#include "base/imsg.h"
#include "cleartext/tavrel_cleartext.h"
#include "core/tavrel_msg_table.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_util.h"
#include "core/tavrel_view.h"
#include "fs/tavrel_metadata.h"
#include "fs/tavrel_view_db.h"
#include "ns/ns_cache.h"
#include "ns/ns_locate.h"
#include "ns/ns_silo.h"
#include "ns/tavrel_db_utls.h"

namespace {

constexpr silo_mtype_t kViewVersionCover = 22;  // a view-private object standing for a SILO version

int copy_out(const std::string& text, size_t max_len, size_t* len, char* path) {
  if (text.size() > max_len) return TBS_ST_TOO_LONG;
  std::memcpy(path, text.data(), text.size());
  if (text.size() < max_len) path[text.size()] = '\0';
  *len = text.size();
  return 0;
}

}  // namespace

int ns_get_cltxt(const view_fhandle_t* fh, size_t max_len, size_t* len, char* path, tbs_boolean_t* rel_to_cache,
                 int* flag) {
  std::unique_lock<Tavrel_Recursive_Mutex> g(tavrel_cache_mutex());
  Tavrel_Trace trace(TAVREL, "ns_rpc", "ns_get_cltxt");
  *len = 0;
  *rel_to_cache = 0;
  *flag = 0;
  int st = 0, hm = 0;
  obj_entry* obj = locate_validate_fhandle(fh, &hm, &st);
  if (obj == nullptr) return st;
  st = acl_check(obj, hm, 3, 0);
  if (st != 0) {
    obj_free(obj);
    return st;
  }
  const tbs_uuid_s replica = obj->silo->uuid;
  uint32_t dbid = obj->dbid;
  const tbs_oid_s oid = obj->oid;
  const silo_mtype_t mtype = obj->mtype;

  if (obj_isa_view_obj(obj)) {
    char name[TBS_PNAME_MAX + 1] = {0};
    st = tavrel_db_cltxt_name(obj, name, sizeof name);
    if (st == 0 && name[0] != '\0') {
      obj_free(obj);
      st = copy_out(name, max_len, len, path);
      if (st == 0) *flag = 1;
      return st;
    }
    if (st != 0 || mtype != kViewVersionCover || tbs_oid_is_null(oid)) {
      obj_free(obj);
      return st != 0 ? st : TBS_ST_CONTAINER;
    }
    // The version it stands for must still be known to the view.
    if (!Tavrel_View_db::obj_oid_to_dbid(replica, oid, &dbid)) {
      imsg_print(IMSG_ERR, "Silo stale %s: Flushing\n", locate_obj_name(obj).c_str());
      tavrel_db_delete(obj);
      obj_flush(obj);
      return TBS_ST_STALE;
    }
  } else if (mtype != SILO_MTYPE_DIR_VER && mtype != SILO_MTYPE_FILE_VER && mtype != SILO_MTYPE_VER3) {
    obj_free(obj);
    return TBS_ST_CONTAINER;
  }
  obj_free(obj);

  Tavrel_View* view = Tavrel_Metadata::current_view();
  const std::string cache_root = view ? view->get_cltxt_cache_dir() : std::string();
  // The fetch runs without the name service's mutex and with no object reference held.
  g.unlock();
  Tavrel_Cleartext cltxt(replica, dbid, oid, cache_root);
  int present = 0;
  st = cltxt.getcleartext(present);
  g.lock();
  if (st != 0 || !present) {
    std::string text;
    Tavrel_Util::format(text, &_tvr_lib_lib_msg_table, TVR_LIB_CLTXT_FETCH,
                        Tavrel_Util::uuid_dbid_to_location(replica, static_cast<long>(dbid)).c_str());
    imsg_print(IMSG_ERR, "%s", text.c_str());
    trace.writeTrace(TRACE_LEVEL_2, "cleartext of 0x%X: %d %s", dbid, st, cltxt.get_message().c_str());
    return TBS_ST_CONTAINER;
  }
  st = copy_out(cltxt.get_cltxt_relpath(), max_len, len, path);
  if (st == 0) {
    *rel_to_cache = 1;
    *flag = 1;
  }
  return st;
}
