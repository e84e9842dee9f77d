#include "client/response.h"

#include <gtest/gtest.h>

using tavrel::client::Response;
using tavrel::client::XmlNode;

TEST(ClientXml, RequestsAreOneLineAndEscaped) {
  XmlNode n("MountSilo");
  n.attr("version", "1").attr("tx-id", "a\"b");
  n.child(XmlNode("silo-tag", "x<y&z\nw").attr("mount-state", "true"));
  EXPECT_EQ(n.to_document(),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?><MountSilo version=\"1\" tx-id=\"a&quot;b\">"
            "<silo-tag mount-state=\"true\">x&lt;y&amp;z&#10;w</silo-tag></MountSilo>");
}

TEST(ClientXml, ParsesRepliesAndConvertsToJson) {
  Response r;
  std::string err;
  ASSERT_TRUE(Response::parse(
      "<?xml version=\"1.0\"?><GetMountedSiloList tx-id=\"7-1\" status-code=\"0\"><status-message>note\n</status-message>"
      "<mounted-silo-list><silo-tag>/a</silo-tag><silo-tag>/b</silo-tag></mounted-silo-list>"
      "<online>true</online><size>0042</size><count>12</count></GetMountedSiloList>",
      &r, &err))
      << err;
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(*r.txid, "7-1");
  EXPECT_EQ(r.message, "note\n");
  EXPECT_EQ(to_json(r),
            "{\"op\":\"GetMountedSiloList\",\"tx_id\":\"7-1\",\"status\":0,\"status_name\":\"OK\",\"message\":\"note\\n\","
            "\"result\":{\"mounted-silo-list\":{\"silo-tag\":[\"/a\",\"/b\"]},\"online\":true,\"size\":\"0042\",\"count\":12}}");

  ASSERT_TRUE(Response::parse("<Echo status-code=\"20026\"/>", &r, &err));
  EXPECT_FALSE(r.txid.has_value());
  EXPECT_EQ(to_json(r), "{\"op\":\"Echo\",\"tx_id\":null,\"status\":20026,\"status_name\":\"VIEW_ENDING\",\"message\":\"\",\"result\":{}}");
}

TEST(ClientXml, RefusesBrokenReplies) {
  const char* bad[] = {"", "<a", "<a/>", "<a status-code=\"x\"/>", "<!DOCTYPE a [<!ENTITY e \"x\">]><a status-code=\"0\"/>"};
  for (const char* b : bad) {
    Response r;
    std::string err;
    EXPECT_FALSE(Response::parse(b, &r, &err)) << b;
    EXPECT_FALSE(err.empty());
  }
}

TEST(ClientXml, JsonQuotingAndScalars) {
  EXPECT_EQ(tavrel::client::json_quote("a\"b\\c\x01\n\t/\x7f"), "\"a\\\"b\\\\c\\u0001\\n\\t/\x7f\"");
  Response r;
  std::string err;
  ASSERT_TRUE(Response::parse("<Op status-code=\"7\" kind=\"x\"><n>-12</n><n>-0</n><z>0</z>"
                              "<big>1234567890123456789</big><e/></Op>", &r, &err)) << err;
  EXPECT_EQ(to_json(r), "{\"op\":\"Op\",\"tx_id\":null,\"status\":7,\"status_name\":\"UNKNOWN\",\"message\":\"\","
                        "\"result\":{\"@kind\":\"x\",\"n\":[-12,\"-0\"],\"z\":0,\"big\":\"1234567890123456789\",\"e\":\"\"}}");
}
