// Test helpers for the codec tests: an independent big-endian writer that spells out expected wire
// images field by field, and sample values.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

#include "proto/tavrel_records.h"

namespace proto_test {

// Builds expected XDR images by hand, without the codec.
struct W {
  std::string b;
  W& u32(uint32_t v) {
    for (int s = 24; s >= 0; s -= 8) b.push_back(char((v >> s) & 0xFF));
    return *this;
  }
  W& i32(int32_t v) { return u32(uint32_t(v)); }
  W& u64(uint64_t v) { return u32(uint32_t(v >> 32)).u32(uint32_t(v)); }
  W& raw(const void* p, size_t n) {
    b.append(static_cast<const char*>(p), n);
    return *this;
  }
  W& pad(size_t n) {
    while (n % 4) {
      b.push_back('\0');
      ++n;
    }
    return *this;
  }
  W& opaque(const std::string& s) { return u32(uint32_t(s.size())).raw(s.data(), s.size()).pad(s.size()); }
  W& str(const std::string& s) { return opaque(s); }
  W& oid(const tbs_oid_s& o) { return raw(o.bytes, 16); }
  W& uuid(const tbs_uuid_s& u) { return raw(u.bytes, 16); }
  W& tv(int32_t s, int32_t us) { return i32(s).i32(us); }
  W& tv(const timeval& t) { return tv(int32_t(t.tv_sec), int32_t(t.tv_usec)); }
  W& sid(const credutl_sid_t& s) { return opaque(std::string(reinterpret_cast<const char*>(s.bytes), s.len)); }
};

inline tbs_oid_s oid_n(uint8_t seed) {
  tbs_oid_s o;
  for (int i = 0; i < 16; ++i) o.bytes[i] = uint8_t(seed + i);
  return o;
}
inline tbs_uuid_s uuid_n(uint8_t seed) {
  tbs_uuid_s u;
  for (int i = 0; i < 16; ++i) u.bytes[i] = uint8_t(seed * 3 + i);
  return u;
}

inline tbs_fstat_db_t sample_fstat() {
  tbs_fstat_db_t f;
  std::memset(&f, 0, sizeof f);
  f.type = 1;
  f.mode = 0444;
  f.nlink = 1;
  f.spare = 9;
  f.owner.len = 5;
  std::memcpy(f.owner.bytes, "u1000", 5);
  f.group = CREDUTL_SID_DONTCARE;
  f.size = 0x100000002ull;
  f.ino = 77;
  f.atime = {1700000000, 1};
  f.mtime = {1700000001, 2};
  f.ctime = {1700000002, 3};
  f.fourth_time = {1700000003, 4};
  return f;
}
inline W put_fstat(W w, const tbs_fstat_db_t& f) {
  w.u32(f.type).u32(f.mode).u32(f.nlink).u32(f.spare).sid(f.owner).sid(f.group).u64(f.size).u32(f.ino)
      .tv(f.atime).tv(f.mtime).tv(f.ctime).tv(f.fourth_time);
  return w;
}

inline view_vstat_t sample_vstat() {
  view_vstat_t v;
  std::memset(&v, 0, sizeof v);
  v.fstat = sample_fstat();
  v.mtype = SILO_MTYPE_FILE_VER;
  v.elem_oid = oid_n(10);
  v.obj_oid = oid_n(40);
  v.event_time = {1700000100, 500};
  v.rmap_oid = oid_n(70);
  v.reserved_time = {0, 0};
  return v;
}
inline W put_vstat(W w, const view_vstat_t& v) {
  w = put_fstat(std::move(w), v.fstat);
  w.i32(v.mtype).oid(v.elem_oid).oid(v.obj_oid).tv(v.event_time).oid(v.rmap_oid).tv(v.reserved_time);
  return w;
}

}  // namespace proto_test
