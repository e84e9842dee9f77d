// One table between the statuses of the 1000 range and errno values, shared by the agent's kernel
// channel and the module daemon, so that a status turned into an errno on one side comes back as the
// same status on the other.
//
//   0 <-> 0          1001 EIO          1002 ENOENT       1007 EOPNOTSUPP   1008 EIO
//   1009 ENOMEM      1011 ENOENT       1013 ENOENT       1014 ENOENT       1015 EIO
//   1016 ENOENT      1022 EAGAIN       1033 ESTALE       1046 ENOTCONN     1051 EPERM
//   1052 ENOENT      1062 ENOMEM       1063 EACCES       1067 EEXIST       1068 EXDEV
//   1070 ENOTDIR     1071 EISDIR       1072 EINVAL       1080 EROFS        1083 ELOOP
//   1084 ENAMETOOLONG 1085 ENOTEMPTY   1087 ESTALE       1088 EBUSY        1089 EAGAIN
//   other EIO
//
// tbs_errno2status is the inverse: where several statuses share an errno the first of the table wins
// (ENOENT 1002, EIO 1001, ENOMEM 1062, ESTALE 1087); an errno not in the table gives 1001.
#pragma once

#include "base/tbs.h"

// The module daemon's answer (in HELLO_OK) to a connection it refuses because the caller's user, or all
// users together, hold as many connections as it allows. EAGAIN: the cap frees as connections close.
constexpr tbs_status_t KFSM_ST_TOO_MANY_CONNECTIONS = 1089;

int tbs_status2errno(tbs_status_t status);
tbs_status_t tbs_errno2status(int err);
// A short text for a status of the 1000 range: the text of its errno ("Success" for 0), or for 1089
// "too many connections to the module daemon".
const char* tbs_strerror(tbs_status_t status);
