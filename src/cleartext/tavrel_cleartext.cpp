#include "cleartext/tavrel_cleartext.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "base/fileutl.h"
#include "base/imsg.h"
#include "base/strutl.h"
#include "cleartext/tavrel_bg_cleartext.h"
#include "cleartext/tavrel_bg_cleartext_listener.h"
#include "cleartext/tavrel_cleartext_sb_req.h"
#include "core/tavrel_log.h"
#include "core/tavrel_msg_table.h"
#include "core/tavrel_online.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_util.h"
#include "core/tavrel_view.h"
#include "fs/tavrel_metadata.h"
#include "fs/tavrel_scoreboard.h"
#include "fs/tavrel_view_db.h"
#include "proto/tavrel_status.h"
#include "wan/get_cleartext.h"

namespace {
const char* const kClass = "Tavrel_Cleartext";
}

Tavrel_Cleartext::Tavrel_Cleartext(const tbs_uuid_s& r, uint32_t d, const tbs_oid_s& o, const std::string& root,
                                   Tavrel_BG_Cleartext_listener* l)
    : replica(r), dbid(d), oid(o), cache_root(root), listener(l) {
  // One spelling of the root, so that the relative path is the cache path's tail.
  while (cache_root.size() > 1 && cache_root.back() == '/') cache_root.pop_back();
}

Tavrel_Cleartext::Tavrel_Cleartext(const Tavrel_Cleartext& o)
    : replica(o.replica), dbid(o.dbid), oid(o.oid), cache_root(o.cache_root), cache_path(o.cache_path),
      dir_path(o.dir_path), message(o.message), textmode(o.textmode), tmp_path(o.tmp_path), listener(nullptr) {}

Tavrel_Cleartext::~Tavrel_Cleartext() { delete listener; }

void Tavrel_Cleartext::add_message(int number, ...) {
  std::string text;
  va_list ap;
  va_start(ap, number);
  Tavrel_Util::vformat(text, &_tvr_lib_lib_msg_table, number, ap);
  va_end(ap);
  message += text;
}

void Tavrel_Cleartext::add_call_failed(const char* what, int err) {
  std::string text;
  message += Tavrel_Util::format(text, &_tvr_base_msg_table, TVR_BASE_MSG_CALL_FAILED, what, std::strerror(err));
}

void Tavrel_Cleartext::remove_tmp() {
  if (tmp_path.empty()) return;
  ::unlink(tmp_path.c_str());
  tmp_path.clear();
}

std::string Tavrel_Cleartext::location() const {
  return dbid != 0 ? Tavrel_Util::uuid_dbid_to_location(replica, static_cast<long>(dbid))
                   : Tavrel_Util::uuid_oid_to_location(replica, oid);
}

std::string Tavrel_Cleartext::get_cltxt_relpath() const {
  if (cache_path.size() > cache_root.size() + 1 && cache_path.compare(0, cache_root.size(), cache_root) == 0 &&
      cache_path[cache_root.size()] == '/')
    return cache_path.substr(cache_root.size() + 1);
  return cache_path;
}

int Tavrel_Cleartext::get_view_textmode(std::string& mode) {
  Tavrel_View* view = Tavrel_Metadata::current_view();
  mode = view ? view->get_view_textmode() : std::string();
  if (mode.empty()) {
    add_message(TVR_LIB_NO_VIEW_INFO);
    return TAVREL_ST_NO_VIEW_INFO;
  }
  return 0;
}

int Tavrel_Cleartext::gen_cache_dirs() {
  if (cache_root.empty()) {
    add_message(TVR_LIB_NO_VIEW_INFO);
    return TAVREL_ST_NO_VIEW_INFO;
  }
  const uint32_t h = strutl_str_to_hash32(0, tbs_oid_to_dstr(oid));
  char levels[48];
  std::snprintf(levels, sizeof levels, "/%lx/%lx", static_cast<unsigned long>(h % LEVEL_FANOUT),
                static_cast<unsigned long>((h >> 6) % LEVEL_FANOUT));
  dir_path = cache_root + "/" + CACHE_SUBDIR + "/" + tbs_uuid_to_dstr(replica) + levels;
  return 0;
}

int Tavrel_Cleartext::gen_cache_pathname() {
  int st = gen_cache_dirs();
  if (st != 0) return st;
  cache_path = dir_path + "/" + tbs_oid_to_dstr(oid) + "-" + textmode;
  return 0;
}

bool Tavrel_Cleartext::cltxt_in_cache() {
  Tavrel_Trace trace(TAVREL, kClass, "cltxt_in_cache");
  struct stat st;
  if (fileutl_stat(cache_path, &st) != 0) return false;
  trace.writeTrace(TRACE_LEVEL_DEMO, "%s found in cleartext cache.", cache_path.c_str());
  return true;
}

int Tavrel_Cleartext::gen_cleartext_url(std::string& url) {
  if (tbs_oid_is_null(oid) || textmode.empty()) return TAVREL_ST_MALFORMED;
  url = std::string(CLTXT_URL_PREFIX) + tbs_uuid_to_dstr(replica) + CLTXT_URL_SEPARATOR + tbs_oid_to_dstr(oid) + "/" +
        textmode;
  return 0;
}

int Tavrel_Cleartext::check_cache(int& present) {
  Tavrel_Trace trace(TAVREL, kClass, "check_cache");
  present = 0;
  int st = get_view_textmode(textmode);
  if (st != 0) return st;
  if (tbs_oid_is_null(oid) && (!Tavrel_View_db::obj_dbid_to_oid(replica, dbid, &oid) || tbs_oid_is_null(oid))) {
    trace.writeTrace(TRACE_LEVEL_2, "no oid for %s", location().c_str());
    return TAVREL_ST_MALFORMED;
  }
  st = gen_cache_pathname();
  if (st != 0) return st;
  trace.writeTrace(TRACE_LEVEL_4, "Cache path name = %s", cache_path.c_str());
  if (cltxt_in_cache()) {
    present = 1;
    return 0;
  }
  if (!tavrel_is_online()) {
    add_message(TVR_LIB_DISCONNECTED);
    return TAVREL_ST_DISCONNECTED;
  }
  return 0;
}

int Tavrel_Cleartext::getcleartext(int& present) {
  Tavrel_Trace trace(TAVREL, kClass, "getcleartext");
  const bool background = listener != nullptr;
  int status = check_cache(present);
  if (status != 0 || present) return status;

  // A background fetch outlives this object: it works on a copy that takes the listener along.
  Tavrel_Cleartext* work = this;
  if (background) {
    work = new Tavrel_Cleartext(*this);
    work->listener = listener;
    listener = nullptr;
  }
  auto* sb = new Tavrel_Cleartext_Scoreboard(new Tavrel_Cleartext_SB_req(background, replica, oid, work));
  if (!sb->check_duplicate(background)) {
    sb->release();  // the copy and its listener go with it
    trace.writeTrace(TRACE_LEVEL_4, "background cltxt already in progress (%s,%s)", tbs_uuid_to_str(replica).c_str(),
                     tbs_oid_to_str(oid).c_str());
    present = 0;
    return 0;
  }
  auto* request = new Tavrel_BG_Cleartext(sb);
  if (background) {
    Tavrel_Thread_Manager_Base::get_instance()->process_request(request);
    present = 0;
    return 0;
  }
  // A queued background fetch of this version does the work for us: it goes to the front.
  if (sb->is_linked()) Tavrel_Thread_Manager_Base::get_instance()->promote_dependency(request);
  std::string text;
  int result = request->execute(status, text);
  // The worker's fetch wrote its texts here already; a caller that waited takes the worker's.
  if (sb->get_req()->get_cltxt() != this) message += text;
  if (result != TAVREL_SB_DONE) {
    if (status == 0) status = TAVREL_ST_FAILURE;
    trace.writeTrace(TRACE_LEVEL_2, "getcltxt(%s,%s) failed(%d): %s", tbs_uuid_to_str(replica).c_str(),
                     tbs_oid_to_str(oid).c_str(), status, message.c_str());
  }
  delete request;
  present = status == 0 ? 1 : 0;
  return status;
}

int Tavrel_Cleartext::make_cltxt_parent() {
  if (fileutl_exists(dir_path)) return 0;
  if (fileutl_mkpath(dir_path, DIR_MODE) != 0 && errno != EEXIST) {
    add_call_failed("fileutl_mkpath", errno);
    return TAVREL_ST_FAILURE;
  }
  return 0;
}

int Tavrel_Cleartext::gen_tmp_path() {
  std::string path;
  // The name never equals a cache file's: those end in the text mode.
  int fd = fileutl_tmpfile_ext_binary(dir_path, tbs_oid_to_dstr(oid) + ".tmp", &path);
  if (fd < 0) {
    add_message(TVR_LIB_CLTXT_TEMP, dir_path.c_str(), std::strerror(errno));
    return TAVREL_ST_FAILURE;
  }
  ::close(fd);
  tmp_path = path;
  return 0;
}

int Tavrel_Cleartext::wan_fetch_cleartext() {
  Tavrel_Trace trace(TAVREL, kClass, "wan_fetch_cleartext");
  int status = make_cltxt_parent();
  if (status == 0) status = gen_tmp_path();
  if (status != 0) {
    trace.writeTrace(TRACE_LEVEL_4, "Returning %d (%s)", status, message.c_str());
    return status;
  }
  trace.writeTrace(TRACE_LEVEL_DEMO, "Getting cleartext for %s from server.", cache_path.c_str());
  std::string url;
  status = gen_cleartext_url(url);
  if (status != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Failed to generate cleartext context, status = %d", status);
    remove_tmp();
    return status;
  }
  Get_ClearText cmd(url, tmp_path);
  cmd.run();
  int rpc_status = cmd.get_status_code();
  Tavrel_View* view = Tavrel_Metadata::current_view();
  Tavrel_Log* log = view ? Tavrel_Log::get_instance(view->get_storage_path()) : nullptr;
  status = cmd.check_rpc_status(log, message, rpc_status);
  trace.writeTrace(TRACE_LEVEL_4, "Status from get_cleartext_cmd = %d", status);
  if (cmd.get_write_error() != 0) {
    std::string text;
    Tavrel_Util::format(text, &_tvr_lib_lib_msg_table, TVR_LIB_CLTXT_IO, cache_path.c_str());
    imsg_print(IMSG_ERR, "%s", text.c_str());
    message += text;
    status = TAVREL_ST_FAILURE;
    remove_tmp();
  } else if (status != 0 || !cmd.data_complete()) {
    // A reply that passed its checks without the whole body is a failure all the same.
    if (status == 0) status = TAVREL_ST_FAILURE;
    add_message(TVR_LIB_CLTXT_FETCH, location().c_str());
    remove_tmp();
  } else {
    status = finalize_cltxt();
  }
  trace.writeTrace(TRACE_LEVEL_4, "Returning %d (%s)", status, message.c_str());
  return status;
}

int Tavrel_Cleartext::finalize_cltxt() {
  Tavrel_Trace trace(TAVREL, kClass, "finalize_cltxt");
  struct stat tmp_st;
  if (fileutl_stat(tmp_path, &tmp_st) != 0) {
    add_call_failed("fileutl_stat", errno);
    remove_tmp();
    return TAVREL_ST_FAILURE;
  }
  if (::chmod(tmp_path.c_str(), tmp_st.st_mode & 07777 & ~CLEARED_MODE_BITS) != 0) {
    add_call_failed("chmod", errno);
    remove_tmp();
    return TAVREL_ST_FAILURE;
  }
  // Never over an existing file: a cached file is never replaced, and one already there is checked.
  int rc = fileutl_rename_noreplace(tmp_path, cache_path);
  const int err = errno;
  trace.writeTrace(TRACE_LEVEL_4, "Status from rename %d", rc);
  if (rc == 0) {
    tmp_path.clear();
    return 0;
  }
  std::string rename_text;
  Tavrel_Util::format(rename_text, &_tvr_lib_lib_msg_table, TVR_LIB_CLTXT_RENAME, tmp_path.c_str(), cache_path.c_str(),
                      std::strerror(err));
  remove_tmp();
  struct stat cache_st;
  if (fileutl_stat(cache_path, &cache_st) == 0) {
    if (static_cast<uint64_t>(cache_st.st_size) == static_cast<uint64_t>(tmp_st.st_size) &&
        (cache_st.st_mode & CLEARED_MODE_BITS) == 0) {
      trace.writeTrace(TRACE_LEVEL_4, "%s was fetched by someone else meanwhile", cache_path.c_str());
      return 0;
    }
    message += rename_text;
    add_message(TVR_LIB_FILE_EXISTS, cache_path.c_str());
    return TAVREL_ST_FAILURE;
  }
  const int stat_err = errno;
  message += rename_text;
  add_call_failed("fileutl_stat", stat_err);
  return TAVREL_ST_FAILURE;
}

int Tavrel_Cleartext::adopt(const std::string& file) {
  Tavrel_Trace trace(TAVREL, kClass, "adopt");
  int st = get_view_textmode(textmode);
  if (st != 0) return st;
  if (tbs_oid_is_null(oid) && (!Tavrel_View_db::obj_dbid_to_oid(replica, dbid, &oid) || tbs_oid_is_null(oid)))
    return TAVREL_ST_MALFORMED;
  st = gen_cache_pathname();
  if (st != 0) return st;
  trace.writeTrace(TRACE_LEVEL_4, "Cache path name = %s", cache_path.c_str());
  if (cltxt_in_cache()) {
    if (::remove(file.c_str()) != 0) {
      add_call_failed(("remove \"" + file + "\"").c_str(), errno);
      return TAVREL_ST_FAILURE;
    }
    return 0;
  }
  st = make_cltxt_parent();
  if (st == 0) st = gen_tmp_path();
  if (st != 0) return st;
  trace.writeTrace(TRACE_LEVEL_DEMO, "Getting cleartext for %s from view private file %s.", cache_path.c_str(),
                   file.c_str());
  int rc = fileutl_cp(file, tmp_path);
  trace.writeTrace(TRACE_LEVEL_4, "Status from fileutl_cp = %d", rc);
  if (rc != 0) {
    add_call_failed("fileutl_cp", errno);
    remove_tmp();
    return TAVREL_ST_FAILURE;
  }
  st = finalize_cltxt();
  trace.writeTrace(TRACE_LEVEL_4, "Returning %d (%s)", st, message.c_str());
  return st;
}
