// Slows down password guessing: consecutive failed logins per user name and per client address.
//
// The first `kFree` failures of a key cost nothing (typing errors). Each further failure makes the key
// wait before its next attempt is even checked: 1 s after the sixth, doubling up to 60 s. A waiting
// attempt is refused at once (the server answers 429 with Retry-After), so no server thread is held.
// A successful login clears its user's count; an address's count is cleared only by time (15 minutes
// without a failure), so that a valid account of one's own cannot reset the count of guesses at
// others. Keys are forgotten 15 minutes after their last failure, and at most kMaxKeys are kept (the
// oldest goes first). Times are milliseconds of a monotonic clock, given by the caller.
//
// Thread safety: all members take `mu_`.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>

namespace tavrel_server {

class LoginThrottle {
 public:
  static constexpr int kFree = 5;
  static constexpr int64_t kMaxWaitMs = 60000;
  static constexpr int64_t kForgetMs = 15 * 60 * 1000;
  static constexpr size_t kMaxKeys = 10000;

  // Milliseconds before a login of `user` from `address` is checked again; 0: check it now.
  int64_t wait_ms(const std::string& user, const std::string& address, int64_t now_ms);
  void failed(const std::string& user, const std::string& address, int64_t now_ms);
  void succeeded(const std::string& user);

 private:
  struct Count {
    int failures = 0;
    int64_t last_ms = 0, until_ms = 0;
  };
  int64_t wait_of(const std::string& key, int64_t now_ms);
  void fail(const std::string& key, int64_t now_ms);

  std::mutex mu_;
  std::unordered_map<std::string, Count> keys_;  // "u:" + user, "a:" + address
};

}  // namespace tavrel_server
