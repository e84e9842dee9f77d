// Record images of the kernel channel, byte for byte, on both sides: what the agent's library writes
// from its native records, what the daemon reads from an image, answers and their outputs, hostile
// images, the LPC header and the status table.
#include "proto/kfsm_records.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "proto/kfsm_status.h"

namespace {

tbs_uuid_s uuid_n(uint8_t seed) {
  tbs_uuid_s u;
  for (int i = 0; i < 16; ++i) u.bytes[i] = uint8_t(seed + i);
  return u;
}
tbs_oid_s oid_n(uint8_t seed) {
  tbs_oid_s o;
  for (int i = 0; i < 16; ++i) o.bytes[i] = uint8_t(seed * 2 + i);
  return o;
}

const uint8_t* B(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }

// Reads the image of a command the way an independent reader would: by offsets.
struct Image {
  std::string all;
  size_t infolen;
  uint32_t u32(size_t off) const { return kfsm_get_u32(B(all) + off); }
  uint16_t u16(size_t off) const { return kfsm_get_u16(B(all) + off); }
  std::string bytes(size_t off, size_t n) const { return all.substr(off, n); }
  size_t heap_start() const { return KFSM_BLOCK_IMAGE + infolen; }
  // The strbuf at `off`: {text, l, m}; text "<null>" for a null slot.
  std::string text(size_t off) const {
    uint32_t slot = u32(off);
    if (slot == 0) return "<null>";
    return std::string(all.c_str() + heap_start() + slot - 1);
  }
};

Image encode(const kfsmcmd_block& b) {
  Image img;
  EXPECT_EQ(kfsm_command_encode(b, &img.all), 0);
  img.infolen = b.infolen;
  return img;
}

kfsmcmd_block block(uint32_t cmd, uint32_t flags, void* info, uint32_t infolen, const char* pn = nullptr) {
  kfsmcmd_block b;
  memset(&b, 0, sizeof b);
  b.cmd = cmd;
  b.flags = flags;
  b.infop = info;
  b.infolen = infolen;
  if (pn) b.pn = b.pn2 = kfsm_strbuf_of(pn);
  return b;
}

std::string raw(const void* p, size_t n) { return std::string(static_cast<const char*>(p), n); }

// One expectation on an image: a field at an offset.
struct Field {
  const char* name;
  size_t off;
  enum { U16, U32, BYTES, TEXT, LEN, CAP } kind;
  uint64_t value;
  std::string bytes;
};

void check(const Image& img, const std::vector<Field>& fields, const char* record) {
  for (const Field& f : fields) {
    SCOPED_TRACE(std::string(record) + "." + f.name);
    switch (f.kind) {
      case Field::U16: EXPECT_EQ(img.u16(f.off), f.value); break;
      case Field::U32: EXPECT_EQ(img.u32(f.off), f.value); break;
      case Field::BYTES: EXPECT_EQ(img.bytes(f.off, f.bytes.size()), f.bytes); break;
      case Field::TEXT: EXPECT_EQ(img.text(f.off), f.bytes); break;
      case Field::LEN: EXPECT_EQ(img.u32(f.off + 4), f.value); break;
      case Field::CAP: EXPECT_EQ(img.u32(f.off + 8), f.value); break;
    }
  }
}

TEST(KfsmImages, EveryRecordAtItsOffsets) {
  const size_t I = KFSM_BLOCK_IMAGE;  // info images follow the block
  const std::string z28(28, '\0'), z108(108, '\0');
  {
    kfsm_mkviewtag_info m;
    memset(&m, 0, sizeof m);
    m.viewtag = kfsm_strbuf_of("vtag");
    m.spath_u = kfsm_strbuf_of("/stg/u");
    m.spath_k = kfsm_strbuf_of("/stg/k");
    m.host = kfsm_strbuf_of("hosty");
    m.rpath = kfsm_strbuf_of("/stg/r");
    m.uuid = uuid_n(1);
    m.flags = 0;
    Image img = encode(block(KFSM_CMD_MKVIEW, KFSM_FLAG_CASE_SENSITIVE, &m, KFSM_MKVIEWTAG_IMAGE));
    EXPECT_EQ(img.all.size() - img.heap_start(), 5u + 7 + 7 + 6 + 7);
    check(img, {{"cmd", 0, Field::U32, 7, ""}, {"flags", 4, Field::U32, 2, ""}, {"pn", 8, Field::TEXT, 0, "<null>"},
                {"pn2", 20, Field::TEXT, 0, "<null>"}, {"infolen", 32, Field::U32, 108, ""},
                {"infop", 36, Field::U32, 0, ""}, {"status", 40, Field::U32, 0, ""},
                {"tag", I + 0, Field::TEXT, 0, "vtag"}, {"tag.l", I + 0, Field::LEN, 4, ""},
                {"tag.m", I + 0, Field::CAP, 5, ""}, {"spath_u", I + 12, Field::TEXT, 0, "/stg/u"},
                {"spath_k", I + 24, Field::TEXT, 0, "/stg/k"}, {"host", I + 36, Field::TEXT, 0, "hosty"},
                {"rpath", I + 48, Field::TEXT, 0, "/stg/r"}, {"uuid", I + 60, Field::BYTES, 0, raw(uuid_n(1).bytes, 16)},
                {"zero", I + 76, Field::BYTES, 0, z28}, {"flags", I + 104, Field::U32, 0, ""}},
          "mkviewtag");
  }
  {
    kfsm_mount_info m;
    memset(&m, 0, sizeof m);
    m.version = 12;
    m.size = 248;
    m.word4 = 1;
    m.mount_point = kfsm_strbuf_of("/proj");
    m.host = kfsm_strbuf_of("hosty");
    m.view_string1 = kfsm_strbuf_of("/views/v1");
    m.view_string2 = kfsm_strbuf_of("/views/v1");
    m.storage = kfsm_strbuf_of("/silos/proj");
    m.family = oid_n(3);
    m.word88 = 3000;
    m.word92 = 1;
    m.replica = uuid_n(4);
    Image img = encode(block(KFSM_CMD_MOUNT, 0, &m, KFSM_MOUNT_IMAGE, "vtag"));
    check(img, {{"cmd", 0, Field::U32, 36, ""}, {"pn", 8, Field::TEXT, 0, "vtag"}, {"pn2", 20, Field::TEXT, 0, "vtag"},
                {"infolen", 32, Field::U32, 248, ""}, {"version", I + 0, Field::U16, 12, ""},
                {"size", I + 2, Field::U16, 248, ""}, {"word4", I + 4, Field::U32, 1, ""},
                {"mount point", I + 8, Field::TEXT, 0, "/proj"}, {"host", I + 20, Field::TEXT, 0, "hosty"},
                {"word32", I + 32, Field::U32, 0, ""}, {"view1", I + 36, Field::TEXT, 0, "/views/v1"},
                {"view2", I + 48, Field::TEXT, 0, "/views/v1"}, {"storage", I + 60, Field::TEXT, 0, "/silos/proj"},
                {"family", I + 72, Field::BYTES, 0, raw(oid_n(3).bytes, 16)}, {"3000", I + 88, Field::U32, 3000, ""},
                {"1", I + 92, Field::U32, 1, ""}, {"zero96", I + 96, Field::BYTES, 0, z28},
                {"replica", I + 124, Field::BYTES, 0, raw(uuid_n(4).bytes, 16)},
                {"zero140", I + 140, Field::BYTES, 0, z108}},
          "mount");
  }
  {
    kfsm_umount_info u;
    memset(&u, 0, sizeof u);
    u.mount_point = kfsm_strbuf_of("/proj");
    u.replica = uuid_n(5);
    Image img = encode(block(KFSM_CMD_UMOUNT, 0, &u, KFSM_UMOUNT_IMAGE, "vtag"));
    check(img, {{"cmd", 0, Field::U32, 37, ""}, {"infolen", 32, Field::U32, 28, ""},
                {"mount point", I + 0, Field::TEXT, 0, "/proj"}, {"replica", I + 12, Field::BYTES, 0, raw(uuid_n(5).bytes, 16)}},
          "umount");
  }
  {
    kfsm_inval_info v;
    memset(&v, 0, sizeof v);
    v.version = 5;
    v.silo = uuid_n(6);
    v.kind = 1;
    v.obj = oid_n(7);
    v.name = kfsm_strbuf_of("leaf.c");
    kfsmcmd_block b = block(KFSM_CMD_INVAL, 2, &v, KFSM_INVAL_IMAGE);
    b.pn = kfsm_strbuf_of("/view/vtag");
    b.pn2 = kfsm_strbuf_empty();
    Image img = encode(b);
    check(img, {{"cmd", 0, Field::U32, 5, ""}, {"pn", 8, Field::TEXT, 0, "/view/vtag"}, {"pn2", 20, Field::TEXT, 0, ""},
                {"pn2.l", 20, Field::LEN, 0, ""}, {"pn2.m", 20, Field::CAP, 1, ""}, {"infolen", 32, Field::U32, 52, ""},
                {"version", I + 0, Field::U32, 5, ""}, {"silo", I + 4, Field::BYTES, 0, raw(uuid_n(6).bytes, 16)},
                {"kind", I + 20, Field::U32, 1, ""}, {"obj", I + 24, Field::BYTES, 0, raw(oid_n(7).bytes, 16)},
                {"name", I + 40, Field::TEXT, 0, "leaf.c"}},
          "inval");
  }
  {
    view_vstat_t vs;
    kfsm_xstat_info x;
    memset(&x, 0, sizeof x);
    x.vstat = &vs;
    Image img = encode(block(KFSM_CMD_XSTAT, 3, &x, KFSM_XSTAT_IMAGE, "/view/v/proj/a"));
    EXPECT_EQ(img.all.size(), KFSM_BLOCK_IMAGE + KFSM_XSTAT_IMAGE + 2 * 15);  // the path twice, no vstat
    check(img, {{"cmd", 0, Field::U32, 2, ""}, {"flags", 4, Field::U32, 3, ""}, {"pn", 8, Field::TEXT, 0, "/view/v/proj/a"},
                {"infolen", 32, Field::U32, 88, ""}, {"vstat slot", I + 0, Field::U32, 0, ""},
                {"rest", I + 4, Field::BYTES, 0, std::string(84, '\0')}},
          "xstat");
  }
  {
    kfsm_strbuf tag = kfsm_strbuf_of("vtag");
    Image img = encode(block(KFSM_CMD_RMTAG, 2, &tag, KFSM_RMTAG_IMAGE));
    check(img, {{"cmd", 0, Field::U32, 8, ""}, {"infolen", 32, Field::U32, 12, ""}, {"tag", I, Field::TEXT, 0, "vtag"}},
          "rmtag");
  }
  {
    char out[256];
    kfsm_strbuf info[2] = {{out, 0, 256}, {nullptr, 0, 0}};
    Image img = encode(block(KFSM_CMD_ROOT, 0, info, KFSM_ROOT_INFO_IMAGE));
    EXPECT_EQ(img.all.size(), KFSM_BLOCK_IMAGE + 24);  // an output buffer sends no bytes
    check(img, {{"cmd", 0, Field::U32, 11, ""}, {"infolen", 32, Field::U32, 24, ""}, {"out", I, Field::TEXT, 0, "<null>"},
                {"out.m", I, Field::CAP, 256, ""}, {"second", I + 12, Field::TEXT, 0, "<null>"}},
          "root");
  }
}

TEST(KfsmImages, DaemonReadsWhatTheLibraryWrote) {
  kfsm_mount_info m;
  memset(&m, 0, sizeof m);
  m.version = 12;
  m.size = 248;
  m.word4 = 1;
  m.mount_point = kfsm_strbuf_of("/proj");
  m.host = kfsm_strbuf_of("h");
  m.view_string1 = m.view_string2 = kfsm_strbuf_of("/v");
  std::string storage(1024, 's');
  m.storage = kfsm_strbuf_of(storage.c_str());
  m.family = oid_n(1);
  m.word88 = 3000;
  m.word92 = 1;
  m.replica = uuid_n(2);
  std::string img;
  ASSERT_EQ(kfsm_command_encode(block(KFSM_CMD_MOUNT, 0, &m, KFSM_MOUNT_IMAGE, "vt"), &img), 0);
  kfsm_command c;
  ASSERT_EQ(kfsm_command_decode(B(img), img.size(), &c), 0);
  EXPECT_EQ(c.cmd, 36u);
  EXPECT_EQ(c.pn.text, "vt");
  EXPECT_TRUE(c.pn.present);
  kfsm_mount_args a;
  ASSERT_TRUE(kfsm_parse_mount(c, &a));
  EXPECT_EQ(a.version, 12);
  EXPECT_EQ(a.size, 248);
  EXPECT_EQ(a.word4, 1u);
  EXPECT_EQ(a.word88, 3000u);
  EXPECT_EQ(a.word92, 1u);
  EXPECT_EQ(a.mount_point, "/proj");
  EXPECT_EQ(a.storage, storage);
  EXPECT_EQ(a.view_string2, "/v");
  EXPECT_EQ(a.family, oid_n(1));
  EXPECT_EQ(a.replica, uuid_n(2));
  kfsm_umount_args u;
  EXPECT_FALSE(kfsm_parse_umount(c, &u));  // a reader refuses another command's record

  kfsm_mkviewtag_info mk;
  memset(&mk, 0, sizeof mk);
  mk.viewtag = kfsm_strbuf_of("tag");
  mk.spath_u = mk.spath_k = mk.rpath = kfsm_strbuf_of("/s");
  mk.host = kfsm_strbuf_of("h");
  mk.uuid = uuid_n(9);
  ASSERT_EQ(kfsm_command_encode(block(KFSM_CMD_MKVIEW, 2, &mk, KFSM_MKVIEWTAG_IMAGE), &img), 0);
  ASSERT_EQ(kfsm_command_decode(B(img), img.size(), &c), 0);
  kfsm_mkview_args mv;
  ASSERT_TRUE(kfsm_parse_mkview(c, &mv));
  EXPECT_EQ(mv.tag, "tag");
  EXPECT_EQ(mv.rpath, "/s");
  EXPECT_EQ(mv.uuid, uuid_n(9));
  EXPECT_FALSE(c.pn.present);

  kfsm_inval_info v;
  memset(&v, 0, sizeof v);
  v.version = 5;
  v.kind = 3;
  ASSERT_EQ(kfsm_command_encode(block(KFSM_CMD_INVAL, 2, &v, KFSM_INVAL_IMAGE, "/view/tag"), &img), 0);
  ASSERT_EQ(kfsm_command_decode(B(img), img.size(), &c), 0);
  kfsm_inval_args ia;
  ASSERT_TRUE(kfsm_parse_inval(c, &ia));
  EXPECT_EQ(ia.kind, 3u);
  EXPECT_TRUE(tbs_uuid_is_null(ia.silo));
  EXPECT_EQ(ia.name, "");
}

TEST(KfsmImages, LibraryRefusesRecordsItCannotSendFaithfully) {
  kfsm_umount_info u;
  memset(&u, 0, sizeof u);
  u.mount_point = kfsm_strbuf_of("/p");
  std::string img;
  EXPECT_EQ(kfsm_command_encode(block(KFSM_CMD_UMOUNT, 0, &u, 27), &img), EINVAL);    // infolen not 28
  EXPECT_EQ(kfsm_command_encode(block(KFSM_CMD_UMOUNT, 0, nullptr, 28), &img), EINVAL);
  EXPECT_EQ(kfsm_command_encode(block(99, 0, &u, 28), &img), EINVAL);                  // no such command
  char bad[] = "a\0b";
  u.mount_point = kfsm_strbuf{bad, 3, 4};  // NUL inside
  EXPECT_EQ(kfsm_command_encode(block(KFSM_CMD_UMOUNT, 0, &u, 28), &img), EINVAL);
  u.mount_point = kfsm_strbuf{const_cast<char*>("abc"), 3, 3};  // no room for the NUL
  EXPECT_EQ(kfsm_command_encode(block(KFSM_CMD_UMOUNT, 0, &u, 28), &img), EINVAL);
  std::string huge(KFSM_STR_MAX + 1, 'x');
  u.mount_point = kfsm_strbuf_of(huge.c_str());
  EXPECT_EQ(kfsm_command_encode(block(KFSM_CMD_UMOUNT, 0, &u, 28), &img), EINVAL);
  u.mount_point = kfsm_strbuf{nullptr, 2, 3};  // a length without text
  EXPECT_EQ(kfsm_command_encode(block(KFSM_CMD_UMOUNT, 0, &u, 28), &img), EINVAL);
}

// A valid image, then damaged in every way a hostile peer might: the decoder says EPROTO or the typed
// reader refuses, and nothing is read outside the frame (the sanitizer build checks the last part).
TEST(KfsmImages, HostileImagesAreRefused) {
  kfsm_umount_info u;
  memset(&u, 0, sizeof u);
  u.mount_point = kfsm_strbuf_of("/proj");
  std::string good;
  ASSERT_EQ(kfsm_command_encode(block(KFSM_CMD_UMOUNT, 0, &u, 28, "tag"), &good), 0);
  const size_t I = KFSM_BLOCK_IMAGE;
  const size_t heap = I + 28;
  struct Case {
    const char* what;
    size_t off;
    uint32_t value;
    bool decode_fails;  // else the typed reader fails
  } cases[] = {
      {"unknown command", 0, 99, true},
      {"infolen of another record", 32, 52, true},
      {"pn slot past the heap", 8, 1000, true},
      {"pn length past the heap", 12, 200, true},
      {"pn length not below capacity", 16, 3, true},
      {"pn huge length", 12, 0xFFFFFFF0u, true},
      {"pn slot at the heap's last byte", 8, 0xFFFFFFFFu, true},
      {"null pn with a length", 8, 0, true},
      {"mount point slot past the heap", I + 0, 500, false},
      {"mount point length short of its NUL", I + 4, 4, false},
      {"mount point length not below capacity", I + 8, 5, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::string img = good;
    kfsm_put_u32(reinterpret_cast<uint8_t*>(img.data()) + c.off, c.value);
    kfsm_command cmd;
    int e = kfsm_command_decode(B(img), img.size(), &cmd);
    if (c.decode_fails) {
      EXPECT_EQ(e, EPROTO);
    } else {
      ASSERT_EQ(e, 0);
      kfsm_umount_args a;
      EXPECT_FALSE(kfsm_parse_umount(cmd, &a));
    }
  }
  {
    // A NUL inside the text of the heap.
    std::string img = good;
    img[heap + 8 + 2] = '\0';  // heap: "tag\0" "tag\0" "/proj\0"; makes "/p\0oj"
    kfsm_command cmd;
    ASSERT_EQ(kfsm_command_decode(B(img), img.size(), &cmd), 0);
    kfsm_umount_args a;
    EXPECT_FALSE(kfsm_parse_umount(cmd, &a));
  }
  // Every proper prefix is refused.
  for (size_t n = 0; n < good.size(); ++n) {
    std::string img = good.substr(0, n);
    kfsm_command cmd;
    kfsm_umount_args a;
    bool ok = kfsm_command_decode(B(img), img.size(), &cmd) == 0 && kfsm_parse_umount(cmd, &a);
    EXPECT_FALSE(ok) << "prefix " << n;
  }
  // Random bytes never crash the decoder.
  uint32_t seed = 12345;
  for (int round = 0; round < 2000; ++round) {
    std::string img = good;
    for (int k = 0; k < 4; ++k) {
      seed = seed * 1103515245u + 12345u;
      img[(seed >> 8) % img.size()] = char(seed >> 24);
    }
    kfsm_command cmd;
    kfsm_umount_args a;
    if (kfsm_command_decode(B(img), img.size(), &cmd) == 0) (void)kfsm_parse_umount(cmd, &a);
  }
}

TEST(KfsmImages, AnswersCarryOutputsBackIntoTheCallersMemory) {
  // xstat: vstat in XDR form in the heap, identifiers in the info image.
  view_vstat_t mine;
  memset(&mine, 0xEE, sizeof mine);
  kfsm_xstat_info x;
  memset(&x, 0, sizeof x);
  x.vstat = &mine;
  kfsmcmd_block b = block(KFSM_CMD_XSTAT, 0, &x, KFSM_XSTAT_IMAGE, "/view/v/p");
  std::string req;
  ASSERT_EQ(kfsm_command_encode(b, &req), 0);
  kfsm_command c;
  ASSERT_EQ(kfsm_command_decode(B(req), req.size(), &c), 0);
  kfsm_result_outputs out;
  out.has_vstat = true;
  memset(&out.vstat, 0, sizeof out.vstat);
  out.vstat.fstat.type = 2;
  out.vstat.fstat.mode = 0755;
  out.vstat.fstat.size = 0x100000002ull;
  out.vstat.mtype = 3;
  out.vstat.obj_oid = oid_n(8);
  out.vstat.event_time = {1700000000, 5};
  out.oid = oid_n(8);
  out.uuid = uuid_n(9);
  out.flag = -7;
  out.uuid2 = uuid_n(10);
  std::string ans = kfsm_result_encode(0, c, 0, out);
  int err = -1;
  ASSERT_EQ(kfsm_result_apply(B(ans), ans.size(), &b, &err), 0);
  EXPECT_EQ(err, 0);
  EXPECT_EQ(b.status, 0);
  EXPECT_EQ(mine.fstat.type, 2u);
  EXPECT_EQ(mine.fstat.size, 0x100000002ull);
  EXPECT_EQ(mine.obj_oid, oid_n(8));
  EXPECT_EQ(mine.event_time.tv_sec, 1700000000);
  EXPECT_EQ(x.oid, oid_n(8));
  EXPECT_EQ(x.uuid, uuid_n(9));
  EXPECT_EQ(x.flag, -7);
  EXPECT_EQ(x.uuid2, uuid_n(10));

  // A status travels in the block; no outputs are needed with it.
  ans = kfsm_result_encode(0, c, TBS_ST_NO_SUCH_NAME, kfsm_result_outputs{});
  ASSERT_EQ(kfsm_result_apply(B(ans), ans.size(), &b, &err), 0);
  EXPECT_EQ(b.status, TBS_ST_NO_SUCH_NAME);

  // Root path: cut to the caller's capacity minus one, with its NUL.
  char small[8];
  memset(small, 'Z', sizeof small);
  kfsm_strbuf info[2] = {{small, 0, sizeof small}, {nullptr, 0, 0}};
  kfsmcmd_block r = block(KFSM_CMD_ROOT, 0, info, KFSM_ROOT_INFO_IMAGE);
  ASSERT_EQ(kfsm_command_encode(r, &req), 0);
  ASSERT_EQ(kfsm_command_decode(B(req), req.size(), &c), 0);
  EXPECT_EQ(kfsm_output_capacity(c), 8u);
  kfsm_result_outputs o;
  o.text = "/a/long/root";
  ans = kfsm_result_encode(0, c, 0, o);
  ASSERT_EQ(kfsm_result_apply(B(ans), ans.size(), &r, &err), 0);
  EXPECT_STREQ(small, "/a/long");
  EXPECT_EQ(info[0].l, 7u);

  // An answer for another command, or a damaged one, is refused.
  kfsmcmd_block other = block(KFSM_CMD_SUFFIX, 0, info, KFSM_SUFFIX_INFO_IMAGE);
  EXPECT_EQ(kfsm_result_apply(B(ans), ans.size(), &other, &err), EPROTO);
  EXPECT_EQ(kfsm_result_apply(B(ans), 20, &r, &err), EPROTO);
  std::string bad = ans;
  kfsm_put_u32(reinterpret_cast<uint8_t*>(bad.data()) + 4 + KFSM_BLOCK_IMAGE, 999);  // text slot past the heap
  EXPECT_EQ(kfsm_result_apply(B(bad), bad.size(), &r, &err), EPROTO);
}

TEST(KfsmLpcHeader, RequestAndReplyFieldsAtTheirOffsets) {
  uint8_t buf[KFSM_LPC_BUF];
  memset(buf, 0xAB, sizeof buf);
  kfsm_lpc_put_request(buf, kfsm_lpc_request_hdr{107, 300, 8768, 0xC0FFEEu});
  uint64_t v64;
  uint32_t v32;
  memcpy(&v64, buf + 0, 8);
  EXPECT_EQ(v64, 107u);
  memcpy(&v64, buf + 8, 8);
  EXPECT_EQ(v64, 300u);
  memcpy(&v64, buf + 16, 8);
  EXPECT_EQ(v64, 8768u);
  memcpy(&v32, buf + 24, 4);
  EXPECT_EQ(v32, 0xC0FFEEu);
  EXPECT_EQ(buf[28], 0xAB);  // the marker is left as it was
  kfsm_lpc_request_hdr h = kfsm_lpc_get_request(buf);
  EXPECT_EQ(h.op, 107u);
  EXPECT_EQ(h.req_size, 300u);
  EXPECT_EQ(h.cookie, 0xC0FFEEu);

  kfsm_lpc_put_reply(buf, 3, 0x0000000100000002ull, 0xC0FFEEu);
  memcpy(&v32, buf + 0, 4);
  EXPECT_EQ(v32, 3u);
  memcpy(&v64, buf + 4, 8);  // unaligned, spanning bytes 4 to 11
  EXPECT_EQ(v64, 0x0000000100000002ull);
  memcpy(&v32, buf + 24, 4);
  EXPECT_EQ(v32, 0xC0FFEEu);
  memcpy(&v32, buf + 28, 4);
  EXPECT_EQ(v32, 1u);
  memcpy(&v64, buf + 16, 8);  // bytes 12 to 23 are not the reply's: the request's capacity stays
  EXPECT_EQ(v64, 8768u);
  kfsm_lpc_reply_hdr r = kfsm_lpc_get_reply(buf);
  EXPECT_EQ(r.rpc_status, 3u);
  EXPECT_EQ(r.size, 0x0000000100000002ull);
  EXPECT_EQ(r.marker, 1u);
  EXPECT_EQ(VIEW_LPC_PAYLOAD, 8768u);
}

TEST(KfsmStatus, ErrnoTableRoundTripsAndKeepsBusyDistinct) {
  const tbs_status_t statuses[] = {0,    TBS_ST_FAILURE, TBS_ST_NOT_FOUND, TBS_ST_NOT_SUPPORTED, TBS_ST_NO_RESOURCES, TBS_ST_DB_NOT_WRITABLE, TBS_ST_VIEW_GONE, TBS_ST_NOT_OWNER, TBS_ST_NO_ROOM, TBS_ST_NO_PERMISSION, TBS_ST_EXISTS,
                                   TBS_ST_CROSS_SILO, TBS_ST_NOT_DIR, TBS_ST_IS_DIR, TBS_ST_BAD_ARG, TBS_ST_NOT_ALLOWED, TBS_ST_LOOP, TBS_ST_TOO_LONG, TBS_ST_NOT_EMPTY, TBS_ST_STALE, TBS_ST_BUSY};
  for (tbs_status_t s : statuses) {
    int e = tbs_status2errno(s);
    tbs_status_t back = tbs_errno2status(e);
    // Statuses that share an errno come back as the first of their errno.
    EXPECT_EQ(tbs_status2errno(back), e) << s;
    if (s != TBS_ST_NO_RESOURCES) {
      EXPECT_EQ(back, s) << s;
    }
  }
  EXPECT_EQ(tbs_errno2status(EBUSY), TBS_ST_BUSY);
  EXPECT_EQ(tbs_status2errno(TBS_ST_VIEW_GONE), ENOTCONN);
  EXPECT_EQ(tbs_status2errno(TBS_ST_NO_SUCH_NAME), ENOENT);
  EXPECT_EQ(tbs_status2errno(4242), EIO);
  EXPECT_EQ(tbs_errno2status(ECONNREFUSED), TBS_ST_FAILURE);
}

}  // namespace
