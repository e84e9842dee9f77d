#include "server/path_order.h"

namespace tavrel_server {

int path_order_compare(const char* a, size_t an, const char* b, size_t bn) {
  size_t n = an < bn ? an : bn;
  for (size_t i = 0; i < n; ++i) {
    unsigned ca = a[i] == '/' ? 0u : static_cast<unsigned char>(a[i]) + 1u;
    unsigned cb = b[i] == '/' ? 0u : static_cast<unsigned char>(b[i]) + 1u;
    if (ca != cb) return ca < cb ? -1 : 1;
  }
  return an == bn ? 0 : (an < bn ? -1 : 1);
}

namespace {
int collate(void*, int an, const void* a, int bn, const void* b) {
  return path_order_compare(static_cast<const char*>(a), size_t(an), static_cast<const char*>(b), size_t(bn));
}
}  // namespace

bool register_path_collation(sqlite3* db) {
  return sqlite3_create_collation_v2(db, PATH_COLLATION, SQLITE_UTF8, nullptr, collate, nullptr) == SQLITE_OK;
}

}  // namespace tavrel_server
