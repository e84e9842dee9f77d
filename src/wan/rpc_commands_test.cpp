// The RPC commands (SILO information, config spec read and change, cleartext fetch) against a scripted
// server, as tables over the commands: what each sends and what it refuses to send, what it makes of
// every shape of reply (whole and one byte at a time), the resend after a lost session; and the
// cleartext fetch's own file handling.
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "proto/wan_names.h"
#include "wan/get_cleartext.h"
#include "wan/get_configspec.h"
#include "wan/get_siloinfo.h"
#include "wan/rclient_messages.h"
#include "wan/rpc_cmd_test_util.h"
#include "wan/set_configspec.h"

using namespace wan_test;
namespace n = tavrel_wan;
using Rules = std::vector<std::string>;

namespace {

const std::string kFamily = "0123abcd-0123-4567-89ab-0123456789ab";
const std::string kReplica = "fedcba98-7654-3210-fedc-ba9876543210";
const std::string kNull = "00000000-0000-0000-0000-000000000000";
const std::string kTail = "/cltxt/" + kReplica + "/" + kFamily + "/unix";
const std::string kStale = "stale contents";
const std::string kSiloGood = "/proj " + kFamily + " " + kReplica + " /store/proj 10";

tbs_uuid_s uuid(const std::string& text) {
  tbs_uuid_s u;
  if (tbs_str_to_uuid(text, &u) != 0) std::abort();
  return u;
}

enum Kind { SILO, GET_CS, SET_CS, CLTXT };
const char* const kTarget[] = {n::RPC_GET_SILO_INFO, n::RPC_GET_CONFIG_SPEC, n::RPC_SET_CONFIG_SPEC, "/tavrel/cltxt/"};

struct Part {
  std::string id;
  n::ReplyItems items;
  std::string body;
};
std::string doc(const std::vector<Part>& parts, int32_t code = 0, const std::string& msg = "") {
  return make_doc([&](n::ReplyWriter& w) {
    for (const Part& p : parts) w.part(p.id, p.items, p.body);
    w.status(code, msg);
  });
}
std::string silo_doc(const std::string& family = kFamily, const std::string& replica = kReplica,
                     const std::string& storage = "/store/proj", const std::string& pub = "1",
                     const std::string& proj = "0", const std::string& msg = "") {
  return doc({{n::PART_SILO_INFO,
               {{n::ITEM_SILO_FAMILY_UUID, family}, {n::ITEM_SILO_REPLICA_UUID, replica}, {n::ITEM_SILO_STORAGE, storage},
                {n::ITEM_IS_PUBLIC, pub}, {n::ITEM_IS_PROJECT, proj}},
               ""}},
             0, msg);
}
// SILO tag parts, a ViewInfo part with the items that are not empty (none: no part), a Status.
std::string set_doc(const Rules& tags, const std::string& cur, const std::string& vgn, int32_t code = 0,
                    const std::string& msg = "") {
  std::vector<Part> parts;
  for (const auto& t : tags) parts.push_back({n::PART_LOAD_RULE_SILO_TAG, {{n::ITEM_SILO_TAG, t}}, ""});
  n::ReplyItems info;
  if (!cur.empty()) info.push_back({n::ITEM_CURRENT_OPERATION_GN, cur});
  if (!vgn.empty()) info.push_back({n::ITEM_VIEW_GN, vgn});
  if (!info.empty()) parts.push_back({n::PART_VIEW_INFO, info, ""});
  return doc(parts, code, msg);
}

class CommandsTest : public ScriptedServerTest {
 protected:
  // A command of each kind with ordinary arguments; the cleartext's file holds stale contents first.
  std::unique_ptr<RClient_Abstract_Cmd> make(Kind k) {
    if (k == SILO) return std::make_unique<Get_SILOInfo>("/proj");
    if (k == GET_CS) return std::make_unique<Get_ConfigSpec>(uuid(kFamily));
    if (k == SET_CS) return std::make_unique<Set_ConfigSpec>(uuid(kFamily), Rules{"select * latest"}, Rules{}, false);
    std::ofstream(out()) << kStale;
    return std::make_unique<Get_ClearText>(kTail, out());
  }
  std::string out() const { return home->path() + "/out"; }
};

TEST_F(CommandsTest, WhatEachCommandSendsOrRefusesToSend) {
  for (Kind k : {SILO, GET_CS, SET_CS, CLTXT}) answer(kTarget[k], n::reply_status_only(TBS_ST_NOT_FOUND, "no"));
  const tbs_uuid_s v = uuid(kFamily);
  const std::string silo = "POST Tavrel_Orlen::getsiloinfo_rpc ", get = "POST Tavrel_Orlen::getconfigspec_rpc ";
  const std::string set = "POST Tavrel_Orlen::setconfigspec_rpc ", va = "ViewUuid=" + kFamily + "\n";
  // What the server saw ("" when nothing may be sent).
  std::vector<std::pair<std::shared_ptr<RClient_Abstract_Cmd>, std::string>> cases = {
      {std::make_shared<Get_SILOInfo>("/proj"), silo + "SiloTag=/proj\n"},
      {std::make_shared<Get_SILOInfo>(""), ""},
      {std::make_shared<Get_SILOInfo>("/a\nb"), ""},
      {std::make_shared<Get_ConfigSpec>(v), get + va},
      {std::make_shared<Get_ConfigSpec>(v, false), get + va + "FreezeLoadScopes=0\n"},
      {std::make_shared<Get_ConfigSpec>(v, true), get + va + "FreezeLoadScopes=1\n"},
      {std::make_shared<Get_ConfigSpec>(TBS_UUID_NULL), ""},
      {std::make_shared<Set_ConfigSpec>(v, Rules{}, Rules{}, false),
       set + va + "NumElemRules=0\nNumLoadRules=0\nForceUpdate=0\n"},
      // A rule's own final line ends travel coded; an empty rule and "=" inside a value are plain text.
      {std::make_shared<Set_ConfigSpec>(v, Rules{"select /a/** label:R=1\n", "", "select * latest\r"},
                                        Rules{"load /p\n\n", "load /q"}, true),
       set + va + "NumElemRules=3\nElemRule=select /a/** label:R=1%0A\nElemRule=\nElemRule=select * latest\r\n" +
           "NumLoadRules=2\nLoadRule=load /p%0A%0A\nLoadRule=load /q\nForceUpdate=1\n"},
      {std::make_shared<Set_ConfigSpec>(TBS_UUID_NULL, Rules{"select * latest"}, Rules{}, false), ""},
      {std::make_shared<Set_ConfigSpec>(v, Rules{"select * latest\nselect x"}, Rules{}, false), ""},
      {std::make_shared<Set_ConfigSpec>(v, Rules{}, Rules{"\nload /b"}, false), ""},
      {std::make_shared<Get_ClearText>(kTail, out()), "GET /tavrel" + kTail + " "},
  };
  for (const char* tail : {"", "cltxt/a/b/c", "/cltxt/a b/c", "/cltxt/a?b", "/cltxt/a#b", "/cltxt/a\nb", "/cltxt/\x7f"})
    cases.push_back({std::make_shared<Get_ClearText>(tail, out()), ""});
  for (const auto& [cmd, sent] : cases) {
    SCOPED_TRACE(sent);
    size_t before = server->requests().size();
    if (sent.empty()) {
      EXPECT_EQ(cmd->run(), RCLIENT_ST_MARSHAL);
      EXPECT_EQ(view_status(*cmd), TAVREL_ST_WAN_CALL);
      EXPECT_EQ(server->requests().size(), before);
      continue;
    }
    EXPECT_EQ(cmd->run(), 0);
    EXPECT_EQ(cmd->get_status_code(), TBS_ST_NOT_FOUND);
    auto reqs = server->requests();
    ASSERT_EQ(reqs.size(), before + 1);
    const Recorded& r = reqs.back();
    EXPECT_EQ(r.method + " " + (r.method == "POST" ? r.rpc : r.path) + " " + r.rpcargs, sent);
    if (r.method == "POST") {
      EXPECT_EQ(header(r, "x-ondrel-rpc-name"), r.rpc);
    }
  }
  EXPECT_FALSE(std::filesystem::exists(out()));  // no cleartext file was opened
}

TEST_F(CommandsTest, RepliesOfEveryShapeWholeAndByteByByte) {
  const std::string bin = random_bytes(3000, 1) + "\r\n--" + n::DEFAULT_BOUNDARY + "--\r\n";
  const std::string elem = "select * latest\r\nselect /proj/** label:R1\n\n  indented  \n", tkm = "select * latest@dev";
  const std::string load = "load /proj/src\nload /other\n", frz = kNull + " /proj/src\n";
  Rules many;
  std::string many_result;
  for (size_t i = 0; i < Set_ConfigSpec::MAX_SILO_TAGS; ++i)
    many_result += many.emplace_back("/s" + std::to_string(i)) + ",";
  Rules too_many = many;
  too_many.push_back("/last");
  struct Row {
    Kind kind;
    const char* name;
    std::string doc;
    int wan;
    int32_t code;
    std::string message;  // within the status message
    std::string results;
  };
  const int MAL = RCLIENT_ST_MALFORMED_ITEM;
  const std::string mal_view = "Malformed view information", refused_silo = "SILO \"/proj\" not found";
  const std::vector<Row> rows = {
      {SILO, "good", silo_doc(), 0, 0, "", kSiloGood},
      {SILO, "empty family", silo_doc(""), MAL, 0, "SILO family oid not found for \"/proj\".\n", "-"},
      {SILO, "empty replica", silo_doc(kFamily, ""), MAL, 0, "SILO replica oid not found for \"/proj\".\n", "-"},
      {SILO, "empty storage", silo_doc(kFamily, kReplica, ""), MAL, 0, "SILO storage not found for \"/proj\".\n", "-"},
      {SILO, "no identity", silo_doc("not-a-uuid"), MAL, 0, "Invalid SILO OID not-a-uuid.\n", "-"},
      {SILO, "null replica", silo_doc(kFamily, kNull), MAL, 0, "Invalid SILO OID " + kNull + ".\n", "-"},
      // The server's message must not hide why the client refused the reply.
      {SILO, "malformed, then a message", silo_doc("", kReplica, "s", "1", "0", "all fine"), MAL, 0,
       "SILO family oid not found", "-"},
      {SILO, "status 0 without SiloInfo", n::reply_status_only(0), MAL, 0, "SILO information missing", "-"},
      {SILO, "unknown tag", n::reply_status_only(TBS_ST_NOT_FOUND, refused_silo), 0, TBS_ST_NOT_FOUND, refused_silo, "-"},
      {SILO, "flags true only for \"1\"", silo_doc(kFamily, kReplica, "/store/proj", "true", "11"), 0, 0, "",
       kSiloGood.substr(0, kSiloGood.size() - 2) + "00"},
      {SILO, "other parts, the info after the status",
       make_doc([](n::ReplyWriter& w) {
         w.part("Unrelated", {{"X", "1"}}, "body\r\n--");
         w.status(0);
         w.part(n::PART_SILO_INFO,
                {{n::ITEM_SILO_FAMILY_UUID, kFamily}, {n::ITEM_SILO_REPLICA_UUID, kReplica},
                 {n::ITEM_SILO_STORAGE, "/store/proj"}, {n::ITEM_IS_PUBLIC, "1"}},
                "");
       }),
       0, 0, "", kSiloGood},
      {GET_CS, "all four texts verbatim",
       doc({{n::PART_CSPEC_ELEMENT_RULES, {}, elem}, {n::PART_CSPEC_TKM_ELEMENT_RULES, {}, tkm},
            {n::PART_CSPEC_LOAD_RULES, {}, load}, {n::PART_CSPEC_FRZ_LOAD_SCOPES, {}, frz}}),
       0, 0, "", elem + "|" + tkm + "|" + load + "|" + frz},
      {GET_CS, "unknown parts, an empty one, a repeated one",
       doc({{"Unknown", {}, "load /not/this\n"}, {n::PART_CSPEC_ELEMENT_RULES, {}, ""},
            {n::PART_CSPEC_LOAD_RULES, {}, "load /first\n"}, {n::PART_CSPEC_LOAD_RULES, {}, load}}),
       0, 0, "", "||" + load + "|"},
      {GET_CS, "refused", n::reply_status_only(TBS_ST_BAD_ARG, "bad view"), 0, TBS_ST_BAD_ARG, "bad view", "|||"},
      {SET_CS, "tags once each, numbers up to 2^32-1", set_doc({"/proj", "/lib", "/proj"}, "4294967295", "0"), 0, 0,
       "", "/proj,/lib, 4294967295/0"},
      {SET_CS, "no tags", set_doc({}, "7", "6"), 0, 0, "", " 7/6"},
      {SET_CS, "refused", set_doc({}, "", "", TBS_ST_BAD_ARG, "line 2: bad rule"), 0, TBS_ST_BAD_ARG, "line 2: bad rule", " -"},
      {SET_CS, "status 0 without ViewInfo", set_doc({"/proj"}, "", ""), MAL, 0, "View information missing", "/proj, -"},
      {SET_CS, "ViewGN missing", set_doc({}, "7", ""), MAL, 0, mal_view, " -"},
      {SET_CS, "CurrentOperationGN too large", set_doc({}, "4294967296", "3"), MAL, 0, mal_view, " -"},
      {SET_CS, "empty SiloTag", set_doc({""}, "1", "1", 0, "fine"), MAL, 0, "Empty SILO tag", " 1/1"},
      {SET_CS, "as many tags as may be", set_doc(many, "1", "1"), 0, 0, "", many_result + " 1/1"},
      {SET_CS, "one tag too many", set_doc(too_many, "1", "1"), MAL, 0, "More than 4096 SILO tags", many_result + " 1/1"},
      {CLTXT, "binary data", doc({{n::PART_SYNC_ELEM_DATA, {}, bin}}), 0, 0, "", bin},
      {CLTXT, "empty version", doc({{n::PART_SYNC_ELEM_DATA, {}, ""}}), 0, 0, "", ""},
      {CLTXT, "unknown version", n::reply_status_only(TBS_ST_NOT_FOUND, "no version x"), 0, TBS_ST_NOT_FOUND, "no version x", kStale},
      {CLTXT, "status 0 without data", n::reply_status_only(0), MAL, 0,
       "Cleartext data missing from the reply for \"" + kTail + "\".\n", kStale},
      {CLTXT, "two data parts", doc({{n::PART_SYNC_ELEM_DATA, {}, "one"}, {n::PART_SYNC_ELEM_DATA, {}, "two"}}),
       RCLIENT_ST_FORMAT, -1, "More than one cleartext data part", "one"},
      {CLTXT, "data, then a failure", doc({{n::PART_SYNC_ELEM_DATA, {}, "partial?"}}, TBS_ST_INTERNAL, "store failed"), 0, TBS_ST_INTERNAL,
       "store failed", "partial?"},
      {CLTXT, "unknown parts around the data",
       doc({{"Before", {{"A", "1"}}, "skip me"}, {n::PART_SYNC_ELEM_DATA, {}, "data"}, {"After", {}, "skip me too"}}), 0,
       0, "", "data"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    for (size_t block : {size_t(1), r.doc.size()}) {
      if (block == 1 && r.doc.size() > 20000) continue;
      SCOPED_TRACE(block);
      answer(kTarget[r.kind], r.doc, block);
      auto cmd = make(r.kind);
      EXPECT_EQ(cmd->run(), r.wan);
      EXPECT_EQ(cmd->get_status_code(), r.code);
      EXPECT_NE(cmd->get_status_message().find(r.message), std::string::npos) << cmd->get_status_message();
      EXPECT_EQ(view_status(*cmd), expected_view_status(r.wan, r.code));
      EXPECT_EQ(results(*cmd, out()), r.results);
    }
  }
}

TEST_F(CommandsTest, LostSessionMeansOneReloginAndOneResend) {
  const std::string data = random_bytes(100000, 5);
  struct Good {
    Kind kind;
    std::string doc, results;
  };
  // A POST and the streamed GET (each command against the reference server: rpc_commands_reference_test).
  for (const Good& g : {Good{SILO, silo_doc(), kSiloGood}, Good{CLTXT, doc({{n::PART_SYNC_ELEM_DATA, {}, data}}), data}}) {
    SCOPED_TRACE(kTarget[g.kind]);
    auto served = answer(kTarget[g.kind], g.doc, 8192);
    server->expire_sessions();
    const size_t before = server->requests().size();
    const int logins = server->logins();
    auto cmd = make(g.kind);
    ASSERT_EQ(cmd->run(), 0);
    EXPECT_EQ(view_status(*cmd), 0);
    EXPECT_EQ(results(*cmd, out()), g.results);  // the second reply alone: nothing kept twice
    EXPECT_FALSE(served->wait_cut_short());  // read to its end
    EXPECT_EQ(server->logins(), logins + 1);
    auto reqs = server->requests();
    ASSERT_EQ(reqs.size(), before + 3);  // refused, login, resent
    EXPECT_EQ(reqs[before + 1].rpc, n::RPC_LOGIN);
    EXPECT_EQ(reqs[before + 2].path + " " + reqs[before + 2].rpcargs, reqs[before].path + " " + reqs[before].rpcargs);
    EXPECT_EQ(header(reqs[before + 2], "Cookie"),
              "JSESSIONID=" + session()->get_jsessionid() + ";Session=" + session()->get_session_id());
    EXPECT_NE(header(reqs[before + 2], "Cookie"), header(reqs[before], "Cookie"));
  }

  // When the resend or the re-login fails as well, so does the command: there is no third attempt. A
  // request that carried no session is never retried.
  const std::string auth = "Authorization failure, check username and password.\n";
  struct Fail {
    const char* name;
    std::function<void()> setup;
    size_t sent;
    int logins, refused_logins;
    std::string message;
  };
  for (const Fail& f :
       {Fail{"refused again",
             [this] { server->on_rpc(kTarget[SILO], [](const Recorded&, httplib::Response& res) { res.status = 403; }); },
             2, 1, 0, auth},
        Fail{"re-login refused", [this] { server->expire_sessions(); server->add_user("u", "changed"); }, 1, 0, 1,
             "Unable to establish new WAN session using cached credentials.\n" + auth},
        Fail{"never logged in", [this] { point_at(server->base_url()); }, 1, 0, 0, auth}}) {
    SCOPED_TRACE(f.name);
    f.setup();
    const size_t sent = server->count(kTarget[SILO]);
    const int logins = server->logins(), refused = server->login_failures();
    Get_SILOInfo cmd("/proj");
    EXPECT_EQ(cmd.run(), RCLIENT_ST_AUTH);
    EXPECT_EQ(cmd.get_status_message(), f.message);
    EXPECT_EQ(server->count(kTarget[SILO]) - sent, f.sent);
    EXPECT_EQ(server->logins() - logins, f.logins);
    EXPECT_EQ(server->login_failures() - refused, f.refused_logins);
  }
  // A refused Login is not repeated either.
  EXPECT_EQ(login(server->base_url(), "u", "wrong"), RCLIENT_ST_AUTH);
  EXPECT_EQ(server->login_failures(), 2);
}

TEST_F(CommandsTest, CleartextFileThatCannotBeWrittenStopsTheTransfer) {
  for (auto [path, err, what] : {std::tuple<std::string, int, std::string>{out() + "/no/such/file", ENOENT, "open"},
                                 {"/dev/full", ENOSPC, "write"}}) {
    SCOPED_TRACE(path);
    auto served = answer(kTarget[CLTXT], doc({{n::PART_SYNC_ELEM_DATA, {}, std::string(8u << 20, 'c')}}), 65536);
    Get_ClearText cmd(kTail, path);
    EXPECT_EQ(cmd.run(), RCLIENT_ST_LISTENER);
    EXPECT_TRUE(served->wait_cut_short());  // the transfer stopped at once
    EXPECT_EQ(cmd.get_write_error(), err);
    EXPECT_FALSE(cmd.data_complete());
    std::string message;
    EXPECT_EQ(view_status(cmd, &message), TAVREL_ST_WAN_CALL);
    EXPECT_NE(message.find("Unable to " + what + " cleartext file \"" + path + "\""), std::string::npos) << message;
  }
}

}  // namespace
