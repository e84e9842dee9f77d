// io.h: the file primitives of the record engine: whole-buffer pread/pwrite with engine statuses, data sync,
// and the test hooks (sync suppression, fail points) that the crash tests use.
#pragma once

#include <cstdint>
#include <string>

namespace tavrel::rec {

// Engine statuses used by the I/O layer.
enum : int {
  S_OKAY = 0,
  S_NOSPACE = -900,
  S_SYSERR = -901,
  S_NOMEMORY = -904,
  S_NOFILE = -905,
  S_BADREAD = -914,
  S_BADWRITE = -919,
  S_TAFSYNC = -925,
};

// Read exactly n bytes at off. A short read past the end of the file zero-fills the rest and reports the
// number of bytes that were really in the file through *got (when given). Errors: -914.
int io_read(int fd, void* buf, size_t n, uint64_t off, size_t* got = nullptr);
// Write exactly n bytes at off. ENOSPC gives -900, any other error -919.
int io_write(int fd, const void* buf, size_t n, uint64_t off);
// fdatasync (a no-op while syncing is suppressed for tests). Error: -901.
int io_sync(int fd);
int io_truncate(int fd, uint64_t len);
uint64_t io_size(int fd);  // current length of the file, 0 on error

// Tests: suppress every data sync (for tests that do not simulate power loss and want speed).
void io_set_nosync(bool on);

// Fail points: named places in the commit, spill, checkpoint and recovery paths. When the armed name has
// been passed `count` times, the process ends at once with _exit(137), imitating a kill -9. Arm with an
// empty name to disarm.
void failpoint_arm(const std::string& name, int count);
void failpoint(const char* name);
// A fail point that also reports whether a write should be cut in half first ("torn" variants).
bool failpoint_torn(const char* name);

}  // namespace tavrel::rec
