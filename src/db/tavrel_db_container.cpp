// The container pool: start, names, container files and lost+found (see tavrel_db_container.h).
#include "db/tavrel_db_container.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "base/fileutl.h"
#include "base/imsg.h"
#include "base/pfm.h"
#include "base/stg.h"
#include "core/tavrel_trace.h"

namespace {

// Set by tavrel_storage_init; read afterwards (see the header).
std::string g_storage_pool;  // storage_pool
size_t g_max_leaf_len = 0;   // max_leaf_len
int g_pool_fd = -1;          // the pool directory, open read-only
std::mutex g_init_lock;      // serialises tavrel_storage_init against itself only

// The process's container sequence; 0 until first use, then time(NULL) onwards.
std::atomic<uint32_t> g_sequence{0};

uint32_t next_sequence() {
  uint32_t cur = g_sequence.load();
  if (cur == 0) {
    uint32_t start = static_cast<uint32_t>(time(nullptr));
    g_sequence.compare_exchange_strong(cur, start);
  }
  return g_sequence.fetch_add(1);
}

// FNV-1a over the identity's bytes: spreads containers evenly over the buckets.
uint32_t oid_hash32(const tbs_oid_s& oid) {
  uint32_t h = 2166136261u;
  for (uint8_t b : oid.bytes) h = (h ^ b) * 16777619u;
  return h;
}

// The name limit of the file system under `fd`, measured when the system does not say.
long measure_name_max(int fd, const std::string& pool) {
  errno = 0;
  long limit = fpathconf(fd, _PC_NAME_MAX);
  if (limit > 0) return limit;
  if (errno != EINVAL && errno != ENOTSUP && errno != ENOSYS && errno != 0) return 14;
  const std::string probe = pool + "/" + std::string(255, 't');
  int pfd = open(probe.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0700);
  if (pfd < 0) return errno == ENAMETOOLONG ? 14 : 255;
  close(pfd);
  // A system that cuts long names silently has made the file under its first 14 characters.
  struct stat st;
  const std::string cut = pool + "/" + std::string(14, 't');
  long found = 255;
  if (stat(cut.c_str(), &st) == 0) {
    found = 14;
    unlink(cut.c_str());
  }
  unlink(probe.c_str());
  return found;
}

// Statuses of failed file operations and the errno each stands for; the first of an errno wins.
const struct {
  int status, err;
} kErrnoStatus[] = {
    {TBS_ST_NOT_FOUND, ENOENT},       {TBS_ST_NO_PERMISSION, EACCES}, {TBS_ST_NO_PERMISSION, EPERM},
    {TBS_ST_EXISTS, EEXIST},          {TBS_ST_NOT_EMPTY, ENOTEMPTY},  {TBS_ST_TOO_LONG, ENAMETOOLONG},
    {TBS_ST_NO_ROOM, ENOMEM},         {TBS_ST_NO_ROOM, ENOSPC},       {TBS_ST_NOT_DIR, ENOTDIR},
    {TBS_ST_IS_DIR, EISDIR},          {TBS_ST_BAD_ARG, EINVAL},       {TBS_ST_NOT_ALLOWED, EROFS},
    {TBS_ST_CROSS_SILO, EXDEV},       {TBS_ST_BUSY, EBUSY},           {TBS_ST_STALE, ESTALE},
    {TBS_ST_INTERNAL, EIO},
};

int errno_status(int err) { return tavrel_storage_errno_status(err); }

bool same_file(const struct stat& a, const struct stat& b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

// Creates the object `path` (a file, or a directory with `dir`) with `mode`, for the agent's user and
// the group of `creds`. -1 with errno on failure; nothing is left behind then.
int server_create_fsobj(const std::string& path, const credutl_creds_t& creds, mode_t mode, int dir) {
  if (dir) {
    if (mkdir(path.c_str(), mode) != 0) return -1;
  } else {
    int fd = open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, mode);
    if (fd < 0) return -1;
    close(fd);
  }
  // The umask does not apply to a container: its mode is the one asked for, in the caller's group.
  if ((creds.gid != static_cast<gid_t>(-1) && creds.gid != getegid() && lchown(path.c_str(), -1, creds.gid) != 0) ||
      chmod(path.c_str(), mode) != 0) {
    int err = errno;
    if (dir) rmdir(path.c_str());
    else unlink(path.c_str());
    errno = err;
    return -1;
  }
  return 0;
}

}  // namespace

int tavrel_storage_errno_status(int err) {
  for (const auto& e : kErrnoStatus)
    if (e.err == err) return e.status;
  return err == 0 ? TBS_ST_INTERNAL : TBS_ST_FAILURE;
}

std::string tavrel_db_status_text(int status) {
  for (const auto& e : kErrnoStatus)
    if (e.status == status) return strerror(e.err);
  return "status " + std::to_string(status);
}

// ---- the pool ----------------------------------------------------------------------------------------------

int tavrel_storage_init() { return tavrel_storage_init_at(TAVREL_STORAGE_POOL, "."); }

int tavrel_storage_init_at(const std::string& pool, const std::string& view_dir) {
  std::lock_guard<std::mutex> g(g_init_lock);
  if (mkdir(pool.c_str(), 0777) != 0 && errno != EEXIST) {
    imsg_print(IMSG_ERR, "Unable to create storage pool %s: %s\n", pool.c_str(), strerror(errno));
    return errno_status(errno);
  }
  for (int i = 0; i < TAVREL_STORAGE_BUCKETS; i++) {
    char bucket[PATH_MAX];
    snprintf(bucket, sizeof bucket, "%s%c%05d", pool.c_str(), '/', i);
    if (mkdir(bucket, 0777) != 0 && errno != EEXIST) {
      imsg_print(IMSG_ERR, "Unable to create storage pool %s: %s\n", bucket, strerror(errno));
      return errno_status(errno);
    }
  }
  int fd = open(pool.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    imsg_print(IMSG_ERR, "Unable to open storage pool %s: %s\n", pool.c_str(), strerror(errno));
    return errno_status(errno);
  }
  struct stat pool_st, view_st;
  if (fstat(fd, &pool_st) != 0 || stat(view_dir.c_str(), &view_st) != 0) {
    int err = errno;
    close(fd);
    imsg_print(IMSG_ERR, "Unable to stat storage pool %s: %s\n", pool.c_str(), strerror(err));
    return errno_status(err);
  }
  if (same_file(pool_st, view_st)) {
    close(fd);
    imsg_print(IMSG_ERR, "Storage pool %s is the view directory itself\n", pool.c_str());
    return TBS_ST_BAD_ARG;
  }
  long limit = measure_name_max(fd, pool);
  if (g_pool_fd >= 0) close(g_pool_fd);
  g_pool_fd = fd;
  // The bucket prefix "NNNNN/" and the terminating NUL come on top of the leaf.
  g_max_leaf_len = static_cast<size_t>(limit) + 7;
  g_storage_pool = fileutl_abspn(pool);
  return 0;
}

const std::string& tavrel_storage_pool() { return g_storage_pool; }
size_t tavrel_storage_max_leaf_len() { return g_max_leaf_len; }

std::string tavrel_storage_path(const std::string& name) {
  if (!name.empty() && name[0] == '/') return name;
  return (g_storage_pool.empty() ? std::string(TAVREL_STORAGE_POOL) : g_storage_pool) + "/" + name;
}

// ---- container names ------------------------------------------------------------------------------------------

int tavrel_storage_create(const tbs_oid_s& oid, const tbs_oid_s& elem_oid, const char* suffix, uint32_t id,
                          char* buffer, size_t size) {
  if (size <= 20) {
    errno = ENAMETOOLONG;
    return -1;
  }
  const tbs_oid_s& key = tbs_oid_is_null(oid) ? elem_oid : oid;
  size_t limit = g_max_leaf_len != 0 && g_max_leaf_len < size ? g_max_leaf_len : size;
  snprintf(buffer, limit, "%05ld%c%08x%06x%s", static_cast<long>(oid_hash32(key) % TAVREL_STORAGE_BUCKETS), '/',
           id, next_sequence(), suffix ? suffix : "");
  size_t len = strlen(buffer);
  if (len > 0 && buffer[len - 1] == '.') buffer[len - 1] = '!';
  const std::string full = tavrel_storage_path(buffer);
  struct stat st;
  if (stat(full.c_str(), &st) == 0) {
    errno = EEXIST;
    return -1;
  }
  if (errno != ENOENT) {
    int err = errno;
    imsg_print(IMSG_ERR, "Unable to stat %s: %s\n", full.c_str(), strerror(err));
    errno = err;
    return -1;
  }
  return 0;
}

// ---- container files ------------------------------------------------------------------------------------------

int tavrel_storage_remove(const std::string& path) {
  const std::string full = tavrel_storage_path(path);
  if (unlink(full.c_str()) == 0) return 0;
  if (errno != ENOENT) {
    // A remote file system may answer from a stale view of the directory: look again once.
    const std::string dir = fileutl_strip_leaf(full);
    int dfd = open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd >= 0) {
      fsync(dfd);
      close(dfd);
    }
    if (unlink(full.c_str()) == 0) return 0;
  }
  int err = errno;
  if (err == ENOENT) return 0;
  if (err == EACCES || err == EPERM) {
    Tavrel_Trace trace(TAVREL_DB, "tavrel_storage", "tavrel_storage_remove");
    if (trace.shouldTrace(TRACE_LEVEL_1)) trace.writeTrace("unable to remove %s: %s\n", full.c_str(), strerror(err));
    return TBS_ST_NO_PERMISSION;
  }
  imsg_print(IMSG_ERR, "Unable to remove %s: %s\n", full.c_str(), strerror(err));
  return errno_status(err);
}

int tavrel_storage_remove_dir(const std::string& path) {
  const std::string full = tavrel_storage_path(path);
  if (rmdir(full.c_str()) == 0 || errno == ENOENT) return 0;
  int err = errno;
  if (err == EACCES || err == EPERM) return TBS_ST_NO_PERMISSION;
  imsg_print(IMSG_ERR, "Unable to remove %s: %s\n", full.c_str(), strerror(err));
  return errno_status(err);
}

int tavrel_storage_create_container(const std::string& path, int uniquify, long ftype, const credutl_creds_t& creds,
                                    mode_t mode, char** actual) {
  if (ftype != 1 && ftype != 2) {
    imsg_print(IMSG_ERR, "Unexpected file type(%ld) on %s\n", ftype, path.c_str());
    return TBS_ST_BAD_ARG;
  }
  // Set-id and sticky bits are not handed to a group of others.
  if (mode & 0x100) mode &= ~static_cast<mode_t>(0x0e00);
  std::string name = path;
  for (int n = 1;; n++) {
    if (server_create_fsobj(tavrel_storage_path(name), creds, mode, ftype == 2) == 0) break;
    int err = errno;
    if (err != EEXIST) {
      imsg_print(IMSG_ERR, "Unable to create container %s: %s\n", name.c_str(), strerror(err));
      return errno_status(err);
    }
    if (!uniquify) return TBS_ST_EXISTS;
    name = path + "." + std::to_string(n);
  }
  if (actual != nullptr) *actual = stg_strdup(name.c_str());
  return 0;
}

int tavrel_storage_remove_container(const std::string& path) {
  const std::string full = tavrel_storage_path(path);
  struct stat st;
  if (lstat(full.c_str(), &st) != 0) return errno == ENOENT ? 0 : errno_status(errno);
  int rc;
  if (S_ISDIR(st.st_mode)) rc = fileutl_rm_tree(full);
  else if (S_ISREG(st.st_mode) || S_ISLNK(st.st_mode)) rc = unlink(full.c_str());
  else return TBS_ST_BAD_ARG;
  if (rc != 0) {
    int err = errno;
    imsg_print(IMSG_ERR, "Unable to remove container %s: %s\n", full.c_str(), strerror(err));
    return errno_status(err);
  }
  return 0;
}

int validate_pname(const std::string& path) {
  if (path.empty() || path[0] == '/') return TBS_ST_NO_PERMISSION;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    if (path.compare(start, end - start, "..") == 0 && end - start == 2) return TBS_ST_NO_PERMISSION;
    start = end + 1;
  }
  return 0;
}

int tavrel_storage_rename_container(const std::string& from, const std::string& to) {
  int st = validate_pname(to);
  if (st != 0) return st;
  const std::string src = tavrel_storage_path(from), dst = tavrel_storage_path(to);
  struct stat s;
  if (lstat(src.c_str(), &s) != 0) return errno_status(errno);
  if (lstat(dst.c_str(), &s) == 0) return TBS_ST_EXISTS;
  if (errno != ENOENT) return errno_status(errno);
  if (utime(src.c_str(), nullptr) != 0 || rename(src.c_str(), dst.c_str()) != 0) {
    int err = errno;
    imsg_print(IMSG_ERR, "Unable to rename %s to %s: %s\n", src.c_str(), dst.c_str(), strerror(err));
    return errno_status(err);
  }
  return 0;
}

int tavrel_storage_replace_container(const std::string& from, const std::string& to) {
  const std::string src = tavrel_storage_path(from), dst = tavrel_storage_path(to);
  struct stat fs, ts;
  if (lstat(src.c_str(), &fs) != 0) return errno_status(errno);
  const bool exists = lstat(dst.c_str(), &ts) == 0;
  if (exists && (fs.st_mode & S_IFMT) != (ts.st_mode & S_IFMT)) return TBS_ST_BAD_ARG;
  pfm_inhibit();
  int st = exists ? tavrel_storage_remove_container(to) : 0;
  if (st == 0 && rename(src.c_str(), dst.c_str()) != 0) {
    int err = errno;
    imsg_print(IMSG_ERR, "Unable to rename %s to %s: %s\n", src.c_str(), dst.c_str(), strerror(err));
    st = errno_status(err);
  }
  pfm_enable();
  return st;
}

int tavrel_storage_protect_container(const std::string& path, const credutl_creds_t& creds, mode_t mode) {
  const std::string full = tavrel_storage_path(path);
  if (creds.gid != static_cast<gid_t>(-1) && lchown(full.c_str(), -1, creds.gid) != 0) return errno_status(errno);
  if (chmod(full.c_str(), mode) != 0) return errno_status(errno);
  return 0;
}

int tavrel_storage_fstat_container(const std::string& path, struct stat* st) {
  if (lstat(tavrel_storage_path(path).c_str(), st) != 0) return errno_status(errno);
  return 0;
}

// ---- lost+found --------------------------------------------------------------------------------------------------

int move_to_lost_and_found_at(const std::string& pool, const std::string& path, std::string* out) {
  out->clear();
  const std::string dir = pool + "/" + TAVREL_STORAGE_LOST_FOUND;
  if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    imsg_print(IMSG_ERR, "Unable to create %s: %s\n", dir.c_str(), strerror(errno));
    return TBS_ST_INTERNAL;
  }
  size_t slash = path.rfind('/');
  std::string target = dir + "/" + (slash == std::string::npos ? path : path.substr(slash + 1));
  struct stat st;
  if (lstat(target.c_str(), &st) == 0) target = dir + "/" + tbs_uuid_to_str(tbs_uuid_create());
  if (rename(path.c_str(), target.c_str()) != 0) {
    int err = errno;
    if (err == ENOENT) return TBS_ST_NO_SUCH_NAME;
    if (err == ENAMETOOLONG) return TBS_ST_TOO_LONG;
    imsg_print(IMSG_ERR, "Unable to move %s to %s: %s\n", path.c_str(), target.c_str(), strerror(err));
    return TBS_ST_INTERNAL;
  }
  *out = target;
  return 0;
}

int move_to_lost_and_found(const std::string& path, char* out, size_t size) {
  if (out != nullptr && size > 0) out[0] = '\0';
  std::string moved;
  const std::string pool = g_storage_pool.empty() ? std::string(TAVREL_STORAGE_POOL) : g_storage_pool;
  // The longest target: the leaf, or a UUID's 36 characters in its place. Checked before the move, so
  // that a caller told 1084 finds the file where it was.
  const size_t slash = path.rfind('/');
  const size_t leaf = slash == std::string::npos ? path.size() : path.size() - slash - 1;
  const size_t longest = pool.size() + strlen(TAVREL_STORAGE_LOST_FOUND) + 2 + std::max<size_t>(leaf, 36);
  if (out != nullptr && longest >= size) return TBS_ST_TOO_LONG;
  int st = move_to_lost_and_found_at(pool, tavrel_storage_path(path), &moved);
  if (st != 0) return st;
  if (out != nullptr) memcpy(out, moved.c_str(), moved.size() + 1);
  return 0;
}
