// The trace: filtering by subsystem and level, line and file name formats, demo mode, long messages,
// and redaction of passwords. (Where the file may be made: tavrel_log_test.cpp.)
#include "core/tavrel_trace.h"

#include <dirent.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>

namespace {

// Sets up tracing into a fresh home, runs `body`, and returns the files of the trace directory and
// the text of the first.
struct TraceRun {
  std::vector<std::string> files;
  std::string text;
};

template <typename F>
TraceRun run_traced(const char* subsystems, int level, F body, const char* user = "tester") {
  char tmpl[] = "/tmp/tavrel-trace-XXXXXX";
  const std::string home = mkdtemp(tmpl);
  setenv("HOME", home.c_str(), 1);
  Tavrel_Trace::set_trace(subsystems, level);
  Tavrel_Trace::setup_trace_file(user, getpid());
  body();
  Tavrel_Trace::close_trace_file();
  Tavrel_Trace::set_trace(nullptr, 0);
  TraceRun r;
  if (DIR* d = opendir((home + "/tavrel_trace").c_str())) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') r.files.push_back(e->d_name);
    closedir(d);
  }
  if (!r.files.empty()) {
    std::ifstream f(home + "/tavrel_trace/" + r.files[0]);
    std::stringstream ss;
    ss << f.rdbuf();
    r.text = ss.str();
  }
  EXPECT_EQ(system(("rm -rf " + home).c_str()), 0);
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

const std::string kStamp = "\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{6}::";

TEST(Trace, FilteringTable) {
  const struct {
    const char* subsystems;
    int level;
    std::vector<std::string> present, absent;
  } cases[] = {
      {"TAVREL", 3, {"::TRACE::TAVREL::Cls::fn::", "::Entering\n", "::Exiting\n", "problem here"},
       {"RCLIENT", "step 4", "demo line"}},
      {"TAVREL", 4, {"step 4", "problem here"}, {"wan problem"}},
      {"TAVREL:RCLIENT", 2, {"problem here", "wan problem"}, {"Entering"}},
      {"RCLIENT", 1, {}, {}},  // nothing of level 1 was written: no file is made
      {"TAVREL", 0, {}, {}},   // level 0: off
  };
  for (auto& c : cases) {
    SCOPED_TRACE(std::string(c.subsystems) + "/" + std::to_string(c.level));
    TraceRun r = run_traced(c.subsystems, c.level, scopes);
    EXPECT_EQ(r.files.empty(), c.present.empty());
    for (auto& p : c.present) EXPECT_NE(r.text.find(p), std::string::npos) << p;
    for (auto& a : c.absent) EXPECT_EQ(r.text.find(a), std::string::npos) << a;
  }
  // Demo mode: the short lines of level 10 only.
  TraceRun demo = run_traced("TAVREL", TRACE_LEVEL_DEMO, scopes);
  EXPECT_TRUE(std::regex_match(demo.text, std::regex(kStamp + "demo line\n"))) << demo.text;
}

TEST(Trace, LineAndFileFormats) {
  const std::string pid = std::to_string(getpid());
  TraceRun r = run_traced("TAVREL", 2, [] {
    Tavrel_Trace t(TAVREL, "Cls", "fn");
    t.writeTrace(TRACE_LEVEL_1, "hello %s", "world");
  });
  ASSERT_EQ(r.files.size(), 1u);
  EXPECT_TRUE(std::regex_match(r.files[0], std::regex("tavrel_tester_d\\d{8}_t\\d{6}_p" + pid + "\\.log"))) << r.files[0];
  EXPECT_TRUE(std::regex_match(r.text, std::regex(kStamp + "TRACE::TAVREL::Cls::fn::" + pid + "::[0-9a-f]+::hello world\n")))
      << r.text;
  // Without a user the name has no "<user>_"; a long message is cut at 2047 bytes and keeps its line end.
  r = run_traced("TAVREL", 1, [] {
    Tavrel_Trace t(TAVREL, "Cls", "fn");
    t.writeTrace(TRACE_LEVEL_1, "%s", std::string(5000, 'x').c_str());
  }, "");
  ASSERT_EQ(r.files.size(), 1u);
  EXPECT_TRUE(std::regex_match(r.files[0], std::regex("tavrel_d\\d{8}_t\\d{6}_p" + pid + "\\.log"))) << r.files[0];
  size_t first = r.text.find('x');
  ASSERT_NE(first, std::string::npos);
  EXPECT_EQ(r.text.size() - first, 2047u + 1u);
  EXPECT_EQ(r.text.back(), '\n');
}

TEST(Trace, RedactsPasswords) {
  const struct {
    const char *in, *out;
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

}  // namespace
