// Whether the end-to-end tests can mount FUSE file systems here. A fixture's SetUp calls
// TAVREL_E2E_NEED_FUSE(): where FUSE cannot be mounted the test is skipped with the reason, or fails
// when TAVREL_REQUIRE_FUSE=1 (as CI sets it on machines that have /dev/fuse).
#pragma once

#include <cstdlib>
#include <string>

#include "kfsmd/fuse/kfsmd_fuse_mount.h"

namespace e2e {

// Asks once per process; the reason goes to *why when FUSE is not usable.
inline bool fuse_usable(std::string* why) {
  static std::string reason;
  static const bool ok = kfsmd_fuse_available(&reason);
  *why = reason;
  return ok;
}

inline bool fuse_required() {
  const char* req = getenv("TAVREL_REQUIRE_FUSE");
  return req && std::string(req) == "1";
}

}  // namespace e2e

#define TAVREL_E2E_NEED_FUSE()                                                         \
  do {                                                                                 \
    std::string fuse_why_;                                                             \
    if (!e2e::fuse_usable(&fuse_why_)) {                                               \
      if (e2e::fuse_required()) FAIL() << "FUSE is required but not available: " << fuse_why_; \
      GTEST_SKIP() << "FUSE not available: " << fuse_why_;                             \
    }                                                                                  \
  } while (0)
