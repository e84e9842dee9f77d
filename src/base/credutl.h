// credutl: the credentials a process acts with.
//
// credutl_get_sid_credentials reads the effective user and group of the calling process, which own
// what the process creates (the view storage and the files in it).
#pragma once

#include <sys/types.h>

struct credutl_creds_t {
  uid_t uid = static_cast<uid_t>(-1);
  gid_t gid = static_cast<gid_t>(-1);
};

// Fills *out with the effective user and group. 0, or -1 with errno kept.
int credutl_get_sid_credentials(credutl_creds_t* out);
