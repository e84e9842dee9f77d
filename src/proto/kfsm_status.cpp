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
    {TBS_ST_NOT_FOUND, ENOENT},        {TBS_ST_FAILURE, EIO},
    {TBS_ST_NO_ROOM, ENOMEM},          {TBS_ST_STALE, ESTALE},
    {TBS_ST_NOT_SUPPORTED, EOPNOTSUPP}, {TBS_ST_INTERNAL, EIO},
    {TBS_ST_NO_RESOURCES, ENOMEM},     {TBS_ST_NO_VIEW, ENOENT},
    {TBS_ST_REFUSED, ENOENT},          {TBS_ST_NO_OBJECT, ENOENT},
    {TBS_ST_CONTAINER, EIO},           {TBS_ST_UNKNOWN_SILO, ENOENT},
    {TBS_ST_DB_NOT_WRITABLE, EAGAIN},  {TBS_ST_REVALIDATE, ESTALE},
    {TBS_ST_VIEW_GONE, ENOTCONN},      {TBS_ST_NOT_OWNER, EPERM},
    {TBS_ST_NO_SUCH_NAME, ENOENT},     {TBS_ST_NO_PERMISSION, EACCES},
    {TBS_ST_EXISTS, EEXIST},           {TBS_ST_CROSS_SILO, EXDEV},
    {TBS_ST_NOT_DIR, ENOTDIR},         {TBS_ST_IS_DIR, EISDIR},
    {TBS_ST_BAD_ARG, EINVAL},          {TBS_ST_NOT_ALLOWED, EROFS},
    {TBS_ST_LOOP, ELOOP},              {TBS_ST_TOO_LONG, ENAMETOOLONG},
    {TBS_ST_NOT_EMPTY, ENOTEMPTY},     {TBS_ST_BUSY, EBUSY},
    {KFSM_ST_TOO_MANY_CONNECTIONS, EAGAIN},
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
  return TBS_ST_FAILURE;
}

const char* tbs_strerror(tbs_status_t status) {
  if (status == KFSM_ST_TOO_MANY_CONNECTIONS) return "too many connections to the module daemon";
  return strerror(tbs_status2errno(status));
}
