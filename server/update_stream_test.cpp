#include "server/update_stream.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <set>

#include "server/importer.h"
#include "server/path_order.h"
#include "server/test_client.h"
#include "server/view_namespace.h"
#include "server/wan_server.h"

using namespace tavrel_server;
using namespace tavrel_test;
namespace fs = std::filesystem;

namespace {

const char* kToken = "admintoken";

// What an agent holds after applying streams: path -> element OID and version string.
struct Held {
  std::string elem, vstr;
};

class UpdateStreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/tavrel_update_test_XXXXXX";
    dir_ = ::mkdtemp(tmpl);
    fs::path src = dir_ / "tree" / "src";
    for (auto [p, data] : std::vector<std::pair<const char*, const char*>>{
             {"a.c", "int a;\n"}, {"b.h", "#define B\n"}, {"docs/readme.txt", "read me\n"}, {"docs/old/x.txt", "x\n"}}) {
      fs::create_directories((src / p).parent_path());
      std::ofstream(src / p) << data;
    }
    fs::create_symlink("a.c", src / "ln");
    {
      Store s((dir_ / "store.db").string());
      import_tree(s, "/proj", (dir_ / "tree").string(), {});
    }
    cfg_.store_path = (dir_ / "store.db").string();
    cfg_.open_login = true;
    cfg_.admin_token = kToken;
    cfg_.threads = 4;
    srv_ = std::make_unique<WanServer>(cfg_);
    ASSERT_GT(srv_->start(), 0);
    cl_ = std::make_unique<WanClient>("127.0.0.1", srv_->port());
    ASSERT_EQ(cl_->login("u", "p").reply.status, 0);
    view_ = tbs_uuid_to_str(tbs_uuid_create());
    replica_ = cl_->rpc(tavrel_wan::RPC_GET_SILO_INFO, ArgText().add("SiloTag", "/proj"))
                   .reply.parts.at(0)
                   .items.at("SiloReplicaUuid");
  }
  void TearDown() override {
    cl_.reset();
    srv_.reset();
    fs::remove_all(dir_);
  }

  void admin(const std::string& op, ArgText args, std::optional<std::string> data = std::nullopt) {
    Result r = cl_->post("/admin", op, args, {{"x-tavrel-admin-token", kToken}}, data);
    ASSERT_EQ(r.reply.status, 0) << op << ": " << r.reply.message;
  }
  void set_load(const std::vector<std::string>& load, const std::vector<std::string>& elem = {"select * latest"}) {
    ArgText a;
    a.add("ViewUuid", view_).add("NumElemRules", std::to_string(elem.size()));
    for (const auto& e : elem) a.add("ElemRule", e);
    a.add("NumLoadRules", std::to_string(load.size()));
    for (const auto& l : load) a.add("LoadRule", "load " + l);
    a.add("ForceUpdate", "1");
    ASSERT_EQ(cl_->rpc(tavrel_wan::RPC_SET_CONFIG_SPEC, a).reply.status, 0);
  }
  // On-demand: the root and a Lookup of `leaf` in it; both go into the agent model.
  void touch_root(const std::string& leaf) {
    Result r = cl_->rpc(tavrel_wan::RPC_GET_METADATA,
                        ArgText().add("ViewUuid", view_).add("SiloUuid", replica_).add("PathName", ""));
    ASSERT_EQ(r.reply.status, 0);
    tavrel_vstat root = decode_vstat(r.reply.find("Xdr_ObjMetadata")->body);
    held_["/proj"] = {tbs_oid_to_str(root.vstat.elem_oid), "main/1"};
    r = cl_->rpc(tavrel_wan::RPC_LOOKUP, ArgText()
                                             .add("ViewUuid", view_)
                                             .add("SiloUuid", replica_)
                                             .add("VersionOid", tbs_oid_to_str(root.vstat.obj_oid))
                                             .add("SiloPathName", "")
                                             .add("LeafName", leaf));
    ASSERT_EQ(r.reply.status, 0);
    held_["/proj/" + leaf] = {tbs_oid_to_str(decode_vstat(r.reply.find("Xdr_ObjMetadata")->body).vstat.elem_oid), "?"};
  }

  struct Scope {
    std::string path;
    int64_t gn;
  };
  // A scope update; returns the element events ("update <path> <prev>-><curr>", "unload <path>") and
  // checks the framing, the metadata after every update and that every parent is held first.
  std::vector<std::string> update(int64_t view_gn, const std::vector<Scope>& scopes, bool force = false,
                                  ParsedReply* whole = nullptr, WanClient* via = nullptr) {
    ArgText a;
    a.add("ViewUuid", view_).add("ViewGn", std::to_string(view_gn)).add("Force", force ? "1" : "0");
    a.add("Resume", "0").add("UpdateOndemandScopes", "1").add("UsePaths", "0");
    a.add("NumScopes", std::to_string(scopes.size() + 1));
    a.add("ScopePath", "Automatic").add("ScopeOid", tbs_oid_to_str(AUTOMATIC_LOAD_SCOPE_OID)).add("ScopeGn", "0");
    for (const auto& s : scopes)
      a.add("ScopePath", s.path).add("ScopeOid", tbs_oid_to_str(tavrel_load_scope_oid(s.path))).add("ScopeGn", std::to_string(s.gn));
    Result r = (via ? via : cl_.get())->rpc(tavrel_wan::RPC_SYNCFETCH, a);
    EXPECT_TRUE(r.reply.ok) << r.reply.error;
    EXPECT_EQ(r.reply.status, 0) << r.reply.message;
    if (whole) *whole = r.reply;
    return events(r.reply, true);
  }
  std::vector<std::string> surgical(const std::vector<std::string>& paths, ParsedReply* whole = nullptr) {
    ArgText a;
    a.add("ViewUuid", view_).add("ViewGn", "0").add("Force", "0").add("Resume", "0");
    a.add("UpdateOndemandScopes", "0").add("UsePaths", "1").add("NumScopes", std::to_string(paths.size()));
    for (const auto& p : paths) a.add("ScopePath", p);
    Result r = cl_->rpc(tavrel_wan::RPC_SYNCFETCH, a);
    EXPECT_EQ(r.reply.status, 0) << r.reply.message;
    if (whole) *whole = r.reply;
    return events(r.reply, false);
  }
  std::vector<std::string> events(const ParsedReply& reply, bool scopes) {
    std::vector<std::string> out;
    const auto& parts = reply.parts;
    EXPECT_FALSE(parts.empty());
    if (parts.empty()) return out;
    EXPECT_EQ(parts.front().id, "SyncFetchBegin");
    EXPECT_EQ(parts.back().id, "SyncFetchEnd");
    gn_ = std::stoll(parts.front().items.at("OperationGn"));
    int depth = 0;
    bool in_scope = false;
    std::set<std::string> unloaded;
    for (size_t i = 1; i + 1 < parts.size(); ++i) {
      const ReplyPart& p = parts[i];
      if (p.id == "SiloFetchBegin") {
        EXPECT_EQ(depth++, 0);
      }
      if (p.id == "SiloFetchEnd") {
        EXPECT_EQ(--depth, 0);
      }
      if (p.id == "ScopeFetchBegin") {
        EXPECT_TRUE(scopes);
        EXPECT_EQ(decode_scope(p.body).gn, uint32_t(gn_));
        in_scope = true;
      }
      if (p.id == "ScopeFetchEnd") in_scope = false;
      if (p.id != "SyncElemInfo") continue;
      tavrel_synceleminfo_t info;
      EXPECT_EQ(tavrel_synceleminfo_decode(&info, unsigned(p.body.size()), p.body.data()), 0);
      std::string path = info.object_path, parent = path.substr(0, path.rfind('/'));
      if (!tbs_oid_is_null(info.parent_oid)) {
        EXPECT_TRUE(held_.count(parent) && held_[parent].elem == tbs_oid_to_str(info.parent_oid))
            << "parent of " << path << " not held first";
      }
      if (info.curr_version_str[0] == 0) {
        EXPECT_FALSE(in_scope) << "unload inside a scope group";
        unloaded.insert(path);  // only marked: it goes when the stream ends
        out.push_back("unload " + path);
        continue;
      }
      EXPECT_EQ(parts.at(i + 1).id, "Xdr_ObjMetadata");
      EXPECT_EQ(parts.at(i + 2).id, "Xdr_ElemMetadata");
      tavrel_vstat obj = decode_vstat(parts.at(i + 1).body);
      EXPECT_EQ(obj.vstat.elem_oid, info.object_oid);
      held_[path] = {tbs_oid_to_str(info.object_oid), info.curr_version_str};
      unloaded.erase(path);
      out.push_back("update " + path + " " + info.prev_version_str + "->" + info.curr_version_str);
    }
    EXPECT_EQ(depth, 0);
    for (const auto& p : unloaded) held_.erase(p);
    return out;
  }
  // The subtree at `top` as the view selects it now, against what the agent model holds there.
  void expect_held_matches(const std::string& top) {
    std::map<std::string, Held> truth;
    srv_->store().read([&](Repo& r) {
      tbs_uuid_s uuid;
      tbs_str_to_uuid(view_, &uuid);
      ViewNamespace ns(r, *r.view_by_uuid(uuid));
      std::function<void(const Node&)> walk = [&](const Node& n) {
        truth[n.path] = {tbs_oid_to_str(n.is_link ? n.link.oid : n.elem.oid), n.is_link ? "link" : n.ver.vstr};
        if (n.is_link || n.elem.kind != KIND_DIR) return;
        for (const Entry& e : r.entries(n.ver.id))
          if (auto c = ns.entry_node(n.silo, n.elem, n.path, e)) walk(*c);
      };
      walk(ns.resolve(top));
    });
    std::map<std::string, Held> held;
    for (const auto& [p, h] : held_)
      if (p == top || p.rfind(top + "/", 0) == 0) held[p] = h;
    ASSERT_EQ(held.size(), truth.size());
    for (const auto& [p, h] : truth) {
      ASSERT_TRUE(held.count(p)) << p;
      EXPECT_EQ(held[p].elem, h.elem) << p;
      EXPECT_EQ(held[p].vstr, h.vstr) << p;
    }
  }

  // What the server holds as served to the view (once committed) names the elements the agent holds.
  void expect_served_matches_held() {
    srv_->store().read([&](Repo& r) {
      tbs_uuid_s uuid;
      tbs_str_to_uuid(view_, &uuid);
      for (const ServedRow& row : r.served(r.view_by_uuid(uuid)->id)) {
        ASSERT_TRUE(held_.count(row.path)) << row.path;
        EXPECT_EQ(tbs_oid_to_str(row.elem_oid), held_[row.path].elem) << row.path;
      }
    });
  }

  fs::path dir_;
  ServerConfig cfg_;
  std::unique_ptr<WanServer> srv_;
  std::unique_ptr<WanClient> cl_;
  std::string view_, replica_;
  std::map<std::string, Held> held_;
  int64_t gn_ = 0;
};

TEST(PathOrder, WalkOrder) {
  std::vector<std::string> sorted = {"/p", "/p/a", "/p/a/z", "/p/a-b", "/p/a.c", "/p/ab", "/q"};
  for (size_t i = 0; i < sorted.size(); ++i)
    for (size_t j = 0; j < sorted.size(); ++j)
      EXPECT_EQ(path_order_compare(sorted[i], sorted[j]) < 0, i < j) << sorted[i] << " vs " << sorted[j];
}

TEST_F(UpdateStreamTest, FirstLoadThenOneChangeOfEachKind) {
  struct Case {
    const char* name;
    std::function<void()> change;
    std::vector<std::string> expected;
  };
  auto data = [](const char* s) { return std::optional<std::string>(s); };
  std::vector<Case> cases = {
      {"new version", [&] { admin("elem.checkin", ArgText().add("Path", "/proj/src/a.c"), data("2")); },
       {"update /proj/src/a.c main/1->main/2"}},
      {"new name", [&] { admin("elem.mkfile", ArgText().add("Path", "/proj/src/docs/n.txt"), data("n")); },
       {"update /proj/src/docs main/1->main/2", "update /proj/src/docs/n.txt ->main/1"}},
      {"removed directory", [&] { admin("elem.rmname", ArgText().add("Path", "/proj/src/docs/old")); },
       {"unload /proj/src/docs/old", "unload /proj/src/docs/old/x.txt", "update /proj/src/docs main/2->main/3"}},
      {"rename", [&] { admin("elem.move", ArgText().add("From", "/proj/src/b.h").add("To", "/proj/src/c.h")); },
       {"unload /proj/src/b.h", "update /proj/src main/1->main/2", "update /proj/src/c.h ->main/1"}},
      {"directory replaced by a file",
       [&] {
         admin("elem.mkfile", ArgText().add("Path", "/proj/src/docs").add("Replace", "1"), data("now a file"));
       },
       {"unload /proj/src/docs/n.txt", "unload /proj/src/docs/readme.txt", "update /proj/src main/2->main/3",
        "update /proj/src/docs main/3->main/1"}},
      {"label moved",
       [&] {
         admin("elem.checkin", ArgText().add("Path", "/proj/src/a.c"), data("3"));
         admin("label.apply", ArgText().add("Path", "/proj/src/a.c").add("Label", "REL").add("Version", "main/3"));
       },
       {"update /proj/src/a.c main/1->main/3"}},
      {"combined: version, new name and removal",
       [&] {
         admin("elem.checkin", ArgText().add("Path", "/proj/src/c.h"), data("c2"));
         admin("elem.mkdir", ArgText().add("Path", "/proj/src/new/deep").add("Parents", "1"));
         admin("elem.rmname", ArgText().add("Path", "/proj/src/ln"));
       },
       {"unload /proj/src/ln", "update /proj/src main/3->main/5", "update /proj/src/c.h main/1->main/2",
        "update /proj/src/new ->main/2", "update /proj/src/new/deep ->main/1"}},
  };
  // The file a.c follows label REL, which starts on main/1; everything else takes the latest version.
  admin("label.apply", ArgText().add("Path", "/proj/src/a.c").add("Label", "REL").add("Version", "main/1"));
  set_load({"/proj/src"}, {"select /proj/src/a.c label:REL", "select * latest"});
  touch_root("src");
  std::vector<std::string> first = update(0, {{"/proj/src", 0}});
  EXPECT_EQ(first.size(), 9u);  // src, a.c, b.h, docs, docs/old, docs/old/x.txt, docs/readme.txt, ln + the root
  expect_held_matches("/proj/src");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (std::string(c.name) == "new version") {
      // a.c follows the label: a new version alone changes nothing for this view ...
      c.change();
      EXPECT_EQ(update(gn_, {{"/proj/src", gn_}}), std::vector<std::string>());
      set_load({"/proj/src"});  // ... until the view takes the latest versions
      EXPECT_EQ(update(gn_, {{"/proj/src", gn_}}), c.expected);
      set_load({"/proj/src"}, {"select /proj/src/a.c label:REL", "select * latest"});
      EXPECT_EQ(update(gn_, {{"/proj/src", gn_}}), std::vector<std::string>{"update /proj/src/a.c main/2->main/1"});
    } else {
      c.change();
      EXPECT_EQ(update(gn_, {{"/proj/src", gn_}}), c.expected);
    }
    expect_held_matches("/proj/src");
  }
}

TEST_F(UpdateStreamTest, UnfinishedStreamIsSentAgainForceAndGenerationZero) {
  set_load({"/proj/src"});
  touch_root("src");
  update(0, {{"/proj/src", 0}});
  int64_t done = gn_;
  admin("elem.checkin", ArgText().add("Path", "/proj/src/b.h"), std::string("b2"));
  std::vector<std::string> want = {"update /proj/src/b.h main/1->main/2"};
  EXPECT_EQ(update(done, {{"/proj/src", done}}), want);
  // The agent did not finish that stream: it names the old GN again and gets the same change.
  EXPECT_EQ(update(done, {{"/proj/src", done}}), want);
  int64_t applied = gn_;
  EXPECT_EQ(update(applied, {{"/proj/src", applied}}), std::vector<std::string>());
  // Force sends every name, unchanged ones too; GN 0 (a restored view) likewise, with no prior versions.
  std::vector<std::string> forced = update(gn_, {{"/proj/src", gn_}}, true);
  EXPECT_EQ(forced.size(), 9u);
  EXPECT_EQ(forced.front(), "update /proj main/1->main/1");
  held_.clear();
  std::vector<std::string> fresh = update(0, {{"/proj/src", 0}});
  EXPECT_EQ(fresh, std::vector<std::string>({"update /proj ->main/1", "update /proj/src ->main/1",
                                              "update /proj/src/a.c ->main/1", "update /proj/src/b.h ->main/2",
                                              "update /proj/src/docs ->main/1", "update /proj/src/docs/old ->main/1",
                                              "update /proj/src/docs/old/x.txt ->main/1",
                                              "update /proj/src/docs/readme.txt ->main/1", "update /proj/src/ln ->link"}));
  expect_held_matches("/proj/src");
}

TEST_F(UpdateStreamTest, AutomaticScopeUpdatesAndUnloadsWhatWasServed) {
  touch_root("src");  // no load rules: everything is on demand
  ParsedReply whole;
  update(0, {}, false, &whole);
  std::vector<std::string> ids;
  for (const auto& p : whole.parts) ids.push_back(p.id);
  EXPECT_EQ(ids, std::vector<std::string>({"SyncFetchBegin", "SiloFetchBegin", "ScopeFetchBegin", "SyncElemInfo",
                                           "Xdr_ObjMetadata", "Xdr_ElemMetadata", "SyncElemInfo", "Xdr_ObjMetadata",
                                           "Xdr_ElemMetadata", "ScopeFetchEnd", "SiloFetchEnd", "SyncFetchEnd"}));
  admin("elem.mkfile", ArgText().add("Path", "/proj/src/z"), std::string("z"));
  EXPECT_EQ(update(gn_, {}), std::vector<std::string>{"update /proj/src main/1->main/2"});
  admin("elem.move", ArgText().add("From", "/proj/src").add("To", "/proj/src2"));
  EXPECT_EQ(update(gn_, {}), std::vector<std::string>({"unload /proj/src", "update /proj main/1->main/2"}));
  // The name comes back and the agent looks it up before that stream is committed: the pending unload
  // must not drop it from what the view holds, or its next change would never be sent.
  admin("elem.move", ArgText().add("From", "/proj/src2").add("To", "/proj/src"));
  touch_root("src");
  update(gn_, {});
  admin("elem.mkfile", ArgText().add("Path", "/proj/src/y"), std::string("y"));
  std::vector<std::string> after = update(gn_, {});
  EXPECT_NE(std::find(after.begin(), after.end(), "update /proj/src main/2->main/3"), after.end())
      << testing::PrintToString(after);
  // Another element under a name the view holds: once that stream is committed, the served set names it.
  admin("elem.mkfile", ArgText().add("Path", "/proj/src").add("Replace", "1"), std::string("now a file"));
  EXPECT_EQ(update(gn_, {}), std::vector<std::string>({"update /proj main/3->main/4", "update /proj/src main/3->main/1"}));
  update(gn_, {});
  expect_served_matches_held();
  // A load rule whose path is gone, and a scope with an unknown tag, are still answered (empty groups).
  update(gn_, {{"/proj/src", 0}, {"/nosuch/x", 0}}, false, &whole);
  int groups = 0;
  for (const auto& p : whole.parts) groups += p.id == "ScopeFetchBegin";
  EXPECT_EQ(groups, 3);
}

// More names than one page of the store: the committed state is read back page by page.
TEST_F(UpdateStreamTest, DiffAcrossManyPages) {
  fs::path big = dir_ / "big" / "all";
  fs::create_directories(big);
  for (int i = 0; i < 2600; ++i) std::ofstream(big / ("f" + std::to_string(10000 + i))) << i;
  import_tree(srv_->store(), "/big", (dir_ / "big").string(), {});
  set_load({"/big/all"});
  Result root = cl_->rpc(tavrel_wan::RPC_GET_METADATA, ArgText().add("ViewUuid", view_).add("PathName", "/big"));
  held_["/big"] = {tbs_oid_to_str(decode_vstat(root.reply.find("Xdr_ObjMetadata")->body).vstat.elem_oid), "main/1"};
  EXPECT_EQ(update(0, {{"/big/all", 0}}).size(), 2602u);  // the root (served on demand) and the load rule
  admin("elem.checkin", ArgText().add("Path", "/big/all/f10000"), std::string("first"));
  admin("elem.checkin", ArgText().add("Path", "/big/all/f12599"), std::string("last"));
  EXPECT_EQ(update(gn_, {{"/big/all", gn_}}), std::vector<std::string>({"update /big/all/f10000 main/1->main/2",
                                                                        "update /big/all/f12599 main/1->main/2"}));
  EXPECT_EQ(update(gn_, {{"/big/all", gn_}}), std::vector<std::string>());
}

// A full stream of the automatic scope sends the names it finds unchanged as the served set holds
// them, merged in path order with what changed, across many pieces of the reply; names served before a
// load rule took them go with the rule's scope, once.
TEST_F(UpdateStreamTest, FullAutomaticStreamAcrossPages) {
  fs::path big = dir_ / "big";
  for (const char* d : {"a", "b"}) {
    fs::create_directories(big / d);
    for (int i = 0; i < 300; ++i) std::ofstream(big / d / ("f" + std::to_string(10000 + i))) << i;
  }
  fs::create_symlink("f10000", big / "a" / "ln");
  import_tree(srv_->store(), "/big", big.string(), {});
  std::vector<std::string> names = {"/big", "/big/a", "/big/b", "/big/a/ln"};
  for (const char* d : {"a", "b"})
    for (int i = 0; i < 300; ++i) names.push_back("/big/" + std::string(d) + "/f" + std::to_string(10000 + i));
  for (const std::string& p : names)
    ASSERT_EQ(cl_->rpc(tavrel_wan::RPC_GET_METADATA, ArgText().add("ViewUuid", view_).add("PathName", p)).reply.status, 0);
  admin("elem.checkin", ArgText().add("Path", "/big/a/f10005"), std::string("new"));
  admin("elem.rmname", ArgText().add("Path", "/big/a/f10007"));
  set_load({"/big/b"});
  for (bool force : {false, true}) {
    SCOPED_TRACE(force ? "Force" : "first load");
    std::vector<std::string> got = update(force ? gn_ : 0, {{"/big/b", force ? gn_ : 0}}, force);
    EXPECT_EQ(got.size(), names.size() - 1);
    EXPECT_EQ(std::set<std::string>(got.begin(), got.end()).size(), got.size());
    std::string v2 = force ? "main/2->main/2" : "->main/2";
    EXPECT_NE(std::find(got.begin(), got.end(), "update /big/a/f10005 " + v2), got.end());
    EXPECT_NE(std::find(got.begin(), got.end(), "update /big/a/ln " + std::string(force ? "link->link" : "->link")), got.end());
    expect_held_matches("/big");
  }
  EXPECT_EQ(update(gn_, {{"/big/b", gn_}}), std::vector<std::string>());
}

// Streams that follow the change log must say exactly what a diff of the whole walk says. A second
// server on the same store always walks; after each round of random changes (new versions and names,
// removals, moves, a directory replaced by a file, label moves, checkouts in the view, names met on
// demand) both are asked for the same update from the same committed state. Rounds commit the walk's
// stream, the delta's stream, or nothing (an update the agent did not finish).
TEST_F(UpdateStreamTest, DeltaAgreesWithTheWhole) {
  ServerConfig walk_cfg = cfg_;
  walk_cfg.update_deltas = false;
  WanServer walker(walk_cfg);
  ASSERT_GT(walker.start(), 0);
  WanClient wcl("127.0.0.1", walker.port());
  ASSERT_EQ(wcl.login("u", "p").reply.status, 0);
  std::mt19937 rng(7);
  auto pick = [&](const std::vector<std::string>& v) { return v[rng() % v.size()]; };
  // The agent meets a name on demand: it joins the automatic scope.
  auto meet = [&](const std::string& p) {
    Result r = cl_->rpc(tavrel_wan::RPC_GET_METADATA, ArgText().add("ViewUuid", view_).add("PathName", p));
    if (r.reply.status != 0) return false;
    held_[p] = {tbs_oid_to_str(decode_vstat(r.reply.find("Xdr_ObjMetadata")->body).vstat.elem_oid), "?"};
    return true;
  };
  // A random change may name what an earlier one of the round removed: it then fails, as it should.
  auto change = [&](const std::string& op, ArgText args, std::optional<std::string> data = std::nullopt) {
    cl_->post("/admin", op, args, {{"x-tavrel-admin-token", kToken}}, data);
  };
  // Every name as "select * latest" sees it (what the admin operations act on): files and directories.
  auto tree = [&](std::vector<std::string>* files, std::vector<std::string>* dirs) {
    srv_->store().read([&](Repo& r) {
      ViewRow latest;
      latest.elem_rules = "select * latest";
      ViewNamespace ns(r, latest);
      std::function<void(const Node&)> walk = [&](const Node& n) {
        if (n.is_link) return;
        (n.elem.kind == KIND_DIR ? dirs : files)->push_back(n.path);
        if (n.elem.kind != KIND_DIR) return;
        for (const Entry& e : r.entries(n.ver.id))
          if (auto c = ns.entry_node(n.silo, n.elem, n.path, e)) walk(*c);
      };
      walk(ns.resolve("/proj"));
    });
  };
  for (int i = 0; i < 12; ++i)
    admin("elem.mkfile", ArgText().add("Path", "/proj/lib/d" + std::to_string(i % 3) + "/f" + std::to_string(i)).add("Parents", "1"),
          std::string("f"));
  for (int i = 0; i < 6; ++i)
    admin("elem.mkfile", ArgText().add("Path", "/proj/src/docs/g" + std::to_string(i)), std::string("g"));
  admin("label.apply", ArgText().add("Path", "/proj/lib").add("Label", "REL").add("Recursive", "1"));
  set_load({"/proj/src/docs"}, {"select /proj/lib/** label:REL", "select * latest"});
  const std::string rule = "/proj/src/docs";
  touch_root("src");
  for (const char* p : {"/proj/lib", "/proj/lib/d0", "/proj/lib/d1", "/proj/lib/d2"}) meet(p);
  for (int i = 0; i < 12; ++i) meet("/proj/lib/d" + std::to_string(i % 3) + "/f" + std::to_string(i));
  int64_t committed = 0, scope_gn = 0;
  int name_no = 0;
  for (int round = 0; round < 60; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    std::vector<std::string> files, dirs, lib;
    tree(&files, &dirs);
    for (const std::string& f : files)
      if (f.rfind("/proj/lib/d", 0) == 0 && f.find("/f", 11) != std::string::npos) lib.push_back(f);  // the first 12
    for (int k = 0, n = 1 + int(rng() % 4); k < n && round > 0; ++k) {
      std::string f = files.empty() ? "" : pick(files), d = pick(dirs), fresh = "n" + std::to_string(name_no++);
      switch (rng() % 9) {
        case 0:
          if (!f.empty()) change("elem.checkin", ArgText().add("Path", f), std::string("v") + fresh);
          break;
        case 1:
          if (!lib.empty()) change("elem.checkin", ArgText().add("Path", pick(lib)), std::string("v") + fresh);
          break;
        case 2:
          change("elem.mkfile", ArgText().add("Path", d + "/" + fresh), std::string("new"));
          break;
        case 3:
          change("elem.mkdir", ArgText().add("Path", d + "/" + fresh + "/sub").add("Parents", "1"));
          break;
        case 4:
          if (d != "/proj" && d != "/proj/src" && d != "/proj/lib") change("elem.rmname", ArgText().add("Path", rng() % 2 || f.empty() ? d : f));
          break;
        case 5:
          if (!f.empty()) change("elem.move", ArgText().add("From", f).add("To", d + "/" + fresh));
          break;
        case 6:
          if (d != "/proj" && d != "/proj/src" && d != "/proj/lib")
            change("elem.mkfile", ArgText().add("Path", d).add("Replace", "1"), std::string("was a directory"));
          break;
        case 7:
          if (!lib.empty()) {  // the label moves between a file's first and latest versions
            ArgText a = ArgText().add("Path", pick(lib)).add("Label", "REL");
            if (rng() % 2) a.add("Version", "main/1");
            change("label.apply", a);
          }
          break;
        case 8:
          if (!f.empty()) {
            Result r = cl_->post("/admin", "view.checkout", ArgText().add("ViewUuid", view_).add("Path", f),
                                 {{"x-tavrel-admin-token", kToken}}, std::nullopt);
            if (r.reply.status != 0) change("view.uncheckout", ArgText().add("ViewUuid", view_).add("Path", f));
          }
          break;
      }
    }
    // The agent meets some names (and the directories above them).
    files.clear();
    dirs.clear();
    tree(&files, &dirs);
    for (int k = 0; k < 6; ++k) {
      std::string p = pick(rng() % 2 ? files : dirs);
      if (p.rfind(rule, 0) == 0) continue;
      for (size_t at = p.find('/', 1);; at = p.find('/', at + 1)) {
        if (!meet(p.substr(0, at))) break;  // not visible to this view
        if (at == std::string::npos) break;
      }
    }
    std::map<std::string, Held> before = held_;
    std::vector<std::string> delta = update(committed, {{rule, scope_gn}});
    int64_t delta_gn = gn_;
    held_ = before;
    std::vector<std::string> whole = update(committed, {{rule, scope_gn}}, false, nullptr, &wcl);
    ASSERT_EQ(delta, whole);
    if (round % 5 != 4) {
      committed = round % 2 ? delta_gn : gn_;
      scope_gn = committed;
    } else {
      held_ = before;  // not applied: the next round's streams carry it again
    }
    if (round % 10 == 7 && std::find(dirs.begin(), dirs.end(), rule) != dirs.end()) expect_held_matches(rule);
  }
}

TEST_F(UpdateStreamTest, SurgicalPaths) {
  touch_root("src");
  ParsedReply whole;
  // A file, a directory (itself and its entries), a missing path and the SILO root (entries only); a
  // full view path is cut at its tag.
  std::vector<std::string> ev = surgical({"/proj/src/a.c", "/view/v1/proj/src/docs", "/proj/nothing", "/proj"}, &whole);
  EXPECT_EQ(ev, std::vector<std::string>({"update /proj/src/a.c ->main/1", "update /proj/src/docs ->main/1",
                                          "update /proj/src/docs/old ->main/1", "update /proj/src/docs/readme.txt ->main/1",
                                          "update /proj/src main/1->main/1"}));
  for (const auto& p : whole.parts) EXPECT_NE(p.id, "ScopeFetchBegin");
  // The surgical reply does not move the view's GN.
  int64_t before = gn_;
  surgical({"/proj/src"});
  EXPECT_EQ(gn_, before);
}

}  // namespace
