// View-protocol records: the exact image of each record that is more than a header and a handle,
// round trips, every prefix and a longer buffer refused, replies that fail carrying only their header,
// and directory listings.
#include "proto/view_records.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "proto/proto_test_util.h"
#include "proto/xdr_record.h"

using namespace proto_test;

namespace {

view_hdr_req_t hdrq() { return view_hdr_req_t{1700000200, 0xA1B2C3D4u, uuid_n(9), {17, 18}}; }
W put_hdrq(W w) { return std::move(w.i32(1700000200).u32(0xA1B2C3D4u).uuid(uuid_n(9)).u32(17).u32(18)); }
view_hdr_reply_t hdrr(tbs_status_t st) { return view_hdr_reply_t{0x01020304u, st}; }
W put_hdrr(W w, tbs_status_t st) { return std::move(w.u32(0x01020304u).i32(st)); }
view_fhandle_t fh() { return view_fhandle_t{uuid_n(2), 0x80000005u, 0x80000004u, 3, 1, 0}; }
W put_fh(W w) { return std::move(w.uuid(uuid_n(2)).u32(0x80000005u).u32(0x80000004u).u32(3).u32(1).u32(0)); }
view_dir_arg_t dirarg(const char* name) {
  view_dir_arg_t a{fh(), {}};
  std::snprintf(a.name, sizeof a.name, "%s", name);
  return a;
}
W put_dirarg(W w, const char* name) { return std::move(put_fh(std::move(w)).str(name)); }
view_set_attr_t sattr(uint32_t mask) {
  credutl_sid_t own{3, {'o', 'w', 'n'}}, grp{3, {'g', 'r', 'p'}};
  return view_set_attr_t{mask, 2, 0640, own, grp, 0x0000000500000006ull, {11, 12}, {13, 14}};
}
// The owner and group go on the wire only with mask bits 4 and 8; otherwise the don't-care identity.
W put_sattr(W w, uint32_t mask) {
  view_set_attr_t s = sattr(mask);
  w.u32(mask).u32(2).u32(0640);
  w.sid(mask & 4 ? s.owner : CREDUTL_SID_DONTCARE).sid(mask & 8 ? s.group : CREDUTL_SID_DONTCARE);
  return std::move(w.u32(6).u32(5).tv(11, 12).tv(13, 14));
}
view_vstat_v8_t vs8() {
  view_vstat_t v = sample_vstat();
  return view_vstat_v8_t{v.fstat, v.mtype, v.elem_oid, v.obj_oid, v.event_time};
}
W put_vs8(W w) {
  view_vstat_t v = sample_vstat();
  w = put_fstat(std::move(w), v.fstat);
  return std::move(w.i32(v.mtype).oid(v.elem_oid).oid(v.obj_oid).tv(v.event_time));
}

template <class T>
T zeroed() {
  T t;
  std::memset(&t, 0, sizeof t);
  return t;
}

// Encodes `rec` and compares with `expected`; decodes the image, re-encodes and compares again;
// every strict prefix and the image with trailing bytes fail to decode.
template <class T>
void check(const char* what, bool_t (*filter)(XDR*, T*), const T& rec, const std::string& expected,
           const T& blank = zeroed<T>()) {
  SCOPED_TRACE(what);
  std::string got, again;
  ASSERT_TRUE(xdr_encode_record(filter, rec, &got));
  EXPECT_EQ(got, expected);
  Xdr_Record<T> back(filter);
  back.get() = blank;
  ASSERT_TRUE(xdr_decode_record(filter, &back.get(), got));
  ASSERT_TRUE(xdr_encode_record(filter, back.get(), &again));
  EXPECT_EQ(again, expected);
  for (size_t n = 0; n <= got.size(); ++n) {
    Xdr_Record<T> t(filter);
    t.get() = blank;
    std::string img = n < got.size() ? got.substr(0, n) : got + std::string(4, '\0');
    EXPECT_FALSE(xdr_decode_record(filter, &t.get(), img)) << "length " << img.size();
  }
}

// A reply with status 0 is its header and `body`; with a failure status, its header and `failed`.
template <class T>
void reply(const char* what, bool_t (*filter)(XDR*, T*), T rec, const W& body, const W& failed = W()) {
  rec.hdr = hdrr(0);
  check(what, filter, rec, put_hdrr(W(), 0).b + body.b);
  rec.hdr = hdrr(TBS_ST_STALE);
  check(what, filter, rec, put_hdrr(W(), TBS_ST_STALE).b + failed.b);
}

}  // namespace

TEST(ViewRecords, PartsAndRequests) {
  const view_hdr_req_t h = hdrq();
  const view_fhandle_t f = fh();
  char target[] = "../other/file", residual[] = "rest/of/path", pathname[] = "/proj/sub";
  check("hdr_reply", xdr_view_hdr_reply_t, hdrr(-5), put_hdrr(W(), -5).b);
  check("readlink", xdr_view_readlink_req_t, view_readlink_req_t{h, f, 1024}, put_fh(put_hdrq(W())).u32(1024).b);
  check("setattr", xdr_view_setattr_req_t, view_setattr_req_t{h, f, sattr(0x8)},
        put_sattr(put_fh(put_hdrq(W())), 0x8).b);
  check("create", xdr_view_create_req_t, view_create_req_t{h, dirarg("new.c"), sattr(0xC), 4096, {1, 2}},
        put_sattr(put_dirarg(put_hdrq(W()), "new.c"), 0xC).u32(4096).tv(1, 2).b);
  check("mkdir", xdr_view_mkdir_req_t, view_mkdir_req_t{h, dirarg("sub"), sattr(0x4), {3, 4}},
        put_sattr(put_dirarg(put_hdrq(W()), "sub"), 0x4).tv(3, 4).b);
  check("symlink", xdr_view_symlink_req_t, view_symlink_req_t{h, dirarg("ln"), target, sattr(0), {5, 6}},
        put_sattr(put_dirarg(put_hdrq(W()), "ln").str(target), 0).tv(5, 6).b);
  check("rename", xdr_view_rename_req_t, view_rename_req_t{h, dirarg("a"), dirarg("bb"), {7, 8}},
        put_dirarg(put_dirarg(put_hdrq(W()), "a"), "bb").tv(7, 8).b);
  check("lookup", xdr_view_lookup_req_t, view_lookup_req_t{h, f, "name", 0, residual},
        put_fh(put_hdrq(W())).str("name").i32(0).str(residual).b);
  check("readdir", xdr_view_readdir_req_t, view_readdir_req_t{h, f, 7, 8192},
        put_fh(put_hdrq(W())).u32(7).i32(0).u32(8192).b);
  check("readdir_ext", xdr_view_readdir_ext_req_t, view_readdir_ext_req_t{h, f, 3, "start", 1, 8000},
        put_fh(put_hdrq(W())).u32(3).i32(0).str("start").u32(1).u32(8000).b);
  check("gpath", xdr_view_gpath_req_t, view_gpath_req_t{h, f, 1, 1024, 2048},
        put_fh(put_hdrq(W())).u32(1).u32(1024).u32(2048).b);
  check("invalidate", xdr_view_invalidate_req_t, view_invalidate_req_t{h, 4, oid_n(1), oid_n(2), "gone"},
        put_hdrq(W()).i32(4).oid(oid_n(1)).oid(oid_n(2)).str("gone").b);
  // warp stands before pathname on the wire.
  check("replica_root", xdr_view_replica_root_req_t,
        view_replica_root_req_t{h, oid_n(3), uuid_n(4), "host1", "/srv/silo", pathname, 1},
        put_hdrq(W()).oid(oid_n(3)).uuid(uuid_n(4)).str("host1").str("/srv/silo").i32(1).str(pathname).b);
  check("eacl_rolemap", xdr_view_eacl_rolemap_req_t, view_eacl_rolemap_req_t{h, uuid_n(5), oid_n(6), {{1, 2}, 3}},
        put_hdrq(W()).uuid(uuid_n(5)).oid(oid_n(6)).tv(1, 2).u32(3).b);
}

TEST(ViewRecords, Replies) {
  const view_vstat_t vs = sample_vstat();
  const view_hdr_reply_t h{};
  const view_dir_mod_t dm{vs, 1};
  const W wdm = put_vstat(W(), vs).u32(1);
  char cpath[] = "/cache/f", p1[] = "/view/a", p2[] = "/ext/a";
  reply("dir_mod", xdr_view_dir_mod_reply_t, view_dir_mod_reply_t{h, dm}, wdm);
  reply("getattr", xdr_view_getattr_reply_t, view_getattr_reply_t{h, vs, 0x2000, fh(), {3, 4}, 1},
        put_fh(put_vstat(W(), vs).u32(0x2000)).tv(3, 4).u32(1));
  // Lookup keeps the name state whatever the status.
  reply("lookup", xdr_view_lookup_reply_t, view_lookup_reply_t{h, 0x21, fh(), vs, 5, 1, {6, 7}},
        put_vstat(put_fh(W().u32(0x21)), vs).u32(5).u32(1).tv(6, 7), W().u32(0x21));
  reply("create", xdr_view_create_reply_t, view_create_reply_t{h, fh(), vs, dm, 12, cpath},
        W{put_vstat(put_fh(W()), vs).b + wdm.b}.u32(12).str(cpath));
  reply("cltxt", xdr_view_cltxt_reply_t, view_cltxt_reply_t{h, 8, cpath, 1}, W().u32(8).str(cpath).u32(1));
  reply("gpath", xdr_view_gpath_reply_t, view_gpath_reply_t{h, 7, p1, 6, p2}, W().u32(7).str(p1).u32(6).str(p2));
  reply("getprop", xdr_view_getprop_reply_t, view_getprop_reply_t{h, 42}, W().u32(42), W().u32(42));
  view_eacl_rolemap_reply_t er{h, {2, 3, {'a', 'b', 'c'}}, {{1, 2}, 3}, {4, 5}, oid_n(8)};
  reply("eacl_rolemap", xdr_view_eacl_rolemap_reply_t, er,
        W().u32(2).str("abc").tv(1, 2).u32(3).tv(4, 5).oid(oid_n(8)));
  reply("lookup_v8", xdr_view_lookup_v8_reply_t, view_lookup_v8_reply_t{h, 1, fh(), vs8(), 2, 0, {3, 4}},
        put_vs8(put_fh(W().u32(1))).u32(2).u32(0).tv(3, 4), W().u32(1));
  // Status 1063 of getattr carries the name state alone.
  view_getattr_reply_t gr = zeroed<view_getattr_reply_t>();
  gr.hdr = hdrr(TBS_ST_NO_PERMISSION);
  gr.name_state = 0x40;
  check("getattr_1063", xdr_view_getattr_reply_t, gr, put_hdrr(W(), TBS_ST_NO_PERMISSION).u32(0x40).b);
}

TEST(ViewRecords, InlineAndFieldPathsGiveTheSameBytes) {
  // A stream that never offers an inline area forces the field filters.
  static std::remove_const_t<std::remove_pointer_t<decltype(XDR::x_ops)>> no_inline_ops;
  char buf[512];
  XDR x;
  xdrmem_create(&x, buf, sizeof buf, XDR_ENCODE);
  no_inline_ops = *x.x_ops;
  no_inline_ops.x_inline = [](XDR*, u_int) -> int32_t* { return nullptr; };
  x.x_ops = &no_inline_ops;
  view_getattr_req_t r{hdrq(), fh()};
  view_hdr_reply_t h = hdrr(-1);
  view_bhandle_t bh{7, 8};
  ASSERT_TRUE(xdr_view_getattr_req_t(&x, &r) && xdr_view_hdr_reply_t(&x, &h) && xdr_view_bhandle_t(&x, &bh));
  std::string slow(buf, xdr_getpos(&x));
  EXPECT_EQ(slow, put_fh(put_hdrq(W())).b + put_hdrr(W(), -1).b + W().u32(7).u32(8).b);
  XDR d;
  xdrmem_create(&d, slow.data(), unsigned(slow.size()), XDR_DECODE);
  d.x_ops = &no_inline_ops;
  view_getattr_req_t back = zeroed<view_getattr_req_t>();
  ASSERT_TRUE(xdr_view_getattr_req_t(&d, &back));
  EXPECT_EQ(back.fh.ver_dbid, 0x80000005u);
  EXPECT_EQ(back.hdr.xid, 0xA1B2C3D4u);
}

TEST(ViewRecords, OutOfRangeValuesFailToEncode) {
  std::string out;
  EXPECT_FALSE(xdr_encode_record(xdr_view_readlink_req_t, view_readlink_req_t{hdrq(), fh(), size_t(1) << 33}, &out));
  EXPECT_FALSE(xdr_encode_record(xdr_view_eacl_cursor_t, view_eacl_cursor_t{{time_t(1) << 40, 0}, 0}, &out));
  view_dir_arg_t a = dirarg("x");
  std::memset(a.name, 'n', sizeof a.name);  // not terminated within 255 characters
  EXPECT_FALSE(xdr_encode_record(xdr_view_dir_arg_t, a, &out));
}

namespace {

view_readdir_reply_t listing(unsigned capacity) { return view_readdir_reply_t{hdrr(0), 0, 0, 0, capacity, nullptr}; }

}  // namespace

TEST(ViewReaddir, ListingImages) {
  view_readdir_reply_t empty = listing(0);
  empty.eof = 1;
  check("empty", xdr_view_readdir_reply_t, empty, put_hdrr(W(), 0).u32(0).u32(1).b);
  Xdr_Record<view_readdir_reply_t> two(xdr_view_readdir_reply_t);
  two.get() = listing(256);
  ASSERT_TRUE(view_dirent_append(&two.get(), 100, 2, "a.c"));
  ASSERT_TRUE(view_dirent_append(&two.get(), 101, 3, "longer_name"));
  two->eof = 1;
  check("two", xdr_view_readdir_reply_t, two.get(),
        put_hdrr(W(), 0).str("a.c").u32(100).u32(2).i32(0).str("longer_name").u32(101).u32(3).i32(0).u32(0).u32(1).b,
        listing(256));
  Xdr_Record<view_readdir_ext_reply_t> ext(xdr_view_readdir_ext_reply_t);
  ext.get() = listing(256);
  ASSERT_TRUE(
      view_dirent_ext_append(&ext.get(), view_dirent_ext_fields{200, 2, 0x2000, 0, oid_n(1), 5, oid_n(2), 6}, "e"));
  check("ext", xdr_view_readdir_ext_reply_t, ext.get(),
        put_hdrr(W(), 0).str("e").u32(200).u32(2).i32(0).u32(0x2000).u32(0).oid(oid_n(1)).i32(5).oid(oid_n(2)).i32(6)
            .u32(0).u32(0).b,
        listing(256));
  view_readdir_reply_t failed = listing(0);
  failed.hdr = hdrr(TBS_ST_STALE);
  check("failed", xdr_view_readdir_reply_t, failed, put_hdrr(W(), TBS_ST_STALE).b);
}

TEST(ViewReaddir, PayloadLimitClearsEofAndCapacityLimitsDecode) {
  Xdr_Record<view_readdir_reply_t> big(xdr_view_readdir_reply_t);
  big.get() = listing(64 * 1024);
  std::string name(200, 'x');
  for (int n = 0; n < 100; ++n) {
    name[0] = char('A' + n % 26);
    name[1] = char('A' + n / 26);
    ASSERT_TRUE(view_dirent_append(&big.get(), 1000 + n, 2 + n, name.c_str()));
  }
  big->eof = 1;
  std::string img;
  ASSERT_TRUE(xdr_encode_record(xdr_view_readdir_reply_t, big.get(), &img, 16384));
  EXPECT_LE(img.size(), VIEW_LPC_PAYLOAD);  // 8 header bytes + at most 8744 of entries and end marker
  Xdr_Record<view_readdir_reply_t> back(xdr_view_readdir_reply_t);
  back.get() = listing(64 * 1024);
  ASSERT_TRUE(xdr_decode_record(xdr_view_readdir_reply_t, &back.get(), img));
  EXPECT_EQ(back->eof, 0);
  const unsigned per = view_dirent_reclen(200), entries = back->used / per;
  EXPECT_EQ(entries, 40u);  // wire entries of 4 + 200 + 12 bytes: 40 fit in 8744
  EXPECT_EQ(back->cursor, 2 + entries - 1);
  // A small capacity takes what fits and reports eof false with the last offset taken.
  Xdr_Record<view_readdir_reply_t> small(xdr_view_readdir_reply_t);
  small.get() = listing(2 * per);
  XDR x;
  xdrmem_create(&x, img.data(), unsigned(img.size()), XDR_DECODE);
  ASSERT_TRUE(small.code(&x));
  EXPECT_EQ(small->used, 2 * per);
  EXPECT_EQ(small->eof, 0);
  EXPECT_EQ(small->cursor, 3u);
}

TEST(ViewReaddir, BrokenEntriesFailTheFilter) {
  Xdr_Record<view_readdir_reply_t> r(xdr_view_readdir_reply_t);
  r.get() = listing(64);
  ASSERT_TRUE(view_dirent_append(&r.get(), 1, 2, "abc"));
  std::string out;
  for (uint16_t reclen : {0, 8}) {  // zero, and too short for the name
    std::memcpy(r->buffer + 8, &reclen, 2);
    EXPECT_FALSE(xdr_encode_record(xdr_view_readdir_reply_t, r.get(), &out)) << reclen;
  }
  // A name with a NUL, or longer than 255 bytes, fails to decode.
  for (const std::string& name : {std::string("a\0b", 3), std::string(256, 'a')}) {
    Xdr_Record<view_readdir_reply_t> d(xdr_view_readdir_reply_t);
    d.get() = listing(1024);
    EXPECT_FALSE(xdr_decode_record(xdr_view_readdir_reply_t, &d.get(),
                                   put_hdrr(W(), 0).str(name).u32(1).u32(2).i32(0).u32(0).u32(1).b));
  }
}
