#include "proto/view_records.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <type_traits>

#include "proto/proto_test_util.h"

using namespace proto_test;

namespace {

view_hdr_req_t hdrq() { return view_hdr_req_t{1700000200, 0xA1B2C3D4u, uuid_n(9), {17, 18}}; }
W put_hdrq(W w) {
  w.i32(1700000200).u32(0xA1B2C3D4u).uuid(uuid_n(9)).u32(17).u32(18);
  return w;
}
view_hdr_reply_t hdrr(tbs_status_t st) { return view_hdr_reply_t{0x01020304u, st}; }
W put_hdrr(W w, tbs_status_t st) {
  w.u32(0x01020304u).i32(st);
  return w;
}
view_fhandle_t fh() { return view_fhandle_t{uuid_n(2), 0x80000005u, 0x80000004u, 3, 1, 0}; }
W put_fh(W w) {
  w.uuid(uuid_n(2)).u32(0x80000005u).u32(0x80000004u).u32(3).u32(1).u32(0);
  return w;
}
view_dir_arg_t dirarg(const char* name) {
  view_dir_arg_t a;
  std::memset(&a, 0, sizeof a);
  a.dir = fh();
  std::snprintf(a.name, sizeof a.name, "%s", name);
  return a;
}
W put_dirarg(W w, const char* name) {
  w = put_fh(std::move(w));
  w.str(name);
  return w;
}
view_set_attr_t sattr(uint32_t mask) {
  view_set_attr_t s;
  std::memset(&s, 0, sizeof s);
  s.mask = mask;
  s.second = 2;
  s.mode = 0640;
  s.owner.len = 3;
  std::memcpy(s.owner.bytes, "own", 3);
  s.group.len = 3;
  std::memcpy(s.group.bytes, "grp", 3);
  s.size = 0x0000000500000006ull;
  s.atime = {11, 12};
  s.mtime = {13, 14};
  return s;
}
W put_sattr(W w, uint32_t mask, bool owner_sent, bool group_sent) {
  view_set_attr_t s = sattr(mask);
  w.u32(mask).u32(2).u32(0640);
  w.sid(owner_sent ? s.owner : CREDUTL_SID_DONTCARE).sid(group_sent ? s.group : CREDUTL_SID_DONTCARE);
  w.u32(6).u32(5).tv(11, 12).tv(13, 14);
  return w;
}
view_vstat_v8_t vs8() {
  view_vstat_v8_t v;
  std::memset(&v, 0, sizeof v);
  view_vstat_t full = sample_vstat();
  v.fstat = full.fstat;
  v.mtype = full.mtype;
  v.elem_oid = full.elem_oid;
  v.obj_oid = full.obj_oid;
  v.event_time = full.event_time;
  return v;
}
W put_vs8(W w) {
  view_vstat_t v = sample_vstat();
  w = put_fstat(std::move(w), v.fstat);
  w.i32(v.mtype).oid(v.elem_oid).oid(v.obj_oid).tv(v.event_time);
  return w;
}

// Encodes `rec`, compares with `expected`, decodes the image back, re-encodes and compares again,
// and checks that every strict prefix and a longer buffer fail to decode.
template <class T>
void check(const char* what, bool_t (*filter)(XDR*, T*), const T& rec, const std::string& expected,
           const T* blank = nullptr) {
  auto fresh = [blank] {
    T t;
    if (blank) t = *blank;
    else std::memset(&t, 0, sizeof t);
    return t;
  };
  SCOPED_TRACE(what);
  std::string got;
  ASSERT_TRUE(xdr_encode_record(filter, rec, &got));
  EXPECT_EQ(got, expected);
  T back = fresh();
  ASSERT_TRUE(xdr_decode_record(filter, &back, got));
  std::string again;
  ASSERT_TRUE(xdr_encode_record(filter, back, &again));
  EXPECT_EQ(again, expected);
  xdr_free_record(filter, &back);
  for (size_t n = 0; n < got.size(); ++n) {
    T t = fresh();
    EXPECT_FALSE(xdr_decode_record(filter, &t, got.data(), unsigned(n))) << "prefix " << n;
    xdr_free_record(filter, &t);
  }
  T t = fresh();
  EXPECT_FALSE(xdr_decode_record(filter, &t, got + std::string(4, '\0')));
  xdr_free_record(filter, &t);
}

template <class T>
T zeroed() {
  T t;
  std::memset(&t, 0, sizeof t);
  return t;
}

}  // namespace

TEST(ViewRecords, BasicRecords) {
  check("hdr_req", xdr_view_hdr_req_t, hdrq(), put_hdrq(W()).b);
  check("hdr_reply", xdr_view_hdr_reply_t, hdrr(-5), W().u32(0x01020304u).i32(-5).b);
  check("fhandle", xdr_view_fhandle_t, fh(), put_fh(W()).b);
  check("bhandle", xdr_view_bhandle_t, view_bhandle_t{1, 2}, W().u32(1).u32(2).b);
  check("eacl_cursor", xdr_view_eacl_cursor_t, view_eacl_cursor_t{{5, 6}, 7}, W().tv(5, 6).u32(7).b);
  check("dir_arg", xdr_view_dir_arg_t, dirarg("file.c"), put_dirarg(W(), "file.c").b);
  check("vstat", xdr_view_vstat_t, sample_vstat(), put_vstat(W(), sample_vstat()).b);
  check("vstat_v8", xdr_view_vstat_v8_t, vs8(), put_vs8(W()).b);
  check("dir_mod", xdr_view_dir_mod_t, view_dir_mod_t{sample_vstat(), 1},
        put_vstat(W(), sample_vstat()).u32(1).b);
  check("dir_mod_v8", xdr_view_dir_mod_v8_t, view_dir_mod_v8_t{vs8(), 0}, put_vs8(W()).u32(0).b);
  check("set_attr_all", xdr_view_set_attr_t, sattr(0xC), put_sattr(W(), 0xC, true, true).b);
}

TEST(ViewRecords, SetAttrSendsDontCareForUnsetIdentities) {
  // The owner and group in memory are stale values; with mask bits 4 and 8 clear the wire carries
  // the don't-care identity instead.
  std::string got;
  ASSERT_TRUE(xdr_encode_record(xdr_view_set_attr_t, sattr(0x1), &got));
  EXPECT_EQ(got, put_sattr(W(), 0x1, false, false).b);
  ASSERT_TRUE(xdr_encode_record(xdr_view_set_attr_t, sattr(0x4), &got));
  EXPECT_EQ(got, put_sattr(W(), 0x4, true, false).b);
  view_set_attr_t back = zeroed<view_set_attr_t>();
  ASSERT_TRUE(xdr_decode_record(xdr_view_set_attr_t, &back, got));
  EXPECT_TRUE(credutl_sid_eq(back.group, CREDUTL_SID_DONTCARE));
  EXPECT_EQ(back.size, 0x0000000500000006ull);
}

TEST(ViewRecords, Requests) {
  {
    view_null_req_t r{hdrq()};
    check("null_req", xdr_view_null_req_t, r, put_hdrq(W()).b);
  }
  {
    view_getattr_req_t r{hdrq(), fh()};
    check("getattr_req", xdr_view_getattr_req_t, r, put_fh(put_hdrq(W())).b);
  }
  {
    view_readlink_req_t r{hdrq(), fh(), 1024};
    check("readlink_req", xdr_view_readlink_req_t, r, put_fh(put_hdrq(W())).u32(1024).b);
  }
  {
    view_setattr_req_t r{hdrq(), fh(), sattr(0x8)};
    check("setattr_req", xdr_view_setattr_req_t, r, put_sattr(put_fh(put_hdrq(W())), 0x8, false, true).b);
  }
  {
    view_dir_req_t r{hdrq(), dirarg("d"), {21, 22}};
    check("dir_req", xdr_view_dir_req_t, r, put_dirarg(put_hdrq(W()), "d").tv(21, 22).b);
  }
  {
    view_create_req_t r{hdrq(), dirarg("new.c"), sattr(0xC), 4096, {1, 2}};
    check("create_req", xdr_view_create_req_t, r,
          put_sattr(put_dirarg(put_hdrq(W()), "new.c"), 0xC, true, true).u32(4096).tv(1, 2).b);
  }
  {
    view_mkdir_req_t r{hdrq(), dirarg("sub"), sattr(0), {3, 4}};
    check("mkdir_req", xdr_view_mkdir_req_t, r,
          put_sattr(put_dirarg(put_hdrq(W()), "sub"), 0, false, false).tv(3, 4).b);
  }
  {
    char target[] = "../other/file";
    view_symlink_req_t r{hdrq(), dirarg("ln"), target, sattr(0), {5, 6}};
    check("symlink_req", xdr_view_symlink_req_t, r,
          put_sattr(put_dirarg(put_hdrq(W()), "ln").str(target), 0, false, false).tv(5, 6).b);
  }
  {
    view_rename_req_t r{hdrq(), dirarg("a"), dirarg("bb"), {7, 8}};
    check("rename_req", xdr_view_rename_req_t, r,
          put_dirarg(put_dirarg(put_hdrq(W()), "a"), "bb").tv(7, 8).b);
  }
  {
    view_link_req_t r{hdrq(), fh(), dirarg("hard"), {9, 10}};
    check("link_req", xdr_view_link_req_t, r, put_dirarg(put_fh(put_hdrq(W())), "hard").tv(9, 10).b);
  }
  {
    char residual[] = "rest/of/path";
    view_lookup_req_t r = zeroed<view_lookup_req_t>();
    r.hdr = hdrq();
    r.dir = fh();
    std::strcpy(r.name, "name");
    r.warp = 0;
    r.residual = residual;
    check("lookup_req", xdr_view_lookup_req_t, r, put_fh(put_hdrq(W())).str("name").i32(0).str(residual).b);
  }
  {
    view_readdir_req_t r{hdrq(), fh(), 7, 8192};
    check("readdir_req", xdr_view_readdir_req_t, r, put_fh(put_hdrq(W())).u32(7).i32(0).u32(8192).b);
  }
  {
    view_readdir_ext_req_t r = zeroed<view_readdir_ext_req_t>();
    r.hdr = hdrq();
    r.fh = fh();
    r.cursor = 3;
    std::strcpy(r.name, "start");
    r.flags = 1;
    r.max_size = 8000;
    check("readdir_ext_req", xdr_view_readdir_ext_req_t, r,
          put_fh(put_hdrq(W())).u32(3).i32(0).str("start").u32(1).u32(8000).b);
  }
  {
    view_gpath_req_t r{hdrq(), fh(), 1, 1024, 2048};
    check("gpath_req", xdr_view_gpath_req_t, r, put_fh(put_hdrq(W())).u32(1).u32(1024).u32(2048).b);
  }
  {
    view_change_oid_req_t r{hdrq(), fh(), 2};
    check("change_oid_req", xdr_view_change_oid_req_t, r, put_fh(put_hdrq(W())).i32(2).b);
  }
  {
    view_change_mtype_req_t r{hdrq(), fh(), 19};
    check("change_mtype_req", xdr_view_change_mtype_req_t, r, put_fh(put_hdrq(W())).i32(19).b);
  }
  {
    view_invalidate_req_t r = zeroed<view_invalidate_req_t>();
    r.hdr = hdrq();
    r.type = VIEW_INVALIDATE_NAME;
    r.silo_oid = oid_n(1);
    r.obj_oid = oid_n(2);
    std::strcpy(r.name, "gone");
    check("invalidate_req", xdr_view_invalidate_req_t, r,
          put_hdrq(W()).i32(4).oid(oid_n(1)).oid(oid_n(2)).str("gone").b);
  }
  {
    char pathname[] = "/proj/sub";
    view_replica_root_req_t r = zeroed<view_replica_root_req_t>();
    r.hdr = hdrq();
    r.silo_oid = oid_n(3);
    r.replica_uuid = uuid_n(4);
    std::strcpy(r.host, "host1");
    std::strcpy(r.path, "/srv/silo");
    r.pathname = pathname;
    r.warp = 1;
    // warp stands before pathname on the wire.
    check("replica_root_req", xdr_view_replica_root_req_t, r,
          put_hdrq(W()).oid(oid_n(3)).uuid(uuid_n(4)).str("host1").str("/srv/silo").i32(1).str(pathname).b);
  }
  {
    view_getprop_req_t r{hdrq(), 3};
    check("getprop_req", xdr_view_getprop_req_t, r, put_hdrq(W()).i32(3).b);
  }
  {
    view_eacl_rolemap_req_t r{hdrq(), uuid_n(5), oid_n(6), {{1, 2}, 3}};
    check("eacl_rolemap_req", xdr_view_eacl_rolemap_req_t, r,
          put_hdrq(W()).uuid(uuid_n(5)).oid(oid_n(6)).tv(1, 2).u32(3).b);
  }
}

TEST(ViewRecords, RepliesWithStatusZero) {
  view_vstat_t vs = sample_vstat();
  view_dir_mod_t dm{vs, 1};
  check("null_reply", xdr_view_null_reply_t, view_null_reply_t{hdrr(0)}, put_hdrr(W(), 0).b);
  check("dir_reply", xdr_view_dir_reply_t, view_dir_reply_t{hdrr(0), vs}, put_vstat(put_hdrr(W(), 0), vs).b);
  check("dir_mod_reply", xdr_view_dir_mod_reply_t, view_dir_mod_reply_t{hdrr(0), dm},
        put_vstat(put_hdrr(W(), 0), vs).u32(1).b);
  check("getattr_reply", xdr_view_getattr_reply_t, view_getattr_reply_t{hdrr(0), vs, 0x2000, fh(), {3, 4}, 1},
        put_fh(put_vstat(put_hdrr(W(), 0), vs).u32(0x2000)).tv(3, 4).u32(1).b);
  check("root_reply", xdr_view_root_reply_t, view_root_reply_t{hdrr(0), vs, fh(), 0},
        put_fh(put_vstat(put_hdrr(W(), 0), vs)).u32(0).b);
  check("lookup_reply", xdr_view_lookup_reply_t, view_lookup_reply_t{hdrr(0), 0x21, fh(), vs, 5, 1, {6, 7}},
        put_vstat(put_fh(put_hdrr(W(), 0).u32(0x21)), vs).u32(5).u32(1).tv(6, 7).b);
  char cpath[] = "/cache/f";
  check("create_reply", xdr_view_create_reply_t, view_create_reply_t{hdrr(0), fh(), vs, dm, 12, cpath},
        put_vstat(put_vstat(put_fh(put_hdrr(W(), 0)), vs), vs).u32(1).u32(12).str(cpath).b);
  check("symlink_reply", xdr_view_symlink_reply_t, view_symlink_reply_t{hdrr(0), fh(), vs, dm},
        put_vstat(put_vstat(put_fh(put_hdrr(W(), 0)), vs), vs).u32(1).b);
  char text[] = "../t";
  check("readlink_reply", xdr_view_readlink_reply_t, view_readlink_reply_t{hdrr(0), 4, text},
        put_hdrr(W(), 0).u32(4).str(text).b);
  check("cltxt_reply", xdr_view_cltxt_reply_t, view_cltxt_reply_t{hdrr(0), 8, cpath, 1},
        put_hdrr(W(), 0).u32(8).str(cpath).u32(1).b);
  char p1[] = "/view/a", p2[] = "/ext/a";
  check("gpath_reply", xdr_view_gpath_reply_t, view_gpath_reply_t{hdrr(0), 7, p1, 6, p2},
        put_hdrr(W(), 0).u32(7).str(p1).u32(6).str(p2).b);
  check("getprop_reply", xdr_view_getprop_reply_t, view_getprop_reply_t{hdrr(9), 42},
        put_hdrr(W(), 9).u32(42).b);
  view_eacl_rolemap_reply_t er = zeroed<view_eacl_rolemap_reply_t>();
  er.hdr = hdrr(0);
  er.fragment.count = 2;
  er.fragment.len = 3;
  std::memcpy(er.fragment.bytes, "abc", 3);
  er.cursor = {{1, 2}, 3};
  er.time = {4, 5};
  er.oid = oid_n(8);
  check("eacl_rolemap_reply", xdr_view_eacl_rolemap_reply_t, er,
        put_hdrr(W(), 0).u32(2).str("abc").tv(1, 2).u32(3).tv(4, 5).oid(oid_n(8)).b);

  view_dir_mod_v8_t dm8{vs8(), 0};
  check("lookup_v8_reply", xdr_view_lookup_v8_reply_t, view_lookup_v8_reply_t{hdrr(0), 1, fh(), vs8(), 2, 0, {3, 4}},
        put_vs8(put_fh(put_hdrr(W(), 0).u32(1))).u32(2).u32(0).tv(3, 4).b);
  check("getattr_v8_reply", xdr_view_getattr_v8_reply_t, view_getattr_v8_reply_t{hdrr(0), vs8(), fh(), {1, 1}, 1},
        put_fh(put_vs8(put_hdrr(W(), 0))).tv(1, 1).u32(1).b);
  check("root_v8_reply", xdr_view_root_v8_reply_t, view_root_v8_reply_t{hdrr(0), vs8(), fh(), 1},
        put_fh(put_vs8(put_hdrr(W(), 0))).u32(1).b);
  check("create_v8_reply", xdr_view_create_v8_reply_t, view_create_v8_reply_t{hdrr(0), fh(), vs8(), dm8, 3, cpath},
        put_vs8(put_vs8(put_fh(put_hdrr(W(), 0)))).u32(0).u32(3).str(cpath).b);
  check("symlink_v8_reply", xdr_view_symlink_v8_reply_t, view_symlink_v8_reply_t{hdrr(0), fh(), vs8(), dm8},
        put_vs8(put_vs8(put_fh(put_hdrr(W(), 0)))).u32(0).b);
  check("dir_v8_reply", xdr_view_dir_v8_reply_t, view_dir_v8_reply_t{hdrr(0), vs8()}, put_vs8(put_hdrr(W(), 0)).b);
  check("dir_mod_v8_reply", xdr_view_dir_mod_v8_reply_t, view_dir_mod_v8_reply_t{hdrr(0), dm8},
        put_vs8(put_hdrr(W(), 0)).u32(0).b);
}

TEST(ViewRecords, FailureStatusesCarryOnlyTheirFields) {
  // Lookup keeps the name state for any status; getattr with 1063 carries the name state alone;
  // other replies carry only the header.
  view_lookup_reply_t lr = zeroed<view_lookup_reply_t>();
  lr.hdr = hdrr(TBS_ST_NOT_FOUND);
  lr.name_state = 0x2000;
  check("lookup_fail", xdr_view_lookup_reply_t, lr, put_hdrr(W(), TBS_ST_NOT_FOUND).u32(0x2000).b);
  view_getattr_reply_t gr = zeroed<view_getattr_reply_t>();
  gr.hdr = hdrr(TBS_ST_NO_PERMISSION);
  gr.name_state = 0x40;
  check("getattr_1063", xdr_view_getattr_reply_t, gr, put_hdrr(W(), TBS_ST_NO_PERMISSION).u32(0x40).b);
  gr.hdr = hdrr(TBS_ST_STALE);
  check("getattr_stale", xdr_view_getattr_reply_t, gr, put_hdrr(W(), TBS_ST_STALE).b);
  view_create_reply_t cr = zeroed<view_create_reply_t>();
  cr.hdr = hdrr(TBS_ST_EXISTS);
  check("create_fail", xdr_view_create_reply_t, cr, put_hdrr(W(), TBS_ST_EXISTS).b);
  view_getattr_v8_reply_t g8 = zeroed<view_getattr_v8_reply_t>();
  g8.hdr = hdrr(TBS_ST_NO_PERMISSION);
  check("getattr_v8_1063", xdr_view_getattr_v8_reply_t, g8, put_hdrr(W(), TBS_ST_NO_PERMISSION).b);
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
  ASSERT_TRUE(xdr_view_getattr_req_t(&x, &r));
  view_hdr_reply_t h = hdrr(-1);
  ASSERT_TRUE(xdr_view_hdr_reply_t(&x, &h));
  std::string slow(buf, xdr_getpos(&x));
  std::string fast1, fast2;
  ASSERT_TRUE(xdr_encode_record(xdr_view_getattr_req_t, r, &fast1));
  ASSERT_TRUE(xdr_encode_record(xdr_view_hdr_reply_t, h, &fast2));
  EXPECT_EQ(slow, fast1 + fast2);

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
  view_readlink_req_t r{hdrq(), fh(), size_t(1) << 33};
  EXPECT_FALSE(xdr_encode_record(xdr_view_readlink_req_t, r, &out));
  view_eacl_cursor_t c{{time_t(1) << 40, 0}, 0};
  EXPECT_FALSE(xdr_encode_record(xdr_view_eacl_cursor_t, c, &out));
  view_dir_arg_t a = dirarg("x");
  std::memset(a.name, 'n', sizeof a.name);  // not terminated within 255 characters
  EXPECT_FALSE(xdr_encode_record(xdr_view_dir_arg_t, a, &out));
}

namespace {

view_readdir_reply_t listing(unsigned capacity) {
  view_readdir_reply_t r = zeroed<view_readdir_reply_t>();
  r.hdr = hdrr(0);
  r.capacity = capacity;
  return r;
}

}  // namespace

TEST(ViewReaddir, EmptyAndSmallListings) {
  view_readdir_reply_t r = listing(0);
  r.eof = 1;
  check("empty", xdr_view_readdir_reply_t, r, put_hdrr(W(), 0).u32(0).u32(1).b);

  view_readdir_reply_t two = listing(256);
  ASSERT_TRUE(view_dirent_append(&two, 100, 2, "a.c"));
  ASSERT_TRUE(view_dirent_append(&two, 101, 3, "longer_name"));
  two.eof = 1;
  W w = put_hdrr(W(), 0);
  w.str("a.c").u32(100).u32(2).i32(0).str("longer_name").u32(101).u32(3).i32(0).u32(0).u32(1);
  view_readdir_reply_t blank = listing(256);
  check("two", xdr_view_readdir_reply_t, two, w.b, &blank);
  xdr_free_record(xdr_view_readdir_reply_t, &two);

  view_readdir_ext_reply_t ext = listing(256);
  view_dirent_ext_fields f{200, 2, 0x2000, 0, oid_n(1), 5, oid_n(2), 6};
  ASSERT_TRUE(view_dirent_ext_append(&ext, f, "e"));
  ext.eof = 0;
  W we = put_hdrr(W(), 0);
  we.str("e").u32(200).u32(2).i32(0).u32(0x2000).u32(0).oid(oid_n(1)).i32(5).oid(oid_n(2)).i32(6);
  we.u32(0).u32(0);
  check("ext", xdr_view_readdir_ext_reply_t, ext, we.b, &blank);
  xdr_free_record(xdr_view_readdir_ext_reply_t, &ext);

  view_readdir_reply_t failed = listing(0);
  failed.hdr = hdrr(TBS_ST_STALE);
  check("failed", xdr_view_readdir_reply_t, failed, put_hdrr(W(), TBS_ST_STALE).b);
}

TEST(ViewReaddir, PayloadLimitClearsEofAndCapacityLimitsDecode) {
  view_readdir_reply_t big = listing(64 * 1024);
  std::string name(200, 'x');
  int n = 0;
  for (; n < 100; ++n) {
    name[0] = char('A' + n % 26);
    name[1] = char('A' + n / 26);
    ASSERT_TRUE(view_dirent_append(&big, 1000 + n, 2 + n, name.c_str()));
  }
  big.eof = 1;
  std::string img;
  ASSERT_TRUE(xdr_encode_record(xdr_view_readdir_reply_t, big, &img, 16384));
  EXPECT_LE(img.size(), VIEW_LPC_PAYLOAD);
  // 8 header bytes + at most 8744 bytes of entries and the end marker.
  view_readdir_reply_t back = listing(64 * 1024);
  ASSERT_TRUE(xdr_decode_record(xdr_view_readdir_reply_t, &back, img));
  EXPECT_EQ(back.eof, 0);
  unsigned per = view_dirent_reclen(200);
  unsigned entries = back.used / per;
  EXPECT_GT(entries, 30u);
  EXPECT_LT(entries, 100u);
  EXPECT_EQ(back.cursor, 2 + entries - 1);
  xdr_free_record(xdr_view_readdir_reply_t, &back);

  // A small capacity takes what fits and reports eof false with the last offset taken.
  view_readdir_reply_t small = listing(2 * per);
  XDR x;
  xdrmem_create(&x, img.data(), unsigned(img.size()), XDR_DECODE);
  ASSERT_TRUE(xdr_view_readdir_reply_t(&x, &small));
  EXPECT_EQ(small.used, 2 * per);
  EXPECT_EQ(small.eof, 0);
  EXPECT_EQ(small.cursor, 3u);
  xdr_free_record(xdr_view_readdir_reply_t, &small);
  xdr_free_record(xdr_view_readdir_reply_t, &big);
}

TEST(ViewReaddir, BrokenBuffersFailTheFilter) {
  view_readdir_reply_t r = listing(64);
  ASSERT_TRUE(view_dirent_append(&r, 1, 2, "abc"));
  std::string out;
  uint16_t zero = 0;
  std::memcpy(r.buffer + 8, &zero, 2);  // reclen 0
  EXPECT_FALSE(xdr_encode_record(xdr_view_readdir_reply_t, r, &out));
  uint16_t tiny = 8;
  std::memcpy(r.buffer + 8, &tiny, 2);  // name needs more than reclen allows
  EXPECT_FALSE(xdr_encode_record(xdr_view_readdir_reply_t, r, &out));
  xdr_free_record(xdr_view_readdir_reply_t, &r);

  // Decoding an entry with a NUL in its name or a name over 255 bytes fails.
  W w = put_hdrr(W(), 0);
  w.str(std::string("a\0b", 3)).u32(1).u32(2).i32(0).u32(0).u32(1);
  view_readdir_reply_t d = listing(64);
  EXPECT_FALSE(xdr_decode_record(xdr_view_readdir_reply_t, &d, w.b));
  xdr_free_record(xdr_view_readdir_reply_t, &d);
  W w2 = put_hdrr(W(), 0);
  w2.str(std::string(256, 'a')).u32(1).u32(2).i32(0).u32(0).u32(1);
  d = listing(1024);
  EXPECT_FALSE(xdr_decode_record(xdr_view_readdir_reply_t, &d, w2.b));
  xdr_free_record(xdr_view_readdir_reply_t, &d);
}
