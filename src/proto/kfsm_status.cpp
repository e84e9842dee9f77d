#include "proto/kfsm_status.h"

#include <cerrno>
#include <cstring>

namespace {

struct Pair {
  tbs_status_t status;
  int err;
};

// Order matters for the inverse: the first status of an errno is the one tbs_errno2status gives.
constexpr Pair kTable[] = {
    {1002, ENOENT},   {1001, EIO},        {1062, ENOMEM},    {1087, ESTALE},     {1007, EOPNOTSUPP},
    {1008, EIO},      {1009, ENOMEM},     {1011, ENOENT},    {1013, ENOENT},     {1014, ENOENT},
    {1015, EIO},      {1016, ENOENT},     {1022, EAGAIN},    {1033, ESTALE},     {1046, ENOTCONN},
    {1051, EPERM},    {1052, ENOENT},     {1063, EACCES},    {1067, EEXIST},     {1068, EXDEV},
    {1070, ENOTDIR},  {1071, EISDIR},     {1072, EINVAL},    {1080, EROFS},      {1083, ELOOP},
    {1084, ENAMETOOLONG}, {1085, ENOTEMPTY}, {1088, EBUSY},
};

}  // namespace

int tbs_status2errno(tbs_status_t status) {
  if (status == 0) return 0;
  for (const Pair& p : kTable)
    if (p.status == status) return p.err;
  return EIO;
}

tbs_status_t tbs_errno2status(int err) {
  if (err == 0) return 0;
  for (const Pair& p : kTable)
    if (p.err == err) return p.status;
  return 1001;
}

const char* tbs_strerror(tbs_status_t status) { return strerror(tbs_status2errno(status)); }
