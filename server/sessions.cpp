#include "server/sessions.h"

#include <sys/random.h>

#include <ctime>
#include <vector>

namespace tavrel_server {

namespace {
// The store's last_used is refreshed at most this often, so ordinary requests do not write.
constexpr int64_t kTouchInterval = 60;
// A login sweeps idle sessions at most this often.
constexpr int64_t kSweepInterval = 60;
}  // namespace

Sessions::Sessions(Store& store, int idle_seconds, std::function<int64_t()> clock)
    : store_(store), idle_seconds_(idle_seconds), clock_(std::move(clock)) {
  if (!clock_) clock_ = [] { return int64_t(std::time(nullptr)); };
  for (auto& s : store_.read([](Repo& r) { return r.sessions(); })) by_token_[s.token] = Live{s, s.last_used};
  sweep();
}

std::string Sessions::random_token() {
  static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  unsigned char raw[32];
  size_t got = 0;
  while (got < sizeof raw) {
    ssize_t n = getrandom(raw + got, sizeof raw - got, 0);
    if (n > 0) got += size_t(n);
  }
  std::string t;
  for (unsigned char c : raw) t.push_back(kAlphabet[c % 62]);
  return t;
}

Sessions::Tokens Sessions::create(const std::string& user) {
  SessionRow r;
  r.token = random_token();
  r.jsession = random_token();
  r.user = user;
  r.created = r.last_used = clock_();
  bool sweep_due;
  {
    std::lock_guard<std::mutex> g(mu_);
    sweep_due = r.created - last_sweep_ >= kSweepInterval;
  }
  if (sweep_due) sweep();
  store_.write([&](Repo& repo) { repo.put_session(r); });
  std::lock_guard<std::mutex> g(mu_);
  by_token_[r.token] = Live{r, r.last_used};
  return Tokens{r.jsession, r.token};
}

std::string Sessions::check(const std::string& jsession, const std::string& session) {
  int64_t now = clock_();
  bool touch = false, expired = false;
  std::string user;
  {
    std::lock_guard<std::mutex> g(mu_);
    auto it = by_token_.find(session);
    if (it == by_token_.end() || it->second.row.jsession != jsession) return std::string();
    if (now - it->second.row.last_used > idle_seconds_) {
      by_token_.erase(it);
      expired = true;
    } else {
      touch = now - it->second.stored_last_used >= kTouchInterval;
      if (touch) it->second.stored_last_used = now;
      it->second.row.last_used = now;
      user = it->second.row.user;
    }
  }
  if (expired) {
    store_.write([&](Repo& r) { r.delete_session(session); });
    return std::string();
  }
  if (touch) store_.write([&](Repo& r) { r.touch_session(session, now); });
  return user;
}

void Sessions::drop(const std::string& session) {
  {
    std::lock_guard<std::mutex> g(mu_);
    if (by_token_.erase(session) == 0) return;
  }
  store_.write([&](Repo& r) { r.delete_session(session); });
}

void Sessions::expire_all() {
  {
    std::lock_guard<std::mutex> g(mu_);
    by_token_.clear();
  }
  store_.write([](Repo& r) { r.delete_all_sessions(); });
}

size_t Sessions::sweep() {
  std::vector<std::string> gone;
  {
    std::lock_guard<std::mutex> g(mu_);
    last_sweep_ = clock_();
    for (auto it = by_token_.begin(); it != by_token_.end();) {
      if (last_sweep_ - it->second.row.last_used > idle_seconds_) {
        gone.push_back(it->first);
        it = by_token_.erase(it);
      } else {
        ++it;
      }
    }
  }
  if (!gone.empty())
    store_.write([&](Repo& r) {
      for (const auto& t : gone) r.delete_session(t);
    });
  return gone.size();
}

size_t Sessions::count() {
  std::lock_guard<std::mutex> g(mu_);
  return by_token_.size();
}

}  // namespace tavrel_server
