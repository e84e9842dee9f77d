// The view object: creation and its refusals, half-made storages, storage faults at start, the
// metadata file, the cleartext cache directory, the view lock between processes, the kernel seams, the
// view root and the update gate.
#include "core/tavrel_view.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "base/fileutl.h"
#include "base/server.h"
#include "base/sysutl.h"
#include "core/tavrel_msg_table.h"
#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_view_storage.h"
#include "proto/view_storage_names.h"

namespace {

const char* kUuid = "6f1c2d3e-4a5b-4c6d-8e7f-001122334455";
const char* kUrl = "https://server.example/tavrel";

// What the seams saw ("cache,db,gn,vns,register," in call order), and what they answer.
struct Fake {
  std::string calls;
  int cache_init_rc = 0, set_size_rc = 0, start_db_rc = 0, get_gn_rc = 0, create_vns_rc = 0;
  int register_rc = 0, unregister_rc = 0, kfsm_root_rc = 0, closed_db = 0;
  unsigned last_size = 0, gn = 0;
  bool last_enforce = false;
  std::string unregistered_tag, kfsm_root = "/view", url = kUrl;
};
Fake g_fake;
char g_db_token;
Tavrel_View_db* const kDb = reinterpret_cast<Tavrel_View_db*>(&g_db_token);

int called(const char* step, int rc) {
  g_fake.calls += step;
  return rc;
}

Tavrel_View_Hooks fake_hooks() {
  Tavrel_View_Hooks h;
  h.cache_init = [] { return called("cache,", g_fake.cache_init_rc); };
  h.cache_set_size = [](unsigned size, bool enforce) {
    g_fake.last_enforce = enforce;
    if (!enforce && size != 0 && size < Tavrel_View::MIN_CACHE_SIZE) return static_cast<int>(TBS_ST_BAD_ARG);
    if (g_fake.set_size_rc == 0) g_fake.last_size = size;
    return g_fake.set_size_rc;
  };
  h.start_db = [](const std::string&, const std::string&, Tavrel_View_db** db) {
    *db = kDb;
    return called("db,", g_fake.start_db_rc);
  };
  h.close_db = [](Tavrel_View_db* db) { g_fake.closed_db += db == kDb; };
  h.db_get_vns_view_gn = [](unsigned* gn) {
    *gn = g_fake.gn;
    return called("gn,", g_fake.get_gn_rc);
  };
  h.db_create_vns_view = [](const tbs_uuid_s&, unsigned) { return called("vns,", g_fake.create_vns_rc); };
  h.register_view = [](Tavrel_View*) { return called("register,", g_fake.register_rc); };
  h.unregister_view = [](Tavrel_View* v) {
    g_fake.unregistered_tag = v->get_server_tag();
    return g_fake.unregister_rc;
  };
  h.get_kfsm_root = [](std::string* root) {
    if (g_fake.kfsm_root_rc == 0) *root = g_fake.kfsm_root;
    return g_fake.kfsm_root_rc;
  };
  h.server_url = [] { return g_fake.url; };
  return h;
}

std::string read_text(const std::string& path) {
  std::string s;
  return fileutl_read_file(path, &s, 1 << 20) == 0 ? s : "<unreadable>";
}

mode_t mode_of(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

template <typename... A>
std::string msg(int number, A... args) {
  return imsg_format(&_tvr_lib_lib_msg_table, number, args...);
}

// Runs `fn` in a child process and returns its pid; the child exits when `fn` returns.
template <typename F>
pid_t run_child(F fn) {
  pid_t pid = fork();
  if (pid == 0) {
    fn();
    _exit(0);
  }
  return pid;
}

int exit_code(pid_t pid) {
  int ws = 0;
  waitpid(pid, &ws, 0);
  return WIFEXITED(ws) ? WEXITSTATUS(ws) : -1;
}

// One step of laying out files for a case: what to make (or remove) at `path`.
enum Kind { kDir, kFile, kLink, kFifo, kRemove, kForeign };
struct Lay {
  Kind kind;
  std::string path;
  std::string arg = "";  // kFile: the text; kLink: the target
};

void lay(const std::vector<Lay>& steps) {
  for (const Lay& s : steps) {
    if (s.kind != kRemove && s.kind != kForeign) fileutl_mkpath(s.kind == kDir ? s.path : fileutl_strip_leaf(s.path), 0700);
    switch (s.kind) {
      case kDir: break;
      case kFile: ASSERT_EQ(fileutl_write_atomic(s.path, s.arg, 0600), 0) << s.path; break;
      case kLink: ASSERT_EQ(symlink(s.arg.c_str(), s.path.c_str()), 0) << s.path; break;
      case kFifo: ASSERT_EQ(mkfifo(s.path.c_str(), 0600), 0) << s.path; break;
      case kRemove: Tavrel_View_Storage::remove_tree(s.path); break;
      case kForeign: ASSERT_EQ(chown(s.path.c_str(), 54321, 54321), 0) << s.path; break;
    }
  }
}

class ViewTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/tavrel_view_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    m_root = tmpl;
    m_stg = m_root + "/views/v1.vws";
    m_cache = m_root + "/cache";
    m_meta = m_stg + "/" + VIEW_STG_METADATA;
    m_pid = m_stg + "/" + VIEW_STG_LOCK;
    m_host = m_stg + "/" + VIEW_STG_HOSTNAME;
    g_fake = Fake();
    Tavrel_View::install_hooks(fake_hooks());
    Tavrel_View::reset_for_test();
  }
  void TearDown() override {
    Tavrel_View::install_hooks(Tavrel_View_Hooks());
    Tavrel_View::reset_for_test();
    Tavrel_View_Storage::remove_tree(m_root);
  }

  Tavrel_View* new_view(const std::string& tag = "v1", const std::string& uuid = kUuid,
                        const std::string& mode = "unix", const std::string& type = "auto") {
    return Tavrel_View::get_view_from_list(uuid, tag, mode, type, m_cache, m_stg, 1);
  }
  // A created view whose object is gone (its lock released), as after an agent that ended.
  void make_view() {
    std::unique_ptr<Tavrel_View> v(new_view());
    ASSERT_EQ(v->create(), 0) << v->get_status_message();
    g_fake = Fake();
  }
  std::unique_ptr<Tavrel_View> started(const std::string& stg = "") {
    std::unique_ptr<Tavrel_View> v(Tavrel_View::get_view_from_stg(stg.empty() ? m_stg : stg));
    m_start_rc = v->start();
    return v;
  }
  static std::string pid_line(pid_t pid = getpid()) { return std::to_string(pid) + "\n"; }

  std::string m_root, m_stg, m_cache, m_meta, m_pid, m_host;
  int m_start_rc = -1;
};

// ---------------------------------------------------------------------------------------------------
// Creation

TEST_F(ViewTest, CreateMakesTheStorageAndRunsTheSequenceInOrder) {
  std::unique_ptr<Tavrel_View> v(new_view());
  Tavrel_View::set_current_gn(9, true);
  ASSERT_EQ(v->create(), 0) << v->get_status_message();
  EXPECT_EQ(g_fake.calls, "cache,db,vns,register,");
  EXPECT_EQ(Tavrel_View::get_current_gn(), 0u);
  EXPECT_EQ(mode_of(m_stg), 0700u);
  EXPECT_EQ(read_text(m_meta), std::string("versionid=1.0\nview-uuid=") + kUuid +
                                   "\nserver-tag=v1\ntext-mode=unix\nview-type=auto\npreserve-silo-modified-time=true\n"
                                   "server-url=" + kUrl + "\ncltxt-cache-dir=" + m_cache + "\ncache-size=0\n");
  EXPECT_EQ(mode_of(m_meta), 0600u);
  EXPECT_EQ(read_text(m_host), std::string(sysutl_myhostname()) + "\n");
  EXPECT_EQ(read_text(m_pid), pid_line());
  EXPECT_TRUE(v->holds_lock());
  EXPECT_EQ(mode_of(m_cache), 0700u);
  v.reset();
  EXPECT_EQ(g_fake.closed_db, 1);
  EXPECT_EQ(server_lock_holder(m_pid), 0) << "the lock goes with the object";
}

TEST_F(ViewTest, CreateRefusesWhatAlreadyExistsAndTouchesNothing) {
  const std::string notes = m_stg + "/notes.txt";
  const std::vector<Lay> cases[] = {
      {{kFile, m_meta, "server-tag=old\n"}},  // a view
      {{kLink, m_stg, "/tmp"}},
      {{kFile, notes, "keep me"}},  // a directory with a stranger's file
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c[0].path + " " + c[0].arg);
    Tavrel_View_Storage::remove_tree(m_root + "/views");
    lay(c);
    std::unique_ptr<Tavrel_View> v(new_view());
    EXPECT_EQ(v->create(), TAVREL_ST_STORAGE_EXISTS);
    EXPECT_EQ(v->get_status_message(), msg(TVR_LIB_VIEW_EXISTS, m_stg.c_str()));
    EXPECT_FALSE(v->holds_lock());
    EXPECT_EQ(g_fake.calls, "");
    // A failed MkView cleans up after itself, but never a storage it did not make.
    v->cleanup_storage();
    EXPECT_NE(mode_of(m_stg), 0u);
    if (c[0].kind == kFile) {
      EXPECT_EQ(read_text(c[0].path), c[0].arg);
    }
    EXPECT_FALSE(fileutl_exists(m_cache)) << "nothing made before the refusal";
  }
}

TEST_F(ViewTest, IdentityIsCheckedByTheStartNotByTheCreation) {
  // The messages of the server tag, the text mode and the view type replace what came before them;
  // those of the uuid and the URL are appended.
  const std::string stg = m_stg;
  const struct {
    const char *tag, *uuid, *mode, *type, *url;
    std::string message;
  } cases[] = {
      {"v1", "00000000-0000-0000-0000-000000000000", "unix", "auto", kUrl,
       msg(TVR_LIB_BAD_VIEW_UUID, "00000000-0000-0000-0000-000000000000", stg.c_str())},
      {"v1", "", "unix", "auto", kUrl, msg(TVR_LIB_NO_VIEW_UUID, stg.c_str())},
      {"v1", kUuid, "ebcdic", "auto", kUrl, msg(TVR_LIB_NO_TEXT_MODE, stg.c_str())},
      {"v1", kUuid, "unix", "auto", "", msg(TVR_LIB_BAD_SERVER_INFO, stg.c_str())},
      {"", "", "", "auto", "", msg(TVR_LIB_NO_TEXT_MODE, stg.c_str()) + msg(TVR_LIB_NO_VIEW_UUID, stg.c_str()) +
                                   msg(TVR_LIB_BAD_SERVER_INFO, stg.c_str())},
      {"", "", "unix", "", "", msg(TVR_LIB_NO_VIEW_TYPE, stg.c_str())},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.tag) + "|" + c.uuid + "|" + c.mode + "|" + c.type + "|" + c.url);
    g_fake.url = c.url;
    std::unique_ptr<Tavrel_View> v(new_view(c.tag, c.uuid, c.mode, c.type));
    EXPECT_FALSE(v->is_valid());
    EXPECT_EQ(v->get_status_message(), c.message);
  }
  // A view made offline without a URL and with a text mode no start accepts is made all the same; its
  // start refuses it (20009) and names what is missing.
  g_fake.url = "";
  std::unique_ptr<Tavrel_View> odd(new_view("v1", kUuid, "ebcdic"));
  ASSERT_EQ(odd->create(), 0) << odd->get_status_message();
  odd.reset();
  auto refused = started();
  EXPECT_EQ(m_start_rc, TAVREL_ST_VIEW_IDENTITY);
  EXPECT_EQ(refused->get_status_message(), msg(TVR_LIB_NO_TEXT_MODE, stg.c_str()) + msg(TVR_LIB_BAD_SERVER_INFO, stg.c_str()));
  refused.reset();
  // A uuid that does not convert can name no view: creation fails at the view's namespace record.
  Tavrel_View_Storage::remove_tree(m_root);
  g_fake = Fake();
  std::unique_ptr<Tavrel_View> bad(new_view("v1", "not-a-uuid"));
  EXPECT_EQ(bad->create(), TAVREL_ST_FAILURE);
  EXPECT_EQ(g_fake.calls.find("vns,"), std::string::npos);
  bad->cleanup_storage();
  const std::pair<const char*, const char*> modes[] = {{"unix", "unix"}, {" UNIX ", "unix"}, {"MsDos", "msdos"}, {"unix2", ""}};
  for (auto [given, canonical] : modes) {
    std::unique_ptr<Tavrel_View> v(new_view("v1", kUuid, given));
    EXPECT_EQ(v->get_view_textmode(), canonical) << given;
  }
}

TEST_F(ViewTest, ASeamFailureStopsCreationAndCleanupRemovesWhatCreationMade) {
  const struct {
    int Fake::*rc;
    int value, status;
    const char* calls;
    std::string message;
  } cases[] = {
      {&Fake::cache_init_rc, TBS_ST_INTERNAL, TAVREL_ST_CACHE_START, "cache,", ""},
      {&Fake::start_db_rc, TBS_ST_DB_RELOAD_NEEDED, TAVREL_ST_CACHE_START, "cache,db,",
       msg(TVR_LIB_DB_INIT, TBS_ST_DB_RELOAD_NEEDED)},
      {&Fake::create_vns_rc, TBS_ST_INTERNAL, TAVREL_ST_FAILURE, "cache,db,vns,", ""},
      {&Fake::register_rc, TBS_ST_INTERNAL, TAVREL_ST_FAILURE, "cache,db,vns,register,", ""},
      {&Fake::register_rc, TBS_ST_NOT_FOUND, TAVREL_ST_NOT_FOUND, "cache,db,vns,register,", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.calls);
    g_fake = Fake();
    g_fake.*c.rc = c.value;
    std::unique_ptr<Tavrel_View> v(new_view());
    EXPECT_EQ(v->create(), c.status);
    EXPECT_EQ(g_fake.calls, c.calls);
    EXPECT_EQ(v->get_status_message(), c.message);
    EXPECT_TRUE(fileutl_exists(m_meta));
    v->cleanup_storage();
    EXPECT_FALSE(fileutl_exists(m_stg));
    EXPECT_FALSE(fileutl_exists(m_cache)) << "the cache directory made by this creation goes too";
    EXPECT_TRUE(fileutl_exists(m_root + "/views")) << "parents stay";
    EXPECT_FALSE(v->holds_lock());
    EXPECT_EQ(g_fake.closed_db, c.rc == &Fake::cache_init_rc ? 0 : 1);
  }
}

TEST_F(ViewTest, AStorageLeftHalfMadeByACrashIsTakenOverOnlyWhenNobodyOwnsIt) {
  // A creation that died after the host name file and before the metadata: the lock file names a
  // process that is gone, and a rewrite was interrupted.
  const std::string log = m_stg + "/" + VIEW_STG_LOG_DIR + "/" + VIEW_STG_LOG_FILE, tmp = m_host + ".tmpAbC123";
  lay({{kFile, m_host, std::string(sysutl_myhostname()) + "\n"}, {kFile, m_pid, "999999\n"}, {kFile, tmp, "half"}, {kFile, log, "INFO::\n"}});
  EXPECT_TRUE(Tavrel_View::is_abandoned_creation(m_stg));

  // While another process holds its lock, it is a creation in progress: refused, untouched.
  int ready[2], go[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(go), 0);
  pid_t child = run_child([&] {
    pid_t owner;
    char c = server_lock_set(m_pid, &owner) >= 0 ? 'y' : 'n';
    (void)!write(ready[1], &c, 1);
    (void)!read(go[0], &c, 1);
  });
  char c = 0;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  ASSERT_EQ(c, 'y');
  EXPECT_FALSE(Tavrel_View::is_abandoned_creation(m_stg));
  std::unique_ptr<Tavrel_View> v(new_view());
  EXPECT_EQ(v->create(), TAVREL_ST_STORAGE_EXISTS);
  EXPECT_TRUE(fileutl_exists(tmp));
  (void)!write(go[1], "x", 1);
  exit_code(child);
  for (int fd : {ready[0], ready[1], go[0], go[1]}) close(fd);

  // Its owner gone, the storage is taken over and made whole.
  v.reset(new_view());
  ASSERT_EQ(v->create(), 0) << v->get_status_message();
  EXPECT_FALSE(fileutl_exists(tmp));
  EXPECT_FALSE(fileutl_exists(log));
  EXPECT_EQ(read_text(m_pid), pid_line());
  EXPECT_NE(read_text(m_meta).find("server-tag=v1\n"), std::string::npos);
  EXPECT_FALSE(Tavrel_View::is_abandoned_creation(m_stg)) << "a storage with metadata is a view";
}

TEST_F(ViewTest, CacheDirectoryRules) {
  const std::string r = m_root;
  const std::string marker = std::string("/") + CLTXT_CACHE_MARKER;
  const struct {
    std::string dir;
    std::vector<Lay> before;
    int status;
    std::string message;
  } cases[] = {
      {r + "/c1/sub", {}, 0, ""},  // missing: made with its marker
      {r + "/c2", {{kDir, r + "/c2"}}, 0, ""},
      {r + "/c3", {{kDir, r + "/c3/.c"}, {kFile, r + "/c3" + marker}}, 0, ""},  // already a cache: shared
      {r + "/c4/inner/deeper", {{kDir, r + "/c4/inner"}, {kFile, r + "/c4" + marker}}, TAVREL_ST_CACHE_NESTED,
       msg(TVR_LIB_CACHE_NESTED, (r + "/c4/inner/deeper").c_str())},
      {r + "/c5", {{kFile, r + "/c5/file", "x"}}, TAVREL_ST_CACHE_NOT_EMPTY, msg(TVR_LIB_CACHE_INVALID, (r + "/c5").c_str())},
      {r + "/c6", {{kFile, r + "/c6", "x"}}, TAVREL_ST_LIST_DIR, msg(TVR_LIB_CACHE_INVALID, (r + "/c6").c_str())},
      {"cache/rel", {}, TAVREL_ST_MALFORMED, msg(TVR_LIB_CACHE_RELATIVE, "cache/rel")},
      {r + "/c7///", {}, 0, ""},
      {r + "/c8", {{kDir, r + "/c8"}, {kForeign, r + "/c8"}}, TAVREL_ST_CACHE_NOT_EMPTY,
       msg(TVR_LIB_CACHE_OWNER, (r + "/c8").c_str(), 54321, 0)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.dir);
    if (geteuid() != 0 && c.dir == r + "/c8") continue;  // chown needs root
    lay(c.before);
    Tavrel_View v(kUuid, "v1", "unix", "auto", c.dir, m_stg, 0);
    EXPECT_EQ(v.validate_create_cache_dir(), c.status);
    EXPECT_EQ(v.get_status_message(), c.message);
    std::string plain = c.dir;
    while (plain.size() > 1 && plain.back() == '/') plain.pop_back();
    EXPECT_EQ(fileutl_exists(plain + marker), c.status == 0);
  }
  EXPECT_TRUE(fileutl_exists(r + "/c3/.c")) << "a shared cache is left as it is";
  EXPECT_FALSE(fileutl_exists(r + "/c4/inner/deeper"));
}

// ---------------------------------------------------------------------------------------------------
// Start

TEST_F(ViewTest, StartReadsTheViewBackAndRemovesTemporariesOfInterruptedRewrites) {
  make_view();
  const std::string ours = m_meta + ".tmpQwErTy", ours2 = m_stg + "/" + VIEW_STG_MOUNTED_SILOS + ".tmp000001",
                    theirs = m_stg + "/" + VIEW_STG_CONFIG_SPEC + ".tmp123456";
  lay({{kFile, ours, "versionid=1.0\nview-uu"}, {kFile, ours2, "/proj="}, {kFile, theirs, "not ours"}});
  ASSERT_EQ(chmod(m_stg.c_str(), 0755), 0);  // group and other bits are taken away; the start goes on
  g_fake.gn = 42;
  auto v = started();
  ASSERT_EQ(m_start_rc, 0) << v->get_status_message();
  EXPECT_EQ(mode_of(m_stg), 0700u);
  EXPECT_EQ(g_fake.calls, "cache,db,gn,register,");
  EXPECT_EQ(Tavrel_View::get_current_gn(), 42u);
  EXPECT_EQ(v->get_server_tag(), "v1");
  EXPECT_EQ(v->get_view_uuid_str(), kUuid);
  EXPECT_EQ(v->get_text_mode(), "unix");
  EXPECT_EQ(v->get_view_type(), "auto");
  EXPECT_EQ(v->get_cltxt_cache_dir(), m_cache);
  EXPECT_EQ(v->get_preserve_time(), 1);
  EXPECT_TRUE(g_fake.last_enforce) << "the size from the file is raised to the minimum, not refused";
  EXPECT_FALSE(fileutl_exists(ours) || fileutl_exists(ours2));
  EXPECT_TRUE(fileutl_exists(theirs)) << "other files' temporaries are not ours";
  EXPECT_EQ(read_text(m_pid), pid_line());

  // Without a namespace record in the database, the start makes one; if it cannot, the start fails.
  v.reset();
  g_fake = Fake();
  g_fake.get_gn_rc = TBS_ST_NOT_FOUND;
  v = started();
  EXPECT_EQ(m_start_rc, 0);
  EXPECT_EQ(g_fake.calls, "cache,db,gn,vns,register,");
  EXPECT_EQ(Tavrel_View::get_current_gn(), 0u);
  v.reset();
  g_fake.create_vns_rc = TBS_ST_INTERNAL;
  started();
  EXPECT_EQ(m_start_rc, TAVREL_ST_FAILURE);
}

// Storage faults: each is refused with its status and message before the lock and before any seam.
TEST_F(ViewTest, StorageFaultsRefuseTheStart) {
  const std::string link = m_root + "/link.vws", file = m_root + "/file.vws", none = m_root + "/none.vws";
  const std::string no_info = "", unknown_host = msg(TVR_LIB_WRONG_HOST, "(unknown)");  // no file: no message
  const struct {
    std::vector<Lay> fault;
    std::string path;  // the storage given to the start
    int status;
    std::string message;
  } cases[] = {
      {{}, none, TAVREL_ST_NO_STORAGE, msg(TVR_LIB_STORAGE_NOT_DIR, none.c_str())},
      {{{kFile, file, "x"}}, file, TAVREL_ST_NO_STORAGE, msg(TVR_LIB_STORAGE_NOT_DIR, file.c_str())},
      {{{kLink, link, m_stg}}, link, TAVREL_ST_NO_STORAGE, msg(TVR_LIB_STORAGE_NOT_DIR, link.c_str())},
      {{{kForeign, m_stg}}, m_stg, TAVREL_ST_NO_STORAGE, msg(TVR_LIB_STORAGE_OWNER, m_stg.c_str(), 54321, 0)},
      {{{kRemove, m_meta}}, m_stg, TAVREL_ST_NO_VIEW_INFO, no_info},
      {{{kRemove, m_meta}, {kFifo, m_meta}}, m_stg, TAVREL_ST_NO_VIEW_INFO, no_info},
      {{{kRemove, m_meta}, {kLink, m_meta, "/etc/hostname"}}, m_stg, TAVREL_ST_NO_VIEW_INFO, no_info},
      {{{kFile, m_host, "elsewhere.example\n"}}, m_stg, TAVREL_ST_WRONG_HOST, msg(TVR_LIB_WRONG_HOST, "elsewhere.example")},
      {{{kRemove, m_host}, {kFifo, m_host}}, m_stg, TAVREL_ST_WRONG_HOST, unknown_host},  // must not block
      {{{kRemove, m_pid}, {kDir, m_pid}}, m_stg, TAVREL_ST_VIEW_LOCKED,
       msg(TVR_LIB_LOCK_ERROR, "not a regular file", m_pid.c_str())},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    if (geteuid() != 0 && !c.fault.empty() && c.fault[0].kind == kForeign) continue;  // chown needs root
    Tavrel_View_Storage::remove_tree(m_root);
    make_view();
    lay(c.fault);
    auto v = started(c.path);
    EXPECT_EQ(m_start_rc, c.status);
    EXPECT_EQ(v->get_status_message(), c.message);
    EXPECT_EQ(g_fake.calls, "");
    EXPECT_FALSE(v->holds_lock());
  }
}

// ---------------------------------------------------------------------------------------------------
// Metadata file (its lines are split and bounded by view_metadata_parse: proto/view_metadata_test.cpp)

TEST_F(ViewTest, MetadataValuesAndAnOversizeFile) {
  make_view();
  const std::string head = std::string("view-uuid=") + kUuid + "\n";
  const std::string rest = "text-mode=unix\nview-type=auto\ncltxt-cache-dir=" + m_cache + "\ncache-size=5000000\n";
  const std::string parse_error = msg(TVR_LIB_PARSE_ERROR, m_meta.c_str());
  const struct {
    std::string text;
    int status;
    std::string message;
  } cases[] = {
      {head + "server-tag=v1\n" + rest, 0, ""},
      {head + "server-tag=v1\n" + rest + "cache-size=12x\n", TAVREL_ST_METADATA_FILE, parse_error},
      {head + "server-tag=v1\n" + rest + "cache-size=4294967296\n", TAVREL_ST_METADATA_FILE, parse_error},
      {head + "server-tag=v1\n" + rest + std::string(70000, '#'), TAVREL_ST_METADATA_FILE, parse_error},
      {"view-uuid=not-a-uuid\nserver-tag=v1\n" + rest, TAVREL_ST_VIEW_IDENTITY, ""},  // traced only
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 60));
    lay({{kFile, m_meta, c.text}});
    Tavrel_View v(m_stg);
    EXPECT_EQ(v.read_metadata_file(1), c.status);
    EXPECT_EQ(v.get_status_message(), c.message);
    if (c.status == 0) {
      EXPECT_EQ(v.get_server_tag(), "v1");
      EXPECT_EQ(v.get_cache_size(), 5000000u);
      EXPECT_EQ(g_fake.last_size, 5000000u);
    }
  }
  // The re-read after the first request does not validate: what a full read refuses passes.
  lay({{kFile, m_meta, head + "server-tag=t\nview-type=\n"}});
  Tavrel_View v(m_stg);
  EXPECT_EQ(v.get_view_info(), 0);
  EXPECT_EQ(v.read_metadata_file(1), TAVREL_ST_VIEW_IDENTITY);

  // A value that would break the file is refused, and the file stays as it was.
  const std::string before = read_text(m_meta);
  std::unique_ptr<Tavrel_View> evil(
      Tavrel_View::get_view_from_list(kUuid, "v1\nserver-tag=evil", "unix", "auto", m_cache, m_stg, 0));
  EXPECT_EQ(evil->create_metadata_file(), TAVREL_ST_WRITE_FILE);
  EXPECT_EQ(read_text(m_meta), before);
}

TEST_F(ViewTest, SetCacheSize) {
  make_view();
  auto v = started();
  ASSERT_EQ(m_start_rc, 0);
  std::string m;
  EXPECT_EQ(v->set_cache_size(1000, m, true), TAVREL_ST_FAILURE);
  EXPECT_EQ(m, msg(TVR_LIB_CACHE_MINIMUM, 1000u, Tavrel_View::MIN_CACHE_SIZE));
  // No size in the metadata: the caches run with the default and the file still names none.
  EXPECT_EQ(g_fake.last_size, Tavrel_View::DEFAULT_CACHE_SIZE);
  EXPECT_EQ(v->get_cache_size(), 0u);
  EXPECT_NE(read_text(m_meta).find("cache-size=0\n"), std::string::npos);
  m.clear();
  EXPECT_EQ(v->set_cache_size(8388608, m, true), 0);
  EXPECT_EQ(m, "");
  EXPECT_FALSE(g_fake.last_enforce);
  EXPECT_NE(read_text(m_meta).find("cache-size=8388608\n"), std::string::npos);
  g_fake.set_size_rc = TBS_ST_INTERNAL;
  EXPECT_EQ(v->set_cache_size(9000000, m, true), TAVREL_ST_FAILURE);
  EXPECT_EQ(v->get_cache_size(), 8388608u);
  // The size is set but cannot be saved.
  g_fake.set_size_rc = 0;
  lay({{kRemove, m_meta}, {kDir, m_meta}});
  EXPECT_EQ(v->set_cache_size(9000000, m, true), TAVREL_ST_WRITE_FILE);
}

// ---------------------------------------------------------------------------------------------------
// The view lock between processes

// A second agent refused and a killed one's lock taken over are shown with the real programs
// (tests/e2e/view); here, two objects of one process.
TEST_F(ViewTest, TwoViewObjectsOfOneProcessDoNotShareTheLock) {
  make_view();
  Tavrel_View a(m_stg), b(m_stg);
  ASSERT_TRUE(a.lock());
  EXPECT_TRUE(a.lock()) << "taking it again is a no-op";
  EXPECT_FALSE(b.lock());
  EXPECT_EQ(b.get_lock_holder(), getpid());
  EXPECT_EQ(b.get_status_message(), msg(TVR_LIB_VIEW_IN_USE, m_stg.c_str(), static_cast<int>(getpid())));
  // b's refusal did not drop a's lock: another process still sees a as the holder.
  EXPECT_EQ(exit_code(run_child([&] { _exit(server_lock_holder(m_pid) == getppid() ? 0 : 1); })), 0);
  a.unlock();
  EXPECT_TRUE(b.lock());
  b.conditional_unlock();
  EXPECT_FALSE(b.holds_lock());
}

// ---------------------------------------------------------------------------------------------------
// Kernel module seams, the view root, the update gate

TEST_F(ViewTest, CleanupUnregistersTheTagLastRead) {
  Tavrel_View fresh(m_stg);
  EXPECT_EQ(fresh.cleanup(), TBS_ST_FAILURE) << "no tag known";
  EXPECT_EQ(g_fake.unregistered_tag, "");
  make_view();
  Tavrel_View reader(m_stg);
  ASSERT_EQ(reader.get_view_info(), 0);
  // A view object built just for the exit path knows the tag through the process-wide copy.
  Tavrel_View on_exit(m_stg);
  g_fake.unregister_rc = TBS_ST_VIEW_GONE;
  EXPECT_EQ(on_exit.cleanup(), TBS_ST_VIEW_GONE);
  EXPECT_EQ(g_fake.unregistered_tag, "v1");
}

TEST_F(ViewTest, ViewRoot) {
  std::unique_ptr<Tavrel_View> v(new_view("tag1"));
  g_fake.kfsm_root_rc = TBS_ST_FAILURE;
  EXPECT_EQ(v->get_view_root(), "");
  EXPECT_EQ(v->strip_view_root("/view/tag1/proj"), "/view/tag1/proj");
  EXPECT_FALSE(v->is_view_root("/view/tag1"));
  g_fake.kfsm_root_rc = 0;  // not cached while unknown
  g_fake.kfsm_root = "/view/";
  EXPECT_EQ(v->get_view_root(), "/view/tag1");
  g_fake.kfsm_root = "/elsewhere";
  EXPECT_EQ(v->get_view_root(), "/view/tag1") << "cached once known";
  const struct {
    const char *in, *stripped;
    bool root;
  } cases[] = {
      {"/view/tag1/proj/a.c", "/proj/a.c", false}, {"/view/tag1", "", true}, {"/view/tag1/", "/", true},
      {"/view/tag1x/proj", "/view/tag1x/proj", false}, {"/proj/a.c", "/proj/a.c", false}, {"", "", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(v->strip_view_root(c.in), c.stripped) << c.in;
    EXPECT_EQ(v->is_view_root(c.in), c.root) << c.in;
  }
}

TEST_F(ViewTest, UpdateGate) {
  // The gate only compares and hands back the update's address.
  int t1 = 0, t2 = 0;
  Tavrel_Update* const p1 = reinterpret_cast<Tavrel_Update*>(&t1);
  Tavrel_Update* const p2 = reinterpret_cast<Tavrel_Update*>(&t2);
  unsigned gn = 99;
  Tavrel_View::set_current_gn(7, false);
  ASSERT_TRUE(Tavrel_View::update_start(p1, gn, false));
  EXPECT_EQ(gn, 7u);
  EXPECT_TRUE(Tavrel_View::update_in_progress());
  // Without waiting, a second update is turned away and nothing changes.
  gn = 99;
  EXPECT_FALSE(Tavrel_View::update_start(p2, gn, false));
  EXPECT_EQ(gn, 99u);
  Tavrel_View::update_end(p2);  // not the active one: no effect
  EXPECT_EQ(Tavrel_View::get_update(), p1);

  // A waiting one gets the gate when the first ends, with the GN the first set.
  std::atomic<int> got{0};
  unsigned gn2 = 0;
  std::thread waiter([&] { got = Tavrel_View::update_start(p2, gn2, true) ? 1 : -1; });
  std::thread running_waiter([] { Tavrel_View::wait_for_running_update(); });
  Tavrel_View::set_current_gn(8, true);  // the first update passed its start
  running_waiter.join();
  EXPECT_EQ(got.load(), 0) << "still held by the first update";
  Tavrel_View::update_end(p1);
  waiter.join();
  EXPECT_EQ(got.load(), 1);
  EXPECT_EQ(gn2, 8u);
  EXPECT_EQ(Tavrel_View::get_update(), p2);
  std::thread finished_waiter([] { Tavrel_View::wait_for_finished_update(); });
  Tavrel_View::update_end(p2);
  finished_waiter.join();
  EXPECT_FALSE(Tavrel_View::update_in_progress());
  Tavrel_View::wait_for_running_update();  // no update: returns at once

  // Stop requests: an abort, and the thread manager's exit flag (in a child, so that this process's
  // event loop stays usable).
  EXPECT_FALSE(Tavrel_View::should_stop_update());
  Tavrel_View::abort_update();
  EXPECT_TRUE(Tavrel_View::should_stop_update());
  Tavrel_View::reset_for_test();
  EXPECT_EQ(exit_code(run_child([] {
              Tavrel_Thread_Manager_Base::get_instance()->set_should_exit();
              _exit(Tavrel_View::should_stop_update() ? 0 : 1);
            })),
            0);
  Tavrel_Thread_Manager_Base::destroy_instance();
}

}  // namespace
