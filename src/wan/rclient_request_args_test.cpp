// The argument text of requests and the command's typed marshalling.
#include "wan/rclient_request_args.h"

#include <gtest/gtest.h>

#include "wan/wan_test_cmd.h"

namespace {

TEST(RequestArgs, LinesAsTheServerReadsThem) {
  RClient_Request_Args a;
  a.add_arg("Text", "plain");
  a.add_arg("Multi", "a\nb");
  a.add_arg("Trailing", "rule\n");
  a.add_arg("Empty", "");
  a.add_arg("Long", 1234567890123L);
  a.add_arg("Int", -5);
  a.add_arg("Flag", true);
  a.add_arg("Off", false);
  a.add_arg("Bare");
  a.add_arg("CStr", "x=y");  // a text, not a boolean
  a.add_arg("", "dropped");
  a.add_arg("a=b", "dropped");
  a.add_arg("=", 1);
  a.add_arg("x=");
  EXPECT_EQ(a.get_args(),
            "Text=plain\nMulti=a%0Aa\nb\nTrailing=rule%0A\nEmpty=\nLong=1234567890123\nInt=-5\nFlag=1\nOff=0\nBare\n"
            "CStr=x=y\n");

  // The command's typed marshalling.
  wan_test::Test_Cmd cmd;
  tbs_oid_s oid;
  ASSERT_EQ(tbs_str_to_oid("0123ABCD-0123-4567-89ab-0123456789ab", &oid), 0);
  tbs_uuid_s uuid = TBS_UUID_NULL;
  cmd.marshal_arg("UL", 4294967295UL);
  cmd.marshal_arg("UI", 4294967295U);  // written signed, as the server expects
  cmd.marshal_arg("UI2", 7U);
  cmd.marshal_arg("B", true);
  cmd.marshal_arg("C", "text");
  cmd.marshal_arg("N", static_cast<const char*>(nullptr));
  cmd.marshal_arg("S", std::string("s\n"));
  cmd.marshal_arg("O", oid);
  cmd.marshal_arg("U", uuid);
  EXPECT_EQ(cmd.get_req_args()->get_args(),
            "UL=4294967295\nUI=-1\nUI2=7\nB=1\nC=text\nN=\nS=s%0A\nO=0123abcd-0123-4567-89ab-0123456789ab\n"
            "U=00000000-0000-0000-0000-000000000000\n");
}

}  // namespace
