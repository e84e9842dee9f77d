#include "ops/tavrel_server.h"

#include <memory>

#include <gtest/gtest.h>

#include "core/tavrel_status.h"
#include "xml/ol_xml_doc.h"
#include "xml/ol_xml_parser.h"

namespace {

std::unique_ptr<OlXmlDoc> parse(const std::string& text) {
  OlXmlParser p;
  OlXmlParser::Result r;
  std::unique_ptr<OlXmlDoc> d(p.parse(text, r));
  EXPECT_TRUE(d) << r.message;
  return d;
}

TEST(TavrelServer, ParsesCustomisesAndValidates) {
  struct {
    const char* server;
    int read_url, read_online;
    int status;
    const char* url;
    bool online, valid;
  } cases[] = {
      {"<server online=\"true\"><server-url> http://h:1 </server-url><username>u</username><password>p</password></server>",
       1, 1, 0, "http://h:1/tavrel", true, true},
      {"<server online=\"true\"><server-url>http://h:1/</server-url><username>u</username><password>p</password></server>",
       1, 1, 0, "http://h:1/tavrel", true, true},  // with or without the slash: the same URL
      {"<server online=\"false\"><server-url></server-url></server>", 1, 1, 0, "", false, true},
      {"<server online=\"maybe\"/>", 1, 1, TAVREL_ST_SERVER_INFO, "", true, false},
      {"<server online=\"true\"><server-url>http://h</server-url><username>u</username></server>", 1, 1, 0,
       "http://h/tavrel", true, false},  // no password
      {"<server><server-url>http://h</server-url><username>u</username><password>p</password>"
       "<f-proxy-host>proxy</f-proxy-host></server>",
       1, 1, 0, "http://h/tavrel", true, false},  // a proxy host without a port
      {"<server><server-url>http://h</server-url><username>u</username><password>p</password>"
       "<proxy-username>pu</proxy-username><proxy-password>pp</proxy-password>"
       "<f-proxy-host>proxy</f-proxy-host><f-proxy-port>3128</f-proxy-port></server>",
       1, 1, 0, "http://h/tavrel", true, true},
  };
  for (auto& c : cases) {
    Tavrel_Server::set_fields({});
    Tavrel_Server::set_online(true);
    auto doc = parse(std::string("<StartView version=\"1\">") + c.server + "</StartView>");
    EXPECT_EQ(Tavrel_Server::parse_server_info(doc->get_root(), c.read_url, c.read_online), c.status) << c.server;
    if (c.status != 0) continue;
    EXPECT_EQ(Tavrel_Server::get_url(), c.url) << c.server;
    EXPECT_EQ(Tavrel_Server::is_online(), c.online) << c.server;
    EXPECT_EQ(Tavrel_Server::is_valid(), c.valid) << c.server;
  }
}

TEST(TavrelServer, ConnectKeepsUrlAndOnlineButReplacesCredentials) {
  Tavrel_Server::set_fields({});
  Tavrel_Server::set_online(true);
  auto first = parse("<StartView><server online=\"true\"><server-url>http://a</server-url><username>u1</username>"
                     "<password>p1</password></server></StartView>");
  ASSERT_EQ(Tavrel_Server::parse_server_info(first->get_root(), 1, 1), 0);
  Tavrel_Server::set_online(false);
  auto second = parse("<Connect><server online=\"true\"><server-url>http://b</server-url><username>u2</username>"
                      "<password>p2</password></server></Connect>");
  ASSERT_EQ(Tavrel_Server::parse_server_info(second->get_root(), 0, 0), 0);
  Tavrel_Server::Fields f = Tavrel_Server::get_fields();
  EXPECT_EQ(f.url, "http://a/tavrel");
  EXPECT_FALSE(Tavrel_Server::is_online());
  EXPECT_EQ(f.username, "u2");
  EXPECT_EQ(f.password, "p2");
  auto none = parse("<Connect/>");
  EXPECT_EQ(Tavrel_Server::parse_server_info(none->get_root(), 0, 0), TAVREL_ST_SERVER_INFO);
}

}  // namespace
