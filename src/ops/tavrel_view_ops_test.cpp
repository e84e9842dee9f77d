// The operations that begin and connect a view, where they need no server: request parsing and its
// refusals, an offline creation, and the cached rule files. Logins against a real server are covered
// end to end (tests/e2e/view).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "base/fileutl.h"
#include "core/tavrel_log.h"
#include "core/tavrel_view.h"
#include "core/tavrel_view_storage.h"
#include "ops/ops_test_util.h"
#include "ops/tavrel_configspec.h"
#include "ops/tavrel_server.h"
#include "proto/view_storage_names.h"

namespace {

using ops_test::read_reply;
using ops_test::Reply;

class ViewOps : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/tavrel_view_ops.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root = tmpl;
    storage = root + "/view";
    Tavrel_View_Hooks h;
    // The cache and the database are other modules' business: these tests keep the view's GN in memory.
    h.cache_init = [] { return 0; };
    h.cache_set_size = [](unsigned, bool) { return 0; };
    h.start_db = [](const std::string&, const std::string&, Tavrel_View_db** db) {
      *db = nullptr;
      return 0;
    };
    h.close_db = [](Tavrel_View_db*) {};
    h.db_get_vns_view_gn = [](unsigned* gn) {
      *gn = 0;
      return 0;
    };
    h.db_create_vns_view = [](const tbs_uuid_s&, unsigned) { return 0; };
    h.register_view = [](Tavrel_View*) { return 0; };
    h.server_url = [] { return Tavrel_Server::get_url(); };
    Tavrel_View::install_hooks(h);
    Tavrel_View::reset_for_test();
    Tavrel_Server::set_fields(Tavrel_Server::Fields());
    Tavrel_Server::set_online(true);
  }
  void TearDown() override {
    Tavrel_View::install_hooks(Tavrel_View_Hooks());
    Tavrel_Server::set_online(true);
    Tavrel_View_Storage::remove_tree(root);
  }
  Reply run(const std::string& request, int* op_status = nullptr) {
    int status = -1;
    std::string text = ops_test::run_request(Tavrel_AbstractOp::create_xml_request_handler, request, storage,
                                             &status, op_status);
    EXPECT_EQ(status, 0);
    return read_reply(text);
  }
  std::string mkview(const std::string& skip, const std::string& server) {
    const std::pair<const char*, std::string> fields[] = {
        {"view-uuid", "0b5c6a1e-2f4d-4c1a-9e7b-3d2c1b0a9f8e"}, {"view-type", "automatic"},
        {"cltxt-cache-dir", root + "/cache"}, {"preserve-silo-modified-time", "true"},
        {"server-tag", "v1"}, {"text-mode", "unix"}};
    std::string body;
    for (const auto& f : fields)
      if (skip != f.first) body += std::string("<") + f.first + ">" + f.second + "</" + f.first + ">";
    return "<MkView version=\"1\">" + body + server + "</MkView>";
  }
  std::string root, storage;
};

const std::string kOffline = "<server online=\"false\"><server-url>http://127.0.0.1:9/</server-url></server>";

TEST_F(ViewOps, MkViewRefusesAnIncompleteRequestAndMakesNothing) {
  struct Case {
    const char* skip;
    std::string server;
    int status;
    std::string message;
  } cases[] = {
      {"view-uuid", kOffline, TAVREL_ST_MALFORMED, "View uuid not found for"},
      {"view-type", kOffline, TAVREL_ST_MALFORMED, "View type not found for"},
      {"cltxt-cache-dir", kOffline, TAVREL_ST_MALFORMED, "Cleartext cache directory not found for"},
      {"server-tag", kOffline, TAVREL_ST_MALFORMED, "Server view tag not found for"},
      {"text-mode", kOffline, TAVREL_ST_MALFORMED, "Interop textmode not found for"},
      // The server element is checked as tavrel_server_test.cpp shows; one refusal stands for all.
      {"", "", TAVREL_ST_SERVER_INFO, "Server information is incomplete or invalid for"},
      {"", "<server><server-url>http://h/</server-url><username>u</username></server>", TAVREL_ST_SERVER_INFO, "incomplete"},
  };
  for (const auto& c : cases) {
    Tavrel_Server::set_online(true);
    int op_status = -1;
    Reply r = run(mkview(c.skip, c.server), &op_status);
    EXPECT_EQ(r.root, "MkView") << c.skip << c.server;
    EXPECT_EQ(r.status(), c.status) << c.skip << c.server;
    EXPECT_NE(r.message.find(c.message), std::string::npos) << r.message;
    EXPECT_NE(r.message.find(storage), std::string::npos) << r.message;
    EXPECT_FALSE(fileutl_exists(storage)) << c.skip << c.server;
    EXPECT_FALSE(r.has_attr("tx-id") && !r.attr("tx-id").empty());
  }
}

TEST_F(ViewOps, MkViewOfflineMakesTheViewWithoutFetchingRules) {
  int op_status = -1;
  Reply r = run(mkview("", kOffline), &op_status);
  ASSERT_EQ(r.status(), 0) << r.message;
  EXPECT_FALSE(Tavrel_Server::is_online());
  std::string meta;
  ASSERT_EQ(fileutl_read_file(storage + "/" + VIEW_STG_METADATA, &meta, 1 << 16), 0);
  EXPECT_NE(meta.find("server-url=http://127.0.0.1:9/tavrel\n"), std::string::npos) << meta;
  EXPECT_NE(meta.find("preserve-silo-modified-time=true\n"), std::string::npos) << meta;
  EXPECT_FALSE(fileutl_exists(storage + "/" + VIEW_STG_CONFIG_SPEC)) << "offline: no rules fetched";
}

TEST_F(ViewOps, StartViewThatCannotLogInRunsOfflineAndSaysSoInTheLogOnly) {
  ASSERT_EQ(run(mkview("", kOffline)).status(), 0);
  Tavrel_Log::reset_for_test();
  Tavrel_Log::g_enabled = 1;
  Reply r = run("<StartView version=\"1\" tx-id=\"s1\"><server online=\"true\"><server-url>http://127.0.0.1:9/"
                "</server-url><username>u</username><password>p</password></server></StartView>");
  Tavrel_Log::g_enabled = 0;
  Tavrel_Log::reset_for_test();
  EXPECT_EQ(r.status(), 0);
  EXPECT_EQ(r.message, "") << "the answer carries nothing of the failed login";
  EXPECT_EQ(r.attr("tx-id"), "") << "StartView reads no tx-id";
  EXPECT_FALSE(Tavrel_Server::is_online());
  std::string log;
  ASSERT_EQ(fileutl_read_file(storage + "/" + VIEW_STG_LOG_DIR + "/" + VIEW_STG_LOG_FILE, &log, 1 << 16), 0);
  EXPECT_EQ(log.rfind("WARN::", 0), 0u) << log;
  EXPECT_NE(log.find("::Unable to connect to server :\"http://127.0.0.1:9/tavrel\".\n"), std::string::npos) << log;
}

TEST_F(ViewOps, StartViewAndConnectRefusals) {
  // No storage: 20023 before anything is parsed.
  Reply r = run("<StartView version=\"1\">" + kOffline + "</StartView>");
  EXPECT_EQ(r.status(), TAVREL_ST_NO_STORAGE);
  ASSERT_EQ(run(mkview("", kOffline)).status(), 0);
  struct Case {
    std::string request;
    std::string root;
    int status;
    std::string message;
  } cases[] = {
      // The server element's own refusal stands, with the parse message.
      {"<StartView version=\"1\"/>", "StartView", TAVREL_ST_SERVER_INFO, "Parse error in"},
      {"<StartView version=\"1\"><server online=\"yes\"/></StartView>", "StartView", TAVREL_ST_SERVER_INFO, "Parse error in"},
      {"<StartView>" + kOffline + "</StartView>", "StartView", TAVREL_ST_MALFORMED, "Parse error in"},
      {"<Connect version=\"1\" tx-id=\"c1\"/>", "Connect", TAVREL_ST_SERVER_INFO, ""},  // no server: no message
      {"<Connect version=\"1\"><server/></Connect>", "Connect", TAVREL_ST_MALFORMED, "Parse error in"},
      {"<Disconnect version=\"1\"/>", "Disconnect", TAVREL_ST_MALFORMED, "Parse error in"},
      {"<IsUpdateInProgress version=\"1\"/>", "IsUpdateInProgress", TAVREL_ST_MALFORMED, "Parse error in"},
  };
  for (const auto& c : cases) {
    Reply x = run(c.request);
    EXPECT_EQ(x.root, c.root) << c.request;
    EXPECT_EQ(x.status(), c.status) << c.request;
    if (c.message.empty()) {
      EXPECT_EQ(x.message, "") << c.request;
    }
    EXPECT_NE(x.message.find(c.message), std::string::npos) << c.request << ": " << x.message;
  }
  // Online, Connect keeps the new credentials for the next login and leaves the session as it is.
  Tavrel_Server::set_online(true);
  EXPECT_EQ(run("<Connect version=\"1\" tx-id=\"c2\"><server><username>u2</username><password>p2</password>"
                "</server></Connect>").status(), 0);
  EXPECT_TRUE(Tavrel_Server::is_online());
  EXPECT_EQ(Tavrel_Server::get_fields().username, "u2");
  EXPECT_EQ(Tavrel_Server::get_fields().password, "p2");
  // Offline, Disconnect has nothing to do; the view answers whether an update runs.
  Tavrel_Server::set_online(false);
  EXPECT_EQ(run("<Disconnect version=\"1\" tx-id=\"d\"/>").status(), 0);
  Reply u = run("<IsUpdateInProgress version=\"1\" tx-id=\"u\"/>");
  EXPECT_EQ(u.status(), 0);
  EXPECT_EQ(u.other_children, std::vector<std::string>{"is-update-in-progress"});
}

TEST_F(ViewOps, RuleFilesAreKeptWholeAndReadTrimmedWithCrLf) {
  fileutl_mkpath(root + "/s", 0700);
  Tavrel_ConfigSpec cs(root + "/s");
  std::string out = "stale";
  EXPECT_EQ(cs.get_cached_elem_rules(out), TAVREL_ST_NOT_FOUND);
  EXPECT_EQ(out, "");
  const std::string rules = "  element * LATEST \n\nelement /proj/... /main/3\r\n";
  ASSERT_EQ(cs.save_elem_rules(rules), 0);
  std::string raw;
  ASSERT_EQ(fileutl_read_file(root + "/s/" + VIEW_STG_CONFIG_SPEC, &raw, 1 << 16), 0);
  EXPECT_EQ(raw, rules) << "written as given";
  struct stat st;
  ASSERT_EQ(stat((root + "/s/" + VIEW_STG_CONFIG_SPEC).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  ASSERT_EQ(cs.get_cached_elem_rules(out), 0);
  EXPECT_EQ(out, "element * LATEST\r\n\r\nelement /proj/... /main/3\r\n");
  ASSERT_EQ(cs.save_tkm_elem_rules(""), 0);
  ASSERT_EQ(cs.get_cached_tkm_elem_rules(out), 0);
  EXPECT_EQ(out, "");
  // A FIFO in place of the file is not read (and does not block); a missing directory cannot be written.
  ASSERT_EQ(unlink((root + "/s/" + VIEW_STG_CONFIG_SPEC_TKM).c_str()), 0);
  ASSERT_EQ(mkfifo((root + "/s/" + VIEW_STG_CONFIG_SPEC_TKM).c_str(), 0600), 0);
  EXPECT_EQ(cs.get_cached_tkm_elem_rules(out), TAVREL_ST_FAILURE);
  Tavrel_ConfigSpec gone(root + "/missing");
  EXPECT_EQ(gone.save_elem_rules("x"), TAVREL_ST_WRITE_FILE);
}

}  // namespace
