// strutl: bounded string helpers. All copies NUL-terminate and never write past `size` bytes.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>

// Copies src into buf[size] (cut when longer). Returns the length copied.
size_t strutl_cpy_buf(char* buf, size_t size, const char* src);
size_t strutl_ncpy_buf(char* buf, size_t size, const char* src, size_t n);
// vsnprintf that always terminates; returns the length written (not the length wanted).
size_t strutl_vsnprintf(char* buf, size_t size, const char* fmt, va_list ap);
std::string strutl_vformat(const char* fmt, va_list ap);
std::string strutl_format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// Whitespace trimmed at both ends (space, tab, CR, LF, VT, FF).
std::string strutl_trim(const std::string& s);
// Base-10 parse of a whole string: optional sign for strtol, no other characters. false on overflow.
bool strutl_strtol(const std::string& s, long* out);
bool strutl_strtoul(const std::string& s, unsigned long* out);
// Case-insensitive comparison (ASCII).
int strutl_stricmp(const std::string& a, const std::string& b);
// Stable 32-bit hash of a string (FNV-1a).
unsigned strutl_str_to_hash(const std::string& s);
// Stable 32-bit hash of a string with a seed: FNV-1a over the seed's four bytes (low byte first), then
// the string's bytes. Names that must come out the same in every process (cache files) are built on it.
uint32_t strutl_str_to_hash32(uint32_t seed, const std::string& s);
