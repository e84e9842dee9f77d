// Get_ConfigSpec: both forms of the request, and the four rule texts of the reply kept verbatim,
// whether the reply comes whole or byte by byte.
#include "wan/get_configspec.h"

#include <gtest/gtest.h>

#include "core/tavrel_status.h"
#include "proto/wan_names.h"
#include "wan/rclient_messages.h"
#include "wan/rpc_cmd_test_util.h"
#include "wan/wan_test_fixture.h"

using namespace wan_test;
using tavrel_wan::ReplyWriter;

namespace {

const char* const kView = "0123abcd-0123-4567-89ab-0123456789ab";

tbs_uuid_s view_uuid() {
  tbs_uuid_s u;
  if (tbs_str_to_uuid(kView, &u) != 0) std::abort();
  return u;
}

class GetConfigSpecTest : public ScriptedServerTest {
 protected:
  GetConfigSpecTest() : ScriptedServerTest(tavrel_wan::RPC_GET_CONFIG_SPEC, false) {}
};

TEST_F(GetConfigSpecTest, BothFormsOfTheRequest) {
  answer(tavrel_wan::reply_status_only(0));
  Get_ConfigSpec plain(view_uuid());
  Get_ConfigSpec no_freeze(view_uuid(), false);
  Get_ConfigSpec freeze(view_uuid(), true);
  for (Get_ConfigSpec* c : {&plain, &no_freeze, &freeze}) ASSERT_EQ(c->run(), 0);
  auto reqs = server->requests();
  ASSERT_EQ(reqs.size(), 4u);
  for (size_t i = 1; i < 4; ++i) EXPECT_EQ(reqs[i].rpc, "Tavrel_Orlen::getconfigspec_rpc");
  EXPECT_EQ(reqs[1].rpcargs, std::string("ViewUuid=") + kView + "\n");
  EXPECT_EQ(reqs[2].rpcargs, std::string("ViewUuid=") + kView + "\nFreezeLoadScopes=0\n");
  EXPECT_EQ(reqs[3].rpcargs, std::string("ViewUuid=") + kView + "\nFreezeLoadScopes=1\n");
}

TEST_F(GetConfigSpecTest, NullViewSendsNothing) {
  for (bool two : {false, true}) {
    std::unique_ptr<Get_ConfigSpec> cmd =
        two ? std::make_unique<Get_ConfigSpec>(TBS_UUID_NULL, true) : std::make_unique<Get_ConfigSpec>(TBS_UUID_NULL);
    EXPECT_EQ(cmd->run(), RCLIENT_ST_MARSHAL);
    std::string message;
    int st = cmd->get_status_code();
    EXPECT_EQ(cmd->check_rpc_status(nullptr, message, st), TAVREL_ST_WAN_CALL);
  }
  EXPECT_EQ(server->requests().size(), 1u);
}

struct Expect {
  std::string elem, tkm, load, frz;
};

TEST_F(GetConfigSpecTest, RuleTextsAreKeptVerbatim) {
  const std::string elem = "select * latest\r\nselect /proj/** label:R1\n\n  indented  \n";
  const std::string tkm = "select * latest@dev";  // no final line end
  const std::string load = "load /proj/src\nload /other\n";
  const std::string frz = "00000000-0000-0000-0000-00000000a000 /proj/src\n";
  struct Case {
    const char* name;
    std::string doc;
    int32_t code;
    Expect expect;
  };
  std::vector<Case> cases = {
      {"all four", make_doc([&](ReplyWriter& w) {
         w.part(tavrel_wan::PART_CSPEC_ELEMENT_RULES, elem);
         w.part(tavrel_wan::PART_CSPEC_TKM_ELEMENT_RULES, tkm);
         w.part(tavrel_wan::PART_CSPEC_LOAD_RULES, load);
         w.part(tavrel_wan::PART_CSPEC_FRZ_LOAD_SCOPES, frz);
         w.status(0);
       }),
       0, {elem, tkm, load, frz}},
      {"only element rules, others omitted", make_doc([&](ReplyWriter& w) {
         w.part(tavrel_wan::PART_CSPEC_ELEMENT_RULES, elem);
         w.status(0);
       }),
       0, {elem, "", "", ""}},
      {"an empty part and unknown parts", make_doc([&](ReplyWriter& w) {
         w.part("Unknown", "load /not/this\n");
         w.part(tavrel_wan::PART_CSPEC_ELEMENT_RULES, "");
         w.part(tavrel_wan::PART_CSPEC_LOAD_RULES, load);
         w.status(0);
       }),
       0, {"", "", load, ""}},
      {"a repeated part replaces the first", make_doc([&](ReplyWriter& w) {
         w.part(tavrel_wan::PART_CSPEC_LOAD_RULES, "load /first\n");
         w.part(tavrel_wan::PART_CSPEC_LOAD_RULES, load);
         w.status(0);
       }),
       0, {"", "", load, ""}},
      {"refused", tavrel_wan::reply_status_only(1072, "bad view"), 1072, {"", "", "", ""}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    for (size_t block : {size_t(1), size_t(1 << 20)}) {
      answer(c.doc, block);
      Get_ConfigSpec http(view_uuid());
      ASSERT_EQ(http.run(), 0);
      Fed<Get_ConfigSpec> fed(view_uuid());
      EXPECT_EQ(fed.feed_in(c.doc, block), 0);
      ASSERT_EQ(fed.finish(), 0);
      for (Get_ConfigSpec* cmd : {&http, static_cast<Get_ConfigSpec*>(&fed)}) {
        EXPECT_EQ(cmd->get_status_code(), c.code);
        EXPECT_EQ(cmd->get_elem_rules(), c.expect.elem);
        EXPECT_EQ(cmd->get_tkm_elem_rules(), c.expect.tkm);
        EXPECT_EQ(cmd->get_load_rules(), c.expect.load);
        EXPECT_EQ(cmd->get_frz_load_scopes(), c.expect.frz);
        std::string message;
        int st = cmd->get_status_code();
        EXPECT_EQ(cmd->check_rpc_status(nullptr, message, st), c.code == 0 ? 0 : TAVREL_ST_WAN_CALL_2);
        if (c.code != 0) {
          EXPECT_EQ(message, "bad view");
        }
      }
    }
  }
}

TEST_F(GetConfigSpecTest, PartLargerThanTheBoundFailsTheCommand) {
  const std::string big(4096, 'r');
  answer(make_doc([&](ReplyWriter& w) {
    w.part(tavrel_wan::PART_CSPEC_ELEMENT_RULES, big);
    w.status(0);
  }));
  Get_ConfigSpec cmd(view_uuid());
  cmd.set_max_part_body(1024);
  EXPECT_EQ(cmd.run(), RCLIENT_ST_NO_MEMORY);
  EXPECT_EQ(cmd.get_elem_rules(), "");
}

TEST_F(GetConfigSpecTest, LostSessionIsRecoveredWithTheSameArguments) {
  answer(make_doc([](ReplyWriter& w) {
    w.part(tavrel_wan::PART_CSPEC_ELEMENT_RULES, "select * latest\n");
    w.status(0);
  }));
  server->expire_sessions();
  Get_ConfigSpec cmd(view_uuid(), false);
  ASSERT_EQ(cmd.run(), 0);
  EXPECT_EQ(cmd.get_elem_rules(), "select * latest\n");
  auto reqs = server->requests();
  ASSERT_EQ(reqs.size(), 4u);  // login, refused, login, resent
  EXPECT_EQ(reqs[1].rpcargs, reqs[3].rpcargs);
  EXPECT_EQ(reqs[3].rpcargs, std::string("ViewUuid=") + kView + "\nFreezeLoadScopes=0\n");
}

}  // namespace
