#include "base/date.h"

std::string date_strftime_local(const char* fmt, time_t t) {
  struct tm tmv;
  localtime_r(&t, &tmv);
  char buf[256];
  size_t n = strftime(buf, sizeof buf, fmt, &tmv);
  return std::string(buf, n);
}

void date_get_timeval(struct timeval* tv) { gettimeofday(tv, nullptr); }

std::string date_fmt_token_date_time_pname(time_t t) { return date_strftime_local("%Y%m%d.%H%M%S", t); }
