#include "db/rec/io.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tavrel::rec {
namespace {
bool g_nosync = false;
std::string g_fp_name;
int g_fp_count = 0;
}  // namespace

int io_read(int fd, void* buf, size_t n, uint64_t off, size_t* got) {
  size_t done = 0;
  auto* p = static_cast<uint8_t*>(buf);
  while (done < n) {
    ssize_t r = ::pread(fd, p + done, n - done, (off_t)(off + done));
    if (r < 0) {
      if (errno == EINTR) continue;
      return S_BADREAD;
    }
    if (r == 0) break;
    done += (size_t)r;
  }
  if (done < n) std::memset(p + done, 0, n - done);
  if (got) *got = done;
  return S_OKAY;
}

int io_write(int fd, const void* buf, size_t n, uint64_t off) {
  size_t done = 0;
  auto* p = static_cast<const uint8_t*>(buf);
  while (done < n) {
    ssize_t r = ::pwrite(fd, p + done, n - done, (off_t)(off + done));
    if (r < 0) {
      if (errno == EINTR) continue;
      return errno == ENOSPC ? S_NOSPACE : S_BADWRITE;
    }
    done += (size_t)r;
  }
  return S_OKAY;
}

int io_sync(int fd) {
  if (g_nosync) return S_OKAY;
  return ::fdatasync(fd) == 0 ? S_OKAY : S_SYSERR;
}

int io_truncate(int fd, uint64_t len) { return ::ftruncate(fd, (off_t)len) == 0 ? S_OKAY : S_BADWRITE; }

uint64_t io_size(int fd) {
  struct stat st;
  return ::fstat(fd, &st) == 0 ? (uint64_t)st.st_size : 0;
}

void io_set_nosync(bool on) { g_nosync = on; }

void failpoint_arm(const std::string& name, int count) {
  g_fp_name = name;
  g_fp_count = count;
}

void failpoint(const char* name) {
  if (g_fp_name.empty() || g_fp_name != name) return;
  if (--g_fp_count <= 0) ::_exit(137);
}

bool failpoint_torn(const char* name) {
  if (g_fp_name.empty() || g_fp_name != name) return false;
  return g_fp_count <= 1;
}

}  // namespace tavrel::rec
