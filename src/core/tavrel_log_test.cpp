// The log and the trace file on a hostile disk: one entry per line whatever the message holds, the
// line format, nothing before the log is enabled nor after the storage is gone, and files that stay
// owner-only and never follow a link someone planted.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "base/fileutl.h"
#include "core/tavrel_log.h"
#include "core/tavrel_trace.h"
#include "proto/view_storage_names.h"

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
  ~TempDir() { EXPECT_EQ(std::system(("rm -rf '" + path + "'").c_str()), 0); }
};

TEST(LogEntry, EveryEntryIsOneLine) {
  const struct {
    const char *text, *line;
  } rows[] = {
      {"plain", "plain\n"},
      {"brings its own\n", "brings its own\n"},
      {"crlf and more\r\n\n", "crlf and more\n"},
      {"forged\nERROR::Jan 01,2026 00:00:00.000::1::x", "forged\\nERROR::Jan 01,2026 00:00:00.000::1::x\n"},
      {"back\\slash\rcr", "back\\\\slash\\rcr\n"},
      {"", "\n"},
  };
  for (auto& r : rows) EXPECT_EQ(Tavrel_Log::one_line(r.text), r.line) << r.text;
}

TEST(LogEntry, FormatEnablingAndAPrivateFileNeverFollowedOrRecreated) {
  TempDir d;
  const std::string view = d.path + "/view";
  ASSERT_EQ(fileutl_mkpath(view, 0700), 0);
  const mode_t old = umask(0);
  Tavrel_Log::reset_for_test();
  Tavrel_Log* log = Tavrel_Log::get_instance(view);
  const std::string path = view + "/" + VIEW_STG_LOG_DIR + "/" + VIEW_STG_LOG_FILE;
  ASSERT_EQ(log->get_log_path(), path);
  Tavrel_Log::g_enabled = 0;
  log->write_log(TAVREL_LOG_INFO, "before\n");
  EXPECT_FALSE(fileutl_exists(path));

  Tavrel_Log::g_enabled = 1;
  log->write_log(TAVREL_LOG_WARN, "careful %d\n", 7);
  static const char* const texts[] = {"Exiting, status = %d.\n"};
  static const _imsg_message_table_t table = {"t", "t", 1, texts};
  log->write_log(TAVREL_LOG_ERROR, &table, 0, 20001);
  log->write_log(static_cast<TAVREL_LOG_TYPE>(9), "odd");
  const std::string pid = std::to_string(getpid());
  const std::string stamp = "[A-Z][a-z]{2} \\d\\d,\\d{4} \\d\\d:\\d\\d:\\d\\d\\.\\d{3}::" + pid + "::";
  EXPECT_TRUE(std::regex_match(read_file(path), std::regex("WARN::" + stamp + "careful 7\nERROR::" + stamp +
                                                           "Exiting, status = 20001.\nUNKNOWN::" + stamp + "odd\n")))
      << read_file(path);
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  // A link in place of the log: the entry is lost, the target untouched.
  const std::string target = d.path + "/target";
  std::ofstream(target) << "keep";
  ASSERT_EQ(unlink(path.c_str()), 0);
  ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0);
  log->write_log(TAVREL_LOG_INFO, "into the link?\n");
  EXPECT_EQ(read_file(target), "keep");
  // The storage gone: it is not made again.
  ASSERT_EQ(std::system(("rm -rf '" + view + "'").c_str()), 0);
  log->write_log(TAVREL_LOG_INFO, "after removal\n");
  EXPECT_FALSE(fileutl_exists(view));
  Tavrel_Log::g_enabled = 0;
  Tavrel_Log::reset_for_test();
  umask(old);
}

TEST(TraceFile, DirectoryMustBeOurOwnAndPrivate) {
  const struct {
    const char* name;
    void (*prepare)(const std::string& home, const std::string& dir, const std::string& elsewhere);
    bool traced;
  } rows[] = {
      {"missing", [](const std::string&, const std::string&, const std::string&) {}, true},
      {"world-writable", [](const std::string&, const std::string& dir, const std::string&) {
         mkdir(dir.c_str(), 0777), chmod(dir.c_str(), 0777);
       }, true},
      {"a link", [](const std::string&, const std::string& dir, const std::string& elsewhere) {
         mkdir(elsewhere.c_str(), 0700), (void)!symlink(elsewhere.c_str(), dir.c_str());
       }, false},
      {"a file", [](const std::string&, const std::string& dir, const std::string&) { std::ofstream(dir) << "x"; }, false},
      // A home that cannot be written: the lines go nowhere, silently.
      {"no home", [](const std::string&, const std::string&, const std::string&) {
         setenv("HOME", "/proc/self/no-such-dir", 1);
       }, false},
  };
  for (auto& r : rows) {
    SCOPED_TRACE(r.name);
    TempDir home;
    const std::string dir = home.path + "/tavrel_trace", elsewhere = home.path + "/elsewhere";
    setenv("HOME", home.path.c_str(), 1);
    r.prepare(home.path, dir, elsewhere);
    Tavrel_Trace::set_trace("TAVREL", 1);
    Tavrel_Trace::setup_trace_file("u", getpid());
    Tavrel_Trace(TAVREL, "LogTest", r.name).writeTrace(TRACE_LEVEL_1, "hello");
    const std::string file = Tavrel_Trace::get_trace_file();
    struct stat st;
    EXPECT_EQ(lstat(file.c_str(), &st) == 0, r.traced);
    if (r.traced) {
      EXPECT_EQ(st.st_mode & 0777, 0600u);
      ASSERT_EQ(lstat(dir.c_str(), &st), 0);
      EXPECT_EQ(st.st_mode & 0777, 0700u);
    }
    EXPECT_EQ(lstat((elsewhere + "/" + file.substr(file.rfind('/') + 1)).c_str(), &st), -1);
    Tavrel_Trace::set_trace(nullptr, 0);
    Tavrel_Trace::close_trace_file();
  }
}

}  // namespace
