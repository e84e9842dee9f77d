#include "base/strutl.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

size_t strutl_cpy_buf(char* buf, size_t size, const char* src) {
  return strutl_ncpy_buf(buf, size, src, src ? strlen(src) : 0);
}

size_t strutl_ncpy_buf(char* buf, size_t size, const char* src, size_t n) {
  if (size == 0) return 0;
  size_t len = 0;
  if (src) {
    while (len < n && src[len] && len + 1 < size) len++;
    memcpy(buf, src, len);
  }
  buf[len] = '\0';
  return len;
}

size_t strutl_vsnprintf(char* buf, size_t size, const char* fmt, va_list ap) {
  if (size == 0) return 0;
  int n = vsnprintf(buf, size, fmt, ap);
  if (n < 0) {
    buf[0] = '\0';
    return 0;
  }
  return static_cast<size_t>(n) < size ? static_cast<size_t>(n) : size - 1;
}

std::string strutl_vformat(const char* fmt, va_list ap) {
  va_list copy;
  va_copy(copy, ap);
  char small[512];
  int n = vsnprintf(small, sizeof small, fmt, copy);
  va_end(copy);
  if (n < 0) return "";
  if (static_cast<size_t>(n) < sizeof small) return std::string(small, static_cast<size_t>(n));
  std::vector<char> big(static_cast<size_t>(n) + 1);
  vsnprintf(big.data(), big.size(), fmt, ap);
  return std::string(big.data(), static_cast<size_t>(n));
}

std::string strutl_format(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string s = strutl_vformat(fmt, ap);
  va_end(ap);
  return s;
}

std::string strutl_trim(const std::string& s) {
  size_t b = 0, e = s.size();
  while (b < e && isspace(static_cast<unsigned char>(s[b]))) b++;
  while (e > b && isspace(static_cast<unsigned char>(s[e - 1]))) e--;
  return s.substr(b, e - b);
}

bool strutl_strtol(const std::string& s, long* out) {
  if (s.empty() || isspace(static_cast<unsigned char>(s[0]))) return false;
  errno = 0;
  char* end = nullptr;
  long v = strtol(s.c_str(), &end, 10);
  if (errno != 0 || end != s.c_str() + s.size()) return false;
  *out = v;
  return true;
}

bool strutl_strtoul(const std::string& s, unsigned long* out) {
  if (s.empty() || !isdigit(static_cast<unsigned char>(s[0]))) return false;
  errno = 0;
  char* end = nullptr;
  unsigned long v = strtoul(s.c_str(), &end, 10);
  if (errno != 0 || end != s.c_str() + s.size()) return false;
  *out = v;
  return true;
}

int strutl_stricmp(const std::string& a, const std::string& b) { return strcasecmp(a.c_str(), b.c_str()); }

unsigned strutl_str_to_hash(const std::string& s) {
  unsigned h = 2166136261u;
  for (unsigned char c : s) {
    h ^= c;
    h *= 16777619u;
  }
  return h;
}

uint32_t strutl_str_to_hash32(uint32_t seed, const std::string& s) {
  uint32_t h = 2166136261u;
  for (int i = 0; i < 4; i++) {
    h ^= (seed >> (8 * i)) & 0xffu;
    h *= 16777619u;
  }
  for (unsigned char c : s) {
    h ^= c;
    h *= 16777619u;
  }
  return h;
}
