// The FUSE 3 glue of the module daemon.
//
// Kfsmd_Fuse_Mounter makes one low-level FUSE session per mounted SILO, on the SILO's mount point,
// with the options fsname=tavrel:<view tag>:<silo tag>, subtype=tavrel, allow_other (the daemon runs
// as root, the view's user is someone else) and default_permissions (the kernel checks callers against
// the attributes the agent gives). Each session has its own multi-threaded loop; its requests go to
// the SILO's handlers in the core.
//
// Unmounting: umount2 without flags, so the kernel itself says whether the mount is busy (open files,
// current directories, processes inside a call): EBUSY leaves everything as it was. After a successful
// unmount the kernel ends the session and its loop is joined. A lazy unmount (end of a view) detaches
// the mount; a session still serving users of the detached mount keeps its SILO alive and ends by
// itself when the kernel lets go.
//
// Notifier: one thread per mounter performs the invalidations the core plans, outside every request
// handler (a notification sent from inside a request can wait on a lock that request holds). Errors
// (an inode the kernel no longer knows) are ignored.
#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "kfsmd/core/kfsmd_mount.h"

struct Kfsmd_Fuse_State;

class Kfsmd_Fuse_Mounter : public Kfsmd_Mounter {
 public:
  Kfsmd_Fuse_Mounter();
  ~Kfsmd_Fuse_Mounter() override;
  int mount(const std::shared_ptr<Kfsmd_Silo>& silo, std::unique_ptr<Kfsmd_Mount>* out) override;

  // Queues invalidations of one session.
  void post(std::shared_ptr<Kfsmd_Fuse_State> state, std::vector<Kfsmd_Action> actions);
  // Waits until the notifier has performed everything queued so far (tests).
  void drain();

 private:
  void notifier_loop();

  std::mutex m_mutex;  // guards m_queue, m_stop, m_busy
  std::condition_variable m_cv;
  std::deque<std::pair<std::shared_ptr<Kfsmd_Fuse_State>, std::vector<Kfsmd_Action>>> m_queue;
  bool m_stop = false;
  bool m_busy = false;
  std::thread m_thread;
};

// True when a FUSE file system can be mounted here (probes a mount on a temporary directory); when
// not, `why` says what failed.
bool kfsmd_fuse_available(std::string* why);
