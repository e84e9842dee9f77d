// Typed access to the ordered arguments of a request. Every accessor that meets a missing required
// argument or a malformed value throws ServerError 1072 naming the argument.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/tbs.h"
#include "proto/rpcargs.h"

namespace tavrel_server {

class Args {
 public:
  Args() = default;
  explicit Args(std::vector<tavrel_wan::RpcArg> a) : args_(std::move(a)) {}

  const std::string* first(const char* name) const;
  std::vector<std::string> all(const char* name) const;
  std::string text(const char* name) const;  // required
  std::string text_or(const char* name, const std::string& dflt) const;
  tbs_uuid_s uuid(const char* name) const;   // required
  std::optional<tbs_uuid_s> opt_uuid(const char* name) const;
  std::optional<tbs_oid_s> opt_oid(const char* name) const;
  bool flag(const char* name) const;  // "1" true; "0" or absent false
  int64_t number(const char* name, int64_t dflt, int64_t min, int64_t max) const;
  const std::vector<tavrel_wan::RpcArg>& list() const { return args_; }

 private:
  std::vector<tavrel_wan::RpcArg> args_;
};

}  // namespace tavrel_server
