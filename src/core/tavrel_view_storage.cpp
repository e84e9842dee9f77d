#include "core/tavrel_view_storage.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <mutex>

#include "base/fileutl.h"
#include "base/tavrel_mutex.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"

int Tavrel_View_Storage::read_regular_file(const std::string& path, std::string* out, size_t limit,
                                           bool follow_links) {
  // O_NONBLOCK: opening a FIFO for reading must not wait for a writer; it is refused below anyway.
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | (follow_links ? 0 : O_NOFOLLOW));
  if (fd < 0) return -1;
  struct stat st;
  if (fstat(fd, &st) != 0) {
    int e = errno;
    close(fd);
    errno = e;
    return -1;
  }
  if (!S_ISREG(st.st_mode)) {
    close(fd);
    errno = EINVAL;
    return -1;
  }
  if (static_cast<unsigned long long>(st.st_size) > limit) {
    close(fd);
    errno = EFBIG;
    return -1;
  }
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
    if (out->size() + static_cast<size_t>(n) > limit) {  // the file grew while being read
      close(fd);
      errno = EFBIG;
      return -1;
    }
    out->append(buf, static_cast<size_t>(n));
  }
  close(fd);
  return 0;
}

std::vector<std::string> Tavrel_View_Storage::split_lines(const std::string& text, size_t max_line,
                                                          size_t* too_long) {
  std::vector<std::string> lines;
  if (too_long) *too_long = 0;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t nl = text.find('\n', pos);
    if (nl == std::string::npos) nl = text.size();
    if (nl - pos > max_line) {
      if (too_long) ++*too_long;
    } else {
      lines.emplace_back(text, pos, nl - pos);
    }
    pos = nl + 1;
  }
  return lines;
}

namespace {
int g_remove_errno = 0;  // first failure of the walk in progress; remove_tree is not reentrant

int remove_one(const char* path, const struct stat*, int type, struct FTW*) {
  int rc = (type == FTW_DP) ? rmdir(path) : unlink(path);
  if (rc != 0 && errno != ENOENT && g_remove_errno == 0) g_remove_errno = errno;
  return 0;  // go on with the rest
}
}  // namespace

int Tavrel_View_Storage::remove_tree(const std::string& path) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_Storage", "remove_tree");
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return errno == ENOENT ? 0 : -1;
  if (!S_ISDIR(st.st_mode)) return fileutl_rm(path);
  static Tavrel_Mutex walk_mutex{Tavrel_Lock_Rank::LEAF, "storage tree walk"};  // guards g_remove_errno
  std::lock_guard<Tavrel_Mutex> g(walk_mutex);
  g_remove_errno = 0;
  // FTW_PHYS: links are removed, never followed. FTW_MOUNT: stay on the storage's file system.
  if (nftw(path.c_str(), remove_one, 16, FTW_DEPTH | FTW_PHYS | FTW_MOUNT) != 0 && g_remove_errno == 0)
    g_remove_errno = errno ? errno : EIO;
  if (g_remove_errno != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Could not remove all of %s: errno %d", path.c_str(), g_remove_errno);
    errno = g_remove_errno;
    return -1;
  }
  return 0;
}

bool Tavrel_View_Storage::is_dir_empty(const std::string& path, int* status) {
  *status = 0;
  DIR* d = opendir(path.c_str());
  if (!d) {
    *status = TAVREL_ST_LIST_DIR;
    return false;
  }
  bool empty = true;
  errno = 0;
  while (struct dirent* e = readdir(d)) {
    std::string n = e->d_name;
    if (n == "." || n == "..") continue;
    empty = false;
    break;
  }
  if (empty && errno != 0) *status = TAVREL_ST_LIST_DIR;
  closedir(d);
  return *status == 0 && empty;
}

void Tavrel_View_Storage::globalize_path(std::string& /*path*/) {
  // The client's separator is "/" already.
}

bool Tavrel_View_Storage::find_in_ancestors(const std::string& path, const std::string& name) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_Storage", "find_in_ancestors");
  std::string level = path;
  globalize_path(level);
  while (level.size() > 1 && level.back() == '/') level.pop_back();
  for (;;) {
    std::string parent = fileutl_strip_leaf(level);
    if (parent.empty() || parent == level) return false;
    level = parent;
    std::string probe = (level == "/" ? "" : level) + "/" + name;
    trace.writeTrace(TRACE_LEVEL_5, "Looking for %s", probe.c_str());
    if (fileutl_exists(probe)) return true;
    if (level == "/") return false;
  }
}

bool Tavrel_View_Storage::is_temporary_of(const std::string& name, const std::vector<std::string>& bases) {
  for (const auto& b : bases) {
    const std::string prefix = b + ".tmp";
    if (name.size() == prefix.size() + 6 && name.compare(0, prefix.size(), prefix) == 0) return true;
  }
  return false;
}

int Tavrel_View_Storage::remove_stale_temporaries(const std::string& dir, const std::vector<std::string>& names) {
  Tavrel_Trace trace(TAVREL, "Tavrel_View_Storage", "remove_stale_temporaries");
  DIR* d = opendir(dir.c_str());
  if (!d) return 0;
  std::vector<std::string> found;
  while (struct dirent* e = readdir(d)) {
    if (is_temporary_of(e->d_name, names)) found.emplace_back(e->d_name);
  }
  closedir(d);
  int removed = 0;
  for (const auto& n : found) {
    const std::string p = dir + "/" + n;
    struct stat st;
    if (lstat(p.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    if (unlink(p.c_str()) == 0) {
      trace.writeTrace(TRACE_LEVEL_4, "Removed %s, left by an interrupted rewrite", p.c_str());
      ++removed;
    }
  }
  return removed;
}
