#include "core/tavrel_util.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <pwd.h>
#include <strings.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "base/fileutl.h"
#include "base/sysutl.h"
#include "core/tavrel_status.h"
#include "core/tavrel_trace.h"

Tavrel_Mutex Tavrel_Util::g_view_time_mutex{Tavrel_Lock_Rank::LEAF, "Tavrel_Util::g_view_time_mutex"};
struct timeval Tavrel_Util::g_last_view_time = {0, 0};

namespace {

const char kWhite[] = " \t\r\n\f\v";

std::string internal_error(const char* what, int number) {
  char small[80];
  std::snprintf(small, sizeof small, what, number);
  return small;
}

// printf into a text, refusing results above the format buffer; false when refused or failed.
bool bounded_vprintf(std::string& out, const char* format, va_list ap) {
  char small[512];
  va_list again;
  va_copy(again, ap);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  int n = std::vsnprintf(small, sizeof small, format, ap);
  if (n < 0 || static_cast<size_t>(n) > Tavrel_Util::FORMAT_BUFFER_SIZE - 1) {
    va_end(again);
    return false;
  }
  if (static_cast<size_t>(n) < sizeof small) {
    out.assign(small, static_cast<size_t>(n));
  } else {
    out.resize(static_cast<size_t>(n) + 1);
    std::vsnprintf(out.data(), out.size(), format, again);
    out.resize(static_cast<size_t>(n));
  }
#pragma GCC diagnostic pop
  va_end(again);
  return true;
}

}  // namespace

int Tavrel_Util::tbs_to_tavrel_status(int status) {
  if (status == 0) return TAVREL_ST_OK;
  if (status == TBS_ST_NOT_FOUND || status == TBS_ST_NO_SUCH_NAME) return TAVREL_ST_NOT_FOUND;
  return TAVREL_ST_FAILURE;
}

std::string& Tavrel_Util::vformat(std::string& out, const _imsg_message_table_t* table, int number, va_list ap) {
  if (!table || number < 0 || number >= table->count || !table->texts[number]) {
    out = internal_error("Internal error: could not load message %d", number);
    return out;
  }
  if (!bounded_vprintf(out, table->texts[number], ap))
    out = internal_error("Internal error: message %d is too long", number);
  return out;
}

std::string& Tavrel_Util::format(std::string& out, const _imsg_message_table_t* table, int number, ...) {
  va_list ap;
  va_start(ap, number);
  vformat(out, table, number, ap);
  va_end(ap);
  return out;
}

std::string Tavrel_Util::snprintf(const char* format, ...) {
  std::string out;
  va_list ap;
  va_start(ap, format);
  bool ok = format && bounded_vprintf(out, format, ap);
  va_end(ap);
  if (!ok) out = internal_error("Internal error: message %d is too long", -1);
  return out;
}

std::string Tavrel_Util::process_user() {
  struct passwd pw;
  struct passwd* found = nullptr;
  std::vector<char> buf(16384);
  if (getpwuid_r(geteuid(), &pw, buf.data(), buf.size(), &found) != 0 || !found || !found->pw_name) return "";
  return found->pw_name;
}

std::string Tavrel_Util::process_qualified_user() { return process_user(); }

std::string Tavrel_Util::get_user_home() { return sysutl_get_homedir(); }

bool Tavrel_Util::is_number(const std::string& text) {
  if (text.empty()) return false;
  for (char c : text)
    if (c < '0' || c > '9') return false;
  return true;
}

int Tavrel_Util::is_dir_empty(const std::string& dir, int& empty) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Util", "is_dir_empty");
  DIR* d = opendir(dir.c_str());
  if (!d) {
    trace.writeTrace(TRACE_LEVEL_2, "Unable to open directory %s: %s", dir.c_str(), strerror(errno));
    return TAVREL_ST_LIST_DIR;
  }
  int found = 0;
  errno = 0;
  struct dirent* e;
  while ((e = readdir(d)) != nullptr) {
    if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
    found = 1;
    break;
  }
  int err = errno;
  closedir(d);
  if (!found && err != 0) {
    trace.writeTrace(TRACE_LEVEL_2, "Unable to read directory %s: %s", dir.c_str(), strerror(err));
    return TAVREL_ST_LIST_DIR;
  }
  empty = found ? 0 : 1;
  return TAVREL_ST_OK;
}

bool Tavrel_Util::is_absolute_view_rel_path(const std::string& path) {
  return !path.empty() && path[0] == PNAME_SEPARATOR;
}

std::string Tavrel_Util::trim(const std::string& text) {
  size_t b = text.find_first_not_of(kWhite);
  if (b == std::string::npos) return "";
  size_t e = text.find_last_not_of(kWhite);
  return text.substr(b, e - b + 1);
}

void Tavrel_Util::trim_in_place(std::string& text) {
  size_t e = text.find_last_not_of(kWhite);
  if (e == std::string::npos) {
    text.clear();
    return;
  }
  text.erase(e + 1);
  text.erase(0, text.find_first_not_of(kWhite));
}

void Tavrel_Util::strip_crlf(std::string& text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
}

void Tavrel_Util::strip_leading_separators(std::string& path) {
  size_t n = path.find_first_not_of(PNAME_SEPARATOR);
  path.erase(0, n == std::string::npos ? path.size() : n);
}

void Tavrel_Util::strip_trailing_pathname_separator(std::string& path) {
  while (path.size() > 1 && path.back() == PNAME_SEPARATOR) path.pop_back();
}

std::string Tavrel_Util::parent(const std::string& path) {
  size_t last = path.rfind(PNAME_SEPARATOR);
  if (last == std::string::npos) return "";
  return path.substr(0, last);
}

bool Tavrel_Util::contains_pname_separator(const std::string& text) {
  return text.find(PNAME_SEPARATOR) != std::string::npos;
}

void Tavrel_Util::globalize_path(std::string& path) {
  // Clients use "/" as this system does; nothing to replace.
  (void)path;
}

bool Tavrel_Util::paths_equal(const std::string& a, const std::string& b) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Util", "paths_equal");
  trace.writeTrace(TRACE_LEVEL_5, "Comparing %s and %s", a.c_str(), b.c_str());
  std::string x = a;
  std::string y = b;
  globalize_path(x);
  globalize_path(y);
  return x == y;
}

std::string Tavrel_Util::sanitize_path(const std::string& path) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Util", "sanitize_path");
  trace.writeTrace(TRACE_LEVEL_5, "Sanitizing %s", path.c_str());
  std::string out;
  out.reserve(path.size());
  size_t i = 0;
  const size_t n = path.size();
  if (n > 0 && path[0] == PNAME_SEPARATOR) out += PNAME_SEPARATOR;
  while (i < n) {
    while (i < n && path[i] == PNAME_SEPARATOR) i++;
    size_t end = path.find(PNAME_SEPARATOR, i);
    if (end == std::string::npos) end = n;
    if (end > i) {
      std::string_view comp(path.data() + i, end - i);
      if (comp != ".") {
        if (!out.empty() && out.back() != PNAME_SEPARATOR) out += PNAME_SEPARATOR;
        out.append(comp);
      }
    }
    i = end;
  }
  return out;
}

void Tavrel_Util::tokenize(const std::string& text, std::vector<std::string>& out, const std::string& separator) {
  if (separator.empty()) {
    if (!text.empty()) out.push_back(text);
    return;
  }
  size_t start = 0;
  for (size_t pos = text.find(separator); pos != std::string::npos; pos = text.find(separator, start)) {
    out.push_back(text.substr(start, pos - start));
    start = pos + separator.size();
  }
  if (start < text.size()) out.push_back(text.substr(start));
}

bool Tavrel_Util::find_in_ancestors(const std::string& path, const std::string& name) {
  Tavrel_Trace trace(TAVREL, "Tavrel_Util", "find_in_ancestors");
  std::string level = path;
  globalize_path(level);
  strip_trailing_pathname_separator(level);
  const bool absolute = is_absolute_view_rel_path(level);
  if (level == "/") return false;  // the root has no ancestors
  for (;;) {
    level = parent(level);
    if (level.empty() && !absolute) return false;
    std::string candidate = level + PNAME_SEPARATOR + name;
    trace.writeTrace(TRACE_LEVEL_5, "Looking for %s", candidate.c_str());
    if (fileutl_exists(candidate)) return true;
    if (level.empty()) return false;
  }
}

std::string Tavrel_Util::server_from_url(const std::string& url) {
  size_t first = url.find(PNAME_SEPARATOR);
  size_t start = first == std::string::npos ? 0 : first + 2;
  if (start >= url.size()) return "";
  size_t last = url.rfind(PNAME_SEPARATOR);
  if (last == std::string::npos || last < start) return url.substr(start);
  return url.substr(start, last - start);
}

int Tavrel_Util::compare_no_case(const std::string& a, const std::string& b) {
  size_t n = std::min(a.size(), b.size());
  int c = strncasecmp(a.c_str(), b.c_str(), n);
  if (c != 0) return c;
  return a.size() < b.size() ? -1 : (a.size() > b.size() ? 1 : 0);
}

int Tavrel_Util::replace_all(std::string& text, const std::string& from, const std::string& to) {
  if (from.empty()) return 0;
  int count = 0;
  for (size_t pos = text.find(from); pos != std::string::npos; pos = text.find(from, pos + to.size())) {
    text.replace(pos, from.size(), to);
    count++;
  }
  return count;
}

std::string Tavrel_Util::quote_if_whitespace(const char* text) {
  if (!text) return "";
  if (strpbrk(text, " \t")) return std::string("\"") + text + "\"";
  return text;
}

std::string Tavrel_Util::uuid_to_location(const tbs_uuid_s& uuid) { return "replicauuid:" + tbs_uuid_to_str(uuid); }

std::string Tavrel_Util::uuid_oid_to_location(const tbs_uuid_s& uuid, const tbs_oid_s& oid) {
  return "oid:" + tbs_oid_to_str(oid) + "@replicauuid:" + tbs_uuid_to_str(uuid);
}

std::string Tavrel_Util::uuid_dbid_to_location(const tbs_uuid_s& uuid, long dbid) {
  return snprintf("%ld", dbid) + "@replicauuid:" + tbs_uuid_to_str(uuid);
}

void Tavrel_Util::get_view_time(struct timeval& tv) {
  struct timeval now;
  gettimeofday(&now, nullptr);
  std::lock_guard<Tavrel_Mutex> g(g_view_time_mutex);
  if (timercmp(&now, &g_last_view_time, <=)) {
    now = g_last_view_time;
    if (++now.tv_usec >= 1000000) {
      now.tv_usec = 0;
      now.tv_sec++;
    }
  }
  g_last_view_time = now;
  tv = now;
}

struct timeval Tavrel_Util::get_view_time() {
  struct timeval tv;
  get_view_time(tv);
  return tv;
}

bool Tavrel_Util::parse_hijack_treatment(const std::string& text, HijackTreatment& out) {
  if (text == "keep") {
    out = HIJACK_TREATMENT_KEEP;
  } else if (text == "overwrite") {
    out = HIJACK_TREATMENT_OVERWRITE;
  } else if (text == "rename") {
    out = HIJACK_TREATMENT_RENAME;
  } else {
    return false;
  }
  return true;
}

int Tavrel_Util::set_socket_addr(const char* text, struct in_addr* out) {
  if (!text || !out) return TBS_ST_BAD_ARG;
  struct in_addr a;
  if (inet_pton(AF_INET, text, &a) != 1) return TBS_ST_BAD_ARG;
  *out = a;
  return 0;
}
