// Login sessions: the two cookie tokens of each session, kept in memory and in the store so that a
// restarted server still knows its sessions.
//
// A login always makes a new session and never ends older ones (several agent threads may log in at
// once and each resends with its own cookies). A session is found by its Session token and must carry
// the matching JSESSIONID token. Sessions idle longer than the limit expire. Tokens are 32 characters
// of [A-Za-z0-9] from the kernel's random source.
//
// Thread safety: every member takes `mu_`; the store is written outside it.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>

#include "server/store.h"

namespace tavrel_server {

class Sessions {
 public:
  Sessions(Store& store, int idle_seconds);

  struct Tokens {
    std::string jsession, session;
  };
  Tokens create(const std::string& user);
  // The user of a live session; empty when the tokens name none (or it expired).
  std::string check(const std::string& jsession, const std::string& session);
  void drop(const std::string& session);
  void expire_all();
  size_t count();

  static std::string random_token();

 private:
  Store& store_;
  int idle_seconds_;
  std::mutex mu_;
  std::unordered_map<std::string, SessionRow> by_token_;
};

}  // namespace tavrel_server
