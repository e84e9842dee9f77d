// The view object: storage creation and checks, half-made storages, the metadata file, the cleartext
// cache directory rules, the view lock between processes, the kernel seams, the view root and the
// update gate.
#include "core/tavrel_view.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <memory>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "base/fileutl.h"
#include "base/server.h"
#include "core/tavrel_status.h"
#include "core/tavrel_thread_manager_base.h"
#include "core/tavrel_msg_table.h"
#include "core/tavrel_view_storage.h"
#include "proto/view_storage_names.h"

namespace {

const char* kUuid = "6f1c2d3e-4a5b-4c6d-8e7f-001122334455";
const char* kUrl = "https://server.example/tavrel";

// What the seams saw, and what they answer.
struct Fake {
  std::string calls;  // "cache,db,vns,register," in call order
  int cache_init_rc = 0;
  int set_size_rc = 0;
  unsigned last_size = 0;
  bool last_enforce = false;
  int start_db_rc = 0;
  int closed_db = 0;
  int get_gn_rc = 0;
  unsigned gn = 0;
  int create_vns_rc = 0;
  int register_rc = 0;
  int unregister_rc = 0;
  std::string unregistered_tag;
  std::string kfsm_root = "/view";
  int kfsm_root_rc = 0;
  std::string url = kUrl;
};
Fake g_fake;
char g_db_token;

Tavrel_View_Hooks fake_hooks() {
  Tavrel_View_Hooks h;
  h.cache_init = [] {
    g_fake.calls += "cache,";
    return g_fake.cache_init_rc;
  };
  h.cache_set_size = [](unsigned size, bool enforce) {
    g_fake.last_enforce = enforce;
    if (!enforce && size != 0 && size < Tavrel_View::MIN_CACHE_SIZE) return static_cast<int>(TBS_ST_BAD_ARG);
    if (g_fake.set_size_rc == 0) g_fake.last_size = size;
    return g_fake.set_size_rc;
  };
  h.start_db = [](const std::string&, const std::string&, Tavrel_View_db** db) {
    g_fake.calls += "db,";
    *db = reinterpret_cast<Tavrel_View_db*>(&g_db_token);
    return g_fake.start_db_rc;
  };
  h.close_db = [](Tavrel_View_db* db) {
    if (db == reinterpret_cast<Tavrel_View_db*>(&g_db_token)) g_fake.closed_db++;
  };
  h.db_get_vns_view_gn = [](unsigned* gn) {
    g_fake.calls += "gn,";
    *gn = g_fake.gn;
    return g_fake.get_gn_rc;
  };
  h.db_create_vns_view = [](const tbs_uuid_s&, unsigned) {
    g_fake.calls += "vns,";
    return g_fake.create_vns_rc;
  };
  h.register_view = [](Tavrel_View*) {
    g_fake.calls += "register,";
    return g_fake.register_rc;
  };
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
  if (fileutl_read_file(path, &s, 1 << 20) != 0) return "<unreadable>";
  return s;
}

void write_text(const std::string& path, const std::string& text) {
  ASSERT_EQ(fileutl_write_atomic(path, text, 0600), 0) << path;
}

std::string my_host() {
  char buf[HOST_NAME_MAX + 1] = {};
  gethostname(buf, sizeof buf - 1);
  return buf;
}

mode_t mode_of(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

class ViewTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/tavrel_view_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    m_root = tmpl;
    m_stg = m_root + "/views/v1.vws";
    m_cache = m_root + "/cache";
    g_fake = Fake();
    Tavrel_View::install_hooks(fake_hooks());
    Tavrel_View::reset_for_test();
  }
  void TearDown() override {
    Tavrel_View::install_hooks(Tavrel_View_Hooks());
    Tavrel_View::reset_for_test();
    chmod(m_root.c_str(), 0700);
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
  }

  std::string m_root, m_stg, m_cache;
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
  EXPECT_EQ(read_text(m_stg + "/" + VIEW_STG_METADATA),
            std::string("versionid=1.0\nview-uuid=") + kUuid +
                "\nserver-tag=v1\ntext-mode=unix\nview-type=auto\npreserve-silo-modified-time=true\n"
                "server-url=" + kUrl + "\ncltxt-cache-dir=" + m_cache + "\ncache-size=0\n");
  EXPECT_EQ(mode_of(m_stg + "/" + VIEW_STG_METADATA), 0600u);
  EXPECT_EQ(read_text(m_stg + "/.hostname"), my_host() + "\n");
  EXPECT_EQ(read_text(m_stg + "/.pid"), std::to_string(getpid()) + "\n");
  EXPECT_TRUE(v->holds_lock());
  EXPECT_TRUE(fileutl_exists(m_cache + "/" + CLTXT_CACHE_MARKER));
  EXPECT_EQ(mode_of(m_cache), 0700u);
  EXPECT_EQ(v->get_db(), reinterpret_cast<Tavrel_View_db*>(&g_db_token));
  v.reset();
  EXPECT_EQ(g_fake.closed_db, 1);
  EXPECT_EQ(server_lock_holder(m_stg + "/.pid"), 0) << "the lock goes with the object";
}

TEST_F(ViewTest, AProcessWithoutStoreSkipsCacheAndDatabaseButStillRegisters) {
  // The cache and database seams are installed but must not be called; the kernel module is.
  Tavrel_View_Hooks h = fake_hooks();
  h.without_store = true;
  Tavrel_View::install_hooks(h);
  {
    std::unique_ptr<Tavrel_View> v(new_view());
    Tavrel_View::set_current_gn(9, true);
    ASSERT_EQ(v->create(), 0) << v->get_status_message();
    EXPECT_EQ(g_fake.calls, "register,");
    EXPECT_EQ(Tavrel_View::get_current_gn(), 0u);
    EXPECT_EQ(v->get_db(), nullptr);
  }
  g_fake.calls.clear();
  Tavrel_View::set_current_gn(5, true);
  std::unique_ptr<Tavrel_View> v(Tavrel_View::get_view_from_stg(m_stg));
  ASSERT_EQ(v->start(), 0) << v->get_status_message();
  EXPECT_EQ(g_fake.calls, "register,");
  EXPECT_EQ(Tavrel_View::get_current_gn(), 0u);
  // A failing registration still fails the start.
  v.reset();
  g_fake.register_rc = TBS_ST_INTERNAL;
  v.reset(Tavrel_View::get_view_from_stg(m_stg));
  EXPECT_EQ(v->start(), TAVREL_ST_FAILURE);
}

TEST_F(ViewTest, CreateRefusesWhatAlreadyExistsAndTouchesNothing) {
  struct Case {
    const char* name;
    void (*prepare)(const std::string& stg);
  };
  const Case cases[] = {
      {"a view", [](const std::string& s) {
         fileutl_mkpath(s, 0700);
         fileutl_write_atomic(s + "/" + VIEW_STG_METADATA, "server-tag=old\n", 0600);
       }},
      {"a regular file", [](const std::string& s) {
         fileutl_mkpath(fileutl_strip_leaf(s), 0700);
         fileutl_write_atomic(s, "data", 0600);
       }},
      {"a symbolic link", [](const std::string& s) {
         fileutl_mkpath(fileutl_strip_leaf(s), 0700);
         ASSERT_EQ(symlink("/tmp", s.c_str()), 0);
       }},
      {"a directory with a stranger's file", [](const std::string& s) {
         fileutl_mkpath(s, 0700);
         fileutl_write_atomic(s + "/notes.txt", "keep me", 0600);
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Tavrel_View_Storage::remove_tree(m_root + "/views");
    c.prepare(m_stg);
    std::unique_ptr<Tavrel_View> v(new_view());
    EXPECT_EQ(v->create(), TAVREL_ST_STORAGE_EXISTS);
    EXPECT_EQ(v->get_status_message(), "View at \"" + m_stg + "\" exists.\n");
    EXPECT_FALSE(v->holds_lock());
    EXPECT_EQ(g_fake.calls, "");
    // A failed MkView cleans up after itself, but never a storage it did not make.
    v->cleanup_storage();
    EXPECT_TRUE(fileutl_exists(m_stg));
    if (std::string(c.name) == "a view") {
      EXPECT_EQ(read_text(m_stg + "/" + VIEW_STG_METADATA), "server-tag=old\n");
    }
    if (std::string(c.name) == "a directory with a stranger's file") {
      EXPECT_EQ(read_text(m_stg + "/notes.txt"), "keep me");
    }
    EXPECT_FALSE(fileutl_exists(m_cache)) << "nothing made before the refusal";
  }
}

TEST_F(ViewTest, CreateRefusesAnInvalidIdentityBeforeMakingAnything) {
  struct Case {
    const char* tag;
    const char* uuid;
    const char* mode;
    const char* type;
    const char* url;
    std::vector<int> messages;
  };
  const Case cases[] = {
      {"", kUuid, "unix", "auto", kUrl, {TVR_LIB_NO_SERVER_TAG}},
      {"v1", "not-a-uuid", "unix", "auto", kUrl, {TVR_LIB_BAD_VIEW_UUID}},
      {"v1", "00000000-0000-0000-0000-000000000000", "unix", "auto", kUrl, {TVR_LIB_BAD_VIEW_UUID}},
      {"v1", "", "unix", "auto", kUrl, {TVR_LIB_NO_VIEW_UUID}},
      {"v1", kUuid, "ebcdic", "auto", kUrl, {TVR_LIB_NO_TEXT_MODE}},
      {"v1", kUuid, "unix", "auto", "", {TVR_LIB_BAD_SERVER_INFO}},
      {"v1", kUuid, "unix", "", kUrl, {TVR_LIB_NO_VIEW_TYPE}},
      // Every missing field is named, in a fixed order.
      {"", kUuid, "", "", kUrl, {TVR_LIB_NO_SERVER_TAG, TVR_LIB_NO_TEXT_MODE, TVR_LIB_NO_VIEW_TYPE}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.tag) + "|" + c.uuid + "|" + c.mode + "|" + c.type + "|" + c.url);
    g_fake.url = c.url;
    std::unique_ptr<Tavrel_View> v(new_view(c.tag, c.uuid, c.mode, c.type));
    EXPECT_EQ(v->create(), TAVREL_ST_VIEW_IDENTITY);
    std::string expected;
    for (int m : c.messages)
      expected += m == TVR_LIB_BAD_VIEW_UUID ? imsg_format(&_tvr_lib_lib_msg_table, m, c.uuid, m_stg.c_str())
                                        : imsg_format(&_tvr_lib_lib_msg_table, m, m_stg.c_str());
    EXPECT_EQ(v->get_status_message(), expected);
    EXPECT_FALSE(fileutl_exists(m_root + "/views"));
  }
}

TEST_F(ViewTest, TextModesAreNormalisedOrRefused) {
  struct Case {
    const char* given;
    const char* canonical;
  };
  const Case cases[] = {{"unix", "unix"}, {" UNIX ", "unix"}, {"MsDos", "msdos"}, {"", ""}, {"unix2", ""}};
  for (const auto& c : cases) {
    std::unique_ptr<Tavrel_View> v(new_view("v1", kUuid, c.given));
    EXPECT_EQ(v->get_view_textmode(), c.canonical) << c.given;
  }
}

TEST_F(ViewTest, ASeamFailureStopsCreationAndCleanupRemovesWhatCreationMade) {
  struct Case {
    const char* name;
    void (*fail)();
    int status;
    const char* calls;
    std::string message;
  };
  const Case cases[] = {
      {"cache", [] { g_fake.cache_init_rc = TBS_ST_INTERNAL; }, TAVREL_ST_CACHE_START, "cache,", ""},
      {"database", [] { g_fake.start_db_rc = TBS_ST_DB_RELOAD_NEEDED; }, TAVREL_ST_CACHE_START, "cache,db,",
       "View database initialization failed (1023).\n"},
      {"namespace record", [] { g_fake.create_vns_rc = TBS_ST_INTERNAL; }, TAVREL_ST_FAILURE, "cache,db,vns,", ""},
      {"kernel registration", [] { g_fake.register_rc = TBS_ST_INTERNAL; }, TAVREL_ST_FAILURE, "cache,db,vns,register,", ""},
      {"kernel registration, not found", [] { g_fake.register_rc = TBS_ST_NOT_FOUND; }, TAVREL_ST_NOT_FOUND,
       "cache,db,vns,register,", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    g_fake = Fake();
    c.fail();
    std::unique_ptr<Tavrel_View> v(new_view());
    EXPECT_EQ(v->create(), c.status);
    EXPECT_EQ(g_fake.calls, c.calls);
    EXPECT_EQ(v->get_status_message(), c.message);
    EXPECT_TRUE(fileutl_exists(m_stg + "/" + VIEW_STG_METADATA));
    v->cleanup_storage();
    EXPECT_FALSE(fileutl_exists(m_stg));
    EXPECT_FALSE(fileutl_exists(m_cache)) << "the cache directory made by this creation goes too";
    EXPECT_TRUE(fileutl_exists(m_root + "/views")) << "parents stay";
    EXPECT_FALSE(v->holds_lock());
    EXPECT_EQ(g_fake.closed_db, std::string(c.name) == "cache" ? 0 : 1);
  }
  // Without any seams installed creation cannot pretend to have a cache.
  Tavrel_View::install_hooks(Tavrel_View_Hooks());
  Tavrel_View_Hooks only_url;
  only_url.server_url = [] { return std::string(kUrl); };
  Tavrel_View::install_hooks(only_url);
  std::unique_ptr<Tavrel_View> v(new_view());
  EXPECT_EQ(v->create(), TAVREL_ST_CACHE_START);
  v->cleanup_storage();
  EXPECT_FALSE(fileutl_exists(m_stg));
}

TEST_F(ViewTest, AStorageLeftHalfMadeByACrashIsTakenOverOnlyWhenNobodyOwnsIt) {
  // A creation that died after the host name file and before the metadata: the lock file names a
  // process that is gone, and a rewrite was interrupted.
  fileutl_mkpath(m_stg, 0700);
  write_text(m_stg + "/.hostname", my_host() + "\n");
  write_text(m_stg + "/.pid", "999999\n");
  write_text(m_stg + "/.hostname.tmpAbC123", "half");
  fileutl_mkpath(m_stg + "/" + VIEW_STG_LOG_DIR, 0700);
  write_text(m_stg + "/" + VIEW_STG_LOG_DIR + "/" + VIEW_STG_LOG_FILE, "INFO::...\n");
  EXPECT_TRUE(Tavrel_View::is_abandoned_creation(m_stg));

  // While another process holds its lock, it is a creation in progress: refused, untouched.
  int ready[2], go[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(go), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    pid_t owner;
    int cookie = server_lock_set(m_stg + "/.pid", &owner);
    char c = cookie >= 0 ? 'y' : 'n';
    (void)!write(ready[1], &c, 1);
    (void)!read(go[0], &c, 1);
    _exit(0);
  }
  char c = 0;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  ASSERT_EQ(c, 'y');
  EXPECT_FALSE(Tavrel_View::is_abandoned_creation(m_stg));
  {
    std::unique_ptr<Tavrel_View> v(new_view());
    EXPECT_EQ(v->create(), TAVREL_ST_STORAGE_EXISTS);
    EXPECT_TRUE(fileutl_exists(m_stg + "/.hostname.tmpAbC123"));
  }
  (void)!write(go[1], "x", 1);
  int ws;
  waitpid(child, &ws, 0);
  for (int fd : {ready[0], ready[1], go[0], go[1]}) close(fd);

  // Its owner gone, the storage is taken over and made whole.
  std::unique_ptr<Tavrel_View> v(new_view());
  ASSERT_EQ(v->create(), 0) << v->get_status_message();
  EXPECT_FALSE(fileutl_exists(m_stg + "/.hostname.tmpAbC123"));
  EXPECT_FALSE(fileutl_exists(m_stg + "/" + VIEW_STG_LOG_DIR + "/" + VIEW_STG_LOG_FILE));
  EXPECT_EQ(read_text(m_stg + "/.pid"), std::to_string(getpid()) + "\n");
  EXPECT_NE(read_text(m_stg + "/" + VIEW_STG_METADATA).find("server-tag=v1\n"), std::string::npos);
  v.reset();
  EXPECT_FALSE(Tavrel_View::is_abandoned_creation(m_stg)) << "a storage with metadata is a view";
}

// ---------------------------------------------------------------------------------------------------
// Cleartext cache directory

TEST_F(ViewTest, CacheDirectoryRules) {
  struct Case {
    const char* name;
    std::string dir;
    void (*prepare)(const std::string& root);
    int status;
    int message;  // -1: none
  };
  const std::string r = m_root;
  const Case cases[] = {
      {"missing: made with its marker", r + "/c1/sub", nullptr, 0, -1},
      {"empty existing directory", r + "/c2", [](const std::string& r) { fileutl_mkpath(r + "/c2", 0700); }, 0, -1},
      {"already a cache, not empty: shared", r + "/c3",
       [](const std::string& r) {
         fileutl_mkpath(r + "/c3/.c", 0700);
         fileutl_write_atomic(r + "/c3/.cltxt_cache", "", 0600);
       },
       0, -1},
      {"below another cache", r + "/c4/inner/deeper",
       [](const std::string& r) {
         fileutl_mkpath(r + "/c4/inner", 0700);
         fileutl_write_atomic(r + "/c4/.cltxt_cache", "", 0600);
       },
       TAVREL_ST_CACHE_NESTED, TVR_LIB_CACHE_NESTED},
      {"not empty, no marker", r + "/c5",
       [](const std::string& r) {
         fileutl_mkpath(r + "/c5", 0700);
         fileutl_write_atomic(r + "/c5/file", "x", 0600);
       },
       TAVREL_ST_CACHE_NOT_EMPTY, TVR_LIB_CACHE_INVALID},
      {"a regular file", r + "/c6", [](const std::string& r) { fileutl_write_atomic(r + "/c6", "x", 0600); },
       TAVREL_ST_LIST_DIR, TVR_LIB_CACHE_INVALID},
      {"relative", "cache/rel", nullptr, TAVREL_ST_MALFORMED, TVR_LIB_CACHE_RELATIVE},
      {"trailing separators", r + "/c7///", nullptr, 0, -1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.prepare) c.prepare(m_root);
    Tavrel_View v(kUuid, "v1", "unix", "auto", c.dir, m_stg, 0);
    EXPECT_EQ(v.validate_create_cache_dir(), c.status);
    std::string plain = c.dir;
    while (plain.size() > 1 && plain.back() == '/') plain.pop_back();
    EXPECT_EQ(v.get_status_message(), c.message < 0 ? "" : imsg_format(&_tvr_lib_lib_msg_table, c.message, plain.c_str()));
    if (c.status == 0) {
      EXPECT_TRUE(fileutl_exists(plain + "/" + CLTXT_CACHE_MARKER));
    }
  }
  EXPECT_TRUE(fileutl_exists(m_root + "/c3/.c")) << "a shared cache is left as it is";
  EXPECT_FALSE(fileutl_exists(m_root + "/c4/inner/deeper"));
}

TEST_F(ViewTest, ACacheDirectoryOfAnotherUserIsRefused) {
  std::string dir = m_root + "/theirs";
  if (geteuid() == 0) {
    fileutl_mkpath(dir, 0700);
    ASSERT_EQ(chown(dir.c_str(), 54321, 54321), 0);
  } else {
    dir = "/";  // owned by root
  }
  Tavrel_View v(kUuid, "v1", "unix", "auto", dir, m_stg, 0);
  EXPECT_EQ(v.validate_create_cache_dir(), TAVREL_ST_CACHE_NOT_EMPTY);
  EXPECT_NE(v.get_status_message().find("belongs to user"), std::string::npos) << v.get_status_message();
  EXPECT_FALSE(fileutl_exists(dir + "/" + CLTXT_CACHE_MARKER));
}

// ---------------------------------------------------------------------------------------------------
// Start

TEST_F(ViewTest, StartReadsTheViewBackAndRemovesTemporariesOfInterruptedRewrites) {
  make_view();
  write_text(m_stg + "/.tavrel.tmpQwErTy", "versionid=1.0\nview-uu");
  write_text(m_stg + "/.mounted_silos.tmp000001", "/proj=");
  write_text(m_stg + "/" + VIEW_STG_CONFIG_SPEC + ".tmp123456", "not ours");
  g_fake = Fake();
  g_fake.gn = 42;
  std::unique_ptr<Tavrel_View> v(Tavrel_View::get_view_from_stg(m_stg));
  ASSERT_EQ(v->start(), 0) << v->get_status_message();
  EXPECT_EQ(g_fake.calls, "cache,db,gn,register,");
  EXPECT_EQ(Tavrel_View::get_current_gn(), 42u);
  EXPECT_EQ(v->get_server_tag(), "v1");
  EXPECT_EQ(v->get_view_uuid_str(), kUuid);
  EXPECT_EQ(v->get_text_mode(), "unix");
  EXPECT_EQ(v->get_view_type(), "auto");
  EXPECT_EQ(v->get_cltxt_cache_dir(), m_cache);
  EXPECT_EQ(v->get_preserve_time(), 1);
  EXPECT_TRUE(g_fake.last_enforce) << "the size from the file is raised to the minimum, not refused";
  EXPECT_FALSE(fileutl_exists(m_stg + "/.tavrel.tmpQwErTy"));
  EXPECT_FALSE(fileutl_exists(m_stg + "/.mounted_silos.tmp000001"));
  EXPECT_TRUE(fileutl_exists(m_stg + "/" + VIEW_STG_CONFIG_SPEC + ".tmp123456")) << "other files' temporaries are not ours";
  EXPECT_EQ(read_text(m_stg + "/.pid"), std::to_string(getpid()) + "\n");
}

TEST_F(ViewTest, StartMakesTheNamespaceRecordWhenTheDatabaseHasNone) {
  make_view();
  g_fake = Fake();
  g_fake.get_gn_rc = TBS_ST_NOT_FOUND;
  std::unique_ptr<Tavrel_View> v(Tavrel_View::get_view_from_stg(m_stg));
  ASSERT_EQ(v->start(), 0);
  EXPECT_EQ(g_fake.calls, "cache,db,gn,vns,register,");
  EXPECT_EQ(Tavrel_View::get_current_gn(), 0u);
  v.reset();
  g_fake = Fake();
  g_fake.get_gn_rc = TBS_ST_NOT_FOUND;
  g_fake.create_vns_rc = TBS_ST_INTERNAL;
  v.reset(Tavrel_View::get_view_from_stg(m_stg));
  EXPECT_EQ(v->start(), TAVREL_ST_FAILURE);
}

TEST_F(ViewTest, StartChecksTheStorageItself) {
  make_view();
  // Group and other bits are taken away; the start goes on.
  ASSERT_EQ(chmod(m_stg.c_str(), 0755), 0);
  {
    std::unique_ptr<Tavrel_View> v(Tavrel_View::get_view_from_stg(m_stg));
    EXPECT_EQ(v->start(), 0) << v->get_status_message();
    EXPECT_EQ(mode_of(m_stg), 0700u);
  }
  struct Case {
    const char* name;
    std::string path;
    int message;
  };
  ASSERT_EQ(symlink(m_stg.c_str(), (m_root + "/link.vws").c_str()), 0);
  write_text(m_root + "/file.vws", "x");
  const Case cases[] = {
      {"missing", m_root + "/none.vws", TVR_LIB_STORAGE_NOT_DIR},
      {"a regular file", m_root + "/file.vws", TVR_LIB_STORAGE_NOT_DIR},
      {"a symbolic link to a view", m_root + "/link.vws", TVR_LIB_STORAGE_NOT_DIR},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    g_fake = Fake();
    std::unique_ptr<Tavrel_View> v(Tavrel_View::get_view_from_stg(c.path));
    EXPECT_EQ(v->start(), TAVREL_ST_NO_STORAGE);
    EXPECT_EQ(v->get_status_message(), imsg_format(&_tvr_lib_lib_msg_table, c.message, c.path.c_str()));
    EXPECT_EQ(g_fake.calls, "");
    EXPECT_FALSE(v->holds_lock());
  }
}

TEST_F(ViewTest, StartRefusesAStorageOfAnotherUser) {
  if (geteuid() != 0) GTEST_SKIP() << "making a directory owned by another user needs root";
  make_view();
  ASSERT_EQ(chown(m_stg.c_str(), 54321, 54321), 0);
  std::unique_ptr<Tavrel_View> v(Tavrel_View::get_view_from_stg(m_stg));
  EXPECT_EQ(v->start(), TAVREL_ST_NO_STORAGE);
  EXPECT_EQ(v->get_status_message(), imsg_format(&_tvr_lib_lib_msg_table, TVR_LIB_STORAGE_OWNER, m_stg.c_str(), 54321, 0));
  EXPECT_FALSE(v->holds_lock());
}

TEST_F(ViewTest, StartOnAnotherHostIsRefusedBeforeTheLock) {
  make_view();
  write_text(m_stg + "/.hostname", "elsewhere.example\n");
  std::unique_ptr<Tavrel_View> v(Tavrel_View::get_view_from_stg(m_stg));
  EXPECT_EQ(v->start(), TAVREL_ST_WRONG_HOST);
  EXPECT_EQ(v->get_status_message(),
            "View started on wrong host.  This view is registered on host \"elsewhere.example\".");
  EXPECT_FALSE(v->holds_lock());

  // Missing, or a FIFO in its place (which must not block the start).
  fileutl_rm(m_stg + "/.hostname");
  v.reset(Tavrel_View::get_view_from_stg(m_stg));
  EXPECT_EQ(v->start(), TAVREL_ST_WRONG_HOST);
  ASSERT_EQ(mkfifo((m_stg + "/.hostname").c_str(), 0600), 0);
  v.reset(Tavrel_View::get_view_from_stg(m_stg));
  EXPECT_EQ(v->start(), TAVREL_ST_WRONG_HOST);
  EXPECT_NE(v->get_status_message().find("(unknown)"), std::string::npos);
}

// ---------------------------------------------------------------------------------------------------
// Metadata file

TEST_F(ViewTest, MetadataParsingWithHostileLines) {
  make_view();
  const std::string head = std::string("view-uuid=") + kUuid + "\n";
  const std::string good_rest = "text-mode=unix\nview-type=auto\ncltxt-cache-dir=" + m_cache + "\ncache-size=5000000\n";
  struct Case {
    const char* name;
    std::string text;
    int status;
    std::string message;
  };
  const std::string meta = m_stg + "/" + VIEW_STG_METADATA;
  const Case cases[] = {
      {"no server tag", head + good_rest, TAVREL_ST_VIEW_IDENTITY,
       imsg_format(&_tvr_lib_lib_msg_table, TVR_LIB_NO_SERVER_TAG, m_stg.c_str())},
      {"junk around good lines",
       "\n   \nno separator here\n" + head + "server-tag = spaced tag \nunknown-key=whatever\n=\n" +
           std::string(20000, 'x') + "=overlong\n" + good_rest + "versionid=9.9\nserver-url=ignored",
       0, ""},
      {"value holding the separator", head + "server-tag=a=b\n" + good_rest, 0, ""},
      {"bad cache size", head + "server-tag=v1\n" + good_rest + "cache-size=12x\n", TAVREL_ST_METADATA_FILE,
       imsg_format(&_tvr_lib_lib_msg_table, TVR_LIB_PARSE_ERROR, meta.c_str())},
      {"cache size beyond 32 bits", head + "server-tag=v1\n" + good_rest + "cache-size=4294967296\n",
       TAVREL_ST_METADATA_FILE, imsg_format(&_tvr_lib_lib_msg_table, TVR_LIB_PARSE_ERROR, meta.c_str())},
      {"bad uuid", "view-uuid=xyz\nserver-tag=v1\n" + good_rest, TAVREL_ST_VIEW_IDENTITY,
       imsg_format(&_tvr_lib_lib_msg_table, TVR_LIB_BAD_VIEW_UUID, "xyz", m_stg.c_str())},
      {"too large", head + "server-tag=v1\n" + good_rest + std::string(70000, '#'), TAVREL_ST_METADATA_FILE,
       imsg_format(&_tvr_lib_lib_msg_table, TVR_LIB_PARSE_ERROR, meta.c_str())},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    write_text(meta, c.text);
    Tavrel_View v(m_stg);
    EXPECT_EQ(v.read_metadata_file(1), c.status);
    EXPECT_EQ(v.get_status_message(), c.message);
    if (std::string(c.name) == "junk around good lines") {
      EXPECT_EQ(v.get_server_tag(), "spaced tag");
      EXPECT_EQ(v.get_cache_size(), 5000000u);
      EXPECT_EQ(g_fake.last_size, 5000000u);
    }
    if (std::string(c.name) == "value holding the separator") {
      EXPECT_EQ(v.get_server_tag(), "a=b");
    }
  }
}

TEST_F(ViewTest, MissingOrNonRegularMetadataIsNoViewInformation) {
  fileutl_mkpath(m_stg, 0700);
  const std::string meta = m_stg + "/" + VIEW_STG_METADATA;
  struct Case {
    const char* name;
    void (*prepare)(const std::string& meta);
  };
  const Case cases[] = {
      {"missing", [](const std::string&) {}},
      {"a FIFO", [](const std::string& m) { ASSERT_EQ(mkfifo(m.c_str(), 0600), 0); }},
      {"a directory", [](const std::string& m) { fileutl_mkpath(m, 0700); }},
      {"a symbolic link", [](const std::string& m) { ASSERT_EQ(symlink("/etc/hostname", m.c_str()), 0); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Tavrel_View_Storage::remove_tree(meta);
    c.prepare(meta);
    Tavrel_View v(m_stg);
    EXPECT_EQ(v.get_view_info(), TAVREL_ST_NO_VIEW_INFO);
    EXPECT_EQ(v.get_status_message(), "View information not found.");
  }
}

TEST_F(ViewTest, TheSpinesReReadAcceptsMetadataThatAFullReadWouldRefuse) {
  // After the first request the process re-reads the metadata without validating it.
  fileutl_mkpath(m_stg, 0700);
  write_text(m_stg + "/" + VIEW_STG_METADATA, std::string("view-uuid=") + kUuid + "\nserver-tag=t\nview-type=\n");
  Tavrel_View v(m_stg);
  EXPECT_EQ(v.get_view_info(), 0);
  EXPECT_EQ(v.read_metadata_file(1), TAVREL_ST_VIEW_IDENTITY);
}

TEST_F(ViewTest, MetadataValuesThatWouldBreakTheFileAreRefused) {
  make_view();
  const std::string before = read_text(m_stg + "/" + VIEW_STG_METADATA);
  std::unique_ptr<Tavrel_View> v(Tavrel_View::get_view_from_list(kUuid, "v1\nserver-tag=evil", "unix", "auto",
                                                                 m_cache, m_stg, 0));
  EXPECT_EQ(v->create_metadata_file(), TAVREL_ST_WRITE_FILE);
  EXPECT_EQ(read_text(m_stg + "/" + VIEW_STG_METADATA), before);
}

TEST_F(ViewTest, SetCacheSize) {
  make_view();
  std::unique_ptr<Tavrel_View> v(Tavrel_View::get_view_from_stg(m_stg));
  ASSERT_EQ(v->start(), 0);
  std::string msg;
  EXPECT_EQ(v->set_cache_size(1000, msg, true), TAVREL_ST_FAILURE);
  EXPECT_EQ(msg, "Unable to set cache size to 1000: minimum size is 4194304\n");
  EXPECT_EQ(v->get_cache_size(), 0u);
  EXPECT_NE(read_text(m_stg + "/" + VIEW_STG_METADATA).find("cache-size=0\n"), std::string::npos);

  msg.clear();
  EXPECT_EQ(v->set_cache_size(8388608, msg, true), 0);
  EXPECT_EQ(msg, "");
  EXPECT_FALSE(g_fake.last_enforce);
  EXPECT_NE(read_text(m_stg + "/" + VIEW_STG_METADATA).find("cache-size=8388608\n"), std::string::npos);

  g_fake.set_size_rc = TBS_ST_INTERNAL;
  EXPECT_EQ(v->set_cache_size(9000000, msg, true), TAVREL_ST_FAILURE);
  EXPECT_EQ(msg, "Unable to set cache size to 9000000: internal error\n");
  EXPECT_EQ(v->get_cache_size(), 8388608u);

  // The size is set but cannot be saved.
  g_fake.set_size_rc = 0;
  msg.clear();
  fileutl_rm(m_stg + "/" + VIEW_STG_METADATA);
  fileutl_mkpath(m_stg + "/" + VIEW_STG_METADATA, 0700);
  EXPECT_EQ(v->set_cache_size(9000000, msg, true), TAVREL_ST_WRITE_FILE);
  EXPECT_EQ(msg, "Unable to save cache size to metadata file\n");
}

// ---------------------------------------------------------------------------------------------------
// The view lock between processes

// Runs `fn` in a child process; returns its pid. The child reports on `report` and then waits for the
// parent to kill it (when `stay`) or exits.
template <typename F>
pid_t run_child(F fn) {
  pid_t pid = fork();
  if (pid == 0) {
    fn();
    _exit(0);
  }
  return pid;
}

struct Report {
  int rc;
  int holder;
};

TEST_F(ViewTest, ASecondAgentIsRefusedWithTheHoldersPidAndAKilledOnesLockIsTakenOver) {
  make_view();
  int up[2];
  ASSERT_EQ(pipe(up), 0);
  // First agent: starts the view and stays.
  pid_t first = run_child([&] {
    Tavrel_View v(m_stg);
    Report r{v.start(), 0};
    (void)!write(up[1], &r, sizeof r);
    for (;;) pause();
  });
  ASSERT_GT(first, 0);
  Report r{};
  ASSERT_EQ(read(up[0], &r, sizeof r), static_cast<ssize_t>(sizeof r));
  ASSERT_EQ(r.rc, 0);
  g_fake = Fake();
  EXPECT_EQ(server_lock_holder(m_stg + "/.pid"), first);
  EXPECT_EQ(read_text(m_stg + "/.pid"), std::to_string(first) + "\n");

  // Second agent on the same storage: refused with status 3, told who holds the view.
  std::string message;
  pid_t second = run_child([&] {
    Tavrel_View v(m_stg);
    Report rr{v.start(), static_cast<int>(v.get_lock_holder())};
    (void)!write(up[1], &rr, sizeof rr);
  });
  ASSERT_EQ(read(up[0], &r, sizeof r), static_cast<ssize_t>(sizeof r));
  waitpid(second, nullptr, 0);
  EXPECT_EQ(r.rc, TAVREL_ST_VIEW_LOCKED);
  EXPECT_EQ(r.holder, first);
  // The same refusal in this process, with the message the client sees.
  {
    Tavrel_View v(m_stg);
    EXPECT_EQ(v.start(), TAVREL_ST_VIEW_LOCKED);
    EXPECT_EQ(v.get_status_message(), "View \"" + m_stg + "\" is in use by process " + std::to_string(first) + ".\n");
    EXPECT_EQ(g_fake.calls, "") << "nothing after the lock ran";
  }

  // kill -9 of the first: the kernel drops its lock; the next agent starts, in a new process.
  ASSERT_EQ(kill(first, SIGKILL), 0);
  int ws = 0;
  waitpid(first, &ws, 0);
  ASSERT_TRUE(WIFSIGNALED(ws));
  EXPECT_EQ(read_text(m_stg + "/.pid"), std::to_string(first) + "\n") << "a stale lock file remains";
  pid_t third = run_child([&] {
    Tavrel_View v(m_stg);
    Report rr{v.start(), 0};
    if (rr.rc == 0) rr.holder = static_cast<int>(getpid());
    std::string pidfile;
    fileutl_read_file(m_stg + "/.pid", &pidfile, 64);
    if (pidfile != std::to_string(getpid()) + "\n") rr.rc = -100;
    (void)!write(up[1], &rr, sizeof rr);
  });
  ASSERT_EQ(read(up[0], &r, sizeof r), static_cast<ssize_t>(sizeof r));
  waitpid(third, nullptr, 0);
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.holder, third);
  close(up[0]);
  close(up[1]);
}

TEST_F(ViewTest, TwoViewObjectsOfOneProcessDoNotShareTheLock) {
  make_view();
  Tavrel_View a(m_stg), b(m_stg);
  ASSERT_TRUE(a.lock());
  EXPECT_TRUE(a.lock()) << "taking it again is a no-op";
  EXPECT_FALSE(b.lock());
  EXPECT_EQ(b.get_lock_holder(), getpid());
  // b's refusal did not drop a's lock: another process still sees a as the holder.
  pid_t child = run_child([&] { _exit(server_lock_holder(m_stg + "/.pid") == getppid() ? 0 : 1); });
  int ws = 0;
  waitpid(child, &ws, 0);
  EXPECT_TRUE(WIFEXITED(ws) && WEXITSTATUS(ws) == 0);
  a.unlock();
  EXPECT_TRUE(b.lock());
  b.conditional_unlock();
  EXPECT_FALSE(b.holds_lock());
}

TEST_F(ViewTest, ALockFileThatIsNotAFileIsASystemError) {
  fileutl_mkpath(m_stg + "/.pid", 0700);
  Tavrel_View v(m_stg);
  EXPECT_FALSE(v.lock());
  EXPECT_EQ(v.get_status_message(),
            imsg_format(&_tvr_lib_lib_msg_table, TVR_LIB_LOCK_ERROR, "not a regular file", (m_stg + "/.pid").c_str()));
}

// ---------------------------------------------------------------------------------------------------
// Kernel module seams and the view root

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

  Tavrel_View::install_hooks(Tavrel_View_Hooks());
  EXPECT_EQ(on_exit.cleanup(), TBS_ST_FAILURE) << "no kernel module interface";
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
  struct Case {
    const char* in;
    const char* stripped;
    bool root;
  };
  const Case cases[] = {
      {"/view/tag1/proj/a.c", "/proj/a.c", false}, {"/view/tag1", "", true}, {"/view/tag1/", "/", true},
      {"/view/tag1x/proj", "/view/tag1x/proj", false}, {"/proj/a.c", "/proj/a.c", false}, {"", "", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(v->strip_view_root(c.in), c.stripped) << c.in;
    EXPECT_EQ(v->is_view_root(c.in), c.root) << c.in;
  }
}

// ---------------------------------------------------------------------------------------------------
// The update gate

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
  EXPECT_EQ(Tavrel_View::get_update(), p1);

  // Without waiting, a second update is turned away and nothing changes.
  gn = 99;
  EXPECT_FALSE(Tavrel_View::update_start(p2, gn, false));
  EXPECT_EQ(gn, 99u);
  EXPECT_EQ(Tavrel_View::get_update(), p1);
  Tavrel_View::update_end(p2);  // not the active one: no effect
  EXPECT_EQ(Tavrel_View::get_update(), p1);

  // A waiting one gets the gate when the first ends, with the GN the first set.
  std::atomic<int> got{0};
  unsigned gn2 = 0;
  std::thread waiter([&] {
    got = Tavrel_View::update_start(p2, gn2, true) ? 1 : -1;
  });
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
}

TEST_F(ViewTest, StopRequestsReachTheUpdate) {
  EXPECT_FALSE(Tavrel_View::should_stop_update());
  Tavrel_View::abort_update();
  EXPECT_TRUE(Tavrel_View::should_stop_update());
  Tavrel_View::reset_for_test();
  // The thread manager's exit flag, in a child so that this process's event loop stays usable.
  pid_t child = run_child([] {
    Tavrel_Thread_Manager_Base::get_instance()->set_should_exit();
    _exit(Tavrel_View::should_stop_update() ? 0 : 1);
  });
  int ws = 0;
  waitpid(child, &ws, 0);
  EXPECT_TRUE(WIFEXITED(ws) && WEXITSTATUS(ws) == 0);
  Tavrel_Thread_Manager_Base::destroy_instance();
}

// ---------------------------------------------------------------------------------------------------
// Message texts

}  // namespace
