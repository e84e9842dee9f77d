#include "server/args.h"

#include <cerrno>
#include <cstdlib>

#include "server/server_error.h"

namespace tavrel_server {

const std::string* Args::first(const char* name) const {
  for (const auto& a : args_)
    if (a.name == name) return &a.value;
  return nullptr;
}

std::vector<std::string> Args::all(const char* name) const {
  std::vector<std::string> out;
  for (const auto& a : args_)
    if (a.name == name) out.push_back(a.value);
  return out;
}

std::string Args::text(const char* name) const {
  const std::string* v = first(name);
  if (!v) fail(TBS_ST_BAD_ARG, std::string("missing argument ") + name);
  return *v;
}

std::string Args::text_or(const char* name, const std::string& dflt) const {
  const std::string* v = first(name);
  return v ? *v : dflt;
}

tbs_uuid_s Args::uuid(const char* name) const {
  auto u = opt_uuid(name);
  if (!u) fail(TBS_ST_BAD_ARG, std::string("missing argument ") + name);
  return *u;
}

std::optional<tbs_uuid_s> Args::opt_uuid(const char* name) const {
  const std::string* v = first(name);
  if (!v || v->empty()) return std::nullopt;
  tbs_uuid_s u;
  if (tbs_str_to_uuid(*v, &u) != TBS_ST_OK) fail(TBS_ST_BAD_ARG, std::string("malformed ") + name + " \"" + *v + "\"");
  return u;
}

std::optional<tbs_oid_s> Args::opt_oid(const char* name) const {
  const std::string* v = first(name);
  if (!v || v->empty()) return std::nullopt;
  tbs_oid_s o;
  if (tbs_str_to_oid(*v, &o) != TBS_ST_OK) fail(TBS_ST_BAD_ARG, std::string("malformed ") + name + " \"" + *v + "\"");
  return o;
}

bool Args::flag(const char* name) const {
  const std::string* v = first(name);
  if (!v || *v == "0" || v->empty()) return false;
  if (*v == "1") return true;
  fail(TBS_ST_BAD_ARG, std::string("argument ") + name + " must be 0 or 1");
}

int64_t Args::number(const char* name, int64_t dflt, int64_t min, int64_t max) const {
  const std::string* v = first(name);
  if (!v || v->empty()) return dflt;
  errno = 0;
  char* end = nullptr;
  long long n = std::strtoll(v->c_str(), &end, 10);
  if (errno != 0 || end == v->c_str() || *end != '\0' || n < min || n > max)
    fail(TBS_ST_BAD_ARG, std::string("argument ") + name + " is not a number in range");
  return n;
}

}  // namespace tavrel_server
