// Trace file and agent log: formats, filtering, limits and the silent failure modes.
#include "core/tavrel_trace.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>

#include "base/fileutl.h"
#include "core/tavrel_log.h"
#include "proto/view_storage_names.h"

namespace {

std::string temp_dir() {
  char tmpl[] = "/tmp/tavrel-trace-XXXXXX";
  return mkdtemp(tmpl);
}

std::string slurp(const std::string& path) {
  std::ifstream f(path);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

std::vector<std::string> files_in(const std::string& dir) {
  std::vector<std::string> out;
  DIR* d = opendir(dir.c_str());
  if (!d) return out;
  while (dirent* e = readdir(d))
    if (e->d_name[0] != '.') out.push_back(e->d_name);
  closedir(d);
  return out;
}

// Sets up tracing into a fresh home, runs `body`, and returns what reached the trace directory.
struct TraceRun {
  std::string home;
  std::vector<std::string> files;
  std::string text;
};

template <typename F>
TraceRun run_traced(const char* subsystems, int level, F body) {
  TraceRun r;
  r.home = temp_dir();
  setenv("HOME", r.home.c_str(), 1);
  Tavrel_Trace::set_trace(subsystems, level);
  Tavrel_Trace::setup_trace_file("tester", getpid());
  body();
  Tavrel_Trace::close_trace_file();
  r.files = files_in(r.home + "/tavrel_trace");
  if (!r.files.empty()) r.text = slurp(r.home + "/tavrel_trace/" + r.files[0]);
  Tavrel_Trace::set_trace(nullptr, 0);
  std::string cmd = "rm -rf " + r.home;
  if (system(cmd.c_str()) != 0) ADD_FAILURE();
  return r;
}

void scopes() {
  Tavrel_Trace a(TAVREL, "Cls", "fn");
  a.writeTrace(TRACE_LEVEL_4, "step %d", 4);
  a.writeTrace(TRACE_LEVEL_2, "problem %s", "here");
  Tavrel_Trace b(RCLIENT, "Wan", "call");
  b.writeTrace(TRACE_LEVEL_2, "wan problem");
  Tavrel_Trace d(TAVREL, "Cls", "demo");
  d.writeTrace(TRACE_LEVEL_DEMO, "demo line");
}

TEST(Trace, FilteringTable) {
  struct Case {
    const char* subsystems;
    int level;
    std::vector<std::string> present;
    std::vector<std::string> absent;
    bool file;
  } cases[] = {
      {"TAVREL", 3, {"::TRACE::TAVREL::Cls::fn::", "::Entering\n", "::Exiting\n", "problem here"},
       {"RCLIENT", "step 4", "demo line"}, true},
      {"TAVREL", 4, {"step 4", "problem here"}, {"wan problem"}, true},
      {"TAVREL:RCLIENT", 2, {"problem here", "wan problem"}, {"Entering"}, true},
      {"RCLIENT", 1, {}, {}, false},   // nothing of level 1 was written: no file is made
      {"", 5, {}, {}, false},          // no subsystem: nothing at any level
      {"TAVREL", 0, {}, {}, false},    // level 0: off
  };
  for (auto& c : cases) {
    TraceRun r = run_traced(c.subsystems, c.level, scopes);
    EXPECT_EQ(!r.files.empty(), c.file) << c.subsystems << "/" << c.level;
    for (auto& p : c.present) EXPECT_NE(r.text.find(p), std::string::npos) << c.subsystems << "/" << c.level << ": " << p;
    for (auto& a : c.absent) EXPECT_EQ(r.text.find(a), std::string::npos) << c.subsystems << "/" << c.level << ": " << a;
  }
}

TEST(Trace, LineAndFileFormats) {
  TraceRun r = run_traced("TAVREL", 2, [] {
    Tavrel_Trace t(TAVREL, "Cls", "fn");
    t.writeTrace(TRACE_LEVEL_1, "hello %s", "world");
  });
  ASSERT_EQ(r.files.size(), 1u);
  EXPECT_TRUE(std::regex_match(r.files[0], std::regex("tavrel_tester_d\\d{8}_t\\d{6}_p" + std::to_string(getpid()) + "\\.log")))
      << r.files[0];
  EXPECT_TRUE(std::regex_match(r.text, std::regex("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{6}::TRACE::TAVREL::Cls::fn::" +
                                                  std::to_string(getpid()) + "::[0-9a-f]+::hello world\n")))
      << r.text;
}

TEST(Trace, DemoModeShortLinesOnly) {
  TraceRun r = run_traced("TAVREL", TRACE_LEVEL_DEMO, scopes);
  EXPECT_TRUE(std::regex_match(r.text, std::regex("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{6}::demo line\n"))) << r.text;
}

TEST(Trace, LongMessageIsCutAndKeepsLineEnd) {
  TraceRun r = run_traced("TAVREL", 1, [] {
    Tavrel_Trace t(TAVREL, "Cls", "fn");
    t.writeTrace(TRACE_LEVEL_1, "%s", std::string(5000, 'x').c_str());
  });
  size_t first = r.text.find('x');
  ASSERT_NE(first, std::string::npos);
  EXPECT_EQ(r.text.size() - first, 2047u + 1u);
  EXPECT_EQ(r.text.back(), '\n');
}

TEST(Trace, FileIsPrivateAndUnwritableHomeIsSilent) {
  std::string home = temp_dir();
  setenv("HOME", home.c_str(), 1);
  Tavrel_Trace::set_trace("TAVREL", 1);
  Tavrel_Trace::setup_trace_file("", getpid());
  {
    Tavrel_Trace t(TAVREL, "Cls", "fn");
    t.writeTrace(TRACE_LEVEL_1, "x");
  }
  struct stat st;
  ASSERT_EQ(stat(Tavrel_Trace::get_trace_file().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_NE(Tavrel_Trace::get_trace_file().find("/tavrel_d"), std::string::npos);  // no user: no "<user>_"
  Tavrel_Trace::close_trace_file();

  setenv("HOME", "/proc/self/no-such-dir", 1);
  Tavrel_Trace::setup_trace_file("u", getpid());
  {
    Tavrel_Trace t(TAVREL, "Cls", "fn");
    t.writeTrace(TRACE_LEVEL_1, "goes nowhere");
  }
  Tavrel_Trace::close_trace_file();
  Tavrel_Trace::set_trace(nullptr, 0);
  std::string cmd = "rm -rf " + home;
  EXPECT_EQ(system(cmd.c_str()), 0);
}

TEST(Trace, RedactsPasswords) {
  struct {
    const char* in;
    const char* out;
  } cases[] = {
      {"<a><password>s3cret</password></a>", "<a><password>*****</password></a>"},
      {"<proxy-password x=\"1\">p&amp;w</proxy-password>", "<proxy-password x=\"1\">*****</proxy-password>"},
      {"<password/><passwords>keep</passwords>", "<password/><passwords>keep</passwords>"},
      {"<password>a</password><password>b</password>", "<password>*****</password><password>*****</password>"},
      {"<password>unterminated", "<password>*****"},
      {"no secrets", "no secrets"},
  };
  for (auto& c : cases) EXPECT_EQ(Tavrel_Trace::redact(c.in), c.out) << c.in;
}

TEST(Log, FormatEnablingAndNoRecreate) {
  std::string dir = temp_dir();
  std::string view = dir + "/view";
  ASSERT_EQ(fileutl_mkpath(view, 0700), 0);
  Tavrel_Log::reset_for_test();
  Tavrel_Log* log = Tavrel_Log::get_instance(view);
  ASSERT_EQ(log->get_log_path(), view + "/" + VIEW_STG_LOG_DIR + "/" + VIEW_STG_LOG_FILE);
  Tavrel_Log::g_enabled = 0;
  log->write_log(TAVREL_LOG_INFO, "before\n");
  EXPECT_FALSE(fileutl_exists(view + "/" + VIEW_STG_LOG_DIR + "/" + VIEW_STG_LOG_FILE));

  Tavrel_Log::g_enabled = 1;
  log->write_log(TAVREL_LOG_WARN, "careful %d\n", 7);
  static const char* const texts[] = {"Exiting, status = %d.\n"};
  static const _imsg_message_table_t table = {"t", "t", 1, texts};
  log->write_log(TAVREL_LOG_ERROR, &table, 0, 20001);
  log->write_log(static_cast<TAVREL_LOG_TYPE>(9), "odd");
  std::string text = slurp(view + "/" + VIEW_STG_LOG_DIR + "/" + VIEW_STG_LOG_FILE);
  std::string pid = std::to_string(getpid());
  std::regex line("(WARN|ERROR|UNKNOWN)::[A-Z][a-z]{2} \\d\\d,\\d{4} \\d\\d:\\d\\d:\\d\\d\\.\\d{3}::" + pid + "::");
  EXPECT_EQ(std::distance(std::sregex_iterator(text.begin(), text.end(), line), std::sregex_iterator()), 3) << text;
  EXPECT_NE(text.find("::careful 7\n"), std::string::npos);
  EXPECT_NE(text.find("::Exiting, status = 20001.\n"), std::string::npos);
  EXPECT_TRUE(text.size() >= 4 && text.substr(text.size() - 4) == "odd\n");  // one line end added

  std::string cmd = "rm -rf " + view;
  ASSERT_EQ(system(cmd.c_str()), 0);
  log->write_log(TAVREL_LOG_INFO, "after removal\n");
  EXPECT_FALSE(fileutl_exists(view));
  Tavrel_Log::g_enabled = 0;
  Tavrel_Log::reset_for_test();
  cmd = "rm -rf " + dir;
  EXPECT_EQ(system(cmd.c_str()), 0);
}

}  // namespace
