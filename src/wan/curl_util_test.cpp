// The TLS decisions against an HTTPS server with certificates made for the test: trust from the key
// store in the home directory (or "cacert.pem" of the host configuration directory), pinned server
// keys, the host-name marker file, the environment switches, the protocol floor, and reuse of
// connections and TLS sessions.
#include "wan/curl_util.h"

#include <httplib.h>
#include <openssl/ssl.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "proto/reply_writer.h"
#include "wan/rclient_messages.h"
#include "wan/wan_test_cmd.h"
#include "wan/wan_test_fixture.h"

using namespace wan_test;

namespace {

class TlsTest : public WanTest {
 protected:
  static const Cert& good() {
    static const Cert c = make_cert("127.0.0.1", "IP:127.0.0.1,DNS:localhost");
    return c;
  }
  static const Cert& other() {
    static const Cert c = make_cert("127.0.0.1", "IP:127.0.0.1");
    return c;
  }
  static const Cert& wrong_name() {
    static const Cert c = make_cert("elsewhere.example", "DNS:elsewhere.example");
    return c;
  }
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

TEST_F(TlsTest, TrustComesFromTheKeyStoreInTheHome) {
  auto s = start(good());
  std::string message;
  // No key store file: verification cannot succeed.
  EXPECT_EQ(login_and_call(*s, &message), RCLIENT_ST_TRANSPORT);
  EXPECT_NE(message.find("Error executing request"), std::string::npos) << message;
  EXPECT_EQ(s->requests().size(), 0u);
  // Another certificate: refused.
  trust(other().cert_pem);
  EXPECT_EQ(login_and_call(*s), RCLIENT_ST_TRANSPORT);
  // The server's own: accepted, verification on.
  trust(good().cert_pem);
  EXPECT_EQ(login_and_call(*s), 0);
  EXPECT_EQ(s->count("R"), 1u);
}

TEST_F(TlsTest, HostNameIsCheckedUnlessTheMarkerFileSaysOtherwise) {
  auto s = start(wrong_name());
  trust(wrong_name().cert_pem);
  EXPECT_EQ(login_and_call(*s), RCLIENT_ST_TRANSPORT);
  // Switching off the chain check leaves the name check on.
  setenv("ORLEN_NOVERIFY_PEER", "1", 1);
  EXPECT_EQ(login_and_call(*s), RCLIENT_ST_TRANSPORT);
  unsetenv("ORLEN_NOVERIFY_PEER");
  home->write_file(".keystore_ol_tavrel.pem_hnfail", "");
  EXPECT_EQ(login_and_call(*s), 0);
}

TEST_F(TlsTest, EnvironmentSwitchesCountByPresence) {
  auto s = start(wrong_name());
  trust(other().cert_pem);  // neither the chain nor the name would pass
  setenv("ORLEN_NOVERIFY_PEER", "", 1);
  EXPECT_EQ(login_and_call(*s), RCLIENT_ST_TRANSPORT);  // the name still fails
  setenv("ORLEN_NOVERIFY_HOST", "", 1);
  EXPECT_EQ(login_and_call(*s), 0);
  unsetenv("ORLEN_NOVERIFY_PEER");
  EXPECT_EQ(login_and_call(*s), RCLIENT_ST_TRANSPORT);  // the chain fails again
}

TEST_F(TlsTest, PinnedServerKeyReplacesTheChainAndNameChecks) {
  auto s = start(wrong_name());
  const std::string pin = ".keystore_ol_tavrel_127.0.0.1(" + std::to_string(s->port()) + ").der";
  // The right key, with no CA file anywhere and a certificate for another name.
  home->write_file(pin, wrong_name().spki_der);
  EXPECT_EQ(Login::keystore_for(home->path(), s->base_url()), home->path() + "/" + pin);
  EXPECT_EQ(login_and_call(*s), 0);
  // Another key: refused, although the CA file would trust the server.
  session()->flush_curl_handles();
  trust(wrong_name().cert_pem);
  home->write_file(".keystore_ol_tavrel.pem_hnfail", "");
  home->write_file(pin, other().spki_der);
  std::string message;
  EXPECT_EQ(login_and_call(*s, &message), RCLIENT_ST_TRANSPORT);
  EXPECT_NE(message.find("Error executing request 90"), std::string::npos) << message;  // pinned key mismatch
}

TEST_F(TlsTest, WithoutAKeyStoreTheHostCaFileIsUsed) {
  auto s = start(good());
  const std::string cacert = host_config_dir() + "/cacert.pem";
  EXPECT_EQ(Curl_Util::cacert_path(), cacert);
  std::remove(cacert.c_str());
  session()->init(s->base_url(), "u", "", "p", "", "", "", "", "", 0, "", "");
  Test_Cmd first("R");
  EXPECT_EQ(first.run(), RCLIENT_ST_TRANSPORT);
  { std::ofstream(cacert) << good().cert_pem; }
  Login login_cmd;  // re-login from the cached credentials
  EXPECT_EQ(login_cmd.run(), 0);
  Test_Cmd second("R");
  EXPECT_EQ(second.run(), 0);
  std::remove(cacert.c_str());
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
  EXPECT_NE(message.find("Error executing request 35"), std::string::npos) << message;  // handshake refused
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
