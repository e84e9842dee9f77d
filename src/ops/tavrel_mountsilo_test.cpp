// The mount operations against the reference server (in this process, SILOs imported from small
// trees) and a scripted module: what reaches the module, what the mount table and its file hold
// afterwards, and every refusal with its status and message; and Connect, which shares the fixture.
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "base/fileutl.h"
#include "base/imsg.h"
#include "core/tavrel_config.h"
#include "core/tavrel_trace.h"
#include "core/tavrel_view.h"
#include "core/tavrel_view_storage.h"
#include "kfsm/kfsm_test_util.h"
#include "ops/ops_test_util.h"
#include "ops/tavrel_connect.h"
#include "ops/tavrel_endview.h"
#include "ops/tavrel_mountsilo.h"
#include "ops/tavrel_server.h"
#include "proto/kfsm_status.h"
#include "proto/view_storage_names.h"
#include "server/importer.h"
#include "server/wan_server.h"
#include "wan/rclient_session.h"
#include "xml/ol_xml_elem.h"

namespace {

using ops_test::read_reply;
using ops_test::Reply;

Tavrel_View* g_test_view = nullptr;
Tavrel_View* test_view() { return g_test_view; }

// The children of the answer's root other than status-message: tag, text, and the texts of their own
// children (for lists).
struct Child {
  std::string tag, text;
  std::vector<std::string> items;
};
std::vector<Child> answer_children(const std::string& text) {
  ol_test::ScopedCtype utf8("C.UTF-8");
  OlXmlParser parser;
  OlXmlParser::Result result;
  std::unique_ptr<OlXmlDoc> doc(parser.parse(text, result));
  std::vector<Child> out;
  if (!doc || !doc->get_root()) return out;
  for (const OlXmlElem* c : doc->get_root()->get_children()) {
    if (c->get_tag() == "status-message") continue;
    Child ch{c->get_tag(), c->get_value(), {}};
    for (const OlXmlElem* i : c->get_children()) ch.items.push_back(i->get_tag() + "=" + i->get_value());
    out.push_back(ch);
  }
  return out;
}

class MountOps : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/tavrel_mount_ops.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root = tmpl;
    storage = root + "/view";
    ASSERT_EQ(fileutl_mkpath(storage, 0700), 0);
    for (const char* t : {"a", "b"}) {
      fileutl_mkpath(root + "/tree_" + t + "/d", 0755);
      std::ofstream(root + "/tree_" + t + "/d/f.txt") << "text " << t << "\n";
    }
    {
      tavrel_server::Store store(root + "/store.db");
      tavrel_server::ImportOptions pub;
      pub.is_public = true;
      proj = tavrel_server::import_tree(store, "/proj", root + "/tree_a", pub).silo;
      tavrel_server::ImportOptions project;
      project.is_project = true;
      other = tavrel_server::import_tree(store, "/other", root + "/tree_b", project).silo;
    }
    tavrel_server::ServerConfig cfg;
    cfg.store_path = root + "/store.db";
    cfg.users = {{"alice", "secret"}};
    cfg.threads = 4;
    server = std::make_unique<tavrel_server::WanServer>(cfg);
    int port = server->start();
    ASSERT_GT(port, 0);

    view = std::make_unique<Tavrel_View>("0b5c6a1e-2f4d-4c1a-9e7b-3d2c1b0a9f8e", "vtag", "unix", "", root + "/cache",
                                         storage, 0);
    g_test_view = view.get();
    Tavrel_AbstractOp::set_view_source(&test_view);
    Tavrel_Config::set_view_lookup(&test_view);
    Tavrel_Config::clear_mount_tables_for_test();
    Tavrel_Mountsilo::install_mount_hook();

    peer = std::make_unique<Kfsm_Peer>(sock.path, "/view");
    ASSERT_EQ(peer->start(), 0);

    Tavrel_Server::Fields f;
    f.url = "http://127.0.0.1:" + std::to_string(port) + "/tavrel";
    f.username = "alice";
    f.password = "secret";
    Tavrel_Server::set_fields(f);
    Tavrel_Server::set_online(false);
    std::string message;
    ASSERT_EQ(Tavrel_Connect::connect_to_server(message, storage), 0) << message;
  }

  void TearDown() override {
    peer->stop();
    Tavrel_Server::set_online(false);
    RClient_Session::get_session()->flush_curl_handles();
    RClient_Session::get_session()->clear_login();
    server.reset();
    Tavrel_Config::set_mount_hook(nullptr);
    Tavrel_Config::clear_mount_tables_for_test();
    Tavrel_Config::set_view_lookup(nullptr);
    Tavrel_AbstractOp::set_view_source(nullptr);
    g_test_view = nullptr;
    view.reset();
    Tavrel_View_Storage::remove_tree(root);
  }

  // Runs one request; the answer's text in *text when asked.
  Reply run(const std::string& request, std::string* text = nullptr) {
    int status = -1;
    std::string answer =
        ops_test::run_request(Tavrel_AbstractOp::create_xml_request_handler, request, storage, &status);
    EXPECT_EQ(status, 0);
    if (text) *text = answer;
    return read_reply(answer);
  }
  Reply mount(const std::string& tag, const std::string& state = "true") {
    return run("<MountSilo version=\"1\" tx-id=\"m\"><silo-tag mount-state=\"" + state + "\">" + tag +
               "</silo-tag></MountSilo>");
  }
  // The one-element answer of a query, "" when there is none.
  std::string ask(const std::string& op, const std::string& tag) {
    std::string text;
    Reply r = run("<" + op + " version=\"1\" tx-id=\"q\"><silo-tag>" + tag + "</silo-tag></" + op + ">", &text);
    EXPECT_EQ(r.status(), 0) << op << " " << tag;
    auto children = answer_children(text);
    return children.size() == 1 ? children[0].text : "";
  }
  std::vector<std::string> listed() {
    std::string text;
    Reply r = run("<GetMountedSiloList version=\"1\" tx-id=\"l\"/>", &text);
    EXPECT_EQ(r.status(), 0);
    auto children = answer_children(text);
    EXPECT_EQ(children.size(), 1u);
    if (children.size() != 1 || children[0].tag != "mounted-silo-list") return {"<no list>"};
    return children[0].items;
  }
  std::string mounted_file() {
    std::string text;
    if (fileutl_read_file(storage + "/" + VIEW_STG_MOUNTED_SILOS, &text, 1 << 20) != 0) return "<none>";
    return text;
  }
  std::vector<kfsm_command> commands_of(uint32_t cmd) {
    std::vector<kfsm_command> out;
    for (auto& c : peer->commands())
      if (c.cmd == cmd) out.push_back(c);
    return out;
  }
  static std::string line_of(const tavrel_server::Silo& s) {
    return s.tag + "=" + tbs_uuid_to_str(s.replica) + "=" + tbs_uuid_to_str(s.family) + "=" + s.storage + "=" +
           (s.is_public ? "true" : "false") + "=" + (s.is_project ? "true" : "false") + "\n";
  }

  kfsm_test::Temp_Socket sock;
  std::string root, storage;
  tavrel_server::Silo proj, other;
  std::unique_ptr<tavrel_server::WanServer> server;
  std::unique_ptr<Tavrel_View> view;
  std::unique_ptr<Kfsm_Peer> peer;
};

TEST_F(MountOps, MountQueryAndUnmountKeepModuleTableAndFileInStep) {
  EXPECT_EQ(listed(), std::vector<std::string>{});
  Reply m = mount("/proj");
  ASSERT_EQ(m.status(), 0) << m.message;
  EXPECT_EQ(m.attr("tx-id"), "m");
  auto mounts = commands_of(KFSM_CMD_MOUNT);
  ASSERT_EQ(mounts.size(), 1u);
  EXPECT_EQ(mounts[0].pn.text, "vtag");
  kfsm_mount_args a;
  ASSERT_TRUE(kfsm_parse_mount(mounts[0], &a));
  EXPECT_EQ(a.mount_point, "/proj");
  EXPECT_EQ(a.storage, proj.storage);
  EXPECT_EQ(a.replica, proj.replica);
  EXPECT_EQ(0, memcmp(a.family.bytes, proj.family.bytes, 16));
  EXPECT_EQ(a.view_string1, storage);
  EXPECT_EQ(mounted_file(), line_of(proj));

  // The second SILO: the flags come from the server (the answers of the queries for each flag are
  // shown with the real programs), the list is in tag order.
  ASSERT_EQ(mount("/other").status(), 0);
  EXPECT_EQ(listed(), (std::vector<std::string>{"silo-tag=/other", "silo-tag=/proj"}));
  EXPECT_EQ(mounted_file(), line_of(other) + line_of(proj));
  EXPECT_EQ(ask("IsSiloPublic", "/proj"), "true");
  EXPECT_EQ(ask("IsProjectSilo", "/other"), "true");

  // Anything but "true" unmounts.
  Reply u = mount("/proj", "TRUE");
  ASSERT_EQ(u.status(), 0) << u.message;
  auto umounts = commands_of(KFSM_CMD_UMOUNT);
  ASSERT_EQ(umounts.size(), 1u);
  kfsm_umount_args ua;
  ASSERT_TRUE(kfsm_parse_umount(umounts[0], &ua));
  EXPECT_EQ(ua.mount_point, "/proj");
  EXPECT_EQ(ua.replica, proj.replica);
  EXPECT_EQ(mounted_file(), line_of(other));
  EXPECT_EQ(ask("IsSiloMounted", "/proj"), "false");
  EXPECT_EQ(ask("IsSiloPublic", "/proj"), "false") << "unmounted: no longer known";
  ASSERT_EQ(mount("/other", "false").status(), 0);
  EXPECT_EQ(listed(), std::vector<std::string>{});
  EXPECT_EQ(mounted_file(), "");
}

TEST_F(MountOps, ModuleAnswersDecideTheOutcomeAndAFailureLeavesTheTable) {
  struct Case {
    const char* name;
    bool mount_first;  // /proj mounted before the request
    uint32_t cmd;      // the command whose answer is scripted
    int32_t module;    // the module's status
    int status;        // the operation's
    bool mounted_after;
    const char* message;
  } cases[] = {
      {"module had it mounted", false, KFSM_CMD_MOUNT, TBS_ST_EXISTS, 0, true, ""},
      {"module refuses the mount", false, KFSM_CMD_MOUNT, TBS_ST_FAILURE, TAVREL_ST_KERNEL_MOUNT, false, ""},
      {"module did not have it", true, KFSM_CMD_UMOUNT, TBS_ST_BAD_ARG, 0, false, ""},
      {"module refuses the unmount", true, KFSM_CMD_UMOUNT, TBS_ST_FAILURE, TAVREL_ST_KERNEL_MOUNT, true,
       "Unable to unmount SILO /proj: Input/output error\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.mount_first) {
      ASSERT_EQ(mount("/proj").status(), 0);
    }
    const std::string before = mounted_file();
    peer->push_status(c.cmd, c.module);
    Reply r = mount("/proj", c.cmd == KFSM_CMD_MOUNT ? "true" : "false");
    EXPECT_EQ(r.status(), c.status) << r.message;
    EXPECT_EQ(r.message, c.message);
    EXPECT_EQ(ask("IsSiloMounted", "/proj"), c.mounted_after ? "true" : "false");
    if (c.status != 0) {
      EXPECT_EQ(mounted_file(), before) << "a failure leaves the file";
    }
    EXPECT_EQ(mounted_file() == line_of(proj), c.mounted_after);
    // Back to nothing mounted, module and table, for the next case.
    if (c.mounted_after) {
      ASSERT_EQ(mount("/proj", "false").status(), 0);
    }
  }
}

TEST_F(MountOps, WithoutSiloInformationNothingIsMounted) {
  // Offline the server is not asked at all (an unknown tag online: tests/e2e/mount).
  Tavrel_Server::set_online(false);
  Reply off = mount("/proj");
  EXPECT_EQ(off.status(), TAVREL_ST_SILO_INFO);
  EXPECT_EQ(off.message, "Failed to mount SILO /proj.\n");
  EXPECT_TRUE(commands_of(KFSM_CMD_MOUNT).empty());
  EXPECT_EQ(listed(), std::vector<std::string>{});
  EXPECT_EQ(mounted_file(), "<none>");
}

TEST_F(MountOps, TableEntriesTheModuleCannotUseOrTheFileCannotKeep) {
  // An entry without a replica cannot be unmounted: 20036, and the module is not asked.
  SILO_mount_info bad;
  bad.silo_tag = "/proj";
  bad.mount_state = 1;
  ASSERT_EQ(Tavrel_Config::get_instance()->set_mount_state(bad), 0);
  EXPECT_EQ(mount("/proj", "false").status(), TAVREL_ST_SILO_NOT_IN_TABLE);
  EXPECT_TRUE(commands_of(KFSM_CMD_UMOUNT).empty());
  Tavrel_Config::clear_mount_tables_for_test();
  // (A file that cannot be written: tavrel_config_test.cpp.) Without a view nothing reaches the module.
  g_test_view = nullptr;
  EXPECT_EQ(mount("/other").status(), TAVREL_ST_NO_VIEW_INFO);
  EXPECT_TRUE(commands_of(KFSM_CMD_MOUNT).empty());
}

// (Connect shares this fixture for its server and module.) A Connect that logs in asks the module to
// forget the view; a refusal is only traced, with its error text.
TEST_F(MountOps, ConnectTracesARefusedInvalidationWithItsText) {
  char tmpl[] = "/tmp/tavrel-connect-trace-XXXXXX";
  const std::string home = mkdtemp(tmpl);
  const char* old_home = getenv("HOME");
  const std::string saved_home = old_home ? old_home : "";
  setenv("HOME", home.c_str(), 1);
  Tavrel_Trace::setup_trace_file("tester", getpid());
  Tavrel_Trace::set_trace("TAVREL", 2);
  Tavrel_Server::set_online(false);
  peer->push_status(KFSM_CMD_INVAL, TBS_ST_FAILURE);
  Reply r = run("<Connect version=\"1\" tx-id=\"c\"><server><username>alice</username><password>secret</password>"
                "</server></Connect>");
  const std::string file = Tavrel_Trace::get_trace_file();
  Tavrel_Trace::set_trace(nullptr, 0);
  Tavrel_Trace::close_trace_file();
  std::string trace;
  fileutl_read_file(file, &trace, 1 << 20);
  if (old_home)
    setenv("HOME", saved_home.c_str(), 1);
  else
    unsetenv("HOME");
  Tavrel_View_Storage::remove_tree(home);
  EXPECT_EQ(r.status(), 0) << r.message;
  EXPECT_EQ(r.message, "");
  EXPECT_TRUE(Tavrel_Server::is_online());
  EXPECT_EQ(commands_of(KFSM_CMD_INVAL).size(), 1u);
  EXPECT_NE(trace.find(std::string("Unable to invalidate view in KFSM: ") + tbs_strerror(TBS_ST_FAILURE) + "\n"),
            std::string::npos)
      << trace;
}

TEST_F(MountOps, RequestsWithoutAUsableTagAreRefused) {
  const std::string bad_tags[] = {"", "<silo-tag/>", "<silo-tag mount-state=\"true\"></silo-tag>",
                                  "<silo-tag>/a=b</silo-tag>", "<silo-tag>/a&#10;b</silo-tag>",
                                  "<other>/proj</other>"};
  for (const char* op : {"MountSilo", "IsSiloMounted", "IsSiloPublic", "IsProjectSilo"}) {
    for (const auto& body : bad_tags) {
      std::string text;
      Reply r = run(std::string("<") + op + " version=\"1\" tx-id=\"t\">" + body + "</" + op + ">", &text);
      EXPECT_EQ(r.root, op);
      EXPECT_EQ(r.status(), TAVREL_ST_MALFORMED) << op << " " << body;
      EXPECT_EQ(r.message, "Parse error in \"" + storage + "\".\n") << op << " " << body;
      EXPECT_TRUE(answer_children(text).empty()) << op << " " << body;
    }
    Reply no_txid = run(std::string("<") + op + " version=\"1\"><silo-tag>/proj</silo-tag></" + op + ">");
    EXPECT_EQ(no_txid.status(), TAVREL_ST_MALFORMED) << op;
  }
  EXPECT_EQ(run("<GetMountedSiloList version=\"1\"/>").status(), TAVREL_ST_MALFORMED);
  EXPECT_TRUE(peer->commands().empty());
}

TEST_F(MountOps, EndOfViewUnmountsInTheModuleAndKeepsTheTable) {
  ASSERT_EQ(mount("/proj").status(), 0);
  ASSERT_EQ(mount("/other").status(), 0);
  const std::string file = mounted_file();
  // /other (first in tag order) is busy once, then lets go; /proj was gone from the module already.
  peer->push_status(KFSM_CMD_UMOUNT, TBS_ST_BUSY);
  peer->push_status(KFSM_CMD_UMOUNT, 0);
  peer->push_status(KFSM_CMD_UMOUNT, TBS_ST_BAD_ARG);
  {
    Tavrel_Endview end(storage, false);
    EXPECT_EQ(end.unmount_silos(), 0);
    EXPECT_EQ(end.get_status_message(), "Unmounted SILO /other.\nUnmounted SILO /proj.\n");
    EXPECT_EQ(end.get_unmounted().size(), 2u);
  }
  auto umounts = commands_of(KFSM_CMD_UMOUNT);
  ASSERT_EQ(umounts.size(), 3u);
  std::vector<std::string> points;
  for (auto& c : umounts) {
    kfsm_umount_args u;
    ASSERT_TRUE(kfsm_parse_umount(c, &u));
    points.push_back(u.mount_point);
  }
  EXPECT_EQ(points, (std::vector<std::string>{"/other", "/other", "/proj"}));
  EXPECT_EQ(mounted_file(), file) << "the table stays for the next start";
  EXPECT_EQ(listed(), (std::vector<std::string>{"silo-tag=/other", "silo-tag=/proj"}));

  // /other busy twice: /proj is still unmounted, and then mounted again since the view stays up; each
  // remount is reported on its own line, and the failed unmount also reaches the log as an error. The
  // second time the module refuses the remount too.
  static std::vector<std::string> printed;
  static const imsg_redirect_proc_t err_proc = [](void*, const char* text) { printed.push_back(text); };
  imsg_redirect_proc_t procs[11] = {};
  procs[6] = procs[7] = err_proc;
  imsg_set_redirect_procs(procs, 11, nullptr);
  const std::string busy = "Unable to unmount SILO /other: " + std::string(tbs_strerror(TBS_ST_BUSY)) + "\n";
  const size_t mounts_before = commands_of(KFSM_CMD_MOUNT).size();
  struct {
    int32_t remount;  // the module's answer to the remount of /proj
    std::string last_line;
  } rounds[] = {{0, "Remounted SILO /proj.\n"}, {TBS_ST_FAILURE, "Unable to remount SILO /proj (status "}};
  for (const auto& round : rounds) {
    printed.clear();
    peer->push_status(KFSM_CMD_UMOUNT, TBS_ST_BUSY);
    peer->push_status(KFSM_CMD_UMOUNT, TBS_ST_BUSY);
    peer->push_status(KFSM_CMD_MOUNT, round.remount);
    Tavrel_Endview end(storage, false);
    EXPECT_NE(end.unmount_silos(), 0);
    EXPECT_EQ(end.get_status_message().rfind(busy + "Unmounted SILO /proj.\nNot every SILO could be unmounted; "
                                              "the view stays up.\n" + round.last_line, 0), 0u)
        << end.get_status_message();
    EXPECT_EQ(printed, std::vector<std::string>{busy});
    if (round.remount != 0) {
      EXPECT_NE(end.get_status(), 0);
    }
  }
  imsg_set_redirect_procs(nullptr, 0, nullptr);
  EXPECT_EQ(commands_of(KFSM_CMD_UMOUNT).size(), 9u);
  auto mounts = commands_of(KFSM_CMD_MOUNT);
  ASSERT_EQ(mounts.size(), mounts_before + 2);
  kfsm_mount_args again;
  ASSERT_TRUE(kfsm_parse_mount(mounts.back(), &again));
  EXPECT_EQ(again.mount_point, "/proj");
  // Without a view nothing is tried.
  Tavrel_AbstractOp::set_view_source(nullptr);
  Tavrel_Endview none(storage, false);
  EXPECT_EQ(none.unmount_silos(), TAVREL_ST_NO_VIEW_INFO);
  EXPECT_EQ(commands_of(KFSM_CMD_UMOUNT).size(), 9u);
}

}  // namespace
