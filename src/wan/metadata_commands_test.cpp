// Get_Metadata, Lookup and Get_Directory_Contents: what each sends or refuses to send, what the object
// commands make of every shape of reply (whole and byte by byte, over a scripted server), and the
// listing parsed as libcurl delivers it: every split point, every truncation, hostile entries.
#include <gtest/gtest.h>

#include <stdexcept>

#include "proto/proto_test_util.h"
#include "proto/wan_names.h"
#include "wan/get_directory_contents.h"
#include "wan/get_metadata.h"
#include "wan/lookup.h"
#include "wan/rpc_cmd_test_util.h"

using namespace wan_test;
using proto_test::oid_n;
using proto_test::uuid_n;
namespace n = tavrel_wan;
using Names = std::vector<std::string>;

namespace {

std::string vstat(silo_mtype_t mtype, uint8_t seed = 1) {
  tavrel_vstat v{proto_test::sample_vstat(), 0, {}};
  v.vstat.mtype = mtype;
  v.vstat.obj_oid = oid_n(seed);
  std::string out;
  EXPECT_EQ(tavrel_vstat_encode(&v, &out), 0);
  return out;
}
std::string scope(unsigned gn) {
  tavrel_scope s{oid_n(5), {}, gn, "Automatic"};
  std::string out;
  EXPECT_EQ(tavrel_scope_encode(&s, &out), 0);
  return out;
}
std::string dirent(const std::string& name, silo_mtype_t elem = 5, silo_mtype_t ver = 6) {
  tavrel_dirent d{uint32_t(name.size()), {}, 0, 2, 0x2000, 0, oid_n(2), elem, oid_n(3), ver, 0};
  snprintf(d.name, sizeof d.name, "%s", name.c_str());
  std::string out;
  EXPECT_EQ(tavrel_dirent_encode(&d, &out), 0);
  return out;
}
struct Part {
  std::string id, body;
};
std::string doc(const std::vector<Part>& parts, int32_t code = 0, const std::string& msg = "", bool status = true) {
  return make_doc([&](n::ReplyWriter& w) {
    for (const Part& p : parts) w.part(p.id, p.body);
    if (status) w.status(code, msg);
  });
}
const std::string OBJ = n::PART_OBJ_METADATA, ELEM = n::PART_ELEM_METADATA, SCOPE = n::PART_OBJ_SCOPE,
                  DIR = n::PART_DIRECTORY_ENTRY;
// An entry with its scope and both records (the object's OID seeded by the name's first byte).
std::vector<Part> entry(const std::string& name, silo_mtype_t obj = 6, silo_mtype_t el = 5) {
  return {{DIR, dirent(name)}, {SCOPE, scope(3)}, {OBJ, vstat(obj, uint8_t(name[0]))}, {ELEM, vstat(el)}};
}
std::vector<Part> cat(std::initializer_list<std::vector<Part>> lists) {
  std::vector<Part> out;
  for (const auto& l : lists) out.insert(out.end(), l.begin(), l.end());
  return out;
}

// Records "name obj/elem" per entry (and checks each entry carries its own object record); refuses
// or throws at entry `stop_at`.
struct Recorder : Get_Directory_Contents_Listener {
  Names seen;
  size_t stop_at = SIZE_MAX;
  bool throw_it = false;
  bool process_dirent(tavrel_extended_dirent* e) override {
    EXPECT_EQ(tbs_oid_to_str(e->obj.vstat.obj_oid), tbs_oid_to_str(oid_n(uint8_t(e->dirent.name[0]))));
    seen.push_back(std::string(e->dirent.name) + " " + std::to_string(e->obj.vstat.mtype) + "/" +
                   std::to_string(e->elem.vstat.mtype));
    if (seen.size() - 1 != stop_at) return true;
    if (throw_it) throw std::runtime_error("reader broke");
    return false;
  }
};

// The listing driven without a transfer, as libcurl would drive it: the result run() would give.
struct Fed_Listing : Get_Directory_Contents {
  explicit Fed_Listing(Recorder* r) : Get_Directory_Contents(uuid_n(1), uuid_n(2), oid_n(3), TBS_OID_NULL, r) {}
  bool done = false;
  bool transfer_executed() const override { return done; }
  int drive(const std::string& reply, size_t block) {
    if (block == 0) block = 1;
    for (size_t i = 0; i < reply.size(); i += block) {
      std::string b = reply.substr(i, block);
      int rc = process_response(b.data(), unsigned(b.size()));
      if (rc != 0) return rc == RCLIENT_ST_LISTENER ? reply_error() : rc;
    }
    done = true;
    return receive();
  }
};

class MetadataCommands : public ScriptedServerTest {};

TEST_F(MetadataCommands, WhatEachCommandSendsOrRefusesToSend) {
  for (const char* rpc : {n::RPC_GET_METADATA, n::RPC_LOOKUP, n::RPC_GET_DIRECTORY_CONTENTS})
    answer(rpc, n::reply_status_only(TBS_ST_NOT_FOUND, "no"));
  const tbs_uuid_s v = uuid_n(1), s = uuid_n(2), N = TBS_UUID_NULL;
  const tbs_oid_s ver = oid_n(3), el = oid_n(4), O = TBS_OID_NULL;
  const std::string V = "ViewUuid=" + tbs_uuid_to_str(v) + "\n", S = "SiloUuid=" + tbs_uuid_to_str(s) + "\n",
                    VER = "VersionOid=" + tbs_oid_to_str(ver) + "\n", EL = "ElementOid=" + tbs_oid_to_str(el) + "\n";
  Recorder r;
  const std::vector<std::pair<std::shared_ptr<RClient_Abstract_Cmd>, std::string>> cases = {
      {std::make_shared<Get_Metadata>(v, s, ver, el), V + S + VER + EL},
      {std::make_shared<Get_Metadata>(v, s, O, O), V + S + "PathName=\n"},
      {std::make_shared<Get_Metadata>(v, N, ver, O), V + VER + "PathName=\n"},
      {std::make_shared<Get_Metadata>(v, "/proj/a b"), V + "PathName=/proj/a b\n"},
      {std::make_shared<Get_Metadata>(v, "/proj/nl\n"), V + "PathName=/proj/nl%0A\n"},
      {std::make_shared<Get_Metadata>(N, s, ver, el), ""},
      {std::make_shared<Get_Metadata>(v, "/a\nb"), ""},
      {std::make_shared<Get_Metadata>(v, "/" + std::string(1023, 'p')), ""},
      {std::make_shared<Lookup>(v, s, ver, O, "x.c"), V + S + VER + "SiloPathName=\nLeafName=x.c\n"},
      {std::make_shared<Lookup>(v, s, O, el, std::string(255, 'l')), V + S + EL + "LeafName=" + std::string(255, 'l') + "\n"},
      {std::make_shared<Lookup>(N, s, ver, O, "x"), ""},
      {std::make_shared<Lookup>(v, s, ver, O, ""), ""},
      {std::make_shared<Lookup>(v, s, ver, O, "a/b"), ""},
      {std::make_shared<Lookup>(v, s, ver, O, "a\nb"), ""},
      {std::make_shared<Lookup>(v, s, ver, O, std::string(256, 'l')), ""},
      {std::make_shared<Get_Directory_Contents>(v, s, ver, O, &r), V + S + VER + "PathName=\n"},
      {std::make_shared<Get_Directory_Contents>(v, s, ver, el, &r), V + S + VER + EL},
      {std::make_shared<Get_Directory_Contents>(v, "/proj", &r), V + "PathName=/proj\n"},
      {std::make_shared<Get_Directory_Contents>(N, "/proj", &r), ""},
  };
  for (const auto& [cmd, sent] : cases) {
    SCOPED_TRACE(sent);
    const size_t before = server->requests().size();
    if (sent.empty()) {
      EXPECT_EQ(cmd->run(), RCLIENT_ST_MARSHAL);
      EXPECT_EQ(cmd->get_status_code(), RCLIENT_ST_MARSHAL);
      EXPECT_EQ(server->requests().size(), before);
      continue;
    }
    EXPECT_EQ(cmd->run(), 0);
    EXPECT_EQ(cmd->get_status_code(), TBS_ST_NOT_FOUND);
    EXPECT_EQ(view_status(*cmd), TAVREL_ST_WAN_CALL_2);
    EXPECT_EQ(server->requests().back().rpc + " " + server->requests().back().rpcargs, cmd->get_rpc_id() + " " + sent);
  }
  EXPECT_TRUE(r.seen.empty());
}

TEST_F(MetadataCommands, ObjectRepliesOfEveryShapeWholeAndByteByByte) {
  const std::string truncated = vstat(6).substr(0, vstat(6).size() - 4);
  struct Row {
    const char* name;
    std::string doc;
    int wan;
    int32_t code;
    std::string message, results;  // the message within the status message; "<rc>:<obj mtype>/<rc>:<elem mtype> <gn>"
  };
  const int MAL = RCLIENT_ST_MALFORMED_ITEM, BAD = TBS_ST_FAILURE;
  const std::string refused_mal = "30009:0/30009:0 0", refused_bad = "1001:0/1001:0 0";
  const std::vector<Row> rows = {
      {"good", doc({{SCOPE, scope(7)}, {OBJ, vstat(6)}, {ELEM, vstat(5)}}), 0, 0, "", "0:6/0:5 7"},
      {"any order, unknown parts", doc({{"X", "?"}, {ELEM, vstat(2)}, {OBJ, vstat(3)}, {SCOPE, scope(9)}}), 0, 0, "", "0:3/0:2 9"},
      {"no Status part", doc({{OBJ, vstat(7)}, {ELEM, vstat(7)}}, 0, "", false), 0, -1, "", "0:7/0:7 0"},
      {"refused by the server", doc({{OBJ, vstat(6)}}, TBS_ST_NOT_FOUND, "Name \"x\" not found"), 0, TBS_ST_NOT_FOUND,
       "Name \"x\" not found", "1002:0/1002:0 0"},
      {"no element record", doc({{SCOPE, scope(7)}, {OBJ, vstat(6)}}), MAL, MAL, "without the element metadata", refused_mal},
      {"no records", doc({}), MAL, MAL, "without the object metadata", refused_mal},
      {"object kind 4", doc({{OBJ, vstat(4)}, {ELEM, vstat(5)}}), BAD, BAD, "Unexpected mtype(4)", refused_bad},
      {"element kind 10", doc({{OBJ, vstat(6)}, {ELEM, vstat(10)}}), BAD, BAD, "mtype(10) in the element", refused_bad},
      {"object kind -1", doc({{OBJ, vstat(-1)}, {ELEM, vstat(5)}}), BAD, BAD, "mtype(-1)", refused_bad},
      {"truncated record", doc({{OBJ, truncated}, {ELEM, vstat(5)}}), BAD, BAD, "", refused_bad},
      {"oversized part", doc({{OBJ, vstat(6)}, {ELEM, vstat(5)}, {"Big", std::string(Lookup::MAX_PART + 1, 'b')}}),
       RCLIENT_ST_NO_MEMORY, RCLIENT_ST_NO_MEMORY, "", "30011:0/30011:0 0"},
  };
  for (bool lookup : {false, true})
    for (const Row& r : rows) {
      SCOPED_TRACE(std::string(r.name) + (lookup ? " lookup" : " get_metadata"));
      for (size_t block : {size_t(1), r.doc.size()}) {
        answer(lookup ? n::RPC_LOOKUP : n::RPC_GET_METADATA, r.doc, block);
        std::unique_ptr<Metadata_Reply_Base> cmd;
        if (lookup)
          cmd = std::make_unique<Lookup>(uuid_n(1), uuid_n(2), oid_n(3), TBS_OID_NULL, "x");
        else
          cmd = std::make_unique<Get_Metadata>(uuid_n(1), "/proj/x");
        EXPECT_EQ(cmd->run(), r.wan);
        EXPECT_EQ(cmd->get_status_code(), r.code);
        EXPECT_NE(cmd->get_status_message().find(r.message), std::string::npos) << cmd->get_status_message();
        EXPECT_EQ(view_status(*cmd), expected_view_status(r.wan, r.code));
        tavrel_vstat o, e;
        tbs_oid_s so;
        unsigned gn = 99;
        const int ro = cmd->get_obj_tavrel_vstat(o), re = cmd->get_elem_tavrel_vstat(e);
        cmd->get_obj_scope_info(so, gn);
        EXPECT_EQ(std::to_string(ro) + ":" + std::to_string(o.vstat.mtype) + "/" + std::to_string(re) + ":" +
                      std::to_string(e.vstat.mtype) + " " + std::to_string(gn),
                  r.results);
      }
    }
}

TEST(DirectoryListing, HostileAndBrokenListingsFailWithNothingUnusableDelivered) {
  std::string long_name = dirent("n");
  long_name.replace(0, 4, std::string("\0\0\1\x2c", 4));  // a name length of 300
  const std::string whole = doc(cat({entry("a"), entry("b", 7, 7), {{"Unknown", "x"}}, entry("c", 3, 2)}));
  const std::string dir_id = "Content-ID: " + DIR;
  const size_t third = whole.find(dir_id, whole.find(dir_id, whole.find(dir_id) + 1) + 1);
  struct Row {
    const char* name;
    std::string doc;
    int wan;
    int32_t code;
    Names seen;
  };
  const std::vector<Row> rows = {
      {"empty directory", doc({}), 0, 0, {}},
      {"three entries in order", whole, 0, 0, {"a 6/5", "b 7/7", "c 3/2"}},
      {"failure after an entry", doc(entry("a"), TBS_ST_STALE, "gone"), 0, TBS_ST_STALE, {"a 6/5"}},
      {"parts after the status skipped", make_doc([](n::ReplyWriter& w) {
         for (const Part& p : cat({entry("a"), {{n::PART_STATUS, ""}}, entry("z")}))
           p.id == n::PART_STATUS ? w.status(0) : void(w.part(p.id, p.body));
       }),
       0, 0, {"a 6/5"}},
      {"entry without its element record", doc(cat({entry("a"), {{DIR, dirent("b")}, {OBJ, vstat(6, 'b')}}, entry("c")})),
       RCLIENT_ST_MALFORMED_ITEM, -1, {"a 6/5"}},
      {"records of the entry before are not reused", doc(cat({entry("a"), {{DIR, dirent("b")}}})),
       RCLIENT_ST_MALFORMED_ITEM, -1, {"a 6/5"}},
      {"entry kind 4", doc(cat({entry("a"), {{DIR, dirent("b", 4)}, {OBJ, vstat(6, 'b')}, {ELEM, vstat(5)}}})),
       TBS_ST_FAILURE, -1, {"a 6/5"}},
      {"object kind 10", doc(cat({entry("a"), entry("b", 10)})), TBS_ST_FAILURE, -1, {"a 6/5"}},
      {"name holding a slash", doc(entry("a/b")), TBS_ST_FAILURE, -1, {}},
      {"name length 300", doc(cat({entry("a"), {{DIR, long_name}}, entry("c")})), TBS_ST_FAILURE, -1, {"a 6/5"}},
      {"oversized part", doc(cat({entry("a"), {{DIR, std::string(Get_Directory_Contents::MAX_PART + 1, 'd')}}})),
       RCLIENT_ST_NO_MEMORY, -1, {}},  // the part never parses: the entry before it stays held
      {"ends between entries without a status", doc(cat({entry("a"), entry("b")}), 0, "", false),
       RCLIENT_ST_PREMATURE_EOF, -1, {"a 6/5"}},
      {"cut inside the third entry", whole.substr(0, third + 5),
       RCLIENT_ST_PREMATURE_EOF, -1, {"a 6/5"}},
  };
  for (const Row& r : rows)
    for (size_t block : {size_t(1), size_t(7), r.doc.size()}) {
      SCOPED_TRACE(std::string(r.name) + " " + std::to_string(block));
      Recorder rec;
      Fed_Listing cmd(&rec);
      EXPECT_EQ(cmd.drive(r.doc, block), r.wan);
      EXPECT_EQ(cmd.get_status_code(), r.code);
      EXPECT_EQ(rec.seen, r.seen);
      EXPECT_EQ(cmd.entries_delivered(), r.seen.size());
    }
  // A listener that refuses or throws stops the listing at once.
  for (bool throw_it : {false, true})
    for (size_t k = 0; k < 3; ++k) {
      Recorder rec;
      rec.stop_at = k;
      rec.throw_it = throw_it;
      Fed_Listing cmd(&rec);
      EXPECT_EQ(cmd.drive(whole, 5), RCLIENT_ST_LISTENER);
      EXPECT_EQ(rec.seen.size(), k + 1);
    }
}

TEST(DirectoryListing, EverySplitPointAndTruncationOfASmallListing) {
  const std::string reply = doc(cat({entry("a"), entry("b", 7, 7)}));
  const Names all = {"a 6/5", "b 7/7"};
  const size_t status_at = reply.find("Content-ID: Status");
  for (size_t i = 0; i <= reply.size(); ++i) {
    Recorder split, cut;
    Fed_Listing a(&split), b(&cut);
    std::string head = reply.substr(0, i), tail = reply.substr(i);
    if (!head.empty()) {
      ASSERT_EQ(a.process_response(head.data(), unsigned(head.size())), 0) << i;
    }
    // The last entry waits for the Status part.
    ASSERT_LE(split.seen.size(), i <= status_at ? 1u : 2u) << i;
    ASSERT_EQ(a.drive(tail, tail.size()), 0) << i;
    ASSERT_EQ(split.seen, all) << "split at " << i;
    // Cut at i: whole only with its Status part; otherwise 30006 and at most the first entry.
    const int rc = b.drive(head, 64);
    const bool whole = b.get_status_code() == 0;
    ASSERT_EQ(rc, whole ? 0 : RCLIENT_ST_PREMATURE_EOF) << "cut at " << i;
    ASSERT_EQ(cut.seen, whole ? all : Names(all.begin(), all.begin() + std::min<size_t>(cut.seen.size(), 1))) << i;
  }
}

TEST_F(MetadataCommands, LongListingOverTheWireAndAThrowingListenerCutsIt) {
  std::vector<Part> parts;
  for (int i = 0; i < 10000; ++i) {
    auto e = entry("f" + std::to_string(i));
    parts.insert(parts.end(), e.begin(), e.end());
  }
  const std::string reply = doc(parts);
  for (size_t stop_at : {SIZE_MAX, size_t(2)}) {
    auto served = answer(n::RPC_GET_DIRECTORY_CONTENTS, reply, 4096);
    Recorder rec;
    rec.stop_at = stop_at;
    rec.throw_it = true;
    Get_Directory_Contents cmd(uuid_n(1), uuid_n(2), oid_n(3), TBS_OID_NULL, &rec);
    EXPECT_EQ(cmd.run(), stop_at == SIZE_MAX ? 0 : RCLIENT_ST_LISTENER);
    EXPECT_EQ(rec.seen.size(), stop_at == SIZE_MAX ? 10000u : 3u);
    EXPECT_EQ(served->wait_cut_short(), stop_at != SIZE_MAX);
    EXPECT_LT(cmd.peak_response_buffer(), 4096u + 4096u);
  }
}

}  // namespace
