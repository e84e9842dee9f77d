// The request log that tests read: one entry per HTTP request the server answered.
//
// Entry text form (one line, tab-separated, arguments with LF shown as "\n"):
//   <seq> <method> <path> <rpc> <http status> <Status code or -> <arguments>
// The log keeps the newest `capacity` entries in memory (admin "log.get" returns them) and, when a
// file is given, appends every line to it. Arguments are cut at 4096 bytes; credentials are never
// logged (the login's arguments carry none). Thread safety: all members take `mu_`.
#pragma once

#include <cstdint>
#include <cstdio>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace tavrel_server {

struct LogEntry {
  uint64_t seq = 0;
  std::string method, path, rpc, args;
  int http_status = 0;
  int32_t status = -1;  // -1: no Status part was sent (or not known)
  std::string line() const;
};

class RequestLog {
 public:
  explicit RequestLog(size_t capacity = 10000, const std::string& file = std::string());
  ~RequestLog();
  void add(LogEntry e);
  // Entries with seq > since, oldest first.
  std::vector<LogEntry> since(uint64_t since);
  void clear();

 private:
  std::mutex mu_;
  size_t capacity_;
  uint64_t next_seq_ = 1;
  std::deque<LogEntry> entries_;
  FILE* file_ = nullptr;
};

}  // namespace tavrel_server
