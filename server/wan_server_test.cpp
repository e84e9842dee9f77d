#include "server/wan_server.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "server/importer.h"
#include "server/test_client.h"

using namespace tavrel_server;
using namespace tavrel_test;
namespace fs = std::filesystem;

namespace {

const char* kToken = "admintoken";

void write_file(const fs::path& p, const std::string& data, mode_t mode = 0644) {
  fs::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary) << data;
  ::chmod(p.c_str(), mode);
}

class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/tavrel_wan_test_XXXXXX";
    dir_ = ::mkdtemp(tmpl);
    fs::path src = dir_ / "src";
    write_file(src / "a.c", "int a;\n");
    write_file(src / "b.h", "#define B\n");
    write_file(src / "docs/readme.txt", "read me\n");
    write_file(src / "docs/tool.sh", "#!/bin/sh\n", 0755);
    fs::create_symlink("docs/readme.txt", src / "ln");
    db_ = (dir_ / "store.db").string();
    {
      Store s(db_);
      import_tree(s, "/proj", src.string(), {});
    }
    start();
    ASSERT_EQ(client().login("alice", "secret").reply.status, 0);
    view_ = tbs_uuid_to_str(tbs_uuid_create());
  }
  void TearDown() override {
    clients_.clear();
    srv_.reset();
    fs::remove_all(dir_);
  }
  void start(ServerConfig extra = ServerConfig()) {
    ServerConfig cfg = extra;
    cfg.store_path = db_;
    cfg.users = {{"alice", "secret"}, {"CORP\\bob", "pw:with:colons"}};
    cfg.admin_token = kToken;
    cfg.threads = 8;
    if (extra.max_body != ServerConfig().max_body) cfg.max_body = extra.max_body;
    srv_ = std::make_unique<WanServer>(cfg);
    port_ = srv_->start();
    ASSERT_GT(port_, 0);
    clients_.clear();
  }
  WanClient& client(size_t i = 0) {
    while (clients_.size() <= i) clients_.push_back(std::make_unique<WanClient>("127.0.0.1", port_));
    return *clients_[i];
  }
  Result admin(const std::string& op, const std::string& args, std::optional<std::string> data = std::nullopt) {
    return client().post("/admin", op, args, {{"x-tavrel-admin-token", kToken}}, data);
  }
  // An operation of the client API ("view.checkout", ...) on `view`.
  Result view_op(const std::string& op, const std::string& view, ArgText args, std::optional<std::string> data = {}) {
    return client().post("/client", op, args.add("ViewUuid", view), {}, data);
  }
  static ArgText at(const std::string& path) { return ArgText().add("Path", path); }
  std::string replica() {
    if (replica_.empty()) {
      auto r = client().rpc(tavrel_wan::RPC_GET_SILO_INFO, ArgText().add("SiloTag", "/proj"));
      replica_ = r.reply.parts.at(0).items.at("SiloReplicaUuid");
    }
    return replica_;
  }
  Result root(const std::string& view, size_t c = 0) {
    return client(c).rpc(tavrel_wan::RPC_GET_METADATA,
                         ArgText().add("ViewUuid", view).add("SiloUuid", replica()).add("PathName", ""));
  }
  std::string oid_of(const Result& r, const char* part = "Xdr_ObjMetadata") {
    return tbs_oid_to_str(decode_vstat(r.reply.find(part)->body).vstat.obj_oid);
  }
  ArgText in_dir(const std::string& view, const std::string& dirver) {
    return ArgText().add("ViewUuid", view).add("SiloUuid", replica()).add("VersionOid", dirver);
  }
  Result lookup(const std::string& view, const std::string& dirver, const std::string& leaf, size_t c = 0) {
    return client(c).rpc(tavrel_wan::RPC_LOOKUP, in_dir(view, dirver).add("SiloPathName", "").add("LeafName", leaf));
  }
  Result gdc(const std::string& view, const std::string& dirver, size_t c = 0) {
    return client(c).rpc(tavrel_wan::RPC_GET_DIRECTORY_CONTENTS, in_dir(view, dirver).add("PathName", ""));
  }
  // Names of a listing, with "+co" for checked-out entries.
  std::vector<std::string> names(const Result& r) {
    std::vector<std::string> out;
    for (const auto& p : r.reply.parts) {
      if (p.id != "XdrDirectoryEntry") continue;
      tavrel_dirent d = decode_dirent(p.body);
      out.push_back(std::string(d.name) + (d.checked_out ? "+co" : ""));
    }
    return out;
  }
  Result set_rules(const std::string& view, const std::vector<std::string>& elem,
                   const std::vector<std::string>& load = {}, bool force = false, size_t c = 0) {
    ArgText a;
    a.add("ViewUuid", view).add("NumElemRules", std::to_string(elem.size()));
    for (const auto& e : elem) a.add("ElemRule", e);
    a.add("NumLoadRules", std::to_string(load.size()));
    for (const auto& l : load) a.add("LoadRule", l);
    a.add("ForceUpdate", force ? "1" : "0");
    return client(c).rpc(tavrel_wan::RPC_SET_CONFIG_SPEC, a);
  }
  bool store_sound() {
    return srv_->store().read([](Repo& r) {
      auto s = r.db().stmt("PRAGMA integrity_check");
      s.step();
      return s.text(0) == "ok";
    });
  }
  // The version string a view sees at a path, walking from the root with Lookups.
  std::string seen(const std::string& view, const std::vector<std::string>& path) {
    Result r = root(view);
    if (r.reply.status != 0) return "status " + std::to_string(r.reply.status);
    std::string dir = oid_of(r);
    for (size_t i = 0; i < path.size(); ++i) {
      r = lookup(view, dir, path[i]);
      if (r.reply.status != 0) return "status " + std::to_string(r.reply.status);
      dir = oid_of(r);
    }
    auto v = decode_vstat(r.reply.find("Xdr_ObjMetadata")->body);
    return client().get(std::string("/cltxt/") + replica() + "/" + dir + "/text").reply.parts.at(0).body +
           (v.checked_out ? "+co" : "");
  }

  fs::path dir_;
  std::string db_;
  std::unique_ptr<WanServer> srv_;
  int port_ = 0;
  std::vector<std::unique_ptr<WanClient>> clients_;
  std::string view_;
  std::string replica_;
};

TEST_F(ServerTest, LoginCookiesSessionsAndLogout) {
  WanClient& c = client(1);
  Result r = c.login("alice", "secret");
  ASSERT_TRUE(r.reply.ok) << r.reply.error;
  EXPECT_EQ(r.reply.status, 0);
  EXPECT_EQ(c.session().size(), 32u);
  EXPECT_EQ(c.jsession().size(), 32u);
  EXPECT_EQ(r.headers.count("Set-Cookie"), 2u);  // a header of its own for each cookie

  std::string j1 = c.jsession(), s1 = c.session();
  WanClient& c2 = client(2);
  ASSERT_EQ(c2.login("CORP\\bob", "pw:with:colons").reply.status, 0);

  // Wrong password, unknown user, no cookie, a forged session, a mismatched JSESSIONID.
  WanClient& c3 = client(3);
  EXPECT_EQ(c3.login("mallory", "x").http, 401);
  EXPECT_EQ(c3.rpc(tavrel_wan::RPC_GET_SILO_INFO, ArgText().add("SiloTag", "/proj")).http, 401);
  c3.set_cookies(j1, "notasession");
  EXPECT_EQ(c3.rpc(tavrel_wan::RPC_GET_SILO_INFO, ArgText().add("SiloTag", "/proj")).http, 401);
  c3.set_cookies("other", s1);
  EXPECT_EQ(c3.rpc(tavrel_wan::RPC_GET_SILO_INFO, ArgText().add("SiloTag", "/proj")).http, 401);

  // A protocol version outside the client's range is a Status, not an HTTP error.
  Result v = c3.login("alice", "secret", 7, 9);
  EXPECT_EQ(v.http, 200);
  EXPECT_EQ(v.reply.status, TBS_ST_BAD_ARG);

  // Credentials in place of a cookie work on any request.
  const httplib::Headers creds = {{"x-ondrel-login-credentials", WanClient::base64("alice:secret")}};
  const std::string proj = ArgText().add("SiloTag", "/proj");
  EXPECT_EQ(c3.post("", tavrel_wan::RPC_GET_SILO_INFO, proj, creds).reply.status, 0);

  // Logout ends the session; logout of an unknown session still succeeds.
  EXPECT_EQ(c.get("/logout").reply.status, 0);
  EXPECT_EQ(c.rpc(tavrel_wan::RPC_GET_SILO_INFO, proj).http, 401);
  EXPECT_EQ(c.get("/logout").http, 200);

  // Expiring all sessions makes the next request 401 (the agent then logs in again).
  ASSERT_EQ(admin("sessions.expire", "").reply.status, 0);
  EXPECT_EQ(c2.rpc(tavrel_wan::RPC_GET_SILO_INFO, proj).http, 401);

  // Five failed logins are free; after the sixth, the address waits (here with the clock stopped) and
  // its next credentials are refused unchecked, at login or on any request.
  ServerConfig frozen;
  frozen.clock_ms = [] { return int64_t(1); };
  start(frozen);
  for (int i = 0; i < 6; ++i) EXPECT_EQ(client().login("nobody", "x").http, 401);
  Result slowed = client().login("alice", "secret");
  EXPECT_EQ(slowed.http, 429);
  EXPECT_EQ(slowed.headers.find("Retry-After")->second, "1");
  EXPECT_EQ(client().post("", tavrel_wan::RPC_GET_SILO_INFO, proj, creds).http, 429);
}

TEST_F(ServerTest, ConfigSpecChangesCountAndBadRulesChangeNothing) {
  Result set = set_rules(view_, {"select *.h none", "select * latest\r"}, {"load /proj/docs"});
  ASSERT_EQ(set.reply.status, 0) << set.reply.message;
  const ReplyPart* vi = set.reply.find("ViewInfo");
  EXPECT_EQ(vi->items.at("CurrentOperationGN"), "1");
  EXPECT_EQ(vi->items.at("ViewGN"), "0");
  ASSERT_EQ(set_rules(view_, {"select * latest"}, {"load /proj/docs"}).reply.status, 0);

  // Bad rules, overlapping or unknown load rules and warnings change nothing.
  EXPECT_EQ(set_rules(view_, {"select * newest"}).reply.status, TBS_ST_BAD_ARG);
  EXPECT_EQ(set_rules(view_, {"select * latest"}, {"load /proj", "load /proj/docs"}).reply.status, TBS_ST_BAD_ARG);
  EXPECT_EQ(set_rules(view_, {"select * latest"}, {"load /other"}).reply.status, TBS_ST_NOT_FOUND);
  EXPECT_EQ(set_rules(view_, {"select * latest"}, {"load /proj/missing"}).reply.status, TBS_ST_BAD_ARG);
  Result forced = set_rules(view_, {"select * latest"}, {"load /proj/missing"}, true);
  EXPECT_EQ(forced.reply.status, 0);
  EXPECT_EQ(forced.reply.find("ViewInfo")->items.at("CurrentOperationGN"), "3");
}

TEST_F(ServerTest, MetadataLookupAndListing) {
  Result r = root(view_);
  ASSERT_EQ(r.reply.status, 0) << r.reply.message;
  ASSERT_EQ(r.reply.parts.size(), 3u);
  tavrel_scope sc = decode_scope(r.reply.find("Xdr_ObjScope")->body);
  EXPECT_EQ(sc.oid, AUTOMATIC_LOAD_SCOPE_OID);
  EXPECT_STREQ(sc.name, "Automatic");
  tavrel_vstat obj = decode_vstat(r.reply.find("Xdr_ObjMetadata")->body);
  tavrel_vstat el = decode_vstat(r.reply.find("Xdr_ElemMetadata")->body);
  EXPECT_EQ(obj.vstat.mtype, SILO_MTYPE_DIR_VER);
  EXPECT_EQ(el.vstat.mtype, SILO_MTYPE_DIR_ELEM);
  EXPECT_EQ(obj.vstat.elem_oid, el.vstat.obj_oid);
  std::string rootver = tbs_oid_to_str(obj.vstat.obj_oid);

  Result docs = lookup(view_, rootver, "docs");
  ASSERT_EQ(docs.reply.status, 0);
  std::string docsver = oid_of(docs);
  Result tool = lookup(view_, docsver, "tool.sh");
  tavrel_vstat tv = decode_vstat(tool.reply.find("Xdr_ObjMetadata")->body);
  EXPECT_EQ(tv.vstat.mtype, SILO_MTYPE_FILE_VER);
  EXPECT_EQ(tv.vstat.fstat.mode, 0755u);
  EXPECT_EQ(tv.vstat.fstat.size, 10u);
  EXPECT_EQ(tv.vstat.fstat.type, TBS_FTYPE_FILE);
  EXPECT_EQ(decode_vstat(tool.reply.find("Xdr_ElemMetadata")->body).vstat.mtype, SILO_MTYPE_FILE_ELEM);

  tavrel_vstat lv = decode_vstat(lookup(view_, rootver, "ln").reply.find("Xdr_ObjMetadata")->body);
  EXPECT_EQ(lv.vstat.mtype, SILO_MTYPE_SYMLINK);
  EXPECT_STREQ(lv.path, "docs/readme.txt");
  EXPECT_EQ(lv.vstat.fstat.size, 15u);

  EXPECT_EQ(lookup(view_, rootver, "absent").reply.status, TBS_ST_NOT_FOUND);
  EXPECT_EQ(lookup(view_, tbs_oid_to_str(tbs_oid_create()), "a.c").reply.status, TBS_ST_STALE);
  EXPECT_EQ(lookup(view_, rootver, "../x").reply.status, TBS_ST_BAD_ARG);

  // The listing: name order, four parts per entry, and it agrees with Lookup.
  Result list = gdc(view_, rootver);
  ASSERT_TRUE(list.reply.ok) << list.reply.error;
  EXPECT_EQ(names(list), (std::vector<std::string>{"a.c", "b.h", "docs", "ln"}));
  ASSERT_EQ(list.reply.parts.size(), 16u);
  for (size_t i = 0; i < list.reply.parts.size(); i += 4) {
    EXPECT_EQ(list.reply.parts[i].id + " " + list.reply.parts[i + 1].id + " " + list.reply.parts[i + 2].id + " " +
                  list.reply.parts[i + 3].id,
              "XdrDirectoryEntry Xdr_ObjScope Xdr_ObjMetadata Xdr_ElemMetadata");
    tavrel_dirent d = decode_dirent(list.reply.parts[i].body);
    EXPECT_EQ(d.off, 2 + i / 4);
    Result one = lookup(view_, rootver, d.name);
    EXPECT_EQ(one.reply.find("Xdr_ObjMetadata")->body, list.reply.parts[i + 2].body) << d.name;
    EXPECT_EQ(tbs_oid_to_str(d.ver_oid), oid_of(one));
  }
  // The same listing by element OID (by path: LargeListings).
  Result by_elem = client().rpc(tavrel_wan::RPC_GET_DIRECTORY_CONTENTS,
                                ArgText().add("ViewUuid", view_).add("SiloUuid", replica()).add(
                                    "ElementOid", tbs_oid_to_str(el.vstat.obj_oid)));
  EXPECT_EQ(by_elem.body, list.body);

  // Names come from the directory version given, versions from the current selection: after a new
  // version of docs, the old version still answers with its own names.
  ASSERT_EQ(admin("elem.mkfile", at("/proj/docs/new.txt"), std::string("n")).reply.status, 0);
  ASSERT_EQ(admin("elem.checkin", at("/proj/docs/readme.txt"), std::string("read me 2\n")).reply.status, 0);
  EXPECT_EQ(lookup(view_, docsver, "new.txt").reply.status, TBS_ST_NOT_FOUND);
  Result old_name = lookup(view_, docsver, "readme.txt");
  EXPECT_EQ(decode_vstat(old_name.reply.find("Xdr_ObjMetadata")->body).vstat.fstat.size, 10u);  // the new bytes
  std::string newdocs = oid_of(lookup(view_, rootver, "docs"));
  EXPECT_NE(newdocs, docsver);
  EXPECT_EQ(lookup(view_, newdocs, "new.txt").reply.status, 0);
  EXPECT_EQ(names(gdc(view_, docsver)), (std::vector<std::string>{"readme.txt", "tool.sh"}));
  EXPECT_EQ(names(gdc(view_, newdocs)), (std::vector<std::string>{"new.txt", "readme.txt", "tool.sh"}));

  // Load-rule scopes are reported for objects at or below the rule.
  ASSERT_EQ(set_rules(view_, {"select * latest"}, {"load /proj/docs"}).reply.status, 0);
  tavrel_scope s2 = decode_scope(lookup(view_, docsver, "readme.txt").reply.find("Xdr_ObjScope")->body);
  EXPECT_EQ(s2.oid, tavrel_load_scope_oid("/proj/docs"));
  EXPECT_EQ(s2.gn, 1u);
}

TEST_F(ServerTest, CleartextGet) {
  std::string rootver = oid_of(root(view_));
  std::string a = oid_of(lookup(view_, rootver, "a.c"));
  // (A file's bytes, of every size, are fetched through the client in rpc_commands_reference_test.)
  // A directory version has empty bytes; a link its text; bad URLs 404.
  EXPECT_EQ(client().get("/cltxt/" + replica() + "/" + rootver + "/unix").reply.parts.at(0).body, "");
  std::string ln = oid_of(lookup(view_, rootver, "ln"));
  EXPECT_EQ(client().get("/cltxt/" + replica() + "/" + ln + "/unix").reply.parts.at(0).body, "docs/readme.txt");
  EXPECT_EQ(client().get("/cltxt/" + replica() + "/" + a).http, 404);
  EXPECT_EQ(client().get("/cltxt/zz/" + a + "/unix").http, 404);
  EXPECT_EQ(client().get("/cltxt/" + replica() + "/" + a + "/unix/extra").http, 404);
  EXPECT_EQ(client().get("/elsewhere").http, 404);
}

TEST_F(ServerTest, RuleEvaluationAcrossViews) {
  // History: a.c gets main/2 and a label on main/1, b.h a dev branch with its own version.
  ASSERT_EQ(admin("label.apply", at("/proj").add("Label", "REL1").add("Recursive", "1")).reply.status, 0);
  ASSERT_EQ(admin("elem.checkin", at("/proj/a.c"), std::string("int a2;\n")).reply.status, 0);
  ASSERT_EQ(admin("branch.make", at("/proj/b.h").add("Branch", "dev")).reply.status, 0);
  Result dv = admin("elem.checkin", at("/proj/b.h").add("Branch", "dev"), std::string("dev b\n"));
  ASSERT_EQ(dv.reply.parts.at(0).items.at("VersionString"), "main/dev/1");

  std::string v1 = view_, v2 = tbs_uuid_to_str(tbs_uuid_create()), v3 = tbs_uuid_to_str(tbs_uuid_create());
  ASSERT_EQ(set_rules(v2, {"select * label:REL1"}).reply.status, 0);
  ASSERT_EQ(set_rules(v3, {"select /proj/b.h latest@dev", "select /proj/docs/** none", "select * latest"}).reply.status,
            0);
  EXPECT_EQ(seen(v2, {"a.c"}), "int a;\n");
  EXPECT_EQ(seen(v3, {"a.c"}), "int a2;\n");
  EXPECT_EQ(seen(v3, {"b.h"}), "dev b\n");
  EXPECT_EQ(seen(v3, {"docs"}), "status " + std::to_string(TBS_ST_NO_SUCH_NAME));

  // A checkout in one view shows there only, with the checked-out flag.
  ASSERT_EQ(view_op("view.checkout", v1, at("/proj/a.c")).reply.status, 0);
  EXPECT_EQ(seen(v1, {"a.c"}), "int a2;\n+co");
  EXPECT_EQ(seen(v3, {"a.c"}), "int a2;\n");
  Result ci = view_op("view.checkin", v1, at("/proj/a.c"), std::string("int a3;\n"));
  ASSERT_EQ(ci.reply.status, 0) << ci.reply.message;
  EXPECT_EQ(ci.reply.parts.at(0).items.at("VersionString"), "main/3");
  EXPECT_EQ(ci.reply.parts.at(0).items.at("Selected"), "1");
  EXPECT_EQ(seen(v1, {"a.c"}), "int a3;\n");
  EXPECT_EQ(seen(v3, {"a.c"}), "int a3;\n");
  EXPECT_EQ(seen(v2, {"a.c"}), "int a;\n");
  // The served set follows what was sent: the checkout version first, then the checked-in version.
  Result dump = view_op("view.dump", v1, ArgText());
  EXPECT_NE(dump.reply.find("Text")->body.find("/proj/a.c main/3 "), std::string::npos) << dump.body;
}

TEST_F(ServerTest, ViewNamespaceChangesAndClientApi) {
  // Element creation needs the parent checked out in the view, and shows in that view only.
  EXPECT_EQ(view_op("view.mkelem", view_, at("/proj/new.c")).reply.status, TBS_ST_BAD_ARG);
  ASSERT_EQ(view_op("view.checkout", view_, at("/proj")).reply.status, 0);
  Result mk = view_op("view.mkelem", view_, at("/proj/new.c").add("Kind", "file"), std::string("new\n"));
  ASSERT_EQ(mk.reply.status, 0) << mk.reply.message;
  ASSERT_EQ(view_op("view.mkelem", view_, at("/proj/sub").add("Kind", "dir").add("Checkout", "1")).reply.status, 0);
  ASSERT_EQ(view_op("view.move", view_, ArgText().add("From", "/proj/b.h").add("To", "/proj/sub/b2.h")).reply.status, 0);
  ASSERT_EQ(view_op("view.rmname", view_, at("/proj/ln")).reply.status, 0);
  std::string other = tbs_uuid_to_str(tbs_uuid_create());
  EXPECT_EQ(names(gdc(view_, oid_of(root(view_)))), (std::vector<std::string>{"a.c", "docs", "new.c", "sub+co"}));
  EXPECT_EQ(names(gdc(other, oid_of(root(other)))), (std::vector<std::string>{"a.c", "b.h", "docs", "ln"}));
  EXPECT_EQ(seen(view_, {"sub", "b2.h"}), "#define B\n");

  // Check-in of the directories publishes the names to every view.
  ASSERT_EQ(view_op("view.checkin", view_, at("/proj/sub")).reply.status, 0);
  ASSERT_EQ(view_op("view.checkin", view_, at("/proj")).reply.status, 0);
  EXPECT_EQ(names(gdc(other, oid_of(root(other)))), (std::vector<std::string>{"a.c", "docs", "new.c", "sub"}));
  EXPECT_EQ(seen(other, {"new.c"}), "new\n");

  // Uncheckout drops a checkout; the dump shows the view's state; the admin endpoint needs the token.
  ASSERT_EQ(view_op("view.checkout", view_, at("/proj/a.c")).reply.status, 0);
  EXPECT_EQ(view_op("view.uncheckout", view_, at("/proj/a.c")).reply.status, 0);
  EXPECT_EQ(seen(view_, {"a.c"}), "int a;\n");
  Result dump = view_op("view.dump", view_, ArgText());
  EXPECT_NE(dump.reply.find("Text")->body.find("/proj/sub/b2.h"), std::string::npos);
  EXPECT_EQ(client().post("/admin", "silo.list", "").http, 401);
  EXPECT_EQ(client().post("/client", "silo.create", ArgText().add("Tag", "/x")).reply.status, TBS_ST_BAD_ARG);
  WanClient anon("127.0.0.1", port_);
  EXPECT_EQ(anon.post("/client", "view.dump", ArgText().add("ViewUuid", view_)).http, 401);

  // Global changes: mkdir -p, link, move, remove.
  EXPECT_EQ(admin("elem.mkfile", at("/proj/x/y/z.txt").add("Parents", "1"), std::string("z")).reply.status, 0);
  EXPECT_EQ(admin("elem.mkfile", at("/proj/x/y/z.txt"), std::string("z")).reply.status, TBS_ST_EXISTS);
  EXPECT_EQ(admin("elem.mklink", at("/proj/abs").add("Target", "/etc/passwd")).reply.status, 0);
  EXPECT_EQ(seen(other, {"abs"}), "/etc/passwd");  // a link's text is served as it is
  EXPECT_EQ(admin("elem.move", ArgText().add("From", "/proj/x").add("To", "/proj/x/y/q")).reply.status, TBS_ST_BAD_ARG);
  EXPECT_EQ(admin("elem.move", ArgText().add("From", "/proj/x/y/z.txt").add("To", "/proj/z.txt")).reply.status, 0);
  EXPECT_EQ(admin("elem.rmname", at("/proj/x")).reply.status, 0);
  EXPECT_EQ(seen(other, {"z.txt"}), "z");
  EXPECT_EQ(seen(other, {"x"}), "status " + std::to_string(TBS_ST_NOT_FOUND));
}

TEST_F(ServerTest, RestartKeepsStoreSessionsAndViews) {
  ASSERT_EQ(set_rules(view_, {"select *.h none", "select * latest"}).reply.status, 0);
  std::string rootver = oid_of(root(view_));
  std::string docs = oid_of(lookup(view_, rootver, "docs"));
  std::string j = client().jsession(), s = client().session();
  clients_.clear();
  srv_->stop();
  srv_.reset();
  start();
  client().set_cookies(j, s);
  // Same session, same rules, and the served set still knows where docs is.
  EXPECT_EQ(lookup(view_, rootver, "b.h").reply.status, TBS_ST_NO_SUCH_NAME);
  EXPECT_EQ(lookup(view_, docs, "readme.txt").reply.status, 0);
  Result cs = client().rpc(tavrel_wan::RPC_GET_CONFIG_SPEC, ArgText().add("ViewUuid", view_));
  EXPECT_EQ(cs.reply.find("CspecElementRules")->body, "select *.h none\nselect * latest\n");
}

TEST_F(ServerTest, BadInputGetsCleanErrorsAndLeavesStoreIntact) {
  // Refusals are a Status in an ordinary reply, never an HTTP error.
  struct {
    const char* rpc;
    std::string args;
    int32_t status;
  } cases[] = {
      {"Tavrel_Orlen::no_such_rpc", "", TBS_ST_BAD_ARG},
      {tavrel_wan::RPC_LOOKUP, "=novalue\n", TBS_ST_BAD_ARG},
      {tavrel_wan::RPC_LOOKUP, "ViewUuid=not-a-uuid\nLeafName=x\n", TBS_ST_BAD_ARG},
      {tavrel_wan::RPC_GET_CONFIG_SPEC, "ViewUuid=00000000-0000-0000-0000-000000000000\n", TBS_ST_BAD_ARG},
      {tavrel_wan::RPC_GET_CONFIG_SPEC, "ViewUuid=" + view_ + "\nFreezeLoadScopes=2\n", TBS_ST_BAD_ARG},
      {tavrel_wan::RPC_GET_METADATA, "ViewUuid=" + view_ + "\nSiloUuid=" + tbs_uuid_to_str(tbs_uuid_create()) + "\n",
       TBS_ST_NOT_FOUND},
      {tavrel_wan::RPC_GET_METADATA, "ViewUuid=" + view_ + "\nPathName=relative/path\n", TBS_ST_BAD_ARG},
      {tavrel_wan::RPC_GET_DIRECTORY_CONTENTS, "ViewUuid=" + view_ + "\nPathName=/proj/a.c\n", TBS_ST_BAD_ARG},
      {tavrel_wan::RPC_SET_CONFIG_SPEC, "ViewUuid=" + view_ + "\nElemRule=" + std::string(70000, 'x') + "\n", TBS_ST_BAD_ARG},
  };
  for (const auto& c : cases) {
    Result r = client().rpc(c.rpc, c.args);
    EXPECT_EQ(r.http, 200) << c.rpc << " " << c.args.substr(0, 80);
    ASSERT_TRUE(r.reply.ok) << r.reply.error;
    EXPECT_EQ(r.reply.status, c.status) << c.rpc << " " << c.args.substr(0, 80) << ": " << r.reply.message;
    EXPECT_TRUE(r.reply.parts.empty());
  }
  // A broken form body is 400.
  EXPECT_EQ(client().raw_post("", "garbage", "multipart/form-data; boundary=xyz").http, 400);
  // Nothing of the above changed the store.
  EXPECT_TRUE(store_sound());
  EXPECT_EQ(names(gdc(view_, oid_of(root(view_)))), (std::vector<std::string>{"a.c", "b.h", "docs", "ln"}));
}

TEST_F(ServerTest, FaultInjectionAndRequestLog) {
  replica();
  ASSERT_EQ(admin("log.clear", "").reply.status, 0);
  ArgText once = ArgText().add("Kind", "http_status").add("Value", "503");
  ASSERT_EQ(admin("fault.set", once.add("Match", tavrel_wan::RPC_GET_SILO_INFO)).reply.status, 0);
  EXPECT_EQ(client().rpc(tavrel_wan::RPC_GET_SILO_INFO, ArgText().add("SiloTag", "/proj")).http, 503);
  EXPECT_EQ(client().rpc(tavrel_wan::RPC_GET_SILO_INFO, ArgText().add("SiloTag", "/proj")).http, 200);  // one use

  ASSERT_EQ(admin("fault.set", ArgText().add("Kind", "status").add("Value", "1008")).reply.status, 0);
  EXPECT_EQ(root(view_).reply.status, TBS_ST_INTERNAL);
  ASSERT_EQ(admin("fault.set", ArgText().add("Kind", "delay_inside").add("Value", "50")).reply.status, 0);
  EXPECT_EQ(root(view_).reply.status, 0);
  ASSERT_EQ(admin("fault.set", ArgText().add("Kind", "refuse_login")).reply.status, 0);
  EXPECT_EQ(client(1).login("alice", "secret").http, 401);
  EXPECT_EQ(client(1).login("alice", "secret").reply.status, 0);
  EXPECT_EQ(admin("fault.set", ArgText().add("Kind", "bogus")).reply.status, TBS_ST_BAD_ARG);

  Result log = admin("log.get", "");
  const std::string& text = log.reply.find("Text")->body;
  // The request log shows each request with its RPC, HTTP status and Status code.
  EXPECT_NE(text.find("POST\t/tavrel\tTavrel_Orlen::getsiloinfo_rpc\t503\t1008"), std::string::npos) << text;
  EXPECT_NE(text.find("POST\t/tavrel\tTavrel_Orlen::getsiloinfo_rpc\t200\t0\tSiloTag=/proj\\n"), std::string::npos);
  EXPECT_EQ(text.find("secret"), std::string::npos);
  EXPECT_EQ(text.find("log.get"), std::string::npos);  // the log is read before its own request is added
}

TEST_F(ServerTest, ConcurrentViewsAreIsolatedAndSafe) {
  const int kThreads = 4, kRounds = 25;
  std::vector<std::string> views;
  for (int t = 0; t < kThreads; ++t) views.push_back(tbs_uuid_to_str(tbs_uuid_create()));
  replica();  // read once before the threads share it
  std::atomic<int> failures{0};
  // Every client is made before the threads start: client() grows the vector the threads read.
  for (int t = 0; t < kThreads; ++t) client(t + 1).login("alice", "secret");
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      // Even views hide *.h, odd views see everything; each re-sets its rules as it goes.
      std::vector<std::string> expect = t % 2 ? std::vector<std::string>{"a.c", "b.h", "docs", "ln"}
                                              : std::vector<std::string>{"a.c", "docs", "ln"};
      const size_t c = t + 1;
      for (int i = 0; i < kRounds; ++i) {
        Result sc = set_rules(views[t], {t % 2 ? "select *.zz none" : "select *.h none", "select * latest"}, {}, false, c);
        const ReplyPart* info = sc.reply.find("ViewInfo");  // each view counts its own rule changes
        if (!info || info->items.at("CurrentOperationGN") != std::to_string(i + 1)) ++failures;
        Result r = root(views[t], c);
        if (r.reply.status != 0) {
          ++failures;
          continue;
        }
        std::string rootver = oid_of(r);
        if (names(gdc(views[t], rootver, c)) != expect) ++failures;
        if (lookup(views[t], rootver, "b.h", c).reply.status != (t % 2 ? 0 : TBS_ST_NO_SUCH_NAME)) ++failures;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
}

TEST_F(ServerTest, LargeListingsStreamAndSurviveAClientThatLeaves) {
  fs::path gen = dir_ / "wide";
  for (int f = 0; f < 3000; ++f) write_file(gen / ("n" + std::to_string(100000 + f)), "x");
  const std::string import = ArgText().add("Tag", "/wide").add("Source", gen.string());
  Result imp = admin("silo.import", import);
  ASSERT_EQ(imp.reply.status, 0) << imp.reply.message;
  EXPECT_EQ(imp.reply.parts.at(0).items.at("Files"), "3000");
  EXPECT_EQ(admin("silo.import", import).reply.status, TBS_ST_EXISTS);
  const std::string args = ArgText().add("ViewUuid", view_).add("PathName", "/wide");
  Result all = client().rpc(tavrel_wan::RPC_GET_DIRECTORY_CONTENTS, args);
  ASSERT_TRUE(all.reply.ok) << all.reply.error;
  EXPECT_EQ(all.reply.status, 0);
  std::vector<std::string> n = names(all);
  ASSERT_EQ(n.size(), 3000u);
  EXPECT_TRUE(std::is_sorted(n.begin(), n.end()));
  EXPECT_EQ(decode_dirent(all.reply.parts[4 * 2999].body).off, 2u + 2999u);
  EXPECT_EQ(all.headers.find("Content-Length"), all.headers.end());  // sent in chunks

  // A client that reads the first bytes and hangs up releases the view: its next rule change and
  // listing go through, and the store stays sound.
  std::string body = "--B0\r\nContent-Disposition: form-data; name=\"rpc\"\r\n\r\n" +
                     std::string(tavrel_wan::RPC_GET_DIRECTORY_CONTENTS) +
                     "\r\n--B0\r\nContent-Disposition: form-data; name=\"rpcargs\"\r\n\r\n" + args + "\r\n--B0--\r\n";
  for (int round = 0; round < 3; ++round) {
    httplib::Client quitter("127.0.0.1", port_);
    httplib::Request req;
    req.method = "POST";
    req.path = "/tavrel";
    req.headers = {{"Cookie", "JSESSIONID=" + client().jsession() + ";Session=" + client().session()},
                   {"Content-Type", "multipart/form-data; boundary=B0"}};
    req.body = body;
    size_t seen = 0;
    req.content_receiver = [&](const char*, size_t len, uint64_t, uint64_t) {
      seen += len;
      return false;  // hang up after the first block
    };
    httplib::Response res;
    httplib::Error error = httplib::Error::Success;
    EXPECT_FALSE(quitter.send(req, res, error));
    EXPECT_GT(seen, 0u);
  }
  EXPECT_EQ(set_rules(view_, {"select /wide/n1000* none", "select * latest"}).reply.status, 0);
  Result after = client().rpc(tavrel_wan::RPC_GET_DIRECTORY_CONTENTS, args);
  EXPECT_EQ(names(after).size(), 2900u);  // n100000 to n100099 hidden
  EXPECT_TRUE(store_sound());
}

}  // namespace
