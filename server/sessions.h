// Login sessions: the two cookie tokens of each session, kept in memory and in the store so that a
// restarted server still knows its sessions.
//
// A login always makes a new session and never ends older ones (several agent threads may log in at
// once and each resends with its own cookies). A session is found by its Session token and must carry
// the matching JSESSIONID token. Sessions idle longer than the limit expire: a request with one is
// refused, and a sweep, run when the sessions are loaded and then by a login at most once a minute,
// drops all of them from memory and the store, so that sessions nobody uses again do not pile up.
// The store's last-use time lags by up to a minute (it is written at most that often). Tokens are 32
// characters of [A-Za-z0-9] from the kernel's random source.
//
// Thread safety: every member takes `mu_`; the store is written outside it.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>

#include "server/store.h"

namespace tavrel_server {

class Sessions {
 public:
  // `clock` gives the time in seconds (the wall clock when empty).
  Sessions(Store& store, int idle_seconds, std::function<int64_t()> clock = {});

  struct Tokens {
    std::string jsession, session;
  };
  Tokens create(const std::string& user);
  // The user of a live session; empty when the tokens name none (or it expired).
  std::string check(const std::string& jsession, const std::string& session);
  void drop(const std::string& session);
  void expire_all();
  size_t count();
  // Drops the sessions idle longer than the limit; how many.
  size_t sweep();

  static std::string random_token();

 private:
  struct Live {
    SessionRow row;
    int64_t stored_last_used;  // last_used as the store has it
  };
  Store& store_;
  int idle_seconds_;
  std::function<int64_t()> clock_;
  std::mutex mu_;
  std::unordered_map<std::string, Live> by_token_;
  int64_t last_sweep_ = 0;
};

}  // namespace tavrel_server
