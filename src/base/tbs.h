// tbs: status numbers of the name-service/database range and the identities every layer shares.
//
// tbs_uuid_s names a view, a SILO family or a replica; tbs_oid_s names an object within a SILO. Both
// are 16 opaque bytes. Their one text form, used on the wire, in files and in messages, is 32 lower-case
// hex digits grouped 8-4-4-4-12 ("0123abcd-0123-4567-89ab-0123456789ab"); parsers also accept upper case.
// The "dstr" form (URLs, cache file names) is the same text. The null identity is 16 zero bytes.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

typedef int32_t tbs_status_t;

// Statuses of the 1000 range.
enum : tbs_status_t {
  TBS_ST_OK = 0,
  TBS_ST_NOT_FOUND = 1002,
  TBS_ST_INTERNAL = 1008,
  TBS_ST_DB_NOT_WRITABLE = 1022,
  TBS_ST_DB_RELOAD_NEEDED = 1023,
  TBS_ST_REVALIDATE = 1033,
  TBS_ST_NOT_FOUND_2 = 1052,
  TBS_ST_EXISTS = 1067,
  TBS_ST_BAD_ARG = 1072,
  TBS_ST_TOO_LONG = 1084,
  TBS_ST_NOT_EMPTY = 1085,
  TBS_ST_STALE = 1087,
  TBS_ST_BUSY = 1088,
};

struct tbs_uuid_s {
  uint8_t bytes[16];
};
struct tbs_oid_s {
  uint8_t bytes[16];
};

extern const tbs_uuid_s TBS_UUID_NULL;
extern const tbs_oid_s TBS_OID_NULL;

inline bool operator==(const tbs_uuid_s& a, const tbs_uuid_s& b) { return std::memcmp(a.bytes, b.bytes, 16) == 0; }
inline bool operator!=(const tbs_uuid_s& a, const tbs_uuid_s& b) { return !(a == b); }
inline bool operator<(const tbs_uuid_s& a, const tbs_uuid_s& b) { return std::memcmp(a.bytes, b.bytes, 16) < 0; }
inline bool operator==(const tbs_oid_s& a, const tbs_oid_s& b) { return std::memcmp(a.bytes, b.bytes, 16) == 0; }
inline bool operator!=(const tbs_oid_s& a, const tbs_oid_s& b) { return !(a == b); }
inline bool operator<(const tbs_oid_s& a, const tbs_oid_s& b) { return std::memcmp(a.bytes, b.bytes, 16) < 0; }

bool tbs_uuid_is_null(const tbs_uuid_s& u);
bool tbs_oid_is_null(const tbs_oid_s& o);

// Text form of 36 characters. The char* forms write 37 bytes (with the terminating NUL).
std::string tbs_uuid_to_str(const tbs_uuid_s& u);
std::string tbs_oid_to_str(const tbs_oid_s& o);
void tbs_uuid_to_str(const tbs_uuid_s& u, char out[37]);
void tbs_oid_to_str(const tbs_oid_s& o, char out[37]);
inline std::string tbs_uuid_to_dstr(const tbs_uuid_s& u) { return tbs_uuid_to_str(u); }
inline std::string tbs_oid_to_dstr(const tbs_oid_s& o) { return tbs_oid_to_str(o); }

// Parse the text form; anything else (wrong length, misplaced dash, non-hex digit, trailing bytes)
// gives TBS_ST_BAD_ARG and leaves *out unchanged.
tbs_status_t tbs_str_to_uuid(const std::string& text, tbs_uuid_s* out);
tbs_status_t tbs_str_to_oid(const std::string& text, tbs_oid_s* out);

// A new random identity (version-4 layout) from the kernel's random source.
tbs_uuid_s tbs_uuid_create();
tbs_oid_s tbs_oid_create();
