// Agent records for the helper programs, the load-scope oid, RPC arguments and the reply writer.
#include "proto/tavrel_records.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

#include "proto/proto_test_util.h"
#include "proto/rpcargs.h"
#include "proto/reply_writer.h"
#include "proto/wan_names.h"

using namespace proto_test;

namespace {

#define SET_TEXT(field, text) std::snprintf(field, sizeof field, "%s", std::string(text).c_str())

tavrel_vstat sample_tavrel_vstat(const std::string& path) {
  tavrel_vstat r{sample_vstat(), 1, {}};
  SET_TEXT(r.path, path);
  return r;
}
tavrel_dirent sample_dirent(const std::string& name) {
  tavrel_dirent d{uint32_t(name.size()), {}, 0, 2, 0x2000, 0, oid_n(1), SILO_MTYPE_FILE_ELEM, oid_n(2),
                  SILO_MTYPE_FILE_VER, 0};
  SET_TEXT(d.name, name);
  return d;
}
tavrel_scope sample_scope(const std::string& name) {
  tavrel_scope s{oid_n(5), {}, 41, {}};
  SET_TEXT(s.name, name);
  return s;
}
tavrel_synceleminfo_t sample_sei(const std::string& path, const std::string& prev, const std::string& curr) {
  tavrel_synceleminfo_t e{{}, oid_n(3), uuid_n(4), oid_n(6), {}, {}};
  SET_TEXT(e.object_path, path);
  SET_TEXT(e.prev_version_str, prev);
  SET_TEXT(e.curr_version_str, curr);
  return e;
}

// Encodes `rec` and compares with `expected`; decodes and re-encodes to the same bytes; every strict
// prefix and the image with trailing bytes are malformed.
template <class T>
void check(const char* what, tbs_status_t (*encode)(const T*, std::string*),
           tbs_status_t (*decode)(T*, unsigned, const char*), const T& rec, const std::string& expected) {
  SCOPED_TRACE(what);
  std::string got, again;
  ASSERT_EQ(encode(&rec, &got), TBS_ST_OK);
  EXPECT_EQ(got, expected);
  T back;
  ASSERT_EQ(decode(&back, unsigned(got.size()), got.data()), TBS_ST_OK);
  ASSERT_EQ(encode(&back, &again), TBS_ST_OK);
  EXPECT_EQ(again, expected);
  for (size_t n = 0; n < got.size(); n += (n < 64 ? 1 : 37))
    EXPECT_EQ(decode(&back, unsigned(n), got.data()), TBS_ST_FAILURE) << "prefix " << n;
  std::string longer = got + std::string(4, '\0');
  EXPECT_EQ(decode(&back, unsigned(longer.size()), longer.data()), TBS_ST_FAILURE);
}

}  // namespace

TEST(HelperCodecs, ImagesRoundTripsAndTruncation) {
  const std::string p1023(1023, 'p'), n255(255, 'n');
  const tavrel_vstat longest = sample_tavrel_vstat(p1023);
  check<tavrel_vstat>("vstat_max_path", tavrel_vstat_encode, tavrel_vstat_decode, longest,
                      put_vstat(W(), longest.vstat).u32(1).str(p1023).b);
  check<tavrel_dirent>("dirent_max_name", tavrel_dirent_encode, tavrel_dirent_decode, sample_dirent(n255),
                       W().str(n255).u32(0).u32(2).u32(0x2000).u32(0).oid(oid_n(1)).i32(5).oid(oid_n(2)).i32(6)
                           .u32(0).b);
  check<tavrel_scope>("scope", tavrel_scope_encode, tavrel_scope_decode, sample_scope("/proj/src"),
                      W().oid(oid_n(5)).oid(TBS_OID_NULL).str("/proj/src").u32(41).b);
  check<tavrel_synceleminfo_t>("synceleminfo_max", tavrel_synceleminfo_encode, tavrel_synceleminfo_decode,
                               sample_sei(p1023, p1023, p1023),
                               W().str(p1023).oid(oid_n(3)).uuid(uuid_n(4)).oid(oid_n(6)).str(p1023).str(p1023).b);
}

TEST(HelperCodecs, HostileBytesAndBadArgumentsFailCleanly) {
  const tavrel_dirent d = sample_dirent("abc");
  std::string good, out;
  ASSERT_EQ(tavrel_dirent_encode(&d, &good), TBS_ST_OK);
  // A string length far beyond the limit, a NUL inside a name, a bool of 2, a name one byte too long.
  std::string huge = good, nul = good, badbool = good, longname = W().str(std::string(256, 'x')).b;
  huge.replace(0, 4, "\xFF\xFF\xFF\xFF");
  nul[5] = '\0';
  badbool.back() = 2;
  tavrel_dirent back;
  for (const std::string& img : {huge, nul, badbool, longname})
    EXPECT_EQ(tavrel_dirent_decode(&back, unsigned(img.size()), img.data()), TBS_ST_FAILURE);
  // A path of 1024 characters does not fit a pname.
  tavrel_scope s;
  std::string img = W().oid(oid_n(1)).oid(oid_n(2)).str(std::string(1024, 'y')).u32(0).b;
  EXPECT_EQ(tavrel_scope_decode(&s, unsigned(img.size()), img.data()), TBS_ST_FAILURE);
  // A name whose length field disagrees with the text is refused on encode.
  tavrel_dirent wrong = d;
  wrong.namlen = 5;
  EXPECT_EQ(tavrel_dirent_encode(&wrong, &out), TBS_ST_NO_ROOM);
  // Null arguments and a buffer too small.
  tavrel_vstat v = sample_tavrel_vstat("x");
  EXPECT_EQ(tavrel_vstat_encode(nullptr, &out), TBS_ST_BAD_ARG);
  EXPECT_EQ(tavrel_vstat_decode(nullptr, 4, "abcd"), TBS_ST_BAD_ARG);
  EXPECT_EQ(tavrel_vstat_decode(&v, 4, nullptr), TBS_ST_BAD_ARG);
  char small[100];
  unsigned len = 1;
  EXPECT_EQ(tavrel_vstat_encode(&v, small, sizeof small, &len), TBS_ST_NO_ROOM);
  EXPECT_EQ(len, 0u);
  // Random bytes never crash a decoder (the sanitizer build watches the reads).
  uint32_t seed = 12345;
  for (int i = 0; i < 2000; ++i) {
    std::string junk(1 + (i % 400), '\0');
    for (auto& ch : junk) ch = char((seed = seed * 1103515245 + 12345) >> 16);
    tavrel_synceleminfo_t e;
    tavrel_vstat_decode(&v, unsigned(junk.size()), junk.data());
    tavrel_synceleminfo_decode(&e, unsigned(junk.size()), junk.data());
  }
}

TEST(LoadScopeOid, DerivedFromPathAndDistinctFromAutomatic) {
  tbs_oid_s a = tavrel_load_scope_oid("/proj/src");
  EXPECT_EQ(tbs_oid_to_str(a), "660fea74-c21c-592b-4d17-8486815405ce");  // SHA-256 computed elsewhere
  EXPECT_NE(a, tavrel_load_scope_oid("/proj/src/"));
  EXPECT_NE(a, AUTOMATIC_LOAD_SCOPE_OID);
}

TEST(RpcArgs, AgentEncodingOfLineFeeds) {
  const struct {
    std::string name, value, expected;
  } cases[] = {
      {"n", "value", "n=value\n"}, {"n", "", "n=\n"}, {"n", "a\nb", "n=a%0Aa\nb\n"}, {"bad=name", "x", ""}, {"", "x", ""},
  };
  for (const auto& c : cases) {
    std::string out;
    tavrel_wan::rpcargs_add_arg(&out, c.name, c.value);
    EXPECT_EQ(out, c.expected) << c.name << "/" << c.value;
  }
}

TEST(RpcArgs, ParseKeepsOrderAndDecodes) {
  std::vector<tavrel_wan::RpcArg> args;
  std::string err;
  ASSERT_TRUE(tavrel_wan::rpcargs_parse("ViewUuid=x\nElemRule=select * latest%0A\nElemRule=b=c\n\nflag\nLast=", &args,
                                        &err));
  ASSERT_EQ(args.size(), 5u);
  EXPECT_EQ(args[0].name, "ViewUuid");
  EXPECT_EQ(args[1].value, "select * latest\n");
  EXPECT_EQ(args[2].value, "b=c");
  EXPECT_FALSE(args[3].has_value);
  EXPECT_EQ(args[4].name, "Last");
  EXPECT_EQ(args[4].value, "");

  EXPECT_FALSE(tavrel_wan::rpcargs_parse("=novalue\n", &args, &err));
  tavrel_wan::RpcArgLimits lim;
  lim.max_args = 2;
  EXPECT_FALSE(tavrel_wan::rpcargs_parse("a=1\nb=2\nc=3\n", &args, &err, lim));
  lim = {};
  lim.max_line = 8;
  EXPECT_FALSE(tavrel_wan::rpcargs_parse("a=123456789\n", &args, &err, lim));
}

TEST(ReplyWriter, ExactBytes) {
  tavrel_wan::ReplyWriter w;
  w.begin();
  ASSERT_TRUE(w.part("SiloInfo", {{"SiloStorage", "/s"}}, ""));
  ASSERT_TRUE(w.part("Xdr_ObjScope", std::string("\r\n--X\xFF", 6)));
  w.status(TBS_ST_NOT_FOUND, "Name \"x\" not found");
  w.end();
  const std::string B = "X--------------nXjq59chSaB20";
  EXPECT_EQ(w.data(), "Content-Type: multipart/mixed; boundary=" + B + "\r\n--" + B +
                          "\r\nContent-ID: SiloInfo\r\nSiloStorage: /s\r\nContent-Length: 0\r\n\r\n\r\n--" + B +
                          "\r\nContent-ID: Xdr_ObjScope\r\nContent-Length: 6\r\n\r\n" + std::string("\r\n--X\xFF", 6) +
                          "\r\n--" + B +
                          "\r\nContent-ID: Status\r\nStatus: 1002\r\nHasNonOkMsg: 1\r\nContent-Length: 18\r\n\r\n"
                          "Name \"x\" not found\r\n--" + B + "--\r\n");
  EXPECT_EQ(tavrel_wan::reply_status_only(0),
            "Content-Type: multipart/mixed; boundary=" + B + "\r\n--" + B +
                "\r\nContent-ID: Status\r\nStatus: 0\r\nHasNonOkMsg: 0\r\nContent-Length: 0\r\n\r\n\r\n--" + B +
                "--\r\n");
}

TEST(ReplyWriter, RefusesHeadersThatBreakTheFormat) {
  tavrel_wan::ReplyWriter w;
  EXPECT_FALSE(w.part("Bad\r\nId", ""));
  EXPECT_FALSE(w.part("P", {{"Na:me", "v"}}, ""));
  EXPECT_FALSE(w.part("P", {{"Name", "v\n"}}, ""));
  EXPECT_FALSE(w.part("P", {{"Name", std::string("\xFF")}}, ""));
  EXPECT_FALSE(w.part("P", {{"Name", std::string(2100, 'v')}}, ""));
  EXPECT_FALSE(w.part("P", {{"Content-Length", "5"}}, ""));
  EXPECT_TRUE(w.data().empty());
}
