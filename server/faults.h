// Fault injection for tests: armed faults change how the server answers the next matching requests.
//
// Kinds (value in parentheses):
//   refuse_login          logins answer HTTP 401 even with good credentials
//   delay_before (ms)     wait before handling the request
//   delay_inside (ms)     send the first half of the reply, wait, send the rest
//   cut_after (bytes)     send only that many bytes of the body, then close the connection
//   cut_parts (count)     send only the declaration and that many whole parts, then close the connection
//   http_status (code)    answer with that HTTP status and a Status-only body
//   corrupt_header        a header line of the reply loses its CR LF ending (a lone CR instead)
//   status (code)         answer with only a Status part of that code
// Each fault applies to requests whose RPC (or path for GETs: "logout", "cltxt") equals `match`
// ("" matches all) and disarms itself after `count` uses (0: until cleared). Admin requests are never
// affected. Thread safety: all members take `mu_`.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace tavrel_server {

struct Fault {
  std::string kind;
  int64_t value = 0;
  std::string match;
  int count = 1;
};

// What applies to one request.
struct FaultPlan {
  bool refuse_login = false;
  int64_t delay_before_ms = 0;
  int64_t delay_inside_ms = 0;
  int64_t cut_after = -1;
  int64_t cut_parts = -1;
  int http_status = 0;
  bool corrupt_header = false;
  bool status_override = false;
  int32_t status_code = 0;
  bool any() const {
    return refuse_login || delay_before_ms || delay_inside_ms || cut_after >= 0 || cut_parts >= 0 || http_status ||
           corrupt_header || status_override;
  }
};

class FaultInjector {
 public:
  static bool valid_kind(const std::string& kind);
  void arm(const Fault& f);
  void clear();
  std::vector<Fault> armed();
  // Takes the faults that match `rpc` (consuming one use of each).
  FaultPlan take(const std::string& rpc);

 private:
  std::mutex mu_;
  std::vector<Fault> faults_;
};

}  // namespace tavrel_server
