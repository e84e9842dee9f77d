// Tavrel_Update_Hijack: what an update does to a hijacked file, that is a file of the SILO that the user
// changed in place. The view keeps the user's copy as a view-private file under the SILO name, in the
// cover of the parent directory's element, marked hijacked (name state 0x200000, with the OIDs of the
// version and element hijacked). An update that changes or unloads such a name treats it as asked:
//
//   keep       the user's copy stays hijacked over the new version (an update), or stays as an
//              ordinary view-private file when its element is no longer loaded (an unload)
//   overwrite  the user's copy goes, with its container; the SILO's version shows
//   rename     the user's copy moves to "<name>.keep.<n>" (the first free n) and becomes an ordinary
//              view-private file; the SILO's version shows under the name
//
// Directories are given by their element (replica and OID); names are leaves. Each call runs in
// transactions of its own (never inside one the caller holds) and leaves the records as they were when
// it fails. The name service and the kernel are not told here: the update flushes the names it touched.
// Statuses of the 1000 range.
#pragma once

#include <string>

#include "base/tbs.h"
#include "core/tavrel_util.h"

class Tavrel_Log_Update;
class Tavrel_KFSM_Ioctl;

class Tavrel_Update_Hijack {
 public:
  static constexpr const char* RENAME_SUFFIX = ".keep";

  // Whether the view holds any hijacked name at all (false also when it cannot tell).
  static bool view_has_hijacks();
  // 0 when `leaf` in the directory element `dir_elem` is hijacked, 1002 when it is not (no cover, no
  // such name, or a name without the mark); other statuses for a database failure. Reports nothing.
  static int lookup(const tbs_uuid_s& replica, const tbs_oid_s& dir_elem, const std::string& leaf);
  // The user's copy goes (overwrite).
  static int remove(const tbs_uuid_s& replica, const tbs_oid_s& dir_elem, const std::string& leaf);
  // The user's copy moves to a free "<leaf>.keep.<n>", no longer hijacked; *new_leaf receives the name.
  static int rename(const tbs_uuid_s& replica, const tbs_oid_s& dir_elem, const std::string& leaf,
                    std::string* new_leaf);
  // The mark goes; the user's copy stays under the name as a view-private file (keep of an unload).
  static int unhijack(const tbs_uuid_s& replica, const tbs_oid_s& dir_elem, const std::string& leaf);
  // Applies `treatment` to a hijack found by an update (overwrite: remove, rename: rename, keep:
  // nothing, or unhijack when `unloaded`). *new_leaf is set for a rename.
  static int treat(HijackTreatment treatment, bool unloaded, const tbs_uuid_s& replica, const tbs_oid_s& dir_elem,
                   const std::string& leaf, std::string* new_leaf);

  // The hijacks of SILO `replica` whose element the view no longer holds (it left the view without an
  // unload of the name, e.g. with its directory): each is treated as for an unload and, except for
  // keep, logged ("HijackedDeleted:", "HijackedRenamed:"; by SILO path when the SILO is mounted and the
  // view still holds the directory, else by the name the view's records give) and flushed from the name
  // service and the
  // kernel through `ioctl` (may be null). Returns the number treated, or -1 when the hijacks could not be
  // listed.
  static int sweep(const tbs_uuid_s& replica, HijackTreatment treatment, Tavrel_Log_Update* log,
                   Tavrel_KFSM_Ioctl* ioctl);
};
