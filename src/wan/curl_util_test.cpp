// The TLS decisions against an HTTPS server with certificates made for the test: trust from the key
// store in the home directory or "cacert.pem" of the host configuration directory, pinned server keys,
// the host-name marker file, the environment switches, the protocol floor, and reuse of connections
// and TLS sessions.
#include "wan/curl_util.h"

#include <httplib.h>
#include <openssl/ssl.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "proto/reply_writer.h"
#include "wan/rclient_messages.h"
#include "wan/wan_test_cmd.h"
#include "wan/wan_test_fixture.h"

using namespace wan_test;
using ::testing::HasSubstr;

namespace {

const Cert& good() {
  static const Cert c = make_cert("127.0.0.1", "IP:127.0.0.1,DNS:localhost");
  return c;
}
const Cert& other() {
  static const Cert c = make_cert("127.0.0.1", "IP:127.0.0.1");
  return c;
}
const Cert& wrong_name() {
  static const Cert c = make_cert("elsewhere.example", "DNS:elsewhere.example");
  return c;
}

class TlsTest : public WanTest {
 protected:
  std::unique_ptr<Test_Wan_Server> start(const Cert& cert, int max_version = 0, bool keep_alive = true) {
    Test_Wan_Server::Options o;
    o.tls = true;
    o.cert = cert;
    o.tls_max_version = max_version;
    o.keep_alive = keep_alive;
    auto s = std::make_unique<Test_Wan_Server>(o);
    s->add_user("u", "p");
    s->on_rpc("R", [](const Recorded&, httplib::Response& res) {
      res.set_content(tavrel_wan::reply_status_only(0), "multipart/mixed");
    });
    return s;
  }
  void trust(const std::string& pem) { home->write_file(".keystore_ol_tavrel.pem", pem); }
  // Logs in as the agent does and runs one RPC; the first failing WAN status, or 0.
  int login_and_call(Test_Wan_Server& s, std::string* message = nullptr) {
    int rc = login(s.base_url(), "u", "p", message);
    if (rc != 0) return rc;
    Test_Cmd cmd("R");
    rc = cmd.run();
    if (message) *message = cmd.get_status_message();
    return rc == 0 ? cmd.get_status_code() : rc;
  }
};

TEST_F(TlsTest, WhatTheClientTrusts) {
  struct Case {
    const char* name;
    const Cert* served;
    const Cert* trusted;  // in the key store of the home; none when null
    const char* no_verify_peer;  // the environment switch, when not null (it counts by presence)
    const char* no_verify_host;
    bool hnfail_marker;
    const Cert* pinned;  // a pinned key file for the server, when not null
    int expect;
    const char* message = "Error executing request";
  };
  const int FAIL = RCLIENT_ST_TRANSPORT;
  for (const Case& c : {
           Case{"no key store", &good(), nullptr, nullptr, nullptr, false, nullptr, FAIL},
           Case{"another certificate", &good(), &other(), nullptr, nullptr, false, nullptr, FAIL},
           Case{"the server's own", &good(), &good(), nullptr, nullptr, false, nullptr, 0, ""},
           Case{"wrong name", &wrong_name(), &wrong_name(), nullptr, nullptr, false, nullptr, FAIL},
           Case{"wrong name, chain check off", &wrong_name(), &wrong_name(), "1", nullptr, false, nullptr, FAIL},
           Case{"wrong name, marker file", &wrong_name(), &wrong_name(), nullptr, nullptr, true, nullptr, 0, ""},
           Case{"untrusted, chain check off", &wrong_name(), &other(), "", nullptr, false, nullptr, FAIL},
           Case{"untrusted, both checks off", &wrong_name(), &other(), "", "", false, nullptr, 0, ""},
           Case{"untrusted, name check off", &wrong_name(), &other(), nullptr, "", false, nullptr, FAIL},
           // A pinned key replaces the chain and name checks, with no CA file anywhere.
           Case{"pinned key", &wrong_name(), nullptr, nullptr, nullptr, false, &wrong_name(), 0, ""},
           Case{"another pinned key", &wrong_name(), &wrong_name(), nullptr, nullptr, true, &other(), FAIL,
                "Error executing request 90"},
       }) {
    SCOPED_TRACE(c.name);
    auto s = start(*c.served);
    for (const char* f : {".keystore_ol_tavrel.pem", ".keystore_ol_tavrel.pem_hnfail"})
      std::filesystem::remove(home->path() + "/" + f);
    if (c.trusted) trust(c.trusted->cert_pem);
    if (c.hnfail_marker) home->write_file(".keystore_ol_tavrel.pem_hnfail", "");
    const std::string pin = ".keystore_ol_tavrel_127.0.0.1(" + std::to_string(s->port()) + ").der";
    if (c.pinned) {
      home->write_file(pin, c.pinned->spki_der);
      EXPECT_EQ(Login::keystore_for(home->path(), s->base_url()), home->path() + "/" + pin);
    }
    for (auto [var, value] : {std::pair{"ORLEN_NOVERIFY_PEER", c.no_verify_peer}, {"ORLEN_NOVERIFY_HOST", c.no_verify_host}})
      value ? setenv(var, value, 1) : unsetenv(var);
    std::string message;
    EXPECT_EQ(login_and_call(*s, &message), c.expect);
    EXPECT_THAT(message, HasSubstr(c.message));
    EXPECT_EQ(s->requests().size(), c.expect == 0 ? 2u : 0u);  // when refused, before anything was sent
    session()->flush_curl_handles();
    std::filesystem::remove(home->path() + "/" + pin);
  }
}

// A session set up without a key store (not by a first login as the agent) trusts the host's CA file.
TEST_F(TlsTest, WithoutAKeyStoreTheHostCaFileIsUsed) {
  auto s = start(good());
  const std::string cacert = host_config_dir() + "/cacert.pem";
  EXPECT_EQ(Curl_Util::cacert_path(), cacert);
  point_at(s->base_url());
  EXPECT_EQ(Login().run(), RCLIENT_ST_TRANSPORT);
  std::ofstream(cacert) << good().cert_pem;
  EXPECT_EQ(Login().run(), 0);  // from the cached credentials
  Test_Cmd cmd("R");
  EXPECT_EQ(cmd.run(), 0);
  std::filesystem::remove(cacert);
}

TEST_F(TlsTest, ProtocolFloorIsTls12UnlessRelaxed) {
  EXPECT_EQ(Curl_Util::ssl_version_floor(), CURL_SSLVERSION_TLSv1_2);
  setenv("ORLEN_ENABLE_SSLV3", "", 1);
  EXPECT_EQ(Curl_Util::ssl_version_floor(), CURL_SSLVERSION_DEFAULT);
  unsetenv("ORLEN_ENABLE_SSLV3");
  auto s = start(good(), TLS1_1_VERSION);
  trust(good().cert_pem);
  std::string message;
  EXPECT_EQ(login_and_call(*s, &message), RCLIENT_ST_TRANSPORT);
  EXPECT_THAT(message, HasSubstr("Error executing request 35"));  // handshake refused
}

TEST_F(TlsTest, ConnectionsAndTlsSessionsAreReused) {
  trust(good().cert_pem);
  {
    auto s = start(good());
    ASSERT_EQ(login_and_call(*s), 0);
    ASSERT_EQ(login_and_call(*s), 0);
    auto reqs = s->requests();
    ASSERT_EQ(reqs.size(), 4u);
    for (const auto& r : reqs) EXPECT_EQ(r.remote_port, reqs[0].remote_port);  // one connection
    EXPECT_EQ(session()->get_idle_handles(), 1u);
  }
  {
    // A server that closes every connection: new connections resume the TLS session.
    auto s = start(good(), 0, false);
    ASSERT_EQ(login_and_call(*s), 0);
    auto reqs = s->requests();
    ASSERT_EQ(reqs.size(), 2u);
    EXPECT_NE(reqs[0].remote_port, reqs[1].remote_port);
    EXPECT_FALSE(reqs[0].tls_resumed);
    EXPECT_TRUE(reqs[1].tls_resumed);
  }
}

}  // namespace
