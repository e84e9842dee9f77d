// The tavrel_server program as a process: import and serve from the command line, serve over HTTP
// (with its request log) and HTTPS (peer verification on, against the test's own certificate), take
// requests shaped as the agent's libcurl sends them, and stop on SIGTERM.
#include <gtest/gtest.h>

#include "server/test_client.h"
#include "tests/e2e/e2e_process.h"

using namespace tavrel_test;
using namespace e2e;

namespace {

constexpr auto npos = std::string::npos;
const std::string kLoginArgs = "min_clnt_proto_ver=6\nmax_clnt_proto_ver=6\nclienttype=ClientType.UNKNOWN\n";

class ServerProcess : public ::testing::Test {
 protected:
  void SetUp() override {
    r.put("tree/a.txt", "hello\n");
    r.put("tree/sub/b.txt", "bee\n");
  }
  // Imports the tree as /demo, starts the server with `extra` arguments and waits until it listens.
  void serve(const std::vector<std::string>& extra = {}) {
    Outcome imp = r.import("/demo", "tree");
    ASSERT_EQ(imp.code, 0) << imp.err;
    ASSERT_TRUE(r.start_server(extra)) << slurp(r.at("server.log"));
  }
  // SIGTERM ends the server with exit code 0.
  void stop_server() {
    ASSERT_EQ(kill(r.server, SIGTERM), 0);
    EXPECT_EQ(exit_code(r.server), 0) << slurp(r.at("server.log"));
    r.server = -1;
  }

  Rig r{"tavrel-server-e2e"};
};

TEST_F(ServerProcess, CommandLine) {
  const std::string server = q(bin("tavrel_server")) + " ", store = " --store " + q(r.store);
  struct {
    std::string args;
    int code;
    const char* says;
  } cases[] = {
      {"import" + store + " --silo /demo " + q(r.at("tree")), 0, "imported /demo: 2 files, 1 directories"},
      {"import" + store + " --silo /demo " + q(r.at("tree")), 1, "exists"},
      {"import" + store + " --silo demo " + q(r.at("tree")), 1, ""},
      {"import" + store + " --silo /cut --max-file-size 5 " + q(r.at("tree")), 0, "skipped /cut/a.txt: larger than"},
      {"import" + store + " --silo /big --max-file-size 1000000001 " + q(r.at("tree")), 2, "--max-file-size"},
      {"serve" + store, 2, "--users"},
      {"serve" + store + " --users " + q(r.at("users")) + " --cert " + q(r.at("x")), 2, "--cert and --key go together"},
  };
  for (auto& c : cases) {
    Outcome o = r.sh(server + c.args);
    EXPECT_EQ(o.code, c.code) << c.args << "\n" << o.out << o.err;
    EXPECT_NE((o.out + o.err).find(c.says), npos) << c.args << "\n" << o.out << o.err;
  }
}

TEST_F(ServerProcess, ServesHttpLogsRequestsAndStopsOnSigterm) {
  serve();
  {
    WanClient c("127.0.0.1", r.port);
    ASSERT_EQ(c.login("alice", "s3cret").reply.status, 0);
    Result ls = c.rpc(tavrel_wan::RPC_GET_DIRECTORY_CONTENTS,
                      ArgText().add("ViewUuid", tbs_uuid_to_str(tbs_uuid_create())).add("PathName", "/demo"));
    ASSERT_TRUE(ls.reply.ok) << ls.reply.error;
    EXPECT_EQ(ls.reply.parts.size(), 8u);  // a.txt and sub, four parts each
    Result adm = c.post("/admin", "silo.list", "", {{"x-tavrel-admin-token", "tok-e2e"}});
    EXPECT_EQ(adm.reply.find("Text")->body.substr(0, 6), "/demo ");
    EXPECT_EQ(c.get("/logout").reply.status, 0);
  }
  EXPECT_NE(slurp(r.at("server.log")).find("listening on http://127.0.0.1:" + std::to_string(r.port) + "/tavrel"),
            npos);
  EXPECT_EQ(r.trail(4), "login get_directory_contents silo.list logout");
  stop_server();
  std::string log = slurp(r.at("requests.log"));
  EXPECT_NE(log.find("POST\t/tavrel\tTavrel_Orlen::get_directory_contents_rpc\t200\t0"), npos) << log;
  EXPECT_NE(log.find("GET\t/tavrel/logout"), npos) << log;
}

// Requests shaped byte for byte as the agent's libcurl sends them: headers without a blank after the
// colon, an empty Expect, a custom Content-Type to which curl appends the boundary, cookies without a
// blank after ";".
TEST_F(ServerProcess, AgentShapedRequestsFromCurl) {
  if (r.sh("curl --version").code != 0) GTEST_SKIP() << "no curl program";
  serve();
  auto curl = [&](const char* rpc, const std::string& args, const std::string& auth, const std::string& name) {
    r.put(name + ".args", args);
    return r.sh("curl -s -o " + q(r.at(name + ".out")) + " -D " + q(r.at(name + ".hdr")) +
                " -H 'Expect:' -H 'Accept-Encoding:deflate' -H 'x-ondrel-rpc-name:" + rpc +
                "' -H 'User-Agent:TVR / 1.0.0.0' -H " + q(auth) + " -H 'Content-Type:multipart/form-data' -F 'rpc=" +
                rpc + "' -F 'rpcargs=<" + r.at(name + ".args") + "' " + r.url() + "tavrel")
        .code;
  };
  ASSERT_EQ(curl(tavrel_wan::RPC_LOGIN, kLoginArgs, "x-ondrel-login-credentials:" + WanClient::base64("alice:s3cret"),
                 "login"),
            0);
  // The agent's cookie search: first line containing each name, value up to ";".
  std::string hdr = slurp(r.at("login.hdr"));
  auto cookie = [&](const std::string& name) {
    size_t at = hdr.find(name);
    return at == npos ? "" : hdr.substr(at + name.size(), hdr.find_first_of(";\r\n", at) - at - name.size());
  };
  std::string j = cookie("JSESSIONID="), s = cookie("Session=");
  ASSERT_EQ(j.size(), 32u) << hdr;
  ASSERT_EQ(s.size(), 32u) << hdr;
  EXPECT_EQ(parse_reply(slurp(r.at("login.out"))).status, 0);

  ASSERT_EQ(curl(tavrel_wan::RPC_GET_DIRECTORY_CONTENTS,
                 "ViewUuid=" + tbs_uuid_to_str(tbs_uuid_create()) + "\nPathName=/demo\n",
                 "Cookie:JSESSIONID=" + j + ";Session=" + s, "ls"),
            0);
  ParsedReply ls = parse_reply(slurp(r.at("ls.out")));
  ASSERT_TRUE(ls.ok) << ls.error;
  EXPECT_EQ(ls.status, 0);
  EXPECT_EQ(ls.parts.size(), 8u);
  EXPECT_EQ(slurp(r.at("ls.hdr")).find("Content-Encoding"), npos);
  stop_server();
}

TEST_F(ServerProcess, ServesHttpsWithVerifiedCertificate) {
  std::string cert = r.at("cert.pem"), key = r.at("key.pem");
  if (r.sh("openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 -addext "
           "subjectAltName=IP:127.0.0.1 -keyout " + q(key) + " -out " + q(cert)).code != 0)
    GTEST_SKIP() << "the openssl program cannot make a test certificate";
  serve({"--cert", cert, "--key", key});
  {
    httplib::SSLClient c("127.0.0.1", r.port);
    c.set_ca_cert_path(cert.c_str());
    c.enable_server_certificate_verification(true);
    httplib::MultipartFormDataItems items = {{"rpc", tavrel_wan::RPC_LOGIN, "", ""}, {"rpcargs", kLoginArgs, "", ""}};
    auto res = c.Post("/tavrel", {{"x-ondrel-login-credentials", WanClient::base64("alice:s3cret")}}, items);
    ASSERT_TRUE(res) << httplib::to_string(res.error());
    EXPECT_EQ(res->status, 200);
    EXPECT_EQ(parse_reply(res->body).status, 0);
  }
  EXPECT_NE(slurp(r.at("server.log")).find("listening on https://"), npos);
  stop_server();
}

}  // namespace

// "tavrel_server admin" changes a SILO through a running server: the change shows in what the server
// serves, and a refused operation exits 1 with the server's reason.
TEST_F(ServerProcess, AdminCommandChangesTheSilo) {
  serve();
  const std::string admin = q(bin("tavrel_server")) + " admin --url " + q(r.url() + "tavrel") + " --token-file " +
                            q(r.at("token")) + " ";
  r.put("new.txt", "second version\n");
  Outcome o = r.sh(admin + "elem.checkin Path=/demo/a.txt --data " + q(r.at("new.txt")));
  ASSERT_EQ(o.code, 0) << o.err;
  EXPECT_NE(o.out.find("VersionString: main/2"), npos) << o.out;
  o = r.sh(admin + "elem.mkfile Path=/demo/sub Replace=1 --data " + q(r.at("new.txt")));
  ASSERT_EQ(o.code, 0) << o.err;
  o = r.sh(admin + "elem.rmname Path=/demo/nothing");
  EXPECT_EQ(o.code, 1);
  EXPECT_NE(o.err.find("status 1002"), npos) << o.err;
  EXPECT_EQ(r.sh(admin + "elem.rmname Path").code, 2);  // not Name=value

  WanClient c("127.0.0.1", r.port);
  ASSERT_EQ(c.login("alice", "s3cret").reply.status, 0);
  Result ls = c.rpc(tavrel_wan::RPC_GET_DIRECTORY_CONTENTS,
                    ArgText().add("ViewUuid", tbs_uuid_to_str(tbs_uuid_create())).add("PathName", "/demo"));
  ASSERT_TRUE(ls.reply.ok) << ls.reply.error;
  ASSERT_EQ(ls.reply.parts.size(), 8u);
  // sub is a file now, as long as the new a.txt.
  EXPECT_EQ(decode_vstat(ls.reply.parts[6].body).vstat.fstat.type, uint32_t(TBS_FTYPE_FILE));
  EXPECT_EQ(decode_vstat(ls.reply.parts[2].body).vstat.fstat.size, 15u);
  stop_server();
}
