#include "proto/tavrel_records.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "proto/proto_test_util.h"
#include "proto/rpcargs.h"
#include "proto/reply_writer.h"
#include "proto/wan_names.h"

using namespace proto_test;

namespace {

tavrel_vstat sample_tavrel_vstat(const std::string& path) {
  tavrel_vstat r;
  std::memset(&r, 0, sizeof r);
  r.vstat = sample_vstat();
  r.checked_out = 1;
  std::snprintf(r.path, sizeof r.path, "%s", path.c_str());
  return r;
}

tavrel_dirent sample_dirent(const std::string& name) {
  tavrel_dirent d;
  std::memset(&d, 0, sizeof d);
  d.namlen = uint32_t(name.size());
  std::snprintf(d.name, sizeof d.name, "%s", name.c_str());
  d.dbid = 0;
  d.off = 2;
  d.state = 0x2000;
  d.rule = 0;
  d.elem_oid = oid_n(1);
  d.elem_type = SILO_MTYPE_FILE_ELEM;
  d.ver_oid = oid_n(2);
  d.ver_type = SILO_MTYPE_FILE_VER;
  d.checked_out = 0;
  return d;
}

tavrel_scope sample_scope(const std::string& name) {
  tavrel_scope s;
  std::memset(&s, 0, sizeof s);
  s.oid = oid_n(5);
  s.gn = 41;
  std::snprintf(s.name, sizeof s.name, "%s", name.c_str());
  return s;
}

tavrel_synceleminfo_t sample_sei(const std::string& path, const std::string& prev, const std::string& curr) {
  tavrel_synceleminfo_t e;
  std::memset(&e, 0, sizeof e);
  std::snprintf(e.object_path, sizeof e.object_path, "%s", path.c_str());
  e.parent_oid = oid_n(3);
  e.replica_uuid = uuid_n(4);
  e.object_oid = oid_n(6);
  std::snprintf(e.prev_version_str, sizeof e.prev_version_str, "%s", prev.c_str());
  std::snprintf(e.curr_version_str, sizeof e.curr_version_str, "%s", curr.c_str());
  return e;
}

// One helper codec under test: how to encode, decode and build the expected image.
struct HelperCase {
  const char* name;
  std::function<tbs_status_t(std::string*)> encode;
  std::function<tbs_status_t(unsigned, const char*)> decode;  // decodes and re-encodes, compares
  std::string expected;
  unsigned max_size;
};

std::vector<HelperCase> helper_cases() {
  std::vector<HelperCase> cases;
  {
    std::string path(1023, 'p');
    auto rec = sample_tavrel_vstat(path);
    W w = put_vstat(W(), rec.vstat);
    w.u32(1).str(path);
    cases.push_back({"vstat_max_path", [rec](std::string* o) { return tavrel_vstat_encode(&rec, o); },
                     [rec](unsigned n, const char* d) -> tbs_status_t {
                       tavrel_vstat back;
                       tbs_status_t st = tavrel_vstat_decode(&back, n, d);
                       if (st == 0 && std::memcmp(back.path, rec.path, sizeof rec.path) != 0) return TBS_ST_INTERNAL;
                       return st;
                     },
                     w.b, 1240});
  }
  {
    auto rec = sample_tavrel_vstat("../target");
    W w = put_vstat(W(), rec.vstat);
    w.u32(1).str("../target");
    cases.push_back({"vstat_link", [rec](std::string* o) { return tavrel_vstat_encode(&rec, o); },
                     [](unsigned n, const char* d) -> tbs_status_t {
                       tavrel_vstat back;
                       return tavrel_vstat_decode(&back, n, d);
                     },
                     w.b, 1240});
  }
  {
    std::string name(255, 'n');
    auto rec = sample_dirent(name);
    W w;
    w.u32(255).raw(name.data(), 255).pad(255).u32(0).u32(2).u32(0x2000).u32(0).oid(oid_n(1)).i32(5).oid(oid_n(2)).i32(6).u32(0);
    cases.push_back({"dirent_max_name", [rec](std::string* o) { return tavrel_dirent_encode(&rec, o); },
                     [rec](unsigned n, const char* d) -> tbs_status_t {
                       tavrel_dirent back;
                       tbs_status_t st = tavrel_dirent_decode(&back, n, d);
                       if (st == 0 && (back.namlen != 255 || std::strcmp(back.name, rec.name) != 0)) return TBS_ST_INTERNAL;
                       return st;
                     },
                     w.b, 320});
  }
  {
    auto rec = sample_scope("/proj/src");
    W w;
    w.oid(oid_n(5)).oid(TBS_OID_NULL).str("/proj/src").u32(41);
    cases.push_back({"scope", [rec](std::string* o) { return tavrel_scope_encode(&rec, o); },
                     [](unsigned n, const char* d) -> tbs_status_t {
                       tavrel_scope back;
                       tbs_status_t st = tavrel_scope_decode(&back, n, d);
                       if (st == 0 && (back.gn != 41 || std::strcmp(back.name, "/proj/src") != 0)) return TBS_ST_INTERNAL;
                       return st;
                     },
                     w.b, 1064});
  }
  {
    std::string p(1023, 'a');
    auto rec = sample_sei(p, p, p);
    W w;
    w.str(p).oid(oid_n(3)).uuid(uuid_n(4)).oid(oid_n(6)).str(p).str(p);
    cases.push_back({"synceleminfo_max", [rec](std::string* o) { return tavrel_synceleminfo_encode(&rec, o); },
                     [](unsigned n, const char* d) -> tbs_status_t {
                       tavrel_synceleminfo_t back;
                       return tavrel_synceleminfo_decode(&back, n, d);
                     },
                     w.b, 3132});
  }
  {
    auto rec = sample_sei("/proj/a.c", "", "");
    W w;
    w.str("/proj/a.c").oid(oid_n(3)).uuid(uuid_n(4)).oid(oid_n(6)).str("").str("");
    cases.push_back({"synceleminfo_unload", [rec](std::string* o) { return tavrel_synceleminfo_encode(&rec, o); },
                     [](unsigned n, const char* d) -> tbs_status_t {
                       tavrel_synceleminfo_t back;
                       tbs_status_t st = tavrel_synceleminfo_decode(&back, n, d);
                       if (st == 0 && back.curr_version_str[0] != '\0') return TBS_ST_INTERNAL;
                       return st;
                     },
                     w.b, 3132});
  }
  return cases;
}

}  // namespace

TEST(HelperCodecs, GoldenImagesRoundTripsAndTruncation) {
  for (const auto& c : helper_cases()) {
    SCOPED_TRACE(c.name);
    std::string got;
    ASSERT_EQ(c.encode(&got), TBS_ST_OK);
    EXPECT_EQ(got, c.expected);
    EXPECT_LE(got.size(), c.max_size);
    EXPECT_EQ(c.decode(unsigned(got.size()), got.data()), TBS_ST_OK);
    // Every strict prefix is malformed, and so is the record with trailing bytes.
    for (size_t n = 0; n < got.size(); n += (n < 64 ? 1 : 37)) {
      EXPECT_EQ(c.decode(unsigned(n), got.data()), TBS_ST_FAILURE) << "prefix " << n;
    }
    std::string longer = got + std::string(4, '\0');
    EXPECT_EQ(c.decode(unsigned(longer.size()), longer.data()), TBS_ST_FAILURE);
  }
}

TEST(HelperCodecs, HostileBytesFailCleanly) {
  // A string length far beyond the limit, a NUL inside a name, a bool of 2, a name one byte too long.
  auto d = sample_dirent("abc");
  std::string good;
  ASSERT_EQ(tavrel_dirent_encode(&d, &good), TBS_ST_OK);
  tavrel_dirent back;

  std::string huge = good;
  huge[0] = huge[1] = huge[2] = huge[3] = '\xFF';
  EXPECT_EQ(tavrel_dirent_decode(&back, unsigned(huge.size()), huge.data()), TBS_ST_FAILURE);

  std::string nul = good;
  nul[5] = '\0';
  EXPECT_EQ(tavrel_dirent_decode(&back, unsigned(nul.size()), nul.data()), TBS_ST_FAILURE);

  std::string badbool = good;
  badbool[badbool.size() - 1] = 2;
  EXPECT_EQ(tavrel_dirent_decode(&back, unsigned(badbool.size()), badbool.data()), TBS_ST_FAILURE);

  W w;
  w.str(std::string(256, 'x'));
  EXPECT_EQ(tavrel_dirent_decode(&back, unsigned(w.b.size()), w.b.data()), TBS_ST_FAILURE);

  // A path of 1024 characters does not fit a pname.
  W p;
  p.str(std::string(1024, 'y')).oid(oid_n(5)).u32(0);
  tavrel_scope s;
  std::string img = W().oid(oid_n(1)).oid(oid_n(2)).b + p.b;
  EXPECT_EQ(tavrel_scope_decode(&s, unsigned(img.size()), img.data()), TBS_ST_FAILURE);

  // Random garbage never crashes and never succeeds with trailing junk.
  uint32_t seed = 12345;
  for (int i = 0; i < 2000; ++i) {
    std::string junk(1 + (i % 400), '\0');
    for (auto& ch : junk) {
      seed = seed * 1103515245 + 12345;
      ch = char(seed >> 16);
    }
    tavrel_vstat v;
    tavrel_synceleminfo_t e;
    tavrel_vstat_decode(&v, unsigned(junk.size()), junk.data());
    tavrel_synceleminfo_decode(&e, unsigned(junk.size()), junk.data());
  }
}

TEST(HelperCodecs, StatusesForNullArgumentsAndSmallBuffers) {
  std::string out;
  EXPECT_EQ(tavrel_vstat_encode(nullptr, &out), TBS_ST_BAD_ARG);
  tavrel_vstat v;
  EXPECT_EQ(tavrel_vstat_decode(nullptr, 4, "abcd"), TBS_ST_BAD_ARG);
  EXPECT_EQ(tavrel_vstat_decode(&v, 4, nullptr), TBS_ST_BAD_ARG);
  auto rec = sample_tavrel_vstat("x");
  char small[100];
  unsigned len = 1;
  EXPECT_EQ(tavrel_vstat_encode(&rec, small, sizeof small, &len), TBS_ST_NO_ROOM);
  EXPECT_EQ(len, 0u);
  // A name whose length field disagrees with the text is refused on encode.
  auto d = sample_dirent("abc");
  d.namlen = 5;
  EXPECT_EQ(tavrel_dirent_encode(&d, &out), TBS_ST_NO_ROOM);
}

TEST(LoadScopeOid, DerivedFromPathAndDistinctFromAutomatic) {
  tbs_oid_s a = tavrel_load_scope_oid("/proj/src");
  EXPECT_EQ(tbs_oid_to_str(a), "660fea74-c21c-592b-4d17-8486815405ce");  // SHA-256 computed elsewhere
  EXPECT_NE(a, tavrel_load_scope_oid("/proj/src/"));
  EXPECT_NE(a, AUTOMATIC_LOAD_SCOPE_OID);
  EXPECT_FALSE(tbs_oid_is_null(AUTOMATIC_LOAD_SCOPE_OID));
}

TEST(RpcArgs, AgentEncodingOfLineFeeds) {
  struct {
    std::string name, value, expected;
  } cases[] = {
      {"n", "value", "n=value\n"},   {"n", "", "n=\n"},
      {"n", "a\n", "n=a%0A\n"},      {"n", "a\nb", "n=a%0Aa\nb\n"},
      {"bad=name", "x", ""},         {"", "x", ""},
      {"n", "a\n\n", "n=a%0A%0A\n"},
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
  std::string expected = "Content-Type: multipart/mixed; boundary=" + B + "\r\n" + "--" + B +
                         "\r\nContent-ID: SiloInfo\r\nSiloStorage: /s\r\nContent-Length: 0\r\n\r\n\r\n" + "--" + B +
                         "\r\nContent-ID: Xdr_ObjScope\r\nContent-Length: 6\r\n\r\n" + std::string("\r\n--X\xFF", 6) +
                         "\r\n" + "--" + B +
                         "\r\nContent-ID: Status\r\nStatus: 1002\r\nHasNonOkMsg: 1\r\nContent-Length: 18\r\n\r\n"
                         "Name \"x\" not found\r\n" +
                         "--" + B + "--\r\n";
  EXPECT_EQ(w.data(), expected);
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
