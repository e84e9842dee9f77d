// Record images of the kernel channel, byte for byte: what the agent's library writes from its native
// records (the daemon's typed readers are checked on what the agent sends: tavrel_kfsm_ioctl_test.cpp),
// answers and their outputs, hostile images, the LPC header and the status table.
#include "proto/kfsm_records.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <tuple>

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

uint8_t* B(std::string& s) { return reinterpret_cast<uint8_t*>(s.data()); }

// Builds an expected image by hand, in host byte order: fixed parts in `img`, and the text of each
// input string in `heap` (a strbuf is {1 + heap offset, length, length + 1}, or all zero for null).
struct K {
  std::string img, heap;
  K& raw(const void* p, size_t n) {
    img.append(static_cast<const char*>(p), n);
    return *this;
  }
  K& u16(uint16_t v) { return raw(&v, 2); }
  K& u32(uint32_t v) { return raw(&v, 4); }
  K& u64(uint64_t v) { return raw(&v, 8); }
  K& zeros(size_t n) { return raw(std::string(n, '\0').data(), n); }
  template <class Id>
  K& id(const Id& x) { return raw(x.bytes, 16); }
  K& s(const char* t) {
    if (!t) return zeros(12);
    u32(uint32_t(heap.size() + 1)).u32(uint32_t(strlen(t))).u32(uint32_t(strlen(t) + 1));
    heap.append(t).push_back('\0');
    return *this;
  }
  K& block(uint32_t cmd, uint32_t flags, const char* pn, const char* pn2, uint32_t infolen) {
    return u32(cmd).u32(flags).s(pn).s(pn2).u32(infolen).u32(0).u32(0);
  }
  std::string done() const { return img + heap; }
};

kfsm_strbuf S(const char* s) { return kfsm_strbuf_of(s); }

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

// Encodes `b`, compares with `expected` and decodes the image again.
kfsm_command round_trip(const kfsmcmd_block& b, const std::string& expected) {
  std::string img;
  kfsm_command c;
  EXPECT_EQ(kfsm_command_encode(b, &img), 0);
  EXPECT_EQ(img, expected);
  EXPECT_EQ(kfsm_command_decode(B(img), img.size(), &c), 0);
  return c;
}

TEST(KfsmImages, EveryCommandImage) {
  kfsm_mkviewtag_info mk{S("vtag"), S("/stg/u"), S("/stg/k"), S("hosty"), S("/stg/r"), uuid_n(1), {}, 0};
  round_trip(block(KFSM_CMD_MKVIEW, KFSM_FLAG_CASE_SENSITIVE, &mk, KFSM_MKVIEWTAG_IMAGE),
             K().block(7, 2, nullptr, nullptr, 108).s("vtag").s("/stg/u").s("/stg/k").s("hosty")
                 .s("/stg/r").id(uuid_n(1)).zeros(28).u32(0).done());

  // The longest storage path a mount carries.
  const std::string storage(1024, 's');
  kfsm_mount_info m{12, 248, 1, S("/proj"), S("hosty"), 0, S("/views/v1"), S("/views/v1"), S(storage.c_str()),
                    oid_n(3), 3000, 1, {}, uuid_n(4), {}};
  kfsm_command c = round_trip(block(KFSM_CMD_MOUNT, 0, &m, KFSM_MOUNT_IMAGE, "vtag"),
                              K().block(36, 0, "vtag", "vtag", 248).u16(12).u16(248).u32(1).s("/proj").s("hosty").u32(0)
                                  .s("/views/v1").s("/views/v1").s(storage.c_str()).id(oid_n(3)).u32(3000).u32(1)
                                  .zeros(28).id(uuid_n(4)).zeros(108).done());
  kfsm_mount_args a;
  EXPECT_EQ(kfsm_parse_mount(c, &a) ? a.storage : "", storage);
  kfsm_umount_args u;
  EXPECT_FALSE(kfsm_parse_umount(c, &u));  // a reader refuses another command's record

  kfsm_umount_info um{S("/proj"), uuid_n(5)};
  round_trip(block(KFSM_CMD_UMOUNT, 0, &um, KFSM_UMOUNT_IMAGE, "vtag"),
             K().block(37, 0, "vtag", "vtag", 28).s("/proj").id(uuid_n(5)).done());

  kfsm_inval_info v{5, uuid_n(6), 1, oid_n(7), S("leaf.c")};
  kfsmcmd_block b = block(KFSM_CMD_INVAL, 2, &v, KFSM_INVAL_IMAGE);
  b.pn = S("/view/vtag");
  b.pn2 = kfsm_strbuf_empty();
  round_trip(b, K().block(5, 2, "/view/vtag", "", 52).u32(5).id(uuid_n(6)).u32(1).id(oid_n(7)).s("leaf.c").done());
  kfsm_strbuf tag = S("vtag");
  round_trip(block(KFSM_CMD_RMTAG, 2, &tag, KFSM_RMTAG_IMAGE),
             K().block(8, 2, nullptr, nullptr, 12).s("vtag").done());
}

TEST(KfsmImages, LibraryRefusesRecordsItCannotSendFaithfully) {
  char nul_inside[] = "a\0b", full[] = "abc";
  std::string huge(KFSM_STR_MAX + 1, 'x'), img;
  const struct {
    const char* what;
    uint32_t cmd, infolen;
    kfsm_strbuf mount_point;
  } cases[] = {
      {"infolen not 28", KFSM_CMD_UMOUNT, 27, kfsm_strbuf_of("/p")},
      {"no such command", 99, 28, kfsm_strbuf_of("/p")},
      {"NUL inside", KFSM_CMD_UMOUNT, 28, {nul_inside, 3, 4}},
      {"no room for the NUL", KFSM_CMD_UMOUNT, 28, {full, 3, 3}},
      {"too long", KFSM_CMD_UMOUNT, 28, kfsm_strbuf_of(huge.c_str())},
      {"a length without text", KFSM_CMD_UMOUNT, 28, {nullptr, 2, 3}},
  };
  for (const auto& c : cases) {
    kfsm_umount_info u{c.mount_point, {}};
    EXPECT_EQ(kfsm_command_encode(block(c.cmd, 0, &u, c.infolen), &img), EINVAL) << c.what;
  }
  EXPECT_EQ(kfsm_command_encode(block(KFSM_CMD_UMOUNT, 0, nullptr, 28), &img), EINVAL);
}

// A valid image, damaged in every way a hostile peer might: the decoder says EPROTO or the typed reader
// refuses, and nothing is read outside the frame (the sanitizer build checks that part).
TEST(KfsmImages, HostileImagesAreRefused) {
  kfsm_umount_info u{kfsm_strbuf_of("/proj"), {}};
  std::string good;
  ASSERT_EQ(kfsm_command_encode(block(KFSM_CMD_UMOUNT, 0, &u, 28, "tag"), &good), 0);
  const size_t I = KFSM_BLOCK_IMAGE;
  const struct {
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
      {"a NUL inside the text", I + 28 + 8, uint32_t('/') | uint32_t('p') << 8, false},  // "/p\0\0j"
  };
  kfsm_command cmd;
  kfsm_umount_args a;
  for (const auto& c : cases) {
    std::string img = good;
    kfsm_put_u32(B(img) + c.off, c.value);
    int e = kfsm_command_decode(B(img), img.size(), &cmd);
    EXPECT_EQ(e, c.decode_fails ? EPROTO : 0) << c.what;
    if (e == 0) {
      EXPECT_FALSE(kfsm_parse_umount(cmd, &a)) << c.what;
    }
  }
  for (size_t n = 0; n < good.size(); ++n)
    EXPECT_FALSE(kfsm_command_decode(B(good), n, &cmd) == 0 && kfsm_parse_umount(cmd, &a)) << "prefix " << n;
  // Random bytes never crash the decoder.
  uint32_t seed = 12345;
  for (int round = 0; round < 2000; ++round) {
    std::string img = good;
    for (int k = 0; k < 4; ++k) {
      seed = seed * 1103515245u + 12345u;
      img[(seed >> 8) % img.size()] = char(seed >> 24);
    }
    if (kfsm_command_decode(B(img), img.size(), &cmd) == 0) (void)kfsm_parse_umount(cmd, &a);
  }
}

TEST(KfsmImages, AnswersCarryOutputsBackIntoTheCallersMemory) {
  // xstat: all of it is output, the vstat pointer no slot. The answer brings the vstat in XDR form
  // in the heap, identifiers in the info image.
  view_vstat_t mine;
  memset(&mine, 0xEE, sizeof mine);
  kfsm_xstat_info x{&mine, {}, {}, 0, {}, {}, {}};
  kfsmcmd_block b = block(KFSM_CMD_XSTAT, 3, &x, KFSM_XSTAT_IMAGE, "/view/v/p");
  kfsm_command c = round_trip(b, K().block(2, 3, "/view/v/p", "/view/v/p", 88).zeros(88).done());
  kfsm_result_outputs out{true, {}, oid_n(8), uuid_n(9), -7, uuid_n(10), ""};
  out.vstat.fstat.type = 2;
  out.vstat.fstat.size = 0x100000002ull;
  out.vstat.event_time = {1700000000, 5};
  std::string ans = kfsm_result_encode(0, c, 0, out);
  int err = -1;
  ASSERT_EQ(kfsm_result_apply(B(ans), ans.size(), &b, &err), 0);
  EXPECT_EQ(err, 0);
  EXPECT_EQ(b.status, 0);
  EXPECT_EQ(std::tie(mine.fstat.type, mine.fstat.size, mine.fstat.mode, mine.event_time.tv_sec),
            std::make_tuple(2, 0x100000002ull, 0, 1700000000));
  EXPECT_EQ(std::tie(x.oid, x.uuid, x.flag, x.uuid2), std::make_tuple(oid_n(8), uuid_n(9), -7, uuid_n(10)));

  // Root path: the request sends only the output buffer's capacity; the answer's text is cut to that
  // capacity minus one, with its NUL.
  char small[8];
  memset(small, 'Z', sizeof small);
  kfsm_strbuf info[2] = {{small, 0, sizeof small}, {nullptr, 0, 0}};
  kfsmcmd_block r = block(KFSM_CMD_ROOT, 0, info, KFSM_ROOT_INFO_IMAGE);
  c = round_trip(r, K().block(11, 0, nullptr, nullptr, 24).u32(0).u32(0).u32(8).s(nullptr).done());
  EXPECT_EQ(kfsm_output_capacity(c), 8u);
  ans = kfsm_result_encode(0, c, 0, kfsm_result_outputs{false, {}, {}, {}, 0, {}, "/a/long/root"});
  EXPECT_EQ(ans, K().u32(0).u32(11).u32(0).zeros(24).u32(24).u32(0).u32(0).s("/a/long").zeros(12).done());
  ASSERT_EQ(kfsm_result_apply(B(ans), ans.size(), &r, &err), 0);
  EXPECT_STREQ(small, "/a/long");
  EXPECT_EQ(info[0].l, 7u);
  // An answer for another command, or a damaged one, is refused.
  kfsmcmd_block other = block(KFSM_CMD_SUFFIX, 0, info, KFSM_SUFFIX_INFO_IMAGE);
  EXPECT_EQ(kfsm_result_apply(B(ans), ans.size(), &other, &err), EPROTO);
  EXPECT_EQ(kfsm_result_apply(B(ans), 20, &r, &err), EPROTO);
  kfsm_put_u32(B(ans) + 4 + KFSM_BLOCK_IMAGE, 999);  // text slot past the heap
  EXPECT_EQ(kfsm_result_apply(B(ans), ans.size(), &r, &err), EPROTO);
}

TEST(KfsmLpcHeader, RequestAndReplyImages) {
  std::string buf(KFSM_LPC_BUF, '\xAB');
  kfsm_lpc_put_request(B(buf), kfsm_lpc_request_hdr{VIEW_RPC_LOOKUP, 300, VIEW_LPC_PAYLOAD, 0xC0FFEEu});
  // The marker at 28 is left as it was.
  EXPECT_EQ(buf.substr(0, 32),
            K().u64(VIEW_RPC_LOOKUP).u64(300).u64(VIEW_LPC_PAYLOAD).u32(0xC0FFEEu).u32(0xABABABABu).img);
  kfsm_lpc_request_hdr h = kfsm_lpc_get_request(B(buf));
  EXPECT_EQ(std::tie(h.op, h.req_size, h.res_capacity, h.cookie),
            std::make_tuple(uint64_t{VIEW_RPC_LOOKUP}, 300, VIEW_LPC_PAYLOAD, 0xC0FFEEu));
  // The reply size is unaligned at bytes 4 to 11; bytes 12 to 23 keep the request's.
  kfsm_lpc_put_reply(B(buf), 3, 0x0000000100000002ull, 0xC0FFEEu);
  EXPECT_EQ(buf.substr(0, 32),
            K().u32(3).u64(0x0000000100000002ull).u32(0).u64(VIEW_LPC_PAYLOAD).u32(0xC0FFEEu).u32(1).img);
  kfsm_lpc_reply_hdr r = kfsm_lpc_get_reply(B(buf));
  EXPECT_EQ(std::tie(r.rpc_status, r.size, r.cookie, r.marker),
            std::make_tuple(3, 0x0000000100000002ull, 0xC0FFEEu, 1));
}

TEST(KfsmStatus, ErrnoTableRoundTripsAndKeepsBusyDistinct) {
  for (tbs_status_t s : {TBS_ST_OK, TBS_ST_FAILURE, TBS_ST_NOT_FOUND, TBS_ST_NOT_SUPPORTED, TBS_ST_NO_RESOURCES,
                         TBS_ST_DB_NOT_WRITABLE, TBS_ST_VIEW_GONE, TBS_ST_NOT_OWNER, TBS_ST_NO_ROOM,
                         TBS_ST_NO_PERMISSION, TBS_ST_EXISTS, TBS_ST_CROSS_SILO, TBS_ST_NOT_DIR, TBS_ST_IS_DIR,
                         TBS_ST_BAD_ARG, TBS_ST_NOT_ALLOWED, TBS_ST_LOOP, TBS_ST_TOO_LONG, TBS_ST_NOT_EMPTY,
                         TBS_ST_STALE, TBS_ST_BUSY}) {
    int e = tbs_status2errno(s);
    tbs_status_t back = tbs_errno2status(e);
    // Statuses that share an errno come back as the first of their errno.
    EXPECT_EQ(tbs_status2errno(back), e) << s;
    if (s != TBS_ST_NO_RESOURCES) {
      EXPECT_EQ(back, s) << s;
    }
  }
  EXPECT_EQ(tbs_errno2status(EBUSY), TBS_ST_BUSY);
  EXPECT_EQ(tbs_status2errno(4242), EIO);  // an unknown status
}

}  // namespace
