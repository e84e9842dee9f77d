// Get_SILOInfo: its request, and what it makes of every shape of reply, over HTTP and fed one byte at
// a time; the identity of a SILO is never accepted null or half there.
#include "wan/get_siloinfo.h"

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

const char* const kFamily = "0123abcd-0123-4567-89ab-0123456789ab";
const char* const kReplica = "fedcba98-7654-3210-fedc-ba9876543210";

ReplyItems info_items(const std::string& family = kFamily, const std::string& replica = kReplica,
                      const std::string& storage = "/store/proj", const std::string& pub = "1",
                      const std::string& proj = "0") {
  return {{tavrel_wan::ITEM_SILO_FAMILY_UUID, family},
          {tavrel_wan::ITEM_SILO_REPLICA_UUID, replica},
          {tavrel_wan::ITEM_SILO_STORAGE, storage},
          {tavrel_wan::ITEM_IS_PUBLIC, pub},
          {tavrel_wan::ITEM_IS_PROJECT, proj}};
}

class SiloInfoTest : public ScriptedServerTest {
 protected:
  SiloInfoTest() : ScriptedServerTest(tavrel_wan::RPC_GET_SILO_INFO, false) {}
};

TEST_F(SiloInfoTest, RequestCarriesTheTagOnly) {
  answer(make_doc([](ReplyWriter& w) {
    w.part(tavrel_wan::PART_SILO_INFO, info_items(), "");
    w.status(0);
  }));
  Get_SILOInfo cmd("/proj");
  ASSERT_EQ(cmd.run(), 0);
  auto reqs = server->requests();
  ASSERT_EQ(reqs.size(), 2u);  // the login, then this
  EXPECT_EQ(reqs[1].method, "POST");
  EXPECT_EQ(reqs[1].path, "/tavrel");
  EXPECT_EQ(reqs[1].rpc, "Tavrel_Orlen::getsiloinfo_rpc");
  EXPECT_EQ(reqs[1].rpcargs, "SiloTag=/proj\n");
  auto h = reqs[1].headers.find("x-ondrel-rpc-name");
  ASSERT_NE(h, reqs[1].headers.end());
  EXPECT_EQ(h->second, "Tavrel_Orlen::getsiloinfo_rpc");
}

TEST_F(SiloInfoTest, TagsThatCannotBeSentSendNothing) {
  for (const std::string& tag : {std::string(), std::string("/a\nb"), std::string("/a\r")}) {
    Get_SILOInfo cmd(tag);
    EXPECT_EQ(cmd.run(), RCLIENT_ST_MARSHAL);
    std::string message;
    int st = cmd.get_status_code();
    EXPECT_EQ(cmd.check_rpc_status(nullptr, message, st), TAVREL_ST_WAN_CALL);
  }
  EXPECT_EQ(server->requests().size(), 1u);  // the login only
}

struct Case {
  const char* name;
  std::string doc;
  int wan_status;
  int32_t code;
  std::string message;  // expected within the status message
};

std::vector<Case> reply_cases() {
  std::vector<Case> cases;
  auto info_then = [](const ReplyItems& items, int32_t code, const std::string& msg = std::string()) {
    return make_doc([&](ReplyWriter& w) {
      w.part(tavrel_wan::PART_SILO_INFO, items, "");
      w.status(code, msg);
    });
  };
  cases.push_back({"good", info_then(info_items(), 0), 0, 0, ""});
  cases.push_back({"empty family", info_then(info_items(""), 0), RCLIENT_ST_MALFORMED_ITEM, 0,
                   "SILO family oid not found for \"/proj\".\n"});
  cases.push_back({"empty replica", info_then(info_items(kFamily, ""), 0), RCLIENT_ST_MALFORMED_ITEM, 0,
                   "SILO replica oid not found for \"/proj\".\n"});
  cases.push_back({"empty storage", info_then(info_items(kFamily, kReplica, ""), 0), RCLIENT_ST_MALFORMED_ITEM, 0,
                   "SILO storage not found for \"/proj\".\n"});
  cases.push_back({"family no identity", info_then(info_items("not-a-uuid"), 0), RCLIENT_ST_MALFORMED_ITEM, 0,
                   "Invalid SILO OID not-a-uuid.\n"});
  cases.push_back({"replica too long", info_then(info_items(kFamily, std::string(kReplica) + "0"), 0),
                   RCLIENT_ST_MALFORMED_ITEM, 0, "Invalid SILO OID " + std::string(kReplica) + "0.\n"});
  cases.push_back({"null replica", info_then(info_items(kFamily, "00000000-0000-0000-0000-000000000000"), 0),
                   RCLIENT_ST_MALFORMED_ITEM, 0, "Invalid SILO OID 00000000-0000-0000-0000-000000000000.\n"});
  // The server's message must not hide why the client refused the reply.
  cases.push_back({"malformed, then a message", info_then(info_items(""), 0, "all fine"), RCLIENT_ST_MALFORMED_ITEM, 0,
                   "SILO family oid not found for \"/proj\".\n"});
  cases.push_back({"status 0 without SiloInfo", tavrel_wan::reply_status_only(0), RCLIENT_ST_MALFORMED_ITEM, 0,
                   "SILO information missing from the reply for \"/proj\".\n"});
  cases.push_back({"unknown tag", tavrel_wan::reply_status_only(1002, "SILO \"/proj\" not found"), 0, 1002,
                   "SILO \"/proj\" not found"});
  cases.push_back({"status after other parts, info last", make_doc([](ReplyWriter& w) {
                     w.part("Unrelated", {{"X", "1"}}, "body\r\n--");
                     w.status(0);
                     w.part(tavrel_wan::PART_SILO_INFO, info_items(), "");
                   }),
                   0, 0, ""});
  return cases;
}

TEST_F(SiloInfoTest, RepliesOverHttpAndByteByByte) {
  for (const Case& c : reply_cases()) {
    SCOPED_TRACE(c.name);
    for (size_t block : {size_t(1), size_t(7), size_t(1 << 20)}) {
      SCOPED_TRACE(block);
      answer(c.doc, block);
      Get_SILOInfo http("/proj");
      Fed<Get_SILOInfo> fed("/proj");
      EXPECT_EQ(fed.feed_in(c.doc, block), 0);
      EXPECT_EQ(fed.finish(), c.wan_status);
      EXPECT_EQ(http.run(), c.wan_status);
      for (Get_SILOInfo* cmd : {static_cast<Get_SILOInfo*>(&fed), &http}) {
        EXPECT_EQ(cmd->get_status_code(), c.code);
        EXPECT_NE(cmd->get_status_message().find(c.message), std::string::npos) << cmd->get_status_message();
        std::string message;
        int st = cmd->get_status_code();
        int rc = cmd->check_rpc_status(nullptr, message, st);
        int expect = c.wan_status != 0 ? TAVREL_ST_WAN_CALL : (c.code != 0 ? TAVREL_ST_WAN_CALL_2 : 0);
        EXPECT_EQ(rc, expect);
        EXPECT_EQ(cmd->has_silo_info(), c.wan_status == 0 && c.code == 0);
        if (rc == 0) {
          tbs_uuid_s f, r;
          ASSERT_EQ(tbs_str_to_uuid(kFamily, &f), 0);
          ASSERT_EQ(tbs_str_to_uuid(kReplica, &r), 0);
          EXPECT_EQ(cmd->get_family_uuid(), f);
          EXPECT_EQ(cmd->get_replica_uuid(), r);
          EXPECT_EQ(cmd->get_storage(), "/store/proj");
          EXPECT_TRUE(cmd->get_is_public());
          EXPECT_FALSE(cmd->get_is_project());
          SILO_mount_info m = cmd->to_mount_info();
          EXPECT_EQ(m.silo_tag, "/proj");
          EXPECT_EQ(m.replica_uuid, r);
          EXPECT_EQ(m.family_uuid, f);
          EXPECT_EQ(m.storage, "/store/proj");
          EXPECT_TRUE(m.is_public);
          EXPECT_FALSE(m.is_project_silo);
          EXPECT_EQ(m.mount_state, 0);
        } else {
          EXPECT_FALSE(message.empty());
        }
      }
    }
  }
}

TEST_F(SiloInfoTest, FlagsAreTrueOnlyForOne) {
  struct Flag {
    std::string text;
    bool value;
  };
  for (const Flag& f : {Flag{"1", true}, Flag{"0", false}, Flag{"true", false}, Flag{"", false}, Flag{"11", false}}) {
    answer(make_doc([&](ReplyWriter& w) {
      w.part(tavrel_wan::PART_SILO_INFO, info_items(kFamily, kReplica, "s", f.text, f.text), "");
      w.status(0);
    }));
    Get_SILOInfo cmd("/proj");
    ASSERT_EQ(cmd.run(), 0) << f.text;
    EXPECT_EQ(cmd.get_is_public(), f.value) << f.text;
    EXPECT_EQ(cmd.get_is_project(), f.value) << f.text;
  }
}

TEST_F(SiloInfoTest, LostSessionIsRecoveredAndTheReplyReadOnce) {
  answer(make_doc([](ReplyWriter& w) {
    w.part(tavrel_wan::PART_SILO_INFO, info_items(), "");
    w.status(0);
  }));
  server->expire_sessions();
  Get_SILOInfo cmd("/proj");
  ASSERT_EQ(cmd.run(), 0);
  EXPECT_EQ(cmd.get_status_code(), 0);
  EXPECT_TRUE(cmd.has_silo_info());
  EXPECT_EQ(server->logins(), 2);
  EXPECT_EQ(server->count(tavrel_wan::RPC_GET_SILO_INFO), 2u);  // refused, then resent once
}

}  // namespace
