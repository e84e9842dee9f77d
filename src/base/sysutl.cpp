#include "base/sysutl.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <mutex>
#include <vector>

int sysutl_pipe(int fds[2]) { return pipe(fds) == 0 ? KS_ST_OK : KS_ST_ERR; }

void sysutl_pipe_close(int fd) {
  if (fd >= 0) close(fd);
}

int sysutl_set_cloexec_file(int fd) {
  int flags = fcntl(fd, F_GETFD);
  if (flags < 0) return KS_ST_ERR;
  return fcntl(fd, F_SETFD, flags | FD_CLOEXEC) == 0 ? KS_ST_OK : KS_ST_ERR;
}

int sysutl_set_nonblocking(int fd, bool on) {
  int flags = fcntl(fd, F_GETFL);
  if (flags < 0) return KS_ST_ERR;
  flags = on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  return fcntl(fd, F_SETFL, flags) == 0 ? KS_ST_OK : KS_ST_ERR;
}

int sysutl_get_umask(mode_t* mask) {
  // umask can only be read by setting it; put the old value straight back.
  mode_t old = umask(022);
  umask(old);
  *mask = old;
  return KS_ST_OK;
}

int sysutl_initialize_umask(bool /*force*/, mode_t mask) {
  umask(mask & 0777);
  return KS_ST_OK;
}

const char* sysutl_myhostname() {
  static std::once_flag once;
  static char name[HOST_NAME_MAX + 1];
  std::call_once(once, [] {
    if (gethostname(name, sizeof(name)) != 0) name[0] = '\0';
    name[HOST_NAME_MAX] = '\0';
  });
  return name;
}

namespace {
bool passwd_entry(std::string* login, std::string* home) {
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  if (size < 1024) size = 16384;
  std::vector<char> buf(static_cast<size_t>(size));
  struct passwd pw, *result = nullptr;
  if (getpwuid_r(geteuid(), &pw, buf.data(), buf.size(), &result) != 0 || !result) return false;
  if (login) *login = pw.pw_name ? pw.pw_name : "";
  if (home) *home = pw.pw_dir ? pw.pw_dir : "";
  return true;
}
}  // namespace

std::string sysutl_myloginname() {
  std::string login;
  if (!passwd_entry(&login, nullptr)) return "";
  return login;
}

std::string sysutl_get_homedir() {
  const char* env = getenv("HOME");
  if (env && *env) return env;
  std::string home;
  if (!passwd_entry(nullptr, &home)) return "";
  return home;
}

ssize_t sysutl_write_all(int fd, const void* buf, size_t len) {
  const char* p = static_cast<const char*>(buf);
  size_t done = 0;
  while (done < len) {
    ssize_t n = write(fd, p + done, len - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}
