#include "base/server.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "base/fileutl.h"
#include "base/strutl.h"

int server_lock_set(const std::string& path, pid_t* owner_pid) {
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return -1;
  struct flock fl = {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  if (fcntl(fd, F_SETLK, &fl) != 0) {
    int e = errno;
    if (e == EACCES || e == EAGAIN) {
      struct flock q = {};
      q.l_type = F_WRLCK;
      q.l_whence = SEEK_SET;
      if (owner_pid) *owner_pid = (fcntl(fd, F_GETLK, &q) == 0 && q.l_type != F_UNLCK) ? q.l_pid : 0;
      close(fd);
      return -2;
    }
    close(fd);
    errno = e;
    return -1;
  }
  std::string text = std::to_string(getpid()) + "\n";
  if (ftruncate(fd, 0) != 0 || pwrite(fd, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
    int e = errno;
    close(fd);
    errno = e;
    return -1;
  }
  fsync(fd);
  return fd;
}

int server_lock_clear(const std::string& /*path*/, int cookie) {
  if (cookie < 0) {
    errno = EBADF;
    return -1;
  }
  struct flock fl = {};
  fl.l_type = F_UNLCK;
  fl.l_whence = SEEK_SET;
  fcntl(cookie, F_SETLK, &fl);
  return close(cookie) == 0 ? 0 : -1;
}

pid_t server_lock_holder(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return errno == ENOENT ? 0 : -1;
  struct flock q = {};
  q.l_type = F_WRLCK;
  q.l_whence = SEEK_SET;
  pid_t r = -1;
  if (fcntl(fd, F_GETLK, &q) == 0) r = q.l_type == F_UNLCK ? 0 : q.l_pid;
  close(fd);  // we never hold the lock here, so closing is harmless
  return r;
}

int server_create_hostname_file(const std::string& dir, const std::string& host, const credutl_creds_t& owner) {
  const std::string path = dir + "/" SERVER_HOSTNAME_FILE;
  if (fileutl_write_atomic(path, host + "\n", 0600) != 0) return -1;
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return -1;
  struct stat st;
  int rc = fstat(fd, &st);
  if (rc == 0 && (st.st_uid != owner.uid || st.st_gid != owner.gid)) rc = fchown(fd, owner.uid, owner.gid);
  int e = errno;
  close(fd);
  errno = e;
  return rc == 0 ? 0 : -1;
}

int server_validate_hostname(const std::string& dir, const std::string& host, std::string* recorded) {
  std::string text;
  if (fileutl_read_file(dir + "/" SERVER_HOSTNAME_FILE, &text, 4096) != 0) return -1;
  if (!text.empty() && text.back() == '\n') text.pop_back();
  if (recorded) *recorded = text;
  return text == host ? 1 : 0;
}
