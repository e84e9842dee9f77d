#include "base/credutl.h"

#include <unistd.h>

#include <cerrno>

int credutl_get_sid_credentials(credutl_creds_t* out) {
  if (!out) {
    errno = EINVAL;
    return -1;
  }
  uid_t ruid, euid, suid;
  gid_t rgid, egid, sgid;
  if (getresuid(&ruid, &euid, &suid) != 0 || getresgid(&rgid, &egid, &sgid) != 0) return -1;
  out->uid = euid;
  out->gid = egid;
  return 0;
}
