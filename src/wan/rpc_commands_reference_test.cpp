// The client against the project's reference WAN server in the same process, checking that the two
// sides agree: login with a domain and a password holding colons, a SILO known and unknown,
// the config specs of each view set and read back, versions of every size fetched into a temporary file and renamed
// into place, replies cut, corrupted or refused on purpose, a session the server dropped, logout.
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "proto/rpcargs.h"
#include "proto/wan_names.h"
#include "server/admin_ops.h"
#include "server/importer.h"
#include "server/test_client.h"
#include "server/wan_server.h"
#include "wan/logout.h"
#include "wan/rclient_messages.h"
#include "wan/rpc_cmd_test_util.h"

using namespace wan_test;
using ::testing::HasSubstr;
using ::testing::StartsWith;
namespace fs = std::filesystem;
using Rules = std::vector<std::string>;

namespace {

tbs_uuid_s uuid_of(const std::string& text) {
  tbs_uuid_s u;
  if (tbs_str_to_uuid(text, &u) != 0) std::abort();
  return u;
}

class RpcReferenceTest : public WanTest {
 protected:
  void SetUp() override {
    WanTest::SetUp();
    const std::string dir = home->path() + "/srv";
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
    cfg.users = {{"alice", "secret"}, {"CORP\\bob", "pw:with:colons"}};
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

  // Runs a command: "<WAN status> <status code> <view status> | <results>", the message in `message`.
  // A command holds its connection until it is destroyed: pass temporaries where the command is not
  // needed afterwards.
  template <class Cmd>
  std::string call(Cmd&& cmd, const std::string& out = "") {
    int wan = cmd.run();
    int view = view_status(cmd, &message);
    return std::to_string(wan) + " " + std::to_string(cmd.get_status_code()) + " " + std::to_string(view) + " | " +
           results(cmd, out);
  }
  // A new file element made by an admin operation in the server's process; the URL tail of its
  // first version.
  std::string make_file(const std::string& path, const std::string& bytes) {
    std::vector<tavrel_wan::RpcArg> args;
    std::string err;
    EXPECT_TRUE(tavrel_wan::rpcargs_parse(tavrel_test::ArgText().add("Path", path), &args, &err)) << err;
    tavrel_test::ParsedReply r = tavrel_test::parse_reply(
        tavrel_server::run_admin_op(*server, "elem.mkfile", tavrel_server::Args(args), &bytes, true));
    EXPECT_EQ(r.status, 0) << r.error << r.message;
    const tavrel_test::ReplyPart* p = r.find("Result");
    return p ? std::string(tavrel_wan::PATH_CLEARTEXT) + p->items.at("ReplicaUuid") + "/" +
                   p->items.at("NewVersionOid") + "/unix"
             : "";
  }
  // What the cleartext cache does: a temporary file beside the target, renamed into place on success
  // and removed otherwise. The outcome as call() gives it, without the results.
  std::string fetch(const std::string& tail, const std::string& name, size_t* peak = nullptr) {
    std::string tmp = cache + "/.cltxt_tmp_XXXXXX";
    int fd = mkstemp(tmp.data());
    EXPECT_GE(fd, 0);
    ::close(fd);
    Get_ClearText cmd(tail, tmp);
    std::string outcome = call(cmd, "");
    if (peak) *peak = cmd.peak_response_buffer();
    if (cmd.get_wan_status() != 0 || cmd.get_status_code() != 0)
      ::unlink(tmp.c_str());
    else
      EXPECT_EQ(::rename(tmp.c_str(), (cache + "/" + name).c_str()), 0);
    return outcome.substr(0, outcome.find(" | "));
  }
  std::vector<std::string> cached() {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(cache)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

  std::string cache, base, message;
  tavrel_server::Silo silo;
  std::unique_ptr<tavrel_server::WanServer> server;
};

TEST_F(RpcReferenceTest, LoginSiloInfoAndLogout) {
  EXPECT_EQ(login(base, "alice", "wrong"), RCLIENT_ST_AUTH);
  ASSERT_EQ(Login("bob", "pw:with:colons", "CORP", "", "", base).run(), 0);
  EXPECT_TRUE(session()->is_authenticated());
  EXPECT_EQ(call(Get_SILOInfo("/proj")), "0 0 0 | /proj " + tbs_uuid_to_str(silo.family) + " " +
                                             tbs_uuid_to_str(silo.replica) + " /vobstore/proj.stg 10");
  EXPECT_EQ(call(Get_SILOInfo("/nope")), "0 " + std::to_string(TBS_ST_NOT_FOUND) + " " +
                                             std::to_string(TAVREL_ST_WAN_CALL_2) + " | -");
  EXPECT_THAT(message, HasSubstr("/nope"));
  Logout logout;
  ASSERT_EQ(logout.run(), 0);
  EXPECT_EQ(logout.get_status_code(), 0);
  EXPECT_FALSE(session()->is_authenticated());
}

TEST_F(RpcReferenceTest, ConfigSpecRoundTripPerView) {
  const tbs_uuid_s a = uuid_of("0a0a0a0a-0000-4000-8000-00000000000a");
  const tbs_uuid_s b = uuid_of("0b0b0b0b-0000-4000-8000-00000000000b");
  const std::string ok = "0 0 0 | ", refused = "0 " + std::to_string(TBS_ST_BAD_ARG) + " ";
  // A new view starts with the server's default rules.
  EXPECT_EQ(call(Get_ConfigSpec(a)), ok + "select * latest\n|||");
  Set_ConfigSpec first(a, {"select /proj/docs/** latest", "select * latest\n"}, {"load /proj/docs"}, false);
  EXPECT_THAT(call(first), StartsWith(ok + "/proj, "));
  EXPECT_GT(first.get_current_operation_gn(), 0u);
  const std::string scope = tbs_oid_to_str(tavrel_load_scope_oid("/proj/docs")) + " /proj/docs\n";
  EXPECT_EQ(call(Get_ConfigSpec(a, true)), ok + "select /proj/docs/** latest\nselect * latest\n||load /proj/docs\n|" + scope);
  EXPECT_EQ(call(Get_ConfigSpec(a, false)), ok + "select /proj/docs/** latest\nselect * latest\n||load /proj/docs\n|");
  // The other view is untouched, and keeps its own rules.
  EXPECT_EQ(call(Get_ConfigSpec(b)), ok + "select * latest\n|||");
  EXPECT_THAT(call(Set_ConfigSpec(b, {"select * latest"}, {"load /proj/a.c"}, false)), StartsWith(ok + "/proj, "));
  EXPECT_EQ(call(Get_ConfigSpec(b)), ok + "select * latest\n||load /proj/a.c\n|");
  EXPECT_EQ(call(Get_ConfigSpec(a)), ok + "select /proj/docs/** latest\nselect * latest\n||load /proj/docs\n|");
  // A load rule that selects nothing: refused with the server's message unless forced.
  EXPECT_THAT(call(Set_ConfigSpec(a, {"select * latest"}, {"load /proj/missing"}, false)), StartsWith(refused));
  EXPECT_THAT(message, HasSubstr("ForceUpdate"));
  Set_ConfigSpec forced(a, {"select * latest"}, {"load /proj/missing"}, true);
  EXPECT_THAT(call(forced), StartsWith(ok));
  EXPECT_GT(forced.get_current_operation_gn(), first.get_current_operation_gn());
  // No rules at all: the view reads back empty.
  EXPECT_THAT(call(Set_ConfigSpec(a, {}, {}, false)), StartsWith(ok + " "));
  EXPECT_EQ(call(Get_ConfigSpec(a)), ok + "|||");
}

TEST_F(RpcReferenceTest, CleartextOfEverySizeIntoTheCacheAndUnknownVersions) {
  for (const auto& [name, bytes] : std::vector<std::pair<std::string, std::string>>{
           {"small.txt", "hello, world\n"}, {"empty.txt", ""}, {"big.bin", random_bytes(6u << 20, 7)}}) {
    SCOPED_TRACE(name);
    size_t peak = 0;
    EXPECT_EQ(fetch(make_file("/proj/" + name, bytes), name, &peak), "0 0 0") << message;
    EXPECT_TRUE(read_file(cache + "/" + name) == bytes);
    EXPECT_LE(peak, 16384u + 512u);  // streamed: never more than a block of the reply held
  }
  const std::string known = make_file("/proj/k.txt", "k"), other = "11111111-2222-4333-8444-555555555555";
  const std::string not_found = "0 " + std::to_string(TBS_ST_NOT_FOUND) + " " + std::to_string(TAVREL_ST_WAN_CALL_2);
  EXPECT_EQ(fetch(tavrel_wan::PATH_CLEARTEXT + tbs_uuid_to_str(silo.replica) + "/" + other + "/unix", "v"), not_found);
  EXPECT_EQ(fetch(tavrel_wan::PATH_CLEARTEXT + other + known.substr(known.find('/', 7)), "v"), not_found);
  // A path that is no cleartext address at all.
  EXPECT_THAT(fetch(std::string(tavrel_wan::PATH_CLEARTEXT) + "garbage", "v"),
              StartsWith(std::to_string(RCLIENT_ST_NOT_FOUND) + " "));
  // Neither a temporary file nor anything of the failed fetches is left.
  EXPECT_EQ(cached(), (std::vector<std::string>{"big.bin", "empty.txt", "small.txt"}));
}

// Replies cut, corrupted or refused by the server's fault injection: the fetch fails and the cache
// holds nothing, neither the file nor a temporary one.
TEST_F(RpcReferenceTest, FaultyRepliesLeaveNoPartialFile) {
  const std::string bytes(3u << 20, 'f');
  const std::string tail = make_file("/proj/f.bin", bytes);
  for (const auto& [fault, wan] : std::vector<std::pair<tavrel_server::Fault, int>>{
           {{"cut_after", 120, "cltxt", 1}, RCLIENT_ST_PREMATURE_EOF},
           {{"cut_after", static_cast<int64_t>(bytes.size()) + 100, "cltxt", 1}, RCLIENT_ST_PREMATURE_EOF},
           {{"cut_parts", 1, "cltxt", 1}, RCLIENT_ST_PREMATURE_EOF},
           {{"corrupt_header", 0, "cltxt", 1}, RCLIENT_ST_FORMAT},
           {{"status", 0, "cltxt", 1}, RCLIENT_ST_MALFORMED_ITEM},
           {{"http_status", 500, "cltxt", 1}, RCLIENT_ST_HTTP_STATUS}}) {
    SCOPED_TRACE(fault.kind + " " + std::to_string(fault.value));
    server->faults().arm(fault);
    EXPECT_THAT(fetch(tail, "f.bin"), StartsWith(std::to_string(wan) + " ")) << message;
    EXPECT_TRUE(cached().empty());
  }
  EXPECT_EQ(fetch(tail, "f.bin"), "0 0 0");  // the same version, fetched cleanly afterwards
  EXPECT_TRUE(read_file(cache + "/f.bin") == bytes);
}

// Each command, refused for a session the server dropped, logs in again (a new session) and succeeds.
TEST_F(RpcReferenceTest, EveryCommandLogsInAgainAfterTheServerDropsTheSession) {
  const std::string tail = make_file("/proj/r.txt", "again\n");
  const tbs_uuid_s view = uuid_of("0c0c0c0c-0000-4000-8000-00000000000c");
  const std::vector<std::function<std::string()>> steps = {
      [&] { return call(Get_SILOInfo("/proj")).substr(0, 14); },
      [&] { return call(Set_ConfigSpec(view, {"select * latest"}, {"load /proj/docs"}, false)).substr(0, 14); },
      [&] { return call(Get_ConfigSpec(view)); },
      [&] {
        std::string outcome = fetch(tail, "r.txt");
        return outcome + " | " + read_file(cache + "/r.txt");
      }};
  const std::vector<std::string> expected = {"0 0 0 | /proj ", "0 0 0 | /proj,",
                                             "0 0 0 | select * latest\n||load /proj/docs\n|", "0 0 0 | again\n"};
  for (size_t i = 0; i < steps.size(); ++i) {
    const std::string before = session()->get_session_id();
    server->sessions().expire_all();
    EXPECT_EQ(steps[i](), expected[i]);
    EXPECT_TRUE(session()->is_authenticated());
    EXPECT_NE(session()->get_session_id(), before);
  }
}

}  // namespace
