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

// Statuses of the 1000 range: the name service, the database, the codec, the kernel channel and the
// server all answer with these (0 is success). Every program names them from this one list; the
// errno each one stands for is in proto/kfsm_status.h, the agent's own range in proto/tavrel_status.h.
enum : tbs_status_t {
  TBS_ST_OK = 0,
  TBS_ST_FAILURE = 1001,         // general failure; also a malformed record, or no service
  TBS_ST_NOT_FOUND = 1002,
  TBS_ST_NOT_SUPPORTED = 1007,   // the operation is not offered (an RPC without a handler)
  TBS_ST_INTERNAL = 1008,
  TBS_ST_NO_RESOURCES = 1009,
  TBS_ST_NO_VIEW = 1011,         // no such view in the module, or its root is unknown
  TBS_ST_REFUSED = 1013,         // refused as asked (a repair without force)
  TBS_ST_NO_OBJECT = 1014,       // a name that stands for no object
  TBS_ST_CONTAINER = 1015,       // a container could not be made
  TBS_ST_UNKNOWN_SILO = 1016,
  TBS_ST_DB_NOT_WRITABLE = 1022,
  TBS_ST_DB_RELOAD_NEEDED = 1023,
  TBS_ST_REVALIDATE = 1033,
  TBS_ST_VIEW_GONE = 1046,       // the module is done with the view: the answer to every call of a removed view
  TBS_ST_NOT_OWNER = 1051,
  TBS_ST_NO_SUCH_NAME = 1052,
  TBS_ST_NO_ROOM = 1062,         // no memory, a limit reached, or a record that does not fit its buffer
  TBS_ST_NO_PERMISSION = 1063,
  TBS_ST_EXISTS = 1067,
  TBS_ST_CROSS_SILO = 1068,
  TBS_ST_NOT_DIR = 1070,
  TBS_ST_IS_DIR = 1071,
  TBS_ST_BAD_ARG = 1072,
  TBS_ST_NOT_ALLOWED = 1080,     // not allowed on this object (a SILO object where a view-private one is needed)
  TBS_ST_LOOP = 1083,            // too many symbolic links
  TBS_ST_TOO_LONG = 1084,        // a name or path too long, or a buffer too small
  TBS_ST_NOT_EMPTY = 1085,
  TBS_ST_STALE = 1087,           // a handle whose object is gone
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
// FNV-1a over the 16 bytes: the hash that spreads objects over the buckets of in-memory tables.
uint32_t tbs_oid_to_hash32(const tbs_oid_s& o);

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
// The directory of the product's installed files (the database dictionary and schema version, the
// dumper): $TAVREL_PRODUCT_DIR when set, else "product" beside the folder of the running program
// (<prefix>/bin/prog -> <prefix>/product).
std::string tbs_product_server_dir();

tbs_uuid_s tbs_uuid_create();
tbs_oid_s tbs_oid_create();
