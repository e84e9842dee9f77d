// Set_ConfigSpec: the argument text on the wire (counts, one argument per rule, line ends), rules that
// cannot travel, and the reply's SILO tags and generation numbers, which must be there and be numbers.
#include "wan/set_configspec.h"

#include <gtest/gtest.h>

#include "core/tavrel_status.h"
#include "proto/wan_names.h"
#include "wan/rclient_messages.h"
#include "wan/rpc_cmd_test_util.h"
#include "wan/wan_test_fixture.h"

using namespace wan_test;
using tavrel_wan::ReplyItems;
using tavrel_wan::ReplyWriter;

namespace {

const char* const kView = "0123abcd-0123-4567-89ab-0123456789ab";

tbs_uuid_s view_uuid() {
  tbs_uuid_s u;
  if (tbs_str_to_uuid(kView, &u) != 0) std::abort();
  return u;
}

ReplyItems view_info(const std::string& cur, const std::string& vgn) {
  ReplyItems items;
  if (!cur.empty()) items.push_back({tavrel_wan::ITEM_CURRENT_OPERATION_GN, cur});
  if (!vgn.empty()) items.push_back({tavrel_wan::ITEM_VIEW_GN, vgn});
  return items;
}

std::string tag_part_doc(const std::vector<std::string>& tags, const ReplyItems& info, int32_t code,
                         const std::string& msg = std::string()) {
  return make_doc([&](ReplyWriter& w) {
    for (const auto& t : tags) w.part(tavrel_wan::PART_LOAD_RULE_SILO_TAG, {{tavrel_wan::ITEM_SILO_TAG, t}}, "");
    if (!info.empty()) w.part(tavrel_wan::PART_VIEW_INFO, info, "");
    w.status(code, msg);
  });
}

class SetConfigSpecTest : public ScriptedServerTest {
 protected:
  SetConfigSpecTest() : ScriptedServerTest(tavrel_wan::RPC_SET_CONFIG_SPEC, false) {}
};

TEST_F(SetConfigSpecTest, ArgumentsOnTheWire) {
  answer(tag_part_doc({}, view_info("5", "4"), 0));
  const std::string v = std::string("ViewUuid=") + kView + "\n";
  struct Case {
    std::vector<std::string> elem, load;
    bool force;
    std::string args;
  };
  for (const Case& c : {
           Case{{}, {}, false, v + "NumElemRules=0\nNumLoadRules=0\nForceUpdate=0\n"},
           Case{{"select * latest"}, {"load /proj/src"}, true,
                v + "NumElemRules=1\nElemRule=select * latest\nNumLoadRules=1\nLoadRule=load /proj/src\nForceUpdate=1\n"},
           // A rule's own line end travels coded; an empty rule and "=" inside a value are plain text.
           Case{{"select /a/** label:R=1\n", "", "select * latest\r"}, {"load /p\n", "load /q"}, false,
                v + "NumElemRules=3\nElemRule=select /a/** label:R=1%0A\nElemRule=\nElemRule=select * latest\r\n"
                    "NumLoadRules=2\nLoadRule=load /p%0A\nLoadRule=load /q\nForceUpdate=0\n"},
       }) {
    size_t before = server->requests().size();
    Set_ConfigSpec cmd(view_uuid(), c.elem, c.load, c.force);
    ASSERT_EQ(cmd.run(), 0);
    auto reqs = server->requests();
    ASSERT_EQ(reqs.size(), before + 1);
    EXPECT_EQ(reqs.back().rpc, "Tavrel_Orlen::setconfigspec_rpc");
    EXPECT_EQ(reqs.back().rpcargs, c.args);
  }
}

TEST_F(SetConfigSpecTest, WhatCannotTravelSendsNothing) {
  EXPECT_TRUE(Set_ConfigSpec::sendable_rule("a"));
  EXPECT_TRUE(Set_ConfigSpec::sendable_rule("a\n\n"));
  EXPECT_TRUE(Set_ConfigSpec::sendable_rule(""));
  EXPECT_FALSE(Set_ConfigSpec::sendable_rule("a\nb"));
  EXPECT_FALSE(Set_ConfigSpec::sendable_rule("\na"));
  struct Case {
    tbs_uuid_s view;
    std::vector<std::string> elem, load;
  };
  for (const Case& c : {Case{TBS_UUID_NULL, {"select * latest"}, {}}, Case{view_uuid(), {"select * latest\nselect x"}, {}},
                        Case{view_uuid(), {}, {"load /a\nload /b"}}}) {
    Set_ConfigSpec cmd(c.view, c.elem, c.load, false);
    EXPECT_EQ(cmd.run(), RCLIENT_ST_MARSHAL);
    std::string message;
    int st = cmd.get_status_code();
    EXPECT_EQ(cmd.check_rpc_status(nullptr, message, st), TAVREL_ST_WAN_CALL);
  }
  EXPECT_EQ(server->requests().size(), 1u);
}

TEST_F(SetConfigSpecTest, Replies) {
  struct Case {
    const char* name;
    std::string doc;
    int wan_status;
    int32_t code;
    std::vector<std::string> tags;
    unsigned cur, vgn;
    std::string message;
  };
  std::vector<Case> cases = {
      {"tags and view info", tag_part_doc({"/proj", "/lib", "/proj"}, view_info("2147483647", "0"), 0), 0, 0,
       {"/proj", "/lib"}, 2147483647u, 0, ""},
      {"no tags", tag_part_doc({}, view_info("7", "6"), 0), 0, 0, {}, 7, 6, ""},
      {"refused by the server", tag_part_doc({}, {}, 1072, "line 2: bad rule"), 0, 1072, {}, 0, 0, "line 2: bad rule"},
      {"status 0 without ViewInfo", tag_part_doc({"/proj"}, {}, 0), RCLIENT_ST_MALFORMED_ITEM, 0, {"/proj"}, 0, 0,
       "View information missing"},
      {"ViewGN missing", tag_part_doc({}, view_info("7", ""), 0), RCLIENT_ST_MALFORMED_ITEM, 0, {}, 0, 0,
       "Malformed view information"},
      {"CurrentOperationGN negative", tag_part_doc({}, view_info("-1", "3"), 0), RCLIENT_ST_MALFORMED_ITEM, 0, {}, 0, 0,
       "Malformed view information"},
      {"ViewGN not a number", tag_part_doc({}, view_info("1", "3x"), 0), RCLIENT_ST_MALFORMED_ITEM, 0, {}, 0, 0,
       "Malformed view information"},
      {"CurrentOperationGN too large", tag_part_doc({}, view_info("4294967296", "3"), 0), RCLIENT_ST_MALFORMED_ITEM, 0,
       {}, 0, 0, "Malformed view information"},
      {"empty SiloTag", tag_part_doc({""}, view_info("1", "1"), 0, "fine"), RCLIENT_ST_MALFORMED_ITEM, 0, {}, 1, 1,
       "Empty SILO tag"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    for (size_t block : {size_t(1), size_t(1 << 20)}) {
      answer(c.doc, block);
      Set_ConfigSpec http(view_uuid(), {"select * latest"}, {}, false);
      EXPECT_EQ(http.run(), c.wan_status);
      Fed<Set_ConfigSpec> fed(view_uuid(), std::vector<std::string>{}, std::vector<std::string>{}, false);
      EXPECT_EQ(fed.feed_in(c.doc, block), 0);
      EXPECT_EQ(fed.finish(), c.wan_status);
      for (Set_ConfigSpec* cmd : {&http, static_cast<Set_ConfigSpec*>(&fed)}) {
        EXPECT_EQ(cmd->get_status_code(), c.code);
        EXPECT_NE(cmd->get_status_message().find(c.message), std::string::npos) << cmd->get_status_message();
        std::string message;
        int st = cmd->get_status_code();
        int rc = cmd->check_rpc_status(nullptr, message, st);
        EXPECT_EQ(rc, c.wan_status != 0 ? TAVREL_ST_WAN_CALL : (c.code != 0 ? TAVREL_ST_WAN_CALL_2 : 0));
        if (rc == 0) {
          EXPECT_TRUE(cmd->has_view_info());
          EXPECT_EQ(cmd->get_silo_tags(), c.tags);
          EXPECT_EQ(cmd->get_current_operation_gn(), c.cur);
          EXPECT_EQ(cmd->get_view_gn(), c.vgn);
        }
      }
    }
  }
}

TEST_F(SetConfigSpecTest, TagCountIsBounded) {
  std::vector<std::string> tags;
  for (size_t i = 0; i <= Set_ConfigSpec::MAX_SILO_TAGS; ++i) tags.push_back("/s" + std::to_string(i));
  answer(tag_part_doc(tags, view_info("1", "1"), 0));
  Set_ConfigSpec cmd(view_uuid(), {}, {}, false);
  EXPECT_EQ(cmd.run(), RCLIENT_ST_MALFORMED_ITEM);
  EXPECT_LE(cmd.get_silo_tags().size(), Set_ConfigSpec::MAX_SILO_TAGS);
  tags.pop_back();
  answer(tag_part_doc(tags, view_info("1", "1"), 0));
  Set_ConfigSpec fits(view_uuid(), {}, {}, false);
  EXPECT_EQ(fits.run(), 0);
  EXPECT_EQ(fits.get_silo_tags().size(), Set_ConfigSpec::MAX_SILO_TAGS);
}

TEST_F(SetConfigSpecTest, ResendAfterReloginStartsAfresh) {
  answer(tag_part_doc({"/proj"}, view_info("9", "8"), 0));
  server->expire_sessions();
  Set_ConfigSpec cmd(view_uuid(), {"select * latest"}, {"load /proj"}, true);
  ASSERT_EQ(cmd.run(), 0);
  EXPECT_EQ(cmd.get_silo_tags(), std::vector<std::string>{"/proj"});
  EXPECT_EQ(cmd.get_current_operation_gn(), 9u);
  auto reqs = server->requests();
  ASSERT_EQ(reqs.size(), 4u);
  EXPECT_EQ(reqs[1].rpcargs, reqs[3].rpcargs);
  // The same command run again reads its second reply alone.
  ASSERT_EQ(cmd.run(), 0);
  EXPECT_EQ(cmd.get_silo_tags(), std::vector<std::string>{"/proj"});
}

}  // namespace
