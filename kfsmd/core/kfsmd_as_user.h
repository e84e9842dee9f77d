// Kfsmd_As_User: for its lifetime, the calling thread reaches the file system with the file-system
// identity of a view's owner (fsuid, fsgid, and the owner's group as its only supplementary group),
// so that the daemon, which runs as root, opens cleartext and view-private files with exactly the
// rights of the agent that named them. Only the calling thread changes (raw system calls, not the
// process-wide library wrappers); the destructor restores it. With uid 0 nothing changes.
#pragma once

#include <sys/types.h>

#include <vector>

class Kfsmd_As_User {
 public:
  Kfsmd_As_User(uid_t uid, gid_t gid);
  ~Kfsmd_As_User();
  Kfsmd_As_User(const Kfsmd_As_User&) = delete;
  Kfsmd_As_User& operator=(const Kfsmd_As_User&) = delete;
  // False when the identity could not be taken (then nothing was changed and callers must not go on).
  bool ok() const { return m_ok; }

 private:
  bool m_active = false;
  bool m_ok = true;
  std::vector<gid_t> m_groups;
};
