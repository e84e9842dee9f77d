#include "base/tbs.h"

#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

const tbs_uuid_s TBS_UUID_NULL = {};
const tbs_oid_s TBS_OID_NULL = {};

namespace {

const char kHex[] = "0123456789abcdef";

void bytes_to_text(const uint8_t* b, char out[37]) {
  char* p = out;
  for (int i = 0; i < 16; i++) {
    if (i == 4 || i == 6 || i == 8 || i == 10) *p++ = '-';
    *p++ = kHex[b[i] >> 4];
    *p++ = kHex[b[i] & 15];
  }
  *p = '\0';
}

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

tbs_status_t text_to_bytes(const std::string& text, uint8_t* out) {
  if (text.size() != 36) return TBS_ST_BAD_ARG;
  uint8_t tmp[16];
  size_t pos = 0;
  for (int i = 0; i < 16; i++) {
    if (i == 4 || i == 6 || i == 8 || i == 10) {
      if (text[pos] != '-') return TBS_ST_BAD_ARG;
      pos++;
    }
    int hi = hex_value(text[pos]);
    int lo = hex_value(text[pos + 1]);
    if (hi < 0 || lo < 0) return TBS_ST_BAD_ARG;
    tmp[i] = static_cast<uint8_t>(hi << 4 | lo);
    pos += 2;
  }
  std::memcpy(out, tmp, 16);
  return TBS_ST_OK;
}

void random_bytes(uint8_t* out) {
  size_t got = 0;
  while (got < 16) {
    ssize_t n = getrandom(out + got, 16 - got, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      std::abort();  // no entropy source: nothing sensible can be named
    }
    got += static_cast<size_t>(n);
  }
  out[6] = static_cast<uint8_t>((out[6] & 0x0f) | 0x40);
  out[8] = static_cast<uint8_t>((out[8] & 0x3f) | 0x80);
}

bool all_zero(const uint8_t* b) {
  for (int i = 0; i < 16; i++)
    if (b[i]) return false;
  return true;
}

}  // namespace

bool tbs_uuid_is_null(const tbs_uuid_s& u) { return all_zero(u.bytes); }
bool tbs_oid_is_null(const tbs_oid_s& o) { return all_zero(o.bytes); }

uint32_t tbs_oid_to_hash32(const tbs_oid_s& o) {
  uint32_t h = 2166136261u;
  for (uint8_t b : o.bytes) h = (h ^ b) * 16777619u;
  return h;
}

void tbs_uuid_to_str(const tbs_uuid_s& u, char out[37]) { bytes_to_text(u.bytes, out); }
void tbs_oid_to_str(const tbs_oid_s& o, char out[37]) { bytes_to_text(o.bytes, out); }

std::string tbs_product_server_dir() {
  if (const char* env = getenv("TAVREL_PRODUCT_DIR"); env && *env) return env;
  char exe[4096];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n <= 0) return "product";
  std::string path(exe, (size_t)n);
  std::string bin = path.substr(0, path.find_last_of('/'));
  return bin.substr(0, bin.find_last_of('/') == std::string::npos ? 0 : bin.find_last_of('/')) + "/product";
}

std::string tbs_uuid_to_str(const tbs_uuid_s& u) {
  char buf[37];
  bytes_to_text(u.bytes, buf);
  return buf;
}
std::string tbs_oid_to_str(const tbs_oid_s& o) {
  char buf[37];
  bytes_to_text(o.bytes, buf);
  return buf;
}

tbs_status_t tbs_str_to_uuid(const std::string& text, tbs_uuid_s* out) { return text_to_bytes(text, out->bytes); }
tbs_status_t tbs_str_to_oid(const std::string& text, tbs_oid_s* out) { return text_to_bytes(text, out->bytes); }

tbs_uuid_s tbs_uuid_create() {
  tbs_uuid_s u;
  random_bytes(u.bytes);
  return u;
}
tbs_oid_s tbs_oid_create() {
  tbs_oid_s o;
  random_bytes(o.bytes);
  return o;
}
