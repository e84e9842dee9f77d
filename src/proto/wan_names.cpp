#include "proto/wan_names.h"

#include <openssl/sha.h>

#include <cstring>

const tbs_oid_s AUTOMATIC_LOAD_SCOPE_OID = {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xa0, 0x00}};

tbs_oid_s tavrel_load_scope_oid(const std::string& path) {
  std::string text = "tavrel-load-scope:" + path;
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest);
  tbs_oid_s oid;
  std::memcpy(oid.bytes, digest, 16);
  return oid;
}
