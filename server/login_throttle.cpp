#include "server/login_throttle.h"

#include <algorithm>

namespace tavrel_server {

int64_t LoginThrottle::wait_ms(const std::string& user, const std::string& address, int64_t now_ms) {
  std::lock_guard<std::mutex> g(mu_);
  return std::max(wait_of("u:" + user, now_ms), wait_of("a:" + address, now_ms));
}

void LoginThrottle::failed(const std::string& user, const std::string& address, int64_t now_ms) {
  std::lock_guard<std::mutex> g(mu_);
  fail("u:" + user, now_ms);
  fail("a:" + address, now_ms);
}

void LoginThrottle::succeeded(const std::string& user) {
  std::lock_guard<std::mutex> g(mu_);
  keys_.erase("u:" + user);
}

int64_t LoginThrottle::wait_of(const std::string& key, int64_t now_ms) {
  auto it = keys_.find(key);
  if (it == keys_.end() || now_ms - it->second.last_ms > kForgetMs) return 0;
  return std::max<int64_t>(0, it->second.until_ms - now_ms);
}

void LoginThrottle::fail(const std::string& key, int64_t now_ms) {
  if (keys_.size() >= kMaxKeys && !keys_.count(key)) {
    std::erase_if(keys_, [&](const auto& kv) { return now_ms - kv.second.last_ms > kForgetMs; });
    if (keys_.size() >= kMaxKeys)
      keys_.erase(std::min_element(keys_.begin(), keys_.end(), [](const auto& a, const auto& b) {
        return a.second.last_ms < b.second.last_ms;
      }));
  }
  Count& c = keys_[key];
  if (now_ms - c.last_ms > kForgetMs) c.failures = 0;
  c.last_ms = now_ms;
  if (++c.failures > kFree) c.until_ms = now_ms + std::min(int64_t(1000) << std::min(c.failures - kFree - 1, 6), kMaxWaitMs);
}

}  // namespace tavrel_server
