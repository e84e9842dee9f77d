#include "kfsmd/core/kfsmd_as_user.h"

#include <sys/fsuid.h>
#include <sys/syscall.h>
#include <unistd.h>

Kfsmd_As_User::Kfsmd_As_User(uid_t uid, gid_t gid) {
  if (uid == 0 || geteuid() != 0) return;
  int n = getgroups(0, nullptr);
  if (n < 0) {
    m_ok = false;
    return;
  }
  m_groups.resize(static_cast<size_t>(n));
  if (n > 0 && getgroups(n, m_groups.data()) != n) {
    m_ok = false;
    return;
  }
  gid_t one = gid;
  if (syscall(SYS_setgroups, 1, &one) != 0) {
    m_ok = false;
    return;
  }
  syscall(SYS_setfsgid, gid);
  syscall(SYS_setfsuid, uid);
  // setfs* report the previous value; read back to see whether the change took.
  if (static_cast<uid_t>(syscall(SYS_setfsuid, -1)) != uid || static_cast<gid_t>(syscall(SYS_setfsgid, -1)) != gid)
    m_ok = false;
  m_active = true;
}

Kfsmd_As_User::~Kfsmd_As_User() {
  if (!m_active) return;
  syscall(SYS_setfsuid, 0);
  syscall(SYS_setfsgid, 0);
  syscall(SYS_setgroups, m_groups.size(), m_groups.data());
}
