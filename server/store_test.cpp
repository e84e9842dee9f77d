#include "server/store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "server/importer.h"
#include "server/view_namespace.h"

using namespace tavrel_server;
namespace fs = std::filesystem;

namespace {

struct TempDir {
  fs::path path;
  TempDir() {
    char tmpl[] = "/tmp/tavrel_store_test_XXXXXX";
    path = ::mkdtemp(tmpl);
  }
  ~TempDir() { fs::remove_all(path); }
};

void write_file(const fs::path& p, const std::string& data, mode_t mode = 0644) {
  fs::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary) << data;
  ::chmod(p.c_str(), mode);
}

// A small tree with every kind of entry the importer meets.
void make_tree(const fs::path& root) {
  write_file(root / "a.txt", "alpha\n");
  write_file(root / "bin/run.sh", "#!/bin/sh\necho hi\n", 0755);
  write_file(root / "src/lib/x.c", "int x;\n");
  write_file(root / "src/lib/y.c", "int x;\n");  // same bytes: one content row
  write_file(root / "empty", "");
  fs::create_directories(root / "emptydir");
  fs::create_symlink("../a.txt", root / "src/link");
  fs::create_symlink("/etc/passwd", root / "abs");
  ::mkfifo((root / "fifo").c_str(), 0600);
}

// The status of the ServerError that `f` throws; 0 when it throws none.
template <class F>
int32_t error_of(F f) {
  try {
    f();
  } catch (const ServerError& e) {
    return e.code();
  }
  return 0;
}

ViewRow default_view() {
  ViewRow v;
  v.elem_rules = DEFAULT_ELEM_RULES;
  return v;
}

}  // namespace

TEST(Import, TreeBecomesSiloAndResolves) {
  TempDir t;
  make_tree(t.path / "src");
  Store store((t.path / "s.db").string());
  ImportStats st = import_tree(store, "/proj", (t.path / "src").string(), {});
  EXPECT_EQ(st.files, 5u);
  EXPECT_EQ(st.dirs, 4u);  // bin, src, src/lib, emptydir
  EXPECT_EQ(st.links, 2u);
  EXPECT_EQ(st.skipped, std::vector<std::string>{"/proj/fifo: not a file, directory or symbolic link"});

  store.read([&](Repo& r) {
    ViewNamespace ns(r, default_view());
    Node f = ns.resolve("/proj/bin/run.sh");
    EXPECT_EQ(f.ver.mode, 0755u);
    EXPECT_EQ(f.ver.vstr, "main/1");
    EXPECT_EQ(r.content_bytes(f.ver.content), "#!/bin/sh\necho hi\n");
    Node x = ns.resolve("/proj/src/lib/x.c"), y = ns.resolve("/proj/src/lib/y.c");
    EXPECT_EQ(x.ver.content, y.ver.content);
    EXPECT_NE(x.elem.oid, y.elem.oid);
    Node l = ns.resolve("/proj/src/link");
    EXPECT_TRUE(l.is_link);
    EXPECT_EQ(l.link.target, "../a.txt");
    EXPECT_EQ(ns.obj_vstat(l).vstat.mtype, SILO_MTYPE_SYMLINK);
    EXPECT_STREQ(ns.obj_vstat(l).path, "../a.txt");
    EXPECT_STREQ(ns.obj_vstat(ns.resolve("/proj/abs")).path, "/etc/passwd");  // link texts are kept as they are
    EXPECT_EQ(ns.resolve("/proj/empty").ver.size, 0u);
    Node d = ns.resolve("/proj/src/lib");
    EXPECT_EQ(ns.path_of(d.silo, d.ver), "/proj/src/lib");
    EXPECT_EQ(r.entries(d.ver.id).size(), 2u);
    EXPECT_EQ(error_of([&] { ns.resolve("/proj/nope"); }), TBS_ST_NOT_FOUND);
    EXPECT_EQ(error_of([&] { ns.resolve("/proj/../etc"); }), TBS_ST_BAD_ARG);
    return 0;
  });
}

TEST(Import, DuplicateTagFailsAndLeavesStoreUnchanged) {
  TempDir t;
  write_file(t.path / "src/f", "1");
  Store store((t.path / "s.db").string());
  import_tree(store, "/p", (t.path / "src").string(), {});
  write_file(t.path / "src/g", "2");
  EXPECT_EQ(error_of([&] { import_tree(store, "/p", (t.path / "src").string(), {}); }), TBS_ST_EXISTS);
  EXPECT_THROW(import_tree(store, "bad", (t.path / "src").string(), {}), ServerError);
  EXPECT_THROW(import_tree(store, "/q", (t.path / "missing").string(), {}), ServerError);
  int elements = store.read([](Repo& r) {
    auto s = r.db().stmt("SELECT count(*) FROM element");
    s.step();
    return int(s.i64(0));
  });
  EXPECT_EQ(elements, 2);  // root and f
}

TEST(Store, ReopenKeepsEverything) {
  TempDir t;
  write_file(t.path / "src/d/f", "data");
  std::string db = (t.path / "s.db").string();
  tbs_oid_s oid;
  {
    Store store(db);
    import_tree(store, "/p", (t.path / "src").string(), {});
    oid = store.read([](Repo& r) { return ViewNamespace(r, default_view()).resolve("/p/d/f").ver.oid; });
  }
  struct stat st;
  ASSERT_EQ(::stat(db.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);  // sessions live here: owner-only
  Store again(db);
  again.read([&](Repo& r) {
    auto v = r.version_by_oid(oid);
    EXPECT_TRUE(v.has_value());
    EXPECT_EQ(r.content_bytes(v->content), "data");
    return 0;
  });
}

TEST(Selection, RulesCheckoutsLabelsBranches) {
  TempDir t;
  write_file(t.path / "src/a.c", "v1");
  write_file(t.path / "src/b.h", "h1");
  Store store((t.path / "s.db").string());
  import_tree(store, "/p", (t.path / "src").string(), {});
  store.write([](Repo& r) {
    ViewNamespace head(r, default_view());
    Node a = head.resolve("/p/a.c");
    r.apply_label(a.elem.id, "REL1", a.ver.id);
    Version v2 = r.new_version(a.elem, *r.branch_by_name(a.elem.id, "main"), r.put_content("v2"), 2, 0644,
                               now_timeval());
    EXPECT_EQ(v2.vstr, "main/2");
    Branch dev = r.make_branch(a.elem.id, "dev", v2);
    Version d0 = r.new_version(a.elem, dev, r.put_content("dev0"), 4, 0644, now_timeval());
    EXPECT_EQ(d0.vstr, "main/dev/0");
  });
  auto selected = [&](const std::string& rules, const std::string& path, int64_t view_id = 0) -> std::string {
    return store.read([&](Repo& r) {
      ViewRow v;
      v.id = view_id;
      v.elem_rules = rules;
      ViewNamespace ns(r, v);
      try {
        Node n = ns.resolve(path);
        return n.ver.vstr + (n.checked_out ? "+co" : "");
      } catch (const ServerError& e) {
        return std::string("error ") + std::to_string(e.code());
      }
    });
  };
  EXPECT_EQ(selected("select * latest", "/p/a.c"), "main/2");
  EXPECT_EQ(selected("select *.c label:REL1\nselect * latest", "/p/a.c"), "main/1");
  EXPECT_EQ(selected("select *.c label:REL1\nselect * latest", "/p/b.h"), "main/1");
  EXPECT_EQ(selected("select * latest@dev\nselect * latest", "/p/a.c"), "main/dev/0");
  EXPECT_EQ(selected("select * latest@dev\nselect * latest", "/p/b.h"), "main/1");  // no dev branch: next rule
  EXPECT_EQ(selected("select /p/a.c version:main/1\nselect * latest", "/p/a.c"), "main/1");
  const std::string none = "error " + std::to_string(TBS_ST_NO_SUCH_NAME);
  EXPECT_EQ(selected("select *.h none\nselect * latest", "/p/b.h"), none);
  EXPECT_EQ(selected("select /p/*.c latest", "/p/a.c"), none);  // the root itself selects nothing

  // A checkout in one view wins over the rules there and nowhere else.
  int64_t v1 = store.write([](Repo& r) { return r.create_view(tbs_uuid_create(), "").id; });
  int64_t v2 = store.write([](Repo& r) { return r.create_view(tbs_uuid_create(), "").id; });
  store.write([&](Repo& r) {
    ViewRow vr;
    vr.id = v1;
    vr.elem_rules = DEFAULT_ELEM_RULES;
    Node a = ViewNamespace(r, vr).resolve("/p/a.c");
    Version co = r.new_checkout_version(a.elem, a.ver, v1, now_timeval());
    r.add_checkout(Checkout{v1, a.elem.id, co.id, a.ver.id});
  });
  EXPECT_EQ(selected("select * latest", "/p/a.c", v1), "main/checkout+co");
  EXPECT_EQ(selected("select * latest", "/p/a.c", v2), "main/2");
}
