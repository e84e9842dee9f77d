// The log and the trace file on a hostile disk: one entry per line whatever the message holds, and
// files that stay owner-only and never follow a link someone planted.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "core/tavrel_log.h"
#include "core/tavrel_trace.h"

namespace {

std::string read_file(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

struct TempDir {
  std::string path;
  TempDir() {
    char t[] = "/tmp/tavrel_log_test.XXXXXX";
    path = mkdtemp(t);
  }
  ~TempDir() { std::system(("rm -rf '" + path + "'").c_str()); }
};

TEST(LogEntry, EveryEntryIsOneLine) {
  struct {
    const char* text;
    const char* line;
  } rows[] = {
      {"plain", "plain\n"},
      {"brings its own\n", "brings its own\n"},
      {"crlf and more\r\n\n", "crlf and more\n"},
      {"two\nlines\n", "two\\nlines\n"},
      {"forged\nERROR::Jan 01,2026 00:00:00.000::1::x", "forged\\nERROR::Jan 01,2026 00:00:00.000::1::x\n"},
      {"back\\slash\rcr", "back\\\\slash\\rcr\n"},
      {"", "\n"},
  };
  for (auto& r : rows) EXPECT_EQ(Tavrel_Log::one_line(r.text), r.line) << r.text;
}

TEST(LogEntry, FileIsPrivateAndNeverFollowsALink) {
  TempDir d;
  const mode_t old = umask(0);
  Tavrel_Log::reset_for_test();
  Tavrel_Log* log = Tavrel_Log::get_instance(d.path);
  Tavrel_Log::g_enabled = 1;
  log->write_log(TAVREL_LOG_WARN, "first\nsecond");
  struct stat st;
  ASSERT_EQ(stat(log->get_log_path().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_NE(read_file(log->get_log_path()).find("::first\\nsecond\n"), std::string::npos);

  // A link in place of the log: the entry is lost, the target untouched.
  const std::string target = d.path + "/target";
  std::ofstream(target) << "keep";
  ASSERT_EQ(unlink(log->get_log_path().c_str()), 0);
  ASSERT_EQ(symlink(target.c_str(), log->get_log_path().c_str()), 0);
  log->write_log(TAVREL_LOG_INFO, "into the link?\n");
  EXPECT_EQ(read_file(target), "keep");
  Tavrel_Log::g_enabled = 0;
  Tavrel_Log::reset_for_test();
  umask(old);
}

TEST(TraceFile, DirectoryMustBeOurOwnAndPrivate) {
  struct {
    const char* name;
    void (*prepare)(const std::string& dir, const std::string& elsewhere);
    bool traced;
    mode_t dir_mode;  // expected afterwards (0: not checked)
  } rows[] = {
      {"missing", [](const std::string&, const std::string&) {}, true, 0700},
      {"world-writable", [](const std::string& dir, const std::string&) { mkdir(dir.c_str(), 0777), chmod(dir.c_str(), 0777); },
       true, 0700},
      {"a link", [](const std::string& dir, const std::string& elsewhere) {
         mkdir(elsewhere.c_str(), 0700), symlink(elsewhere.c_str(), dir.c_str());
       }, false, 0},
      {"a file", [](const std::string& dir, const std::string&) { std::ofstream(dir) << "x"; }, false, 0},
  };
  for (auto& r : rows) {
    TempDir home;
    const std::string dir = home.path + "/tavrel_trace", elsewhere = home.path + "/elsewhere";
    r.prepare(dir, elsewhere);
    setenv("HOME", home.path.c_str(), 1);
    Tavrel_Trace::set_trace("TAVREL", 1);
    Tavrel_Trace::setup_trace_file("u", getpid());
    Tavrel_Trace t(TAVREL, "LogTest", r.name);
    t.writeTrace(TRACE_LEVEL_1, "hello");
    const std::string file = Tavrel_Trace::get_trace_file();
    struct stat st;
    EXPECT_EQ(lstat(file.c_str(), &st) == 0, r.traced) << r.name;
    if (r.traced) {
      EXPECT_EQ(st.st_mode & 0777, 0600u) << r.name;
    }
    if (r.dir_mode) {
      ASSERT_EQ(lstat(dir.c_str(), &st), 0) << r.name;
      EXPECT_EQ(st.st_mode & 0777, r.dir_mode) << r.name;
    }
    EXPECT_EQ(lstat((elsewhere + "/" + file.substr(file.rfind('/') + 1)).c_str(), &st), -1) << r.name;
    Tavrel_Trace::set_trace(nullptr, 0);
    Tavrel_Trace::setup_trace_file("u", getpid());
  }
}

}  // namespace
