#include "base/fileutl.h"

#include <dirent.h>

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/sysutl.h"

int fileutl_mkpath(const std::string& path, mode_t mode) {
  if (path.empty()) {
    errno = ENOENT;
    return -1;
  }
  std::string cur;
  size_t pos = 0;
  while (pos <= path.size()) {
    size_t next = path.find('/', pos);
    if (next == std::string::npos) next = path.size();
    cur = path.substr(0, next);
    pos = next + 1;
    if (cur.empty()) continue;  // leading slash
    if (mkdir(cur.c_str(), mode) != 0) {
      if (errno != EEXIST) return -1;
      struct stat st;
      if (stat(cur.c_str(), &st) != 0) return -1;
      if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return -1;
      }
    }
  }
  return 0;
}

int fileutl_stat(const std::string& path, struct stat* st) { return stat(path.c_str(), st) == 0 ? 0 : -1; }

bool fileutl_exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

int fileutl_rm(const std::string& path) {
  if (unlink(path.c_str()) == 0 || errno == ENOENT) return 0;
  return -1;
}

namespace {

// Empties the directory open as `dfd` (which it closes).
int rm_tree_at(int dfd) {
  DIR* d = fdopendir(dfd);
  if (!d) {
    close(dfd);
    return -1;
  }
  int rc = 0;
  while (struct dirent* e = readdir(d)) {
    if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
    if (unlinkat(dirfd(d), e->d_name, 0) == 0 || errno == ENOENT) continue;
    if (errno != EISDIR && errno != EPERM) {
      rc = -1;
      break;
    }
    int sub = openat(dirfd(d), e->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (sub < 0 || rm_tree_at(sub) != 0 || unlinkat(dirfd(d), e->d_name, AT_REMOVEDIR) != 0) {
      rc = -1;
      break;
    }
  }
  int e = errno;
  closedir(d);
  errno = e;
  return rc;
}

}  // namespace

int fileutl_rm_tree(const std::string& path) {
  if (unlink(path.c_str()) == 0 || errno == ENOENT) return 0;
  if (errno != EISDIR && errno != EPERM) return -1;
  int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return -1;
  if (rm_tree_at(fd) != 0) return -1;
  return rmdir(path.c_str()) == 0 ? 0 : -1;
}

int fileutl_rename(const std::string& from, const std::string& to) {
  return rename(from.c_str(), to.c_str()) == 0 ? 0 : -1;
}

int fileutl_rename_noreplace(const std::string& from, const std::string& to) {
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS && errno != ENOTSUP) return -1;
  // A file system without the flag: a hard link fails with EEXIST just as well.
  if (link(from.c_str(), to.c_str()) != 0) return -1;
  unlink(from.c_str());
  return 0;
}

int fileutl_tmpfile_ext_binary(const std::string& dir, const std::string& prefix, std::string* path) {
  std::string tmpl = (dir.empty() ? std::string(".") : dir) + "/" + prefix + "XXXXXX";
  std::vector<char> name(tmpl.begin(), tmpl.end());
  name.push_back('\0');
  int fd = mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0) return -1;
  path->assign(name.data());
  return fd;
}

int fileutl_cp(const std::string& from, const std::string& to) {
  int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) return -1;
  struct stat st;
  if (fstat(in, &st) != 0 || !S_ISREG(st.st_mode)) {
    int e = errno ? errno : EINVAL;
    close(in);
    errno = e;
    return -1;
  }
  std::string tmp = to + ".tmpXXXXXX";
  std::vector<char> name(tmp.begin(), tmp.end());
  name.push_back('\0');
  int out = mkstemp(name.data());
  if (out < 0) {
    int e = errno;
    close(in);
    errno = e;
    return -1;
  }
  char buf[65536];
  int rc = 0;
  for (;;) {
    ssize_t n = read(in, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      rc = -1;
      break;
    }
    if (n == 0) break;
    if (sysutl_write_all(out, buf, static_cast<size_t>(n)) < 0) {
      rc = -1;
      break;
    }
  }
  int e = errno;
  if (rc == 0 && (fchmod(out, st.st_mode & 07777) != 0 || fsync(out) != 0)) rc = -1, e = errno;
  close(in);
  if (close(out) != 0 && rc == 0) rc = -1, e = errno;
  if (rc == 0 && rename(name.data(), to.c_str()) != 0) rc = -1, e = errno;
  if (rc != 0) {
    unlink(name.data());
    errno = e;
  }
  return rc;
}

std::string fileutl_strip_leaf(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return "";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string fileutl_abspn(const std::string& path) {
  std::string full = path;
  if (full.empty() || full[0] != '/') {
    char cwd[PATH_MAX];
    if (!getcwd(cwd, sizeof cwd)) return "";
    full = std::string(cwd) + "/" + full;
  }
  std::vector<std::string> parts;
  size_t pos = 0;
  while (pos < full.size()) {
    size_t next = full.find('/', pos);
    if (next == std::string::npos) next = full.size();
    std::string comp = full.substr(pos, next - pos);
    pos = next + 1;
    if (comp.empty() || comp == ".") continue;
    if (comp == "..") {
      if (!parts.empty()) parts.pop_back();
      continue;
    }
    parts.push_back(comp);
  }
  std::string out;
  for (const auto& p : parts) out += "/" + p;
  return out.empty() ? "/" : out;
}

bool fileutl_pname_equal_or_parent(const std::string& parent, const std::string& path) {
  if (parent.empty()) return false;
  std::string p = parent;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  if (path == p) return true;
  if (p == "/") return !path.empty() && path[0] == '/';
  return path.size() > p.size() && path.compare(0, p.size(), p) == 0 && path[p.size()] == '/';
}

int fileutl_write_atomic(const std::string& path, const std::string& data, mode_t mode) {
  std::string tmp = path + ".tmpXXXXXX";
  std::vector<char> name(tmp.begin(), tmp.end());
  name.push_back('\0');
  int fd = mkstemp(name.data());
  if (fd < 0) return -1;
  int e = 0;
  if (fchmod(fd, mode) != 0 || sysutl_write_all(fd, data.data(), data.size()) < 0 || fsync(fd) != 0) e = errno;
  if (close(fd) != 0 && !e) e = errno;
  if (!e && rename(name.data(), path.c_str()) != 0) e = errno;
  if (e) {
    unlink(name.data());
    errno = e;
    return -1;
  }
  const std::string dir = fileutl_strip_leaf(path);
  int dfd = open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dfd >= 0) {
    fsync(dfd);
    close(dfd);
  }
  return 0;
}

int fileutl_read_file(const std::string& path, std::string* out, size_t limit) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  out->clear();
  char buf[65536];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      int e = errno;
      close(fd);
      errno = e;
      return -1;
    }
    if (n == 0) break;
    if (out->size() + static_cast<size_t>(n) > limit) {
      close(fd);
      errno = EFBIG;
      return -1;
    }
    out->append(buf, static_cast<size_t>(n));
  }
  close(fd);
  return 0;
}

uint32_t fileutl_crc_buffer(const void* data, size_t len) {
  static const auto table = [] {
    std::array<uint32_t, 256> t{};
    for (uint32_t i = 0; i < 256; i++) {
      uint32_t c = i;
      for (int k = 0; k < 8; k++) c = (c & 1) ? 0xedb88320u ^ (c >> 1) : c >> 1;
      t[i] = c;
    }
    return t;
  }();
  const auto* p = static_cast<const uint8_t*>(data);
  uint32_t crc = 0xffffffffu;
  for (size_t i = 0; i < len; i++) crc = table[(crc ^ p[i]) & 0xff] ^ (crc >> 8);
  return crc ^ 0xffffffffu;
}
