// date: time stamps in the forms that traces, logs and file names use.
#pragma once

#include <sys/time.h>

#include <ctime>
#include <string>

void date_get_timeval(struct timeval* tv);
// strftime of local time into a std::string (format at most 256 characters of output).
std::string date_strftime_local(const char* fmt, time_t t);
// A date and time safe in a file name: "YYYYMMDD.HHMMSS" in local time.
std::string date_fmt_token_date_time_pname(time_t t);
