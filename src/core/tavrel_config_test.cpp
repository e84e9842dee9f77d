// The configuration: the settings file, the mount tables, ".mounted_silos" (decoding, rewriting, a
// killed rewrite), remounting at start, and finding the SILO of a path.
#include "core/tavrel_config.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/fileutl.h"
#include "core/tavrel_status.h"
#include "core/tavrel_view.h"
#include "core/tavrel_view_storage.h"
#include "proto/view_storage_names.h"

namespace {

Tavrel_View* g_view = nullptr;
std::vector<std::string> g_mounted;  // tags the mount hook saw, in order
std::set<std::string> g_fail_mount;  // tags whose mount fails

tbs_uuid_s uuid_of(int n) {
  tbs_uuid_s u = TBS_UUID_NULL;
  u.bytes[0] = static_cast<uint8_t>(n >> 8);
  u.bytes[1] = static_cast<uint8_t>(n);
  u.bytes[15] = 0x5a;
  return u;
}

SILO_mount_info entry(const std::string& tag, int n, const std::string& storage = "/srv/silos/x", bool pub = false,
                      bool project = true) {
  SILO_mount_info e;
  e.silo_tag = tag;
  e.replica_uuid = uuid_of(1000 + n);
  e.family_uuid = uuid_of(n);
  e.storage = storage;
  e.is_public = pub;
  e.is_project_silo = project;
  e.mount_state = 1;
  return e;
}

SILO_mount_info unmount(const std::string& tag) {
  SILO_mount_info e;
  e.silo_tag = tag;
  return e;
}

std::string read_text(const std::string& path) {
  std::string s;
  return fileutl_read_file(path, &s, 1 << 24) == 0 ? s : "<unreadable>";
}

// Like the mount operation: a successful mount enters the tables (and rewrites the file).
int recording_mount(SILO_mount_info& e) {
  g_mounted.push_back(e.silo_tag);
  if (g_fail_mount.count(e.silo_tag)) return TAVREL_ST_KERNEL_MOUNT;
  return Tavrel_Config::get_instance()->set_mount_state(e);
}

class ConfigTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/tavrel_config_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    m_root = tmpl;
    m_stg = m_root + "/stg";
    fileutl_mkpath(m_stg, 0700);
    m_file = m_stg + "/" + VIEW_STG_MOUNTED_SILOS;
    const char* home = getenv("HOME");
    m_had_home = home != nullptr;
    if (home) m_home = home;
    g_view = new Tavrel_View(m_stg);
    Tavrel_Config::set_view_lookup([] { return g_view; });
    Tavrel_Config::set_mount_hook(recording_mount);
    Tavrel_Config::clear_mount_tables_for_test();
    g_mounted.clear();
    g_fail_mount.clear();
  }
  void TearDown() override {
    Tavrel_Config::set_view_lookup(nullptr);
    Tavrel_Config::set_mount_hook(nullptr);
    Tavrel_Config::clear_mount_tables_for_test();
    delete g_view;
    g_view = nullptr;
    if (m_had_home) setenv("HOME", m_home.c_str(), 1);
    else unsetenv("HOME");
    Tavrel_Config::reset_for_test();
    Tavrel_View_Storage::remove_tree(m_root);
  }
  Tavrel_Config* config() { return Tavrel_Config::get_instance(); }

  std::string m_root, m_stg, m_file, m_home;
  bool m_had_home = false;
};

// ---------------------------------------------------------------------------------------------------
// Settings

TEST_F(ConfigTest, SettingsFiles) {
  const std::string home = m_root + "/home";
  fileutl_mkpath(home, 0700);
  setenv("HOME", home.c_str(), 1);
  const std::string conf = home + "/" + Tavrel_Config::CONFIG_FILE;
  const std::string long_key(Tavrel_Config::MAX_LINE + 1, 'k');
  auto text = [](std::string t) {
    return [t](const std::string& f) { ASSERT_EQ(fileutl_write_atomic(f, t, 0600), 0); };
  };
  using Expect = std::vector<std::pair<std::string, std::string>>;
  const Expect defaults = {{Tavrel_Config::NUM_CMAPI_THREADS, "7"}, {Tavrel_Config::NUM_KFSM_THREADS, "5"},
                           {Tavrel_Config::NUM_GET_THREADS, "2"}, {Tavrel_Config::TAVREL_TRACE_LEVEL, ""}};
  const struct {
    const char* name;
    std::function<void(const std::string&)> prepare;
    Expect expect;
  } rows[] = {
      {"missing: the defaults", [](const std::string&) {}, defaults},
      {"a symbolic link to a good file",
       [](const std::string& f) {
         fileutl_write_atomic(f + ".real", "tavrelNumCmapi=4\n", 0600);
         ASSERT_EQ(symlink((f + ".real").c_str(), f.c_str()), 0);
       },
       {{"tavrelNumCmapi", "4"}}},
      {"hostile lines around good ones",
       text("no equals sign here\n\n   \t  \n   # tavrelNumKfsm=99\n=orphan value\norphan key=\n"
            "  tavrelNumCmapi =  3  \r\ntavrelTraceSubsystem=TAVREL:RCLIENT\nsomeday=a=b=c\nunknownKey=kept\n" +
            long_key + "=too long\ntavrelTraceLevel=4\ntavrelTraceLevel=5\nflag=TrUe\ntavrelNumGet=x\nlast=no newline"),
       {{"tavrelNumCmapi", "3"},
        {"tavrelNumKfsm", "5"},  // a comment with leading blanks is still a comment
        {"tavrelTraceSubsystem", "TAVREL:RCLIENT"},
        {"someday", "a=b=c"},
        {"unknownKey", "kept"},
        {long_key, ""},
        {"tavrelTraceLevel", "5"},  // a later line wins
        {"", ""},
        {"orphan key", ""},
        {"last", "no newline"}}},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    Tavrel_View_Storage::remove_tree(conf);
    r.prepare(conf);
    Tavrel_Config::reset_for_test();
    EXPECT_EQ(config()->get_config_file(), conf);
    for (const auto& [key, value] : r.expect) EXPECT_EQ(config()->find(key), value) << key.substr(0, 40);
  }
  EXPECT_TRUE(config()->get_boolean_param("flag"));
  EXPECT_FALSE(config()->get_boolean_param("someday"));
  EXPECT_EQ(config()->get_int_param("tavrelNumGet", 2), 2) << "not a number: the fallback";
  EXPECT_EQ(config()->get_int_param("tavrelNumCmapi", 0), 3);
}

// ---------------------------------------------------------------------------------------------------
// Decoding ".mounted_silos" lines

TEST_F(ConfigTest, DecodeMountInfo) {
  const std::string r = tbs_uuid_to_str(uuid_of(1001)), f = tbs_uuid_to_str(uuid_of(1));
  const struct {
    const char* name;
    std::string line;
    bool ok;
    std::string tag = "", storage = "";
    bool pub = false, project = false;
  } cases[] = {
      {"plain", "/proj=" + r + "=" + f + "=/srv/p=true=false", true, "/proj", "/srv/p", true, false},
      {"blanks around fields", "  /proj = " + r + " = " + f + " = /srv/p = false = true ", true, "/proj", "/srv/p",
       false, true},
      {"flags other than true", "/proj=" + r + "=" + f + "=/s=TRUE=yes", true, "/proj", "/s", false, false},
      {"storage holding the separator", "/proj=" + r + "=" + f + "=/srv/a=b=c=true=true", true, "/proj", "/srv/a=b=c",
       true, true},
      {"no flags", "/proj=" + r + "=" + f + "=/srv/p", true, "/proj", "/srv/p", false, false},
      {"no storage", "/proj=" + r + "=" + f, true, "/proj", "", false, false},
      {"bad replica", "/proj=nothex=" + f + "=/s=true=true", false},
      {"missing family", "/proj=" + r, false},
      {"no tag", "=" + r + "=" + f + "=/s=true=true", false},
      {"binary junk", std::string("\x01\x02=\xff\xfe==", 7), false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::unique_ptr<SILO_mount_info> e(config()->decode_mount_info(c.line));
    ASSERT_EQ(e != nullptr, c.ok);
    if (!e) continue;
    EXPECT_EQ(e->silo_tag, c.tag);
    EXPECT_EQ(e->storage, c.storage);
    EXPECT_EQ(e->is_public, c.pub);
    EXPECT_EQ(e->is_project_silo, c.project);
    EXPECT_EQ(e->mount_state, 1);
  }
}

// ---------------------------------------------------------------------------------------------------
// The tables and the file

TEST_F(ConfigTest, SetMountStateKeepsTablesAndFileInStep) {
  Tavrel_Config* c = config();
  ASSERT_EQ(c->set_mount_state(entry("/zeta", 1)), 0);
  ASSERT_EQ(c->set_mount_state(entry("/alpha", 2, "/srv/a", true, false)), 0);
  EXPECT_EQ(read_text(m_file), entry("/alpha", 2, "/srv/a", true, false).to_line() + "\n" +
                                   entry("/zeta", 1).to_line() + "\n")
      << "tag order";
  struct stat st;
  ASSERT_EQ(stat(m_file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_TRUE(c->get_mount_state("/alpha"));
  EXPECT_FALSE(c->get_mount_state("/beta"));
  EXPECT_EQ(c->get_mount_info(uuid_of(2)).silo_tag, "/alpha");
  EXPECT_EQ(c->get_mount_info("/zeta").family_uuid, uuid_of(1));
  EXPECT_EQ(c->get_mount_info("/beta").silo_tag, "");
  EXPECT_EQ(c->get_mount_info(uuid_of(77)).silo_tag, "");

  // The same family under a new tag replaces the old entry in both tables.
  ASSERT_EQ(c->set_mount_state(entry("/zeta2", 1)), 0);
  EXPECT_FALSE(c->get_mount_state("/zeta"));
  EXPECT_EQ(c->get_mount_info(uuid_of(1)).silo_tag, "/zeta2");
  // A tag remounted with another family leaves no stale family behind.
  ASSERT_EQ(c->set_mount_state(entry("/alpha", 3)), 0);
  EXPECT_EQ(c->get_mount_info(uuid_of(2)).silo_tag, "");
  EXPECT_EQ(Tavrel_Config::g_mounted_silos.size(), 2u);
  EXPECT_EQ(Tavrel_Config::g_mounted_silos_uuid.size(), 2u);

  // Unmounting removes the line; with the last one the file stays, empty.
  ASSERT_EQ(c->set_mount_state(unmount("/alpha")), 0);
  EXPECT_EQ(read_text(m_file), entry("/zeta2", 1).to_line() + "\n");
  ASSERT_EQ(c->set_mount_state(unmount("/zeta2")), 0);
  EXPECT_EQ(read_text(m_file), "");
  EXPECT_TRUE(Tavrel_Config::g_mounted_silos_uuid.empty());
  EXPECT_EQ(c->set_mount_state(unmount("/never")), 0);
}

TEST_F(ConfigTest, SetMountStateRefusesWhatTheFileCannotHoldOrWhenItCannotBeWritten) {
  Tavrel_Config* c = config();
  ASSERT_EQ(c->set_mount_state(entry("/ok", 1)), 0);
  const std::string before = read_text(m_file);
  for (const std::string tag : {"", "/a=b", "/a\nb", "/a\r"}) EXPECT_EQ(c->set_mount_state(entry(tag, 5)), TAVREL_ST_INTERNAL) << tag;
  EXPECT_EQ(c->set_mount_state(entry("/fine", 6, "/srv/line\nbreak")), TAVREL_ST_INTERNAL);
  EXPECT_EQ(read_text(m_file), before);
  EXPECT_EQ(Tavrel_Config::g_mounted_silos.size(), 1u);

  // A directory where the file should be; then the storage gone: the tables change all the same.
  ASSERT_EQ(c->set_mount_state(entry("/a", 2)), 0);
  fileutl_rm(m_file);
  fileutl_mkpath(m_file, 0700);
  EXPECT_EQ(c->set_mount_state(entry("/b", 3)), TAVREL_ST_MOUNTED_FILE);
  EXPECT_TRUE(c->get_mount_state("/b"));
  Tavrel_View_Storage::remove_tree(m_stg);
  EXPECT_EQ(c->set_mount_state(unmount("/a")), TAVREL_ST_MOUNTED_FILE);
  EXPECT_FALSE(c->get_mount_state("/a"));
}

// ---------------------------------------------------------------------------------------------------
// Remount at start

TEST_F(ConfigTest, RemountMountsWhatTheFileListsAndSkipsWhatItCannotDecode) {
  Tavrel_Config* c = config();
  const std::string good1 = entry("/b", 1).to_line(), good2 = entry("/a", 2, "/srv/a", true).to_line(),
                    good3 = entry("/c", 3).to_line();
  fileutl_write_atomic(m_file,
                       good1 + "\n\n   \nthis line is junk\n" + std::string(Tavrel_Config::MAX_MOUNT_LINE + 10, 'x') +
                           "\n" + good2 + "\r\n/bad=" + tbs_uuid_to_str(uuid_of(9)) + "=zz=/s=true=true\n" + good3,
                       0600);
  g_fail_mount = {"/a"};
  EXPECT_EQ(c->remount_silos(), TAVREL_ST_REMOUNT);
  EXPECT_EQ(g_mounted, (std::vector<std::string>{"/b", "/a", "/c"})) << "file order; a failure does not stop the rest";
  EXPECT_TRUE(c->get_mount_state("/b"));
  EXPECT_FALSE(c->get_mount_state("/a"));
  EXPECT_TRUE(c->get_mount_info("/c").is_project_silo);
  EXPECT_EQ(read_text(m_file), good1 + "\n" + good3 + "\n") << "the file now says what is really mounted";

  // Not with a table that is already filled.
  g_mounted.clear();
  EXPECT_EQ(c->remount_silos(), TAVREL_ST_UPDATE_RUNNING);
  EXPECT_TRUE(g_mounted.empty());
}

TEST_F(ConfigTest, RemountEdgeCases) {
  Tavrel_Config* c = config();
  EXPECT_EQ(c->remount_silos(), 0) << "no file: nothing to remount";
  fileutl_write_atomic(m_file, "", 0600);
  EXPECT_EQ(c->remount_silos(), 0);
  EXPECT_TRUE(g_mounted.empty());

  fileutl_rm(m_file);
  ASSERT_EQ(mkfifo(m_file.c_str(), 0600), 0);
  EXPECT_EQ(c->remount_silos(), TAVREL_ST_MOUNTED_FILE) << "a FIFO is refused, not waited on";
  fileutl_rm(m_file);
}

// A child rewrites the file again and again (each rewrite a whole table), and is killed with SIGKILL at
// a random moment. The file must always hold one whole table: a prefix of the sequence of mounts, each
// line exactly as written; a temporary the kill left does not disturb the remount, and a start
// removes it.
TEST_F(ConfigTest, AKilledRewriteLeavesAWholeTable) {
  const int kEntries = 60;
  const std::string big_storage(3000, 's');  // about 180 KB per rewrite: a kill often lands mid-write
  std::vector<SILO_mount_info> seq;
  for (int i = 0; i < kEntries; i++) {
    char tag[16];
    snprintf(tag, sizeof tag, "/t%03d", i);
    seq.push_back(entry(tag, i + 1, "/srv/" + big_storage));
  }
  std::mt19937 rng(12345);
  int temporaries_seen = 0;
  for (int round = 0; round < 8; round++) {
    SCOPED_TRACE(round);
    fileutl_rm(m_file);
    Tavrel_Config::clear_mount_tables_for_test();
    int acks[2];
    ASSERT_EQ(pipe(acks), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      close(acks[0]);
      for (int i = 0;; i = (i + 1) % kEntries) {
        if (i == 0) Tavrel_Config::clear_mount_tables_for_test();
        if (Tavrel_Config::get_instance()->set_mount_state(seq[i]) != 0) _exit(3);
        if (write(acks[1], "+", 1) != 1) _exit(4);
      }
    }
    close(acks[1]);
    const int wanted = 1 + static_cast<int>(rng() % 20);
    char ch;
    for (int got = 0; got < wanted; got++) ASSERT_EQ(read(acks[0], &ch, 1), 1);
    kill(child, SIGKILL);
    int ws = 0;
    waitpid(child, &ws, 0);
    close(acks[0]);
    ASSERT_TRUE(WIFSIGNALED(ws)) << "the writer failed on its own: " << WEXITSTATUS(ws);

    const std::string text = read_text(m_file);
    size_t n = 0;
    for (char x : text) n += x == '\n';
    ASSERT_GE(n, 1u);
    std::string expected;
    for (size_t i = 0; i < n; i++) expected += seq[i].to_line() + "\n";
    ASSERT_EQ(text, expected);

    // Whatever temporary the kill left, the remount reads the whole table back and leaves the file as
    // it was; then a start removes the temporaries.
    Tavrel_Config::clear_mount_tables_for_test();
    g_mounted.clear();
    EXPECT_EQ(config()->remount_silos(), 0);
    EXPECT_EQ(g_mounted.size(), n);
    EXPECT_EQ(read_text(m_file), text);
    std::vector<std::string> names = {VIEW_STG_MOUNTED_SILOS};
    temporaries_seen += Tavrel_View_Storage::remove_stale_temporaries(m_stg, names);
    EXPECT_EQ(Tavrel_View_Storage::remove_stale_temporaries(m_stg, names), 0);
  }
  // Not asserted (it depends on timing), but shown: how often a kill left a temporary behind.
  RecordProperty("temporaries_left_by_kills", temporaries_seen);
}

// ---------------------------------------------------------------------------------------------------
// Finding the SILO of a path

TEST_F(ConfigTest, SiloOfAPath) {
  Tavrel_Config* c = config();
  for (auto e : {entry("/proj", 1), entry("/proj2", 2), entry("/a", 3), entry("/a/b", 4), entry("/t/", 5)})
    ASSERT_EQ(c->set_mount_state(e), 0);
  const struct {
    const char *in, *tag, *rest;  // tag null: not mounted
  } cases[] = {
      {"/proj/src/a.c", "/proj", "/src/a.c"},
      {"/proj", "/proj", ""},
      {"/proj/", "/proj", ""},
      {"/proj2/x", "/proj2", "/x"},
      {"/projx/a", nullptr, ""},
      {"/a/b/c", "/a", "/b/c"},  // the first tag in tag order decides, not the longest
      {"/a/b", "/a/b", ""},      // but a whole-path match is a SILO root
      {"/t", "/t/", ""},         // a tag with a trailing separator
      {"/t/sub", "/t/", "/sub"},
      {"relative/proj", nullptr, ""},
  };
  for (const auto& k : cases) {
    SCOPED_TRACE(k.in);
    std::string path = k.in;
    SILO_mount_info info;
    EXPECT_EQ(c->get_silo_info_and_path(path, info), k.tag ? 0 : TAVREL_ST_NOT_MOUNTED);
    EXPECT_EQ(path, k.tag ? k.rest : k.in);  // unchanged on failure
    EXPECT_EQ(info.silo_tag, k.tag ? k.tag : "");
  }
}

}  // namespace
