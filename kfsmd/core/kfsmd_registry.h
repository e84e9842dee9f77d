// Kfsmd_Registry: the views registered with the daemon and their SILO mounts, and the commands of
// the kernel channel that act on them.
//
// Who may do what (by the peer credentials of the connection): any process may register a view tag
// that is free (it becomes the tag's owner), ask the root path (11) and the naming suffix (20). Every
// other command on a view, and binding an LPC connection to it, is for the view's owner or root; any
// other caller gets 1063. Tags are single path components of [A-Za-z0-9._-] (not "." or ".."), at
// most 255 bytes; SILO tags are "/" followed by such components separated by "/".
//
// Statuses of the commands:
//   7 register    0; 1067 the tag is registered with another uuid; 1063 another user's tag; 1072 bad
//                 tag or flags; 1062 too many views; 1001 the view directory cannot be made. The same
//                 tag and uuid again (the agent was restarted) keeps the view's mounts and invalidates
//                 everything the kernel holds of it.
//   8 remove      0; 1002 unknown tag. The view's LPC threads get 1046, its mounts are detached lazily,
//                 the mount points and <root>/<tag> removed.
//   36 mount      0; 1067 the replica or the tag is mounted already; 1072 bad record, bad tag, or a tag
//                 that nests with a mounted one; 1002 unknown view; 1062 too many mounts; 1001 the
//                 mount failed.
//   37 unmount    0; 1072 not mounted; 1088 busy (nothing changes); 1001 other failures.
//   5 invalidate  0 (planned and queued, answered at once); 1011 pn is no view root; 1072 bad
//                 version or kind.
//   2 stat        0 with the outputs, or the status of the resolution; 1072 for a path outside every
//                 mounted SILO of a view; 1052 for a view path that names no SILO.
//
// Lock: m_mutex guards the maps; it is held across mount and unmount system calls but never across
// an RPC (the stat command takes what it needs and lets go).
#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kfsmd/core/kfsmd_mount.h"
#include "kfsmd/core/kfsmd_options.h"
#include "kfsmd/core/kfsmd_silo.h"
#include "kfsmd/core/kfsmd_view.h"
#include "proto/kfsm_records.h"

struct Kfsmd_Caller {
  uid_t uid = 0;
  gid_t gid = 0;
  pid_t pid = 0;
};

class Kfsmd_Registry {
 public:
  Kfsmd_Registry(const Kfsmd_Options& opt, Kfsmd_Mounter* mounter);
  ~Kfsmd_Registry();

  // Runs one command of the kernel channel; the status, with outputs filled where the command has them.
  int32_t command(const Kfsmd_Caller& who, const kfsm_command& c, kfsm_result_outputs* out);
  // The view an LPC connection of `who` names: 0 with *view; 1046 for an unknown tag; 1063 for
  // another user's view.
  int32_t bind_lpc(const Kfsmd_Caller& who, const std::string& tag, std::shared_ptr<Kfsmd_View>* view);
  // Ends every view: LPC threads get 1046, mounts are detached lazily.
  void shutdown();

  // For tests and the daemon's log.
  std::vector<std::string> view_tags();
  std::shared_ptr<Kfsmd_View> find_view(const std::string& tag);
  std::shared_ptr<Kfsmd_Silo> find_silo(const std::string& view_tag, const std::string& silo_tag);

  static bool valid_view_tag(const std::string& tag);
  static bool valid_silo_tag(const std::string& tag);

 private:
  struct Entry {
    std::shared_ptr<Kfsmd_View> view;
    std::map<std::string, std::shared_ptr<Kfsmd_Silo>> silos;  // by SILO tag
  };

  int32_t mkview(const Kfsmd_Caller& who, const kfsm_command& c);
  int32_t rmtag(const Kfsmd_Caller& who, const kfsm_command& c);
  int32_t mount(const Kfsmd_Caller& who, const kfsm_command& c);
  int32_t umount(const Kfsmd_Caller& who, const kfsm_command& c);
  int32_t inval(const Kfsmd_Caller& who, const kfsm_command& c);
  int32_t xstat(const Kfsmd_Caller& who, const kfsm_command& c, kfsm_result_outputs* out);
  // Caller holds m_mutex.
  void end_view(Entry& e);
  static bool may_drive(const Kfsmd_Caller& who, const Kfsmd_View& v) { return who.uid == 0 || who.uid == v.uid(); }
  std::string view_dir(const std::string& tag) const { return m_opt.root + "/" + tag; }
  void post(Entry& e, uint32_t kind, const tbs_uuid_s& silo, const tbs_oid_s& oid, const std::string& name);

  const Kfsmd_Options m_opt;
  Kfsmd_Mounter* m_mounter;
  std::mutex m_mutex;  // guards m_views
  std::map<std::string, Entry> m_views;
};
