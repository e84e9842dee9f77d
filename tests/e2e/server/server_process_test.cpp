// The tavrel_server program as a process: import from the command line, serve over HTTP and HTTPS
// (peer verification on, against the test's own certificate), stop on SIGTERM.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "server/test_client.h"

namespace fs = std::filesystem;
using namespace tavrel_test;

namespace {

std::string bin() {
  const char* d = std::getenv("TAVREL_BIN_DIR");
  return std::string(d ? d : ".") + "/tavrel_server";
}

struct Proc {
  pid_t pid = -1;
  int status = 0;
  std::string out, err;  // file paths
};

Proc spawn(const std::vector<std::string>& args, const fs::path& dir) {
  Proc p;
  p.out = (dir / "out.txt").string();
  p.err = (dir / "err.txt").string();
  p.pid = fork();
  if (p.pid == 0) {
    freopen(p.out.c_str(), "w", stdout);
    freopen(p.err.c_str(), "w", stderr);
    std::vector<char*> argv;
    std::string b = bin();
    argv.push_back(b.data());
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(b.c_str(), argv.data());
    _exit(127);
  }
  return p;
}

int wait_exit(Proc& p) {
  for (int i = 0; i < 3000; ++i) {  // at most 30 s
    if (waitpid(p.pid, &p.status, WNOHANG) == p.pid) return WIFEXITED(p.status) ? WEXITSTATUS(p.status) : 128;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill(p.pid, SIGKILL);
  waitpid(p.pid, &p.status, 0);
  return -1;
}

std::string slurp(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

int wait_port(const fs::path& port_file) {
  for (int i = 0; i < 1000; ++i) {  // at most 10 s
    std::ifstream in(port_file);
    int port = 0;
    if (in >> port && port > 0) return port;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return -1;
}

class ServerProcess : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/tavrel_server_e2e_XXXXXX";
    dir_ = ::mkdtemp(tmpl);
    fs::create_directories(dir_ / "tree/sub");
    std::ofstream(dir_ / "tree/a.txt") << "hello\n";
    std::ofstream(dir_ / "tree/sub/b.txt") << "bee\n";
    std::ofstream(dir_ / "users") << "# test users\nalice:s3cret\n";
    ::chmod((dir_ / "users").c_str(), 0600);
    std::ofstream(dir_ / "token") << "tok-e2e\n";
    store_ = (dir_ / "store.db").string();
  }
  void TearDown() override { fs::remove_all(dir_); }

  int import_tree() {
    Proc p = spawn({"import", "--store", store_, "--silo", "/demo", (dir_ / "tree").string()}, dir_);
    int rc = wait_exit(p);
    last_out_ = slurp(p.out);
    return rc;
  }

  fs::path dir_;
  std::string store_;
  std::string last_out_;
};

TEST_F(ServerProcess, ImportCommandLine) {
  ASSERT_EQ(import_tree(), 0);
  EXPECT_NE(last_out_.find("imported /demo: 2 files, 1 directories"), std::string::npos) << last_out_;
  EXPECT_EQ(import_tree(), 1);  // the tag exists now
  Proc bad = spawn({"import", "--store", store_, "--silo", "demo", (dir_ / "tree").string()}, dir_);
  EXPECT_EQ(wait_exit(bad), 1);
  Proc usage = spawn({"import", "--store", store_}, dir_);
  EXPECT_EQ(wait_exit(usage), 2);
  Proc nousers = spawn({"serve", "--store", store_}, dir_);
  EXPECT_EQ(wait_exit(nousers), 2);
  EXPECT_NE(slurp(nousers.err).find("--users"), std::string::npos);
}

TEST_F(ServerProcess, ServesHttpAndStopsOnSigterm) {
  ASSERT_EQ(import_tree(), 0);
  fs::path port_file = dir_ / "port";
  Proc p = spawn({"serve", "--store", store_, "--users", (dir_ / "users").string(), "--admin-token-file",
                  (dir_ / "token").string(), "--port-file", port_file.string(), "--request-log",
                  (dir_ / "requests.log").string()},
                 dir_);
  int port = wait_port(port_file);
  ASSERT_GT(port, 0) << slurp(p.err);
  {
    WanClient c("127.0.0.1", port);
    ASSERT_EQ(c.login("alice", "s3cret").reply.status, 0);
    Result ls = c.rpc(tavrel_wan::RPC_GET_DIRECTORY_CONTENTS,
                      ArgText().add("ViewUuid", tbs_uuid_to_str(tbs_uuid_create())).add("PathName", "/demo"));
    ASSERT_TRUE(ls.reply.ok) << ls.reply.error;
    EXPECT_EQ(ls.reply.parts.size(), 8u);  // a.txt and sub, four parts each
    Result adm = c.post("/admin", "silo.list", "", {{"x-tavrel-admin-token", "tok-e2e"}});
    EXPECT_EQ(adm.reply.find("Text")->body.substr(0, 6), "/demo ");
    EXPECT_EQ(c.get("/logout").reply.status, 0);
  }
  EXPECT_NE(slurp(p.out).find("listening on http://127.0.0.1:" + std::to_string(port) + "/tavrel"), std::string::npos);
  kill(p.pid, SIGTERM);
  EXPECT_EQ(wait_exit(p), 0);
  std::string log = slurp((dir_ / "requests.log").string());
  EXPECT_NE(log.find("Tavrel_Orlen::get_directory_contents_rpc\t200\t0"), std::string::npos) << log;
  EXPECT_NE(log.find("GET\t/tavrel/logout"), std::string::npos);
}

// Requests shaped byte for byte as the agent's libcurl sends them: headers without a blank after the
// colon, an empty Expect, a custom Content-Type to which curl appends the boundary, cookies without a
// blank after ";".
TEST_F(ServerProcess, AgentShapedRequestsFromCurl) {
  if (std::system("curl --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "no curl program";
  ASSERT_EQ(import_tree(), 0);
  fs::path port_file = dir_ / "port";
  Proc p = spawn({"serve", "--store", store_, "--users", (dir_ / "users").string(), "--admin-token-file",
                  (dir_ / "token").string(), "--port-file", port_file.string()},
                 dir_);
  int port = wait_port(port_file);
  ASSERT_GT(port, 0) << slurp(p.err);
  std::string url = "http://127.0.0.1:" + std::to_string(port) + "/tavrel";
  auto curl = [&](const std::string& rpc, const std::string& args, const std::string& auth, const fs::path& out,
                  const fs::path& hdr) {
    std::ofstream(dir_ / "args.txt", std::ios::binary) << args;
    std::string cmd = "curl -s -o " + out.string() + " -D " + hdr.string() +
                      " -H 'Expect:' -H 'Accept-Encoding:deflate' -H 'x-ondrel-rpc-name:" + rpc +
                      "' -H 'User-Agent:TVR / 1.0.0.0' -H '" + auth +
                      "' -H 'Content-Type:multipart/form-data' -F 'rpc=" + rpc + "' -F 'rpcargs=<" +
                      (dir_ / "args.txt").string() + "' " + url;
    return std::system(cmd.c_str());
  };
  std::string cred = "x-ondrel-login-credentials:" + WanClient::base64("alice:s3cret");
  ASSERT_EQ(curl(tavrel_wan::RPC_LOGIN, "min_clnt_proto_ver=6\nmax_clnt_proto_ver=6\nclienttype=ClientType.UNKNOWN\n", cred,
                 dir_ / "login.out", dir_ / "login.hdr"),
            0);
  std::string hdr = slurp((dir_ / "login.hdr").string());
  // The agent's cookie search: first line containing each name, value up to ";".
  auto find = [&](const std::string& name) {
    size_t at = hdr.find(name);
    if (at == std::string::npos) return std::string();
    size_t end = hdr.find_first_of(";\r\n", at);
    return hdr.substr(at + name.size(), end - at - name.size());
  };
  std::string j = find("JSESSIONID="), s = find("Session=");
  ASSERT_EQ(j.size(), 32u) << hdr;
  ASSERT_EQ(s.size(), 32u) << hdr;
  EXPECT_EQ(parse_reply(slurp((dir_ / "login.out").string())).status, 0);

  std::string view = tbs_uuid_to_str(tbs_uuid_create());
  ASSERT_EQ(curl(tavrel_wan::RPC_GET_DIRECTORY_CONTENTS, "ViewUuid=" + view + "\nPathName=/demo\n",
                 "Cookie:JSESSIONID=" + j + ";Session=" + s, dir_ / "ls.out", dir_ / "ls.hdr"),
            0);
  ParsedReply ls = parse_reply(slurp((dir_ / "ls.out").string()));
  ASSERT_TRUE(ls.ok) << ls.error;
  EXPECT_EQ(ls.status, 0);
  EXPECT_EQ(ls.parts.size(), 8u);
  EXPECT_EQ(slurp((dir_ / "ls.hdr").string()).find("Content-Encoding"), std::string::npos);
  kill(p.pid, SIGTERM);
  EXPECT_EQ(wait_exit(p), 0);
}

TEST_F(ServerProcess, ServesHttpsWithVerifiedCertificate) {
  std::string cert = (dir_ / "cert.pem").string(), key = (dir_ / "key.pem").string();
  std::string cmd = "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 -addext "
                    "subjectAltName=IP:127.0.0.1 -keyout " + key + " -out " + cert + " >/dev/null 2>&1";
  if (std::system(cmd.c_str()) != 0) GTEST_SKIP() << "the openssl program cannot make a test certificate";
  ASSERT_EQ(import_tree(), 0);
  fs::path port_file = dir_ / "port";
  Proc p = spawn({"serve", "--store", store_, "--users", (dir_ / "users").string(), "--admin-token-file",
                  (dir_ / "token").string(), "--port-file", port_file.string(), "--cert", cert, "--key", key},
                 dir_);
  int port = wait_port(port_file);
  ASSERT_GT(port, 0) << slurp(p.err);
  {
    httplib::SSLClient c("127.0.0.1", port);
    c.set_ca_cert_path(cert.c_str());
    c.enable_server_certificate_verification(true);
    httplib::MultipartFormDataItems items = {
        {"rpc", tavrel_wan::RPC_LOGIN, "", ""},
        {"rpcargs", "min_clnt_proto_ver=6\nmax_clnt_proto_ver=6\nclienttype=ClientType.UNKNOWN\n", "", ""}};
    auto res = c.Post("/tavrel", {{"x-ondrel-login-credentials", WanClient::base64("alice:s3cret")}}, items);
    ASSERT_TRUE(res) << httplib::to_string(res.error());
    EXPECT_EQ(res->status, 200);
    EXPECT_EQ(parse_reply(res->body).status, 0);
    // Plain HTTP to the TLS port fails.
    httplib::Client plain("127.0.0.1", port);
    plain.set_read_timeout(5, 0);
    auto bad = plain.Post("/tavrel", items);
    EXPECT_TRUE(!bad || bad->status != 200);
  }
  EXPECT_NE(slurp(p.out).find("listening on https://"), std::string::npos);
  kill(p.pid, SIGTERM);
  EXPECT_EQ(wait_exit(p), 0);
}

}  // namespace
