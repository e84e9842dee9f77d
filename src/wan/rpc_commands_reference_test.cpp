// The SILO information, config spec and cleartext commands against the project's reference server in
// the same process: a SILO known and unknown, config specs set and read back per view, versions of
// every size fetched into a temporary file and renamed into place, replies cut, corrupted or refused
// on purpose, and a session the server dropped.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>
#include <chrono>

#include <gtest/gtest.h>

#include "core/tavrel_status.h"
#include "proto/rpcargs.h"
#include "proto/wan_names.h"
#include "server/admin_ops.h"
#include "server/importer.h"
#include "server/test_client.h"
#include "server/wan_server.h"
#include "wan/get_cleartext.h"
#include "wan/get_configspec.h"
#include "wan/get_siloinfo.h"
#include "wan/rclient_messages.h"
#include "wan/set_configspec.h"
#include "wan/wan_test_fixture.h"

using namespace wan_test;
namespace fs = std::filesystem;

namespace {

std::string random_bytes(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(gen() & 0xff);
  return s;
}

std::string read_file(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

std::vector<std::string> dir_entries(const std::string& dir) {
  std::vector<std::string> out;
  for (const auto& e : fs::directory_iterator(dir)) out.push_back(e.path().filename().string());
  return out;
}

tbs_uuid_s uuid_of(const std::string& text) {
  tbs_uuid_s u;
  if (tbs_str_to_uuid(text, &u) != 0) std::abort();
  return u;
}

// The outcome of one command as its caller sees it.
struct Outcome {
  int wan_status = 0;
  int32_t code = -1;
  int view_status = 0;
  std::string message;
};

Outcome outcome_of(RClient_Abstract_Cmd& cmd) {
  Outcome o;
  o.wan_status = cmd.run();
  o.code = cmd.get_status_code();
  int st = o.code;
  o.view_status = cmd.check_rpc_status(nullptr, o.message, st);
  return o;
}

class RpcReferenceTest : public WanTest {
 protected:
  void SetUp() override {
    WanTest::SetUp();
    dir = home->path() + "/srv";
    cache = home->path() + "/cache";
    fs::create_directories(dir + "/src/docs");
    fs::create_directories(cache);
    std::ofstream(dir + "/src/a.c") << "int a;\n";
    std::ofstream(dir + "/src/docs/readme.txt") << "read me\n";
    {
      tavrel_server::Store store(dir + "/store.db");
      tavrel_server::ImportOptions opt;
      opt.is_public = true;
      opt.storage = "/vobstore/proj.stg";
      silo = tavrel_server::import_tree(store, "/proj", dir + "/src", opt).silo;
    }
    tavrel_server::ServerConfig cfg;
    cfg.store_path = dir + "/store.db";
    cfg.users = {{"alice", "secret"}};
    cfg.threads = 8;
    server = std::make_unique<tavrel_server::WanServer>(cfg);
    ASSERT_GT(server->start(), 0);
    base = "http://127.0.0.1:" + std::to_string(server->port()) + "/tavrel";
    ASSERT_EQ(login(base, "alice", "secret"), 0);
  }
  void TearDown() override {
    session()->flush_curl_handles();
    server.reset();
    WanTest::TearDown();
  }

  // An admin operation run in the server's process; its Result items.
  std::map<std::string, std::string> admin(const std::string& op, const std::string& args,
                                           const std::string* data = nullptr) {
    std::vector<tavrel_wan::RpcArg> parsed;
    std::string err;
    EXPECT_TRUE(tavrel_wan::rpcargs_parse(args, &parsed, &err)) << err;
    tavrel_test::ParsedReply r =
        tavrel_test::parse_reply(tavrel_server::run_admin_op(*server, op, tavrel_server::Args(parsed), data, true));
    EXPECT_TRUE(r.ok) << r.error;
    EXPECT_EQ(r.status, 0) << r.message;
    const tavrel_test::ReplyPart* p = r.find("Result");
    return p ? p->items : std::map<std::string, std::string>();
  }
  // A new file element; the URL tail of its first version.
  std::string make_file(const std::string& path, const std::string& bytes) {
    auto items = admin("elem.mkfile", tavrel_test::ArgText().add("Path", path), &bytes);
    return std::string(tavrel_wan::PATH_CLEARTEXT) + items["ReplicaUuid"] + "/" + items["NewVersionOid"] + "/unix";
  }
  // What the cleartext cache does: a temporary file beside the target, renamed into place on success
  // and removed otherwise.
  Outcome fetch(const std::string& tail, const std::string& target, size_t* peak = nullptr) {
    std::string tmpl = cache + "/.cltxt_tmp_XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    int fd = mkstemp(buf.data());
    EXPECT_GE(fd, 0);
    ::close(fd);
    std::string tmp = buf.data();
    Get_ClearText cmd(tail, tmp);
    Outcome o = outcome_of(cmd);
    if (peak) *peak = cmd.peak_response_buffer();
    if (o.view_status != 0)
      ::unlink(tmp.c_str());
    else
      EXPECT_EQ(::rename(tmp.c_str(), target.c_str()), 0);
    return o;
  }
  size_t count_in_log(const std::string& rpc) {
    size_t n = 0;
    for (const auto& e : server->log().since(0)) n += e.rpc == rpc;
    return n;
  }

  std::string dir, cache, base;
  tavrel_server::Silo silo;
  std::unique_ptr<tavrel_server::WanServer> server;
};

TEST_F(RpcReferenceTest, SiloInfoOfAKnownAndAnUnknownTag) {
  Get_SILOInfo known("/proj");
  Outcome o = outcome_of(known);
  ASSERT_EQ(o.view_status, 0) << o.message;
  EXPECT_EQ(known.get_replica_uuid(), silo.replica);
  EXPECT_EQ(known.get_family_uuid(), silo.family);
  EXPECT_EQ(known.get_storage(), "/vobstore/proj.stg");
  EXPECT_TRUE(known.get_is_public());
  EXPECT_FALSE(known.get_is_project());

  Get_SILOInfo unknown("/nope");
  o = outcome_of(unknown);
  EXPECT_EQ(o.wan_status, 0);
  EXPECT_EQ(o.code, TBS_ST_NOT_FOUND);
  EXPECT_EQ(o.view_status, TAVREL_ST_WAN_CALL_2);
  EXPECT_NE(o.message.find("/nope"), std::string::npos) << o.message;
  EXPECT_FALSE(unknown.has_silo_info());

  // What the agent must never take: a success that names no SILO.
  server->faults().arm({"status", 0, tavrel_wan::RPC_GET_SILO_INFO, 1});
  Get_SILOInfo bare("/proj");
  o = outcome_of(bare);
  EXPECT_EQ(o.wan_status, RCLIENT_ST_MALFORMED_ITEM);
  EXPECT_EQ(o.view_status, TAVREL_ST_WAN_CALL);
  EXPECT_NE(o.message.find("SILO information missing"), std::string::npos) << o.message;
  EXPECT_FALSE(bare.has_silo_info());
  EXPECT_TRUE(tbs_uuid_is_null(bare.get_replica_uuid()));
}

// A command holds its transfer handle, and with it a connection, until it is destroyed: these run one
// command each and keep only the results.
struct Cspec {
  Outcome o;
  std::string elem, tkm, load, frz;
};
Cspec get_cspec(const tbs_uuid_s& view, int freeze = -1) {
  std::unique_ptr<Get_ConfigSpec> cmd = freeze < 0 ? std::make_unique<Get_ConfigSpec>(view)
                                                   : std::make_unique<Get_ConfigSpec>(view, freeze != 0);
  Cspec r;
  r.o = outcome_of(*cmd);
  r.elem = cmd->get_elem_rules();
  r.tkm = cmd->get_tkm_elem_rules();
  r.load = cmd->get_load_rules();
  r.frz = cmd->get_frz_load_scopes();
  return r;
}
struct SetResult {
  Outcome o;
  std::vector<std::string> tags;
  unsigned gn = 0;
};
SetResult set_cspec(const tbs_uuid_s& view, const std::vector<std::string>& elem, const std::vector<std::string>& load,
                    bool force) {
  Set_ConfigSpec cmd(view, elem, load, force);
  SetResult r;
  r.o = outcome_of(cmd);
  r.tags = cmd.get_silo_tags();
  r.gn = cmd.get_current_operation_gn();
  return r;
}

TEST_F(RpcReferenceTest, ConfigSpecRoundTripPerView) {
  const tbs_uuid_s view_a = uuid_of("0a0a0a0a-0000-4000-8000-00000000000a");
  const tbs_uuid_s view_b = uuid_of("0b0b0b0b-0000-4000-8000-00000000000b");

  // A new view starts with the server's default rules.
  Cspec c = get_cspec(view_a);
  ASSERT_EQ(c.o.view_status, 0);
  EXPECT_EQ(c.elem, "select * latest\n");
  EXPECT_EQ(c.load, "");

  SetResult s = set_cspec(view_a, {"select /proj/docs/** latest", "select * latest\n"}, {"load /proj/docs"}, false);
  ASSERT_EQ(s.o.view_status, 0) << s.o.message;
  EXPECT_EQ(s.tags, std::vector<std::string>{"/proj"});
  const unsigned gn1 = s.gn;
  EXPECT_GT(gn1, 0u);

  c = get_cspec(view_a);
  ASSERT_EQ(c.o.view_status, 0);
  EXPECT_EQ(c.elem, "select /proj/docs/** latest\nselect * latest\n");
  EXPECT_EQ(c.load, "load /proj/docs\n");
  EXPECT_EQ(c.frz, "");

  c = get_cspec(view_a, 1);
  ASSERT_EQ(c.o.view_status, 0);
  EXPECT_EQ(c.frz, tbs_oid_to_str(tavrel_load_scope_oid("/proj/docs")) + " /proj/docs\n");

  // The other view is untouched.
  c = get_cspec(view_b);
  ASSERT_EQ(c.o.view_status, 0);
  EXPECT_EQ(c.elem, "select * latest\n");
  EXPECT_EQ(c.load, "");

  ASSERT_EQ(set_cspec(view_b, {"select * latest"}, {"load /proj/a.c"}, false).o.view_status, 0);
  EXPECT_EQ(get_cspec(view_b).load, "load /proj/a.c\n");
  EXPECT_EQ(get_cspec(view_a).load, "load /proj/docs\n");

  // A load rule that selects nothing: refused with the server's message unless forced.
  s = set_cspec(view_a, {"select * latest"}, {"load /proj/missing"}, false);
  EXPECT_EQ(s.o.wan_status, 0);
  EXPECT_EQ(s.o.code, TBS_ST_BAD_ARG);
  EXPECT_EQ(s.o.view_status, TAVREL_ST_WAN_CALL_2);
  EXPECT_NE(s.o.message.find("ForceUpdate"), std::string::npos) << s.o.message;
  s = set_cspec(view_a, {"select * latest"}, {"load /proj/missing"}, true);
  ASSERT_EQ(s.o.view_status, 0);
  EXPECT_GT(s.gn, gn1);

  // No rules at all: both counts 0, and the view reads back empty.
  s = set_cspec(view_a, {}, {}, false);
  ASSERT_EQ(s.o.view_status, 0);
  EXPECT_TRUE(s.tags.empty());
  c = get_cspec(view_a, 0);
  ASSERT_EQ(c.o.view_status, 0);
  EXPECT_EQ(c.elem, "");
  EXPECT_EQ(c.load, "");
  bool saw_zero_counts = false;
  for (const auto& e : server->log().since(0))
    if (e.rpc == tavrel_wan::RPC_SET_CONFIG_SPEC && e.args.find("NumElemRules=0") != std::string::npos &&
        e.args.find("NumLoadRules=0") != std::string::npos)
      saw_zero_counts = true;
  EXPECT_TRUE(saw_zero_counts);

  // A rule the server cannot parse changes nothing.
  s = set_cspec(view_b, {"choose everything"}, {}, false);
  EXPECT_EQ(s.o.code, TBS_ST_BAD_ARG);
  c = get_cspec(view_b);
  ASSERT_EQ(c.o.view_status, 0);
  EXPECT_EQ(c.elem, "select * latest\n");
  EXPECT_EQ(c.load, "load /proj/a.c\n");
}

TEST_F(RpcReferenceTest, CleartextOfEverySizeIntoTheCache) {
  struct File {
    std::string name, bytes;
  };
  const std::vector<File> files = {
      {"small.txt", "hello, world\n"}, {"empty.txt", ""}, {"big.bin", random_bytes(6u << 20, 7)}};
  for (const File& f : files) {
    SCOPED_TRACE(f.name);
    std::string tail = make_file("/proj/" + f.name, f.bytes);
    size_t peak = 0;
    Outcome o = fetch(tail, cache + "/" + f.name, &peak);
    ASSERT_EQ(o.view_status, 0) << o.message;
    EXPECT_TRUE(read_file(cache + "/" + f.name) == f.bytes);
    // Streamed: never more than a block of the reply held, whatever the size.
    EXPECT_LE(peak, 16384u + 512u);
  }
  auto names = dir_entries(cache);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"big.bin", "empty.txt", "small.txt"}));  // no temporary file left
}

TEST_F(RpcReferenceTest, UnknownVersionLeavesNoFile) {
  const std::string known = make_file("/proj/k.txt", "k");
  const std::string replica = tbs_uuid_to_str(silo.replica);
  const std::string other_oid = "11111111-2222-4333-8444-555555555555";
  for (const std::string& tail :
       {std::string(tavrel_wan::PATH_CLEARTEXT) + replica + "/" + other_oid + "/unix",
        std::string(tavrel_wan::PATH_CLEARTEXT) + other_oid + known.substr(known.find('/', 7))}) {
    SCOPED_TRACE(tail);
    Outcome o = fetch(tail, cache + "/v");
    EXPECT_EQ(o.wan_status, 0);
    EXPECT_EQ(o.code, TBS_ST_NOT_FOUND);
    EXPECT_EQ(o.view_status, TAVREL_ST_WAN_CALL_2);
    EXPECT_FALSE(o.message.empty());
    EXPECT_TRUE(dir_entries(cache).empty());
  }
  // A path that is no cleartext address at all.
  Outcome o = fetch(std::string(tavrel_wan::PATH_CLEARTEXT) + "garbage", cache + "/v");
  EXPECT_EQ(o.wan_status, RCLIENT_ST_NOT_FOUND);
  EXPECT_TRUE(dir_entries(cache).empty());
}

// Replies cut, corrupted or refused by the server's fault injection: the fetch fails and the cache
// holds nothing, neither the file nor a temporary one.
TEST_F(RpcReferenceTest, FaultyRepliesLeaveNoPartialFile) {
  const std::string bytes = random_bytes(3u << 20, 9);
  const std::string tail = make_file("/proj/f.bin", bytes);
  struct Case {
    tavrel_server::Fault fault;
    int wan_status;
  };
  for (const Case& c : {
           Case{{"cut_after", 30, "cltxt", 1}, RCLIENT_ST_PREMATURE_EOF},
           Case{{"cut_after", 120, "cltxt", 1}, RCLIENT_ST_PREMATURE_EOF},
           Case{{"cut_after", 1 << 20, "cltxt", 1}, RCLIENT_ST_PREMATURE_EOF},
           Case{{"cut_after", static_cast<int64_t>(bytes.size()) + 100, "cltxt", 1}, RCLIENT_ST_PREMATURE_EOF},
           Case{{"cut_parts", 1, "cltxt", 1}, RCLIENT_ST_PREMATURE_EOF},
           Case{{"corrupt_header", 0, "cltxt", 1}, RCLIENT_ST_FORMAT},
           Case{{"status", 0, "cltxt", 1}, RCLIENT_ST_MALFORMED_ITEM},
           Case{{"http_status", 500, "cltxt", 1}, RCLIENT_ST_HTTP_STATUS},
       }) {
    SCOPED_TRACE(c.fault.kind + " " + std::to_string(c.fault.value));
    server->faults().arm(c.fault);
    Outcome o = fetch(tail, cache + "/f.bin");
    EXPECT_EQ(o.wan_status, c.wan_status) << o.message;
    EXPECT_EQ(o.view_status, TAVREL_ST_WAN_CALL);
    EXPECT_TRUE(dir_entries(cache).empty());
  }
  // The same version, fetched cleanly afterwards.
  ASSERT_EQ(fetch(tail, cache + "/f.bin").view_status, 0);
  EXPECT_TRUE(read_file(cache + "/f.bin") == bytes);
}

TEST_F(RpcReferenceTest, EveryCommandLogsInAgainAfterTheServerDropsTheSession) {
  const std::string tail = make_file("/proj/r.txt", "again\n");
  const tbs_uuid_s view = uuid_of("0c0c0c0c-0000-4000-8000-00000000000c");
  // The server logs a request just after its reply has gone out: count once the log is still.
  size_t logins = count_in_log(tavrel_wan::RPC_LOGIN);
  for (int i = 0; i < 40; i++) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    size_t now = count_in_log(tavrel_wan::RPC_LOGIN);
    if (now == logins) break;
    logins = now;
  }

  server->sessions().expire_all();
  {
    Get_SILOInfo info("/proj");
    EXPECT_EQ(outcome_of(info).view_status, 0);
    EXPECT_EQ(info.get_replica_uuid(), silo.replica);
  }
  server->sessions().expire_all();
  SetResult s = set_cspec(view, {"select * latest"}, {"load /proj/docs"}, false);
  EXPECT_EQ(s.o.view_status, 0);
  EXPECT_EQ(s.tags, std::vector<std::string>{"/proj"});

  server->sessions().expire_all();
  Cspec c = get_cspec(view);
  EXPECT_EQ(c.o.view_status, 0);
  EXPECT_EQ(c.load, "load /proj/docs\n");

  server->sessions().expire_all();
  EXPECT_EQ(fetch(tail, cache + "/r.txt").view_status, 0);
  EXPECT_EQ(read_file(cache + "/r.txt"), "again\n");

  for (int i = 0; i < 500 && count_in_log(tavrel_wan::RPC_LOGIN) < logins + 4; i++)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(count_in_log(tavrel_wan::RPC_LOGIN), logins + 4);
  // Each request was refused once and sent once more.
  size_t refused = 0;
  for (const auto& e : server->log().since(0)) refused += e.http_status == 401;
  EXPECT_EQ(refused, 4u);
}

}  // namespace
