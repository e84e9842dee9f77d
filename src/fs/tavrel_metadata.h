// Tavrel_Metadata: the metadata resolver. Two faces.
//
// As an object it resolves one client path ("/<silo tag>/a/b") to the canonical path inside its SILO,
// the handle and the attributes of the object behind it, walking the name service component by
// component: symbolic links in the middle of the path are always followed (20 at most: the 21st gives
// 1083 mapped to 20001), a link in the last component only when `follow` is set, an absolute link text
// is refused ("Absolute symlinks unsupported"), and ".." above a SILO root leaves that SILO and enters
// whatever mounted SILO the rest of the path names. A resolver serves one request and is discarded.
//
// Through its statics it is the on-demand bridge from the name service to the view database and the
// WAN server:
//   lookup_obj     one name in one directory: from the database when it knows the name; a definite
//                  20002 when the directory was read completely; 20033 offline; otherwise the WAN
//                  command Lookup, whose answer is stored (and the rest of the directory is read in
//                  the background). A name the server does not know gives 20002 and is never stored.
//   bindroot       a SILO's root: database, else Get_Metadata.
//   get_metadata   an object of the database; never the WAN.
//   readdir_obj    a whole directory, through the scoreboard, so concurrent reads of one directory
//                  make one Get_Directory_Contents. Offline, or when the server cannot be reached at
//                  all, whatever the database holds.
//   view_inval_*   invalidations of the name service, the database and the kernel module.
// Attributes handed out carry the view user's identities (replace_vstat_values): everything in the
// view belongs to its user.
//
// Locks (outermost first): tavrel_cache_mutex, held by the callers of lookup_obj, bindroot,
// get_metadata and foreground readdir_obj across WAN calls; a scoreboard worker's mutex, held across a
// whole directory fetch; the directory's stripe of g_oid_locks (1021 stripes by directory OID), held by
// every writer of one directory's records (the listing of do_readdir_obj, invalidate_name); the
// database engine mutex, taken by each transaction. A listing that fails half-way is never invalidated
// while its worker holds the scoreboard mutex or the stripe: the invalidation needs tavrel_cache_mutex,
// which a waiter on that scoreboard may hold. The worker records the need and whoever ran it performs
// the invalidation once both are released.
//
// Statuses: the statics give the agent's 20000-range numbers, except view_inval_*, invalidate_* and
// flush_cache's parts, which give the 1000 range (tbs).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/tbs.h"
#include "proto/view_records.h"

class Tavrel_KFSM_Ioctl;
class Tavrel_View;
class Tavrel_Mutex;
// Both records of proto/tavrel_records.h, declared only: callers include that header where they use them.
struct tavrel_dirent;
struct tavrel_vstat;

class Tavrel_Metadata {
 public:
  Tavrel_Metadata(const std::string& path, bool follow);
  virtual ~Tavrel_Metadata();
  Tavrel_Metadata(const Tavrel_Metadata&) = delete;
  Tavrel_Metadata& operator=(const Tavrel_Metadata&) = delete;

  // Resolves the path given at construction: 0 or a 20000-range status, with texts in get_message().
  int run();

  // The first 196 bytes of the attributes (the view_vstat), or the whole record; 20001 for null.
  int get_vstat(view_vstat_t* out) const;
  int get_tavrel_vstat(tavrel_vstat* out) const;

  const std::string& get_message() const { return message; }
  const std::string& get_canonical() const { return canonical; }
  const std::string& get_silo_tag() const { return silo_tag; }
  const std::string& get_original_path() const { return original_path; }
  const tbs_uuid_s& get_replica_uuid() const { return replica_uuid; }
  const view_fhandle_t& get_handle() const { return handle; }
  const view_fhandle_t& get_parent_handle() const { return root_handle; }
  const char* get_target() const { return target; }
  const tbs_oid_s& get_co_ver_oid() const { return co_ver_oid; }
  int get_checked_out() const { return checked_out; }
  int get_tbs_status() const { return tbs_status; }
  int get_status() const { return status; }
  bool get_is_silo_root() const { return is_silo_root; }
  bool get_hijacked() const { return hijacked; }
  bool get_eclipsed() const { return eclipsed; }
  bool get_multi_component() const { return multi_component; }
  int get_symlink_count() const { return symlink_count; }

  // ---- the on-demand bridge ----------------------------------------------------------------------------
  static int lookup_obj(const tbs_uuid_s& uuid, uint32_t dir_dbid, uint32_t elem_dbid, const char* name,
                        uint32_t* elem_dbid_out, uint32_t* ver_dbid_out, tavrel_vstat* vstat);
  static int bindroot(const tbs_uuid_s& uuid, uint32_t* elem_dbid, uint32_t* ver_dbid, tavrel_vstat* vstat);
  static int get_metadata(const tbs_uuid_s& uuid, uint32_t dbid, uint32_t elem_dbid, tavrel_vstat* vstat);
  static int readdir_obj(const tbs_uuid_s& uuid, uint32_t dbid, std::vector<tavrel_dirent>* out);
  // The listing itself (runs under the scoreboard). This form invalidates a half-stored directory
  // itself after its locks are released; the form with `inval_oid` leaves that to the caller: when the
  // listing failed half-way *inval_oid is the directory's oid, else TBS_OID_NULL.
  static int do_readdir_obj(const tbs_uuid_s& uuid, uint32_t dbid, std::vector<tavrel_dirent>* out);
  static int do_readdir_obj(const tbs_uuid_s& uuid, uint32_t dbid, std::vector<tavrel_dirent>* out,
                            tbs_oid_s* inval_oid);
  static void readdir_in_background(const tbs_uuid_s& uuid, uint32_t dbid);
  static void readdir_in_background(const tbs_uuid_s& uuid, const tbs_oid_s& ver_oid);
  static int lookup_parent_dir(const tbs_uuid_s& uuid, const tbs_oid_s& elem_oid, const std::string& path,
                               uint32_t* elem_dbid, uint32_t* ver_dbid, std::string& message);

  static void replace_vstat_values(view_vstat_t& v);
  static void replace_fstat_identities(tbs_fstat_db_s& fstat);

  // ---- invalidation (1000-range statuses; a null ioctl gives 1001) ----------------------------------------
  static int view_inval_view(Tavrel_KFSM_Ioctl* ioctl, int names, int kernel, int db);
  static int view_inval_obj(Tavrel_KFSM_Ioctl* ioctl, const tbs_uuid_s& uuid, const tbs_oid_s& oid, int op,
                            int names, int kernel, int db);
  static int view_inval_name(Tavrel_KFSM_Ioctl* ioctl, const tbs_uuid_s& uuid, const tbs_oid_s& dir_oid,
                             const char* name, int names, int kernel, int db);
  // Queues the flush of an object (name service and kernel), so it may be called under any lock.
  static int view_inval_parent(const tbs_uuid_s& uuid, const tbs_oid_s& oid, int op);
  static int invalidate_obj(const tbs_uuid_s& uuid, const tbs_oid_s& oid);
  static int invalidate_name(const tbs_uuid_s& uuid, const tbs_oid_s& dir_oid, const char* name);
  // Flushes an object (op 13) and/or a name from the name service and the kernel; the mapped status
  // of the last failure (20000 range), texts appended to `message`.
  static int flush_cache(const tbs_uuid_s& uuid, const tbs_oid_s& oid, const tbs_oid_s& dir_oid, const char* name,
                         Tavrel_KFSM_Ioctl* ioctl, const std::string& path, std::string& message);

  // The stripe of g_oid_locks that guards the records of directory `dir_oid` (made on first use).
  static Tavrel_Mutex& oid_lock(const tbs_oid_s& dir_oid);
  static constexpr unsigned OID_LOCK_COUNT = 1021;

  // Where the resolver finds the process's view (its uuid goes with every WAN command, and the kernel
  // invalidations need it). The agent installs its view handler; tests install their own. Without a
  // source, or while it gives null, calls that need the view give 20001.
  typedef Tavrel_View* (*View_Source)();
  static void set_view_source(View_Source source);
  static bool has_view_source();
  static Tavrel_View* current_view();

 private:
  int parse_siloroot();
  void handle_dotdot(view_fhandle_t& dir, view_fhandle_t& top);
  void substitute_symlink();
  void trim_canonical_tail();
  void lookup_failure();
  // The Get_Directory_Contents step of do_readdir_obj (run with the directory's stripe held): every
  // entry stored through a Tavrel_Metadata_GDC_Listener. 0 or the command's checked status (20000
  // range, texts to `message`); *wan_status the transport's own status, *stored the entries stored,
  // *listener_status the first entry that failed (0: all stored).
  // Deletes every namespace record of the view database in one transaction (1000-range status).
  static int cleanup_vns_recs(int all);
  static int fetch_directory_contents(const tbs_uuid_s& uuid, uint32_t dbid, const tbs_oid_s& dir_oid,
                                      uint32_t* stored, int* listener_status, int* wan_status, std::string& message);

  std::string path;           // what remains to be resolved
  std::string original_path;  // as given
  int tbs_status = 0;         // last name-service status
  int status = 0;             // result, 20000 range
  std::string message;
  std::unique_ptr<tavrel_vstat> vstat;  // never null
  int checked_out = 0;
  char target[1024] = {0};  // link text of a last component that is not followed
  tbs_oid_s co_ver_oid{};
  tbs_uuid_s replica_uuid{};
  view_fhandle_t root_handle{};  // the SILO root; after a walk the parent of what it reached
  view_fhandle_t handle{};       // the object reached
  std::string silo_tag;
  std::string canonical;  // canonical path within the SILO
  bool is_silo_root = false;
  bool hijacked = false;
  bool eclipsed = false;
  bool multi_component = false;
  bool follow = false;
  int symlink_count = 0;
  uint32_t consumed = 0;
};
